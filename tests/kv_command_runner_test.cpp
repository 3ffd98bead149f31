#include "command_runner.h"

#include "kv_store_fixture.h"

namespace {

const char OVERFLOWS[] = "-ERR increment or decrement would overflow\r\n";
const char NO_INTEGER[] = "-ERR value is not an integer or out of range\r\n";
const uint64_t MAX_VALUE = 60;
const uint64_t MAX_REPLY = 100;

class KvCommandRunnerTest : public KvStoreTest {
 protected:
  std::string Run(CommandId_t eCommand, const Arguments_t& vecArguments) {
    std::string strOut = "earlier";
    m_stRunner.Run(eCommand, vecArguments, strOut);
    EXPECT_EQ("earlier", strOut.substr(0, 7));
    return strOut.substr(7);
  }
  std::string ValueOf(const char* pKey) { return Run(CMD_GET, {pKey}); }

  const Settings_t m_stSettings{};
  IdGenerator m_stIds;
  Saver m_stSaver{m_stSettings, m_stStore, m_stTable.Name().stMark, m_stIds};
  CommandRunner m_stRunner{m_stStore, m_stSaver, {MAX_VALUE, MAX_REPLY, 0, 1}};
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
    EXPECT_EQ(pValue, ::ValueOf(m_stStore, "a"));
  }
  EXPECT_EQ("(none)", ::ValueOf(m_stStore, "b"));
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
  EXPECT_EQ("+OK\r\n", Run(CMD_FLUSHALL, {}));
  EXPECT_EQ(":0\r\n", Run(CMD_DBSIZE, {}));
  m_stStore.Set("a", "1");
  EXPECT_EQ("+OK\r\n", Run(CMD_FLUSHDB, {}));
  EXPECT_EQ(":0\r\n", Run(CMD_DBSIZE, {}));
  EXPECT_EQ(5u, m_stRunner.CommandsRun());
}

TEST_F(KvCommandRunnerTest, CommandsOfTheGatewayAreRefused) {
  EXPECT_EQ("-ERR command is not one for a worker\r\n", Run(CMD_PING, {}));
  EXPECT_EQ("-ERR command is not one for a worker\r\n", Run(static_cast<CommandId_t>(999), {}));
}

TEST_F(KvCommandRunnerTest, SetTakesOneExpiryTime) {
  EXPECT_EQ("+OK\r\n", Run(CMD_SET, {"a", "1", "EX", "100"}));
  EXPECT_EQ(":100000\r\n", Run(CMD_PTTL, {"a"}));
  EXPECT_EQ("+OK\r\n", Run(CMD_SET, {"a", "1", "px", "1500"}));
  EXPECT_EQ(":1500\r\n", Run(CMD_PTTL, {"a"}));
  EXPECT_EQ("+OK\r\n", Run(CMD_SET, {"a", "1", "pxat", std::to_string(NOW + 7)}));
  EXPECT_EQ(":7\r\n", Run(CMD_PTTL, {"a"}));
  EXPECT_EQ("+OK\r\n", Run(CMD_SET, {"a", "1", "EXAT", std::to_string(NOW / 1000 + 1)}));
  EXPECT_EQ(":1000\r\n", Run(CMD_PTTL, {"a"}));
  EXPECT_EQ("+OK\r\n", Run(CMD_SET, {"a", "2", "KEEPTTL"}));
  EXPECT_EQ(":1000\r\n", Run(CMD_PTTL, {"a"}));
  EXPECT_EQ("+OK\r\n", Run(CMD_SET, {"a", "2"}));
  EXPECT_EQ(":-1\r\n", Run(CMD_PTTL, {"a"}));
}

TEST_F(KvCommandRunnerTest, SetRefusesExpiryTimesThatMakeNoSense) {
  for (const Arguments_t& vecBad : {Arguments_t{"a", "1", "EX"},
                                    {"a", "1", "EX", "1", "PX", "1"},
                                    {"a", "1", "KEEPTTL", "EX", "1"},
                                    {"a", "1", "EX", "1", "KEEPTTL"}}) {
    EXPECT_EQ("-ERR syntax error\r\n", Run(CMD_SET, vecBad));
  }
  EXPECT_EQ(NO_INTEGER, Run(CMD_SET, {"a", "1", "EX", "x"}));
  for (const char* pAmount : {"0", "-1", "9223372036854775807", "9223372036854775"}) {
    EXPECT_EQ("-ERR invalid expire time in 'set' command\r\n",
              Run(CMD_SET, {"a", "1", "EX", pAmount}));
    EXPECT_EQ("-ERR invalid expire time in 'setex' command\r\n",
              Run(CMD_SETEX, {"a", pAmount, "1"}));
  }
  EXPECT_EQ(NO_INTEGER, Run(CMD_SETEX, {"a", "x", "1"}));
  EXPECT_EQ(0u, m_stStore.Count());
}

TEST_F(KvCommandRunnerTest, OldValuesComeBack) {
  EXPECT_EQ("$-1\r\n", Run(CMD_GETSET, {"a", "1"}));
  m_stStore.SetExpiry("a", NOW + 1000);
  EXPECT_EQ("$1\r\n1\r\n", Run(CMD_GETSET, {"a", "2"}));
  EXPECT_EQ(":-1\r\n", Run(CMD_TTL, {"a"})) << "GETSET ends the expiry time";
  EXPECT_EQ("$1\r\n2\r\n", Run(CMD_GETDEL, {"a"}));
  EXPECT_EQ("$-1\r\n", Run(CMD_GETDEL, {"a"}));
  EXPECT_EQ(":1\r\n", Run(CMD_SETNX, {"a", "1"}));
  EXPECT_EQ(":0\r\n", Run(CMD_SETNX, {"a", "2"}));
  EXPECT_EQ("$1\r\n1\r\n", ValueOf("a"));
}

TEST_F(KvCommandRunnerTest, AppendGrowsAndKeepsTheExpiryTime) {
  EXPECT_EQ(":0\r\n", Run(CMD_STRLEN, {"a"}));
  EXPECT_EQ(":0\r\n", Run(CMD_APPEND, {"a", ""}));
  EXPECT_EQ(":1\r\n", Run(CMD_EXISTS, {"a"}));
  EXPECT_EQ(":3\r\n", Run(CMD_APPEND, {"a", "abc"}));
  m_stStore.SetExpiry("a", NOW + 1000);
  EXPECT_EQ(":60\r\n", Run(CMD_APPEND, {"a", std::string(57, 'x')}));
  EXPECT_EQ("-ERR string exceeds maximum allowed size (limits.value)\r\n",
            Run(CMD_APPEND, {"a", "x"}));
  EXPECT_EQ(":60\r\n", Run(CMD_STRLEN, {"a"}));
  EXPECT_EQ(":1000\r\n", Run(CMD_PTTL, {"a"}));
  Run(CMD_SET, {"n", "1", "PX", "500"});
  EXPECT_EQ(":2\r\n", Run(CMD_INCR, {"n"}));
  EXPECT_EQ(":500\r\n", Run(CMD_PTTL, {"n"})) << "counters keep it too";
}

TEST_F(KvCommandRunnerTest, DecrByRefusesWhatHasNoNegative) {
  EXPECT_EQ(":-5\r\n", Run(CMD_DECRBY, {"a", "5"}));
  EXPECT_EQ(":0\r\n", Run(CMD_DECRBY, {"a", "-5"}));
  EXPECT_EQ(NO_INTEGER, Run(CMD_DECRBY, {"a", "x"}));
  EXPECT_EQ("-ERR decrement would overflow\r\n", Run(CMD_DECRBY, {"a", "-9223372036854775808"}));
}

TEST_F(KvCommandRunnerTest, TimesToLive) {
  EXPECT_EQ(":-2\r\n", Run(CMD_TTL, {"a"}));
  EXPECT_EQ(":-2\r\n", Run(CMD_PTTL, {"a"}));
  m_stStore.Set("a", "1");
  EXPECT_EQ(":-1\r\n", Run(CMD_TTL, {"a"}));
  m_stStore.SetExpiry("a", NOW + 1499);
  EXPECT_EQ(":1\r\n", Run(CMD_TTL, {"a"}));
  m_stStore.SetExpiry("a", NOW + 1500);
  EXPECT_EQ(":2\r\n", Run(CMD_TTL, {"a"})) << "rounded";
  EXPECT_EQ(":1\r\n", Run(CMD_PERSIST, {"a"}));
  EXPECT_EQ(":0\r\n", Run(CMD_PERSIST, {"a"}));
  EXPECT_EQ(":0\r\n", Run(CMD_PERSIST, {"none"}));
  EXPECT_EQ(":-1\r\n", Run(CMD_TTL, {"a"}));
}

TEST_F(KvCommandRunnerTest, ExpireHasItsConditions) {
  m_stStore.Set("a", "1");
  EXPECT_EQ(":0\r\n", Run(CMD_EXPIRE, {"none", "10"}));
  EXPECT_EQ(":0\r\n", Run(CMD_EXPIRE, {"a", "10", "XX"}));
  EXPECT_EQ(":0\r\n", Run(CMD_EXPIRE, {"a", "10", "GT"})) << "never is later";
  EXPECT_EQ(":1\r\n", Run(CMD_EXPIRE, {"a", "10", "LT"}));
  EXPECT_EQ(":0\r\n", Run(CMD_EXPIRE, {"a", "20", "nx"}));
  EXPECT_EQ(":0\r\n", Run(CMD_EXPIRE, {"a", "20", "LT"}));
  EXPECT_EQ(":1\r\n", Run(CMD_PEXPIRE, {"a", "20000", "xx", "gt"}));
  EXPECT_EQ(":20\r\n", Run(CMD_TTL, {"a"}));
}

TEST_F(KvCommandRunnerTest, ExpireRefusesWhatMakesNoSense) {
  m_stStore.Set("a", "1");
  EXPECT_EQ("-ERR Unsupported option foo\r\n", Run(CMD_EXPIRE, {"a", "x", "foo"}));
  EXPECT_EQ("-ERR NX and XX, GT or LT options at the same time are not compatible\r\n",
            Run(CMD_EXPIRE, {"a", "1", "NX", "GT"}));
  EXPECT_EQ("-ERR GT and LT options at the same time are not compatible\r\n",
            Run(CMD_EXPIRE, {"a", "1", "GT", "LT"}));
  EXPECT_EQ(NO_INTEGER, Run(CMD_EXPIRE, {"a", "x"}));
  EXPECT_EQ("-ERR invalid expire time in 'expire' command\r\n",
            Run(CMD_EXPIRE, {"a", "9223372036854775"}));
  EXPECT_EQ("-ERR invalid expire time in 'pexpire' command\r\n",
            Run(CMD_PEXPIRE, {"a", "9223372036854775807"}));
  EXPECT_EQ(":-1\r\n", Run(CMD_TTL, {"a"}));
}

TEST_F(KvCommandRunnerTest, ExpireInThePastDeletes) {
  m_stStore.Set("a", "1");
  EXPECT_EQ(":1\r\n", Run(CMD_EXPIRE, {"a", "-1"}));
  EXPECT_EQ(0u, m_stStore.Count());
  m_stStore.Set("a", "1");
  EXPECT_EQ(":1\r\n", Run(CMD_PEXPIRE, {"a", "0"}));
  EXPECT_EQ(0u, m_stStore.Count());
}

TEST_F(KvCommandRunnerTest, KeysWhoseTimeHasComeAreGone) {
  Run(CMD_SET, {"a", "1", "PX", "10"});
  m_stStore.SetTime(NOW + 9);
  EXPECT_EQ("$1\r\n1\r\n", ValueOf("a"));
  m_stStore.SetTime(NOW + 10);
  EXPECT_EQ("*0\r\n", Run(CMD_KEYS, {"*"}));
  EXPECT_EQ("*2\r\n$1\r\n0\r\n*0\r\n", Run(CMD_SCAN, {"0"}));
  EXPECT_EQ("$-1\r\n", ValueOf("a"));
  EXPECT_EQ("+none\r\n", Run(CMD_TYPE, {"a"}));
  EXPECT_EQ(":0\r\n", Run(CMD_DBSIZE, {}));
}

TEST_F(KvCommandRunnerTest, KeysThatFitAPattern) {
  for (const char* pKey : {"one", "two", "three"}) {
    m_stStore.Set(pKey, "1");
  }
  EXPECT_EQ("*1\r\n$3\r\none\r\n", Run(CMD_KEYS, {"o*"}));
  EXPECT_EQ("*3\r\n", Run(CMD_KEYS, {"*"}).substr(0, 4));
  EXPECT_EQ("+string\r\n", Run(CMD_TYPE, {"one"}));
  m_stStore.Set(std::string(100, 'x'), "1");
  EXPECT_EQ("-ERR reply longer than the limit of 100 bytes (limits.output)\r\n",
            Run(CMD_KEYS, {"x*"}));
}

TEST_F(KvCommandRunnerTest, ScanHasItsOptions) {
  m_stStore.Set("one", "1");
  m_stStore.Set("two", "1");
  const std::string strOne = "*2\r\n$1\r\n0\r\n*1\r\n$3\r\none\r\n";
  const std::string strNone = "*2\r\n$1\r\n0\r\n*0\r\n";
  EXPECT_EQ(strOne, Run(CMD_SCAN, {"0", "match", "o*", "COUNT", "100", "type", "STRING"}));
  EXPECT_EQ(strNone, Run(CMD_SCAN, {"0", "TYPE", "list"}));
  for (const Arguments_t& vecBad :
       {Arguments_t{"0", "MATCH"}, {"0", "COUNT", "0"}, {"0", "foo", "bar"}, {"0", "foo"}}) {
    EXPECT_EQ("-ERR syntax error\r\n", Run(CMD_SCAN, vecBad));
  }
  EXPECT_EQ(NO_INTEGER, Run(CMD_SCAN, {"0", "COUNT", "x"}));
  EXPECT_EQ(strNone, Run(CMD_SCAN, {"18446744073709551615"})) << "behind the last bucket";
}

TEST_F(KvCommandRunnerTest, ScanGoesOnWithTheNextWorker) {
  CommandRunner stSecond(m_stStore, m_stSaver, {MAX_VALUE, MAX_REPLY, 1, 3});
  CommandRunner stLast(m_stStore, m_stSaver, {MAX_VALUE, MAX_REPLY, 2, 3});
  std::string strReply;
  stSecond.Run(CMD_SCAN, {"1"}, strReply);
  EXPECT_EQ("*2\r\n$1\r\n2\r\n*0\r\n", strReply);
  strReply.clear();
  stLast.Run(CMD_SCAN, {"2"}, strReply);
  EXPECT_EQ("*2\r\n$1\r\n0\r\n*0\r\n", strReply);
}

TEST_F(KvCommandRunnerTest, CursorsAreNumbers) {
  ScanCursor_t stCursor{};
  EXPECT_TRUE(ParseCursor("0", stCursor));
  EXPECT_TRUE(ParseCursor(CursorText({123456, 63}), stCursor));
  EXPECT_EQ(123456u, stCursor.iBucket);
  EXPECT_EQ(63u, stCursor.iWorker);
  for (const char* pBad : {"x", "1x", " 1", "1 ", "18446744073709551616"}) {
    EXPECT_FALSE(ParseCursor(pBad, stCursor)) << pBad;
  }
  for (const std::string_view strZero : {std::string_view(), {"+0"}, {"-0"}, {"00"}, {"0\0x", 3}}) {
    EXPECT_TRUE(ParseCursor(strZero, stCursor)) << strZero;
    EXPECT_EQ(0u, stCursor.iBucket + stCursor.iWorker) << strZero;
  }
}

TEST_F(KvCommandRunnerTest, RandomKeyTellsOfHowMany) {
  EXPECT_EQ("*2\r\n$1\r\n0\r\n$0\r\n\r\n", Run(CMD_RANDOMKEY, {}));
  m_stStore.Set("a", "1");
  EXPECT_EQ("*2\r\n$1\r\n1\r\n$1\r\na\r\n", Run(CMD_RANDOMKEY, {}));
}

TEST_F(KvCommandRunnerTest, InfoHasTheStoresFigures) {
  m_stStore.Set("a", "1");
  m_stStore.Set("b", "1", NOW + 5000);
  EXPECT_EQ("*16\r\n$1\r\n2\r\n$1\r\n1\r\n$4\r\n5000\r\n", Run(CMD_INFO, {}).substr(0, 29));
}

// Whatever finds no room says so and leaves things as they are.
TEST_F(KvCommandRunnerTest, AFullTableKeepsTheOldValues) {
  const char OOM[] = "-OOM command not allowed when used memory > 'maxmemory'.\r\n";
  m_stStore.Set("a", "1");
  for (int i = 0; m_stStore.Set("fill" + std::to_string(i), "1"); ++i) {
  }
  const std::string strLarge(2000, 'x');
  EXPECT_EQ(OOM, Run(CMD_SET, {"a", strLarge}));
  EXPECT_EQ(OOM, Run(CMD_SET, {"a", strLarge, "GET"}));
  EXPECT_EQ(OOM, Run(CMD_GETSET, {"a", strLarge}));
  EXPECT_EQ(OOM, Run(CMD_SETNX, {"new", strLarge}));
  EXPECT_EQ(OOM, Run(CMD_SETEX, {"a", "10", strLarge}));
  EXPECT_EQ(OOM, Run(CMD_APPEND, {"a", std::string(59, 'x')}));
  EXPECT_EQ(OOM, Run(CMD_MSET, {"a", "2", "new", strLarge, "a", "3"}));
  EXPECT_EQ(OOM, Run(CMD_INCR, {"a counter whose name takes another block than the others have"}));
  EXPECT_EQ("$1\r\n2\r\n", ValueOf("a")) << "MSET stops where there is no room";
  EXPECT_EQ(":3\r\n", Run(CMD_INCR, {"a"})) << "in place";
}

}  // namespace
