// A conversation of two states: it waits for a name, then for an order, and gives up after a while.
#include <cstdio>
#include <ctime>

#include "machine_pool.h"

struct Customer : StateMachine {
  enum { TYPE = 1, NAME = 0, ORDER = 1 };
  int StateMachineType() override { return TYPE; }
  const char* MachineName() override { return "Customer"; }
  int Timeout(bool bMachine) override {
    printf("machine %u gives up (%s)\n", GetId(), bMachine ? "lived too long" : "no answer");
    return 1;  // the pool removes and deletes it
  }
  void Enter(int iState) { m_iState = iState; }
};

int OnName(StateMachine* pMachine, InternalHead_t* /*pHead*/, void* pMessage) {
  printf("machine %u: name %s\n", pMachine->GetId(), static_cast<char*>(pMessage));
  static_cast<Customer*>(pMachine)->Enter(Customer::ORDER);
  pMachine->SetStateBeginTime(time(nullptr));
  pMachine->SetStateTimeout(3);
  MachinePool::Instance().ConfigStateTimeout(pMachine);
  return 0;  // for the caller of DoNext()
}

int main() {
  StateMachine::SetGlobalStateList(Customer::TYPE, Customer::NAME, OnName);
  auto* pCustomer = new Customer;
  pCustomer->SetId(7);
  pCustomer->Enter(Customer::NAME);
  MachinePool::Instance().AddMachine(pCustomer);

  char szName[] = "Ada";  // a message for machine 7 has arrived
  MachinePool::Instance().GetMachine(7)->DoNext(nullptr, szName);
  printf("%u machine waits for an order\n", MachinePool::Instance().MachineCount());
  MachinePool::Instance().ProcessTimeout(time(nullptr) + 4);  // as the loop does on each pass
  return static_cast<int>(MachinePool::Instance().MachineCount());
}
