#include "local_commands.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <set>

#include "command_docs.h"
#include "command_runner.h"
#include "glob_match.h"
#include "reply.h"
#include "subcommands.h"

namespace {

// More words than any single-key command knows.
const size_t MAX_OPTIONS = 16;
const size_t MAX_OPTION_BYTES = 256;

const char* const SHUTDOWN_WORDS[] = {"abort", "force", "nosave", "now", "save"};

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
  if (iIndex < std::numeric_limits<int32_t>::min() ||
      iIndex > std::numeric_limits<int32_t>::max()) {
    return AppendError(strOut,
                       "ERR value is out of range, value must between -2147483648 and 2147483647");
  }
  if (iIndex != 0) {
    return AppendError(strOut, "ERR DB index is out of range");
  }
  AppendStatus(strOut, "OK");
}

std::string LowerCase(std::string_view strText) {
  std::string strLower(strText);
  for (char& c : strLower) {
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return strLower;
}

std::string SaveRulesText(const Settings_t& stSettings) {
  std::string strText;
  for (const SaveRule_t& stRule : stSettings.vecSaveRules) {
    strText += (strText.empty() ? "" : " ") + std::to_string(stRule.iSeconds) + " " +
               std::to_string(stRule.iChanges);
  }
  return strText;
}

// Whether a setting is one that the client asks for: by its name, or by a pattern.
bool IsAskedFor(std::string_view strKey, const Arguments_t& vecArguments) {
  return std::any_of(vecArguments.begin() + 2, vecArguments.end(), [strKey](std::string_view str) {
    const bool bPattern = str.find_first_of("*?[") != std::string_view::npos;
    return bPattern ? GlobMatch(LowerCase(str), strKey) : IsWord(str, strKey);
  });
}

std::string CheckKey(std::string_view strKey, const Settings_t& stSettings) {
  if (strKey.size() > stSettings.iMaxKey) {
    return "ERR key is longer than the limit of " + std::to_string(stSettings.iMaxKey) +
           " bytes (limits.key)";
  }
  // Keys of a HashMap are C strings.
  return strKey.find('\0') != std::string_view::npos ? "ERR key contains a zero byte" : "";
}

// FLUSHALL and FLUSHDB take a word that changes nothing here.
std::string CheckFlush(const Arguments_t& vecArguments) {
  const bool bKnown = vecArguments.size() == 1 ||
                      (vecArguments.size() == 2 &&
                       (IsWord(vecArguments[1], "async") || IsWord(vecArguments[1], "sync")));
  return bKnown ? "" : SYNTAX_ERROR;
}

// An end can not be called off.
std::string CheckShutdown(const Arguments_t& vecArguments) {
  std::set<std::string_view> setWords;
  for (size_t i = 1; i < vecArguments.size(); ++i) {
    const auto pWord =
        std::find_if(std::begin(SHUTDOWN_WORDS), std::end(SHUTDOWN_WORDS),
                     [&](const char* pKnown) { return IsWord(vecArguments[i], pKnown); });
    if (pWord == std::end(SHUTDOWN_WORDS)) {
      return SYNTAX_ERROR;
    }
    setWords.insert(*pWord);
  }
  const bool bAbort = setWords.count("abort") > 0;
  if ((bAbort && setWords.size() > 1) || setWords.count("save") + setWords.count("nosave") == 2) {
    return SYNTAX_ERROR;
  }
  return bAbort ? "ERR No shutdown in progress." : "";
}

std::string CheckBgSave(const Arguments_t& vecArguments) {
  const bool bKnown =
      vecArguments.size() == 1 || (vecArguments.size() == 2 && IsWord(vecArguments[1], "schedule"));
  return bKnown ? "" : SYNTAX_ERROR;
}

std::string CheckOptions(const Arguments_t& vecArguments) {
  size_t iBytes = 0;
  for (size_t i = 3; i < vecArguments.size(); ++i) {
    iBytes += vecArguments[i].size();
  }
  return vecArguments.size() > MAX_OPTIONS || iBytes > MAX_OPTION_BYTES ? SYNTAX_ERROR : "";
}

}  // namespace

void RunLocalCommand(const Command_t& stCommand, const Arguments_t& vecArguments,
                     std::string& strOut) {
  switch (stCommand.eId) {
    case CMD_PING:
      return Ping(vecArguments, strOut);
    case CMD_ECHO:
      return AppendBulk(strOut, vecArguments[1]);
    case CMD_SELECT:
      return Select(vecArguments, strOut);
    default:
      return RunCommandCommand(vecArguments, strOut);
  }
}

void RunConfigCommand(const Arguments_t& vecArguments, const Settings_t& stSettings,
                      std::string& strOut) {
  if (IsWord(vecArguments[1], "set")) {
    return AppendError(strOut, vecArguments.size() % 2 != 0
                                   ? SYNTAX_ERROR
                                   : "ERR CONFIG SET is not possible, settings are read when the "
                                     "server starts");
  }
  std::vector<SettingRow_t> vecRows = ListSettings(stSettings);
  // What benchmarks of this protocol ask for before they start.
  vecRows.push_back({"save", SaveRulesText(stSettings), ""});
  vecRows.push_back({"appendonly", "no", ""});
  std::string strPairs;
  size_t iCount = 0;
  for (const SettingRow_t& stRow : vecRows) {
    if (IsAskedFor(stRow.pKey, vecArguments)) {
      AppendBulk(strPairs, stRow.pKey);
      AppendBulk(strPairs, stRow.strValue);
      iCount += 2;
    }
  }
  AppendArrayHead(strOut, iCount);
  strOut.append(strPairs);
}

void AppendUnknownCommand(std::string& strOut, const Arguments_t& vecArguments) {
  std::string strError = "ERR unknown command '" + std::string(ShownText(vecArguments[0])) +
                         "', with args beginning with: ";
  const size_t iLimit = strError.size() + SHOWN_TEXT;
  for (size_t i = 1; i < vecArguments.size() && strError.size() < iLimit; ++i) {
    const size_t iRoom = iLimit - strError.size();
    strError.append("'").append(ShownText(vecArguments[i], iRoom)).append("' ");
  }
  AppendError(strOut, strError);
}

void AppendWrongArity(std::string& strOut, const Command_t& stCommand) {
  AppendError(strOut,
              std::string("ERR wrong number of arguments for '") + stCommand.pName + "' command");
}

std::string CheckArguments(const Command_t& stCommand, const Arguments_t& vecArguments,
                           const Settings_t& stSettings) {
  if (stCommand.eId == CMD_FLUSHALL || stCommand.eId == CMD_FLUSHDB) {
    return CheckFlush(vecArguments);
  }
  if (stCommand.eId == CMD_SHUTDOWN) {
    return CheckShutdown(vecArguments);
  }
  if (stCommand.eId == CMD_BGSAVE) {
    return CheckBgSave(vecArguments);
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
