#ifndef ZELK_TESTS_SWEEP_H
#define ZELK_TESTS_SWEEP_H

#include <functional>

// An operation on shared memory, and what the death of its process is tried with.
struct Sweep_t {
  std::function<void()> fnArrange;              // lays the shared memory down anew
  std::function<void()> fnPrepare;              // in the child that will die: attaches
  std::function<void()> fnOperation;            // in the child, one instruction at a time
  std::function<void(bool bComplete)> fnCheck;  // looks at what the child has left
};

// Lives through the operation again and again, dying after 0, 1, 2 ... of its instructions, until
// it is complete once; stops at the first state that fnCheck finds fault with.
//
// All instructions are tried when ZELK_EVERY_INSTRUCTION is in the environment, else a part of
// them. The program ends with a line that tells how many states it has seen.
void SweepInstructions(const Sweep_t& stSweep);

#endif
