// Sockets while each of their system calls fails in turn.

#include "tcp_socket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "connection_pool.h"
#include "failing_call.h"
#include "test_support.h"

namespace {

const unsigned int LOOPBACK = htonl(INADDR_LOOPBACK);
const unsigned int NO_ADDRESS = 0xFFFFFFFF;

typedef std::unique_ptr<TcpSocket> Socket_t;

void AwaitInput(const TcpSocket& stSocket) {
  pollfd stPoll{stSocket.FD(), POLLIN, 0};
  EXPECT_EQ(1, poll(&stPoll, 1, 10000));
}

// A listener and, once connected, the two ends of a connection.
struct connection_t {
  connection_t() {
    for (uint16_t iFree = FreePort(); stListener.FD() == -1; iFree = FreePort()) {
      iPort = iFree;
      stListener.Listen("127.0.0.1", iPort);
    }
  }
  void Connect() {
    EXPECT_EQ(0, stClient.Connect(LOOPBACK, iPort));
    AwaitInput(stListener);
    pServer.reset(stListener.Accept());
    ASSERT_NE(nullptr, pServer);
  }

  uint16_t iPort = 0;
  TcpSocket stListener;
  TcpSocket stClient;
  Socket_t pServer;
};

// All that has been sent to a socket, so many bytes.
std::string ReceivedBy(TcpSocket& stSocket, size_t iSize) {
  while (stSocket.RecvBufferSize() < iSize) {
    AwaitInput(stSocket);
    if (stSocket.Recv() < 0) {
      break;
    }
  }
  return std::string(stSocket.RecvBuffer(), stSocket.RecvBufferSize());
}

TEST(TcpSocketCallTest, ListenFailsClosedAndCanBeRepeated) {
  FailEachCall([](Attempt& stAttempt) {
    const uint16_t iPort = connection_t().iPort;
    TcpSocket stSocket;
    const auto fnListen = [&] { return stSocket.Listen("127.0.0.1", iPort); };
    const int iResult = stAttempt.Run(fnListen);
    const bool bFailed = stAttempt.FailsIn({{"socket"}, {"setsockopt"}, {"bind"}, {"listen"}});
    EXPECT_EQ(bFailed ? -1 : 0, iResult);
    EXPECT_EQ(bFailed, stSocket.FD() == -1);
    if (bFailed) {
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
      EXPECT_EQ(0, fnListen());
    }
  });
}

TEST(TcpSocketCallTest, AcceptGivesNullAndTheNextOneTheConnectionUnlessItIsClosed) {
  FailEachCall([](Attempt& stAttempt) {
    connection_t stEnds;
    ASSERT_EQ(0, stEnds.stClient.Connect(LOOPBACK, stEnds.iPort));
    AwaitInput(stEnds.stListener);
    Socket_t pSocket(stAttempt.Run([&] { return stEnds.stListener.Accept(); }));
    const bool bFailed = stAttempt.FailsIn({{"accept4"}, {"ioctl"}});
    EXPECT_EQ(bFailed, pSocket == nullptr);
    if (bFailed) {
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
    }
    if (stAttempt.FailsIn({{"accept4"}})) {
      pSocket.reset(stEnds.stListener.Accept());
      ASSERT_NE(nullptr, pSocket);
    }
    if (pSocket != nullptr) {
      stEnds.stClient.AppendSendBuffer("text", 4);
      EXPECT_EQ(4, stEnds.stClient.Send());
      EXPECT_EQ("text", ReceivedBy(*pSocket, 4));
    }
  });
}

TEST(TcpSocketCallTest, ConnectFailsClosedAndCanBeRepeated) {
  FailEachCall([](Attempt& stAttempt) {
    connection_t stEnds;
    const auto fnConnect = [&] { return stEnds.stClient.Connect(LOOPBACK, stEnds.iPort); };
    const int iResult = stAttempt.Run(fnConnect);
    const bool bFailed = stAttempt.FailsIn({{"socket"}, {"fcntl"}, {"connect"}}) &&
                         !stAttempt.FailsIn({{"connect", EINPROGRESS}});
    EXPECT_EQ(bFailed ? -1 : 0, iResult);
    EXPECT_EQ(bFailed, stEnds.stClient.FD() == -1);
    if (bFailed) {
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
    }
    if (bFailed || stAttempt.FailsIn({{"connect"}})) {
      EXPECT_EQ(0, fnConnect());
    }
    EXPECT_EQ(stEnds.iPort, stEnds.stClient.PeerPort());
    EXPECT_TRUE(stEnds.stClient.CanWrite(10));
  });
}

TEST(TcpSocketCallTest, HostThatCanNotBeLookedUpIsNoAddress) {
  FailEachCall([](Attempt& stAttempt) {
    const unsigned int iAddr =
        stAttempt.Run([] { return TcpSocket::TranslateAddress("localhost"); });
    EXPECT_TRUE(iAddr == LOOPBACK || (stAttempt.Fails() && iAddr == NO_ADDRESS));
    EXPECT_EQ(LOOPBACK, TcpSocket::TranslateAddress("localhost"));
  });
}

TEST(TcpSocketCallTest, InterfaceThatCanNotBeAskedIsNoAddress) {
  FailEachCall([](Attempt& stAttempt) {
    const unsigned int iAddr = stAttempt.Run([] { return TcpSocket::TranslateAddress("@lo"); });
    const bool bFailed = stAttempt.FailsIn({{"socket"}, {"ioctl"}});
    EXPECT_EQ(bFailed ? NO_ADDRESS : LOOPBACK, iAddr);
    if (bFailed) {
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
    }
  });
}

TEST(TcpSocketCallTest, SetNonBlockIsTheResultOfFcntl) {
  FailEachCall([](Attempt& stAttempt) {
    connection_t stEnds;
    const int iResult = stAttempt.Run([&] { return stEnds.stListener.SetNonBlock(true); });
    EXPECT_EQ(stAttempt.Fails() ? -1 : 0, iResult);
    EXPECT_EQ(0, stEnds.stListener.SetNonBlock(true));
    EXPECT_EQ(nullptr, stEnds.stListener.Accept());  // it would wait
  });
}

TEST(TcpSocketCallTest, KeepAliveReportsNoOption) {
  FailEachCall([](Attempt& stAttempt) {
    connection_t stEnds;
    EXPECT_EQ(0, stAttempt.Run([&] { return stEnds.stListener.KeepAlive(1, 2, 3); }));
  });
}

TEST(TcpSocketCallTest, WriteThatCanNotBeWaitedForIsNotPossible) {
  FailEachCall([](Attempt& stAttempt) {
    connection_t stEnds;
    stEnds.Connect();
    const bool bPossible = stAttempt.Run([&] { return stEnds.stClient.CanWrite(10); });
    EXPECT_EQ(!stAttempt.Fails(), bPossible);
    EXPECT_TRUE(stEnds.stClient.CanWrite(10));
  });
}

// What is neither tried again at once nor left for the next Send(), and so an error.
bool IsSendError(const Attempt& stAttempt) {
  return stAttempt.FailsIn({{"sendto"}}) && stAttempt.Failure().iErrno != 0 &&
         !stAttempt.FailsIn({{"sendto", EINTR}, {"sendto", EAGAIN}});
}

TEST(TcpSocketCallTest, SendFailsWithoutLosingOrRepeatingAByte) {
  FailEachCall([](Attempt& stAttempt) {
    connection_t stEnds;
    stEnds.Connect();
    stEnds.stClient.AppendSendBuffer("head", 4, "one", 3);
    stEnds.stClient.AppendSendBuffer("two", 3);
    const int iResult = stAttempt.Run([&] { return stEnds.stClient.Send(); });
    const bool bFailed = IsSendError(stAttempt);
    EXPECT_EQ(bFailed, iResult == -1);
    if (bFailed) {
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
    }
    EXPECT_TRUE(iResult == 10 || bFailed || stAttempt.FailsIn({{"sendto", EAGAIN}}));
    EXPECT_LE(0, stEnds.stClient.Send());
    EXPECT_EQ(0u, stEnds.stClient.SendBufferSize());
    EXPECT_EQ("headonetwo", ReceivedBy(*stEnds.pServer, 10));
  });
}

TEST(TcpSocketCallTest, RecvFailsWithoutLosingOrRepeatingAByte) {
  FailEachCall([](Attempt& stAttempt) {
    connection_t stEnds;
    stEnds.Connect();
    stEnds.stClient.AppendSendBuffer("text", 4);
    EXPECT_EQ(4, stEnds.stClient.Send());
    AwaitInput(*stEnds.pServer);
    const int iResult = stAttempt.Run([&] { return stEnds.pServer->Recv(); });
    const bool bMoves = stAttempt.FailsIn({{"recvfrom", EINTR}, {"recvfrom", EAGAIN}}) ||
                        (stAttempt.Fails() && stAttempt.Failure().iShorter > 0);
    const bool bFailed = stAttempt.Fails() && !bMoves;
    EXPECT_EQ(bFailed, iResult == -1);
    if (bFailed && stAttempt.Failure().iErrno != 0) {
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
    }
    EXPECT_EQ("text", ReceivedBy(*stEnds.pServer, 4));
  });
}

TEST(TcpSocketCallTest, CloseClosesWhateverItReports) {
  FailEachCall([](Attempt& stAttempt) {
    connection_t stEnds;
    stEnds.Connect();
    stAttempt.Run([&] { stEnds.stClient.Close(); });
    EXPECT_EQ(-1, stEnds.stClient.FD());
    AwaitInput(*stEnds.pServer);
    EXPECT_EQ(-1, stEnds.pServer->Recv());
  });
}

TEST(TcpSocketCallTest, EndsThatCanNotBeAskedForStayAsTheyAre) {
  FailEachCall([](Attempt& stAttempt) {
    connection_t stEnds;
    stEnds.Connect();
    TcpSocket stSocket(dup(stEnds.pServer->FD()));
    const uint64_t iBefore = stSocket.PeerIdentifier();
    stAttempt.Run([&] { stSocket.GetAddressPort(); });
    EXPECT_EQ(iBefore, stSocket.PeerIdentifier());
    EXPECT_EQ(stEnds.iPort, stSocket.SockPort());
    EXPECT_STREQ(stSocket.IdString(), ("fd(" + std::to_string(stSocket.FD()) +
                                       ") 127.0.0.1:" + std::to_string(stEnds.pServer->PeerPort()) +
                                       "->127.0.0.1:" + std::to_string(stEnds.iPort))
                                          .c_str());
  });
}

TEST(TcpSocketCallTest, AdoptedSocketAsksForItsEndsAgainWhenTheyAreNeeded) {
  FailEachCall([](Attempt& stAttempt) {
    connection_t stEnds;
    stEnds.Connect();
    const int iFD = dup(stEnds.pServer->FD());
    const Socket_t pSocket = stAttempt.Run([=] { return std::make_unique<TcpSocket>(iFD); });
    const std::string strId = pSocket->IdString();
    EXPECT_NE(std::string::npos, strId.find("->127.0.0.1:" + std::to_string(stEnds.iPort)));
  });
}

TEST(ConnectionPoolCallTest, RemovedConnectionIsClosedWhateverThatReports) {
  FailEachCall([](Attempt& stAttempt) {
    connection_t stEnds;
    stEnds.Connect();
    const int iFD = stEnds.pServer->FD();
    ConnectionPool::Instance().AddConnection(stEnds.pServer.release());
    stAttempt.Run([&] { ConnectionPool::Instance().RemoveConnection(iFD); });
    EXPECT_EQ(nullptr, ConnectionPool::Instance().GetConnection(iFD));
    AwaitInput(stEnds.stClient);
    EXPECT_EQ(-1, stEnds.stClient.Recv());
  });
}

}  // namespace
