#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>
#include <utmp.h>

#include <cstdlib>
#include <set>
#include <sstream>

#include "client_program.h"
#include "kv_server_fixture.h"

// The protocol's own command-line client: what people type at a terminal, and what scripts do.

namespace {

// redis-cli on a pseudo terminal, killed at the end of the scope.
class Terminal {
 public:
  explicit Terminal(uint16_t iPort) {
    winsize stSize{40, 120, 0, 0};
    int iSlave = -1;
    if (openpty(&m_iMaster, &iSlave, nullptr, nullptr, &stSize) != 0) {
      throw std::runtime_error("no pseudo terminal");
    }
    m_pPeer = std::make_unique<ForkedPeer>([iSlave, iPort] { return Run(iSlave, iPort); });
    close(iSlave);
  }
  ~Terminal() { close(m_iMaster); }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // Types the keys, then waits until the text is on the screen.
  bool Shows(const std::string& strKeys, const std::string& strText) {
    m_strScreen.clear();
    if (write(m_iMaster, strKeys.data(), strKeys.size()) == -1) {
      return false;
    }
    return WaitUntil([&] { return Read(), m_strScreen.find(strText) != std::string::npos; });
  }
  const std::string& Screen() const { return m_strScreen; }

 private:
  static int Run(int iSlave, uint16_t iPort) {
    login_tty(iSlave);
    setenv("TERM", "xterm", 1);
    setenv("REDISCLI_HISTFILE", "/dev/null", 1);
    execlp("redis-cli", "redis-cli", "-p", std::to_string(iPort).c_str(),
           static_cast<char*>(nullptr));
    return 127;
  }

  void Read() {
    char szBuffer[4096];
    pollfd stPoll{m_iMaster, POLLIN, 0};
    if (poll(&stPoll, 1, 0) == 1) {
      const ssize_t iCount = read(m_iMaster, szBuffer, sizeof(szBuffer));
      m_strScreen.append(szBuffer, iCount > 0 ? static_cast<size_t>(iCount) : 0);
    }
  }

  int m_iMaster = -1;
  std::unique_ptr<ForkedPeer> m_pPeer;
  std::string m_strScreen;
};

class KvServerRedisCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access("/usr/bin/redis-cli", X_OK) != 0) {
      GTEST_SKIP() << "redis-tools is not installed";
    }
  }

  ProgramResult_t Run(std::vector<std::string> vecWords, const std::string& strInput = "") const {
    vecWords.insert(vecWords.begin(), {"redis-cli", "-p", std::to_string(m_stServer.Port())});
    return RunProgram(vecWords, strInput);
  }

  // The output of a run without an error.
  std::string Output(const std::vector<std::string>& vecWords,
                     const std::string& strInput = "") const {
    const ProgramResult_t stResult = Run(vecWords, strInput);
    EXPECT_EQ(0, stResult.iExit);
    EXPECT_EQ("", stResult.strError);
    return stResult.strOut;
  }

  // key:0 to key:<iCount - 1>, each with its number as the value.
  void SetKeys(int iCount) const {
    Client stClient(m_stServer);
    std::vector<std::string> vecWords{"MSET"};
    for (int i = 0; i < iCount; ++i) {
      vecWords.push_back("key:" + std::to_string(i));
      vecWords.push_back(std::to_string(i));
    }
    ASSERT_EQ("+OK\r\n", stClient.Ask(vecWords));
  }

  ServerProcess m_stServer{{"server.workers=2"}};
};

std::vector<std::string> LinesOf(const std::string& strText) {
  std::vector<std::string> vecLines;
  std::istringstream stText(strText);
  for (std::string strLine; std::getline(stText, strLine);) {
    vecLines.push_back(strLine);
  }
  return vecLines;
}

bool Contains(const std::string& strText, const std::string& strPart) {
  return strText.find(strPart) != std::string::npos;
}

TEST_F(KvServerRedisCliTest, ACommandOnTheCommandLine) {
  EXPECT_EQ("OK\n", Output({"SET", "a", "hello world"}));
  EXPECT_EQ("hello world\n", Output({"GET", "a"}));
  EXPECT_EQ("\n", Output({"GET", "nosuch"}));
  EXPECT_EQ("1) \"hello world\"\n2) (nil)\n", Output({"--no-raw", "MGET", "a", "b"}));
  EXPECT_EQ("(integer) 11\n", Output({"--no-raw", "STRLEN", "a"}));
  EXPECT_EQ("1\n2\n3\n", Output({"-r", "3", "-i", "0.001", "INCR", "n"}));
  EXPECT_EQ("hello world,3\n", Output({"-d", ",", "MGET", "a", "n"}));
}

TEST_F(KvServerRedisCliTest, AnErrorIsShownAndMadeAnExitCode) {
  const ProgramResult_t stShown = Run({"--no-raw", "INCR", "a", "b"});
  EXPECT_EQ(0, stShown.iExit);
  EXPECT_EQ("(error) ERR wrong number of arguments for 'incr' command\n", stShown.strOut);
  EXPECT_EQ(1, Run({"-e", "INCR", "a", "b"}).iExit);
  EXPECT_EQ(0, Run({"-e", "INCR", "a"}).iExit);
}

TEST_F(KvServerRedisCliTest, CommandsFromStandardInput) {
  EXPECT_EQ("OK\n1\n2\n", Output({}, "SET x 1\nGET \"x\"\nINCR 'x'\n"));
}

TEST_F(KvServerRedisCliTest, ValuesFromStandardInput) {
  const std::string strBinary("a\0b\r\n\xff", 6);
  EXPECT_EQ("OK\n", Output({"-x", "SET", "bin"}, strBinary));
  EXPECT_EQ(Bulk(strBinary), Client(m_stServer).Ask({"GET", "bin"}));
  EXPECT_EQ("OK\n", Output({"-X", "TAG", "SET", "TAG", "v"}, "name"));
  EXPECT_EQ("v\n", Output({"GET", "name"}));
  const std::string strLarge(1 << 20, 'x');
  EXPECT_EQ("OK\n", Output({"-x", "SET", "large"}, strLarge));
  EXPECT_EQ(strLarge + "\n", Output({"GET", "large"}));
}

TEST_F(KvServerRedisCliTest, QuotedInput) {
  EXPECT_EQ("OK\n", Output({"--quoted-input", "SET", "\"a\\nb\"", "\"\\xff\\x00\""}));
  EXPECT_EQ(Bulk(std::string("\xff\0", 2)), Client(m_stServer).Ask({"GET", "a\nb"}));
}

TEST_F(KvServerRedisCliTest, OutputForOtherPrograms) {
  Output({"MSET", "a", "say \"hi\"", "n", "5"});
  EXPECT_EQ("\"say \\\"hi\\\"\",NULL,\"5\"\n", Output({"--csv", "MGET", "a", "nosuch", "n"}));
  EXPECT_EQ("0\n", Output({"--csv", "STRLEN", "nosuch"}));
  EXPECT_EQ("[\"say \\\"hi\\\"\",null,\"5\"]\n",
            Output({"-2", "--json", "MGET", "a", "nosuch", "n"}));
}

TEST_F(KvServerRedisCliTest, TheThirdProtocolIsRefusedAndTheSecondGoesOn) {
  const ProgramResult_t stResult = Run({"-3", "PING"});
  EXPECT_EQ("HELLO 3 failed: NOPROTO unsupported protocol version\n", stResult.strError);
  EXPECT_EQ("PONG\n", stResult.strOut);
}

TEST_F(KvServerRedisCliTest, MassInsertionCountsRepliesAndErrors) {
  const int iKeys = 20000;
  std::string strRequests;
  for (int i = 0; i < iKeys; ++i) {
    strRequests += Request({"SET", "key:" + std::to_string(i), std::to_string(i)});
  }
  EXPECT_EQ(
      "All data transferred. Waiting for the last reply...\n"
      "Last reply received from server.\nerrors: 0, replies: 20000\n",
      Output({"--pipe"}, strRequests));
  Client stClient(m_stServer);
  EXPECT_EQ(":20000\r\n", stClient.Ask({"DBSIZE"}));
  EXPECT_EQ(Bulk("19999"), stClient.Ask({"GET", "key:19999"}));
}

TEST_F(KvServerRedisCliTest, MassInsertionTellsOfErrors) {
  const std::string strRequests = Request({"SET", "a", "x"}) + Request({"INCR", "a"}) +
                                  "SET b 1\r\n" + Request({"nosuch"}) + Request({"GET", "b"});
  const ProgramResult_t stResult = Run({"--pipe"}, strRequests);
  EXPECT_EQ(1, stResult.iExit);
  EXPECT_TRUE(Contains(stResult.strOut, "errors: 2, replies: 5\n")) << stResult.strOut;
  EXPECT_EQ(
      "ERR value is not an integer or out of range\n"
      "ERR unknown command 'nosuch', with args beginning with: \n",
      stResult.strError);
}

TEST_F(KvServerRedisCliTest, ScanShowsEachKeyOnce) {
  SetKeys(1000);
  const std::vector<std::string> vecLines = LinesOf(Output({"--scan"}));
  EXPECT_EQ(1000u, vecLines.size());
  EXPECT_EQ(1000u, std::set<std::string>(vecLines.begin(), vecLines.end()).size());
  EXPECT_EQ(10u, LinesOf(Output({"--scan", "--pattern", "key:5?"})).size());
  EXPECT_EQ("", Output({"--scan", "--pattern", "nosuch*"}));
  Output({"SET", "a\xff", "1"});
  EXPECT_EQ("a\xff\n", Output({"--scan", "--quoted-pattern", "\"a\\xff\""}));
}

TEST_F(KvServerRedisCliTest, BigKeysFindsTheBiggest) {
  SetKeys(500);
  Output({"-x", "SET", "big"}, std::string(5000, 'x'));
  const std::string strOut = Output({"--bigkeys"});
  EXPECT_TRUE(Contains(strOut, "Sampled 501 keys in the keyspace!")) << strOut;
  EXPECT_TRUE(Contains(strOut, "Biggest string found '\"big\"' has 5000 bytes")) << strOut;
  EXPECT_TRUE(Contains(strOut, "501 strings with 6390 bytes (100.00% of keys")) << strOut;
  EXPECT_TRUE(Contains(strOut, "0 lists with 0 items")) << strOut;
}

// "min max avg count" in milliseconds, after the time that -i gives.
TEST_F(KvServerRedisCliTest, LatencyIsMeasured) {
  std::istringstream stFigures(Output({"-i", "0.1", "--raw", "--latency"}));
  int iMin = -1;
  int iMax = -1;
  double dAverage = -1;
  int iCount = 0;
  ASSERT_TRUE(stFigures >> iMin >> iMax >> dAverage >> iCount);
  EXPECT_GT(iCount, 0);
  EXPECT_LE(iMin, iMax);
  EXPECT_GE(dAverage, iMin);
  EXPECT_LE(dAverage, iMax + 0.01);
}

TEST_F(KvServerRedisCliTest, HelpAndCompletionKnowTheCommands) {
  Terminal stTerminal(m_stServer.Port());
  EXPECT_TRUE(stTerminal.Shows("", std::to_string(m_stServer.Port()) + "> "))
      << stTerminal.Screen();
  EXPECT_TRUE(stTerminal.Shows("help mset\r", "key value [key value ...]")) << stTerminal.Screen();
  EXPECT_TRUE(stTerminal.Shows("help client id\r", "Return the number of the current connection."))
      << stTerminal.Screen();
  EXPECT_TRUE(stTerminal.Shows("hell\t", "HELLO")) << stTerminal.Screen();
  EXPECT_TRUE(stTerminal.Shows("\x15SET ", "key value [NX|XX] [GET]")) << stTerminal.Screen();
  EXPECT_TRUE(stTerminal.Shows("\x15INCR a\r", "(integer) 1")) << stTerminal.Screen();
}

}  // namespace
