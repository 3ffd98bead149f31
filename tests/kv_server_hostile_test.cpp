// Clients that misbehave, while others put the server under load: those are answered as ever, and
// nothing is left of the former.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>

#include "kv_fault_fixture.h"

namespace {

class KvServerHostileTest : public KvFaultFixture {
 protected:
  typedef std::vector<std::unique_ptr<Client>> Clients_t;

  void ExpectNoErrors() const {
    for (const auto& stItem : m_pLoad->Stat().mapErrors) {
      ADD_FAILURE() << stItem.second << " " << stItem.first;
    }
  }
  static void Reset(const Client& stClient) {  // when it is closed
    const linger stLinger{1, 0};
    setsockopt(stClient.FD(), SOL_SOCKET, SO_LINGER, &stLinger, sizeof(stLinger));
  }
};

TEST_F(KvServerHostileTest, ClientsThatNeverReadAreDisconnected) {
  Start({"limits.output=4M", "timeout.write=1"});
  m_pLoad->Ask({"SET", "long", std::string(200000, 'l')});
  Clients_t vecSilent;
  for (int i = 0; i < 5; ++i) {
    vecSilent.push_back(std::make_unique<Client>(*m_pServer));
    vecSilent.back()->SendSome(Repeat(Request({"GET", "long"}), 200));
  }
  const auto IsIdle = [this] {
    return m_pLoad->Ask({"INFO", "clients"}).find("connected_clients:9\r") != std::string::npos;
  };
  EXPECT_TRUE(m_pLoad->PumpUntil(IsIdle, 10000));
  ExpectServedSoon("silent clients");
  ExpectNoErrors();
  ExpectAllIsThere();
}

// Byte by byte, and slowly: one of many that keep a request open.
TEST_F(KvServerHostileTest, ClientsThatSendAByteNowAndThenAreServedInTheEnd) {
  Start();
  const std::string strRequest = Request({"SET", "slow", "v"});
  Clients_t vecSlow;
  for (int i = 0; i < 20; ++i) {
    vecSlow.push_back(std::make_unique<Client>(*m_pServer));
  }
  for (const char cByte : strRequest) {
    for (const auto& pClient : vecSlow) {
      ASSERT_EQ(1u, pClient->SendSome(std::string(1, cByte)));
    }
    m_pLoad->PumpFor(40);
  }
  for (const auto& pClient : vecSlow) {
    EXPECT_EQ("+OK\r\n", pClient->Read());
  }
  vecSlow.clear();
  ExpectServedSoon("slow clients");
  ExpectNoErrors();
  ExpectAllIsThere();
}

TEST_F(KvServerHostileTest, ThousandsOfIdleConnectionsHinderNobody) {
  rlimit stLimit{};
  getrlimit(RLIMIT_NOFILE, &stLimit);
  stLimit.rlim_cur = stLimit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &stLimit);
  const auto iIdle = static_cast<int>(std::min<rlim_t>(3000, stLimit.rlim_max - 300));
  Start({}, {4, 60, 16, 20000, 5000, 4, 5000});
  Clients_t vecIdle;
  for (int i = 0; i < iIdle; ++i) {
    vecIdle.push_back(std::make_unique<Client>(*m_pServer));
    if (i % 100 == 0) {
      m_pLoad->PumpFor(0);
    }
  }
  EXPECT_EQ("+PONG\r\n", vecIdle.back()->Ask({"PING"}));
  EXPECT_GE(TakeCensus(m_pServer->Master(), m_pServer->Directory()).mapDescriptors["gateway"],
            iIdle);
  m_pLoad->PumpFor(300);
  ExpectServedSoon("idle clients");
  vecIdle.clear();
  ExpectNoErrors();
  ExpectAllIsThere();
}

// There is no descriptor for another client: the present ones are served as ever, and the log,
// which would be full soon, says so once a minute.
TEST_F(KvServerHostileTest, WithoutAFreeDescriptorThePresentClientsAreServed) {
  Start({}, {4, 60, 16, 20000, 5000, 5, 5000});
  const pid_t iGateway = Child("gateway");
  rlimit stBefore{};
  ASSERT_EQ(0, prlimit(iGateway, RLIMIT_NOFILE, nullptr, &stBefore));
  const rlimit stFew{40, stBefore.rlim_max};
  ASSERT_EQ(0, prlimit(iGateway, RLIMIT_NOFILE, &stFew, nullptr));
  Clients_t vecClients;
  for (int i = 0; i < 60; ++i) {
    vecClients.push_back(std::make_unique<Client>(*m_pServer));
  }
  const uint64_t iBefore = m_pLoad->Stat().iAcknowledged;
  m_pLoad->PumpFor(1000);
  EXPECT_GT(m_pLoad->Stat().iAcknowledged, iBefore + 50);
  const std::string strTold = "no descriptor for another client";
  const std::string strLog = m_pServer->Log();
  const size_t iTold = strLog.find(strTold);
  EXPECT_NE(std::string::npos, iTold);
  EXPECT_EQ(std::string::npos, strLog.find(strTold, iTold + 1));
  vecClients.resize(5);  // who waits takes the place of those that go
  EXPECT_EQ("+PONG\r\n", Client(*m_pServer).Ask({"PING"}));
  ASSERT_EQ(0, prlimit(iGateway, RLIMIT_NOFILE, &stBefore, nullptr));
  vecClients.clear();
  ExpectNoErrors();
  ExpectAllIsThere();
}

TEST_F(KvServerHostileTest, ClientsThatVanishInsideTheirRequests) {
  Start();
  m_pLoad->Ask({"SET", "long", std::string(200000, 'l')});
  for (int i = 0; i < 100; ++i) {
    Client stClient(*m_pServer);
    stClient.SendSome(Repeat(Request({"GET", "long"}), static_cast<size_t>(i % 5)) +
                      Request({"MGET", "a", "long", "b"}) + "*2\r\n$3\r\nGE");
    if (i % 2 == 0) {
      Reset(stClient);
    }
    m_pLoad->PumpFor(0);
  }
  ExpectServedSoon("vanished clients");
  ExpectNoErrors();
  ExpectAllIsThere();
}

// Each of these is answered with a protocol error and a closed connection.
TEST_F(KvServerHostileTest, EveryKindOfMalformedRequestClosesItsOwnConnectionOnly) {
  Start();
  const std::vector<std::string> vecMalformed{"*x\r\n",
                                              "*\r\n",
                                              "*1x\r\n",
                                              "*--1\r\n",
                                              "*99999999\r\n",
                                              "*9999999999999999999999\r\n",
                                              "*1\r\nPING\r\n",
                                              "*1\r\n:4\r\n",
                                              "*1\r\n$x\r\n",
                                              "*1\r\n$\r\n",
                                              "*1\r\n$-1\r\n",
                                              "*1\r\n$-99999999999999999999\r\n",
                                              "*1\r\n$99999999\r\n",
                                              "*1\r\n$4\r\nPINGxx",
                                              "*1\r\n$4\r\nPING\n\n",
                                              "GET \"a\r\n",
                                              "GET 'a\r\n",
                                              "GET \"a\"b\r\n",
                                              std::string(70000, 'x'),
                                              "*1\r\n$" + std::string(70000, '1'),
                                              "*" + std::string(70000, '1'),
                                              "*3\r\n$3\r\nSET\r\n$1\r\na\r\n$1048577\r\n"};
  for (const std::string& strMalformed : vecMalformed) {
    Client stClient(*m_pServer);
    stClient.Send(Request({"PING"}) + strMalformed + Request({"SET", "never", "1"}));
    m_pLoad->PumpFor(2);
    EXPECT_EQ("+PONG\r\n-ERR Protocol error: ", stClient.ReadToEnd().substr(0, 28))
        << strMalformed.substr(0, 40);
  }
  EXPECT_EQ(":0\r\n", Client(*m_pServer).Ask({"EXISTS", "never"}));
  ExpectServedSoon("malformed requests");
  ExpectNoErrors();
  ExpectAllIsThere();
}

// Whatever comes, the others do not see it.
TEST_F(KvServerHostileTest, RandomBytesHarmNobody) {
  Start();
  const std::string strGood = Request({"SET", "random", std::string(50, 'r')}) +
                              Request({"MGET", "random", "b"}) + "PING\r\n";
  for (int i = 0; i < Rounds(200); ++i) {
    Client stClient(*m_pServer);
    std::string strBytes = Repeat(strGood, 3);
    for (int iChange = Below(8); iChange >= 0; --iChange) {
      strBytes[static_cast<size_t>(Below(static_cast<int>(strBytes.size())))] =
          static_cast<char>(i % 3 == 0 ? Below(256) : "0123456789*$:-+ \r\n\""[Below(19)]);
    }
    stClient.SendSome(strBytes);
    if (i % 4 == 0) {
      stClient.CloseSending();
      stClient.ReadToEnd();
    }
    m_pLoad->PumpFor(0);
  }
  ExpectServedSoon("random bytes");
  ExpectNoErrors();
  ExpectAllIsThere();
}

}  // namespace
