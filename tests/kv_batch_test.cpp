#include "batch.h"

#include <gtest/gtest.h>

namespace {

TEST(KvBatchTest, ReaderTakesRecordsAndBytesInOrder) {
  std::string strRecord;
  AppendRecord(strRecord, uint16_t{7});
  AppendRecord(strRecord, uint64_t{1} << 40);  // unaligned
  strRecord += "text";
  RecordReader stReader(strRecord);
  EXPECT_EQ(7, stReader.Take<uint16_t>());
  EXPECT_EQ(uint64_t{1} << 40, stReader.Take<uint64_t>());
  EXPECT_EQ("text", stReader.TakeBytes(4));
  EXPECT_TRUE(stReader.Good());
}

TEST(KvBatchTest, ReadingPastTheEndGivesZerosForEver) {
  RecordReader stReader(std::string_view("\xff\xff\xff", 3));
  EXPECT_EQ(0u, stReader.Take<uint32_t>());
  EXPECT_FALSE(stReader.Good());
  EXPECT_EQ(0, stReader.Take<char>());
  EXPECT_EQ("", stReader.TakeBytes(1));
  EXPECT_FALSE(stReader.Good());
}

TEST(KvBatchTest, TheLastByteMayBeTakenAndNoneBeyond) {
  RecordReader stReader("ab");
  EXPECT_EQ("ab", stReader.TakeBytes(2));
  EXPECT_EQ("", stReader.TakeBytes(0));
  EXPECT_TRUE(stReader.Good());
  EXPECT_EQ("", stReader.TakeBytes(static_cast<size_t>(-1)));
  EXPECT_FALSE(stReader.Good());
}

// Takes an appended command apart: "number:argument,argument,..."; "+" when a value follows.
std::string Describe(const std::string& strBatch) {
  RecordReader stReader(strBatch);
  const auto stHead = stReader.Take<CommandHead_t>();
  const size_t iInline = stHead.iArguments - stHead.iValueFollows;
  std::vector<uint32_t> vecSizes;
  for (uint32_t i = 0; i < stHead.iArguments; ++i) {
    vecSizes.push_back(stReader.Take<uint32_t>());
  }
  std::string strText = std::to_string(stHead.iCommand) + ":";
  for (size_t i = 0; i < iInline; ++i) {
    strText.append(stReader.TakeBytes(vecSizes[i])).append(",");
  }
  EXPECT_TRUE(stReader.Good());
  EXPECT_EQ("", stReader.TakeBytes(1)) << "something is left";
  return strText + (stHead.iValueFollows != 0 ? "+" : "");
}

TEST(KvBatchTest, CommandCarriesItsArgumentsWithoutTheName) {
  std::string strBatch;
  EXPECT_FALSE(AppendCommand(strBatch, 9, {"SET", "key", "value"}, 1));
  EXPECT_EQ("9:key,value,", Describe(strBatch));
}

TEST(KvBatchTest, CommandMayHaveNoArguments) {
  std::string strBatch;
  EXPECT_FALSE(AppendCommand(strBatch, 3, {"DBSIZE"}, 1));
  EXPECT_FALSE(AppendCommand(strBatch, 3, {}, 0));
  EXPECT_EQ(2 * sizeof(CommandHead_t), strBatch.size());
}

TEST(KvBatchTest, ALargeLastArgumentFollowsByItself) {
  const std::string strLarge(LARGE_VALUE, 'x');
  std::string strBatch;
  EXPECT_TRUE(AppendCommand(strBatch, 9, {"SET", "key", strLarge}, 1));
  EXPECT_EQ("9:key,+", Describe(strBatch));
  std::string strShorter;
  EXPECT_FALSE(AppendCommand(strShorter, 9, {"key", strLarge.substr(1)}, 0));
  EXPECT_EQ("9:key," + strLarge.substr(1) + ",", Describe(strShorter));
}

TEST(KvBatchTest, ALargeArgumentInTheMiddleStays) {
  const std::string strLarge(LARGE_VALUE, 'x');
  std::string strBatch;
  EXPECT_FALSE(AppendCommand(strBatch, 9, {"key", strLarge, "NX"}, 0));
  EXPECT_EQ("9:key," + strLarge + ",NX,", Describe(strBatch));
}

TEST(KvBatchTest, ALargeNameIsNoValue) {
  std::string strBatch;
  EXPECT_FALSE(AppendCommand(strBatch, 9, {std::string(LARGE_VALUE, 'x')}, 1));
}

TEST(KvBatchTest, ARecordIsFarSmallerThanItsQueue) {
  EXPECT_EQ(8192u, RecordLimit(65536));
  EXPECT_EQ(262144u, RecordLimit(uint64_t{1} << 30));
}

TEST(KvBatchTest, PatchingChangesOnlyItsPlace) {
  std::string strRecord = "0123456789";
  PatchRecord(strRecord, 3, uint16_t{0x4141});
  EXPECT_EQ("012AA56789", strRecord);
}

}  // namespace
