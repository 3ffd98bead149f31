#include "guarded_segment.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <map>

const size_t SEGMENT_GUARD = size_t{256} << 20;

namespace {

const size_t PAGE = 4096;

// Reserved bytes by the address of the segment in their middle.
std::map<const void*, size_t>& Reservations() {
  static std::map<const void*, size_t> s_mapReservations;
  return s_mapReservations;
}

void* const FAILED = reinterpret_cast<void*>(-1);

}  // namespace

extern "C" void* shmat(int iShmID, const void* /*pAddress*/, int iFlags) noexcept {
  shmid_ds stSegment{};
  if (shmctl(iShmID, IPC_STAT, &stSegment) == -1) {
    return FAILED;
  }
  const size_t iMapped = (stSegment.shm_segsz + PAGE - 1) / PAGE * PAGE;
  const size_t iReserved = iMapped + 2 * SEGMENT_GUARD;
  void* pReserved =
      mmap(nullptr, iReserved, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (pReserved == MAP_FAILED) {
    return FAILED;
  }
  char* pSegment = static_cast<char*>(pReserved) + SEGMENT_GUARD;
  if (syscall(SYS_shmat, iShmID, pSegment, iFlags | SHM_REMAP) == -1) {
    const int iError = errno;
    munmap(pReserved, iReserved);
    errno = iError;
    return FAILED;
  }
  Reservations()[pSegment] = iReserved;
  return pSegment;
}

extern "C" int shmdt(const void* pAddress) noexcept {
  const auto it = Reservations().find(pAddress);
  if (it == Reservations().end()) {
    errno = EINVAL;
    return -1;
  }
  char* pReserved = static_cast<char*>(const_cast<void*>(pAddress)) - SEGMENT_GUARD;
  munmap(pReserved, it->second);  // the segment with its guards
  Reservations().erase(it);
  return 0;
}
