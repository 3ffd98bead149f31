#include "heap_image.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace {

shmid_ds Status(int iShmID) {
  shmid_ds stStatus{};
  if (shmctl(iShmID, IPC_STAT, &stStatus) != 0) {
    throw std::runtime_error("shmctl");
  }
  return stStatus;
}

}  // namespace

HeapImage::HeapImage(key_t iKey, size_t iCreateSize)
    : m_iShmID(shmget(iKey, iCreateSize, iCreateSize == 0 ? 0 : IPC_CREAT | IPC_EXCL | 0600)),
      m_pSegment(static_cast<char*>(shmat(m_iShmID, nullptr, 0))) {
  if (m_pSegment == reinterpret_cast<char*>(-1)) {
    throw std::runtime_error(std::string("segment: ") + strerror(errno));
  }
  m_pBase = m_pSegment;
  m_iSize = Status(m_iShmID).shm_segsz;
}

HeapImage::~HeapImage() { shmdt(m_pSegment); }

mode_t HeapImage::Mode() const { return Status(m_iShmID).shm_perm.mode; }

size_t HeapImage::Attachments() const { return Status(m_iShmID).shm_nattch; }

void HeapImage::SetWord(uint64_t iOffset, uint64_t iValue) {
  memcpy(m_pSegment + iOffset, &iValue, sizeof(iValue));
}

void HeapImage::SetHalf(uint64_t iOffset, uint32_t iValue) {
  memcpy(m_pSegment + iOffset, &iValue, sizeof(iValue));
}
