#ifndef ZELK_TESTS_KV_QUEUE_FIXTURE_H
#define ZELK_TESTS_KV_QUEUE_FIXTURE_H

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "batch.h"
#include "log.h"
#include "message_queue.h"
#include "queue_set.h"
#include "test_support.h"
#include "worker_link.h"
#include "zelk_variable.h"

// One piece of an answer as a test writes it.
struct WrittenPiece_t {
  std::string strBytes;
  uint32_t iCommands = 1;
  uint32_t iFlags = 0;
};

inline std::string MakeAnswer(uint64_t iLife, uint64_t iNumber,
                              const std::vector<WrittenPiece_t>& vecPieces) {
  std::string strRecord;
  AppendRecord(strRecord,
               ReplyHead_t{iLife, iNumber, REPLY_ANSWERS, static_cast<uint32_t>(vecPieces.size())});
  for (const WrittenPiece_t& stPiece : vecPieces) {
    AppendRecord(strRecord, PieceHead_t{static_cast<uint32_t>(stPiece.strBytes.size()),
                                        stPiece.iCommands, stPiece.iFlags});
    strRecord += stPiece.strBytes;
  }
  return strRecord;
}

// The two queues of one worker, a log that goes to a file, and the tools to look into records.
class KvQueueTest : public ::testing::Test, protected ReplyReceiver {
 protected:
  static constexpr unsigned int QUEUE_BYTES = 65536;
  static constexpr uint64_t LIFE = 77;

  KvQueueTest() : m_stQueues(m_stDirectory.Path()) {
    m_stLog.SetPath(m_stDirectory.File("log"));
    g_pLog = &m_stLog;
    m_stQueues.Create(1, QUEUE_BYTES);
  }
  ~KvQueueTest() override {
    m_stQueues.Remove();
    g_pLog = nullptr;
  }

  const QueueNames_t& Names() const { return m_stQueues.Names()[0]; }
  const PrivateDirectory& Directory() const { return m_stDirectory; }

  static void Attach(MessageQueue& stQueue, const QueueName_t& stName) {
    ASSERT_EQ(0, stQueue.AttachWithKey(stName.strFifo.c_str(), stName.iKey, QUEUE_BYTES));
  }

  // The next record, "(none)" when there is none.
  static std::string Pop(MessageQueue& stQueue) {
    BufferVec_t stRecord{};
    if (stQueue.Pop(&stRecord, 1) == 0) {
      return "(none)";
    }
    const std::unique_ptr<char[]> pData(stRecord.pData);
    return std::string(stRecord.pData, stRecord.iSize);
  }

  static bool Push(MessageQueue& stQueue, std::string strRecord) {
    BufferVec_t stRecord{strRecord.data(), static_cast<uint32_t>(strRecord.size())};
    return stQueue.Push(&stRecord, 1) == 1;
  }

  // What a link told, one line for each call since the last look.
  std::string Told() { return std::move(m_strTold); }

  void OnPiece(const ReplyTarget_t& stTarget, const ReplyPiece_t& stPiece) override {
    m_strTold += Name(stTarget) + "=" + std::string(stPiece.strBytes) + "/" +
                 std::to_string(stPiece.iCommands) + (stPiece.bGoesOn ? " goes on" : "") +
                 (stPiece.bTorn ? " torn" : "") + "\n";
  }
  void OnLost(const ReplyTarget_t& stTarget) override { m_strTold += Name(stTarget) + " lost\n"; }
  void OnWorkerStarted(int iWorker) override {
    m_strTold += "worker " + std::to_string(iWorker) + "\n";
  }

 private:
  static std::string Name(const ReplyTarget_t& stTarget) {
    return std::to_string(stTarget.iMachine) + "." + std::to_string(stTarget.iSlot);
  }

  const PrivateDirectory m_stDirectory;
  QueueSet m_stQueues;
  Log m_stLog;
  std::string m_strTold;
};

#endif
