#include "subcommands.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "local_commands.h"
#include "reply.h"

namespace {

const Subcommands_t CLIENT_WORDS = {
    {CLIENT_GETNAME,
     {CMD_CLIENT, "client|getname", 2, ROUTE_GATEWAY, false},
     "",
     "Return the name of the current connection."},
    {CLIENT_ID,
     {CMD_CLIENT, "client|id", 2, ROUTE_GATEWAY, false},
     "",
     "Return the number of the current connection."},
    {CLIENT_INFO,
     {CMD_CLIENT, "client|info", 2, ROUTE_GATEWAY, false},
     "",
     "Return a line about the current connection."},
    {CLIENT_KILL,
     {CMD_CLIENT, "client|kill", -3, ROUTE_GATEWAY, false},
     "<ip:port> | <option> <value> [<option> <value> ...]",
     "Close connections. Options: ID, ADDR, LADDR, TYPE, USER, SKIPME (YES|NO)."},
    {CLIENT_LIST,
     {CMD_CLIENT, "client|list", -2, ROUTE_GATEWAY, false},
     "[TYPE <type> | ID <id> ...]",
     "Return a line about each connection."},
    {CLIENT_NO_EVICT,
     {CMD_CLIENT, "client|no-evict", 3, ROUTE_GATEWAY, false},
     "(ON|OFF)",
     "Does nothing: no connection is closed for want of memory."},
    {CLIENT_SETNAME,
     {CMD_CLIENT, "client|setname", 3, ROUTE_GATEWAY, false},
     "<name>",
     "Name the current connection."},
};

const Subcommands_t CONFIG_WORDS = {
    {CONFIG_GET,
     {CMD_CONFIG, "config|get", -3, ROUTE_GATEWAY, false},
     "<pattern> [<pattern> ...]",
     "Return the settings whose names match, with their values."},
    {CONFIG_RESETSTAT,
     {CMD_CONFIG, "config|resetstat", 2, ROUTE_GATEWAY, false},
     "",
     "Start the counters of INFO from zero."},
    {CONFIG_SET,
     {CMD_CONFIG, "config|set", -4, ROUTE_GATEWAY, false},
     "<setting> <value>",
     "An error: settings are read when the server starts."},
};

const Subcommands_t COMMAND_WORDS = {
    {COMMAND_COUNT,
     {CMD_COMMAND, "command|count", 2, ROUTE_GATEWAY, false},
     "",
     "Return the number of commands."},
    {COMMAND_DOCS,
     {CMD_COMMAND, "command|docs", -2, ROUTE_GATEWAY, false},
     "[<command-name> ...]",
     "Return what is documented of these commands, or of all."},
    {COMMAND_INFO,
     {CMD_COMMAND, "command|info", -2, ROUTE_GATEWAY, false},
     "[<command-name> ...]",
     "Return arity, flags and key positions of these commands, or of all."},
    {COMMAND_LIST,
     {CMD_COMMAND, "command|list", -2, ROUTE_GATEWAY, false},
     "",
     "Return the names of all commands."},
};

const Subcommands_t DEBUG_WORDS = {
    {DEBUG_SLEEP,
     {CMD_DEBUG, "debug|sleep", 3, ROUTE_GATEWAY, false},
     "<seconds>",
     "Stall worker 0 for that time, fractions allowed."},
};

const char* WordOf(const Subcommand_t& stRow) { return strchr(stRow.stFull.pName, '|') + 1; }

std::string UpperCase(std::string_view strText) {
  std::string strUpper(strText);
  for (char& c : strUpper) {
    c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  }
  return strUpper;
}

void AppendHelp(const Subcommands_t& vecRows, std::string_view strCommand, std::string& strOut) {
  AppendArrayHead(strOut, 1 + 2 * vecRows.size() + 2);
  AppendStatus(strOut,
               UpperCase(strCommand) + " <subcommand> [<arg> [value] [opt] ...]. Subcommands are:");
  for (const Subcommand_t& stRow : vecRows) {
    const char* pBlank = *stRow.pUsage == '\0' ? "" : " ";
    AppendStatus(strOut, UpperCase(WordOf(stRow)) + pBlank + stRow.pUsage);
    AppendStatus(strOut, std::string("    ") + stRow.pHelp);
  }
  AppendStatus(strOut, "HELP");
  AppendStatus(strOut, "    Prints this help.");
}

}  // namespace

const Subcommands_t& SubcommandsOf(CommandId_t eId) {
  static const Subcommands_t vecNone;
  switch (eId) {
    case CMD_CLIENT:
      return CLIENT_WORDS;
    case CMD_CONFIG:
      return CONFIG_WORDS;
    case CMD_COMMAND:
      return COMMAND_WORDS;
    case CMD_DEBUG:
      return DEBUG_WORDS;
    default:
      return vecNone;
  }
}

bool IsWord(std::string_view strText, std::string_view strWord) {
  return strText.size() == strWord.size() &&
         strncasecmp(strText.data(), strWord.data(), strText.size()) == 0;
}

const Subcommand_t* FindSubcommand(std::string_view strFullName) {
  const size_t iBar = std::min(strFullName.find('|'), strFullName.size());
  const Command_t* pCommand = FindCommand(strFullName.substr(0, iBar));
  if (pCommand == nullptr || iBar == strFullName.size()) {
    return nullptr;
  }
  for (const Subcommand_t& stRow : SubcommandsOf(pCommand->eId)) {
    if (IsWord(strFullName.substr(iBar + 1), WordOf(stRow))) {
      return &stRow;
    }
  }
  return nullptr;
}

const Subcommand_t* ChooseSubcommand(CommandId_t eId, const Arguments_t& vecArguments,
                                     std::string& strOut) {
  if (vecArguments.size() > MAX_SUBCOMMAND_ARGUMENTS) {
    AppendError(strOut, "ERR more than " + std::to_string(MAX_SUBCOMMAND_ARGUMENTS) +
                            " arguments for a command with subcommands");
    return nullptr;
  }
  const Subcommands_t& vecRows = SubcommandsOf(eId);
  for (const Subcommand_t& stRow : vecRows) {
    if (!IsWord(vecArguments[1], WordOf(stRow))) {
      continue;
    }
    if (ArityMatches(stRow.stFull, vecArguments.size())) {
      return &stRow;
    }
    return AppendWrongArity(strOut, stRow.stFull), nullptr;
  }
  if (!IsWord(vecArguments[1], "help")) {
    AppendError(strOut, "ERR unknown subcommand '" + std::string(ShownText(vecArguments[1])) +
                            "'. Try " + UpperCase(vecArguments[0]) + " HELP.");
  } else if (vecArguments.size() == 2) {
    AppendHelp(vecRows, vecArguments[0], strOut);
  } else {
    const std::string strFirst = vecRows.front().stFull.pName;
    const std::string strHelp = strFirst.substr(0, strFirst.find('|')) + "|help";
    AppendWrongArity(strOut, {eId, strHelp.c_str(), 2, ROUTE_GATEWAY, false});
  }
  return nullptr;
}
