#include "shm_allocator.h"

#include <errno.h>
#include <stdio.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>

#include "internal/shared_word.h"

#include "internal/always_assert.h"

// DESIGN
//
// Segment: header with one list head per block size | reserved area | blocks | never carved.
//
// An empty list is filled by carving up to ten blocks from iCurrentOffset, which only grows. All
// blocks of a batch are written before iCurrentOffset moves over them, and that before the list
// shows them: a process killed in between leaves them uncarved or lost, never on the list twice
// or half written. Taking and returning a block change the list by one store of its head. The two
// counters are raised before that store and lowered after it, so that a kill can leave them too
// high, never too low: subtracting from them never wraps.
//
// Taking and returning a block are a dozen instructions and stand in the header, for hosts to have
// them in line; carving is out of line. Sizes of classes are constants of the format: the hot path
// neither loads them from the segment nor divides.

namespace {

const uint64_t MIN_BYTES = 8;
const uint64_t BEGIN_OFFSET = 0x400050;
const unsigned int BATCH_COUNT = 10;
const int32_t READY_FLAG = 9693823;
const uint64_t NO_OFFSET = static_cast<uint64_t>(-1);

// As the kernel knows it; 0 when it tells nothing.
uint64_t SegmentSize(int iShmID) {
  shmid_ds stSegment{};
  return shmctl(iShmID, IPC_STAT, &stSegment) == 0 ? stSegment.shm_segsz : 0;
}

}  // namespace

ShmAllocator::~ShmAllocator() { Detach(); }

bool ShmAllocator::Attach(key_t iKey, uint64_t iSize, uint64_t iReservedSize, bool bReadOnly) {
  static_assert(sizeof(Head_t) == BEGIN_OFFSET && offsetof(Head_t, iBlockCount) == 32 &&
                    offsetof(Head_t, iCurrentOffset) == 56 && offsetof(Head_t, iReady) == 72 &&
                    offsetof(Head_t, szFreeList) == 80 && sizeof(Pointer_t) == 16,
                "formats shared between processes");
  Detach();
  m_iShmID = shmget(iKey, iSize, IPC_CREAT | IPC_EXCL | 0600);
  const bool bCreated = m_iShmID != -1;
  if (!bCreated && errno == EEXIST) {
    m_iShmID = shmget(iKey, iSize, IPC_CREAT | 0600);
  }
  if (m_iShmID == -1) {
    const int iError = errno;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): safe in glibc, whose texts do not change
    dprintf(STDERR_FILENO, "shmget error, %s\n", strerror(iError));
    errno = iError;
    return false;
  }

  void* pAddress = shmat(m_iShmID, nullptr, bReadOnly ? SHM_RDONLY : 0);
  if (reinterpret_cast<intptr_t>(pAddress) == -1) {
    return false;
  }
  m_pAddress = static_cast<char*>(pAddress);
  m_pHead = static_cast<Head_t*>(pAddress);
  m_iSize = iSize;
  m_iReservedSize = iReservedSize;
  if (bCreated) {
    InitFields();  // the lists of a new segment are zero: their 4 MiB need not be touched
    return true;
  }
  if (AcquireWord<int32_t>(&m_pHead->iReady) != READY_FLAG) {
    return false;
  }
  m_iSize = AcquireWord<uint64_t>(&m_pHead->iMemorySize);
  m_iReservedSize = AcquireWord<uint64_t>(&m_pHead->iReservedSize);
  return m_iSize <= SegmentSize(m_iShmID) && m_iSize >= sizeof(Head_t) &&
         m_iReservedSize <= m_iSize - sizeof(Head_t) &&
         AcquireWord<uint64_t>(&m_pHead->iBeginOffset) == BEGIN_OFFSET;
}

bool ShmAllocator::Attach(const char* pPath, int iProjId, uint64_t iSize, uint64_t iReservedSize,
                          bool bReadOnly) {
  const key_t iKey = ftok(pPath, iProjId);
  return iKey != -1 && Attach(iKey, iSize, iReservedSize, bReadOnly);
}

void ShmAllocator::Detach() {
  if (m_pAddress != nullptr) {
    shmdt(m_pAddress);
  }
  m_pAddress = nullptr;
  m_pHead = nullptr;
  m_iShmID = -1;
}

bool ShmAllocator::Init() {
  memset(m_pHead->szFreeList, 0, sizeof(m_pHead->szFreeList));
  InitFields();
  return true;
}

// Everything but the lists.
void ShmAllocator::InitFields() {
  m_pHead->iAlignSize = ALIGN_SIZE;
  m_pHead->iMemorySize = m_iSize;
  m_pHead->iMinBytes = MIN_BYTES;
  m_pHead->iMaxBytes = MAX_BYTES;
  m_pHead->iReservedSize = m_iReservedSize;
  m_pHead->iBeginOffset = BEGIN_OFFSET;
  m_pHead->iBlockCount = 0;
  m_pHead->iCurrentOffset = BEGIN_OFFSET + m_iReservedSize;
  PublishWord(&m_pHead->iReady, READY_FLAG);
}

void* ShmAllocator::AllocateFromBatch(uint64_t iBlockSize) {
  if (!AllocateBatch(iBlockSize)) {
    return nullptr;
  }
  const auto iOffset = AcquireWord<uint64_t>(ListOf(iBlockSize));
  return IsBlock(iOffset, iBlockSize) ? TakeFirst(iBlockSize, iOffset) : nullptr;
}

bool ShmAllocator::AllocateBatch(uint64_t iBlockSize) {
  uint64_t* pList = ListOf(iBlockSize);
  const uint64_t iBegin = AcquireWord<uint64_t>(&m_pHead->iCurrentOffset);
  if (iBegin < BEGIN_OFFSET + m_iReservedSize || iBegin > m_iSize ||
      m_iSize - iBegin < iBlockSize) {
    return false;
  }
  // From low to high: the link of an 8-byte block gives way to the next one's size.
  uint64_t iLast = AcquireWord<uint64_t>(pList);
  if (!IsBlock(iLast, iBlockSize)) {
    iLast = 0;
  }
  uint64_t iEnd = iBegin;
  for (unsigned int i = 0; i < BATCH_COUNT && m_iSize - iEnd >= iBlockSize; ++i) {
    Pointer_t* pBlock = Block(iEnd);
    pBlock->iSize = iBlockSize;
    if (HasLink(iEnd, iBlockSize)) {
      pBlock->iNext = iLast;
    }
    iLast = iEnd;
    iEnd += iBlockSize;
  }
  m_pHead->iManagedSize += iEnd - iBegin;
  PublishWord(&m_pHead->iCurrentOffset, iEnd);
  PublishWord(pList, iLast);
  return true;
}

void ShmAllocator::RejectOffset(uint64_t iOffset) const {
  assert(iOffset < m_pHead->iMemorySize && iOffset > sizeof(uint64_t));
  abort();
}

uint64_t ShmAllocator::GetOffset(const void* p) {
  const uint64_t iOffset = OffsetOf(p);
  return iOffset < m_iSize ? iOffset : NO_OFFSET;
}

void* ShmAllocator::GetPointer(uint64_t iOffset) {
  return iOffset < m_iSize ? m_pAddress + iOffset : nullptr;
}

uint64_t ShmAllocator::GetReservedSize() { return m_iReservedSize; }

void* ShmAllocator::GetReservedPointer() {
  return m_iReservedSize == 0 ? nullptr : m_pAddress + BEGIN_OFFSET;
}

const ShmStat_t& ShmAllocator::GetStat() {
  m_sStat.iFreeSize = m_pHead->iMemorySize - m_pHead->iCurrentOffset;
  m_sStat.iTotalFreeSize = m_sStat.iFreeSize + m_pHead->iManagedSize;
  return m_sStat;
}

void ShmAllocator::Dump(int iFD) {
  dprintf(iFD, "m_pHead->iMemorySize=\"%lu\"\n", m_pHead->iMemorySize);
  dprintf(iFD, "m_pHead->iMinBytes=\"%lu\"\n", m_pHead->iMinBytes);
  dprintf(iFD, "m_pHead->iMaxBytes=\"%lu\"\n", m_pHead->iMaxBytes);
  dprintf(iFD, "m_pHead->iAlignSize=\"%lu\"\n", m_pHead->iAlignSize);
  dprintf(iFD, "m_pHead->iBlockCount=\"%lu\"\n", m_pHead->iBlockCount);
  dprintf(iFD, "m_pHead->iBeginOffset=\"%lu\"\n", m_pHead->iBeginOffset);
  dprintf(iFD, "m_pHead->iCurrentOffset=\"%lu\"\n", m_pHead->iCurrentOffset);
  dprintf(iFD, "m_pHead->iReady=\"%d\"\n", m_pHead->iReady);
  uint64_t iLines = m_iSize / sizeof(Pointer_t);  // for all blocks that there can be, for no ring
  // From the second list on, although there are 8-byte blocks: deliberate.
  for (uint64_t i = MIN_BYTES / ALIGN_SIZE; i < MAX_BYTES / ALIGN_SIZE; ++i) {
    uint64_t iOffset = AcquireWord<uint64_t>(&m_pHead->szFreeList[i]);
    for (; IsBlock(iOffset, sizeof(Pointer_t)) && iLines != 0; --iLines) {
      const uint64_t iNext = AcquireWord<uint64_t>(&Block(iOffset)->iNext);
      dprintf(iFD, "[%lu][%lu bytes] offset:%lu, next:%lu\n", i, (i + 1) * ALIGN_SIZE, iOffset,
              iNext);
      iOffset = iNext;
    }
  }
}
