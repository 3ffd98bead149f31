// Echo servers: one on TcpSocket and epoll, one on bare system calls, and one on each library that
// a user would take instead. Every server is a process of its own with one thread; this process
// drives it over loopback connections that keep a pipeline of messages under way each.
//
// The servers run on the last processor. The driver shares it when there is a single connection,
// where the two take turns anyhow and a wake-up across processors would cost, and vary, more than
// all else together; with several connections it runs on the first.
//
// The server on bare system calls is the limit: nothing that does more can answer sooner.
//
// echo_<message size>_<connections>c_<pipeline>p; the figure is the time per message, real_time
// that of a slice of the run, and cpu_ns the processor time that the server alone took per message.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <errno.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <uv.h>

#include <asio.hpp>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "processor.h"
#include "ratio_reporter.h"
#include "tcp_socket.h"

namespace {

const int BACKLOG = 1024;
const int MAX_EVENTS = 256;
const size_t READ_SIZE = 65536;  // what the other servers read at once

typedef void (*Serve_t)(int iListener);

[[noreturn]] void Fail(const char* pWhat) {
  perror(pWhat);
  _exit(1);
}

void SetNoDelay(int iFD) {
  const int iOn = 1;
  setsockopt(iFD, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
}

void Watch(int iEpoll, int iOperation, int iFD, uint32_t iEvents, void* pData) {
  epoll_event stEvent{};
  stEvent.events = iEvents;
  stEvent.data.ptr = pData;
  epoll_ctl(iEpoll, iOperation, iFD, &stEvent);
}

// ---- TcpSocket and epoll

class ZelkServer {
 public:
  explicit ZelkServer(int iListener) : m_stListener(iListener) {
    m_stListener.SetNonBlock(true);
    Watch(m_iEpoll, EPOLL_CTL_ADD, iListener, EPOLLIN, &m_stListener);
  }

  void Run() {
    epoll_event arrEvents[MAX_EVENTS];
    for (;;) {
      const int iCount = epoll_wait(m_iEpoll, arrEvents, MAX_EVENTS, -1);
      for (int i = 0; i < iCount; ++i) {
        auto* pSocket = static_cast<TcpSocket*>(arrEvents[i].data.ptr);
        if (pSocket == &m_stListener) {
          AcceptAll();
        } else {
          Serve(pSocket);
        }
      }
    }
  }

 private:
  void AcceptAll() {
    while (TcpSocket* pSocket = m_stListener.Accept()) {
      SetNoDelay(pSocket->FD());
      Watch(m_iEpoll, EPOLL_CTL_ADD, pSocket->FD(), EPOLLIN, pSocket);
    }
  }

  void Serve(TcpSocket* pSocket) {
    const bool bWasFull = pSocket->SendBufferSize() != 0;
    if (pSocket->Recv() == -1) {
      delete pSocket;
      return;
    }
    if (pSocket->RecvBufferSize() != 0) {
      pSocket->AppendSendBuffer(pSocket->RecvBuffer(), pSocket->RecvBufferSize());
      pSocket->EraseRecvBuffer(pSocket->RecvBufferSize());
    }
    pSocket->Send();
    const bool bFull = pSocket->SendBufferSize() != 0;
    if (bFull != bWasFull) {
      Watch(m_iEpoll, EPOLL_CTL_MOD, pSocket->FD(), bFull ? EPOLLIN | EPOLLOUT : EPOLLIN, pSocket);
    }
  }

  TcpSocket m_stListener;
  int m_iEpoll = epoll_create1(EPOLL_CLOEXEC);
};

void ServeZelk(int iListener) { ZelkServer(iListener).Run(); }

// ---- epoll, recv and send

class BareServer {
 public:
  explicit BareServer(int iListener) : m_iListener(iListener) {
    fcntl(iListener, F_SETFL, O_NONBLOCK);
    Watch(m_iEpoll, EPOLL_CTL_ADD, iListener, EPOLLIN, nullptr);
  }

  void Run() {
    epoll_event arrEvents[MAX_EVENTS];
    for (;;) {
      const int iCount = epoll_wait(m_iEpoll, arrEvents, MAX_EVENTS, -1);
      for (int i = 0; i < iCount; ++i) {
        auto* pClient = static_cast<client_t*>(arrEvents[i].data.ptr);
        if (pClient == nullptr) {
          AcceptAll();
        } else if (pClient->strUnsent.empty() ? !Echo(*pClient) : !Flush(*pClient)) {
          close(pClient->iFD);
          delete pClient;
        }
      }
    }
  }

 private:
  struct client_t {
    int iFD;
    std::string strUnsent;
  };

  void AcceptAll() {
    for (int iFD = 0; (iFD = accept4(m_iListener, nullptr, nullptr, SOCK_NONBLOCK)) != -1;) {
      SetNoDelay(iFD);
      Watch(m_iEpoll, EPOLL_CTL_ADD, iFD, EPOLLIN, new client_t{iFD, ""});
    }
  }

  bool Echo(client_t& stClient) {
    const ssize_t iCount = recv(stClient.iFD, m_szBuffer, sizeof(m_szBuffer), 0);
    if (iCount <= 0) {
      return iCount == -1 && errno == EAGAIN;
    }
    const ssize_t iSent = send(stClient.iFD, m_szBuffer, static_cast<size_t>(iCount), MSG_NOSIGNAL);
    if (iSent == iCount) {
      return true;
    }
    if (iSent == -1 && errno != EAGAIN) {
      return false;
    }
    const ssize_t iDone = std::max<ssize_t>(iSent, 0);
    stClient.strUnsent.assign(m_szBuffer + iDone, static_cast<size_t>(iCount - iDone));
    Watch(m_iEpoll, EPOLL_CTL_MOD, stClient.iFD, EPOLLOUT, &stClient);
    return true;
  }

  bool Flush(client_t& stClient) const {
    std::string& strUnsent = stClient.strUnsent;
    const ssize_t iSent = send(stClient.iFD, strUnsent.data(), strUnsent.size(), MSG_NOSIGNAL);
    if (iSent == -1) {
      return errno == EAGAIN;
    }
    strUnsent.erase(0, static_cast<size_t>(iSent));
    if (strUnsent.empty()) {
      Watch(m_iEpoll, EPOLL_CTL_MOD, stClient.iFD, EPOLLIN, &stClient);
    }
    return true;
  }

  int m_iListener;
  int m_iEpoll = epoll_create1(EPOLL_CLOEXEC);
  alignas(64) char m_szBuffer[READ_SIZE];
};

void ServeBare(int iListener) { BareServer(iListener).Run(); }

// ---- libevent: its buffered streams, which read at most 4 KiB at a time

void EventRead(bufferevent* pEvent, void* /*pArgument*/) {
  bufferevent_write_buffer(pEvent, bufferevent_get_input(pEvent));
}

void EventEnd(bufferevent* pEvent, short /*iWhat*/, void* /*pArgument*/) {
  bufferevent_free(pEvent);
}

void EventAccept(evconnlistener* pListener, evutil_socket_t iFD, sockaddr* /*pAddr*/,
                 int /*iLength*/, void* /*pArgument*/) {
  SetNoDelay(iFD);
  event_base* pBase = evconnlistener_get_base(pListener);
  bufferevent* pEvent = bufferevent_socket_new(pBase, iFD, BEV_OPT_CLOSE_ON_FREE);
  bufferevent_setcb(pEvent, EventRead, nullptr, EventEnd, nullptr);
  bufferevent_enable(pEvent, EV_READ | EV_WRITE);
}

void ServeLibevent(int iListener) {
  fcntl(iListener, F_SETFL, O_NONBLOCK);
  event_base* pBase = event_base_new();
  evconnlistener_new(pBase, EventAccept, nullptr, LEV_OPT_CLOSE_ON_FREE, 0, iListener);
  event_base_dispatch(pBase);
}

// ---- Asio

class AsioSession : public std::enable_shared_from_this<AsioSession> {
 public:
  explicit AsioSession(asio::ip::tcp::socket stSocket) : m_stSocket(std::move(stSocket)) {}

  void Read() {
    m_stSocket.async_read_some(
        asio::buffer(m_szBuffer),
        [pSelf = shared_from_this()](const std::error_code& stError, size_t iSize) {
          if (!stError) {
            pSelf->Write(iSize);
          }
        });
  }

 private:
  void Write(size_t iSize) {
    asio::async_write(m_stSocket, asio::buffer(m_szBuffer, iSize),
                      [pSelf = shared_from_this()](const std::error_code& stError, size_t) {
                        if (!stError) {
                          pSelf->Read();
                        }
                      });
  }

  asio::ip::tcp::socket m_stSocket;
  alignas(64) char m_szBuffer[READ_SIZE];
};

void AsioAccept(asio::ip::tcp::acceptor& stAcceptor) {
  stAcceptor.async_accept([&](const std::error_code& stError, asio::ip::tcp::socket stSocket) {
    if (!stError) {
      stSocket.set_option(asio::ip::tcp::no_delay(true));
      std::make_shared<AsioSession>(std::move(stSocket))->Read();
    }
    AsioAccept(stAcceptor);
  });
}

void ServeAsio(int iListener) {
  asio::io_context stContext(1);
  asio::ip::tcp::acceptor stAcceptor(stContext, asio::ip::tcp::v4(), iListener);
  AsioAccept(stAcceptor);
  stContext.run();
}

// ---- libuv

struct uv_client_t {
  uv_tcp_t stStream;
  char szBuffer[READ_SIZE];
};

struct uv_rest_t {
  uv_write_t stRequest;
  std::string strData;
};

void UvEnd(uv_handle_t* pHandle) { delete static_cast<uv_client_t*>(pHandle->data); }

void UvBuffer(uv_handle_t* pHandle, size_t /*iSuggested*/, uv_buf_t* pBuffer) {
  *pBuffer = uv_buf_init(static_cast<uv_client_t*>(pHandle->data)->szBuffer, READ_SIZE);
}

void UvWritten(uv_write_t* pRequest, int /*iStatus*/) {
  delete static_cast<uv_rest_t*>(pRequest->data);
}

// Writes at once what the socket takes; only a rest is copied and queued.
void UvRead(uv_stream_t* pStream, ssize_t iCount, const uv_buf_t* pBuffer) {
  if (iCount < 0) {
    uv_close(reinterpret_cast<uv_handle_t*>(pStream), UvEnd);
    return;
  }
  const uv_buf_t stData = uv_buf_init(pBuffer->base, static_cast<unsigned int>(iCount));
  const int iWritten = std::max(uv_try_write(pStream, &stData, 1), 0);
  if (iWritten == iCount) {
    return;
  }
  auto* pRest = new uv_rest_t;
  pRest->strData.assign(pBuffer->base + iWritten, static_cast<size_t>(iCount - iWritten));
  pRest->stRequest.data = pRest;
  const uv_buf_t stRest =
      uv_buf_init(pRest->strData.data(), static_cast<unsigned int>(pRest->strData.size()));
  uv_write(&pRest->stRequest, pStream, &stRest, 1, UvWritten);
}

void UvAccept(uv_stream_t* pListener, int /*iStatus*/) {
  auto* pClient = new uv_client_t;
  uv_tcp_init(pListener->loop, &pClient->stStream);
  pClient->stStream.data = pClient;
  auto* pStream = reinterpret_cast<uv_stream_t*>(&pClient->stStream);
  uv_accept(pListener, pStream);
  uv_tcp_nodelay(&pClient->stStream, 1);
  uv_read_start(pStream, UvBuffer, UvRead);
}

void ServeLibuv(int iListener) {
  uv_tcp_t stListener;
  uv_tcp_init(uv_default_loop(), &stListener);
  uv_tcp_open(&stListener, iListener);
  uv_listen(reinterpret_cast<uv_stream_t*>(&stListener), BACKLOG, UvAccept);
  uv_run(uv_default_loop(), UV_RUN_DEFAULT);
}

// ---- The driving side

// A server in a process of its own, which ends with this object and with this process.
class ServerProcess {
 public:
  explicit ServerProcess(Serve_t pServe) {
    const int iListener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    m_stAddr.sin_family = AF_INET;
    m_stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* pAddr = reinterpret_cast<sockaddr*>(&m_stAddr);
    socklen_t iLength = sizeof(m_stAddr);
    if (bind(iListener, pAddr, iLength) != 0 || listen(iListener, BACKLOG) != 0 ||
        getsockname(iListener, pAddr, &iLength) != 0) {
      Fail("listen");
    }
    m_iPid = fork();
    if (m_iPid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      signal(SIGPIPE, SIG_IGN);
      PinTo(LastProcessor());
      pServe(iListener);
      _exit(1);
    }
    close(iListener);
    clock_getcpuclockid(m_iPid, &m_iClock);
  }
  ~ServerProcess() {
    kill(m_iPid, SIGKILL);
    waitpid(m_iPid, nullptr, 0);
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  int Connect() const {
    const int iFD = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(iFD, reinterpret_cast<const sockaddr*>(&m_stAddr), sizeof(m_stAddr)) != 0) {
      Fail("connect");
    }
    SetNoDelay(iFD);
    fcntl(iFD, F_SETFL, O_NONBLOCK);
    return iFD;
  }

  double CpuNanoseconds() const {
    timespec stTime{};
    clock_gettime(m_iClock, &stTime);
    return static_cast<double>(stTime.tv_sec) * 1e9 + static_cast<double>(stTime.tv_nsec);
  }

 private:
  sockaddr_in m_stAddr{};
  pid_t m_iPid = -1;
  clockid_t m_iClock = 0;
};

struct load_t {
  size_t iMessage;
  size_t iConnections;
  size_t iPipeline;
};

// Connections that each write a batch, wait for the whole of it to come back and write the next.
class Load {
 public:
  Load(const ServerProcess& stServer, const load_t& stLoad)
      : m_strBatch(stLoad.iMessage * stLoad.iPipeline, 'x'), m_vecClients(stLoad.iConnections) {
    for (client_t& stClient : m_vecClients) {
      stClient.iFD = stServer.Connect();
      Watch(m_iEpoll, EPOLL_CTL_ADD, stClient.iFD, EPOLLIN, &stClient);
      Begin(stClient);
    }
    Run(2 * stLoad.iConnections);  // every connection is accepted and warm
  }
  ~Load() {
    for (const client_t& stClient : m_vecClients) {
      close(stClient.iFD);
    }
    close(m_iEpoll);
  }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  // Goes on until so many more batches have come back.
  void Run(size_t iBatches) {
    epoll_event arrEvents[MAX_EVENTS];
    for (const size_t iEnd = m_iDone + iBatches; m_iDone < iEnd;) {
      const int iCount = epoll_wait(m_iEpoll, arrEvents, MAX_EVENTS, 10000);
      if (iCount <= 0) {
        Fail("the server stands still");
      }
      for (int i = 0; i < iCount; ++i) {
        Handle(*static_cast<client_t*>(arrEvents[i].data.ptr));
      }
    }
  }

 private:
  struct client_t {
    int iFD = -1;
    size_t iUnsent = 0;
    size_t iUnread = 0;
    bool bBlocked = false;  // waits for room to write the rest of its batch
  };

  void Begin(client_t& stClient) {
    stClient.iUnsent = stClient.iUnread = m_strBatch.size();
    Write(stClient);
  }

  void Write(client_t& stClient) {
    const ssize_t iCount = send(stClient.iFD, m_strBatch.data(), stClient.iUnsent, MSG_NOSIGNAL);
    if (iCount == -1 && errno != EAGAIN) {
      Fail("send");
    }
    stClient.iUnsent -= static_cast<size_t>(std::max<ssize_t>(iCount, 0));
    const bool bBlocked = stClient.iUnsent != 0;
    if (bBlocked != stClient.bBlocked) {
      stClient.bBlocked = bBlocked;
      Watch(m_iEpoll, EPOLL_CTL_MOD, stClient.iFD, bBlocked ? EPOLLIN | EPOLLOUT : EPOLLIN,
            &stClient);
    }
  }

  void Handle(client_t& stClient) {
    const ssize_t iCount = recv(stClient.iFD, m_szBuffer, sizeof(m_szBuffer), 0);
    if (iCount == 0 || (iCount == -1 && errno != EAGAIN)) {
      Fail("recv");
    }
    stClient.iUnread -= static_cast<size_t>(std::max<ssize_t>(iCount, 0));
    if (stClient.iUnsent != 0) {
      Write(stClient);
    } else if (stClient.iUnread == 0) {
      ++m_iDone;
      Begin(stClient);
    }
  }

  std::string m_strBatch;
  std::vector<client_t> m_vecClients;
  int m_iEpoll = epoll_create1(EPOLL_CLOEXEC);
  size_t m_iDone = 0;
  alignas(64) char m_szBuffer[READ_SIZE];
};

double Now() {
  timespec stTime{};
  clock_gettime(CLOCK_MONOTONIC, &stTime);
  return static_cast<double>(stTime.tv_sec) * 1e9 + static_cast<double>(stTime.tv_nsec);
}

void Echo(benchmark::State& stState, const ServerProcess& stServer, const load_t& stConfig) {
  PinTo(stConfig.iConnections == 1 ? LastProcessor() : 0);
  Load stLoad(stServer, stConfig);
  const size_t iSlice = std::max<size_t>(stConfig.iConnections, 16);
  const double dCpu = stServer.CpuNanoseconds();
  const double dBegin = Now();
  for (auto _ : stState) {
    stLoad.Run(iSlice);
  }
  const auto dMessages =
      static_cast<double>(stState.iterations()) * static_cast<double>(iSlice * stConfig.iPipeline);
  stState.counters["ns"] = (Now() - dBegin) / dMessages;
  stState.counters["cpu_ns"] = (stServer.CpuNanoseconds() - dCpu) / dMessages;
}

void Register(const std::string& strContestant, const ServerProcess& stServer,
              const load_t& stLoad) {
  const std::string strSize = stLoad.iMessage < 1024 ? std::to_string(stLoad.iMessage) + "B"
                                                     : std::to_string(stLoad.iMessage / 1024) + "K";
  const std::string strName = "echo_" + strSize + "_" + std::to_string(stLoad.iConnections) + "c_" +
                              std::to_string(stLoad.iPipeline) + "p/" + strContestant;
  benchmark::RegisterBenchmark(
      strName.c_str(),
      [&stServer, stLoad](benchmark::State& stState) { Echo(stState, stServer, stLoad); })
      ->UseRealTime()
      ->MinTime(0.1);
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, Serve_t> mapServers = {{"zelk", ServeZelk},
                                                     {"limit", ServeBare},
                                                     {"libevent", ServeLibevent},
                                                     {"asio", ServeAsio},
                                                     {"libuv", ServeLibuv}};
  std::map<std::string, ServerProcess> mapProcesses;
  for (const auto& [strName, pServe] : mapServers) {
    const ServerProcess& stServer = mapProcesses.try_emplace(strName, pServe).first->second;
    for (const size_t iMessage : {64, 4096}) {
      for (const size_t iConnections : {1, 50, 500}) {
        for (const size_t iPipeline : {1, 16}) {
          Register(strName, stServer, {iMessage, iConnections, iPipeline});
        }
      }
    }
  }
  return RunWithRatios(argc, argv);
}
