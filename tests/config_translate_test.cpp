#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "config.h"
#include "config_test_support.h"

namespace {

class ConfigTranslateTest : public ConfigTest {
 protected:
  ~ConfigTranslateTest() override {
    for (const char* pName : {"ZELK_A", "ZELK B", "ZELK_NEST"}) {
      unsetenv(pName);
    }
  }
  std::string Translate(const std::string& strText) {
    return m_stConfig.TranslateValue(strText.c_str());
  }
};

TEST_F(ConfigTranslateTest, EnvironmentAndItemsAreReplacedInOneText) {
  setenv("ZELK_A", "1", 1);
  ASSERT_EQ(0, Load("<b><c>2</c></b>"));
  EXPECT_EQ("1x2", Translate("${ZELK_A}x@(b.c)"));
}

TEST_F(ConfigTranslateTest, TextWithoutReferencesIsUnchanged) {
  for (const char* pText : {"", "plain", "$", "a@b.c", "$HOME", "$ (HOME)", "$(HOME", "f(x)"}) {
    EXPECT_EQ(pText, Translate(pText));
  }
}

TEST_F(ConfigTranslateTest, BracketsNeedNotMatch) {
  m_stConfig.SetMacroVariable("m", "v");
  EXPECT_EQ("v v v v", Translate("@(m) @{m} @(m} @{m)"));
}

TEST_F(ConfigTranslateTest, MacroStandsBeforeTheItemOfItsName) {
  ASSERT_EQ(0, Load("<m>item</m>"));
  EXPECT_EQ("item", Translate("@(m)"));
  m_stConfig.SetMacroVariable("m", "macro");
  EXPECT_EQ("macro", Translate("@(m)"));
  EXPECT_STREQ("item", m_stConfig.StringValue("m"));
}

TEST_F(ConfigTranslateTest, EmptyMacroHidesTheItemToo) {
  ASSERT_EQ(0, Load("<m>item</m>"));
  m_stConfig.SetMacroVariable("m", "");
  EXPECT_EQ("[]", Translate("[@(m)]"));
}

TEST_F(ConfigTranslateTest, DollarReadsTheEnvironmentOnly) {
  m_stConfig.SetMacroVariable("ZELK_A", "macro");
  ASSERT_EQ(0, Load("<ZELK_A>item</ZELK_A>"));
  EXPECT_EQ("", Translate("$(ZELK_A)"));
  setenv("ZELK_A", "environment", 1);
  EXPECT_EQ("environment", Translate("$(ZELK_A)"));
}

TEST_F(ConfigTranslateTest, WhatIsMissingIsReplacedByNothing) {
  EXPECT_EQ("a  b", Translate("a $(ZELK_A) b"));
  EXPECT_EQ("a  b", Translate("a @(none) b"));
  EXPECT_EQ("", Translate("$()@{}"));
}

TEST_F(ConfigTranslateTest, NameIsUsedAsItStands) {
  setenv("ZELK B", "blank", 1);
  m_stConfig.SetMacroVariable(" m\n", "untrimmed");
  m_stConfig.SetMacroVariable("m", "trimmed");
  EXPECT_EQ("blank untrimmed trimmed", Translate("$(ZELK B) @( m\n) @(m)"));
}

TEST_F(ConfigTranslateTest, FirstOfSeveralValuesIsTaken) {
  EXPECT_EQ(0, Load("<a>1</a><a>2</a>"));
  EXPECT_EQ("1", Translate("@(a)"));
}

TEST_F(ConfigTranslateTest, WhatAReplacementBringsInIsTranslated) {
  setenv("ZELK_NEST", "<@(m)>", 1);
  m_stConfig.SetMacroVariable("m", "@(a)");
  ASSERT_EQ(0, Load("<a>@{b}!</a><b>end</b>"));
  EXPECT_EQ("<end!>", Translate("$(ZELK_NEST)"));
}

TEST_F(ConfigTranslateTest, SigilAndBracketThatComeTogetherAreAReference) {
  setenv("ZELK_A", "joined", 1);
  m_stConfig.SetMacroVariable("m", "(ZELK_A)");
  m_stConfig.SetMacroVariable("s", "$");
  EXPECT_EQ("joined", Translate("$@(m)"));
  EXPECT_EQ("joined", Translate("@(s)(ZELK_A)"));
}

TEST_F(ConfigTranslateTest, LeftmostReferenceEndsAtTheFirstClosingBracket) {
  m_stConfig.SetMacroVariable("x@(a", "outer");
  m_stConfig.SetMacroVariable("a", "inner");
  EXPECT_EQ("outer)", Translate("@(x@(a))"));
}

TEST_F(ConfigTranslateTest, EveryLookupTranslatesAtItsTime) {
  ASSERT_EQ(0, Load("<a>@(m)</a><a>1@(m)k</a>"));
  EXPECT_STREQ("", m_stConfig.StringValue("a"));
  EXPECT_EQ(-1, m_stConfig.IntValue("a"));
  m_stConfig.SetMacroVariable("m", uint64_t{2});
  EXPECT_STREQ("2", m_stConfig.StringValue("a"));
  EXPECT_EQ(2, m_stConfig.IntValue("a"));
  EXPECT_EQ("2,12k", Joined(m_stConfig.StringValues("a")));
  EXPECT_EQ(12288, m_stConfig.IntValues("a")[1]);
  EXPECT_EQ("a=2 a=12k", ItemsText(m_stConfig.EnumValues("a")));
}

TEST_F(ConfigTranslateTest, ItemsStayRaw) {
  ASSERT_EQ(0, Load("<a>@(m)</a>"));
  m_stConfig.SetMacroVariable("m", "1");
  EXPECT_STREQ("1", m_stConfig.StringValue("a"));
  EXPECT_EQ("a=@(m)", Items());
}

TEST_F(ConfigTranslateTest, MacrosAreSetReplacedAndRead) {
  EXPECT_STREQ("", m_stConfig.GetMacroVariable("m"));
  m_stConfig.SetMacroVariable("m", "text");
  EXPECT_STREQ("text", m_stConfig.GetMacroVariable("m"));
  m_stConfig.SetMacroVariable("m", UINT64_MAX);
  EXPECT_STREQ("18446744073709551615", m_stConfig.GetMacroVariable("m"));
  m_stConfig.SetMacroVariable("m", "@(n)");
  EXPECT_STREQ("@(n)", m_stConfig.GetMacroVariable("m"));
}

TEST_F(ConfigTranslateTest, MacrosBelongToOneObject) {
  Config stOther;
  stOther.SetMacroVariable("m", "1");
  EXPECT_EQ("", Translate("@(m)"));
}

TEST_F(ConfigTranslateTest, TenThousandReferencesAreReplaced) {
  std::string strText;
  std::string strExpected;
  m_stConfig.SetMacroVariable("m", "v");
  for (int i = 0; i < 10000; ++i) {
    strText += "@(m)";
    strExpected += "v";
  }
  EXPECT_EQ(strExpected, Translate(strText));
}

}  // namespace
