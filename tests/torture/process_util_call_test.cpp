// Commands and the list of processes while each of their system calls fails in turn.

#include "process_util.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "execute_shell.h"
#include "execute_shell2.h"
#include "failing_call.h"
#include "test_support.h"

namespace {

typedef std::vector<std::string> Lines_t;

const int UNTOUCHED = 4711;
const char COMMAND[] = "printf 'one\\ntwo\\n'; exit 3";  // one write()

// Closing a pipe does not fail.
const std::vector<kind_t> IMPOSSIBLE{{"close"}};

// What hinders popen(), in the new process too until it is the shell: -1 then.
bool HindersTheStart(const Attempt& stAttempt) {
  return stAttempt.FailsIn({{"pipe2"}, {"clone3", EAGAIN}, {"clone3", ENOMEM}}) ||
         (stAttempt.InChild() && stAttempt.Failure().strCall != "close");
}

TEST(ExecuteCommandCallTest, GivesAllLinesAndTheCodeOrTellsTheErrnoOfTheStart) {
  const auto fnAttempt = [](Attempt& stAttempt) {
    int iError = UNTOUCHED;
    Lines_t vecLines{"before"};
    const int iResult = stAttempt.Run([&] { return ExecuteCommand(iError, vecLines, COMMAND); });
    if (HindersTheStart(stAttempt)) {
      EXPECT_EQ(-1, iResult);
      EXPECT_EQ(stAttempt.Errno(), iError);
      EXPECT_EQ(Lines_t{"before"}, vecLines);
      return;
    }
    // A pipe that can not be read is closed, which may end the shell; somebody may have its code.
    const bool bUnread = stAttempt.FailsIn({{"read"}}) && stAttempt.Failure().iShorter == 0;
    const int iCode = stAttempt.FailsIn({{"wait4", ECHILD}}) ? 255 : 3;
    EXPECT_TRUE(iResult == iCode || (bUnread && iResult == 0)) << iResult;
    EXPECT_EQ(iResult == 0 ? UNTOUCHED : iResult, iError);
    EXPECT_TRUE(bUnread || vecLines == (Lines_t{"one\n", "two\n"}));
    EXPECT_TRUE(vecLines.empty() || vecLines[0] == "one\n");
  };
  FailEachCall(fnAttempt, 1000, IMPOSSIBLE);
}

TEST(ExecuteCommandCallTest, FilterSeesTheSame) {
  const auto fnAttempt = [](Attempt& stAttempt) {
    int iError = UNTOUCHED;
    Lines_t vecLines{"before"};
    const int iResult =
        stAttempt.Run([&] { return ExecuteCommandWithFilter(iError, vecLines, "w", COMMAND); });
    EXPECT_EQ(HindersTheStart(stAttempt), iResult == -1);
    EXPECT_TRUE(vecLines.empty() || vecLines == Lines_t{"two\n"});
    EXPECT_TRUE(stAttempt.FailsIn({{"read"}}) || (iResult == -1) == vecLines.empty());
  };
  FailEachCall(fnAttempt, 1000, IMPOSSIBLE);
}

template <class Shell_t>
void ExpectCodeOr255() {
  FailEachCall([](Attempt& stAttempt) {
    Shell_t stShell;
    stShell.Command("exit 3");
    const int iResult = stAttempt.Run([&] { return stShell.Do(); });
    const bool bNoShell = stAttempt.FailsIn({{"clone3", EAGAIN}, {"clone3", ENOMEM}}) ||
                          (stAttempt.InChild() && stAttempt.Failure().strCall == "execve");
    EXPECT_EQ(stAttempt.FailsIn({{"wait4", ECHILD}}) ? 255 : bNoShell ? 127 : 3, iResult);
    EXPECT_EQ(3, stShell.Do());
  });
}

TEST(ExecuteShellCallTest, GivesTheCodeOr127WithoutAShellOr255WithoutItsCode) {
  ExpectCodeOr255<ExecuteShell>();
}

TEST(ExecuteShellCallTest, SecondFormDoesTheSame) { ExpectCodeOr255<ExecuteShell2>(); }

// The first in /proc has to do, for how many there are is not the test's affair.
TEST(ListProcessesCallTest, SkipsWhatItCanNotRead) {
  Process stFirst;
  ASSERT_EQ(1, ListProcesses(&stFirst, 1, nullptr));
  FailEachCall([&](Attempt& stAttempt) {
    Process stFound;
    const int iFound = stAttempt.Run([&] { return ListProcesses(&stFound, 1, nullptr); });
    const bool bNone =
        stAttempt.FailsIn({{"openat", -1, 1}, {"newfstatat"}, {"getdents64", -1, 1}});
    const bool bSkipped =
        stAttempt.FailsIn({{"openat", -1, 2}, {"read"}}) && stAttempt.Failure().iShorter == 0;
    EXPECT_EQ(bNone ? 0 : 1, iFound);
    EXPECT_EQ(!bNone && !bSkipped, stFound.iPID == stFirst.iPID);
  });
}

TEST(SignalHandleCallTest, ReapsEachChildOrLeavesItAndKeepsErrno) {
  FailEachCall([](Attempt& stAttempt) {
    const pid_t iChild = fork();
    if (iChild == 0) {
      _exit(0);
    }
    siginfo_t stInfo{};
    EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(iChild), &stInfo, WEXITED | WNOWAIT));
    stAttempt.Run([&] {
      errno = EDOM;
      signal_handle(SIGCHLD);
    });
    EXPECT_EQ(EDOM, stAttempt.Errno());
    signal_handle(SIGCHLD);
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
  });
}

}  // namespace
