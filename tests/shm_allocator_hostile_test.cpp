// Heaps in segments whose bytes others have written. A byte read or written outside of a segment
// ends the test: see guarded_segment.h.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "heap_image.h"
#include "shm_allocator.h"
#include "test_support.h"

namespace {

const uint64_t HEAD = 4194384;
const uint64_t RESERVED = 64;
const uint64_t HEAP_BEGIN = HEAD + RESERVED;
const uint64_t SIZE = 4194304 + 5 * 4096;  // whole pages: the guards begin right behind
const uint64_t BLOCK_COUNT = 32;
const uint64_t BEGIN_OFFSET = 40;
const uint64_t RESERVED_AT = 48;
const uint64_t CURRENT_OFFSET = 56;
const uint64_t READY = 72;

uint64_t ListOf(uint64_t iBlockSize) { return 80 + iBlockSize - 8; }

class Heap : public ShmAllocator {
 public:
  using ShmAllocator::AllocateBatch;
  using ShmAllocator::AllocateChecked;
  using ShmAllocator::DeallocateChecked;
};

class ShmAllocatorHostileTest : public ::testing::Test {
 protected:
  ShmAllocatorHostileTest() {
    if (!m_stHeap.Attach(m_stKey.Key(), SIZE, RESERVED, false)) {
      throw std::runtime_error("not attached");
    }
    m_pRaw = std::make_unique<HeapImage>(m_stKey.Key());
  }

  bool AttachOther() { return m_stOther.Attach(m_stKey.Key(), 0, 0, false); }
  uint64_t Offset(const void* p) { return m_stHeap.GetOffset(p); }
  // So many free blocks of 32 bytes, the lowest first on their list.
  void MakeFree(size_t iBlocks) {
    std::vector<void*> vecBlocks;
    for (size_t i = 0; i < iBlocks; ++i) {
      vecBlocks.push_back(m_stHeap.Allocate(24));
    }
    std::for_each(vecBlocks.begin(), vecBlocks.end(), [this](void* p) { m_stHeap.Deallocate(p); });
  }
  std::string Dump() {
    return CaptureDescriptor([this](int iFD) { m_stHeap.Dump(iFD); });
  }

  PrivateKey m_stKey;
  Heap m_stHeap;
  Heap m_stOther;
  std::unique_ptr<HeapImage> m_pRaw;
};

TEST_F(ShmAllocatorHostileTest, SizeThatTheSegmentHasIsAttached) {
  EXPECT_TRUE(AttachOther());
  m_pRaw->SetWord(0, SIZE - 8);
  EXPECT_TRUE(AttachOther());
  EXPECT_EQ(nullptr, m_stOther.GetPointer(SIZE - 8));
}

TEST_F(ShmAllocatorHostileTest, SizeBeyondTheSegmentIsRefusedAndNothingIsTouched) {
  for (const uint64_t iSize : {SIZE + 1, SIZE + 4096, UINT64_MAX}) {
    m_pRaw->SetWord(0, iSize);
    EXPECT_FALSE(AttachOther()) << iSize;
    EXPECT_EQ(iSize, m_pRaw->Word(0));
  }
}

TEST_F(ShmAllocatorHostileTest, SizeWithoutRoomForTheHeaderIsRefused) {
  m_pRaw->SetWord(RESERVED_AT, 0);
  m_pRaw->SetWord(0, HEAD);
  EXPECT_TRUE(AttachOther());
  for (const uint64_t iSize : {HEAD - 1, uint64_t{80}, uint64_t{0}}) {
    m_pRaw->SetWord(0, iSize);
    EXPECT_FALSE(AttachOther()) << iSize;
  }
}

TEST_F(ShmAllocatorHostileTest, ReservedAreaBeyondTheSegmentIsRefused) {
  m_pRaw->SetWord(RESERVED_AT, SIZE - HEAD);
  EXPECT_TRUE(AttachOther());
  for (const uint64_t iReserved : {SIZE - HEAD + 1, SIZE, UINT64_MAX, UINT64_MAX - HEAD}) {
    m_pRaw->SetWord(RESERVED_AT, iReserved);
    EXPECT_FALSE(AttachOther()) << iReserved;
  }
}

TEST_F(ShmAllocatorHostileTest, AnotherBeginOfTheReservedAreaIsRefused) {
  for (const uint64_t iBegin : {HEAD - 8, HEAD + 8, UINT64_MAX}) {
    m_pRaw->SetWord(40, iBegin);
    EXPECT_FALSE(AttachOther()) << iBegin;
  }
}

TEST(ShmAllocatorHostileSegmentTest, SegmentOfOnePageThatSaysItIsReadyIsRefused) {
  const PrivateKey stKey;
  HeapImage stRaw(stKey.Key(), 4096);
  stRaw.SetWord(0, 4096);
  stRaw.SetHalf(READY, 9693823);
  ShmAllocator stHeap;
  EXPECT_FALSE(stHeap.Attach(stKey.Key(), 0, 0, false));
  stRaw.SetWord(0, SIZE);
  EXPECT_FALSE(stHeap.Attach(stKey.Key(), 0, 0, true));
}

TEST_F(ShmAllocatorHostileTest, HeaderChangedLaterMovesNoLimit) {
  m_pRaw->SetWord(0, UINT64_MAX);
  m_pRaw->SetWord(BEGIN_OFFSET, SIZE);
  m_pRaw->SetWord(RESERVED_AT, UINT64_MAX);
  EXPECT_EQ(nullptr, m_stHeap.GetPointer(SIZE));
  EXPECT_EQ(UINT64_MAX, m_stHeap.GetOffset(m_pRaw->Base() + SIZE));
  EXPECT_EQ(RESERVED, m_stHeap.GetReservedSize());
  EXPECT_EQ(HEAD, Offset(m_stHeap.GetReservedPointer()));
  EXPECT_EXIT(m_stHeap.Deallocate(static_cast<char*>(m_stHeap.GetPointer(0)) + SIZE),
              ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(ShmAllocatorHostileTest, NothingIsCarvedOutsideTheHeap) {
  for (const uint64_t iBegin :
       {uint64_t{0}, HEAP_BEGIN - 8, SIZE, SIZE + 1, SIZE + 4096, UINT64_MAX, UINT64_MAX - 31}) {
    m_pRaw->SetWord(CURRENT_OFFSET, iBegin);
    EXPECT_EQ(nullptr, m_stHeap.Allocate(24)) << iBegin;
    EXPECT_EQ(iBegin, m_pRaw->Word(CURRENT_OFFSET));
  }
  m_pRaw->SetWord(CURRENT_OFFSET, SIZE - 32);
  EXPECT_EQ(SIZE - 24, Offset(m_stHeap.Allocate(24)));
}

TEST_F(ShmAllocatorHostileTest, ListThatLeadsOutIsTakenForEmptyAndDropped) {
  uint64_t iExpected = HEAP_BEGIN + 9 * 32 + 8;
  for (const uint64_t iLink : {SIZE - 31, SIZE, UINT64_MAX, uint64_t{1} << 63}) {
    m_pRaw->SetWord(ListOf(32), iLink);
    void* p = m_stHeap.AllocateChecked(24);
    EXPECT_EQ(iExpected, Offset(p)) << iLink;
    memset(p, 1, 24);
    iExpected += 10 * 32;
  }
  EXPECT_EQ("", CheckHeap(*m_pRaw).Faults());
}

TEST_F(ShmAllocatorHostileTest, LastBlockThatFitsIsTaken) {
  m_pRaw->SetWord(ListOf(32), SIZE - 32);
  void* p = m_stHeap.AllocateChecked(24);
  EXPECT_EQ(SIZE - 24, Offset(p));
  memset(p, 1, 24);
}

TEST_F(ShmAllocatorHostileTest, CarvingOntoAListThatLeadsOutCutsIt) {
  m_pRaw->SetWord(ListOf(32), SIZE - 8);
  EXPECT_TRUE(m_stHeap.AllocateBatch(32));
  EXPECT_EQ(0u, m_pRaw->Word(HEAP_BEGIN + 8));
  EXPECT_EQ(HEAP_BEGIN + 9 * 32, m_pRaw->Word(ListOf(32)));
}

TEST_F(ShmAllocatorHostileTest, BlockWhoseSizeIsNoneIsLostAndChangesNothing) {
  void* p = m_stHeap.Allocate(24);
  const std::string strLists(m_pRaw->Base(), HEAD);
  for (const uint64_t iBlockSize : {uint64_t{0}, uint64_t{7}, uint64_t{31}, uint64_t{33},
                                    uint64_t{4194312}, SIZE, UINT64_MAX, UINT64_MAX - 7}) {
    m_pRaw->SetWord(Offset(p) - 8, iBlockSize);
    m_stHeap.DeallocateChecked(p);
    EXPECT_EQ(strLists, std::string(m_pRaw->Base(), HEAD)) << iBlockSize;
  }
  for (const uint64_t iBlockSize : {8u, 32u, 4194304u}) {
    m_pRaw->SetWord(Offset(p) - 8, iBlockSize);
    m_stHeap.DeallocateChecked(p);
    EXPECT_EQ(Offset(p) - 8, m_pRaw->Word(ListOf(iBlockSize))) << iBlockSize;
  }
}

TEST_F(ShmAllocatorHostileTest, BlockThatWouldReachOutIsOfNoClass) {
  m_pRaw->SetWord(SIZE - 64, 4096);
  char* p = static_cast<char*>(m_stHeap.GetPointer(SIZE - 56));
  EXPECT_FALSE(m_stHeap.IsSameClass(p, 4088));
  m_pRaw->SetWord(SIZE - 64, 64);
  EXPECT_TRUE(m_stHeap.IsSameClass(p, 56));
  m_pRaw->SetWord(SIZE - 64, 72);
  EXPECT_FALSE(m_stHeap.IsSameClass(p, 64));
}

TEST_F(ShmAllocatorHostileTest, DumpPassesOverLinksThatLeadOut) {
  MakeFree(3);
  m_pRaw->SetWord(HEAP_BEGIN + 9 * 32 + 8, SIZE - 15);  // the link of the first that was returned
  m_pRaw->SetWord(ListOf(4194304), UINT64_MAX);
  const std::string strDump = Dump();
  EXPECT_EQ(2 * 3, std::count(strDump.begin(), strDump.end(), '['));
  EXPECT_NE(std::string::npos, strDump.find(", next:" + std::to_string(SIZE - 15) + "\n"));
}

TEST_F(ShmAllocatorHostileTest, DumpOfARingEnds) {
  MakeFree(2);
  const uint64_t iFirst = m_pRaw->Word(ListOf(32));
  const uint64_t iSecond = m_pRaw->Word(iFirst + 8);
  m_pRaw->SetWord(iSecond + 8, iFirst);
  m_pRaw->SetWord(ListOf(40), iFirst);
  const PrivateDirectory stDirectory;
  const std::string strFile = stDirectory.File("dump");
  const int iFD = open(strFile.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  m_stHeap.Dump(iFD);
  close(iFD);
  const std::string strDump = ReadFile(strFile);
  EXPECT_EQ(static_cast<ptrdiff_t>(SIZE / 16 + 8),
            std::count(strDump.begin(), strDump.end(), '\n'));
}

TEST_F(ShmAllocatorHostileTest, CountersMayBeAnything) {
  m_pRaw->SetWord(BLOCK_COUNT, UINT64_MAX);
  m_pRaw->SetWord(CURRENT_OFFSET, UINT64_MAX);
  m_pRaw->SetWord(64, UINT64_MAX);
  EXPECT_EQ(m_pRaw->Word(0) - UINT64_MAX, m_stHeap.GetStat().iFreeSize);
}

}  // namespace
