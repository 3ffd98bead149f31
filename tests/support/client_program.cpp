#include "client_program.h"

#include <fcntl.h>
#include <unistd.h>

#include "test_support.h"

namespace {

const unsigned int LIMIT_SECONDS = 60;

int Become(const std::vector<std::string>& vecArguments) {
  std::vector<char*> vecPointers;
  for (const std::string& strArgument : vecArguments) {
    vecPointers.push_back(const_cast<char*>(strArgument.c_str()));
  }
  vecPointers.push_back(nullptr);
  alarm(LIMIT_SECONDS);  // goes with the process into the program
  execvp(vecPointers[0], vecPointers.data());
  return 127;
}

void OpenAs(int iFD, const std::string& strPath, int iFlags) {
  const int iFile = open(strPath.c_str(), iFlags | O_CLOEXEC, 0600);
  dup2(iFile, iFD);
}

}  // namespace

ProgramResult_t RunProgram(const std::vector<std::string>& vecArguments,
                           const std::string& strInput) {
  const PrivateDirectory stDirectory;
  const std::string strOut = stDirectory.File("out");
  const std::string strError = stDirectory.File("error");
  WriteFile(stDirectory.File("in"), strInput);
  ForkedPeer stPeer([&] {
    OpenAs(0, stDirectory.File("in"), O_RDONLY);
    OpenAs(1, strOut, O_WRONLY | O_CREAT);
    OpenAs(2, strError, O_WRONLY | O_CREAT);
    return Become(vecArguments);
  });
  const int iExit = stPeer.Wait();
  return {iExit, ReadFile(strOut), ReadFile(strError)};
}
