#ifndef ZELK_INSPECT_SEGMENT_STATUS_H
#define ZELK_INSPECT_SEGMENT_STATUS_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

// What the kernel knows of a segment.
struct SegmentStatus_t {
  int iId = -1;
  key_t iKey = 0;  // 0 once it is marked to be removed
  uint64_t iSize = 0;
  uint64_t iAttached = 0;
  uid_t iOwner = 0;
  mode_t iMode = 0;
  bool bRemoved = false;  // gone with its last holder
};

// A segment's name: its id (123), its key (0x12ab) or PATH:NUMBER, path and project id of ftok().
// Empty, or why there is no such segment.
std::string FindSegment(const std::string& strName, SegmentStatus_t& stStatus);

// The status as it is now; false with errno when the segment is gone.
bool ReadStatus(int iId, SegmentStatus_t& stStatus);

// Everybody's.
std::vector<SegmentStatus_t> ListSegments();

// "0x00ab12cd"
std::string KeyText(key_t iKey);

#endif
