#include "mq_pool.h"

MQPool& MQPool::Instance() {
  static MQPool stPool;
  return stPool;
}

bool MQPool::AddMQ(int iIndex, MessageQueue* pMQIn, MessageQueue* pMQOut) {
  if (m_mapMQs.count(iIndex) != 0) {
    return false;
  }
  // What needs memory comes first: without it nothing changes.
  std::map<int, MessageQueue*> mapNew{{pMQIn->FifoFD(), pMQIn}};
  mapNew[pMQOut->FifoFD()] = pMQOut;
  m_mapMQs.emplace(iIndex, MQPair{pMQIn, pMQOut});
  for (const auto& stEntry : mapNew) {
    m_mapFdIndx.erase(stEntry.first);
  }
  m_mapFdIndx.merge(mapNew);
  return true;
}

MessageQueue* MQPool::GetMQ(int iIndex, int iDirection) {
  const auto it = m_mapMQs.find(iIndex);
  if (it == m_mapMQs.end()) {
    return nullptr;
  }
  switch (iDirection) {
    case 0:
      return it->second.pMQIn;
    case 1:
      return it->second.pMQOut;
    default:
      return nullptr;
  }
}

MessageQueue* MQPool::GetMQByFD(int iFD) {
  const auto it = m_mapFdIndx.find(iFD);
  return it == m_mapFdIndx.end() ? nullptr : it->second;
}

int MQPool::GetWorkerIndexByFD(int iFD) {
  for (const auto& stWorker : m_mapMQs) {
    const MQPair& stPair = stWorker.second;
    if (stPair.pMQIn->FifoFD() == iFD || stPair.pMQOut->FifoFD() == iFD) {
      return stWorker.first;
    }
  }
  return -1;
}

void MQPool::RemoveMQ(int iIndex) {
  const auto it = m_mapMQs.find(iIndex);
  if (it == m_mapMQs.end()) {
    return;
  }
  m_mapFdIndx.erase(it->second.pMQIn->FifoFD());
  m_mapFdIndx.erase(it->second.pMQOut->FifoFD());
  m_mapMQs.erase(it);
}

void MQPool::RemoveAndDeleteMQ(int iIndex) {
  const auto it = m_mapMQs.find(iIndex);
  if (it == m_mapMQs.end()) {
    return;
  }
  const MQPair stPair = it->second;
  RemoveMQ(iIndex);
  delete stPair.pMQIn;
  delete stPair.pMQOut;
}

void MQPool::RemoveAll() { m_mapMQs.clear(); }

void MQPool::RemoveAndDeleteAll() {
  for (const auto& stWorker : m_mapMQs) {
    delete stWorker.second.pMQIn;
    delete stWorker.second.pMQOut;
  }
  m_mapMQs.clear();
  m_mapFdIndx.clear();
}

void MQPool::Dump(int /*iFD*/) {}
