#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <vector>

#include "process_util.h"
#include "test_support.h"

namespace {

// The bytes of strings, each with its terminator.
std::string Join(const std::vector<std::string>& vecTexts) {
  std::string strArea;
  for (const std::string& strText : vecTexts) {
    strArea += strText + '\0';
  }
  return strArea;
}

// Arguments and environment as the system lays them out at program start, with a guard behind
// them; the environment of the test program is put back at the end.
class ProgramArea {
 public:
  ProgramArea(const std::vector<std::string>& vecArgs, const std::vector<std::string>& vecEnviron)
      : m_strArea(Join(vecArgs) + Join(vecEnviron)),
        m_iSize(m_strArea.size()),
        m_iArgc(static_cast<int>(vecArgs.size())),
        m_pSaved(environ) {
    m_strArea += GUARD;
    char* pText = m_strArea.data();
    for (size_t i = 0; i < vecArgs.size() + vecEnviron.size(); ++i) {
      (i < vecArgs.size() ? m_vecArgv : m_vecEnviron).push_back(pText);
      pText += strlen(pText) + 1;
    }
    m_vecArgv.push_back(nullptr);
    m_vecEnviron.push_back(nullptr);
    environ = m_vecEnviron.data();
    InitProcessTitle(m_iArgc, Argv());
    Blocks().push_back(m_vecEnviron[0]);
  }
  ~ProgramArea() { environ = m_pSaved; }
  ProgramArea(const ProgramArea&) = delete;
  ProgramArea& operator=(const ProgramArea&) = delete;

  void Change(const std::string& strTitle) {
    ChangeProcessTitle(m_iArgc, Argv(), strTitle.c_str());
  }
  char** Argv() { return m_vecArgv.data(); }
  const char* Arg(size_t i) const { return m_vecArgv[i]; }
  const char* Environ(size_t i) const { return m_vecEnviron[i]; }
  size_t Size() const { return m_iSize; }
  std::string Bytes() const { return m_strArea.substr(0, m_iSize); }
  bool Holds(const char* pText) const {
    return pText >= m_strArea.data() && pText < m_strArea.data() + m_strArea.size();
  }
  bool GuardIsWhole() const { return m_strArea.substr(m_iSize) == GUARD; }

 private:
  static constexpr const char* GUARD = "guard behind the area";
  // The copies, which are never freed.
  static std::vector<char*>& Blocks() {
    static auto* s_pBlocks = new std::vector<char*>;
    return *s_pBlocks;
  }

  std::string m_strArea;
  size_t m_iSize;
  int m_iArgc;
  char** m_pSaved;
  std::vector<char*> m_vecArgv;
  std::vector<char*> m_vecEnviron;
};

TEST(ProcessTitleTest, InitMovesTheEnvironmentAndLeavesTheArea) {
  const ProgramArea stArea({"prog", "a"}, {"X=1", "LONG=value of X", "E="});
  EXPECT_EQ(Join({"prog", "a", "X=1", "LONG=value of X", "E="}), stArea.Bytes());
  EXPECT_STREQ("X=1", stArea.Environ(0));
  EXPECT_STREQ("LONG=value of X", stArea.Environ(1));
  EXPECT_STREQ("E=", stArea.Environ(2));
  EXPECT_EQ(nullptr, stArea.Environ(3));
  EXPECT_FALSE(stArea.Holds(stArea.Environ(0)));
  EXPECT_STREQ("value of X", getenv("LONG"));
}

TEST(ProcessTitleTest, InitPutsTheEnvironmentIntoOneBlock) {
  const ProgramArea stArea({"prog"}, {"A=1", "BC=23"});
  EXPECT_EQ(stArea.Environ(0) + sizeof("A=1"), stArea.Environ(1));
}

TEST(ProcessTitleTest, EnvironmentSurvivesATitleOverItsOldPlace) {
  ProgramArea stArea({"prog"}, {"KEPT=yes", "ALSO=kept"});
  stArea.Change(std::string(100, 't'));
  EXPECT_STREQ("yes", getenv("KEPT"));
  EXPECT_STREQ("kept", getenv("ALSO"));
}

TEST(ProcessTitleTest, TitleOfTheSameLengthChangesOnlyArgv0) {
  ProgramArea stArea({"prog", "one", "two"}, {"X=1"});
  stArea.Change("next");
  EXPECT_EQ(Join({"next", "one", "two", "X=1"}), stArea.Bytes());
  EXPECT_STREQ("one", stArea.Arg(1));
}

TEST(ProcessTitleTest, LongerTitleMovesTheArgumentsAndTheirPointers) {
  ProgramArea stArea({"prog", "one", "", "four"}, {"X=12345678"});
  stArea.Change("program 7");
  EXPECT_EQ(Join({"program 7", "one", "", "four", "45678"}), stArea.Bytes());
  EXPECT_STREQ("one", stArea.Arg(1));
  EXPECT_STREQ("", stArea.Arg(2));
  EXPECT_STREQ("four", stArea.Arg(3));
  EXPECT_EQ(stArea.Arg(0) + sizeof("program 7"), stArea.Arg(1));
}

TEST(ProcessTitleTest, ShorterTitleLeavesTheBytesBehindTheArguments) {
  ProgramArea stArea({"program", "one", "two"}, {"X=1"});
  stArea.Change("p");
  EXPECT_EQ(Join({"p", "one", "two", "e", "two", "X=1"}), stArea.Bytes());
  EXPECT_STREQ("two", stArea.Arg(2));
}

TEST(ProcessTitleTest, TitleThatJustFitsIsWhole) {
  ProgramArea stArea({"prog", "one", "two"}, {"X=1"});
  const std::string strTitle(stArea.Size() - sizeof("one") - sizeof("two") - 1, 't');
  stArea.Change(strTitle);
  EXPECT_EQ(Join({strTitle, "one", "two"}), stArea.Bytes());
  EXPECT_TRUE(stArea.GuardIsWhole());
}

TEST(ProcessTitleTest, TooLongTitleIsCutSoThatAllFillsTheAreaExactly) {
  ProgramArea stArea({"prog", "one", "two"}, {"X=1"});
  const size_t iRoom = stArea.Size() - sizeof("one") - sizeof("two") - 1;
  stArea.Change(std::string(iRoom, 't') + "u");
  EXPECT_EQ(Join({std::string(iRoom, 't'), "one", "two"}), stArea.Bytes());
  EXPECT_STREQ("one", stArea.Arg(1));
  EXPECT_STREQ("two", stArea.Arg(2));
  EXPECT_TRUE(stArea.GuardIsWhole());
}

TEST(ProcessTitleTest, WithoutOtherArgumentsTheTitleMayUseTheWholeArea) {
  ProgramArea stArea({"prog"}, {"X=1", "Y=2"});
  stArea.Change(std::string(stArea.Size() + 5, 't'));
  EXPECT_EQ(Join({std::string(stArea.Size() - 1, 't')}), stArea.Bytes());
  EXPECT_TRUE(stArea.GuardIsWhole());
}

TEST(ProcessTitleTest, WithoutEnvironmentTheRoomIsThatOfArgv0) {
  ProgramArea stArea({"prog", "one"}, {});
  stArea.Change("longer than prog");
  EXPECT_EQ(Join({"long", "one"}), stArea.Bytes());
  EXPECT_TRUE(stArea.GuardIsWhole());
}

TEST(ProcessTitleTest, EmptyTitleIsOneTerminator) {
  ProgramArea stArea({"prog", "one"}, {});
  stArea.Change("");
  EXPECT_STREQ("", stArea.Arg(0));
  EXPECT_EQ(stArea.Arg(0) + 1, stArea.Arg(1));
  EXPECT_STREQ("one", stArea.Arg(1));
}

TEST(ProcessTitleTest, ArgumentsSurviveManyTitlesOfAllLengths) {
  ProgramArea stArea({"prog", "first argument", "2"}, {"PATH=/bin", "X=1"});
  for (const unsigned int iLength : {3u, 200u, 0u, 17u, 40u, 1u, 200u, 5u}) {
    stArea.Change(std::string(iLength, 't'));
    EXPECT_STREQ("first argument", stArea.Arg(1)) << iLength;
    EXPECT_STREQ("2", stArea.Arg(2)) << iLength;
  }
  EXPECT_STREQ("ttttt", stArea.Arg(0));
  EXPECT_TRUE(stArea.GuardIsWhole());
}

TEST(ProcessTitleTest, TitleIsNoFormat) {
  ProgramArea stArea({"prog"}, {"X=a long enough value"});
  stArea.Change("100% %s %n %d");
  EXPECT_STREQ("100% %s %n %d", stArea.Arg(0));
}

TEST(ProcessTitleTest, ClearedEnvironmentIsNoEnvironment) {
  char szName[] = "prog";
  char* apArgv[] = {szName, nullptr};
  char** pSaved = environ;
  environ = nullptr;  // what clearenv() leaves
  InitProcessTitle(1, apArgv);
  environ = pSaved;
  ChangeProcessTitle(1, apArgv, "longer");
  EXPECT_STREQ("long", szName);
}

TEST(ProcessTitleDeathTest, ChangeBeforeInitIsAFailedAssertion) {
  char szName[] = "prog";
  char* apArgv[] = {szName, nullptr};
  EXPECT_EXIT(ChangeProcessTitle(1, apArgv, "x"), ::testing::KilledBySignal(SIGABRT),
              "process_util\\.cpp.*Assertion `pLastOfEnviron' failed");
}

// title_program as a process of its own, with exactly these arguments and environment.
class TitleProgram {
 public:
  TitleProgram(std::vector<std::string> vecArgs, std::vector<std::string> vecEnviron) {
    int aIn[2];
    int aOut[2];
    if (pipe(aIn) != 0 || pipe(aOut) != 0) {
      throw std::runtime_error("pipe");
    }
    m_pProcess = std::make_unique<ForkedPeer>([&] {
      dup2(aIn[0], STDIN_FILENO);
      dup2(aOut[1], STDOUT_FILENO);
      for (const int iFD : {aIn[0], aIn[1], aOut[0], aOut[1]}) {
        close(iFD);
      }
      execve(TITLE_PROGRAM, Pointers(vecArgs).data(), Pointers(vecEnviron).data());
      return 127;
    });
    close(aIn[0]);
    close(aOut[1]);
    m_iTo = aIn[1];
    m_pFrom = fdopen(aOut[0], "r");
  }
  ~TitleProgram() {
    close(m_iTo);
    fclose(m_pFrom);
  }
  TitleProgram(const TitleProgram&) = delete;
  TitleProgram& operator=(const TitleProgram&) = delete;

  // Gives it a title and returns what it tells then.
  std::string Change(const std::string& strTitle) {
    dprintf(m_iTo, "%s\n", strTitle.c_str());
    char szLine[512] = "";
    return fgets(szLine, sizeof(szLine), m_pFrom) != nullptr ? szLine : "(ended)";
  }
  std::string CommandLine() const {
    return ReadFile("/proc/" + std::to_string(m_pProcess->Pid()) + "/cmdline");
  }
  // The columns that an operator looks at.
  std::string Ps() const {
    int iError = 0;
    std::vector<std::string> vecLines;
    ExecuteCommand(iError, vecLines, "ps -ww -o args= -p %d", m_pProcess->Pid());
    return vecLines.size() == 1 ? vecLines[0] : "(none)";
  }
  int End() {
    close(m_iTo);
    m_iTo = -1;
    return m_pProcess->Wait();
  }

 private:
  static std::vector<char*> Pointers(std::vector<std::string>& vecTexts) {
    std::vector<char*> vecPointers;
    for (std::string& strText : vecTexts) {
      vecPointers.push_back(strText.data());
    }
    vecPointers.push_back(nullptr);
    return vecPointers;
  }

  int m_iTo;
  FILE* m_pFrom;
  std::unique_ptr<ForkedPeer> m_pProcess;
};

const char* const PROBE = "TITLE_PROBE=here";

TEST(ProcessTitleProcessTest, TitleIsTheCommandLineThatTheSystemShows) {
  TitleProgram stProgram({"title_program-with-a-long-name"}, {PROBE});
  ASSERT_EQ("here\n", stProgram.Change("worker 1"));
  EXPECT_STREQ("worker 1", stProgram.CommandLine().c_str());
  EXPECT_EQ(0, stProgram.End());
}

TEST(ProcessTitleProcessTest, PsShowsATitleLongerThanTheArguments) {
  TitleProgram stProgram({"t"}, {PROBE, "FILL=" + std::string(100, 'x')});
  ASSERT_EQ("here\n", stProgram.Change("server: worker 1 (100% of %s)"));
  EXPECT_EQ("server: worker 1 (100% of %s)\n", stProgram.Ps());
}

TEST(ProcessTitleProcessTest, PsShowsTitleAndArgumentsOfTheSameLength) {
  TitleProgram stProgram({"program", "--port", "4711"}, {PROBE});
  ASSERT_EQ("--port|4711|here\n", stProgram.Change("gateway"));
  EXPECT_EQ(Join({"gateway", "--port", "4711"}), stProgram.CommandLine());
  EXPECT_EQ("gateway --port 4711\n", stProgram.Ps());
}

TEST(ProcessTitleProcessTest, ArgumentsAndEnvironmentStayReadable) {
  TitleProgram stProgram({"p", "--port", "4711"}, {"A=b", PROBE, "FILL=" + std::string(40, 'x')});
  for (const char* pTitle : {"a much longer title than before", "s", "another, longer title"}) {
    EXPECT_EQ("--port|4711|here\n", stProgram.Change(pTitle));
    EXPECT_STREQ(pTitle, stProgram.CommandLine().c_str());
  }
}

TEST(ProcessTitleProcessTest, LongTitleIsCutAtTheEndOfTheRealArea) {
  TitleProgram stProgram({"p", "arg"}, {PROBE});
  ASSERT_EQ("arg|here\n", stProgram.Change(std::string(300, 't')));
  const size_t iRoom = sizeof("p") + strlen(PROBE) + 1 - 1;
  EXPECT_STREQ(std::string(iRoom, 't').c_str(), stProgram.CommandLine().c_str());
  EXPECT_EQ("arg|here\n", stProgram.Change("short again"));
  EXPECT_EQ(0, stProgram.End());
}

}  // namespace
