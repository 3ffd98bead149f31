#ifndef KV_SERVER_GATEWAY_H
#define KV_SERVER_GATEWAY_H

#include <sys/types.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "bounded_receiver.h"
#include "gateway_statistics.h"
#include "id_generator.h"
#include "request_router.h"
#include "saver.h"
#include "settings.h"
#include "tcp_socket.h"
#include "worker_link.h"

class Session;

// The gateway process: owns the clients, takes their requests apart, has the workers run them and
// sends the replies.
//
// One turn of its loop: wait once; read and parse everything that came; publish once to each
// worker; take all answers; send once to each client.
class Gateway : public ReplyReceiver {
 public:
  // iLife tells this process from earlier gateways.
  Gateway(const Settings_t& stSettings, const std::vector<QueueNames_t>& vecNames, uint64_t iLife);
  ~Gateway() override;
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;

  // Serves until SIGTERM, then answers what has been received. Returns the exit code.
  int Run();

  // For the machines.
  const Settings_t& Settings() const { return m_stSettings; }
  time_t Now() const { return m_iNow; }
  int64_t TurnBegan() const { return m_iTurnBegan; }  // of MonotonicMicroseconds()
  size_t Workers() const { return m_vecLinks.size(); }
  WorkerLink& Link(int iWorker) { return *m_vecLinks[static_cast<size_t>(iWorker)]; }
  RequestRouter& Router() { return m_stRouter; }
  BoundedReceiver& Receiver() { return m_stReceiver; }
  uint32_t NewMachineId();
  void Touch(Session& stSession);         // FinishTurn() is called at the end of the turn
  void Resume(const Session& stSession);  // a paused session may go on
  void WatchSession(const Session& stSession, int iFD, uint32_t iEvents);
  pid_t Master() const { return m_iMaster; }
  GatewayStatistics& Statistics() { return m_stStatistics; }
  std::vector<Session*> Sessions() const;  // except dead ones
  uint64_t NewClientNumber() { return ++m_iClients; }
  // The sections of INFO, of InfoSection_t; those of the workers from what they answered.
  std::string InfoText(uint32_t iSections, const WorkerStat_t& stWorkers) const;

  void OnPiece(const ReplyTarget_t& stTarget, const ReplyPiece_t& stPiece) override;
  void OnLost(const ReplyTarget_t& stTarget) override;
  void OnWorkerStarted(int iWorker) override;

 private:
  bool Start();
  bool AttachLinks();
  void Turn(int iTimeout);
  int WaitMilliseconds();
  void OnEvent(uint64_t iTag, uint32_t iEvents);
  void AcceptClients();
  void DeferAccepting(int iError);
  void AcceptAgain();
  void AddClient(std::unique_ptr<TcpSocket> pSocket);
  void OnSessionEvent(uint32_t iMachine, uint32_t iEvents);
  void DrainLinks();
  void Publish(WorkerLink& stLink);
  bool AnyBlocked() const;
  void ResumeSessions();
  void FinishSessions();
  void RemoveSession(uint32_t iMachine);
  void EndPeriod();
  void Stop();
  void TouchAll();
  void Tell(uint32_t iMachine, uint32_t iSlot, const ReplyPiece_t* pPiece);

  const Settings_t m_stSettings;
  const std::vector<QueueNames_t> m_vecNames;
  const uint64_t m_iLife;
  const pid_t m_iMaster;
  time_t m_iNow;
  time_t m_iStarted;
  int64_t m_iTurnBegan = 0;
  int64_t m_iPeriodBegan;      // of the statistics
  int64_t m_iAcceptAgain = 0;  // when clients wait for a descriptor; 0: none does
  int64_t m_iTellAgain = 0;    // both of MonotonicMicroseconds()
  int m_iEpoll = -1;
  TcpSocket m_stListener;
  BoundedReceiver m_stReceiver;
  std::vector<std::unique_ptr<WorkerLink>> m_vecLinks;
  std::set<uint32_t> m_setSessions;  // machine ids
  std::vector<uint32_t> m_vecTouched;
  std::vector<uint32_t> m_vecResumed;
  IdGenerator m_stIds;
  uint64_t m_iClients = 0;  // ever
  GatewayStatistics m_stStatistics;
  RequestRouter m_stRouter;
};

#endif
