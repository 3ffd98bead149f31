#ifndef KV_SERVER_CPU_FOLLOWER_H
#define KV_SERVER_CPU_FOLLOWER_H

#include <sched.h>

#include <cstdint>

// Keeps a process on the processor where its partner runs. Two processes that send each other small
// messages work in turns: on one processor the turn passes by a switch, on two it takes the waking
// of a sleeping processor, which costs more than the work and is what the kernel mostly chooses.
//
// The partner may run where it likes. Children may run anywhere again.
class CpuFollower {
 public:
  // The process may run where it may run now.
  CpuFollower();
  ~CpuFollower();
  CpuFollower(const CpuFollower&) = delete;
  CpuFollower& operator=(const CpuFollower&) = delete;

  // The processor this process is on, for the partner.
  static uint64_t Here();

  // Moves to that processor, unless it is the latest already or one that is not allowed.
  void Follow(uint64_t iCpu);

  // Runs anywhere again.
  void Release();

 private:
  cpu_set_t m_stAllowed;
  uint64_t m_iCpu;
};

#endif
