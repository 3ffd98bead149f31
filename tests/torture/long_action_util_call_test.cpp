// The runner of long actions while each of its system calls fails in turn, and those of the child
// until it is at work.

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "failing_call.h"
#include "long_action_fixture.h"

namespace {

// A host of its own for each attempt.
class Host : public LongActionFixture {
 public:
  using LongActionFixture::Exit;
  using LongActionFixture::Finish;
  using LongActionFixture::m_iEpollFD;
  using LongActionFixture::m_stUtil;
  using LongActionFixture::Poll;
  using LongActionFixture::Start2;
  using LongActionFixture::WaitAndReap;
  using LongActionFixture::WaitForEnd;

  std::vector<int> Children() const { return m_stUtil.EnumAllChildren(); }

 private:
  void TestBody() override {}
};

// At the end of a traced process no sanitizer can look for leaks: it does without exit().
int EndByThree() { _exit(3); }

int WriteBoth() {
  WriteText(1, "out");
  WriteText(2, "err");
  return EndByThree();
}

void ExpectWholeResponse(const Response_t& pResponse) {
  ASSERT_NE(nullptr, pResponse);
  EXPECT_EQ(3, pResponse->iRetcode);
  EXPECT_EQ("out", pResponse->strStdOut);
  EXPECT_EQ("err", pResponse->strStdError);
}

// Runs a start and waits for the child's end: its calls fail, too.
template <class Start_t>
int RunToTheEnd(Attempt& stAttempt, const Host& stHost, const Start_t& fnStart) {
  return stAttempt.Run([&] {
    const int iResult = fnStart();
    if (iResult == 0) {
      Host::WaitForEnd(stHost.Children().at(0));
    }
    return iResult;
  });
}

// What a child's output says when its dup2() has failed: it goes where the host's goes.
bool LosesOutput(const Attempt& stAttempt) {
  return stAttempt.InChild() &&
         (stAttempt.Failure().strCall == "dup2" || stAttempt.Failure().strCall == "write");
}

TEST(LongActionCallTest, PerformStartsAChildOrLeavesAllAsItWas) {
  FailEachCall([](Attempt& stAttempt) {
    Host stHost;
    Work stWork(WriteBoth);
    const auto fnPerform = [&] { return stHost.m_stUtil.Perform(&stWork, 1, 2); };
    int iResult = 0;
    CaptureOutput(
        2, [&] { CaptureOutput(1, [&] { iResult = RunToTheEnd(stAttempt, stHost, fnPerform); }); });
    const bool bFailed = stAttempt.FailsIn({{"pipe"}, {"pipe2"}, {"epoll_ctl"}, {"clone"}});
    ASSERT_EQ(bFailed ? -1 : 0, iResult);
    if (bFailed) {
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
      ASSERT_TRUE(stHost.Children().empty());
      ASSERT_EQ(0, fnPerform());
    }
    ASSERT_EQ(1u, stHost.Children().size());
    const Response_t pResponse = stHost.Finish(stHost.Children()[0]);
    if (!LosesOutput(stAttempt)) {
      ExpectWholeResponse(pResponse);
    }
  });
}

TEST(LongActionCallTest, Perform2StartsAChildOrLeavesAllAsItWas) {
  FailEachCall([](Attempt& stAttempt) {
    Host stHost;
    Work stWork(EndByThree);
    int iStdoutFD = -1;
    int iStderrFD = -1;
    const int iResult = RunToTheEnd(stAttempt, stHost, [&] {
      return stHost.m_stUtil.Perform2(&stWork, 1, 2, iStdoutFD, iStderrFD);
    });
    const bool bFailed = stAttempt.FailsIn({{"pipe"}, {"pipe2"}, {"clone"}});
    ASSERT_EQ(bFailed ? -1 : 0, iResult);
    if (bFailed) {
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
      ASSERT_TRUE(stHost.Children().empty());
    } else {
      EXPECT_EQ(3, stHost.Finish(stHost.Children().at(0))->iRetcode);
    }
  });
}

TEST(LongActionCallTest, EventThatCanNotBeReadIsReadByTheNextOne) {
  FailEachCall([](Attempt& stAttempt) {
    Host stHost;
    int iStdoutFD = -1;
    int iStderrFD = -1;
    const pid_t iPid = stHost.Start2(WriteBoth, iStdoutFD, iStderrFD);
    Host::WaitForEnd(iPid);
    const std::string strText = CaptureOutput(1, [&] {
      EXPECT_EQ(0, stAttempt.Run([&] { return stHost.m_stUtil.EventCallback(iStdoutFD); }));
    });
    EXPECT_EQ(0, stHost.m_stUtil.EventCallback(iStderrFD));
    const bool bUnread = stAttempt.FailsIn({{"read"}}) && stAttempt.Failure().iShorter == 0;
    if (bUnread) {
      const int iCount = stAttempt.Failure().iErrno != 0 ? -1 : 0;
      EXPECT_EQ(
          "fd:" + std::to_string(iStdoutFD) + ", read failed, return " + std::to_string(iCount),
          strText);
    }
    if (stAttempt.FailsIn({{"read"}}) && stAttempt.Failure().iShorter < 3) {
      EXPECT_EQ(0, stHost.m_stUtil.EventCallback(iStdoutFD));
    }
    ASSERT_TRUE(stHost.m_stUtil.IsLongAction(iPid, 0));
    ExpectWholeResponse(stHost.Poll());
  });
}

TEST(LongActionCallTest, ChildExitClosesAllAndGivesTheResponse) {
  FailEachCall([](Attempt& stAttempt) {
    Host stHost;
    Work stWork([] { return 0; });
    ASSERT_EQ(0, stHost.m_stUtil.Perform(&stWork, 1, 2));
    const pid_t iPid = stHost.Children().at(0);
    Host::WaitAndReap(iPid);
    const Response_t pResponse = stAttempt.Run([&] { return stHost.Exit(iPid, 5); });
    ASSERT_NE(nullptr, pResponse);
    EXPECT_EQ(5, pResponse->iRetcode);
    EXPECT_TRUE(stHost.Children().empty());
  });
}

TEST(LongActionCallTest, SweepThatFailsFindsTheChildTheNextTimeUnlessSomebodyHasReapedIt) {
  FailEachCall([](Attempt& stAttempt) {
    Host stHost;
    Work stWork([] { return 3; });
    ASSERT_EQ(0, stHost.m_stUtil.Perform(&stWork, 1, 2));
    const pid_t iPid = stHost.Children().at(0);
    Host::WaitForEnd(iPid);
    EXPECT_TRUE(stAttempt.Run([&] { return stHost.m_stUtil.IsLongAction(iPid, 0); }));
    stHost.m_stUtil.IsLongAction(iPid, 0);
    Response_t pResponse = stHost.Poll();
    EXPECT_EQ(stAttempt.FailsIn({{"wait4", ECHILD}}), pResponse == nullptr);
    if (pResponse == nullptr) {
      pResponse = stHost.Exit(iPid, 3);
    }
    EXPECT_EQ(3, CodeOf(pResponse));
  });
}

// A child has nowhere else to tell a failure.
TEST(LongActionCallTest, EncodedOutputReturnsItsLengthWhateverBecomesOfIt) {
  FailEachCall([](Attempt& stAttempt) {
    int iResult = 0;
    const std::string strText = CaptureOutput(1, [&] {
      iResult = stAttempt.Run([] { return LongActionMethod::EncodeToStdout("text"); });
    });
    EXPECT_EQ(8, iResult);
    const size_t iWritten = !stAttempt.Fails() ? 8
                            : stAttempt.Failure().iErrno != 0
                                ? 0
                                : static_cast<size_t>(stAttempt.Failure().iShorter);
    EXPECT_EQ(LongActionMethod::Encode("text").substr(0, iWritten), strText);
  });
}

// A request that can not be run is no success, whatever becomes of the message.
void ExpectNoSuccess(const std::string& strRequest, const std::string& strMessage) {
  FailEachCall([&](Attempt& stAttempt) {
    LongActionMethod stMethod;
    const std::string strText = CaptureOutput(2, [&] {
      stAttempt.Run([&] {
        stMethod.Execute(strRequest.data(), static_cast<unsigned int>(strRequest.size()));
      });
    });
    EXPECT_EQ(-1, stMethod.Retcode());
    EXPECT_TRUE(stAttempt.Fails() || strText.rfind(strMessage, 0) == 0) << strText;
  });
}

TEST(LongActionCallTest, RequestThatCanNotBeParsedIsNoSuccess) {
  ExpectNoSuccess("x", "Internal error: can't parse data\n");
}

TEST(LongActionCallTest, RequestForAnUnknownMethodIsNoSuccess) {
  LongActionMethod stRequest;
  stRequest.Method("Unknown");
  ExpectNoSuccess(stRequest.SerializeRequest(),
                  "Internal error: invalid object type `Unknown`\n"
                  "Internal error:   valid list - ExecuteShell2\n");
}

}  // namespace
