#include "worker_link.h"

#include <memory>

#include "cpu_follower.h"
#include "log.h"
#include "memory_tracking.h"
#include "zelk_variable.h"

namespace {

const unsigned int POP_COUNT = 64;
const size_t LENGTH_SIZE = 4;  // what the ring adds to a message

BufferVec_t ToBuffer(std::string_view strBytes) {
  // Push only reads.
  return {const_cast<char*>(strBytes.data()), static_cast<uint32_t>(strBytes.size())};
}

}  // namespace

bool WorkerLink::Attach(const QueueNames_t& stNames) {
  const auto iBytes = static_cast<unsigned int>(m_iQueueBytes);
  m_iMark = stNames.iMark;
  Open();
  return m_stIn.AttachWithKey(stNames.stIn.strFifo.c_str(), stNames.stIn.iKey, iBytes) == 0 &&
         m_stOut.AttachWithKey(stNames.stOut.strFifo.c_str(), stNames.stOut.iKey, iBytes) == 0;
}

void WorkerLink::Open() {
  m_stOpen.strBatch.assign(sizeof(RequestHead_t), '\0');
  m_stOpen.iRuns = 0;
  m_stOpen.vecValues.clear();
  m_stOpen.vecKept.clear();
  m_stOpen.iSize = 0;
  m_iRunCommands = 0;
}

void WorkerLink::StartRun(const ReplyTarget_t& stTarget) {
  if (IsFull()) {
    Close();
  }
  m_iRunHead = m_stOpen.strBatch.size();
  m_iRunCommands = 0;
  AppendRecord(m_stOpen.strBatch, RunHead_t{0});
  ++m_stOpen.iRuns;
  m_dqTargets.push_back(stTarget);
}

bool WorkerLink::IsOpenRun(const ReplyTarget_t& stTarget) const {
  return m_stOpen.iRuns > 0 && !IsFull() && m_dqTargets.back().iMachine == stTarget.iMachine &&
         m_dqTargets.back().iSlot == stTarget.iSlot;
}

void WorkerLink::Add(uint16_t iCommand, const Arguments_t& vecArguments, size_t iFirst) {
  if (AppendCommand(m_stOpen.strBatch, iCommand, vecArguments, iFirst)) {
    m_stOpen.vecValues.push_back(vecArguments.back());
    m_stOpen.iSize += vecArguments.back().size() + LENGTH_SIZE;
  }
  PatchRecord(m_stOpen.strBatch, m_iRunHead, RunHead_t{++m_iRunCommands});
}

bool WorkerLink::IsFull() const {
  return m_stOpen.strBatch.size() + m_stOpen.iSize >= RecordLimit(m_iQueueBytes);
}

// Numbers the open batch, puts it behind those that wait, and opens the next one.
void WorkerLink::Close() {
  PatchRecord(m_stOpen.strBatch, 0,
              RequestHead_t{m_iMark, m_iLife, ++m_iNumber, m_stOpen.iRuns,
                            static_cast<uint32_t>(m_stOpen.vecValues.size()), CpuFollower::Here()});
  m_dqBatches.push_back({m_iNumber, m_stOpen.iRuns});
  m_stOpen.iSize += m_stOpen.strBatch.size() + LENGTH_SIZE;
  m_dqWaiting.push_back(std::move(m_stOpen));
  m_stOpen = Unit_t();
  Open();
}

void WorkerLink::Probe() {
  if (m_stOpen.iRuns == 0) {
    Close();
  }
}

void WorkerLink::Publish() {
  if (m_stOpen.iRuns > 0) {
    Close();
  }
  PushWaiting();
  m_bBlocked = !m_dqWaiting.empty();
  for (Unit_t& stUnit : m_dqWaiting) {
    Keep(stUnit);
  }
}

// As many units as there is room for, in one call.
void WorkerLink::PushWaiting() {
  if (m_dqWaiting.empty()) {
    return;
  }
  const size_t iRoom = m_stIn.CanWriteSize();
  size_t iCount = 0;
  for (size_t iSize = 0; iCount < m_dqWaiting.size(); ++iCount) {
    iSize += m_dqWaiting[iCount].iSize;
    if (iSize > iRoom) {
      break;
    }
  }
  PushUnits(iCount);
}

void WorkerLink::PushUnits(size_t iCount) {
  if (iCount == 0) {
    return;
  }
  m_vecGather.clear();
  for (size_t i = 0; i < iCount; ++i) {
    m_vecGather.push_back(ToBuffer(m_dqWaiting[i].strBatch));
    for (const std::string_view strValue : m_dqWaiting[i].vecValues) {
      m_vecGather.push_back(ToBuffer(strValue));
    }
  }
  if (m_stIn.Push(m_vecGather.data(), static_cast<unsigned int>(m_vecGather.size())) == 0) {
    return;
  }
  if (iCount == m_dqWaiting.size() && m_stOpen.iRuns == 0) {
    m_stOpen = std::move(m_dqWaiting.back());  // its memory serves the next turn
    Open();
  }
  m_dqWaiting.erase(m_dqWaiting.begin(), m_dqWaiting.begin() + static_cast<long>(iCount));
}

// Copies the values, whose bytes are the caller's only until the end of the turn.
void WorkerLink::Keep(Unit_t& stUnit) {
  if (!stUnit.vecKept.empty()) {
    return;
  }
  stUnit.vecKept.assign(stUnit.vecValues.begin(), stUnit.vecValues.end());
  stUnit.vecValues.assign(stUnit.vecKept.begin(), stUnit.vecKept.end());
}

void WorkerLink::Drain(ReplyReceiver& stReceiver) {
  BufferVec_t astRecords[POP_COUNT];
  for (int iCount = 0; (iCount = m_stOut.Pop(astRecords, POP_COUNT)) > 0;) {
    m_stWakeBytes.OnPopped(iCount);
    for (int i = 0; i < iCount; ++i) {
      KV_TRACK(astRecords[i].pData, astRecords[i].iSize);
      const std::unique_ptr<char[]> pRecord(astRecords[i].pData);
      OnRecord(std::string_view(pRecord.get(), astRecords[i].iSize), stReceiver);
    }
  }
}

void WorkerLink::OnRecord(std::string_view strRecord, ReplyReceiver& stReceiver) {
  RecordReader stReader(strRecord);
  const auto stHead = stReader.Take<ReplyHead_t>();
  if (stReader.Good() && stHead.iKind == REPLY_HELLO) {
    return stReceiver.OnWorkerStarted(m_iWorker);
  }
  if (!stReader.Good() || stHead.iLife != m_iLife) {
    g_pLog->Info("gateway: worker %d: an answer to an earlier gateway is dropped", m_iWorker);
    return;
  }
  DropBefore(stHead.iNumber, stReceiver);
  if (m_dqBatches.empty() || m_dqBatches.front().iNumber != stHead.iNumber) {
    return;
  }
  for (uint32_t i = 0; i < stHead.iPieces; ++i) {
    const auto stPiece = stReader.Take<PieceHead_t>();
    const std::string_view strBytes = stReader.TakeBytes(stPiece.iSize);
    if (!stReader.Good()) {
      g_pLog->Error("gateway: worker %d: an answer is damaged", m_iWorker);
      return DropBefore(stHead.iNumber + 1, stReceiver);
    }
    OnPieceOfFirst(stPiece, strBytes, stReceiver);
  }
  if (m_dqBatches.front().iRuns == 0) {
    m_dqBatches.pop_front();
  }
}

void WorkerLink::DropBefore(uint64_t iNumber, ReplyReceiver& stReceiver) {
  while (!m_dqBatches.empty() && m_dqBatches.front().iNumber < iNumber) {
    for (; m_dqBatches.front().iRuns > 0; --m_dqBatches.front().iRuns) {
      const ReplyTarget_t stTarget = m_dqTargets.front();
      m_dqTargets.pop_front();
      stReceiver.OnLost(stTarget);
    }
    m_dqBatches.pop_front();
  }
}

void WorkerLink::OnPieceOfFirst(const PieceHead_t& stHead, std::string_view strBytes,
                                ReplyReceiver& stReceiver) {
  Batch_t& stBatch = m_dqBatches.front();
  if (stBatch.iRuns == 0) {
    return;
  }
  const ReplyTarget_t stTarget = m_dqTargets.front();
  const bool bGoesOn = (stHead.iFlags & PIECE_GOES_ON) != 0;
  if (!bGoesOn) {
    --stBatch.iRuns;
    m_dqTargets.pop_front();
  }
  stReceiver.OnPiece(stTarget,
                     {strBytes, stHead.iCommands, bGoesOn, (stHead.iFlags & PIECE_TORN) != 0});
}
