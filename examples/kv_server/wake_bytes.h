#ifndef KV_SERVER_WAKE_BYTES_H
#define KV_SERVER_WAKE_BYTES_H

#include "message_queue.h"

// The wake bytes of a queue whose reader sleeps in an edge-triggered epoll: each Push() wakes it
// again, whether the bytes before were read or not. So they are read only when there may be many,
// one system call less per turn; a full FIFO (64 KiB) would wake nobody.
//
// Each Push() writes one byte for at least one message. Once a reader has taken everything, no more
// bytes can wait than messages were popped since the FIFO was cleared.
class WakeBytes {
 public:
  explicit WakeBytes(MessageQueue& stQueue) : m_stQueue(stQueue) {}

  void OnPopped(int iMessages) { m_iPopped += iMessages; }

  // Whether messages wait. To be asked before each sleep: what is pushed after it wakes.
  bool HasMore() {
    if (m_iPopped >= MANY) {
      Clear();
    }
    return m_stQueue.CanReadSize() > 0;  // what came before the clearing is seen here
  }

  void Clear() {
    m_stQueue.ClearFifo();
    m_iPopped = 0;
  }

 private:
  static const int MANY = 1024;

  MessageQueue& m_stQueue;
  int m_iPopped = MANY;  // bytes for an earlier reader may be there
};

#endif
