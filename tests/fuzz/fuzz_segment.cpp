#include "fuzz_segment.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

const size_t PAGE = 4096;

int g_iShmID = -1;
char* g_pBase = nullptr;
size_t g_iSize = 0;

void Create(size_t iSize) {
  g_iShmID = static_cast<int>(syscall(SYS_shmget, IPC_PRIVATE, iSize, IPC_CREAT | 0600));
  Require(g_iShmID != -1);
  g_pBase = static_cast<char*>(shmat(g_iShmID, nullptr, 0));
  shmctl(g_iShmID, IPC_RMID, nullptr);  // lives on while it is attached
  Require(reinterpret_cast<intptr_t>(g_pBase) != -1);
  g_iSize = iSize;
}

}  // namespace

extern "C" int shmget(key_t /*iKey*/, size_t iSize, int iFlags) noexcept {
  if (g_iShmID == -1) {
    Create(iSize);
  } else if ((iFlags & IPC_EXCL) != 0 || iSize > g_iSize) {
    errno = (iFlags & IPC_EXCL) != 0 ? EEXIST : EINVAL;
    return -1;
  }
  return g_iShmID;
}

FuzzSegment::~FuzzSegment() {
  if (g_iShmID != -1) {
    shmdt(g_pBase);
    g_iShmID = -1;
    g_pBase = nullptr;
    g_iSize = 0;
  }
}

void FuzzSegment::Make(size_t iSize) { Create(iSize); }

size_t FuzzSegment::Size() const { return g_iSize; }

char* FuzzSegment::Base() const { return g_pBase; }

uint64_t TakeWord(FuzzInput& stInput, uint8_t iKind, uint64_t iBlocks) {
  switch (iKind % 4) {
    case 0:
      return stInput.Take<uint64_t>();
    case 1:
      return iBlocks + stInput.Take<uint16_t>() % PAGE;
    case 2:
      return g_iSize - stInput.Take<uint8_t>();
    default:
      return stInput.Take<uint16_t>();
  }
}

void OverwriteWord(FuzzInput& stInput, const std::vector<uint64_t>& vecPlaces, uint64_t iBlocks) {
  const auto iMode = stInput.Take<uint8_t>();
  const size_t iPlace = iMode / 4 % (vecPlaces.size() + 1);
  uint64_t iOffset = iPlace < vecPlaces.size() ? vecPlaces[iPlace] : g_iSize - PAGE;
  iOffset += stInput.Take<uint16_t>() % PAGE / (iMode < 192 ? 8 : 1) * (iMode < 192 ? 8 : 1);
  const uint64_t iValue = TakeWord(stInput, iMode, iBlocks);
  memcpy(g_pBase + std::min(iOffset, g_iSize - sizeof(iValue)), &iValue, sizeof(iValue));
}

void ReadBytes(const void* p, size_t iSize) {
  const volatile char* pBytes = static_cast<const char*>(p);
  for (size_t i = 0; i < iSize; ++i) {
    static_cast<void>(pBytes[i]);
  }
}

void Require(bool bHolds) {
  if (!bHolds) {
    abort();
  }
}
