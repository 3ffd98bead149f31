#ifndef ZELK_TESTS_SINGLE_STEP_H
#define ZELK_TESTS_SINGLE_STEP_H

#include <functional>

// Forks a child that calls fnPrepare and then fnOperation, the latter one machine instruction at a
// time, and ends the child with SIGKILL after so many instructions. What the child has done to
// shared memory by then stays. Returns false when the operation was complete before, so that
//
//   for (unsigned int i = 0; KillAfter(i, fnPrepare, fnOperation); ++i)
//
// dies once at every instruction. Throws when the child ends by itself.
bool KillAfter(unsigned int iInstructions, const std::function<void()>& fnPrepare,
               const std::function<void()>& fnOperation);

#endif
