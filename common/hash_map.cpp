#include "hash_map.h"

#include <stdio.h>
#include <sys/ipc.h>

#include <algorithm>
#include <atomic>
#include <climits>
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
const uint64_t ENTRY_HEAD = 16;
const uint64_t SMALLEST_ENTRY = 32;  // a block of the heap, with an empty key and no value
const uint64_t LONG_CHAIN = 64;

// A byte as the hashes see it: bytes from 0x80 on are negative.
inline uint64_t SignExtended(char c) {
  return static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(c)));
}

struct HashedKey_t {
  uint64_t iHash;
  uint64_t iKeySize;  // with the NUL
};

// Hash and length in one pass, four characters a turn.
inline HashedKey_t HashKey(const char* pKey) {
  uint64_t iHash = FNV_BASIS;
  for (const char* p = pKey;; p += 4) {
    for (int i = 0; i < 4; ++i) {
      if (p[i] == '\0') {
        return {iHash, static_cast<uint64_t>(p - pKey) + static_cast<uint64_t>(i) + 1};
      }
      iHash = (iHash ^ SignExtended(p[i])) * FNV_PRIME;
    }
  }
}

template <typename Item>
inline char* KeyOf(Item* pItem) {
  return reinterpret_cast<char*>(pItem + 1);
}

template <typename Word>
inline bool SameWord(const char* pOne, const char* pOther) {
  return AcquireWord<Word>(pOne) == AcquireWord<Word>(pOther);
}

// In line, since a call costs more than the comparison of most keys. The last words overlap those
// before them.
inline bool SameKey(const char* pOne, const char* pOther, uint64_t iSize) {
  if (iSize < sizeof(uint64_t)) {
    if (iSize >= sizeof(uint32_t)) {
      const uint64_t iLast = iSize - sizeof(uint32_t);
      return SameWord<uint32_t>(pOne, pOther) && SameWord<uint32_t>(pOne + iLast, pOther + iLast);
    }
    return pOne[0] == pOther[0] && pOne[iSize / 2] == pOther[iSize / 2] &&
           pOne[iSize - 1] == pOther[iSize - 1];
  }
  const uint64_t iLast = iSize - sizeof(uint64_t);
  for (uint64_t i = 0; i < iLast; i += sizeof(uint64_t)) {
    if (!SameWord<uint64_t>(pOne + i, pOther + i)) {
      return false;
    }
  }
  return SameWord<uint64_t>(pOne + iLast, pOther + iLast);
}

// The chains of a table as bytes that anybody may have written.
class Chains {
 public:
  // iRoom: how far behind iFirst an entry without key and value may begin.
  Chains(const char* pBase, uint64_t iFirst, uint64_t iRoom, uint64_t iBuckets)
      : m_pBase(pBase), m_iFirst(iFirst), m_iRoom(iRoom), m_iBuckets(iBuckets) {}

  // Counts links from an entry on to the end of its chain. 0 when there is no end, or when entries
  // of other buckets follow: many buckets may share these. Chains are short, only those that are
  // long are looked at closely. A ring meets the mark again, which is set at each power of two.
  uint64_t Length(uint64_t iBucket, uint64_t iOffset) const {
    uint64_t iMark = 0;
    uint64_t iMarkAt = LONG_CHAIN;
    uint64_t i = 0;
    for (; iOffset - m_iFirst <= m_iRoom; ++i) {
      if (i >= LONG_CHAIN &&
          (iOffset == iMark || i > m_iRoom / SMALLEST_ENTRY || !IsOf(iBucket, iOffset))) {
        return 0;
      }
      if (i == iMarkAt) {
        iMark = iOffset;
        iMarkAt *= 2;
      }
      iOffset = AcquireWord<uint64_t>(m_pBase + iOffset);
    }
    return i;
  }

 private:
  // Whether the key there belongs into that bucket.
  bool IsOf(uint64_t iBucket, uint64_t iOffset) const {
    const char* pKey = m_pBase + iOffset + ENTRY_HEAD;
    const char* pEnd = pKey + (m_iRoom - (iOffset - m_iFirst));
    uint64_t iHash = FNV_BASIS;
    for (; pKey != pEnd && *pKey != '\0'; ++pKey) {
      iHash = (iHash ^ SignExtended(*pKey)) * FNV_PRIME;
    }
    return iHash % m_iBuckets == iBucket;
  }

  const char* const m_pBase;
  const uint64_t m_iFirst;
  const uint64_t m_iRoom;
  const uint64_t m_iBuckets;
};

// When an iterator, which knows only where it is, has to ask whether its chain ends at all: seldom,
// and the more so the longer that took last time; at random, since a loop in a loop would otherwise
// ask for both. One for the process, whose threads may iterate each in a table of its own: a count
// that they disturb is lost, the question is not.
class RareQuestion {
 public:
  bool IsDue() {
    const int64_t iLinks = m_iLinks.load(std::memory_order_relaxed) - 1;
    m_iLinks.store(iLinks, std::memory_order_relaxed);
    return iLinks <= 0;
  }
  void Answered(uint64_t iLength) {
    const uint32_t iRandom = m_iRandom.load(std::memory_order_relaxed) * 1664525 + 1013904223;
    m_iRandom.store(iRandom, std::memory_order_relaxed);
    m_iLinks.store(static_cast<int64_t>(1 + iRandom / 256 % (2 * std::max(iLength, LONG_CHAIN))),
                   std::memory_order_relaxed);
  }

 private:
  std::atomic<int64_t> m_iLinks{LONG_CHAIN};
  std::atomic<uint32_t> m_iRandom{1};
};

RareQuestion g_stQuestion;

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
  m_iBucketCount = AcquireWord<uint32_t>(&m_pHead->iBucketCount);
  if (m_iBucketCount * sizeof(Bucket_t) + sizeof(Head_t) > RESERVED_SIZE) {
    Detach();
    return false;
  }
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
  m_iReciprocalOf = std::max<uint32_t>(static_cast<uint32_t>(m_iBucketCount), 1);
  m_iReciprocal = UINT64_MAX / m_iReciprocalOf;
}

// iHash % iBucketCount without a division. The product with floor((2^64 - 1) / n) is less than 1
// below the true quotient before it is cut, so the remainder is exact or n too large.
inline uint32_t HashMap::BucketOf(uint64_t iHash) const {
  __extension__ typedef unsigned __int128 uint128_t;
  const uint64_t iCount = AcquireWord<uint32_t>(&m_pHead->iBucketCount);
  if (__builtin_expect(iCount != m_iReciprocalOf, 0)) {
    return static_cast<uint32_t>(iHash % BucketCount());  // another process made the table anew
  }
  const auto iQuotient = static_cast<uint64_t>((uint128_t{iHash} * m_iReciprocal) >> 64);
  const uint64_t iRemainder = iHash - iQuotient * iCount;
  return static_cast<uint32_t>(iRemainder < iCount ? iRemainder : iRemainder - iCount);
}

inline HashMap::Bucket_t* HashMap::Bucket(uint64_t iBucket) const {
  return reinterpret_cast<Bucket_t*>(m_pHead + 1) + iBucket;
}

// What the head says, or what it said at first when the reserved area does not hold so many. A
// table of 0 buckets has one, in the spare bytes.
inline uint64_t HashMap::BucketCount() const {
  const uint64_t iCount = AcquireWord<uint32_t>(&m_pHead->iBucketCount);
  if (__builtin_expect(iCount == m_iReciprocalOf, 1)) {
    return iCount;
  }
  const uint64_t iMost = (m_sAllocator.m_iReservedSize - sizeof(Head_t)) / sizeof(Bucket_t);
  return iCount - 1 < iMost ? iCount : std::max<uint64_t>(std::min(m_iBucketCount, iMost), 1);
}

// How far behind the heap's header an entry without key and value may begin.
inline uint64_t HashMap::Room() const {
  return m_sAllocator.m_iSize - sizeof(ShmAllocator::Head_t) - sizeof(InternalItem_t);
}

inline HashMap::InternalItem_t* HashMap::ItemAt(uint64_t iOffset) const {
  return reinterpret_cast<InternalItem_t*>(m_pBase + iOffset);
}

// One comparison tells a link from the chain's end, 0, and from what leads out of the segment.
inline HashMap::Place_t HashMap::Find(const char* pKey) const {
  const HashedKey_t stKey = HashKey(pKey);
  Place_t stPlace{stKey.iKeySize, BucketOf(stKey.iHash), nullptr, nullptr, 0};
  uint64_t iRoom = 0;
  if (__builtin_sub_overflow(Room(), stKey.iKeySize, &iRoom)) {
    return stPlace;
  }
  uint64_t iSteps = m_sAllocator.m_iSize;
  uint64_t iOffset = AcquireWord<uint64_t>(&Bucket(stPlace.iBucket)->iBucket);
  while (iOffset - sizeof(ShmAllocator::Head_t) <= iRoom) {
    InternalItem_t* pItem = ItemAt(iOffset);
    if (pItem->iKeySize == stKey.iKeySize && SameKey(KeyOf(pItem), pKey, stKey.iKeySize)) {
      stPlace.pItem = pItem;
      stPlace.iRest = iRoom - (iOffset - sizeof(ShmAllocator::Head_t));
      break;
    }
    stPlace.pBefore = pItem;
    iOffset = AcquireWord<uint64_t>(&pItem->iNext);
    if (__builtin_sub_overflow(iSteps, SMALLEST_ENTRY, &iSteps)) {
      break;  // a ring
    }
  }
  return stPlace;
}

// Whether the chain from there on is sound as far as an iterator cares.
inline bool HashMap::ChainEnds(uint64_t iBucket, uint64_t iOffset) const {
  const Chains stChains(m_pBase, sizeof(ShmAllocator::Head_t), Room(), BucketCount());
  const uint64_t iLength = stChains.Length(iBucket, iOffset);
  g_stQuestion.Answered(iLength);
  return iLength != 0;
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
    m_sAllocator.DeallocateChecked(stPlace.pItem);
  }
  return static_cast<InternalItem_t*>(m_sAllocator.AllocateChecked(iSize));
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
  const Place_t stPlace = Find(pKey);
  if (stPlace.pItem == nullptr) {
    return {};
  }
  const auto iValueSize = AcquireWord<uint32_t>(&stPlace.pItem->iValueSize);
  if (iValueSize > stPlace.iRest) {
    return {};
  }
  char* pFound = KeyOf(stPlace.pItem);
  return {pFound, pFound + stPlace.iKeySize, iValueSize};
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
    m_sAllocator.DeallocateChecked(stPlace.pItem);
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
  m_sStat.iObjectCount = AcquireWord<uint64_t>(&m_pHead->iObjectCount);
  m_sStat.iMaxKeySize = m_pHead->iMaxKeySize;
  m_sStat.iMaxValueSize = m_pHead->iMaxValueSize;
  m_sStat.iMaxBucketSize = m_pHead->iMaxBucketSize;
  if (m_sStat.iObjectCount != 0) {
    const uint64_t iCount = m_sStat.iObjectCount;
    m_sStat.iAvgKeySize = static_cast<uint32_t>(m_pHead->iTotalKeySize / iCount);
    m_sStat.iAvgValueSize = static_cast<uint32_t>(m_pHead->iTotalValueSize / iCount);
    m_sStat.iAvgBucketSize = static_cast<uint32_t>(iCount / BucketCount());
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
  uint64_t iLines = m_sAllocator.m_iSize / SMALLEST_ENTRY;  // for no ring
  for (uint64_t i = 0; i < BucketCount(); ++i) {
    uint64_t iOffset = AcquireWord<uint64_t>(&Bucket(i)->iBucket);
    for (; iOffset - sizeof(ShmAllocator::Head_t) <= Room() && iLines != 0; --iLines) {
      InternalItem_t* pItem = ItemAt(iOffset);
      const uint64_t iRest = Room() - (iOffset - sizeof(ShmAllocator::Head_t));
      const uint64_t iKeySize = std::min<uint64_t>({pItem->iKeySize, iRest, INT_MAX});
      dprintf(iFD, "bucket:%lu key:\"%.*s\", value_size:\"%u\"\n", i, static_cast<int>(iKeySize),
              KeyOf(pItem), pItem->iValueSize);
      iOffset = AcquireWord<uint64_t>(&pItem->iNext);
    }
  }
}

HashMap::iterator HashMap::find(const char* pKey) {
  const Place_t stPlace = Find(pKey);
  iterator it;
  if (stPlace.pItem == nullptr) {
    return it;
  }
  it.m_pHashMap = this;
  it.m_iBucket = stPlace.iBucket;
  if (!it.MoveTo(*this, static_cast<uint64_t>(reinterpret_cast<char*>(stPlace.pItem) - m_pBase))) {
    it.make_end();
  }
  return it;
}

HashMap::iterator HashMap::begin() {
  iterator it;
  it.m_pHashMap = this;
  it.MoveToFirstFrom(0);
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

// Not to a key without end, nor to a key or value that reaches behind the segment. A key of 0 bytes
// counts as one of 2^32, which spares a comparison: it must end with a NUL in the segment, too.
inline bool HashMap::iterator::MoveTo(const HashMap& stMap, uint64_t iOffset) {
  if (iOffset - sizeof(ShmAllocator::Head_t) > stMap.Room()) {
    return false;
  }
  InternalItem_t* pItem = stMap.ItemAt(iOffset);
  const uint64_t iNul = AcquireWord<uint32_t>(&pItem->iKeySize) - 1;
  const uint32_t iValueSize = AcquireWord<uint32_t>(&pItem->iValueSize);
  if (iOffset + sizeof(InternalItem_t) + iNul + 1 + iValueSize > stMap.m_sAllocator.m_iSize ||
      KeyOf(pItem)[iNul] != '\0') {
    return false;
  }
  m_sItem.pKey = KeyOf(pItem);
  m_sItem.iValueSize = iValueSize;
  m_iNext = AcquireWord<uint64_t>(&pItem->iNext);
  m_sItem.pValue = KeyOf(pItem) + iNul + 1;
  return true;
}

// To the first entry of the lowest bucket from iBucket on that has one.
inline void HashMap::iterator::MoveToFirstFrom(uint64_t iBucket) {
  const HashMap& stMap = *m_pHashMap;
  const uint64_t iCount = stMap.BucketCount();
  const Bucket_t* pBucket = stMap.Bucket(iBucket);
  for (; iBucket < iCount; ++iBucket, ++pBucket) {
    const uint64_t iFirst = AcquireWord<uint64_t>(&pBucket->iBucket);
    if (iBucket + PREFETCH_BUCKETS < iCount) {
      // The entries lie anywhere: ask for one while those before it are looked at.
      // Numbers are added: the offset may be anything.
      const uintptr_t iAhead =
          reinterpret_cast<uintptr_t>(stMap.m_pBase) + pBucket[PREFETCH_BUCKETS].iBucket;
      __builtin_prefetch(
          reinterpret_cast<const void*>(iAhead));  // NOLINT(performance-no-int-to-ptr)
    }
    m_iBucket = iBucket;
    if (MoveTo(stMap, iFirst)) {
      return;
    }
  }
  make_end();
}

HashMap::iterator& HashMap::iterator::operator++() {
  // Not in line and at the end, so that no other step saves registers for it.
  const auto AskAndGoOn = [](iterator & it) __attribute__((noinline))->iterator& {
    if (!it.m_pHashMap->ChainEnds(it.m_iBucket, it.m_iNext)) {
      it.m_iNext = 0;
    }
    return ++it;
  };
  if (m_iNext != 0) {
    if (__builtin_expect(g_stQuestion.IsDue(), 0)) {
      return AskAndGoOn(*this);
    }
    if (__builtin_expect(MoveTo(*m_pHashMap, m_iNext), 1)) {
      return *this;
    }
  }
  if (m_pHashMap != nullptr) {
    MoveToFirstFrom(m_iBucket + 1);
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
