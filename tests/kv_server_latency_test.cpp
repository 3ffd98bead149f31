#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <fstream>

#include "kv_server_fixture.h"
#include "message_queue.h"
#include "test_support.h"

namespace {

const char SLEEP[] = "0.2";
const long SLEEP_US = 200000;

bool Contains(const std::string& strText, const std::string& strPart) {
  return strText.find(strPart) != std::string::npos;
}

// A figure of INFO latencystats; -1: there is none.
long Latency(Client& stClient, const std::string& strCommand, const std::string& strPercentile) {
  const std::string strText = stClient.Ask({"INFO", "latencystats"});
  const std::string strHead = "\r\nlatency_percentiles_usec_" + strCommand + ":";
  const size_t iLine = strText.find(strHead);
  if (iLine == std::string::npos) {
    return -1;
  }
  const size_t iFigure = strText.find(strPercentile + "=", iLine);
  return atol(strText.c_str() + iFigure + strPercentile.size() + 1);
}

// The calls of a command in the table that has it; -1: none has.
long Calls(const std::string& strTables, const std::string& strCommand) {
  const size_t iRow = strTables.find(" " + strCommand + " ");
  return iRow == std::string::npos ? -1 : atol(strTables.c_str() + iRow + strCommand.size() + 1);
}

TEST(KvServerLatencyTest, InfoShowsTheCommandsThatWereRun) {
  ServerProcess stServer;
  Client stClient(stServer);
  EXPECT_EQ("$16\r\n# Latencystats\r\n\r\n", stClient.Ask({"INFO", "latencystats"}));
  stClient.Ask({"SET", "a", "1"});
  stClient.Ask({"PING"});
  stClient.Ask({"NOSUCH"});
  stClient.Ask({"GET"});  // wrong number of arguments
  const std::string strText = stClient.Ask({"INFO", "latencystats"});
  EXPECT_TRUE(Contains(strText, "\r\nlatency_percentiles_usec_set:p50=")) << strText;
  EXPECT_TRUE(Contains(strText, "\r\nlatency_percentiles_usec_ping:p50=")) << strText;
  EXPECT_FALSE(Contains(strText, "nosuch") || Contains(strText, "_get")) << strText;
  EXPECT_LE(Latency(stClient, "set", "p50"), Latency(stClient, "set", "p99.9"));
  EXPECT_TRUE(Contains(stClient.Ask({"INFO", "all"}), "# Latencystats\r\n"));
  EXPECT_FALSE(Contains(stClient.Ask({"INFO"}), "Latencystats"));
}

TEST(KvServerLatencyTest, ResetStatStartsAnew) {
  ServerProcess stServer;
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  EXPECT_NE(-1, Latency(stClient, "set", "p50"));
  EXPECT_EQ("+OK\r\n", stClient.Ask({"CONFIG", "RESETSTAT"}));
  EXPECT_EQ(-1, Latency(stClient, "set", "p50"));
  stClient.Ask({"SET", "a", "1"});
  EXPECT_NE(-1, Latency(stClient, "set", "p50"));
}

// No figure is longer than the client's own measurement, nor shorter than what is known to have
// passed.
TEST(KvServerLatencyTest, TheTimeOfTheWorkerIsIn) {
  ServerProcess stServer({"debug.commands=yes"});
  Client stClient(stServer);
  const auto stBegin = std::chrono::steady_clock::now();
  EXPECT_EQ("+OK\r\n", stClient.Ask({"DEBUG", "SLEEP", SLEEP}));
  const auto iTook = std::chrono::steady_clock::now() - stBegin;
  EXPECT_GE(Latency(stClient, "debug", "p50"), SLEEP_US);
  EXPECT_LE(Latency(stClient, "debug", "p50"),
            std::chrono::duration_cast<std::chrono::microseconds>(iTook).count());
}

TEST(KvServerLatencyTest, AReplyThatWaitsForOneBeforeItIsNotSentYet) {
  ServerProcess stServer({"debug.commands=yes", "server.workers=2"});
  Client stClient(stServer);
  const std::string strKey = KeyOf(1, 2);
  stClient.Send(Request({"DEBUG", "SLEEP", SLEEP}) + Request({"GET", strKey}) + Request({"PING"}) +
                Request({"MGET", KeyOf(0, 2), strKey}));
  EXPECT_EQ("+OK\r\n$-1\r\n+PONG\r\n*2\r\n$-1\r\n$-1\r\n", stClient.Read(4));
  for (const char* pCommand : {"debug", "get", "ping", "mget"}) {
    EXPECT_GE(Latency(stClient, pCommand, "p50"), SLEEP_US) << pCommand;
  }
}

TEST(KvServerLatencyTest, ARequestThatWaitsToBeRunHasArrived) {
  ServerProcess stServer({"debug.commands=yes", "limits.unanswered=1"});
  Client stClient(stServer);
  stClient.Send(Request({"DEBUG", "SLEEP", SLEEP}) + Request({"PING"}) + Request({"GET", "a"}));
  EXPECT_EQ("+OK\r\n+PONG\r\n$-1\r\n", stClient.Read(3));
  EXPECT_GE(Latency(stClient, "ping", "p50"), SLEEP_US);
  EXPECT_GE(Latency(stClient, "get", "p50"), SLEEP_US);
}

// Whether the only worker has taken everything that was in its queue. It must be attached to it
// by then: a queue has room for three.
bool HasTakenAll(const ServerProcess& stServer) {
  std::ifstream stFile(stServer.Directory() + "/queues");
  key_t iKey = 0;
  std::string strFifo;
  while (stFile >> iKey >> strFifo && strFifo.find(".in") == std::string::npos) {
  }
  MessageQueue stQueue;
  EXPECT_EQ(0, stQueue.AttachWithKey(strFifo.c_str(), iKey, 64));
  return stQueue.CanReadSize() == 0;
}

TEST(KvServerLatencyTest, AnErrorForALostWorkerIsAReplyToo) {
  ServerProcess stServer({"debug.commands=yes"});
  Client stClient(stServer);
  Client stOther(stServer);
  stClient.Ask({"EXISTS", "a"});
  stClient.Send(Request({"DEBUG", "SLEEP", "600"}) + Request({"GET", "a"}) +
                Request({"STRLEN", "a"}));
  ASSERT_TRUE(WaitUntil([&] {
    return Contains(stOther.Ask({"CLIENT", "LIST"}), " cmd=strlen ") && HasTakenAll(stServer);
  }));
  SendSignal(stServer.Worker(0), SIGKILL);
  EXPECT_EQ(Repeat("-ERR worker restarted, the command may or may not have run\r\n", 3),
            stClient.Read(3));
  for (const char* pCommand : {"debug", "get", "strlen"}) {
    EXPECT_NE(-1, Latency(stClient, pCommand, "p50")) << pCommand;
  }
}

TEST(KvServerLatencyTest, EveryIntervalATableIsWrittenAndThePeriodStartsAnew) {
  ServerProcess stServer({"stat.interval=1"});
  Client stClient(stServer);
  for (int i = 0; i < 3; ++i) {
    stClient.Ask({"SET", "a", "1"});
  }
  EXPECT_TRUE(WaitUntil([&] { return Calls(stServer.StatLog(), "set") > 0; }));
  EXPECT_TRUE(Contains(stServer.StatLog(), "[STAT] commands by latency in microseconds\n"));
  EXPECT_EQ(-1, Latency(stClient, "set", "p50"));
  EXPECT_FALSE(Contains(stServer.Log(), "[STAT]"));
}

TEST(KvServerLatencyTest, TheLastPeriodEndsWithTheServer) {
  ServerProcess stServer({"stat.interval=3600"});
  {
    Client stClient(stServer);
    stClient.Send(Repeat(Request({"SET", "a", "1"}), 40) + Request({"GET", "a"}));
    stClient.Read(41);
  }
  EXPECT_EQ("", stServer.StatLog());
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_EQ(40, Calls(stServer.StatLog(), "set")) << stServer.StatLog();
  EXPECT_EQ(1, Calls(stServer.StatLog(), "get"));
}

TEST(KvServerLatencyTest, WithoutAnIntervalNothingIsMeasured) {
  ServerProcess stServer({"stat.interval=0"});
  {
    Client stClient(stServer);
    stClient.Ask({"SET", "a", "1"});
    EXPECT_EQ("$16\r\n# Latencystats\r\n\r\n", stClient.Ask({"INFO", "latencystats"}));
  }
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_EQ("", stServer.StatLog());
}

}  // namespace
