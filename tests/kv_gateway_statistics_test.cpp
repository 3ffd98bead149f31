#include "gateway_statistics.h"

#include <gtest/gtest.h>

namespace {

void Count(GatewayStatistics& stStatistics, CommandId_t eId, int iTimes) {
  for (int i = 0; i < iTimes; ++i) {
    stStatistics.CountCall(eId);
  }
}

TEST(KvGatewayStatisticsTest, CallsAreCountedByCommand) {
  GatewayStatistics stStatistics(100);
  for (const Command_t& stCommand : AllCommands()) {
    EXPECT_EQ(0u, stStatistics.Calls(stCommand.eId));
    stStatistics.CountCall(stCommand.eId);
    EXPECT_EQ(1u, stStatistics.Calls(stCommand.eId));
  }
  Count(stStatistics, CMD_GET, 4);
  EXPECT_EQ(5u, stStatistics.Calls(CMD_GET));
  EXPECT_EQ(AllCommands().size() + 4, stStatistics.Commands());
}

TEST(KvGatewayStatisticsTest, TheRateIsThatOfTheSecondsBetweenTurns) {
  GatewayStatistics stStatistics(100);
  Count(stStatistics, CMD_GET, 60);
  stStatistics.OnTurn(100);
  EXPECT_EQ(0u, stStatistics.Rate());
  stStatistics.OnTurn(101);
  EXPECT_EQ(60u, stStatistics.Rate());
  Count(stStatistics, CMD_PING, 90);
  stStatistics.OnTurn(104);
  EXPECT_EQ(30u, stStatistics.Rate());
  stStatistics.OnTurn(105);
  EXPECT_EQ(0u, stStatistics.Rate());
}

TEST(KvGatewayStatisticsTest, AClockThatIsSetBackDoesNoHarm) {
  GatewayStatistics stStatistics(100);
  Count(stStatistics, CMD_GET, 60);
  stStatistics.OnTurn(50);
  EXPECT_EQ(60u, stStatistics.Rate());
}

TEST(KvGatewayStatisticsTest, ResetStartsFromZero) {
  GatewayStatistics stStatistics(100);
  Count(stStatistics, CMD_GET, 60);
  stStatistics.OnTurn(101);
  stStatistics.m_iConnections = stStatistics.m_iRejected = 1;
  stStatistics.m_iInputBytes = stStatistics.m_iOutputBytes = 1;
  stStatistics.m_stLatencies.Add("get", 1, 1);
  stStatistics.Reset();
  EXPECT_TRUE(stStatistics.m_stLatencies.Percentiles().empty());
  EXPECT_EQ(0u, stStatistics.m_iConnections + stStatistics.m_iRejected +
                    stStatistics.m_iInputBytes + stStatistics.m_iOutputBytes);
  EXPECT_EQ(0u, stStatistics.Commands());
  EXPECT_EQ(0u, stStatistics.Rate());
  Count(stStatistics, CMD_GET, 7);
  stStatistics.OnTurn(102);
  EXPECT_EQ(7u, stStatistics.Rate());  // not less than nothing
}

}  // namespace
