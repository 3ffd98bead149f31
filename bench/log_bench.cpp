// What a log line of 100 bytes costs its caller when it must be in the file at once.
//
//   line_numbered   our log in the regime of numbered files: time, level and a message of three
//   line_fixed      fields; and in the regime of the fixed name
//   below_level     the same line where the level says that it is not wanted
//
// spdlog, glog and POCO are told to flush every line. The limit is a bare write(2) of a line made
// beforehand, and a comparison for below_level. Of all these only ours looks whether its file is
// still there; POCO and ours rotate by size. Figures are processor time of the caller.

#include <Poco/AutoPtr.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <glog/logging.h>
#include <sched.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "log.h"
#include "ratio_reporter.h"

namespace {

const char FIXED_PATH[] = "/var/log/zelk";
const char PEER_NAME[] = "10.0.0.117";
const unsigned int FIRST_REQUEST = 1000000;
const char READY_LINE[] =
    "[2024-01-02 15:04:05,678][INFORMATION] request 1234567 from 10.0.0.117 took 250 us, 4096 "
    "bytes "
    "sent\n";
static_assert(sizeof(READY_LINE) - 1 == 100, "the message of all contestants, its number so long");

std::string g_strDirectory;

// Has /var/log stand for the private directory, for this process alone: the regime of the fixed
// name can then be measured on the same file system without touching the machine's logs.
bool BorrowLogDirectory() {
  const bool bMayMount = unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
  return bMayMount && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount(g_strDirectory.c_str(), "/var/log", nullptr, MS_BIND, nullptr) == 0;
}

// Empties what the last run wrote, so that neither size nor rotation plays a part.
void EmptyFiles() {
  for (const auto& stEntry : std::filesystem::recursive_directory_iterator(g_strDirectory)) {
    if (stEntry.is_regular_file() && !stEntry.is_symlink()) {
      std::filesystem::resize_file(stEntry.path(), 0);
    }
  }
}

double CpuNanoseconds() {
  timespec stTime{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &stTime);
  return static_cast<double>(stTime.tv_sec) * 1e9 + static_cast<double>(stTime.tv_nsec);
}

template <typename WriteLine>
void Measure(benchmark::State& stState, WriteLine fnWriteLine) {
  EmptyFiles();
  unsigned int i = FIRST_REQUEST;
  const double dBegin = CpuNanoseconds();
  for (auto stIteration : stState) {
    static_cast<void>(stIteration);
    fnWriteLine(++i);
    benchmark::ClobberMemory();  // the level may have changed
  }
  stState.counters["ns"] = (CpuNanoseconds() - dBegin) / (i - FIRST_REQUEST);
}

void RunZelk(benchmark::State& stState, const std::string& strPath) {
  Log stLog;
  stLog.SetPath(strPath);
  stLog.SetPrefix("bench");
  Measure(stState, [&](unsigned int i) {
    stLog.Info("request %u from %s took %d us, %d bytes sent", i, PEER_NAME, 250, 4096);
  });
}

void RunZelkBelow(benchmark::State& stState) {
  Log stLog;
  stLog.SetPath(g_strDirectory);
  stLog.SetLevel(Log::LL_INFO);
  Measure(stState, [&](unsigned int i) {
    stLog.Debug("request %u from %s took %d us, %d bytes sent", i, PEER_NAME, 250, 4096);
  });
}

std::shared_ptr<spdlog::logger> MakeSpdlog(const std::string& strPath) {
  auto pLogger = std::make_shared<spdlog::logger>(
      "bench", std::make_shared<spdlog::sinks::basic_file_sink_st>(strPath + "/spdlog.log"));
  pLogger->set_pattern("[%Y-%m-%d %H:%M:%S,%e][%l] %v");
  pLogger->flush_on(spdlog::level::trace);
  return pLogger;
}

void RunSpdlog(benchmark::State& stState, const std::string& strPath) {
  const auto pLogger = MakeSpdlog(strPath);
  Measure(stState, [&](unsigned int i) {
    pLogger->info("request {} from {} took {} us, {} bytes sent", i, PEER_NAME, 250, 4096);
  });
}

void RunSpdlogBelow(benchmark::State& stState) {
  const auto pLogger = MakeSpdlog(g_strDirectory);
  Measure(stState, [&](unsigned int i) {
    pLogger->debug("request {} from {} took {} us, {} bytes sent", i, PEER_NAME, 250, 4096);
  });
}

void RunGlog(benchmark::State& stState, const std::string& strPath) {
  google::SetLogDestination(google::GLOG_INFO, (strPath + "/glog.").c_str());
  Measure(stState, [](unsigned int i) {
    LOG(INFO) << "request " << i << " from " << PEER_NAME << " took " << 250 << " us, " << 4096
              << " bytes sent";
  });
}

void RunGlogBelow(benchmark::State& stState) {
  Measure(stState, [](unsigned int i) {
    VLOG(1) << "request " << i << " from " << PEER_NAME << " took " << 250 << " us, " << 4096
            << " bytes sent";
  });
}

Poco::Logger& MakePoco(const std::string& strPath) {
  Poco::AutoPtr<Poco::FileChannel> pFile(new Poco::FileChannel(strPath + "/poco.log"));
  pFile->setProperty("rotation", "100 M");
  pFile->setProperty("flush", "true");
  Poco::AutoPtr<Poco::PatternFormatter> pPattern(
      new Poco::PatternFormatter("[%Y-%m-%d %H:%M:%S,%i][%p] %t"));
  pPattern->setProperty("times", "local");
  Poco::AutoPtr<Poco::Channel> pChannel(new Poco::FormattingChannel(pPattern, pFile));
  Poco::Logger& stLogger = Poco::Logger::get("bench");
  stLogger.setChannel(pChannel);
  stLogger.setLevel(Poco::Message::PRIO_INFORMATION);
  return stLogger;
}

void RunPoco(benchmark::State& stState, const std::string& strPath) {
  Poco::Logger& stLogger = MakePoco(strPath);
  const std::string strPeer = PEER_NAME;
  Measure(stState, [&](unsigned int i) {
    poco_information_f4(stLogger, "request %u from %s took %d us, %d bytes sent", i, strPeer, 250,
                        4096);
  });
}

void RunPocoBelow(benchmark::State& stState) {
  Poco::Logger& stLogger = MakePoco(g_strDirectory);
  const std::string strPeer = PEER_NAME;
  Measure(stState, [&](unsigned int i) {
    if (stLogger.debug()) {  // poco_debug() is nothing at all in a release build
      stLogger.debug("request %u from %s took %d us, %d bytes sent", i, strPeer, 250, 4096);
    }
  });
}

void RunWrite(benchmark::State& stState, const std::string& strPath) {
  const int iFD = open((strPath + "/write.log").c_str(), O_RDWR | O_CREAT | O_APPEND, 0640);
  Measure(stState, [&](unsigned int /*i*/) {
    if (write(iFD, READY_LINE, strlen(READY_LINE)) < 0) {
      stState.SkipWithError("write failed");
    }
  });
  close(iFD);
}

void RunComparison(benchmark::State& stState) {
  Log::LOG_LEVEL eLevel = Log::LL_INFO;
  benchmark::DoNotOptimize(&eLevel);
  Measure(stState, [&](unsigned int /*i*/) {
    if (Log::LL_DEBUG >= eLevel) {
      stState.SkipWithError("the level let it pass");
    }
  });
}

void Register(const std::string& strName, const std::function<void(benchmark::State&)>& fnRun) {
  benchmark::RegisterBenchmark(strName.c_str(), fnRun)->MinTime(0.1)->UseRealTime();
}

void RegisterLines(const std::string& strOperation, const std::string& strPath) {
  typedef void (*Run_t)(benchmark::State&, const std::string&);
  const std::pair<const char*, Run_t> aContestants[] = {{"zelk", RunZelk},
                                                        {"spdlog", RunSpdlog},
                                                        {"glog", RunGlog},
                                                        {"poco", RunPoco},
                                                        {"limit", RunWrite}};
  for (const auto& stContestant : aContestants) {
    const Run_t pRun = stContestant.second;
    Register(strOperation + "/" + stContestant.first,
             [pRun, strPath](benchmark::State& stState) { pRun(stState, strPath); });
  }
}

void PrepareGlog(const char* pProgram) {
  google::InitGoogleLogging(pProgram);
  FLAGS_logbuflevel = -1;  // flush every line
  FLAGS_timestamp_in_logfile_name = false;
  google::SetLogSymlink(google::GLOG_INFO, "");
}

}  // namespace

int main(int argc, char** argv) {
  const char* pTmp = getenv("TMPDIR");
  g_strDirectory = std::string(pTmp != nullptr ? pTmp : "/tmp") + "/zelk_log_bench_XXXXXX";
  if (mkdtemp(g_strDirectory.data()) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  PrepareGlog(argv[0]);
  RegisterLines("line_numbered", g_strDirectory);
  if (BorrowLogDirectory()) {
    std::filesystem::create_directory(FIXED_PATH);
    RegisterLines("line_fixed", FIXED_PATH);
  } else {
    fprintf(stderr, "line_fixed is left out: no right to mount\n");
  }
  Register("below_level/zelk", RunZelkBelow);
  Register("below_level/spdlog", RunSpdlogBelow);
  Register("below_level/glog", RunGlogBelow);
  Register("below_level/poco", RunPocoBelow);
  Register("below_level/limit", RunComparison);
  const int iResult = RunWithRatios(argc, argv);
  std::filesystem::remove_all(g_strDirectory);
  return iResult;
}
