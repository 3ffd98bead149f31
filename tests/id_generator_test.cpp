#include "id_generator.h"

#include <gtest/gtest.h>

#include <set>

#include "test_support.h"

namespace {

const unsigned int NO_ID = 0xFFFFFFFF;
const unsigned int REFILL = 100000;

class Generator : public IdGenerator {
 public:
  using IdGenerator::m_iBegin;
  using IdGenerator::m_iCurrentEnd;
  using IdGenerator::m_iEnd;
  using IdGenerator::m_queueFreeIds;

  // Draws until so many are queued.
  void DrawDownTo(size_t iCount) {
    while (m_queueFreeIds.size() > iCount) {
      GetId();
    }
  }
};

TEST(IdGeneratorTest, NewGeneratorCountsFromOneHundred) {
  Generator stGenerator;
  EXPECT_EQ(100u, stGenerator.GetId());
  EXPECT_EQ(101u, stGenerator.GetId());
  EXPECT_EQ(102u, stGenerator.GetId());
}

TEST(IdGeneratorTest, ConstructionSetsTheRangeAndQueuesNothing) {
  const Generator stGenerator;
  EXPECT_EQ(100u, stGenerator.m_iBegin);
  EXPECT_EQ(1000000000u, stGenerator.m_iEnd);
  EXPECT_EQ(100u, stGenerator.m_iCurrentEnd);
  EXPECT_TRUE(stGenerator.m_queueFreeIds.empty());
}

TEST(IdGeneratorTest, ExhaustedRangeGivesOnlyWhatIsFreed) {
  IdGenerator stGenerator;
  stGenerator.SetRange(5, 7);
  EXPECT_EQ(5u, stGenerator.GetId());
  EXPECT_EQ(6u, stGenerator.GetId());
  EXPECT_EQ(NO_ID, stGenerator.GetId());
  stGenerator.FreeId(5);
  EXPECT_EQ(5u, stGenerator.GetId());
  EXPECT_EQ(NO_ID, stGenerator.GetId());
}

TEST(IdGeneratorTest, EmptyAndReversedRangesGiveNothing) {
  IdGenerator stGenerator;
  stGenerator.SetRange(7, 7);
  EXPECT_EQ(NO_ID, stGenerator.GetId());
  stGenerator.SetRange(8, 7);
  EXPECT_EQ(NO_ID, stGenerator.GetId());
}

TEST(IdGeneratorTest, RefillQueuesOneHundredThousandAtMost) {
  Generator stGenerator;
  stGenerator.GetId();
  EXPECT_EQ(REFILL - 1, stGenerator.m_queueFreeIds.size());
  EXPECT_EQ(100 + REFILL, stGenerator.m_iCurrentEnd);
  EXPECT_EQ(99 + REFILL, stGenerator.m_queueFreeIds.back());
}

TEST(IdGeneratorTest, RefillHappensBelowOneThousandAndBeforeTheDraw) {
  Generator stGenerator;
  stGenerator.GetId();
  stGenerator.DrawDownTo(1000);
  stGenerator.GetId();
  EXPECT_EQ(999u, stGenerator.m_queueFreeIds.size());
  stGenerator.GetId();
  EXPECT_EQ(999u + REFILL - 1, stGenerator.m_queueFreeIds.size());
  EXPECT_EQ(100 + 2 * REFILL, stGenerator.m_iCurrentEnd);
}

TEST(IdGeneratorTest, FreedIdsStandBetweenRefills) {
  IdGenerator stGenerator;
  EXPECT_EQ(100u, stGenerator.GetId());
  stGenerator.FreeId(100);
  for (unsigned int iId = 101; iId < 100 + REFILL; ++iId) {
    ASSERT_EQ(iId, stGenerator.GetId());
  }
  EXPECT_EQ(100u, stGenerator.GetId());
  EXPECT_EQ(100 + REFILL, stGenerator.GetId());
}

TEST(IdGeneratorTest, FreedIdIsReusedAfterThoseQueuedBeforeIt) {
  IdGenerator stGenerator;
  stGenerator.SetRange(1, 4);
  EXPECT_EQ(1u, stGenerator.GetId());
  stGenerator.FreeId(1);
  EXPECT_EQ(2u, stGenerator.GetId());
  EXPECT_EQ(3u, stGenerator.GetId());
  EXPECT_EQ(1u, stGenerator.GetId());
}

TEST(IdGeneratorTest, FreeIdChecksNothing) {
  Generator stGenerator;
  stGenerator.SetRange(1, 1);
  for (const unsigned int iId : {77u, 77u, 0u, NO_ID}) {
    stGenerator.FreeId(iId);
  }
  EXPECT_EQ(77u, stGenerator.GetId());
  EXPECT_EQ(77u, stGenerator.GetId());
  EXPECT_EQ(0u, stGenerator.GetId());
  ASSERT_EQ(1u, stGenerator.m_queueFreeIds.size());  // also the one that stands for none
  EXPECT_EQ(NO_ID, stGenerator.m_queueFreeIds.front());
}

TEST(IdGeneratorTest, SetRangeKeepsWhatIsQueued) {
  Generator stGenerator;
  stGenerator.SetRange(1, 3);
  EXPECT_EQ(1u, stGenerator.GetId());
  stGenerator.SetRange(50, 52);
  EXPECT_EQ(50u, stGenerator.m_iCurrentEnd);
  EXPECT_EQ(2u, stGenerator.GetId());
  EXPECT_EQ(50u, stGenerator.GetId());
  EXPECT_EQ(51u, stGenerator.GetId());
  EXPECT_EQ(NO_ID, stGenerator.GetId());
}

TEST(IdGeneratorTest, RangeEndsAtTheTopWithoutWrapping) {
  Generator stGenerator;
  stGenerator.SetRange(NO_ID - 3, NO_ID);
  EXPECT_EQ(NO_ID - 3, stGenerator.GetId());
  EXPECT_EQ(NO_ID - 2, stGenerator.GetId());
  EXPECT_EQ(NO_ID - 1, stGenerator.GetId());
  EXPECT_EQ(NO_ID, stGenerator.GetId());
  EXPECT_EQ(NO_ID, stGenerator.m_iCurrentEnd);
  EXPECT_TRUE(stGenerator.m_queueFreeIds.empty());
}

TEST(IdGeneratorTest, EveryIdOfARangeComesOnce) {
  IdGenerator stGenerator;
  stGenerator.SetRange(1000, 251000);
  std::set<unsigned int> setIds;
  for (unsigned int iId = stGenerator.GetId(); iId != NO_ID; iId = stGenerator.GetId()) {
    ASSERT_TRUE(setIds.insert(iId).second) << iId;
  }
  EXPECT_EQ(250000u, setIds.size());
  EXPECT_EQ(1000u, *setIds.begin());
  EXPECT_EQ(250999u, *setIds.rbegin());
}

TEST(IdGeneratorTest, DumpWritesNothing) {
  IdGenerator stGenerator;
  EXPECT_EQ("", CaptureDescriptor([&](int iFD) { stGenerator.Dump(iFD); }));
}

}  // namespace
