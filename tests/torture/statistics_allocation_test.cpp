// Latency statistics while memory is lacking.

#include <gtest/gtest.h>

#include <string>

#include "delay_stat.h"
#include "failing_allocation.h"
#include "test_support.h"

namespace {

const char TAG[] = "a tag that is longer than what a string holds in itself";
const char OTHER[] = "another tag that is longer than what a string holds in itself";

// Milliseconds as a time.
timeval At(int iMilliseconds) { return {1000 + iMilliseconds / 1000, iMilliseconds % 1000 * 1000}; }

// The table of one sample for each tag.
std::string TableOf(std::initializer_list<std::pair<const char*, unsigned int>> vecSamples) {
  DelayStat stStat;
  for (const auto& [pTag, iValue] : vecSamples) {
    stStat.PushData(pTag, iValue);
  }
  return stStat.GenerateStatTable();
}

TEST(DelayStatAllocationTest, SampleOfANewTagCountsInWholeOrNotAtAll) {
  const int iFailed =
      ForEachFailingAllocation("DelayStat::PushData", [](FailingAllocation& stMemory) {
        DelayStat stStat;
        if (!stMemory.Run([&] { stStat.PushData(TAG, 120); })) {
          EXPECT_EQ("", stStat.GenerateStatTable());
          stStat.PushData(TAG, 120);
        }
        EXPECT_EQ(TableOf({{TAG, 120}}), stStat.GenerateStatTable());
      });
  EXPECT_GT(iFailed, 3);
}

TEST(DelayStatAllocationTest, SampleInANewBucketCountsInWholeOrNotAtAll) {
  ForEachFailingAllocation("DelayStat::PushData in a new bucket", [](FailingAllocation& stMemory) {
    DelayStat stStat;
    stStat.PushData(TAG, 10);
    if (!stMemory.Run([&] { stStat.PushData(TAG, 700); })) {
      EXPECT_EQ(TableOf({{TAG, 10}}), stStat.GenerateStatTable());
      stStat.PushData(TAG, 700);
    }
    EXPECT_EQ(TableOf({{TAG, 10}, {TAG, 700}}), stStat.GenerateStatTable());
  });
}

// The index of tags grows at some of them.
TEST(DelayStatAllocationTest, NewTagAmongManyIsThereOrNot) {
  for (const int iBefore : {1, 31, 32, 33, 64}) {
    ForEachFailingAllocation("DelayStat::PushData among many", [&](FailingAllocation& stMemory) {
      DelayStat stStat;
      for (int i = 0; i < iBefore; ++i) {
        stStat.PushData(std::to_string(i).c_str(), 10);
      }
      const std::string strBefore = stStat.GenerateStatTable();
      if (!stMemory.Run([&] { stStat.PushData(TAG, 120); })) {
        EXPECT_EQ(strBefore, stStat.GenerateStatTable());
        stStat.PushData("0", 10);
        stStat.PushData(TAG, 120);
      }
      EXPECT_NE(std::string::npos, stStat.GenerateStatTable().find(TAG));
    });
  }
}

TEST(DelayStatAllocationTest, MeasurementHasBegunOrNot) {
  timeval tvBegin = At(0);
  timeval tvEnd = At(120);
  ForEachFailingAllocation("DelayStat::BeginData", [&](FailingAllocation& stMemory) {
    DelayStat stStat;
    const bool bBegun = stMemory.Run([&] { stStat.BeginData(TAG, OTHER, &tvBegin); });
    stStat.EndData(OTHER, &tvEnd);
    EXPECT_EQ(bBegun ? TableOf({{TAG, 120}}) : "", stStat.GenerateStatTable());
  });
}

TEST(DelayStatAllocationTest, MeasurementThatIsBegunAnewIsTheFormerOrTheNewOne) {
  timeval tvFirst = At(0);
  timeval tvSecond = At(100);
  timeval tvEnd = At(120);
  ForEachFailingAllocation("DelayStat::BeginData anew", [&](FailingAllocation& stMemory) {
    DelayStat stStat;
    stStat.BeginData("tag", "id", &tvFirst);
    const bool bBegun = stMemory.Run([&] { stStat.BeginData(TAG, "id", &tvSecond); });
    stStat.EndData("id", &tvEnd);
    EXPECT_EQ(bBegun ? TableOf({{TAG, 20}}) : TableOf({{"tag", 120}}), stStat.GenerateStatTable());
  });
}

TEST(DelayStatAllocationTest, MeasurementThatCouldNotBeCountedIsStillOpen) {
  timeval tvBegin = At(0);
  timeval tvEnd = At(120);
  ForEachFailingAllocation("DelayStat::EndData", [&](FailingAllocation& stMemory) {
    DelayStat stStat;
    stStat.BeginData(TAG, OTHER, &tvBegin);
    if (!stMemory.Run([&] { stStat.EndData(OTHER, &tvEnd); })) {
      stStat.EndData(OTHER, &tvEnd);
    }
    stStat.EndData(OTHER, &tvEnd);
    EXPECT_EQ(TableOf({{TAG, 120}}), stStat.GenerateStatTable());
  });
}

TEST(DelayStatAllocationTest, SessionHasBegunOrNot) {
  timeval tvBegin = At(0);
  timeval tvLate = At(1000);
  timeval tvEnd = At(120);
  ForEachFailingAllocation("DelayStat::BeginSession", [&](FailingAllocation& stMemory) {
    DelayStat stStat;
    if (!stMemory.Run([&] { stStat.BeginSession(OTHER, &tvBegin); })) {
      stStat.BeginSession(OTHER, &tvBegin);
    }
    stStat.BeginSession(OTHER, &tvLate);  // is open
    stStat.EndSession(OTHER, &tvEnd, TAG);
    EXPECT_EQ(TableOf({{TAG, 120}}), stStat.GenerateStatTable());
  });
}

TEST(DelayStatAllocationTest, StepsAndEndOfASessionMayBeRepeated) {
  timeval tvBegin = At(0);
  timeval tvStep = At(120);
  timeval tvEnd = At(200);
  ForEachFailingAllocation("DelayStat::SubStat", [&](FailingAllocation& stMemory) {
    DelayStat stStat;
    stStat.BeginSession(OTHER, &tvBegin);
    if (!stMemory.Run([&] { stStat.SubStat(OTHER, TAG, 0, 1, &tvStep); })) {
      stStat.SubStat(OTHER, TAG, 0, 1, &tvStep);
    }
    EXPECT_EQ(TableOf({{TAG, 120}}), stStat.GenerateStatTable());
  });
  ForEachFailingAllocation("DelayStat::EndSession", [&](FailingAllocation& stMemory) {
    DelayStat stStat;
    stStat.BeginSession(OTHER, &tvBegin);
    if (!stMemory.Run([&] { stStat.EndSession(OTHER, &tvEnd, TAG); })) {
      stStat.EndSession(OTHER, &tvEnd, TAG);
    }
    EXPECT_EQ(TableOf({{TAG, 200}}), stStat.GenerateStatTable());
  });
}

TEST(DelayStatAllocationTest, TableIsWrittenInWholeOrNotAtAll) {
  DelayStat stStat;
  stStat.PushData(TAG, 120);
  stStat.PushData(OTHER, 2000);
  const std::string strTable = stStat.GenerateStatTable();
  ForEachFailingAllocation("DelayStat::DumpToFD", [&](FailingAllocation& stMemory) {
    bool bDone = false;
    const std::string strWritten =
        CaptureDescriptor([&](int iFD) { bDone = stMemory.Run([&] { stStat.DumpToFD(iFD); }); });
    EXPECT_EQ(bDone ? strTable : "", strWritten);
  });
}

TEST(DelayStatAllocationTest, KnownTagAndClearNeedNoMemory) {
  const int iFailed = ForEachFailingAllocation("DelayStat::Clear", [](FailingAllocation& stMemory) {
    DelayStat stStat;
    stStat.PushData(TAG, 120);
    stMemory.Run([&] {
      stStat.SetInterval(2000, 50, 0);
      stStat.PushData(TAG, 121);
      stStat.EndData("unknown", nullptr);
      stStat.EndSession("unknown", nullptr, TAG);
      stStat.Clear();
    });
    EXPECT_EQ("", stStat.GenerateStatTable());
  });
  EXPECT_EQ(0, iFailed);
}

}  // namespace
