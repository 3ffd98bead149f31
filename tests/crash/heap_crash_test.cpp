// The heap's writer, and the table's, killed after each single instruction of an operation: what
// is left must be sound, must not have lost more than is promised, and must serve the next writer.

#include <gtest/gtest.h>

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
#include "single_step.h"
#include "test_support.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || !defined(__OPTIMIZE__)
const unsigned int STRIDE = 31;  // an operation is thousands of instructions
#else
const unsigned int STRIDE = 1;
#endif

const uint64_t SIZE = 4194384 + 4096 + 65536;
const uint64_t BATCH = 10;
const size_t BLOCK = 32;  // with its size word
const size_t PAYLOAD = BLOCK - 8;

void ExpectExcessIsUpToOneEntry(const SegmentReport_t& stReport) {
  for (const int64_t iExcess : {stReport.iObjectCountExcess, stReport.iBucketSizeExcess}) {
    EXPECT_TRUE(iExcess == 0 || iExcess == 1) << iExcess;
  }
  for (const int64_t iExcess : {stReport.iTotalKeySizeExcess, stReport.iTotalValueSizeExcess}) {
    EXPECT_TRUE(iExcess >= 0 && iExcess < 200) << iExcess;
  }
}

// Free bytes may be counted too high, by what was in flight. Blocks of a lost batch are the only
// ones that are neither free nor counted as handed out.
void ExpectHeapCountersAreBounded(const SegmentReport_t& stReport, bool bCarves) {
  EXPECT_GE(stReport.iManagedSizeExcess, 0);
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
  void Make(key_t iKey, size_t iUsed, size_t iFree) {
    ShmAllocator stHeap;
    ASSERT_TRUE(stHeap.Attach(iKey, SIZE, 4096, false));
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
    unsigned int iInstructions = 0;
    for (bool bMore = true; bMore; iInstructions += STRIDE) {
      SCOPED_TRACE("killed after " + std::to_string(iInstructions) + " instructions");
      const PrivateKey stKey;
      Make(stKey.Key(), iUsed, iFree);
      ShmAllocator stHeap;
      bMore = KillAfter(
          iInstructions, [&] { stHeap.Attach(stKey.Key(), 0, 0, false); },
          [&] { fnOperation(stHeap); });
      Check(stKey.Key(), bCarves, !bMore);
      ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(iInstructions, 20u);
    RecordProperty("instructions", static_cast<int>(iInstructions));
  }

  void Check(key_t iKey, bool bCarves, bool bComplete) {
    const HeapImage stRaw(iKey);
    const SegmentReport_t stReport = CheckHeap(stRaw);
    EXPECT_EQ("", stReport.Faults());
    ExpectHeapCountersAreBounded(stReport, bCarves);
    if (bComplete) {
      EXPECT_TRUE(stReport.CountersAgree());
    }
    EXPECT_LE(stReport.OtherBlocks(), m_vecUsed.size() + (bCarves ? BATCH : 1));
    WorkOn(iKey);
    const SegmentReport_t stLater = CheckHeap(stRaw);
    EXPECT_EQ("", stLater.Faults());
    EXPECT_EQ(stReport.iManagedSizeExcess, stLater.iManagedSizeExcess);
    EXPECT_EQ(stReport.iBlockCountExcess, stLater.iBlockCountExcess);
  }

  // The next writer takes and returns blocks; those in use are not among them and do not change.
  // The last one in use is what Deallocate() was about to free.
  void WorkOn(key_t iKey) {
    ShmAllocator stHeap;
    ASSERT_TRUE(stHeap.Attach(iKey, 0, 0, false));
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

// The table: keys of one chain around the one that the operation is about.

typedef std::map<std::string, std::string> Content_t;

const char KEY[] = "the key";
const char OLD_VALUE[] = "old value of 24 bytes ..";
const char SAME_CLASS[] = "new value of 25 bytes ...";
const char OTHER_CLASS[] =
    "a new value that is so long that it needs a larger block than the old one";

class TableCrashTest : public ::testing::Test {
 protected:
  TableCrashTest() { RESERVED_SIZE = 4096; }

  // A table whose one chain has this key at this place among three others.
  void Make(key_t iKey, size_t iPlace) {
    HashMap stMap;
    ASSERT_TRUE(stMap.Attach(iKey, SIZE, 1, false));
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
    unsigned int iInstructions = 0;
    for (bool bMore = true; bMore; iInstructions += STRIDE) {
      SCOPED_TRACE("killed after " + std::to_string(iInstructions) + " instructions");
      const PrivateKey stKey;
      Make(stKey.Key(), iPlace);
      HashMap stMap;
      bMore = KillAfter(
          iInstructions, [&] { stMap.Attach(stKey.Key(), 0, 1, false); },
          [&] { fnOperation(stMap); });
      Check(stKey.Key(), bMore ? setAfter : std::set<std::string>{strComplete}, !bMore);
      ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(iInstructions, 50u);
    RecordProperty("instructions", static_cast<int>(iInstructions));
  }

  void Check(key_t iKey, const std::set<std::string>& setAllowed, bool bComplete) {
    const HeapImage stRaw(iKey);
    const SegmentReport_t stReport = CheckTable(stRaw);
    EXPECT_EQ("", stReport.Faults());
    ExpectExcessIsUpToOneEntry(stReport);
    ExpectHeapCountersAreBounded(stReport, true);
    EXPECT_LE(stReport.OtherBlocks(), bComplete ? 0 : BATCH);
    if (bComplete) {
      EXPECT_TRUE(stReport.CountersAgree());
    }
    WorkOn(iKey, setAllowed);
    const SegmentReport_t stLater = CheckTable(stRaw);
    EXPECT_EQ("", stLater.Faults());
    EXPECT_EQ(stReport.OtherBlocks(), stLater.OtherBlocks());
    EXPECT_EQ(stReport.iObjectCountExcess, stLater.iObjectCountExcess);
  }

  // The next writer finds all other keys and one of the allowed values, and uses the table.
  void WorkOn(key_t iKey, const std::set<std::string>& setAllowed) {
    HashMap stMap;
    ASSERT_TRUE(stMap.Attach(iKey, 0, 1, false));
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
  ~TableCrashTest() override { RESERVED_SIZE = DEFAULT_RESERVED; }

  Content_t m_stOthers;
};

const size_t NOWHERE = 99;

TEST_F(TableCrashTest, SetOfANewKey) {
  Sweep(NOWHERE, {"", OLD_VALUE}, OLD_VALUE, [](HashMap& stMap) { stMap.Set(KEY, OLD_VALUE); });
}

TEST_F(TableCrashTest, SetOfANewKeyWithCarving) {
  Sweep(NOWHERE, {"", OTHER_CLASS}, OTHER_CLASS,
        [](HashMap& stMap) { stMap.Set(KEY, OTHER_CLASS); });
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

TEST_F(TableCrashTest, DeleteFirst) {
  Sweep(3, {"", OLD_VALUE}, "", [](HashMap& stMap) { stMap.Delete(KEY); });
}

TEST_F(TableCrashTest, DeleteInTheMiddle) {
  Sweep(2, {"", OLD_VALUE}, "", [](HashMap& stMap) { stMap.Delete(KEY); });
}

TEST_F(TableCrashTest, DeleteLast) {
  Sweep(0, {"", OLD_VALUE}, "", [](HashMap& stMap) { stMap.Delete(KEY); });
}

}  // namespace
