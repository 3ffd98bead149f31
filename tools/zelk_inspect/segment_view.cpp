#include "segment_view.h"

#include <cstring>

bool SegmentView::Read(uint64_t iOffset, void* pTo, uint64_t iSize) const {
  if (iSize > m_iSize || iOffset > m_iSize - iSize || !Fetch(iOffset, iSize)) {
    return false;
  }
  memcpy(pTo, m_pBase + iOffset, iSize);
  return true;
}

uint64_t SegmentView::Word(uint64_t iOffset) const {
  uint64_t iValue = 0;
  Read(iOffset, &iValue, sizeof(iValue));
  return iValue;
}

uint32_t SegmentView::Half(uint64_t iOffset) const {
  uint32_t iValue = 0;
  Read(iOffset, &iValue, sizeof(iValue));
  return iValue;
}

std::string SegmentView::Bytes(uint64_t iOffset, uint64_t iSize) const {
  if (iSize > m_iSize || iOffset > m_iSize - iSize || !Fetch(iOffset, iSize)) {
    return {};
  }
  return {m_pBase + iOffset, iSize};
}
