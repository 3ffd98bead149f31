#include "connection_pool.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <type_traits>
#include <vector>

#include "tcp_socket.h"
#include "test_support.h"

namespace {

const unsigned int LOOPBACK = htonl(INADDR_LOOPBACK);
const unsigned int ANY_LOCAL_END = 0xFFFFFFFF;

// A pool of one's own: the process-wide one would keep what a failed test leaves in it.
class OwnPool : public ConnectionPool {};

bool IsOpen(int iFD) { return fcntl(iFD, F_GETFD) != -1; }

uint16_t LocalPort(int iFD) {
  sockaddr_in stAddr{};
  socklen_t iLength = sizeof(stAddr);
  getsockname(iFD, reinterpret_cast<sockaddr*>(&stAddr), &iLength);
  return ntohs(stAddr.sin_port);
}

class ConnectionPoolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, m_stListener.Listen("127.0.0.1", 0));
    ASSERT_EQ(0, m_stOtherListener.Listen("127.0.0.1", 0));
    m_iPort = LocalPort(m_stListener.FD());
    m_iOtherPort = LocalPort(m_stOtherListener.FD());
  }
  void TearDown() override {
    for (const int iFD : m_vecAdded) {
      m_stPool.RemoveConnection(iFD);
    }
  }

  // A standing connection that nobody owns yet.
  static TcpSocket* Connect(uint16_t iPort) {
    auto* pSocket = new TcpSocket;
    EXPECT_EQ(0, pSocket->Connect(LOOPBACK, iPort));
    EXPECT_TRUE(pSocket->CanWrite(10));
    pSocket->GetAddressPort();
    return pSocket;
  }
  TcpSocket* Add(uint16_t iPort) {
    TcpSocket* pSocket = Connect(iPort);
    Add(pSocket);
    return pSocket;
  }
  void Add(TcpSocket* pSocket) {
    m_vecAdded.push_back(pSocket->FD());
    m_stPool.AddConnection(pSocket);
  }
  // By the peer at one of the listeners' ports, whatever the local end.
  TcpSocket* Find(uint16_t iPort) {
    return m_stPool.GetConnection(LOOPBACK, iPort, ANY_LOCAL_END, 0);
  }
  TcpSocket* Find(uint16_t iPort, int iSockPort) {
    return m_stPool.GetConnection(LOOPBACK, iPort, LOOPBACK, iSockPort);
  }

  TcpSocket m_stListener;
  TcpSocket m_stOtherListener;
  uint16_t m_iPort = 0;
  uint16_t m_iOtherPort = 0;
  OwnPool m_stPool;
  std::vector<int> m_vecAdded;
};

static_assert(!std::is_copy_constructible<ConnectionPool>::value, "two owners of each socket");
static_assert(!std::is_default_constructible<ConnectionPool>::value, "one pool a process");

TEST(ConnectionPoolInstanceTest, InstanceIsOneObject) {
  EXPECT_EQ(&ConnectionPool::Instance(), &ConnectionPool::Instance());
}

TEST_F(ConnectionPoolTest, EmptyPoolFindsNothing) {
  EXPECT_EQ(nullptr, m_stPool.GetConnection(0));
  EXPECT_EQ(nullptr, m_stPool.GetConnection(-1));
  EXPECT_EQ(nullptr, m_stPool.GetConnection(0, 0, 0, 0));
  EXPECT_EQ(nullptr, m_stPool.GetConnection(0, 0, ANY_LOCAL_END, 0));
}

TEST_F(ConnectionPoolTest, SocketIsFoundByDescriptorByPeerAndByBothEnds) {
  TcpSocket* pSocket = Add(m_iPort);
  EXPECT_EQ(pSocket, m_stPool.GetConnection(pSocket->FD()));
  EXPECT_EQ(pSocket, Find(m_iPort));
  EXPECT_EQ(pSocket, Find(m_iPort, pSocket->SockPort()));
}

TEST_F(ConnectionPoolTest, OtherDescriptorPeerOrLocalEndIsNotFound) {
  const TcpSocket* pSocket = Add(m_iPort);
  EXPECT_EQ(nullptr, m_stPool.GetConnection(m_stListener.FD()));
  EXPECT_EQ(nullptr, Find(m_iOtherPort));
  EXPECT_EQ(nullptr, m_stPool.GetConnection(htonl(0x7F000002), m_iPort, ANY_LOCAL_END, 0));
  EXPECT_EQ(nullptr, Find(m_iPort, pSocket->SockPort() + 1));
  EXPECT_EQ(nullptr,
            m_stPool.GetConnection(LOOPBACK, m_iPort, htonl(0x7F000002), pSocket->SockPort()));
}

TEST_F(ConnectionPoolTest, OnlyAllOnesIsAnyLocalEnd) {
  const TcpSocket* pSocket = Add(m_iPort);
  EXPECT_EQ(nullptr, m_stPool.GetConnection(LOOPBACK, m_iPort, 0, pSocket->SockPort()));
  EXPECT_EQ(nullptr, Find(m_iPort, 0));
  EXPECT_EQ(pSocket, m_stPool.GetConnection(LOOPBACK, m_iPort, ANY_LOCAL_END, 1));
}

TEST_F(ConnectionPoolTest, ConnectionsToOnePeerAreToldApartByTheirLocalEnd) {
  TcpSocket* pFirst = Add(m_iPort);
  TcpSocket* pSecond = Add(m_iPort);
  EXPECT_EQ(pFirst, Find(m_iPort, pFirst->SockPort()));
  EXPECT_EQ(pSecond, Find(m_iPort, pSecond->SockPort()));
}

TEST_F(ConnectionPoolTest, AnyLocalEndIsTheOneAddedFirst) {
  TcpSocket* pConnectedFirst = Connect(m_iPort);
  TcpSocket* pAddedFirst = Add(m_iPort);
  Add(pConnectedFirst);
  EXPECT_EQ(pAddedFirst, Find(m_iPort));
}

TEST_F(ConnectionPoolTest, RemovingOneHidesAllOfThatPeerFromPeerLookUp) {
  const TcpSocket* pFirst = Add(m_iPort);
  TcpSocket* pSecond = Add(m_iPort);
  const int iFirstFD = pFirst->FD();
  m_stPool.RemoveConnection(iFirstFD);
  EXPECT_FALSE(IsOpen(iFirstFD));
  EXPECT_EQ(nullptr, m_stPool.GetConnection(iFirstFD));
  EXPECT_EQ(nullptr, Find(m_iPort));
  EXPECT_EQ(nullptr, Find(m_iPort, pSecond->SockPort()));
  EXPECT_EQ(pSecond, m_stPool.GetConnection(pSecond->FD()));
  EXPECT_TRUE(IsOpen(pSecond->FD()));
}

TEST_F(ConnectionPoolTest, RemovingLeavesOtherPeersAlone) {
  const TcpSocket* pSocket = Add(m_iPort);
  TcpSocket* pOther = Add(m_iOtherPort);
  m_stPool.RemoveConnection(pSocket->FD());
  EXPECT_EQ(pOther, Find(m_iOtherPort, pOther->SockPort()));
}

TEST_F(ConnectionPoolTest, SocketHiddenFromPeerLookUpCanStillBeRemoved) {
  const int iFirst = Add(m_iPort)->FD();
  const int iSecond = Add(m_iPort)->FD();
  m_stPool.RemoveConnection(iFirst);
  m_stPool.RemoveConnection(iSecond);
  EXPECT_FALSE(IsOpen(iSecond));
  EXPECT_EQ(nullptr, m_stPool.GetConnection(iSecond));
}

TEST_F(ConnectionPoolTest, RemovingAnUnknownDescriptorChangesNothing) {
  TcpSocket* pSocket = Add(m_iPort);
  m_stPool.RemoveConnection(m_stListener.FD());
  m_stPool.RemoveConnection(-1);
  EXPECT_EQ(pSocket, m_stPool.GetConnection(pSocket->FD()));
  EXPECT_EQ(pSocket, Find(m_iPort));
  EXPECT_TRUE(IsOpen(m_stListener.FD()));
}

TEST_F(ConnectionPoolTest, SecondSocketOfADescriptorIsFoundByItsPeerOnly) {
  TcpSocket* pFirst = Add(m_iPort);
  const int iFD = pFirst->FD();
  pFirst->Close();
  const std::unique_ptr<TcpSocket> pSecond(Connect(m_iOtherPort));
  ASSERT_EQ(iFD, pSecond->FD());
  m_stPool.AddConnection(pSecond.get());
  EXPECT_EQ(pFirst, m_stPool.GetConnection(iFD));
  EXPECT_EQ(pSecond.get(), Find(m_iOtherPort, pSecond->SockPort()));
  m_stPool.RemoveConnection(iFD);  // destroys the first, which has closed already
  EXPECT_TRUE(IsOpen(iFD));
  EXPECT_EQ(nullptr, m_stPool.GetConnection(iFD));
  EXPECT_EQ(nullptr, Find(m_iPort));
  EXPECT_EQ(pSecond.get(), Find(m_iOtherPort));
}

TEST_F(ConnectionPoolTest, SocketClosedMeanwhileIsRemovedByTheNumberItWasAddedUnder) {
  TcpSocket* pSocket = Add(m_iPort);
  const int iFD = pSocket->FD();
  pSocket->Close();
  EXPECT_EQ(pSocket, m_stPool.GetConnection(iFD));
  m_stPool.RemoveConnection(iFD);
  EXPECT_EQ(nullptr, m_stPool.GetConnection(iFD));
  EXPECT_EQ(nullptr, Find(m_iPort));
}

TEST_F(ConnectionPoolTest, ClosedSocketIsEnteredUnderMinusOne) {
  auto* pSocket = new TcpSocket;
  Add(pSocket);
  EXPECT_EQ(pSocket, m_stPool.GetConnection(-1));
  EXPECT_EQ(pSocket, m_stPool.GetConnection(0, 0, 0, 0));
}

TEST_F(ConnectionPoolTest, ConnectionInProgressIsUnderTheAddressGivenToConnect) {
  listen(m_stListener.FD(), 0);
  const std::unique_ptr<TcpSocket> pFiller(Connect(m_iPort));
  auto* pPending = new TcpSocket;
  ASSERT_EQ(0, pPending->Connect(LOOPBACK, m_iPort));
  Add(pPending);
  ASSERT_FALSE(pPending->CanWrite(0));
  EXPECT_EQ(pPending, Find(m_iPort));
  EXPECT_EQ(pPending, m_stPool.GetConnection(LOOPBACK, m_iPort, 0, 0));
}

TEST_F(ConnectionPoolTest, LocalEndIsTheOneOfTheLookUpAndThePeerTheOneWhenAdded) {
  auto* pSocket = new TcpSocket(socket(AF_INET, SOCK_STREAM, 0));
  Add(pSocket);
  sockaddr_in stAddr{};
  stAddr.sin_family = AF_INET;
  stAddr.sin_addr.s_addr = LOOPBACK;
  stAddr.sin_port = htons(m_iPort);
  ASSERT_EQ(0, connect(pSocket->FD(), reinterpret_cast<sockaddr*>(&stAddr), sizeof(stAddr)));
  pSocket->GetAddressPort();
  EXPECT_EQ(nullptr, Find(m_iPort));
  EXPECT_EQ(nullptr, m_stPool.GetConnection(0, 0, 0, 0));
  EXPECT_EQ(pSocket, m_stPool.GetConnection(0, 0, LOOPBACK, pSocket->SockPort()));
}

TEST_F(ConnectionPoolTest, RemovingErasesUnderThePeerOfTheAdditionNotThePresentOne) {
  auto* pSocket = new TcpSocket;
  ASSERT_EQ(0, pSocket->Connect("", m_iPort));  // the kernel will call this peer the loopback
  Add(pSocket);
  ASSERT_TRUE(pSocket->CanWrite(10));
  pSocket->GetAddressPort();
  ASSERT_EQ(LOOPBACK, pSocket->PeerAddress());
  TcpSocket* pSamePresentPeer = Add(m_iPort);
  m_stPool.RemoveConnection(pSocket->FD());
  EXPECT_EQ(nullptr, m_stPool.GetConnection(0, m_iPort, ANY_LOCAL_END, 0));
  EXPECT_EQ(pSamePresentPeer, Find(m_iPort));
}

TEST_F(ConnectionPoolTest, EndOfThePoolDestroysNoSocket) {
  const std::unique_ptr<TcpSocket> pSocket(Connect(m_iPort));
  { OwnPool().AddConnection(pSocket.get()); }
  EXPECT_TRUE(IsOpen(pSocket->FD()));
}

TEST_F(ConnectionPoolTest, DumpWritesNothing) {
  Add(m_iPort);
  EXPECT_EQ("", CaptureDescriptor([&](int iFD) { m_stPool.Dump(iFD); }));
}

}  // namespace
