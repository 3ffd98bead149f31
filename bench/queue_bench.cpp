// Messages from one process to another: what writer and reader spend on one message together.
//
//   single_<size>/...   the writer hands over one message at a time
//   batch_<size>/...    the writer hands over 32 at a time (8 of 64 KiB), the best way each offers
//   turn_<size>/...     one process in turn sends 8 singly (4 of 64 KiB) and takes them together:
//                       no scheduler in the figure
//
// Each run forks a reader, sends a fixed number of messages to it as fast as they go, and adds up
// the CPU time of both processes. All do the same work: the reader sleeps in poll() until there is
// something, takes what is there, and has each message in an array of its own. Each channel has
// about CAPACITY bytes of room where the system allows that. "fifo-byte" sends no message at all,
// just the byte through a named FIFO that wakes the reader.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <limits.h>
#include <mqueue.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "message_queue.h"
#include "ratio_reporter.h"

namespace {

const unsigned int CAPACITY = 1 << 20;
const unsigned int BATCH = 32;
const unsigned int POP_BYTES = 1 << 13;
const size_t STREAM_BUFFER = 1 << 16;
const unsigned int LARGE = 1 << 14;  // a message above it is one of the 64 KiB

[[noreturn]] void Die(const char* pWhat) {
  fprintf(stderr, "queue_bench: %s: %s\n", pWhat, strerror(errno));
  _exit(1);
}

void Check(bool bGood, const char* pWhat) {
  if (!bGood) {
    Die(pWhat);
  }
}

double CpuNanoseconds() {
  timespec stTime{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &stTime);
  return static_cast<double>(stTime.tv_sec) * 1e9 + static_cast<double>(stTime.tv_nsec);
}

void WaitReadable(int iFD) {
  pollfd stPoll{iFD, POLLIN, 0};
  poll(&stPoll, 1, -1);
}

// The other side is behind; what a host would do in the meantime.
void Pause() {
  const timespec stPause{0, 20000};
  nanosleep(&stPause, nullptr);
}

// The reader's application: gets a message that it owns, looks at both ends, drops it.
void Consume(const char* pData, unsigned int iSize) {
  Check(pData[0] == 'm' && pData[iSize - 1] == 'm', "wrong message");
  delete[] pData;
}

void ConsumeCopy(const char* pData, unsigned int iSize) {
  char* const pCopy = new char[iSize];
  memcpy(pCopy, pData, iSize);
  Consume(pCopy, iSize);
}

// One way for messages of one size from one process to another. Made before the fork.
class Channel {
 public:
  explicit Channel(unsigned int iSize) : m_iSize(iSize), m_strMessage(iSize, 'm') {}
  virtual ~Channel() = default;
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  virtual void StartWriter() {}
  virtual void StartReader() {}
  virtual void Send(unsigned int iCount) = 0;  // returns when all are handed over
  virtual void Wait() = 0;                     // until there may be something
  virtual unsigned int Receive() = 0;          // takes all that is there

 protected:
  unsigned int m_iSize;
  std::string m_strMessage;
};

// A directory for FIFOs and sockets, removed with them.
class Directory {
 public:
  Directory() { Check(mkdtemp(m_szPath) != nullptr, "mkdtemp"); }
  ~Directory() {
    unlink(File().c_str());
    rmdir(m_szPath);
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  std::string File() const { return std::string(m_szPath) + "/channel"; }

 private:
  char m_szPath[32] = "/tmp/queue_bench_XXXXXX";
};

class ZelkChannel : public Channel {
 public:
  explicit ZelkChannel(unsigned int iSize) : Channel(iSize) {
    Attach();
    m_stQueue.Delete();  // for good when both are gone; the reader has inherited it
    for (BufferVec_t& stMessage : m_astMessages) {
      stMessage = {m_strMessage.data(), m_iSize};
    }
  }

  void Send(unsigned int iCount) override {
    while (m_stQueue.Push(m_astMessages, iCount) == 0) {
      Pause();
    }
  }
  void Wait() override { WaitReadable(m_stQueue.FifoFD()); }
  unsigned int Receive() override {
    unsigned int iReceived = 0;
    BufferVec_t astMessages[BATCH];
    m_stQueue.ClearFifo();
    for (int n = 0; (n = m_stQueue.Pop(astMessages, m_iPopCount)) > 0;) {
      for (int i = 0; i < n; ++i) {
        Consume(astMessages[i].pData, astMessages[i].iSize);
      }
      iReceived += static_cast<unsigned int>(n);
    }
    return iReceived;
  }

 private:
  void Attach() {
    Check(m_stQueue.Attach(m_stDirectory.File().c_str(), 1, CAPACITY) == 0, "Attach");
  }

  Directory m_stDirectory;
  MessageQueue m_stQueue;
  BufferVec_t m_astMessages[BATCH];
  // As many as the allocator serves without going to the system; the others take one at a time.
  const unsigned int m_iPopCount = std::clamp(POP_BYTES / m_iSize, 1u, BATCH);
};

// The wake-up alone.
class FifoByteChannel : public Channel {
 public:
  explicit FifoByteChannel(unsigned int iSize) : Channel(iSize) {
    Check(mkfifo(m_stDirectory.File().c_str(), 0600) == 0, "mkfifo");
    m_iFD = open(m_stDirectory.File().c_str(), O_RDWR | O_NONBLOCK);
    fcntl(m_iFD, F_SETPIPE_SZ, CAPACITY);  // here no byte may be lost
  }
  ~FifoByteChannel() override { close(m_iFD); }

  void Send(unsigned int /*iCount*/) override {
    while (write(m_iFD, &FIFO_DATA, 1) != 1) {
      Pause();
    }
  }
  void Wait() override { WaitReadable(m_iFD); }
  unsigned int Receive() override {
    char szBytes[1024];
    unsigned int iReceived = 0;
    ssize_t iRead = 0;
    do {
      iRead = read(m_iFD, szBytes, sizeof(szBytes));
      iReceived += iRead > 0 ? static_cast<unsigned int>(iRead) : 0;
    } while (iRead == sizeof(szBytes));
    return iReceived;
  }

 private:
  Directory m_stDirectory;
  int m_iFD;
};

// Messages behind a 4-byte length each, through a stream of bytes: a pipe or a socket.
class StreamChannel : public Channel {
 public:
  ~StreamChannel() override {
    close(m_aiFDs[0]);
    close(m_aiFDs[1]);
  }

  void Send(unsigned int iCount) override {
    const size_t iWhole = iCount * (sizeof(m_iSize) + m_iSize);
    ssize_t iWritten = 0;
    do {
      iWritten = writev(m_aiFDs[1], m_astPieces, static_cast<int>(2 * iCount));
    } while (iWritten == -1 && errno == EAGAIN);
    Check(iWritten > 0, "writev");
    for (auto iDone = static_cast<size_t>(iWritten); iDone < iWhole;) {
      iDone += SendRest(iDone);
    }
  }
  void Wait() override { WaitReadable(m_aiFDs[0]); }

  unsigned int Receive() override { return m_iSize > LARGE ? ReceiveLarge() : ReceiveSmall(); }

 protected:
  explicit StreamChannel(unsigned int iSize)
      : Channel(iSize), m_vecBuffer(STREAM_BUFFER + sizeof(m_iSize) + iSize) {
    for (unsigned int i = 0; i < 2 * BATCH; i += 2) {
      m_astPieces[i] = {&m_iSize, sizeof(m_iSize)};
      m_astPieces[i + 1] = {m_strMessage.data(), m_iSize};
    }
  }

  int m_aiFDs[2] = {-1, -1};  // reader's non-blocking, writer's blocking

 private:
  size_t SendRest(size_t iDone) {
    const size_t iRecord = sizeof(m_iSize) + m_iSize;
    const size_t iInside = iDone % iRecord;
    const char* pFrom = nullptr;
    size_t iLeft = 0;
    if (iInside < sizeof(m_iSize)) {
      pFrom = reinterpret_cast<const char*>(&m_iSize) + iInside;
      iLeft = sizeof(m_iSize) - iInside;
    } else {
      pFrom = m_strMessage.data() + (iInside - sizeof(m_iSize));
      iLeft = iRecord - iInside;
    }
    const ssize_t iWritten = write(m_aiFDs[1], pFrom, iLeft);
    Check(iWritten > 0, "write");
    return static_cast<size_t>(iWritten);
  }

  // Many messages for one system call, each copied once more.
  unsigned int ReceiveSmall() {
    unsigned int iReceived = 0;
    for (;;) {
      const ssize_t iRead =
          read(m_aiFDs[0], m_vecBuffer.data() + m_iFilled, m_vecBuffer.size() - m_iFilled);
      if (iRead <= 0) {
        return iReceived;
      }
      m_iFilled += static_cast<size_t>(iRead);
      iReceived += Split();
    }
  }

  // First the length, then the rest straight to where it belongs.
  unsigned int ReceiveLarge() {
    unsigned int iReceived = 0;
    for (;;) {
      char* const pTo = m_pLarge == nullptr ? m_szLength : m_pLarge;
      const size_t iWanted = m_pLarge == nullptr ? sizeof(m_szLength) : m_iLarge;
      const ssize_t iRead = read(m_aiFDs[0], pTo + m_iFilled, iWanted - m_iFilled);
      if (iRead <= 0) {
        return iReceived;
      }
      m_iFilled += static_cast<size_t>(iRead);
      if (m_iFilled == iWanted) {
        iReceived += FinishPart();
      }
    }
  }

  unsigned int FinishPart() {
    m_iFilled = 0;
    if (m_pLarge == nullptr) {
      memcpy(&m_iLarge, m_szLength, sizeof(m_iLarge));
      m_pLarge = new char[m_iLarge];
      return 0;
    }
    Consume(m_pLarge, m_iLarge);
    m_pLarge = nullptr;
    return 1;
  }

  unsigned int Split() {
    unsigned int iReceived = 0;
    size_t iDone = 0;
    for (;;) {
      unsigned int iSize = 0;
      if (m_iFilled - iDone < sizeof(iSize)) {
        break;
      }
      memcpy(&iSize, m_vecBuffer.data() + iDone, sizeof(iSize));
      if (m_iFilled - iDone - sizeof(iSize) < iSize) {
        break;
      }
      ConsumeCopy(m_vecBuffer.data() + iDone + sizeof(iSize), iSize);
      iDone += sizeof(iSize) + iSize;
      ++iReceived;
    }
    memmove(m_vecBuffer.data(), m_vecBuffer.data() + iDone, m_iFilled - iDone);
    m_iFilled -= iDone;
    return iReceived;
  }

  iovec m_astPieces[2 * BATCH];
  std::vector<char> m_vecBuffer;
  size_t m_iFilled = 0;
  char m_szLength[sizeof(m_iSize)];
  unsigned int m_iLarge = 0;
  char* m_pLarge = nullptr;
};

class PipeChannel : public StreamChannel {
 public:
  explicit PipeChannel(unsigned int iSize) : StreamChannel(iSize) {
    Check(pipe(m_aiFDs) == 0, "pipe");
    fcntl(m_aiFDs[0], F_SETFL, O_NONBLOCK);
    fcntl(m_aiFDs[1], F_SETPIPE_SZ, CAPACITY);
  }
};

void OpenSockets(int iType, int (&aiFDs)[2]) {
  const int iRoom = CAPACITY;
  Check(socketpair(AF_UNIX, iType, 0, aiFDs) == 0, "socketpair");
  fcntl(aiFDs[0], F_SETFL, O_NONBLOCK);
  setsockopt(aiFDs[1], SOL_SOCKET, SO_SNDBUF, &iRoom, sizeof(iRoom));
}

class UnixStreamChannel : public StreamChannel {
 public:
  explicit UnixStreamChannel(unsigned int iSize) : StreamChannel(iSize) {
    OpenSockets(SOCK_STREAM, m_aiFDs);
  }
};

class SeqpacketChannel : public Channel {
 public:
  explicit SeqpacketChannel(unsigned int iSize) : Channel(iSize) {
    OpenSockets(SOCK_SEQPACKET, m_aiFDs);
    for (unsigned int i = 0; i < BATCH; ++i) {
      m_astOut[i] = {m_strMessage.data(), m_iSize};
      m_astIn[i] = {new char[m_iSize], m_iSize};
      m_astOutHeads[i].msg_hdr.msg_iov = &m_astOut[i];
      m_astOutHeads[i].msg_hdr.msg_iovlen = 1;
      m_astInHeads[i].msg_hdr.msg_iov = &m_astIn[i];
      m_astInHeads[i].msg_hdr.msg_iovlen = 1;
    }
  }
  ~SeqpacketChannel() override {
    for (const iovec& stIn : m_astIn) {
      delete[] static_cast<char*>(stIn.iov_base);
    }
    close(m_aiFDs[0]);
    close(m_aiFDs[1]);
  }

  void Send(unsigned int iCount) override {
    for (unsigned int iDone = 0; iDone < iCount;) {
      const int iSent = iCount == 1
                            ? (send(m_aiFDs[1], m_strMessage.data(), m_iSize, 0) < 0 ? -1 : 1)
                            : sendmmsg(m_aiFDs[1], m_astOutHeads, iCount - iDone, 0);
      Check(iSent > 0, "sendmmsg");
      iDone += static_cast<unsigned int>(iSent);
    }
  }
  void Wait() override { WaitReadable(m_aiFDs[0]); }
  unsigned int Receive() override {
    unsigned int iReceived = 0;
    for (int n = 0; (n = recvmmsg(m_aiFDs[0], m_astInHeads, BATCH, 0, nullptr)) > 0;) {
      for (int i = 0; i < n; ++i) {
        Consume(static_cast<char*>(m_astIn[i].iov_base), m_astInHeads[i].msg_len);
        m_astIn[i].iov_base = new char[m_iSize];
      }
      iReceived += static_cast<unsigned int>(n);
    }
    return iReceived;
  }

 private:
  int m_aiFDs[2] = {-1, -1};
  iovec m_astOut[BATCH];
  iovec m_astIn[BATCH];
  mmsghdr m_astOutHeads[BATCH] = {};
  mmsghdr m_astInHeads[BATCH] = {};
};

// At most 8192 bytes a message and ten messages, unless root has raised the system's limits.
class PosixMqChannel : public Channel {
 public:
  explicit PosixMqChannel(unsigned int iSize) : Channel(iSize) {
    const std::string strName = "/queue_bench_" + std::to_string(getpid());
    mq_attr stLimits{};
    stLimits.mq_maxmsg = 10;
    stLimits.mq_msgsize = static_cast<long>(iSize);
    m_iWriter = mq_open(strName.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0600, &stLimits);
    m_iReader = mq_open(strName.c_str(), O_RDONLY | O_NONBLOCK);
    Check(m_iWriter != -1 && m_iReader != -1, "mq_open");
    mq_unlink(strName.c_str());
  }
  ~PosixMqChannel() override {
    mq_close(m_iWriter);
    mq_close(m_iReader);
  }

  void Send(unsigned int iCount) override {
    for (unsigned int i = 0; i < iCount; ++i) {
      Check(mq_send(m_iWriter, m_strMessage.data(), m_iSize, 0) == 0, "mq_send");
    }
  }
  void Wait() override { WaitReadable(m_iReader); }
  unsigned int Receive() override {
    unsigned int iReceived = 0;
    for (;;) {
      char* const pData = new char[m_iSize];
      const ssize_t n = mq_receive(m_iReader, pData, m_iSize, nullptr);
      if (n < 0) {
        delete[] pData;
        return iReceived;
      }
      Consume(pData, static_cast<unsigned int>(n));
      ++iReceived;
    }
  }

 private:
  mqd_t m_iWriter;
  mqd_t m_iReader;
};

// The messages through Boost's queue, the wake-up through an eventfd, once for each Send.
class BoostChannel : public Channel {
 public:
  explicit BoostChannel(unsigned int iSize)
      : Channel(iSize),
        m_strName("queue_bench_" + std::to_string(getpid())),
        m_stQueue(boost::interprocess::create_only, m_strName.c_str(), CAPACITY / (iSize + 4),
                  iSize),
        m_iWakeFD(eventfd(0, EFD_NONBLOCK)) {
    boost::interprocess::message_queue::remove(m_strName.c_str());  // mapped while in use
  }
  ~BoostChannel() override { close(m_iWakeFD); }

  void Send(unsigned int iCount) override {
    for (unsigned int i = 0; i < iCount; ++i) {
      while (!m_stQueue.try_send(m_strMessage.data(), m_iSize, 0)) {
        Wake();
        Pause();
      }
    }
    Wake();
  }
  void Wait() override { WaitReadable(m_iWakeFD); }
  unsigned int Receive() override {
    uint64_t iWakes = 0;
    unsigned int iReceived = 0;
    Check(read(m_iWakeFD, &iWakes, sizeof(iWakes)) == sizeof(iWakes), "eventfd");
    for (;;) {
      size_t iSize = 0;
      unsigned int iPriority = 0;
      char* const pData = new char[m_iSize];
      if (!m_stQueue.try_receive(pData, m_iSize, iSize, iPriority)) {
        delete[] pData;
        return iReceived;
      }
      Consume(pData, static_cast<unsigned int>(iSize));
      ++iReceived;
    }
  }

 private:
  void Wake() const {
    const uint64_t iOne = 1;
    Check(write(m_iWakeFD, &iOne, sizeof(iOne)) == sizeof(iOne), "eventfd");
  }

  std::string m_strName;
  boost::interprocess::message_queue m_stQueue;
  int m_iWakeFD;
};

class ZeroMqChannel : public Channel {
 public:
  explicit ZeroMqChannel(unsigned int iSize) : Channel(iSize) {}
  ~ZeroMqChannel() override {
    if (m_pSocket != nullptr) {
      zmq_close(m_pSocket);
      zmq_ctx_term(m_pContext);
    }
  }

  void StartWriter() override { Start(ZMQ_PUSH, ZMQ_SNDHWM, zmq_connect); }
  void StartReader() override { Start(ZMQ_PULL, ZMQ_RCVHWM, zmq_bind); }
  void Send(unsigned int iCount) override {
    for (unsigned int i = 0; i < iCount; ++i) {
      Check(zmq_send(m_pSocket, m_strMessage.data(), m_iSize, 0) != -1, "zmq_send");
    }
  }
  void Wait() override {
    zmq_pollitem_t stItem{m_pSocket, 0, ZMQ_POLLIN, 0};
    zmq_poll(&stItem, 1, -1);
  }
  unsigned int Receive() override {
    unsigned int iReceived = 0;
    zmq_msg_t stMessage;
    zmq_msg_init(&stMessage);
    while (zmq_msg_recv(&stMessage, m_pSocket, ZMQ_DONTWAIT) != -1) {
      const auto* pData = static_cast<const char*>(zmq_msg_data(&stMessage));
      Check(pData[0] == 'm' && pData[m_iSize - 1] == 'm', "wrong message");  // it owns an array
      ++iReceived;
    }
    zmq_msg_close(&stMessage);
    return iReceived;
  }

 private:
  void Start(int iType, int iLimitOption, int (*pOpen)(void*, const char*)) {
    const int iLimit = static_cast<int>(CAPACITY / m_iSize) + 1;
    m_pContext = zmq_ctx_new();
    m_pSocket = zmq_socket(m_pContext, iType);
    zmq_setsockopt(m_pSocket, iLimitOption, &iLimit, sizeof(iLimit));
    Check(pOpen(m_pSocket, ("ipc://" + m_stDirectory.File()).c_str()) == 0, "ipc");
  }

  Directory m_stDirectory;
  void* m_pContext = nullptr;
  void* m_pSocket = nullptr;
};

typedef std::function<std::unique_ptr<Channel>(unsigned int)> MakeChannel_t;

struct Exchange_t {
  volatile bool bReady;  // the reader is there
  double dReaderNs;
};

[[noreturn]] void RunReader(Channel& stChannel, unsigned int iMessages, Exchange_t& stExchange) {
  stChannel.StartReader();
  stExchange.bReady = true;
  const double dStart = CpuNanoseconds();
  for (unsigned int iReceived = 0; iReceived < iMessages;) {
    stChannel.Wait();
    iReceived += stChannel.Receive();
  }
  stExchange.dReaderNs = CpuNanoseconds() - dStart;
  _exit(0);
}

// One run between two processes; the CPU time of both.
double RunPair(const MakeChannel_t& fnMake, unsigned int iSize, unsigned int iBatch,
               unsigned int iMessages) {
  const std::unique_ptr<Channel> pChannel = fnMake(iSize);
  auto* pExchange = static_cast<Exchange_t*>(
      mmap(nullptr, sizeof(Exchange_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const pid_t iReader = fork();
  if (iReader == 0) {
    RunReader(*pChannel, iMessages, *pExchange);
  }
  while (!pExchange->bReady) {
    Pause();
  }
  pChannel->StartWriter();
  const double dStart = CpuNanoseconds();
  for (unsigned int i = 0; i < iMessages; i += iBatch) {
    pChannel->Send(iBatch);
  }
  int iStatus = 0;
  waitpid(iReader, &iStatus, 0);
  const double dNs = CpuNanoseconds() - dStart + pExchange->dReaderNs;
  munmap(pExchange, sizeof(Exchange_t));
  Check(WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 0, "the reader failed");
  return dNs;
}

double RunTurns(const MakeChannel_t& fnMake, unsigned int iSize, unsigned int iMessages) {
  const std::unique_ptr<Channel> pChannel = fnMake(iSize);
  const unsigned int iTurn = iSize > LARGE ? 4 : 8;
  const double dStart = CpuNanoseconds();
  for (unsigned int iReceived = 0; iReceived < iMessages;) {
    for (unsigned int i = 0; i < iTurn; ++i) {
      pChannel->Send(1);
    }
    iReceived += pChannel->Receive();
  }
  return CpuNanoseconds() - dStart;
}

void Report(benchmark::State& stState, double dNs, unsigned int iMessages) {
  stState.SetIterationTime(dNs / 1e9);
  stState.counters["ns"] = dNs / iMessages;
}

void Register(const std::string& strName, const std::function<double()>& fnRun,
              unsigned int iMessages) {
  benchmark::RegisterBenchmark(strName.c_str(),
                               [fnRun, iMessages](benchmark::State& stState) {
                                 for (auto _ : stState) {
                                   Report(stState, fnRun(), iMessages);
                                 }
                               })
      ->Iterations(1)
      ->UseManualTime();
}

// So many that a run takes some tenths of a second.
unsigned int Messages(unsigned int iSize, bool bBatches) {
  const unsigned int iCount = iSize > LARGE ? 320 : iSize > 1024 ? 3200 : 9600;
  return BATCH * (bBatches && iSize <= 1024 ? 4 * iCount : iCount);
}

struct Contestant_t {
  const char* pName;
  unsigned int iLargest;  // message that it takes
  bool bBatches;
  bool bTurns;
  MakeChannel_t fnMake;
};

template <typename T>
std::unique_ptr<Channel> Make(unsigned int iSize) {
  return std::make_unique<T>(iSize);
}

void RegisterAll(const Contestant_t& stContestant, unsigned int iSize, const char* pSize) {
  const std::string strSuffix = std::string("_") + pSize + "/" + stContestant.pName;
  const MakeChannel_t& fnMake = stContestant.fnMake;
  const unsigned int iBatch = iSize > LARGE ? BATCH / 4 : BATCH;  // two batches have room
  const unsigned int iSingle = Messages(iSize, false);
  const unsigned int iBatched = Messages(iSize, true);
  Register(
      "single" + strSuffix, [=] { return RunPair(fnMake, iSize, 1, iSingle); }, iSingle);
  if (stContestant.bBatches) {
    Register(
        "batch" + strSuffix, [=] { return RunPair(fnMake, iSize, iBatch, iBatched); }, iBatched);
  }
  if (stContestant.bTurns) {
    Register(
        "turn" + strSuffix, [=] { return RunTurns(fnMake, iSize, iSingle); }, iSingle);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Contestant_t aContestants[] = {
      {"zelk", UINT_MAX, true, true, Make<ZelkChannel>},
      {"fifo-byte", UINT_MAX, false, true, Make<FifoByteChannel>},
      {"pipe", UINT_MAX, true, true, Make<PipeChannel>},
      {"unix-stream", UINT_MAX, true, true, Make<UnixStreamChannel>},
      {"unix-seqpacket", UINT_MAX, true, true, Make<SeqpacketChannel>},
      {"posix-mq", 8192, true, true, Make<PosixMqChannel>},
      {"boost-mq+eventfd", UINT_MAX, true, true, Make<BoostChannel>},
      {"zeromq-ipc", UINT_MAX, true, false, Make<ZeroMqChannel>},
  };
  const std::pair<unsigned int, const char*> aSizes[] = {
      {16, "16B"}, {256, "256B"}, {4096, "4KiB"}, {65536, "64KiB"}};
  for (const auto& stSize : aSizes) {
    for (const Contestant_t& stContestant : aContestants) {
      if (stSize.first <= stContestant.iLargest) {
        RegisterAll(stContestant, stSize.first, stSize.second);
      }
    }
  }
  return RunWithRatios(argc, argv);
}
