#include "cut_connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace {

sockaddr_in Loopback(uint16_t iPort) {
  sockaddr_in stAddr{};
  stAddr.sin_family = AF_INET;
  stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  stAddr.sin_port = htons(iPort);
  return stAddr;
}

// One piece from iFrom to iTo, at most iLimit bytes; 0 at the end.
size_t Pass(int iFrom, int iTo, size_t iLimit) {
  char szBuffer[4096];
  const ssize_t iRead = recv(iFrom, szBuffer, std::min(sizeof(szBuffer), iLimit), 0);
  for (ssize_t iSent = 0; iSent < iRead;) {
    const ssize_t iNow =
        send(iTo, szBuffer + iSent, static_cast<size_t>(iRead - iSent), MSG_NOSIGNAL);
    if (iNow <= 0) {
      return 0;
    }
    iSent += iNow;
  }
  return iRead > 0 ? static_cast<size_t>(iRead) : 0;
}

int PassOn(int iListenFD, uint16_t iServerPort, size_t iBytes) {
  const int iClient = accept(iListenFD, nullptr, nullptr);
  const int iServer = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in stServer = Loopback(iServerPort);
  if (connect(iServer, reinterpret_cast<const sockaddr*>(&stServer), sizeof(stServer)) != 0) {
    return 1;
  }
  while (iBytes > 0) {
    pollfd stPolls[] = {{iClient, POLLIN, 0}, {iServer, POLLIN, 0}};
    poll(stPolls, 2, -1);
    if (stPolls[0].revents != 0 && Pass(iClient, iServer, 4096) == 0) {
      return 0;
    }
    if (stPolls[1].revents != 0) {
      const size_t iPassed = Pass(iServer, iClient, iBytes);
      iBytes = iPassed == 0 ? 0 : iBytes - iPassed;
    }
  }
  return 0;  // which closes both
}

}  // namespace

CutConnection::CutConnection(uint16_t iServerPort, size_t iBytes) {
  const int iListenFD = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in stAddr = Loopback(0);
  socklen_t iLength = sizeof(stAddr);
  auto* pAddr = reinterpret_cast<sockaddr*>(&stAddr);
  if (bind(iListenFD, pAddr, iLength) != 0 || listen(iListenFD, 1) != 0 ||
      getsockname(iListenFD, pAddr, &iLength) != 0) {
    throw std::runtime_error("no port to listen on");
  }
  m_iPort = ntohs(stAddr.sin_port);
  m_pPeer = std::make_unique<ForkedPeer>([=] { return PassOn(iListenFD, iServerPort, iBytes); });
  close(iListenFD);
}
