#include "config_generator.h"

#include <gtest/gtest.h>

#include <string>

#include "config.h"
#include "config_test_support.h"

namespace {

const char DECLARATION[] = "<?xml version=\"1.0\" encoding=\"utf8\"?>\n";

class ConfigGeneratorTest : public ::testing::Test {
 protected:
  // The text without its declaration.
  std::string Tree() {
    const std::string strText = m_stGenerator.GenerateContent();
    EXPECT_EQ(0u, strText.find(DECLARATION)) << strText;
    return strText.substr(std::min(strText.size(), sizeof(DECLARATION) - 1));
  }
  // What Config reads from the text.
  std::string ReadBack() {
    const std::string strText = m_stGenerator.GenerateContent();
    Config stConfig;
    EXPECT_EQ(0, stConfig.LoadFromMemory(strText.data(), strText.size(), nullptr)) << strText;
    return ItemsText(stConfig.AllItems());
  }

  ConfigGenerator m_stGenerator;
};

TEST_F(ConfigGeneratorTest, PairsBecomeAnIndentedTreeInKeyOrder) {
  m_stGenerator.SetKeyValue("log.level", "3");
  m_stGenerator.SetKeyValue("log.path", "/tmp");
  m_stGenerator.SetKeyValue("db/host", "h");
  EXPECT_EQ(
      "<framework>\n"
      "  <db>\n"
      "    <host>h</host>\n"
      "  </db>\n"
      "  <log>\n"
      "    <level>3</level>\n"
      "    <path>/tmp</path>\n"
      "  </log>\n"
      "</framework>\n",
      Tree());
}

TEST_F(ConfigGeneratorTest, NoPairsMakeAnEmptyRoot) { EXPECT_EQ("<framework/>\n", Tree()); }

TEST_F(ConfigGeneratorTest, ValueAddedLastWins) {
  m_stGenerator.SetKeyValue("k", "1");
  m_stGenerator.SetKeyValue("k", "2");
  EXPECT_EQ("<framework>\n  <k>2</k>\n</framework>\n", Tree());
}

TEST_F(ConfigGeneratorTest, EqualPathsInDifferentLettersGoByKeyOrder) {
  m_stGenerator.SetKeyValue("a/b", "later key");
  m_stGenerator.SetKeyValue("a.b", "earlier key");
  EXPECT_EQ("a.b=later key", ReadBack());
}

TEST_F(ConfigGeneratorTest, TextThatComesAfterChildrenReplacesThem) {
  m_stGenerator.SetKeyValue("a.b", "1");
  m_stGenerator.SetKeyValue("a/", "2");  // sorts behind "a.b"
  EXPECT_EQ("a=2", ReadBack());
}

TEST_F(ConfigGeneratorTest, EmptyNamesOfAPathAreDropped) {
  m_stGenerator.SetKeyValue("/a..b./", "1");
  EXPECT_EQ("a.b=1", ReadBack());
}

TEST_F(ConfigGeneratorTest, KeyWithoutNamesSetsTheTextOfTheRoot) {
  m_stGenerator.SetKeyValue("a", "1");
  m_stGenerator.SetKeyValue("", "text");
  EXPECT_EQ("<framework>text<a>1</a></framework>\n", Tree());
}

TEST_F(ConfigGeneratorTest, TextReplacesAllThatAnElementHolds) {
  m_stGenerator.SetKeyValue("a", "1");
  m_stGenerator.SetKeyValue("/", "root");  // sorts before "a"
  EXPECT_EQ("<framework>root<a>1</a></framework>\n", Tree());
  EXPECT_EQ(0, m_stGenerator.SetNodeContent("", "alone"));
  EXPECT_EQ(nullptr, m_stGenerator.GetNodeSet("/framework/a", nullptr));
}

TEST_F(ConfigGeneratorTest, ElementWithTextMayHaveChildren) {
  m_stGenerator.SetKeyValue("a.b", "2");
  m_stGenerator.SetKeyValue("a", "1");
  EXPECT_EQ("a=1 a.b=2", ReadBack());
}

TEST_F(ConfigGeneratorTest, RootNameVersionAndEncodingCanBeSet) {
  m_stGenerator.SetRootName("other");
  m_stGenerator.SetVersion("1.1");
  m_stGenerator.SetEncoding("ISO-8859-1");
  m_stGenerator.SetKeyValue("k", "\xc3\xa4");
  EXPECT_EQ("<?xml version=\"1.1\" encoding=\"ISO-8859-1\"?>\n<other>\n  <k>\xe4</k>\n</other>\n",
            m_stGenerator.GenerateContent());
}

TEST_F(ConfigGeneratorTest, SettersTakeStringsToo) {
  m_stGenerator.SetRootName(std::string("other"));
  m_stGenerator.SetVersion(std::string("1.1"));
  m_stGenerator.SetEncoding(std::string("UTF-8"));
  m_stGenerator.SetKeyValue(std::string("k"), std::string("1"));
  EXPECT_EQ("<?xml version=\"1.1\" encoding=\"UTF-8\"?>\n<other>\n  <k>1</k>\n</other>\n",
            m_stGenerator.GenerateContent());
}

TEST_F(ConfigGeneratorTest, TextOfAWideEncodingIsWholeThoughItHoldsNuls) {
  m_stGenerator.SetEncoding("UTF-16");
  m_stGenerator.SetKeyValue("k", "1");
  const std::string strText = m_stGenerator.GenerateContent();
  EXPECT_NE(std::string::npos, strText.find(std::string("<\0/\0f\0", 6)));
  EXPECT_EQ("k=1", ReadBack());
}

TEST_F(ConfigGeneratorTest, UnknownEncodingGivesNothing) {
  m_stGenerator.SetEncoding("no such encoding");
  CaptureOutput(2, [this] { EXPECT_EQ("", m_stGenerator.GenerateContent()); });
}

TEST_F(ConfigGeneratorTest, GeneratingAgainGivesTheSameText) {
  m_stGenerator.SetKeyValue("a.b", "1");
  const std::string strFirst = m_stGenerator.GenerateContent();
  EXPECT_EQ(strFirst, m_stGenerator.GenerateContent());
  m_stGenerator.SetKeyValue("a.c", "2");
  EXPECT_EQ("a.b=1 a.c=2", ReadBack());
}

TEST_F(ConfigGeneratorTest, MarkupInValuesIsEscapedAndReferencesAreRead) {
  m_stGenerator.SetKeyValue("a", "<b> \"q\" 'p' &amp; &#65;");
  EXPECT_EQ("a=<b> \"q\" 'p' & A", ReadBack());
}

TEST_F(ConfigGeneratorTest, VariableReferencesAreWrittenAsTheyAre) {
  m_stGenerator.SetKeyValue("a", "$(HOME)/@{b.c}");
  EXPECT_EQ("a=$(HOME)/@{b.c}", ReadBack());
}

TEST_F(ConfigGeneratorTest, EmptyValueMakesAnEmptyElement) {
  m_stGenerator.SetKeyValue("a", "");
  EXPECT_EQ("<framework>\n  <a/>\n</framework>\n", Tree());
}

TEST_F(ConfigGeneratorTest, SameNameBelowOtherParentsIsAnotherElement) {
  m_stGenerator.SetKeyValue("a.x", "1");
  m_stGenerator.SetKeyValue("a.b.x", "2");
  m_stGenerator.SetKeyValue("x", "3");
  EXPECT_EQ("a.b.x=2 a.x=1 x=3", ReadBack());
}

TEST_F(ConfigGeneratorTest, NameIsAnExpressionThatMaySelectAnExistingElement) {
  m_stGenerator.SetKeyValue("a", "1");
  m_stGenerator.SetKeyValue("a2", "2");
  m_stGenerator.GenerateContent();
  EXPECT_EQ(0, m_stGenerator.SetNodeContent("*", "first"));
  EXPECT_EQ(0, m_stGenerator.SetNodeContent("*[last()]", "last"));
  xmlXPathObjectPtr pFound = m_stGenerator.GetNodeSet("//*[text()='last']", nullptr);
  ASSERT_NE(nullptr, pFound);
  EXPECT_STREQ("a2", reinterpret_cast<const char*>(pFound->nodesetval->nodeTab[0]->name));
  xmlXPathFreeObject(pFound);
}

TEST_F(ConfigGeneratorTest, NameThatSelectsNoElementButANamespaceFails) {
  m_stGenerator.SetKeyValue("namespace::*", "1");
  EXPECT_EQ("", m_stGenerator.GenerateContent());
}

TEST_F(ConfigGeneratorTest, NodeSetIsWhatAnExpressionSelectsFromANode) {
  m_stGenerator.SetKeyValue("a.b", "1");
  m_stGenerator.SetKeyValue("a.c", "2");
  m_stGenerator.GenerateContent();
  xmlXPathObjectPtr pParent = m_stGenerator.GetNodeSet("/framework/a", nullptr);
  ASSERT_NE(nullptr, pParent);
  xmlXPathObjectPtr pChildren = m_stGenerator.GetNodeSet("./*", pParent->nodesetval->nodeTab[0]);
  ASSERT_NE(nullptr, pChildren);
  EXPECT_EQ(2, pChildren->nodesetval->nodeNr);
  EXPECT_STREQ("b", reinterpret_cast<const char*>(pChildren->nodesetval->nodeTab[0]->name));
  xmlXPathFreeObject(pChildren);
  xmlXPathFreeObject(pParent);
}

TEST_F(ConfigGeneratorTest, NodeSetIsNullForAnythingElse) {
  m_stGenerator.SetKeyValue("a", "1");
  m_stGenerator.GenerateContent();
  for (const char* pExpression : {"/none", "count(/*)", "'text'", "true()"}) {
    EXPECT_EQ(nullptr, m_stGenerator.GetNodeSet(pExpression, nullptr)) << pExpression;
  }
  CaptureOutput(2, [this] {
    for (const char* pExpression : {"", "./a b", "[", "none()"}) {
      EXPECT_EQ(nullptr, m_stGenerator.GetNodeSet(pExpression, nullptr)) << pExpression;
    }
  });
}

TEST_F(ConfigGeneratorTest, WithoutADocumentNothingIsFoundOrSet) {
  EXPECT_EQ(nullptr, m_stGenerator.GetNodeSet("/", nullptr));
  EXPECT_EQ(-1, m_stGenerator.SetNodeContent("a", "1"));
  EXPECT_EQ(-1, m_stGenerator.SetNodeContent("", "1"));
}

TEST_F(ConfigGeneratorTest, ContextClearDropsTheDocumentAndKeepsThePairs) {
  m_stGenerator.SetKeyValue("a", "1");
  m_stGenerator.GenerateContent();
  m_stGenerator.ContextClear();
  EXPECT_EQ(nullptr, m_stGenerator.GetNodeSet("/", nullptr));
  EXPECT_EQ("a=1", ReadBack());
}

TEST_F(ConfigGeneratorTest, ClearDropsThePairsAndKeepsTheDocument) {
  m_stGenerator.SetKeyValue("a", "1");
  m_stGenerator.GenerateContent();
  m_stGenerator.Clear();
  xmlXPathObjectPtr pFound = m_stGenerator.GetNodeSet("/framework/a", nullptr);
  EXPECT_NE(nullptr, pFound);
  xmlXPathFreeObject(pFound);
  EXPECT_EQ("<framework/>\n", Tree());
}

TEST_F(ConfigGeneratorTest, PathOfAHundredThousandNamesIsMade) {
  std::string strKey;
  for (int i = 0; i < 100000; ++i) {
    strKey += "a.";
  }
  m_stGenerator.SetKeyValue(strKey, "1");
  EXPECT_LT(strKey.size(), m_stGenerator.GenerateContent().size());
}

TEST_F(ConfigGeneratorTest, DumpWritesNothing) {
  m_stGenerator.SetKeyValue("a", "1");
  Object* pObject = &m_stGenerator;
  EXPECT_EQ("", CaptureDescriptor([pObject](int iFD) { pObject->Dump(iFD); }));
}

}  // namespace
