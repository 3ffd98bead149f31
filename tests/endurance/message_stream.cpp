#include "message_stream.h"

#include <algorithm>
#include <cstring>

#include "endurance.h"

namespace {

const uint32_t LENGTH_SIZE = 4;
const uint32_t SMALL = 16;
const uint32_t LARGE = 65536;

}  // namespace

// Bytes are made eight at a time, so there is room for some more than a batch has.
MessageStream::MessageStream(uint32_t iRing)
    : m_iLargest(std::min(iRing - 1 - LENGTH_SIZE, LARGE)),
      m_iRoom(iRing - 1),
      m_vecBytes(std::min<size_t>(iRing, MAX_BATCH * LARGE) + sizeof(uint64_t)) {}

// Every second one is small, as most messages are; batches then have many.
uint32_t MessageStream::Size(uint64_t iNumber) const {
  const uint64_t iRandom = Scrambled(iNumber);
  const uint32_t iLimit = iRandom % 2 == 0 ? m_iLargest : std::min(m_iLargest, SMALL);
  return static_cast<uint32_t>((iRandom >> 8) % (uint64_t{iLimit} + 1));
}

uint32_t MessageStream::RecordSize(uint64_t iNumber) const { return Size(iNumber) + LENGTH_SIZE; }

unsigned int MessageStream::BatchCount(uint64_t iFirst) const {
  const auto iWanted = static_cast<unsigned int>(1 + Scrambled(~iFirst) % MAX_BATCH);
  uint32_t iBytes = RecordSize(iFirst);
  unsigned int iCount = 1;
  while (iCount < iWanted) {
    iBytes += RecordSize(iFirst + iCount);
    if (iBytes > m_iRoom) {
      break;
    }
    ++iCount;
  }
  return iCount;
}

// No two places of a message have the same eight bytes, but for chance: a piece that was copied
// from or to a wrong place shows.
void MessageStream::Fill(uint64_t iNumber, char* pTo) const {
  uint64_t iWord = Scrambled(Scrambled(iNumber));
  const uint32_t iSize = Size(iNumber);
  for (uint32_t i = 0; i < iSize; i += sizeof(iWord)) {
    memcpy(pTo + i, &iWord, sizeof(iWord));
    iWord = iWord * 0x5851f42d4c957f2d + 0x14057b7ef767814f;
  }
}

const std::vector<BufferVec_t>& MessageStream::Batch(uint64_t iFirst) {
  m_vecBatch.resize(BatchCount(iFirst));
  char* pTo = m_vecBytes.data();
  for (BufferVec_t& stMessage : m_vecBatch) {
    stMessage = {pTo, Size(iFirst)};
    Fill(iFirst++, pTo);
    pTo += stMessage.iSize;
  }
  return m_vecBatch;
}

bool MessageStream::Is(const BufferVec_t& stMessage, uint64_t iNumber) {
  if (stMessage.iSize != Size(iNumber)) {
    return false;
  }
  Fill(iNumber, m_vecBytes.data());
  return memcmp(stMessage.pData, m_vecBytes.data(), stMessage.iSize) == 0;
}
