#include "internal/reference_scanner.h"

#include <gtest/gtest.h>

#include <clocale>
#include <random>
#include <string>

namespace {

const char EXPRESSION[] = "([$@])[{(]([^)}]*)[})]";
const char UTF8_LOCALE[] = "C.UTF-8";
const size_t RANDOM_TEXTS = 400000;
const size_t RANDOM_LENGTH = 24;
const size_t EXHAUSTIVE_LENGTH = 7;

// The expression itself, beside which the scanner is held.
class Expression {
 public:
  Expression() { m_bReady = regcomp(&m_sRegex, EXPRESSION, REG_EXTENDED | REG_ICASE) == 0; }
  ~Expression() { regfree(&m_sRegex); }
  Expression(const Expression&) = delete;
  Expression& operator=(const Expression&) = delete;

  // "begin-end" of the match and of its name, "(none)" without one.
  std::string Find(const std::string& strText) const {
    regmatch_t szMatch[3];
    if (!m_bReady || regexec(&m_sRegex, strText.c_str(), 3, szMatch, 0) != 0) {
      return "(none)";
    }
    EXPECT_EQ(szMatch[0].rm_so, szMatch[1].rm_so);
    EXPECT_EQ(szMatch[0].rm_so + 2, szMatch[2].rm_so);
    EXPECT_EQ(szMatch[0].rm_eo - 1, szMatch[2].rm_eo);
    return std::to_string(szMatch[0].rm_so) + "-" + std::to_string(szMatch[0].rm_eo);
  }

 private:
  regex_t m_sRegex{};
  bool m_bReady;
};

class ReferenceScannerTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    ASSERT_NE(nullptr, setlocale(LC_ALL, GetParam()));
    // Scanners are static as a rule: the expression of each is compiled once and kept.
    static ReferenceScanner szScanners[2];
    m_pScanner = &szScanners[std::string(GetParam()) == UTF8_LOCALE ? 1 : 0];
  }
  void TearDown() override { setlocale(LC_ALL, "C"); }

  std::string Find(const std::string& strText) {
    Reference stFound{};
    if (!m_pScanner->Find(strText, stFound)) {
      return "(none)";
    }
    return std::to_string(stFound.iBegin) + "-" + std::to_string(stFound.iEnd);
  }

  ReferenceScanner* m_pScanner = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Locales, ReferenceScannerTest, ::testing::Values("C", UTF8_LOCALE),
                         [](const auto& stInfo) {
                           return std::string(stInfo.index == 0 ? "Bytes" : "Utf8");
                         });

TEST_P(ReferenceScannerTest, EitherSigilAndAnyPairOfBracketsMakeAReference) {
  for (const char* pText : {"$(a)", "$(a}", "${a)", "${a}", "@(a)", "@(a}", "@{a)", "@{a}"}) {
    EXPECT_EQ("0-4", Find(pText)) << pText;
  }
  EXPECT_EQ("0-3", Find("$()"));
  EXPECT_EQ("1-8", Find("x$(a\n b)y"));
}

TEST_P(ReferenceScannerTest, WhatLacksOnePartIsNoReference) {
  for (const char* pText : {"", "$", "@", "$(", "$(a", "$a)", "$ (a)", "(a)", "$[a]", "$<a>"}) {
    EXPECT_EQ("(none)", Find(pText)) << pText;
  }
}

TEST_P(ReferenceScannerTest, LeftmostSigilWithABracketBeginsAndFirstClosingBracketEnds) {
  EXPECT_EQ("0-6", Find("$($(a)b)"));
  EXPECT_EQ("2-6", Find("$$$(a)"));
  EXPECT_EQ("2-6", Find("@$@{a)$(b)"));
}

TEST_P(ReferenceScannerTest, NulEndsTheText) {
  EXPECT_EQ("(none)", Find(std::string("\0$(a)", 5)));
  EXPECT_EQ("(none)", Find(std::string("$\0$(a)", 6)));
  EXPECT_EQ("(none)", Find(std::string("$(\0a)", 5)));
  EXPECT_EQ("0-4", Find(std::string("$(a)\0$(b)", 9)));
}

TEST_P(ReferenceScannerTest, NamesOfValidCharactersAreFoundInEveryLocale) {
  EXPECT_EQ("3-9", Find("\xe2\x82\xac$(\xe2\x82\xac)"));
}

TEST_P(ReferenceScannerTest, BytesThatAreNoCharacterCountOnlyInALocaleOfSingleBytes) {
  const bool bUtf8 = std::string(GetParam()) == UTF8_LOCALE;
  EXPECT_EQ(bUtf8 ? "(none)" : "0-4", Find("$(\xff)"));
  EXPECT_EQ(bUtf8 ? "4-8" : "0-4", Find("$(\xff)@(a)"));
  EXPECT_EQ("1-5", Find("\xff$(a)\xff"));
}

// Every text of at most seven of the characters that matter.
TEST_P(ReferenceScannerTest, SameAsTheExpressionOnEveryShortText) {
  const std::string strAlphabet = "$@({)}a";
  const Expression stExpression;
  std::string strText;
  for (size_t iLength = 0; iLength <= EXHAUSTIVE_LENGTH; ++iLength) {
    size_t iTexts = 1;
    for (size_t i = 0; i < iLength; ++i) {
      iTexts *= strAlphabet.size();
    }
    strText.resize(iLength);
    for (size_t iNumber = 0; iNumber < iTexts; ++iNumber) {
      size_t iRest = iNumber;
      for (char& cByte : strText) {
        cByte = strAlphabet[iRest % strAlphabet.size()];
        iRest /= strAlphabet.size();
      }
      ASSERT_EQ(stExpression.Find(strText), Find(strText)) << strText;
    }
  }
}

TEST_P(ReferenceScannerTest, SameAsTheExpressionOnRandomBytes) {
  const std::string strAlphabet("$$$@@((({{))}}aZ \n\0\x7f\x80\x82\xac\xc3\xa4\xe2\xf0\xff", 28);
  const Expression stExpression;
  std::mt19937 stRandom(20240102);
  for (size_t i = 0; i < RANDOM_TEXTS; ++i) {
    std::string strText(stRandom() % (RANDOM_LENGTH + 1), '\0');
    for (char& cByte : strText) {
      cByte = stRandom() % 8 == 0 ? static_cast<char>(stRandom() % 256)
                                  : strAlphabet[stRandom() % strAlphabet.size()];
    }
    ASSERT_EQ(stExpression.Find(strText), Find(strText)) << ::testing::PrintToString(strText);
  }
}

ReferenceScanner g_stScanner;

std::string Macro(const std::string& strName) { return "<" + strName + ">"; }

TEST(ReferenceScannerTranslateTest, ReplacesEveryReference) {
  setenv("ZELK_SCANNER_TEST", "1", 1);
  EXPECT_EQ("1x<b.c>y", g_stScanner.Translate("${ZELK_SCANNER_TEST}x@(b.c)y", Macro));
  EXPECT_EQ("< b >", g_stScanner.Translate("@( b }", Macro));
  unsetenv("ZELK_SCANNER_TEST");
  EXPECT_EQ("x", g_stScanner.Translate("${ZELK_SCANNER_TEST}x", Macro));
}

TEST(ReferenceScannerTranslateTest, SearchesTheWholeTextAgainAfterEachReplacement) {
  const auto fnNested = [](const std::string& strName) {
    return std::string(strName == "a" ? "@(b)" : strName == "b" ? "" : "(" + strName + ")");
  };
  EXPECT_EQ("", g_stScanner.Translate("@(a)", fnNested));
  EXPECT_EQ("", g_stScanner.Translate("$@(ZELK_NOT_SET)", fnNested));
  EXPECT_EQ("(c)", g_stScanner.Translate("@@(b)@(c)", fnNested));
}

TEST(ReferenceScannerTranslateTest, KeepsWhatStandsBehindANul) {
  EXPECT_EQ(std::string("<a>\0@(b)", 8),
            g_stScanner.Translate(std::string("@(a)\0@(b)", 9), Macro));
}

}  // namespace
