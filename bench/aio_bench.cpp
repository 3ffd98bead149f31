// Writes of 4 KiB to random places of one preallocated file of 16 MiB.
//
//   direct_32   O_DIRECT, 32 requests submitted, all collected, and so on
//   direct_1    O_DIRECT, one at a time
//   cached_32   through the page cache, 32 submitted, all collected
//
// Figures are per write: the time that passes, and for the cached case the processor time. Ours is
// used as in an event loop: one submission per request, a wait for the eventfd, a collection.
// "limit" is that written out by hand. "libaio" and "uring" submit a whole batch with one call and
// wait in the kernel for its end, without an event descriptor; "posix_aio" hands the batch to
// glibc's threads by lio_listio and waits for its end; "pwrite" writes one after the other.

#include <aio.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libaio.h>
#include <liburing.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
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
const int REPETITIONS = 25;  // a disk that is shared with others needs many short ones

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

// What both forms of bare libaio share.
class Context {
 public:
  Context() {
    if (io_queue_init(MAX_DEPTH, &m_pContext) != 0) {
      Fail("io_queue_init");
    }
  }
  ~Context() { io_queue_release(m_pContext); }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  iocb* Prepare(Target& stTarget, unsigned int i) {
    io_prep_pwrite(&m_aBlocks[i], stTarget.FD(), stTarget.Buffer(i), WRITE_SIZE,
                   static_cast<long long>(stTarget.NextOffset()));
    return &m_aBlocks[i];
  }
  void Submit(iocb** apBlocks, unsigned int iCount) {
    if (io_submit(m_pContext, iCount, apBlocks) != static_cast<int>(iCount)) {
      Fail("io_submit");
    }
  }
  // Waits for at least iLeast, takes at most iMost and returns how many.
  unsigned int Collect(unsigned int iLeast, unsigned int iMost) {
    io_event aEvents[MAX_DEPTH];
    timespec stNoWait{};
    const int iCount =
        io_getevents(m_pContext, iLeast, iMost, aEvents, iLeast == 0 ? &stNoWait : nullptr);
    if (iCount == -EINTR) {
      return 0;  // the kernel's own work for an earlier ring of this process
    }
    if (iCount < 0) {
      Fail("io_getevents");
    }
    for (int i = 0; i < iCount; ++i) {
      Check(static_cast<long>(aEvents[i].res));
    }
    return static_cast<unsigned int>(iCount);
  }

 private:
  io_context_t m_pContext = nullptr;
  iocb m_aBlocks[MAX_DEPTH];
};

class Libaio {
 public:
  void Write(Target& stTarget, unsigned int iDepth) {
    iocb* apBlocks[MAX_DEPTH];
    for (unsigned int i = 0; i < iDepth; ++i) {
      apBlocks[i] = m_stContext.Prepare(stTarget, i);
    }
    m_stContext.Submit(apBlocks, iDepth);
    for (unsigned int iDone = 0; iDone < iDepth;) {
      iDone += m_stContext.Collect(iDepth - iDone, iDepth - iDone);
    }
  }

 private:
  Context m_stContext;
};

// One by one and with an eventfd, as ours, but without a choice of anything.
class Limit {
 public:
  Limit() : m_iEventFD(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
  ~Limit() { close(m_iEventFD); }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

  void Write(Target& stTarget, unsigned int iDepth) {
    for (unsigned int i = 0; i < iDepth; ++i) {
      iocb* pBlock = m_stContext.Prepare(stTarget, i);
      io_set_eventfd(pBlock, m_iEventFD);
      m_stContext.Submit(&pBlock, 1);
    }
    for (unsigned int iDone = 0; iDone < iDepth;) {
      pollfd stPoll{m_iEventFD, POLLIN, 0};
      poll(&stPoll, 1, -1);
      uint64_t iReady = 0;
      if (read(m_iEventFD, &iReady, sizeof(iReady)) != sizeof(iReady)) {
        continue;
      }
      for (uint64_t iLeft = iReady; iLeft > 0;) {
        const unsigned int iCount = m_stContext.Collect(0, static_cast<unsigned int>(iLeft));
        iLeft -= iCount;
        iDone += iCount;
      }
    }
  }

 private:
  Context m_stContext;
  int m_iEventFD;
};

class PosixAio {
 public:
  void Write(Target& stTarget, unsigned int iDepth) {
    aiocb* apBlocks[MAX_DEPTH];
    for (unsigned int i = 0; i < iDepth; ++i) {
      aiocb& stBlock = m_aBlocks[i] = {};
      stBlock.aio_fildes = stTarget.FD();
      stBlock.aio_buf = stTarget.Buffer(i);
      stBlock.aio_nbytes = WRITE_SIZE;
      stBlock.aio_offset = static_cast<off_t>(stTarget.NextOffset());
      stBlock.aio_lio_opcode = LIO_WRITE;
      stBlock.aio_sigevent.sigev_notify = SIGEV_NONE;
      apBlocks[i] = &stBlock;
    }
    if (lio_listio(LIO_WAIT, apBlocks, static_cast<int>(iDepth), nullptr) != 0) {
      Fail("lio_listio");
    }
    for (unsigned int i = 0; i < iDepth; ++i) {
      Check(aio_return(apBlocks[i]));
    }
  }

 private:
  aiocb m_aBlocks[MAX_DEPTH];
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
void Register(const std::string& strName, bool bDirectWorks) {
  const struct {
    const char* pOperation;
    bool bDirect;
    unsigned int iDepth;
  } astOperations[] = {{"direct_32", true, 32}, {"direct_1", true, 1}, {"cached_32", false, 32}};
  for (const auto& stOperation : astOperations) {
    if (!stOperation.bDirect || bDirectWorks) {
      benchmark::RegisterBenchmark((std::string(stOperation.pOperation) + "/" + strName).c_str(),
                                   Run<Contestant>, stOperation.bDirect, stOperation.iDepth)
          ->UseRealTime()
          ->MinTime(0.05)
          ->Repetitions(REPETITIONS);
    }
  }
}

// False when the directory takes no file, or bDirect and its file system no O_DIRECT.
bool MakeFile(const std::string& strDirectory, bool bDirect) {
  g_strFile = strDirectory + "/aio_bench." + std::to_string(getpid());
  const int iFD = open(g_strFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (iFD == -1) {
    return false;
  }
  const std::string strZeros(BLOCKS * WRITE_SIZE, '\0');
  bool bMade =
      write(iFD, strZeros.data(), strZeros.size()) == static_cast<ssize_t>(strZeros.size()) &&
      fsync(iFD) == 0;
  close(iFD);
  if (bDirect) {
    const int iDirect = open(g_strFile.c_str(), O_RDWR | O_CLOEXEC | O_DIRECT);
    bMade = bMade && iDirect != -1;
    close(iDirect);
  }
  if (!bMade) {
    unlink(g_strFile.c_str());
  }
  return bMade;
}

}  // namespace

int main(int argc, char** argv) {
  // A disk, if there is one: /tmp is often a file system that lives in memory.
  const std::string aDirectories[] = {".", "/var/tmp", "/tmp"};
  const auto fnTakes = [&aDirectories](bool bDirect) {
    return std::any_of(std::begin(aDirectories), std::end(aDirectories),
                       [=](const std::string& strPath) { return MakeFile(strPath, bDirect); });
  };
  const bool bDirect = fnTakes(true);
  if (!bDirect) {
    printf("left out: O_DIRECT, which no file system here takes\n");
    if (!fnTakes(false)) {
      Fail("the file");
    }
  }
  atexit([] { unlink(g_strFile.c_str()); });
  Register<Zelk>("zelk", bDirect);
  Register<Limit>("limit", bDirect);
  Register<Libaio>("libaio", bDirect);
  Register<PosixAio>("posix_aio", bDirect);
  Register<Pwrite>("pwrite", bDirect);
  if (Uring().IsReady()) {
    Register<Uring>("uring", bDirect);
  } else {
    printf("left out: io_uring, which is switched off on this system\n");
  }
  return RunWithRatios(argc, argv);
}
