// The journal of the whole server: real processes, real files, real deaths. That a machine dies can
// not be tried here; what then is on the disk is known by the syncs that INFO counts.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <random>

#include "journal_file.h"
#include "kv_server_fixture.h"
#include "test_support.h"

namespace {

const char LOST[] = "-ERR worker restarted, the command may or may not have run\r\n";

class KvServerJournalTest : public testing::Test {
 protected:
  static std::string InfoLine(Client& stClient, const std::string& strName) {
    const std::string strText = stClient.Ask({"INFO", "persistence"});
    const size_t iFound = strText.find("\r\n" + strName + ":");
    const size_t iBegin = iFound + strName.size() + 3;
    return iFound == std::string::npos
               ? "(none)"
               : strText.substr(iBegin, strText.find('\r', iBegin) - iBegin);
  }
  static int Syncs(Client& stClient) { return atoi(InfoLine(stClient, "journal_syncs").c_str()); }
  static bool BecomesWhole(Client& stClient) {
    return WaitUntil([&] { return InfoLine(stClient, "journal_whole") == "1"; }, 20000);
  }
  static bool LogTells(const ServerProcess& stServer, const std::string& strText) {
    return WaitUntil([&] { return stServer.Log().find(strText) != std::string::npos; });
  }
  static std::vector<uint64_t> Files(const ServerProcess& stServer, uint32_t iWorker = 0) {
    return JournalGenerations(stServer.Directory(), iWorker);
  }
  static std::string Path(const ServerProcess& stServer, uint64_t iGeneration) {
    return JournalPath(stServer.Directory(), 0, iGeneration);
  }

  // Kills all processes at one moment, so that none hears of another's end.
  static void SignalAll(const ServerProcess& stServer, int iWorkers) {
    std::vector<pid_t> vecPids{stServer.Master(), stServer.Gateway()};
    for (int i = 0; i < iWorkers; ++i) {
      vecPids.push_back(stServer.Worker(i));
    }
    for (const int iSignal : {SIGSTOP, SIGKILL}) {
      for (const pid_t iPid : vecPids) {
        SendSignal(iPid, iSignal);
      }
    }
  }
  static void KillAll(ServerProcess& stServer, int iWorkers) {
    SignalAll(stServer, iWorkers);
    EXPECT_EQ(1000 + SIGKILL, stServer.Wait());
  }
  static void RemoveTables(const ServerProcess& stServer) {
    for (const key_t iKey : stServer.TableKeys()) {
      shmctl(shmget(iKey, 0, 0), IPC_RMID, nullptr);
    }
  }
  // What is in no file is gone.
  static void KillAllAndBoot(ServerProcess& stServer, int iWorkers) {
    KillAll(stServer, iWorkers);
    RemoveTables(stServer);
    stServer.Start();
  }
};

class KvServerJournalPolicyTest : public KvServerJournalTest,
                                  public testing::WithParamInterface<const char*> {
 protected:
  std::string Sync() const { return std::string("journal.sync=") + GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Policies, KvServerJournalPolicyTest, testing::Values("second", "batch"),
                         [](const auto& stInfo) { return std::string(stInfo.param); });

TEST_P(KvServerJournalPolicyTest, WhenAllProcessesDieAndTheTablesGoNoAcknowledgedChangeIsLost) {
  ServerProcess stServer({Sync(), "server.workers=2"});
  {
    Client stClient(stServer);
    for (int i = 0; i < 50; ++i) {
      stClient.Ask({"SET", "key" + std::to_string(i), "value" + std::to_string(i)});
    }
    stClient.Ask({"MSET", KeyOf(0, 2), "0", KeyOf(1, 2), "1"});
    stClient.Ask({"SET", "mortal", "v", "EX", "1000"});
    stClient.Ask({"APPEND", "key7", " and more"});
    stClient.Ask({"INCRBY", "number", "41"});
    stClient.Ask({"INCR", "number"});
    stClient.Ask({"GETDEL", "key8"});
    stClient.Ask({"DEL", "key9", "key10"});
    EXPECT_EQ(":1\r\n", stClient.Ask({"EXPIRE", "key11", "500"}));
  }
  KillAllAndBoot(stServer, 2);
  Client stClient(stServer);
  EXPECT_EQ(":51\r\n", stClient.Ask({"DBSIZE"}));
  EXPECT_EQ(Bulk("value42"), stClient.Ask({"GET", "key42"}));
  EXPECT_EQ(Bulk("value7 and more"), stClient.Ask({"GET", "key7"}));
  EXPECT_EQ(Bulk("42"), stClient.Ask({"GET", "number"}));
  EXPECT_GT(atoi(stClient.Ask({"TTL", "mortal"}).c_str() + 1), 900);
  EXPECT_GT(atoi(stClient.Ask({"TTL", "key11"}).c_str() + 1), 400);
  EXPECT_TRUE(LogTells(stServer, " changes come from "));
}

TEST_P(KvServerJournalPolicyTest, FlushAllComesBackAsOneRecord) {
  ServerProcess stServer({Sync()});
  {
    Client stClient(stServer);
    stClient.Ask({"MSET", "a", "1", "b", "2", "c", "3"});
    const int iBefore = atoi(InfoLine(stClient, "aof_current_size").c_str());
    EXPECT_EQ("+OK\r\n", stClient.Ask({"FLUSHALL"}));
    const int iAfter = atoi(InfoLine(stClient, "aof_current_size").c_str());
    EXPECT_EQ(static_cast<int>(sizeof(JournalRecord_t)), iAfter - iBefore);
    stClient.Ask({"SET", "d", "4"});
  }
  KillAllAndBoot(stServer, 1);
  EXPECT_EQ("*1\r\n" + Bulk("d"), Client(stServer).Ask({"KEYS", "*"}));
}

// Keys that expired by themselves are not there again, nor as long as the clock goes back.
TEST_P(KvServerJournalPolicyTest, KeysWhoseTimeWasOverStayAway) {
  ServerProcess stServer({Sync()});
  {
    Client stClient(stServer);
    stClient.Ask({"SET", "a", "1", "PX", "20"});
    EXPECT_TRUE(WaitUntil([&] { return stClient.Ask({"DBSIZE"}) == ":0\r\n"; }));
  }
  KillAllAndBoot(stServer, 1);
  EXPECT_EQ(":0\r\n", Client(stServer).Ask({"DBSIZE"}));
}

// Clients write versions of some keys, one pipeline after the other. What they know to be written
// must be there, and what is there must be that or a version under way.
class VersionModel {
 public:
  static const int KEYS = 8;

  // Writes for that time, or until the server goes. The versions under way are remembered as such.
  void Write(Client& stClient, int iMilliseconds) {
    const auto stEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(iMilliseconds);
    while (std::chrono::steady_clock::now() < stEnd) {
      std::string strRequests;
      for (int iKey = 0; iKey < KEYS; ++iKey) {
        m_aiSent[iKey] = ++m_iVersion;
        strRequests += Request({"SET", Key(iKey), Text(m_iVersion)});
      }
      stClient.Send(strRequests);
      for (int iKey = 0; iKey < KEYS; ++iKey) {
        const std::string strReply = stClient.Read();
        if (strReply.empty()) {
          return;
        }
        if (strReply == "+OK\r\n") {
          m_aiKnown[iKey] = m_aiSent[iKey];
        } else {
          EXPECT_EQ(LOST, strReply);
        }
      }
    }
  }

  void Check(Client& stClient) {
    for (int iKey = 0; iKey < KEYS; ++iKey) {
      const std::string strValue = stClient.Ask({"GET", Key(iKey)});
      const int iFound = strValue == "$-1\r\n" ? 0 : atoi(strValue.c_str() + strValue.find('\n'));
      EXPECT_GE(iFound, m_aiKnown[iKey]) << Key(iKey);
      EXPECT_LE(iFound, m_aiSent[iKey]) << Key(iKey);
      m_aiKnown[iKey] = iFound;  // who has read it relies on it
    }
  }

  int Known(int iKey) const { return m_aiKnown[iKey]; }

 private:
  static std::string Key(int iKey) { return "key" + std::to_string(iKey); }
  static std::string Text(int iVersion) {
    return std::to_string(iVersion) + std::string(static_cast<size_t>(iVersion % 2000), '.');
  }

  int m_iVersion = 0;
  int m_aiSent[KEYS] = {};
  int m_aiKnown[KEYS] = {};
};

// Saves, rotations, deaths of a worker with and without all others and the tables.
TEST_P(KvServerJournalPolicyTest, SavesAndDeathsAtAnyMomentLoseNothingAcknowledged) {
  ServerProcess stServer({Sync(), "server.workers=2"});
  VersionModel stModel;
  std::minstd_rand stRandom(20 + static_cast<unsigned int>(GetParam()[0]));
  for (int iRound = 0; iRound < 12; ++iRound) {
    Client stClient(stServer);
    ForkedPeer stSaver([&] {
      Client stOwn(stServer);
      while (!stOwn.Ask({"BGSAVE"}).empty()) {
      }
      return 0;
    });
    const auto iMicroseconds = static_cast<useconds_t>(stRandom() % 150000);
    const bool bAll = iRound % 2 == 1;
    const pid_t iVictim = stServer.Worker(iRound / 2 % 2);
    ForkedPeer stKiller([&] {
      usleep(iMicroseconds);
      bAll ? SignalAll(stServer, 2) : SendSignal(iVictim, SIGKILL);
      return 0;
    });
    stModel.Write(stClient, bAll ? 60000 : 300);
    EXPECT_EQ(0, stKiller.Wait());
    stSaver.Kill(SIGKILL);
    stSaver.Wait();
    if (bAll) {
      EXPECT_EQ(1000 + SIGKILL, stServer.Wait());
      RemoveTables(stServer);
      stServer.Start();
    }
    Client stAgain(stServer);
    stModel.Check(stAgain);
  }
  EXPECT_GT(stModel.Known(0), 0);
}

// The table may have what the journal lacks; a save puts that right, so that what clients have
// read is there after a boot.
TEST_P(KvServerJournalPolicyTest, AfterAWorkersDeathTheJournalBecomesWholeByItself) {
  ServerProcess stServer({Sync()});
  VersionModel stModel;
  for (int i = 0; i < 4; ++i) {
    Client stClient(stServer);
    const pid_t iVictim = stServer.Worker(0);
    ForkedPeer stKiller([&] {
      usleep(static_cast<useconds_t>(20000 + i * 7000));
      SendSignal(iVictim, SIGKILL);
      return 0;
    });
    stModel.Write(stClient, 300);
    EXPECT_EQ(0, stKiller.Wait());
    stModel.Check(stClient);
  }
  {
    Client stClient(stServer);
    EXPECT_TRUE(BecomesWhole(stClient));
  }
  KillAllAndBoot(stServer, 1);
  Client stClient(stServer);
  stModel.Check(stClient);
}

// The record of the value has the old time, over when it is read again; a later one gives it more.
TEST_P(KvServerJournalPolicyTest, KeysWhoseTimeWasProlongedComeBackAfterTheOldTime) {
  ServerProcess stServer({Sync()});
  {
    Client stClient(stServer);
    stClient.Ask({"SET", "dumped", "1", "PX", "1000"});
    stClient.Ask({"BGSAVE"});
    ASSERT_TRUE(WaitUntil([&] { return InfoLine(stClient, "rdb_bgsave_in_progress") == "0"; }));
    stClient.Ask({"SET", "kept", "2", "PX", "1000"});
    stClient.Ask({"SET", "over", "3", "PX", "1000"});
    ASSERT_EQ(":1\r\n", stClient.Ask({"PERSIST", "dumped"}));
    ASSERT_EQ(":1\r\n", stClient.Ask({"EXPIRE", "kept", "1000"}));
  }
  KillAll(stServer, 1);
  RemoveTables(stServer);
  usleep(1100000);  // until the old time is over
  stServer.Start();
  Client stClient(stServer);
  EXPECT_EQ(Bulk("1"), stClient.Ask({"GET", "dumped"}));
  EXPECT_EQ(Bulk("2"), stClient.Ask({"GET", "kept"}));
  EXPECT_EQ("$-1\r\n", stClient.Ask({"GET", "over"}));
}

TEST_F(KvServerJournalTest, ThereIsNoneByDefault) {
  ServerProcess stServer;
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  EXPECT_EQ("0", InfoLine(stClient, "aof_enabled"));
  EXPECT_EQ("ok", InfoLine(stClient, "aof_last_write_status"));
  EXPECT_EQ("(none)", InfoLine(stClient, "aof_current_size"));
  EXPECT_TRUE(Files(stServer).empty());
}

TEST_F(KvServerJournalTest, WithBatchEveryAnsweredChangeIsOnTheDisk) {
  ServerProcess stServer({"journal.sync=batch"});
  Client stClient(stServer);
  EXPECT_EQ("1", InfoLine(stClient, "aof_enabled"));
  for (int i = 1; i <= 10; ++i) {
    EXPECT_EQ("+OK\r\n", stClient.Ask({"SET", "a", std::to_string(i)}));
    EXPECT_EQ("0", InfoLine(stClient, "aof_pending_bio_fsync"));
    EXPECT_EQ(i, Syncs(stClient));
    stClient.Ask({"GET", "a"});
  }
}

TEST_F(KvServerJournalTest, WithBatchOneSyncServesAWholeTurn) {
  ServerProcess stServer({"journal.sync=batch"});
  Client stClient(stServer);
  stClient.Send(Repeat(Request({"SET", "a", "1"}), 1000));
  EXPECT_EQ(Repeat("+OK\r\n", 1000), stClient.Read(1000));
  EXPECT_GE(Syncs(stClient), 1);
  EXPECT_LT(Syncs(stClient), 200);
}

TEST_F(KvServerJournalTest, WithSecondChangesAreOnTheDiskSoonAlsoWhenNoneFollows) {
  ServerProcess stServer({"journal.sync=second"});
  Client stClient(stServer);
  for (int i = 0; i < 200; ++i) {
    stClient.Ask({"SET", "a", "1"});
  }
  const int iSyncs = Syncs(stClient);
  stClient.Ask({"SET", "a", "2"});
  EXPECT_TRUE(WaitUntil([&] { return InfoLine(stClient, "aof_pending_bio_fsync") == "0"; }, 2500));
  EXPECT_GT(Syncs(stClient), iSyncs);
  EXPECT_LT(Syncs(stClient), 20);
}

// While nobody wakes the worker: only its own clock does.
TEST_F(KvServerJournalTest, WithSecondAnIdleWorkerSyncsToo) {
  ServerProcess stServer({"journal.sync=second"});
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  EXPECT_TRUE(WaitUntil([&] { return Syncs(stClient) == 1; }));
  stClient.Ask({"SET", "a", "2"});
  usleep(1800000);
  EXPECT_EQ("0", InfoLine(stClient, "aof_pending_bio_fsync"));
  EXPECT_EQ(2, Syncs(stClient));
}

TEST_F(KvServerJournalTest, AStoppedServerGoesOnWithoutASave) {
  ServerProcess stServer({"journal.sync=second"});
  EXPECT_EQ("+OK\r\n", Client(stServer).Ask({"SET", "a", "1"}));
  EXPECT_EQ(0, stServer.Stop());
  stServer.Start();
  Client stClient(stServer);
  EXPECT_EQ("1", InfoLine(stClient, "journal_whole"));
  EXPECT_EQ(std::string::npos, stServer.Log().find("a save starts"));
  EXPECT_EQ((std::vector<uint64_t>{1, 2}), Files(stServer));
}

TEST_F(KvServerJournalTest, ASaveRemovesWhatItMakesNeedless) {
  ServerProcess stServer({"journal.sync=second", "server.workers=2"});
  {
    Client stClient(stServer);
    stClient.Ask({"MSET", KeyOf(0, 2), "0", KeyOf(1, 2), "1"});
    stClient.Ask({"BGSAVE"});
    EXPECT_TRUE(WaitUntil([&] {
      return Files(stServer) == std::vector<uint64_t>{2} &&
             Files(stServer, 1) == std::vector<uint64_t>{2};
    }));
    stClient.Ask({"SET", KeyOf(0, 2), "late"});
  }
  KillAllAndBoot(stServer, 2);
  EXPECT_EQ(Bulk("late"), Client(stServer).Ask({"GET", KeyOf(0, 2)}));
  EXPECT_EQ(Bulk("1"), Client(stServer).Ask({"GET", KeyOf(1, 2)}));
}

TEST_F(KvServerJournalTest, ATornRecordIsCutOffAndToldInTheLog) {
  ServerProcess stServer({"journal.sync=batch"});
  {
    Client stClient(stServer);
    stClient.Ask({"SET", "a", "1"});
    stClient.Ask({"SET", "b", "torn"});
  }
  KillAll(stServer, 1);
  RemoveTables(stServer);
  const std::string strFile = Path(stServer, 1);
  ASSERT_EQ(0, truncate(strFile.c_str(), static_cast<off_t>(ReadFile(strFile).size() - 1)));
  stServer.Start();
  EXPECT_TRUE(LogTells(stServer, strFile + ": a torn last record of 28 bytes is cut off"));
  EXPECT_EQ("*1\r\n" + Bulk("a"), Client(stServer).Ask({"KEYS", "*"}));
}

// A server with a journal that is stopped, its tables gone, and a start that must end.
class KvServerJournalRefusedTest : public KvServerJournalTest {
 protected:
  KvServerJournalRefusedTest() {
    {
      Client stClient(m_stServer);
      stClient.Ask({"SET", "a", "1"});
      stClient.Ask({"SET", "b", "2"});
    }
    KillAll(m_stServer, 1);
    RemoveTables(m_stServer);
  }
  std::string StartError() {
    const RunResult_t stResult = RunServer(
        {"--set", "server.run_dir=" + m_stServer.Directory(), "--set", "journal.sync=batch",
         "--set", "server.listen=127.0.0.1:" + std::to_string(m_stServer.Port())});
    EXPECT_EQ(2, stResult.iExit);
    RemoveTables(m_stServer);
    return stResult.strError;
  }
  ServerProcess m_stServer{ServerProcess::Settings_t{"journal.sync=batch"}};
};

TEST_F(KvServerJournalRefusedTest, ADamagedJournalEndsTheStart) {
  const std::string strFile = Path(m_stServer, 1);
  const std::string strGood = ReadFile(strFile);
  std::string strBad = strGood;
  strBad[30] = static_cast<char>(~strBad[30]);
  WriteFile(strFile, strBad);
  EXPECT_EQ("kv_server: " + strFile +
                ": a record is damaged, at byte 24; move it away to go on without its keys\n",
            StartError());
  WriteFile(strFile, strGood);
  m_stServer.Start();
  EXPECT_EQ(":2\r\n", Client(m_stServer).Ask({"DBSIZE"}));
}

TEST_F(KvServerJournalRefusedTest, AnotherGenerationsFileEndsTheStart) {
  WriteFile(Path(m_stServer, 2), ReadFile(Path(m_stServer, 1)));
  EXPECT_EQ(0u, StartError().find("kv_server: " + Path(m_stServer, 2) +
                                  ": it is no journal of worker 0 of 1, generation 2;"));
}

TEST_F(KvServerJournalRefusedTest, AFileThatIsMissingEndsTheStart) {
  ASSERT_EQ(0, rename(Path(m_stServer, 1).c_str(), Path(m_stServer, 3).c_str()));
  EXPECT_EQ(0u, StartError().find("kv_server: " + Path(m_stServer, 3) +
                                  ": what goes before it is missing;"));
}

// The large value came first, and the small ones got what was left. From a dump the small ones come
// first, ten blocks at a time, and leave less than the large one needs.
TEST_F(KvServerJournalTest, KeysThatDoNotFitInAnotherOrderGetALargerTable) {
  ServerProcess stServer({"journal.sync=second", "table.bytes=9M", "table.buckets=16"});
  {
    Client stClient(stServer);
    ASSERT_EQ("+OK\r\n", stClient.Ask({"SET", "large", std::string(600000, 'l')}));
    for (int i = 0; i < 6; ++i) {
      ASSERT_EQ("+OK\r\n", stClient.Ask({"SET", std::to_string(i), std::string(50000, 's')}));
    }
    ASSERT_EQ("", stClient.Ask({"SHUTDOWN", "SAVE"}));
  }
  EXPECT_EQ(0, stServer.Wait());
  RemoveTables(stServer);
  stServer.Start();
  Client stClient(stServer);
  EXPECT_EQ(":7\r\n", stClient.Ask({"DBSIZE"}));
  EXPECT_EQ(Bulk(std::string(600000, 'l')), stClient.Ask({"GET", "large"}));
  EXPECT_TRUE(LogTells(stServer, "is made anew with 18874368 bytes, since its keys did not fit"));
  KillAll(stServer, 1);
  stServer.Start();
  EXPECT_EQ(":7\r\n", Client(stServer).Ask({"DBSIZE"}));
}

// A half-filled table is filled again from the start by the next worker.
TEST_F(KvServerJournalTest, AWorkerKilledWhileItReplaysReplaysAgain) {
  ServerProcess stServer({"journal.sync=second", "table.bytes=128M"});
  {
    Client stClient(stServer);
    for (int i = 0; i < 200; ++i) {
      std::string strRequests;
      for (int iKey = 0; iKey < 500; ++iKey) {
        strRequests += Request({"SET", std::to_string(i * 500 + iKey), std::string(300, 'v')});
      }
      stClient.Send(strRequests);
      stClient.Read(500);
    }
    stClient.Ask({"DEL", "7"});
  }
  for (int i = 0; i < 3; ++i) {
    KillAll(stServer, 1);
    RemoveTables(stServer);
    const std::string strBefore = stServer.Log();
    ForkedPeer stKiller([&] {
      WaitUntil([&] {
        return stServer.Log().find("worker 0 started", strBefore.size()) != std::string::npos;
      });
      usleep(static_cast<useconds_t>(5000 + i * 12000));
      SendSignal(stServer.Worker(0), SIGKILL);
      return 0;
    });
    stServer.Start();
    EXPECT_EQ(0, stKiller.Wait());
    EXPECT_EQ(":99999\r\n", Client(stServer).Ask({"DBSIZE"}));
  }
}

// The limit on the size of a file stands for a full disk; the log and the queues stay below it.
TEST_F(KvServerJournalTest, WithAFullDiskReadsAreServedAndWritesAreRefused) {
  signal(SIGXFSZ, SIG_IGN);
  ServerProcess stServer({"journal.sync=second"});
  const auto Limit = [&](rlim_t iBytes) {
    for (const pid_t iPid : {stServer.Master(), stServer.Worker(0)}) {
      const rlimit stLimit{iBytes, RLIM_INFINITY};
      EXPECT_EQ(0, prlimit(iPid, RLIMIT_FSIZE, &stLimit, nullptr));
    }
  };
  {
    Client stClient(stServer);
    stClient.Ask({"SET", "a", "1"});
    const pid_t iWorker = stServer.Worker(0);
    Limit(1500000);
    stClient.Ask({"SET", "large", std::string(1000000, 'v')});
    EXPECT_EQ(LOST, stClient.Ask({"SET", "larger", std::string(1000000, 'v')}));
    EXPECT_NE(iWorker, stServer.Worker(0));
    EXPECT_EQ("-MISCONF Errors writing to the AOF file: an earlier worker could not write it\r\n",
              stClient.Ask({"SET", "b", "2"}));
    EXPECT_EQ("-MISCONF", stClient.Ask({"DEL", "a", "b"}).substr(0, 8));
    EXPECT_EQ(Bulk("1"), stClient.Ask({"GET", "a"}));
    EXPECT_EQ("err", InfoLine(stClient, "aof_last_write_status"));
    EXPECT_TRUE(LogTells(stServer, "journal-0.1.kv: File too large; writes are refused"));
    Limit(RLIM_INFINITY);
    EXPECT_TRUE(BecomesWhole(stClient));  // by the save that is tried every five seconds
    EXPECT_EQ("ok", InfoLine(stClient, "aof_last_write_status"));
    EXPECT_EQ("+OK\r\n", stClient.Ask({"SET", "b", "2"}));
  }
  KillAllAndBoot(stServer, 1);
  Client stClient(stServer);
  EXPECT_EQ(Bulk("1"), stClient.Ask({"GET", "a"}));
  EXPECT_EQ(Bulk("2"), stClient.Ask({"GET", "b"}));
}

TEST_F(KvServerJournalTest, AWrongPolicyIsSaid) {
  const RunResult_t stResult = RunServer({"--set", "journal.sync=often", "--check"});
  EXPECT_EQ(2, stResult.iExit);
  EXPECT_NE(std::string::npos,
            stResult.strError.find("journal.sync = \"often\": must be no, second or batch"))
      << stResult.strError;
}

}  // namespace
