#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>

#include "stream_fixture.h"
#include "tcp_socket.h"
#include "test_support.h"

namespace {

class TcpSocketSendTest : public StreamTest {};

// Kernel buffers of a few kilobytes, so that a message of a megabyte is written in many pieces.
class TcpSocketNarrowTest : public StreamTest {
 protected:
  TcpSocketNarrowTest() { m_iPeerBuffer = 4096; }
  void SetUp() override {
    StreamTest::SetUp();
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

TEST_F(TcpSocketSendTest, QueuedBytesOfHeadAndDataAreCounted) {
  Queue("abc");
  EXPECT_EQ(3u, m_pSocket->SendBufferSize());
  Queue("head", "data!");
  EXPECT_EQ(12u, m_pSocket->SendBufferSize());
  m_pSocket->AppendSendBuffer(nullptr, 0, nullptr, 0);
  EXPECT_EQ(12u, m_pSocket->SendBufferSize());
  EXPECT_EQ(0u, g_stSend.iCalls);
}

TEST_F(TcpSocketSendTest, QueuedBytesAreCopied) {
  std::string strData = "original, and longer than a small string";
  std::string strHead = "head";
  Queue(strHead, strData);
  std::fill(strData.begin(), strData.end(), 'x');
  std::fill(strHead.begin(), strHead.end(), 'x');
  EXPECT_EQ(44, Send());
  EXPECT_EQ("headoriginal, and longer than a small string", PeerReads(44));
}

TEST_F(TcpSocketSendTest, MessagesLeaveInOrderHeadFirstOneWriteEach) {
  Queue("one");
  Queue("two:", "three");
  Queue("four:", "");
  EXPECT_EQ(17, Send());
  EXPECT_EQ("onetwo:threefour:", PeerReads(17));
  EXPECT_EQ(3u, g_stSend.iCalls);
  EXPECT_EQ(0u, m_pSocket->SendBufferSize());
}

TEST_F(TcpSocketSendTest, CallbackSeesEachMessageAndNothingBeforeTheFirst) {
  Queue("one");
  Queue("two:", "three");
  Send();
  EXPECT_EQ((Texts_t{"", "one", "two:three"}), g_vecSeen);
}

TEST_F(TcpSocketSendTest, CallbackRunsBeforeTheBytesAreRemoved) {
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

TEST_F(TcpSocketSendTest, EmptySendWritesNothingAndCallsBackOnce) {
  EXPECT_EQ(0, Send());
  EXPECT_EQ(0u, m_pSocket->SendBufferSize());
  EXPECT_EQ(0u, g_stSend.iCalls);
  EXPECT_EQ(Texts_t{""}, g_vecSeen);
}

TEST_F(TcpSocketSendTest, EmptyMessageIsARoundOfItsOwn) {
  Queue("");
  Queue("x");
  EXPECT_EQ(1, Send());
  EXPECT_EQ((Texts_t{"", "", "x"}), g_vecSeen);
  EXPECT_EQ(1u, g_stSend.iCalls);
}

TEST_F(TcpSocketSendTest, SendWithoutCallbackWorks) {
  Queue("abc");
  EXPECT_EQ(3, m_pSocket->Send());
  EXPECT_EQ("abc", PeerReads(3));
}

TEST_F(TcpSocketSendTest, SendOnAClosedSocketKeepsTheQueue) {
  m_pSocket->Close();
  Queue("abc");
  g_iClockCalls = 0;
  EXPECT_EQ(0, Send());
  EXPECT_EQ(3u, m_pSocket->SendBufferSize());
  EXPECT_TRUE(g_vecSeen.empty());
  EXPECT_EQ(0u, g_iClockCalls);
}

TEST_F(TcpSocketSendTest, BinaryBytesPassUnchanged) {
  const std::string strData("a\0b\xff\0", 5);
  Queue(strData.substr(0, 2), strData.substr(2));
  EXPECT_EQ(5, Send());
  EXPECT_EQ(strData, PeerReads(5));
}

TEST_F(TcpSocketSendTest, MessagesOfAllSizesKeepTheirOrderWhileMemoryIsHandedOn) {
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

TEST_F(TcpSocketSendTest, AcceptedSocketDropsWhatWaited20Seconds) {
  Queue("young");
  g_iClock += 19;
  EXPECT_EQ(5, Send());
  Queue("old");
  g_iClock += 20;
  EXPECT_EQ(0, Send());
  EXPECT_EQ("young", PeerReads(5));
}

TEST_F(TcpSocketSendTest, ConstructedSocketDropsWhatWaited15Seconds) {
  TcpSocket stListener;
  ASSERT_EQ(0, stListener.Listen("127.0.0.1", 0));
  TcpSocket stSocket;
  ASSERT_EQ(0, stSocket.Connect("127.0.0.1", LocalPort(stListener.FD())));
  ASSERT_TRUE(stSocket.CanWrite(10));
  stSocket.AppendSendBuffer("young", 5);
  g_iClock += 14;
  EXPECT_EQ(5, stSocket.Send());
  stSocket.AppendSendBuffer("old", 3);
  g_iClock += 15;
  EXPECT_EQ(0, stSocket.Send());
}

TEST_F(TcpSocketSendTest, DroppedMessageLowersTheCountByBothPartsAndIsARound) {
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

TEST_F(TcpSocketSendTest, TimeoutCountsForMessagesAlreadyQueued) {
  Queue("a");
  g_iClock += 100;
  m_pSocket->SetTimeout(101);
  EXPECT_EQ(1, Send());
  Queue("b");
  g_iClock += 5;
  m_pSocket->SetTimeout(5);
  EXPECT_EQ(0, Send());
}

TEST_F(TcpSocketSendTest, TimeoutZeroDropsEveryMessage) {
  m_pSocket->SetTimeout(0);
  Queue("abc");
  EXPECT_EQ(0, Send());
  EXPECT_EQ(0u, m_pSocket->SendBufferSize());
  EXPECT_EQ(0u, g_stSend.iCalls);
}

TEST_F(TcpSocketSendTest, ClockSetBackDropsNothing) {
  Queue("abc");
  g_iClock = 1;
  EXPECT_EQ(3, Send());
}

TEST_F(TcpSocketSendTest, ClockSetBackKeepsAMessageWithTimeoutZero) {
  m_pSocket->SetTimeout(0);
  Queue("abc");
  g_iClock -= 1;
  EXPECT_EQ(3, Send());
}

TEST_F(TcpSocketSendTest, LargestTimeoutIsNotNegative) {
  m_pSocket->SetTimeout(UINT_MAX);
  Queue("abc");
  g_iClock += 4294967294;
  EXPECT_EQ(3, Send());
  Queue("abc");
  g_iClock += 4294967295;
  EXPECT_EQ(0, Send());
}

TEST_F(TcpSocketSendTest, AgeBeyond32BitsIsNotCut) {
  Queue("abc");
  g_iClock += 4294967296 + 1;
  EXPECT_EQ(0, Send());
}

TEST_F(TcpSocketSendTest, TimeIsTakenOncePerSend) {
  Queue("one");
  Queue("two");
  g_fnDuring = [](TcpSocket*, const char*, unsigned int) { g_iClock += 100; };
  g_iClockCalls = 0;
  EXPECT_EQ(6, Send());
  EXPECT_EQ(1u, g_iClockCalls);
}

TEST_F(TcpSocketSendTest, AgeIsJudgedOnlyAtTheFront) {
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

TEST_F(TcpSocketSendTest, MessageOnceBegunIsNeverDropped) {
  Queue("head", "begun");
  g_stSend.dqNext = {1, -EAGAIN};
  EXPECT_EQ(1, Send());
  g_iClock += 1000;
  EXPECT_EQ(8, Send());
  EXPECT_EQ("headbegun", PeerReads(9));
}

TEST_F(TcpSocketSendTest, WritesWithoutSignal) {
  Queue("abc");
  Send();
  EXPECT_EQ(MSG_NOSIGNAL, g_stSend.iLastFlags);
}

TEST_F(TcpSocketSendTest, PartialWritesGoOnWithinTheSameRound) {
  Queue("abcdef");
  g_stSend.dqNext = {1, 2};
  EXPECT_EQ(6, Send());
  EXPECT_EQ((Texts_t{"", "abcdef"}), g_vecSeen);
  EXPECT_EQ(3u, g_stSend.iCalls);
  EXPECT_EQ("abcdef", PeerReads(6));
}

TEST_F(TcpSocketSendTest, FullSocketEndsTheCallAndTheNextResumesThere) {
  Queue("abc", "def");
  Queue("next");
  g_stSend.dqNext = {2, -EAGAIN};
  EXPECT_EQ(2, Send());
  EXPECT_EQ(8u, m_pSocket->SendBufferSize());
  EXPECT_EQ(8, Send());
  EXPECT_EQ((Texts_t{"", "ab", "cdef", "next"}), g_vecSeen);
  EXPECT_EQ("abcdefnext", PeerReads(10));
}

TEST_F(TcpSocketSendTest, ManySmallPiecesOfOneMessageArriveOnce) {
  Queue(Pattern(1000));
  for (int i = 0; i < 999; ++i) {
    g_stSend.dqNext = {1, -EAGAIN};
    ASSERT_EQ(1, Send());
  }
  EXPECT_EQ(1u, m_pSocket->SendBufferSize());
  EXPECT_EQ(1, Send());
  EXPECT_EQ(Pattern(1000), PeerReads(1000));
}

TEST_F(TcpSocketSendTest, InterruptedWriteIsTriedAgain) {
  Queue("abc");
  g_stSend.dqNext = {-EINTR, 1, -EINTR, -EINTR};
  EXPECT_EQ(3, Send());
  EXPECT_EQ(5u, g_stSend.iCalls);
  EXPECT_EQ("abc", PeerReads(3));
}

TEST_F(TcpSocketSendTest, WriteOfNothingEndsTheCallLikeAFullSocket) {
  Queue("abc");
  g_stSend.dqNext = {1, 0};
  EXPECT_EQ(1, Send());
  EXPECT_EQ(2u, m_pSocket->SendBufferSize());
}

TEST_F(TcpSocketSendTest, ErrorAfterPartialWritesDropsExactlyTheWrittenBytes) {
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

TEST_F(TcpSocketSendTest, ErrorBeforeAnyWriteDropsNothing) {
  Queue("abc");
  g_stSend.dqNext = {-ENOBUFS};
  EXPECT_EQ(-1, Send());
  EXPECT_EQ(3u, m_pSocket->SendBufferSize());
  EXPECT_EQ(3, Send());
}

TEST_F(TcpSocketSendTest, ErrorInALaterMessageHidesTheEarlierCount) {
  Queue("one");
  Queue("two");
  g_stSend.dqNext = {3, -ENOBUFS};
  EXPECT_EQ(-1, Send());
  EXPECT_EQ(3u, m_pSocket->SendBufferSize());
  EXPECT_EQ((Texts_t{"", "one"}), g_vecSeen);
}

TEST_F(TcpSocketSendTest, SendToAPeerThatIsGoneFailsWithoutSignalAndStaysOpen) {
  ResetByPeer();
  const int iFD = m_pSocket->FD();
  EXPECT_EQ(-1, m_pSocket->Recv());  // takes the reset
  Queue("abc");
  EXPECT_EQ(-1, Send());
  EXPECT_EQ(EPIPE, errno);
  EXPECT_EQ(iFD, m_pSocket->FD());
  EXPECT_EQ(3u, m_pSocket->SendBufferSize());
}

TEST_F(TcpSocketSendTest, MessageQueuedByTheCallbackIsSentByTheSameCall) {
  g_fnDuring = [](TcpSocket* pSocket, const char*, unsigned int) {
    if (g_vecSeen.size() < 4) {
      pSocket->AppendSendBuffer("again", 5);
    }
  };
  EXPECT_EQ(15, Send());
  EXPECT_EQ((Texts_t{"", "again", "again", "again"}), g_vecSeen);
  EXPECT_EQ("againagainagain", PeerReads(15));
}

TEST_F(TcpSocketSendTest, CountIsSetRightAfterACallbackThatSentTheMessageAgain) {
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

TEST_F(TcpSocketSendTest, CallbackThatClosesEndsTheCallAndKeepsTheRest) {
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

TEST_F(TcpSocketSendTest, QueueAndHalfSentMessageGoOnAfterReconnecting) {
  Queue("abcdef");
  Queue("next");
  g_stSend.dqNext = {2, -EAGAIN};
  ASSERT_EQ(2, Send());
  TcpSocket stListener;
  ASSERT_EQ(0, stListener.Listen("127.0.0.1", 0));
  m_pSocket->Close();
  EXPECT_EQ(8u, m_pSocket->SendBufferSize());
  ASSERT_EQ(0, m_pSocket->Connect("127.0.0.1", LocalPort(stListener.FD())));
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

}  // namespace
