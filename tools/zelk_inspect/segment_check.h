#ifndef ZELK_INSPECT_SEGMENT_CHECK_H
#define ZELK_INSPECT_SEGMENT_CHECK_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "segment_view.h"

// Walks heaps and tables without the library. Each step is checked, no block is passed twice: a
// walk ends whatever the bytes are. Used by zelk-inspect and by the tests that kill writers.

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

// Everything: blocks, lists, counters, and for a table its chains. In a live segment, what its
// writer does meanwhile looks like faults; such a fault is gone at the next check.
SegmentReport_t CheckHeap(const SegmentView& stView);
SegmentReport_t CheckTable(const SegmentView& stView);

// Less: the lists or the chains alone, without a look at every block. Faults are reported as
// above; blocks are not counted, and of the counters only those of what was walked compared.
typedef std::function<void(uint64_t iBlockSize, uint64_t iBlocks)> ListVisitor_t;
SegmentReport_t WalkFreeLists(const SegmentView& stView, const ListVisitor_t& fnList);

struct Entry_t {
  uint64_t iBucket;
  std::string_view strKey;  // without its NUL; good during the call
  uint64_t iValueOffset;
  uint32_t iValueSize;
};
struct TableVisitor_t {
  std::function<void(uint64_t iBucket, uint64_t iEntries)> fnChain;  // not for empty ones
  std::function<void(const Entry_t& stEntry)> fnEntry;
};
SegmentReport_t WalkChains(const SegmentView& stView, const TableVisitor_t& stVisitor);

#endif
