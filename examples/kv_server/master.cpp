#include "master.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "filesystem_util.h"
#include "gateway.h"
#include "log.h"
#include "memory_tracking.h"
#include "metrics_process.h"
#include "process_signals.h"
#include "process_title.h"
#include "tcp_socket.h"
#include "worker.h"
#include "zelk_variable.h"

namespace {

const int FIRST_DELAY_MS = 100;
const int MAX_DELAY_MS = 5000;
const int64_t STABLE_MS = 10000;  // who lived so long is started again at once
const int LOCK_TRY_MS = 100;
const int LOCK_GRACE_MS = 2000;  // for the children of a killed master, beyond their last answers
const int MAX_WAIT_MS = 1000;
const int KILL_AFTER_MS = 3000;  // beyond the time allowed for the last answers

int64_t NowMilliseconds() {
  timespec stNow{};
  clock_gettime(CLOCK_MONOTONIC, &stNow);
  return stNow.tv_sec * 1000 + stNow.tv_nsec / 1000000;
}

std::string DescribeEnd(int iStatus) {
  return WIFSIGNALED(iStatus) ? "signal " + std::to_string(WTERMSIG(iStatus))
                              : "exit code " + std::to_string(WEXITSTATUS(iStatus));
}

}  // namespace

Master::Master(const Settings_t& stSettings)
    : m_stSettings(stSettings), m_stQueues(stSettings.strRunDir), m_stTables(stSettings.strRunDir) {
  m_vecChildren.push_back({"gateway", GATEWAY, -1, 0, 0, 0});
  for (int i = 0; i < static_cast<int>(stSettings.iWorkers); ++i) {
    m_vecChildren.push_back({"worker " + std::to_string(i), i, -1, 0, 0, 0});
  }
  if (!stSettings.strMetricsListen.empty()) {
    m_vecChildren.push_back({"metrics", METRICS, -1, 0, 0, 0});
  }
}

Master::~Master() {
  for (const int iFD : {m_iLockFD, m_iSaveLockFD}) {
    if (iFD != -1) {
      close(iFD);
    }
  }
}

int Master::Run() {
  InstallSignals();
  if (!TakeRunDirectory() || !CanListen() || !CanServeMetrics()) {
    return 1;
  }
  Log stLog;
  Log stStatLog;
  stLog.SetPath(m_stSettings.LogPath());
  stLog.SetPrefix("kv_server_");
  stLog.SetLevel(m_stSettings.strLogLevel.c_str());
  g_pLog = &stLog;
  stStatLog.SetPath(m_stSettings.LogPath());
  stStatLog.SetPrefix("kv_stat_");
  stStatLog.SetLevel(Log::LL_STAT);
  g_pStatLog = &stStatLog;
  const MemoryReport stReport(m_stSettings.LogPath(), "master");
  if (!PrepareMemory()) {
    g_pLog = nullptr;
    return m_iExit;
  }
  SetTitle("master");
  stLog.Info("master: started, pid %d", getpid());
  while (g_bRunFlag) {
    StartDue();
    PauseMilliseconds(WaitMilliseconds());
    Reap();
  }
  StopChildren();
  m_stQueues.Remove();
  if (m_stSettings.bEphemeral) {
    m_stTables.Remove();
  }
  stLog.Info("master: stopped");
  g_pLog = nullptr;
  return m_iExit;
}

bool Master::PrepareMemory() {
  if (MakeDir(m_stSettings.SavePath().c_str(), 0750) != 0) {
    fprintf(stderr, "kv_server: save.path = \"%s\": can not be made\n",
            m_stSettings.SavePath().c_str());
    m_iExit = 1;
    return false;
  }
  if (!TakeSavePath()) {
    m_iExit = 1;
    return false;
  }
  const std::string strError = m_stTables.Prepare(m_stSettings);
  if (!strError.empty()) {
    fprintf(stderr, "kv_server: %s\n", strError.c_str());
    g_pLog->Error("master: %s", strError.c_str());
    m_iExit = EXIT_TABLE;
    return false;
  }
  if (!m_stQueues.Create(static_cast<unsigned int>(m_stSettings.iWorkers),
                         static_cast<unsigned int>(m_stSettings.iQueueBytes))) {
    fprintf(stderr, "kv_server: can not make the queues in %s: %s\n",
            m_stSettings.strRunDir.c_str(), strerror(errno));
    m_iExit = 1;
    return false;
  }
  return true;
}

// One server per run directory. The lock belongs to master and children together, so it is free
// only when the last process of an earlier server has gone.
bool Master::TakeRunDirectory() {
  if (MakeDir(m_stSettings.strRunDir.c_str(), 0750) != 0) {
    fprintf(stderr, "kv_server: server.run_dir = \"%s\": can not be made\n",
            m_stSettings.strRunDir.c_str());
    return false;  // MakeDir has said why, on standard output
  }
  const std::string strLock = m_stSettings.strRunDir + "/lock";
  m_iLockFD = open(strLock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
  if (m_iLockFD == -1) {
    fprintf(stderr, "kv_server: can not open %s: %s\n", strLock.c_str(), strerror(errno));
    return false;
  }
  const int64_t iDeadline =
      NowMilliseconds() + LOCK_GRACE_MS + static_cast<int64_t>(m_stSettings.iStopTimeout) * 1000;
  do {
    if (flock(m_iLockFD, LOCK_EX | LOCK_NB) == 0) {
      return true;
    }
    PauseMilliseconds(LOCK_TRY_MS);
  } while (g_bRunFlag && NowMilliseconds() < iDeadline);
  fprintf(stderr, "kv_server: another server runs in server.run_dir = \"%s\"\n",
          m_stSettings.strRunDir.c_str());
  return false;
}

// Two servers would take each other's dumps and journals away. The lock is the directory's own, and
// belongs to the children too.
bool Master::TakeSavePath() {
  m_iSaveLockFD = open(m_stSettings.SavePath().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (m_iSaveLockFD != -1 && flock(m_iSaveLockFD, LOCK_EX | LOCK_NB) == 0) {
    return true;
  }
  fprintf(stderr, "kv_server: save.path = \"%s\": %s\n", m_stSettings.SavePath().c_str(),
          errno == EWOULDBLOCK ? "another server saves there" : strerror(errno));
  return false;
}

// Tried once here, so that a port in use is told at the start and not found in the log.
bool Master::CanListen() const {
  return CanListenOn("server.listen", m_stSettings.Host(), m_stSettings.Port()) &&
         (m_stSettings.strMetricsListen.empty() ||
          CanListenOn("metrics.listen", m_stSettings.MetricsHost(), m_stSettings.MetricsPort()));
}

bool Master::CanListenOn(const char* pKey, const std::string& strHost, unsigned short iPort) const {
  TcpSocket stProbe;
  if (stProbe.Listen(strHost.c_str(), iPort) == 0) {
    return true;
  }
  fprintf(stderr, "kv_server: can not listen on %s = \"%s:%d\": %s\n", pKey, strHost.c_str(), iPort,
          strerror(errno));
  return false;
}

bool Master::CanServeMetrics() const {
  const std::string strError = CheckMetrics(m_stSettings);
  if (!strError.empty()) {
    fprintf(stderr, "kv_server: %s\n", strError.c_str());
  }
  return strError.empty();
}

void Master::StartDue() {
  for (Child_t& stChild : m_vecChildren) {
    if (stChild.iPid == -1 && stChild.iStartAt <= NowMilliseconds()) {
      StartChild(stChild);
    }
  }
}

void Master::StartChild(Child_t& stChild) {
  timespec stNow{};
  clock_gettime(CLOCK_REALTIME, &stNow);
  const auto iLife =
      static_cast<uint64_t>(stNow.tv_sec) * 1000000000u + static_cast<uint64_t>(stNow.tv_nsec);
  const pid_t iMaster = getpid();
  fflush(nullptr);
  stChild.iStartedAt = NowMilliseconds();
  stChild.iPid = fork();
  if (stChild.iPid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);  // nobody serves without a master
    signal(SIGINT, SIG_IGN);           // a terminal sends it to all; the master passes on the end
    if (getppid() != iMaster) {
      _exit(1);
    }
    _exit(RunChild(stChild, iLife));
  }
  if (stChild.iPid == -1) {
    g_pLog->Error("master: can not start %s: %s", stChild.strName.c_str(), strerror(errno));
    stChild.iStartAt = stChild.iStartedAt + MAX_DELAY_MS;
    return;
  }
  g_pLog->Info("master: %s started, pid %d", stChild.strName.c_str(), stChild.iPid);
}

int Master::RunChild(const Child_t& stChild, uint64_t iLife) const {
  if (stChild.iWorker == METRICS) {
    return RunMetrics(m_stSettings);
  }
  const MemoryReport stReport(m_stSettings.LogPath(), stChild.strName);
  SetTitle(stChild.strName + (stChild.iWorker < 0 ? " " + m_stSettings.strListen : ""));
  if (stChild.iWorker < 0) {
    return Gateway(m_stSettings, m_stQueues.Names(), iLife).Run();
  }
  const auto iWorker = static_cast<size_t>(stChild.iWorker);
  return Worker(m_stSettings, m_stQueues.Names()[iWorker], m_stTables.Names()[iWorker]).Run();
}

void Master::Reap() {
  int iStatus = 0;
  for (pid_t iPid = 0; (iPid = waitpid(-1, &iStatus, WNOHANG)) > 0;) {
    const auto it = std::find_if(m_vecChildren.begin(), m_vecChildren.end(),
                                 [iPid](const Child_t& st) { return st.iPid == iPid; });
    if (it != m_vecChildren.end()) {
      OnDeath(*it, iStatus);
    }
  }
}

// At once after a long life; else after 0.1, 0.2, 0.4, ... up to 5 seconds.
void Master::OnDeath(Child_t& stChild, int iStatus) {
  const int64_t iNow = NowMilliseconds();
  stChild.iPid = -1;
  const bool bStable = iNow - stChild.iStartedAt >= STABLE_MS;
  stChild.iStartAt = iNow + (bStable ? 0 : stChild.iDelay);
  stChild.iDelay = bStable ? 0 : std::clamp(stChild.iDelay * 2, FIRST_DELAY_MS, MAX_DELAY_MS);
  const int iExit = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : 0;
  if (iExit == EXIT_TABLE_FULL && m_stTables.Enlarge(static_cast<size_t>(stChild.iWorker))) {
    stChild.iStartAt = iNow;
    return;
  }
  if (iExit == EXIT_TABLE_FULL) {
    fprintf(
        stderr,
        "kv_server: the keys of %s do not fit into its table (table.bytes); the log tells more\n",
        stChild.strName.c_str());
  }
  if (iExit == EXIT_TABLE || iExit == EXIT_TABLE_FULL) {
    // Starting it again would not help, and without its keys the others' answers would be half.
    m_iExit = EXIT_TABLE;
    g_pLog->Error("master: %s refuses its table, the server ends", stChild.strName.c_str());
    g_bRunFlag = false;
    return;
  }
  if (g_bRunFlag) {
    g_pLog->Error("master: %s ended with %s", stChild.strName.c_str(),
                  DescribeEnd(iStatus).c_str());
  } else {
    g_pLog->Info("master: %s ended with %s", stChild.strName.c_str(), DescribeEnd(iStatus).c_str());
  }
}

int Master::WaitMilliseconds() const {
  int64_t iWait = MAX_WAIT_MS;
  for (const Child_t& stChild : m_vecChildren) {
    if (stChild.iPid == -1) {
      iWait = std::min(iWait, stChild.iStartAt - NowMilliseconds());
    }
  }
  return static_cast<int>(std::max<int64_t>(iWait, 0));
}

// The gateway and its client first: it needs the workers for its last answers.
void Master::StopChildren() {
  StopGroup(false);
  StopGroup(true);
}

void Master::StopGroup(bool bWorkers) {
  const auto IsAlive = [bWorkers](const Child_t& stChild) {
    return stChild.iPid != -1 && (stChild.iWorker >= 0) == bWorkers;
  };
  const auto Signal = [&](int iSignal) {
    for (const Child_t& stChild : m_vecChildren) {
      if (IsAlive(stChild)) {
        kill(stChild.iPid, iSignal);
      }
    }
  };
  const bool bSaves =
      bWorkers && !(m_stSettings.vecSaveRules.empty() && m_stSettings.strMirrorHost.empty());
  const uint64_t iSeconds = m_stSettings.iStopTimeout + (bSaves ? m_stSettings.iSaveTimeout : 0);
  const int64_t iDeadline =
      NowMilliseconds() + static_cast<int64_t>(iSeconds) * 1000 + KILL_AFTER_MS;
  Signal(SIGTERM);
  while (std::any_of(m_vecChildren.begin(), m_vecChildren.end(), IsAlive)) {
    if (NowMilliseconds() > iDeadline) {
      g_pLog->Error("master: a child does not stop and is killed");
      Signal(SIGKILL);
    }
    PauseMilliseconds(100);
    Reap();
  }
}
