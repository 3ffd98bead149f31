#ifndef ZELK_TESTS_HEAP_IMAGE_H
#define ZELK_TESTS_HEAP_IMAGE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "segment_check.h"
#include "segment_view.h"

// A shared-memory segment as bytes, read, checked and written without the library: what it says
// about the formats is independent of the code under test.
class HeapImage : public SegmentView {
 public:
  // Attaches the segment of that key; with a size, creates it.
  explicit HeapImage(key_t iKey, size_t iCreateSize = 0);
  ~HeapImage() override;

  char* Base() const { return m_pSegment; }
  mode_t Mode() const;
  size_t Attachments() const;

  void SetWord(uint64_t iOffset, uint64_t iValue);
  void SetHalf(uint64_t iOffset, uint32_t iValue);

 private:
  int m_iShmID;
  char* m_pSegment;
};

#endif
