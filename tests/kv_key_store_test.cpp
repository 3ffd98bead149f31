#include "key_store.h"

#include <gtest/gtest.h>

namespace {

std::string ValueOf(KeyStore& stStore, std::string_view strKey) {
  const std::string* pValue = stStore.Get(strKey);
  return pValue == nullptr ? "(none)" : *pValue;
}

TEST(KvKeyStoreTest, AKeyHasItsLatestValue) {
  KeyStore stStore;
  EXPECT_EQ("(none)", ValueOf(stStore, "a"));
  stStore.Set("a", "1");
  stStore.Set("a", "a longer value than the first");
  EXPECT_EQ("a longer value than the first", ValueOf(stStore, "a"));
  stStore.Set("a", "");
  EXPECT_EQ("", ValueOf(stStore, "a"));
  EXPECT_EQ(1u, stStore.Count());
}

TEST(KvKeyStoreTest, KeysAreWholeTexts) {
  KeyStore stStore;
  stStore.Set("ab", "1");
  EXPECT_EQ("(none)", ValueOf(stStore, "a"));
  EXPECT_EQ("(none)", ValueOf(stStore, "abc"));
  EXPECT_EQ("1", ValueOf(stStore, std::string_view("abc").substr(0, 2)));
}

TEST(KvKeyStoreTest, LookingDoesNotInsert) {
  KeyStore stStore;
  stStore.Get("a");
  stStore.Remove("b");
  EXPECT_EQ(0u, stStore.Count());
}

TEST(KvKeyStoreTest, RemoveTellsWhetherThereWasOne) {
  KeyStore stStore;
  stStore.Set("a", "1");
  EXPECT_TRUE(stStore.Remove("a"));
  EXPECT_FALSE(stStore.Remove("a"));
  EXPECT_EQ("(none)", ValueOf(stStore, "a"));
}

TEST(KvKeyStoreTest, ClearLeavesNothing) {
  KeyStore stStore;
  stStore.Set("a", "1");
  stStore.Set("b", "2");
  stStore.Clear();
  EXPECT_EQ(0u, stStore.Count());
  EXPECT_EQ("(none)", ValueOf(stStore, "a"));
}

TEST(KvKeyStoreTest, ValuesHoldAnyBytes) {
  KeyStore stStore;
  const std::string strBinary("\0\r\n\xff", 4);
  stStore.Set("a", strBinary);
  EXPECT_EQ(strBinary, ValueOf(stStore, "a"));
}

}  // namespace
