#include "reply_outbox.h"

#include <signal.h>

#include <ctime>

#include "kv_queue_fixture.h"
#include "process_signals.h"

namespace {

const uint64_t NUMBER = 5;
const int AT_ONCE = 0;

// The outbox under test, read back through the gateway's end.
class KvReplyOutboxTest : public KvQueueTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_stLink.Attach(Names()));
    Attach(m_stQueue, Names().stOut);
    Attach(m_stRequests, Names().stIn);
  }

  // Has the gateway ask for as many runs as the test answers.
  void Ask(uint32_t iRuns) {
    for (uint32_t i = 0; i < iRuns; ++i) {
      m_stLink.StartRun({1, i});
      m_stLink.Add(1, {"key"}, 0);
    }
    m_stLink.Publish();
    Pop(m_stRequests);
  }

  void Reply(const std::string& strReply) {
    m_stOutbox.Reply() += strReply;
    m_stOutbox.EndCommand();
  }

  std::string Drain() {
    m_stLink.Drain(*this);
    return Told();
  }

  size_t Limit() const { return RecordLimit(QUEUE_BYTES); }

  WorkerLink m_stLink{0, LIFE, QUEUE_BYTES};
  MessageQueue m_stQueue;
  MessageQueue m_stRequests;
  ReplyOutbox m_stOutbox{m_stQueue, QUEUE_BYTES, AT_ONCE};
};

TEST_F(KvReplyOutboxTest, HelloHasNoLife) {
  m_stOutbox.Hello();
  EXPECT_EQ(0u, m_stQueue.CanReadSize()) << "before it is published";
  EXPECT_TRUE(m_stOutbox.Publish());
  EXPECT_EQ("worker 0\n", Drain());
}

// Whoever has to make an answer true does so while nobody can read it.
TEST_F(KvReplyOutboxTest, TheBarrierIsPassedBeforeAnAnswerLeaves) {
  int iPassed = 0;
  m_stOutbox.SetBarrier([&] {
    ++iPassed;
    EXPECT_EQ(0u, m_stQueue.CanReadSize());
  });
  EXPECT_TRUE(m_stOutbox.Publish());
  EXPECT_EQ(0, iPassed) << "there is no answer";
  m_stOutbox.Hello();
  EXPECT_TRUE(m_stOutbox.Publish());
  EXPECT_EQ(1, iPassed);
  EXPECT_NE(0u, m_stQueue.CanReadSize());
}

TEST_F(KvReplyOutboxTest, ARunIsOnePieceHoweverManyCommands) {
  Ask(2);
  m_stOutbox.BeginBatch(LIFE, 1);
  m_stOutbox.BeginRun();
  Reply("+a");
  Reply("+b");
  m_stOutbox.EndRun();
  m_stOutbox.BeginRun();
  Reply("+c");
  m_stOutbox.EndRun();
  m_stOutbox.EndBatch();
  EXPECT_TRUE(m_stOutbox.Publish());
  EXPECT_EQ("1.0=+a+b/2\n1.1=+c/1\n", Drain());
}

TEST_F(KvReplyOutboxTest, ABatchWithoutRunsIsAnswered) {
  m_stOutbox.BeginBatch(LIFE, NUMBER);
  m_stOutbox.EndBatch();
  EXPECT_TRUE(m_stOutbox.Publish());
  EXPECT_EQ(MakeAnswer(LIFE, NUMBER, {}), Pop(m_stLink.Out()));
}

TEST_F(KvReplyOutboxTest, ARunOfManyRepliesGoesOnInTheNextRecord) {
  Ask(2);
  const std::string strReply(Limit() / 2, 'x');
  m_stOutbox.BeginBatch(LIFE, 1);
  m_stOutbox.BeginRun();
  Reply(strReply);
  Reply(strReply);
  Reply("+end");
  m_stOutbox.EndRun();
  m_stOutbox.BeginRun();
  Reply("+other");
  m_stOutbox.EndRun();
  m_stOutbox.EndBatch();
  EXPECT_TRUE(m_stOutbox.Publish());
  EXPECT_EQ("1.0=" + strReply + strReply + "/2 goes on\n1.0=+end/1\n1.1=+other/1\n", Drain());
}

TEST_F(KvReplyOutboxTest, ALongReplyIsTornAndItsEndIsWhole) {
  Ask(1);
  std::string strReply(5 * Limit(), ' ');
  for (size_t i = 0; i < strReply.size(); ++i) {
    strReply[i] = static_cast<char>('a' + i % 26);
  }
  m_stOutbox.BeginBatch(LIFE, 1);
  m_stOutbox.BeginRun();
  Reply("+first");
  Reply(strReply);
  m_stOutbox.EndRun();
  m_stOutbox.EndBatch();
  EXPECT_TRUE(m_stOutbox.Publish());
  std::string strAll;
  std::vector<std::string> vecEnds;
  for (std::string strRecord; (strRecord = Pop(m_stLink.Out())) != "(none)";) {
    EXPECT_LT(strRecord.size(), 3 * Limit() + sizeof(ReplyHead_t) + sizeof(PieceHead_t));
    RecordReader stReader(strRecord);
    ASSERT_EQ(1u, stReader.Take<ReplyHead_t>().iPieces);
    const auto stPiece = stReader.Take<PieceHead_t>();
    strAll.append(stReader.TakeBytes(stPiece.iSize));
    vecEnds.push_back(std::to_string(stPiece.iFlags) + "/" + std::to_string(stPiece.iCommands));
  }
  EXPECT_EQ("+first" + strReply, strAll);
  EXPECT_EQ((std::vector<std::string>{"3/0", "3/0", "3/0", "3/0", "1/2", "0/0"}), vecEnds);
}

TEST_F(KvReplyOutboxTest, AReplyOfExactlyARecordEndsIt) {
  Ask(1);
  const size_t iHeads = sizeof(ReplyHead_t) + sizeof(PieceHead_t);
  m_stOutbox.BeginBatch(LIFE, 1);
  m_stOutbox.BeginRun();
  Reply(std::string(Limit() - iHeads, 'x'));
  m_stOutbox.EndRun();
  m_stOutbox.EndBatch();
  EXPECT_TRUE(m_stOutbox.Publish());
  EXPECT_EQ("1.0=" + std::string(Limit() - iHeads, 'x') + "/1 goes on\n1.0=/0\n", Drain());
}

// Answers more than the queue holds, in a process of its own, while the test reads slowly.
TEST_F(KvReplyOutboxTest, AFullQueueIsWaitedFor) {
  const uint32_t iRuns = 50;
  const std::string strReply(4000, 'x');
  Ask(iRuns);
  const ForkedPeer stWorker([&] {
    m_stOutbox.BeginBatch(LIFE, 1);
    for (uint32_t i = 0; i < iRuns; ++i) {
      m_stOutbox.BeginRun();
      Reply(strReply + std::to_string(i));
      m_stOutbox.EndRun();
    }
    m_stOutbox.EndBatch();
    return m_stOutbox.Publish() ? pause() : 1;
  });
  EXPECT_TRUE(WaitUntil([this] { return m_stLink.Out().CanReadSize() > QUEUE_BYTES / 2; }));
  std::string strExpected;
  for (uint32_t i = 0; i < iRuns; ++i) {
    strExpected += strReply + std::to_string(i);
  }
  std::string strAll;
  EXPECT_TRUE(WaitUntil([&] {
    std::string strTold = Drain();
    for (size_t iStart = 0; (iStart = strTold.find('=', iStart)) != std::string::npos; ++iStart) {
      strAll += strTold.substr(iStart + 1, strTold.find('/', iStart) - iStart - 1);
    }
    return strAll.size() >= strExpected.size();
  }));
  EXPECT_EQ(strExpected, strAll);
}

// Answers without end, in pieces, that nobody reads: returns once it is given up.
int AnswerForEver(ReplyOutbox& stOutbox) {
  stOutbox.BeginBatch(1, 1);
  while (g_bRunFlag || stOutbox.Publish()) {
    stOutbox.BeginRun();
    stOutbox.Reply() += std::string(9000, 'x');
    stOutbox.EndCommand();
    stOutbox.EndRun();
  }
  return 7;
}

TEST_F(KvReplyOutboxTest, WaitingEndsWhenTheProcessIsToEnd) {
  ForkedPeer stWorker([this] {
    InstallSignals();
    return AnswerForEver(m_stOutbox);
  });
  ASSERT_TRUE(WaitUntil([this] { return m_stQueue.CanWriteSize() < 2 * Limit(); }));
  stWorker.Kill(SIGTERM);
  EXPECT_EQ(7, stWorker.Wait());
}

TEST_F(KvReplyOutboxTest, AnswersOfOneBatchArePushedBeforeItsEndWhenTheyAreMany) {
  m_stOutbox.BeginBatch(LIFE, 1);
  for (int i = 0; i < 5; ++i) {
    m_stOutbox.BeginRun();
    Reply(std::string(Limit(), 'x'));
    m_stOutbox.EndRun();
  }
  EXPECT_EQ(0u, m_stQueue.CanReadSize());
  MessageQueue& stGateway = m_stLink.Out();
  ForkedPeer stReader([&stGateway] {
    while (Pop(stGateway) == "(none)") {
    }
    return 0;
  });
  for (int i = 0; i < 4; ++i) {
    m_stOutbox.BeginRun();
    Reply(std::string(Limit() / 2, 'x'));
    m_stOutbox.EndRun();
    m_stOutbox.BeginRun();
    Reply(std::string(Limit() / 2, 'x'));
    m_stOutbox.EndRun();
  }
  EXPECT_EQ(0, stReader.Wait()) << "before EndBatch() and Publish()";
}

}  // namespace
