#ifndef ZELK_COMMON_AIO_UTIL_H
#define ZELK_COMMON_AIO_UTIL_H

#include <stdint.h>

#include <deque>
#include <vector>

struct io_context;
struct iocb;

// A finished request.
struct aio_param_t {
  int32_t iFD;
  char* pBuffer;
  uint64_t iOffset;  // in the file
  uint64_t iSize;    // bytes that were asked for
  unsigned long iReqID;
  long iRetcode;    // bytes transferred, or a negative error number
  int16_t iOpType;  // 0 read, 1 write, 3 sync
};

// Asynchronous reads, writes and syncs of files by the kernel's native interface (libaio). The
// event loop waits for their ends like for a socket: when GetEventFD() is readable, it calls
// SomethingDone().
//
// With O_DIRECT, where buffer, size and offset must be multiples of the device's block, a
// submission does not wait; on other files the kernel may do the work inside it. Requests are
// carried out in any order, a sync among them: submit it when the writes that it covers are done.
//
// The buffer is the caller's, and must stay until the request is reported. At the end of the
// process requests under way are waited for and not reported. One thread; a forked child has no
// part in its parent's requests and must not use the instance that it inherits.
class AIOUtil {
 public:
  static AIOUtil& Instance();

  AIOUtil(const AIOUtil&) = delete;
  AIOUtil& operator=(const AIOUtil&) = delete;
  virtual ~AIOUtil();

  // Submit a request, which iReqID names when it is reported. 0 when it is under way, -1 when the
  // kernel gives no context (see CheckContext()), else the negative error number of io_submit():
  // -EBADF for a descriptor that is not open, -EAGAIN when too many requests are not collected yet.
  //
  // The read fills its buffer, although it is declared const, and the write only reads its own.
  int SubmitReadRequest(int32_t iFD, const char* pBuffer, uint64_t iOffset, uint64_t iSize,
                        unsigned long iReqID);
  int SubmitWriteRequest(int32_t iFD, char* pBuffer, uint64_t iOffset, uint64_t iSize,
                         unsigned long iReqID);
  // Like fdatasync().
  int SubmitSyncRequest(int iFD, unsigned long iReqID);

  // Replaces the content of vecDone by the requests that have finished, and returns how many these
  // are. Never waits.
  int SomethingDone(std::vector<aio_param_t>& vecDone);

  // Readable while there are finished requests. Only to be watched.
  int GetEventFD() { return m_iEventFD; }

  // Makes the kernel's context for 1024 requests, if it is not there: 0, or -1 when that fails (the
  // system's limit is /proc/sys/fs/aio-max-nr). Every submission calls it, so it is tried again.
  int CheckContext();

  // The control blocks of requests. Spare ones are used again, the first given back first.
  iocb* NewIOCB();
  void FreeIOCB(iocb* pIOCB);

 protected:
  AIOUtil();

 private:
  int Submit(int16_t iOpType, int iFD, char* pBuffer, uint64_t iOffset, uint64_t iSize,
             unsigned long iReqID);

  io_context* m_pContext = nullptr;
  int m_iEventFD;
  std::deque<iocb*> m_dqFreeStruct;
};

#endif
