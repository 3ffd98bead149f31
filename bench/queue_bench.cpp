// Messages from one process to another: what one message costs, for sizes from 16 B to 64 KiB.
//
//   single_<size>         the writer hands over one message at a time, the reader sleeps in poll()
//                         until there is something and takes what is there
//   batch_<size>          the same, 32 at a time (8 of 64 KiB), the best way each channel offers
//   turn_<size>           one process in turn sends 8 singly (4 of 64 KiB) and takes them together:
//                         no scheduler in the figure
//   pingpong_<size>       one message there and one back, both sides sleeping in poll()
//   spin_..._<size>       single, batch and pingpong with both sides asking without end: channels
//                         that can do without a wake-up send none
//
// The first three figures are processor time, of both processes together; the others are elapsed
// time, of a round trip in the case of pingpong. The sides run on a processor each, but for
// pingpong, where they take turns anyhow and a wake-up across processors would cost, and vary, more
// than all else together. ZeroMQ does its work in threads of its own, which leaves nothing to
// measure in one process and no processor to spin on.

#include <benchmark/benchmark.h>
#include <limits.h>
#include <sched.h>
#include <sys/wait.h>

#include <functional>

#include "processor.h"
#include "queue_channels.h"
#include "ratio_reporter.h"

namespace {

double Nanoseconds(clockid_t iClock) {
  timespec stTime{};
  clock_gettime(iClock, &stTime);
  return static_cast<double>(stTime.tv_sec) * 1e9 + static_cast<double>(stTime.tv_nsec);
}
double CpuNanoseconds() { return Nanoseconds(CLOCK_PROCESS_CPUTIME_ID); }
double Now() { return Nanoseconds(CLOCK_MONOTONIC); }

// The other side: a child on the last processor, which is running when the constructor returns.
class Peer {
 public:
  Peer(const std::function<void()>& fnStart, const std::function<void()>& fnRun) : m_iPid(fork()) {
    if (m_iPid == 0) {
      PinTo(LastProcessor());
      fnStart();
      m_stShared->bReady = true;
      const double dCpu = CpuNanoseconds();
      fnRun();
      m_stShared->dEnd = Now();
      m_stShared->dCpu = CpuNanoseconds() - dCpu;
      _exit(0);
    }
    while (!m_stShared->bReady) {
      sched_yield();
    }
  }
  ~Peer() { Join(); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  void Join() {
    int iStatus = 0;
    if (m_iPid != -1) {
      waitpid(m_iPid, &iStatus, 0);
      Check(WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 0, "the other side failed");
      m_iPid = -1;
    }
  }
  double End() const { return m_stShared->dEnd; }
  double Cpu() const { return m_stShared->dCpu; }

 private:
  struct Shared_t {
    std::atomic<bool> bReady{false};
    double dEnd = 0;
    double dCpu = 0;
  };
  Shared<Shared_t> m_stShared;
  pid_t m_iPid;
};

typedef std::function<std::unique_ptr<Channel>()> MakeChannel_t;

std::unique_ptr<Channel> MakeChannel(const MakeChannel_t& fnMake, bool bSpin) {
  std::unique_ptr<Channel> pChannel = fnMake();
  if (bSpin) {
    pChannel->Spin();
  }
  return pChannel;
}

void ReceiveMessages(Channel& stChannel, unsigned int iMessages) {
  for (unsigned int iReceived = 0; iReceived < iMessages; iReceived += stChannel.Receive()) {
    stChannel.Wait();
  }
}

double RunStream(const MakeChannel_t& fnMake, unsigned int iBatch, unsigned int iMessages,
                 bool bSpin) {
  const std::unique_ptr<Channel> pChannel = MakeChannel(fnMake, bSpin);
  Peer stReader([&] { pChannel->StartReader(); }, [&] { ReceiveMessages(*pChannel, iMessages); });
  PinTo(0);
  pChannel->StartWriter();
  const double dBegin = Now();
  const double dCpu = CpuNanoseconds();
  for (unsigned int i = 0; i < iMessages; i += iBatch) {
    pChannel->Send(iBatch);
  }
  const double dWriterCpu = CpuNanoseconds() - dCpu;
  stReader.Join();
  return bSpin ? stReader.End() - dBegin : dWriterCpu + stReader.Cpu();
}

double RunTurns(const MakeChannel_t& fnMake, unsigned int iTurn, unsigned int iMessages) {
  const std::unique_ptr<Channel> pChannel = fnMake();
  const double dCpu = CpuNanoseconds();
  for (unsigned int iReceived = 0; iReceived < iMessages; iReceived += pChannel->Receive()) {
    for (unsigned int i = 0; i < iTurn; ++i) {
      pChannel->Send(1);
    }
  }
  return CpuNanoseconds() - dCpu;
}

double RunPingPong(const MakeChannel_t& fnMake, unsigned int iRounds, bool bSpin) {
  const std::unique_ptr<Channel> pThere = MakeChannel(fnMake, bSpin);
  const std::unique_ptr<Channel> pBack = MakeChannel(fnMake, bSpin);
  Peer stOther(
      [&] {
        pThere->StartReader();
        pBack->StartWriter();
      },
      [&] {
        for (unsigned int i = 0; i < iRounds + 1; ++i) {
          ReceiveMessages(*pThere, 1);
          pBack->Send(1);
        }
        pBack->Flush();
      });
  PinTo(bSpin ? 0 : LastProcessor());
  pThere->StartWriter();
  pBack->StartReader();
  double dBegin = 0;
  for (unsigned int i = 0; i < iRounds + 1; ++i) {
    pThere->Send(1);
    ReceiveMessages(*pBack, 1);
    if (i == 0) {  // now both ways are open
      dBegin = Now();
    }
  }
  return Now() - dBegin;
}

// Nanoseconds of so many messages, or rounds; always a multiple of BATCH.
typedef std::function<double(const MakeChannel_t& fnMake, unsigned int iMessages)> Run_t;

struct Operation_t {
  const char* pName;
  bool bForZeroMq;
  Run_t fnRun;
};

std::vector<Operation_t> Operations(unsigned int iSize) {
  const unsigned int iBatch = iSize > LARGE ? BATCH / 4 : BATCH;  // two batches have room
  const unsigned int iTurn = iBatch > 8 ? 8 : 4;
  return {
      {"single", true, [](auto& fnMake, auto n) { return RunStream(fnMake, 1, n, false); }},
      {"batch", true, [=](auto& fnMake, auto n) { return RunStream(fnMake, iBatch, n, false); }},
      {"turn", false, [=](auto& fnMake, auto n) { return RunTurns(fnMake, iTurn, n); }},
      {"pingpong", true, [](auto& fnMake, auto n) { return RunPingPong(fnMake, n, false); }},
      {"spin_single", false, [](auto& fnMake, auto n) { return RunStream(fnMake, 1, n, true); }},
      {"spin_batch", false,
       [=](auto& fnMake, auto n) { return RunStream(fnMake, iBatch, n, true); }},
      {"spin_pingpong", false, [](auto& fnMake, auto n) { return RunPingPong(fnMake, n, true); }},
  };
}

// An iteration is BATCH messages; one run makes all that the library asks for.
void Measure(benchmark::State& stState, const MakeChannel_t& fnMake, const Run_t& fnRun) {
  const auto iMessages = static_cast<unsigned int>(stState.max_iterations) * BATCH;
  while (stState.KeepRunningBatch(stState.max_iterations)) {
    const double dNs = fnRun(fnMake, iMessages);
    stState.SetIterationTime(dNs / 1e9);
    stState.counters["ns"] = dNs / iMessages;
  }
}

void Register(const std::string& strContestant, const char* pSize, const Operation_t& stOperation,
              const MakeChannel_t& fnMake) {
  benchmark::RegisterBenchmark(
      (std::string(stOperation.pName) + "_" + pSize + "/" + strContestant).c_str(),
      [=](benchmark::State& stState) { Measure(stState, fnMake, stOperation.fnRun); })
      ->UseManualTime()
      ->MinTime(0.03);
}

template <unsigned int Size>
void RegisterSize(const char* pSize) {
  const std::vector<std::pair<const char*, MakeChannel_t>> vecContestants = {
      {"zelk", [] { return std::make_unique<ZelkChannel>(Size); }},
      {"limit", [] { return std::make_unique<LimitChannel>(Size); }},
      {"pipe", [] { return std::make_unique<PipeChannel>(Size); }},
      {"unix-stream", [] { return std::make_unique<UnixStreamChannel>(Size); }},
      {"unix-seqpacket", [] { return std::make_unique<SeqpacketChannel>(Size); }},
      {"boost-mq+eventfd", [] { return std::make_unique<BoostChannel>(Size); }},
      {"boost-spsc+eventfd", [] { return std::make_unique<SpscChannel<Size>>(); }},
  };
  for (const Operation_t& stOperation : Operations(Size)) {
    for (const auto& [pName, fnMake] : vecContestants) {
      Register(pName, pSize, stOperation, fnMake);
    }
    if (Size <= PosixMqChannel::LARGEST) {
      Register("posix-mq", pSize, stOperation,
               [] { return std::make_unique<PosixMqChannel>(Size); });
    }
    if (stOperation.bForZeroMq) {
      Register("zeromq-ipc", pSize, stOperation,
               [] { return std::make_unique<ZeroMqChannel>(Size); });
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  RegisterSize<16>("16B");
  RegisterSize<256>("256B");
  RegisterSize<4096>("4KiB");
  RegisterSize<65536>("64KiB");
  return RunWithRatios(argc, argv);
}
