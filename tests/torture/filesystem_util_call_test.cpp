// The helpers for files while each of their system calls fails in turn.

#include "filesystem_util.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "failing_call.h"
#include "test_support.h"

namespace {

typedef std::vector<std::string> Names_t;

TEST(SaveFileCallTest, SucceedsWithAllBytesOrFails) {
  FailEachCall([](Attempt& stAttempt) {
    const PrivateDirectory stDirectory;
    const std::string strFile = stDirectory.File("file");
    WriteFile(strFile, "what was there before");
    const std::string strContent(10000, 'x');
    const auto fnSave = [&] {
      return SaveFile(strFile.c_str(), strContent.data(), static_cast<unsigned>(strContent.size()));
    };
    const int iResult = stAttempt.Run(fnSave);
    const bool bHurts =
        stAttempt.FailsIn({{"openat"}, {"write"}}) && stAttempt.Failure().iErrno != 0;
    EXPECT_EQ(bHurts ? -1 : 0, iResult);
    if (bHurts) {
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
      EXPECT_EQ(0, fnSave());
    }
    EXPECT_EQ(strContent, ReadFile(strFile));
  });
}

TEST(SaveFileCallTest, EmptyFileFailsOnlyWhenItCanNotBeOpened) {
  FailEachCall([](Attempt& stAttempt) {
    const PrivateDirectory stDirectory;
    const std::string strFile = stDirectory.File("file");
    const int iResult = stAttempt.Run([&] { return SaveFile(strFile.c_str(), nullptr, 0); });
    EXPECT_EQ(stAttempt.FailsIn({{"openat"}}) ? -1 : 0, iResult);
  });
}

// What the other process has made meanwhile, access() is asked for again; else it fails.
TEST(MakeDirCallTest, FailsWithOneMessageAndErrnoAndCanBeRepeated) {
  FailEachCall([](Attempt& stAttempt) {
    const PrivateDirectory stDirectory;
    ASSERT_EQ(0, mkdir(stDirectory.File("a").c_str(), 0700));
    const std::string strPath = stDirectory.File("a/b/c");
    int iResult = 0;
    const std::string strText = CaptureOutput(
        1, [&] { iResult = stAttempt.Run([&] { return MakeDir(strPath.c_str(), 0700); }); });
    const bool bHurts = stAttempt.FailsIn({{"mkdir"}});
    EXPECT_EQ(bHurts ? -1 : 0, iResult);
    if (bHurts) {
      const int iErrno = stAttempt.Failure().iErrno;
      const std::string strName =
          stDirectory.File(stAttempt.Failure().iNumber == 1 ? "a/b" : "a/b/c");
      EXPECT_EQ("mkdir " + strName + "/ err, " + strerror(iErrno) + "\n", strText);
      EXPECT_EQ(iErrno, stAttempt.Errno());
      EXPECT_EQ(0, MakeDir(strPath.c_str(), 0700));
    }
    EXPECT_EQ(0, access(strPath.c_str(), F_OK));
  });
}

// A directory that can not be read to its end is not told from a shorter one.
TEST(LsCallTest, FailsWithNothingListedOrListsWhatWasRead) {
  FailEachCall([](Attempt& stAttempt) {
    const PrivateDirectory stDirectory;
    WriteFile(stDirectory.File("a"), "");
    WriteFile(stDirectory.File("b"), "");
    Names_t vecNames{"before"};
    const int iResult =
        stAttempt.Run([&] { return Ls(stDirectory.Path().c_str(), "^[ab]$", vecNames); });
    EXPECT_EQ(stAttempt.FailsIn({{"openat"}, {"newfstatat"}}) ? -1 : 0, iResult);
    std::sort(vecNames.begin(), vecNames.end());
    if (iResult == -1 || stAttempt.FailsIn({{"getdents64", -1, 1}})) {
      EXPECT_EQ((Names_t{"before"}), vecNames);
    } else {
      EXPECT_EQ((Names_t{"a", "b", "before"}), vecNames);
    }
  });
}

}  // namespace
