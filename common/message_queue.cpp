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
#include <map>
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
//
// Nor is the header trusted. Whoever may attach may write anything there, at any moment: a call
// copies it once, and touches the ring only when the copy's offsets lie in the ring and the ring in
// the segment, whose size the kernel tells. A record's length is copied and compared likewise.

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

// What a call goes by: a copy of the header, which volatile keeps the compiler from reading again.
struct Header_t {
  explicit Header_t(const volatile MessageQueue::ShmHead* pHead)
      : iRing(pHead->iSize), iRead(pHead->iReadOffset), iWrite(pHead->iWriteOffset) {}

  uint32_t Used() const { return iWrite >= iRead ? iWrite - iRead : iRing + iWrite - iRead; }
  uint32_t Free() const { return iRing - Used() - 1; }

  const uint32_t iRing;
  const uint32_t iRead;
  const uint32_t iWrite;
};

// The true sizes of the segments that are larger than their attach was told, by address. They stand
// here because the objects' layout is fixed: hosts were compiled with it.
std::map<const void*, size_t> g_mapLargeSegments;

// When the kernel does not tell, what was asked for stays the limit.
void NoteSize(int iShmID, const void* pSegment, uint32_t iAttached) {
  shmid_ds stStatus;
  if (shmctl(iShmID, IPC_STAT, &stStatus) == 0 && stStatus.shm_segsz > iAttached) {
    g_mapLargeSegments[pSegment] = stStatus.shm_segsz;
  }
}

// As a rule there is nothing to forget, and nothing that queues have in common is written.
void ForgetSize(const void* pSegment) {
  if (!g_mapLargeSegments.empty()) {
    g_mapLargeSegments.erase(pSegment);
  }
}

bool IsInLargeSegment(uint32_t iRing, const void* pSegment) {
  const auto it = g_mapLargeSegments.find(pSegment);
  return it != g_mapLargeSegments.end() && uint64_t{iRing} + HEAD_SIZE <= it->second;
}

// Whether the offsets lie in the ring and the ring in the segment. The segment has at least the
// iAttached bytes that were asked for: the kernel gives no smaller one.
bool IsSound(const Header_t& stHeader, const void* pSegment, uint32_t iAttached) {
  return std::max(stHeader.iRead, stHeader.iWrite) < stHeader.iRing &&
         (uint64_t{stHeader.iRing} + HEAD_SIZE <= iAttached ||
          IsInLargeSegment(stHeader.iRing, pSegment));
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

  void WriteLength(uint32_t iLength) {
    if (LENGTH_SIZE < Tail()) {
      memcpy(m_pPlace, &iLength, LENGTH_SIZE);
      m_pPlace += LENGTH_SIZE;
    } else {
      WriteLengthOverEnd(*this, iLength);
      m_pPlace = m_pRing + (LENGTH_SIZE - Tail());
    }
  }

  uint32_t ReadLength() {
    uint32_t iLength = 0;
    if (LENGTH_SIZE < Tail()) {
      memcpy(&iLength, m_pPlace, LENGTH_SIZE);
      m_pPlace += LENGTH_SIZE;
    } else {
      iLength = ReadLengthOverEnd(*this);
      m_pPlace = m_pRing + (LENGTH_SIZE - Tail());
    }
    asm("" : "+r"(iLength));  // else the compiler might read it again once it is checked
    return iLength;
  }

 private:
  size_t Tail() const { return static_cast<size_t>(m_pRingEnd - m_pPlace); }
  void WriteOverEnd(const char* pFrom, uint32_t iSize);
  void ReadOverEnd(char* pTo, uint32_t iSize);
  // Out of line and by value: else every Push and Pop pays for a local whose address is taken.
  static void WriteLengthOverEnd(Cursor stCursor, uint32_t iLength);
  static uint32_t ReadLengthOverEnd(Cursor stCursor);

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

[[gnu::noinline]] void Cursor::WriteLengthOverEnd(Cursor stCursor, uint32_t iLength) {
  stCursor.WriteOverEnd(reinterpret_cast<const char*>(&iLength), LENGTH_SIZE);
}

[[gnu::noinline]] uint32_t Cursor::ReadLengthOverEnd(Cursor stCursor) {
  uint32_t iLength = 0;
  stCursor.ReadOverEnd(reinterpret_cast<char*>(&iLength), LENGTH_SIZE);
  return iLength;
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
  } else {
    NoteSize(m_iShmID, m_pAddress, iSize);
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
  const Header_t stHeader(m_pShmHead);
  if (iCount == 0) {
    // Deliberately not nothing: it wakes the reader and brings a stray offset back into the ring.
    m_pShmHead->iWriteOffset = Wrapped(stHeader.iWrite, stHeader.iRing);
    Wake();
    return 0;
  }
  uint32_t iTotal = 0;
  for (unsigned int i = 0; i < iCount; ++i) {
    iTotal += pVec[i].iSize + LENGTH_SIZE;
  }
  if (stHeader.Free() < iTotal) {
    return 0;
  }
  if (!IsSound(stHeader, m_pAddress, m_iSize)) {
    // Deliberately fatal in a ring of size 0, which its creator has not yet, or never, initialised.
    const char* const pBegin = m_pBegin;
    const char* const pEnd = m_pBegin + stHeader.iRing;
    assert(pEnd > pBegin);
    return 0;
  }
  // Pairs with the release in Pop: the bytes that are overwritten have been copied out.
  std::atomic_thread_fence(std::memory_order_acquire);
  const uint32_t iWrite = Wrapped(uint64_t{stHeader.iWrite} + iTotal, stHeader.iRing);
  Cursor stCursor(m_pBegin, stHeader.iRing, stHeader.iWrite);
  for (unsigned int i = 0; i < iCount; ++i) {
    stCursor.WriteLength(pVec[i].iSize);
    stCursor.Write(pVec[i].pData, pVec[i].iSize);
  }
  // Pairs with the acquire in Pop: the records are in place.
  std::atomic_thread_fence(std::memory_order_release);
  m_pShmHead->iWriteOffset = iWrite;
  Wake();
  return static_cast<int>(iCount);
}

int MessageQueue::Pop(BufferVec_t* pVec, unsigned int iCount) {
  const Header_t stHeader(m_pShmHead);
  uint32_t iUsed = stHeader.Used();
  if (iUsed >= LENGTH_SIZE && !IsSound(stHeader, m_pAddress, m_iSize)) {
    iUsed = 0;  // takes nothing, but brings a stray read offset back into the ring
  }
  // Pairs with the release in Push: the records up to the write offset are in place.
  std::atomic_thread_fence(std::memory_order_acquire);
  Cursor stCursor(m_pBegin, stHeader.iRing, stHeader.iRead);
  uint32_t iLeft = iUsed;
  unsigned int n = 0;
  for (; n < iCount && iLeft >= LENGTH_SIZE; ++n) {
    const uint32_t iSize = stCursor.ReadLength();
    if (iLeft - LENGTH_SIZE < iSize) {
      break;  // not a whole record; no sound writer publishes one
    }
    char* const pData = new (std::nothrow) char[iSize];
    if (pData == nullptr) {
      break;
    }
    stCursor.Read(pData, iSize);
    pVec[n].pData = pData;
    pVec[n].iSize = iSize;
    iLeft -= LENGTH_SIZE + iSize;
  }
  // Pairs with the acquire in Push: the bytes given up have been copied out.
  std::atomic_thread_fence(std::memory_order_release);
  const uint32_t iRead = Wrapped(uint64_t{stHeader.iRead} + iUsed - iLeft, stHeader.iRing);
  if (iRead != stHeader.iRead) {  // an empty Pop leaves the header's cache line with the writer
    m_pShmHead->iReadOffset = iRead;
  }
  return static_cast<int>(n);
}

unsigned int MessageQueue::CanReadSize() { return Header_t(m_pShmHead).Used(); }

unsigned int MessageQueue::CanWriteSize() { return Header_t(m_pShmHead).Free(); }

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
    ForgetSize(m_pAddress);
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
