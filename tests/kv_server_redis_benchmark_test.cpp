#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "client_program.h"
#include "kv_server_fixture.h"
#include "reply.h"

// redis-benchmark as a client: its tests of the commands that the server has, in all the ways in
// which it can ask. It ends at the first error reply.

namespace {

const int REQUESTS = 1000;  // of each test
const int CLIENTS = 10;
const char TESTS[] = "ping_inline,ping_mbulk,set,get,incr,mset";
const char* const ROWS[] = {"PING_INLINE", "PING_MBULK", "SET", "GET", "INCR", "MSET (10 keys)"};

// What it says beside its figures without being asked.
const char RECONNECT_WARNING[] = "WARNING: Keepalive disabled. ";

struct Way_t {
  const char* pName;
  std::vector<std::string> vecOptions;
  size_t iValue;  // bytes
  int iInFlight;  // requests that may be under way when it has enough replies
};

std::ostream& operator<<(std::ostream& stStream, const Way_t& stWay) {
  return stStream << stWay.pName;
}

class KvServerRedisBenchmarkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access("/usr/bin/redis-benchmark", X_OK) != 0) {
      GTEST_SKIP() << "redis-tools is not installed";
    }
  }

  ProgramResult_t Run(const std::vector<std::string>& vecOptions,
                      const std::string& strInput = "") const {
    std::vector<std::string> vecWords{
        "redis-benchmark",        "-p", std::to_string(m_stServer.Port()), "-n",
        std::to_string(REQUESTS), "-c", std::to_string(CLIENTS),           "--csv"};
    vecWords.insert(vecWords.end(), vecOptions.begin(), vecOptions.end());
    return RunProgram(vecWords, strInput);
  }

  ServerProcess m_stServer{{"server.workers=2"}};
};

// The first words of the rows below the heads, when each has requests per second above 0.
std::vector<std::string> RowsOf(const std::string& strTable) {
  std::vector<std::string> vecRows;
  std::istringstream stTable(strTable);
  std::string strRow;
  std::getline(stTable, strRow);
  while (std::getline(stTable, strRow)) {
    const size_t iName = strRow.find("\",\"");
    EXPECT_GT(std::stod(strRow.substr(iName + 3)), 0) << strRow;
    vecRows.push_back(strRow.substr(1, iName - 1));
  }
  return vecRows;
}

long Number(Client& stClient, const std::string& strKey) {
  const std::string strReply = stClient.Ask({"GET", strKey});
  return std::stol(strReply.substr(strReply.find("\r\n") + 2));
}

class KvServerRedisBenchmarkWayTest : public KvServerRedisBenchmarkTest,
                                      public ::testing::WithParamInterface<Way_t> {};

TEST_P(KvServerRedisBenchmarkWayTest, EndsWithoutAnErrorAndLeavesItsKeys) {
  std::vector<std::string> vecOptions{"-t", TESTS};
  vecOptions.insert(vecOptions.end(), GetParam().vecOptions.begin(), GetParam().vecOptions.end());
  const ProgramResult_t stResult = Run(vecOptions);
  EXPECT_EQ(0, stResult.iExit);
  EXPECT_TRUE(stResult.strError.empty() || stResult.strError.rfind(RECONNECT_WARNING, 0) == 0)
      << stResult.strError;
  EXPECT_EQ(std::vector<std::string>(std::begin(ROWS), std::end(ROWS)), RowsOf(stResult.strOut));
  Client stClient(m_stServer);
  EXPECT_EQ(":2\r\n", stClient.Ask({"DBSIZE"}));
  EXPECT_EQ(":" + std::to_string(GetParam().iValue) + "\r\n",
            stClient.Ask({"STRLEN", "key:__rand_int__"}));
  EXPECT_GE(Number(stClient, "counter:__rand_int__"), REQUESTS);
  EXPECT_LE(Number(stClient, "counter:__rand_int__"), REQUESTS + GetParam().iInFlight);
}

INSTANTIATE_TEST_SUITE_P(
    , KvServerRedisBenchmarkWayTest,
    ::testing::Values(Way_t{"OneByOne", {}, 3, CLIENTS},
                      Way_t{"Pipelined", {"-P", "16"}, 3, CLIENTS * 16},
                      Way_t{"DeeplyPipelined", {"-P", "500"}, 3, CLIENTS * 500},
                      Way_t{"OfOneByte", {"-d", "1"}, 1, CLIENTS},
                      Way_t{"OfAKilobyte", {"-d", "1024", "-P", "4"}, 1024, CLIENTS * 4},
                      Way_t{"OfManyKilobytes", {"-d", "10000"}, 10000, CLIENTS},
                      Way_t{"InThreads", {"--threads", "2"}, 3, CLIENTS},
                      Way_t{"InThreadsPipelined", {"--threads", "3", "-P", "8"}, 3, CLIENTS * 8},
                      Way_t{"Reconnecting", {"-k", "0"}, 3, CLIENTS}),
    [](const auto& stInfo) { return std::string(stInfo.param.pName); });

TEST_F(KvServerRedisBenchmarkTest, RandomKeysAreThoseOfItsRange) {
  const ProgramResult_t stResult = Run({"-t", "set,incr", "-r", "50", "-P", "4"});
  EXPECT_EQ(0, stResult.iExit);
  EXPECT_EQ("", stResult.strError);
  Client stClient(m_stServer);
  EXPECT_EQ(":100\r\n", stClient.Ask({"DBSIZE"}));
  long iSum = 0;
  for (int i = 0; i < 50; ++i) {
    const std::string strNumber = std::to_string(i);
    const std::string strKey = std::string(12 - strNumber.size(), '0') + strNumber;
    EXPECT_EQ(":3\r\n", stClient.Ask({"STRLEN", "key:" + strKey})) << strKey;
    iSum += Number(stClient, "counter:" + strKey);
  }
  EXPECT_GE(iSum, REQUESTS);
  EXPECT_LE(iSum, REQUESTS + CLIENTS * 4);
}

TEST_F(KvServerRedisBenchmarkTest, RandomKeysOfMsetAreSpreadOverTheWorkers) {
  const ProgramResult_t stResult = Run({"-t", "mset,get", "-r", "100", "--threads", "2"});
  EXPECT_EQ(0, stResult.iExit);
  EXPECT_EQ("", stResult.strError);
  EXPECT_EQ(":100\r\n", Client(m_stServer).Ask({"DBSIZE"}));
}

TEST_F(KvServerRedisBenchmarkTest, AnyCommandLine) {
  EXPECT_EQ(0, Run({"-r", "20", "SET", "a:__rand_int__", "v", "EX", "100"}).iExit);
  EXPECT_EQ(0, Run({"-r", "20", "EXPIRE", "a:__rand_int__", "200", "GT"}).iExit);
  EXPECT_EQ(0, Run({"-r", "20", "APPEND", "b:__rand_int__", "x"}).iExit);
  EXPECT_EQ(0, Run({"-r", "20", "MGET", "a:__rand_int__", "b:__rand_int__"}).iExit);
  EXPECT_EQ(0, Run({"-x", "SET", "c"}, "from standard input").iExit);
  Client stClient(m_stServer);
  EXPECT_EQ(":41\r\n", stClient.Ask({"DBSIZE"}));
  EXPECT_GT(IntegerOfReply(stClient.Ask({"TTL", "a:000000000007"})), 100);
  EXPECT_EQ(Bulk("from standard input"), stClient.Ask({"GET", "c"}));
}

// Were it not so, the tests above could not fail.
TEST_F(KvServerRedisBenchmarkTest, ItEndsAtAnErrorReply) {
  const ProgramResult_t stResult = Run({"-t", "lpush"});
  EXPECT_EQ(1, stResult.iExit);
  EXPECT_EQ(0u, stResult.strError.find("Error from server: ERR unknown command 'LPUSH'"));
}

}  // namespace
