#include "metrics_process.h"

#include <signal.h>
#include <unistd.h>

#include <climits>

#include "process_signals.h"

namespace {

const int NO_PROGRAM = 127;  // as shells say it

// Beside the server's own, wherever that was installed or built.
std::string Program() {
  char szPath[PATH_MAX];
  const ssize_t iSize = readlink("/proc/self/exe", szPath, sizeof(szPath));
  const std::string strPath(szPath, iSize > 0 ? static_cast<size_t>(iSize) : 0);
  return strPath.substr(0, strPath.rfind('/') + 1) + "metrics_exporter";
}

// The name that clients have to use; empty: nobody may run it.
std::string InfoName(const Settings_t& stSettings) {
  const auto it = stSettings.mapCommandNames.find("info");
  return it == stSettings.mapCommandNames.end() ? "info" : it->second;
}

}  // namespace

std::string CheckMetrics(const Settings_t& stSettings) {
  if (stSettings.strMetricsListen.empty()) {
    return "";
  }
  const std::string strBegin = "metrics.listen = \"" + stSettings.strMetricsListen + "\": ";
  if (InfoName(stSettings).empty()) {
    return strBegin + "needs INFO, which server.ini disables";
  }
  const std::string strProgram = Program();
  return access(strProgram.c_str(), X_OK) == 0
             ? ""
             : strBegin + "there is no " + strProgram +
                   " (it is built where prometheus-cpp is installed)";
}

int RunMetrics(const Settings_t& stSettings) {
  const std::string strProgram = Program();
  const std::string strInfo = InfoName(stSettings);
  RestoreSignals();
  signal(SIGINT, SIG_IGN);  // as before: the master passes on the end
  execl(strProgram.c_str(), "metrics_exporter", "--server", stSettings.strListen.c_str(),
        "--listen", stSettings.strMetricsListen.c_str(), "--command", strInfo.c_str(), nullptr);
  return NO_PROGRAM;
}
