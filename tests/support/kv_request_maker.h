#ifndef ZELK_TESTS_KV_REQUEST_MAKER_H
#define ZELK_TESTS_KV_REQUEST_MAKER_H

#include <random>
#include <string>

#include "kv_load.h"
#include "kv_model.h"

// Draws requests: all commands on keys, and some that the model does not know. Keys of a client are
// its own; every fourth of them mostly holds numbers, two hold long values.
class RequestMaker {
 public:
  RequestMaker(const LoadOptions_t& stOptions, const KvModel& stModel);

  Request_t Draw(int iClient);
  int Below(int iLimit);

  static std::string Key(int iClient, int iNumber);
  static bool IsKey(const std::string& strKey);

 private:
  Request_t DrawRead();
  Request_t DrawWrite();
  Request_t DrawExpiry();
  Request_t DrawSeveral();
  Request_t DrawOther();
  bool IsLarge() const { return m_iNumber < 2; }
  bool IsNumber() const { return m_iNumber % 4 == 3; }
  std::string OwnKey() const { return Key(m_iClient, m_iNumber); }
  std::string Value();
  std::string Time(bool bSeconds);

  const LoadOptions_t m_stOptions;
  const KvModel& m_stModel;
  std::mt19937 m_stRandom;
  int m_iClient = 0;
  int m_iNumber = 0;  // of the key that was drawn
  uint64_t m_iValues = 0;
};

#endif
