// A command in a child, while the host's loop goes on: what it prints, and its exit code.
#include <sys/epoll.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "execute_shell.h"
#include "long_action_util.h"

using Response_t = std::unique_ptr<long_action_response_t>;

// One pass of the loop: asks for ends, reads; when all is read, takes one child that has ended.
Response_t Turn(int iEpollFD) {
  LongActionUtil::Instance().IsLongAction(0, 0);  // before the last read, or that may be lost
  epoll_event szEvents[16];
  const int iCount = epoll_wait(iEpollFD, szEvents, 16, 20);
  bool bRead = false;
  for (int i = 0; i < iCount; ++i) {
    if ((szEvents[i].events & EPOLLIN) == 0) continue;
    bRead = true;
    LongActionUtil::Instance().EventCallback(szEvents[i].data.fd);
  }
  return Response_t(bRead ? nullptr : LongActionUtil::Instance().PollChild());
}

int main() {
  const int iEpollFD = epoll_create1(EPOLL_CLOEXEC);
  LongActionUtil::Instance().SetEpollFD(iEpollFD);
  ExecuteShell stCommand;
  stCommand.Command("echo working; echo oh dear >&2; exit 3");
  if (LongActionUtil::Instance().Perform(&stCommand, 42, 1) != 0) return 1;
  Response_t pResponse;
  while (pResponse == nullptr) {
    pResponse = Turn(iEpollFD);
  }
  printf("machine %d: code %d\n", pResponse->iMachineID, pResponse->iRetcode);
  printf("out: %serr: %s", pResponse->strStdOut.c_str(), pResponse->strStdError.c_str());
  return close(iEpollFD);
}
