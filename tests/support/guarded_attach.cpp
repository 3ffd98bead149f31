#include "guarded_attach.h"

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <map>

namespace {

const size_t GUARD = size_t{1} << 33;  // on either side: two 32-bit numbers added
const size_t QUEUE_HEAD = 13;          // the kernel maps it also when the segment is smaller

// The sizes of the segments that are attached, by address.
std::map<const char*, size_t>& Guarded() {
  static auto* const s_pSizes = new std::map<const char*, size_t>;  // used until the very end
  return *s_pSizes;
}

void* PlainAttach(int iShmID, const void* pAddress, int iFlags) {
  return reinterpret_cast<void*>(syscall(SYS_shmat, iShmID, pAddress, iFlags));
}

}  // namespace

extern "C" {

void* shmat(int iShmID, const void* pAddress, int iFlags) noexcept {
  shmid_ds stStatus;
  if (pAddress != nullptr || shmctl(iShmID, IPC_STAT, &stStatus) == -1) {
    return PlainAttach(iShmID, pAddress, iFlags);
  }
  const size_t iMapped = MappedSize(stStatus.shm_segsz);
  void* const pReserved = mmap(nullptr, GUARD + iMapped + GUARD, PROT_NONE,
                               MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (pReserved == MAP_FAILED) {
    return pReserved;
  }
  char* const pSegment = static_cast<char*>(pReserved) + GUARD;
  if (PlainAttach(iShmID, pSegment, iFlags | SHM_REMAP) != pSegment) {
    munmap(pReserved, GUARD + iMapped + GUARD);
    return reinterpret_cast<void*>(-1);
  }
  const size_t iUsable = std::max<size_t>(stStatus.shm_segsz, QUEUE_HEAD);
  ASAN_POISON_MEMORY_REGION(pSegment + iUsable, iMapped - iUsable);
  Guarded()[pSegment] = stStatus.shm_segsz;
  return pSegment;
}

int shmdt(const void* pAddress) noexcept {
  const auto it = Guarded().find(static_cast<const char*>(pAddress));
  const int iResult = static_cast<int>(syscall(SYS_shmdt, pAddress));
  if (iResult == 0 && it != Guarded().end()) {
    const size_t iMapped = MappedSize(it->second);
    char* const pSegment = const_cast<char*>(it->first);
    ASAN_UNPOISON_MEMORY_REGION(pSegment, iMapped);
    munmap(pSegment - GUARD, GUARD + iMapped + GUARD);
    Guarded().erase(it);
  }
  return iResult;
}

}  // extern "C"
