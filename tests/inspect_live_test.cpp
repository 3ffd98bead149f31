// Looks at segments whose owners are writing as fast as they can.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <set>
#include <string>

#include "hash_map.h"
#include "heap_image.h"
#include "process_view.h"
#include "queue_fixture.h"
#include "ring_check.h"
#include "segment_check.h"
#include "segment_format.h"
#include "test_support.h"
#include "verify.h"

namespace {

const int LOOKS = 300;
const int MOST_LOOKS = 1000000;  // where the writers are seldom given a processor

std::unique_ptr<SegmentView> OpenLive(key_t iKey) {
  SegmentStatus_t stStatus;
  std::string strError;
  EXPECT_TRUE(ReadStatus(shmget(iKey, 0, 0), stStatus));
  auto pView = OpenSegment(stStatus, &strError);
  EXPECT_EQ("", strError);
  return pView;
}

// A number, and as many bytes more as it says, all made of it.
std::string NumberedMessage(uint64_t iNumber) {
  std::string strMessage(sizeof(iNumber) + iNumber % 61, static_cast<char>(iNumber));
  memcpy(strMessage.data(), &iNumber, sizeof(iNumber));
  return strMessage;
}

uint64_t NumberOf(const std::string& strMessage) {
  uint64_t iNumber = 0;
  memcpy(&iNumber, strMessage.data(), std::min(strMessage.size(), sizeof(iNumber)));
  return iNumber;
}

class LiveRingTest : public ::testing::Test {
 protected:
  static const uint32_t RING = 4096;

  int Attach(MessageQueue& stQueue) {
    return stQueue.AttachWithKey(m_strFifo.c_str(), m_stKey.Key(), HEAD_SIZE + RING);
  }
  int Write() {
    MessageQueue stQueue;
    Attach(stQueue);
    for (uint64_t i = 0;; i += PushText(stQueue, NumberedMessage(i)) == 1 ? 1 : 0) {
    }
  }
  int Read() {
    MessageQueue stQueue;
    Attach(stQueue);
    for (;;) {
      PopTexts(stQueue, 3);
      stQueue.ClearFifo();
    }
  }
  void SetUp() override {
    MessageQueue stQueue;
    ASSERT_EQ(0, Attach(stQueue));
    stQueue.Detach();
    m_pWriter = std::make_unique<ForkedPeer>([this] { return Write(); });
    m_pReader = std::make_unique<ForkedPeer>([this] { return Read(); });
    ASSERT_TRUE(WaitUntil([this] { return Attachments(m_stKey.Key()) == 2; }));
  }

  const PrivateDirectory m_stDirectory;
  const PrivateKey m_stKey;
  const std::string m_strFifo = m_stDirectory.File("fifo");
  std::unique_ptr<ForkedPeer> m_pWriter;
  std::unique_ptr<ForkedPeer> m_pReader;
};

// Consecutive messages, each whole, that add up to what the offsets say.
void ExpectConsistent(const RingReport_t& stReport) {
  uint64_t iBytes = 0;
  for (size_t i = 0; i < stReport.vecMessages.size(); ++i) {
    const std::string& strMessage = stReport.vecMessages[i];
    ASSERT_EQ(NumberedMessage(NumberOf(strMessage)), strMessage);
    ASSERT_EQ(NumberOf(stReport.vecMessages[0]) + i, NumberOf(strMessage));
    iBytes += LENGTH_SIZE + strMessage.size();
  }
  ASSERT_EQ(stReport.iUsed, iBytes);
  ASSERT_EQ(stReport.iMessages, stReport.vecMessages.size());
}

TEST_F(LiveRingTest, EveryViewIsOneThatTheRingHadAtAnInstant) {
  const auto pView = OpenLive(m_stKey.Key());
  int iLooks = 0;
  int iStable = 0;
  std::set<uint64_t> setFirst;
  for (; iLooks < LOOKS || (setFirst.size() < 10 && iLooks < MOST_LOOKS); ++iLooks) {
    const RingReport_t stReport = CheckRing(*pView, RING, RING);
    ASSERT_EQ("", stReport.Faults());
    if (stReport.bStable) {
      ASSERT_NO_FATAL_FAILURE(ExpectConsistent(stReport));
      iStable += 1;
      setFirst.insert(stReport.vecMessages.empty() ? 0 : NumberOf(stReport.vecMessages[0]));
    }
  }
  EXPECT_GT(iStable, iLooks / 2);
  EXPECT_EQ(10u, std::min<size_t>(setFirst.size(), 10));  // it was live indeed
  EXPECT_EQ("", pView->Finish());
  EXPECT_EQ(2, Attachments(m_stKey.Key()));
}

TEST_F(LiveRingTest, AHolderThatDiesIsNoticed) {
  m_pReader.reset();
  const auto pView = OpenLive(m_stKey.Key());
  m_pWriter.reset();
  CheckRing(*pView);
  EXPECT_NE("", pView->Finish());
}

TEST(LiveViewTest, AHolderThatHasOtherBytesThereNowIsNoticed) {
  const PrivateKey stKey;
  const ForkedPeer stHolder([&] {
    sigset_t stSignals;
    int iSignal = 0;
    sigemptyset(&stSignals);
    sigaddset(&stSignals, SIGUSR1);
    sigprocmask(SIG_BLOCK, &stSignals, nullptr);
    void* p = shmat(shmget(stKey.Key(), 4096, IPC_CREAT | 0600), nullptr, 0);
    sigwait(&stSignals, &iSignal);
    mmap(p, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    pause();
    return 0;
  });
  ASSERT_TRUE(WaitUntil([&] { return Attachments(stKey.Key()) == 1; }));
  const auto pView = OpenLive(stKey.Key());
  EXPECT_EQ("", pView->Finish());
  stHolder.Kill(SIGUSR1);
  ASSERT_TRUE(WaitUntil([&] { return Attachments(stKey.Key()) == 0; }));
  pView->Forget();
  pView->Word(0);
  EXPECT_EQ("process " + std::to_string(stHolder.Pid()) + " has left the segment meanwhile",
            pView->Finish());
}

// A table whose writer replaces and deletes keys all the time.
class LiveTableTest : public ::testing::Test {
 protected:
  static const uint64_t SIZE = HEAP_RESERVED + 1048576 + (4 << 20);
  static const uint64_t BUCKETS = 64;

  static std::string KeyName(unsigned int i) { return "key " + std::to_string(i % 500); }

  int Write() {
    HashMap stMap;
    stMap.Attach(m_stKey.Key(), SIZE, BUCKETS, false);
    for (unsigned int i = 0;; ++i) {
      const std::string strKey = KeyName(i * 7);
      const std::string strValue = strKey + std::string(i % 90, 'v');
      stMap.Set(strKey.c_str(), strValue.c_str());
      stMap.Delete(KeyName(i * 11).c_str());
    }
  }
  void SetUp() override {
    HashMap stMap;
    ASSERT_TRUE(stMap.Attach(m_stKey.Key(), SIZE, BUCKETS, false));
    ASSERT_TRUE(stMap.Set("untouched", "value"));
    stMap.Detach();
    m_pWriter = std::make_unique<ForkedPeer>([this] { return Write(); });
    ASSERT_TRUE(WaitUntil([this] { return Attachments(m_stKey.Key()) == 1; }));
  }

  const PrivateKey m_stKey;
  std::unique_ptr<ForkedPeer> m_pWriter;
};

TEST_F(LiveTableTest, ASoundTableIsNeverCalledDamaged) {
  const auto pView = OpenLive(m_stKey.Key());
  for (int i = 0; i < 20; ++i) {
    const Verification_t stResult = Verify(*pView);
    ASSERT_EQ(VERDICT_SOUND, stResult.eVerdict) << stResult.vecFaults.front();
  }
  EXPECT_EQ("", pView->Finish());
}

TEST_F(LiveTableTest, DamageIsFoundWhileTheWriterGoesOn) {
  {
    HeapImage stImage(m_stKey.Key());
    stImage.SetWord(HEAP_LISTS + 8 * 4000, 12345);
  }
  const auto pView = OpenLive(m_stKey.Key());
  const Verification_t stResult = Verify(*pView);
  EXPECT_EQ(VERDICT_NOT_SOUND, stResult.eVerdict);
  EXPECT_EQ((std::vector<std::string>{"list of no block at 12345"}), stResult.vecFaults);
}

TEST_F(LiveTableTest, EveryEntryThatIsShownIsWhole) {
  const auto pView = OpenLive(m_stKey.Key());
  bool bUntouched = false;
  uint64_t iEntries = 0;
  TableVisitor_t stVisitor;
  stVisitor.fnEntry = [&](const Entry_t& stEntry) {
    bUntouched = bUntouched || stEntry.strKey == "untouched";
    EXPECT_TRUE(stEntry.strKey == "untouched" || stEntry.strKey.substr(0, 4) == "key ");
    iEntries += 1;
  };
  for (int i = 0; i < 20; ++i) {
    bUntouched = false;
    pView->Forget();
    WalkChains(*pView, stVisitor);
    EXPECT_TRUE(bUntouched);
  }
  EXPECT_GT(iEntries, 20u);
}

}  // namespace
