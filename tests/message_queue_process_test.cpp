// The queue between real processes: under load, killed on either side, at every single step.

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <new>

#include "queue_fixture.h"

namespace {

const int POLL_LIMIT = 20000;  // milliseconds; a wake-up that takes longer was lost

// Memory that this process and its children share, and that survives their death.
template <typename T>
class Shared {
 public:
  Shared()
      : m_pValue(new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                           -1, 0)) T()) {}
  ~Shared() { munmap(m_pValue, sizeof(T)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  T* operator->() const { return m_pValue; }

 private:
  T* m_pValue;
};

uint64_t Scrambled(uint64_t iNumber) {
  iNumber = (iNumber ^ (iNumber >> 30)) * 0xbf58476d1ce4e5b9u;
  iNumber = (iNumber ^ (iNumber >> 27)) * 0x94d049bb133111ebu;
  return iNumber ^ (iNumber >> 31);
}

// A stream of numbered messages whose sizes and bytes follow from their numbers, in batches that
// follow from the number of their first.
class Stream {
 public:
  explicit Stream(uint32_t iRing) : m_iLargest(iRing - 1 - LENGTH_SIZE) {}

  std::string Message(uint64_t iNumber) const {
    const uint64_t iRandom = Scrambled(iNumber + 1);
    std::string strText(sizeof(iNumber) + iRandom % (m_iLargest - sizeof(iNumber) + 1), ' ');
    memcpy(strText.data(), &iNumber, sizeof(iNumber));
    for (size_t i = sizeof(iNumber); i < strText.size(); ++i) {
      strText[i] = static_cast<char>(iRandom >> (i % 8 * 8));
    }
    return strText;
  }

  static uint64_t NumberOf(const std::string& strMessage) {
    uint64_t iNumber = 0;
    memcpy(&iNumber, strMessage.data(), sizeof(iNumber));
    return iNumber;
  }

  // At most four messages that an empty ring can take.
  Texts_t Batch(uint64_t iFirst) const {
    Texts_t vecTexts = {Message(iFirst)};
    size_t iBytes = vecTexts[0].size() + LENGTH_SIZE;
    for (uint64_t i = 1; i <= Scrambled(iFirst) % 4; ++i) {
      const std::string strText = Message(iFirst + i);
      iBytes += strText.size() + LENGTH_SIZE;
      if (iBytes > m_iLargest + LENGTH_SIZE) {
        break;
      }
      vecTexts.push_back(strText);
    }
    return vecTexts;
  }

 private:
  uint32_t m_iLargest;
};

void PushWhenThereIsRoom(MessageQueue& stQueue, const Texts_t& vecTexts) {
  while (PushTexts(stQueue, vecTexts) == 0) {
    sched_yield();
  }
}

bool WaitForWakeByte(const MessageQueue& stQueue) {
  pollfd stPoll{const_cast<MessageQueue&>(stQueue).FifoFD(), POLLIN, 0};
  return poll(&stPoll, 1, POLL_LIMIT) == 1;
}

// A queue that nobody has attached to yet.
class MessageQueueProcessTest : public QueueFixture {
 protected:
  explicit MessageQueueProcessTest(uint32_t iRing = RING_SIZE) : QueueFixture(iRing) {}
  void SetUp() override {}
};

TEST_F(MessageQueueProcessTest, MessagesOutliveAllProcesses) {
  ForkedPeer stWriter(
      [this] { return Attach(m_stWriter) == 0 ? PushText(m_stWriter, "last words") : 0; });
  ASSERT_EQ(1, stWriter.Wait());
  ASSERT_EQ(0, Attachments(m_stKey.Key()));
  ASSERT_EQ(0, Attach(m_stReader));
  EXPECT_EQ("last words", PopText(m_stReader));
}

// The system keeps a FIFO's bytes only while some process has it open.
TEST_F(MessageQueueProcessTest, WakeBytesDoNotOutliveTheProcesses) {
  ForkedPeer stWriter(
      [this] { return Attach(m_stWriter) == 0 ? PushText(m_stWriter, "message") : 0; });
  ASSERT_EQ(1, stWriter.Wait());
  ASSERT_EQ(0, Attach(m_stReader));
  EXPECT_EQ("", TakeWakeBytes());
}

// 0 when an attach was refused as it should be.
int BeRefused(const std::string& strFifo, key_t iKey, uint32_t iSegment) {
  MessageQueue stQueue;
  const int iOpen = OpenDescriptors();
  if (stQueue.AttachWithKey(strFifo.c_str(), iKey, iSegment) == 0) {
    return 1;
  }
  const bool bClosed = stQueue.FifoFD() == -1 && OpenDescriptors() == iOpen;
  return errno == EBUSY && bClosed && !stQueue.Ready() ? 0 : 1;
}

TEST_F(MessageQueueProcessTest, FourthProcessIsRefusedUntilOneOfThreeIsGone) {
  const auto fnAttach = [this] { return Attach(m_stWriter) == 0 ? pause() : 1; };
  const auto fnAttached = [this](int iCount) {
    return WaitUntil([this, iCount] { return Attachments(m_stKey.Key()) == iCount; });
  };
  ForkedPeer stFirst(fnAttach);
  ASSERT_TRUE(fnAttached(1));
  ForkedPeer stSecond(fnAttach);
  ASSERT_TRUE(fnAttached(2));
  ForkedPeer stThird(fnAttach);
  ASSERT_TRUE(fnAttached(3));
  ForkedPeer stFourth([this] { return BeRefused(m_strFifo, m_stKey.Key(), m_iSegment); });
  EXPECT_EQ(0, stFourth.Wait());
  EXPECT_EQ(3, Attachments(m_stKey.Key()));
  stSecond.Kill(SIGKILL);
  ASSERT_EQ(1000 + SIGKILL, stSecond.Wait());
  ForkedPeer stNext(fnAttach);
  EXPECT_TRUE(fnAttached(3));
}

TEST_F(MessageQueueProcessTest, InheritedAttachmentCountsAsOne) {
  ASSERT_EQ(0, Attach(m_stWriter));
  ForkedPeer stPeer([] { return pause(); });
  EXPECT_TRUE(WaitUntil([this] { return Attachments(m_stKey.Key()) == 2; }));
}

class MessageQueueLoadTest : public MessageQueueProcessTest,
                             public ::testing::WithParamInterface<uint32_t> {
 protected:
  static constexpr uint64_t MESSAGES = 350000;
  MessageQueueLoadTest() : MessageQueueProcessTest(GetParam()) {}

  int Write();
  void Read();

  const Stream m_stStream{GetParam()};
};

int MessageQueueLoadTest::Write() {
  if (Attach(m_stWriter) != 0) {
    return 1;
  }
  for (uint64_t iNext = 0; iNext < MESSAGES;) {
    const Texts_t vecTexts = m_stStream.Batch(iNext);
    PushWhenThereIsRoom(m_stWriter, vecTexts);
    iNext += vecTexts.size();
  }
  return 0;
}

void MessageQueueLoadTest::Read() {
  for (uint64_t iNext = 0; iNext < MESSAGES;) {
    ASSERT_TRUE(WaitForWakeByte(m_stReader)) << "at message " << iNext;
    m_stReader.ClearFifo();
    for (unsigned int iCount = 1;; iCount = 1 + iNext % 8) {
      const Texts_t vecTexts = PopTexts(m_stReader, iCount);
      if (vecTexts.empty()) {
        break;
      }
      for (const std::string& strText : vecTexts) {
        ASSERT_EQ(m_stStream.Message(iNext), strText) << "message " << iNext;
        ++iNext;
      }
    }
  }
}

TEST_P(MessageQueueLoadTest, EveryMessageArrivesOnceWholeAndInOrder) {
  ASSERT_EQ(0, Attach(m_stReader));
  ForkedPeer stWriter([this] { return Write(); });
  ASSERT_NO_FATAL_FAILURE(Read());
  EXPECT_EQ(0, stWriter.Wait());
  EXPECT_LE(m_stReader.CanReadSize(), 4 * GetParam());
}

INSTANTIATE_TEST_SUITE_P(RingSizes, MessageQueueLoadTest, ::testing::Values(40, 64, 1000));

// Either side is killed again and again while the other goes on.
class MessageQueueKillTest : public MessageQueueProcessTest {
 protected:
  static constexpr uint32_t RING = 256;
  static constexpr int KILLS = 500;
  static constexpr unsigned int POP_COUNT = 4;
  MessageQueueKillTest() : MessageQueueProcessTest(RING) {}

  struct Progress_t {
    volatile uint64_t iFirst = 0;     // writer: the batch that is being pushed
    volatile uint64_t iReceived = 0;  // reader: messages that Pop has returned and that were right
    volatile bool bWrong = false;     // reader: something else came
  };

  int WriteFrom(uint64_t iNext);
  int ReadOn();
  bool Note(const std::string& strText, unsigned int iMayBeLost);
  void ReceiveUntil(uint64_t iLimit, uint64_t& iNext);
  void Drain(uint64_t& iNext);

  const Stream m_stStream{RING};
  const Shared<Progress_t> m_pProgress;
};

int MessageQueueKillTest::WriteFrom(uint64_t iNext) {
  MessageQueue stQueue;
  if (Attach(stQueue) != 0) {
    return 1;
  }
  for (;;) {
    const Texts_t vecTexts = m_stStream.Batch(iNext);
    m_pProgress->iFirst = iNext;
    PushWhenThereIsRoom(stQueue, vecTexts);
    iNext += vecTexts.size();
  }
}

void MessageQueueKillTest::Drain(uint64_t& iNext) {
  for (std::string strText; (strText = PopText(m_stReader)) != NO_MESSAGE; ++iNext) {
    ASSERT_EQ(m_stStream.Message(iNext), strText) << "message " << iNext;
  }
}

void MessageQueueKillTest::ReceiveUntil(uint64_t iLimit, uint64_t& iNext) {
  while (iNext < iLimit) {
    ASSERT_TRUE(WaitForWakeByte(m_stReader));
    m_stReader.ClearFifo();
    ASSERT_NO_FATAL_FAILURE(Drain(iNext));
  }
}

TEST_F(MessageQueueKillTest, KilledWriterLeavesAllMessagesOfItsPushOrNone) {
  ASSERT_EQ(0, Attach(m_stReader));
  uint64_t iNext = 0;
  for (int i = 0; i < KILLS; ++i) {
    m_pProgress->iFirst = iNext;
    ForkedPeer stWriter([this, iNext] { return WriteFrom(iNext); });
    ASSERT_NO_FATAL_FAILURE(ReceiveUntil(iNext + 1 + Scrambled(iNext) % 300, iNext));
    stWriter.Kill(SIGKILL);
    ASSERT_EQ(1000 + SIGKILL, stWriter.Wait());
    ASSERT_NO_FATAL_FAILURE(Drain(iNext));
    const uint64_t iFirst = m_pProgress->iFirst;
    ASSERT_TRUE(iNext == iFirst || iNext == iFirst + m_stStream.Batch(iFirst).size())
        << iNext << " after a batch from " << iFirst;
    ASSERT_EQ(0u, m_stReader.CanReadSize());
  }
}

// Notes what a Pop returned; false when that is not what had to come.
bool MessageQueueKillTest::Note(const std::string& strText, unsigned int iMayBeLost) {
  const uint64_t iNumber = Stream::NumberOf(strText);
  m_pProgress->bWrong =
      iNumber - m_pProgress->iReceived > iMayBeLost || strText != m_stStream.Message(iNumber);
  m_pProgress->iReceived = iNumber + 1;
  return !m_pProgress->bWrong;
}

int MessageQueueKillTest::ReadOn() {
  MessageQueue stQueue;
  if (Attach(stQueue) != 0) {
    return 1;
  }
  // A predecessor may have died with messages that Pop had returned, in its own memory.
  unsigned int iMayBeLost = POP_COUNT;
  do {
    stQueue.ClearFifo();
    for (Texts_t vecTexts; !(vecTexts = PopTexts(stQueue, POP_COUNT)).empty();) {
      for (const std::string& strText : vecTexts) {
        if (!Note(strText, iMayBeLost)) {
          return 1;
        }
        iMayBeLost = 0;
      }
    }
  } while (WaitForWakeByte(stQueue));
  return 1;
}

TEST_F(MessageQueueKillTest, KilledReaderIsFollowedByOneThatGoesOn) {
  ForkedPeer stWriter([this] { return WriteFrom(0); });
  for (int i = 0; i < KILLS; ++i) {
    const uint64_t iStart = m_pProgress->iReceived;
    ForkedPeer stReader([this] { return ReadOn(); });
    const uint64_t iLimit = iStart + 1 + Scrambled(iStart) % 300;
    ASSERT_TRUE(WaitUntil([&] { return m_pProgress->iReceived >= iLimit || m_pProgress->bWrong; }));
    ASSERT_FALSE(m_pProgress->bWrong) << "after message " << m_pProgress->iReceived;
    stReader.Kill(SIGKILL);
    ASSERT_EQ(1000 + SIGKILL, stReader.Wait());
  }
}

// Each machine instruction of one call, with all that memory held in between.
class MessageQueueStepTest : public QueueFixture, public ::testing::WithParamInterface<uint32_t> {
 protected:
  static constexpr uint32_t RING = 256;
  MessageQueueStepTest() : QueueFixture(RING) {}

  void SetUp() override;
  std::string Image() const { return m_pSegment->Bytes(0, m_iSegment); }
  void Restore(const std::string& strImage) const {
    memcpy(m_pSegment->Head(), strImage.data(), strImage.size());
  }
  bool CollectImages(const std::function<void()>& fnCall,
                     std::vector<std::string>& vecImages) const;

  // Copies of a fixed size, by memcpy, and none at all.
  const Texts_t m_vecOld = {"old one", std::string(20, 'o')};
  const Texts_t m_vecNew = {"a", std::string(40, 'n'), "", std::string(90, 'w'), "last"};
  std::unique_ptr<RawSegment> m_pSegment;
};

void MessageQueueStepTest::SetUp() {
  QueueFixture::SetUp();
  m_pSegment = std::make_unique<RawSegment>(m_stKey.Key());
  m_pSegment->Head()->iReadOffset = RING - GetParam();
  m_pSegment->Head()->iWriteOffset = RING - GetParam();
  ASSERT_EQ(2, PushTexts(m_stWriter, m_vecOld));
}

// Runs fnCall in a child, step by step; each state of the segment that a kill could leave is
// added once. False when the system does not allow tracing.
bool MessageQueueStepTest::CollectImages(const std::function<void()>& fnCall,
                                         std::vector<std::string>& vecImages) const {
  vecImages.push_back(Image());
  ForkedPeer stPeer([&fnCall] {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == -1) {
      return 1;
    }
    raise(SIGSTOP);
    fnCall();
    return raise(SIGSTOP);
  });
  // An end is left for ForkedPeer to collect.
  siginfo_t stEvent{};
  waitid(P_PID, static_cast<id_t>(stPeer.Pid()), &stEvent, WSTOPPED | WEXITED | WNOWAIT);
  if (stEvent.si_code == CLD_EXITED) {
    return false;
  }
  int iStatus = 0;
  waitpid(stPeer.Pid(), &iStatus, WSTOPPED);
  do {
    ptrace(PTRACE_SINGLESTEP, stPeer.Pid(), nullptr, nullptr);
    waitpid(stPeer.Pid(), &iStatus, 0);
    if (Image() != vecImages.back()) {
      vecImages.push_back(Image());
    }
  } while (WIFSTOPPED(iStatus) && WSTOPSIG(iStatus) == SIGTRAP);
  return WIFSTOPPED(iStatus);
}

Texts_t Joined(Texts_t vecTexts, const Texts_t& vecMore) {
  vecTexts.insert(vecTexts.end(), vecMore.begin(), vecMore.end());
  return vecTexts;
}

TEST_P(MessageQueueStepTest, WriterThatDiesAnywhereInPushLeavesAllMessagesOrNone) {
  std::vector<std::string> vecImages;
  if (!CollectImages([this] { PushTexts(m_stWriter, m_vecNew); }, vecImages)) {
    GTEST_SKIP() << "tracing is not allowed here";
  }
  ASSERT_GT(vecImages.size(), m_vecNew.size());
  for (const std::string& strImage : vecImages) {
    Restore(strImage);
    const Texts_t vecExpected =
        &strImage == &vecImages.back() ? Joined(m_vecOld, m_vecNew) : m_vecOld;
    ASSERT_EQ(vecExpected, PopTexts(m_stReader, 20));
    Restore(strImage);
    ASSERT_EQ(1, PushText(m_stWriter, "successor"));
    ASSERT_EQ(Joined(vecExpected, {"successor"}), PopTexts(m_stReader, 20));
  }
}

TEST_P(MessageQueueStepTest, ReaderThatDiesAnywhereInPopIsGivenTheSameMessagesAgain) {
  ASSERT_EQ(5, PushTexts(m_stWriter, m_vecNew));
  std::vector<std::string> vecImages;
  if (!CollectImages([this] { PopTexts(m_stReader, 6); }, vecImages)) {
    GTEST_SKIP() << "tracing is not allowed here";
  }
  ASSERT_EQ(2u, vecImages.size()) << "Pop stores one thing, the read offset";
  Restore(vecImages[0]);
  EXPECT_EQ(Joined(m_vecOld, m_vecNew), PopTexts(m_stReader, 20));
  Restore(vecImages[1]);
  EXPECT_EQ(Texts_t{"last"}, PopTexts(m_stReader, 20));
}

// The batch within the ring, and split at several places.
INSTANTIATE_TEST_SUITE_P(BytesBeforeTheEnd, MessageQueueStepTest,
                         ::testing::Values(256, 37, 40, 44, 46, 60, 90, 95, 180));

}  // namespace
