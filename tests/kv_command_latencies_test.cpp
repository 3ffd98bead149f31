#include "command_latencies.h"

#include <gtest/gtest.h>

#include "test_support.h"

namespace {

const unsigned int BUCKET = CommandLatencies::BUCKET;
const unsigned int LAST = CommandLatencies::LAST_BUCKET;

// "half most nearly-all" of the only command.
std::string Percentiles(const CommandLatencies& stLatencies) {
  const auto vecRows = stLatencies.Percentiles();
  if (vecRows.size() != 1) {
    return std::to_string(vecRows.size()) + " rows";
  }
  return std::to_string(vecRows[0].iHalf) + " " + std::to_string(vecRows[0].iMost) + " " +
         std::to_string(vecRows[0].iNearlyAll);
}

TEST(KvCommandLatenciesTest, ManyAtOnceAreManySamples) {
  CommandLatencies stOne;
  CommandLatencies stMany;
  for (const unsigned int iTook : {0u, 49u, 50u, 4999u, 5000u, 123456u, 4294967295u}) {
    for (const uint32_t iCount : {1u, 2u, 16u}) {
      stMany.Add("get", iTook, iCount);
      for (uint32_t i = 0; i < iCount; ++i) {
        stOne.PushData("get", iTook);
      }
    }
  }
  stOne.PushData("set", 1);
  stMany.Add("set", 1, 1);
  EXPECT_EQ(stOne.GenerateStatTable(), stMany.GenerateStatTable());
  EXPECT_NE(std::string::npos, stMany.GenerateStatTable().find("5000-5050"));
}

TEST(KvCommandLatenciesTest, WithoutSamplesThereIsNothing) {
  EXPECT_TRUE(CommandLatencies().Percentiles().empty());
  EXPECT_EQ("", CommandLatencies().GenerateStatTable());
}

TEST(KvCommandLatenciesTest, APercentileIsTheEndOfItsBucket) {
  CommandLatencies stLatencies;
  stLatencies.Add("get", 0, 500);
  stLatencies.Add("get", BUCKET, 490);
  stLatencies.Add("get", 2 * BUCKET, 9);
  stLatencies.Add("get", 10 * BUCKET, 1);
  EXPECT_EQ("50 100 150", Percentiles(stLatencies));
  stLatencies.Add("get", 10 * BUCKET, 2);  // 502 are the half now
  EXPECT_EQ("100 150 500", Percentiles(stLatencies));
}

TEST(KvCommandLatenciesTest, NoPercentileIsAboveTheLongestTime) {
  CommandLatencies stLatencies;
  stLatencies.Add("get", 7, 1);
  EXPECT_EQ("7 7 7", Percentiles(stLatencies));
  stLatencies.Add("get", 63, 1);
  EXPECT_EQ("50 63 63", Percentiles(stLatencies));
}

TEST(KvCommandLatenciesTest, InTheLastBucketItIsTheLongestTime) {
  CommandLatencies stLatencies;
  stLatencies.Add("get", LAST - 1, 98);
  stLatencies.Add("get", LAST, 1);
  stLatencies.Add("get", 123456, 1);
  EXPECT_EQ("5000 123456 123456", Percentiles(stLatencies));
}

TEST(KvCommandLatenciesTest, CommandsAreInTheOrderOfTheirNames) {
  CommandLatencies stLatencies;
  for (const char* pName : {"set", "get", "mget"}) {
    stLatencies.Add(pName, 1, 1);
  }
  const auto vecRows = stLatencies.Percentiles();
  ASSERT_EQ(3u, vecRows.size());
  EXPECT_EQ("get", vecRows[0].strCommand);
  EXPECT_EQ("mget", vecRows[1].strCommand);
  EXPECT_EQ("set", vecRows[2].strCommand);
}

class KvCommandLatenciesLogTest : public testing::Test {
 protected:
  void SetUp() override {
    m_stLog.SetPath(m_stDirectory.Path());
    m_stLog.SetPrefix("stat_");
    m_stLog.SetLevel(Log::LL_STAT);
  }
  std::string Written() const { return m_stLog.FD() == -1 ? "" : ReadFile(File()); }
  std::string File() const { return "/proc/self/fd/" + std::to_string(m_stLog.FD()); }

  PrivateDirectory m_stDirectory;
  Log m_stLog;
  CommandLatencies m_stLatencies;
};

TEST_F(KvCommandLatenciesLogTest, APeriodEndsWithItsTableAndTheNextStartsAnew) {
  m_stLatencies.Add("get", 60, 3);
  const std::string strTable = m_stLatencies.GenerateStatTable();
  m_stLatencies.EndPeriod(m_stLog);
  EXPECT_EQ("[STAT] commands by latency in microseconds\n" + strTable,
            Written().substr(Written().find("[STAT]")));
  EXPECT_TRUE(m_stLatencies.Percentiles().empty());
  m_stLatencies.Add("set", 1, 1);
  EXPECT_EQ(std::string::npos, m_stLatencies.GenerateStatTable().find("get"));
}

TEST_F(KvCommandLatenciesLogTest, AnEmptyPeriodWritesNothing) {
  m_stLatencies.EndPeriod(m_stLog);
  EXPECT_EQ(-1, m_stLog.FD());
  EXPECT_EQ("", Written());
}

TEST_F(KvCommandLatenciesLogTest, AWideTableIsNotCut) {
  m_stLatencies.Add("get", 1000000, 1);
  const std::string strTable = m_stLatencies.GenerateStatTable();
  EXPECT_GT(strTable.size(), 2048u);
  m_stLatencies.EndPeriod(m_stLog);
  EXPECT_NE(std::string::npos, Written().find(strTable));
}

}  // namespace
