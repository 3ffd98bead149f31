// zelk-inspect at the example server while it serves.

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "inspect_fixture.h"
#include "kv_server_fixture.h"

namespace {

class KvInspectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!MayReadSiblings()) {
      GTEST_SKIP() << "kernel.yama.ptrace_scope does not let this user look at processes";
    }
    std::ifstream stList(m_stServer.Directory() + "/queues");
    key_t iKey = 0;
    std::string strFifo;
    while (stList >> iKey >> strFifo) {
      m_vecQueues.push_back(iKey);
    }
    Client(m_stServer).Ask({"GET", "the worker has attached all"});
    ASSERT_EQ(2u, m_vecQueues.size());
    ASSERT_EQ(1u, m_stServer.TableKeys().size());
  }

  std::string Table() const { return KeyName(m_stServer.TableKeys()[0]); }
  std::vector<std::string> All() const {
    return {Table(), KeyName(m_vecQueues[0]), KeyName(m_vecQueues[1])};
  }

  ServerProcess m_stServer;
  std::vector<key_t> m_vecQueues;  // requests, answers
};

TEST_F(KvInspectTest, KeysAreFoundByTheirPattern) {
  Client stClient(m_stServer);
  stClient.Ask({"SET", "color:sky", "blue"});
  stClient.Ask({"SET", "color:sun", "yellow"});
  stClient.Ask({"SET", "shape", "round"});
  const ToolRun_t stRun = RunTool({"table", Table(), "--keys=scolor:s[k-u]*", "--values"});
  EXPECT_EQ(0, stRun.iExit) << stRun.strError;
  EXPECT_EQ("2", Field(stRun.strOut, "matching keys"));
  EXPECT_NE(std::string::npos, stRun.strOut.find("scolor:sky"));
  EXPECT_NE(std::string::npos, stRun.strOut.find("yellow"));
  EXPECT_EQ(std::string::npos, stRun.strOut.find("shape"));
  const std::string strAll = RunTool({"table", Table(), "--keys=s*", "--limit=1"}).strOut;
  EXPECT_EQ("3", Field(strAll, "matching keys"));
  EXPECT_EQ(std::string::npos, strAll.find("yellow"));
}

TEST_F(KvInspectTest, EntriesAndFreeSpaceAreThoseOfTheTable) {
  Client stClient(m_stServer);
  const uint64_t iBefore = std::stoul(Field(RunTool({"table", Table()}).strOut, "entries"));
  for (int i = 0; i < 25; ++i) {
    stClient.Ask({"SET", "key" + std::to_string(i), std::string(1000, 'v')});
  }
  const ToolRun_t stTable = RunTool({"table", Table()});
  EXPECT_EQ(std::to_string(iBefore + 25), Field(stTable.strOut, "entries"));
  EXPECT_EQ(Field(stTable.strOut, "entries"), Field(stTable.strOut, "entries found"));
  EXPECT_EQ("0", Field(stTable.strOut, "faults"));
  EXPECT_NE(std::string::npos, stTable.strOut.find("longest chains:\n    bucket  entries\n"));
  const ToolRun_t stHeap = RunTool({"heap", Table()});
  EXPECT_EQ("0", Field(stHeap.strOut, "faults"));
  EXPECT_EQ(Field(stTable.strOut, "entries"), Field(stHeap.strOut, "blocks in use"));
  // 25 values of one class take three batches of ten.
  EXPECT_NE(std::string::npos, stHeap.strOut.find("    1152        5       5760\n"))
      << stHeap.strOut;
}

TEST_F(KvInspectTest, AServerUnderLoadIsSoundAndNotDisturbed) {
  std::vector<std::string> vecBefore;
  for (const std::string& strName : All()) {
    vecBefore.push_back(AttachmentTrace(static_cast<key_t>(std::stoul(strName, nullptr, 16))));
  }
  const ForkedPeer stLoad([this] {
    Client stClient(m_stServer);
    for (int i = 0;; ++i) {
      stClient.Ask({"SET", "key" + std::to_string(i % 1000),
                    std::string(static_cast<size_t>(i % 2000), 'v')});
    }
    return 0;
  });
  std::vector<std::string> vecArguments = All();
  vecArguments.insert(vecArguments.begin(), "verify");
  for (int i = 0; i < 3; ++i) {
    const ToolRun_t stRun = RunTool(vecArguments);
    ASSERT_EQ(0, stRun.iExit) << stRun.strOut << stRun.strError;
  }
  for (const std::string& strName : All()) {
    const auto iKey = static_cast<key_t>(std::stoul(strName, nullptr, 16));
    EXPECT_EQ(vecBefore.front(), AttachmentTrace(iKey));
    vecBefore.erase(vecBefore.begin());
  }
}

TEST_F(KvInspectTest, WhatAStoppedWorkerHasNotTakenIsPendingAndStays) {
  Client stClient(m_stServer);
  {
    const StoppedProcess stStopped(m_stServer.Worker(0));
    stClient.Send(Request({"SET", "color", "a rare shade of red"}));
    std::string strOut;
    const auto fnPending = [&] {
      const ToolRun_t stRun =
          RunTool({"queue", KeyName(m_vecQueues[0]), "--messages=9", "--bytes=999"});
      strOut = stRun.strOut + stRun.strError;
      return strOut.find("a rare shade of red") != std::string::npos;
    };
    EXPECT_TRUE(WaitUntil(fnPending, 300)) << strOut;
    EXPECT_NE("0", Field(strOut, "pending messages"));
  }
  EXPECT_EQ("+OK\r\n", stClient.Read());
}

TEST_F(KvInspectTest, NothingOfARunningServerCanBeRemoved) {
  std::vector<std::string> vecArguments = All();
  vecArguments.insert(vecArguments.begin(), {"remove", "--yes"});
  EXPECT_EQ(3, RunTool(vecArguments).iExit);
  Client stClient(m_stServer);
  EXPECT_EQ("+OK\r\n", stClient.Ask({"SET", "color", "red"}));
}

TEST_F(KvInspectTest, ATableThatAServerLeftIsRead) {
  Client(m_stServer).Ask({"SET", "color", "red"});
  m_stServer.Stop();
  const ToolRun_t stRun = RunTool({"table", Table(), "--keys=scolor", "--values"});
  EXPECT_EQ(0, stRun.iExit);
  EXPECT_EQ("nobody", Field(stRun.strOut, "held by"));
  EXPECT_NE(std::string::npos, stRun.strOut.find("red"));
  EXPECT_EQ(0, RunTool({"verify", Table()}).iExit);
}

}  // namespace
