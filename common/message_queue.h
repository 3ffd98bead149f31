#ifndef ZELK_COMMON_MESSAGE_QUEUE_H
#define ZELK_COMMON_MESSAGE_QUEUE_H

#include <sys/types.h>

#include <cstdint>

#include "object.h"

// One message of a call: gathered from here by Push, handed out here by Pop.
struct BufferVec_t {
  char* pData;
  uint32_t iSize;
};

// What a Push writes to the FIFO to wake the reader.
const char FIFO_DATA = '1';

// A one-way ring of messages in System V shared memory, with a FIFO on disk that wakes the reader.
//
// Exactly one process writes and one reads; there is no lock and neither waits for the other. A
// third may attach to look (CanReadSize, Dump); a fourth is refused, and a forked child counts as
// one until it detaches, execs or ends. Messages are byte strings without type or alignment.
// Single-threaded on either side.
//
//   writer:  stQueue.Attach("/run/server/worker.1", 1, 1 << 20);
//            BufferVec_t stMessage{szText, iLength};
//            if (stQueue.Push(&stMessage, 1) == 0) ... // full: keep the message and try later
//   reader:  when FifoFD() is readable: ClearFifo(), then Pop() until it returns 0.
//            In the other order a wake-up can be lost.
//
// Crashes: a writer that dies inside Push leaves all messages of that call or none. A reader that
// dies inside Pop is given the same messages again when it comes back. A creator that dies before
// Init leaves a segment whose ring has size 0, which stays so until it is removed.
//
// Start: until the creator's Init is through, others see that ring of size 0 too. Pop finds nothing
// in it, but a Push ends the process by an assertion: let the first attach of a new queue return
// before another process begins to write.
//
// Hostile bytes: nothing in the segment is trusted. Whatever stands there, and whoever changes it
// during a call, no operation reads or writes outside of the segment or runs without end, and Pop
// allocates no message larger than the segment. While the header makes no sense (an offset outside
// of the ring, a ring beyond the segment's end) Push returns 0 and Pop gives nothing; both go on
// when it makes sense again. Not promised against one who may write there: what messages say, that
// none is lost or made up, that a Push ever finds room, what the sizes and Dump tell, an end to
// ClearFifo while he fills the FIFO, and that he can not end a writer by the ring size 0 above.
//
// Segment and FIFO outlive every process and are taken up again with the messages in them; the wake
// bytes last only while some process has the FIFO open, so a reader pops once before it first
// waits. A writer that died may have left messages without their wake byte, and a Push that they
// leave no room for wakes nobody: its successor begins with an empty Push. Delete() removes the
// segment; nothing here removes the FIFO. Bytes: docs/formats.md.
class MessageQueue : public Object {
 public:
  // The first bytes of the segment; the ring follows. Offsets count from the ring's first byte,
  // are below iSize, and are equal when the ring is empty: one byte always stays unused.
  struct ShmHead {
    char cReadyFlag;        // 8 once Init is through; never looked at
    uint32_t iSize;         // bytes of the ring
    uint32_t iReadOffset;   // next unread byte; stored by the reader only
    uint32_t iWriteOffset;  // next free byte; stored by the writer only
  } __attribute__((packed));

  MessageQueue();
  ~MessageQueue() override;  // detaches; deletes nothing
  MessageQueue(const MessageQueue&) = delete;
  MessageQueue& operator=(const MessageQueue&) = delete;

  // Makes the FIFO at pPath (mode 0700) with its directories (MakeDir, which prints a line when one
  // can not be made; nothing else here prints), and attaches to the segment under
  // ftok(pPath, iProjId). Returns 0, or -1 as AttachWithKey. ftok keeps 16 bits of the FIFO's
  // inode: two FIFOs of one file system can share a key, and then a segment.
  int Attach(const char* pPath, int iProjId, unsigned int iSize);

  // The same with a key of the caller's. iSize is the segment's: the ring plus 13 bytes of header,
  // so at least 14. The first to come creates the segment (mode 0600) and calls Init; a segment
  // that exists is taken as it is, and its header tells the ring's size, not iSize.
  //
  // An attached queue is detached first. Returns 0, or -1 with errno: of the call that failed, or
  // EBUSY when three are attached already. After EBUSY the FIFO is closed again; when the segment
  // could not be had (EINVAL: it is smaller than iSize) it stays open until Detach. A segment that
  // the call made and can not map is removed again, so that it can be repeated.
  int AttachWithKey(const char* pPath, key_t iKey, unsigned int iSize);

  // Writes the header of an empty ring; called by the attach that created the segment. Returns 0.
  int Init();

  // Appends iCount messages in order and wakes the reader once. pVec is only read.
  //
  // Returns iCount, or 0 when the ring lacks room for all of them (payload plus 4 bytes each) or
  // the header makes no sense: then nothing was written and nobody woken. The reader sees all
  // messages of a call or none. iCount 0 wakes the reader and returns 0. A FIFO that is full stays
  // so: its reader has wake bytes enough. The sizes of one call must add up to less than 4 GiB.
  // Writer only. Never blocks, never allocates; one copy of each byte and one write(2) a call, so
  // batches pay.
  int Push(const BufferVec_t* pVec, unsigned int iCount);

  // Takes up to iCount messages into pVec, returns how many. Each pData is a new array of iSize
  // bytes, also when iSize is 0, that the caller releases with delete[]. Stops early when memory
  // runs out; the messages not returned stay in the ring. Messages are cheapest taken and released
  // a few at a time, up to seven small ones and those of 64 KiB singly: the allocator then hands
  // out the same memory again. Reader only. No system call.
  int Pop(BufferVec_t* pVec, unsigned int iCount);

  // Bytes in the ring, and bytes that a Push can still take; both count 4 bytes a message more
  // than its payload. A snapshot: the other side goes on.
  unsigned int CanReadSize();
  unsigned int CanWriteSize();

  // Drains the wake bytes. Reader only.
  void ClearFifo();

  // The descriptor that is readable while there are wake bytes, for the reader's event loop; -1
  // when closed. It stays this object's and is non-blocking.
  int FifoFD();

  // Whether the queue is attached. Every operation but the attaches, Detach and Delete needs it.
  bool Ready();

  // Leaves the segment and closes the FIFO; neither is removed. Returns 0 and keeps errno.
  int Detach();

  // Removes the segment of the last attach, for good once every process has left it; a second call
  // does nothing. Beware: that is also the segment of others when the attach found it and was
  // refused (EBUSY). Does not detach. Returns 0 in all cases.
  int Delete();

  // Writes the members and the header's fields.
  void Dump(int iFD) override;

 private:
  bool OpenSegment(key_t iKey, unsigned int iSize, bool& bCreated);
  bool HasFreeAttachment() const;
  void Wake() const;

  bool m_bReadyFlag = false;
  uint32_t m_iSize = 0;  // the segment's, as the last successful attach was told
  int m_iShmID = -1;     // kept over Detach, for Delete
  void* m_pAddress;      // (void*)-1 when detached
  ShmHead* m_pShmHead = nullptr;
  char* m_pBegin = nullptr;  // the ring's first byte
  int m_iFifoFD = -1;
};

#endif
