// Expands references, beside the regular expression that defines them. The first line holds items
// "key value" parted by ";", the rest is the text. LC_ALL in the environment chooses the locale.
//
// No cycles: a value is always shorter than any reference to it, which has three more characters
// than the key, so that every replacement makes the text shorter.

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "ini_config.h"
#include "ini_reference.h"

namespace {

// Adds "key value" to the section before the first dot of the key.
void AddItem(IniConfig& stConfig, const std::string& strItem) {
  const size_t iBlank = strItem.find(' ');
  if (iBlank == std::string::npos || strItem.find('\0') != std::string::npos) {
    return;
  }
  const std::string strName = strItem.substr(0, iBlank);
  const size_t iDot = strName.find('.');
  const std::string strSection = iDot == std::string::npos ? "" : strName.substr(0, iDot);
  const std::string strKey = iDot == std::string::npos ? strName : strName.substr(iDot + 1);
  const size_t iShortest = strSection.empty() ? strKey.size() : strName.size();
  stConfig.SetValue(strSection, strKey, strItem.substr(iBlank + 1, iShortest + 2));
}

void AddItems(IniConfig& stConfig, const std::string& strItems) {
  for (size_t iBegin = 0; iBegin < strItems.size();) {
    const size_t iEnd = std::min(strItems.find(';', iBegin), strItems.size());
    AddItem(stConfig, strItems.substr(iBegin, iEnd - iBegin));
    iBegin = iEnd + 1;
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*pArgc*/, char*** /*pArgv*/) {
  setlocale(LC_ALL, "");
  clearenv();
  setenv("a", "@(a", 1);
  setenv("env", "(a.b)", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize) {
  const std::string strInput(reinterpret_cast<const char*>(pData), iSize);
  const size_t iLine = std::min(strInput.find('\n'), strInput.size());
  const std::string strText = iLine < strInput.size() ? strInput.substr(iLine + 1) : "";
  IniConfig stConfig;
  AddItems(stConfig, strInput.substr(0, iLine));
  static IniReference s_stReference;
  s_stReference.Set(stConfig.AllItems());
  if (stConfig.TranslateValue(strText) != s_stReference.Translate(strText)) {
    abort();
  }
  return 0;
}
