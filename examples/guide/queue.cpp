// A request and its answer: two rings between two processes, each with one writer and one reader.
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "message_queue.h"

std::string Receive(MessageQueue& stQueue) {
  BufferVec_t stMessage;
  while (stQueue.Pop(&stMessage, 1) == 0) {  // first the ring, then sleep
    pollfd stPoll{stQueue.FifoFD(), POLLIN, 0};
    poll(&stPoll, 1, -1);
    stQueue.ClearFifo();
  }
  const std::unique_ptr<char[]> pData(stMessage.pData);
  return std::string(pData.get(), stMessage.iSize);
}

bool Send(MessageQueue& stQueue, std::string strText) {
  const BufferVec_t stMessage{strText.data(), static_cast<uint32_t>(strText.size())};
  return stQueue.Push(&stMessage, 1) == 1;  // false: no room now, keep the message
}

int main(int, char** argv) {  // a directory for the two FIFOs
  const std::string strRequests = std::string(argv[1]) + "/requests";
  const std::string strAnswers = std::string(argv[1]) + "/answers";
  MessageQueue stRequests, stAnswers;
  if (stRequests.Attach(strRequests.c_str(), 1, 4096) != 0) return 1;
  if (stAnswers.Attach(strAnswers.c_str(), 1, 4096) != 0) return 1;
  if (fork() == 0) return Send(stAnswers, "hello, " + Receive(stRequests)) ? 0 : 1;  // the worker
  Send(stRequests, "gateway");
  printf("%s\n", Receive(stAnswers).c_str());
  wait(nullptr);
  stRequests.Delete();  // a server keeps them for its next start
  return stAnswers.Delete() + unlink(strRequests.c_str()) + unlink(strAnswers.c_str());
}
