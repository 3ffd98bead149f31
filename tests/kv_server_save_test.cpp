// Saves of the whole server: real processes, real files, real deaths.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "kv_server_fixture.h"
#include "test_support.h"

namespace {

const char STARTED[] = "+Background saving started\r\n";
const char BUSY[] = "-ERR Background save already in progress\r\n";

class KvServerSaveTest : public testing::Test {
 protected:
  // The operators' file with these rules.
  std::string Rules(const std::string& strText) {
    std::ofstream(m_stDirectory.Path() + "/kv.ini") << strText;
    return "server.ini=" + m_stDirectory.Path() + "/kv.ini";
  }
  // As booting the machine does.
  static void RemoveTables(const ServerProcess& stServer) {
    for (const key_t iKey : stServer.TableKeys()) {
      shmctl(shmget(iKey, 0, 0), IPC_RMID, nullptr);
    }
  }
  static std::string Dump(const ServerProcess& stServer, int iWorker = 0) {
    return stServer.Directory() + "/dump-" + std::to_string(iWorker) + ".kv";
  }
  static bool Exists(const std::string& strPath) { return access(strPath.c_str(), F_OK) == 0; }
  static bool LogTells(const ServerProcess& stServer, const std::string& strText) {
    return WaitUntil([&] { return stServer.Log().find(strText) != std::string::npos; });
  }
  static bool SaveEnds(Client& stClient) {
    return WaitUntil([&] { return InfoLine(stClient, "rdb_bgsave_in_progress") == "0"; });
  }
  // Stops the server, as it was told to, and starts it without its tables.
  static void Boot(ServerProcess& stServer) {
    EXPECT_EQ(0, stServer.Stop());
    RemoveTables(stServer);
    stServer.Start();
  }
  // The child of a process; waits for it.
  static pid_t ChildOf(pid_t iParent) {
    const std::string strPid = std::to_string(iParent);
    pid_t iChild = -1;
    WaitUntil([&] {
      std::istringstream(ReadFile("/proc/" + strPid + "/task/" + strPid + "/children")) >> iChild;
      return iChild > 0;
    });
    return iChild;
  }

  PrivateDirectory m_stDirectory;
};

// A dump's file that nobody can finish: its writer waits for a reader of the FIFO. The worker
// removes such a file when it starts, so it must have answered before.
class StuckDump {
 public:
  StuckDump(Client& stClient, const std::string& strDump) : m_strPath(strDump + ".new") {
    stClient.Ask({"DBSIZE"});
    EXPECT_EQ(0, mkfifo(m_strPath.c_str(), 0600));
  }
  ~StuckDump() { unlink(m_strPath.c_str()); }

 private:
  const std::string m_strPath;
};

TEST_F(KvServerSaveTest, ASaveBringsTheKeysBackWhenTheTablesAreGone) {
  ServerProcess stServer({"server.workers=2"});
  Client stClient(stServer);
  for (int i = 0; i < 100; ++i) {
    stClient.Ask({"SET", "key" + std::to_string(i), "value" + std::to_string(i)});
  }
  stClient.Ask({"SET", "mortal", "v", "EX", "1000"});
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(SaveEnds(stClient));
  stClient.Ask({"SET", "late", "not saved"});
  Boot(stServer);
  Client stAgain(stServer);
  EXPECT_EQ(":101\r\n", stAgain.Ask({"DBSIZE"}));
  EXPECT_EQ(Bulk("value42"), stAgain.Ask({"GET", "key42"}));
  EXPECT_EQ("$-1\r\n", stAgain.Ask({"GET", "late"}));
  EXPECT_GT(atoi(stAgain.Ask({"TTL", "mortal"}).c_str() + 1), 900);
  EXPECT_TRUE(LogTells(stServer, "the table is new; "));
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_EQ("", stServer.Remains());
}

TEST_F(KvServerSaveTest, TablesThatAreThereStandAboveTheDump) {
  ServerProcess stServer;
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "saved"});
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(SaveEnds(stClient));
  stClient.Ask({"SET", "a", "newer"});
  EXPECT_EQ(0, stServer.Stop());
  stServer.Start();
  EXPECT_EQ(Bulk("newer"), Client(stServer).Ask({"GET", "a"}));
}

TEST_F(KvServerSaveTest, LastSaveAndInfoTellOfSaves) {
  ServerProcess stServer({"server.workers=2"});
  Client stClient(stServer);
  const int iBefore = atoi(stClient.Ask({"LASTSAVE"}).c_str() + 1);
  EXPECT_NEAR(static_cast<double>(time(nullptr)), iBefore, 100);
  stClient.Ask({"MSET", KeyOf(0, 2), "1", KeyOf(1, 2), "1"});
  EXPECT_EQ("2", InfoLine(stClient, "rdb_changes_since_last_save"));
  EXPECT_EQ("ok", InfoLine(stClient, "rdb_last_bgsave_status"));
  EXPECT_TRUE(WaitUntil([&] { return time(nullptr) > iBefore; }));
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE", "SCHEDULE"}));
  EXPECT_TRUE(SaveEnds(stClient));
  EXPECT_EQ("0", InfoLine(stClient, "rdb_changes_since_last_save"));
  EXPECT_GT(atoi(stClient.Ask({"LASTSAVE"}).c_str() + 1), iBefore);
  EXPECT_EQ("-ERR syntax error\r\n", stClient.Ask({"BGSAVE", "now"}));
}

// MSET of one worker's keys is atomic there, and so is what the dump has of them.
TEST_F(KvServerSaveTest, ADumpIsOfOneMoment) {
  ServerProcess stServer({"server.workers=1"});
  Client stClient(stServer);
  for (int iSave = 0; iSave < 5; ++iSave) {
    for (int i = 0; i < 300; ++i) {
      const std::string strNumber = std::to_string(iSave * 1000 + i);
      stClient.Ask(
          {"MSET", "a", strNumber, "filler" + strNumber, std::string(2000, 'f'), "z", strNumber});
      if (i == 100) {
        EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
      }
    }
    EXPECT_TRUE(SaveEnds(stClient));
  }
  Boot(stServer);
  Client stAgain(stServer);
  const std::string strValue = stAgain.Ask({"GET", "a"});
  EXPECT_EQ(strValue, stAgain.Ask({"GET", "z"}));
  EXPECT_EQ(Bulk("4100"), strValue);
}

// More keys than child and socket hold, so that a stuck child stops the save in its midst.
class KvServerLargeSaveTest : public KvServerSaveTest {
 protected:
  static constexpr int KEYS = 3000;
  static std::string Value(char cFill) { return std::string(1000, cFill); }
  static void SetAll(Client& stClient, char cFill) {
    for (int i = 0; i < KEYS; ++i) {
      stClient.Ask({"SET", "key" + std::to_string(i), Value(cFill)});
    }
  }
  static int CountOf(Client& stClient, char cFill) {
    int iCount = 0;
    for (int i = 0; i < KEYS; ++i) {
      iCount += stClient.Ask({"GET", "key" + std::to_string(i)}) == Bulk(Value(cFill)) ? 1 : 0;
    }
    return iCount;
  }
};

TEST_F(KvServerLargeSaveTest, WhatClientsChangeWhileTheChildIsSlowIsSavedAsItWas) {
  ServerProcess stServer({"server.workers=1"});
  Client stClient(stServer);
  SetAll(stClient, 'b');
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  const pid_t iChild = ChildOf(stServer.Worker(0));
  SendSignal(iChild, SIGSTOP);  // in the library's pause before its first instruction
  SetAll(stClient, 'a');
  EXPECT_EQ("+OK\r\n", stClient.Ask({"FLUSHALL"}));
  stClient.Ask({"SET", "late", "not saved"});
  SendSignal(iChild, SIGCONT);
  EXPECT_TRUE(SaveEnds(stClient));
  EXPECT_EQ("ok", InfoLine(stClient, "rdb_last_bgsave_status"));
  Boot(stServer);
  Client stAgain(stServer);
  EXPECT_EQ(":" + std::to_string(KEYS) + "\r\n", stAgain.Ask({"DBSIZE"}));
  EXPECT_EQ(KEYS, CountOf(stAgain, 'b'));
}

TEST_F(KvServerLargeSaveTest, AKilledChildCostsTheSaveOnly) {
  ServerProcess stServer({"server.workers=1"});
  Client stClient(stServer);
  SetAll(stClient, 'b');
  {
    const StuckDump stStuck(stClient, Dump(stServer));
    EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
    SetAll(stClient, 'a');
    SendSignal(ChildOf(stServer.Worker(0)), SIGKILL);
    EXPECT_TRUE(SaveEnds(stClient));
  }
  EXPECT_EQ("err", InfoLine(stClient, "rdb_last_bgsave_status"));
  EXPECT_FALSE(Exists(Dump(stServer)));
  EXPECT_FALSE(Exists(Dump(stServer) + ".new"));
  EXPECT_EQ(KEYS, CountOf(stClient, 'a'));
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(SaveEnds(stClient));
  Boot(stServer);
  Client stAgain(stServer);
  EXPECT_EQ(KEYS, CountOf(stAgain, 'a'));
}

TEST_F(KvServerLargeSaveTest, AKilledWorkerLeavesTheFormerDump) {
  ServerProcess stServer({"server.workers=1"});
  Client stClient(stServer);
  SetAll(stClient, 'b');
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(SaveEnds(stClient));
  SetAll(stClient, 'a');
  const pid_t iWorker = stServer.Worker(0);
  const StuckDump stStuck(stClient, Dump(stServer));
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  const pid_t iChild = ChildOf(iWorker);
  SetAll(stClient, 'c');
  SendSignal(iWorker, SIGKILL);
  EXPECT_TRUE(WaitUntil([&] { return !IsAlive(iChild); }));
  ASSERT_TRUE(WaitUntil([&] { return stServer.Worker(0) != iWorker; }));
  stClient.Ask({"DBSIZE"});  // may be the one that is lost
  EXPECT_EQ(KEYS, CountOf(stClient, 'c'));
  EXPECT_FALSE(Exists(Dump(stServer) + ".new"));
  Boot(stServer);
  Client stAgain(stServer);
  EXPECT_EQ(KEYS, CountOf(stAgain, 'b'));
}

TEST_F(KvServerSaveTest, OneSaveAtATime) {
  ServerProcess stServer;
  Client stClient(stServer);
  const StuckDump stStuck(stClient, Dump(stServer));
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_EQ(BUSY, stClient.Ask({"BGSAVE"}));
  EXPECT_EQ("1", InfoLine(stClient, "rdb_bgsave_in_progress"));
  EXPECT_EQ("+OK\r\n", stClient.Ask({"SET", "a", "served meanwhile"}));
}

TEST_F(KvServerSaveTest, AKilledChildIsAFailedSave) {
  ServerProcess stServer;
  Client stClient(stServer);
  {
    const StuckDump stStuck(stClient, Dump(stServer));
    EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
    SendSignal(ChildOf(stServer.Worker(0)), SIGKILL);
    EXPECT_TRUE(SaveEnds(stClient));
    EXPECT_FALSE(Exists(Dump(stServer) + ".new"));
  }
  EXPECT_EQ("err", InfoLine(stClient, "rdb_last_bgsave_status"));
  EXPECT_TRUE(LogTells(stServer, "worker 0: the save has failed: its child was killed"));
  EXPECT_FALSE(Exists(Dump(stServer)));
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(SaveEnds(stClient));
  EXPECT_EQ("ok", InfoLine(stClient, "rdb_last_bgsave_status"));
  EXPECT_TRUE(Exists(Dump(stServer)));
}

TEST_F(KvServerSaveTest, AChildThatTakesTooLongIsKilled) {
  ServerProcess stServer({"save.timeout=1"});
  Client stClient(stServer);
  const StuckDump stStuck(stClient, Dump(stServer));
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(SaveEnds(stClient));
  EXPECT_TRUE(LogTells(stServer, "takes longer than save.timeout and is killed"));
  EXPECT_EQ("err", InfoLine(stClient, "rdb_last_bgsave_status"));
}

TEST_F(KvServerSaveTest, TheChildEndsWithItsWorker) {
  ServerProcess stServer;
  Client stClient(stServer);
  const StuckDump stStuck(stClient, Dump(stServer));
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  const pid_t iWorker = stServer.Worker(0);
  const pid_t iChild = ChildOf(iWorker);
  // It asks for that in its first instructions, behind the library's pause.
  EXPECT_TRUE(WaitUntil([&] {
    return ReadFile("/proc/" + std::to_string(iChild) + "/wchan").find("fifo") !=
               std::string::npos ||
           getpgid(iChild) == iChild;
  }));
  SendSignal(iWorker, SIGKILL);
  EXPECT_TRUE(WaitUntil([&] { return !IsAlive(iChild); }));
  EXPECT_TRUE(WaitUntil([&] { return stServer.Worker(0) != iWorker; }));
  EXPECT_EQ("+OK\r\n", stClient.Ask({"SET", "a", "1"}).substr(0, 5));
}

// The library lets a child sleep before its first instruction. What the child of a dead worker
// wrote would come over a newer dump.
TEST_F(KvServerSaveTest, TheChildEndsWithAWorkerThatDiesBeforeItsFirstInstruction) {
  ServerProcess stServer;
  Client stClient(stServer);
  const StuckDump stStuck(stClient, Dump(stServer));
  const pid_t iWorker = stServer.Worker(0);
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  const pid_t iChild = ChildOf(iWorker);
  SendSignal(iWorker, SIGKILL);
  const bool bEnded = WaitUntil([&] { return !IsAlive(iChild); });
  EXPECT_TRUE(bEnded);
  if (!bEnded) {
    SendSignal(iChild, SIGKILL);
  }
}

// The new worker finds the table, and does not know what of it is in a dump.
TEST_F(KvServerSaveTest, TheEndSavesWhatADeadWorkerHasChanged) {
  ServerProcess stServer({Rules("save = 1000:1\n")});
  EXPECT_EQ("+OK\r\n", Client(stServer).Ask({"SET", "a", "1"}));
  const pid_t iWorker = stServer.Worker(0);
  SendSignal(iWorker, SIGKILL);
  ASSERT_TRUE(WaitUntil([&] { return stServer.Worker(0) != iWorker; }));
  Boot(stServer);
  EXPECT_EQ(Bulk("1"), Client(stServer).Ask({"GET", "a"}));
}

TEST_F(KvServerSaveTest, ADirectoryThatIsGoneIsAFailedSaveWithoutAHook) {
  const std::string strPath = m_stDirectory.Path() + "/dumps";
  ServerProcess stServer({"save.path=" + strPath, "save.hook=true"});
  Client stClient(stServer);
  ASSERT_EQ(0, rmdir(strPath.c_str()));
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(SaveEnds(stClient));
  EXPECT_EQ("err", InfoLine(stClient, "rdb_last_bgsave_status"));
  EXPECT_TRUE(LogTells(
      stServer, "the save has failed: " + strPath + "/dump-0.kv: No such file or directory"));
  EXPECT_EQ(std::string::npos, stServer.Log().find("save.hook: "));
}

TEST_F(KvServerSaveTest, TheHookRunsAfterAGoodSave) {
  const std::string strCopy = m_stDirectory.Path() + "/copy";
  ServerProcess stServer({"save.hook=cp $KV_DUMP " + strCopy + "; echo copied; exit 3"});
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(SaveEnds(stClient));
  EXPECT_TRUE(LogTells(stServer, "worker 0: save.hook: exit code 3 copied\n"));
  EXPECT_EQ(ReadFile(Dump(stServer)), ReadFile(strCopy));
}

TEST_F(KvServerSaveTest, AHookThatTakesTooLongIsKilledWithWhatItHasStarted) {
  ServerProcess stServer({"save.timeout=1", "save.hook=sleep 1000 & wait"});
  Client stClient(stServer);
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(LogTells(stServer, ": saved 0 keys"));
  const pid_t iShell = ChildOf(ChildOf(stServer.Worker(0)));
  const pid_t iSleep = ChildOf(iShell);
  EXPECT_TRUE(SaveEnds(stClient));
  EXPECT_TRUE(WaitUntil([&] { return !IsAlive(iShell) && !IsAlive(iSleep); }));
  EXPECT_TRUE(LogTells(stServer, "worker 0: save.hook: killed"));
}

TEST_F(KvServerSaveTest, AHookEndsWithItsWorkerAndSoDoesWhatItHasStarted) {
  ServerProcess stServer({"save.hook=sleep 1000 & wait"});
  Client stClient(stServer);
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(LogTells(stServer, ": saved 0 keys"));
  const pid_t iWorker = stServer.Worker(0);
  const pid_t iShell = ChildOf(ChildOf(iWorker));
  const pid_t iSleep = ChildOf(iShell);
  SendSignal(iWorker, SIGKILL);
  for (const pid_t iPid : {iShell, iSleep}) {
    const bool bEnded = WaitUntil([&] { return !IsAlive(iPid); });
    EXPECT_TRUE(bEnded);
    if (!bEnded) {
      SendSignal(iPid, SIGKILL);
    }
  }
}

// It prints faster than the worker reads, and the worker has clients.
TEST_F(KvServerSaveTest, AHookThatPrintsWithoutEndIsKilled) {
  ServerProcess stServer({"save.hook=test -e $KV_DUMP.once || { touch $KV_DUMP.once; yes; }"});
  Client stClient(stServer);
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(LogTells(stServer, "worker 0: a save's child prints too much and is killed"));
  EXPECT_TRUE(LogTells(stServer, "worker 0: save.hook: killed"));
  EXPECT_TRUE(SaveEnds(stClient));
  EXPECT_EQ("ok", InfoLine(stClient, "rdb_last_bgsave_status"));
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(LogTells(stServer, "worker 0: save.hook: exit code 0"));
}

TEST_F(KvServerSaveTest, AHookMayPrintManyLines) {
  ServerProcess stServer(
      {"save.hook=i=0; while [ $i -lt 2000 ]; do echo; echo >&2; i=$((i+1)); done; exit 3"});
  Client stClient(stServer);
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(LogTells(stServer, "worker 0: save.hook: exit code 3")) << stServer.Log();
}

// A command that stays would hold the queues of a server that has gone. The last is that of ls.
TEST_F(KvServerSaveTest, TheHookHasThreeDescriptors) {
  ServerProcess stServer({"save.hook=echo $(ls /proc/self/fd)"});
  Client stClient(stServer);
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_TRUE(LogTells(stServer, "worker 0: save.hook: exit code 0 0 1 2 3\n")) << stServer.Log();
}

TEST_F(KvServerSaveTest, RulesSaveByThemselves) {
  ServerProcess stServer({Rules("save = 1:3\n")});
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  stClient.Ask({"SET", "a", "2"});
  EXPECT_FALSE(Exists(Dump(stServer)));
  stClient.Ask({"SET", "a", "3"});
  EXPECT_TRUE(LogTells(stServer, "worker 0: a save starts, by a rule"));
  EXPECT_TRUE(WaitUntil([&] { return Exists(Dump(stServer)); }));
}

TEST_F(KvServerSaveTest, WithRulesTheEndSavesWhatHasChanged) {
  ServerProcess stServer({Rules("save = 1000:1\n")});
  EXPECT_EQ("+OK\r\n", Client(stServer).Ask({"SET", "a", "1"}));
  Boot(stServer);
  EXPECT_EQ(Bulk("1"), Client(stServer).Ask({"GET", "a"}));
  unlink(Dump(stServer).c_str());
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_FALSE(Exists(Dump(stServer)));  // nothing has changed
}

TEST_F(KvServerSaveTest, WithoutRulesTheEndSavesNothing) {
  ServerProcess stServer;
  EXPECT_EQ("+OK\r\n", Client(stServer).Ask({"SET", "a", "1"}));
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_FALSE(Exists(Dump(stServer)));
}

TEST_F(KvServerSaveTest, ShutdownMaySaveWithoutRules) {
  ServerProcess stServer({"server.workers=2"});
  Client stClient(stServer);
  stClient.Ask({"MSET", KeyOf(0, 2), "0", KeyOf(1, 2), "1"});
  EXPECT_EQ("", stClient.Ask({"SHUTDOWN", "SAVE"}));
  EXPECT_EQ(0, stServer.Wait());
  RemoveTables(stServer);
  stServer.Start();
  Client stAgain(stServer);
  EXPECT_EQ(Bulk("0"), stAgain.Ask({"GET", KeyOf(0, 2)}));
  EXPECT_EQ(Bulk("1"), stAgain.Ask({"GET", KeyOf(1, 2)}));
}

// The child is killed first, and its unfinished file is not in the way.
TEST_F(KvServerSaveTest, ShutdownSavesInPlaceOfAChildThatIsAtIt) {
  ServerProcess stServer;
  Client stClient(stServer);
  const StuckDump stStuck(stClient, Dump(stServer));
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  stClient.Ask({"SET", "a", "1"});
  EXPECT_EQ("", stClient.Ask({"SHUTDOWN", "SAVE"}));
  EXPECT_EQ(0, stServer.Wait());
  EXPECT_TRUE(Exists(Dump(stServer)));
}

TEST_F(KvServerSaveTest, TheEndLeavesNothingOfASaveThatRuns) {
  ServerProcess stServer;
  Client stClient(stServer);
  const StuckDump stStuck(stClient, Dump(stServer));
  EXPECT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_FALSE(Exists(Dump(stServer) + ".new"));
  EXPECT_EQ("", stServer.Remains());
}

TEST_F(KvServerSaveTest, ShutdownMayLeaveTheSaveOut) {
  ServerProcess stServer({Rules("save = 1000:1\n")});
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  EXPECT_EQ("", stClient.Ask({"SHUTDOWN", "NOSAVE"}));
  EXPECT_EQ(0, stServer.Wait());
  EXPECT_FALSE(Exists(Dump(stServer)));
}

TEST_F(KvServerSaveTest, AShutdownThatCanNotSaveGoesOn) {
  const std::string strPath = m_stDirectory.Path() + "/dumps";
  ServerProcess stServer({"save.path=" + strPath});
  Client stClient(stServer);
  ASSERT_EQ(0, rmdir(strPath.c_str()));
  EXPECT_EQ("-ERR Errors trying to SHUTDOWN. Check logs.\r\n", stClient.Ask({"SHUTDOWN", "SAVE"}));
  EXPECT_EQ("+PONG\r\n", Client(stServer).Ask({"PING"}));
  EXPECT_EQ("", Client(stServer).Ask({"SHUTDOWN", "SAVE", "FORCE"}));
  EXPECT_EQ(0, stServer.Wait());
}

TEST_F(KvServerSaveTest, ADamagedDumpEndsTheStart) {
  ServerProcess stServer;
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  EXPECT_EQ("", stClient.Ask({"SHUTDOWN", "SAVE"}));
  EXPECT_EQ(0, stServer.Wait());
  RemoveTables(stServer);
  ASSERT_EQ(0, truncate(Dump(stServer).c_str(), 50));
  const std::string strListen = "server.listen=127.0.0.1:" + std::to_string(stServer.Port());
  const RunResult_t stResult =
      RunServer({"--set", "server.run_dir=" + stServer.Directory(), "--set", strListen});
  EXPECT_EQ(2, stResult.iExit);
  EXPECT_EQ(
      "kv_server: " + Dump(stServer) + ": it is cut off; move it away to go on without its keys\n",
      stResult.strError);
  ASSERT_EQ(0, unlink(Dump(stServer).c_str()));
  stServer.Start();
  EXPECT_EQ(":0\r\n", Client(stServer).Ask({"DBSIZE"}));
}

// A half-filled table is filled again from the start by the next worker.
TEST_F(KvServerSaveTest, AWorkerKilledWhileItLoadsLoadsAgain) {
  ServerProcess stServer({"table.bytes=64M"});
  {
    Client stClient(stServer);
    for (int i = 0; i < 200; ++i) {
      std::string strRequests;
      for (int iKey = 0; iKey < 500; ++iKey) {
        strRequests += Request({"SET", std::to_string(i * 500 + iKey), std::string(100, 'v')});
      }
      stClient.Send(strRequests);
      stClient.Read(500);
    }
    EXPECT_EQ("", stClient.Ask({"SHUTDOWN", "SAVE"}));
  }
  EXPECT_EQ(0, stServer.Wait());
  RemoveTables(stServer);
  // What fills the pipe is half of the dump; then the worker waits for more.
  const std::string strDump = ReadFile(Dump(stServer));
  const std::string strKept = m_stDirectory.Path() + "/kept.kv";
  ASSERT_EQ(0, rename(Dump(stServer).c_str(), strKept.c_str()));
  ASSERT_EQ(0, mkfifo(Dump(stServer).c_str(), 0600));
  ForkedPeer stWriter([&] {
    signal(SIGPIPE, SIG_IGN);
    std::ofstream stHalf(Dump(stServer));
    stHalf << strDump.substr(0, strDump.size() / 2) << std::flush;
    pause();
    return 0;
  });
  ForkedPeer stKiller([&] {
    const pid_t iWorker = stServer.Worker(0);
    usleep(300000);  // so that it is in the middle; at another time the outcome is the same
    rename(strKept.c_str(), Dump(stServer).c_str());
    SendSignal(iWorker, SIGKILL);
    return 0;
  });
  stServer.Start();
  EXPECT_EQ(0, stKiller.Wait());
  stWriter.Kill(SIGKILL);
  EXPECT_EQ(":100000\r\n", Client(stServer).Ask({"DBSIZE"}));
}

TEST_F(KvServerSaveTest, TwoServersDoNotSaveIntoOneDirectory) {
  const std::string strPath = "save.path=" + m_stDirectory.Path() + "/dumps";
  const ServerProcess stServer({strPath});
  const PrivateDirectory stOther;
  const RunResult_t stResult =
      RunServer({"--set", "server.run_dir=" + stOther.Path(), "--set",
                 "server.listen=127.0.0.1:" + std::to_string(FreePort()), "--set", strPath});
  EXPECT_EQ(1, stResult.iExit);
  EXPECT_EQ(
      "kv_server: save.path = \"" + m_stDirectory.Path() + "/dumps\": another server saves there\n",
      stResult.strError);
}

// A child has its name some instructions after the log tells of it.
TEST_F(KvServerSaveTest, ListingsShowWhatEachProcessIs) {
  ServerProcess stServer({"server.workers=2"});
  const auto IsCalled = [](pid_t iPid, const std::string& strTitle) {
    return WaitUntil(
        [&] { return ReadFile("/proc/" + std::to_string(iPid) + "/cmdline").c_str() == strTitle; });
  };
  EXPECT_TRUE(IsCalled(stServer.Master(), "kv_server: master"));
  EXPECT_TRUE(IsCalled(stServer.Gateway(),
                       "kv_server: gateway 127.0.0.1:" + std::to_string(stServer.Port())));
  EXPECT_TRUE(IsCalled(stServer.Worker(1), "kv_server: worker 1"));
  const std::string strAll = ReadFile("/proc/" + std::to_string(stServer.Master()) + "/cmdline");
  EXPECT_EQ(std::string::npos, strAll.find("--set"));
}

}  // namespace
