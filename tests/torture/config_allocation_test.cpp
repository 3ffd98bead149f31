// XML configuration, read and written, while memory is lacking; libxml2's included.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <iconv.h>
#include <libxml/globals.h>

#include <cstdlib>
#include <set>
#include <string>

#include "config.h"
#include "config_generator.h"
#include "config_test_support.h"
#include "failing_allocation.h"
#include "test_support.h"

// libxml2's own crashes when there is no memory for its parser's state.
extern "C" xmlXPathObjectPtr xmlXPathEvalExpression(const xmlChar* pExpression,
                                                    xmlXPathContextPtr pContext) {
  static const auto fnReal = reinterpret_cast<decltype(&xmlXPathEvalExpression)>(
      dlsym(RTLD_NEXT, "xmlXPathEvalExpression"));
  if (FailsAsAWhole()) {
    xmlLastError.code = XML_ERR_NO_MEMORY;
    return nullptr;
  }
  const NoFailing stNone;
  return fnReal(pExpression, pContext);
}

// It also loses conversions that it has made.
extern "C" iconv_t iconv_open(const char* pTo, const char* pFrom) {
  static const auto fnReal =
      reinterpret_cast<decltype(&iconv_open)>(dlsym(RTLD_NEXT, "iconv_open"));
  const NoFailing stNone;
  return fnReal(pTo, pFrom);
}

namespace {

// Keys and values are longer than what a string holds in itself.
std::string Document(const std::string& strContent) {
  return "<?xml version=\"1.0\"?><root_element>" + strContent + "</root_element>";
}

const char CONTENT[] =
    "<first_long_element attribute_one=\"value of the first attribute\" attribute_two=\"\">"
    "text of the first element <inner_long_element>inner text &amp; more of it, long enough"
    "</inner_long_element> and behind</first_long_element>"
    "<second_long_element>references @(first_long_element.attribute_one) and ${ZELK_TMEM}"
    "</second_long_element><second_long_element>second value of the second element"
    "</second_long_element><![CDATA[left out]]><!-- a comment -->";

int Load(Config& stConfig, const std::string& strDocument) {
  return stConfig.LoadFromMemory(strDocument.data(), strDocument.size());
}

// What lookups make once in a process, so it stands first; where characters have several bytes.
// Without memory for the expression a text counts as one without references: that is the rule.
TEST(ConfigFirstAllocationTest, FirstLookupOfAProcessIsRepeatedByTheNext) {
  const char LOOKED_UP[] = "second_long_element";
  ForEachFirstAllocation("Config, first lookup", [&](FailingAllocation& stMemory) {
    UseMultibyteLocale();
    Config stConfig;
    ASSERT_EQ(0, Load(stConfig, Document("<k>text</k><second_long_element>\xc3\xa9\xc3\xa9 and "
                                         "@(k) in a long line</second_long_element>")));
    stMemory.Run([&] { stConfig.StringValue(LOOKED_UP); });
    for (int i = 0; i < 200; ++i) {
      EXPECT_STREQ("\xc3\xa9\xc3\xa9 and text in a long line", stConfig.StringValue(LOOKED_UP));
    }
  });
}

class ConfigAllocationTest : public ::testing::Test {
 protected:
  // Lookups keep their results, of which one may be the longest that its place has seen: then they
  // allocate. From here on they do not.
  static void SetUpTestSuite() {
    Config stConfig;
    const std::string strDocument = Document("<k>" + std::string(1000, 'x') + "</k>");
    ASSERT_EQ(0, Load(stConfig, strDocument));
    for (int i = 0; i < 100; ++i) {
      stConfig.StringValue("k");
    }
  }

  // Twice: libxml2 itself loses some memory when it lacks some, so that what it has is counted
  // while the others' allocations fail. It tells of its errors on standard error.
  template <typename Round>
  static int ForEach(const char* pOperation, const Round& fnRound) {
    int iFailed = 0;
    CaptureOutput(2, [&] {
      for (const auto eKind : {LibraryRule::SOUND, LibraryRule::LEAKY}) {
        const LibraryRule stRule("libxml2", eKind);
        iFailed = ForEachFailingAllocation(pOperation, fnRound);
      }
    });
    return iFailed;
  }

  static std::string ItemsOf(const Config& stConfig) { return ItemsText(stConfig.AllItems()); }
  static std::string ItemsOf(const std::string& strDocument) {
    Config stConfig;
    EXPECT_EQ(0, Load(stConfig, strDocument));
    return ItemsOf(stConfig);
  }

  const PrivateDirectory m_stDirectory;
};

TEST_F(ConfigAllocationTest, DocumentIsLoadedInWholeOrNotAtAll) {
  const std::string strDocument = Document(CONTENT);
  const std::string strItems = ItemsOf(strDocument);
  const int iFailed = ForEach("Config::LoadFromMemory", [&](FailingAllocation& stMemory) {
    Config stConfig;
    const int iResult = stMemory.Run(-1, [&] { return Load(stConfig, strDocument); });
    EXPECT_TRUE(stMemory.Failed() || iResult == 0);
    if (iResult != 0) {
      EXPECT_EQ("", ItemsOf(stConfig));
      EXPECT_EQ(0, Load(stConfig, strDocument));
    }
    EXPECT_EQ(strItems, ItemsOf(stConfig));
  });
  EXPECT_GT(iFailed, MALLOC_FAILS ? 20 : 4);
}

TEST_F(ConfigAllocationTest, DocumentWithEntitiesAndAnEncodingIsLoadedInWholeOrNotAtAll) {
  const std::string strDocument =
      "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><!DOCTYPE r [<!ENTITY e \"entity\">]>"
      "<r xmlns:p=\"urn:p\"><p:element_of_a_namespace p:attribute=\"caf\xe9 &#65;&lt;\">"
      "text &e; and caf\xe9 of some length to be sure</p:element_of_a_namespace></r>";
  const std::string strItems = ItemsOf(strDocument);
  ForEach("Config::LoadFromMemory, entities", [&](FailingAllocation& stMemory) {
    Config stConfig;
    const int iResult = stMemory.Run(-1, [&] { return Load(stConfig, strDocument); });
    EXPECT_EQ(iResult == 0 ? strItems : "", ItemsOf(stConfig));
  });
}

TEST_F(ConfigAllocationTest, SecondDocumentIsMergedInWholeOrNotAtAll) {
  const std::string strDocument = Document(CONTENT);
  const std::string strItems = ItemsOf(strDocument);
  ForEach("Config::LoadFromMemory, second", [&](FailingAllocation& stMemory) {
    Config stConfig;
    ASSERT_EQ(0, Load(stConfig, strDocument));
    const int iResult = stMemory.Run(-1, [&] { return Load(stConfig, strDocument); });
    EXPECT_EQ(iResult == 0 ? 2u : 1u, stConfig.AllItems().count("first_long_element"));
    EXPECT_EQ(iResult == 0 ? 12u : 6u, stConfig.AllItems().size());
  });
}

// A file that includes two by a pattern and by a reference.
TEST_F(ConfigAllocationTest, FileIsLoadedWithAllThatItIncludesOrFails) {
  const std::string strFile = m_stDirectory.File("main.xml");
  WriteFile(strFile, Document("<include>" + m_stDirectory.File("part*.xml") + "</include><base>" +
                              m_stDirectory.Path() + "</base><include>@(base)/other.xml</include>" +
                              CONTENT));
  WriteFile(m_stDirectory.File("part1.xml"), Document("<part>one</part>"));
  WriteFile(m_stDirectory.File("part2.xml"), Document("<part>two</part>"));
  WriteFile(m_stDirectory.File("other.xml"), Document("<other>three</other>"));
  Config stWhole;
  ASSERT_EQ(0, stWhole.LoadFromFile(strFile.c_str()));
  ASSERT_STREQ("three", stWhole.StringValue("other"));
  const int iFailed = ForEach("Config::LoadFromFile", [&](FailingAllocation& stMemory) {
    Config stConfig;
    std::set<std::string> setIncludes;
    const int iResult =
        stMemory.Run(-1, [&] { return stConfig.LoadFromFile(strFile.c_str(), &setIncludes); });
    if (iResult != 0) {
      EXPECT_TRUE(stMemory.Failed());
      stConfig.Clear();
      EXPECT_EQ(0, stConfig.LoadFromFile(strFile.c_str()));
    }
    EXPECT_EQ(ItemsOf(stWhole), ItemsOf(stConfig));
  });
  EXPECT_GT(iFailed, MALLOC_FAILS ? 100 : 4);
}

TEST_F(ConfigAllocationTest, RefreshThatThrowsMayBeRepeated) {
  const std::string strFile = m_stDirectory.File("main.xml");
  WriteFile(strFile, Document(CONTENT));
  const std::string strItems = ItemsOf(Document(CONTENT));
  ForEach("Config::Refresh", [&](FailingAllocation& stMemory) {
    Config stConfig;
    ASSERT_EQ(0, stConfig.LoadFromFile(strFile.c_str()));
    const bool bReturned = stMemory.Run([&] { stConfig.Refresh(); });
    EXPECT_TRUE(ItemsOf(stConfig).empty() || ItemsOf(stConfig) == strItems);
    if (!bReturned) {
      stConfig.Refresh();
      EXPECT_EQ(strItems, ItemsOf(stConfig));
    }
  });
}

TEST_F(ConfigAllocationTest, LookupsAreRightOrThrown) {
  setenv("ZELK_TMEM", "an environment variable of some length", 1);
  Config stConfig;
  ASSERT_EQ(0, Load(stConfig, Document(CONTENT)));
  const std::string strFirst =
      "references value of the first attribute and an environment "
      "variable of some length";
  const std::string strSecond = "second value of the second element";
  ForEach("Config::StringValue", [&](FailingAllocation& stMemory) {
    const std::string strValue = stMemory.Run(
        std::string("(none)"), [&] { return stConfig.StringValue("second_long_element"); });
    EXPECT_EQ(stMemory.Failed() && strValue == "(none)" ? "(none)" : strFirst, strValue);
    EXPECT_EQ(strFirst, stConfig.StringValue("second_long_element"));
  });
  ForEach("Config::StringValues", [&](FailingAllocation& stMemory) {
    const auto vecValues = stMemory.Run(
        std::vector<std::string>(), [&] { return stConfig.StringValues("second_long_element"); });
    EXPECT_EQ(stMemory.Failed() ? "" : strFirst + "," + strSecond, Joined(vecValues));
  });
  ForEach("Config::EnumValues", [&](FailingAllocation& stMemory) {
    const auto mapValues = stMemory.Run(std::multimap<std::string, std::string>(),
                                        [&] { return stConfig.EnumValues("second_.*element"); });
    EXPECT_TRUE(stMemory.Failed() || mapValues.size() == 2);
  });
  unsetenv("ZELK_TMEM");
}

TEST_F(ConfigAllocationTest, NumbersAndPrintedKeysAreRightOrThrown) {
  Config stConfig;
  ASSERT_EQ(0, Load(stConfig, Document("<a_long_name_of_a_number>12K</a_long_name_of_a_number>"
                                       "<a_long_name_of_a_number>7</a_long_name_of_a_number>")));
  typedef std::vector<int64_t> Numbers_t;
  const char NAME[] = "a_long_name_of_a_number";
  ForEach("Config::IntValues", [&](FailingAllocation& stMemory) {
    const auto vecNumbers =
        stMemory.Run(Numbers_t(), [&] { return stConfig.vIntValues("%s", NAME); });
    EXPECT_EQ(stMemory.Failed() ? Numbers_t() : (Numbers_t{12288, 7}), vecNumbers);
  });
  ForEach("Config::vStringValues", [&](FailingAllocation& stMemory) {
    const auto vecValues = stMemory.Run(std::vector<std::string>(),
                                        [&] { return stConfig.vStringValues("%s", NAME); });
    EXPECT_EQ(stMemory.Failed() ? "" : "12K,7", Joined(vecValues));
  });
  ForEach("Config::vIntValue", [&](FailingAllocation& stMemory) {
    EXPECT_EQ(12288, stMemory.Run(int64_t{12288}, [&] { return stConfig.vIntValue("%s", NAME); }));
    EXPECT_STREQ("12K", stConfig.vStringValue("%s", NAME));
  });
}

TEST_F(ConfigAllocationTest, MacrosAndTranslationsAreThereOrNot) {
  const std::string strLong(50, 'v');
  ForEach("Config::SetMacroVariable", [&](FailingAllocation& stMemory) {
    Config stConfig;
    stMemory.Run([&] { stConfig.SetMacroVariable("a long name of a macro", strLong.c_str()); });
    const std::string strValue = stConfig.GetMacroVariable("a long name of a macro");
    EXPECT_TRUE(strValue == strLong || (stMemory.Failed() && strValue.empty())) << strValue;
    stConfig.SetMacroVariable("a long name of a macro", uint64_t{7});
    EXPECT_STREQ("7", stConfig.GetMacroVariable("a long name of a macro"));
  });
  Config stConfig;
  stConfig.SetMacroVariable("m", strLong.c_str());
  ForEach("Config::TranslateValue", [&](FailingAllocation& stMemory) {
    const std::string strText = stMemory.Run(
        std::string(), [&] { return stConfig.TranslateValue("a text with @(m) and @{m} in it"); });
    EXPECT_EQ(stMemory.Failed() ? "" : "a text with " + strLong + " and " + strLong + " in it",
              strText);
  });
}

TEST_F(ConfigAllocationTest, DumpIsWhole) {
  Config stConfig;
  ASSERT_EQ(0, Load(stConfig, Document(CONTENT)));
  const std::string strWhole = CaptureDescriptor([&](int iFD) { stConfig.Dump(iFD); });
  ForEach("Config::Dump", [&](FailingAllocation& stMemory) {
    EXPECT_EQ(strWhole,
              CaptureDescriptor([&](int iFD) { stMemory.Run([&] { stConfig.Dump(iFD); }); }));
  });
}

// ---- ConfigGenerator

class ConfigGeneratorAllocationTest : public ConfigAllocationTest {
 protected:
  static void Fill(ConfigGenerator& stGenerator) {
    stGenerator.SetKeyValue("log.level", "3");
    stGenerator.SetKeyValue("log.path", "a value with &amp; and <brackets> that is long enough");
    stGenerator.SetKeyValue("database/a_long_name_of_a_host", "h");
    stGenerator.SetKeyValue("log.level", "4");
  }
};

TEST_F(ConfigGeneratorAllocationTest, TextIsWholeOrEmpty) {
  ConfigGenerator stWhole;
  Fill(stWhole);
  const std::string strWhole = stWhole.GenerateContent();
  ASSERT_NE("", strWhole);
  const int iFailed = ForEach("ConfigGenerator::GenerateContent", [&](FailingAllocation& stMemory) {
    ConfigGenerator stGenerator;
    Fill(stGenerator);
    const std::string strText =
        stMemory.Run(std::string(), [&] { return stGenerator.GenerateContent(); });
    EXPECT_TRUE(strText == strWhole || (stMemory.Failed() && strText.empty())) << strText;
    EXPECT_EQ(strWhole, stGenerator.GenerateContent());
  });
  EXPECT_GT(iFailed, MALLOC_FAILS ? 50 : 4);
}

TEST_F(ConfigGeneratorAllocationTest, ConvertedTextIsWholeOrEmpty) {
  ConfigGenerator stWhole;
  stWhole.SetEncoding("ISO-8859-1");
  stWhole.SetKeyValue("key", std::string(9000, 'x'));
  const std::string strWhole = stWhole.GenerateContent();
  ForEach("ConfigGenerator::GenerateContent, encoding", [&](FailingAllocation& stMemory) {
    ConfigGenerator stGenerator;
    stGenerator.SetEncoding("ISO-8859-1");
    stGenerator.SetKeyValue("key", std::string(9000, 'x'));
    const std::string strText =
        stMemory.Run(std::string(), [&] { return stGenerator.GenerateContent(); });
    EXPECT_TRUE(strText == strWhole || (stMemory.Failed() && strText.empty()));
  });
}

TEST_F(ConfigGeneratorAllocationTest, NodeIsSetAsAskedOrAnErrorReturned) {
  ForEach("ConfigGenerator::SetNodeContent", [&](FailingAllocation& stMemory) {
    ConfigGenerator stGenerator;
    Fill(stGenerator);
    stGenerator.GenerateContent();
    const std::string strContent(100, 'n');
    const int iResult = stMemory.Run(
        -1, [&] { return stGenerator.SetNodeContent("log.level.a_new_element", strContent); });
    EXPECT_TRUE(stMemory.Failed() || iResult == 0);
    xmlXPathObjectPtr pFound = stGenerator.GetNodeSet("//a_new_element", nullptr);
    if (iResult == 0) {
      ASSERT_NE(nullptr, pFound);
      ASSERT_EQ(1, pFound->nodesetval->nodeNr);
      xmlChar* pText = xmlNodeGetContent(pFound->nodesetval->nodeTab[0]);
      EXPECT_EQ(strContent, reinterpret_cast<char*>(pText));
      xmlFree(pText);
    }
    xmlXPathFreeObject(pFound);
  });
}

TEST_F(ConfigGeneratorAllocationTest, SearchFindsTheNodeOrNothing) {
  ConfigGenerator stGenerator;
  Fill(stGenerator);
  ASSERT_NE("", stGenerator.GenerateContent());
  ForEach("ConfigGenerator::GetNodeSet", [&](FailingAllocation& stMemory) {
    xmlXPathObjectPtr pFound = nullptr;
    stMemory.Run([&] { pFound = stGenerator.GetNodeSet("//level", nullptr); });
    EXPECT_TRUE(stMemory.Failed() || pFound != nullptr);
    EXPECT_TRUE(pFound == nullptr || pFound->nodesetval->nodeNr == 1);
    xmlXPathFreeObject(pFound);
  });
}

TEST_F(ConfigGeneratorAllocationTest, SettersChangeAllOrNothing) {
  const std::string strLong(50, 'r');
  ForEach("ConfigGenerator::SetKeyValue", [&](FailingAllocation& stMemory) {
    ConfigGenerator stGenerator;
    const bool bSet = stMemory.Run([&] { stGenerator.SetKeyValue(strLong, strLong); });
    EXPECT_EQ(bSet, stGenerator.GenerateContent().find(strLong) != std::string::npos);
  });
  ForEach("ConfigGenerator::SetRootName", [&](FailingAllocation& stMemory) {
    ConfigGenerator stGenerator;
    const bool bSet = stMemory.Run([&] { stGenerator.SetRootName(strLong); });
    const std::string strRoot = bSet ? strLong : "framework";
    EXPECT_NE(std::string::npos, stGenerator.GenerateContent().find("<" + strRoot + "/>"));
  });
  ForEach("ConfigGenerator, other setters", [&](FailingAllocation& stMemory) {
    ConfigGenerator stGenerator;
    stMemory.Run([&] {
      stGenerator.SetVersion(strLong);
      stGenerator.SetEncoding(strLong.c_str());
      stGenerator.Clear();
      stGenerator.ContextClear();
    });
  });
}

}  // namespace
