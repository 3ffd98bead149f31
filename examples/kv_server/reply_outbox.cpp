#include "reply_outbox.h"

#include "process_signals.h"
#include "zelk_variable.h"

namespace {

// Closed records are pushed before the end of the turn when they are so many.
const size_t MANY_RECORDS = 8;

}  // namespace

ReplyOutbox::ReplyOutbox(MessageQueue& stQueue, uint64_t iQueueBytes, int iStopSeconds)
    : m_stQueue(stQueue), m_iLimit(RecordLimit(iQueueBytes)), m_iStopSeconds(iStopSeconds) {}

void ReplyOutbox::OpenRecord() {
  m_strRecord.clear();
  m_stHead.iPieces = 0;
  AppendRecord(m_strRecord, m_stHead);
}

void ReplyOutbox::CloseRecord() {
  PatchRecord(m_strRecord, 0, m_stHead);
  m_vecClosed.push_back(std::move(m_strRecord));
}

void ReplyOutbox::Hello() {
  m_stHead = {0, 0, REPLY_HELLO, 0};
  OpenRecord();
  CloseRecord();
}

void ReplyOutbox::BeginBatch(uint64_t iLife, uint64_t iNumber) {
  m_stHead = {iLife, iNumber, REPLY_ANSWERS, 0};
  OpenRecord();
}

void ReplyOutbox::EndBatch() { CloseRecord(); }

void ReplyOutbox::BeginRun() { OpenPiece(); }

void ReplyOutbox::OpenPiece() {
  m_iPiece = m_strRecord.size();
  m_iCommands = 0;
  ++m_stHead.iPieces;
  AppendRecord(m_strRecord, PieceHead_t{});
}

size_t ReplyOutbox::PieceSize() const {
  return m_strRecord.size() - m_iPiece - sizeof(PieceHead_t);
}

void ReplyOutbox::PatchPiece(uint32_t iCommands, uint32_t iFlags) {
  PatchRecord(m_strRecord, m_iPiece,
              PieceHead_t{static_cast<uint32_t>(PieceSize()), iCommands, iFlags});
}

void ReplyOutbox::EndCommand() {
  ++m_iCommands;
  if (m_strRecord.size() >= m_iLimit) {
    CutPiece();
    if (m_vecClosed.size() >= MANY_RECORDS) {
      Publish();
    }
  }
}

void ReplyOutbox::EndRun() { PatchPiece(m_iCommands, 0); }

// Closes the record and goes on with the run in a new one. A reply that is longer than a record is
// spread over several.
void ReplyOutbox::CutPiece() {
  const uint32_t iCommands = m_iCommands;
  if (PieceSize() > 2 * m_iLimit) {
    size_t iTaken = 0;
    const std::string strLong = m_strRecord.substr(m_iPiece + sizeof(PieceHead_t));
    m_strRecord.resize(m_iPiece + sizeof(PieceHead_t));
    for (; strLong.size() - iTaken > 2 * m_iLimit; iTaken += m_iLimit) {
      m_strRecord.append(strLong, iTaken, m_iLimit);
      PatchPiece(0, PIECE_GOES_ON | PIECE_TORN);
      CloseRecord();
      OpenRecord();
      OpenPiece();
    }
    m_strRecord.append(strLong, iTaken, std::string::npos);
  }
  PatchPiece(iCommands, PIECE_GOES_ON);
  CloseRecord();
  OpenRecord();
  OpenPiece();
}

bool ReplyOutbox::Publish() {
  if (!m_vecClosed.empty()) {
    m_fnBarrier();
  }
  while (!m_vecClosed.empty()) {
    if (PushSome()) {
      continue;
    }
    // The gateway is slow, stopped or just being started again: its queue keeps what it has.
    PauseMilliseconds(1);
    if (!g_bRunFlag && m_iDeadline == 0) {
      m_iDeadline = time(nullptr) + m_iStopSeconds;
    }
    if (m_iDeadline != 0 && time(nullptr) > m_iDeadline) {
      m_vecClosed.clear();
      return false;
    }
  }
  return true;
}

// As many records as there is room for, in one call.
bool ReplyOutbox::PushSome() {
  size_t iRoom = m_stQueue.CanWriteSize();
  m_vecGather.clear();
  for (std::string& strRecord : m_vecClosed) {
    const size_t iSize = strRecord.size() + sizeof(uint32_t);
    if (iSize > iRoom) {
      break;
    }
    iRoom -= iSize;
    m_vecGather.push_back({strRecord.data(), static_cast<uint32_t>(strRecord.size())});
  }
  if (m_vecGather.empty()) {
    return false;
  }
  m_stQueue.Push(m_vecGather.data(), static_cast<unsigned int>(m_vecGather.size()));
  m_vecClosed.erase(m_vecClosed.begin(),
                    m_vecClosed.begin() + static_cast<long>(m_vecGather.size()));
  return true;
}
