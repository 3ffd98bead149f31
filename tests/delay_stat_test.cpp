#include "delay_stat.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

#include "test_support.h"

namespace {
size_t g_iAllocations = 0;
}

// Out of line: inlined, malloc() would face a delete that the compiler knows by name.
[[gnu::noinline]] void* operator new(size_t iSize) {
  ++g_iAllocations;
  void* pBlock = malloc(iSize != 0 ? iSize : 1);
  if (pBlock == nullptr) {
    throw std::bad_alloc();
  }
  return pBlock;
}
[[gnu::noinline]] void operator delete(void* pBlock) noexcept { free(pBlock); }
[[gnu::noinline]] void operator delete(void* pBlock, size_t /*iSize*/) noexcept { free(pBlock); }

namespace {

typedef std::map<unsigned int, unsigned int> Buckets;

timeval At(time_t iSeconds, suseconds_t iMicroseconds = 0) { return {iSeconds, iMicroseconds}; }

timeval Now() {
  timeval tvNow{};
  gettimeofday(&tvNow, nullptr);
  return tvNow;
}

bool Before(const timeval& tvA, const timeval& tvB) { return timercmp(&tvA, &tvB, <=); }

class DelayStatTest : public ::testing::Test, protected DelayStat {
 protected:
  const StatItem_t& Item(const std::string& strTag) const { return m_mapData.at(strTag); }
  // The values pushed under a tag, as far as one sample tells them.
  unsigned int OnlyValue(const std::string& strTag) const {
    EXPECT_EQ(1u, Item(strTag).iCount);
    return static_cast<unsigned int>(Item(strTag).iTotal);
  }
  bool HasNoSamples() const { return m_mapData.empty() && m_iTagMaxSize == 0 && m_iMaxKey == 0; }
  void Begin(const char* pTag, const char* pIdentifier, timeval tvTime) {
    BeginData(pTag, pIdentifier, &tvTime);
  }
  void End(const char* pIdentifier, timeval tvTime) { EndData(pIdentifier, &tvTime); }
  void Open(const char* pSession, timeval tvTime) { BeginSession(pSession, &tvTime); }
  void Step(const char* pSession, const char* pTag, uint32_t iFrom, uint32_t iTo, timeval tvTime) {
    SubStat(pSession, pTag, iFrom, iTo, &tvTime);
  }
  void Close(const char* pSession, timeval tvTime, const char* pTag) {
    EndSession(pSession, &tvTime, pTag);
  }
};

TEST_F(DelayStatTest, StartsEmptyWithItsDefaults) {
  EXPECT_EQ(2000u, m_iMax);
  EXPECT_EQ(50u, m_iInterval);
  EXPECT_TRUE(HasNoSamples());
  EXPECT_TRUE(m_mapTempData.empty());
  EXPECT_TRUE(m_mapSessionData.empty());
}

// So long that the text stands apart from the note of the beginning, which is gone with the end.
TEST_F(DelayStatTest, LongTagOfABeginningIsCountedWholeAtItsEnd) {
  const std::string strTag(100, 't');
  Begin(strTag.c_str(), "id", {1, 0});
  End("id", {1, 7000});
  EXPECT_EQ(7u, OnlyValue(strTag));
  EXPECT_EQ(1u, m_mapData.size());
}

TEST_F(DelayStatTest, BucketsHaveTheirEdgesAtMultiplesOfTheInterval) {
  for (const auto& [iValue, iBucket] : std::vector<std::pair<unsigned int, unsigned int>>{
           {0, 0}, {49, 0}, {50, 1}, {99, 1}, {100, 2}, {1999, 39}, {2000, 40}, {100000, 40}}) {
    Clear();
    PushData("tag", iValue);
    EXPECT_EQ((Buckets{{iBucket, 1}}), Item("tag").mapInterval) << iValue;
    EXPECT_EQ(iBucket, m_iMaxKey) << iValue;
  }
}

TEST_F(DelayStatTest, SamplesOfATagAddUp) {
  for (const unsigned int iValue : {0u, 49u, 50u, 1999u, 2000u, 100000u}) {
    PushData("tag", iValue);
  }
  EXPECT_EQ((Buckets{{0, 2}, {1, 1}, {39, 1}, {40, 2}}), Item("tag").mapInterval);
  EXPECT_EQ(6u, Item("tag").iCount);
  EXPECT_EQ(0u, Item("tag").iMin);
  EXPECT_EQ(100000u, Item("tag").iMax);
  EXPECT_EQ(104098u, Item("tag").iTotal);
}

TEST_F(DelayStatTest, MinimumIsNeverAbove5000) {
  PushData("slow", 6000);
  EXPECT_EQ(5000u, Item("slow").iMin);
  EXPECT_EQ(6000u, Item("slow").iMax);
  EXPECT_EQ(6000u, Item("slow").iTotal);
  PushData("slow", 4999);
  EXPECT_EQ(4999u, Item("slow").iMin);
}

TEST_F(DelayStatTest, TotalHas64Bits) {
  PushData("tag", 4294967295u);
  PushData("tag", 4294967295u);
  EXPECT_EQ(uint64_t{2} * 4294967295u, Item("tag").iTotal);
}

TEST_F(DelayStatTest, TagsAreApartAndTheLongestIsKnown) {
  PushData("a", 1);
  PushData("longer", 60);
  PushData("bb", 2);
  EXPECT_EQ(3u, m_mapData.size());
  EXPECT_EQ(1u, Item("a").iTotal);
  EXPECT_EQ(2u, Item("bb").iTotal);
  EXPECT_EQ(6u, m_iTagMaxSize);
  EXPECT_EQ(1u, m_iMaxKey);
}

TEST_F(DelayStatTest, EmptyTagIsATag) {
  PushData("", 7);
  EXPECT_EQ(7u, OnlyValue(""));
  EXPECT_EQ(0u, m_iTagMaxSize);
}

TEST_F(DelayStatTest, KnownTagAndBucketCostNoAllocation) {
  const char* pTag = "a tag that is too long for the inside of a string";
  PushData(pTag, 10);
  const size_t iBefore = g_iAllocations;
  PushData(pTag, 20);
  EXPECT_EQ(iBefore, g_iAllocations);
  EXPECT_EQ(30u, Item(pTag).iTotal);
}

TEST_F(DelayStatTest, SetIntervalChangesTheBucketsOfLaterSamples) {
  SetInterval(100, 10, 99);
  EXPECT_EQ(100u, m_iMax);
  EXPECT_EQ(10u, m_iInterval);
  for (const unsigned int iValue : {9u, 10u, 99u, 100u, 5000u}) {
    PushData("tag", iValue);
  }
  EXPECT_EQ((Buckets{{0, 1}, {1, 1}, {9, 1}, {10, 2}}), Item("tag").mapInterval);
}

TEST_F(DelayStatTest, MaxThatIsNoMultipleSharesItsBucketWithTheLastValues) {
  SetInterval(105, 10, 0);
  for (const unsigned int iValue : {99u, 100u, 104u, 105u, 9999u}) {
    PushData("tag", iValue);
  }
  EXPECT_EQ((Buckets{{9, 1}, {10, 4}}), Item("tag").mapInterval);
}

TEST_F(DelayStatTest, BucketsFarUpAreCountedLikeOthers) {
  SetInterval(4294967295u, 1, 0);
  for (int i = 0; i < 3; ++i) {
    for (const unsigned int iValue : {0u, 254u, 255u, 256u, 257u, 4294967295u}) {
      PushData("tag", iValue);
    }
  }
  EXPECT_EQ((Buckets{{0, 3}, {254, 3}, {255, 3}, {256, 3}, {257, 3}, {4294967295u, 3}}),
            Item("tag").mapInterval);
  EXPECT_EQ(4294967295u, m_iMaxKey);
}

TEST_F(DelayStatTest, BucketsFarUpTakeNoRoomForThoseBelow) {
  SetInterval(4294967295u, 1, 0);
  for (const unsigned int iValue : {255u, 256u, 100000u, 4294967295u}) {
    PushData("tag", iValue);
  }
  EXPECT_EQ(256u, m_mapData.at("tag").vecIndex.size());
}

// More tags than are found without a search, of all lengths, and some that differ in one place
// only.
TEST_F(DelayStatTest, ManyTagsAreApart) {
  std::vector<std::string> vecTags{""};
  for (const char cTag : {'a', 'b', '\xff'}) {
    for (size_t i = 1; i < 300; ++i) {
      vecTags.push_back(std::string(i / 2, '-') + cTag + std::string(i % 17, '-'));
    }
  }
  std::map<std::string, unsigned int> mapExpected;
  for (int i = 0; i < 3; ++i) {
    for (const std::string& strTag : vecTags) {
      PushData(strTag.c_str(), 1);
      ++mapExpected[strTag];
    }
  }
  ASSERT_EQ(mapExpected.size(), m_mapData.size());
  for (const auto& [strTag, iCount] : mapExpected) {
    EXPECT_EQ(iCount, Item(strTag).iCount) << strTag;
  }
}

TEST_F(DelayStatTest, TagsThatADerivedClassRemovesOrAddsAreCountedInTheMap) {
  PushData("a", 1);
  m_mapData.clear();
  PushData("a", 2);
  EXPECT_EQ(2u, OnlyValue("a"));
  m_mapData["b"].iCount = 7;
  PushData("b", 3);
  PushData("a", 3);
  EXPECT_EQ(8u, Item("b").iCount);
  EXPECT_EQ(2u, Item("a").iCount);
}

// The sanitizer sees a tag that is looked for among those that are gone.
TEST_F(DelayStatTest, AsManyTagsAsWereClearedMayBeAddedByADerivedClass) {
  PushData("a", 1);
  Clear();
  m_mapData["b"].iCount = 7;
  PushData("a", 2);
  PushData("b", 3);
  EXPECT_EQ(2u, OnlyValue("a"));
  EXPECT_EQ(8u, Item("b").iCount);
}

TEST_F(DelayStatTest, BucketsAreCountedAnewAfterClear) {
  for (int i = 0; i < 2; ++i) {
    PushData("tag", 60);
    PushData("tag", 10);
    PushData("tag", 60);
    EXPECT_EQ((Buckets{{0, 1}, {1, 2}}), Item("tag").mapInterval);
    Clear();
  }
}

TEST_F(DelayStatTest, DifferenceTakesSecondsAndMicrosecondsApart) {
  EXPECT_EQ(1, DiffTimeValue(At(1, 999999), At(2, 0)));
  EXPECT_EQ(1000, DiffTimeValue(At(1, 999), At(2, 0)));
  EXPECT_EQ(0, DiffTimeValue(At(1, 0), At(1, 999)));
  EXPECT_EQ(1, DiffTimeValue(At(1, 0), At(1, 1000)));
  EXPECT_EQ(2999, DiffTimeValue(At(1, 1000), At(4, 0)));
}

TEST_F(DelayStatTest, DifferenceIsNegativeForAnEndBeforeItsBegin) {
  EXPECT_EQ(-1, DiffTimeValue(At(1, 1000), At(1, 0)));
  EXPECT_EQ(0, DiffTimeValue(At(1, 999), At(1, 0)));
  EXPECT_EQ(-1000, DiffTimeValue(At(2, 0), At(1, 999)));
}

TEST_F(DelayStatTest, DifferenceHas32Bits) {
  EXPECT_EQ(2147483647, DiffTimeValue(At(0), At(2147483, 647000)));
  EXPECT_EQ(-2147483647 - 1, DiffTimeValue(At(0), At(2147483, 648000)));
}

TEST_F(DelayStatTest, SampleOfTwoTimesIsTheirDifference) {
  timeval tvBegin = At(1, 500000);
  timeval tvEnd = At(3, 0);
  PushData("tag", tvBegin, tvEnd);
  EXPECT_EQ(1500u, OnlyValue("tag"));
}

TEST_F(DelayStatTest, EndOneMillisecondBeforeItsBeginIsAHugeSample) {
  timeval tvBegin = At(1, 1000);
  timeval tvEnd = At(1, 0);
  PushData("tag", tvBegin, tvEnd);
  EXPECT_EQ(4294967295u, Item("tag").iMax);
  EXPECT_EQ(4294967295u, Item("tag").iTotal);
  EXPECT_EQ(5000u, Item("tag").iMin);
  EXPECT_EQ((Buckets{{40, 1}}), Item("tag").mapInterval);
}

TEST_F(DelayStatTest, MeasurementIsPushedAtItsEnd) {
  Begin("tag", "id", At(10));
  EXPECT_TRUE(HasNoSamples());
  End("id", At(10, 120000));
  EXPECT_EQ(120u, OnlyValue("tag"));
  EXPECT_TRUE(m_mapTempData.empty());
}

TEST_F(DelayStatTest, EndWithoutBeginChangesNothing) {
  End("id", At(10));
  EXPECT_TRUE(HasNoSamples());
  Begin("tag", "id", At(10));
  End("other", At(11));
  EXPECT_TRUE(HasNoSamples());
  EXPECT_EQ(1u, m_mapTempData.size());
}

TEST_F(DelayStatTest, SecondEndChangesNothing) {
  Begin("tag", "id", At(10));
  End("id", At(11));
  End("id", At(12));
  EXPECT_EQ(1000u, OnlyValue("tag"));
}

TEST_F(DelayStatTest, BeginningAgainRestartsUnderTheNewTag) {
  Begin("old", "id", At(10));
  Begin("new", "id", At(11));
  End("id", At(13));
  EXPECT_EQ(0u, m_mapData.count("old"));
  EXPECT_EQ(2000u, OnlyValue("new"));
}

TEST_F(DelayStatTest, MeasurementsWithDifferentIdentifiersOverlap) {
  Begin("tag", "1", At(10));
  Begin("tag", "2", At(11));
  End("1", At(12));
  End("2", At(15));
  EXPECT_EQ(2u, Item("tag").iCount);
  EXPECT_EQ(2000u, Item("tag").iMin);
  EXPECT_EQ(4000u, Item("tag").iMax);
}

TEST_F(DelayStatTest, NegativeMeasurementIsAHugeSample) {
  Begin("tag", "id", At(10, 1000));
  End("id", At(10));
  EXPECT_EQ(4294967295u, OnlyValue("tag"));
}

TEST_F(DelayStatTest, NullTimeOfABeginIsNow) {
  const timeval tvBefore = Now();
  BeginData("tag", "id", nullptr);
  BeginSession("session", nullptr);
  SubStat("session", nullptr, 0, 1, nullptr);
  const timeval tvAfter = Now();
  for (const timeval& tvTaken : {m_mapTempData["id"].tvBegin, m_mapSessionData["session"][0],
                                 m_mapSessionData["session"][1]}) {
    EXPECT_TRUE(Before(tvBefore, tvTaken));
    EXPECT_TRUE(Before(tvTaken, tvAfter));
  }
}

TEST_F(DelayStatTest, NullTimeOfAnEndIsNow) {
  const timeval tvBefore = Now();
  Begin("data", "id", At(tvBefore.tv_sec - 1000));
  Open("session", At(tvBefore.tv_sec - 1000));
  EndData("id", nullptr);
  EndSession("session", nullptr, "session");
  const int iPassed = DiffTimeValue(At(tvBefore.tv_sec - 1000), Now());
  for (const char* pTag : {"data", "session"}) {
    EXPECT_GE(OnlyValue(pTag), 1000000u + static_cast<unsigned int>(tvBefore.tv_usec / 1000));
    EXPECT_LE(OnlyValue(pTag), static_cast<unsigned int>(iPassed));
  }
}

TEST(DelayStatDeathTest, NullIdentifierIsAFailedAssertion) {
  DelayStat stStat;
  EXPECT_EXIT(stStat.BeginData("tag", nullptr, nullptr), ::testing::KilledBySignal(SIGABRT),
              "delay_stat\\.cpp.*DelayStat::BeginData.*Assertion `pIdentifier' failed");
}

TEST_F(DelayStatTest, SessionIsMeasuredFromItsBegin) {
  Open("s", At(10));
  Close("s", At(12), "tag");
  EXPECT_EQ(2000u, OnlyValue("tag"));
  EXPECT_TRUE(m_mapSessionData.empty());
}

TEST_F(DelayStatTest, BeginningASessionTwiceKeepsTheFirstStart) {
  Open("s", At(10));
  Step("s", nullptr, 0, 1, At(11));
  Open("s", At(15));
  EXPECT_EQ(2u, m_mapSessionData["s"].size());
  Close("s", At(20), "tag");
  EXPECT_EQ(10000u, OnlyValue("tag"));
}

TEST_F(DelayStatTest, StepsAreMeasuredFromEachOther) {
  Open("s", At(10));
  Step("s", "0-1", 0, 1, At(11));
  Step("s", "1-2", 1, 2, At(13));
  Step("s", "0-3", 0, 3, At(16));
  EXPECT_EQ(1000u, OnlyValue("0-1"));
  EXPECT_EQ(2000u, OnlyValue("1-2"));
  EXPECT_EQ(6000u, OnlyValue("0-3"));
}

TEST_F(DelayStatTest, StepOfAnUnknownSessionMakesNone) {
  Step("s", "tag", 0, 1, At(11));
  EXPECT_TRUE(HasNoSamples());
  EXPECT_TRUE(m_mapSessionData.empty());
}

TEST_F(DelayStatTest, StepFromAnUnrecordedOneIsOnlyNoted) {
  Open("s", At(10));
  Step("s", "tag", 7, 1, At(11));
  EXPECT_TRUE(HasNoSamples());
  EXPECT_EQ(0u, m_mapSessionData["s"].count(7));
  Step("s", "later", 1, 2, At(14));
  EXPECT_EQ(3000u, OnlyValue("later"));
}

TEST_F(DelayStatTest, StepWithoutTagIsOnlyNoted) {
  Open("s", At(10));
  Step("s", nullptr, 0, 1, At(11));
  EXPECT_TRUE(HasNoSamples());
  EXPECT_EQ(11, m_mapSessionData["s"][1].tv_sec);
}

TEST_F(DelayStatTest, StepKeepsItsFirstTimeAndIsMeasuredWithIt) {
  Open("s", At(10));
  Step("s", nullptr, 0, 1, At(11));
  Step("s", "tag", 0, 1, At(19));
  EXPECT_EQ(1000u, OnlyValue("tag"));
  EXPECT_EQ(11, m_mapSessionData["s"][1].tv_sec);
}

TEST_F(DelayStatTest, StepZeroIsTheBeginAlsoWhenNotedAgain) {
  Open("s", At(10));
  Step("s", "zero", 0, 0, At(19));
  EXPECT_EQ(0u, OnlyValue("zero"));
  Close("s", At(20), "tag");
  EXPECT_EQ(10000u, OnlyValue("tag"));
}

TEST_F(DelayStatTest, StepFromItselfIsNoTime) {
  Open("s", At(10));
  Step("s", "tag", 5, 5, At(19));
  EXPECT_EQ(0u, OnlyValue("tag"));
}

TEST_F(DelayStatTest, LargestStepNumberIsAStep) {
  Open("s", At(10));
  Step("s", "tag", 0, 4294967295u, At(11));
  EXPECT_EQ(1000u, OnlyValue("tag"));
}

TEST_F(DelayStatTest, SessionEndedWithoutTagIsDropped) {
  Open("s", At(10));
  Close("s", At(12), nullptr);
  EXPECT_TRUE(HasNoSamples());
  EXPECT_TRUE(m_mapSessionData.empty());
}

TEST_F(DelayStatTest, EndOfAnUnknownSessionChangesNothing) {
  Open("s", At(10));
  Close("other", At(12), "tag");
  EXPECT_TRUE(HasNoSamples());
  EXPECT_EQ(1u, m_mapSessionData.size());
}

TEST_F(DelayStatTest, SessionWhoseBeginADerivedClassRemovedIsOnlyDropped) {
  Open("s", At(10));
  m_mapSessionData["s"].erase(0);
  Close("s", At(12), "tag");
  EXPECT_TRUE(HasNoSamples());
  EXPECT_TRUE(m_mapSessionData.empty());
}

TEST_F(DelayStatTest, EndedSessionHasLostItsSteps) {
  Open("s", At(10));
  Step("s", nullptr, 0, 1, At(11));
  Close("s", At(12), "tag");
  Open("s", At(20));
  Step("s", "tag1", 1, 2, At(21));
  EXPECT_EQ(0u, m_mapData.count("tag1"));
}

TEST_F(DelayStatTest, ClearForgetsSamplesAndWidths) {
  PushData("a long tag", 100000);
  Clear();
  EXPECT_TRUE(HasNoSamples());
  PushData("b", 60);
  EXPECT_EQ(1u, m_iMaxKey);
  EXPECT_EQ(1u, m_iTagMaxSize);
  EXPECT_EQ(60u, OnlyValue("b"));
}

TEST_F(DelayStatTest, ClearKeepsOpenMeasurementsAndSettings) {
  SetInterval(100, 10, 0);
  Begin("data", "id", At(10));
  Open("s", At(10));
  Step("s", nullptr, 0, 1, At(11));
  Clear();
  EXPECT_EQ(100u, m_iMax);
  EXPECT_EQ(10u, m_iInterval);
  End("id", At(12));
  Step("s", "step", 1, 2, At(14));
  Close("s", At(15), "session");
  EXPECT_EQ(2000u, OnlyValue("data"));
  EXPECT_EQ(3000u, OnlyValue("step"));
  EXPECT_EQ(5000u, OnlyValue("session"));
}

TEST_F(DelayStatTest, NamesAreCopied) {
  char szName[] = "name";
  Begin(szName, szName, At(10));
  Open(szName, At(10));
  szName[0] = 'X';
  End("name", At(11));
  Close("name", At(11), "session");
  EXPECT_EQ(1000u, OnlyValue("name"));
  EXPECT_EQ(1000u, OnlyValue("session"));
}

}  // namespace
