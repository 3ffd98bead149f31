#include "memory_tracking.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>

#include "filesystem_util.h"
#include "memory_track.h"

// The records are made and destroyed with new and delete themselves; that is not looked at. Nor is
// anything before the report's life and after it, when the library's records may not be there.

namespace {

bool g_bTracking = false;

class NotTracked {
 public:
  NotTracked() { g_bTracking = false; }
  ~NotTracked() { g_bTracking = true; }
  NotTracked(const NotTracked&) = delete;
  NotTracked& operator=(const NotTracked&) = delete;
};

void* Allocate(size_t iSize) {
  void* pBlock = malloc(std::max<size_t>(iSize, 1));
  if (pBlock == nullptr) {
    throw std::bad_alloc();
  }
  return pBlock;
}

void Free(void* pBlock) {
  if (g_bTracking) {
    const NotTracked stGuard;
    RemoveTrack(pBlock);
  }
  free(pBlock);
}

}  // namespace

MemoryReport::MemoryReport(const std::string& strDirectory, std::string strName) {
  std::replace(strName.begin(), strName.end(), ' ', '-');
  m_strFile = strDirectory + "/memory-" + strName + ".txt";
  unlink(m_strFile.c_str());
  g_bTracking = false;
  g_mapMemoryTrack.clear();  // a parent's
  g_bTracking = true;
}

MemoryReport::~MemoryReport() {
  g_bTracking = false;
  const std::string strReport = DumpUnfreed();
  SaveFile(m_strFile.c_str(), strReport.data(), static_cast<unsigned int>(strReport.size()));
}

void TrackBlock(void* pBlock, size_t iSize, const char* pFile, unsigned int iLine) {
  if (g_bTracking) {
    const NotTracked stGuard;
    AddTrack(pBlock, static_cast<unsigned int>(iSize), pFile, iLine);
  }
}

void* operator new(size_t iSize, const char* pFile, unsigned int iLine) {
  void* pBlock = Allocate(iSize);
  TrackBlock(pBlock, iSize, pFile, iLine);
  return pBlock;
}

// Only called when a constructor throws.
void operator delete(void* pBlock, const char* /*pFile*/, unsigned int /*iLine*/) noexcept {
  Free(pBlock);
}

void* operator new(size_t iSize) { return Allocate(iSize); }
void* operator new[](size_t iSize) { return Allocate(iSize); }
void operator delete(void* pBlock) noexcept { Free(pBlock); }
void operator delete[](void* pBlock) noexcept { Free(pBlock); }
void operator delete(void* pBlock, size_t /*iSize*/) noexcept { Free(pBlock); }
void operator delete[](void* pBlock, size_t /*iSize*/) noexcept { Free(pBlock); }
