#include "bounded_receiver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "tcp_socket.h"
#include "test_support.h"

namespace {

const size_t ENOUGH = 100000;

class KvBoundedReceiverTest : public testing::Test {
 protected:
  KvBoundedReceiverTest() : m_stSocket(Pair(m_iPeer)) {}
  ~KvBoundedReceiverTest() override { close(m_iPeer); }

  static int Pair(int& iPeer) {
    int arEnds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, arEnds));
    EXPECT_EQ(0, fcntl(arEnds[0], F_SETFL, O_NONBLOCK));
    iPeer = arEnds[1];
    return arEnds[0];
  }
  void PeerSends(size_t iBytes) const {
    const std::string strBytes(iBytes, 'b');
    ASSERT_EQ(static_cast<ssize_t>(iBytes), send(m_iPeer, strBytes.data(), iBytes, 0));
  }

  int m_iPeer = -1;
  TcpSocket m_stSocket;
  BoundedReceiver m_stReceiver;
  bool m_bMore = false;
};

TEST_F(KvBoundedReceiverTest, LittleIsReceivedAsEver) {
  ASSERT_TRUE(m_stReceiver.Good());
  EXPECT_EQ(0, m_stReceiver.Receive(m_stSocket, ENOUGH, m_bMore));
  PeerSends(ENOUGH - 1);
  EXPECT_EQ(static_cast<int>(ENOUGH) - 1, m_stReceiver.Receive(m_stSocket, ENOUGH, m_bMore));
  EXPECT_FALSE(m_bMore);
  EXPECT_EQ(std::string(ENOUGH - 1, 'b'), m_stSocket.RecvBuffer());
  close(m_iPeer);
  EXPECT_EQ(-1, m_stReceiver.Receive(m_stSocket, ENOUGH, m_bMore));
}

// Without a bound this receives all 64 MB at once, as long as the peer keeps pace.
TEST_F(KvBoundedReceiverTest, APeerThatSendsOnAndOnIsLeftAfterEnough) {
  const size_t PIECE = 1 << 20;
  const size_t ALL = 64 * PIECE;
  ForkedPeer stPeer([&] {
    const std::string strPiece(PIECE, 'b');
    for (size_t i = 0; i < ALL / PIECE; ++i) {
      if (send(m_iPeer, strPiece.data(), PIECE, 0) != static_cast<ssize_t>(PIECE)) {
        return 1;
      }
    }
    return 0;
  });
  size_t iReceived = 0;
  while (iReceived < ALL) {
    const int iCount = m_stReceiver.Receive(m_stSocket, ENOUGH, m_bMore);
    ASSERT_GE(iCount, 0);
    ASSERT_LT(static_cast<size_t>(iCount), ENOUGH + PIECE);
    ASSERT_EQ(m_bMore, static_cast<size_t>(iCount) >= ENOUGH);
    ASSERT_EQ(std::string(m_stSocket.RecvBufferSize(), 'b'), m_stSocket.RecvBuffer());
    iReceived += static_cast<size_t>(iCount);
    m_stSocket.EraseRecvBuffer(m_stSocket.RecvBufferSize());
  }
  EXPECT_EQ(0, stPeer.Wait());
}

// Bytes that came behind enough have rung already, and ring again for who asks anew.
TEST_F(KvBoundedReceiverTest, AnEdgeTriggeredEpollKnowsTheSocketAsBefore) {
  const int iEpoll = epoll_create1(EPOLL_CLOEXEC);
  epoll_event stEvent{};
  stEvent.events = EPOLLIN | EPOLLET;
  ASSERT_EQ(0, epoll_ctl(iEpoll, EPOLL_CTL_ADD, m_stSocket.FD(), &stEvent));
  PeerSends(ENOUGH);
  EXPECT_EQ(1, epoll_wait(iEpoll, &stEvent, 1, 0));
  m_stReceiver.Receive(m_stSocket, ENOUGH, m_bMore);
  EXPECT_TRUE(m_bMore);
  EXPECT_EQ(0, epoll_wait(iEpoll, &stEvent, 1, 0));
  PeerSends(1);
  EXPECT_EQ(1, epoll_wait(iEpoll, &stEvent, 1, 0));
  EXPECT_EQ(0, epoll_wait(iEpoll, &stEvent, 1, 0));
  stEvent.events = EPOLLIN | EPOLLET;
  EXPECT_EQ(0, epoll_ctl(iEpoll, EPOLL_CTL_MOD, m_stSocket.FD(), &stEvent));
  EXPECT_EQ(1, epoll_wait(iEpoll, &stEvent, 1, 0));
  close(iEpoll);
}

TEST_F(KvBoundedReceiverTest, TheConnectionEndsWithItsSocket) {
  char cByte = 0;
  PeerSends(ENOUGH);
  m_stReceiver.Receive(m_stSocket, ENOUGH, m_bMore);
  ASSERT_TRUE(m_bMore);
  EXPECT_EQ(-1, recv(m_iPeer, &cByte, 1, MSG_DONTWAIT));
  m_stSocket.Close();
  EXPECT_EQ(0, recv(m_iPeer, &cByte, 1, MSG_DONTWAIT));
}

}  // namespace
