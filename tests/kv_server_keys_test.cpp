// Keys outlive the processes: of the whole server, with real processes and real deaths.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <set>

#include "heap_image.h"
#include "kv_server_fixture.h"

namespace {

const char LOST[] = "-ERR worker restarted, the command may or may not have run\r\n";
const char OOM[] = "-OOM command not allowed when used memory > 'maxmemory'.\r\n";
const ServerProcess::Settings_t THREE_WORKERS = {"server.workers=3", "table.bytes=32M",
                                                 "table.buckets=64"};
const ServerProcess::Settings_t SMALL_TABLE = {"table.bytes=9M", "table.buckets=16"};

size_t KeyCount(const ServerProcess& stServer) {
  const std::string strReply = Client(stServer).Ask({"DBSIZE"});
  return strReply[0] == ':' ? static_cast<size_t>(atoi(strReply.c_str() + 1)) : 0;
}

bool LogTells(const ServerProcess& stServer, const std::string& strText) {
  return stServer.Log().find(strText) != std::string::npos;
}

// A client that remembers what it was told. A command without an answer may have run or not.
class Witness {
 public:
  explicit Witness(const ServerProcess& stServer) : m_stServer(stServer) { Connect(); }

  void Connect() { m_pClient = std::make_unique<Client>(m_stServer); }

  // Sends a pipeline of sets, half of them of other sizes than what they replace.
  void SendSets(int iRound) {
    std::string strRequests;
    m_vecSent.clear();
    for (int i = 0; i < 300; ++i) {
      const std::string strKey = "key" + std::to_string(i * 7 % 100);
      const size_t iSize =
          static_cast<size_t>((i * 37 + iRound * 11) % (i % 50 == 0 ? 60000 : 300));
      const std::string strValue = std::to_string(iRound * 1000 + i) + std::string(iSize, 'v');
      m_vecSent.emplace_back(strKey, strValue);
      strRequests += Request({"SET", strKey, strValue});
    }
    m_pClient->Send(strRequests);
  }

  // Takes the answers, as far as there are any.
  void ReadAnswers() {
    for (const auto& stSent : m_vecSent) {
      const std::string strReply = m_pClient->Read();
      EXPECT_TRUE(strReply == "+OK\r\n" || strReply == LOST || strReply.empty()) << strReply;
      if (strReply == "+OK\r\n") {
        m_mapAllowed[stSent.first].clear();
        ++m_iAcknowledged;
      } else {
        m_mapAllowed[stSent.first].insert("");  // keeps what is allowed so far
      }
      m_mapAllowed[stSent.first].insert(stSent.second);
    }
  }

  // Every key has its acknowledged value, or one that was asked for later.
  void Verify() {
    for (const auto& stItem : m_mapAllowed) {
      std::string strReply = m_pClient->Ask({"GET", stItem.first});
      for (int i = 0; strReply == LOST && i < 10; ++i) {
        strReply = m_pClient->Ask({"GET", stItem.first});
      }
      bool bAllowed = false;
      for (const std::string& strValue : stItem.second) {
        bAllowed |= strReply == (strValue.empty() ? "$-1\r\n" : Bulk(strValue));
      }
      const bool bNew = stItem.second.count("") != 0;
      EXPECT_TRUE(bAllowed) << stItem.first << (bNew ? " uncertain " : " ")
                            << strReply.substr(0, 60);
    }
  }
  int Acknowledged() const { return m_iAcknowledged; }

 private:
  const ServerProcess& m_stServer;
  std::unique_ptr<Client> m_pClient;
  std::vector<std::pair<std::string, std::string>> m_vecSent;
  std::map<std::string, std::set<std::string>> m_mapAllowed;
  int m_iAcknowledged = 0;
};

void WaitUntilItServes(const ServerProcess& stServer) {
  EXPECT_TRUE(WaitUntil([&] {
    try {
      return Client(stServer).Ask({"DBSIZE"}).substr(0, 1) == ":";
    } catch (const std::exception&) {
      return false;
    }
  }));
}

TEST(KvServerKeysTest, KilledWorkersLoseNothingAcknowledged) {
  ServerProcess stServer(THREE_WORKERS);
  Witness stWitness(stServer);
  for (int i = 0; i < 9; ++i) {
    const pid_t iWorker = stServer.Worker(i % 3);
    stWitness.SendSets(i);
    SendSignal(iWorker, SIGKILL);
    stWitness.ReadAnswers();
    stWitness.Verify();
  }
  EXPECT_GT(stWitness.Acknowledged(), 900);
  EXPECT_EQ(0, stServer.Stop());
}

TEST(KvServerKeysTest, KilledGatewaysLoseNothingAcknowledged) {
  ServerProcess stServer(THREE_WORKERS);
  Witness stWitness(stServer);
  for (int i = 0; i < 4; ++i) {
    const pid_t iGateway = stServer.Gateway();
    stWitness.SendSets(i);
    SendSignal(iGateway, SIGKILL);
    stWitness.ReadAnswers();
    WaitUntilItServes(stServer);
    stWitness.Connect();
    stWitness.Verify();
    stWitness.SendSets(i + 100);
    stWitness.ReadAnswers();
  }
  EXPECT_GT(stWitness.Acknowledged(), 900);
}

TEST(KvServerKeysTest, KilledMastersLoseNothingAcknowledged) {
  ServerProcess stServer(THREE_WORKERS);
  Witness stWitness(stServer);
  for (int i = 0; i < 3; ++i) {
    stWitness.SendSets(i);
    SendSignal(stServer.Master(), SIGKILL);
    stWitness.ReadAnswers();
    EXPECT_EQ(1000 + SIGKILL, stServer.Wait());
    stServer.Start();
    stWitness.Connect();
    stWitness.Verify();
    stWitness.SendSets(i + 100);
    stWitness.ReadAnswers();
  }
  EXPECT_GT(stWitness.Acknowledged(), 600);
}

TEST(KvServerKeysTest, ARestartFindsTheKeysAndTheirTimes) {
  ServerProcess stServer(THREE_WORKERS);
  {
    Client stClient(stServer);
    for (int i = 0; i < 100; ++i) {
      stClient.Ask({"SET", "key" + std::to_string(i), std::to_string(i)});
    }
    stClient.Ask({"EXPIRE", "key1", "1000"});
    stClient.Ask({"SET", "soon", "x", "PX", "1"});
  }
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_EQ("", stServer.Remains());
  stServer.Start();
  Client stClient(stServer);
  EXPECT_EQ(Bulk("42"), stClient.Ask({"GET", "key42"}));
  EXPECT_GT(atoi(stClient.Ask({"TTL", "key1"}).c_str() + 1), 900);
  EXPECT_EQ("$-1\r\n", stClient.Ask({"GET", "soon"})) << "time went on meanwhile";
  EXPECT_TRUE(WaitUntil([&] { return KeyCount(stServer) == 100; }));
}

TEST(KvServerKeysTest, EphemeralKeysGoWithTheServer) {
  ServerProcess stServer({"server.workers=3", "--ephemeral"});
  Client(stServer).Ask({"SET", "a", "1"});
  ASSERT_EQ(3u, stServer.TableKeys().size());
  EXPECT_EQ(0, stServer.Stop());
  for (const key_t iKey : stServer.TableKeys()) {
    EXPECT_EQ(-1, shmget(iKey, 0, 0));
  }
  EXPECT_NE(0, access((stServer.Directory() + "/run").c_str(), F_OK));
  EXPECT_NE(0, access((stServer.Directory() + "/tables").c_str(), F_OK));
}

TEST(KvServerKeysTest, AFullTableRefusesAndKeepsWhatItHas) {
  ServerProcess stServer(SMALL_TABLE);
  Client stClient(stServer);
  int iKeys = 0;
  stClient.Ask({"SET", "a", "old"});
  while (stClient.Ask({"SET", "fill" + std::to_string(iKeys), std::string(1000, 'v')}) != OOM) {
    ++iKeys;
  }
  EXPECT_GT(iKeys, 100);
  EXPECT_EQ(OOM, stClient.Ask({"SET", "a", std::string(100000, 'v')}));
  EXPECT_EQ(OOM, stClient.Ask({"APPEND", "a", std::string(3000, 'v')}));
  EXPECT_EQ(Bulk("old"), stClient.Ask({"GET", "a"}));
  EXPECT_EQ("+OK\r\n", stClient.Ask({"SET", "a", "new"}));
  SendSignal(stServer.Worker(0), SIGKILL);
  WaitUntilItServes(stServer);
  EXPECT_EQ(Bulk("new"), Client(stServer).Ask({"GET", "a"}));
  EXPECT_EQ(static_cast<size_t>(iKeys) + 1, KeyCount(stServer));
}

TEST(KvServerKeysTest, ExpiredKeysGoWithoutBeingAskedFor) {
  ServerProcess stServer(THREE_WORKERS);
  Client stClient(stServer);
  std::string strSets;
  for (int i = 0; i < 3000; ++i) {
    strSets += Request({"SET", "key" + std::to_string(i), "v", "PX", "20"});
  }
  stClient.Send(strSets + Request({"SET", "stays", "v", "EX", "1000"}));
  stClient.Read(3001);
  EXPECT_TRUE(WaitUntil([&] { return KeyCount(stServer) == 1; }));
  EXPECT_NE(std::string::npos, stClient.Ask({"INFO"}).find("db0:keys=1,expires=1,avg_ttl=99"));
}

// One whole scan; fnBetween is called after each step.
std::set<std::string> ScanAll(Client& stClient, const std::function<void(int)>& fnBetween) {
  std::set<std::string> setKeys;
  std::string strCursor = "0";
  int iStep = 0;
  do {
    const std::string strReply = stClient.Ask({"SCAN", strCursor, "COUNT", "5"});
    size_t iAt = strReply.find("\r\n", 5) + 2;
    strCursor = strReply.substr(iAt, strReply.find("\r\n", iAt) - iAt);
    for (size_t i = strReply.find("$", iAt); i != std::string::npos;
         i = strReply.find("$", i + 1)) {
      const size_t iBegin = strReply.find("\r\n", i) + 2;
      setKeys.insert(strReply.substr(iBegin, strReply.find("\r\n", iBegin) - iBegin));
    }
    fnBetween(iStep++);
  } while (strCursor != "0");
  return setKeys;
}

TEST(KvServerKeysTest, ScanOverAllWorkersSeesWhatStaysUnderChanges) {
  ServerProcess stServer(THREE_WORKERS);
  Client stClient(stServer);
  Client stOther(stServer);
  std::set<std::string> setStays;
  for (int i = 0; i < 600; ++i) {
    setStays.insert("stays" + std::to_string(i));
    stClient.Ask({"MSET", "stays" + std::to_string(i), "v", "goes" + std::to_string(i), "v"});
  }
  const std::set<std::string> setSeen = ScanAll(stClient, [&](int iStep) {
    const std::string strStep = std::to_string(iStep);
    stOther.Ask({"DEL", "goes" + strStep});
    stOther.Ask({"MSET", "new" + strStep, "v", "stays" + strStep, std::string(500, 'w')});
    if (iStep == 20) {
      SendSignal(stServer.Worker(1), SIGKILL);
      WaitUntilItServes(stServer);
    }
  });
  for (const std::string& strKey : setStays) {
    EXPECT_EQ(1u, setSeen.count(strKey)) << strKey;
  }
}

TEST(KvServerKeysTest, CursorsThatWereNeverGivenOut) {
  ServerProcess stServer(THREE_WORKERS);
  Client stClient(stServer);
  const std::string strEnd = "*2\r\n$1\r\n0\r\n*0\r\n";
  EXPECT_EQ("-ERR invalid cursor\r\n", stClient.Ask({"SCAN", "x"}));
  EXPECT_EQ(strEnd, stClient.Ask({"SCAN", "63"})) << "there is no such worker";
  EXPECT_EQ(strEnd, stClient.Ask({"SCAN", "18446744073709551554"})) << "nor such a bucket";
}

TEST(KvServerKeysTest, CommandsOverTheKeysOfAllWorkers) {
  ServerProcess stServer(THREE_WORKERS);
  Client stClient(stServer);
  EXPECT_EQ("$-1\r\n", stClient.Ask({"RANDOMKEY"}));
  EXPECT_EQ("*0\r\n", stClient.Ask({"KEYS", "*"}));
  std::set<std::string> setDrawn;
  for (int i = 0; i < 3; ++i) {
    stClient.Ask({"SET", KeyOf(i, 3), "v"});
  }
  for (int i = 0; i < 200; ++i) {
    setDrawn.insert(stClient.Ask({"RANDOMKEY"}));
  }
  EXPECT_EQ((std::set<std::string>{Bulk(KeyOf(0, 3)), Bulk(KeyOf(1, 3)), Bulk(KeyOf(2, 3))}),
            setDrawn);
  EXPECT_EQ("*3\r\n", stClient.Ask({"KEYS", "key:*"}).substr(0, 4));
  EXPECT_EQ(Request({KeyOf(2, 3)}), stClient.Ask({"KEYS", KeyOf(2, 3)}));
  EXPECT_EQ(":2\r\n", stClient.Ask({"UNLINK", KeyOf(0, 3), KeyOf(1, 3), "none"}));
  EXPECT_EQ("+OK\r\n", stClient.Ask({"FLUSHDB"}));
  EXPECT_EQ(":0\r\n", stClient.Ask({"DBSIZE"}));
}

TEST(KvServerKeysTest, AnotherNumberOfWorkersIsRefused) {
  ServerProcess stServer(THREE_WORKERS);
  Client(stServer).Ask({"SET", "a", "1"});
  EXPECT_EQ(0, stServer.Stop());
  const RunResult_t stResult =
      RunServer({"--set", "server.run_dir=" + stServer.Directory(), "--set", "server.workers=2",
                 "--set", "server.listen=127.0.0.1:" + std::to_string(stServer.Port())});
  EXPECT_EQ(2, stResult.iExit);
  EXPECT_EQ("kv_server: server.workers = \"2\": the keys of server.run_dir = \"" +
                stServer.Directory() +
                "\" are spread over 3; start with server.workers=3, and once with --ephemeral too "
                "to give the keys up\n",
            stResult.strError);
  stServer.Start();
  EXPECT_EQ(Bulk("1"), Client(stServer).Ask({"GET", "a"}));
}

TEST(KvServerKeysTest, OtherTableSizesAreToldToHaveNoEffect) {
  ServerProcess stServer(SMALL_TABLE);
  Client(stServer).Ask({"SET", "a", "1"});
  EXPECT_EQ(0, stServer.Stop());
  stServer.Restart({"table.bytes=64M", "table.buckets=100"});
  EXPECT_EQ(Bulk("1"), Client(stServer).Ask({"GET", "a"}));
  EXPECT_TRUE(LogTells(stServer,
                       "table.bytes = \"67108864\" and table.buckets = \"100\" have no effect: the "
                       "tables were made with \"9437184\" and \"16\""));
}

// As a reboot leaves it when somebody else is faster.
TEST(KvServerKeysTest, ASegmentOfSomebodyElseIsRefused) {
  ServerProcess stServer(SMALL_TABLE);
  EXPECT_EQ(0, stServer.Stop());
  const key_t iKey = stServer.TableKeys()[0];
  shmctl(shmget(iKey, 0, 0), IPC_RMID, nullptr);
  const HeapImage stForeign(iKey, 4096);
  const std::string strListen = "server.listen=127.0.0.1:" + std::to_string(stServer.Port());
  const RunResult_t stResult =
      RunServer({"--set", "server.run_dir=" + stServer.Directory(), "--set", strListen});
  char szKey[16];
  snprintf(szKey, sizeof(szKey), "0x%08x", static_cast<unsigned int>(iKey));
  EXPECT_EQ(2, stResult.iExit);
  EXPECT_EQ(std::string("kv_server: the table of worker 0 (segment ") + szKey +
                ") is not ours: it holds no table of this server; remove " + stServer.Directory() +
                "/tables to have another key looked for\n",
            stResult.strError);
  unlink((stServer.Directory() + "/tables").c_str());
  stServer.Start();
  EXPECT_EQ("+OK\r\n", Client(stServer).Ask({"SET", "a", "1"}));
  EXPECT_TRUE(LogTells(stServer, "has somebody else's segment and is passed over"));
  EXPECT_EQ(0u, stForeign.Word(0));
}

TEST(KvServerKeysTest, AWorkerThatFindsItsTableDamagedEndsTheServer) {
  ServerProcess stServer(
      {"server.workers=3", "table.bytes=32M", "table.buckets=64", "timeout.stop=1"});
  EXPECT_EQ(0u, KeyCount(stServer)) << "all workers have taken their tables";
  HeapImage(stServer.TableKeys()[1]).SetWord(56, 8);  // where the blocks end
  SendSignal(stServer.Worker(1), SIGKILL);
  EXPECT_EQ(2, stServer.Wait());
  EXPECT_TRUE(LogTells(stServer, "worker 1: the table of worker 1 (segment "));
  EXPECT_TRUE(LogTells(stServer, ") is damaged: blocks end at offset 8"));
  EXPECT_TRUE(LogTells(stServer, "master: worker 1 refuses its table, the server ends"));
}

TEST(KvServerKeysTest, ATableThatWasRemovedIsMadeAnew) {
  ServerProcess stServer({"server.workers=2"});
  Client(stServer).Ask({"MSET", KeyOf(0, 2), "0", KeyOf(1, 2), "1"});
  EXPECT_EQ(0, stServer.Stop());
  shmctl(shmget(stServer.TableKeys()[0], 0, 0), IPC_RMID, nullptr);
  stServer.Start();
  Client stClient(stServer);
  EXPECT_EQ("$-1\r\n", stClient.Ask({"GET", KeyOf(0, 2)}));
  EXPECT_EQ(Bulk("1"), stClient.Ask({"GET", KeyOf(1, 2)}));
  EXPECT_TRUE(LogTells(stServer, "is gone, and its keys; it is made anew"));
}

TEST(KvServerKeysTest, LargeKeysAndValues) {
  ServerProcess stServer(THREE_WORKERS);
  Client stClient(stServer);
  const std::string strKey(16384, 'k');
  const std::string strValue(1048576, 'v');
  EXPECT_EQ("+OK\r\n", stClient.Ask({"SET", strKey, strValue}));
  EXPECT_EQ("+OK\r\n", stClient.Ask({"SETEX", strKey, "100", strValue}));
  SendSignal(stServer.Worker(0), SIGKILL);
  SendSignal(stServer.Worker(1), SIGKILL);
  SendSignal(stServer.Worker(2), SIGKILL);
  WaitUntilItServes(stServer);
  Client stNext(stServer);
  EXPECT_TRUE(Bulk(strValue) == stNext.Ask({"GET", strKey}));
  EXPECT_EQ("-ERR key contains a zero byte\r\n", stNext.Ask({"SET", std::string("a\0b", 3), "v"}));
}

}  // namespace
