#include "table_snapshot.h"

#include <unistd.h>

#include "kv_store_fixture.h"

namespace {

class KvTableSnapshotTest : public KvStoreTest {};

// The child waits for the byte, so that the parent's changes come first.
TEST_F(KvTableSnapshotTest, AChildSeesTheTableAsItWas) {
  for (int i = 0; i < 1000; ++i) {
    m_stStore.Set("key" + std::to_string(i), "before");
  }
  int arrPipe[2];
  ASSERT_EQ(0, pipe(arrPipe));
  const auto pSnapshot = m_stStore.Freeze();
  ASSERT_TRUE(pSnapshot->Good());
  ForkedPeer stChild([&] {
    char cByte = 0;
    if (!pSnapshot->TakePlace() || read(arrPipe[0], &cByte, 1) != 1) {
      return 1;
    }
    size_t iBefore = 0;
    m_stStore.Scan(0, UINT64_MAX, [&](std::string_view, const Value_t& stValue) {
      iBefore += stValue.strBytes == "before" ? 1 : 0;
    });
    return iBefore == 1000 && m_stStore.Get("key7") ? 0 : 2;
  });
  m_stStore.Clear();
  for (int i = 0; i < 1000; ++i) {
    m_stStore.Set("other" + std::to_string(i), "after!");
  }
  ASSERT_EQ(1, write(arrPipe[1], "x", 1));
  EXPECT_EQ(0, stChild.Wait());
  close(arrPipe[0]);
  close(arrPipe[1]);
}

TEST_F(KvTableSnapshotTest, WhatAChildDoesToItStaysWithTheChild) {
  m_stStore.Set("a", "1");
  const auto pSnapshot = m_stStore.Freeze();
  ForkedPeer stChild([&] {
    const bool bPlaced = pSnapshot->TakePlace();
    m_stStore.Remove("a");
    return bPlaced && !m_stStore.Get("a") ? 0 : 1;
  });
  EXPECT_EQ(0, stChild.Wait());
  EXPECT_EQ("1", ValueOf("a"));
}

}  // namespace
