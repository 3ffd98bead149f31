#include "tcp_socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <type_traits>

#include "test_support.h"

// Opening, closing and naming of sockets; two more files have sending and receiving.

namespace {

bool g_bRefuseNonBlock = false;  // while true, no descriptor can be made non-blocking
bool g_bConnectAtOnce = false;   // while true, connect() waits and never returns "in progress"
bool g_bHideLocalEnd = false;    // while true, getsockname() fails

}  // namespace

// The library calls these instead of libc's.
extern "C" int ioctl(int iFD, unsigned long iRequest, ...) noexcept {
  va_list vaArguments;
  va_start(vaArguments, iRequest);
  void* pArgument = va_arg(vaArguments, void*);
  va_end(vaArguments);
  if (g_bRefuseNonBlock && iRequest == FIONBIO) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_ioctl, iFD, iRequest, pArgument));
}

extern "C" int fcntl(int iFD, int iCommand, ...) {
  va_list vaArguments;
  va_start(vaArguments, iCommand);
  const long iArgument = va_arg(vaArguments, long);
  va_end(vaArguments);
  if (g_bRefuseNonBlock && iCommand == F_SETFL) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fcntl, iFD, iCommand, iArgument));
}

extern "C" int getsockname(int iFD, sockaddr* pAddr, socklen_t* pLength) noexcept {
  if (g_bHideLocalEnd) {
    errno = ENOBUFS;
    return -1;
  }
  return static_cast<int>(syscall(SYS_getsockname, iFD, pAddr, pLength));
}

extern "C" int connect(int iFD, const sockaddr* pAddr, socklen_t iLength) {
  const auto iResult = static_cast<int>(syscall(SYS_connect, iFD, pAddr, iLength));
  if (g_bConnectAtOnce && iResult == -1 && errno == EINPROGRESS) {
    pollfd stPoll{iFD, POLLOUT, 0};
    return poll(&stPoll, 1, 10000) == 1 ? 0 : -1;
  }
  return iResult;
}

namespace {

const unsigned int LOOPBACK = htonl(INADDR_LOOPBACK);
const unsigned int NO_ADDRESS = 0xFFFFFFFF;

class Descriptor {
 public:
  explicit Descriptor(int iFD = -1) : m_iFD(iFD) {}
  ~Descriptor() { Close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Get() const { return m_iFD; }
  void Close() {
    if (m_iFD != -1) {
      close(m_iFD);
    }
    m_iFD = -1;
  }

 private:
  int m_iFD;
};

// No descriptor can be opened while this lives.
class NoDescriptors {
 public:
  NoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &m_stSaved);
    const rlimit stNone{0, m_stSaved.rlim_max};
    setrlimit(RLIMIT_NOFILE, &stNone);
  }
  ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &m_stSaved); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  rlimit m_stSaved{};
};

class RefuseNonBlock {
 public:
  RefuseNonBlock() { g_bRefuseNonBlock = true; }
  ~RefuseNonBlock() { g_bRefuseNonBlock = false; }
  RefuseNonBlock(const RefuseNonBlock&) = delete;
  RefuseNonBlock& operator=(const RefuseNonBlock&) = delete;
};

bool IsOpen(int iFD) { return fcntl(iFD, F_GETFD, 0L) != -1; }
bool IsNonBlocking(int iFD) { return (fcntl(iFD, F_GETFL, 0L) & O_NONBLOCK) != 0; }

int Option(int iFD, int iLevel, int iName) {
  int iValue = -1;
  socklen_t iLength = sizeof(iValue);
  getsockopt(iFD, iLevel, iName, &iValue, &iLength);
  return iValue;
}

sockaddr_in LocalEnd(int iFD) {
  sockaddr_in stAddr{};
  socklen_t iLength = sizeof(stAddr);
  getsockname(iFD, reinterpret_cast<sockaddr*>(&stAddr), &iLength);
  return stAddr;
}

uint16_t LocalPort(int iFD) { return ntohs(LocalEnd(iFD).sin_port); }

sockaddr_in LoopbackEnd(uint16_t iPort) {
  sockaddr_in stAddr{};
  stAddr.sin_family = AF_INET;
  stAddr.sin_addr.s_addr = LOOPBACK;
  stAddr.sin_port = htons(iPort);
  return stAddr;
}

int ConnectRaw(int iFD, uint16_t iPort) {
  const sockaddr_in stAddr = LoopbackEnd(iPort);
  return connect(iFD, reinterpret_cast<const sockaddr*>(&stAddr), sizeof(stAddr));
}

int BindRaw(int iFD) {
  const sockaddr_in stAddr = LoopbackEnd(0);
  return bind(iFD, reinterpret_cast<const sockaddr*>(&stAddr), sizeof(stAddr));
}

// The unsigned value that listen() was given, as the kernel keeps it for a listener.
unsigned int Backlog(int iFD) {
  tcp_info stInfo{};
  socklen_t iLength = sizeof(stInfo);
  getsockopt(iFD, IPPROTO_TCP, TCP_INFO, &stInfo, &iLength);
  return stInfo.tcpi_sacked;
}

class TcpSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, m_stListener.Listen("127.0.0.1", 0));
    m_iPort = LocalPort(m_stListener.FD());
  }

  // Connects m_stSocket and waits until the connection stands; the other end is the result.
  std::unique_ptr<TcpSocket> Establish() {
    EXPECT_EQ(0, m_stSocket.Connect(LOOPBACK, m_iPort));
    EXPECT_TRUE(m_stSocket.CanWrite(10));
    m_stSocket.GetAddressPort();
    return std::unique_ptr<TcpSocket>(m_stListener.Accept());
  }

  // Leaves the listener no room, so that a further connection stays in progress.
  void FillBacklog() {
    listen(m_stListener.FD(), 0);
    ASSERT_EQ(0, ConnectRaw(m_stFiller.Get(), m_iPort));
  }

  TcpSocket m_stListener;
  TcpSocket m_stSocket;
  Descriptor m_stFiller{socket(AF_INET, SOCK_STREAM, 0)};
  uint16_t m_iPort = 0;
};

static_assert(!std::is_copy_constructible<TcpSocket>::value, "two owners of one descriptor");
static_assert(!std::is_copy_assignable<TcpSocket>::value, "two owners of one descriptor");

TEST_F(TcpSocketTest, NewSocketIsClosedAndKnowsNothing) {
  EXPECT_EQ(-1, m_stSocket.FD());
  EXPECT_EQ(0u, m_stSocket.PeerAddress());
  EXPECT_EQ(0, m_stSocket.PeerPort());
  EXPECT_STREQ("", m_stSocket.PeerAddressString());
  EXPECT_EQ(0u, m_stSocket.SockAddress());
  EXPECT_EQ(0, m_stSocket.SockPort());
  EXPECT_STREQ("", m_stSocket.SockAddressString());
  EXPECT_EQ(0u, m_stSocket.SendBufferSize());
  EXPECT_EQ(0u, m_stSocket.RecvBufferSize());
}

TEST_F(TcpSocketTest, AdoptedDescriptorKnowsBothEndsAndIsClosedAtTheEnd) {
  const int iFD = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(0, ConnectRaw(iFD, m_iPort));
  {
    const TcpSocket stAdopted(iFD);
    EXPECT_EQ(iFD, stAdopted.FD());
    EXPECT_EQ(LOOPBACK, stAdopted.PeerAddress());
    EXPECT_EQ(m_iPort, stAdopted.PeerPort());
    EXPECT_STREQ("127.0.0.1", stAdopted.PeerAddressString());
    EXPECT_EQ(LOOPBACK, stAdopted.SockAddress());
    EXPECT_EQ(LocalPort(iFD), stAdopted.SockPort());
    EXPECT_STREQ("127.0.0.1", stAdopted.SockAddressString());
    EXPECT_FALSE(IsNonBlocking(iFD));
  }
  EXPECT_FALSE(IsOpen(iFD));
}

TEST_F(TcpSocketTest, AdoptedDescriptorWithoutPeerKnowsNothing) {
  const TcpSocket stAdopted(dup(m_stListener.FD()));
  EXPECT_STREQ("", stAdopted.PeerAddressString());
  EXPECT_STREQ("", stAdopted.SockAddressString());
  EXPECT_EQ(0, stAdopted.SockPort());
}

TEST(TranslateAddressTest, NoTextIsAnyAddress) {
  EXPECT_EQ(0u, TcpSocket::TranslateAddress(nullptr));
  EXPECT_EQ(0u, TcpSocket::TranslateAddress(""));
}

TEST(TranslateAddressTest, QuadAndHostNameAreInNetworkOrder) {
  EXPECT_EQ(htonl(0x01020304), TcpSocket::TranslateAddress("1.2.3.4"));
  EXPECT_EQ(LOOPBACK, TcpSocket::TranslateAddress("localhost"));
}

TEST(TranslateAddressTest, UnresolvableTextIsAllOnes) {
  EXPECT_EQ(NO_ADDRESS, TcpSocket::TranslateAddress("256.256.256.256"));
}

TEST(TranslateAddressTest, AtSignNamesAnInterface) {
  EXPECT_EQ(LOOPBACK, TcpSocket::TranslateAddress("@lo"));
}

TEST(TranslateAddressTest, UnknownInterfaceIsAllOnesAndLeavesErrno) {
  EXPECT_EQ(NO_ADDRESS, TcpSocket::TranslateAddress("@no_such0"));
  EXPECT_EQ(ENODEV, errno);
  EXPECT_EQ(NO_ADDRESS, TcpSocket::TranslateAddress("@"));
}

TEST(TranslateAddressTest, InterfaceNameLongerThanTheFieldIsCut) {
  EXPECT_EQ(NO_ADDRESS, TcpSocket::TranslateAddress(("@" + std::string(5000, 'x')).c_str()));
  EXPECT_EQ(ENODEV, errno);
}

TEST(TranslateAddressTest, InterfaceLookUpLeavesNoDescriptor) {
  const int iBefore = OpenDescriptors();
  TcpSocket::TranslateAddress("@lo");
  TcpSocket::TranslateAddress("@no_such0");
  EXPECT_EQ(iBefore, OpenDescriptors());
}

TEST(TranslateAddressTest, InterfaceWithoutADescriptorToAskIsAllOnes) {
  const NoDescriptors stNone;
  EXPECT_EQ(NO_ADDRESS, TcpSocket::TranslateAddress("@lo"));
}

TEST_F(TcpSocketTest, ListenerBlocksReusesItsAddressAndHasABacklogOfTen) {
  EXPECT_FALSE(IsNonBlocking(m_stListener.FD()));
  EXPECT_NE(0, Option(m_stListener.FD(), SOL_SOCKET, SO_REUSEADDR));
  EXPECT_EQ(10u, Backlog(m_stListener.FD()));
}

TEST_F(TcpSocketTest, ListenTakesAnInterface) {
  ASSERT_EQ(0, m_stSocket.Listen("@lo", 0));
  EXPECT_EQ(LOOPBACK, LocalEnd(m_stSocket.FD()).sin_addr.s_addr);
}

TEST_F(TcpSocketTest, ListenTakesThePortInHostOrder) {
  const uint16_t iPort = FreePort();
  ASSERT_EQ(0, m_stSocket.Listen("127.0.0.1", iPort));
  EXPECT_EQ(iPort, LocalPort(m_stSocket.FD()));
}

TEST_F(TcpSocketTest, ListenOnATakenPortFailsAndLeavesTheSocketClosed) {
  const int iBefore = OpenDescriptors();
  EXPECT_EQ(-1, m_stSocket.Listen("127.0.0.1", m_iPort));
  EXPECT_EQ(EADDRINUSE, errno);
  EXPECT_EQ(-1, m_stSocket.FD());
  EXPECT_EQ(iBefore, OpenDescriptors());
}

TEST_F(TcpSocketTest, ListenOnAnAddressOfSomeoneElseFails) {
  EXPECT_EQ(-1, m_stSocket.Listen("192.0.2.1", 0));
  EXPECT_EQ(EADDRNOTAVAIL, errno);
  EXPECT_EQ(-1, m_stSocket.FD());
}

TEST_F(TcpSocketTest, ListenDoesNotDetectAnAddressThatCannotBeResolved) {
  EXPECT_EQ(0, m_stSocket.Listen("256.256.256.256", 0));
  EXPECT_EQ(NO_ADDRESS, LocalEnd(m_stSocket.FD()).sin_addr.s_addr);
}

TEST_F(TcpSocketTest, FailedListenHasClosedTheOldDescriptor) {
  const auto pAccepted = Establish();
  const int iOld = m_stSocket.FD();
  const NoDescriptors stNone;
  EXPECT_EQ(-1, m_stSocket.Listen("127.0.0.1", 0));
  EXPECT_EQ(EMFILE, errno);
  EXPECT_EQ(-1, m_stSocket.FD());
  EXPECT_FALSE(IsOpen(iOld));
}

TEST_F(TcpSocketTest, AcceptedSocketIsNonBlockingAndKnowsBothEnds) {
  const auto pAccepted = Establish();
  ASSERT_NE(nullptr, pAccepted);
  EXPECT_TRUE(IsNonBlocking(pAccepted->FD()));
  EXPECT_EQ(m_stSocket.SockPort(), pAccepted->PeerPort());
  EXPECT_EQ(m_iPort, pAccepted->SockPort());
  EXPECT_STREQ("127.0.0.1", pAccepted->PeerAddressString());
  EXPECT_STREQ("127.0.0.1", pAccepted->SockAddressString());
}

TEST_F(TcpSocketTest, AcceptWithoutAConnectionIsNull) {
  EXPECT_EQ(nullptr, m_stSocket.Accept());
  ASSERT_EQ(0, m_stListener.SetNonBlock(true));
  EXPECT_EQ(nullptr, m_stListener.Accept());
  EXPECT_EQ(EAGAIN, errno);
}

TEST_F(TcpSocketTest, AcceptedConnectionThatCannotBeNonBlockingIsClosed) {
  const Descriptor stPeer(socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(0, ConnectRaw(stPeer.Get(), m_iPort));
  const RefuseNonBlock stRefuse;
  const int iBefore = OpenDescriptors();
  EXPECT_EQ(nullptr, m_stListener.Accept());
  EXPECT_EQ(EIO, errno);
  EXPECT_EQ(iBefore, OpenDescriptors());
}

TEST_F(TcpSocketTest, ConnectIsNonBlockingAndReachesTheListener) {
  const auto pAccepted = Establish();
  ASSERT_NE(nullptr, pAccepted);
  EXPECT_TRUE(IsNonBlocking(m_stSocket.FD()));
  EXPECT_EQ(LOOPBACK, m_stSocket.PeerAddress());
  EXPECT_EQ(m_iPort, m_stSocket.PeerPort());
  EXPECT_EQ(pAccepted->PeerPort(), m_stSocket.SockPort());
}

TEST_F(TcpSocketTest, ConnectionThatStandsAtOnceKnowsBothEnds) {
  g_bConnectAtOnce = true;
  EXPECT_EQ(0, m_stSocket.Connect(LOOPBACK, m_iPort));
  g_bConnectAtOnce = false;
  EXPECT_STREQ("127.0.0.1", m_stSocket.PeerAddressString());
  EXPECT_STREQ("127.0.0.1", m_stSocket.SockAddressString());
  EXPECT_EQ(LocalPort(m_stSocket.FD()), m_stSocket.SockPort());
}

TEST_F(TcpSocketTest, ConnectTakesTextToo) {
  ASSERT_EQ(0, m_stSocket.Connect("127.0.0.1", m_iPort));
  EXPECT_TRUE(m_stSocket.CanWrite(10));
  EXPECT_EQ(LOOPBACK, m_stSocket.PeerAddress());
}

TEST_F(TcpSocketTest, ConnectKeepsTheAddressItWasGiven) {
  // The kernel takes "any address" for this host and reports the loopback address as the peer's.
  ASSERT_EQ(0, m_stSocket.Connect("", m_iPort));
  EXPECT_EQ(0u, m_stSocket.PeerAddress());
  ASSERT_TRUE(m_stSocket.CanWrite(10));
  m_stSocket.GetAddressPort();
  EXPECT_EQ(LOOPBACK, m_stSocket.PeerAddress());
}

TEST_F(TcpSocketTest, ConnectionInProgressKnowsThePeersNumberAndPortOnly) {
  FillBacklog();
  ASSERT_EQ(0, m_stSocket.Connect("127.0.0.1", m_iPort));
  EXPECT_FALSE(m_stSocket.CanWrite(0));
  EXPECT_EQ(LOOPBACK, m_stSocket.PeerAddress());
  EXPECT_EQ(m_iPort, m_stSocket.PeerPort());
  EXPECT_STREQ("", m_stSocket.PeerAddressString());
  EXPECT_STREQ("", m_stSocket.SockAddressString());
  EXPECT_EQ(0, m_stSocket.SockPort());
}

TEST_F(TcpSocketTest, SecondConnectionInProgressStillHasTheTextAndLocalEndOfTheFirst) {
  const auto pAccepted = Establish();
  const int iOldSockPort = m_stSocket.SockPort();
  ASSERT_EQ(0, m_stSocket.Connect(htonl(INADDR_LOOPBACK + 1), m_iPort));
  EXPECT_EQ(htonl(INADDR_LOOPBACK + 1), m_stSocket.PeerAddress());
  EXPECT_EQ(iOldSockPort, m_stSocket.SockPort());
  EXPECT_STREQ("127.0.0.1", m_stSocket.PeerAddressString());
}

TEST_F(TcpSocketTest, ConnectThatFailsAtOnceLeavesTheSocketClosedAndErrno) {
  const auto pAccepted = Establish();
  const int iBefore = OpenDescriptors();
  EXPECT_EQ(-1, m_stSocket.Connect("256.256.256.256", m_iPort));
  EXPECT_EQ(ENETUNREACH, errno);
  EXPECT_EQ(-1, m_stSocket.FD());
  EXPECT_EQ(iBefore - 1, OpenDescriptors());
}

TEST_F(TcpSocketTest, ConnectWithoutADescriptorFailsAndHasClosedTheOldOne) {
  const auto pAccepted = Establish();
  const int iOld = m_stSocket.FD();
  const NoDescriptors stNone;
  EXPECT_EQ(-1, m_stSocket.Connect(LOOPBACK, m_iPort));
  EXPECT_EQ(EMFILE, errno);
  EXPECT_EQ(-1, m_stSocket.FD());
  EXPECT_FALSE(IsOpen(iOld));
}

TEST_F(TcpSocketTest, ConnectThatCannotBeNonBlockingFails) {
  const RefuseNonBlock stRefuse;
  const int iBefore = OpenDescriptors();
  EXPECT_EQ(-1, m_stSocket.Connect(LOOPBACK, m_iPort));
  EXPECT_EQ(EIO, errno);
  EXPECT_EQ(-1, m_stSocket.FD());
  EXPECT_EQ(iBefore, OpenDescriptors());
}

TEST_F(TcpSocketTest, ConnectClosesWhatWasOpen) {
  const auto pAccepted = Establish();
  const int iBefore = OpenDescriptors();
  ASSERT_EQ(0, m_stSocket.Connect(LOOPBACK, m_iPort));
  EXPECT_EQ(iBefore, OpenDescriptors());
  EXPECT_TRUE(WaitUntil([&] { return pAccepted->Recv() == -1; }));
}

TEST_F(TcpSocketTest, SetNonBlockKeepsTheOtherFlags) {
  const auto pAccepted = Establish();
  const int iFD = m_stSocket.FD();
  fcntl(iFD, F_SETFL, static_cast<long>(O_APPEND | O_NONBLOCK));
  EXPECT_EQ(0, m_stSocket.SetNonBlock(false));
  EXPECT_EQ(O_APPEND, fcntl(iFD, F_GETFL, 0L) & (O_APPEND | O_NONBLOCK));
  EXPECT_EQ(0, m_stSocket.SetNonBlock(true));
  EXPECT_EQ(O_APPEND | O_NONBLOCK, fcntl(iFD, F_GETFL, 0L) & (O_APPEND | O_NONBLOCK));
}

TEST_F(TcpSocketTest, SetNonBlockOfAClosedSocketFails) {
  EXPECT_EQ(-1, m_stSocket.SetNonBlock(true));
  EXPECT_EQ(EBADF, errno);
}

TEST_F(TcpSocketTest, KeepAliveSetsTheThreeFigures) {
  const auto pAccepted = Establish();
  EXPECT_EQ(0, m_stSocket.KeepAlive(11, 12, 13));
  EXPECT_NE(0, Option(m_stSocket.FD(), SOL_SOCKET, SO_KEEPALIVE));
  EXPECT_EQ(11, Option(m_stSocket.FD(), IPPROTO_TCP, TCP_KEEPIDLE));
  EXPECT_EQ(12, Option(m_stSocket.FD(), IPPROTO_TCP, TCP_KEEPINTVL));
  EXPECT_EQ(13, Option(m_stSocket.FD(), IPPROTO_TCP, TCP_KEEPCNT));
}

TEST_F(TcpSocketTest, KeepAliveIgnoresFiguresTheKernelRefuses) {
  const auto pAccepted = Establish();
  EXPECT_EQ(0, m_stSocket.KeepAlive(0, 12, 13));
  EXPECT_EQ(12, Option(m_stSocket.FD(), IPPROTO_TCP, TCP_KEEPINTVL));
}

TEST_F(TcpSocketTest, KeepAliveOfAClosedSocketFails) {
  EXPECT_EQ(-1, m_stSocket.KeepAlive(1, 1, 1));
}

TEST_F(TcpSocketTest, CanWriteAcceptsAnyNumberOfSeconds) {
  const auto pAccepted = Establish();
  EXPECT_TRUE(m_stSocket.CanWrite(0));
  EXPECT_TRUE(m_stSocket.CanWrite(-1));
  EXPECT_TRUE(m_stSocket.CanWrite(INT_MAX));
  EXPECT_TRUE(m_stSocket.CanWrite(INT_MIN));
}

TEST_F(TcpSocketTest, CanWriteWaitsItsSeconds) {
  FillBacklog();
  ASSERT_EQ(0, m_stSocket.Connect(LOOPBACK, m_iPort));
  timespec stBegin{};
  timespec stEnd{};
  clock_gettime(CLOCK_MONOTONIC, &stBegin);
  const bool bCanWrite = m_stSocket.CanWrite(1);
  clock_gettime(CLOCK_MONOTONIC, &stEnd);
  const long iMilliseconds =
      (stEnd.tv_sec - stBegin.tv_sec) * 1000 + (stEnd.tv_nsec - stBegin.tv_nsec) / 1000000;
  EXPECT_FALSE(bCanWrite);
  EXPECT_GE(iMilliseconds, 999);
}

TEST_F(TcpSocketTest, CanWriteIsTrueWhenAWriteWouldFail) {
  // A port that is bound and has no listener: nobody else can take it meanwhile.
  const Descriptor stBound(socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(0, BindRaw(stBound.Get()));
  ASSERT_EQ(0, m_stSocket.Connect(LOOPBACK, LocalPort(stBound.Get())));
  EXPECT_TRUE(m_stSocket.CanWrite(10));
  EXPECT_EQ(ECONNREFUSED, Option(m_stSocket.FD(), SOL_SOCKET, SO_ERROR));
}

TEST_F(TcpSocketTest, CanWriteIsFalseOnAHangUpAlone) {
  int arrPipe[2];
  ASSERT_EQ(0, pipe(arrPipe));
  TcpSocket stReadEnd(arrPipe[0]);
  close(arrPipe[1]);
  EXPECT_FALSE(stReadEnd.CanWrite(10));
}

// Else a command that the host runs keeps the port, or a client's connection, after the host's end.
TEST_F(TcpSocketTest, DescriptorsAreClosedByExec) {
  const auto pAccepted = Establish();
  for (const TcpSocket* pSocket : {&m_stListener, &m_stSocket, pAccepted.get()}) {
    EXPECT_EQ(FD_CLOEXEC, fcntl(pSocket->FD(), F_GETFD, 0L));
  }
}

TEST_F(TcpSocketTest, CanWriteOfAClosedSocketIsFalse) { EXPECT_FALSE(m_stSocket.CanWrite(0)); }

TEST_F(TcpSocketTest, CloseKeepsTheAddressesAndMayBeRepeated) {
  const auto pAccepted = Establish();
  const int iFD = m_stSocket.FD();
  const int iSockPort = m_stSocket.SockPort();
  m_stSocket.Close();
  EXPECT_FALSE(IsOpen(iFD));
  EXPECT_EQ(-1, m_stSocket.FD());
  EXPECT_EQ(m_iPort, m_stSocket.PeerPort());
  EXPECT_EQ(iSockPort, m_stSocket.SockPort());
  EXPECT_STREQ("127.0.0.1", m_stSocket.PeerAddressString());
  const Descriptor stSameNumber(dup(m_stListener.FD()));
  ASSERT_EQ(iFD, stSameNumber.Get());
  m_stSocket.Close();
  EXPECT_TRUE(IsOpen(iFD));
}

TEST_F(TcpSocketTest, GetAddressPortOfAnUnconnectedSocketChangesNothing) {
  const auto pAccepted = Establish();
  m_stSocket.Close();
  m_stSocket.GetAddressPort();
  EXPECT_EQ(m_iPort, m_stSocket.PeerPort());
  ASSERT_EQ(0, m_stSocket.Listen("127.0.0.1", 0));
  const int iSockPort = m_stSocket.SockPort();
  m_stSocket.GetAddressPort();
  EXPECT_EQ(m_iPort, m_stSocket.PeerPort());
  EXPECT_EQ(iSockPort, m_stSocket.SockPort());
}

TEST_F(TcpSocketTest, IdStringNamesThePeerFirst) {
  const auto pAccepted = Establish();
  const std::string strExpected = "fd(" + std::to_string(m_stSocket.FD()) +
                                  ") 127.0.0.1:" + std::to_string(m_iPort) +
                                  "->127.0.0.1:" + std::to_string(LocalPort(m_stSocket.FD()));
  EXPECT_EQ(strExpected, m_stSocket.IdString());
}

TEST_F(TcpSocketTest, IdStringIsOneBufferForAllSockets) {
  const auto pAccepted = Establish();
  const char* pFirst = m_stSocket.IdString();
  const std::string strFirst = pFirst;
  EXPECT_EQ(pFirst, pAccepted->IdString());
  EXPECT_NE(strFirst, pFirst);
}

TEST_F(TcpSocketTest, IdStringAsksForWhatIsUnknown) {
  TcpSocket stAdopted(socket(AF_INET, SOCK_STREAM, 0));
  const std::string strPrefix = "fd(" + std::to_string(stAdopted.FD()) + ") ";
  EXPECT_EQ(strPrefix + ":0->:0", stAdopted.IdString());
  ASSERT_EQ(0, ConnectRaw(stAdopted.FD(), m_iPort));
  EXPECT_EQ(strPrefix + "127.0.0.1:" + std::to_string(m_iPort) +
                "->127.0.0.1:" + std::to_string(LocalPort(stAdopted.FD())),
            stAdopted.IdString());
}

TEST_F(TcpSocketTest, IdStringAsksWhenOnlyTheLocalEndIsUnknown) {
  const Descriptor stPeer(socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(0, ConnectRaw(stPeer.Get(), m_iPort));
  g_bHideLocalEnd = true;
  const std::unique_ptr<TcpSocket> pAccepted(m_stListener.Accept());
  g_bHideLocalEnd = false;
  ASSERT_STREQ("127.0.0.1", pAccepted->PeerAddressString());
  ASSERT_STREQ("", pAccepted->SockAddressString());
  EXPECT_NE(std::string::npos,
            std::string(pAccepted->IdString()).find("->127.0.0.1:" + std::to_string(m_iPort)));
}

TEST_F(TcpSocketTest, IdStringDoesNotAskForWhatIsKnown) {
  const auto pAccepted = Establish();
  const int iOldPort = m_stSocket.SockPort();
  const Descriptor stOther(socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(0, ConnectRaw(stOther.Get(), m_iPort));
  ASSERT_EQ(m_stSocket.FD(), dup2(stOther.Get(), m_stSocket.FD()));
  EXPECT_STREQ(("fd(" + std::to_string(m_stSocket.FD()) + ") 127.0.0.1:" + std::to_string(m_iPort) +
                "->127.0.0.1:" + std::to_string(iOldPort))
                   .c_str(),
               m_stSocket.IdString());
}

TEST_F(TcpSocketTest, IdStringOfAClosedSocketAborts) {
  TcpSocket stClosed;
  EXPECT_EXIT(stClosed.IdString(), ::testing::KilledBySignal(SIGABRT),
              "Assertion `m_iFD >= 0' failed");
}

TEST(TcpSocketIdentifierTest, IsTheAddressTimesTwoToThe32PlusThePort) {
  EXPECT_EQ(0x0A0B0C0D00001F90u, TcpSocket::GenerateIdentifier(0x0A0B0C0D, 8080));
  EXPECT_EQ(0xFFFFFFFF0000FFFFu, TcpSocket::GenerateIdentifier(0xFFFFFFFF, 65535));
  EXPECT_EQ(0x0A0B0C0CFFFFFFFFu, TcpSocket::GenerateIdentifier(0x0A0B0C0D, -1));
}

TEST_F(TcpSocketTest, IdentifiersUseTheAddressAsStored) {
  const auto pAccepted = Establish();
  const uint64_t iAddress = static_cast<uint64_t>(LOOPBACK) << 32;
  EXPECT_EQ(iAddress + m_iPort, m_stSocket.PeerIdentifier());
  EXPECT_EQ(iAddress + LocalPort(m_stSocket.FD()), m_stSocket.SockIdentifier());
  EXPECT_EQ(m_stSocket.PeerIdentifier(), pAccepted->SockIdentifier());
}

TEST_F(TcpSocketTest, DumpShowsDescriptorAndBothEnds) {
  const auto pAccepted = Establish();
  const std::string strLoopback = std::to_string(LOOPBACK);
  EXPECT_EQ("m_iFD=\"" + std::to_string(m_stSocket.FD()) + "\"\nm_iPeerAddr=\"" + strLoopback +
                "\"\nm_iPeerPort=\"" + std::to_string(m_iPort) +
                "\"\nm_strPeerAddr.c_str()=\"127.0.0.1\"\nm_iSockAddr=\"" + strLoopback +
                "\"\nm_iSockPort=\"" + std::to_string(m_stSocket.SockPort()) +
                "\"\nm_strSockAddr.c_str()=\"127.0.0.1\"\n",
            CaptureDescriptor([&](int iFD) { m_stSocket.Dump(iFD); }));
}

TEST_F(TcpSocketTest, DumpOfAClosedSocketShowsItsFields) {
  EXPECT_EQ(
      "m_iFD=\"-1\"\nm_iPeerAddr=\"0\"\nm_iPeerPort=\"0\"\nm_strPeerAddr.c_str()=\"\"\n"
      "m_iSockAddr=\"0\"\nm_iSockPort=\"0\"\nm_strSockAddr.c_str()=\"\"\n",
      CaptureDescriptor([&](int iFD) { m_stSocket.Dump(iFD); }));
}

}  // namespace
