#include "process_signals.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "test_support.h"
#include "zelk_variable.h"

namespace {

const int STOPPED = 7;
const int MANY_TURNS = 1000;

// Runs in a process of its own, since dispositions and masks are the process's.
int ExitOf(const std::function<int()>& fnRun) {
  ForkedPeer stPeer([&fnRun] {
    InstallSignals();
    return fnRun();
  });
  return stPeer.Wait();
}

// A busy loop: turns until the flag falls, or too many of them.
int TurnsUntilStopped(const std::function<void()>& fnTurn) {
  for (int i = 0; i < MANY_TURNS && g_bRunFlag; ++i) {
    fnTurn();
  }
  return g_bRunFlag ? 0 : STOPPED;
}

TEST(KvProcessSignalsTest, StopSignalsWaitForAWait) {
  EXPECT_EQ(STOPPED, ExitOf([] {
              raise(SIGTERM);
              raise(SIGINT);
              const bool bBefore = g_bRunFlag;
              PauseMilliseconds(10000);
              return bBefore && !g_bRunFlag ? STOPPED : 0;
            }));
}

TEST(KvProcessSignalsTest, EveryWaitEndsWithASignal) {
  EXPECT_EQ(STOPPED, ExitOf([] {
              int aiPipe[2];
              const int iEpoll = epoll_create1(0);
              epoll_event stEvent{};
              const int iPipe = pipe(aiPipe);
              raise(SIGTERM);
              WaitReadable({aiPipe[0], -1}, 60000);
              raise(SIGINT);
              const int iEvents = WaitForEvents(iEpoll, &stEvent, 1, 60000);
              raise(SIGCHLD);
              PauseMilliseconds(60000);
              return iPipe == 0 && iEvents == 0 ? STOPPED : 0;
            }));
}

TEST(KvProcessSignalsTest, ALoopThatAlwaysHasEventsIsStoppedToo) {
  EXPECT_EQ(STOPPED, ExitOf([] {
              int aiPipe[2];
              if (pipe(aiPipe) != 0 || write(aiPipe[1], "x", 1) != 1) {
                return 1;
              }
              const int iEpoll = epoll_create1(0);
              epoll_event stEvent{};
              stEvent.events = EPOLLIN;
              epoll_ctl(iEpoll, EPOLL_CTL_ADD, aiPipe[0], &stEvent);
              raise(SIGTERM);
              return TurnsUntilStopped([&] { WaitForEvents(iEpoll, &stEvent, 1, 0); });
            }));
}

TEST(KvProcessSignalsTest, ALoopThatNeverSleepsIsStoppedToo) {
  EXPECT_EQ(STOPPED, ExitOf([] {
              const int iEpoll = epoll_create1(0);
              epoll_event stEvent{};
              raise(SIGTERM);
              return TurnsUntilStopped([&] { WaitForEvents(iEpoll, &stEvent, 1, 0); });
            }));
}

TEST(KvProcessSignalsTest, ASignalThatIsIgnoredInAChildStaysSo) {
  EXPECT_EQ(STOPPED, ExitOf([] {
              signal(SIGINT, SIG_IGN);
              raise(SIGINT);
              PauseMilliseconds(1);
              return g_bRunFlag ? STOPPED : 0;
            }));
}

}  // namespace
