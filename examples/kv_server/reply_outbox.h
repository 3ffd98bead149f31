#ifndef KV_SERVER_REPLY_OUTBOX_H
#define KV_SERVER_REPLY_OUTBOX_H

#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "batch.h"
#include "message_queue.h"

// A worker's answers of one turn: replies are written straight into reply records, and all records
// are pushed together at its end, or earlier when they have become large.
class ReplyOutbox {
 public:
  // Once the process is asked to stop, the answers wait for room for so many seconds.
  ReplyOutbox(MessageQueue& stQueue, uint64_t iQueueBytes, int iStopSeconds);

  // Called each time before answers leave this process.
  void SetBarrier(std::function<void()> fnBarrier) { m_fnBarrier = std::move(fnBarrier); }

  void Hello();

  void BeginBatch(uint64_t iLife, uint64_t iNumber);
  void BeginRun();
  // Where the reply of the run's next command goes; EndCommand() behind each.
  std::string& Reply() { return m_strRecord; }
  void EndCommand();
  void EndRun();
  void EndBatch();

  // Pushes everything, however long that takes, unless the process is asked to stop. False when
  // answers were given up.
  bool Publish();

 private:
  void OpenRecord();
  void CloseRecord();
  void OpenPiece();
  void PatchPiece(uint32_t iCommands, uint32_t iFlags);
  void CutPiece();
  size_t PieceSize() const;
  bool PushSome();

  MessageQueue& m_stQueue;
  std::function<void()> m_fnBarrier = [] {};
  const size_t m_iLimit;
  const int m_iStopSeconds;
  time_t m_iDeadline = 0;  // when waiting ends; 0: nobody has asked us to stop
  ReplyHead_t m_stHead{};
  std::string m_strRecord;
  size_t m_iPiece = 0;       // where the open piece's head stands
  uint32_t m_iCommands = 0;  // answered in it
  std::vector<std::string> m_vecClosed;
  std::vector<BufferVec_t> m_vecGather;
};

#endif
