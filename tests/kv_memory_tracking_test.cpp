#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "kv_server_fixture.h"
#include "test_support.h"

namespace {

class KvMemoryTrackingTest : public testing::Test {
 protected:
  // Runs the program; what it prints.
  std::string Run(const std::string& strMode) {
    const std::string strCommand =
        std::string(LEAK_PROGRAM) + " " + m_stDirectory.Path() + " " + strMode;
    FILE* pOutput = popen(strCommand.c_str(), "r");
    char szText[1024] = "";
    const size_t iSize = fread(szText, 1, sizeof(szText), pOutput);
    EXPECT_EQ(0, pclose(pOutput));
    return {szText, iSize};
  }
  bool Reported(const std::string& strName) const {
    return access(m_stDirectory.File("memory-" + strName + ".txt").c_str(), F_OK) == 0;
  }
  std::string Report(const std::string& strName) const {
    EXPECT_TRUE(Reported(strName));
    return ReadFile(m_stDirectory.File("memory-" + strName + ".txt"));
  }

  PrivateDirectory m_stDirectory;
};

TEST_F(KvMemoryTrackingTest, AProgramThatFreesEverythingReportsNothing) {
  Run("clean");
  EXPECT_EQ("", Report("leak-program"));
}

TEST_F(KvMemoryTrackingTest, WhatIsLeftIsReportedWithItsSourceLine) {
  std::istringstream stLines(Run("leak"));
  std::string strObject;
  std::string strForeign;
  stLines >> strObject >> strForeign;
  EXPECT_NE(std::string::npos, strObject.find("leak_program.cpp:"));
  const std::string strFirst = strObject + " allocate 64 bytes\n";
  const std::string strSecond = strForeign + " allocate 10 bytes\n";
  const std::string strReport = Report("leak-program");
  EXPECT_NE(std::string::npos, strReport.find(strFirst)) << strReport;
  EXPECT_NE(std::string::npos, strReport.find(strSecond)) << strReport;
  EXPECT_EQ(strFirst.size() + strSecond.size(), strReport.size()) << "nothing else";
}

TEST_F(KvMemoryTrackingTest, AChildReportsItsOwnBlocksOnly) {
  Run("child");
  EXPECT_EQ("", Report("child-0"));
  EXPECT_NE("", Report("leak-program"));
}

TEST_F(KvMemoryTrackingTest, AProgramThatDiesLeavesNoReportNotEvenAnOldOne) {
  Run("leak");
  Run("crash");
  EXPECT_FALSE(Reported("leak-program"));
}

// The reports of a server that has done a bit of everything and is stopped.
class KvServerMemoryTest : public testing::Test {
 protected:
  void WorkAndStop() {
    {
      Client stClient(m_stServer);
      Client stIdle(m_stServer);  // is there at the end
      stClient.Ask({"SET", "large", std::string(100000, 'x')});
      stClient.Send(Repeat(Request({"SET", "a", "1"}) + Request({"GET", "large"}), 20));
      stClient.Read(40);
      stClient.Ask({"MGET", "a", "b", "c", "d", "large"});
      stClient.Ask({"INFO", "all"});
      stClient.Ask({"BGSAVE"});
      Client(m_stServer).Ask({"QUIT"});
      EXPECT_EQ(0, m_stServer.Stop());
    }
  }
  std::string Path(const std::string& strName) const {
    return m_stServer.Directory() + "/log/memory-" + strName + ".txt";
  }

  ServerProcess m_stServer{{"server.workers=2"}};
};

#ifdef ZELK_KV_MEMORY_TRACK
TEST_F(KvServerMemoryTest, NoProcessLeavesABlock) {
  WorkAndStop();
  for (const char* pName : {"master", "gateway", "worker-0", "worker-1"}) {
    EXPECT_EQ(0, access(Path(pName).c_str(), F_OK)) << pName;
    EXPECT_EQ("", ReadFile(Path(pName))) << pName;
  }
}

TEST_F(KvServerMemoryTest, ACommandThatWaitsForAWorkerAtTheEndIsGivenUp) {
  {
    const StoppedProcess stStopped(m_stServer.Worker(1));
    Client stClient(m_stServer);
    {
      Client stAsker(m_stServer);
      stAsker.Send(Request({"MGET", KeyOf(0, 2), KeyOf(1, 2)}));
      EXPECT_TRUE(WaitUntil([&] {
        return stClient.Ask({"INFO", "commandstats"}).find("mget:calls=1") != std::string::npos;
      }));
    }
    SendSignal(m_stServer.Master(), SIGTERM);
    EXPECT_TRUE(WaitUntil([&] { return access(Path("gateway").c_str(), F_OK) == 0; }));
    EXPECT_EQ("", ReadFile(Path("gateway")));
  }
  EXPECT_EQ(0, m_stServer.Wait());
}
#else
TEST_F(KvServerMemoryTest, OtherBuildsRecordAndReportNothing) {
  WorkAndStop();
  for (const char* pName : {"master", "gateway", "worker-0", "worker-1"}) {
    EXPECT_NE(0, access(Path(pName).c_str(), F_OK)) << pName;
  }
}
#endif

}  // namespace
