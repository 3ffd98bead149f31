#include "command_docs.h"

#include <gtest/gtest.h>

#include "kv_server_fixture.h"
#include "subcommands.h"

namespace {

std::string Answer(const Arguments_t& vecArguments) {
  std::string strOut;
  RunCommandCommand(vecArguments, strOut);
  return strOut;
}

std::string Syntax(const char* pSyntax) {
  std::string strOut;
  AppendSyntax(strOut, pSyntax);
  return strOut;
}

bool Contains(const std::string& strText, const std::string& strPart) {
  return strText.find(strPart) != std::string::npos;
}

TEST(KvCommandDocsTest, CommandDescribesEach) {
  const std::string strAll = Answer({"COMMAND"});
  EXPECT_EQ("*" + std::to_string(AllCommands().size()) + "\r\n", strAll.substr(0, 5));
  const std::string strRest = "*0\r\n*0\r\n*0\r\n*0\r\n";
  EXPECT_TRUE(Contains(
      strAll, "*10\r\n$3\r\nget\r\n:2\r\n*1\r\n+readonly\r\n:1\r\n:1\r\n:1\r\n" + strRest));
  EXPECT_TRUE(Contains(
      strAll, "*10\r\n$4\r\nmset\r\n:-3\r\n*1\r\n+write\r\n:1\r\n:-1\r\n:2\r\n" + strRest));
  EXPECT_TRUE(Contains(strAll, "*10\r\n$4\r\nping\r\n:-1\r\n*0\r\n:0\r\n:0\r\n:0\r\n" + strRest));
  EXPECT_EQ(strAll, Answer({"COMMAND", "INFO"}));
}

TEST(KvCommandDocsTest, CountAndNames) {
  const std::string strCount = std::to_string(AllCommands().size());
  EXPECT_EQ(":" + strCount + "\r\n", Answer({"COMMAND", "COUNT"}));
  const std::string strNames = Answer({"COMMAND", "LIST"});
  EXPECT_EQ("*" + strCount + "\r\n$4\r\nping\r\n", strNames.substr(0, strCount.size() + 13));
  EXPECT_EQ("-ERR syntax error\r\n", Answer({"COMMAND", "LIST", "FILTERBY"}));
  EXPECT_EQ("-ERR unknown subcommand 'x'. Try COMMAND HELP.\r\n", Answer({"COMMAND", "x"}));
}

TEST(KvCommandDocsTest, InfoOfNames) {
  EXPECT_EQ(
      "*2\r\n$-1\r\n*10\r\n$3\r\nget\r\n:2\r\n*1\r\n+readonly\r\n:1\r\n:1\r\n:1\r\n"
      "*0\r\n*0\r\n*0\r\n*0\r\n",
      Answer({"COMMAND", "INFO", "nosuch", "GET"}));
  EXPECT_EQ(
      "*1\r\n*10\r\n$10\r\nconfig|get\r\n:-3\r\n*0\r\n:0\r\n:0\r\n:0\r\n"
      "*0\r\n*0\r\n*0\r\n*0\r\n",
      Answer({"COMMAND", "INFO", "config|GET"}));
  EXPECT_EQ("*1\r\n$-1\r\n", Answer({"COMMAND", "INFO", "get|x"}));
}

TEST(KvCommandDocsTest, InfoOfACommandHasItsSubcommands) {
  const std::string strInfo = Answer({"COMMAND", "INFO", "debug"});
  EXPECT_EQ(
      "*1\r\n*10\r\n$5\r\ndebug\r\n:-2\r\n*0\r\n:0\r\n:0\r\n:0\r\n*0\r\n*0\r\n*0\r\n"
      "*1\r\n*10\r\n$11\r\ndebug|sleep\r\n:3\r\n*0\r\n:0\r\n:0\r\n:0\r\n"
      "*0\r\n*0\r\n*0\r\n*0\r\n",
      strInfo);
}

TEST(KvCommandDocsTest, DocsOfNames) {
  const std::string strGet = "*2\r\n$3\r\nget\r\n*8\r\n" + Bulk("summary") +
                             Bulk("Returns the value of a key") + Bulk("since") + Bulk("1.0.0") +
                             Bulk("group") + Bulk("string") + Bulk("arguments") + "*1\r\n" +
                             Request({"name", "key", "type", "key"});
  EXPECT_EQ(strGet, Answer({"COMMAND", "DOCS", "nosuch", "Get"}));
  EXPECT_EQ("*0\r\n", Answer({"COMMAND", "DOCS", "nosuch"}));
  EXPECT_EQ("*2\r\n" + Bulk("client|id") +
                Request({"summary", "Return the number of the current connection.", "since",
                         "2.4.0", "group", "connection"}),
            Answer({"COMMAND", "DOCS", "client|id"}));
}

TEST(KvCommandDocsTest, DocsOfACommandHaveItsSubcommands) {
  EXPECT_EQ("*2\r\n" + Bulk("debug") + "*8\r\n" + Bulk("summary") +
                Bulk("Disturbs the server for tests") + Bulk("since") + Bulk("1.0.0") +
                Bulk("group") + Bulk("server") + Bulk("subcommands") + "*2\r\n" +
                Bulk("debug|sleep") +
                Request({"summary", "Stall worker 0 for that time, fractions allowed.", "since",
                         "1.0.0", "group", "server"}),
            Answer({"COMMAND", "DOCS", "debug"}));
}

TEST(KvCommandDocsTest, DocsWithoutNamesAreThoseOfAll) {
  const std::string strDocs = Answer({"COMMAND", "DOCS"});
  EXPECT_EQ("*" + std::to_string(2 * AllCommands().size()) + "\r\n", strDocs.substr(0, 5));
  for (const Command_t& stCommand : AllCommands()) {
    EXPECT_TRUE(Contains(strDocs, Bulk(stCommand.pName) + "*")) << stCommand.pName;
  }
}

TEST(KvCommandDocsTest, SyntaxOfPlainArguments) {
  EXPECT_EQ("*0\r\n", Syntax(""));
  EXPECT_EQ("*2\r\n" + Request({"name", "key", "type", "key"}) +
                Request({"name", "value", "type", "string"}),
            Syntax("key value"));
  EXPECT_EQ("*1\r\n*8\r\n" + Bulk("name") + Bulk("get") + Bulk("type") + Bulk("pure-token") +
                Bulk("token") + Bulk("GET") + Bulk("flags") + "*1\r\n+optional\r\n",
            Syntax("[GET]"));
  EXPECT_EQ("*1\r\n*6\r\n" + Bulk("name") + Bulk("section") + Bulk("type") + Bulk("string") +
                Bulk("flags") + "*2\r\n+optional\r\n+multiple\r\n",
            Syntax("[section...]"));
}

TEST(KvCommandDocsTest, SyntaxOfChoicesAndBlocks) {
  const std::string strToken = Bulk("type") + Bulk("pure-token") + Bulk("token");
  EXPECT_EQ("*1\r\n*6\r\n" + Bulk("name") + Bulk("nx|xx") + Bulk("type") + Bulk("oneof") +
                Bulk("arguments") + "*2\r\n*6\r\n" + Bulk("name") + Bulk("nx") + strToken +
                Bulk("NX") + "*6\r\n" + Bulk("name") + Bulk("xx") + strToken + Bulk("XX"),
            Syntax("NX|XX"));
  EXPECT_EQ("*1\r\n*8\r\n" + Bulk("name") + Bulk("key+value") + Bulk("type") + Bulk("block") +
                Bulk("arguments") + "*2\r\n" + Request({"name", "key", "type", "key"}) +
                Request({"name", "value", "type", "string"}) + Bulk("flags") +
                "*1\r\n+multiple\r\n",
            Syntax("key+value..."));
}

}  // namespace
