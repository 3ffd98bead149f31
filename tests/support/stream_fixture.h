#ifndef ZELK_TESTS_STREAM_FIXTURE_H
#define ZELK_TESTS_STREAM_FIXTURE_H

#include <gtest/gtest.h>
#include <stdint.h>
#include <time.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tcp_socket.h"
#include "test_support.h"

// A connected TcpSocket whose kernel and clock the test directs: the program's own send(), recv(),
// time() and operator new[] stand before the system's. The tests themselves use read() and write().

typedef std::vector<std::string> Texts_t;

const size_t READ_SIZE = 1048576;

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

extern script_t g_stSend;
extern script_t g_stRecv;
extern time_t g_iClock;  // what time() says
extern unsigned int g_iClockCalls;
extern unsigned int g_iBlocks;  // receive buffers allocated, filled with 0xA5
extern bool g_bNoMemory;        // while true, none can be allocated
extern char* g_pBehindBlock;    // a byte behind the one allocated last, '\xA5'
extern bool g_bFullRead;        // the next recv() fills all it is given

// A callback that keeps what it sees, one entry a call, and then does what a test asks for.
void Record(TcpSocket* pSocket, const char* pData, unsigned int iSize);
extern Texts_t g_vecSeen;
extern std::function<void(TcpSocket*, const char*, unsigned int)> g_fnDuring;

// Text in which every position can be told from its neighbours.
std::string Pattern(size_t iSize);

bool WriteAll(int iFD, const std::string& strData);
// Exactly so many bytes, fewer when the stream ends or stops for ten seconds.
std::string ReadExactly(int iFD, size_t iSize);

uint16_t LocalPort(int iFD);

// A socket accepted from a plain descriptor, the peer.
class StreamTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  void ClosePeer();
  // The peer vanishes with a reset instead of an orderly end.
  void ResetByPeer();

  void Queue(const std::string& strData);
  void Queue(const std::string& strHead, const std::string& strData);
  int Send() { return m_pSocket->Send(Record); }
  std::string PeerReads(size_t iSize) const { return ReadExactly(m_iPeer, iSize); }
  bool PeerHasNothing() const;

  // Waits until the kernel holds what the peer has written or done.
  void AwaitInput(size_t iSize) const;
  void AwaitEvent(short iEvent) const;
  void PeerWrites(const std::string& strData) const;

  // Brings data into the receive buffer, in pieces that no kernel buffer is too small for, and
  // leaves no trace in the records.
  void Receive(const std::string& strData);
  std::string Received() const;

  int m_iPeerBuffer = 0;  // the peer's SO_RCVBUF, 0 as the system has it
  int m_iPeer = -1;
  std::unique_ptr<TcpSocket> m_pSocket;

 private:
  void TakeSpareBlock();

  std::unique_ptr<TcpSocket> m_pHolder;  // of the receive buffer that an earlier test may have left
};

#endif
