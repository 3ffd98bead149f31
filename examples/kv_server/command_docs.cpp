#include "command_docs.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "reply.h"
#include "subcommands.h"

namespace {

struct CommandDocs_t {
  CommandId_t eId;
  const char* pGroup;
  const char* pSince;  // the version of the protocol's own server that brought it
  const char* pSummary;
  const char* pSyntax;
};

const CommandDocs_t COMMAND_DOCS_TABLE[] = {
    {CMD_PING, "connection", "1.0.0", "Shows that the server is there", "[message]"},
    {CMD_ECHO, "connection", "1.0.0", "Gives the message back", "message"},
    {CMD_SELECT, "connection", "1.0.0", "Chooses a database, of which there is one", "index"},
    {CMD_QUIT, "connection", "1.0.0", "Closes the connection", ""},
    {CMD_COMMAND, "server", "2.8.13", "Tells about commands", ""},
    {CMD_CONFIG, "server", "2.0.0", "Tells about settings", ""},
    {CMD_SHUTDOWN, "server", "1.0.0", "Ends the server", "[NOSAVE|SAVE] [NOW] [FORCE] [ABORT]"},
    {CMD_CLIENT, "connection", "2.4.0", "Tells about connections", ""},
    {CMD_HELLO, "connection", "6.0.0", "Introduces the client", "[protover] [options...]"},
    {CMD_DEBUG, "server", "1.0.0", "Disturbs the server for tests", ""},
    {CMD_GET, "string", "1.0.0", "Returns the value of a key", "key"},
    {CMD_SET, "string", "1.0.0", "Sets the value of a key", "key value [NX|XX] [GET]"},
    {CMD_INCR, "string", "1.0.0", "Adds one to the number of a key", "key"},
    {CMD_DECR, "string", "1.0.0", "Takes one from the number of a key", "key"},
    {CMD_INCRBY, "string", "1.0.0", "Adds to the number of a key", "key increment"},
    {CMD_DEL, "generic", "1.0.0", "Removes keys", "key..."},
    {CMD_EXISTS, "generic", "1.0.0", "Counts keys that are there", "key..."},
    {CMD_MGET, "string", "1.0.0", "Returns the values of keys", "key..."},
    {CMD_MSET, "string", "1.0.1", "Sets the values of keys", "key+value..."},
    {CMD_DBSIZE, "server", "1.0.0", "Counts all keys", ""},
    {CMD_FLUSHALL, "server", "1.0.0", "Removes all keys", "[ASYNC|SYNC]"},
    {CMD_INFO, "server", "1.0.0", "Tells how the server is", "[section...]"},
};

const CommandDocs_t NO_DOCS = {CMD_PING, "generic", "1.0.0", "", ""};

const CommandDocs_t& DocsOf(CommandId_t eId) {
  for (const CommandDocs_t& stDocs : COMMAND_DOCS_TABLE) {
    if (stDocs.eId == eId) {
      return stDocs;
    }
  }
  return NO_DOCS;
}

// A list with its length in front that is not known before.
struct List_t {
  size_t iCount = 0;
  std::string strElements;

  void AppendTo(std::string& strOut) const {
    AppendArrayHead(strOut, iCount);
    strOut.append(strElements);
  }
};

void AddText(List_t& stMap, const char* pKey, std::string_view strValue) {
  AppendBulk(stMap.strElements, pKey);
  AppendBulk(stMap.strElements, strValue);
  stMap.iCount += 2;
}

void AddList(List_t& stMap, const char* pKey, const List_t& stValue) {
  AppendBulk(stMap.strElements, pKey);
  stValue.AppendTo(stMap.strElements);
  stMap.iCount += 2;
}

// Calls it with each piece of the text between separators.
template <typename Function>
void ForEachPiece(std::string_view strText, char cSeparator, const Function& stFunction) {
  while (!strText.empty()) {
    const size_t iEnd = std::min(strText.find(cSeparator), strText.size());
    stFunction(strText.substr(0, iEnd));
    strText.remove_prefix(std::min(iEnd + 1, strText.size()));
  }
}

std::string LowerCase(std::string_view strText) {
  std::string strLower(strText);
  for (char& c : strLower) {
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return strLower;
}

void AddArgument(List_t& stArguments, std::string_view strWord);

// The argument's name and type, and what they bring along.
void AddKind(List_t& stArgument, std::string_view strWord) {
  const bool bChoice = strWord.find('|') != std::string_view::npos;
  const bool bBlock = strWord.find('+') != std::string_view::npos;
  AddText(stArgument, "name", LowerCase(strWord));
  if (bChoice || bBlock) {
    List_t stInner;
    AddText(stArgument, "type", bChoice ? "oneof" : "block");
    ForEachPiece(strWord, bChoice ? '|' : '+',
                 [&](std::string_view strInner) { AddArgument(stInner, strInner); });
    AddList(stArgument, "arguments", stInner);
  } else if (isupper(static_cast<unsigned char>(strWord[0])) != 0) {
    AddText(stArgument, "type", "pure-token");
    AddText(stArgument, "token", strWord);
  } else {
    AddText(stArgument, "type", strWord == "key" ? "key" : "string");
  }
}

void AddArgument(List_t& stArguments, std::string_view strWord) {
  List_t stFlags;
  if (strWord.front() == '[') {
    strWord = strWord.substr(1, strWord.size() - 2);
    AppendStatus(stFlags.strElements, "optional");
    ++stFlags.iCount;
  }
  if (strWord.back() == '.') {
    strWord.remove_suffix(strlen("..."));
    AppendStatus(stFlags.strElements, "multiple");
    ++stFlags.iCount;
  }
  List_t stArgument;
  AddKind(stArgument, strWord);
  if (stFlags.iCount > 0) {
    AddList(stArgument, "flags", stFlags);
  }
  stArgument.AppendTo(stArguments.strElements);
  ++stArguments.iCount;
}

bool HasKeys(const Command_t& stCommand) {
  return stCommand.eRoute == ROUTE_ONE_KEY || stCommand.eRoute == ROUTE_KEYS ||
         stCommand.eRoute == ROUTE_PAIRS;
}

// What COMMAND INFO tells of a command or subcommand, without access lists, tips and key rules.
void Describe(const Command_t& stCommand, const Subcommands_t& vecSubcommands,
              std::string& strOut) {
  const bool bKeys = HasKeys(stCommand);
  const bool bHere = stCommand.eRoute == ROUTE_GATEWAY;
  AppendArrayHead(strOut, 10);
  AppendBulk(strOut, stCommand.pName);
  AppendInteger(strOut, stCommand.iArity);
  AppendArrayHead(strOut, bHere ? 0 : 1);
  if (!bHere) {
    AppendStatus(strOut, stCommand.bWrites ? "write" : "readonly");
  }
  AppendInteger(strOut, bKeys ? 1 : 0);
  AppendInteger(strOut, !bKeys ? 0 : stCommand.eRoute == ROUTE_ONE_KEY ? 1 : -1);
  AppendInteger(strOut, !bKeys ? 0 : stCommand.eRoute == ROUTE_PAIRS ? 2 : 1);
  for (int i = 0; i < 3; ++i) {
    AppendArrayHead(strOut, 0);
  }
  AppendArrayHead(strOut, vecSubcommands.size());
  for (const Subcommand_t& stRow : vecSubcommands) {
    Describe(stRow.stFull, {}, strOut);
  }
}

void DocumentSubcommand(const Subcommand_t& stRow, List_t& stAll) {
  const CommandDocs_t& stDocs = DocsOf(stRow.stFull.eId);
  List_t stOne;
  AddText(stOne, "summary", stRow.pHelp);
  AddText(stOne, "since", stDocs.pSince);
  AddText(stOne, "group", stDocs.pGroup);
  AddList(stAll, stRow.stFull.pName, stOne);
}

void Document(const Command_t& stCommand, List_t& stAll) {
  const CommandDocs_t& stDocs = DocsOf(stCommand.eId);
  List_t stOne;
  AddText(stOne, "summary", stDocs.pSummary);
  AddText(stOne, "since", stDocs.pSince);
  AddText(stOne, "group", stDocs.pGroup);
  if (*stDocs.pSyntax != '\0') {
    AppendBulk(stOne.strElements, "arguments");
    AppendSyntax(stOne.strElements, stDocs.pSyntax);
    stOne.iCount += 2;
  }
  List_t stSubcommands;
  for (const Subcommand_t& stRow : SubcommandsOf(stCommand.eId)) {
    DocumentSubcommand(stRow, stSubcommands);
  }
  if (stSubcommands.iCount > 0) {
    AddList(stOne, "subcommands", stSubcommands);
  }
  AddList(stAll, stCommand.pName, stOne);
}

void DescribeAll(std::string& strOut) {
  AppendArrayHead(strOut, AllCommands().size());
  for (const Command_t& stCommand : AllCommands()) {
    Describe(stCommand, SubcommandsOf(stCommand.eId), strOut);
  }
}

void Info(const Arguments_t& vecArguments, std::string& strOut) {
  if (vecArguments.size() == 2) {
    return DescribeAll(strOut);
  }
  AppendArrayHead(strOut, vecArguments.size() - 2);
  for (size_t i = 2; i < vecArguments.size(); ++i) {
    const Command_t* pCommand = FindCommand(vecArguments[i]);
    const Subcommand_t* pRow = FindSubcommand(vecArguments[i]);
    if (pCommand != nullptr) {
      Describe(*pCommand, SubcommandsOf(pCommand->eId), strOut);
    } else if (pRow != nullptr) {
      Describe(pRow->stFull, {}, strOut);
    } else {
      AppendNull(strOut);
    }
  }
}

void Docs(const Arguments_t& vecArguments, std::string& strOut) {
  List_t stAll;
  for (size_t i = 2; i < vecArguments.size(); ++i) {
    const Command_t* pCommand = FindCommand(vecArguments[i]);
    const Subcommand_t* pRow = FindSubcommand(vecArguments[i]);
    if (pCommand != nullptr) {
      Document(*pCommand, stAll);
    } else if (pRow != nullptr) {
      DocumentSubcommand(*pRow, stAll);
    }
  }
  for (const Command_t& stCommand : AllCommands()) {
    if (vecArguments.size() == 2) {
      Document(stCommand, stAll);
    }
  }
  stAll.AppendTo(strOut);
}

void List(const Arguments_t& vecArguments, std::string& strOut) {
  if (vecArguments.size() > 2) {
    return AppendError(strOut, "ERR syntax error");
  }
  AppendArrayHead(strOut, AllCommands().size());
  for (const Command_t& stCommand : AllCommands()) {
    AppendBulk(strOut, stCommand.pName);
  }
}

}  // namespace

void AppendSyntax(std::string& strOut, std::string_view strSyntax) {
  List_t stArguments;
  ForEachPiece(strSyntax, ' ',
               [&](std::string_view strWord) { AddArgument(stArguments, strWord); });
  stArguments.AppendTo(strOut);
}

void RunCommandCommand(const Arguments_t& vecArguments, std::string& strOut) {
  if (vecArguments.size() == 1) {
    return DescribeAll(strOut);
  }
  const Subcommand_t* pRow = ChooseSubcommand(CMD_COMMAND, vecArguments, strOut);
  if (pRow == nullptr) {
    return;
  }
  switch (pRow->iId) {
    case COMMAND_COUNT:
      return AppendInteger(strOut, static_cast<int64_t>(AllCommands().size()));
    case COMMAND_DOCS:
      return Docs(vecArguments, strOut);
    case COMMAND_INFO:
      return Info(vecArguments, strOut);
    default:
      return List(vecArguments, strOut);
  }
}
