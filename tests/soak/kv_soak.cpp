// A soak: the server as in production, a mixed load, random faults, and an independent model of
// what was acknowledged. Ends with a table; exit code 0 when nothing was lost, nothing leaked, and
// the server always answered again within two seconds.

#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "full_disk.h"
#include "kv_census.h"
#include "kv_load.h"
#include "soak_faults.h"
#include "soak_server.h"
#include "test_janitor.h"
#include "test_support.h"

namespace {

const size_t SAVE_DISK = 1024u << 20;
const size_t LOG_DISK = 64u << 20;
const int WARM_UP_MS = 3000;
const int STATISTICS_MS = 1500;  // by then a new gateway has its statistics log open
const int VERIFY_EVERY = 25;     // faults
#ifdef __SANITIZE_ADDRESS__
const size_t ALLOWED_GROWTH = size_t{4} << 30;  // it keeps what was freed for a while
#else
const size_t ALLOWED_GROWTH = 64u << 20;  // of all processes' memory, which is not all used again
#endif

struct Options_t {
  int iSeconds = 60;
  unsigned int iSeed = 0;
  int iRate = 10000;
  int iPause = 1000;  // milliseconds between faults, on average
  std::string strLogCopy;
  std::string strServer = KV_SERVER_PATH;
};

int64_t NowMilliseconds() {
  timespec stNow{};
  clock_gettime(CLOCK_MONOTONIC, &stNow);
  return stNow.tv_sec * 1000 + stNow.tv_nsec / 1000000;
}

bool Parse(int iCount, char** ppArguments, Options_t& stOptions) {
  stOptions.iSeed = static_cast<unsigned int>(time(nullptr));
  for (int i = 1; i < iCount; i += 2) {
    const std::string strName = ppArguments[i];
    if (i + 1 == iCount) {
      return false;
    }
    const char* pValue = ppArguments[i + 1];
    if (strName == "--seconds") {
      stOptions.iSeconds = atoi(pValue);
    } else if (strName == "--seed") {
      stOptions.iSeed = static_cast<unsigned int>(strtoul(pValue, nullptr, 10));
    } else if (strName == "--rate") {
      stOptions.iRate = atoi(pValue);
    } else if (strName == "--pause") {
      stOptions.iPause = atoi(pValue);
    } else if (strName == "--log") {
      stOptions.strLogCopy = pValue;
    } else if (strName == "--server") {
      stOptions.strServer = pValue;
    } else {
      return false;
    }
  }
  return stOptions.iSeconds > 0 && stOptions.iRate >= 0 && stOptions.iPause > 0;
}

class Soak {
 public:
  explicit Soak(const Options_t& stOptions);
  int Run();

 private:
  void Disturb();
  void Finish();
  void WaitForClients();
  void Check(bool bGood, const std::string& strWhat);
  void PrintTable() const;
  void PrintLatency(const char* pName, const LatencyHistogram& stLatency) const;
  void CopyLog() const;
  static std::vector<std::string> Settings(const std::string& strDirectory);

  const Options_t m_stOptions;
  const PrivateDirectory m_stDirectory;
  std::optional<SmallDisk> m_stSaveDisk;
  std::optional<SmallDisk> m_stLogDisk;
  std::unique_ptr<SoakServer> m_pServer;
  std::unique_ptr<KvLoad> m_pLoad;
  std::unique_ptr<SoakFaults> m_pFaults;
  Census_t m_stBefore;
  Census_t m_stAfter;
  size_t m_iMostMemory = 0;
  int64_t m_iTook = 0;
  std::string m_strFailures;
};

LoadOptions_t LoadOf(const Options_t& stOptions) {
  LoadOptions_t stLoad;
  stLoad.iClients = 12;
  stLoad.iKeys = 200;
  stLoad.iRate = stOptions.iRate;
  stLoad.iSeed = stOptions.iSeed;
  return stLoad;
}

Soak::Soak(const Options_t& stOptions) : m_stOptions(stOptions) {
  const std::string strSave = m_stDirectory.File("save");
  const std::string strLog = m_stDirectory.File("log");
  std::filesystem::create_directory(strSave);
  std::filesystem::create_directory(strLog);
  if (SmallDisk::WhyNot().empty()) {
    m_stSaveDisk.emplace(strSave, SAVE_DISK);
    m_stLogDisk.emplace(strLog, LOG_DISK);
  } else {
    printf("no full disks: %s\n", SmallDisk::WhyNot().c_str());
  }
  m_pServer = std::make_unique<SoakServer>(stOptions.strServer, m_stDirectory.File("run"),
                                           FreePort(), Settings(m_stDirectory.Path()));
  m_pLoad = std::make_unique<KvLoad>(m_pServer->Port(), LoadOf(stOptions));
  m_pFaults = std::make_unique<SoakFaults>(*m_pServer, *m_pLoad, strLog,
                                           m_stSaveDisk ? &*m_stSaveDisk : nullptr,
                                           m_stLogDisk ? &*m_stLogDisk : nullptr, stOptions.iSeed);
}

std::vector<std::string> Soak::Settings(const std::string& strDirectory) {
  const std::string strRules = strDirectory + "/kv.ini";
  std::ofstream(strRules) << "save = 20:1\nsave = 5:20000\n";
  return {"server.workers=3",
          "server.ini=" + strRules,
          "save.path=" + strDirectory + "/save",
          "save.timeout=30",
          "save.hook=:",
          "log.path=" + strDirectory + "/log",
          "journal.sync=second",
          "queue.bytes=4M",
          "table.bytes=48M",
          "table.buckets=16K",
          "stat.interval=1",
          "timeout.write=10",
          "limits.output=16M",
          "limits.clients=2000"};
}

int Soak::Run() {
  printf("seed %u, %d s, 3 workers, at most %d requests a second\n", m_stOptions.iSeed,
         m_stOptions.iSeconds, m_stOptions.iRate);
  fflush(stdout);
  const int64_t iStart = NowMilliseconds();
  m_pServer->Start();
  m_pLoad->PumpFor(std::min(WARM_UP_MS, m_stOptions.iSeconds * 200));
  m_pLoad->Ask({"BGSAVE"});
  m_pLoad->PumpFor(500);
  WaitForClients();
  m_stBefore = TakeCensus(m_pServer->Master(), m_pServer->RunDirectory());
  m_pLoad->Resume();
  try {
    Disturb();
    Finish();
  } catch (const std::exception& stError) {
    Check(false, stError.what());
  }
  m_iTook = NowMilliseconds() - iStart;
  PrintTable();
  CopyLog();
  const bool bGood =
      m_strFailures.empty() && m_pFaults->Errors().empty() && m_pLoad->Stat().iLost == 0;
  return bGood ? 0 : 1;
}

void Soak::Disturb() {
  std::mt19937 stRandom(m_stOptions.iSeed);
  const int64_t iEnd = NowMilliseconds() + m_stOptions.iSeconds * int64_t{1000};
  for (int i = 1; NowMilliseconds() < iEnd; ++i) {
    m_pLoad->PumpFor(m_stOptions.iPause / 2 +
                     static_cast<int>(stRandom() % static_cast<unsigned int>(m_stOptions.iPause)));
    m_pFaults->InjectOne();
    m_iMostMemory = std::max(m_iMostMemory,
                             TakeCensus(m_pServer->Master(), m_pServer->RunDirectory()).Memory());
    if (i % VERIFY_EVERY == 0) {
      m_pLoad->Disturb(true);
      m_pLoad->Verify();
      m_pLoad->Disturb(false);
    }
  }
}

// The load stops, misbehaving clients go, and a save that may be under way ends.
void Soak::WaitForClients() {
  m_pFaults->SendClientsAway();
  m_pLoad->Settle();
  m_pLoad->Disconnect();
  m_pLoad->PumpFor(STATISTICS_MS);
  const bool bCalm = m_pLoad->PumpUntil(
      [this] {
        const std::string strInfo = m_pLoad->Ask({"INFO"});
        return strInfo.find("connected_clients:1\r") != std::string::npos &&
               strInfo.find("rdb_bgsave_in_progress:0") != std::string::npos &&
               TakeCensus(m_pServer->Master(), m_pServer->RunDirectory()).iChildren == 4;
      },
      30000);
  Check(bCalm, "saves or clients do not end");
}

void Soak::Finish() {
  m_pLoad->Verify();
  WaitForClients();
  m_stAfter = TakeCensus(m_pServer->Master(), m_pServer->RunDirectory());
  Check(m_stAfter.Counts() == m_stBefore.Counts(),
        "before: " + m_stBefore.Counts() + "\n  after: " + m_stAfter.Counts());
  Check(m_stAfter.Memory() < m_stBefore.Memory() + ALLOWED_GROWTH, "the memory has grown");
  Check(m_pServer->Stop() == 0, "the server does not stop with exit code 0");
  Check(m_pServer->Remains().empty(), "left behind:" + m_pServer->Remains());
  m_pServer->Start();
  m_pLoad->Verify();
  Check(m_pServer->Stop() == 0, "the server does not stop with exit code 0");
}

void Soak::Check(bool bGood, const std::string& strWhat) {
  m_strFailures += bGood ? "" : "  " + strWhat + "\n";
}

void Soak::PrintLatency(const char* pName, const LatencyHistogram& stLatency) const {
  const auto Milliseconds = [&](double fShare) {
    return static_cast<double>(stLatency.Percentile(fShare)) / 1000;
  };
  printf("%-42s %10.2f %10.2f %10.2f\n", pName, Milliseconds(0.5), Milliseconds(0.99),
         Milliseconds(0.999));
}

void Soak::PrintTable() const {
  const LoadStat_t& stLoad = m_pLoad->Stat();
  const auto Mebibytes = [](size_t iBytes) { return static_cast<double>(iBytes) / (1 << 20); };
  printf("\n%-42s %10.1f\n", "seconds", static_cast<double>(m_iTook) / 1000);
  printf("%-42s %10llu\n", "requests", static_cast<unsigned long long>(stLoad.iRequests));
  printf("%-42s %10llu\n", "of them answered without an error",
         static_cast<unsigned long long>(stLoad.iAcknowledged));
  printf("%-42s %10zu\n", "keys whose state is known", m_pLoad->Model().Keys().size());
  printf("%-42s %10llu\n\n", "lost or wrong", static_cast<unsigned long long>(stLoad.iLost));
  printf("%-42s %10s %21s\n", "fault", "times", "slowest recovery, ms");
  for (const auto& stItem : m_pFaults->Stat()) {
    printf("%-42s %10d %21d\n", stItem.first.c_str(), stItem.second.iTimes, stItem.second.iSlowest);
  }
  printf("\n%-42s %10s\n", "requests without a good answer", "times");
  for (const auto& stItem : stLoad.mapErrors) {
    printf("%-42s %10llu\n", stItem.first.substr(0, 42).c_str(),
           static_cast<unsigned long long>(stItem.second));
  }
  printf("\n%-42s %10s %10s %10s\n", "", "start", "end", "most");
  printf("%-42s %10.1f %10.1f %10.1f\n", "private memory of all processes, MiB",
         Mebibytes(m_stBefore.Memory()), Mebibytes(m_stAfter.Memory()), Mebibytes(m_iMostMemory));
  printf("%-42s %10.1f %10.1f\n", "segments, MiB", Mebibytes(m_stBefore.iSegmentBytes),
         Mebibytes(m_stAfter.iSegmentBytes));
  printf("%-42s %10zu %10zu\n", "segments", m_stBefore.iSegments, m_stAfter.iSegments);
  printf("%-42s %10d %10d\n", "descriptors", m_stBefore.Descriptors(), m_stAfter.Descriptors());
  printf("%-42s %10zu %10zu\n", "child processes", m_stBefore.iChildren, m_stAfter.iChildren);
  printf("%-42s %10zu %10zu\n", "FIFOs", m_stBefore.iFifos, m_stAfter.iFifos);
  printf("\n%-42s %10s %10s %10s\n", "latency, ms", "p50", "p99", "p99.9");
  PrintLatency("between faults", stLoad.stQuiet);
  PrintLatency("always", stLoad.stAll);
  const std::string strAll = m_strFailures + m_pFaults->Errors() + m_pLoad->Faults();
  printf("\n%s%s", strAll.empty() ? "nothing lost, nothing leaked\n" : "FAILED\n", strAll.c_str());
}

// For whoever looks for the reason of a failure.
void Soak::CopyLog() const {
  if (!m_stOptions.strLogCopy.empty()) {
    std::error_code stError;
    std::filesystem::copy(m_stDirectory.File("log"), m_stOptions.strLogCopy,
                          std::filesystem::copy_options::recursive, stError);
    printf("log in %s %s\n", m_stOptions.strLogCopy.c_str(), stError.message().c_str());
  }
}

}  // namespace

int main(int iCount, char** ppArguments) {
  Options_t stOptions;
  if (!Parse(iCount, ppArguments, stOptions)) {
    fprintf(stderr,
            "usage: kv_soak [--seconds N] [--seed N] [--rate REQUESTS_A_SECOND] "
            "[--pause MS_BETWEEN_FAULTS] [--log DIRECTORY_FOR_THE_LOG] [--server PROGRAM]\n");
    return 2;
  }
  StartJanitor();
  return Soak(stOptions).Run();
}
