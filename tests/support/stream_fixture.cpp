// Fortified, recv() is an inline function of the headers; this file defines its own.
#undef _FORTIFY_SOURCE

#include "stream_fixture.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>

script_t g_stSend;
script_t g_stRecv;
time_t g_iClock = 0;
unsigned int g_iClockCalls = 0;
unsigned int g_iBlocks = 0;
bool g_bNoMemory = false;
char* g_pBehindBlock = nullptr;
bool g_bFullRead = false;
Texts_t g_vecSeen;
std::function<void(TcpSocket*, const char*, unsigned int)> g_fnDuring;

namespace {

const time_t START = 1000000;  // the clock's second when a test begins

// The size that the kernel shall be asked for, or a result in its place.
long FollowScript(script_t& stScript, size_t iSize, int iFlags) {
  ++stScript.iCalls;
  stScript.iSmallestSize = std::min(stScript.iSmallestSize, iSize);
  stScript.iLargestSize = std::max(stScript.iLargestSize, iSize);
  stScript.iLastFlags = iFlags;
  if (stScript.dqNext.empty()) {
    return static_cast<long>(iSize);
  }
  const long iNext = stScript.dqNext.front();
  stScript.dqNext.pop_front();
  if (iNext < 0) {
    errno = static_cast<int>(-iNext);
  }
  return std::min(iNext, static_cast<long>(iSize));
}

int ConnectTo(uint16_t iPort, int iReceiveBuffer) {
  const int iFD = socket(AF_INET, SOCK_STREAM, 0);
  if (iReceiveBuffer != 0) {
    setsockopt(iFD, SOL_SOCKET, SO_RCVBUF, &iReceiveBuffer, sizeof(iReceiveBuffer));
  }
  const timeval stLimit{10, 0};
  setsockopt(iFD, SOL_SOCKET, SO_RCVTIMEO, &stLimit, sizeof(stLimit));
  sockaddr_in stAddr{};
  stAddr.sin_family = AF_INET;
  stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  stAddr.sin_port = htons(iPort);
  EXPECT_EQ(0, connect(iFD, reinterpret_cast<sockaddr*>(&stAddr), sizeof(stAddr)));
  return iFD;
}

}  // namespace

// The library calls these instead of libc's.
extern "C" ssize_t send(int iFD, const void* pData, size_t iSize, int iFlags) {
  const long iNext = FollowScript(g_stSend, iSize, iFlags);
  return iNext <= 0 ? std::max(iNext, -1L)
                    : syscall(SYS_sendto, iFD, pData, iNext, iFlags, nullptr, 0);
}

extern "C" ssize_t recv(int iFD, void* pData, size_t iSize, int iFlags) {
  if (g_bFullRead) {
    g_bFullRead = false;
    memset(pData, 'f', iSize);
    return static_cast<ssize_t>(iSize);
  }
  const long iNext = FollowScript(g_stRecv, iSize, iFlags);
  return iNext <= 0 ? std::max(iNext, -1L)
                    : syscall(SYS_recvfrom, iFD, pData, iNext, iFlags, nullptr, nullptr);
}

extern "C" time_t time(time_t* pSeconds) noexcept {
  ++g_iClockCalls;
  if (pSeconds != nullptr) {
    *pSeconds = g_iClock;
  }
  return g_iClock;
}

// Out of line: inlined, malloc() would face a delete that the compiler knows by name.
[[gnu::noinline]] void* operator new[](size_t iSize) {
  void* pMemory = g_bNoMemory && iSize >= READ_SIZE ? nullptr : malloc(iSize + 1);
  if (pMemory == nullptr) {
    throw std::bad_alloc();
  }
  if (iSize >= READ_SIZE) {
    ++g_iBlocks;
    memset(pMemory, 0xA5, iSize + 1);
    g_pBehindBlock = static_cast<char*>(pMemory) + iSize;
  }
  return pMemory;
}

[[gnu::noinline]] void* operator new[](size_t iSize, const std::nothrow_t&) noexcept {
  try {
    return operator new[](iSize);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

[[gnu::noinline]] void operator delete[](void* pMemory) noexcept { free(pMemory); }
[[gnu::noinline]] void operator delete[](void* pMemory, size_t) noexcept { free(pMemory); }

void Record(TcpSocket* pSocket, const char* pData, unsigned int iSize) {
  g_vecSeen.emplace_back(pData, iSize);
  if (g_fnDuring) {
    g_fnDuring(pSocket, pData, iSize);
  }
}

std::string Pattern(size_t iSize) {
  std::string strText(iSize, '\0');
  for (size_t i = 0; i < iSize; ++i) {
    strText[i] = static_cast<char>((i * 2654435761u) >> 13);
  }
  return strText;
}

bool WriteAll(int iFD, const std::string& strData) {
  for (size_t i = 0; i < strData.size();) {
    const ssize_t iCount = write(iFD, strData.data() + i, strData.size() - i);
    if (iCount <= 0) {
      return false;
    }
    i += static_cast<size_t>(iCount);
  }
  return true;
}

std::string ReadExactly(int iFD, size_t iSize) {
  std::string strData(iSize, '\0');
  size_t iHave = 0;
  while (iHave < iSize) {
    const ssize_t iCount = read(iFD, strData.data() + iHave, iSize - iHave);
    if (iCount <= 0) {
      break;
    }
    iHave += static_cast<size_t>(iCount);
  }
  strData.resize(iHave);
  return strData;
}

uint16_t LocalPort(int iFD) {
  sockaddr_in stAddr{};
  socklen_t iLength = sizeof(stAddr);
  getsockname(iFD, reinterpret_cast<sockaddr*>(&stAddr), &iLength);
  return ntohs(stAddr.sin_port);
}

void StreamTest::SetUp() {
  g_stSend = script_t();
  g_stRecv = script_t();
  g_vecSeen.clear();
  g_fnDuring = nullptr;
  g_iClock = START;
  g_bNoMemory = false;
  TakeSpareBlock();
  g_stRecv = script_t();
  g_iBlocks = 0;
  TcpSocket stListener;
  ASSERT_EQ(0, stListener.Listen("127.0.0.1", 0));
  m_iPeer = ConnectTo(LocalPort(stListener.FD()), m_iPeerBuffer);
  m_pSocket.reset(stListener.Accept());
  ASSERT_NE(nullptr, m_pSocket);
}

// Has a socket with received bytes own it.
void StreamTest::TakeSpareBlock() {
  int aiFDs[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, aiFDs));
  m_pHolder = std::make_unique<TcpSocket>(aiFDs[0]);
  ASSERT_EQ(1, write(aiFDs[1], "x", 1));
  ASSERT_EQ(1, m_pHolder->Recv());
  close(aiFDs[1]);
}

void StreamTest::TearDown() {
  ClosePeer();
  g_fnDuring = nullptr;
}

void StreamTest::ClosePeer() {
  if (m_iPeer != -1) {
    close(m_iPeer);
  }
  m_iPeer = -1;
}

void StreamTest::ResetByPeer() {
  const linger stNow{1, 0};
  setsockopt(m_iPeer, SOL_SOCKET, SO_LINGER, &stNow, sizeof(stNow));
  ClosePeer();
  AwaitEvent(POLLHUP);
}

void StreamTest::Queue(const std::string& strData) {
  m_pSocket->AppendSendBuffer(strData.data(), static_cast<unsigned int>(strData.size()));
}

void StreamTest::Queue(const std::string& strHead, const std::string& strData) {
  m_pSocket->AppendSendBuffer(strHead.data(), static_cast<unsigned int>(strHead.size()),
                              strData.data(), static_cast<unsigned int>(strData.size()));
}

bool StreamTest::PeerHasNothing() const {
  pollfd stPoll{m_iPeer, POLLIN, 0};
  return poll(&stPoll, 1, 0) == 0;
}

void StreamTest::AwaitInput(size_t iSize) const {
  EXPECT_TRUE(WaitUntil([&] {
    int iReady = 0;
    return ioctl(m_pSocket->FD(), FIONREAD, &iReady) == 0 && iReady >= static_cast<int>(iSize);
  }));
}

void StreamTest::AwaitEvent(short iEvent) const {
  pollfd stPoll{m_pSocket->FD(), iEvent, 0};
  EXPECT_EQ(1, poll(&stPoll, 1, 10000));
  EXPECT_NE(0, stPoll.revents & iEvent);
}

void StreamTest::PeerWrites(const std::string& strData) const {
  ASSERT_TRUE(WriteAll(m_iPeer, strData));
  AwaitInput(strData.size());
}

void StreamTest::Receive(const std::string& strData) {
  size_t iExpected = m_pSocket->RecvBufferSize();
  for (size_t i = 0; i < strData.size(); i += 16384) {
    const std::string strPiece = strData.substr(i, 16384);
    iExpected += strPiece.size();
    ASSERT_TRUE(WriteAll(m_iPeer, strPiece));
    ASSERT_TRUE(WaitUntil(
        [&] { return m_pSocket->Recv() >= 0 && m_pSocket->RecvBufferSize() == iExpected; }));
  }
  g_stRecv = script_t();
}

std::string StreamTest::Received() const {
  return std::string(m_pSocket->RecvBuffer(), m_pSocket->RecvBufferSize());
}
