#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>

#include "class_factory.h"
#include "execute_shell.h"
#include "execute_shell2.h"
#include "test_support.h"

namespace {

int RunShell(const std::string& strCommand) {
  ExecuteShell stShell;
  stShell.Command(strCommand);
  return stShell.Do();
}

// A carrier that has been told to run a request for "ExecuteShell2".
void ExecuteRequest(LongActionMethod& stCarrier, const LongActionMethod& stParams) {
  const std::string strBytes = stParams.SerializeRequest();
  stCarrier.Execute(strBytes.data(), static_cast<unsigned int>(strBytes.size()));
}

TEST(ExecuteShellTest, CommandIsAField) {
  ExecuteShell stShell;
  EXPECT_EQ("", stShell.Command());
  stShell.Command("true");
  EXPECT_EQ("true", stShell.Command());
  EXPECT_EQ("", stShell.Param("command", 0));
}

TEST(ExecuteShellTest, ResultIsTheExitCode) {
  EXPECT_EQ(0, RunShell("exit 0"));
  EXPECT_EQ(3, RunShell("exit 3"));
  EXPECT_EQ(255, RunShell("exit 255"));
  EXPECT_EQ(127, RunShell("/nonexistent/command 2>/dev/null"));
}

TEST(ExecuteShellTest, EmptyCommandIsASuccess) { EXPECT_EQ(0, RunShell("")); }

TEST(ExecuteShellTest, ShellEndedByASignalGivesZero) { EXPECT_EQ(0, RunShell("kill -9 $$")); }

TEST(ExecuteShellTest, FailureOfSystemGives255) {
  ForkedPeer stPeer([] {
    signal(SIGCHLD, SIG_IGN);  // the end of the shell can not be waited for
    return RunShell("exit 0");
  });
  EXPECT_EQ(255, stPeer.Wait());
}

TEST(ExecuteShellTest, CommandRunsThroughTheShellOnOurDescriptors) {
  const std::string strOut = CaptureOutput(1, [] { RunShell("x=5; echo $((x + 1)) | cat"); });
  EXPECT_EQ("6\n", strOut);
  EXPECT_EQ("e\n", CaptureOutput(2, [] { RunShell("echo e >&2"); }));
}

TEST(ExecuteShellTest, CommandHasOurEnvironment) {
  setenv("ZELK_TEST_SHELL", "from the host", 1);
  EXPECT_EQ("from the host",
            CaptureOutput(1, [] { RunShell("printf '%s' \"$ZELK_TEST_SHELL\""); }));
  unsetenv("ZELK_TEST_SHELL");
}

TEST(ExecuteShellTest, IsNotRegistered) {
  EXPECT_EQ(0u, ClassFactory::Instance().ObjectMap().count("ExecuteShell"));
}

TEST(ExecuteShellTest, DumpsWriteNothing) {
  ExecuteShell stShell;
  ExecuteShell2 stShell2;
  EXPECT_EQ("", CaptureDescriptor([&](int iFD) { stShell.Dump(iFD); }));
  EXPECT_EQ("", CaptureDescriptor([&](int iFD) { stShell2.Dump(iFD); }));
}

TEST(ExecuteShell2Test, LoadingTheLibraryRegistersIt) {
  EXPECT_EQ(1u, ClassFactory::Instance().ObjectMap().count("ExecuteShell2"));
}

TEST(ExecuteShell2Test, ObjectFromTheFactoryHasItsName) {
  const std::unique_ptr<Object> pObject(ClassFactory::Instance().NewObject("ExecuteShell2"));
  const auto* pShell = dynamic_cast<ExecuteShell2*>(pObject.get());
  ASSERT_NE(nullptr, pShell);
  EXPECT_EQ("ExecuteShell2", pShell->Method());
  EXPECT_EQ("", ExecuteShell2().Method());
}

TEST(ExecuteShell2Test, RequestIsRunThroughExecute) {
  LongActionMethod stRequest;
  stRequest.Method("ExecuteShell2");
  stRequest.Param("command", "exit 3");
  LongActionMethod stCarrier;
  ExecuteRequest(stCarrier, stRequest);
  EXPECT_EQ(3, stCarrier.Retcode());
}

TEST(ExecuteShell2Test, RequestWithoutCommandRunsAnEmptyOne) {
  LongActionMethod stRequest;
  stRequest.Method("ExecuteShell2");
  LongActionMethod stCarrier;
  ExecuteRequest(stCarrier, stRequest);
  EXPECT_EQ(0, stCarrier.Retcode());
}

TEST(ExecuteShell2Test, OnlyTheFirstCommandIsRun) {
  LongActionMethod stRequest;
  stRequest.Method("ExecuteShell2");
  stRequest.Param("command", "echo z; exit 4");
  stRequest.Param("command", "echo a; exit 5");
  LongActionMethod stCarrier;
  EXPECT_EQ("z\n", CaptureOutput(1, [&] { ExecuteRequest(stCarrier, stRequest); }));
  EXPECT_EQ(4, stCarrier.Retcode());
}

TEST(ExecuteShell2Test, CommandComesFromTheRoot) {
  LongActionMethod stRoot;
  LongActionMethod stMiddle;
  ExecuteShell2 stShell;
  stShell.Command("exit 1");
  stMiddle.Param("command", "exit 2");
  stRoot.Param("command", "exit 3");
  EXPECT_EQ(1, stShell.Do());
  stShell.Parent(&stMiddle);
  EXPECT_EQ(2, stShell.Do());
  stMiddle.Parent(&stRoot);
  EXPECT_EQ(3, stShell.Do());
  EXPECT_EQ("exit 3", stShell.Command());
}

TEST(ExecuteShell2Test, CommandIsTheParameterAndReplacesEarlierOnes) {
  ExecuteShell2 stShell;
  EXPECT_EQ("", stShell.Command());
  stShell.Command("exit 1");
  stShell.Param("command", "exit 2");
  stShell.Command("exit 6");
  EXPECT_EQ("exit 6", stShell.Command());
  EXPECT_EQ("exit 6", stShell.Param("command", 0));
  EXPECT_EQ("", stShell.Param("command", 1));
  EXPECT_EQ(6, stShell.Do());
}

TEST(ExecuteShell2Test, ResultsFollowTheSameRulesAsExecuteShell) {
  ExecuteShell2 stShell;
  stShell.Command("kill -9 $$");
  EXPECT_EQ(0, stShell.Do());
}

}  // namespace
