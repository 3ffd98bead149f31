#include "test_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "test_janitor.h"

namespace {

[[noreturn]] void Fail(const std::string& strWhat) {
  throw std::runtime_error(strWhat + ": " + strerror(errno));
}

void RemoveSegment(key_t iKey) {
  const int iShmID = shmget(iKey, 0, 0);
  if (iShmID != -1) {
    shmctl(iShmID, IPC_RMID, nullptr);
  }
}

key_t FreeKey() {
  std::random_device stRandom;
  for (;;) {
    const auto iKey = static_cast<key_t>(stRandom() & 0x7fffffff);
    if (iKey != IPC_PRIVATE && shmget(iKey, 0, 0) == -1 && errno == ENOENT) {
      return iKey;
    }
  }
}

std::string ReadAll(FILE* pFile) {
  std::string strText;
  char szBuffer[4096];
  rewind(pFile);
  for (size_t iCount = 0; (iCount = fread(szBuffer, 1, sizeof(szBuffer), pFile)) > 0;) {
    strText.append(szBuffer, iCount);
  }
  return strText;
}

[[noreturn]] void RunChild(const std::function<int()>& fnRun, pid_t iParent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != iParent) {
    _exit(125);  // the parent was gone before the line above
  }
  try {
    const int iResult = fnRun();
    fflush(nullptr);
    _exit(iResult);
  } catch (...) {
    _exit(125);
  }
}

}  // namespace

PrivateDirectory::PrivateDirectory() : m_strPath(JanitorDirectory() + "/XXXXXX") {
  if (mkdtemp(m_strPath.data()) == nullptr) {
    Fail("mkdtemp");
  }
}

PrivateDirectory::~PrivateDirectory() {
  std::error_code stIgnored;
  std::filesystem::remove_all(m_strPath, stIgnored);
}

PrivateKey::PrivateKey() : PrivateKey(FreeKey()) {}

PrivateKey::PrivateKey(key_t iKey) : m_iKey(iKey) { JanitorNoteKey(iKey); }

PrivateKey::~PrivateKey() { RemoveSegment(m_iKey); }

ForkedPeer::ForkedPeer(const std::function<int()>& fnRun) : m_iPid(-1) {
  fflush(nullptr);
  const pid_t iParent = getpid();
  m_iPid = fork();
  if (m_iPid == -1) {
    Fail("fork");
  }
  if (m_iPid == 0) {
    RunChild(fnRun, iParent);
  }
}

ForkedPeer::~ForkedPeer() {
  if (m_iPid != -1) {
    SendSignal(m_iPid, SIGKILL);
    Wait();
  }
}

int ForkedPeer::Wait() {
  int iStatus = 0;
  if (m_iPid == -1) {
    return m_iResult;
  }
  while (waitpid(m_iPid, &iStatus, 0) == -1 && errno == EINTR) {
  }
  m_iPid = -1;
  m_iResult = WIFSIGNALED(iStatus) ? 1000 + WTERMSIG(iStatus) : WEXITSTATUS(iStatus);
  return m_iResult;
}

void ForkedPeer::Kill(int iSignal) const { SendSignal(m_iPid, iSignal); }

void SendSignal(pid_t iPid, int iSignal) {
  if (iPid <= 1) {
    throw std::invalid_argument("no signal to process " + std::to_string(iPid));
  }
  kill(iPid, iSignal);
}

std::string CaptureOutput(int iFD, const std::function<void()>& fnRun) {
  FILE* pFile = tmpfile();
  fflush(nullptr);
  const int iSaved = dup(iFD);
  dup2(fileno(pFile), iFD);
  fnRun();
  fflush(nullptr);
  dup2(iSaved, iFD);
  close(iSaved);
  std::string strText = ReadAll(pFile);
  fclose(pFile);
  return strText;
}

std::string CaptureDescriptor(const std::function<void(int)>& fnRun) {
  FILE* pFile = tmpfile();
  fnRun(fileno(pFile));
  std::string strText = ReadAll(pFile);
  fclose(pFile);
  return strText;
}

uint16_t FreePort() {
  const int iFD = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in stAddr{};
  stAddr.sin_family = AF_INET;
  stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t iLength = sizeof(stAddr);
  if (bind(iFD, reinterpret_cast<sockaddr*>(&stAddr), iLength) != 0 ||
      getsockname(iFD, reinterpret_cast<sockaddr*>(&stAddr), &iLength) != 0) {
    Fail("no free port");
  }
  close(iFD);
  return ntohs(stAddr.sin_port);
}

bool WaitUntil(const std::function<bool()>& fnReady, int iLimitMilliseconds) {
  for (int i = 0; i < iLimitMilliseconds; ++i) {
    if (fnReady()) {
      return true;
    }
    const timespec stPause{0, 1000000};
    nanosleep(&stPause, nullptr);
  }
  return fnReady();
}

std::string ReadFile(const std::string& strPath) {
  std::ifstream stFile(strPath, std::ios::binary);
  std::ostringstream stText;
  stText << stFile.rdbuf();
  return stText.str();
}

void WriteFile(const std::string& strPath, const std::string& strContent) {
  std::ofstream(strPath, std::ios::binary) << strContent;
}

int OpenDescriptors() {
  int iCount = 0;
  for (const auto& stEntry : std::filesystem::directory_iterator("/proc/self/fd")) {
    static_cast<void>(stEntry);
    ++iCount;
  }
  return iCount - 1;  // the listing's own
}
