#ifndef KV_SERVER_COMMAND_RUNNER_H
#define KV_SERVER_COMMAND_RUNNER_H

#include <string>

#include "batch.h"
#include "command_table.h"
#include "key_store.h"
#include "saver.h"

const char NOT_AN_INTEGER[] = "ERR value is not an integer or out of range";
const char SYNTAX_ERROR[] = "ERR syntax error";
const char OUT_OF_MEMORY[] = "OOM command not allowed when used memory > 'maxmemory'.";

// A whole text that is a signed 64-bit number: no blanks, no plus sign, no leading zeros.
bool ParseInteger(std::string_view strText, int64_t& iValue);

bool EqualsIgnoringCase(std::string_view strText, std::string_view strOther);

// Cursors of SCAN tell worker and bucket. 0 is the start, and in a reply the end.
struct ScanCursor_t {
  uint64_t iBucket;
  uint64_t iWorker;
};
bool ParseCursor(std::string_view strText, ScanCursor_t& stCursor);
std::string CursorText(const ScanCursor_t& stCursor);

// Runs commands on a worker's keys. The gateway has looked at names, counts and limits already.
class CommandRunner {
 public:
  struct Place_t {
    uint64_t iMaxValue;  // bytes that a value may grow to
    uint64_t iMaxReply;  // a reply of several values that is longer becomes an error
    uint64_t iWorker;    // which of how many this is
    uint64_t iWorkers;
  };

  CommandRunner(KeyStore& stStore, Saver& stSaver, const Place_t& stPlace)
      : m_stStore(stStore), m_stSaver(stSaver), m_stPlace(stPlace) {}

  // Appends the reply to strOut; vecArguments come without the command's name.
  void Run(CommandId_t eCommand, const Arguments_t& vecArguments, std::string& strOut);

  uint64_t CommandsRun() const { return m_iCommandsRun; }

 private:
  typedef void (CommandRunner::*Handler_t)(const Arguments_t& vecArguments, std::string& strOut);
  static Handler_t HandlerOf(CommandId_t eCommand);

  // string_commands.cpp
  void Get(const Arguments_t& vecArguments, std::string& strOut);
  void Set(const Arguments_t& vecArguments, std::string& strOut);
  void SetNx(const Arguments_t& vecArguments, std::string& strOut);
  void SetEx(const Arguments_t& vecArguments, std::string& strOut);
  void GetSet(const Arguments_t& vecArguments, std::string& strOut);
  void GetDel(const Arguments_t& vecArguments, std::string& strOut);
  void Append(const Arguments_t& vecArguments, std::string& strOut);
  void StrLen(const Arguments_t& vecArguments, std::string& strOut);
  void Incr(const Arguments_t& vecArguments, std::string& strOut);
  void Decr(const Arguments_t& vecArguments, std::string& strOut);
  void IncrBy(const Arguments_t& vecArguments, std::string& strOut);
  void DecrBy(const Arguments_t& vecArguments, std::string& strOut);
  void MGet(const Arguments_t& vecArguments, std::string& strOut);
  void MSet(const Arguments_t& vecArguments, std::string& strOut);
  void AppendValue(std::string_view strKey, std::string& strOut);
  void AppendOkIf(bool bRoom, std::string& strOut);
  void Add(std::string_view strKey, int64_t iDelta, std::string& strOut);

  // expiry_commands.cpp
  void Expire(const Arguments_t& vecArguments, std::string& strOut);
  void PExpire(const Arguments_t& vecArguments, std::string& strOut);
  void Ttl(const Arguments_t& vecArguments, std::string& strOut);
  void PTtl(const Arguments_t& vecArguments, std::string& strOut);
  void Persist(const Arguments_t& vecArguments, std::string& strOut);
  void ExpireIn(const char* pCommand, int64_t iUnit, const Arguments_t& vecArguments,
                std::string& strOut);
  int64_t TimeToLive(std::string_view strKey);

  // keyspace_commands.cpp
  void Del(const Arguments_t& vecArguments, std::string& strOut);
  void Exists(const Arguments_t& vecArguments, std::string& strOut);
  void Type(const Arguments_t& vecArguments, std::string& strOut);
  void Keys(const Arguments_t& vecArguments, std::string& strOut);
  void Scan(const Arguments_t& vecArguments, std::string& strOut);
  void RandomKey(const Arguments_t& vecArguments, std::string& strOut);
  void DbSize(const Arguments_t& vecArguments, std::string& strOut);
  void FlushAll(const Arguments_t& vecArguments, std::string& strOut);
  void Info(const Arguments_t& vecArguments, std::string& strOut);

  // save_commands.cpp
  void BgSave(const Arguments_t& vecArguments, std::string& strOut);
  void LastSave(const Arguments_t& vecArguments, std::string& strOut);
  void Shutdown(const Arguments_t& vecArguments, std::string& strOut);

  void Debug(const Arguments_t& vecArguments, std::string& strOut);

  void LimitReply(std::string& strOut, size_t iStart) const;

  KeyStore& m_stStore;
  Saver& m_stSaver;
  const Place_t m_stPlace;
  uint64_t m_iCommandsRun = 0;
};

#endif
