#include "command_runner.h"

#include <gtest/gtest.h>

namespace {

const char OVERFLOWS[] = "-ERR increment or decrement would overflow\r\n";
const char NO_INTEGER[] = "-ERR value is not an integer or out of range\r\n";
const uint64_t MAX_REPLY = 100;

class KvCommandRunnerTest : public ::testing::Test {
 protected:
  std::string Run(CommandId_t eCommand, const Arguments_t& vecArguments) {
    std::string strOut = "earlier";
    m_stRunner.Run(eCommand, vecArguments, strOut);
    EXPECT_EQ("earlier", strOut.substr(0, 7));
    return strOut.substr(7);
  }
  std::string ValueOf(const char* pKey) { return Run(CMD_GET, {pKey}); }

  KeyStore m_stStore;
  CommandRunner m_stRunner{m_stStore, MAX_REPLY};
};

TEST_F(KvCommandRunnerTest, SetThenGet) {
  EXPECT_EQ("$-1\r\n", ValueOf("a"));
  EXPECT_EQ("+OK\r\n", Run(CMD_SET, {"a", "x"}));
  EXPECT_EQ("$1\r\nx\r\n", ValueOf("a"));
}

TEST_F(KvCommandRunnerTest, SetOnlyNew) {
  EXPECT_EQ("+OK\r\n", Run(CMD_SET, {"a", "1", "NX"}));
  EXPECT_EQ("$-1\r\n", Run(CMD_SET, {"a", "2", "nx"}));
  EXPECT_EQ("$1\r\n1\r\n", ValueOf("a"));
}

TEST_F(KvCommandRunnerTest, SetOnlyExisting) {
  EXPECT_EQ("$-1\r\n", Run(CMD_SET, {"a", "1", "XX"}));
  EXPECT_EQ("$-1\r\n", ValueOf("a"));
  m_stStore.Set("a", "0");
  EXPECT_EQ("+OK\r\n", Run(CMD_SET, {"a", "1", "xx"}));
  EXPECT_EQ("$1\r\n1\r\n", ValueOf("a"));
}

TEST_F(KvCommandRunnerTest, SetReturnsTheOldValue) {
  EXPECT_EQ("$-1\r\n", Run(CMD_SET, {"a", "1", "GET"}));
  EXPECT_EQ("$1\r\n1\r\n", Run(CMD_SET, {"a", "2", "get"}));
  EXPECT_EQ("$1\r\n2\r\n", Run(CMD_SET, {"a", "3", "NX", "GET"}));
  EXPECT_EQ("$1\r\n2\r\n", ValueOf("a"));
  EXPECT_EQ("$-1\r\n", Run(CMD_SET, {"b", "1", "XX", "GET"}));
  EXPECT_EQ("$-1\r\n", ValueOf("b"));
}

TEST_F(KvCommandRunnerTest, SetRefusesWhatItDoesNotKnow) {
  for (const char* pOption : {"", "NXX", "N", "KEEP"}) {
    EXPECT_EQ("-ERR syntax error\r\n", Run(CMD_SET, {"a", "1", pOption})) << pOption;
  }
  EXPECT_EQ("-ERR syntax error\r\n", Run(CMD_SET, {"a", "1", "NX", "XX"}));
  EXPECT_EQ(0u, m_stStore.Count());
}

TEST_F(KvCommandRunnerTest, CountersStartAtZero) {
  EXPECT_EQ(":1\r\n", Run(CMD_INCR, {"a"}));
  EXPECT_EQ(":2\r\n", Run(CMD_INCR, {"a"}));
  EXPECT_EQ(":-1\r\n", Run(CMD_DECR, {"b"}));
  EXPECT_EQ(":40\r\n", Run(CMD_INCRBY, {"c", "40"}));
  EXPECT_EQ(":-2\r\n", Run(CMD_INCRBY, {"c", "-42"}));
  EXPECT_EQ("$2\r\n-2\r\n", ValueOf("c"));
}

TEST_F(KvCommandRunnerTest, CountersStopAtBothEnds) {
  m_stStore.Set("a", "9223372036854775806");
  EXPECT_EQ(":9223372036854775807\r\n", Run(CMD_INCR, {"a"}));
  EXPECT_EQ(OVERFLOWS, Run(CMD_INCR, {"a"}));
  EXPECT_EQ("$19\r\n9223372036854775807\r\n", ValueOf("a"));
  m_stStore.Set("b", "-9223372036854775807");
  EXPECT_EQ(":-9223372036854775808\r\n", Run(CMD_DECR, {"b"}));
  EXPECT_EQ(OVERFLOWS, Run(CMD_DECR, {"b"}));
  EXPECT_EQ(OVERFLOWS, Run(CMD_INCRBY, {"b", "-9223372036854775808"}));
}

TEST_F(KvCommandRunnerTest, CountersAreWholeDecimalNumbers) {
  for (const char* pValue : {"", " 1", "1 ", "+1", "01", "-0", "-", "1.0", "0x1", "x",
                             "9223372036854775808", "-9223372036854775809"}) {
    m_stStore.Set("a", pValue);
    EXPECT_EQ(NO_INTEGER, Run(CMD_INCR, {"a"})) << pValue;
    EXPECT_EQ(NO_INTEGER, Run(CMD_INCRBY, {"b", pValue})) << pValue;
    EXPECT_EQ(pValue, *m_stStore.Get("a"));
  }
  EXPECT_EQ(nullptr, m_stStore.Get("b"));
}

TEST_F(KvCommandRunnerTest, DelAndExistsCount) {
  m_stStore.Set("a", "1");
  m_stStore.Set("b", "2");
  EXPECT_EQ(":3\r\n", Run(CMD_EXISTS, {"a", "a", "b", "c"}));
  EXPECT_EQ(":2\r\n", Run(CMD_DEL, {"a", "a", "b", "c"}));
  EXPECT_EQ(":0\r\n", Run(CMD_EXISTS, {"a", "b"}));
}

TEST_F(KvCommandRunnerTest, MGetAnswersForEachKeyInOrder) {
  m_stStore.Set("a", "1");
  m_stStore.Set("b", "");
  EXPECT_EQ("*4\r\n$1\r\n1\r\n$-1\r\n$0\r\n\r\n$1\r\n1\r\n", Run(CMD_MGET, {"a", "c", "b", "a"}));
}

TEST_F(KvCommandRunnerTest, MGetOfTooMuchIsAnError) {
  m_stStore.Set("a", std::string(40, 'x'));  // 47 bytes of reply
  EXPECT_EQ(98u, Run(CMD_MGET, {"a", "a"}).size());
  EXPECT_EQ("-ERR reply longer than the limit of 100 bytes (limits.output)\r\n",
            Run(CMD_MGET, {"a", "a", "b"}));
}

TEST_F(KvCommandRunnerTest, MSetSetsInOrder) {
  EXPECT_EQ("+OK\r\n", Run(CMD_MSET, {"a", "1", "b", "2", "a", "3"}));
  EXPECT_EQ("$1\r\n3\r\n", ValueOf("a"));
  EXPECT_EQ("$1\r\n2\r\n", ValueOf("b"));
}

TEST_F(KvCommandRunnerTest, CountsAndClearsItsKeys) {
  m_stStore.Set("a", "1");
  EXPECT_EQ(":1\r\n", Run(CMD_DBSIZE, {}));
  EXPECT_EQ(":1\r\n", Run(CMD_INFO, {}));
  EXPECT_EQ("+OK\r\n", Run(CMD_FLUSHALL, {}));
  EXPECT_EQ(":0\r\n", Run(CMD_DBSIZE, {}));
  EXPECT_EQ(4u, m_stRunner.CommandsRun());
}

TEST_F(KvCommandRunnerTest, CommandsOfTheGatewayAreRefused) {
  EXPECT_EQ("-ERR command is not one for a worker\r\n", Run(CMD_PING, {}));
  EXPECT_EQ("-ERR command is not one for a worker\r\n", Run(static_cast<CommandId_t>(999), {}));
}

}  // namespace
