#include "table_snapshot.h"

#include <map>
#include <random>

#include "dump_file.h"
#include "kv_store_fixture.h"

namespace {

typedef std::map<std::string, std::string> Keys_t;

// What waits in a snapshot, taken away; a key that comes twice gets a mark, and so does the end.
Keys_t Take(TableSnapshot& stSnapshot) {
  std::string strAll;
  while (stSnapshot.WaitingBytes() > 0) {
    const std::string strPart(stSnapshot.Front().substr(0, 999));
    strAll += strPart;
    stSnapshot.Take(strPart.size());
  }
  Keys_t mapKeys;
  for (size_t iAt = 0; iAt < strAll.size();) {
    DumpEntry_t stEntry{};
    memcpy(&stEntry, &strAll[iAt], sizeof(stEntry));
    iAt += sizeof(stEntry);
    if (stEntry.iKeySize == DUMP_END) {
      mapKeys["(end)"] = std::to_string(stEntry.iExpireAt);
      continue;
    }
    std::string& strValue = mapKeys[strAll.substr(iAt, stEntry.iKeySize)];
    iAt += stEntry.iKeySize;
    strValue = (strValue.empty() ? "" : "twice ") + strAll.substr(iAt, stEntry.iValueSize) +
               (stEntry.iExpireAt == KeyStore::NEVER ? "" : " expires");
    iAt += stEntry.iValueSize;
  }
  return mapKeys;
}

// With the end, as it should come.
Keys_t Ended(Keys_t mapKeys) {
  mapKeys["(end)"] = std::to_string(mapKeys.size());
  return mapKeys;
}

class KvTableSnapshotTest : public KvStoreTest {
 protected:
  Keys_t Fill(int iKeys) {
    Keys_t mapKeys;
    for (int i = 0; i < iKeys; ++i) {
      const std::string strKey = "key" + std::to_string(i);
      m_stStore.Set(strKey, "before");
      mapKeys[strKey] = "before";
    }
    return mapKeys;
  }
  static Keys_t Rest(TableSnapshot& stSnapshot) {
    while (!stSnapshot.Whole()) {
      stSnapshot.Advance(1000);
    }
    return Take(stSnapshot);
  }
};

TEST_F(KvTableSnapshotTest, ATableIsCopiedInSlices) {
  Fill(1000);
  TableSnapshot stSnapshot(m_stStore);
  EXPECT_EQ(0u, stSnapshot.WaitingBytes());
  stSnapshot.Advance(1);
  EXPECT_FALSE(stSnapshot.Whole());
  const size_t iOne = Take(stSnapshot).size();
  EXPECT_GT(iOne, 0u);
  EXPECT_LT(iOne, 200u);  // one of sixteen buckets
  EXPECT_EQ(1000 - iOne + 1, Rest(stSnapshot).size());
}

TEST_F(KvTableSnapshotTest, EveryKindOfChangeComesTooLate) {
  const Keys_t mapKeys = Fill(9);
  TableSnapshot stSnapshot(m_stStore);
  uint64_t iSize = 0;
  m_stStore.Set("key0", "after!");                // in place
  m_stStore.Set("key1", std::string(1000, 'a'));  // in another block
  m_stStore.Append("key2", " more", iSize);
  m_stStore.SetExpiry("key3", NOW + 1000);
  m_stStore.Remove("key4");
  m_stStore.Set("key5", "after!", NOW + 1);
  m_stStore.Set("new", "after!");
  m_stStore.Append("newer", "after!", iSize);
  m_stStore.Remove("key6");
  m_stStore.Set("key6", "again");
  EXPECT_EQ(Ended(mapKeys), Rest(stSnapshot));
}

TEST_F(KvTableSnapshotTest, ClearingKeepsAllKeys) {
  const Keys_t mapKeys = Fill(1000);
  TableSnapshot stSnapshot(m_stStore);
  stSnapshot.Advance(1000);
  m_stStore.Clear();
  Fill(10);
  EXPECT_EQ(Ended(mapKeys), Rest(stSnapshot));
}

TEST_F(KvTableSnapshotTest, KeysAreOverByTheTimeOfItsBeginning) {
  m_stStore.Set("over", "1", NOW + 1);
  m_stStore.Set("later", "1", NOW + 2);
  m_stStore.SetTime(NOW + 1);
  TableSnapshot stSnapshot(m_stStore);
  m_stStore.SetTime(NOW + 1000);
  EXPECT_FALSE(m_stStore.Get("later"));
  m_stStore.Sweep(0);
  EXPECT_EQ(Ended({{"later", "1 expires"}}), Rest(stSnapshot));
}

TEST_F(KvTableSnapshotTest, TheServersOwnEntriesStayOut) {
  ASSERT_TRUE(m_stStore.SetLoaded());
  m_stStore.SetMark(7);
  TableSnapshot stSnapshot(m_stStore);
  EXPECT_EQ(Ended({}), Rest(stSnapshot));
}

TEST_F(KvTableSnapshotTest, ChangesBehindTheLastBucketAreNotCopied) {
  Fill(10);
  TableSnapshot stSnapshot(m_stStore);
  Rest(stSnapshot);
  Fill(10);
  EXPECT_EQ(0u, stSnapshot.WaitingBytes());
}

TEST_F(KvTableSnapshotTest, WhatWaitsIsCountedToTheByte) {
  m_stStore.Set("large", std::string(100000, 'v'));
  m_stStore.Set("small", "v");
  TableSnapshot stSnapshot(m_stStore);
  stSnapshot.Advance(1 << 20);
  EXPECT_EQ(3 * sizeof(DumpEntry_t) + 5 + 100000 + 5 + 1, stSnapshot.WaitingBytes());
  stSnapshot.Take(1);
  EXPECT_EQ(3 * sizeof(DumpEntry_t) + 5 + 100000 + 5, stSnapshot.WaitingBytes());
}

TEST_F(KvTableSnapshotTest, AnAbandonedOneTakesNothing) {
  Fill(1000);
  TableSnapshot stSnapshot(m_stStore);
  stSnapshot.Advance(1);
  stSnapshot.Abandon();
  m_stStore.Clear();
  stSnapshot.Advance(1000);
  EXPECT_EQ(0u, stSnapshot.WaitingBytes());
  EXPECT_EQ("", stSnapshot.Front());
  EXPECT_TRUE(stSnapshot.Whole());
}

TEST_F(KvTableSnapshotTest, AStoreOutlivesItsSnapshots) {
  const Keys_t mapKeys = Fill(10);
  { const TableSnapshot stAbandoned(m_stStore); }
  m_stStore.Set("key1", "after!");
  TableSnapshot stSnapshot(m_stStore);
  Keys_t mapChanged = mapKeys;
  mapChanged["key1"] = "after!";
  EXPECT_EQ(Ended(mapChanged), Rest(stSnapshot));
}

TEST_F(KvTableSnapshotTest, NoOrderOfSlicesAndChangesIsSeen) {
  std::minstd_rand stRandom(7);
  for (int iRound = 0; iRound < 20; ++iRound) {
    m_stStore.Clear();
    const Keys_t mapKeys = Fill(500);
    TableSnapshot stSnapshot(m_stStore);
    Keys_t mapSeen;
    while (!stSnapshot.Whole()) {
      const std::string strKey = "key" + std::to_string(stRandom() % 600);
      stRandom() % 3 == 0 ? m_stStore.Remove(strKey)
                          : m_stStore.Set(strKey, std::string(stRandom() % 90, 'a'));
      stSnapshot.Advance(stRandom() % 100 == 0 ? 1 : 0);
      mapSeen.merge(Take(stSnapshot));
    }
    mapSeen.merge(Take(stSnapshot));
    ASSERT_EQ(Ended(mapKeys), mapSeen);
  }
}

// Empty buckets are looked at in slices, too.
TEST(KvTableSnapshotOfASparseTableTest, ASliceEnds) {
  const PrivateKey stKey;
  TableName_t stName{stKey.Key(), 200000, {}};
  ASSERT_EQ("", KeyStore::Create(stName, KeyTable::HeadSize(stName.iBuckets) + 4096));
  KeyStore stStore;
  ASSERT_EQ("", stStore.Attach(stName));
  ASSERT_TRUE(stStore.Set("a", "1"));
  TableSnapshot stSnapshot(stStore);
  int iSlices = 0;
  for (; !stSnapshot.Whole(); ++iSlices) {
    stSnapshot.Advance(1 << 20);
  }
  EXPECT_EQ(4, iSlices);
  EXPECT_EQ(Ended({{"a", "1"}}), Take(stSnapshot));
}

}  // namespace
