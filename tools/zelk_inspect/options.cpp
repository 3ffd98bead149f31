#include "options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>

const char HELP_TEXT[] =
    "zelk-inspect - look at shared-memory queues, heaps and tables without disturbing them\n\n"
    "usage: zelk-inspect COMMAND [OPTION]... [SEGMENT]...\n\n"
    "  list             the segments of our formats\n"
    "  queue SEGMENT    depth, offsets, pending messages of a message queue\n"
    "  heap SEGMENT     free space by class\n"
    "  table SEGMENT    entries, longest chains, keys\n"
    "  log FILE         size, lines by level, who writes\n"
    "  verify SEGMENT   look whether it is sound\n"
    "  remove SEGMENT   remove segments and FIFOs (named by path) that no process uses\n\n"
    "A segment is named by its id (123), its key (0x12ab) or PATH:NUMBER, as ftok() takes them.\n\n"
    "  --json              one line of JSON for each look\n"
    "  --watch[=SECONDS]   look again and again, every second or so many seconds\n"
    "  --count=N           so many looks, then end\n"
    "  --rate=SECONDS      show rates, measured over so long; --watch shows them from look to "
    "look\n"
    "  --messages=N        queue: show up to N pending messages, the oldest first\n"
    "  --keys=PATTERN      table: show keys that match (* ? [a-z])\n"
    "  --values            table: and their values\n"
    "  --bytes=N           show up to N bytes of a message or value (64)\n"
    "  --limit=N           rows of a list (10)\n"
    "  --all               list: other segments, too\n"
    "  --yes               remove: do not ask\n"
    "  --foreign           remove: with --yes, also what is not of our formats\n"
    "  --help, --version\n\n"
    "Exit code: 0; 1 verify: not sound; 2 wrong usage; 3 no such segment, not readable, not of "
    "our\n"
    "formats, or not removed; 4 the output could not be written.\n";

namespace {

const double LONGEST = 86400;

// False when the text is not a whole number, or not one of seconds.
bool TakeNumber(const std::string& strText, uint64_t& iNumber) {
  char* pEnd = nullptr;
  errno = 0;
  iNumber = strtoull(strText.c_str(), &pEnd, 10);
  return errno == 0 && !strText.empty() && strText[0] != '-' && *pEnd == '\0';
}

bool TakeSeconds(const std::string& strText, double& fSeconds) {
  char* pEnd = nullptr;
  fSeconds = strtod(strText.c_str(), &pEnd);
  return !strText.empty() && *pEnd == '\0' && std::isfinite(fSeconds) && fSeconds > 0 &&
         fSeconds <= LONGEST;
}

bool TakeWatch(Options_t& stOptions, const std::string& strText) {
  double fSeconds = 1;
  if (!strText.empty() && !TakeSeconds(strText, fSeconds)) {
    return false;
  }
  stOptions.fWatch = fSeconds;
  return true;
}

bool SetFlag(bool& bFlag) {
  bFlag = true;
  return true;
}

typedef std::function<bool(Options_t&, const std::string&)> Setter_t;

enum Argument_t { NO_ARGUMENT, MAY_HAVE_ARGUMENT, NEEDS_ARGUMENT };

const char LOOKS[] = " queue heap table log ";

struct Option_t {
  const char* pCommands;  // that take it, between blanks
  Argument_t eArgument;
  Setter_t fnSet;
};

const std::map<std::string, Option_t>& KnownOptions() {
  typedef Options_t O;
  typedef const std::string& Text;
  static const std::map<std::string, Option_t> mapOptions = {
      {"json",
       {" list queue heap table log verify ", NO_ARGUMENT,
        [](O& st, Text) { return SetFlag(st.bJson); }}},
      {"values", {" table ", NO_ARGUMENT, [](O& st, Text) { return SetFlag(st.bValues); }}},
      {"all", {" list ", NO_ARGUMENT, [](O& st, Text) { return SetFlag(st.bAll); }}},
      {"yes", {" remove ", NO_ARGUMENT, [](O& st, Text) { return SetFlag(st.bYes); }}},
      {"foreign", {" remove ", NO_ARGUMENT, [](O& st, Text) { return SetFlag(st.bForeign); }}},
      {"help", {"", NO_ARGUMENT, [](O& st, Text) { return SetFlag(st.bHelp); }}},
      {"version", {"", NO_ARGUMENT, [](O& st, Text) { return SetFlag(st.bVersion); }}},
      {"watch", {LOOKS, MAY_HAVE_ARGUMENT, [](O& st, Text str) { return TakeWatch(st, str); }}},
      {"rate", {LOOKS, NEEDS_ARGUMENT, [](O& st, Text str) { return TakeSeconds(str, st.fRate); }}},
      {"count",
       {LOOKS, NEEDS_ARGUMENT, [](O& st, Text str) { return TakeNumber(str, st.iCount); }}},
      {"limit",
       {" heap table verify ", NEEDS_ARGUMENT,
        [](O& st, Text str) { return TakeNumber(str, st.iLimit); }}},
      {"bytes",
       {" queue table ", NEEDS_ARGUMENT,
        [](O& st, Text str) { return TakeNumber(str, st.iBytes); }}},
      {"messages",
       {" queue ", NEEDS_ARGUMENT, [](O& st, Text str) { return TakeNumber(str, st.iMessages); }}},
      {"keys", {" table ", NEEDS_ARGUMENT, [](O& st, Text str) { return st.strKeys = str, true; }}},
  };
  return mapOptions;
}

// Of "--limit=5" it is "limit".
std::string NameOf(const std::string& strArgument) {
  return strArgument.substr(2, strArgument.find('=') - 2);
}

std::string TakeOption(Options_t& stOptions, const std::string& strArgument) {
  const size_t iEqual = strArgument.find('=');
  const bool bHas = iEqual != std::string::npos;
  const auto it = KnownOptions().find(NameOf(strArgument));
  if (it == KnownOptions().end()) {
    return "unknown option " + strArgument;
  }
  if ((bHas && it->second.eArgument == NO_ARGUMENT) ||
      (!bHas && it->second.eArgument == NEEDS_ARGUMENT) ||
      !it->second.fnSet(stOptions, bHas ? strArgument.substr(iEqual + 1) : "")) {
    return "wrong value: " + strArgument;
  }
  return {};
}

// The command may stand behind its options, so that they are checked when all is read.
std::string CheckCommand(const Options_t& stOptions, const std::vector<std::string>& vecGiven) {
  static const std::map<std::string, bool> mapNeedsNames = {
      {"list", false}, {"queue", true},  {"heap", true},  {"table", true},
      {"log", true},   {"verify", true}, {"remove", true}};
  const auto it = mapNeedsNames.find(stOptions.strCommand);
  if (it == mapNeedsNames.end()) {
    return stOptions.strCommand.empty() ? "no command" : "unknown command " + stOptions.strCommand;
  }
  if (it->second == stOptions.vecNames.empty()) {
    return stOptions.strCommand + (it->second ? " of what?" : " takes no names");
  }
  for (const std::string& strName : vecGiven) {
    const std::string strCommands = KnownOptions().at(strName).pCommands;
    if (strCommands.find(" " + stOptions.strCommand + " ") == std::string::npos) {
      return stOptions.strCommand + " takes no --" + strName;
    }
  }
  return {};
}

}  // namespace

Options_t ParseOptions(const std::vector<std::string>& vecArguments) {
  Options_t stOptions;
  std::vector<std::string> vecGiven;
  bool bNamesOnly = false;
  for (const std::string& strArgument : vecArguments) {
    if (!bNamesOnly && strArgument == "--") {
      bNamesOnly = true;
    } else if (!bNamesOnly && strArgument.compare(0, 2, "--") == 0) {
      stOptions.strError = TakeOption(stOptions, strArgument);
      vecGiven.push_back(NameOf(strArgument));
    } else if (stOptions.strCommand.empty()) {
      stOptions.strCommand = strArgument;
    } else {
      stOptions.vecNames.push_back(strArgument);
    }
    if (!stOptions.strError.empty()) {
      return stOptions;
    }
  }
  if (!stOptions.bHelp && !stOptions.bVersion) {
    stOptions.strError = CheckCommand(stOptions, vecGiven);
  }
  return stOptions;
}
