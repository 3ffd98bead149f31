#ifndef ZELK_COMMON_MQ_POOL_H
#define ZELK_COMMON_MQ_POOL_H

#include <map>

#include "message_queue.h"
#include "object.h"

// The two queues of one worker.
struct MQPair {
  MessageQueue* pMQIn;
  MessageQueue* pMQOut;
};

// The process's message queues, by worker index and by the descriptor of their FIFO: an event loop
// that sees a descriptor become readable gets from it to the queue and to the worker behind it.
//
// One instance per process, until it exits; not locked. It owns no queue: whoever made one destroys
// it, or has it done by an "AndDelete" operation, for which it must come from new and stand in the
// registry only once. A queue stays there until removed: remove it before it is destroyed or
// detached.
class MQPool : public Object {
 public:
  static MQPool& Instance();

  MQPool(const MQPool&) = delete;
  MQPool& operator=(const MQPool&) = delete;

  // Registers the queues of a worker, both attached and neither null, under its index and under
  // their present FIFO descriptors; a descriptor that is known already now means the new queue.
  // Returns false when the index is taken: then nothing changes.
  bool AddMQ(int iIndex, MessageQueue* pMQIn, MessageQueue* pMQOut);

  // The worker's queue in (iDirection 0) or out (1); null for an unknown index or direction.
  MessageQueue* GetMQ(int iIndex, int iDirection);

  // The queue that was registered under this FIFO descriptor, or null.
  MessageQueue* GetMQByFD(int iFD);

  // The lowest index with a queue whose FIFO descriptor is iFD now, or -1, which is an index like
  // any other. Asks each queue in turn, not the descriptors noted by AddMQ.
  int GetWorkerIndexByFD(int iFD);

  // Forgets the worker and the present FIFO descriptors of its queues; an unknown index does
  // nothing. The second form also destroys the queues, which detaches them.
  void RemoveMQ(int iIndex);
  void RemoveAndDeleteMQ(int iIndex);

  // Forgets all workers. Deliberately keeps the descriptors: GetMQByFD goes on answering.
  void RemoveAll();

  // Destroys all queues of the registered workers and forgets workers and descriptors.
  void RemoveAndDeleteAll();

  // Writes nothing.
  void Dump(int iFD) override;

 protected:
  MQPool() = default;

 private:
  std::map<int, MQPair> m_mapMQs;
  std::map<int, MessageQueue*> m_mapFdIndx;
};

#endif
