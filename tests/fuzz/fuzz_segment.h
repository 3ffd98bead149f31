#ifndef ZELK_FUZZ_FUZZ_SEGMENT_H
#define ZELK_FUZZ_FUZZ_SEGMENT_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <vector>

// The one segment of a run, whatever key is asked for: fuzz_segment.cpp brings a shmget() of its
// own. It has no name and is marked for removal at once, so none is left when the program dies.
class FuzzSegment {
 public:
  FuzzSegment() = default;
  ~FuzzSegment();
  FuzzSegment(const FuzzSegment&) = delete;
  FuzzSegment& operator=(const FuzzSegment&) = delete;

  // A segment that somebody else has made; otherwise the first shmget() makes it.
  void Make(size_t iSize);
  size_t Size() const;
  char* Base() const;
};

// The input, taken from its front; zeros when there is no more.
class FuzzInput {
 public:
  FuzzInput(const uint8_t* pData, size_t iSize) : m_pData(pData), m_iLeft(iSize) {}

  bool IsEmpty() const { return m_iLeft == 0; }
  template <typename T>
  T Take() {
    T tValue = 0;
    for (size_t i = 0; i < sizeof(T) && m_iLeft != 0; ++i, ++m_pData, --m_iLeft) {
      tValue = static_cast<T>(tValue | static_cast<T>(static_cast<T>(*m_pData) << (8 * i)));
    }
    return tValue;
  }

 private:
  const uint8_t* m_pData;
  size_t m_iLeft;
};

// A word that is worth something: anything, an offset of the blocks, one about the segment's end, a
// small number.
uint64_t TakeWord(FuzzInput& stInput, uint8_t iKind, uint64_t iBlocks);

// Puts such a word behind one of the places or near the segment's end.
void OverwriteWord(FuzzInput& stInput, const std::vector<uint64_t>& vecPlaces, uint64_t iBlocks);

// Reads them all.
void ReadBytes(const void* p, size_t iSize);

void Require(bool bHolds);

#endif
