#ifndef ZELK_TESTS_SOAK_FAULTS_H
#define ZELK_TESTS_SOAK_FAULTS_H

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "full_disk.h"
#include "kv_load.h"
#include "kv_server_fixture.h"
#include "soak_server.h"

struct FaultStat_t {
  int iTimes = 0;
  int iSlowest = 0;  // milliseconds until all workers answered again
};

// Everything that a soak does to its server while the load goes on. Each call of InjectOne() draws
// one kind, does it, waits until the server answers again, and counts how long that took.
class SoakFaults {
 public:
  SoakFaults(SoakServer& stServer, KvLoad& stLoad, const std::string& strLogDirectory,
             const SmallDisk* pSaveDisk, const SmallDisk* pLogDisk, unsigned int iSeed);
  ~SoakFaults();

  void InjectOne();
  // Clients that misbehave go; the load must be pumped for the server to see it.
  void SendClientsAway();

  const std::map<std::string, FaultStat_t>& Stat() const { return m_mapStat; }
  // What a server did wrong that the load can not see; "" when nothing.
  const std::string& Errors() const { return m_strErrors; }

 private:
  struct Kind_t {
    const char* pName;
    int iWeight;
    bool (SoakFaults::*fnInject)();  // false: not possible now
  };
  static const Kind_t KINDS[];

  bool KillWorker();
  bool KillGateway();
  bool KillMaster();
  bool KillEverything();
  bool KillSaver();
  bool Restart();
  bool Boot();
  bool StopWorker();
  bool StopGateway();
  bool StopMaster();
  bool FillQueue();
  bool FillTable();
  bool FillSaveDisk();
  bool FillLogDisk();
  bool MoveLog();
  bool RemoveLog();
  bool Save();
  bool NeverRead();
  bool ByteASecond();
  bool Malformed();
  bool Storm();
  bool Vanish();

  int Below(int iLimit);
  std::string AnyWorker();
  bool Kill(const std::string& strTitle);
  bool Pause(pid_t iPid, int iMilliseconds);
  void Recover();
  bool JournalIsWhole();
  std::string NewestLog();
  std::unique_ptr<Client> NewClient() const;
  void SendBytes();
  std::string Nonsense();

  SoakServer& m_stServer;
  KvLoad& m_stLoad;
  const std::string m_strLogDirectory;
  const SmallDisk* m_pSaveDisk;
  const SmallDisk* m_pLogDisk;
  std::mt19937 m_stRandom;
  std::map<std::string, FaultStat_t> m_mapStat;
  std::map<std::string, std::vector<int64_t>> m_mapDeaths;  // of late, by title
  std::vector<std::unique_ptr<Client>> m_vecSilent;         // clients that read nothing
  std::vector<std::pair<std::unique_ptr<Client>, std::string>> m_vecSlow;  // with what they owe
  std::string m_strErrors;
  int m_iRecovery = 0;
};

#endif
