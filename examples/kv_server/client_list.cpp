#include "client_list.h"

#include <algorithm>

#include "command_runner.h"
#include "reply.h"
#include "subcommands.h"

namespace {

const char DEFAULT_USER[] = "default";

std::string ParseType(std::string_view strType, ClientFilter_t& stFilter) {
  for (const char* pType : {"normal", "master", "replica", "slave", "pubsub"}) {
    if (IsWord(strType, pType)) {
      stFilter.bNobody |= !IsWord(strType, "normal");
      return "";
    }
  }
  return "ERR Unknown client type '" + std::string(ShownText(strType)) + "'";
}

std::string ParseKillId(std::string_view strId, ClientFilter_t& stFilter) {
  int64_t iId = 0;
  if (!ParseInteger(strId, iId) || iId < 1) {
    return "ERR client-id should be greater than 0";
  }
  stFilter.vecIds = {static_cast<uint64_t>(iId)};
  return "";
}

std::string ParseSkipMe(std::string_view strAnswer, ClientFilter_t& stFilter) {
  stFilter.bSkipMe = IsWord(strAnswer, "yes");
  return stFilter.bSkipMe || IsWord(strAnswer, "no") ? "" : SYNTAX_ERROR;
}

std::string ParseUser(std::string_view strUser) {
  return strUser == DEFAULT_USER ? ""
                                 : "ERR No such user '" + std::string(ShownText(strUser)) + "'";
}

// One option of CLIENT KILL and its value.
std::string ParseKillOption(std::string_view strOption, std::string_view strValue,
                            ClientFilter_t& stFilter) {
  if (IsWord(strOption, "id")) {
    return ParseKillId(strValue, stFilter);
  }
  if (IsWord(strOption, "type")) {
    return ParseType(strValue, stFilter);
  }
  if (IsWord(strOption, "skipme")) {
    return ParseSkipMe(strValue, stFilter);
  }
  if (IsWord(strOption, "user")) {
    return ParseUser(strValue);
  }
  if (IsWord(strOption, "addr")) {
    return stFilter.strPeer = strValue, "";
  }
  return IsWord(strOption, "laddr") ? (stFilter.strLocal = strValue, "") : SYNTAX_ERROR;
}

std::string Flags(const ClientState_t& stState) {
  const std::string strFlags =
      std::string(stState.bPaused ? "b" : "") + (stState.bClosing ? "c" : "");
  return strFlags.empty() ? "N" : strFlags;
}

}  // namespace

std::string ClientLine(const ClientState_t& stState, time_t iNow) {
  const ClientRecord_t& stRecord = *stState.pRecord;
  std::string strLine = "id=" + std::to_string(stRecord.iNumber);
  strLine += " addr=" + stState.strPeer + " laddr=" + stState.strLocal;
  strLine += " fd=" + std::to_string(stState.iFD) + " name=" + stRecord.strName;
  strLine += " age=" + std::to_string(iNow - stRecord.iConnected);
  strLine += " idle=" + std::to_string(iNow - stRecord.iActive);
  strLine += " flags=" + Flags(stState) + " db=0 sub=0 psub=0 ssub=0 multi=-1";
  strLine += " qbuf=" + std::to_string(stState.iReceived);
  strLine += " omem=" + std::to_string(stState.iWaiting);
  strLine += std::string(" events=") + (stState.bReads ? "r" : "") + (stState.bWrites ? "w" : "");
  strLine += std::string(" cmd=") + (stRecord.pCommand == nullptr ? "NULL" : stRecord.pCommand);
  return strLine + " user=" + DEFAULT_USER + " redir=-1 resp=2\n";
}

bool IsClientName(std::string_view strName) {
  return std::all_of(strName.begin(), strName.end(), [](char c) { return c >= '!' && c <= '~'; });
}

bool ClientFilter_t::Matches(const ClientState_t& stState) const {
  return !bNobody &&
         (!vecIds ||
          std::binary_search(vecIds->begin(), vecIds->end(), stState.pRecord->iNumber)) &&
         (!strPeer || *strPeer == stState.strPeer) && (!strLocal || *strLocal == stState.strLocal);
}

std::string ParseListFilter(const Arguments_t& vecArguments, ClientFilter_t& stFilter) {
  if (vecArguments.size() == 2) {
    return "";
  }
  if (vecArguments.size() == 4 && IsWord(vecArguments[2], "type")) {
    return ParseType(vecArguments[3], stFilter);
  }
  if (vecArguments.size() == 3 || !IsWord(vecArguments[2], "id")) {
    return SYNTAX_ERROR;
  }
  stFilter.vecIds.emplace();
  for (size_t i = 3; i < vecArguments.size(); ++i) {
    int64_t iId = 0;
    if (!ParseInteger(vecArguments[i], iId)) {
      return "ERR Invalid client ID";
    }
    stFilter.vecIds->push_back(static_cast<uint64_t>(iId));
  }
  std::sort(stFilter.vecIds->begin(), stFilter.vecIds->end());
  return "";
}

std::string ParseKillFilter(const Arguments_t& vecArguments, ClientFilter_t& stFilter) {
  if (vecArguments.size() == 3) {
    stFilter.bOldForm = true;
    stFilter.bSkipMe = false;
    stFilter.strPeer = vecArguments[2];
    return "";
  }
  for (size_t i = 2; i < vecArguments.size(); i += 2) {
    const bool bValue = i + 1 < vecArguments.size();
    std::string strError =
        bValue ? ParseKillOption(vecArguments[i], vecArguments[i + 1], stFilter) : SYNTAX_ERROR;
    if (!strError.empty()) {
      return strError;
    }
  }
  return "";
}
