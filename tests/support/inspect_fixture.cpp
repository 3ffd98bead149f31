#include "inspect_fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "test_support.h"

namespace {

const uid_t NOBODY = 65534;

int Exec(const std::vector<std::string>& vecArguments, const std::string& strInputFile) {
  std::vector<char*> vecPointers = {const_cast<char*>("zelk-inspect")};
  for (const std::string& strArgument : vecArguments) {
    vecPointers.push_back(const_cast<char*>(strArgument.c_str()));
  }
  vecPointers.push_back(nullptr);
  dup2(open(strInputFile.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
  execv(INSPECT_PROGRAM, vecPointers.data());
  return 126;
}

ToolRun_t RunPeer(const std::function<int()>& fnRun) {
  ToolRun_t stRun{-1, "", ""};
  stRun.strError = CaptureOutput(STDERR_FILENO, [&] {
    stRun.strOut = CaptureOutput(STDOUT_FILENO, [&] { stRun.iExit = ForkedPeer(fnRun).Wait(); });
  });
  return stRun;
}

}  // namespace

ToolRun_t RunTool(const std::vector<std::string>& vecArguments, const std::string& strInput) {
  const PrivateDirectory stDirectory;
  WriteFile(stDirectory.File("input"), strInput);
  return RunPeer([&] { return Exec(vecArguments, stDirectory.File("input")); });
}

ToolRun_t RunToolOnFullDisk(const std::vector<std::string>& vecArguments,
                            const std::string& strInput) {
  const PrivateDirectory stDirectory;
  WriteFile(stDirectory.File("input"), strInput);
  return RunPeer([&] {
    dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    return Exec(vecArguments, stDirectory.File("input"));
  });
}

ToolRun_t RunAsNobody(int (*fnRun)(key_t), key_t iKey) {
  return RunPeer([&] {
    if (geteuid() == 0 && setresuid(NOBODY, NOBODY, NOBODY) != 0) {
      return 125;
    }
    return fnRun(iKey);
  });
}

bool MayReadSiblings() {
  std::string strScope = "0";
  std::ifstream("/proc/sys/kernel/yama/ptrace_scope") >> strScope;
  return geteuid() == 0 || strScope == "0";
}

std::string Field(const std::string& strOutput, const std::string& strName) {
  std::istringstream stLines(strOutput);
  std::string strLine;
  while (std::getline(stLines, strLine)) {
    if (strLine.compare(0, strName.size() + 1, strName + " ") == 0) {
      const size_t iBegin = strLine.find_first_not_of(' ', strName.size());
      return iBegin == std::string::npos ? "" : strLine.substr(iBegin);
    }
  }
  return "";
}

std::string KeyName(key_t iKey) {
  char szName[16];
  snprintf(szName, sizeof(szName), "0x%08x", static_cast<unsigned int>(iKey));
  return szName;
}

std::string AttachmentTrace(key_t iKey) {
  shmid_ds stStatus{};
  if (shmctl(shmget(iKey, 0, 0), IPC_STAT, &stStatus) != 0) {
    throw std::runtime_error("no segment under this key");
  }
  return std::to_string(stStatus.shm_nattch) + " attached, last by " +
         std::to_string(stStatus.shm_lpid) + " at " + std::to_string(stStatus.shm_atime) + "/" +
         std::to_string(stStatus.shm_dtime);
}
