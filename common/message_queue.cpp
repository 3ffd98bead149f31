#include "message_queue.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "filesystem_util.h"
#include "internal/always_assert.h"

// DESIGN
//
// A record is a 4-byte length and that many bytes; records follow each other without gap and may
// straddle the ring's end at any byte, in the length too. Offsets run from 0 to iSize - 1; reaching
// iSize is being at 0. The ring is empty when they are equal and full at iSize - 1 bytes.
//
// Each offset has one writer. Its owner copies first and publishes afterwards, once per call; a
// process that dies before the publishing store has changed nothing that the other side can see.
// The header in shared memory is the only truth: each call reads it once, none remembers it, so a
// process that was restarted goes on where its predecessor published last.
//
// The header is packed, which rules out std::atomic and the __atomic built-ins on its fields: a
// fence and a plain access instead. On x86-64 both compilers make one move of it.

namespace {

const uint32_t HEAD_SIZE = sizeof(MessageQueue::ShmHead);
const uint32_t LENGTH_SIZE = sizeof(uint32_t);
const char READY = 8;
const unsigned int DIRECTORY_MODE = 0700;
const mode_t FIFO_MODE = 0700;
const int SEGMENT_MODE = 0600;
const shmatt_t MAX_ATTACHMENTS = 3;

static_assert(sizeof(MessageQueue::ShmHead) == 13, "the ring starts at byte 13");
static_assert(offsetof(MessageQueue::ShmHead, cReadyFlag) == 0, "shared format");
static_assert(offsetof(MessageQueue::ShmHead, iSize) == 1, "shared format");
static_assert(offsetof(MessageQueue::ShmHead, iReadOffset) == 5, "shared format");
static_assert(offsetof(MessageQueue::ShmHead, iWriteOffset) == 9, "shared format");

void* const DETACHED = reinterpret_cast<void*>(-1);  // NOLINT(performance-no-int-to-ptr): shmat's

// Restores errno at the end of the scope.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : m_iErrno(errno) {}
  ~ErrnoKeeper() { errno = m_iErrno; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  int m_iErrno;
};

bool MakeFifo(const char* pPath) {
  std::string strDirectory;
  GetPath(pPath, strDirectory);
  return MakeDir(strDirectory.c_str(), DIRECTORY_MODE) == 0 &&
         (mkfifo(pPath, FIFO_MODE) == 0 || errno == EEXIST);
}

// Ends a creation that failed: a segment without Init would be of no use to whoever comes next, and
// be so for ever.
void DropNew(int iShmID, bool bCreated) {
  const ErrnoKeeper stKeeper;
  if (bCreated) {
    shmctl(iShmID, IPC_RMID, nullptr);
  }
}

uint32_t Used(uint32_t iRing, uint32_t iRead, uint32_t iWrite) {
  return iWrite >= iRead ? iWrite - iRead : iRing + iWrite - iRead;
}

// 64 bits: in a ring above 2 GiB the sum of an offset and a size may need them.
uint32_t Wrapped(uint64_t iOffset, uint32_t iRing) {
  return static_cast<uint32_t>(iOffset >= iRing ? iOffset - iRing : iOffset);
}

// glibc copies more than about 2 KiB by one "rep movsb", which AMD's Zen 3 and Zen 4 do 17 to 25
// times slower when the target lies up to 63 bytes ahead of the source within a page. Records begin
// at any byte and would meet that now and then; pieces of this size go through vector registers.
const size_t COPY_PIECE = 2048;

void CopyPieces(char* pTo, const char* pFrom, size_t iSize) {
  while (iSize != 0) {
    size_t iPiece = std::min(iSize, COPY_PIECE);
    asm("" : "+r"(iPiece));  // else g++ knows the limit and makes a "rep movsq" of the call
    memcpy(pTo, pFrom, iPiece);
    pTo += iPiece;
    pFrom += iPiece;
    iSize -= iPiece;
  }
}

// memcpy without a call for the short messages that queues mostly carry: the first and the last
// bytes in two moves, which may overlap.
template <size_t Size>
inline void CopyEnds(char* pTo, const char* pFrom, uint32_t iSize) {
  memcpy(pTo, pFrom, Size);
  memcpy(pTo + (iSize - Size), pFrom + (iSize - Size), Size);
}

inline void Copy(char* pTo, const char* pFrom, uint32_t iSize) {
  if (iSize > 64) {
    CopyPieces(pTo, pFrom, iSize);
  } else if (iSize >= 32) {
    CopyEnds<32>(pTo, pFrom, iSize);
  } else if (iSize >= 16) {
    CopyEnds<16>(pTo, pFrom, iSize);
  } else if (iSize >= 8) {
    CopyEnds<8>(pTo, pFrom, iSize);
  } else if (iSize >= 4) {
    CopyEnds<4>(pTo, pFrom, iSize);
  } else if (iSize != 0) {
    pTo[0] = pFrom[0];
    pTo[iSize / 2] = pFrom[iSize / 2];
    pTo[iSize - 1] = pFrom[iSize - 1];
  }
}

// A place in the ring that moves with what is copied. It is never the ring's end: what reaches
// the end goes on at the first byte.
class Cursor {
 public:
  Cursor(char* pRing, uint32_t iRing, uint32_t iOffset)
      : m_pRing(pRing), m_pRingEnd(pRing + iRing), m_pPlace(pRing + iOffset) {}

  void Write(const char* pFrom, uint32_t iSize) {
    if (iSize < Tail()) {
      Copy(m_pPlace, pFrom, iSize);
      m_pPlace += iSize;
    } else {
      WriteOverEnd(pFrom, iSize);
    }
  }

  void Read(char* pTo, uint32_t iSize) {
    if (iSize < Tail()) {
      Copy(pTo, m_pPlace, iSize);
      m_pPlace += iSize;
    } else {
      ReadOverEnd(pTo, iSize);
    }
  }

 private:
  size_t Tail() const { return static_cast<size_t>(m_pRingEnd - m_pPlace); }
  void WriteOverEnd(const char* pFrom, uint32_t iSize);
  void ReadOverEnd(char* pTo, uint32_t iSize);

  char* const m_pRing;
  char* const m_pRingEnd;
  char* m_pPlace;
};

void Cursor::WriteOverEnd(const char* pFrom, uint32_t iSize) {
  const size_t iTail = Tail();
  const char* const pEnd = m_pRingEnd;
  char* const pBegin = m_pRing + (iSize - iTail);
  assert(pEnd > pBegin);
  CopyPieces(m_pPlace, pFrom, iTail);
  CopyPieces(m_pRing, pFrom + iTail, iSize - iTail);
  m_pPlace = pBegin;
}

void Cursor::ReadOverEnd(char* pTo, uint32_t iSize) {
  const size_t iTail = Tail();
  CopyPieces(pTo, m_pPlace, iTail);
  CopyPieces(pTo + iTail, m_pRing, iSize - iTail);
  m_pPlace = m_pRing + (iSize - iTail);
}

}  // namespace

MessageQueue::MessageQueue() : m_pAddress(DETACHED) {}

MessageQueue::~MessageQueue() { Detach(); }

int MessageQueue::Attach(const char* pPath, int iProjId, unsigned int iSize) {
  Detach();
  if (!MakeFifo(pPath)) {
    return -1;
  }
  const key_t iKey = ftok(pPath, iProjId);
  return iKey == -1 ? -1 : AttachWithKey(pPath, iKey, iSize);
}

int MessageQueue::AttachWithKey(const char* pPath, key_t iKey, unsigned int iSize) {
  Detach();
  if (!MakeFifo(pPath)) {
    return -1;
  }
  // Open for both directions it neither waits for the other side nor ever reports end of file.
  m_iFifoFD = open(pPath, O_RDWR | O_NONBLOCK);
  if (m_iFifoFD == -1) {
    return -1;
  }
  bool bCreated = false;
  if (!OpenSegment(iKey, iSize, bCreated)) {
    return -1;  // deliberately with the FIFO open
  }
  if (!HasFreeAttachment()) {
    DropNew(m_iShmID, bCreated);
    Detach();
    return -1;
  }
  m_pAddress = shmat(m_iShmID, nullptr, 0);
  if (m_pAddress == DETACHED) {
    DropNew(m_iShmID, bCreated);
    return -1;
  }
  m_pShmHead = static_cast<ShmHead*>(m_pAddress);
  m_pBegin = static_cast<char*>(m_pAddress) + HEAD_SIZE;
  m_iSize = iSize;
  if (bCreated) {
    Init();
  }
  m_bReadyFlag = true;
  return 0;
}

bool MessageQueue::OpenSegment(key_t iKey, unsigned int iSize, bool& bCreated) {
  m_iShmID = shmget(iKey, iSize, IPC_CREAT | IPC_EXCL | SEGMENT_MODE);
  bCreated = m_iShmID != -1;
  if (!bCreated && errno == EEXIST) {
    m_iShmID = shmget(iKey, iSize, IPC_CREAT | SEGMENT_MODE);
  }
  return m_iShmID != -1;
}

// One writer, one reader and one who looks: the limit is deliberate.
bool MessageQueue::HasFreeAttachment() const {
  shmid_ds stStatus;
  if (shmctl(m_iShmID, IPC_STAT, &stStatus) == -1) {
    return false;
  }
  if (stStatus.shm_nattch >= MAX_ATTACHMENTS) {
    errno = EBUSY;
    return false;
  }
  return true;
}

int MessageQueue::Init() {
  m_pShmHead->iReadOffset = 0;
  m_pShmHead->iWriteOffset = 0;
  m_pShmHead->iSize = m_iSize - HEAD_SIZE;
  std::atomic_thread_fence(std::memory_order_release);
  m_pShmHead->cReadyFlag = READY;
  return 0;
}

int MessageQueue::Push(const BufferVec_t* pVec, unsigned int iCount) {
  const uint32_t iRing = m_pShmHead->iSize;
  const uint32_t iWrite = m_pShmHead->iWriteOffset;
  if (iCount == 0) {
    // Deliberately not nothing: it wakes the reader and brings a stray offset back into the ring.
    m_pShmHead->iWriteOffset = Wrapped(iWrite, iRing);
    Wake();
    return 0;
  }
  uint32_t iTotal = 0;
  for (unsigned int i = 0; i < iCount; ++i) {
    iTotal += pVec[i].iSize + LENGTH_SIZE;
  }
  const uint32_t iRead = m_pShmHead->iReadOffset;
  if (iRing - Used(iRing, iRead, iWrite) - 1 < iTotal) {
    return 0;
  }
  // Pairs with the release in Pop: the bytes that are overwritten have been copied out.
  std::atomic_thread_fence(std::memory_order_acquire);
  Cursor stCursor(m_pBegin, iRing, iWrite);
  for (unsigned int i = 0; i < iCount; ++i) {
    char szLength[LENGTH_SIZE];
    memcpy(szLength, &pVec[i].iSize, LENGTH_SIZE);
    stCursor.Write(szLength, LENGTH_SIZE);
    stCursor.Write(pVec[i].pData, pVec[i].iSize);
  }
  // Pairs with the acquire in Pop: the records are in place.
  std::atomic_thread_fence(std::memory_order_release);
  m_pShmHead->iWriteOffset = Wrapped(uint64_t{iWrite} + iTotal, iRing);
  Wake();
  return static_cast<int>(iCount);
}

int MessageQueue::Pop(BufferVec_t* pVec, unsigned int iCount) {
  const uint32_t iRing = m_pShmHead->iSize;
  const uint32_t iRead = m_pShmHead->iReadOffset;
  uint32_t iAvailable = Used(iRing, iRead, m_pShmHead->iWriteOffset);
  // Pairs with the release in Push: the records up to the write offset are in place.
  std::atomic_thread_fence(std::memory_order_acquire);
  Cursor stCursor(m_pBegin, iRing, iRead);
  uint32_t iConsumed = 0;
  unsigned int n = 0;
  for (; n < iCount && iAvailable >= LENGTH_SIZE; ++n) {
    BufferVec_t stMessage;
    stCursor.Read(reinterpret_cast<char*>(&stMessage.iSize), LENGTH_SIZE);
    iAvailable -= LENGTH_SIZE;
    if (iAvailable < stMessage.iSize) {
      break;  // not a whole record; no sound writer publishes one
    }
    stMessage.pData = new (std::nothrow) char[stMessage.iSize];
    if (stMessage.pData == nullptr) {
      break;
    }
    stCursor.Read(stMessage.pData, stMessage.iSize);
    pVec[n] = stMessage;
    iAvailable -= stMessage.iSize;
    iConsumed += LENGTH_SIZE + stMessage.iSize;
  }
  // Pairs with the acquire in Push: the bytes given up have been copied out.
  std::atomic_thread_fence(std::memory_order_release);
  const uint32_t iReadNow = Wrapped(uint64_t{iRead} + iConsumed, iRing);
  if (iReadNow != iRead) {  // an empty Pop leaves the header's cache line with the writer
    m_pShmHead->iReadOffset = iReadNow;
  }
  return static_cast<int>(n);
}

unsigned int MessageQueue::CanReadSize() {
  return Used(m_pShmHead->iSize, m_pShmHead->iReadOffset, m_pShmHead->iWriteOffset);
}

unsigned int MessageQueue::CanWriteSize() { return m_pShmHead->iSize - CanReadSize() - 1; }

void MessageQueue::Wake() const {
  const ssize_t iIgnored = write(m_iFifoFD, &FIFO_DATA, sizeof(FIFO_DATA));
  static_cast<void>(iIgnored);  // a full FIFO wakes the reader as well
}

void MessageQueue::ClearFifo() {
  char szBytes[1024];
  while (read(m_iFifoFD, szBytes, sizeof(szBytes)) == sizeof(szBytes)) {
  }
}

int MessageQueue::FifoFD() { return m_iFifoFD; }

bool MessageQueue::Ready() { return m_bReadyFlag; }

int MessageQueue::Detach() {
  const ErrnoKeeper stKeeper;
  if (m_pAddress != DETACHED) {
    shmdt(m_pAddress);
    m_pAddress = DETACHED;
  }
  if (m_iFifoFD != -1) {
    close(m_iFifoFD);
    m_iFifoFD = -1;
  }
  m_bReadyFlag = false;
  return 0;
}

int MessageQueue::Delete() {
  if (m_iShmID != -1) {
    shmctl(m_iShmID, IPC_RMID, nullptr);
    m_iShmID = -1;
  }
  return 0;
}

void MessageQueue::Dump(int iFD) {
  dprintf(iFD, "m_iSize=\"%d\"\n", static_cast<int>(m_iSize));
  dprintf(iFD, "m_iShmID=\"%d\"\n", m_iShmID);
  dprintf(iFD, "m_pAddress=\"%p\"\n", m_pAddress);
  dprintf(iFD, "m_pShmHead=\"%p\"\n", static_cast<void*>(m_pShmHead));
  dprintf(iFD, "m_pBegin=\"%p\"\n", static_cast<void*>(m_pBegin));
  dprintf(iFD, "m_pShmHead->cReadyFlag=\"%d\"\n", m_pShmHead->cReadyFlag);
  dprintf(iFD, "m_pShmHead->iSize=\"%d\"\n", static_cast<int>(m_pShmHead->iSize));
  dprintf(iFD, "m_pShmHead->iWriteOffset=\"%d\"\n", static_cast<int>(m_pShmHead->iWriteOffset));
  dprintf(iFD, "m_pShmHead->iReadOffset=\"%d\"\n", static_cast<int>(m_pShmHead->iReadOffset));
}
