#include "open_requests.h"

#include <gtest/gtest.h>

#include "command_latencies.h"

namespace {

const char GET[] = "get";
const char SET[] = "set";

class KvOpenRequestsTest : public testing::Test {
 protected:
  void Sent(size_t iCount, int64_t iNow) { m_stRequests.OnSent(iCount, iNow, m_stLatencies); }
  // The table of these samples, "command microseconds" each.
  static std::string Table(const std::vector<std::pair<const char*, unsigned int>>& vecSamples) {
    CommandLatencies stLatencies;
    for (const auto& [pCommand, iTook] : vecSamples) {
      stLatencies.PushData(pCommand, iTook);
    }
    return stLatencies.GenerateStatTable();
  }
  std::string Table() { return m_stLatencies.GenerateStatTable(); }

  OpenRequests m_stRequests;
  CommandLatencies m_stLatencies;
};

TEST_F(KvOpenRequestsTest, NothingSentIsNothingMeasured) {
  m_stRequests.Add(GET, 100);
  Sent(0, 200);
  EXPECT_EQ("", Table());
}

TEST_F(KvOpenRequestsTest, RepliesBelongToTheRequestsInTheirOrder) {
  m_stRequests.Add(GET, 100);
  m_stRequests.Add(SET, 100);
  m_stRequests.Add(GET, 150);
  Sent(2, 400);
  EXPECT_EQ(Table({{GET, 300}, {SET, 300}}), Table());
  Sent(1, 650);
  EXPECT_EQ(Table({{GET, 300}, {SET, 300}, {GET, 500}}), Table());
}

TEST_F(KvOpenRequestsTest, ARunMayBeSentInParts) {
  for (int i = 0; i < 5; ++i) {
    m_stRequests.Add(GET, 100);
  }
  Sent(2, 200);
  Sent(2, 300);
  EXPECT_EQ(Table({{GET, 100}, {GET, 100}, {GET, 200}, {GET, 200}}), Table());
  m_stRequests.Add(GET, 100);
  Sent(2, 500);
  EXPECT_EQ(Table({{GET, 100}, {GET, 100}, {GET, 200}, {GET, 200}, {GET, 400}, {GET, 400}}),
            Table());
}

TEST_F(KvOpenRequestsTest, RequestsOfDifferentTimesAreApart) {
  m_stRequests.Add(GET, 100);
  m_stRequests.Add(GET, 200);
  Sent(2, 300);
  EXPECT_EQ(Table({{GET, 200}, {GET, 100}}), Table());
}

TEST_F(KvOpenRequestsTest, MoreRepliesThanRequestsAreIgnored) {
  m_stRequests.Add(GET, 100);
  Sent(3, 200);
  m_stRequests.Add(GET, 300);
  Sent(1, 310);
  EXPECT_EQ(Table({{GET, 100}, {GET, 10}}), Table());
}

TEST_F(KvOpenRequestsTest, ATimeBeyondTheNumbersIsTheLargest) {
  m_stRequests.Add(GET, 0);
  Sent(1, int64_t{1} << 40);
  EXPECT_EQ(Table({{GET, 4294967295u}}), Table());
}

}  // namespace
