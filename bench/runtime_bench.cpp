// The state-machine runtime beside what a user would pick instead:
//
// dispatch_*        one message to a machine whose handler counts it: steady, a machine that stays
//                   in its state; ring, one that moves through eight states, each with its own
//                   handler; mixed, a thousand of those in random order. virtual_state is the
//                   pattern of the books, an object for each state; function_table an array of
//                   std::function; Boost.MSM as it comes and with its message queue and exception
//                   handling switched off.
// timers_*          N live timers armed in random order with deadlines of 1 to 60 seconds and
//                   expired in order of time, per timer. libevent with its heap and with the
//                   common timeouts that its users may declare for a few fixed durations.
// rearm_*           N live timers of a few seconds set anew ten times a second, per timer, in the
//                   eleventh second and after an hour. priority_queue leaves the old entries in
//                   place and pushes new ones; priority_queue_late keeps the early entry and looks
//                   again when it is due, which ours may not: timers of one second expire in the
//                   order in which they were set.
// find_*            a machine by its id, ids in random order.
//
// Ours and the priority queues run on a clock that the benchmark moves on; libevent and Asio take
// milliseconds for seconds, and waiting for them is not counted. Figures are CPU time.
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>

#include <algorithm>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <boost/msm/back/state_machine.hpp>
#include <boost/msm/front/functor_row.hpp>
#include <boost/msm/front/state_machine_def.hpp>
#include <boost/statechart/custom_reaction.hpp>
#include <boost/statechart/event.hpp>
#include <boost/statechart/simple_state.hpp>
#include <boost/statechart/state_machine.hpp>
#include <boost/statechart/transition.hpp>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <queue>
#include <random>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "cpu_time.h"
#include "machine_pool.h"
#include "ratio_reporter.h"
#include "state_machine.h"

namespace {

const int MACHINE_TYPE = 7;
const int STATES = 8;
const unsigned int MANY_MACHINES = 1000;
const size_t ORDER = 1 << 17;  // so many messages before their order repeats itself
const unsigned int LONGEST_TIMEOUT = 60;
const int ROUNDS = 10;  // of re-arming in a second
const unsigned int REARMED_TIMEOUT = 5;

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
  void Feed(InternalHead_t* pHead, uint64_t* pCount) { DoNext(pHead, pCount); }

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

template <typename Front>
class Msm {
 public:
  Msm() { m_stMachine.start(); }
  void Feed(InternalHead_t* pHead, uint64_t* pCount) {
    m_stMachine.process_event(Message{pHead, pCount});
  }

 private:
  msm::back::state_machine<Front> m_stMachine;
};

// ---- in Boost.Statechart

namespace sc = boost::statechart;

struct ChartMessage : sc::event<ChartMessage> {
  explicit ChartMessage(uint64_t* pMessage) : pCount(pMessage) {}
  uint64_t* pCount;
};

template <int iFirstState>
struct ChartMachine;

template <int iFirstState, int iState>
struct ChartState : sc::simple_state<ChartState<iFirstState, iState>, ChartMachine<iFirstState>> {
  typedef sc::custom_reaction<ChartMessage> reactions;

  sc::result react(const ChartMessage& stEvent) {
    ++*stEvent.pCount;
    if constexpr (iState == STATES) {
      return this->discard_event();
    } else {
      return this->template transit<ChartState<iFirstState, (iState + 1) % STATES>>();
    }
  }
};

template <int iFirstState>
struct ChartMachine
    : sc::state_machine<ChartMachine<iFirstState>, ChartState<iFirstState, iFirstState>> {};

template <int iFirstState>
class Statechart {
 public:
  Statechart() { m_stMachine.initiate(); }
  void Feed(InternalHead_t* /*pHead*/, uint64_t* pCount) {
    m_stMachine.process_event(ChartMessage(pCount));
  }

 private:
  ChartMachine<iFirstState> m_stMachine;
};

// ---- written by hand: an object for each state, and a table of functions

class VirtualMachine;

struct VirtualState {
  virtual ~VirtualState() = default;
  virtual int Handle(VirtualMachine& stMachine, InternalHead_t* pHead, void* pMessage) = 0;
};

class VirtualMachine {
 public:
  explicit VirtualMachine(VirtualState* pState) : m_pState(pState) {}
  void Feed(InternalHead_t* pHead, uint64_t* pCount) { m_pState->Handle(*this, pHead, pCount); }
  void Enter(VirtualState* pState) { m_pState = pState; }

 private:
  VirtualState* m_pState;
};

template <int iState>
struct NumberedState : VirtualState {
  static VirtualState* Instance() {
    static NumberedState stState;
    return &stState;
  }
  int Handle(VirtualMachine& stMachine, InternalHead_t* /*pHead*/, void* pMessage) override {
    ++*static_cast<uint64_t*>(pMessage);
    if constexpr (iState != STATES) {
      static VirtualState* const s_pNext = NumberedState<(iState + 1) % STATES>::Instance();
      stMachine.Enter(s_pNext);
    }
    return 0;
  }
};

template <int iFirstState>
struct VirtualFrom : VirtualMachine {
  VirtualFrom() : VirtualMachine(NumberedState<iFirstState>::Instance()) {}
};

template <int iFirstState>
class FunctionTable {
 public:
  void Feed(InternalHead_t* pHead, uint64_t* pCount) {
    s_vecHandlers[m_iState](*this, pHead, pCount);
  }

 private:
  typedef std::function<int(FunctionTable&, InternalHead_t*, void*)> Handler_t;

  template <size_t iState>
  static int Handle(FunctionTable& stMachine, InternalHead_t* /*pHead*/, void* pMessage) {
    stMachine.m_iState = iState == STATES ? iState : (iState + 1) % STATES;
    ++*static_cast<uint64_t*>(pMessage);
    return 0;
  }

  static inline const std::vector<Handler_t> s_vecHandlers = {Handle<0>, Handle<1>, Handle<2>,
                                                              Handle<3>, Handle<4>, Handle<5>,
                                                              Handle<6>, Handle<7>, Handle<STATES>};
  size_t m_iState = iFirstState;
};

template <typename AnyMachine>
void Dispatch(benchmark::State& stState, size_t iMachines) {
  std::vector<std::unique_ptr<AnyMachine>> vecMachines(iMachines);
  std::vector<AnyMachine*> vecOrder(ORDER);
  std::mt19937 stRandom(3);
  InternalHead_t stHead{};
  uint64_t iCount = 0;
  for (auto& pMachine : vecMachines) {
    pMachine.reset(new AnyMachine);
    for (size_t iAhead = stRandom() % STATES; iAhead > 0; --iAhead) {
      pMachine->Feed(&stHead, &iCount);  // not all in the same state
    }
  }
  for (AnyMachine*& pMachine : vecOrder) {
    pMachine = vecMachines[stRandom() % iMachines].get();
  }
  iCount = 0;
  size_t iNext = 0;
  MeasureCpu(stState, 1, [&] {
    vecOrder[iNext++ % ORDER]->Feed(&stHead, &iCount);
    benchmark::ClobberMemory();
  });
  if (iCount != static_cast<uint64_t>(stState.iterations())) {
    stState.SkipWithError("a message was lost");
  }
}

// ---- timers
//
// Each contestant keeps as many timers as it is told, on a clock of seconds that starts at 0:
//   Arm(i, iSeconds)   sets timer i to so many seconds from now on
//   Tick()             moves the clock on by a second and runs what is due, which counts itself

class ZelkTimers {
 public:
  explicit ZelkTimers(unsigned int iTimers) : m_stAll(iTimers) { Machine::m_iExpired = 0; }
  void Arm(size_t i, unsigned int iSeconds) {
    m_stAll.vecMachines[i]->SetStateTimeout(iSeconds);
    Rearm(i);
  }
  void Rearm(size_t i) {
    Machine* const pMachine = m_stAll.vecMachines[i].get();
    pMachine->SetStateBeginTime(m_iNow);
    m_stAll.stPool.ConfigStateTimeout(pMachine);
  }
  void Tick() { m_stAll.stPool.ProcessTimeout(++m_iNow); }
  uint64_t Expired() const { return Machine::m_iExpired; }

 private:
  Population m_stAll;
  time_t m_iNow = 1000;
};

class PriorityQueueTimers {
 public:
  explicit PriorityQueueTimers(unsigned int iTimers) : m_vecTimers(iTimers) {}
  void Arm(size_t i, unsigned int iSeconds) {
    Timer_t& stTimer = m_vecTimers[i];
    stTimer.iDeadline = m_iNow + iSeconds;
    if (!m_bLate || stTimer.iQueued == 0 || stTimer.iQueued > stTimer.iDeadline) {
      Queue(static_cast<uint32_t>(i), stTimer);
    }
  }
  void Rearm(size_t i) { Arm(i, REARMED_TIMEOUT); }
  void Tick() {
    ++m_iNow;
    while (!m_stQueue.empty() && m_stQueue.top().first <= m_iNow) {
      const auto [iQueued, i] = m_stQueue.top();
      m_stQueue.pop();
      Look(iQueued, i);
    }
  }
  uint64_t Expired() const { return m_iExpired; }

 protected:
  bool m_bLate = false;

 private:
  typedef std::pair<time_t, uint32_t> Entry_t;
  struct Timer_t {
    time_t iDeadline = 0;
    time_t iQueued = 0;
    std::function<void(PriorityQueueTimers&)> fnExpired = [](PriorityQueueTimers& stSelf) {
      ++stSelf.m_iExpired;
    };
  };

  void Look(time_t iQueued, uint32_t i) {
    Timer_t& stTimer = m_vecTimers[i];
    if (stTimer.iQueued != iQueued) {
      return;  // there is another entry, or was
    }
    stTimer.iQueued = 0;
    if (stTimer.iDeadline > m_iNow) {
      Queue(i, stTimer);
    } else {
      stTimer.fnExpired(*this);
    }
  }
  void Queue(uint32_t i, Timer_t& stTimer) {
    stTimer.iQueued = stTimer.iDeadline;
    m_stQueue.emplace(stTimer.iDeadline, i);
  }

  std::vector<Timer_t> m_vecTimers;
  std::priority_queue<Entry_t, std::vector<Entry_t>, std::greater<>> m_stQueue;
  time_t m_iNow = 1000;
  uint64_t m_iExpired = 0;
};

// Keeps the entry of an earlier deadline and looks again when that is due.
class LatePriorityQueueTimers : public PriorityQueueTimers {
 public:
  explicit LatePriorityQueueTimers(unsigned int iTimers) : PriorityQueueTimers(iTimers) {
    m_bLate = true;
  }
};

// Those of Asio and libevent: with milliseconds for seconds, all expire at once when the last is
// due.

const unsigned int MILLISECOND = 1000;
const unsigned int SECOND = 1000000;

class AsioTimers {
 public:
  explicit AsioTimers(unsigned int iTimers, unsigned int iUnit = MILLISECOND) : m_iUnit(iUnit) {
    for (unsigned int i = 0; i < iTimers; ++i) {
      m_dqTimers.emplace_back(m_stContext);
    }
  }
  void Arm(size_t i, unsigned int iSeconds) {
    m_dqTimers[i].expires_after(std::chrono::microseconds(m_iUnit * iSeconds));
    m_dqTimers[i].async_wait([this](const asio::error_code& stError) { m_iExpired += !stError; });
  }
  void Tick() {
    m_stContext.restart();
    m_stContext.poll();
  }
  uint64_t Expired() const { return m_iExpired; }
  void Run(const std::function<void()>& fnRun) {
    asio::post(m_stContext, fnRun);
    Tick();
  }

 private:
  unsigned int m_iUnit;
  asio::io_context m_stContext{1};
  std::deque<asio::steady_timer> m_dqTimers;
  uint64_t m_iExpired = 0;
};

template <bool bCommon>
class EventTimers {
 public:
  explicit EventTimers(unsigned int iTimers, unsigned int iUnit = MILLISECOND)
      : m_pBase(event_base_new()), m_vecEvents(iTimers) {
    for (event& stEvent : m_vecEvents) {
      evtimer_assign(&stEvent, m_pBase, &EventTimers::Expire, this);
    }
    for (unsigned int i = 0; i <= LONGEST_TIMEOUT; ++i) {
      m_stDurations[i] = {i * iUnit / SECOND, i * iUnit % SECOND};
      m_pDurations[i] =
          bCommon ? event_base_init_common_timeout(m_pBase, &m_stDurations[i]) : &m_stDurations[i];
    }
  }
  ~EventTimers() {
    for (event& stEvent : m_vecEvents) {
      event_del(&stEvent);
    }
    event_base_free(m_pBase);
  }
  EventTimers(const EventTimers&) = delete;
  EventTimers& operator=(const EventTimers&) = delete;

  void Arm(size_t i, unsigned int iSeconds) {
    evtimer_add(&m_vecEvents[i], m_pDurations[iSeconds]);
  }
  void Tick() { event_base_loop(m_pBase, EVLOOP_NONBLOCK); }
  uint64_t Expired() const { return m_iExpired; }
  // In a callback, as in a real program: there the loop's time is known and need not be asked for.
  void Run(const std::function<void()>& fnRun) {
    const auto fnCall = [](evutil_socket_t, short, void* pRun) {
      (*static_cast<const std::function<void()>*>(pRun))();
    };
    event_base_once(m_pBase, -1, EV_TIMEOUT, fnCall, const_cast<std::function<void()>*>(&fnRun),
                    nullptr);
    event_base_loop(m_pBase, EVLOOP_ONCE);
  }

 private:
  static void Expire(evutil_socket_t, short, void* pSelf) {
    ++static_cast<EventTimers*>(pSelf)->m_iExpired;
  }

  event_base* m_pBase;
  std::vector<event> m_vecEvents;
  timeval m_stDurations[LONGEST_TIMEOUT + 1];
  const timeval* m_pDurations[LONGEST_TIMEOUT + 1];
  uint64_t m_iExpired = 0;
};

template <typename AnyTimers>
constexpr bool IS_LOOP =
    !std::is_same_v<AnyTimers, ZelkTimers> && !std::is_base_of_v<PriorityQueueTimers, AnyTimers>;

// The cost of fnArm, in the loop of those that have one; they are due when it returns.
template <typename AnyTimers>
double CostOfArming([[maybe_unused]] AnyTimers& stTimers, const std::function<void()>& fnArm) {
  double dCost = 0;
  const std::function<void()> fnMeasure = [&] {
    const double dBegin = CpuNanoseconds();
    fnArm();
    dCost = CpuNanoseconds() - dBegin;
  };
  if constexpr (IS_LOOP<AnyTimers>) {
    stTimers.Run(fnMeasure);
    std::this_thread::sleep_for(std::chrono::milliseconds(LONGEST_TIMEOUT + 20));
  } else {
    fnMeasure();
  }
  return dCost;
}

std::vector<unsigned int> RandomTimeouts(size_t iCount) {
  std::mt19937 stRandom(2);
  std::uniform_int_distribution<unsigned int> stRange(1, LONGEST_TIMEOUT);
  std::vector<unsigned int> vecTimeouts(iCount);
  for (unsigned int& iTimeout : vecTimeouts) {
    iTimeout = stRange(stRandom);
  }
  return vecTimeouts;
}

template <typename AnyTimers>
void Timers(benchmark::State& stState, unsigned int iTimers) {
  AnyTimers stTimers(iTimers);
  const auto vecOrder = Shuffled(iTimers);
  const auto vecTimeouts = RandomTimeouts(iTimers);
  double dCost = 0;
  uint64_t iExpected = 0;
  for (auto stIteration : stState) {
    static_cast<void>(stIteration);
    iExpected += iTimers;
    dCost += CostOfArming(stTimers, [&] {
      for (const unsigned int i : vecOrder) {
        stTimers.Arm(i - 1, vecTimeouts[i - 1]);
      }
    });
    const double dBegin = CpuNanoseconds();
    while (stTimers.Expired() < iExpected) {
      stTimers.Tick();
    }
    dCost += CpuNanoseconds() - dBegin;
  }
  ReportCpu(stState, dCost, iTimers);
}

// Each iteration is a second.
template <typename AnyTimers>
void Rearm(benchmark::State& stState, unsigned int iTimers, unsigned int iSecondsBefore) {
  AnyTimers stTimers(iTimers);
  const auto fnSecond = [&] {
    for (int iRound = 0; iRound < ROUNDS; ++iRound) {
      for (unsigned int i = 0; i < iTimers; ++i) {
        stTimers.Rearm(i);
      }
    }
    stTimers.Tick();
  };
  for (unsigned int i = 0; i < iTimers; ++i) {
    stTimers.Arm(i, REARMED_TIMEOUT);
  }
  for (unsigned int i = 0; i < iSecondsBefore; ++i) {
    fnSecond();
  }
  MeasureCpu(stState, size_t{ROUNDS} * iTimers, fnSecond);
  if (stTimers.Expired() != 0) {
    stState.SkipWithError("a timer expired");
  }
}

// Each iteration is a pass of the loop, at a time of its own.
template <typename AnyTimers>
void RearmInLoop(benchmark::State& stState, unsigned int iTimers) {
  AnyTimers stTimers(iTimers, SECOND);
  double dCost = 0;
  for (auto stIteration : stState) {
    static_cast<void>(stIteration);
    stTimers.Run([&] {
      const double dBegin = CpuNanoseconds();
      for (unsigned int i = 0; i < iTimers; ++i) {
        stTimers.Arm(i, REARMED_TIMEOUT);
      }
      dCost += CpuNanoseconds() - dBegin;
    });
  }
  ReportCpu(stState, dCost, iTimers);
}

// ---- find

template <typename Find>
void FindAll(benchmark::State& stState, size_t iCount, Find fnFind) {
  const auto vecIds = Shuffled(iCount);
  size_t iNext = 0;
  MeasureCpu(stState, 1, [&] {
    benchmark::DoNotOptimize(fnFind(vecIds[iNext]));
    iNext = iNext + 1 < iCount ? iNext + 1 : 0;
  });
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

template <typename... Arguments>
void Case(const std::string& strName, Arguments... args) {
  benchmark::RegisterBenchmark(strName.c_str(), args...)->MinTime(0.1);
}

template <typename... Arguments>
void FixedCase(int iIterations, const std::string& strName, Arguments... args) {
  benchmark::RegisterBenchmark(strName.c_str(), args...)->Iterations(iIterations);
}

// Of a machine that stays in its state, and of those that go round.
void RegisterDispatch() {
  Case("dispatch_steady/zelk", Dispatch<SteadyMachine>, 1);
  Case("dispatch_steady/virtual_state", Dispatch<VirtualFrom<STATES>>, 1);
  Case("dispatch_steady/function_table", Dispatch<FunctionTable<STATES>>, 1);
  Case("dispatch_steady/boost_msm", Dispatch<Msm<MsmPlain_<STATES>>>, 1);
  Case("dispatch_steady/boost_msm_tuned", Dispatch<Msm<MsmTuned_<STATES>>>, 1);
  Case("dispatch_steady/boost_statechart", Dispatch<Statechart<STATES>>, 1);
  for (const unsigned int iMachines : {1u, MANY_MACHINES}) {
    const std::string strName = iMachines == 1 ? "dispatch_ring/" : "dispatch_mixed/";
    Case(strName + "zelk", Dispatch<Machine>, iMachines);
    Case(strName + "virtual_state", Dispatch<VirtualFrom<0>>, iMachines);
    Case(strName + "function_table", Dispatch<FunctionTable<0>>, iMachines);
    Case(strName + "boost_msm", Dispatch<Msm<MsmPlain_<0>>>, iMachines);
    Case(strName + "boost_msm_tuned", Dispatch<Msm<MsmTuned_<0>>>, iMachines);
    Case(strName + "boost_statechart", Dispatch<Statechart<0>>, iMachines);
  }
}

template <typename AnyTimers>
void RegisterTimers(const std::string& strContestant) {
  for (const unsigned int iTimers : {10000u, 1000000u}) {
    const std::string strName = "timers_" + std::to_string(iTimers) + "/" + strContestant;
    FixedCase(iTimers > 100000 ? 1 : 5, strName, Timers<AnyTimers>, iTimers);
  }
}

template <typename AnyTimers>
void RegisterRearm(const std::string& strContestant) {
  Case("rearm_1000/" + strContestant, Rearm<AnyTimers>, 1000u, 10u);
  FixedCase(5, "rearm_100000/" + strContestant, Rearm<AnyTimers>, 100000u, 10u);
}

template <typename AnyTimers>
void RegisterRearmInLoop(const std::string& strContestant) {
  Case("rearm_1000/" + strContestant, RearmInLoop<AnyTimers>, 1000u);
  FixedCase(50, "rearm_100000/" + strContestant, RearmInLoop<AnyTimers>, 100000u);
}

void RegisterAll() {
  RegisterDispatch();
  RegisterTimers<ZelkTimers>("zelk");
  RegisterTimers<EventTimers<false>>("libevent");
  RegisterTimers<EventTimers<true>>("libevent_common");
  RegisterTimers<AsioTimers>("asio");
  RegisterTimers<PriorityQueueTimers>("priority_queue");
  RegisterRearm<ZelkTimers>("zelk");
  RegisterRearm<PriorityQueueTimers>("priority_queue");
  RegisterRearm<LatePriorityQueueTimers>("priority_queue_late");
  RegisterRearmInLoop<AsioTimers>("asio");
  RegisterRearmInLoop<EventTimers<false>>("libevent");
  RegisterRearmInLoop<EventTimers<true>>("libevent_common");
  FixedCase(100, "rearm_1000_after_an_hour/zelk", Rearm<ZelkTimers>, 1000u, 3600u);
  for (const unsigned int iCount : {10000u, 1000000u}) {
    const std::string strName = "find_" + std::to_string(iCount) + "/";
    FixedCase(1000000, strName + "zelk", FindZelk, iCount);
    FixedCase(1000000, strName + "std_map", FindIn<std::map<unsigned int, Machine*>>, iCount);
    FixedCase(1000000, strName + "std_unordered_map",
              FindIn<std::unordered_map<unsigned int, Machine*>>, iCount);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Machine::Register();
  RegisterAll();
  return RunWithRatios(argc, argv);
}
