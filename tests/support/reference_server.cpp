#include "reference_server.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

namespace {

const char* const PATHS[] = {"/usr/bin/redis-server", "/usr/bin/redis-check-rdb"};
const char VERSION[] = " v=7.0.";
const int PORT_TRIES = 5;

std::string Path() {
  for (const char* pPath : PATHS) {
    if (access(pPath, X_OK) == 0) {
      return pPath;
    }
  }
  return "";
}

int Run(const std::string& strPath, const std::vector<std::string>& vecArguments) {
  std::vector<char*> vecPointers{const_cast<char*>("redis-server")};
  for (const std::string& strArgument : vecArguments) {
    vecPointers.push_back(const_cast<char*>(strArgument.c_str()));
  }
  vecPointers.push_back(nullptr);
  execv(strPath.c_str(), vecPointers.data());
  return 127;
}

}  // namespace

bool ReferenceServer::IsInstalled() {
  const std::string strPath = Path();
  const std::string strVersion = CaptureOutput(1, [&strPath] {
    ForkedPeer stPeer([&strPath] { return Run(strPath, {"--version"}); });
    stPeer.Wait();
  });
  return strVersion.find(VERSION) != std::string::npos;
}

ReferenceServer::ReferenceServer() {
  for (int i = 0; i < PORT_TRIES; ++i) {
    m_iPort = FreePort();
    Launch();
    if (WaitUntil([this] { return Serves(); })) {
      return;
    }
  }
  throw std::runtime_error("the reference server does not start: " +
                           ReadFile(m_stDirectory.File("log")));
}

void ReferenceServer::Launch() {
  m_pPeer = std::make_unique<ForkedPeer>([this] {
    dup2(open("/dev/null", O_RDWR | O_CLOEXEC), 1);
    return Run(Path(), {"--port", std::to_string(m_iPort), "--bind", "127.0.0.1", "--save", "",
                        "--appendonly", "no", "--dir", m_stDirectory.Path(), "--logfile",
                        m_stDirectory.File("log")});
  });
}

bool ReferenceServer::Serves() const {
  try {
    return Client(m_iPort).Ask({"PING"}) == "+PONG\r\n";
  } catch (const std::runtime_error&) {
    return false;
  }
}
