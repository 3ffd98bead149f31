// Include directives.

#include <unistd.h>

#include <cstdlib>

#include "ini_config.h"
#include "ini_fixture.h"
#include "ini_reference.h"

namespace {

class IniConfigIncludeTest : public IniFiles {
 protected:
  // A file of the value a=strName, with one include line for each name or pattern.
  void Including(const std::string& strName, const Texts_t& vecNames) {
    std::string strText = "a=" + strName + "\n";
    for (const std::string& strIncluded : vecNames) {
      strText += "include = " + Path(strIncluded) + "\n";
    }
    Write(strName, strText);
  }
  // The files in the order in which they were loaded.
  Texts_t Loaded() {
    Texts_t vecNames;
    for (int i = 0; i < static_cast<int>(m_stConfig.Count("", "a")); ++i) {
      vecNames.push_back(m_stConfig.GetValue("", "a", i));
    }
    return vecNames;
  }
};

TEST_F(IniConfigIncludeTest, PatternLoadsAllItsFilesInSortedOrder) {
  Including("top", {"c*"});
  Including("c2", {});
  Including("c10", {});
  Including("d", {});
  EXPECT_EQ(0, Load("top"));
  EXPECT_EQ((Texts_t{"top", "c10", "c2"}), Loaded());
}

TEST_F(IniConfigIncludeTest, IncludedItemsComeAfterAllOfTheIncludingText) {
  Write("top", "include = " + Path("b") + "\na=top\n");
  Including("b", {});
  EXPECT_EQ(0, Load("top"));
  EXPECT_EQ((Texts_t{"top", "b"}), Loaded());
}

TEST_F(IniConfigIncludeTest, IncludedFileStartsInTheGlobalSection) {
  Write("top", "include = " + Path("b") + "\n[s]\nx=1\n");
  Write("b", "y=2\n[s]\nx=3\n");
  EXPECT_EQ(0, Load("top"));
  EXPECT_EQ((Texts_t{"|include|" + Path("b"), "|y|2", "s|x|1", "s|x|3"}), Items());
}

TEST_F(IniConfigIncludeTest, MemoryFollowsThemToo) {
  Including("b", {});
  EXPECT_EQ(0, m_stConfig.LoadFromMemory("include = " + Path("b")));
  EXPECT_EQ(Texts_t{"b"}, Loaded());
  m_stConfig.Clear();
  EXPECT_EQ(0, m_stConfig.LoadFromMemory(Texts_t{"include = " + Path("b")}));
  EXPECT_EQ(Texts_t{"b"}, Loaded());
}

TEST_F(IniConfigIncludeTest, SameTextIsFollowedOnce) {
  Including("top", {"b", "b", "c", "b"});
  Including("b", {"c"});
  Including("c", {"b"});
  EXPECT_EQ(0, Load("top"));
  EXPECT_EQ((Texts_t{"top", "b", "c"}), Loaded());
}

TEST_F(IniConfigIncludeTest, FileReachedByTwoTextsIsLoadedTwice) {
  Including("top", {"b", "./b", "*b"});
  Including("b", {});
  EXPECT_EQ(0, Load("top"));
  EXPECT_EQ((Texts_t{"top", "b", "b", "b"}), Loaded());
}

TEST_F(IniConfigIncludeTest, FileThatIncludesItselfIsLoadedTwice) {
  Including("top", {"top"});
  EXPECT_EQ(0, Load("top"));
  EXPECT_EQ((Texts_t{"top", "top"}), Loaded());
}

TEST_F(IniConfigIncludeTest, OtherSectionsAndOtherKeysAreNoDirectives) {
  Including("b", {});
  Write("top", "Include = " + Path("b") + "\nincludes = " + Path("b") +
                   "\n[s]\ninclude = " + Path("b") + "\n[include]\nx=" + Path("b") + "\n");
  EXPECT_EQ(0, Load("top"));
  EXPECT_EQ(Texts_t{}, Loaded());
  EXPECT_EQ(1u, m_stConfig.Count("s", "include"));
}

TEST_F(IniConfigIncludeTest, PatternThatMatchesNothingIsSkipped) {
  Including("top", {"none", "none*", "b"});
  Including("b", {});
  EXPECT_EQ(0, Load("top"));
  EXPECT_EQ((Texts_t{"top", "b"}), Loaded());
}

TEST_F(IniConfigIncludeTest, EmptyTextIsSkipped) {
  EXPECT_EQ(0, m_stConfig.LoadFromMemory("include =\ninclude"));
  EXPECT_EQ((Texts_t{"|include|", "|include|"}), Items());
}

TEST_F(IniConfigIncludeTest, MatchedDirectoryIsEmpty) {
  Including("top", {""});
  EXPECT_EQ(0, Load("top"));
  EXPECT_EQ(Texts_t{"top"}, Loaded());
}

TEST_F(IniConfigIncludeTest, TildeIsTheHomeDirectory) {
  Including("b", {});
  const char* const pHome = getenv("HOME");
  const std::string strHome = pHome == nullptr ? "" : pHome;
  ASSERT_EQ(0, setenv("HOME", m_stDirectory.Path().c_str(), 1));
  EXPECT_EQ(0, m_stConfig.LoadFromMemory("include = ~/b"));
  ASSERT_EQ(0, setenv("HOME", strHome.c_str(), 1));
  EXPECT_EQ(Texts_t{"b"}, Loaded());
}

TEST_F(IniConfigIncludeTest, BracesAreNotExpanded) {
  Including("b", {});
  Including("c", {});
  EXPECT_EQ(0, m_stConfig.LoadFromMemory("include = " + Path("{b,c}")));
  EXPECT_EQ(Texts_t{}, Loaded());
}

TEST_F(IniConfigIncludeTest, RelativePathsStartAtTheWorkingDirectory) {
  ASSERT_EQ(0, mkdir(Path("sub").c_str(), 0700));
  Write("sub/top", "include = b\n");
  Write("b", "a=right\n");
  Write("sub/b", "a=wrong\n");
  ForkedPeer stPeer([&] {
    return chdir(m_stDirectory.Path().c_str()) == 0 && Load("sub/top") == 0 &&
                   Loaded() == Texts_t{"right"}
               ? 0
               : 1;
  });
  EXPECT_EQ(0, stPeer.Wait());
}

TEST_F(IniConfigIncludeTest, TextMayHoldReferences) {
  ASSERT_EQ(0, setenv("INI_TEST_DIR", m_stDirectory.Path().c_str(), 1));
  Write("b", "a=b\n");
  EXPECT_EQ(0, m_stConfig.LoadFromMemory("include = $(INI_TEST_DIR)/@(s.file)\n[s]\nfile=b"));
  EXPECT_EQ(Texts_t{"b"}, Loaded());
  EXPECT_EQ("$(INI_TEST_DIR)/@(s.file)", m_stConfig.AllItems().at("").find("include")->second);
}

TEST_F(IniConfigIncludeTest, SetHoldsTheExpandedTexts) {
  Write("b", "a=b\n");
  std::set<std::string> setIncludes;
  EXPECT_EQ(0, m_stConfig.LoadFromMemory("d=" + m_stDirectory.Path() + "\ninclude=@(d)/./b\n" +
                                             "include=@(d)/none*\ninclude",
                                         &setIncludes));
  EXPECT_EQ((std::set<std::string>{"", Path("./b"), Path("none*")}), setIncludes);
}

TEST_F(IniConfigIncludeTest, TextsInTheGivenSetAreNotFollowed) {
  Including("top", {"b", "c"});
  Including("b", {});
  Including("c", {});
  std::set<std::string> setIncludes = {Path("b")};
  EXPECT_EQ(0, m_stConfig.LoadFromFile(Path("top").c_str(), &setIncludes));
  EXPECT_EQ((Texts_t{"top", "c"}), Loaded());
  EXPECT_EQ((std::set<std::string>{Path("b"), Path("c")}), setIncludes);
}

TEST_F(IniConfigIncludeTest, LaterLoadFollowsEarlierDirectivesAgain) {
  Including("top", {"b"});
  Including("b", {});
  ASSERT_EQ(0, Load("top"));
  EXPECT_EQ(0, m_stConfig.LoadFromMemory("a=memory"));
  EXPECT_EQ((Texts_t{"top", "b", "memory", "b"}), Loaded());
}

TEST_F(IniConfigIncludeTest, DirectivesAreFollowedDeepFirst) {
  Including("top", {"b*", "c"});
  Including("b1", {"d"});
  Including("b2", {});
  Including("c", {"e"});
  Including("d", {});
  Including("e", {});
  EXPECT_EQ(0, Load("top"));
  // Loading b1 goes on with the next directives of the object before b2 is loaded.
  EXPECT_EQ((Texts_t{"top", "b1", "c", "d", "e", "b2"}), Loaded());
}

TEST_F(IniConfigIncludeTest, TextThatChangesThroughAnIncludedFileIsFollowedAgain) {
  Write("top", "a=top\ninclude = " + Path("x@(late)") + "\ninclude = " + Path("b") + "\n");
  Write("x", "a=x\n");
  Write("x1", "a=x1\n");
  Write("b", "a=b\nlate=1\n");
  EXPECT_EQ(0, Load("top"));
  EXPECT_EQ((Texts_t{"top", "x", "b", "x1"}), Loaded());
}

TEST_F(IniConfigIncludeTest, FailingFileEndsTheLoadAndWhatWasReadStays) {
  Including("top", {"b", "c*", "d"});
  Including("b", {});
  Including("c1", {});
  ASSERT_EQ(0, symlink("nowhere", Path("c2").c_str()));
  Including("c3", {});
  Including("d", {});
  EXPECT_EQ(-1, Load("top"));
  EXPECT_EQ((Texts_t{"top", "b", "c1", "d"}), Loaded());  // d by way of c1
}

TEST_F(IniConfigIncludeTest, FailureOfANestedFileGoesUpToTheTop) {
  Including("top", {"b"});
  Including("b", {"c"});
  ASSERT_EQ(0, symlink("nowhere", Path("c").c_str()));
  EXPECT_EQ(-1, Load("top"));
  EXPECT_EQ(-1, m_stConfig.LoadFromMemory(""));
}

TEST_F(IniConfigIncludeTest, LongChainOfFilesIsFollowedToItsEnd) {
  const int iLength = 1000;
  for (int i = 0; i < iLength; ++i) {
    Including(std::to_string(i), {std::to_string(i + 1)});
  }
  EXPECT_EQ(0, Load("0"));
  EXPECT_EQ(static_cast<uint32_t>(iLength), m_stConfig.Count("", "a"));
}

// Files that include each other at random, by name, by pattern and by references that become valid
// while they are loaded, against a loader that follows the directives in the plain way.
TEST_F(IniConfigIncludeTest, OrderIsThatOfLookingAtAllDirectivesEachTime) {
  uint32_t iState = 4711;
  const auto fnRandom = [&](uint32_t iLimit) {
    iState = iState * 1664525 + 1013904223;
    return (iState >> 8) % iLimit;
  };
  const auto fnDirective = [&] {
    const std::string strNumber = std::to_string(fnRandom(8));
    const Texts_t vecForms = {Path("f" + strNumber), Path("f[x" + strNumber + "]"),
                              Path("f@(v" + strNumber + ")"), Path("./f@(v0)@(v1)"),
                              Path("*" + strNumber)};
    return "include = " + vecForms[fnRandom(static_cast<uint32_t>(vecForms.size()))] + "\n";
  };
  for (int iRound = 0; iRound < 100; ++iRound) {
    for (int iFile = 0; iFile < 8; ++iFile) {
      std::string strText = "a=" + std::to_string(iFile) + "\n";
      for (uint32_t i = fnRandom(4); i > 0; --i) {
        strText += fnDirective();
      }
      strText += "v" + std::to_string(fnRandom(8)) + "=" + std::to_string(fnRandom(8)) + "\n";
      Write("f" + std::to_string(iFile), strText);
    }
    IniConfig stConfig;
    IniReference stReference;
    ASSERT_EQ(0, stConfig.LoadFromFile(Path("f0").c_str()));
    ASSERT_EQ(0, stReference.LoadFromFile(Path("f0")));
    ASSERT_EQ(stReference.Contents(), stConfig.AllItems()) << "round " << iRound;
  }
}

}  // namespace
