// The queue between two processes for long: under load, and with either side killed at random.

#include <poll.h>
#include <sched.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <memory>

#include "endurance.h"
#include "message_stream.h"
#include "queue_fixture.h"

namespace {

const int POLL_LIMIT = 20000;  // milliseconds; a wake-up that takes longer was lost
const unsigned int POP_LIMIT = 16;
const int SPINS = 200;

void PushWhenThereIsRoom(MessageQueue& stQueue, const std::vector<BufferVec_t>& vecBatch) {
  const auto iCount = static_cast<unsigned int>(vecBatch.size());
  for (int i = 1; stQueue.Push(vecBatch.data(), iCount) == 0; ++i) {
    if (i % SPINS == 0) {
      sched_yield();
    }
  }
}

// A queue that nobody has attached to yet.
class QueueEnduranceTest : public QueueFixture {
 protected:
  explicit QueueEnduranceTest(uint32_t iRing) : QueueFixture(iRing), m_stStream(iRing) {}
  void SetUp() override {}

  // Waits for messages; some rounds of looking first, so that both ways of waiting are met.
  static bool WaitForMessages(MessageQueue& stQueue);

  MessageStream m_stStream;
};

bool QueueEnduranceTest::WaitForMessages(MessageQueue& stQueue) {
  for (int i = 0; i < SPINS; ++i) {
    if (stQueue.CanReadSize() != 0) {
      return true;
    }
  }
  pollfd stPoll{stQueue.FifoFD(), POLLIN, 0};
  if (poll(&stPoll, 1, POLL_LIMIT) != 1) {
    return false;
  }
  stQueue.ClearFifo();
  return true;
}

class QueueLoadTest : public QueueEnduranceTest, public ::testing::WithParamInterface<uint32_t> {
 protected:
  QueueLoadTest() : QueueEnduranceTest(GetParam()) {}

  int Write();
  void Read();

  const uint64_t m_iMessages = Amount("ZELK_QUEUE_MESSAGES", 50000);
  uint64_t m_iPops = 0;
};

int QueueLoadTest::Write() {
  if (Attach(m_stWriter) != 0) {
    return 1;
  }
  for (uint64_t iNext = 0; iNext < m_iMessages;) {
    const auto& vecBatch = m_stStream.Batch(iNext);
    PushWhenThereIsRoom(m_stWriter, vecBatch);
    iNext += vecBatch.size();
  }
  return 0;
}

void QueueLoadTest::Read() {
  BufferVec_t szMessages[POP_LIMIT];
  for (uint64_t iNext = 0; iNext < m_iMessages;) {
    ASSERT_TRUE(WaitForMessages(m_stReader)) << "at message " << iNext;
    const auto iCount = static_cast<unsigned int>(1 + iNext % POP_LIMIT);
    const int iPopped = m_stReader.Pop(szMessages, iCount);
    ++m_iPops;
    for (int i = 0; i < iPopped; ++i, ++iNext) {
      const std::unique_ptr<char[]> pData(szMessages[i].pData);
      ASSERT_TRUE(m_stStream.Is(szMessages[i], iNext)) << "message " << iNext;
    }
  }
}

TEST_P(QueueLoadTest, EveryMessageArrivesOnceWholeAndInOrder) {
  const Stopwatch stTime;
  ASSERT_EQ(0, Attach(m_stReader));
  ForkedPeer stWriter([this] { return Write(); });
  ASSERT_NO_FATAL_FAILURE(Read());
  EXPECT_EQ(0, stWriter.Wait());
  const double dRate = static_cast<double>(m_iMessages) / stTime.Seconds();
  Report("messages through a ring of " + std::to_string(GetParam()) +
             " bytes: " + std::to_string(m_iMessages),
         stTime,
         std::to_string(static_cast<uint64_t>(dRate)) + " messages a second, " +
             std::to_string(m_iPops) + " calls of Pop");
}

// The smallest takes one message without bytes, the next one of up to one byte.
INSTANTIATE_TEST_SUITE_P(RingSizes, QueueLoadTest, ::testing::Values(5, 6, 13, 64, 1000, 65536));

// A place in the stream, by number and by offset in the ring.
class Position {
 public:
  Position(const MessageStream& stStream, uint32_t iRing) : m_stStream(stStream), m_iRing(iRing) {}

  uint64_t Number() const { return m_iNumber; }
  // To the message that begins at an offset, or not at all when it is none of the next iLimit.
  bool MoveToOffset(uint32_t iOffset, unsigned int iLimit) {
    const Position stStart = *this;
    for (unsigned int i = 0; i < iLimit && m_iOffset != iOffset; ++i) {
      Step();
    }
    if (m_iOffset == iOffset) {
      return true;
    }
    m_iNumber = stStart.m_iNumber;
    m_iOffset = stStart.m_iOffset;
    return false;
  }
  void MoveToNumber(uint64_t iNumber) {
    while (m_iNumber < iNumber) {
      Step();
    }
  }

 private:
  void Step() { m_iOffset = (m_iOffset + m_stStream.RecordSize(m_iNumber++)) % m_iRing; }

  const MessageStream& m_stStream;
  uint32_t m_iRing;
  uint64_t m_iNumber = 0;
  uint32_t m_iOffset = 0;
};

// Either side, or both, is killed again and again. A record on file says what was begun and what
// was through; after each death the offset that the dead process alone stored must be one of the
// few that go with the record, and its successor goes on from there.
class QueueKillTest : public QueueEnduranceTest, public ::testing::WithParamInterface<uint32_t> {
 protected:
  QueueKillTest() : QueueEnduranceTest(GetParam()) {}

  struct Record_t {
    std::atomic<uint64_t> iPushed{0};    // writer: messages that Push has accepted
    std::atomic<bool> bPushing{false};   // writer: inside Push, with the next batch
    std::atomic<uint64_t> iReceived{0};  // reader: messages that Pop returned and that were right
    std::atomic<bool> bPopping{false};   // reader: inside Pop
    std::atomic<bool> bWrong{false};     // reader: something else came
  };

  int WriteOn();
  int ReadOn();
  bool TakeMessages(MessageQueue& stQueue);
  void StartWriter() {
    m_pWriter = std::make_unique<ForkedPeer>([this] { return WriteOn(); });
  }
  void StartReader() {
    m_pReader = std::make_unique<ForkedPeer>([this] { return ReadOn(); });
  }
  void KillWriter();
  void KillReader();
  void RunOn(uint64_t iMessages);
  void KillSome(uint64_t iRandom);
  void Finish();

  const State<Record_t> m_pRecord{m_stDirectory.File("record")};
  std::unique_ptr<ForkedPeer> m_pWriter;
  std::unique_ptr<ForkedPeer> m_pReader;
  Position m_stWritten{m_stStream, GetParam()};
  Position m_stRead{m_stStream, GetParam()};

  uint64_t m_iKilledInPush = 0;
  uint64_t m_iKilledAfterPublishing = 0;
  uint64_t m_iKilledInPop = 0;
  uint64_t m_iInHand = 0;  // messages that a reader took into its grave
};

int QueueKillTest::WriteOn() {
  MessageQueue stQueue;
  if (Attach(stQueue) != 0) {
    return 1;
  }
  stQueue.Push(nullptr, 0);  // the predecessor may have died before it woke the reader
  for (uint64_t iNext = m_pRecord->iPushed;;) {
    const auto& vecBatch = m_stStream.Batch(iNext);
    m_pRecord->bPushing = true;
    PushWhenThereIsRoom(stQueue, vecBatch);
    iNext += vecBatch.size();
    m_pRecord->iPushed = iNext;
    m_pRecord->bPushing = false;
  }
}

bool QueueKillTest::TakeMessages(MessageQueue& stQueue) {
  BufferVec_t szMessages[POP_LIMIT];
  uint64_t iNext = m_pRecord->iReceived;
  m_pRecord->bPopping = true;
  const int iPopped = stQueue.Pop(szMessages, static_cast<unsigned int>(1 + iNext % POP_LIMIT));
  m_pRecord->bPopping = false;
  for (int i = 0; i < iPopped; ++i) {
    const std::unique_ptr<char[]> pData(szMessages[i].pData);
    if (!m_stStream.Is(szMessages[i], iNext)) {
      m_pRecord->bWrong = true;
      return false;
    }
    m_pRecord->iReceived = ++iNext;
  }
  return true;
}

int QueueKillTest::ReadOn() {
  MessageQueue stQueue;
  if (Attach(stQueue) != 0) {
    return 1;
  }
  do {  // takes before it first waits: the wake bytes may have died with the predecessor
    while (stQueue.CanReadSize() != 0) {
      if (!TakeMessages(stQueue)) {
        return 1;
      }
    }
  } while (WaitForMessages(stQueue));
  return 1;
}

void QueueKillTest::KillWriter() {
  m_pWriter->Kill(SIGKILL);
  ASSERT_EQ(1000 + SIGKILL, m_pWriter->Wait());
  const RawSegment stSegment(m_stKey.Key());
  const uint32_t iOffset = stSegment.Head()->iWriteOffset;
  const uint64_t iPushed = m_pRecord->iPushed;
  m_stWritten.MoveToNumber(iPushed);
  ASSERT_TRUE(m_stWritten.MoveToOffset(iOffset, MessageStream::MAX_BATCH));
  const uint64_t iInFlight = m_stWritten.Number() - iPushed;
  m_iKilledInPush += m_pRecord->bPushing ? 1 : 0;
  m_iKilledAfterPublishing += iInFlight != 0 ? 1 : 0;
  ASSERT_TRUE(iInFlight == 0 ||
              (m_pRecord->bPushing && iInFlight == m_stStream.BatchCount(iPushed)))
      << iInFlight << " messages of the batch from " << iPushed;
  m_pRecord->iPushed = m_stWritten.Number();
}

void QueueKillTest::KillReader() {
  m_pReader->Kill(SIGKILL);
  ASSERT_EQ(1000 + SIGKILL, m_pReader->Wait());
  const RawSegment stSegment(m_stKey.Key());
  const uint64_t iReceived = m_pRecord->iReceived;
  m_stRead.MoveToNumber(iReceived);
  ASSERT_TRUE(m_stRead.MoveToOffset(stSegment.Head()->iReadOffset, POP_LIMIT))
      << "after message " << iReceived;
  m_iInHand += m_stRead.Number() - iReceived;
  m_iKilledInPop += m_pRecord->bPopping ? 1 : 0;
  m_pRecord->iReceived = m_stRead.Number();
  m_pRecord->bPopping = false;
}

void QueueKillTest::RunOn(uint64_t iMessages) {
  const uint64_t iLimit = m_pRecord->iReceived + iMessages;
  ASSERT_TRUE(
      WaitUntil([&] { return m_pRecord->iReceived >= iLimit || m_pRecord->bWrong; }, POLL_LIMIT))
      << "stands still after message " << m_pRecord->iReceived;
  ASSERT_FALSE(m_pRecord->bWrong) << "after message " << m_pRecord->iReceived;
}

// One of the two or both, which come back in the other order. Nothing of the dead stays attached:
// else three deaths would lock all others out.
void QueueKillTest::KillSome(uint64_t iRandom) {
  const bool bWriter = iRandom % 3 != 0;
  const bool bReader = iRandom % 3 != 1;
  const bool bWriterFirst = iRandom / 3 % 2 == 0;
  for (const bool bWritersTurn : {bWriterFirst, !bWriterFirst}) {
    if (bWritersTurn && bWriter) {
      ASSERT_NO_FATAL_FAILURE(KillWriter());
    } else if (!bWritersTurn && bReader) {
      ASSERT_NO_FATAL_FAILURE(KillReader());
    }
  }
  ASSERT_LE(Attachments(m_stKey.Key()), bWriter && bReader ? 0 : 1);  // it may be on its way
  for (const bool bWritersTurn : {!bWriterFirst, bWriterFirst}) {
    if (bWritersTurn && bWriter) {
      StartWriter();
    } else if (!bWritersTurn && bReader) {
      StartReader();
    }
  }
}

// No more is written, and the reader takes the rest.
void QueueKillTest::Finish() {
  ASSERT_NO_FATAL_FAILURE(KillWriter());
  ASSERT_TRUE(WaitUntil([this] { return m_pRecord->iReceived == m_pRecord->iPushed; }, POLL_LIMIT))
      << m_pRecord->iReceived << " of " << m_pRecord->iPushed;
  ASSERT_NO_FATAL_FAILURE(KillReader());
  EXPECT_EQ(m_stWritten.Number(), m_stRead.Number());
  EXPECT_FALSE(m_pRecord->bWrong);
}

TEST_P(QueueKillTest, EveryMessageArrivesOnceButThoseInADeadReadersHands) {
  const Stopwatch stTime;
  const uint64_t iKills = Amount("ZELK_QUEUE_KILLS", 60);
  StartReader();
  StartWriter();
  for (uint64_t i = 0; i < iKills; ++i) {
    ASSERT_NO_FATAL_FAILURE(RunOn(1 + Scrambled(i) % 300)) << "after " << i << " kills";
    ASSERT_NO_FATAL_FAILURE(KillSome(Scrambled(~i))) << "kill " << i;
  }
  ASSERT_NO_FATAL_FAILURE(RunOn(300));
  ASSERT_NO_FATAL_FAILURE(Finish());
  EXPECT_LE(m_iInHand, iKills * POP_LIMIT);
  Report("kills on a ring of " + std::to_string(GetParam()) + " bytes: " + std::to_string(iKills),
         stTime,
         std::to_string(m_pRecord->iPushed) + " messages; writers died " +
             std::to_string(m_iKilledInPush) + " times inside Push (" +
             std::to_string(m_iKilledAfterPublishing) + " times all of it was there), readers " +
             std::to_string(m_iKilledInPop) + " times inside Pop; " + std::to_string(m_iInHand) +
             " messages were in dead readers' hands");
}

// Where hardly a message fits, the sides wait for each other; in the large one, they copy.
INSTANTIATE_TEST_SUITE_P(RingSizes, QueueKillTest, ::testing::Values(64, 2 << 20));

}  // namespace
