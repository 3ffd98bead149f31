#include "memory_track.h"

std::map<void*, MemoryTrack_t> g_mapMemoryTrack;

void AddTrack(void* pAddr, unsigned int iSize, const char* pFile, unsigned int iLine) {
  g_mapMemoryTrack.try_emplace(pAddr, MemoryTrack_t{pAddr, iSize, pFile, iLine});
}

void RemoveTrack(void* pAddr) { g_mapMemoryTrack.erase(pAddr); }

std::string DumpUnfreed() {
  std::string strReport;
  for (const auto& [pAddr, stTrack] : g_mapMemoryTrack) {
    strReport += stTrack.strFile + ':' + std::to_string(stTrack.iLine) + " allocate " +
                 std::to_string(stTrack.iSize) + " bytes\n";
  }
  return strReport;
}
