// Loads a text, asks for everything in it, writes it out and reads it back, and compares the items
// with those that the regular expressions of the grammar give. LC_ALL in the environment chooses
// the locale.

#include <glob.h>
#include <sys/mman.h>
#include <unistd.h>

#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "ini_config.h"
#include "ini_reference.h"

// Stands before the C library's: directives are looked at, but no file is reached.
extern "C" int glob(const char* /*pPattern*/, int /*iFlags*/, int (*)(const char*, int),
                    glob_t* /*pGlob*/) {
  return GLOB_NOMATCH;
}

extern "C" void globfree(glob_t* /*pGlob*/) {}

namespace {

void Require(bool bHolds) {
  if (!bHolds) {
    abort();
  }
}

bool HoldsReference(const std::string& strText) {
  return strText.find_first_of("$@") != std::string::npos;
}

// References could lead in a circle; the other target has them.
bool HoldsReference(const IniReference& stReference) {
  for (const auto& [strSection, mapItems] : stReference.Contents()) {
    for (const auto& [strKey, strValue] : mapItems) {
      if (HoldsReference(strValue)) {
        return true;
      }
    }
  }
  return false;
}

void AskAll(const IniConfig& stConfig) {
  for (const auto& [strSection, mapItems] : stConfig.AllItems()) {
    Require(stConfig.EnumKeys(strSection, "").size() == mapItems.size());
    int iIndex = 0;
    const std::string* pKey = nullptr;
    for (const auto& [strKey, strValue] : mapItems) {
      iIndex = pKey != nullptr && *pKey == strKey ? iIndex + 1 : 0;
      pKey = &strKey;
      Require(stConfig.GetValue(strSection, strKey, iIndex) == strValue);
      Require(stConfig.Count(strSection, strKey) > static_cast<uint32_t>(iIndex));
      stConfig.GetValueByFullName(strSection + "." + strKey, iIndex);
      stConfig.IntValue(strSection, strKey, iIndex);
    }
  }
  stConfig.EnumSections(std::string("a|") + (stConfig.Count("", "a") > 0 ? "(" : "b"));
}

// Whether the lines that WriteToFile() makes of the items are those items again.
bool IsStable(const IniConfig& stConfig) {
  for (const auto& [strSection, mapItems] : stConfig.AllItems()) {
    if (strSection.find('\n') != std::string::npos || strSection.size() > 1000) {
      return false;
    }
    for (const auto& [strKey, strValue] : mapItems) {
      if (strValue.empty() || strKey.find('\n') != std::string::npos ||
          strKey.size() + strValue.size() > 1000) {
        return false;
      }
    }
  }
  return true;
}

void WriteAndReadBack(IniConfig& stConfig) {
  static const int s_iFD = memfd_create("ini", 0);
  const std::string strPath = "/proc/self/fd/" + std::to_string(s_iFD);
  Require(stConfig.WriteToFile(strPath.c_str()) == 0);
  IniConfig stBack;
  Require(stBack.LoadFromFile(strPath.c_str()) == 0);
  AskAll(stBack);
  if (IsStable(stConfig)) {
    Require(stBack.AllItems() == stConfig.AllItems());
  }
}

std::vector<std::string> Lines(const std::string& strText) {
  std::vector<std::string> vecLines(1);
  for (const char c : strText) {
    if (c == '\n') {
      vecLines.emplace_back();
    } else {
      vecLines.back() += c;
    }
  }
  return vecLines;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*pArgc*/, char*** /*pArgv*/) {
  setlocale(LC_ALL, "");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize) {
  const std::string strText(reinterpret_cast<const char*>(pData), iSize);
  IniReference stReference;
  stReference.Parse(Lines(strText));
  if (HoldsReference(stReference)) {
    return 0;
  }
  IniConfig stConfig;
  Require(stConfig.LoadFromMemory(strText) == 0);
  Require(stConfig.AllItems() == stReference.Contents());
  // One line with line feeds in it, as a file or a host can give it.
  IniConfig stLine;
  Require(stLine.LoadFromMemory(std::vector<std::string>{strText}) == 0);
  stReference.Clear();
  stReference.Parse({strText});
  Require(stLine.AllItems() == stReference.Contents());
  AskAll(stConfig);
  WriteAndReadBack(stConfig);
  return 0;
}
