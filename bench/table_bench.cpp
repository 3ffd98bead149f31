// A table from strings to byte strings in shared memory, with 1,000, 100,000 and 1,000,000 entries.
//
// Keys of 15 characters, values of 32 bytes, keys taken in random order.
//   get_hit, get_miss   look a key up and read the value's first byte
//   set_new             fill an empty table whose memory has been used before
//   replace             a value of the same size under an existing key
//   delete              empty a full table
//   iterate             visit every entry and read its value's first byte
//
// Figures are processor time per entry. Ours has as many buckets as entries. The Boost table keeps
// shared strings in a segment without a lock and is searched by C string, so that neither side
// builds a key object. LMDB runs without sync and without locks, reads in one renewed transaction
// and commits each write, since a write is to be seen by the other processes at once.
// std::unordered_map is private memory, for reference. "limit" is a plain loop over our own layout:
// of iterate over all buckets and entries, of get_hit over buckets and their first entries that
// were found before, two loads that depend on each other, without hash and comparison.

#include <benchmark/benchmark.h>
#include <lmdb.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/containers/string.hpp>
#include <boost/interprocess/indexes/iset_index.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/mem_algo/rbtree_best_fit.hpp>
#include <boost/unordered_map.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "hash_map.h"
#include "ratio_reporter.h"

namespace {

namespace bip = boost::interprocess;

const size_t VALUE_SIZE = 32;

size_t SegmentSize(size_t iEntries) { return (size_t{32} << 20) + iEntries * 400; }

class Zelk {
 public:
  explicit Zelk(size_t iEntries) {
    key_t iKey = static_cast<key_t>(getpid()) << 8;
    while (shmget(iKey, 0, 0) != -1) {
      ++iKey;
    }
    if (!m_stMap.Attach(iKey, SegmentSize(iEntries) + iEntries * 16, iEntries, false)) {
      abort();
    }
    const int iShmID = shmget(iKey, 0, 0);
    m_pBase = static_cast<const char*>(shmat(iShmID, nullptr, SHM_RDONLY));
    shmctl(iShmID, IPC_RMID, nullptr);  // lives on while it is attached
  }
  ~Zelk() { shmdt(m_pBase); }

  bool Set(const std::string& strKey, const char* pValue) {
    return m_stMap.Set(strKey.c_str(), pValue, VALUE_SIZE);
  }
  int Get(const std::string& strKey) {
    const HashItem_t stItem = m_stMap.Get(strKey.c_str());
    return stItem.pKey == nullptr ? -1 : stItem.pValue[0];
  }
  void Delete(const std::string& strKey) { m_stMap.Delete(strKey.c_str()); }
  size_t Visit() {
    size_t iSum = 0;
    const HashMap::iterator itEnd = m_stMap.end();
    for (HashMap::iterator it = m_stMap.begin(); it != itEnd; ++it) {
      iSum += static_cast<size_t>((*it).pValue[0]);
    }
    return iSum;
  }

  // The same layout, read plainly.
  size_t VisitPlainly() const {
    size_t iSum = 0;
    for (uint32_t i = 0; i < BucketCount(); ++i) {
      for (uint64_t iItem = FirstOf(i); iItem != 0; iItem = Word<uint64_t>(iItem)) {
        iSum += static_cast<size_t>(ValueOf(iItem));
      }
    }
    return iSum;
  }
  uint32_t BucketOf(const std::string& strKey) const {
    return static_cast<uint32_t>(HashMap::FNVHash(strKey.c_str()) % BucketCount());
  }
  char GetPlainly(uint32_t iBucket) const { return ValueOf(FirstOf(iBucket)); }

 private:
  static const uint64_t TABLE = 4194384;  // offset of the table's head, which the buckets follow

  template <class T>
  T Word(uint64_t iOffset) const {
    return *reinterpret_cast<const T*>(m_pBase + iOffset);
  }
  uint32_t BucketCount() const { return Word<uint32_t>(TABLE); }
  uint64_t FirstOf(uint32_t iBucket) const {
    return Word<uint64_t>(TABLE + 56 + uint64_t{iBucket} * 16 + 8);
  }
  char ValueOf(uint64_t iItem) const { return m_pBase[iItem + 16 + Word<uint32_t>(iItem + 8)]; }

  HashMap m_stMap;
  const char* m_pBase;
};

class Interprocess {
 public:
  explicit Interprocess(size_t iEntries)
      : m_stSegment(bip::create_only, SegmentName().c_str(), SegmentSize(iEntries)),
        m_stCharacters(m_stSegment.get_segment_manager()),
        m_pMap(m_stSegment.construct<Map_t>("map")(iEntries, Hash(), Equal(), m_stCharacters)) {
    bip::shared_memory_object::remove(SegmentName().c_str());  // lives on while it is mapped
  }

  bool Set(const std::string& strKey, const char* pValue) {
    const auto it = Find(strKey);
    if (it != m_pMap->end()) {
      it->second.assign(pValue, VALUE_SIZE);
      return true;
    }
    return m_pMap
        ->emplace(std::piecewise_construct,
                  std::forward_as_tuple(strKey.data(), strKey.size(), m_stCharacters),
                  std::forward_as_tuple(pValue, VALUE_SIZE, m_stCharacters))
        .second;
  }
  int Get(const std::string& strKey) {
    const auto it = Find(strKey);
    return it == m_pMap->end() ? -1 : it->second[0];
  }
  void Delete(const std::string& strKey) { m_pMap->erase(Find(strKey)); }
  size_t Visit() {
    size_t iSum = 0;
    for (const auto& stEntry : *m_pMap) {
      iSum += static_cast<size_t>(stEntry.second[0]);
    }
    return iSum;
  }

 private:
  typedef bip::basic_managed_shared_memory<
      char, bip::rbtree_best_fit<bip::null_mutex_family, bip::offset_ptr<void>>, bip::iset_index>
      Segment_t;
  template <class T>
  using Allocator = bip::allocator<T, Segment_t::segment_manager>;
  typedef bip::basic_string<char, std::char_traits<char>, Allocator<char>> String_t;

  struct Hash {
    size_t operator()(std::string_view strKey) const {
      return std::hash<std::string_view>()(strKey);
    }
    size_t operator()(const String_t& strKey) const {
      return (*this)(std::string_view(strKey.data(), strKey.size()));
    }
  };
  struct Equal {
    static std::string_view View(const String_t& strKey) { return {strKey.data(), strKey.size()}; }
    static std::string_view View(std::string_view strKey) { return strKey; }
    template <class Left, class Right>
    bool operator()(const Left& stLeft, const Right& stRight) const {
      return View(stLeft) == View(stRight);
    }
  };
  typedef boost::unordered_map<String_t, String_t, Hash, Equal,
                               Allocator<std::pair<const String_t, String_t>>>
      Map_t;

  // As a user would have it from a C string.
  Map_t::iterator Find(const std::string& strKey) {
    return m_pMap->find(std::string_view(strKey.c_str()), Hash(), Equal());
  }

  static std::string SegmentName() { return "zelk_bench_" + std::to_string(getpid()); }

  Segment_t m_stSegment;
  Allocator<char> m_stCharacters;
  Map_t* m_pMap;
};

class Lmdb {
 public:
  explicit Lmdb(size_t iEntries) {
    char szDirectory[] = "/dev/shm/zelk_bench_XXXXXX";
    if (mkdtemp(szDirectory) == nullptr) {
      abort();
    }
    MDB_txn* pTransaction = nullptr;
    const unsigned int iFlags = MDB_NOSYNC | MDB_NOLOCK | MDB_WRITEMAP;
    Check(mdb_env_create(&m_pEnv));
    Check(mdb_env_set_mapsize(m_pEnv, SegmentSize(iEntries)));
    Check(mdb_env_open(m_pEnv, szDirectory, iFlags, 0600));
    std::filesystem::remove_all(szDirectory);  // the files live on while they are open
    Check(mdb_txn_begin(m_pEnv, nullptr, 0, &pTransaction));
    Check(mdb_dbi_open(pTransaction, nullptr, 0, &m_iTable));
    Check(mdb_txn_commit(pTransaction));
    Check(mdb_txn_begin(m_pEnv, nullptr, MDB_RDONLY, &m_pReader));
    mdb_txn_reset(m_pReader);
  }
  ~Lmdb() {
    mdb_txn_abort(m_pReader);
    mdb_env_close(m_pEnv);
  }

  bool Set(const std::string& strKey, const char* pValue) {
    MDB_txn* pTransaction = nullptr;
    MDB_val stKey = KeyOf(strKey);
    MDB_val stValue{VALUE_SIZE, const_cast<char*>(pValue)};
    Check(mdb_txn_begin(m_pEnv, nullptr, 0, &pTransaction));
    Check(mdb_put(pTransaction, m_iTable, &stKey, &stValue, 0));
    return mdb_txn_commit(pTransaction) == 0;
  }
  int Get(const std::string& strKey) {
    MDB_val stKey = KeyOf(strKey);
    MDB_val stValue{};
    Check(mdb_txn_renew(m_pReader));
    const bool bFound = mdb_get(m_pReader, m_iTable, &stKey, &stValue) == 0;
    const int iResult = bFound ? *static_cast<char*>(stValue.mv_data) : -1;
    mdb_txn_reset(m_pReader);
    return iResult;
  }
  void Delete(const std::string& strKey) {
    MDB_txn* pTransaction = nullptr;
    MDB_val stKey = KeyOf(strKey);
    Check(mdb_txn_begin(m_pEnv, nullptr, 0, &pTransaction));
    Check(mdb_del(pTransaction, m_iTable, &stKey, nullptr));
    Check(mdb_txn_commit(pTransaction));
  }
  size_t Visit() {
    MDB_cursor* pCursor = nullptr;
    MDB_val stKey{};
    MDB_val stValue{};
    size_t iSum = 0;
    Check(mdb_txn_renew(m_pReader));
    Check(mdb_cursor_open(m_pReader, m_iTable, &pCursor));
    while (mdb_cursor_get(pCursor, &stKey, &stValue, MDB_NEXT) == 0) {
      iSum += static_cast<size_t>(*static_cast<char*>(stValue.mv_data));
    }
    mdb_cursor_close(pCursor);
    mdb_txn_reset(m_pReader);
    return iSum;
  }

 private:
  static void Check(int iResult) {
    if (iResult != 0) {
      fprintf(stderr, "lmdb: %s\n", mdb_strerror(iResult));
      abort();
    }
  }
  static MDB_val KeyOf(const std::string& strKey) {
    return {strKey.size(), const_cast<char*>(strKey.data())};
  }

  MDB_env* m_pEnv = nullptr;
  MDB_txn* m_pReader = nullptr;
  MDB_dbi m_iTable = 0;
};

class Private {
 public:
  explicit Private(size_t iEntries) : m_stMap(iEntries) {}

  bool Set(const std::string& strKey, const char* pValue) {
    m_stMap[strKey].assign(pValue, VALUE_SIZE);
    return true;
  }
  int Get(const std::string& strKey) {
    const auto it = m_stMap.find(strKey);
    return it == m_stMap.end() ? -1 : it->second[0];
  }
  void Delete(const std::string& strKey) { m_stMap.erase(strKey); }
  size_t Visit() {
    size_t iSum = 0;
    for (const auto& stEntry : m_stMap) {
      iSum += static_cast<size_t>(stEntry.second[0]);
    }
    return iSum;
  }

 private:
  std::unordered_map<std::string, std::string> m_stMap;
};

const char VALUE[VALUE_SIZE + 1] = "a value of exactly 32 characters";
const char OTHER_VALUE[VALUE_SIZE + 1] = "another one of the very same siz";

// The keys of a table in the order of insertion and in another, and keys that are not in it.
struct Keys_t {
  explicit Keys_t(size_t iEntries) {
    for (size_t i = 0; i < iEntries; ++i) {
      vecInserted.push_back(Text(2 * i));
      vecMissing.push_back(Text(2 * i + 1));
    }
    std::mt19937 stRandom(1);
    std::shuffle(vecInserted.begin(), vecInserted.end(), stRandom);
    std::shuffle(vecMissing.begin(), vecMissing.end(), stRandom);
    vecAsked = vecInserted;
    std::shuffle(vecAsked.begin(), vecAsked.end(), stRandom);
  }
  static std::string Text(size_t i) {
    char szText[32];
    snprintf(szText, sizeof(szText), "user:%010zu", i);
    return szText;
  }

  std::vector<std::string> vecInserted;
  std::vector<std::string> vecAsked;
  std::vector<std::string> vecMissing;
};

const Keys_t& Keys(size_t iEntries) {
  static std::map<size_t, std::unique_ptr<Keys_t>> mapKeys;
  auto& pKeys = mapKeys[iEntries];
  if (pKeys == nullptr) {
    pKeys = std::make_unique<Keys_t>(iEntries);
  }
  return *pKeys;
}

template <class Table>
void Fill(Table& stTable, const Keys_t& stKeys) {
  for (const std::string& strKey : stKeys.vecInserted) {
    if (!stTable.Set(strKey, VALUE)) {
      abort();
    }
  }
}

template <class Table>
void Empty(Table& stTable, const Keys_t& stKeys) {
  for (const std::string& strKey : stKeys.vecAsked) {
    stTable.Delete(strKey);
  }
}

// A full table, filled on first use; whoever empties it fills it again.
template <class Table>
Table& Full(size_t iEntries) {
  static std::map<size_t, std::unique_ptr<Table>> mapTables;
  auto& pTable = mapTables[iEntries];
  if (pTable == nullptr) {
    pTable = std::make_unique<Table>(iEntries);
    Fill(*pTable, Keys(iEntries));
  }
  return *pTable;
}

// The figure: nanoseconds of processor time per item, with so many items in an iteration.
void PerItem(benchmark::State& stState, size_t iItems) {
  stState.counters["ns"] = benchmark::Counter(
      static_cast<double>(iItems) * 1e-9,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// One after the other, around and around, and on where the last run has ended: a short run is not
// to find its keys in the cache.
class Turn {
 public:
  explicit Turn(size_t iEntries) : m_iEntries(iEntries) {}
  size_t Next() { return m_iNext = m_iNext + 1 == m_iEntries ? 0 : m_iNext + 1; }

 private:
  size_t m_iEntries;
  size_t m_iNext = 0;
};

template <class Table>
Turn& TurnOf(size_t iEntries) {
  static std::map<size_t, Turn> mapTurns;
  return mapTurns.emplace(iEntries, Turn(iEntries)).first->second;
}

template <class Table>
void Get(benchmark::State& stState, size_t iEntries, bool bHit) {
  Table& stTable = Full<Table>(iEntries);
  Turn& stTurn = TurnOf<Table>(iEntries);
  const auto& vecKeys = bHit ? Keys(iEntries).vecAsked : Keys(iEntries).vecMissing;
  for (auto _ : stState) {
    if ((stTable.Get(vecKeys[stTurn.Next()]) >= 0) != bHit) {
      stState.SkipWithError("wrong answer");
    }
  }
  PerItem(stState, 1);
}

void GetPlainly(benchmark::State& stState, size_t iEntries) {
  const Zelk& stTable = Full<Zelk>(iEntries);
  Turn& stTurn = TurnOf<Zelk>(iEntries);
  std::vector<uint32_t> vecBuckets;
  for (const std::string& strKey : Keys(iEntries).vecAsked) {
    vecBuckets.push_back(stTable.BucketOf(strKey));
  }
  for (auto _ : stState) {
    benchmark::DoNotOptimize(stTable.GetPlainly(vecBuckets[stTurn.Next()]));
  }
  PerItem(stState, 1);
}

template <class Table>
void SetNew(benchmark::State& stState, size_t iEntries) {
  Table& stTable = Full<Table>(iEntries);
  for (auto _ : stState) {
    stState.PauseTiming();
    Empty(stTable, Keys(iEntries));
    stState.ResumeTiming();
    Fill(stTable, Keys(iEntries));
  }
  PerItem(stState, iEntries);
}

template <class Table>
void Replace(benchmark::State& stState, size_t iEntries) {
  Table& stTable = Full<Table>(iEntries);
  Turn& stTurn = TurnOf<Table>(iEntries);
  const auto& vecKeys = Keys(iEntries).vecAsked;
  for (auto _ : stState) {
    benchmark::DoNotOptimize(stTable.Set(vecKeys[stTurn.Next()], OTHER_VALUE));
  }
  PerItem(stState, 1);
}

template <class Table>
void Delete(benchmark::State& stState, size_t iEntries) {
  Table& stTable = Full<Table>(iEntries);
  for (auto _ : stState) {
    Empty(stTable, Keys(iEntries));
    stState.PauseTiming();
    Fill(stTable, Keys(iEntries));
    stState.ResumeTiming();
  }
  PerItem(stState, iEntries);
}

template <class Table>
void Iterate(benchmark::State& stState, size_t iEntries) {
  Table& stTable = Full<Table>(iEntries);
  for (auto _ : stState) {
    benchmark::DoNotOptimize(stTable.Visit());
  }
  PerItem(stState, iEntries);
}

void IteratePlainly(benchmark::State& stState, size_t iEntries) {
  const Zelk& stTable = Full<Zelk>(iEntries);
  for (auto _ : stState) {
    benchmark::DoNotOptimize(stTable.VisitPlainly());
  }
  PerItem(stState, iEntries);
}

// Long enough for a figure; the largest tables, filled and emptied, take longer than they should.
const double RUN_SECONDS = 0.05;
const size_t LARGEST_TABLE = 1000000;

template <class Function, class... Arguments>
benchmark::internal::Benchmark* Register(const std::string& strName, Function fnRun,
                                         Arguments... tArguments) {
  return benchmark::RegisterBenchmark(strName.c_str(), fnRun, tArguments...)->MinTime(RUN_SECONDS);
}

template <class Table>
void RegisterTable(const std::string& strContestant, const std::string& strSize, size_t iEntries) {
  const std::string strEnd = "_" + strSize + "/" + strContestant;
  Register("get_hit" + strEnd, Get<Table>, iEntries, true);
  Register("get_miss" + strEnd, Get<Table>, iEntries, false);
  Register("iterate" + strEnd, Iterate<Table>, iEntries);
  Register("replace" + strEnd, Replace<Table>, iEntries);
  auto* pSetNew = Register("set_new" + strEnd, SetNew<Table>, iEntries);
  auto* pDelete = Register("delete" + strEnd, Delete<Table>, iEntries);
  if (iEntries == LARGEST_TABLE) {
    const int iRepetitions = std::is_same<Table, Lmdb>::value ? 1 : 3;
    pSetNew->Repetitions(iRepetitions);
    pDelete->Repetitions(iRepetitions);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::pair<const char*, size_t> szSizes[] = {
      {"1e3", 1000}, {"1e5", 100000}, {"1e6", LARGEST_TABLE}};
  for (const auto& stSize : szSizes) {
    RegisterTable<Zelk>("zelk", stSize.first, stSize.second);
    RegisterTable<Interprocess>("interprocess_unordered_map", stSize.first, stSize.second);
    RegisterTable<Lmdb>("lmdb", stSize.first, stSize.second);
    RegisterTable<Private>("private_unordered_map", stSize.first, stSize.second);
    Register(std::string("iterate_") + stSize.first + "/limit", IteratePlainly, stSize.second);
    Register(std::string("get_hit_") + stSize.first + "/limit", GetPlainly, stSize.second);
  }
  return RunWithRatios(argc, argv);
}
