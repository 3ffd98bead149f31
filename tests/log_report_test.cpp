#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "test_support.h"

namespace {

std::string Report(const std::string& strArguments) {
  return CaptureOutput(1, [&] {
    const std::string strCommand = std::string(LOG_REPORT_PROGRAM) + " " + strArguments;
    fflush(stdout);
    EXPECT_EQ(0, system(strCommand.c_str()));
  });
}

TEST(LogReportTest, LevelsAreCountedInTheFilesThatTheFilterNames) {
  const PrivateDirectory stDirectory;
  WriteFile(stDirectory.File("a.log"),
            "[2026-01-02 03:04:05,678][ERROR] x [a][NOTICE]\n"
            "[2026-01-02 03:04:05,679][WARNING] y\n"
            "more of it [b][ERROR]\n"
            "[2026-01-02 03:04:05,680][ERROR] z\n");
  WriteFile(stDirectory.File("a.txt"), "[2026-01-02 03:04:05,678][ERROR] x\n");
  const std::string strReport =
      Report("'[.]log$' " + stDirectory.File("a.log") + " " + stDirectory.File("a.txt"));
  EXPECT_EQ("       2 ERROR\n       1 WARNING\n", strReport.substr(strReport.find('\n') + 1));
  EXPECT_EQ(25u, strReport.find('\n'));  // the time
}

}  // namespace
