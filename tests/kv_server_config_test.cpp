#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "kv_server_fixture.h"
#include "test_support.h"

namespace {

class KvServerConfigTest : public testing::Test {
 protected:
  std::string Write(const std::string& strName, const std::string& strText) {
    const std::string strPath = m_stDirectory.Path() + "/" + strName;
    std::ofstream(strPath) << strText;
    return strPath;
  }
  PrivateDirectory m_stDirectory;
};

TEST_F(KvServerConfigTest, AServerRunsFromItsFiles) {
  const std::string strIni =
      Write("kv.ini", "save = 900:1\n[rename]\nincr = add-one\n[disable]\nflushall\n");
  const std::string strXml =
      Write("kv.xml", "<kv><server><workers>2</workers><ini>" + strIni +
                          "</ini></server><limits><key>@(server.workers)0</key></limits></kv>");
  ServerProcess stServer({strXml});
  Client stClient(stServer);
  EXPECT_EQ("*2\r\n$14\r\nserver.workers\r\n$1\r\n2\r\n",
            stClient.Ask({"CONFIG", "GET", "server.workers"}));
  EXPECT_EQ("*2\r\n$4\r\nsave\r\n$5\r\n900 1\r\n", stClient.Ask({"CONFIG", "GET", "save"}));
  EXPECT_EQ("+OK\r\n", stClient.Ask({"SET", std::string(20, 'k'), "v"}));
  EXPECT_NE(std::string::npos,
            stClient.Ask({"SET", std::string(21, 'k'), "v"}).find("(limits.key)"));
  EXPECT_EQ(":1\r\n", stClient.Ask({"Add-One", "n"}));
  EXPECT_EQ("-ERR wrong number of arguments for 'add-one' command\r\n", stClient.Ask({"add-one"}));
  EXPECT_EQ("-ERR unknown command 'INCR', with args beginning with: 'n' \r\n",
            stClient.Ask({"INCR", "n"}));
  EXPECT_EQ("-ERR unknown command 'FLUSHALL', with args beginning with: \r\n",
            stClient.Ask({"FLUSHALL"}));
}

TEST_F(KvServerConfigTest, CheckSaysThatTheSettingsAreRightAndStartsNothing) {
  const std::string strDirectory = m_stDirectory.Path() + "/run";
  const RunResult_t stResult = RunServer({"--check", "--set", "server.run_dir=" + strDirectory});
  EXPECT_EQ(0, stResult.iExit);
  EXPECT_EQ("kv_server: the settings are right\n", stResult.strOut);
  EXPECT_EQ("", stResult.strError);
  EXPECT_NE(0, access(strDirectory.c_str(), F_OK));
}

TEST_F(KvServerConfigTest, WrongSettingsEndWithExitCodeTwo) {
  const std::string strXml = Write("kv.xml", "<kv><server><workers>0</workers></server></kv>");
  for (const std::vector<std::string>& vecArguments :
       {std::vector<std::string>{strXml}, {strXml, "--check"}, {strXml, "--print-config"}}) {
    const RunResult_t stResult = RunServer(vecArguments);
    EXPECT_EQ(2, stResult.iExit);
    EXPECT_EQ("kv_server: " + strXml + ": server.workers = \"0\": must be a number from 1 to 64\n",
              stResult.strError);
    EXPECT_EQ("", stResult.strOut);
  }
}

TEST_F(KvServerConfigTest, ThePrintedConfigurationStartsTheSameServer) {
  const RunResult_t stPrinted =
      RunServer({"--print-config", "--set", "server.workers=3", "--set", "limits.value=8K"});
  EXPECT_EQ(0, stPrinted.iExit);
  const std::string strXml = Write("printed.xml", stPrinted.strOut);
  EXPECT_EQ(stPrinted.strOut, RunServer({strXml, "--print-config"}).strOut);
  EXPECT_NE(std::string::npos, stPrinted.strOut.find("<workers>3</workers>"));
  EXPECT_NE(std::string::npos, stPrinted.strOut.find("<value>8192</value>"));
}

TEST_F(KvServerConfigTest, TheExampleFilesAreRight) {
  const std::string strExample = KV_SERVER_SOURCE "/kv_server.xml";
  const RunResult_t stResult = RunServer({strExample, "--check"});
  EXPECT_EQ("", stResult.strError);
  EXPECT_EQ(0, stResult.iExit);
}

}  // namespace
