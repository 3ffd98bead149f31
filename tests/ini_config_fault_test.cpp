// Patterns that do not compile, matches that can not be, and files that are hard to read. The
// patterns are compiled once per process, so every case has a child of its own and the parent loads
// nothing.

#undef _FORTIFY_SOURCE  // its header defines read() inline

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <deque>

#include "ini_config.h"
#include "ini_fixture.h"

namespace {

int g_iCompiled = 0;  // patterns that are compiled and not freed
int g_iCompileCalls = 0;
int g_iFailingCall = 0;      // the call of regcomp() that fails, from 1
int g_iLackingCalls = 0;     // so many succeed and say that memory was lacking
int g_iMatchedSlots = -1;    // when set, each search matches with so many slots in use
bool g_bBegunSlots = false;  // the others have a begin then, and no end
int g_iSearches = 0;         // searches to pass over before

bool g_bScriptRead = false;
std::deque<int> g_dqReads;  // what read() does next: so many bytes at most, or minus an errno

template <class Function_t>
Function_t* Next(const char* pName) {
  return reinterpret_cast<Function_t*>(dlsym(RTLD_NEXT, pName));
}

}  // namespace

// These stand before the C library's.
extern "C" int regcomp(regex_t* pRegex, const char* pPattern, int iFlags) {
  if (++g_iCompileCalls == g_iFailingCall) {
    return REG_BADPAT;  // unlike REG_ESPACE not tried once more
  }
  ++g_iCompiled;
  const int iResult = Next<decltype(regcomp)>("regcomp")(pRegex, pPattern, iFlags);
  if (g_iLackingCalls-- > 0) {
    errno = ENOMEM;
  }
  return iResult;
}

extern "C" void regfree(regex_t* pRegex) {
  --g_iCompiled;
  Next<decltype(regfree)>("regfree")(pRegex);
}

extern "C" ssize_t read(int iFD, void* pBuffer, size_t iSize) {
  if (g_bScriptRead && !g_dqReads.empty()) {
    const int iNext = g_dqReads.front();
    g_dqReads.pop_front();
    if (iNext < 0) {
      errno = -iNext;
      return -1;
    }
    iSize = std::min(iSize, static_cast<size_t>(iNext));
  }
  return syscall(SYS_read, iFD, pBuffer, iSize);
}

extern "C" int regexec(const regex_t* pRegex, const char* pText, size_t iSlots, regmatch_t* pSlots,
                       int iFlags) {
  if (g_iMatchedSlots < 0) {
    return Next<decltype(regexec)>("regexec")(pRegex, pText, iSlots, pSlots, iFlags);
  }
  if (g_iSearches-- > 0) {
    return REG_NOMATCH;
  }
  for (int i = 0; i < static_cast<int>(iSlots); ++i) {
    pSlots[i] = i < g_iMatchedSlots ? regmatch_t{0, 1} : regmatch_t{g_bBegunSlots ? 0 : -1, -1};
  }
  return 0;
}

namespace {

const int ABORTED = 1000 + SIGABRT;

// The child's exit code: 0 when fnHolds is true.
int InChild(const std::function<bool()>& fnHolds) {
  return ForkedPeer([&] { return fnHolds() ? 0 : 1; }).Wait();
}

class IniConfigPatternFaultTest : public ::testing::TestWithParam<int> {};

TEST_P(IniConfigPatternFaultTest, LoadFailsAndTheNextOneTriesAgain) {
  EXPECT_EQ(0, InChild([] {
              g_iFailingCall = GetParam();
              IniConfig stConfig;
              return stConfig.LoadFromMemory("a=1") == -1 && stConfig.AllItems().empty() &&
                     g_iCompiled == 0 && g_iCompileCalls == g_iFailingCall &&
                     stConfig.LoadFromMemory("a=1") == 0 && stConfig.Count("", "a") == 1 &&
                     g_iCompiled == 4;
            }));
}

TEST_P(IniConfigPatternFaultTest, EveryFormOfLoadingFails) {
  EXPECT_EQ(0, InChild([] {
              const PrivateDirectory stDirectory;
              WriteFile(stDirectory.File("a.ini"), "a=1\n");
              g_iFailingCall = GetParam();
              IniConfig stConfig;
              const int iFile = stConfig.LoadFromFile(stDirectory.File("a.ini").c_str());
              g_iCompileCalls = 0;
              const int iLines = stConfig.LoadFromMemory(Texts_t{"a=1"});
              // The file was opened, so that it is the one to reload.
              return iFile == -1 && iLines == -1 && stConfig.AllItems().empty() &&
                     stConfig.Reload() == 0 && stConfig.Count("", "a") == 1;
            }));
}

INSTANTIATE_TEST_SUITE_P(EachPattern, IniConfigPatternFaultTest, ::testing::Range(1, 5));

// malloc() may set errno on its way to success, but hardly twice.
TEST(IniConfigFaultTest, PatternThatLackedMemoryIsCompiledOnceMore) {
  EXPECT_EQ(0, InChild([] {
              g_iLackingCalls = 1;
              IniConfig stConfig;
              return stConfig.LoadFromMemory("a=1") == 0 && g_iCompiled == 4 &&
                     g_iCompileCalls == 5;
            }));
  EXPECT_EQ(0, InChild([] {
              g_iLackingCalls = 2;
              IniConfig stConfig;
              return stConfig.LoadFromMemory("a=1") == -1 && g_iCompiled == 0 &&
                     stConfig.LoadFromMemory("a=1") == 0;
            }));
}

TEST(IniConfigFaultTest, PatternsAreCompiledOnceForAllObjects) {
  EXPECT_EQ(0, InChild([] {
              IniConfig stFirst;
              IniConfig stSecond;
              return stFirst.LoadFromMemory("a=1") == 0 && stSecond.LoadFromMemory("a=1") == 0 &&
                     stFirst.TranslateValue("$(a)").empty() &&
                     stSecond.TranslateValue("$(b)").empty() && g_iCompileCalls == 5 &&
                     g_iCompiled == 5;
            }));
}

TEST(IniConfigFaultTest, TextIsUnchangedWhileTheReferencePatternDoesNotCompile) {
  EXPECT_EQ(0, InChild([] {
              g_iFailingCall = 1;
              IniConfig stConfig;
              stConfig.SetValue("", "a", "1");
              return stConfig.TranslateValue("<@(a)>") == "<@(a)>" &&
                     stConfig.TranslateValue("<@(a)>") == "<1>";
            }));
}

// What a file gives that is read by these steps.
Texts_t LoadedBy(const std::string& strText, const std::deque<int>& dqReads) {
  const PrivateDirectory stDirectory;
  WriteFile(stDirectory.File("a.ini"), strText);
  IniConfig stConfig;
  g_dqReads = dqReads;
  g_bScriptRead = true;
  const int iResult = stConfig.LoadFromFile(stDirectory.File("a.ini").c_str());
  g_bScriptRead = false;
  return iResult == 0 && g_dqReads.empty() ? ItemsOf(stConfig) : Texts_t{"(failed)"};
}

TEST(IniConfigFaultTest, FileMayComeInPieces) {
  EXPECT_EQ(
      0, InChild([] {
        return LoadedBy("abc=1\nde=2", {1, 1, 3, 1, 2, 1, 1, 0}) == Texts_t{"|abc|1", "|de|2"};
      }));
}

TEST(IniConfigFaultTest, InterruptedReadIsRepeated) {
  EXPECT_EQ(0, InChild([] {
              return LoadedBy("a=1\nb=2\n", {-EINTR, 5, -EINTR, 100}) == Texts_t{"|a|1", "|b|2"};
            }));
}

TEST(IniConfigFaultTest, FailingReadEndsTheFileAndHidesTheLineThatHasBegun) {
  EXPECT_EQ(0, InChild([] { return LoadedBy("a=1\nb=22\n", {7, -EIO}) == Texts_t{"|a|1"}; }));
}

struct impossible_t {
  int iSearch;  // the search of a line that matches
  int iMatchedSlots;
  const char* pText;  // of the assertion
};

class IniConfigAssertionTest : public ::testing::TestWithParam<impossible_t> {
 protected:
  static void ExpectAssertion();
};

void IniConfigAssertionTest::ExpectAssertion() {
  const std::string strError = CaptureOutput(2, [] {
    EXPECT_EQ(ABORTED, InChild([] {
                // Bytes that only the expressions can judge.
                if (setlocale(LC_ALL, "C.UTF-8") == nullptr) {
                  return false;
                }
                g_iSearches = GetParam().iSearch;
                g_iMatchedSlots = GetParam().iMatchedSlots;
                IniConfig().LoadFromMemory("[\xc3\xa4]");
                return true;
              }));
  });
  EXPECT_NE(std::string::npos, strError.find(GetParam().pText)) << strError;
}

TEST_P(IniConfigAssertionTest, MatchWithoutItsGroupsEndsTheProcess) { ExpectAssertion(); }

TEST_P(IniConfigAssertionTest, MatchWhoseGroupsHaveNoEndEndsTheProcess) {
  g_bBegunSlots = true;
  ExpectAssertion();
  g_bBegunSlots = false;
}

INSTANTIATE_TEST_SUITE_P(
    EachGroup, IniConfigAssertionTest,
    ::testing::Values(
        impossible_t{1, 1, "`matchs[1].rm_so != -1 && matchs[1].rm_eo != -1'"},    // section
        impossible_t{2, 1, "`matchs[1].rm_so != -1 && matchs[1].rm_eo != -1'"},    // key and value
        impossible_t{2, 2, "`matchs[2].rm_so != -1 && matchs[2].rm_eo != -1'"},    // its value
        impossible_t{3, 1, "`matchs[1].rm_so != -1 && matchs[1].rm_eo != -1'"}));  // key alone

}  // namespace
