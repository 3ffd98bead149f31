#ifndef KV_SERVER_WORKER_LINK_H
#define KV_SERVER_WORKER_LINK_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "batch.h"
#include "message_queue.h"
#include "queue_set.h"
#include "wake_bytes.h"

// Whom a run's replies are for: a machine of the gateway and a number that means something to it.
struct ReplyTarget_t {
  uint32_t iMachine;
  uint32_t iSlot;
};

// One piece of an answer.
struct ReplyPiece_t {
  std::string_view strBytes;
  uint32_t iCommands;  // whose replies end in it
  bool bGoesOn;
  bool bTorn;
};

// Who is told what a link reads.
class ReplyReceiver {
 public:
  virtual ~ReplyReceiver() = default;
  virtual void OnPiece(const ReplyTarget_t& stTarget, const ReplyPiece_t& stPiece) = 0;
  // The worker died with the run under way, or at least without having answered it.
  virtual void OnLost(const ReplyTarget_t& stTarget) = 0;
  virtual void OnWorkerStarted(int iWorker) = 0;
};

// The gateway's end of one worker's queues.
//
// Commands of a turn are gathered and published with one Push at its end; large values go from the
// caller's memory straight into the ring, so that must stay in place until Publish(). What the ring
// has no room for is kept, copied, and tried again by the next Publish(); until then the link is
// Blocked() and the caller adds nothing to it.
//
// Batches are numbered. An answer to one of them means that whatever was asked before and is still
// unanswered never will be: its worker is gone.
class WorkerLink {
 public:
  WorkerLink(int iWorker, uint64_t iLife, uint64_t iQueueBytes)
      : m_iWorker(iWorker), m_iLife(iLife), m_iQueueBytes(iQueueBytes) {}

  // False with errno.
  bool Attach(const QueueNames_t& stNames);

  MessageQueue& In() { return m_stIn; }
  MessageQueue& Out() { return m_stOut; }
  // The latest Publish() had to keep something.
  bool Blocked() const { return m_bBlocked; }

  // Starts a run whose replies are for stTarget, then adds commands to it. Arguments are those from
  // iFirst on.
  void StartRun(const ReplyTarget_t& stTarget);
  void Add(uint16_t iCommand, const Arguments_t& vecArguments, size_t iFirst);

  // Whether the latest run is this one and may still be added to.
  bool IsOpenRun(const ReplyTarget_t& stTarget) const;

  // Publishes what the ring has room for.
  void Publish();

  // Asks a fresh worker for an answer, which tells what its predecessor has left unanswered.
  void Probe();

  // Takes all answers that have come.
  void Drain(ReplyReceiver& stReceiver);

  // Whether answers wait. To be asked before a sleep on the FIFO of Out(), edge-triggered.
  bool HasMore() { return m_stWakeBytes.HasMore(); }

 private:
  // A batch and its large values, pushed together or not at all.
  struct Unit_t {
    std::string strBatch;
    uint32_t iRuns = 0;
    std::vector<std::string_view> vecValues;  // the caller's bytes, later those of vecKept
    std::vector<std::string> vecKept;
    size_t iSize = 0;  // in the ring; of an open unit, its values
  };

  struct Batch_t {
    uint64_t iNumber;
    uint32_t iRuns;
  };

  void Open();
  void Close();
  bool IsFull() const;
  void Keep(Unit_t& stUnit);
  void PushWaiting();
  void PushUnits(size_t iCount);
  void OnRecord(std::string_view strRecord, ReplyReceiver& stReceiver);
  void DropBefore(uint64_t iNumber, ReplyReceiver& stReceiver);
  void OnPieceOfFirst(const PieceHead_t& stHead, std::string_view strBytes,
                      ReplyReceiver& stReceiver);

  const int m_iWorker;
  const uint64_t m_iLife;
  const uint64_t m_iQueueBytes;
  MessageQueue m_stIn;   // we write
  MessageQueue m_stOut;  // we read
  WakeBytes m_stWakeBytes{m_stOut};
  uint64_t m_iMark = 0;
  uint64_t m_iNumber = 0;
  Unit_t m_stOpen;
  size_t m_iRunHead = 0;  // where the latest run's head stands in the open batch
  uint32_t m_iRunCommands = 0;
  std::deque<Unit_t> m_dqWaiting;  // closed and not pushed
  bool m_bBlocked = false;
  std::deque<Batch_t> m_dqBatches;        // not answered completely
  std::deque<ReplyTarget_t> m_dqTargets;  // of their runs, in order
  std::vector<BufferVec_t> m_vecGather;
};

#endif
