#ifndef KV_SERVER_OPEN_REQUESTS_H
#define KV_SERVER_OPEN_REQUESTS_H

#include <cstddef>
#include <cstdint>
#include <deque>

#include "command_latencies.h"

// One client's requests whose replies are not sent yet: which commands, and when they came. Replies
// go out in the order of the requests, so that their number tells whose they are.
class OpenRequests {
 public:
  // The name is kept as a pointer. Times are microseconds of one clock.
  void Add(const char* pCommand, int64_t iArrived);

  // The replies to the next iCount requests were sent at iNow.
  void OnSent(size_t iCount, int64_t iNow, CommandLatencies& stLatencies);

 private:
  // Consecutive requests of one command that came together: what pipelines consist of.
  struct Run_t {
    const char* pCommand;
    int64_t iArrived;
    uint32_t iCount;
  };

  std::deque<Run_t> m_dqRuns;
};

#endif
