#ifndef ZELK_TESTS_CUT_CONNECTION_H
#define ZELK_TESTS_CUT_CONNECTION_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "test_support.h"

// A road to a server on the loopback address that breaks: one connection to Port() is passed on to
// the server, and cut after iBytes bytes of the server's answers.
class CutConnection {
 public:
  CutConnection(uint16_t iServerPort, size_t iBytes);
  uint16_t Port() const { return m_iPort; }

 private:
  uint16_t m_iPort = 0;
  std::unique_ptr<ForkedPeer> m_pPeer;
};

#endif
