#include "failing_call.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <tuple>
#include <vector>

#include "call_tracer.h"
#include "test_support.h"

namespace {

const int REPETITIONS = 20;  // of an attempt after which there was more memory than before

enum Kind {
  PLAIN,     // a failure means that nothing was done
  EXECUTED,  // it is done also when it reports a failure
  WAITS,     // ECHILD means that somebody else has taken the child's end
  WRITES,    // takes a count of bytes as its third argument, and may take fewer
  READS      // the same, and may find the end
};

struct call_t {
  long iCall;
  const char* pName;
  Kind eKind;
  std::vector<int> vecErrnos;
};

// What is called by the library, or by other libraries for it, and can fail. Errors that only wrong
// arguments cause are left out, and so is what runs out of memory inside the process: mmap(),
// brk().
const call_t CALLS[] = {
    {SYS_accept4,
     "accept4",
     PLAIN,
     {EAGAIN, EINTR, ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EPROTO}},
    {SYS_access, "access", PLAIN, {EACCES, EIO, ELOOP, ENOENT, ENOMEM, ENOTDIR}},
    {SYS_bind, "bind", PLAIN, {EACCES, EADDRINUSE, EADDRNOTAVAIL, ENOMEM}},
    {SYS_clock_nanosleep, "clock_nanosleep", PLAIN, {EINTR}},
    {SYS_clone, "clone", PLAIN, {EAGAIN, ENOMEM}},
    {SYS_clone3, "clone3", PLAIN, {EAGAIN, ENOMEM, ENOSYS}},
    {SYS_close, "close", EXECUTED, {EDQUOT, EINTR, EIO, ENOSPC}},
    {SYS_connect,
     "connect",
     PLAIN,
     {EACCES, EADDRNOTAVAIL, EAGAIN, ECONNREFUSED, EINTR, EINPROGRESS, ENETUNREACH, EPERM,
      ETIMEDOUT}},
    {SYS_dup2, "dup2", PLAIN, {EBADF, EBUSY, EINTR, EMFILE}},
    {SYS_epoll_ctl, "epoll_ctl", PLAIN, {EEXIST, ENOENT, ENOMEM, ENOSPC, EPERM}},
    {SYS_eventfd2, "eventfd2", PLAIN, {EMFILE, ENFILE, ENODEV, ENOMEM}},
    {SYS_execve, "execve", PLAIN, {EACCES, EIO, EMFILE, ENOENT, ENOEXEC, ENOMEM}},
    {SYS_fcntl, "fcntl", PLAIN, {EACCES, EBADF, EPERM}},
    {SYS_getdents64, "getdents64", PLAIN, {EINTR, EIO, ENOENT}},
    {SYS_getpeername, "getpeername", PLAIN, {ENOBUFS, ENOTCONN}},
    {SYS_getrandom, "getrandom", PLAIN, {EAGAIN, EINTR, ENOSYS}},
    {SYS_getsockname, "getsockname", PLAIN, {ENOBUFS}},
    {SYS_getsockopt, "getsockopt", PLAIN, {ENOBUFS, ENOPROTOOPT}},
    {SYS_io_destroy, "io_destroy", EXECUTED, {EINVAL, ENOSYS}},
    {SYS_io_getevents, "io_getevents", PLAIN, {EINTR}},
    {SYS_io_setup, "io_setup", PLAIN, {EAGAIN, ENOMEM, ENOSYS}},
    {SYS_io_submit, "io_submit", PLAIN, {EAGAIN, EBADF, EINVAL, ENOSYS}},
    {SYS_ioctl, "ioctl", PLAIN, {EINVAL, ENODEV, ENOTTY, EPERM}},
    {SYS_listen, "listen", PLAIN, {EADDRINUSE, EOPNOTSUPP}},
    {SYS_mkdir,
     "mkdir",
     PLAIN,
     {EACCES, EDQUOT, EEXIST, EIO, ELOOP, EMLINK, ENOENT, ENOMEM, ENOSPC, ENOTDIR, EPERM, EROFS}},
    {SYS_mknodat,
     "mknodat",
     PLAIN,
     {EACCES, EDQUOT, EEXIST, ENOENT, ENOMEM, ENOSPC, ENOTDIR, EROFS}},
    {SYS_newfstatat, "newfstatat", PLAIN, {EACCES, EIO, ELOOP, ENOENT, ENOMEM, ENOTDIR}},
    {SYS_open, "open", PLAIN, {EACCES, EMFILE, ENFILE, ENOENT, ENOMEM}},
    {SYS_openat,
     "openat",
     PLAIN,
     {EACCES, EDQUOT, EINTR, EISDIR, ELOOP, EMFILE, ENFILE, ENOENT, ENOMEM, ENOSPC, ENOTDIR, ENXIO,
      EPERM, EROFS}},
    {SYS_pipe, "pipe", PLAIN, {EMFILE, ENFILE}},
    {SYS_pipe2, "pipe2", PLAIN, {EMFILE, ENFILE}},
    {SYS_poll, "poll", PLAIN, {EINTR, ENOMEM}},
    {SYS_read, "read", READS, {EAGAIN, EINTR, EIO}},
    {SYS_recvfrom, "recvfrom", READS, {EAGAIN, ECONNREFUSED, ECONNRESET, EINTR, ENOMEM, ETIMEDOUT}},
    {SYS_recvmsg, "recvmsg", PLAIN, {EAGAIN, ECONNREFUSED, EINTR, ENOMEM}},
    {SYS_sendmmsg, "sendmmsg", PLAIN, {EAGAIN, ECONNREFUSED, EINTR, ENOBUFS, ENOMEM}},
    {SYS_sendto, "sendto", WRITES, {EAGAIN, ECONNRESET, EINTR, ENOBUFS, ENOMEM, EPIPE}},
    {SYS_setsockopt, "setsockopt", PLAIN, {ENOMEM, ENOPROTOOPT}},
    {SYS_shmat, "shmat", PLAIN, {EACCES, EIDRM, EINVAL, ENOMEM}},
    {SYS_shmctl, "shmctl", PLAIN, {EACCES, EIDRM, EINVAL, EPERM}},
    {SYS_shmdt, "shmdt", EXECUTED, {EINVAL}},
    {SYS_shmget, "shmget", PLAIN, {EACCES, EEXIST, EINVAL, ENFILE, ENOENT, ENOMEM, ENOSPC, EPERM}},
    {SYS_socket, "socket", PLAIN, {EACCES, EAFNOSUPPORT, EMFILE, ENFILE, ENOBUFS, ENOMEM}},
    {SYS_statx, "statx", PLAIN, {EACCES, ELOOP, ENOENT, ENOMEM, ENOTDIR}},
    {SYS_wait4, "wait4", WAITS, {ECHILD, EINTR}},
    {SYS_write, "write", WRITES, {EAGAIN, EDQUOT, EFBIG, EINTR, EIO, ENOSPC, EPERM, EPIPE}},
};

// What can not fail with right arguments, and what takes memory. A call that stands in neither list
// is an error of the test: it would go untried.
const long OTHERS[] = {SYS_brk,          SYS_clock_gettime,  SYS_exit_group,   SYS_futex,
                       SYS_getegid,      SYS_geteuid,        SYS_getgid,       SYS_getpid,
                       SYS_getppid,      SYS_gettid,         SYS_gettimeofday, SYS_getuid,
                       SYS_lseek,        SYS_madvise,        SYS_mmap,         SYS_mprotect,
                       SYS_munmap,       SYS_prctl,          SYS_prlimit64,    SYS_restart_syscall,
                       SYS_rt_sigaction, SYS_rt_sigprocmask, SYS_sched_yield,  SYS_set_robust_list,
                       SYS_sigaltstack,  SYS_uname,          SYS_waitid};

const call_t* CallNumbered(long iCall) {
  const auto it = std::find_if(std::begin(CALLS), std::end(CALLS),
                               [=](const call_t& stCall) { return stCall.iCall == iCall; });
  return it == std::end(CALLS) ? nullptr : it;
}

const call_t& CallNamed(const std::string& strName) {
  return *std::find_if(std::begin(CALLS), std::end(CALLS),
                       [&](const call_t& stCall) { return stCall.pName == strName; });
}

// How much has been tried; the program's end tells it.
class Totals : public ::testing::Environment {
 public:
  void Add(const failure_t& stFailure) {
    ++m_iFailures;
    m_setCalls.insert(stFailure.strCall);
  }
  void AddOperation() { ++m_iOperations; }
  void SetUp() override { CallTrace(); }  // before there is anything that the tracer would inherit
  void TearDown() override {
    StopCallTracer();
    printf("Tried %d failures of %zu system calls in %d operations:", m_iFailures,
           m_setCalls.size(), m_iOperations);
    for (const std::string& strCall : m_setCalls) {
      printf(" %s", strCall.c_str());
    }
    printf("\n");
  }

 private:
  int m_iFailures = 0;
  int m_iOperations = 0;
  std::set<std::string> m_setCalls;
};

Totals& g_stTotals =
    *static_cast<Totals*>(::testing::AddGlobalTestEnvironment(new Totals));  // gtest deletes it

size_t LinesWith(const char* pFile, const std::string& strText) {
  std::ifstream stFile(pFile);
  size_t iLines = 0;
  for (std::string strLine; std::getline(stFile, strLine);) {
    iLines += strLine.find(strText) != std::string::npos;
  }
  return iLines;
}

// How many segments this process has made.
size_t OwnSegments() {
  std::ifstream stFile("/proc/sysvipc/shm");
  const std::string strPid = std::to_string(getpid());
  size_t iSegments = 0;
  for (std::string strLine; std::getline(stFile, strLine);) {
    std::istringstream stLine(strLine);
    const std::vector<std::string> vecWords{std::istream_iterator<std::string>(stLine), {}};
    iSegments += vecWords.size() > 4 && vecWords[4] == strPid;
  }
  return iSegments;
}

enum Children { NONE, RUNNING, ENDED };  // ENDED: one at least, not waited for

Children LookAtChildren() {
  siginfo_t stInfo{};
  if (waitid(P_ALL, 0, &stInfo, WEXITED | WNOHANG | WNOWAIT) == -1) {
    return NONE;
  }
  return stInfo.si_pid == 0 ? RUNNING : ENDED;
}

// What an attempt must leave as it was.
struct belongings_t {
  int iDescriptors;
  size_t iMappings;
  size_t iSegments;
  Children eChildren;
  size_t iHeap;  // last: looking at the others takes some
};

belongings_t Belongings() {
  belongings_t stNow{OpenDescriptors(), LinesWith("/proc/self/maps", "SYSV"), OwnSegments(),
                     LookAtChildren(), 0};
  const auto stHeap = mallinfo2();
  stNow.iHeap = stHeap.uordblks + stHeap.hblkhd;
  return stNow;
}

std::string Described(const failure_t& stFailure) {
  std::ostringstream stText;
  stText << stFailure;
  return stText.str();
}

}  // namespace

std::ostream& operator<<(std::ostream& stOut, const failure_t& stFailure) {
  stOut << stFailure.strCall << "() number " << stFailure.iNumber;
  if (stFailure.iProcess != 0) {
    stOut << " of child " << stFailure.iProcess;
  }
  if (stFailure.iErrno != 0) {
    return stOut << " fails with " << strerrorname_np(stFailure.iErrno);
  }
  return stOut << " moves " << stFailure.iShorter << " bytes";
}

bool operator==(const failure_t& stFailure, const kind_t& stKind) {
  return stFailure.iProcess == 0 && stFailure.strCall == stKind.pCall &&
         (stKind.iErrno == -1 || stKind.iErrno == stFailure.iErrno) &&
         (stKind.iNumber == 0 || stKind.iNumber == stFailure.iNumber);
}

bool Attempt::FailsIn(std::initializer_list<kind_t> listKinds) const {
  return Fails() && std::any_of(listKinds.begin(), listKinds.end(),
                                [this](const kind_t& stKind) { return *m_pFailure == stKind; });
}

Attempt::Armed::Armed(Attempt& stAttempt) : m_stAttempt(stAttempt) {
  call_trace_t& stTrace = CallTrace();
  stTrace.bFails = stAttempt.m_pFailure != nullptr;
  stTrace.bReached = false;
  stTrace.iCalls = 0;
  std::string strWhat = "without a failure";
  if (stTrace.bFails) {
    const failure_t& stFailure = *stAttempt.m_pFailure;
    const call_t& stCall = CallNamed(stFailure.strCall);
    stTrace.iCall = stCall.iCall;
    stTrace.iProcess = stFailure.iProcess;
    stTrace.iNumber = stFailure.iNumber;
    stTrace.bShorter = stFailure.iErrno == 0 && stFailure.iShorter != 0;
    stTrace.bExecuted =
        stCall.eKind == EXECUTED || (stCall.eKind == WAITS && stFailure.iErrno == ECHILD);
    stTrace.iResult = stTrace.bShorter ? stFailure.iShorter : -stFailure.iErrno;
    strWhat = Described(stFailure);
  }
  strncpy(stTrace.szWhat, strWhat.c_str(), sizeof(stTrace.szWhat) - 1);
  stTrace.bArmed = true;
  TellCallTracer();
  errno = 0;
}

Attempt::Armed::~Armed() {
  const int iErrno = errno;
  CallTrace().bArmed = false;
  TellCallTracer();
  m_stAttempt.m_iErrno = iErrno;
  m_stAttempt.m_bReached = CallTrace().bReached;
  errno = iErrno;
}

class Sweep {
 public:
  Sweep(const std::function<void(Attempt&)>& fnAttempt, int iNumbers,
        const std::vector<kind_t>& vecImpossible)
      : m_fnAttempt(fnAttempt), m_iNumbers(iNumbers), m_vecImpossible(vecImpossible) {}

  int Run() {
    Try(nullptr);  // what is allocated only once is so now
    Try(nullptr);
    NoteCalls();
    for (const auto& [stKey, iThird] : m_mapCounts) {
      const auto& [iProcess, iCall, iNumber] = stKey;
      TryFailures(*CallNumbered(iCall), iProcess, iNumber, iThird);
    }
    EXPECT_LT(0, m_iFailures) << "an operation without system calls";
    g_stTotals.AddOperation();
    return m_iFailures;
  }

 private:
  // Which calls the attempt has made that can fail, and what for a count they were given.
  void NoteCalls() {
    const call_trace_t& stTrace = CallTrace();
    ASSERT_LT(stTrace.iCalls, call_trace_t::MAX_CALLS);
    std::map<std::pair<int, long>, int> mapNumbers;
    for (size_t i = 0; i < stTrace.iCalls; ++i) {
      const auto& stCall = stTrace.aCalls[i];
      const int iNumber = ++mapNumbers[{stCall.iProcess, stCall.iCall}];
      const bool bOther = stCall.iCall == -1 || std::find(std::begin(OTHERS), std::end(OTHERS),
                                                          stCall.iCall) != std::end(OTHERS);
      EXPECT_NE(bOther, CallNumbered(stCall.iCall) != nullptr)
          << "system call number " << stCall.iCall << " is in no list";
      if (iNumber <= m_iNumbers && CallNumbered(stCall.iCall) != nullptr) {
        m_mapCounts[{stCall.iProcess, stCall.iCall, iNumber}] = stCall.iThird;
      }
    }
  }

  void TryFailures(const call_t& stCall, int iProcess, int iNumber, uint64_t iThird) {
    failure_t stFailure{stCall.pName, iProcess, iNumber, 0, 0};
    for (const int iErrno : stCall.vecErrnos) {
      stFailure.iErrno = iErrno;
      TryFailure(stFailure);
    }
    stFailure.iErrno = 0;
    std::set<uint64_t> setCounts;
    if (stCall.eKind == READS) {
      setCounts.insert(0);
    }
    if (stCall.eKind == READS || stCall.eKind == WRITES) {
      setCounts.insert({std::min<uint64_t>(iThird, 1), iThird / 2});
      setCounts.erase(iThird);
    }
    for (const uint64_t iCount : setCounts) {
      if (iCount != 0 || stCall.eKind == READS) {
        stFailure.iShorter = static_cast<ssize_t>(iCount);
        TryFailure(stFailure);
      }
    }
  }

  void TryFailure(const failure_t& stFailure) {
    if (std::any_of(m_vecImpossible.begin(), m_vecImpossible.end(),
                    [&](const kind_t& stKind) { return stFailure == stKind; })) {
      return;
    }
    SCOPED_TRACE(Described(stFailure));
    result_t stResult = Try(&stFailure);
    bool bReached = stResult.bReached;
    // What it has allocated once and for all it does not allocate again, and the C library's caches
    // of freed memory are full at last. A check that failed has allocated its message.
    for (int i = 0;
         i < REPETITIONS && (stResult.iGrown != 0 || !bReached) && !::testing::Test::HasFailure();
         ++i) {
      stResult = Try(&stFailure);
      bReached = bReached || stResult.bReached;
    }
    EXPECT_TRUE(stResult.iGrown == 0 || ::testing::Test::HasFailure())
        << stResult.iGrown << " bytes lost each time";
    if (bReached) {
      g_stTotals.Add(stFailure);
      ++m_iFailures;
    }
  }

  struct result_t {
    bool bReached;
    size_t iGrown;  // the heap
  };

  result_t Try(const failure_t* pFailure) {
    const belongings_t stBefore = Belongings();
    bool bReached = false;
    {
      Attempt stAttempt(pFailure);
      m_fnAttempt(stAttempt);
      bReached = stAttempt.m_bReached;
    }
    const belongings_t stAfter = Belongings();
    EXPECT_LE(stAfter.iDescriptors, stBefore.iDescriptors) << "descriptors";
    EXPECT_LE(stAfter.iMappings, stBefore.iMappings) << "mapped segments";
    EXPECT_LE(stAfter.iSegments, stBefore.iSegments) << "segments";
    EXPECT_LE(stAfter.eChildren, stBefore.eChildren) << "children";
    return {bReached, stAfter.iHeap > stBefore.iHeap ? stAfter.iHeap - stBefore.iHeap : 0};
  }

  const std::function<void(Attempt&)>& m_fnAttempt;
  const int m_iNumbers;
  const std::vector<kind_t>& m_vecImpossible;
  std::map<std::tuple<int, long, int>, uint64_t> m_mapCounts;  // by process, call and number
  int m_iFailures = 0;
};

int FailEachCall(const std::function<void(Attempt&)>& fnAttempt, int iNumbers,
                 const std::vector<kind_t>& vecImpossible) {
  return Sweep(fnAttempt, iNumbers, vecImpossible).Run();
}
