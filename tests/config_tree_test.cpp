// Loading builds no tree. Its items are those of the tree that libxml2 would build.

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>
#include <random>
#include <string>

#include "config.h"
#include "config_test_support.h"

namespace {

const char REFUSED[] = "(refused)";

void Silence(void* /*pContext*/, const char* /*pFormat*/, ...) {}

class ConfigTreeTest : public ::testing::Test, protected Config {
 protected:
  ConfigTreeTest() { xmlSetGenericErrorFunc(nullptr, Silence); }
  ~ConfigTreeTest() override { xmlSetGenericErrorFunc(nullptr, nullptr); }

  static std::string ByTree(const std::string& strDocument) {
    const std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)> pDocument(
        xmlReadMemory(strDocument.data(), static_cast<int>(strDocument.size()), nullptr, nullptr,
                      XML_PARSE_NONET),
        xmlFreeDoc);
    if (pDocument == nullptr) {
      return REFUSED;
    }
    std::multimap<std::string, std::string> mapItems;
    EnumElements(xmlDocGetRootElement(pDocument.get()), nullptr, mapItems);
    return ItemsText(mapItems);
  }
  static std::string ByLoad(const std::string& strDocument) {
    Config stConfig;
    const int iResult = stConfig.LoadFromMemory(strDocument.data(), strDocument.size());
    return iResult == 0 ? ItemsText(stConfig.AllItems()) : REFUSED;
  }
  static void ExpectEqual(const std::string& strDocument) {
    EXPECT_EQ(ByTree(strDocument), ByLoad(strDocument)) << strDocument.substr(0, 2000);
  }
};

const char DECLARATIONS[] =
    "<!DOCTYPE r [<!ENTITY t 'text'><!ENTITY m '<b x=\"1\">2<!--c--></b> 3'><!ENTITY e ''>"
    "<!ENTITY n '&t;&m;'><!ENTITY s SYSTEM 'none'><!ENTITY p:q '4'>"
    "<!ATTLIST a d CDATA 'default &t;' f CDATA #FIXED 'fixed' i NMTOKENS #IMPLIED>"
    "<!ATTLIST c xml:id ID #IMPLIED xmlns:u CDATA 'urn:u'><!-- c --><?pi in a subset?>]>";
const char OPEN_DECLARATIONS[] = "<!DOCTYPE r SYSTEM 'none.dtd' [<!ENTITY t 'text'>]>";

const char* const PIECES[] = {" ",
                              "\n\t",
                              "x",
                              " y z ",
                              "\r\n",
                              "&t;",
                              "&m;",
                              "&e;",
                              "&n;",
                              "&s;",
                              "&none;",
                              "&lt;",
                              "&#65;",
                              "&#10;",
                              "&amp;",
                              "<![CDATA[ data ]]>",
                              "<![CDATA[]]>",
                              "<!-- comment -->",
                              "<?pi data?>",
                              "]]",
                              "\xc3\xa4",
                              "\xff",
                              "<a/>",
                              "<b></b>",
                              "<c xml:id='i1'/>",
                              "<c xml:id='i2'/>",
                              "<a.b>5</a.b>",
                              "<a i=' 1  2 '/>",
                              "<a x=''/>",
                              "<a x=' v ' y='&t;'/>",
                              "<a x='1&t;2' y='&lt;&#65;'/>",
                              "<a x='&#10;3&#32;'/>",
                              "<a x='&t;&e;4'/>",
                              "<u:a u:x='6'>7</u:a>",
                              "<a v:x='8'/>",
                              "<c:d xmlns:c='urn:c' c:e='9'>0</c:d>",
                              "<a xmlns='urn:d' x='1'>2</a>",
                              "<a x='1' x='2'/>",
                              "<a x='line\n feed\ttab'/>",
                              "<p>1<q>2</q>3</p>",
                              "<b>&m;</b>",
                              "</a>",
                              "<",
                              "&p:q;"};

std::string Content(std::mt19937& stRandom, int iDepth) {
  std::string strContent;
  const size_t iPieces = sizeof(PIECES) / sizeof(PIECES[0]);
  for (size_t i = stRandom() % 6; i > 0; --i) {
    const size_t iPiece = stRandom() % (iPieces + 12);
    if (iPiece < iPieces) {
      strContent += PIECES[iPiece];
    } else if (iDepth < 5) {
      const std::string strName(1, static_cast<char>('a' + stRandom() % 3));
      strContent += "<" + strName + ">" + Content(stRandom, iDepth + 1) + "</" + strName + ">";
    }
  }
  return strContent;
}

TEST_F(ConfigTreeTest, RandomDocumentsGiveTheItemsOfTheirTree) {
  std::mt19937 stRandom(11);
  int iRefused = 0;
  for (int i = 0; i < 20000 && !HasFailure(); ++i) {
    const char* const szDeclarations[] = {"", DECLARATIONS, OPEN_DECLARATIONS};
    const std::string strDocument = std::string(szDeclarations[i % 3]) + "<r a='root'>" +
                                    Content(stRandom, 0) + "</r>" + (i % 50 == 0 ? "<" : "");
    ExpectEqual(strDocument);
    iRefused += ByLoad(strDocument) == REFUSED;
  }
  EXPECT_GT(iRefused, 1000);
  EXPECT_LT(iRefused, 15000);
}

TEST_F(ConfigTreeTest, DocumentsCutAnywhereAreRefusedAsTheirTreeIs) {
  const std::string strDocument =
      std::string(DECLARATIONS) + "<r><a x='1&t;'>2&n;<![CDATA[3]]></a><!--4--><?p 5?></r>\n";
  for (size_t i = 0; i <= strDocument.size(); ++i) {
    ExpectEqual(strDocument.substr(0, i));
  }
}

TEST_F(ConfigTreeTest, DocumentsInOtherEncodingsGiveTheItemsOfTheirTree) {
  for (const char* pEncoding : {"ISO-8859-1", "UTF-8", "US-ASCII", "none"}) {
    ExpectEqual(std::string("<?xml version='1.0' encoding='") + pEncoding +
                "'?><r><a x='\xe4'>\xe4 \xc3\xa4</a></r>");
  }
  ExpectEqual(std::string("\xff\xfe<\0r\0>\0<\0a\0>\0x\0<\0/\0a\0>\0<\0/\0r\0>\0", 32));
}

TEST_F(ConfigTreeTest, LimitsOfLibxml2HoldAsForATree) {
  for (const size_t iLength : {9999999u, 10000000u, 10000001u, 10000400u}) {
    const std::string strText(iLength, 'x');
    const std::string strDocument = "<r><a>" + strText + "</a></r>";
    EXPECT_TRUE(ByTree(strDocument) == ByLoad(strDocument)) << iLength;
    const std::string strAttribute = "<r><a x='" + strText + "'/></r>";
    EXPECT_TRUE(ByTree(strAttribute) == ByLoad(strAttribute)) << iLength;
  }
  for (int iDepth = 250; iDepth < 262; ++iDepth) {
    std::string strDocument;
    for (int i = 0; i < iDepth; ++i) {
      strDocument = "<a>" + strDocument + "</a>";
    }
    ExpectEqual("<r>" + strDocument + "</r>");
  }
}

}  // namespace
