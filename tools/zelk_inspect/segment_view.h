#ifndef ZELK_INSPECT_SEGMENT_VIEW_H
#define ZELK_INSPECT_SEGMENT_VIEW_H

#include <cstdint>
#include <string>

// The bytes of a segment that somebody else may be writing, or has damaged. Nothing is read beyond
// the end, whatever an offset found in the bytes says.
//
// A live view is a copy that is made as it is read, page by page. Forget() drops it, so that what
// is read next is as it is now; FreshHalf() leaves it as it is.
class SegmentView {
 public:
  virtual ~SegmentView() = default;
  SegmentView(const SegmentView&) = delete;
  SegmentView& operator=(const SegmentView&) = delete;

  uint64_t Size() const { return m_iSize; }

  // False, with *pTo as it was, when not all of the bytes are there.
  bool Read(uint64_t iOffset, void* pTo, uint64_t iSize) const;
  // 0 where there are no bytes; "" likewise.
  uint64_t Word(uint64_t iOffset) const;
  uint32_t Half(uint64_t iOffset) const;
  std::string Bytes(uint64_t iOffset, uint64_t iSize) const;

  // Whether others may write meanwhile.
  virtual bool IsLive() const { return false; }
  virtual void Forget() const {}
  virtual uint32_t FreshHalf(uint64_t iOffset) const { return Half(iOffset); }

  // To be asked when all was read. Empty, or why what was read may not be the segment's bytes.
  virtual std::string Finish() const { return {}; }

 protected:
  SegmentView() = default;

  // Makes bytes that lie inside the segment readable at m_pBase.
  virtual bool Fetch(uint64_t /*iOffset*/, uint64_t /*iSize*/) const { return true; }

  const char* m_pBase = nullptr;
  uint64_t m_iSize = 0;
};

// Bytes in this process, which stay the caller's.
class MemoryView : public SegmentView {
 public:
  MemoryView(const void* pBase, uint64_t iSize) {
    m_pBase = static_cast<const char*>(pBase);
    m_iSize = iSize;
  }
};

#endif
