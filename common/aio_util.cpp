#include "aio_util.h"

#include <libaio.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

static_assert(sizeof(iocb) == 64, "the kernel's control block");

namespace {

const int MAX_EVENTS = 1024;  // of the context, and of one collection

aio_param_t ToParam(const io_event& stEvent) {
  const iocb& stBlock = *stEvent.obj;
  return {stBlock.aio_fildes,
          static_cast<char*>(stBlock.u.c.buf),
          static_cast<uint64_t>(stBlock.u.c.offset),
          stBlock.u.c.nbytes,
          reinterpret_cast<unsigned long>(stEvent.data),
          static_cast<long>(stEvent.res),
          stBlock.aio_lio_opcode};
}

// The counter is read already: without this, nobody would ask for these requests again.
void LeaveToNextCall(int iEventFD, uint64_t iCount) {
  static_cast<void>(!write(iEventFD, &iCount, sizeof(iCount)));
}

}  // namespace

AIOUtil& AIOUtil::Instance() {
  static AIOUtil s_stInstance;
  return s_stInstance;
}

// Not blocking: a look at it without need shall not stop the event loop.
AIOUtil::AIOUtil() : m_iEventFD(-1) {
  m_iEventFD = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);  // when all that may throw is made
}

AIOUtil::~AIOUtil() {
  if (m_pContext != nullptr) {
    io_destroy(m_pContext);
  }
  close(m_iEventFD);
  for (iocb* pIOCB : m_dqFreeStruct) {
    free(pIOCB);
  }
}

int AIOUtil::SubmitReadRequest(int32_t iFD, const char* pBuffer, uint64_t iOffset, uint64_t iSize,
                               unsigned long iReqID) {
  return Submit(IO_CMD_PREAD, iFD, const_cast<char*>(pBuffer), iOffset, iSize, iReqID);
}

int AIOUtil::SubmitWriteRequest(int32_t iFD, char* pBuffer, uint64_t iOffset, uint64_t iSize,
                                unsigned long iReqID) {
  return Submit(IO_CMD_PWRITE, iFD, pBuffer, iOffset, iSize, iReqID);
}

int AIOUtil::SubmitSyncRequest(int iFD, unsigned long iReqID) {
  return Submit(IO_CMD_FDSYNC, iFD, nullptr, 0, 0, iReqID);
}

int AIOUtil::Submit(int16_t iOpType, int iFD, char* pBuffer, uint64_t iOffset, uint64_t iSize,
                    unsigned long iReqID) {
  if (CheckContext() != 0) {
    return -1;
  }
  iocb* pIOCB = NewIOCB();
  if (pIOCB == nullptr) {
    return -ENOMEM;
  }
  memset(pIOCB, 0, sizeof(*pIOCB));  // a used block has the kernel's marks of its last request
  // The kernel hands the word back as it is.
  pIOCB->data = reinterpret_cast<void*>(iReqID);  // NOLINT(performance-no-int-to-ptr)
  pIOCB->aio_lio_opcode = iOpType;
  pIOCB->aio_fildes = iFD;
  pIOCB->u.c.buf = pBuffer;
  pIOCB->u.c.nbytes = iSize;
  pIOCB->u.c.offset = static_cast<long long>(iOffset);
  io_set_eventfd(pIOCB, m_iEventFD);
  const int iResult = io_submit(m_pContext, 1, &pIOCB);
  if (iResult < 0) {
    FreeIOCB(pIOCB);
    return iResult;
  }
  return 0;
}

int AIOUtil::SomethingDone(std::vector<aio_param_t>& vecDone) {
  vecDone.clear();
  uint64_t iLeft = 0;
  if (read(m_iEventFD, &iLeft, sizeof(iLeft)) != static_cast<ssize_t>(sizeof(iLeft))) {
    return 0;
  }
  try {
    vecDone.reserve(iLeft);
  } catch (...) {
    LeaveToNextCall(m_iEventFD, iLeft);
    throw;
  }
  io_event aEvents[MAX_EVENTS];
  while (iLeft > 0) {
    const auto iMax = static_cast<long>(std::min<uint64_t>(iLeft, MAX_EVENTS));
    timespec stNoWait{};
    const int iCount = io_getevents(m_pContext, 0, iMax, aEvents, &stNoWait);
    if (iCount == -EINTR) {
      LeaveToNextCall(m_iEventFD, iLeft);
    }
    if (iCount <= 0) {
      break;
    }
    for (int i = 0; i < iCount; ++i) {
      vecDone.push_back(ToParam(aEvents[i]));
      FreeIOCB(aEvents[i].obj);
    }
    iLeft -= static_cast<uint64_t>(iCount);
  }
  return static_cast<int>(vecDone.size());
}

int AIOUtil::CheckContext() {
  if (m_pContext != nullptr) {
    return 0;
  }
  return io_queue_init(MAX_EVENTS, &m_pContext) == 0 ? 0 : -1;
}

iocb* AIOUtil::NewIOCB() {
  if (m_dqFreeStruct.empty()) {
    return static_cast<iocb*>(malloc(sizeof(iocb)));
  }
  iocb* pIOCB = m_dqFreeStruct.front();
  m_dqFreeStruct.pop_front();
  return pIOCB;
}

void AIOUtil::FreeIOCB(iocb* pIOCB) {
  try {
    m_dqFreeStruct.push_back(pIOCB);
  } catch (const std::bad_alloc&) {
    free(pIOCB);  // NewIOCB() has others, or makes one
  }
}
