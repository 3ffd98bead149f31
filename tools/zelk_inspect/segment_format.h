#ifndef ZELK_INSPECT_SEGMENT_FORMAT_H
#define ZELK_INSPECT_SEGMENT_FORMAT_H

#include <cstdint>

#include "segment_view.h"

// The shared formats (docs/formats.md), written down here a second time on purpose: what checks
// the library's work shares no code with it.

const uint64_t RING_HEAD = 13;
const uint64_t RING_SIZE_FIELD = 1;
const uint64_t RING_READ = 5;
const uint64_t RING_WRITE = 9;
const uint64_t RING_LENGTH = 4;
const char RING_READY = 8;

const uint64_t HEAP_MEMORY_SIZE = 0;
const uint64_t HEAP_MIN_BYTES = 8;
const uint64_t HEAP_MAX_BYTES = 16;
const uint64_t HEAP_ALIGN_SIZE = 24;
const uint64_t HEAP_BLOCK_COUNT = 32;
const uint64_t HEAP_BEGIN = 40;
const uint64_t HEAP_RESERVED_SIZE = 48;
const uint64_t HEAP_CURRENT = 56;
const uint64_t HEAP_MANAGED = 64;
const uint64_t HEAP_READY_FIELD = 72;
const uint64_t HEAP_LISTS = 80;
const uint64_t HEAP_LIST_COUNT = 524288;
const uint64_t HEAP_RESERVED = 4194384;
const uint64_t HEAP_MAX_BLOCK = 4194304;
const uint64_t HEAP_STEP = 8;
const uint32_t HEAP_READY = 9693823;

// In the reserved area.
const uint64_t TABLE_BUCKET_COUNT = 0;
const uint64_t TABLE_OBJECT_COUNT = 8;
const uint64_t TABLE_READY_FIELD = 16;
const uint64_t TABLE_MAX_KEY = 20;
const uint64_t TABLE_MAX_VALUE = 24;
const uint64_t TABLE_TOTAL_KEY = 32;
const uint64_t TABLE_TOTAL_VALUE = 40;
const uint64_t TABLE_MAX_BUCKET = 48;
const uint64_t TABLE_HEAD = 56;
const uint64_t TABLE_BUCKET = 16;
const uint64_t TABLE_ENTRY_HEAD = 16;
const uint32_t TABLE_READY = 0x2348FAD9;

enum Format_t {
  FORMAT_NONE,
  FORMAT_RING,
  FORMAT_HEAP,
  FORMAT_TABLE,
};

// What a segment is by its head; with bDamaged, what it most likely was before some of its head was
// overwritten.
Format_t FormatOf(const SegmentView& stView, bool bDamaged);

// "ring" for example; "none".
const char* FormatName(Format_t eFormat);

#endif
