#include "regex_util.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <regex.h>

#include "test_support.h"

namespace {

int g_iFailAfter = -1;  // how many searches go well before one fails; -1: all

}  // namespace

// Stands before the C library's: that one calls every failure "no match", so that the road of a
// real one can only be reached from here.
extern "C" int regexec(const regex_t* pRegex, const char* pText, size_t iSlots, regmatch_t* pSlots,
                       int iFlags) {
  if (g_iFailAfter == 0) {
    return REG_ESPACE;
  }
  g_iFailAfter -= g_iFailAfter > 0 ? 1 : 0;
  static const auto pNext = reinterpret_cast<decltype(&regexec)>(dlsym(RTLD_NEXT, "regexec"));
  return pNext(pRegex, pText, iSlots, pSlots, iFlags);
}

namespace {

typedef std::vector<std::string> Groups_t;

// The groups that one call appends; the result must be 0.
Groups_t GroupsOf(const std::string& strPattern, const std::string& strText) {
  Groups_t vecGroups;
  EXPECT_EQ(0, RegexUtil::MatchString(strPattern.c_str(), strText.c_str(), vecGroups));
  return vecGroups;
}

std::string Repeat(const std::string& strText, int iCount) {
  std::string strAll;
  for (int i = 0; i < iCount; ++i) {
    strAll += strText;
  }
  return strAll;
}

TEST(RegexUtilTest, GroupsOfAllMatchesFollowInOneList) {
  EXPECT_EQ((Groups_t{"a", "1", "b", "2"}), GroupsOf("([a-z]+)=([0-9]+)", "a=1 b=2"));
}

TEST(RegexUtilTest, GroupsAreAppended) {
  Groups_t vecGroups{"kept"};
  EXPECT_EQ(0, RegexUtil::MatchString("(b)", "abc", vecGroups));
  EXPECT_EQ((Groups_t{"kept", "b"}), vecGroups);
}

TEST(RegexUtilTest, WholeMatchIsNotGiven) { EXPECT_EQ((Groups_t{}), GroupsOf("b+", "abbc")); }

TEST(RegexUtilTest, NestedGroupsComeInTheOrderOfTheirBrackets) {
  EXPECT_EQ((Groups_t{"$(HOME)", "$", "HOME"}), GroupsOf("(([$@])\\(([A-Z]+)\\))", "x$(HOME)y"));
}

TEST(RegexUtilTest, NoMatchIsNoError) { EXPECT_EQ((Groups_t{}), GroupsOf("(x)", "abc")); }

TEST(RegexUtilTest, SyntaxIsExtendedAndCaseSensitive) {
  EXPECT_EQ((Groups_t{"a"}), GroupsOf("(a|b){1}", "Aa"));
}

TEST(RegexUtilTest, GroupWithoutPartEndsTheListOfItsMatch) {
  EXPECT_EQ((Groups_t{}), GroupsOf("(x)?(y)", "y"));
  EXPECT_EQ((Groups_t{"x", "y"}), GroupsOf("(x)?(y)", "yxyy"));
}

TEST(RegexUtilTest, EmptyGroupThatTookPartIsGiven) {
  EXPECT_EQ((Groups_t{"", "y"}), GroupsOf("(x*)(y)", "y"));
}

TEST(RegexUtilTest, CaretMatchesAgainBehindEveryMatch) {
  EXPECT_EQ((Groups_t{"a", "b", "c"}), GroupsOf("^([a-z])", "abc1d"));
}

TEST(RegexUtilTest, InvalidPatternIsRefusedBeforeTheTextIsLookedAt) {
  Groups_t vecGroups{"kept"};
  EXPECT_EQ(-1, RegexUtil::MatchString("(", "abc", vecGroups));
  EXPECT_EQ(-1, RegexUtil::MatchString("(", "", vecGroups));
  EXPECT_EQ((Groups_t{"kept"}), vecGroups);
}

TEST(RegexUtilTest, EmptyTextHasNoMatches) {
  EXPECT_EQ((Groups_t{}), GroupsOf("(a*)", ""));
  EXPECT_EQ((Groups_t{}), GroupsOf("(a)", ""));
}

TEST(RegexUtilTest, MatchThatConsumesNothingEndsTheScan) {
  EXPECT_EQ((Groups_t{""}), GroupsOf("(a*)", "b"));
  EXPECT_EQ((Groups_t{"aa", ""}), GroupsOf("(a*)", "aabaa"));
  EXPECT_EQ((Groups_t{}), GroupsOf("^", "abc"));
}

TEST(RegexUtilTest, EmptyMatchFurtherOnStillAdvances) {
  EXPECT_EQ((Groups_t{""}), GroupsOf("(x*)$", "abc"));
  EXPECT_EQ((Groups_t{"", ""}), GroupsOf("(\\>)", "ab cd"));
}

TEST(RegexUtilTest, NinetyEightGroupsAreScannedOn) {
  const Groups_t vecGroups = GroupsOf(Repeat("(a)", 98), Repeat("a", 2 * 98));
  EXPECT_EQ(Groups_t(size_t{2} * 98, "a"), vecGroups);
}

TEST(RegexUtilTest, MatchThatFillsAllNinetyNineGroupsEndsTheScan) {
  EXPECT_EQ(Groups_t(99, "a"), GroupsOf(Repeat("(a)", 99), Repeat("a", 2 * 99)));
  EXPECT_EQ(Groups_t(99, "a"), GroupsOf(Repeat("(a)", 120), Repeat("a", 240)));
}

TEST(RegexUtilTest, FailureOfTheMatcherIsReturnedAndKeepsTheGroups) {
  Groups_t vecGroups{"kept"};
  g_iFailAfter = 1;
  EXPECT_EQ(-1, RegexUtil::MatchString("(b)", "abb", vecGroups));
  EXPECT_EQ((Groups_t{"kept", "b"}), vecGroups);
  g_iFailAfter = -1;
}

TEST(RegexUtilTest, DumpWritesNothing) {
  RegexUtil stRegexUtil;
  EXPECT_EQ("", CaptureDescriptor([&](int iFD) { stRegexUtil.Dump(iFD); }));
}

}  // namespace
