#include "machine_pool.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

// DESIGN: timeout queues
//
// Deadlines are whole seconds, so that many checks share one: a queue is a map from the second to
// the list of ids to look at. A conversation restarts its state timeout with every message, mostly
// within the same second; an id already listed for that second need not be listed again. The second
// entry could call nobody (the first one has moved the deadline on, or ended the machine) and
// would only be queued again and again, for as long as the machine lives.
//
// So each machine carries a note of the list that it was last put into. A conversation that goes
// to and fro between two deadlines gets by that, which does no harm but takes memory: a list that
// would have to grow while many of its ids may be repeated is rid of the repeated ones first. They
// are those of machines that were queued somewhere else while the list was there.
//
// A walk first takes the due lists out of the queue and then goes through them. Whatever Timeout()
// queues meanwhile goes to fresh lists: it can neither be lost with the lists that are thrown away
// after the walk nor keep the walk going for ever, and no iterator is held across the call.
// Machines stand all over the memory; as the list tells which come next, they are fetched ahead.

namespace {

const size_t MIN_SLOTS = 16;
const size_t LOOK_AHEAD = 8;  // ids: the index is fetched for the last, the machine for the middle
const size_t CACHE_LINE = 64;

uint64_t g_iTurn = 0;  // counts lists and what is put into them, of all pools

// Leaves the first of equal numbers.
void DropRepeated(std::vector<unsigned int>& vecIds) {
  std::unordered_set<unsigned int> setSeen(vecIds.size());
  const auto fnSeen = [&](unsigned int iID) { return !setSeen.insert(iID).second; };
  vecIds.erase(std::remove_if(vecIds.begin(), vecIds.end(), fnSeen), vecIds.end());
}

}  // namespace

// The top bits of a product with the golden ratio spread neighbouring ids evenly.
size_t MachinePool::Index::Home(unsigned int iID) const {
  return static_cast<uint32_t>(iID * 0x9e3779b9u) >> m_iShift;
}

// The slot of an id, or the free one where it would stand.
size_t MachinePool::Index::Place(unsigned int iID) const {
  size_t i = Home(iID);
  while (m_vecSlots[i].pMachine != nullptr && m_vecSlots[i].iID != iID) {
    i = (i + 1) & (m_vecSlots.size() - 1);
  }
  return i;
}

StateMachine* MachinePool::Index::Find(unsigned int iID) const {
  return m_vecSlots.empty() ? nullptr : m_vecSlots[Place(iID)].pMachine;
}

void MachinePool::Index::Fetch(unsigned int iID) const {
  if (!m_vecSlots.empty()) {
    __builtin_prefetch(&m_vecSlots[Home(iID)]);
  }
}

void MachinePool::Index::Add(unsigned int iID, StateMachine* pMachine) {
  if (m_vecSlots.size() <= 2 * m_iUsed) {
    Grow();
  }
  m_vecSlots[Place(iID)] = {iID, pMachine};
  ++m_iUsed;
}

void MachinePool::Index::Grow() {
  std::vector<Slot_t> vecOld(std::max(MIN_SLOTS, 2 * m_vecSlots.size()));
  vecOld.swap(m_vecSlots);
  m_iShift = 32 - static_cast<unsigned int>(__builtin_ctzll(m_vecSlots.size()));
  for (const Slot_t& stSlot : vecOld) {
    if (stSlot.pMachine != nullptr) {
      m_vecSlots[Place(stSlot.iID)] = stSlot;
    }
  }
}

// What stands behind the id up to the next free slot moves up, where its home allows.
void MachinePool::Index::Remove(unsigned int iID) {
  if (Find(iID) == nullptr) {
    return;
  }
  const size_t iMask = m_vecSlots.size() - 1;
  size_t iFree = Place(iID);
  for (size_t i = (iFree + 1) & iMask; m_vecSlots[i].pMachine != nullptr; i = (i + 1) & iMask) {
    if (((i - Home(m_vecSlots[i].iID)) & iMask) >= ((i - iFree) & iMask)) {
      m_vecSlots[iFree] = m_vecSlots[i];
      iFree = i;
    }
  }
  m_vecSlots[iFree] = {};
  --m_iUsed;
}

void MachinePool::TimeoutQueue::Add(time_t iTime, unsigned int iID, Note_t& stNote) {
  List_t& stList = At(iTime);
  if (stNote.iList != stList.iSerial || stNote.iID != iID) {
    Append(stList, iID, stNote);
  }
}

MachinePool::List_t& MachinePool::TimeoutQueue::At(time_t iTime) {
  List_t*& pRecent = Recent(iTime);
  if (pRecent == nullptr || pRecent->iTime != iTime) {
    pRecent = Search(iTime);
  }
  return *pRecent;
}

[[gnu::noinline]] MachinePool::List_t* MachinePool::TimeoutQueue::Search(time_t iTime) {
  List_t& stList = m_mapLists[iTime];
  if (stList.iSerial == 0) {
    stList.iTime = iTime;
    stList.iSerial = ++g_iTurn;
  }
  return &stList;
}

[[gnu::noinline]] void MachinePool::TimeoutQueue::Append(List_t& stList, unsigned int iID,
                                                         Note_t& stNote) {
  std::vector<unsigned int>& vecIds = stList.vecIds;
  if (vecIds.size() == vecIds.capacity() && stList.iDoubtful > vecIds.size() / 2) {
    DropRepeated(vecIds);
    stList.iDoubtful = 0;
  }
  vecIds.push_back(iID);
  stList.iDoubtful += stNote.iTurn > stList.iSerial ? 1 : 0;
  stNote = {stList.iSerial, ++g_iTurn, iID};
}

std::map<time_t, MachinePool::List_t> MachinePool::TimeoutQueue::Take(time_t iNow) {
  std::map<time_t, List_t> mapDue;
  while (!m_mapLists.empty() && m_mapLists.begin()->first <= iNow) {
    Recent(m_mapLists.begin()->first) = nullptr;
    mapDue.insert(mapDue.end(), m_mapLists.extract(m_mapLists.begin()));
  }
  return mapDue;
}

// Without memory, so two lists of one second can not become one: a list whose second has a fresh
// one goes to the next earlier second that has none. It gets a new serial, for who has left it may
// be noted in it still.
void MachinePool::TimeoutQueue::PutBack(std::map<time_t, List_t>& mapDue) {
  while (!mapDue.empty()) {
    auto stNode = mapDue.extract(mapDue.begin());
    while (m_mapLists.count(stNode.key()) != 0) {
      --stNode.key();
    }
    List_t& stList = stNode.mapped();
    stList.iTime = stNode.key();
    stList.iSerial = ++g_iTurn;
    stList.iDoubtful = stList.vecIds.size();
    m_mapLists.insert(std::move(stNode));
  }
}

MachinePool& MachinePool::Instance() {
  static MachinePool stPool;
  return stPool;
}

void MachinePool::AddMachine(StateMachine* pMachine) {
  const unsigned int iID = pMachine->GetId();
  const bool bNew = m_mapMachines.emplace(iID, pMachine).second;
  try {
    if (bNew) {
      m_stIndex.Add(iID, pMachine);
    }
    ConfigMachineTimeout(pMachine);  // also for a machine that was not stored, deliberately
  } catch (...) {
    if (bNew) {
      RemoveMachine(iID);
    }
    throw;
  }
}

StateMachine* MachinePool::GetMachine(unsigned int iID) { return m_stIndex.Find(iID); }

void MachinePool::RemoveMachine(unsigned int iID) {
  m_mapMachines.erase(iID);
  m_stIndex.Remove(iID);
}

void MachinePool::ConfigMachineTimeout(StateMachine* pMachine) {
  const time_t iDeadline = pMachine->GetMachineTimeout();
  if (iDeadline != 0) {
    m_mapMachineTimeoutQueue.Add(iDeadline, pMachine->GetId(), pMachine->m_stMachineNote);
  }
}

void MachinePool::ConfigStateTimeout(StateMachine* pMachine) {
  const time_t iDeadline = pMachine->GetStateTimeout();
  if (iDeadline != 0) {
    m_mapStateTimeoutQueue.Add(iDeadline, pMachine->GetId(), pMachine->m_stStateNote);
  }
}

void MachinePool::ProcessTimeout(time_t iTime) {
  const time_t iNow = iTime != 0 ? iTime : time(nullptr);
  Walk(m_mapStateTimeoutQueue, iNow, &MachinePool::CheckState);
  Walk(m_mapMachineTimeoutQueue, iNow, &MachinePool::CheckMachine);
}

void MachinePool::Walk(TimeoutQueue& stQueue, time_t iNow,
                       void (MachinePool::*pCheck)(StateMachine*, time_t)) {
  std::map<time_t, List_t> mapDue = stQueue.Take(iNow);
  auto itDue = mapDue.begin();
  size_t i = 0;
  try {
    for (; itDue != mapDue.end(); ++itDue) {
      const std::vector<unsigned int>& vecIds = itDue->second.vecIds;
      for (i = 0; i < vecIds.size(); ++i) {
        FetchAhead(vecIds, i);
        StateMachine* pMachine = GetMachine(vecIds[i]);
        if (pMachine != nullptr) {
          (this->*pCheck)(pMachine, iNow);
        }
      }
    }
  } catch (...) {
    std::vector<unsigned int>& vecIds = itDue->second.vecIds;
    vecIds.erase(vecIds.begin(), vecIds.begin() + static_cast<ptrdiff_t>(i));
    mapDue.erase(mapDue.begin(), itDue);
    stQueue.PutBack(mapDue);
    throw;
  }
}

void MachinePool::FetchAhead(const std::vector<unsigned int>& vecIds, size_t i) const {
  if (i + LOOK_AHEAD >= vecIds.size()) {
    return;
  }
  m_stIndex.Fetch(vecIds[i + LOOK_AHEAD]);
  const StateMachine* const pSoon = m_stIndex.Find(vecIds[i + LOOK_AHEAD / 2]);
  if (pSoon != nullptr) {
    const auto* const pBytes = reinterpret_cast<const char*>(pSoon);
    for (size_t iLine = 0; iLine < sizeof(StateMachine); iLine += CACHE_LINE) {
      __builtin_prefetch(pBytes + iLine, 1);
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
