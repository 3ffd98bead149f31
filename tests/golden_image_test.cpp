// What an earlier build has left in shared memory, read and worked on by this one. The images and
// what is in them: tests/data/golden/README.md.

#include "golden_image.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>

#include "hash_map.h"
#include "heap_image.h"
#include "long_action_util.h"
#include "queue_fixture.h"
#include "ring_check.h"
#include "shm_allocator.h"
#include "test_support.h"

namespace {

std::string Golden(const char* pName) { return GOLDEN_DIRECTORY "/" + std::string(pName); }

class GoldenImageTest : public ::testing::Test {
 protected:
  void Load(const char* pName) { LoadImage(Golden(pName), m_stKey.Key()); }

  const PrivateKey m_stKey;
};

TEST_F(GoldenImageTest, TheRingsMessagesAreTakenAndNewOnesFit) {
  const PrivateDirectory stDirectory;
  Load("ring.image");
  MessageQueue stQueue;
  ASSERT_EQ(0, stQueue.AttachWithKey(stDirectory.File("fifo").c_str(), m_stKey.Key(), 13 + 64));
  EXPECT_EQ(54u, stQueue.CanReadSize());
  EXPECT_EQ((Texts_t{"first message", "", "this one goes on at the start"}), PopTexts(stQueue, 9));
  for (size_t i = 0; i < 100; ++i) {
    ASSERT_EQ(1, PushText(stQueue, std::string(i % 60, 'n')));
    ASSERT_EQ(Texts_t{std::string(i % 60, 'n')}, PopTexts(stQueue, 9));
  }
  EXPECT_EQ("", CheckRing(HeapImage(m_stKey.Key())).Faults());
}

TEST_F(GoldenImageTest, TheHeapsBlocksAreThereAndTheFreeOnesServe) {
  Load("heap.image");
  ShmAllocator stHeap;
  ASSERT_TRUE(stHeap.Attach(m_stKey.Key(), 0, 0, false));
  EXPECT_EQ("the reserved area, its 32 bytes.",
            std::string(static_cast<char*>(stHeap.GetReservedPointer()), 32));
  // Batches are handed out from their end.
  const uint64_t iBegin = 4194384 + 32;
  const uint64_t iLarge = iBegin + 10 * 24 + 9 * 112 + 8;
  const char* pLarge = static_cast<char*>(stHeap.GetPointer(iLarge));
  EXPECT_EQ(std::string(100, 'C'), std::string(pLarge, 100));
  EXPECT_EQ(std::string(16, 'A'),
            std::string(static_cast<char*>(stHeap.GetPointer(iBegin + 9 * 24 + 8)), 16));
  EXPECT_EQ(4096u - 1360, stHeap.GetStat().iFreeSize);
  EXPECT_EQ(4096u - 2 * 24 - 112, stHeap.GetStat().iTotalFreeSize);
  EXPECT_EQ(iBegin + 8 * 24 + 8, stHeap.GetOffset(stHeap.Allocate(16)));  // freed last
  stHeap.Deallocate(stHeap.GetPointer(iLarge));
  EXPECT_EQ(iLarge, stHeap.GetOffset(stHeap.Allocate(104)));
  while (stHeap.Allocate(16) != nullptr) {
  }
  const SegmentReport_t stReport = CheckHeap(HeapImage(m_stKey.Key()));
  EXPECT_EQ("", stReport.Faults());
  EXPECT_TRUE(stReport.CountersAgree());
}

TEST_F(GoldenImageTest, TheTablesEntriesAreFoundAndChanged) {
  Load("table.image");
  HashMap stTable;
  ASSERT_TRUE(stTable.Attach(m_stKey.Key(), 0, 999, false));
  EXPECT_EQ(5u, stTable.GetStat().iObjectCount);
  EXPECT_STREQ("red", stTable.GetString("color"));
  EXPECT_EQ(1234567890123456789u, stTable.GetInt("count", 0));
  EXPECT_STREQ("the empty key", stTable.GetString(""));
  const HashItem_t stBinary = stTable.Get("\xc3\xa9\x80\xff");
  ASSERT_EQ(3u, stBinary.iValueSize);
  EXPECT_EQ(std::string("a\0b", 3), std::string(stBinary.pValue, 3));
  EXPECT_STREQ("nothing", stTable.Get("nothing").pKey);
  EXPECT_EQ(nullptr, stTable.Get("gone").pKey);
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(stTable.Set(("key" + std::to_string(i % 20)).c_str(), uint64_t(i)));
  }
  ASSERT_TRUE(stTable.Set("color", "green"));
  ASSERT_TRUE(stTable.Delete(""));
  EXPECT_EQ(24u, stTable.GetStat().iObjectCount);
  const SegmentReport_t stReport = CheckTable(HeapImage(m_stKey.Key()));
  EXPECT_EQ("", stReport.Faults());
  EXPECT_TRUE(stReport.CountersAgree());
}

TEST_F(GoldenImageTest, TheRequestIsParsedAndSerialisedTheSame) {
  const std::string strBytes = ImageBytes(ReadFile(Golden("request.image")));
  LongActionMethod stMethod;
  ASSERT_TRUE(stMethod.ParseRequest(strBytes.data(), static_cast<unsigned int>(strBytes.size())));
  EXPECT_EQ("ExecuteShell2", stMethod.Method());
  EXPECT_EQ("ls -l", stMethod.Param("command", 0));
  EXPECT_EQ("second in order, added first", stMethod.Param("list", 0));
  EXPECT_EQ("added second", stMethod.Param("list", 1));
  EXPECT_EQ(std::string("\0\n\xff", 3), stMethod.Param("binary", 0));
  EXPECT_EQ("", stMethod.Param("empty", 0));
  EXPECT_EQ(strBytes, stMethod.SerializeRequest());
}

TEST(ImageTextTest, BytesComeBack) {
  std::string strBytes(100, '\0');
  strBytes[0] = 'a';
  strBytes[99] = '\xff';
  const std::string strText = ImageText(strBytes, "a comment");
  EXPECT_EQ("# a comment\nsize 100\n0 61" + std::string(" 00 00 00 00 00 00 00 00 00 00 00 00 00") +
                " 00 00\n96 00 00 00 ff\n",
            strText);
  EXPECT_EQ(strBytes, ImageBytes(strText));
  for (const char* pWrong :
       {"", "size x\n", "size 4\n0 61 62 63 64 65\n", "size 4\n0 100\n", "size 4\n0 6x\n"}) {
    EXPECT_THROW(ImageBytes(pWrong), std::runtime_error) << pWrong;
  }
}

}  // namespace
