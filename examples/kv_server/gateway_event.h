#ifndef KV_SERVER_GATEWAY_EVENT_H
#define KV_SERVER_GATEWAY_EVENT_H

#include "worker_link.h"

// What the gateway's machines are told through DoNext().
struct GatewayEvent_t {
  enum Type_t {
    READABLE,  // to sessions: the socket has bytes
    RESUMED,   // to sessions: what a paused one waited for may be there
    STOPPING,  // to sessions: the server ends; finish what was received
    PIECE,     // a piece of an answer, for the slot or part iSlot
    LOST,      // there will be no (further) answer for iSlot
  } eType;
  uint32_t iSlot;
  const ReplyPiece_t* pPiece;
};

// Types of the machines, as numbers of the global state tables.
enum MachineType_t {
  MACHINE_SESSION = 1,   // a client's conversation, in the gateway
  MACHINE_GATHER,        // a command over several workers, in the gateway
  MACHINE_CONVERSATION,  // the conversation with one gateway process, in a worker
  MACHINE_SAVE,          // a save that waits for its children, in a worker
};

#endif
