#ifndef ZELK_COMMON_HASH_MAP_H
#define ZELK_COMMON_HASH_MAP_H

#include <sys/types.h>

#include <cstdint>

#include "object.h"
#include "shm_allocator.h"

// A caller's view of one entry: a NUL-terminated key and the value's bytes.
struct HashItem_t {
  char* pKey;
  char* pValue;
  uint32_t iValueSize;
};

// The table in figures.
struct HashMapStat_t {
  uint64_t iObjectCount;  // entries
  uint32_t iMaxKeySize;   // bytes with the NUL; the three maxima are of all time and never fall
  uint32_t iAvgKeySize;   // averages are of the present entries, rounded down, 0 without any
  uint32_t iMaxValueSize;
  uint32_t iAvgValueSize;
  uint32_t iMaxBucketSize;  // entries in one chain
  uint32_t iAvgBucketSize;
  uint64_t iFreeShmSize;       // bytes never used yet
  uint64_t iTotalFreeShmSize;  // the same and all free blocks
};

// Size of the bucket table's area, in bytes, that every HashMap of this process asks for; 1 MiB at
// first, enough for 65532 buckets. A table with more raises it for good: existing segments with a
// smaller area are refused from then on. Deliberate: set it, or attach the largest table, first.
extern uint64_t RESERVED_SIZE;

// A hash table from strings to byte strings in one shared-memory segment, each entry one block of
// a ShmAllocator.
//
// Processes: nothing is locked. One process writes; others may read meanwhile, and see a new entry
// only when it is complete, but a reader that walks a chain while an entry of it is replaced or
// deleted is not protected: values may change under its eyes. Not for several threads.
//
// Pointers: what Get(), GetString() and iterators hand out points into the segment and is good
// until that entry is set or deleted, or the map detached. Values are not aligned: copy them out.
//
// Crashes: a process killed at any instruction leaves every chain whole. The one entry that was
// being set is there or not (the old one under its key may be gone already), and one block may be
// lost, or what ShmAllocator says; the statistics may stand too high by that entry, never too low.
//
// Hostile bytes: whatever stands in the segment, and whoever changes it meanwhile, no operation
// reads or writes outside of it, and each one ends. Attach() refuses sizes that can not be. A link
// that leads out of the segment ends its chain; an entry whose value would reach out is none, nor,
// for iterators, one whose key would or has no NUL; a lookup ends after as many links as there can
// be entries, an iterator leaves a ring for the next bucket some time after it has gone round. Not
// promised: which entries are found then, nor what a key or value that was handed out becomes
// while others write; and the operators of an iterator read where it stood.
//
// The table outlives every process.
class HashMap : public Object {
 protected:
  struct InternalItem_t;

 public:
  class iterator;

  HashMap() = default;
  ~HashMap() override;

  HashMap(const HashMap&) = delete;
  HashMap& operator=(const HashMap&) = delete;

  // Creates the table of iKey or attaches the one that is there; see ShmAllocator::Attach() for
  // iKey, iSize, bReadOnly and the message.
  //
  // iBucketCount: about the number of entries expected; a table of 0 has one bucket. An existing
  // table keeps its own; but it must have been made with the RESERVED_SIZE that this process has,
  // after a large iBucketCount has raised it (a failing call leaves it raised). iSize must hold
  // 4194384 + RESERVED_SIZE bytes and the entries.
  // Whoever finds the table not ready makes it anew: let the writer attach first, alone, and not
  // bReadOnly, which would end it.
  // Returns false when the segment can not be had, or has another reserved size or a bucket count
  // that does not fit it, and is detached.
  bool Attach(key_t iKey, uint64_t iSize, uint64_t iBucketCount, bool bReadOnly);
  // The same with the key ftok(pPath, iProjId); false when there is none.
  bool Attach(const char* pPath, int iProjId, uint64_t iSize, uint64_t iBucketCount,
              bool bReadOnly);
  void Detach();

  // The operations below are for attached tables. Keys end at their first NUL and may be empty.

  // Insert or replace; key and value are copied. The new entry becomes the first of its chain.
  // Returns false when there is no block for it (key and value take up to 4194280 bytes with the
  // NUL); an old entry under the key is gone then, too: deliberate, it may have been its block
  // that was to serve. The value may lie in the entry that is replaced.
  // For the number 0, write Set("k", uint64_t{0}): a bare 0 is also a null pointer.
  bool Set(const HashItem_t& stItem);
  bool Set(const char* pKey, const void* pData, uint32_t iSize);
  bool Set(const char* pKey, uint64_t iValue);     // 8 bytes, as stored in memory
  bool Set(const char* pKey, const char* pValue);  // with its NUL

  // All fields null and 0 when the key is absent.
  const HashItem_t Get(const char* pKey);
  // iDefault when the key is absent or its value is not of 8 bytes.
  uint64_t GetInt(const char* pKey, uint64_t iDefault);
  // Null when the key is absent or its value empty. That the value ends with a NUL is not checked.
  const char* GetString(const char* pKey);

  // Always true, also when the key was absent.
  bool Delete(const char* pKey);

  // Entries by ascending bucket, newest first within one. Any entry but the one that ++ moves to
  // may be deleted meanwhile, the current one too.
  iterator find(const char* pKey);
  iterator begin();
  iterator end();

  // The reference stays valid; the next call overwrites the numbers.
  const HashMapStat_t& GetStat();

  // The table's hash. Its constants of 32 bits, its width of 64 and the bytes' sign are part of
  // the format: another choice would look for keys in other buckets.
  static uint64_t FNVHash(const char* pKey);
  // Another hash, of 31 bits; the table does not use it.
  static uint64_t BKDRHash(const char* pKey);

  // The heap's and the table's state, and one line per entry, at most as many as there can be.
  void Dump(int iFD) override;

 protected:
  enum { READY_FLAG = 0x2348FAD9 };

  // Start of the reserved area; the buckets follow. A format shared between processes.
  struct Head_t {
    uint32_t iBucketCount;
    uint32_t iPadding1;
    uint64_t iObjectCount;
    uint32_t iReady;         // READY_FLAG when all of this is written
    uint32_t iMaxKeySize;    // with the NUL
    uint32_t iMaxValueSize;  // largest ever, like the other maxima
    uint32_t iPadding2;
    uint64_t iTotalKeySize;  // of present entries
    uint64_t iTotalValueSize;
    uint32_t iMaxBucketSize;
    uint32_t iPadding3;
  };

  // The head of a chain. A format shared between processes, as is the next one.
  struct Bucket_t {
    uint32_t iSize;  // entries in the chain
    uint32_t iPadding;
    uint64_t iBucket;  // offset of the first, 0 for none
  };

  // An entry. The key with its NUL and the value follow.
  struct __attribute__((packed)) InternalItem_t {
    uint64_t iNext;  // offset of the next in the chain, 0 at the end
    uint32_t iKeySize;
    uint32_t iValueSize;
  };

  // Writes an empty table of m_iBucketCount buckets. False when they do not fit the reserved area,
  // of which the first 56 bytes are zero then.
  bool Init();

  // Count an entry in and out (not if null).
  void AddObjectForStat(InternalItem_t* pItem, uint32_t iBucket);
  void RemoveObjectForStat(InternalItem_t* pItem, uint32_t iBucket);

  uint64_t m_iBucketCount = 0;
  Head_t* m_pHead = nullptr;
  ShmAllocator m_sAllocator;
  HashMapStat_t m_sStat{};

 private:
  // Where a key is or would be.
  struct Place_t {
    uint64_t iKeySize;
    uint32_t iBucket;
    InternalItem_t* pBefore;  // the entry before it in the chain, null for the first
    InternalItem_t* pItem;    // null when the key is absent
    uint64_t iRest;           // bytes of the segment behind the key
  };

  void PrepareLookup();
  uint32_t BucketOf(uint64_t iHash) const;
  Bucket_t* Bucket(uint64_t iBucket) const;
  uint64_t BucketCount() const;
  uint64_t Room() const;
  InternalItem_t* ItemAt(uint64_t iOffset) const;
  bool ChainEnds(uint64_t iBucket, uint64_t iOffset) const;
  Place_t Find(const char* pKey) const;
  void Unlink(const Place_t& stPlace);
  InternalItem_t* MakeRoom(const Place_t& stPlace, uint32_t iValueSize);

  char* m_pBase = nullptr;              // the segment's start: offsets count from here
  uint64_t m_iReciprocal = UINT64_MAX;  // see BucketOf()
  uint32_t m_iReciprocalOf = 1;         // the bucket count that it belongs to
};

// Refers to its map, which must outlive it. A default-constructed one is the end of every map.
class HashMap::iterator {
 public:
  iterator() = default;
  virtual ~iterator() = default;
  iterator(const iterator&) = default;
  iterator& operator=(const iterator&) = default;

  const HashItem_t& operator*() const { return m_sItem; }

  // To the next entry; the end stays the end.
  iterator& operator++();
  // Returns a copy of the iterator as it was. There is one for the whole process, overwritten by
  // the next it++ of any iterator: deliberate; copy what you keep.
  iterator& operator++(int);

  // Compares the map, the bucket and what comes next, not the entry.
  bool operator==(const iterator& stOther) const {
    return this == &stOther || (m_pHashMap == stOther.m_pHashMap && m_iNext == stOther.m_iNext &&
                                m_iBucket == stOther.m_iBucket);
  }
  bool operator!=(const iterator& stOther) const { return !(*this == stOther); }

  // The value as a number of 8 or 4 bytes (0 when it has another size), or where it lies.
  operator uint64_t() const;     // NOLINT(google-explicit-constructor): it stands for its value
  operator int() const;          // NOLINT(google-explicit-constructor)
  operator char*() const;        // NOLINT(google-explicit-constructor)
  operator const char*() const;  // NOLINT(google-explicit-constructor)

 protected:
  friend class HashMap;

  // At an entry.
  iterator(uint64_t iBucket, uint64_t iNext, HashMap* pHashMap, char* pKey, uint32_t iValueSize,
           char* pValue);

  // To the end; within m_pHashMap to an entry of the bucket m_iBucket (false, and as it was, when
  // there is none), and to the first entry in a bucket from iBucket on.
  void make_end();
  bool MoveTo(const HashMap& stMap, uint64_t iOffset);
  void MoveToFirstFrom(uint64_t iBucket);

  uint64_t m_iBucket = 0;
  uint64_t m_iNext = 0;  // kept here, so that the current entry may be deleted before ++
  HashItem_t m_sItem{};
  HashMap* m_pHashMap = nullptr;
};

#endif
