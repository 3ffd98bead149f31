#ifndef KV_SERVER_COMMAND_TABLE_H
#define KV_SERVER_COMMAND_TABLE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// The commands, as numbers that go from the gateway to the workers.
enum CommandId_t : uint16_t {
  CMD_PING,
  CMD_ECHO,
  CMD_SELECT,
  CMD_QUIT,
  CMD_COMMAND,
  CMD_CONFIG,
  CMD_SHUTDOWN,
  CMD_GET,
  CMD_SET,
  CMD_INCR,
  CMD_DECR,
  CMD_INCRBY,
  CMD_DEL,
  CMD_EXISTS,
  CMD_MGET,
  CMD_MSET,
  CMD_DBSIZE,
  CMD_FLUSHALL,
  CMD_INFO,
};

// Who answers a command.
enum Route_t {
  ROUTE_GATEWAY,  // the gateway itself
  ROUTE_ONE_KEY,  // the worker that owns the first argument
  ROUTE_KEYS,     // every argument is a key, each with its own worker
  ROUTE_PAIRS,    // keys and values in turn
  ROUTE_ALL,      // every worker
};

struct Command_t {
  CommandId_t eId;
  const char* pName;  // lower case, as error texts show it
  int iArity;         // arguments with the name; negative: at least so many
  Route_t eRoute;
  bool bWrites;
};

// The command of that name in any case, or null.
const Command_t* FindCommand(std::string_view strName);

bool ArityMatches(const Command_t& stCommand, size_t iArguments);

// All commands that may be run, for COMMAND.
const std::vector<Command_t>& AllCommands();

// New names for commands, both in lower case; an empty one disables the command. Empty, or what is
// wrong with them.
typedef std::map<std::string, std::string> CommandNames_t;
std::string CheckCommandNames(const CommandNames_t& mapNames);

// From now on the commands go by those names only. To be called once, before any is looked up by a
// client; the names must have been found right.
void RenameCommands(const CommandNames_t& mapNames);

#endif
