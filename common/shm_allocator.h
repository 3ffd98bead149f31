#ifndef ZELK_COMMON_SHM_ALLOCATOR_H
#define ZELK_COMMON_SHM_ALLOCATOR_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "object.h"

// Free space of a shared heap, in bytes.
struct ShmStat_t {
  uint64_t iFreeSize;       // never yet carved into blocks: serves any size
  uint64_t iTotalFreeSize;  // the same and all free blocks, each of which serves its own size only
};

// A heap inside one System V shared-memory segment, with a reserved area for the caller's own
// header. Processes may map the segment at different addresses: what they store in it are offsets
// from its start, never pointers; offset 0 means none.
//
// Freed blocks are kept in one list per size (multiples of 8 bytes) and serve later requests of
// that size only; nothing is split, merged or given back. The lists' table takes 4 MiB at the
// start of every segment.
//
// Processes: nothing is locked. One process at a time may write (in practice one does for good);
// any number may read. Not for several threads.
//
// Crashes: a process killed at any instruction leaves a heap that the next one can use. At most
// the blocks in its hands are lost: one, or the batch of ten being carved. iBlockCount and the
// total of free bytes may then stand too high by what was in flight, never too low. One case needs
// an operator: the segment of a creator killed inside Attach() is refused until someone removes it
// (ipcrm).
//
// Hostile bytes: Attach() refuses a header whose sizes do not fit the segment as the kernel knows
// it. From then on the object goes by its own copy of them: whatever others write, no operation
// but Allocate() and Deallocate() touches anything outside, and Dump() ends. These two trust the
// lists and the word in front of a block, since a check costs more than a fiftieth of them; what
// checks these, too, derived classes find below, and HashMap uses it. Not promised: that blocks do
// not overlap, nor what the counters say.
//
// The segment outlives every process; this class never removes one.
class ShmAllocator : public Object {
 public:
  ShmAllocator() = default;
  ~ShmAllocator() override;

  ShmAllocator(const ShmAllocator&) = delete;
  ShmAllocator& operator=(const ShmAllocator&) = delete;

  // Creates the segment of iKey with mode 0600, or attaches the one that is there.
  //
  // iSize must hold 4194384 bytes of header, the reserved area and the blocks; this is not
  // checked. iReservedSize should be a multiple of 8: it is not rounded, and every block is
  // misaligned by what it is off. An existing segment may be asked for with any iSize up to its
  // own, 0 for instance; its own two sizes then replace the caller's.
  // bReadOnly: only reading operations may be called, and the segment must exist and be
  // initialised: creating one read-only ends the process with SIGSEGV.
  //
  // Whatever was attached before is detached first, also when the call then fails. Returns false
  // when shmget fails ("shmget error, ..." on standard error), when the segment cannot be mapped,
  // or when it exists without being initialised or with sizes that can not be; it then stays
  // attached and untouched, and only Detach() and Attach() may follow.
  bool Attach(key_t iKey, uint64_t iSize, uint64_t iReservedSize, bool bReadOnly);

  // The same with the key ftok(pPath, iProjId); false, with everything as it was, when there is
  // none.
  bool Attach(const char* pPath, int iProjId, uint64_t iSize, uint64_t iReservedSize,
              bool bReadOnly);

  // Unmaps the segment, which lives on. Pointers into it die. Without effect when detached.
  void Detach();

  // The operations below are for attached objects.

  // Returns at least iSize bytes, not cleared, or null when iSize is above 4194296 or the size's
  // list is empty and what was never carved is too small, whatever other sizes have free.
  // Constant time, no system call.
  //
  // Allocate(0) gives an 8-byte block: not a byte for the caller, and no room for the link to the
  // next free one, which lies over the block that follows. The first two do no harm unless they
  // are freed; from the third on they come from words that are no offsets and lie over the
  // header. Deliberate; do not ask for 0 bytes.
  void* Allocate(uint64_t iSize);

  // Takes back what Allocate() returned; the next request of the same size gets it again. Its
  // first 8 bytes are overwritten. Ends the process when p cannot lie in the heap (null, for
  // instance); does not notice a block freed twice or never allocated.
  void Deallocate(void* p);

  // True when Deallocate(p) and Allocate(iSize) would return p again: a caller may then keep p
  // and spare both.
  bool IsSameClass(const void* p, uint64_t iSize) const;

  // Byte offset of p in the segment; (uint64_t)-1 when p lies outside.
  uint64_t GetOffset(const void* p);

  // The byte at an offset; null when the segment is smaller. Offset 0 gives the segment's start,
  // not null: whoever stores 0 for none has to ask first.
  void* GetPointer(uint64_t iOffset);

  // Bytes of the reserved area.
  uint64_t GetReservedSize();
  // The reserved area, which belongs to the caller and is zero in a new segment; null when its
  // size is 0.
  void* GetReservedPointer();

  // The reference stays valid; the next call overwrites the numbers.
  const ShmStat_t& GetStat();

  // The header's fields and one line per free block, at most as many lines as there can be blocks.
  // The list of 8-byte blocks is left out.
  void Dump(int iFD) override;

 protected:
  enum { ALIGN_SIZE = 8 };

  static const uint64_t MAX_BYTES = 0x400000;

  // Start of the segment. A format shared between processes.
  struct Head_t {
    uint64_t iMemorySize;     // of the whole segment
    uint64_t iMinBytes;       // always 8
    uint64_t iMaxBytes;       // largest block, always 4194304
    uint64_t iAlignSize;      // always 8
    uint64_t iBlockCount;     // blocks handed out
    uint64_t iBeginOffset;    // of the reserved area, always 4194384
    uint64_t iReservedSize;   // of the reserved area
    uint64_t iCurrentOffset;  // first byte never carved into blocks
    uint64_t iManagedSize;    // bytes of all free blocks
    int32_t iReady;           // READY_FLAG when all of this is written
    uint32_t iPadding;
    uint64_t
        szFreeList[MAX_BYTES / ALIGN_SIZE];  // [i]: offset of a free block of (i + 1) * 8 bytes
  };

  // Start of a block. The caller's part begins at iNext.
  struct __attribute__((packed)) Pointer_t {
    uint64_t iSize;  // of the whole block
    uint64_t iNext;  // while the block is free: offset of the next of its size
  };

  // Writes the header of a new heap, from m_iSize and m_iReservedSize. Always true. iManagedSize
  // is not written: a new segment is zero.
  bool Init();

  // n, rounded up to a multiple of 8.
  static uint64_t RoundUp(uint64_t n);

  // Allocate() and Deallocate() for a heap that others may have damaged. A list that leads out of
  // the segment is taken for empty and its blocks are lost; so is a block whose size is none.
  void* AllocateChecked(uint64_t iSize);
  void DeallocateChecked(void* p);

  // Carves up to ten blocks of iBlockSize bytes (a multiple of 8) and puts them on their list;
  // false when there is no room for one.
  bool AllocateBatch(uint64_t iBlockSize);

 private:
  void InitFields();
  void* AllocateFromBatch(uint64_t iBlockSize);
  [[noreturn]] void RejectOffset(uint64_t iOffset) const;
  uint64_t OffsetOf(const void* p) const;
  Pointer_t* Block(uint64_t iOffset) const;
  bool HasLink(uint64_t iOffset, uint64_t iBlockSize) const;
  uint64_t* ListOf(uint64_t iBlockSize) const;
  static void SetList(uint64_t* pList, uint64_t iOffset);
  void* TakeFirst(uint64_t iBlockSize, uint64_t iOffset);
  bool IsBlock(uint64_t iOffset, uint64_t iBlockSize) const;
  void CheckOffset(uint64_t iOffset) const;
  void PutFirst(Pointer_t* pBlock, uint64_t iBlockSize, uint64_t iOffset);

  friend class HashMap;  // checks its links by m_iSize, and calls the two above

 protected:
  char* m_pAddress = nullptr;  // where the segment is attached
  int m_iShmID = -1;
  uint64_t m_iSize = 0;
  uint64_t m_iReservedSize = 0;
  Head_t* m_pHead = nullptr;
  ShmStat_t m_sStat{};
};

inline uint64_t ShmAllocator::RoundUp(uint64_t n) {
  const uint64_t iMask = ALIGN_SIZE - 1;
  return (n + iMask) & ~iMask;
}

// Wraps for an address below the start, to more than any segment's size.
inline uint64_t ShmAllocator::OffsetOf(const void* p) const {
  return reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(m_pHead);
}

inline ShmAllocator::Pointer_t* ShmAllocator::Block(uint64_t iOffset) const {
  return reinterpret_cast<Pointer_t*>(reinterpret_cast<char*>(m_pHead) + iOffset);
}

// The link of an 8-byte block lies behind it: the segment's last one has none.
inline bool ShmAllocator::HasLink(uint64_t iOffset, uint64_t iBlockSize) const {
  return iBlockSize >= sizeof(Pointer_t) || iOffset + sizeof(Pointer_t) <= m_iSize;
}

// The head of the list of blocks of that size: entry i = size / 8 - 1, which begins size - 8 bytes
// behind the first one. So the address, which Deallocate() waits for, needs no division or shift.
inline uint64_t* ShmAllocator::ListOf(uint64_t iBlockSize) const {
  static_assert(ALIGN_SIZE == sizeof(uint64_t), "an entry is as long as the sizes' step");
  char* pLists = reinterpret_cast<char*>(m_pHead->szFreeList);
  return reinterpret_cast<uint64_t*>(pLists + (iBlockSize - ALIGN_SIZE));
}

// Keeps the compiler from moving anything over this store, the caller's use of the block included:
// the process may be killed before or after it.
inline void ShmAllocator::SetList(uint64_t* pList, uint64_t iOffset) {
  std::atomic_thread_fence(std::memory_order_release);
  *pList = iOffset;
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

// Of a list that shows this block.
inline void* ShmAllocator::TakeFirst(uint64_t iBlockSize, uint64_t iOffset) {
  Head_t* pHead = m_pHead;
  uint64_t* pList = ListOf(iBlockSize);
  Pointer_t* pBlock = Block(iOffset);
  pHead->iBlockCount += 1;
  SetList(pList, HasLink(iOffset, iBlockSize) ? pBlock->iNext : 0);
  pHead->iManagedSize -= iBlockSize;
  return reinterpret_cast<char*>(pBlock) + sizeof(uint64_t);
}

inline void* ShmAllocator::Allocate(uint64_t iSize) {
  const uint64_t iBlockSize = RoundUp(iSize + sizeof(uint64_t));
  if (__builtin_expect(iBlockSize - 1 >= MAX_BYTES, 0)) {
    return nullptr;  // too large, or 0 after an overflow
  }
  const uint64_t iOffset = *ListOf(iBlockSize);
  if (__builtin_expect(iOffset == 0, 0)) {
    return AllocateFromBatch(iBlockSize);
  }
  return TakeFirst(iBlockSize, iOffset);
}

// Not 0, and nothing that would reach behind the segment.
inline bool ShmAllocator::IsBlock(uint64_t iOffset, uint64_t iBlockSize) const {
  return iOffset - 1 < m_iSize - iBlockSize;
}

inline void* ShmAllocator::AllocateChecked(uint64_t iSize) {
  const uint64_t iBlockSize = RoundUp(iSize + sizeof(uint64_t));
  if (__builtin_expect(iBlockSize - 1 >= MAX_BYTES, 0)) {
    return nullptr;
  }
  // volatile, here and below: a compiler may not read what it has checked again.
  const uint64_t iOffset = *static_cast<const volatile uint64_t*>(ListOf(iBlockSize));
  if (__builtin_expect(!IsBlock(iOffset, iBlockSize), 0)) {
    return AllocateFromBatch(iBlockSize);
  }
  return TakeFirst(iBlockSize, iOffset);
}

inline void ShmAllocator::CheckOffset(uint64_t iOffset) const {
  if (__builtin_expect(iOffset >= m_iSize || iOffset <= sizeof(uint64_t), 0)) {
    RejectOffset(iOffset);
  }
}

inline void ShmAllocator::PutFirst(Pointer_t* pBlock, uint64_t iBlockSize, uint64_t iOffset) {
  Head_t* pHead = m_pHead;
  uint64_t* pList = ListOf(iBlockSize);
  // Loaded here, although it is stored last: with no other load between the list's store and the
  // next Allocate(), the processor forwards the one to the other without waiting for iSize.
  const uint64_t iBlockCount = pHead->iBlockCount - 1;
  pHead->iManagedSize += iBlockSize;
  pBlock->iNext = *pList;
  SetList(pList, iOffset);
  pHead->iBlockCount = iBlockCount;
}

inline void ShmAllocator::Deallocate(void* p) {
  const uint64_t iOffset = OffsetOf(p);
  CheckOffset(iOffset);
  // By p, which is there before the offset is.
  auto* pBlock = reinterpret_cast<Pointer_t*>(static_cast<char*>(p) - sizeof(uint64_t));
  PutFirst(pBlock, pBlock->iSize, iOffset - sizeof(uint64_t));
}

inline void ShmAllocator::DeallocateChecked(void* p) {
  const uint64_t iOffset = OffsetOf(p);
  CheckOffset(iOffset);
  auto* pBlock = reinterpret_cast<Pointer_t*>(static_cast<char*>(p) - sizeof(uint64_t));
  const uint64_t iBlockSize = static_cast<const volatile Pointer_t*>(pBlock)->iSize;
  // A multiple of 8 from 8 to MAX_BYTES: turned by three bits, anything else is a large number.
  const uint64_t iClass = iBlockSize - ALIGN_SIZE;
  if (__builtin_expect((iClass >> 3 | iClass << 61) < MAX_BYTES / ALIGN_SIZE, 1)) {
    PutFirst(pBlock, iBlockSize, iOffset - sizeof(uint64_t));
  }
}

inline bool ShmAllocator::IsSameClass(const void* p, uint64_t iSize) const {
  const uint64_t iOffset = OffsetOf(p) - sizeof(uint64_t);
  const uint64_t iBlockSize = RoundUp(iSize + sizeof(uint64_t));
  return Block(iOffset)->iSize == iBlockSize && iOffset + iBlockSize <= m_iSize;
}

#endif
