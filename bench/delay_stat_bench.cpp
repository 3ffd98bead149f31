// Latency statistics with 100 tags and the default 41 buckets.
//
//   push_spread   one sample under a known tag, values over all buckets alike
//   push_fast     the same with the values of a quick server, nearly all in the first two buckets
//   measure       begin and end of a measurement with a known tag and a fresh identifier
//   table         all figures as a table of text
//
// "map_lookup" finds the tag in a std::map and adds to three numbers, without a histogram.
// keeps the same figures in accumulators and a histogram of fixed width, found through the same
// kind of map. "unordered_map" of measure holds the begins around the same push. All tables have
// the same bytes, which is checked first; fmt and snprintf append to a string as ours does.

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>
#include <boost/accumulators/accumulators.hpp>
#include <boost/accumulators/statistics.hpp>
#include <boost/histogram.hpp>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "cpu_time.h"
#include "delay_stat.h"
#include "ratio_reporter.h"

namespace {

const size_t TAGS = 100;
const size_t SAMPLES = 4096;  // a power of two
const unsigned int WIDTH = 10;

struct Sample_t {
  const char* pTag;
  unsigned int iValue;
};

const std::vector<std::string>& Tags() {
  static const std::vector<std::string> s_vecTags = [] {
    std::vector<std::string> vecTags;
    for (size_t i = 0; i < TAGS; ++i) {
      vecTags.push_back("operation." + std::to_string(i * 7919 % 1000));
    }
    return vecTags;
  }();
  return s_vecTags;
}

template <typename Value>
std::vector<Sample_t> MakeSamples(Value fnValue) {
  std::mt19937_64 stRandom(1);
  std::vector<Sample_t> vecSamples;
  for (size_t i = 0; i < SAMPLES; ++i) {
    const char* pTag = Tags()[stRandom() % TAGS].c_str();
    vecSamples.push_back({pTag, fnValue(stRandom)});
  }
  return vecSamples;
}

struct Spread {
  static std::vector<Sample_t> Samples() {
    return MakeSamples(
        [](std::mt19937_64& stRandom) { return static_cast<unsigned int>(stRandom() % 2050); });
  }
};

struct Fast {
  static std::vector<Sample_t> Samples() {
    return MakeSamples([](std::mt19937_64& stRandom) {
      return static_cast<unsigned int>(std::exponential_distribution<>(1.0 / 20)(stRandom));
    });
  }
};

// Our own, with a look inside for the tables of the others.
class Zelk : public DelayStat {
 public:
  void Push(const Sample_t& stSample) { PushData(stSample.pTag, stSample.iValue); }
  const auto& Items() const { return m_mapData; }
  unsigned int TagWidth() const { return m_iTagMaxSize + 5; }
  unsigned int Buckets() const { return m_iMaxKey + 1; }
  unsigned int Interval() const { return m_iInterval; }
};

class Lookup {
 public:
  void Push(const Sample_t& stSample) {
    const std::string_view strTag(stSample.pTag);
    auto itItem = m_mapItems.find(strTag);
    if (itItem == m_mapItems.end()) {
      itItem = m_mapItems.emplace(strTag, Item_t()).first;
    }
    Item_t& stItem = itItem->second;
    ++stItem.iCount;
    stItem.iTotal += stSample.iValue;
    stItem.iSquares += uint64_t{stSample.iValue} * stSample.iValue;
  }

 private:
  struct Item_t {
    uint64_t iCount = 0;
    uint64_t iTotal = 0;
    uint64_t iSquares = 0;
  };
  std::map<std::string, Item_t, std::less<>> m_mapItems;
};

class Boost {
 public:
  void Push(const Sample_t& stSample) {
    const std::string_view strTag(stSample.pTag);
    auto itItem = m_mapItems.find(strTag);
    if (itItem == m_mapItems.end()) {
      itItem = m_mapItems.emplace(strTag, Item_t()).first;
    }
    itItem->second.stFigures(stSample.iValue);
    itItem->second.stHistogram(stSample.iValue);
  }

 private:
  struct Item_t {
    boost::accumulators::accumulator_set<
        uint64_t,
        boost::accumulators::stats<boost::accumulators::tag::count, boost::accumulators::tag::min,
                                   boost::accumulators::tag::max, boost::accumulators::tag::sum>>
        stFigures;
    boost::histogram::histogram<std::tuple<boost::histogram::axis::regular<>>,
                                boost::histogram::dense_storage<unsigned int>>
        stHistogram{boost::histogram::make_histogram_with(
            boost::histogram::dense_storage<unsigned int>(),
            boost::histogram::axis::regular<>(40, 0.0, 2000.0))};
  };
  std::map<std::string, Item_t, std::less<>> m_mapItems;
};

template <typename Samples, typename Contestant>
void Push(benchmark::State& stState) {
  const std::vector<Sample_t> vecSamples = Samples::Samples();
  Contestant stStat;
  for (const Sample_t& stSample : vecSamples) {
    stStat.Push(stSample);
  }
  size_t i = 0;
  MeasureCpu(stState, 1, [&] {
    stStat.Push(vecSamples[i++ % SAMPLES]);
    benchmark::ClobberMemory();
  });
}

class PlainBegins : public Zelk {
 public:
  void Begin(const char* pTag, const char* pIdentifier, timeval* pTime) {
    m_mapBegins[pIdentifier] = {pTag, *pTime};
  }
  void End(const char* pIdentifier, timeval* pTime) {
    const auto itBegin = m_mapBegins.find(pIdentifier);
    if (itBegin != m_mapBegins.end()) {
      PushData(itBegin->second.first.c_str(), itBegin->second.second, *pTime);
      m_mapBegins.erase(itBegin);
    }
  }

 private:
  std::unordered_map<std::string, std::pair<std::string, timeval>> m_mapBegins;
};

class ZelkBegins : public Zelk {
 public:
  void Begin(const char* pTag, const char* pIdentifier, timeval* pTime) {
    BeginData(pTag, pIdentifier, pTime);
  }
  void End(const char* pIdentifier, timeval* pTime) { EndData(pIdentifier, pTime); }
};

template <typename Contestant>
void Measure(benchmark::State& stState) {
  const std::vector<Sample_t> vecSamples = Fast::Samples();
  std::vector<std::string> vecIdentifiers;
  for (size_t i = 0; i < SAMPLES; ++i) {
    vecIdentifiers.push_back("10.0.0.1:" + std::to_string(10000 + i));
  }
  Contestant stStat;
  size_t i = 0;
  MeasureCpu(stState, 1, [&] {
    const Sample_t& stSample = vecSamples[i % SAMPLES];
    timeval tvBegin{1000, 0};
    timeval tvEnd{1000, static_cast<suseconds_t>(stSample.iValue) * 1000};
    stStat.Begin(stSample.pTag, vecIdentifiers[i % SAMPLES].c_str(), &tvBegin);
    stStat.End(vecIdentifiers[i % SAMPLES].c_str(), &tvEnd);
    ++i;
  });
}

std::string ZelkTable(Zelk& stStat) { return stStat.GenerateStatTable(); }

std::string StreamTable(Zelk& stStat) {
  std::ostringstream stTable;
  const auto iTagWidth = static_cast<int>(stStat.TagWidth());
  stTable << std::setw(iTagWidth) << "tag";
  for (const char* pHeading : {"count", "min", "avg", "max"}) {
    stTable << std::setw(WIDTH) << pHeading;
  }
  for (unsigned int k = 0; k < stStat.Buckets(); ++k) {
    char szLabel[32];
    snprintf(szLabel, sizeof(szLabel), "%u-%u", k * stStat.Interval(), (k + 1) * stStat.Interval());
    stTable << std::setw(WIDTH) << szLabel;
  }
  stTable << "\n";
  for (const auto& [strTag, stItem] : stStat.Items()) {
    stTable << std::setw(iTagWidth) << strTag << std::setw(WIDTH) << stItem.iCount
            << std::setw(WIDTH) << stItem.iMin << std::setw(WIDTH) << stItem.iTotal / stItem.iCount
            << std::setw(WIDTH) << stItem.iMax;
    for (unsigned int k = 0; k < stStat.Buckets(); ++k) {
      const auto itBucket = stItem.mapInterval.find(k);
      stTable << std::setw(WIDTH) << (itBucket != stItem.mapInterval.end() ? itBucket->second : 0);
    }
    stTable << "\n";
  }
  return stTable.str();
}

// The table with a function that appends one number; labels and tags are few.
template <typename AppendNumber>
std::string TableWith(Zelk& stStat, AppendNumber fnAppendNumber) {
  std::string strTable;
  strTable.reserve((TAGS + 1) * (stStat.TagWidth() + WIDTH * (stStat.Buckets() + 4) + 1));
  auto itTable = std::back_inserter(strTable);
  fmt::format_to(itTable, "{:>{}}{:>10}{:>10}{:>10}{:>10}", "tag", stStat.TagWidth(), "count",
                 "min", "avg", "max");
  for (unsigned int k = 0; k < stStat.Buckets(); ++k) {
    fmt::format_to(itTable, "{:>10}",
                   fmt::format("{}-{}", k * stStat.Interval(), (k + 1) * stStat.Interval()));
  }
  strTable += '\n';
  for (const auto& [strTag, stItem] : stStat.Items()) {
    fmt::format_to(itTable, "{:>{}}", strTag, stStat.TagWidth());
    for (const uint64_t iNumber : {uint64_t{stItem.iCount}, uint64_t{stItem.iMin},
                                   stItem.iTotal / stItem.iCount, uint64_t{stItem.iMax}}) {
      fnAppendNumber(strTable, iNumber);
    }
    auto itBucket = stItem.mapInterval.begin();
    for (unsigned int k = 0; k < stStat.Buckets(); ++k) {
      const bool bUsed = itBucket != stItem.mapInterval.end() && itBucket->first == k;
      fnAppendNumber(strTable, bUsed ? (itBucket++)->second : 0);
    }
    strTable += '\n';
  }
  return strTable;
}

std::string FmtTable(Zelk& stStat) {
  return TableWith(stStat, [](std::string& strTable, uint64_t iNumber) {
    fmt::format_to(std::back_inserter(strTable), "{:10}", iNumber);
  });
}

std::string SnprintfTable(Zelk& stStat) {
  return TableWith(stStat, [](std::string& strTable, uint64_t iNumber) {
    char szNumber[24];
    strTable.append(szNumber, static_cast<size_t>(snprintf(szNumber, sizeof(szNumber), "%10lu",
                                                           static_cast<unsigned long>(iNumber))));
  });
}

typedef std::string (*Table_t)(Zelk&);

void FillTable(Zelk& stStat) {
  for (const Sample_t& stSample : Spread::Samples()) {
    stStat.Push(stSample);
  }
}

template <Table_t fnTable>
void Table(benchmark::State& stState) {
  Zelk stStat;
  FillTable(stStat);
  MeasureCpu(stState, 1, [&] { benchmark::DoNotOptimize(fnTable(stStat)); });
}

void CheckTables() {
  Zelk stStat;
  FillTable(stStat);
  for (const Table_t fnTable : {StreamTable, FmtTable, SnprintfTable}) {
    if (fnTable(stStat) != ZelkTable(stStat)) {
      fprintf(stderr, "the tables differ\n");
      exit(1);
    }
  }
}

template <typename... Arguments>
void Case(const char* pName, Arguments... args) {
  benchmark::RegisterBenchmark(pName, args...)->MinTime(0.1);
}

void RegisterAll() {
  Case("push_spread/zelk", Push<Spread, Zelk>);
  Case("push_spread/map_lookup", Push<Spread, Lookup>);
  Case("push_spread/boost_histogram", Push<Spread, Boost>);
  Case("push_fast/zelk", Push<Fast, Zelk>);
  Case("push_fast/map_lookup", Push<Fast, Lookup>);
  Case("push_fast/boost_histogram", Push<Fast, Boost>);
  Case("measure/zelk", Measure<ZelkBegins>);
  Case("measure/unordered_map", Measure<PlainBegins>);
  Case("table/zelk", Table<ZelkTable>);
  Case("table/stream", Table<StreamTable>);
  Case("table/fmt", Table<FmtTable>);
  Case("table/snprintf", Table<SnprintfTable>);
}

}  // namespace

int main(int argc, char** argv) {
  CheckTables();
  RegisterAll();
  return RunWithRatios(argc, argv);
}
