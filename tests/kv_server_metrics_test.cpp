#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "client_program.h"
#include "kv_server_fixture.h"
#include "test_support.h"

namespace {

bool Contains(const std::string& strText, const std::string& strPart) {
  return strText.find(strPart) != std::string::npos;
}

// Wherever the server's program lies alone, and where the exporter was left out.
TEST(KvServerNoMetricsTest, AServerWithoutTheExporterSaysSo) {
  const PrivateDirectory stDirectory;
  const std::string strProgram = stDirectory.File("kv_server");
  std::filesystem::copy_file(KV_SERVER_PATH, strProgram);
  const std::string strPort = std::to_string(FreePort());
  const ProgramResult_t stResult = RunProgram(
      {strProgram, "--set", "server.run_dir=" + stDirectory.File("run"), "--set",
       "server.listen=127.0.0.1:" + std::to_string(FreePort()), "--metrics-port", strPort});
  EXPECT_EQ(1, stResult.iExit);
  EXPECT_EQ("kv_server: metrics.listen = \"127.0.0.1:" + strPort + "\": there is no " +
                stDirectory.Path() +
                "/metrics_exporter (it is built where prometheus-cpp is installed)\n",
            stResult.strError);
}

#ifdef METRICS_EXPORTER

// The server with its page.
class KvServerMetricsTest : public testing::Test {
 protected:
  static std::string Listen(uint16_t iPort) {
    return "metrics.listen=127.0.0.1:" + std::to_string(iPort);
  }

  // The page, without the head; waits while there is none yet.
  std::string Page() const {
    std::string strPage;
    WaitUntil([&] {
      try {
        Client stClient(m_iPort);
        stClient.Send("GET /metrics HTTP/1.0\r\n\r\n");
        strPage = stClient.ReadToEnd();
      } catch (const std::exception&) {
        return false;
      }
      return Contains(strPage, "200 OK\r\n");
    });
    EXPECT_TRUE(Contains(strPage, "200 OK\r\n")) << strPage;
    return strPage.substr(std::min(strPage.find("\r\n\r\n"), strPage.size()));
  }

  // The figure behind a name with its labels; -1: there is none.
  static double Figure(const std::string& strPage, const std::string& strName) {
    const size_t iLine = strPage.find("\n" + strName + " ");
    return iLine == std::string::npos ? -1 : atof(strPage.c_str() + iLine + strName.size() + 2);
  }

  const uint16_t m_iPort = FreePort();
};

TEST_F(KvServerMetricsTest, ThePageHasCallsAndQuantilesOfEachCommand) {
  ServerProcess stServer({Listen(m_iPort), "server.workers=2"});
  Client stClient(stServer);
  for (int i = 0; i < 10; ++i) {
    stClient.Ask({"SET", "key" + std::to_string(i), "value"});
  }
  stClient.Ask({"GET", "key1"});
  const std::string strPage = Page();
  EXPECT_EQ(10, Figure(strPage, "kv_commands_total{command=\"set\"}")) << strPage;
  EXPECT_EQ(1, Figure(strPage, "kv_commands_total{command=\"get\"}"));
  EXPECT_EQ(-1, Figure(strPage, "kv_commands_total{command=\"del\"}"));
  const double fHalf =
      Figure(strPage, "kv_command_latency_seconds{command=\"set\",quantile=\"0.5\"}");
  EXPECT_GT(fHalf, 0);
  EXPECT_LE(fHalf,
            Figure(strPage, "kv_command_latency_seconds{command=\"set\",quantile=\"0.999\"}"));
  EXPECT_EQ(10, Figure(strPage, "kv_keys"));
  EXPECT_EQ(2, Figure(strPage, "kv_workers"));
  EXPECT_EQ(1, Figure(strPage, "kv_up"));
  EXPECT_EQ(1, Figure(strPage, "kv_workers_up"));
  stClient.Ask({"GET", "key1"});
  EXPECT_EQ(2, Figure(Page(), "kv_commands_total{command=\"get\"}"));
}

TEST_F(KvServerMetricsTest, AStalledWorkerLeavesTheGatewaysFigures) {
  ServerProcess stServer({Listen(m_iPort)});
  Client(stServer).Ask({"SET", "a", "1"});
  const StoppedProcess stStopped(stServer.Worker(0));
  const std::string strPage = Page();
  EXPECT_EQ(1, Figure(strPage, "kv_up")) << strPage;
  EXPECT_EQ(0, Figure(strPage, "kv_workers_up"));
  EXPECT_EQ(1, Figure(strPage, "kv_commands_total{command=\"set\"}"));
  EXPECT_EQ(-1, Figure(strPage, "kv_keys"));
}

TEST_F(KvServerMetricsTest, AKilledExporterComesBackAndTheServerGoesOn) {
  ServerProcess stServer({Listen(m_iPort)});
  Client stClient(stServer);
  Page();
  const pid_t iKilled = stServer.Metrics();
  SendSignal(iKilled, SIGKILL);
  EXPECT_TRUE(WaitUntil([&] { return stServer.Metrics() != iKilled; }));
  EXPECT_EQ("+PONG\r\n", stClient.Ask({"PING"}));
  EXPECT_EQ(1, Figure(Page(), "kv_up"));
  EXPECT_TRUE(Contains(stServer.Log(), "master: metrics ended with signal 9")) << stServer.Log();
}

TEST_F(KvServerMetricsTest, TheEndOfTheServerIsTheExporters) {
  ServerProcess stServer({Listen(m_iPort), "--ephemeral"});
  Page();
  const pid_t iExporter = stServer.Metrics();
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_FALSE(IsAlive(iExporter));
  EXPECT_TRUE(Contains(stServer.Log(), "master: metrics ended with exit code 0")) << stServer.Log();
  EXPECT_EQ("", stServer.Remains());
}

TEST_F(KvServerMetricsTest, AKilledMasterTakesTheExporterWithIt) {
  ServerProcess stServer({Listen(m_iPort)});
  Page();
  const pid_t iExporter = stServer.Metrics();
  SendSignal(stServer.Master(), SIGKILL);
  EXPECT_TRUE(WaitUntil([&] { return !IsAlive(iExporter); }));
}

TEST_F(KvServerMetricsTest, InfoMayHaveAnotherName) {
  const PrivateDirectory stDirectory;
  const std::string strIni = stDirectory.File("kv.ini");
  WriteFile(strIni, "[rename]\ninfo = tell-me\n");
  ServerProcess stServer({Listen(m_iPort), "server.ini=" + strIni});
  EXPECT_EQ(1, Figure(Page(), "kv_workers_up"));
}

TEST_F(KvServerMetricsTest, WithoutInfoTheServerDoesNotStart) {
  const PrivateDirectory stDirectory;
  const std::string strIni = stDirectory.File("kv.ini");
  WriteFile(strIni, "[disable]\ninfo\n");
  const RunResult_t stResult =
      RunServer({"--set", "server.ini=" + strIni, "--set", Listen(m_iPort), "--set",
                 "server.run_dir=" + stDirectory.File("run"), "--set",
                 "server.listen=127.0.0.1:" + std::to_string(FreePort())});
  EXPECT_EQ(1, stResult.iExit);
  EXPECT_TRUE(Contains(stResult.strError, "needs INFO, which server.ini disables"))
      << stResult.strError;
}

TEST_F(KvServerMetricsTest, APortInUseIsToldAtTheStart) {
  const ServerProcess stOther;
  const PrivateDirectory stDirectory;
  const RunResult_t stResult = RunServer({"--set", Listen(stOther.Port()), "--set",
                                          "server.run_dir=" + stDirectory.File("run"), "--set",
                                          "server.listen=127.0.0.1:" + std::to_string(FreePort())});
  EXPECT_EQ(1, stResult.iExit);
  EXPECT_EQ("kv_server: can not listen on metrics.listen = \"127.0.0.1:" +
                std::to_string(stOther.Port()) + "\": Address already in use\n",
            stResult.strError);
}

TEST_F(KvServerMetricsTest, TheExporterAloneTellsThatNobodyAnswers) {
  const std::string strServer = "127.0.0.1:" + std::to_string(FreePort());
  const std::string strListen = "127.0.0.1:" + std::to_string(m_iPort);
  ForkedPeer stExporter([&] {
    return execl(METRICS_EXPORTER, METRICS_EXPORTER, "--server", strServer.c_str(), "--listen",
                 strListen.c_str(), nullptr);
  });
  const std::string strPage = Page();
  EXPECT_EQ(0, Figure(strPage, "kv_up")) << strPage;
  EXPECT_EQ(0, Figure(strPage, "kv_workers_up"));
  stExporter.Kill(SIGTERM);
  EXPECT_EQ(0, stExporter.Wait());
}

TEST_F(KvServerMetricsTest, WrongArgumentsOfTheExporterShowItsUsage) {
  for (const std::vector<std::string>& vecArguments :
       {std::vector<std::string>{},
        {"--listen", "127.0.0.1:1"},
        {"--server", "127.0.0.1:1"},
        {"--server", "x", "--listen", "127.0.0.1:1"},
        {"--server"},
        {"--server", "127.0.0.1:1", "--listen", "127.0.0.1:70000"}}) {
    std::vector<std::string> vecCommand{METRICS_EXPORTER};
    vecCommand.insert(vecCommand.end(), vecArguments.begin(), vecArguments.end());
    const ProgramResult_t stResult = RunProgram(vecCommand);
    EXPECT_EQ(1, stResult.iExit);
    EXPECT_TRUE(Contains(stResult.strError, "usage: metrics_exporter")) << stResult.strError;
  }
}

#endif

}  // namespace
