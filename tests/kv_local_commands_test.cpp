#include "local_commands.h"

#include <gtest/gtest.h>

#include "kv_server_fixture.h"

namespace {

std::string Answer(const Arguments_t& vecArguments) {
  std::string strOut;
  RunLocalCommand(*FindCommand(vecArguments[0]), vecArguments, Settings_t(), strOut);
  return strOut;
}

// What is wrong with a request; "" when nothing is.
std::string Check(const Arguments_t& vecArguments) {
  Settings_t stSettings;
  stSettings.iMaxKey = 8;
  return CheckArguments(*FindCommand(vecArguments[0]), vecArguments, stSettings);
}

TEST(KvLocalCommandsTest, PingAndEcho) {
  EXPECT_EQ("+PONG\r\n", Answer({"PING"}));
  EXPECT_EQ("$2\r\nhi\r\n", Answer({"PING", "hi"}));
  EXPECT_EQ("$0\r\n\r\n", Answer({"ECHO", ""}));
}

TEST(KvLocalCommandsTest, OneDatabase) {
  EXPECT_EQ("+OK\r\n", Answer({"SELECT", "0"}));
  EXPECT_EQ("-ERR DB index is out of range\r\n", Answer({"SELECT", "1"}));
  EXPECT_EQ("-ERR DB index is out of range\r\n", Answer({"SELECT", "-1"}));
  for (const char* pIndex : {"", "x", "00", "1x", "99999999999999999999"}) {
    EXPECT_EQ("-ERR value is not an integer or out of range\r\n", Answer({"SELECT", pIndex}));
  }
}

TEST(KvLocalCommandsTest, CommandDescribesEach) {
  const std::string strAll = Answer({"COMMAND"});
  EXPECT_EQ("*" + std::to_string(AllCommands().size()) + "\r\n", strAll.substr(0, 5));
  EXPECT_NE(std::string::npos,
            strAll.find("*6\r\n$3\r\nget\r\n:2\r\n*1\r\n+readonly\r\n:1\r\n:1\r\n:1\r\n"));
  EXPECT_NE(std::string::npos,
            strAll.find("*6\r\n$4\r\nmset\r\n:-3\r\n*1\r\n+write\r\n:1\r\n:-1\r\n:2\r\n"));
  EXPECT_NE(std::string::npos,
            strAll.find("*6\r\n$4\r\nping\r\n:-1\r\n*1\r\n+readonly\r\n:0\r\n:0\r\n:0\r\n"));
  EXPECT_EQ(":" + std::to_string(AllCommands().size()) + "\r\n", Answer({"COMMAND", "COUNT"}));
  EXPECT_EQ("*0\r\n", Answer({"COMMAND", "docs"}));
  EXPECT_EQ("-ERR unknown subcommand 'x'. Try COMMAND, COMMAND COUNT or COMMAND DOCS.\r\n",
            Answer({"COMMAND", "x"}));
}

TEST(KvLocalCommandsTest, ConfigGetTakesPatterns) {
  EXPECT_EQ(Request({"server.workers", "1"}), Answer({"CONFIG", "GET", "server.workers"}));
  EXPECT_EQ(Request({"save", ""}), Answer({"config", "get", "SAVE"}));
  EXPECT_EQ("*6\r\n", Answer({"CONFIG", "GET", "timeout.*"}).substr(0, 4));
  EXPECT_EQ("*0\r\n", Answer({"CONFIG", "GET", "nosuch"}));
  EXPECT_EQ("-ERR only CONFIG GET <pattern> is known\r\n", Answer({"CONFIG", "SET", "x"}));
  EXPECT_EQ("-ERR only CONFIG GET <pattern> is known\r\n", Answer({"CONFIG", "GET"}));
}

TEST(KvLocalCommandsTest, UnknownCommandShowsTheBeginning) {
  std::string strOut;
  AppendUnknownCommand(strOut, {"foo", "a", "b\r\nc"});
  EXPECT_EQ("-ERR unknown command 'foo', with args beginning with: 'a' 'b  c' \r\n", strOut);
  strOut.clear();
  AppendUnknownCommand(strOut, {"foo"});
  EXPECT_EQ("-ERR unknown command 'foo', with args beginning with: \r\n", strOut);
}

TEST(KvLocalCommandsTest, UnknownCommandIsCut) {
  std::string strOut;
  const std::string strLong(200, 'y');
  AppendUnknownCommand(strOut, {std::string(200, 'x'), strLong, strLong});
  EXPECT_EQ("-ERR unknown command '" + std::string(128, 'x') + "', with args beginning with: '" +
                std::string(128, 'y') + "' \r\n",
            strOut);
}

TEST(KvLocalCommandsTest, WrongArityNamesTheCommand) {
  std::string strOut;
  AppendWrongArity(strOut, *FindCommand("GET"));
  EXPECT_EQ("-ERR wrong number of arguments for 'get' command\r\n", strOut);
}

TEST(KvLocalCommandsTest, KeysAreLimited) {
  const std::string strError = "ERR key is longer than the limit of 8 bytes (limits.key)";
  EXPECT_EQ("", Check({"GET", "12345678"}));
  EXPECT_EQ(strError, Check({"GET", "123456789"}));
  EXPECT_EQ(strError, Check({"DEL", "1", "2", "123456789"}));
  EXPECT_EQ(strError, Check({"MSET", "1", "v", "123456789", "v"}));
  EXPECT_EQ("", Check({"MSET", "1", "a value longer than that", "2", "v"}));
  EXPECT_EQ("", Check({"SET", "1", "a value longer than that"}));
  EXPECT_EQ("", Check({"ECHO", "no key at all, however long"}));
}

TEST(KvLocalCommandsTest, KeysHaveNoZeroByte) {
  const std::string strZero("a\0b", 3);
  EXPECT_EQ("ERR key contains a zero byte", Check({"GET", strZero}));
  EXPECT_EQ("ERR key contains a zero byte", Check({"MGET", "a", strZero}));
  EXPECT_EQ("", Check({"SET", "a", strZero}));
}

TEST(KvLocalCommandsTest, OptionsAreFewAndShort) {
  Arguments_t vecSet{"SET", "a", "v"};
  vecSet.insert(vecSet.end(), 13, "NX");
  EXPECT_EQ("", Check(vecSet));
  vecSet.push_back("NX");
  EXPECT_EQ("ERR syntax error", Check(vecSet));
  EXPECT_EQ("", Check({"SET", "a", "v", std::string(256, 'x')}));
  EXPECT_EQ("ERR syntax error", Check({"SET", "a", "v", std::string(257, 'x')}));
}

TEST(KvLocalCommandsTest, FlushAndShutdownKnowTheirWords) {
  for (const Arguments_t& vecGood : {Arguments_t{"FLUSHALL"},
                                     {"FLUSHALL", "async"},
                                     {"FLUSHALL", "SYNC"},
                                     {"SHUTDOWN"},
                                     {"SHUTDOWN", "nosave"},
                                     {"SHUTDOWN", "SAVE"}}) {
    EXPECT_EQ("", Check(vecGood));
  }
  for (const Arguments_t& vecBad : {Arguments_t{"FLUSHALL", "x"},
                                    {"FLUSHALL", "async", "sync"},
                                    {"FLUSHALL", "save"},
                                    {"SHUTDOWN", "x"},
                                    {"SHUTDOWN", "nosave", "x"}}) {
    EXPECT_EQ("ERR syntax error", Check(vecBad));
  }
}

}  // namespace
