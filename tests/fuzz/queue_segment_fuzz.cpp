// A queue over a segment whose bytes a hostile process chose, and goes on changing: no operation
// touches a byte outside of the segment, and what it gives and takes is what a walk over the same
// bytes finds.
//
// Input: the segment's size (low bits) and what is sound in its header (high bits), the size that
// the attaches ask for, the number of operations, the operations, two bytes each, and the
// segment's content.
//
// The segment is removed as soon as it is attached and the FIFO is a pipe, so that nothing stays
// behind however the process ends; shmget() of this program finds the segment all the same.

#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "guarded_attach.h"
#include "message_queue.h"
#include "mq_pool.h"
#include "ring_check.h"

namespace {

const uint32_t HEAD_SIZE = 13;
const uint32_t LENGTH_SIZE = 4;
const int WORKER = 1;
// Two of them end with their last page, where the inaccessible begins.
const uint32_t SIZES[] = {1,  9,   13,   14,   17,   18,   30,   77,
                          78, 269, 1037, 4095, 4096, 4097, 6000, 8192};
const uint8_t SOUND_SIZE = 0x40;
const uint8_t SOUND_OFFSETS = 0x80;
const unsigned int MAX_OPERATIONS = 40;

enum OPERATION {
  OP_ATTACH,
  OP_PUSH,
  OP_POP,
  OP_POP_CHANGED,
  OP_SIZES_AND_DUMP,
  OP_CHANGE,
  OP_PUSH_NOTHING,
  OP_INIT,
};

typedef std::vector<std::string> Texts_t;

void Require(bool bHolds) {
  if (!bHolds) {
    abort();
  }
}

// A segment as its hostile owner has it: without guards, and always attached.
struct Segment_t {
  explicit Segment_t(uint32_t iBytes)
      : iSize(iBytes), iShmID(shmget(IPC_PRIVATE, iBytes, IPC_CREAT | 0600)) {
    pBase = reinterpret_cast<char*>(syscall(SYS_shmat, iShmID, nullptr, 0));
    Require(pBase != reinterpret_cast<char*>(-1) && shmctl(iShmID, IPC_RMID, nullptr) == 0);
  }
  MessageQueue::ShmHead* Head() const { return reinterpret_cast<MessageQueue::ShmHead*>(pBase); }
  std::string Bytes() const { return std::string(pBase, MappedSize(iSize)); }

  const uint32_t iSize;
  const int iShmID;
  char* pBase;
};

Segment_t* g_pSegment = nullptr;  // the one that shmget() finds
bool g_bCreated = false;          // and whether it is told to be new
uint32_t g_iAllocations = 0;
uint32_t g_iChangeAt = 0;  // the allocation that finds the segment changed
uint8_t g_iChange = 0;

void Change(uint8_t iHow) {
  static const uint32_t s_aValues[] = {0, 1, 2, 5, 0xfffffff3, 0xffffffff, 0x80000000, 0x7fffffff};
  MessageQueue::ShmHead* const pHead = g_pSegment->Head();
  const uint32_t iValue =
      s_aValues[iHow / 8 % 8] + (iHow >= 128 ? g_pSegment->iSize - HEAD_SIZE : 0);
  switch (iHow % 8) {
    case 0:
      pHead->iSize = iValue;
      break;
    case 1:
      pHead->iReadOffset = iValue;
      break;
    case 2:
      pHead->iWriteOffset = iValue;
      break;
    case 3:
      pHead->iSize = g_pSegment->iSize - HEAD_SIZE;
      break;
    case 4:
      pHead->iReadOffset += iHow / 8;
      break;
    case 5:
      pHead->iWriteOffset += iHow / 8;
      break;
    default:
      memset(g_pSegment->pBase + HEAD_SIZE, iHow,
             std::max(g_pSegment->iSize, HEAD_SIZE) - HEAD_SIZE);
  }
}

}  // namespace

extern "C" int shmget(key_t iKey, size_t iSize, int iFlags) noexcept {
  if (iKey == IPC_PRIVATE) {
    return static_cast<int>(syscall(SYS_shmget, iKey, iSize, iFlags));
  }
  if (g_bCreated) {
    return g_pSegment->iShmID;
  }
  if ((iFlags & IPC_EXCL) != 0 || iSize > g_pSegment->iSize) {
    errno = (iFlags & IPC_EXCL) != 0 ? EEXIST : EINVAL;
    return -1;
  }
  return g_pSegment->iShmID;
}

void* operator new[](size_t iSize, const std::nothrow_t& /*tag*/) noexcept {
  Require(iSize <= g_pSegment->iSize);
  if (++g_iAllocations == g_iChangeAt) {
    Change(g_iChange);
  }
  return ::operator new[](iSize);
}

namespace {

Segment_t* FindSegment(uint32_t iSize) {
  static auto* const s_pSegments = new std::map<uint32_t, Segment_t*>;
  Segment_t*& pSegment = (*s_pSegments)[iSize];
  if (pSegment == nullptr) {
    pSegment = new Segment_t(iSize);
  }
  return pSegment;
}

// A path that opens as a FIFO and lies on no disk.
const char* FifoPath() {
  static const std::string s_strPath = [] {
    int aFDs[2];
    Require(pipe(aFDs) == 0);
    return "/proc/self/fd/" + std::to_string(aFDs[0]);
  }();
  return s_strPath.c_str();
}

bool IsSound() {
  const MessageQueue::ShmHead stHead = *g_pSegment->Head();
  return stHead.iReadOffset < stHead.iSize && stHead.iWriteOffset < stHead.iSize &&
         uint64_t{stHead.iSize} + HEAD_SIZE <= g_pSegment->iSize;
}

// Every whole message in a sound ring, found without the library.
Texts_t Walk() {
  if (!IsSound()) {
    return {};
  }
  const MemoryView stView(g_pSegment->pBase, uint64_t{HEAD_SIZE} + g_pSegment->Head()->iSize);
  return CheckRing(stView, g_pSegment->iSize, g_pSegment->iSize).vecMessages;
}

size_t RingBytes(const Texts_t& vecTexts) {
  size_t iBytes = 0;
  for (const std::string& strText : vecTexts) {
    iBytes += LENGTH_SIZE + strText.size();
  }
  return iBytes;
}

// The header's and the last page's bytes behind the ring and the segment.
std::string Around(const std::string& strBytes, uint32_t iRing) {
  return strBytes.substr(std::min<size_t>(strBytes.size(), uint64_t{HEAD_SIZE} + iRing));
}

void Pushed(const Texts_t& vecOld, const Texts_t& vecNew, const std::string& strBefore,
            uint32_t iUsed) {
  Texts_t vecAll = vecOld;
  vecAll.insert(vecAll.end(), vecNew.begin(), vecNew.end());
  Require(RingBytes(vecOld) != iUsed || Walk() == vecAll);  // unless the old records were torn
  const uint32_t iRing = g_pSegment->Head()->iSize;
  Require(Around(g_pSegment->Bytes(), iRing) == Around(strBefore, iRing));
}

void Push(MessageQueue& stQueue, uint8_t iHow) {
  const uint32_t iFree = stQueue.CanWriteSize();
  const uint32_t aSizes[] = {0, 1, 3, 7, 40, 300, iFree - LENGTH_SIZE, iFree - LENGTH_SIZE + 1};
  Texts_t vecTexts;
  std::vector<BufferVec_t> vecMessages;
  for (unsigned int i = 0; i <= iHow / 64u; ++i) {
    vecTexts.emplace_back(std::min(aSizes[(iHow >> 3 * i) % 8], 10000u),
                          static_cast<char>('a' + i));
  }
  for (std::string& strText : vecTexts) {
    vecMessages.push_back({strText.data(), static_cast<uint32_t>(strText.size())});
  }
  const size_t iBytes = RingBytes(vecTexts);
  if (g_pSegment->Head()->iSize == 0 && iFree >= iBytes) {
    return;  // would end the process, as documented
  }
  const bool bFits = IsSound() && iBytes <= iFree;
  const Texts_t vecOld = Walk();
  const std::string strBefore = g_pSegment->Bytes();
  const uint32_t iUsed = stQueue.CanReadSize();
  const auto iCount = static_cast<unsigned int>(vecMessages.size());
  Require(stQueue.Push(vecMessages.data(), iCount) == static_cast<int>(bFits ? iCount : 0));
  if (bFits) {
    Pushed(vecOld, vecTexts, strBefore, iUsed);
  } else {
    Require(g_pSegment->Bytes() == strBefore);
  }
}

Texts_t Take(MessageQueue& stQueue, unsigned int iCount) {
  BufferVec_t aMessages[256];
  Texts_t vecTexts;
  const int iTaken = stQueue.Pop(aMessages, iCount);
  Require(iTaken >= 0 && static_cast<unsigned int>(iTaken) <= iCount);
  for (int i = 0; i < iTaken; ++i) {
    vecTexts.emplace_back(aMessages[i].pData, aMessages[i].iSize);
    delete[] aMessages[i].pData;
  }
  return vecTexts;
}

void Pop(MessageQueue& stQueue, unsigned int iCount) {
  Texts_t vecExpected = Walk();
  vecExpected.resize(std::min<size_t>(vecExpected.size(), iCount));
  const uint32_t iRing = g_pSegment->Head()->iSize;
  const uint64_t iRead = g_pSegment->Head()->iReadOffset + uint64_t{RingBytes(vecExpected)};
  std::string strExpected = g_pSegment->Bytes();
  const auto iReadNow = static_cast<uint32_t>(iRead >= iRing ? iRead - iRing : iRead);
  memcpy(&strExpected[offsetof(MessageQueue::ShmHead, iReadOffset)], &iReadNow, sizeof(iReadNow));
  Require(Take(stQueue, iCount) == vecExpected);
  Require(g_pSegment->Bytes() == strExpected);
}

void PopChanged(MessageQueue& stQueue, uint8_t iHow) {
  g_iAllocations = 0;
  g_iChangeAt = 1 + iHow % 3;
  g_iChange = iHow;
  Require(RingBytes(Take(stQueue, 200)) < g_pSegment->iSize);
  g_iChangeAt = 0;
}

void SizesAndDump(MessageQueue& stQueue, uint8_t iHow) {
  static const int s_iNull = open("/dev/null", O_WRONLY);
  const uint32_t iSize = g_pSegment->Head()->iSize;
  Require(stQueue.Ready() && stQueue.CanWriteSize() == iSize - stQueue.CanReadSize() - 1);
  if (iHow % 16 == 0) {
    stQueue.Dump(s_iNull);
  }
  stQueue.ClearFifo();
}

void Attach(MessageQueue& stQueue, uint8_t iHow) {
  const uint32_t iSize = g_pSegment->iSize;
  const uint32_t aSizes[] = {iSize,         0,         1,         HEAD_SIZE,
                             HEAD_SIZE + 1, iSize / 2, iSize - 1, iSize + 1};
  g_bCreated = iHow == 0xff;  // the kernel makes it as large as asked for
  const uint32_t iAsked = g_bCreated ? iSize : aSizes[iHow % 8];
  const int iResult = iHow % 32 < 16 ? stQueue.AttachWithKey(FifoPath(), 1, iAsked)
                                     : stQueue.Attach(FifoPath(), 1, iAsked);
  g_bCreated = false;
  Require((iResult == 0) == (iAsked <= iSize));
  if (iResult == -1) {
    Require(!stQueue.Ready() && stQueue.AttachWithKey(FifoPath(), 1, iSize) == 0);
  }
}

void Run(uint8_t iOperation, uint8_t iHow) {
  MQPool& stPool = MQPool::Instance();
  MessageQueue& stWriter = *stPool.GetMQ(WORKER, 1);
  MessageQueue& stReader = *stPool.GetMQ(WORKER, 0);
  switch (iOperation % 8) {
    case OP_ATTACH:
      return Attach(iOperation % 16 < 8 ? stWriter : stReader, iHow);
    case OP_PUSH:
      return Push(stWriter, iHow);
    case OP_POP:
      return Pop(stReader, iHow);
    case OP_POP_CHANGED:
      return PopChanged(stReader, iHow);
    case OP_SIZES_AND_DUMP:
      return SizesAndDump(iOperation % 16 < 8 ? stWriter : stReader, iHow);
    case OP_CHANGE:
      return Change(iHow);
    case OP_PUSH_NOTHING:
      Require(stWriter.Push(nullptr, 0) == 0);
      return;
    default:
      // The segment stays: it is attached, and shmget() finds it.
      iHow % 2 == 0 ? stWriter.Init() : stReader.Delete();
  }
}

void Fill(uint8_t iSound, const uint8_t* pData, size_t iSize) {
  const uint32_t iRing = g_pSegment->iSize - std::min(g_pSegment->iSize, HEAD_SIZE);
  memset(g_pSegment->pBase, 0, MappedSize(g_pSegment->iSize));
  if (iSize != 0) {
    memcpy(g_pSegment->pBase, pData, std::min<size_t>(iSize, g_pSegment->iSize));
  }
  MessageQueue::ShmHead* const pHead = g_pSegment->Head();
  if ((iSound & SOUND_SIZE) != 0) {
    pHead->iSize = iRing;
  }
  if ((iSound & SOUND_OFFSETS) != 0 && pHead->iSize != 0) {
    pHead->iReadOffset %= pHead->iSize;
    pHead->iWriteOffset %= pHead->iSize;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize) {
  if (iSize < 3) {
    return 0;
  }
  const size_t iOperations = std::min<size_t>(pData[2] % MAX_OPERATIONS, (iSize - 3) / 2);
  const uint8_t* const pOperations = pData + 3;
  const uint8_t* const pContent = pOperations + 2 * iOperations;
  g_pSegment = FindSegment(SIZES[pData[0] % 16]);
  Fill(pData[0], pContent, static_cast<size_t>(pData + iSize - pContent));
  MessageQueue stWriter;
  MessageQueue stReader;
  Attach(stWriter, pData[1] % 16);
  Attach(stReader, pData[1] / 16);
  Require(MQPool::Instance().AddMQ(WORKER, &stReader, &stWriter));
  for (size_t i = 0; i < iOperations; ++i) {
    Run(pOperations[2 * i], pOperations[2 * i + 1]);
  }
  stReader.ClearFifo();
  MQPool::Instance().RemoveAll();
  return 0;
}
