#include "request_parser.h"

#include <gtest/gtest.h>

#include <ctime>
#include <random>

#include "kv_server_fixture.h"

namespace {

const RequestParser::Limits_t LIMITS{8, 100, 64, 400};

typedef std::vector<std::string> Words_t;

Words_t WordsOf(const RequestParser& stParser) {
  return {stParser.Arguments().begin(), stParser.Arguments().end()};
}

// All requests of a text that is there at once, each as its words; the last may be an error.
std::vector<Words_t> ParseAll(const std::string& strBytes, RequestParser::Limits_t stLimits) {
  RequestParser stParser(stLimits);
  std::vector<Words_t> vecRequests;
  size_t iOffset = 0;
  for (;;) {
    switch (stParser.Parse(strBytes.data() + iOffset, strBytes.size() - iOffset)) {
      case RequestParser::NEED_MORE:
        return vecRequests;
      case RequestParser::MALFORMED:
        vecRequests.push_back({"error", stParser.Error()});
        return vecRequests;
      default:
        vecRequests.push_back(WordsOf(stParser));
        iOffset += stParser.Size();
        stParser.Reset();
    }
  }
}

std::vector<Words_t> ParseAll(const std::string& strBytes) { return ParseAll(strBytes, LIMITS); }

// What the only request of a text is wrong with; "" when it is not.
std::string ErrorOf(const std::string& strBytes) {
  RequestParser stParser(LIMITS);
  return stParser.Parse(strBytes.data(), strBytes.size()) == RequestParser::MALFORMED
             ? stParser.Error()
             : "";
}

typedef std::vector<Words_t> Requests_t;

TEST(KvRequestParserTest, CutsPipelinedArraysApart) {
  EXPECT_EQ((Requests_t{{"GET", "a"}, {"PING"}, {"SET", "b", ""}}),
            ParseAll(Request({"GET", "a"}) + Request({"PING"}) + Request({"SET", "b", ""})));
}

TEST(KvRequestParserTest, BytesOfAnElementAreNotInterpreted) {
  const std::string strBinary("\r\n$*\0 \"'", 8);
  EXPECT_EQ((Requests_t{{"ECHO", strBinary}}), ParseAll(Request({"ECHO", strBinary})));
}

TEST(KvRequestParserTest, ArraysAndInlineRequestsMix) {
  EXPECT_EQ((Requests_t{{"PING"}, {"GET", "a"}, {"PING", "x"}}),
            ParseAll("PING\r\n" + Request({"GET", "a"}) + "PING x\n"));
}

TEST(KvRequestParserTest, EmptyLinesAndEmptyArraysAreRequestsWithoutArguments) {
  EXPECT_EQ((Requests_t{{}, {}, {}, {}, {}, {"PING"}}),
            ParseAll("\r\n\n   \r\n*0\r\n*-1\r\nPING\r\n"));
}

TEST(KvRequestParserTest, AnySplitGivesTheSameRequests) {
  const std::string strBytes = Request({"SET", "key", "va\r\nlue"}) + "SET 'a b' \"\\x41\\n\"\r\n" +
                               Request({}) + Request({"GET", "key"});
  const Requests_t vecWhole = ParseAll(strBytes);
  ASSERT_EQ(4u, vecWhole.size());
  for (size_t iStep = 1; iStep < 12; ++iStep) {
    RequestParser stParser(LIMITS);
    Requests_t vecRequests;
    std::string strBuffer;  // grows and moves, as a connection's does
    for (size_t i = 0; i < strBytes.size(); i += iStep) {
      strBuffer = std::string(strBuffer + strBytes.substr(i, iStep));
      while (stParser.Parse(strBuffer.data(), strBuffer.size()) == RequestParser::COMPLETE) {
        vecRequests.push_back(WordsOf(stParser));
        strBuffer.erase(0, stParser.Size());
        stParser.Reset();
      }
    }
    EXPECT_EQ(vecWhole, vecRequests) << "in pieces of " << iStep;
  }
}

TEST(KvRequestParserTest, EveryProperPrefixNeedsMore) {
  const std::string strBytes = Request({"SET", "key", "value"});
  for (size_t i = 0; i < strBytes.size(); ++i) {
    RequestParser stParser(LIMITS);
    EXPECT_EQ(RequestParser::NEED_MORE, stParser.Parse(strBytes.data(), i)) << i;
  }
}

TEST(KvRequestParserTest, SizeEndsBehindTheRequestAndNotBehindTheBuffer) {
  RequestParser stParser(LIMITS);
  const std::string strPing = Request({"PING"});
  const std::string strBytes = strPing + "GET";
  ASSERT_EQ(RequestParser::COMPLETE, stParser.Parse(strBytes.data(), strBytes.size()));
  EXPECT_EQ(strPing.size(), stParser.Size());
}

TEST(KvRequestParserTest, ResetStartsTheSameRequestAgain) {
  RequestParser stParser(LIMITS);
  const std::string strBytes = Request({"GET", "a"});
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(RequestParser::COMPLETE, stParser.Parse(strBytes.data(), strBytes.size()));
    EXPECT_EQ((Words_t{"GET", "a"}), WordsOf(stParser));
    stParser.Reset();
  }
}

TEST(KvRequestParserTest, NumberOfElementsIsLimited) {
  EXPECT_EQ("", ErrorOf("*8\r\n"));
  EXPECT_EQ("invalid multibulk length, more than the limit of 8 elements (limits.elements)",
            ErrorOf("*9\r\n"));
  EXPECT_EQ(8u, ParseAll(Request(Words_t(8, "x"))).at(0).size());
}

TEST(KvRequestParserTest, LengthOfAnElementIsLimitedBeforeItsBytesCome) {
  EXPECT_EQ("", ErrorOf("*1\r\n$100\r\n"));
  EXPECT_EQ("invalid bulk length, more than the limit of 100 bytes (limits.value)",
            ErrorOf("*1\r\n$101\r\n"));
  EXPECT_EQ(Words_t{std::string(100, 'x')}, ParseAll(Request({std::string(100, 'x')})).at(0));
}

TEST(KvRequestParserTest, LengthOfARequestIsLimited) {
  const std::string strError = "request longer than the limit of 400 bytes (limits.request)";
  const std::string strThree = "*5\r\n" + Repeat(Bulk(std::string(100, 'x')), 3);
  const size_t iHead = std::string("$xx\r\n").size();
  const auto strRest = std::to_string(400 - strThree.size() - iHead);
  ASSERT_EQ(2u, strRest.size());
  EXPECT_EQ("", ErrorOf(strThree + "$" + strRest + "\r\n"));
  EXPECT_EQ(strError, ErrorOf(strThree + "$" + std::to_string(std::stoi(strRest) + 1) + "\r\n"));
}

TEST(KvRequestParserTest, LengthOfALineIsLimited) {
  const std::string strError =
      "too big inline request, more than the limit of 64 bytes (limits.inline)";
  EXPECT_EQ("", ErrorOf(std::string(64, 'x')));
  EXPECT_EQ("", ErrorOf(std::string(64, 'x') + "\n"));
  EXPECT_EQ(strError, ErrorOf(std::string(65, 'x')));
  EXPECT_EQ(strError, ErrorOf(std::string(65, 'x') + "\n"));
}

TEST(KvRequestParserTest, MalformedNumberOfElements) {
  for (const char* pHead :
       {"*\r\n", "*x\r\n", "*1x\r\n", "*+1\r\n", "* 1\r\n", "*-\r\n", "*1\n", "*\n", "*1.0\r\n",
        "*0x1\r\n", "*1\r1\r\n", "*9999999999999999999\r\n", "*18446744073709551617\r\n",
        "*1$4\r\nPING\r\n", "*01\r\n", "*00\r\n", "*-0\r\n", "*-01\r\n"}) {
    EXPECT_EQ("invalid multibulk length", ErrorOf(pHead)) << pHead;
  }
}

TEST(KvRequestParserTest, MalformedLengthOfAnElement) {
  for (const char* pHead :
       {"$\r\n", "$x\r\n", "$-1\r\n", "$-2\r\n", "$+1\r\n", "$4\n", "$ 4\r\n", "$4 \r\n",
        "$9999999999999999999\r\n", "$18446744073709551617\r\n", "$04\r\n", "$00\r\n", "$-0\r\n"}) {
    EXPECT_EQ("invalid bulk length", ErrorOf(std::string("*1\r\n") + pHead)) << pHead;
  }
}

TEST(KvRequestParserTest, ALengthWithoutEndIsNotWaitedFor) {
  EXPECT_EQ("", ErrorOf("*" + std::string(18, '1')));
  EXPECT_EQ("", ErrorOf("*-" + std::string(18, '1')));
  EXPECT_EQ("invalid multibulk length", ErrorOf("*" + std::string(19, '1')));
  EXPECT_EQ("invalid bulk length", ErrorOf("*1\r\n$" + std::string(19, '1')));
  EXPECT_EQ("invalid bulk length", ErrorOf("*1\r\n$x"));
}

TEST(KvRequestParserTest, ElementsStartWithADollarAndEndWithALineEnd) {
  EXPECT_EQ("expected '$', got '*'", ErrorOf("*1\r\n*1\r\n"));
  EXPECT_EQ("expected '$', got 'P'", ErrorOf("*1\r\nPING\r\n"));
  EXPECT_EQ("bulk string does not end with a line end", ErrorOf("*1\r\n$4\r\nPINGxx"));
  EXPECT_EQ("bulk string does not end with a line end", ErrorOf("*1\r\n$4\r\nPING\n\r"));
}

TEST(KvRequestParserTest, RequestsBeforeAMalformedOneAreGiven) {
  EXPECT_EQ((Requests_t{{"PING"}, {"error", "invalid multibulk length"}}),
            ParseAll(Request({"PING"}) + "*x\r\n" + Request({"PING"})));
}

TEST(KvRequestParserTest, WordsOfALineAreWhatStandsBetweenBlanks) {
  EXPECT_EQ((Requests_t{{"SET", "a", "b"}}), ParseAll(" \t SET  a\tb \r\n"));
  EXPECT_EQ((Requests_t{{"a\rb"}}), ParseAll("\"a\\rb\"\n"));
}

TEST(KvRequestParserTest, FormFeedsAreBlanksOnlyBetweenWords) {
  EXPECT_EQ((Requests_t{{"SET", "a\fb", "c\v"}}), ParseAll("\v\fSET \fa\fb\t\vc\v\r\n"));
  EXPECT_EQ((Requests_t{{"a", "b"}}), ParseAll("\"a\"\fb\r\n"));
}

TEST(KvRequestParserTest, DoubleQuotesHoldBlanksAndEscapes) {
  EXPECT_EQ((Requests_t{{"a b"}}), ParseAll("\"a b\"\r\n"));
  EXPECT_EQ((Requests_t{{""}}), ParseAll("\"\"\r\n"));
  EXPECT_EQ((Requests_t{{"\n\r\t\b\a\"\\q"}}), ParseAll("\"\\n\\r\\t\\b\\a\\\"\\\\\\q\"\r\n"));
  EXPECT_EQ((Requests_t{{"Aa\xff"}}), ParseAll("\"\\x41\\x61\\xFf\"\r\n"));
  EXPECT_EQ((Requests_t{{"xg1x4"}}), ParseAll("\"\\xg1\\x4\"\r\n"));
  EXPECT_EQ((Requests_t{{std::string("\0", 1)}}), ParseAll("\"\\x00\"\r\n"));
}

TEST(KvRequestParserTest, SingleQuotesKnowOnlyTheirOwnEscape) {
  EXPECT_EQ((Requests_t{{"a b'c\\n"}}), ParseAll("'a b\\'c\\n'\r\n"));
  EXPECT_EQ((Requests_t{{"it's"}}), ParseAll("\"it's\"\r\n"));
}

TEST(KvRequestParserTest, QuotesMustCloseAndEndTheirWord) {
  for (const char* pLine : {"\"abc\r\n", "'abc\r\n", "\"a\"b\r\n", "'a'b\r\n", "\"a\\\"\r\n",
                            "'a\\'\r\n", "\"\r\n", "a\"\r\n"}) {
    EXPECT_EQ("unbalanced quotes in request", ErrorOf(pLine)) << pLine;
  }
  EXPECT_EQ((Requests_t{{"ab c"}}), ParseAll("a\"b c\"\r\n"));
}

TEST(KvRequestParserTest, WordsOfALineStayUntilForgotten) {
  RequestParser stParser(LIMITS);
  const std::string strLines = "SET a \"first value\"\nSET b \"second value\"\n";
  ASSERT_EQ(RequestParser::COMPLETE, stParser.Parse(strLines.data(), strLines.size()));
  const std::vector<std::string_view> vecFirst = stParser.Arguments();
  const size_t iFirst = stParser.Size();
  stParser.Reset();
  const char* pSecond = strLines.data() + iFirst;
  ASSERT_EQ(RequestParser::COMPLETE, stParser.Parse(pSecond, strLines.size() - iFirst));
  EXPECT_EQ("first value", vecFirst[2]);
  EXPECT_EQ("second value", stParser.Arguments()[2]);
}

// A client that once sent a giant request costs no more than the others afterwards.
TEST(KvRequestParserTest, RoomForManyElementsIsNotKept) {
  for (const std::string& strBytes : {Request(Words_t(5000, "x")), Repeat("x ", 5000) + "\n"}) {
    RequestParser stParser({1 << 20, 1 << 20, 1 << 20, 1 << 24});
    ASSERT_EQ(RequestParser::COMPLETE, stParser.Parse(strBytes.data(), strBytes.size()));
    EXPECT_EQ(5000u, stParser.Arguments().size());
    stParser.Reset();
    stParser.Forget();
    EXPECT_LE(stParser.Arguments().capacity(), 1024u);
  }
}

// As ParseAll(), but no request is there as a whole when its beginning is read.
std::vector<Words_t> ParseByteByByte(const std::string& strBytes) {
  RequestParser stParser(LIMITS);
  std::vector<Words_t> vecRequests;
  size_t iStart = 0;
  for (size_t iEnd = 1; iEnd <= strBytes.size(); ++iEnd) {
    const auto eResult = stParser.Parse(strBytes.data() + iStart, iEnd - iStart);
    if (eResult == RequestParser::MALFORMED) {
      vecRequests.push_back({"error", stParser.Error()});
      break;
    }
    if (eResult == RequestParser::COMPLETE) {
      vecRequests.push_back(WordsOf(stParser));
      EXPECT_EQ(iEnd, iStart + stParser.Size());
      iStart = iEnd;
      stParser.Reset();
    }
  }
  return vecRequests;
}

// Requests at the limits and around them, with some bytes changed.
std::string OddBytes(std::minstd_rand& stRandom) {
  const char* const apCounts[] = {"0",  "1",  "2",    "3",    "8",    "9",
                                  "-1", "01", "0001", "1000", "10000"};
  const auto Below = [&stRandom](size_t iEnd) { return stRandom() % iEnd; };
  std::string strBytes;
  for (size_t iRequest = Below(4) + 1; iRequest > 0; --iRequest) {
    Words_t vecWords;
    for (size_t i = Below(10); i > 0; --i) {
      vecWords.emplace_back(Below(4) == 0 ? 95 + Below(8) : Below(12), "a\r\n$"[Below(4)]);
    }
    const std::string strCount = apCounts[Below(11)];
    strBytes += Below(6) == 0 ? "*" + strCount + "\r\n$" + strCount + "\r\n" : Request(vecWords);
    strBytes += Below(6) == 0 ? "GET 'a b'\r\n" : "";
  }
  for (size_t i = Below(3); i > 0; --i) {
    strBytes[Below(strBytes.size())] = "0123456789*$-+ \r\n\"'a"[Below(21)];
  }
  return strBytes;
}

// What is there as a whole is read in another way than what comes in pieces.
TEST(KvRequestParserTest, WholeRequestsAreReadAsThoseInPieces) {
  std::minstd_rand stRandom(3);
  for (int i = 0; i < 20000; ++i) {
    const std::string strBytes = OddBytes(stRandom);
    ASSERT_EQ(ParseByteByByte(strBytes), ParseAll(strBytes)) << strBytes;
  }
}

// CPU seconds for a request whose bytes come one by one.
double CostByteByByte(const std::string& strBytes) {
  RequestParser stParser({1 << 20, 1 << 20, 1 << 20, 1 << 24});
  const clock_t iStart = clock();
  for (size_t i = 1; i <= strBytes.size(); ++i) {
    stParser.Parse(strBytes.data(), i);
  }
  EXPECT_FALSE(stParser.Arguments().empty());
  return static_cast<double>(clock() - iStart) / CLOCKS_PER_SEC;
}

// A thousand times the bytes of a short request, in single bytes: some milliseconds when each is
// looked at once, minutes when everything is looked at again.
TEST(KvRequestParserTest, BytesThatWereLookedAtAreNotLookedAtAgain) {
  EXPECT_LT(CostByteByByte(std::string(1 << 20, 'x') + "\n"), 2.0);
  EXPECT_LT(CostByteByByte(Request({"SET", "a", std::string(1 << 20, 'x')})), 2.0);
  EXPECT_LT(CostByteByByte(Request(Words_t(100000, "x"))), 2.0);
}

// Room for so much can not be had: an attempt would throw.
TEST(KvRequestParserTest, NothingIsReservedForWhatIsOnlyAnnounced) {
  RequestParser stParser({uint64_t{1} << 40, uint64_t{1} << 40, 64, uint64_t{1} << 41});
  const std::string strBytes = "*1099511627776\r\n$1099511627776\r\nabc";
  EXPECT_EQ(RequestParser::NEED_MORE, stParser.Parse(strBytes.data(), strBytes.size()));
}

}  // namespace
