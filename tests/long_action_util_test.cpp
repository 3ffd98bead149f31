// The tables of the runner: what the host hears about its children.

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "long_action_fixture.h"

namespace {

class LongActionUtilTest : public LongActionFixture {};

int ReturnZero() { return 0; }

std::string ReadFailedText(int iFD, int iResult) {
  return "fd:" + std::to_string(iFD) + ", read failed, return " + std::to_string(iResult);
}

TEST_F(LongActionUtilTest, InstanceIsOneObjectWithoutChildren) {
  EXPECT_EQ(&LongActionUtil::Instance(), &LongActionUtil::Instance());
  EXPECT_TRUE(LongActionUtil::Instance().EnumAllChildren().empty());
  EXPECT_EQ(nullptr, LongActionUtil::Instance().PollChild());
}

TEST_F(LongActionUtilTest, ResponseHasOutputErrorsCodeAndTags) {
  const pid_t iPid = Start(
      [] {
        WriteText(1, "out");
        WriteText(2, "err");
        return 3;
      },
      0x80000001u, 0xfffffffeu);
  const Response_t pResponse = Finish(iPid);
  EXPECT_EQ("out", pResponse->strStdOut);
  EXPECT_EQ("err", pResponse->strStdError);
  EXPECT_EQ(3, pResponse->iRetcode);
  EXPECT_EQ(static_cast<int>(0x80000001u), pResponse->iMachineID);
  EXPECT_EQ(0xfffffffeu, pResponse->iFlowno);
  EXPECT_EQ(nullptr, pResponse->event_stdout);
  EXPECT_EQ(nullptr, pResponse->event_stderr);
}

TEST(LongActionResponseTest, NewOneHasNoDescriptorsNoTagsAndCodeZero) {
  const long_action_response_t stResponse;
  for (const int iFD : {stResponse.fd_stdout[0], stResponse.fd_stdout[1], stResponse.fd_stderr[0],
                        stResponse.fd_stderr[1]}) {
    EXPECT_EQ(-1, iFD);
  }
  EXPECT_EQ(0, stResponse.iRetcode);
  EXPECT_EQ(0, stResponse.iMachineID);
  EXPECT_EQ(0u, stResponse.iFlowno);
}

TEST_F(LongActionUtilTest, NextChildWithTheSameDescriptorsIsHeardToo) {
  for (const char* pText : {"first", "second"}) {
    const pid_t iPid = Start([=] {
      WriteText(1, pText);
      return 0;
    });
    WaitForEnd(iPid);
    EXPECT_EQ(1, Turn());
    EXPECT_EQ(pText, Finish(iPid)->strStdOut);
  }
}

TEST_F(LongActionUtilTest, ExitCodeIsTheLowByteOfTheResult) {
  EXPECT_EQ(0, Run([] { return 256; })->iRetcode);
  EXPECT_EQ(255, Run([] { return -1; })->iRetcode);
  EXPECT_EQ(1, Run([] { return 257; })->iRetcode);
}

TEST_F(LongActionUtilTest, CodeZeroIsAnEndLikeAnyOther) { EXPECT_EQ(0, Run(ReturnZero)->iRetcode); }

TEST_F(LongActionUtilTest, DeathBySignalIsCollectedAsZero) {
  const pid_t iPid = Start(WorkForEver);
  SendSignal(iPid, SIGKILL);
  EXPECT_EQ(0, Finish(iPid)->iRetcode);
}

// ---- PollChild

TEST_F(LongActionUtilTest, PollWithoutAnEndedChildChangesNothing) {
  EXPECT_EQ(nullptr, Poll());
  const pid_t iPid = Start(WorkForEver);
  EXPECT_TRUE(m_stUtil.IsLongAction(iPid, 0));
  EXPECT_EQ(nullptr, Poll());
  EXPECT_EQ(std::vector<int>{iPid}, m_stUtil.EnumAllChildren());
  EXPECT_TRUE(m_stUtil.IsLongAction(iPid, 0));
}

TEST_F(LongActionUtilTest, PollDoesNotSweep) {
  const pid_t iPid = Start(ReturnZero);
  WaitForEnd(iPid);
  EXPECT_EQ(nullptr, Poll());
  m_stUtil.IsLongAction(0, 0);
  EXPECT_NE(nullptr, Poll());
  EXPECT_EQ(nullptr, Poll());
}

TEST_F(LongActionUtilTest, PollForgetsTheChild) {
  const pid_t iPid = Start(ReturnZero);
  ASSERT_EQ(0, Finish(iPid)->iRetcode);
  EXPECT_TRUE(m_stUtil.EnumAllChildren().empty());
  EXPECT_FALSE(m_stUtil.IsLongAction(iPid, 0));
}

TEST_F(LongActionUtilTest, PollTakesTheFirstSlotAndAFreedSlotIsTheNextToBeUsed) {
  const pid_t iFirst = Start([] { return 1; });
  const pid_t iSecond = Start([] { return 2; });
  WaitForEnd(iSecond);
  ASSERT_EQ(1, Finish(iFirst)->iRetcode);
  const pid_t iThird = Start([] { return 3; });  // into the slot of the first
  WaitForEnd(iThird);
  m_stUtil.IsLongAction(0, 0);
  EXPECT_EQ(3, CodeOf(Poll()));
  EXPECT_EQ(2, CodeOf(Poll()));
}

TEST_F(LongActionUtilTest, PollSkipsChildrenThatStillRun) {
  const pid_t iRunning = Start(WorkForEver);
  EXPECT_EQ(2, Run([] { return 2; })->iRetcode);
  EXPECT_EQ(std::vector<int>{iRunning}, m_stUtil.EnumAllChildren());
}

TEST_F(LongActionUtilTest, PollGivesNullOnceForAChildThatWasFinishedElsewhere) {
  const pid_t iFirst = Start([] { return 1; });
  const pid_t iSecond = Start([] { return 2; });
  WaitForEnd(iFirst);
  WaitForEnd(iSecond);
  m_stUtil.IsLongAction(0, 0);
  ASSERT_NE(nullptr, Exit(iFirst, 0));
  EXPECT_EQ(nullptr, Poll());
  EXPECT_FALSE(m_stUtil.IsLongAction(iFirst, 0));
  EXPECT_EQ(2, CodeOf(Poll()));
}

// ---- IsLongAction

TEST_F(LongActionUtilTest, PidZeroIsALongActionWhileASlotIsFree) {
  EXPECT_TRUE(m_stUtil.IsLongAction(0, 0));
  EXPECT_TRUE(m_stUtil.IsLongAction(0, 12345));
}

TEST_F(LongActionUtilTest, OtherPidsAreNoLongActions) {
  Start(WorkForEver);
  EXPECT_FALSE(m_stUtil.IsLongAction(getpid(), 0));
  EXPECT_FALSE(m_stUtil.IsLongAction(-1, 0));
}

TEST_F(LongActionUtilTest, SweepCollectsAllChildrenWhateverItIsAskedFor) {
  const pid_t iFirst = Start([] { return 1; });
  const pid_t iSecond = Start([] { return 2; });
  WaitForEnd(iFirst);
  WaitForEnd(iSecond);
  EXPECT_TRUE(m_stUtil.IsLongAction(iFirst, 77));  // the answer is found in the first slot
  EXPECT_EQ(1, CodeOf(Poll()));
  EXPECT_EQ(2, CodeOf(Poll()));
}

TEST_F(LongActionUtilTest, CollectedCodeSurvivesFurtherSweeps) {
  const pid_t iPid = Start([] { return 9; });
  WaitForEnd(iPid);
  EXPECT_TRUE(m_stUtil.IsLongAction(iPid, 0));
  EXPECT_TRUE(m_stUtil.IsLongAction(iPid, 0));
  EXPECT_EQ(9, CodeOf(Poll()));
}

TEST_F(LongActionUtilTest, SweepLeavesOtherChildrenOfTheHostAlone) {
  ForkedPeer stPeer([] { return 42; });
  WaitForEnd(stPeer.Pid());
  Start(WorkForEver);
  EXPECT_FALSE(m_stUtil.IsLongAction(stPeer.Pid(), 0));
  EXPECT_EQ(42, stPeer.Wait());
}

// ---- ChildExit

TEST_F(LongActionUtilTest, ChildExitOfAnUnknownPidIsNull) {
  EXPECT_EQ(nullptr, Exit(getpid(), 0));
  EXPECT_EQ(nullptr, Exit(0, 0));
}

TEST_F(LongActionUtilTest, ChildExitKeepsTheStatusAsItIs) {
  const pid_t iPid = Start(ReturnZero);
  WaitAndReap(iPid);
  EXPECT_EQ(70000, CodeOf(Exit(iPid, 70000)));
  EXPECT_EQ(nullptr, Exit(iPid, 70000));
}

TEST_F(LongActionUtilTest, ChildExitFreesNoSlot) {
  const pid_t iPid = Start(ReturnZero);
  WaitAndReap(iPid);
  ASSERT_NE(nullptr, Exit(iPid, 0));
  EXPECT_TRUE(m_stUtil.EnumAllChildren().empty());
  EXPECT_TRUE(m_stUtil.IsLongAction(iPid, 0));
  EXPECT_EQ(nullptr, Poll());
  EXPECT_TRUE(m_stUtil.IsLongAction(iPid, 0));
}

TEST_F(LongActionUtilTest, ChildExitClosesAllFourDescriptors) {
  const int iOpen = OpenDescriptors();
  const pid_t iPid = Start(ReturnZero);
  EXPECT_EQ(iOpen + 4, OpenDescriptors());
  WaitAndReap(iPid);
  const Response_t pResponse = Exit(iPid, 0);
  ASSERT_NE(nullptr, pResponse);
  EXPECT_EQ(iOpen, OpenDescriptors());
  for (const int iFD : {pResponse->fd_stdout[0], pResponse->fd_stdout[1], pResponse->fd_stderr[0],
                        pResponse->fd_stderr[1]}) {
    EXPECT_EQ(-1, fcntl(iFD, F_GETFD)) << iFD;
    EXPECT_EQ(-100, m_stUtil.EventCallback(iFD));
  }
}

TEST_F(LongActionUtilTest, ChildExitLosesWhatWasNotRead) {
  const pid_t iPid = Start([] {
    WriteText(1, "unread");
    return 0;
  });
  WaitAndReap(iPid);
  const Response_t pResponse = Exit(iPid, 0);
  ASSERT_NE(nullptr, pResponse);
  EXPECT_EQ("", pResponse->strStdOut);
}

TEST_F(LongActionUtilTest, FinishedChildIsOutOfTheEpollSetThoughASiblingHoldsItsPipe) {
  int arrControl[2];
  ASSERT_EQ(0, pipe2(arrControl, O_CLOEXEC));
  const pid_t iPid = Start(ReturnZero);
  const pid_t iSibling = Start([&] {  // inherits the first one's pipes
    int iFD = -1;
    if (read(arrControl[0], &iFD, sizeof(iFD)) == sizeof(iFD)) {
      WriteText(iFD, "into the finished pipe");
    }
    return 0;
  });
  WaitAndReap(iPid);
  const Response_t pResponse = Exit(iPid, 0);
  ASSERT_NE(nullptr, pResponse);
  WriteText(arrControl[1],
            std::string(reinterpret_cast<const char*>(&pResponse->fd_stdout[1]), sizeof(int)));
  WaitForEnd(iSibling);
  EXPECT_EQ(0, Turn());
  close(arrControl[0]);
  close(arrControl[1]);
}

// ---- EventCallback

TEST_F(LongActionUtilTest, EventOfAnUnknownDescriptorIsRefused) {
  EXPECT_EQ(-100, m_stUtil.EventCallback(m_iEpollFD));
  EXPECT_EQ(-100, m_stUtil.EventCallback(-1));
}

TEST_F(LongActionUtilTest, EventReadsOnceAndAtMost1024Bytes) {
  int iStdoutFD = -1;
  int iStderrFD = -1;
  const pid_t iPid = Start2(
      [] {
        WriteText(1, std::string(1500, 'o'));
        WriteText(2, std::string(1024, 'e'));
        return 0;
      },
      iStdoutFD, iStderrFD);
  WaitAndReap(iPid);
  EXPECT_EQ(0, m_stUtil.EventCallback(iStdoutFD));
  EXPECT_EQ(0, m_stUtil.EventCallback(iStderrFD));
  const Response_t pResponse = Exit(iPid, 0);
  ASSERT_NE(nullptr, pResponse);
  EXPECT_EQ(std::string(1024, 'o'), pResponse->strStdOut);
  EXPECT_EQ(std::string(1024, 'e'), pResponse->strStdError);
}

TEST_F(LongActionUtilTest, AnyBytesAreCollected) {
  const std::string strBytes("\0\xff\n\0", 4);
  EXPECT_EQ(strBytes, Run([&] {
                        WriteText(1, strBytes);
                        return 0;
                      })->strStdOut);
}

TEST_F(LongActionUtilTest, FailedReadIsToldAndTheDescriptorStaysRegistered) {
  int iStdoutFD = -1;
  int iStderrFD = -1;
  Start2(WorkForEver, iStdoutFD, iStderrFD);
  fcntl(iStdoutFD, F_SETFL, O_NONBLOCK);
  for (int i = 0; i < 2; ++i) {
    int iResult = -1;
    EXPECT_EQ(ReadFailedText(iStdoutFD, -1),
              CaptureOutput(1, [&] { iResult = m_stUtil.EventCallback(iStdoutFD); }));
    EXPECT_EQ(0, iResult);
  }
}

TEST_F(LongActionUtilTest, EndOfFileIsToldAsAFailedRead) {
  int iStdoutFD = -1;
  int iStderrFD = -1;
  Start2(WorkForEver, iStdoutFD, iStderrFD);
  const int iNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
  dup2(iNull, iStderrFD);
  close(iNull);
  int iResult = -1;
  EXPECT_EQ(ReadFailedText(iStderrFD, 0),
            CaptureOutput(1, [&] { iResult = m_stUtil.EventCallback(iStderrFD); }));
  EXPECT_EQ(0, iResult);
}

// ---- Registration

TEST_F(LongActionUtilTest, ReadEndIsReportedByItsNumberUntilItIsRead) {
  const pid_t iPid = Start([] {
    WriteText(2, "e");
    return 0;
  });
  WaitForEnd(iPid);
  epoll_event stEvent{};
  for (int i = 0; i < 2; ++i) {  // level-triggered
    ASSERT_EQ(1, epoll_wait(m_iEpollFD, &stEvent, 1, 0));
    EXPECT_EQ(static_cast<uint32_t>(EPOLLIN), stEvent.events);
  }
  EXPECT_EQ(0, m_stUtil.EventCallback(stEvent.data.fd));
  EXPECT_EQ(0, epoll_wait(m_iEpollFD, &stEvent, 1, 0));
  EXPECT_EQ("e", Finish(iPid)->strStdError);
}

TEST_F(LongActionUtilTest, EndOfTheChildAloneMakesNothingReadable) {
  const pid_t iPid = Start(ReturnZero);
  WaitForEnd(iPid);
  EXPECT_EQ(0, Turn());
}

TEST_F(LongActionUtilTest, Perform2HandsBackReadEndsAndRegistersNone) {
  int iStdoutFD = -1;
  int iStderrFD = -1;
  const pid_t iPid = Start2(
      [] {
        WriteText(1, "out");
        WriteText(2, "err");
        return 6;
      },
      iStdoutFD, iStderrFD);
  WaitForEnd(iPid);
  EXPECT_EQ(0, Turn());
  EXPECT_EQ(0, m_stUtil.EventCallback(iStdoutFD));
  EXPECT_EQ(0, m_stUtil.EventCallback(iStderrFD));
  const Response_t pResponse = Finish(iPid);
  EXPECT_EQ("out", pResponse->strStdOut);
  EXPECT_EQ("err", pResponse->strStdError);
  EXPECT_EQ(6, pResponse->iRetcode);
  EXPECT_EQ(iStdoutFD, pResponse->fd_stdout[0]);
  EXPECT_EQ(iStderrFD, pResponse->fd_stderr[0]);
}

TEST_F(LongActionUtilTest, Perform2NeedsNoEpollSet) {
  OwnUtil stUtil;
  Work stWork(ReturnZero);
  int iStdoutFD = -1;
  int iStderrFD = -1;
  EXPECT_EQ(-1, stUtil.Perform(&stWork, 0, 0));
  const int iOpen = OpenDescriptors();
  ASSERT_EQ(0, stUtil.Perform2(&stWork, 1, 2, iStdoutFD, iStderrFD));
  const pid_t iPid = stUtil.EnumAllChildren().at(0);
  WaitAndReap(iPid);
  const Response_t pResponse(stUtil.ChildExit(iPid, 0));
  ASSERT_NE(nullptr, pResponse);
  EXPECT_EQ(1, pResponse->iMachineID);
  EXPECT_EQ(2u, pResponse->iFlowno);
  EXPECT_EQ(iOpen, OpenDescriptors());
}

// ---- Event objects, list of children

TEST_F(LongActionUtilTest, EventObjectsAreKeptByEitherReadEnd) {
  int iStdoutFD = -1;
  int iStderrFD = -1;
  int iOut = 0;
  int iErr = 0;
  const pid_t iPid = Start2(ReturnZero, iStdoutFD, iStderrFD);
  EXPECT_EQ(nullptr, m_stUtil.GetStdoutEvent(iStdoutFD));
  EXPECT_EQ(nullptr, m_stUtil.GetStderrEvent(iStderrFD));
  m_stUtil.SetStdoutEvent(iStderrFD, &iOut);
  m_stUtil.SetStderrEvent(iStdoutFD, &iErr);
  for (const int iFD : {iStdoutFD, iStderrFD}) {
    EXPECT_EQ(&iOut, m_stUtil.GetStdoutEvent(iFD));
    EXPECT_EQ(&iErr, m_stUtil.GetStderrEvent(iFD));
  }
  const Response_t pResponse = Finish(iPid);
  EXPECT_EQ(&iOut, pResponse->event_stdout);
  EXPECT_EQ(&iErr, pResponse->event_stderr);
}

TEST_F(LongActionUtilTest, EventObjectsOfUnknownDescriptorsAreNull) {
  int iEvent = 0;
  m_stUtil.SetStdoutEvent(m_iEpollFD, &iEvent);
  m_stUtil.SetStderrEvent(m_iEpollFD, &iEvent);
  EXPECT_EQ(nullptr, m_stUtil.GetStdoutEvent(m_iEpollFD));
  EXPECT_EQ(nullptr, m_stUtil.GetStderrEvent(m_iEpollFD));
}

TEST_F(LongActionUtilTest, ChildrenAreListedAscending) {
  std::vector<int> vecPids;
  for (int i = 0; i < 5; ++i) {
    vecPids.push_back(Start(WorkForEver));
  }
  std::sort(vecPids.begin(), vecPids.end());
  EXPECT_EQ(vecPids, m_stUtil.EnumAllChildren());
}

}  // namespace
