// The runner while the system refuses: this program's own versions of a few calls stand before the
// real ones, for the library too, note what is called and fail when told.

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "long_action_fixture.h"

namespace {

struct Faults_t {
  int iFailingCall = 0;  // 1 the first of pipe, epoll_ctl and fork that comes; 0 none
  bool bTrace = false;
  std::string strTrace;
  pid_t iForked = 0;  // what fork() tells without a child, unless 0
};

Faults_t g_stFaults;

void Note(const std::string& strCall) {
  if (g_stFaults.bTrace) {
    g_stFaults.strTrace += strCall + "\n";
  }
}

void Note(const std::string& strCall, int iFirst, int iSecond) {
  Note(strCall + " " + std::to_string(iFirst) + " " + std::to_string(iSecond));
}

bool Fails() {
  if (g_stFaults.iFailingCall == 0 || --g_stFaults.iFailingCall > 0) {
    return false;
  }
  errno = EXFULL;
  return true;
}

template <class Function>
Function Real(const char* pName) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, pName));
}

}  // namespace

extern "C" {

int pipe2(int* pPipe, int iFlags) noexcept {
  Note("pipe");
  return Fails() ? -1 : static_cast<int>(syscall(SYS_pipe2, pPipe, iFlags));
}

int epoll_ctl(int iEpollFD, int iOperation, int iFD, epoll_event* pEvent) noexcept {
  Note(iOperation == EPOLL_CTL_ADD ? "add" : "delete");
  return Fails() ? -1 : static_cast<int>(syscall(SYS_epoll_ctl, iEpollFD, iOperation, iFD, pEvent));
}

pid_t fork() noexcept {
  Note("fork");
  if (g_stFaults.iForked != 0) {
    return g_stFaults.iForked;
  }
  return Fails() ? -1 : Real<pid_t (*)()>("fork")();
}

int close(int iFD) {
  Note("close");
  const auto iResult = static_cast<int>(syscall(SYS_close, iFD));
  errno = g_stFaults.bTrace ? ENOANO : errno;  // a call that succeeds may change it
  return iResult;
}

int dup2(int iFD, int iTarget) noexcept {
  Note("dup2", iFD, iTarget);
  return static_cast<int>(syscall(SYS_dup2, iFD, iTarget));
}

int usleep(useconds_t iMicroseconds) {
  Note("usleep " + std::to_string(iMicroseconds));
  return Real<int (*)(useconds_t)>("usleep")(iMicroseconds);
}

sighandler_t signal(int iSignal, sighandler_t fnHandler) noexcept {
  Note("signal", iSignal, fnHandler == SIG_DFL ? 0 : 1);
  return Real<sighandler_t (*)(int, sighandler_t)>("signal")(iSignal, fnHandler);
}

}  // extern "C"

namespace {

// Shows that nothing is left of a start that failed.
class LongActionFaultTest : public LongActionFixture {
 protected:
  void SetUp() override { g_stFaults = Faults_t(); }
  void TearDown() override { g_stFaults = Faults_t(); }

  void ExpectNothingLeft() {
    g_stFaults = Faults_t();
    EXPECT_EQ(m_iOpen, OpenDescriptors());
    EXPECT_TRUE(m_stUtil.EnumAllChildren().empty());
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    epoll_event stEvent{};
    EXPECT_EQ(0, epoll_wait(m_iEpollFD, &stEvent, 1, 0));
  }

  // The result of Perform() or Perform2() and errno, with call number iFailingCall failing. What
  // was called is in g_stFaults.strTrace.
  std::pair<int, int> Perform(int iFailingCall = 0) {
    return Observe(iFailingCall, [this] { return m_stUtil.Perform(&m_stWork, 0, 0); });
  }
  std::pair<int, int> Perform2(int iFailingCall = 0) {
    return Observe(iFailingCall,
                   [this] { return m_stUtil.Perform2(&m_stWork, 0, 0, m_iStdoutFD, m_iStderrFD); });
  }

  template <class Function>
  static std::pair<int, int> Observe(int iFailingCall, Function fnCall) {
    g_stFaults = {iFailingCall, true, "", 0};
    errno = 0;
    const int iResult = fnCall();
    const int iErrno = errno;
    g_stFaults.bTrace = false;
    return {iResult, iErrno};
  }

  Work m_stWork{[] {
    WriteText(1, g_stFaults.strTrace);
    return 0;
  }};
  int m_iStdoutFD = -2;
  int m_iStderrFD = -2;
  const int m_iOpen = OpenDescriptors();
};

class PerformFaultTest : public LongActionFaultTest, public ::testing::WithParamInterface<int> {};

TEST_P(PerformFaultTest, LeavesNothingAndKeepsErrno) {
  EXPECT_EQ(std::pair(-1, EXFULL), Perform(GetParam()));
  ExpectNothingLeft();
}

// In a child of its own, for nobody gets the second response.
TEST_F(LongActionFaultTest, SecondChildOfOnePidIsUnknownOnceTheFirstIsFinished) {
  ForkedPeer stPeer([this] {
    g_stFaults.iForked = 4711;
    int iFirstFD = -1;
    EXPECT_EQ(0, m_stUtil.Perform2(&m_stWork, 1, 0, iFirstFD, m_iStderrFD));
    EXPECT_EQ(0, m_stUtil.Perform2(&m_stWork, 2, 0, m_iStdoutFD, m_iStderrFD));
    const Response_t pFirst = Exit(4711, 0);
    EXPECT_EQ(1, pFirst->iMachineID);
    EXPECT_EQ(nullptr, Exit(4711, 0));
    EXPECT_EQ(-100, m_stUtil.EventCallback(iFirstFD));
    EXPECT_EQ(-100, m_stUtil.EventCallback(m_iStdoutFD));
    EXPECT_EQ(nullptr, m_stUtil.GetStderrEvent(m_iStdoutFD));
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(0, stPeer.Wait());
}

// pipe, pipe, epoll_ctl, epoll_ctl, fork
INSTANTIATE_TEST_SUITE_P(Call, PerformFaultTest, ::testing::Range(1, 6));

class Perform2FaultTest : public LongActionFaultTest, public ::testing::WithParamInterface<int> {};

TEST_P(Perform2FaultTest, LeavesNothingAndKeepsErrno) {
  EXPECT_EQ(std::pair(-1, EXFULL), Perform2(GetParam()));
  ExpectNothingLeft();
}

// pipe, pipe, fork
INSTANTIATE_TEST_SUITE_P(Call, Perform2FaultTest, ::testing::Range(1, 4));

TEST_F(LongActionFaultTest, Perform2StoresTheReadEndsBeforeTheFork) {
  EXPECT_EQ(-1, Perform2(3).first);
  EXPECT_GT(m_iStdoutFD, 2);
  EXPECT_GT(m_iStderrFD, m_iStdoutFD);
  EXPECT_EQ(-1, fcntl(m_iStdoutFD, F_GETFD));
}

TEST_F(LongActionFaultTest, Perform2WithoutPipesStoresNothing) {
  EXPECT_EQ(-1, Perform2(2).first);
  EXPECT_EQ(-2, m_iStdoutFD);
  EXPECT_EQ(-2, m_iStderrFD);
}

TEST_F(LongActionFaultTest, ReadEndsAreRegisteredBeforeTheForkAndOutBeforeErr) {
  EXPECT_EQ(0, Perform().first);
  EXPECT_EQ("pipe\npipe\nadd\nadd\nfork\n", g_stFaults.strTrace);
}

TEST_F(LongActionFaultTest, ChildExitDeletesFromTheEpollSetBeforeItCloses) {
  ASSERT_EQ(0, Perform().first);
  const pid_t iPid = m_stUtil.EnumAllChildren().at(0);
  WaitAndReap(iPid);
  Response_t pResponse;
  Observe(0, [&] {
    pResponse = Exit(iPid, 0);
    return 0;
  });
  EXPECT_EQ("delete\nclose\nclose\ndelete\nclose\nclose\n", g_stFaults.strTrace);
}

TEST_F(LongActionFaultTest, ChildResetsSigchldSleepsAndRedirectsInThisOrder) {
  ASSERT_EQ(0, Perform2().first);
  const pid_t iPid = m_stUtil.EnumAllChildren().at(0);
  WaitAndReap(iPid);
  m_stUtil.EventCallback(m_iStdoutFD);
  const Response_t pResponse = Exit(iPid, 0);
  ASSERT_NE(nullptr, pResponse);
  const std::string strOutEnd = std::to_string(pResponse->fd_stdout[1]);
  const std::string strErrEnd = std::to_string(pResponse->fd_stderr[1]);
  EXPECT_EQ("pipe\npipe\nfork\nsignal 17 0\nusleep 20000\ndup2 " + strOutEnd + " 1\ndup2 " +
                strErrEnd + " 2\n",
            pResponse->strStdOut);
}

// ---- Limits of the system itself

TEST_F(LongActionFaultTest, DescriptorLimitFailsAtEitherPipe) {
  rlimit stLimit{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &stLimit));
  const int iNext = dup(0);  // the lowest free number; those above it are free too
  close(iNext);
  OwnUtil& stUtil = m_stUtil;  // a sanitizer could not look at this object below
  Work& stWork = m_stWork;
  for (int iRoom = 0; iRoom < 4; ++iRoom) {
    const rlimit stTight{static_cast<rlim_t>(iNext + iRoom), stLimit.rlim_max};
    const std::pair<int, int> stResult = Observe(0, [&] {
      setrlimit(RLIMIT_NOFILE, &stTight);
      const int iResult = stUtil.Perform(&stWork, 0, 0);
      const int iErrno = errno;
      setrlimit(RLIMIT_NOFILE, &stLimit);
      errno = iErrno;
      return iResult;
    });
    EXPECT_EQ(std::pair(-1, EMFILE), stResult) << iRoom;
    ExpectNothingLeft();
  }
}

TEST_F(LongActionFaultTest, ProcessLimitFailsAtTheFork) {
  ForkedPeer stPeer([this] {
    const rlimit stNone{0, 0};
    if (getuid() == 0 && setuid(65534) != 0) {  // the limit does not hold for root
      return 2;
    }
    if (setrlimit(RLIMIT_NPROC, &stNone) != 0) {
      return 3;
    }
    const int iOpen = OpenDescriptors();
    const std::pair<int, int> stResult = Perform();
    return stResult == std::pair(-1, EAGAIN) && OpenDescriptors() == iOpen ? 0 : 4;
  });
  EXPECT_EQ(0, stPeer.Wait());
}

TEST_F(LongActionFaultTest, DescriptorThatIsNoEpollSetFailsAtTheRegistration) {
  m_stUtil.SetEpollFD(0);
  EXPECT_EQ(-1, Perform().first);
  ExpectNothingLeft();
  m_stUtil.SetEpollFD(-1);
  EXPECT_EQ(std::pair(-1, EBADF), Perform());
  ExpectNothingLeft();
}

}  // namespace
