#include "table_set.h"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <memory>
#include <set>

#include "heap_image.h"
#include "kv_store_fixture.h"
#include "log.h"
#include "zelk_variable.h"

namespace {

bool SegmentExists(key_t iKey) { return shmget(iKey, 0, 0) != -1; }

size_t SegmentSize(key_t iKey) {
  shmid_ds stStatus{};
  return shmctl(shmget(iKey, 0, 0), IPC_STAT, &stStatus) == 0 ? stStatus.shm_segsz : 0;
}

// Masters of one run directory, one after the other.
class KvTableSetTest : public ::testing::Test {
 protected:
  KvTableSetTest() {
    m_stSettings.iWorkers = 2;
    m_stSettings.iTableBuckets = StoreTable::BUCKETS;
    m_stSettings.iTableBytes = KeyTable::HeadSize(StoreTable::BUCKETS) + 65536;
    m_stLog.SetPath(m_stDirectory.File("log"));
    g_pLog = &m_stLog;
  }
  ~KvTableSetTest() override {
    for (const TableName_t& stName : m_vecSeen) {
      shmctl(shmget(stName.iKey, 0, 0), IPC_RMID, nullptr);
    }
    g_pLog = nullptr;
  }

  // What the next master says, and finds.
  std::string Prepare() {
    m_pSet = std::make_unique<TableSet>(m_stDirectory.Path());
    const std::string strError = m_pSet->Prepare(m_stSettings);
    m_vecSeen.insert(m_vecSeen.end(), Names().begin(), Names().end());
    return strError;
  }
  const std::vector<TableName_t>& Names() const { return m_pSet->Names(); }
  key_t Key(size_t iWorker) const { return Names()[iWorker].iKey; }

  bool Put(size_t iWorker, const char* pValue) {
    KeyStore stStore;
    return stStore.Attach(Names()[iWorker]).empty() && stStore.Set("a", pValue);
  }
  std::string Value(size_t iWorker) {
    KeyStore stStore;
    const std::string strError = stStore.Attach(Names()[iWorker]);
    return strError.empty() ? ValueOf(stStore, "a") : strError;
  }

  const PrivateDirectory m_stDirectory;
  Settings_t m_stSettings;
  class Log m_stLog;
  std::unique_ptr<TableSet> m_pSet;
  std::vector<TableName_t> m_vecSeen;
};

TEST_F(KvTableSetTest, EachWorkerHasItsOwnTable) {
  ASSERT_EQ("", Prepare());
  ASSERT_EQ(2u, Names().size());
  EXPECT_NE(Key(0), Key(1));
  EXPECT_TRUE(Put(0, "first"));
  EXPECT_TRUE(Put(1, "second"));
  EXPECT_EQ("first", Value(0));
  EXPECT_EQ(ftok(m_stDirectory.File("run").c_str(), 1), Key(0));
  EXPECT_EQ(std::to_string(Key(0)) + " 0\n" + std::to_string(Key(1)) + " 1\n",
            ReadFile(m_stDirectory.File("tables")));
}

TEST_F(KvTableSetTest, ATableThatIsTooSmallIsMadeAnewWithTwiceTheBytesTwice) {
  ASSERT_EQ("", Prepare());
  Put(0, "kept");
  Put(1, "given up");
  const key_t iKey = Key(1);
  EXPECT_TRUE(m_pSet->Enlarge(1));
  EXPECT_EQ("(none)", Value(1));
  EXPECT_EQ(2 * m_stSettings.iTableBytes, SegmentSize(iKey));
  EXPECT_TRUE(m_pSet->Enlarge(1));
  EXPECT_EQ(4 * m_stSettings.iTableBytes, SegmentSize(iKey));
  EXPECT_TRUE(Put(1, "new"));
  EXPECT_FALSE(m_pSet->Enlarge(1));
  EXPECT_EQ("new", Value(1));
  ASSERT_EQ("", Prepare());
  EXPECT_EQ(iKey, Key(1));
  EXPECT_EQ("kept", Value(0));
  EXPECT_EQ("new", Value(1));
}

TEST_F(KvTableSetTest, LaterMastersFindThem) {
  ASSERT_EQ("", Prepare());
  Put(1, "second");
  const key_t iKey = Key(1);
  ASSERT_EQ("", Prepare());
  EXPECT_EQ(iKey, Key(1));
  EXPECT_EQ("second", Value(1));
}

TEST_F(KvTableSetTest, AlsoWithoutTheList) {
  ASSERT_EQ("", Prepare());
  Put(1, "second");
  unlink(m_stDirectory.File("tables").c_str());
  ASSERT_EQ("", Prepare());
  EXPECT_EQ("second", Value(1));
}

TEST_F(KvTableSetTest, ATableThatIsGoneIsMadeAnewAndTheOthersStay) {
  ASSERT_EQ("", Prepare());
  Put(0, "first");
  Put(1, "second");
  shmctl(shmget(Key(0), 0, 0), IPC_RMID, nullptr);
  ASSERT_EQ("", Prepare());
  EXPECT_EQ("(none)", Value(0));
  EXPECT_EQ("second", Value(1));
}

// "new" stands in the list until a table is whole.
TEST_F(KvTableSetTest, WhatAKilledMasterHadHalfMadeIsMadeAnew) {
  ASSERT_EQ("", Prepare());
  Put(1, "second");
  const key_t iKey = Key(0);
  shmctl(shmget(iKey, 0, 0), IPC_RMID, nullptr);
  ASSERT_NE(-1, shmget(iKey, 16 << 20, IPC_CREAT | 0600));
  WriteFile(m_stDirectory.File("tables"),
            std::to_string(iKey) + " 0 new\n" + std::to_string(Key(1)) + " 1\n");
  ASSERT_EQ("", Prepare());
  EXPECT_EQ(iKey, Key(0));
  EXPECT_EQ("(none)", Value(0));
  EXPECT_EQ("second", Value(1));
}

TEST_F(KvTableSetTest, AKeyThatSomebodyElseHasIsPassedOver) {
  ASSERT_EQ("", Prepare());
  const key_t iKey = Key(0);
  for (size_t i = 0; i < 2; ++i) {
    shmctl(shmget(Key(i), 0, 0), IPC_RMID, nullptr);
  }
  unlink(m_stDirectory.File("tables").c_str());
  const HeapImage stForeign(iKey, 4096);
  ASSERT_EQ("", Prepare());
  EXPECT_NE(iKey, Key(0));
  EXPECT_NE(iKey, Key(1));
  EXPECT_TRUE(Put(0, "first"));
}

TEST_F(KvTableSetTest, AListedKeyThatSomebodyElseHasIsAnError) {
  ASSERT_EQ("", Prepare());
  const key_t iKey = Key(1);
  shmctl(shmget(iKey, 0, 0), IPC_RMID, nullptr);
  const HeapImage stForeign(iKey, 4096);
  EXPECT_EQ(TableSet::Describe(Names()[1]) +
                " is not ours: it holds no table of this server; remove " +
                m_stDirectory.File("tables") + " to have another key looked for",
            Prepare());
  EXPECT_EQ(0u, stForeign.Word(0));
}

// A directory removed and made again: the derived key may be that of the earlier one's table.
TEST_F(KvTableSetTest, AnotherRunsTableIsNotTaken) {
  ASSERT_EQ("", Prepare());
  Put(0, "first");
  const key_t iKey = Key(0);
  const std::string strRun = ReadFile(m_stDirectory.File("run"));
  WriteFile(m_stDirectory.File("run"),
            "id 12345678-1234-4234-8234-123456789abc" + strRun.substr(39));
  EXPECT_NE(std::string::npos, Prepare().find("is not ours: it has another run id; remove "));
  unlink(m_stDirectory.File("tables").c_str());
  ASSERT_EQ("", Prepare());
  EXPECT_NE(iKey, Key(0));
  EXPECT_EQ("(none)", Value(0));
}

TEST_F(KvTableSetTest, ADamagedTableIsAnError) {
  ASSERT_EQ("", Prepare());
  HeapImage(Key(0)).SetWord(56, 8);
  EXPECT_EQ(TableSet::Describe(Names()[0]) +
                " is damaged: blocks end at offset 8; remove the segment (ipcrm -M) to go on "
                "without its keys",
            Prepare());
}

TEST_F(KvTableSetTest, TablesTellTheirKeys) {
  TableName_t stName{};
  stName.iKey = 0x0102abcd;
  stName.stMark.iWorker = 7;
  EXPECT_EQ("the table of worker 7 (segment 0x0102abcd)", TableSet::Describe(stName));
}

TEST_F(KvTableSetTest, AnotherNumberOfWorkersIsRefused) {
  ASSERT_EQ("", Prepare());
  Put(0, "first");
  m_stSettings.iWorkers = 3;
  EXPECT_EQ("server.workers = \"3\": the keys of server.run_dir = \"" + m_stDirectory.Path() +
                "\" are spread over 2; start with server.workers=2, and once with --ephemeral too "
                "to give the keys up",
            Prepare());
  m_stSettings.iWorkers = 2;
  ASSERT_EQ("", Prepare());
  EXPECT_EQ("first", Value(0));
}

TEST_F(KvTableSetTest, OtherSizesHaveNoEffect) {
  ASSERT_EQ("", Prepare());
  Put(0, "first");
  m_stSettings.iTableBytes *= 2;
  m_stSettings.iTableBuckets *= 4;
  ASSERT_EQ("", Prepare());
  EXPECT_EQ("first", Value(0));
  EXPECT_EQ(StoreTable::BUCKETS, Names()[0].iBuckets);
}

TEST_F(KvTableSetTest, ADamagedRunFileIsAnError) {
  ASSERT_EQ("", Prepare());
  for (const char* pText : {"", "id x\n",
                            "id 12345678-1234-4234-8234-12345678zzzz\nworkers 2\nbytes "
                            "1\nbuckets 1\n"}) {
    WriteFile(m_stDirectory.File("run"), pText);
    TableSet stSet(m_stDirectory.Path());
    EXPECT_EQ(m_stDirectory.File("run") +
                  " is damaged; the keys that belong to it can not be found without it",
              stSet.Prepare(m_stSettings));
  }
}

TEST_F(KvTableSetTest, WhatCanNotBeMadeIsTold) {
  m_stSettings.iTableBytes = 1ull << 60;
  CaptureOutput(2, [&] {
    const std::string strError = Prepare();
    EXPECT_NE(std::string::npos, strError.find(" can not be made: ")) << strError;
    EXPECT_NE(std::string::npos, strError.find(" (table.bytes)")) << strError;
  });
  EXPECT_NE("", TableSet("/proc/nowhere").Prepare(m_stSettings));
}

TEST_F(KvTableSetTest, RemoveLeavesNothing) {
  ASSERT_EQ("", Prepare());
  const key_t iKey = Key(0);
  m_pSet->Remove();
  EXPECT_FALSE(SegmentExists(iKey));
  EXPECT_NE(0, access(m_stDirectory.File("run").c_str(), F_OK));
  EXPECT_NE(0, access(m_stDirectory.File("tables").c_str(), F_OK));
}

}  // namespace
