// A document and the lookups that a host makes. Each item that was loaded must be found again, and
// a parse must not depend on what stands behind the buffer.

#include <libxml/xmlerror.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "config.h"

namespace {

const size_t MAX_LENGTH = 16384;

void Check(bool bHolds) {
  if (!bHolds) {
    abort();
  }
}

void Silence(void* /*pContext*/, const char* /*pFormat*/, ...) {}

void LookUp(const Config& stConfig) {
  for (const auto& [strKey, strValue] : stConfig.AllItems()) {
    Check(stConfig.AllItems().count(strKey) == stConfig.StringValues(strKey.c_str()).size());
    if (strValue.find_first_of("$@") == std::string::npos) {
      const auto vecValues = stConfig.StringValues(strKey.c_str());
      Check(std::count(vecValues.begin(), vecValues.end(), strValue) > 0);
    }
    Check(stConfig.StringValues(strKey.c_str()).front() == stConfig.StringValue(strKey.c_str()));
    stConfig.IntValue(strKey.c_str());
    stConfig.vIntValues("%s", strKey.c_str());
  }
  Check(stConfig.EnumValues("").size() == stConfig.AllItems().size());
}

// References from one key to another may lead in a circle, which is the author's to avoid; and
// includes would read this machine's files.
bool MayTranslate(const Config& stConfig) {
  for (const auto& stItem : stConfig.AllItems()) {
    if (stItem.second.find('@') != std::string::npos) {
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize) {
  static const bool bPrepared = clearenv() == 0;
  xmlSetGenericErrorFunc(nullptr, Silence);
  const std::string strText(reinterpret_cast<const char*>(pData), iSize);
  if (!bPrepared || iSize > MAX_LENGTH || strText.find("include") != std::string::npos) {
    return 0;
  }
  const std::unique_ptr<char[]> pExact(new char[iSize]);
  memcpy(pExact.get(), pData, iSize);
  Config stConfig;
  std::set<std::string> setIncludes;
  const int iResult = stConfig.LoadFromMemory(pExact.get(), iSize, &setIncludes);
  Check(iResult == 0 || stConfig.AllItems().empty());
  if (MayTranslate(stConfig)) {
    LookUp(stConfig);
  }
  return 0;
}
