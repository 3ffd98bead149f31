#include "journal.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <optional>

#include "dump_file.h"
#include "kv_store_fixture.h"
#include "log.h"
#include "saver.h"
#include "zelk_variable.h"

namespace {

const int64_t NOW = 1700000000000;

// What a worker process has of store, journal and saves. Destroyed it is as killed: nothing that
// is still in its hands is written.
class Life {
 public:
  Life(const TableName_t& stName, const Settings_t& stSettings)
      : m_stSaver(stSettings, m_stStore, stName.stMark, m_stIds) {
    EXPECT_EQ("", m_stStore.Attach(stName));
    m_stStore.SetTime(NOW);
    m_strError = m_stSaver.Load();
  }

  KeyStore& Store() { return m_stStore; }
  Saver& Saves() { return m_stSaver; }
  Journal& Writes() { return m_stSaver.TheJournal(); }
  const std::string& Error() const { return m_strError; }
  bool Set(const std::string& strKey, const std::string& strValue) {
    return m_stStore.Set(strKey, strValue) && Writes().Commit();
  }

 private:
  KeyStore m_stStore;
  IdGenerator m_stIds;
  Saver m_stSaver;
  std::string m_strError;
};

class KvJournalTest : public testing::Test {
 protected:
  KvJournalTest() {
    m_stLog.SetPath(m_stDirectory.File("log"));
    g_pLog = &m_stLog;
    m_stSettings.strSavePath = m_stDirectory.Path();
    m_stSettings.strJournalSync = "batch";
    NewTable();
  }
  ~KvJournalTest() override {
    m_stLife.reset();
    g_pLog = nullptr;
  }

  // The next worker, which finds the table.
  Life& Restart() {
    m_stLife.reset();
    m_stLife.emplace(m_pTable->Name(), m_stSettings);
    return *m_stLife;
  }
  void NewTable() {
    m_stLife.reset();
    m_pTable = std::make_unique<StoreTable>();
  }
  // The next worker, for which all tables are gone.
  Life& Boot() { return NewTable(), Restart(); }

  bool HasFile(uint64_t iGeneration) const { return access(File(iGeneration).c_str(), F_OK) == 0; }
  std::string File(uint64_t iGeneration) const {
    return JournalPath(m_stDirectory.Path(), 0, iGeneration);
  }
  std::string LogText() {
    std::string strText;
    FILE* pFile = popen(("cat " + m_stDirectory.File("log") + "/*").c_str(), "r");
    for (int c = 0; (c = fgetc(pFile)) != EOF;) {
      strText += static_cast<char>(c);
    }
    pclose(pFile);
    return strText;
  }

  const PrivateDirectory m_stDirectory;
  Log m_stLog;
  Settings_t m_stSettings;
  std::unique_ptr<StoreTable> m_pTable;
  std::optional<Life> m_stLife;
};

TEST_F(KvJournalTest, EveryKindOfChangeComesBack) {
  KeyStore& stStore = Restart().Store();
  uint64_t iSize = 0;
  stStore.Set("early", "cleared");
  stStore.Clear();
  stStore.Set("a", "1");
  stStore.Set("a", "in place");
  stStore.Set("a", std::string(3000, 'l'));
  stStore.Append("a", "and more", iSize);
  stStore.Append("made", "by append", iSize);
  stStore.Set("mortal", "v");
  stStore.SetExpiry("mortal", NOW + 9000);
  stStore.Set("gone", "v");
  stStore.Remove("gone");
  stStore.Set("swept", "v", NOW + 1);
  stStore.SetTime(NOW + 1);
  stStore.Sweep(0);
  EXPECT_TRUE(m_stLife->Writes().Commit());
  KeyStore& stAgain = Boot().Store();
  EXPECT_EQ("", m_stLife->Error());
  EXPECT_EQ(3u, stAgain.Count());
  EXPECT_EQ(std::string(3000, 'l') + "and more", ValueOf(stAgain, "a"));
  EXPECT_EQ("by append", ValueOf(stAgain, "made"));
  EXPECT_EQ(NOW + 9000, stAgain.Get("mortal")->iExpireAt);
}

TEST_F(KvJournalTest, OffNothingIsWritten) {
  m_stSettings.strJournalSync = "no";
  EXPECT_TRUE(Restart().Set("a", "1"));
  m_stLife->Writes().Turn(0);
  m_stLife->Saves().Finish();
  EXPECT_TRUE(JournalGenerations(m_stDirectory.Path(), 0).empty());
  EXPECT_EQ(0u, m_stLife->Store().Mark());
  EXPECT_EQ("(none)", ValueOf(Boot().Store(), "a"));
}

TEST_F(KvJournalTest, AnIdleTurnWritesNothing) {
  Restart().Set("a", "1");
  const uint64_t iBytes = m_stLife->Writes().Stat().iBytes;
  const uint64_t iSyncs = m_stLife->Writes().Stat().iSyncs;
  ValueOf(m_stLife->Store(), "a");
  EXPECT_FALSE(m_stLife->Store().Remove("never there"));
  EXPECT_TRUE(m_stLife->Writes().Commit());
  EXPECT_EQ(77, m_stLife->Writes().Turn(77));
  EXPECT_EQ(iBytes, m_stLife->Writes().Stat().iBytes);
  EXPECT_EQ(iSyncs, m_stLife->Writes().Stat().iSyncs);
}

TEST_F(KvJournalTest, EachBatchIsSyncedBeforeItIsAnswered) {
  Restart();
  for (uint64_t i = 1; i <= 5; ++i) {
    m_stLife->Store().Set("a", "1");
    m_stLife->Store().Set("b", "1");
    EXPECT_TRUE(m_stLife->Writes().Commit());
    EXPECT_EQ(i, m_stLife->Writes().Stat().iSyncs);
    EXPECT_EQ(0u, m_stLife->Writes().Stat().iPending);
  }
}

TEST_F(KvJournalTest, ASecondPassesBetweenSyncs) {
  m_stSettings.strJournalSync = "second";
  Journal& stJournal = Restart().Writes();
  m_stLife->Set("a", "1");
  EXPECT_EQ(1u, stJournal.Stat().iPending);
  EXPECT_EQ(5000, stJournal.Turn(5000));  // at once: there was none for a second
  EXPECT_TRUE(WaitUntil([&] { return stJournal.Turn(0), stJournal.Stat().iSyncs == 1; }));
  EXPECT_EQ(0u, stJournal.Stat().iPending);
  EXPECT_EQ(-1, stJournal.WaitFD());
  m_stLife->Set("a", "2");
  const int iWait = stJournal.Turn(5000);
  EXPECT_GT(iWait, 0);
  EXPECT_LE(iWait, 1000);
  EXPECT_EQ(1u, stJournal.Stat().iPending);
  const auto Synced = [&] { return stJournal.Turn(0), stJournal.Stat().iSyncs == 2; };
  EXPECT_FALSE(WaitUntil(Synced, iWait / 2));
  EXPECT_TRUE(WaitUntil(Synced, 3000));
}

TEST_F(KvJournalTest, TheEndSyncsWhatWaits) {
  m_stSettings.strJournalSync = "second";
  Restart().Set("a", "1");
  m_stLife->Store().Set("b", "1");
  m_stLife->Saves().Finish();
  EXPECT_EQ(0u, m_stLife->Writes().Stat().iPending);
  EXPECT_EQ(1u, m_stLife->Writes().Stat().iSyncs);
  EXPECT_EQ("1", ValueOf(Boot().Store(), "b"));
}

// A turn of large values does not wait for its end.
TEST_F(KvJournalTest, MuchIsWrittenBeforeTheTurnEnds) {
  Restart();
  for (int i = 0; i < 30; ++i) {
    m_stLife->Store().Set("a", std::string(100000, 'v'));
  }
  EXPECT_GT(m_stLife->Writes().Stat().iBytes, 2000000u);
  EXPECT_TRUE(m_stLife->Writes().Commit());
  EXPECT_EQ(0u, m_stLife->Writes().Stat().iPending);
}

TEST_F(KvJournalTest, AWorkerThatFindsAllInStepGoesOnWithoutASave) {
  Restart().Set("a", "1");
  EXPECT_FALSE(Restart().Writes().WantsSave());
  m_stLife->Set("b", "2");
  EXPECT_TRUE(HasFile(1) && HasFile(2));
  Life& stBooted = Boot();
  EXPECT_EQ("1", ValueOf(stBooted.Store(), "a"));
  EXPECT_EQ("2", ValueOf(stBooted.Store(), "b"));
}

// Killed between the change and its record: the table has it, the journal has not.
TEST_F(KvJournalTest, AWorkerKilledBeforeItsRecordWasWrittenHasASaveMade) {
  Restart().Set("a", "1");
  m_stLife->Store().Set("b", "only in the table");
  Life& stNext = Restart();
  EXPECT_EQ("only in the table", ValueOf(stNext.Store(), "b"));
  EXPECT_TRUE(stNext.Writes().WantsSave());
  EXPECT_EQ(0u, stNext.Writes().Stat().iWhole);
  EXPECT_TRUE(stNext.Set("c", "3"));  // served meanwhile
  EXPECT_TRUE(Restart().Writes().WantsSave());
  EXPECT_TRUE(m_stLife->Saves().SaveNow());
  EXPECT_FALSE(m_stLife->Writes().WantsSave());
  EXPECT_FALSE(Restart().Writes().WantsSave());
  Life& stBooted = Boot();
  EXPECT_EQ("only in the table", ValueOf(stBooted.Store(), "b"));
  EXPECT_EQ("3", ValueOf(stBooted.Store(), "c"));
}

// Removals, expiry times and clearing take the mark away too.
TEST_F(KvJournalTest, NoChangeEscapesTheMark) {
  const auto Ahead = [this](const std::function<void(KeyStore&)>& fnChange) {
    EXPECT_TRUE(Boot().Set("key of " + std::to_string(m_pTable->Key()), "v"));
    EXPECT_TRUE(m_stLife->Set("a", "1"));
    EXPECT_NE(0u, m_stLife->Store().Mark());
    fnChange(m_stLife->Store());
    return m_stLife->Store().Mark() == 0;
  };
  EXPECT_TRUE(Ahead([](KeyStore& stStore) { stStore.Set("a", "2"); }));
  EXPECT_TRUE(Ahead([](KeyStore& stStore) { stStore.Set("new", "2"); }));
  EXPECT_TRUE(Ahead([](KeyStore& stStore) { stStore.Remove("a"); }));
  EXPECT_TRUE(Ahead([](KeyStore& stStore) { stStore.SetExpiry("a", NOW + 1); }));
  EXPECT_TRUE(Ahead([](KeyStore& stStore) { stStore.Clear(); }));
  EXPECT_FALSE(Ahead([](KeyStore& stStore) { stStore.Remove("never there"); }));
  EXPECT_FALSE(Ahead([](KeyStore& stStore) { stStore.Set("large", std::string(2000000, 'v')); }));
}

TEST_F(KvJournalTest, WithoutAJournalForATimeASaveMakesItWhole) {
  Restart().Set("a", "1");
  m_stSettings.strJournalSync = "no";
  Restart().Set("a", "2");
  m_stSettings.strJournalSync = "batch";
  EXPECT_TRUE(Restart().Writes().WantsSave());
}

// What files tell is not given up because a setting was changed.
TEST_F(KvJournalTest, FilesThatAreThereAreReplayedWithTheJournalOff) {
  Restart().Set("a", "1");
  m_stSettings.strJournalSync = "no";
  EXPECT_EQ("1", ValueOf(Boot().Store(), "a"));
  EXPECT_TRUE(m_stLife->Set("a", "2"));
  EXPECT_TRUE(m_stLife->Saves().SaveNow());
  EXPECT_TRUE(JournalGenerations(m_stDirectory.Path(), 0).empty());
  EXPECT_EQ("2", ValueOf(Boot().Store(), "a"));
}

TEST_F(KvJournalTest, ASaveStartsAFileAnewAndRemovesTheOld) {
  Restart().Set("a", "before");
  EXPECT_TRUE(m_stLife->Saves().SaveNow());
  EXPECT_FALSE(HasFile(1));
  EXPECT_TRUE(HasFile(2));
  EXPECT_EQ(sizeof(JournalHead_t), m_stLife->Writes().Stat().iBytes);
  m_stLife->Set("b", "after");
  Life& stBooted = Boot();
  EXPECT_EQ("before", ValueOf(stBooted.Store(), "a"));
  EXPECT_EQ("after", ValueOf(stBooted.Store(), "b"));
}

TEST_F(KvJournalTest, SavesWithoutChangesKeepTheFile) {
  Restart();
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(m_stLife->Saves().SaveNow());
  }
  EXPECT_EQ((std::vector<uint64_t>{1}), JournalGenerations(m_stDirectory.Path(), 0));
}

// Killed when the dump had its name and before the old file was removed.
TEST_F(KvJournalTest, AnOldFileIsNotReplayedOverANewerDump) {
  Restart().Set("a", "old");
  const std::string strOld = ReadFile(File(1));
  m_stLife->Store().Remove("a");
  EXPECT_TRUE(m_stLife->Saves().SaveNow());
  WriteFile(File(1), strOld);
  EXPECT_EQ("(none)", ValueOf(Boot().Store(), "a"));
  EXPECT_TRUE(m_stLife->Saves().SaveNow());
  EXPECT_FALSE(HasFile(1));
}

// Killed when the next file was there and the dump was not.
TEST_F(KvJournalTest, AFailedSaveLosesNothing) {
  Restart().Set("a", "1");
  ASSERT_EQ(0, mkdir((m_stDirectory.File("dump-0.kv")).c_str(), 0700));
  EXPECT_FALSE(m_stLife->Saves().SaveNow());
  EXPECT_TRUE(m_stLife->Set("b", "2"));
  EXPECT_TRUE(HasFile(1) && HasFile(2));
  ASSERT_EQ(0, rmdir((m_stDirectory.File("dump-0.kv")).c_str()));
  Life& stBooted = Boot();
  EXPECT_EQ("", stBooted.Error());
  EXPECT_EQ("1", ValueOf(stBooted.Store(), "a"));
  EXPECT_EQ("2", ValueOf(stBooted.Store(), "b"));
}

TEST_F(KvJournalTest, AGapInTheRowIsRefused) {
  Restart().Set("a", "1");
  Restart().Set("a", "2");
  Restart().Set("a", "3");
  unlink(File(2).c_str());
  EXPECT_EQ(File(3) + ": what goes before it is missing; move it away to go on without its keys",
            Boot().Error());
  unlink(File(1).c_str());
  EXPECT_EQ(File(3) + ": what goes before it is missing; move it away to go on without its keys",
            Boot().Error());
}

// The changes behind a dump mean little without it.
TEST_F(KvJournalTest, ALostDumpIsNotPassedOver) {
  Restart().Set("a", "1");
  EXPECT_TRUE(m_stLife->Saves().SaveNow());
  EXPECT_TRUE(m_stLife->Set("b", "1"));
  unlink(m_stDirectory.File("dump-0.kv").c_str());
  EXPECT_TRUE(Restart().Writes().WantsSave());  // the table can make it again
  EXPECT_EQ(File(2) + ": what goes before it is missing; move it away to go on without its keys",
            Boot().Error());
}

TEST_F(KvJournalTest, AHalfFilledTableIsFilledFromTheStart) {
  Restart().Set("a", "1");
  m_stLife->Store().Remove("a");
  m_stLife->Writes().Commit();
  NewTable();
  {
    KeyStore stKilled;
    ASSERT_EQ("", stKilled.Attach(m_pTable->Name()));
    stKilled.Set("a", "1");  // half of the journal
  }
  EXPECT_EQ("(none)", ValueOf(Restart().Store(), "a"));
}

TEST_F(KvJournalTest, ATornRecordIsCutOffWithALineInTheLog) {
  Restart().Set("a", "1");
  m_stLife->Set("b", "torn");
  ASSERT_EQ(0, truncate(File(1).c_str(), 24 + 24 + 2 + 24 + 3));
  EXPECT_EQ("1", ValueOf(Boot().Store(), "a"));
  EXPECT_EQ("(none)", ValueOf(m_stLife->Store(), "b"));
  EXPECT_NE(std::string::npos,
            LogText().find(File(1) + ": a torn last record of 27 bytes is cut off"));
}

// The limit on a file's size is what a full disk is.
class KvJournalFullTest : public KvJournalTest {
 protected:
  KvJournalFullTest() {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &m_stFree);
  }
  ~KvJournalFullTest() override { Limit(m_stFree.rlim_cur); }
  void Limit(rlim_t iBytes) {
    const rlimit stLimit{iBytes, m_stFree.rlim_max};
    setrlimit(RLIMIT_FSIZE, &stLimit);
  }
  // The file has room for a part of the value only.
  void FillUp() {
    Restart().Set("a", "1");
    Limit(20000);
    EXPECT_FALSE(m_stLife->Set("b", std::string(100000, 'v')));
    Limit(m_stFree.rlim_cur);
  }
  rlimit m_stFree{};
};

TEST_F(KvJournalFullTest, WritesAreRefusedUntilASaveHasSucceeded) {
  FillUp();
  EXPECT_EQ(File(1) + ": File too large", m_stLife->Writes().Refusal());
  EXPECT_EQ(0u, m_stLife->Writes().Stat().iGood);
  EXPECT_TRUE(m_stLife->Writes().WantsSave());
  EXPECT_NE(std::string::npos, LogText().find("worker 0: the journal can not be written: " +
                                              File(1) + ": File too large; writes are refused"));
  EXPECT_TRUE(m_stLife->Saves().SaveNow());
  EXPECT_EQ("", m_stLife->Writes().Refusal());
  EXPECT_EQ(1u, m_stLife->Writes().Stat().iGood);
  EXPECT_EQ("1", ValueOf(Boot().Store(), "a"));
  EXPECT_EQ(std::string(100000, 'v'), ValueOf(m_stLife->Store(), "b"));
}

// Its successor knows, or it would take writes that end it again.
TEST_F(KvJournalFullTest, TheNextWorkerRefusesWritesToo) {
  FillUp();
  Life& stNext = Restart();
  EXPECT_EQ("an earlier worker could not write it", stNext.Writes().Refusal());
  EXPECT_TRUE(stNext.Saves().SaveNow());
  EXPECT_EQ("", stNext.Writes().Refusal());
  EXPECT_TRUE(stNext.Set("c", "3"));
  EXPECT_FALSE(Restart().Writes().WantsSave());
  EXPECT_EQ("3", ValueOf(Boot().Store(), "c"));
}

TEST_F(KvJournalFullTest, TheTornRecordOfAFullDiskLosesNothingBeforeIt) {
  FillUp();
  EXPECT_EQ("1", ValueOf(Boot().Store(), "a"));
  EXPECT_EQ("", m_stLife->Error());
  EXPECT_EQ("(none)", ValueOf(m_stLife->Store(), "b"));
  EXPECT_TRUE(m_stLife->Set("c", "3"));
}

TEST_F(KvJournalFullTest, AFailedSaveDoesNotOpenTheWay) {
  FillUp();
  Limit(1000);
  EXPECT_FALSE(m_stLife->Saves().SaveNow());
  EXPECT_FALSE(m_stLife->Saves().SaveNow());
  EXPECT_NE("", m_stLife->Writes().Refusal());
  Limit(m_stFree.rlim_cur);
  EXPECT_EQ(2u, JournalGenerations(m_stDirectory.Path(), 0).size());
}

TEST_F(KvJournalFullTest, AStartWithoutRoomForAFileServesReads) {
  Restart().Set("a", "1");
  Limit(10);
  EXPECT_EQ("1", ValueOf(Restart().Store(), "a"));
  EXPECT_EQ(File(2) + ": No space left on device", m_stLife->Writes().Refusal());
}

}  // namespace
