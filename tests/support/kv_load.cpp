#include "kv_load.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <set>
#include <stdexcept>

#include "kv_request_maker.h"

namespace {

const int64_t SECOND_US = 1000000;
const int64_t CONNECT_AGAIN_US = 20000;
const int64_t SILENCE_US = 30 * SECOND_US;  // for which a reply may be missing
const int SETTLE_MS = 60000;
const size_t READ_SIZE = 1 << 16;
const size_t SHOWN_FAULTS = 4000;  // bytes of their text
const int TRIES = 100;
const size_t READ_AT_A_TIME = 50;  // keys

int64_t MonotonicNow() {
  timespec stNow{};
  clock_gettime(CLOCK_MONOTONIC, &stNow);
  return stNow.tv_sec * SECOND_US + stNow.tv_nsec / 1000;
}

int64_t WallNow() {
  timespec stNow{};
  clock_gettime(CLOCK_REALTIME, &stNow);
  return stNow.tv_sec * 1000 + stNow.tv_nsec / 1000000;
}

// The reply to a command that the model does not know starts so; "" when it knows it.
std::string StartOfReply(const std::string& strCommand) {
  static const std::map<std::string, std::string> mapStarts{
      {"PING", "+PONG\r\n"}, {"ECHO", "$4\r\necho\r\n"},
      {"DBSIZE", ":"},       {"RANDOMKEY", "$"},
      {"SCAN", "*2\r\n"},    {"KEYS", "*"},
      {"INFO", "$"},         {"CLIENT", "$"},
      {"COMMAND", ":"},
  };
  const auto it = mapStarts.find(strCommand);
  return it == mapStarts.end() ? "" : it->second;
}

// The words of an error up to what differs from case to case.
std::string ErrorName(const std::string& strReply) {
  return strReply.empty() ? "connection closed"
                          : strReply.substr(1, strReply.find_first_of(",\r") - 1);
}

}  // namespace

std::string WireForm(const Request_t& vecRequest) {
  std::string strBytes = "*" + std::to_string(vecRequest.size()) + "\r\n";
  for (const std::string& strArgument : vecRequest) {
    strBytes += "$" + std::to_string(strArgument.size()) + "\r\n" + strArgument + "\r\n";
  }
  return strBytes;
}

void LatencyHistogram::Add(int64_t iMicroseconds) {
  const auto iValue = static_cast<uint64_t>(std::max<int64_t>(iMicroseconds, 0));
  size_t iDoublings = 0;
  while ((iValue >> iDoublings) >= 2 * STEPS) {
    ++iDoublings;
  }
  const size_t iBucket = iDoublings * STEPS + static_cast<size_t>(iValue >> iDoublings);
  ++m_aiCounts[std::min(iBucket, m_aiCounts.size() - 1)];
  ++m_iCount;
}

int64_t LatencyHistogram::Percentile(double fShare) const {
  auto iLeft = static_cast<uint64_t>(std::ceil(fShare * static_cast<double>(m_iCount)));
  size_t iBucket = 0;
  while (iBucket + 1 < m_aiCounts.size() && iLeft > m_aiCounts[iBucket]) {
    iLeft -= m_aiCounts[iBucket++];
  }
  const size_t iDoublings = iBucket < 2 * STEPS ? 0 : iBucket / STEPS - 1;
  return static_cast<int64_t>((iBucket - iDoublings * STEPS) << iDoublings);
}

LoadConnection::LoadConnection(uint16_t iPort)
    : m_iFD(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  const int iOn = 1;
  sockaddr_in stAddress{};
  stAddress.sin_family = AF_INET;
  stAddress.sin_port = htons(iPort);
  stAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  setsockopt(m_iFD, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
  m_bOpen = connect(m_iFD, reinterpret_cast<sockaddr*>(&stAddress), sizeof(stAddress)) == 0 ||
            errno == EINPROGRESS;
}

LoadConnection::~LoadConnection() { close(m_iFD); }

short LoadConnection::Events() const {
  return static_cast<short>(m_strOut.empty() ? POLLIN : POLLIN | POLLOUT);
}

void LoadConnection::OnEvents(short iEvents) {
  if ((iEvents & (POLLIN | POLLHUP | POLLERR)) != 0) {
    Receive();
  }
  if (m_bOpen && (iEvents & POLLOUT) != 0) {
    Flush();
  }
}

void LoadConnection::Send(const std::string& strBytes) {
  m_strOut += strBytes;
  Flush();
}

void LoadConnection::Flush() {
  const ssize_t iSent = send(m_iFD, m_strOut.data(), m_strOut.size(), MSG_NOSIGNAL);
  if (iSent > 0) {
    m_strOut.erase(0, static_cast<size_t>(iSent));
  }  // a broken connection is seen when it is read
}

void LoadConnection::Receive() {
  char szBuffer[READ_SIZE];
  const ssize_t iCount = recv(m_iFD, szBuffer, sizeof(szBuffer), 0);
  if (iCount > 0) {
    m_strIn.append(szBuffer, static_cast<size_t>(iCount));
  } else {
    m_bOpen = iCount == -1 && (errno == EAGAIN || errno == EINTR);
  }
}

// 0 when it is not there yet.
size_t LoadConnection::EndOfReply(size_t iOffset) const {
  const size_t iLine = m_strIn.find("\r\n", iOffset);
  if (iLine == std::string::npos) {
    return 0;
  }
  size_t iEnd = iLine + 2;
  const int64_t iNumber = atoll(m_strIn.c_str() + iOffset + 1);
  if (m_strIn[iOffset] == '$' && iNumber >= 0) {
    iEnd += static_cast<size_t>(iNumber) + 2;
  }
  for (int64_t i = 0; m_strIn[iOffset] == '*' && i < iNumber && iEnd != 0; ++i) {
    iEnd = EndOfReply(iEnd);
  }
  return iEnd <= m_strIn.size() ? iEnd : 0;
}

std::string LoadConnection::TakeReply() {
  const size_t iEnd = EndOfReply(m_iTaken);
  if (iEnd == 0) {
    m_strIn.erase(0, m_iTaken);
    m_iTaken = 0;
    return "";
  }
  std::string strReply = m_strIn.substr(m_iTaken, iEnd - m_iTaken);
  m_iTaken = iEnd;
  return strReply;
}

KvLoad::KvLoad(uint16_t iPort, const LoadOptions_t& stOptions)
    : m_iPort(iPort),
      m_stOptions(stOptions),
      m_stModel(stOptions.iClockSlack),
      m_pMaker(std::make_unique<RequestMaker>(stOptions, m_stModel)),
      m_vecClients(static_cast<size_t>(stOptions.iClients)) {}

KvLoad::~KvLoad() = default;

void KvLoad::PumpFor(int iMilliseconds) {
  PumpUntil([] { return false; }, iMilliseconds);
}

bool KvLoad::PumpUntil(const std::function<bool()>& fnReady, int iLimitMilliseconds) {
  const int64_t iEnd = MonotonicNow() + iLimitMilliseconds * int64_t{1000};
  while (!fnReady()) {
    const int64_t iLeft = (iEnd - MonotonicNow()) / 1000;
    if (iLeft < 0) {
      return false;
    }
    Pump(static_cast<int>(std::min<int64_t>(iLeft, 1)));
  }
  return true;
}

void KvLoad::Pump(int iMilliseconds) {
  std::vector<pollfd> vecPoll;
  std::vector<LoadConnection*> vecConnections;
  const auto Watch = [&](LoadConnection* pConnection) {
    if (pConnection != nullptr && pConnection->IsOpen()) {
      vecPoll.push_back({pConnection->FD(), pConnection->Events(), 0});
      vecConnections.push_back(pConnection);
    }
  };
  for (size_t i = 0; i < m_vecClients.size(); ++i) {
    Fill(m_vecClients[i], static_cast<int>(i));
    Watch(m_vecClients[i].pConnection.get());
  }
  Watch(m_pAsker.get());
  poll(vecPoll.data(), vecPoll.size(), iMilliseconds);
  for (size_t i = 0; i < vecPoll.size(); ++i) {
    if (vecPoll[i].revents != 0) {
      vecConnections[i]->OnEvents(vecPoll[i].revents);
    }
  }
  for (LoadClient_t& stClient : m_vecClients) {
    Serve(stClient);
  }
}

// Sends the client's next pipeline when the former one was answered.
void KvLoad::Fill(LoadClient_t& stClient, int iClient) {
  const int64_t iNow = MonotonicNow();
  if (m_bSettling || !stClient.dqUnderWay.empty() || iNow < stClient.iNext) {
    return;
  }
  if (stClient.pConnection == nullptr) {
    stClient.pConnection = std::make_unique<LoadConnection>(m_iPort);
  }
  if (!stClient.pConnection->IsOpen()) {
    return;  // nobody listens; Serve() gives it up
  }
  const int iDepth = 1 + m_pMaker->Below(m_stOptions.iDepth);
  const int64_t iWall = WallNow();
  std::string strBytes;
  for (int i = 0; i < iDepth; ++i) {
    stClient.dqUnderWay.push_back({m_pMaker->Draw(iClient), iNow, iWall});
    strBytes += WireForm(stClient.dqUnderWay.back().vecRequest);
  }
  stClient.iNext = m_stOptions.iRate == 0
                       ? 0
                       : iNow + iDepth * SECOND_US * m_stOptions.iClients / m_stOptions.iRate;
  stClient.pConnection->Send(strBytes);
}

void KvLoad::Serve(LoadClient_t& stClient) {
  if (stClient.pConnection == nullptr) {
    return;
  }
  for (std::string strReply; !(strReply = stClient.pConnection->TakeReply()).empty();) {
    if (stClient.dqUnderWay.empty()) {
      return OnFault("a reply to nothing: " + strReply.substr(0, 60));
    }
    OnReply(stClient.dqUnderWay.front(), strReply);
    stClient.dqUnderWay.pop_front();
  }
  if (!stClient.dqUnderWay.empty() &&
      MonotonicNow() - stClient.dqUnderWay.front().iSent > SILENCE_US) {
    OnFault("no reply to " + stClient.dqUnderWay.front().vecRequest[0]);
    stClient.pConnection.reset();
  }
  if (stClient.pConnection != nullptr && stClient.pConnection->IsOpen()) {
    return;
  }
  for (const UnderWay_t& stUnderWay : stClient.dqUnderWay) {
    OnReply(stUnderWay, "");
  }
  stClient.dqUnderWay.clear();
  stClient.pConnection.reset();
  stClient.iNext = MonotonicNow() + CONNECT_AGAIN_US;
}

void KvLoad::OnReply(const UnderWay_t& stUnderWay, const std::string& strReply) {
  const int64_t iTime = MonotonicNow() - stUnderWay.iSent;
  ++m_stStat.iRequests;
  if (KindOf(strReply) != REPLY_ANSWER) {
    ++m_stStat.mapErrors[ErrorName(strReply)];
  } else {
    ++m_stStat.iAcknowledged;
  }
  if (!strReply.empty()) {
    m_stStat.stAll.Add(iTime);
    if (!m_bDisturbed && stUnderWay.iSent > m_iDisturbedUntil) {
      m_stStat.stQuiet.Add(iTime);
    }
  }
  Check(stUnderWay.vecRequest, strReply, {stUnderWay.iSentWall, WallNow()});
}

void KvLoad::Check(const Request_t& vecRequest, const std::string& strReply,
                   const Moments_t& stMoments) {
  const std::string strStart = StartOfReply(vecRequest[0]);
  if (strStart.empty()) {
    const std::string strFault = m_stModel.Take(vecRequest, strReply, stMoments);
    if (!strFault.empty()) {
      OnFault(strFault);
    }
  } else if (KindOf(strReply) == REPLY_ANSWER && strReply.rfind(strStart, 0) != 0) {
    OnFault(vecRequest[0] + " was answered with " + strReply.substr(0, 60));
  }
}

void KvLoad::OnFault(const std::string& strFault) {
  ++m_stStat.iLost;
  if (m_strFaults.size() < SHOWN_FAULTS) {
    m_strFaults += strFault + "\n";
  }
}

void KvLoad::Disturb(bool bOn) {
  m_bDisturbed = bOn;
  m_iDisturbedUntil = MonotonicNow();
}

std::string KvLoad::Ask(const Request_t& vecRequest) { return AskAll({vecRequest})[0]; }

std::vector<std::string> KvLoad::AskAll(const std::vector<Request_t>& vecRequests) {
  if (m_pAsker == nullptr || !m_pAsker->IsOpen()) {
    m_pAsker = std::make_unique<LoadConnection>(m_iPort);
  }
  for (const Request_t& vecRequest : vecRequests) {
    m_pAsker->Send(WireForm(vecRequest));
  }
  std::vector<std::string> vecReplies;
  const auto IsDone = [&] {
    for (std::string strReply; !(strReply = m_pAsker->TakeReply()).empty();) {
      vecReplies.push_back(std::move(strReply));
    }
    return vecReplies.size() >= vecRequests.size() || !m_pAsker->IsOpen();
  };
  if (!PumpUntil(IsDone, SETTLE_MS)) {
    m_pAsker.reset();  // a late reply shall not be taken for the next one
  }
  vecReplies.resize(vecRequests.size());
  return vecReplies;
}

int KvLoad::PumpUntilServed(int iLimitMilliseconds) {
  const int64_t iStart = MonotonicNow();
  const auto Elapsed = [&] { return static_cast<int>((MonotonicNow() - iStart) / 1000); };
  while (Elapsed() < iLimitMilliseconds) {
    if (Ask({"DBSIZE"}).rfind(':', 0) == 0) {
      return Elapsed();
    }
    PumpFor(5);
  }
  return iLimitMilliseconds;
}

void KvLoad::Settle() {
  m_bSettling = true;
  const auto IsQuiet = [this] {
    return std::all_of(m_vecClients.begin(), m_vecClients.end(),
                       [](const LoadClient_t& st) { return st.dqUnderWay.empty(); });
  };
  if (!PumpUntil(IsQuiet, SETTLE_MS)) {
    OnFault("some requests are never answered");
  }
}

void KvLoad::Disconnect() {
  for (LoadClient_t& stClient : m_vecClients) {
    stClient.pConnection.reset();
  }
  m_pAsker.reset();
}

void KvLoad::Verify() {
  Settle();
  ReadAll();
  ScanAll();
  Resume();
}

void KvLoad::ReadAll() {
  std::vector<Request_t> vecRequests;
  for (const std::string& strKey : m_stModel.Keys()) {
    vecRequests.push_back({"GET", strKey});
  }
  for (int i = 0; i < TRIES && !vecRequests.empty(); ++i) {
    vecRequests = ReadSome(vecRequests);
  }
}

// Those that must be asked again.
std::vector<Request_t> KvLoad::ReadSome(const std::vector<Request_t>& vecRequests) {
  std::vector<Request_t> vecAgain;
  for (size_t i = 0; i < vecRequests.size(); i += READ_AT_A_TIME) {
    const auto itBegin = vecRequests.begin() + static_cast<long>(i);
    const auto itEnd =
        vecRequests.begin() + static_cast<long>(std::min(i + READ_AT_A_TIME, vecRequests.size()));
    const std::vector<Request_t> vecSome(itBegin, itEnd);
    const int64_t iSent = WallNow();
    const std::vector<std::string> vecReplies = AskAll(vecSome);
    for (size_t iReply = 0; iReply < vecSome.size(); ++iReply) {
      Check(vecSome[iReply], vecReplies[iReply], {iSent, WallNow()});
      if (KindOf(vecReplies[iReply]) != REPLY_ANSWER) {
        vecAgain.push_back(vecSome[iReply]);
      }
    }
  }
  return vecAgain;
}

void KvLoad::ScanAll() {
  const int64_t iBegan = WallNow();
  std::set<std::string> setKeys;
  std::string strCursor = "0";
  do {
    const std::string strReply = Ask({"SCAN", strCursor, "COUNT", "200", "MATCH", "load*"});
    const size_t iCursor = strReply.find("\r\n", 5) + 2;
    if (KindOf(strReply) != REPLY_ANSWER || strReply.size() < iCursor) {
      return OnFault("SCAN was answered with " + strReply.substr(0, 60));
    }
    strCursor = strReply.substr(iCursor, strReply.find("\r\n", iCursor) - iCursor);
    for (size_t i = strReply.find('$', iCursor); i != std::string::npos;
         i = strReply.find('$', i + 1)) {
      const size_t iKey = strReply.find("\r\n", i) + 2;
      setKeys.insert(strReply.substr(iKey, strReply.find("\r\n", iKey) - iKey));
    }
  } while (strCursor != "0");
  for (const std::string& strKey : m_stModel.Keys()) {
    if (m_stModel.MustExist(strKey, WallNow()) && setKeys.count(strKey) == 0) {
      OnFault("SCAN does not find " + strKey);
    }
  }
  for (const std::string& strKey : setKeys) {
    if (!m_stModel.MayExist(strKey, iBegan)) {
      OnFault("SCAN finds " + strKey);
    }
  }
}
