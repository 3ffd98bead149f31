#include "hash_map.h"

#include <stdio.h>
#include <sys/ipc.h>

#include <cstddef>
#include <cstring>

#include "internal/shared_word.h"

// DESIGN
//
// The reserved area holds a head of 56 bytes and one bucket of 16 bytes per chain; an entry is one
// block of the heap: link, two sizes, key with NUL, value. All links are offsets in the segment.
//
// A chain changes by one store, of a bucket's or an entry's link. An entry is complete before that
// store shows it, and no byte of it changes before that store has hidden it; a linked entry never
// changes but for its own link. So a process killed anywhere leaves whole chains, and a reader in
// another process never sees half an entry. The statistics are raised before an entry is linked
// and lowered after it is unlinked: a kill leaves them too high by one entry, not too low, and
// later deletions do not wrap them below 0.

namespace {

const uint64_t SPARE_SIZE = 1024;  // added when RESERVED_SIZE has to grow
const uint64_t FNV_BASIS = 2166136261;
const uint64_t FNV_PRIME = 16777619;
const uint64_t BKDR_SEED = 131;
const uint64_t PREFETCH_BUCKETS = 8;  // iterating, this far ahead

// A byte as the hashes see it: bytes from 0x80 on are negative.
inline uint64_t SignExtended(char c) {
  return static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(c)));
}

struct HashedKey_t {
  uint64_t iHash;
  uint64_t iKeySize;  // with the NUL
};

// Hash and length in one pass.
inline HashedKey_t HashKey(const char* pKey) {
  uint64_t iHash = FNV_BASIS;
  const char* p = pKey;
  for (; *p != '\0'; ++p) {
    iHash = (iHash ^ SignExtended(*p)) * FNV_PRIME;
  }
  return {iHash, static_cast<uint64_t>(p - pKey) + 1};
}

template <typename Item>
inline char* KeyOf(Item* pItem) {
  return reinterpret_cast<char*>(pItem + 1);
}

}  // namespace

uint64_t RESERVED_SIZE = 1048576;

HashMap::~HashMap() { Detach(); }

bool HashMap::Attach(key_t iKey, uint64_t iSize, uint64_t iBucketCount, bool bReadOnly) {
  static_assert(
      sizeof(Head_t) == 56 && offsetof(Head_t, iObjectCount) == 8 &&
          offsetof(Head_t, iReady) == 16 && offsetof(Head_t, iMaxKeySize) == 20 &&
          offsetof(Head_t, iMaxValueSize) == 24 && offsetof(Head_t, iTotalKeySize) == 32 &&
          offsetof(Head_t, iMaxBucketSize) == 48 && sizeof(Bucket_t) == 16 &&
          offsetof(Bucket_t, iBucket) == 8 && sizeof(InternalItem_t) == 16 &&
          offsetof(InternalItem_t, iKeySize) == 8 && offsetof(InternalItem_t, iValueSize) == 12,
      "formats shared between processes");
  m_iBucketCount = iBucketCount;
  m_pHead = nullptr;
  const uint64_t iTableSize = iBucketCount * sizeof(Bucket_t) + sizeof(Head_t);
  if (iTableSize > RESERVED_SIZE) {
    RESERVED_SIZE = iTableSize + SPARE_SIZE;
  }
  if (!m_sAllocator.Attach(iKey, iSize, RESERVED_SIZE, bReadOnly)) {
    return false;
  }
  if (m_sAllocator.GetReservedSize() != RESERVED_SIZE) {
    m_sAllocator.Detach();
    return false;
  }
  m_pBase = static_cast<char*>(m_sAllocator.GetPointer(0));
  m_pHead = static_cast<Head_t*>(m_sAllocator.GetReservedPointer());
  if (AcquireWord<uint32_t>(&m_pHead->iReady) != READY_FLAG) {
    return Init();
  }
  m_iBucketCount = m_pHead->iBucketCount;
  PrepareLookup();
  return true;
}

bool HashMap::Attach(const char* pPath, int iProjId, uint64_t iSize, uint64_t iBucketCount,
                     bool bReadOnly) {
  const key_t iKey = ftok(pPath, iProjId);
  return iKey != -1 && Attach(iKey, iSize, iBucketCount, bReadOnly);
}

void HashMap::Detach() {
  m_sAllocator.Detach();
  m_pHead = nullptr;
}

bool HashMap::Init() {
  memset(m_pHead, 0, sizeof(Head_t));
  if (m_iBucketCount * sizeof(Bucket_t) + sizeof(Head_t) > m_sAllocator.GetReservedSize()) {
    return false;
  }
  m_pHead->iBucketCount = static_cast<uint32_t>(m_iBucketCount);
  memset(Bucket(0), 0, m_iBucketCount * sizeof(Bucket_t));
  PublishWord<uint32_t>(&m_pHead->iReady, READY_FLAG);
  PrepareLookup();
  return true;
}

void HashMap::PrepareLookup() {
  const uint32_t iCount = m_pHead->iBucketCount;
  if (iCount != 0) {
    m_iReciprocal = UINT64_MAX / iCount;
    m_iReciprocalOf = iCount;
  }
}

// iHash % iBucketCount without a division. The product with floor((2^64 - 1) / n) is less than 1
// below the true quotient before it is cut, so the remainder is exact or n too large.
inline uint32_t HashMap::BucketOf(uint64_t iHash) const {
  __extension__ typedef unsigned __int128 uint128_t;
  const uint64_t iCount = m_pHead->iBucketCount;
  if (__builtin_expect(iCount != m_iReciprocalOf, 0)) {
    return static_cast<uint32_t>(iHash % iCount);  // another process has made the table anew
  }
  const auto iQuotient = static_cast<uint64_t>((uint128_t{iHash} * m_iReciprocal) >> 64);
  const uint64_t iRemainder = iHash - iQuotient * iCount;
  return static_cast<uint32_t>(iRemainder < iCount ? iRemainder : iRemainder - iCount);
}

inline HashMap::Bucket_t* HashMap::Bucket(uint64_t iBucket) const {
  return reinterpret_cast<Bucket_t*>(m_pHead + 1) + iBucket;
}

inline HashMap::InternalItem_t* HashMap::ItemAt(uint64_t iOffset) const {
  return iOffset == 0 ? nullptr : reinterpret_cast<InternalItem_t*>(m_pBase + iOffset);
}

inline HashItem_t HashMap::View(InternalItem_t* pItem) {
  char* pKey = KeyOf(pItem);
  return {pKey, pKey + pItem->iKeySize, pItem->iValueSize};
}

inline HashMap::Place_t HashMap::Find(const char* pKey) const {
  const HashedKey_t stKey = HashKey(pKey);
  Place_t stPlace{stKey.iKeySize, BucketOf(stKey.iHash), nullptr, nullptr};
  InternalItem_t* pItem = ItemAt(AcquireWord<uint64_t>(&Bucket(stPlace.iBucket)->iBucket));
  while (pItem != nullptr &&
         (pItem->iKeySize != stKey.iKeySize || memcmp(KeyOf(pItem), pKey, stKey.iKeySize) != 0)) {
    stPlace.pBefore = pItem;
    pItem = ItemAt(AcquireWord<uint64_t>(&pItem->iNext));
  }
  stPlace.pItem = pItem;
  return stPlace;
}

inline void HashMap::Unlink(const Place_t& stPlace) {
  void* pLink = &Bucket(stPlace.iBucket)->iBucket;
  if (stPlace.pBefore != nullptr) {
    pLink = &stPlace.pBefore->iNext;
  }
  PublishWord<uint64_t>(pLink, stPlace.pItem->iNext);
  RemoveObjectForStat(stPlace.pItem, stPlace.iBucket);
}

// Takes out the entry of that key, if any, and returns a block for the new one, null when there is
// none. The heap would give an old block of the right size straight back: it is kept instead.
inline HashMap::InternalItem_t* HashMap::MakeRoom(const Place_t& stPlace, uint32_t iValueSize) {
  const uint64_t iSize = sizeof(InternalItem_t) + stPlace.iKeySize + iValueSize;
  if (stPlace.pItem != nullptr) {
    Unlink(stPlace);
    if (m_sAllocator.IsSameClass(stPlace.pItem, iSize)) {
      return stPlace.pItem;
    }
    m_sAllocator.Deallocate(stPlace.pItem);
  }
  return static_cast<InternalItem_t*>(m_sAllocator.Allocate(iSize));
}

bool HashMap::Set(const HashItem_t& stItem) {
  const Place_t stPlace = Find(stItem.pKey);
  InternalItem_t* pItem = MakeRoom(stPlace, stItem.iValueSize);
  if (pItem == nullptr) {
    return false;
  }
  Bucket_t* pBucket = Bucket(stPlace.iBucket);
  pItem->iNext = pBucket->iBucket;
  pItem->iKeySize = static_cast<uint32_t>(stPlace.iKeySize);
  pItem->iValueSize = stItem.iValueSize;
  // Not memcpy: key and value may lie in the entry that was replaced, whose block this is.
  memmove(KeyOf(pItem), stItem.pKey, stPlace.iKeySize);
  if (stItem.iValueSize != 0) {
    memmove(KeyOf(pItem) + stPlace.iKeySize, stItem.pValue, stItem.iValueSize);
  }
  AddObjectForStat(pItem, stPlace.iBucket);
  PublishWord<uint64_t>(&pBucket->iBucket,
                        static_cast<uint64_t>(reinterpret_cast<char*>(pItem) - m_pBase));
  return true;
}

bool HashMap::Set(const char* pKey, const void* pData, uint32_t iSize) {
  return Set(
      HashItem_t{const_cast<char*>(pKey), static_cast<char*>(const_cast<void*>(pData)), iSize});
}

bool HashMap::Set(const char* pKey, uint64_t iValue) { return Set(pKey, &iValue, sizeof(iValue)); }

bool HashMap::Set(const char* pKey, const char* pValue) {
  return Set(pKey, pValue, static_cast<uint32_t>(strlen(pValue) + 1));
}

const HashItem_t HashMap::Get(const char* pKey) {
  InternalItem_t* pItem = Find(pKey).pItem;
  return pItem == nullptr ? HashItem_t{} : View(pItem);
}

uint64_t HashMap::GetInt(const char* pKey, uint64_t iDefault) {
  const HashItem_t stItem = Get(pKey);
  uint64_t iValue = iDefault;
  if (stItem.iValueSize == sizeof(iValue)) {
    memcpy(&iValue, stItem.pValue, sizeof(iValue));
  }
  return iValue;
}

const char* HashMap::GetString(const char* pKey) {
  const HashItem_t stItem = Get(pKey);
  return stItem.iValueSize == 0 ? nullptr : stItem.pValue;
}

bool HashMap::Delete(const char* pKey) {
  const Place_t stPlace = Find(pKey);
  if (stPlace.pItem != nullptr) {
    Unlink(stPlace);
    m_sAllocator.Deallocate(stPlace.pItem);
  }
  return true;
}

void HashMap::AddObjectForStat(InternalItem_t* pItem, uint32_t iBucket) {
  Bucket_t* pBucket = Bucket(iBucket);
  m_pHead->iTotalKeySize += pItem->iKeySize;
  m_pHead->iObjectCount += 1;
  m_pHead->iTotalValueSize += pItem->iValueSize;
  if (m_pHead->iMaxValueSize < pItem->iValueSize) {
    m_pHead->iMaxValueSize = pItem->iValueSize;
  }
  if (m_pHead->iMaxKeySize < pItem->iKeySize) {
    m_pHead->iMaxKeySize = pItem->iKeySize;
  }
  pBucket->iSize += 1;
  if (m_pHead->iMaxBucketSize < pBucket->iSize) {
    m_pHead->iMaxBucketSize = pBucket->iSize;
  }
}

void HashMap::RemoveObjectForStat(InternalItem_t* pItem, uint32_t iBucket) {
  if (pItem == nullptr) {
    return;
  }
  m_pHead->iTotalKeySize -= pItem->iKeySize;
  m_pHead->iObjectCount -= 1;
  m_pHead->iTotalValueSize -= pItem->iValueSize;
  Bucket(iBucket)->iSize -= 1;
}

const HashMapStat_t& HashMap::GetStat() {
  const ShmStat_t& stHeap = m_sAllocator.GetStat();
  m_sStat = HashMapStat_t{};
  m_sStat.iObjectCount = m_pHead->iObjectCount;
  m_sStat.iMaxKeySize = m_pHead->iMaxKeySize;
  m_sStat.iMaxValueSize = m_pHead->iMaxValueSize;
  m_sStat.iMaxBucketSize = m_pHead->iMaxBucketSize;
  if (m_sStat.iObjectCount != 0) {
    const uint64_t iCount = m_sStat.iObjectCount;
    m_sStat.iAvgKeySize = static_cast<uint32_t>(m_pHead->iTotalKeySize / iCount);
    m_sStat.iAvgValueSize = static_cast<uint32_t>(m_pHead->iTotalValueSize / iCount);
    m_sStat.iAvgBucketSize = static_cast<uint32_t>(iCount / m_pHead->iBucketCount);
  }
  m_sStat.iFreeShmSize = stHeap.iFreeSize;
  m_sStat.iTotalFreeShmSize = stHeap.iTotalFreeSize;
  return m_sStat;
}

uint64_t HashMap::FNVHash(const char* pKey) { return HashKey(pKey).iHash; }

uint64_t HashMap::BKDRHash(const char* pKey) {
  uint64_t iHash = 0;
  for (; *pKey != '\0'; ++pKey) {
    iHash = iHash * BKDR_SEED + SignExtended(*pKey);
  }
  return iHash & 0x7FFFFFFF;
}

void HashMap::Dump(int iFD) {
  dprintf(iFD, "---------- ShmAllocator ----------\n");
  m_sAllocator.Dump(iFD);
  dprintf(iFD, "---------- HashMap ----------\n");
  dprintf(iFD, "m_pHead->iBucketCount=\"%u\"\n", m_pHead->iBucketCount);
  dprintf(iFD, "m_pHead->iObjectCount=\"%lu\"\n", m_pHead->iObjectCount);
  dprintf(iFD, "---------- HashMap.Bucket ----------\n");
  for (uint64_t i = 0; i < m_pHead->iBucketCount; ++i) {
    for (InternalItem_t* pItem = ItemAt(Bucket(i)->iBucket); pItem != nullptr;
         pItem = ItemAt(pItem->iNext)) {
      dprintf(iFD, "bucket:%lu key:\"%s\", value_size:\"%u\"\n", i, KeyOf(pItem),
              pItem->iValueSize);
    }
  }
}

HashMap::iterator HashMap::find(const char* pKey) {
  const Place_t stPlace = Find(pKey);
  iterator it;
  if (stPlace.pItem != nullptr) {
    it.MoveTo(this, stPlace.iBucket, stPlace.pItem);
  }
  return it;
}

HashMap::iterator HashMap::begin() {
  iterator it;
  it.MoveToFirstFrom(this, 0);
  return it;
}

HashMap::iterator HashMap::end() { return {}; }

HashMap::iterator::iterator(uint64_t iBucket, uint64_t iNext, HashMap* pHashMap, char* pKey,
                            uint32_t iValueSize, char* pValue)
    : m_iBucket(iBucket), m_iNext(iNext), m_sItem{pKey, pValue, iValueSize}, m_pHashMap(pHashMap) {}

void HashMap::iterator::make_end() {
  m_iBucket = 0;
  m_iNext = 0;
  m_sItem = HashItem_t{};
  m_pHashMap = nullptr;
}

inline void HashMap::iterator::MoveTo(HashMap* pHashMap, uint64_t iBucket, InternalItem_t* pItem) {
  m_iBucket = iBucket;
  m_iNext = pItem->iNext;
  m_sItem = View(pItem);
  m_pHashMap = pHashMap;
}

// To the first entry of the lowest bucket from iBucket on that has one.
inline void HashMap::iterator::MoveToFirstFrom(HashMap* pHashMap, uint64_t iBucket) {
  const uint64_t iCount = pHashMap->m_pHead->iBucketCount;
  const Bucket_t* pBuckets = pHashMap->Bucket(0);
  for (; iBucket < iCount; ++iBucket) {
    InternalItem_t* pItem = pHashMap->ItemAt(AcquireWord<uint64_t>(&pBuckets[iBucket].iBucket));
    if (iBucket + PREFETCH_BUCKETS < iCount) {
      // The entries lie anywhere: ask for one while those before it are looked at.
      __builtin_prefetch(pHashMap->m_pBase + pBuckets[iBucket + PREFETCH_BUCKETS].iBucket);
    }
    if (pItem != nullptr) {
      return MoveTo(pHashMap, iBucket, pItem);
    }
  }
  make_end();
}

HashMap::iterator& HashMap::iterator::operator++() {
  if (m_iNext != 0) {
    MoveTo(m_pHashMap, m_iBucket, m_pHashMap->ItemAt(m_iNext));
  } else if (m_pHashMap != nullptr) {
    MoveToFirstFrom(m_pHashMap, m_iBucket + 1);
  }
  return *this;
}

HashMap::iterator& HashMap::iterator::operator++(int) {
  static iterator stCopy;
  stCopy = *this;
  ++*this;
  return stCopy;
}

HashMap::iterator::operator uint64_t() const {
  uint64_t iValue = 0;
  if (m_sItem.pValue != nullptr && m_sItem.iValueSize == sizeof(iValue)) {
    memcpy(&iValue, m_sItem.pValue, sizeof(iValue));
  }
  return iValue;
}

HashMap::iterator::operator int() const {
  int iValue = 0;
  if (m_sItem.pValue != nullptr && m_sItem.iValueSize == sizeof(iValue)) {
    memcpy(&iValue, m_sItem.pValue, sizeof(iValue));
  }
  return iValue;
}

HashMap::iterator::operator char*() const { return m_sItem.pValue; }

HashMap::iterator::operator const char*() const { return m_sItem.pValue; }
