#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>

#include "kv_server_fixture.h"

namespace {

bool Contains(const std::string& strText, const std::string& strPart) {
  return strText.find(strPart) != std::string::npos;
}

// "127.0.0.1:40000", the client's own end.
std::string AddressOf(const Client& stClient) {
  sockaddr_in stAddress{};
  socklen_t iSize = sizeof(stAddress);
  getsockname(stClient.FD(), reinterpret_cast<sockaddr*>(&stAddress), &iSize);
  return "127.0.0.1:" + std::to_string(ntohs(stAddress.sin_port));
}

std::string IdOf(Client& stClient) {
  const std::string strReply = stClient.Ask({"CLIENT", "ID"});
  return strReply.substr(1, strReply.size() - 3);
}

// The number behind "name:" in INFO; -1: there is none.
long InfoNumber(Client& stClient, const std::string& strSection, const std::string& strName) {
  const std::string strInfo = stClient.Ask({"INFO", strSection});
  const size_t iFound = strInfo.find("\n" + strName + ":");
  return iFound == std::string::npos ? -1 : atol(strInfo.c_str() + iFound + strName.size() + 2);
}

class KvServerClientsTest : public ::testing::Test {
 protected:
  ServerProcess m_stServer{{"server.workers=2", "debug.commands=yes"}};
  Client m_stClient{m_stServer};
  Client m_stOther{m_stServer};
};

TEST_F(KvServerClientsTest, NumbersGoUpAndAreNotUsedAgain) {
  const std::string strFirst = IdOf(m_stClient);
  EXPECT_EQ("1", strFirst);
  EXPECT_EQ("2", IdOf(m_stOther));
  for (int i = 3; i < 10; ++i) {
    Client stClient(m_stServer);
    EXPECT_EQ(std::to_string(i), IdOf(stClient));
    stClient.Ask({"DBSIZE"});  // takes a machine of the gateway, but no number
  }
  EXPECT_EQ(strFirst, IdOf(m_stClient));
}

TEST_F(KvServerClientsTest, TheListShowsEachClient) {
  m_stClient.Ask({"CLIENT", "SETNAME", "first"});
  m_stOther.Ask({"MGET", "a", "b", "c"});
  const std::string strList = m_stClient.Ask({"CLIENT", "LIST"});
  const std::string strLocal = " laddr=127.0.0.1:" + std::to_string(m_stServer.Port()) + " fd=";
  EXPECT_TRUE(Contains(strList, "\nid=1 addr=" + AddressOf(m_stClient) + strLocal)) << strList;
  EXPECT_TRUE(Contains(strList, "\nid=2 addr=" + AddressOf(m_stOther) + strLocal)) << strList;
  EXPECT_TRUE(Contains(strList, " name=first ")) << strList;
  EXPECT_TRUE(Contains(strList, " cmd=client|list ")) << strList;
  EXPECT_TRUE(Contains(strList, " cmd=mget ")) << strList;
  const std::string strOther = m_stClient.Ask({"CLIENT", "LIST", "ID", "2"});
  EXPECT_TRUE(Contains(strOther, "\nid=2 ")) << strOther;
  EXPECT_FALSE(Contains(strOther, "\nid=1 ")) << strOther;
  EXPECT_TRUE(Contains(m_stOther.Ask({"CLIENT", "INFO"}), "\nid=2 "));
}

TEST_F(KvServerClientsTest, AKilledClientIsClosedWithoutAWord) {
  EXPECT_EQ(":1\r\n", m_stClient.Ask({"CLIENT", "KILL", "ID", IdOf(m_stOther)}));
  EXPECT_EQ("", m_stOther.ReadToEnd());
  EXPECT_FALSE(Contains(m_stClient.Ask({"CLIENT", "LIST"}), "\nid=2 "));
  EXPECT_TRUE(Contains(m_stServer.Log(), "client 2 is disconnected by client 1"));
  EXPECT_EQ(":0\r\n", m_stClient.Ask({"CLIENT", "KILL", "ID", "2"}));
}

TEST_F(KvServerClientsTest, KillByAddressInBothForms) {
  Client stThird(m_stServer);
  EXPECT_EQ("+OK\r\n", m_stClient.Ask({"CLIENT", "KILL", AddressOf(m_stOther)}));
  EXPECT_EQ("", m_stOther.ReadToEnd());
  EXPECT_EQ(":1\r\n", m_stClient.Ask({"CLIENT", "KILL", "ADDR", AddressOf(stThird)}));
  EXPECT_EQ("", stThird.ReadToEnd());
  EXPECT_EQ("+OK\r\n", m_stClient.Ask({"CLIENT", "KILL", AddressOf(m_stClient)}));
  EXPECT_EQ("", m_stClient.ReadToEnd());
}

TEST_F(KvServerClientsTest, KillOfAllSparesTheAskerUnlessTold) {
  const std::string strLocal = "127.0.0.1:" + std::to_string(m_stServer.Port());
  m_stOther.Ask({"PING"});  // it is known to the gateway
  EXPECT_EQ(":1\r\n", m_stClient.Ask({"CLIENT", "KILL", "LADDR", strLocal}));
  EXPECT_EQ("", m_stOther.ReadToEnd());
  EXPECT_EQ(":0\r\n", m_stClient.Ask({"CLIENT", "KILL", "TYPE", "normal"}));
  m_stClient.Send(Request({"SET", "a", "1"}) +
                  Request({"CLIENT", "KILL", "TYPE", "normal", "SKIPME", "no"}) +
                  Request({"SET", "a", "2"}));
  EXPECT_EQ("+OK\r\n:1\r\n", m_stClient.ReadToEnd());
  EXPECT_EQ(Bulk("1"), Client(m_stServer).Ask({"GET", "a"}));
}

// Its large values stand in its receive buffer until the batch has been published.
TEST_F(KvServerClientsTest, WhatAKilledClientAskedBeforeIsRun) {
  const std::string strValue(20000, 'v');
  m_stOther.Send(Request({"SET", KeyOf(0, 2), strValue}) + Request({"SET", KeyOf(1, 2), strValue}) +
                 Request({"CLIENT", "KILL", "ID", "1"}) +
                 Request({"CLIENT", "KILL", "ID", "2", "SKIPME", "no"}));
  EXPECT_EQ("+OK\r\n+OK\r\n:1\r\n:1\r\n", m_stOther.ReadToEnd());
  EXPECT_EQ("", m_stClient.ReadToEnd());
  Client stLast(m_stServer);
  EXPECT_EQ(Bulk(strValue), stLast.Ask({"GET", KeyOf(0, 2)}));
  EXPECT_EQ(Bulk(strValue), stLast.Ask({"GET", KeyOf(1, 2)}));
}

TEST_F(KvServerClientsTest, AnswersToAKilledClientGoToNobody) {
  {
    const StoppedProcess stStopped(m_stServer.Worker(0));
    m_stOther.Send(Request({"GET", KeyOf(0, 2)}) + Request({"MGET", KeyOf(0, 2), KeyOf(1, 2)}) +
                   Request({"PING"}));
    EXPECT_TRUE(WaitUntil([&] {
      return Contains(m_stClient.Ask({"CLIENT", "LIST", "ID", "2"}), " cmd=ping ");
    }));
    EXPECT_EQ(":1\r\n", m_stClient.Ask({"CLIENT", "KILL", "ID", "2"}));
    EXPECT_EQ("", m_stOther.ReadToEnd());
  }
  Client stNext(m_stServer);
  EXPECT_EQ("+OK\r\n", stNext.Ask({"SET", KeyOf(0, 2), "1"}));
  EXPECT_EQ("+PONG\r\n", m_stClient.Ask({"PING"}));
}

TEST_F(KvServerClientsTest, HelloNamesAndGreets) {
  EXPECT_EQ("*14\r\n" + Bulk("server") + Bulk("kv_server") + Bulk("version") + Bulk("1.0.0") +
                Bulk("proto") + ":2\r\n" + Bulk("id") + ":1\r\n" + Bulk("mode") +
                Bulk("standalone") + Bulk("role") + Bulk("master") + Bulk("modules") + "*0\r\n",
            m_stClient.Ask({"HELLO", "2", "SETNAME", "me"}));
  EXPECT_EQ(Bulk("me"), m_stClient.Ask({"CLIENT", "GETNAME"}));
  EXPECT_EQ("$-1\r\n", m_stOther.Ask({"CLIENT", "GETNAME"}));
  EXPECT_EQ("-NOPROTO unsupported protocol version\r\n", m_stClient.Ask({"HELLO", "3"}));
  EXPECT_EQ("+PONG\r\n", m_stClient.Ask({"PING"}));
}

TEST_F(KvServerClientsTest, InfoCountsBytesAndCalls) {
  EXPECT_EQ("+OK\r\n", m_stClient.Ask({"CONFIG", "RESETSTAT"}));
  const size_t iOneInfo = Request({"INFO", "stats"}).size();
  EXPECT_EQ(1, InfoNumber(m_stClient, "stats", "total_commands_processed"));
  m_stClient.Ask({"ECHO", std::string(1000, 'x')});
  m_stOther.Ask({"MGET", "a", "b", "c"});
  const size_t iSent = 4 * iOneInfo + Request({"ECHO", std::string(1000, 'x')}).size() +
                       Request({"MGET", "a", "b", "c"}).size();
  EXPECT_EQ(4, InfoNumber(m_stClient, "stats", "total_commands_processed"));
  EXPECT_EQ(0, InfoNumber(m_stClient, "stats", "total_connections_received"));
  EXPECT_EQ(static_cast<long>(iSent), InfoNumber(m_stClient, "stats", "total_net_input_bytes"));
  EXPECT_GT(InfoNumber(m_stClient, "stats", "total_net_output_bytes"), 1000);
  const std::string strCalls = m_stClient.Ask({"INFO", "commandstats"});
  EXPECT_TRUE(Contains(strCalls, "\r\ncmdstat_mget:calls=1\r\n")) << strCalls;
  EXPECT_TRUE(Contains(strCalls, "\r\ncmdstat_info:calls=5\r\n")) << strCalls;
  EXPECT_TRUE(Contains(strCalls, "\r\ncmdstat_config:calls=1\r\n")) << strCalls;
}

TEST_F(KvServerClientsTest, InfoHasTheRateOfTheLastSeconds) {
  EXPECT_TRUE(WaitUntil([this] {
    m_stOther.Ask({"PING"});
    return InfoNumber(m_stClient, "stats", "instantaneous_ops_per_sec") > 0;
  }));
}

TEST_F(KvServerClientsTest, InfoOfTheGatewayDoesNotWaitForWorkers) {
  const StoppedProcess stStopped(m_stServer.Worker(0));
  EXPECT_EQ(1, InfoNumber(m_stClient, "Clients", "connected_clients") - 1);
  EXPECT_EQ(m_stServer.Gateway(), InfoNumber(m_stClient, "server", "process_id"));
  EXPECT_EQ(m_stServer.Master(), InfoNumber(m_stClient, "server", "master_process_id"));
  EXPECT_EQ("$0\r\n\r\n", m_stClient.Ask({"INFO", "nosuch"}));
}

TEST_F(KvServerClientsTest, InfoOfAllSectionsHasThemInOrder) {
  m_stClient.Ask({"SET", "a", "1"});
  const std::string strInfo = m_stClient.Ask({"INFO", "everything"});
  size_t iFound = 0;
  for (const char* pTitle : {"# Server\r\n", "\r\n\r\n# Clients\r\n", "\r\n\r\n# Stats\r\n",
                             "\r\n\r\n# Commandstats\r\n", "\r\n\r\n# Latencystats\r\n",
                             "\r\n\r\n# Keyspace\r\ndb0:keys=1,"}) {
    const size_t iNext = strInfo.find(pTitle, iFound);
    EXPECT_NE(std::string::npos, iNext) << pTitle << strInfo;
    iFound = iNext;
  }
  EXPECT_FALSE(Contains(m_stClient.Ask({"INFO"}), "Commandstats"));
  EXPECT_FALSE(Contains(m_stClient.Ask({"INFO", "keyspace"}), "Server"));
}

TEST(KvServerInfoTest, RejectedConnectionsAreCounted) {
  ServerProcess stServer({"limits.clients=1"});
  Client stClient(stServer);
  stClient.Ask({"PING"});
  EXPECT_NE("", Client(stServer).ReadToEnd());
  EXPECT_EQ(1, InfoNumber(stClient, "stats", "rejected_connections"));
  EXPECT_EQ(1, InfoNumber(stClient, "stats", "total_connections_received"));
}

// One worker's queue is full: its clients are the blocked ones.
TEST(KvServerInfoTest, PausedClientsAreBlocked) {
  ServerProcess stServer({"limits.unanswered=2"});
  Client stClient(stServer);
  Client stPaused(stServer);
  EXPECT_EQ(0, InfoNumber(stClient, "clients", "blocked_clients"));
  const StoppedProcess stStopped(stServer.Worker(0));
  stPaused.Send(Request({"GET", "a"}) + Request({"GET", "a"}) + Request({"GET", "a"}));
  EXPECT_TRUE(WaitUntil([&] { return InfoNumber(stClient, "clients", "blocked_clients") == 1; }));
  EXPECT_TRUE(Contains(stClient.Ask({"CLIENT", "LIST"}), " flags=b "));
}

double SecondsSince(std::chrono::steady_clock::time_point stStart) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - stStart).count();
}

TEST_F(KvServerClientsTest, DebugSleepStallsTheFirstWorkerOnly) {
  const auto stStart = std::chrono::steady_clock::now();
  m_stOther.Send(Request({"DEBUG", "SLEEP", "0.5"}) + Request({"GET", KeyOf(0, 2)}));
  EXPECT_TRUE(WaitUntil([&] {  // it is on its way
    return Contains(m_stClient.Ask({"CLIENT", "LIST", "ID", "2"}), " cmd=get ");
  }));
  EXPECT_EQ("+OK\r\n", m_stClient.Ask({"SET", KeyOf(1, 2), "1"}));
  EXPECT_EQ("+PONG\r\n", m_stClient.Ask({"PING"}));
  EXPECT_LT(SecondsSince(stStart), 0.5);
  EXPECT_EQ("$-1\r\n", m_stClient.Ask({"GET", KeyOf(0, 2)}));
  EXPECT_GE(SecondsSince(stStart), 0.5);
  EXPECT_EQ("+OK\r\n$-1\r\n", m_stOther.Read(2));
}

TEST(KvServerDebugTest, IsOffUnlessConfigured) {
  ServerProcess stServer;
  EXPECT_EQ("-ERR DEBUG command not allowed. ",
            Client(stServer).Ask({"DEBUG", "SLEEP", "0"}).substr(0, 32));
}

TEST_F(KvServerClientsTest, LongSubcommandsAreRefused) {
  std::vector<std::string> vecRequest{"COMMAND", "INFO"};
  vecRequest.resize(1025, "client");
  EXPECT_EQ("-ERR more than 1024 arguments for a command with subcommands\r\n",
            m_stClient.Ask(vecRequest));
}

}  // namespace
