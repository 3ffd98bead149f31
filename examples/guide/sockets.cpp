// A server and a client in one loop: what the client says comes back.
#include <netinet/in.h>
#include <poll.h>

#include <cstdio>
#include <memory>

#include "tcp_socket.h"

bool WaitReadable(const TcpSocket& stSocket) {  // a host's epoll set does this
  pollfd stPoll{stSocket.FD(), POLLIN, 0};
  return poll(&stPoll, 1, 10000) == 1;
}

void Receive(TcpSocket& stSocket, unsigned int iSize) {
  while (stSocket.RecvBufferSize() < iSize && WaitReadable(stSocket) && stSocket.Recv() >= 0) {
  }
}

int main() {
  TcpSocket stListener, stClient;
  if (stListener.Listen("127.0.0.1", 0) != 0) return 1;  // port 0: the system chooses
  sockaddr_in stAddress{};
  socklen_t iLength = sizeof(stAddress);
  getsockname(stListener.FD(), reinterpret_cast<sockaddr*>(&stAddress), &iLength);

  stClient.Connect("127.0.0.1", ntohs(stAddress.sin_port));
  stClient.AppendSendBuffer("hello", 5);                         // queued
  if (!stClient.CanWrite(10) || stClient.Send() != 5) return 1;  // the connection stands

  if (!WaitReadable(stListener)) return 1;
  const std::unique_ptr<TcpSocket> pServed(stListener.Accept());
  Receive(*pServed, 5);
  pServed->AppendSendBuffer("you said ", 9, pServed->RecvBuffer(), pServed->RecvBufferSize());
  pServed->EraseRecvBuffer(pServed->RecvBufferSize());
  pServed->Send();
  Receive(stClient, 14);
  printf("%s\n", stClient.RecvBuffer());
}
