#ifndef KV_SERVER_SESSION_H
#define KV_SERVER_SESSION_H

#include <deque>
#include <string>

#include "client_list.h"
#include "gateway_event.h"
#include "open_requests.h"
#include "request_parser.h"
#include "state_machine.h"

class Gateway;
class TcpSocket;

enum SessionState_t {
  SESSION_OPEN,       // requests are read and run
  SESSION_CLOSING,    // no more is read; what was asked is answered and sent
  SESSION_LINGERING,  // all is sent; what the client still sends is thrown away until it closes
  SESSION_DEAD,       // removed at the end of the turn
};

// One client's conversation, from accept to close: reads requests, has them run, and sends the
// replies in the order of the requests, from wherever they come.
//
// Replies belong to slots. A slot stands for consecutive commands whose replies come from one
// place; those to the first slot go out at once, those to a later one are held until its turn.
// Replies of the gateway's own go out at once when no slot is open, else into a slot of their own.
//
// Belongs to the machine pool; the connection pool owns the socket.
class Session : public StateMachine {
 public:
  Session(Gateway& stGateway, TcpSocket* pSocket, uint32_t iId);
  ~Session() override;  // closes the connection

  static void RegisterStates();

  // Where the reply of a command goes that the gateway answers itself.
  std::string& LocalReply();
  // Counts a command into the slot that iWorker answers next, if it may still be added to.
  bool JoinSlot(int iWorker, uint32_t& iSlot);
  // The slot for a command that somebody else answers; a negative worker is never joined.
  uint32_t OpenSlot(int iWorker);

  // After a command was run: its latency is measured until its reply is sent.
  void NoteRequest(const char* pCommand);

  // Stops reading, and closes the connection when all is answered and sent.
  void StartClosing();

  // At the end of a turn: sends what has gathered, forgets the requests that were run, and asks to
  // be woken for what is needed next.
  void FinishTurn();

  ClientRecord_t& Record() { return m_stRecord; }
  ClientState_t State() const;
  unsigned long long LogNumber() const { return m_stRecord.iNumber; }  // for %llu

  bool Dead() const { return m_iState == SESSION_DEAD; }
  bool Paused() const { return m_bPaused; }
  bool Busy() const;  // something is still to be answered or sent

  // Nobody reads the answers any more.
  void HangUp() { m_iState = SESSION_DEAD; }

  // True once until FinishTurn().
  bool Touch();

  // A client that takes no byte for too long, or does not close, is given up.
  int Timeout(bool bMachine) override;
  int StateMachineType() override { return MACHINE_SESSION; }
  const char* MachineName() override { return "session"; }
  time_t GetMachineTimeout() const override { return 0; }  // lives as long as its connection

 private:
  struct Slot_t {
    int iWorker;
    uint32_t iCommands;  // not answered yet
    bool bDone;
    bool bTorn;       // what came last ended inside a reply
    size_t iReplies;  // that end in strHeld, to requests that were noted
    std::string strHeld;
  };

  static int OnOpenEvent(StateMachine* pMachine, InternalHead_t* pHead, void* pMessage);
  static int OnClosingEvent(StateMachine* pMachine, InternalHead_t* pHead, void* pMessage);
  static int OnLingeringEvent(StateMachine* pMachine, InternalHead_t* pHead, void* pMessage);
  static int OnDeadEvent(StateMachine* pMachine, InternalHead_t* pHead, void* pMessage);

  int ReceiveSome(size_t iEnough);
  void Receive(size_t iEnough);
  void RunRequests();
  bool MayRunMore() const;
  size_t HeldSize() const;
  void OnAnswer(const GatewayEvent_t& stEvent);
  void GuessReplySize(size_t iBytes, uint32_t iReplies);
  void OnLost(Slot_t& stSlot, std::string& strOut);
  void FinishSlot(Slot_t& stSlot, std::string& strOut);
  void ReleaseSlots();
  void Release(Slot_t& stSlot);
  void MeasureSent();
  void Abort(const char* pReason);
  void SendOutput();
  void AdvanceClosing();
  bool HasNothingToLose() const;
  void WatchProgress(bool bProgress);
  void StartStateTimeout(unsigned int iSeconds);
  void UpdateInterest();

  Gateway& m_stGateway;
  TcpSocket* m_pSocket;
  RequestParser m_stParser;
  ClientRecord_t m_stRecord;
  size_t m_iConsumed = 0;  // received bytes whose requests were run this turn
  bool m_bPaused = false;  // requests wait in the receive buffer for replies, room or a worker
  bool m_bPeerClosed = false;
  bool m_bStopping = false;  // the server ends: no more is received
  bool m_bTouched = false;
  size_t m_iReplySize;          // guessed, of one that is still to come
  size_t m_iTornBytes = 0;      // of a reply that has not come whole
  uint32_t m_iInterest;         // epoll events asked for
  bool m_bMayHaveMore = false;  // than was received, and epoll has told of it
  size_t m_iUnanswered = 0;
  size_t m_iHeld = 0;  // HeldSize() at the end of the latest turn
  uint32_t m_iFirstSlot = 0;
  std::deque<Slot_t> m_dqSlots;
  std::string m_strOut;    // this turn's output
  size_t m_iReplies = 0;   // that end in it
  int64_t m_iArrived = 0;  // when what was received last was
  OpenRequests m_stOpenRequests;
};

#endif
