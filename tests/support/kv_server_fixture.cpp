#include "kv_server_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "key_owner.h"
#include "test_janitor.h"

namespace {

const int PATIENCE_MS = 60000;
const int PORT_TRIES = 5;

[[noreturn]] void Fail(const std::string& strWhat) { throw std::runtime_error(strWhat); }

// Becomes the server; it dies with the test program.
[[noreturn]] void Exec(const std::vector<std::string>& vecArguments) {
  std::vector<char*> vecPointers{const_cast<char*>(KV_SERVER_PATH)};
  for (const std::string& strArgument : vecArguments) {
    vecPointers.push_back(const_cast<char*>(strArgument.c_str()));
  }
  vecPointers.push_back(nullptr);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  execv(KV_SERVER_PATH, vecPointers.data());
  _exit(127);
}

pid_t Spawn(const std::vector<std::string>& vecArguments) {
  fflush(nullptr);
  const pid_t iPid = fork();
  if (iPid == 0) {
    Exec(vecArguments);
  }
  return iPid;
}

const char* const CHILDREN[] = {"gateway", "worker 0", "worker 1", "worker 2", "metrics"};

// "R", "S", "T" ...; "" when there is no such process.
std::string StateOf(pid_t iPid) {
  const std::string strStat = ReadFile("/proc/" + std::to_string(iPid) + "/stat");
  const size_t iName = strStat.rfind(')');
  return iName == std::string::npos ? "" : strStat.substr(iName + 2, 1);
}

}  // namespace

bool IsAlive(pid_t iPid) {
  if (iPid <= 1) {
    return false;
  }
  const std::string strState = StateOf(iPid);
  return !strState.empty() && strState != "Z" && strState != "X";
}

ServerProcess::ServerProcess(Settings_t vecSettings) : m_vecSettings(std::move(vecSettings)) {
  Start();
}

ServerProcess::~ServerProcess() {
  KillAll();
  NoteKeys();  // what was listed by a master that never served
  for (const auto& vecKeys : {m_vecKeys, m_vecTableKeys}) {
    for (const key_t iKey : vecKeys) {
      shmctl(shmget(iKey, 0, 0), IPC_RMID, nullptr);
    }
  }
}

void ServerProcess::Start() {
  m_iLogBefore = Log().size();
  const bool bFirst = m_iPort == 0;
  for (int i = 0; i < PORT_TRIES; ++i) {
    m_iPort = bFirst ? FreePort() : m_iPort;
    Launch();
    if (WaitUntil(
            [this] {
              return Serves() || Log().find("can not listen", m_iLogBefore) != std::string::npos;
            },
            PATIENCE_MS) &&
        Serves()) {
      return NoteKeys();
    }
    KillAll();  // somebody else was faster with the port
  }
  Fail("the server does not start: " + Log());
}

void ServerProcess::Restart(Settings_t vecSettings) {
  m_vecSettings = std::move(vecSettings);
  Start();
}

void ServerProcess::Launch() {
  std::vector<std::string> vecArguments{"--set", "server.run_dir=" + Directory(), "--set",
                                        "server.listen=127.0.0.1:" + std::to_string(m_iPort)};
  for (const std::string& strSetting : m_vecSettings) {
    if (strSetting.find('=') != std::string::npos) {
      vecArguments.push_back("--set");
    }
    vecArguments.push_back(strSetting);
  }
  m_iMaster = Spawn(vecArguments);
}

bool ServerProcess::Serves() {
  if (waitpid(m_iMaster, nullptr, WNOHANG) == m_iMaster) {
    m_iMaster = -1;
    Fail("the server has ended: " + Log());
  }
  return Log().find("gateway: serving", m_iLogBefore) != std::string::npos;
}

std::string ServerProcess::LogFiles(const std::string& strPrefix) const {
  std::string strText;
  std::error_code stIgnored;
  for (const auto& stEntry : std::filesystem::directory_iterator(Directory() + "/log", stIgnored)) {
    const bool bAsked = stEntry.path().filename().string().rfind(strPrefix, 0) == 0;
    strText += bAsked ? ReadFile(stEntry.path()) : "";
  }
  return strText;
}

pid_t ServerProcess::ProcessOf(const std::string& strName) const {
  const std::string strLog = Log();
  const std::string strLine = "master: " + strName + " started, pid ";
  const size_t iFound = strLog.rfind(strLine);
  return iFound == std::string::npos ? -1 : atoi(strLog.c_str() + iFound + strLine.size());
}

pid_t ServerProcess::Living(const std::string& strName) const {
  pid_t iPid = -1;
  const auto IsThere = [&] { return IsAlive(iPid = ProcessOf(strName)); };
  return WaitUntil(IsThere) ? iPid : (Fail("there is no " + strName + ": " + Log()), -1);
}

void ServerProcess::NoteKeys() {
  NoteKeys("queues", m_vecKeys);
  NoteKeys("tables", m_vecTableKeys);
}

void ServerProcess::NoteKeys(const std::string& strList, std::vector<key_t>& vecKeys) const {
  std::ifstream stFile(Directory() + "/" + strList);
  std::string strRest;
  for (key_t iKey = 0; stFile >> iKey && std::getline(stFile, strRest);) {
    vecKeys.push_back(iKey);
  }
}

int ServerProcess::Wait() {
  int iStatus = 0;
  while (waitpid(m_iMaster, &iStatus, 0) == -1 && errno == EINTR) {
  }
  m_iMaster = -1;
  return WIFSIGNALED(iStatus) ? 1000 + WTERMSIG(iStatus) : WEXITSTATUS(iStatus);
}

int ServerProcess::Stop() {
  SendSignal(m_iMaster, SIGTERM);
  return Wait();
}

// The master first, or it would start the others again.
void ServerProcess::KillAll() {
  if (m_iMaster != -1) {
    SendSignal(m_iMaster, SIGKILL);
    Wait();
  }
  for (const std::string strProcess : CHILDREN) {
    const pid_t iPid = ProcessOf(strProcess);
    if (IsAlive(iPid)) {
      SendSignal(iPid, SIGKILL);
    }
  }
  // One that the master had not told of yet ends by itself. The lock is free when all have gone.
  const int iLock = open((Directory() + "/lock").c_str(), O_RDWR | O_CLOEXEC);
  WaitUntil([iLock] { return iLock == -1 || flock(iLock, LOCK_EX | LOCK_NB) == 0; });
  close(iLock);
}

std::string ServerProcess::Remains() const {
  std::string strRemains;
  for (const key_t iKey : m_vecKeys) {
    strRemains += shmget(iKey, 0, 0) == -1 ? "" : "segment " + std::to_string(iKey) + "\n";
  }
  for (const auto& stEntry : std::filesystem::directory_iterator(Directory())) {
    const std::string strName = stEntry.path().filename();
    const bool bMeant = strName == "lock" || strName == "log" || strName == "run" ||
                        strName == "tables" || strName.rfind("dump-", 0) == 0;  // the keys
    strRemains += bMeant ? "" : "file " + strName + "\n";
  }
  for (const std::string strProcess : CHILDREN) {
    strRemains += IsAlive(ProcessOf(strProcess)) ? "process " + strProcess + "\n" : "";
  }
  return strRemains;
}

RunResult_t RunServer(const std::vector<std::string>& vecArguments) {
  RunResult_t stResult{-1, "", ""};
  stResult.strError = CaptureOutput(2, [&] {
    stResult.strOut = CaptureOutput(1, [&] {
      int iStatus = 0;
      waitpid(Spawn(vecArguments), &iStatus, 0);
      stResult.iExit = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
    });
  });
  return stResult;
}

// The holder waits for SIGTERM, which also the end of the test program sends it.
StoppedProcess::StoppedProcess(pid_t iPid) {
  if (!IsAlive(iPid)) {
    Fail("no process to stop: " + std::to_string(iPid));
  }
  sigset_t stTerm;
  sigset_t stBefore;
  sigemptyset(&stTerm);
  sigaddset(&stTerm, SIGTERM);
  sigprocmask(SIG_BLOCK, &stTerm, &stBefore);
  m_pHolder = std::make_unique<ForkedPeer>([iPid, stTerm] {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    SendSignal(iPid, SIGSTOP);
    int iSignal = 0;
    sigwait(&stTerm, &iSignal);
    SendSignal(iPid, SIGCONT);
    return 0;
  });
  sigprocmask(SIG_SETMASK, &stBefore, nullptr);
  if (!WaitUntil([iPid] { return StateOf(iPid) == "T"; })) {
    Fail("the process does not stop");
  }
}

StoppedProcess::~StoppedProcess() {
  m_pHolder->Kill(SIGTERM);
  m_pHolder->Wait();
}

Client::Client(uint16_t iPort) : m_iFD(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in stAddress{};
  stAddress.sin_family = AF_INET;
  stAddress.sin_port = htons(iPort);
  stAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(m_iFD, reinterpret_cast<sockaddr*>(&stAddress), sizeof(stAddress)) != 0) {
    const std::string strError = strerror(errno);
    close(m_iFD);
    Fail("connect: " + strError);
  }
  const int iOn = 1;
  setsockopt(m_iFD, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
}

Client::~Client() { close(m_iFD); }

size_t Client::SendSome(const std::string& strBytes) {
  const ssize_t iSent = send(m_iFD, strBytes.data(), strBytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (iSent != -1) {
    return static_cast<size_t>(iSent);
  }
  if (errno == EPIPE || errno == ECONNRESET) {
    m_bBroken = true;  // what was received before can still be read
  } else if (errno != EAGAIN) {
    Fail(std::string("send: ") + strerror(errno));
  }
  return 0;
}

// Reads while it writes: a server that waits for its replies to be taken shall not stop us.
void Client::Send(const std::string& strBytes) {
  for (size_t iSent = 0; iSent < strBytes.size() && !m_bBroken && !m_bClosed;) {
    pollfd stPoll{m_iFD, POLLIN | POLLOUT, 0};
    if (poll(&stPoll, 1, PATIENCE_MS) != 1) {
      Fail("the server takes no more");
    }
    if ((stPoll.revents & POLLIN) != 0) {
      Receive(0);
    }
    iSent += SendSome(iSent == 0 ? strBytes : strBytes.substr(iSent));
  }
}

void Client::CloseSending() { shutdown(m_iFD, SHUT_WR); }

// Takes what there is, waiting for the first byte; false when nothing came in time or ever will.
bool Client::Receive(int iMilliseconds) {
  static char szBuffer[1 << 18];
  pollfd stPoll{m_iFD, POLLIN, 0};
  if (m_bClosed || poll(&stPoll, 1, iMilliseconds) != 1) {
    return false;
  }
  const ssize_t iCount = recv(m_iFD, szBuffer, sizeof(szBuffer), 0);
  m_bClosed = iCount <= 0;
  m_strReceived.append(szBuffer, iCount > 0 ? static_cast<size_t>(iCount) : 0);
  return iCount > 0;
}

// Where the line that starts at iOffset ends; 0 when the server closes before.
size_t Client::EndOfLine(size_t iOffset) {
  size_t iFound = 0;
  while ((iFound = m_strReceived.find("\r\n", iOffset)) == std::string::npos) {
    if (!Receive(PATIENCE_MS)) {
      return m_bClosed ? 0 : (Fail("no reply"), 0);
    }
  }
  return iFound + 2;
}

size_t Client::EndOfReply(size_t iOffset) {
  size_t iEnd = EndOfLine(iOffset);
  if (iEnd == 0) {
    return 0;
  }
  const char cType = m_strReceived[iOffset];
  const long iNumber = atol(m_strReceived.c_str() + iOffset + 1);
  if (cType == '$' && iNumber >= 0) {
    iEnd += static_cast<size_t>(iNumber) + 2;
    while (m_strReceived.size() < iEnd) {
      if (!Receive(PATIENCE_MS)) {
        return m_bClosed ? 0 : (Fail("half a reply"), 0);
      }
    }
  }
  for (long i = 0; cType == '*' && i < iNumber && iEnd != 0; ++i) {
    iEnd = EndOfReply(iEnd);
  }
  return iEnd;
}

std::string Client::Take(size_t iSize) {
  std::string strTaken = m_strReceived.substr(0, iSize);
  m_strReceived.erase(0, iSize);
  return strTaken;
}

std::string Client::Read() { return Take(EndOfReply(0)); }

std::string Client::Read(size_t iReplies) {
  size_t iEnd = 0;
  for (size_t i = 0; i < iReplies && (i == 0 || iEnd != 0); ++i) {
    iEnd = EndOfReply(iEnd);
  }
  return Take(iEnd);
}

std::string Client::ReadToEnd() {
  while (Receive(PATIENCE_MS)) {
  }
  return m_bClosed ? Take(std::string::npos) : (Fail("the server does not close"), "");
}

bool Client::ClosedWithin(int iMilliseconds) {
  return WaitUntil([this] { return Receive(0), m_bClosed; }, iMilliseconds);
}

std::string Client::Ask(const std::vector<std::string>& vecArguments) {
  Send(Request(vecArguments));
  return Read();
}

std::string Bulk(const std::string& strValue) {
  return "$" + std::to_string(strValue.size()) + "\r\n" + strValue + "\r\n";
}

std::string InfoLine(Client& stClient, const std::string& strName) {
  const std::string strText = stClient.Ask({"INFO"});
  const size_t iBegin = strText.find("\r\n" + strName + ":") + strName.size() + 3;
  return strText.substr(iBegin, strText.find('\r', iBegin) - iBegin);
}

std::string Request(const std::vector<std::string>& vecArguments) {
  std::string strRequest = "*" + std::to_string(vecArguments.size()) + "\r\n";
  for (const std::string& strArgument : vecArguments) {
    strRequest += Bulk(strArgument);
  }
  return strRequest;
}

std::string Repeat(const std::string& strText, size_t iTimes) {
  std::string strAll;
  for (size_t i = 0; i < iTimes; ++i) {
    strAll += strText;
  }
  return strAll;
}

std::string KeyOf(int iWorker, int iWorkers, int iNumber) {
  for (int i = 0, iFound = 0;; ++i) {
    const std::string strKey = "key:" + std::to_string(i);
    if (OwnerOf(strKey, static_cast<size_t>(iWorkers)) == iWorker && iFound++ == iNumber) {
      return strKey;
    }
  }
}
