#include "local_commands.h"

#include <fnmatch.h>
#include <strings.h>

#include <cstring>

#include "command_runner.h"
#include "reply.h"

namespace {

const size_t SHOWN_ARGUMENT = 128;  // characters of a client's text that an error repeats

// More words than any single-key command knows.
const size_t MAX_OPTIONS = 16;
const size_t MAX_OPTION_BYTES = 256;

bool Is(std::string_view strText, const char* pWord) {
  return strText.size() == strlen(pWord) && strncasecmp(strText.data(), pWord, strText.size()) == 0;
}

void Ping(const Arguments_t& vecArguments, std::string& strOut) {
  if (vecArguments.size() == 1) {
    return AppendStatus(strOut, "PONG");
  }
  AppendBulk(strOut, vecArguments[1]);
}

void Select(const Arguments_t& vecArguments, std::string& strOut) {
  int64_t iIndex = 0;
  if (!ParseInteger(vecArguments[1], iIndex)) {
    return AppendError(strOut, NOT_AN_INTEGER);
  }
  if (iIndex != 0) {
    return AppendError(strOut, "ERR DB index is out of range");
  }
  AppendStatus(strOut, "OK");
}

void DescribeCommand(const Command_t& stCommand, std::string& strOut) {
  const bool bKeys = stCommand.eRoute == ROUTE_ONE_KEY || stCommand.eRoute == ROUTE_KEYS ||
                     stCommand.eRoute == ROUTE_PAIRS;
  AppendArrayHead(strOut, 6);
  AppendBulk(strOut, stCommand.pName);
  AppendInteger(strOut, stCommand.iArity);
  AppendArrayHead(strOut, 1);
  AppendStatus(strOut, stCommand.bWrites ? "write" : "readonly");
  AppendInteger(strOut, bKeys ? 1 : 0);
  AppendInteger(strOut, !bKeys ? 0 : stCommand.eRoute == ROUTE_ONE_KEY ? 1 : -1);
  AppendInteger(strOut, !bKeys ? 0 : stCommand.eRoute == ROUTE_PAIRS ? 2 : 1);
}

void Command(const Arguments_t& vecArguments, std::string& strOut) {
  if (vecArguments.size() == 1) {
    AppendArrayHead(strOut, AllCommands().size());
    for (const Command_t& stCommand : AllCommands()) {
      DescribeCommand(stCommand, strOut);
    }
  } else if (Is(vecArguments[1], "count")) {
    AppendInteger(strOut, static_cast<int64_t>(AllCommands().size()));
  } else if (Is(vecArguments[1], "docs")) {
    AppendArrayHead(strOut, 0);
  } else {
    AppendError(strOut, "ERR unknown subcommand '" +
                            std::string(vecArguments[1].substr(0, SHOWN_ARGUMENT)) +
                            "'. Try COMMAND, COMMAND COUNT or COMMAND DOCS.");
  }
}

std::string SaveRulesText(const Settings_t& stSettings) {
  std::string strText;
  for (const SaveRule_t& stRule : stSettings.vecSaveRules) {
    strText += (strText.empty() ? "" : " ") + std::to_string(stRule.iSeconds) + " " +
               std::to_string(stRule.iChanges);
  }
  return strText;
}

void Config(const Arguments_t& vecArguments, const Settings_t& stSettings, std::string& strOut) {
  if (vecArguments.size() != 3 || !Is(vecArguments[1], "get")) {
    return AppendError(strOut, "ERR only CONFIG GET <pattern> is known");
  }
  const std::string strPattern(vecArguments[2]);
  std::vector<SettingRow_t> vecRows = ListSettings(stSettings);
  // What benchmarks of this protocol ask for before they start.
  vecRows.push_back({"save", SaveRulesText(stSettings), ""});
  vecRows.push_back({"appendonly", "no", ""});
  std::string strPairs;
  size_t iCount = 0;
  for (const SettingRow_t& stRow : vecRows) {
    if (fnmatch(strPattern.c_str(), stRow.pKey, FNM_CASEFOLD) == 0) {
      AppendBulk(strPairs, stRow.pKey);
      AppendBulk(strPairs, stRow.strValue);
      iCount += 2;
    }
  }
  AppendArrayHead(strOut, iCount);
  strOut.append(strPairs);
}

std::string CheckKey(std::string_view strKey, const Settings_t& stSettings) {
  if (strKey.size() > stSettings.iMaxKey) {
    return "ERR key is longer than the limit of " + std::to_string(stSettings.iMaxKey) +
           " bytes (limits.key)";
  }
  // Keys of a HashMap are C strings.
  return strKey.find('\0') != std::string_view::npos ? "ERR key contains a zero byte" : "";
}

// Commands with a word that may follow them.
std::string CheckMode(const Command_t& stCommand, const Arguments_t& vecArguments) {
  const char* pWord = stCommand.eId == CMD_SHUTDOWN ? "save" : "async";
  const char* pOther = stCommand.eId == CMD_SHUTDOWN ? "nosave" : "sync";
  if (stCommand.eId == CMD_BGSAVE) {
    pWord = pOther = "schedule";
  }
  const bool bKnown =
      vecArguments.size() == 1 ||
      (vecArguments.size() == 2 && (Is(vecArguments[1], pWord) || Is(vecArguments[1], pOther)));
  return bKnown ? "" : "ERR syntax error";
}

std::string CheckOptions(const Arguments_t& vecArguments) {
  size_t iBytes = 0;
  for (size_t i = 3; i < vecArguments.size(); ++i) {
    iBytes += vecArguments[i].size();
  }
  return vecArguments.size() > MAX_OPTIONS || iBytes > MAX_OPTION_BYTES ? "ERR syntax error" : "";
}

}  // namespace

void RunLocalCommand(const Command_t& stCommand, const Arguments_t& vecArguments,
                     const Settings_t& stSettings, std::string& strOut) {
  switch (stCommand.eId) {
    case CMD_PING:
      return Ping(vecArguments, strOut);
    case CMD_ECHO:
      return AppendBulk(strOut, vecArguments[1]);
    case CMD_SELECT:
      return Select(vecArguments, strOut);
    case CMD_COMMAND:
      return Command(vecArguments, strOut);
    default:
      return Config(vecArguments, stSettings, strOut);
  }
}

void AppendUnknownCommand(std::string& strOut, const Arguments_t& vecArguments) {
  std::string strError = "ERR unknown command '" +
                         std::string(vecArguments[0].substr(0, SHOWN_ARGUMENT)) +
                         "', with args beginning with: ";
  const size_t iLimit = strError.size() + SHOWN_ARGUMENT;
  for (size_t i = 1; i < vecArguments.size() && strError.size() < iLimit; ++i) {
    const size_t iRoom = iLimit - strError.size();
    strError.append("'").append(vecArguments[i].substr(0, iRoom)).append("' ");
  }
  AppendError(strOut, strError);
}

void AppendWrongArity(std::string& strOut, const Command_t& stCommand) {
  AppendError(strOut,
              std::string("ERR wrong number of arguments for '") + stCommand.pName + "' command");
}

std::string CheckArguments(const Command_t& stCommand, const Arguments_t& vecArguments,
                           const Settings_t& stSettings) {
  if (stCommand.eId == CMD_FLUSHALL || stCommand.eId == CMD_FLUSHDB ||
      stCommand.eId == CMD_SHUTDOWN || stCommand.eId == CMD_BGSAVE) {
    return CheckMode(stCommand, vecArguments);
  }
  const bool bOne = stCommand.eRoute == ROUTE_ONE_KEY;
  const bool bPairs = stCommand.eRoute == ROUTE_PAIRS;
  if (!bOne && !bPairs && stCommand.eRoute != ROUTE_KEYS) {
    return "";
  }
  const size_t iEnd = bOne ? 2 : vecArguments.size();
  for (size_t i = 1; i < iEnd; i += bPairs ? 2 : 1) {
    std::string strError = CheckKey(vecArguments[i], stSettings);
    if (!strError.empty()) {
      return strError;
    }
  }
  return bOne && stCommand.iArity < 0 ? CheckOptions(vecArguments) : "";
}
