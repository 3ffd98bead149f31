#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "stream_fixture.h"
#include "tcp_socket.h"
#include "test_support.h"

namespace {

class TcpSocketRecvTest : public StreamTest {
 protected:
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
};

TEST_F(TcpSocketRecvTest, RecvOnAClosedSocketAllocatesNothing) {
  m_pSocket->Close();
  EXPECT_EQ(0, m_pSocket->Recv(Record));
  EXPECT_EQ(0u, g_iBlocks);
  EXPECT_EQ(0u, g_stRecv.iCalls);
  EXPECT_TRUE(g_vecSeen.empty());
}

TEST_F(TcpSocketRecvTest, FirstRecvAllocatesAndNobodyClearsWhatIsNotReached) {
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

TEST_F(TcpSocketRecvTest, FirstRecvWithoutMemoryFailsAndMayBeRepeated) {
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

TEST_F(TcpSocketRecvTest, BufferThatCannotGrowKeepsItsBytesAndItsLimit) {
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

TEST_F(TcpSocketRecvTest, EveryReadAsksForAMebibyte) {
  PeerWrites("abc");
  g_stRecv.dqNext = {1};
  m_pSocket->Recv();
  EXPECT_EQ(READ_SIZE, g_stRecv.iSmallestSize);
  EXPECT_EQ(READ_SIZE, g_stRecv.iLargestSize);
  EXPECT_EQ(0, g_stRecv.iLastFlags);
}

TEST_F(TcpSocketRecvTest, RecvWithoutDataIsZeroAndCallsNobody) {
  EXPECT_EQ(0, m_pSocket->Recv(Record));
  EXPECT_EQ(1u, g_stRecv.iCalls);
  EXPECT_TRUE(g_vecSeen.empty());
}

TEST_F(TcpSocketRecvTest, RecvReadsUntilTheKernelHasNoMore) {
  PeerWrites("abcdef");
  g_stRecv.dqNext = {1, 2};
  EXPECT_EQ(6, m_pSocket->Recv(Record));
  EXPECT_EQ((Texts_t{"a", "bc", "def"}), g_vecSeen);
  EXPECT_EQ(4u, g_stRecv.iCalls);
  EXPECT_EQ("abcdef", Received());
}

TEST_F(TcpSocketRecvTest, RecvTakesWhatArrivesWhileItReads) {
  PeerWrites("abc");
  g_fnDuring = [&](TcpSocket*, const char*, unsigned int) {
    if (g_vecSeen.size() < 3) {
      PeerWrites("more");
    }
  };
  EXPECT_EQ(11, m_pSocket->Recv(Record));
  EXPECT_EQ((Texts_t{"abc", "more", "more"}), g_vecSeen);
}

TEST_F(TcpSocketRecvTest, RecvCallbackRunsBeforeTheBytesAreAppended) {
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

TEST_F(TcpSocketRecvTest, RecvCallbackMayEraseWhatCameBefore) {
  PeerWrites("abcdef");
  g_stRecv.dqNext = {4};
  g_fnDuring = [](TcpSocket* pSocket, const char*, unsigned int) { pSocket->EraseRecvBuffer(3); };
  EXPECT_EQ(6, m_pSocket->Recv(Record));
  EXPECT_EQ("def", Received());
}

TEST_F(TcpSocketRecvTest, RecvCallbackThatClosesEndsTheCallWithItsDataKept) {
  PeerWrites("abc");
  g_fnDuring = [](TcpSocket* pSocket, const char*, unsigned int) { pSocket->Close(); };
  EXPECT_EQ(-1, m_pSocket->Recv(Record));
  EXPECT_EQ("abc", Received());
}

TEST_F(TcpSocketRecvTest, InterruptedReadIsTriedAgain) {
  PeerWrites("abc");
  g_stRecv.dqNext = {-EINTR, 3, -EINTR};
  EXPECT_EQ(3, m_pSocket->Recv());
  EXPECT_EQ(4u, g_stRecv.iCalls);
}

TEST_F(TcpSocketRecvTest, PeerThatClosedGivesMinusOneWithItsDataKeptAndTheSocketOpen) {
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

TEST_F(TcpSocketRecvTest, PeerThatOnlyStoppedSendingStillGetsItsAnswer) {
  PeerWrites("request");
  shutdown(m_iPeer, SHUT_WR);
  AwaitEvent(POLLRDHUP);
  EXPECT_EQ(-1, m_pSocket->Recv());
  Queue("answer to " + Received());
  EXPECT_EQ(17, Send());
  EXPECT_EQ("answer to request", PeerReads(17));
}

TEST_F(TcpSocketRecvTest, ReadErrorGivesMinusOneWithErrnoAndTheDataBeforeIt) {
  PeerWrites("abc");
  g_stRecv.dqNext = {3, -ENOMEM};
  EXPECT_EQ(-1, m_pSocket->Recv());
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ("abc", Received());
  EXPECT_NE(-1, m_pSocket->FD());
}

TEST_F(TcpSocketRecvTest, ResetByPeerGivesMinusOne) {
  ResetByPeer();
  EXPECT_EQ(-1, m_pSocket->Recv());
  EXPECT_EQ(ECONNRESET, errno);
}

TEST_F(TcpSocketRecvTest, KilledPeerLeavesItsBytesAndThenAnEnd) {
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

TEST_F(TcpSocketRecvTest, ReceivedBytesOutliveTheConnection) {
  Receive("kept");
  m_pSocket->Close();
  EXPECT_EQ(0, m_pSocket->Recv());
  EXPECT_EQ("kept", Received());
}

TEST_F(TcpSocketRecvTest, EraseTakesFromTheFrontAndLaterBytesFollowInOnePiece) {
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

TEST_F(TcpSocketRecvTest, EraseOfAllOrMoreEmptiesTheBuffer) {
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

TEST_F(TcpSocketRecvTest, EraseMovesNothing) {
  Receive(Pattern(10000));
  const char* pStart = m_pSocket->RecvBuffer();
  for (unsigned int i = 1; i < 10000; ++i) {
    m_pSocket->EraseRecvBuffer(1);
    ASSERT_EQ(pStart + i, m_pSocket->RecvBuffer());
  }
}

TEST_F(TcpSocketRecvTest, RestThatNearlyFillsTheBufferIsNotMovedForEachPiece) {
  EXPECT_LE(MovesBehindARest(65000, 10, 1000), 2u);
}

TEST_F(TcpSocketRecvTest, LargeRestIsNotMovedForEachPiece) {
  EXPECT_LE(MovesBehindARest(2 << 20, 4096, 500), 2u);
}

TEST_F(TcpSocketRecvTest, EmptiedBufferIsFilledFromItsStartAgain) {
  Receive("abc");
  const char* pStart = m_pSocket->RecvBuffer();
  m_pSocket->EraseRecvBuffer(2);
  m_pSocket->EraseRecvBuffer(1);
  Receive("def");
  EXPECT_EQ(pStart, m_pSocket->RecvBuffer());
}

TEST_F(TcpSocketRecvTest, LongStreamWithARestAllocatesOnce) {
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

TEST_F(TcpSocketRecvTest, LongestReadBehindTheLongestRestStaysInItsBlock) {
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

TEST_F(TcpSocketRecvTest, RestOfEverySizeSurvivesTheMovesOfTheBuffer) {
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

TEST_F(TcpSocketRecvTest, ReceivedBytesReadAsACString) {
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

TEST_F(TcpSocketRecvTest, EarlierBytesReadAsACStringDuringACallback) {
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

TEST_F(TcpSocketRecvTest, RecvCallbackMayEraseAllThatCameBefore) {
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

// A second connected socket, the other end of which the test writes to.
class OtherSocket {
 public:
  OtherSocket() {
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, m_aiFDs));
    m_pSocket = std::make_unique<TcpSocket>(m_aiFDs[0]);
  }
  ~OtherSocket() { close(m_aiFDs[1]); }
  TcpSocket& Receive(const std::string& strData) {
    EXPECT_TRUE(WriteAll(m_aiFDs[1], strData));
    EXPECT_EQ(static_cast<int>(strData.size()), m_pSocket->Recv());
    return *m_pSocket;
  }

 private:
  int m_aiFDs[2] = {-1, -1};
  std::unique_ptr<TcpSocket> m_pSocket;
};

TEST_F(TcpSocketRecvTest, SocketsThatTakeTurnsReceiveIntoTheSameMemory) {
  OtherSocket stOther;
  Receive("abc");
  const char* pStart = m_pSocket->RecvBuffer();
  m_pSocket->EraseRecvBuffer(3);
  TcpSocket& stSocket = stOther.Receive("other");
  EXPECT_EQ(pStart, stSocket.RecvBuffer());
  EXPECT_STREQ("other", stSocket.RecvBuffer());
  stSocket.EraseRecvBuffer(5);
  Receive("def");
  EXPECT_EQ("def", Received());
  EXPECT_EQ(1u, g_iBlocks);
}

TEST_F(TcpSocketRecvTest, SocketWithBytesLeftKeepsThemWhileOthersReceive) {
  OtherSocket stOther;
  Receive("abc");
  m_pSocket->EraseRecvBuffer(2);
  TcpSocket& stSocket = stOther.Receive("other");
  EXPECT_EQ("c", Received());
  m_pSocket->EraseRecvBuffer(1);
  stSocket.EraseRecvBuffer(5);  // one block is there already: this one stays with its socket
  stOther.Receive("more");
  Receive("def");
  EXPECT_STREQ("more", stSocket.RecvBuffer());
  EXPECT_EQ("def", Received());
  EXPECT_EQ(2u, g_iBlocks);
}

TEST_F(TcpSocketRecvTest, RecvThatFindsNothingLeavesTheMemoryToOthers) {
  OtherSocket stOther;
  EXPECT_EQ(0, m_pSocket->Recv());
  stOther.Receive("other").EraseRecvBuffer(5);
  ClosePeer();
  AwaitEvent(POLLIN);
  EXPECT_EQ(-1, m_pSocket->Recv());
  stOther.Receive("more");
  EXPECT_EQ(1u, g_iBlocks);
}

TEST_F(TcpSocketRecvTest, OtherSocketMayReceiveDuringACallbackThatErasedAll) {
  OtherSocket stOther;
  Receive("early");
  PeerWrites("late");
  g_fnDuring = [&](TcpSocket* pSocket, const char* pData, unsigned int iSize) {
    pSocket->EraseRecvBuffer(UINT_MAX);
    EXPECT_STREQ("other", stOther.Receive("other").RecvBuffer());
    EXPECT_EQ("late", std::string(pData, iSize));
  };
  EXPECT_EQ(4, m_pSocket->Recv(Record));
  EXPECT_EQ("late", Received());
}

TEST_F(TcpSocketRecvTest, RecvCallbackMayAskForMoreWhenThereIsNone) {
  PeerWrites("abc");
  g_fnDuring = [](TcpSocket* pSocket, const char* pData, unsigned int iSize) {
    EXPECT_EQ(0, pSocket->Recv());
    EXPECT_EQ("abc", std::string(pData, iSize));
  };
  EXPECT_EQ(3, m_pSocket->Recv(Record));
  EXPECT_STREQ("abc", m_pSocket->RecvBuffer());
}

TEST_F(TcpSocketRecvTest, BytesLandedStayInPlaceThoughTheirCallbackReceivesAndErases) {
  PeerWrites("abc");
  g_fnDuring = [&](TcpSocket* pSocket, const char*, unsigned int) {
    if (g_vecSeen.size() == 1) {
      PeerWrites("def");
      EXPECT_EQ(3, pSocket->Recv(Record));
      pSocket->EraseRecvBuffer(3);
    }
  };
  EXPECT_EQ(3, m_pSocket->Recv(Record));
  EXPECT_EQ((Texts_t{"abc", "def"}), g_vecSeen);
  EXPECT_EQ(3u, m_pSocket->RecvBufferSize());
}

TEST_F(TcpSocketRecvTest, MemoryIsLeftToSocketsOfTheSameThreadOnly) {
  OtherSocket stOther;
  OtherSocket stThird;
  Receive("abc");
  m_pSocket->EraseRecvBuffer(3);
  std::thread([&] { stOther.Receive("other").EraseRecvBuffer(5); }).join();
  EXPECT_EQ(2u, g_iBlocks);
  stThird.Receive("third");
  stOther.Receive("more");  // the block that its socket left to the thread went with the thread
  EXPECT_EQ(3u, g_iBlocks);
}

TEST_F(TcpSocketRecvTest, LargerMemoryStaysWithTheSocketThatNeededIt) {
  OtherSocket stOther;
  Receive(Pattern(3 << 20));
  const unsigned int iBlocks = g_iBlocks;
  m_pSocket->EraseRecvBuffer(UINT_MAX);
  stOther.Receive("other");
  EXPECT_EQ(iBlocks + 1, g_iBlocks);
}

TEST_F(TcpSocketRecvTest, MegabytesFromAnotherProcessArriveUnchanged) {
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
