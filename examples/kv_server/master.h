#ifndef KV_SERVER_MASTER_H
#define KV_SERVER_MASTER_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "queue_set.h"
#include "settings.h"
#include "table_set.h"

// The master process: makes the queues and the tables, starts gateway, workers and the page of
// figures, starts a dead one again, and at the end stops them and removes what it made, but for the
// tables.
class Master {
 public:
  explicit Master(const Settings_t& stSettings);
  ~Master();
  Master(const Master&) = delete;
  Master& operator=(const Master&) = delete;

  // Serves until SIGTERM or SIGINT. Returns the exit code; errors before the log is there go to
  // standard error. 2 means that a table does not fit and a person has to look.
  int Run();

 private:
  enum { GATEWAY = -1, METRICS = -2 };
  struct Child_t {
    std::string strName;
    int iWorker;  // or GATEWAY or METRICS
    pid_t iPid;   // -1: not running
    int64_t iStartedAt;
    int64_t iStartAt;  // when it is to be started, ms
    int iDelay;        // before the next start after an early death, ms
  };

  bool TakeRunDirectory();
  bool TakeSavePath();
  bool CanListen() const;
  bool CanListenOn(const char* pKey, const std::string& strHost, unsigned short iPort) const;
  bool CanServeMetrics() const;
  bool PrepareMemory();
  void StartDue();
  void StartChild(Child_t& stChild);
  int RunChild(const Child_t& stChild, uint64_t iLife) const;
  void Reap();
  void OnDeath(Child_t& stChild, int iStatus);
  int WaitMilliseconds() const;
  void StopChildren();
  void StopGroup(bool bWorkers);

  const Settings_t m_stSettings;
  QueueSet m_stQueues;
  TableSet m_stTables;
  std::vector<Child_t> m_vecChildren;
  int m_iLockFD = -1;
  int m_iSaveLockFD = -1;
  int m_iExit = 0;
};

#endif
