#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "process_util.h"
#include "test_support.h"
#include "zelk_variable.h"

namespace {

const int HANDLED[] = {SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD};

// Puts back what the process did with the signals, and its run flag.
class ProcessSignalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const int iSignal : HANDLED) {
      m_vecSaved.emplace_back();
      sigaction(iSignal, nullptr, &m_vecSaved.back());
    }
    g_bRunFlag = true;
  }
  void TearDown() override {
    for (size_t i = 0; i < m_vecSaved.size(); ++i) {
      sigaction(HANDLED[i], &m_vecSaved[i], nullptr);
    }
    g_bRunFlag = true;
  }

 private:
  std::vector<struct sigaction> m_vecSaved;
};

// A child that has ended and waits to be reaped.
pid_t EndedChild(int iExitCode) {
  const pid_t iPid = fork();
  if (iPid == 0) {
    _exit(iExitCode);
  }
  siginfo_t stInfo{};
  EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(iPid), &stInfo, WEXITED | WNOWAIT));
  return iPid;
}

bool HasChild(pid_t iPid) {
  siginfo_t stInfo{};
  return waitid(P_PID, static_cast<id_t>(iPid), &stInfo, WEXITED | WNOWAIT | WNOHANG) == 0;
}

TEST_F(ProcessSignalTest, InitInstallsTheHandlerForFiveSignals) {
  signal_init();
  for (const int iSignal : HANDLED) {
    struct sigaction stAction {};
    sigaction(iSignal, nullptr, &stAction);
    EXPECT_EQ(&signal_handle, stAction.sa_handler) << iSignal;
    EXPECT_NE(0, stAction.sa_flags & SA_RESTART) << iSignal;
  }
  struct sigaction stOther {};
  sigaction(SIGHUP, nullptr, &stOther);
  EXPECT_NE(&signal_handle, stOther.sa_handler);
}

TEST_F(ProcessSignalTest, TerminateAndInterruptClearTheRunFlag) {
  signal_init();
  for (const int iSignal : {SIGTERM, SIGINT}) {
    g_bRunFlag = true;
    raise(iSignal);
    EXPECT_FALSE(g_bRunFlag) << iSignal;
  }
}

TEST_F(ProcessSignalTest, UserSignalsAndEndedChildrenKeepTheRunFlag) {
  signal_init();
  for (const int iSignal : {SIGUSR1, SIGUSR2, SIGCHLD}) {
    raise(iSignal);
    EXPECT_TRUE(g_bRunFlag) << iSignal;
  }
}

TEST_F(ProcessSignalTest, HandlerStaysInstalledAfterASignal) {
  signal_init();
  raise(SIGUSR1);
  raise(SIGUSR1);  // would end the process
  raise(SIGTERM);
  g_bRunFlag = true;
  raise(SIGTERM);
  EXPECT_FALSE(g_bRunFlag);
}

TEST_F(ProcessSignalTest, OtherSignalsReapNoChild) {
  const pid_t iChild = EndedChild(0);
  for (const int iSignal : {SIGUSR1, SIGUSR2, SIGTERM, SIGINT}) {
    signal_handle(iSignal);
    EXPECT_TRUE(HasChild(iChild)) << iSignal;
  }
  signal_handle(SIGCHLD);
  EXPECT_FALSE(HasChild(iChild));
}

TEST_F(ProcessSignalTest, OneChildSignalReapsEveryEndedChild) {
  std::vector<pid_t> vecChildren;
  for (int i = 0; i < 20; ++i) {
    vecChildren.push_back(EndedChild(i));
  }
  signal_handle(SIGCHLD);
  for (const pid_t iChild : vecChildren) {
    EXPECT_FALSE(HasChild(iChild));
  }
}

TEST_F(ProcessSignalTest, RunningChildIsNeitherReapedNorWaitedFor) {
  ForkedPeer stRunning([] { return pause(); });
  const pid_t iEnded = EndedChild(0);
  signal_handle(SIGCHLD);
  EXPECT_FALSE(HasChild(iEnded));
  EXPECT_TRUE(HasChild(stRunning.Pid()));
  stRunning.Kill(SIGKILL);
  EXPECT_EQ(1000 + SIGKILL, stRunning.Wait());
}

TEST_F(ProcessSignalTest, ChildIsReapedAsSoonAsItEnds) {
  signal_init();
  const pid_t iChild = fork();
  if (iChild == 0) {
    _exit(3);
  }
  EXPECT_TRUE(WaitUntil([iChild] { return !HasChild(iChild); }));
  EXPECT_EQ(-1, waitpid(iChild, nullptr, 0));
  EXPECT_EQ(ECHILD, errno);
}

TEST_F(ProcessSignalTest, HandlerKeepsErrno) {
  EndedChild(0);
  errno = EXDEV;
  signal_handle(SIGCHLD);  // the last waitpid() fails with ECHILD
  EXPECT_EQ(EXDEV, errno);
  signal_handle(SIGTERM);
  EXPECT_EQ(EXDEV, errno);
}

TEST_F(ProcessSignalTest, BlockedReadIsRestarted) {
  int aPipe[2];
  ASSERT_EQ(0, pipe(aPipe));
  ForkedPeer stReader([&] {
    signal_init();
    char cByte = 0;
    return read(aPipe[0], &cByte, 1) == 1 ? cByte : 1;
  });
  const std::string strStat = "/proc/" + std::to_string(stReader.Pid()) + "/stat";
  ASSERT_TRUE(WaitUntil([&] { return ReadFile(strStat).find(") S ") != std::string::npos; }));
  stReader.Kill(SIGUSR1);
  stReader.Kill(SIGTERM);
  EXPECT_EQ(1, write(aPipe[1], "*", 1));
  EXPECT_EQ('*', stReader.Wait());
  close(aPipe[0]);
  close(aPipe[1]);
}

// A server's loop in a process of its own.
TEST_F(ProcessSignalTest, ServerLoopEndsOnTerminateAndNotOnUserSignals) {
  int aReady[2];
  ASSERT_EQ(0, pipe(aReady));
  ForkedPeer stServer([&] {
    signal_init();
    if (write(aReady[1], "r", 1) != 1) {
      return 1;
    }
    while (*static_cast<volatile bool*>(&g_bRunFlag)) {
      usleep(1000);
    }
    return 42;
  });
  char cReady = 0;
  ASSERT_EQ(1, read(aReady[0], &cReady, 1));
  stServer.Kill(SIGUSR1);
  stServer.Kill(SIGUSR2);
  stServer.Kill(SIGTERM);
  EXPECT_EQ(42, stServer.Wait());
  close(aReady[0]);
  close(aReady[1]);
}

// The shell ends first and its output stays open until the handler has taken its status.
TEST_F(ProcessSignalTest, ShellThatTheHandlerReapsGivesTheResult255) {
  signal_init();
  int iError = 0;
  std::vector<std::string> vecLines;
  EXPECT_EQ(255, ExecuteCommand(iError, vecLines,
                                "(while kill -0 $$; do sleep 0.01; done; echo out) 2>&- & exit 3"));
  EXPECT_EQ(255, iError);
  EXPECT_EQ(std::vector<std::string>{"out\n"}, vecLines);
}

}  // namespace
