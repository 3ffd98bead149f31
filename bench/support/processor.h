#ifndef ZELK_BENCH_PROCESSOR_H
#define ZELK_BENCH_PROCESSOR_H

#include <sched.h>
#include <unistd.h>

// Keeps this process on one processor.
inline void PinTo(int iProcessor) {
  cpu_set_t stSet;
  CPU_ZERO(&stSet);
  CPU_SET(iProcessor, &stSet);
  sched_setaffinity(0, sizeof(stSet), &stSet);
}

inline int LastProcessor() { return static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)) - 1; }

#endif
