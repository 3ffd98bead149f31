#ifndef KV_SERVER_SUBCOMMANDS_H
#define KV_SERVER_SUBCOMMANDS_H

#include <string>
#include <string_view>
#include <vector>

#include "batch.h"
#include "command_table.h"

// The second words of commands that have some: CLIENT LIST, CONFIG GET.

struct Subcommand_t {
  int iId;             // ClientWord_t and so on
  Command_t stFull;    // under its full name "client|list"; the arity counts both words
  const char* pUsage;  // what follows the word; "" when nothing
  const char* pHelp;
};
typedef std::vector<Subcommand_t> Subcommands_t;

// Those of the command; empty when it has none. HELP is not among them.
const Subcommands_t& SubcommandsOf(CommandId_t eId);

// A text that is this word, in any case.
bool IsWord(std::string_view strText, std::string_view strWord);

// More arguments than anybody needs: some commands make a long reply or a long search of each.
const size_t MAX_SUBCOMMAND_ARGUMENTS = 1024;

// The second word's row. Null when the reply is there already: that to HELP, or the error of an
// unknown word or a wrong number of arguments.
const Subcommand_t* ChooseSubcommand(CommandId_t eId, const Arguments_t& vecArguments,
                                     std::string& strOut);

// The row of a full name, "client|list" in any case and with the command's present name; or null.
const Subcommand_t* FindSubcommand(std::string_view strFullName);

enum ClientWord_t {
  CLIENT_GETNAME,
  CLIENT_ID,
  CLIENT_INFO,
  CLIENT_KILL,
  CLIENT_LIST,
  CLIENT_NO_EVICT,
  CLIENT_SETNAME,
};

enum ConfigWord_t {
  CONFIG_GET,
  CONFIG_RESETSTAT,
  CONFIG_SET,
};

enum CommandWord_t {
  COMMAND_COUNT,
  COMMAND_DOCS,
  COMMAND_INFO,
  COMMAND_LIST,
};

enum DebugWord_t {
  DEBUG_SLEEP,
};

#endif
