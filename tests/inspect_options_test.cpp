#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "describe.h"
#include "document.h"
#include "options.h"
#include "segment_holders.h"

namespace {

std::string ErrorOf(const std::vector<std::string>& vecArguments) {
  return ParseOptions(vecArguments).strError;
}

TEST(InspectOptionsTest, OptionsMayStandAnywhere) {
  const Options_t stOptions = ParseOptions({"--json", "queue", "5", "--messages=3", "0x12"});
  EXPECT_EQ("", stOptions.strError);
  EXPECT_EQ("queue", stOptions.strCommand);
  EXPECT_EQ((std::vector<std::string>{"5", "0x12"}), stOptions.vecNames);
  EXPECT_TRUE(stOptions.bJson);
  EXPECT_EQ(3u, stOptions.iMessages);
  EXPECT_FALSE(stOptions.fWatch.has_value());
}

TEST(InspectOptionsTest, NamesBehindTwoDashesMayLookLikeOptions) {
  const Options_t stOptions = ParseOptions({"verify", "--", "--json"});
  EXPECT_EQ("", stOptions.strError);
  EXPECT_EQ((std::vector<std::string>{"--json"}), stOptions.vecNames);
}

TEST(InspectOptionsTest, WatchHasASecondUnlessTold) {
  EXPECT_EQ(1.0, *ParseOptions({"heap", "1", "--watch"}).fWatch);
  EXPECT_EQ(0.25, *ParseOptions({"heap", "1", "--watch=0.25"}).fWatch);
}

TEST(InspectOptionsTest, WrongUsageIsSaid) {
  EXPECT_EQ("no command", ErrorOf({}));
  EXPECT_EQ("unknown command quue", ErrorOf({"quue", "1"}));
  EXPECT_EQ("queue of what?", ErrorOf({"queue"}));
  EXPECT_EQ("list takes no names", ErrorOf({"list", "1"}));
  EXPECT_EQ("unknown option --jsn", ErrorOf({"queue", "1", "--jsn"}));
  EXPECT_EQ("wrong value: --json=1", ErrorOf({"queue", "1", "--json=1"}));
  for (const char* pWrong :
       {"--watch=0", "--watch=-1", "--watch=nan", "--watch=1e9", "--watch=1s", "--rate",
        "--rate=", "--messages=-1", "--limit=ten", "--count=1.5", "--bytes=99999999999999999999"}) {
    EXPECT_EQ("wrong value: " + std::string(pWrong), ErrorOf({"queue", "1", pWrong}));
  }
}

TEST(InspectOptionsTest, OptionThatTheCommandDoesNotTakeIsNotIgnored) {
  EXPECT_EQ("queue takes no --keys", ErrorOf({"queue", "1", "--keys=*"}));
  EXPECT_EQ("verify takes no --watch", ErrorOf({"--watch", "verify", "1"}));
  EXPECT_EQ("remove takes no --json", ErrorOf({"remove", "1", "--yes", "--json"}));
  EXPECT_EQ("list takes no --yes", ErrorOf({"list", "--all", "--yes"}));
  EXPECT_EQ("log takes no --limit", ErrorOf({"log", "file", "--limit=1"}));
  EXPECT_EQ("heap takes no --bytes", ErrorOf({"heap", "1", "--limit=1", "--bytes=1"}));
  EXPECT_EQ("table takes no --foreign", ErrorOf({"table", "1", "--bytes=1", "--foreign"}));
}

TEST(InspectOptionsTest, EveryCommandTakesItsOptions) {
  const std::vector<std::string> vecLook = {"--json", "--watch", "--count=1", "--rate=1"};
  std::map<std::string, std::vector<std::string>> mapTaken = {
      {"queue", vecLook}, {"heap", vecLook}, {"table", vecLook}, {"log", vecLook}};
  for (const auto& [strCommand, strOption] :
       std::multimap<std::string, std::string>{{"queue", "--messages=1"},
                                               {"queue", "--bytes=1"},
                                               {"heap", "--limit=1"},
                                               {"table", "--limit=1"},
                                               {"table", "--keys=*"},
                                               {"table", "--values"},
                                               {"table", "--bytes=1"},
                                               {"verify", "--json"},
                                               {"verify", "--limit=1"},
                                               {"remove", "--yes"},
                                               {"remove", "--foreign"}}) {
    mapTaken[strCommand].push_back(strOption);
  }
  for (auto& [strCommand, vecArguments] : mapTaken) {
    vecArguments.insert(vecArguments.begin(), {strCommand, "1"});
    EXPECT_EQ("", ErrorOf(vecArguments));
  }
  EXPECT_EQ("", ErrorOf({"list", "--all", "--json"}));
}

// Words of a text that begin with two dashes, without a value behind "=".
std::set<std::string> OptionsOf(std::string strText) {
  for (char& c : strText) {
    c = std::strchr("[]=,;()", c) != nullptr ? ' ' : c;
  }
  std::istringstream stText(strText);
  std::string strWord;
  std::set<std::string> setOptions;
  while (stText >> strWord) {
    if (strWord.size() > 2 && strWord.compare(0, 2, "--") == 0) {
      setOptions.insert(strWord);
    }
  }
  return setOptions;
}

TEST(InspectOptionsTest, TheManualKnowsEveryOptionOfTheHelp) {
  std::ifstream stFile(MANUAL_PAGE);
  std::string strManual((std::istreambuf_iterator<char>(stFile)), {});
  const std::set<std::string> setOptions = OptionsOf(HELP_TEXT);
  EXPECT_EQ(14u, setOptions.size());
  for (const std::string& strOption : setOptions) {
    EXPECT_NE(std::string::npos, strManual.find("Fl Fl " + strOption.substr(2))) << strOption;
    const std::string strError = ErrorOf({strOption + "=1", "list"});
    EXPECT_NE("unknown option " + strOption + "=1", strError);
  }
}

TEST(InspectRateTest, OffsetsThatGoRoundAreAddedUp) {
  char szRing[13 + 100] = {8, 100};
  const MemoryView stView(szRing, sizeof(szRing));
  RingRate stRate;
  for (const char cWrite : {'\0', '\x3c', '\x14', '\x63', '\0'}) {
    szRing[9] = cWrite;
    szRing[5] = static_cast<char>(cWrite / 2);
    stRate.Look(stView);
  }
  EXPECT_EQ(60u + 60 + 79 + 1, stRate.Written());
  EXPECT_EQ(30u + 80 + 39 + 51, stRate.Taken());
}

TEST(InspectDocumentTest, TheSameThingAsTextAndAsJson) {
  Document stDocument;
  stDocument.Add("ring_size", 64);
  stDocument.Add("held_by", "a \"b\"\\");
  stDocument.Add("stable", true);
  stDocument.AddList("chains", {"bucket", "entries"}, {{7, 12345678}, {1000, 2}});
  EXPECT_EQ(
      "ring size                 64\nheld by                   a \"b\"\\\n"
      "stable                    true\n"
      "chains:\n    bucket  entries\n    7       12345678\n    1000    2\n",
      stDocument.AsText());
  EXPECT_EQ(
      "{\"ring_size\":64,\"held_by\":\"a \\\"b\\\"\\\\\",\"stable\":true,"
      "\"chains\":[{\"bucket\":7,\"entries\":12345678},{\"bucket\":1000,\"entries\":2}]}\n",
      stDocument.AsJson());
}

TEST(InspectDocumentTest, AnyBytesCanBePrinted) {
  EXPECT_EQ("a\\n\\r\\t\\\\\\\"\\x00\\x7f\\xff~",
            Printable(std::string("a\n\r\t\\\"\0\x7f\xff~", 10)));
  EXPECT_EQ("abc...", Printable("abcd", 3));
  EXPECT_EQ("abcd", Printable("abcd", 4));
}

TEST(InspectMappingTest, OnlyTheSegmentsOwnLineIsAMapping) {
  Mapping_t stMapping{};
  const std::string strLine =
      "7f0000001000-7f0000003000 rw-s 00001000 00:01 98305                      /SYSV00ab12cd "
      "(deleted)";
  ASSERT_EQ(98305, ParseMapping(strLine, stMapping));
  EXPECT_EQ(0x7f0000001000u, stMapping.iAddress);
  EXPECT_EQ(0x2000u, stMapping.iSize);
  EXPECT_EQ(0x1000u, stMapping.iOffset);
  for (const char* pOther :
       {"7f0000001000-7f0000003000 rw-s 00000000 08:01 98305   /home/SYSV00ab12cd",
        "7f0000001000-7f0000003000 rw-p 00000000 00:00 0 ", "7f0000001000", ""}) {
    EXPECT_EQ(-1, ParseMapping(pOther, stMapping)) << pOther;
  }
}

}  // namespace
