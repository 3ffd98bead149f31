#ifndef KV_SERVER_CONVERSATION_H
#define KV_SERVER_CONVERSATION_H

#include "command_runner.h"
#include "gateway_event.h"
#include "memory_tracking.h"
#include "reply_outbox.h"
#include "state_machine.h"

enum ConversationState_t {
  CONVERSATION_SERVING,
};

// A batch as it came out of the queue.
struct BatchMessage_t {
  RequestHead_t stHead;
  std::string_view strRuns;  // what follows the head
  Arguments_t vecValues;     // the large values' records
};

// A worker's conversation with one gateway process: runs its batches and gathers the answers.
class Conversation : public StateMachine {
 public:
  // Both are the worker's.
  static void Configure(CommandRunner* pRunner, ReplyOutbox* pOutbox);
  static void RegisterStates();
  static StateMachine* Create() { return KV_NEW Conversation; }

  Conversation() { m_iState = CONVERSATION_SERVING; }

  int Timeout(bool /*bMachine*/) override { return 0; }
  int StateMachineType() override { return MACHINE_CONVERSATION; }
  const char* MachineName() override { return "conversation"; }
  time_t GetMachineTimeout() const override { return 0; }  // ends with the gateway process

 private:
  static int OnBatch(StateMachine* pMachine, InternalHead_t* pHead, void* pMessage);
  bool RunCommand(RecordReader& stReader, const Arguments_t& vecValues, size_t& iNextValue);

  Arguments_t m_vecArguments;
};

#endif
