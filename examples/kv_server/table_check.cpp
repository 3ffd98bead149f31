#include "table_check.h"

#include <cstring>

#include "value_record.h"

// DESIGN
//
// Blocks lie one behind the other, each beginning with its size: the first walk notes where they
// start. The lists and chains are then followed from block to block; an offset that is no start, or
// a block that was met before, ends the walk. What was never met is lost.

namespace {

const uint64_t ALIGN = 8;
const uint64_t SMALLEST_WITH_LINK = 16;

std::string Fault(const char* pWhat, uint64_t iOffset) {
  return std::string(pWhat) + " at offset " + std::to_string(iOffset);
}

}  // namespace

TableCheck::TableCheck(KeyTable& stTable)
    : m_stTable(stTable), m_pBase(reinterpret_cast<const char*>(stTable.HeapHead())) {}

std::string TableCheck::Run() {
  std::string strFault = CheckHead();
  for (auto pStep : {&TableCheck::WalkBlocks, &TableCheck::WalkLists, &TableCheck::WalkChains}) {
    strFault = strFault.empty() ? (this->*pStep)() : strFault;
  }
  if (strFault.empty()) {
    CollectLost();
  }
  return strFault;
}

std::string TableCheck::CheckHead() const {
  const KeyTable::Heap::Head_t& stHeap = *m_stTable.HeapHead();
  const uint64_t iBegin = KeyTable::HeadSize(m_stTable.Buckets());
  if (stHeap.iCurrentOffset < iBegin || stHeap.iCurrentOffset > stHeap.iMemorySize ||
      stHeap.iCurrentOffset % ALIGN != iBegin % ALIGN) {
    return Fault("blocks end", stHeap.iCurrentOffset);
  }
  return "";
}

uint64_t TableCheck::SizeOf(uint64_t iOffset) const {
  uint64_t iSize = 0;
  memcpy(&iSize, At(iOffset), sizeof(iSize));
  return iSize;
}

std::string TableCheck::WalkBlocks() {
  m_iBegin = KeyTable::HeadSize(m_stTable.Buckets());
  m_iEnd = m_stTable.HeapHead()->iCurrentOffset;
  m_vecBlocks.assign((m_iEnd - m_iBegin) / ALIGN, false);
  m_vecUsed.assign(m_vecBlocks.size(), false);
  for (uint64_t iOffset = m_iBegin; iOffset < m_iEnd; iOffset += SizeOf(iOffset)) {
    const uint64_t iSize = SizeOf(iOffset);
    if (iSize < SMALLEST_WITH_LINK || iSize % ALIGN != 0 || iSize > KeyTable::Heap::MAX_BYTES ||
        iSize > m_iEnd - iOffset) {
      return Fault("block of impossible size", iOffset);
    }
    m_vecBlocks[(iOffset - m_iBegin) / ALIGN] = true;
  }
  return "";
}

// True when that is a block that was not met before.
bool TableCheck::Use(uint64_t iOffset) {
  const uint64_t iIndex = (iOffset - m_iBegin) / ALIGN;
  if (iOffset < m_iBegin || iOffset >= m_iEnd || (iOffset - m_iBegin) % ALIGN != 0 ||
      !m_vecBlocks[iIndex] || m_vecUsed[iIndex]) {
    return false;
  }
  m_vecUsed[iIndex] = true;
  return true;
}

std::string TableCheck::WalkLists() {
  const KeyTable::Heap::Head_t& stHeap = *m_stTable.HeapHead();
  for (uint64_t i = 0; i < KeyTable::Heap::MAX_BYTES / ALIGN; ++i) {
    for (uint64_t iOffset = stHeap.szFreeList[i]; iOffset != 0;) {
      if (!Use(iOffset) || SizeOf(iOffset) != (i + 1) * ALIGN) {
        return Fault("free list leads to no block of its own", iOffset);
      }
      m_iFreeBytes += SizeOf(iOffset);
      memcpy(&iOffset, At(iOffset + BLOCK_HEAD), sizeof(iOffset));
    }
  }
  return "";
}

std::string TableCheck::WalkChains() {
  m_vecChain.assign(m_stTable.Buckets(), 0);
  for (uint64_t i = 0; i < m_vecChain.size(); ++i) {
    std::string strFault = WalkChain(i);
    if (!strFault.empty()) {
      return strFault;
    }
  }
  return "";
}

std::string TableCheck::WalkChain(uint64_t iBucket) {
  for (uint64_t iOffset = m_stTable.BucketList()[iBucket].iBucket; iOffset != 0;) {
    if (!Use(iOffset - BLOCK_HEAD)) {
      return Fault("chain leads to no block of its own", iOffset);
    }
    std::string strFault = CheckEntry(iOffset, iBucket);
    if (!strFault.empty()) {
      return strFault;
    }
    ++m_vecChain[iBucket];
    memcpy(&iOffset, At(iOffset), sizeof(iOffset));
  }
  return "";
}

std::string TableCheck::CheckEntry(uint64_t iOffset, uint64_t iBucket) {
  KeyTable::InternalItem_t stItem{};
  memcpy(&stItem, At(iOffset), sizeof(stItem));
  const char* pKey = At(iOffset) + sizeof(stItem);
  const uint64_t iRoom = SizeOf(iOffset - BLOCK_HEAD) - BLOCK_HEAD;
  if (iRoom < sizeof(stItem) + uint64_t{stItem.iKeySize} + stItem.iValueSize) {
    return Fault("entry larger than its block", iOffset);
  }
  if (stItem.iKeySize == 0 || strnlen(pKey, stItem.iKeySize) + 1 != stItem.iKeySize ||
      HashMap::FNVHash(pKey) % m_stTable.Buckets() != iBucket) {
    return Fault("key that can not be found", iOffset);
  }
  ++m_iEntries;
  m_iKeyBytes += stItem.iKeySize;
  m_iValueBytes += stItem.iValueSize;
  return "";
}

void TableCheck::CollectLost() {
  for (uint64_t iOffset = m_iBegin; iOffset < m_iEnd; iOffset += SizeOf(iOffset)) {
    if (!m_vecUsed[(iOffset - m_iBegin) / ALIGN]) {
      m_vecLost.push_back(iOffset);
    }
  }
}

void TableCheck::Reclaim() {
  for (const uint64_t iOffset : m_vecLost) {
    m_iFreeBytes += SizeOf(iOffset);
    m_stTable.GiveBack(const_cast<char*>(At(iOffset + BLOCK_HEAD)));
  }
  m_vecLost.clear();
  m_stTable.HeapHead()->iBlockCount = m_iEntries;
  m_stTable.HeapHead()->iManagedSize = m_iFreeBytes;
  KeyTable::Head_t& stHead = *m_stTable.TableHead();
  stHead.iObjectCount = m_iEntries;
  stHead.iTotalKeySize = m_iKeyBytes;
  stHead.iTotalValueSize = m_iValueBytes;
  for (uint64_t i = 0; i < m_vecChain.size(); ++i) {
    if (m_stTable.BucketList()[i].iSize != m_vecChain[i]) {
      m_stTable.BucketList()[i].iSize = m_vecChain[i];
    }
  }
}
