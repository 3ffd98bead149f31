#ifndef ZELK_TESTS_CALL_TRACER_H
#define ZELK_TESTS_CALL_TRACER_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// The memory that the test program and its tracer share.
struct call_trace_t {
  static constexpr size_t MAX_CALLS = 4096;
  static constexpr size_t MAX_RANGES = 16;

  // The order. Of the system calls numbered iCall, the iNumber'th of process iProcess gets iResult.
  bool bArmed;
  bool bFails;
  bool bExecuted;  // it is done all the same
  bool bShorter;   // it is done with iResult as its third argument, a count of bytes
  long iCall;
  int iProcess;
  int iNumber;
  long iResult;
  char szWhat[200];  // for the message about a hanging operation

  // What came.
  bool bReached;
  size_t iCalls;
  struct call_t {
    long iCall;
    int iProcess;
    uint64_t iThird;  // argument
  } aCalls[MAX_CALLS];

  // Calls out of these addresses are nobody's: the sanitizers', the test's own.
  size_t iRanges;
  struct range_t {
    uint64_t iBegin;
    uint64_t iEnd;
  } aRanges[MAX_RANGES];

  int iTracer;  // 0 not there yet, 1 traces, else the negative errno
};

// Starts the tracer of this process, once, and returns the shared memory. Throws when it can not.
call_trace_t& CallTrace();

// Has the tracer look at bArmed anew.
void TellCallTracer();

// Lets go of this process, which can then be traced by others.
void StopCallTracer();

#endif
