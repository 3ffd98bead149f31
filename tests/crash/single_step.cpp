#include "single_step.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace {

// A byte that parent and child share.
class SharedFlag {
 public:
  SharedFlag()
      : m_pFlag(static_cast<volatile char*>(
            mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  ~SharedFlag() { munmap(const_cast<char*>(m_pFlag), 1); }
  SharedFlag(const SharedFlag&) = delete;
  SharedFlag& operator=(const SharedFlag&) = delete;

  void Set() { *m_pFlag = 1; }
  bool IsSet() const { return *m_pFlag != 0; }

 private:
  volatile char* m_pFlag;
};

// A child under trace, which does not survive this object.
class TracedChild {
 public:
  explicit TracedChild(const std::function<void()>& fnRun) : m_iPid(fork()) {
    if (m_iPid == -1) {
      throw std::runtime_error("fork");
    }
    if (m_iPid == 0) {
      ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      fnRun();
      _exit(0);
    }
  }
  ~TracedChild() {
    if (m_iPid != -1) {
      kill(m_iPid, SIGKILL);
      waitpid(m_iPid, nullptr, 0);
    }
  }
  TracedChild(const TracedChild&) = delete;
  TracedChild& operator=(const TracedChild&) = delete;

  void WaitForTrap() {
    int iStatus = 0;
    waitpid(m_iPid, &iStatus, 0);
    if (!WIFSTOPPED(iStatus)) {
      m_iPid = -1;
      throw std::runtime_error("the traced child has ended");
    }
    if (WSTOPSIG(iStatus) != SIGTRAP) {
      throw std::runtime_error("the traced child got signal " + std::to_string(WSTOPSIG(iStatus)));
    }
  }
  void Step() {
    if (ptrace(PTRACE_SINGLESTEP, m_iPid, nullptr, nullptr) != 0) {
      throw std::runtime_error("no single step");
    }
    WaitForTrap();
  }

 private:
  pid_t m_iPid;
};

}  // namespace

bool KillAfter(unsigned int iInstructions, const std::function<void()>& fnPrepare,
               const std::function<void()>& fnOperation) {
  SharedFlag stDone;
  TracedChild stChild([&] {
    fnPrepare();
    asm volatile("int3" ::: "memory");
    fnOperation();
    stDone.Set();
  });
  stChild.WaitForTrap();
  for (unsigned int i = 0; i < iInstructions && !stDone.IsSet(); ++i) {
    stChild.Step();
  }
  return !stDone.IsSet();
}
