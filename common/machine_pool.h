#ifndef ZELK_COMMON_MACHINE_POOL_H
#define ZELK_COMMON_MACHINE_POOL_H

#include <cstdint>
#include <ctime>
#include <map>
#include <unordered_map>
#include <vector>

#include "object.h"
#include "state_machine.h"

// The live machines of a process by id, and the keeper of their deadlines; one per process.
//
// The host adds each machine it makes, looks machines up when messages arrive, and calls
// ProcessTimeout() on every pass of its loop. The pool deletes a machine in one case only: when a
// deadline makes it give up. Otherwise machines are the host's, also after RemoveMachine() and at
// the pool's end.
//
// What is queued for a deadline is no more than a wish to look at the machine then; the deadline
// that counts is the one that the machine reports when it is looked at. So a deadline may move
// later, a machine may go and its id may be used again, with nothing to be taken back here.
//
// Not locked: one thread.
class MachinePool : public Object {
 public:
  static MachinePool& Instance();

  MachinePool(const MachinePool&) = delete;
  MachinePool& operator=(const MachinePool&) = delete;

  // Stores the machine under its id and queues a check of its machine deadline. Under an id that
  // is in use the earlier machine stays, the new one is not stored and the check is queued all
  // the same.
  void AddMachine(StateMachine* pMachine);

  // Null for an unknown id.
  StateMachine* GetMachine(unsigned int iID);

  // Forgets the machine, which is the caller's from then on; an unknown id is ignored.
  void RemoveMachine(unsigned int iID);

  // Queue a check at the deadline that the machine reports now; none when that is 0. To be called
  // when a machine deadline was brought forward, and for each state that starts with a timeout,
  // after SetStateTimeout() and SetStateBeginTime(). Calling again for the same deadline is cheap
  // and leaves nothing behind.
  void ConfigMachineTimeout(StateMachine* pMachine);
  void ConfigStateTimeout(StateMachine* pMachine);

  // Asks every machine whose deadline is not later than iTime (seconds; 0 for the current time)
  // what to do, states first, each in the order of time and, for equal times, of queueing:
  // - Timeout(false), after a state deadline. 0 starts the state anew at iTime, so that the alarm
  //   repeats until the timeout is changed or cleared.
  // - Timeout(true), after a machine deadline. 0 lets the machine live only if its deadline is now
  //   later than iTime.
  // A machine that is to go is removed by its id, then deleted.
  //
  // Timeout() may add machines, remove any (and delete any but its own) and queue checks. Checks
  // that it adds to the queue being walked wait for the next call, even when they are due. It must
  // not call ProcessTimeout().
  void ProcessTimeout(time_t iTime);

  unsigned int MachineCount() const { return static_cast<unsigned int>(m_mapMachines.size()); }

  // Writes nothing.
  void Dump(int iFD) override;

 protected:
  MachinePool() = default;

 private:
  // Ids in the order queued, none of them twice.
  class IdList {
   public:
    void Add(unsigned int iID);
    const std::vector<unsigned int>& Ids() const { return m_vecIds; }

   private:
    void Grow();
    uint32_t& Slot(unsigned int iID);

    std::vector<unsigned int> m_vecIds;
    std::vector<uint32_t> m_vecSlots;  // hash table of 1 + index into m_vecIds, 0 where free
  };

  // A multimap from seconds to ids, with the ids of one second together.
  typedef std::map<time_t, IdList> TimeoutQueue_t;

  void Walk(TimeoutQueue_t* pQueue, time_t iNow,
            void (MachinePool::*pCheck)(StateMachine*, time_t));
  void CheckState(StateMachine* pMachine, time_t iNow);
  void CheckMachine(StateMachine* pMachine, time_t iNow);
  void Delete(StateMachine* pMachine);

  std::map<unsigned int, StateMachine*> m_mapMachines;
  TimeoutQueue_t m_mapMachineTimeoutQueue;
  TimeoutQueue_t m_mapStateTimeoutQueue;
  std::unordered_map<unsigned int, StateMachine*> m_mapIndex;  // m_mapMachines, for GetMachine()
};

#endif
