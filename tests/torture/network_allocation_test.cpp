// Sockets, their pool and asynchronous I/O while memory is lacking.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "aio_util.h"
#include "binlog.h"
#include "connection_pool.h"
#include "failing_allocation.h"
#include "io_event.h"
#include "tcp_socket.h"
#include "test_support.h"

namespace {

const char LOCALHOST[] = "127.0.0.1";

// A listener and what connects to it.
class SocketAllocationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_iPort = FreePort();
    ASSERT_EQ(0, m_stListener.Listen(LOCALHOST, m_iPort));
    ASSERT_EQ(0, m_stListener.SetNonBlock(true));
  }

  // Both ends of a new connection.
  void Connect(TcpSocket& stClient, std::unique_ptr<TcpSocket>& pServer) {
    ASSERT_EQ(0, stClient.Connect(LOCALHOST, m_iPort));
    ASSERT_TRUE(stClient.CanWrite(10));
    AwaitInput(m_stListener.FD());
    pServer.reset(m_stListener.Accept());
    ASSERT_NE(nullptr, pServer);
  }

  static void AwaitInput(int iFD) {
    pollfd stPoll{iFD, POLLIN, 0};
    ASSERT_EQ(1, poll(&stPoll, 1, 10000));
  }

  // What arrives until the sum of sizes is there.
  static std::string Receive(TcpSocket& stSocket, size_t iSize) {
    while (stSocket.RecvBufferSize() < iSize) {
      AwaitInput(stSocket.FD());
      if (::testing::Test::HasFatalFailure() || stSocket.Recv() < 0) {
        break;
      }
    }
    return std::string(stSocket.RecvBuffer(), stSocket.RecvBufferSize());
  }

  uint16_t m_iPort = 0;
  TcpSocket m_stListener;
};

TEST_F(SocketAllocationTest, ConnectionWaitsUntilThereIsMemoryToAcceptIt) {
  const int iFailed =
      ForEachFailingAllocation("TcpSocket::Accept", [&](FailingAllocation& stMemory) {
        TcpSocket stClient;
        ASSERT_EQ(0, stClient.Connect(LOCALHOST, m_iPort));
        ASSERT_TRUE(stClient.CanWrite(10));
        AwaitInput(m_stListener.FD());
        std::unique_ptr<TcpSocket> pServer;
        errno = 0;
        EXPECT_TRUE(stMemory.Run([&] { pServer.reset(m_stListener.Accept()); }));
        EXPECT_EQ(stMemory.Failed(), pServer == nullptr);
        if (pServer == nullptr) {
          EXPECT_EQ(ENOMEM, errno);
          pServer.reset(m_stListener.Accept());
          ASSERT_NE(nullptr, pServer);
        }
        stClient.AppendSendBuffer("text", 4);
        EXPECT_EQ(4, stClient.Send());
        EXPECT_EQ("text", Receive(*pServer, 4));
        EXPECT_STREQ(LOCALHOST, pServer->PeerAddressString());
      });
  EXPECT_GT(iFailed, 1);
}

TEST_F(SocketAllocationTest, SocketIsOpenedOrStaysClosed) {
  ForEachFailingAllocation("TcpSocket::Connect", [&](FailingAllocation& stMemory) {
    TcpSocket stSocket;
    const int iResult = stMemory.Run(-1, [&] { return stSocket.Connect(LOCALHOST, m_iPort); });
    EXPECT_EQ(iResult == 0, stSocket.FD() != -1);
    EXPECT_TRUE(stMemory.Failed() || iResult == 0);
    std::unique_ptr<TcpSocket>(m_stListener.Accept());
  });
  ForEachFailingAllocation("TcpSocket::Listen", [&](FailingAllocation& stMemory) {
    TcpSocket stSocket;
    const int iResult = stMemory.Run(-1, [&] { return stSocket.Listen(LOCALHOST, 0); });
    EXPECT_EQ(iResult == 0, stSocket.FD() != -1);
  });
  ForEachFailingAllocation("TcpSocket::TcpSocket", [](FailingAllocation& stMemory) {
    stMemory.Run([] { TcpSocket stSocket; });
  });
}

TEST_F(SocketAllocationTest, NamesAreResolvedOrNot) {
  const unsigned int iLocal = TcpSocket::TranslateAddress(LOCALHOST);
  for (const char* pName : {LOCALHOST, "localhost", "@lo"}) {
    ForEachFailingAllocation("TcpSocket::TranslateAddress", [&](FailingAllocation& stMemory) {
      const unsigned int iAddr =
          stMemory.Run(~0u, [&] { return TcpSocket::TranslateAddress(pName); });
      EXPECT_TRUE(iAddr == iLocal || (stMemory.Failed() && iAddr == ~0u)) << iAddr;
      EXPECT_EQ(iLocal, TcpSocket::TranslateAddress(pName));
    });
  }
}

TEST_F(SocketAllocationTest, MessageIsQueuedInWholeOrNotAtAll) {
  const std::string strLong(100, 'm');
  TcpSocket stClient;
  std::unique_ptr<TcpSocket> pServer;
  Connect(stClient, pServer);
  ForEachFailingAllocation("TcpSocket::AppendSendBuffer", [&](FailingAllocation& stMemory) {
    size_t iQueued = 0;
    stMemory.Run([&] {
      for (; iQueued < 20; ++iQueued) {  // the queue grows by blocks
        stClient.AppendSendBuffer(strLong.data(), 100, strLong.data(), 100);
      }
    });
    EXPECT_EQ(200 * iQueued, stClient.SendBufferSize());
    EXPECT_EQ(200 * iQueued, static_cast<size_t>(stClient.Send()));
    EXPECT_EQ(std::string(200 * iQueued, 'm'), Receive(*pServer, 200 * iQueued));
    pServer->EraseRecvBuffer(~0u);
  });
}

TEST_F(SocketAllocationTest, SendLosesNoByteAndSendsNoneTwice) {
  TcpSocket stClient;
  std::unique_ptr<TcpSocket> pServer;
  Connect(stClient, pServer);
  const std::string strHead(50, 'h');
  const std::string strData(50, 'd');
  const std::string strMessage = strHead + strData;
  const int iFailed = ForEachFailingAllocation("TcpSocket::Send", [&](FailingAllocation& stMemory) {
    for (int i = 0; i < 3; ++i) {
      stClient.AppendSendBuffer(strHead.data(), 50, strData.data(), 50);
    }
    if (!stMemory.Run([&] { stClient.Send(); })) {
      stClient.Send();
    }
    EXPECT_EQ(0u, stClient.SendBufferSize());
    EXPECT_EQ(strMessage + strMessage + strMessage, Receive(*pServer, 300));
    pServer->EraseRecvBuffer(~0u);
  });
  EXPECT_EQ(3, iFailed);
}

std::unique_ptr<char[]> g_pWanted;

// Callbacks that need memory.
void Want(TcpSocket* /*pSocket*/, const char* /*pData*/, unsigned int /*iSize*/) {
  g_pWanted.reset(new char[1000]);
  g_pWanted.reset();
}

TEST_F(SocketAllocationTest, SendWhoseCallbackThrowsSendsNoByteTwice) {
  TcpSocket stClient;
  std::unique_ptr<TcpSocket> pServer;
  Connect(stClient, pServer);
  ForEachFailingAllocation("TcpSocket::Send with a callback", [&](FailingAllocation& stMemory) {
    stClient.AppendSendBuffer("first ", 6);
    stClient.AppendSendBuffer("second", 6);
    if (!stMemory.Run([&] { stClient.Send(Want); })) {
      stClient.Send(Want);
    }
    EXPECT_EQ(0u, stClient.SendBufferSize());
    EXPECT_EQ("first second", Receive(*pServer, 12));
    pServer->EraseRecvBuffer(~0u);
  });
}

TEST_F(SocketAllocationTest, RecvLosesNoByte) {
  TcpSocket stClient;
  ForEachFailingAllocation("TcpSocket::Recv", [&](FailingAllocation& stMemory) {
    std::unique_ptr<TcpSocket> pServer;
    Connect(stClient, pServer);
    std::unique_ptr<TcpSocket> pHolder;  // of the block that another socket may have left
    TcpSocket stOther;
    Connect(stOther, pHolder);
    stOther.AppendSendBuffer("other", 5);
    stOther.Send();
    Receive(*pHolder, 5);

    stClient.AppendSendBuffer("text", 4);
    stClient.Send();
    AwaitInput(pServer->FD());
    errno = 0;
    const int iResult = stMemory.Run(-2, [&] { return pServer->Recv(); });
    EXPECT_EQ(stMemory.Failed() ? -1 : 4, iResult);
    EXPECT_TRUE(iResult == 4 || errno == ENOMEM);
    EXPECT_EQ("text", Receive(*pServer, 4));
  });
}

TEST_F(SocketAllocationTest, RecvWhoseCallbackThrowsKeepsThePiece) {
  TcpSocket stClient;
  std::unique_ptr<TcpSocket> pServer;
  Connect(stClient, pServer);
  stClient.AppendSendBuffer("first ", 6);
  stClient.Send();
  Receive(*pServer, 6);  // has its block now
  ForEachFailingAllocation("TcpSocket::Recv with a callback", [&](FailingAllocation& stMemory) {
    pServer->EraseRecvBuffer(~0u);
    for (const char* pText : {"first ", "second"}) {
      stClient.AppendSendBuffer(pText, 6);
      stClient.Send();
      AwaitInput(pServer->FD());
      if (*pText == 'f') {
        pServer->Recv();
      } else {
        stMemory.Run([&] { pServer->Recv(Want); });
      }
    }
    EXPECT_EQ("first second", Receive(*pServer, 12));
  });
}

TEST_F(SocketAllocationTest, OthersNeedNoMemory) {
  TcpSocket stClient;
  std::unique_ptr<TcpSocket> pServer;
  Connect(stClient, pServer);
  const int iFailed =
      ForEachFailingAllocation("TcpSocket, others", [&](FailingAllocation& stMemory) {
        stMemory.Run([&] {
          stClient.GetAddressPort();
          stClient.KeepAlive(1, 1, 1);
          stClient.CanWrite(0);
          EXPECT_NE(nullptr, stClient.IdString());
          stClient.SetTimeout(3);
          stClient.EraseRecvBuffer(3);
          TcpSocket::GenerateIdentifier(1, 2);
          EXPECT_EQ(0, stClient.Send());
        });
      });
  EXPECT_EQ(0, iFailed);
  const std::string strWhole = CaptureDescriptor([&](int iFD) { stClient.Dump(iFD); });
  ForEachFailingAllocation("TcpSocket::Dump", [&](FailingAllocation& stMemory) {
    EXPECT_EQ(strWhole,
              CaptureDescriptor([&](int iFD) { stMemory.Run([&] { stClient.Dump(iFD); }); }));
  });
}

// ---- ConnectionPool

class OwnPool : public ConnectionPool {
 public:
  OwnPool() = default;
};

TEST_F(SocketAllocationTest, SocketIsInThePoolUnderBothKeysOrNone) {
  const int iFailed =
      ForEachFailingAllocation("ConnectionPool::AddConnection", [&](FailingAllocation& stMemory) {
        TcpSocket stClient;
        std::unique_ptr<TcpSocket> pServer;
        Connect(stClient, pServer);
        OwnPool stPool;
        const auto fnByPeer = [&] {
          return stPool.GetConnection(pServer->PeerAddress(), pServer->PeerPort(), ~0u, 0);
        };
        if (!stMemory.Run([&] { stPool.AddConnection(pServer.get()); })) {
          EXPECT_EQ(nullptr, stPool.GetConnection(pServer->FD()));
          EXPECT_EQ(nullptr, fnByPeer());
          stPool.AddConnection(pServer.get());
        }
        EXPECT_EQ(pServer.get(), fnByPeer());
        const int iFD = pServer->FD();
        EXPECT_EQ(pServer.get(), stPool.GetConnection(iFD));
        static_cast<void>(pServer.release());
        stPool.RemoveConnection(iFD);
        EXPECT_EQ(nullptr, stPool.GetConnection(iFD));
      });
  EXPECT_EQ(2, iFailed);
}

// ---- IoEvent and Binlog

TEST(IoEventAllocationTest, EmptyInterfacesNeedNoMemory) {
  const int iFailed =
      ForEachFailingAllocation("IoEvent and Binlog", [](FailingAllocation& stMemory) {
        stMemory.Run([] {
          IoEvent stEvent;
          stEvent.AddFd(0, 0);
          stEvent.Wait(0, nullptr, 0);
          stEvent.RemoveFd(0);
          stEvent.Dump(0);
          Binlog stBinlog;
          stBinlog.Write(nullptr, 0);
          stBinlog.Read(nullptr, 0);
        });
      });
  EXPECT_EQ(0, iFailed);
}

// ---- AIOUtil

class OwnAIO : public AIOUtil {
 public:
  OwnAIO() = default;
};

class AIOAllocationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(m_strFile, "0123456789");
    m_iFD = open(m_strFile.c_str(), O_RDWR);
    ASSERT_NE(-1, m_iFD);
  }
  void TearDown() override { close(m_iFD); }

  // The ids of so many requests, in ascending order, as they are reported.
  static std::string Collect(AIOUtil& stAIO, size_t iCount) {
    std::string strIds;
    std::vector<aio_param_t> vecDone;
    while (strIds.size() < iCount) {
      pollfd stPoll{stAIO.GetEventFD(), POLLIN, 0};
      if (poll(&stPoll, 1, 10000) != 1) {
        return strIds + " (no event)";
      }
      stAIO.SomethingDone(vecDone);
      for (const aio_param_t& stDone : vecDone) {
        strIds += static_cast<char>('0' + stDone.iReqID);
      }
    }
    std::sort(strIds.begin(), strIds.end());
    return strIds;
  }

  const PrivateDirectory m_stDirectory;
  const std::string m_strFile = m_stDirectory.File("file");
  int m_iFD = -1;
  char m_szBuffer[16] = "";
};

TEST_F(AIOAllocationTest, RequestIsSubmittedOrNot) {
  const int iFailed =
      ForEachFailingAllocation("AIOUtil::SubmitReadRequest", [&](FailingAllocation& stMemory) {
        OwnAIO stAIO;
        const int iResult =
            stMemory.Run(1, [&] { return stAIO.SubmitReadRequest(m_iFD, m_szBuffer, 0, 10, 1); });
        EXPECT_EQ(stMemory.Failed() ? -ENOMEM : 0, iResult);
        EXPECT_EQ(0, stAIO.SubmitWriteRequest(m_iFD, m_szBuffer, 20, 2, 2));
        EXPECT_EQ(0, stAIO.SubmitSyncRequest(m_iFD, 3));
        EXPECT_EQ(iResult == 0 ? "123" : "23", Collect(stAIO, iResult == 0 ? 3 : 2));
      });
  EXPECT_EQ(MALLOC_FAILS ? 1 : 0, iFailed);
}

TEST_F(AIOAllocationTest, RefusedRequestIsReportedWithoutMemoryForItsBlock) {
  ForEachFailingAllocation("AIOUtil::SubmitSyncRequest, refused", [&](FailingAllocation& stMemory) {
    OwnAIO stAIO;
    std::vector<iocb*> vecBlocks;
    for (int i = 0; i < 200; ++i) {
      vecBlocks.push_back(stAIO.NewIOCB());
    }
    for (iocb* pBlock : vecBlocks) {
      stAIO.FreeIOCB(pBlock);
    }
    int iResult = 0;
    EXPECT_TRUE(stMemory.Run([&] {
      for (int i = 0; i < 100; ++i) {
        iResult = stAIO.SubmitSyncRequest(-1, 1);
      }
    }));
    EXPECT_EQ(-EBADF, iResult);
  });
}

TEST_F(AIOAllocationTest, BlockIsKeptOrFreed) {
  ForEachFailingAllocation("AIOUtil::FreeIOCB", [](FailingAllocation& stMemory) {
    OwnAIO stAIO;
    std::vector<iocb*> vecBlocks;
    for (int i = 0; i < 200; ++i) {
      vecBlocks.push_back(stAIO.NewIOCB());
    }
    EXPECT_TRUE(stMemory.Run([&] {
      for (iocb* pBlock : vecBlocks) {
        stAIO.FreeIOCB(pBlock);
      }
    }));
  });
}

TEST_F(AIOAllocationTest, FinishedRequestsAreReportedByTheNextCall) {
  const int iFailed =
      ForEachFailingAllocation("AIOUtil::SomethingDone", [&](FailingAllocation& stMemory) {
        OwnAIO stAIO;
        for (unsigned long i = 1; i <= 3; ++i) {
          ASSERT_EQ(0, stAIO.SubmitReadRequest(m_iFD, m_szBuffer, 0, 10, i));
        }
        pollfd stPoll{stAIO.GetEventFD(), POLLIN, 0};
        ASSERT_EQ(1, poll(&stPoll, 1, 10000));
        std::vector<aio_param_t> vecDone;
        const int iCount = stMemory.Run(0, [&] { return stAIO.SomethingDone(vecDone); });
        EXPECT_EQ(static_cast<size_t>(iCount), vecDone.size());
        EXPECT_TRUE(stMemory.Failed() || iCount > 0);
        std::string strIds = Collect(stAIO, 3 - vecDone.size());
        for (const aio_param_t& stDone : vecDone) {
          strIds += static_cast<char>('0' + stDone.iReqID);
        }
        std::sort(strIds.begin(), strIds.end());
        EXPECT_EQ("123", strIds);
      });
  EXPECT_GT(iFailed, 0);
  ForEachFailingAllocation("AIOUtil::AIOUtil",
                           [](FailingAllocation& stMemory) { stMemory.Run([] { OwnAIO stAIO; }); });
}

}  // namespace
