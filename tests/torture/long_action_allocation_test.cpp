// Long actions, their runner and the process utilities while memory is lacking.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "class_factory.h"
#include "execute_shell.h"
#include "execute_shell2.h"
#include "failing_allocation.h"
#include "long_action_fixture.h"
#include "process_util.h"

namespace {

typedef std::vector<std::string> Texts_t;

const std::string LONG_KEY(40, 'k');
const std::string LONG_VALUE(100, 'v');

// ---- LongActionMethod

// Gives back its first parameter.
class EchoMethod : public LongActionMethod {
 public:
  int Do() override {
    ResultParam(LONG_KEY, Param(LONG_KEY, 0));
    return 7;
  }
};

Object* Create() { return new EchoMethod; }
const char METHOD[] = "a method with a long name for memory";
const bool REGISTERED = ClassFactory::Instance().AddObject(METHOD, Create);

void Fill(LongActionMethod& stMethod) {
  stMethod.Method(METHOD);
  stMethod.Param(LONG_KEY, LONG_VALUE);
  stMethod.Param("second", "short");
}

TEST(LongActionMethodAllocationTest, ParameterIsThereOrNot) {
  ForEachFailingAllocation("LongActionMethod::Param", [](FailingAllocation& stMemory) {
    LongActionMethod stMethod;
    const bool bSet = stMemory.Run([&] { stMethod.Param(LONG_KEY, LONG_VALUE); });
    EXPECT_EQ(bSet ? LONG_VALUE : "", stMethod.Param(LONG_KEY, 0));
    stMethod.Param(LONG_KEY, "next");
    EXPECT_EQ("next", stMethod.Param(LONG_KEY, bSet ? 1 : 0));
  });
  ForEachFailingAllocation("LongActionMethod, setters", [](FailingAllocation& stMemory) {
    LongActionMethod stMethod;
    stMemory.Run([&] {
      stMethod.Method(METHOD);
      stMethod.ResultParam(LONG_KEY, LONG_VALUE);
      stMethod.Clear();
    });
  });
}

TEST(LongActionMethodAllocationTest, BytesAreWholeOrThrown) {
  LongActionMethod stMethod;
  Fill(stMethod);
  stMethod.ResultParam(LONG_KEY, LONG_VALUE);
  const std::string strRequest = stMethod.SerializeRequest();
  const std::string strResult = stMethod.SerializeResult();
  ForEachFailingAllocation("LongActionMethod::SerializeRequest", [&](FailingAllocation& stMemory) {
    EXPECT_EQ(stMemory.Run(strRequest, [&] { return stMethod.SerializeRequest(); }), strRequest);
  });
  ForEachFailingAllocation("LongActionMethod::SerializeResult", [&](FailingAllocation& stMemory) {
    EXPECT_EQ(stMemory.Run(strResult, [&] { return stMethod.SerializeResult(); }), strResult);
  });
}

TEST(LongActionMethodAllocationTest, RequestIsParsedOrThrownAndParsedAgainAfterClear) {
  LongActionMethod stMethod;
  Fill(stMethod);
  const std::string strRequest = stMethod.SerializeRequest();
  const auto iSize = static_cast<unsigned int>(strRequest.size());
  ForEachFailingAllocation("LongActionMethod::ParseRequest", [&](FailingAllocation& stMemory) {
    LongActionMethod stParsed;
    if (!stMemory.Run(false, [&] { return stParsed.ParseRequest(strRequest.data(), iSize); })) {
      stParsed.Clear();
      EXPECT_TRUE(stParsed.ParseRequest(strRequest.data(), iSize));
    }
    EXPECT_EQ(strRequest, stParsed.SerializeRequest());
  });
  ForEachFailingAllocation("LongActionMethod::ParseResult", [&](FailingAllocation& stMemory) {
    LongActionMethod stParsed;
    stMemory.Run([&] { stParsed.ParseResult(strRequest.data(), iSize); });
  });
}

TEST(LongActionMethodAllocationTest, MethodIsExecutedOrThrown) {
  ASSERT_TRUE(REGISTERED);
  LongActionMethod stRequest;
  Fill(stRequest);
  const std::string strRequest = stRequest.SerializeRequest();
  ForEachFailingAllocation("LongActionMethod::Execute", [&](FailingAllocation& stMemory) {
    LongActionMethod stCarrier;
    const bool bDone = stMemory.Run([&] {
      stCarrier.Execute(strRequest.data(), static_cast<unsigned int>(strRequest.size()));
    });
    EXPECT_EQ(bDone ? 7 : -1, stCarrier.Retcode());
    EXPECT_EQ(!bDone, stMemory.Failed());
  });
}

TEST(LongActionMethodAllocationTest, UnknownMethodIsReportedWithoutMemory) {
  LongActionMethod stRequest;
  stRequest.Method("nobody");
  const std::string strRequest = stRequest.SerializeRequest();
  CaptureOutput(2, [&] {
    ForEachFailingAllocation(
        "LongActionMethod::Execute, unknown", [&](FailingAllocation& stMemory) {
          LongActionMethod stCarrier;
          stMemory.Run([&] {
            stCarrier.Execute(strRequest.data(), static_cast<unsigned int>(strRequest.size()));
          });
          EXPECT_EQ(-1, stCarrier.Retcode());
        });
  });
}

TEST(LongActionMethodAllocationTest, TextFormIsWholeOrThrown) {
  const std::string strBytes(1000, 'b');
  const std::string strText = LongActionMethod::Encode(strBytes);
  ForEachFailingAllocation("LongActionMethod::Encode", [&](FailingAllocation& stMemory) {
    EXPECT_EQ(strText, stMemory.Run(strText, [&] { return LongActionMethod::Encode(strBytes); }));
  });
  ForEachFailingAllocation("LongActionMethod::Decode", [&](FailingAllocation& stMemory) {
    EXPECT_EQ(strBytes, stMemory.Run(strBytes, [&] { return LongActionMethod::Decode(strText); }));
  });
  // Not as Encode() writes it, so that libcrypto's filter reads it: "" without memory.
  const std::string strOther = strText + "\n\n";
  ASSERT_EQ(strBytes, LongActionMethod::Decode(strOther));
  for (const auto eKind :
       {LibraryRule::SOUND, LibraryRule::LEAKY}) {  // it loses some memory itself
    const LibraryRule stRule("libcrypto", eKind);
    ForEachFailingAllocation(
        "LongActionMethod::Decode by a filter", [&](FailingAllocation& stMemory) {
          const std::string strDecoded =
              stMemory.Run(std::string(), [&] { return LongActionMethod::Decode(strOther); });
          EXPECT_TRUE(strDecoded == strBytes || (stMemory.Failed() && strDecoded.empty()));
        });
  }
}

TEST(LongActionMethodAllocationTest, TextIsWrittenInWholeOrNotAtAll) {
  const std::string strText = LongActionMethod::Encode(LONG_VALUE);
  ForEachFailingAllocation("LongActionMethod::EncodeToStdout", [&](FailingAllocation& stMemory) {
    bool bDone = false;
    const std::string strWritten = CaptureOutput(
        1, [&] { bDone = stMemory.Run([&] { LongActionMethod::EncodeToStdout(LONG_VALUE); }); });
    EXPECT_EQ(bDone ? strText : "", strWritten);
  });
}

// ---- Shells

TEST(ExecuteShellAllocationTest, CommandIsTheFormerOrTheNewOne) {
  ForEachFailingAllocation("ExecuteShell2::Command", [](FailingAllocation& stMemory) {
    ExecuteShell2 stShell;
    stShell.Command("true");
    const bool bSet = stMemory.Run([&] { stShell.Command(LONG_VALUE); });
    EXPECT_EQ(bSet ? LONG_VALUE : "true", stShell.Command());
    stShell.Command(stShell.Command());
    EXPECT_EQ(bSet ? LONG_VALUE : "true", stShell.Command());
  });
  ForEachFailingAllocation("ExecuteShell::Command", [](FailingAllocation& stMemory) {
    ExecuteShell stShell;
    stMemory.Run([&] { stShell.Command(LONG_VALUE); });
  });
}

TEST(ExecuteShellAllocationTest, CommandIsRunOrThrown) {
  ForEachFailingAllocation("ExecuteShell::Do", [](FailingAllocation& stMemory) {
    ExecuteShell stShell;
    stShell.Command("exit 7");
    const int iResult = stMemory.Run(255, [&] { return stShell.Do(); });
    EXPECT_EQ(stMemory.Failed() ? 255 : 7, iResult);
  });
  ForEachFailingAllocation("ExecuteShell2::Do", [](FailingAllocation& stMemory) {
    ExecuteShell2 stShell;
    stShell.Command("exit 7 # and a comment that makes it long");
    const int iResult = stMemory.Run(255, [&] { return stShell.Do(); });
    EXPECT_EQ(stMemory.Failed() ? 255 : 7, iResult);
  });
}

// ---- LongActionUtil

class LongActionAllocationTest : public LongActionFixture {
 protected:
  // Nothing of a start that failed.
  void ExpectNoChild() {
    EXPECT_TRUE(m_stUtil.EnumAllChildren().empty());
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
  }

  Work m_stWork{[] {
    WriteText(1, "out");
    return 7;
  }};
};

TEST_F(LongActionAllocationTest, ChildRunsAndIsKnownOrThereIsNone) {
  const int iFailed =
      ForEachFailingAllocation("LongActionUtil::Perform", [&](FailingAllocation& stMemory) {
        if (stMemory.Run(-1, [&] { return m_stUtil.Perform(&m_stWork, 3, 4); }) != 0) {
          EXPECT_TRUE(stMemory.Failed());
          ExpectNoChild();
          ASSERT_EQ(0, m_stUtil.Perform(&m_stWork, 3, 4));
        }
        const std::vector<int> vecChildren = m_stUtil.EnumAllChildren();
        ASSERT_EQ(1u, vecChildren.size());
        const Response_t pResponse = Finish(vecChildren[0]);
        EXPECT_EQ(7, CodeOf(pResponse));
        EXPECT_EQ("out", pResponse->strStdOut);
      });
  EXPECT_EQ(4, iFailed);
}

TEST_F(LongActionAllocationTest, ChildOfPerform2RunsAndIsKnownOrThereIsNone) {
  ForEachFailingAllocation("LongActionUtil::Perform2", [&](FailingAllocation& stMemory) {
    int iOut = -1;
    int iErr = -1;
    const auto fnPerform = [&] { return m_stUtil.Perform2(&m_stWork, 3, 4, iOut, iErr); };
    if (stMemory.Run(-1, fnPerform) != 0) {
      ExpectNoChild();
      ASSERT_EQ(0, fnPerform());
    }
    const pid_t iPid = m_stUtil.EnumAllChildren().at(0);
    WaitForEnd(iPid);
    EXPECT_EQ(0, m_stUtil.EventCallback(iOut));
    const Response_t pResponse = Finish(iPid);
    EXPECT_EQ("out", pResponse->strStdOut);
    EXPECT_EQ(7, CodeOf(pResponse));
  });
}

TEST_F(LongActionAllocationTest, OutputThatThereIsNoMemoryForStaysInThePipe) {
  ForEachFailingAllocation("LongActionUtil::EventCallback", [&](FailingAllocation& stMemory) {
    int iOut = -1;
    int iErr = -1;
    const std::string strText(500, 'x');
    const pid_t iPid = Start2(
        [&] {
          WriteText(1, strText);
          return 7;
        },
        iOut, iErr);
    WaitForEnd(iPid);
    if (!stMemory.Run([&] { m_stUtil.EventCallback(iOut); })) {
      EXPECT_EQ(0, m_stUtil.EventCallback(iOut));
    }
    const Response_t pResponse = Finish(iPid);
    EXPECT_EQ(strText, pResponse->strStdOut);
  });
}

TEST_F(LongActionAllocationTest, EndOfAChildNeedsNoMemory) {
  const int iFailed =
      ForEachFailingAllocation("LongActionUtil::PollChild", [&](FailingAllocation& stMemory) {
        const pid_t iPid = Start([] { return 7; });
        WaitForEnd(iPid);
        Response_t pResponse;
        stMemory.Run([&] {
          m_stUtil.IsLongAction(iPid, 0);
          m_stUtil.SetStdoutEvent(0, nullptr);
          m_stUtil.GetStderrEvent(0);
          pResponse.reset(m_stUtil.PollChild());
        });
        EXPECT_EQ(7, CodeOf(pResponse));
      });
  EXPECT_EQ(0, iFailed);
}

TEST_F(LongActionAllocationTest, ChildrenAreListedOrThrown) {
  const pid_t iPid = Start(WorkForEver);
  ForEachFailingAllocation("LongActionUtil::EnumAllChildren", [&](FailingAllocation& stMemory) {
    const std::vector<int> vecPids =
        stMemory.Run(std::vector<int>(), [&] { return m_stUtil.EnumAllChildren(); });
    EXPECT_EQ(stMemory.Failed() ? std::vector<int>() : std::vector<int>{iPid}, vecPids);
  });
  ForEachFailingAllocation("LongActionUtil::LongActionUtil", [](FailingAllocation& stMemory) {
    stMemory.Run([] { OwnUtil stUtil; });
  });
}

// ---- Processes

TEST(ProcessUtilAllocationTest, CommandLeavesNeitherChildNorPipe) {
  const int iFailed = ForEachFailingAllocation("ExecuteCommand", [](FailingAllocation& stMemory) {
    Texts_t vecLines;
    int iError = 0;
    const int iResult = stMemory.Run(-1, [&] {
      return ExecuteCommand(iError, vecLines, "echo %s; echo second; exit 7", LONG_VALUE.c_str());
    });
    EXPECT_TRUE(iResult == 7 || (stMemory.Failed() && iResult == -1)) << iResult;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_TRUE(iResult != 7 || (vecLines == Texts_t{LONG_VALUE + "\n", "second\n"}));
  });
  EXPECT_GE(iFailed, 3);
}

TEST(ProcessUtilAllocationTest, FilteredCommandLeavesNeitherChildNorPipe) {
  for (const bool bInvert : {false, true}) {
    ForEachFailingAllocation("ExecuteCommandWithFilter", [&](FailingAllocation& stMemory) {
      Texts_t vecLines{"former"};
      int iError = 0;
      stMemory.Run([&] {
        bInvert ? ExecuteCommandWithInvert(iError, vecLines, "z", "echo a long line of %s", "text")
                : ExecuteCommandWithFilter(iError, vecLines, "a", "echo a long line of %s", "text");
      });
      EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
      EXPECT_TRUE(stMemory.Failed() || vecLines == Texts_t{"a long line of text\n"});
    });
  }
}

TEST(ProcessUtilAllocationTest, ProcessesAreListedWithoutALostDescriptor) {
  const std::string strSelf = "long_action_alloc";
  ForEachFailingAllocation("ListProcesses", [&](FailingAllocation& stMemory) {
    static Process aFound[4];
    const int iCount =
        stMemory.Run(0, [&] { return ListProcesses(aFound, 4, "long_action_alloc"); });
    EXPECT_TRUE(stMemory.Failed() || iCount >= 1);
    for (Process& stFound : aFound) {
      stFound = Process();
    }
  });
}

TEST(ProcessUtilAllocationTest, SignalsNeedNoMemory) {
  ForkedPeer stPeer([] {
    const int iFailed = ForEachFailingAllocation("signal_init", [](FailingAllocation& stMemory) {
      stMemory.Run([] {
        signal_init();
        signal_handle(SIGCHLD);
        signal_handle(SIGTERM);
      });
    });
    return iFailed;
  });
  EXPECT_EQ(0, stPeer.Wait());
}

// A title before the environment is out of the way would overwrite it.
TEST(ProcessTitleAllocationTest, InitThatLacksMemoryHasChangedNothing) {
  static char szLayout[] = "program\0argument\0NAME=value\0";
  ForEachFirstAllocation("InitProcessTitle", [](FailingAllocation& stMemory) {
    char* aArguments[] = {szLayout, szLayout + 8, nullptr};
    char* aEnvironment[] = {szLayout + 17, nullptr};
    char** const pBefore = environ;
    environ = aEnvironment;
    const auto fnInit = [&] { InitProcessTitle(2, aArguments); };
    const bool bDone = stMemory.Run(fnInit);
    EXPECT_EQ(bDone, aEnvironment[0] != szLayout + 17);
    if (!bDone) {
      ForkedPeer stTooEarly([&] {
        close(2);  // the assertion tells its text
        ChangeProcessTitle(2, aArguments, "a title");
        return 0;
      });
      EXPECT_EQ(1000 + SIGABRT, stTooEarly.Wait());
      fnInit();
    }
    ChangeProcessTitle(2, aArguments, "a longer title");
    EXPECT_STREQ("a longer title", aArguments[0]);
    EXPECT_STREQ("argument", aArguments[1]);
    EXPECT_STREQ("value", getenv("NAME"));
    environ = pBefore;
  });
}

}  // namespace
