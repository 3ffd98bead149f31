#include "local_commands.h"

#include <gtest/gtest.h>

#include "kv_server_fixture.h"

namespace {

std::string Answer(const Arguments_t& vecArguments) {
  std::string strOut;
  RunLocalCommand(*FindCommand(vecArguments[0]), vecArguments, strOut);
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

TEST(KvLocalCommandsTest, DatabaseNumbersHaveThirtyTwoBits) {
  EXPECT_EQ("-ERR DB index is out of range\r\n", Answer({"SELECT", "2147483647"}));
  EXPECT_EQ("-ERR DB index is out of range\r\n", Answer({"SELECT", "-2147483648"}));
  for (const char* pIndex : {"2147483648", "-2147483649"}) {
    EXPECT_EQ("-ERR value is out of range, value must between -2147483648 and 2147483647\r\n",
              Answer({"SELECT", pIndex}));
  }
}

std::string Configure(const Arguments_t& vecArguments) {
  std::string strOut;
  RunConfigCommand(vecArguments, Settings_t(), strOut);
  return strOut;
}

TEST(KvLocalCommandsTest, ConfigGetTakesPatterns) {
  EXPECT_EQ(Request({"server.workers", "1"}), Configure({"CONFIG", "GET", "server.workers"}));
  EXPECT_EQ(Request({"save", ""}), Configure({"config", "get", "SAVE"}));
  EXPECT_EQ("*6\r\n", Configure({"CONFIG", "GET", "timeout.*"}).substr(0, 4));
  EXPECT_EQ("*0\r\n", Configure({"CONFIG", "GET", "nosuch"}));
}

TEST(KvLocalCommandsTest, ConfigGetGivesWhatSeveralPatternsMatchOnce) {
  EXPECT_EQ(Request({"save", "", "appendonly", "no"}),
            Configure({"CONFIG", "GET", "s[a]ve", "nosuch", "append*", "s?ve", "save"}));
}

TEST(KvLocalCommandsTest, ConfigSetSaysWhyNot) {
  EXPECT_EQ("-ERR CONFIG SET is not possible, settings are read when the server starts\r\n",
            Configure({"CONFIG", "set", "save", ""}));
  EXPECT_EQ("-ERR syntax error\r\n", Configure({"CONFIG", "SET", "save", "", "appendonly"}));
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

TEST(KvLocalCommandsTest, UnknownCommandEndsAtAZeroByte) {
  std::string strOut;
  AppendUnknownCommand(strOut, {std::string_view("fo\0o", 4), std::string_view("a\0b", 3), "c"});
  EXPECT_EQ("-ERR unknown command 'fo', with args beginning with: 'a' 'c' \r\n", strOut);
}

TEST(KvLocalCommandsTest, FlushKnowsItsWords) {
  EXPECT_EQ("", Check({"FLUSHALL"}));
  EXPECT_EQ("", Check({"FLUSHALL", "async"}));
  EXPECT_EQ("", Check({"FLUSHALL", "SYNC"}));
  EXPECT_EQ("ERR syntax error", Check({"FLUSHALL", "x"}));
  EXPECT_EQ("ERR syntax error", Check({"FLUSHALL", "async", "sync"}));
  EXPECT_EQ("ERR syntax error", Check({"FLUSHALL", "save"}));
}

TEST(KvLocalCommandsTest, ShutdownKnowsItsWords) {
  for (const Arguments_t& vecGood : {Arguments_t{"SHUTDOWN"},
                                     {"SHUTDOWN", "nosave"},
                                     {"SHUTDOWN", "SAVE"},
                                     {"SHUTDOWN", "NOW", "FORCE", "nosave", "NOSAVE"}}) {
    EXPECT_EQ("", Check(vecGood));
  }
  for (const Arguments_t& vecBad : {Arguments_t{"SHUTDOWN", "x"},
                                    {"SHUTDOWN", "nosave", "x"},
                                    {"SHUTDOWN", "nosave", "save"},
                                    {"SHUTDOWN", "abort", "now"},
                                    {"SHUTDOWN", "save", "abort"}}) {
    EXPECT_EQ("ERR syntax error", Check(vecBad));
  }
  EXPECT_EQ("ERR No shutdown in progress.", Check({"SHUTDOWN", "ABORT", "abort"}));
}

}  // namespace
