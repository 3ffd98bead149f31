#ifndef KV_SERVER_COMMAND_RUNNER_H
#define KV_SERVER_COMMAND_RUNNER_H

#include <string>

#include "batch.h"
#include "command_table.h"
#include "key_store.h"

const char NOT_AN_INTEGER[] = "ERR value is not an integer or out of range";

// A whole text that is a signed 64-bit number: no blanks, no plus sign, no leading zeros.
bool ParseInteger(std::string_view strText, int64_t& iValue);

// Runs commands on a worker's keys. The gateway has looked at names, counts and limits already.
class CommandRunner {
 public:
  // A reply of several values that is longer than iMaxReply bytes becomes an error.
  CommandRunner(KeyStore& stStore, uint64_t iMaxReply)
      : m_stStore(stStore), m_iMaxReply(iMaxReply) {}

  // Appends the reply to strOut; vecArguments come without the command's name.
  void Run(CommandId_t eCommand, const Arguments_t& vecArguments, std::string& strOut);

  uint64_t CommandsRun() const { return m_iCommandsRun; }

 private:
  void Get(std::string_view strKey, std::string& strOut);
  void Set(const Arguments_t& vecArguments, std::string& strOut);
  void Add(std::string_view strKey, int64_t iDelta, std::string& strOut);
  void IncrBy(const Arguments_t& vecArguments, std::string& strOut);
  void MSet(const Arguments_t& vecArguments, std::string& strOut);
  int64_t Remove(const Arguments_t& vecKeys);
  int64_t CountExisting(const Arguments_t& vecKeys);

  void LimitReply(std::string& strOut, size_t iStart) const;

  KeyStore& m_stStore;
  const uint64_t m_iMaxReply;
  uint64_t m_iCommandsRun = 0;
};

#endif
