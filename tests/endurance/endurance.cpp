#include "endurance.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

uint64_t Amount(const char* pVariable, uint64_t iShort) {
  const char* pValue = getenv(pVariable);
  return pValue == nullptr ? iShort : strtoull(pValue, nullptr, 10);
}

uint64_t Scrambled(uint64_t iNumber) {
  iNumber += 0x9e3779b97f4a7c15;
  iNumber = (iNumber ^ (iNumber >> 30)) * 0xbf58476d1ce4e5b9;
  iNumber = (iNumber ^ (iNumber >> 27)) * 0x94d049bb133111eb;
  return iNumber ^ (iNumber >> 31);
}

void Report(const std::string& strWhat, const Stopwatch& stTime, const std::string& strMet) {
  printf("endurance| %s | %.1f s | %s\n", strWhat.c_str(), stTime.Seconds(), strMet.c_str());
  fflush(stdout);
}

StateFile::StateFile(const std::string& strPath, size_t iSize)
    : m_iSize(iSize), m_pAddress(MAP_FAILED) {
  const int iFD = open(strPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (iFD != -1 && ftruncate(iFD, static_cast<off_t>(iSize)) == 0) {
    m_pAddress = mmap(nullptr, iSize, PROT_READ | PROT_WRITE, MAP_SHARED, iFD, 0);
  }
  const int iError = errno;
  close(iFD);
  if (m_pAddress == MAP_FAILED) {
    throw std::runtime_error(strPath + ": " + strerror(iError));
  }
}

StateFile::~StateFile() { munmap(m_pAddress, m_iSize); }
