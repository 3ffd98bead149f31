// The scanner beside the expression that defines what it finds: on every text, in both kinds of
// locale.

#include "internal/reference_scanner.h"

#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

// A scanner and the expression, both compiled in one locale.
struct Pair {
  explicit Pair(const char* pName) : pLocale(pName) {
    setlocale(LC_ALL, pName);
    Reference stIgnored{};
    stScanner.Find("", stIgnored);
    bReady = regcomp(&stRegex, "([$@])[{(]([^)}]*)[})]", REG_EXTENDED | REG_ICASE) == 0;
  }

  const char* pLocale;
  ReferenceScanner stScanner;
  regex_t stRegex{};
  bool bReady;
};

void Compare(Pair& stPair, const std::string& strText) {
  setlocale(LC_ALL, stPair.pLocale);
  regmatch_t stMatch{};
  Reference stFound{};
  const bool bMatch = regexec(&stPair.stRegex, strText.c_str(), 1, &stMatch, 0) == 0;
  if (!stPair.bReady || bMatch != stPair.stScanner.Find(strText, stFound)) {
    abort();
  }
  if (bMatch && (static_cast<size_t>(stMatch.rm_so) != stFound.iBegin ||
                 static_cast<size_t>(stMatch.rm_eo) != stFound.iEnd)) {
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize) {
  static Pair stBytes("C");
  static Pair stUtf8("C.UTF-8");
  const std::string strText(reinterpret_cast<const char*>(pData), iSize);
  Compare(stBytes, strText);
  Compare(stUtf8, strText);
  return 0;
}
