// The mirror of the keys in a database: a real MariaDB server of the test's own, real server
// processes.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "kv_server_fixture.h"
#include "mysql_server_fixture.h"
#include "test_support.h"

namespace {

using Settings_t = ServerProcess::Settings_t;

const char STARTED[] = "+Background saving started\r\n";
const int MANY = 100000;
const int SLOW_MS = 60000;  // for so many on a busy machine

class KvServerMirrorTest : public MysqlTest {
 protected:
  void SetUp() override {
    MysqlTest::SetUp();
    ASSERT_TRUE(Connect(m_stMysql)) << m_stMysql.ErrorMessage();
  }

  static Settings_t With(Settings_t vecMore = {}, const std::string& strPassword = "secret") {
    vecMore.insert(vecMore.end(), {std::string("mirror.mysql.host=") + MysqlServer::HOST,
                                   "mirror.mysql.port=" + std::to_string(Server().Port()),
                                   std::string("mirror.mysql.user=") + MysqlServer::USER,
                                   "mirror.mysql.password=" + strPassword,
                                   std::string("mirror.mysql.database=") + DATABASE});
    return vecMore;
  }
  static bool LogTells(const ServerProcess& stServer, const std::string& strText) {
    return WaitUntil([&] { return stServer.Log().find(strText) != std::string::npos; });
  }
  static size_t CountOf(const ServerProcess& stServer, const std::string& strText) {
    const std::string strLog = stServer.Log();
    size_t iCount = 0;
    for (size_t i = 0; (i = strLog.find(strText, i)) != std::string::npos; i += strText.size()) {
      ++iCount;
    }
    return iCount;
  }
  // A save with all that follows it.
  static void Save(Client& stClient) {
    ASSERT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
    ASSERT_TRUE(
        WaitUntil([&] { return InfoLine(stClient, "rdb_bgsave_in_progress") == "0"; }, SLOW_MS));
  }
  // What the last save told of the mirror, "keys, rows written, deleted".
  static std::string Outcome(const ServerProcess& stServer, int iWorker = 0) {
    const std::string strStart = "worker " + std::to_string(iWorker) + ": mirrored ";
    const std::string strLog = stServer.Log();
    const size_t iFound = strLog.rfind(strStart);
    return iFound == std::string::npos
               ? "none"
               : strLog.substr(iFound + strStart.size(),
                               strLog.find('\n', iFound) - iFound - strStart.size());
  }
  // Takes the tables and the dumps away.
  static void LoseAll(const ServerProcess& stServer) {
    for (const key_t iKey : stServer.TableKeys()) {
      shmctl(shmget(iKey, 0, 0), IPC_RMID, nullptr);
    }
    for (int i = 0; i < 3; ++i) {
      unlink((stServer.Directory() + "/dump-" + std::to_string(i) + ".kv").c_str());
    }
  }
  // Loses the whole run directory, as when the machine is lost: any number of workers may follow.
  static void LoseDirectory(ServerProcess& stServer) {
    EXPECT_EQ(0, stServer.Stop());
    LoseAll(stServer);
    for (const char* pFile : {"/tables", "/run"}) {
      unlink((stServer.Directory() + pFile).c_str());
    }
  }
  std::string Ask(const std::string& strSql) { return Value(m_stMysql, strSql); }
  std::string Hook() const { return "save.hook=echo done > " + m_stDirectory.File("hook"); }
  std::string Sessions() {
    return Ask("SELECT COUNT(*) FROM information_schema.processlist WHERE user = 'zelk'");
  }
  // A start that fails.
  static RunResult_t Refused(const ServerProcess& stServer, const Settings_t& vecSettings) {
    std::vector<std::string> vecArguments{
        "--set", "server.run_dir=" + stServer.Directory(), "--set",
        "server.listen=127.0.0.1:" + std::to_string(stServer.Port())};
    for (const std::string& strSetting : vecSettings) {
      vecArguments.insert(vecArguments.end(), {"--set", strSetting});
    }
    return RunServer(vecArguments);
  }
  static std::string Place() {
    return "the mirror test.kv_keys at 127.0.0.1:" + std::to_string(Server().Port());
  }
  static pid_t ServerPid() {
    return atoi(
        ReadFile(std::filesystem::path(Server().Socket()).parent_path().string() + "/pid").c_str());
  }
  static void Fill(Client& stClient, int iKeys) {
    for (int i = 0; i < iKeys; i += 1000) {
      std::string strRequests;
      for (int iKey = i; iKey < i + 1000; ++iKey) {
        strRequests += Request({"SET", "key" + std::to_string(iKey), std::to_string(iKey)});
      }
      stClient.Send(strRequests);
      stClient.Read(1000);
    }
  }
  // The sockets that a process has, by inode, which a connection shares with nobody.
  static std::set<std::string> Sockets(pid_t iPid) {
    std::set<std::string> setSockets;
    std::error_code stIgnored;
    for (const auto& stEntry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(iPid) + "/fd", stIgnored)) {
      const std::string strTarget =
          std::filesystem::read_symlink(stEntry.path(), stIgnored).string();
      if (strTarget.rfind("socket:", 0) == 0) {
        setSockets.insert(strTarget);
      }
    }
    return setSockets;
  }
  static pid_t ChildOf(pid_t iParent) {
    const std::string strPid = std::to_string(iParent);
    pid_t iChild = -1;
    WaitUntil([&] {
      std::istringstream(ReadFile("/proc/" + strPid + "/task/" + strPid + "/children")) >> iChild;
      return iChild > 0;
    });
    return iChild;
  }

  const PrivateDirectory m_stDirectory;
  MysqlObj m_stMysql;
};

TEST_F(KvServerMirrorTest, ASaveWritesTheKeysToTheTable) {
  ServerProcess stServer(With());
  Client stClient(stServer);
  stClient.Ask({"SET", "greeting", "hello"});
  stClient.Ask({"SET", "empty", ""});
  stClient.Ask({"SET", "mortal", "v", "PXAT", "4102444800123"});
  Save(stClient);
  EXPECT_EQ("3 keys, 3 rows written, 0 deleted", Outcome(stServer));
  EXPECT_EQ("3", Ask("SELECT COUNT(*) FROM kv_keys"));
  EXPECT_EQ("hello", Ask("SELECT value FROM kv_keys WHERE name = 'greeting'"));
  EXPECT_EQ("0", Ask("SELECT expire_at FROM kv_keys WHERE name = 'greeting'"));
  EXPECT_EQ("", Ask("SELECT value FROM kv_keys WHERE name = 'empty'"));
  EXPECT_EQ("4102444800123", Ask("SELECT expire_at FROM kv_keys WHERE name = 'mortal'"));
  EXPECT_EQ("3", Ask("SELECT COUNT(*) FROM kv_keys WHERE id = UNHEX(SHA2(name, 256))"));
}

TEST_F(KvServerMirrorTest, OnlyWhatHasChangedIsWritten) {
  ServerProcess stServer(With());
  Client stClient(stServer);
  stClient.Ask({"MSET", "a", "1", "b", "2", "c", "3", "d", "4"});
  Save(stClient);
  EXPECT_EQ("4 keys, 4 rows written, 0 deleted", Outcome(stServer));
  Save(stClient);
  EXPECT_EQ("4 keys, 0 rows written, 0 deleted", Outcome(stServer));
  stClient.Ask({"SET", "a", "changed"});
  stClient.Ask({"EXPIRE", "b", "1000"});
  stClient.Ask({"SET", "e", "new"});
  stClient.Ask({"DEL", "c", "d"});
  Save(stClient);
  EXPECT_EQ("3 keys, 3 rows written, 2 deleted", Outcome(stServer));
  EXPECT_EQ("a=changed,b=2,e=new",
            Ask("SELECT GROUP_CONCAT(name, '=', value ORDER BY name) FROM kv_keys"));
  EXPECT_NE("0", Ask("SELECT expire_at FROM kv_keys WHERE name = 'b'"));
  stClient.Ask({"FLUSHALL"});
  Save(stClient);
  EXPECT_EQ("0 keys, 0 rows written, 3 deleted", Outcome(stServer));
  EXPECT_EQ("0", Ask("SELECT COUNT(*) FROM kv_keys"));
}

TEST_F(KvServerMirrorTest, KeysAndValuesMayBeAnyBytes) {
  std::string strKey;
  for (int i = 1; i < 256; ++i) {
    strKey += static_cast<char>(i);
  }
  const std::string strValue = strKey + std::string(1, '\0') + "';\\\"--" + strKey;
  const std::string strLong(16 << 10, 'k');
  ServerProcess stServer(With());
  {
    Client stClient(stServer);
    stClient.Ask({"SET", strKey, strValue});
    stClient.Ask({"SET", strLong + "", std::string(1 << 20, '\xff')});
    stClient.Ask({"SET", strLong.substr(1) + "l", std::string(1 << 20, '\0')});
    Save(stClient);
  }
  EXPECT_EQ("3 keys, 3 rows written, 0 deleted", Outcome(stServer));
  LoseDirectory(stServer);
  stServer.Start();
  Client stAgain(stServer);
  EXPECT_EQ(Bulk(strValue), stAgain.Ask({"GET", strKey}));
  EXPECT_EQ(Bulk(std::string(1 << 20, '\xff')), stAgain.Ask({"GET", strLong}));
  EXPECT_EQ(Bulk(std::string(1 << 20, '\0')), stAgain.Ask({"GET", strLong.substr(1) + "l"}));
  EXPECT_EQ(":3\r\n", stAgain.Ask({"DBSIZE"}));
}

TEST_F(KvServerMirrorTest, TheKeysComeBackToAnotherNumberOfWorkers) {
  ServerProcess stServer(With({"server.workers=3"}));
  {
    Client stClient(stServer);
    Fill(stClient, MANY);
    stClient.Ask({"SET", "mortal", "v", "EX", "1000"});
    stClient.Ask({"SET", "dying", "v", "PX", "1"});
    Save(stClient);
  }
  EXPECT_EQ("100001", Ask("SELECT COUNT(*) FROM kv_keys WHERE name <> 'dying'"));
  Settings_t vecSettings = With({"server.workers=2"});
  LoseDirectory(stServer);
  stServer.Restart(vecSettings);
  EXPECT_TRUE(
      LogTells(stServer, "worker 1: the table is new and there is no dump; asks the mirror"));
  Client stAgain(stServer);
  EXPECT_EQ(":100001\r\n", stAgain.Ask({"DBSIZE"}));
  EXPECT_EQ(Bulk("77777"), stAgain.Ask({"GET", "key77777"}));
  EXPECT_GT(atoi(stAgain.Ask({"TTL", "mortal"}).c_str() + 1), 900);
  stAgain.Ask({"DEL", "key1", "key2", "key3", "key4"});
  Save(stAgain);
  EXPECT_EQ("99997", Ask("SELECT COUNT(*) FROM kv_keys WHERE name <> 'dying'"));
}

// Else a journal that has only what came later would be taken for all there is.
TEST_F(KvServerMirrorTest, KeysFromTheMirrorAreSavedBeforeAJournalBegins) {
  ServerProcess stServer(With());
  {
    Client stClient(stServer);
    stClient.Ask({"SET", "a", "1"});
    Save(stClient);
  }
  LoseDirectory(stServer);
  stServer.Restart(With({"journal.sync=batch"}));
  EXPECT_EQ("+OK\r\n", Client(stServer).Ask({"SET", "b", "2"}));
  EXPECT_EQ(0, access((stServer.Directory() + "/dump-0.kv").c_str(), F_OK));
  EXPECT_EQ(std::string::npos, stServer.Log().find("since the journal lacks changes"));
  EXPECT_EQ(0, stServer.Stop());
  for (const key_t iKey : stServer.TableKeys()) {
    shmctl(shmget(iKey, 0, 0), IPC_RMID, nullptr);
  }
  stServer.Start();
  Client stAgain(stServer);
  EXPECT_EQ(Bulk("1"), stAgain.Ask({"GET", "a"}));
  EXPECT_EQ(Bulk("2"), stAgain.Ask({"GET", "b"}));
}

TEST_F(KvServerMirrorTest, TablesAndDumpsStandAboveTheMirror) {
  ServerProcess stServer(With());
  {
    Client stClient(stServer);
    stClient.Ask({"SET", "a", "1"});
    Save(stClient);
  }
  ASSERT_EQ(0, Execute(m_stMysql, "UPDATE kv_keys SET value = 'of the mirror'"));
  EXPECT_EQ(0, stServer.Stop());
  stServer.Start();
  EXPECT_EQ(Bulk("1"), Client(stServer).Ask({"GET", "a"}));
  EXPECT_EQ(0, stServer.Stop());
  for (const key_t iKey : stServer.TableKeys()) {
    shmctl(shmget(iKey, 0, 0), IPC_RMID, nullptr);
  }
  stServer.Start();
  EXPECT_EQ(Bulk("1"), Client(stServer).Ask({"GET", "a"}));
  EXPECT_EQ(0, stServer.Stop());
  LoseAll(stServer);
  stServer.Start();
  EXPECT_EQ(Bulk("of the mirror"), Client(stServer).Ask({"GET", "a"}));
}

TEST_F(KvServerMirrorTest, RowsWhoseTimeIsOverDoNotComeBack) {
  ServerProcess stServer(With());
  {
    Client stClient(stServer);
    stClient.Ask({"MSET", "over", "1", "alive", "2"});
    Save(stClient);
  }
  ASSERT_EQ(0, Execute(m_stMysql, "UPDATE kv_keys SET expire_at = 1000 WHERE name = 'over'"));
  LoseDirectory(stServer);
  stServer.Start();
  Client stClient(stServer);
  EXPECT_EQ(":1\r\n", stClient.Ask({"DBSIZE"}));
  EXPECT_EQ("$-1\r\n", stClient.Ask({"GET", "over"}));
  EXPECT_TRUE(LogTells(stServer, "worker 0: 1 keys come from the mirror"));
}

TEST_F(KvServerMirrorTest, ASaveAtTheEndIsMirroredToo) {
  ServerProcess stServer(With({"server.workers=2"}));
  Client stClient(stServer);
  stClient.Ask({"MSET", KeyOf(0, 2), "0", KeyOf(1, 2), "1"});
  EXPECT_EQ("", stClient.Ask({"SHUTDOWN", "SAVE"}));
  EXPECT_EQ(0, stServer.Wait());
  EXPECT_EQ("2", Ask("SELECT COUNT(*) FROM kv_keys"));
  EXPECT_EQ("", stServer.Remains());
}

TEST_F(KvServerMirrorTest, AStopMakesUpForAMirroringThatHasFailed) {
  ServerProcess stServer(With());
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  Server().Stop();
  Save(stClient);
  Server().Start();
  EXPECT_EQ(0, stServer.Stop());
  MysqlObj stMysql;
  ASSERT_TRUE(Connect(stMysql));
  EXPECT_EQ("1", Value(stMysql, "SELECT value FROM kv_keys"));
}

TEST_F(KvServerMirrorTest, ShutdownNoSaveLeavesTheMirrorAlone) {
  ServerProcess stServer(With());
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  Server().Stop();
  Save(stClient);
  Server().Start();
  EXPECT_EQ("", stClient.Ask({"SHUTDOWN", "NOSAVE"}));
  EXPECT_EQ(0, stServer.Wait());
  MysqlObj stMysql;
  ASSERT_TRUE(Connect(stMysql));
  EXPECT_EQ("0", Value(stMysql,
                       "SELECT COUNT(*) FROM information_schema.tables WHERE table_name = "
                       "'kv_keys'"));
}

// What fails is told in the log, the save is as good as without a mirror, and the hook runs.
TEST_F(KvServerMirrorTest, AWrongPasswordFailsOnlyTheMirror) {
  ServerProcess stOther;  // makes the tables, which a mirror that refuses would not let start
  EXPECT_EQ(0, stOther.Stop());
  stOther.Restart(With({Hook()}, "wrong-passw0rd"));
  Client stClient(stOther);
  stClient.Ask({"SET", "a", "1"});
  Save(stClient);
  EXPECT_EQ("ok", InfoLine(stClient, "rdb_last_bgsave_status"));
  EXPECT_TRUE(LogTells(stOther, "the mirror is behind: " + Place() + ": Access denied for user"));
  EXPECT_EQ("done\n", ReadFile(m_stDirectory.File("hook")));
  EXPECT_EQ(std::string::npos, stOther.Log().find("passw0rd"));
}

TEST_F(KvServerMirrorTest, ThePasswordIsShownNowhere) {
  ServerProcess stServer(With());
  Client stClient(stServer);
  const std::string strReply = stClient.Ask({"CONFIG", "GET", "mirror.mysql.*"});
  EXPECT_NE(std::string::npos, strReply.find("mirror.mysql.password\r\n$3\r\n***\r\n"));
  Save(stClient);
  std::string strAll = strReply + stServer.Log();
  for (const pid_t iPid : {stServer.Master(), stServer.Gateway(), stServer.Worker(0)}) {
    strAll += ReadFile("/proc/" + std::to_string(iPid) + "/cmdline");
  }
  EXPECT_EQ(std::string::npos, strAll.find(MysqlServer::PASSWORD));
}

TEST_F(KvServerMirrorTest, ThePasswordMayComeFromTheEnvironment) {
  const std::string strFile = m_stDirectory.File("kv.xml");
  std::ofstream(strFile) << "<kv_server><mirror><mysql><host>127.0.0.1</host><port>"
                         << Server().Port() << "</port><user>" << MysqlServer::USER
                         << "</user><password>$(KV_TEST_PASSWORD)</password><database>" << DATABASE
                         << "</database></mysql></mirror></kv_server>";
  setenv("KV_TEST_PASSWORD", MysqlServer::PASSWORD, 1);
  ServerProcess stServer({strFile});
  const RunResult_t stPrinted = RunServer({strFile, "--print-config"});
  unsetenv("KV_TEST_PASSWORD");
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  Save(stClient);
  EXPECT_EQ("1", Ask("SELECT value FROM kv_keys"));
  EXPECT_EQ(0, stPrinted.iExit);
  EXPECT_NE(std::string::npos, stPrinted.strOut.find("<password>***</password>"));
  EXPECT_EQ(std::string::npos, stPrinted.strOut.find(MysqlServer::PASSWORD));
}

TEST_F(KvServerMirrorTest, WithoutItsLastCopyTheServerDoesNotStart) {
  ServerProcess stServer(With());
  EXPECT_EQ("+OK\r\n", Client(stServer).Ask({"SET", "a", "1"}));
  EXPECT_EQ("", Client(stServer).Ask({"SHUTDOWN", "SAVE"}));
  EXPECT_EQ(0, stServer.Wait());
  LoseAll(stServer);
  Server().Stop();
  const RunResult_t stResult = Refused(stServer, With());
  EXPECT_EQ(2, stResult.iExit);
  EXPECT_EQ(0u, stResult.strError.find("kv_server: " + Place() + ": Can't connect to"))
      << stResult.strError;
  EXPECT_NE(std::string::npos, stResult.strError.find("; there is no other copy of the keys. "));
  Server().Start();
  EXPECT_EQ(2, Refused(stServer, With({}, "wrong")).iExit);
  stServer.Start();
  EXPECT_EQ(Bulk("1"), Client(stServer).Ask({"GET", "a"}));
}

TEST_F(KvServerMirrorTest, ADatabaseThatIsSilentEndsTheStart) {
  ServerProcess stServer(With({"save.timeout=1"}));
  EXPECT_EQ(0, stServer.Stop());
  LoseAll(stServer);
  const StoppedProcess stStopped(ServerPid());
  const RunResult_t stResult = Refused(stServer, With({"save.timeout=1"}));
  EXPECT_EQ(2, stResult.iExit);
  EXPECT_EQ("kv_server: the mirror's database is silent for longer than save.timeout\n",
            stResult.strError);
}

TEST_F(KvServerMirrorTest, AMirroringThatHangsIsKilledAndTheSaveIsGood) {
  ServerProcess stServer(With({"save.timeout=1", Hook()}));
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  {
    const StoppedProcess stStopped(ServerPid());
    Save(stClient);
    EXPECT_TRUE(LogTells(stServer, "takes longer than save.timeout and is killed"));
    EXPECT_TRUE(LogTells(stServer, "worker 0: the mirror is behind: its child was killed"));
    EXPECT_EQ("done\n", ReadFile(m_stDirectory.File("hook")));
    EXPECT_EQ("ok", InfoLine(stClient, "rdb_last_bgsave_status"));
    EXPECT_EQ(Bulk("1"), stClient.Ask({"GET", "a"}));
  }
  Save(stClient);
  EXPECT_EQ("1 keys, 1 rows written, 0 deleted", Outcome(stServer));
}

TEST_F(KvServerMirrorTest, AChildsConnectionIsItsOwnAndTheWorkerHasNone) {
  ServerProcess stServer(With());
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  const auto setInherited = Sockets(stServer.Master());  // from the test
  EXPECT_EQ(setInherited, Sockets(stServer.Worker(0)));
  EXPECT_EQ("1", Sessions());
  const StoppedProcess stStopped(ServerPid());
  ASSERT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  ASSERT_TRUE(LogTells(stServer, "worker 0: saved 1 keys"));
  const pid_t iChild = ChildOf(stServer.Worker(0));
  EXPECT_TRUE(WaitUntil([&] { return Sockets(iChild).size() == 1; }));
  EXPECT_EQ(setInherited, Sockets(stServer.Worker(0)));
}

// A writer that is killed leaves the rows as they were: all or nothing.
TEST_F(KvServerMirrorTest, AKilledMirroringLeavesTheRowsOfTheFormerSave) {
  ServerProcess stServer(With());
  Client stClient(stServer);
  stClient.Ask({"MSET", "a", "old", "b", "old"});
  Save(stClient);
  // Each value is a statement of its own, and the second waits for the lock on its row.
  stClient.Ask({"MSET", "a", std::string(1 << 20, 'n'), "b", std::string(1 << 20, 'n')});
  const std::string strOrder = stClient.Ask({"SCAN", "0"});
  const bool bLastIsB = strOrder.find("\r\na\r\n") < strOrder.find("\r\nb\r\n");
  MysqlObj stLocker;
  ASSERT_TRUE(Connect(stLocker));
  ASSERT_EQ(0, Execute(stLocker, "START TRANSACTION"));
  ASSERT_EQ("old",
            Value(stLocker, std::string("SELECT value FROM kv_keys WHERE id = UNHEX(SHA2('") +
                                (bLastIsB ? "b" : "a") + "', 256)) FOR UPDATE"));
  ASSERT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  ASSERT_TRUE(WaitUntil([&] {
    return Ask("SELECT variable_value FROM information_schema.global_status WHERE variable_name = "
               "'INNODB_ROW_LOCK_CURRENT_WAITS'") == "1";
  }));
  SendSignal(ChildOf(stServer.Worker(0)), SIGKILL);
  EXPECT_TRUE(LogTells(stServer, "worker 0: the mirror is behind: its child was killed"));
  ASSERT_EQ(0, Execute(stLocker, "COMMIT"));
  EXPECT_TRUE(WaitUntil([&] { return Sessions() == "2"; }));
  EXPECT_EQ("2", Ask("SELECT COUNT(*) FROM kv_keys WHERE value = 'old'"));
}

TEST_F(KvServerMirrorTest, AStopDoesNotWaitForTheHookOfAnAbandonedSave) {
  ServerProcess stServer(With({Hook(), "save.timeout=1"}));
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  const StoppedProcess stStopped(ServerPid());
  ASSERT_EQ(STARTED, stClient.Ask({"BGSAVE"}));
  ASSERT_TRUE(LogTells(stServer, "worker 0: saved 1 keys"));
  EXPECT_EQ(0, stServer.Stop());
  EXPECT_EQ("", ReadFile(m_stDirectory.File("hook")));
  EXPECT_EQ("", stServer.Remains());
}

TEST_F(KvServerMirrorTest, ARowThatThePacketLimitRefusesIsTold) {
  ServerProcess stServer(With());
  Client stClient(stServer);
  stClient.Ask({"SET", "small", "1"});
  Save(stClient);
  ASSERT_EQ(0, Execute(m_stMysql, "SET GLOBAL max_allowed_packet = 1048576"));
  stClient.Ask({"SET", "half", std::string(500000, 'v')});
  Save(stClient);
  EXPECT_EQ("2 keys, 1 rows written, 0 deleted", Outcome(stServer));
  stClient.Ask({"SET", "large", std::string(600000, 'v')});
  Save(stClient);
  EXPECT_TRUE(LogTells(stServer, Place() + ": a key needs a max_allowed_packet of 12"));
  EXPECT_EQ("2", Ask("SELECT COUNT(*) FROM kv_keys"));
  ASSERT_EQ(0, Execute(m_stMysql, "SET GLOBAL max_allowed_packet = 16777216"));
}

// Who may not make tables can use one that is there.
TEST_F(KvServerMirrorTest, AUserWithoutTheRightToMakeTablesIsEnough) {
  {
    ServerProcess stMaker(With());
    Client stClient(stMaker);
    Save(stClient);
  }
  ASSERT_EQ(0, Execute(m_stMysql, "CREATE OR REPLACE USER poor@'%' IDENTIFIED BY 'secret'"));
  ASSERT_EQ(0, Execute(m_stMysql, "GRANT SELECT, INSERT, UPDATE, DELETE ON test.* TO poor@'%'"));
  Settings_t vecSettings = With();
  vecSettings[2] = "mirror.mysql.user=poor";
  ServerProcess stServer(vecSettings);
  Client stClient(stServer);
  stClient.Ask({"SET", "a", "1"});
  Save(stClient);
  EXPECT_EQ("1 keys, 1 rows written, 0 deleted", Outcome(stServer));
}

// The comparison reads an index that has no values in it.
TEST_F(KvServerMirrorTest, TheComparisonDoesNotReadTheValues) {
  ServerProcess stServer(With());
  Client stClient(stServer);
  Fill(stClient, 1000);
  Save(stClient);
  const Rows_t vecPlan =
      Query(m_stMysql, "EXPLAIN SELECT id, digest FROM kv_keys WHERE owner % 2 = 0");
  ASSERT_EQ(1u, vecPlan.size());
  EXPECT_NE(std::string::npos, vecPlan[0].back().find("Using index")) << vecPlan[0].back();
}

TEST_F(KvServerMirrorTest, RowsThatCanNotBeKeysRefuseTheStart) {
  ServerProcess stServer(With());
  {
    Client stClient(stServer);
    stClient.Ask({"SET", "a", "1"});
    Save(stClient);
  }
  EXPECT_EQ(0, stServer.Stop());
  LoseAll(stServer);
  ASSERT_EQ(0, Execute(m_stMysql, "UPDATE kv_keys SET name = X'610062'"));
  const RunResult_t stResult = Refused(stServer, With());
  EXPECT_EQ(2, stResult.iExit);
  EXPECT_NE(std::string::npos, stResult.strError.find("a row has an impossible key or size"));
}

TEST_F(KvServerMirrorTest, KeysThatFitIntoNoTableRefuseTheStart) {
  ServerProcess stServer(With());
  {
    Client stClient(stServer);
    for (int i = 0; i < 30; ++i) {
      stClient.Ask({"SET", std::to_string(i), std::string(1 << 20, 'v')});
    }
    Save(stClient);
  }
  LoseDirectory(stServer);
  const RunResult_t stResult = Refused(stServer, With({"table.bytes=9M", "table.buckets=16"}));
  EXPECT_EQ(2, stResult.iExit);
  EXPECT_EQ(
      "kv_server: the keys of worker 0 do not fit into its table (table.bytes); the log tells "
      "more\n",
      stResult.strError);
  EXPECT_EQ(2u, CountOf(stServer, "is made anew with"));
  EXPECT_EQ(3u, CountOf(stServer, Place() + ": its keys do not fit into the table (table.bytes)"));
}

}  // namespace
