// The heap's writer, and the table's, killed after each single instruction of an operation: what
// is left must be sound, must not have lost more than is promised, and must serve the next writer.

#include <gtest/gtest.h>
#include <sys/shm.h>

#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "hash_map.h"
#include "heap_image.h"
#include "shm_allocator.h"
#include "sweep.h"
#include "test_support.h"

namespace {

const uint64_t HEAD_SIZE = 4194384;
const uint64_t RESERVED = 4096;
const uint64_t SIZE = HEAD_SIZE + RESERVED + 65536;
const uint64_t BATCH = 10;
const size_t BLOCK = 32;  // with its size word
const size_t PAYLOAD = BLOCK - 8;

// Free bytes may be counted too high, by what was in flight. Blocks of a lost batch are the only
// ones that are neither free nor counted as handed out.
void ExpectHeapCountersAreBounded(const SegmentReport_t& stReport, bool bCarves, size_t iBlock) {
  EXPECT_GE(stReport.iManagedSizeExcess, 0);
  EXPECT_LE(stReport.iManagedSizeExcess, static_cast<int64_t>((bCarves ? BATCH : 1) * iBlock));
  EXPECT_EQ(0, stReport.iManagedSizeExcess % 8);
  if (bCarves && stReport.iBlockCountExcess < 0) {
    EXPECT_EQ(-static_cast<int64_t>(BATCH), stReport.iBlockCountExcess);
  } else {
    EXPECT_TRUE(stReport.iBlockCountExcess == 0 || stReport.iBlockCountExcess == 1);
  }
}

// The heap alone.
class HeapCrashTest : public ::testing::Test {
 protected:
  // A heap with this many blocks in use, each filled with its number, and this many free ones.
  void Make(size_t iUsed, size_t iFree) {
    m_pKey = std::make_unique<PrivateKey>();
    ShmAllocator stHeap;
    ASSERT_TRUE(stHeap.Attach(m_pKey->Key(), SIZE, RESERVED, false));
    std::vector<void*> vecFreed;
    m_vecUsed.clear();
    for (size_t i = 0; i < iUsed + iFree; ++i) {
      char* p = static_cast<char*>(stHeap.Allocate(PAYLOAD));
      memset(p, static_cast<int>(i), PAYLOAD);
      if (i < iUsed) {
        m_vecUsed.push_back(stHeap.GetOffset(p));
      } else {
        vecFreed.push_back(p);
      }
    }
    for (void* p : vecFreed) {
      stHeap.Deallocate(p);
    }
  }

  void Sweep(size_t iUsed, size_t iFree, bool bCarves,
             const std::function<void(ShmAllocator&)>& fnOperation) {
    ShmAllocator stHeap;
    SweepInstructions(
        {[&] { Make(iUsed, iFree); }, [&] { stHeap.Attach(m_pKey->Key(), 0, 0, false); },
         [&] { fnOperation(stHeap); }, [&](bool bComplete) { Check(bCarves, bComplete); }});
  }

  void Check(bool bCarves, bool bComplete) {
    const HeapImage stRaw(m_pKey->Key());
    const SegmentReport_t stReport = CheckHeap(stRaw);
    EXPECT_EQ("", stReport.Faults());
    ExpectHeapCountersAreBounded(stReport, bCarves, BLOCK);
    if (bComplete) {
      EXPECT_TRUE(stReport.CountersAgree());
    }
    EXPECT_LE(stReport.OtherBlocks(), m_vecUsed.size() + (bCarves ? BATCH : 1));
    WorkOn();
    const SegmentReport_t stLater = CheckHeap(stRaw);
    EXPECT_EQ("", stLater.Faults());
    EXPECT_EQ(stReport.iManagedSizeExcess, stLater.iManagedSizeExcess);
    EXPECT_EQ(stReport.iBlockCountExcess, stLater.iBlockCountExcess);
  }

  // The next writer takes and returns blocks; those in use are not among them and do not change.
  // The last one in use is what Deallocate() was about to free.
  void WorkOn() {
    ShmAllocator stHeap;
    ASSERT_TRUE(stHeap.Attach(m_pKey->Key(), 0, 0, false));
    std::set<void*> setTaken;
    for (size_t i = 0; i < 3 * BATCH; ++i) {
      void* p = stHeap.Allocate(PAYLOAD);
      ASSERT_TRUE(setTaken.insert(p).second);
      memset(p, 0xee, PAYLOAD);
    }
    for (size_t i = 0; i + 1 < m_vecUsed.size(); ++i) {
      const char* p = static_cast<char*>(stHeap.GetPointer(m_vecUsed[i]));
      EXPECT_EQ(std::string(PAYLOAD, static_cast<char>(i)), std::string(p, PAYLOAD));
    }
    for (void* p : setTaken) {
      stHeap.Deallocate(p);
    }
  }

  std::unique_ptr<PrivateKey> m_pKey;
  std::vector<uint64_t> m_vecUsed;  // offsets
};

TEST_F(HeapCrashTest, AllocateFromAList) {
  Sweep(3, 2, false, [](ShmAllocator& stHeap) { stHeap.Allocate(PAYLOAD); });
}

TEST_F(HeapCrashTest, AllocateTheLastOfAList) {
  Sweep(9, 0, false, [](ShmAllocator& stHeap) { stHeap.Allocate(PAYLOAD); });
}

TEST_F(HeapCrashTest, AllocateWithCarving) {
  Sweep(BATCH, 0, true, [](ShmAllocator& stHeap) { stHeap.Allocate(PAYLOAD); });
}

TEST_F(HeapCrashTest, Deallocate) {
  Sweep(3, 2, false,
        [this](ShmAllocator& stHeap) { stHeap.Deallocate(stHeap.GetPointer(m_vecUsed.back())); });
}

// The creator of a heap leaves none, one that is refused, or a whole one.
TEST_F(HeapCrashTest, Creation) {
  ShmAllocator stHeap;
  const auto fnCheck = [this](bool bComplete) {
    ShmAllocator stNext;
    const bool bCreatedAlready = shmget(m_pKey->Key(), 0, 0) != -1;
    if (bCreatedAlready && !stNext.Attach(m_pKey->Key(), 0, 0, false)) {
      EXPECT_FALSE(bComplete);
      return;
    }
    EXPECT_TRUE(bCreatedAlready || !bComplete);
    ASSERT_TRUE(stNext.Attach(m_pKey->Key(), SIZE, RESERVED, false));
    const HeapImage stRaw(m_pKey->Key());
    EXPECT_EQ(SIZE, stRaw.Word(0));
    EXPECT_EQ(RESERVED, stRaw.Word(48));
    EXPECT_EQ(HEAD_SIZE + RESERVED, stRaw.Word(56));
    EXPECT_EQ(HEAD_SIZE + RESERVED + 9 * BLOCK + 8, stNext.GetOffset(stNext.Allocate(PAYLOAD)));
    EXPECT_EQ("", CheckHeap(stRaw).Faults());
  };
  SweepInstructions({[this] { m_pKey = std::make_unique<PrivateKey>(); }, [] {},
                     [&] { stHeap.Attach(m_pKey->Key(), SIZE, RESERVED, false); }, fnCheck});
}

// The table: keys of one chain around the one that the operation is about.

typedef std::map<std::string, std::string> Content_t;

const char KEY[] = "the key";
const char OLD_VALUE[] = "old value of 24 bytes ..";
const char SAME_CLASS[] = "new value of 25 bytes ...";
const char OTHER_CLASS[] = "a new value that is so long that it needs a larger block";  // of 88
const char CARVED_CLASS[] =
    "a value of a size that no value had before, for which the first blocks have to be carved";
const size_t LARGEST_BLOCK = 128;

class TableCrashTest : public ::testing::Test {
 protected:
  TableCrashTest() { RESERVED_SIZE = RESERVED; }
  ~TableCrashTest() override { RESERVED_SIZE = DEFAULT_RESERVED; }

  // A table whose one chain has this key at this place among three others, and whose heap has free
  // blocks of all classes but one.
  void Make(size_t iPlace) {
    m_pKey = std::make_unique<PrivateKey>();
    HashMap stMap;
    ASSERT_TRUE(stMap.Attach(m_pKey->Key(), SIZE, 1, false));
    ASSERT_TRUE(stMap.Set(KEY, OTHER_CLASS));
    ASSERT_TRUE(stMap.Delete(KEY));
    const std::vector<std::string> vecOthers = {"first other", "second other", "third other"};
    for (size_t i = 0; i <= vecOthers.size(); ++i) {
      if (i == iPlace) {
        ASSERT_TRUE(stMap.Set(KEY, OLD_VALUE));
      }
      if (i < vecOthers.size()) {
        ASSERT_TRUE(stMap.Set(vecOthers[i].c_str(), OLD_VALUE));
        m_stOthers[vecOthers[i]] = OLD_VALUE;
      }
    }
  }

  // setAfter: what may be under the key once the operation was begun, "" standing for nothing.
  void Sweep(size_t iPlace, const std::set<std::string>& setAfter, const std::string& strComplete,
             const std::function<void(HashMap&)>& fnOperation) {
    HashMap stMap;
    SweepInstructions({[&] { Make(iPlace); }, [&] { stMap.Attach(m_pKey->Key(), 0, 1, false); },
                       [&] { fnOperation(stMap); },
                       [&](bool bComplete) {
                         Check(bComplete ? std::set<std::string>{strComplete} : setAfter,
                               setAfter.count(CARVED_CLASS) != 0, bComplete);
                       }});
  }

  static void ExpectExcessIsUpToOneEntry(const SegmentReport_t& stReport) {
    for (const int64_t iExcess : {stReport.iObjectCountExcess, stReport.iBucketSizeExcess}) {
      EXPECT_TRUE(iExcess == 0 || iExcess == 1) << iExcess;
    }
    const int64_t iKeyExcess = stReport.iTotalKeySizeExcess;
    EXPECT_TRUE(iKeyExcess == 0 || iKeyExcess == sizeof(KEY)) << iKeyExcess;
    const std::set<int64_t> setSizes = {0, sizeof(OLD_VALUE), sizeof(SAME_CLASS),
                                        sizeof(OTHER_CLASS), sizeof(CARVED_CLASS)};
    EXPECT_EQ(1u, setSizes.count(stReport.iTotalValueSizeExcess));
  }

  void Check(const std::set<std::string>& setAllowed, bool bCarves, bool bComplete) {
    const HeapImage stRaw(m_pKey->Key());
    const SegmentReport_t stReport = CheckTable(stRaw);
    EXPECT_EQ("", stReport.Faults());
    ExpectExcessIsUpToOneEntry(stReport);
    ExpectHeapCountersAreBounded(stReport, bCarves, LARGEST_BLOCK);
    EXPECT_LE(stReport.OtherBlocks(), bComplete ? 0 : bCarves ? BATCH : 1);
    if (bComplete) {
      EXPECT_TRUE(stReport.CountersAgree());
    }
    WorkOn(setAllowed);
    const SegmentReport_t stLater = CheckTable(stRaw);
    EXPECT_EQ("", stLater.Faults());
    EXPECT_EQ(stReport.OtherBlocks(), stLater.OtherBlocks());
    EXPECT_EQ(stReport.iObjectCountExcess, stLater.iObjectCountExcess);
  }

  // The next writer finds all other keys and one of the allowed values, and uses the table.
  void WorkOn(const std::set<std::string>& setAllowed) {
    HashMap stMap;
    ASSERT_TRUE(stMap.Attach(m_pKey->Key(), 0, 1, false));
    for (const auto& stOther : m_stOthers) {
      ASSERT_NE(nullptr, stMap.GetString(stOther.first.c_str()));
      EXPECT_EQ(stOther.second, stMap.GetString(stOther.first.c_str()));
    }
    const char* pValue = stMap.GetString(KEY);
    EXPECT_EQ(1u, setAllowed.count(pValue == nullptr ? "" : pValue));
    for (const char* pNew : {SAME_CLASS, OTHER_CLASS, OLD_VALUE}) {
      ASSERT_TRUE(stMap.Set(KEY, pNew));
      ASSERT_STREQ(pNew, stMap.GetString(KEY));
      ASSERT_TRUE(stMap.Set("another", pNew));
    }
    stMap.Delete("another");
    stMap.Delete(KEY);
    ASSERT_EQ(nullptr, stMap.GetString(KEY));
  }

  static const uint64_t DEFAULT_RESERVED = 1048576;

  std::unique_ptr<PrivateKey> m_pKey;
  Content_t m_stOthers;
};

const size_t NOWHERE = 99;
const uint64_t BUCKETS = 20;

TEST_F(TableCrashTest, SetOfANewKey) {
  Sweep(NOWHERE, {"", OLD_VALUE}, OLD_VALUE, [](HashMap& stMap) { stMap.Set(KEY, OLD_VALUE); });
}

TEST_F(TableCrashTest, SetOfANewKeyWithCarving) {
  Sweep(NOWHERE, {"", CARVED_CLASS}, CARVED_CLASS,
        [](HashMap& stMap) { stMap.Set(KEY, CARVED_CLASS); });
}

TEST_F(TableCrashTest, ReplaceFirstOfTheChainInItsClass) {
  Sweep(3, {"", OLD_VALUE, SAME_CLASS}, SAME_CLASS,
        [](HashMap& stMap) { stMap.Set(KEY, SAME_CLASS); });
}

TEST_F(TableCrashTest, ReplaceInTheMiddleInItsClass) {
  Sweep(1, {"", OLD_VALUE, SAME_CLASS}, SAME_CLASS,
        [](HashMap& stMap) { stMap.Set(KEY, SAME_CLASS); });
}

TEST_F(TableCrashTest, ReplaceInTheMiddleByAnotherClass) {
  Sweep(1, {"", OLD_VALUE, OTHER_CLASS}, OTHER_CLASS,
        [](HashMap& stMap) { stMap.Set(KEY, OTHER_CLASS); });
}

TEST_F(TableCrashTest, ReplaceFirstOfTheChainByAnotherClassWithCarving) {
  Sweep(3, {"", OLD_VALUE, CARVED_CLASS}, CARVED_CLASS,
        [](HashMap& stMap) { stMap.Set(KEY, CARVED_CLASS); });
}

TEST_F(TableCrashTest, DeleteFirst) {
  Sweep(3, {"", OLD_VALUE}, "", [](HashMap& stMap) { stMap.Delete(KEY); });
}

TEST_F(TableCrashTest, DeleteInTheMiddle) {
  Sweep(2, {"", OLD_VALUE}, "", [](HashMap& stMap) { stMap.Delete(KEY); });
}

TEST_F(TableCrashTest, DeleteLast) {
  Sweep(0, {"", OLD_VALUE}, "", [](HashMap& stMap) { stMap.Delete(KEY); });
}

// The first to attach a table finds bytes of any kind where it is to be, and leaves nothing that
// the next takes for a table, or an empty one.
TEST_F(TableCrashTest, CreationOverOldBytes) {
  HashMap stMap;
  const auto fnArrange = [this] {
    m_pKey = std::make_unique<PrivateKey>();
    ShmAllocator stHeap;
    ASSERT_TRUE(stHeap.Attach(m_pKey->Key(), SIZE, RESERVED, false));
    memset(stHeap.GetReservedPointer(), 0x5a, RESERVED);
  };
  const auto fnCheck = [this](bool /*bComplete*/) {
    HashMap stNext;
    ASSERT_TRUE(stNext.Attach(m_pKey->Key(), SIZE, BUCKETS, false));
    const HeapImage stRaw(m_pKey->Key());
    EXPECT_EQ(BUCKETS, stRaw.Half(HEAD_SIZE));
    for (const bool bEmpty : {true, false}) {
      const SegmentReport_t stReport = CheckTable(stRaw);
      EXPECT_EQ("", stReport.Faults());
      EXPECT_TRUE(stReport.CountersAgree());
      EXPECT_EQ(bEmpty ? 0u : 1u, stReport.iEntries);
      ASSERT_TRUE(stNext.Set(KEY, OLD_VALUE));
    }
  };
  SweepInstructions(
      {fnArrange, [] {}, [&] { stMap.Attach(m_pKey->Key(), 0, BUCKETS, false); }, fnCheck});
}

}  // namespace
