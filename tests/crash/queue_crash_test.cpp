// The ring's writer and its reader killed after each single instruction of an operation: the reader
// is given all messages of a Push or none, and those of a Pop again unless it was through.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "heap_image.h"
#include "message_queue.h"
#include "queue_fixture.h"
#include "ring_check.h"
#include "sweep.h"
#include "test_support.h"

namespace {

const std::string OLD = "old";  // in the ring before the operation
const uint32_t OLD_RECORD = LENGTH_SIZE + 3;

Texts_t Joined(Texts_t vecTexts, const Texts_t& vecMore) {
  vecTexts.insert(vecTexts.end(), vecMore.begin(), vecMore.end());
  return vecTexts;
}

class QueueCrashTest : public ::testing::Test {
 protected:
  // A ring whose first record begins so many bytes before its end.
  void Arrange(uint32_t iBeforeTheEnd, const Texts_t& vecTexts) {
    m_pKey = std::make_unique<PrivateKey>();
    MessageQueue stQueue;
    ASSERT_EQ(0, Attach(stQueue));
    {
      const RawSegment stRaw(m_pKey->Key());
      stRaw.Head()->iReadOffset = RING_SIZE - iBeforeTheEnd;
      stRaw.Head()->iWriteOffset = RING_SIZE - iBeforeTheEnd;
    }
    ASSERT_EQ(static_cast<int>(vecTexts.size()), PushTexts(stQueue, vecTexts));
  }

  int Attach(MessageQueue& stQueue) {
    return stQueue.AttachWithKey(m_strFifo.c_str(), m_pKey->Key(), HEAD_SIZE + RING_SIZE);
  }

  // What is in the ring, found without the library; such a walk takes nothing.
  Texts_t LookAtRing() {
    const HeapImage stRaw(m_pKey->Key());
    const RingReport_t stReport = CheckRing(stRaw, 20, RING_SIZE);
    EXPECT_EQ("", stReport.Faults());
    return stReport.vecMessages;
  }

  // The next process finds one of two, and can use the ring.
  void Check(const Texts_t& vecBefore, const Texts_t& vecAfter, bool bComplete) {
    const Texts_t vecSeen = LookAtRing();
    MessageQueue stQueue;
    ASSERT_EQ(0, Attach(stQueue));
    const Texts_t vecFound = PopTexts(stQueue, 20);
    EXPECT_TRUE(vecFound == vecAfter || (!bComplete && vecFound == vecBefore))
        << vecFound.size() << " messages";
    EXPECT_EQ(vecFound, vecSeen);
    const std::string strLargest(RING_SIZE - 1 - LENGTH_SIZE, 'x');
    EXPECT_EQ(1, PushText(stQueue, strLargest));
    EXPECT_EQ(Texts_t{strLargest}, PopTexts(stQueue, 20));
  }

  void SweepPush(uint32_t iBeforeTheEnd, const Texts_t& vecNew) {
    std::vector<BufferVec_t> vecMessages;
    for (const std::string& strText : vecNew) {
      vecMessages.push_back(
          {const_cast<char*>(strText.data()), static_cast<uint32_t>(strText.size())});
    }
    const auto iCount = static_cast<unsigned int>(vecMessages.size());
    MessageQueue stWriter;
    SweepInstructions({[&] { Arrange(iBeforeTheEnd, {OLD}); }, [&] { Attach(stWriter); },
                       [&] { stWriter.Push(vecMessages.data(), iCount); },
                       [&](bool bComplete) { Check({OLD}, Joined({OLD}, vecNew), bComplete); }});
  }

  void SweepPop(uint32_t iBeforeTheEnd) {
    const Texts_t vecAll = {OLD, std::string(20, 'p'), "rest"};
    BufferVec_t szMessages[2];
    MessageQueue stReader;
    SweepInstructions({[&] { Arrange(iBeforeTheEnd, vecAll); }, [&] { Attach(stReader); },
                       [&] { stReader.Pop(szMessages, 2); },
                       [&](bool bComplete) { Check(vecAll, {"rest"}, bComplete); }});
  }

  const PrivateDirectory m_stDirectory;
  const std::string m_strFifo = m_stDirectory.File("fifo");
  std::unique_ptr<PrivateKey> m_pKey;
};

TEST_F(QueueCrashTest, Push) { SweepPush(RING_SIZE, {std::string(20, 'n')}); }

TEST_F(QueueCrashTest, PushWithTheLengthWordSplit) {
  SweepPush(OLD_RECORD + 2, {std::string(20, 'n')});
}

TEST_F(QueueCrashTest, PushWithThePayloadSplit) {
  SweepPush(OLD_RECORD + LENGTH_SIZE + 7, {std::string(20, 'n')});
}

TEST_F(QueueCrashTest, PushThatEndsWithTheRing) {
  SweepPush(OLD_RECORD + LENGTH_SIZE + 20, {std::string(20, 'n')});
}

TEST_F(QueueCrashTest, PushOfABatch) { SweepPush(RING_SIZE, {"first", "", std::string(20, 'n')}); }

TEST_F(QueueCrashTest, PushOfABatchWithItsMiddleSplit) {
  SweepPush(OLD_RECORD + LENGTH_SIZE + 5 + 3, {"first", std::string(20, 'n'), "third"});
}

TEST_F(QueueCrashTest, Pop) { SweepPop(RING_SIZE); }

TEST_F(QueueCrashTest, PopWithTheLengthWordSplit) { SweepPop(OLD_RECORD + 1); }

TEST_F(QueueCrashTest, PopWithThePayloadSplit) { SweepPop(OLD_RECORD + LENGTH_SIZE + 7); }

}  // namespace
