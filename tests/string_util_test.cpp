#include "string_util.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include "test_support.h"

namespace {

typedef std::vector<std::string> Fields_t;

Fields_t StringSplitOf(const std::string& strText, const std::string& strDelimiters) {
  Fields_t vecFields;
  StringSplit(strText, strDelimiters, vecFields);
  return vecFields;
}

Fields_t SplitOf(const std::string& strText, const std::string& strSeparator) {
  Fields_t vecFields;
  Split(strText, strSeparator, vecFields);
  return vecFields;
}

std::string TrimmedLeft(std::string strText, const char* pChars) {
  TrimLeft(strText, pChars);
  return strText;
}

std::string TrimmedRight(std::string strText, const char* pChars) {
  TrimRight(strText, pChars);
  return strText;
}

std::string Trimmed(std::string strText, const char* pChars) {
  Trim(strText, pChars);
  return strText;
}

__attribute__((format(printf, 3, 4))) int CallV(char* pBuffer, unsigned int iSize,
                                                const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  const int iLength = vFormatString(pBuffer, iSize, pFormat, sAp);
  va_end(sAp);
  return iLength;
}

TEST(FormatStringTest, FillsTheBufferAndReturnsTheLength) {
  char szBuffer[16];
  EXPECT_EQ(5, FormatString(szBuffer, sizeof(szBuffer), "%s-%d", "ab", 12));
  EXPECT_STREQ("ab-12", szBuffer);
  EXPECT_EQ(4, CallV(szBuffer, sizeof(szBuffer), "%c%03d", 'x', 7));
  EXPECT_STREQ("x007", szBuffer);
}

TEST(FormatStringTest, CutsAtTheBufferAndReturnsTheWholeLength) {
  char szBuffer[] = "########";
  EXPECT_EQ(10, FormatString(szBuffer, 4, "%s", "0123456789"));
  EXPECT_EQ(std::string("012\0####", 8), std::string(szBuffer, 8));
  EXPECT_EQ(6, CallV(szBuffer, 1, "%d", 123456));
  EXPECT_STREQ("", szBuffer);
}

TEST(FormatStringTest, SizeZeroWritesNothing) {
  char cByte = '#';
  EXPECT_EQ(3, FormatString(&cByte, 0, "abc"));
  EXPECT_EQ('#', cByte);
}

TEST(FormatStringTest, OwnBufferIsOverwrittenByTheNextCall) {
  const char* pFirst = FormatString("%d", 1);
  EXPECT_STREQ("1", pFirst);
  EXPECT_EQ(pFirst, FormatString("%s", "two"));
  EXPECT_STREQ("two", pFirst);
}

TEST(FormatStringTest, OwnBufferHolds2047Characters) {
  const std::string strFits(2047, 'x');
  EXPECT_EQ(strFits, FormatString("%s", strFits.c_str()));
  EXPECT_EQ(strFits, FormatString("%sy", strFits.c_str()));
}

TEST(TrimTest, LeftAndRightTakeTheirOwnEndOnly) {
  EXPECT_EQ("a b  ", TrimmedLeft("  a b  ", " "));
  EXPECT_EQ("  a b", TrimmedRight("  a b  ", " "));
  EXPECT_EQ("a b", Trimmed("  a b  ", " "));
}

TEST(TrimTest, EveryCharacterOfTheSetIsTaken) {
  EXPECT_EQ("key", Trimmed(" \t\"key\"\r\n", " \t\r\n\""));
  EXPECT_EQ("-a-", Trimmed("xy-a-yx", "yx"));
}

TEST(TrimTest, TextOfStripCharactersOnlyBecomesEmpty) {
  EXPECT_EQ("", TrimmedLeft(" \t ", " \t"));
  EXPECT_EQ("", TrimmedRight(" \t ", " \t"));
  EXPECT_EQ("", Trimmed(" \t ", " \t"));
  EXPECT_EQ("", Trimmed("", " "));
}

TEST(TrimTest, EmptySetChangesNothing) {
  EXPECT_EQ(" a ", TrimmedLeft(" a ", ""));
  EXPECT_EQ(" a ", TrimmedRight(" a ", ""));
  EXPECT_EQ(" a ", Trimmed(" a ", ""));
}

TEST(TrimTest, NulIsNeverInTheSet) {
  const std::string strText("\0a\0", 3);
  EXPECT_EQ(strText, Trimmed(strText, ""));
  EXPECT_EQ(strText, Trimmed(" " + strText + " ", " "));
}

TEST(StringSplitTest, RunsOfDelimitersCountAsOne) {
  EXPECT_EQ((Fields_t{"a", "b"}), StringSplitOf("a,,b", ","));
  EXPECT_EQ((Fields_t{"a"}), StringSplitOf(",,a,,", ","));
  EXPECT_EQ((Fields_t{}), StringSplitOf(",,,", ","));
  EXPECT_EQ((Fields_t{}), StringSplitOf("", ","));
}

TEST(StringSplitTest, EveryDelimiterOfTheSetSplits) {
  EXPECT_EQ((Fields_t{"a", "b", "c d"}), StringSplitOf("a;b,;c d", ",;"));
}

TEST(StringSplitTest, EmptySetGivesTheTextWhole) {
  EXPECT_EQ((Fields_t{"a,b"}), StringSplitOf("a,b", ""));
}

TEST(StringSplitTest, TextEndsAtItsFirstNul) {
  EXPECT_EQ((Fields_t{"a", "b"}), StringSplitOf(std::string("a,b\0,c", 6), ","));
}

TEST(StringSplitTest, AppendsAndLeavesTheTextAlone) {
  Fields_t vecFields{"a,b"};
  StringSplit(vecFields[0], ",", vecFields);  // the text may be one of the fields
  EXPECT_EQ((Fields_t{"a,b", "a", "b"}), vecFields);
}

TEST(SplitTest, KeepsEmptyFieldsBetweenSeparators) {
  EXPECT_EQ((Fields_t{"a", "", "b"}), SplitOf("a,,b", ","));
  EXPECT_EQ((Fields_t{"", "", "a", ""}), SplitOf(",,a,,", ","));
}

TEST(SplitTest, SeparatorAtTheEndAddsNoField) {
  EXPECT_EQ((Fields_t{"a"}), SplitOf("a,", ","));
  EXPECT_EQ((Fields_t{""}), SplitOf(",", ","));
  EXPECT_EQ((Fields_t{}), SplitOf("", ","));
}

TEST(SplitTest, SeparatorIsAWholeString) {
  EXPECT_EQ((Fields_t{"a", "b:c", "d"}), SplitOf("a::b:c::d", "::"));
  EXPECT_EQ((Fields_t{"", ":a"}), SplitOf(":::a", "::"));
  EXPECT_EQ((Fields_t{"a:"}), SplitOf("a:", "::"));
}

TEST(SplitTest, NulIsACharacterLikeAnyOther) {
  EXPECT_EQ((Fields_t{"a", "b"}), SplitOf(std::string("a\0b", 3), std::string(1, '\0')));
}

TEST(SplitTest, AppendsToTheFields) {
  Fields_t vecFields{"kept"};
  Split("a,b", ",", vecFields);
  EXPECT_EQ((Fields_t{"kept", "a", "b"}), vecFields);
}

TEST(SplitTest, EmptySeparatorNeverAdvances) {
  const int iStillAtWork = 42;
  ForkedPeer stCaller([] {
    signal(SIGVTALRM, [](int) { _exit(iStillAtWork); });
    const itimerval stLimit{{0, 0}, {0, 20000}};
    setitimer(ITIMER_VIRTUAL, &stLimit, nullptr);
    SplitOf("a", "");
    return 0;
  });
  EXPECT_EQ(iStillAtWork, stCaller.Wait());
}

TEST(StringToIntTest, DecimalTakesBlanksAndASign) {
  EXPECT_EQ(17, StringToInt("17"));
  EXPECT_EQ(-17, StringToInt(" \t-17"));
  EXPECT_EQ(17, StringToInt("+17"));
  EXPECT_EQ(5, StringToInt("5x"));
}

TEST(StringToIntTest, LeadingZeroIsNotOctal) {
  EXPECT_EQ(10, StringToInt("010"));
  EXPECT_EQ(9, StringToInt("09"));
}

TEST(StringToIntTest, HexadecimalCountsOnlyAtTheVeryBeginning) {
  EXPECT_EQ(31, StringToInt("0x1F"));
  EXPECT_EQ(31, StringToInt("0X1f"));
  EXPECT_EQ(10, StringToInt("0xa"));
  EXPECT_EQ(0, StringToInt("0x"));
  EXPECT_EQ(0, StringToInt("0xZ"));
  EXPECT_EQ(0, StringToInt(" 0x10"));
  EXPECT_EQ(0, StringToInt("-0x10"));
}

TEST(StringToIntTest, SuffixScalesInEitherCase) {
  EXPECT_EQ(10 * 1024, StringToInt("10k"));
  EXPECT_EQ(10 * 1024, StringToInt("10K"));
  EXPECT_EQ(3 * 1048576, StringToInt("3m"));
  EXPECT_EQ(3 * 1048576, StringToInt("3M"));
  EXPECT_EQ(1073741824, StringToInt("1g"));
  EXPECT_EQ(2147483648, StringToInt("2G"));
  EXPECT_EQ(31 * 1024, StringToInt("0x1FK"));
}

TEST(StringToIntTest, OnlyTheFirstCharacterAfterTheNumberIsASuffix) {
  EXPECT_EQ(10240, StringToInt("10KB"));
  EXPECT_EQ(1, StringToInt("1.5M"));
  EXPECT_EQ(10, StringToInt("10 K"));
  EXPECT_EQ(10, StringToInt("10T"));
}

TEST(StringToIntTest, SignSurvivesTheScale) {
  EXPECT_EQ(-1024, StringToInt("-1k"));
  EXPECT_EQ(-2147483648, StringToInt("-2G"));
}

TEST(StringToIntTest, TextWithoutANumberIsZero) {
  EXPECT_EQ(0, StringToInt(""));
  EXPECT_EQ(0, StringToInt("abc"));
  EXPECT_EQ(0, StringToInt("K"));
  EXPECT_EQ(0, StringToInt("-"));
}

TEST(StringToIntTest, ValueBeyond64BitsIsTheNearestThatFits) {
  EXPECT_EQ(INT64_MAX, StringToInt("9223372036854775808"));
  EXPECT_EQ(INT64_MIN, StringToInt("-9223372036854775809"));
  EXPECT_EQ(INT64_MAX, StringToInt("0xFFFFFFFFFFFFFFFF"));
}

TEST(StringToIntTest, ScaleShiftsBitsOutWithoutHarm) {
  EXPECT_EQ(-1024, StringToInt("9223372036854775807K"));
  EXPECT_EQ(0, StringToInt("17179869184G"));
}

TEST(StringToBoolTest, TrueAndYesInAnyCaseAreTrue) {
  for (const char* pText : {"true", "TRUE", "True", "yes", "YES", "yEs"}) {
    EXPECT_TRUE(StringToBool(pText)) << pText;
  }
}

TEST(StringToBoolTest, EverythingElseIsFalse) {
  for (const char* pText : {"", "1", "on", "y", "t", "no", "false", "true ", " yes", "0x1"}) {
    EXPECT_FALSE(StringToBool(pText)) << pText;
  }
}

}  // namespace
