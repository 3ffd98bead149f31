#include <cstdio>
#include <cstring>
#include <string>

#include "master.h"
#include "settings.h"

namespace {

const int USAGE_ERROR = 2;
const char VERSION[] = "1.0.0";

void PrintHelp() {
  printf(
      "kv_server - a key-value server for Redis clients, an example of libzelk_common\n\n"
      "usage: kv_server [--set KEY=VALUE]... | --help | --version\n\n"
      "Runs in the foreground until SIGTERM or SIGINT. Settings and their defaults:\n");
  for (const SettingRow_t& stRow : ListSettings(Settings_t())) {
    printf("  %-20s %-18s %s\n", stRow.pKey, stRow.strValue.c_str(), stRow.pHelp);
  }
}

int Complain(const std::string& strWhat) {
  fprintf(stderr, "kv_server: %s\n", strWhat.c_str());
  return USAGE_ERROR;
}

// One "key=value"; empty, or what is wrong.
std::string SetFromArgument(Settings_t& stSettings, const std::string& strArgument) {
  const size_t iEquals = strArgument.find('=');
  if (iEquals == std::string::npos) {
    return "--set needs KEY=VALUE, not \"" + strArgument + "\"";
  }
  return SetSetting(stSettings, strArgument.substr(0, iEquals), strArgument.substr(iEquals + 1));
}

}  // namespace

int main(int argc, char** argv) {
  Settings_t stSettings;
  for (int i = 1; i < argc; ++i) {
    const std::string strOption = argv[i];
    if (strOption == "--help") {
      PrintHelp();
      return 0;
    }
    if (strOption == "--version") {
      printf("kv_server %s\n", VERSION);
      return 0;
    }
    if (strOption != "--set" || i + 1 == argc) {
      return Complain("unknown or incomplete option \"" + strOption + "\", see --help");
    }
    const std::string strError = SetFromArgument(stSettings, argv[++i]);
    if (!strError.empty()) {
      return Complain(strError);
    }
  }
  const std::string strError = CheckSettings(stSettings);
  return strError.empty() ? Master(stSettings).Run() : Complain(strError);
}
