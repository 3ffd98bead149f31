#include "segment_format.h"

namespace {

bool IsRing(const SegmentView& stView, bool bDamaged) {
  char cReady = 0;
  if (stView.Size() <= RING_HEAD || !stView.Read(0, &cReady, sizeof(cReady))) {
    return false;
  }
  const bool bReady = cReady == RING_READY;
  const bool bSize = stView.Half(RING_SIZE_FIELD) == stView.Size() - RING_HEAD;
  return bDamaged ? bReady || bSize : bReady && bSize;
}

bool IsHeap(const SegmentView& stView, bool bDamaged) {
  if (stView.Size() < HEAP_RESERVED) {
    return false;
  }
  const int iRight = (stView.Half(HEAP_READY_FIELD) == HEAP_READY ? 1 : 0) +
                     (stView.Word(HEAP_MIN_BYTES) == HEAP_STEP ? 1 : 0) +
                     (stView.Word(HEAP_MAX_BYTES) == HEAP_MAX_BLOCK ? 1 : 0) +
                     (stView.Word(HEAP_ALIGN_SIZE) == HEAP_STEP ? 1 : 0) +
                     (stView.Word(HEAP_BEGIN) == HEAP_RESERVED ? 1 : 0);
  return iRight >= (bDamaged ? 3 : 5);
}

}  // namespace

Format_t FormatOf(const SegmentView& stView, bool bDamaged) {
  if (IsHeap(stView, bDamaged)) {
    const bool bRoom = stView.Word(HEAP_RESERVED_SIZE) >= TABLE_HEAD;
    const bool bTable = stView.Half(HEAP_RESERVED + TABLE_READY_FIELD) == TABLE_READY;
    return bRoom && bTable ? FORMAT_TABLE : FORMAT_HEAP;
  }
  return IsRing(stView, bDamaged) ? FORMAT_RING : FORMAT_NONE;
}

const char* FormatName(Format_t eFormat) {
  switch (eFormat) {
    case FORMAT_RING:
      return "ring";
    case FORMAT_HEAP:
      return "heap";
    case FORMAT_TABLE:
      return "table";
    default:
      return "none";
  }
}
