#ifndef ZELK_BENCH_CPU_TIME_H
#define ZELK_BENCH_CPU_TIME_H

// For operations of a single thread that wait for nobody: their cost is the processor time of the
// thread, system calls included, which a busy neighbour spoils less than the clock on the wall.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <ctime>

inline double CpuNanoseconds() {
  timespec stTime{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &stTime);
  return static_cast<double>(stTime.tv_sec) * 1e9 + static_cast<double>(stTime.tv_nsec);
}

// What was measured, spread over all iterations of so many items each.
inline void ReportCpu(benchmark::State& stState, double dNanoseconds, size_t iItems = 1) {
  stState.counters["ns"] =
      dNanoseconds / (static_cast<double>(stState.iterations()) * static_cast<double>(iItems));
}

// Runs fnStep for each iteration; each stands for iItems.
template <typename Step>
void MeasureCpu(benchmark::State& stState, size_t iItems, Step fnStep) {
  const double dBegin = CpuNanoseconds();
  for (auto stIteration : stState) {
    static_cast<void>(stIteration);
    fnStep();
  }
  ReportCpu(stState, CpuNanoseconds() - dBegin, iItems);
}

#endif
