// Values, counts, numbers, names and references.

#include <cstdlib>
#include <functional>
#include <utility>

#include "ini_config.h"
#include "ini_fixture.h"

namespace {

class IniConfigLookupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, m_stConfig.LoadFromMemory("a=1\na.b=9\n[s]\nb = 2 3\nb 4\nc.d=5\nempty"));
  }
  IniConfig m_stConfig;
};

TEST_F(IniConfigLookupTest, IndexChoosesAmongTheValuesOfAKey) {
  EXPECT_EQ("2", m_stConfig.GetValue("s", "b"));
  EXPECT_EQ("2", m_stConfig.GetValue("s", "b", 0));
  EXPECT_EQ("4", m_stConfig.GetValue("s", "b", 1));
  EXPECT_EQ("", m_stConfig.GetValue("s", "b", 2));
  EXPECT_EQ("", m_stConfig.GetValue("s", "b", -1));
  EXPECT_EQ("", m_stConfig.GetValue("s", "b", INT32_MIN));
}

TEST_F(IniConfigLookupTest, WhatIsMissingIsEmpty) {
  EXPECT_EQ("", m_stConfig.GetValue("s", "a"));
  EXPECT_EQ("", m_stConfig.GetValue("t", "b"));
  EXPECT_EQ("", m_stConfig.GetValue("", "b"));
  EXPECT_EQ("", m_stConfig.GetValue("s", "empty"));
  EXPECT_EQ("", IniConfig().GetValue("", ""));
}

TEST_F(IniConfigLookupTest, NamesAreCaseSensitive) {
  EXPECT_EQ("", m_stConfig.GetValue("S", "b"));
  EXPECT_EQ("", m_stConfig.GetValue("s", "B"));
}

TEST_F(IniConfigLookupTest, FullNameIsSplitAtTheFirstDot) {
  EXPECT_EQ("2", m_stConfig.GetValueByFullName("s.b", 0));
  EXPECT_EQ("4", m_stConfig.GetValueByFullName("s.b", 1));
  EXPECT_EQ("1", m_stConfig.GetValueByFullName("a"));
  EXPECT_EQ("1", m_stConfig.GetValueByFullName(".a"));
  EXPECT_EQ("5", m_stConfig.GetValueByFullName("s.c.d"));
  EXPECT_EQ("", m_stConfig.GetValueByFullName("a.b"));  // section "a"
  EXPECT_EQ("9", m_stConfig.GetValueByFullName(".a.b"));
  EXPECT_EQ("", m_stConfig.GetValueByFullName("s."));
  EXPECT_EQ("", m_stConfig.GetValueByFullName(""));
}

TEST_F(IniConfigLookupTest, CountIsTheNumberOfValues) {
  EXPECT_EQ(2u, m_stConfig.Count("s", "b"));
  EXPECT_EQ(1u, m_stConfig.Count("s", "empty"));
  EXPECT_EQ(0u, m_stConfig.Count("s", "x"));
  EXPECT_EQ(0u, m_stConfig.Count("x", "b"));
}

TEST_F(IniConfigLookupTest, LookupsMakeNoSectionsAndKeys) {
  const Texts_t vecBefore = ItemsOf(m_stConfig);
  m_stConfig.Count("new", "k");
  m_stConfig.GetValue("new", "k");
  m_stConfig.IntValue("s", "k");
  m_stConfig.EnumKeys("new", "");
  EXPECT_EQ(vecBefore, ItemsOf(m_stConfig));
  EXPECT_EQ((Texts_t{"", "s"}), m_stConfig.EnumSections(""));
}

TEST_F(IniConfigLookupTest, LoadingDoesNotMakeTheGlobalSectionToLookForIncludes) {
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromMemory("[s]\na=1"));
  EXPECT_EQ(Texts_t{"s"}, stConfig.EnumSections(""));
}

TEST_F(IniConfigLookupTest, EnumSectionsGivesTheNamesThatTheFilterPasses) {
  ASSERT_EQ(0, m_stConfig.LoadFromMemory("[t1]\na\n[t2]\na\n[xt]\na"));
  EXPECT_EQ((Texts_t{"", "s", "t1", "t2", "xt"}), m_stConfig.EnumSections(""));
  EXPECT_EQ((Texts_t{"t1", "t2", "xt"}), m_stConfig.EnumSections("t"));
  EXPECT_EQ((Texts_t{"t1", "t2"}), m_stConfig.EnumSections("^t[0-9]+$"));
  EXPECT_EQ(Texts_t{""}, m_stConfig.EnumSections("^$"));
  EXPECT_EQ(Texts_t{}, m_stConfig.EnumSections("T"));
}

TEST_F(IniConfigLookupTest, EnumKeysGivesAKeyOnceForEachValue) {
  EXPECT_EQ((Texts_t{"b", "b", "c.d", "empty"}), m_stConfig.EnumKeys("s", ""));
  EXPECT_EQ((Texts_t{"b", "b"}), m_stConfig.EnumKeys("s", "^b"));
  EXPECT_EQ((Texts_t{"c.d"}), m_stConfig.EnumKeys("s", "\\."));
  EXPECT_EQ((Texts_t{"a", "a.b"}), m_stConfig.EnumKeys("", ""));
  EXPECT_EQ(Texts_t{}, m_stConfig.EnumKeys("t", ""));
}

TEST_F(IniConfigLookupTest, InvalidFilterGivesNothing) {
  EXPECT_EQ(Texts_t{}, m_stConfig.EnumSections("("));
  EXPECT_EQ(Texts_t{}, m_stConfig.EnumKeys("s", "[a"));
  EXPECT_EQ(Texts_t{}, m_stConfig.EnumKeys("t", "("));
}

// After so many lookups that they go through the index.
class IniConfigIndexTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int i = 0; i < 300; ++i) {
      const std::string strNumber = std::to_string(i);
      m_stConfig.SetValue("s" + std::to_string(i % 7), "k" + strNumber, strNumber);
    }
    LookUp(m_stConfig);
  }
  static void LookUp(const IniConfig& stConfig) {
    for (int i = 0; i < 1000; ++i) {
      stConfig.GetValue("s", "k");
    }
  }
  IniConfig m_stConfig;
};

TEST_F(IniConfigIndexTest, FindsWhatIsThereAndNothingElse) {
  for (int i = 0; i < 300; ++i) {
    const std::string strKey = "k" + std::to_string(i);
    EXPECT_EQ(std::to_string(i), m_stConfig.GetValue("s" + std::to_string(i % 7), strKey));
    EXPECT_EQ("", m_stConfig.GetValue("s" + std::to_string((i + 1) % 7), strKey));
    EXPECT_EQ("", m_stConfig.GetValue("", strKey));
    EXPECT_EQ("", m_stConfig.GetValue("s" + std::to_string(i % 7), strKey, 1));
    EXPECT_EQ("", m_stConfig.GetValue("s" + std::to_string(i % 7), strKey, -1));
  }
}

TEST_F(IniConfigIndexTest, KnowsAllValuesOfAKey) {
  for (int i = 0; i < 10; ++i) {
    m_stConfig.SetValue("s1", "k1", "more" + std::to_string(i));
  }
  LookUp(m_stConfig);
  EXPECT_EQ("1", m_stConfig.GetValue("s1", "k1"));
  EXPECT_EQ("more0", m_stConfig.GetValue("s1", "k1", 1));
  EXPECT_EQ("more9", m_stConfig.GetValue("s1", "k1", 10));
  EXPECT_EQ("", m_stConfig.GetValue("s1", "k1", 11));
}

TEST_F(IniConfigIndexTest, EveryChangeIsSeenAtOnce) {
  m_stConfig.SetValue("s1", "new", "1");
  EXPECT_EQ("1", m_stConfig.GetValue("s1", "new"));
  LookUp(m_stConfig);
  ASSERT_EQ(0, m_stConfig.LoadFromMemory("text=2"));
  EXPECT_EQ("2", m_stConfig.GetValue("", "text"));
  LookUp(m_stConfig);
  ASSERT_EQ(0, m_stConfig.LoadFromMemory(Texts_t{"line=3"}));
  EXPECT_EQ("3", m_stConfig.GetValue("", "line"));
  LookUp(m_stConfig);
  const PrivateDirectory stDirectory;
  WriteFile(stDirectory.File("a.ini"), "file=4\n");
  ASSERT_EQ(0, m_stConfig.LoadFromFile(stDirectory.File("a.ini").c_str()));
  EXPECT_EQ("4", m_stConfig.GetValue("", "file"));
  LookUp(m_stConfig);
  ASSERT_EQ(0, m_stConfig.Reload());
  EXPECT_EQ("", m_stConfig.GetValue("s1", "k1"));
  EXPECT_EQ("4", m_stConfig.GetValue("", "file"));
}

TEST_F(IniConfigIndexTest, ClearedObjectIsEmpty) {
  m_stConfig.Clear();
  EXPECT_EQ("", m_stConfig.GetValue("s1", "k1"));
  LookUp(m_stConfig);
  EXPECT_EQ("", m_stConfig.GetValue("s1", "k1"));
}

TEST_F(IniConfigIndexTest, CopiesHaveTheirOwn) {
  IniConfig stAssigned;
  {
    IniConfig stOther;
    stOther.SetValue("s1", "k1", "other");
    LookUp(stOther);
    stAssigned = m_stConfig;
    m_stConfig = stOther;
  }
  const IniConfig stCopy(m_stConfig);
  EXPECT_EQ("other", m_stConfig.GetValue("s1", "k1"));
  EXPECT_EQ("other", stCopy.GetValue("s1", "k1"));
  EXPECT_EQ("1", stAssigned.GetValue("s1", "k1"));
  EXPECT_EQ("", m_stConfig.GetValue("s2", "k2"));
}

// A search ends at a free place, so there must always be one.
TEST_F(IniConfigIndexTest, MissingKeyIsMissingAmongAnyNumberOfKeys) {
  IniConfig stConfig;
  for (int i = 0; i < 130; ++i) {
    stConfig.SetValue("s", "k" + std::to_string(i), i);
    LookUp(stConfig);
    ASSERT_EQ("", stConfig.GetValue("s", "missing"));
    ASSERT_EQ(std::to_string(i), stConfig.GetValue("s", "k" + std::to_string(i)));
  }
}

TEST(IniConfigLookupAmongManySectionsTest, EverySectionIsFoundAfterAnyNumberOfLookups) {
  IniConfig stConfig;
  for (int i = 0; i < 600; ++i) {
    stConfig.SetValue("s" + std::to_string(i), "k", std::to_string(i));
  }
  for (int i = 0; i < 2000; ++i) {
    const std::string strNumber = std::to_string(i % 600);
    ASSERT_EQ(strNumber, stConfig.GetValue("s" + strNumber, "k"));
    ASSERT_EQ("", stConfig.GetValue("s" + strNumber, "none"));
  }
}

TEST_F(IniConfigIndexTest, NamesOfOneHashAreToldApart) {
  const std::string strTwin = "firstkeyofhash_1";
  const std::string strOther = "lewhhmnoUc7DmTUE";
  ASSERT_EQ(std::hash<std::string>()(strTwin), std::hash<std::string>()(strOther));
  m_stConfig.SetValue("s", strTwin, "key");
  m_stConfig.SetValue(strTwin, "k", "section");
  LookUp(m_stConfig);
  EXPECT_EQ("key", m_stConfig.GetValue("s", strTwin));
  EXPECT_EQ("section", m_stConfig.GetValue(strTwin, "k"));
  EXPECT_EQ("", m_stConfig.GetValue("s", strOther));
  EXPECT_EQ("", m_stConfig.GetValue(strOther, "k"));
  m_stConfig.SetValue("s", strOther, "other");
  LookUp(m_stConfig);
  EXPECT_EQ("key", m_stConfig.GetValue("s", strTwin));
  EXPECT_EQ("other", m_stConfig.GetValue("s", strOther));
}

TEST_F(IniConfigIndexTest, ObjectThatWasMovedFromFindsNothingOfTheOther) {
  const IniConfig stTaken(std::move(m_stConfig));
  EXPECT_EQ("1", stTaken.GetValue("s1", "k1"));
  EXPECT_EQ("", m_stConfig.GetValue("s1", "k1"));
  m_stConfig.SetValue("s1", "k1", "again");
  LookUp(m_stConfig);
  EXPECT_EQ("again", m_stConfig.GetValue("s1", "k1"));
  IniConfig stAssigned;
  stAssigned = std::move(m_stConfig);
  EXPECT_EQ("again", stAssigned.GetValue("s1", "k1"));
  EXPECT_EQ("", m_stConfig.GetValue("s1", "k1"));
}

TEST_F(IniConfigIndexTest, AssignmentToItselfChangesNothing) {
  const IniConfig& stSame = m_stConfig;
  m_stConfig = stSame;
  EXPECT_EQ("1", m_stConfig.GetValue("s1", "k1"));
  LookUp(m_stConfig);
  EXPECT_EQ("1", m_stConfig.GetValue("s1", "k1"));
}

// IntValue() of a value, which is not restricted to the grammar of lines.
int64_t Number(const std::string& strValue) {
  IniConfig stConfig;
  stConfig.SetValue("s", "k", strValue);
  return stConfig.IntValue("s", "k");
}

TEST(IniConfigIntTest, IsDecimalUnlessItBeginsWith0x) {
  EXPECT_EQ(16, Number("0x10"));
  EXPECT_EQ(10, Number("0xa"));
  EXPECT_EQ(255, Number("0Xff"));
  EXPECT_EQ(10, Number("010"));
  EXPECT_EQ(-7, Number("-7"));
  EXPECT_EQ(7, Number(" +7"));
  EXPECT_EQ(0, Number("0x"));
  EXPECT_EQ(0, Number("0X"));
  EXPECT_EQ(0, Number("-0x10"));  // the sign stands before the prefix: decimal
  EXPECT_EQ(-16, Number("0x-10"));
}

TEST(IniConfigIntTest, SuffixScalesByPowersOfTwo) {
  EXPECT_EQ(4096, Number("4k"));
  EXPECT_EQ(4096, Number("4K"));
  EXPECT_EQ(3145728, Number("3m"));
  EXPECT_EQ(3145728, Number("3M"));
  EXPECT_EQ(2147483648, Number("2G"));
  EXPECT_EQ(2147483648, Number("2g"));
  EXPECT_EQ(1099511627776, Number("1t"));
  EXPECT_EQ(1099511627776, Number("1T"));
  EXPECT_EQ(16384, Number("0x10K"));
  EXPECT_EQ(-1024, Number("-1k"));
}

TEST(IniConfigIntTest, BlanksAndTabsMayStandBeforeTheSuffix) {
  EXPECT_EQ(4096, Number("4 K"));
  EXPECT_EQ(4096, Number("4 \t k"));
  EXPECT_EQ(4, Number("4\nk"));
}

TEST(IniConfigIntTest, OtherTextBehindTheNumberIsIgnored) {
  EXPECT_EQ(12, Number("12abc"));
  EXPECT_EQ(10240, Number("10KB"));
  EXPECT_EQ(1, Number("1.5M"));
  EXPECT_EQ(3, Number("3 x k"));
}

TEST(IniConfigIntTest, WithoutANumberItIsZero) {
  EXPECT_EQ(0, Number(""));
  EXPECT_EQ(0, Number("k"));
  EXPECT_EQ(0, Number("abc"));
  EXPECT_EQ(0, Number("0xg"));
  IniConfig stConfig;
  EXPECT_EQ(0, stConfig.IntValue("s", "k"));
  EXPECT_EQ(0, stConfig.IntValue("s", "k", -1));
}

TEST(IniConfigIntTest, LargeNumbersAreTheNearestAndLoseWhatIsShiftedOut) {
  EXPECT_EQ(INT64_MAX, Number("9223372036854775807"));
  EXPECT_EQ(INT64_MAX, Number("99999999999999999999"));
  EXPECT_EQ(INT64_MIN, Number("-99999999999999999999"));
  EXPECT_EQ(-1024, Number("99999999999999999999k"));
  EXPECT_EQ(INT64_MAX, Number("0x8000000000000000"));
  EXPECT_EQ(0, Number("0x1000000T"));
}

TEST(IniConfigIntTest, IndexAndReferencesApply) {
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromMemory("n=4\n[s]\nk=1\nk=@(n)k"));
  EXPECT_EQ(1, stConfig.IntValue("s", "k"));
  EXPECT_EQ(4096, stConfig.IntValue("s", "k", 1));
  EXPECT_EQ(0, stConfig.IntValue("s", "k", 2));
}

// With macros, as a derived class can have them, and an environment of its own.
class MacroConfig : public IniConfig {
 public:
  using IniConfig::Macros;
};

class IniConfigReferenceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, setenv("INI_TEST", "env", 1));
    ASSERT_EQ(0, unsetenv("INI_TEST_MISSING"));
    ASSERT_EQ(
        0, m_stConfig.LoadFromMemory("name=n\n[db]\nhost=h\nhost=second\nfull=@(name).@(db.host)"));
  }
  void TearDown() override { unsetenv("INI_TEST"); }
  std::string Translate(const std::string& strText) { return m_stConfig.TranslateValue(strText); }

  MacroConfig m_stConfig;
};

TEST_F(IniConfigReferenceTest, DollarIsTheEnvironment) {
  EXPECT_EQ("env", Translate("$(INI_TEST)"));
  EXPECT_EQ("<env>", Translate("<${INI_TEST}>"));
  EXPECT_EQ("", Translate("$(INI_TEST_MISSING)"));
  EXPECT_EQ("", Translate("$(name)"));
  EXPECT_EQ("", Translate("$()"));
}

TEST_F(IniConfigReferenceTest, AtIsAnotherKey) {
  EXPECT_EQ("n", Translate("@(name)"));
  EXPECT_EQ("h", Translate("@{db.host}"));  // the first value
  EXPECT_EQ("n.h", Translate("@(db.full)"));
  EXPECT_EQ("", Translate("@(db.missing)@(INI_TEST)@()"));
}

TEST_F(IniConfigReferenceTest, MacrosHideKeys) {
  m_stConfig.Macros() = {
      {"name", "macro"}, {"db.host", ""}, {"INI_TEST", "wrong"}, {"m", "@(x)"}, {"x", "y"}};
  EXPECT_EQ("macro", Translate("@(name)"));
  EXPECT_EQ("", Translate("@(db.host)"));
  EXPECT_EQ("env", Translate("$(INI_TEST)"));  // never a macro
  EXPECT_EQ("y", Translate("@(m)"));
}

TEST_F(IniConfigReferenceTest, BracketsNeedNotMatch) {
  EXPECT_EQ("env", Translate("$(INI_TEST}"));
  EXPECT_EQ("n", Translate("@{name)"));
}

TEST_F(IniConfigReferenceTest, NameIsWhatStandsBetweenTheBrackets) {
  m_stConfig.SetValue("", " b (", "blank");
  m_stConfig.SetValue("", "a$(b", "inner");
  EXPECT_EQ("blank", Translate("@( b ()"));
  EXPECT_EQ("inner)", Translate("@(a$(b))"));  // up to the first closing bracket
  EXPECT_EQ("", Translate("@( name )"));
}

TEST_F(IniConfigReferenceTest, TextThatIsNoReferenceStays) {
  for (const char* pText :
       {"", "$", "@", "$x", "$ (a)", "$[a]", "(a)", "$(a", "${a", "@(", "a@b.c", "$$", "%(name)"}) {
    EXPECT_EQ(pText, Translate(pText));
  }
}

TEST_F(IniConfigReferenceTest, AllReferencesOfATextAreReplaced) {
  EXPECT_EQ("1n2env3h4", Translate("1@(name)2$(INI_TEST)3@(db.host)4"));
  EXPECT_EQ("$n@h$", Translate("$@(name)@@(db.host)$"));
}

TEST_F(IniConfigReferenceTest, ReplacementIsSearchedAgain) {
  ASSERT_EQ(0, setenv("INI_TEST", "@(db.host)", 1));
  EXPECT_EQ("h", Translate("$(INI_TEST)"));
}

TEST_F(IniConfigReferenceTest, ReplacementAndItsSurroundingsMakeNewReferences) {
  m_stConfig.SetValue("", "bracketed", "(name)");
  m_stConfig.SetValue("", "sigil", "@");
  m_stConfig.SetValue("", "open", "@(na");
  m_stConfig.SetValue("", "nothing", "");
  EXPECT_EQ("n", Translate("@@(bracketed)"));
  EXPECT_EQ("n", Translate("@(sigil)(name)"));
  EXPECT_EQ("n", Translate("@(open)me)"));
  EXPECT_EQ("n", Translate("@@(nothing)(name)"));
  EXPECT_EQ("n", Translate("@@(nothing)@(nothing){name}"));
}

TEST_F(IniConfigReferenceTest, OnlyTheTextBeforeANulIsSearched) {
  using std::string_literals::operator""s;
  EXPECT_EQ("n\0@(name)"s, Translate("@(name)\0@(name)"s));
  EXPECT_EQ("@(na\0me)"s, Translate("@(na\0me)"s));
}

TEST_F(IniConfigReferenceTest, LookupsExpandAndItemsStayRaw) {
  EXPECT_EQ("n.h", m_stConfig.GetValue("db", "full"));
  EXPECT_EQ("n.h", m_stConfig.GetValueByFullName("db.full"));
  EXPECT_EQ("@(name).@(db.host)", m_stConfig.AllItems().at("db").find("full")->second);
}

TEST_F(IniConfigReferenceTest, LongValuesComeThroughWhole) {
  const std::string strLong(100000, 'x');
  m_stConfig.SetValue("", "long", strLong);
  EXPECT_EQ(strLong + strLong, Translate("@(long)@(long)"));
}

TEST_F(IniConfigReferenceTest, ChainOfReferencesIsFollowedToItsEnd) {
  for (int i = 0; i < 500; ++i) {
    m_stConfig.SetValue("c", std::to_string(i), "@(c." + std::to_string(i + 1) + ")");
  }
  m_stConfig.SetValue("c", "500", "end");
  EXPECT_EQ("end", m_stConfig.GetValue("c", "0"));
}

TEST_F(IniConfigReferenceTest, CopiesHaveTheMacrosAndReloadEmptiesThem) {
  m_stConfig.Macros() = {{"name", "macro"}};
  MacroConfig stCopy(m_stConfig);
  EXPECT_EQ("macro", stCopy.TranslateValue("@(name)"));
  stCopy.Clear();
  EXPECT_EQ("macro", stCopy.TranslateValue("@(name)"));

  const PrivateDirectory stDirectory;
  WriteFile(stDirectory.File("a.ini"), "name=key\n");
  ASSERT_EQ(0, stCopy.LoadFromFile(stDirectory.File("a.ini").c_str()));
  EXPECT_EQ("macro", stCopy.TranslateValue("@(name)"));
  ASSERT_EQ(0, stCopy.Reload());
  EXPECT_EQ("key", stCopy.TranslateValue("@(name)"));
  EXPECT_TRUE(stCopy.Macros().empty());
}

}  // namespace
