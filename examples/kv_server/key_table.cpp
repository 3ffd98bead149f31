#include "key_table.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstring>

namespace {

uint64_t BucketBytes(uint64_t iBuckets, size_t iHead) { return iHead + iBuckets * 16; }

}  // namespace

uint64_t KeyTable::HeadSize(uint64_t iBuckets) {
  return sizeof(Heap::Head_t) + BucketBytes(iBuckets, sizeof(Head_t)) + INTENT_SIZE;
}

bool KeyTable::Create(key_t iKey, uint64_t iBytes, uint64_t iBuckets) {
  RESERVED_SIZE = BucketBytes(iBuckets, sizeof(Head_t)) + INTENT_SIZE;
  return Attach(iKey, iBytes, iBuckets, false);
}

// Looks before it attaches: a HashMap makes itself at home in a heap that has no table yet, and
// believes what the heap's head says.
bool KeyTable::Open(key_t iKey, uint64_t iBuckets, bool bReadOnly) {
  RESERVED_SIZE = BucketBytes(iBuckets, sizeof(Head_t)) + INTENT_SIZE;
  return IsTable(iKey) && Attach(iKey, 0, iBuckets, bReadOnly) && Buckets() == iBuckets;
}

bool KeyTable::IsTable(key_t iKey) {
  shmid_ds stStatus{};
  ShmAllocator stHeap;
  if (shmctl(shmget(iKey, 0, 0), IPC_STAT, &stStatus) != 0 ||
      stStatus.shm_segsz < sizeof(Heap::Head_t) + RESERVED_SIZE ||
      !stHeap.Attach(iKey, 0, 0, true) || stHeap.GetReservedSize() != RESERVED_SIZE ||
      stHeap.GetReservedPointer() != stHeap.GetPointer(sizeof(Heap::Head_t)) ||
      stHeap.GetPointer(stStatus.shm_segsz) != nullptr ||
      stHeap.GetPointer(stStatus.shm_segsz - 1) == nullptr) {
    return false;
  }
  Head_t stHead{};
  memcpy(&stHead, static_cast<char*>(stHeap.GetPointer(0)) + sizeof(Heap::Head_t), sizeof(stHead));
  return stHead.iReady == READY_FLAG;
}

IntentHead_t* KeyTable::Intent() {
  return reinterpret_cast<IntentHead_t*>(BucketList() + m_pHead->iBucketCount);
}
