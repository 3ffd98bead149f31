#include "soak_faults.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

const int WORKERS = 3;
const int64_t STABLE_MS = 10000;  // who dies sooner is started again later and later
const size_t MANY_DEATHS = 3;     // so often within that time, and no more
const size_t MANY_CLIENTS = 6;    // that misbehave at a time, of each kind
const int STORM = 300;
const int FLOOD = 3000;
const size_t UNREAD = 300;  // replies, more than limits.output altogether

int64_t NowMilliseconds() {
  timespec stNow{};
  clock_gettime(CLOCK_MONOTONIC, &stNow);
  return stNow.tv_sec * 1000 + stNow.tv_nsec / 1000000;
}

}  // namespace

const SoakFaults::Kind_t SoakFaults::KINDS[] = {
    {"kill -9 of a worker", 10, &SoakFaults::KillWorker},
    {"kill -9 of the gateway", 8, &SoakFaults::KillGateway},
    {"kill -9 of the master, new start", 4, &SoakFaults::KillMaster},
    {"kill -9 of all, new start", 3, &SoakFaults::KillEverything},
    {"kill -9 of all, tables removed", 2, &SoakFaults::Boot},
    {"kill -9 of a saving child", 4, &SoakFaults::KillSaver},
    {"SIGTERM, new start", 3, &SoakFaults::Restart},
    {"SIGSTOP of a worker, 0.5 to 3 s", 5, &SoakFaults::StopWorker},
    {"SIGSTOP of the gateway, 0.1 to 1 s", 3, &SoakFaults::StopGateway},
    {"SIGSTOP of the master, 1 s", 2, &SoakFaults::StopMaster},
    {"a worker's queue filled", 4, &SoakFaults::FillQueue},
    {"all tables filled, then removed", 1, &SoakFaults::FillTable},
    {"disk of dumps and journal filled", 3, &SoakFaults::FillSaveDisk},
    {"disk of the log filled", 3, &SoakFaults::FillLogDisk},
    {"log moved away", 3, &SoakFaults::MoveLog},
    {"log removed", 3, &SoakFaults::RemoveLog},
    {"BGSAVE", 5, &SoakFaults::Save},
    {"client that never reads", 4, &SoakFaults::NeverRead},
    {"client of a byte a second", 4, &SoakFaults::ByteASecond},
    {"100 malformed requests", 6, &SoakFaults::Malformed},
    {"storm of 300 connections", 4, &SoakFaults::Storm},
    {"40 clients vanish inside requests", 4, &SoakFaults::Vanish},
};

SoakFaults::SoakFaults(SoakServer& stServer, KvLoad& stLoad, const std::string& strLogDirectory,
                       const SmallDisk* pSaveDisk, const SmallDisk* pLogDisk, unsigned int iSeed)
    : m_stServer(stServer),
      m_stLoad(stLoad),
      m_strLogDirectory(strLogDirectory),
      m_pSaveDisk(pSaveDisk),
      m_pLogDisk(pLogDisk),
      m_stRandom(iSeed) {}

SoakFaults::~SoakFaults() = default;

int SoakFaults::Below(int iLimit) {
  return static_cast<int>(m_stRandom() % static_cast<unsigned int>(iLimit));
}

void SoakFaults::InjectOne() {
  int iAll = 0;
  for (const Kind_t& stKind : KINDS) {
    iAll += stKind.iWeight;
  }
  int iDrawn = Below(iAll);
  const Kind_t* pKind = KINDS;
  while (iDrawn >= pKind->iWeight) {
    iDrawn -= pKind++->iWeight;
  }
  m_iRecovery = 0;
  m_stLoad.Disturb(true);
  if ((this->*pKind->fnInject)()) {
    FaultStat_t& stStat = m_mapStat[pKind->pName];
    ++stStat.iTimes;
    stStat.iSlowest = std::max(stStat.iSlowest, m_iRecovery);
    if (m_iRecovery > QUICK_MS) {
      m_strErrors += std::string(pKind->pName) + ": answers only after " +
                     std::to_string(m_iRecovery) + " ms\n";
    }
  }
  SendBytes();
  m_stLoad.Disturb(false);
}

void SoakFaults::Recover() { m_iRecovery = m_stLoad.PumpUntilServed(); }

std::string SoakFaults::AnyWorker() { return "worker " + std::to_string(Below(WORKERS)); }

// Not one that has died often of late: it would be started again only after seconds.
bool SoakFaults::Kill(const std::string& strTitle) {
  std::vector<int64_t>& vecDeaths = m_mapDeaths[strTitle];
  const int64_t iNow = NowMilliseconds();
  const pid_t iPid = m_stServer.Child(strTitle);
  if (!vecDeaths.empty() && iNow - vecDeaths.back() > STABLE_MS + QUICK_MS) {
    vecDeaths.clear();
  }
  if (vecDeaths.size() >= MANY_DEATHS || iPid == -1) {
    return false;
  }
  vecDeaths.push_back(iNow);
  SendSignal(iPid, SIGKILL);
  m_stLoad.PumpUntil([&] { return m_stServer.Child(strTitle) != iPid; }, QUICK_MS);
  Recover();
  return true;
}

bool SoakFaults::KillWorker() { return Kill(AnyWorker()); }

bool SoakFaults::KillGateway() { return Kill("gateway"); }

bool SoakFaults::KillMaster() {
  m_stServer.KillMaster();
  m_stLoad.PumpFor(Below(50));
  m_stServer.Start();
  m_mapDeaths.clear();
  Recover();
  return true;
}

bool SoakFaults::KillEverything() {
  m_stServer.KillAll();
  m_stLoad.PumpFor(Below(50));
  m_stServer.Start();
  m_mapDeaths.clear();
  Recover();
  return true;
}

bool SoakFaults::KillSaver() {
  m_stLoad.Ask({"BGSAVE"});
  const pid_t iWorker = m_stServer.Child(AnyWorker());
  const std::string strChildren =
      "/proc/" + std::to_string(iWorker) + "/task/" + std::to_string(iWorker) + "/children";
  pid_t iSaver = -1;
  const bool bFound = m_stLoad.PumpUntil(
      [&] {
        std::istringstream(ReadFile(strChildren)) >> iSaver;
        return iSaver > 1;
      },
      300);
  if (!bFound) {
    return false;
  }
  SendSignal(iSaver, SIGKILL);
  Recover();
  return true;
}

bool SoakFaults::Restart() {
  const int iExit = m_stServer.Stop();
  if (iExit != 0 || !m_stServer.Remains().empty()) {
    m_strErrors += "SIGTERM: exit code " + std::to_string(iExit) + m_stServer.Remains() + "\n";
  }
  m_stServer.Start();
  m_mapDeaths.clear();
  Recover();
  return true;
}

// Until then what clients have read may be in no file.
bool SoakFaults::JournalIsWhole() {
  return m_stLoad.PumpUntil(
      [this] {
        const std::string strInfo = m_stLoad.Ask({"INFO", "persistence"});
        return strInfo.find("journal_whole:1") != std::string::npos &&
               strInfo.find("aof_last_write_status:ok") != std::string::npos;
      },
      20000);
}

bool SoakFaults::Boot() {
  if (!JournalIsWhole()) {
    m_strErrors += "the journal does not become whole\n";
    return false;
  }
  m_stServer.KillAll();
  m_stServer.RemoveTables();
  m_stServer.Start();
  m_mapDeaths.clear();
  Recover();
  return true;
}

bool SoakFaults::Pause(pid_t iPid, int iMilliseconds) {
  if (!IsAlive(iPid)) {
    return false;
  }
  {
    const StoppedProcess stStopped(iPid);  // which goes on also when the soak is killed
    m_stLoad.PumpFor(iMilliseconds);
  }
  Recover();
  return true;
}

bool SoakFaults::StopWorker() { return Pause(m_stServer.Child(AnyWorker()), 500 + Below(2500)); }

bool SoakFaults::StopGateway() { return Pause(m_stServer.Child("gateway"), 100 + Below(900)); }

bool SoakFaults::StopMaster() { return Pause(m_stServer.Master(), 1000); }

// More for a stopped worker than its queue takes, from one client of its own.
bool SoakFaults::FillQueue() {
  const int iIndex = Below(WORKERS);
  const pid_t iWorker = m_stServer.Child("worker " + std::to_string(iIndex));
  if (!IsAlive(iWorker)) {
    return false;
  }
  LoadConnection stFlood(m_stServer.Port());
  std::string strBytes;
  for (int i = 0; i < FLOOD; ++i) {
    strBytes += WireForm({"SET", KeyOf(iIndex, WORKERS, i % 10), std::string(10000, 'q')});
  }
  {
    const StoppedProcess stStopped(iWorker);
    stFlood.Send(strBytes);
    m_stLoad.PumpUntil([&] { return stFlood.OnEvents(POLLIN | POLLOUT), false; },
                       500 + Below(1500));
  }
  Recover();
  int iReplies = 0;
  m_stLoad.PumpUntil(
      [&] {
        stFlood.OnEvents(POLLIN | POLLOUT);
        while (!stFlood.TakeReply().empty()) {
          ++iReplies;
        }
        return iReplies == FLOOD || !stFlood.IsOpen();
      },
      30000);
  if (iReplies != FLOOD && stFlood.IsOpen()) {
    m_strErrors += "a full queue: " + std::to_string(iReplies) + " replies came\n";
  }
  return true;
}

// Blocks of one size never serve others again, so the tables are made anew after it, from the
// files.
bool SoakFaults::FillTable() {
  const std::string strValue(10000, 'f');
  int iKeys = 0;
  for (int iFull = 0; iFull < 30 && iKeys < 100000; ++iKeys) {
    const std::string strReply = m_stLoad.Ask({"SET", "fill:" + std::to_string(iKeys), strValue});
    iFull += strReply.rfind("-OOM", 0) == 0 ? 1 : 0;
  }
  m_stLoad.PumpFor(1000);
  for (int i = 0; i < iKeys; i += 100) {
    Request_t vecRequest{"DEL"};
    for (int iKey = i; iKey < i + 100; ++iKey) {
      vecRequest.push_back("fill:" + std::to_string(iKey));
    }
    m_stLoad.Ask(vecRequest);
  }
  return Boot();
}

bool SoakFaults::FillSaveDisk() {
  if (m_pSaveDisk == nullptr) {
    return false;
  }
  m_pSaveDisk->Fill();
  m_stLoad.PumpFor(1000 + Below(2000));
  m_pSaveDisk->Free();
  Recover();
  if (Below(2) == 0) {
    m_stLoad.Ask({"BGSAVE"});
  }
  if (!JournalIsWhole()) {  // it tries by itself every five seconds
    m_strErrors += "the journal does not go on after a full disk\n";
  }
  m_mapDeaths.clear();
  m_stLoad.PumpFor(static_cast<int>(STABLE_MS));
  return true;
}

bool SoakFaults::FillLogDisk() {
  if (m_pLogDisk == nullptr) {
    return false;
  }
  m_pLogDisk->Fill();
  m_stLoad.PumpFor(500);
  Kill("gateway");  // which logs in vain
  m_stLoad.PumpFor(500);
  m_pLogDisk->Free();
  Recover();
  return true;
}

// Of one of the two kinds, so that none grows for ever.
std::string SoakFaults::NewestLog() {
  const std::string strPrefix = Below(2) == 0 ? "kv_server_" : "kv_stat_";
  std::string strNewest;
  std::error_code stIgnored;
  for (const auto& stEntry : std::filesystem::directory_iterator(m_strLogDirectory, stIgnored)) {
    const std::string strName = stEntry.path().filename();
    if (strName.rfind(strPrefix, 0) == 0 && stEntry.path().extension() == ".log") {
      strNewest = std::max(strNewest, stEntry.path().string());
    }
  }
  return strNewest;
}

bool SoakFaults::MoveLog() {
  const std::string strLog = NewestLog();
  Recover();
  return !strLog.empty() && rename(strLog.c_str(), (strLog + ".1").c_str()) == 0;
}

bool SoakFaults::RemoveLog() {
  const std::string strLog = NewestLog();
  Recover();
  return !strLog.empty() && unlink(strLog.c_str()) == 0;
}

bool SoakFaults::Save() {
  m_stLoad.Ask({"BGSAVE"});
  Recover();
  return true;
}

std::unique_ptr<Client> SoakFaults::NewClient() const {
  try {
    return std::make_unique<Client>(m_stServer.Port());
  } catch (const std::exception&) {
    return nullptr;  // the gateway has just been killed
  }
}

// The oldest goes when there are enough of them.
bool SoakFaults::NeverRead() {
  auto pClient = NewClient();
  if (pClient == nullptr) {
    return false;
  }
  m_stLoad.Ask({"SET", "silent", std::string(100000, 's')});
  pClient->SendSome(Repeat(Request({"GET", "silent"}), UNREAD));
  m_vecSilent.push_back(std::move(pClient));
  if (m_vecSilent.size() > MANY_CLIENTS) {
    m_vecSilent.erase(m_vecSilent.begin());
  }
  Recover();
  return true;
}

bool SoakFaults::ByteASecond() {
  auto pClient = NewClient();
  if (pClient == nullptr) {
    return false;
  }
  m_vecSlow.emplace_back(std::move(pClient), Request({"SET", "slow", "value"}));
  if (m_vecSlow.size() > MANY_CLIENTS) {
    m_vecSlow.erase(m_vecSlow.begin());
  }
  Recover();
  return true;
}

// Called between two faults, which is about once a second.
void SoakFaults::SendBytes() {
  for (auto& stSlow : m_vecSlow) {
    if (!stSlow.second.empty() && stSlow.first->SendSome(stSlow.second.substr(0, 1)) == 1) {
      stSlow.second.erase(0, 1);
    }
  }
}

std::string SoakFaults::Nonsense() {
  static const std::vector<std::string> vecNonsense{
      "*x\r\n",         "*1\r\n$x\r\n",     "*1\r\n$-1\r\n",
      "*1\r\nPING\r\n", "*-5\r\n\r\n",      "*1\r\n$4\r\nPINGxx",
      "GET \"a\r\n",    "*99999999\r\n",    "*2\r\n$3\r\nGET\r\n$99999999999\r\n",
      "\r\n\r\n\n\n",   "*0\r\n*0\r\n*\r\n"};
  const int iKind = Below(static_cast<int>(vecNonsense.size()) + 3);
  if (iKind < static_cast<int>(vecNonsense.size())) {
    return vecNonsense[static_cast<size_t>(iKind)];
  }
  std::string strBytes = iKind % 2 == 0
                             ? std::string(static_cast<size_t>(Below(70000)), 'x')
                             : Repeat(Request({"SET", "nonsense", std::string(100, 'n')}), 20);
  for (int i = 0; i < 10 && !strBytes.empty(); ++i) {
    const auto iAt = static_cast<size_t>(Below(static_cast<int>(strBytes.size())));
    strBytes[iAt] = static_cast<char>(Below(256));
  }
  return strBytes;
}

bool SoakFaults::Malformed() {
  for (int i = 0; i < 100; ++i) {
    const auto pClient = NewClient();
    if (pClient != nullptr) {
      pClient->SendSome(Nonsense());
    }
    m_stLoad.PumpFor(0);
  }
  Recover();
  return true;
}

bool SoakFaults::Storm() {
  std::vector<std::unique_ptr<Client>> vecClients;
  for (int i = 0; i < STORM; ++i) {
    vecClients.push_back(NewClient());
    if (vecClients.back() != nullptr && i % 3 != 0) {
      vecClients.back()->SendSome("PING\r\n");
    }
    if (i % 20 == 0) {
      m_stLoad.PumpFor(0);
    }
  }
  m_stLoad.PumpFor(Below(500));
  vecClients.clear();
  Recover();
  return true;
}

// Half of them with a reset.
bool SoakFaults::Vanish() {
  for (int i = 0; i < 40; ++i) {
    const auto pClient = NewClient();
    if (pClient == nullptr) {
      continue;
    }
    pClient->SendSome(Repeat(Request({"GET", "silent"}), 5) +
                      Request({"MGET", "silent", "slow", "flood:1"}) + "*2\r\n$3\r\nGE");
    const linger stLinger{i % 2, 0};
    setsockopt(pClient->FD(), SOL_SOCKET, SO_LINGER, &stLinger, sizeof(stLinger));
    m_stLoad.PumpFor(0);
  }
  Recover();
  return true;
}

void SoakFaults::SendClientsAway() {
  m_vecSilent.clear();
  m_vecSlow.clear();
}
