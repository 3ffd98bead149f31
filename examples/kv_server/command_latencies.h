#ifndef KV_SERVER_COMMAND_LATENCIES_H
#define KV_SERVER_COMMAND_LATENCIES_H

#include <cstdint>
#include <string>
#include <vector>

#include "delay_stat.h"
#include "log.h"

// How long the commands of a period took, in microseconds, by name.
//
// The library's statistics take any number: only their labels and settings say what it counts. The
// minimum is therefore never above 5000 microseconds, however slow a command was.
class CommandLatencies : public DelayStat {
 public:
  static const unsigned int BUCKET = 50;
  static const unsigned int LAST_BUCKET = 5000;  // and everything above

  CommandLatencies() { SetInterval(LAST_BUCKET, BUCKET, 0); }

  // The same as so many PushData(), at the price of one or two. iCount is not 0.
  void Add(const char* pCommand, unsigned int iMicroseconds, uint32_t iCount);

  struct Percentiles_t {
    std::string strCommand;
    unsigned int iHalf;       // so many microseconds or fewer took 50 % of the calls,
    unsigned int iMost;       // 99 %
    unsigned int iNearlyAll;  // and 99.9 %
  };
  // Of all commands, by name. The buckets tell no more than that a call was below the end of one,
  // so that is the figure, or the longest time when it is less. In the last bucket it is the
  // longest time.
  std::vector<Percentiles_t> Percentiles() const;

  // Writes the table behind a line to the log, and starts anew. Without samples nothing is written.
  void EndPeriod(Log& stLog);

 private:
  unsigned int Percentile(const StatItem_t& stItem, unsigned int iPermille) const;
};

#endif
