#ifndef ZELK_COMMON_STATE_MACHINE_H
#define ZELK_COMMON_STATE_MACHINE_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <string>

#include "object.h"

class StateMachine;

// Header of an internal message: the connection that the message belongs to. Copied as it is into
// queues and hooks, so the layout is fixed.
struct InternalHead_t {
  int32_t iFD;         // descriptor of the connection, -1 when there is none
  uint32_t iPeerAddr;  // IPv4 address in network byte order
  int32_t iPeerPort;
  uint32_t iSockAddr;  // the local end, network byte order; all ones when unknown
  int32_t iSockPort;   // 0 when unknown
};
static_assert(offsetof(InternalHead_t, iPeerAddr) == 4 && offsetof(InternalHead_t, iPeerPort) == 8);
static_assert(offsetof(InternalHead_t, iSockAddr) == 12 &&
              offsetof(InternalHead_t, iSockPort) == 16 && sizeof(InternalHead_t) == 20);

// Names a connection for DoNext2(); the library only passes it on.
__extension__ typedef unsigned __int128 conn_key_t;

// Handlers of one state, for DoNext() and DoNext2(). The result goes back to their caller.
typedef int (*ProcessFunction_t)(StateMachine*, InternalHead_t*, void*);
typedef int (*ProcessFunction2_t)(StateMachine*, conn_key_t, void*);

// A machine's way out; header and data are the caller's and good for the call only.
typedef int (*SendFunction_t)(InternalHead_t*, const char*, unsigned int);

// One conversation: a client's request, a connection, an internal job.
//
// A machine holds its id, its state, its deadlines and its two ways out. What it does stands in
// handler functions, registered per machine type and state in tables that all machines of the
// process share. A message enters through DoNext() or DoNext2(), which call the handler of the
// current state; the handler assigns m_iState and answers with SendMessageToInProcess() or
// SendMessageToOutProcess().
//
// The host makes machines (MachineFactory), keeps them in the MachinePool and deletes them; a
// machine that is destroyed does not leave the pool by itself.
// Order of calls: register all handlers and names at start, then SetId(), MachinePool::AddMachine()
// and the first message. Nothing is locked: register and dispatch from one thread.
class StateMachine : public Object {
 public:
  StateMachine();
  ~StateMachine() override;

  // Shows id and state and, all on one line, the handlers of DoNext() for the machine's type. A
  // type without such handlers ends the process.
  void Dump(int iFD) override;

  // Calls PreTranslate(), then the handler that was registered for the machine's type and the
  // state at entry, and returns the handler's result. The message is the caller's and only passed
  // on. A type or a state without a handler ends the process before anything is called: the type
  // with an assertion, the state silently.
  virtual int DoNext(InternalHead_t* pHead, void* pMessage);

  // The same over the second table of handlers, without PreTranslate().
  virtual int DoNext2(conn_key_t iKey, void* pMessage);

  // A deadline passed: the machine's (true) or that of its state (false). Called by the pool, see
  // MachinePool::ProcessTimeout(). Non-zero asks the pool to remove and delete the machine, which
  // therefore never deletes itself here.
  virtual int Timeout(bool bMachine) = 0;

  // The key of this kind of machine in the shared tables, and its name.
  virtual int StateMachineType() = 0;
  virtual const char* MachineName() = 0;

  // Sees every message of DoNext() before its handler; does nothing unless overridden.
  virtual void PreTranslate(InternalHead_t* pHead, void* pMessage);

  // Seconds that the machine may live. 0 does not mean for ever but 5 seconds.
  virtual void SetMachineTimeout(unsigned int iSeconds);
  // The absolute deadline of the machine: 10 seconds after its construction unless set otherwise.
  // An override may return 0: then the pool queues no check of it.
  virtual time_t GetMachineTimeout() const;

  // Seconds that the state may last, counted from SetStateBeginTime(); 0 for no limit. The pool
  // learns of a new deadline by MachinePool::ConfigStateTimeout().
  virtual void SetStateTimeout(unsigned int iSeconds);
  // The absolute deadline of the current state, 0 when there is none.
  virtual time_t GetStateTimeout() const;

  void SetStateBeginTime(time_t iTime) { m_iStateBeginTime = iTime; }
  void ClearStateTimeout() { m_iStateTimeout = 0; }

  // Register a handler or a name (copied) for one state of a machine type. The first registration
  // wins: false when the pair has one, which stays.
  static bool SetGlobalStateList(int iTypeId, int iStateId, ProcessFunction_t pFunction);
  static bool SetGlobalStateList2(int iTypeId, int iStateId, ProcessFunction2_t pFunction);
  static bool SetGlobalStateName(int iTypeId, int iStateId, const char* pStateName);

  // Writes the table of state names: a header, one line per state, a rule after each type.
  static void DumpGlobalStateMap(int iFD);

  // The registered name of a state of this machine's type, empty when there is none.
  const std::string& StateName(int iState);

  void SetId(unsigned int iID) { m_iID = iID; }
  unsigned int GetId() const { return m_iID; }
  int GetState() const { return m_iState; }
  void SetParentMachineID(unsigned int iID) { m_iParentMachineID = iID; }
  unsigned int GetParentMachineID() const { return m_iParentMachineID; }
  void SetMessageFrom(const char* pFrom) { m_strMsgFrom = pFrom; }
  void RoutineMachine(bool bRoutine) { m_bRoutineMachine = bRoutine; }
  bool RoutineMachine() const { return m_bRoutineMachine; }

  // The dotted form of m_sInternalHead.iPeerAddr, made at the first call and kept: any text longer
  // than 6 characters counts as made.
  const std::string& PeerAddress();

  // Slots where business code parks pointers; what they point to stays its own. Setting a used
  // slot replaces it, an unused one reads as null.
  void SetReserved(int iSlot, void* pData) { m_mapReserved[iSlot] = pData; }
  void* GetReserved(int iSlot);
  void DelReserved(int iSlot) { m_mapReserved.erase(iSlot); }

  // Install the ways out: to machines of this process, and to peers and other processes.
  void OutMQOfInProc(SendFunction_t pSend) { m_pOutFunctionOfInProc = pSend; }
  void OutMQOfOutProc(SendFunction_t pSend) { m_pOutFunctionOfOutProc = pSend; }

  // Hand bytes to a way out: false when it is not installed, otherwise true, also when the hook
  // returned an error.
  bool SendMessageToInProcess(InternalHead_t* pHead, const char* pData, unsigned int iSize);
  bool SendMessageToOutProcess(InternalHead_t* pHead, const char* pData, unsigned int iSize);
  // The same to a dotted IPv4 address and a port, which goes into the header as given, without a
  // connection. An invalid address is not detected: it becomes all ones.
  bool SendMessageToOutProcess(const char* pAddr, unsigned int iPort, const char* pData,
                               unsigned int iSize);

 protected:
  unsigned int m_iID = ~0u;
  int m_iState = -1;  // assigned by handlers, never by the library
  std::string m_strPeerAddr;
  bool m_bRoutineMachine = false;  // kept for the host, as are token, sender and record flag
  SendFunction_t m_pOutFunctionOfInProc = nullptr;
  SendFunction_t m_pOutFunctionOfOutProc = nullptr;
  InternalHead_t m_sInternalHead;  // of the first message; not initialised: copy it in before use
  std::string m_strAccessToken;
  std::string m_strMsgFrom;
  bool m_bRecordMessage = true;

  // By machine type, then by state. They only grow: DoNext() and DoNext2() may not notice
  // that a single entry was replaced or erased here.
  static std::map<int, std::map<int, ProcessFunction_t>> m_mapGlobalStateList;
  static std::map<int, std::map<int, ProcessFunction2_t>> m_mapGlobalStateList2;
  static std::map<int, std::map<int, std::string>> m_mapGlobalStateName;

 private:
  friend class MachinePool;

  time_t m_iMachineBeginTime;
  time_t m_iStateBeginTime;
  unsigned int m_iMachineTimeout = 10;  // seconds
  unsigned int m_iStateTimeout = 0;     // seconds

  // The pool's note of the last check that it queued for a deadline of this machine.
  struct QueueNote_t {
    uint64_t iList = 0;  // where it stands, 0 before the first
    uint64_t iTurn = 0;  // when it was queued
    unsigned int iID = 0;
  };
  QueueNote_t m_stStateNote;
  QueueNote_t m_stMachineNote;

  std::map<int, void*> m_mapReserved;
  unsigned int m_iParentMachineID = ~0u;
};

#endif
