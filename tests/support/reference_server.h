#ifndef ZELK_TESTS_REFERENCE_SERVER_H
#define ZELK_TESTS_REFERENCE_SERVER_H

#include <memory>
#include <string>

#include "kv_server_fixture.h"

// A real server of the protocol on a free port, without keys and saving nothing; killed at the end
// of the scope. The package of the command-line tools has the whole server too, under the name of a
// checking tool: it becomes the server when it is called so.
class ReferenceServer {
 public:
  // Whether there is one that can be started, of the version whose replies ours are.
  static bool IsInstalled();

  // Starts it and waits until it serves; an exception when it does not.
  ReferenceServer();

  uint16_t Port() const { return m_iPort; }
  // Waits for its end: the exit code, or 1000 + the signal.
  int Wait() { return m_pPeer->Wait(); }

 private:
  void Launch();
  bool Serves() const;

  const PrivateDirectory m_stDirectory;
  uint16_t m_iPort = 0;
  std::unique_ptr<ForkedPeer> m_pPeer;
};

#endif
