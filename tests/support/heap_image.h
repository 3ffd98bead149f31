#ifndef ZELK_TESTS_HEAP_IMAGE_H
#define ZELK_TESTS_HEAP_IMAGE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// A shared-memory segment as bytes, read and written without the library: what it says about the
// formats is independent of the code under test.
class HeapImage {
 public:
  // Attaches the segment of that key; with a size, creates it.
  explicit HeapImage(key_t iKey, size_t iCreateSize = 0);
  ~HeapImage();
  HeapImage(const HeapImage&) = delete;
  HeapImage& operator=(const HeapImage&) = delete;

  char* Base() const { return m_pBase; }
  size_t Size() const;
  mode_t Mode() const;
  size_t Attachments() const;

  uint64_t Word(uint64_t iOffset) const;
  uint32_t Half(uint64_t iOffset) const;
  void SetWord(uint64_t iOffset, uint64_t iValue);
  void SetHalf(uint64_t iOffset, uint32_t iValue);

 private:
  int m_iShmID;
  char* m_pBase;
};

// What a walk over a heap, and over the table in it if there is one, has found.
struct SegmentReport_t {
  std::vector<std::string> vecFaults;  // overlaps, cycles, wrong sizes, offsets of nothing

  uint64_t iBlocks = 0;      // ever carved
  uint64_t iFreeBlocks = 0;  // on the lists
  uint64_t iEntries = 0;     // on the chains

  // Counters of the segment less what the walk counted: 0 unless a writer was killed.
  int64_t iBlockCountExcess = 0;
  int64_t iManagedSizeExcess = 0;
  int64_t iObjectCountExcess = 0;
  int64_t iTotalKeySizeExcess = 0;
  int64_t iTotalValueSizeExcess = 0;
  int64_t iBucketSizeExcess = 0;  // summed over the buckets

  // Blocks that are neither free nor an entry.
  uint64_t OtherBlocks() const { return iBlocks - iFreeBlocks - iEntries; }
  bool CountersAgree() const;
  std::string Faults() const;  // one per line
};

SegmentReport_t CheckHeap(const HeapImage& stSegment);
SegmentReport_t CheckTable(const HeapImage& stSegment);

#endif
