// Two processes and a queue: the parent asks, the child wakes up and prints what it was sent.
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "message_queue.h"

int main(int argc, char** argv) {
  const std::string strFifo = std::string(argc > 1 ? argv[1] : "/tmp/zelk_hello") + "/queue";
  MessageQueue stWriter;
  if (stWriter.Attach(strFifo.c_str(), 1, 1 << 16) != 0) {
    perror("attach");
    return 1;
  }
  if (fork() == 0) {
    MessageQueue stReader;
    stReader.Attach(strFifo.c_str(), 1, 1 << 16);
    pollfd stPoll{stReader.FifoFD(), POLLIN, 0};
    BufferVec_t stMessage;
    while (stReader.Pop(&stMessage, 1) == 0) {
      poll(&stPoll, 1, -1);  // sleeps until a Push wakes it
      stReader.ClearFifo();
    }
    const std::unique_ptr<char[]> pText(stMessage.pData);
    printf("worker got: %.*s\n", static_cast<int>(stMessage.iSize), pText.get());
    return 0;
  }
  char szText[] = "hello, worker";
  const BufferVec_t stMessage{szText, static_cast<uint32_t>(strlen(szText))};
  stWriter.Push(&stMessage, 1);
  wait(nullptr);
  stWriter.Delete();
  return unlink(strFifo.c_str());
}
