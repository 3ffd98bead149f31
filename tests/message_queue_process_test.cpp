// The queue between real processes, killed on either side at every single step. Random kills and
// load: tests/endurance.

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>

#include "queue_fixture.h"

namespace {

// A queue that nobody has attached to yet.
class MessageQueueProcessTest : public QueueFixture {
 protected:
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

// A dead writer's successor, in a ring too full for it, has to tell the reader of what is there.
TEST_F(MessageQueueProcessTest, EmptyPushWakesForThePredecessorThatDiedBeforeItDid) {
  const std::string strElsewhere = m_stDirectory.File("elsewhere");
  ForkedPeer stWriter([&] {  // its wake byte goes where nobody waits
    const bool bAttached =
        m_stWriter.AttachWithKey(strElsewhere.c_str(), m_stKey.Key(), m_iSegment) == 0;
    return bAttached ? PushText(m_stWriter, std::string(RING_SIZE / 2, 'x')) : 0;
  });
  ASSERT_EQ(0, Attach(m_stReader));
  ASSERT_EQ(1, stWriter.Wait());
  ASSERT_EQ(0, Attach(m_stWriter));
  ASSERT_EQ(0, PushText(m_stWriter, std::string(RING_SIZE / 2, 'y')));
  EXPECT_EQ("", TakeWakeBytes());
  m_stWriter.Push(nullptr, 0);
  EXPECT_EQ("1", TakeWakeBytes());
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
