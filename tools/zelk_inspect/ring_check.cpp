#include "ring_check.h"

#include <algorithm>

#include "segment_format.h"

namespace {

const unsigned int LIVE_ATTEMPTS = 200;

class RingWalk {
 public:
  RingWalk(const SegmentView& stView, RingReport_t& stReport)
      : m_stView(stView), m_stReport(stReport) {}

  // True when the report is final.
  bool Try(uint64_t iKeep, uint64_t iKeepBytes);

 private:
  bool ReadHead();
  bool WalkRecords(uint64_t iFrom, uint64_t iKeep, uint64_t iKeepBytes);
  void StartAt(uint64_t iOffset);
  uint64_t Used(uint64_t iRead) const;
  void ReadWrapped(uint64_t iOffset, char* pTo, uint64_t iSize) const;
  void TakeMessage(uint64_t iOffset, uint64_t iSize);

  const SegmentView& m_stView;
  RingReport_t& m_stReport;
};

uint64_t RingWalk::Used(uint64_t iRead) const {
  return (m_stReport.iWrite + m_stReport.iSize - iRead) % m_stReport.iSize;
}

// False when there is no ring to be walked.
bool RingWalk::ReadHead() {
  char cReady = 0;
  m_stReport = RingReport_t();
  m_stView.Forget();
  m_stView.Read(0, &cReady, sizeof(cReady));
  if (m_stView.Size() <= RING_HEAD || m_stView.Half(RING_SIZE_FIELD) == 0) {
    m_stReport.vecFaults.emplace_back("no ring: its creator never wrote the header");
    return false;
  }
  m_stReport.iSize = m_stView.Half(RING_SIZE_FIELD);
  if (cReady != RING_READY) {
    m_stReport.vecFaults.emplace_back("not ready");
  }
  if (m_stReport.iSize != m_stView.Size() - RING_HEAD) {
    m_stReport.vecFaults.push_back("a ring of " + std::to_string(m_stReport.iSize) +
                                   " bytes in a segment of " + std::to_string(m_stView.Size()));
    return false;
  }
  m_stReport.iRead = m_stView.FreshHalf(RING_READ);
  m_stReport.iWrite = m_stView.FreshHalf(RING_WRITE);
  m_stView.Forget();
  if (std::max(m_stReport.iRead, m_stReport.iWrite) >= m_stReport.iSize) {
    m_stReport.vecFaults.push_back("offset beyond the ring: read " +
                                   std::to_string(m_stReport.iRead) + ", write " +
                                   std::to_string(m_stReport.iWrite));
    return false;
  }
  return true;
}

void RingWalk::ReadWrapped(uint64_t iOffset, char* pTo, uint64_t iSize) const {
  const uint64_t iTail = std::min(iSize, m_stReport.iSize - iOffset);
  m_stView.Read(RING_HEAD + iOffset, pTo, iTail);
  m_stView.Read(RING_HEAD, pTo + iTail, iSize - iTail);
}

void RingWalk::TakeMessage(uint64_t iOffset, uint64_t iSize) {
  std::string strBytes(iSize, '\0');
  ReadWrapped(iOffset % m_stReport.iSize, strBytes.data(), iSize);
  m_stReport.vecMessages.push_back(std::move(strBytes));
}

// What was counted before is not pending.
void RingWalk::StartAt(uint64_t iOffset) {
  m_stReport.iRead = iOffset;
  m_stReport.iUsed = Used(iOffset);
  m_stReport.iMessages = 0;
  m_stReport.iLargest = 0;
  m_stReport.vecMessages.clear();
}

// From m_iRead on, counting from iFrom. False when the lengths do not add up or no record begins
// at iFrom.
bool RingWalk::WalkRecords(uint64_t iFrom, uint64_t iKeep, uint64_t iKeepBytes) {
  uint64_t iOffset = m_stReport.iRead;
  uint64_t iLeft = Used(iOffset);
  bool bFound = false;
  for (;;) {
    if (iOffset == iFrom) {
      StartAt(iFrom);
      bFound = true;
    }
    uint32_t iSize = 0;
    if (iLeft < RING_LENGTH) {
      return bFound && iLeft == 0;
    }
    ReadWrapped(iOffset, reinterpret_cast<char*>(&iSize), sizeof(iSize));
    if (iSize > iLeft - RING_LENGTH) {
      return false;
    }
    m_stReport.iMessages += 1;
    m_stReport.iLargest = std::max<uint64_t>(m_stReport.iLargest, iSize);
    if (m_stReport.vecMessages.size() < iKeep) {
      TakeMessage(iOffset + RING_LENGTH, std::min<uint64_t>(iSize, iKeepBytes));
    }
    iLeft -= RING_LENGTH + iSize;
    iOffset = (iOffset + RING_LENGTH + iSize) % m_stReport.iSize;
  }
}

// The first walk makes the copy, the second one looks at what of it is still pending after that.
bool RingWalk::Try(uint64_t iKeep, uint64_t iKeepBytes) {
  if (!ReadHead()) {
    return true;
  }
  const uint64_t iRead = m_stReport.iRead;
  const bool bWhole = WalkRecords(iRead, iKeep, iKeepBytes);
  const uint64_t iReadNow = m_stView.FreshHalf(RING_READ);
  if (!bWhole && iReadNow == iRead) {
    m_stReport.vecFaults.push_back("records do not end at the write offset " +
                                   std::to_string(m_stReport.iWrite));
    return true;
  }
  if (!bWhole || (iReadNow != iRead && !WalkRecords(iReadNow, iKeep, iKeepBytes))) {
    return false;
  }
  m_stReport.bStable = m_stReport.vecFaults.empty();
  return true;
}

}  // namespace

std::string RingReport_t::Faults() const {
  std::string strText;
  for (const std::string& strFault : vecFaults) {
    strText += strFault + "\n";
  }
  return strText;
}

RingReport_t CheckRing(const SegmentView& stView, uint64_t iKeep, uint64_t iKeepBytes) {
  RingReport_t stReport;
  RingWalk stWalk(stView, stReport);
  for (unsigned int i = 0; i < LIVE_ATTEMPTS && !stWalk.Try(iKeep, iKeepBytes); ++i) {
  }
  return stReport;
}

RingOffsets_t ReadOffsets(const SegmentView& stView) {
  RingOffsets_t stOffsets{};
  for (unsigned int i = 0; i < LIVE_ATTEMPTS; ++i) {
    stOffsets.iRead = stView.FreshHalf(RING_READ);
    stOffsets.iWrite = stView.FreshHalf(RING_WRITE);
    if (stView.FreshHalf(RING_READ) == stOffsets.iRead) {
      break;
    }
  }
  return stOffsets;
}
