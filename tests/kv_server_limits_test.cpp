#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdlib>

#include "kv_server_fixture.h"

namespace {

// A queue that a few commands fill.
const ServerProcess::Settings_t SMALL_QUEUES = {"server.workers=2", "queue.bytes=100K",
                                                "limits.key=1K", "limits.value=10K"};

typedef std::vector<std::unique_ptr<Client>> Clients_t;

// Clients that the gateway has accepted.
Clients_t Connected(const ServerProcess& stServer, int iCount) {
  Clients_t vecClients;
  for (int i = 0; i < iCount; ++i) {
    vecClients.push_back(std::make_unique<Client>(stServer));
    EXPECT_EQ("+PONG\r\n", vecClients.back()->Ask({"PING"}));
  }
  return vecClients;
}

TEST(KvServerLimitsTest, KeysAndValuesFromBothSides) {
  ServerProcess stServer({"limits.key=100", "limits.value=20K"});
  Client stClient(stServer);
  const std::string strKey(100, 'k');
  EXPECT_EQ("+OK\r\n", stClient.Ask({"SET", strKey, std::string(20480, 'v')}));
  EXPECT_EQ("-ERR key is longer than the limit of 100 bytes (limits.key)\r\n",
            stClient.Ask({"SET", strKey + "k", "v"}));
  EXPECT_EQ("-ERR key contains a zero byte\r\n", stClient.Ask({"GET", std::string("a\0b", 3)}));
  EXPECT_EQ(":1\r\n", stClient.Ask({"DBSIZE"}));
  stClient.Send("*3\r\n$3\r\nSET\r\n$1\r\na\r\n$20481\r\n");
  EXPECT_EQ(
      "-ERR Protocol error: invalid bulk length, more than the limit of 20480 bytes "
      "(limits.value)\r\n",
      stClient.ReadToEnd());
}

TEST(KvServerLimitsTest, ElementsAndRequestsAndLines) {
  ServerProcess stServer({"limits.elements=4", "limits.request=1024", "limits.inline=50"});
  EXPECT_EQ(":0\r\n", Client(stServer).Ask({"DEL", "a", "b", "c"}));
  Client stElements(stServer);
  stElements.Send("*5\r\n");
  EXPECT_EQ(
      "-ERR Protocol error: invalid multibulk length, more than the limit of 4 elements "
      "(limits.elements)\r\n",
      stElements.ReadToEnd());
  Client stRequest(stServer);
  stRequest.Send("*3\r\n$3\r\nSET\r\n$1\r\na\r\n$1020\r\n");
  EXPECT_EQ("-ERR Protocol error: request longer than the limit of 1024 bytes (limits.request)\r\n",
            stRequest.ReadToEnd());
  Client stInline(stServer);
  stInline.Send(std::string(51, 'x'));
  EXPECT_EQ(
      "-ERR Protocol error: too big inline request, more than the limit of 50 bytes "
      "(limits.inline)\r\n",
      stInline.ReadToEnd());
}

TEST(KvServerLimitsTest, MalformedRequestsCloseOnlyTheirOwnConnection) {
  ServerProcess stServer;
  Client stGood(stServer);
  for (const auto& stCase : std::vector<std::pair<std::string, std::string>>{
           {"*x\r\n", "invalid multibulk length"},
           {"*1\r\n$x\r\n", "invalid bulk length"},
           {"*1\r\n$-1\r\n", "invalid bulk length"},
           {"*1\r\nPING\r\n", "expected '$', got 'P'"},
           {"*1\r\n$4\r\nPINGxx", "bulk string does not end with a line end"},
           {"GET \"a\r\n", "unbalanced quotes in request"}}) {
    Client stBad(stServer);
    stBad.Send(Request({"SET", "a", "1"}) + Request({"PING"}) + stCase.first + Request({"PING"}));
    EXPECT_EQ("+OK\r\n+PONG\r\n-ERR Protocol error: " + stCase.second + "\r\n", stBad.ReadToEnd());
    EXPECT_EQ("$1\r\n1\r\n", stGood.Ask({"GET", "a"}));
  }
}

TEST(KvServerLimitsTest, AMalformedRequestDoesNotTakeTheReplyAway) {
  ServerProcess stServer;
  Client stBad(stServer);
  stBad.Send("*x\r\n" + std::string(100000, 'x'));  // unread bytes would reset the connection
  EXPECT_EQ("-ERR Protocol error: invalid multibulk length\r\n", stBad.ReadToEnd());
}

TEST(KvServerLimitsTest, OneClientTooManyIsToldSo) {
  ServerProcess stServer({"limits.clients=2"});
  Clients_t vecClients = Connected(stServer, 2);
  Client stThird(stServer);
  EXPECT_EQ("-ERR max number of clients reached (limits.clients)\r\n", stThird.ReadToEnd());
  vecClients.pop_back();
  EXPECT_TRUE(WaitUntil([&] { return Client(stServer).Ask({"PING"}) == "+PONG\r\n"; }));
}

TEST(KvServerLimitsTest, AClientThatDoesNotReadIsDisconnectedAtTheLimit) {
  ServerProcess stServer({"limits.output=2M", "limits.unanswered=100"});
  Client stReader(stServer);
  Client stLazy(stServer);
  stReader.Ask({"SET", "a", std::string(1 << 20, 'v')});
  stLazy.SendSome(Repeat(Request({"GET", "a"}), 50));
  EXPECT_TRUE(WaitUntil([&] {
    return stServer.Log().find("too much output waits for it (limits.output)") != std::string::npos;
  }));
  EXPECT_EQ("+PONG\r\n", stReader.Ask({"PING"}));
}

TEST(KvServerLimitsTest, AClientThatReadsLateGetsEverything) {
  ServerProcess stServer;
  Client stLazy(stServer);
  stLazy.Ask({"SET", "a", std::string(100000, 'v')});
  const std::string strGets = Repeat(Request({"GET", "a"}), 400);
  ASSERT_EQ(strGets.size(), stLazy.SendSome(strGets));
  Client stOther(stServer);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ("+PONG\r\n", stOther.Ask({"PING"}));
  }
  EXPECT_TRUE(Repeat(Bulk(std::string(100000, 'v')), 400) == stLazy.Read(400));
}

TEST(KvServerLimitsTest, AClientThatDoesNotReadForTooLongIsDisconnected) {
  ServerProcess stServer({"timeout.write=1"});
  Client stLazy(stServer);
  stLazy.Ask({"SET", "a", std::string(1 << 20, 'v')});
  stLazy.SendSome(Repeat(Request({"GET", "a"}), 16));
  EXPECT_TRUE(WaitUntil([&] {
    return stServer.Log().find("does not read its replies (timeout.write)") != std::string::npos;
  }));
  EXPECT_EQ("+PONG\r\n", Client(stServer).Ask({"PING"}));
}

// Replies that wait for an earlier one count too.
TEST(KvServerLimitsTest, RepliesHeldBehindASlowWorkerAreLimited) {
  ServerProcess stServer({"server.workers=2", "limits.output=2M"});
  Client stClient(stServer);
  stClient.Ask({"SET", KeyOf(1, 2), std::string(1 << 20, 'v')});
  const StoppedProcess stStopped(stServer.Worker(0));
  // In one piece: a gateway that sees the replies to some would not run the others yet.
  stClient.Send(Request({"GET", KeyOf(0, 2)}) + Repeat(Request({"GET", KeyOf(1, 2)}), 20));
  EXPECT_TRUE(stClient.ClosedWithin(10000));
  EXPECT_NE(std::string::npos, stServer.Log().find("(limits.output)"));
}

TEST(KvServerLimitsTest, LocalRepliesBehindASlowWorkerStopTheReading) {
  ServerProcess stServer({"server.workers=2"});
  Clients_t vecClients = Connected(stServer, 2);
  const std::string strEchoes = Repeat(Request({"ECHO", std::string(100000, 'e')}), 10);
  size_t iSent = 0;
  {
    const StoppedProcess stStopped(stServer.Worker(0));
    vecClients[0]->Send(Request({"GET", KeyOf(0, 2)}));
    size_t iTaken = 1;
    for (int i = 0; i < 100 && iTaken > 0; ++i) {  // until neither gateway nor kernel takes more
      vecClients[1]->Ask({"PING"});
      iTaken = vecClients[0]->SendSome(strEchoes);
      iSent += iTaken;
    }
    EXPECT_EQ(0u, iTaken) << "after " << iSent;
  }
  EXPECT_EQ("$-1\r\n", vecClients[0]->Read());
  EXPECT_EQ(Bulk(std::string(100000, 'e')), vecClients[0]->Read());
}

TEST(KvServerLimitsTest, AReplyThatWouldBeTooLongIsAnError) {
  ServerProcess stServer({"server.workers=2", "limits.output=4M"});
  Client stClient(stServer);
  const std::string strError =
      "-ERR reply longer than the limit of 4194304 bytes (limits.output)\r\n";
  stClient.Ask(
      {"MSET", KeyOf(0, 2), std::string(1 << 20, 'v'), KeyOf(1, 2), std::string(1 << 20, 'v')});
  std::vector<std::string> vecGet{"MGET"};
  vecGet.insert(vecGet.end(), 100, KeyOf(0, 2));
  EXPECT_EQ(strError, stClient.Ask(vecGet));
  vecGet.insert(vecGet.end(), 2000, KeyOf(1, 2));
  EXPECT_EQ(strError, stClient.Ask(vecGet));
  const std::string strKey = KeyOf(0, 2, 1);  // parts that are short enough, together too long
  stClient.Ask({"SET", strKey, std::string(20000, 'v')});
  vecGet.assign(300, strKey);
  vecGet[0] = "MGET";
  EXPECT_EQ(strError, stClient.Ask(vecGet));
  EXPECT_EQ("+PONG\r\n", stClient.Ask({"PING"}));
}

TEST(KvServerLimitsTest, AFullQueuePushesBackAndLosesNothing) {
  ServerProcess stServer(SMALL_QUEUES);
  Clients_t vecClients = Connected(stServer, 3);
  const std::string strSlow = Request({"SET", KeyOf(0, 2), std::string(10000, 's')});
  {
    const StoppedProcess stStopped(stServer.Worker(0));
    vecClients[0]->Send(Repeat(strSlow, 50) + Request({"GET", KeyOf(0, 2)}));
    for (int i = 0; i < 500; ++i) {
      ASSERT_EQ(":" + std::to_string(i + 1) + "\r\n", vecClients[1]->Ask({"INCR", KeyOf(1, 2)}));
    }
    vecClients[2]->Send(strSlow + Request({"MGET", KeyOf(1, 2), KeyOf(0, 2)}) + Request({"PING"}));
  }
  EXPECT_EQ(Repeat("+OK\r\n", 50) + Bulk(std::string(10000, 's')), vecClients[0]->Read(51));
  EXPECT_EQ("+OK\r\n*2\r\n" + Bulk("500") + Bulk(std::string(10000, 's')) + "+PONG\r\n",
            vecClients[2]->Read(3));
}

// One worker's queue stays full while the other's fills and empties.
TEST(KvServerLimitsTest, ClientsOfAQueueThatEmptiesGoOnWhileAnotherStaysFull) {
  ServerProcess stServer(SMALL_QUEUES);
  Clients_t vecClients = Connected(stServer, 4);
  const std::string strFirst = Request({"SET", KeyOf(0, 2), std::string(10000, 'a')});
  const std::string strSecond = Request({"SET", KeyOf(1, 2), std::string(10000, 'b')});
  const StoppedProcess stFirst(stServer.Worker(0));
  {
    const StoppedProcess stSecond(stServer.Worker(1));
    vecClients[0]->Send(Repeat(strFirst, 50));
    vecClients[1]->Send(Repeat(strSecond, 50));
    EXPECT_EQ("+PONG\r\n", vecClients[3]->Ask({"PING"}));  // both queues are full now
    vecClients[2]->Send(strSecond);
    EXPECT_EQ("+PONG\r\n", vecClients[3]->Ask({"PING"}));
  }
  EXPECT_EQ(Repeat("+OK\r\n", 50), vecClients[1]->Read(50));
  EXPECT_EQ("+OK\r\n", vecClients[2]->Read());
}

// More for one worker in one turn than a record holds, from clients that wait for nothing else.
TEST(KvServerLimitsTest, MuchForOneWorkerInOneTurnLeavesNobodyWaiting) {
  ServerProcess stServer;
  Clients_t vecClients = Connected(stServer, 12);
  {
    const StoppedProcess stStopped(stServer.Gateway());
    for (const auto& pClient : vecClients) {
      pClient->Send(Repeat(Request({"SET", "a", std::string(10000, 'a')}), 6));
    }
  }
  for (const auto& pClient : vecClients) {
    EXPECT_EQ(Repeat("+OK\r\n", 6), pClient->Read(6));
  }
}

// 12 MiB for a queue of 8, in one turn, with the value not at the end of its command.
TEST(KvServerLimitsTest, LargeValuesBeforeOptionsFitTheQueue) {
  ServerProcess stServer;
  Clients_t vecClients = Connected(stServer, 12);
  const std::string strSet = Request({"SET", "a", std::string(1 << 20, 'a'), "GET"});
  vecClients[0]->Ask({"SET", "a", "1"});
  {
    const StoppedProcess stStopped(stServer.Gateway());
    for (const auto& pClient : vecClients) {
      ASSERT_EQ(strSet.size(), pClient->SendSome(strSet));
    }
  }
  size_t iBytes = 0;
  for (const auto& pClient : vecClients) {
    iBytes += pClient->Read().size();
  }
  EXPECT_EQ(11 * Bulk(std::string(1 << 20, 'a')).size() + Bulk("1").size(), iBytes);
}

// More than is received in a turn, and epoll tells of it only once.
TEST(KvServerLimitsTest, AClientThatSendsOnAndOnIsAnsweredInTheEnd) {
  ServerProcess stServer;
  Client stClient(stServer);
  const std::string strSet = Request({"SET", "a", std::string(1 << 20, 'v')});
  const std::string strSets = Repeat(strSet, 4);
  for (int i = 0; i < 10; ++i) {
    size_t iSent = 0;
    {
      const StoppedProcess stStopped(stServer.Gateway());  // all is there when it goes on
      iSent = stClient.SendSome(strSets);
    }
    stClient.Send(strSets.substr(iSent));
    ASSERT_EQ(Repeat("+OK\r\n", 4), stClient.Read(4));
  }
}

// What stands behind a text in a section of INFO that needs no worker.
int Number(Client& stClient, const std::string& strSection, const std::string& strBefore) {
  const std::string strInfo = stClient.Ask({"INFO", strSection});
  const size_t iAt = strInfo.find(strBefore);
  return iAt == std::string::npos ? -1 : atoi(&strInfo[iAt + strBefore.size()]);
}

// Their worker would make all of a quarter of a gigabyte of replies while its other clients wait.
TEST(KvServerLimitsTest, LongRepliesAreAskedForBitByBit) {
  ServerProcess stServer({"limits.unanswered=1024", "limits.output=1G"});
  Client stOther(stServer);
  Client stClient(stServer);
  stOther.Ask({"SET", "a", std::string(1 << 18, 'v')});
  const std::string strGets = Repeat(Request({"GET", "a"}), 1000);
  ASSERT_EQ(strGets.size(), stClient.SendSome(strGets));
  EXPECT_TRUE(WaitUntil([&] { return Number(stOther, "clients", "blocked_clients:") == 1; }));
  const int iRun = Number(stOther, "commandstats", "cmdstat_get:calls=");
  EXPECT_LT(iRun, 200);
  stClient.Read(static_cast<size_t>(iRun) + 10);  // it goes on as it reads
  EXPECT_GE(Number(stOther, "commandstats", "cmdstat_get:calls="), iRun + 10);
}

TEST(KvServerLimitsTest, ManyShortRepliesAreAskedForAtOnce) {
  ServerProcess stServer;
  Client stClient(stServer);
  stClient.Send(Repeat(Request({"INCR", "a"}), 2000));
  stClient.Read(2000);
  const StoppedProcess stStopped(stServer.Worker(0));
  Client stOther(stServer);
  stClient.Send(Repeat(Request({"GET", "a"}), 900));
  EXPECT_TRUE(
      WaitUntil([&] { return Number(stOther, "commandstats", "cmdstat_get:calls=") == 900; }));
  EXPECT_EQ(0, Number(stOther, "clients", "blocked_clients:"));
}

TEST(KvServerLimitsTest, UnansweredCommandsAreLimitedAndAllAnswered) {
  ServerProcess stServer({"limits.unanswered=3", "server.workers=2"});
  Client stClient(stServer);
  std::string strRequests;
  std::string strReplies;
  for (int i = 0; i < 300; ++i) {
    strRequests += Request({"INCR", KeyOf(i % 2, 2)});
    strReplies += ":" + std::to_string(i / 2 + 1) + "\r\n";
  }
  stClient.Send(strRequests);
  EXPECT_EQ(strReplies, stClient.Read(300));
}

TEST(KvServerLimitsTest, ACommandOverASilentWorkerIsGivenUp) {
  ServerProcess stServer({"server.workers=2", "timeout.gather=1"});
  Client stClient(stServer);
  {
    const StoppedProcess stStopped(stServer.Worker(0));
    stClient.Send(Request({"DBSIZE"}) + Request({"PING"}));
    EXPECT_EQ(
        "-ERR workers did not answer in time (timeout.gather), the command may or may not have "
        "run\r\n+PONG\r\n",
        stClient.Read(2));
  }
  EXPECT_EQ(":0\r\n", stClient.Ask({"DBSIZE"})) << "the late answer is not taken for this one";
}

}  // namespace
