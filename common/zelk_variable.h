#ifndef ZELK_COMMON_ZELK_VARIABLE_H
#define ZELK_COMMON_ZELK_VARIABLE_H

#include <sys/time.h>

#include <cstdint>

class Config;
class Log;

// The process-wide globals: set by the host at start, read by its business code (state handlers,
// long actions). The library never touches them, with one exception: the handler of SIGINT and
// SIGTERM clears g_bRunFlag. Nothing here is locked or owned.

// One message that business code queues for a state machine.
struct request_object_t {
  uint32_t iStateMachineID;  // the machine's id, see StateMachine::GetId
  void* pMessagePtr;
  void* pStateMachinePtr;
  void* pInternalHead;  // the message's InternalHead_t
};

// Hooks through which business code reaches the host. The meaning of the number, the pointer and
// the result is the host's own.
typedef int (*SendInternalRequest_t)(uint32_t, void*);
typedef int (*SendInternalResponse_t)(void*, uint32_t);
typedef int (*PushMessageQueue_t)(const request_object_t&);

extern Log* g_pLog;          // the main log
extern Log* g_pStatLog;      // the statistics log
extern timeval* g_pNow;      // the current time as the host keeps it
extern int* g_pWorkerIndex;  // index of this worker process
extern Config* g_pConfig;    // the loaded configuration

// The hooks, null until the host sets them.
extern SendInternalRequest_t ptrSendInternalRequest;
extern SendInternalResponse_t ptrSendInternalResponse;
extern PushMessageQueue_t ptrPushMessageQueue;

// The host's main loop runs while it is true.
extern bool g_bRunFlag;

#endif
