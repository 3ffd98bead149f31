#include "saver.h"

#include <unistd.h>

#include "dump_file.h"
#include "kv_store_fixture.h"
#include "log.h"
#include "zelk_variable.h"

namespace {

// The saver of a worker that is not there; its children are real.
class KvSaverTest : public KvStoreTest {
 protected:
  KvSaverTest() {
    m_stSettings.strRunDir = m_stDirectory.Path();
    m_stSettings.vecSaveRules = {{10, 1}};
    m_stLog.SetPath(m_stDirectory.Path());
    g_pLog = &m_stLog;
    g_pWorkerIndex = &m_iWorker;
  }
  ~KvSaverTest() override {
    g_pLog = nullptr;
    g_pWorkerIndex = nullptr;
  }
  bool Exists(const std::string& strName) {
    return access(m_stDirectory.File(strName).c_str(), F_OK) == 0;
  }
  static bool Ends(Saver& stSaver) {
    return WaitUntil([&] { return stSaver.Turn(1000), !stSaver.Running(); });
  }

  const PrivateDirectory m_stDirectory;
  Settings_t m_stSettings;
  Log m_stLog;
  int m_iWorker = 0;
  IdGenerator m_stIds;
};

// A saver takes the time of a missing dump from the system: years behind the fixture's now.
TEST_F(KvSaverTest, RulesHoldAlsoWhenTheClockIsBehindTheLastSave) {
  Saver stSaver(m_stSettings, m_stStore, m_stTable.Name().stMark, m_stIds);
  ASSERT_EQ("", stSaver.Load());
  ASSERT_GT(static_cast<int64_t>(stSaver.Stat().iLastSave), NOW / 1000);
  stSaver.Turn(1000);
  EXPECT_FALSE(stSaver.Running());  // nothing has changed
  m_stStore.Set("a", "1");
  stSaver.Turn(1000);
  EXPECT_TRUE(stSaver.Running());
  EXPECT_TRUE(Ends(stSaver));
  EXPECT_TRUE(Exists("dump-0.kv"));
  EXPECT_EQ(static_cast<uint64_t>(NOW / 1000), stSaver.Stat().iLastSave);
  m_stStore.Set("a", "2");
  m_stStore.SetTime(NOW + 9999);
  stSaver.Turn(1000);
  EXPECT_FALSE(stSaver.Running());  // ten seconds are not over
}

TEST_F(KvSaverTest, AfterAFailureTheRulesWaitButNotForAClockThatWasSetBack) {
  m_stSettings.strSavePath = "/no/such/directory";
  Saver stSaver(m_stSettings, m_stStore, m_stTable.Name().stMark, m_stIds);
  ASSERT_EQ("", stSaver.Load());
  m_stStore.Set("a", "1");
  EXPECT_FALSE(stSaver.SaveNow());
  m_stStore.SetTime(NOW + 4999);
  stSaver.Turn(1000);
  EXPECT_FALSE(stSaver.Running());
  m_stStore.SetTime(NOW - 3600000);
  stSaver.Turn(1000);
  EXPECT_TRUE(stSaver.Running());
  EXPECT_TRUE(Ends(stSaver));
  EXPECT_EQ(0u, stSaver.Stat().iLastGood);
}

TEST_F(KvSaverTest, ATableThatWasThereCountsAsOneChange) {
  ASSERT_TRUE(m_stStore.SetLoaded());
  Saver stSaver(m_stSettings, m_stStore, m_stTable.Name().stMark, m_stIds);
  EXPECT_EQ("", stSaver.Load());
  EXPECT_EQ(1u, stSaver.Stat().iChanges);
  stSaver.Finish();
  EXPECT_TRUE(Exists("dump-0.kv"));
  EXPECT_EQ(0u, stSaver.Stat().iChanges);
}

TEST_F(KvSaverTest, ChangesSinceTheSnapshotAreNotSaved) {
  Saver stSaver(m_stSettings, m_stStore, m_stTable.Name().stMark, m_stIds);
  ASSERT_EQ("", stSaver.Load());
  m_stStore.Set("a", "1");
  ASSERT_TRUE(stSaver.Start("for a test"));
  m_stStore.Set("b", "1");
  EXPECT_TRUE(Ends(stSaver));
  EXPECT_EQ(1u, stSaver.Stat().iLastGood);
  EXPECT_EQ(1u, stSaver.Stat().iChanges);
}

// While there is more to copy the loop must not sleep.
TEST_F(KvSaverTest, ASaveIsCalledAgainAtOnceUntilAllIsCopied) {
  Saver stSaver(m_stSettings, m_stStore, m_stTable.Name().stMark, m_stIds);
  ASSERT_EQ("", stSaver.Load());
  for (int i = 0; i < 200; ++i) {
    m_stStore.Set("key" + std::to_string(i), std::string(1000, 'v'));
  }
  ASSERT_TRUE(stSaver.Start("for a test"));
  EXPECT_EQ(0, stSaver.Turn(1000));
  EXPECT_TRUE(WaitUntil([&] { return stSaver.Turn(1000) > 1; }));
  EXPECT_TRUE(Ends(stSaver));
  StoreTable stCopy;
  KeyStore stLoaded;
  ASSERT_EQ("", stLoaded.Attach(stCopy.Name()));
  DumpStat_t stStat{};
  EXPECT_EQ("",
            LoadDump(stLoaded, m_stTable.Name().stMark, m_stDirectory.File("dump-0.kv"), stStat));
  EXPECT_EQ(200u, stLoaded.Count());
}

TEST_F(KvSaverTest, TheEndOfASaveAlsoEndsItsCopy) {
  Saver stSaver(m_stSettings, m_stStore, m_stTable.Name().stMark, m_stIds);
  ASSERT_EQ("", stSaver.Load());
  m_stStore.Set("a", "1");
  ASSERT_TRUE(stSaver.Start("for a test"));
  m_stStore.Set("a", "2");
  EXPECT_TRUE(stSaver.SaveNow());  // in place of the child
  StoreTable stCopy;
  KeyStore stLoaded;
  ASSERT_EQ("", stLoaded.Attach(stCopy.Name()));
  DumpStat_t stStat{};
  EXPECT_EQ("",
            LoadDump(stLoaded, m_stTable.Name().stMark, m_stDirectory.File("dump-0.kv"), stStat));
  EXPECT_EQ("2", ::ValueOf(stLoaded, "a"));
}

TEST_F(KvSaverTest, ANewTableWithoutADumpHasNoChanges) {
  Saver stSaver(m_stSettings, m_stStore, m_stTable.Name().stMark, m_stIds);
  EXPECT_EQ("", stSaver.Load());
  EXPECT_EQ(0u, stSaver.Stat().iChanges);
  stSaver.Finish();
  EXPECT_FALSE(Exists("dump-0.kv"));
}

TEST_F(KvSaverTest, WhatAKilledSaverHasLeftIsRemovedAtTheStart) {
  WriteFile(m_stDirectory.File("dump-0.kv.new"), "half a dump");
  Saver stSaver(m_stSettings, m_stStore, m_stTable.Name().stMark, m_stIds);
  EXPECT_EQ("", stSaver.Load());
  EXPECT_FALSE(Exists("dump-0.kv.new"));
}

// A shutdown without a save that another worker has refused is not the end.
TEST_F(KvSaverTest, AnUnwantedSaveIsWantedAgainWhenTheEndDoesNotCome) {
  Saver stSaver(m_stSettings, m_stStore, m_stTable.Name().stMark, m_stIds);
  ASSERT_EQ("", stSaver.Load());
  m_stStore.Set("a", "1");
  stSaver.DoNotSaveAtEnd();
  stSaver.Finish();
  EXPECT_FALSE(Exists("dump-0.kv"));
  m_stStore.SetTime(NOW + 60000);
  stSaver.Finish();
  EXPECT_TRUE(Exists("dump-0.kv"));
}

}  // namespace
