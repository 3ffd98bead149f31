#ifndef KV_SERVER_MONOTONIC_CLOCK_H
#define KV_SERVER_MONOTONIC_CLOCK_H

#include <time.h>

#include <cstdint>

// Microseconds since the machine was booted; nobody sets this clock. No system call.
inline int64_t MonotonicMicroseconds() {
  timespec stNow{};
  clock_gettime(CLOCK_MONOTONIC, &stNow);
  return stNow.tv_sec * 1000000 + stNow.tv_nsec / 1000;
}

#endif
