#include "soak_server.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "kv_census.h"
#include "kv_server_fixture.h"
#include "test_support.h"

namespace {

const int START_MS = 60000;

}  // namespace

SoakServer::SoakServer(std::string strProgram, std::string strRunDirectory, uint16_t iPort,
                       std::vector<std::string> vecSettings)
    : m_strProgram(std::move(strProgram)),
      m_strRunDirectory(std::move(strRunDirectory)),
      m_iPort(iPort),
      m_vecSettings(std::move(vecSettings)) {}

SoakServer::~SoakServer() {
  if (m_iMaster != -1) {
    KillAll();
  }
  RemoveTables();  // which outlive the server, deliberately
}

void SoakServer::Start() {
  std::vector<std::string> vecArguments{m_strProgram, "--set",
                                        "server.run_dir=" + m_strRunDirectory, "--set",
                                        "server.listen=127.0.0.1:" + std::to_string(m_iPort)};
  for (const std::string& strSetting : m_vecSettings) {
    vecArguments.insert(vecArguments.end(), {"--set", strSetting});
  }
  std::vector<char*> vecPointers;
  for (std::string& strArgument : vecArguments) {
    vecPointers.push_back(strArgument.data());
  }
  vecPointers.push_back(nullptr);
  fflush(nullptr);
  m_iMaster = fork();
  if (m_iMaster == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execv(m_strProgram.c_str(), vecPointers.data());
    _exit(127);
  }
  if (!WaitUntil([this] { return Answers(); }, START_MS)) {
    throw std::runtime_error("the server does not answer after its start");
  }
  m_vecQueueKeys = Keys("queues");
}

bool SoakServer::Answers() const {
  int iStatus = 0;
  if (waitpid(m_iMaster, &iStatus, WNOHANG) == m_iMaster) {
    throw std::runtime_error("the server has ended at its start, status " +
                             std::to_string(iStatus));
  }
  try {
    return Client(m_iPort).Ask({"DBSIZE"}).rfind(':', 0) == 0;
  } catch (const std::exception&) {
    return false;  // it does not listen yet
  }
}

int SoakServer::Wait() {
  int iStatus = 0;
  while (waitpid(m_iMaster, &iStatus, 0) == -1 && errno == EINTR) {
  }
  m_iMaster = -1;
  return WIFSIGNALED(iStatus) ? 1000 + WTERMSIG(iStatus) : WEXITSTATUS(iStatus);
}

int SoakServer::Stop() {
  SendSignal(m_iMaster, SIGTERM);
  return Wait();
}

void SoakServer::KillMaster() {
  SendSignal(m_iMaster, SIGKILL);
  Wait();
}

void SoakServer::KillAll() {
  const auto mapChildren = ChildrenByTitle(m_iMaster);
  for (const int iSignal : {SIGSTOP, SIGKILL}) {
    SendSignal(m_iMaster, iSignal);
    for (const auto& stChild : mapChildren) {
      SendSignal(stChild.second, iSignal);
    }
  }
  Wait();
}

pid_t SoakServer::Child(const std::string& strTitle) const {
  const auto mapChildren = ChildrenByTitle(m_iMaster);
  const auto it = mapChildren.find(strTitle);
  return it == mapChildren.end() ? -1 : it->second;
}

std::vector<key_t> SoakServer::Keys(const std::string& strList) const {
  std::vector<key_t> vecKeys;
  std::ifstream stFile(m_strRunDirectory + "/" + strList);
  std::string strRest;
  for (key_t iKey = 0; stFile >> iKey && std::getline(stFile, strRest);) {
    vecKeys.push_back(iKey);
  }
  return vecKeys;
}

void SoakServer::RemoveTables() const {
  for (const key_t iKey : Keys("tables")) {
    shmctl(shmget(iKey, 0, 0), IPC_RMID, nullptr);
  }
}

std::string SoakServer::Remains() const {
  std::string strRemains;
  for (const key_t iKey : m_vecQueueKeys) {
    strRemains += shmget(iKey, 0, 0) == -1 ? "" : " segment " + std::to_string(iKey);
  }
  std::error_code stIgnored;
  for (const auto& stEntry : std::filesystem::directory_iterator(m_strRunDirectory, stIgnored)) {
    strRemains += stEntry.is_fifo() ? " FIFO " + stEntry.path().string() : "";
  }
  return strRemains;
}
