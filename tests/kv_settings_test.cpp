#include "settings.h"

#include <gtest/gtest.h>

namespace {

// Sets one value: what is wrong with it, or "".
std::string Set(const std::string& strKey, const std::string& strValue) {
  Settings_t stSettings;
  return SetSetting(stSettings, strKey, strValue);
}

uint64_t QueueBytes(const std::string& strValue) {
  Settings_t stSettings;
  EXPECT_EQ("", SetSetting(stSettings, "queue.bytes", strValue));
  return stSettings.iQueueBytes;
}

// What the values are wrong together with; "" when nothing is.
std::string CheckWith(const std::string& strKey, const std::string& strValue) {
  Settings_t stSettings;
  EXPECT_EQ("", SetSetting(stSettings, strKey, strValue));
  return CheckSettings(stSettings);
}

TEST(KvSettingsTest, DefaultsAreGood) {
  EXPECT_EQ("", CheckSettings(Settings_t()));
  EXPECT_EQ("127.0.0.1", Settings_t().Host());
  EXPECT_EQ(6399, Settings_t().Port());
}

TEST(KvSettingsTest, EveryListedKeyTakesItsOwnDefault) {
  for (const SettingRow_t& stRow : ListSettings(Settings_t())) {
    EXPECT_EQ("", Set(stRow.pKey, stRow.strValue)) << stRow.pKey;
    EXPECT_STRNE("", stRow.pHelp);
  }
}

TEST(KvSettingsTest, SizesMayBeScaled) {
  EXPECT_EQ(100000u, QueueBytes("100000"));
  EXPECT_EQ(64u << 10, QueueBytes("64k"));
  EXPECT_EQ(64u << 10, QueueBytes("64K"));
  EXPECT_EQ(3u << 20, QueueBytes("3m"));
  EXPECT_EQ(1u << 30, QueueBytes("1G"));
}

TEST(KvSettingsTest, NumbersAreTakenFromLeastToMost) {
  EXPECT_EQ("", Set("server.workers", "1"));
  EXPECT_EQ("", Set("server.workers", "64"));
  const std::string strRange = "must be a number from 1 to 64";
  EXPECT_EQ("server.workers = \"0\": " + strRange, Set("server.workers", "0"));
  EXPECT_EQ("server.workers = \"65\": " + strRange, Set("server.workers", "65"));
}

TEST(KvSettingsTest, StatisticsMayBeOffAndLastAnHourAtMost) {
  EXPECT_EQ(60u, Settings_t().iStatInterval);
  EXPECT_EQ("", Set("stat.interval", "0"));
  EXPECT_EQ("", Set("stat.interval", "3600"));
  EXPECT_EQ("stat.interval = \"3601\": must be a number from 0 to 3600",
            Set("stat.interval", "3601"));
}

TEST(KvSettingsTest, NumbersAreDigitsWithAScaleAtMost) {
  for (const char* pValue :
       {"", "x", "-1", "+1", " 1", "1 ", "1.5", "0x10", "1KK", "1KB", "K", "1T", "1e3"}) {
    EXPECT_EQ(std::string("server.workers = \"") + pValue + "\": must be a number from 1 to 64",
              Set("server.workers", pValue));
  }
}

// Scaled in 64 bits these would be small numbers again.
TEST(KvSettingsTest, NumbersThatOverflowAreRefused) {
  for (const char* pValue : {"17179869185G", "18446744073709551617", "9999999999G", "8589934593G",
                             "99999999999999999999999"}) {
    EXPECT_NE("", Set("queue.bytes", pValue)) << pValue;
    EXPECT_NE("", Set("server.workers", pValue)) << pValue;
  }
}

TEST(KvSettingsTest, UnknownKeysAreNamed) {
  EXPECT_EQ("server.worker = \"1\": unknown setting", Set("server.worker", "1"));
  EXPECT_EQ(" = \"\": unknown setting", Set("", ""));
}

TEST(KvSettingsTest, ErrorsNameTheOriginOfTheValue) {
  Settings_t stSettings;
  EXPECT_EQ("kv.xml: server.workers = \"x\": must be a number from 1 to 64",
            SetSetting(stSettings, "server.workers", "x", "kv.xml: "));
  EXPECT_EQ("kv.xml: no.such = \"x\": unknown setting",
            SetSetting(stSettings, "no.such", "x", "kv.xml: "));
  EXPECT_EQ("", SetSetting(stSettings, "log.level", "loud", "kv.xml: "));
  EXPECT_EQ("kv.xml: log.level = \"loud\": is no level name", CheckSettings(stSettings));
  EXPECT_EQ("", SetSetting(stSettings, "log.level", "louder", "--set "));
  EXPECT_EQ("--set log.level = \"louder\": is no level name", CheckSettings(stSettings));
}

TEST(KvSettingsTest, ListenIsAnAddressAndAPort) {
  EXPECT_EQ("", CheckWith("server.listen", "0.0.0.0:1"));
  EXPECT_EQ("", CheckWith("server.listen", "10.1.2.3:65535"));
  for (const std::string strValue :
       {"", ":", "127.0.0.1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:71935",
        "127.0.0.1:x", "127.0.0.1:1x", "127.0.0.1: 1", "127.0.0.1:01", "localhost:6399",
        "256.0.0.1:1", "1.2.3:1", "::1:6399"}) {
    EXPECT_EQ("server.listen = \"" + strValue + "\": must be an IPv4 address, \":\", a port",
              CheckWith("server.listen", strValue));
  }
}

TEST(KvSettingsTest, MetricsListenIsAnAddressAndAPortOrNothing) {
  EXPECT_EQ("", CheckWith("metrics.listen", ""));
  EXPECT_EQ("", CheckWith("metrics.listen", "0.0.0.0:9100"));
  for (const std::string strValue : {":", "9100", "127.0.0.1:0", "localhost:9100"}) {
    EXPECT_EQ("metrics.listen = \"" + strValue + "\": must be an IPv4 address, \":\", a port",
              CheckWith("metrics.listen", strValue));
  }
}

TEST(KvSettingsTest, LevelsAreNames) {
  EXPECT_EQ("", CheckWith("log.level", "debug"));
  EXPECT_EQ("", CheckWith("log.level", "NONE"));
  EXPECT_EQ("log.level = \"loud\": is no level name", CheckWith("log.level", "loud"));
}

TEST(KvSettingsTest, QueuesHoldTheLargestCommandTwice) {
  Settings_t stSettings;
  stSettings.iMaxKey = 1000;
  stSettings.iMaxValue = 100000;
  stSettings.iQueueBytes = 2 * 101000 + 65536;
  EXPECT_EQ("", CheckSettings(stSettings));
  --stSettings.iQueueBytes;
  EXPECT_EQ(
      "queue.bytes = \"267535\": must be at least 267536 for the present limits.key and "
      "limits.value",
      CheckSettings(stSettings));
}

TEST(KvSettingsTest, TablesHoldTheirHeads) {
  Settings_t stSettings;
  stSettings.iTableBuckets = 16;
  stSettings.iTableBytes = 4194384 + 56 + 16 * 16 + 4194320 + 65536;
  EXPECT_EQ("", CheckSettings(stSettings));
  --stSettings.iTableBytes;
  EXPECT_EQ("table.bytes = \"8454551\": must be at least 8454552 for the present table.buckets",
            CheckSettings(stSettings));
}

TEST(KvSettingsTest, AnEntryIsABlockOfTheHeap) {
  Settings_t stSettings;
  stSettings.iMaxKey = 4262;
  stSettings.iMaxValue = 4190000;
  stSettings.iQueueBytes = 1 << 30;
  EXPECT_EQ("", CheckSettings(stSettings)) << "with 42 bytes of heads and prefix";
  ++stSettings.iMaxValue;
  EXPECT_EQ(
      "limits.value = \"4190001\": is too large: key and value together may have 4194262 bytes",
      CheckSettings(stSettings));
}

TEST(KvSettingsTest, TheRunDirectoryHasAName) {
  EXPECT_EQ("server.run_dir = \"\": must not be empty", CheckWith("server.run_dir", ""));
}

TEST(KvSettingsTest, TheLogLiesInTheRunDirectoryUnlessTold) {
  Settings_t stSettings;
  SetSetting(stSettings, "server.run_dir", "/run/kv");
  EXPECT_EQ("/run/kv/log", stSettings.LogPath());
  SetSetting(stSettings, "log.path", "/var/log/kv");
  EXPECT_EQ("/var/log/kv", stSettings.LogPath());
}

TEST(KvSettingsTest, TheMirrorsTableIsAPlainName) {
  for (const std::string& strValue :
       {std::string("a"), std::string("KV_keys_2"), std::string(64, 't')}) {
    EXPECT_EQ("", CheckWith("mirror.mysql.table", strValue));
  }
  for (const std::string strValue : {"", "a b", "a`b", "a.b", "\xc3\xa4", "a'", "a-b"}) {
    EXPECT_EQ(
        "mirror.mysql.table = \"" + strValue + "\": must be 1 to 64 letters, digits and \"_\"",
        CheckWith("mirror.mysql.table", strValue));
  }
  EXPECT_NE("", CheckWith("mirror.mysql.table", std::string(65, 't')));
}

TEST(KvSettingsTest, AMirrorNeedsADatabase) {
  Settings_t stSettings;
  stSettings.strMirrorDatabase = "";
  EXPECT_EQ("", CheckSettings(stSettings));
  stSettings.strMirrorHost = "db";
  EXPECT_EQ("mirror.mysql.database = \"\": must not be empty with a mirror",
            CheckSettings(stSettings));
  EXPECT_NE("", Set("mirror.mysql.port", "0"));
  EXPECT_NE("", Set("mirror.mysql.port", "65536"));
}

TEST(KvSettingsTest, APasswordIsListedAsStars) {
  Settings_t stSettings;
  EXPECT_EQ("", SetSetting(stSettings, "mirror.mysql.password", "secret"));
  EXPECT_EQ("secret", stSettings.strMirrorPassword);
  for (const SettingRow_t& stRow : ListSettings(stSettings)) {
    EXPECT_EQ(std::string::npos, stRow.strValue.find("secret")) << stRow.pKey;
  }
  EXPECT_EQ("***", ShownValue("mirror.mysql.password", "secret"));
  EXPECT_EQ("", ShownValue("mirror.mysql.password", ""));
  EXPECT_EQ("secret", ShownValue("mirror.mysql.user", "secret"));
}

TEST(KvSettingsTest, SwitchesAreYesOrNo) {
  for (const std::string strKey : {"debug.commands", "server.follow"}) {
    EXPECT_EQ("", CheckWith(strKey.c_str(), "yes"));
    EXPECT_EQ("", CheckWith(strKey.c_str(), "no"));
    for (const std::string strValue : {"", "1", "Yes", "yes "}) {
      EXPECT_EQ(strKey + " = \"" + strValue + "\": must be yes or no",
                CheckWith(strKey.c_str(), strValue));
    }
  }
}

}  // namespace
