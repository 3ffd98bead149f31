#ifndef KV_SERVER_COMMAND_LINE_H
#define KV_SERVER_COMMAND_LINE_H

#include <string>
#include <vector>

#include "settings.h"

enum Action_t {
  ACTION_RUN,
  ACTION_HELP,
  ACTION_VERSION,
  ACTION_CHECK,         // only look whether the settings are right
  ACTION_PRINT_CONFIG,  // print the settings that would hold
};

struct CommandLine_t {
  Action_t eAction = ACTION_RUN;
  Settings_t stSettings;
  std::string strError;  // empty: the settings are complete and right
};

// From the arguments behind the program's name. The configuration file is read first, then --set in
// the order given, then the operators' file.
CommandLine_t ParseCommandLine(const std::vector<std::string>& vecArguments);

#endif
