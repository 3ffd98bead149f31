#include "batch.h"

namespace {

template <typename T>
char* Put(char* pTo, const T& stRecord) {
  memcpy(pTo, &stRecord, sizeof(stRecord));
  return pTo + sizeof(stRecord);
}

}  // namespace

bool AppendCommand(std::string& strOut, uint16_t iCommand, const Arguments_t& vecArguments,
                   size_t iFirst) {
  const size_t iCount = vecArguments.size() - iFirst;
  const bool bFollows = iCount > 0 && vecArguments.back().size() >= LARGE_VALUE;
  const size_t iInline = vecArguments.size() - (bFollows ? 1 : 0);
  size_t iSize = sizeof(CommandHead_t) + iCount * sizeof(uint32_t);
  for (size_t i = iFirst; i < iInline; ++i) {
    iSize += vecArguments[i].size();
  }
  const size_t iStart = strOut.size();
  strOut.resize(iStart + iSize);
  char* pTo =
      Put(&strOut[iStart], CommandHead_t{iCommand, bFollows, static_cast<uint32_t>(iCount)});
  for (size_t i = iFirst; i < vecArguments.size(); ++i) {
    pTo = Put(pTo, static_cast<uint32_t>(vecArguments[i].size()));
  }
  for (size_t i = iFirst; i < iInline; ++i) {
    memcpy(pTo, vecArguments[i].data(), vecArguments[i].size());
    pTo += vecArguments[i].size();
  }
  return bFollows;
}
