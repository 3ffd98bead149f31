#ifndef KV_SERVER_BOUNDED_RECEIVER_H
#define KV_SERVER_BOUNDED_RECEIVER_H

#include <cstddef>

class TcpSocket;

// Receives so much and no more from a client at a time.
//
// TcpSocket::Recv() reads until the kernel has no more. A client that sends as fast as this process
// reads, as one does that loads many keys, would keep it there for as long as it likes: nobody else
// would be served, and no limit would be looked at. Recv() ends when its descriptor has nothing to
// read, so once there is enough, its callback puts an empty socket in the descriptor's place until
// it has returned. epoll watches the client's socket, not the number, and does not notice.
class BoundedReceiver {
 public:
  BoundedReceiver();
  ~BoundedReceiver();
  BoundedReceiver(const BoundedReceiver&) = delete;
  BoundedReceiver& operator=(const BoundedReceiver&) = delete;

  // False when there was no descriptor; errno says so.
  bool Good() const { return m_iKept != -1; }

  // Recv() that ends behind the piece, of 1 MiB at most, with which iEnough bytes have come. Then
  // bMore says that there may be more, of which an edge-triggered epoll has told already.
  int Receive(TcpSocket& stSocket, size_t iEnough, bool& bMore);

 private:
  static void OnPiece(TcpSocket* pSocket, const char* pData, unsigned int iSize);

  int m_iEmpty;      // a socket to which nobody sends
  int m_iKept = -1;  // keeps the client's socket meanwhile; else the empty one
};

#endif
