#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>
#include <utmp.h>

#include <cstdlib>

#include "kv_server_fixture.h"

// What people type at the protocol's own command-line client, at a terminal.

namespace {

// redis-cli on a pseudo terminal, killed at the end of the scope.
class Terminal {
 public:
  explicit Terminal(uint16_t iPort) {
    winsize stSize{40, 120, 0, 0};
    int iSlave = -1;
    if (openpty(&m_iMaster, &iSlave, nullptr, nullptr, &stSize) != 0) {
      throw std::runtime_error("no pseudo terminal");
    }
    m_pPeer = std::make_unique<ForkedPeer>([iSlave, iPort] { return Run(iSlave, iPort); });
    close(iSlave);
  }
  ~Terminal() { close(m_iMaster); }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // Types the keys, then waits until the text is on the screen.
  bool Shows(const std::string& strKeys, const std::string& strText) {
    m_strScreen.clear();
    if (write(m_iMaster, strKeys.data(), strKeys.size()) == -1) {
      return false;
    }
    return WaitUntil([&] { return Read(), m_strScreen.find(strText) != std::string::npos; });
  }
  const std::string& Screen() const { return m_strScreen; }

 private:
  static int Run(int iSlave, uint16_t iPort) {
    login_tty(iSlave);
    setenv("TERM", "xterm", 1);
    setenv("REDISCLI_HISTFILE", "/dev/null", 1);
    execlp("redis-cli", "redis-cli", "-p", std::to_string(iPort).c_str(),
           static_cast<char*>(nullptr));
    return 127;
  }

  void Read() {
    char szBuffer[4096];
    pollfd stPoll{m_iMaster, POLLIN, 0};
    if (poll(&stPoll, 1, 0) == 1) {
      const ssize_t iCount = read(m_iMaster, szBuffer, sizeof(szBuffer));
      m_strScreen.append(szBuffer, iCount > 0 ? static_cast<size_t>(iCount) : 0);
    }
  }

  int m_iMaster = -1;
  std::unique_ptr<ForkedPeer> m_pPeer;
  std::string m_strScreen;
};

class KvServerRedisCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access("/usr/bin/redis-cli", X_OK) != 0) {
      GTEST_SKIP() << "redis-tools is not installed";
    }
  }

  ServerProcess m_stServer;
};

TEST_F(KvServerRedisCliTest, HelpAndCompletionKnowTheCommands) {
  Terminal stTerminal(m_stServer.Port());
  EXPECT_TRUE(stTerminal.Shows("", std::to_string(m_stServer.Port()) + "> "))
      << stTerminal.Screen();
  EXPECT_TRUE(stTerminal.Shows("help mset\r", "key value [key value ...]")) << stTerminal.Screen();
  EXPECT_TRUE(stTerminal.Shows("help client id\r", "Return the number of the current connection."))
      << stTerminal.Screen();
  EXPECT_TRUE(stTerminal.Shows("hell\t", "HELLO")) << stTerminal.Screen();
  EXPECT_TRUE(stTerminal.Shows("\x15SET ", "key value [NX|XX] [GET]")) << stTerminal.Screen();
  EXPECT_TRUE(stTerminal.Shows("\x15INCR a\r", "(integer) 1")) << stTerminal.Screen();
}

}  // namespace
