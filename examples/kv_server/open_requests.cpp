#include "open_requests.h"

#include <algorithm>
#include <limits>

void OpenRequests::Add(const char* pCommand, int64_t iArrived) {
  if (!m_dqRuns.empty() && m_dqRuns.back().pCommand == pCommand &&
      m_dqRuns.back().iArrived == iArrived) {
    ++m_dqRuns.back().iCount;
    return;
  }
  m_dqRuns.push_back({pCommand, iArrived, 1});
}

void OpenRequests::OnSent(size_t iCount, int64_t iNow, CommandLatencies& stLatencies) {
  const int64_t iLongest = std::numeric_limits<unsigned int>::max();
  while (iCount > 0 && !m_dqRuns.empty()) {
    Run_t& stRun = m_dqRuns.front();
    const auto iSent = static_cast<uint32_t>(std::min<size_t>(iCount, stRun.iCount));
    const int64_t iTook = std::min(iNow - stRun.iArrived, iLongest);
    stLatencies.Add(stRun.pCommand, static_cast<unsigned int>(iTook), iSent);
    iCount -= iSent;
    stRun.iCount -= iSent;
    if (stRun.iCount == 0) {
      m_dqRuns.pop_front();
    }
  }
}
