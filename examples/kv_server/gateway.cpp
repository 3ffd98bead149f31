#include "gateway.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "connection_pool.h"
#include "gather_machine.h"
#include "info_text.h"
#include "log.h"
#include "machine_pool.h"
#include "memory_tracking.h"
#include "monotonic_clock.h"
#include "mq_pool.h"
#include "process_signals.h"
#include "reply.h"
#include "session.h"
#include "zelk_variable.h"

// DESIGN
// epoll tells what is ready by a tag: the listener, the answers of a worker, or the machine id of a
// session. Sessions are always looked up by id, so an event or an answer for one that is gone finds
// nothing. Whatever happens to a session in a turn puts it on the list of touched ones, and all
// sending, erasing and removing is done there, once, at the end of the turn: until then the bytes
// of a request stay where large values are pushed from.
//
// Sessions and answers are watched edge-triggered. A session reads until its socket is empty
// anyway, and epoll need not look again at each socket that was readable in the turn before; the
// wake bytes of the answers are read once for many turns (WorkerLink::HasMore()).

namespace {

const int LISTEN_BACKLOG = 4096;
const int MAX_EVENTS = 256;
const int BLOCKED_WAIT_MS = 5;  // how soon a full queue is tried again without being woken
const int IDLE_WAIT_MS = 1000;  // timeouts are in seconds
const size_t SPARE_DESCRIPTORS = 64;
const int64_t SECOND = 1000000;          // of MonotonicMicroseconds()
const int64_t TELL_AGAIN = 60 * SECOND;  // that there is none for a client
const uint32_t NO_ID = 0xffffffff;
const uint32_t FIRST_ID = 100;
const uint32_t END_OF_IDS = 1000000000;

const uint64_t TAG_LISTENER = 1ull << 32;
const uint64_t TAG_WORKER = 2ull << 32;
// below: a session's machine id

bool Watch(int iEpoll, int iOperation, int iFD, uint64_t iTag, uint32_t iEvents) {
  epoll_event stEvent{};
  stEvent.events = iEvents;
  stEvent.data.u64 = iTag;
  return epoll_ctl(iEpoll, iOperation, iFD, &stEvent) == 0;
}

// Room for every client's descriptor, as far as the system allows.
void RaiseDescriptorLimit(uint64_t iClients) {
  rlimit stLimit{};
  getrlimit(RLIMIT_NOFILE, &stLimit);
  const rlim_t iNeeded = iClients + SPARE_DESCRIPTORS;
  if (stLimit.rlim_cur >= iNeeded) {
    return;
  }
  stLimit.rlim_cur = std::min<rlim_t>(iNeeded, stLimit.rlim_max);
  setrlimit(RLIMIT_NOFILE, &stLimit);
  if (stLimit.rlim_cur < iNeeded) {
    g_pLog->Warning("gateway: limits.clients needs %llu descriptors, the system allows %llu",
                    static_cast<unsigned long long>(iNeeded),
                    static_cast<unsigned long long>(stLimit.rlim_cur));
  }
}

}  // namespace

Gateway::Gateway(const Settings_t& stSettings, const std::vector<QueueNames_t>& vecNames,
                 uint64_t iLife)
    : m_stSettings(stSettings),
      m_vecNames(vecNames),
      m_iLife(iLife),
      m_iMaster(getppid()),
      m_iNow(time(nullptr)),
      m_iStarted(m_iNow),
      m_iPeriodBegan(MonotonicMicroseconds()),
      m_stStatistics(m_iNow),
      m_stRouter(*this) {}

Gateway::~Gateway() {
  while (!m_setSessions.empty()) {
    RemoveSession(*m_setSessions.begin());
  }
  // What still waits for workers is given up.
  MachinePool::Instance().ProcessTimeout(m_iNow + static_cast<time_t>(m_stSettings.iGatherTimeout));
  MQPool::Instance().RemoveAll();
  if (m_iEpoll != -1) {
    close(m_iEpoll);
  }
}

int Gateway::Run() {
  if (!Start()) {
    return 1;
  }
  while (g_bRunFlag) {
    Turn(WaitMilliseconds());
  }
  Stop();
  return 0;
}

bool Gateway::Start() {
  Session::RegisterStates();
  GatherMachine::RegisterStates();
  RaiseDescriptorLimit(m_stSettings.iMaxClients);
  m_iEpoll = epoll_create1(EPOLL_CLOEXEC);
  if (m_stListener.Listen(m_stSettings.Host().c_str(), m_stSettings.Port()) != 0) {
    g_pLog->Error("gateway: can not listen on %s: %s", m_stSettings.strListen.c_str(),
                  strerror(errno));
    return false;
  }
  listen(m_stListener.FD(), LISTEN_BACKLOG);
  m_stListener.SetNonBlock(true);
  if (!m_stReceiver.Good() || !AttachLinks() ||
      !Watch(m_iEpoll, EPOLL_CTL_ADD, m_stListener.FD(), TAG_LISTENER, EPOLLIN)) {
    g_pLog->Error("gateway: can not start: %s", strerror(errno));
    return false;
  }
  g_pLog->Info("gateway: serving %s with %llu workers", m_stSettings.strListen.c_str(),
               static_cast<unsigned long long>(m_stSettings.iWorkers));
  return true;
}

bool Gateway::AttachLinks() {
  for (size_t i = 0; i < m_vecNames.size(); ++i) {
    const int iWorker = static_cast<int>(i);
    m_vecLinks.push_back(std::make_unique<WorkerLink>(iWorker, m_iLife, m_stSettings.iQueueBytes));
    WorkerLink& stLink = *m_vecLinks.back();
    if (!stLink.Attach(m_vecNames[i])) {
      return false;
    }
    MQPool::Instance().AddMQ(iWorker, &stLink.In(), &stLink.Out());
    if (!Watch(m_iEpoll, EPOLL_CTL_ADD, stLink.Out().FifoFD(), TAG_WORKER, EPOLLIN | EPOLLET)) {
      return false;
    }
  }
  return true;
}

// How long the turn may sleep.
int Gateway::WaitMilliseconds() {
  if (!m_vecResumed.empty()) {
    return 0;
  }
  for (const auto& pLink : m_vecLinks) {
    if (pLink->HasMore()) {
      return 0;
    }
  }
  return AnyBlocked() ? BLOCKED_WAIT_MS : IDLE_WAIT_MS;
}

bool Gateway::AnyBlocked() const {
  return std::any_of(m_vecLinks.begin(), m_vecLinks.end(),
                     [](const auto& pLink) { return pLink->Blocked(); });
}

void Gateway::Turn(int iTimeout) {
  epoll_event astEvents[MAX_EVENTS];
  const int iCount = WaitForEvents(m_iEpoll, astEvents, MAX_EVENTS, iTimeout);
  m_iNow = time(nullptr);
  m_iTurnBegan = MonotonicMicroseconds();
  m_stStatistics.OnTurn(m_iNow);
  for (int i = 0; i < iCount; ++i) {
    OnEvent(astEvents[i].data.u64, astEvents[i].events);
  }
  ResumeSessions();
  for (const auto& pLink : m_vecLinks) {
    Publish(*pLink);
  }
  DrainLinks();
  MachinePool::Instance().ProcessTimeout(m_iNow);
  FinishSessions();
  if (m_iAcceptAgain != 0 && m_iTurnBegan >= m_iAcceptAgain) {
    AcceptAgain();
  }
  const auto iInterval = static_cast<int64_t>(m_stSettings.iStatInterval) * 1000000;
  if (iInterval > 0 && m_iTurnBegan - m_iPeriodBegan >= iInterval) {
    EndPeriod();
  }
}

void Gateway::EndPeriod() {
  m_stStatistics.m_stLatencies.EndPeriod(*g_pStatLog);
  m_iPeriodBegan = m_iTurnBegan;
}

void Gateway::OnEvent(uint64_t iTag, uint32_t iEvents) {
  if (iTag == TAG_LISTENER) {
    AcceptClients();
  } else if (iTag != TAG_WORKER) {  // answers are taken in every turn
    OnSessionEvent(static_cast<uint32_t>(iTag), iEvents);
  }
}

void Gateway::AcceptClients() {
  for (;;) {
    std::unique_ptr<TcpSocket> pSocket(m_stListener.Accept());
    if (pSocket == nullptr) {
      break;
    }
    KV_TRACK(pSocket.get(), sizeof(TcpSocket));
    AddClient(std::move(pSocket));
  }
  if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
    DeferAccepting(errno);
  }
}

// The listener stays readable, so it is not looked at until a client goes or a second is over.
void Gateway::DeferAccepting(int iError) {
  if (m_iTurnBegan >= m_iTellAgain) {
    g_pLog->Warning("gateway: no descriptor for another client: %s", strerror(iError));
    m_iTellAgain = m_iTurnBegan + TELL_AGAIN;
  }
  m_iAcceptAgain = m_iTurnBegan + SECOND;
  Watch(m_iEpoll, EPOLL_CTL_MOD, m_stListener.FD(), TAG_LISTENER, 0);
}

void Gateway::AcceptAgain() {
  m_iAcceptAgain = 0;
  Watch(m_iEpoll, EPOLL_CTL_MOD, m_stListener.FD(), TAG_LISTENER, EPOLLIN);
}

void Gateway::AddClient(std::unique_ptr<TcpSocket> pSocket) {
  if (m_setSessions.size() >= m_stSettings.iMaxClients) {
    ++m_stStatistics.m_iRejected;
    std::string strError;
    AppendError(strError, "ERR max number of clients reached (limits.clients)");
    pSocket->AppendSendBuffer(strError.data(), static_cast<unsigned int>(strError.size()));
    pSocket->Send();
    return;
  }
  const int iOn = 1;
  const uint32_t iId = NewMachineId();
  setsockopt(pSocket->FD(), IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
  if (!Watch(m_iEpoll, EPOLL_CTL_ADD, pSocket->FD(), iId, EPOLLIN | EPOLLET)) {
    g_pLog->Warning("gateway: can not watch a client: %s", strerror(errno));
    return;
  }
  auto* pSession = KV_NEW Session(*this, pSocket.get(), iId);
  ConnectionPool::Instance().AddConnection(pSocket.release());
  MachinePool::Instance().AddMachine(pSession);
  m_setSessions.insert(iId);
  ++m_stStatistics.m_iConnections;
  g_pLog->Debug("gateway: client %llu connected", pSession->LogNumber());
}

// Numbers are not given back: a late answer to a machine that is gone must not find another one
// under its number. They come round again after hours of nothing but commands over several workers.
uint32_t Gateway::NewMachineId() {
  for (;;) {
    const uint32_t iId = m_stIds.GetId();
    if (iId == NO_ID) {
      m_stIds.SetRange(FIRST_ID, END_OF_IDS);
    } else if (MachinePool::Instance().GetMachine(iId) == nullptr) {
      return iId;
    }
  }
}

void Gateway::OnSessionEvent(uint32_t iMachine, uint32_t iEvents) {
  auto* pSession = static_cast<Session*>(MachinePool::Instance().GetMachine(iMachine));
  if (pSession == nullptr) {
    return;
  }
  if ((iEvents & EPOLLIN) != 0) {
    GatewayEvent_t stEvent{GatewayEvent_t::READABLE, 0, nullptr};
    pSession->DoNext(nullptr, &stEvent);
  }
  if ((iEvents & (EPOLLHUP | EPOLLERR)) != 0) {
    pSession->HangUp();
  }
  Touch(*pSession);
}

void Gateway::ResumeSessions() {
  std::vector<uint32_t> vecResumed;
  vecResumed.swap(m_vecResumed);
  for (const uint32_t iMachine : vecResumed) {
    auto* pSession = static_cast<Session*>(MachinePool::Instance().GetMachine(iMachine));
    if (pSession != nullptr && pSession->Paused()) {
      GatewayEvent_t stEvent{GatewayEvent_t::RESUMED, 0, nullptr};
      pSession->DoNext(nullptr, &stEvent);
      Touch(*pSession);
    }
  }
}

void Gateway::Publish(WorkerLink& stLink) {
  const bool bWasBlocked = stLink.Blocked();
  stLink.Publish();
  if (bWasBlocked && !stLink.Blocked()) {  // whoever waited for room may have waited for this
    m_vecResumed.assign(m_setSessions.begin(), m_setSessions.end());
  }
}

void Gateway::DrainLinks() {
  for (const auto& pLink : m_vecLinks) {
    pLink->Drain(*this);
  }
}

void Gateway::Tell(uint32_t iMachine, uint32_t iSlot, const ReplyPiece_t* pPiece) {
  StateMachine* pMachine = MachinePool::Instance().GetMachine(iMachine);
  if (pMachine == nullptr) {
    return;  // the client has gone, or the command was given up
  }
  GatewayEvent_t stEvent{pPiece == nullptr ? GatewayEvent_t::LOST : GatewayEvent_t::PIECE, iSlot,
                         pPiece};
  if (pMachine->DoNext(nullptr, &stEvent) != 0) {
    MachinePool::Instance().RemoveMachine(iMachine);
    delete pMachine;
  } else if (pMachine->StateMachineType() == MACHINE_SESSION) {
    Touch(*static_cast<Session*>(pMachine));
  }
}

void Gateway::OnPiece(const ReplyTarget_t& stTarget, const ReplyPiece_t& stPiece) {
  Tell(stTarget.iMachine, stTarget.iSlot, &stPiece);
}

void Gateway::OnLost(const ReplyTarget_t& stTarget) {
  Tell(stTarget.iMachine, stTarget.iSlot, nullptr);
}

void Gateway::OnWorkerStarted(int iWorker) {
  g_pLog->Info("gateway: worker %d is there", iWorker);
  Link(iWorker).Probe();
  Publish(Link(iWorker));
}

void Gateway::Touch(Session& stSession) {
  if (stSession.Touch()) {
    m_vecTouched.push_back(stSession.GetId());
  }
}

void Gateway::TouchAll() {
  for (const uint32_t iMachine : m_setSessions) {
    Touch(*static_cast<Session*>(MachinePool::Instance().GetMachine(iMachine)));
  }
}

void Gateway::Resume(const Session& stSession) { m_vecResumed.push_back(stSession.GetId()); }

void Gateway::WatchSession(const Session& stSession, int iFD, uint32_t iEvents) {
  // Room to write is looked at again until all is written.
  const uint32_t iEdge = (iEvents & EPOLLOUT) == 0 ? EPOLLET : 0u;
  Watch(m_iEpoll, EPOLL_CTL_MOD, iFD, stSession.GetId(), iEvents | iEdge);
}

void Gateway::FinishSessions() {
  for (const uint32_t iMachine : m_vecTouched) {
    auto* pSession = static_cast<Session*>(MachinePool::Instance().GetMachine(iMachine));
    pSession->FinishTurn();
    if (pSession->Dead()) {
      RemoveSession(iMachine);
    }
  }
  m_vecTouched.clear();
}

void Gateway::RemoveSession(uint32_t iMachine) {
  auto* pSession = static_cast<Session*>(MachinePool::Instance().GetMachine(iMachine));
  MachinePool::Instance().RemoveMachine(iMachine);
  m_setSessions.erase(iMachine);
  if (m_iAcceptAgain != 0) {
    m_iAcceptAgain = m_iTurnBegan;  // there is room for another one
  }
  g_pLog->Debug("gateway: client %llu is gone", pSession->LogNumber());
  delete pSession;
}

// Answers what has been received, for as long as the operator allows.
void Gateway::Stop() {
  AcceptClients();
  m_stListener.Close();
  GatewayEvent_t stEvent{GatewayEvent_t::STOPPING, 0, nullptr};
  for (const uint32_t iMachine : m_setSessions) {
    MachinePool::Instance().GetMachine(iMachine)->DoNext(nullptr, &stEvent);
  }
  TouchAll();
  // When the master was killed the workers are ending too, and a new master waits for us.
  const bool bOrphan = getppid() != m_iMaster;
  const time_t iDeadline =
      time(nullptr) + (bOrphan ? 0 : static_cast<time_t>(m_stSettings.iStopTimeout));
  Turn(0);
  while (!m_setSessions.empty() && m_iNow <= iDeadline) {
    TouchAll();  // one may have got its last reply meanwhile
    Turn(std::min(WaitMilliseconds(), BLOCKED_WAIT_MS));
  }
  EndPeriod();
  g_pLog->Info("gateway: stopped, %zu clients not answered in time", m_setSessions.size());
}

std::vector<Session*> Gateway::Sessions() const {
  std::vector<Session*> vecSessions;
  for (const uint32_t iMachine : m_setSessions) {
    auto* pSession = static_cast<Session*>(MachinePool::Instance().GetMachine(iMachine));
    if (!pSession->Dead()) {
      vecSessions.push_back(pSession);
    }
  }
  return vecSessions;
}

std::string Gateway::InfoText(uint32_t iSections, const WorkerStat_t& stWorkers) const {
  const std::vector<Session*> vecSessions = Sessions();
  const auto iPaused = std::count_if(vecSessions.begin(), vecSessions.end(),
                                     [](const Session* pSession) { return pSession->Paused(); });
  std::string strText =
      GatewayInfo(iSections, {m_stSettings, m_stStatistics, m_iMaster, m_iNow - m_iStarted,
                              vecSessions.size(), static_cast<size_t>(iPaused)});
  AppendWorkerInfo(strText, iSections, stWorkers);
  return strText;
}
