#include "machine_factory.h"

MachineFactory& MachineFactory::Instance() {
  static MachineFactory stFactory;
  return stFactory;
}

bool MachineFactory::AddMachine(int iId, MachineCreate_t pCreate) {
  return m_mapFactory.emplace(iId, pCreate).second;
}

void MachineFactory::RemoveMachine(int iId) { m_mapFactory.erase(iId); }

StateMachine* MachineFactory::NewMachine(int iId) {
  const auto it = m_mapFactory.find(iId);
  return it == m_mapFactory.end() ? nullptr : it->second();
}

bool MachineFactory::AddMachineByAddr(int iId, MachineCreateByAddr_t pCreate) {
  return m_mapFactoryByAddr.emplace(iId, pCreate).second;
}

void MachineFactory::RemoveMachineByAddr(int iId) { m_mapFactoryByAddr.erase(iId); }

StateMachine* MachineFactory::NewMachineByAddr(int iId, void* pAddr) {
  const auto it = m_mapFactoryByAddr.find(iId);
  return it == m_mapFactoryByAddr.end() ? nullptr : it->second(pAddr);
}

void MachineFactory::Dump(int /*iFD*/) {}
