#include "memory_track.h"

#include <gtest/gtest.h>

#include "test_support.h"

namespace {

class MemoryTrackTest : public ::testing::Test {
 protected:
  void TearDown() override { g_mapMemoryTrack.clear(); }

  char m_acBlock[4] = {};  // its addresses ascend
};

TEST_F(MemoryTrackTest, WithoutRecordsTheReportIsEmpty) { EXPECT_EQ("", DumpUnfreed()); }

TEST_F(MemoryTrackTest, RecordHoldsWhatWasGiven) {
  AddTrack(&m_acBlock[0], 64, "server.cpp", 120);
  ASSERT_EQ(1u, g_mapMemoryTrack.count(&m_acBlock[0]));
  const MemoryTrack_t& stTrack = g_mapMemoryTrack[&m_acBlock[0]];
  EXPECT_EQ(&m_acBlock[0], stTrack.pAddr);
  EXPECT_EQ(64u, stTrack.iSize);
  EXPECT_EQ("server.cpp", stTrack.strFile);
  EXPECT_EQ(120u, stTrack.iLine);
}

TEST_F(MemoryTrackTest, ReportNamesFileLineAndSize) {
  AddTrack(&m_acBlock[0], 64, "server", 120);
  EXPECT_EQ("server:120 allocate 64 bytes\n", DumpUnfreed());
}

TEST_F(MemoryTrackTest, ReportChangesNoRecord) {
  AddTrack(&m_acBlock[0], 64, "server", 120);
  const std::string strFirst = DumpUnfreed();
  EXPECT_EQ(strFirst, DumpUnfreed());
  EXPECT_EQ(1u, g_mapMemoryTrack.size());
}

TEST_F(MemoryTrackTest, SecondRecordOfALiveAddressIsDropped) {
  AddTrack(&m_acBlock[0], 1, "first", 10);
  AddTrack(&m_acBlock[0], 2, "second", 20);
  EXPECT_EQ("first:10 allocate 1 bytes\n", DumpUnfreed());
}

TEST_F(MemoryTrackTest, RemovedBlockIsForgottenAndMayBeRecordedAnew) {
  AddTrack(&m_acBlock[0], 1, "first", 10);
  RemoveTrack(&m_acBlock[0]);
  EXPECT_EQ("", DumpUnfreed());
  AddTrack(&m_acBlock[0], 2, "second", 20);
  EXPECT_EQ("second:20 allocate 2 bytes\n", DumpUnfreed());
}

TEST_F(MemoryTrackTest, RemovingAnUnknownAddressChangesNothing) {
  RemoveTrack(&m_acBlock[0]);
  AddTrack(&m_acBlock[1], 1, "kept", 10);
  RemoveTrack(&m_acBlock[0]);
  RemoveTrack(nullptr);
  EXPECT_EQ("kept:10 allocate 1 bytes\n", DumpUnfreed());
}

TEST_F(MemoryTrackTest, LinesAreInTheOrderOfTheAddresses) {
  AddTrack(&m_acBlock[2], 3, "c", 3);
  AddTrack(&m_acBlock[0], 1, "a", 1);
  AddTrack(&m_acBlock[3], 4, "d", 4);
  AddTrack(&m_acBlock[1], 2, "b", 2);
  EXPECT_EQ(
      "a:1 allocate 1 bytes\nb:2 allocate 2 bytes\nc:3 allocate 3 bytes\nd:4 allocate 4 bytes\n",
      DumpUnfreed());
}

TEST_F(MemoryTrackTest, EmptyFileNameGivesALineThatBeginsWithAColon) {
  AddTrack(&m_acBlock[0], 8, "", 5);
  EXPECT_EQ(":5 allocate 8 bytes\n", DumpUnfreed());
}

TEST_F(MemoryTrackTest, LargestNumbersAreUnsigned) {
  AddTrack(&m_acBlock[0], 4294967295u, "big", 4294967295u);
  EXPECT_EQ("big:4294967295 allocate 4294967295 bytes\n", DumpUnfreed());
}

TEST_F(MemoryTrackTest, NullIsAnAddressLikeOthers) {
  AddTrack(nullptr, 0, "null", 1);
  EXPECT_EQ("null:1 allocate 0 bytes\n", DumpUnfreed());
}

TEST_F(MemoryTrackTest, FileNameOfAnyLengthIsCopiedAndWhole) {
  std::string strFile(5000, 'f');
  AddTrack(&m_acBlock[0], 8, strFile.c_str(), 5);
  const std::string strLine = strFile + ":5 allocate 8 bytes\n";
  strFile.assign(5000, 'x');
  EXPECT_EQ(strLine, DumpUnfreed());
}

TEST_F(MemoryTrackTest, ChildTracksItsOwnCopy) {
  AddTrack(&m_acBlock[0], 1, "both", 1);
  ForkedPeer stChild([this] {
    AddTrack(&m_acBlock[1], 2, "child", 2);
    return DumpUnfreed() == "both:1 allocate 1 bytes\nchild:2 allocate 2 bytes\n" ? 0 : 1;
  });
  EXPECT_EQ(0, stChild.Wait());
  EXPECT_EQ("both:1 allocate 1 bytes\n", DumpUnfreed());
}

// The map serves the static objects of the program from their start to their end.
struct WholeProgram {
  WholeProgram() {
    AddTrack(&bReport, 1, "at start", 1);
    strAtStart = DumpUnfreed();
    RemoveTrack(&bReport);
  }
  ~WholeProgram() {
    if (bReport) {
      AddTrack(&bReport, 1, "at exit", 1);
      fputs(DumpUnfreed().c_str(), stderr);
    }
  }
  bool bReport = false;
  std::string strAtStart;
} g_stWholeProgram;

TEST(MemoryTrackStartTest, StaticObjectsOfTheProgramAreRecorded) {
  EXPECT_EQ("at start:1 allocate 1 bytes\n", g_stWholeProgram.strAtStart);
}

TEST(MemoryTrackExitTest, RecordsOutliveTheStaticObjectsOfTheProgram) {
  EXPECT_EXIT(
      {
        g_stWholeProgram.bReport = true;
        exit(0);
      },
      ::testing::ExitedWithCode(0), "at exit:1 allocate 1 bytes");
}

}  // namespace
