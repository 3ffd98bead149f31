// A heap in a segment whose bytes others have written: nothing outside of it is touched, and every
// operation ends. Blocks are taken and returned as HashMap does it, with the lists checked.
//
// The first bytes choose the segment: raw words, or a sound heap with some blocks; then words are
// overwritten and operations done as the input says.

#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "fuzz_segment.h"
#include "shm_allocator.h"

namespace {

const uint64_t HEAD = 4194384;
const uint64_t RESERVED = 64;
const uint64_t LISTS = 80;
const size_t PAGE = 4096;
const size_t SIZES[] = {0, 1, 8, 24, 40, 200, 3000, 65528, 4194296, 4194297, UINT64_MAX - 3};

const std::vector<uint64_t>& Places() {
  static const std::vector<uint64_t> s_vecPlaces = {0, HEAD, LISTS};
  return s_vecPlaces;
}

class Heap : public ShmAllocator {
 public:
  using ShmAllocator::AllocateChecked;
  using ShmAllocator::DeallocateChecked;
};

struct Taken_t {
  void* p;
  size_t iSize;
};

void Take(Heap& stHeap, FuzzInput& stInput, std::vector<Taken_t>& vecTaken) {
  const size_t iSize = SIZES[stInput.Take<uint8_t>() % (sizeof(SIZES) / sizeof(SIZES[0]))];
  void* p = stHeap.AllocateChecked(iSize);
  if (p != nullptr && iSize <= SIZES[8]) {
    memset(p, static_cast<int>(vecTaken.size()), iSize);
    vecTaken.push_back({p, iSize});
  }
}

// What the assertion is for is not done: it would end the process.
bool MayBeReturned(Heap& stHeap, const void* p) {
  const uint64_t iOffset = stHeap.GetOffset(p);
  return iOffset != UINT64_MAX && iOffset > sizeof(uint64_t);
}

void Return(Heap& stHeap, FuzzInput& stInput, std::vector<Taken_t>& vecTaken) {
  if (vecTaken.empty()) {
    return;
  }
  const size_t i = stInput.Take<uint8_t>() % vecTaken.size();
  const Taken_t stTaken = vecTaken[i];
  vecTaken.erase(vecTaken.begin() + static_cast<ptrdiff_t>(i));
  if (!MayBeReturned(stHeap, stTaken.p) || stTaken.iSize == 0) {
    return;
  }
  const size_t iLarger = stTaken.iSize * 2;
  if (stHeap.IsSameClass(stTaken.p, iLarger)) {
    memset(stTaken.p, 0, iLarger);
  }
  stHeap.DeallocateChecked(stTaken.p);
}

void Ask(Heap& stHeap, const FuzzSegment& stSegment, uint64_t iOffset) {
  stHeap.GetStat();
  const auto* p = static_cast<const char*>(stHeap.GetPointer(iOffset));
  Require(p == nullptr || iOffset < stSegment.Size());
  ReadBytes(p, p != nullptr ? 1 : 0);
  const void* pReserved = stHeap.GetReservedPointer();
  ReadBytes(pReserved, pReserved != nullptr ? stHeap.GetReservedSize() : 0);
}

void Operate(Heap& stHeap, FuzzInput& stInput, const FuzzSegment& stSegment,
             std::vector<Taken_t>& vecTaken, int iNull) {
  switch (stInput.Take<uint8_t>() % 8) {
    case 0:
    case 1:
      return Take(stHeap, stInput, vecTaken);
    case 2:
    case 3:
      return Return(stHeap, stInput, vecTaken);
    case 4:
      return Ask(stHeap, stSegment, stInput.Take<uint32_t>());
    case 5:
      return stInput.Take<uint8_t>() % 16 == 0 ? stHeap.Dump(iNull) : void();
    default:
      OverwriteWord(stInput, Places(), HEAD + RESERVED);
  }
}

// The ten words of a header as they come, in a segment of any size.
void MakeRaw(FuzzInput& stInput, FuzzSegment& stSegment, size_t iPages) {
  stSegment.Make(stInput.Take<uint8_t>() % 2 == 0 ? PAGE * (1 + iPages)
                                                  : HEAD + PAGE - HEAD % PAGE + PAGE * iPages);
  const int32_t iReady = 9693823;
  for (size_t i = 0; i < 9; ++i) {
    const uint64_t iWord = TakeWord(stInput, stInput.Take<uint8_t>(), HEAD);
    memcpy(stSegment.Base() + 8 * i, &iWord, sizeof(iWord));
  }
  memcpy(stSegment.Base() + 72, &iReady, sizeof(iReady));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize) {
  static const int s_iNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
  FuzzInput stInput(pData, iSize);
  FuzzSegment stSegment;
  const auto iShape = stInput.Take<uint8_t>();
  const size_t iPages = iShape % 8;
  Heap stOwner;
  std::vector<Taken_t> vecTaken;
  if (iShape >= 128) {
    MakeRaw(stInput, stSegment, iPages);
  } else {
    Require(stOwner.Attach(1, HEAD + PAGE - HEAD % PAGE + PAGE * iPages, RESERVED, false));
    for (size_t i = 0; i < 3; ++i) {
      stOwner.Deallocate(stOwner.Allocate(SIZES[2 + i]));
    }
    for (size_t i = stInput.Take<uint8_t>() % 8; i > 0; --i) {
      OverwriteWord(stInput, Places(), HEAD + RESERVED);
    }
  }
  Heap stHeap;
  const bool bAttached = stHeap.Attach(1, 0, 0, false);
  if (!bAttached && iShape >= 128) {
    return 0;
  }
  Heap& stUsed = bAttached && iShape % 16 < 8 ? stHeap : stOwner;
  while (!stInput.IsEmpty() && (iShape < 128 || &stUsed == &stHeap)) {
    Operate(stUsed, stInput, stSegment, vecTaken, s_iNull);
  }
  return 0;
}
