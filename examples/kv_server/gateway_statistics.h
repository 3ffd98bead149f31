#ifndef KV_SERVER_GATEWAY_STATISTICS_H
#define KV_SERVER_GATEWAY_STATISTICS_H

#include <cstdint>
#include <ctime>
#include <vector>

#include "command_latencies.h"
#include "command_table.h"

// What the gateway counts for INFO: plain counters, cheap enough for every request.
class GatewayStatistics {
 public:
  explicit GatewayStatistics(time_t iNow) : m_iSampled(iNow) { Reset(); }

  uint64_t m_iConnections;
  uint64_t m_iRejected;            // connections beyond the limit
  uint64_t m_iInputBytes;          // received from clients
  uint64_t m_iOutputBytes;         // sent to clients
  CommandLatencies m_stLatencies;  // of this period

  void CountCall(CommandId_t eId) { ++m_vecCalls[eId]; }
  uint64_t Calls(CommandId_t eId) const { return m_vecCalls[eId]; }
  uint64_t Commands() const;  // all calls

  // To be called on every turn, for the rate.
  void OnTurn(time_t iNow) {
    if (iNow != m_iSampled) {
      Sample(iNow);
    }
  }
  // Commands per second, between the two latest turns that began in different seconds.
  uint64_t Rate() const { return m_iRate; }

  // Starts from zero.
  void Reset();

 private:
  void Sample(time_t iNow);

  std::vector<uint64_t> m_vecCalls;  // by command
  time_t m_iSampled;
  uint64_t m_iSampledCommands = 0;
  uint64_t m_iRate = 0;
};

#endif
