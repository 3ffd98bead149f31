#include "machine_pool.h"

#include <algorithm>

// DESIGN: timeout queues
//
// Deadlines are whole seconds, so that many checks share one: a queue is a map from the second to
// the list of ids to look at. A conversation restarts its state timeout with every message, mostly
// within the same second; an id already listed for that second is not listed again. The second
// entry could call nobody (the first one has moved the deadline on, or ended the machine) and
// would only be queued again and again, for as long as the machine lives.
//
// A walk first takes the due lists out of the queue and then goes through them. Whatever Timeout()
// queues meanwhile goes to fresh lists: it can neither be lost with the lists that are thrown away
// after the walk nor keep the walk going for ever, and no iterator is held across the call.

namespace {

const size_t SHORT_LIST = 16;  // up to this many ids are searched faster than hashed

}  // namespace

void MachinePool::IdList::Add(unsigned int iID) {
  if (m_vecIds.size() < SHORT_LIST) {
    if (std::find(m_vecIds.begin(), m_vecIds.end(), iID) == m_vecIds.end()) {
      m_vecIds.push_back(iID);
    }
    return;
  }
  if (m_vecSlots.size() <= 2 * m_vecIds.size()) {
    Grow();
  }
  uint32_t& iSlot = Slot(iID);
  if (iSlot == 0) {
    m_vecIds.push_back(iID);
    iSlot = static_cast<uint32_t>(m_vecIds.size());
  }
}

void MachinePool::IdList::Grow() {
  m_vecSlots.assign(4 * m_vecIds.size(), 0);
  for (size_t i = 0; i < m_vecIds.size(); ++i) {
    Slot(m_vecIds[i]) = static_cast<uint32_t>(i + 1);
  }
}

// The slot of the id, or the free one where it belongs. At least half of the slots are free.
uint32_t& MachinePool::IdList::Slot(unsigned int iID) {
  const uint64_t iHash = static_cast<uint32_t>(iID * 0x9e3779b9u);
  size_t i = iHash * m_vecSlots.size() >> 32;
  while (m_vecSlots[i] != 0 && m_vecIds[m_vecSlots[i] - 1] != iID) {
    i = i + 1 < m_vecSlots.size() ? i + 1 : 0;
  }
  return m_vecSlots[i];
}

MachinePool& MachinePool::Instance() {
  static MachinePool stPool;
  return stPool;
}

void MachinePool::AddMachine(StateMachine* pMachine) {
  if (m_mapMachines.emplace(pMachine->GetId(), pMachine).second) {
    m_mapIndex.emplace(pMachine->GetId(), pMachine);
  }
  ConfigMachineTimeout(pMachine);  // also for a machine that was not stored, deliberately
}

StateMachine* MachinePool::GetMachine(unsigned int iID) {
  const auto it = m_mapIndex.find(iID);
  return it == m_mapIndex.end() ? nullptr : it->second;
}

void MachinePool::RemoveMachine(unsigned int iID) {
  m_mapMachines.erase(iID);
  m_mapIndex.erase(iID);
}

void MachinePool::ConfigMachineTimeout(StateMachine* pMachine) {
  const time_t iDeadline = pMachine->GetMachineTimeout();
  if (iDeadline != 0) {
    m_mapMachineTimeoutQueue[iDeadline].Add(pMachine->GetId());
  }
}

void MachinePool::ConfigStateTimeout(StateMachine* pMachine) {
  const time_t iDeadline = pMachine->GetStateTimeout();
  if (iDeadline != 0) {
    m_mapStateTimeoutQueue[iDeadline].Add(pMachine->GetId());
  }
}

void MachinePool::ProcessTimeout(time_t iTime) {
  const time_t iNow = iTime != 0 ? iTime : time(nullptr);
  Walk(&m_mapStateTimeoutQueue, iNow, &MachinePool::CheckState);
  Walk(&m_mapMachineTimeoutQueue, iNow, &MachinePool::CheckMachine);
}

void MachinePool::Walk(TimeoutQueue_t* pQueue, time_t iNow,
                       void (MachinePool::*pCheck)(StateMachine*, time_t)) {
  TimeoutQueue_t mapDue;
  while (!pQueue->empty() && pQueue->begin()->first <= iNow) {
    mapDue.insert(mapDue.end(), pQueue->extract(pQueue->begin()));
  }
  for (const auto& stDue : mapDue) {
    for (const unsigned int iID : stDue.second.Ids()) {
      StateMachine* pMachine = GetMachine(iID);
      if (pMachine != nullptr) {
        (this->*pCheck)(pMachine, iNow);
      }
    }
  }
}

void MachinePool::CheckState(StateMachine* pMachine, time_t iNow) {
  const time_t iDeadline = pMachine->GetStateTimeout();
  if (iDeadline == 0) {
    return;
  }
  if (iNow < iDeadline) {
    ConfigStateTimeout(pMachine);
  } else if (pMachine->Timeout(false) != 0) {
    Delete(pMachine);
  } else {
    pMachine->SetStateBeginTime(iNow);
    ConfigStateTimeout(pMachine);
  }
}

// A deadline of 0 gets no exception here, other than for a state: it was passed long ago.
void MachinePool::CheckMachine(StateMachine* pMachine, time_t iNow) {
  if (iNow >= pMachine->GetMachineTimeout() &&
      (pMachine->Timeout(true) != 0 || iNow >= pMachine->GetMachineTimeout())) {
    Delete(pMachine);
  } else {
    ConfigMachineTimeout(pMachine);
  }
}

// Out of the pool before it is deleted: the destructor may look.
void MachinePool::Delete(StateMachine* pMachine) {
  RemoveMachine(pMachine->GetId());
  delete pMachine;
}

void MachinePool::Dump(int /*iFD*/) {}
