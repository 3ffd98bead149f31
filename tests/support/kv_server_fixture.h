#ifndef ZELK_TESTS_KV_SERVER_FIXTURE_H
#define ZELK_TESTS_KV_SERVER_FIXTURE_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "test_support.h"

// The built server as a child of the test, in a run directory of its own and on a free port.
// Destroyed, it is killed with all its processes; what it leaves is removed, the tables too.
class ServerProcess {
 public:
  typedef std::vector<std::string> Settings_t;  // "key=value", "--option", or a configuration file

  // Starts the server and waits until it serves.
  explicit ServerProcess(Settings_t vecSettings = {});
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  uint16_t Port() const { return m_iPort; }
  const std::string& Directory() const { return m_stDirectory.Path(); }
  std::string Log() const { return LogFiles("kv_server_"); }
  std::string StatLog() const { return LogFiles("kv_stat_"); }

  // The living process of that role, as the log tells it; waits for one that is being started.
  pid_t Master() const { return m_iMaster; }
  pid_t Gateway() const { return Living("gateway"); }
  pid_t Metrics() const { return Living("metrics"); }
  pid_t Worker(int iWorker) const { return Living("worker " + std::to_string(iWorker)); }

  // Waits for the end of the master: its exit code, or 1000 + the signal.
  int Wait();
  // SIGTERM, then Wait().
  int Stop();
  // Starts a master anew over the same directory and port, when the former has gone.
  void Start();
  // The same with other settings.
  void Restart(Settings_t vecSettings);
  const std::vector<key_t>& TableKeys() const { return m_vecTableKeys; }

  // Segments, FIFOs and processes that are still there, as a text; "" when nothing is. The tables
  // are meant to stay.
  std::string Remains() const;

 private:
  void Launch();
  bool Serves();
  std::string LogFiles(const std::string& strPrefix) const;
  pid_t ProcessOf(const std::string& strName) const;  // the latest, which may be dead; -1: none
  pid_t Living(const std::string& strName) const;
  void NoteKeys();
  void NoteKeys(const std::string& strList, std::vector<key_t>& vecKeys) const;
  void KillAll();

  Settings_t m_vecSettings;
  const PrivateDirectory m_stDirectory;
  uint16_t m_iPort = 0;
  pid_t m_iMaster = -1;
  size_t m_iLogBefore = 0;  // bytes of the log that are an earlier master's
  std::vector<key_t> m_vecKeys;
  std::vector<key_t> m_vecTableKeys;
};

// An orphan that nobody has reaped yet is dead.
bool IsAlive(pid_t iPid);

// What a run of the server binary that ends by itself prints, and its exit code.
struct RunResult_t {
  int iExit;
  std::string strOut;
  std::string strError;
};
RunResult_t RunServer(const std::vector<std::string>& vecArguments);

// A process that is stopped for as long as the object lives; it goes on also when the test dies.
class StoppedProcess {
 public:
  explicit StoppedProcess(pid_t iPid);
  ~StoppedProcess();

 private:
  std::unique_ptr<ForkedPeer> m_pHolder;
};

// One client's connection, without any knowledge of commands. Everything that takes longer than a
// minute is an exception.
class Client {
 public:
  explicit Client(uint16_t iPort);
  explicit Client(const ServerProcess& stServer) : Client(stServer.Port()) {}
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  int FD() const { return m_iFD; }

  // A connection that the server has closed takes nothing; Read() then tells of it.
  void Send(const std::string& strBytes);
  // Sends what the socket takes now; the number of bytes.
  size_t SendSome(const std::string& strBytes);
  void CloseSending();

  // The next reply with all its bytes; "" when the server has closed.
  std::string Read();
  std::string Read(size_t iReplies);  // so many, one behind the other
  // Everything up to the server's close.
  std::string ReadToEnd();
  // Whether the server has closed within that time; what it sent before is kept for Read().
  bool ClosedWithin(int iMilliseconds);

  std::string Ask(const std::vector<std::string>& vecArguments);
  std::string AskInline(const std::string& strLine) { return Send(strLine + "\r\n"), Read(); }

 private:
  bool Receive(int iMilliseconds);
  size_t EndOfReply(size_t iOffset);
  size_t EndOfLine(size_t iOffset);
  std::string Take(size_t iSize);

  int m_iFD = -1;
  bool m_bClosed = false;  // nothing more will be received
  bool m_bBroken = false;  // nothing more can be sent
  std::string m_strReceived;
};

// The value of a line of INFO.
std::string InfoLine(Client& stClient, const std::string& strName);

// A request as an array of bulk strings; the same text for an array reply of bulk strings.
std::string Request(const std::vector<std::string>& vecArguments);
std::string Bulk(const std::string& strValue);
std::string Repeat(const std::string& strText, size_t iTimes);

// The iNumber-th of the keys that belong to one of several workers.
std::string KeyOf(int iWorker, int iWorkers, int iNumber = 0);

#endif
