#include <gtest/gtest.h>
#include <unistd.h>
#include <fstream>

#include <cstdio>
#include <fstream>

#include "kv_server_fixture.h"

namespace {

// What the server does for well-behaved clients, with one worker and with several. Expected replies
// are those of Redis 7.
class KvServerTest : public ::testing::TestWithParam<int> {
 protected:
  std::string Ask(const std::vector<std::string>& vecArguments) {
    return m_stClient.Ask(vecArguments);
  }

  ServerProcess m_stServer{{"server.workers=" + std::to_string(GetParam())}};
  Client m_stClient{m_stServer};
};

INSTANTIATE_TEST_SUITE_P(Workers, KvServerTest, ::testing::Values(1, 3));

TEST_P(KvServerTest, Connection) {
  EXPECT_EQ("+PONG\r\n", Ask({"PING"}));
  EXPECT_EQ("$2\r\nhi\r\n", Ask({"ping", "hi"}));
  EXPECT_EQ("$0\r\n\r\n", Ask({"ECHO", ""}));
  EXPECT_EQ("+OK\r\n", Ask({"SELECT", "0"}));
  EXPECT_EQ("-ERR DB index is out of range\r\n", Ask({"SELECT", "16"}));
  EXPECT_EQ("*2\r\n$4\r\nsave\r\n$0\r\n\r\n", Ask({"CONFIG", "GET", "save"}));
}

TEST_P(KvServerTest, QuitAnswersAndClosesAndIgnoresWhatFollows) {
  m_stClient.Send(Request({"SET", "a", "1"}) + Request({"QUIT"}) + Request({"SET", "a", "2"}));
  EXPECT_EQ("+OK\r\n+OK\r\n", m_stClient.ReadToEnd());
  EXPECT_EQ("$1\r\n1\r\n", Client(m_stServer).Ask({"GET", "a"}));
}

TEST_P(KvServerTest, Values) {
  EXPECT_EQ("$-1\r\n", Ask({"GET", "a"}));
  EXPECT_EQ("+OK\r\n", Ask({"SET", "a", "1"}));
  EXPECT_EQ("$1\r\n1\r\n", Ask({"GET", "a"}));
  EXPECT_EQ("$-1\r\n", Ask({"SET", "a", "2", "NX"}));
  EXPECT_EQ("$1\r\n1\r\n", Ask({"SET", "a", "3", "XX", "GET"}));
  EXPECT_EQ("-ERR syntax error\r\n", Ask({"SET", "a", "3", "YY"}));
  const std::string strBinary("\0\r\n\xff", 4);
  EXPECT_EQ("+OK\r\n", Ask({"SET", "a", strBinary}));
  EXPECT_EQ("$4\r\n" + strBinary + "\r\n", Ask({"GET", "a"}));
}

TEST_P(KvServerTest, Counters) {
  EXPECT_EQ(":1\r\n", Ask({"INCR", "a"}));
  EXPECT_EQ(":0\r\n", Ask({"DECR", "a"}));
  EXPECT_EQ(":-7\r\n", Ask({"INCRBY", "a", "-7"}));
  EXPECT_EQ("-ERR value is not an integer or out of range\r\n", Ask({"INCRBY", "a", "x"}));
  Ask({"SET", "a", "x"});
  EXPECT_EQ("-ERR value is not an integer or out of range\r\n", Ask({"INCR", "a"}));
  Ask({"SET", "a", "9223372036854775807"});
  EXPECT_EQ("-ERR increment or decrement would overflow\r\n", Ask({"INCR", "a"}));
}

TEST_P(KvServerTest, SeveralKeysKeepTheirPlaces) {
  EXPECT_EQ("+OK\r\n", Ask({"MSET", "a", "1", "b", "2", "c", "3", "d", "4", "a", "5"}));
  EXPECT_EQ("*6\r\n$1\r\n4\r\n$-1\r\n$1\r\n5\r\n$1\r\n2\r\n$1\r\n3\r\n$1\r\n5\r\n",
            Ask({"MGET", "d", "none", "a", "b", "c", "a"}));
  EXPECT_EQ(":4\r\n", Ask({"EXISTS", "a", "b", "a", "none", "c"}));
  EXPECT_EQ(":4\r\n", Ask({"DBSIZE"}));
  EXPECT_EQ(":2\r\n", Ask({"DEL", "a", "c", "none", "a"}));
  EXPECT_EQ("*3\r\n$-1\r\n$1\r\n2\r\n$-1\r\n", Ask({"MGET", "a", "b", "c"}));
  EXPECT_EQ("+OK\r\n", Ask({"FLUSHALL"}));
  EXPECT_EQ(":0\r\n", Ask({"DBSIZE"}));
}

TEST_P(KvServerTest, ThousandsOfKeysInOneCommand) {
  std::vector<std::string> vecSet{"MSET"};
  std::vector<std::string> vecGet{"MGET"};
  std::string strExpected = "*5000\r\n";
  for (int i = 0; i < 5000; ++i) {
    const std::string strKey = "k" + std::to_string(i);
    vecSet.insert(vecSet.end(), {strKey, "v" + strKey});
    vecGet.push_back(strKey);
    strExpected += Bulk("v" + strKey);
  }
  EXPECT_EQ("+OK\r\n", Ask(vecSet));
  EXPECT_EQ(":5000\r\n", Ask({"DBSIZE"}));
  EXPECT_EQ(strExpected, Ask(vecGet));
  vecGet[0] = "DEL";
  EXPECT_EQ(":5000\r\n", Ask(vecGet));
}

TEST_P(KvServerTest, WrongNumbersOfArguments) {
  for (const auto& vecRequest : std::vector<std::vector<std::string>>{{"get"},
                                                                      {"get", "a", "b"},
                                                                      {"set", "a"},
                                                                      {"incr"},
                                                                      {"incrby", "a"},
                                                                      {"del"},
                                                                      {"exists"},
                                                                      {"mget"},
                                                                      {"mset"},
                                                                      {"mset", "a"},
                                                                      {"mset", "a", "1", "b"},
                                                                      {"echo"},
                                                                      {"dbsize", "x"},
                                                                      {"select"},
                                                                      {"ping", "a", "b"},
                                                                      {"decr", "a", "b"}}) {
    EXPECT_EQ("-ERR wrong number of arguments for '" + vecRequest[0] + "' command\r\n",
              Ask(vecRequest));
  }
}

TEST_P(KvServerTest, UnknownCommandsAndWords) {
  EXPECT_EQ("-ERR unknown command 'FOO', with args beginning with: 'bar' 'b  z' \r\n",
            Ask({"FOO", "bar", "b\r\nz"}));
  EXPECT_EQ("-ERR unknown command '', with args beginning with: \r\n", Ask({""}));
  EXPECT_EQ("-ERR syntax error\r\n", Ask({"FLUSHALL", "foo"}));
  EXPECT_EQ("-ERR syntax error\r\n", Ask({"SHUTDOWN", "foo"}));
  EXPECT_EQ("+PONG\r\n", Ask({"PING"}));
}

TEST_P(KvServerTest, InfoTellsOfAllWorkers) {
  Ask({"MSET", "a", "1", "b", "2", "c", "3", "d", "4"});
  const std::string strInfo = Ask({"INFO"});
  for (const std::string& strLine :
       {std::string("redis_mode:standalone"), "workers:" + std::to_string(GetParam()),
        std::string("connected_clients:1"), "process_id:" + std::to_string(m_stServer.Gateway()),
        "tcp_port:" + std::to_string(m_stServer.Port()),
        std::string("total_connections_received:1"),
        std::string("db0:keys=4,expires=0,avg_ttl=0")}) {
    EXPECT_NE(std::string::npos, strInfo.find(strLine + "\r\n")) << strLine << " in " << strInfo;
  }
}

TEST_P(KvServerTest, InlineRequests) {
  EXPECT_EQ("+OK\r\n", m_stClient.AskInline("SET a \"x y\\x41\\n\""));
  EXPECT_EQ("$5\r\nx yA\n\r\n", m_stClient.AskInline("  get\ta  "));
  m_stClient.Send("\r\n\r\nPING\n");
  EXPECT_EQ("+PONG\r\n", m_stClient.Read());
}

// Large values are published from where the request stands, at the end of the turn.
TEST_P(KvServerTest, LargeInlineValuesOfOneWriteKeepTheirBytes) {
  const std::string strA(20000, 'a');
  const std::string strB(20000, 'b');
  m_stClient.Send("SET a " + strA + "\r\nSET b " + strB + "\r\n");
  EXPECT_EQ("+OK\r\n+OK\r\n", m_stClient.Read(2));
  EXPECT_EQ(Bulk(strA), Ask({"GET", "a"}));
  EXPECT_EQ(Bulk(strB), Ask({"GET", "b"}));
}

// A conversation that goes to all workers, to the gateway and over several workers.
struct Conversation_t {
  std::string strRequests;
  std::string strReplies;
  size_t iReplies = 0;

  void Add(const std::vector<std::string>& vecArguments, const std::string& strReply) {
    strRequests += Request(vecArguments);
    strReplies += strReply;
    ++iReplies;
  }
};

Conversation_t MakeConversation(int iRounds) {
  Conversation_t st;
  for (int i = 0; i < iRounds; ++i) {
    const std::string strNumber = std::to_string(i);
    st.Add({"SET", "k" + strNumber, strNumber}, "+OK\r\n");
    st.Add({"GET", "k" + strNumber}, Bulk(strNumber));
    st.Add({"ECHO", strNumber}, Bulk(strNumber));
    st.Add({"INCR", "counter"}, ":" + std::to_string(i + 1) + "\r\n");
    st.Add({"MGET", "k" + strNumber, "none", "k0"},
           "*3\r\n" + Bulk(strNumber) + "$-1\r\n" + Bulk("0"));
    st.Add({"NOSUCH"}, "-ERR unknown command 'NOSUCH', with args beginning with: \r\n");
    st.Add({"DBSIZE"}, ":" + std::to_string(i + 2) + "\r\n");
    st.Add({"GET", "none"}, "$-1\r\n");
  }
  return st;
}

TEST_P(KvServerTest, PipelineInOneWriteIsAnsweredInOrder) {
  const Conversation_t st = MakeConversation(2000);
  m_stClient.Send(st.strRequests);
  EXPECT_TRUE(st.strReplies == m_stClient.Read(st.iReplies));
}

TEST_P(KvServerTest, PipelineByteByByteIsAnsweredInOrder) {
  const Conversation_t st = MakeConversation(10);
  for (const char c : st.strRequests) {
    m_stClient.Send(std::string(1, c));
  }
  EXPECT_EQ(st.strReplies, m_stClient.Read(st.iReplies));
}

TEST_P(KvServerTest, PipelineInOddPiecesIsAnsweredInOrder) {
  const Conversation_t st = MakeConversation(200);
  for (size_t i = 0; i < st.strRequests.size(); i += 61) {
    m_stClient.Send(st.strRequests.substr(i, 61));
  }
  EXPECT_EQ(st.strReplies, m_stClient.Read(st.iReplies));
}

TEST_P(KvServerTest, HalfClosedClientGetsItsAnswers) {
  const Conversation_t st = MakeConversation(500);
  m_stClient.Send(st.strRequests + "*2\r\n$3\r\nGET\r\n$1");  // and half a request
  m_stClient.CloseSending();
  EXPECT_TRUE(st.strReplies == m_stClient.ReadToEnd());
}

TEST_P(KvServerTest, ManyClientsDoNotMixUpTheirReplies) {
  std::vector<std::unique_ptr<Client>> vecClients;
  for (int i = 0; i < 40; ++i) {
    vecClients.push_back(std::make_unique<Client>(m_stServer));
  }
  for (int iRound = 0; iRound < 20; ++iRound) {
    for (size_t i = 0; i < vecClients.size(); ++i) {
      const std::string strOwn = std::to_string(i) + "." + std::to_string(iRound);
      vecClients[i]->Send(Request({"SET", strOwn, strOwn}) + Request({"GET", strOwn}) +
                          Request({"ECHO", strOwn}));
    }
    for (size_t i = 0; i < vecClients.size(); ++i) {
      const std::string strOwn = Bulk(std::to_string(i) + "." + std::to_string(iRound));
      ASSERT_EQ("+OK\r\n" + strOwn + strOwn, vecClients[i]->Read(3));
    }
  }
}

TEST_P(KvServerTest, LargestValuesComeBackWhole) {
  std::string strSets;
  std::string strGets;
  std::string strExpected;
  for (int i = 0; i < 24; ++i) {
    const std::string strValue(1 << 20, static_cast<char>('a' + i));
    strSets += Request({"SET", "k" + std::to_string(i), strValue});
    strGets += Request({"GET", "k" + std::to_string(i)});
    strExpected += Bulk(strValue);
  }
  m_stClient.Send(strSets);
  EXPECT_EQ(Repeat("+OK\r\n", 24), m_stClient.Read(24));
  m_stClient.Send(strGets);
  EXPECT_TRUE(strExpected == m_stClient.Read(24));
}

TEST_P(KvServerTest, LargeValuesInOneMSetAndMGet) {
  std::vector<std::string> vecSet{"MSET"};
  std::vector<std::string> vecGet{"MGET"};
  std::string strExpected = "*12\r\n";
  for (int i = 0; i < 12; ++i) {
    const std::string strValue(1 << 20, static_cast<char>('a' + i));
    vecSet.insert(vecSet.end(), {"k" + std::to_string(i), strValue});
    vecGet.push_back("k" + std::to_string(i));
    strExpected += Bulk(strValue);
  }
  EXPECT_EQ("+OK\r\n", Ask(vecSet));
  EXPECT_TRUE(strExpected == Ask(vecGet));
}

// The first words of a session with redis-cli, as it prints them to a file.
TEST_P(KvServerTest, RedisCliReadsEveryKindOfReply) {
  const std::string strScript = m_stServer.Directory() + "/log/script";
  WriteFile(strScript,
            "PING\nSET a 1\nGET a\nGET none\nINCR a\nMSET b 2 c \"3 4\"\nMGET a b c none\n"
            "DEL a b\nEXISTS c a\nDBSIZE\nINCRBY c 1\nNOSUCH x\nGET\nSELECT 1\nFLUSHALL\nDBSIZE\n");
  const std::string strCommand =
      "redis-cli -p " + std::to_string(m_stServer.Port()) + " <" + strScript + " 2>&1";
  const std::string strOut = CaptureOutput(1, [&] { EXPECT_EQ(0, system(strCommand.c_str())); });
  EXPECT_EQ(
      "PONG\nOK\n1\n\n2\nOK\n2\n2\n3 4\n\n2\n1\n1\n"
      "ERR value is not an integer or out of range\n\n"
      "ERR unknown command 'NOSUCH', with args beginning with: 'x' \n\n"
      "ERR wrong number of arguments for 'get' command\n\n"
      "ERR DB index is out of range\n\nOK\n0\n",
      strOut);
}

TEST(KvServerOptionsTest, HelpAndVersion) {
  const RunResult_t stHelp = RunServer({"--help"});
  EXPECT_EQ(0, stHelp.iExit);
  EXPECT_NE(std::string::npos,
            stHelp.strOut.find("usage: kv_server [CONFIG.xml] [--set KEY=VALUE]..."));
  EXPECT_NE(std::string::npos, stHelp.strOut.find("queue.bytes"));
  EXPECT_EQ("kv_server 1.0.0\n", RunServer({"--version"}).strOut);
}

TEST(KvServerOptionsTest, WrongSettingsAreNamedAndEndWith2) {
  const auto Complaint = [](const std::vector<std::string>& vecArguments) {
    const RunResult_t stResult = RunServer(vecArguments);
    EXPECT_EQ(2, stResult.iExit);
    EXPECT_EQ("", stResult.strOut);
    return stResult.strError;
  };
  EXPECT_EQ("kv_server: --set server.workers = \"0\": must be a number from 1 to 64\n",
            Complaint({"--set", "server.workers=0"}));
  EXPECT_EQ("kv_server: --set no.such = \"1=2\": unknown setting\n",
            Complaint({"--set", "no.such=1=2"}));
  EXPECT_EQ("kv_server: --set needs KEY=VALUE, not \"server.workers\"\n",
            Complaint({"--set", "server.workers"}));
  EXPECT_EQ("kv_server: --set server.listen = \"here\": must be an IPv4 address, \":\", a port\n",
            Complaint({"--set", "server.listen=here"}));
  EXPECT_EQ("kv_server: unknown or incomplete option \"--set\", see --help\n",
            Complaint({"--set"}));
  EXPECT_EQ("kv_server: unknown or incomplete option \"-x\", see --help\n", Complaint({"-x"}));
}

TEST(KvServerOptionsTest, ARunDirectoryThatCanNotBeMadeEndsWith1) {
  const RunResult_t stResult = RunServer({"--set", "server.run_dir=/proc/nowhere"});
  EXPECT_EQ(1, stResult.iExit);
  EXPECT_EQ("kv_server: server.run_dir = \"/proc/nowhere\": can not be made\n", stResult.strError);
}

// The processors that a process may run on, as /proc lists them.
std::string AllowedCpus(pid_t iPid) {
  std::ifstream stStatus("/proc/" + std::to_string(iPid) + "/status");
  for (std::string strLine; std::getline(stStatus, strLine);) {
    if (strLine.rfind("Cpus_allowed_list:", 0) == 0) {
      return strLine.substr(strLine.find_last_of('\t') + 1);
    }
  }
  return "";
}

bool RunsOnOneCpu(pid_t iPid) { return AllowedCpus(iPid).find_first_of(",-") == std::string::npos; }

TEST(KvServerFollowTest, ASingleWorkerStaysWithItsGateway) {
  ServerProcess stServer;
  Client stClient(stServer);
  EXPECT_EQ("$-1\r\n", stClient.Ask({"GET", "key"}));
  EXPECT_TRUE(RunsOnOneCpu(stServer.Worker(0)));
  EXPECT_EQ(AllowedCpus(stServer.Gateway()), AllowedCpus(getpid()));
}

TEST(KvServerFollowTest, SeveralWorkersAndOneThatIsNotToldToDoNot) {
  for (const char* pSetting : {"server.workers=2", "server.follow=no"}) {
    ServerProcess stServer({pSetting});
    EXPECT_EQ("$-1\r\n", Client(stServer).Ask({"GET", "key"}));
    EXPECT_EQ(AllowedCpus(stServer.Worker(0)), AllowedCpus(getpid())) << pSetting;
  }
}

}  // namespace
