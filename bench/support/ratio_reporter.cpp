#include "ratio_reporter.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

const char OUR_NAME[] = "zelk";

typedef std::vector<double> Samples_t;

double Median(Samples_t vecSamples) {
  const auto itMiddle = vecSamples.begin() + static_cast<long>(vecSamples.size() / 2);
  std::nth_element(vecSamples.begin(), itMiddle, vecSamples.end());
  return *itMiddle;
}

// The usual console lines, and every single figure kept by operation and contestant.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(OO_None) {}

  void ReportRuns(const std::vector<Run>& vecRuns) override {
    ConsoleReporter::ReportRuns(vecRuns);
    for (const Run& stRun : vecRuns) {
      if (stRun.run_type == Run::RT_Iteration && !stRun.error_occurred) {
        Keep(stRun);
      }
    }
  }

  void PrintRatios() const {
    printf("\n%-36s %-28s %12s %10s\n", "operation", "contestant", "median ns", "ratio");
    for (const auto& stOperation : m_mapSamples) {
      PrintOperation(stOperation.first, stOperation.second);
    }
  }

 private:
  void Keep(const Run& stRun) {
    const std::string& strName = stRun.run_name.function_name;
    const auto iSlash = strName.rfind('/');
    const auto itNs = stRun.counters.find("ns");
    const double dFigure = itNs != stRun.counters.end()
                               ? itNs->second.value
                               : stRun.GetAdjustedRealTime() *
                                     (1e9 / benchmark::GetTimeUnitMultiplier(stRun.time_unit));
    m_mapSamples[strName.substr(0, iSlash)][strName.substr(iSlash + 1)].push_back(dFigure);
  }

  static void PrintOperation(const std::string& strOperation,
                             const std::map<std::string, Samples_t>& mapContestants) {
    const auto itOurs = mapContestants.find(OUR_NAME);
    for (const auto& stContestant : mapContestants) {
      const double dMedian = Median(stContestant.second);
      printf("%-36s %-28s %12.1f", strOperation.c_str(), stContestant.first.c_str(), dMedian);
      if (itOurs != mapContestants.end() && stContestant.first != OUR_NAME) {
        printf(" %9.2fx", dMedian / Median(itOurs->second));
      }
      printf("\n");
    }
  }

  std::map<std::string, std::map<std::string, Samples_t>> m_mapSamples;
};

}  // namespace

int RunWithRatios(int argc, char** argv) {
  std::vector<char*> vecArguments(argv, argv + argc);
  std::string strInterleave = "--benchmark_enable_random_interleaving=true";
  std::string strRepetitions = "--benchmark_repetitions=5";
  vecArguments.insert(vecArguments.begin() + 1, {strInterleave.data(), strRepetitions.data()});
  int iCount = static_cast<int>(vecArguments.size());
  benchmark::Initialize(&iCount, vecArguments.data());
  if (benchmark::ReportUnrecognizedArguments(iCount, vecArguments.data())) {
    return 1;
  }
  RatioReporter stReporter;
  benchmark::RunSpecifiedBenchmarks(&stReporter);
  stReporter.PrintRatios();
  return 0;
}
