#include "process_signals.h"

#include <poll.h>
#include <signal.h>
#include <time.h>

#include "zelk_variable.h"

namespace {

const nfds_t MAX_WAIT_FDS = 4;
const unsigned int SIGNAL_TURNS = 64;  // how often a busy loop looks at its signals

sigset_t g_stWaitMask;  // while waiting nothing of ours is blocked

void OnStopSignal(int /*iSignal*/) { g_bRunFlag = false; }
void OnChildSignal(int /*iSignal*/) {}  // only ends a wait

void Handle(int iSignal, void (*pHandler)(int)) {
  struct sigaction stAction {};
  stAction.sa_handler = pHandler;
  sigaction(iSignal, &stAction, nullptr);
}

// epoll_pwait() that finds events, or may not wait, returns before it looks at signals: a loop that
// is never idle would not hear of its end.
void LetSignalsIn() {
  sigset_t stBlocked;
  sigprocmask(SIG_SETMASK, &g_stWaitMask, &stBlocked);
  sigprocmask(SIG_SETMASK, &stBlocked, nullptr);
}

timespec ToTimespec(int iMilliseconds) {
  return {iMilliseconds / 1000, iMilliseconds % 1000 * 1000000L};
}

}  // namespace

void InstallSignals() {
  sigset_t stBlocked;
  sigemptyset(&stBlocked);
  sigaddset(&stBlocked, SIGINT);
  sigaddset(&stBlocked, SIGTERM);
  sigaddset(&stBlocked, SIGCHLD);
  sigprocmask(SIG_BLOCK, &stBlocked, &g_stWaitMask);
  sigdelset(&g_stWaitMask, SIGINT);
  sigdelset(&g_stWaitMask, SIGTERM);
  sigdelset(&g_stWaitMask, SIGCHLD);
  Handle(SIGINT, OnStopSignal);
  Handle(SIGTERM, OnStopSignal);
  Handle(SIGCHLD, OnChildSignal);
}

void RestoreSignals() {
  for (const int iSignal : {SIGINT, SIGTERM, SIGCHLD}) {
    Handle(iSignal, SIG_DFL);
  }
  sigprocmask(SIG_SETMASK, &g_stWaitMask, nullptr);
}

int WaitForEvents(int iEpoll, epoll_event* pEvents, int iMaxEvents, int iMilliseconds) {
  static unsigned int s_iTurns = 0;
  if (++s_iTurns % SIGNAL_TURNS == 0) {
    LetSignalsIn();
  }
  const int iCount = epoll_pwait(iEpoll, pEvents, iMaxEvents, iMilliseconds, &g_stWaitMask);
  return iCount < 0 ? 0 : iCount;
}

void WaitReadable(std::initializer_list<int> stFDs, int iMilliseconds) {
  pollfd astPoll[MAX_WAIT_FDS];
  nfds_t iCount = 0;
  for (const int iFD : stFDs) {
    if (iFD != -1 && iCount < MAX_WAIT_FDS) {
      astPoll[iCount++] = {iFD, POLLIN, 0};
    }
  }
  const timespec stTime = ToTimespec(iMilliseconds);
  ppoll(astPoll, iCount, &stTime, &g_stWaitMask);
}

void PauseMilliseconds(int iMilliseconds) {
  const timespec stTime = ToTimespec(iMilliseconds);
  ppoll(nullptr, 0, &stTime, &g_stWaitMask);
}
