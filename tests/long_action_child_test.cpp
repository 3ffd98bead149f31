// What the child of a long action is, and what it shares with the host.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "execute_shell.h"
#include "execute_shell2.h"
#include "long_action_fixture.h"

namespace {

class LongActionChildTest : public LongActionFixture {};

int64_t Nanoseconds() {
  timespec stNow;
  clock_gettime(CLOCK_MONOTONIC, &stNow);
  return stNow.tv_sec * 1000000000LL + stNow.tv_nsec;
}

TEST_F(LongActionChildTest, OutputBeyondThePipesBufferArrivesWhole) {
  const std::string strOut(1000000, 'o');
  const std::string strError(300001, 'e');
  const Response_t pResponse = Run([&] {
    WriteText(1, strOut);
    WriteText(2, strError);
    return 4;
  });
  EXPECT_TRUE(strOut == pResponse->strStdOut);
  EXPECT_TRUE(strError == pResponse->strStdError);
  EXPECT_EQ(4, pResponse->iRetcode);
}

TEST_F(LongActionChildTest, WorkStartsAfterTwentyMilliseconds) {
  const int64_t iStart = Nanoseconds();
  const Response_t pResponse = Run([&] {
    WriteText(1, std::to_string(Nanoseconds() - iStart));
    return 0;
  });
  EXPECT_GE(std::stoll(pResponse->strStdOut), 20000000);
}

TEST_F(LongActionChildTest, HandlingOfSigchldIsTheDefaultAndOtherSignalsAreTheHosts) {
  signal(SIGUSR1, SIG_IGN);
  signal(SIGCHLD, [](int) {});
  const Response_t pResponse = Run([] {
    const bool bDefault = signal(SIGCHLD, SIG_IGN) == SIG_DFL;
    const bool bIgnored = signal(SIGUSR1, SIG_DFL) == SIG_IGN;
    return (bDefault ? 1 : 0) + (bIgnored ? 2 : 0);
  });
  signal(SIGCHLD, SIG_DFL);
  signal(SIGUSR1, SIG_DFL);
  EXPECT_EQ(3, pResponse->iRetcode);
}

TEST_F(LongActionChildTest, EndsByExitWhichFlushesItsOutput) {
  EXPECT_EQ("buffered", Run([] {
                          printf("buffered");
                          return 0;
                        })->strStdOut);
}

TEST_F(LongActionChildTest, RunsTheExitFunctionsOfTheHost) {
  EXPECT_EQ("at exit", Run([] {
                         atexit([] { WriteText(1, "at exit"); });
                         return 0;
                       })->strStdOut);
}

// Deliberate: hosts flush before they start a child.
TEST_F(LongActionChildTest, BufferedOutputOfTheHostIsPrintedByTheChildToo) {
  Work stWork([] { return 0; });
  fflush(stdout);
  const std::string strHost = CaptureOutput(1, [&] {
    printf("of the host");
    EXPECT_EQ(0, m_stUtil.Perform(&stWork, 0, 0));
  });
  const pid_t iPid = m_stUtil.EnumAllChildren().at(0);
  EXPECT_EQ("of the host", Finish(iPid)->strStdOut);
  EXPECT_EQ("of the host", strHost);
}

// Deliberate: what the host has open stays open in the child.
TEST_F(LongActionChildTest, HasEveryDescriptorOfTheHost) {
  int arrPipe[2];
  ASSERT_EQ(0, pipe2(arrPipe, O_CLOEXEC));
  const int iOpen = OpenDescriptors();
  EXPECT_EQ(iOpen + 4, std::stoi(Run([&] {
                                   WriteText(arrPipe[1], "x");
                                   WriteText(1, std::to_string(OpenDescriptors()));
                                   return 0;
                                 })->strStdOut));
  char cByte = '\0';
  EXPECT_EQ(1, read(arrPipe[0], &cByte, 1));
  close(arrPipe[0]);
  close(arrPipe[1]);
}

TEST_F(LongActionChildTest, WorksOnACopyOfTheMethodWhichMayBeGone) {
  int iRuns = 0;
  EXPECT_EQ(1, Run([&iRuns] { return ++iRuns; })->iRetcode);  // Start() has destroyed the method
  EXPECT_EQ(0, iRuns);
}

TEST_F(LongActionChildTest, ExceptionEndsTheChildAndNeverReachesTheHostsCode) {
  int arrPipe[2];
  ASSERT_EQ(0, pipe2(arrPipe, O_CLOEXEC | O_NONBLOCK));
  Work stWork([]() -> int { throw std::runtime_error("of the work"); });
  const pid_t iHost = getpid();
  try {
    ASSERT_EQ(0, m_stUtil.Perform(&stWork, 0, 0));
  } catch (...) {
    WriteText(arrPipe[1], "x");
  }
  if (getpid() != iHost) {
    _exit(0);
  }
  int iStatus = 0;
  const pid_t iPid = m_stUtil.EnumAllChildren().at(0);
  ASSERT_EQ(iPid, waitpid(iPid, &iStatus, 0));
  EXPECT_TRUE(WIFSIGNALED(iStatus));
  Drain();
  const Response_t pResponse = Exit(iPid, 0);
  ASSERT_NE(nullptr, pResponse);
  EXPECT_NE(std::string::npos, pResponse->strStdError.find("of the work"));
  char cByte = '\0';
  EXPECT_EQ(-1, read(arrPipe[0], &cByte, 1));
  close(arrPipe[0]);
  close(arrPipe[1]);
}

TEST_F(LongActionChildTest, ResultsTravelAsTextOnStandardOutput) {
  struct Count : LongActionMethod {
    int Do() override {
      ResultParam("twice", std::to_string(2 * std::stoi(Param("number", 0))));
      ResultParam("bytes", std::string("\0\xff", 2));
      EncodeToStdout(SerializeResult());
      return 0;
    }
  } stCount;
  stCount.Param("number", "21");
  ASSERT_EQ(0, m_stUtil.Perform(&stCount, 0, 0));
  const Response_t pResponse = Finish(m_stUtil.EnumAllChildren().at(0));
  const std::string strBytes = LongActionMethod::Decode(pResponse->strStdOut);
  LongActionMethod stResult;
  ASSERT_TRUE(stResult.ParseResult(strBytes.data(), static_cast<unsigned int>(strBytes.size())));
  EXPECT_EQ("42", stResult.Param("twice", 0));
  EXPECT_EQ(std::string("\0\xff", 2), stResult.Param("bytes", 0));
}

TEST_F(LongActionChildTest, ShellCommandsPrintIntoTheResponse) {
  ExecuteShell stShell;
  stShell.Command("echo out; echo err >&2; exit 3");
  ASSERT_EQ(0, m_stUtil.Perform(&stShell, 0, 0));
  const Response_t pResponse = Finish(m_stUtil.EnumAllChildren().at(0));
  EXPECT_EQ("out\n", pResponse->strStdOut);
  EXPECT_EQ("err\n", pResponse->strStdError);
  EXPECT_EQ(3, pResponse->iRetcode);
}

TEST_F(LongActionChildTest, ShellCommandsHaveItsPipesAsStandardDescriptorsOnly) {
  ExecuteShell stShell;
  stShell.Command(
      "out=$(stat -Lc %i /proc/$$/fd/1);"
      "err=$(stat -Lc %i /proc/$$/fd/2);"
      "for fd in /proc/$$/fd/*; do case $(stat -Lc %i $fd) in $out|$err) echo ${fd##*/};; esac; "
      "done");
  ASSERT_EQ(0, m_stUtil.Perform(&stShell, 0, 0));
  EXPECT_EQ("1\n2\n", Finish(m_stUtil.EnumAllChildren().at(0))->strStdOut);
}

// Its first pipe gets the numbers 0 and 1.
TEST_F(LongActionChildTest, ShellCommandsPrintAlsoForAHostThatHasClosedItsOwnOutput) {
  ForkedPeer stPeer([this] {
    ExecuteShell stShell;
    stShell.Command("echo out; echo err >&2");
    close(0);
    close(1);
    if (m_stUtil.Perform(&stShell, 0, 0) != 0) {
      return 1;
    }
    const Response_t pResponse = Finish(m_stUtil.EnumAllChildren().at(0));
    return pResponse->strStdOut == "out\n" && pResponse->strStdError == "err\n" ? 0 : 2;
  });
  EXPECT_EQ(0, stPeer.Wait());
}

TEST_F(LongActionChildTest, ShellCommandIsWaitedForInAHostThatIgnoresSigchld) {
  int arrGo[2];
  ASSERT_EQ(0, pipe2(arrGo, O_CLOEXEC));
  signal(SIGCHLD, SIG_IGN);
  const pid_t iPid = Start([&] {
    char cByte = '\0';
    const ssize_t iCount = read(arrGo[0], &cByte, 1);
    ExecuteShell2 stShell;
    stShell.Command("exit 5");
    return iCount == 1 ? stShell.Do() : 1;
  });
  signal(SIGCHLD, SIG_DFL);  // nobody could reap the child itself
  WriteText(arrGo[1], "x");
  EXPECT_EQ(5, Finish(iPid)->iRetcode);
  close(arrGo[0]);
  close(arrGo[1]);
}

}  // namespace
