#ifndef KV_SERVER_JOURNAL_FILE_H
#define KV_SERVER_JOURNAL_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "key_store.h"

// The files of a worker's journal, in the machine's byte order (docs/formats.md): a head, then a
// record per change of a key, which tells what the key has become.
//
// A journal is a row of files with rising generations, without a gap. A dump names the generation
// that goes on where it ends; files of lower ones have nothing to say beside it.

struct JournalHead_t {
  char szMagic[8];
  uint32_t iWorker;
  uint32_t iWorkers;
  uint64_t iGeneration;  // from 1
};
static_assert(sizeof(JournalHead_t) == 24 && offsetof(JournalHead_t, iWorker) == 8 &&
                  offsetof(JournalHead_t, iGeneration) == 16,
              "a file format");

// Key and value follow. The head has its own checksum, so that a damaged size is known to be one
// and is not taken for a record that was cut off.
struct JournalRecord_t {
  uint32_t iHeadSum;  // CRC-32 of the file's head and the 20 bytes behind this
  uint32_t iBodySum;  // CRC-32 of key and value
  int64_t iExpireAt;  // milliseconds since 1970, 0: never
  uint32_t iKeySize;
  uint32_t iValueSize;  // or one of those below, without a value
};
static_assert(sizeof(JournalRecord_t) == 24 && offsetof(JournalRecord_t, iBodySum) == 4 &&
                  offsetof(JournalRecord_t, iExpireAt) == 8 &&
                  offsetof(JournalRecord_t, iKeySize) == 16 &&
                  offsetof(JournalRecord_t, iValueSize) == 20,
              "a file format");
const uint32_t JOURNAL_REMOVED = 0xffffffff;  // the key is gone
const uint32_t JOURNAL_EXPIRES = 0xfffffffe;  // it has another expiry time, and its value
const uint32_t JOURNAL_CLEARED = 0xfffffffd;  // all keys are gone; the key is empty

JournalHead_t JournalHead(const TableMark_t& stMark, uint64_t iGeneration);

// Appends records of one file to a buffer.
class JournalEncoder {
 public:
  explicit JournalEncoder(const JournalHead_t& stHead);

  void Set(std::string& strOut, std::string_view strKey, std::string_view strValue,
           int64_t iExpireAt) const;
  // One of the constants above.
  void Other(std::string& strOut, uint32_t iWhat, std::string_view strKey, int64_t iExpireAt) const;

 private:
  void Append(std::string& strOut, JournalRecord_t stRecord, std::string_view strKey,
              std::string_view strValue) const;
  uint32_t m_iSeed;
};

std::string JournalPath(const std::string& strDirectory, uint32_t iWorker, uint64_t iGeneration);
// The generations that have files, ascending.
std::vector<uint64_t> JournalGenerations(const std::string& strDirectory, uint32_t iWorker);

struct JournalReplay_t {
  uint64_t iRecords;
  uint64_t iBytes;  // of the file
  uint64_t iCut;    // bytes of a torn last record, cut off
};

// Does a file's changes to a store again. A last record that is not there in whole is cut off the
// file. Empty, or what is wrong with the file or the table; then some changes may be done.
std::string ReplayJournal(KeyStore& stStore, const TableMark_t& stMark, uint64_t iGeneration,
                          const std::string& strPath, JournalReplay_t& stReplay);

#endif
