#ifndef ZELK_COMMON_MACHINE_POOL_H
#define ZELK_COMMON_MACHINE_POOL_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
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
  // the same. Without memory (std::bad_alloc) nothing is stored.
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
  // not call ProcessTimeout(). What it throws ends the call, as does a lack of memory: the machine
  // at hand and those behind it are asked by the next call.
  void ProcessTimeout(time_t iTime);

  // Machines that are in the pool.
  unsigned int MachineCount() const { return static_cast<unsigned int>(m_mapMachines.size()); }

  // Writes nothing.
  void Dump(int iFD) override;

 protected:
  MachinePool() = default;

 private:
  // Machines by id, in one table of an array; null and ids that are not known are the same.
  class Index {
   public:
    StateMachine* Find(unsigned int iID) const;
    void Add(unsigned int iID, StateMachine* pMachine);
    void Remove(unsigned int iID);
    // Has the place of an id brought into the cache.
    void Fetch(unsigned int iID) const;

   private:
    struct Slot_t {
      unsigned int iID;
      StateMachine* pMachine;  // null where free
    };
    size_t Home(unsigned int iID) const;
    size_t Place(unsigned int iID) const;
    void Grow();

    std::vector<Slot_t> m_vecSlots;  // a power of two, at least half of them free
    size_t m_iUsed = 0;
    unsigned int m_iShift = 0;
  };

  typedef StateMachine::QueueNote_t Note_t;

  // The ids to look at in one second, in the order queued.
  struct List_t {
    time_t iTime = 0;
    uint64_t iSerial = 0;  // no other list has had it, in whatever pool
    size_t iDoubtful = 0;  // ids that may stand here twice
    std::vector<unsigned int> vecIds;
  };

  // A multimap from seconds to ids, with the ids of one second together.
  class TimeoutQueue {
   public:
    void Add(time_t iTime, unsigned int iID, Note_t& stNote);
    // Moves the lists that are not later than iNow, in the order of time.
    std::map<time_t, List_t> Take(time_t iNow);
    // Takes lists back that were taken, and leaves none in mapDue.
    __attribute__((visibility("hidden"))) void PutBack(std::map<time_t, List_t>& mapDue);

   private:
    static const size_t RECENT = 64;

    List_t& At(time_t iTime);
    List_t* Search(time_t iTime);
    void Append(List_t& stList, unsigned int iID, Note_t& stNote);
    List_t*& Recent(time_t iTime) { return m_pRecent[static_cast<uint64_t>(iTime) % RECENT]; }

    std::map<time_t, List_t> m_mapLists;
    List_t* m_pRecent[RECENT] = {};  // saves most searches
  };

  void Walk(TimeoutQueue& stQueue, time_t iNow, void (MachinePool::*pCheck)(StateMachine*, time_t));
  void FetchAhead(const std::vector<unsigned int>& vecIds, size_t i) const;
  void CheckState(StateMachine* pMachine, time_t iNow);
  void CheckMachine(StateMachine* pMachine, time_t iNow);
  void Delete(StateMachine* pMachine);

  std::map<unsigned int, StateMachine*> m_mapMachines;
  TimeoutQueue m_mapMachineTimeoutQueue;
  TimeoutQueue m_mapStateTimeoutQueue;
  Index m_stIndex;  // m_mapMachines, for GetMachine()
};

#endif
