// Work in child processes, from the start to the collected output and exit code.
//
// shell          a shell command that prints a line, by LongActionUtil::Perform(ExecuteShell)
// code           the same line printed by code of our own in a forked child, by Perform()
// code_paused    the same as it really is: Perform() lets each child wait 20 ms first, so here the
//                limit waits too. The other cases leave this pause out
// children_1000  1,000 such children at once, paused
// shells_1000    1,000 shell commands at once by Perform(ExecuteShell2), paused
// command        the output of a shell command as lines, by ExecuteCommand()
// fork_SIZE      "code" in a parent with that much memory of its own in use, or with shared
// segments
//                of that size attached and in use; and posix_spawn of a shell instead
//
// "limit" is fork with two pipes written out by hand, the same work in the child, reads to the end
// of both pipes and waitpid. Ours is driven as in a host: epoll, with SIGCHLD as one of its
// descriptors. popen, posix_spawn and Boost.Process run the command without a fork of the host's
// memory; they can run nothing but programs. popen has no pipe for the standard error.
//
// Figures are the time that passes; cpu_ns is the processor time of all processes together.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <boost/process.hpp>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "execute_shell.h"
#include "execute_shell2.h"
#include "long_action_util.h"
#include "process_util.h"
#include "ratio_reporter.h"

namespace {

const char LINE[] = "result\n";
const char COMMAND[] = "echo result";
const useconds_t PAUSE = 20000;
const size_t MANY = 1000;
const int64_t FORKS = 15;                   // of a large parent
const rlim_t DESCRIPTORS = 4 * MANY + 100;  // two pipes for each of many

bool g_bPause = false;

}  // namespace

// In place of the C library's: the library pauses only where this is to be measured.
extern "C" int usleep(useconds_t iMicroseconds) {
  const timespec stTime{static_cast<time_t>(iMicroseconds / 1000000),
                        static_cast<long>(iMicroseconds % 1000000) * 1000};
  return g_bPause ? nanosleep(&stTime, nullptr) : 0;
}

namespace {

[[noreturn]] void Fail(const char* pWhat) {
  perror(pWhat);
  exit(1);
}

void Check(const std::string& strText) {
  if (strText != LINE) {
    fprintf(stderr, "a child printed \"%s\"\n", strText.c_str());
    exit(1);
  }
}

std::string ReadToEnd(int iFD) {
  std::string strText;
  char szBuffer[1024];
  for (ssize_t iCount; (iCount = read(iFD, szBuffer, sizeof(szBuffer))) > 0;) {
    strText.append(szBuffer, static_cast<size_t>(iCount));
  }
  return strText;
}

// What a child does.
class PrintLine : public LongActionMethod {
 public:
  int Do() override { return write(STDOUT_FILENO, LINE, strlen(LINE)) > 0 ? 0 : 1; }
};

std::unique_ptr<LongActionMethod> MakeShell() {
  auto pShell = std::make_unique<ExecuteShell>();
  pShell->Command(COMMAND);
  return pShell;
}

std::unique_ptr<LongActionMethod> MakeShell2() {
  auto pShell = std::make_unique<ExecuteShell2>();
  pShell->Command(COMMAND);
  return pShell;
}

std::unique_ptr<LongActionMethod> MakeCode() { return std::make_unique<PrintLine>(); }

typedef std::unique_ptr<LongActionMethod> Make_t();

// The contestants. Start() starts a child, Finish() waits for all and checks what they printed.

class Zelk {
 public:
  explicit Zelk(Make_t* pMake) : m_pMethod(pMake()), m_iEpollFD(epoll_create1(EPOLL_CLOEXEC)) {
    sigset_t stSignals;
    sigemptyset(&stSignals);
    sigaddset(&stSignals, SIGCHLD);
    sigprocmask(SIG_BLOCK, &stSignals, &m_stBefore);
    m_iSignalFD = signalfd(-1, &stSignals, SFD_CLOEXEC);
    epoll_event stEvent{};
    stEvent.events = EPOLLIN;
    stEvent.data.fd = m_iSignalFD;
    epoll_ctl(m_iEpollFD, EPOLL_CTL_ADD, m_iSignalFD, &stEvent);
    m_stUtil.SetEpollFD(m_iEpollFD);
  }
  ~Zelk() {
    close(m_iSignalFD);
    close(m_iEpollFD);
    sigprocmask(SIG_SETMASK, &m_stBefore, nullptr);
  }
  Zelk(const Zelk&) = delete;
  Zelk& operator=(const Zelk&) = delete;

  void Start() {
    if (m_stUtil.Perform(m_pMethod.get(), 1, 1) != 0) {
      Fail("Perform");
    }
    ++m_iRunning;
  }
  void Finish() {
    while (m_iRunning > 0) {
      Dispatch(m_bEnded ? 0 : -1);
      if (m_bEnded) {
        Collect();
      }
    }
  }

 private:
  // False when there was nothing to do.
  bool Dispatch(int iTimeout) {
    epoll_event aEvents[64];
    const int iCount = epoll_wait(m_iEpollFD, aEvents, 64, iTimeout);
    for (int i = 0; i < iCount; ++i) {
      if (aEvents[i].data.fd == m_iSignalFD) {
        signalfd_siginfo stInfo{};
        m_bEnded = read(m_iSignalFD, &stInfo, sizeof(stInfo)) > 0;
      } else {
        m_stUtil.EventCallback(aEvents[i].data.fd);
      }
    }
    return iCount > 0;
  }
  // As the library's header says: sweep, read until all is dry, poll.
  void Collect() {
    m_bEnded = false;
    m_stUtil.IsLongAction(0, 0);
    while (Dispatch(0)) {
    }
    while (const std::unique_ptr<long_action_response_t> pResponse{m_stUtil.PollChild()}) {
      Check(pResponse->strStdOut);
      --m_iRunning;
    }
  }

  LongActionUtil& m_stUtil = LongActionUtil::Instance();
  std::unique_ptr<LongActionMethod> m_pMethod;
  int m_iEpollFD;
  int m_iSignalFD;
  sigset_t m_stBefore;
  size_t m_iRunning = 0;
  bool m_bEnded = false;
};

struct Child_t {
  pid_t iPid;
  int iStdOut;
  int iStdErr;
};

void FinishAll(std::vector<Child_t>& vecChildren) {
  for (const Child_t& stChild : vecChildren) {
    Check(ReadToEnd(stChild.iStdOut));
    ReadToEnd(stChild.iStdErr);
    close(stChild.iStdOut);
    close(stChild.iStdErr);
    if (waitpid(stChild.iPid, nullptr, 0) != stChild.iPid) {
      Fail("waitpid");
    }
  }
  vecChildren.clear();
}

// exit() as in a child of ours: what stdio buffers there is flushed.
class Bare {
 public:
  explicit Bare(Make_t* pMake) : m_pMethod(pMake()) {}
  void Start() {
    int aOut[2];
    int aErr[2];
    if (pipe(aOut) != 0 || pipe(aErr) != 0) {
      Fail("pipe");
    }
    const pid_t iPid = fork();
    if (iPid == 0) {
      usleep(PAUSE);
      dup2(aOut[1], STDOUT_FILENO);
      dup2(aErr[1], STDERR_FILENO);
      exit(m_pMethod->Do());
    }
    close(aOut[1]);
    close(aErr[1]);
    m_vecChildren.push_back({iPid, aOut[0], aErr[0]});
  }
  void Finish() { FinishAll(m_vecChildren); }

 private:
  std::unique_ptr<LongActionMethod> m_pMethod;
  std::vector<Child_t> m_vecChildren;
};

class Spawn {
 public:
  explicit Spawn(Make_t* /*pMake*/) {}
  void Start() {
    int aOut[2];
    int aErr[2];
    if (pipe2(aOut, O_CLOEXEC) != 0 || pipe2(aErr, O_CLOEXEC) != 0) {
      Fail("pipe");
    }
    posix_spawn_file_actions_t stActions;
    posix_spawn_file_actions_init(&stActions);
    posix_spawn_file_actions_adddup2(&stActions, aOut[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&stActions, aErr[1], STDERR_FILENO);
    std::string aWords[] = {"sh", "-c", COMMAND};
    char* apWords[] = {aWords[0].data(), aWords[1].data(), aWords[2].data(), nullptr};
    pid_t iPid = 0;
    if (posix_spawn(&iPid, "/bin/sh", &stActions, nullptr, apWords, environ) != 0) {
      Fail("posix_spawn");
    }
    posix_spawn_file_actions_destroy(&stActions);
    close(aOut[1]);
    close(aErr[1]);
    m_vecChildren.push_back({iPid, aOut[0], aErr[0]});
  }
  void Finish() { FinishAll(m_vecChildren); }

 private:
  std::vector<Child_t> m_vecChildren;
};

class Popen {
 public:
  explicit Popen(Make_t* /*pMake*/) {}
  void Start() {
    FILE* pStream = popen(COMMAND, "re");
    if (pStream == nullptr) {
      Fail("popen");
    }
    m_vecStreams.push_back(pStream);
  }
  void Finish() {
    for (FILE* pStream : m_vecStreams) {
      char szLine[64] = "";
      Check(fgets(szLine, sizeof(szLine), pStream) == nullptr ? "" : szLine);
      pclose(pStream);
    }
    m_vecStreams.clear();
  }

 private:
  std::vector<FILE*> m_vecStreams;
};

class BoostProcess {
 public:
  explicit BoostProcess(Make_t* /*pMake*/) {}
  void Start() { m_lstChildren.emplace_back(); }
  void Finish() {
    for (Child& stChild : m_lstChildren) {
      std::string strLine;
      std::getline(stChild.stStdOut, strLine);
      Check(strLine + '\n');
      std::getline(stChild.stStdErr, strLine);
      stChild.stProcess.wait();
    }
    m_lstChildren.clear();
  }

 private:
  struct Child {
    boost::process::ipstream stStdOut;
    boost::process::ipstream stStdErr;
    boost::process::child stProcess{"/bin/sh", boost::process::args({"-c", COMMAND}),
                                    boost::process::std_out > stStdOut,
                                    boost::process::std_err > stStdErr};
  };
  std::list<Child> m_lstChildren;
};

// ExecuteCommand() waits by itself.
class Command {
 public:
  explicit Command(Make_t* /*pMake*/) {}
  void Start() {
    int iError = 0;
    std::vector<std::string> vecLines;
    if (ExecuteCommand(iError, vecLines, "%s", COMMAND) != 0 || vecLines.size() != 1) {
      Fail("ExecuteCommand");
    }
    Check(vecLines[0]);
  }
  void Finish() {}
};

// What the parent has in use while it forks.
class Ballast {
 public:
  explicit Ballast(size_t iSize, bool bShared) : m_iSize(iSize), m_bShared(bShared) {
    if (m_iSize == 0) {
      return;
    }
    m_pMemory = bShared ? Attach() : MapPrivate();
    memset(m_pMemory, 1, m_iSize);
  }
  ~Ballast() {
    if (m_pMemory != nullptr) {
      m_bShared ? shmdt(m_pMemory) : munmap(m_pMemory, m_iSize);
    }
  }
  Ballast(const Ballast&) = delete;
  Ballast& operator=(const Ballast&) = delete;

 private:
  // In pages of 4 KiB, as memory is that grew piece by piece.
  void* MapPrivate() const {
    void* pMemory =
        mmap(nullptr, m_iSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pMemory == MAP_FAILED) {
      Fail("mmap");
    }
    madvise(pMemory, m_iSize, MADV_NOHUGEPAGE);
    return pMemory;
  }
  void* Attach() const {
    const int iID = shmget(IPC_PRIVATE, m_iSize, IPC_CREAT | 0600);
    void* pMemory = iID == -1 ? MAP_FAILED : shmat(iID, nullptr, 0);
    shmctl(iID, IPC_RMID, nullptr);  // gone with the last process that has it attached
    if (pMemory == MAP_FAILED) {
      Fail("shared memory");
    }
    return pMemory;
  }

  size_t m_iSize;
  bool m_bShared;
  void* m_pMemory = nullptr;
};

struct Case_t {
  Make_t* pMake;
  size_t iChildren = 1;
  bool bPause = false;
  size_t iBallast = 0;
  bool bShared = false;
};

// Processor time of this process and of the children that have been waited for.
double CpuNanoseconds() {
  double dSum = 0;
  for (const int iWho : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
    rusage stUsage{};
    getrusage(iWho, &stUsage);
    for (const timeval& stTime : {stUsage.ru_utime, stUsage.ru_stime}) {
      dSum += static_cast<double>(stTime.tv_sec) * 1e9 + static_cast<double>(stTime.tv_usec) * 1e3;
    }
  }
  return dSum;
}

template <typename Contestant>
void Run(benchmark::State& stState, const Case_t& stCase) {
  fflush(nullptr);  // a child would print it once more
  const Ballast stBallast(stCase.iBallast, stCase.bShared);
  Contestant stContestant(stCase.pMake);
  g_bPause = stCase.bPause;
  const double dCpu = CpuNanoseconds();
  for (auto stIteration : stState) {
    static_cast<void>(stIteration);
    for (size_t i = 0; i < stCase.iChildren; ++i) {
      stContestant.Start();
    }
    stContestant.Finish();
  }
  stState.counters["cpu_ns"] =
      (CpuNanoseconds() - dCpu) / static_cast<double>(stState.iterations());
}

template <typename Contestant>
void Register(const std::string& strName, const Case_t& stCase, int64_t iIterations = 0) {
  auto* pCase = benchmark::RegisterBenchmark(strName.c_str(), Run<Contestant>, stCase);
  pCase->UseRealTime()->Unit(benchmark::kMicrosecond);
  if (iIterations > 0) {
    pCase->Iterations(iIterations);
  }
}

void RegisterCode(const std::string& strOperation, const Case_t& stCase, int64_t iIterations = 0) {
  Register<Zelk>(strOperation + "/zelk", stCase, iIterations);
  Register<Bare>(strOperation + "/limit", stCase, iIterations);
}

void RegisterMany() {
  rlimit stLimit{};
  getrlimit(RLIMIT_NOFILE, &stLimit);
  stLimit.rlim_cur = stLimit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &stLimit);
  if (stLimit.rlim_cur < DESCRIPTORS) {
    printf("left out: 1,000 children at once need %lu descriptors\n", DESCRIPTORS);
    return;
  }
  RegisterCode("children_1000", {MakeCode, MANY, true}, 1);
  Register<Zelk>("shells_1000/zelk", {MakeShell2, MANY, true}, 1);
  Register<Spawn>("shells_1000/posix_spawn", {MakeShell2, MANY, true}, 1);
  Register<Bare>("shells_1000/limit", {MakeShell2, MANY, true}, 1);
}

void RegisterSizes() {
  const auto iMemory =
      static_cast<size_t>(sysconf(_SC_AVPHYS_PAGES)) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const std::pair<const char*, size_t> aSizes[] = {
      {"0", 0}, {"64MiB", 64ul << 20}, {"512MiB", 512ul << 20}, {"2GiB", 2ul << 30}};
  for (const auto& [pSize, iSize] : aSizes) {
    if (iSize > iMemory / 2) {
      printf("left out: a parent of %s, too little memory is free\n", pSize);
      continue;
    }
    const std::string strName = std::string("fork_") + pSize;
    Register<Zelk>(strName + "/private", {MakeCode, 1, false, iSize, false}, FORKS);
    Register<Zelk>(strName + "/shared", {MakeCode, 1, false, iSize, true}, FORKS);
    Register<Spawn>(strName + "/private_posix_spawn", {MakeCode, 1, false, iSize, false}, FORKS);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Register<Zelk>("shell/zelk", {MakeShell});
  Register<Popen>("shell/popen", {MakeShell});
  Register<Spawn>("shell/posix_spawn", {MakeShell});
  Register<BoostProcess>("shell/boost_process", {MakeShell});
  Register<Bare>("shell/limit", {MakeShell});
  RegisterCode("code", {MakeCode});
  RegisterCode("code_paused", {MakeCode, 1, true});
  RegisterMany();
  Register<Command>("command/zelk", {MakeShell});
  Register<Popen>("command/popen", {MakeShell});
  Register<Spawn>("command/posix_spawn", {MakeShell});
  Register<BoostProcess>("command/boost_process", {MakeShell});
  RegisterSizes();
  return RunWithRatios(argc, argv);
}
