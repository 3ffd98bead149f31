#ifndef ZELK_TESTS_KV_STORE_FIXTURE_H
#define ZELK_TESTS_KV_STORE_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "key_store.h"
#include "key_table.h"
#include "test_support.h"

// A fresh table with its mark, under a key of its own; removed with the object.
class StoreTable {
 public:
  static constexpr uint64_t BUCKETS = 16;

  // iRoom: bytes for blocks.
  explicit StoreTable(uint64_t iRoom = 1 << 20, uint32_t iWorker = 0, uint32_t iWorkers = 1) {
    m_stName.iKey = m_stKey.Key();
    m_stName.iBuckets = BUCKETS;
    memcpy(m_stName.stMark.szRun, "a run of 16 byte", sizeof(m_stName.stMark.szRun));
    m_stName.stMark.iWorker = iWorker;
    m_stName.stMark.iWorkers = iWorkers;
    m_strError = KeyStore::Create(m_stName, KeyTable::HeadSize(BUCKETS) + iRoom);
  }

  key_t Key() const { return m_stKey.Key(); }
  const TableName_t& Name() const { return m_stName; }
  const std::string& Error() const { return m_strError; }

 private:
  const PrivateKey m_stKey;
  TableName_t m_stName{};
  std::string m_strError;
};

// "(none)" when there is no such key.
inline std::string ValueOf(KeyStore& stStore, std::string_view strKey) {
  const auto stValue = stStore.Get(strKey);
  return stValue ? std::string(stValue->strBytes) : "(none)";
}

// A store over a fresh table.
class KvStoreTest : public ::testing::Test {
 protected:
  explicit KvStoreTest(uint64_t iRoom = 1 << 20) : m_stTable(iRoom) {
    EXPECT_EQ("", m_stTable.Error());
    EXPECT_EQ("", m_stStore.Attach(m_stTable.Name()));
    m_stStore.SetTime(NOW);
  }
  std::string ValueOf(std::string_view strKey) { return ::ValueOf(m_stStore, strKey); }

  static constexpr int64_t NOW = 1700000000000;
  const StoreTable m_stTable;
  KeyStore m_stStore;
};

#endif
