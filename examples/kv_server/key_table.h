#ifndef KV_SERVER_KEY_TABLE_H
#define KV_SERVER_KEY_TABLE_H

#include "hash_map.h"
#include "shm_allocator.h"

// Head of the intent: the one change that must not be lost halfway. Key with NUL and record follow.
struct IntentHead_t {
  uint32_t iPending;  // 1 from before the change until after it
  uint32_t iKeySize;  // with the NUL
  uint32_t iRecordSize;
  uint32_t iPadding;
};
static_assert(sizeof(IntentHead_t) == 16, "a format shared between processes");

// A HashMap with what a host adds to it: room for an intent in the same segment, iteration that
// starts at any bucket, and a way for the checker to see the bytes.
//
// The intent lies in the heap's reserved area behind the buckets: RESERVED_SIZE, which is the
// host's to set, asks for room for both. Only the pages that are used take memory.
class KeyTable : public HashMap {
 public:
  static const uint64_t INTENT_SIZE = sizeof(IntentHead_t) + 0x400000;

  // The formats, for the checker.
  using HashMap::Bucket_t;
  using HashMap::Head_t;
  using HashMap::InternalItem_t;
  struct Heap : ShmAllocator {
    using ShmAllocator::Head_t;
    using ShmAllocator::MAX_BYTES;
    using ShmAllocator::Pointer_t;
  };

  class Position;

  // Bytes of a segment before the first block.
  static uint64_t HeadSize(uint64_t iBuckets);

  // Creates the table; the segment must not exist. False with errno.
  bool Create(key_t iKey, uint64_t iBytes, uint64_t iBuckets);
  // Attaches a table that was created with so many buckets, whatever its size. False when there is
  // none under that key, or not such a one.
  bool Open(key_t iKey, uint64_t iBuckets, bool bReadOnly);

  uint64_t Buckets() const { return m_pHead->iBucketCount; }
  IntentHead_t* Intent();

  Heap::Head_t* HeapHead() { return static_cast<Heap::Head_t*>(m_sAllocator.GetPointer(0)); }
  Head_t* TableHead() { return m_pHead; }
  Bucket_t* BucketList() { return reinterpret_cast<Bucket_t*>(m_pHead + 1); }
  // Gives a block back of which the table knows nothing.
  void GiveBack(void* p) { m_sAllocator.Deallocate(p); }

 private:
  static bool IsTable(key_t iKey);
};

// An iterator that can start at any bucket and tells where it is.
class KeyTable::Position : public HashMap::iterator {
 public:
  // At the first entry of the lowest bucket from iBucket on that has one; else at the end.
  Position(KeyTable& stTable, uint64_t iBucket)
      : HashMap::iterator(iBucket - 1, 0, &stTable, nullptr, 0, nullptr) {
    ++*this;
  }
  bool AtEnd() const { return m_pHashMap == nullptr; }
  uint64_t Bucket() const { return m_iBucket; }
};

#endif
