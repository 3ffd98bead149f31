#include "mirror.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "db_connection_pool.h"
#include "dump_file.h"
#include "kv_store_fixture.h"
#include "mysql_server_fixture.h"

namespace {

const int64_t NOW = 1700000000000;

// A store with its dump, which goes to the mirror and comes back into another store.
class KvMirrorTest : public MysqlTest {
 protected:
  void SetUp() override {
    MysqlTest::SetUp();
    ASSERT_TRUE(Connect(m_stMysql)) << m_stMysql.ErrorMessage();
    m_stSettings.strMirrorHost = MysqlServer::HOST;
    m_stSettings.iMirrorPort = Server().Port();
    m_stSettings.strMirrorUser = MysqlServer::USER;
    m_stSettings.strMirrorPassword = MysqlServer::PASSWORD;
    m_stSettings.strMirrorDatabase = DATABASE;
    ASSERT_EQ("", m_stStore.Attach(m_stTable.Name()));
    m_stStore.SetTime(NOW);
  }

  void Dump() {
    DumpStat_t stStat{};
    ASSERT_EQ("", WriteDump(m_stStore, Mark(), m_strDump, stStat));
  }
  std::string Mirror() {
    Dump();
    return WriteMirror(m_stSettings, Mark(), m_strDump, m_stStat);
  }
  // The keys that a fresh table of that worker gets, and "" or what is wrong.
  std::string Load(uint32_t iWorker, uint32_t iWorkers, uint64_t& iKeys) {
    const StoreTable stTable(1 << 20, iWorker, iWorkers);
    KeyStore stStore;
    EXPECT_EQ("", stStore.Attach(stTable.Name()));
    stStore.SetTime(NOW);
    const std::string strError = LoadMirror(m_stSettings, stTable.Name().stMark, stStore, iKeys);
    EXPECT_EQ(iKeys, stStore.Count());
    return strError;
  }
  const TableMark_t& Mark() const { return m_stTable.Name().stMark; }
  std::string Ask(const std::string& strSql) { return Value(m_stMysql, strSql); }
  std::string Place() const {
    return "the mirror test.kv_keys at 127.0.0.1:" + std::to_string(Server().Port()) + ": ";
  }

  const PrivateDirectory m_stDirectory;
  const std::string m_strDump = m_stDirectory.File("dump-0.kv");
  const StoreTable m_stTable{64 << 20};
  KeyStore m_stStore;
  Settings_t m_stSettings;
  MirrorStat_t m_stStat{};
  MysqlObj m_stMysql;
};

TEST_F(KvMirrorTest, ATableIsMadeWhenThereIsNone) {
  EXPECT_EQ("", Mirror());
  EXPECT_EQ("0", Ask("SELECT COUNT(*) FROM kv_keys"));
  EXPECT_EQ("InnoDB", Ask("SELECT engine FROM information_schema.tables WHERE table_name = "
                          "'kv_keys'"));
}

TEST_F(KvMirrorTest, NoTableIsNoKeys) {
  uint64_t iKeys = 1;
  EXPECT_EQ("", Load(0, 1, iKeys));
  EXPECT_EQ(0u, iKeys);
}

TEST_F(KvMirrorTest, AnyNumberOfWorkersFindsItsKeys) {
  for (int i = 0; i < 300; ++i) {
    m_stStore.Set("key" + std::to_string(i), "v");
  }
  ASSERT_EQ("", Mirror());
  for (const uint32_t iWorkers : {1u, 2u, 7u}) {
    uint64_t iAll = 0;
    for (uint32_t i = 0; i < iWorkers; ++i) {
      uint64_t iKeys = 0;
      EXPECT_EQ("", Load(i, iWorkers, iKeys));
      iAll += iKeys;
    }
    EXPECT_EQ(300u, iAll);
  }
}

TEST_F(KvMirrorTest, OtherWorkersRowsAreLeftAlone) {
  for (int i = 0; i < 300; ++i) {
    m_stStore.Set("key" + std::to_string(i), "v");
  }
  ASSERT_EQ("", Mirror());
  const StoreTable stHalf(1 << 20, 1, 2);
  KeyStore stEmpty;
  ASSERT_EQ("", stEmpty.Attach(stHalf.Name()));
  DumpStat_t stDump{};
  ASSERT_EQ("", WriteDump(stEmpty, stHalf.Name().stMark, m_strDump, stDump));
  const std::string strOthers = Ask("SELECT COUNT(*) FROM kv_keys WHERE owner % 2 = 0");
  EXPECT_EQ("", WriteMirror(m_stSettings, stHalf.Name().stMark, m_strDump, m_stStat));
  EXPECT_EQ(strOthers, Ask("SELECT COUNT(*) FROM kv_keys"));
  EXPECT_EQ(300u, m_stStat.iDeleted + strtoull(strOthers.c_str(), nullptr, 10));
}

TEST_F(KvMirrorTest, RowsGoInBatchesOfAMegabyte) {
  for (int i = 0; i < 5000; ++i) {
    m_stStore.Set("key" + std::to_string(i), std::string(1000, 'v'));
  }
  const auto Inserts = [this] {
    return atoi(Ask("SELECT variable_value FROM information_schema.global_status WHERE "
                    "variable_name = 'COM_INSERT'")
                    .c_str());
  };
  const int iBefore = Inserts();
  EXPECT_EQ("", Mirror());
  EXPECT_EQ(5000u, m_stStat.iWritten);
  EXPECT_GE(Inserts() - iBefore, 10);
  EXPECT_LE(Inserts() - iBefore, 13);
  m_stStore.Clear();
  EXPECT_EQ("", Mirror());
  EXPECT_EQ(5000u, m_stStat.iDeleted);
  EXPECT_EQ("0", Ask("SELECT COUNT(*) FROM kv_keys"));
}

TEST_F(KvMirrorTest, ADamagedDumpChangesNothing) {
  m_stStore.Set("a", "old");
  ASSERT_EQ("", Mirror());
  m_stStore.Set("a", "new");
  Dump();
  std::ofstream(m_strDump, std::ios::app) << "x";
  EXPECT_EQ(Place() + m_strDump + ": something follows its end",
            WriteMirror(m_stSettings, Mark(), m_strDump, m_stStat));
  EXPECT_EQ("old", Ask("SELECT value FROM kv_keys"));
}

// The client library connects again by itself, but must not do so in the midst of the rows.
TEST_F(KvMirrorTest, ALostConnectionIsTheEndOfTheTransaction) {
  m_stStore.Set("a", "old");
  ASSERT_EQ("", Mirror());
  m_stStore.Set("a", "new");
  Dump();
  const std::string strBytes = ReadFile(m_strDump);
  const std::string strFifo = m_stDirectory.File("fifo");
  ASSERT_EQ(0, mkfifo(strFifo.c_str(), 0600));
  ForkedPeer stWriter([&] {
    const std::string strError = WriteMirror(m_stSettings, Mark(), strFifo, m_stStat);
    return strError.empty() ? 1 : 0;
  });
  {
    std::ofstream stFifo(strFifo);  // from here on the writer reads, in its transaction
    EXPECT_EQ(0, Execute(m_stMysql,
                         "KILL " + Ask("SELECT id FROM information_schema.processlist WHERE user = "
                                       "'zelk' AND id <> CONNECTION_ID()")));
    stFifo << strBytes;
  }
  EXPECT_EQ(0, stWriter.Wait());
  EXPECT_EQ("old", Ask("SELECT value FROM kv_keys"));
}

TEST_F(KvMirrorTest, NoConnectionStaysInThePool) {
  uint64_t iKeys = 0;
  ASSERT_EQ("", Mirror());
  ASSERT_EQ("", Load(0, 1, iKeys));
  EXPECT_EQ(nullptr, DbConnectionPool::Instance().GetFreeMysql("mirror"));
  EXPECT_TRUE(WaitUntil([&] {
    return Ask("SELECT COUNT(*) FROM information_schema.processlist WHERE user = 'zelk'") == "1";
  }));
}

TEST_F(KvMirrorTest, WhatTheDatabaseRefusesIsTold) {
  m_stSettings.strMirrorDatabase = "nowhere";
  EXPECT_EQ("the mirror nowhere.kv_keys at 127.0.0.1:" + std::to_string(Server().Port()) +
                ": Unknown database 'nowhere'",
            Mirror());
  uint64_t iKeys = 0;
  EXPECT_NE("", Load(0, 1, iKeys));
  m_stSettings.strMirrorDatabase = DATABASE;
  ASSERT_EQ(0, Execute(m_stMysql, "CREATE TABLE kv_keys (id INT)"));
  EXPECT_EQ(0u, Mirror().find(Place() + "Unknown column 'digest'"));
  EXPECT_EQ(0u, Load(0, 1, iKeys).find(Place() + "Unknown column 'name'"));
}

}  // namespace
