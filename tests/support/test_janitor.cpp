#include "test_janitor.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

const int SERVER_TRIES = 300;
const int SERVER_PAUSE_MS = 100;

std::string g_strDirectory;
int g_iLifeFD = -1;  // the pipe's end that is open as long as the program runs

std::string KeyFile() { return g_strDirectory + "/keys"; }

// Every line of the file starts with a key.
void RemoveListedSegments(const std::string& strFile) {
  std::ifstream stKeys(strFile);
  std::string strRest;
  for (key_t iKey = 0; stKeys >> iKey && std::getline(stKeys, strRest);) {
    const int iShmID = shmget(iKey, 0, 0);
    if (iShmID != -1) {
      shmctl(iShmID, IPC_RMID, nullptr);
    }
  }
}

// Waits until a server that a test has started, and whose processes are ending, holds its lock no
// more; before that it would still write, and make its directory anew.
void WaitForServer(const std::filesystem::path& stLock) {
  const int iFD = open(stLock.c_str(), O_RDWR | O_CLOEXEC);
  for (int i = 0; i < SERVER_TRIES && iFD != -1 && flock(iFD, LOCK_EX | LOCK_NB) != 0; ++i) {
    poll(nullptr, 0, SERVER_PAUSE_MS);
  }
  close(iFD);
}

// The files "queues" and "tables" are such a server's lists.
void RemoveSegments() {
  RemoveListedSegments(KeyFile());
  std::error_code stIgnored;
  for (const auto& stEntry :
       std::filesystem::recursive_directory_iterator(g_strDirectory, stIgnored)) {
    const std::string strName = stEntry.path().filename();
    if (strName == "queues" || strName == "tables") {
      WaitForServer(stEntry.path().parent_path() / "lock");
      RemoveListedSegments(stEntry.path());
    }
  }
}

void CleanUp() {
  RemoveSegments();
  std::error_code stIgnored;
  std::filesystem::remove_all(g_strDirectory, stIgnored);
}

// Readable when the program has ended. valgrind has no pidfd_open(): a pipe does, which waits for
// the program's forked children too.
int WatchProgram() {
  const auto iProgramFD = static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0));
  int arrPipe[2];
  if (iProgramFD != -1 || errno != ENOSYS || pipe2(arrPipe, O_CLOEXEC) != 0) {
    return iProgramFD;
  }
  g_iLifeFD = arrPipe[1];
  return arrPipe[0];
}

[[noreturn]] void RunJanitor(int iProgramFD) {
  close(g_iLifeFD);
  setsid();  // a signal to the test program's group spares us
  signal(SIGINT, SIG_IGN);
  signal(SIGTERM, SIG_IGN);
  const int iNull = open("/dev/null", O_RDWR);
  for (int iFD = 0; iFD <= 2; ++iFD) {
    dup2(iNull, iFD);  // whoever waits for the end of the program's output shall not wait for us
  }
  pollfd stPoll{iProgramFD, POLLIN, 0};
  while (poll(&stPoll, 1, -1) == -1) {
  }
  CleanUp();
  _exit(0);
}

}  // namespace

void StartJanitor() {
  const char* pTmp = getenv("TMPDIR");
  g_strDirectory = std::string(pTmp != nullptr ? pTmp : "/tmp") + "/zelk_test_XXXXXX";
  const auto iProgramFD = WatchProgram();
  if (mkdtemp(g_strDirectory.data()) == nullptr || iProgramFD == -1) {
    perror("janitor");
    _exit(1);
  }
  // A grandchild, so that whoever kills the program with all its children leaves it alone.
  const pid_t iChild = fork();
  if (iChild == 0) {
    if (fork() == 0) {
      RunJanitor(iProgramFD);
    }
    _exit(0);
  }
  waitpid(iChild, nullptr, 0);
  close(iProgramFD);
}

const std::string& JanitorDirectory() { return g_strDirectory; }

void JanitorNoteKey(key_t iKey) { std::ofstream(KeyFile(), std::ios::app) << iKey << '\n'; }
