// The state-machine runtime beside what a user would pick instead:
//
// dispatch_*          one message to a machine whose handler counts it: steady, a machine that
//                     stays in its state; ring, one that moves through eight states, each with
//                     its own handler; mixed, a thousand of those in random order. Boost.MSM as it
//                     comes and with its message queue and exception handling switched off.
// timers_*            N live timers armed in random order with deadlines of 1 to 60 units and
//                     expired in order of time, per timer. libevent with its heap and with the
//                     common timeouts that its users may declare for a few fixed durations.
// rearm_*             a thousand live timers set anew again and again, per round.
// find_*              a machine by its id, ids in random order.
// simulated_hour      a thousand machines, each re-armed 100 times a second, with a pass of the
//                     host's loop after each round: cost per re-arm in the first and the last ten
//                     minutes, and the memory that is in use after a minute and at the end.
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <malloc.h>

#include <algorithm>
#include <boost/msm/back/state_machine.hpp>
#include <boost/msm/front/functor_row.hpp>
#include <boost/msm/front/state_machine_def.hpp>
#include <chrono>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <thread>
#include <unordered_map>
#include <vector>

#include "machine_pool.h"
#include "ratio_reporter.h"
#include "state_machine.h"

namespace {

const int MACHINE_TYPE = 7;
const int STATES = 8;
const unsigned int MANY_MACHINES = 1000;
const size_t ORDER = 1 << 17;  // so many messages before their order repeats itself
const unsigned int LONGEST_TIMEOUT = 60;

typedef std::chrono::steady_clock Clock_t;

double Nanoseconds(Clock_t::time_point stFrom, Clock_t::time_point stTo) {
  return std::chrono::duration<double, std::nano>(stTo - stFrom).count();
}

std::vector<unsigned int> Shuffled(size_t iCount) {
  std::vector<unsigned int> vecNumbers(iCount);
  std::iota(vecNumbers.begin(), vecNumbers.end(), 1);
  std::shuffle(vecNumbers.begin(), vecNumbers.end(), std::mt19937(1));
  return vecNumbers;
}

// ---- machines

class Machine : public StateMachine {
 public:
  Machine() { m_iState = 0; }
  int Timeout(bool /*bMachine*/) override {
    ++m_iExpired;
    ClearStateTimeout();
    return 0;
  }
  int StateMachineType() override { return MACHINE_TYPE; }
  const char* MachineName() override { return "bench"; }

  template <int iFrom>
  static int Advance(StateMachine* pMachine, InternalHead_t* /*pHead*/, void* pMessage) {
    static_cast<Machine*>(pMachine)->m_iState = (iFrom + 1) % STATES;
    ++*static_cast<uint64_t*>(pMessage);
    return 0;
  }
  static int Stay(StateMachine* /*pMachine*/, InternalHead_t* /*pHead*/, void* pMessage) {
    ++*static_cast<uint64_t*>(pMessage);
    return 0;
  }
  static void Register() {
    SetGlobalStateList(MACHINE_TYPE, STATES, Stay);
    const ProcessFunction_t pHandlers[STATES] = {Advance<0>, Advance<1>, Advance<2>, Advance<3>,
                                                 Advance<4>, Advance<5>, Advance<6>, Advance<7>};
    for (int i = 0; i < STATES; ++i) {
      SetGlobalStateList(MACHINE_TYPE, i, pHandlers[i]);
    }
  }

  static inline uint64_t m_iExpired = 0;
};

// Always in the one state that it does not leave.
class SteadyMachine : public Machine {
 public:
  SteadyMachine() { m_iState = STATES; }
};

class OwnPool : public MachinePool {};

// Machines with the ids 1 to iCount, in a pool of their own.
struct Population {
  explicit Population(unsigned int iCount) : vecMachines(iCount) {
    for (unsigned int i = 0; i < iCount; ++i) {
      vecMachines[i].reset(new Machine);
      vecMachines[i]->SetId(i + 1);
      vecMachines[i]->SetMachineTimeout(~0u);
      stPool.AddMachine(vecMachines[i].get());
    }
  }
  std::vector<std::unique_ptr<Machine>> vecMachines;
  OwnPool stPool;
};

// ---- the same machines in Boost.MSM

struct Message {
  InternalHead_t* pHead;
  void* pMessage;
};

struct Count {
  template <class Event, class Fsm, class Source, class Target>
  void operator()(const Event& stEvent, Fsm&, Source&, Target&) const {
    ++*static_cast<uint64_t*>(stEvent.pMessage);
  }
};

namespace msm = boost::msm;

template <int iState>
struct State : msm::front::state<> {};

template <int iFrom>
using Row = msm::front::Row<State<iFrom>, Message, State<(iFrom + 1) % STATES>, Count>;
typedef msm::front::Row<State<STATES>, Message, msm::front::none, Count> RowOfSteady;
typedef boost::mpl::vector<Row<0>, Row<1>, Row<2>, Row<3>, Row<4>, Row<5>, Row<6>, Row<7>,
                           RowOfSteady>
    Rows;

template <int iFirstState>
struct MsmPlain_ : msm::front::state_machine_def<MsmPlain_<iFirstState>> {
  typedef State<iFirstState> initial_state;
  typedef Rows transition_table;
};

template <int iFirstState>
struct MsmTuned_ : msm::front::state_machine_def<MsmTuned_<iFirstState>> {
  typedef int no_message_queue;
  typedef int no_exception_thrown;
  typedef State<iFirstState> initial_state;
  typedef Rows transition_table;
};

void Feed(Machine* pMachine, InternalHead_t* pHead, uint64_t* pCount) {
  pMachine->DoNext(pHead, pCount);
}

template <typename Front>
void Feed(msm::back::state_machine<Front>* pMachine, InternalHead_t* pHead, uint64_t* pCount) {
  pMachine->process_event(Message{pHead, pCount});
}

void Start(Machine* /*pMachine*/) {}

template <typename Front>
void Start(msm::back::state_machine<Front>* pMachine) {
  pMachine->start();
}

template <typename AnyMachine>
void Dispatch(benchmark::State& stState, size_t iMachines) {
  std::vector<std::unique_ptr<AnyMachine>> vecMachines(iMachines);
  std::vector<AnyMachine*> vecOrder(ORDER);
  std::mt19937 stRandom(3);
  InternalHead_t stHead{};
  uint64_t iCount = 0;
  for (auto& pMachine : vecMachines) {
    pMachine.reset(new AnyMachine);
    Start(pMachine.get());
    for (size_t iAhead = stRandom() % STATES; iAhead > 0; --iAhead) {
      Feed(pMachine.get(), &stHead, &iCount);  // not all in the same state
    }
  }
  for (AnyMachine*& pMachine : vecOrder) {
    pMachine = vecMachines[stRandom() % iMachines].get();
  }
  iCount = 0;
  size_t iNext = 0;
  for (auto stIteration : stState) {
    static_cast<void>(stIteration);
    Feed(vecOrder[iNext++ % ORDER], &stHead, &iCount);
    benchmark::ClobberMemory();
  }
  if (iCount != static_cast<uint64_t>(stState.iterations())) {
    stState.SkipWithError("a message was lost");
  }
}

// ---- timers

std::vector<unsigned int> RandomTimeouts(size_t iCount) {
  std::mt19937 stRandom(2);
  std::uniform_int_distribution<unsigned int> stRange(1, LONGEST_TIMEOUT);
  std::vector<unsigned int> vecTimeouts(iCount);
  for (unsigned int& iTimeout : vecTimeouts) {
    iTimeout = stRange(stRandom);
  }
  return vecTimeouts;
}

void TimersZelk(benchmark::State& stState, unsigned int iTimers) {
  Population stAll(iTimers);
  const auto vecOrder = Shuffled(iTimers);
  const auto vecTimeouts = RandomTimeouts(iTimers);
  double dCost = 0;
  time_t iNow = 1000;
  Machine::m_iExpired = 0;
  for (auto stIteration : stState) {
    static_cast<void>(stIteration);
    const auto stBegin = Clock_t::now();
    for (const unsigned int i : vecOrder) {
      Machine* pMachine = stAll.vecMachines[i - 1].get();
      pMachine->SetStateTimeout(vecTimeouts[i - 1]);
      pMachine->SetStateBeginTime(iNow);
      stAll.stPool.ConfigStateTimeout(pMachine);
    }
    for (unsigned int i = 0; i < LONGEST_TIMEOUT; ++i) {
      stAll.stPool.ProcessTimeout(++iNow);
    }
    dCost += Nanoseconds(stBegin, Clock_t::now());
  }
  if (Machine::m_iExpired != static_cast<uint64_t>(stState.iterations()) * iTimers) {
    stState.SkipWithError("a timer was lost");
  }
  stState.counters["ns"] = dCost / static_cast<double>(stState.iterations() * iTimers);
}

// The timers of libevent, with milliseconds in place of the seconds.
class EventTimers {
 public:
  EventTimers(unsigned int iTimers, bool bCommon)
      : m_pBase(event_base_new()),
        m_vecEvents(iTimers),
        m_vecOrder(Shuffled(iTimers)),
        m_vecTimeouts(RandomTimeouts(iTimers)) {
    for (event& stEvent : m_vecEvents) {
      evtimer_assign(&stEvent, m_pBase, &EventTimers::Expired, this);
    }
    for (unsigned int i = 0; i <= LONGEST_TIMEOUT; ++i) {
      m_stDurations[i] = {0, static_cast<int>(i * 1000)};
      m_pDurations[i] =
          bCommon ? event_base_init_common_timeout(m_pBase, &m_stDurations[i]) : &m_stDurations[i];
    }
    event_assign(&m_stArm, m_pBase, -1, 0, &EventTimers::ArmAll, this);
  }
  ~EventTimers() {
    for (event& stEvent : m_vecEvents) {
      event_del(&stEvent);
    }
    event_base_free(m_pBase);
  }
  EventTimers(const EventTimers&) = delete;
  EventTimers& operator=(const EventTimers&) = delete;

  // What it takes to arm all of them and to let them expire. They are armed in a callback, as in
  // a real program: there the loop's time is known and need not be asked for.
  double ArmAndExpire() {
    m_iExpired = 0;
    event_active(&m_stArm, 0, 0);
    event_base_loop(m_pBase, EVLOOP_NONBLOCK | EVLOOP_ONCE);
    std::this_thread::sleep_for(std::chrono::milliseconds(LONGEST_TIMEOUT + 20));
    const auto stBegin = Clock_t::now();
    while (m_iExpired < m_vecEvents.size()) {
      event_base_loop(m_pBase, EVLOOP_NONBLOCK);
    }
    return m_dArming + Nanoseconds(stBegin, Clock_t::now());
  }

  void ArmAll() {
    const auto stBegin = Clock_t::now();
    for (const unsigned int i : m_vecOrder) {
      evtimer_add(&m_vecEvents[i - 1], m_pDurations[m_vecTimeouts[i - 1]]);
    }
    m_dArming = Nanoseconds(stBegin, Clock_t::now());
  }

 private:
  static void Expired(evutil_socket_t, short, void* pSelf) {
    ++static_cast<EventTimers*>(pSelf)->m_iExpired;
  }
  static void ArmAll(evutil_socket_t, short, void* pSelf) {
    static_cast<EventTimers*>(pSelf)->ArmAll();
  }

  event_base* m_pBase;
  std::vector<event> m_vecEvents;
  std::vector<unsigned int> m_vecOrder;
  std::vector<unsigned int> m_vecTimeouts;
  timeval m_stDurations[LONGEST_TIMEOUT + 1];
  const timeval* m_pDurations[LONGEST_TIMEOUT + 1];
  event m_stArm;
  size_t m_iExpired = 0;
  double m_dArming = 0;
};

void TimersLibevent(benchmark::State& stState, unsigned int iTimers, bool bCommon) {
  EventTimers stTimers(iTimers, bCommon);
  double dCost = 0;
  for (auto stIteration : stState) {
    static_cast<void>(stIteration);
    dCost += stTimers.ArmAndExpire();
  }
  stState.counters["ns"] = dCost / static_cast<double>(stState.iterations() * iTimers);
}

void RearmZelk(benchmark::State& stState) {
  Population stAll(MANY_MACHINES);
  for (auto& pMachine : stAll.vecMachines) {
    pMachine->SetStateTimeout(30);
  }
  time_t iNow = 1000;
  unsigned int iRound = 0;
  for (auto stIteration : stState) {
    static_cast<void>(stIteration);
    for (auto& pMachine : stAll.vecMachines) {
      pMachine->SetStateBeginTime(iNow);
      stAll.stPool.ConfigStateTimeout(pMachine.get());
    }
    iNow += ++iRound % 100 == 0 ? 1 : 0;
    stAll.stPool.ProcessTimeout(iNow);
  }
  stState.SetItemsProcessed(static_cast<int64_t>(stState.iterations() * MANY_MACHINES));
}

struct EventRearm {
  benchmark::State* pState;
  std::vector<event> vecEvents;
};

void RearmAll(evutil_socket_t, short, void* pArgument) {
  auto* pRearm = static_cast<EventRearm*>(pArgument);
  const timeval stTimeout{30, 0};
  for (auto stIteration : *pRearm->pState) {
    static_cast<void>(stIteration);
    for (event& stEvent : pRearm->vecEvents) {
      evtimer_add(&stEvent, &stTimeout);
    }
  }
}

void RearmLibevent(benchmark::State& stState) {
  event_base* pBase = event_base_new();
  EventRearm stRearm{&stState, std::vector<event>(MANY_MACHINES)};
  const auto fnNothing = [](evutil_socket_t, short, void*) {};
  for (event& stEvent : stRearm.vecEvents) {
    evtimer_assign(&stEvent, pBase, fnNothing, nullptr);
  }
  event stRun;
  event_assign(&stRun, pBase, -1, 0, RearmAll, &stRearm);
  event_active(&stRun, 0, 0);
  event_base_loop(pBase, EVLOOP_NONBLOCK);
  for (event& stEvent : stRearm.vecEvents) {
    event_del(&stEvent);
  }
  event_base_free(pBase);
  stState.SetItemsProcessed(static_cast<int64_t>(stState.iterations() * MANY_MACHINES));
}

// ---- find

template <typename Find>
void FindAll(benchmark::State& stState, size_t iCount, Find fnFind) {
  const auto vecIds = Shuffled(iCount);
  size_t iNext = 0;
  for (auto stIteration : stState) {
    static_cast<void>(stIteration);
    benchmark::DoNotOptimize(fnFind(vecIds[iNext]));
    iNext = iNext + 1 < iCount ? iNext + 1 : 0;
  }
}

void FindZelk(benchmark::State& stState, unsigned int iCount) {
  Population stAll(iCount);
  FindAll(stState, iCount, [&](unsigned int iID) { return stAll.stPool.GetMachine(iID); });
}

template <typename Map>
void FindIn(benchmark::State& stState, unsigned int iCount) {
  std::vector<std::unique_ptr<Machine>> vecMachines;
  Map mapMachines;
  for (unsigned int iID = 1; iID <= iCount; ++iID) {
    vecMachines.emplace_back(new Machine);
    mapMachines.emplace(iID, vecMachines.back().get());
  }
  FindAll(stState, iCount, [&](unsigned int iID) {
    const auto it = mapMachines.find(iID);
    return it == mapMachines.end() ? nullptr : it->second;
  });
}

// ---- the hour

void SimulatedHour(benchmark::State& stState) {
  const int SECONDS = 3600;
  const int EDGE = 600;
  double dFirst = 0;
  double dLast = 0;
  double dAll = 0;
  double dMinuteBytes = 0;
  double dEndBytes = 0;
  for (auto stIteration : stState) {
    static_cast<void>(stIteration);
    Population stAll(MANY_MACHINES);
    for (auto& pMachine : stAll.vecMachines) {
      pMachine->SetStateTimeout(30);
    }
    for (int iSecond = 0; iSecond < SECONDS; ++iSecond) {
      const auto stBegin = Clock_t::now();
      for (int iRound = 0; iRound < 100; ++iRound) {
        for (auto& pMachine : stAll.vecMachines) {
          pMachine->SetStateBeginTime(1000 + iSecond);
          stAll.stPool.ConfigStateTimeout(pMachine.get());
        }
        stAll.stPool.ProcessTimeout(1000 + iSecond);
      }
      const double dSecond = Nanoseconds(stBegin, Clock_t::now());
      dAll += dSecond;
      dFirst += iSecond < EDGE ? dSecond : 0;
      dLast += iSecond >= SECONDS - EDGE ? dSecond : 0;
      if (iSecond == 60) {
        dMinuteBytes = static_cast<double>(mallinfo2().uordblks);
      }
    }
    dEndBytes = static_cast<double>(mallinfo2().uordblks);
  }
  const double dRearms = 100.0 * MANY_MACHINES * static_cast<double>(stState.iterations());
  stState.counters["ns"] = dAll / (dRearms * SECONDS);
  stState.counters["first_10min_ns"] = dFirst / (dRearms * EDGE);
  stState.counters["last_10min_ns"] = dLast / (dRearms * EDGE);
  stState.counters["minute_bytes"] = dMinuteBytes;
  stState.counters["hour_bytes"] = dEndBytes;
}

template <typename... Arguments>
benchmark::internal::Benchmark* Case(const std::string& strName, Arguments... args) {
  return benchmark::RegisterBenchmark(strName.c_str(), args...);
}

void RegisterAll() {
  using msm::back::state_machine;
  Case("dispatch_steady/zelk", Dispatch<SteadyMachine>, 1);
  Case("dispatch_steady/boost_msm", Dispatch<state_machine<MsmPlain_<STATES>>>, 1);
  Case("dispatch_steady/boost_msm_tuned", Dispatch<state_machine<MsmTuned_<STATES>>>, 1);
  for (const unsigned int iMachines : {1u, MANY_MACHINES}) {
    const std::string strName = iMachines == 1 ? "dispatch_ring/" : "dispatch_mixed/";
    Case(strName + "zelk", Dispatch<Machine>, iMachines);
    Case(strName + "boost_msm", Dispatch<state_machine<MsmPlain_<0>>>, iMachines);
    Case(strName + "boost_msm_tuned", Dispatch<state_machine<MsmTuned_<0>>>, iMachines);
  }
  for (const unsigned int iTimers : {10000u, 1000000u}) {
    const std::string strName = "timers_" + std::to_string(iTimers) + "/";
    const int iTimes = iTimers > 100000 ? 1 : 10;
    Case(strName + "zelk", TimersZelk, iTimers)->Iterations(iTimes);
    Case(strName + "libevent", TimersLibevent, iTimers, false)->Iterations(iTimes);
    Case(strName + "libevent_common", TimersLibevent, iTimers, true)->Iterations(iTimes);
  }
  Case("rearm_1000/zelk", RearmZelk);
  Case("rearm_1000/libevent", RearmLibevent);
  for (const unsigned int iCount : {10000u, 1000000u}) {
    const std::string strName = "find_" + std::to_string(iCount) + "/";
    Case(strName + "zelk", FindZelk, iCount);
    Case(strName + "std_map", FindIn<std::map<unsigned int, Machine*>>, iCount);
    Case(strName + "std_unordered_map", FindIn<std::unordered_map<unsigned int, Machine*>>, iCount);
  }
  Case("simulated_hour/zelk", SimulatedHour)->Iterations(1);
}

}  // namespace

int main(int argc, char** argv) {
  Machine::Register();
  RegisterAll();
  return RunWithRatios(argc, argv);
}
