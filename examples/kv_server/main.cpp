#include <cstdio>
#include <string>

#include "command_line.h"
#include "command_table.h"
#include "config_files.h"
#include "master.h"
#include "process_title.h"
#include "server_version.h"

namespace {

const int USAGE_ERROR = 2;

int PrintHelp() {
  printf(
      "kv_server - a key-value server for Redis clients, an example of libzelk_common\n\n"
      "usage: kv_server [CONFIG.xml] [--set KEY=VALUE]... [OPTION]\n\n"
      "  --ephemeral     remove the keys at the end; else they stay for the next start over the "
      "same\n"
      "                  server.run_dir, in shared memory\n"
      "  --metrics-port PORT\n"
      "                  metrics.listen on the loopback address\n"
      "  --check         look whether the settings are right, and end\n"
      "  --print-config  print the settings as they would hold, as a CONFIG.xml, and end\n"
      "  --help          this text\n"
      "  --version       the version\n\n"
      "Runs in the foreground until SIGTERM or SIGINT. Wrong settings end it with exit code 2.\n"
      "Settings, as keys of --set and as elements of the file, and their defaults:\n");
  for (const SettingRow_t& stRow : ListSettings(Settings_t())) {
    printf("  %-20s %-18s %s\n", stRow.pKey, stRow.strValue.c_str(), stRow.pHelp);
  }
  return 0;
}

int Run(const Settings_t& stSettings, int argc, char** argv) {
  InitTitle(argc, argv);
  RenameCommands(stSettings.mapCommandNames);
  return Master(stSettings).Run();
}

}  // namespace

int main(int argc, char** argv) {
  const CommandLine_t stLine = ParseCommandLine({argv + 1, argv + argc});
  if (!stLine.strError.empty()) {
    fprintf(stderr, "kv_server: %s\n", stLine.strError.c_str());
    return USAGE_ERROR;
  }
  switch (stLine.eAction) {
    case ACTION_HELP:
      return PrintHelp();
    case ACTION_VERSION:
      return printf("kv_server %s\n", SERVER_VERSION) < 0;
    case ACTION_CHECK:
      return printf("kv_server: the settings are right\n") < 0;
    case ACTION_PRINT_CONFIG:
      return fputs(ConfigText(stLine.stSettings).c_str(), stdout) < 0;
    default:
      return Run(stLine.stSettings, argc, argv);
  }
}
