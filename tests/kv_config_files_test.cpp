#include "config_files.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "test_support.h"

namespace {

class KvConfigFilesTest : public testing::Test {
 protected:
  std::string Write(const std::string& strName, const std::string& strText) {
    std::ofstream(PathOf(strName)) << strText;
    return PathOf(strName);
  }
  std::string PathOf(const std::string& strName) { return m_stDirectory.Path() + "/" + strName; }

  // What is wrong with the file, or "".
  std::string LoadXml(const std::string& strInside) {
    return LoadConfigFile(m_stSettings, Write("kv.xml", "<kv>" + strInside + "</kv>"));
  }
  std::string LoadIni(const std::string& strText) {
    return LoadOperatorFile(m_stSettings, Write("kv.ini", strText));
  }

  PrivateDirectory m_stDirectory;
  Settings_t m_stSettings;
};

TEST_F(KvConfigFilesTest, ElementsAreSettings) {
  EXPECT_EQ("", LoadXml("<server><listen> 127.0.0.1:7000 </listen><workers>3</workers></server>"
                        "<queue bytes=\"16M\"/>"));
  EXPECT_EQ("127.0.0.1:7000", m_stSettings.strListen);
  EXPECT_EQ(3u, m_stSettings.iWorkers);
  EXPECT_EQ(16u << 20, m_stSettings.iQueueBytes);
}

TEST_F(KvConfigFilesTest, ValuesReferToTheEnvironmentAndToOtherKeys) {
  setenv("KV_TEST_BASE", "/srv/kv", 1);
  EXPECT_EQ("", LoadXml("<server><run_dir>$(KV_TEST_BASE)/run</run_dir></server>"
                        "<log><path>@(server.run_dir)/log-@(config.dir)</path></log>"));
  unsetenv("KV_TEST_BASE");
  EXPECT_EQ("/srv/kv/run", m_stSettings.strRunDir);
  char szReal[4096];
  ASSERT_NE(nullptr, realpath(m_stDirectory.Path().c_str(), szReal));
  EXPECT_EQ(std::string("/srv/kv/run/log-") + szReal, m_stSettings.strLogPath);
}

TEST_F(KvConfigFilesTest, IncludedFilesAreReadFromTheConfigurationsOwnDirectory) {
  Write("site-a.xml", "<site><server><workers>4</workers></server></site>");
  Write("site-b.xml", "<site><log><level>DEBUG</level></log></site>");
  EXPECT_EQ("", LoadXml("<include>@(config.dir)/site-*.xml</include>"));
  EXPECT_EQ(4u, m_stSettings.iWorkers);
  EXPECT_EQ("DEBUG", m_stSettings.strLogLevel);
}

TEST_F(KvConfigFilesTest, WrongSettingsAreNamedWithTheirFile) {
  const std::string strFile = PathOf("kv.xml: ");
  EXPECT_EQ(strFile + "server.workers = \"many\": must be a number from 1 to 64",
            LoadXml("<server><workers>many</workers></server>"));
  EXPECT_EQ(strFile + "server.wrokers = \"1\": unknown setting",
            LoadXml("<server><wrokers>1</wrokers></server>"));
}

TEST_F(KvConfigFilesTest, ASettingGivenTwiceIsRefused) {
  EXPECT_EQ(PathOf("kv.xml: server.workers = \"1\": is set more than once"),
            LoadXml("<server><workers>1</workers></server><server><workers>2</workers></server>"));
}

TEST_F(KvConfigFilesTest, AnErrorShowsNoPassword) {
  EXPECT_EQ(
      PathOf("kv.xml: mirror.mysql.password = \"***\": is set more than once"),
      LoadXml("<mirror><mysql><password>a</password><password>b</password></mysql></mirror>"));
}

TEST_F(KvConfigFilesTest, UnreadableFilesSayWhy) {
  EXPECT_EQ(PathOf("none.xml: No such file or directory"),
            LoadConfigFile(m_stSettings, PathOf("none.xml")));
  EXPECT_EQ(PathOf("none.ini: No such file or directory"),
            LoadOperatorFile(m_stSettings, PathOf("none.ini")));
  std::string strError;
  const std::string strParser = CaptureOutput(2, [&] { strError = LoadXml("<open>"); });
  EXPECT_EQ(PathOf("kv.xml: is no XML file with content"), strError);
  EXPECT_NE(std::string::npos, strParser.find("parser error"));
}

TEST_F(KvConfigFilesTest, AnIncludedFileThatFailsIsNamed) {
  Write("fine.xml", "<site><server><workers>4</workers></server></site>");
  Write("broken.xml", "<site>");
  std::string strError;
  CaptureOutput(2, [&] { strError = LoadXml("<include>@(config.dir)/*e*.xml</include>"); });
  EXPECT_EQ(PathOf("broken.xml: is no XML file with content"), strError);
  Write("broken.xml", "");
  EXPECT_EQ(PathOf("broken.xml: is no XML file with content"),
            LoadXml("<include>@(config.dir)/*e*.xml</include>"));
  ASSERT_EQ(0, symlink("nowhere", PathOf("dangling.xml").c_str()));
  EXPECT_EQ(PathOf("dangling.xml: No such file or directory"),
            LoadXml("<include>@(config.dir)/dangling.xml</include>"));
  EXPECT_EQ(PathOf("dangling.xml: No such file or directory"),
            LoadIni("include = " + PathOf("dangling.xml") + "\n"));
}

TEST_F(KvConfigFilesTest, DirectoriesAreNoFiles) {
  const std::string strDirectory = m_stDirectory.Path();
  EXPECT_EQ(strDirectory + ": Is a directory", LoadConfigFile(m_stSettings, strDirectory));
  EXPECT_EQ(strDirectory + ": Is a directory", LoadOperatorFile(m_stSettings, strDirectory));
  EXPECT_EQ(strDirectory + ": Is a directory", LoadXml("<include>@(config.dir)</include>"));
  EXPECT_EQ(strDirectory + ": Is a directory", LoadIni("include = " + strDirectory + "\n"));
}

TEST_F(KvConfigFilesTest, ASingleIncludedFileMustBeThereAndAPatternMayMatchNothing) {
  EXPECT_EQ(PathOf("kv.xml: include = \"") + PathOf("site.xml\": there is no such file"),
            LoadXml("<include>@(config.dir)/site.xml</include>"));
  EXPECT_EQ(PathOf("kv.xml: include = \"/site.xml\": there is no such file"),
            LoadXml("<include>site.xml</include>"));
  EXPECT_EQ(PathOf("kv.ini: include = \"") + PathOf("more.ini\": there is no such file"),
            LoadIni("include = " + PathOf("more.ini") + "\n"));
  unsetenv("KV_TEST_NONE");
  EXPECT_EQ("", LoadXml("<include>@(config.dir)/site-*.xml</include>"
                        "<include>$(KV_TEST_NONE)</include>"));
  EXPECT_EQ("", LoadIni("include = " + PathOf("more-?.ini") + "\ninclude = $(KV_TEST_NONE)\n"));
}

TEST_F(KvConfigFilesTest, WrongSettingsOfAnIncludedFileAreNamedWithThatFile) {
  Write("site.xml", "<site><server><workers>many</workers></server></site>");
  EXPECT_EQ(PathOf("site.xml: server.workers = \"many\": must be a number from 1 to 64"),
            LoadXml("<include>@(config.dir)/site.xml</include>"));
  Write("site.xml", "<site><log><level>loud</level></log></site>");
  ASSERT_EQ("", LoadXml("<include>@(config.dir)/site.xml</include>"
                        "<server><workers>1</workers></server>"));
  EXPECT_EQ(PathOf("site.xml: log.level = \"loud\": is no level name"),
            CheckSettings(m_stSettings));
  Write("more.ini", "[disable]\nget = x\n");
  EXPECT_EQ(PathOf("more.ini: [disable] get = \"x\": a disabled command has no value"),
            LoadIni("include = " + PathOf("more.ini") + "\nsave = 900:1\n"));
}

TEST_F(KvConfigFilesTest, SaveRulesMayBeRepeated) {
  EXPECT_EQ("", LoadIni("save = 900:1\n\n; often\nsave=60:10000\n"));
  ASSERT_EQ(2u, m_stSettings.vecSaveRules.size());
  EXPECT_EQ(900u, m_stSettings.vecSaveRules[0].iSeconds);
  EXPECT_EQ(1u, m_stSettings.vecSaveRules[0].iChanges);
  EXPECT_EQ(60u, m_stSettings.vecSaveRules[1].iSeconds);
  EXPECT_EQ(10000u, m_stSettings.vecSaveRules[1].iChanges);
}

TEST_F(KvConfigFilesTest, SaveRulesAreTwoNumbers) {
  for (const std::string strValue : {"900", "900:", ":1", "0:1", "1:0", "-1:1", "900:1x", "a:b",
                                     "1:-1", "1:+1", "9999999999:1", "900:9999999999"}) {
    EXPECT_EQ(PathOf("kv.ini: save = \"") + strValue +
                  "\": must be SECONDS:CHANGES without blanks, both from 1",
              LoadIni("save = " + strValue + "\n"));
  }
  EXPECT_NE("", LoadIni("save\n"));
  EXPECT_NE("", LoadIni("save = 900 1\n"));
  EXPECT_TRUE(m_stSettings.vecSaveRules.empty());
}

TEST_F(KvConfigFilesTest, CommandsAreRenamedAndDisabled) {
  EXPECT_EQ("", LoadIni("[rename]\nCONFIG = Admin-Config\n[disable]\r\nflushall\r\n\r\nSHUTDOWN"));
  EXPECT_EQ((std::map<std::string, std::string>{
                {"config", "admin-config"}, {"flushall", ""}, {"shutdown", ""}}),
            m_stSettings.mapCommandNames);
}

TEST_F(KvConfigFilesTest, WrongOperatorItemsAreNamedWithTheirFile) {
  const std::string strFile = PathOf("kv.ini: ");
  EXPECT_EQ(strFile + "svae = \"900:1\": unknown setting", LoadIni("svae = 900:1\n"));
  EXPECT_EQ(strFile + "[renames] get = \"x\": unknown setting", LoadIni("[renames]\nget = x\n"));
  EXPECT_EQ(strFile + "[rename] get = \"\": a new name is missing", LoadIni("[rename]\nget =\n"));
  EXPECT_EQ(strFile + "[disable] get = \"x\": a disabled command has no value",
            LoadIni("[disable]\nget = x\n"));
  EXPECT_EQ(strFile + "[rename] get = \"b\": this command has been named before",
            LoadIni("[rename]\nget = a\nget = b\n"));
}

TEST_F(KvConfigFilesTest, WrongNamesAreFoundWithTheFile) {
  EXPECT_EQ(PathOf("kv.ini: command \"nosuch\": there is no such command"),
            LoadIni("[disable]\nnosuch\n"));
}

TEST_F(KvConfigFilesTest, OperatorFilesIncludeOthers) {
  Write("more.ini", "save = 60:2\n");
  EXPECT_EQ("", LoadIni("include = " + PathOf("more.ini") + "\nsave = 900:1\n"));
  ASSERT_EQ(2u, m_stSettings.vecSaveRules.size());
  EXPECT_EQ(60u, m_stSettings.vecSaveRules[1].iSeconds);
}

TEST_F(KvConfigFilesTest, ThePrintedSettingsAreReadBackAsTheyWere) {
  EXPECT_EQ("",
            LoadXml("<server><workers>7</workers><run_dir>a&lt;b&amp;&quot;c&quot;&gt;</run_dir>"
                    "</server><limits><value>64K</value></limits>"));
  const std::string strText = ConfigText(m_stSettings);
  Settings_t stAgain;
  EXPECT_EQ("", LoadConfigFile(stAgain, Write("printed.xml", strText)));
  EXPECT_EQ("a<b&\"c\">", stAgain.strRunDir);
  EXPECT_EQ(7u, stAgain.iWorkers);
  EXPECT_EQ(strText, ConfigText(stAgain));
  EXPECT_EQ(0u, strText.find("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<kv_server>\n"));
}

}  // namespace
