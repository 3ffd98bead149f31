// Allocating and freeing in shared memory.
//
// pair        one block of 64 bytes allocated and freed, again and again
// lifo        1,000 blocks of 64 bytes allocated, freed in reverse
// random      10,000 blocks of 16 to 512 bytes allocated, freed in random order
// churn       10,000 live blocks of 16 to 512 bytes, a random one replaced by one of another size
// fresh_16B   100,000 blocks of 16 bytes from a heap that was never used
// create      a new segment of 64 MiB with an empty heap, until its first block
//
// Figures are per block allocated and freed (fresh_16B: allocated). "interprocess_locked" is
// managed_shared_memory as it comes, best fit behind a mutex; the other Boost heaps have its
// null_mutex_family, since ours takes no lock either. malloc is private memory, for reference;
// "limit" is a list of equal blocks in private memory, in line and without any bookkeeping.

#include <benchmark/benchmark.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <boost/interprocess/allocators/cached_node_allocator.hpp>
#include <boost/interprocess/indexes/iset_index.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/mem_algo/rbtree_best_fit.hpp>
#include <boost/interprocess/mem_algo/simple_seq_fit.hpp>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "ratio_reporter.h"
#include "shm_allocator.h"

namespace {

namespace bip = boost::interprocess;

const size_t SEGMENT_SIZE = 64 << 20;
const size_t ONE_SIZE = 64;
const size_t LIFO_BLOCKS = 1000;
const size_t LIVE_BLOCKS = 10000;
const size_t FRESH_BLOCKS = 100000;

// Each contestant makes a new heap when constructed; it goes with its mapping.

class Zelk {
 public:
  Zelk() {
    key_t iKey = static_cast<key_t>(getpid()) << 8;
    while (shmget(iKey, 0, 0) != -1) {
      ++iKey;
    }
    m_stHeap.Attach(iKey, SEGMENT_SIZE, 0, false);
    shmctl(shmget(iKey, 0, 0), IPC_RMID, nullptr);  // lives on while it is attached
  }

  void* Allocate(size_t iSize) { return m_stHeap.Allocate(iSize); }
  void Free(void* p, size_t /*iSize*/) { m_stHeap.Deallocate(p); }

 private:
  ShmAllocator m_stHeap;
};

template <template <class, class> class Algorithm>
using UnlockedSegment =
    bip::basic_managed_shared_memory<char, Algorithm<bip::null_mutex_family, bip::offset_ptr<void>>,
                                     bip::iset_index>;

template <class Mutex, class Pointer>
using BestFitAlgorithm = bip::rbtree_best_fit<Mutex, Pointer>;

std::string SegmentName() { return "zelk_bench_" + std::to_string(getpid()); }

template <class Segment>
class Interprocess {
 public:
  Interprocess() : m_stSegment(bip::create_only, SegmentName().c_str(), SEGMENT_SIZE) {
    bip::shared_memory_object::remove(SegmentName().c_str());  // lives on while it is mapped
  }

  void* Allocate(size_t iSize) { return m_stSegment.allocate(iSize); }
  void Free(void* p, size_t /*iSize*/) { m_stSegment.deallocate(p); }

 protected:
  Segment m_stSegment;
};

typedef Interprocess<bip::managed_shared_memory> AsItComes;
typedef Interprocess<UnlockedSegment<BestFitAlgorithm>> BestFit;
typedef Interprocess<UnlockedSegment<bip::simple_seq_fit>> SimpleFit;

// Blocks of one size only, from nodes that each process keeps for itself.
template <size_t SIZE>
class CachedNodes : public BestFit {
 public:
  struct Block {
    char szData[SIZE];
  };

  CachedNodes() : m_stNodes(m_stSegment.get_segment_manager()) {}

  void* Allocate(size_t /*iSize*/) { return m_stNodes.allocate_one().get(); }
  void Free(void* p, size_t /*iSize*/) { m_stNodes.deallocate_one(static_cast<Block*>(p)); }

 private:
  bip::cached_node_allocator<Block, UnlockedSegment<BestFitAlgorithm>::segment_manager> m_stNodes;
};

class Malloc {
 public:
  void* Allocate(size_t iSize) {
    void* p = malloc(iSize);
    benchmark::DoNotOptimize(p);
    return p;
  }
  void Free(void* p, size_t /*iSize*/) { free(p); }
};

class Limit {
 public:
  Limit() : m_vecMemory(LIFO_BLOCKS * ONE_SIZE / sizeof(void*)) {
    for (size_t i = 0; i < LIFO_BLOCKS; ++i) {
      Free(&m_vecMemory[i * ONE_SIZE / sizeof(void*)], ONE_SIZE);
    }
  }
  void* Allocate(size_t /*iSize*/) {
    void* p = m_pFree;
    m_pFree = *static_cast<void**>(p);
    return p;
  }
  void Free(void* p, size_t /*iSize*/) {
    *static_cast<void**>(p) = m_pFree;
    m_pFree = p;
  }

 private:
  std::vector<void*> m_vecMemory;
  void* m_pFree = nullptr;
};

// The same sizes, orders and choices for every contestant.
class Choices {
 public:
  Choices() : m_vecSizes(1 << 16), m_vecSlots(1 << 16), m_vecOrder(LIVE_BLOCKS) {
    std::mt19937 stRandom(1);
    for (size_t& iSize : m_vecSizes) {
      iSize = 16 + stRandom() % 497;
    }
    for (size_t& iSlot : m_vecSlots) {
      iSlot = stRandom() % LIVE_BLOCKS;
    }
    std::iota(m_vecOrder.begin(), m_vecOrder.end(), size_t{0});
    std::shuffle(m_vecOrder.begin(), m_vecOrder.end(), stRandom);
  }
  size_t Size(size_t i) const { return m_vecSizes[i & 0xffff]; }
  size_t Slot(size_t i) const { return m_vecSlots[i & 0xffff]; }
  const std::vector<size_t>& Order() const { return m_vecOrder; }

 private:
  std::vector<size_t> m_vecSizes;
  std::vector<size_t> m_vecSlots;
  std::vector<size_t> m_vecOrder;
};

const Choices g_stChoices;

// The figure: nanoseconds per item, with so many items in an iteration.
void PerItem(benchmark::State& stState, size_t iItems) {
  stState.counters["ns"] = benchmark::Counter(
      static_cast<double>(iItems) * 1e-9,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

template <class Heap>
void Pair(benchmark::State& stState) {
  Heap stHeap;
  for (auto _ : stState) {
    void* p = stHeap.Allocate(ONE_SIZE);
    benchmark::DoNotOptimize(p);
    stHeap.Free(p, ONE_SIZE);
  }
}

template <class Heap>
void Lifo(benchmark::State& stState) {
  Heap stHeap;
  std::vector<void*> vecBlocks(LIFO_BLOCKS);
  for (auto _ : stState) {
    for (size_t i = 0; i < LIFO_BLOCKS; ++i) {
      vecBlocks[i] = stHeap.Allocate(ONE_SIZE);
    }
    benchmark::ClobberMemory();
    for (size_t i = LIFO_BLOCKS; i-- > 0;) {
      stHeap.Free(vecBlocks[i], ONE_SIZE);
    }
    benchmark::ClobberMemory();
  }
  PerItem(stState, LIFO_BLOCKS);
}

template <class Heap>
void Random(benchmark::State& stState) {
  Heap stHeap;
  std::vector<void*> vecBlocks(LIVE_BLOCKS);
  for (auto _ : stState) {
    for (size_t i = 0; i < LIVE_BLOCKS; ++i) {
      vecBlocks[i] = stHeap.Allocate(g_stChoices.Size(i));
    }
    for (const size_t i : g_stChoices.Order()) {
      stHeap.Free(vecBlocks[i], g_stChoices.Size(i));
    }
  }
  PerItem(stState, LIVE_BLOCKS);
}

template <class Heap>
void Churn(benchmark::State& stState) {
  Heap stHeap;
  struct Live_t {
    void* p;
    size_t iSize;
  };
  std::vector<Live_t> vecLive;
  for (size_t i = 0; i < LIVE_BLOCKS; ++i) {
    vecLive.push_back({stHeap.Allocate(g_stChoices.Size(i)), g_stChoices.Size(i)});
  }
  size_t iStep = 0;
  for (auto _ : stState) {
    Live_t& stSlot = vecLive[g_stChoices.Slot(iStep)];
    stHeap.Free(stSlot.p, stSlot.iSize);
    stSlot.iSize = g_stChoices.Size(iStep * 7 + 3);
    stSlot.p = stHeap.Allocate(stSlot.iSize);
    ++iStep;
  }
  for (const Live_t& stSlot : vecLive) {
    stHeap.Free(stSlot.p, stSlot.iSize);
  }
}

template <class Heap>
void Fresh(benchmark::State& stState) {
  for (auto _ : stState) {
    stState.PauseTiming();
    auto pHeap = std::make_unique<Heap>();
    stState.ResumeTiming();
    for (size_t i = 0; i < FRESH_BLOCKS; ++i) {
      benchmark::DoNotOptimize(pHeap->Allocate(16));
    }
    stState.PauseTiming();
    pHeap.reset();
    stState.ResumeTiming();
  }
  PerItem(stState, FRESH_BLOCKS);
}

template <class Heap>
void Create(benchmark::State& stState) {
  for (auto _ : stState) {
    auto pHeap = std::make_unique<Heap>();
    benchmark::DoNotOptimize(pHeap->Allocate(ONE_SIZE));
    stState.PauseTiming();
    pHeap.reset();
    stState.ResumeTiming();
  }
}

BENCHMARK_TEMPLATE(Pair, Zelk)->Name("pair/zelk");
BENCHMARK_TEMPLATE(Pair, AsItComes)->Name("pair/interprocess_locked");
BENCHMARK_TEMPLATE(Pair, BestFit)->Name("pair/interprocess_best_fit");
BENCHMARK_TEMPLATE(Pair, SimpleFit)->Name("pair/interprocess_simple_fit");
BENCHMARK_TEMPLATE(Pair, CachedNodes<ONE_SIZE>)->Name("pair/interprocess_cached_node");
BENCHMARK_TEMPLATE(Pair, Malloc)->Name("pair/malloc");
BENCHMARK_TEMPLATE(Pair, Limit)->Name("pair/limit");
BENCHMARK_TEMPLATE(Lifo, Zelk)->Name("lifo/zelk");
BENCHMARK_TEMPLATE(Lifo, AsItComes)->Name("lifo/interprocess_locked");
BENCHMARK_TEMPLATE(Lifo, BestFit)->Name("lifo/interprocess_best_fit");
BENCHMARK_TEMPLATE(Lifo, SimpleFit)->Name("lifo/interprocess_simple_fit");
BENCHMARK_TEMPLATE(Lifo, CachedNodes<ONE_SIZE>)->Name("lifo/interprocess_cached_node");
BENCHMARK_TEMPLATE(Lifo, Malloc)->Name("lifo/malloc");
BENCHMARK_TEMPLATE(Lifo, Limit)->Name("lifo/limit");
BENCHMARK_TEMPLATE(Random, Zelk)->Name("random/zelk");
BENCHMARK_TEMPLATE(Random, AsItComes)->Name("random/interprocess_locked");
BENCHMARK_TEMPLATE(Random, BestFit)->Name("random/interprocess_best_fit");
BENCHMARK_TEMPLATE(Random, SimpleFit)->Name("random/interprocess_simple_fit");
BENCHMARK_TEMPLATE(Random, Malloc)->Name("random/malloc");
BENCHMARK_TEMPLATE(Churn, Zelk)->Name("churn/zelk");
BENCHMARK_TEMPLATE(Churn, AsItComes)->Name("churn/interprocess_locked");
BENCHMARK_TEMPLATE(Churn, BestFit)->Name("churn/interprocess_best_fit");
BENCHMARK_TEMPLATE(Churn, SimpleFit)->Name("churn/interprocess_simple_fit");
BENCHMARK_TEMPLATE(Churn, Malloc)->Name("churn/malloc");
BENCHMARK_TEMPLATE(Fresh, Zelk)->Name("fresh_16B/zelk");
BENCHMARK_TEMPLATE(Fresh, AsItComes)->Name("fresh_16B/interprocess_locked");
BENCHMARK_TEMPLATE(Fresh, BestFit)->Name("fresh_16B/interprocess_best_fit");
BENCHMARK_TEMPLATE(Fresh, SimpleFit)->Name("fresh_16B/interprocess_simple_fit");
BENCHMARK_TEMPLATE(Fresh, CachedNodes<16>)->Name("fresh_16B/interprocess_cached_node");
BENCHMARK_TEMPLATE(Create, Zelk)->Name("create/zelk");
BENCHMARK_TEMPLATE(Create, AsItComes)->Name("create/interprocess_locked");
BENCHMARK_TEMPLATE(Create, BestFit)->Name("create/interprocess_best_fit");

}  // namespace

int main(int argc, char** argv) { return RunWithRatios(argc, argv); }
