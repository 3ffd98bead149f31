#ifndef ZELK_INSPECT_RING_CHECK_H
#define ZELK_INSPECT_RING_CHECK_H

#include <cstdint>
#include <string>
#include <vector>

#include "segment_view.h"

struct RingReport_t {
  std::vector<std::string> vecFaults;

  // Whether the rest is what the ring held at one instant. False only in a live ring whose reader
  // and writer were too fast for every attempt, and in a ring with faults.
  bool bStable = false;

  uint64_t iSize = 0;  // of the ring
  uint64_t iRead = 0;
  uint64_t iWrite = 0;
  uint64_t iUsed = 0;  // bytes of the pending records
  uint64_t iMessages = 0;
  uint64_t iLargest = 0;                 // bytes of the largest message
  std::vector<std::string> vecMessages;  // the oldest

  std::string Faults() const;  // one per line
};

// Walks the pending records without the library, and without taking one. Keeps up to iKeep of the
// oldest messages, iKeepBytes of each.
//
// A live ring: its writer never touches pending bytes, so what lies between the reader's offset
// after the walk and the writer's before it was not changed meanwhile. A record that does not fit
// is a fault only if the reader has not moved.
RingReport_t CheckRing(const SegmentView& stView, uint64_t iKeep = 0, uint64_t iKeepBytes = 0);

// The two offsets alone, as they are now.
struct RingOffsets_t {
  uint64_t iRead;
  uint64_t iWrite;
};
RingOffsets_t ReadOffsets(const SegmentView& stView);

#endif
