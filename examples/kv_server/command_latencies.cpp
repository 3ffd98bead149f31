#include "command_latencies.h"

#include <algorithm>
#include <string_view>

void CommandLatencies::Add(const char* pCommand, unsigned int iMicroseconds, uint32_t iCount) {
  PushData(pCommand, iMicroseconds);
  if (iCount == 1) {
    return;
  }
  StatItem_t& stItem = m_mapData.find(std::string_view(pCommand))->second;
  stItem.iCount += iCount - 1;
  stItem.iTotal += uint64_t{iMicroseconds} * (iCount - 1);
  stItem.mapInterval[std::min(iMicroseconds, m_iMax) / m_iInterval] += iCount - 1;
}

std::vector<CommandLatencies::Percentiles_t> CommandLatencies::Percentiles() const {
  std::vector<Percentiles_t> vecRows;
  for (const auto& [strCommand, stItem] : m_mapData) {
    vecRows.push_back(
        {strCommand, Percentile(stItem, 500), Percentile(stItem, 990), Percentile(stItem, 999)});
  }
  return vecRows;
}

unsigned int CommandLatencies::Percentile(const StatItem_t& stItem, unsigned int iPermille) const {
  const uint64_t iWanted = (uint64_t{stItem.iCount} * iPermille + 999) / 1000;
  uint64_t iSeen = 0;
  for (const auto& [iBucket, iCount] : stItem.mapInterval) {
    iSeen += iCount;
    if (iSeen >= iWanted && iBucket < m_iMax / m_iInterval) {
      return std::min((iBucket + 1) * m_iInterval, stItem.iMax);
    }
  }
  return stItem.iMax;
}

void CommandLatencies::EndPeriod(Log& stLog) {
  if (m_mapData.empty()) {
    return;
  }
  stLog.Stat("commands by latency in microseconds");  // opens the file
  DumpToFD(stLog.FD());                               // whole: a line of the log would be cut
  Clear();
}
