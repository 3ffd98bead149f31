#include "command_runner.h"

#include <strings.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdlib>

#include "debug_commands.h"
#include "reply.h"

namespace {

// A worker in the low digits keeps cursors short enough for clients that read them as doubles.
const uint64_t CURSOR_WORKERS = 64;

}  // namespace

bool ParseInteger(std::string_view strText, int64_t& iValue) {
  const char* pEnd = strText.data() + strText.size();
  const auto stResult = std::from_chars(strText.data(), pEnd, iValue);
  if (stResult.ec != std::errc() || stResult.ptr != pEnd) {
    return false;
  }
  const size_t iSign = strText[0] == '-' ? 1 : 0;
  return strText[iSign] != '0' || strText.size() == 1;
}

bool EqualsIgnoringCase(std::string_view strText, std::string_view strOther) {
  return strText.size() == strOther.size() &&
         strncasecmp(strText.data(), strOther.data(), strText.size()) == 0;
}

// Deliberately forgiving: "" is 0, there may be a sign, nothing behind a zero byte is looked at.
bool ParseCursor(std::string_view strText, ScanCursor_t& stCursor) {
  const std::string strCopy(strText);
  char* pEnd = nullptr;
  errno = 0;
  const uint64_t iCursor = strtoull(strCopy.c_str(), &pEnd, 10);
  stCursor = {iCursor / CURSOR_WORKERS, iCursor % CURSOR_WORKERS};
  return *pEnd == '\0' && errno == 0 && isspace(static_cast<unsigned char>(strCopy[0])) == 0;
}

std::string CursorText(const ScanCursor_t& stCursor) {
  return std::to_string(stCursor.iBucket * CURSOR_WORKERS + stCursor.iWorker);
}

CommandRunner::Handler_t CommandRunner::HandlerOf(CommandId_t eCommand) {
  static const std::array<Handler_t, CMD_COUNT> HANDLERS = [] {
    std::array<Handler_t, CMD_COUNT> arHandlers{};
    arHandlers[CMD_GET] = &CommandRunner::Get;
    arHandlers[CMD_SET] = &CommandRunner::Set;
    arHandlers[CMD_SETNX] = &CommandRunner::SetNx;
    arHandlers[CMD_SETEX] = &CommandRunner::SetEx;
    arHandlers[CMD_GETSET] = &CommandRunner::GetSet;
    arHandlers[CMD_GETDEL] = &CommandRunner::GetDel;
    arHandlers[CMD_APPEND] = &CommandRunner::Append;
    arHandlers[CMD_STRLEN] = &CommandRunner::StrLen;
    arHandlers[CMD_INCR] = &CommandRunner::Incr;
    arHandlers[CMD_DECR] = &CommandRunner::Decr;
    arHandlers[CMD_INCRBY] = &CommandRunner::IncrBy;
    arHandlers[CMD_DECRBY] = &CommandRunner::DecrBy;
    arHandlers[CMD_MGET] = &CommandRunner::MGet;
    arHandlers[CMD_MSET] = &CommandRunner::MSet;
    arHandlers[CMD_EXPIRE] = &CommandRunner::Expire;
    arHandlers[CMD_PEXPIRE] = &CommandRunner::PExpire;
    arHandlers[CMD_TTL] = &CommandRunner::Ttl;
    arHandlers[CMD_PTTL] = &CommandRunner::PTtl;
    arHandlers[CMD_PERSIST] = &CommandRunner::Persist;
    arHandlers[CMD_DEL] = &CommandRunner::Del;
    arHandlers[CMD_UNLINK] = &CommandRunner::Del;
    arHandlers[CMD_EXISTS] = &CommandRunner::Exists;
    arHandlers[CMD_TYPE] = &CommandRunner::Type;
    arHandlers[CMD_KEYS] = &CommandRunner::Keys;
    arHandlers[CMD_SCAN] = &CommandRunner::Scan;
    arHandlers[CMD_RANDOMKEY] = &CommandRunner::RandomKey;
    arHandlers[CMD_DBSIZE] = &CommandRunner::DbSize;
    arHandlers[CMD_FLUSHALL] = &CommandRunner::FlushAll;
    arHandlers[CMD_FLUSHDB] = &CommandRunner::FlushAll;
    arHandlers[CMD_INFO] = &CommandRunner::Info;
    arHandlers[CMD_BGSAVE] = &CommandRunner::BgSave;
    arHandlers[CMD_LASTSAVE] = &CommandRunner::LastSave;
    arHandlers[CMD_SHUTDOWN] = &CommandRunner::Shutdown;
    arHandlers[CMD_DEBUG] = &CommandRunner::Debug;
    return arHandlers;
  }();
  return eCommand < CMD_COUNT ? HANDLERS[eCommand] : nullptr;
}

void CommandRunner::Run(CommandId_t eCommand, const Arguments_t& vecArguments,
                        std::string& strOut) {
  ++m_iCommandsRun;
  const Handler_t pHandler = HandlerOf(eCommand);
  if (pHandler == nullptr) {
    return AppendError(strOut, "ERR command is not one for a worker");
  }
  const std::string& strRefusal = m_stSaver.TheJournal().Refusal();
  if (!strRefusal.empty() && Writes(eCommand)) {
    return AppendError(strOut, "MISCONF Errors writing to the AOF file: " + strRefusal);
  }
  (this->*pHandler)(vecArguments, strOut);
}

void CommandRunner::Debug(const Arguments_t& vecArguments, std::string& strOut) {
  RunDebug(vecArguments, strOut);
}

// A reply of many values is checked while it grows: values are far smaller than the limit.
void CommandRunner::LimitReply(std::string& strOut, size_t iStart) const {
  if (strOut.size() - iStart > m_stPlace.iMaxReply) {
    strOut.resize(iStart);
    AppendReplyTooLong(strOut, m_stPlace.iMaxReply);
  }
}
