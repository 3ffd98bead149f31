#ifndef KV_SERVER_DEBUG_COMMANDS_H
#define KV_SERVER_DEBUG_COMMANDS_H

#include <string>

#include "batch.h"

// DEBUG SLEEP seconds: in the gateway the look at the arguments, in a worker the sleep.
//
// It is a real stall: the worker that sleeps does nothing else, not even end when it is asked to,
// so that tests can see what a stalled worker does to everybody else.

// Whether the request, whose number of arguments was looked at, goes to a worker. If not, the reply
// is appended.
bool CheckDebug(const Arguments_t& vecArguments, bool bAllowed, std::string& strOut);

// vecArguments without the command's name: "sleep" and the seconds.
void RunDebug(const Arguments_t& vecArguments, std::string& strOut);

#endif
