#include "key_store.h"

#include <sys/shm.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "heap_image.h"
#include "kv_store_fixture.h"

namespace {

class KvKeyStoreTest : public KvStoreTest {
 protected:
  std::set<std::string> ScanAll(uint64_t iCount) {
    std::set<std::string> setKeys;
    uint64_t iBucket = 0;
    do {
      iBucket = m_stStore.Scan(iBucket, iCount, [&](std::string_view strKey, const Value_t&) {
        setKeys.insert(std::string(strKey));
      });
    } while (iBucket != 0);
    return setKeys;
  }

  // As the next process finds it.
  KeyStore& Successor() {
    EXPECT_EQ("", m_stSuccessor.Attach(m_stTable.Name()));
    m_stSuccessor.SetTime(NOW);
    return m_stSuccessor;
  }
  KeyStore m_stSuccessor;
};

TEST_F(KvKeyStoreTest, AKeyHasItsLatestValue) {
  EXPECT_EQ("(none)", ValueOf("a"));
  EXPECT_TRUE(m_stStore.Set("a", "1"));
  EXPECT_TRUE(m_stStore.Set("a", "a value that needs a larger block than the first one had"));
  EXPECT_EQ("a value that needs a larger block than the first one had", ValueOf("a"));
  EXPECT_TRUE(m_stStore.Set("a", ""));
  EXPECT_EQ("", ValueOf("a"));
  EXPECT_EQ(1u, m_stStore.Count());
}

TEST_F(KvKeyStoreTest, KeysAreWholeTexts) {
  m_stStore.Set("ab", "1");
  EXPECT_EQ("(none)", ValueOf("a"));
  EXPECT_EQ("(none)", ValueOf("abc"));
  EXPECT_EQ("1", ValueOf(std::string_view("abc").substr(0, 2)));
  m_stStore.Set("", "the empty key");
  EXPECT_EQ("the empty key", ValueOf(""));
}

TEST_F(KvKeyStoreTest, LookingDoesNotInsert) {
  EXPECT_FALSE(m_stStore.Get("a"));
  EXPECT_FALSE(m_stStore.Remove("b"));
  EXPECT_FALSE(m_stStore.SetExpiry("c", NOW + 1));
  EXPECT_EQ(0u, m_stStore.Count());
}

TEST_F(KvKeyStoreTest, RemoveTellsWhetherThereWasOne) {
  m_stStore.Set("a", "1");
  EXPECT_TRUE(m_stStore.Remove("a"));
  EXPECT_FALSE(m_stStore.Remove("a"));
  EXPECT_EQ("(none)", ValueOf("a"));
}

TEST_F(KvKeyStoreTest, ValuesHoldAnyBytes) {
  const std::string strBinary("\0\r\n\xff", 4);
  m_stStore.Set("a", strBinary);
  EXPECT_EQ(strBinary, ValueOf("a"));
}

TEST_F(KvKeyStoreTest, AppendMakesAndGrows) {
  uint64_t iSize = 0;
  EXPECT_TRUE(m_stStore.Append("a", "abc", iSize));
  EXPECT_EQ(3u, iSize);
  m_stStore.SetExpiry("a", NOW + 10);
  EXPECT_TRUE(m_stStore.Append("a", std::string(5000, 'x'), iSize));
  EXPECT_EQ(5003u, iSize);
  EXPECT_EQ("abc" + std::string(5000, 'x'), ValueOf("a"));
  EXPECT_EQ(NOW + 10, m_stStore.Get("a")->iExpireAt);
}

TEST_F(KvKeyStoreTest, TheNextProcessFindsEverything) {
  for (int i = 0; i < 500; ++i) {
    m_stStore.Set("key" + std::to_string(i), std::string(static_cast<size_t>(i), 'v'),
                  i % 2 == 0 ? KeyStore::NEVER : NOW + i);
  }
  KeyStore& stNext = Successor();
  EXPECT_EQ(500u, stNext.Count());
  EXPECT_EQ(250u, stNext.Stat().iExpiring);
  EXPECT_EQ(0u, stNext.Reclaimed());
  EXPECT_FALSE(stNext.Replayed());
  EXPECT_EQ(std::string(499, 'v'), ::ValueOf(stNext, "key499"));
  EXPECT_EQ(NOW + 499, stNext.Get("key499")->iExpireAt);
}

// The server's entries are named so that no key of a client's can be theirs.
TEST_F(KvKeyStoreTest, ClientsDoNotReachTheMark) {
  for (const char* pKey : {"!run", "run", "s!run", "!try", ""}) {
    EXPECT_EQ("(none)", ValueOf(pKey)) << pKey;
    m_stStore.Set(pKey, "a client's");
    m_stStore.Remove(pKey);
  }
  EXPECT_EQ(0u, m_stStore.Count());
  EXPECT_TRUE(ScanAll(1).empty());
  std::string strKey;
  EXPECT_FALSE(m_stStore.RandomKey(strKey));
  m_stStore.Clear();
  EXPECT_EQ("", KeyStore::Inspect(m_stTable.Name()));
}

TEST_F(KvKeyStoreTest, ClearLeavesNothing) {
  for (int i = 0; i < 1000; ++i) {
    m_stStore.Set("key" + std::to_string(i), "v", i % 2 == 0 ? KeyStore::NEVER : NOW + 1000);
  }
  m_stStore.Clear();
  EXPECT_EQ(0u, m_stStore.Count());
  EXPECT_EQ(0u, m_stStore.Stat().iExpiring);
  EXPECT_EQ("(none)", ValueOf("key7"));
  EXPECT_EQ(0u, Successor().Count());
}

TEST_F(KvKeyStoreTest, AKeyWhoseTimeHasComeIsGone) {
  m_stStore.Set("a", "1", NOW + 10);
  m_stStore.SetTime(NOW + 9);
  EXPECT_EQ("1", ValueOf("a"));
  m_stStore.SetTime(NOW + 10);
  EXPECT_EQ(1u, m_stStore.Count()) << "nobody has met it yet";
  EXPECT_TRUE(ScanAll(1).empty());
  EXPECT_EQ("(none)", ValueOf("a"));
  EXPECT_EQ(0u, m_stStore.Count());
}

TEST_F(KvKeyStoreTest, SettingAnewEndsTheExpiryTime) {
  m_stStore.Set("a", "1", NOW + 10);
  m_stStore.Set("a", "2");
  EXPECT_EQ(0u, m_stStore.Stat().iExpiring);
  m_stStore.SetTime(NOW + 1000);
  EXPECT_EQ("2", ValueOf("a"));
}

TEST_F(KvKeyStoreTest, StatCountsExpiringKeysAndTheirTime) {
  m_stStore.Set("a", "1");
  m_stStore.Set("b", "1", NOW + 1000);
  m_stStore.Set("c", "1", NOW + 3000);
  const StoreStat_t stStat = m_stStore.Stat();
  EXPECT_EQ(3u, stStat.iKeys);
  EXPECT_EQ(2u, stStat.iExpiring);
  EXPECT_NEAR(2000, static_cast<double>(stStat.iAverageTtl), 2);
  EXPECT_EQ(KeyTable::HeadSize(StoreTable::BUCKETS) + (1 << 20), stStat.iBytes);
  EXPECT_GT(stStat.iUsedBytes, KeyTable::HeadSize(StoreTable::BUCKETS));
  EXPECT_LT(stStat.iUncarved, 1u << 20);
}

TEST_F(KvKeyStoreTest, SweepDeletesWhatIsOverLittleByLittle) {
  EXPECT_EQ(1000, m_stStore.Sweep(1000)) << "nothing can expire";
  for (int i = 0; i < 2000; ++i) {
    m_stStore.Set("over" + std::to_string(i), "v", NOW + 1);
    m_stStore.Set("stays" + std::to_string(i), "v", NOW + 1000000);
  }
  m_stStore.SetTime(NOW + 1);
  EXPECT_EQ(1, m_stStore.Sweep(1000)) << "many were over: soon again";
  EXPECT_LT(m_stStore.Count(), 4000u);
  EXPECT_GT(m_stStore.Count(), 3000u) << "a slice";
  const size_t iCount = m_stStore.Count();
  EXPECT_EQ(1, m_stStore.Sweep(1000));
  EXPECT_EQ(iCount, m_stStore.Count()) << "called too early";
  for (int i = 2; i < 100; ++i) {
    m_stStore.SetTime(NOW + i);
    m_stStore.Sweep(1000);
  }
  EXPECT_EQ(2000u, m_stStore.Count());
  m_stStore.SetTime(NOW + 2000);
  EXPECT_EQ(10, m_stStore.Sweep(1000));
  EXPECT_EQ(4, m_stStore.Sweep(4));
  m_stStore.SetTime(NOW);
  EXPECT_EQ(10, m_stStore.Sweep(1000)) << "the clock was set back";
}

TEST_F(KvKeyStoreTest, ScanVisitsWhatIsThereFromBeginToEnd) {
  std::set<std::string> setStays;
  for (int i = 0; i < 300; ++i) {
    setStays.insert("stays" + std::to_string(i));
    m_stStore.Set("stays" + std::to_string(i), "v");
    m_stStore.Set("goes" + std::to_string(i), "v");
  }
  std::set<std::string> setSeen;
  uint64_t iBucket = 0;
  int iCalls = 0;
  do {
    iBucket = m_stStore.Scan(iBucket, 7, [&](std::string_view strKey, const Value_t&) {
      setSeen.insert(std::string(strKey));
    });
    m_stStore.Remove("goes" + std::to_string(iCalls));
    m_stStore.Set("stays" + std::to_string(iCalls), std::string(300, 'w'));
    m_stStore.Set("new" + std::to_string(iCalls++), "v");
  } while (iBucket != 0);
  EXPECT_TRUE(std::includes(setSeen.begin(), setSeen.end(), setStays.begin(), setStays.end()));
  EXPECT_EQ(16, iCalls) << "a bucket each";
  EXPECT_EQ(0u, m_stStore.Scan(StoreTable::BUCKETS, 1, nullptr)) << "a cursor that never was";
}

TEST_F(KvKeyStoreTest, EveryKeyMayBeDrawn) {
  std::map<std::string, int> mapDrawn;
  for (int i = 0; i < 40; ++i) {
    m_stStore.Set("key" + std::to_string(i), "v", i < 20 ? KeyStore::NEVER : NOW + 1);
  }
  m_stStore.SetTime(NOW + 1);
  for (int i = 0; i < 4000; ++i) {
    std::string strKey;
    ASSERT_TRUE(m_stStore.RandomKey(strKey));
    ++mapDrawn[strKey];
  }
  EXPECT_EQ(20u, mapDrawn.size()) << "and none whose time has come";
  for (const auto& stDrawn : mapDrawn) {
    EXPECT_GT(stDrawn.second, 20) << stDrawn.first;
  }
}

TEST_F(KvKeyStoreTest, ALonelyKeyIsFound) {
  std::string strKey;
  m_stStore.Set("lonely", "v");
  EXPECT_TRUE(m_stStore.RandomKey(strKey));
  EXPECT_EQ("lonely", strKey);
}

// Values of ever new sizes leave blocks that others can use.
TEST_F(KvKeyStoreTest, ValuesOfAllSizesShareTheirBlocks) {
  for (size_t i = 0; i < 20000; ++i) {
    ASSERT_TRUE(m_stStore.Set("a", std::string(i % 4000, 'v'))) << i;
  }
  EXPECT_EQ(std::string(19999 % 4000, 'v'), ValueOf("a"));
}

TEST_F(KvKeyStoreTest, WhatIsLargerThanAnyBlockIsRefused) {
  uint64_t iSize = 0;
  m_stStore.Set("a", "1");
  EXPECT_FALSE(m_stStore.Set("a", std::string(5 << 20, 'v')));
  EXPECT_FALSE(m_stStore.Append("a", std::string(5 << 20, 'v'), iSize));
  EXPECT_FALSE(m_stStore.Set(std::string(5 << 20, 'k'), "v"));
  EXPECT_FALSE(m_stStore.Get(std::string(5 << 20, 'k')));
  EXPECT_EQ("1", ValueOf("a"));
}

// A table that is too small for what it is asked to hold; a second, private map says what it must.
TEST_F(KvKeyStoreTest, AFullTableLosesNothing) {
  std::mt19937 stRandom(4711);
  std::map<std::string, std::string> mapExpected;
  int iRefused = 0;
  for (int i = 0; i < 30000; ++i) {
    const std::string strKey = "key" + std::to_string(stRandom() % 300);
    const size_t iSize = stRandom() % (i % 100 == 0 ? 200000 : 6000);
    const std::string strValue(iSize, static_cast<char>('a' + i % 26));
    if (stRandom() % 8 == 0) {
      EXPECT_EQ(mapExpected.erase(strKey), m_stStore.Remove(strKey) ? 1u : 0u);
    } else if (m_stStore.Set(strKey, strValue)) {
      mapExpected[strKey] = strValue;
    } else {
      ++iRefused;
      const auto it = mapExpected.find(strKey);
      ASSERT_EQ(it == mapExpected.end() ? "(none)" : it->second, ValueOf(strKey)) << i;
    }
  }
  EXPECT_GT(iRefused, 1000);
  EXPECT_EQ(mapExpected.size(), m_stStore.Count());
  KeyStore& stNext = Successor();
  for (const auto& stItem : mapExpected) {
    ASSERT_EQ(stItem.second, ::ValueOf(stNext, stItem.first));
  }
  EXPECT_EQ(0u, stNext.Reclaimed());
}

// Blocks of the new size are asked for before the old value is given up.
TEST_F(KvKeyStoreTest, AFullTableStillTakesWhatFitsAFreeBlock) {
  m_stStore.Set("a", std::string(1000, 'v'));
  m_stStore.Set("b", "1");
  for (int i = 0; m_stStore.Set("fill" + std::to_string(i), "1"); ++i) {
  }
  EXPECT_TRUE(m_stStore.Set("b", "2")) << "in place";
  EXPECT_FALSE(m_stStore.Set("a", std::string(200, 'v')));
  EXPECT_EQ(std::string(1000, 'v'), ValueOf("a"));
  EXPECT_TRUE(m_stStore.Remove("fill0"));
  EXPECT_TRUE(m_stStore.Set("a", "small"));
  EXPECT_TRUE(m_stStore.Set("b", std::string(1000, 'w'))) << "in the block that it had";
  EXPECT_EQ("", KeyStore::Inspect(m_stTable.Name()));
}

// As a writer killed between its two words leaves it.
TEST_F(KvKeyStoreTest, AnIntentIsFinishedByTheNextProcess) {
  m_stStore.Set("a", "old", NOW + 10);
  m_stStore.Set("a", "new");
  m_stStore.Set("b", "1");
  uint64_t iIntent = 4194384 + 56 + 16 * StoreTable::BUCKETS;
  HeapImage stImage(m_stTable.Key());
  const std::string strKey("sa\0", 3);
  const ValueHead_t stHead{NOW + 99, 6, VALUE_STRING};
  const auto iRecord = static_cast<uint32_t>(RecordSize(2, 6));
  char* pIntent = stImage.Base() + iIntent;
  memcpy(pIntent + 16, strKey.data(), 3);
  memcpy(pIntent + 19, &stHead, sizeof(stHead));
  memcpy(pIntent + 19 + sizeof(stHead), "intent", 6);
  stImage.SetHalf(iIntent + 4, 3);
  stImage.SetHalf(iIntent + 8, iRecord);
  stImage.SetHalf(iIntent, 1);
  KeyStore& stNext = Successor();
  EXPECT_TRUE(stNext.Replayed());
  EXPECT_EQ("intent", ::ValueOf(stNext, "a"));
  EXPECT_EQ(NOW + 99, stNext.Get("a")->iExpireAt);
  EXPECT_EQ(2u, stNext.Count());
  EXPECT_EQ(0u, stImage.Half(iIntent));
}

TEST_F(KvKeyStoreTest, AnIntentThatMakesNoSenseIsRefused) {
  const uint64_t iIntent = 4194384 + 56 + 16 * StoreTable::BUCKETS;
  HeapImage stImage(m_stTable.Key());
  stImage.SetHalf(iIntent, 1);
  for (const uint32_t iKeySize : {0u, 3u, 0x7fffffffu}) {
    stImage.SetHalf(iIntent + 4, iKeySize);
    stImage.SetHalf(iIntent + 8, 24);
    KeyStore stStore;
    EXPECT_EQ("is damaged: its intent makes no sense", stStore.Attach(m_stTable.Name()));
  }
}

// Bytes damaged while the store is in use: nothing behind a record is taken for its value.
TEST_F(KvKeyStoreTest, AValueLargerThanItsRecordIsNone) {
  const HeapImage stImage(m_stTable.Key());
  ASSERT_TRUE(m_stStore.Set("a", "a value to be found"));
  char* const pBytes = const_cast<char*>(m_stStore.Get("a")->strBytes.data());
  const auto iRecordSize = static_cast<uint32_t>(RecordSize(2, 19));
  for (const uint32_t iSize : {iRecordSize - 16, iRecordSize - 15, UINT32_MAX}) {
    memcpy(pBytes - 8, &iSize, sizeof(iSize));
    const bool bFits = iSize == iRecordSize - 16;
    EXPECT_EQ(bFits, m_stStore.Get("a").has_value()) << iSize;
    EXPECT_EQ(bFits ? 1u : 0u, ScanAll(1).size());
    size_t iVisits = 0;
    for (uint64_t i = 0; i < m_stStore.Buckets(); ++i) {
      m_stStore.VisitBucket(i, [&](std::string_view, const Value_t&) { ++iVisits; });
    }
    EXPECT_EQ(bFits ? 1u : 0u, iVisits);
  }
  EXPECT_TRUE(m_stStore.Set("a", "new"));
  EXPECT_EQ("new", ValueOf("a"));
}

TEST_F(KvKeyStoreTest, ARecordShorterThanItsHeadIsNone) {
  ASSERT_TRUE(m_stStore.Set("a", "1"));
  char* const pBytes = const_cast<char*>(m_stStore.Get("a")->strBytes.data());
  for (const uint32_t iRecordSize : {0u, 15u}) {
    memcpy(pBytes - 16 - 3 - 4, &iRecordSize, sizeof(iRecordSize));  // before "sa" and the head
    EXPECT_EQ("(none)", ValueOf("a"));
    EXPECT_TRUE(ScanAll(1).empty());
    EXPECT_FALSE(m_stStore.Remove("a"));
    EXPECT_FALSE(m_stStore.SetExpiry("a", NOW + 1));
  }
}

TEST_F(KvKeyStoreTest, OthersTablesAreNotOurs) {
  const char* const ANOTHER_RUN = "is not ours: it has another run id";
  const char* const NO_TABLE = "is not ours: it holds no table of this server";
  const auto Refusal = [](const TableName_t& stName) {
    KeyStore stStore;
    const std::string strRefusal = stStore.Attach(stName);
    EXPECT_EQ(strRefusal, KeyStore::Inspect(stName));
    return strRefusal;
  };
  TableName_t stName = m_stTable.Name();
  stName.stMark.szRun[3] ^= 1;
  EXPECT_EQ(ANOTHER_RUN, Refusal(stName));
  stName = m_stTable.Name();
  stName.stMark.iWorker = 1;
  EXPECT_EQ(ANOTHER_RUN, Refusal(stName));
  stName = m_stTable.Name();
  stName.iBuckets = 17;
  EXPECT_EQ(NO_TABLE, Refusal(stName));
  const PrivateKey stNothing;
  stName.iKey = stNothing.Key();
  EXPECT_EQ(NO_TABLE, Refusal(stName));
}

TEST_F(KvKeyStoreTest, SegmentsOfAnotherKindAreLeftAsTheyAre) {
  const PrivateKey stSmall;
  const PrivateKey stLarge;
  const PrivateKey stHeapKey;
  TableName_t stName = m_stTable.Name();
  const HeapImage stSmallImage(stSmall.Key(), 64);
  const HeapImage stLargeImage(stLarge.Key(), 16 << 20);
  ShmAllocator stHeap;  // a heap like ours, without a table
  ASSERT_TRUE(stHeap.Attach(stHeapKey.Key(), KeyTable::HeadSize(16) + 65536,
                            KeyTable::HeadSize(16) - 4194384, false));
  for (const key_t iKey : {stSmall.Key(), stLarge.Key(), stHeapKey.Key()}) {
    stName.iKey = iKey;
    EXPECT_EQ("is not ours: it holds no table of this server", KeyStore::Inspect(stName));
  }
  EXPECT_EQ(std::string(64, '\0'), std::string(stSmallImage.Base(), 64));
  EXPECT_EQ(0u, stLargeImage.Word(72));
  EXPECT_EQ(0u, HeapImage(stHeapKey.Key()).Word(4194384));
}

// Writes down what it hears, and the store's mark at that moment.
class Listener : public ChangeListener {
 public:
  explicit Listener(KeyStore& stStore) : m_stStore(stStore) {}
  void OnSet(std::string_view strKey, std::string_view strValue, int64_t iExpireAt) override {
    Note("set " + std::string(strKey) + "=" + std::string(strValue) + "/" +
         std::to_string(iExpireAt));
  }
  void OnExpiry(std::string_view strKey, int64_t iExpireAt) override {
    Note("expiry " + std::string(strKey) + "/" + std::to_string(iExpireAt));
  }
  void OnRemove(std::string_view strKey) override { Note("remove " + std::string(strKey)); }
  void OnClear() override { Note("clear"); }

  // What was heard since the last call. The mark is set again.
  std::string Heard() {
    m_stStore.SetMark(7);
    return std::move(m_strHeard);
  }

 private:
  void Note(const std::string& strWhat) {
    EXPECT_EQ(0u, m_stStore.Mark());
    m_strHeard += strWhat + ";";
  }
  KeyStore& m_stStore;
  std::string m_strHeard;
};

TEST_F(KvKeyStoreTest, AListenerHearsWhatEachChangeHasMade) {
  Listener stListener(m_stStore);
  uint64_t iSize = 0;
  m_stStore.SetMark(7);
  m_stStore.SetListener(&stListener);
  m_stStore.Set("a", "1", NOW + 5);
  EXPECT_EQ("set a=1/1700000000005;", stListener.Heard());
  m_stStore.Set("a", "22");  // in place
  EXPECT_EQ("set a=22/0;", stListener.Heard());
  m_stStore.Append("a", "3", iSize);
  EXPECT_EQ("set a=223/0;", stListener.Heard());
  m_stStore.Append("new", "n", iSize);
  EXPECT_EQ("set new=n/0;", stListener.Heard());
  m_stStore.SetExpiry("a", NOW + 9);
  EXPECT_EQ("expiry a/1700000000009;", stListener.Heard());
  m_stStore.Remove("new");
  EXPECT_EQ("remove new;", stListener.Heard());
  m_stStore.SetTime(NOW + 9);
  EXPECT_EQ("(none)", ValueOf("a"));
  EXPECT_EQ("remove a;", stListener.Heard());
  m_stStore.SetListener(nullptr);
}

TEST_F(KvKeyStoreTest, AListenerHearsOfSweepingAndOfClearingOnce) {
  Listener stListener(m_stStore);
  m_stStore.SetListener(&stListener);
  m_stStore.Set("over", "1", NOW + 1);
  m_stStore.SetTime(NOW + 1);
  stListener.Heard();
  m_stStore.Sweep(0);
  EXPECT_EQ("remove over;", stListener.Heard());
  m_stStore.Set("a", "1");
  m_stStore.Set("b", "1");
  stListener.Heard();
  m_stStore.Clear();
  EXPECT_EQ("clear;", stListener.Heard());
  m_stStore.Clear();
  EXPECT_EQ("", stListener.Heard());
  m_stStore.SetListener(nullptr);
}

// The mark tells of changes that the listener may have missed, and of nothing else.
TEST_F(KvKeyStoreTest, WhatChangesNothingLeavesTheMark) {
  Listener stListener(m_stStore);
  m_stStore.SetMark(7);
  m_stStore.SetListener(&stListener);
  EXPECT_FALSE(m_stStore.Set("large", std::string(2000000, 'v')));
  EXPECT_FALSE(m_stStore.Remove("a"));
  EXPECT_FALSE(m_stStore.SetExpiry("a", NOW + 1));
  EXPECT_EQ(7u, m_stStore.Mark());
  m_stStore.SetListener(nullptr);
  EXPECT_TRUE(m_stStore.Set("a", "1"));
  EXPECT_EQ(7u, m_stStore.Mark()) << "nobody listens";
}

TEST_F(KvKeyStoreTest, TheMarkLivesWithTheTable) {
  EXPECT_EQ(0u, m_stStore.Mark());
  m_stStore.SetMark(UINT64_MAX);
  KeyStore stNext;
  ASSERT_EQ("", stNext.Attach(m_stTable.Name()));
  EXPECT_EQ(UINT64_MAX, stNext.Mark());
  EXPECT_EQ(0u, stNext.Count());
}

TEST_F(KvKeyStoreTest, WhatCanNotBeMadeIsTold) {
  TableName_t stName = m_stTable.Name();
  const PrivateKey stKey;
  stName.iKey = stKey.Key();
  const std::string strError = CaptureOutput(2, [&] {
    EXPECT_EQ("can not be made: Invalid argument", KeyStore::Create(stName, UINT64_MAX));
  });
  EXPECT_EQ("shmget error, Invalid argument\n", strError);
  EXPECT_EQ("is too small", KeyStore::Create(stName, KeyTable::HeadSize(16) + 16));
}

}  // namespace
