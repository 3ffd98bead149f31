#include "command_line.h"

#include <map>

#include "config_files.h"

namespace {

// What the arguments ask for, before any of it is done.
struct Wishes_t {
  std::string strFile;
  std::vector<std::string> vecSet;  // "key=value"
  std::string strMetricsPort;
  bool bEphemeral = false;
};

bool FindAction(const std::string& strOption, Action_t& eAction) {
  static const std::map<std::string, Action_t> mapActions = {
      {"--help", ACTION_HELP},
      {"--version", ACTION_VERSION},
      {"--check", ACTION_CHECK},
      {"--print-config", ACTION_PRINT_CONFIG},
  };
  const auto it = mapActions.find(strOption);
  if (it == mapActions.end()) {
    return false;
  }
  eAction = it->second;
  return true;
}

std::string ReadArguments(const std::vector<std::string>& vecArguments, Action_t& eAction,
                          Wishes_t& stWishes) {
  for (size_t i = 0; i < vecArguments.size(); ++i) {
    const std::string& strArgument = vecArguments[i];
    if (strArgument == "--set" && i + 1 < vecArguments.size()) {
      stWishes.vecSet.push_back(vecArguments[++i]);
    } else if (!strArgument.empty() && strArgument[0] != '-') {
      if (!stWishes.strFile.empty()) {
        return "one configuration file only, not \"" + strArgument + "\" behind \"" +
               stWishes.strFile + "\"";
      }
      stWishes.strFile = strArgument;
    } else if (strArgument == "--metrics-port" && i + 1 < vecArguments.size()) {
      stWishes.strMetricsPort = vecArguments[++i];
    } else if (strArgument == "--ephemeral") {
      stWishes.bEphemeral = true;
    } else if (!FindAction(strArgument, eAction)) {
      return "unknown or incomplete option \"" + strArgument + "\", see --help";
    }
  }
  return "";
}

std::string SetFromArgument(Settings_t& stSettings, const std::string& strArgument) {
  const size_t iEquals = strArgument.find('=');
  if (iEquals == std::string::npos) {
    return "--set needs KEY=VALUE, not \"" + strArgument + "\"";
  }
  return SetSetting(stSettings, strArgument.substr(0, iEquals), strArgument.substr(iEquals + 1),
                    "--set ");
}

std::string ReadSettings(const Wishes_t& stWishes, Settings_t& stSettings) {
  stSettings.bEphemeral = stWishes.bEphemeral;
  std::string strError =
      stWishes.strFile.empty() ? "" : LoadConfigFile(stSettings, stWishes.strFile);
  for (size_t i = 0; i < stWishes.vecSet.size() && strError.empty(); ++i) {
    strError = SetFromArgument(stSettings, stWishes.vecSet[i]);
  }
  if (strError.empty() && !stWishes.strMetricsPort.empty()) {
    strError = SetSetting(stSettings, "metrics.listen", "127.0.0.1:" + stWishes.strMetricsPort,
                          "--metrics-port: ");
  }
  if (strError.empty()) {
    strError = CheckSettings(stSettings);
  }
  if (strError.empty() && !stSettings.strOperatorFile.empty()) {
    strError = LoadOperatorFile(stSettings, stSettings.strOperatorFile);
  }
  return strError;
}

}  // namespace

CommandLine_t ParseCommandLine(const std::vector<std::string>& vecArguments) {
  CommandLine_t stLine;
  Wishes_t stWishes;
  stLine.strError = ReadArguments(vecArguments, stLine.eAction, stWishes);
  const bool bSettings = stLine.eAction != ACTION_HELP && stLine.eAction != ACTION_VERSION;
  if (stLine.strError.empty() && bSettings) {
    stLine.strError = ReadSettings(stWishes, stLine.stSettings);
  }
  return stLine;
}
