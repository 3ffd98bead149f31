#ifndef ZELK_TESTS_TEST_SUPPORT_H
#define ZELK_TESTS_TEST_SUPPORT_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

// What the tests share. Everything here removes what it made in its destructor, which runs also
// after a failed check; what a crashed or killed test program leaves is removed by a small process
// that test_main.cpp starts for it.

// A fresh directory below the test program's own, removed with all that is in it.
class PrivateDirectory {
 public:
  PrivateDirectory();
  ~PrivateDirectory();
  PrivateDirectory(const PrivateDirectory&) = delete;
  PrivateDirectory& operator=(const PrivateDirectory&) = delete;

  const std::string& Path() const { return m_strPath; }
  std::string File(const std::string& strName) const { return m_strPath + "/" + strName; }

 private:
  std::string m_strPath;
};

// A System V key that no segment uses; a segment made under it is removed.
class PrivateKey {
 public:
  PrivateKey();
  // Takes charge of a key that the code under test derives, for instance with ftok().
  explicit PrivateKey(key_t iKey);
  ~PrivateKey();
  PrivateKey(const PrivateKey&) = delete;
  PrivateKey& operator=(const PrivateKey&) = delete;

  key_t Key() const { return m_iKey; }

 private:
  key_t m_iKey;
};

// A forked child that runs a function and exits with its result; killed when it is still there at
// the end of the scope, and with the test program. An exception ends it with exit code 125.
class ForkedPeer {
 public:
  explicit ForkedPeer(const std::function<int()>& fnRun);
  ~ForkedPeer();
  ForkedPeer(const ForkedPeer&) = delete;
  ForkedPeer& operator=(const ForkedPeer&) = delete;

  pid_t Pid() const { return m_iPid; }
  // Waits for the end: the exit code, or 1000 + the number of the signal that ended it.
  int Wait();
  // Nothing once the end has been waited for.
  void Kill(int iSignal) const;

 private:
  pid_t m_iPid;
  int m_iResult = -1;
};

// kill() of one process that a test knows; a number that would mean a group or everybody (0, -1) or
// the system's first process is an exception, and nothing is sent.
void SendSignal(pid_t iPid, int iSignal);

// What a function writes to standard output (1) or standard error (2) by way of the descriptor.
std::string CaptureOutput(int iFD, const std::function<void()>& fnRun);

// What pObject->Dump() style functions write: fnRun gets a descriptor, the text comes back.
std::string CaptureDescriptor(const std::function<void(int)>& fnRun);

// A port on the loopback address that is free now.
uint16_t FreePort();

// Calls fnReady every millisecond until it is true; false when that takes longer than the limit.
bool WaitUntil(const std::function<bool()>& fnReady, int iLimitMilliseconds = 10000);

std::string ReadFile(const std::string& strPath);
void WriteFile(const std::string& strPath, const std::string& strContent);

// How many descriptors this process has open.
int OpenDescriptors();

#endif
