#include "value_record.h"

#include <gtest/gtest.h>

#include <set>

#include "key_owner.h"
#include "kv_server_fixture.h"

namespace {

TEST(KvValueRecordTest, PaddingIsAnEighthAtMost) {
  for (size_t i = 1; i <= MAX_BLOCK; i += i < 5000 ? 1 : 997) {
    ASSERT_GE(PadBlock(i), i);
    ASSERT_LT(PadBlock(i), i + (i <= 64 ? 8 : (i + 7) / 8)) << i;
    ASSERT_EQ(0u, PadBlock(i) % 8) << i;
    ASSERT_EQ(PadBlock(i), PadBlock(PadBlock(i))) << i;
  }
}

TEST(KvValueRecordTest, AllBlocksShareFewSizes) {
  std::set<size_t> setSizes;
  for (size_t i = 1; i <= MAX_BLOCK; ++i) {
    setSizes.insert(PadBlock(i));
  }
  EXPECT_EQ(8u + 16 * 8, setSizes.size()) << "8 up to 64, 8 for each doubling to 4 MiB";
}

TEST(KvValueRecordTest, TheWholeBlockIsPaddedWhateverTheKey) {
  for (const size_t iKey : {1u, 7u, 100u, 16384u}) {
    for (const size_t iValue : {0u, 1u, 100u, 1000u, 1048576u}) {
      const size_t iBlock = BlockSize(iKey, RecordSize(iKey, iValue));
      EXPECT_EQ(PadBlock(iBlock), iBlock);
      EXPECT_GE(RecordSize(iKey, iValue), sizeof(ValueHead_t) + iValue);
    }
  }
}

TEST(KvValueRecordTest, TheLargestBlockIsTheHeaps) {
  const size_t iLargest = MAX_BLOCK - BlockSize(1, sizeof(ValueHead_t));
  EXPECT_TRUE(FitsBlock(1, iLargest));
  EXPECT_EQ(MAX_BLOCK, BlockSize(1, RecordSize(1, iLargest)));
  EXPECT_FALSE(FitsBlock(1, iLargest + 1));
  EXPECT_FALSE(FitsBlock(2, iLargest));
  EXPECT_FALSE(FitsBlock(static_cast<size_t>(-1), 1));
  EXPECT_FALSE(FitsBlock(1, static_cast<size_t>(-1)));
}

// Tables outlive the server: keys must be looked for where an earlier build has put them.
TEST(KvValueRecordTest, KeysKeepTheirOwners) {
  EXPECT_EQ(0, OwnerOf("", 3));
  EXPECT_EQ(1, OwnerOf("a", 3));
  EXPECT_EQ(0, OwnerOf("key:1", 3));
  EXPECT_EQ(54, OwnerOf(std::string("\xff\x80 a long key with any bytes"), 64));
}

TEST(KvValueRecordTest, OwnersHaveAboutTheSameNumberOfKeys) {
  int arCounts[3] = {};
  for (int i = 0; i < 30000; ++i) {
    ++arCounts[OwnerOf("key:" + std::to_string(i), 3)];
  }
  for (const int iCount : arCounts) {
    EXPECT_NEAR(10000, iCount, 400);
  }
}

}  // namespace
