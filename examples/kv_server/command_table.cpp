#include "command_table.h"

#include <cctype>
#include <string>
#include <unordered_map>

namespace {

const size_t LONGEST_NAME = 16;

std::unordered_map<std::string_view, const Command_t*> MakeIndex() {
  std::unordered_map<std::string_view, const Command_t*> mapIndex;
  for (const Command_t& stCommand : AllCommands()) {
    mapIndex.emplace(stCommand.pName, &stCommand);
  }
  return mapIndex;
}

}  // namespace

const std::vector<Command_t>& AllCommands() {
  static const std::vector<Command_t> vecCommands = {
      {CMD_PING, "ping", -1, ROUTE_GATEWAY, false},
      {CMD_ECHO, "echo", 2, ROUTE_GATEWAY, false},
      {CMD_SELECT, "select", 2, ROUTE_GATEWAY, false},
      {CMD_QUIT, "quit", -1, ROUTE_GATEWAY, false},
      {CMD_COMMAND, "command", -1, ROUTE_GATEWAY, false},
      {CMD_CONFIG, "config", -2, ROUTE_GATEWAY, false},
      {CMD_SHUTDOWN, "shutdown", -1, ROUTE_GATEWAY, false},
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
  };
  return vecCommands;
}

const Command_t* FindCommand(std::string_view strName) {
  static const auto mapIndex = MakeIndex();
  char szLower[LONGEST_NAME];
  if (strName.size() > LONGEST_NAME) {
    return nullptr;
  }
  for (size_t i = 0; i < strName.size(); ++i) {
    szLower[i] = static_cast<char>(tolower(static_cast<unsigned char>(strName[i])));
  }
  const auto it = mapIndex.find(std::string_view(szLower, strName.size()));
  return it == mapIndex.end() ? nullptr : it->second;
}

bool ArityMatches(const Command_t& stCommand, size_t iArguments) {
  return stCommand.iArity >= 0 ? iArguments == static_cast<size_t>(stCommand.iArity)
                               : iArguments >= static_cast<size_t>(-stCommand.iArity);
}
