#ifndef ZELK_TESTS_MESSAGE_STREAM_H
#define ZELK_TESTS_MESSAGE_STREAM_H

#include <cstdint>
#include <vector>

#include "message_queue.h"

// Numbered messages for a ring. Sizes from 0 to the largest (64 KiB in a large ring), bytes and
// batches follow from the numbers: writer and reader know without telling each other what must
// come.
class MessageStream {
 public:
  static const unsigned int MAX_BATCH = 16;

  explicit MessageStream(uint32_t iRing);

  // How many messages the batch that begins with this one has; an empty ring takes them all.
  unsigned int BatchCount(uint64_t iFirst) const;
  // Bytes of a message in the ring, with its length.
  uint32_t RecordSize(uint64_t iNumber) const;

  // The batch in memory of this object, good until the next call.
  const std::vector<BufferVec_t>& Batch(uint64_t iFirst);
  bool Is(const BufferVec_t& stMessage, uint64_t iNumber);

 private:
  uint32_t Size(uint64_t iNumber) const;
  void Fill(uint64_t iNumber, char* pTo) const;

  uint32_t m_iLargest;
  uint32_t m_iRoom;
  std::vector<char> m_vecBytes;
  std::vector<BufferVec_t> m_vecBatch;
};

#endif
