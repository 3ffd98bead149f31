#include "queue_fixture.h"

#include <sys/shm.h>
#include <unistd.h>

#include <stdexcept>

RawSegment::RawSegment(key_t iKey)
    : m_pStart(static_cast<char*>(shmat(shmget(iKey, 0, 0), nullptr, 0))) {
  if (m_pStart == reinterpret_cast<char*>(-1)) {
    throw std::runtime_error("no segment under this key");
  }
}

RawSegment::~RawSegment() { shmdt(m_pStart); }

MessageQueue::ShmHead* RawSegment::Head() const {
  return reinterpret_cast<MessageQueue::ShmHead*>(m_pStart);
}

std::string RawSegment::Bytes(uint32_t iFrom, uint32_t iCount) const {
  return std::string(m_pStart + iFrom, iCount);
}

int Attachments(key_t iKey) {
  shmid_ds stStatus;
  const int iShmID = shmget(iKey, 0, 0);
  return shmctl(iShmID, IPC_STAT, &stStatus) == 0 ? static_cast<int>(stStatus.shm_nattch) : -1;
}

void QueueFixture::SetUp() {
  ASSERT_EQ(0, Attach(m_stWriter));
  ASSERT_EQ(0, Attach(m_stReader));
}

void QueueFixture::StartAt(uint32_t iOffset) {
  const RawSegment stSegment(m_stKey.Key());
  stSegment.Head()->iReadOffset = iOffset;
  stSegment.Head()->iWriteOffset = iOffset;
}

std::string QueueFixture::TakeWakeBytes() {
  char szBytes[100];
  const ssize_t iCount = read(m_stReader.FifoFD(), szBytes, sizeof(szBytes));
  return iCount > 0 ? std::string(szBytes, static_cast<size_t>(iCount)) : "";
}
