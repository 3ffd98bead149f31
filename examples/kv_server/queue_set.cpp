#include "queue_set.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <random>

#include "filesystem_util.h"
#include "message_queue.h"

namespace {

key_t UnusedKey() {
  std::random_device stRandom;
  for (;;) {
    const auto iKey = static_cast<key_t>(stRandom() & 0x7fffffff);
    if (iKey != IPC_PRIVATE && shmget(iKey, 0, 0) == -1 && errno == ENOENT) {
      return iKey;
    }
  }
}

// Makes the segment and the FIFO, and leaves them: the children attach, each what it uses.
bool CreateQueue(const QueueName_t& stName, unsigned int iBytes) {
  MessageQueue stQueue;
  return stQueue.AttachWithKey(stName.strFifo.c_str(), stName.iKey, iBytes) == 0;
}

}  // namespace

bool QueueSet::Create(unsigned int iWorkers, unsigned int iBytes) {
  RemoveListed();
  std::random_device stRandom;
  const uint64_t iMark = std::uniform_int_distribution<uint64_t>()(stRandom);
  for (unsigned int i = 0; i < iWorkers; ++i) {
    const std::string strFifo = m_strDirectory + "/worker." + std::to_string(i);
    m_vecNames.push_back({{strFifo + ".in", UnusedKey()}, {strFifo + ".out", UnusedKey()}, iMark});
  }
  if (!List()) {  // before anything is made, so that nothing made is ever unlisted
    return false;
  }
  for (const QueueNames_t& stNames : m_vecNames) {
    if (!CreateQueue(stNames.stIn, iBytes) || !CreateQueue(stNames.stOut, iBytes)) {
      const int iErrno = errno;
      Remove();
      errno = iErrno;
      return false;
    }
  }
  return true;
}

void QueueSet::Remove() {
  RemoveListed();
  m_vecNames.clear();
}

bool QueueSet::List() const {
  std::ofstream stFile(KeyFile());
  for (const QueueNames_t& stNames : m_vecNames) {
    stFile << stNames.stIn.iKey << ' ' << stNames.stIn.strFifo << '\n'
           << stNames.stOut.iKey << ' ' << stNames.stOut.strFifo << '\n';
  }
  stFile.close();
  return stFile.good();
}

void QueueSet::RemoveListed() const {
  std::ifstream stFile(KeyFile());
  key_t iKey = 0;
  std::string strFifo;
  while (stFile >> iKey && stFile.get() == ' ' && std::getline(stFile, strFifo)) {
    const int iShmID = shmget(iKey, 0, 0);
    if (iShmID != -1) {
      shmctl(iShmID, IPC_RMID, nullptr);
    }
    unlink(strFifo.c_str());
  }
  unlink(KeyFile().c_str());
}
