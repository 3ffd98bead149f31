#ifndef ZELK_TESTS_CONFIG_TEST_SUPPORT_H
#define ZELK_TESTS_CONFIG_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "config.h"
#include "test_support.h"

// One item a word, in their order: "a=1 a.x=2".
inline std::string ItemsText(const std::multimap<std::string, std::string>& mapItems) {
  std::string strText;
  for (const auto& [strKey, strValue] : mapItems) {
    strText.append(strText.empty() ? "" : " ").append(strKey).append("=").append(strValue);
  }
  return strText;
}

// The values in their order, with commas.
inline std::string Joined(const std::vector<std::string>& vecValues) {
  std::string strText;
  for (const std::string& strValue : vecValues) {
    strText.append(strText.empty() ? "" : ",").append(strValue);
  }
  return strText;
}

class ConfigTest : public ::testing::Test {
 protected:
  int LoadDocument(const std::string& strDocument) {
    std::set<std::string> setIncludes;
    return m_stConfig.LoadFromMemory(strDocument.data(), strDocument.size(), &setIncludes);
  }
  // A document from what stands in its root.
  int Load(const std::string& strContent) { return LoadDocument("<r>" + strContent + "</r>"); }
  // What a document's items are, after those loaded before.
  std::string ItemsOf(const std::string& strContent) {
    EXPECT_EQ(0, Load(strContent));
    return Items();
  }
  std::string Items() const { return ItemsText(m_stConfig.AllItems()); }

  Config m_stConfig;
};

#endif
