#include "state_machine.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "internal/always_assert.h"

// DESIGN: dispatch
//
// The ordered maps are the truth and what a derived class sees; walking two of them for every
// message costs more than most handlers. So pairs that were found once are remembered in a flat
// table, one slot per hash value, and a later pair takes the slot over. Only found pairs are
// remembered: an unknown one goes to the maps every time and ends the process there. As the maps
// only grow and keep the first handler of a pair, a remembered one stays right. The table is
// emptied nevertheless by each registration and when the number of types is another one than
// before, so that a derived class which empties a map, say between two tests, is served too.

namespace {

const unsigned int MACHINE_TIMEOUT_FLOOR = 5;  // seconds, in place of a machine timeout of 0

// Out of line, so that DoNext() has few registers to save.
template <typename Table>
[[gnu::noinline]] typename Table::const_iterator FindType(const Table& mapTable, int iType) {
  return mapTable.find(iType);
}

template <typename Function>
class HandlerCache {
 public:
  typedef std::map<int, std::map<int, Function>> Table_t;

  // Null when the pair is not remembered.
  Function Find(const Table_t& mapTable, int iType, int iState) const {
    const Slot_t& stSlot = m_stSlots[Index(iType, iState)];
    const bool bFound = stSlot.iState == iState && stSlot.iType == iType;
    return bFound && mapTable.size() == m_iTypes ? stSlot.pFunction : nullptr;
  }

  // Remembers the pair, whose type was found; without a handler for the state the process ends.
  [[gnu::noinline]] Function Add(const Table_t& mapTable, typename Table_t::const_iterator itType,
                                 int iState) {
    const auto itState = itType->second.find(iState);
    if (itState == itType->second.end()) {
      abort();
    }
    if (mapTable.size() != m_iTypes) {
      Clear();
      m_iTypes = mapTable.size();
    }
    m_stSlots[Index(itType->first, iState)] = {itType->first, iState, itState->second};
    return itState->second;
  }

  void Clear() {
    for (Slot_t& stSlot : m_stSlots) {
      stSlot = {};
    }
  }

 private:
  static constexpr size_t SLOTS = 1024;

  struct Slot_t {
    int iType;
    int iState;
    Function pFunction;  // null in an empty slot, whatever its pair
  };

  // The states of a type stand side by side, types apart: the bits in the middle of a product with
  // the golden ratio spread neighbouring numbers. The state comes in late, as it is known late.
  static size_t Index(int iType, int iState) {
    const uint32_t iBase = static_cast<uint32_t>(iType) * 0x9e3779b9u >> 16;
    return (iBase + static_cast<uint32_t>(iState)) % SLOTS;
  }

  Slot_t m_stSlots[SLOTS] = {};
  size_t m_iTypes = 0;
};

HandlerCache<ProcessFunction_t> g_stHandlers;
HandlerCache<ProcessFunction2_t> g_stHandlers2;

// Puts what belongs to a pair into a table, unless it has something. Without memory all stays: a
// type that is there has states.
template <typename Value>
bool Register(std::map<int, std::map<int, Value>>& mapTable, int iType, int iState, Value tValue) {
  const auto itType = mapTable.find(iType);
  if (itType != mapTable.end()) {
    return itType->second.emplace(iState, std::move(tValue)).second;
  }
  std::map<int, Value> mapStates;
  mapStates.emplace(iState, std::move(tValue));
  return mapTable.emplace(iType, std::move(mapStates)).second;
}

}  // namespace

std::map<int, std::map<int, ProcessFunction_t>> StateMachine::m_mapGlobalStateList;
std::map<int, std::map<int, ProcessFunction2_t>> StateMachine::m_mapGlobalStateList2;
std::map<int, std::map<int, std::string>> StateMachine::m_mapGlobalStateName;

// m_sInternalHead is left alone: whoever starts the machine copies its header in.
StateMachine::StateMachine()
    : m_iMachineBeginTime(time(nullptr)), m_iStateBeginTime(m_iMachineBeginTime) {}

StateMachine::~StateMachine() = default;

void StateMachine::Dump(int iFD) {
  dprintf(iFD, "m_iID=\"%u\"\n", m_iID);
  dprintf(iFD, "m_iState=\"%d\"\n", m_iState);
  const auto sIt = m_mapGlobalStateList.find(StateMachineType());
  assert(sIt != m_mapGlobalStateList.end());
  for (const auto& stState : sIt->second) {
    // No newline: that the entries share one line is deliberate.
    dprintf(iFD, "state:%d, function:%p", stState.first, reinterpret_cast<void*>(stState.second));
  }
}

int StateMachine::DoNext(InternalHead_t* pHead, void* pMessage) {
  const int iType = StateMachineType();
  ProcessFunction_t pFunction = g_stHandlers.Find(m_mapGlobalStateList, iType, m_iState);
  if (__builtin_expect(pFunction == nullptr, 0)) {
    const auto sIt = FindType(m_mapGlobalStateList, iType);
    assert(sIt != m_mapGlobalStateList.end());
    pFunction = g_stHandlers.Add(m_mapGlobalStateList, sIt, m_iState);
  }
  PreTranslate(pHead, pMessage);
  return pFunction(this, pHead, pMessage);
}

// That PreTranslate() belongs to the first path only is deliberate.
int StateMachine::DoNext2(conn_key_t iKey, void* pMessage) {
  const int iType = StateMachineType();
  ProcessFunction2_t pFunction = g_stHandlers2.Find(m_mapGlobalStateList2, iType, m_iState);
  if (__builtin_expect(pFunction == nullptr, 0)) {
    const auto sIt = FindType(m_mapGlobalStateList2, iType);
    assert(sIt != m_mapGlobalStateList2.end());
    pFunction = g_stHandlers2.Add(m_mapGlobalStateList2, sIt, m_iState);
  }
  return pFunction(this, iKey, pMessage);
}

void StateMachine::PreTranslate(InternalHead_t* /*pHead*/, void* /*pMessage*/) {}

void StateMachine::SetMachineTimeout(unsigned int iSeconds) { m_iMachineTimeout = iSeconds; }

time_t StateMachine::GetMachineTimeout() const {
  return m_iMachineBeginTime + (m_iMachineTimeout != 0 ? m_iMachineTimeout : MACHINE_TIMEOUT_FLOOR);
}

void StateMachine::SetStateTimeout(unsigned int iSeconds) { m_iStateTimeout = iSeconds; }

time_t StateMachine::GetStateTimeout() const {
  return m_iStateTimeout != 0 ? m_iStateBeginTime + m_iStateTimeout : 0;
}

bool StateMachine::SetGlobalStateList(int iTypeId, int iStateId, ProcessFunction_t pFunction) {
  g_stHandlers.Clear();
  return Register(m_mapGlobalStateList, iTypeId, iStateId, pFunction);
}

bool StateMachine::SetGlobalStateList2(int iTypeId, int iStateId, ProcessFunction2_t pFunction) {
  g_stHandlers2.Clear();
  return Register(m_mapGlobalStateList2, iTypeId, iStateId, pFunction);
}

bool StateMachine::SetGlobalStateName(int iTypeId, int iStateId, const char* pStateName) {
  return Register(m_mapGlobalStateName, iTypeId, iStateId, std::string(pStateName));
}

void StateMachine::DumpGlobalStateMap(int iFD) {
  dprintf(iFD, "====================state name====================\n");
  for (const auto& stType : m_mapGlobalStateName) {
    for (const auto& stState : stType.second) {
      dprintf(iFD, "%d, %d, %s\n", stType.first, stState.first, stState.second.c_str());
    }
    dprintf(iFD, "----------------------------------------\n");
  }
}

const std::string& StateMachine::StateName(int iState) {
  static const std::string strNone;
  const auto itType = m_mapGlobalStateName.find(StateMachineType());
  if (itType == m_mapGlobalStateName.end()) {
    return strNone;
  }
  const auto itState = itType->second.find(iState);
  return itState == itType->second.end() ? strNone : itState->second;
}

const std::string& StateMachine::PeerAddress() {
  if (m_strPeerAddr.size() <= 6) {  // shorter than any dotted address
    char szAddr[INET_ADDRSTRLEN];
    m_strPeerAddr = inet_ntop(AF_INET, &m_sInternalHead.iPeerAddr, szAddr, sizeof(szAddr));
  }
  return m_strPeerAddr;
}

void* StateMachine::GetReserved(int iSlot) {
  const auto it = m_mapReserved.find(iSlot);
  return it == m_mapReserved.end() ? nullptr : it->second;
}

bool StateMachine::SendMessageToInProcess(InternalHead_t* pHead, const char* pData,
                                          unsigned int iSize) {
  if (m_pOutFunctionOfInProc == nullptr) {
    return false;
  }
  m_pOutFunctionOfInProc(pHead, pData, iSize);
  return true;
}

bool StateMachine::SendMessageToOutProcess(InternalHead_t* pHead, const char* pData,
                                           unsigned int iSize) {
  if (m_pOutFunctionOfOutProc == nullptr) {
    return false;
  }
  m_pOutFunctionOfOutProc(pHead, pData, iSize);
  return true;
}

bool StateMachine::SendMessageToOutProcess(const char* pAddr, unsigned int iPort, const char* pData,
                                           unsigned int iSize) {
  InternalHead_t stHead{-1, inet_addr(pAddr), static_cast<int32_t>(iPort), ~0u, 0};
  return SendMessageToOutProcess(&stHead, pData, iSize);
}
