#ifndef ZELK_BENCH_QUEUE_CHANNELS_H
#define ZELK_BENCH_QUEUE_CHANNELS_H

// The ways to carry messages from one process to another that queue_bench.cpp compares.
//
// All do the same work: the writer hands over messages that it keeps, the reader has each in an
// array of its own, looks at both ends and drops it. Each has about CAPACITY bytes of room where
// the system allows that.

#include <fcntl.h>
#include <mqueue.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/lockfree/spsc_queue.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "message_queue.h"

const unsigned int CAPACITY = 1 << 20;
const unsigned int BATCH = 32;       // the most messages of one Send
const unsigned int LARGE = 1 << 14;  // a message above it is one of the 64 KiB

[[noreturn]] inline void Die(const char* pWhat) {
  fprintf(stderr, "queue_bench: %s: %s\n", pWhat, strerror(errno));
  _exit(1);
}

inline void Check(bool bGood, const char* pWhat) {
  if (!bGood) {
    Die(pWhat);
  }
}

// The reader's application: gets a message that it owns.
inline void Consume(const char* pData, unsigned int iSize) {
  Check(pData[0] == 'm' && pData[iSize - 1] == 'm', "wrong message");
  delete[] pData;
}

inline void ConsumeCopy(const char* pData, unsigned int iSize) {
  char* const pCopy = new char[iSize];
  memcpy(pCopy, pData, iSize);
  Consume(pCopy, iSize);
}

// One way for messages of one size. Made before the fork.
class Channel {
 public:
  explicit Channel(unsigned int iSize) : m_iSize(iSize), m_strMessage(iSize, 'm') {}
  virtual ~Channel() = default;
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // The reader asks without end instead of sleeping: nobody need wake it.
  void Spin() { m_bSpin = true; }
  void Wait() {
    if (m_bSpin) {
      __builtin_ia32_pause();
    } else {
      Sleep();
    }
  }

  virtual void StartWriter() {}
  virtual void StartReader() {}
  virtual void Flush() {}                      // before the writer ends
  virtual void Send(unsigned int iCount) = 0;  // returns when all are handed over
  virtual unsigned int Receive() = 0;          // takes all that is there

 protected:
  virtual void Sleep() = 0;  // until there may be something

  // Takes messages through the whole of a channel's own memory, so that none of its pages is
  // touched for the first time while something is measured.
  void Warm() {
    for (size_t iBytes = 0; iBytes < CAPACITY; iBytes += m_iSize * (BATCH / 4)) {
      Send(BATCH / 4);
      Receive();
    }
  }

  static void SleepOn(int iFD) {
    pollfd stPoll{iFD, POLLIN, 0};
    poll(&stPoll, 1, -1);
  }

  // The reader is behind: sleeps, longer each time until Resume(), so that the processor time of
  // looking again stays small however long the reader is kept from its processor.
  void Pause() {
    if (m_bSpin) {
      __builtin_ia32_pause();
      return;
    }
    const timespec stPause{0, m_iPause};
    nanosleep(&stPause, nullptr);
    m_iPause = std::min(2 * m_iPause, LONGEST_PAUSE);
  }
  void Resume() { m_iPause = SHORTEST_PAUSE; }

  const unsigned int m_iSize;
  std::string m_strMessage;
  bool m_bSpin = false;

 private:
  static constexpr long SHORTEST_PAUSE = 20000;  // nanoseconds
  static constexpr long LONGEST_PAUSE = 2000000;
  long m_iPause = SHORTEST_PAUSE;
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

// Memory that writer and reader share.
template <typename T>
class Shared {
 public:
  Shared() {
    void* pMemory =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Check(pMemory != MAP_FAILED, "mmap");
    m_pValue = new (pMemory) T;
  }
  ~Shared() { munmap(static_cast<void*>(m_pValue), sizeof(T)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  T* operator->() const { return m_pValue; }

 private:
  T* m_pValue;
};

// A sleeper's alarm beside shared memory, for the peers that have none.
class Eventfd {
 public:
  ~Eventfd() { close(m_iFD); }
  int FD() const { return m_iFD; }
  void Raise() const {
    const uint64_t iOne = 1;
    Check(write(m_iFD, &iOne, sizeof(iOne)) == sizeof(iOne), "eventfd");
  }
  void Clear() const {
    uint64_t iRaised = 0;
    Check(read(m_iFD, &iRaised, sizeof(iRaised)) == sizeof(iRaised), "eventfd");
  }

 private:
  int m_iFD = eventfd(0, EFD_NONBLOCK);
};

class ZelkChannel : public Channel {
 public:
  explicit ZelkChannel(unsigned int iSize) : Channel(iSize) {
    const std::string strFifo = m_stDirectory.File();
    Check(m_stQueue.AttachWithKey(strFifo.c_str(), IPC_PRIVATE, CAPACITY) == 0, "AttachWithKey");
    m_stQueue.Delete();  // for good when both are gone; the reader inherits it
    std::fill_n(m_astMessages, BATCH, BufferVec_t{m_strMessage.data(), m_iSize});
    Warm();
  }

  void Send(unsigned int iCount) override {
    while (m_stQueue.Push(m_astMessages, iCount) == 0) {
      Pause();
    }
    Resume();
  }
  unsigned int Receive() override {
    unsigned int iReceived = 0;
    BufferVec_t astMessages[BATCH];
    if (!m_bSpin) {
      m_stQueue.ClearFifo();
    }
    for (int n = 0; (n = m_stQueue.Pop(astMessages, m_iPopCount)) > 0;) {
      for (int i = 0; i < n; ++i) {
        Consume(astMessages[i].pData, astMessages[i].iSize);
      }
      iReceived += static_cast<unsigned int>(n);
    }
    return iReceived;
  }

 private:
  void Sleep() override { SleepOn(m_stQueue.FifoFD()); }

  Directory m_stDirectory;
  MessageQueue m_stQueue;
  BufferVec_t m_astMessages[BATCH];
  // As many arrays as the allocator keeps at hand of one size; large ones one at a time.
  const unsigned int m_iPopCount = std::clamp(8192 / m_iSize, 1u, 7u);
};

// What nothing of this kind can undercut: a copy into a slot and one out of it, two counts, and the
// byte through a named FIFO that wakes the reader. One size, no lengths, no end to go over.
class LimitChannel : public Channel {
 public:
  explicit LimitChannel(unsigned int iSize) : Channel(iSize), m_iSlots(CAPACITY / iSize) {
    Check(mkfifo(m_stDirectory.File().c_str(), 0600) == 0, "mkfifo");
    m_iFD = open(m_stDirectory.File().c_str(), O_RDWR | O_NONBLOCK);
    Warm();
  }
  ~LimitChannel() override { close(m_iFD); }

  void Send(unsigned int iCount) override {
    while (m_iSent + iCount - m_stRing->iReceived.load(std::memory_order_acquire) > m_iSlots) {
      Pause();
    }
    Resume();
    for (unsigned int i = 0; i < iCount; ++i) {
      memcpy(Slot(m_iSent++), m_strMessage.data(), m_iSize);
    }
    m_stRing->iSent.store(m_iSent, std::memory_order_release);
    if (!m_bSpin) {
      static_cast<void>(!write(m_iFD, &FIFO_DATA, 1));
    }
  }
  unsigned int Receive() override {
    char szBytes[1024];
    while (!m_bSpin && read(m_iFD, szBytes, sizeof(szBytes)) == sizeof(szBytes)) {
    }
    const unsigned int iFirst = m_iReceived;
    const unsigned int iEnd = m_stRing->iSent.load(std::memory_order_acquire);
    while (m_iReceived != iEnd) {
      ConsumeCopy(Slot(m_iReceived++), m_iSize);
      m_stRing->iReceived.store(m_iReceived, std::memory_order_release);
    }
    return iEnd - iFirst;
  }

 private:
  struct Ring_t {
    std::atomic<unsigned int> iSent{0};
    alignas(64) std::atomic<unsigned int> iReceived{0};
    alignas(64) char szSlots[CAPACITY];
  };

  void Sleep() override { SleepOn(m_iFD); }
  char* Slot(unsigned int i) const {
    return m_stRing->szSlots + static_cast<size_t>(i % m_iSlots) * m_iSize;
  }

  Directory m_stDirectory;
  Shared<Ring_t> m_stRing;
  const unsigned int m_iSlots;
  unsigned int m_iSent = 0;
  unsigned int m_iReceived = 0;
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
  unsigned int Receive() override { return m_iSize > LARGE ? ReceiveLarge() : ReceiveSmall(); }

 protected:
  explicit StreamChannel(unsigned int iSize)
      : Channel(iSize), m_vecBuffer((1 << 16) + sizeof(m_iSize) + iSize) {
    for (unsigned int i = 0; i < 2 * BATCH; i += 2) {
      m_astPieces[i] = {const_cast<unsigned int*>(&m_iSize), sizeof(m_iSize)};
      m_astPieces[i + 1] = {m_strMessage.data(), m_iSize};
    }
  }

  int m_aiFDs[2] = {-1, -1};  // reader's non-blocking, writer's blocking

 private:
  void Sleep() override { SleepOn(m_aiFDs[0]); }

  size_t SendRest(size_t iDone) {
    const size_t iRecord = sizeof(m_iSize) + m_iSize;
    const size_t iInside = iDone % iRecord;
    const bool bLength = iInside < sizeof(m_iSize);
    const char* pFrom = bLength ? reinterpret_cast<const char*>(&m_iSize) + iInside
                                : m_strMessage.data() + (iInside - sizeof(m_iSize));
    const ssize_t iWritten =
        write(m_aiFDs[1], pFrom, (bLength ? sizeof(m_iSize) : iRecord) - iInside);
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

  unsigned int Split() {
    unsigned int iReceived = 0;
    unsigned int iSize = 0;
    size_t iDone = 0;
    for (; m_iFilled - iDone >= sizeof(iSize); iDone += sizeof(iSize) + iSize, ++iReceived) {
      memcpy(&iSize, m_vecBuffer.data() + iDone, sizeof(iSize));
      if (m_iFilled - iDone - sizeof(iSize) < iSize) {
        break;
      }
      ConsumeCopy(m_vecBuffer.data() + iDone + sizeof(iSize), iSize);
    }
    memmove(m_vecBuffer.data(), m_vecBuffer.data() + iDone, m_iFilled - iDone);
    m_iFilled -= iDone;
    return iReceived;
  }

  // First the length, then the rest straight to where it belongs.
  unsigned int ReceiveLarge() {
    unsigned int iReceived = 0;
    for (;;) {
      char* const pTo = m_pLarge == nullptr ? reinterpret_cast<char*>(&m_iLarge) : m_pLarge;
      const size_t iWanted = m_pLarge == nullptr ? sizeof(m_iLarge) : m_iLarge;
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
      m_pLarge = new char[m_iLarge];
      return 0;
    }
    Consume(m_pLarge, m_iLarge);
    m_pLarge = nullptr;
    return 1;
  }

  iovec m_astPieces[2 * BATCH];
  std::vector<char> m_vecBuffer;
  size_t m_iFilled = 0;
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

inline void OpenSockets(int iType, int (&aiFDs)[2]) {
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
    if (iCount == 1) {
      Check(send(m_aiFDs[1], m_strMessage.data(), m_iSize, 0) > 0, "send");
      return;
    }
    for (unsigned int iDone = 0; iDone < iCount;) {
      const int iSent = sendmmsg(m_aiFDs[1], m_astOutHeads, iCount - iDone, 0);
      Check(iSent > 0, "sendmmsg");
      iDone += static_cast<unsigned int>(iSent);
    }
  }
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
  void Sleep() override { SleepOn(m_aiFDs[0]); }

  int m_aiFDs[2] = {-1, -1};
  iovec m_astOut[BATCH];
  iovec m_astIn[BATCH];
  mmsghdr m_astOutHeads[BATCH] = {};
  mmsghdr m_astInHeads[BATCH] = {};
};

// Ten messages and 8192 bytes each at most, unless root has raised the system's limits.
class PosixMqChannel : public Channel {
 public:
  static const unsigned int LARGEST = 8192;

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
  unsigned int Receive() override {
    for (unsigned int iReceived = 0;; ++iReceived) {
      std::unique_ptr<char[]> pData(new char[m_iSize]);
      const ssize_t n = mq_receive(m_iReader, pData.get(), m_iSize, nullptr);
      if (n < 0) {
        return iReceived;
      }
      Consume(pData.release(), static_cast<unsigned int>(n));
    }
  }

 private:
  void Sleep() override { SleepOn(m_iReader); }

  mqd_t m_iWriter;
  mqd_t m_iReader;
};

// Boost's queue in shared memory, and an eventfd for each Send to a reader that may sleep.
class BoostChannel : public Channel {
 public:
  explicit BoostChannel(unsigned int iSize)
      : Channel(iSize),
        m_strName("queue_bench_" + std::to_string(getpid())),
        m_stQueue(boost::interprocess::create_only, m_strName.c_str(), CAPACITY / (iSize + 4),
                  iSize) {
    boost::interprocess::message_queue::remove(m_strName.c_str());  // mapped while in use
    Warm();
  }

  void Send(unsigned int iCount) override {
    for (unsigned int i = 0; i < iCount; ++i) {
      while (!m_stQueue.try_send(m_strMessage.data(), m_iSize, 0)) {
        Wake();
        Pause();
      }
    }
    Resume();
    Wake();
  }
  unsigned int Receive() override {
    if (!m_bSpin) {
      m_stWake.Clear();
    }
    for (unsigned int iReceived = 0;; ++iReceived) {
      size_t iSize = 0;
      unsigned int iPriority = 0;
      std::unique_ptr<char[]> pData(new char[m_iSize]);
      if (!m_stQueue.try_receive(pData.get(), m_iSize, iSize, iPriority)) {
        return iReceived;
      }
      Consume(pData.release(), static_cast<unsigned int>(iSize));
    }
  }

 private:
  void Sleep() override { SleepOn(m_stWake.FD()); }
  void Wake() const {
    if (!m_bSpin) {
      m_stWake.Raise();
    }
  }

  std::string m_strName;
  boost::interprocess::message_queue m_stQueue;
  Eventfd m_stWake;
};

// Boost's lock-free ring of slots of one size, in shared memory, and an eventfd for each Send to a
// reader that may sleep. The writer finds its messages in slots already.
template <unsigned int Size>
class SpscChannel : public Channel {
 public:
  SpscChannel() : Channel(Size), m_vecSlots(BATCH) {
    for (Slot_t& stSlot : m_vecSlots) {
      stSlot.iSize = Size;
      memcpy(stSlot.szData, m_strMessage.data(), Size);
    }
    Warm();
  }

  void Send(unsigned int iCount) override {
    size_t iDone = 0;
    while ((iDone += m_stQueue->push(m_vecSlots.data(), iCount - iDone)) < iCount) {
      Wake();
      Pause();
    }
    Resume();
    Wake();
  }
  unsigned int Receive() override {
    if (!m_bSpin) {
      m_stWake.Clear();
    }
    const auto fnTake = [](const Slot_t& stSlot) { ConsumeCopy(stSlot.szData, stSlot.iSize); };
    size_t iReceived = 0;
    if (Size > LARGE) {
      while (m_stQueue->consume_one(fnTake)) {  // gives back each slot at once
        ++iReceived;
      }
      return static_cast<unsigned int>(iReceived);
    }
    while (const size_t n = m_stQueue->consume_all(fnTake)) {
      iReceived += n;
    }
    return static_cast<unsigned int>(iReceived);
  }

 private:
  struct Slot_t {
    unsigned int iSize;
    char szData[Size];
  };
  typedef boost::lockfree::spsc_queue<Slot_t, boost::lockfree::capacity<CAPACITY / sizeof(Slot_t)>>
      Queue_t;

  void Sleep() override { SleepOn(m_stWake.FD()); }
  void Wake() const {
    if (!m_bSpin) {
      m_stWake.Raise();
    }
  }

  Shared<Queue_t> m_stQueue;
  std::vector<Slot_t> m_vecSlots;
  Eventfd m_stWake;
};

class ZeroMqChannel : public Channel {
 public:
  explicit ZeroMqChannel(unsigned int iSize) : Channel(iSize) {}
  ~ZeroMqChannel() override { Flush(); }

  void StartWriter() override { Start(ZMQ_PUSH, ZMQ_SNDHWM, zmq_connect); }
  void StartReader() override { Start(ZMQ_PULL, ZMQ_RCVHWM, zmq_bind); }
  void Flush() override {
    if (m_pSocket != nullptr) {
      zmq_close(m_pSocket);
      zmq_ctx_term(m_pContext);  // waits for the thread that writes
      m_pSocket = nullptr;
    }
  }
  void Send(unsigned int iCount) override {
    for (unsigned int i = 0; i < iCount; ++i) {
      Check(zmq_send(m_pSocket, m_strMessage.data(), m_iSize, 0) != -1, "zmq_send");
    }
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
  void Sleep() override {
    zmq_pollitem_t stItem{m_pSocket, 0, ZMQ_POLLIN, 0};
    zmq_poll(&stItem, 1, -1);
  }

  Directory m_stDirectory;
  void* m_pContext = nullptr;
  void* m_pSocket = nullptr;
};

#endif
