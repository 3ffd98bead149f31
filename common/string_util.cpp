#include "string_util.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/scaled_number.h"

int vFormatString(char* pBuffer, unsigned int iSize, const char* pFormat, va_list sAp) {
  return vsnprintf(pBuffer, iSize, pFormat, sAp);
}

int FormatString(char* pBuffer, unsigned int iSize, const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  const int iLength = vFormatString(pBuffer, iSize, pFormat, sAp);
  va_end(sAp);
  return iLength;
}

const char* FormatString(const char* pFormat, ...) {
  static char szText[2048];
  va_list sAp;
  va_start(sAp, pFormat);
  vFormatString(szText, sizeof(szText), pFormat, sAp);
  va_end(sAp);
  return szText;
}

void TrimLeft(std::string& strText, const char* pChars) {
  strText.erase(0, strText.find_first_not_of(pChars));
}

void TrimRight(std::string& strText, const char* pChars) {
  strText.erase(strText.find_last_not_of(pChars) + 1);  // npos + 1 is 0: all of it goes
}

void Trim(std::string& strText, const char* pChars) {
  TrimLeft(strText, pChars);
  TrimRight(strText, pChars);
}

void StringSplit(const std::string& strText, const std::string& strDelimiters,
                 std::vector<std::string>& vecFields) {
  std::string strCopy = strText;
  const char* pDelimiters = strDelimiters.c_str();
  char* pState = nullptr;
  for (const char* pField = strtok_r(strCopy.data(), pDelimiters, &pState); pField != nullptr;
       pField = strtok_r(nullptr, pDelimiters, &pState)) {
    vecFields.emplace_back(pField);
  }
}

void Split(const std::string& strText, const std::string& strSeparator,
           std::vector<std::string>& vecFields) {
  size_t iBegin = 0;
  while (iBegin < strText.size()) {
    const size_t iEnd = strText.find(strSeparator, iBegin);
    if (iEnd == std::string::npos) {
      vecFields.emplace_back(strText, iBegin);
      return;
    }
    vecFields.emplace_back(strText, iBegin, iEnd - iBegin);
    iBegin = iEnd + strSeparator.size();
  }
}

int64_t StringToInt(const std::string& strText) {
  char* pEnd = nullptr;
  const int iBase = IsHexadecimal(strText) ? 16 : 10;
  const auto iValue = static_cast<uint64_t>(strtoll(strText.c_str(), &pEnd, iBase));
  return static_cast<int64_t>(iValue << ScaleBits(*pEnd));  // unsigned: a sign may be shifted out
}

bool StringToBool(const std::string& strText) {
  return strcasecmp(strText.c_str(), "true") == 0 || strcasecmp(strText.c_str(), "yes") == 0;
}
