#include "call_tracer.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>

// DESIGN
//
// The tracer is a grandchild, so that the test program has no child more than it made. It lets the
// program run freely until that traps on purpose (TellCallTracer), looks at bArmed, and from then
// on stops it before and behind each system call, and its forked children too, until they run
// another program. Only while bArmed is set does anything happen to a call.

namespace {

const unsigned int LIMIT = 30;  // seconds for one operation
const long OPTIONS = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                     PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC;
const int SYSCALL_STOP = SIGTRAP | 0x80;

call_trace_t* g_pTrace = nullptr;
pid_t g_iProgram = 0;  // the traced one

// In the tracer: the end of an operation that takes too long.
void EndHangingProgram(int /*iSignal*/) {
  static const char TEXT[] = "The operation hangs: ";
  static_cast<void>(!write(STDERR_FILENO, TEXT, sizeof(TEXT) - 1));
  static_cast<void>(!write(STDERR_FILENO, g_pTrace->szWhat, strlen(g_pTrace->szWhat)));
  static_cast<void>(!write(STDERR_FILENO, "\n", 1));
  kill(g_iProgram, SIGKILL);
}

bool IsNobodys(uint64_t iAddress) {
  for (size_t i = 0; i < g_pTrace->iRanges; ++i) {
    if (iAddress >= g_pTrace->aRanges[i].iBegin && iAddress < g_pTrace->aRanges[i].iEnd) {
      return true;
    }
  }
  return false;
}

void SetRegister(pid_t iPid, size_t iOffset, uint64_t iValue) {
  ptrace(PTRACE_POKEUSER, iPid, iOffset, iValue);
}

class Tracer {
 public:
  [[noreturn]] void Run() {
    int iStatus = 0;
    for (pid_t iPid = 0; (iPid = waitpid(-1, &iStatus, __WALL)) != -1 || errno == EINTR;) {
      if (iPid > 0 && WIFSTOPPED(iStatus)) {
        HandleStop(iPid, iStatus);
      }
    }
    _exit(0);
  }

 private:
  struct process_t {
    int iProcess = 0;
    bool bDetached = false;
    bool bChange = false;   // the call that it is in gets a result
    bool bRestore = false;  // or has another count for the while
    size_t iRecord = 0;     // its place in aCalls
    uint64_t iThird = 0;
  };

  void HandleStop(pid_t iPid, int iStatus) {
    process_t& stProcess = ProcessOf(iPid);
    const int iSignal = WSTOPSIG(iStatus);
    const int iEvent = iStatus >> 16;
    if (iSignal == SYSCALL_STOP) {
      HandleCall(iPid, stProcess);
      Resume(iPid, 0);
    } else if (iPid == g_iProgram && iEvent == 0 && iSignal == SIGTRAP) {
      HandleTrap(iPid);
    } else if (iEvent == PTRACE_EVENT_STOP && iSignal != SIGTRAP) {
      ptrace(PTRACE_LISTEN, iPid, 0, 0);
    } else if (iEvent == PTRACE_EVENT_EXEC && iPid != g_iProgram) {
      ptrace(PTRACE_DETACH, iPid, 0, 0);
    } else {
      Resume(iPid, iEvent == 0 ? iSignal : 0);
    }
  }

  process_t& ProcessOf(pid_t iPid) {
    const auto [it, bNew] = m_mapProcesses.try_emplace(iPid);
    if (bNew) {
      it->second.iProcess = m_iProcesses++;
    }
    return it->second;
  }

  void HandleTrap(pid_t iPid) {
    if (g_pTrace->iTracer != 1) {
      ptrace(PTRACE_DETACH, iPid, 0, 0);
      _exit(0);
    }
    alarm(g_pTrace->bArmed ? LIMIT : 0);
    if (g_pTrace->bArmed) {
      m_mapCounts.clear();
      m_mapProcesses.clear();
      m_mapProcesses[iPid];
      m_iProcesses = 1;
    }
    Resume(iPid, 0);
  }

  void Resume(pid_t iPid, long iSignal) {
    if (g_pTrace->bArmed) {
      ptrace(PTRACE_SYSCALL, iPid, 0, iSignal);
    } else {
      ptrace(iPid == g_iProgram ? PTRACE_CONT : PTRACE_DETACH, iPid, 0, iSignal);
    }
  }

  void HandleCall(pid_t iPid, process_t& stProcess) {
    __ptrace_syscall_info stInfo{};
    ptrace(PTRACE_GET_SYSCALL_INFO, iPid, sizeof(stInfo), &stInfo);
    if (stInfo.op == PTRACE_SYSCALL_INFO_EXIT && IsRestarted(stInfo.exit.rval)) {
      Forget(stProcess);
    } else if (stInfo.op == PTRACE_SYSCALL_INFO_EXIT) {
      HandleExit(iPid, stProcess);
    } else if (stInfo.op == PTRACE_SYSCALL_INFO_ENTRY && g_pTrace->bArmed &&
               !IsNobodys(stInfo.instruction_pointer)) {
      const auto iCall = static_cast<long>(stInfo.entry.nr);
      stProcess.iRecord = g_pTrace->iCalls;
      stProcess.iThird = stInfo.entry.args[2];
      if (g_pTrace->iCalls < call_trace_t::MAX_CALLS) {
        g_pTrace->aCalls[g_pTrace->iCalls++] = {iCall, stProcess.iProcess, stProcess.iThird};
      }
      const int iNumber = ++m_mapCounts[{stProcess.iProcess, iCall}];
      if (g_pTrace->bFails && iCall == g_pTrace->iCall && iNumber == g_pTrace->iNumber &&
          stProcess.iProcess == g_pTrace->iProcess) {
        Strike(iPid, stProcess);
      }
    }
  }

  static void Strike(pid_t iPid, process_t& stProcess) {
    g_pTrace->bReached = true;
    if (g_pTrace->bShorter) {
      // Never more: another attempt may ask for less, since the peer's bytes came in other pieces.
      const auto iCount = static_cast<uint64_t>(g_pTrace->iResult);
      SetRegister(iPid, offsetof(user, regs.rdx), std::min(iCount, stProcess.iThird));
      stProcess.bRestore = true;
      return;
    }
    if (!g_pTrace->bExecuted) {
      SetRegister(iPid, offsetof(user, regs.orig_rax), UINT64_MAX);  // no call at all
    }
    stProcess.bChange = true;
  }

  // A signal, be it an ignored one, makes the kernel do the same call again: it has not come yet.
  static bool IsRestarted(int64_t iResult) { return iResult <= -512 && iResult >= -516; }

  void Forget(process_t& stProcess) {
    if (stProcess.iRecord < g_pTrace->iCalls) {
      call_trace_t::call_t& stCall = g_pTrace->aCalls[stProcess.iRecord];
      --m_mapCounts[{stCall.iProcess, stCall.iCall}];
      stCall.iCall = -1;
    }
    stProcess.bChange = false;
  }

  static void HandleExit(pid_t iPid, process_t& stProcess) {
    if (stProcess.bChange) {
      SetRegister(iPid, offsetof(user, regs.rax), static_cast<uint64_t>(g_pTrace->iResult));
    }
    if (stProcess.bRestore) {
      SetRegister(iPid, offsetof(user, regs.rdx), stProcess.iThird);
    }
    stProcess.bChange = false;
    stProcess.bRestore = false;
  }

  std::map<pid_t, process_t> m_mapProcesses;
  std::map<std::pair<int, long>, int> m_mapCounts;
  int m_iProcesses = 0;
};

// Code that is not under test: the program's own and the sanitizers'.
void NoteRanges() {
  char szProgram[4096] = "";
  static_cast<void>(!readlink("/proc/self/exe", szProgram, sizeof(szProgram) - 1));
  std::ifstream stMaps("/proc/self/maps");
  for (std::string strLine; std::getline(stMaps, strLine);) {
    const bool bNobodys =
        strLine.find(szProgram) != std::string::npos || strLine.find("san.so") != std::string::npos;
    if (bNobodys && g_pTrace->iRanges < call_trace_t::MAX_RANGES) {
      size_t iMinus = 0;
      const uint64_t iBegin = std::stoull(strLine, &iMinus, 16);
      const uint64_t iEnd = std::stoull(strLine.substr(iMinus + 1), nullptr, 16);
      g_pTrace->aRanges[g_pTrace->iRanges++] = {iBegin, iEnd};
    }
  }
}

[[noreturn]] void RunTracer(int iReady) {
  signal(SIGALRM, EndHangingProgram);
  const long iResult = ptrace(PTRACE_SEIZE, g_iProgram, 0, OPTIONS);
  g_pTrace->iTracer = iResult == 0 ? 1 : -errno;
  static_cast<void>(!write(iReady, "1", 1));
  close(iReady);
  if (iResult != 0) {
    _exit(1);
  }
  Tracer().Run();
}

void StartTracer() {
  int aPipe[2];
  if (pipe(aPipe) != 0) {
    throw std::runtime_error("pipe");
  }
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
  const pid_t iChild = fork();
  if (iChild == 0) {
    close(aPipe[0]);
    if (fork() == 0) {
      RunTracer(aPipe[1]);
    }
    _exit(0);
  }
  close(aPipe[1]);
  waitpid(iChild, nullptr, 0);
  char cReady = 0;
  static_cast<void>(!read(aPipe[0], &cReady, 1));
  close(aPipe[0]);
  if (g_pTrace->iTracer != 1) {
    throw std::runtime_error(std::string("ptrace: ") + strerror(-g_pTrace->iTracer));
  }
}

}  // namespace

call_trace_t& CallTrace() {
  if (g_pTrace == nullptr) {
    void* pMemory = mmap(nullptr, sizeof(call_trace_t), PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (pMemory == MAP_FAILED) {
      throw std::runtime_error("mmap");
    }
    g_pTrace = static_cast<call_trace_t*>(pMemory);
    g_iProgram = getpid();
    NoteRanges();
    StartTracer();
  }
  return *g_pTrace;
}

void TellCallTracer() { asm volatile("int3" ::: "memory"); }

void StopCallTracer() {
  if (g_pTrace != nullptr && g_pTrace->iTracer == 1) {
    g_pTrace->iTracer = 0;
    TellCallTracer();
  }
}
