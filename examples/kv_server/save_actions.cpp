#include "save_actions.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "process_signals.h"

namespace {

// Nobody reads what an orphan has done, and its file would come over a newer one. A group of its
// own lets the worker end a command with all that it has started.
void EndWithWorker() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setpgid(0, 0);
}

}  // namespace

int SaveAction::Do() {
  EndWithWorker();
  DumpStat_t stStat{};
  std::string strError = m_stSnapshot.TakePlace()
                             ? WriteDump(m_stStore, m_stMark, m_strPath, stStat)
                             : std::string("mremap: ") + strerror(errno);
  ResultParam("keys", std::to_string(stStat.iKeys));
  ResultParam("bytes", std::to_string(stStat.iBytes));
  ResultParam("state", strError.empty() ? SAVED : strError);
  EncodeToStdout(SerializeResult());
  return strError.empty() ? 0 : 1;
}

int RequestAction::Do() {
  EndWithWorker();
  RestoreSignals();
  setenv("KV_DUMP", m_strDump.c_str(), 1);
  Execute(m_strRequest.data(), static_cast<unsigned int>(m_strRequest.size()));
  return Retcode();
}
