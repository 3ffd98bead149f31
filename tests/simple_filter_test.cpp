#include "simple_filter.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <regex.h>

#include <type_traits>

#include "test_support.h"

namespace {

bool g_bFail = false;

}  // namespace

// Stands before the C library's: that one calls every failure "no match", so that the road of a
// real one can only be reached from here.
extern "C" int regexec(const regex_t* pRegex, const char* pText, size_t iSlots, regmatch_t* pSlots,
                       int iFlags) {
  static const auto pNext = reinterpret_cast<decltype(&regexec)>(dlsym(RTLD_NEXT, "regexec"));
  return g_bFail ? static_cast<int>(REG_ESPACE) : pNext(pRegex, pText, iSlots, pSlots, iFlags);
}

namespace {

std::string DumpOf(SimpleFilter& stFilter) {
  return CaptureDescriptor([&](int iFD) { stFilter.Dump(iFD); });
}

TEST(SimpleFilterTest, IsAnObjectThatCanNotBeCopied) {
  EXPECT_TRUE((std::is_base_of_v<Object, SimpleFilter>));
  EXPECT_FALSE(std::is_copy_constructible_v<SimpleFilter>);
  EXPECT_FALSE(std::is_copy_assignable_v<SimpleFilter>);
}

TEST(SimpleFilterTest, NewFilterPassesEverything) {
  SimpleFilter stFilter;
  EXPECT_TRUE(stFilter.DoFilter(""));
  EXPECT_TRUE(stFilter.DoFilter("name"));
  EXPECT_EQ("m_strRegular.c_str()=\"\"\n", DumpOf(stFilter));
}

TEST(SimpleFilterTest, PatternIsSearchedForAnywhere) {
  SimpleFilter stFilter;
  ASSERT_EQ(0, stFilter.SetRegular("abc"));
  EXPECT_TRUE(stFilter.DoFilter("xabcx"));
  EXPECT_FALSE(stFilter.DoFilter("xabx"));
  EXPECT_FALSE(stFilter.DoFilter(""));
}

TEST(SimpleFilterTest, AnchorsAreWrittenInThePattern) {
  SimpleFilter stFilter;
  ASSERT_EQ(0, stFilter.SetRegular("^[0-9]+$"));
  EXPECT_TRUE(stFilter.DoFilter("123"));
  EXPECT_FALSE(stFilter.DoFilter("123a"));
}

TEST(SimpleFilterTest, SyntaxIsExtendedAndCaseSensitive) {
  SimpleFilter stFilter;
  ASSERT_EQ(0, stFilter.SetRegular("^(a|b){2}$"));
  EXPECT_TRUE(stFilter.DoFilter("ab"));
  EXPECT_FALSE(stFilter.DoFilter("AB"));
}

TEST(SimpleFilterTest, NewlineIsAnOrdinaryCharacter) {
  SimpleFilter stFilter;
  ASSERT_EQ(0, stFilter.SetRegular("^a.b$"));
  EXPECT_TRUE(stFilter.DoFilter("a\nb"));
  EXPECT_FALSE(stFilter.DoFilter("x\na.b"));
}

TEST(SimpleFilterTest, InvalidPatternIsRefusedAndPassesEverything) {
  SimpleFilter stFilter;
  EXPECT_EQ(-1, stFilter.SetRegular("("));
  EXPECT_TRUE(stFilter.DoFilter("name"));
  EXPECT_TRUE(stFilter.DoFilter(""));
}

TEST(SimpleFilterTest, InvalidPatternDisplacesTheFormerOne) {
  SimpleFilter stFilter;
  ASSERT_EQ(0, stFilter.SetRegular("^a$"));
  ASSERT_FALSE(stFilter.DoFilter("b"));
  EXPECT_EQ(-1, stFilter.SetRegular("("));
  EXPECT_TRUE(stFilter.DoFilter("b"));
  EXPECT_EQ("m_strRegular.c_str()=\"(\"\n", DumpOf(stFilter));
}

TEST(SimpleFilterTest, NullEmptiesTheFilterAndKeepsTheText) {
  SimpleFilter stFilter;
  ASSERT_EQ(0, stFilter.SetRegular("^a$"));
  EXPECT_EQ(0, stFilter.SetRegular(nullptr));
  EXPECT_TRUE(stFilter.DoFilter("b"));
  EXPECT_EQ("m_strRegular.c_str()=\"^a$\"\n", DumpOf(stFilter));
}

TEST(SimpleFilterTest, NewPatternReplacesTheFormerOne) {
  SimpleFilter stFilter;
  ASSERT_EQ(0, stFilter.SetRegular("^a$"));
  ASSERT_EQ(0, stFilter.SetRegular("^b$"));
  EXPECT_FALSE(stFilter.DoFilter("a"));
  EXPECT_TRUE(stFilter.DoFilter("b"));
}

TEST(SimpleFilterTest, ErrorWhileMatchingCountsAsAPass) {
  SimpleFilter stFilter;
  ASSERT_EQ(0, stFilter.SetRegular("^a$"));
  g_bFail = true;
  EXPECT_TRUE(stFilter.DoFilter("b"));
  g_bFail = false;
  EXPECT_FALSE(stFilter.DoFilter("b"));
}

}  // namespace
