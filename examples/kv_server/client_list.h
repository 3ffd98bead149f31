#ifndef KV_SERVER_CLIENT_LIST_H
#define KV_SERVER_CLIENT_LIST_H

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "batch.h"

// What a session remembers of its client for CLIENT and the log.
struct ClientRecord_t {
  uint64_t iNumber = 0;  // from 1; never used again by the same gateway process
  std::string strName;
  time_t iConnected = 0;
  time_t iActive = 0;              // when it sent something last
  const char* pCommand = nullptr;  // the latest, "client|list"
};

// A client as it is now.
struct ClientState_t {
  const ClientRecord_t* pRecord;
  std::string strPeer;  // "127.0.0.1:40000"
  std::string strLocal;
  int iFD;
  size_t iReceived;  // bytes not run yet
  size_t iWaiting;   // bytes to be sent
  bool bPaused;      // its requests wait
  bool bClosing;
  bool bReads;
  bool bWrites;
};

// Its line in CLIENT LIST, with the line end.
std::string ClientLine(const ClientState_t& stState, time_t iNow);

bool IsClientName(std::string_view strName);

// Which clients CLIENT LIST or CLIENT KILL means; what is not set is not looked at.
struct ClientFilter_t {
  std::optional<std::vector<uint64_t>> vecIds;  // in order
  std::optional<std::string> strPeer;
  std::optional<std::string> strLocal;
  bool bNobody = false;  // of a type that no client is of
  bool bSkipMe = true;
  bool bOldForm = false;  // "CLIENT KILL 127.0.0.1:40000"

  bool Matches(const ClientState_t& stState) const;
};

// Read the arguments of the whole command, whose number was looked at. Empty, or the error.
std::string ParseListFilter(const Arguments_t& vecArguments, ClientFilter_t& stFilter);
std::string ParseKillFilter(const Arguments_t& vecArguments, ClientFilter_t& stFilter);

#endif
