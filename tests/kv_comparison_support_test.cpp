#include <gtest/gtest.h>

#include <stdexcept>

#include "command_table_file.h"
#include "reply_rules.h"
#include "test_support.h"

// A table or a rule that is misread would compare the wrong things in silence.

namespace {

std::vector<TableLine_t> Read(const std::string& strText) {
  const PrivateDirectory stDirectory;
  WriteFile(stDirectory.File("table"), strText);
  return ReadCommandTable(stDirectory.File("table"));
}

// What is wrong with a table.
std::string ErrorOf(const std::string& strText) {
  try {
    Read(strText);
  } catch (const std::runtime_error& stError) {
    return stError.what();
  }
  return "";
}

typedef std::vector<std::string> Words_t;

TEST(KvCommandTableFileTest, LinesAreWordsWithTheirRemarks) {
  const auto vecLines = Read("# what\n\nSET a \"b \\x00\\\"\"\nKEYS *\n    rule: sorted\n");
  ASSERT_EQ(2u, vecLines.size());
  EXPECT_EQ((Words_t{"SET", "a", std::string("b \0\"", 4)}), vecLines[0].vecWords);
  EXPECT_EQ("", vecLines[0].strRule);
  EXPECT_EQ((Words_t{"KEYS", "*"}), vecLines[1].vecWords);
  EXPECT_EQ("sorted", vecLines[1].strRule);
  EXPECT_EQ("table:4: KEYS *", vecLines[1].strPlace);
}

TEST(KvCommandTableFileTest, BytesAreOneWord) {
  const auto vecLines = Read("> \"*1\\r\\n\" \"ab\"*3 \"\\r\\n\"\n");
  ASSERT_EQ(1u, vecLines.size());
  EXPECT_TRUE(vecLines[0].bBytes);
  EXPECT_EQ(Words_t{"*1\r\nababab\r\n"}, vecLines[0].vecWords);
}

TEST(KvCommandTableFileTest, WhatCanNotBeReadIsSaidWithItsLine) {
  EXPECT_EQ("table:1:  rule: sorted: a remark without a request", ErrorOf(" rule: sorted\n"));
  EXPECT_EQ("table:2:  rul: x: unknown remark \"rul\"", ErrorOf("PING\n rul: x\n"));
  EXPECT_EQ("table:1: PING \"a: no closing quote", ErrorOf("PING \"a\n"));
  EXPECT_EQ("table:1: PING \"\\q\": unknown escape sequence", ErrorOf("PING \"\\q\"\n"));
}

TEST(KvCommandTableFileTest, ADifferenceHasARowAndTwoReplies) {
  const std::string strError = "table:1: PING: a difference is a row, theirs and ours";
  EXPECT_EQ("", ErrorOf("PING\n differs: PING\n theirs: \"a\"\n ours: \"b\"\n"));
  EXPECT_EQ(strError, ErrorOf("PING\n differs: PING\n theirs: \"a\"\n ours: \"a\"\n"));
  EXPECT_EQ(strError, ErrorOf("PING\n theirs: \"a\"\n ours: \"b\"\n"));
  EXPECT_EQ(strError, ErrorOf("PING\n differs: PING\n"));
}

TEST(KvCommandTableFileTest, QuotedTextIsReadBackAsItWas) {
  std::string strBytes;
  for (int i = 0; i < 256; ++i) {
    strBytes += static_cast<char>(i);
  }
  EXPECT_EQ(Words_t{strBytes}, QuotedWords(Quoted(strBytes)));
}

TEST(KvReplyRulesTest, WithoutARuleNothingIsChanged) {
  EXPECT_EQ(":17\r\n", ApplyRule("", ":17\r\n"));
  EXPECT_THROW(ApplyRule("nosuch", ":17\r\n"), std::runtime_error);
}

TEST(KvReplyRulesTest, SortedKeepsLengthAndElements) {
  EXPECT_EQ("*3\r\n$-1\r\n$1\r\na\r\n$1\r\nb\r\n",
            ApplyRule("sorted", "*3\r\n$1\r\nb\r\n$-1\r\n$1\r\na\r\n"));
  EXPECT_EQ("*2\r\n*1\r\n:1\r\n:2\r\n", ApplyRule("sorted", "*2\r\n:2\r\n*1\r\n:1\r\n"));
  EXPECT_EQ("-ERR x\r\n", ApplyRule("sorted", "-ERR x\r\n"));
}

TEST(KvReplyRulesTest, UpToAllowsATenthLess) {
  EXPECT_EQ("upto 100", ApplyRule("upto 100", ":100\r\n"));
  EXPECT_EQ("upto 100", ApplyRule("upto 100", ":90\r\n"));
  EXPECT_EQ(":89\r\n", ApplyRule("upto 100", ":89\r\n"));
  EXPECT_EQ(":101\r\n", ApplyRule("upto 100", ":101\r\n"));
  EXPECT_EQ("$3\r\n100\r\n", ApplyRule("upto 100", "$3\r\n100\r\n"));
}

TEST(KvReplyRulesTest, FieldsOfAClientThatAreItsOwnAreNotCompared) {
  const std::string strReply = "$30\r\nid=5 name=x qbuf-free=7 db=0 \n\r\n";
  EXPECT_EQ("id=? name=x qbuf-free=? db=0 \n", ApplyRule("addresses", strReply));
  EXPECT_EQ("id=? name=x db=0 \n", ApplyRule("common", strReply));
  EXPECT_EQ("-ERR x\r\n", ApplyRule("common", "-ERR x\r\n"));
}

TEST(KvReplyRulesTest, NamesNumbersKindsAndGreetings) {
  EXPECT_EQ("# Server\na\nb\n", ApplyRule("names", "$20\r\n# Server\r\na:1\r\nb:c:d\r\n\r\n"));
  EXPECT_EQ("*#\r\n:#\r\n", ApplyRule("digits", "*12\r\n:345\r\n"));
  EXPECT_EQ("*", ApplyRule("kind", "*2\r\n:1\r\n:2\r\n"));
  EXPECT_EQ("$6\r\nserver\r\n?$4\r\nrole\r\n$1\r\na\r\n",
            ApplyRule("greeting", "*4\r\n$6\r\nserver\r\n$1\r\nx\r\n$4\r\nrole\r\n$1\r\na\r\n"));
}

}  // namespace
