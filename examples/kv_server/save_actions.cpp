#include "save_actions.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "mirror.h"
#include "process_signals.h"

namespace {

// Nobody reads what an orphan has done, and its file would come over a newer one. A group of its
// own lets the worker end a command with all that it has started. The worker may have died already:
// the library lets a child sleep before it works.
void EndWithWorker(pid_t iWorker) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != iWorker) {
    _exit(1);
  }
  setpgid(0, 0);
}

// The worker's death does not reach what a child has started, so the child passes it on.
void EndGroup(int /*iSignal*/) { kill(-getpid(), SIGKILL); }

}  // namespace

// All end without the worker's exit functions: they could only spoil the exit code.

int SaveAction::Do() {
  EndWithWorker(m_iWorker);
  DumpStat_t stStat{};
  const std::string strError =
      WriteDump([this](const KeyStore::Visitor_t& fnVisit) { return m_stFeed.Receive(fnVisit); },
                m_stOrigin, m_strPath, stStat);
  ResultParam("keys", std::to_string(stStat.iKeys));
  ResultParam("bytes", std::to_string(stStat.iBytes));
  ResultParam("state", strError.empty() ? SAVED : strError);
  EncodeToStdout(SerializeResult());
  _exit(strError.empty() ? 0 : 1);
}

int MirrorAction::Do() {
  EndWithWorker(m_iWorker);
  close_range(STDERR_FILENO + 1, UINT_MAX, 0);
  MirrorStat_t stStat{};
  const std::string strError = WriteMirror(m_stSettings, m_stMark, m_strDump, stStat);
  ResultParam("keys", std::to_string(stStat.iKeys));
  ResultParam("written", std::to_string(stStat.iWritten));
  ResultParam("deleted", std::to_string(stStat.iDeleted));
  ResultParam("state", strError.empty() ? SAVED : strError);
  EncodeToStdout(SerializeResult());
  _exit(strError.empty() ? 0 : 1);
}

int RequestAction::Do() {
  EndWithWorker(m_iWorker);
  RestoreSignals();
  signal(SIGTERM, EndGroup);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  close_range(STDERR_FILENO + 1, UINT_MAX, 0);  // queues are nothing for the command
  setenv("KV_DUMP", m_strDump.c_str(), 1);
  Execute(m_strRequest.data(), static_cast<unsigned int>(m_strRequest.size()));
  _exit(Retcode());
}
