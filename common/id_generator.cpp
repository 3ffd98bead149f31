#include "id_generator.h"

#include <algorithm>
#include <cstdint>

namespace {

const size_t REFILL_BELOW = 1000;
const uint64_t REFILL_COUNT = 100000;
const unsigned int NO_ID = 0xFFFFFFFF;

}  // namespace

IdGenerator::IdGenerator() { SetRange(100, 1000000000); }

void IdGenerator::SetRange(unsigned int iBegin, unsigned int iEnd) {
  m_iBegin = iBegin;
  m_iEnd = iEnd;
  m_iCurrentEnd = iBegin;
}

unsigned int IdGenerator::GetId() {
  if (m_queueFreeIds.size() < REFILL_BELOW) {
    Refill();
  }
  if (m_queueFreeIds.empty()) {
    return NO_ID;
  }
  const unsigned int iId = m_queueFreeIds.front();
  m_queueFreeIds.pop();
  return iId;
}

void IdGenerator::Refill() {
  // 64 bits: near the top of the range the sum is beyond 32.
  const uint64_t iLimit = std::min<uint64_t>(m_iCurrentEnd + REFILL_COUNT, m_iEnd);
  while (m_iCurrentEnd < iLimit) {
    m_queueFreeIds.push(m_iCurrentEnd);  // may throw: the number is not lost
    ++m_iCurrentEnd;
  }
}

void IdGenerator::FreeId(unsigned int iId) { m_queueFreeIds.push(iId); }

void IdGenerator::Dump(int /*iFD*/) {}
