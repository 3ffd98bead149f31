#ifndef ZELK_COMMON_CONNECTION_POOL_H
#define ZELK_COMMON_CONNECTION_POOL_H

#include <stdint.h>

#include <map>

#include "object.h"

class TcpSocket;

// The process's open sockets, found by descriptor or by their two ends.
//
// Owns a socket from AddConnection() on: RemoveConnection() destroys it. Add a socket once, and
// remove it rather than closing it: the kernel gives the number of a closed descriptor to the next
// connection, which then finds it taken. Sockets that are still in the pool when the process exits
// are left to the kernel. Not locked: one thread at a time.
class ConnectionPool : public Object {
 public:
  static ConnectionPool& Instance();

  ConnectionPool(const ConnectionPool&) = delete;
  ConnectionPool& operator=(const ConnectionPool&) = delete;

  // Enters a socket under its present descriptor and its present peer; both may change later, for
  // instance by Close(), without moving it. When the descriptor is taken, the earlier socket stays
  // under it and the new one is found by its peer alone: nothing here destroys it, and its entry
  // goes only when another socket added under that peer is removed.
  void AddConnection(TcpSocket* pSocket);

  // The socket that was added under this descriptor, or null.
  TcpSocket* GetConnection(int iFD);

  // The socket to this peer (address in network, port in host byte order) whose local end is now as
  // given, or null; with iSockAddr 0xFFFFFFFF the one added first, whatever its local end.
  TcpSocket* GetConnection(unsigned int iPeerAddr, int iPeerPort, unsigned int iSockAddr,
                           int iSockPort);

  // Destroys the socket that was added under this descriptor; an unknown one changes nothing.
  //
  // Deliberately, all sockets added under the same peer are no longer found by it; those of them
  // that have a descriptor entry stay in the pool under that.
  void RemoveConnection(int iFD);

  // Writes nothing.
  void Dump(int iFD) override;

 protected:
  ConnectionPool() = default;

 private:
  struct entry_t {
    TcpSocket* pSocket;
    uint64_t iPeerIdentifier;  // as it was when the socket was added
  };

  std::map<int, entry_t> m_mapFdIndex;
  std::multimap<uint64_t, TcpSocket*> m_mapPeerIndex;  // equal keys in the order added
};

#endif
