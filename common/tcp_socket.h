#ifndef ZELK_COMMON_TCP_SOCKET_H
#define ZELK_COMMON_TCP_SOCKET_H

#include <stdint.h>
#include <time.h>

#include <deque>
#include <memory>
#include <string>

#include "object.h"

class TcpSocket;

// Sees the bytes of one write or one read. pData belongs to the socket and holds iSize bytes until
// the callback returns. It may queue, erase and close, but neither destroy the socket nor call the
// same one of Send() and Recv() again. What it throws passes through; its bytes count as written or
// received all the same.
typedef void StreamCallback_t(TcpSocket* pSocket, const char* pData, unsigned int iSize);

// One IPv4 TCP socket of an event-driven process: a listener, an accepted or an outgoing
// connection.
//
// Owns its descriptor, its queue of unsent messages and its received bytes. Used by one thread at
// a time. Waiting is the host's: watch FD(), call Recv() when it is readable, Send() after queueing
// and when it is writable. Listen() or Connect() first, or Accept() from a listener; both may be
// called again and close what was open.
//
// Close() keeps the queue, the received bytes and the address fields, so that a reconnected socket
// goes on with what was left.
//
// Descriptors are close-on-exec, except one that was adopted as it is: a command that the host runs
// keeps no port and no connection open. Forked children share them until they close them.
//
// Addresses are IPv4 in network byte order, ports in host byte order. Failures leave errno.
class TcpSocket : public Object {
 public:
  // Closed; queued messages wait at most 15 seconds.
  TcpSocket();
  // Adopts an open descriptor; queued messages wait at most 20 seconds.
  explicit TcpSocket(int iFD);
  ~TcpSocket() override;

  TcpSocket(const TcpSocket&) = delete;
  TcpSocket& operator=(const TcpSocket&) = delete;

  // The address of a host name, a dotted quad or "@eth0", an interface's own. Null or empty text is
  // 0, any address; what cannot be resolved is 0xFFFFFFFF. A host name may block on its resolver.
  static unsigned int TranslateAddress(const char* pText);

  // Listens on an address as of TranslateAddress(): 0, or -1 with the socket closed. The listener
  // blocks and has a backlog of 10. What cannot be resolved is not detected here: the kernel takes
  // 0xFFFFFFFF, where no connection ever arrives.
  int Listen(const char* pAddr, unsigned short iPort);

  // The next connection, non-blocking, for the caller to delete; null when there is none, or with
  // ENOMEM while there is no memory for it: then it goes on waiting.
  TcpSocket* Accept();

  // Starts a non-blocking connection: 0 when it stands or is in progress, -1 with the socket
  // closed. In progress the peer's number and port are known; its text and the local end are those
  // of an earlier connection or empty. When CanWrite() says that it stands, GetAddressPort() gets
  // them.
  int Connect(const char* pHost, unsigned short iPort);
  int Connect(unsigned int iAddr, unsigned short iPort);

  // Sets or clears O_NONBLOCK: the result of fcntl().
  int SetNonBlock(bool bOn);

  // Turns on keep-alive probes (seconds, seconds, number): 0, or -1 when the socket is closed.
  int KeepAlive(unsigned int iIdle, unsigned int iInterval, unsigned int iCount);

  // Waits up to so many seconds, without limit when negative: true when a write would not block,
  // also because it would fail. A hang-up alone is false.
  bool CanWrite(int iSeconds);

  // Queues one message, copied, for Send(). It is sent whole or dropped whole, by its age in
  // seconds when its turn comes. Head and data are sent as one.
  void AppendSendBuffer(const char* pData, unsigned int iSize);
  void AppendSendBuffer(const char* pHead, unsigned int iHeadSize, const char* pData,
                        unsigned int iDataSize);

  // Writes queued messages, one write each, until the queue is empty or the kernel takes no more.
  // Returns the bytes written by this call, 0 on a closed socket, or -1 on an error; the socket
  // then stays open, and bytes written before the error are neither counted nor written again.
  //
  // The callback runs once for what an earlier call left of a message and then once for each,
  // written or dropped, with the bytes that were written, which may be none.
  int Send(StreamCallback_t* pCallback = nullptr);

  // Reads until the kernel has no more and appends to the receive buffer. Returns the bytes read by
  // this call, 0 on a closed socket, or -1: on an error, which may be ENOMEM for the buffer, and
  // when the peer has closed, which sets no errno. What came before that is in the buffer, and the
  // descriptor stays open.
  //
  // The callback runs for each piece before it is appended. It may erase and close, not destroy the
  // socket, and should leave further reading to this call: a Recv() of its own writes over the
  // piece.
  //
  // The bytes lie in a block of somewhat more than 1 MiB, of which only what was used becomes
  // resident. Once all are erased, it goes to the next socket of the thread that receives, unless
  // another has left one or the block has grown.
  int Recv(StreamCallback_t* pCallback = nullptr);

  // Closes the descriptor; on a closed socket nothing.
  void Close();

  // Asks the kernel for both ends; changes nothing unless the socket is connected.
  void GetAddressPort();

  // "fd(7) 10.0.0.2:80->10.0.0.1:40000", peer first, in one static buffer for all sockets. The
  // socket must be open. Addresses once known are not asked for again.
  const char* IdString();

  int FD() const { return m_iFD; }
  unsigned int PeerAddress() const { return m_iPeerAddr; }
  const char* PeerAddressString() const { return m_strPeerAddr.c_str(); }
  int PeerPort() const { return m_iPeerPort; }
  unsigned int SockAddress() const { return m_iSockAddr; }
  const char* SockAddressString() const { return m_strSockAddr.c_str(); }
  int SockPort() const { return m_iSockPort; }

  // Bytes queued and not yet written, also of messages that will prove too old.
  unsigned int SendBufferSize() const { return m_iSendBufferSize; }

  // The received bytes that were not erased, in one piece with a zero byte behind it; valid until
  // the next Recv() or erasure.
  unsigned int RecvBufferSize() const {
    return static_cast<unsigned int>(m_iRecvEnd - m_iRecvBegin);
  }
  const char* RecvBuffer() const {
    return m_iRecvBegin == m_iRecvEnd ? "" : m_pBuffer.get() + m_iRecvBegin;
  }

  // Drops the first iSize received bytes, or all when there are fewer. Moves nothing.
  void EraseRecvBuffer(unsigned int iSize);

  // How many seconds a message may wait; 0 drops every message.
  void SetTimeout(unsigned int iSeconds) { m_iTimeoutTime = iSeconds; }

  // An end of a connection as one number: address * 2^32 + port.
  uint64_t PeerIdentifier() const { return GenerateIdentifier(m_iPeerAddr, m_iPeerPort); }
  uint64_t SockIdentifier() const { return GenerateIdentifier(m_iSockAddr, m_iSockPort); }
  static uint64_t GenerateIdentifier(unsigned int iAddr, int iPort) {
    return (static_cast<uint64_t>(iAddr) << 32) + static_cast<uint64_t>(iPort);
  }

  // Writes the descriptor and both ends.
  void Dump(int iFD) override;

 private:
  struct _msg_t {
    time_t iSetTime;
    std::string strHead;
    std::string strData;
  };

  int CloseFailed();
  bool WriteSendBuffer(size_t& iWritten) const;
  void DropWritten(size_t iWritten);
  void TakeMessage(time_t iNow);
  bool MakeRecvRoom();
  void LeaveBlock();
  void AddReceived(const char* pLanding, size_t iSize);

  int m_iFD = -1;
  unsigned int m_iPeerAddr = 0;
  int m_iPeerPort = 0;
  std::string m_strPeerAddr;
  unsigned int m_iSockAddr = 0;
  int m_iSockPort = 0;
  std::string m_strSockAddr;
  std::string m_strSendBuffer;  // the message being written
  size_t m_iSendOffset = 0;     // its first byte not yet written
  std::deque<_msg_t> m_dqSendBuffer;
  unsigned int m_iSendBufferSize = 0;
  unsigned int m_iTimeoutTime;
  std::unique_ptr<char[]> m_pBuffer;  // received bytes and room for one recv()
  size_t m_iCapacity = 0;             // of m_pBuffer
  size_t m_iRecvBegin = 0;            // the received bytes in m_pBuffer: from here
  size_t m_iRecvEnd = 0;              // to before here, where a zero byte stands
  bool m_bInRecvCallback = false;
};

#endif
