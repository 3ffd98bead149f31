#ifndef ZELK_TESTS_MYSQL_SERVER_H
#define ZELK_TESTS_MYSQL_SERVER_H

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "test_support.h"

// A MariaDB server of the test program's own: private data, socket and log, a loopback port that it
// keeps over restarts, little memory. It reads no settings of the machine, touches no server of it,
// and dies with the test program. It is the client library's default local server, if the process
// has not used that library before.
//
// Every server gets a copy of one data directory, which the first of a build tree makes and leaves
// in the tree (a user who may not write or read there has a new one made each time).
class MysqlServer {
 public:
  static constexpr const char* HOST = "127.0.0.1";
  static constexpr const char* USER = "zelk";  // may do everything
  static constexpr const char* PASSWORD = "secret";

  // Returns when the server takes connections; an exception with its log when it does not start.
  MysqlServer();
  ~MysqlServer();
  MysqlServer(const MysqlServer&) = delete;
  MysqlServer& operator=(const MysqlServer&) = delete;

  // With port and data as before; nothing when it runs.
  void Start();
  // Orderly: clients find their connections closed.
  void Stop();

  uint16_t Port() const { return m_iPort; }
  std::string Socket() const { return m_stDirectory.File("socket"); }

 private:
  bool IsReady();
  void End(int iSignal);

  const PrivateDirectory m_stDirectory;
  int m_iPortFD = -1;
  uint16_t m_iPort = 0;
  pid_t m_iPid = -1;
};

#endif
