#include "reply.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace {

// What a function appends behind something.
template <typename Append>
std::string Appended(Append fnAppend) {
  std::string strOut = "before";
  fnAppend(strOut);
  EXPECT_EQ("before", strOut.substr(0, 6));
  return strOut.substr(6);
}

TEST(KvReplyTest, EachKindHasItsForm) {
  EXPECT_EQ("+OK\r\n", Appended([](std::string& str) { AppendStatus(str, "OK"); }));
  EXPECT_EQ("-ERR x\r\n", Appended([](std::string& str) { AppendError(str, "ERR x"); }));
  EXPECT_EQ("$-1\r\n", Appended([](std::string& str) { AppendNull(str); }));
  EXPECT_EQ("*0\r\n", Appended([](std::string& str) { AppendArrayHead(str, 0); }));
  EXPECT_EQ("*1048576\r\n", Appended([](std::string& str) { AppendArrayHead(str, 1048576); }));
}

TEST(KvReplyTest, IntegersReachBothEnds) {
  const auto Integer = [](int64_t iValue) {
    return Appended([iValue](std::string& str) { AppendInteger(str, iValue); });
  };
  EXPECT_EQ(":0\r\n", Integer(0));
  EXPECT_EQ(":9223372036854775807\r\n", Integer(std::numeric_limits<int64_t>::max()));
  EXPECT_EQ(":-9223372036854775808\r\n", Integer(std::numeric_limits<int64_t>::min()));
}

TEST(KvReplyTest, BulkStringsHoldAnyBytes) {
  const std::string strBinary("a\0\r\n\xff", 5);
  EXPECT_EQ("$5\r\n" + strBinary + "\r\n",
            Appended([&](std::string& str) { AppendBulk(str, strBinary); }));
  EXPECT_EQ("$0\r\n\r\n", Appended([](std::string& str) { AppendBulk(str, ""); }));
}

TEST(KvReplyTest, AnErrorStaysOnItsLine) {
  EXPECT_EQ("-ERR a  b c\r\n",
            Appended([](std::string& str) { AppendError(str, "ERR a\r\nb\nc"); }));
}

TEST(KvReplyTest, ATooLongReplyNamesTheLimit) {
  EXPECT_EQ("-ERR reply longer than the limit of 1024 bytes (limits.output)\r\n",
            Appended([](std::string& str) { AppendReplyTooLong(str, 1024); }));
}

TEST(KvReplyTest, ErrorsAreToldFromTheRest) {
  EXPECT_TRUE(IsErrorReply("-ERR x\r\n"));
  EXPECT_FALSE(IsErrorReply(":-1\r\n"));
  EXPECT_FALSE(IsErrorReply(""));
}

TEST(KvReplyTest, IntegersAndBulkStringsComeBack) {
  EXPECT_EQ(-42, IntegerOfReply(":-42\r\n"));
  EXPECT_EQ("a\r\nb", BulkOfReply("$4\r\na\r\nb\r\n"));
  EXPECT_EQ("", BulkOfReply("$0\r\n\r\n"));
}

TEST(KvReplyTest, ElementsOfAnArrayComeBackWhole) {
  const std::string strArray = "*4\r\n$1\r\na\r\n$-1\r\n$0\r\n\r\n$4\r\n\r\n$1\r\n";
  const std::vector<std::string_view> vecExpected{"$1\r\na\r\n", "$-1\r\n", "$0\r\n\r\n",
                                                  "$4\r\n\r\n$1\r\n"};
  EXPECT_EQ(vecExpected, ElementsOfReply(strArray));
  EXPECT_TRUE(ElementsOfReply("*0\r\n").empty());
}

TEST(KvReplyTest, ShownTextIsTheBeginningUpToAZeroByte) {
  EXPECT_EQ("", ShownText(""));
  EXPECT_EQ("abc", ShownText("abc"));
  EXPECT_EQ("ab", ShownText(std::string_view("ab\0c", 4)));
  EXPECT_EQ("", ShownText(std::string_view("\0", 1)));
  EXPECT_EQ("ab", ShownText("abc", 2));
  const std::string strLong(SHOWN_TEXT + 1, 'x');
  EXPECT_EQ(strLong.substr(1), ShownText(strLong));
}

}  // namespace
