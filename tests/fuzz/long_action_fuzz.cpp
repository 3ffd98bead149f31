// Bytes and text of a long action as a hostile sender would write them.

#include <sanitizer/allocator_interface.h>
#include <stddef.h>
#include <stdint.h>

#include <cstdlib>
#include <string>

#include "long_action_util.h"

namespace {

// What parsing may take in all, its temporaries included. A pair of two empty strings is 8 bytes
// and becomes an entry of a map.
const size_t BYTES_PER_BYTE = 40;
const size_t BYTES_ANYWAY = 20000;  // the decoder's context

size_t g_iAllocated = 0;

void Count(const volatile void* /*pMemory*/, size_t iSize) { g_iAllocated += iSize; }
void Ignore(const volatile void* /*pMemory*/) {}

const int g_iHooks = __sanitizer_install_malloc_and_free_hooks(Count, Ignore);

void Require(bool bHolds) {
  if (!bHolds) {
    abort();
  }
}

bool ParseRequest(LongActionMethod& stMethod, const std::string& strBytes) {
  return stMethod.ParseRequest(strBytes.data(), static_cast<unsigned int>(strBytes.size()));
}

void CheckRequest(const char* pData, unsigned int iSize) {
  LongActionMethod stMethod;
  if (!stMethod.ParseRequest(pData, iSize)) {
    return;
  }
  const std::string strOnce = stMethod.SerializeRequest();
  Require(strOnce.size() <= iSize);
  // A value that is empty and last is not parsed again; any parameter behind it keeps it.
  stMethod.Param(std::string(iSize + 1, '\xff'), "end");
  LongActionMethod stCopy;
  Require(ParseRequest(stCopy, stMethod.SerializeRequest()));
  Require(stCopy.SerializeRequest() == stMethod.SerializeRequest());
}

void CheckResult(const char* pData, unsigned int iSize) {
  LongActionMethod stMethod;
  stMethod.ParseResult(pData, iSize);
  Require(stMethod.SerializeResult().empty());
}

void CheckText(const std::string& strText) {
  Require(LongActionMethod::Decode(strText).size() <= strText.size());
  Require(LongActionMethod::Decode(LongActionMethod::Encode(strText)) == strText);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize) {
  Require(g_iHooks > 0);
  const char* pBytes = reinterpret_cast<const char*>(pData);
  const std::string strText(pBytes, iSize);
  g_iAllocated = 0;
  {
    LongActionMethod stMethod;
    stMethod.ParseRequest(pBytes, static_cast<unsigned int>(iSize));
    LongActionMethod::Decode(strText);
  }
  Require(g_iAllocated <= BYTES_PER_BYTE * iSize + BYTES_ANYWAY);
  CheckRequest(pBytes, static_cast<unsigned int>(iSize));
  CheckResult(pBytes, static_cast<unsigned int>(iSize));
  CheckText(strText);
  return 0;
}
