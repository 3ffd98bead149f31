// What the checkers of zelk-inspect and of the crash tests say about segments of which some bytes
// were changed. Each case changes what one check looks at.

#include "segment_check.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "hash_map.h"
#include "heap_image.h"
#include "queue_fixture.h"
#include "ring_check.h"
#include "segment_format.h"
#include "test_support.h"
#include "verify.h"

namespace {

// A table with two free blocks and a chain of three entries in its only bucket; the newest first.
class SegmentCheckTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_stMap.Attach(m_stKey.Key(), SIZE, 1, false));
    for (const char* pName : {"one", "two", "six", "old", "gone"}) {
      ASSERT_TRUE(m_stMap.Set(pName, "value"));
    }
    ASSERT_TRUE(m_stMap.Delete("old"));
    ASSERT_TRUE(m_stMap.Delete("gone"));
    m_pImage = std::make_unique<HeapImage>(m_stKey.Key());
    m_iFirst = m_pImage->Word(BUCKET + 8);
    m_iSecond = m_pImage->Word(m_iFirst);
    m_iThird = m_pImage->Word(m_iSecond);
    ASSERT_EQ("", CheckTable(*m_pImage).Faults());
  }

  // The faults after a change, in a view that is not the segment itself.
  std::string After(const std::function<void(HeapImage&)>& fnChange) {
    fnChange(*m_pImage);
    const Verification_t stResult = Verify(*m_pImage);
    EXPECT_EQ(stResult.vecFaults.empty() ? VERDICT_SOUND : VERDICT_NOT_SOUND, stResult.eVerdict);
    return CheckTable(*m_pImage).Faults();
  }
  static std::string At(uint64_t iOffset) { return " at " + std::to_string(iOffset) + "\n"; }
  uint64_t ListHead() const { return HEAP_LISTS + (BLOCK / 8 - 1) * 8; }

  static const uint64_t SIZE = HEAP_RESERVED + 1048576 + 65536;
  static const uint64_t BUCKET = HEAP_RESERVED + TABLE_HEAD;
  static const uint64_t BEGIN = HEAP_RESERVED + 1048576;
  static const uint64_t BLOCK = 40;  // 8 + 16 + "one" and "value" with their NULs, rounded up

  const PrivateKey m_stKey;
  HashMap m_stMap;
  std::unique_ptr<HeapImage> m_pImage;
  uint64_t m_iFirst = 0;
  uint64_t m_iSecond = 0;
  uint64_t m_iThird = 0;
};

TEST_F(SegmentCheckTest, ASoundTableHasNoFaultAndRightCounters) {
  const SegmentReport_t stReport = CheckTable(*m_pImage);
  EXPECT_EQ(3u, stReport.iEntries);
  EXPECT_EQ(10u, stReport.iBlocks);
  EXPECT_EQ(7u, stReport.iFreeBlocks);
  EXPECT_TRUE(stReport.CountersAgree());
  EXPECT_EQ(FORMAT_TABLE, FormatOf(*m_pImage, false));
}

TEST_F(SegmentCheckTest, AWrongFieldOfTheHeadIsAFault) {
  EXPECT_EQ("iMemorySize is 5, not " + std::to_string(SIZE) + At(0),
            After([](HeapImage& st) { st.SetWord(HEAP_MEMORY_SIZE, 5); }));
}

TEST_F(SegmentCheckTest, AHeapThatIsNotReadyIsOne) {
  EXPECT_EQ("heap not ready" + At(HEAP_READY_FIELD),
            After([](HeapImage& st) { st.SetHalf(HEAP_READY_FIELD, 1); }));
}

TEST_F(SegmentCheckTest, BlocksBeyondTheSegmentAreNotWalked) {
  const std::string strFaults = After([](HeapImage& st) { st.SetWord(HEAP_CURRENT, SIZE + 1); });
  EXPECT_EQ("carved beyond the segment" + At(SIZE + 1),
            strFaults.substr(0, strFaults.find('\n') + 1));
}

TEST_F(SegmentCheckTest, AReservedAreaLargerThanTheSegmentIsNotBelieved) {
  const std::string strFaults =
      After([](HeapImage& st) { st.SetWord(HEAP_RESERVED_SIZE, UINT64_MAX - 7); });
  EXPECT_EQ(0u, strFaults.find("reserved area beyond the segment" + At(HEAP_RESERVED_SIZE)));
}

TEST_F(SegmentCheckTest, ABlockOfSizeZeroDoesNotHoldTheWalkUp) {
  const std::string strFaults = After([](HeapImage& st) { st.SetWord(BEGIN + BLOCK, 0); });
  EXPECT_EQ(0u, strFaults.find("block of impossible size 0" + At(BEGIN + BLOCK)));
}

TEST_F(SegmentCheckTest, AListThatRunsInACircleEnds) {
  const uint64_t iHead = m_pImage->Word(ListHead());
  EXPECT_EQ("list of a block in use" + At(iHead),
            After([&](HeapImage& st) { st.SetWord(iHead + 8, iHead); }));
}

TEST_F(SegmentCheckTest, AListThatLeavesTheBlocksEnds) {
  EXPECT_EQ("list of no block" + At(12345),
            After([&](HeapImage& st) { st.SetWord(ListHead(), 12345); }));
}

TEST_F(SegmentCheckTest, ABlockOnTheListOfAnotherSizeIsAFault) {
  const uint64_t iHead = m_pImage->Word(ListHead());
  const std::string strFaults = After([&](HeapImage& st) {
    st.SetWord(ListHead(), 0);
    st.SetWord(ListHead() + 8, iHead);
  });
  EXPECT_EQ("block on a list of another size" + At(iHead), strFaults);
}

TEST_F(SegmentCheckTest, AFreeBlockThatIsAnEntryIsAFault) {
  EXPECT_EQ("entry of a block in use" + At(m_iThird - 8), After([&](HeapImage& st) {
              st.SetWord(st.Word(ListHead()) + 8, m_iThird - 8);
              st.SetWord(m_iThird, 0);
            }));
}

TEST_F(SegmentCheckTest, AChainThatRunsInACircleEnds) {
  EXPECT_EQ("entry of a block in use" + At(m_iFirst - 8),
            After([&](HeapImage& st) { st.SetWord(m_iThird, m_iFirst); }));
}

TEST_F(SegmentCheckTest, AChainThatLeavesTheBlocksEnds) {
  EXPECT_EQ("entry of no block" + At(UINT64_MAX - 8),
            After([&](HeapImage& st) { st.SetWord(m_iThird, UINT64_MAX); }));
}

TEST_F(SegmentCheckTest, AnEntryLargerThanItsBlockIsAFaultAndNotRead) {
  EXPECT_EQ("entry larger than its block" + At(m_iFirst),
            After([&](HeapImage& st) { st.SetHalf(m_iFirst + 8, UINT32_MAX); }));
}

TEST_F(SegmentCheckTest, AKeyWithoutItsNulIsAFault) {
  EXPECT_EQ("key and its size differ" + At(m_iFirst),
            After([&](HeapImage& st) { st.SetHalf(m_iFirst + 8, 3); }));
}

TEST_F(SegmentCheckTest, ImpossibleNumbersOfBucketsAreNotWalked) {
  for (const uint32_t iCount : {0u, 70000u, UINT32_MAX}) {
    EXPECT_EQ("impossible number of buckets " + std::to_string(iCount) + At(HEAP_RESERVED),
              After([&](HeapImage& st) { st.SetHalf(HEAP_RESERVED, iCount); }));
  }
}

TEST_F(SegmentCheckTest, CountersThatStandTooHighAreANoteAndNoFault) {
  m_pImage->SetWord(HEAP_RESERVED + TABLE_OBJECT_COUNT, 4);
  m_pImage->SetWord(HEAP_BLOCK_COUNT, m_pImage->Word(HEAP_BLOCK_COUNT) + 1);
  const Verification_t stResult = Verify(*m_pImage);
  EXPECT_EQ(VERDICT_SOUND, stResult.eVerdict);
  EXPECT_EQ((std::vector<std::string>{"iBlockCount is off by 1", "iObjectCount is off by 1"}),
            stResult.vecNotes);
}

TEST_F(SegmentCheckTest, AKeyInAForeignBucketIsAFault) {
  HashMap stOther;
  const PrivateKey stKey;
  ASSERT_TRUE(stOther.Attach(stKey.Key(), SIZE, 2, false));
  ASSERT_TRUE(stOther.Set("one", "value"));
  HeapImage stImage(stKey.Key());
  const uint64_t iMine = HashMap::FNVHash("one") % 2;
  const uint64_t iFirst = stImage.Word(BUCKET + iMine * 16 + 8);
  stImage.SetWord(BUCKET + iMine * 16 + 8, 0);
  stImage.SetWord(BUCKET + (1 - iMine) * 16 + 8, iFirst);
  EXPECT_EQ("key in a foreign bucket" + At(iFirst), CheckTable(stImage).Faults());
}

TEST_F(SegmentCheckTest, ThousandsOfFaultsAreCutAtAThousand) {
  for (uint64_t i = 0; i < 5000; ++i) {
    m_pImage->SetWord(HEAP_LISTS + 8 * (1000 + i), 12345);
  }
  EXPECT_EQ(1000u, CheckTable(*m_pImage).vecFaults.size());
}

TEST_F(SegmentCheckTest, AHeadWithTwoWrongFieldsIsStillTakenForAHeap) {
  m_pImage->SetWord(HEAP_MAX_BYTES, 1);
  EXPECT_EQ(FORMAT_NONE, FormatOf(*m_pImage, false));
  EXPECT_EQ(FORMAT_TABLE, FormatOf(*m_pImage, true));
  m_pImage->SetWord(HEAP_MIN_BYTES, 1);
  EXPECT_EQ(FORMAT_TABLE, FormatOf(*m_pImage, true));
  m_pImage->SetWord(HEAP_ALIGN_SIZE, 1);
  EXPECT_EQ(FORMAT_NONE, FormatOf(*m_pImage, true));
}

// A ring whose first record starts where a case wants it.
class RingCheckTest : public QueueFixture {
 protected:
  RingReport_t Check() {
    const HeapImage stImage(m_stKey.Key());
    return CheckRing(stImage, 10, 100);
  }
};

TEST_F(RingCheckTest, PendingMessagesAreFoundWhereverTheRingEnds) {
  for (uint32_t iOffset = 0; iOffset < RING_SIZE; ++iOffset) {
    StartAt(iOffset);
    ASSERT_EQ(3, PushTexts(m_stWriter, {"first", "", std::string(30, 'x')}));
    const RingReport_t stReport = Check();
    EXPECT_EQ("", stReport.Faults());
    EXPECT_TRUE(stReport.bStable);
    EXPECT_EQ((Texts_t{"first", "", std::string(30, 'x')}), stReport.vecMessages);
    EXPECT_EQ(30u, stReport.iLargest);
    EXPECT_EQ(3u * LENGTH_SIZE + 35, stReport.iUsed);
    EXPECT_EQ(3u, PopTexts(m_stReader, 10).size());
  }
}

TEST_F(RingCheckTest, OnlySoMuchIsKept) {
  ASSERT_EQ(3, PushTexts(m_stWriter, {"first", "second", "third"}));
  const HeapImage stImage(m_stKey.Key());
  const RingReport_t stReport = CheckRing(stImage, 2, 3);
  EXPECT_EQ((Texts_t{"fir", "sec"}), stReport.vecMessages);
  EXPECT_EQ(3u, stReport.iMessages);
}

TEST_F(RingCheckTest, ALengthThatLeavesThePendingBytesIsAFault) {
  PushText(m_stWriter, "hello");
  RawSegment stRaw(m_stKey.Key());
  HeapImage stImage(m_stKey.Key());
  for (const uint32_t iLength : {6u, 4u, 2u, UINT32_MAX}) {
    stImage.SetHalf(HEAD_SIZE, iLength);
    EXPECT_EQ("records do not end at the write offset 9\n", Check().Faults()) << iLength;
    EXPECT_FALSE(Check().bStable);
  }
}

TEST_F(RingCheckTest, OffsetsBeyondTheRingAreAFault) {
  const RawSegment stRaw(m_stKey.Key());
  stRaw.Head()->iReadOffset = RING_SIZE;
  EXPECT_EQ("offset beyond the ring: read 64, write 0\n", Check().Faults());
  stRaw.Head()->iReadOffset = 0;
  stRaw.Head()->iWriteOffset = UINT32_MAX;
  EXPECT_EQ("offset beyond the ring: read 0, write 4294967295\n", Check().Faults());
}

TEST_F(RingCheckTest, ARingOfAnotherSizeThanItsSegmentIsAFault) {
  const RawSegment stRaw(m_stKey.Key());
  stRaw.Head()->iSize = RING_SIZE + 1;
  EXPECT_EQ("a ring of 65 bytes in a segment of 77\n", Check().Faults());
  stRaw.Head()->iSize = 0;
  EXPECT_EQ("no ring: its creator never wrote the header\n", Check().Faults());
}

TEST_F(RingCheckTest, ARingThatIsNotReadyIsAFault) {
  const RawSegment stRaw(m_stKey.Key());
  stRaw.Head()->cReadyFlag = 0;
  EXPECT_EQ("not ready\n", Check().Faults());
}

TEST_F(RingCheckTest, ASegmentShorterThanItsHeadIsNone) {
  const char szBytes[13] = {8};
  for (size_t i = 0; i <= sizeof(szBytes); ++i) {
    const MemoryView stView(szBytes, i);
    EXPECT_EQ("no ring: its creator never wrote the header\n", CheckRing(stView).Faults());
    EXPECT_EQ(FORMAT_NONE, FormatOf(stView, true));
    EXPECT_FALSE(CheckTable(stView).vecFaults.empty());
  }
}

// A live ring whose reader goes on by so many bytes during each walk.
class MovingRing : public HeapImage {
 public:
  MovingRing(key_t iKey, uint32_t iStep) : HeapImage(iKey), m_iStep(iStep) {}
  bool IsLive() const override { return true; }
  uint32_t FreshHalf(uint64_t iOffset) const override {
    m_iReads += iOffset == RING_READ ? 1 : 0;
    return Half(iOffset) + (iOffset == RING_READ && m_iReads % 2 == 0 ? m_iStep : 0);
  }
  int Walks() const { return m_iReads / 2; }

 private:
  const uint32_t m_iStep;
  mutable int m_iReads = 0;
};

TEST_F(RingCheckTest, WhatIsTakenDuringTheWalkIsNotShown) {
  PushTexts(m_stWriter, {"first", "second", "third"});
  const MovingRing stRing(m_stKey.Key(), LENGTH_SIZE + 5);
  const RingReport_t stReport = CheckRing(stRing, 9, 9);
  EXPECT_TRUE(stReport.bStable);
  EXPECT_EQ((Texts_t{"second", "third"}), stReport.vecMessages);
  EXPECT_EQ(2u, stReport.iMessages);
  EXPECT_EQ(9u, stReport.iRead);
  EXPECT_EQ(2u * LENGTH_SIZE + 11, stReport.iUsed);
  EXPECT_EQ(1, stRing.Walks());
}

TEST_F(RingCheckTest, WhatIsTakenDuringTheWalkTakesNoPlaceAmongThoseKept) {
  PushTexts(m_stWriter, {"first", "second", "third"});
  const MovingRing stRing(m_stKey.Key(), LENGTH_SIZE + 5);
  const RingReport_t stReport = CheckRing(stRing, 1, 9);
  EXPECT_TRUE(stReport.bStable);
  EXPECT_EQ((Texts_t{"second"}), stReport.vecMessages);
  EXPECT_EQ(2u, stReport.iMessages);
}

TEST_F(RingCheckTest, AReaderThatIsAlwaysFasterLeavesNoStableViewAndNoFault) {
  PushTexts(m_stWriter, {"first", "second", "third"});
  const MovingRing stBetween(m_stKey.Key(), 5);
  EXPECT_FALSE(CheckRing(stBetween).bStable);
  EXPECT_EQ("", CheckRing(stBetween).Faults());
  EXPECT_EQ(400, stBetween.Walks());
  HeapImage(m_stKey.Key()).SetHalf(HEAD_SIZE, 1000);
  const MovingRing stOverwritten(m_stKey.Key(), LENGTH_SIZE + 5);
  EXPECT_FALSE(CheckRing(stOverwritten).bStable);
  EXPECT_EQ("", CheckRing(stOverwritten).Faults());
}

TEST(SegmentViewTest, NothingIsReadBeyondTheEnd) {
  const MemoryView stView("0123456789", 10);
  char szTo[4] = "abc";
  EXPECT_FALSE(stView.Read(8, szTo, 3));
  EXPECT_FALSE(stView.Read(UINT64_MAX, szTo, 3));
  EXPECT_FALSE(stView.Read(11, szTo, 0));
  EXPECT_STREQ("abc", szTo);
  EXPECT_TRUE(stView.Read(7, szTo, 3));
  EXPECT_STREQ("789", szTo);
  EXPECT_EQ(0u, stView.Word(3));
  EXPECT_EQ(0x39383736u, stView.Half(6));
  EXPECT_EQ("", stView.Bytes(5, 6));
  EXPECT_EQ("56789", stView.Bytes(5, 5));
}

}  // namespace
