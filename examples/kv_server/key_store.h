#ifndef KV_SERVER_KEY_STORE_H
#define KV_SERVER_KEY_STORE_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "key_table.h"
#include "value_record.h"

class TableSnapshot;

// Whose table it is; stands in the table's first entry.
struct TableMark_t {
  unsigned char szRun[16];  // the run directory's UUID
  uint32_t iWorker;
  uint32_t iWorkers;
};
static_assert(sizeof(TableMark_t) == 24, "a format shared between processes");

// Where a worker's table is found.
struct TableName_t {
  key_t iKey;
  uint64_t iBuckets;
  TableMark_t stMark;
};

// A value as it lies in the table: valid until the next change of the store.
struct Value_t {
  std::string_view strBytes;
  int64_t iExpireAt;  // milliseconds since 1970, 0: never
};

struct StoreStat_t {
  uint64_t iKeys;
  uint64_t iExpiring;   // of them, with an expiry time
  int64_t iAverageTtl;  // of those, milliseconds
  uint64_t iUsedBytes;  // of the segment, its head included
  uint64_t iBytes;      // the segment
  uint64_t iUncarved;   // bytes that serve values of any size
};

// Is told of every change of a store that it listens to, by what it has made of the key.
class ChangeListener {
 public:
  virtual ~ChangeListener() = default;
  virtual void OnSet(std::string_view strKey, std::string_view strValue, int64_t iExpireAt) = 0;
  virtual void OnExpiry(std::string_view strKey, int64_t iExpireAt) = 0;
  virtual void OnRemove(std::string_view strKey) = 0;
  virtual void OnClear() = 0;
};

// The keys of one worker and their values, in a table that outlives the process.
//
// One process writes. Killed at any instruction it leaves every acknowledged value: a change that
// replaces something is written down first as an intent, and what a killed writer left is finished
// by the next Attach(). Looking up and replacing allocate nothing outside the table.
//
// Time stands still but for SetTime(). Keys whose time has come are gone for every operation but
// Count() and Stat(), and are deleted when met, or by Sweep().
class KeyStore {
 public:
  static const int64_t NEVER = 0;

  // Makes an empty table with its mark. Empty, or what went wrong.
  static std::string Create(const TableName_t& stName, uint64_t iBytes);
  // Looks at a table without changing it: empty when it is sound and this very one.
  static std::string Inspect(const TableName_t& stName);

  // Takes the table over: checks it, gives back blocks that a killed writer has lost, finishes what
  // it had begun. Empty, or why the table is refused. Everything below needs an attached store.
  std::string Attach(const TableName_t& stName);
  // Blocks given back, and whether a change was finished, by Attach().
  uint64_t Reclaimed() const { return m_iReclaimed; }
  bool Replayed() const { return m_bReplayed; }

  // Whether this process has been refused room for a value.
  bool WasFull() const { return m_bWasFull; }

  void SetTime(int64_t iMilliseconds) { m_iNow = iMilliseconds; }
  int64_t Now() const { return m_iNow; }

  std::optional<Value_t> Get(std::string_view strKey);
  // False when the table has no room: then an earlier value stays as it was.
  bool Set(std::string_view strKey, std::string_view strValue, int64_t iExpireAt = NEVER);
  // Appends to a value, or makes it; keeps the expiry time. iSize is the new size.
  bool Append(std::string_view strKey, std::string_view strMore, uint64_t& iSize);
  // False when there is no such key.
  bool SetExpiry(std::string_view strKey, int64_t iExpireAt);
  bool Remove(std::string_view strKey);
  void Clear();

  // Whether the table has all keys that it is to start with. A new one has not.
  bool IsLoaded();
  bool SetLoaded();

  // From now on the listener hears of each change, of keys whose time was over too; null: nobody.
  // It must not change the store.
  void SetListener(ChangeListener* pListener) { m_pListener = pListener; }
  // The listener's number, which lives with the table. 0 when none was set, or when a change was
  // begun since then under a listener.
  uint64_t Mark();
  // Does nothing when the table has no room for it.
  void SetMark(uint64_t iMark);

  // From now on the snapshot is asked to keep each bucket before it changes; null: nobody is.
  void SetSnapshot(TableSnapshot* pSnapshot) { m_pSnapshot = pSnapshot; }

  size_t Count() const { return m_iCount; }
  // Counts changes that clients have made, and keys whose time was over.
  uint64_t Changes() const { return m_iChanges; }
  StoreStat_t Stat();

  // Calls fnVisit for all keys of a bucket and of more buckets, until iCount keys were visited.
  // Returns where to go on, 0 at the end. Keys that are there from the first call to the last are
  // visited, whatever else changes in between. fnVisit must not change the store.
  typedef std::function<void(std::string_view strKey, const Value_t& stValue)> Visitor_t;
  uint64_t Scan(uint64_t iBucket, uint64_t iCount, const Visitor_t& fnVisit);

  uint64_t Buckets() const { return m_stTable.Buckets(); }
  // Calls fnVisit for all keys of a bucket, also for those whose time is over. It must not change
  // the store.
  void VisitBucket(uint64_t iBucket, const Visitor_t& fnVisit);

  // Any key, about equally likely each; false when there is none.
  bool RandomKey(std::string& strKey);

  // Deletes some keys whose time has come. Returns after how many milliseconds it wants to be
  // called again, iMost at most; called earlier it does nothing.
  int Sweep(int iMost);

 private:
  // An entry of the table, taken apart.
  struct Found_t {
    char* pRecord;
    uint32_t iRecordSize;
    ValueHead_t stHead;
    std::string_view Bytes() const { return {pRecord + sizeof(ValueHead_t), stHead.iSize}; }
  };

  static bool HasMark(KeyTable& stTable, const TableMark_t& stMark);
  static bool Decode(const HashItem_t& stItem, Found_t& stFound);

  std::string Replay();
  std::string CountEntries();
  void CountIn(const ValueHead_t& stHead);
  void CountOut(const ValueHead_t& stHead);
  bool IsOver(const ValueHead_t& stHead) const {
    return stHead.iExpireAt != NEVER && stHead.iExpireAt <= m_iNow;
  }

  size_t PutKey(std::string_view strKey);
  bool Find(std::string_view strKey, Found_t& stFound);
  bool Write(std::string_view strKey, const Found_t* pOld, std::string_view strFirst,
             std::string_view strSecond, int64_t iExpireAt);
  bool Replace(const Found_t& stOld, uint32_t iRecordSize);
  bool HasRoomFor(uint32_t iRecordSize);
  void BeginIntent(uint32_t iRecordSize);
  void EndIntent();
  void KeepFor(const char* pKey);
  uint64_t TakeMark();
  void StoreMark(uint64_t iMark);
  void Delete(const char* pKey, const ValueHead_t& stHead);
  void Drop(const char* pKey, const ValueHead_t& stHead);
  void CollectBucket(uint64_t iBucket, std::vector<std::string>& vecKeys);
  uint64_t SweepSlice();

  KeyTable m_stTable;
  ChangeListener* m_pListener = nullptr;
  TableSnapshot* m_pSnapshot = nullptr;
  char* m_pMark = nullptr;  // in the table; null: not looked for, or not there
  IntentHead_t* m_pIntent = nullptr;
  char* m_pKey = nullptr;     // the intent's key, where every key is put together
  char* m_pRecord = nullptr;  // behind it
  int64_t m_iNow = 0;
  uint64_t m_iCount = 0;
  uint64_t m_iChanges = 0;
  uint64_t m_iExpiring = 0;
  double m_fExpireSum = 0;  // of the expiry times
  uint64_t m_iReclaimed = 0;
  bool m_bReplayed = false;
  bool m_bWasFull = false;
  uint64_t m_iSweepBucket = 0;
  int64_t m_iSweepAt = 0;
  std::minstd_rand m_stRandom{std::random_device()()};
};

#endif
