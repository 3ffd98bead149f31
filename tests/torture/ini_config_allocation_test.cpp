// INI configuration while memory is lacking.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "failing_allocation.h"
#include "ini_config.h"
#include "test_support.h"

namespace {

typedef std::vector<std::string> Texts_t;

const char TEXT[] =
    "a long key of the global section = value_of_the_first_key_that_is_long\n"
    "# a comment\n"
    "[a section with a long name of its own]\n"
    "a_long_key_of_the_section_in_here = @(reference_long_enough_for_memory)_and_more_of_it\n"
    "a_long_key_of_the_section_in_here = second_value_of_a_key_in_a_section\n"
    "[the last section with a long name of its own]\n"
    "number_that_has_a_long_name_of_its_own = 12K\n";
const char SECTION[] = "a section with a long name of its own";
const char KEY[] = "a_long_key_of_the_section_in_here";

class MacroConfig : public IniConfig {
 public:
  using IniConfig::Macros;
};

// What the first load and the first lookup of a process make; these stand first.

TEST(IniConfigFirstAllocationTest, FirstLoadOfAProcessIsRepeatedByTheNext) {
  ForEachFirstAllocation("IniConfig, first load", [](FailingAllocation& stMemory) {
    IniConfig stConfig;
    const std::string strText = "[section]\nkey = value\n";
    if (stMemory.Run(-1, [&] { return stConfig.LoadFromMemory(strText); }) != 0) {
      EXPECT_TRUE(stMemory.Failed());
      stConfig.Clear();
      EXPECT_EQ(0, stConfig.LoadFromMemory(strText));
    }
    EXPECT_EQ((IniConfig::Contents_t{{"section", {{"key", "value"}}}}), stConfig.AllItems());
  });
}

TEST(IniConfigFirstAllocationTest, FirstTranslationOfAProcessIsRepeatedByTheNext) {
  ForEachFirstAllocation("IniConfig, first lookup", [](FailingAllocation& stMemory) {
    UseMultibyteLocale();
    IniConfig stConfig;
    stConfig.SetValue("s", "k", "\xc3\xa9\xc3\xa9 and @(s.v) in a text");
    stConfig.SetValue("s", "v", "value");
    stMemory.Run([&] { stConfig.GetValue("s", "k"); });
    EXPECT_EQ("\xc3\xa9\xc3\xa9 and value in a text", stConfig.GetValue("s", "k"));
  });
}

// Where characters have several bytes, lines are left to the expressions.
TEST(IniConfigFirstAllocationTest, LineOfSeveralBytesACharacterIsNeverTakenForAnother) {
  UseMultibyteLocale();
  const std::string strText =
      "; \xc3\xa9 comment\n[\xc3\xa9 section]\nk\xc3\xa9y = v\xc3\xa9\xc3\xa9\nflag\xc3\xa9\n";
  const IniConfig::Items_t mapItems{{"flag\xc3\xa9", ""}, {"k\xc3\xa9y", "v\xc3\xa9\xc3\xa9"}};
  const IniConfig::Contents_t mapWhole{{"\xc3\xa9 section", mapItems}};
  const int iFailed =
      ForEachFailingAllocation("IniConfig, multibyte lines", [&](FailingAllocation& stMemory) {
        IniConfig stConfig;
        if (stMemory.Run(-1, [&] { return stConfig.LoadFromMemory(strText); }) != 0) {
          EXPECT_TRUE(stMemory.Failed());
          stConfig.Clear();
          EXPECT_EQ(0, stConfig.LoadFromMemory(strText));
        }
        EXPECT_EQ(mapWhole, stConfig.AllItems());
      });
  EXPECT_GT(iFailed, MALLOC_FAILS ? 4 : 1);
}

class IniConfigAllocationTest : public ::testing::Test {
 protected:
  static bool HasEmptySection(const IniConfig& stConfig) {
    for (const auto& stSection : stConfig.AllItems()) {
      if (stSection.second.empty()) {
        return true;
      }
    }
    return false;
  }

  const PrivateDirectory m_stDirectory;
};

TEST_F(IniConfigAllocationTest, TextIsLoadedOrAPartOfItWithoutEmptySections) {
  IniConfig stWhole;
  ASSERT_EQ(0, stWhole.LoadFromMemory(TEXT));
  const int iFailed =
      ForEachFailingAllocation("IniConfig::LoadFromMemory", [&](FailingAllocation& stMemory) {
        IniConfig stConfig;
        const std::string strText = TEXT;
        if (stMemory.Run(-1, [&] { return stConfig.LoadFromMemory(strText); }) != 0) {
          EXPECT_TRUE(stMemory.Failed());
          EXPECT_FALSE(HasEmptySection(stConfig));
          stConfig.Clear();
          EXPECT_EQ(0, stConfig.LoadFromMemory(strText));
        }
        EXPECT_EQ(stWhole.AllItems(), stConfig.AllItems());
      });
  EXPECT_GT(iFailed, 10);
}

TEST_F(IniConfigAllocationTest, LinesAreLoadedOrAPartOfThem) {
  const Texts_t vecLines{"[section with a long name]", "key_of_some_length_here = value_of_it"};
  ForEachFailingAllocation("IniConfig::LoadFromMemory of lines", [&](FailingAllocation& stMemory) {
    IniConfig stConfig;
    const int iResult = stMemory.Run(-1, [&] { return stConfig.LoadFromMemory(vecLines); });
    EXPECT_EQ(stMemory.Failed() ? -1 : 0, iResult);
    EXPECT_EQ(iResult == 0 ? 1u : 0u, stConfig.AllItems().size());
  });
}

// A file that includes others by a pattern and by a reference.
TEST_F(IniConfigAllocationTest, FileIsLoadedWithAllThatItIncludesOrFails) {
  const std::string strFile = m_stDirectory.File("main.ini");
  WriteFile(strFile, "include = " + m_stDirectory.File("part*.ini") + "\nbase = " +
                         m_stDirectory.Path() + "\ninclude = @(base)/other.ini\n" + TEXT);
  WriteFile(m_stDirectory.File("part1.ini"), "part = one\n");
  WriteFile(m_stDirectory.File("part2.ini"), "part = two\n");
  WriteFile(m_stDirectory.File("other.ini"), "other = three\n");
  IniConfig stWhole;
  ASSERT_EQ(0, stWhole.LoadFromFile(strFile.c_str()));
  ASSERT_EQ("three", stWhole.GetValue("", "other"));
  ForEachFailingAllocation("IniConfig::LoadFromFile", [&](FailingAllocation& stMemory) {
    IniConfig stConfig;
    if (stMemory.Run(-1, [&] { return stConfig.LoadFromFile(strFile.c_str()); }) != 0) {
      EXPECT_TRUE(stMemory.Failed());
      stConfig.Clear();
      EXPECT_EQ(0, stConfig.LoadFromFile(strFile.c_str()));
    }
    EXPECT_EQ(stWhole.AllItems(), stConfig.AllItems());
  });
}

TEST_F(IniConfigAllocationTest, ReloadChangesAllOrNothing) {
  const std::string strFile = m_stDirectory.File("main.ini");
  WriteFile(strFile, "former = value\n");
  IniConfig stFormer;
  ASSERT_EQ(0, stFormer.LoadFromFile(strFile.c_str()));
  WriteFile(strFile, TEXT);
  IniConfig stNew;
  ASSERT_EQ(0, stNew.LoadFromFile(strFile.c_str()));
  ForEachFailingAllocation("IniConfig::Reload", [&](FailingAllocation& stMemory) {
    IniConfig stConfig(stFormer);
    const int iResult = stMemory.Run(-1, [&] { return stConfig.Reload(); });
    EXPECT_EQ((iResult == 0 ? stNew : stFormer).AllItems(), stConfig.AllItems());
    EXPECT_EQ(0, stConfig.Reload());
    EXPECT_EQ(stNew.AllItems(), stConfig.AllItems());
  });
}

TEST_F(IniConfigAllocationTest, LookupsAreRightOrThrown) {
  MacroConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromMemory(std::string(TEXT)));
  stConfig.Macros()["reference_long_enough_for_memory"] = "a macro's value that is long as well";
  const std::string strValue = "a macro's value that is long as well_and_more_of_it";
  ForEachFailingAllocation("IniConfig::GetValue", [&](FailingAllocation& stMemory) {
    const std::string strResult =
        stMemory.Run(std::string(), [&] { return stConfig.GetValue(SECTION, KEY); });
    EXPECT_EQ(stMemory.Failed() ? "" : strValue, strResult);
  });
  ForEachFailingAllocation("IniConfig::GetValueByFullName", [&](FailingAllocation& stMemory) {
    const std::string strResult = stMemory.Run(std::string(), [&] {
      return stConfig.GetValueByFullName(std::string(SECTION) + "." + KEY, 1);
    });
    EXPECT_EQ(stMemory.Failed() ? "" : "second_value_of_a_key_in_a_section", strResult);
  });
  ForEachFailingAllocation("IniConfig::IntValue", [&](FailingAllocation& stMemory) {
    const int64_t iResult = stMemory.Run(int64_t{-1}, [&] {
      return stConfig.IntValue("the last section with a long name of its own",
                               "number_that_has_a_long_name_of_its_own");
    });
    EXPECT_EQ(stMemory.Failed() ? -1 : 12288, iResult);
  });
}

TEST_F(IniConfigAllocationTest, NamesAreListedInWholeOrNotAtAll) {
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromMemory(std::string(TEXT)));
  ForEachFailingAllocation("IniConfig::EnumSections", [&](FailingAllocation& stMemory) {
    const Texts_t vecNames =
        stMemory.Run(Texts_t(), [&] { return stConfig.EnumSections("a.*long"); });
    EXPECT_TRUE(stMemory.Failed() || vecNames.size() == 2);
    EXPECT_EQ(2u, stConfig.EnumSections("a.*long").size());
  });
  ForEachFailingAllocation("IniConfig::EnumKeys", [&](FailingAllocation& stMemory) {
    const Texts_t vecNames =
        stMemory.Run(Texts_t(), [&] { return stConfig.EnumKeys(SECTION, "a.*long"); });
    EXPECT_TRUE(stMemory.Failed() || vecNames.size() == 2);
  });
  ForEachFailingAllocation("IniConfig::Count", [&](FailingAllocation& stMemory) {
    const uint32_t iCount = stMemory.Run(2u, [&] { return stConfig.Count(SECTION, KEY); });
    EXPECT_EQ(2u, iCount);
  });
}

TEST_F(IniConfigAllocationTest, ItemIsAddedWithItsSectionOrNotAtAll) {
  const std::string strLong(50, 'x');
  ForEachFailingAllocation("IniConfig::SetValue", [&](FailingAllocation& stMemory) {
    IniConfig stConfig;
    if (!stMemory.Run([&] { stConfig.SetValue(strLong, strLong, strLong); })) {
      EXPECT_TRUE(stConfig.AllItems().empty());
      stConfig.SetValue(strLong, strLong, strLong);
    }
    stConfig.SetValue(strLong, strLong, int64_t{7});
    EXPECT_EQ(2u, stConfig.Count(strLong, strLong));
  });
  ForEachFailingAllocation("IniConfig::SetValue of a number", [&](FailingAllocation& stMemory) {
    IniConfig stConfig;
    stConfig.SetValue(strLong, strLong, strLong);
    const int64_t iValue = 1234567890123456789;
    const bool bSet = stMemory.Run([&] { stConfig.SetValue(strLong, strLong, iValue); });
    EXPECT_EQ(bSet ? 2u : 1u, stConfig.Count(strLong, strLong));
  });
}

TEST_F(IniConfigAllocationTest, FileIsWrittenInWholeOrNotReported) {
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromMemory(std::string(TEXT)));
  const std::string strFile = m_stDirectory.File("written.ini");
  ASSERT_EQ(0, stConfig.WriteToFile(strFile.c_str()));
  const std::string strWhole = ReadFile(strFile);
  ForEachFailingAllocation("IniConfig::WriteToFile", [&](FailingAllocation& stMemory) {
    unlink(strFile.c_str());
    const int iResult = stMemory.Run(-1, [&] { return stConfig.WriteToFile(strFile.c_str()); });
    EXPECT_TRUE(iResult != 0 || ReadFile(strFile) == strWhole);
    EXPECT_TRUE(stMemory.Failed() || iResult == 0);
  });
  const std::string strDump = CaptureDescriptor([&](int iFD) { stConfig.Dump(iFD); });
  ForEachFailingAllocation("IniConfig::Dump", [&](FailingAllocation& stMemory) {
    EXPECT_EQ(strDump,
              CaptureDescriptor([&](int iFD) { stMemory.Run([&] { stConfig.Dump(iFD); }); }));
  });
}

TEST_F(IniConfigAllocationTest, IndexThatLacksMemoryIsMadeByTheNextLookup) {
  IniConfig stConfig;
  for (int i = 0; i < 100; ++i) {
    stConfig.SetValue("s", "k" + std::to_string(i), int64_t{i});
  }
  ForEachFailingAllocation("IniConfig, many lookups", [&](FailingAllocation& stMemory) {
    const IniConfig stCopy(stConfig);
    stMemory.Run([&] {
      for (int i = 0; i < 100; ++i) {
        EXPECT_EQ("7", stCopy.GetValue("s", "k7"));
      }
    });
    for (int i = 0; i < 100; ++i) {
      EXPECT_EQ(std::to_string(i), stCopy.GetValue("s", "k" + std::to_string(i)));
    }
  });
}

}  // namespace
