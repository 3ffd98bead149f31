#include "state_machine.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "test_support.h"

namespace {

const int KILLED_BY_ABORT = 1000 + SIGABRT;

// Opens the protected side of a machine; the type is chosen by the test.
class TestMachine : public StateMachine {
 public:
  explicit TestMachine(int iType, int iState = -1) : m_iType(iType) { m_iState = iState; }
  int Timeout(bool /*bMachine*/) override { return 0; }
  int StateMachineType() override { return m_iType; }
  const char* MachineName() override { return "test"; }
  void PreTranslate(InternalHead_t* pHead, void* pMessage) override {
    m_vecPreTranslated.push_back({pHead, pMessage});
    m_iState = m_iStateOfPreTranslate == -1 ? m_iState : m_iStateOfPreTranslate;
  }

  using StateMachine::m_bRecordMessage;
  using StateMachine::m_iID;
  using StateMachine::m_iState;
  using StateMachine::m_mapGlobalStateList;
  using StateMachine::m_mapGlobalStateList2;
  using StateMachine::m_mapGlobalStateName;
  using StateMachine::m_pOutFunctionOfInProc;
  using StateMachine::m_pOutFunctionOfOutProc;
  using StateMachine::m_sInternalHead;
  using StateMachine::m_strAccessToken;
  using StateMachine::m_strMsgFrom;
  using StateMachine::m_strPeerAddr;

  int m_iType;
  int m_iStateOfPreTranslate = -1;
  std::vector<std::pair<InternalHead_t*, void*>> m_vecPreTranslated;
};

// Types that no other case uses: the tables are shared and only grow.
int NewType() {
  static int iNext = 1000;
  return iNext++;
}

int ReturnOne(StateMachine*, InternalHead_t*, void*) { return 1; }
int ReturnTwo(StateMachine*, InternalHead_t*, void*) { return 2; }
int ReturnOne2(StateMachine*, conn_key_t, void*) { return 1; }
int ReturnTwo2(StateMachine*, conn_key_t, void*) { return 2; }
int MoveToStateFive(StateMachine* pMachine, InternalHead_t*, void*) {
  static_cast<TestMachine*>(pMachine)->m_iState = 5;
  return 0;
}

// What a child writes to standard error while it runs fnRun and ends by SIGABRT.
std::string LastWords(const std::function<void()>& fnRun) {
  return CaptureOutput(STDERR_FILENO, [&] {
    ForkedPeer stPeer([&] {
      fnRun();
      return 0;
    });
    EXPECT_EQ(KILLED_BY_ABORT, stPeer.Wait());
  });
}

void ExpectAssertion(const std::string& strText, const std::string& strExpression,
                     const std::string& strFunction) {
  EXPECT_NE(std::string::npos, strText.find("common/state_machine.cpp:")) << strText;
  EXPECT_NE(std::string::npos, strText.find("StateMachine::" + strFunction + "(")) << strText;
  EXPECT_NE(std::string::npos, strText.find("Assertion `" + strExpression + "' failed."))
      << strText;
}

// ---- a machine by itself

TEST(StateMachineTest, FreshMachineHasItsDefaults) {
  TestMachine stMachine(NewType());
  EXPECT_EQ(0xffffffffu, stMachine.GetId());
  EXPECT_EQ(-1, stMachine.GetState());
  EXPECT_EQ(0xffffffffu, stMachine.GetParentMachineID());
  EXPECT_FALSE(stMachine.RoutineMachine());
  EXPECT_TRUE(stMachine.m_bRecordMessage);
  EXPECT_EQ("", stMachine.m_strPeerAddr + stMachine.m_strAccessToken + stMachine.m_strMsgFrom);
  EXPECT_EQ(nullptr, stMachine.m_pOutFunctionOfInProc);
  EXPECT_EQ(nullptr, stMachine.m_pOutFunctionOfOutProc);
  EXPECT_EQ(nullptr, stMachine.GetReserved(0));
}

TEST(StateMachineTest, FreshMachineLivesTenSecondsAndItsStateWithoutLimit) {
  const time_t iBefore = time(nullptr);
  const TestMachine stMachine(NewType());
  const time_t iAfter = time(nullptr);
  EXPECT_LE(iBefore + 10, stMachine.GetMachineTimeout());
  EXPECT_GE(iAfter + 10, stMachine.GetMachineTimeout());
  EXPECT_EQ(0, stMachine.GetStateTimeout());
}

TEST(StateMachineTest, FirstStateBeginsWithTheMachine) {
  TestMachine stMachine(NewType());
  stMachine.SetStateTimeout(10);
  EXPECT_EQ(stMachine.GetMachineTimeout(), stMachine.GetStateTimeout());
}

TEST(StateMachineTest, MachineTimeoutOfZeroMeansFiveSeconds) {
  TestMachine stMachine(NewType());
  const time_t iBegin = stMachine.GetMachineTimeout() - 10;
  stMachine.SetMachineTimeout(0);
  EXPECT_EQ(iBegin + 5, stMachine.GetMachineTimeout());
  stMachine.SetMachineTimeout(1);
  EXPECT_EQ(iBegin + 1, stMachine.GetMachineTimeout());
}

TEST(StateMachineTest, StateDeadlineIsItsBeginPlusItsTimeout) {
  TestMachine stMachine(NewType());
  const time_t iMachineDeadline = stMachine.GetMachineTimeout();
  stMachine.SetStateTimeout(30);
  stMachine.SetStateBeginTime(1000);
  EXPECT_EQ(1030, stMachine.GetStateTimeout());
  EXPECT_EQ(iMachineDeadline, stMachine.GetMachineTimeout());
  stMachine.ClearStateTimeout();
  EXPECT_EQ(0, stMachine.GetStateTimeout());
}

TEST(StateMachineTest, DeadlinesAreSixtyFourBitSums) {
  TestMachine stMachine(NewType());
  const time_t iBegin = stMachine.GetMachineTimeout() - 10;
  stMachine.SetMachineTimeout(0xffffffff);
  EXPECT_EQ(iBegin + 4294967295, stMachine.GetMachineTimeout());
  stMachine.SetStateTimeout(0xffffffff);
  stMachine.SetStateBeginTime(5000000000);
  EXPECT_EQ(9294967295, stMachine.GetStateTimeout());
}

TEST(StateMachineTest, AccessorsKeepWhatIsSet) {
  TestMachine stMachine(NewType(), 3);
  stMachine.SetId(17);
  stMachine.SetParentMachineID(18);
  stMachine.RoutineMachine(true);
  char szFrom[] = "gateway";
  stMachine.SetMessageFrom(szFrom);
  szFrom[0] = 'x';
  EXPECT_EQ(17u, stMachine.GetId());
  EXPECT_EQ(18u, stMachine.GetParentMachineID());
  EXPECT_TRUE(stMachine.RoutineMachine());
  EXPECT_EQ(3, stMachine.GetState());
  EXPECT_EQ("gateway", stMachine.m_strMsgFrom);
}

TEST(StateMachineTest, ReservedSlotsAreSetReplacedAndErased) {
  TestMachine stMachine(NewType());
  int iFirst = 1;
  int iSecond = 2;
  stMachine.SetReserved(4, &iFirst);
  stMachine.SetReserved(-4, &iSecond);
  EXPECT_EQ(&iFirst, stMachine.GetReserved(4));
  EXPECT_EQ(&iSecond, stMachine.GetReserved(-4));
  stMachine.SetReserved(4, &iSecond);
  EXPECT_EQ(&iSecond, stMachine.GetReserved(4));
  stMachine.DelReserved(4);
  stMachine.DelReserved(99);
  EXPECT_EQ(nullptr, stMachine.GetReserved(4));
  EXPECT_EQ(&iSecond, stMachine.GetReserved(-4));
}

// ---- layout

TEST(StateMachineTest, HeaderIsTwentyBytesInOrder) {
  const InternalHead_t stHead{1, 2, 3, 4, 5};
  const int32_t szExpected[] = {1, 2, 3, 4, 5};
  ASSERT_EQ(20u, sizeof(stHead));
  EXPECT_EQ(0, memcmp(szExpected, &stHead, sizeof(stHead)));
}

// The slot of a virtual function, as the x86-64 ABI writes it into a pointer to the member.
template <typename Function>
int Slot(Function pFunction) {
  ptrdiff_t iOffset = 0;
  memcpy(&iOffset, &pFunction, sizeof(iOffset));
  return static_cast<int>((iOffset - 1) / static_cast<ptrdiff_t>(sizeof(void*)));
}

TEST(StateMachineTest, VirtualOperationsKeepTheirSlots) {
  // The destructor takes the slots 0 and 1.
  EXPECT_EQ(2, Slot(&StateMachine::Dump));
  EXPECT_EQ(3, Slot(&StateMachine::DoNext));
  EXPECT_EQ(4, Slot(&StateMachine::DoNext2));
  EXPECT_EQ(5, Slot(&StateMachine::Timeout));
  EXPECT_EQ(6, Slot(&StateMachine::StateMachineType));
  EXPECT_EQ(7, Slot(&StateMachine::MachineName));
  EXPECT_EQ(8, Slot(&StateMachine::PreTranslate));
  EXPECT_EQ(9, Slot(&StateMachine::SetMachineTimeout));
  EXPECT_EQ(10, Slot(&StateMachine::GetMachineTimeout));
  EXPECT_EQ(11, Slot(&StateMachine::SetStateTimeout));
  EXPECT_EQ(12, Slot(&StateMachine::GetStateTimeout));
}

TEST(StateMachineTest, ConnectionKeyIsUnsignedAndHas128Bits) {
  EXPECT_EQ(16u, sizeof(conn_key_t));
  EXPECT_GT(static_cast<conn_key_t>(-1), conn_key_t{0});
}

// ---- registration

TEST(StateMachineTest, FirstHandlerOfAPairWins) {
  const int iType = NewType();
  EXPECT_TRUE(StateMachine::SetGlobalStateList(iType, 1, ReturnOne));
  EXPECT_FALSE(StateMachine::SetGlobalStateList(iType, 1, ReturnTwo));
  EXPECT_TRUE(StateMachine::SetGlobalStateList(iType, 2, ReturnTwo));
  EXPECT_EQ(1, TestMachine(iType, 1).DoNext(nullptr, nullptr));
  EXPECT_EQ(2, TestMachine(iType, 2).DoNext(nullptr, nullptr));
}

TEST(StateMachineTest, FirstHandlerOfAPairWinsOnTheSecondPath) {
  const int iType = NewType();
  EXPECT_TRUE(StateMachine::SetGlobalStateList2(iType, 1, ReturnOne2));
  EXPECT_FALSE(StateMachine::SetGlobalStateList2(iType, 1, ReturnTwo2));
  EXPECT_TRUE(StateMachine::SetGlobalStateList2(iType, 2, ReturnTwo2));
  EXPECT_EQ(1, TestMachine(iType, 1).DoNext2(0, nullptr));
  EXPECT_EQ(2, TestMachine(iType, 2).DoNext2(0, nullptr));
}

TEST(StateMachineTest, RefusedHandlerIsRefusedAfterDispatchToo) {
  const int iType = NewType();
  ASSERT_TRUE(StateMachine::SetGlobalStateList(iType, 1, ReturnOne));
  EXPECT_EQ(1, TestMachine(iType, 1).DoNext(nullptr, nullptr));
  EXPECT_FALSE(StateMachine::SetGlobalStateList(iType, 1, ReturnTwo));
  EXPECT_EQ(1, TestMachine(iType, 1).DoNext(nullptr, nullptr));
}

TEST(StateMachineTest, FirstNameOfAStateWinsAndIsCopied) {
  const int iType = NewType();
  char szName[] = "login";
  EXPECT_TRUE(StateMachine::SetGlobalStateName(iType, 1, szName));
  EXPECT_FALSE(StateMachine::SetGlobalStateName(iType, 1, "other"));
  EXPECT_TRUE(StateMachine::SetGlobalStateName(iType, 2, ""));
  szName[0] = 'x';
  EXPECT_EQ("login", TestMachine(iType).StateName(1));
}

TEST(StateMachineTest, StateWithoutNameHasAnEmptyOneAndAskingAddsNone) {
  const int iType = NewType();
  EXPECT_EQ("", TestMachine(iType).StateName(1));
  EXPECT_EQ(0u, TestMachine::m_mapGlobalStateName.count(iType));
  ASSERT_TRUE(StateMachine::SetGlobalStateName(iType, 1, "login"));
  EXPECT_EQ("", TestMachine(iType).StateName(2));
  EXPECT_EQ(1u, TestMachine::m_mapGlobalStateName.at(iType).size());
}

// ---- dispatch

struct Call_t {
  StateMachine* pMachine;
  InternalHead_t* pHead;
  conn_key_t iKey;
  void* pMessage;
  size_t iPreTranslated;
};
Call_t g_stCall;

int Record(StateMachine* pMachine, InternalHead_t* pHead, void* pMessage) {
  const auto* pSelf = static_cast<TestMachine*>(pMachine);
  g_stCall = {pMachine, pHead, 0, pMessage, pSelf->m_vecPreTranslated.size()};
  return -2147483647 - 1;
}

int Record2(StateMachine* pMachine, conn_key_t iKey, void* pMessage) {
  const auto* pSelf = static_cast<TestMachine*>(pMachine);
  g_stCall = {pMachine, nullptr, iKey, pMessage, pSelf->m_vecPreTranslated.size()};
  return -7;
}

TEST(StateMachineTest, MessageGoesThroughPreTranslateToTheHandlerAndItsResultBack) {
  const int iType = NewType();
  ASSERT_TRUE(StateMachine::SetGlobalStateList(iType, 1, Record));
  TestMachine stMachine(iType, 1);
  InternalHead_t stHead{};
  int iMessage = 0;
  EXPECT_EQ(-2147483647 - 1, stMachine.DoNext(&stHead, &iMessage));
  EXPECT_EQ(&stMachine, g_stCall.pMachine);
  EXPECT_EQ(&stHead, g_stCall.pHead);
  EXPECT_EQ(&iMessage, g_stCall.pMessage);
  EXPECT_EQ(1u, g_stCall.iPreTranslated);
  EXPECT_EQ(&stHead, stMachine.m_vecPreTranslated.at(0).first);
  EXPECT_EQ(&iMessage, stMachine.m_vecPreTranslated.at(0).second);
}

TEST(StateMachineTest, SecondPathPassesTheWholeKeyAndSkipsPreTranslate) {
  const int iType = NewType();
  ASSERT_TRUE(StateMachine::SetGlobalStateList2(iType, 1, Record2));
  TestMachine stMachine(iType, 1);
  int iMessage = 0;
  const conn_key_t iKey = conn_key_t{0x0123456789abcdef} << 64 | 0xfedcba9876543210;
  EXPECT_EQ(-7, stMachine.DoNext2(iKey, &iMessage));
  EXPECT_EQ(&stMachine, g_stCall.pMachine);
  EXPECT_TRUE(iKey == g_stCall.iKey);
  EXPECT_EQ(&iMessage, g_stCall.pMessage);
  EXPECT_TRUE(stMachine.m_vecPreTranslated.empty());
}

TEST(StateMachineTest, MachineWithoutPreTranslateOfItsOwnIsDispatchedOnBothPaths) {
  class PlainMachine : public StateMachine {
   public:
    explicit PlainMachine(int iType) : m_iType(iType) { m_iState = 1; }
    int Timeout(bool /*bMachine*/) override { return 0; }
    int StateMachineType() override { return m_iType; }
    const char* MachineName() override { return "plain"; }

   private:
    int m_iType;
  };
  const int iType = NewType();
  ASSERT_TRUE(StateMachine::SetGlobalStateList(iType, 1, ReturnOne));
  ASSERT_TRUE(StateMachine::SetGlobalStateList2(iType, 1, ReturnTwo2));
  PlainMachine stMachine(iType);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(1, stMachine.DoNext(nullptr, nullptr));
    EXPECT_EQ(2, stMachine.DoNext2(0, nullptr));
  }
}

TEST(StateMachineTest, HandlerOfTheStateAtEntryRunsThoughPreTranslateChangesIt) {
  const int iType = NewType();
  ASSERT_TRUE(StateMachine::SetGlobalStateList(iType, 1, ReturnOne));
  ASSERT_TRUE(StateMachine::SetGlobalStateList(iType, 2, ReturnTwo));
  TestMachine stMachine(iType, 1);
  stMachine.m_iStateOfPreTranslate = 2;
  EXPECT_EQ(1, stMachine.DoNext(nullptr, nullptr));
  EXPECT_EQ(2, stMachine.GetState());
  EXPECT_EQ(2, stMachine.DoNext(nullptr, nullptr));
}

TEST(StateMachineTest, NextMessageGoesToTheStateThatTheHandlerChose) {
  const int iType = NewType();
  ASSERT_TRUE(StateMachine::SetGlobalStateList(iType, -1, MoveToStateFive));
  ASSERT_TRUE(StateMachine::SetGlobalStateList(iType, 5, ReturnTwo));
  TestMachine stMachine(iType);
  EXPECT_EQ(0, stMachine.DoNext(nullptr, nullptr));
  EXPECT_EQ(2, stMachine.DoNext(nullptr, nullptr));
}

TEST(StateMachineTest, PathsHaveTablesOfTheirOwn) {
  const int iType = NewType();
  ASSERT_TRUE(StateMachine::SetGlobalStateList(iType, 1, ReturnOne));
  EXPECT_TRUE(StateMachine::SetGlobalStateList2(iType, 1, ReturnTwo2));
  EXPECT_EQ(1, TestMachine(iType, 1).DoNext(nullptr, nullptr));
  EXPECT_EQ(2, TestMachine(iType, 1).DoNext2(0, nullptr));
}

TEST(StateMachineTest, TypesAndStatesMayBeAnyNumbers) {
  const int iNumbers[] = {-2147483647 - 1, -1, 0, 1, 2147483647};
  for (const int iType : iNumbers) {
    for (const int iState : iNumbers) {
      StateMachine::SetGlobalStateList(iType, iState, iType < iState ? ReturnOne : ReturnTwo);
    }
  }
  for (const int iType : iNumbers) {
    for (const int iState : iNumbers) {
      EXPECT_EQ(iType < iState ? 1 : 2, TestMachine(iType, iState).DoNext(nullptr, nullptr));
    }
  }
}

TEST(StateMachineTest, ManyPairsKeepTheirHandlersInEveryOrderOfUse) {
  const int iFirstType = 100000;
  const int PAIRS = 5000;  // more than are remembered for quick dispatch
  for (int i = 0; i < PAIRS; ++i) {
    StateMachine::SetGlobalStateList(iFirstType + i / 20, i % 20, i % 3 ? ReturnOne : ReturnTwo);
    StateMachine::SetGlobalStateList2(iFirstType + i / 20, i % 20, i % 3 ? ReturnTwo2 : ReturnOne2);
  }
  for (int i = 0; i < 3 * PAIRS; ++i) {
    const int iPair = static_cast<int>(i * 7919LL % PAIRS);
    TestMachine stMachine(iFirstType + iPair / 20, iPair % 20);
    ASSERT_EQ(iPair % 3 ? 1 : 2, stMachine.DoNext(nullptr, nullptr)) << iPair;
    ASSERT_EQ(iPair % 3 ? 1 : 2, stMachine.DoNext(nullptr, nullptr)) << iPair;
    ASSERT_EQ(iPair % 3 ? 2 : 1, stMachine.DoNext2(0, nullptr)) << iPair;
  }
}

TEST(StateMachineTest, HandlerThatADerivedClassPutIntoTheTableIsCalled) {
  const int iType = NewType();
  ASSERT_TRUE(StateMachine::SetGlobalStateList(iType, 1, ReturnOne));
  EXPECT_EQ(1, TestMachine(iType, 1).DoNext(nullptr, nullptr));
  TestMachine::m_mapGlobalStateList[iType][2] = ReturnTwo;
  TestMachine::m_mapGlobalStateList2[iType][2] = ReturnTwo2;
  EXPECT_EQ(2, TestMachine(iType, 2).DoNext(nullptr, nullptr));
  EXPECT_EQ(2, TestMachine(iType, 2).DoNext2(0, nullptr));
  EXPECT_FALSE(StateMachine::SetGlobalStateList(iType, 2, ReturnOne));
}

// Empties both tables of handlers and adds as many unused types as bring back the old number.
void EmptyTables(int iUnusedType) {
  const size_t iTypes = TestMachine::m_mapGlobalStateList.size();
  const size_t iTypes2 = TestMachine::m_mapGlobalStateList2.size();
  TestMachine::m_mapGlobalStateList.clear();
  TestMachine::m_mapGlobalStateList2.clear();
  while (TestMachine::m_mapGlobalStateList.size() + 1 < iTypes) {
    TestMachine::m_mapGlobalStateList[iUnusedType++];
  }
  while (TestMachine::m_mapGlobalStateList2.size() + 1 < iTypes2) {
    TestMachine::m_mapGlobalStateList2[iUnusedType++];
  }
}

TEST(StateMachineTest, TableEmptiedByADerivedClassIsFilledAnew) {
  const int iType = NewType();
  ForkedPeer stPeer([iType] {  // not in this process, whose tables other cases share
    StateMachine::SetGlobalStateList(iType, 1, ReturnOne);
    StateMachine::SetGlobalStateList2(iType, 1, ReturnOne2);
    TestMachine stMachine(iType, 1);
    stMachine.DoNext(nullptr, nullptr);
    stMachine.DoNext2(0, nullptr);
    EmptyTables(iType + 1);
    StateMachine::SetGlobalStateList(iType, 1, ReturnTwo);
    StateMachine::SetGlobalStateList2(iType, 1, ReturnTwo2);
    return 10 * stMachine.DoNext(nullptr, nullptr) + stMachine.DoNext2(0, nullptr);
  });
  EXPECT_EQ(22, stPeer.Wait());
}

// ---- ends of the process

// Every machine here says so when its PreTranslate() runs.
class LoudMachine : public TestMachine {
 public:
  using TestMachine::TestMachine;
  void PreTranslate(InternalHead_t*, void*) override { dprintf(STDERR_FILENO, "PreTranslate"); }
};

TEST(StateMachineDeathTest, UnknownTypeFailsAnAssertionBeforePreTranslate) {
  const int iType = NewType();
  StateMachine::SetGlobalStateList2(iType, 1, ReturnOne2);
  const std::string strText = LastWords([&] { LoudMachine(iType, 1).DoNext(nullptr, nullptr); });
  ExpectAssertion(strText, "sIt != m_mapGlobalStateList.end()", "DoNext");
  EXPECT_EQ(std::string::npos, strText.find("PreTranslate"));
}

TEST(StateMachineDeathTest, UnknownTypeFailsAnAssertionOnTheSecondPath) {
  const int iType = NewType();
  StateMachine::SetGlobalStateList(iType, 1, ReturnOne);
  const std::string strText = LastWords([&] { LoudMachine(iType, 1).DoNext2(0, nullptr); });
  ExpectAssertion(strText, "sIt != m_mapGlobalStateList2.end()", "DoNext2");
}

TEST(StateMachineDeathTest, DumpOfAnUnknownTypeFailsAnAssertionAfterIdAndState) {
  const int iType = NewType();
  StateMachine::SetGlobalStateList2(iType, 1, ReturnOne2);
  const std::string strText = LastWords([&] { LoudMachine(iType, 1).Dump(STDERR_FILENO); });
  ExpectAssertion(strText, "sIt != m_mapGlobalStateList.end()", "Dump");
  EXPECT_EQ(0u, strText.find("m_iID=\"4294967295\"\nm_iState=\"1\"\n"));
}

TEST(StateMachineDeathTest, UnknownStateAbortsWithoutAWordBeforePreTranslate) {
  const int iType = NewType();
  StateMachine::SetGlobalStateList(iType, 1, ReturnOne);
  EXPECT_EQ("", LastWords([&] { LoudMachine(iType, 2).DoNext(nullptr, nullptr); }));
}

TEST(StateMachineDeathTest, UnknownStateAbortsWithoutAWordOnTheSecondPath) {
  const int iType = NewType();
  StateMachine::SetGlobalStateList2(iType, 1, ReturnOne2);
  EXPECT_EQ("", LastWords([&] { LoudMachine(iType, 2).DoNext2(0, nullptr); }));
}

TEST(StateMachineDeathTest, UnknownStateZeroOfTypeZeroAborts) {
  EXPECT_EQ("", LastWords([] {
              TestMachine::m_mapGlobalStateList.clear();
              StateMachine::SetGlobalStateList(0, 1, ReturnOne);
              LoudMachine(0, 0).DoNext(nullptr, nullptr);
            }));
}

TEST(StateMachineDeathTest, TypeOfAnEmptiedTableIsUnknownThoughItWasDispatchedBefore) {
  const int iType = NewType();
  const std::string strText = LastWords([&] {
    StateMachine::SetGlobalStateList(iType, 1, ReturnOne);
    TestMachine stMachine(iType, 1);
    stMachine.DoNext(nullptr, nullptr);
    TestMachine::m_mapGlobalStateList.clear();
    stMachine.DoNext(nullptr, nullptr);
  });
  ExpectAssertion(strText, "sIt != m_mapGlobalStateList.end()", "DoNext");
}

TEST(StateMachineDeathTest, TypeOfAnEmptiedTableStaysUnknownWhenAnotherIsPutIn) {
  const int iType = NewType();
  const int iOther = NewType();
  const std::string strText = LastWords([&] {
    TestMachine::m_mapGlobalStateList.clear();
    StateMachine::SetGlobalStateList(iType, 1, ReturnOne);
    TestMachine stMachine(iType, 1);
    stMachine.DoNext(nullptr, nullptr);
    TestMachine::m_mapGlobalStateList.clear();
    TestMachine::m_mapGlobalStateList[iOther][1] = ReturnOne;
    TestMachine::m_mapGlobalStateList[iOther + 1];
    TestMachine(iOther, 1).DoNext(nullptr, nullptr);
    stMachine.DoNext(nullptr, nullptr);
  });
  ExpectAssertion(strText, "sIt != m_mapGlobalStateList.end()", "DoNext");
}

TEST(StateMachineDeathTest, TypeOfAnEmptiedTableIsUnknownAmongMoreThatWerePutIn) {
  const int iType = NewType();
  const std::string strText = LastWords([&] {
    StateMachine::SetGlobalStateList(iType, 1, ReturnOne);
    TestMachine stMachine(iType, 1);
    stMachine.DoNext(nullptr, nullptr);
    const int iTypes = static_cast<int>(TestMachine::m_mapGlobalStateList.size());
    TestMachine::m_mapGlobalStateList.clear();
    for (int i = 0; i <= iTypes; ++i) {
      TestMachine::m_mapGlobalStateList[iType + 1 + i][1] = ReturnOne;
    }
    stMachine.DoNext(nullptr, nullptr);
  });
  ExpectAssertion(strText, "sIt != m_mapGlobalStateList.end()", "DoNext");
}

int g_iTypeAtAbort = 0;

void ExitWithNumberOfStates(int /*iSignal*/) {
  const auto it = TestMachine::m_mapGlobalStateList.find(g_iTypeAtAbort);
  _exit(it == TestMachine::m_mapGlobalStateList.end() ? 50 : static_cast<int>(it->second.size()));
}

TEST(StateMachineDeathTest, FailedDispatchInsertsNothing) {
  for (const int iStates : {50, 1}) {
    g_iTypeAtAbort = NewType();
    if (iStates == 1) {
      StateMachine::SetGlobalStateList(g_iTypeAtAbort, 1, ReturnOne);
    }
    CaptureOutput(STDERR_FILENO, [&] {
      ForkedPeer stPeer([] {
        signal(SIGABRT, ExitWithNumberOfStates);
        return TestMachine(g_iTypeAtAbort, 2).DoNext(nullptr, nullptr);
      });
      EXPECT_EQ(iStates, stPeer.Wait());
    });
  }
}

// ---- dumps

TEST(StateMachineTest, DumpShowsIdStateAndOnOneLineTheHandlersByState) {
  const int iType = NewType();
  StateMachine::SetGlobalStateList(iType, 7, ReturnTwo);
  StateMachine::SetGlobalStateList(iType, -3, ReturnOne);
  TestMachine stMachine(iType, 7);
  stMachine.SetId(4000000000);
  char szExpected[200];
  snprintf(szExpected, sizeof(szExpected),
           "m_iID=\"4000000000\"\nm_iState=\"7\"\nstate:-3, function:%pstate:7, function:%p",
           reinterpret_cast<void*>(ReturnOne), reinterpret_cast<void*>(ReturnTwo));
  EXPECT_EQ(szExpected, CaptureDescriptor([&](int iFD) { stMachine.Dump(iFD); }));
}

// An empty table of names for the time of one case.
class StateNamesTest : public ::testing::Test {
 protected:
  void SetUp() override { TestMachine::m_mapGlobalStateName.swap(m_mapSaved); }
  void TearDown() override { TestMachine::m_mapGlobalStateName.swap(m_mapSaved); }

  std::map<int, std::map<int, std::string>> m_mapSaved;
};

const char NAMES_HEADER[] = "====================state name====================\n";
const char NAMES_RULE[] = "----------------------------------------\n";

TEST_F(StateNamesTest, DumpOfAnEmptyTableIsItsHeader) {
  EXPECT_EQ(NAMES_HEADER, CaptureDescriptor(StateMachine::DumpGlobalStateMap));
}

TEST_F(StateNamesTest, DumpListsTypesAndStatesInOrderWithARuleAfterEachType) {
  StateMachine::SetGlobalStateName(2, 1, "read");
  StateMachine::SetGlobalStateName(-1, 10, "open");
  StateMachine::SetGlobalStateName(2, -5, "");
  StateMachine::SetGlobalStateName(2, 9, "%s");
  EXPECT_EQ(std::string(NAMES_HEADER) + "-1, 10, open\n" + NAMES_RULE +
                "2, -5, \n2, 1, read\n2, 9, %s\n" + NAMES_RULE,
            CaptureDescriptor(StateMachine::DumpGlobalStateMap));
}

// ---- sending

struct Sent_t {
  InternalHead_t* pHead;
  InternalHead_t stHead;
  const char* pData;
  unsigned int iSize;
};
std::vector<Sent_t> g_vecSentIn;
std::vector<Sent_t> g_vecSentOut;

int SendIn(InternalHead_t* pHead, const char* pData, unsigned int iSize) {
  g_vecSentIn.push_back({pHead, *pHead, pData, iSize});
  return 0;
}

int SendOutAndFail(InternalHead_t* pHead, const char* pData, unsigned int iSize) {
  g_vecSentOut.push_back({pHead, *pHead, pData, iSize});
  return -1;
}

class SendTest : public ::testing::Test {
 protected:
  SendTest() : m_stMachine(NewType()) {
    g_vecSentIn.clear();
    g_vecSentOut.clear();
  }
  TestMachine m_stMachine;
  InternalHead_t m_stHead{3, 4, 5, 6, 7};
};

TEST_F(SendTest, WithoutHookNothingIsSent) {
  EXPECT_FALSE(m_stMachine.SendMessageToInProcess(&m_stHead, "abc", 3));
  EXPECT_FALSE(m_stMachine.SendMessageToOutProcess(&m_stHead, "abc", 3));
  EXPECT_FALSE(m_stMachine.SendMessageToOutProcess("10.0.0.1", 80, "abc", 3));
}

TEST_F(SendTest, EachWayOutNeedsItsOwnHook) {
  m_stMachine.OutMQOfInProc(SendIn);
  EXPECT_TRUE(m_stMachine.SendMessageToInProcess(&m_stHead, "abc", 3));
  EXPECT_FALSE(m_stMachine.SendMessageToOutProcess(&m_stHead, "abc", 3));
  EXPECT_FALSE(m_stMachine.SendMessageToOutProcess("10.0.0.1", 80, "abc", 3));
  EXPECT_EQ(1u, g_vecSentIn.size());
}

TEST_F(SendTest, HookGetsHeaderAndDataAsTheyAre) {
  m_stMachine.OutMQOfInProc(SendIn);
  const char szData[] = "a\0b";
  EXPECT_TRUE(m_stMachine.SendMessageToInProcess(&m_stHead, szData, 0xfffffff0));
  ASSERT_EQ(1u, g_vecSentIn.size());
  EXPECT_EQ(&m_stHead, g_vecSentIn[0].pHead);
  EXPECT_EQ(szData, g_vecSentIn[0].pData);
  EXPECT_EQ(0xfffffff0u, g_vecSentIn[0].iSize);
}

TEST_F(SendTest, SendIsTrueThoughTheHookFails) {
  m_stMachine.OutMQOfOutProc(SendOutAndFail);
  EXPECT_TRUE(m_stMachine.SendMessageToOutProcess(&m_stHead, "abc", 3));
  EXPECT_TRUE(m_stMachine.SendMessageToOutProcess("10.0.0.1", 80, "abc", 3));
  m_stMachine.OutMQOfInProc(SendOutAndFail);
  EXPECT_TRUE(m_stMachine.SendMessageToInProcess(&m_stHead, "abc", 3));
  EXPECT_EQ(3u, g_vecSentOut.size());
}

TEST_F(SendTest, AddressAndPortBecomeAHeaderWithoutConnection) {
  m_stMachine.OutMQOfOutProc(SendOutAndFail);
  EXPECT_TRUE(m_stMachine.SendMessageToOutProcess("10.0.0.1", 80, "abc", 3));
  ASSERT_EQ(1u, g_vecSentOut.size());
  const InternalHead_t& stHead = g_vecSentOut[0].stHead;
  EXPECT_EQ(-1, stHead.iFD);
  EXPECT_EQ(inet_addr("10.0.0.1"), stHead.iPeerAddr);
  EXPECT_EQ(80, stHead.iPeerPort);
  EXPECT_EQ(0xffffffffu, stHead.iSockAddr);
  EXPECT_EQ(0, stHead.iSockPort);
  EXPECT_EQ(3u, g_vecSentOut[0].iSize);
}

TEST_F(SendTest, InvalidAddressIsNotDetected) {
  m_stMachine.OutMQOfOutProc(SendOutAndFail);
  EXPECT_TRUE(m_stMachine.SendMessageToOutProcess("nowhere", 80, "abc", 3));
  ASSERT_EQ(1u, g_vecSentOut.size());
  EXPECT_EQ(0xffffffffu, g_vecSentOut[0].stHead.iPeerAddr);
}

// ---- the peer's address

TEST(StateMachineTest, PeerAddressIsMadeFromTheHeaderAndKept) {
  TestMachine stMachine(NewType());
  stMachine.m_sInternalHead.iPeerAddr = inet_addr("192.168.100.200");
  EXPECT_EQ("192.168.100.200", stMachine.PeerAddress());
  stMachine.m_sInternalHead.iPeerAddr = inet_addr("10.0.0.1");
  EXPECT_EQ("192.168.100.200", stMachine.PeerAddress());
  EXPECT_EQ(&stMachine.m_strPeerAddr, &stMachine.PeerAddress());
}

TEST(StateMachineTest, PeerAddressOfMoreThanSixCharactersCountsAsMade) {
  TestMachine stMachine(NewType());
  stMachine.m_sInternalHead.iPeerAddr = inet_addr("1.2.3.4");
  stMachine.m_strPeerAddr = "unknown";
  EXPECT_EQ("unknown", stMachine.PeerAddress());
  stMachine.m_strPeerAddr = "absent";
  EXPECT_EQ("1.2.3.4", stMachine.PeerAddress());
}

}  // namespace
