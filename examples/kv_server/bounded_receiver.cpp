#include "bounded_receiver.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "tcp_socket.h"

namespace {

// The callback has no other way to know.
struct Running_t {
  int iEmpty;
  int iKept;
  size_t iMissing;
  bool bEnough;
};

Running_t g_stRunning;

}  // namespace

// Both numbers are taken now: later there may be no descriptor left.
BoundedReceiver::BoundedReceiver()
    : m_iEmpty(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
  if (m_iEmpty != -1) {
    m_iKept = dup(m_iEmpty);
  }
}

BoundedReceiver::~BoundedReceiver() {
  for (const int iFD : {m_iEmpty, m_iKept}) {
    if (iFD != -1) {
      close(iFD);
    }
  }
}

int BoundedReceiver::Receive(TcpSocket& stSocket, size_t iEnough, bool& bMore) {
  g_stRunning = {m_iEmpty, m_iKept, iEnough, false};
  const int iResult = stSocket.Recv(OnPiece);
  bMore = g_stRunning.bEnough;
  if (bMore) {
    dup2(m_iKept, stSocket.FD());
    dup2(m_iEmpty, m_iKept);  // or the client's socket would outlive its close
  }
  return iResult;
}

void BoundedReceiver::OnPiece(TcpSocket* pSocket, const char* /*pData*/, unsigned int iSize) {
  g_stRunning.iMissing -= std::min<size_t>(g_stRunning.iMissing, iSize);
  if (g_stRunning.iMissing == 0 && !g_stRunning.bEnough) {
    g_stRunning.bEnough = dup2(pSocket->FD(), g_stRunning.iKept) != -1 &&
                          dup2(g_stRunning.iEmpty, pSocket->FD()) != -1;
  }
}
