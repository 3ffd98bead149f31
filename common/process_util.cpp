#include "process_util.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <utility>

#include "filesystem_util.h"
#include "simple_filter.h"
#include "zelk_variable.h"

#include "internal/always_assert.h"

// DESIGN of the title
//
// At program start the system lays out the strings of arguments and environment one after another:
//
//   argv[0] \0 argv[1] \0 ... argv[argc-1] \0 environ[0] \0 ... environ[n-1] \0
//   ^ argv[0]                                                                  ^ pLastOfEnviron
//
// Once the environment has been copied away, the title may use all of that but what the other
// arguments need, which move along behind it.

// Defined beside the signal handler that clears it.
bool g_bRunFlag = true;

namespace {

const size_t PROGRAM_SIZE = 1024;  // of a command line, what ListProcesses() reads
const size_t COMMAND_SIZE = 1024;
const size_t LINE_SIZE = 2048;

char* pLastOfEnviron = nullptr;  // the failed assertion prints this name

// Waits for the end of a command whose output there is no memory for.
struct EndCommand {
  void operator()(FILE* pStream) const { pclose(pStream); }
};

// The bytes of strings, with their terminators.
size_t TotalSize(char* const* pBegin, char* const* pEnd) {
  return std::accumulate(pBegin, pEnd, size_t{0},
                         [](size_t iSum, const char* pText) { return iSum + strlen(pText) + 1; });
}

char** EndOfEnviron() {
  char** pEnd = environ;
  while (pEnd != nullptr && *pEnd != nullptr) {
    ++pEnd;
  }
  return pEnd;
}

// Reads the first element of a process's command line; false when there is nothing to read.
bool ReadProgram(const std::string& strPID, char (&szProgram)[PROGRAM_SIZE + 1]) {
  const int iFD = open(("/proc/" + strPID + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC);
  if (iFD == -1) {
    return false;
  }
  const ssize_t iSize = read(iFD, szProgram, PROGRAM_SIZE);
  close(iFD);
  if (iSize <= 0) {
    close(iFD);  // deliberate: fails with EBADF, which is the errno of a skipped process
    return false;
  }
  szProgram[iSize] = '\0';
  return true;
}

// Keeps the lines whose answer to the filter is bKeep.
__attribute__((format(printf, 5, 0))) int ExecuteAndFilter(int& iError,
                                                           std::vector<std::string>& vecLines,
                                                           const char* pFilter, bool bKeep,
                                                           const char* pFormat, va_list sAp) {
  std::vector<std::string> vecAll;
  const int iResult = vExecuteCommand(iError, vecAll, pFormat, sAp);
  vecLines.clear();
  SimpleFilter stFilter;
  if (stFilter.SetRegular(pFilter) != 0) {
    return iResult;
  }
  for (std::string& strLine : vecAll) {
    if (stFilter.DoFilter(strLine.c_str()) == bKeep) {
      vecLines.push_back(std::move(strLine));
    }
  }
  return iResult;
}

}  // namespace

void InitProcessTitle(int argc, char** argv) {
  char** pEnd = EndOfEnviron();
  const size_t iEnvironSize = TotalSize(environ, pEnd);
  char* pCopy = iEnvironSize != 0 ? new char[iEnvironSize] : nullptr;  // from now on environ's
  pLastOfEnviron = argv[0] + TotalSize(argv, argv + argc) + iEnvironSize;
  if (iEnvironSize == 0) {
    return;
  }
  char** pEntry = environ;
  do {
    const size_t iSize = strlen(*pEntry) + 1;
    memcpy(pCopy, *pEntry, iSize);
    *pEntry = pCopy;
    pCopy += iSize;
  } while (++pEntry != pEnd);
}

void ChangeProcessTitle(int argc, char** argv, const char* pTitle) {
  assert(pLastOfEnviron);
  const size_t iOthersSize = argc > 1 ? TotalSize(argv + 1, argv + argc) : 0;
  const size_t iRoom = static_cast<size_t>(pLastOfEnviron - argv[0]) - iOthersSize;
  const size_t iSize = std::min(iRoom, strlen(pTitle) + 1);
  if (argc > 1) {
    char* pMoved = argv[0] + iSize;
    const ptrdiff_t iShift = pMoved - argv[1];
    memmove(pMoved, argv[1], iOthersSize);  // before the title comes over it
    std::for_each(argv + 1, argv + argc, [iShift](char*& pArgument) { pArgument += iShift; });
  }
  memcpy(argv[0], pTitle, iSize - 1);
  argv[0][iSize - 1] = '\0';
}

int ListProcesses(Process* pOut, int iMax, const char* pFilter) {
  std::vector<std::string> vecNames;
  Ls("/proc", "[1-9][0-9]*", vecNames);
  SimpleFilter stFilter;
  stFilter.SetRegular(pFilter);
  int iCount = 0;
  char szProgram[PROGRAM_SIZE + 1];
  for (auto itName = vecNames.begin(); itName != vecNames.end() && iCount < iMax; ++itName) {
    if (ReadProgram(*itName, szProgram) && stFilter.DoFilter(szProgram)) {
      pOut[iCount].iPID = static_cast<unsigned int>(strtol(itName->c_str(), nullptr, 10));
      pOut[iCount].strCMD = szProgram;
      ++iCount;
    }
  }
  return iCount;
}

int vExecuteCommand(int& iError, std::vector<std::string>& vecLines, const char* pFormat,
                    va_list sAp) {
  char szCommand[COMMAND_SIZE];
  vsnprintf(szCommand, sizeof(szCommand), pFormat, sAp);
  // NOLINTNEXTLINE(cert-env33-c): what this function is for
  std::unique_ptr<FILE, EndCommand> pStream(popen(szCommand, "r"));
  if (pStream == nullptr) {
    iError = errno;
    return -1;
  }
  vecLines.clear();
  char szLine[LINE_SIZE];
  while (fgets(szLine, sizeof(szLine), pStream.get()) != nullptr) {
    vecLines.emplace_back(szLine);
  }
  const int iResult = (pclose(pStream.release()) >> 8) & 255;
  if (iResult != 0) {
    iError = iResult;
  }
  return iResult;
}

int ExecuteCommand(int& iError, std::vector<std::string>& vecLines, const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  const int iResult = vExecuteCommand(iError, vecLines, pFormat, sAp);
  va_end(sAp);
  return iResult;
}

int ExecuteCommandWithFilter(int& iError, std::vector<std::string>& vecLines, const char* pFilter,
                             const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  const int iResult = ExecuteAndFilter(iError, vecLines, pFilter, true, pFormat, sAp);
  va_end(sAp);
  return iResult;
}

int ExecuteCommandWithInvert(int& iError, std::vector<std::string>& vecLines, const char* pFilter,
                             const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  const int iResult = ExecuteAndFilter(iError, vecLines, pFilter, false, pFormat, sAp);
  va_end(sAp);
  return iResult;
}

void signal_init() {
  for (const int iSignal : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD}) {
    signal(iSignal, signal_handle);
  }
}

void signal_handle(int iSignal) {
  if (iSignal == SIGINT || iSignal == SIGTERM) {
    g_bRunFlag = false;
  } else if (iSignal == SIGCHLD) {
    const int iSavedErrno = errno;
    int iStatus = 0;
    while (waitpid(-1, &iStatus, WNOHANG) > 0) {
    }
    errno = iSavedErrno;
  }
}
