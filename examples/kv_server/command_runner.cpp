#include "command_runner.h"

#include <strings.h>

#include <charconv>

#include "reply.h"

namespace {

bool EqualsIgnoringCase(std::string_view strText, std::string_view strOther) {
  return strText.size() == strOther.size() &&
         strncasecmp(strText.data(), strOther.data(), strText.size()) == 0;
}

// The words behind key and value of SET.
struct SetOptions_t {
  bool bOnlyNew = false;
  bool bOnlyExisting = false;
  bool bReturnOld = false;
};

bool ParseSetOptions(const Arguments_t& vecArguments, SetOptions_t& stOptions) {
  for (size_t i = 2; i < vecArguments.size(); ++i) {
    if (EqualsIgnoringCase(vecArguments[i], "nx")) {
      stOptions.bOnlyNew = true;
    } else if (EqualsIgnoringCase(vecArguments[i], "xx")) {
      stOptions.bOnlyExisting = true;
    } else if (EqualsIgnoringCase(vecArguments[i], "get")) {
      stOptions.bReturnOld = true;
    } else {
      return false;
    }
  }
  return !(stOptions.bOnlyNew && stOptions.bOnlyExisting);
}

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

void CommandRunner::Run(CommandId_t eCommand, const Arguments_t& vecArguments,
                        std::string& strOut) {
  ++m_iCommandsRun;
  const size_t iStart = strOut.size();
  switch (eCommand) {
    case CMD_GET:
      return Get(vecArguments[0], strOut);
    case CMD_SET:
      return Set(vecArguments, strOut);
    case CMD_INCR:
      return Add(vecArguments[0], 1, strOut);
    case CMD_DECR:
      return Add(vecArguments[0], -1, strOut);
    case CMD_INCRBY:
      return IncrBy(vecArguments, strOut);
    case CMD_DEL:
      return AppendInteger(strOut, Remove(vecArguments));
    case CMD_EXISTS:
      return AppendInteger(strOut, CountExisting(vecArguments));
    case CMD_MGET:
      AppendArrayHead(strOut, vecArguments.size());
      for (size_t i = 0; i < vecArguments.size() && strOut.size() - iStart <= m_iMaxReply; ++i) {
        Get(vecArguments[i], strOut);
      }
      return LimitReply(strOut, iStart);
    case CMD_MSET:
      return MSet(vecArguments, strOut);
    case CMD_DBSIZE:
    case CMD_INFO:  // the gateway makes the text; a worker adds its keys
      return AppendInteger(strOut, static_cast<int64_t>(m_stStore.Count()));
    case CMD_FLUSHALL:
      m_stStore.Clear();
      return AppendStatus(strOut, "OK");
    default:
      return AppendError(strOut, "ERR command is not one for a worker");
  }
}

// A reply of many values is checked while it grows: values are far smaller than the limit.
void CommandRunner::LimitReply(std::string& strOut, size_t iStart) const {
  if (strOut.size() - iStart > m_iMaxReply) {
    strOut.resize(iStart);
    AppendReplyTooLong(strOut, m_iMaxReply);
  }
}

void CommandRunner::Get(std::string_view strKey, std::string& strOut) {
  const std::string* pValue = m_stStore.Get(strKey);
  if (pValue == nullptr) {
    return AppendNull(strOut);
  }
  AppendBulk(strOut, *pValue);
}

void CommandRunner::Set(const Arguments_t& vecArguments, std::string& strOut) {
  if (vecArguments.size() == 2) {
    m_stStore.Set(vecArguments[0], vecArguments[1]);
    return AppendStatus(strOut, "OK");
  }
  SetOptions_t stOptions;
  if (!ParseSetOptions(vecArguments, stOptions)) {
    return AppendError(strOut, "ERR syntax error");
  }
  const std::string* pOld = m_stStore.Get(vecArguments[0]);
  const bool bSet = pOld == nullptr ? !stOptions.bOnlyExisting : !stOptions.bOnlyNew;
  if (stOptions.bReturnOld) {
    Get(vecArguments[0], strOut);
  } else if (bSet) {
    AppendStatus(strOut, "OK");
  } else {
    AppendNull(strOut);
  }
  if (bSet) {
    m_stStore.Set(vecArguments[0], vecArguments[1]);
  }
}

void CommandRunner::Add(std::string_view strKey, int64_t iDelta, std::string& strOut) {
  const std::string* pValue = m_stStore.Get(strKey);
  int64_t iValue = 0;
  if (pValue != nullptr && !ParseInteger(*pValue, iValue)) {
    return AppendError(strOut, NOT_AN_INTEGER);
  }
  if (__builtin_add_overflow(iValue, iDelta, &iValue)) {
    return AppendError(strOut, "ERR increment or decrement would overflow");
  }
  char szValue[24];
  const char* pEnd = std::to_chars(szValue, szValue + sizeof(szValue), iValue).ptr;
  m_stStore.Set(strKey, std::string_view(szValue, static_cast<size_t>(pEnd - szValue)));
  AppendInteger(strOut, iValue);
}

void CommandRunner::IncrBy(const Arguments_t& vecArguments, std::string& strOut) {
  int64_t iDelta = 0;
  if (!ParseInteger(vecArguments[1], iDelta)) {
    return AppendError(strOut, NOT_AN_INTEGER);
  }
  Add(vecArguments[0], iDelta, strOut);
}

void CommandRunner::MSet(const Arguments_t& vecArguments, std::string& strOut) {
  for (size_t i = 0; i + 1 < vecArguments.size(); i += 2) {
    m_stStore.Set(vecArguments[i], vecArguments[i + 1]);
  }
  AppendStatus(strOut, "OK");
}

int64_t CommandRunner::Remove(const Arguments_t& vecKeys) {
  int64_t iCount = 0;
  for (const std::string_view strKey : vecKeys) {
    iCount += m_stStore.Remove(strKey) ? 1 : 0;
  }
  return iCount;
}

int64_t CommandRunner::CountExisting(const Arguments_t& vecKeys) {
  int64_t iCount = 0;
  for (const std::string_view strKey : vecKeys) {
    iCount += m_stStore.Get(strKey) != nullptr ? 1 : 0;
  }
  return iCount;
}
