#include "table_check.h"

#include "heap_image.h"
#include "kv_store_fixture.h"

namespace {

const uint64_t FREE_LISTS = 80;
const uint64_t TABLE_HEAD = 4194384;
const uint64_t BUCKET_LIST = TABLE_HEAD + 56;
const uint64_t CURRENT_OFFSET = 56;
const uint64_t SIZE_BEFORE_ENTRY = 8;

// A table of some keys, whose bytes the test may damage.
class KvTableCheckTest : public KvStoreTest {
 protected:
  KvTableCheckTest() : m_stImage(m_stTable.Key()) {
    for (int i = 0; i < 100; ++i) {
      m_stStore.Set("key" + std::to_string(i), std::string(static_cast<size_t>(i), 'v'));
    }
    m_stStore.Remove("key50");
    for (uint64_t i = 0; i < StoreTable::BUCKETS && m_iEntry == 0; ++i) {
      m_iBucket = BUCKET_LIST + i * 16 + 8;
      m_iEntry = m_stImage.Word(m_iBucket);
    }
    for (uint64_t i = 0; m_stImage.Word(m_iList = FREE_LISTS + i * 8) == 0; ++i) {
    }
  }

  std::string Check() const { return KeyStore::Inspect(m_stTable.Name()); }
  std::string Refusal() const {
    KeyStore stStore;
    return stStore.Attach(m_stTable.Name());
  }
  // What is wrong once a word has another value.
  std::string CheckWith(uint64_t iOffset, uint64_t iValue) {
    const uint64_t iBefore = m_stImage.Word(iOffset);
    m_stImage.SetWord(iOffset, iValue);
    const std::string strWrong = Check();
    EXPECT_EQ(strWrong, Refusal()) << "who looks and who takes over see the same";
    m_stImage.SetWord(iOffset, iBefore);
    EXPECT_EQ("", Check());
    return strWrong;
  }

  HeapImage m_stImage;
  uint64_t m_iBucket = 0;  // the first that is not empty: where its link stands,
  uint64_t m_iEntry = 0;   // and where it leads
  uint64_t m_iList = 0;    // the first free list that is not empty
};

std::string Damaged(const char* pWhat, uint64_t iOffset) {
  return std::string("is damaged: ") + pWhat + " at offset " + std::to_string(iOffset);
}

TEST_F(KvTableCheckTest, ASoundTableIsTaken) {
  EXPECT_EQ("", Check());
  EXPECT_EQ("", Refusal());
}

TEST_F(KvTableCheckTest, HeadsThatMakeNoSense) {
  const char* const NO_TABLE = "is not ours: it holds no table of this server";
  const uint64_t iSize = m_stImage.Word(0);
  EXPECT_EQ(NO_TABLE, CheckWith(0, iSize - 1));
  EXPECT_EQ(NO_TABLE, CheckWith(0, iSize + 1));
  EXPECT_EQ(NO_TABLE, CheckWith(40, 12345)) << "where the reserved area starts";
  EXPECT_EQ(NO_TABLE, CheckWith(48, 12345)) << "and its size";
  EXPECT_EQ(NO_TABLE, CheckWith(72, 0)) << "not ready";
  EXPECT_EQ(Damaged("blocks end", 8), CheckWith(CURRENT_OFFSET, 8));
  EXPECT_EQ(Damaged("blocks end", 1ull << 40), CheckWith(CURRENT_OFFSET, 1ull << 40));
  const uint64_t iEnd = m_stImage.Word(CURRENT_OFFSET);
  EXPECT_EQ(Damaged("blocks end", iEnd + 4), CheckWith(CURRENT_OFFSET, iEnd + 4));
}

TEST_F(KvTableCheckTest, BlocksOfImpossibleSizes) {
  const uint64_t iFirst = KeyTable::HeadSize(StoreTable::BUCKETS);
  for (const uint64_t iSize : {0ull, 8ull, 20ull, 0x400008ull, 1ull << 63}) {
    EXPECT_EQ(Damaged("block of impossible size", iFirst), CheckWith(iFirst, iSize));
  }
}

TEST_F(KvTableCheckTest, FreeListsThatLeadAstray) {
  const uint64_t iBlock = m_stImage.Word(m_iList);
  const char* const FAULT = "free list leads to no block of its own";
  EXPECT_EQ(Damaged(FAULT, 8), CheckWith(m_iList, 8));
  EXPECT_EQ(Damaged(FAULT, iBlock + 8), CheckWith(m_iList, iBlock + 8));
  EXPECT_EQ(Damaged(FAULT, 1ull << 50), CheckWith(m_iList, 1ull << 50));
  EXPECT_EQ(Damaged(FAULT, iBlock), CheckWith(iBlock + 8, iBlock)) << "a circle";
  EXPECT_EQ(Damaged(FAULT, iBlock), CheckWith(FREE_LISTS + 524287 * 8, iBlock)) << "another size";
}

TEST_F(KvTableCheckTest, ChainsThatLeadAstray) {
  const char* const FAULT = "chain leads to no block of its own";
  EXPECT_EQ(Damaged(FAULT, 8), CheckWith(m_iBucket, 8));
  EXPECT_EQ(Damaged(FAULT, 1ull << 50), CheckWith(m_iBucket, 1ull << 50));
  EXPECT_EQ(Damaged(FAULT, m_iEntry), CheckWith(m_iEntry, m_iEntry)) << "a circle";
  const uint64_t iFree = m_stImage.Word(m_iList) + SIZE_BEFORE_ENTRY;
  EXPECT_EQ(Damaged(FAULT, iFree), CheckWith(m_iBucket, iFree)) << "a free block";
}

TEST_F(KvTableCheckTest, EntriesThatMakeNoSense) {
  const uint64_t iSizes = m_stImage.Word(m_iEntry + 8);
  EXPECT_EQ(Damaged("entry larger than its block", m_iEntry),
            CheckWith(m_iEntry + 8, iSizes + (1ull << 40)));
  EXPECT_EQ(Damaged("key that can not be found", m_iEntry), CheckWith(m_iEntry + 8, iSizes - 1));
  EXPECT_EQ(Damaged("key that can not be found", m_iEntry),
            CheckWith(m_iEntry + 16, m_stImage.Word(m_iEntry + 16) ^ 0x0100))
      << "another bucket's";
}

TEST_F(KvTableCheckTest, ValuesThatMakeNoSenseAreRefused) {
  const StoreTable stTable;
  KeyTable stRaw;
  ASSERT_TRUE(stRaw.Open(stTable.Key(), StoreTable::BUCKETS, false));
  for (const ValueHead_t& stHead : {ValueHead_t{0, 100, VALUE_STRING}, ValueHead_t{0, 1, 77},
                                    ValueHead_t{0, 0, VALUE_STRING}}) {
    const uint32_t iSize = stHead.iSize == 0 ? 3 : sizeof(stHead) + 8;  // too short for a head
    ASSERT_TRUE(stRaw.Set("sa", &stHead, iSize));
    KeyStore stStore;
    EXPECT_EQ(0u, stStore.Attach(stTable.Name()).find("is damaged: a value in bucket"));
  }
}

TEST_F(KvTableCheckTest, LostBlocksAreGivenBackAndCountersSetRight) {
  {
    ShmAllocator stHeap;
    ASSERT_TRUE(stHeap.Attach(m_stTable.Key(), 0, 0, false));
    EXPECT_NE(nullptr, stHeap.Allocate(100));
    EXPECT_NE(nullptr, stHeap.Allocate(100000));
  }
  m_stImage.SetWord(TABLE_HEAD + 8, 12345);  // the number of entries
  KeyStore stStore;
  ASSERT_EQ("", stStore.Attach(m_stTable.Name()));
  EXPECT_EQ(2u, stStore.Reclaimed());
  const SegmentReport_t stReport = CheckTable(m_stImage);
  EXPECT_EQ("", stReport.Faults());
  EXPECT_EQ(0u, stReport.OtherBlocks());
  EXPECT_TRUE(stReport.CountersAgree());
}

}  // namespace
