#include "info_metrics.h"

#include <gtest/gtest.h>
#include <prometheus/text_serializer.h>

#include <sstream>

namespace {

// The page of a text of INFO, without comments.
std::string Page(const std::string& strText) {
  std::istringstream stLines(prometheus::TextSerializer().Serialize(InfoMetrics(strText)));
  std::string strPage;
  for (std::string strLine; std::getline(stLines, strLine);) {
    strPage += strLine[0] == '#' ? "" : strLine + "\n";
  }
  return strPage;
}

TEST(InfoMetricsTest, LinesBecomeFiguresInTheirOrder) {
  EXPECT_EQ("kv_uptime_seconds 3\nkv_connections_total 7\n",
            Page("# Server\r\nuptime_in_seconds:3\r\n# Stats\r\n"
                 "total_connections_received:7\r\n"));
}

TEST(InfoMetricsTest, CountersAndGaugesAreToldApart) {
  const auto vecFamilies = InfoMetrics("workers:2\r\ntotal_net_input_bytes:9\r\n");
  ASSERT_EQ(2u, vecFamilies.size());
  EXPECT_EQ(prometheus::MetricType::Gauge, vecFamilies[0].type);
  EXPECT_EQ(prometheus::MetricType::Counter, vecFamilies[1].type);
}

TEST(InfoMetricsTest, AllCommandsAreOneFamily) {
  EXPECT_EQ("kv_commands_total{command=\"get\"} 12\nkv_commands_total{command=\"set\"} 3\n",
            Page("cmdstat_get:calls=12\r\ncmdstat_set:calls=3\r\n"));
}

TEST(InfoMetricsTest, LatenciesAreInSeconds) {
  EXPECT_EQ(
      "kv_command_latency_seconds{command=\"get\",quantile=\"0.5\"} 5e-05\n"
      "kv_command_latency_seconds{command=\"get\",quantile=\"0.99\"} 0.005\n"
      "kv_command_latency_seconds{command=\"get\",quantile=\"0.999\"} 2.5\n",
      Page("latency_percentiles_usec_get:p50=50,p99=5000,p99.9=2500000\r\n"));
}

TEST(InfoMetricsTest, TheKeyspaceHasTwoFigures) {
  EXPECT_EQ("kv_keys 3\nkv_expiring_keys 1\n", Page("db0:keys=3,expires=1,avg_ttl=0\r\n"));
}

TEST(InfoMetricsTest, WhatIsNoFigureIsLeftOut) {
  for (const char* pText :
       {"", "\r\n", "workers", "workers:\r\n", "workers:2", "workers:2x\r\n", "workers:two\r\n",
        "cmdstat_get:\r\n", "cmdstat_get:calls=\r\n", "cmdstat_get:call=1\r\n", "db0:keys\r\n",
        "latency_percentiles_usec_get:p50\r\n", "redis_version:7.0.0\r\n", ":1\r\n", ":\r\n"}) {
    EXPECT_EQ("", Page(pText)) << pText;
  }
}

}  // namespace
