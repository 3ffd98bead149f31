#ifndef KV_SERVER_PROCESS_SIGNALS_H
#define KV_SERVER_PROCESS_SIGNALS_H

#include <sys/epoll.h>

#include <initializer_list>

// Signals of one process: SIGINT and SIGTERM clear g_bRunFlag. They stay blocked except inside the
// waits below, so none is lost between a look at the flag and the sleep.

// To be called first in each process; SIGCHLD is blocked too, and nothing else is changed.
void InstallSignals();

// Undoes that in a child that runs other programs.
void RestoreSignals();

// epoll_wait(); a signal ends it with 0 events, and is seen after some turns also when there are
// always events.
int WaitForEvents(int iEpoll, epoll_event* pEvents, int iMaxEvents, int iMilliseconds);

// Waits until one of the descriptors, four at most, is readable, a signal comes or the time is
// over. -1 is none.
void WaitReadable(std::initializer_list<int> stFDs, int iMilliseconds);

// Waits until a signal comes, that of a child's end too, or the time is over.
void PauseMilliseconds(int iMilliseconds);

#endif
