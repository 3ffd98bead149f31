#include "batch.h"

bool AppendCommand(std::string& strOut, uint16_t iCommand, const Arguments_t& vecArguments,
                   size_t iFirst) {
  const size_t iCount = vecArguments.size() - iFirst;
  const bool bFollows = iCount > 0 && vecArguments.back().size() >= LARGE_VALUE;
  AppendRecord(strOut, CommandHead_t{iCommand, bFollows, static_cast<uint32_t>(iCount)});
  for (size_t i = iFirst; i < vecArguments.size(); ++i) {
    AppendRecord(strOut, static_cast<uint32_t>(vecArguments[i].size()));
  }
  const size_t iInline = vecArguments.size() - (bFollows ? 1 : 0);
  for (size_t i = iFirst; i < iInline; ++i) {
    strOut.append(vecArguments[i]);
  }
  return bFollows;
}
