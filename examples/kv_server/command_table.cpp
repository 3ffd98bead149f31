#include "command_table.h"

#include <algorithm>
#include <cctype>
#include <list>
#include <set>
#include <string>
#include <unordered_map>

namespace {

const size_t LONGEST_NAME = 64;

typedef std::unordered_map<std::string_view, const Command_t*> Index_t;

std::vector<Command_t>& Commands() {
  static std::vector<Command_t> vecCommands = {
      {CMD_PING, "ping", -1, ROUTE_GATEWAY, false},
      {CMD_ECHO, "echo", 2, ROUTE_GATEWAY, false},
      {CMD_SELECT, "select", 2, ROUTE_GATEWAY, false},
      {CMD_QUIT, "quit", -1, ROUTE_GATEWAY, false},
      {CMD_COMMAND, "command", -1, ROUTE_GATEWAY, false},
      {CMD_CONFIG, "config", -2, ROUTE_GATEWAY, false},
      {CMD_SHUTDOWN, "shutdown", -1, ROUTE_GATEWAY, false},
      {CMD_CLIENT, "client", -2, ROUTE_GATEWAY, false},
      {CMD_HELLO, "hello", -1, ROUTE_GATEWAY, false},
      {CMD_DEBUG, "debug", -2, ROUTE_GATEWAY, false},
      {CMD_GET, "get", 2, ROUTE_ONE_KEY, false},
      {CMD_SET, "set", -3, ROUTE_ONE_KEY, true},
      {CMD_INCR, "incr", 2, ROUTE_ONE_KEY, true},
      {CMD_DECR, "decr", 2, ROUTE_ONE_KEY, true},
      {CMD_INCRBY, "incrby", 3, ROUTE_ONE_KEY, true},
      {CMD_DEL, "del", -2, ROUTE_KEYS, true},
      {CMD_EXISTS, "exists", -2, ROUTE_KEYS, false},
      {CMD_MGET, "mget", -2, ROUTE_KEYS, false},
      {CMD_MSET, "mset", -3, ROUTE_PAIRS, true},
      {CMD_DBSIZE, "dbsize", 1, ROUTE_ALL, false},
      {CMD_FLUSHALL, "flushall", -1, ROUTE_ALL, true},
      {CMD_INFO, "info", -1, ROUTE_ALL, false},
      {CMD_SETNX, "setnx", 3, ROUTE_ONE_KEY, true},
      {CMD_SETEX, "setex", 4, ROUTE_ONE_KEY, true},
      {CMD_GETSET, "getset", 3, ROUTE_ONE_KEY, true},
      {CMD_GETDEL, "getdel", 2, ROUTE_ONE_KEY, true},
      {CMD_APPEND, "append", 3, ROUTE_ONE_KEY, true},
      {CMD_STRLEN, "strlen", 2, ROUTE_ONE_KEY, false},
      {CMD_DECRBY, "decrby", 3, ROUTE_ONE_KEY, true},
      {CMD_EXPIRE, "expire", -3, ROUTE_ONE_KEY, true},
      {CMD_PEXPIRE, "pexpire", -3, ROUTE_ONE_KEY, true},
      {CMD_TTL, "ttl", 2, ROUTE_ONE_KEY, false},
      {CMD_PTTL, "pttl", 2, ROUTE_ONE_KEY, false},
      {CMD_PERSIST, "persist", 2, ROUTE_ONE_KEY, true},
      {CMD_UNLINK, "unlink", -2, ROUTE_KEYS, true},
      {CMD_TYPE, "type", 2, ROUTE_ONE_KEY, false},
      {CMD_KEYS, "keys", 2, ROUTE_ALL, false},
      {CMD_SCAN, "scan", -2, ROUTE_CURSOR, false},
      {CMD_RANDOMKEY, "randomkey", 1, ROUTE_ALL, false},
      {CMD_FLUSHDB, "flushdb", -1, ROUTE_ALL, true},
      {CMD_BGSAVE, "bgsave", -1, ROUTE_ALL, false},
      {CMD_LASTSAVE, "lastsave", 1, ROUTE_ALL, false},
  };
  return vecCommands;
}

Index_t MakeIndex() {
  Index_t mapIndex;
  for (const Command_t& stCommand : Commands()) {
    mapIndex.emplace(stCommand.pName, &stCommand);
  }
  return mapIndex;
}

// What was found last, as it was written: pipelines mostly repeat one command.
struct Latest_t {
  std::string strName;
  const Command_t* pCommand = nullptr;
};

Latest_t g_stLatest;

Index_t& Index() {
  static Index_t mapIndex = MakeIndex();
  return mapIndex;
}

std::string Wrong(const CommandNames_t::value_type& stPair, const char* pWhat) {
  const bool bDisabled = stPair.second.empty();
  return "command \"" + stPair.first + "\"" + (bDisabled ? "" : " as \"" + stPair.second + "\"") +
         ": " + pWhat;
}

}  // namespace

const std::vector<Command_t>& AllCommands() { return Commands(); }

const Command_t* FindCommand(std::string_view strName) {
  if (g_stLatest.pCommand != nullptr && strName == g_stLatest.strName) {
    return g_stLatest.pCommand;
  }
  const Index_t& mapIndex = Index();
  char szLower[LONGEST_NAME];
  if (strName.size() > LONGEST_NAME) {
    return nullptr;
  }
  for (size_t i = 0; i < strName.size(); ++i) {
    szLower[i] = static_cast<char>(tolower(static_cast<unsigned char>(strName[i])));
  }
  const auto it = mapIndex.find(std::string_view(szLower, strName.size()));
  if (it == mapIndex.end()) {
    return nullptr;
  }
  g_stLatest = {std::string(strName), it->second};
  return it->second;
}

bool Writes(CommandId_t eId) {
  const std::vector<Command_t>& vecCommands = Commands();
  return std::any_of(vecCommands.begin(), vecCommands.end(), [eId](const Command_t& stCommand) {
    return stCommand.eId == eId && stCommand.bWrites;
  });
}

bool ArityMatches(const Command_t& stCommand, size_t iArguments) {
  return stCommand.iArity >= 0 ? iArguments == static_cast<size_t>(stCommand.iArity)
                               : iArguments >= static_cast<size_t>(-stCommand.iArity);
}

std::string CheckCommandNames(const CommandNames_t& mapNames) {
  std::set<std::string> setTaken;
  for (const Command_t& stCommand : AllCommands()) {
    if (mapNames.count(stCommand.pName) == 0) {
      setTaken.insert(stCommand.pName);
    }
  }
  for (const auto& stPair : mapNames) {
    if (FindCommand(stPair.first) == nullptr) {
      return Wrong(stPair, "there is no such command");
    }
    if (stPair.second.size() > LONGEST_NAME) {
      return Wrong(stPair, "the new name is longer than 64 characters");
    }
    if (!stPair.second.empty() && !setTaken.insert(stPair.second).second) {
      return Wrong(stPair, "the new name is another command's");
    }
  }
  return "";
}

void RenameCommands(const CommandNames_t& mapNames) {
  static std::list<std::string> lstNames;  // what pName points to
  std::vector<Command_t>& vecCommands = Commands();
  for (Command_t& stCommand : vecCommands) {
    const auto it = mapNames.find(stCommand.pName);
    if (it != mapNames.end()) {
      lstNames.push_back(it->second);
      stCommand.pName = lstNames.back().c_str();
    }
  }
  vecCommands.erase(std::remove_if(vecCommands.begin(), vecCommands.end(),
                                   [](const Command_t& st) { return *st.pName == '\0'; }),
                    vecCommands.end());
  Index() = MakeIndex();
  g_stLatest = Latest_t();
}
