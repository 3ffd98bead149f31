// The scanners beside the regular expressions that define the grammar, over random lines and texts.
//
// The expressions are compiled once per process, in the locale of that moment, so each locale has a
// child of its own. INI_SCAN_ROUNDS in the environment asks for more than the usual 100,000 rounds.

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "ini_config.h"
#include "ini_fixture.h"
#include "ini_reference.h"

namespace {

const int LINES_A_ROUND = 5;

int Rounds() {
  const char* const pRounds = getenv("INI_SCAN_ROUNDS");
  return pRounds == nullptr ? 100000 : atoi(pRounds);
}

std::string Escaped(const std::string& strText) {
  std::string strResult;
  for (const char c : strText) {
    char szByte[8];
    snprintf(szByte, sizeof(szByte), c < ' ' ? "\\x%02x" : "%c", static_cast<unsigned char>(c));
    strResult += szByte;
  }
  return strResult;
}

class TextMaker {
 public:
  // Pieces are those that matter to a grammar, with other bytes among them.
  explicit TextMaker(Texts_t vecPieces) : m_vecPieces(std::move(vecPieces)) {}

  std::string Make() {
    std::string strText;
    for (uint32_t i = Random(14); i > 0; --i) {
      strText += Random(12) == 0 ? Rare() : m_vecPieces[Random(m_vecPieces.size())];
    }
    return strText;
  }

 private:
  uint32_t Random(size_t iLimit) { return static_cast<uint32_t>(m_stRandom() % iLimit); }

  std::string Rare() {
    static const Texts_t RARE = {
        "\xc3\xa4", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xc3",     "\xff",
        "\x80",     "\xc0\x80",     "\xed\xa0\x80",     "\xc4\xb0", std::string(1, '\0')};
    return Random(3) == 0 ? std::string(1, static_cast<char>(Random(256)))
                          : RARE[Random(RARE.size())];
  }

  std::mt19937 m_stRandom{20240607};
  const Texts_t m_vecPieces;
};

int CompareLines(const char* pLocale) {
  if (setlocale(LC_ALL, pLocale) == nullptr) {
    return 2;
  }
  TextMaker stMaker({" ", " ", "\t", "=", "=", "\r", "\n", ";", "#", "/", "[", "]", "a", "b"});
  IniReference stReference;
  for (int i = Rounds(); i > 0; --i) {
    Texts_t vecLines;
    for (int iLine = 0; iLine < LINES_A_ROUND; ++iLine) {
      vecLines.push_back(stMaker.Make());
    }
    IniConfig stConfig;
    stReference.Clear();
    stReference.Parse(vecLines);
    if (stConfig.LoadFromMemory(vecLines) != 0 || stConfig.AllItems() != stReference.Contents()) {
      for (const std::string& strLine : vecLines) {
        fprintf(stderr, "line \"%s\"\n", Escaped(strLine).c_str());
      }
      return 1;
    }
  }
  return 0;
}

// A value is always shorter than the references to it, so that every expansion ends.
const std::vector<std::pair<std::string, std::string>> VALUES = {
    {"", "$("},    {"a", "(a)"},   {"b", "@()"}, {"ab", "{b}@"},
    {"ba", ")@{"}, {"aa", "$@$@"}, {"bb", ""}};

int CompareTexts(const char* pLocale) {
  if (setlocale(LC_ALL, pLocale) == nullptr) {
    return 2;
  }
  setenv("a", "@(a", 1);
  setenv("ab",
         "\xc3\xa4"
         "b",
         1);
  TextMaker stMaker({"$", "@", "@", "(", "(", ")", ")", "{", "}", "a", "b", "@(", "$("});
  IniReference stReference;
  IniConfig stConfig;
  for (const auto& [strKey, strValue] : VALUES) {
    stConfig.SetValue("", strKey, strValue);
  }
  stReference.Set(stConfig.AllItems());
  for (int i = LINES_A_ROUND * Rounds(); i > 0; --i) {
    const std::string strText = stMaker.Make();
    if (stConfig.TranslateValue(strText) != stReference.Translate(strText)) {
      fprintf(stderr, "text \"%s\"\n", Escaped(strText).c_str());
      return 1;
    }
  }
  return 0;
}

// Files with lines around the length at which they are cut, over several blocks, with NULs.
std::string FileText(std::mt19937& stRandom) {
  std::string strText;
  while (strText.size() < 150000) {
    const size_t iLength = stRandom() % 3 == 0 ? 2040 + stRandom() % 16 : stRandom() % 6000;
    strText += std::to_string(stRandom() % 100) + "=" + std::string(iLength, 'v');
    strText += stRandom() % 4 == 0 ? std::string(1, '\0') + "x" : "";
    strText += stRandom() % 5 == 0 ? " = tail" : "\n";
  }
  return strText;
}

int CompareFiles(const std::string& strPath) {
  std::mt19937 stRandom(31337);
  for (int i = 0; i < 30; ++i) {
    WriteFile(strPath, FileText(stRandom));
    IniConfig stConfig;
    IniReference stReference;
    if (stConfig.LoadFromFile(strPath.c_str()) != 0 || stReference.LoadFromFile(strPath) != 0 ||
        stReference.Contents() != stConfig.AllItems()) {
      fprintf(stderr, "file %d\n", i);
      return 1;
    }
  }
  return 0;
}

TEST(IniConfigFileScanTest, FilesAreCutIntoLinesAsFgetsDoes) {
  const PrivateDirectory stDirectory;
  EXPECT_EQ(0, ForkedPeer([&] { return CompareFiles(stDirectory.File("a.ini")); }).Wait());
}

class IniConfigScanTest : public ::testing::TestWithParam<const char*> {};

TEST_P(IniConfigScanTest, LinesAreWhatTheExpressionsSay) {
  EXPECT_EQ(0, ForkedPeer([] { return CompareLines(GetParam()); }).Wait());
}

TEST_P(IniConfigScanTest, ReferencesAreWhatTheExpressionSays) {
  EXPECT_EQ(0, ForkedPeer([] { return CompareTexts(GetParam()); }).Wait());
}

INSTANTIATE_TEST_SUITE_P(Locales, IniConfigScanTest, ::testing::Values("C", "C.UTF-8"),
                         [](const auto& stInfo) {
                           return std::string(stInfo.param) == "C" ? "C" : "Utf8";
                         });

}  // namespace
