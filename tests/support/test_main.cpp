#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "test_janitor.h"

namespace {

std::string g_strDirectory;

std::string KeyFile() { return g_strDirectory + "/keys"; }

void RemoveNotedSegments() {
  std::ifstream stKeys(KeyFile());
  for (key_t iKey = 0; stKeys >> iKey;) {
    const int iShmID = shmget(iKey, 0, 0);
    if (iShmID != -1) {
      shmctl(iShmID, IPC_RMID, nullptr);
    }
  }
}

void CleanUp() {
  RemoveNotedSegments();
  std::error_code stIgnored;
  std::filesystem::remove_all(g_strDirectory, stIgnored);
}

[[noreturn]] void RunJanitor(int iProgramFD) {
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
  const auto iProgramFD = static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0));
  if (mkdtemp(g_strDirectory.data()) == nullptr || iProgramFD == -1) {
    perror("janitor");
    _exit(1);
  }
  if (fork() == 0) {
    RunJanitor(iProgramFD);
  }
  close(iProgramFD);
}

const std::string& JanitorDirectory() { return g_strDirectory; }

void JanitorNoteKey(key_t iKey) { std::ofstream(KeyFile(), std::ios::app) << iKey << '\n'; }

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (GTEST_FLAG_GET(list_tests)) {
    return RUN_ALL_TESTS();
  }
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  StartJanitor();
  return RUN_ALL_TESTS();
}
