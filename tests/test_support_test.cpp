#include "test_support.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "test_janitor.h"

namespace {

bool Exists(const std::string& strPath) { return access(strPath.c_str(), F_OK) == 0; }

bool SegmentExists(key_t iKey) { return shmget(iKey, 0, 0) != -1; }

TEST(TestSupportTest, PrivateDirectoryGoesWithItsFiles) {
  std::string strPath;
  {
    const PrivateDirectory stDirectory;
    strPath = stDirectory.Path();
    WriteFile(stDirectory.File("a"), "text");
    ASSERT_EQ("text", ReadFile(stDirectory.File("a")));
  }
  EXPECT_FALSE(Exists(strPath));
}

TEST(TestSupportTest, PrivateKeyRemovesItsSegment) {
  key_t iKey = 0;
  {
    const PrivateKey stKey;
    iKey = stKey.Key();
    ASSERT_NE(-1, shmget(iKey, 64, IPC_CREAT | 0600));
  }
  EXPECT_FALSE(SegmentExists(iKey));
}

TEST(TestSupportTest, ForkedPeerTellsItsExitCodeOrItsSignal) {
  ForkedPeer stExits([] { return 7; });
  EXPECT_EQ(7, stExits.Wait());
  ForkedPeer stKilled([] {
    pause();
    return 0;
  });
  stKilled.Kill(SIGKILL);
  EXPECT_EQ(1000 + SIGKILL, stKilled.Wait());
}

TEST(TestSupportTest, SignalsGoToOneKnownProcessOnly) {
  const int iNothing = 0;  // would only ask whether the process is there
  EXPECT_THROW(SendSignal(-1, iNothing), std::invalid_argument);
  EXPECT_THROW(SendSignal(0, iNothing), std::invalid_argument);
  EXPECT_THROW(SendSignal(1, iNothing), std::invalid_argument);
  EXPECT_NO_THROW(SendSignal(getpid(), iNothing));
  ForkedPeer stEnded([] { return 0; });
  stEnded.Wait();
  EXPECT_THROW(stEnded.Kill(iNothing), std::invalid_argument);
}

TEST(TestSupportTest, AServersListOfQueuesIsCleanedUpToo) {
  const PrivateKey stKey;
  ForkedPeer stProgram([&stKey] {
    StartJanitor();
    const PrivateDirectory stDirectory;
    WriteFile(stDirectory.File("queues"), std::to_string(stKey.Key()) + " /some/fifo\n");
    shmget(stKey.Key(), 64, IPC_CREAT | 0600);
    raise(SIGKILL);
    return 0;
  });
  EXPECT_EQ(1000 + SIGKILL, stProgram.Wait());
  EXPECT_TRUE(WaitUntil([&stKey] { return !SegmentExists(stKey.Key()); }));
}

TEST(TestSupportTest, JanitorIsNotFoundAmongTheProgramsChildren) {
  ForkedPeer stProgram([] {
    StartJanitor();
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD ? 0 : 1;
  });
  EXPECT_EQ(0, stProgram.Wait());
}

TEST(TestSupportTest, KilledProgramLeavesNeitherDirectoryNorSegment) {
  int aiPipe[2];
  ASSERT_EQ(0, pipe(aiPipe));
  ForkedPeer stProgram([&aiPipe] {
    StartJanitor();
    const PrivateDirectory stDirectory;
    const PrivateKey stKey;
    shmget(stKey.Key(), 64, IPC_CREAT | 0600);
    dprintf(aiPipe[1], "%d %s\n", stKey.Key(), stDirectory.Path().c_str());
    pause();
    return 0;
  });
  close(aiPipe[1]);
  FILE* pTold = fdopen(aiPipe[0], "r");
  key_t iKey = 0;
  char szPath[256];
  ASSERT_EQ(2, fscanf(pTold, "%d %255s", &iKey, szPath));
  fclose(pTold);
  ASSERT_TRUE(Exists(szPath) && SegmentExists(iKey));
  stProgram.Kill(SIGKILL);
  EXPECT_TRUE(WaitUntil([&] { return !Exists(szPath) && !SegmentExists(iKey); }));
}

}  // namespace
