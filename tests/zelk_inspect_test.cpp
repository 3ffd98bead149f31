// The tool on segments that other processes hold, as an operator calls it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "hash_map.h"
#include "heap_image.h"
#include "inspect_fixture.h"
#include "look.h"
#include "queue_fixture.h"
#include "test_support.h"
#include "verify.h"

namespace {

// A queue that two other processes hold.
class InspectQueueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!MayReadSiblings()) {
      GTEST_SKIP() << "kernel.yama.ptrace_scope does not let this user look at processes";
    }
    MessageQueue stQueue;
    ASSERT_EQ(0, Attach(stQueue));
    ASSERT_EQ(3, PushTexts(stQueue, {"hello", "", "a\nb"}));
    stQueue.Detach();
    for (auto* pPeer : {&m_pWriter, &m_pReader}) {
      *pPeer = std::make_unique<ForkedPeer>([this] { return Hold(); });
    }
    ASSERT_TRUE(WaitUntil([this] { return Attachments(m_stKey.Key()) == 2; }));
  }

  int Attach(MessageQueue& stQueue) {
    return stQueue.AttachWithKey(m_strFifo.c_str(), m_stKey.Key(), HEAD_SIZE + RING_SIZE);
  }
  int Hold() {
    MessageQueue stQueue;
    if (Attach(stQueue) != 0) {
      return 1;
    }
    pause();
    return 0;
  }
  void LetGo() {
    m_pWriter.reset();
    m_pReader.reset();
    ASSERT_EQ(0, Attachments(m_stKey.Key()));
  }
  std::string Name() const { return KeyName(m_stKey.Key()); }

  const PrivateDirectory m_stDirectory;
  const PrivateKey m_stKey;
  const std::string m_strFifo = m_stDirectory.File("fifo");
  std::unique_ptr<ForkedPeer> m_pWriter;
  std::unique_ptr<ForkedPeer> m_pReader;
};

TEST_F(InspectQueueTest, DepthAndOffsetsAreShown) {
  const ToolRun_t stRun = RunTool({"queue", Name()});
  EXPECT_EQ(0, stRun.iExit);
  EXPECT_EQ("", stRun.strError);
  EXPECT_EQ("64", Field(stRun.strOut, "ring size"));
  EXPECT_EQ("0", Field(stRun.strOut, "read offset"));
  EXPECT_EQ("20", Field(stRun.strOut, "write offset"));
  EXPECT_EQ("20", Field(stRun.strOut, "pending bytes"));
  EXPECT_EQ("43", Field(stRun.strOut, "free bytes"));
  EXPECT_EQ("3", Field(stRun.strOut, "pending messages"));
  EXPECT_EQ("5", Field(stRun.strOut, "largest pending"));
  EXPECT_EQ("true", Field(stRun.strOut, "stable"));
  for (const auto* pPeer : {&m_pWriter, &m_pReader}) {
    EXPECT_NE(std::string::npos,
              Field(stRun.strOut, "held by").find(std::to_string((*pPeer)->Pid())));
  }
}

TEST_F(InspectQueueTest, PendingMessagesAreShownAndStay) {
  const ToolRun_t stRun = RunTool({"queue", Name(), "--messages=9", "--bytes=4"});
  EXPECT_NE(std::string::npos, stRun.strOut.find("messages:\n    hell...\n    \n    a\\nb\n"))
      << stRun.strOut;
  LetGo();
  MessageQueue stQueue;
  ASSERT_EQ(0, Attach(stQueue));
  EXPECT_EQ((Texts_t{"hello", "", "a\nb"}), PopTexts(stQueue, 9));
}

TEST_F(InspectQueueTest, JsonHasTheSame) {
  const ToolRun_t stRun = RunTool({"queue", Name(), "--json", "--messages=1"});
  EXPECT_NE(std::string::npos, stRun.strOut.find("\"pending_bytes\":20,"));
  EXPECT_NE(std::string::npos, stRun.strOut.find("\"messages\":[{\"message\":\"hello\"}]}\n"));
  EXPECT_EQ(1, std::count(stRun.strOut.begin(), stRun.strOut.end(), '\n'));
}

// Whoever attached was the last to do so; a trace that is the same saw nobody, however shortly.
TEST_F(InspectQueueTest, NothingIsAttachedToAQueueInUse) {
  const std::string strBefore = AttachmentTrace(m_stKey.Key());
  RunTool({"queue", Name(), "--rate=0.01"});
  RunTool({"verify", Name()});
  RunTool({"remove", Name(), "--yes"});
  RunTool({"list", "--all"});
  EXPECT_EQ(0, RunTool({"queue", Name(), "--watch=0.01", "--count=5"}).iExit);
  EXPECT_EQ(strBefore, AttachmentTrace(m_stKey.Key()));
  EXPECT_EQ(0u, strBefore.find("2 attached"));
}

TEST_F(InspectQueueTest, AQueueThatNobodyHoldsIsReadToo) {
  LetGo();
  const ToolRun_t stRun = RunTool({"queue", Name()});
  EXPECT_EQ(0, stRun.iExit);
  EXPECT_EQ("3", Field(stRun.strOut, "pending messages"));
  EXPECT_EQ("nobody", Field(stRun.strOut, "held by"));
  EXPECT_EQ(0, Attachments(m_stKey.Key()));
}

TEST_F(InspectQueueTest, ItIsFoundByIdAndByPathToo) {
  const std::string strId = std::to_string(shmget(m_stKey.Key(), 0, 0));
  EXPECT_EQ("3", Field(RunTool({"queue", strId}).strOut, "pending messages"));
  const std::string strPath = m_stDirectory.File("other");
  WriteFile(strPath, "");
  const PrivateKey stDerived(ftok(strPath.c_str(), 7));
  MessageQueue stQueue;
  ASSERT_EQ(0, stQueue.AttachWithKey(m_strFifo.c_str(), stDerived.Key(), HEAD_SIZE + 100));
  EXPECT_EQ("100", Field(RunTool({"queue", strPath + ":7"}).strOut, "ring size"));
}

TEST_F(InspectQueueTest, VerifyTellsSoundFromDamaged) {
  const ToolRun_t stSound = RunTool({"verify", Name()});
  EXPECT_EQ(0, stSound.iExit);
  EXPECT_EQ("sound", Field(stSound.strOut, "verdict"));
  EXPECT_EQ("ring", Field(stSound.strOut, "format"));
  HeapImage(m_stKey.Key()).SetHalf(HEAD_SIZE, 1000);
  const ToolRun_t stDamaged = RunTool({"verify", Name()});
  EXPECT_EQ(1, stDamaged.iExit);
  EXPECT_EQ("not sound", Field(stDamaged.strOut, "verdict"));
  EXPECT_NE(std::string::npos, stDamaged.strOut.find("records do not end at the write offset 20"));
}

TEST_F(InspectQueueTest, ARingIsNoHeap) {
  const ToolRun_t stRun = RunTool({"heap", Name()});
  EXPECT_EQ(3, stRun.iExit);
  EXPECT_EQ("zelk-inspect: " + Name() + ": it is a ring\n", stRun.strError);
  EXPECT_EQ("", stRun.strOut);
}

TEST_F(InspectQueueTest, TheListHasIt) {
  const ToolRun_t stRun = RunTool({"list"});
  EXPECT_EQ(0, stRun.iExit);
  EXPECT_NE(std::string::npos, stRun.strOut.find(Name() + "  ring "));
}

TEST_F(InspectQueueTest, WhatIsInUseIsNotRemoved) {
  const ToolRun_t stRun = RunTool({"remove", "--yes", Name(), m_strFifo});
  EXPECT_EQ(3, stRun.iExit);
  const std::string strSegment = "zelk-inspect: " + Name() + ": in use by ";
  EXPECT_EQ(0u, stRun.strError.find(strSegment)) << stRun.strError;
  EXPECT_NE(std::string::npos, stRun.strError.find(m_strFifo + ": in use by "));
  EXPECT_EQ(2, Attachments(m_stKey.Key()));
  EXPECT_EQ(0, access(m_strFifo.c_str(), F_OK));
}

TEST_F(InspectQueueTest, WhatNobodyUsesIsRemovedAfterAYes) {
  LetGo();
  for (const char* pNo : {"", "n\n", "no\n", "Y es\n"}) {
    const ToolRun_t stKept = RunTool({"remove", Name()}, pNo);
    EXPECT_EQ(3, stKept.iExit);
    EXPECT_NE(std::string::npos, stKept.strOut.find("a ring with 3 pending messages)? [y/N]"));
  }
  EXPECT_EQ(0, Attachments(m_stKey.Key()));
  EXPECT_EQ(0, RunTool({"remove", Name(), m_strFifo}, "y\nyes\n").iExit);
  EXPECT_EQ(-1, Attachments(m_stKey.Key()));
  EXPECT_NE(0, access(m_strFifo.c_str(), F_OK));
}

TEST_F(InspectQueueTest, TheEndOfALongAnswerIsNoAnswerToTheNextQuestion) {
  LetGo();
  for (const size_t iBefore : {1u, 15u, 31u, 63u, 1000u}) {
    const std::string strLong = std::string(iBefore, 'n') + "y\n";
    EXPECT_EQ(3, RunTool({"remove", Name(), m_strFifo}, strLong).iExit) << iBefore;
    EXPECT_EQ(3, RunTool({"remove", Name(), m_strFifo}, "y").iExit);
    ASSERT_EQ(0, Attachments(m_stKey.Key())) << iBefore;
    ASSERT_EQ(0, access(m_strFifo.c_str(), F_OK)) << iBefore;
  }
}

TEST(InspectRemoveTest, WhatIsNotOursIsRemovedWithoutAQuestionOnlyWhenToldSo) {
  const PrivateKey stKey;
  const std::string strName = KeyName(stKey.Key());
  ASSERT_NE(-1, shmget(stKey.Key(), 100, IPC_CREAT | 0600));
  const ToolRun_t stRun = RunTool({"remove", "--yes", strName});
  EXPECT_EQ(3, stRun.iExit);
  EXPECT_EQ("zelk-inspect: " + strName + ": not one of our formats, kept; --foreign removes it\n",
            stRun.strError);
  ASSERT_EQ(0, Attachments(stKey.Key()));
  EXPECT_EQ(0, RunTool({"remove", "--yes", "--foreign", strName}).iExit);
  EXPECT_EQ(-1, Attachments(stKey.Key()));
}

TEST(InspectRemoveTest, AfterAYesToTheQuestionWhatIsNotOursIsRemovedToo) {
  const PrivateKey stKey;
  ASSERT_NE(-1, shmget(stKey.Key(), 100, IPC_CREAT | 0600));
  const ToolRun_t stRun = RunTool({"remove", KeyName(stKey.Key())}, "y\n");
  EXPECT_EQ(0, stRun.iExit);
  EXPECT_NE(std::string::npos, stRun.strOut.find("100 bytes, not one of our formats)? [y/N]"));
  EXPECT_EQ(-1, Attachments(stKey.Key()));
}

TEST_F(InspectQueueTest, OutputThatCanNotBeWrittenIsAnError) {
  LetGo();
  const std::string strFull = "zelk-inspect: standard output: No space left on device\n";
  for (const std::vector<std::string>& vecArguments : {std::vector<std::string>{"--help"},
                                                       {"list"},
                                                       {"queue", Name()},
                                                       {"verify", Name()},
                                                       {"queue", Name(), "--watch=0.01"}}) {
    const ToolRun_t stRun = RunToolOnFullDisk(vecArguments);
    EXPECT_EQ(4, stRun.iExit) << vecArguments[0];
    EXPECT_EQ(strFull, stRun.strError) << vecArguments[0];
  }
  EXPECT_EQ(4, RunToolOnFullDisk({"remove", Name()}, "y\n").iExit);
  EXPECT_EQ(0, Attachments(m_stKey.Key()));
}

TEST_F(InspectQueueTest, OnlyFifosAreRemovedByTheirPath) {
  const std::string strFile = m_stDirectory.File("precious");
  WriteFile(strFile, "kept");
  const std::string strLink = m_stDirectory.File("link");
  ASSERT_EQ(0, symlink(m_strFifo.c_str(), strLink.c_str()));
  for (const std::string& strPath : {strFile, strLink, m_stDirectory.Path()}) {
    EXPECT_EQ("zelk-inspect: " + strPath + ": not a FIFO\n",
              RunTool({"remove", "--yes", strPath}).strError);
  }
  EXPECT_EQ("kept", ReadFile(strFile));
}

TEST_F(InspectQueueTest, AWatcherPrintsOneLookAfterTheOtherWithRates) {
  const ToolRun_t stRun = RunTool({"queue", Name(), "--watch=0.02", "--count=3", "--json"});
  EXPECT_EQ(0, stRun.iExit);
  EXPECT_EQ(3, std::count(stRun.strOut.begin(), stRun.strOut.end(), '\n'));
  EXPECT_NE(std::string::npos, stRun.strOut.find("\"bytes_written_per_second\":0.0"));
  EXPECT_GT(stRun.strOut.find("bytes_written_per_second"), stRun.strOut.find('\n'));
}

TEST(InspectErrorTest, WhatIsNotThereIsSaid) {
  const PrivateKey stKey;
  const std::string strKey = KeyName(stKey.Key());
  EXPECT_EQ("zelk-inspect: " + strKey + ": no segment has the key " + strKey + "\n",
            RunTool({"queue", strKey}).strError);
  EXPECT_EQ("zelk-inspect: 2147483647: no such segment\n",
            RunTool({"verify", "2147483647"}).strError);
  EXPECT_EQ("zelk-inspect: /no/such/path: No such file or directory\n",
            RunTool({"table", "/no/such/path:1"}).strError);
  EXPECT_EQ("zelk-inspect: /tmp:x: no project number behind the colon\n",
            RunTool({"table", "/tmp:x"}).strError);
  for (const char* pNonsense : {"-5", "99999999999", "0x", "0x123456789", "0x0", "five", ""}) {
    const ToolRun_t stRun = RunTool({"heap", "--", pNonsense});
    EXPECT_EQ(3, stRun.iExit) << pNonsense;
    EXPECT_NE("", stRun.strError) << pNonsense;
  }
}

// What a watcher that finds nothing writes to a terminal.
std::string WatchInTerminal(const std::string& strName) {
  const int iMaster = posix_openpt(O_RDWR | O_NOCTTY);
  char szText[256] = "";
  if (iMaster != -1 && grantpt(iMaster) == 0 && unlockpt(iMaster) == 0) {
    const ForkedPeer stWatcher([&] {
      const int iTerminal = open(ptsname(iMaster), O_RDWR | O_NOCTTY);
      dup2(iTerminal, STDOUT_FILENO);
      dup2(iTerminal, STDERR_FILENO);
      Options_t stOptions;
      stOptions.strCommand = "queue";
      stOptions.vecNames = {strName};
      stOptions.fWatch = 1;
      return RunLook(stOptions);
    });
    size_t iSize = 0;
    ssize_t iRead = 0;
    while (iSize < sizeof(szText) - 1 && strchr(szText, '\n') == nullptr &&
           (iRead = read(iMaster, szText + iSize, sizeof(szText) - 1 - iSize)) > 0) {
      iSize += static_cast<size_t>(iRead);
    }
  }
  close(iMaster);
  return szText;
}

TEST(InspectErrorTest, ATerminalIsClearedBeforeTheErrorIsShown) {
  const PrivateKey stKey;
  const std::string strKey = KeyName(stKey.Key());
  EXPECT_EQ("\033[H\033[2Jzelk-inspect: " + strKey + ": no segment has the key " + strKey + "\r\n",
            WatchInTerminal(strKey));
}

TEST(InspectErrorTest, ForeignSegmentsAreNotOurs) {
  const PrivateKey stKey;
  HeapImage stForeign(stKey.Key(), 5000000);
  memset(stForeign.Base(), 0x77, 5000000);
  for (const char* pCommand : {"queue", "heap", "table", "verify"}) {
    const ToolRun_t stRun = RunTool({pCommand, KeyName(stKey.Key())});
    EXPECT_EQ(3, stRun.iExit);
    EXPECT_EQ("zelk-inspect: " + KeyName(stKey.Key()) + ": not one of our formats\n",
              stRun.strError);
  }
}

TEST(InspectErrorTest, WrongUsageHasAnExitCodeOfItsOwn) {
  const ToolRun_t stRun = RunTool({"queue"});
  EXPECT_EQ(2, stRun.iExit);
  EXPECT_EQ("zelk-inspect: queue of what?; see zelk-inspect --help\n", stRun.strError);
}

TEST(InspectErrorTest, HelpAndVersionSayThemselves) {
  EXPECT_EQ("zelk-inspect 1.0.0\n", RunTool({"--version"}).strOut);
  const ToolRun_t stRun = RunTool({"--help"});
  EXPECT_EQ(0, stRun.iExit);
  EXPECT_NE(std::string::npos, stRun.strOut.find("usage: zelk-inspect COMMAND"));
}

int VerifyByKey(key_t iKey) {
  Options_t stOptions;
  stOptions.vecNames = {KeyName(iKey)};
  return RunVerify(stOptions);
}

TEST(InspectPermissionTest, AnUnreadableSegmentIsSaid) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs a segment of another user";
  }
  const PrivateKey stKey;
  const HeapImage stImage(stKey.Key(), 100);
  const ToolRun_t stRun = RunAsNobody(VerifyByKey, stKey.Key());
  EXPECT_EQ(3, stRun.iExit);
  EXPECT_EQ("zelk-inspect: " + KeyName(stKey.Key()) + ": Permission denied\n", stRun.strError);
}

// The holder is of another user, or has forbidden that anybody looks.
TEST(InspectPermissionTest, AHolderThatMayNotBeLookedAtIsSaidAndTheSegmentNotAttached) {
  const PrivateKey stKey;
  const ForkedPeer stHolder([&] {
    const int iId = shmget(stKey.Key(), 100, IPC_CREAT | 0666);
    prctl(PR_SET_DUMPABLE, 0);
    shmat(iId, nullptr, 0);
    pause();
    return 0;
  });
  ASSERT_TRUE(WaitUntil([&] { return Attachments(stKey.Key()) == 1; }));
  const std::string strBefore = AttachmentTrace(stKey.Key());
  const ToolRun_t stRun = RunAsNobody(VerifyByKey, stKey.Key());
  EXPECT_EQ(3, stRun.iExit);
  EXPECT_NE(std::string::npos, stRun.strError.find("held by 1 that cannot be seen"))
      << stRun.strError;
  EXPECT_EQ(strBefore, AttachmentTrace(stKey.Key()));
}

TEST(InspectHolderTest, ANameWithEscapeSequencesIsPrintable) {
  const PrivateKey stKey;
  const ForkedPeer stHolder([&] {
    prctl(PR_SET_NAME, "\033[2Jme");
    shmat(shmget(stKey.Key(), 100, IPC_CREAT | 0600), nullptr, 0);
    pause();
    return 0;
  });
  ASSERT_TRUE(WaitUntil([&] { return Attachments(stKey.Key()) == 1; }));
  const ToolRun_t stRun = RunTool({"remove", KeyName(stKey.Key())});
  EXPECT_NE(std::string::npos, stRun.strError.find(" (\\x1b[2Jme), kept\n")) << stRun.strError;
}

TEST(InspectLogTest, LinesAreCountedByLevel) {
  const PrivateDirectory stDirectory;
  const std::string strPath = stDirectory.File("server.log");
  WriteFile(strPath,
            "[2024-01-02 15:04:05,678][INFORMATION] one\n"
            "[2024-01-02 15:04:06,001][ERROR] two\n"
            "0000 00 01 02\n"
            "[2024-01-02 15:04:07,002][ERROR] three [WARNING]\n");
  const ToolRun_t stRun = RunTool({"log", strPath});
  EXPECT_EQ(0, stRun.iExit);
  EXPECT_EQ("nobody", Field(stRun.strOut, "held by"));
  EXPECT_EQ("2024-01-02 15:04:05,678", Field(stRun.strOut, "first line"));
  EXPECT_EQ("2024-01-02 15:04:07,002", Field(stRun.strOut, "last line"));
  EXPECT_EQ("1", Field(stRun.strOut, "    INFORMATION"));
  EXPECT_EQ("2", Field(stRun.strOut, "    ERROR"));
  EXPECT_EQ("0", Field(stRun.strOut, "    WARNING"));
  EXPECT_EQ("1", Field(stRun.strOut, "    other"));
  EXPECT_EQ(3, RunTool({"log", stDirectory.Path()}).iExit);
}

TEST(InspectLogTest, AFifoIsNotOpened) {
  const PrivateDirectory stDirectory;
  const std::string strPath = stDirectory.File("fifo");
  ASSERT_EQ(0, mkfifo(strPath.c_str(), 0600));
  const ToolRun_t stRun = RunTool({"log", strPath});
  EXPECT_EQ(3, stRun.iExit);
  EXPECT_EQ("zelk-inspect: " + strPath + ": not a file\n", stRun.strError);
}

}  // namespace
