#include "delay_stat.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

#include "internal/always_assert.h"

namespace {

const size_t TAG_MARGIN = 5;
const size_t FIELD_WIDTH = 10;
const size_t FIGURES = 4;                         // count, min, avg, max
const size_t NUMBER_SIZE = 20;                    // of the longest 64-bit number
const uint64_t HASH_FACTOR = 0x9e3779b97f4a7c15;  // the golden ratio
const size_t MIN_PLACES = 64;
const size_t INDEX_SIZE = 256;  // buckets that are found without a search

timeval TimeOrNow(const timeval* pTime) {
  timeval tvNow{};
  if (pTime != nullptr) {
    return *pTime;
  }
  gettimeofday(&tvNow, nullptr);
  return tvNow;
}

// Right-aligned; what is wider than its field is written whole.
void AppendField(std::string& strTable, size_t iWidth, std::string_view strText) {
  if (strText.size() < iWidth) {
    strTable.append(iWidth - strText.size(), ' ');
  }
  strTable.append(strText);
}

void AppendNumber(std::string& strTable, uint64_t iNumber) {
  char szField[NUMBER_SIZE];
  memset(szField, ' ', sizeof(szField));
  char* pEnd = szField + sizeof(szField);
  char* pDigit = pEnd;
  do {
    *--pDigit = static_cast<char>('0' + iNumber % 10);
    iNumber /= 10;
  } while (iNumber != 0);
  strTable.append(std::min(pDigit, pEnd - FIELD_WIDTH), pEnd);
}

void AppendLabel(std::string& strTable, unsigned int iBegin, unsigned int iEnd) {
  char szLabel[2 * NUMBER_SIZE + 1];
  char* pEnd = std::to_chars(szLabel, szLabel + NUMBER_SIZE, iBegin).ptr;
  *pEnd++ = '-';
  pEnd = std::to_chars(pEnd, szLabel + sizeof(szLabel), iEnd).ptr;
  AppendField(strTable, FIELD_WIDTH, {szLabel, static_cast<size_t>(pEnd - szLabel)});
}

void AppendItem(std::string& strTable, const StatItem_t& stItem, unsigned int iMaxKey) {
  AppendNumber(strTable, stItem.iCount);
  AppendNumber(strTable, stItem.iMin);
  // The count starts anew after 2^32 samples.
  AppendNumber(strTable, stItem.iCount != 0 ? stItem.iTotal / stItem.iCount : 0);
  AppendNumber(strTable, stItem.iMax);
  auto itBucket = stItem.mapInterval.begin();
  for (unsigned int k = 0; k <= iMaxKey; ++k) {
    const bool bUsed = itBucket != stItem.mapInterval.end() && itBucket->first == k;
    AppendNumber(strTable, bUsed ? (itBucket++)->second : 0);
  }
}

// Every bit of a product of 128 bits depends on some bits of its factors, both halves together on
// all.
uint64_t Mix(uint64_t iWord) {
  __extension__ typedef unsigned __int128 product_t;
  const product_t iProduct = product_t{iWord} * HASH_FACTOR;
  return static_cast<uint64_t>(iProduct >> 64) ^ static_cast<uint64_t>(iProduct);
}

// Eight bytes at a time; the last eight may have been seen before.
uint64_t Hash(const char* pText, size_t iLength) {
  uint64_t iWord = 0;
  uint64_t iHash = iLength;
  if (iLength < sizeof(iWord)) {
    for (size_t i = 0; i < iLength; ++i) {
      iWord = iWord << 8 | static_cast<unsigned char>(pText[i]);
    }
    return Mix(iHash ^ iWord);
  }
  for (size_t i = 0; i + sizeof(iWord) < iLength; i += sizeof(iWord)) {
    memcpy(&iWord, pText + i, sizeof(iWord));
    iHash = Mix(iHash ^ iWord);
  }
  memcpy(&iWord, pText + iLength - sizeof(iWord), sizeof(iWord));
  return Mix(iHash ^ iWord);
}

// Finds or makes the count of a bucket. A map's entries keep their addresses.
unsigned int& CountOf(std::map<unsigned int, unsigned int>& mapInterval,
                      std::vector<unsigned int*>& vecIndex, unsigned int iKey) {
  if (iKey < vecIndex.size() && vecIndex[iKey] != nullptr) {
    return *vecIndex[iKey];
  }
  unsigned int& iCount = mapInterval[iKey];
  if (iKey < INDEX_SIZE) {
    vecIndex.resize(std::max(vecIndex.size(), size_t{iKey} + 1));
    vecIndex[iKey] = &iCount;
  }
  return iCount;
}

}  // namespace

void DelayStat::SetInterval(unsigned int iMax, unsigned int iInterval, unsigned int /*iUnused*/) {
  m_iMax = iMax;
  m_iInterval = iInterval;
}

// Finds or makes the item of a tag, at the cost of a hash: a search in the map would compare with
// about seven of a hundred tags.
DelayStat::Tag_t& DelayStat::Find(const char* pTag, size_t iLength) {
  if (m_iTags != m_mapData.size()) {  // by Clear(), or a derived class
    MakeIndex();
  }
  size_t iPlace = Place(pTag, iLength);
  if (m_vecPlaces[iPlace] != nullptr) {
    return *m_vecPlaces[iPlace];
  }
  if (m_iTags >= m_vecPlaces.size() / 2) {  // before there is one more than the index knows
    MakeIndex();
    iPlace = Place(pTag, iLength);
  }
  Tag_t& stTag = *m_mapData.try_emplace(pTag).first;
  m_vecPlaces[iPlace] = &stTag;
  ++m_iTags;
  return stTag;
}

// The place of a tag, or the free one where it would stand.
size_t DelayStat::Place(const char* pTag, size_t iLength) const {
  const size_t iMask = m_vecPlaces.size() - 1;
  size_t i = Hash(pTag, iLength) & iMask;
  while (m_vecPlaces[i] != nullptr && (m_vecPlaces[i]->first.size() != iLength ||
                                       memcmp(m_vecPlaces[i]->first.data(), pTag, iLength) != 0)) {
    i = (i + 1) & iMask;
  }
  return i;
}

void DelayStat::MakeIndex() {
  size_t iPlaces = MIN_PLACES;
  while (iPlaces < 4 * m_mapData.size()) {
    iPlaces *= 2;
  }
  m_vecPlaces.assign(iPlaces, nullptr);
  for (Tag_t& stTag : m_mapData) {
    m_vecPlaces[Place(stTag.first.data(), stTag.first.size())] = &stTag;
  }
  m_iTags = m_mapData.size();
}

void DelayStat::PushData(const char* pTag, unsigned int iValue) {
  const size_t iLength = strlen(pTag);
  IndexedItem_t& stItem = Find(pTag, iLength).second;
  const unsigned int iKey = std::min(iValue, m_iMax) / m_iInterval;
  try {
    ++CountOf(stItem.mapInterval, stItem.vecIndex, iKey);
  } catch (...) {
    if (stItem.iCount == 0 && stItem.iTotal == 0) {  // new: there shall be no line for it
      m_mapData.erase(m_mapData.find(pTag));
      m_iTags = ~size_t{0};
    }
    throw;
  }
  stItem.iMin = std::min(stItem.iMin, iValue);
  ++stItem.iCount;
  stItem.iMax = std::max(stItem.iMax, iValue);
  stItem.iTotal += iValue;
  m_iTagMaxSize = std::max(m_iTagMaxSize, static_cast<unsigned int>(iLength));
  m_iMaxKey = std::max(m_iMaxKey, iKey);
}

void DelayStat::PushData(const char* pTag, timeval& tvBegin, timeval& tvEnd) {
  PushData(pTag, static_cast<unsigned int>(DiffTimeValue(tvBegin, tvEnd)));
}

void DelayStat::BeginData(const char* pTag, const char* pIdentifier, timeval* pTime) {
  assert(pIdentifier);
  std::string strTag = pTag;  // may throw: then nothing has begun
  TempData_t& stTemp = m_mapTempData[pIdentifier];
  stTemp.strTag.swap(strTag);
  stTemp.tvBegin = TimeOrNow(pTime);
}

void DelayStat::EndData(const char* pIdentifier, timeval* pTime) {
  const auto itTemp = m_mapTempData.find(std::string_view(pIdentifier));
  if (itTemp == m_mapTempData.end()) {
    return;
  }
  timeval tvEnd = TimeOrNow(pTime);
  PushData(itTemp->second.strTag.c_str(), itTemp->second.tvBegin, tvEnd);
  m_mapTempData.erase(itTemp);
}

void DelayStat::BeginSession(const char* pSession, timeval* pTime) {
  std::map<unsigned int, timeval> mapStep{{0, TimeOrNow(pTime)}};
  m_mapSessionData.try_emplace(pSession, std::move(mapStep));
}

void DelayStat::SubStat(const char* pSession, const char* pTag, uint32_t iFrom, uint32_t iTo,
                        timeval* pTime) {
  const auto itSession = m_mapSessionData.find(std::string_view(pSession));
  if (itSession == m_mapSessionData.end()) {
    return;
  }
  auto& mapStep = itSession->second;
  const auto itTo = mapStep.emplace(iTo, TimeOrNow(pTime)).first;
  const auto itFrom = mapStep.find(iFrom);
  if (pTag != nullptr && itFrom != mapStep.end()) {
    PushData(pTag, itFrom->second, itTo->second);
  }
}

void DelayStat::EndSession(const char* pSession, timeval* pTime, const char* pTag) {
  const auto itSession = m_mapSessionData.find(std::string_view(pSession));
  if (itSession == m_mapSessionData.end()) {
    return;
  }
  const auto itBegin = itSession->second.find(0);
  if (pTag != nullptr && itBegin != itSession->second.end()) {
    timeval tvEnd = TimeOrNow(pTime);
    PushData(pTag, itBegin->second, tvEnd);
  }
  m_mapSessionData.erase(itSession);
}

std::string DelayStat::GenerateStatTable() {
  std::string strTable;
  if (m_mapData.empty()) {
    return strTable;
  }
  const size_t iTagWidth = m_iTagMaxSize + TAG_MARGIN;
  const size_t iLineSize = iTagWidth + (FIGURES + m_iMaxKey + 1) * FIELD_WIDTH + 1;
  strTable.reserve((m_mapData.size() + 1) * iLineSize);
  AppendField(strTable, iTagWidth, "tag");
  for (const char* pHeading : {"count", "min", "avg", "max"}) {
    AppendField(strTable, FIELD_WIDTH, pHeading);
  }
  for (unsigned int k = 0; k <= m_iMaxKey; ++k) {
    AppendLabel(strTable, k * m_iInterval, (k + 1) * m_iInterval);
  }
  strTable += '\n';
  for (const auto& [strTag, stItem] : m_mapData) {
    AppendField(strTable, iTagWidth, strTag);
    AppendItem(strTable, stItem, m_iMaxKey);
    strTable += '\n';
  }
  return strTable;
}

void DelayStat::DumpToFD(int iFD) {
  if (m_mapData.empty() || iFD == -1) {
    return;
  }
  const std::string strTable = GenerateStatTable();
  static_cast<void>(!write(iFD, strTable.data(), strTable.size()));  // in vain: nobody to tell
}

void DelayStat::Clear() {
  m_mapData.clear();
  m_iTags = ~size_t{0};
  m_iTagMaxSize = 0;
  m_iMaxKey = 0;
}

int DelayStat::DiffTimeValue(const timeval& tvBegin, const timeval& tvEnd) {
  const int64_t iSeconds = int64_t{tvEnd.tv_sec} - tvBegin.tv_sec;
  const int64_t iMicroseconds = int64_t{tvEnd.tv_usec} - tvBegin.tv_usec;
  return static_cast<int>(iSeconds * 1000 + iMicroseconds / 1000);  // modulo 2^32
}

void DelayStat::Dump(int /*iFD*/) {}
