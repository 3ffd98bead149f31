#include "worker.h"

#include <signal.h>

#include <algorithm>
#include <optional>

#include "command_table.h"
#include "kv_queue_fixture.h"
#include "kv_store_fixture.h"
#include "process_signals.h"

namespace {

// A worker as a process; the test is its gateway.
class KvWorkerTest : public KvQueueTest {
 protected:
  void SetUp() override { NewLink(LIFE); }

  // As a gateway process of that life has it.
  void NewLink(uint64_t iLife) {
    m_stLink.emplace(0, iLife, QUEUE_BYTES);
    ASSERT_TRUE(m_stLink->Attach(Names()));
  }

  void StartWorker() {
    m_pWorker = std::make_unique<ForkedPeer>([this] {
      Settings_t stSettings;
      stSettings.iQueueBytes = QUEUE_BYTES;
      InstallSignals();
      return Worker(stSettings, Names(), m_stTable.Name()).Run();
    });
  }

  void Ask(uint32_t iSlot, CommandId_t eCommand, const Arguments_t& vecArguments) {
    m_stLink->StartRun({1, iSlot});
    m_stLink->Add(eCommand, vecArguments, 0);
    m_stLink->Publish();
  }

  // Everything the link tells until it has told iLines lines.
  std::string Lines(long iLines) {
    std::string strLines;
    EXPECT_TRUE(WaitUntil([&] {
      m_stLink->Drain(*this);
      strLines += Told();
      return std::count(strLines.begin(), strLines.end(), '\n') >= iLines;
    })) << strLines;
    return strLines;
  }

  const StoreTable m_stTable;
  std::optional<WorkerLink> m_stLink;
  std::unique_ptr<ForkedPeer> m_pWorker;
};

TEST_F(KvWorkerTest, SaysHelloAndAnswers) {
  StartWorker();
  EXPECT_EQ("worker 0\n", Lines(1));
  Ask(0, CMD_INCR, {"a"});
  EXPECT_EQ("1.0=:1\r\n/1\n", Lines(2));
}

TEST_F(KvWorkerTest, LargeValuesReachTheirCommands) {
  const std::string strFirst(LARGE_VALUE, '1');
  const std::string strSecond(LARGE_VALUE, '2');
  StartWorker();
  Lines(1);
  m_stLink->StartRun({1, 0});
  m_stLink->Add(CMD_SET, {"a", strFirst}, 0);
  m_stLink->Add(CMD_SET, {"b", strSecond}, 0);
  m_stLink->Add(CMD_GET, {"b"}, 0);
  m_stLink->Publish();
  const std::string strStart = "1.0=+OK\r\n+OK\r\n$16384\r\n" + strSecond.substr(0, 5000);
  EXPECT_EQ(strStart, Lines(4).substr(0, strStart.size()));
}

TEST_F(KvWorkerTest, FinishesItsQueueBeforeItEnds) {
  for (uint32_t i = 0; i < 100; ++i) {
    Ask(i, CMD_INCR, {"a"});
  }
  StartWorker();
  EXPECT_TRUE(WaitUntil([this] { return m_stLink->Out().CanReadSize() > 0; }));
  m_pWorker->Kill(SIGTERM);
  EXPECT_EQ(0, m_pWorker->Wait());
  EXPECT_NE(std::string::npos, Lines(201).find("1.99=:100\r\n/1\n"));
}

// What a worker finds that follows one killed between a batch and its values. The value looks like
// a batch, as a client might make it.
TEST_F(KvWorkerTest, ValuesWithoutTheirBatchAreNotTakenForBatches) {
  std::string strFake;
  AppendRecord(strFake, RequestHead_t{Names().iMark ^ 1, LIFE, 1, 1, 0, 0});
  AppendRecord(strFake, RunHead_t{1});
  AppendCommand(strFake, CMD_FLUSHALL, {}, 0);
  strFake.resize(LARGE_VALUE);
  {
    MessageQueue stQueue;
    Attach(stQueue, Names().stIn);
    ASSERT_TRUE(Push(stQueue, strFake));
    ASSERT_TRUE(Push(stQueue, std::string(LARGE_VALUE, '\xff')));
    ASSERT_TRUE(Push(stQueue, "short"));
  }
  Ask(0, CMD_INCR, {"a"});
  StartWorker();
  EXPECT_EQ("worker 0\n1.0=:1\r\n/1\n", Lines(3));
}

TEST_F(KvWorkerTest, KilledWorkersRequestsAreLostAndLaterOnesRun) {
  StartWorker();
  Lines(1);
  m_pWorker->Kill(SIGSTOP);
  Ask(0, CMD_INCR, {"a"});
  {
    MessageQueue stQueue;  // as if the worker had taken it
    m_pWorker->Kill(SIGKILL);
    m_pWorker->Wait();
    Attach(stQueue, Names().stIn);
    Pop(stQueue);
  }
  Ask(1, CMD_INCR, {"a"});
  StartWorker();
  EXPECT_EQ("worker 0\n1.0 lost\n1.1=:1\r\n/1\n", Lines(4));
}

TEST_F(KvWorkerTest, ANewGatewayIsAnsweredAndAnOldOneIsNot) {
  StartWorker();
  Lines(1);
  Ask(0, CMD_INCR, {"a"});
  EXPECT_EQ("1.0=:1\r\n/1\n", Lines(2));
  NewLink(LIFE + 1);
  Ask(7, CMD_INCR, {"a"});
  EXPECT_EQ("1.7=:2\r\n/1\n", Lines(2));
}

// Half a batch with the right mark: its run is answered without replies, which is the gateway's
// to notice.
TEST_F(KvWorkerTest, ADamagedBatchEndsAtTheDamage) {
  std::string strBatch;
  AppendRecord(strBatch, RequestHead_t{Names().iMark, LIFE, 1, 2, 0, 0});
  AppendRecord(strBatch, RunHead_t{2});
  AppendCommand(strBatch, CMD_INCR, {"a"}, 0);
  AppendRecord(strBatch, CommandHead_t{CMD_INCR, 1, 0});
  {
    MessageQueue stQueue;
    Attach(stQueue, Names().stIn);
    ASSERT_TRUE(Push(stQueue, strBatch));
  }
  StartWorker();
  EXPECT_TRUE(WaitUntil([this] {
    return ReadFile(Directory().File("log")).empty() && m_stLink->Out().CanReadSize() > 80;
  }));
  EXPECT_NE("(none)", Pop(m_stLink->Out()));
  EXPECT_EQ(MakeAnswer(LIFE, 1, {{":1\r\n"}, {"", 0}}), Pop(m_stLink->Out()));
}

}  // namespace
