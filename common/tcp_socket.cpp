#include "tcp_socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "internal/always_assert.h"

// DESIGN. Bytes are copied once on their way out and not at all on their way in.
//
// Sending: AppendSendBuffer() makes the one copy. When its message's turn comes and it has no head,
// the string is swapped with the flat buffer. What is written is skipped by an offset, and the
// memory goes back to the allocator with the last byte: the next socket to send finds it warm in
// the processor's cache, and an idle one holds none.
//
// Receiving: one block of memory holds the received bytes, [m_iRecvBegin, m_iRecvEnd) and a zero
// byte behind them, and recv() fills the room after them. Erasing moves m_iRecvBegin. When less
// room is left than one recv() may fill, the bytes move to the front if that costs no more than was
// erased since they last moved, else to a larger block: in the long run moving costs no more than
// receiving. Room that was never reached costs address space, not memory.
//
// A socket without received bytes leaves its block to the next that receives, one block a thread:
// connections that take turns all receive into the same memory, which stays in the processor's
// caches, and of the idle ones few hold any. When the thread has one already, or the block is a
// larger one, the socket keeps it, so that blocks are not allocated again and again.

namespace {

const unsigned int DEFAULT_TIMEOUT = 15;   // seconds
const unsigned int ACCEPTED_TIMEOUT = 20;  // seconds; deliberately another one
const size_t RECV_SIZE = 1048576;
const size_t RECV_ROOM = RECV_SIZE + 1;  // for one recv() and the zero byte
const size_t RECV_SLACK = 65536;         // received bytes that need not move before the next recv()
const size_t BLOCK_SIZE = RECV_ROOM + RECV_SLACK;  // of a socket's first block
const int BACKLOG = 10;
const size_t SHORTEST_QUAD = 7;

thread_local std::unique_ptr<char[]> g_pSpareBlock;  // of BLOCK_SIZE bytes, or null

sockaddr_in MakeAddress(unsigned int iAddr, unsigned short iPort) {
  sockaddr_in stAddr{};
  stAddr.sin_family = AF_INET;
  stAddr.sin_addr.s_addr = iAddr;
  stAddr.sin_port = htons(iPort);
  return stAddr;
}

const sockaddr* Generic(const sockaddr_in& stAddr) {
  return reinterpret_cast<const sockaddr*>(&stAddr);
}

// Asks getpeername() or getsockname() and takes the answer apart; false changes nothing.
bool AskAddress(int (*pAsk)(int, sockaddr*, socklen_t*), int iFD, unsigned int& iAddr, int& iPort,
                std::string& strAddr) {
  sockaddr_in stAddr{};
  socklen_t iLength = sizeof(stAddr);
  if (pAsk(iFD, reinterpret_cast<sockaddr*>(&stAddr), &iLength) != 0) {
    return false;
  }
  char szQuad[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &stAddr.sin_addr, szQuad, sizeof(szQuad));
  iAddr = stAddr.sin_addr.s_addr;
  iPort = ntohs(stAddr.sin_port);
  strAddr = szQuad;
  return true;
}

void SetTcpOption(int iFD, int iOption, unsigned int iValue) {
  setsockopt(iFD, IPPROTO_TCP, iOption, &iValue, sizeof(iValue));
}

unsigned int HostAddress(const char* pName) {
  const hostent* pHost = gethostbyname(pName);
  if (pHost == nullptr) {
    return inet_addr(pName);
  }
  unsigned int iAddr = 0;
  memcpy(&iAddr, pHost->h_addr_list[0], sizeof(iAddr));
  return iAddr;
}

unsigned int InterfaceAddress(const char* pName) {
  const int iFD = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (iFD == -1) {
    return INADDR_NONE;
  }
  ifreq stRequest{};
  strncpy(stRequest.ifr_name, pName, sizeof(stRequest.ifr_name) - 1);
  const int iResult = ioctl(iFD, SIOCGIFADDR, &stRequest);
  const int iError = errno;
  close(iFD);
  errno = iError;
  if (iResult != 0) {
    return INADDR_NONE;
  }
  sockaddr_in stAddr{};
  memcpy(&stAddr, &stRequest.ifr_addr, sizeof(stAddr));
  return stAddr.sin_addr.s_addr;
}

}  // namespace

TcpSocket::TcpSocket() : m_iTimeoutTime(DEFAULT_TIMEOUT) {}

TcpSocket::TcpSocket(int iFD) : m_iFD(iFD), m_iTimeoutTime(ACCEPTED_TIMEOUT) { GetAddressPort(); }

TcpSocket::~TcpSocket() { Close(); }

unsigned int TcpSocket::TranslateAddress(const char* pText) {
  if (pText == nullptr || *pText == '\0') {
    return INADDR_ANY;
  }
  return *pText == '@' ? InterfaceAddress(pText + 1) : HostAddress(pText);
}

int TcpSocket::Listen(const char* pAddr, unsigned short iPort) {
  Close();
  m_iFD = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_iFD == -1) {
    return -1;
  }
  const int iOn = 1;
  if (setsockopt(m_iFD, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn)) != 0) {
    return CloseFailed();
  }
  const sockaddr_in stAddr = MakeAddress(TranslateAddress(pAddr), iPort);
  if (bind(m_iFD, Generic(stAddr), sizeof(stAddr)) != 0 || listen(m_iFD, BACKLOG) != 0) {
    return CloseFailed();
  }
  return 0;
}

TcpSocket* TcpSocket::Accept() {
  if (m_iFD == -1) {
    return nullptr;
  }
  std::unique_ptr<TcpSocket> pSocket;
  try {
    pSocket = std::make_unique<TcpSocket>();
  } catch (const std::bad_alloc&) {  // before a connection is taken that there is no room for
    errno = ENOMEM;
    return nullptr;
  }
  const int iFD = accept4(m_iFD, nullptr, nullptr, SOCK_CLOEXEC);
  if (iFD == -1) {
    return nullptr;
  }
  int iOn = 1;
  if (ioctl(iFD, FIONBIO, &iOn) != 0) {
    const int iError = errno;
    close(iFD);
    errno = iError;
    return nullptr;
  }
  pSocket->m_iFD = iFD;
  pSocket->m_iTimeoutTime = ACCEPTED_TIMEOUT;
  pSocket->GetAddressPort();
  return pSocket.release();
}

int TcpSocket::Connect(const char* pHost, unsigned short iPort) {
  return Connect(TranslateAddress(pHost), iPort);
}

int TcpSocket::Connect(unsigned int iAddr, unsigned short iPort) {
  Close();
  m_iFD = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_iFD == -1) {
    return -1;
  }
  if (SetNonBlock(true) != 0) {
    return CloseFailed();
  }
  const sockaddr_in stAddr = MakeAddress(iAddr, iPort);
  if (connect(m_iFD, Generic(stAddr), sizeof(stAddr)) != 0 && errno != EINPROGRESS) {
    return CloseFailed();
  }
  GetAddressPort();
  m_iPeerPort = iPort;
  m_iPeerAddr = iAddr;
  return 0;
}

int TcpSocket::SetNonBlock(bool bOn) {
  const int iFlags = fcntl(m_iFD, F_GETFL);
  if (iFlags == -1) {
    return -1;
  }
  return fcntl(m_iFD, F_SETFL, bOn ? iFlags | O_NONBLOCK : iFlags & ~O_NONBLOCK);
}

int TcpSocket::KeepAlive(unsigned int iIdle, unsigned int iInterval, unsigned int iCount) {
  if (m_iFD == -1) {
    return -1;
  }
  const int iOn = 1;
  setsockopt(m_iFD, SOL_SOCKET, SO_KEEPALIVE, &iOn, sizeof(iOn));
  SetTcpOption(m_iFD, TCP_KEEPIDLE, iIdle);
  SetTcpOption(m_iFD, TCP_KEEPINTVL, iInterval);
  SetTcpOption(m_iFD, TCP_KEEPCNT, iCount);
  return 0;
}

bool TcpSocket::CanWrite(int iSeconds) {
  pollfd stPoll{m_iFD, POLLOUT | POLLERR | POLLHUP, 0};
  const auto iMilliseconds = std::clamp<int64_t>(int64_t{iSeconds} * 1000, -1, INT_MAX);
  return poll(&stPoll, 1, static_cast<int>(iMilliseconds)) > 0 && (stPoll.revents & POLLOUT) != 0;
}

void TcpSocket::AppendSendBuffer(const char* pData, unsigned int iSize) {
  AppendSendBuffer("", 0, pData, iSize);
}

void TcpSocket::AppendSendBuffer(const char* pHead, unsigned int iHeadSize, const char* pData,
                                 unsigned int iDataSize) {
  m_dqSendBuffer.push_back(
      {time(nullptr), std::string(pHead, iHeadSize), std::string(pData, iDataSize)});
  m_iSendBufferSize += iHeadSize + iDataSize;
}

int TcpSocket::Send(StreamCallback_t* pCallback) {
  if (m_iFD == -1) {
    return 0;
  }
  const time_t iNow = time(nullptr);
  for (size_t iTotal = 0;;) {
    size_t iWritten = 0;
    if (!WriteSendBuffer(iWritten)) {
      DropWritten(iWritten);
      return -1;
    }
    if (pCallback != nullptr) {
      try {
        pCallback(this, m_strSendBuffer.data() + m_iSendOffset,
                  static_cast<unsigned int>(iWritten));
      } catch (...) {
        DropWritten(iWritten);
        throw;
      }
    }
    DropWritten(iWritten);
    iTotal += iWritten;
    if (!m_strSendBuffer.empty()) {
      return static_cast<int>(iTotal);
    }
    if (m_dqSendBuffer.empty()) {
      m_iSendBufferSize = 0;
      return static_cast<int>(iTotal);
    }
    TakeMessage(iNow);
  }
}

int TcpSocket::Recv(StreamCallback_t* pCallback) {
  if (m_iFD == -1) {
    return 0;
  }
  for (size_t iTotal = 0;;) {
    if (!MakeRecvRoom()) {
      errno = ENOMEM;
      return -1;
    }
    // A callback shall find the zero byte behind the earlier bytes: the new ones land beyond it.
    const size_t iGap = pCallback != nullptr && m_iRecvBegin != m_iRecvEnd ? 1 : 0;
    char* pLanding = m_pBuffer.get() + m_iRecvEnd + iGap;
    const ssize_t iCount = recv(m_iFD, pLanding, RECV_SIZE, 0);
    if (iCount > 0) {
      if (pCallback != nullptr) {
        const bool bNested = m_bInRecvCallback;
        m_bInRecvCallback = true;
        try {
          pCallback(this, pLanding, static_cast<unsigned int>(iCount));
        } catch (...) {
          m_bInRecvCallback = bNested;
          AddReceived(pLanding, static_cast<size_t>(iCount));
          throw;
        }
        m_bInRecvCallback = bNested;
      }
      AddReceived(pLanding, static_cast<size_t>(iCount));
      iTotal += static_cast<size_t>(iCount);
    } else if (iCount == -1 && errno == EAGAIN) {
      LeaveBlock();
      return static_cast<int>(iTotal);
    } else if (iCount == 0 || errno != EINTR) {
      LeaveBlock();
      return -1;
    }
  }
}

void TcpSocket::EraseRecvBuffer(unsigned int iSize) {
  m_iRecvBegin += std::min(iSize, RecvBufferSize());
  LeaveBlock();
}

void TcpSocket::Close() {
  if (m_iFD != -1) {
    close(m_iFD);
    m_iFD = -1;
  }
}

void TcpSocket::GetAddressPort() {
  if (m_iFD != -1 && AskAddress(getpeername, m_iFD, m_iPeerAddr, m_iPeerPort, m_strPeerAddr)) {
    AskAddress(getsockname, m_iFD, m_iSockAddr, m_iSockPort, m_strSockAddr);
  }
}

const char* TcpSocket::IdString() {
  static char szId[1024];
  assert(m_iFD >= 0);
  if (m_strPeerAddr.size() < SHORTEST_QUAD || m_strSockAddr.size() < SHORTEST_QUAD) {
    GetAddressPort();
  }
  snprintf(szId, sizeof(szId), "fd(%d) %s:%d->%s:%d", m_iFD, m_strPeerAddr.c_str(), m_iPeerPort,
           m_strSockAddr.c_str(), m_iSockPort);
  return szId;
}

void TcpSocket::Dump(int iFD) {
  dprintf(iFD, "m_iFD=\"%d\"\n", m_iFD);
  dprintf(iFD, "m_iPeerAddr=\"%u\"\n", m_iPeerAddr);
  dprintf(iFD, "m_iPeerPort=\"%d\"\n", m_iPeerPort);
  dprintf(iFD, "m_strPeerAddr.c_str()=\"%s\"\n", m_strPeerAddr.c_str());
  dprintf(iFD, "m_iSockAddr=\"%u\"\n", m_iSockAddr);
  dprintf(iFD, "m_iSockPort=\"%d\"\n", m_iSockPort);
  dprintf(iFD, "m_strSockAddr.c_str()=\"%s\"\n", m_strSockAddr.c_str());
}

// Ends a Listen() or Connect() that failed.
int TcpSocket::CloseFailed() {
  const int iError = errno;
  Close();
  errno = iError;
  return -1;
}

// Writes the flat buffer as far as the kernel takes it; false is an error other than a full socket.
bool TcpSocket::WriteSendBuffer(size_t& iWritten) const {
  const char* pData = m_strSendBuffer.data() + m_iSendOffset;
  const size_t iSize = m_strSendBuffer.size() - m_iSendOffset;
  while (iWritten < iSize) {
    const ssize_t iCount = send(m_iFD, pData + iWritten, iSize - iWritten, MSG_NOSIGNAL);
    if (iCount > 0) {
      iWritten += static_cast<size_t>(iCount);
    } else if (iCount == 0 || errno == EAGAIN) {
      return true;
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

void TcpSocket::DropWritten(size_t iWritten) {
  m_iSendOffset += iWritten;
  m_iSendBufferSize -= static_cast<unsigned int>(iWritten);
  if (m_iSendOffset >= m_strSendBuffer.size()) {  // beyond it after a Send() inside its callback
    std::string().swap(m_strSendBuffer);          // clear() would keep the memory
    m_iSendOffset = 0;
  }
}

// Moves the first message into the flat buffer, which is empty, or drops it when it is too old. The
// age is signed: a clock set back makes no message old.
void TcpSocket::TakeMessage(time_t iNow) {
  _msg_t& stMsg = m_dqSendBuffer.front();
  const size_t iSize = stMsg.strHead.size() + stMsg.strData.size();
  if (iNow - stMsg.iSetTime >= static_cast<int64_t>(m_iTimeoutTime)) {
    m_iSendBufferSize -= static_cast<unsigned int>(iSize);
  } else if (stMsg.strHead.empty()) {
    m_strSendBuffer.swap(stMsg.strData);
  } else {
    m_strSendBuffer.reserve(iSize);
    m_strSendBuffer.append(stMsg.strHead).append(stMsg.strData);
  }
  m_dqSendBuffer.pop_front();
}

// Sees to it that a whole recv() fits behind the received bytes; false leaves them as they are. How
// much there is depends on the peer, so that its host gets a failed connection, not an exception.
bool TcpSocket::MakeRecvRoom() {
  if (m_iRecvBegin == m_iRecvEnd) {
    m_iRecvBegin = m_iRecvEnd = 0;
  }
  if (m_pBuffer == nullptr && g_pSpareBlock != nullptr) {
    m_pBuffer.swap(g_pSpareBlock);
    m_iCapacity = BLOCK_SIZE;
  }
  if (m_iCapacity - m_iRecvEnd >= RECV_ROOM) {
    return true;
  }
  const size_t iSize = m_iRecvEnd - m_iRecvBegin;
  const char* pFirst = m_pBuffer.get() + m_iRecvBegin;
  if (m_iCapacity - iSize >= RECV_ROOM && iSize <= m_iRecvBegin) {
    std::copy_n(pFirst, iSize, m_pBuffer.get());
  } else {
    const size_t iCapacity = BLOCK_SIZE + 2 * iSize;
    std::unique_ptr<char[]> pLarger(new (std::nothrow) char[iCapacity]);  // not cleared
    if (pLarger == nullptr) {
      return false;
    }
    m_iCapacity = iCapacity;
    std::copy_n(pFirst, iSize, pLarger.get());
    m_pBuffer.swap(pLarger);
  }
  m_iRecvBegin = 0;
  m_iRecvEnd = iSize;
  m_pBuffer[iSize] = '\0';
  return true;
}

// Without received bytes, leaves the block to the thread's next socket that receives. Not in a
// callback, whether it erases or receives: its bytes have landed behind the end.
void TcpSocket::LeaveBlock() {
  if (m_bInRecvCallback || m_iRecvBegin != m_iRecvEnd) {
    return;
  }
  if (m_iCapacity == BLOCK_SIZE && g_pSpareBlock == nullptr) {
    m_pBuffer.swap(g_pSpareBlock);
    m_iCapacity = 0;
  }
}

// Takes bytes that recv() has put at or just beyond the end into the received ones.
void TcpSocket::AddReceived(const char* pLanding, size_t iSize) {
  char* pEnd = m_pBuffer.get() + m_iRecvEnd;
  if (pLanding != pEnd) {
    memmove(pEnd, pLanding, iSize);
  }
  m_iRecvEnd += iSize;
  m_pBuffer[m_iRecvEnd] = '\0';
}
