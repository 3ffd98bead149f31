#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>

#include "full_disk.h"
#include "log.h"
#include "log_test_support.h"

namespace {

// What has a name seems to be a large file on another device, with the number that it has here.
bool g_bNamesAreElsewhere = false;

bool g_bWritesTakeNothing = false;

}  // namespace

// These stand before libc's own, for the library too.
extern "C" ssize_t write(int iFD, const void* pData, size_t iSize) {
  return g_bWritesTakeNothing ? 0 : syscall(SYS_write, iFD, pData, iSize);
}

extern "C" int statx(int iDirectoryFD, const char* pPath, int iFlags, unsigned int iMask,
                     struct statx* pFile) noexcept {
  const long iResult = syscall(SYS_statx, iDirectoryFD, pPath, iFlags, iMask, pFile);
  if (iResult == 0 && g_bNamesAreElsewhere && (iFlags & AT_EMPTY_PATH) == 0) {
    ++pFile->stx_dev_minor;
    pFile->stx_size = 1ULL << 40;
  }
  return static_cast<int>(iResult);
}

namespace {

namespace fs = std::filesystem;

typedef LogTest LogNumberedTest;

unsigned int ModeOf(const std::string& strPath) {
  struct stat stFile {};
  return stat(strPath.c_str(), &stFile) == 0 ? stFile.st_mode & 07777 : 0;
}

void AppendFile(const std::string& strPath, const std::string& strText) {
  WriteFile(strPath, ReadFile(strPath) + strText);
}

// Has a child write iCount lines that can be told from those of all other children.
int WriteNumberedLines(Log& stLog, int iWriter, int iCount) {
  for (int i = 0; i < iCount; ++i) {
    stLog.Info("writer %d line %d %s.", iWriter, i, std::string(size_t(i) % 50, 'x').c_str());
  }
  return 0;
}

// Counts the lines of WriteNumberedLines() in all files of a directory; each must be whole, and in
// every file those of one writer must ascend.
std::map<std::pair<int, int>, int> CountNumberedLines(const std::string& strPath) {
  std::map<std::pair<int, int>, int> mapCounts;
  for (const auto& stEntry : fs::directory_iterator(strPath)) {
    std::map<int, int> mapLast;
    for (const std::string& strMessage : MessagesOf(stEntry.path())) {
      int iWriter = -1;
      int iLine = -1;
      sscanf(strMessage.c_str(), "writer %d line %d", &iWriter, &iLine);
      EXPECT_EQ("writer " + std::to_string(iWriter) + " line " + std::to_string(iLine) + " " +
                    std::string(size_t(iLine) % 50, 'x') + ".",
                strMessage);
      EXPECT_TRUE(mapLast.count(iWriter) == 0 || mapLast[iWriter] < iLine) << strMessage;
      mapLast[iWriter] = iLine;
      ++mapCounts[{iWriter, iLine}];
    }
  }
  return mapCounts;
}

// ---- numbered files

TEST_F(LogNumberedTest, FirstFileOfTheDayIs000) {
  m_stLog.Info("x");
  EXPECT_TRUE(fs::exists(m_strPath + "/undefined_" + Today() + "000.log"));
  EXPECT_EQ(1u, FileCount());
}

TEST_F(LogNumberedTest, PrefixAndSuffixFrameDayAndNumber) {
  m_stLog.SetPrefix("gate-");
  m_stLog.SetSuffix(".txt");
  m_stLog.Info("x");
  EXPECT_TRUE(fs::exists(m_strPath + "/gate-" + Today() + "000.txt"));
}

TEST_F(LogNumberedTest, ModesAndFlagsAreFixed) {
  m_stLog.SetPath(m_strPath + "/deep/er");
  const mode_t iMask = umask(0);
  m_stLog.Info("x");
  umask(iMask);
  EXPECT_EQ(0640u, ModeOf(Numbered(m_strPath + "/deep/er", "000")));
  EXPECT_EQ(0750u, ModeOf(m_strPath));
  EXPECT_EQ(0750u, ModeOf(m_strPath + "/deep/er"));
  EXPECT_EQ(O_RDWR | O_APPEND, fcntl(m_stLog.FD(), F_GETFL) & (O_ACCMODE | O_APPEND));
  EXPECT_EQ(FD_CLOEXEC, fcntl(m_stLog.FD(), F_GETFD));
}

TEST_F(LogNumberedTest, FileOfExactlyTheMaximumIsStillAppendedTo) {
  m_stLog.Info("%s", std::string(60, 'x').c_str());
  m_stLog.SetMaxSize(fs::file_size(File("000")));
  m_stLog.Info("second");
  m_stLog.Info("third");
  EXPECT_EQ(2u, LinesOf(File("000")).size());
  EXPECT_EQ((Lines_t{"third"}), MessagesOf(File("001")));
}

TEST_F(LogNumberedTest, ExistingFileOfExactlyTheMaximumIsChosen) {
  m_stLog.SetMaxSize(100);
  MakeFile("000", 101);
  MakeFile("001", 100);
  m_stLog.Info("x");
  EXPECT_GT(fs::file_size(File("001")), 100u);
  EXPECT_EQ(2u, FileCount());
}

TEST_F(LogNumberedTest, FirstFreeNumberIsTakenAlsoBeforeOthers) {
  m_stLog.SetMaxSize(10);
  MakeFile("000", 11);
  MakeFile("002", 0);
  m_stLog.Info("x");
  EXPECT_EQ((Lines_t{"x"}), MessagesOf(File("001")));
}

TEST_F(LogNumberedTest, RestartAppendsToTheLastFile) {
  m_stLog.Info("before");
  Log stNext;
  stNext.SetPath(m_strPath);
  stNext.Info("after");
  EXPECT_EQ((Lines_t{"before", "after"}), MessagesOf(File("000")));
}

TEST_F(LogNumberedTest, SizeIsTheFilesWhoeverWroteIt) {
  m_stLog.SetMaxSize(1000);
  m_stLog.Info("x");
  AppendFile(File("000"), std::string(1000, '\n'));
  m_stLog.Info("y");
  EXPECT_EQ((Lines_t{"y"}), MessagesOf(File("001")));
}

TEST_F(LogNumberedTest, TruncatedFileIsWrittenFromItsStart) {
  m_stLog.SetMaxSize(100);
  m_stLog.Info("%s", std::string(100, 'x').c_str());
  fs::resize_file(File("000"), 0);
  m_stLog.Info("y");
  EXPECT_EQ((Lines_t{"y"}), MessagesOf(File("000")));
}

TEST_F(LogNumberedTest, NumbersGoPast999) {
  m_stLog.SetMaxSize(0);
  for (int i = 0; i < 1000; ++i) {
    char szNumber[16];
    snprintf(szNumber, sizeof(szNumber), "%03d", i);
    MakeFile(szNumber, 1);
  }
  m_stLog.Info("x");
  m_stLog.Info("y");
  EXPECT_EQ((Lines_t{"x"}), MessagesOf(File("1000")));
  EXPECT_EQ((Lines_t{"y"}), MessagesOf(File("1001")));
}

TEST_F(LogNumberedTest, DeletedFileIsMadeAgain) {
  const int iBefore = OpenDescriptors();
  m_stLog.Info("x");
  fs::remove(File("000"));
  m_stLog.Info("y");
  EXPECT_EQ((Lines_t{"y"}), MessagesOf(File("000")));
  EXPECT_EQ(iBefore + 1, OpenDescriptors());
}

TEST_F(LogNumberedTest, RenamedFileIsLeft) {
  m_stLog.Info("x");
  fs::rename(File("000"), m_stDirectory.File("kept"));
  m_stLog.Info("y");
  EXPECT_EQ((Lines_t{"x"}), MessagesOf(m_stDirectory.File("kept")));
  EXPECT_EQ((Lines_t{"y"}), MessagesOf(File("000")));
}

TEST_F(LogNumberedTest, DeletedDirectoryIsMadeAgain) {
  m_stLog.Info("x");
  fs::remove_all(m_strPath);
  m_stLog.Info("y");
  EXPECT_EQ((Lines_t{"y"}), MessagesOf(File("000")));
}

TEST_F(LogNumberedTest, FileInPlaceOfTheDirectoryCountsAsDeleted) {
  m_stLog.Info("x");
  fs::rename(m_strPath, m_stDirectory.File("moved"));
  WriteFile(m_strPath, "");
  m_stLog.Info("lost");
  EXPECT_EQ(-1, m_stLog.FD());
}

TEST_F(LogNumberedTest, ReplacedFileIsDeliberatelyNotNoticed) {
  m_stLog.Info("x");
  fs::rename(File("000"), m_stDirectory.File("kept"));
  MakeFile("000", 0);
  m_stLog.Info("y");
  EXPECT_EQ((Lines_t{"x", "y"}), MessagesOf(m_stDirectory.File("kept")));
  EXPECT_EQ("", ReadFile(File("000")));
}

TEST_F(LogNumberedTest, OfAReplacedFileTheOpenOnesSizeCounts) {
  const std::string strKept = m_stDirectory.File("kept");
  m_stLog.SetMaxSize(1000);
  m_stLog.Info("x");
  fs::rename(File("000"), strKept);
  MakeFile("000", 1001);
  m_stLog.Info("y");
  EXPECT_EQ(2u, LinesOf(strKept).size()) << "the other one under the name is too large, not ours";
  MakeFile("000", 10);
  AppendFile(strKept, std::string(1001, '\n'));
  m_stLog.Info("z");
  EXPECT_EQ("z", MessagesOf(File("000")).back());
}

TEST_F(LogNumberedTest, ClosedDescriptorLosesNoLineAndIsNotClosedAgain) {
  m_stLog.Info("x");
  close(m_stLog.FD());
  m_stLog.BinaryLog(Log::LL_INFO, "A", 1, "y");
  EXPECT_EQ(4u, LinesOf(File("000")).size());
  const int iForeign = open("/dev/null", O_RDONLY);
  ASSERT_EQ(m_stLog.FD(), dup2(iForeign, m_stLog.FD()));  // the number now is somebody else's
  const int iNumber = m_stLog.FD();
  m_stLog.Info("z");
  EXPECT_EQ("z", MessagesOf(File("000")).back());
  EXPECT_NE(iNumber, m_stLog.FD());
  EXPECT_NE(-1, fcntl(iNumber, F_GETFD));
  close(iNumber);
  close(iForeign);
}

TEST_F(LogNumberedTest, NewDayDoesNotCloseTheOpenFile) {
  SetZone("AAA0");
  const std::string strFirst = File("000");
  m_stLog.Info("x");
  m_stLog.SetMaxSize(fs::file_size(strFirst));  // and exactly full is not too large
  SetZone("BBB-24");                            // the clock is a day ahead
  m_stLog.Info("y");
  EXPECT_EQ((Lines_t{"x", "y"}), MessagesOf(strFirst));
  EXPECT_EQ(1u, FileCount());
}

TEST_F(LogNumberedTest, NewDayBeginsAt000WhenAFileIsOpened) {
  SetZone("AAA0");
  m_stLog.SetMaxSize(0);
  m_stLog.Info("x");
  m_stLog.Info("y");
  ASSERT_TRUE(fs::exists(File("001")));
  SetZone("BBB-24");
  m_stLog.Info("z");
  EXPECT_EQ((Lines_t{"z"}), MessagesOf(File("000")));
  EXPECT_EQ(3u, FileCount());
}

TEST_F(LogNumberedTest, MidnightPassesUnderAnOpenFile) {
  const int iSecondsLeft = 2;
  const auto iAhead = static_cast<int>(86400 - (time(nullptr) + iSecondsLeft) % 86400);
  SetZone("AAA-" + std::to_string(iAhead / 3600) + ":" + std::to_string(iAhead / 60 % 60) + ":" +
          std::to_string(iAhead % 60));
  const std::string strDay = Today();
  const std::string strFirst = File("000");
  m_stLog.Info("x");
  ASSERT_TRUE(WaitUntil([&] { return Today() != strDay; }));
  m_stLog.Info("y");
  const Lines_t vecLines = LinesOf(strFirst);
  ASSERT_EQ(2u, vecLines.size());
  EXPECT_NE(vecLines[0].substr(0, 11), vecLines[1].substr(0, 11));
  EXPECT_EQ(" 00:00:0", vecLines[1].substr(11, 8));
  fs::remove(strFirst);
  m_stLog.Info("z");
  EXPECT_EQ((Lines_t{"z"}), MessagesOf(File("000")));
}

TEST_F(LogNumberedTest, NewNamesDoNotCloseTheOpenFile) {
  m_stLog.Info("x");
  m_stLog.SetPath(m_strPath + "2");
  m_stLog.SetPrefix("p");
  m_stLog.SetSuffix("s");
  m_stLog.Info("y");
  EXPECT_EQ((Lines_t{"x", "y"}), MessagesOf(File("000")));
  EXPECT_FALSE(fs::exists(m_strPath + "2"));
  fs::remove(File("000"));
  m_stLog.Info("z");
  EXPECT_EQ((Lines_t{"z"}), MessagesOf(m_strPath + "2/p" + Today() + "000s"));
}

TEST_F(LogNumberedTest, NameOf512CharactersIsCutAndUsedAsItIs) {
  std::string strDeep = m_strPath;
  while (strDeep.size() < 500) {
    strDeep += "/" + std::string(std::min<size_t>(200, 500 - strDeep.size()), 'd');
  }
  m_stLog.SetPath(strDeep);
  m_stLog.SetMaxSize(0);
  m_stLog.Info("x");
  m_stLog.Info("y");
  const std::string strCut = Numbered(strDeep, "000").substr(0, 511);
  EXPECT_EQ((Lines_t{"x", "y"}), MessagesOf(strCut));
}

TEST_F(LogNumberedTest, FailedOpenLosesTheLineAndTheNextTriesAgain) {
  fs::create_directories(File("000"));
  errno = 0;
  m_stLog.Info("lost");
  EXPECT_EQ(-1, m_stLog.FD());
  EXPECT_EQ(0, errno);
  fs::remove(File("000"));
  m_stLog.Info("kept");
  EXPECT_EQ((Lines_t{"kept"}), MessagesOf(File("000")));
}

TEST_F(LogNumberedTest, DirectoryThatCanNotBeMadeIsToldByMakeDirAlone) {
  WriteFile(m_strPath, "");
  m_stLog.SetPath(m_strPath + "/below");
  EXPECT_EQ("mkdir " + m_strPath + "/below/ err, Not a directory\n",
            CaptureOutput(1, [&] { m_stLog.Info("lost"); }));
  EXPECT_EQ(-1, m_stLog.FD());
}

TEST_F(LogNumberedTest, ProcessThatDroppedItsRightsGoesOnWriting) {
  m_stLog.Info("x");
  ASSERT_EQ(0, chmod(m_strPath.c_str(), 0));
  ForkedPeer stPeer([this] {
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setuid(65534) != 0)) {
      return 1;
    }
    m_stLog.Info("y");
    return access(File("000").c_str(), F_OK) == -1 && errno == EACCES ? 0 : 2;
  });
  EXPECT_EQ(0, stPeer.Wait());
  ASSERT_EQ(0, chmod(m_strPath.c_str(), 0750));
  EXPECT_EQ((Lines_t{"x", "y"}), MessagesOf(File("000")));
}

TEST_F(LogNumberedTest, NameThatCanNotBeLookedUpStandsForTheOpenFile) {
  m_stLog.Info("x");
  const std::string strMoved = m_strPath + ".moved";
  fs::rename(m_strPath, strMoved);
  fs::create_symlink(m_strPath, m_strPath);  // "too many levels of symbolic links"
  m_stLog.Info("y");
  fs::remove(m_strPath);
  fs::rename(strMoved, m_strPath);
  EXPECT_EQ((Lines_t{"x", "y"}), MessagesOf(File("000")));
}

TEST_F(LogNumberedTest, NameThatCanNotBeLookedUpStandsForNothingOnceTheFileIsClosed) {
  m_stLog.Info("x");
  const std::string strMoved = m_strPath + ".moved";
  fs::rename(m_strPath, strMoved);
  fs::create_symlink(m_strPath, m_strPath);
  EXPECT_EQ("mkdir " + m_strPath + "/ err, File exists\n", CaptureOutput(1, [this] {
              close(m_stLog.FD());  // as foreign code may
              m_stLog.Info("lost");
            }));
  EXPECT_EQ(-1, m_stLog.FD());
  fs::remove(m_strPath);
  fs::rename(strMoved, m_strPath);
  m_stLog.Info("y");
  EXPECT_EQ((Lines_t{"x", "y"}), MessagesOf(File("000")));
}

TEST_F(LogNumberedTest, ClosedFileWhoseNameWasTakenIsOpenedAnewUnderThatName) {
  m_stLog.Info("x");
  fs::rename(File("000"), File("moved"));
  WriteFile(File("000"), "");
  ASSERT_EQ(0, close(m_stLog.FD()));
  m_stLog.Info("y");
  EXPECT_EQ((Lines_t{"x"}), MessagesOf(File("moved")));
  EXPECT_EQ((Lines_t{"y"}), MessagesOf(File("000")));
}

TEST_F(LogNumberedTest, LineOfWhichNothingIsTakenIsDropped) {
  g_bWritesTakeNothing = true;
  m_stLog.Info("lost");
  g_bWritesTakeNothing = false;
  m_stLog.Info("x");
  EXPECT_EQ((Lines_t{"x"}), MessagesOf(File("000")));
}

TEST_F(LogNumberedTest, NoFileIsDeletedHoweverMuchTheDaysFilesHold) {
  MakeFile("000", 0);
  fs::resize_file(File("000"), 21ULL << 30);  // all of it a hole
  m_stLog.Info("x");
  EXPECT_EQ(21ULL << 30, fs::file_size(File("000")));
  EXPECT_EQ((Lines_t{"x"}), MessagesOf(File("001")));
}

TEST_F(LogNumberedTest, FileOfTheSameNumberOnAnotherDeviceIsNotTheOpenOne) {
  m_stLog.SetMaxSize(1000);
  m_stLog.Info("x");
  g_bNamesAreElsewhere = true;
  m_stLog.Info("y");
  g_bNamesAreElsewhere = false;
  EXPECT_EQ((Lines_t{"x", "y"}), MessagesOf(File("000")));  // whose size counts
}

TEST_F(LogNumberedTest, ForkedChildWritesToTheSameFile) {
  m_stLog.Info("parent");
  ForkedPeer stPeer([this] {
    m_stLog.Info("child");
    return 0;
  });
  ASSERT_EQ(0, stPeer.Wait());
  m_stLog.Info("parent again");
  EXPECT_EQ((Lines_t{"parent", "child", "parent again"}), MessagesOf(File("000")));
}

TEST_F(LogNumberedTest, KilledWriterHasLostNothingItWrote) {
  int aiPipe[2];
  ASSERT_EQ(0, pipe(aiPipe));
  ForkedPeer stPeer([&] {
    WriteNumberedLines(m_stLog, 1, 100);
    const ssize_t iTold = write(aiPipe[1], "x", 1);
    pause();
    return static_cast<int>(iTold);
  });
  char cTold = 0;
  ASSERT_EQ(1, read(aiPipe[0], &cTold, 1));
  stPeer.Kill(9);
  EXPECT_EQ(1009, stPeer.Wait());
  EXPECT_EQ(100u, CountNumberedLines(m_strPath).size());
  close(aiPipe[0]);
  close(aiPipe[1]);
}

// Several processes write while files fill up and others are moved away under them: no line is
// lost, doubled or mixed with another.
TEST_F(LogNumberedTest, ManyWritersLoseNoLineToRotation) {
  const int iWriters = 4;
  const int iLines = 3000;
  const size_t iLineLimit = 150;
  m_stLog.SetMaxSize(50000);
  std::vector<std::unique_ptr<ForkedPeer>> vecPeers;
  for (int i = 0; i < iWriters; ++i) {
    vecPeers.push_back(
        std::make_unique<ForkedPeer>([this, i] { return WriteNumberedLines(m_stLog, i, iLines); }));
  }
  int iMoved = 0;
  ASSERT_TRUE(WaitUntil([&] {
    const std::string strKept = m_strPath + "/moved" + std::to_string(iMoved);
    iMoved += rename(File("000").c_str(), strKept.c_str()) == 0 ? 1 : 0;
    return iMoved == 5;
  }));
  for (const auto& pPeer : vecPeers) {
    ASSERT_EQ(0, pPeer->Wait());
  }
  const auto mapCounts = CountNumberedLines(m_strPath);
  EXPECT_EQ(size_t{iWriters} * iLines, mapCounts.size());
  for (const auto& stEntry : mapCounts) {
    ASSERT_EQ(1, stEntry.second) << stEntry.first.first << " " << stEntry.first.second;
  }
  for (const auto& stEntry : fs::directory_iterator(m_strPath)) {
    EXPECT_LE(stEntry.file_size(), 50000 + iWriters * iLineLimit) << stEntry.path();
  }
}

// ---- the two directories with a fixed name

const int NO_ROOT = 77;

// The two directories are looked for from the root, so these tests run in children whose root is
// a private directory; the machine's own log directories are never touched.
class LogFixedNameTest : public LogTest {
 protected:
  void SetUp() override {
    LogTest::SetUp();
    m_strRoot = m_stDirectory.File("root");
    fs::create_directory(m_strRoot);
    if (ForkedPeer([this] { return EnterRoot() ? 0 : NO_ROOT; }).Wait() == NO_ROOT) {
      GTEST_SKIP() << "neither root nor allowed to make a user namespace";
    }
  }
  bool EnterRoot() const { return ::EnterRoot(m_strRoot); }
  // Runs checks in a child below the private root, with a log of the default path.
  void Below(const std::function<void(Log&)>& fnRun) const {
    ForkedPeer stPeer([&] {
      Log stLog;
      if (!EnterRoot()) {
        return NO_ROOT;
      }
      fnRun(stLog);
      return HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(0, stPeer.Wait());
  }

  std::string m_strRoot;
};

const char FIXED_PATH[] = "/var/log/zelk";
const char FIXED_FILE[] = "/var/log/zelk/undefined_.log";

TEST_F(LogFixedNameTest, DefaultFileHasNeitherDayNorNumber) {
  Below([](Log& stLog) { stLog.Info("x"); });
  EXPECT_EQ((Lines_t{"x"}), MessagesOf(m_strRoot + FIXED_FILE));
}

TEST_F(LogFixedNameTest, BothDirectoriesHaveIt) {
  Below([](Log& stLog) {
    stLog.SetPrefix("p");
    stLog.SetSuffix(".s");
    stLog.Info("x");
    stLog.SetPath("/data/log/zelk");
    stLog.Info("y");
  });
  EXPECT_EQ((Lines_t{"x"}), MessagesOf(m_strRoot + "/var/log/zelk/p.s"));
  EXPECT_EQ((Lines_t{"y"}), MessagesOf(m_strRoot + "/data/log/zelk/p.s"));
}

TEST_F(LogFixedNameTest, OnlyTheExactPathsHaveIt) {
  for (const char* pPath : {"/var/log/zelk/", "/var/log/zelk/sub", "/data/log/zelk/", "/var/log",
                            "/var//log/zelk", "/data/log/zelk2", "var/log/zelk"}) {
    Below([&](Log& stLog) {
      stLog.SetPath(pPath);
      stLog.Info("x");
      EXPECT_TRUE(fs::exists(Numbered(pPath, "000"))) << pPath;
      EXPECT_FALSE(fs::exists(std::string(pPath) + "/undefined_.log")) << pPath;
    });
  }
}

TEST_F(LogFixedNameTest, ModesAndFlagsAreFixed) {
  Below([](Log& stLog) {
    umask(0);
    stLog.Info("x");
    EXPECT_EQ(0640u, ModeOf(FIXED_FILE));
    EXPECT_EQ(0750u, ModeOf(FIXED_PATH));
    EXPECT_EQ(0750u, ModeOf("/var"));
    EXPECT_EQ(O_RDWR | O_APPEND, fcntl(stLog.FD(), F_GETFL) & (O_ACCMODE | O_APPEND));
  });
}

// The first file of one file system has the number that the first of another one has.
TEST_F(LogFixedNameTest, FileOfAnotherFileSystemIsAnotherThoughItsNumberIsTheSame) {
  const size_t DISK_SIZE = 1048576;
  fs::create_directories(m_strRoot + FIXED_PATH);
  ForkedPeer stPeer([&] {
    if (!SmallDisk::WhyNot().empty()) {
      return NO_ROOT;
    }
    const SmallDisk stFirst(m_strRoot + FIXED_PATH, DISK_SIZE);
    Log stLog;
    EnterRoot();
    stLog.Info("x");
    const SmallDisk stSecond(FIXED_PATH, DISK_SIZE);
    WriteFile(FIXED_FILE, "");
    struct stat stOpen {};
    struct stat stNamed {};
    EXPECT_TRUE(fstat(stLog.FD(), &stOpen) == 0 && stat(FIXED_FILE, &stNamed) == 0);
    EXPECT_EQ(stOpen.st_ino, stNamed.st_ino);
    stLog.Info("y");
    EXPECT_EQ((Lines_t{"y"}), MessagesOf(FIXED_FILE));
    return HasFailure() ? 1 : 0;
  });
  const int iResult = stPeer.Wait();
  if (iResult == NO_ROOT) {
    GTEST_SKIP() << "only root may mount";
  }
  EXPECT_EQ(0, iResult);
}

TEST_F(LogFixedNameTest, FileIsNeverTooLarge) {
  Below([](Log& stLog) {
    stLog.SetMaxSize(0);
    stLog.Info("x");
    stLog.Info("y");
    EXPECT_EQ((Lines_t{"x", "y"}), MessagesOf(FIXED_FILE));
  });
}

TEST_F(LogFixedNameTest, UndisturbedFileIsOpenedOnce) {
  Below([](Log& stLog) {
    const int iLower = open("/", O_RDONLY);
    stLog.Info("x");
    const int iFD = stLog.FD();
    close(iLower);  // a file opened now would get this number
    stLog.Info("y");
    EXPECT_EQ(iFD, stLog.FD());
  });
}

TEST_F(LogFixedNameTest, DeletedFileIsMadeAgain) {
  Below([](Log& stLog) {
    stLog.Info("x");
    unlink(FIXED_FILE);
    stLog.Info("y");
    EXPECT_EQ((Lines_t{"y"}), MessagesOf(FIXED_FILE));
    fs::remove_all(FIXED_PATH);
    stLog.Info("z");
    EXPECT_EQ((Lines_t{"z"}), MessagesOf(FIXED_FILE));
  });
}

TEST_F(LogFixedNameTest, RenamedFileIsLeft) {
  Below([](Log& stLog) {
    stLog.Info("x");
    fs::rename(FIXED_FILE, "/kept");
    stLog.Info("y");
    EXPECT_EQ((Lines_t{"x"}), MessagesOf("/kept"));
    EXPECT_EQ((Lines_t{"y"}), MessagesOf(FIXED_FILE));
  });
}

TEST_F(LogFixedNameTest, ReplacedFileIsNoticed) {
  Below([](Log& stLog) {
    stLog.Info("x");
    fs::rename(FIXED_FILE, "/kept");
    WriteFile(FIXED_FILE, "");
    stLog.Info("y");
    EXPECT_EQ((Lines_t{"x"}), MessagesOf("/kept"));
    EXPECT_EQ((Lines_t{"y"}), MessagesOf(FIXED_FILE));
  });
}

TEST_F(LogFixedNameTest, ReopeningLeavesNoDescriptorBehind) {
  Below([](Log& stLog) {
    stLog.Info("x");
    const int iFD = stLog.FD();
    for (int i = 0; i < 3; ++i) {
      unlink(FIXED_FILE);
      stLog.Info("y");
      EXPECT_EQ(iFD, stLog.FD()) << "the lowest number is free again only when it was closed";
    }
  });
}

TEST_F(LogFixedNameTest, ClosedDescriptorIsNoticedAndLosesNoLine) {
  Below([](Log& stLog) {
    stLog.Info("x");
    close(stLog.FD());
    stLog.Info("y");
    EXPECT_EQ((Lines_t{"x", "y"}), MessagesOf(FIXED_FILE));
  });
}

TEST_F(LogFixedNameTest, NewPrefixOrSuffixTakesEffectAtOnce) {
  Below([](Log& stLog) {
    stLog.Info("x");
    stLog.SetPrefix("p");
    stLog.Info("y");
    stLog.SetSuffix(".s");
    stLog.Info("z");
    EXPECT_EQ((Lines_t{"x"}), MessagesOf(FIXED_FILE));
    EXPECT_EQ((Lines_t{"y"}), MessagesOf("/var/log/zelk/p.log"));
    EXPECT_EQ((Lines_t{"z"}), MessagesOf("/var/log/zelk/p.s"));
  });
}

TEST_F(LogFixedNameTest, FailedOpenLosesTheLineAndTheNextTriesAgain) {
  Below([](Log& stLog) {
    fs::create_directories(FIXED_FILE);
    stLog.Info("lost");
    EXPECT_EQ(-1, stLog.FD());
    fs::remove(FIXED_FILE);
    stLog.Info("kept");
    EXPECT_EQ((Lines_t{"kept"}), MessagesOf(FIXED_FILE));
  });
}

TEST_F(LogFixedNameTest, ExistingDirectoryIsNoError) {
  fs::create_directories(m_strRoot + FIXED_PATH);
  EXPECT_EQ("", CaptureOutput(1, [this] { Below([](Log& stLog) { stLog.Info("x"); }); }));
  EXPECT_EQ((Lines_t{"x"}), MessagesOf(m_strRoot + FIXED_FILE));
}

TEST_F(LogFixedNameTest, ChangeToNumberedFilesWaitsForTheNextFile) {
  Below([](Log& stLog) {
    stLog.Info("x");
    stLog.SetPath("/other");
    stLog.Info("y");
    EXPECT_EQ((Lines_t{"x", "y"}), MessagesOf(FIXED_FILE));
    stLog.SetMaxSize(10);
    stLog.Info("z");
    EXPECT_EQ((Lines_t{"z"}), MessagesOf(Numbered("/other", "000")));
  });
}

TEST_F(LogFixedNameTest, ChangeFromNumberedFilesTakesEffectAtOnce) {
  Below([](Log& stLog) {
    stLog.SetPath("/other");
    stLog.Info("x");
    stLog.SetPath(FIXED_PATH);
    stLog.Info("y");
    EXPECT_EQ((Lines_t{"y"}), MessagesOf(FIXED_FILE));
  });
}

TEST_F(LogFixedNameTest, ManyWritersLoseNoLineToAnOutsideRotation) {
  const int iWriters = 3;
  const int iLines = 3000;
  std::vector<std::unique_ptr<ForkedPeer>> vecPeers;
  for (int i = 0; i < iWriters; ++i) {
    vecPeers.push_back(std::make_unique<ForkedPeer>([this, i] {
      Log stLog;
      return EnterRoot() ? WriteNumberedLines(stLog, i, iLines) : NO_ROOT;
    }));
  }
  int iMoved = 0;
  ASSERT_TRUE(WaitUntil([&] {
    const std::string strKept = m_strRoot + FIXED_PATH + "/kept" + std::to_string(iMoved);
    iMoved += rename((m_strRoot + FIXED_FILE).c_str(), strKept.c_str()) == 0 ? 1 : 0;
    return iMoved == 5;
  }));
  for (const auto& pPeer : vecPeers) {
    ASSERT_EQ(0, pPeer->Wait());
  }
  EXPECT_EQ(size_t{iWriters} * iLines, CountNumberedLines(m_strRoot + FIXED_PATH).size());
}

}  // namespace
