#include "config.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "config_test_support.h"

namespace {

const size_t RING_SLOTS = 100;
// Names of one hash, so that only their text tells them apart.
const char TWIN[] = "firstkeyofhash_1";
const char OTHER_TWIN[] = "lewhhmnoUc7DmTUE";

TEST_F(ConfigTest, ElementAndAttributeAreItemsAndTheRootIsNone) {
  ASSERT_EQ(0, LoadDocument("<r q='9'>text<a x='2'>1</a>more</r>"));
  EXPECT_EQ("a=1 a.x=2", Items());
}

TEST_F(ConfigTest, AnyNameOfTheRootIsAccepted) {
  EXPECT_EQ(0, LoadDocument("<framework><a>1</a></framework>"));
  EXPECT_EQ(0, LoadDocument("<p:other xmlns:p='urn:p'><b>2</b></p:other>"));
  EXPECT_EQ("a=1 b=2", Items());
}

TEST_F(ConfigTest, KeysJoinTheNamesDownToTheElementWithDots) {
  EXPECT_EQ("a.b.c=1 a.b.c.x=2 a.b.d=3",
            ItemsOf("<a><b><c x='2'>1</c></b></a><a><b><d>3</d></b></a>"));
}

TEST_F(ConfigTest, NamespacePrefixesAndDeclarationsAreNoPartOfKeys) {
  ASSERT_EQ(0, LoadDocument("<r xmlns:p='urn:p'><p:a xmlns='urn:d' p:x='1'>2</p:a></r>"));
  EXPECT_EQ("a=2 a.x=1", Items());
}

TEST_F(ConfigTest, SiblingsOfOneNameAreValuesInDocumentOrder) {
  ASSERT_EQ(0, Load("<a>2</a><b>x</b><a>1</a>"));
  EXPECT_STREQ("2", m_stConfig.StringValue("a"));
  EXPECT_EQ("2,1", Joined(m_stConfig.StringValues("a")));
}

TEST_F(ConfigTest, AttributeAndChildOfOneNameShareAKeyAndTheAttributeComesFirst) {
  EXPECT_EQ("a.b=attribute a.b=child", ItemsOf("<a b='attribute'><b>child</b></a>"));
}

TEST_F(ConfigTest, ItemsOfOneKeyAreInsertedDepthFirst) {
  ASSERT_EQ(0, Load("<a>0<b>1</b><b>2</b></a><a b='3'/><a><b>4</b></a>"));
  EXPECT_EQ("1,2,3,4", Joined(m_stConfig.StringValues("a.b")));
}

TEST_F(ConfigTest, KeysAreOrderedByPlainBytes) {
  EXPECT_EQ("B=1 a=2 a-c=3 a.b=4 \xc3\xa4=5",
            ItemsOf("<\xc3\xa4>5</\xc3\xa4><a>2<b>4</b></a><a-c>3</a-c><B>1</B>"));
}

TEST_F(ConfigTest, TextSplitByAChildIsTrimmedPieceByPieceAndGlued) {
  EXPECT_EQ("a=one pieceother a.b=2", ItemsOf("<a>\n\t one piece \n<b>2</b>\t other\n</a>"));
}

TEST_F(ConfigTest, OnlyTextNodesMakeAValue) {
  const char szDocument[] =
      "<!DOCTYPE r [<!ENTITY e 'entity'>]>"
      "<r><a> u <!--comment--> v <![CDATA[data]]> w &e; x <?i instruction?> y </a></r>";
  ASSERT_EQ(0, LoadDocument(szDocument));
  EXPECT_EQ("a=uvwxy", Items());
}

TEST_F(ConfigTest, ElementWithoutTextNodesIsNoItem) {
  EXPECT_EQ("", ItemsOf("<a/><b></b><c> \n\t</c><d><![CDATA[data]]></d>"));
}

TEST_F(ConfigTest, ElementOfChildrenOnlyIsNoItem) {
  EXPECT_EQ("a.b=1", ItemsOf("<a> <b>1</b> </a>"));
  EXPECT_EQ(-1, m_stConfig.IntValue("a"));
}

TEST_F(ConfigTest, PredefinedEntitiesAndCharacterReferencesAreText) {
  EXPECT_EQ("a=<b & A> a.x=<c & B>",
            ItemsOf("<a x='&lt;c &amp; &#66;&gt;'>&lt;b &amp; &#65;&gt;</a>"));
}

TEST_F(ConfigTest, CarriageReturnIsNotTrimmed) {
  EXPECT_EQ("a=\r1\r", ItemsOf("<a> &#13;1&#13; </a>"));
}

TEST_F(ConfigTest, LineEndsOfTheFileAreLineFeeds) {
  EXPECT_EQ("a=1\n2", ItemsOf("<a>\r\n1\r\n2\r\n</a>"));
}

TEST_F(ConfigTest, EmptyAttributeIsAnItem) {
  EXPECT_EQ("a.x= a.y=", ItemsOf("<a x='' y=' \t '/>"));
  EXPECT_EQ(1u, m_stConfig.StringValues("a.x").size());
  EXPECT_EQ(-1, m_stConfig.IntValue("a.x"));
}

TEST_F(ConfigTest, AttributesAreTrimmedAndTakeTheirFirstTextOnly) {
  const char szDocument[] =
      "<!DOCTYPE r [<!ENTITY e 'entity'>]>"
      "<r><a t='  1 ' u=' left &e; right' v='&e; right' w='&e;'/></r>";
  ASSERT_EQ(0, LoadDocument(szDocument));
  EXPECT_EQ("a.t=1 a.u=left a.v=right a.w=", Items());
}

TEST_F(ConfigTest, OtherEncodingsComeOutAsUtf8) {
  ASSERT_EQ(0, LoadDocument("<?xml version='1.0' encoding='ISO-8859-1'?><r><a>\xe4</a></r>"));
  const char szUtf16[] = "\xff\xfe<\0r\0>\0<\0b\0>\0\xac\x20<\0/\0b\0>\0<\0/\0r\0>";
  ASSERT_EQ(0, LoadDocument(std::string(szUtf16, sizeof(szUtf16))));
  EXPECT_EQ("a=\xc3\xa4 b=\xe2\x82\xac", Items());
}

TEST_F(ConfigTest, LongValuesComeThroughWhole) {
  const std::string strLong(5000, 'x');
  ASSERT_EQ(0, Load("<a>" + strLong + "</a><b>@(a)@(a)</b>"));
  EXPECT_EQ(strLong, m_stConfig.StringValue("a"));
  EXPECT_EQ(strLong + strLong, m_stConfig.StringValue("b"));
}

TEST_F(ConfigTest, BufferEndsAtItsLengthAndNeedsNoNul) {
  const char szText[] = {'<', 'r', '>', '<', 'a', '>', '1', '<', '/', 'a', '>', '<', '/', 'r', '>'};
  const std::unique_ptr<char[]> pBuffer(new char[sizeof(szText)]);  // watched by the sanitizer
  memcpy(pBuffer.get(), szText, sizeof(szText));
  EXPECT_EQ(0, m_stConfig.LoadFromMemory(pBuffer.get(), sizeof(szText), nullptr));
  EXPECT_EQ("a=1", Items());
}

TEST_F(ConfigTest, LoadingAddsToWhatIsThere) {
  ASSERT_EQ(0, Load("<a>1</a><b>2</b>"));
  EXPECT_EQ("a=1 a=3 b=2", ItemsOf("<a>3</a>"));
}

TEST_F(ConfigTest, DocumentThatIsNoneFailsAndLeavesTheItems) {
  ASSERT_EQ(0, Load("<a>1</a>"));
  const std::string strErrors = CaptureOutput(2, [this] {
    for (const char* pText : {"", " ", "text", "<r>", "<r></s>", "<r/><s/>", "<!-- none -->",
                              "<r><b>2</b>&undefined;</r>", "<r><b>2</b>\x01</r>"}) {
      EXPECT_EQ(-1, LoadDocument(pText)) << pText;
    }
  });
  EXPECT_EQ("a=1", Items());
  EXPECT_NE(std::string::npos, strErrors.find("parser error"));  // libxml2's own report
}

TEST_F(ConfigTest, SizeThatNoDocumentHasFailsAtOnce) {
  EXPECT_EQ(-1, m_stConfig.LoadFromMemory("<r/>", (size_t{1} << 32) + 4, nullptr));
}

TEST_F(ConfigTest, NewObjectFindsNothing) {
  EXPECT_STREQ("", m_stConfig.StringValue("a"));
  EXPECT_EQ(-1, m_stConfig.IntValue("a"));
  EXPECT_TRUE(m_stConfig.StringValues("a").empty());
  EXPECT_TRUE(m_stConfig.IntValues("a").empty());
  EXPECT_TRUE(m_stConfig.EnumValues("").empty());
  EXPECT_TRUE(m_stConfig.AllItems().empty());
}

TEST_F(ConfigTest, KeysAreMatchedWholeAndByCase) {
  ASSERT_EQ(0, Load("<a><b>1</b></a>"));
  for (const char* pKey : {"a", "A.B", "a.b.", ".a.b", "a.", "b", ""}) {
    EXPECT_STREQ("", m_stConfig.StringValue(pKey)) << pKey;
  }
  EXPECT_STREQ("1", m_stConfig.StringValue("a.b"));
}

TEST_F(ConfigTest, NumbersFollowStringToInt) {
  ASSERT_EQ(0, Load("<a>0x1F</a><b>10k</b><c>-3</c><d>none</d><e>0</e><f>9223372036854775807</f>"));
  EXPECT_EQ(31, m_stConfig.IntValue("a"));
  EXPECT_EQ(10240, m_stConfig.IntValue("b"));
  EXPECT_EQ(-3, m_stConfig.IntValue("c"));
  EXPECT_EQ(0, m_stConfig.IntValue("d"));
  EXPECT_EQ(0, m_stConfig.IntValue("e"));
  EXPECT_EQ(INT64_MAX, m_stConfig.IntValue("f"));
}

TEST_F(ConfigTest, EmptyValueIsMinusOneAloneAndZeroAmongAll) {
  ASSERT_EQ(0, Load("<a x=''/><a x='5'/><a x='@(none)'/>"));
  EXPECT_EQ(-1, m_stConfig.IntValue("a.x"));
  EXPECT_EQ((std::vector<int64_t>{0, 5, 0}), m_stConfig.IntValues("a.x"));
}

TEST_F(ConfigTest, EnumValuesSearchesInTheKeyAndKeepsTheOrder) {
  ASSERT_EQ(0, Load("<log><level>3</level><path>@(m)</path></log><b><log>2</log><log>1</log></b>"));
  m_stConfig.SetMacroVariable("m", "/var");
  EXPECT_EQ("b.log=2 b.log=1 log.level=3 log.path=/var", ItemsText(m_stConfig.EnumValues("log")));
  EXPECT_EQ("log.level=3", ItemsText(m_stConfig.EnumValues("^log[.]l")));
  EXPECT_EQ("b.log=2 b.log=1", ItemsText(m_stConfig.EnumValues("^b|none")));
  EXPECT_EQ("", ItemsText(m_stConfig.EnumValues("LOG")));
  EXPECT_EQ(4u, m_stConfig.EnumValues("").size());
}

TEST_F(ConfigTest, EnumValuesOfAnInvalidPatternIsEmpty) {
  ASSERT_EQ(0, Load("<a>1</a>"));
  EXPECT_TRUE(m_stConfig.EnumValues("(").empty());
  EXPECT_TRUE(m_stConfig.EnumValues("[a").empty());
}

TEST_F(ConfigTest, KeysCanBePrinted) {
  ASSERT_EQ(0, Load("<w7><p>1k</p><p>2</p></w7>"));
  EXPECT_STREQ("1k", m_stConfig.vStringValue("w%d.%s", 7, "p"));
  EXPECT_EQ(1024, m_stConfig.vIntValue("w%d.p", 7));
  EXPECT_EQ("1k,2", Joined(m_stConfig.vStringValues("w%d.p", 7)));
  EXPECT_EQ((std::vector<int64_t>{1024, 2}), m_stConfig.vIntValues("%s.p", "w7"));
  EXPECT_EQ(-1, m_stConfig.vIntValue("w%d.p", 8));
}

TEST_F(ConfigTest, PrintedKeyIsCutAt255Characters) {
  const std::string strKey(255, 'k');
  ASSERT_EQ(0, Load("<" + strKey + ">5</" + strKey + ">"));
  EXPECT_STREQ("5", m_stConfig.vStringValue("%sTAIL", strKey.c_str()));
  EXPECT_EQ(5, m_stConfig.vIntValue("%sTAIL", strKey.c_str()));
  EXPECT_EQ("5", Joined(m_stConfig.vStringValues("%sTAIL", strKey.c_str())));
  EXPECT_EQ(std::vector<int64_t>{5}, m_stConfig.vIntValues("%sTAIL", strKey.c_str()));
  EXPECT_STREQ("", m_stConfig.vStringValue("%s", strKey.substr(1).c_str()));
}

TEST_F(ConfigTest, ClearRemovesItemsAndKeepsMacros) {
  ASSERT_EQ(0, Load("<a>1</a>"));
  m_stConfig.SetMacroVariable("m", "2");
  m_stConfig.Clear();
  EXPECT_TRUE(m_stConfig.AllItems().empty());
  EXPECT_STREQ("", m_stConfig.StringValue("a"));
  EXPECT_STREQ("2", m_stConfig.GetMacroVariable("m"));
}

TEST_F(ConfigTest, CopyHasItemsOfItsOwn) {
  auto pOriginal = std::make_unique<Config>();
  ASSERT_EQ(0, pOriginal->LoadFromMemory("<r><a>1</a></r>", 15, nullptr));
  EXPECT_STREQ("1", pOriginal->StringValue("a"));
  const Config stCopy(*pOriginal);
  ASSERT_EQ(0, Load("<b>2</b>"));
  EXPECT_STREQ("2", m_stConfig.StringValue("b"));
  m_stConfig = *pOriginal;
  pOriginal.reset();
  EXPECT_STREQ("1", stCopy.StringValue("a"));
  EXPECT_STREQ("1", m_stConfig.StringValue("a"));
  EXPECT_STREQ("", m_stConfig.StringValue("b"));
}

TEST_F(ConfigTest, AssignmentTakesTheMacrosAndTheFileAndMayBeToItself) {
  const PrivateDirectory stDirectory;
  WriteFile(stDirectory.File("a.xml"), "<r><a>1</a></r>");
  Config stOther;
  ASSERT_EQ(0, stOther.LoadFromFile(stDirectory.File("a.xml").c_str()));
  stOther.SetMacroVariable("m", "2");
  ASSERT_EQ(0, Load("<b>@(m)</b>"));
  m_stConfig.SetMacroVariable("n", "3");
  m_stConfig = stOther;
  const Config& stSame = m_stConfig;
  m_stConfig = stSame;
  EXPECT_EQ("a=1", Items());
  EXPECT_STREQ("1", m_stConfig.StringValue("a"));
  EXPECT_STREQ("2", m_stConfig.GetMacroVariable("m"));
  EXPECT_STREQ("", m_stConfig.GetMacroVariable("n"));
  WriteFile(stDirectory.File("a.xml"), "<r><a>4</a></r>");
  m_stConfig.Refresh();
  EXPECT_STREQ("4", m_stConfig.StringValue("a"));
}

// The sanitizer sees a key that is looked for among the items of the object that is gone.
TEST_F(ConfigTest, ObjectThatWasMovedFromIsEmptyAndCanBeLoadedAgain) {
  ASSERT_EQ(0, Load("<a>1</a><b>2</b>"));
  {
    const Config stTaken(std::move(m_stConfig));
    EXPECT_STREQ("1", stTaken.StringValue("a"));
  }
  ASSERT_EQ(0, Load("<a>3</a>"));
  EXPECT_STREQ("3", m_stConfig.StringValue("a"));
  EXPECT_STREQ("", m_stConfig.StringValue("b"));
  {
    Config stTaken;
    ASSERT_EQ(0, stTaken.LoadFromMemory("<r><a>4</a></r>", 15));
    stTaken = std::move(m_stConfig);
    EXPECT_STREQ("3", stTaken.StringValue("a"));
  }
  ASSERT_EQ(0, Load("<a>5</a>"));
  EXPECT_STREQ("5", m_stConfig.StringValue("a"));
}

TEST_F(ConfigTest, ObjectThatWasMovedFromFindsAsManyOtherItems) {
  ASSERT_EQ(0, Load("<a>1</a><b>2</b>"));
  EXPECT_STREQ("1", m_stConfig.StringValue("a"));
  Config stTaken(std::move(m_stConfig));
  EXPECT_STREQ("1", stTaken.StringValue("a"));
  ASSERT_EQ(0, Load("<c>3</c><d>4</d>"));
  EXPECT_STREQ("3", m_stConfig.StringValue("c"));
  stTaken = std::move(m_stConfig);
  EXPECT_STREQ("3", stTaken.StringValue("c"));
  ASSERT_EQ(0, Load("<e>5</e><f>6</f>"));
  EXPECT_STREQ("5", m_stConfig.StringValue("e"));
}

TEST_F(ConfigTest, EveryOneOfManyKeysIsFound) {
  const int KEYS = 3000;
  std::string strContent;
  for (int i = 0; i < KEYS; ++i) {
    const std::string strName = "k" + std::to_string(i * 7919 % KEYS);
    strContent += "<" + strName + ">" + strName + "</" + strName + ">";
  }
  ASSERT_EQ(0, Load(strContent.substr(0, strContent.find("<k5>"))));
  ASSERT_EQ(0, Load(strContent.substr(strContent.find("<k5>"))));
  EXPECT_EQ(static_cast<size_t>(KEYS), m_stConfig.AllItems().size());
  for (const auto& [strKey, strValue] : m_stConfig.AllItems()) {
    ASSERT_EQ(strKey, m_stConfig.StringValue(strKey.c_str()));
  }
  EXPECT_STREQ("", m_stConfig.StringValue("k3000"));
}

// A search ends at a free place, so there must always be one.
TEST_F(ConfigTest, MissingKeyIsMissingAmongAnyNumberOfKeys) {
  for (int i = 0; i < 300; ++i) {
    const std::string strName = "k" + std::to_string(i);
    ASSERT_EQ(0, Load("<" + strName + ">1</" + strName + ">"));
    ASSERT_STREQ("", m_stConfig.StringValue("missing"));
    const Config stCopy(m_stConfig);
    ASSERT_STREQ("", stCopy.StringValue("missing"));
    ASSERT_STREQ("1", stCopy.StringValue(strName.c_str()));
  }
}

// Few lookups among many keys are answered without an index.
TEST_F(ConfigTest, MissingKeyBetweenOthersIsMissingFromTheFirstLookupOn) {
  std::string strContent;
  for (int i = 0; i < 300; ++i) {
    strContent += "<k" + std::to_string(i) + ">1</k" + std::to_string(i) + ">";
  }
  ASSERT_EQ(0, Load(strContent));
  for (int i = 0; i < 300; ++i) {
    ASSERT_STREQ("", m_stConfig.StringValue("k"));
    ASSERT_STREQ("1", m_stConfig.StringValue("k299"));
  }
}

TEST_F(ConfigTest, AsManyItemsAsWereClearedMayBeLoaded) {
  ASSERT_EQ(0, Load("<a>1</a><b>2</b>"));
  EXPECT_STREQ("1", m_stConfig.StringValue("a"));
  m_stConfig.Clear();
  ASSERT_EQ(0, Load("<b>3</b><c>4</c>"));
  EXPECT_STREQ("", m_stConfig.StringValue("a"));
  EXPECT_STREQ("3", m_stConfig.StringValue("b"));
  EXPECT_STREQ("4", m_stConfig.StringValue("c"));
}

TEST_F(ConfigTest, KeysOfOneHashAreToldApart) {
  ASSERT_EQ(std::hash<std::string_view>()(TWIN), std::hash<std::string_view>()(OTHER_TWIN));
  ASSERT_EQ(0, Load(std::string("<") + TWIN + ">1</" + TWIN + ">"));
  EXPECT_STREQ("1", m_stConfig.StringValue(TWIN));
  EXPECT_STREQ("", m_stConfig.StringValue(OTHER_TWIN));
  ASSERT_EQ(0, Load(std::string("<") + OTHER_TWIN + ">2</" + OTHER_TWIN + ">"));
  EXPECT_STREQ("1", m_stConfig.StringValue(TWIN));
  EXPECT_STREQ("2", m_stConfig.StringValue(OTHER_TWIN));
}

TEST_F(ConfigTest, FirstValueStaysFirstWhenMoreAreLoaded) {
  ASSERT_EQ(0, Load("<a>1</a>"));
  EXPECT_STREQ("1", m_stConfig.StringValue("a"));
  ASSERT_EQ(0, Load("<a>0</a><b>2</b>"));
  EXPECT_STREQ("1", m_stConfig.StringValue("a"));
  m_stConfig.Clear();
  ASSERT_EQ(0, Load("<b>3</b>"));
  EXPECT_STREQ("", m_stConfig.StringValue("a"));
  EXPECT_STREQ("3", m_stConfig.StringValue("b"));
}

TEST_F(ConfigTest, DumpListsTheRawItemsInKeyOrder) {
  ASSERT_EQ(0, Load("<b>$(HOME)%s</b><a x=''>1</a><a>2</a>"));
  Object* pObject = &m_stConfig;
  EXPECT_EQ("a -- \"1\"\na -- \"2\"\na.x -- \"\"\nb -- \"$(HOME)%s\"\n",
            CaptureDescriptor([pObject](int iFD) { pObject->Dump(iFD); }));
}

class ConfigRingTest : public ConfigTest {
 protected:
  void SetUp() override { ASSERT_EQ(0, Load("<a>first</a><b>other</b><c>@(b)</c>")); }

  void CallTimes(size_t iTimes, const char* pKey) {
    for (size_t i = 0; i < iTimes; ++i) {
      m_stConfig.StringValue(pKey);
    }
  }
};

TEST_F(ConfigRingTest, ResultLivesForNinetyNineLaterCallsAndNotForTheHundredth) {
  const char* pFirst = m_stConfig.StringValue("a");
  CallTimes(RING_SLOTS - 1, "b");
  EXPECT_STREQ("first", pFirst);
  const char* pLast = m_stConfig.StringValue("b");
  EXPECT_EQ(pFirst, pLast);
  EXPECT_STREQ("other", pFirst);
}

TEST_F(ConfigRingTest, MissingKeysAndLookupsOfManyTakeNoSlot) {
  const char* pFirst = m_stConfig.StringValue("a");
  CallTimes(RING_SLOTS, "none");
  for (size_t i = 0; i < RING_SLOTS; ++i) {
    m_stConfig.StringValues("b");
    m_stConfig.EnumValues("b");
    m_stConfig.TranslateValue("b");
  }
  EXPECT_STREQ("first", pFirst);
}

TEST_F(ConfigRingTest, NumbersTakeASlotEach) {
  const char* pFirst = m_stConfig.StringValue("a");
  for (size_t i = 0; i < RING_SLOTS; ++i) {
    m_stConfig.IntValue("b");
  }
  EXPECT_STREQ("other", pFirst);
}

TEST_F(ConfigRingTest, ReferenceToAnotherKeyTakesASlotOfItsOwnBeforeTheResult) {
  const char* pFirst = m_stConfig.StringValue("a");
  CallTimes(RING_SLOTS / 2 - 1, "c");
  const char* pLast = m_stConfig.StringValue("b");
  EXPECT_STREQ("first", pFirst);
  m_stConfig.StringValue("c");
  EXPECT_STREQ("other", pFirst);
  EXPECT_STREQ("other", pLast);
}

TEST_F(ConfigRingTest, ResultWithAReferenceLivesAsLongAsAnyOther) {
  const char* pResult = m_stConfig.StringValue("c");
  CallTimes(RING_SLOTS - 1, "a");
  EXPECT_STREQ("other", pResult);
  CallTimes(1, "a");
  EXPECT_STREQ("first", pResult);
}

TEST_F(ConfigRingTest, AllObjectsShareTheSlots) {
  Config stOther;
  ASSERT_EQ(0, stOther.LoadFromMemory("<r><b>alien</b></r>", 19, nullptr));
  const char* pFirst = m_stConfig.StringValue("a");
  for (size_t i = 0; i < RING_SLOTS; ++i) {
    stOther.StringValue("b");
  }
  EXPECT_STREQ("alien", pFirst);
}

TEST_F(ConfigRingTest, ResultOutlivesItsObject) {
  auto pOther = std::make_unique<Config>();
  ASSERT_EQ(0, pOther->LoadFromMemory("<r><b>alien</b></r>", 19, nullptr));
  const char* pValue = pOther->StringValue("b");
  pOther.reset();
  EXPECT_STREQ("alien", pValue);
}

// The operations that the loader calls.
class OpenConfig : public Config {
 public:
  using Config::EnumElements;
  using Config::EnumProperties;
  using Config::GetElementContent;
  using Config::PreProcessPath;
};

class ConfigTreeTest : public ::testing::Test {
 protected:
  ConfigTreeTest() : m_pDocument(xmlParseDoc(Xml("<r x='1'><a y='2'>3</a> text </r>"))) {}
  ~ConfigTreeTest() override { xmlFreeDoc(m_pDocument); }
  static const xmlChar* Xml(const char* pText) { return reinterpret_cast<const xmlChar*>(pText); }
  xmlNodePtr Root() { return xmlDocGetRootElement(m_pDocument); }

  xmlDocPtr m_pDocument;
  std::multimap<std::string, std::string> m_mapItems;
};

TEST_F(ConfigTreeTest, ElementsAreEnumeratedBelowAPrefixOrNone) {
  OpenConfig::EnumElements(Root(), nullptr, m_mapItems);
  OpenConfig::EnumElements(Root(), "p.q", m_mapItems);
  EXPECT_EQ("a=3 a.y=2 p.q.a=3 p.q.a.y=2", ItemsText(m_mapItems));
}

TEST_F(ConfigTreeTest, PropertiesAreEnumeratedBelowAPrefix) {
  OpenConfig::EnumProperties(Root(), "p", m_mapItems);
  EXPECT_EQ("p.x=1", ItemsText(m_mapItems));
}

TEST_F(ConfigTreeTest, ContentOfAnElementIsItsOwnText) {
  EXPECT_EQ("text", OpenConfig::GetElementContent(Root()));
}

TEST_F(ConfigTreeTest, ContentOfAnotherNodeEndsTheProcess) {
  xmlNodePtr pText = Root()->last;
  ASSERT_EQ(XML_TEXT_NODE, pText->type);
  EXPECT_DEATH(OpenConfig::GetElementContent(pText), "pCurrNode->type == XML_ELEMENT_NODE");
}

TEST(ConfigPathTest, PathsAreCutAtBothSeparatorsAndJoinedFromTheRoot) {
  EXPECT_EQ("/conf/a.xml", OpenConfig::PreProcessPath("conf/a.xml"));
  EXPECT_EQ("/conf/a.xml", OpenConfig::PreProcessPath("//conf\\\\a.xml/"));
  EXPECT_EQ("/./../~", OpenConfig::PreProcessPath("./../~"));
  EXPECT_EQ("", OpenConfig::PreProcessPath(""));
  EXPECT_EQ("", OpenConfig::PreProcessPath("/\\/"));
}

}  // namespace
