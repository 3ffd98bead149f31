#include "session.h"

#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>

#include "connection_pool.h"
#include "gateway.h"
#include "log.h"
#include "machine_pool.h"
#include "monotonic_clock.h"
#include "reply.h"
#include "settings.h"
#include "tcp_socket.h"
#include "zelk_variable.h"

namespace {

// Queued replies must never expire: one that is dropped would shift all later ones. The session
// gives up on a client long before.
const unsigned int NEVER = 0x7fffffff;

// Requests wait while more output than this does.
const size_t OUTPUT_PAUSE = 1 << 20;

// Workers are not asked for more than about this at a time: they make all that they are asked for,
// whether it is read or not, while others wait. How long the replies are is guessed from those
// before them. At first the guess is high, so that a new client gets some dozens at once.
const size_t EXPECTED_PAUSE = 4 << 20;
const size_t FIRST_GUESS = 32 << 10;

// Received in one turn.
const size_t RECEIVE_ENOUGH = 1 << 20;
// At the server's end: whatever the kernel can have, and not what a client sends for ever.
const size_t LAST_RECEIVE = 64 << 20;

const unsigned int LINGER_SECONDS = 2;

RequestParser::Limits_t ParserLimits(const Settings_t& stSettings) {
  return {stSettings.iMaxElements, stSettings.iMaxValue, stSettings.iMaxInline,
          stSettings.iMaxRequest};
}

GatewayEvent_t& Event(void* pMessage) { return *static_cast<GatewayEvent_t*>(pMessage); }

// The machine's way out of the process: into the send queue of the connection that the head names.
int QueueForSending(InternalHead_t* pHead, const char* pData, unsigned int iSize) {
  TcpSocket* pSocket = ConnectionPool::Instance().GetConnection(pHead->iFD);
  pSocket->AppendSendBuffer(pData, iSize);
  return 0;
}

}  // namespace

void Session::RegisterStates() {
  StateMachine::SetGlobalStateList(MACHINE_SESSION, SESSION_OPEN, OnOpenEvent);
  StateMachine::SetGlobalStateList(MACHINE_SESSION, SESSION_CLOSING, OnClosingEvent);
  StateMachine::SetGlobalStateList(MACHINE_SESSION, SESSION_LINGERING, OnLingeringEvent);
  StateMachine::SetGlobalStateList(MACHINE_SESSION, SESSION_DEAD, OnDeadEvent);
  StateMachine::SetGlobalStateName(MACHINE_SESSION, SESSION_OPEN, "open");
  StateMachine::SetGlobalStateName(MACHINE_SESSION, SESSION_CLOSING, "closing");
  StateMachine::SetGlobalStateName(MACHINE_SESSION, SESSION_LINGERING, "lingering");
  StateMachine::SetGlobalStateName(MACHINE_SESSION, SESSION_DEAD, "dead");
}

Session::Session(Gateway& stGateway, TcpSocket* pSocket, uint32_t iId)
    : m_stGateway(stGateway),
      m_pSocket(pSocket),
      m_stParser(ParserLimits(stGateway.Settings())),
      m_iReplySize(FIRST_GUESS),
      m_iInterest(EPOLLIN) {
  SetId(iId);
  m_stRecord.iNumber = stGateway.NewClientNumber();
  m_stRecord.iConnected = stGateway.Now();
  m_stRecord.iActive = stGateway.Now();
  m_iState = SESSION_OPEN;
  m_sInternalHead = {pSocket->FD(), pSocket->PeerAddress(), pSocket->PeerPort(),
                     pSocket->SockAddress(), pSocket->SockPort()};
  OutMQOfOutProc(QueueForSending);
  pSocket->SetTimeout(NEVER);
}

Session::~Session() { ConnectionPool::Instance().RemoveConnection(m_sInternalHead.iFD); }

bool Session::Touch() {
  const bool bFirst = !m_bTouched;
  m_bTouched = true;
  return bFirst;
}

bool Session::Busy() const {
  return !m_dqSlots.empty() || !m_strOut.empty() || m_pSocket->SendBufferSize() > 0 || m_bPaused;
}

ClientState_t Session::State() const {
  const auto End = [](const char* pAddress, int iPort) {
    return std::string(pAddress) + ":" + std::to_string(iPort);
  };
  return {&m_stRecord,
          End(m_pSocket->PeerAddressString(), m_pSocket->PeerPort()),
          End(m_pSocket->SockAddressString(), m_pSocket->SockPort()),
          m_pSocket->FD(),
          m_pSocket->RecvBufferSize() - m_iConsumed,
          m_pSocket->SendBufferSize() + m_strOut.size() + HeldSize(),
          m_bPaused,
          m_iState != SESSION_OPEN,
          (m_iInterest & EPOLLIN) != 0,
          (m_iInterest & EPOLLOUT) != 0};
}

int Session::OnOpenEvent(StateMachine* pMachine, InternalHead_t* /*pHead*/, void* pMessage) {
  auto* pSession = static_cast<Session*>(pMachine);
  switch (Event(pMessage).eType) {
    case GatewayEvent_t::READABLE:
      pSession->Receive(RECEIVE_ENOUGH);
      break;
    case GatewayEvent_t::RESUMED:
      pSession->RunRequests();
      break;
    case GatewayEvent_t::STOPPING:
      pSession->Receive(LAST_RECEIVE);
      pSession->m_bStopping = true;
      pSession->RunRequests();
      break;
    default:
      pSession->OnAnswer(Event(pMessage));
  }
  return 0;
}

int Session::OnClosingEvent(StateMachine* pMachine, InternalHead_t* /*pHead*/, void* pMessage) {
  const GatewayEvent_t& stEvent = Event(pMessage);
  auto* pSession = static_cast<Session*>(pMachine);
  if (stEvent.eType == GatewayEvent_t::PIECE || stEvent.eType == GatewayEvent_t::LOST) {
    pSession->OnAnswer(stEvent);
  }
  pSession->m_bStopping |= stEvent.eType == GatewayEvent_t::STOPPING;
  return 0;
}

int Session::OnLingeringEvent(StateMachine* pMachine, InternalHead_t* /*pHead*/, void* pMessage) {
  auto* pSession = static_cast<Session*>(pMachine);
  pSession->m_bStopping |= Event(pMessage).eType == GatewayEvent_t::STOPPING;
  if (pSession->ReceiveSome(RECEIVE_ENOUGH) == -1) {
    pSession->m_iState = SESSION_DEAD;
  }
  pSession->m_iConsumed = pSession->m_pSocket->RecvBufferSize();
  return 0;
}

int Session::OnDeadEvent(StateMachine* /*pMachine*/, InternalHead_t* /*pHead*/,
                         void* /*pMessage*/) {
  return 0;
}

int Session::ReceiveSome(size_t iEnough) {
  return m_stGateway.Receiver().Receive(*m_pSocket, iEnough, m_bMayHaveMore);
}

void Session::Receive(size_t iEnough) {
  if (m_bStopping) {
    return;  // what comes now was not received; large values still stand in the buffer
  }
  // A client that has closed its sending side may still wait for its answers.
  const unsigned int iBefore = m_pSocket->RecvBufferSize();
  m_bPeerClosed = ReceiveSome(iEnough) == -1 || m_bPeerClosed;
  m_stGateway.Statistics().m_iInputBytes += m_pSocket->RecvBufferSize() - iBefore;
  m_stRecord.iActive = m_stGateway.Now();
  m_iArrived = m_stGateway.TurnBegan();
  RunRequests();
}

// Runs requests out of the receive buffer until it has no complete one, or pauses.
void Session::RunRequests() {
  m_bPaused = false;
  while (m_iState == SESSION_OPEN) {
    if (!MayRunMore()) {
      m_bPaused = true;
      return;
    }
    const auto eResult = m_stParser.Parse(m_pSocket->RecvBuffer() + m_iConsumed,
                                          m_pSocket->RecvBufferSize() - m_iConsumed);
    if (eResult == RequestParser::NEED_MORE) {
      break;
    }
    if (eResult == RequestParser::MALFORMED) {
      AppendError(LocalReply(), "ERR Protocol error: " + m_stParser.Error());
      g_pLog->Info("gateway: client %llu: protocol error: %s", LogNumber(),
                   m_stParser.Error().c_str());
      return StartClosing();
    }
    if (!m_stGateway.Router().Run(*this, m_stParser.Arguments())) {
      m_stParser.Reset();
      m_bPaused = true;
      return;
    }
    m_iConsumed += m_stParser.Size();
    m_stParser.Reset();
  }
  if (m_bPeerClosed || m_bStopping) {
    StartClosing();
  }
}

bool Session::MayRunMore() const {
  const size_t iLatest = m_dqSlots.empty() ? 0 : m_dqSlots.back().strHeld.size();
  return m_iUnanswered < m_stGateway.Settings().iMaxUnanswered &&
         m_iUnanswered * m_iReplySize < EXPECTED_PAUSE &&
         m_pSocket->SendBufferSize() + m_strOut.size() + m_iHeld + iLatest < OUTPUT_PAUSE;
}

// Bytes that wait for replies before them.
size_t Session::HeldSize() const {
  size_t iSize = 0;
  for (const Slot_t& stSlot : m_dqSlots) {
    iSize += stSlot.strHeld.size();
  }
  return iSize;
}

std::string& Session::LocalReply() {
  if (m_dqSlots.empty()) {
    return m_strOut;
  }
  if (!m_dqSlots.back().bDone) {
    m_dqSlots.push_back({-1, 0, true, false, 0, std::string()});
  }
  return m_dqSlots.back().strHeld;
}

bool Session::JoinSlot(int iWorker, uint32_t& iSlot) {
  if (m_dqSlots.empty() || m_dqSlots.back().bDone || m_dqSlots.back().iWorker != iWorker) {
    return false;
  }
  iSlot = m_iFirstSlot + static_cast<uint32_t>(m_dqSlots.size()) - 1;
  if (!m_stGateway.Link(iWorker).IsOpenRun({GetId(), iSlot})) {
    return false;
  }
  ++m_dqSlots.back().iCommands;
  ++m_iUnanswered;
  return true;
}

uint32_t Session::OpenSlot(int iWorker) {
  m_dqSlots.push_back({iWorker, 1, false, false, 0, std::string()});
  ++m_iUnanswered;
  return m_iFirstSlot + static_cast<uint32_t>(m_dqSlots.size()) - 1;
}

void Session::NoteRequest(const char* pCommand) {
  if (m_stGateway.Settings().iStatInterval == 0) {
    return;
  }
  m_stOpenRequests.Add(pCommand, m_iArrived);
  if (m_dqSlots.empty()) {
    ++m_iReplies;  // the gateway's own: it is there already
  } else if (m_dqSlots.back().bDone) {
    ++m_dqSlots.back().iReplies;
  }
}

void Session::OnAnswer(const GatewayEvent_t& stEvent) {
  const uint32_t iIndex = stEvent.iSlot - m_iFirstSlot;
  if (iIndex >= m_dqSlots.size() || m_dqSlots[iIndex].bDone) {
    return;
  }
  Slot_t& stSlot = m_dqSlots[iIndex];
  std::string& strOut = iIndex == 0 ? m_strOut : stSlot.strHeld;
  if (stEvent.eType == GatewayEvent_t::LOST) {
    return OnLost(stSlot, strOut);
  }
  const ReplyPiece_t& stPiece = *stEvent.pPiece;
  strOut.append(stPiece.strBytes);
  const uint32_t iAnswered = std::min(stPiece.iCommands, stSlot.iCommands);
  stSlot.iCommands -= iAnswered;
  stSlot.iReplies += iAnswered;
  m_iUnanswered -= iAnswered;
  GuessReplySize(stPiece.strBytes.size(), iAnswered);
  stSlot.bTorn = stPiece.bTorn;
  if (!stPiece.bGoesOn) {
    FinishSlot(stSlot, strOut);
  }
  ReleaseSlots();
  if (m_bPaused) {
    m_stGateway.Resume(*this);
  }
}

// Longer replies are believed at once, shorter ones little by little.
void Session::GuessReplySize(size_t iBytes, uint32_t iReplies) {
  m_iTornBytes += iBytes;
  if (iReplies > 0) {
    m_iReplySize = std::max(m_iTornBytes / iReplies, m_iReplySize / 2);
    m_iTornBytes = 0;
  }
}

void Session::OnLost(Slot_t& stSlot, std::string& strOut) {
  if (stSlot.bTorn) {
    return Abort("its worker died inside a reply");
  }
  FinishSlot(stSlot, strOut);
  ReleaseSlots();
}

// A reply for each command, whatever happened to the worker: later ones must not shift.
void Session::FinishSlot(Slot_t& stSlot, std::string& strOut) {
  for (; stSlot.iCommands > 0; --stSlot.iCommands, --m_iUnanswered) {
    AppendError(strOut, WORKER_LOST_ERROR);
    ++stSlot.iReplies;
  }
  stSlot.bDone = true;
}

// Passes on what the slots before the first open one hold.
void Session::ReleaseSlots() {
  while (!m_dqSlots.empty() && m_dqSlots.front().bDone) {
    Release(m_dqSlots.front());
    m_dqSlots.pop_front();
    ++m_iFirstSlot;
  }
  if (!m_dqSlots.empty()) {
    Release(m_dqSlots.front());
  }
}

void Session::Release(Slot_t& stSlot) {
  m_strOut.append(stSlot.strHeld);
  stSlot.strHeld.clear();
  m_iReplies += stSlot.iReplies;
  stSlot.iReplies = 0;
}

void Session::StartClosing() {
  if (m_iState == SESSION_OPEN) {
    m_iState = SESSION_CLOSING;
    m_bPaused = false;
  }
}

void Session::Abort(const char* pReason) {
  g_pLog->Warning("gateway: client %llu (%s) is disconnected: %s", LogNumber(),
                  m_pSocket->IdString(), pReason);
  m_iState = SESSION_DEAD;
}

int Session::Timeout(bool /*bMachine*/) {
  if (m_iState != SESSION_LINGERING) {
    Abort("it does not read its replies (timeout.write)");
  }
  m_iState = SESSION_DEAD;
  m_stGateway.Touch(*this);
  return 0;  // the gateway removes it with its list of clients
}

void Session::FinishTurn() {
  m_bTouched = false;
  if (Dead()) {
    return;
  }
  SendOutput();
  if (m_iConsumed > 0) {
    m_pSocket->EraseRecvBuffer(static_cast<unsigned int>(m_iConsumed));
    m_iConsumed = 0;
    m_stParser.Forget();  // published, or kept by the links
  }
  AdvanceClosing();
  if (!Dead()) {
    UpdateInterest();
  }
}

void Session::SendOutput() {
  m_iHeld = HeldSize();
  if (!m_strOut.empty()) {
    SendMessageToOutProcess(&m_sInternalHead, m_strOut.data(),
                            static_cast<unsigned int>(m_strOut.size()));
    m_strOut.clear();
  }
  const bool bWrites = m_pSocket->SendBufferSize() > 0;
  const int iSent = bWrites ? m_pSocket->Send() : 0;
  if (iSent < 0) {
    m_iState = SESSION_DEAD;  // it is gone, and will not read what is left
    return;
  }
  MeasureSent();
  if (m_pSocket->SendBufferSize() + m_iHeld > m_stGateway.Settings().iMaxOutput) {
    return Abort("too much output waits for it (limits.output)");
  }
  if (!bWrites) {
    return;
  }
  m_stGateway.Statistics().m_iOutputBytes += static_cast<unsigned int>(iSent);
  WatchProgress(iSent > 0);
  if (m_bPaused && MayRunMore()) {
    m_stGateway.Resume(*this);
  }
}

// The clock is read once for all replies that went out together.
void Session::MeasureSent() {
  if (m_iReplies > 0 && m_stGateway.Settings().iStatInterval > 0) {
    m_stOpenRequests.OnSent(m_iReplies, MonotonicMicroseconds(),
                            m_stGateway.Statistics().m_stLatencies);
  }
  m_iReplies = 0;
}

void Session::AdvanceClosing() {
  if (m_iState == SESSION_LINGERING && HasNothingToLose()) {
    m_iState = SESSION_DEAD;
  }
  if (m_iState != SESSION_CLOSING || Busy()) {
    return;
  }
  if (m_bPeerClosed || HasNothingToLose()) {
    m_iState = SESSION_DEAD;
    return;
  }
  // Closing now, with bytes unread, would reset the connection and could take the last reply away.
  m_iState = SESSION_LINGERING;
  shutdown(m_pSocket->FD(), SHUT_WR);
  StartStateTimeout(LINGER_SECONDS);
}

// At the server's end a client that has all its replies is not waited for.
bool Session::HasNothingToLose() const {
  int iUnacknowledged = 0;
  return m_bStopping && ioctl(m_pSocket->FD(), SIOCOUTQ, &iUnacknowledged) == 0 &&
         iUnacknowledged == 0;
}

void Session::WatchProgress(bool bProgress) {
  if (m_pSocket->SendBufferSize() == 0) {
    ClearStateTimeout();
  } else if (bProgress || GetStateTimeout() == 0) {
    StartStateTimeout(static_cast<unsigned int>(m_stGateway.Settings().iWriteTimeout));
  }
}

void Session::StartStateTimeout(unsigned int iSeconds) {
  SetStateTimeout(iSeconds);
  SetStateBeginTime(m_stGateway.Now());
  MachinePool::Instance().ConfigStateTimeout(this);
}

void Session::UpdateInterest() {
  const bool bReads = m_iState == SESSION_LINGERING ||
                      (m_iState == SESSION_OPEN && !m_bPaused && !m_bPeerClosed && !m_bStopping);
  const bool bWrites = m_pSocket->SendBufferSize() > 0;
  const uint32_t iInterest = (bReads ? EPOLLIN : 0u) | (bWrites ? EPOLLOUT : 0u);
  if (iInterest != m_iInterest || m_bMayHaveMore) {  // asked anew, epoll tells again
    m_iInterest = iInterest;
    m_bMayHaveMore = false;
    m_stGateway.WatchSession(*this, m_pSocket->FD(), iInterest);
  }
}
