#include "machine_pool.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

const time_t T = 1000000;  // where the simulated time begins
const time_t NEVER = T + 1000000;

class OwnPool : public MachinePool {};

// What happened to machines, one word each: "7:state", "7:machine", "7:deleted".
typedef std::vector<std::string> Log_t;

// A machine in simulated time: its machine deadline is a field, its Timeout() a function.
class TimedMachine : public StateMachine {
 public:
  TimedMachine(unsigned int iID, Log_t* pLog) : m_pLog(pLog) {
    SetId(iID);
    SetStateBeginTime(T);
  }
  ~TimedMachine() override {
    if (m_fnDeleted) {
      m_fnDeleted();
    }
    Note("deleted");
  }

  int Timeout(bool bMachine) override {
    Note(bMachine ? "machine" : "state");
    return m_fnTimeout ? m_fnTimeout(bMachine) : m_iResult;
  }
  int StateMachineType() override { return 0; }
  const char* MachineName() override { return "timed"; }
  time_t GetMachineTimeout() const override {
    ++m_iLooks;
    return m_iMachineDeadline;
  }
  time_t GetStateTimeout() const override {
    ++m_iLooks;
    return StateMachine::GetStateTimeout();
  }

  int m_iResult = 0;  // of Timeout(), unless there is a function for it
  std::function<int(bool)> m_fnTimeout;
  std::function<void()> m_fnDeleted;
  time_t m_iMachineDeadline = NEVER;
  mutable int m_iLooks = 0;  // how often a deadline was asked for

 private:
  void Note(const char* pWhat) { m_pLog->push_back(std::to_string(m_iID) + ":" + pWhat); }

  Log_t* m_pLog;
};

class MachinePoolTest : public ::testing::Test {
 protected:
  // What is still in the pool at the end is deleted here, as a host would.
  ~MachinePoolTest() override {
    for (const unsigned int iID : m_setIds) {
      delete m_stPool.GetMachine(iID);
    }
  }

  TimedMachine* New(unsigned int iID, time_t iMachineDeadline = NEVER) {
    m_setIds.insert(iID);
    auto* pMachine = new TimedMachine(iID, &m_vecLog);
    pMachine->m_iMachineDeadline = iMachineDeadline;
    return pMachine;
  }
  TimedMachine* Add(unsigned int iID, time_t iMachineDeadline = NEVER) {
    TimedMachine* pMachine = New(iID, iMachineDeadline);
    m_stPool.AddMachine(pMachine);
    return pMachine;
  }
  TimedMachine* AddWithState(unsigned int iID, unsigned int iStateTimeout) {
    TimedMachine* pMachine = Add(iID);
    StartState(pMachine, T, iStateTimeout);
    return pMachine;
  }
  void StartState(StateMachine* pMachine, time_t iNow, unsigned int iTimeout) {
    pMachine->SetStateTimeout(iTimeout);
    pMachine->SetStateBeginTime(iNow);
    m_stPool.ConfigStateTimeout(pMachine);
  }
  // What one call of ProcessTimeout makes happen.
  Log_t Process(time_t iNow) {
    m_vecLog.clear();
    m_stPool.ProcessTimeout(iNow);
    return m_vecLog;
  }

  Log_t m_vecLog;
  OwnPool m_stPool;
  std::set<unsigned int> m_setIds;
};

// ---- the registry

TEST_F(MachinePoolTest, InstanceIsOneObject) {
  EXPECT_EQ(&MachinePool::Instance(), &MachinePool::Instance());
}

TEST_F(MachinePoolTest, MachineIsFoundUnderItsIdOnly) {
  TimedMachine* pMachine = Add(7);
  TimedMachine* pLast = Add(0xffffffff);
  TimedMachine* pZero = Add(0);
  EXPECT_EQ(pMachine, m_stPool.GetMachine(7));
  EXPECT_EQ(pLast, m_stPool.GetMachine(0xffffffff));
  EXPECT_EQ(pZero, m_stPool.GetMachine(0));
  EXPECT_EQ(nullptr, m_stPool.GetMachine(8));
  EXPECT_EQ(3u, m_stPool.MachineCount());
}

TEST_F(MachinePoolTest, RemovedMachineIsNotFoundAndNotDeleted) {
  const std::unique_ptr<TimedMachine> pMachine(Add(7));
  m_stPool.RemoveMachine(7);
  m_stPool.RemoveMachine(8);
  EXPECT_EQ(nullptr, m_stPool.GetMachine(7));
  EXPECT_EQ(0u, m_stPool.MachineCount());
  EXPECT_TRUE(m_vecLog.empty());
}

TEST_F(MachinePoolTest, MachineUnderAUsedIdIsNotStored) {
  TimedMachine* pFirst = Add(7);
  const std::unique_ptr<TimedMachine> pSecond(Add(7));
  EXPECT_EQ(pFirst, m_stPool.GetMachine(7));
  EXPECT_EQ(1u, m_stPool.MachineCount());
}

TEST_F(MachinePoolTest, MachineUnderAUsedIdStillQueuesACheckAtItsDeadline) {
  TimedMachine* pFirst = Add(7);
  const std::unique_ptr<TimedMachine> pSecond(Add(7, T + 5));
  pFirst->m_iMachineDeadline = T + 5;  // nobody told the pool
  EXPECT_EQ(Log_t{}, Process(T + 4));
  EXPECT_EQ((Log_t{"7:machine", "7:deleted"}), Process(T + 5));
}

TEST_F(MachinePoolTest, EndOfThePoolDeletesNoMachine) {
  const std::unique_ptr<TimedMachine> pMachine(New(7, T + 1));
  {
    OwnPool stPool;
    pMachine->SetStateTimeout(3);
    stPool.AddMachine(pMachine.get());
    stPool.ConfigStateTimeout(pMachine.get());
  }
  EXPECT_TRUE(m_vecLog.empty());
}

TEST_F(MachinePoolTest, DestroyedMachineDoesNotLeaveThePoolByItself) {
  Add(7);
  const std::unique_ptr<StateMachine> pMachine(m_stPool.GetMachine(7));
  EXPECT_EQ(1u, m_stPool.MachineCount());
  m_stPool.RemoveMachine(7);
}

TEST_F(MachinePoolTest, ManyMachinesComeAndGo) {
  for (unsigned int i = 0; i < 5000; ++i) {
    Add(i * 2654435761u);
  }
  for (unsigned int i = 0; i < 5000; i += 2) {
    const std::unique_ptr<StateMachine> pMachine(m_stPool.GetMachine(i * 2654435761u));
    m_stPool.RemoveMachine(i * 2654435761u);
  }
  EXPECT_EQ(2500u, m_stPool.MachineCount());
  for (unsigned int i = 0; i < 5000; ++i) {
    StateMachine* pMachine = m_stPool.GetMachine(i * 2654435761u);
    ASSERT_EQ(i % 2 == 1, pMachine != nullptr);
    ASSERT_TRUE(pMachine == nullptr || pMachine->GetId() == i * 2654435761u);
  }
}

// As many ids as share their places in whatever table, and gaps that close when they go.
TEST_F(MachinePoolTest, MachinesAreFoundWhateverOthersCameAndWent) {
  std::map<unsigned int, TimedMachine*> mapMachines;
  std::mt19937 stRandom(5);
  for (int i = 0; i < 20000; ++i) {
    const auto iID = static_cast<unsigned int>((stRandom() % 64 << 26) + stRandom() % 16);
    const auto [it, bNew] = mapMachines.emplace(iID, nullptr);
    if (bNew) {
      it->second = Add(iID);
    } else {
      m_stPool.RemoveMachine(iID);
      delete it->second;
      mapMachines.erase(it);
    }
    const auto iOther = static_cast<unsigned int>((stRandom() % 64 << 26) + stRandom() % 16);
    const auto itOther = mapMachines.find(iOther);
    ASSERT_EQ(itOther != mapMachines.end() ? itOther->second : nullptr,
              m_stPool.GetMachine(iOther));
  }
  ASSERT_EQ(mapMachines.size(), m_stPool.MachineCount());
  for (const auto& [iID, pMachine] : mapMachines) {
    ASSERT_EQ(pMachine, m_stPool.GetMachine(iID));
  }
}

TEST_F(MachinePoolTest, DumpWritesNothing) {
  AddWithState(7, 3);
  EXPECT_EQ("", CaptureDescriptor([&](int iFD) { m_stPool.Dump(iFD); }));
}

// ---- machine deadlines

// The deadlines of the base class, in real time.
class PlainMachine : public StateMachine {
 public:
  explicit PlainMachine(std::vector<bool>* pTimeouts) : m_pTimeouts(pTimeouts) { SetId(1); }
  int Timeout(bool bMachine) override {
    m_pTimeouts->push_back(bMachine);
    SetMachineTimeout(m_iNextTimeout);
    return 0;
  }
  int StateMachineType() override { return 0; }
  const char* MachineName() override { return "plain"; }

  unsigned int m_iNextTimeout = 10;

 private:
  std::vector<bool>* m_pTimeouts;
};

TEST_F(MachinePoolTest, DefaultMachineIsAskedAfterTenSecondsAndNotAfterNine) {
  std::vector<bool> vecTimeouts;
  auto* pMachine = new PlainMachine(&vecTimeouts);
  const time_t iBegin = pMachine->GetMachineTimeout() - 10;
  m_stPool.AddMachine(pMachine);
  m_stPool.ProcessTimeout(iBegin + 9);
  EXPECT_TRUE(vecTimeouts.empty());
  m_stPool.ProcessTimeout(iBegin + 10);
  EXPECT_EQ(std::vector<bool>{true}, vecTimeouts);
  EXPECT_EQ(0u, m_stPool.MachineCount());
}

TEST_F(MachinePoolTest, MachineThatMovesItsDeadlineStaysUntilThen) {
  std::vector<bool> vecTimeouts;
  auto* pMachine = new PlainMachine(&vecTimeouts);
  pMachine->m_iNextTimeout = 60;
  const time_t iBegin = pMachine->GetMachineTimeout() - 10;
  m_stPool.AddMachine(pMachine);
  m_stPool.ProcessTimeout(iBegin + 10);
  m_stPool.ProcessTimeout(iBegin + 59);
  EXPECT_EQ(pMachine, m_stPool.GetMachine(1));
  EXPECT_EQ(1u, vecTimeouts.size());
  m_stPool.ProcessTimeout(iBegin + 60);
  EXPECT_EQ((std::vector<bool>{true, true}), vecTimeouts);
  EXPECT_EQ(nullptr, m_stPool.GetMachine(1));
}

TEST_F(MachinePoolTest, MachineThatReturnsZeroWithoutMovingItsDeadlineIsDeletedAnyway) {
  Add(7, T + 5);
  EXPECT_EQ((Log_t{"7:machine", "7:deleted"}), Process(T + 5));
  EXPECT_EQ(Log_t{}, Process(T + 6));
}

TEST_F(MachinePoolTest, MachineThatReturnsNonZeroIsDeletedThoughItMovedItsDeadline) {
  TimedMachine* pMachine = Add(7, T + 5);
  pMachine->m_fnTimeout = [=](bool) {
    pMachine->m_iMachineDeadline = T + 50;
    return -1;
  };
  EXPECT_EQ((Log_t{"7:machine", "7:deleted"}), Process(T + 5));
}

TEST_F(MachinePoolTest, NewMachineDeadlineMustBeLaterThanNow) {
  for (const unsigned int iID : {7u, 8u}) {
    TimedMachine* pMachine = Add(iID, T + 5);
    pMachine->m_fnTimeout = [=](bool) {
      pMachine->m_iMachineDeadline = iID == 7 ? T + 5 : T + 6;
      return 0;
    };
  }
  EXPECT_EQ((Log_t{"7:machine", "7:deleted", "8:machine"}), Process(T + 5));
  EXPECT_EQ((Log_t{"8:machine", "8:deleted"}), Process(T + 6));
}

TEST_F(MachinePoolTest, MachineDeadlineThatMovedLaterIsQueuedAgain) {
  TimedMachine* pMachine = Add(7, T + 5);
  pMachine->m_iMachineDeadline = T + 9;
  EXPECT_EQ(Log_t{}, Process(T + 5));
  EXPECT_EQ(Log_t{}, Process(T + 8));
  EXPECT_EQ((Log_t{"7:machine", "7:deleted"}), Process(T + 9));
}

TEST_F(MachinePoolTest, MachineDeadlineBroughtForwardCountsFromItsConfig) {
  TimedMachine* pMachine = Add(7, T + 50);
  pMachine->m_iMachineDeadline = T + 5;
  m_stPool.ConfigMachineTimeout(pMachine);
  EXPECT_EQ(Log_t{}, Process(T + 4));
  EXPECT_EQ((Log_t{"7:machine", "7:deleted"}), Process(T + 5));
  EXPECT_EQ(Log_t{}, Process(T + 50));
}

TEST_F(MachinePoolTest, MachineDeadlineOfZeroIsNotQueued) {
  TimedMachine* pMachine = Add(7, 0);
  EXPECT_EQ(Log_t{}, Process(T));
  pMachine->m_iMachineDeadline = 1;  // nobody told the pool
  EXPECT_EQ(Log_t{}, Process(T));
}

TEST_F(MachinePoolTest, MachineDeadlineThatBecameZeroIsDueWhenItsOldEntryIs) {
  Add(7, T + 5)->m_iMachineDeadline = 0;
  EXPECT_EQ(Log_t{}, Process(T + 4));
  EXPECT_EQ((Log_t{"7:machine", "7:deleted"}), Process(T + 5));
}

TEST_F(MachinePoolTest, MachineIsOutOfThePoolBeforeItIsDeleted) {
  int iChecks = 0;
  for (const unsigned int iID : {7u, 8u}) {
    TimedMachine* pMachine = Add(iID, T + 6);
    pMachine->m_iResult = 1;
    pMachine->m_fnDeleted = [&, iID] {
      ++iChecks;
      EXPECT_EQ(nullptr, m_stPool.GetMachine(iID));
    };
  }
  StartState(m_stPool.GetMachine(7), T, 1);
  EXPECT_EQ((Log_t{"7:state", "7:deleted", "8:machine", "8:deleted"}), Process(T + 6));
  EXPECT_EQ(2, iChecks);
}

// ---- state deadlines

TEST_F(MachinePoolTest, StateThatTimesOutRepeatsItsAlarm) {
  AddWithState(7, 3);
  const Log_t vecAlarm{"7:state"};
  for (time_t iPast = 1; iPast <= 9; ++iPast) {
    EXPECT_EQ(iPast % 3 == 0 ? vecAlarm : Log_t{}, Process(T + iPast)) << iPast;
  }
}

TEST_F(MachinePoolTest, StateBeginsAnewWhenItsAlarmWasHandledNotWhenItWasDue) {
  AddWithState(7, 3);
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 5));
  EXPECT_EQ(T + 8, m_stPool.GetMachine(7)->GetStateTimeout());
  EXPECT_EQ(Log_t{}, Process(T + 7));
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 8));
}

TEST_F(MachinePoolTest, ManyMissedPeriodsAreOneAlarm) {
  AddWithState(7, 3);
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 100));
}

TEST_F(MachinePoolTest, StateAlarmThatReturnsNonZeroEndsTheMachine) {
  AddWithState(7, 3)->m_iResult = 1;
  EXPECT_EQ((Log_t{"7:state", "7:deleted"}), Process(T + 3));
  EXPECT_EQ(0u, m_stPool.MachineCount());
  EXPECT_EQ(Log_t{}, Process(T + 6));
}

TEST_F(MachinePoolTest, AlarmEndsWhenTimeoutClearsIt) {
  TimedMachine* pMachine = AddWithState(7, 3);
  pMachine->m_fnTimeout = [=](bool) {
    pMachine->ClearStateTimeout();
    return 0;
  };
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 3));
  EXPECT_EQ(Log_t{}, Process(T + 100));
}

TEST_F(MachinePoolTest, AlarmTakesTheTimeoutThatTimeoutSet) {
  TimedMachine* pMachine = AddWithState(7, 3);
  pMachine->m_fnTimeout = [=](bool) {
    pMachine->SetStateTimeout(5);
    return 0;
  };
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 4));
  EXPECT_EQ(Log_t{}, Process(T + 8));
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 9));
}

TEST_F(MachinePoolTest, StateWithoutTimeoutIsNotQueued) {
  TimedMachine* pMachine = AddWithState(7, 0);
  pMachine->SetStateTimeout(3);  // nobody told the pool
  EXPECT_EQ(Log_t{}, Process(T + 3));
}

TEST_F(MachinePoolTest, EntryOfAClearedStateTimeoutIsDropped) {
  TimedMachine* pMachine = AddWithState(7, 3);
  pMachine->ClearStateTimeout();
  EXPECT_EQ(Log_t{}, Process(T + 3));
  pMachine->SetStateTimeout(3);  // nobody told the pool
  EXPECT_EQ(Log_t{}, Process(T + 50));
}

TEST_F(MachinePoolTest, StateDeadlineThatMovedLaterIsQueuedAgain) {
  TimedMachine* pMachine = AddWithState(7, 3);
  pMachine->SetStateBeginTime(T + 4);
  EXPECT_EQ(Log_t{}, Process(T + 3));
  EXPECT_EQ(Log_t{}, Process(T + 6));
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 7));
}

TEST_F(MachinePoolTest, StateDeadlineBroughtForwardCountsFromItsConfig) {
  TimedMachine* pMachine = AddWithState(7, 30);
  StartState(pMachine, T + 1, 2);
  EXPECT_EQ(Log_t{}, Process(T + 2));
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 3));
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 30));
}

// ---- the order of one call

TEST_F(MachinePoolTest, EqualDeadlinesAreHandledInTheOrderQueued) {
  for (const unsigned int iID : {5u, 9u, 1u}) {
    AddWithState(iID, 3);
  }
  EXPECT_EQ((Log_t{"5:state", "9:state", "1:state"}), Process(T + 3));
  for (const unsigned int iID : {6u, 8u, 2u}) {
    Add(iID, T + 4);
  }
  EXPECT_EQ((Log_t{"6:machine", "6:deleted", "8:machine", "8:deleted", "2:machine", "2:deleted"}),
            Process(T + 4));
}

TEST_F(MachinePoolTest, QueueingAgainForTheSameDeadlineKeepsThePlace) {
  for (const unsigned int iID : {5u, 9u, 1u}) {
    AddWithState(iID, 3);
  }
  m_stPool.ConfigStateTimeout(m_stPool.GetMachine(5));
  m_stPool.ConfigStateTimeout(m_stPool.GetMachine(9));
  EXPECT_EQ((Log_t{"5:state", "9:state", "1:state"}), Process(T + 3));
}

TEST_F(MachinePoolTest, ManyEqualDeadlinesAreHandledInTheOrderQueued) {
  Log_t vecExpected;
  for (unsigned int i = 0; i < 3000; ++i) {
    const unsigned int iID = i * 2654435761u;
    TimedMachine* pMachine = AddWithState(iID, 3);
    m_stPool.ConfigStateTimeout(pMachine);
    m_stPool.ConfigStateTimeout(m_stPool.GetMachine(0));
    vecExpected.push_back(std::to_string(iID) + ":state");
  }
  EXPECT_EQ(vecExpected, Process(T + 3));
  EXPECT_EQ(vecExpected, Process(T + 6));
}

TEST_F(MachinePoolTest, EarlierDeadlinesAreHandledFirst) {
  AddWithState(1, 5);
  AddWithState(2, 3);
  AddWithState(3, 4);
  EXPECT_EQ((Log_t{"2:state", "3:state", "1:state"}), Process(T + 5));
}

TEST_F(MachinePoolTest, EverySecondHasItsOwnChecksInWhateverOrderTheyAreQueued) {
  const unsigned int SECONDS = 300;
  for (unsigned int i = 1; i < SECONDS; ++i) {
    const unsigned int iSecond = SECONDS - i;  // the latest first
    AddWithState(iSecond, iSecond)->m_iResult = 1;
  }
  for (unsigned int iSecond = 1; iSecond < SECONDS; ++iSecond) {
    const std::string strID = std::to_string(iSecond);
    ASSERT_EQ((Log_t{strID + ":state", strID + ":deleted"}), Process(T + iSecond));
  }
}

TEST_F(MachinePoolTest, SecondsFarApartKeepTheirOrderWhenTheyAreQueuedByTurns) {
  for (unsigned int i = 0; i < 6; ++i) {
    AddWithState(i, i % 2 == 0 ? 64 : 128)->m_iResult = 1;
  }
  EXPECT_EQ((Log_t{"0:state", "0:deleted", "2:state", "2:deleted", "4:state", "4:deleted"}),
            Process(T + 64));
  EXPECT_EQ((Log_t{"1:state", "1:deleted", "3:state", "3:deleted", "5:state", "5:deleted"}),
            Process(T + 128));
}

TEST_F(MachinePoolTest, RequeuedEntryStandsBehindThoseAlreadyQueuedForItsTime) {
  TimedMachine* pMoved = AddWithState(1, 3);
  AddWithState(2, 9);
  pMoved->SetStateTimeout(9);
  EXPECT_EQ(Log_t{}, Process(T + 3));
  EXPECT_EQ((Log_t{"2:state", "1:state"}), Process(T + 9));
}

TEST_F(MachinePoolTest, StateDeadlinesComeBeforeMachineDeadlines) {
  Add(1, T + 2);
  StartState(Add(2, T + 5), T, 5);
  EXPECT_EQ((Log_t{"2:state", "1:machine", "1:deleted", "2:machine", "2:deleted"}), Process(T + 5));
}

TEST_F(MachinePoolTest, MachineThatItsStateEndedIsNotAskedAgain) {
  TimedMachine* pMachine = Add(7, T + 5);
  pMachine->m_iResult = 1;
  StartState(pMachine, T, 5);
  EXPECT_EQ((Log_t{"7:state", "7:deleted"}), Process(T + 5));
}

// ---- stale entries, empty pools, the clock

TEST_F(MachinePoolTest, MachineRemovedBeforeItsDeadlinesIsNotAsked) {
  const std::unique_ptr<TimedMachine> pMachine(Add(7, T + 5));
  StartState(pMachine.get(), T, 3);
  m_stPool.RemoveMachine(7);
  EXPECT_EQ(Log_t{}, Process(T + 5));
}

TEST_F(MachinePoolTest, StaleEntryOfAReusedIdDoesNotHurryTheNewMachine) {
  std::unique_ptr<TimedMachine> pOld(Add(7, T + 5));
  StartState(pOld.get(), T, 3);
  m_stPool.RemoveMachine(7);
  StartState(Add(7, T + 9), T, 8);
  EXPECT_EQ(Log_t{}, Process(T + 7));
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 8));
  EXPECT_EQ((Log_t{"7:machine", "7:deleted"}), Process(T + 9));
}

TEST_F(MachinePoolTest, CheckQueuedForAMachineOutsideThePoolIsDropped) {
  const std::unique_ptr<TimedMachine> pMachine(New(7, T + 5));
  m_stPool.ConfigMachineTimeout(pMachine.get());
  StartState(pMachine.get(), T, 3);
  EXPECT_EQ(Log_t{}, Process(T + 5));
}

TEST_F(MachinePoolTest, ManyChecksForMachinesOutsideAPoolThatNeverHadOneAreDropped) {
  std::vector<std::unique_ptr<TimedMachine>> vecMachines;
  for (unsigned int iID = 1; iID <= 100; ++iID) {
    vecMachines.emplace_back(New(iID, T + 5));
    m_stPool.ConfigMachineTimeout(vecMachines.back().get());
  }
  EXPECT_EQ(Log_t{}, Process(T + 5));
}

TEST_F(MachinePoolTest, ChecksLeftByAnExceptionComeBeforeThoseQueuedMeanwhileForTheirSecond) {
  TimedMachine* pFirst = AddWithState(1, 3);
  AddWithState(2, 3);
  pFirst->m_fnTimeout = [this](bool) -> int {
    AddWithState(3, 3);
    throw std::bad_alloc();
  };
  EXPECT_THROW(m_stPool.ProcessTimeout(T + 3), std::bad_alloc);
  pFirst->m_fnTimeout = nullptr;
  m_vecLog.clear();
  EXPECT_EQ((Log_t{"1:state", "2:state", "3:state"}), Process(T + 3));
}

TEST_F(MachinePoolTest, EmptyPoolDoesNothing) {
  EXPECT_EQ(Log_t{}, Process(T));
  EXPECT_EQ(Log_t{}, Process(0));
  EXPECT_EQ(0u, m_stPool.MachineCount());
}

TEST_F(MachinePoolTest, TimeZeroStandsForTheCurrentTime) {
  const time_t iNow = time(nullptr);
  StartState(Add(1, iNow + 1000), iNow - 10, 5);
  StartState(Add(2, iNow + 1000), iNow, 500);
  EXPECT_EQ(Log_t{"1:state"}, Process(0));
  EXPECT_LE(iNow + 5, m_stPool.GetMachine(1)->GetStateTimeout());
  EXPECT_GE(time(nullptr) + 5, m_stPool.GetMachine(1)->GetStateTimeout());
}

TEST_F(MachinePoolTest, ClockSetBackMakesNothingDue) {
  AddWithState(7, 3);
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 3));
  EXPECT_EQ(Log_t{}, Process(T - 1000));
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 6));
}

// ---- the queues do not grow

TEST_F(MachinePoolTest, RearmingForOneDeadlineQueuesOneLook) {
  TimedMachine* pMachine = AddWithState(7, 3);
  for (int i = 0; i < 1000; ++i) {
    m_stPool.ConfigStateTimeout(pMachine);
    m_stPool.ConfigMachineTimeout(pMachine);
  }
  pMachine->ClearStateTimeout();
  pMachine->m_iLooks = 0;
  EXPECT_EQ(Log_t{}, Process(T + 3));
  EXPECT_EQ(1, pMachine->m_iLooks);
  pMachine->m_iMachineDeadline = NEVER + 1;
  pMachine->m_iLooks = 0;
  EXPECT_EQ(Log_t{}, Process(NEVER));
  EXPECT_EQ(2, pMachine->m_iLooks);  // the look, and the deadline to queue next
}

TEST_F(MachinePoolTest, GoingToAndFroBetweenTwoDeadlinesQueuesFewLooks) {
  TimedMachine* pMachine = Add(7);
  TimedMachine* pOther = Add(8);
  for (int i = 0; i < 10000; ++i) {
    for (const unsigned int iTimeout : {5u, 30u, 60u}) {
      StartState(pMachine, T, iTimeout);
      StartState(pOther, T, iTimeout);
    }
  }
  pMachine->m_iLooks = 0;
  pOther->m_iLooks = 0;
  EXPECT_EQ(Log_t{}, Process(T + 30));
  EXPECT_LT(pMachine->m_iLooks + pOther->m_iLooks, 200);
  EXPECT_EQ((Log_t{"7:state", "8:state"}), Process(T + 60));
}

TEST_F(MachinePoolTest, ChecksOfAMachineStandInEachPoolAndUnderEachIdOfIts) {
  TimedMachine* pMachine = AddWithState(7, 3);
  {
    OwnPool stOther;
    stOther.AddMachine(pMachine);
    stOther.ConfigStateTimeout(pMachine);
    stOther.ProcessTimeout(T + 3);
    EXPECT_EQ(Log_t{"7:state"}, m_vecLog);
  }
  m_stPool.RemoveMachine(7);
  pMachine->SetId(8);
  m_setIds.insert(8);
  m_stPool.AddMachine(pMachine);
  StartState(pMachine, T, 3);  // for the second in which 7 stands already
  EXPECT_EQ(Log_t{"8:state"}, Process(T + 3));
}

TEST_F(MachinePoolTest, CheckIsQueuedAnewUnderTheNewIdOfAMachine) {
  TimedMachine* pMachine = AddWithState(7, 3);
  m_stPool.RemoveMachine(7);
  pMachine->SetId(8);
  m_setIds.insert(8);
  m_stPool.AddMachine(pMachine);
  m_stPool.ConfigStateTimeout(pMachine);
  EXPECT_EQ(Log_t{"8:state"}, Process(T + 3));
  pMachine->ClearStateTimeout();
  EXPECT_EQ((Log_t{"8:machine", "8:deleted"}), Process(NEVER));
}

TEST_F(MachinePoolTest, CheckIsQueuedInAPoolThatTakesThePlaceOfAnother) {
  TimedMachine* pMachine = Add(7);
  pMachine->SetStateTimeout(3);
  for (int i = 0; i < 2; ++i) {
    OwnPool stPool;
    m_vecLog.clear();
    pMachine->SetStateBeginTime(T);
    stPool.AddMachine(pMachine);
    stPool.ConfigStateTimeout(pMachine);
    stPool.ProcessTimeout(T + 3);
    EXPECT_EQ(Log_t{"7:state"}, m_vecLog);
  }
}

TEST_F(MachinePoolTest, RearmingManyMachinesForOneDeadlineQueuesOneLookEach) {
  std::vector<TimedMachine*> vecMachines;
  for (unsigned int i = 0; i < 3000; ++i) {
    vecMachines.push_back(AddWithState(i * 2654435761u, 3));
  }
  for (TimedMachine* pMachine : vecMachines) {
    m_stPool.ConfigStateTimeout(pMachine);
    pMachine->ClearStateTimeout();
    pMachine->m_iLooks = 0;
  }
  EXPECT_EQ(Log_t{}, Process(T + 3));
  for (const TimedMachine* pMachine : vecMachines) {
    ASSERT_EQ(1, pMachine->m_iLooks) << pMachine->GetId();
  }
}

// A busy conversation that changes between two states with different timeouts.
TEST_F(MachinePoolTest, RearmingForHoursCostsTwoLooksASecond) {
  std::vector<TimedMachine*> vecMachines;
  for (unsigned int iID = 0; iID < 100; ++iID) {
    vecMachines.push_back(Add(iID));
  }
  for (time_t iNow = T; iNow < T + 7200; ++iNow) {
    for (TimedMachine* pMachine : vecMachines) {
      for (int i = 0; i < 3; ++i) {
        StartState(pMachine, iNow, 5);
        StartState(pMachine, iNow, 30);
      }
      pMachine->m_iLooks = 0;
    }
    ASSERT_EQ(Log_t{}, Process(iNow));
    ASSERT_GE(4, vecMachines[50]->m_iLooks);  // an entry of each state, looked at and queued again
  }
}

// ---- what Timeout() may do

TEST_F(MachinePoolTest, TimeoutMayAddMachinesWhichAreAskedInTheirTurn) {
  TimedMachine* pMachine = AddWithState(1, 3);
  pMachine->m_fnTimeout = [this](bool) {
    for (unsigned int iID = 2; iID < 2000; ++iID) {
      StartState(Add(iID), T + 3, 1);
    }
    return 1;
  };
  EXPECT_EQ((Log_t{"1:state", "1:deleted"}), Process(T + 3));
  EXPECT_EQ(1998u, m_stPool.MachineCount());
  EXPECT_EQ(1998u, Process(T + 4).size());
}

TEST_F(MachinePoolTest, MachineDeadlineThatAStateAlarmQueuesIsHandledInTheSameCall) {
  AddWithState(1, 3)->m_fnTimeout = [this](bool) {
    Add(2, T + 1);
    return 0;
  };
  EXPECT_EQ((Log_t{"1:state", "2:machine", "2:deleted"}), Process(T + 3));
}

TEST_F(MachinePoolTest, DueMachineThatAMachineTimeoutAddsWaitsForTheNextCall) {
  Add(1, T + 3)->m_fnTimeout = [this](bool) {
    Add(2, T + 1);
    return 1;
  };
  EXPECT_EQ((Log_t{"1:machine", "1:deleted"}), Process(T + 3));
  EXPECT_EQ((Log_t{"2:machine", "2:deleted"}), Process(T + 3));
}

TEST_F(MachinePoolTest, TimeoutMayRemoveItsOwnMachineAndHaveItDeletedOnce) {
  for (const unsigned int iID : {1u, 2u}) {
    Add(iID, T + 5)->m_fnTimeout = [this, iID](bool) {
      m_stPool.RemoveMachine(iID);
      return 1;
    };
  }
  StartState(m_stPool.GetMachine(1), T, 3);
  EXPECT_EQ((Log_t{"1:state", "1:deleted", "2:machine", "2:deleted"}), Process(T + 5));
}

TEST_F(MachinePoolTest, MachineThatRemovedItselfAtAStateAlarmIsNotDeletedWhenItReturnsZero) {
  const std::unique_ptr<TimedMachine> pMachine(AddWithState(7, 3));
  pMachine->m_fnTimeout = [this](bool) {
    m_stPool.RemoveMachine(7);
    return 0;
  };
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 3));
  EXPECT_EQ(Log_t{}, Process(NEVER));
}

TEST_F(MachinePoolTest, MachineThatRemovedItselfAtItsEndIsDeletedAnyway) {
  Add(7, T + 5)->m_fnTimeout = [this](bool) {
    m_stPool.RemoveMachine(7);
    return 0;
  };
  EXPECT_EQ((Log_t{"7:machine", "7:deleted"}), Process(T + 5));
}

TEST_F(MachinePoolTest, TimeoutMayDeleteAnotherMachineThatIsDueToo) {
  for (const unsigned int iID : {1u, 2u, 3u}) {
    AddWithState(iID, 3);
  }
  static_cast<TimedMachine*>(m_stPool.GetMachine(1))->m_fnTimeout = [this](bool) {
    const std::unique_ptr<StateMachine> pOther(m_stPool.GetMachine(2));
    m_stPool.RemoveMachine(2);
    return 0;
  };
  EXPECT_EQ((Log_t{"1:state", "2:deleted", "3:state"}), Process(T + 3));
}

TEST_F(MachinePoolTest, TimeoutMayReplaceAnotherMachineThatIsDueToo) {
  AddWithState(1, 3)->m_fnTimeout = [this](bool) {
    const std::unique_ptr<StateMachine> pOther(m_stPool.GetMachine(2));
    m_stPool.RemoveMachine(2);
    StartState(Add(2), T + 3, 4);
    return 1;
  };
  AddWithState(2, 3);
  EXPECT_EQ((Log_t{"1:state", "2:deleted", "1:deleted"}), Process(T + 3));
  EXPECT_EQ(Log_t{}, Process(T + 6));
  EXPECT_EQ(Log_t{"2:state"}, Process(T + 7));
}

TEST_F(MachinePoolTest, MachineThatGivesUpIsRemovedByItsIdWhoeverStandsThere) {
  TimedMachine* pSuccessor = New(7);
  AddWithState(7, 3)->m_fnTimeout = [=](bool) {
    m_stPool.RemoveMachine(7);
    m_stPool.AddMachine(pSuccessor);
    return 1;
  };
  EXPECT_EQ((Log_t{"7:state", "7:deleted"}), Process(T + 3));
  EXPECT_EQ(nullptr, m_stPool.GetMachine(7));
  delete pSuccessor;  // the pool did not
}

TEST_F(MachinePoolTest, TimeoutMayQueueItsOwnNextAlarmItself) {
  TimedMachine* pMachine = AddWithState(7, 3);
  pMachine->m_fnTimeout = [=](bool) {
    StartState(pMachine, T + 3, 4);
    return 0;
  };
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 3));
  EXPECT_EQ(Log_t{}, Process(T + 6));
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 7));
}

TEST_F(MachinePoolTest, AlarmThatQueuesAPastDeadlineDoesNotKeepTheCallGoing) {
  TimedMachine* pMachine = AddWithState(7, 3);
  pMachine->m_fnTimeout = [=](bool) {
    StartState(pMachine, T, 1);
    return 0;
  };
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 5));
  EXPECT_EQ(Log_t{}, Process(T + 5));  // the state began anew at T + 5
  EXPECT_EQ(Log_t{"7:state"}, Process(T + 6));
}

TEST_F(MachinePoolTest, PastDeadlineQueuedDuringACallIsSeenByTheNext) {
  TimedMachine* pOther = Add(8);
  for (const time_t iBegin : {T - 100, T + 2}) {  // before and behind the entry being handled
    TimedMachine* pMachine = Add(7);
    StartState(pMachine, T + 3, 1);
    pMachine->m_fnTimeout = [=](bool) {
      StartState(pOther, iBegin, 2);
      return 1;
    };
    EXPECT_EQ((Log_t{"7:state", "7:deleted"}), Process(T + 5));
    EXPECT_EQ(Log_t{"8:state"}, Process(T + 5));
  }
}

TEST_F(MachinePoolTest, PastMachineDeadlineQueuedDuringACallIsSeenByTheNext) {
  TimedMachine* pOther = Add(8);
  Add(7, T + 5)->m_fnTimeout = [=](bool) {
    pOther->m_iMachineDeadline = T + 5;
    m_stPool.ConfigMachineTimeout(pOther);
    return 1;
  };
  EXPECT_EQ((Log_t{"7:machine", "7:deleted"}), Process(T + 5));
  EXPECT_EQ((Log_t{"8:machine", "8:deleted"}), Process(T + 5));
}

TEST_F(MachinePoolTest, SecondThatEndsAnotherMachineWhoseEntryComesFirstIsHarmless) {
  const std::unique_ptr<TimedMachine> pFirst(AddWithState(1, 3));
  AddWithState(2, 3)->m_fnTimeout = [this](bool) {
    m_stPool.RemoveMachine(1);
    return 0;
  };
  EXPECT_EQ((Log_t{"1:state", "2:state"}), Process(T + 3));
  EXPECT_EQ(Log_t{"2:state"}, Process(T + 6));
}

// ---- against the plainest form

// The pool as one would write it down: two multimaps, every entry kept.
class PlainPool {
 public:
  void AddMachine(StateMachine* pMachine) {
    m_mapMachines.emplace(pMachine->GetId(), pMachine);
    ConfigMachineTimeout(pMachine);
  }
  StateMachine* GetMachine(unsigned int iID) {
    const auto it = m_mapMachines.find(iID);
    return it == m_mapMachines.end() ? nullptr : it->second;
  }
  void RemoveMachine(unsigned int iID) { m_mapMachines.erase(iID); }
  void ConfigMachineTimeout(StateMachine* pMachine) {
    Queue(&m_mapMachineQueue, pMachine->GetMachineTimeout(), pMachine);
  }
  void ConfigStateTimeout(StateMachine* pMachine) {
    Queue(&m_mapStateQueue, pMachine->GetStateTimeout(), pMachine);
  }
  void ProcessTimeout(time_t iNow) {
    auto itState = m_mapStateQueue.begin();
    for (; itState != m_mapStateQueue.end() && itState->first <= iNow; ++itState) {
      CheckState(GetMachine(itState->second), iNow);
    }
    m_mapStateQueue.erase(m_mapStateQueue.begin(), itState);
    auto itMachine = m_mapMachineQueue.begin();
    for (; itMachine != m_mapMachineQueue.end() && itMachine->first <= iNow; ++itMachine) {
      CheckMachine(GetMachine(itMachine->second), iNow);
    }
    m_mapMachineQueue.erase(m_mapMachineQueue.begin(), itMachine);
  }

 private:
  typedef std::multimap<time_t, unsigned int> Queue_t;

  static void Queue(Queue_t* pQueue, time_t iDeadline, StateMachine* pMachine) {
    if (iDeadline != 0) {
      pQueue->emplace(iDeadline, pMachine->GetId());
    }
  }
  void CheckState(StateMachine* pMachine, time_t iNow) {
    if (pMachine == nullptr || pMachine->GetStateTimeout() == 0) {
      return;
    }
    if (iNow < pMachine->GetStateTimeout()) {
      ConfigStateTimeout(pMachine);
    } else if (pMachine->Timeout(false) != 0) {
      Delete(pMachine);
    } else {
      pMachine->SetStateBeginTime(iNow);
      ConfigStateTimeout(pMachine);
    }
  }
  void CheckMachine(StateMachine* pMachine, time_t iNow) {
    if (pMachine == nullptr) {
      return;
    }
    if (iNow < pMachine->GetMachineTimeout()) {
      ConfigMachineTimeout(pMachine);
    } else if (pMachine->Timeout(true) == 0 && iNow < pMachine->GetMachineTimeout()) {
      ConfigMachineTimeout(pMachine);
    } else {
      Delete(pMachine);
    }
  }
  void Delete(StateMachine* pMachine) {
    RemoveMachine(pMachine->GetId());
    delete pMachine;
  }

  std::map<unsigned int, StateMachine*> m_mapMachines;
  Queue_t m_mapMachineQueue;
  Queue_t m_mapStateQueue;
};

// One random history, the same for every pool with the same seed.
template <typename Pool>
class History {
 public:
  explicit History(unsigned int iSeed) : m_stRandom(iSeed) {}
  ~History() {
    for (unsigned int iID = 0; iID < IDS; ++iID) {
      delete m_stPool.GetMachine(iID);
    }
  }
  History(const History&) = delete;
  History& operator=(const History&) = delete;

  Log_t Run() {
    for (int i = 0; i < 3000; ++i) {
      Step(Random(IDS));
    }
    return m_vecLog;
  }

 private:
  static const unsigned int IDS = 40;

  unsigned int Random(unsigned int iEnd) { return static_cast<unsigned int>(m_stRandom()) % iEnd; }

  void Step(unsigned int iID) {
    auto* pMachine = static_cast<TimedMachine*>(m_stPool.GetMachine(iID));
    const unsigned int iWhat = Random(20);
    if (pMachine == nullptr) {
      Add(iID);
    } else if (iWhat == 0) {
      m_stPool.RemoveMachine(iID);
      delete pMachine;
    } else if (iWhat < 3) {
      m_iNow += Random(4);
      m_vecLog.push_back("at " + std::to_string(m_iNow));
      m_stPool.ProcessTimeout(m_iNow);
    } else {
      Rearm(pMachine);
    }
  }

  void Add(unsigned int iID) {
    auto* pMachine = new TimedMachine(iID, &m_vecLog);
    pMachine->m_iMachineDeadline = m_iNow + Random(30);
    pMachine->m_fnTimeout = [this, pMachine](bool bMachine) { return Timeout(pMachine, bMachine); };
    m_stPool.AddMachine(pMachine);
  }

  int Timeout(TimedMachine* pMachine, bool bMachine) {
    if (bMachine && Random(2) == 0) {
      pMachine->m_iMachineDeadline = m_iNow + Random(10);
    } else if (Random(3) == 0) {
      pMachine->SetStateTimeout(Random(4));
    }
    return Random(4) == 0;
  }

  // Sets deadlines anew; the pool is told mostly, and sometimes twice.
  void Rearm(TimedMachine* pMachine) {
    pMachine->SetStateBeginTime(m_iNow);
    pMachine->SetStateTimeout(Random(6));
    for (unsigned int i = Random(4); i > 0; --i) {
      m_stPool.ConfigStateTimeout(pMachine);
    }
    if (Random(5) == 0) {
      pMachine->m_iMachineDeadline = m_iNow + Random(30);
      m_stPool.ConfigMachineTimeout(pMachine);
    }
  }

  std::mt19937 m_stRandom;
  Log_t m_vecLog;
  Pool m_stPool;
  time_t m_iNow = T;
};

TEST(MachinePoolHistoryTest, CallsAndTheirOrderAreThoseOfAPoolThatKeepsEveryEntry) {
  size_t iHappened = 0;
  for (unsigned int iSeed = 1; iSeed <= 30; ++iSeed) {
    const Log_t vecExpected = History<PlainPool>(iSeed).Run();
    ASSERT_EQ(vecExpected, History<OwnPool>(iSeed).Run()) << iSeed;
    iHappened += vecExpected.size();
  }
  EXPECT_LT(10000u, iHappened);
}

}  // namespace
