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
const size_t FIGURES = 4;       // count, min, avg, max
const size_t NUMBER_SIZE = 20;  // of the longest 64-bit number
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

void DelayStat::PushData(const char* pTag, unsigned int iValue) {
  const std::string_view strTag(pTag);
  auto itItem = m_mapData.find(strTag);
  if (itItem == m_mapData.end()) {
    itItem = m_mapData.try_emplace(pTag).first;
  }
  IndexedItem_t& stItem = itItem->second;
  stItem.iMin = std::min(stItem.iMin, iValue);
  ++stItem.iCount;
  stItem.iMax = std::max(stItem.iMax, iValue);
  stItem.iTotal += iValue;
  const unsigned int iKey = std::min(iValue, m_iMax) / m_iInterval;
  ++CountOf(stItem.mapInterval, stItem.vecIndex, iKey);
  m_iTagMaxSize = std::max(m_iTagMaxSize, static_cast<unsigned int>(strTag.size()));
  m_iMaxKey = std::max(m_iMaxKey, iKey);
}

void DelayStat::PushData(const char* pTag, timeval& tvBegin, timeval& tvEnd) {
  PushData(pTag, static_cast<unsigned int>(DiffTimeValue(tvBegin, tvEnd)));
}

void DelayStat::BeginData(const char* pTag, const char* pIdentifier, timeval* pTime) {
  assert(pIdentifier);
  TempData_t& stTemp = m_mapTempData[pIdentifier];
  stTemp.strTag = pTag;
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
  const auto stResult = m_mapSessionData.try_emplace(pSession);
  if (stResult.second) {
    stResult.first->second[0] = TimeOrNow(pTime);
  }
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
  m_iTagMaxSize = 0;
  m_iMaxKey = 0;
}

int DelayStat::DiffTimeValue(const timeval& tvBegin, const timeval& tvEnd) {
  const int64_t iSeconds = int64_t{tvEnd.tv_sec} - tvBegin.tv_sec;
  const int64_t iMicroseconds = int64_t{tvEnd.tv_usec} - tvBegin.tv_usec;
  return static_cast<int>(iSeconds * 1000 + iMicroseconds / 1000);  // modulo 2^32
}

void DelayStat::Dump(int /*iFD*/) {}
