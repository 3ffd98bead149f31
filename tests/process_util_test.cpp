#include "process_util.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <regex>

#include "test_support.h"

namespace {

const int UNTOUCHED = 4711;
const size_t LINE_SIZE = 2048;
const size_t COMMAND_SIZE = 1024;

// A sleeping process that was started as strName.
std::unique_ptr<ForkedPeer> StartAs(const std::string& strName) {
  auto pPeer = std::make_unique<ForkedPeer>([&] {
    execl("/bin/sleep", strName.c_str(), "1000", static_cast<char*>(nullptr));
    return 127;
  });
  const std::string strFile = "/proc/" + std::to_string(pPeer->Pid()) + "/cmdline";
  EXPECT_TRUE(WaitUntil([&] { return ReadFile(strFile) == strName + '\0' + "1000" + '\0'; }));
  return pPeer;
}

// A name that no other process has: the test programs run side by side.
std::string OwnName(const std::string& strName) {
  return "zelk-" + strName + "-" + std::to_string(getpid());
}

unsigned int PidOf(const ForkedPeer& stPeer) { return static_cast<unsigned int>(stPeer.Pid()); }

TEST(ListProcessesTest, FindsAProcessByTheNameItWasStartedAs) {
  const std::string strName = OwnName("found");
  const auto pPeer = StartAs(strName);
  Process astFound[4];
  ASSERT_EQ(1, ListProcesses(astFound, 4, strName.c_str()));
  EXPECT_EQ(PidOf(*pPeer), astFound[0].iPID);
  EXPECT_EQ(strName, astFound[0].strCMD);
  EXPECT_EQ(0u, astFound[1].iPID);
  EXPECT_EQ("", astFound[1].strCMD);
}

TEST(ListProcessesTest, FilterIsAnExtendedExpressionSearchedAnywhere) {
  const std::string strName = OwnName("regex");
  const auto pPeer = StartAs(strName);
  Process stFound;
  EXPECT_EQ(1, ListProcesses(&stFound, 1,
                             ("^ze(l|x)k-reg+ex-" + std::to_string(getpid()) + "$").c_str()));
  EXPECT_EQ(1, ListProcesses(&stFound, 1, strName.substr(2).c_str()));
  EXPECT_EQ(0, ListProcesses(&stFound, 1, (strName + "x").c_str()));
}

TEST(ListProcessesTest, OnlyTheProgramIsMatchedNotItsArguments) {
  const std::string strName = OwnName("first");
  const auto pPeer = StartAs(strName);
  Process stFound;
  EXPECT_EQ(0, ListProcesses(&stFound, 1, (strName + ".*1000").c_str()));
  ASSERT_EQ(1, ListProcesses(&stFound, 1, (strName + "$").c_str()));
  EXPECT_EQ(strName, stFound.strCMD);
}

TEST(ListProcessesTest, StopsAtMaxInTheOrderOfProc) {
  const std::string strName = OwnName("many");
  std::vector<std::unique_ptr<ForkedPeer>> vecPeers;
  for (int i = 0; i < 3; ++i) {
    vecPeers.push_back(StartAs(strName));
  }
  Process astAll[3];
  ASSERT_EQ(3, ListProcesses(astAll, 3, strName.c_str()));
  Process astTwo[3];
  astTwo[2].strCMD = "untouched";
  ASSERT_EQ(2, ListProcesses(astTwo, 2, strName.c_str()));
  EXPECT_EQ(astAll[0].iPID, astTwo[0].iPID);
  EXPECT_EQ(astAll[1].iPID, astTwo[1].iPID);
  EXPECT_EQ("untouched", astTwo[2].strCMD);
  EXPECT_NE(astAll[0].iPID, astAll[1].iPID);
  EXPECT_NE(astAll[1].iPID, astAll[2].iPID);
}

std::vector<Process> ListAll(const char* pFilter) {
  std::vector<Process> vecFound(100000);
  const int iCount = ListProcesses(vecFound.data(), static_cast<int>(vecFound.size()), pFilter);
  vecFound.resize(static_cast<size_t>(iCount));
  return vecFound;
}

bool Lists(const std::vector<Process>& vecFound, unsigned int iPID) {
  return std::any_of(vecFound.begin(), vecFound.end(),
                     [iPID](const Process& stOne) { return stOne.iPID == iPID; });
}

TEST(ListProcessesTest, NullAndInvalidFiltersLetEveryProcessPass) {
  const auto pPeer = StartAs(OwnName("all"));
  for (const char* pFilter : {static_cast<const char*>(nullptr), "("}) {
    const std::vector<Process> vecFound = ListAll(pFilter);
    EXPECT_TRUE(Lists(vecFound, static_cast<unsigned int>(getpid())));
    EXPECT_TRUE(Lists(vecFound, PidOf(*pPeer)));
  }
}

TEST(ListProcessesTest, EmptyFirstElementIsListedAsEmptyCommand) {
  const auto pPeer = StartAs("");
  const std::vector<Process> vecFound = ListAll("^$");
  EXPECT_TRUE(Lists(vecFound, PidOf(*pPeer)));
  EXPECT_EQ("", vecFound[0].strCMD);
}

TEST(ListProcessesTest, ProcessWithoutCommandLineIsSkipped) {
  const ForkedPeer stZombie([] { return 0; });  // ended but not waited for
  const std::string strDirectory = "/proc/" + std::to_string(stZombie.Pid());
  ASSERT_TRUE(WaitUntil([&] { return ReadFile(strDirectory + "/cmdline").empty(); }));
  EXPECT_FALSE(Lists(ListAll(nullptr), PidOf(stZombie)));
}

TEST(ListProcessesTest, SkippedProcessLeavesTheErrnoOfASecondClose) {
  const ForkedPeer stZombie([] { return 0; });
  EXPECT_TRUE(WaitUntil([] {  // a process that vanishes meanwhile may leave another one
    errno = 0;
    ListAll(nullptr);
    return errno == EBADF;
  }));
}

TEST(ListProcessesTest, NameOf1024BytesIsWholeAndALongerOneIsCutThere) {
  const std::string strStart = OwnName("long");
  for (const size_t iLength :
       {COMMAND_SIZE - 1, COMMAND_SIZE, COMMAND_SIZE + 1, 3 * COMMAND_SIZE}) {
    const std::string strName = strStart + std::string(iLength - strStart.size(), 'x');
    const auto pPeer = StartAs(strName);
    Process stFound;
    ASSERT_EQ(1, ListProcesses(&stFound, 1, strStart.c_str()));
    EXPECT_EQ(strName.substr(0, COMMAND_SIZE), stFound.strCMD);
  }
}

// How often the command line of a process has been opened since the last call.
class OpenWatch {
 public:
  explicit OpenWatch(pid_t iPid) : m_iFD(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    const std::string strFile = "/proc/" + std::to_string(iPid) + "/cmdline";
    EXPECT_NE(-1, inotify_add_watch(m_iFD, strFile.c_str(), IN_OPEN));
  }
  ~OpenWatch() { close(m_iFD); }
  OpenWatch(const OpenWatch&) = delete;
  OpenWatch& operator=(const OpenWatch&) = delete;

  bool WasOpened() const {
    char szEvents[4096];
    return read(m_iFD, szEvents, sizeof(szEvents)) > 0;
  }

 private:
  int m_iFD;
};

TEST(ListProcessesTest, MaxOfZeroOrLessReadsNoCommandLine) {
  const std::string strName = OwnName("watched");
  const auto pPeer = StartAs(strName);
  const OpenWatch stWatch(pPeer->Pid());
  EXPECT_EQ(0, ListProcesses(nullptr, 0, strName.c_str()));
  EXPECT_EQ(0, ListProcesses(nullptr, -1, strName.c_str()));
  EXPECT_FALSE(stWatch.WasOpened());
  Process stFound;
  EXPECT_EQ(1, ListProcesses(&stFound, 1, strName.c_str()));
  EXPECT_TRUE(stWatch.WasOpened());
}

TEST(ListProcessesTest, LeavesNoDescriptorOpen) {
  const int iDescriptors = OpenDescriptors();
  Process stFound;
  ListProcesses(&stFound, 1, "no such program anywhere");
  EXPECT_EQ(iDescriptors, OpenDescriptors());
}

// Runs commands and keeps what came of them.
class ExecuteCommandTest : public ::testing::Test {
 protected:
  int Run(const std::string& strCommand) {
    return ExecuteCommand(m_iError, m_vecLines, "%s", strCommand.c_str());
  }
  int RunWith(const char* pFilter, const std::string& strCommand) {
    return ExecuteCommandWithFilter(m_iError, m_vecLines, pFilter, "%s", strCommand.c_str());
  }
  int RunWithout(const char* pFilter, const std::string& strCommand) {
    return ExecuteCommandWithInvert(m_iError, m_vecLines, pFilter, "%s", strCommand.c_str());
  }

  // A sanitizer's first look at a type needs a pipe of its own.
  void WarmUp() {
    RunWith("x", "true");
    RunWithout("x", "true");
    m_vecLines = {"old"};
  }

  int m_iError = UNTOUCHED;
  std::vector<std::string> m_vecLines{"old"};
};

typedef std::vector<std::string> Lines;

TEST_F(ExecuteCommandTest, LinesKeepTheirNewlines) {
  EXPECT_EQ(0, Run("printf 'a\\n\\nb c\\nlast'"));
  EXPECT_EQ((Lines{"a\n", "\n", "b c\n", "last"}), m_vecLines);
  EXPECT_EQ(UNTOUCHED, m_iError);
}

TEST_F(ExecuteCommandTest, SilentCommandGivesNoLinesAndItsExitCode) {
  EXPECT_EQ(0, Run("true"));
  EXPECT_EQ(Lines{}, m_vecLines);
  EXPECT_EQ(1, Run("false"));
  EXPECT_EQ(Lines{}, m_vecLines);
}

TEST_F(ExecuteCommandTest, ExitCodeIsAlsoTheError) {
  EXPECT_EQ(3, Run("echo x; exit 3"));
  EXPECT_EQ(3, m_iError);
  EXPECT_EQ(Lines{"x\n"}, m_vecLines);
  EXPECT_EQ(255, Run("exit 255"));
  EXPECT_EQ(255, m_iError);
  EXPECT_EQ(0, Run("exit 0"));
  EXPECT_EQ(255, m_iError);
}

TEST_F(ExecuteCommandTest, UnknownCommandIsTheShellsExitCode) {
  EXPECT_EQ(127, Run("/nonexistent/program 2>/dev/null"));
  EXPECT_EQ(127, m_iError);
}

TEST_F(ExecuteCommandTest, ShellKilledByASignalCountsAsSuccess) {
  EXPECT_EQ(0, Run("echo before; kill -9 $$"));
  EXPECT_EQ(UNTOUCHED, m_iError);
  EXPECT_EQ(Lines{"before\n"}, m_vecLines);
}

TEST_F(ExecuteCommandTest, CommandIsMadeFromTheFormat) {
  EXPECT_EQ(7, ExecuteCommand(m_iError, m_vecLines, "echo %d %s %%; exit %u", -5, "text", 7u));
  EXPECT_EQ(Lines{"-5 text %\n"}, m_vecLines);
}

__attribute__((format(printf, 3, 4))) int RunWrapped(int& iError, Lines& vecLines,
                                                     const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  const int iResult = vExecuteCommand(iError, vecLines, pFormat, sAp);
  va_end(sAp);
  return iResult;
}

TEST_F(ExecuteCommandTest, OwnVariadicFunctionsPassTheirArgumentsOn) {
  EXPECT_EQ(9, RunWrapped(m_iError, m_vecLines, "echo %s; exit %d", "wrapped", 9));
  EXPECT_EQ(Lines{"wrapped\n"}, m_vecLines);
  EXPECT_EQ(9, m_iError);
}

TEST_F(ExecuteCommandTest, FormatMayReadTheOldLines) {
  EXPECT_EQ(0, ExecuteCommand(m_iError, m_vecLines, "echo %s", m_vecLines[0].c_str()));
  EXPECT_EQ(Lines{"old\n"}, m_vecLines);
}

TEST_F(ExecuteCommandTest, CommandIsCutAfter1023Bytes) {
  const std::string strEcho = "echo ";
  const std::string strFits(COMMAND_SIZE - 1 - strEcho.size(), 'x');
  EXPECT_EQ(0, Run(strEcho + strFits));
  EXPECT_EQ(Lines{strFits + "\n"}, m_vecLines);
  EXPECT_EQ(0, Run(strEcho + strFits + "y; exit 9"));
  EXPECT_EQ(Lines{strFits + "\n"}, m_vecLines);
}

TEST_F(ExecuteCommandTest, LineLongerThanTheBufferArrivesInPieces) {
  EXPECT_EQ(0, Run("head -c 5000 /dev/zero | tr '\\0' x; echo; echo end"));
  const std::string strPiece(LINE_SIZE - 1, 'x');
  EXPECT_EQ(
      (Lines{strPiece, strPiece, std::string(5000 - 2 * strPiece.size(), 'x') + "\n", "end\n"}),
      m_vecLines);
}

TEST_F(ExecuteCommandTest, LineThatFillsTheBufferLeavesItsNewlineAlone) {
  EXPECT_EQ(0, Run("head -c 2047 /dev/zero | tr '\\0' x; echo"));
  EXPECT_EQ((Lines{std::string(LINE_SIZE - 1, 'x'), "\n"}), m_vecLines);
  EXPECT_EQ(0, Run("head -c 2046 /dev/zero | tr '\\0' x; echo"));
  EXPECT_EQ(Lines{std::string(LINE_SIZE - 2, 'x') + "\n"}, m_vecLines);
}

TEST_F(ExecuteCommandTest, OutputLargerThanAPipeIsCollectedWhole) {
  EXPECT_EQ(5, Run("i=0; while [ $i -lt 20000 ]; do echo line $i; i=$((i+1)); done; exit 5"));
  ASSERT_EQ(20000u, m_vecLines.size());
  EXPECT_EQ("line 0\n", m_vecLines.front());
  EXPECT_EQ("line 19999\n", m_vecLines.back());
}

TEST_F(ExecuteCommandTest, StandardErrorIsNotCollected) {
  const std::string strText =
      CaptureOutput(2, [this] { EXPECT_EQ(0, Run("echo no >&2; echo yes")); });
  EXPECT_EQ("no\n", strText);
  EXPECT_EQ(Lines{"yes\n"}, m_vecLines);
}

TEST_F(ExecuteCommandTest, LeavesNeitherDescriptorNorChild) {
  const int iDescriptors = OpenDescriptors();
  Run("echo x");
  EXPECT_EQ(iDescriptors, OpenDescriptors());
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
}

// Takes away the descriptors that a pipe needs, for the life of the object.
class NoDescriptors {
 public:
  NoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &m_stSaved);
    rlimit stNone = m_stSaved;
    stNone.rlim_cur = 3;
    setrlimit(RLIMIT_NOFILE, &stNone);
  }
  ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &m_stSaved); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  rlimit m_stSaved{};
};

TEST_F(ExecuteCommandTest, CommandThatCanNotStartLeavesTheLinesAndGivesErrno) {
  WarmUp();
  const NoDescriptors stNone;
  EXPECT_EQ(-1, Run("echo x"));
  EXPECT_EQ(EMFILE, m_iError);
  EXPECT_EQ(Lines{"old"}, m_vecLines);
}

TEST_F(ExecuteCommandTest, FilterFormsEmptyTheLinesAlsoWithoutAStart) {
  WarmUp();
  const NoDescriptors stNone;
  EXPECT_EQ(-1, RunWith("x", "echo x"));
  EXPECT_EQ(EMFILE, m_iError);
  EXPECT_EQ(Lines{}, m_vecLines);
  m_vecLines = {"old"};
  m_iError = UNTOUCHED;
  EXPECT_EQ(-1, RunWithout("x", "echo x"));
  EXPECT_EQ(EMFILE, m_iError);
  EXPECT_EQ(Lines{}, m_vecLines);
}

TEST_F(ExecuteCommandTest, FilterKeepsMatchingLinesInOrder) {
  EXPECT_EQ(4, RunWith("^[ab]", "printf 'a1\\nc\\nb\\na2'; exit 4"));
  EXPECT_EQ((Lines{"a1\n", "b\n", "a2"}), m_vecLines);
  EXPECT_EQ(4, m_iError);
}

TEST_F(ExecuteCommandTest, InvertKeepsTheOtherLinesInOrder) {
  EXPECT_EQ(4, RunWithout("^[ab]", "printf 'a1\\nc\\nb\\nd'; exit 4"));
  EXPECT_EQ((Lines{"c\n", "d"}), m_vecLines);
  EXPECT_EQ(4, m_iError);
}

TEST_F(ExecuteCommandTest, EndOfLineAnchorDoesNotMatchBeforeTheNewline) {
  RunWith("^abc$", "printf 'abc\\nabc'");
  EXPECT_EQ(Lines{"abc"}, m_vecLines);
  RunWithout("^abc$", "printf 'abc\\nabc'");
  EXPECT_EQ(Lines{"abc\n"}, m_vecLines);
}

TEST_F(ExecuteCommandTest, InvalidFilterGivesNoLinesButTheResult) {
  EXPECT_EQ(6, RunWith("(", "echo x; exit 6"));
  EXPECT_EQ(6, m_iError);
  EXPECT_EQ(Lines{}, m_vecLines);
  m_vecLines = {"old"};
  EXPECT_EQ(0, RunWithout("(", "echo x"));
  EXPECT_EQ(Lines{}, m_vecLines);
}

TEST_F(ExecuteCommandTest, NullFilterMatchesEveryLine) {
  RunWith(nullptr, "echo x");
  EXPECT_EQ(Lines{"x\n"}, m_vecLines);
  RunWithout(nullptr, "echo x");
  EXPECT_EQ(Lines{}, m_vecLines);
}

}  // namespace
