#include "key_store.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "table_check.h"
#include "table_snapshot.h"

// DESIGN
//
// Names in the table: a client's key has an "s" before it, what is the server's own a "!". So no
// client can name the server's entries, whatever its key.
//
// Keys and records are put together in the intent, which lies in the segment: a lookup needs its
// key with a NUL behind it anyway, and a new entry its record in one piece. For a change that
// replaces a value nothing more is needed to survive a SIGKILL than to say, by one store, that the
// key and record standing there are to be finished: then the old record may be overwritten in
// place, or its entry replaced. The next Attach() does it again from the intent, as often as need
// be, with the same result. New keys, deletions and expiry times change by one store each and need
// no intent.
//
// A listener's records are written later than the changes that they tell. The mark, an entry of the
// server's own, is set to 0 by one store before each change under a listener; who finds it so knows
// that changes may have been made which the listener did not live to write down.
//
// A replacement of another size needs a block, and HashMap::Set() gives the old one up before it
// asks for it. So it is asked for before: when the uncarved rest is too small, by an entry of the
// same size under a name of the server's own, which is deleted again and leaves its block free.
// What a killed writer had in its hands is given back by TableCheck, so that finishing finds it.

namespace {

const char CLIENT_PREFIX = 's';
const char MARK_KEY[] = "!run";
const char LOADED_KEY[] = "!loaded";
const char JOURNAL_KEY[] = "!journal";
const char TRIAL_KEY[] = "!try";
const size_t TRIAL_KEY_LENGTH = sizeof(TRIAL_KEY) - 1;

const unsigned int RANDOM_TRIES = 64;
const uint64_t SWEEP_KEYS = 256;  // one slice
const uint64_t SWEEP_MANY = 64;   // so many were over: the next slice comes soon
const int SWEEP_SOON_MS = 1;
const int SWEEP_PAUSE_MS = 10;

bool IsClients(const HashItem_t& stItem) {
  return stItem.pKey != nullptr && stItem.pKey[0] == CLIENT_PREFIX;
}

// One move, so it is done or not done. What stands above and below it stays there.
template <typename T>
void StoreWord(void* pTo, T tValue) {
  std::atomic_signal_fence(std::memory_order_seq_cst);
  memcpy(pTo, &tValue, sizeof(tValue));
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

char* Put(char* pTo, std::string_view strBytes) {
  return pTo + strBytes.copy(pTo, strBytes.size());  // which may be nothing, at a null pointer
}

}  // namespace

std::string KeyStore::Create(const TableName_t& stName, uint64_t iBytes) {
  KeyTable stTable;
  if (!stTable.Create(stName.iKey, iBytes, stName.iBuckets)) {
    return std::string("can not be made: ") + strerror(errno);
  }
  return stTable.Set(MARK_KEY, &stName.stMark, sizeof(stName.stMark)) ? "" : "is too small";
}

std::string KeyStore::Inspect(const TableName_t& stName) {
  KeyTable stTable;
  if (!stTable.Open(stName.iKey, stName.iBuckets, true)) {
    return "is not ours: it holds no table of this server";
  }
  const std::string strFault = TableCheck(stTable).Run();
  if (!strFault.empty()) {
    return "is damaged: " + strFault;
  }
  return HasMark(stTable, stName.stMark) ? "" : "is not ours: it has another run id";
}

std::string KeyStore::Attach(const TableName_t& stName) {
  if (!m_stTable.Open(stName.iKey, stName.iBuckets, false)) {
    return "is not ours: it holds no table of this server";
  }
  TableCheck stCheck(m_stTable);
  std::string strFault = stCheck.Run();
  if (!strFault.empty()) {
    return "is damaged: " + strFault;
  }
  if (!HasMark(m_stTable, stName.stMark)) {
    return "is not ours: it has another run id";
  }
  m_pMark = nullptr;
  m_pIntent = m_stTable.Intent();
  m_pKey = reinterpret_cast<char*>(m_pIntent + 1);
  m_iReclaimed = stCheck.LostBlocks();
  stCheck.Reclaim();
  m_stTable.Delete(TRIAL_KEY);
  strFault = Replay();
  return strFault.empty() ? CountEntries() : strFault;
}

bool KeyStore::HasMark(KeyTable& stTable, const TableMark_t& stMark) {
  const HashItem_t stItem = stTable.Get(MARK_KEY);
  return stItem.iValueSize == sizeof(stMark) && memcmp(stItem.pValue, &stMark, sizeof(stMark)) == 0;
}

// False for the server's own entries, and for records that are none: Attach() has refused those,
// but bytes may be damaged later, and nobody is to read behind the record for it.
bool KeyStore::Decode(const HashItem_t& stItem, Found_t& stFound) {
  if (!IsClients(stItem) || stItem.iValueSize < sizeof(stFound.stHead)) {
    return false;
  }
  stFound.pRecord = stItem.pValue;
  stFound.iRecordSize = stItem.iValueSize;
  memcpy(&stFound.stHead, stItem.pValue, sizeof(stFound.stHead));
  return stFound.stHead.iSize <= stItem.iValueSize - sizeof(stFound.stHead);
}

// Does again what a killed writer had begun. Its block is there: the one that was asked for before,
// or that of the value which stood under the key.
std::string KeyStore::Replay() {
  const IntentHead_t stIntent = *m_pIntent;
  m_bReplayed = stIntent.iPending != 0;
  if (!m_bReplayed) {
    return "";
  }
  if (uint64_t{stIntent.iKeySize} + stIntent.iRecordSize > MAX_BLOCK - BLOCK_HEAD - ENTRY_HEAD ||
      strnlen(m_pKey, stIntent.iKeySize) + 1 != stIntent.iKeySize) {
    return "is damaged: its intent makes no sense";
  }
  m_pRecord = m_pKey + stIntent.iKeySize;
  const HashItem_t stItem = m_stTable.Get(m_pKey);
  if (stItem.pKey != nullptr && stItem.iValueSize == stIntent.iRecordSize) {
    memcpy(stItem.pValue, m_pRecord, stIntent.iRecordSize);
  } else if (!m_stTable.Set(m_pKey, m_pRecord, stIntent.iRecordSize)) {
    return "is damaged: its intent finds no room";
  }
  EndIntent();
  return "";
}

std::string KeyStore::CountEntries() {
  m_iCount = 0;
  m_iExpiring = 0;
  m_fExpireSum = 0;
  for (KeyTable::Position it(m_stTable, 0); !it.AtEnd(); ++it) {
    Found_t stFound{};
    if (!IsClients(*it)) {
      continue;
    }
    if (!Decode(*it, stFound) || stFound.stHead.iType != VALUE_STRING) {
      return "is damaged: a value in bucket " + std::to_string(it.Bucket());
    }
    CountIn(stFound.stHead);
  }
  return "";
}

bool KeyStore::IsLoaded() { return m_stTable.Get(LOADED_KEY).pKey != nullptr; }

bool KeyStore::SetLoaded() {
  m_bWasFull = !m_stTable.Set(LOADED_KEY, uint64_t{1});
  return !m_bWasFull;
}

uint64_t KeyStore::Mark() {
  const HashItem_t stItem = m_stTable.Get(JOURNAL_KEY);
  uint64_t iMark = 0;
  if (stItem.iValueSize == sizeof(iMark)) {
    m_pMark = stItem.pValue;
    memcpy(&iMark, m_pMark, sizeof(iMark));
  }
  return iMark;
}

void KeyStore::SetMark(uint64_t iMark) {
  if (m_pMark == nullptr && m_stTable.Set(JOURNAL_KEY, uint64_t{0})) {
    Mark();
  }
  StoreMark(iMark);
}

void KeyStore::StoreMark(uint64_t iMark) {
  if (m_pMark != nullptr) {
    StoreWord(m_pMark, iMark);
  }
}

// Before a change, under whatever key.
void KeyStore::KeepFor(const char* pKey) {
  if (m_pSnapshot != nullptr) {
    m_pSnapshot->Keep(KeyTable::FNVHash(pKey) % m_stTable.Buckets());
  }
}

// Before each change, so that a listener that was killed is known to have missed it. Returns the
// mark, to be put back when the change does not come about.
uint64_t KeyStore::TakeMark() {
  if (m_pListener == nullptr || m_pMark == nullptr) {
    return 0;
  }
  uint64_t iMark = 0;
  memcpy(&iMark, m_pMark, sizeof(iMark));
  StoreMark(0);
  return iMark;
}

void KeyStore::CountIn(const ValueHead_t& stHead) {
  ++m_iCount;
  if (stHead.iExpireAt != NEVER) {
    ++m_iExpiring;
    m_fExpireSum += static_cast<double>(stHead.iExpireAt);
  }
}

void KeyStore::CountOut(const ValueHead_t& stHead) {
  --m_iCount;
  if (stHead.iExpireAt != NEVER) {
    --m_iExpiring;
    m_fExpireSum -= static_cast<double>(stHead.iExpireAt);
  }
}

// Puts a key where the table can look it up. Returns its length there.
size_t KeyStore::PutKey(std::string_view strKey) {
  m_pKey[0] = CLIENT_PREFIX;
  *Put(m_pKey + 1, strKey) = '\0';
  return 1 + strKey.size();
}

bool KeyStore::Find(std::string_view strKey, Found_t& stFound) {
  if (!FitsBlock(1 + strKey.size(), 0)) {
    return false;
  }
  PutKey(strKey);
  if (!Decode(m_stTable.Get(m_pKey), stFound)) {
    return false;
  }
  if (IsOver(stFound.stHead)) {
    Delete(m_pKey, stFound.stHead);
    return false;
  }
  return true;
}

std::optional<Value_t> KeyStore::Get(std::string_view strKey) {
  Found_t stFound{};
  if (!Find(strKey, stFound)) {
    return std::nullopt;
  }
  return Value_t{stFound.Bytes(), stFound.stHead.iExpireAt};
}

bool KeyStore::Set(std::string_view strKey, std::string_view strValue, int64_t iExpireAt) {
  Found_t stOld{};
  const bool bOld = Find(strKey, stOld);
  return Write(strKey, bOld ? &stOld : nullptr, strValue, {}, iExpireAt);
}

bool KeyStore::Append(std::string_view strKey, std::string_view strMore, uint64_t& iSize) {
  Found_t stOld{};
  if (!Find(strKey, stOld)) {
    iSize = strMore.size();
    return Write(strKey, nullptr, strMore, {}, NEVER);
  }
  iSize = stOld.stHead.iSize + strMore.size();
  return Write(strKey, &stOld, stOld.Bytes(), strMore, stOld.stHead.iExpireAt);
}

// The key has been put in its place by Find().
bool KeyStore::Write(std::string_view strKey, const Found_t* pOld, std::string_view strFirst,
                     std::string_view strSecond, int64_t iExpireAt) {
  const size_t iKey = 1 + strKey.size();
  const size_t iValue = strFirst.size() + strSecond.size();
  if (!FitsBlock(iKey, iValue)) {
    return false;
  }
  const auto iRecordSize = static_cast<uint32_t>(RecordSize(iKey, iValue));
  const ValueHead_t stHead{iExpireAt, static_cast<uint32_t>(iValue), VALUE_STRING};
  m_pRecord = m_pKey + iKey + 1;
  memcpy(m_pRecord, &stHead, sizeof(stHead));
  Put(Put(m_pRecord + sizeof(stHead), strFirst), strSecond);
  KeepFor(m_pKey);
  const uint64_t iMark = TakeMark();
  const bool bDone =
      pOld == nullptr ? m_stTable.Set(m_pKey, m_pRecord, iRecordSize) : Replace(*pOld, iRecordSize);
  if (!bDone) {
    if (iMark != 0) {
      StoreMark(iMark);
    }
    m_bWasFull = true;
    return false;
  }
  if (pOld != nullptr) {
    CountOut(pOld->stHead);
  }
  CountIn(stHead);
  ++m_iChanges;
  if (m_pListener != nullptr) {
    m_pListener->OnSet(strKey, {m_pRecord + sizeof(stHead), iValue}, iExpireAt);
  }
  return true;
}

bool KeyStore::Replace(const Found_t& stOld, uint32_t iRecordSize) {
  const bool bInPlace = stOld.iRecordSize == iRecordSize;
  if (!bInPlace && !HasRoomFor(iRecordSize)) {
    return false;
  }
  BeginIntent(iRecordSize);
  if (bInPlace) {
    ValueHead_t stHead{};
    memcpy(&stHead, m_pRecord, sizeof(stHead));
    memcpy(stOld.pRecord, m_pRecord, sizeof(stHead) + stHead.iSize);
  } else {
    m_stTable.Set(m_pKey, m_pRecord, iRecordSize);
  }
  EndIntent();
  return true;
}

bool KeyStore::HasRoomFor(uint32_t iRecordSize) {
  const size_t iKey = static_cast<size_t>(m_pRecord - m_pKey) - 1;
  if (m_stTable.GetStat().iFreeShmSize >= BlockSize(iKey, iRecordSize)) {
    return true;
  }
  const auto iTrialSize = static_cast<uint32_t>(iKey + iRecordSize - TRIAL_KEY_LENGTH);
  if (!m_stTable.Set(TRIAL_KEY, m_pKey, iTrialSize)) {
    return false;
  }
  return m_stTable.Delete(TRIAL_KEY);
}

void KeyStore::BeginIntent(uint32_t iRecordSize) {
  m_pIntent->iKeySize = static_cast<uint32_t>(m_pRecord - m_pKey);
  m_pIntent->iRecordSize = iRecordSize;
  StoreWord<uint32_t>(&m_pIntent->iPending, 1);
}

void KeyStore::EndIntent() { StoreWord<uint32_t>(&m_pIntent->iPending, 0); }

bool KeyStore::SetExpiry(std::string_view strKey, int64_t iExpireAt) {
  Found_t stFound{};
  if (!Find(strKey, stFound)) {
    return false;
  }
  KeepFor(m_pKey);
  TakeMark();
  StoreWord(stFound.pRecord + offsetof(ValueHead_t, iExpireAt), iExpireAt);
  CountOut(stFound.stHead);
  CountIn({iExpireAt, 0, VALUE_STRING});
  ++m_iChanges;
  if (m_pListener != nullptr) {
    m_pListener->OnExpiry(strKey, iExpireAt);
  }
  return true;
}

bool KeyStore::Remove(std::string_view strKey) {
  Found_t stFound{};
  if (!Find(strKey, stFound)) {
    return false;
  }
  Delete(m_pKey, stFound.stHead);
  return true;
}

// The key may be the entry's own, which is gone with it.
void KeyStore::Delete(const char* pKey, const ValueHead_t& stHead) {
  if (m_pListener != nullptr) {
    TakeMark();
    m_pListener->OnRemove(pKey + 1);
  }
  Drop(pKey, stHead);
}

void KeyStore::Drop(const char* pKey, const ValueHead_t& stHead) {
  KeepFor(pKey);
  m_stTable.Delete(pKey);
  CountOut(stHead);
  ++m_iChanges;
}

void KeyStore::Clear() {
  if (m_pListener != nullptr && m_iCount > 0) {
    TakeMark();
    m_pListener->OnClear();
  }
  for (KeyTable::Position it(m_stTable, 0); !it.AtEnd(); ++it) {
    Found_t stFound{};
    if (Decode(*it, stFound)) {
      Drop((*it).pKey, stFound.stHead);
    }
  }
}

StoreStat_t KeyStore::Stat() {
  const HashMapStat_t& stTable = m_stTable.GetStat();
  StoreStat_t stStat{};
  stStat.iKeys = m_iCount;
  stStat.iExpiring = m_iExpiring;
  if (m_iExpiring > 0) {
    const double fAverage = m_fExpireSum / static_cast<double>(m_iExpiring);
    stStat.iAverageTtl = std::max<int64_t>(0, static_cast<int64_t>(fAverage) - m_iNow);
  }
  stStat.iBytes = m_stTable.HeapHead()->iMemorySize;
  stStat.iUsedBytes = stStat.iBytes - stTable.iTotalFreeShmSize;
  stStat.iUncarved = stTable.iFreeShmSize;
  return stStat;
}

uint64_t KeyStore::Scan(uint64_t iBucket, uint64_t iCount, const Visitor_t& fnVisit) {
  uint64_t iVisited = 0;
  if (iBucket >= m_stTable.Buckets()) {
    return 0;
  }
  for (KeyTable::Position it(m_stTable, iBucket); !it.AtEnd(); ++it) {
    Found_t stFound{};
    if (it.Bucket() != iBucket && iVisited >= iCount) {
      return it.Bucket();
    }
    iBucket = it.Bucket();
    if (Decode(*it, stFound)) {
      ++iVisited;
      if (!IsOver(stFound.stHead)) {
        fnVisit((*it).pKey + 1, {stFound.Bytes(), stFound.stHead.iExpireAt});
      }
    }
  }
  return 0;
}

// An iterator that leaves a bucket goes on to the next one that has entries, so it stays in this.
void KeyStore::VisitBucket(uint64_t iBucket, const Visitor_t& fnVisit) {
  const uint32_t iEntries = m_stTable.BucketList()[iBucket].iSize;
  if (iEntries == 0) {
    return;
  }
  KeyTable::Position it(m_stTable, iBucket);
  for (uint32_t i = 1;; ++i, ++it) {
    Found_t stFound{};
    if (Decode(*it, stFound)) {
      fnVisit((*it).pKey + 1, {stFound.Bytes(), stFound.stHead.iExpireAt});
    }
    if (i == iEntries) {
      return;
    }
  }
}

// All keys of the first bucket from iBucket on that has some.
void KeyStore::CollectBucket(uint64_t iBucket, std::vector<std::string>& vecKeys) {
  do {
    iBucket = Scan(iBucket, 1, [&vecKeys](std::string_view strKey, const Value_t& /*stValue*/) {
      vecKeys.emplace_back(strKey);
    });
  } while (vecKeys.empty() && iBucket != 0);
}

// A bucket is drawn until one is not empty, then a key of it. When nearly all are empty the next
// one that is not has to do.
bool KeyStore::RandomKey(std::string& strKey) {
  std::vector<std::string> vecKeys;
  const auto Draw = [this] { return m_stRandom() % m_stTable.Buckets(); };
  for (unsigned int i = 0; i < RANDOM_TRIES && vecKeys.empty(); ++i) {
    const uint64_t iBucket = Draw();
    if (m_stTable.BucketList()[iBucket].iBucket != 0) {
      CollectBucket(iBucket, vecKeys);
    }
  }
  if (vecKeys.empty()) {
    CollectBucket(Draw(), vecKeys);
  }
  if (vecKeys.empty()) {
    CollectBucket(0, vecKeys);
  }
  if (vecKeys.empty()) {
    return false;
  }
  strKey = vecKeys[m_stRandom() % vecKeys.size()];
  return true;
}

int KeyStore::Sweep(int iMost) {
  const int64_t iWait = m_iSweepAt - m_iNow;
  if (m_iExpiring == 0) {
    return iMost;
  }
  if (iWait > 0 && iWait <= SWEEP_PAUSE_MS) {  // more: the clock was set back
    return std::min(static_cast<int>(iWait), iMost);
  }
  const int iPause = SweepSlice() >= SWEEP_MANY ? SWEEP_SOON_MS : SWEEP_PAUSE_MS;
  m_iSweepAt = m_iNow + iPause;
  return std::min(iPause, iMost);
}

// Looks at whole buckets. Returns how many keys it has deleted.
uint64_t KeyStore::SweepSlice() {
  uint64_t iSeen = 0;
  uint64_t iOver = 0;
  uint64_t iBucket = m_iSweepBucket;
  KeyTable::Position it(m_stTable, iBucket);
  for (; !it.AtEnd() && (iSeen < SWEEP_KEYS || it.Bucket() == iBucket); ++it, ++iSeen) {
    Found_t stFound{};
    iBucket = it.Bucket();
    if (Decode(*it, stFound) && IsOver(stFound.stHead)) {
      Delete((*it).pKey, stFound.stHead);
      ++iOver;
    }
  }
  m_iSweepBucket = it.AtEnd() ? 0 : it.Bucket();
  return iOver;
}
