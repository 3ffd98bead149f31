#include "time_util.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/time.h>

#include <cctype>
#include <string>

#include "test_support.h"

namespace {

// Milliseconds since the epoch, cut.
int64_t Now() {
  timeval stNow{};
  gettimeofday(&stNow, nullptr);
  return int64_t{stNow.tv_sec} * 1000 + stNow.tv_usec / 1000;
}

// What a text of GenerateTimeString() says, as Now() counts.
int64_t TimeOf(const char* pText) {
  tm stLocal{};
  const char* pRest = strptime(pText, "[%Y-%m-%d %H:%M:%S,", &stLocal);
  stLocal.tm_isdst = -1;
  return pRest == nullptr ? -1 : int64_t{mktime(&stLocal)} * 1000 + atoi(pRest);
}

void SetZone(const char* pZone) {
  setenv("TZ", pZone, 1);
  tzset();
}

TEST(GenerateTimeStringTest, Has25CharactersOfAFixedForm) {
  std::string strText = GenerateTimeString();
  EXPECT_EQ(25u, strText.size());
  for (char& cCharacter : strText) {
    cCharacter = isdigit(cCharacter) != 0 ? '0' : cCharacter;
  }
  EXPECT_EQ("[0000-00-00 00:00:00,000]", strText);
}

TEST(GenerateTimeStringTest, MillisecondsAreCutNotRounded) {
  for (int i = 0; i < 1000; ++i) {
    const int64_t iBefore = Now();
    const int64_t iTold = TimeOf(GenerateTimeString());
    const int64_t iAfter = Now();
    ASSERT_LE(iBefore, iTold);
    ASSERT_GE(iAfter, iTold);
  }
}

TEST(GenerateTimeStringTest, FollowsTheClockIntoTheNextSecond) {
  const int64_t iStart = TimeOf(GenerateTimeString());
  ASSERT_TRUE(WaitUntil([&] { return Now() / 1000 > iStart / 1000; }));
  const int64_t iBefore = Now();
  EXPECT_LE(iBefore, TimeOf(GenerateTimeString()));
}

TEST(GenerateTimeStringTest, NextCallOverwritesTheResult) {
  const char* pFirst = GenerateTimeString();
  EXPECT_EQ(pFirst, GenerateTimeString());
}

TEST(GenerateTimeStringTest, TellsLocalTimeAlsoAfterAChangeOfZone) {
  ForkedPeer stPeer([] {
    for (const char* pZone : {"AAA0", "BBB-24", "CCC+12:34:56", "DDD0", "DDD0EEE,0,365", "FFF0"}) {
      SetZone(pZone);
      const int64_t iBefore = Now();
      const int64_t iTold = TimeOf(GenerateTimeString());
      if (iTold < iBefore || iTold > Now()) {
        return 1;
      }
    }
    return 0;
  });
  EXPECT_EQ(0, stPeer.Wait());
}

TEST(TimediffMonthTest, IsZeroWhateverTheTimes) {
  const time_t iYear = 366 * 86400;
  EXPECT_EQ(0, timediff_month(0, 0));
  EXPECT_EQ(0, timediff_month(0, 10 * iYear));
  EXPECT_EQ(0, timediff_month(10 * iYear, 0));
}

}  // namespace
