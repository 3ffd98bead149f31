#ifndef KV_SERVER_QUEUE_SET_H
#define KV_SERVER_QUEUE_SET_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

// Where one queue is found: the FIFO's path and the segment's key.
struct QueueName_t {
  std::string strFifo;
  key_t iKey;
};

// The two queues of one worker, named as the worker sees them.
struct QueueNames_t {
  QueueName_t stIn;   // requests
  QueueName_t stOut;  // answers
  uint64_t iMark;     // starts each batch, drawn at random for each server
};

// The queues of all workers, made and removed by the master.
//
// Their keys are drawn at random among those that no segment has, not derived from the FIFOs: a
// derived key may be that of somebody else's segment. They stand in the file "queues" of the run
// directory, so that a master can remove what a killed one has left.
class QueueSet {
 public:
  explicit QueueSet(std::string strDirectory) : m_strDirectory(std::move(strDirectory)) {}

  // Removes what an earlier master left and makes empty queues. False with errno when one can not
  // be made.
  bool Create(unsigned int iWorkers, unsigned int iBytes);

  // Removes segments, FIFOs and the file of keys.
  void Remove();

  const std::vector<QueueNames_t>& Names() const { return m_vecNames; }

 private:
  std::string KeyFile() const { return m_strDirectory + "/queues"; }
  void RemoveListed() const;
  bool List() const;

  std::string m_strDirectory;
  std::vector<QueueNames_t> m_vecNames;
};

#endif
