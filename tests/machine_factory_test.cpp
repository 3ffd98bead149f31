#include "machine_factory.h"

#include <gtest/gtest.h>

#include <memory>

#include "test_support.h"

namespace {

class Made : public StateMachine {
 public:
  explicit Made(char cMaker, void* pAddr = nullptr) : m_cMaker(cMaker), m_pAddr(pAddr) {}
  int Timeout(bool /*bMachine*/) override { return 0; }
  int StateMachineType() override { return 0; }
  const char* MachineName() override { return "made"; }

  char m_cMaker;
  void* m_pAddr;
};

StateMachine* MakeF() { return new Made('f'); }
StateMachine* MakeG() { return new Made('g'); }
StateMachine* MakeNothing() { return nullptr; }
StateMachine* MakeAt(void* pAddr) { return new Made('a', pAddr); }
StateMachine* MakeAtToo(void* pAddr) { return new Made('b', pAddr); }
StateMachine* MakeNothingAt(void* /*pAddr*/) { return nullptr; }

// A factory of its own for each case.
class OwnFactory : public MachineFactory {
 public:
  // Which creator made the machine, '-' when none did.
  char MakerOf(int iId) { return Maker(NewMachine(iId)); }
  char MakerByAddrOf(int iId) { return Maker(NewMachineByAddr(iId, nullptr)); }

 private:
  static char Maker(StateMachine* pMachine) {
    const std::unique_ptr<StateMachine> pOwned(pMachine);
    return pMachine == nullptr ? '-' : static_cast<Made*>(pMachine)->m_cMaker;
  }
};

TEST(MachineFactoryTest, InstanceIsOneObject) {
  EXPECT_EQ(&MachineFactory::Instance(), &MachineFactory::Instance());
}

TEST(MachineFactoryTest, FirstCreatorOfATypeWins) {
  OwnFactory stFactory;
  EXPECT_TRUE(stFactory.AddMachine(5, MakeF));
  EXPECT_FALSE(stFactory.AddMachine(5, MakeG));
  EXPECT_EQ('f', stFactory.MakerOf(5));
}

TEST(MachineFactoryTest, FirstCreatorByAddressWins) {
  OwnFactory stFactory;
  EXPECT_TRUE(stFactory.AddMachineByAddr(5, MakeAt));
  EXPECT_FALSE(stFactory.AddMachineByAddr(5, MakeAtToo));
  EXPECT_EQ('a', stFactory.MakerByAddrOf(5));
}

TEST(MachineFactoryTest, RemovedTypeIsUnknownAndMayBeAddedAnew) {
  OwnFactory stFactory;
  ASSERT_TRUE(stFactory.AddMachine(5, MakeF));
  stFactory.RemoveMachine(5);
  EXPECT_EQ('-', stFactory.MakerOf(5));
  EXPECT_TRUE(stFactory.AddMachine(5, MakeG));
  EXPECT_EQ('g', stFactory.MakerOf(5));
}

TEST(MachineFactoryTest, RemovedTypeByAddressIsUnknownAndMayBeAddedAnew) {
  OwnFactory stFactory;
  ASSERT_TRUE(stFactory.AddMachineByAddr(5, MakeAt));
  stFactory.RemoveMachineByAddr(5);
  EXPECT_EQ('-', stFactory.MakerByAddrOf(5));
  EXPECT_TRUE(stFactory.AddMachineByAddr(5, MakeAtToo));
  EXPECT_EQ('b', stFactory.MakerByAddrOf(5));
}

TEST(MachineFactoryTest, RemovingAnUnknownTypeDoesNothing) {
  OwnFactory stFactory;
  ASSERT_TRUE(stFactory.AddMachine(5, MakeF));
  stFactory.RemoveMachine(6);
  stFactory.RemoveMachineByAddr(6);
  EXPECT_EQ('f', stFactory.MakerOf(5));
}

TEST(MachineFactoryTest, RegistriesDoNotKnowEachOthersTypes) {
  OwnFactory stFactory;
  ASSERT_TRUE(stFactory.AddMachine(1, MakeF));
  ASSERT_TRUE(stFactory.AddMachineByAddr(2, MakeAt));
  EXPECT_EQ('-', stFactory.MakerByAddrOf(1));
  EXPECT_EQ('-', stFactory.MakerOf(2));
}

TEST(MachineFactoryTest, OneTypeMayStandInBothRegistriesAndLeaveOne) {
  OwnFactory stFactory;
  EXPECT_TRUE(stFactory.AddMachine(-1, MakeF));
  EXPECT_TRUE(stFactory.AddMachineByAddr(-1, MakeAt));
  EXPECT_EQ('f', stFactory.MakerOf(-1));
  EXPECT_EQ('a', stFactory.MakerByAddrOf(-1));
  stFactory.RemoveMachine(-1);
  EXPECT_EQ('a', stFactory.MakerByAddrOf(-1));
  stFactory.AddMachine(-1, MakeG);
  stFactory.RemoveMachineByAddr(-1);
  EXPECT_EQ('g', stFactory.MakerOf(-1));
}

TEST(MachineFactoryTest, AddressReachesTheCreatorUnchanged) {
  OwnFactory stFactory;
  ASSERT_TRUE(stFactory.AddMachineByAddr(5, MakeAt));
  int iRecord = 0;
  for (void* pAddr : {static_cast<void*>(&iRecord), static_cast<void*>(nullptr)}) {
    const std::unique_ptr<StateMachine> pMachine(stFactory.NewMachineByAddr(5, pAddr));
    ASSERT_NE(nullptr, pMachine);
    EXPECT_EQ(pAddr, static_cast<Made*>(pMachine.get())->m_pAddr);
  }
}

TEST(MachineFactoryTest, EachCallMakesANewMachineWithoutId) {
  OwnFactory stFactory;
  ASSERT_TRUE(stFactory.AddMachine(5, MakeF));
  const std::unique_ptr<StateMachine> pFirst(stFactory.NewMachine(5));
  const std::unique_ptr<StateMachine> pSecond(stFactory.NewMachine(5));
  EXPECT_NE(pFirst, pSecond);
  EXPECT_EQ(0xffffffffu, pFirst->GetId());
}

TEST(MachineFactoryTest, AskingForAnUnknownTypeDoesNotRegisterIt) {
  OwnFactory stFactory;
  EXPECT_EQ(nullptr, stFactory.NewMachine(5));
  EXPECT_EQ(nullptr, stFactory.NewMachineByAddr(5, &stFactory));
  EXPECT_TRUE(stFactory.AddMachine(5, MakeF));
  EXPECT_TRUE(stFactory.AddMachineByAddr(5, MakeAt));
}

TEST(MachineFactoryTest, CreatorsOwnFailureIsPassedThrough) {
  OwnFactory stFactory;
  ASSERT_TRUE(stFactory.AddMachine(5, MakeNothing));
  ASSERT_TRUE(stFactory.AddMachineByAddr(5, MakeNothingAt));
  EXPECT_EQ(nullptr, stFactory.NewMachine(5));
  EXPECT_EQ(nullptr, stFactory.NewMachineByAddr(5, &stFactory));
}

TEST(MachineFactoryTest, DumpWritesNothing) {
  OwnFactory stFactory;
  ASSERT_TRUE(stFactory.AddMachine(5, MakeF));
  EXPECT_EQ("", CaptureDescriptor([&](int iFD) { stFactory.Dump(iFD); }));
}

}  // namespace
