#ifndef ZELK_TESTS_LOG_TEST_SUPPORT_H
#define ZELK_TESTS_LOG_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "log.h"
#include "test_support.h"

// What the tests of the log's lines and those of its files share.

typedef std::vector<std::string> Lines_t;

const size_t TIME_SIZE = 25;  // "[2024-01-02 15:04:05,678]"
const char INFO_HEAD[] = "[INFORMATION] ";

inline void SetZone(const std::string& strZone) {
  setenv("TZ", strZone.c_str(), 1);
  tzset();
}

// Moves the zone so that it is about noon: no test meets a midnight it did not ask for.
inline void SetZoneToNoon() {
  const time_t iNow = time(nullptr);
  SetZone("TST" + std::to_string(gmtime(&iNow)->tm_hour - 12));
}

inline std::string Today() {
  const time_t iNow = time(nullptr);
  char szDay[16];
  strftime(szDay, sizeof(szDay), "%Y%m%d", localtime(&iNow));
  return szDay;
}

inline std::string Numbered(const std::string& strPath, const std::string& strNumber) {
  return strPath + "/undefined_" + Today() + strNumber + ".log";
}

inline Lines_t LinesOf(const std::string& strFile) {
  Lines_t vecLines;
  std::istringstream stText(ReadFile(strFile));
  for (std::string strLine; std::getline(stText, strLine);) {
    vecLines.push_back(strLine);
  }
  return vecLines;
}

// The lines of a file without their times; those written at LL_INFO also without their level.
inline Lines_t MessagesOf(const std::string& strFile) {
  Lines_t vecMessages = LinesOf(strFile);
  for (std::string& strLine : vecMessages) {
    strLine.erase(0, TIME_SIZE);
    if (strLine.rfind(INFO_HEAD, 0) == 0) {
      strLine.erase(0, strlen(INFO_HEAD));
    }
  }
  return vecMessages;
}

// Has the calling child see a directory as its root, for the logs with a fixed name: the machine's
// own are never touched. False where neither root nor a user namespace can be had.
inline bool EnterRoot(const std::string& strRoot) {
  return (geteuid() == 0 || unshare(CLONE_NEWUSER) == 0) && chroot(strRoot.c_str()) == 0 &&
         chdir("/") == 0;
}

// A log of numbered files in a directory that does not exist yet, at noon.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetZoneToNoon();
    m_strPath = m_stDirectory.File("log");
    m_stLog.SetPath(m_strPath);
  }
  void TearDown() override { unsetenv("TZ"); }

  // A numbered file of today.
  std::string File(const std::string& strNumber) const { return Numbered(m_strPath, strNumber); }
  // Makes such a file before the log does.
  void MakeFile(const std::string& strNumber, size_t iSize) const {
    std::filesystem::create_directories(m_strPath);
    WriteFile(File(strNumber), std::string(iSize, '\n'));
  }
  size_t FileCount() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(m_strPath),
                                             std::filesystem::directory_iterator()));
  }

  PrivateDirectory m_stDirectory;
  std::string m_strPath;
  Log m_stLog;
};

#endif
