#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "batch.h"
#include "kv_server_fixture.h"
#include "message_queue.h"

namespace {

const char LOST[] = "-ERR worker restarted, the command may or may not have run\r\n";
const ServerProcess::Settings_t THREE_WORKERS = {"server.workers=3"};

double SecondsSince(std::chrono::steady_clock::time_point stStart) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - stStart).count();
}

void Reset(Client& stClient) {  // close() then resets the connection
  const linger stLinger{1, 0};
  setsockopt(stClient.FD(), SOL_SOCKET, SO_LINGER, &stLinger, sizeof(stLinger));
}

// A load in a process of its own: pipelines of echoes and values until the server closes. Exit code
// 0: each reply was the right one, the error of a lost worker, or missing at the end.
class Load {
 public:
  Load(const ServerProcess& stServer, size_t iValue) {
    Client stClient(stServer);  // connected here, so that there is a load when we return
    m_pPeer = std::make_unique<ForkedPeer>([&] { return Run(stClient, iValue); });
  }

  int Wait() { return m_pPeer->Wait(); }

 private:
  static int Run(Client& stClient, size_t iValue) {
    for (int iRound = 0;; ++iRound) {
      const std::string strRound = std::to_string(iRound);
      const std::string strKey =
          "load" + std::to_string(iValue) + "." + std::to_string(iRound % 50);
      std::string strValue = strRound + std::string(iValue, 'v');
      stClient.Send(Request({"ECHO", strRound}) + Request({"SET", strKey, strValue}) +
                    Request({"GET", strKey}) + Request({"MGET", strKey, "none"}) +
                    Request({"ECHO", strRound}));
      const std::string strElements = "*2\r\n" + Bulk(strValue) + "$-1\r\n";
      bool bOpen = Is(stClient, {Bulk(strRound)});
      const std::string strSet = bOpen ? stClient.Read() : "";
      if (strSet == "+OK\r\n") {
        bOpen = Is(stClient, {Bulk(strValue), LOST}) && Is(stClient, {strElements, LOST});
      } else {  // it may have run: then there is this value, else an earlier one or none
        bOpen = strSet == LOST && !stClient.Read(2).empty();
      }
      if (!bOpen || !Is(stClient, {Bulk(strRound)})) {
        return stClient.ClosedWithin(0) ? 0 : 1;
      }
    }
  }

  static bool Is(Client& stClient, const std::vector<std::string>& vecAllowed) {
    const std::string strReply = stClient.Read();
    for (const std::string& strAllowed : vecAllowed) {
      if (strReply == strAllowed) {
        return true;
      }
    }
    if (!strReply.empty()) {
      fprintf(stderr, "wrong reply: %s\n", strReply.substr(0, 200).c_str());
      _exit(3);
    }
    return false;  // closed
  }

  std::unique_ptr<ForkedPeer> m_pPeer;
};

// Waits until the log has that text so many times.
void WaitForLines(const ServerProcess& stServer, const std::string& strText, int iTimes) {
  EXPECT_TRUE(WaitUntil([&] {
    int iCount = 0;
    const std::string strLog = stServer.Log();
    for (size_t i = 0; (i = strLog.find(strText, i)) != std::string::npos; ++i) {
      ++iCount;
    }
    return iCount >= iTimes;
  })) << stServer.Log();
}

void WaitForStarts(const ServerProcess& stServer, const std::string& strName, int iTimes) {
  WaitForLines(stServer, strName + " started, pid", iTimes);
}

TEST(KvServerCrashTest, AKilledWorkersRequestsAreAnsweredWithAnError) {
  ServerProcess stServer({"server.workers=2"});
  Client stClient(stServer);
  stClient.Ask({"SET", KeyOf(1, 2), "kept"});
  {
    const pid_t iWorker = stServer.Worker(0);
    const StoppedProcess stStopped(iWorker);
    stClient.Send(Request({"ECHO", "1"}) + Request({"GET", KeyOf(1, 2)}));
    EXPECT_EQ(Bulk("1") + Bulk("kept"), stClient.Read(2));
    SendSignal(iWorker, SIGKILL);
    WaitForStarts(stServer, "worker 0", 2);
  }
  EXPECT_EQ("$-1\r\n", stClient.Ask({"GET", KeyOf(0, 2)}));
  EXPECT_EQ(Bulk("kept"), stClient.Ask({"GET", KeyOf(1, 2)}));
}

// One more look at a queue of the only worker: ".in" or ".out".
void AttachQueue(const ServerProcess& stServer, const std::string& strEnd, MessageQueue& stQueue) {
  std::ifstream stFile(stServer.Directory() + "/queues");
  key_t iKey = 0;
  std::string strFifo;
  while (stFile >> iKey >> strFifo && strFifo.find(strEnd) == std::string::npos) {
  }
  ASSERT_EQ(0, stQueue.AttachWithKey(strFifo.c_str(), iKey, 64));
}

unsigned int RoomForAnswers(const ServerProcess& stServer) {
  MessageQueue stQueue;
  AttachQueue(stServer, ".out", stQueue);
  return stQueue.CanWriteSize();
}

// A run of two commands gets one reply and then an end: in place of the worker the test answers.
TEST(KvServerCrashTest, AnAnswerThatIsTooShortShiftsNoReply) {
  ServerProcess stServer;
  Client stClient(stServer);
  Client stOther(stServer);
  stClient.Ask({"GET", "a"});  // by now the fresh worker is being asked what it knows,
  stClient.Ask({"GET", "a"});  // and by now it has answered that
  const StoppedProcess stStopped(stServer.Worker(0));
  stClient.Send(Request({"GET", "a"}) + Request({"GET", "b"}) + Request({"ECHO", "end"}));
  EXPECT_EQ("+PONG\r\n", stOther.Ask({"PING"}));
  MessageQueue stIn;
  MessageQueue stOut;
  AttachQueue(stServer, ".in", stIn);
  AttachQueue(stServer, ".out", stOut);
  BufferVec_t stRecord{};
  ASSERT_EQ(1, stIn.Pop(&stRecord, 1));
  const std::unique_ptr<char[]> pRecord(stRecord.pData);
  const auto stHead = RecordReader({stRecord.pData, stRecord.iSize}).Take<RequestHead_t>();
  std::string strAnswer;
  AppendRecord(strAnswer, ReplyHead_t{stHead.iLife, stHead.iNumber, REPLY_ANSWERS, 1});
  AppendRecord(strAnswer, PieceHead_t{5, 1, 0});
  strAnswer += "$-1\r\n";
  BufferVec_t stAnswer{strAnswer.data(), static_cast<uint32_t>(strAnswer.size())};
  ASSERT_EQ(1, stOut.Push(&stAnswer, 1));
  EXPECT_EQ("$-1\r\n" + std::string(LOST) + Bulk("end"), stClient.Read(3));
}

// A worker dies with half of a reply in the queue, which is shorter than the reply.
TEST(KvServerCrashTest, ATornReplyIsNotFollowedByAnything) {
  ServerProcess stServer({"queue.bytes=2300K"});
  Client stClient(stServer);
  Client stOther(stServer);
  const pid_t iWorker = stServer.Worker(0);
  stClient.Ask({"SET", "a", std::string(1 << 20, 'v')});
  {
    auto pStopped = std::make_unique<StoppedProcess>(iWorker);
    stClient.Send(Request({"MGET", "a", "a", "a"}) + Request({"PING"}));
    EXPECT_EQ("+PONG\r\n", stOther.Ask({"PING"}));
    const StoppedProcess stGateway(stServer.Gateway());
    pStopped.reset();
    EXPECT_TRUE(WaitUntil([&] { return RoomForAnswers(stServer) < (600u << 10); }));
    SendSignal(iWorker, SIGKILL);
  }
  const std::string strWhole = "*3\r\n" + Repeat(Bulk(std::string(1 << 20, 'v')), 3);
  const std::string strPart = stClient.ReadToEnd();
  EXPECT_TRUE(strPart == strWhole.substr(0, strPart.size()));
  EXPECT_GT(strWhole.size(), strPart.size());
  EXPECT_NE(std::string::npos, stServer.Log().find("its worker died inside a reply"));
  EXPECT_EQ(":1048576\r\n", stOther.Ask({"STRLEN", "a"}));
}

TEST(KvServerCrashTest, WorkersMayDieUnderLoad) {
  ServerProcess stServer(THREE_WORKERS);
  Load stSmall(stServer, 10);
  Load stLarge(stServer, 40000);
  Client stClient(stServer);
  for (int i = 0; i < 6; ++i) {
    ASSERT_EQ("+PONG\r\n", stClient.Ask({"PING"}));
    SendSignal(stServer.Worker(i % 3), SIGKILL);
    WaitForStarts(stServer, "worker " + std::to_string(i % 3), i / 3 + 2);
    const auto stStart = std::chrono::steady_clock::now();
    while (stClient.Ask({"DBSIZE"}).substr(0, 1) != ":") {
    }
    EXPECT_LT(SecondsSince(stStart), 2);
  }
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_EQ(0, stSmall.Wait());
  EXPECT_EQ(0, stLarge.Wait());
  EXPECT_EQ("", stServer.Remains());
}

// The new gateway's first batches have the numbers of those that the old one left unanswered.
TEST(KvServerCrashTest, AKilledGatewayClosesAndANewOneServesWithoutOldReplies) {
  ServerProcess stServer(THREE_WORKERS);
  Client stOld(stServer);
  std::unique_ptr<Client> pNew;
  {
    const StoppedProcess stStopped(stServer.Worker(0));
    stOld.Send(Repeat(Request({"INCR", KeyOf(0, 3)}), 100));
    EXPECT_EQ("+PONG\r\n", Client(stServer).Ask({"PING"}));
    SendSignal(stServer.Gateway(), SIGKILL);
    EXPECT_TRUE(stOld.ClosedWithin(2000));
    WaitForLines(stServer, "gateway: serving", 2);
    pNew = std::make_unique<Client>(stServer);
    pNew->Send(Request({"GET", KeyOf(0, 3, 1)}) + Request({"PING"}));
    EXPECT_EQ("+PONG\r\n", Client(stServer).Ask({"PING"}));
  }
  EXPECT_EQ("$-1\r\n+PONG\r\n", pNew->Read(2));
  EXPECT_EQ(Bulk("100"), pNew->Ask({"GET", KeyOf(0, 3)})) << "what was queued has run";
}

TEST(KvServerCrashTest, GatewaysMayDieUnderLoad) {
  ServerProcess stServer(THREE_WORKERS);
  for (int i = 0; i < 3; ++i) {
    Load stSmall(stServer, 10);
    Load stLarge(stServer, 40000);
    EXPECT_EQ("+PONG\r\n", Client(stServer).Ask({"PING"}));
    SendSignal(stServer.Gateway(), SIGKILL);
    EXPECT_EQ(0, stSmall.Wait());
    EXPECT_EQ(0, stLarge.Wait());
    EXPECT_TRUE(WaitUntil([&] {
      try {
        return Client(stServer).Ask({"DBSIZE"}).substr(0, 1) == ":";
      } catch (const std::exception&) {
        return false;  // the new one does not listen yet
      }
    }));
  }
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_EQ("", stServer.Remains());
}

TEST(KvServerCrashTest, AKilledMastersServerGoesAndANewMasterTakesOver) {
  ServerProcess stServer(THREE_WORKERS);
  Load stLoad(stServer, 1000);
  EXPECT_EQ("+PONG\r\n", Client(stServer).Ask({"PING"}));
  SendSignal(stServer.Master(), SIGKILL);
  EXPECT_EQ(1000 + SIGKILL, stServer.Wait());
  stServer.Start();  // at once: it waits for the children of the killed one
  EXPECT_EQ(0, stLoad.Wait());
  Client stClient(stServer);
  EXPECT_EQ(":", stClient.Ask({"DBSIZE"}).substr(0, 1));
  EXPECT_EQ("+OK\r\n", stClient.Ask({"MSET", "a", "1", "b", "2", "c", "3"}));
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_EQ("", stServer.Remains()) << "also of the killed one";
}

TEST(KvServerCrashTest, SigtermAnswersWhatWasReceived) {
  ServerProcess stServer({"server.workers=2"});
  Client stClient(stServer);
  stClient.Ask({"SET", KeyOf(0, 2), std::string(50000, 'v')});
  {
    const StoppedProcess stStopped(stServer.Worker(0));
    stClient.Send(Repeat(Request({"GET", KeyOf(0, 2)}), 200) + Request({"PING"}));
    EXPECT_EQ("+PONG\r\n", Client(stServer).Ask({"PING"}));
    SendSignal(stServer.Master(), SIGTERM);
  }
  const std::string strExpected = Repeat(Bulk(std::string(50000, 'v')), 200) + "+PONG\r\n";
  EXPECT_TRUE(strExpected == stClient.ReadToEnd());
  EXPECT_EQ(0, stServer.Wait());
  EXPECT_EQ("", stServer.Remains());
}

// A client that goes on sending and does not read yet: closing with its bytes unread would reset
// the connection and take the replies away that are still under way.
TEST(KvServerCrashTest, SigtermTakesNoReplyAwayFromAClientThatGoesOnSending) {
  ServerProcess stServer;
  Client stClient(stServer);
  const int iSmall = 65536;
  setsockopt(stClient.FD(), SOL_SOCKET, SO_RCVBUF, &iSmall, sizeof(iSmall));
  stClient.Ask({"SET", "a", std::string(100000, 'v')});
  stClient.SendSome(Repeat(Request({"GET", "a"}), 10));
  EXPECT_EQ("$-1\r\n", Client(stServer).Ask({"GET", "b"}));
  SendSignal(stServer.Master(), SIGTERM);
  for (int i = 0; i < 200; ++i) {
    stClient.SendSome("PING\r\n");
    usleep(1000);
  }
  const std::string strExpected = Repeat(Bulk(std::string(100000, 'v')), 10);
  EXPECT_TRUE(strExpected == stClient.ReadToEnd().substr(0, strExpected.size()));
  EXPECT_EQ(0, stServer.Wait());
}

TEST(KvServerCrashTest, SigtermAnswersConnectionsNotYetAccepted) {
  ServerProcess stServer;
  auto pStopped = std::make_unique<StoppedProcess>(stServer.Gateway());
  Client stClient(stServer);
  stClient.Send(Request({"SET", "a", "1"}) + Request({"GET", "a"}));
  SendSignal(stServer.Master(), SIGTERM);
  SendSignal(stServer.Gateway(), SIGTERM);
  pStopped.reset();
  EXPECT_EQ("+OK\r\n$1\r\n1\r\n", stClient.ReadToEnd());
  EXPECT_EQ(0, stServer.Wait());
}

TEST(KvServerCrashTest, SigtermUnderLoadEndsSoonAndCleanly) {
  ServerProcess stServer(THREE_WORKERS);
  Load stSmall(stServer, 10);
  Load stLarge(stServer, 40000);
  EXPECT_EQ("+PONG\r\n", Client(stServer).Ask({"PING"}));
  const Client stIdle(stServer);
  const auto stStart = std::chrono::steady_clock::now();
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_LT(SecondsSince(stStart), 4);
  EXPECT_EQ(0, stSmall.Wait());
  EXPECT_EQ(0, stLarge.Wait());
  EXPECT_EQ("", stServer.Remains());
}

TEST(KvServerCrashTest, IdleClientsDoNotDelayTheEnd) {
  ServerProcess stServer;
  Client stIdle(stServer);
  stIdle.Ask({"PING"});
  const auto stStart = std::chrono::steady_clock::now();
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_LT(SecondsSince(stStart), 1);
  EXPECT_EQ("", stIdle.ReadToEnd());
}

TEST(KvServerCrashTest, SigintEndsTheServerToo) {
  ServerProcess stServer;
  SendSignal(stServer.Master(), SIGINT);
  EXPECT_EQ(0, stServer.Wait());
  EXPECT_EQ("", stServer.Remains());
}

TEST(KvServerCrashTest, ShutdownEndsTheServer) {
  ServerProcess stServer(THREE_WORKERS);
  Client stClient(stServer);
  stClient.Send(Request({"SET", "a", "1"}) + Request({"SHUTDOWN", "NOSAVE"}) + Request({"PING"}));
  EXPECT_EQ("+OK\r\n", stClient.ReadToEnd());
  EXPECT_EQ(0, stServer.Wait());
  EXPECT_EQ("", stServer.Remains());
}

TEST(KvServerCrashTest, ASecondServerInTheSameDirectoryIsRefused) {
  ServerProcess stServer({"timeout.stop=0"});
  const RunResult_t stSecond =
      RunServer({"--set", "server.run_dir=" + stServer.Directory(), "--set", "timeout.stop=0"});
  EXPECT_EQ(1, stSecond.iExit);
  EXPECT_EQ("kv_server: another server runs in server.run_dir = \"" + stServer.Directory() + "\"\n",
            stSecond.strError);
  EXPECT_EQ("+PONG\r\n", Client(stServer).Ask({"PING"}));
}

TEST(KvServerCrashTest, APortInUseIsToldAtTheStart) {
  const ServerProcess stServer;
  const PrivateDirectory stDirectory;
  const std::string strListen = "127.0.0.1:" + std::to_string(stServer.Port());
  const RunResult_t stSecond = RunServer(
      {"--set", "server.run_dir=" + stDirectory.Path(), "--set", "server.listen=" + strListen});
  EXPECT_EQ(1, stSecond.iExit);
  EXPECT_EQ("kv_server: can not listen on server.listen = \"" + strListen +
                "\": Address already in use\n",
            stSecond.strError);
}

TEST(KvServerCrashTest, ClientsThatVanishLeaveTheServerAsItWas) {
  ServerProcess stServer({"server.workers=2"});
  Client stClient(stServer);
  stClient.Ask({"SET", "a", std::string(1 << 20, 'v')});
  for (int i = 0; i < 16; ++i) {
    Client stGone(stServer);
    stGone.SendSome(Repeat(Request({"GET", "a"}), 10) + Request({"MGET", "a", "b", "c"}) +
                    "*1\r\n$");
    if (i % 2 == 0) {
      Reset(stGone);
    }
  }
  EXPECT_TRUE(WaitUntil(
      [&] { return stClient.Ask({"INFO"}).find("connected_clients:1\r\n") != std::string::npos; }));
  EXPECT_EQ(":1\r\n", stClient.Ask({"EXISTS", "a"}));
}

TEST(KvServerCrashTest, AWorkerThatKeepsDyingIsStartedLessOften) {
  ServerProcess stServer;
  const auto stStart = std::chrono::steady_clock::now();
  for (int i = 0; i < 4; ++i) {
    SendSignal(stServer.Worker(0), SIGKILL);
    WaitForStarts(stServer, "worker 0", i + 2);
  }
  EXPECT_GT(SecondsSince(stStart), 0.65) << "0 + 0.1 + 0.2 + 0.4 s";
  EXPECT_EQ("$-1\r\n", Client(stServer).Ask({"GET", "a"}));
}

}  // namespace
