#include "shm_allocator.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "heap_image.h"
#include "test_support.h"

namespace {

const uint64_t HEAD_SIZE = 4194384;
const uint64_t RESERVED = 64;
const uint64_t HEAP_BEGIN = HEAD_SIZE + RESERVED;
const uint64_t SIZE = HEAD_SIZE + RESERVED + 65536;
const uint64_t CURRENT_OFFSET = 56;
const uint64_t MANAGED_SIZE = 64;
const uint64_t BLOCK_COUNT = 32;
const uint64_t READY = 72;

// Where the list of blocks of that size begins.
uint64_t ListOf(uint64_t iBlockSize) { return 80 + (iBlockSize / 8 - 1) * 8; }

// The operations that a derived class may call.
class Heap : public ShmAllocator {
 public:
  using ShmAllocator::AllocateBatch;
  using ShmAllocator::Init;
  using ShmAllocator::m_iReservedSize;
  using ShmAllocator::m_iShmID;
  using ShmAllocator::m_iSize;
  using ShmAllocator::m_pAddress;
  using ShmAllocator::RoundUp;
};

// One heap under a fresh key, and a view of its bytes.
class ShmAllocatorTest : public ::testing::Test {
 protected:
  void Make(uint64_t iSize = SIZE, uint64_t iReserved = RESERVED) {
    if (!m_stHeap.Attach(m_stKey.Key(), iSize, iReserved, false)) {
      throw std::runtime_error("not attached");  // ends the test, not its caller alone
    }
    m_pRaw = std::make_unique<HeapImage>(m_stKey.Key());
  }
  // A heap with exactly this much room for blocks.
  void MakeWithRoom(uint64_t iRoom) { Make(HEAP_BEGIN + iRoom); }

  uint64_t OffsetOf(const void* p) { return m_stHeap.GetOffset(p); }
  std::vector<uint64_t> List(uint64_t iBlockSize) const {
    std::vector<uint64_t> vecOffsets;
    for (uint64_t i = m_pRaw->Word(ListOf(iBlockSize)); i != 0; i = m_pRaw->Word(i + 8)) {
      vecOffsets.push_back(i);
    }
    return vecOffsets;
  }

  PrivateKey m_stKey;
  Heap m_stHeap;
  std::unique_ptr<HeapImage> m_pRaw;
};

typedef ShmAllocatorTest ShmAllocatorDeathTest;

// Attach and Detach.

TEST(ShmAllocatorNewTest, HasNoSegmentAndNoSize) {
  const Heap stHeap;
  EXPECT_EQ(nullptr, stHeap.m_pAddress);
  EXPECT_EQ(0u, stHeap.m_iSize);
  EXPECT_EQ(0u, stHeap.m_iReservedSize);
}

TEST_F(ShmAllocatorTest, StartsDetached) {
  EXPECT_EQ(nullptr, m_stHeap.m_pAddress);
  EXPECT_EQ(-1, m_stHeap.m_iShmID);
}

TEST_F(ShmAllocatorTest, NewSegmentHasTheHeaderByteByByte) {
  Make();
  EXPECT_EQ(SIZE, m_pRaw->Word(0));
  EXPECT_EQ(8u, m_pRaw->Word(8));
  EXPECT_EQ(4194304u, m_pRaw->Word(16));
  EXPECT_EQ(8u, m_pRaw->Word(24));
  EXPECT_EQ(0u, m_pRaw->Word(32));
  EXPECT_EQ(4194384u, m_pRaw->Word(40));
  EXPECT_EQ(RESERVED, m_pRaw->Word(48));
  EXPECT_EQ(4194384 + RESERVED, m_pRaw->Word(56));
  EXPECT_EQ(0u, m_pRaw->Word(64));
  EXPECT_EQ(9693823u, m_pRaw->Half(72));
  const char* pRest = m_pRaw->Base() + 76;
  EXPECT_EQ(m_pRaw->Base() + SIZE,
            std::find_if(pRest, static_cast<const char*>(m_pRaw->Base()) + SIZE,
                         [](char c) { return c != '\0'; }));
}

TEST_F(ShmAllocatorTest, NewSegmentIsForItsOwnerAlone) {
  Make();
  EXPECT_EQ(0600u, m_pRaw->Mode() & 0777);
  EXPECT_EQ(SIZE, m_pRaw->Size());
}

TEST_F(ShmAllocatorTest, NewSegmentsTableIsNotTouched) {
  Make();
  std::vector<unsigned char> vecResident((HEAD_SIZE + 4095) / 4096);
  ASSERT_EQ(0, mincore(m_stHeap.m_pAddress, HEAD_SIZE, vecResident.data()));
  EXPECT_EQ(1, std::count_if(vecResident.begin(), vecResident.end(),
                             [](unsigned char c) { return (c & 1) != 0; }));
}

TEST_F(ShmAllocatorTest, SecondAttachAdoptsTheSegmentsOwnSizes) {
  Make();
  Heap stSecond;
  ASSERT_TRUE(stSecond.Attach(m_stKey.Key(), SIZE - 4096, 8, false));
  EXPECT_EQ(SIZE, stSecond.m_iSize);
  EXPECT_EQ(RESERVED, stSecond.m_iReservedSize);
  EXPECT_EQ(RESERVED, stSecond.GetReservedSize());
}

TEST_F(ShmAllocatorTest, ExistingSegmentMayBeAskedForWithSizeZero) {
  Make();
  Heap stSecond;
  ASSERT_TRUE(stSecond.Attach(m_stKey.Key(), 0, 0, false));
  EXPECT_EQ(SIZE, stSecond.m_iSize);
}

TEST_F(ShmAllocatorTest, LargerSizeThanTheSegmentsIsRefusedWithAMessage) {
  Make();
  Heap stSecond;
  int iError = 0;
  const std::string strText = CaptureOutput(2, [&] {
    EXPECT_FALSE(stSecond.Attach(m_stKey.Key(), SIZE + 4096, RESERVED, false));
    iError = errno;
  });
  EXPECT_EQ("shmget error, Invalid argument\n", strText);
  EXPECT_EQ(EINVAL, iError);
  EXPECT_EQ(nullptr, stSecond.m_pAddress);
  EXPECT_EQ(-1, stSecond.m_iShmID);
}

TEST_F(ShmAllocatorTest, ErrnoIsThatOfShmgetAlsoWhenTheMessageIsLost) {
  Make();
  ForkedPeer stPeer([&] {
    Heap stSecond;
    close(STDERR_FILENO);
    return stSecond.Attach(m_stKey.Key(), SIZE + 4096, RESERVED, false) ? 0 : errno;
  });
  EXPECT_EQ(EINVAL, stPeer.Wait());
}

TEST_F(ShmAllocatorTest, SizeZeroDoesNotCreateASegment) {
  const std::string strText =
      CaptureOutput(2, [&] { EXPECT_FALSE(m_stHeap.Attach(m_stKey.Key(), 0, 0, false)); });
  EXPECT_EQ("shmget error, Invalid argument\n", strText);
}

TEST_F(ShmAllocatorTest, FailedAttachHasDetachedTheOldSegment) {
  Make();
  ASSERT_EQ(2u, m_pRaw->Attachments());
  CaptureOutput(
      2, [&] { EXPECT_FALSE(m_stHeap.Attach(m_stKey.Key(), SIZE + 4096, RESERVED, false)); });
  EXPECT_EQ(1u, m_pRaw->Attachments());
  EXPECT_EQ(nullptr, m_stHeap.m_pAddress);
}

TEST_F(ShmAllocatorTest, AttachToAnotherSegmentLeavesTheFirst) {
  Make();
  const PrivateKey stOther;
  ASSERT_TRUE(m_stHeap.Attach(stOther.Key(), SIZE, 0, false));
  EXPECT_EQ(1u, m_pRaw->Attachments());
  EXPECT_EQ(0u, m_stHeap.GetReservedSize());
}

TEST_F(ShmAllocatorTest, SegmentThatIsNotReadyIsRefusedAttachedAndUntouched) {
  m_pRaw = std::make_unique<HeapImage>(m_stKey.Key(), SIZE);
  for (const uint32_t iReady : {0u, 9693822u}) {
    m_pRaw->SetHalf(READY, iReady);
    const std::string strBefore(m_pRaw->Base(), SIZE);
    EXPECT_EQ("", CaptureOutput(2, [&] {
                EXPECT_FALSE(m_stHeap.Attach(m_stKey.Key(), SIZE, RESERVED, false));
              }));
    EXPECT_NE(nullptr, m_stHeap.m_pAddress);
    EXPECT_EQ(2u, m_pRaw->Attachments());
    EXPECT_EQ(SIZE, m_stHeap.m_iSize);
    EXPECT_EQ(0, memcmp(strBefore.data(), m_pRaw->Base(), SIZE));
  }
}

TEST_F(ShmAllocatorTest, SegmentThatCanNotBeMappedKeepsItsIdOnly) {
  Make();
  m_stHeap.Detach();
  rlimit stOld{};
  getrlimit(RLIMIT_AS, &stOld);
  const rlimit stNone{4096, stOld.rlim_max};
  bool bAttached = true;
  const std::string strText = CaptureOutput(2, [&] {
    setrlimit(RLIMIT_AS, &stNone);
    bAttached = m_stHeap.Attach(m_stKey.Key(), SIZE, RESERVED, false);
    setrlimit(RLIMIT_AS, &stOld);
  });
  EXPECT_FALSE(bAttached);
  EXPECT_EQ("", strText);
  EXPECT_EQ(nullptr, m_stHeap.m_pAddress);
  EXPECT_NE(-1, m_stHeap.m_iShmID);
}

TEST_F(ShmAllocatorTest, PathFormUsesTheKeyOfTheFile) {
  const PrivateDirectory stDirectory;
  WriteFile(stDirectory.File("key"), "");
  const PrivateKey stKey(ftok(stDirectory.File("key").c_str(), 7));
  ASSERT_TRUE(m_stHeap.Attach(stDirectory.File("key").c_str(), 7, SIZE, RESERVED, false));
  EXPECT_EQ(SIZE, HeapImage(stKey.Key()).Word(0));
}

TEST_F(ShmAllocatorTest, PathFormFailsWhenTheSegmentIsSmaller) {
  const PrivateDirectory stDirectory;
  const std::string strFile = stDirectory.File("key");
  WriteFile(strFile, "");
  const PrivateKey stKey(ftok(strFile.c_str(), 7));
  ASSERT_TRUE(m_stHeap.Attach(strFile.c_str(), 7, SIZE, RESERVED, false));
  EXPECT_EQ("shmget error, Invalid argument\n", CaptureOutput(2, [&] {
              EXPECT_FALSE(m_stHeap.Attach(strFile.c_str(), 7, SIZE + 8192, RESERVED, false));
            }));
}

TEST_F(ShmAllocatorTest, PathWithoutFileFailsSilentlyAndKeepsWhatIsAttached) {
  Make();
  EXPECT_EQ("", CaptureOutput(2, [&] {
              EXPECT_FALSE(m_stHeap.Attach("/nonexistent/file", 7, SIZE, RESERVED, false));
            }));
  EXPECT_EQ(2u, m_pRaw->Attachments());
}

TEST_F(ShmAllocatorTest, DetachLeavesTheSegmentAndMayBeRepeated) {
  Make();
  ASSERT_NE(nullptr, m_stHeap.Allocate(1));
  m_stHeap.Detach();
  m_stHeap.Detach();
  EXPECT_EQ(nullptr, m_stHeap.m_pAddress);
  EXPECT_EQ(-1, m_stHeap.m_iShmID);
  EXPECT_EQ(1u, m_pRaw->Attachments());
  EXPECT_EQ(1u, m_pRaw->Word(BLOCK_COUNT));
}

TEST_F(ShmAllocatorTest, DestructionDetaches) {
  Make();
  {
    Heap stSecond;
    ASSERT_TRUE(stSecond.Attach(m_stKey.Key(), 0, 0, false));
    EXPECT_EQ(3u, m_pRaw->Attachments());
  }
  EXPECT_EQ(2u, m_pRaw->Attachments());
}

TEST_F(ShmAllocatorTest, ReadOnlyAttachReadsEverything) {
  Make();
  const void* p = m_stHeap.Allocate(20);
  Heap stReader;
  ASSERT_TRUE(stReader.Attach(m_stKey.Key(), SIZE, RESERVED, true));
  EXPECT_EQ(stReader.m_pAddress + OffsetOf(p), stReader.GetPointer(OffsetOf(p)));
  EXPECT_EQ(m_stHeap.GetStat().iTotalFreeSize, stReader.GetStat().iTotalFreeSize);
  EXPECT_EQ(CaptureDescriptor([&](int iFD) { m_stHeap.Dump(iFD); }),
            CaptureDescriptor([&](int iFD) { stReader.Dump(iFD); }));
}

TEST_F(ShmAllocatorDeathTest, ReadOnlyAttachCanNotWrite) {
  Make();
  Heap stReader;
  ASSERT_TRUE(stReader.Attach(m_stKey.Key(), SIZE, RESERVED, true));
  EXPECT_DEATH(stReader.Allocate(20), "");
}

TEST_F(ShmAllocatorDeathTest, CreatingReadOnlyEndsTheProcess) {
  EXPECT_DEATH(m_stHeap.Attach(m_stKey.Key(), SIZE, RESERVED, true), "");
}

// Init.

TEST_F(ShmAllocatorTest, InitEmptiesTheListsAndLeavesTheManagedSize) {
  Make();
  void* p = m_stHeap.Allocate(8);
  ASSERT_NE(nullptr, m_stHeap.Allocate(4000));
  m_stHeap.Deallocate(p);
  m_pRaw->SetWord(ListOf(8), 1);
  m_pRaw->SetWord(ListOf(4194304), 1);
  const uint64_t iManaged = m_pRaw->Word(MANAGED_SIZE);
  EXPECT_TRUE(m_stHeap.Init());
  for (const uint64_t iBlockSize : {8u, 16u, 4008u, 4194304u}) {
    EXPECT_EQ(0u, m_pRaw->Word(ListOf(iBlockSize))) << iBlockSize;
  }
  EXPECT_EQ(HEAP_BEGIN, m_pRaw->Word(CURRENT_OFFSET));
  EXPECT_EQ(0u, m_pRaw->Word(BLOCK_COUNT));
  EXPECT_EQ(iManaged, m_pRaw->Word(MANAGED_SIZE));
}

TEST_F(ShmAllocatorTest, InitTakesTheSizesOfTheObject) {
  Make();
  m_stHeap.m_iSize = SIZE - 8;
  m_stHeap.m_iReservedSize = 24;
  m_pRaw->SetHalf(READY, 0);
  EXPECT_TRUE(m_stHeap.Init());
  EXPECT_EQ(SIZE - 8, m_pRaw->Word(0));
  EXPECT_EQ(24u, m_pRaw->Word(48));
  EXPECT_EQ(HEAD_SIZE + 24, m_pRaw->Word(CURRENT_OFFSET));
  EXPECT_EQ(9693823u, m_pRaw->Half(READY));
}

TEST_F(ShmAllocatorTest, RoundUpGoesToTheNextMultipleOfEight) {
  EXPECT_EQ(0u, Heap::RoundUp(0));
  EXPECT_EQ(8u, Heap::RoundUp(1));
  EXPECT_EQ(8u, Heap::RoundUp(8));
  EXPECT_EQ(16u, Heap::RoundUp(9));
  EXPECT_EQ(0x100000008u, Heap::RoundUp(0x100000001));
  EXPECT_EQ(0u, Heap::RoundUp(UINT64_MAX));
}

// Allocate and Deallocate.

TEST_F(ShmAllocatorTest, FirstAllocationCarvesTenBlocksAndTakesTheHighest) {
  Make();
  EXPECT_EQ(HEAP_BEGIN + 9 * 32 + 8, OffsetOf(m_stHeap.Allocate(24)));
  EXPECT_EQ(HEAP_BEGIN + 10 * 32, m_pRaw->Word(CURRENT_OFFSET));
  EXPECT_EQ(1u, m_pRaw->Word(BLOCK_COUNT));
  EXPECT_EQ(9u * 32, m_pRaw->Word(MANAGED_SIZE));
  std::vector<uint64_t> vecExpected;
  for (uint64_t i = 9; i-- > 0;) {
    vecExpected.push_back(HEAP_BEGIN + i * 32);
    EXPECT_EQ(32u, m_pRaw->Word(HEAP_BEGIN + i * 32));
  }
  EXPECT_EQ(vecExpected, List(32));
}

TEST_F(ShmAllocatorTest, EleventhAllocationCarvesTheNextBatch) {
  Make();
  for (int i = 0; i < 10; ++i) {
    ASSERT_NE(nullptr, m_stHeap.Allocate(24));
  }
  EXPECT_EQ(0u, m_pRaw->Word(MANAGED_SIZE));
  EXPECT_EQ(0u, m_pRaw->Word(ListOf(32)));
  EXPECT_EQ(HEAP_BEGIN + 19 * 32 + 8, OffsetOf(m_stHeap.Allocate(24)));
  EXPECT_EQ(HEAP_BEGIN + 20 * 32, m_pRaw->Word(CURRENT_OFFSET));
}

TEST_F(ShmAllocatorTest, SizesOneToEightShareTheSixteenByteClass) {
  Make();
  for (uint64_t iSize = 1; iSize <= 8; ++iSize) {
    const uint64_t iOffset = OffsetOf(m_stHeap.Allocate(iSize));
    EXPECT_EQ(HEAP_BEGIN + (10 - iSize) * 16 + 8, iOffset);
    EXPECT_EQ(16u, m_pRaw->Word(iOffset - 8));
  }
  const uint64_t iOffset = OffsetOf(m_stHeap.Allocate(9));
  EXPECT_EQ(24u, m_pRaw->Word(iOffset - 8));
}

TEST_F(ShmAllocatorTest, FreedBlockIsTheNextOneOfItsClass) {
  Make();
  void* pFirst = m_stHeap.Allocate(100);
  void* pSecond = m_stHeap.Allocate(100);
  m_stHeap.Deallocate(pFirst);
  m_stHeap.Deallocate(pSecond);
  EXPECT_NE(pSecond, m_stHeap.Allocate(50));
  EXPECT_EQ(pSecond, m_stHeap.Allocate(97));
  EXPECT_EQ(pFirst, m_stHeap.Allocate(104));
}

TEST_F(ShmAllocatorTest, BlockKeepsItsSizeWordAndItsBytesWhileInUse) {
  Make();
  char* p = static_cast<char*>(m_stHeap.Allocate(24));
  memset(p, 0x5a, 24);
  ASSERT_NE(nullptr, m_stHeap.Allocate(24));
  ASSERT_NE(nullptr, m_stHeap.Allocate(500));
  EXPECT_EQ(32u, m_pRaw->Word(OffsetOf(p) - 8));
  EXPECT_EQ(std::string(24, 0x5a), std::string(p, 24));
}

TEST_F(ShmAllocatorTest, MemoryIsNotCleared) {
  Make();
  char* p = static_cast<char*>(m_stHeap.Allocate(24));
  memset(p, 0x5a, 24);
  m_stHeap.Deallocate(p);
  ASSERT_EQ(p, m_stHeap.Allocate(24));
  EXPECT_EQ(std::string(16, 0x5a), std::string(p + 8, 16));
}

TEST_F(ShmAllocatorTest, DeallocatePutsTheBlockFirstOnItsList) {
  Make();
  void* p = m_stHeap.Allocate(24);
  const std::vector<uint64_t> vecBefore = List(32);
  m_stHeap.Deallocate(p);
  EXPECT_EQ(OffsetOf(p) - 8, List(32).front());
  EXPECT_EQ(vecBefore.front(), m_pRaw->Word(OffsetOf(p)));
  EXPECT_EQ(0u, m_pRaw->Word(BLOCK_COUNT));
  EXPECT_EQ(10u * 32, m_pRaw->Word(MANAGED_SIZE));
}

TEST_F(ShmAllocatorTest, LargestBlockIsFourMebibytesWithItsSizeWord) {
  Make(HEAP_BEGIN + 2 * 4194304 + 16);
  EXPECT_EQ(nullptr, m_stHeap.Allocate(4194297));  // there is room
  EXPECT_EQ(HEAP_BEGIN, m_pRaw->Word(CURRENT_OFFSET));
  EXPECT_EQ(HEAP_BEGIN + 4194304 + 8, OffsetOf(m_stHeap.Allocate(4194296)));
  EXPECT_EQ(4194304u, m_pRaw->Word(HEAP_BEGIN));
  EXPECT_EQ(HEAP_BEGIN, m_pRaw->Word(ListOf(4194304)));
}

TEST_F(ShmAllocatorTest, SizesBeyond32BitsAreNotCut) {
  Make();
  EXPECT_EQ(nullptr, m_stHeap.Allocate(0x100000000));
  EXPECT_EQ(nullptr, m_stHeap.Allocate(0x100000010));
  EXPECT_EQ(nullptr, m_stHeap.Allocate(uint64_t{1} << 63));
  EXPECT_EQ(nullptr, m_stHeap.Allocate(UINT64_MAX - 7));
  EXPECT_EQ(nullptr, m_stHeap.Allocate(UINT64_MAX - 14));
  EXPECT_EQ(HEAP_BEGIN, m_pRaw->Word(CURRENT_OFFSET));
}

TEST_F(ShmAllocatorTest, SizesThatWrapToLessThanEightGetTheSmallestBlock) {
  Make();
  EXPECT_EQ(HEAP_BEGIN + 80, OffsetOf(m_stHeap.Allocate(UINT64_MAX)));
  EXPECT_EQ(HEAP_BEGIN + 72, OffsetOf(m_stHeap.Allocate(UINT64_MAX - 6)));
}

// Carving.

TEST_F(ShmAllocatorTest, CarvingStopsWhenTheRestIsTooSmall) {
  MakeWithRoom(3 * 32 + 31);
  ASSERT_NE(nullptr, m_stHeap.Allocate(24));
  EXPECT_EQ(HEAP_BEGIN + 3 * 32, m_pRaw->Word(CURRENT_OFFSET));
  EXPECT_EQ(2u, List(32).size());
  EXPECT_EQ(2u * 32, m_pRaw->Word(MANAGED_SIZE));
}

TEST_F(ShmAllocatorTest, RestOfExactlyOneBlockIsCarved) {
  MakeWithRoom(4 * 32);
  ASSERT_NE(nullptr, m_stHeap.Allocate(24));
  EXPECT_EQ(HEAP_BEGIN + 4 * 32, m_pRaw->Word(CURRENT_OFFSET));
  EXPECT_EQ(3u, List(32).size());
  EXPECT_EQ(0u, m_stHeap.GetStat().iFreeSize);
}

TEST_F(ShmAllocatorTest, EmptyClassFailsAtTheEndWhateverOthersHaveFree) {
  MakeWithRoom(10 * 1024 + 16);
  void* p = m_stHeap.Allocate(1016);
  ASSERT_NE(nullptr, p);
  m_stHeap.Deallocate(p);
  EXPECT_EQ(nullptr, m_stHeap.Allocate(9));
  EXPECT_NE(nullptr, m_stHeap.Allocate(8));
  EXPECT_EQ(nullptr, m_stHeap.Allocate(8));
  EXPECT_NE(nullptr, m_stHeap.Allocate(1016));
}

TEST_F(ShmAllocatorTest, FailedAllocationChangesNothing) {
  MakeWithRoom(16);
  EXPECT_EQ(nullptr, m_stHeap.Allocate(9));
  EXPECT_EQ(HEAP_BEGIN, m_pRaw->Word(CURRENT_OFFSET));
  EXPECT_EQ(0u, m_pRaw->Word(BLOCK_COUNT));
  EXPECT_EQ(0u, m_pRaw->Word(MANAGED_SIZE));
  EXPECT_FALSE(m_stHeap.AllocateBatch(24));
}

TEST_F(ShmAllocatorTest, BatchOnAFilledListGoesBeforeIt) {
  Make();
  ASSERT_NE(nullptr, m_stHeap.Allocate(24));
  const std::vector<uint64_t> vecOld = List(32);
  ASSERT_TRUE(m_stHeap.AllocateBatch(32));
  const std::vector<uint64_t> vecNew = List(32);
  ASSERT_EQ(19u, vecNew.size());
  EXPECT_EQ(HEAP_BEGIN + 19 * 32, vecNew[0]);
  EXPECT_EQ(HEAP_BEGIN + 10 * 32, vecNew[9]);
  EXPECT_EQ(vecOld, std::vector<uint64_t>(vecNew.begin() + 10, vecNew.end()));
  EXPECT_EQ(19u * 32, m_pRaw->Word(MANAGED_SIZE));
}

// Blocks of 8 bytes, which have no room for their link.

TEST_F(ShmAllocatorTest, AllocateZeroGivesEightBytesWhoseLinkIsTheNextBlock) {
  Make();
  EXPECT_EQ(HEAP_BEGIN + 80, OffsetOf(m_stHeap.Allocate(0)));
  for (uint64_t i = 0; i < 10; ++i) {
    EXPECT_EQ(8u, m_pRaw->Word(HEAP_BEGIN + i * 8)) << i;
  }
  EXPECT_EQ(HEAP_BEGIN + 64, m_pRaw->Word(HEAP_BEGIN + 80));
  EXPECT_EQ(HEAP_BEGIN + 64, m_pRaw->Word(ListOf(8)));
  EXPECT_EQ(72u, m_pRaw->Word(MANAGED_SIZE));
}

TEST_F(ShmAllocatorTest, LaterZeroSizesComeFromWordsThatAreNoOffsets) {
  Make();
  ASSERT_NE(nullptr, m_stHeap.Allocate(0));
  EXPECT_EQ(HEAP_BEGIN + 72, OffsetOf(m_stHeap.Allocate(0)));
  EXPECT_EQ(8u, m_pRaw->Word(ListOf(8)));          // the size of the block behind
  EXPECT_EQ(16u, OffsetOf(m_stHeap.Allocate(0)));  // lies over the header
}

TEST_F(ShmAllocatorTest, EightByteBlockAtTheVeryEndIsNotReadOrWrittenBeyond) {
  const uint64_t iPages = (HEAD_SIZE / 4096 + 1) * 4096;
  Make(iPages, iPages - HEAD_SIZE - 8);
  EXPECT_EQ(nullptr, m_stHeap.Allocate(1));
  EXPECT_NE(nullptr, m_stHeap.Allocate(0));
  EXPECT_EQ(iPages, m_pRaw->Word(CURRENT_OFFSET));
  EXPECT_EQ(nullptr, m_stHeap.Allocate(0));
}

TEST_F(ShmAllocatorTest, EightByteBlockWhoseLinkJustFitsIsLinked) {
  MakeWithRoom(10 * 8 + 8);
  EXPECT_EQ(HEAP_BEGIN + 80, OffsetOf(m_stHeap.Allocate(0)));
  EXPECT_EQ(HEAP_BEGIN + 72, OffsetOf(m_stHeap.Allocate(0)));
}

// Assertion of Deallocate, in every build type.

const char ASSERTION[] = "iOffset < m_pHead->iMemorySize && iOffset > sizeof\\(uint64_t\\)";

TEST_F(ShmAllocatorDeathTest, DeallocateOfNullEndsTheProcess) {
  Make();
  EXPECT_EXIT(m_stHeap.Deallocate(nullptr), ::testing::KilledBySignal(SIGABRT), ASSERTION);
}

TEST_F(ShmAllocatorDeathTest, DeallocateOfOffsetEightEndsTheProcess) {
  Make();
  EXPECT_EXIT(m_stHeap.Deallocate(m_stHeap.m_pAddress + 8), ::testing::KilledBySignal(SIGABRT),
              ASSERTION);
}

TEST_F(ShmAllocatorDeathTest, DeallocateAtTheSegmentsEndEndsTheProcess) {
  Make();
  EXPECT_EXIT(m_stHeap.Deallocate(m_stHeap.m_pAddress + SIZE), ::testing::KilledBySignal(SIGABRT),
              ASSERTION);
}

TEST_F(ShmAllocatorTest, DeallocateChecksNoMoreThanThat) {
  Make();
  m_stHeap.Deallocate(m_stHeap.m_pAddress + 16);  // what lies before it reads 8
  EXPECT_EQ(8u, m_pRaw->Word(ListOf(8)));
}

// Offsets, reserved area, statistics.

TEST_F(ShmAllocatorTest, OffsetsAndPointersAreInsideTheSegment) {
  Make();
  char* pBase = m_stHeap.m_pAddress;
  EXPECT_EQ(pBase, m_stHeap.GetPointer(0));
  EXPECT_EQ(pBase + SIZE - 1, m_stHeap.GetPointer(SIZE - 1));
  EXPECT_EQ(nullptr, m_stHeap.GetPointer(SIZE));
  EXPECT_EQ(nullptr, m_stHeap.GetPointer(UINT64_MAX));
  EXPECT_EQ(0u, OffsetOf(pBase));
  EXPECT_EQ(SIZE - 1, OffsetOf(pBase + SIZE - 1));
  EXPECT_EQ(UINT64_MAX, OffsetOf(pBase + SIZE));
  EXPECT_EQ(UINT64_MAX, OffsetOf(pBase - 1));
  EXPECT_EQ(UINT64_MAX, OffsetOf(nullptr));
}

TEST_F(ShmAllocatorTest, ReservedAreaFollowsTheHeader) {
  Make();
  EXPECT_EQ(RESERVED, m_stHeap.GetReservedSize());
  EXPECT_EQ(m_stHeap.m_pAddress + HEAD_SIZE, m_stHeap.GetReservedPointer());
}

TEST_F(ShmAllocatorTest, ReservedPointerIsNullWithoutAReservedArea) {
  Make(SIZE, 0);
  EXPECT_EQ(0u, m_stHeap.GetReservedSize());
  EXPECT_EQ(nullptr, m_stHeap.GetReservedPointer());
  EXPECT_EQ(HEAD_SIZE + 9 * 16 + 8, OffsetOf(m_stHeap.Allocate(1)));
}

TEST_F(ShmAllocatorTest, AllocateAndFreeMoveFreeSizeButNotTheTotal) {
  Make();
  EXPECT_EQ(65536u, m_stHeap.GetStat().iFreeSize);
  EXPECT_EQ(65536u, m_stHeap.GetStat().iTotalFreeSize);
  void* p = m_stHeap.Allocate(24);
  EXPECT_EQ(65536u - 320, m_stHeap.GetStat().iFreeSize);
  EXPECT_EQ(65536u - 32, m_stHeap.GetStat().iTotalFreeSize);
  m_stHeap.Deallocate(p);
  EXPECT_EQ(65536u - 320, m_stHeap.GetStat().iFreeSize);
  EXPECT_EQ(65536u, m_stHeap.GetStat().iTotalFreeSize);
}

TEST_F(ShmAllocatorTest, SameClassTellsWhetherTheHeapWouldGiveTheBlockBack) {
  Make();
  void* p = m_stHeap.Allocate(24);
  for (const uint64_t iSize : {uint64_t{16}, uint64_t{17}, uint64_t{24}, uint64_t{25}, uint64_t{0},
                               uint64_t{0x100000018}}) {
    const bool bSame = m_stHeap.IsSameClass(p, iSize);
    m_stHeap.Deallocate(p);
    void* pAgain = m_stHeap.Allocate(iSize);
    EXPECT_EQ(pAgain == p, bSame) << iSize;
    if (pAgain != p) {
      ASSERT_EQ(p, m_stHeap.Allocate(24));
    }
  }
}

// Dump.

TEST_F(ShmAllocatorTest, DumpShowsTheHeaderAndEveryFreeBlock) {
  MakeWithRoom(2 * 24 + 8);
  ASSERT_NE(nullptr, m_stHeap.Allocate(0));  // the class that Dump() leaves out
  m_pRaw->SetWord(CURRENT_OFFSET, HEAP_BEGIN + 8);
  void* p = m_stHeap.Allocate(16);
  ASSERT_NE(nullptr, p);
  m_stHeap.Deallocate(p);
  EXPECT_EQ(
      "m_pHead->iMemorySize=\"4194504\"\n"
      "m_pHead->iMinBytes=\"8\"\n"
      "m_pHead->iMaxBytes=\"4194304\"\n"
      "m_pHead->iAlignSize=\"8\"\n"
      "m_pHead->iBlockCount=\"1\"\n"
      "m_pHead->iBeginOffset=\"4194384\"\n"
      "m_pHead->iCurrentOffset=\"4194504\"\n"
      "m_pHead->iReady=\"9693823\"\n"
      "[2][24 bytes] offset:4194480, next:4194456\n"
      "[2][24 bytes] offset:4194456, next:0\n",
      CaptureDescriptor([&](int iFD) { m_stHeap.Dump(iFD); }));
}

TEST_F(ShmAllocatorTest, DumpListsTheSecondClassAndTheLastButNotTheFirst) {
  Make();
  m_pRaw->SetWord(ListOf(8), HEAP_BEGIN);
  m_pRaw->SetWord(ListOf(16), HEAP_BEGIN);
  m_pRaw->SetWord(ListOf(4194304), HEAP_BEGIN + 16);
  const std::string strText = CaptureDescriptor([&](int iFD) { m_stHeap.Dump(iFD); });
  EXPECT_EQ(
      "[1][16 bytes] offset:4194448, next:0\n"
      "[524287][4194304 bytes] offset:4194464, next:0\n",
      strText.substr(strText.find('[')));
}

// Alignment.

TEST_F(ShmAllocatorTest, ReservedSizeIsNotRoundedAndMisalignsEveryBlock) {
  Make(SIZE, 13);
  std::vector<void*> vecBlocks;
  for (uint64_t iSize = 1; iSize < 300; ++iSize) {
    vecBlocks.push_back(m_stHeap.Allocate(iSize));
    ASSERT_EQ((HEAD_SIZE + 13) % 8, OffsetOf(vecBlocks.back()) % 8);
    memset(vecBlocks.back(), 0xff, iSize);
  }
  for (void* p : vecBlocks) {
    m_stHeap.Deallocate(p);
  }
  EXPECT_EQ("", CheckHeap(*m_pRaw).Faults());
  EXPECT_TRUE(CheckHeap(*m_pRaw).CountersAgree());
  EXPECT_EQ(0u, m_pRaw->Word(BLOCK_COUNT));
}

// A format between processes.

TEST_F(ShmAllocatorTest, HeapLaidDownByHandIsRead) {
  m_pRaw = std::make_unique<HeapImage>(m_stKey.Key(), SIZE);
  const uint64_t szHead[] = {SIZE, 8, 4194304, 8, 0, 4194384, 8, 4194384 + 8 + 48, 48, 9693823};
  memcpy(m_pRaw->Base(), szHead, sizeof(szHead));
  m_pRaw->SetWord(4194392, 24);
  m_pRaw->SetWord(4194400, 0);
  m_pRaw->SetWord(4194416, 24);
  m_pRaw->SetWord(4194424, 4194392);
  m_pRaw->SetWord(80 + 2 * 8, 4194416);
  ASSERT_TRUE(m_stHeap.Attach(m_stKey.Key(), 0, 0, false));
  EXPECT_EQ(4194424u, OffsetOf(m_stHeap.Allocate(16)));
  EXPECT_EQ(4194400u, OffsetOf(m_stHeap.Allocate(16)));
  EXPECT_EQ(0u, m_pRaw->Word(MANAGED_SIZE));
  EXPECT_EQ(2u, m_pRaw->Word(BLOCK_COUNT));
  EXPECT_EQ(4194440u + 9 * 24 + 8, OffsetOf(m_stHeap.Allocate(16)));
}

TEST_F(ShmAllocatorTest, ProcessesWithDifferentAddressesAgree) {
  Make();
  Heap stOther;
  ASSERT_TRUE(stOther.Attach(m_stKey.Key(), 0, 0, false));
  ASSERT_NE(m_stHeap.m_pAddress, stOther.m_pAddress);
  char* p = static_cast<char*>(stOther.Allocate(100));
  snprintf(p, 100, "from there");
  char* pHere = static_cast<char*>(m_stHeap.GetPointer(stOther.GetOffset(p)));
  EXPECT_STREQ("from there", pHere);
  m_stHeap.Deallocate(pHere);
  EXPECT_EQ(p, stOther.Allocate(100));
}

TEST_F(ShmAllocatorTest, WhatAnotherProcessCreatedOutlivesIt) {
  ForkedPeer stWriter([&] {
    ShmAllocator stHeap;
    if (!stHeap.Attach(m_stKey.Key(), SIZE, RESERVED, false)) {
      return 1;
    }
    char* p = static_cast<char*>(stHeap.Allocate(100));
    snprintf(p, 100, "left behind");
    const uint64_t iOffset = stHeap.GetOffset(p);
    memcpy(stHeap.GetReservedPointer(), &iOffset, sizeof(iOffset));
    return raise(SIGKILL);
  });
  ASSERT_EQ(1000 + SIGKILL, stWriter.Wait());
  ASSERT_TRUE(m_stHeap.Attach(m_stKey.Key(), SIZE, RESERVED, false));
  uint64_t iOffset = 0;
  memcpy(&iOffset, m_stHeap.GetReservedPointer(), sizeof(iOffset));
  EXPECT_STREQ("left behind", static_cast<char*>(m_stHeap.GetPointer(iOffset)));
}

TEST_F(ShmAllocatorTest, OneOfTwoCreatorsInitialises) {
  std::vector<std::unique_ptr<ForkedPeer>> vecPeers;
  for (int i = 0; i < 2; ++i) {
    vecPeers.push_back(std::make_unique<ForkedPeer>([&] {
      ShmAllocator stHeap;
      // The loser may come before the winner is ready: it tries again, as a host would.
      return WaitUntil([&] { return stHeap.Attach(m_stKey.Key(), SIZE, RESERVED, false); }) ? 0 : 1;
    }));
  }
  EXPECT_EQ(0, vecPeers[0]->Wait());
  EXPECT_EQ(0, vecPeers[1]->Wait());
  EXPECT_EQ(HEAP_BEGIN, HeapImage(m_stKey.Key()).Word(CURRENT_OFFSET));
}

// Long runs.

TEST_F(ShmAllocatorTest, RandomUseKeepsBlocksApartAndCountersTrue) {
  Make(HEAP_BEGIN + (1 << 20));
  std::mt19937 stRandom(20240229);
  std::vector<std::pair<char*, size_t>> vecLive;
  for (int i = 0; i < 20000; ++i) {
    if (stRandom() % 2 == 0 || vecLive.empty()) {
      const size_t iSize = 1 + stRandom() % (stRandom() % 8 == 0 ? 5000 : 200);
      char* p = static_cast<char*>(m_stHeap.Allocate(iSize));
      if (p != nullptr) {
        memset(p, static_cast<int>(iSize), iSize);
        vecLive.emplace_back(p, iSize);
      }
      continue;
    }
    std::swap(vecLive[stRandom() % vecLive.size()], vecLive.back());
    const auto stBlock = vecLive.back();
    vecLive.pop_back();
    ASSERT_EQ(std::string(stBlock.second, static_cast<char>(stBlock.second)),
              std::string(stBlock.first, stBlock.second));
    m_stHeap.Deallocate(stBlock.first);
  }
  const SegmentReport_t stReport = CheckHeap(*m_pRaw);
  EXPECT_EQ("", stReport.Faults());
  EXPECT_TRUE(stReport.CountersAgree());
  EXPECT_EQ(vecLive.size(), stReport.OtherBlocks());
}

}  // namespace
