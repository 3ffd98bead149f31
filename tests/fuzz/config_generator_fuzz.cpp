// Pairs of a path and a text, written by ConfigGenerator and read back by Config.
//
// Lines alternate between path and text. When every name is a plain one, the text read back is
// that of the pair applied last, trimmed; whatever the names are, nothing may break.

#include <libxml/xmlerror.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "config.h"
#include "config_generator.h"
#include "string_util.h"

namespace {

const size_t MAX_LENGTH = 2000;

void Silence(void* /*pContext*/, const char* /*pFormat*/, ...) {}

bool IsPlain(const std::string& strName) {
  return strName.find_first_not_of("abcdefghijklmnopqrstuvwxyz_") == std::string::npos;
}

// "&" begins a reference for the generator.
std::string Escaped(const std::string& strText) {
  std::string strResult;
  for (const char cByte : strText) {
    strResult += cByte == '&' ? "&amp;" : std::string(1, cByte);
  }
  return strResult;
}

bool IsPrintable(const std::string& strText) {
  return std::all_of(strText.begin(), strText.end(),
                     [](char cByte) { return (cByte >= ' ' && cByte <= '~') || cByte == '\t'; });
}

// The key that Config uses; "" when the path has other than plain names, or none.
std::string DottedKey(const std::string& strPath) {
  std::vector<std::string> vecNames;
  StringSplit(strPath, "/.", vecNames);
  std::string strKey;
  for (const std::string& strName : vecNames) {
    if (!IsPlain(strName)) {
      return "";
    }
    strKey.append(strKey.empty() ? "" : ".").append(strName);
  }
  return strKey;
}

void CheckRoundTrip(const std::string& strText,
                    const std::multimap<std::string, std::string>& mapPairs) {
  std::map<std::string, std::string> mapExpected;  // the pairs applied in their order
  for (const auto& [strPath, strValue] : mapPairs) {
    const std::string strKey = DottedKey(strPath);
    // A text replaces the children made before: "a.b" comes before "a/".
    mapExpected.erase(mapExpected.lower_bound(strKey + "."), mapExpected.lower_bound(strKey + "/"));
    mapExpected[strKey] = strValue;
  }
  Config stConfig;
  if (stConfig.LoadFromMemory(strText.data(), strText.size(), nullptr) != 0) {
    abort();
  }
  std::multimap<std::string, std::string> mapItems;
  for (auto& [strKey, strValue] : mapExpected) {
    Trim(strValue, "\n\t ");
    if (!strValue.empty()) {
      mapItems.emplace(strKey, strValue);
    }
  }
  if (mapItems != stConfig.AllItems()) {
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize) {
  xmlSetGenericErrorFunc(nullptr, Silence);
  if (iSize > MAX_LENGTH) {
    return 0;
  }
  std::istringstream stLines(std::string(reinterpret_cast<const char*>(pData), iSize));
  ConfigGenerator stGenerator;
  std::multimap<std::string, std::string> mapPairs;
  bool bPlain = true;
  std::string strPath;
  std::string strValue;
  while (std::getline(stLines, strPath) && std::getline(stLines, strValue)) {
    strPath = strPath.substr(0, strPath.find('\0'));
    bPlain = bPlain && !DottedKey(strPath).empty() && IsPrintable(strValue) &&
             strPath.find("include") == std::string::npos;
    stGenerator.SetKeyValue(strPath, bPlain ? Escaped(strValue) : strValue);
    mapPairs.emplace(strPath, strValue);
  }
  const std::string strText = stGenerator.GenerateContent();
  if (strText != stGenerator.GenerateContent()) {
    abort();
  }
  if (bPlain) {
    CheckRoundTrip(strText, mapPairs);
  }
  return 0;
}
