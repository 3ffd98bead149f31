// Serves the figures of one kv_server as a page that Prometheus reads, http://ADDRESS:PORT/metrics.
//
//   metrics_exporter --server ADDRESS:PORT --listen ADDRESS:PORT [--command INFO]
//
// Why a process of its own: the library that serves the page has threads, while gateway and workers
// are single-threaded and fork. As a client like any other it shares nothing with them, asks the
// server only when somebody reads the page, and may fail without anyone else.

#include <arpa/inet.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "info_metrics.h"
#include "server_client.h"

namespace {

using prometheus::MetricFamily;

// The page. Collect() is called by threads of the exposer, several at a time: nothing is kept.
class ServerFigures : public prometheus::Collectable {
 public:
  explicit ServerFigures(Server_t stServer) : m_stServer(std::move(stServer)) {}

  // Two questions, since the second one waits for all workers: the gateway's figures are there also
  // while a worker stalls, and are of that time.
  std::vector<MetricFamily> Collect() const override {
    std::vector<MetricFamily> vecPage;
    const bool bUp =
        Append(vecPage, {"server", "clients", "stats", "commandstats", "latencystats"});
    const bool bWorkersUp = bUp && Append(vecPage, {"memory", "persistence", "keyspace"});
    vecPage.push_back(Gauge("kv_up", "1: the server answers", bUp));
    vecPage.push_back(Gauge("kv_workers_up", "1: all workers answer", bWorkersUp));
    return vecPage;
  }

 private:
  bool Append(std::vector<MetricFamily>& vecPage,
              const std::vector<std::string>& vecSections) const {
    std::string strText;
    if (!AskInfo(m_stServer, vecSections, strText)) {
      return false;
    }
    std::vector<MetricFamily> vecMetrics = InfoMetrics(strText);
    vecPage.insert(vecPage.end(), std::make_move_iterator(vecMetrics.begin()),
                   std::make_move_iterator(vecMetrics.end()));
    return true;
  }

  const Server_t m_stServer;
};

bool ReadArguments(const std::vector<std::string>& vecArguments, Server_t& stServer,
                   std::string& strListen) {
  sockaddr_in stListen{};
  stServer.strInfo = "INFO";
  for (size_t i = 0; i + 1 < vecArguments.size(); i += 2) {
    const std::string& strValue = vecArguments[i + 1];
    if (vecArguments[i] == "--server" && ParseAddress(strValue, stServer.stAddress)) {
      continue;
    }
    if (vecArguments[i] == "--listen" && ParseAddress(strValue, stListen)) {
      strListen = strValue;
    } else if (vecArguments[i] == "--command") {
      stServer.strInfo = strValue;
    } else {
      return false;
    }
  }
  return vecArguments.size() % 2 == 0 && stServer.stAddress.sin_port != 0 && !strListen.empty();
}

// The threads of the exposer inherit the mask, so that the signals are left to sigwait().
int Serve(const Server_t& stServer, const std::string& strListen) {
  sigset_t stEnd;
  sigemptyset(&stEnd);
  sigaddset(&stEnd, SIGTERM);
  sigaddset(&stEnd, SIGINT);
  sigprocmask(SIG_BLOCK, &stEnd, nullptr);
  const auto pFigures = std::make_shared<ServerFigures>(stServer);
  prometheus::Exposer stExposer(strListen);
  stExposer.RegisterCollectable(pFigures);
  int iSignal = 0;
  sigwait(&stEnd, &iSignal);
  _exit(
      0);  // nothing is to be saved, and the exposer would wait for connections that are kept open
}

}  // namespace

int main(int argc, char** argv) {
  Server_t stServer{};
  std::string strListen;
  if (!ReadArguments({argv + 1, argv + argc}, stServer, strListen)) {
    fputs("usage: metrics_exporter --server ADDRESS:PORT --listen ADDRESS:PORT [--command INFO]\n",
          stderr);
    return 1;
  }
  try {
    return Serve(stServer, strListen);
  } catch (const std::exception& stError) {
    fprintf(stderr, "metrics_exporter: can not listen on %s: %s\n", strListen.c_str(),
            stError.what());
    return 1;
  }
}
