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
  CMD_CLIENT,
  CMD_HELLO,
  CMD_DEBUG,
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
  CMD_SETNX,
  CMD_SETEX,
  CMD_GETSET,
  CMD_GETDEL,
  CMD_APPEND,
  CMD_STRLEN,
  CMD_DECRBY,
  CMD_EXPIRE,
  CMD_PEXPIRE,
  CMD_TTL,
  CMD_PTTL,
  CMD_PERSIST,
  CMD_UNLINK,
  CMD_TYPE,
  CMD_KEYS,
  CMD_SCAN,
  CMD_RANDOMKEY,
  CMD_FLUSHDB,
  CMD_BGSAVE,
  CMD_LASTSAVE,
  CMD_COUNT,
};

// Who answers a command.
enum Route_t {
  ROUTE_GATEWAY,  // the gateway itself
  ROUTE_ONE_KEY,  // the worker that owns the first argument
  ROUTE_KEYS,     // every argument is a key, each with its own worker
  ROUTE_PAIRS,    // keys and values in turn
  ROUTE_ALL,      // every worker
  ROUTE_CURSOR,   // the worker that the first argument, a cursor, tells
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

// Whether a command may change keys.
bool Writes(CommandId_t eId);

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
