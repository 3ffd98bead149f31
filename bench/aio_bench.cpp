// Writes of 4 KiB to random places of one preallocated file of 16 MiB.
//
//   direct_32   O_DIRECT, 32 requests submitted, all collected, and so on
//   direct_1    O_DIRECT, one at a time
//   cached_32   through the page cache, 32 submitted, all collected
//
// Figures are per write: the time that passes, and for the cached case the processor time. Ours is
// used as in an event loop: one submission per request, a wait for the eventfd, a collection.
// "libaio" and "uring" submit a whole batch with one call and wait in the kernel for its end,
// without an event descriptor; "pwrite" writes one after the other.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libaio.h>
#include <liburing.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "aio_util.h"
#include "ratio_reporter.h"

namespace {

const size_t WRITE_SIZE = 4096;
const size_t BLOCKS = 4096;
const unsigned int MAX_DEPTH = 32;

std::string g_strFile;

[[noreturn]] void Fail(const char* pWhat) {
  perror(pWhat);
  exit(1);
}

// The file, a buffer for each request of a batch and places to write to.
class Target {
 public:
  explicit Target(bool bDirect)
      : m_iFD(open(g_strFile.c_str(), O_RDWR | O_CLOEXEC | (bDirect ? O_DIRECT : 0))),
        m_pBuffers(static_cast<char*>(aligned_alloc(WRITE_SIZE, MAX_DEPTH * WRITE_SIZE))) {
    if (m_iFD == -1) {
      Fail("open");
    }
    memset(m_pBuffers, 'x', MAX_DEPTH * WRITE_SIZE);
    std::mt19937_64 stRandom(1);
    for (size_t i = 0; i < BLOCKS; ++i) {
      m_vecOffsets.push_back(stRandom() % BLOCKS * WRITE_SIZE);
    }
  }
  ~Target() {
    close(m_iFD);
    free(m_pBuffers);
  }
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  int FD() const { return m_iFD; }
  char* Buffer(unsigned int i) const { return m_pBuffers + i * WRITE_SIZE; }
  uint64_t NextOffset() { return m_vecOffsets[m_iNext++ % BLOCKS]; }

 private:
  int m_iFD;
  char* m_pBuffers;
  std::vector<uint64_t> m_vecOffsets;
  size_t m_iNext = 0;
};

void Check(long iWritten) {
  if (iWritten != static_cast<long>(WRITE_SIZE)) {
    fprintf(stderr, "a write gave %ld\n", iWritten);
    exit(1);
  }
}

class Zelk {
 public:
  void Write(Target& stTarget, unsigned int iDepth) {
    AIOUtil& stAIO = AIOUtil::Instance();
    for (unsigned int i = 0; i < iDepth; ++i) {
      if (stAIO.SubmitWriteRequest(stTarget.FD(), stTarget.Buffer(i), stTarget.NextOffset(),
                                   WRITE_SIZE, i) != 0) {
        Fail("SubmitWriteRequest");
      }
    }
    for (unsigned int iDone = 0; iDone < iDepth;) {
      pollfd stPoll{stAIO.GetEventFD(), POLLIN, 0};
      poll(&stPoll, 1, -1);
      iDone += static_cast<unsigned int>(stAIO.SomethingDone(m_vecDone));
      for (const aio_param_t& stDone : m_vecDone) {
        Check(stDone.iRetcode);
      }
    }
  }

 private:
  std::vector<aio_param_t> m_vecDone;
};

class Libaio {
 public:
  Libaio() {
    if (io_queue_init(MAX_DEPTH, &m_pContext) != 0) {
      Fail("io_queue_init");
    }
  }
  ~Libaio() { io_queue_release(m_pContext); }
  Libaio(const Libaio&) = delete;
  Libaio& operator=(const Libaio&) = delete;

  void Write(Target& stTarget, unsigned int iDepth) {
    iocb* apBlocks[MAX_DEPTH];
    for (unsigned int i = 0; i < iDepth; ++i) {
      apBlocks[i] = &m_aBlocks[i];
      io_prep_pwrite(apBlocks[i], stTarget.FD(), stTarget.Buffer(i), WRITE_SIZE,
                     static_cast<long long>(stTarget.NextOffset()));
    }
    if (io_submit(m_pContext, iDepth, apBlocks) != static_cast<int>(iDepth)) {
      Fail("io_submit");
    }
    io_event aEvents[MAX_DEPTH];
    for (unsigned int iDone = 0; iDone < iDepth;) {
      const int iCount =
          io_getevents(m_pContext, iDepth - iDone, iDepth - iDone, aEvents + iDone, nullptr);
      if (iCount == -EINTR) {
        continue;  // the kernel's own work for an earlier ring of this process
      }
      if (iCount < 0) {
        Fail("io_getevents");
      }
      iDone += static_cast<unsigned int>(iCount);
    }
    for (unsigned int i = 0; i < iDepth; ++i) {
      Check(static_cast<long>(aEvents[i].res));
    }
  }

 private:
  io_context_t m_pContext = nullptr;
  iocb m_aBlocks[MAX_DEPTH];
};

class Uring {
 public:
  Uring() : m_bReady(io_uring_queue_init(MAX_DEPTH, &m_stRing, 0) == 0) {}
  ~Uring() {
    if (m_bReady) {
      io_uring_queue_exit(&m_stRing);
    }
  }
  Uring(const Uring&) = delete;
  Uring& operator=(const Uring&) = delete;

  bool IsReady() const { return m_bReady; }
  void Write(Target& stTarget, unsigned int iDepth) {
    for (unsigned int i = 0; i < iDepth; ++i) {
      io_uring_prep_write(io_uring_get_sqe(&m_stRing), stTarget.FD(), stTarget.Buffer(i),
                          WRITE_SIZE, stTarget.NextOffset());
    }
    io_uring_submit_and_wait(&m_stRing, iDepth);
    for (unsigned int i = 0; i < iDepth; ++i) {
      io_uring_cqe* pEvent = nullptr;
      io_uring_wait_cqe(&m_stRing, &pEvent);
      Check(pEvent->res);
      io_uring_cqe_seen(&m_stRing, pEvent);
    }
  }

 private:
  io_uring m_stRing{};
  bool m_bReady;
};

class Pwrite {
 public:
  void Write(Target& stTarget, unsigned int iDepth) {
    for (unsigned int i = 0; i < iDepth; ++i) {
      Check(pwrite(stTarget.FD(), stTarget.Buffer(i), WRITE_SIZE,
                   static_cast<off_t>(stTarget.NextOffset())));
    }
  }
};

// Nothing waits for a device in the cached case: the processor time tells the cost, also that of
// io_uring's worker threads.
double Nanoseconds(bool bDirect) {
  timespec stTime{};
  clock_gettime(bDirect ? CLOCK_MONOTONIC : CLOCK_PROCESS_CPUTIME_ID, &stTime);
  return static_cast<double>(stTime.tv_sec) * 1e9 + static_cast<double>(stTime.tv_nsec);
}

template <typename Contestant>
void Run(benchmark::State& stState, bool bDirect, unsigned int iDepth) {
  Target stTarget(bDirect);
  Contestant stContestant;
  stContestant.Write(stTarget, iDepth);
  size_t iBatches = 0;
  const double dBegin = Nanoseconds(bDirect);
  for (auto stIteration : stState) {
    static_cast<void>(stIteration);
    stContestant.Write(stTarget, iDepth);
    ++iBatches;
  }
  stState.counters["ns"] = (Nanoseconds(bDirect) - dBegin) / static_cast<double>(iBatches * iDepth);
}

template <typename Contestant>
void Register(const std::string& strName) {
  const struct {
    const char* pOperation;
    bool bDirect;
    unsigned int iDepth;
  } astOperations[] = {{"direct_32", true, 32}, {"direct_1", true, 1}, {"cached_32", false, 32}};
  for (const auto& stOperation : astOperations) {
    benchmark::RegisterBenchmark((std::string(stOperation.pOperation) + "/" + strName).c_str(),
                                 Run<Contestant>, stOperation.bDirect, stOperation.iDepth)
        ->UseRealTime();
  }
}

// In the working directory: /tmp is often a file system that lives in memory.
void MakeFile() {
  g_strFile = "aio_bench." + std::to_string(getpid());
  const int iFD = open(g_strFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  atexit([] { unlink(g_strFile.c_str()); });
  const std::string strZeros(BLOCKS * WRITE_SIZE, '\0');
  if (iFD == -1 || write(iFD, strZeros.data(), strZeros.size()) == -1 || fsync(iFD) != 0) {
    Fail("the file");
  }
  close(iFD);
}

}  // namespace

int main(int argc, char** argv) {
  MakeFile();
  Register<Zelk>("zelk");
  Register<Libaio>("libaio");
  Register<Pwrite>("pwrite");
  if (Uring().IsReady()) {
    Register<Uring>("uring");
  } else {
    printf("io_uring is switched off on this system\n");
  }
  return RunWithRatios(argc, argv);
}
