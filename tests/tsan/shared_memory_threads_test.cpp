// Both sides of a queue, and a table's writer with a reader, as two threads under ThreadSanitizer:
// whatever one side reads must have been published by the other. Each side has an object of its
// own, as in two processes; both see the segment at one address, since that is what the sanitizer
// goes by.

#include <sanitizer/tsan_interface.h>
#include <sched.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <thread>

#include "endurance.h"
#include "hash_map.h"
#include "message_stream.h"
#include "queue_fixture.h"

// ---- what the sanitizer has to be told

extern "C" void AnnotateBenignRaceSized(const char* pFile, int iLine, const volatile void* pAddress,
                                        size_t iSize, const char* pWhy);

// The first report ends the program.
extern "C" const char* __tsan_default_options() {  // NOLINT(bugprone-reserved-identifier)
  return "halt_on_error=1";
}

namespace {

const char WITHOUT_FENCES[] = "ZELK_WITHOUT_FENCES";

// A word that one side stores and the other loads, each by one instruction, with fences around.
void NotePublishedWord(const void* pWord, size_t iSize) {
  AnnotateBenignRaceSized(__FILE__, __LINE__, pWord, iSize, "published by a fence and one store");
}

struct Mapping_t {
  void* pAddress;
  int iUsers;
};
std::map<int, Mapping_t> g_mapMappings;  // by segment; attaching is done before threads start

}  // namespace

void ModelFence(std::memory_order eOrder) {
  static char cFences;
  static const bool bIgnored = getenv(WITHOUT_FENCES) != nullptr;
  if (bIgnored) {
    return;
  }
  if (eOrder == std::memory_order_release) {
    __tsan_release(&cFences);
  } else {
    __tsan_acquire(&cFences);
  }
}

// In place of the C library's: whoever attaches a segment again is given the same mapping.
extern "C" void* shmat(int iShmID, const void* /*pAddress*/, int iFlags) noexcept {
  Mapping_t& stMapping = g_mapMappings[iShmID];
  if (stMapping.iUsers++ == 0) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): that is how the system returns it
    stMapping.pAddress = reinterpret_cast<void*>(syscall(SYS_shmat, iShmID, nullptr, iFlags));
  }
  return stMapping.pAddress;
}

extern "C" int shmdt(const void* pAddress) noexcept {
  for (auto it = g_mapMappings.begin(); it != g_mapMappings.end(); ++it) {
    if (it->second.pAddress == pAddress) {
      if (--it->second.iUsers == 0) {
        g_mapMappings.erase(it);
        return static_cast<int>(syscall(SYS_shmdt, pAddress));
      }
      return 0;
    }
  }
  return -1;
}

namespace {

// ---- the queue

class QueueThreadsTest : public QueueFixture, public ::testing::WithParamInterface<uint32_t> {
 protected:
  QueueThreadsTest() : QueueFixture(GetParam()) {}

  void SetUp() override {
    QueueFixture::SetUp();
    const RawSegment stSegment(m_stKey.Key());
    NotePublishedWord(reinterpret_cast<char*>(stSegment.Head()) + 5, 2 * sizeof(uint32_t));
  }
  void Write();
  bool Read();

  const uint64_t m_iMessages = Amount("ZELK_TSAN_MESSAGES", 40000);
  std::atomic<bool> m_bStop{false};
};

void QueueThreadsTest::Write() {
  MessageStream stStream(GetParam());
  for (uint64_t iNext = 0; iNext < m_iMessages;) {
    const auto& vecBatch = stStream.Batch(iNext);
    while (m_stWriter.Push(vecBatch.data(), static_cast<unsigned int>(vecBatch.size())) == 0) {
      if (m_bStop.load(std::memory_order_relaxed)) {
        return;
      }
      sched_yield();
    }
    iNext += vecBatch.size();
  }
}

// Does not touch the FIFO: to the sanitizer a byte that is written and read is an order too, and
// would hide that there is none in the ring.
bool QueueThreadsTest::Read() {
  MessageStream stStream(GetParam());
  BufferVec_t szMessages[8];
  for (uint64_t iNext = 0; iNext < m_iMessages;) {
    const int iPopped = m_stReader.Pop(szMessages, static_cast<unsigned int>(1 + iNext % 8));
    for (int i = 0; i < iPopped; ++i, ++iNext) {
      const std::unique_ptr<char[]> pData(szMessages[i].pData);
      if (!stStream.Is(szMessages[i], iNext)) {
        m_bStop.store(true, std::memory_order_relaxed);
        return false;
      }
    }
    if (iPopped == 0) {
      sched_yield();
    }
  }
  return true;
}

TEST_P(QueueThreadsTest, PublishEverythingThatTheOtherSideTouches) {
  const Stopwatch stTime;
  bool bRight = false;
  std::thread stReader([this, &bRight] { bRight = Read(); });
  Write();
  stReader.join();
  EXPECT_TRUE(bRight);
  Report("messages between threads, ring of " + std::to_string(GetParam()) +
             " bytes: " + std::to_string(m_iMessages),
         stTime, "no race");
}

INSTANTIATE_TEST_SUITE_P(RingSizes, QueueThreadsTest, ::testing::Values(13, 64, 5000));

// ---- the table: a reader may look while new entries come

class TableThreadsTest : public ::testing::Test {
 protected:
  static const uint64_t RESERVED = 65536;
  static const uint64_t BUCKETS = 500;
  static const uint64_t HEAD_SIZE = 56;
  static const uint64_t BUCKET_SIZE = 16;
  static const uint64_t SIZE = 32 << 20;

  TableThreadsTest() { RESERVED_SIZE = RESERVED; }
  ~TableThreadsTest() override { RESERVED_SIZE = m_iOldReserved; }

  void SetUp() override {
    ASSERT_TRUE(m_stWriter.Attach(m_stKey.Key(), SIZE, BUCKETS, false));
    ASSERT_TRUE(m_stReader.Attach(m_stKey.Key(), 0, BUCKETS, true));
    ShmAllocator stHeap;
    ASSERT_TRUE(stHeap.Attach(m_stKey.Key(), 0, 0, true));
    const char* pBuckets = static_cast<char*>(stHeap.GetReservedPointer()) + HEAD_SIZE;
    for (uint64_t i = 0; i < BUCKETS; ++i) {
      NotePublishedWord(pBuckets + i * BUCKET_SIZE + 8, sizeof(uint64_t));
    }
  }
  static std::string Text(uint64_t iNumber) {
    return std::to_string(iNumber) + std::string(Scrambled(iNumber) % 50, 'x');
  }
  void Write() {
    for (uint64_t i = 0; i < m_iEntries; ++i) {
      m_stWriter.Set(Text(i).c_str(), Text(i + 1).c_str());
    }
  }
  // Each entry as soon as it is there, in between all there are.
  bool Read() {
    for (uint64_t i = 0; i < m_iEntries; ++i) {
      const char* pValue = nullptr;
      while ((pValue = m_stReader.GetString(Text(i).c_str())) == nullptr) {
        sched_yield();
      }
      if (Text(i + 1) != pValue || (i % 1000 == 0 && !Walk(i + 1))) {
        return false;
      }
    }
    return Walk(m_iEntries);
  }
  bool Walk(uint64_t iAtLeast) {
    uint64_t iCount = 0;
    for (auto it = m_stReader.begin(); it != m_stReader.end(); ++it) {
      const HashItem_t& stItem = *it;
      const uint64_t iNumber = strtoull(stItem.pKey, nullptr, 10);
      if (Text(iNumber) != stItem.pKey || Text(iNumber + 1) != stItem.pValue) {
        return false;
      }
      ++iCount;
    }
    return iCount >= iAtLeast;
  }

  const uint64_t m_iOldReserved = RESERVED_SIZE;
  const uint64_t m_iEntries = Amount("ZELK_TSAN_ENTRIES", 10000);
  const PrivateKey m_stKey;
  HashMap m_stWriter;
  HashMap m_stReader;
};

TEST_F(TableThreadsTest, NewEntriesArePublishedWhole) {
  const Stopwatch stTime;
  bool bRight = false;
  std::thread stReader([this, &bRight] { bRight = Read(); });
  Write();
  stReader.join();
  EXPECT_TRUE(bRight);
  Report("entries of a table between threads: " + std::to_string(m_iEntries), stTime, "no race");
}

// ---- the check itself

// What this program prints when it runs one of the tests above, with fences that do nothing.
std::string OutputWithoutFences(const std::string& strTest) {
  char szProgram[4096] = "";
  std::string strOutput;
  if (readlink("/proc/self/exe", szProgram, sizeof(szProgram) - 1) == -1) {
    return "";
  }
  FILE* pPipe = popen((std::string(WITHOUT_FENCES) + "=1 ZELK_TSAN_MESSAGES=2000 '" + szProgram +
                       "' --gtest_filter=" + strTest + " 2>&1")
                          .c_str(),
                      "r");
  char szBytes[4096];
  for (size_t iCount = 0; (iCount = fread(szBytes, 1, sizeof(szBytes), pPipe)) > 0;) {
    strOutput.append(szBytes, iCount);
  }
  pclose(pPipe);
  return strOutput;
}

TEST(FenceModelTest, WithoutFencesTheQueueIsARace) {
  const std::string strOutput = OutputWithoutFences("*QueueThreadsTest*/1");
  EXPECT_NE(std::string::npos, strOutput.find("data race")) << strOutput;
  EXPECT_NE(std::string::npos, strOutput.find("MessageQueue::Pop")) << strOutput;
}

TEST(FenceModelTest, WithoutFencesTheTableIsARace) {
  const std::string strOutput = OutputWithoutFences("TableThreadsTest.*");
  EXPECT_NE(std::string::npos, strOutput.find("data race")) << strOutput;
  EXPECT_NE(std::string::npos, strOutput.find("HashMap")) << strOutput;
}

}  // namespace
