#include "table_snapshot.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "key_table.h"

namespace {

size_t WholePages(size_t iSize) {
  const auto iPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return (iSize + iPage - 1) / iPage * iPage;
}

}  // namespace

TableSnapshot::TableSnapshot(KeyTable& stTable)
    : m_pSegment(reinterpret_cast<char*>(stTable.HeapHead())),
      m_iSize(WholePages(stTable.HeapHead()->iCurrentOffset)) {
  void* pCopy = mmap(nullptr, m_iSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pCopy == MAP_FAILED) {
    return;
  }
  m_pCopy = static_cast<char*>(pCopy);
  const KeyTable::Heap::Head_t& stHead = *stTable.HeapHead();
  const size_t iBlocks = stHead.iBeginOffset + stHead.iReservedSize;
  const auto Copy = [this](size_t iBegin, size_t iEnd) {
    memcpy(m_pCopy + iBegin, m_pSegment + iBegin, iEnd - iBegin);
  };
  Copy(0, offsetof(KeyTable::Heap::Head_t, szFreeList));
  Copy(stHead.iBeginOffset, iBlocks - KeyTable::INTENT_SIZE);
  Copy(iBlocks, stHead.iCurrentOffset);
}

TableSnapshot::~TableSnapshot() {
  if (m_pCopy != nullptr) {
    munmap(m_pCopy, m_iSize);
  }
}

bool TableSnapshot::TakePlace() {
  if (mremap(m_pCopy, m_iSize, m_iSize, MREMAP_MAYMOVE | MREMAP_FIXED, m_pSegment) == MAP_FAILED) {
    return false;
  }
  m_pCopy = nullptr;
  return true;
}
