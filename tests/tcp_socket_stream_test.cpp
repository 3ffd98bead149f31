// Fortified, recv() is an inline function of the headers; this program defines its own.
#undef _FORTIFY_SOURCE

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "tcp_socket.h"
#include "test_support.h"

// Sending and receiving; tcp_socket_test.cpp has opening, closing and naming.

namespace {

const size_t READ_SIZE = 1048576;
const time_t START = 1000000;  // the clock's second when a test begins

// What the next calls of send() or recv() do instead of asking the kernel for everything: a
// positive number moves at most so many bytes, 0 is the result 0, a negative one the errno of a
// failure.
struct script_t {
  std::deque<long> dqNext;
  unsigned int iCalls = 0;
  size_t iSmallestSize = SIZE_MAX;
  size_t iLargestSize = 0;
  int iLastFlags = -1;
};

script_t g_stSend;
script_t g_stRecv;
time_t g_iClock = START;
unsigned int g_iClockCalls = 0;
unsigned int g_iBlocks = 0;      // receive buffers ever allocated
bool g_bNoMemory = false;        // while true, no receive buffer can be allocated
char* g_pBehindBlock = nullptr;  // a byte behind the receive buffer allocated last, '\xA5'
bool g_bFullRead = false;        // the next recv() fills all it is given

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

}  // namespace

// The library calls these instead of libc's; the tests themselves read(), write() and gettime().
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

namespace {

// The bytes that the callbacks saw, one entry a call, and what else happens during a call.
std::vector<std::string> g_vecSeen;
std::function<void(TcpSocket*, const char*, unsigned int)> g_fnDuring;

void Record(TcpSocket* pSocket, const char* pData, unsigned int iSize) {
  g_vecSeen.emplace_back(pData, iSize);
  if (g_fnDuring) {
    g_fnDuring(pSocket, pData, iSize);
  }
}

typedef std::vector<std::string> Texts_t;

// Text in which every position can be told from its neighbours.
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

// Exactly so many bytes, fewer when the stream ends or stops for ten seconds.
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

// A socket accepted from a plain descriptor, the peer.
class TcpSocketStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_stSend = script_t();
    g_stRecv = script_t();
    g_vecSeen.clear();
    g_fnDuring = nullptr;
    g_iClock = START;
    g_iBlocks = 0;
    g_bNoMemory = false;
    TcpSocket stListener;
    ASSERT_EQ(0, stListener.Listen("127.0.0.1", 0));
    m_iPeer = ConnectTo(stListener, m_iPeerBuffer);
    m_pSocket.reset(stListener.Accept());
    ASSERT_NE(nullptr, m_pSocket);
  }
  void TearDown() override {
    ClosePeer();
    g_fnDuring = nullptr;
  }

  static int ConnectTo(const TcpSocket& stListener, int iReceiveBuffer) {
    sockaddr_in stAddr{};
    socklen_t iLength = sizeof(stAddr);
    getsockname(stListener.FD(), reinterpret_cast<sockaddr*>(&stAddr), &iLength);
    const int iFD = socket(AF_INET, SOCK_STREAM, 0);
    if (iReceiveBuffer != 0) {
      setsockopt(iFD, SOL_SOCKET, SO_RCVBUF, &iReceiveBuffer, sizeof(iReceiveBuffer));
    }
    const timeval stLimit{10, 0};
    setsockopt(iFD, SOL_SOCKET, SO_RCVTIMEO, &stLimit, sizeof(stLimit));
    EXPECT_EQ(0, connect(iFD, reinterpret_cast<sockaddr*>(&stAddr), iLength));
    return iFD;
  }

  void ClosePeer() {
    if (m_iPeer != -1) {
      close(m_iPeer);
    }
    m_iPeer = -1;
  }
  // The peer vanishes with a reset instead of an orderly end.
  void ResetByPeer() {
    const linger stNow{1, 0};
    setsockopt(m_iPeer, SOL_SOCKET, SO_LINGER, &stNow, sizeof(stNow));
    ClosePeer();
    AwaitEvent(POLLHUP);
  }

  void Queue(const std::string& strData) {
    m_pSocket->AppendSendBuffer(strData.data(), static_cast<unsigned int>(strData.size()));
  }
  void Queue(const std::string& strHead, const std::string& strData) {
    m_pSocket->AppendSendBuffer(strHead.data(), static_cast<unsigned int>(strHead.size()),
                                strData.data(), static_cast<unsigned int>(strData.size()));
  }
  int Send() { return m_pSocket->Send(Record); }
  std::string PeerReads(size_t iSize) const { return ReadExactly(m_iPeer, iSize); }
  bool PeerHasNothing() const {
    pollfd stPoll{m_iPeer, POLLIN, 0};
    return poll(&stPoll, 1, 0) == 0;
  }

  // Waits until the kernel holds what the peer has written or done.
  void AwaitInput(size_t iSize) const {
    EXPECT_TRUE(WaitUntil([&] {
      int iReady = 0;
      return ioctl(m_pSocket->FD(), FIONREAD, &iReady) == 0 && iReady >= static_cast<int>(iSize);
    }));
  }
  void AwaitEvent(short iEvent) const {
    pollfd stPoll{m_pSocket->FD(), iEvent, 0};
    EXPECT_EQ(1, poll(&stPoll, 1, 10000));
    EXPECT_NE(0, stPoll.revents & iEvent);
  }
  void PeerWrites(const std::string& strData) const {
    ASSERT_TRUE(WriteAll(m_iPeer, strData));
    AwaitInput(strData.size());
  }
  // Brings data into the receive buffer, in pieces that no kernel buffer is too small for, and
  // leaves no trace in the records.
  void Receive(const std::string& strData) {
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
  // How often a rest of so many bytes is moved while as much is erased as comes in, piece by piece.
  unsigned int MovesBehindARest(size_t iRest, unsigned int iPiece, int iPieces) {
    const std::string strPiece = Pattern(iPiece);
    std::string strExpected = Pattern(iRest);
    Receive(strExpected);
    unsigned int iMoves = 0;
    for (int i = 0; i < iPieces; ++i) {
      const char* pStart = m_pSocket->RecvBuffer();
      m_pSocket->EraseRecvBuffer(iPiece);
      Receive(strPiece);
      strExpected += strPiece;
      iMoves += m_pSocket->RecvBuffer() != pStart + iPiece ? 1 : 0;
    }
    EXPECT_TRUE(strExpected.substr(static_cast<size_t>(iPieces) * iPiece) == Received());
    return iMoves;
  }
  std::string Received() const {
    return std::string(m_pSocket->RecvBuffer(), m_pSocket->RecvBufferSize());
  }

  int m_iPeerBuffer = 0;
  int m_iPeer = -1;
  std::unique_ptr<TcpSocket> m_pSocket;
};

// Kernel buffers of a few kilobytes, so that a message of a megabyte is written in many pieces.
class TcpSocketNarrowTest : public TcpSocketStreamTest {
 protected:
  TcpSocketNarrowTest() { m_iPeerBuffer = 4096; }
  void SetUp() override {
    TcpSocketStreamTest::SetUp();
    const int iSize = 4096;
    setsockopt(m_pSocket->FD(), SOL_SOCKET, SO_SNDBUF, &iSize, sizeof(iSize));
  }

  // Sends until nothing is left while the peer reads; everything the peer got.
  std::string SendAll(size_t iSize) {
    std::string strRead;
    while (strRead.size() < iSize) {
      const int iSent = m_pSocket->Send();
      EXPECT_GE(iSent, 0);
      m_iSent += static_cast<size_t>(iSent);
      const std::string strPiece = PeerReads(std::min(iSize, m_iSent) - strRead.size());
      if (strPiece.empty() && iSent == 0 && !m_pSocket->CanWrite(10)) {
        ADD_FAILURE() << "the stream stands still after " << strRead.size() << " bytes";
        break;
      }
      strRead += strPiece;
    }
    return strRead;
  }

  size_t m_iSent = 0;
};

TEST_F(TcpSocketStreamTest, QueuedBytesOfHeadAndDataAreCounted) {
  Queue("abc");
  EXPECT_EQ(3u, m_pSocket->SendBufferSize());
  Queue("head", "data!");
  EXPECT_EQ(12u, m_pSocket->SendBufferSize());
  m_pSocket->AppendSendBuffer(nullptr, 0, nullptr, 0);
  EXPECT_EQ(12u, m_pSocket->SendBufferSize());
  EXPECT_EQ(0u, g_stSend.iCalls);
}

TEST_F(TcpSocketStreamTest, QueuedBytesAreCopied) {
  std::string strData = "original, and longer than a small string";
  std::string strHead = "head";
  Queue(strHead, strData);
  std::fill(strData.begin(), strData.end(), 'x');
  std::fill(strHead.begin(), strHead.end(), 'x');
  EXPECT_EQ(44, Send());
  EXPECT_EQ("headoriginal, and longer than a small string", PeerReads(44));
}

TEST_F(TcpSocketStreamTest, MessagesLeaveInOrderHeadFirstOneWriteEach) {
  Queue("one");
  Queue("two:", "three");
  Queue("four:", "");
  EXPECT_EQ(17, Send());
  EXPECT_EQ("onetwo:threefour:", PeerReads(17));
  EXPECT_EQ(3u, g_stSend.iCalls);
  EXPECT_EQ(0u, m_pSocket->SendBufferSize());
}

TEST_F(TcpSocketStreamTest, CallbackSeesEachMessageAndNothingBeforeTheFirst) {
  Queue("one");
  Queue("two:", "three");
  Send();
  EXPECT_EQ((Texts_t{"", "one", "two:three"}), g_vecSeen);
}

TEST_F(TcpSocketStreamTest, CallbackRunsBeforeTheBytesAreRemoved) {
  Texts_t vecSizes;
  g_fnDuring = [&](TcpSocket* pSocket, const char*, unsigned int) {
    EXPECT_EQ(m_pSocket.get(), pSocket);
    vecSizes.push_back(std::to_string(pSocket->SendBufferSize()));
  };
  Queue("one");
  Queue("three");
  Send();
  EXPECT_EQ((Texts_t{"8", "8", "5"}), vecSizes);
}

TEST_F(TcpSocketStreamTest, EmptySendWritesNothingAndCallsBackOnce) {
  EXPECT_EQ(0, Send());
  EXPECT_EQ(0u, m_pSocket->SendBufferSize());
  EXPECT_EQ(0u, g_stSend.iCalls);
  EXPECT_EQ(Texts_t{""}, g_vecSeen);
}

TEST_F(TcpSocketStreamTest, EmptyMessageIsARoundOfItsOwn) {
  Queue("");
  Queue("x");
  EXPECT_EQ(1, Send());
  EXPECT_EQ((Texts_t{"", "", "x"}), g_vecSeen);
  EXPECT_EQ(1u, g_stSend.iCalls);
}

TEST_F(TcpSocketStreamTest, SendWithoutCallbackWorks) {
  Queue("abc");
  EXPECT_EQ(3, m_pSocket->Send());
  EXPECT_EQ("abc", PeerReads(3));
}

TEST_F(TcpSocketStreamTest, SendOnAClosedSocketKeepsTheQueue) {
  m_pSocket->Close();
  Queue("abc");
  g_iClockCalls = 0;
  EXPECT_EQ(0, Send());
  EXPECT_EQ(3u, m_pSocket->SendBufferSize());
  EXPECT_TRUE(g_vecSeen.empty());
  EXPECT_EQ(0u, g_iClockCalls);
}

TEST_F(TcpSocketStreamTest, BinaryBytesPassUnchanged) {
  const std::string strData("a\0b\xff\0", 5);
  Queue(strData.substr(0, 2), strData.substr(2));
  EXPECT_EQ(5, Send());
  EXPECT_EQ(strData, PeerReads(5));
}

TEST_F(TcpSocketStreamTest, MessagesOfAllSizesKeepTheirOrderWhileMemoryIsHandedOn) {
  std::mt19937 stRandom(7);
  std::string strExpected;
  for (int iRound = 0; iRound < 300; ++iRound) {
    for (unsigned int i = stRandom() % 4; i > 0; --i) {
      const std::string strHead = stRandom() % 2 == 0 ? "" : Pattern(stRandom() % 40);
      const std::string strData = Pattern(stRandom() % 900);
      Queue(strHead, strData);
      strExpected += strHead + strData;
    }
    EXPECT_EQ(strExpected.size(), m_pSocket->SendBufferSize());
    EXPECT_EQ(static_cast<int>(strExpected.size()), m_pSocket->Send());
    ASSERT_EQ(strExpected, PeerReads(strExpected.size()));
    strExpected.clear();
  }
}

TEST_F(TcpSocketStreamTest, AcceptedSocketDropsWhatWaited20Seconds) {
  Queue("young");
  g_iClock += 19;
  EXPECT_EQ(5, Send());
  Queue("old");
  g_iClock += 20;
  EXPECT_EQ(0, Send());
  EXPECT_EQ("young", PeerReads(5));
}

TEST_F(TcpSocketStreamTest, ConstructedSocketDropsWhatWaited15Seconds) {
  TcpSocket stListener;
  ASSERT_EQ(0, stListener.Listen("127.0.0.1", 0));
  sockaddr_in stAddr{};
  socklen_t iLength = sizeof(stAddr);
  getsockname(stListener.FD(), reinterpret_cast<sockaddr*>(&stAddr), &iLength);
  TcpSocket stSocket;
  ASSERT_EQ(0, stSocket.Connect("127.0.0.1", ntohs(stAddr.sin_port)));
  ASSERT_TRUE(stSocket.CanWrite(10));
  stSocket.AppendSendBuffer("young", 5);
  g_iClock += 14;
  EXPECT_EQ(5, stSocket.Send());
  stSocket.AppendSendBuffer("old", 3);
  g_iClock += 15;
  EXPECT_EQ(0, stSocket.Send());
}

TEST_F(TcpSocketStreamTest, DroppedMessageLowersTheCountByBothPartsAndIsARound) {
  Queue("head", "old");
  g_iClock += 20;
  Queue("new");
  unsigned int iAfterDrop = 0;
  g_fnDuring = [&](TcpSocket* pSocket, const char*, unsigned int) {
    iAfterDrop = g_vecSeen.size() == 2 ? pSocket->SendBufferSize() : iAfterDrop;
  };
  EXPECT_EQ(3, Send());
  EXPECT_EQ((Texts_t{"", "", "new"}), g_vecSeen);
  EXPECT_EQ(3u, iAfterDrop);
  EXPECT_EQ("new", PeerReads(3));
}

TEST_F(TcpSocketStreamTest, TimeoutCountsForMessagesAlreadyQueued) {
  Queue("a");
  g_iClock += 100;
  m_pSocket->SetTimeout(101);
  EXPECT_EQ(1, Send());
  Queue("b");
  g_iClock += 5;
  m_pSocket->SetTimeout(5);
  EXPECT_EQ(0, Send());
}

TEST_F(TcpSocketStreamTest, TimeoutZeroDropsEveryMessage) {
  m_pSocket->SetTimeout(0);
  Queue("abc");
  EXPECT_EQ(0, Send());
  EXPECT_EQ(0u, m_pSocket->SendBufferSize());
  EXPECT_EQ(0u, g_stSend.iCalls);
}

TEST_F(TcpSocketStreamTest, ClockSetBackDropsNothing) {
  Queue("abc");
  g_iClock = 1;
  EXPECT_EQ(3, Send());
}

TEST_F(TcpSocketStreamTest, ClockSetBackKeepsAMessageWithTimeoutZero) {
  m_pSocket->SetTimeout(0);
  Queue("abc");
  g_iClock -= 1;
  EXPECT_EQ(3, Send());
}

TEST_F(TcpSocketStreamTest, LargestTimeoutIsNotNegative) {
  m_pSocket->SetTimeout(UINT_MAX);
  Queue("abc");
  g_iClock += 4294967294;
  EXPECT_EQ(3, Send());
  Queue("abc");
  g_iClock += 4294967295;
  EXPECT_EQ(0, Send());
}

TEST_F(TcpSocketStreamTest, AgeBeyond32BitsIsNotCut) {
  Queue("abc");
  g_iClock += 4294967296 + 1;
  EXPECT_EQ(0, Send());
}

TEST_F(TcpSocketStreamTest, TimeIsTakenOncePerSend) {
  Queue("one");
  Queue("two");
  g_fnDuring = [](TcpSocket*, const char*, unsigned int) { g_iClock += 100; };
  g_iClockCalls = 0;
  EXPECT_EQ(6, Send());
  EXPECT_EQ(1u, g_iClockCalls);
}

TEST_F(TcpSocketStreamTest, AgeIsJudgedOnlyAtTheFront) {
  Queue("first");
  Queue("second");
  g_stSend.dqNext = {2, -EAGAIN};
  EXPECT_EQ(2, Send());
  g_iClock += 20;
  g_stSend.dqNext = {-EAGAIN};
  EXPECT_EQ(0, Send());
  EXPECT_EQ(9u, m_pSocket->SendBufferSize());  // the second is old and still counted
  EXPECT_EQ(3, Send());
  EXPECT_EQ(0u, m_pSocket->SendBufferSize());
  EXPECT_EQ("first", PeerReads(5));
  EXPECT_TRUE(PeerHasNothing());
}

TEST_F(TcpSocketStreamTest, MessageOnceBegunIsNeverDropped) {
  Queue("head", "begun");
  g_stSend.dqNext = {1, -EAGAIN};
  EXPECT_EQ(1, Send());
  g_iClock += 1000;
  EXPECT_EQ(8, Send());
  EXPECT_EQ("headbegun", PeerReads(9));
}

TEST_F(TcpSocketStreamTest, WritesWithoutSignal) {
  Queue("abc");
  Send();
  EXPECT_EQ(MSG_NOSIGNAL, g_stSend.iLastFlags);
}

TEST_F(TcpSocketStreamTest, PartialWritesGoOnWithinTheSameRound) {
  Queue("abcdef");
  g_stSend.dqNext = {1, 2};
  EXPECT_EQ(6, Send());
  EXPECT_EQ((Texts_t{"", "abcdef"}), g_vecSeen);
  EXPECT_EQ(3u, g_stSend.iCalls);
  EXPECT_EQ("abcdef", PeerReads(6));
}

TEST_F(TcpSocketStreamTest, FullSocketEndsTheCallAndTheNextResumesThere) {
  Queue("abc", "def");
  Queue("next");
  g_stSend.dqNext = {2, -EAGAIN};
  EXPECT_EQ(2, Send());
  EXPECT_EQ(8u, m_pSocket->SendBufferSize());
  EXPECT_EQ(8, Send());
  EXPECT_EQ((Texts_t{"", "ab", "cdef", "next"}), g_vecSeen);
  EXPECT_EQ("abcdefnext", PeerReads(10));
}

TEST_F(TcpSocketStreamTest, ManySmallPiecesOfOneMessageArriveOnce) {
  Queue(Pattern(1000));
  for (int i = 0; i < 999; ++i) {
    g_stSend.dqNext = {1, -EAGAIN};
    ASSERT_EQ(1, Send());
  }
  EXPECT_EQ(1u, m_pSocket->SendBufferSize());
  EXPECT_EQ(1, Send());
  EXPECT_EQ(Pattern(1000), PeerReads(1000));
}

TEST_F(TcpSocketStreamTest, InterruptedWriteIsTriedAgain) {
  Queue("abc");
  g_stSend.dqNext = {-EINTR, 1, -EINTR, -EINTR};
  EXPECT_EQ(3, Send());
  EXPECT_EQ(5u, g_stSend.iCalls);
  EXPECT_EQ("abc", PeerReads(3));
}

TEST_F(TcpSocketStreamTest, WriteOfNothingEndsTheCallLikeAFullSocket) {
  Queue("abc");
  g_stSend.dqNext = {1, 0};
  EXPECT_EQ(1, Send());
  EXPECT_EQ(2u, m_pSocket->SendBufferSize());
}

TEST_F(TcpSocketStreamTest, ErrorAfterPartialWritesDropsExactlyTheWrittenBytes) {
  Queue("abcdef");
  g_stSend.dqNext = {1, 2, -ENOBUFS};
  EXPECT_EQ(-1, Send());
  EXPECT_EQ(ENOBUFS, errno);
  EXPECT_EQ(3u, m_pSocket->SendBufferSize());
  EXPECT_EQ(Texts_t{""}, g_vecSeen);
  EXPECT_NE(-1, m_pSocket->FD());
  EXPECT_EQ(3, Send());
  EXPECT_EQ("abcdef", PeerReads(6));
}

TEST_F(TcpSocketStreamTest, ErrorBeforeAnyWriteDropsNothing) {
  Queue("abc");
  g_stSend.dqNext = {-ENOBUFS};
  EXPECT_EQ(-1, Send());
  EXPECT_EQ(3u, m_pSocket->SendBufferSize());
  EXPECT_EQ(3, Send());
}

TEST_F(TcpSocketStreamTest, ErrorInALaterMessageHidesTheEarlierCount) {
  Queue("one");
  Queue("two");
  g_stSend.dqNext = {3, -ENOBUFS};
  EXPECT_EQ(-1, Send());
  EXPECT_EQ(3u, m_pSocket->SendBufferSize());
  EXPECT_EQ((Texts_t{"", "one"}), g_vecSeen);
}

TEST_F(TcpSocketStreamTest, SendToAPeerThatIsGoneFailsWithoutSignalAndStaysOpen) {
  ResetByPeer();
  const int iFD = m_pSocket->FD();
  EXPECT_EQ(-1, m_pSocket->Recv());  // takes the reset
  Queue("abc");
  EXPECT_EQ(-1, Send());
  EXPECT_EQ(EPIPE, errno);
  EXPECT_EQ(iFD, m_pSocket->FD());
  EXPECT_EQ(3u, m_pSocket->SendBufferSize());
}

TEST_F(TcpSocketStreamTest, MessageQueuedByTheCallbackIsSentByTheSameCall) {
  g_fnDuring = [](TcpSocket* pSocket, const char*, unsigned int) {
    if (g_vecSeen.size() < 4) {
      pSocket->AppendSendBuffer("again", 5);
    }
  };
  EXPECT_EQ(15, Send());
  EXPECT_EQ((Texts_t{"", "again", "again", "again"}), g_vecSeen);
  EXPECT_EQ("againagainagain", PeerReads(15));
}

TEST_F(TcpSocketStreamTest, CountIsSetRightAfterACallbackThatSentTheMessageAgain) {
  Queue("abc");
  g_fnDuring = [](TcpSocket* pSocket, const char*, unsigned int iSize) {
    if (iSize != 0) {
      EXPECT_EQ(3, pSocket->Send());  // as the bytes are not yet removed
    }
  };
  EXPECT_EQ(3, Send());
  EXPECT_EQ("abcabc", PeerReads(6));
  EXPECT_EQ(0u, m_pSocket->SendBufferSize());
  Queue("def");
  EXPECT_EQ(3u, m_pSocket->SendBufferSize());
  g_fnDuring = nullptr;
  EXPECT_EQ(3, Send());
  EXPECT_EQ("def", PeerReads(3));
}

TEST_F(TcpSocketStreamTest, CallbackThatClosesEndsTheCallAndKeepsTheRest) {
  Queue("one");
  Queue("two");
  g_fnDuring = [](TcpSocket* pSocket, const char*, unsigned int iSize) {
    if (iSize != 0) {
      pSocket->Close();
    }
  };
  EXPECT_EQ(-1, Send());
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(3u, m_pSocket->SendBufferSize());
  EXPECT_EQ("one", PeerReads(3));
}

TEST_F(TcpSocketStreamTest, QueueAndHalfSentMessageGoOnAfterReconnecting) {
  Queue("abcdef");
  Queue("next");
  g_stSend.dqNext = {2, -EAGAIN};
  ASSERT_EQ(2, Send());
  TcpSocket stListener;
  ASSERT_EQ(0, stListener.Listen("127.0.0.1", 0));
  sockaddr_in stAddr{};
  socklen_t iLength = sizeof(stAddr);
  getsockname(stListener.FD(), reinterpret_cast<sockaddr*>(&stAddr), &iLength);
  m_pSocket->Close();
  EXPECT_EQ(8u, m_pSocket->SendBufferSize());
  ASSERT_EQ(0, m_pSocket->Connect("127.0.0.1", ntohs(stAddr.sin_port)));
  ASSERT_TRUE(m_pSocket->CanWrite(10));
  EXPECT_EQ(8, Send());
  const std::unique_ptr<TcpSocket> pAccepted(stListener.Accept());
  EXPECT_TRUE(
      WaitUntil([&] { return pAccepted->Recv() >= 0 && pAccepted->RecvBufferSize() == 8; }));
  EXPECT_EQ("cdefnext", std::string(pAccepted->RecvBuffer(), pAccepted->RecvBufferSize()));
}

TEST_F(TcpSocketNarrowTest, PartialSendLeavesTheRestAndTheNextResumesBeforeANewMessage) {
  const std::string strLarge = Pattern(1 << 20);
  Queue(strLarge);
  Queue("tail");
  const int iFirst = m_pSocket->Send();
  ASSERT_GT(iFirst, 0);
  ASSERT_LT(iFirst, 1 << 20);
  EXPECT_EQ(strLarge.size() + 4 - static_cast<size_t>(iFirst), m_pSocket->SendBufferSize());
  EXPECT_EQ(0, m_pSocket->Send());
  m_iSent = static_cast<size_t>(iFirst);
  EXPECT_TRUE(strLarge + "tail" == SendAll(strLarge.size() + 4));
  EXPECT_EQ(0u, m_pSocket->SendBufferSize());
}

TEST_F(TcpSocketNarrowTest, CanWriteIsFalseWhileTheSocketIsFull) {
  Queue(Pattern(1 << 20));
  ASSERT_GT(m_pSocket->Send(), 0);
  EXPECT_FALSE(m_pSocket->CanWrite(0));
}

TEST_F(TcpSocketNarrowTest, NegativeSecondsWaitForThePeer) {
  Queue(Pattern(1 << 20));
  const int iFirst = m_pSocket->Send();
  ASSERT_GT(iFirst, 0);
  ForkedPeer stReader([&] {
    const auto iSize = static_cast<size_t>(iFirst);
    return PeerReads(iSize).size() == iSize ? 0 : 1;
  });
  EXPECT_TRUE(m_pSocket->CanWrite(INT_MIN));
  EXPECT_EQ(0, stReader.Wait());
}

TEST_F(TcpSocketStreamTest, RecvOnAClosedSocketAllocatesNothing) {
  m_pSocket->Close();
  EXPECT_EQ(0, m_pSocket->Recv(Record));
  EXPECT_EQ(0u, g_iBlocks);
  EXPECT_EQ(0u, g_stRecv.iCalls);
  EXPECT_TRUE(g_vecSeen.empty());
}

TEST_F(TcpSocketStreamTest, FirstRecvAllocatesAndNobodyClearsWhatIsNotReached) {
  EXPECT_EQ(0u, g_iBlocks);
  g_fnDuring = [](TcpSocket*, const char* pData, unsigned int iSize) {
    EXPECT_EQ('\xA5', pData[iSize]);
    EXPECT_EQ('\xA5', pData[READ_SIZE - 1]);
  };
  PeerWrites("abc");
  EXPECT_EQ(3, m_pSocket->Recv(Record));
  EXPECT_EQ(0, m_pSocket->Recv(Record));
  EXPECT_EQ(1u, g_iBlocks);
}

TEST_F(TcpSocketStreamTest, FirstRecvWithoutMemoryFailsAndMayBeRepeated) {
  PeerWrites("abc");
  g_bNoMemory = true;
  EXPECT_EQ(-1, m_pSocket->Recv(Record));
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(-1, m_pSocket->Recv(Record));
  g_bNoMemory = false;
  EXPECT_EQ(0u, g_stRecv.iCalls);
  EXPECT_EQ(3, m_pSocket->Recv(Record));
  EXPECT_EQ("abc", Received());
}

TEST_F(TcpSocketStreamTest, BufferThatCannotGrowKeepsItsBytesAndItsLimit) {
  const std::string strPiece = Pattern(10000);
  std::string strExpected;
  ASSERT_EQ(0, m_pSocket->Recv());
  g_bNoMemory = true;
  for (int iResult = 0; iResult != -1; strExpected += strPiece) {
    ASSERT_LT(strExpected.size(), 2 * READ_SIZE);
    PeerWrites(strPiece);
    iResult = m_pSocket->Recv();
  }
  errno = 0;
  EXPECT_EQ(-1, m_pSocket->Recv());
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_TRUE(strExpected == Received());
  g_bNoMemory = false;
  PeerWrites("more");
  EXPECT_EQ(4, m_pSocket->Recv());
  EXPECT_TRUE(strExpected + "more" == Received());
}

TEST_F(TcpSocketStreamTest, EveryReadAsksForAMebibyte) {
  PeerWrites("abc");
  g_stRecv.dqNext = {1};
  m_pSocket->Recv();
  EXPECT_EQ(READ_SIZE, g_stRecv.iSmallestSize);
  EXPECT_EQ(READ_SIZE, g_stRecv.iLargestSize);
  EXPECT_EQ(0, g_stRecv.iLastFlags);
}

TEST_F(TcpSocketStreamTest, RecvWithoutDataIsZeroAndCallsNobody) {
  EXPECT_EQ(0, m_pSocket->Recv(Record));
  EXPECT_EQ(1u, g_stRecv.iCalls);
  EXPECT_TRUE(g_vecSeen.empty());
}

TEST_F(TcpSocketStreamTest, RecvReadsUntilTheKernelHasNoMore) {
  PeerWrites("abcdef");
  g_stRecv.dqNext = {1, 2};
  EXPECT_EQ(6, m_pSocket->Recv(Record));
  EXPECT_EQ((Texts_t{"a", "bc", "def"}), g_vecSeen);
  EXPECT_EQ(4u, g_stRecv.iCalls);
  EXPECT_EQ("abcdef", Received());
}

TEST_F(TcpSocketStreamTest, RecvTakesWhatArrivesWhileItReads) {
  PeerWrites("abc");
  g_fnDuring = [&](TcpSocket*, const char*, unsigned int) {
    if (g_vecSeen.size() < 3) {
      PeerWrites("more");
    }
  };
  EXPECT_EQ(11, m_pSocket->Recv(Record));
  EXPECT_EQ((Texts_t{"abc", "more", "more"}), g_vecSeen);
}

TEST_F(TcpSocketStreamTest, RecvCallbackRunsBeforeTheBytesAreAppended) {
  PeerWrites("abcdef");
  g_stRecv.dqNext = {4};
  Texts_t vecBuffered;
  g_fnDuring = [&](TcpSocket* pSocket, const char*, unsigned int) {
    EXPECT_EQ(m_pSocket.get(), pSocket);
    vecBuffered.push_back(Received());
  };
  m_pSocket->Recv(Record);
  EXPECT_EQ((Texts_t{"", "abcd"}), vecBuffered);
}

TEST_F(TcpSocketStreamTest, RecvCallbackMayEraseWhatCameBefore) {
  PeerWrites("abcdef");
  g_stRecv.dqNext = {4};
  g_fnDuring = [](TcpSocket* pSocket, const char*, unsigned int) { pSocket->EraseRecvBuffer(3); };
  EXPECT_EQ(6, m_pSocket->Recv(Record));
  EXPECT_EQ("def", Received());
}

TEST_F(TcpSocketStreamTest, RecvCallbackThatClosesEndsTheCallWithItsDataKept) {
  PeerWrites("abc");
  g_fnDuring = [](TcpSocket* pSocket, const char*, unsigned int) { pSocket->Close(); };
  EXPECT_EQ(-1, m_pSocket->Recv(Record));
  EXPECT_EQ("abc", Received());
}

TEST_F(TcpSocketStreamTest, InterruptedReadIsTriedAgain) {
  PeerWrites("abc");
  g_stRecv.dqNext = {-EINTR, 3, -EINTR};
  EXPECT_EQ(3, m_pSocket->Recv());
  EXPECT_EQ(4u, g_stRecv.iCalls);
}

TEST_F(TcpSocketStreamTest, PeerThatClosedGivesMinusOneWithItsDataKeptAndTheSocketOpen) {
  PeerWrites("last words");
  ClosePeer();
  AwaitEvent(POLLRDHUP);
  const int iFD = m_pSocket->FD();
  EXPECT_EQ(-1, m_pSocket->Recv(Record));
  EXPECT_EQ("last words", Received());
  EXPECT_EQ(Texts_t{"last words"}, g_vecSeen);
  EXPECT_EQ(iFD, m_pSocket->FD());
  EXPECT_EQ(-1, m_pSocket->Recv());
  EXPECT_EQ("last words", Received());
}

TEST_F(TcpSocketStreamTest, PeerThatOnlyStoppedSendingStillGetsItsAnswer) {
  PeerWrites("request");
  shutdown(m_iPeer, SHUT_WR);
  AwaitEvent(POLLRDHUP);
  EXPECT_EQ(-1, m_pSocket->Recv());
  Queue("answer to " + Received());
  EXPECT_EQ(17, Send());
  EXPECT_EQ("answer to request", PeerReads(17));
}

TEST_F(TcpSocketStreamTest, ReadErrorGivesMinusOneWithErrnoAndTheDataBeforeIt) {
  PeerWrites("abc");
  g_stRecv.dqNext = {3, -ENOMEM};
  EXPECT_EQ(-1, m_pSocket->Recv());
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ("abc", Received());
  EXPECT_NE(-1, m_pSocket->FD());
}

TEST_F(TcpSocketStreamTest, ResetByPeerGivesMinusOne) {
  ResetByPeer();
  EXPECT_EQ(-1, m_pSocket->Recv());
  EXPECT_EQ(ECONNRESET, errno);
}

TEST_F(TcpSocketStreamTest, KilledPeerLeavesItsBytesAndThenAnEnd) {
  const ForkedPeer stPeer([&] {
    m_pSocket->Close();
    WriteAll(m_iPeer, "before the kill");
    return pause();
  });
  ClosePeer();
  AwaitInput(15);
  EXPECT_EQ(15, m_pSocket->Recv());
  stPeer.Kill(SIGKILL);
  AwaitEvent(POLLRDHUP);
  EXPECT_EQ(-1, m_pSocket->Recv());
  EXPECT_EQ("before the kill", Received());
}

TEST_F(TcpSocketStreamTest, ReceivedBytesOutliveTheConnection) {
  Receive("kept");
  m_pSocket->Close();
  EXPECT_EQ(0, m_pSocket->Recv());
  EXPECT_EQ("kept", Received());
}

TEST_F(TcpSocketStreamTest, EraseTakesFromTheFrontAndLaterBytesFollowInOnePiece) {
  Receive(std::string("ab\0cdef", 7));
  m_pSocket->EraseRecvBuffer(3);
  EXPECT_EQ("cdef", Received());
  m_pSocket->EraseRecvBuffer(0);
  EXPECT_EQ("cdef", Received());
  Receive("gh");
  EXPECT_EQ("cdefgh", Received());
  m_pSocket->EraseRecvBuffer(5);
  Receive("ij");
  EXPECT_EQ("hij", Received());
}

TEST_F(TcpSocketStreamTest, EraseOfAllOrMoreEmptiesTheBuffer) {
  Receive("abc");
  m_pSocket->EraseRecvBuffer(3);
  EXPECT_EQ("", Received());
  Receive("def");
  m_pSocket->EraseRecvBuffer(UINT_MAX);
  EXPECT_EQ("", Received());
  m_pSocket->EraseRecvBuffer(1);
  EXPECT_EQ("", Received());
  Receive("ghi");
  m_pSocket->EraseRecvBuffer(1);
  m_pSocket->EraseRecvBuffer(UINT_MAX);
  EXPECT_EQ("", Received());
}

TEST_F(TcpSocketStreamTest, EraseMovesNothing) {
  Receive(Pattern(10000));
  const char* pStart = m_pSocket->RecvBuffer();
  for (unsigned int i = 1; i < 10000; ++i) {
    m_pSocket->EraseRecvBuffer(1);
    ASSERT_EQ(pStart + i, m_pSocket->RecvBuffer());
  }
}

TEST_F(TcpSocketStreamTest, RestThatNearlyFillsTheBufferIsNotMovedForEachPiece) {
  EXPECT_LE(MovesBehindARest(65000, 10, 1000), 2u);
}

TEST_F(TcpSocketStreamTest, LargeRestIsNotMovedForEachPiece) {
  EXPECT_LE(MovesBehindARest(2 << 20, 4096, 500), 2u);
}

TEST_F(TcpSocketStreamTest, EmptiedBufferIsFilledFromItsStartAgain) {
  Receive("abc");
  const char* pStart = m_pSocket->RecvBuffer();
  m_pSocket->EraseRecvBuffer(2);
  m_pSocket->EraseRecvBuffer(1);
  Receive("def");
  EXPECT_EQ(pStart, m_pSocket->RecvBuffer());
}

TEST_F(TcpSocketStreamTest, LongStreamWithARestAllocatesOnce) {
  const std::string strPiece = Pattern(1000);
  Receive("rest");
  for (int i = 0; i < 2000; ++i) {
    Receive(strPiece);
    m_pSocket->EraseRecvBuffer(1000);
    ASSERT_EQ(4u, m_pSocket->RecvBufferSize());
  }
  EXPECT_EQ(strPiece.substr(996), Received());
  EXPECT_EQ(1u, g_iBlocks);
}

TEST_F(TcpSocketStreamTest, LongestReadBehindTheLongestRestStaysInItsBlock) {
  for (StreamCallback_t* pCallback : {Record, static_cast<StreamCallback_t*>(nullptr)}) {
    m_pSocket = std::make_unique<TcpSocket>(dup(m_pSocket->FD()));
    Receive(Pattern(65536));  // what may lie before a read without being moved
    g_bFullRead = true;
    g_bNoMemory = true;  // the block, now full, shall not be replaced by a larger one
    EXPECT_EQ(-1, m_pSocket->Recv(pCallback));
    g_bNoMemory = false;
    EXPECT_EQ('\xA5', *g_pBehindBlock);
    EXPECT_TRUE(Pattern(65536) + std::string(READ_SIZE, 'f') == Received());
  }
}

TEST_F(TcpSocketStreamTest, RestOfEverySizeSurvivesTheMovesOfTheBuffer) {
  std::mt19937 stRandom(11);
  std::string strExpected;
  for (int i = 0; i < 400; ++i) {
    const std::string strPiece = Pattern(stRandom() % 30000);
    g_stRecv.dqNext = {static_cast<long>(1 + stRandom() % 9000)};
    Receive(strPiece);
    strExpected += strPiece;
    const size_t iErased = std::min<size_t>(stRandom() % 30000, strExpected.size());
    m_pSocket->EraseRecvBuffer(static_cast<unsigned int>(iErased));
    strExpected.erase(0, iErased);
    ASSERT_TRUE(strExpected == Received()) << "round " << i;
    ASSERT_EQ('\0', m_pSocket->RecvBuffer()[strExpected.size()]);
  }
}

TEST_F(TcpSocketStreamTest, ReceivedBytesReadAsACString) {
  EXPECT_STREQ("", m_pSocket->RecvBuffer());
  Receive("abcdef");
  EXPECT_STREQ("abcdef", m_pSocket->RecvBuffer());
  m_pSocket->EraseRecvBuffer(2);
  EXPECT_STREQ("cdef", m_pSocket->RecvBuffer());
  EXPECT_EQ(0, m_pSocket->Recv());
  EXPECT_STREQ("cdef", m_pSocket->RecvBuffer());
  m_pSocket->EraseRecvBuffer(4);
  EXPECT_STREQ("", m_pSocket->RecvBuffer());
}

TEST_F(TcpSocketStreamTest, EarlierBytesReadAsACStringDuringACallback) {
  Receive("early");
  PeerWrites("lateandmore");
  g_stRecv.dqNext = {4};
  Texts_t vecEarlier;
  g_fnDuring = [&](TcpSocket* pSocket, const char*, unsigned int) {
    vecEarlier.emplace_back(pSocket->RecvBuffer());
  };
  EXPECT_EQ(11, m_pSocket->Recv(Record));
  EXPECT_EQ((Texts_t{"early", "earlylate"}), vecEarlier);
  EXPECT_EQ((Texts_t{"late", "andmore"}), g_vecSeen);
  EXPECT_STREQ("earlylateandmore", m_pSocket->RecvBuffer());
}

TEST_F(TcpSocketStreamTest, RecvCallbackMayEraseAllThatCameBefore) {
  Receive("early");
  PeerWrites("lateandmore");
  g_stRecv.dqNext = {4};
  g_fnDuring = [](TcpSocket* pSocket, const char*, unsigned int) {
    pSocket->EraseRecvBuffer(UINT_MAX);
    EXPECT_STREQ("", pSocket->RecvBuffer());
  };
  EXPECT_EQ(11, m_pSocket->Recv(Record));
  EXPECT_STREQ("andmore", m_pSocket->RecvBuffer());
}

TEST_F(TcpSocketStreamTest, MegabytesFromAnotherProcessArriveUnchanged) {
  const std::string strAll = Pattern(5 << 20);
  ForkedPeer stWriter([&] {
    m_pSocket->Close();
    return WriteAll(m_iPeer, strAll) ? 0 : 1;
  });
  ClosePeer();
  while (m_pSocket->Recv() >= 0) {
    pollfd stPoll{m_pSocket->FD(), POLLIN, 0};
    ASSERT_EQ(1, poll(&stPoll, 1, 10000));
  }
  EXPECT_EQ(0, stWriter.Wait());
  EXPECT_TRUE(strAll == Received());
}

}  // namespace
