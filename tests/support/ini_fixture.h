#ifndef ZELK_TESTS_INI_FIXTURE_H
#define ZELK_TESTS_INI_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ini_config.h"
#include "test_support.h"

typedef std::vector<std::string> Texts_t;

// Every item as "section|key|value", in the order of AllItems().
inline Texts_t ItemsOf(const IniConfig& stConfig) {
  Texts_t vecItems;
  for (const auto& [strSection, mapItems] : stConfig.AllItems()) {
    for (const auto& [strKey, strValue] : mapItems) {
      vecItems.push_back(strSection + "|" + strKey + "|" + strValue);
    }
  }
  return vecItems;
}

// What a text loaded from memory holds; "(failed)" when loading fails.
inline Texts_t LoadedText(const std::string& strText) {
  IniConfig stConfig;
  return stConfig.LoadFromMemory(strText) == 0 ? ItemsOf(stConfig) : Texts_t{"(failed)"};
}

// The same for a single line that is given as such.
inline Texts_t LoadedLine(const std::string& strLine) {
  IniConfig stConfig;
  return stConfig.LoadFromMemory(Texts_t{strLine}) == 0 ? ItemsOf(stConfig) : Texts_t{"(failed)"};
}

// A directory with configuration files.
class IniFiles : public ::testing::Test {
 protected:
  std::string Path(const std::string& strName) const { return m_stDirectory.File(strName); }
  std::string Write(const std::string& strName, const std::string& strContent) const {
    WriteFile(Path(strName), strContent);
    return Path(strName);
  }
  int Load(const std::string& strName) { return m_stConfig.LoadFromFile(Path(strName).c_str()); }
  Texts_t Items() const { return ItemsOf(m_stConfig); }

  const PrivateDirectory m_stDirectory;
  IniConfig m_stConfig;
};

#endif
