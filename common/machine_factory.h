#ifndef ZELK_COMMON_MACHINE_FACTORY_H
#define ZELK_COMMON_MACHINE_FACTORY_H

#include <map>

#include "object.h"
#include "state_machine.h"

// Make one new machine, from nothing or on existing data (a record in shared memory, a received
// message); the caller owns it.
typedef StateMachine* (*MachineCreate_t)();
typedef StateMachine* (*MachineCreateByAddr_t)(void*);

// Makes state machines from the number of their type; one instance per process.
//
// There are two registries, creators without and with an address, and a type may stand in both.
// The new machine has no id and is in no pool: SetId() and MachinePool::AddMachine() are the
// caller's. Not locked: register at start, create from the dispatching thread.
class MachineFactory : public Object {
 public:
  static MachineFactory& Instance();

  MachineFactory(const MachineFactory&) = delete;
  MachineFactory& operator=(const MachineFactory&) = delete;

  // Registers a creator, which is not checked. Returns false when the type has one, which stays.
  bool AddMachine(int iId, MachineCreate_t pCreate);
  // Forgets the creator; an unknown type is ignored.
  void RemoveMachine(int iId);
  // What the creator of the type returns, also when that is null; null for an unknown type.
  StateMachine* NewMachine(int iId);

  // The same in the other registry; pAddr is handed to the creator as it is.
  bool AddMachineByAddr(int iId, MachineCreateByAddr_t pCreate);
  void RemoveMachineByAddr(int iId);
  StateMachine* NewMachineByAddr(int iId, void* pAddr);

  // Writes nothing.
  void Dump(int iFD) override;

 protected:
  MachineFactory() = default;

 private:
  std::map<int, MachineCreate_t> m_mapFactory;
  std::map<int, MachineCreateByAddr_t> m_mapFactoryByAddr;
};

#endif
