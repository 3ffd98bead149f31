// Allocating and freeing in shared memory.
//
// pair        one block of 64 bytes allocated and freed, again and again
// lifo        1,000 blocks of 64 bytes allocated, freed in reverse
// random      10,000 blocks of 16 to 512 bytes allocated, freed in random order
// churn       10,000 live blocks of 16 to 512 bytes, a random one replaced by one of another size
// fresh_16B   100,000 blocks of 16 bytes from a heap that was never used
// create      a new segment of 64 MiB with an empty heap, until its first block
//
// Figures are processor time per block allocated and freed (fresh_16B: allocated; create: per
// segment). "interprocess_locked" is managed_shared_memory as it comes, best fit behind a mutex;
// the other Boost heaps have its null_mutex_family, since ours takes no lock either. The cached
// nodes serve one size only. malloc is private memory, for reference. "limit" of pair and lifo is a
// list of equal blocks in private memory, in line and without any bookkeeping; of fresh_16B it is
// the first touch of the pages that 16 bytes and their size take, of create a new segment of which
// one page is touched.

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
const size_t FRESH_SIZE = 16;

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

// A new segment without a heap.
class Bare {
 public:
  Bare() {
    const int iShmID = shmget(IPC_PRIVATE, SEGMENT_SIZE, 0600);
    m_pAddress = static_cast<char*>(shmat(iShmID, nullptr, 0));
    shmctl(iShmID, IPC_RMID, nullptr);  // lives on while it is attached
  }
  ~Bare() { shmdt(m_pAddress); }

  void Touch(size_t iBytes) {
    for (size_t i = 0; i < iBytes; i += PAGE_SIZE) {
      m_pAddress[i] = 1;
    }
    benchmark::ClobberMemory();
  }

 private:
  static const size_t PAGE_SIZE = 4096;

  char* m_pAddress;
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

// The figure: nanoseconds of processor time per item, with so many items in an iteration.
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
  PerItem(stState, 1);
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
  PerItem(stState, 1);
}

// What fnFirst does to a Subject made for each iteration and thrown away outside of the
// measurement.
template <class Subject, class First>
void EachOnce(benchmark::State& stState, First fnFirst) {
  for (auto _ : stState) {
    stState.PauseTiming();
    auto pSubject = std::make_unique<Subject>();
    stState.ResumeTiming();
    fnFirst(*pSubject);
    stState.PauseTiming();
    pSubject.reset();
    stState.ResumeTiming();
  }
}

template <class Heap>
void Fresh(benchmark::State& stState) {
  EachOnce<Heap>(stState, [](Heap& stHeap) {
    for (size_t i = 0; i < FRESH_BLOCKS; ++i) {
      benchmark::DoNotOptimize(stHeap.Allocate(FRESH_SIZE));
    }
  });
  PerItem(stState, FRESH_BLOCKS);
}

void FreshPages(benchmark::State& stState) {
  EachOnce<Bare>(stState, [](Bare& stSegment) {
    stSegment.Touch(FRESH_BLOCKS * (FRESH_SIZE + sizeof(uint64_t)));
  });
  PerItem(stState, FRESH_BLOCKS);
}

// fnCreate returns what it has made, for it to be thrown away outside of the measurement.
template <class Create>
void Creation(benchmark::State& stState, Create fnCreate) {
  for (auto _ : stState) {
    auto pCreated = fnCreate();
    stState.PauseTiming();
    pCreated.reset();
    stState.ResumeTiming();
  }
  PerItem(stState, 1);
}

template <class Heap>
void Create(benchmark::State& stState) {
  Creation(stState, [] {
    auto pHeap = std::make_unique<Heap>();
    benchmark::DoNotOptimize(pHeap->Allocate(ONE_SIZE));
    return pHeap;
  });
}

void CreateBare(benchmark::State& stState) {
  Creation(stState, [] {
    auto pSegment = std::make_unique<Bare>();
    pSegment->Touch(1);
    return pSegment;
  });
}

void Register(const std::string& strName, void (*pRun)(benchmark::State&)) {
  benchmark::RegisterBenchmark(strName.c_str(), pRun);
}

template <class Heap>
void RegisterOneSize(const std::string& strContestant) {
  Register("pair/" + strContestant, Pair<Heap>);
  Register("lifo/" + strContestant, Lifo<Heap>);
}

template <class Heap>
void RegisterMixedSizes(const std::string& strContestant) {
  Register("random/" + strContestant, Random<Heap>);
  Register("churn/" + strContestant, Churn<Heap>);
}

template <class Heap>
void RegisterShared(const std::string& strContestant) {
  RegisterOneSize<Heap>(strContestant);
  RegisterMixedSizes<Heap>(strContestant);
  Register("fresh_16B/" + strContestant, Fresh<Heap>);
  Register("create/" + strContestant, Create<Heap>);
}

}  // namespace

int main(int argc, char** argv) {
  RegisterShared<Zelk>("zelk");
  RegisterShared<AsItComes>("interprocess_locked");
  RegisterShared<BestFit>("interprocess_best_fit");
  RegisterShared<SimpleFit>("interprocess_simple_fit");
  RegisterOneSize<CachedNodes<ONE_SIZE>>("interprocess_cached_node");
  Register("fresh_16B/interprocess_cached_node", Fresh<CachedNodes<FRESH_SIZE>>);
  RegisterOneSize<Malloc>("malloc");
  RegisterMixedSizes<Malloc>("malloc");
  RegisterOneSize<Limit>("limit");
  Register("fresh_16B/limit", FreshPages);
  Register("create/limit", CreateBare);
  return RunWithRatios(argc, argv);
}
