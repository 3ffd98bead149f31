#ifndef KV_SERVER_SAVE_MACHINE_H
#define KV_SERVER_SAVE_MACHINE_H

#include <string>

#include "long_action_util.h"
#include "state_machine.h"

class Saver;

enum SaveState_t {
  SAVE_WRITING,  // a child writes the dump
  SAVE_MIRROR,   // a child brings the mirror up to it
  SAVE_HOOK,     // a child runs the operator's command
};

// One save, waiting for its children, of which only the first decides whether it is a good one:
// resumed through DoNext() with the response of the one that has ended. A child that takes longer
// than save.timeout is killed.
class SaveMachine : public StateMachine {
 public:
  SaveMachine(Saver& stSaver, uint32_t iId);
  static void RegisterStates();

  // Starts the child that writes. False when that is not possible; Error() says why.
  bool Begin();
  const std::string& Error() const { return m_strError; }
  // The same for the mirror only, of a dump that is there.
  bool BeginMirror();

  int Timeout(bool bMachine) override;
  int StateMachineType() override;
  const char* MachineName() override { return "save"; }
  time_t GetMachineTimeout() const override { return 0; }  // the state's is enough

 private:
  static int OnWritten(StateMachine* pMachine, InternalHead_t* pHead, void* pMessage);
  static int OnMirrorEnded(StateMachine* pMachine, InternalHead_t* pHead, void* pMessage);
  static int OnHookEnded(StateMachine* pMachine, InternalHead_t* pHead, void* pMessage);

  int OnDump(const long_action_response_t& stResponse);
  int OnMirror(const long_action_response_t& stResponse);
  int StartHook();
  void LogHook(const long_action_response_t& stResponse) const;
  void Enter(SaveState_t eState);

  Saver& m_stSaver;
  const uint64_t m_iChanges;   // of the store when it was copied
  uint64_t m_iGeneration = 0;  // of the journal, for changes since then
  std::string m_strError;
  bool m_bSaved = false;  // this save has written the dump
};

#endif
