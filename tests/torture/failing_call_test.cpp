// The tool that makes system calls fail: that it does, and notices what an operation then leaves.

#include "failing_call.h"

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <stdlib.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <vector>

#include "test_support.h"

namespace {

typedef std::set<std::string> Texts_t;

std::string Described(const Attempt& stAttempt) {
  std::ostringstream stText;
  if (stAttempt.Fails()) {
    stText << stAttempt.Failure();
  }
  return stText.str();
}

// By way of the C library: the program's own calls would not count.
ssize_t ReadZeros(char (&szBytes)[8]) {
  const int iFD = open("/dev/zero", O_RDONLY | O_CLOEXEC);
  const ssize_t iCount = read(iFD, szBytes, sizeof(szBytes));
  const int iErrno = errno;
  close(iFD);
  errno = iErrno;
  return iCount;
}

TEST(FailingCallTest, EachFailureOfACallIsTriedOnce) {
  Texts_t setTried;
  const int iTried = FailEachCall([&](Attempt& stAttempt) {
    char szBytes[8];
    const ssize_t iCount = stAttempt.Run([&] { return ReadZeros(szBytes); });
    if (stAttempt.FailsIn({{"read"}})) {
      setTried.insert(Described(stAttempt));
      const failure_t& stFailure = stAttempt.Failure();
      EXPECT_EQ(stFailure.iErrno != 0 ? -1 : stFailure.iShorter, iCount);
      EXPECT_EQ(stFailure.iErrno, stAttempt.Errno());
    }
  });
  EXPECT_EQ((Texts_t{"read() number 1 fails with EAGAIN", "read() number 1 fails with EINTR",
                     "read() number 1 fails with EIO", "read() number 1 moves 0 bytes",
                     "read() number 1 moves 1 bytes", "read() number 1 moves 4 bytes"}),
            setTried);
  EXPECT_EQ(6 + 14 + 4, iTried);  // and the errors of openat() and close()
}

TEST(FailingCallTest, CallsOfTheSameNameFailOneAfterTheOther) {
  Texts_t setTried;
  FailEachCall([&](Attempt& stAttempt) {
    const int iSum = stAttempt.Run([] { return access("/", F_OK) + 2 * access("/", R_OK); });
    EXPECT_EQ(stAttempt.Fails() ? -stAttempt.Failure().iNumber : 0, iSum);
    if (stAttempt.FailsIn({{"access", EIO}})) {
      setTried.insert(Described(stAttempt));
    }
  });
  EXPECT_EQ((Texts_t{"access() number 1 fails with EIO", "access() number 2 fails with EIO"}),
            setTried);
}

TEST(FailingCallTest, CallThatFailsAlthoughItIsDoneIsDone) {
  FailEachCall([](Attempt& stAttempt) {
    const int iFD = dup(0);
    const int iResult = stAttempt.Run([=] { return close(iFD); });
    EXPECT_EQ(stAttempt.Fails() ? -1 : 0, iResult);
    EXPECT_EQ(-1, fcntl(iFD, F_GETFD));
  });
}

TEST(FailingCallTest, ForkedChildFailsUntilItRunsAnotherProgram) {
  Texts_t setTried;
  FailEachCall([&](Attempt& stAttempt) {
    const int iStatus = stAttempt.Run([] { return system("cat /dev/null"); });
    const bool bFails =
        stAttempt.InChild() ||
        stAttempt.FailsIn({{"clone3", EAGAIN}, {"clone3", ENOMEM}, {"wait4", ECHILD}});
    EXPECT_EQ(bFails, iStatus != 0);
    if (stAttempt.InChild()) {
      setTried.insert(stAttempt.Failure().strCall);
    }
  });
  EXPECT_EQ(Texts_t{"execve"}, setTried);
}

// An operation that leaves something when access() fails with EIO.
int FailLeaving(const std::function<void()>& fnLeave) {
  return FailEachCall([&](Attempt& stAttempt) {
    stAttempt.Run([] { return access("/", F_OK); });
    if (stAttempt.FailsIn({{"access", EIO}})) {
      fnLeave();
    }
  });
}

TEST(FailingCallTest, DescriptorThatIsLeftIsNoticed) {
  static int iLeft = -1;
  EXPECT_NONFATAL_FAILURE(FailLeaving([] { iLeft = dup(0); }), "descriptors");
  EXPECT_EQ(0, close(iLeft));
}

TEST(FailingCallTest, ChildThatIsLeftIsNoticed) {
  static pid_t iLeft = -1;
  EXPECT_NONFATAL_FAILURE(FailLeaving([] {
                            iLeft = fork();
                            if (iLeft == 0) {
                              _exit(0);
                            }
                            siginfo_t stInfo;
                            waitid(P_PID, static_cast<id_t>(iLeft), &stInfo, WEXITED | WNOWAIT);
                          }),
                          "children");
  EXPECT_EQ(iLeft, waitpid(iLeft, nullptr, 0));
}

TEST(FailingCallTest, SegmentThatIsLeftIsNoticed) {
  static const PrivateKey stKey;
  EXPECT_NONFATAL_FAILURE(FailLeaving([] { shmget(stKey.Key(), 1, IPC_CREAT | 0600); }),
                          "segments");
  shmctl(shmget(stKey.Key(), 0, 0), IPC_RMID, nullptr);
}

TEST(FailingCallTest, MemoryThatIsLeftIsNoticed) {
  if (mallinfo2().uordblks == 0) {
    GTEST_SKIP() << "a sanitizer's allocator, which looks for leaks by itself";
  }
  static std::vector<std::unique_ptr<char[]>> vecLeft;
  vecLeft.reserve(1000);
  EXPECT_NONFATAL_FAILURE(FailLeaving([] { vecLeft.push_back(std::make_unique<char[]>(1000)); }),
                          "bytes lost each time");
  vecLeft.clear();
}

}  // namespace
