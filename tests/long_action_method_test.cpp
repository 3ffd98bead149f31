#include <gtest/gtest.h>
#include <signal.h>

#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "long_action_util.h"
#include "test_support.h"

using namespace std::string_literals;

namespace {

// The protected operations, and the parameters as a list.
class OpenMethod : public LongActionMethod {
 public:
  typedef std::vector<std::pair<std::string, std::string>> Pairs_t;

  using LongActionMethod::Param;
  using LongActionMethod::Parse;
  using LongActionMethod::PeekBuffer;
  using LongActionMethod::PeekUnsigned;
  using LongActionMethod::SerializeToString;

  Pairs_t Params() const { return Pairs_t(m_mapParams.begin(), m_mapParams.end()); }
  Pairs_t Results() const { return Pairs_t(m_mapResults.begin(), m_mapResults.end()); }

  bool Parse(const std::string& strBytes) {
    return Parse(strBytes.data(), static_cast<unsigned int>(strBytes.size()));
  }
  bool ParseRequest(const std::string& strBytes) {
    return LongActionMethod::ParseRequest(strBytes.data(),
                                          static_cast<unsigned int>(strBytes.size()));
  }
  bool ParseResult(const std::string& strBytes) {
    return LongActionMethod::ParseResult(strBytes.data(),
                                         static_cast<unsigned int>(strBytes.size()));
  }
};

typedef OpenMethod::Pairs_t Pairs_t;

std::string Length(unsigned int iLength) {
  return std::string(reinterpret_cast<const char*>(&iLength), sizeof(iLength));
}

std::string Field(const std::string& strData) {
  return Length(static_cast<unsigned int>(strData.size())) + strData;
}

std::string Fields(const std::vector<std::string>& vecData) {
  std::string strBytes;
  for (const std::string& strData : vecData) {
    strBytes += Field(strData);
  }
  return strBytes;
}

// ---- Accessors

TEST(LongActionMethodTest, MethodKeyIsTheTextOfTheFormat) { EXPECT_EQ("_METHOD_KEY_", METHOD_KEY); }

TEST(LongActionMethodTest, NewObjectIsEmptyAndACarrier) {
  const OpenMethod stMethod;
  EXPECT_EQ("", stMethod.Method());
  EXPECT_EQ(-1, stMethod.Retcode());
  EXPECT_EQ(nullptr, stMethod.Parent());
  EXPECT_TRUE(stMethod.Params().empty());
  EXPECT_TRUE(stMethod.Results().empty());
}

TEST(LongActionMethodTest, BaseClassAbortsInDo) {
  EXPECT_EXIT(LongActionMethod().Do(), ::testing::KilledBySignal(SIGABRT), "");
}

TEST(LongActionMethodTest, DumpWritesNothing) {
  LongActionMethod stMethod;
  stMethod.Method("name");
  stMethod.Param("key", "value");
  EXPECT_EQ("", CaptureDescriptor([&](int iFD) { stMethod.Dump(iFD); }));
}

TEST(LongActionMethodTest, DoStandsBehindDumpInTheVirtualTable) {
  struct Probe : LongActionMethod {
    int Do() override { return 4711; }
  } stProbe;
  // destructor, deleting destructor, Dump, Do
  void** pTable = nullptr;
  LongActionMethod* pMethod = &stProbe;
  memcpy(&pTable, static_cast<const void*>(pMethod), sizeof(pTable));
  int (*fnDo)(LongActionMethod*) = nullptr;
  memcpy(&fnDo, &pTable[3], sizeof(fnDo));
  EXPECT_EQ(4711, fnDo(&stProbe));
}

TEST(LongActionMethodTest, ParamCountsTheValuesOfAKeyInArrivalOrder) {
  LongActionMethod stMethod;
  stMethod.Param("key", "second letter");
  stMethod.Param("key", "a later one");
  stMethod.Param("kez", "other key");
  EXPECT_EQ("second letter", stMethod.Param("key", 0));
  EXPECT_EQ("a later one", stMethod.Param("key", 1));
  EXPECT_EQ("", stMethod.Param("key", 2));
  EXPECT_EQ("", stMethod.Param("key", -1));
  EXPECT_EQ("", stMethod.Param("key", INT_MIN));
}

TEST(LongActionMethodTest, MissingParamIsOneEmptyStringForAll) {
  LongActionMethod stOne;
  const LongActionMethod stOther;
  stOne.Param("key", "");
  const std::string* pMissing = &stOne.Param("missing", 0);
  EXPECT_EQ("", *pMissing);
  EXPECT_EQ(pMissing, &stOther.Param("other", 0));
  EXPECT_EQ(pMissing, &stOne.Param("key", 1));
  EXPECT_NE(pMissing, &stOne.Param("key", 0));
}

TEST(LongActionMethodTest, ParamAsksTheRootOfTheParentsAlone) {
  LongActionMethod stRoot;
  LongActionMethod stMiddle;
  LongActionMethod stLeaf;
  stLeaf.Parent(&stMiddle);
  stMiddle.Parent(&stRoot);
  stRoot.Param("root", "r");
  stMiddle.Param("middle", "m");
  stLeaf.Param("leaf", "l");
  EXPECT_EQ(&stMiddle, stLeaf.Parent());
  EXPECT_EQ("r", stLeaf.Param("root", 0));
  EXPECT_EQ("", stLeaf.Param("middle", 0));
  EXPECT_EQ("", stLeaf.Param("leaf", 0));
  EXPECT_EQ("", stRoot.Param("leaf", 0));
}

TEST(LongActionMethodTest, ClearKeepsTheParentAlone) {
  LongActionMethod stParent;
  OpenMethod stMethod;
  stMethod.Method("name");
  stMethod.Param("key", "value");
  stMethod.ResultParam("result", "value");
  stMethod.Parent(&stParent);
  stMethod.Clear();
  EXPECT_EQ("", stMethod.Method());
  EXPECT_TRUE(stMethod.Params().empty());
  EXPECT_TRUE(stMethod.Results().empty());
  EXPECT_EQ(-1, stMethod.Retcode());
  EXPECT_EQ(&stParent, stMethod.Parent());
}

// ---- Serialised form

TEST(LongActionSerializeTest, RequestIsKeyNameAndParameters) {
  LongActionMethod stMethod;
  stMethod.Method("ExecuteShell2");
  stMethod.Param("command", "ls");
  const std::string strBytes =
      "\x0c\0\0\0_METHOD_KEY_"
      "\x0d\0\0\0ExecuteShell2"
      "\x07\0\0\0command"
      "\x02\0\0\0ls"s;
  ASSERT_EQ(50u, strBytes.size());
  EXPECT_EQ(strBytes, stMethod.SerializeRequest());
}

TEST(LongActionSerializeTest, RequestWithoutParametersIsTwoFields) {
  LongActionMethod stMethod;
  stMethod.Method("name");
  EXPECT_EQ(Fields({"_METHOD_KEY_", "name"}), stMethod.SerializeRequest());
}

TEST(LongActionSerializeTest, RequestWithoutAnythingHasAnEmptyName) {
  EXPECT_EQ(Field("_METHOD_KEY_") + "\0\0\0\0"s, LongActionMethod().SerializeRequest());
}

TEST(LongActionSerializeTest, KeysAscendByByteAndEqualOnesStayInOrder) {
  LongActionMethod stMethod;
  for (const char* pKey : {"b", "\xff", "ab", "a", "B"}) {
    stMethod.Param(pKey, "1");
  }
  stMethod.Param("a\0"s, "1");
  stMethod.Param("ab", "0");
  EXPECT_EQ(Fields({"_METHOD_KEY_", "", "B", "1", "a", "1", "a\0"s, "1", "ab", "1", "ab", "0", "b",
                    "1", "\xff", "1"}),
            stMethod.SerializeRequest());
}

TEST(LongActionSerializeTest, MethodKeyComesFirstWhateverTheKeys) {
  LongActionMethod stMethod;
  stMethod.Method("name");
  stMethod.Param("A", "before it in byte order");
  EXPECT_EQ(Fields({"_METHOD_KEY_", "name", "A", "before it in byte order"}),
            stMethod.SerializeRequest());
}

TEST(LongActionSerializeTest, ResultHasNeitherNameNorParameters) {
  LongActionMethod stMethod;
  stMethod.Method("name");
  stMethod.Param("key", "value");
  EXPECT_EQ("", stMethod.SerializeResult());
  stMethod.ResultParam("z", "1");
  stMethod.ResultParam("a", "\0\n"s);
  stMethod.ResultParam("z", "0");
  EXPECT_EQ(Fields({"a", "\0\n"s, "z", "1", "z", "0"}), stMethod.SerializeResult());
}

TEST(LongActionSerializeTest, SerializeToStringAppends) {
  const OpenMethod stMethod;
  std::string strOut = "before";
  stMethod.SerializeToString(strOut, "abc", 2);
  stMethod.SerializeToString(strOut, "\0"s);
  stMethod.SerializeToString(strOut, "");
  EXPECT_EQ("before\x02\0\0\0ab\x01\0\0\0\0\0\0\0\0"s, strOut);
}

// ---- Steps of the parse

class PeekTest : public ::testing::Test {
 protected:
  bool Unsigned(unsigned int iLength) {
    return m_stMethod.PeekUnsigned(m_szBytes, iLength, m_iOffset, m_iValue);
  }
  bool Buffer(unsigned int iLength, unsigned int iCount) {
    return m_stMethod.PeekBuffer(m_szBytes, iLength, m_iOffset, iCount, m_strOut);
  }

  OpenMethod m_stMethod;
  const char m_szBytes[9] = "\x01\x02\x03\x04\x05\0\x07\x08";
  unsigned int m_iOffset = 1;
  unsigned int m_iValue = 99;
  std::string m_strOut = "before";
};

TEST_F(PeekTest, UnsignedTakesFourBytesAtAnyAddress) {
  EXPECT_TRUE(Unsigned(5));
  EXPECT_EQ(0x05040302u, m_iValue);
  EXPECT_EQ(5u, m_iOffset);
}

TEST_F(PeekTest, UnsignedOfTooFewBytesChangesNothing) {
  EXPECT_FALSE(Unsigned(4));
  EXPECT_FALSE(Unsigned(1));
  EXPECT_FALSE(Unsigned(0));
  EXPECT_EQ(1u, m_iOffset);
  EXPECT_EQ(99u, m_iValue);
}

TEST_F(PeekTest, BufferTakesAnyBytes) {
  EXPECT_TRUE(Buffer(8, 7));
  EXPECT_EQ("\x02\x03\x04\x05\0\x07\x08"s, m_strOut);
  EXPECT_EQ(8u, m_iOffset);
}

TEST_F(PeekTest, BufferOfNoBytesIsThereAtTheEndToo) {
  EXPECT_TRUE(Buffer(1, 0));
  EXPECT_EQ("", m_strOut);
  EXPECT_EQ(1u, m_iOffset);
}

TEST_F(PeekTest, BufferOfTooFewBytesChangesNothing) {
  EXPECT_FALSE(Buffer(8, 8));
  EXPECT_FALSE(Buffer(0, 1));
  EXPECT_EQ(1u, m_iOffset);
  EXPECT_EQ("before", m_strOut);
}

TEST_F(PeekTest, SumsThatWrapAreNoReason) {
  EXPECT_FALSE(Buffer(8, UINT_MAX));
  EXPECT_FALSE(Buffer(8, UINT_MAX - 1));
  m_iOffset = UINT_MAX - 1;
  EXPECT_FALSE(Unsigned(8));
  EXPECT_FALSE(Buffer(8, 4));
  EXPECT_EQ(UINT_MAX - 1, m_iOffset);
}

// ---- Parse

TEST(LongActionParseTest, NoBytesAreASuccessWithNothing) {
  OpenMethod stMethod;
  EXPECT_TRUE(stMethod.Parse(nullptr, 0));
  EXPECT_TRUE(stMethod.Params().empty());
}

TEST(LongActionParseTest, EveryCutBetweenStepsSucceedsAndEveryOtherFails) {
  const std::string strWhole = Fields({"key", "val", "k2", "v2"});
  // After which byte a step ends, and how many pairs are whole then.
  const std::map<size_t, size_t> mapSteps = {{0, 0},  {4, 0},  {7, 0},  {11, 0}, {14, 1},
                                             {18, 1}, {20, 1}, {24, 1}, {26, 2}};
  for (size_t iCut = 0; iCut <= strWhole.size(); ++iCut) {
    OpenMethod stMethod;
    const auto itStep = mapSteps.find(iCut);
    EXPECT_EQ(itStep != mapSteps.end(), stMethod.Parse(strWhole.substr(0, iCut))) << iCut;
    const size_t iPairs = std::prev(mapSteps.upper_bound(iCut))->second;
    EXPECT_EQ(iPairs, stMethod.Params().size()) << iCut;
  }
}

TEST(LongActionParseTest, LastValueOneByteShortFails) {
  OpenMethod stMethod;
  EXPECT_FALSE(stMethod.Parse(Fields({"key"}) + Length(3) + "va"));
  EXPECT_TRUE(stMethod.Params().empty());
}

TEST(LongActionParseTest, EndRightAfterAKeyDropsTheKey) {
  OpenMethod stMethod;
  EXPECT_TRUE(stMethod.Parse(Fields({"a", "1", "key"})));
  EXPECT_EQ((Pairs_t{{"a", "1"}}), stMethod.Params());
}

TEST(LongActionParseTest, EmptyLastValueIsDroppedAndEmptyEarlierOnesStay) {
  OpenMethod stMethod;
  EXPECT_TRUE(stMethod.Parse(Fields({"", "1", "a", "", "b", ""})));
  EXPECT_EQ((Pairs_t{{"", "1"}, {"a", ""}}), stMethod.Params());
}

TEST(LongActionParseTest, LengthsThatWrapTheOffsetFail) {
  for (const unsigned int iLength :
       {4u, 0x7fffffffu, 0xfffffff0u, 0xfffffffbu, 0xfffffffcu, 0xfffffffdu, 0xffffffffu}) {
    OpenMethod stKey;
    EXPECT_FALSE(stKey.Parse(Length(iLength) + "abc")) << iLength;
    OpenMethod stValue;
    EXPECT_FALSE(stValue.Parse(Field("key") + Length(iLength) + "abc")) << iLength;
    EXPECT_TRUE(stValue.Params().empty());
  }
}

TEST(LongActionParseTest, PairsBeforeAFailureStay) {
  OpenMethod stMethod;
  EXPECT_FALSE(stMethod.Parse(Fields({"b", "1", "a", "2"}) + "xyz"));
  EXPECT_EQ((Pairs_t{{"a", "2"}, {"b", "1"}}), stMethod.Params());
}

TEST(LongActionParseTest, EqualKeysStayInArrivalOrderBehindThoseThatAreThere) {
  OpenMethod stMethod;
  stMethod.Param("key", "there");
  stMethod.Param("last", "there");
  EXPECT_TRUE(stMethod.Parse(Fields({"key", "z", "a", "1", "key", "b", "last", "x"})));
  EXPECT_EQ((Pairs_t{{"a", "1"},
                     {"key", "there"},
                     {"key", "z"},
                     {"key", "b"},
                     {"last", "there"},
                     {"last", "x"}}),
            stMethod.Params());
}

TEST(LongActionParseTest, KeysAndValuesAreAnyBytes) {
  const std::string strAll = "\0\n\r=\x7f\x80\xff\"\\"s;
  OpenMethod stMethod;
  EXPECT_TRUE(stMethod.Parse(Fields({strAll, strAll + strAll})));
  EXPECT_EQ((Pairs_t{{strAll, strAll + strAll}}), stMethod.Params());
}

// ---- Requests and results

TEST(LongActionParseRequestTest, TakesTheNameOutOfTheParameters) {
  OpenMethod stMethod;
  EXPECT_TRUE(stMethod.ParseRequest(Fields({"_METHOD_KEY_", "name", "key", "value"})));
  EXPECT_EQ("name", stMethod.Method());
  EXPECT_EQ((Pairs_t{{"key", "value"}}), stMethod.Params());
}

TEST(LongActionParseRequestTest, NoBytesLackTheName) {
  OpenMethod stMethod;
  stMethod.Method("before");
  EXPECT_FALSE(stMethod.ParseRequest(""));
  EXPECT_EQ("before", stMethod.Method());
}

TEST(LongActionParseRequestTest, WithoutANameTheParametersStay) {
  OpenMethod stMethod;
  EXPECT_FALSE(stMethod.ParseRequest(Fields({"_METHOD_KEY", "1", "_METHOD_KEY_0", "2"})));
  EXPECT_EQ((Pairs_t{{"_METHOD_KEY", "1"}, {"_METHOD_KEY_0", "2"}}), stMethod.Params());
}

TEST(LongActionParseRequestTest, OnlyTheFirstNameIsTakenOut) {
  OpenMethod stMethod;
  EXPECT_TRUE(stMethod.ParseRequest(
      Fields({"key", "value", "_METHOD_KEY_", "first", "_METHOD_KEY_", "second"})));
  EXPECT_EQ("first", stMethod.Method());
  EXPECT_EQ((Pairs_t{{"_METHOD_KEY_", "second"}, {"key", "value"}}), stMethod.Params());
}

TEST(LongActionParseRequestTest, NameAmongEarlierParametersIsTheFirst) {
  OpenMethod stMethod;
  stMethod.Param("_METHOD_KEY_", "earlier");
  EXPECT_TRUE(stMethod.ParseRequest(Fields({"_METHOD_KEY_", "later"})));
  EXPECT_EQ("earlier", stMethod.Method());
  EXPECT_EQ("later", stMethod.Param("_METHOD_KEY_", 0));
}

TEST(LongActionParseRequestTest, FailureTakesNothingOut) {
  OpenMethod stMethod;
  stMethod.Method("before");
  EXPECT_FALSE(stMethod.ParseRequest(Fields({"_METHOD_KEY_", "name"}) + "x"));
  EXPECT_EQ("before", stMethod.Method());
  EXPECT_EQ((Pairs_t{{"_METHOD_KEY_", "name"}}), stMethod.Params());
}

TEST(LongActionParseRequestTest, EmptyNameIsKeptBeforeParametersAndLostAlone) {
  OpenMethod stMethod;
  stMethod.Method("before");
  EXPECT_FALSE(stMethod.ParseRequest(LongActionMethod().SerializeRequest()));
  EXPECT_TRUE(stMethod.ParseRequest(Fields({"_METHOD_KEY_", "", "key", "value"})));
  EXPECT_EQ("", stMethod.Method());
}

TEST(LongActionParseResultTest, PairsBecomeParameters) {
  LongActionMethod stSource;
  stSource.ResultParam("saved", "12");
  stSource.ResultParam("saved", "7");
  OpenMethod stMethod;
  stMethod.ResultParam("own", "result");
  EXPECT_TRUE(stMethod.ParseResult(stSource.SerializeResult()));
  EXPECT_EQ((Pairs_t{{"saved", "12"}, {"saved", "7"}}), stMethod.Params());
  EXPECT_EQ((Pairs_t{{"own", "result"}}), stMethod.Results());
}

TEST(LongActionParseResultTest, FailsAsTheParseDoes) {
  OpenMethod stMethod;
  EXPECT_TRUE(stMethod.ParseResult(""));
  EXPECT_FALSE(stMethod.ParseResult(Fields({"key", "value"}) + Length(1) + Length(9)));
  EXPECT_EQ("value", stMethod.Param("key", 0));
}

TEST(LongActionRoundTripTest, RandomRequestsComeBackAsTheyWere) {
  std::mt19937 stRandom(7);
  const auto RandomText = [&](size_t iLongest) {
    std::string strText(stRandom() % (iLongest + 1), '\0');
    for (char& cByte : strText) {
      cByte = static_cast<char>(stRandom() % 4);  // few values: many equal keys
    }
    return strText;
  };
  for (int i = 0; i < 2000; ++i) {
    OpenMethod stSource;
    stSource.Method(RandomText(40) + "x");
    for (size_t iPairs = stRandom() % 20; iPairs > 0; --iPairs) {
      stSource.Param(RandomText(3), RandomText(60));
    }
    stSource.Param("\xff", "an empty value can not be the last");
    OpenMethod stCopy;
    ASSERT_TRUE(stCopy.ParseRequest(stSource.SerializeRequest()));
    ASSERT_EQ(stSource.Method(), stCopy.Method());
    ASSERT_EQ(stSource.Params(), stCopy.Params());
  }
}

}  // namespace
