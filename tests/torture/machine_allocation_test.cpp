// State machines, their factory and their pool while memory is lacking.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "failing_allocation.h"
#include "machine_factory.h"
#include "machine_pool.h"
#include "state_machine.h"
#include "test_support.h"

namespace {

const char LONG_NAME[] = "a name that is longer than what a string holds in itself";
const time_t NOW = 1000000;
const int TYPE = 7;

// A machine that counts the alarms of its state, and of which one may see the tables.
class Machine : public StateMachine {
 public:
  explicit Machine(unsigned int iID = 1) { SetId(iID); }

  int Timeout(bool bMachine) override {
    ++(bMachine ? m_iMachineAlarms : m_iAlarms);
    return 0;
  }
  int StateMachineType() override { return TYPE; }
  const char* MachineName() override { return "Machine"; }
  time_t GetMachineTimeout() const override { return m_iDeadline; }

  static size_t Types() {
    return m_mapGlobalStateList.size() + m_mapGlobalStateList2.size() + m_mapGlobalStateName.size();
  }
  static void ClearTables() {
    m_mapGlobalStateList.clear();
    m_mapGlobalStateList2.clear();
    m_mapGlobalStateName.clear();
  }

  int m_iAlarms = 0;
  int m_iMachineAlarms = 0;
  time_t m_iDeadline = NOW + 100;
};

StateMachine* Create() { return new Machine; }
StateMachine* CreateByAddr(void* /*pAddr*/) { return new Machine; }

int Handle(StateMachine* /*pMachine*/, InternalHead_t* /*pHead*/, void* /*pMessage*/) { return 5; }
int Handle2(StateMachine* /*pMachine*/, conn_key_t /*iKey*/, void* /*pMessage*/) { return 6; }

// ---- StateMachine

TEST(StateMachineAllocationTest, FailedRegistrationLeavesNoTypeWithoutStates) {
  const std::function<bool()> REGISTRATIONS[] = {
      [] { return StateMachine::SetGlobalStateList(TYPE, 0, Handle); },
      [] { return StateMachine::SetGlobalStateList2(TYPE, 0, Handle2); },
      [] { return StateMachine::SetGlobalStateName(TYPE, 0, LONG_NAME); }};
  for (const auto& fnRegister : REGISTRATIONS) {
    const int iFailed =
        ForEachFailingAllocation("StateMachine, registration", [&](FailingAllocation& stMemory) {
          const bool bDone = stMemory.Run(false, fnRegister);
          EXPECT_EQ(bDone ? 1u : 0u, Machine::Types());
          EXPECT_EQ(!bDone, fnRegister());
          EXPECT_FALSE(fnRegister());
          Machine::ClearTables();
        });
    EXPECT_GT(iFailed, 1);
  }
}

TEST(StateMachineAllocationTest, FurtherStateOfATypeIsThereOrNot) {
  StateMachine::SetGlobalStateName(TYPE, 0, "first");
  ForEachFailingAllocation("StateMachine::SetGlobalStateName", [](FailingAllocation& stMemory) {
    static int iState = 0;
    Machine stMachine;
    const int iNew = ++iState;
    const bool bDone =
        stMemory.Run(false, [&] { return StateMachine::SetGlobalStateName(TYPE, iNew, "second"); });
    EXPECT_EQ(bDone ? "second" : "", stMachine.StateName(iNew));
    EXPECT_EQ("first", stMachine.StateName(0));
    Machine::ClearTables();
    StateMachine::SetGlobalStateName(TYPE, 0, "first");
  });
  Machine::ClearTables();
}

TEST(StateMachineAllocationTest, DispatchAndLookupNeedNoMemory) {
  Machine stMachine;
  StateMachine::SetGlobalStateList(TYPE, stMachine.GetState(), Handle);
  StateMachine::SetGlobalStateList2(TYPE, stMachine.GetState(), Handle2);
  StateMachine::SetGlobalStateName(TYPE, 0, LONG_NAME);
  const int iFailed =
      ForEachFailingAllocation("StateMachine, dispatch", [&](FailingAllocation& stMemory) {
        stMemory.Run([&] {
          EXPECT_EQ(5, stMachine.DoNext(nullptr, nullptr));
          EXPECT_EQ(6, stMachine.DoNext2(0, nullptr));
          EXPECT_EQ(LONG_NAME, stMachine.StateName(0));
          stMachine.PeerAddress();
          stMachine.GetReserved(3);
          stMachine.DelReserved(3);
          stMachine.SetStateTimeout(3);
          EXPECT_FALSE(stMachine.SendMessageToOutProcess("127.0.0.1", 1, "x", 1));
        });
      });
  EXPECT_EQ(0, iFailed);
  Machine::ClearTables();
}

// dprintf() has a buffer while there is memory, and goes without.
TEST(StateMachineAllocationTest, DumpsAreWholeWithoutMemory) {
  StateMachine::SetGlobalStateList(TYPE, 0, Handle);
  StateMachine::SetGlobalStateName(TYPE, 0, LONG_NAME);
  Machine stMachine;
  const auto fnDump = [&](int iFD) {
    stMachine.Dump(iFD);
    StateMachine::DumpGlobalStateMap(iFD);
  };
  const std::string strWhole = CaptureDescriptor(fnDump);
  ForEachFailingAllocation("StateMachine::Dump", [&](FailingAllocation& stMemory) {
    EXPECT_EQ(strWhole, CaptureDescriptor([&](int iFD) { stMemory.Run([&] { fnDump(iFD); }); }));
  });
  Machine::ClearTables();
}

TEST(StateMachineAllocationTest, ReservedSlotAndSenderAreSetOrNot) {
  int iData = 0;
  ForEachFailingAllocation("StateMachine::SetReserved", [&](FailingAllocation& stMemory) {
    Machine stMachine;
    const bool bSet = stMemory.Run([&] { stMachine.SetReserved(3, &iData); });
    EXPECT_EQ(bSet ? &iData : nullptr, stMachine.GetReserved(3));
    stMachine.SetReserved(3, &iData);
    EXPECT_EQ(&iData, stMachine.GetReserved(3));
  });
  ForEachFailingAllocation("StateMachine::SetMessageFrom", [](FailingAllocation& stMemory) {
    Machine stMachine;
    stMemory.Run([&] { stMachine.SetMessageFrom(LONG_NAME); });
  });
}

// ---- MachineFactory

class OwnFactory : public MachineFactory {
 public:
  OwnFactory() = default;
};

TEST(MachineFactoryAllocationTest, CreatorIsRegisteredOrNot) {
  ForEachFailingAllocation("MachineFactory::AddMachine", [](FailingAllocation& stMemory) {
    OwnFactory stFactory;
    const bool bAdded = stMemory.Run(false, [&] { return stFactory.AddMachine(TYPE, Create); });
    EXPECT_EQ(!bAdded, stFactory.AddMachine(TYPE, Create));
  });
  ForEachFailingAllocation("MachineFactory::AddMachineByAddr", [](FailingAllocation& stMemory) {
    OwnFactory stFactory;
    const bool bAdded =
        stMemory.Run(false, [&] { return stFactory.AddMachineByAddr(TYPE, CreateByAddr); });
    EXPECT_EQ(!bAdded, stFactory.AddMachineByAddr(TYPE, CreateByAddr));
  });
}

TEST(MachineFactoryAllocationTest, MachineIsMadeOrThrown) {
  OwnFactory stFactory;
  stFactory.AddMachine(TYPE, Create);
  stFactory.AddMachineByAddr(TYPE, CreateByAddr);
  const int iFailed =
      ForEachFailingAllocation("MachineFactory::NewMachine", [&](FailingAllocation& stMemory) {
        std::unique_ptr<StateMachine> pFirst;
        std::unique_ptr<StateMachine> pSecond;
        const bool bMade = stMemory.Run([&] {
          pFirst.reset(stFactory.NewMachine(TYPE));
          pSecond.reset(stFactory.NewMachineByAddr(TYPE, nullptr));
        });
        EXPECT_EQ(bMade, pSecond != nullptr);
        EXPECT_EQ(!bMade, stMemory.Failed());
      });
  EXPECT_EQ(2, iFailed);
}

// ---- MachinePool

class OwnPool : public MachinePool {
 public:
  OwnPool() = default;
};

typedef std::vector<std::unique_ptr<Machine>> Machines_t;

// So many machines with ids from 1 on, in the pool.
Machines_t Fill(OwnPool& stPool, unsigned int iCount) {
  Machines_t vecMachines;
  for (unsigned int i = 1; i <= iCount; ++i) {
    vecMachines.push_back(std::make_unique<Machine>(i));
    stPool.AddMachine(vecMachines.back().get());
  }
  return vecMachines;
}

TEST(MachinePoolAllocationTest, MachineThatCouldNotBeAddedIsNotThere) {
  for (const unsigned int iBefore : {0u, 1u, 8u, 16u, 32u}) {  // the index grows at some
    const int iFailed =
        ForEachFailingAllocation("MachinePool::AddMachine", [&](FailingAllocation& stMemory) {
          OwnPool stPool;
          const Machines_t vecBefore = Fill(stPool, iBefore);
          auto pMachine = std::make_unique<Machine>(100);
          pMachine->m_iDeadline = NOW + 500;  // a list of its own
          if (!stMemory.Run([&] { stPool.AddMachine(pMachine.get()); })) {
            EXPECT_EQ(nullptr, stPool.GetMachine(100));
            EXPECT_EQ(iBefore, stPool.MachineCount());
            stPool.AddMachine(pMachine.get());
          }
          EXPECT_EQ(pMachine.get(), stPool.GetMachine(100));
          EXPECT_EQ(iBefore + 1, stPool.MachineCount());
          for (const auto& pOther : vecBefore) {
            pOther->m_iDeadline = NOW + 1000;
          }
          stPool.ProcessTimeout(NOW + 499);
          EXPECT_EQ(0, pMachine->m_iMachineAlarms);
          static_cast<void>(pMachine.release());  // the pool's now
          stPool.ProcessTimeout(NOW + 500);
          EXPECT_EQ(nullptr, stPool.GetMachine(100));
        });
    EXPECT_GT(iFailed, 2);
  }
}

TEST(MachinePoolAllocationTest, MachineThatCouldNotBeAddedMayBeDeleted) {
  ForEachFailingAllocation("MachinePool::AddMachine, given up", [](FailingAllocation& stMemory) {
    OwnPool stPool;
    auto pMachine = std::make_unique<Machine>(100);
    if (stMemory.Run([&] { stPool.AddMachine(pMachine.get()); })) {
      stPool.RemoveMachine(100);
    }
    pMachine.reset();
    stPool.ProcessTimeout(NOW + 500);
  });
}

TEST(MachinePoolAllocationTest, SecondMachineOfAnIdLeavesTheFirstAlone) {
  ForEachFailingAllocation("MachinePool::AddMachine of a used id", [](FailingAllocation& stMemory) {
    OwnPool stPool;
    const Machines_t vecMachines = Fill(stPool, 1);
    Machine stOther(1);
    stOther.m_iDeadline = NOW + 7;
    stMemory.Run([&] { stPool.AddMachine(&stOther); });
    EXPECT_EQ(vecMachines[0].get(), stPool.GetMachine(1));
    EXPECT_EQ(1u, stPool.MachineCount());
  });
}

TEST(MachinePoolAllocationTest, CheckIsQueuedByTheNextCall) {
  ForEachFailingAllocation("MachinePool::ConfigStateTimeout", [](FailingAllocation& stMemory) {
    OwnPool stPool;
    const Machines_t vecMachines = Fill(stPool, 3);
    for (const auto& pMachine : vecMachines) {
      pMachine->SetStateTimeout(pMachine->GetId());
      pMachine->SetStateBeginTime(NOW);
    }
    const auto fnConfig = [&] {
      for (const auto& pMachine : vecMachines) {
        stPool.ConfigStateTimeout(pMachine.get());
        stPool.ConfigMachineTimeout(pMachine.get());
      }
    };
    if (!stMemory.Run(fnConfig)) {
      fnConfig();
    }
    stPool.ProcessTimeout(NOW + 3);
    for (const auto& pMachine : vecMachines) {
      EXPECT_EQ(1, pMachine->m_iAlarms);
    }
  });
}

// Machines with state deadlines in two seconds, some of them many times in the list of one.
Machines_t FillWithAlarms(OwnPool& stPool, unsigned int iCount) {
  Machines_t vecMachines = Fill(stPool, iCount);
  for (const auto& pMachine : vecMachines) {
    pMachine->SetStateBeginTime(NOW);
    for (unsigned int i = 0; i < 8; ++i) {
      pMachine->SetStateTimeout(1 + (pMachine->GetId() + i) % 2);
      stPool.ConfigStateTimeout(pMachine.get());
    }
  }
  return vecMachines;
}

TEST(MachinePoolAllocationTest, WalkThatLacksMemoryForgetsNoMachine) {
  const int iFailed =
      ForEachFailingAllocation("MachinePool::ProcessTimeout", [](FailingAllocation& stMemory) {
        OwnPool stPool;
        const Machines_t vecMachines = FillWithAlarms(stPool, 20);
        const bool bDone = stMemory.Run([&] { stPool.ProcessTimeout(NOW + 3); });
        EXPECT_EQ(!bDone, stMemory.Failed());
        stPool.ProcessTimeout(NOW + 3);
        for (const auto& pMachine : vecMachines) {
          EXPECT_EQ(1, pMachine->m_iAlarms) << pMachine->GetId();
        }
        stPool.ProcessTimeout(NOW + 9);
        for (const auto& pMachine : vecMachines) {
          EXPECT_EQ(2, pMachine->m_iAlarms) << pMachine->GetId();
        }
      });
  EXPECT_GT(iFailed, 2);
}

TEST(MachinePoolAllocationTest, WalkThatLacksMemoryForgetsNoMachineDeadline) {
  ForEachFailingAllocation(
      "MachinePool::ProcessTimeout of machines", [](FailingAllocation& stMemory) {
        OwnPool stPool;
        Machines_t vecMachines = Fill(stPool, 9);
        for (const auto& pMachine : vecMachines) {
          pMachine->m_iDeadline =
              NOW + 200 + pMachine->GetId();  // moved on: the first look queues anew
        }
        stMemory.Run([&] { stPool.ProcessTimeout(NOW + 100); });
        stPool.ProcessTimeout(NOW + 100);
        EXPECT_EQ(9u, stPool.MachineCount());
        for (auto& pMachine : vecMachines) {
          EXPECT_EQ(0, pMachine->m_iMachineAlarms);
          static_cast<void>(pMachine.release());
        }
        stPool.ProcessTimeout(NOW + 300);
        EXPECT_EQ(0u, stPool.MachineCount());
      });
}

TEST(MachinePoolAllocationTest, LookupAndRemovalNeedNoMemory) {
  OwnPool stPool;
  const int iFailed =
      ForEachFailingAllocation("MachinePool::RemoveMachine", [&](FailingAllocation& stMemory) {
        const Machines_t vecMachines = Fill(stPool, 40);
        stMemory.Run([&] {
          for (const auto& pMachine : vecMachines) {
            stPool.GetMachine(pMachine->GetId());
            stPool.RemoveMachine(pMachine->GetId());
          }
        });
        EXPECT_EQ(0u, stPool.MachineCount());
        stPool.ProcessTimeout(NOW + 1000);
      });
  EXPECT_EQ(0, iFailed);
}

}  // namespace
