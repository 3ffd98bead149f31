#ifndef ZELK_TESTS_ENDURANCE_H
#define ZELK_TESTS_ENDURANCE_H

#include <chrono>
#include <cstdint>
#include <string>

// What the tests of long runs share. Each is short in the suite; an environment variable makes it
// as long as wanted (script/endurance knows them).

// The number in an environment variable, or iShort.
uint64_t Amount(const char* pVariable, uint64_t iShort);

// Random bits that follow from a number.
uint64_t Scrambled(uint64_t iNumber);

// Time since it was made.
class Stopwatch {
 public:
  double Seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_stStart).count();
  }

 private:
  std::chrono::steady_clock::time_point m_stStart = std::chrono::steady_clock::now();
};

// One line of script/endurance's table: what was done, how long it took, what was met on the way.
void Report(const std::string& strWhat, const Stopwatch& stTime, const std::string& strMet);

// A record in a file, mapped by every process that is forked afterwards: what it says outlives each
// of them, up to the last store before a kill.
class StateFile {
 public:
  StateFile(const std::string& strPath, size_t iSize);
  ~StateFile();
  StateFile(const StateFile&) = delete;
  StateFile& operator=(const StateFile&) = delete;

  void* Address() const { return m_pAddress; }

 private:
  size_t m_iSize;
  void* m_pAddress;
};

template <typename T>
class State {
 public:
  explicit State(const std::string& strPath)
      : m_stFile(strPath, sizeof(T)), m_pValue(new (m_stFile.Address()) T()) {}
  T* operator->() const { return m_pValue; }

 private:
  StateFile m_stFile;
  T* m_pValue;
};

#endif
