#include "command_line.h"

#include <gtest/gtest.h>

#include <fstream>

#include "test_support.h"

namespace {

class KvCommandLineTest : public testing::Test {
 protected:
  std::string Write(const std::string& strName, const std::string& strText) {
    const std::string strPath = m_stDirectory.Path() + "/" + strName;
    std::ofstream(strPath) << strText;
    return strPath;
  }
  PrivateDirectory m_stDirectory;
};

TEST_F(KvCommandLineTest, WithoutArgumentsTheDefaultsHold) {
  const CommandLine_t stLine = ParseCommandLine({});
  EXPECT_EQ("", stLine.strError);
  EXPECT_EQ(ACTION_RUN, stLine.eAction);
  EXPECT_EQ("127.0.0.1:6399", stLine.stSettings.strListen);
}

TEST_F(KvCommandLineTest, EachOptionIsItsAction) {
  EXPECT_EQ(ACTION_HELP, ParseCommandLine({"--help"}).eAction);
  EXPECT_EQ(ACTION_VERSION, ParseCommandLine({"--version"}).eAction);
  EXPECT_EQ(ACTION_CHECK, ParseCommandLine({"--check"}).eAction);
  EXPECT_EQ(ACTION_PRINT_CONFIG, ParseCommandLine({"--print-config"}).eAction);
}

TEST_F(KvCommandLineTest, SetComesAfterTheFileWhereverItStands) {
  const std::string strFile = Write("kv.xml", "<kv><server><workers>2</workers></server></kv>");
  EXPECT_EQ(2u, ParseCommandLine({strFile}).stSettings.iWorkers);
  EXPECT_EQ(5u, ParseCommandLine(
                    {"--set", "server.workers=4", strFile, "--set", "server.workers=5", "--check"})
                    .stSettings.iWorkers);
}

TEST_F(KvCommandLineTest, ValuesMayHoldEqualsSigns) {
  EXPECT_EQ("a=b", ParseCommandLine({"--set", "server.run_dir=a=b"}).stSettings.strRunDir);
}

TEST_F(KvCommandLineTest, MetricsPortIsThatOfTheLoopbackAddress) {
  EXPECT_EQ("", ParseCommandLine({}).stSettings.strMetricsListen);
  const Settings_t stSettings = ParseCommandLine({"--metrics-port", "9100"}).stSettings;
  EXPECT_EQ("127.0.0.1:9100", stSettings.strMetricsListen);
  EXPECT_EQ(
      "--metrics-port: metrics.listen = \"127.0.0.1:x\": must be an IPv4 address, \":\", a port",
      ParseCommandLine({"--metrics-port", "x"}).strError);
  EXPECT_EQ("unknown or incomplete option \"--metrics-port\", see --help",
            ParseCommandLine({"--metrics-port"}).strError);
}

TEST_F(KvCommandLineTest, TheOperatorsFileIsReadLast) {
  const std::string strIni = Write("kv.ini", "save = 10:20\n[disable]\nflushall\n");
  const CommandLine_t stLine = ParseCommandLine({"--set", "server.ini=" + strIni});
  EXPECT_EQ("", stLine.strError);
  ASSERT_EQ(1u, stLine.stSettings.vecSaveRules.size());
  EXPECT_EQ(20u, stLine.stSettings.vecSaveRules[0].iChanges);
  EXPECT_EQ(1u, stLine.stSettings.mapCommandNames.count("flushall"));
}

TEST_F(KvCommandLineTest, ErrorsTellWhatTheyAreAbout) {
  EXPECT_EQ("--set needs KEY=VALUE, not \"x\"", ParseCommandLine({"--set", "x"}).strError);
  EXPECT_EQ("--set x = \"1\": unknown setting", ParseCommandLine({"--set", "x=1"}).strError);
  EXPECT_EQ("--set log.level = \"loud\": is no level name",
            ParseCommandLine({"--set", "log.level=loud", "--check"}).strError);
  EXPECT_EQ("nosuch.xml: No such file or directory", ParseCommandLine({"nosuch.xml"}).strError);
  EXPECT_EQ("nosuch.ini: No such file or directory",
            ParseCommandLine({"--set", "server.ini=nosuch.ini"}).strError);
}

TEST_F(KvCommandLineTest, WhatIsNotKnownIsRefused) {
  for (const char* pWrong : {"--sat", "--set", "-h", "--check=1", "-"}) {
    EXPECT_EQ(std::string("unknown or incomplete option \"") + pWrong + "\", see --help",
              ParseCommandLine({pWrong}).strError);
  }
  EXPECT_EQ("one configuration file only, not \"other.xml\" behind \"kv.xml\"",
            ParseCommandLine({"kv.xml", "--check", "other.xml"}).strError);
  EXPECT_EQ("unknown or incomplete option \"\", see --help", ParseCommandLine({""}).strError);
}

}  // namespace
