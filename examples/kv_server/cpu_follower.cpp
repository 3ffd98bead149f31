#include "cpu_follower.h"

#include <pthread.h>

namespace {

const uint64_t NOWHERE = ~0ull;

CpuFollower* g_pFollower = nullptr;

// A child that saves keys for seconds would have to share the processor with those that serve.
void ReleaseChild() {
  if (g_pFollower != nullptr) {
    g_pFollower->Release();
  }
}

}  // namespace

CpuFollower::CpuFollower() : m_stAllowed(), m_iCpu(NOWHERE) {
  if (sched_getaffinity(0, sizeof(m_stAllowed), &m_stAllowed) != 0) {
    CPU_ZERO(&m_stAllowed);  // more processors than the set has: nothing is followed
  }
  static const bool s_bRegistered = pthread_atfork(nullptr, nullptr, ReleaseChild) == 0;
  if (s_bRegistered) {
    g_pFollower = this;
  } else {
    CPU_ZERO(&m_stAllowed);
  }
}

CpuFollower::~CpuFollower() {
  Release();
  g_pFollower = nullptr;
}

uint64_t CpuFollower::Here() { return static_cast<uint64_t>(sched_getcpu()); }

void CpuFollower::Follow(uint64_t iCpu) {
  if (iCpu == m_iCpu) {
    return;
  }
  m_iCpu = iCpu;
  if (iCpu >= CPU_SETSIZE || !CPU_ISSET(iCpu, &m_stAllowed)) {
    return;
  }
  cpu_set_t stHere;
  CPU_ZERO(&stHere);
  CPU_SET(iCpu, &stHere);
  sched_setaffinity(0, sizeof(stHere), &stHere);
}

void CpuFollower::Release() {
  if (m_iCpu != NOWHERE && CPU_COUNT(&m_stAllowed) > 0) {
    sched_setaffinity(0, sizeof(m_stAllowed), &m_stAllowed);
  }
  m_iCpu = NOWHERE;
}
