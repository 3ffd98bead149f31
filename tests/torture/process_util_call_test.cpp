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

TEST(ListProcessesCallTest, SkipsWhatItCanNotReadAndFindsTheRest) {
  const std::string strProgram = ReadFile("/proc/self/cmdline").c_str();
  FailEachCall(
      [&](Attempt& stAttempt) {
        Process astFound[64];
        const int iFound =
            stAttempt.Run([&] { return ListProcesses(astFound, 64, strProgram.c_str()); });
        EXPECT_TRUE(iFound > 0 || stAttempt.Fails());
        for (int i = 0; i < iFound; ++i) {
          EXPECT_EQ(strProgram, astFound[i].strCMD);
        }
      },
      2);
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
