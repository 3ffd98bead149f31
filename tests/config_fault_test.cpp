// Memory that runs out while a configuration is loaded or looked up: the index of keys must not
// give another answer than the items afterwards.

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>

#include "config.h"
#include "ini_config.h"

namespace {

int g_iAllocationsLeft = -1;  // then the next one fails, once; negative: none does

}  // namespace

// These stand before the C++ library's; the other forms lead to them. Not in line: a compiler that
// sees half of a pair warns that the halves do not fit.
[[gnu::noinline]] void* operator new(size_t iSize) {
  void* pMemory = g_iAllocationsLeft == 0 ? nullptr : malloc(iSize > 0 ? iSize : 1);
  if (g_iAllocationsLeft >= 0) {
    --g_iAllocationsLeft;
  }
  if (pMemory == nullptr) {
    throw std::bad_alloc();
  }
  return pMemory;
}

[[gnu::noinline]] void operator delete(void* pMemory) noexcept { free(pMemory); }
[[gnu::noinline]] void operator delete(void* pMemory, size_t /*iSize*/) noexcept { free(pMemory); }

namespace {

const int KEYS = 200;

// What fnAction says, or "(no memory)" when allocation number iFailing of it fails.
template <class Action_t>
std::string Attempt(int iFailing, const Action_t& fnAction) {
  std::string strResult = "(no memory)";
  g_iAllocationsLeft = iFailing;
  try {
    const std::string strDone = fnAction();
    g_iAllocationsLeft = -1;
    strResult = strDone;
  } catch (const std::bad_alloc&) {
  }
  g_iAllocationsLeft = -1;
  return strResult;
}

// Fails each allocation of fnAction in turn on a fresh subject, looks at what is left with fnCheck,
// and returns how many there were.
template <class Subject_t, class Action_t, class Check_t>
int FailEach(const Subject_t& stFresh, const Action_t& fnAction, const Check_t& fnCheck) {
  for (int iFailing = 0;; ++iFailing) {
    Subject_t stSubject(stFresh);
    const bool bDone = Attempt(iFailing, [&] { return fnAction(stSubject); }) != "(no memory)";
    fnCheck(stSubject);
    if (bDone || ::testing::Test::HasFailure()) {
      return iFailing;
    }
  }
}

std::string Document(const std::string& strPrefix) {
  std::string strText = "<r>";
  for (int i = 0; i < KEYS; ++i) {
    const std::string strKey = strPrefix + std::to_string(i);
    strText += "<" + strKey + ">value of " + strKey + "</" + strKey + ">";
  }
  return strText + "</r>";
}

int LoadText(Config& stConfig, const std::string& strText) {
  return stConfig.LoadFromMemory(strText.data(), strText.size());
}

// Every item is found, and nothing else.
void CheckItems(const Config& stConfig) {
  for (const auto& [strKey, strValue] : stConfig.AllItems()) {
    EXPECT_EQ(strValue, stConfig.StringValue(strKey.c_str()));
  }
  EXPECT_STREQ("", stConfig.StringValue("missing"));
  const bool bSecond = stConfig.AllItems().count("b7") > 0;
  EXPECT_STREQ(bSecond ? "value of b7" : "", stConfig.StringValue("b7"));
}

// As many lookups as an index is made for.
std::string LookUp(const Config& stConfig) {
  std::string strValue;
  for (int i = 0; i < KEYS; ++i) {
    strValue = stConfig.StringValue("a1");
  }
  return strValue;
}

TEST(ConfigFaultTest, LookupThatMakesTheIndexAndLacksMemoryIsRepeatedByTheNext) {
  Config stOriginal;
  ASSERT_EQ(0, LoadText(stOriginal, Document("a")));
  LookUp(stOriginal);  // what is made once in the process is there
  const int iFailed = FailEach(
      stOriginal, [](const Config& stCopy) { return LookUp(stCopy); },
      [](const Config& stCopy) {
        EXPECT_STREQ("value of a1", stCopy.StringValue("a1"));
        CheckItems(stCopy);
      });
  EXPECT_LE(1, iFailed);
}

TEST(ConfigFaultTest, LoadThatLacksMemoryLeavesItemsThatAreFound) {
  Config stOriginal;
  ASSERT_EQ(0, LoadText(stOriginal, Document("a")));
  const std::string strMore = Document("b");
  const int iFailed = FailEach(
      stOriginal,
      [&](Config& stConfig) {
        LookUp(stConfig);
        LoadText(stConfig, strMore);
        return LookUp(stConfig);
      },
      [](const Config& stConfig) {
        EXPECT_STREQ("value of a1", stConfig.StringValue("a1"));
        CheckItems(stConfig);
      });
  EXPECT_LT(KEYS, iFailed);  // an item each and the index
}

TEST(IniConfigFaultTest, LookupThatBuildsTheIndexAndLacksMemoryIsRepeatedByTheNext) {
  IniConfig stOriginal;
  for (int i = 0; i < KEYS; ++i) {
    stOriginal.SetValue("s", "k" + std::to_string(i), i);
  }
  const auto fnLookups = [](const IniConfig& stConfig) {
    for (int i = 0; i < KEYS; ++i) {
      stConfig.GetValue("s", "k7");
    }
    return std::string("done");
  };
  const int iFailed = FailEach(stOriginal, fnLookups, [](const IniConfig& stConfig) {
    for (int i = 0; i < KEYS; ++i) {
      EXPECT_EQ(std::to_string(i), stConfig.GetValue("s", "k" + std::to_string(i)));
    }
    EXPECT_EQ("", stConfig.GetValue("s", "missing"));
  });
  EXPECT_LE(1, iFailed);
}

}  // namespace
