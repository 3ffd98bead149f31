#include "filesystem_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "test_support.h"

namespace {

bool g_bOthersAreFaster = false;  // each directory is made just before this program makes it

}  // namespace

// Before libc's own, for the library too.
extern "C" int mkdir(const char* pPath, mode_t iMode) noexcept {
  const long iResult = syscall(SYS_mkdir, pPath, iMode);
  return static_cast<int>(g_bOthersAreFaster ? syscall(SYS_mkdir, pPath, iMode) : iResult);
}

namespace {

typedef std::vector<std::string> Names_t;

class FilesystemUtilTest : public ::testing::Test {
 protected:
  std::string File(const std::string& strName) const { return m_stDirectory.File(strName); }
  // Makes a path below the private directory; what it prints is kept in m_strPrinted.
  int Make(const std::string& strPath, unsigned int iMode = 0755) {
    int iResult = -2;
    m_strPrinted = CaptureOutput(1, [&] { iResult = MakeDir(strPath.c_str(), iMode); });
    return iResult;
  }
  static bool IsDirectory(const std::string& strPath) {
    return std::filesystem::is_directory(strPath);
  }
  static unsigned int ModeOf(const std::string& strPath) {
    struct stat stFile {};
    return stat(strPath.c_str(), &stFile) == 0 ? stFile.st_mode & 07777 : 0;
  }
  static Names_t Sorted(Names_t vecNames) {
    std::sort(vecNames.begin(), vecNames.end());
    return vecNames;
  }

  PrivateDirectory m_stDirectory;
  std::string m_strPrinted;
};

std::string GetPathOf(const char* pPath) {
  std::string strDirectory = "overwritten";
  EXPECT_EQ(0, GetPath(pPath, strDirectory));
  return strDirectory;
}

TEST_F(FilesystemUtilTest, SaveFileWritesAllBytes) {
  const std::string strContent("a\0b\n", 4);
  EXPECT_EQ(0, SaveFile(File("f").c_str(), strContent.data(), 4));
  EXPECT_EQ(strContent, ReadFile(File("f")));
}

TEST_F(FilesystemUtilTest, SaveFileReplacesTheContentOfTheSameFile) {
  WriteFile(File("f"), "a longer text");
  std::filesystem::create_hard_link(File("f"), File("link"));
  EXPECT_EQ(0, SaveFile(File("f").c_str(), "new", 3));
  EXPECT_EQ("new", ReadFile(File("link")));
}

TEST_F(FilesystemUtilTest, SaveFileOfNothingEmptiesTheFile) {
  WriteFile(File("f"), "text");
  EXPECT_EQ(0, SaveFile(File("f").c_str(), nullptr, 0));
  EXPECT_EQ("", ReadFile(File("f")));
}

TEST_F(FilesystemUtilTest, SaveFileUsesTheDefaultPermissions) {
  const mode_t iMask = umask(027);
  EXPECT_EQ(0, SaveFile(File("f").c_str(), "x", 1));
  umask(iMask);
  EXPECT_EQ(0640u, ModeOf(File("f")));
}

TEST_F(FilesystemUtilTest, SaveFileFailsWhereNoFileCanBeOpened) {
  EXPECT_EQ(-1, SaveFile(File("missing/f").c_str(), "x", 1));
  EXPECT_EQ(-1, SaveFile(m_stDirectory.Path().c_str(), "x", 1));
}

TEST_F(FilesystemUtilTest, SaveFileFailsWhenTheDiskTakesNoByte) {
  errno = 0;
  EXPECT_EQ(-1, SaveFile("/dev/full", "x", 1));
  EXPECT_EQ(ENOSPC, errno);
  EXPECT_EQ(-1, SaveFile("/dev/full", std::string(100000, 'x').c_str(), 100000));
}

TEST_F(FilesystemUtilTest, SaveFileLeavesNoDescriptorOpen) {
  const int iBefore = OpenDescriptors();
  SaveFile(File("f").c_str(), "x", 1);
  SaveFile("/dev/full", "x", 1);
  SaveFile(File("missing/f").c_str(), "x", 1);
  EXPECT_EQ(iBefore, OpenDescriptors());
}

TEST_F(FilesystemUtilTest, GetPathIsAllBeforeTheLastSlash) {
  EXPECT_EQ("/a/b", GetPathOf("/a/b/c.log"));
  EXPECT_EQ("a/b", GetPathOf("a/b/c"));
  EXPECT_EQ("a/b", GetPathOf("a/b/"));
  EXPECT_EQ("a/", GetPathOf("a//b"));
}

TEST_F(FilesystemUtilTest, GetPathOfANameInTheRootIsEmpty) {
  EXPECT_EQ("", GetPathOf("/file"));
  EXPECT_EQ("", GetPathOf("/"));
}

TEST_F(FilesystemUtilTest, GetPathWithoutASlashIsTheRoot) {
  EXPECT_EQ("/", GetPathOf("file"));
  EXPECT_EQ("/", GetPathOf(""));
  EXPECT_EQ("/", GetPathOf("a\\b"));
}

TEST_F(FilesystemUtilTest, MakeDirMakesEveryLevelAcrossBothSeparators) {
  EXPECT_EQ(0, Make(File("x//y\\z"), 0755));
  EXPECT_TRUE(IsDirectory(File("x/y/z")));
  EXPECT_FALSE(IsDirectory(File("x/y\\z")));
  EXPECT_EQ("", m_strPrinted);
}

TEST_F(FilesystemUtilTest, MakeDirAgainIsSilent) {
  ASSERT_EQ(0, Make(File("x/y/")));
  EXPECT_EQ(0, Make(File("x/y/")));
  EXPECT_EQ("", m_strPrinted);
}

TEST_F(FilesystemUtilTest, MakeDirGivesTheModeLessTheUmaskToEveryLevel) {
  const mode_t iMask = umask(027);
  EXPECT_EQ(0, Make(File("x/y"), 0775));
  umask(iMask);
  EXPECT_EQ(0750u, ModeOf(File("x")));
  EXPECT_EQ(0750u, ModeOf(File("x/y")));
}

TEST_F(FilesystemUtilTest, MakeDirOfARelativePathStartsAtTheWorkingDirectory) {
  ForkedPeer stPeer([this] {
    return chdir(m_stDirectory.Path().c_str()) != 0 || MakeDir("r/s", 0755) != 0 ||
           MakeDir("\\t", 0755) != 0;
  });
  EXPECT_EQ(0, stPeer.Wait());
  EXPECT_TRUE(IsDirectory(File("r/s")));
  EXPECT_TRUE(IsDirectory(File("t"))) << "a leading backslash does not make a path absolute";
}

TEST_F(FilesystemUtilTest, MakeDirWithoutComponentsDoesNothing) {
  for (const char* pPath : {"", "/", "//", "\\", "/\\/"}) {
    EXPECT_EQ(0, Make(pPath)) << pPath;
    EXPECT_EQ("", m_strPrinted) << pPath;
  }
}

TEST_F(FilesystemUtilTest, MakeDirAcceptsAPlainFileAndFailsBelowIt) {
  WriteFile(File("f"), "");
  EXPECT_EQ(0, Make(File("f")));
  EXPECT_EQ(0, Make(File("f/")));
  EXPECT_EQ("", m_strPrinted);
  EXPECT_EQ(-1, Make(File("f\\g/h")));
  EXPECT_EQ("mkdir " + File("f/g/") + " err, Not a directory\n", m_strPrinted);
}

TEST_F(FilesystemUtilTest, MakeDirKeepsTheLevelsMadeBeforeAFailure) {
  EXPECT_EQ(-1, Make(File("x/" + std::string(300, 'n') + "/y")));
  EXPECT_EQ(ENAMETOOLONG, errno);
  EXPECT_EQ("mkdir " + File("x/" + std::string(300, 'n')) + "/ err, File name too long\n",
            m_strPrinted);
  EXPECT_TRUE(IsDirectory(File("x")));
}

TEST_F(FilesystemUtilTest, MakeDirKeepsErrnoThoughItsMessageIsLost) {
  WriteFile(File("plain"), "");
  ForkedPeer stPeer([this] {
    dup2(open("/dev/full", O_WRONLY), 1);
    setvbuf(stdout, nullptr, _IONBF, 0);
    return MakeDir(File("plain/sub").c_str(), 0755) == -1 && errno == ENOTDIR ? 0 : 1;
  });
  EXPECT_EQ(0, stPeer.Wait());
}

TEST_F(FilesystemUtilTest, MakeDirFailsAtALinkToNothing) {
  std::filesystem::create_symlink("nowhere", File("link"));
  EXPECT_EQ(-1, Make(File("link")));
  EXPECT_EQ("mkdir " + File("link/") + " err, File exists\n", m_strPrinted);
}

TEST_F(FilesystemUtilTest, MakeDirAcceptsLevelsThatOthersMakeInBetween) {
  g_bOthersAreFaster = true;
  EXPECT_EQ(0, Make(File("a/b")));
  g_bOthersAreFaster = false;
  EXPECT_EQ("", m_strPrinted);
  EXPECT_TRUE(IsDirectory(File("a/b")));
}

TEST_F(FilesystemUtilTest, MakeDirOfTheSamePathBySeveralProcessesSucceedsInEach) {
  for (int iRound = 0; iRound < 10; ++iRound) {
    std::string strPath = File("round" + std::to_string(iRound));
    for (int i = 0; i < 50; ++i) {
      strPath += "/d";
    }
    std::vector<std::unique_ptr<ForkedPeer>> vecPeers;
    for (int i = 0; i < 4; ++i) {
      vecPeers.push_back(std::make_unique<ForkedPeer>(
          [&] { return MakeDir(strPath.c_str(), 0755) == 0 ? 0 : 1; }));
    }
    for (const auto& pPeer : vecPeers) {
      ASSERT_EQ(0, pPeer->Wait());
    }
    ASSERT_TRUE(IsDirectory(strPath));
  }
}

TEST_F(FilesystemUtilTest, LsWithoutAFilterListsEverythingWithTheDots) {
  WriteFile(File("file"), "");
  ASSERT_EQ(0, Make(File("directory")));
  std::filesystem::create_symlink("nowhere", File("link"));
  Names_t vecNames;
  EXPECT_EQ(0, Ls(m_stDirectory.Path().c_str(), nullptr, vecNames));
  EXPECT_EQ((Names_t{".", "..", "directory", "file", "link"}), Sorted(vecNames));
}

TEST_F(FilesystemUtilTest, LsListsWhatTheFilterLetsPass) {
  for (const char* pName : {"12", "3", "4x", "x5"}) {
    WriteFile(File(pName), "");
  }
  Names_t vecNames;
  EXPECT_EQ(0, Ls(m_stDirectory.Path().c_str(), "^[0-9]+$", vecNames));
  EXPECT_EQ((Names_t{"12", "3"}), Sorted(vecNames));
}

TEST_F(FilesystemUtilTest, LsWithAFilterThatDoesNotCompileListsEverything) {
  WriteFile(File("file"), "");
  Names_t vecNames;
  EXPECT_EQ(0, Ls(m_stDirectory.Path().c_str(), "(", vecNames));
  EXPECT_EQ((Names_t{".", "..", "file"}), Sorted(vecNames));
}

TEST_F(FilesystemUtilTest, LsAppendsInTheOrderOfTheSystem) {
  for (int i = 0; i < 50; ++i) {
    WriteFile(File(std::to_string(i * 7919)), "");
  }
  Names_t vecExpected{"kept"};
  for (const auto& stEntry : std::filesystem::directory_iterator(m_stDirectory.Path())) {
    vecExpected.push_back(stEntry.path().filename());
  }
  Names_t vecNames{"kept"};
  EXPECT_EQ(0, Ls(m_stDirectory.Path().c_str(), "[0-9]", vecNames));
  EXPECT_EQ(vecExpected, vecNames);
}

TEST_F(FilesystemUtilTest, LsOfWhatIsNoDirectoryChangesNothing) {
  WriteFile(File("file"), "");
  Names_t vecNames{"kept"};
  EXPECT_EQ(-1, Ls(File("missing").c_str(), nullptr, vecNames));
  EXPECT_EQ(-1, Ls(File("file").c_str(), nullptr, vecNames));
  EXPECT_EQ((Names_t{"kept"}), vecNames);
}

TEST_F(FilesystemUtilTest, LsLeavesNoDescriptorOpen) {
  Names_t vecNames;
  const int iBefore = OpenDescriptors();
  Ls(m_stDirectory.Path().c_str(), nullptr, vecNames);
  EXPECT_EQ(iBefore, OpenDescriptors());
}

}  // namespace
