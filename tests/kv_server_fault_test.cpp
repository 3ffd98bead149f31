// Everything that happens to a server in years, under load, with its real processes: nothing that
// was acknowledged is lost, it answers again within two seconds, and nothing leaks. script/soak
// does the same in random order for as long as asked.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/shm.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "full_disk.h"
#include "kv_fault_fixture.h"

namespace {

class KvServerFaultTest : public KvFaultFixture {};

TEST_F(KvServerFaultTest, WorkersAreKilledAtRandomMoments) {
  Start();
  for (int i = 0; i < Rounds(6); ++i) {
    LetLive(i, 3 * WORKERS);
    const std::string strVictim = "worker " + std::to_string(i % WORKERS);
    const pid_t iPid = Child(strVictim);
    m_pLoad->PumpFor(Below(60));
    SendSignal(iPid, SIGKILL);
    m_pLoad->PumpUntil([&] { return Child(strVictim) != iPid; }, QUICK_MS);
    ExpectServedSoon(strVictim);
  }
  ExpectAllIsThere();
}

TEST_F(KvServerFaultTest, TheGatewayIsKilledAtRandomMoments) {
  Start();
  for (int i = 0; i < Rounds(3); ++i) {
    LetLive(i, 3);
    m_pLoad->PumpFor(50 + Below(100));
    const pid_t iPid = Child("gateway");
    SendSignal(iPid, SIGKILL);
    ExpectServedSoon("gateway");
  }
  EXPECT_GT(Errors("connection closed"), 0u);
  ExpectAllIsThere();
}

// The others end by themselves; the keys, the queues and the FIFOs are left, and the next start
// takes the keys over and removes the rest.
TEST_F(KvServerFaultTest, TheMasterIsKilledAtRandomMoments) {
  Start();
  for (int i = 0; i < Rounds(3); ++i) {
    m_pLoad->PumpFor(50 + Below(100));
    const std::vector<pid_t> vecOthers{Child("gateway"), Child("worker 0"), Child("worker 1"),
                                       Child("worker 2")};
    SendSignal(m_pServer->Master(), SIGKILL);
    EXPECT_EQ(1000 + SIGKILL, m_pServer->Wait());
    for (const pid_t iPid : vecOthers) {
      EXPECT_TRUE(m_pLoad->PumpUntil([iPid] { return !IsAlive(iPid); }, QUICK_MS));
    }
    for (const key_t iKey : m_pServer->TableKeys()) {
      EXPECT_NE(-1, shmget(iKey, 0, 0));
    }
    m_pServer->Start();
    ExpectServedSoon("master");
  }
  ExpectAllIsThere();
}

// With a journal not even the tables are needed.
TEST_F(KvServerFaultTest, AllAreKilledAndTheirTablesAreRemoved) {
  Start({"journal.sync=second"});
  for (int i = 0; i < Rounds(2); ++i) {
    m_pLoad->PumpFor(100 + Below(200));
    std::vector<pid_t> vecAll{m_pServer->Master()};
    for (const auto& stChild : ChildrenByTitle(m_pServer->Master())) {
      vecAll.push_back(stChild.second);
    }
    for (const int iSignal : {SIGSTOP, SIGKILL}) {
      for (const pid_t iPid : vecAll) {
        SendSignal(iPid, iSignal);
      }
    }
    EXPECT_EQ(1000 + SIGKILL, m_pServer->Wait());
    for (const key_t iKey : m_pServer->TableKeys()) {
      shmctl(shmget(iKey, 0, 0), IPC_RMID, nullptr);
    }
    m_pServer->Start();
    ExpectServedSoon("all");
  }
  ExpectAllIsThere(false);
}

TEST_F(KvServerFaultTest, ASavingChildIsKilled) {
  Start();
  m_pLoad->Ask({"MSET", "a", std::string(1 << 20, 'a'), "b", std::string(1 << 20, 'b')});
  int iKilled = 0;
  for (int i = 0; i < Rounds(3); ++i) {
    const pid_t iWorker = AnyWorker();
    const std::string strWorker = std::to_string(iWorker);
    pid_t iSaver = -1;
    m_pLoad->Ask({"BGSAVE"});
    m_pLoad->PumpUntil(
        [&] {
          std::istringstream(ReadFile("/proc/" + strWorker + "/task/" + strWorker + "/children")) >>
              iSaver;
          return iSaver > 1;
        },
        300);
    if (iSaver > 1 && IsAlive(iSaver)) {
      SendSignal(iSaver, SIGKILL);
      ++iKilled;
    }
    ExpectServedSoon("saver");
  }
  EXPECT_GT(iKilled, 0);
  ExpectAllIsThere();
}

TEST_F(KvServerFaultTest, AWorkerIsStoppedForSeconds) {
  Start();
  const auto mapBefore = ChildrenByTitle(m_pServer->Master());
  {
    const StoppedProcess stStopped(AnyWorker());
    m_pLoad->PumpFor(1500);
  }
  ExpectServedSoon("SIGCONT");
  EXPECT_EQ(mapBefore, ChildrenByTitle(m_pServer->Master()));
  EXPECT_TRUE(m_pLoad->Stat().mapErrors.empty());
  ExpectAllIsThere();
}

TEST_F(KvServerFaultTest, AWorkersQueueIsFilled) {
  Start({"queue.bytes=1M", "limits.value=200K"}, {8, 60, 16, 50000, 0, 2, 5000});
  const std::string strKey = KeyOf(0, WORKERS);
  auto pFlood = std::make_unique<LoadConnection>(m_pServer->Port());
  auto CountReplies = [&, iCount = 0](int iAll) mutable {
    pFlood->OnEvents(POLLIN | POLLOUT);
    for (; pFlood->TakeReply() == "+OK\r\n"; ++iCount) {
    }
    return iCount == iAll;
  };
  {
    const StoppedProcess stStopped(m_pServer->Worker(0));
    pFlood->Send(Repeat(Request({"SET", strKey, std::string(100000, 'q')}), 50));
    EXPECT_FALSE(m_pLoad->PumpUntil([&] { return CountReplies(1); }, 700));
    Client stOther(*m_pServer);
    EXPECT_EQ(std::string::npos, stOther.Ask({"INFO", "clients"}).find("blocked_clients:0"));
    EXPECT_EQ("+OK\r\n", stOther.Ask({"SET", KeyOf(1, WORKERS), "another worker goes on"}));
  }
  ExpectServedSoon("a full queue");
  EXPECT_TRUE(m_pLoad->PumpUntil([&] { return CountReplies(50); }, 10000));
  pFlood.reset();
  EXPECT_TRUE(m_pLoad->Stat().mapErrors.empty());
  ExpectAllIsThere();
}

// What is refused changes nothing, and what was there stays; a death of the worker is no exception.
TEST_F(KvServerFaultTest, ATableIsFilled) {
  Start({"table.bytes=9M", "table.buckets=16", "limits.value=200K"}, {8, 60, 16, 5000, 0, 3, 5000});
  const std::string strFull = "-OOM";
  Client stFiller(*m_pServer);
  int iFull = 0;
  for (int i = 0; iFull < 20; ++i) {
    const auto iSize = static_cast<size_t>(i % 2 == 0 ? 20000 : 100);
    iFull += stFiller.Ask({"SET", "fill" + std::to_string(i), std::string(iSize, 'f')})
                 .rfind(strFull, 0) == 0;
    m_pLoad->PumpFor(0);
  }
  m_pLoad->PumpFor(500);
  EXPECT_GT(Errors("OOM "), 0u);
  SendSignal(AnyWorker(), SIGKILL);
  ExpectServedSoon("a full table");
  m_pLoad->Verify();
  EXPECT_EQ("+OK\r\n", Client(*m_pServer).Ask({"FLUSHALL"}));
  EXPECT_EQ(":0\r\n", Client(*m_pServer).Ask({"DBSIZE"}).substr(0, 4));
}

// A disk of its own, below one of the server's directories.
class KvServerFullDiskTest : public KvFaultFixture {
 protected:
  void SetUp() override {
    if (!SmallDisk::WhyNot().empty()) {
      GTEST_SKIP() << SmallDisk::WhyNot();
    }
  }
  bool JournalIsWhole() {
    return m_pLoad->PumpUntil(
        [this] {
          const std::string strInfo = m_pLoad->Ask({"INFO", "persistence"});
          return strInfo.find("aof_last_write_status:ok") != std::string::npos &&
                 strInfo.find("journal_whole:1") != std::string::npos;
        },
        20000);
  }

  const PrivateDirectory m_stDirectory;
};

TEST_F(KvServerFullDiskTest, OfTheJournalRefusesWritesAndServesReadsUntilThereIsRoom) {
  const SmallDisk stDisk(m_stDirectory.Path(), 256 << 20);
  Start({"journal.sync=second", "save.path=" + m_stDirectory.Path()});
  Client stClient(*m_pServer);
  for (int i = 0; i < WORKERS; ++i) {
    EXPECT_EQ("+OK\r\n", stClient.Ask({"SET", KeyOf(i, WORKERS), "before"}));
  }
  stDisk.Fill();
  m_pLoad->PumpFor(700);
  EXPECT_GT(Errors("MISCONF "), 0u);
  EXPECT_EQ(Bulk("before"), stClient.Ask({"GET", KeyOf(1, WORKERS)}));
  stDisk.Free();
  ExpectServedSoon("a full disk");
  m_pLoad->Ask({"BGSAVE"});
  EXPECT_TRUE(JournalIsWhole());
  EXPECT_EQ("+OK\r\n", stClient.Ask({"SET", KeyOf(1, WORKERS), "after"}));
  stClient.CloseSending();
  ExpectAllIsThere(false);
}

TEST_F(KvServerFullDiskTest, OfTheDumpsFailsTheSaveAndKeepsTheFormerDump) {
  const SmallDisk stDisk(m_stDirectory.Path(), 64 << 20);
  Start({"save.path=" + m_stDirectory.Path()});
  m_pLoad->Ask({"BGSAVE"});
  EXPECT_TRUE(m_pLoad->PumpUntil(
      [&] { return access((m_stDirectory.Path() + "/dump-2.kv").c_str(), F_OK) == 0; }, 10000));
  IdleCounts();
  m_pLoad->Resume();
  const std::string strDump = ReadFile(m_stDirectory.File("dump-0.kv"));
  stDisk.Fill();
  m_pLoad->Ask({"BGSAVE"});
  EXPECT_TRUE(m_pLoad->PumpUntil(
      [&] {
        const std::string strInfo = m_pLoad->Ask({"INFO", "persistence"});
        return strInfo.find("rdb_last_bgsave_status:err") != std::string::npos &&
               strInfo.find("rdb_bgsave_in_progress:0") != std::string::npos;
      },
      10000));
  EXPECT_TRUE(strDump == ReadFile(m_stDirectory.File("dump-0.kv")));
  EXPECT_NE(0, access(m_stDirectory.File("dump-0.kv.new").c_str(), F_OK));
  stDisk.Free();
  m_pLoad->Ask({"BGSAVE"});
  IdleCounts();
  EXPECT_NE(std::string::npos,
            m_pLoad->Ask({"INFO", "persistence"}).find("rdb_last_bgsave_status:ok"));
  m_pLoad->Resume();
  ExpectAllIsThere();
}

// What can not be written is dropped; the server goes on, and its log too when there is room again.
TEST_F(KvServerFullDiskTest, OfTheLogHindersNobody) {
  std::filesystem::create_directory(m_stDirectory.File("log"));
  const SmallDisk stDisk(m_stDirectory.File("log"), 4 << 20);
  Start();
  // In place of the directory that is in use: the log is looked for by its name.
  const std::string strLog = m_pServer->Directory() + "/log";
  ASSERT_EQ(0, rename(strLog.c_str(), (strLog + ".old").c_str()));
  ASSERT_EQ(0, symlink(m_stDirectory.File("log").c_str(), strLog.c_str()));
  stDisk.Fill();
  m_pLoad->PumpFor(300);
  SendSignal(Child("worker 1"), SIGKILL);
  ExpectServedSoon("worker 1 without a log");
  SendSignal(Child("gateway"), SIGKILL);
  ExpectServedSoon("the gateway without a log");
  EXPECT_EQ(std::string::npos, m_pServer->Log().find("started"));
  stDisk.Free();
  SendSignal(Child("worker 2"), SIGKILL);
  ExpectServedSoon("worker 2");
  EXPECT_TRUE(m_pLoad->PumpUntil(
      [this] { return m_pServer->Log().find("worker 2 started") != std::string::npos; }, 5000));
  m_pLoad->Verify();
}

}  // namespace
