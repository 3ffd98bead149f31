// Commands on values.

#include <charconv>

#include "command_runner.h"
#include "expiry.h"
#include "reply.h"

namespace {

// The words behind key and value of SET.
struct SetOptions_t {
  bool bOnlyNew = false;
  bool bOnlyExisting = false;
  bool bReturnOld = false;
  bool bKeepTtl = false;
  const struct ExpiryOption_t* pExpiry = nullptr;
  std::string_view strAmount;
};

struct ExpiryOption_t {
  const char* pName;
  int64_t iUnit;
  bool bAbsolute;
};

const ExpiryOption_t EXPIRY_OPTIONS[] = {
    {"ex", SECOND, false}, {"px", 1, false}, {"exat", SECOND, true}, {"pxat", 1, true}};

const ExpiryOption_t* FindExpiryOption(std::string_view strWord) {
  for (const ExpiryOption_t& stOption : EXPIRY_OPTIONS) {
    if (EqualsIgnoringCase(strWord, stOption.pName)) {
      return &stOption;
    }
  }
  return nullptr;
}

bool ParseSetOption(const Arguments_t& vecArguments, size_t& iAt, SetOptions_t& stOptions) {
  const std::string_view strWord = vecArguments[iAt];
  const ExpiryOption_t* pExpiry = FindExpiryOption(strWord);
  if (pExpiry != nullptr) {
    const bool bOther = stOptions.pExpiry != nullptr && stOptions.pExpiry != pExpiry;
    if (bOther || stOptions.bKeepTtl || ++iAt == vecArguments.size()) {
      return false;
    }
    stOptions.pExpiry = pExpiry;
    stOptions.strAmount = vecArguments[iAt];
    return true;
  }
  const bool bNew = EqualsIgnoringCase(strWord, "nx");
  const bool bExisting = EqualsIgnoringCase(strWord, "xx");
  const bool bGet = EqualsIgnoringCase(strWord, "get");
  const bool bKeep = EqualsIgnoringCase(strWord, "keepttl");
  stOptions.bOnlyNew |= bNew;
  stOptions.bOnlyExisting |= bExisting;
  stOptions.bReturnOld |= bGet;
  stOptions.bKeepTtl |= bKeep;
  return (bNew || bExisting || bGet || bKeep) && !(stOptions.bOnlyNew && stOptions.bOnlyExisting) &&
         !(stOptions.bKeepTtl && stOptions.pExpiry != nullptr);
}

bool ParseSetOptions(const Arguments_t& vecArguments, SetOptions_t& stOptions) {
  for (size_t i = 2; i < vecArguments.size(); ++i) {
    if (!ParseSetOption(vecArguments, i, stOptions)) {
      return false;
    }
  }
  return true;
}

// Empty, or what is wrong with the amount.
std::string ExpiryOf(const char* pCommand, const ExpiryOption_t& stOption,
                     std::string_view strAmount, int64_t iNow, int64_t& iExpireAt) {
  int64_t iAmount = 0;
  if (!ParseInteger(strAmount, iAmount)) {
    return NOT_AN_INTEGER;
  }
  const int64_t iBase = stOption.bAbsolute ? 0 : iNow;
  return iAmount > 0 && AddTime(iBase, iAmount, stOption.iUnit, iExpireAt)
             ? ""
             : InvalidExpireTime(pCommand);
}

}  // namespace

void CommandRunner::AppendValue(std::string_view strKey, std::string& strOut) {
  const auto stValue = m_stStore.Get(strKey);
  if (!stValue) {
    return AppendNull(strOut);
  }
  AppendBulk(strOut, stValue->strBytes);
}

void CommandRunner::AppendOkIf(bool bRoom, std::string& strOut) {
  bRoom ? AppendStatus(strOut, "OK") : AppendError(strOut, OUT_OF_MEMORY);
}

void CommandRunner::Get(const Arguments_t& vecArguments, std::string& strOut) {
  AppendValue(vecArguments[0], strOut);
}

void CommandRunner::Set(const Arguments_t& vecArguments, std::string& strOut) {
  if (vecArguments.size() == 2) {
    return AppendOkIf(m_stStore.Set(vecArguments[0], vecArguments[1]), strOut);
  }
  SetOptions_t stOptions;
  int64_t iExpireAt = KeyStore::NEVER;
  if (!ParseSetOptions(vecArguments, stOptions)) {
    return AppendError(strOut, SYNTAX_ERROR);
  }
  if (stOptions.pExpiry != nullptr) {
    const std::string strError =
        ExpiryOf("set", *stOptions.pExpiry, stOptions.strAmount, m_stStore.Now(), iExpireAt);
    if (!strError.empty()) {
      return AppendError(strOut, strError);
    }
  }
  const auto stOld = m_stStore.Get(vecArguments[0]);
  const bool bSet = stOld ? !stOptions.bOnlyNew : !stOptions.bOnlyExisting;
  const size_t iStart = strOut.size();
  iExpireAt = stOptions.bKeepTtl && stOld ? stOld->iExpireAt : iExpireAt;
  if (stOptions.bReturnOld) {
    stOld ? AppendBulk(strOut, stOld->strBytes) : AppendNull(strOut);
  } else {
    bSet ? AppendStatus(strOut, "OK") : AppendNull(strOut);
  }
  if (bSet && !m_stStore.Set(vecArguments[0], vecArguments[1], iExpireAt)) {
    strOut.resize(iStart);
    AppendError(strOut, OUT_OF_MEMORY);
  }
}

void CommandRunner::SetNx(const Arguments_t& vecArguments, std::string& strOut) {
  if (m_stStore.Get(vecArguments[0])) {
    return AppendInteger(strOut, 0);
  }
  m_stStore.Set(vecArguments[0], vecArguments[1]) ? AppendInteger(strOut, 1)
                                                  : AppendError(strOut, OUT_OF_MEMORY);
}

void CommandRunner::SetEx(const Arguments_t& vecArguments, std::string& strOut) {
  int64_t iExpireAt = 0;
  const std::string strError =
      ExpiryOf("setex", EXPIRY_OPTIONS[0], vecArguments[1], m_stStore.Now(), iExpireAt);
  if (!strError.empty()) {
    return AppendError(strOut, strError);
  }
  AppendOkIf(m_stStore.Set(vecArguments[0], vecArguments[2], iExpireAt), strOut);
}

void CommandRunner::GetSet(const Arguments_t& vecArguments, std::string& strOut) {
  const size_t iStart = strOut.size();
  AppendValue(vecArguments[0], strOut);
  if (!m_stStore.Set(vecArguments[0], vecArguments[1])) {
    strOut.resize(iStart);
    AppendError(strOut, OUT_OF_MEMORY);
  }
}

void CommandRunner::GetDel(const Arguments_t& vecArguments, std::string& strOut) {
  AppendValue(vecArguments[0], strOut);
  m_stStore.Remove(vecArguments[0]);
}

void CommandRunner::Append(const Arguments_t& vecArguments, std::string& strOut) {
  const auto stOld = m_stStore.Get(vecArguments[0]);
  uint64_t iSize = vecArguments[1].size() + (stOld ? stOld->strBytes.size() : 0);
  if (iSize > m_stPlace.iMaxValue) {
    return AppendError(strOut, "ERR string exceeds maximum allowed size (limits.value)");
  }
  m_stStore.Append(vecArguments[0], vecArguments[1], iSize)
      ? AppendInteger(strOut, static_cast<int64_t>(iSize))
      : AppendError(strOut, OUT_OF_MEMORY);
}

void CommandRunner::StrLen(const Arguments_t& vecArguments, std::string& strOut) {
  const auto stValue = m_stStore.Get(vecArguments[0]);
  AppendInteger(strOut, stValue ? static_cast<int64_t>(stValue->strBytes.size()) : 0);
}

void CommandRunner::Incr(const Arguments_t& vecArguments, std::string& strOut) {
  Add(vecArguments[0], 1, strOut);
}

void CommandRunner::Decr(const Arguments_t& vecArguments, std::string& strOut) {
  Add(vecArguments[0], -1, strOut);
}

void CommandRunner::IncrBy(const Arguments_t& vecArguments, std::string& strOut) {
  int64_t iDelta = 0;
  if (!ParseInteger(vecArguments[1], iDelta)) {
    return AppendError(strOut, NOT_AN_INTEGER);
  }
  Add(vecArguments[0], iDelta, strOut);
}

void CommandRunner::DecrBy(const Arguments_t& vecArguments, std::string& strOut) {
  int64_t iDelta = 0;
  if (!ParseInteger(vecArguments[1], iDelta)) {
    return AppendError(strOut, NOT_AN_INTEGER);
  }
  if (iDelta == INT64_MIN) {
    return AppendError(strOut, "ERR decrement would overflow");
  }
  Add(vecArguments[0], -iDelta, strOut);
}

void CommandRunner::Add(std::string_view strKey, int64_t iDelta, std::string& strOut) {
  const auto stOld = m_stStore.Get(strKey);
  int64_t iValue = 0;
  if (stOld && !ParseInteger(stOld->strBytes, iValue)) {
    return AppendError(strOut, NOT_AN_INTEGER);
  }
  if (__builtin_add_overflow(iValue, iDelta, &iValue)) {
    return AppendError(strOut, "ERR increment or decrement would overflow");
  }
  char szValue[24];
  const char* pEnd = std::to_chars(szValue, szValue + sizeof(szValue), iValue).ptr;
  const std::string_view strValue(szValue, static_cast<size_t>(pEnd - szValue));
  const int64_t iExpireAt = stOld ? stOld->iExpireAt : KeyStore::NEVER;
  m_stStore.Set(strKey, strValue, iExpireAt) ? AppendInteger(strOut, iValue)
                                             : AppendError(strOut, OUT_OF_MEMORY);
}

void CommandRunner::MGet(const Arguments_t& vecArguments, std::string& strOut) {
  const size_t iStart = strOut.size();
  AppendArrayHead(strOut, vecArguments.size());
  for (size_t i = 0; i < vecArguments.size() && strOut.size() - iStart <= m_stPlace.iMaxReply;
       ++i) {
    AppendValue(vecArguments[i], strOut);
  }
  LimitReply(strOut, iStart);
}

// In order; the first that finds no room ends it, and those before it are set.
void CommandRunner::MSet(const Arguments_t& vecArguments, std::string& strOut) {
  bool bRoom = true;
  for (size_t i = 0; i + 1 < vecArguments.size() && bRoom; i += 2) {
    bRoom = m_stStore.Set(vecArguments[i], vecArguments[i + 1]);
  }
  AppendOkIf(bRoom, strOut);
}
