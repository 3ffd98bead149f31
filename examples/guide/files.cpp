// A write to a file and its sync, without waiting inside the calls.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "aio_util.h"

void PrintWhatIsDone() {
  pollfd stPoll{AIOUtil::Instance().GetEventFD(), POLLIN, 0};  // in a host: its epoll set
  poll(&stPoll, 1, 10000);
  std::vector<aio_param_t> vecDone;
  AIOUtil::Instance().SomethingDone(vecDone);
  for (const aio_param_t& stDone : vecDone) {
    printf("request %lu: %ld\n", stDone.iReqID, stDone.iRetcode);
  }
}

int main(int, char** argv) {  // the file's name
  const int iFD = open(argv[1], O_CREAT | O_WRONLY, 0600);
  std::string strText = "kept\n";  // stays until the request is reported
  if (AIOUtil::Instance().SubmitWriteRequest(iFD, strText.data(), 0, strText.size(), 1) != 0) {
    return 1;
  }
  PrintWhatIsDone();
  if (AIOUtil::Instance().SubmitSyncRequest(iFD, 2) != 0) return 1;  // after what it covers
  PrintWhatIsDone();
  return close(iFD);
}
