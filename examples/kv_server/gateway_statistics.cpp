#include "gateway_statistics.h"

#include <algorithm>
#include <numeric>

uint64_t GatewayStatistics::Commands() const {
  return std::accumulate(m_vecCalls.begin(), m_vecCalls.end(), uint64_t{0});
}

void GatewayStatistics::Reset() {
  m_iConnections = 0;
  m_iRejected = 0;
  m_iInputBytes = 0;
  m_iOutputBytes = 0;
  m_iSampledCommands = 0;
  m_iRate = 0;
  m_stLatencies.Clear();
  CommandId_t eLast{};
  for (const Command_t& stCommand : AllCommands()) {
    eLast = std::max(eLast, stCommand.eId);
  }
  m_vecCalls.assign(static_cast<size_t>(eLast) + 1, 0);
}

void GatewayStatistics::Sample(time_t iNow) {
  const uint64_t iCommands = Commands();
  const time_t iSeconds = std::max<time_t>(iNow - m_iSampled, 1);  // the clock may be set back
  m_iRate = (iCommands - m_iSampledCommands) / static_cast<uint64_t>(iSeconds);
  m_iSampledCommands = iCommands;
  m_iSampled = iNow;
}
