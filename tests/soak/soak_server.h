#ifndef ZELK_TESTS_SOAK_SERVER_H
#define ZELK_TESTS_SOAK_SERVER_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

// The server of a soak: known by its port and by /proc alone, since the soak takes away its log.
class SoakServer {
 public:
  // Settings as "key=value"; nothing is started yet.
  SoakServer(std::string strProgram, std::string strRunDirectory, uint16_t iPort,
             std::vector<std::string> vecSettings);
  ~SoakServer();  // kills it
  SoakServer(const SoakServer&) = delete;
  SoakServer& operator=(const SoakServer&) = delete;

  // Returns when it answers; an exception when it ends before, or does not answer in a minute.
  void Start();
  // SIGTERM; the exit code, or 1000 + the signal.
  int Stop();
  // Kills the master, or all processes at one moment, and waits for the master.
  void KillMaster();
  void KillAll();
  void RemoveTables() const;
  // Queues' segments and FIFOs that are there; "" when there are none.
  std::string Remains() const;

  pid_t Master() const { return m_iMaster; }
  pid_t Child(const std::string& strTitle) const;  // -1: there is none now
  const std::string& RunDirectory() const { return m_strRunDirectory; }
  uint16_t Port() const { return m_iPort; }

 private:
  int Wait();
  bool Answers() const;
  std::vector<key_t> Keys(const std::string& strList) const;

  const std::string m_strProgram;
  const std::string m_strRunDirectory;
  const uint16_t m_iPort;
  const std::vector<std::string> m_vecSettings;
  pid_t m_iMaster = -1;
  std::vector<key_t> m_vecQueueKeys;
};

#endif
