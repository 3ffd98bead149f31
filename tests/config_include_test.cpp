#include <dlfcn.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "config.h"
#include "config_test_support.h"

namespace {

int g_iCompileResult = 0;  // of regcomp(), when it is a failure
int g_iSearchResult = 0;   // of regexec()

}  // namespace

// These stand before the C library's.
extern "C" int regcomp(regex_t* pRegex, const char* pPattern, int iFlags) {
  static const auto pNext = reinterpret_cast<decltype(&regcomp)>(dlsym(RTLD_NEXT, "regcomp"));
  return g_iCompileResult != 0 ? g_iCompileResult : pNext(pRegex, pPattern, iFlags);
}

extern "C" int regexec(const regex_t* pRegex, const char* pText, size_t iSlots, regmatch_t* pSlots,
                       int iFlags) {
  static const auto pNext = reinterpret_cast<decltype(&regexec)>(dlsym(RTLD_NEXT, "regexec"));
  return g_iSearchResult != 0 ? g_iSearchResult : pNext(pRegex, pText, iSlots, pSlots, iFlags);
}

namespace {

// Files of one private directory; a value "v" in each tells the order in which they were loaded.
class ConfigIncludeTest : public ConfigTest {
 protected:
  void Write(const std::string& strName, const std::string& strContent) {
    WriteFile(m_stDirectory.File(strName), "<r>" + strContent + "</r>");
  }
  std::string Path(const std::string& strName) const { return m_stDirectory.File(strName); }
  std::string Include(const std::string& strName) const {
    return "<include>" + Path(strName) + "</include>";
  }
  int LoadFile(const std::string& strName, std::set<std::string>* pIncludes = nullptr) {
    return m_stConfig.LoadFromFile(Path(strName).c_str(), pIncludes);
  }
  std::string Values() const { return Joined(m_stConfig.StringValues("v")); }

  PrivateDirectory m_stDirectory;
};

using ConfigFileTest = ConfigIncludeTest;

TEST_F(ConfigFileTest, FileIsLoadedAndLoadingItAgainAddsItsItemsAgain) {
  Write("a.xml", "<v x='2'>1</v>");
  EXPECT_EQ(0, LoadFile("a.xml"));
  EXPECT_EQ("v=1 v.x=2", Items());
  EXPECT_EQ(0, LoadFile("a.xml"));
  EXPECT_EQ("v=1 v=1 v.x=2 v.x=2", Items());
}

TEST_F(ConfigFileTest, FileThatIsMissingEmptyOrADirectoryFails) {
  WriteFile(Path("empty"), "");
  EXPECT_EQ(-1, LoadFile("missing"));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, LoadFile("empty"));
  EXPECT_EQ(-1, LoadFile(""));
  EXPECT_EQ(-1, m_stConfig.LoadFromFile(""));
  EXPECT_EQ("", Items());
}

TEST_F(ConfigFileTest, FileThatMayNotBeReadFails) {
  if (geteuid() == 0) {
    GTEST_SKIP() << "root reads everything";
  }
  Write("a.xml", "<v>1</v>");
  ASSERT_EQ(0, chmod(Path("a.xml").c_str(), 0));
  EXPECT_EQ(-1, LoadFile("a.xml"));
}

TEST_F(ConfigFileTest, FileThatIsNoDocumentFails) {
  WriteFile(Path("a.xml"), "<r><v>a</v>");
  EXPECT_EQ(-1, LoadFile("a.xml"));
  EXPECT_EQ("", Values());
}

TEST_F(ConfigFileTest, FifoHasNoSizeAndIsNotWaitedFor) {
  ASSERT_EQ(0, mkfifo(Path("fifo").c_str(), 0600));
  EXPECT_EQ(-1, LoadFile("fifo"));
}

TEST_F(ConfigFileTest, FileThatGivesFewerBytesThanItsSizeFails) {
  const char szPath[] = "/sys/devices/system/cpu/online";  // 4096 bytes by its size
  if (access(szPath, R_OK) != 0) {
    GTEST_SKIP() << "no such file here";
  }
  EXPECT_EQ(-1, m_stConfig.LoadFromFile(szPath));
}

TEST_F(ConfigFileTest, FailuresLeaveNoDescriptorOpen) {
  Write("bad.xml", Include("empty"));
  WriteFile(Path("empty"), "");
  const int iOpen = OpenDescriptors();
  EXPECT_EQ(-1, LoadFile("bad.xml"));
  EXPECT_EQ(-1, LoadFile(""));
  EXPECT_EQ(iOpen, OpenDescriptors());
}

TEST_F(ConfigFileTest, RefreshLoadsTheLastFileAnew) {
  Write("a.xml", "<v>1</v>");
  Write("b.xml", "<v>2</v>");
  ASSERT_EQ(0, LoadFile("a.xml"));
  ASSERT_EQ(0, LoadFile("b.xml"));
  ASSERT_EQ(0, Load("<v>memory</v>"));
  m_stConfig.SetMacroVariable("m", "kept");
  Write("b.xml", "<v>3</v>");
  m_stConfig.Refresh();
  EXPECT_EQ("3", Values());
  EXPECT_STREQ("kept", m_stConfig.GetMacroVariable("m"));
}

TEST_F(ConfigFileTest, RefreshFollowsTheIncludesAnew) {
  Write("top.xml", "<v>top</v>" + Include("part*"));
  ASSERT_EQ(0, LoadFile("top.xml"));
  Write("part1", "<v>part</v>");
  m_stConfig.Refresh();
  EXPECT_EQ("top,part", Values());
  m_stConfig.Refresh();
  EXPECT_EQ("top,part", Values());
}

TEST_F(ConfigFileTest, RefreshOfAFileThatIsGoneEmptiesAndForgetsIt) {
  Write("a.xml", "<v>1</v>");
  ASSERT_EQ(0, LoadFile("a.xml"));
  ASSERT_EQ(0, unlink(Path("a.xml").c_str()));
  m_stConfig.Refresh();
  EXPECT_EQ("", Items());
  Write("a.xml", "<v>1</v>");
  m_stConfig.Refresh();
  EXPECT_EQ("", Items());
}

TEST_F(ConfigFileTest, RefreshKeepsWhatWasMergedBeforeAFailure) {
  Write("top.xml", "<v>top</v>" + Include("part"));
  Write("part", "<v>part</v>");
  ASSERT_EQ(0, LoadFile("top.xml"));
  WriteFile(Path("part"), "");
  m_stConfig.Refresh();
  EXPECT_EQ("top", Values());
}

TEST_F(ConfigFileTest, RefreshWithoutAFileEmpties) {
  ASSERT_EQ(0, Load("<v>memory</v>"));
  m_stConfig.Refresh();
  EXPECT_EQ("", Items());
}

TEST_F(ConfigFileTest, FailedLoadForgetsTheFileOfTheLast) {
  Write("a.xml", "<v>1</v>");
  ASSERT_EQ(0, LoadFile("a.xml"));
  ASSERT_EQ(-1, LoadFile("missing"));
  EXPECT_EQ("1", Values());
  m_stConfig.Refresh();
  EXPECT_EQ("", Items());
}

TEST_F(ConfigFileTest, IncludedFileIsTheLastOneAfterALoadFromMemory) {
  Write("part", "<v>part</v>");
  ASSERT_EQ(0, Load("<v>memory</v>" + Include("part")));
  m_stConfig.Refresh();
  EXPECT_EQ("part", Values());
}

TEST_F(ConfigIncludeTest, PatternLoadsItsFilesInSortedOrder) {
  for (const char* pName : {"b.xml", "a.xml", "c.xml", "d.txt"}) {
    Write(pName, std::string("<v>") + pName + "</v>");
  }
  EXPECT_EQ(0, Load("<v>top</v>" + Include("*.xml")));
  EXPECT_EQ("top,a.xml,b.xml,c.xml", Values());
}

TEST_F(ConfigIncludeTest, PathsAreTakenFromTheRootDirectory) {
  Write("a.xml", "<v>1</v>");
  const std::string strRelative = Path("a.xml").substr(1);
  EXPECT_EQ(0, Load("<include>" + strRelative + "</include>"));
  EXPECT_EQ("1", Values());
}

TEST_F(ConfigIncludeTest, SeparatorsOfBothKindsCollapse) {
  Write("a.xml", "<v>1</v>");
  std::set<std::string> setIncludes;
  const std::string strFile = "<r><include>" + m_stDirectory.Path() + "//\\a.xml</include></r>";
  EXPECT_EQ(0, m_stConfig.LoadFromMemory(strFile.data(), strFile.size(), &setIncludes));
  EXPECT_EQ("1", Values());
  EXPECT_EQ(std::set<std::string>{Path("a.xml")}, setIncludes);
}

TEST_F(ConfigIncludeTest, PatternThatMatchesNothingIsNoError) {
  EXPECT_EQ(0, Load("<v>1</v>" + Include("none*.xml") + Include("missing.xml")));
  EXPECT_EQ("1", Values());
}

TEST_F(ConfigIncludeTest, MatchedFileThatFailsEndsTheLoadAndKeepsWhatWasMerged) {
  Write("a.xml", "<v>a</v>");
  WriteFile(Path("b.xml"), "");
  Write("c.xml", "<v>c</v>");
  EXPECT_EQ(-1, Load("<v>top</v>" + Include("*.xml")));
  EXPECT_EQ("top,a", Values());
}

TEST_F(ConfigIncludeTest, MatchedDirectoryFails) {
  EXPECT_EQ(-1, Load("<include>" + m_stDirectory.Path() + "</include>"));
}

TEST_F(ConfigIncludeTest, FailureInANestedFileEndsTheWholeLoad) {
  Write("a.xml", "<v>a</v>" + Include("empty"));
  WriteFile(Path("empty"), "");
  Write("z.xml", "<v>z</v>");
  EXPECT_EQ(-1,
            Load("<v>top</v>" + Include("a.xml") + "<zinclude>" + Path("z.xml") + "</zinclude>"));
  EXPECT_EQ("top,a", Values());
}

TEST_F(ConfigIncludeTest, EveryKeyThatHoldsTheWordIsADirective) {
  for (const char* pName : {"1", "2", "3", "4", "5", "6"}) {
    Write(pName, std::string("<v>") + pName + "</v>");
  }
  EXPECT_EQ(0, Load("<a><include>" + Path("1") + "</include></a>" + "<b includes='" + Path("2") +
                    "'/>" + "<include><path>" + Path("3") + "</path></include>" + "<myinclude>" +
                    Path("4") + "</myinclude>" + "<Include>" + Path("5") + "</Include>" +
                    "<inc lude='" + Path("6") + "'/>"));
  EXPECT_EQ("1,2,3,4", Values());
}

TEST_F(ConfigIncludeTest, DirectivesAreFollowedInKeyOrderThenDocumentOrder) {
  for (const char* pName : {"1", "2", "3", "4"}) {
    Write(pName, std::string("<v>") + pName + "</v>");
  }
  EXPECT_EQ(0, Load("<z><include>" + Path("4") + "</include></z>" + Include("3") + Include("2") +
                    "<a><include>" + Path("1") + "</include></a>"));
  EXPECT_EQ("1,3,2,4", Values());
}

// The search after each file sees the directives of all files, so the rest of the pattern's
// matches comes after what the other directive brings.
TEST_F(ConfigIncludeTest, NestedLoadFollowsTheRemainingDirectivesFirst) {
  for (const char* pName : {"a1", "a2", "b"}) {
    Write(pName, std::string("<v>") + pName + "</v>");
  }
  EXPECT_EQ(0, Load("<v>top</v>" + Include("a*") + Include("b")));
  EXPECT_EQ("top,a1,b,a2", Values());
}

TEST_F(ConfigIncludeTest, DirectiveOfANestedFileIsFollowedInTheOrderOfAllKeys) {
  Write("1", "<v>1</v><a><include>" + Path("2") + "</include></a>");
  Write("2", "<v>2</v>");
  Write("3", "<v>3</v>");
  EXPECT_EQ(
      0, Load("<b><include>" + Path("1") + "</include><include>" + Path("3") + "</include></b>"));
  EXPECT_EQ("1,2,3", Values());
}

TEST_F(ConfigIncludeTest, EachPatternIsFollowedOnceAndTwoPatternsOfOneFileAreTwo) {
  Write("a.xml", "<v>1</v>");
  EXPECT_EQ(0, Load(Include("a.xml") + Include("/a.xml") + Include("[a].xml")));
  EXPECT_EQ("1,1", Values());
}

TEST_F(ConfigIncludeTest, SetHoldsEveryPatternFollowedAndNeverTheFileOnTop) {
  Write("top.xml", Include("a.xml") + Include("none*") + "<include x=''>/</include>");
  Write("a.xml", Include("./b.xml"));
  Write("b.xml", "<v>b</v>");
  std::set<std::string> setIncludes;
  EXPECT_EQ(0, LoadFile("top.xml", &setIncludes));
  EXPECT_EQ((std::set<std::string>{"", Path("a.xml"), Path("./b.xml"), Path("none*")}),
            setIncludes);
}

TEST_F(ConfigIncludeTest, PatternsInTheCallersSetAreNotFollowed) {
  Write("top.xml", "<v>top</v>" + Include("a.xml"));
  Write("a.xml", "<v>a</v>");
  std::set<std::string> setIncludes{Path("a.xml")};
  EXPECT_EQ(0, LoadFile("top.xml", &setIncludes));
  EXPECT_EQ("top", Values());
}

TEST_F(ConfigIncludeTest, FileThatIncludesItselfIsLoadedTwice) {
  Write("a.xml", "<v>1</v>" + Include("a.xml"));
  EXPECT_EQ(0, LoadFile("a.xml"));
  EXPECT_EQ("1,1", Values());
}

TEST_F(ConfigIncludeTest, FilesThatIncludeEachOtherThroughOnePatternEnd) {
  Write("a.xml", "<v>a</v>" + Include("*.xml"));
  Write("b.xml", "<v>b</v>" + Include("*.xml"));
  EXPECT_EQ(0, LoadFile("a.xml"));
  EXPECT_EQ("a,a,b", Values());
}

TEST_F(ConfigIncludeTest, FilesThatNameEachOtherEnd) {
  Write("a.xml", "<v>a</v>" + Include("b.xml"));
  Write("b.xml", "<v>b</v>" + Include("a.xml"));
  EXPECT_EQ(0, LoadFile("a.xml"));
  EXPECT_EQ("a,b,a", Values());
}

TEST_F(ConfigIncludeTest, LaterLoadFollowsEarlierDirectivesAgain) {
  Write("part", "<v>part</v>");
  ASSERT_EQ(0, Load(Include("part")));
  EXPECT_EQ(0, Load("<v>later</v>"));
  EXPECT_EQ("part,later,part", Values());
}

TEST_F(ConfigIncludeTest, LaterLoadOfAFileFollowsEarlierDirectivesAgain) {
  Write("top.xml", "<v>top</v>" + Include("part"));
  Write("part", "<v>part</v>");
  Write("later.xml", "<v>later</v>");
  ASSERT_EQ(0, LoadFile("top.xml"));
  EXPECT_EQ(0, LoadFile("later.xml"));
  EXPECT_EQ("top,part,later,part", Values());
}

TEST_F(ConfigIncludeTest, KeyWithOtherLettersIsADirectiveInEveryLocale) {
  Write("part", "<v>part</v>");
  for (const char* pLocale : {"C", "C.UTF-8"}) {
    ForkedPeer stPeer([&] {
      const bool bLoaded = setlocale(LC_ALL, pLocale) != nullptr &&
                           Load("<\xc3\xa4include>" + Path("part") + "</\xc3\xa4include>" +
                                "<\xc3\xa4inclde>" + Path("part") + "</\xc3\xa4inclde>") == 0;
      return bLoaded && Values() == "part" ? 0 : 1;
    });
    EXPECT_EQ(0, stPeer.Wait()) << pLocale;
  }
}

TEST_F(ConfigIncludeTest, KeyWithoutOtherLettersIsADirectiveInEveryLocale) {
  Write("part", "<v>part</v>");
  ForkedPeer stPeer([&] {
    const bool bLoaded = setlocale(LC_ALL, "C.UTF-8") != nullptr && Load(Include("part")) == 0;
    return bLoaded && Values() == "part" ? 0 : 1;
  });
  EXPECT_EQ(0, stPeer.Wait());
}

// Where the bytes may be parts of other characters.
TEST_F(ConfigIncludeTest, KeyWithOtherLettersIsADirectiveOnlyIfTheExpressionSaysSo) {
  Write("part", "<v>part</v>");
  const auto fnIsPassedOver = [this] {
    EXPECT_NE(nullptr, setlocale(LC_ALL, "C.UTF-8"));
    EXPECT_EQ(0, Load("<\xc3\xa4include>" + Path("part") + "</\xc3\xa4include>"));
    return !HasFailure() && Values().empty() ? 0 : 1;
  };
  ForkedPeer stNoMatch([&] {
    g_iSearchResult = REG_NOMATCH;
    return fnIsPassedOver();
  });
  EXPECT_EQ(0, stNoMatch.Wait());
  ForkedPeer stNoExpression([&] {
    g_iCompileResult = REG_ESPACE;
    return fnIsPassedOver();
  });
  EXPECT_EQ(0, stNoExpression.Wait());
}

TEST_F(ConfigIncludeTest, PathMayUseReferences) {
  setenv("ZELK_INCLUDE_TEST", m_stDirectory.Path().c_str(), 1);
  m_stConfig.SetMacroVariable("name", "part");
  Write("part.xml", "<v>part</v>");
  EXPECT_EQ(0, Load("<include>$(ZELK_INCLUDE_TEST)/@(name).@(kind)</include><kind>xml</kind>"));
  EXPECT_EQ("part", Values());
  unsetenv("ZELK_INCLUDE_TEST");
}

TEST_F(ConfigIncludeTest, DirectivesWithAndWithoutReferencesKeepTheirOrder) {
  m_stConfig.SetMacroVariable("one", "1");
  m_stConfig.SetMacroVariable("three", "3");
  for (const char* pName : {"1", "2", "3", "4"}) {
    Write(pName, std::string("<v>") + pName + "</v>");
  }
  EXPECT_EQ(0, Load(Include("@(one)") + Include("2") + Include("@(three)") + Include("4")));
  EXPECT_EQ("1,2,3,4", Values());
}

TEST_F(ConfigIncludeTest, ReferenceMayReadWhatANestedFileBringsIn) {
  Write("1", "<name>2</name>");
  Write("x2", "<v>2</v>");
  EXPECT_EQ(0, Load(Include("1") + "<include>" + Path("x@(name)") + "</include>"));
  EXPECT_EQ("2", Values());
}

// All paths of a search are known before the first is followed: the nested load follows the
// directive under its new path, and the outer one still under the path that it had.
TEST_F(ConfigIncludeTest, PathsAreTranslatedBeforeTheFirstIsFollowed) {
  Write("1", "<dir>sub/</dir>");
  Write("x", "<v>early</v>");
  std::filesystem::create_directory(Path("sub"));
  Write("sub/x", "<v>late</v>");
  EXPECT_EQ(0, Load(Include("1") + "<include>" + m_stDirectory.Path() + "/@(dir)x</include>"));
  EXPECT_EQ("late,early", Values());
}

TEST_F(ConfigIncludeTest, TildeIsAName) {
  EXPECT_EQ(0, Load("<include>~/none.xml</include>"));
  std::set<std::string> setIncludes;
  EXPECT_EQ(0, m_stConfig.LoadFromMemory("<r/>", 4, &setIncludes));
  EXPECT_EQ(std::set<std::string>{"/~/none.xml"}, setIncludes);
}

TEST_F(ConfigIncludeTest, ThousandFilesFollowedOneByOne) {
  const int FILES = 1000;
  std::string strTop;
  for (int i = 0; i < FILES; ++i) {
    const std::string strName = std::to_string(i);
    Write(strName, "<v>" + strName + "</v>");
    strTop += Include(strName);
  }
  EXPECT_EQ(0, Load(strTop));
  EXPECT_EQ(static_cast<size_t>(FILES), m_stConfig.StringValues("v").size());
  EXPECT_EQ("999", m_stConfig.StringValues("v").back());
}

// A file as the items that its document gives, in document order.
using Items_t = std::vector<std::pair<std::string, std::string>>;

// Follows includes in the plain way: after each file it looks at all items for directives.
class PlainLoader {
 public:
  explicit PlainLoader(const std::map<std::string, Items_t>& mapFiles) : m_mapFiles(mapFiles) {}

  void LoadFile(const std::string& strPath) {
    for (const auto& stItem : m_mapFiles.at(strPath)) {
      mapItems.insert(stItem);
    }
    std::vector<std::string> vecPaths;
    for (const auto& [strKey, strValue] : mapItems) {
      if (strKey.find("include") != std::string::npos) {
        vecPaths.push_back(Translate(strValue));
      }
    }
    for (const std::string& strInclude : vecPaths) {
      if (setFollowed.insert(strInclude).second) {
        LoadMatches(strInclude);
      }
    }
  }

  std::multimap<std::string, std::string> mapItems;
  std::set<std::string> setFollowed;

 private:
  void LoadMatches(const std::string& strPattern) {
    glob_t stGlob{};
    glob(strPattern.c_str(), GLOB_TILDE, nullptr, &stGlob);
    for (size_t i = 0; i < stGlob.gl_pathc; ++i) {
      LoadFile(std::filesystem::path(stGlob.gl_pathv[i]).lexically_normal());
    }
    globfree(&stGlob);
  }
  // Only "@(key)", and no value holds another reference.
  std::string Translate(std::string strText) const {
    size_t iBegin = 0;
    while ((iBegin = strText.find("@(")) != std::string::npos) {
      const size_t iEnd = strText.find(')', iBegin);
      const auto it = mapItems.lower_bound(strText.substr(iBegin + 2, iEnd - iBegin - 2));
      const bool bFound =
          it != mapItems.end() && it->first == strText.substr(iBegin + 2, iEnd - iBegin - 2);
      strText.replace(iBegin, iEnd + 1 - iBegin, bFound ? it->second : "");
    }
    return strText;
  }

  const std::map<std::string, Items_t>& m_mapFiles;
};

class ConfigIncludeOrderTest : public ConfigIncludeTest {
 protected:
  size_t Random(size_t iLimit) { return m_stRandom() % iLimit; }
  std::string Digit() { return std::to_string(Random(8)); }

  // Where the directive stands among the others, and how it names its files, is left to chance.
  std::pair<std::string, std::string> Directive() {
    const std::vector<std::string> vecKeys = {"a.include", "include", "include.x", "z.include"};
    const std::vector<std::string> vecForms = {"f" + Digit(), "f[x" + Digit() + "]",
                                               "f@(k" + Digit() + ")", "./f@(k0)@(k1)",
                                               "*" + Digit()};
    return {vecKeys[Random(vecKeys.size())], Path(vecForms[Random(vecForms.size())])};
  }
  Items_t File(const std::string& strName) {
    Items_t vecItems = {{"v", strName}, {"k" + Digit(), Digit()}};
    for (size_t i = Random(4); i > 0; --i) {
      vecItems.push_back(Directive());
    }
    return vecItems;
  }
  void WriteItems(const std::string& strName, const Items_t& vecItems) {
    std::string strContent;
    for (const auto& [strKey, strValue] : vecItems) {
      std::string strOpening = strKey;
      const size_t iDot = strKey.find('.');
      if (iDot != std::string::npos) {
        strOpening.replace(iDot, 1, "><");
      }
      strContent += "<" + strOpening + ">" + strValue;
      strContent += iDot == std::string::npos ? "" : "</" + strKey.substr(iDot + 1) + ">";
      strContent += "</" + strKey.substr(0, iDot) + ">";
    }
    Write(strName, strContent);
  }

  std::mt19937 m_stRandom{4711};
};

TEST_F(ConfigIncludeOrderTest, OrderIsThatOfLookingAtAllItemsAfterEachFile) {
  for (int iRound = 0; iRound < 100; ++iRound) {
    std::map<std::string, Items_t> mapFiles;
    for (int iFile = 0; iFile < 8; ++iFile) {
      const std::string strName = "f" + std::to_string(iFile);
      mapFiles[Path(strName)] = File(strName);
      WriteItems(strName, mapFiles[Path(strName)]);
    }
    Config stConfig;
    PlainLoader stLoader(mapFiles);
    std::set<std::string> setFollowed;
    ASSERT_EQ(0, stConfig.LoadFromFile(Path("f0").c_str(), &setFollowed));
    stLoader.LoadFile(Path("f0"));
    ASSERT_EQ(ItemsText(stLoader.mapItems), ItemsText(stConfig.AllItems())) << "round " << iRound;
    ASSERT_EQ(stLoader.setFollowed, setFollowed) << "round " << iRound;
  }
}

}  // namespace
