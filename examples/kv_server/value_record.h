#ifndef KV_SERVER_VALUE_RECORD_H
#define KV_SERVER_VALUE_RECORD_H

#include <cstddef>
#include <cstdint>

// What a table holds under a key: a head, the value's bytes, padding. A format shared between the
// processes and the lives of a server (docs/formats.md).
//
// The heap keeps freed blocks for requests of their own size only, so values of ever new sizes
// would fill any segment with blocks that serve nobody. Records are padded until the heap's block
// has one of eight sizes between 2^n and 2^(n+1): a tenth of a table is padding at worst, on the
// average half of that, and all values share some 140 sizes.

enum ValueType_t : uint32_t {
  VALUE_STRING,
};

struct ValueHead_t {
  int64_t iExpireAt;  // milliseconds since 1970, 0: never
  uint32_t iSize;     // bytes of the value, without the padding
  uint32_t iType;     // ValueType_t
};
static_assert(sizeof(ValueHead_t) == 16 && offsetof(ValueHead_t, iExpireAt) == 0 &&
                  offsetof(ValueHead_t, iSize) == 8 && offsetof(ValueHead_t, iType) == 12,
              "a format shared between processes");

const size_t BLOCK_HEAD = 8;       // the heap's, its size
const size_t ENTRY_HEAD = 16;      // the table's: link and sizes
const size_t MAX_BLOCK = 4194304;  // the heap's largest
const size_t SMALLEST_CLASS = 64;  // blocks up to this are padded to 8 bytes only
const size_t CLASSES_PER_DOUBLING = 8;

// The block of the heap that an entry takes; key and record without any NUL.
constexpr size_t BlockSize(size_t iKey, size_t iRecord) {
  return BLOCK_HEAD + ENTRY_HEAD + iKey + 1 + iRecord;
}

constexpr size_t PadBlock(size_t iBlock) {
  size_t iStep = SMALLEST_CLASS / CLASSES_PER_DOUBLING;
  if (iBlock > SMALLEST_CLASS) {
    iStep = (size_t{1} << (63 - __builtin_clzl(iBlock - 1))) / CLASSES_PER_DOUBLING;
  }
  return (iBlock + iStep - 1) / iStep * iStep;
}

// The size of the record of a value of iValue bytes under a key of iKey bytes.
constexpr size_t RecordSize(size_t iKey, size_t iValue) {
  return PadBlock(BlockSize(iKey, sizeof(ValueHead_t) + iValue)) - BlockSize(iKey, 0);
}

// Whether the heap has blocks of that size at all.
constexpr bool FitsBlock(size_t iKey, size_t iValue) {
  return iKey <= MAX_BLOCK && iValue <= MAX_BLOCK &&
         BlockSize(iKey, sizeof(ValueHead_t) + iValue) <= MAX_BLOCK;
}

static_assert(PadBlock(64) == 64 && PadBlock(65) == 72 && PadBlock(128) == 128 &&
                  PadBlock(129) == 144 && PadBlock(MAX_BLOCK) == MAX_BLOCK &&
                  PadBlock(MAX_BLOCK - 1) == MAX_BLOCK,
              "eight sizes per doubling");

#endif
