#include "info_text.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

std::string Text(uint32_t iSections, const GatewayStatistics& stStatistics = GatewayStatistics(0)) {
  const Settings_t stSettings;
  return GatewayInfo(iSections, {stSettings, stStatistics, 4711, 90061, 12, 3});
}

TEST(KvInfoTextTest, WordsChooseSections) {
  const uint32_t iDefault = InfoSections({"INFO"});
  EXPECT_EQ(iDefault, InfoSections({"INFO", "default"}));
  EXPECT_EQ(0u, iDefault & INFO_COMMANDSTATS);
  EXPECT_EQ(INFO_SERVER | INFO_CLIENTS | INFO_STATS | INFO_KEYSPACE,
            iDefault & (INFO_SERVER | INFO_CLIENTS | INFO_STATS | INFO_KEYSPACE));
  EXPECT_EQ(InfoSections({"INFO", "all"}), InfoSections({"INFO", "EVERYTHING"}));
  EXPECT_EQ(INFO_COMMANDSTATS, InfoSections({"INFO", "All"}) & INFO_COMMANDSTATS);
  EXPECT_EQ(INFO_STATS | INFO_SERVER, InfoSections({"INFO", "STATS", "nosuch", "server"}));
  EXPECT_EQ(iDefault | INFO_COMMANDSTATS, InfoSections({"INFO", "default", "commandstats"}));
  EXPECT_EQ(0u, InfoSections({"INFO", "nosuch"}));
  EXPECT_EQ(0u, InfoSections({"INFO", ""}));
}

TEST(KvInfoTextTest, Server) {
  EXPECT_EQ(
      "# Server\r\nredis_version:7.0.15\r\nserver_name:kv_server\r\nserver_version:1.0.0\r\n"
      "redis_mode:standalone\r\nprocess_id:" +
          std::to_string(getpid()) +
          "\r\nmaster_process_id:4711\r\ntcp_port:6399\r\nworkers:1\r\n"
          "uptime_in_seconds:90061\r\nuptime_in_days:1\r\n",
      Text(INFO_SERVER));
}

TEST(KvInfoTextTest, Clients) {
  EXPECT_EQ("# Clients\r\nconnected_clients:12\r\nmaxclients:10000\r\nblocked_clients:3\r\n",
            Text(INFO_CLIENTS));
}

TEST(KvInfoTextTest, Stats) {
  GatewayStatistics stStatistics(0);
  stStatistics.m_iConnections = 1;
  stStatistics.m_iInputBytes = 2;
  stStatistics.m_iOutputBytes = 3;
  stStatistics.m_iRejected = 4;
  stStatistics.CountCall(CMD_GET);
  stStatistics.OnTurn(1);
  stStatistics.CountCall(CMD_GET);
  EXPECT_EQ(
      "# Stats\r\ntotal_connections_received:1\r\ntotal_commands_processed:2\r\n"
      "instantaneous_ops_per_sec:1\r\ntotal_net_input_bytes:2\r\ntotal_net_output_bytes:3\r\n"
      "rejected_connections:4\r\n",
      Text(INFO_STATS, stStatistics));
}

TEST(KvInfoTextTest, CommandStatsShowWhatWasCalled) {
  GatewayStatistics stStatistics(0);
  EXPECT_EQ("# Commandstats\r\n", Text(INFO_COMMANDSTATS, stStatistics));
  stStatistics.CountCall(CMD_MGET);
  stStatistics.CountCall(CMD_GET);
  stStatistics.CountCall(CMD_GET);
  EXPECT_EQ("# Commandstats\r\ncmdstat_get:calls=2\r\ncmdstat_mget:calls=1\r\n",
            Text(INFO_COMMANDSTATS, stStatistics));
}

TEST(KvInfoTextTest, LatencyStatsShowThePercentilesOfThePeriod) {
  GatewayStatistics stStatistics(0);
  EXPECT_EQ("# Latencystats\r\n", Text(INFO_LATENCYSTATS, stStatistics));
  stStatistics.m_stLatencies.Add("set", 10, 99);
  stStatistics.m_stLatencies.Add("set", 120, 1);
  stStatistics.m_stLatencies.Add("get", 7, 1);
  EXPECT_EQ(
      "# Latencystats\r\nlatency_percentiles_usec_get:p50=7,p99=7,p99.9=7\r\n"
      "latency_percentiles_usec_set:p50=50,p99=50,p99.9=120\r\n",
      Text(INFO_LATENCYSTATS, stStatistics));
  EXPECT_EQ(INFO_LATENCYSTATS, InfoSections({"INFO", "LatencyStats"}));
  EXPECT_EQ(0u, InfoSections({"INFO"}) & INFO_LATENCYSTATS);
}

TEST(KvInfoTextTest, PersistenceTellsOfTheJournal) {
  std::string strText;
  AppendWorkerInfo(strText, INFO_PERSISTENCE, {{}, {}, {1, 0, 0, 77, 1, 5}});
  EXPECT_NE(
      std::string::npos,
      strText.find("aof_enabled:1\r\naof_rewrite_in_progress:0\r\naof_last_write_status:err\r\n"
                   "journal_whole:0\r\naof_current_size:77\r\naof_pending_bio_fsync:1\r\n"
                   "journal_syncs:5\r\n"))
      << strText;
  strText.clear();
  AppendWorkerInfo(strText, INFO_PERSISTENCE, {{}, {}, {0, 1, 1, 0, 0, 0}});
  EXPECT_NE(std::string::npos, strText.find("aof_enabled:0\r\n"));
  EXPECT_NE(std::string::npos, strText.find("aof_last_write_status:ok\r\n"));
  EXPECT_EQ(std::string::npos, strText.find("aof_current_size"));
}

TEST(KvInfoTextTest, SectionsAreSeparatedByAnEmptyLine) {
  const std::string strText = Text(INFO_SERVER | INFO_CLIENTS);
  EXPECT_NE(std::string::npos, strText.find("uptime_in_days:1\r\n\r\n# Clients\r\nconnected"));
  EXPECT_EQ("", Text(0));
  EXPECT_EQ("", Text(INFO_KEYSPACE));  // not the gateway's
}

}  // namespace
