#include "connection_pool.h"

#include <algorithm>

#include "tcp_socket.h"

namespace {

const unsigned int ANY_LOCAL_END = 0xFFFFFFFF;

}  // namespace

ConnectionPool& ConnectionPool::Instance() {
  static ConnectionPool stPool;
  return stPool;
}

void ConnectionPool::AddConnection(TcpSocket* pSocket) {
  const uint64_t iPeer = pSocket->PeerIdentifier();
  // What needs memory comes first: without it nothing changes.
  std::multimap<uint64_t, TcpSocket*> mapNew{{iPeer, pSocket}};
  m_mapFdIndex.emplace(pSocket->FD(), entry_t{pSocket, iPeer});
  m_mapPeerIndex.merge(mapNew);  // behind those of the same peer
}

TcpSocket* ConnectionPool::GetConnection(int iFD) {
  const auto it = m_mapFdIndex.find(iFD);
  return it == m_mapFdIndex.end() ? nullptr : it->second.pSocket;
}

TcpSocket* ConnectionPool::GetConnection(unsigned int iPeerAddr, int iPeerPort,
                                         unsigned int iSockAddr, int iSockPort) {
  const uint64_t iLocal = TcpSocket::GenerateIdentifier(iSockAddr, iSockPort);
  const auto [itFirst, itEnd] =
      m_mapPeerIndex.equal_range(TcpSocket::GenerateIdentifier(iPeerAddr, iPeerPort));
  const auto itFound = std::find_if(itFirst, itEnd, [=](const auto& stEntry) {
    return iSockAddr == ANY_LOCAL_END || stEntry.second->SockIdentifier() == iLocal;
  });
  return itFound == itEnd ? nullptr : itFound->second;
}

void ConnectionPool::RemoveConnection(int iFD) {
  const auto it = m_mapFdIndex.find(iFD);
  if (it == m_mapFdIndex.end()) {
    return;
  }
  const entry_t stEntry = it->second;
  m_mapFdIndex.erase(it);
  m_mapPeerIndex.erase(stEntry.iPeerIdentifier);
  delete stEntry.pSocket;
}

void ConnectionPool::Dump(int /*iFD*/) {}
