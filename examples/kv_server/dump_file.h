#ifndef KV_SERVER_DUMP_FILE_H
#define KV_SERVER_DUMP_FILE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "key_store.h"

// A file with all keys of one worker, in the machine's byte order (docs/formats.md): a head, an
// entry per key, an end with a checksum of everything before it.

struct DumpHead_t {
  char szMagic[8];
  uint32_t iWorker;
  uint32_t iWorkers;
  int64_t iSavedAt;      // milliseconds since 1970
  uint64_t iGeneration;  // of the journal that goes on where the dump ends
};
static_assert(sizeof(DumpHead_t) == 32 && offsetof(DumpHead_t, iWorker) == 8 &&
                  offsetof(DumpHead_t, iSavedAt) == 16 && offsetof(DumpHead_t, iGeneration) == 24,
              "a file format");

// Key and value follow; the end is one of these with a key size of DUMP_END, the checksum (CRC-32
// as in gzip) as its value size and the number of entries as its time.
struct DumpEntry_t {
  uint32_t iKeySize;
  uint32_t iValueSize;
  int64_t iExpireAt;  // milliseconds since 1970, 0: never
};
static_assert(sizeof(DumpEntry_t) == 16 && offsetof(DumpEntry_t, iValueSize) == 4 &&
                  offsetof(DumpEntry_t, iExpireAt) == 8,
              "a file format");
const uint32_t DUMP_END = 0xffffffff;

struct DumpStat_t {
  uint64_t iKeys;
  uint64_t iBytes;  // of the file
  uint64_t iGeneration;
};

// Appends an entry.
void AppendDumpEntry(std::string& strOut, std::string_view strKey, const Value_t& stValue);

// Where the keys of a dump come from: calls the visitor for each. False with errno when it can not
// go on to the last one.
typedef std::function<bool(const KeyStore::Visitor_t& fnVisit)> KeySource_t;

// What is said of a dump at its beginning.
struct DumpOrigin_t {
  TableMark_t stMark;
  int64_t iSavedAt;
  uint64_t iGeneration;
};

// Writes the keys of a source. The file is written beside its name, synced and then renamed, so
// that under the name there is always a whole one. Empty, or what went wrong: then an earlier file
// is still there.
std::string WriteDump(const KeySource_t& fnSource, const DumpOrigin_t& stOrigin,
                      const std::string& strPath, DumpStat_t& stStat);
// The same with the keys of a store that nobody changes meanwhile.
std::string WriteDump(KeyStore& stStore, const TableMark_t& stMark, const std::string& strPath,
                      DumpStat_t& stStat, uint64_t iGeneration = 0);

// Removes what a process that was killed in WriteDump() has left beside the name.
void RemoveUnfinishedDump(const std::string& strPath);

// Calls fnVisit for each entry until it returns what is wrong; iEntries counts them. Empty, or
// that, or what is wrong with the file, which may be seen only at its end. A file must be there.
typedef std::function<std::string(std::string_view strKey, const Value_t& stValue)> DumpVisitor_t;
std::string ReadDump(const TableMark_t& stMark, const std::string& strPath,
                     const DumpVisitor_t& fnVisit, uint64_t& iEntries);

// Adds the keys of a file to a store, without those whose time is over. A file that is not there is
// an empty one. Empty, or what is wrong with the file or the table; then some keys may be in.
std::string LoadDump(KeyStore& stStore, const TableMark_t& stMark, const std::string& strPath,
                     DumpStat_t& stStat);

// The generation that a dump's head tells; 0 when there is no such dump.
uint64_t DumpGeneration(const TableMark_t& stMark, const std::string& strPath);

// A new name in a directory lasts when the directory is synced.
bool SyncDirectoryOf(const std::string& strPath);

#endif
