#include "saver.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "dump_file.h"
#include "journal_file.h"
#include "log.h"
#include "long_action_util.h"
#include "machine_pool.h"
#include "mirror.h"
#include "process_signals.h"
#include "save_machine.h"
#include "zelk_variable.h"

namespace {

const char MOVE_AWAY[] = "; move it away to go on without its keys";
const int MAX_EVENTS = 8;
const int64_t RETRY_SECONDS = 5;  // after a save that failed
const int RULES_PAUSE_MS = 1000;
const int END_PAUSE_MS = 5;
const int CHILD_PAUSE_MS = 100;           // should the signal of a child's end be missed
const int TURN_READS = 2 * 65536 / 1024;  // of a child's output: all that both pipes can hold
const int READ_SIZE = 1024;               // of the library
const int MAX_OUTPUT = 1 << 20;           // of a child, kept in memory
const int64_t END_SECONDS = 10;           // a shutdown that was agreed on ends us within these

int64_t TimeOfFile(const std::string& strPath, int64_t iElse) {
  struct stat stStat {};
  return stat(strPath.c_str(), &stStat) == 0 ? stStat.st_mtime : iElse;
}

}  // namespace

std::string Saver::DumpPath(const Settings_t& stSettings, const TableMark_t& stMark) {
  return stSettings.SavePath() + "/dump-" + std::to_string(stMark.iWorker) + ".kv";
}

Saver::Saver(const Settings_t& stSettings, KeyStore& stStore, const TableMark_t& stMark,
             IdGenerator& stIds)
    : m_stSettings(stSettings),
      m_stStore(stStore),
      m_stMark(stMark),
      m_stIds(stIds),
      m_strPath(DumpPath(stSettings, stMark)),
      m_stJournal(stSettings, stStore, stMark),
      m_iEpoll(epoll_create1(EPOLL_CLOEXEC)),
      m_iLastSave(TimeOfFile(m_strPath, time(nullptr))) {
  LongActionUtil::Instance().SetEpollFD(m_iEpoll);
  SaveMachine::RegisterStates();
}

Saver::~Saver() { close(m_iEpoll); }

// Of a table that was there before nobody knows whether a dump has all its changes: an earlier
// worker may have died, or ended without a save. That counts as one change.
std::string Saver::Load() {
  RemoveUnfinishedDump(m_strPath);
  const bool bNew = !m_stStore.IsLoaded();
  uint64_t iGeneration = bNew ? 0 : DumpGeneration(m_stMark, m_strPath);
  bool bWhole = false;
  std::string strError = bNew ? Fill(iGeneration, bWhole) : "";
  if (!bNew) {
    m_iSavedChanges = m_stStore.Changes() - 1;
  }
  if (strError.empty()) {
    m_stJournal.Begin(iGeneration, bWhole);
  }
  return strError;
}

// Nothing is over while dump and journal are read: a record to come may give a key more time.
std::string Saver::Fill(uint64_t& iGeneration, bool& bWhole) {
  const int64_t iNow = m_stStore.Now();
  m_stStore.Clear();
  m_stStore.SetTime(0);
  std::string strError = LoadKeys(iGeneration, bWhole);
  if (!strError.empty()) {
    return strError + MOVE_AWAY;
  }
  m_iSavedChanges = m_stStore.Changes();
  strError = m_stJournal.Replay(iGeneration);
  if (!strError.empty()) {
    return strError + MOVE_AWAY;
  }
  m_stStore.SetTime(iNow);
  if (!bWhole) {
    strError = LoadFromMirror(iGeneration, bWhole);
  }
  if (!strError.empty()) {
    return strError;
  }
  return m_stStore.SetLoaded() ? "" : "table.bytes: the table has no room";
}

// bWhole: dump and journal have all keys. The mirror stands in for both, until the next save.
std::string Saver::LoadKeys(uint64_t& iGeneration, bool& bWhole) {
  DumpStat_t stStat{};
  std::string strError = LoadDump(m_stStore, m_stMark, m_strPath, stStat);
  iGeneration = stStat.iGeneration;
  const bool bDump = stStat.iBytes > 0;
  bWhole = bDump || !HasMirror() ||
           !JournalGenerations(m_stSettings.SavePath(), m_stMark.iWorker).empty();
  if (strError.empty() && bDump) {
    g_pLog->Warning("worker %u: the table is new; %llu keys come from %s", m_stMark.iWorker,
                    static_cast<unsigned long long>(stStat.iKeys), m_strPath.c_str());
  }
  return strError;
}

// A server that started without its keys because its database was down, too, would be believed.
std::string Saver::LoadFromMirror(uint64_t& iGeneration, bool& bWhole) {
  g_pLog->Warning("worker %u: the table is new and there is no dump; asks the mirror at %s:%llu",
                  m_stMark.iWorker, m_stSettings.strMirrorHost.c_str(),
                  static_cast<unsigned long long>(m_stSettings.iMirrorPort));
  uint64_t iKeys = 0;
  const std::string strError = LoadMirror(m_stSettings, m_stMark, m_stStore, iKeys);
  if (!strError.empty()) {
    return strError +
           "; there is no other copy of the keys. To start without them, name another "
           "mirror.mysql.table, or no mirror.mysql.host";
  }
  g_pLog->Warning("worker %u: %llu keys come from the mirror", m_stMark.iWorker,
                  static_cast<unsigned long long>(iKeys));
  bWhole = true;
  return iKeys == 0 ? "" : SaveMirrored(iGeneration);
}

// Before anything is built on these keys they get a dump: a journal that had none before it would
// be taken for all there is, and an empty table then for what the mirror should have.
std::string Saver::SaveMirrored(uint64_t& iGeneration) {
  DumpStat_t stStat{};
  const std::string strError = WriteDump(m_stStore, m_stMark, m_strPath, stStat, 1);
  iGeneration = 1;
  m_iSavedChanges = m_stStore.Changes();
  return strError.empty() ? "" : strError + "; the mirror's keys need a dump";
}

bool Saver::Start(const char* pReason) {
  if (Running()) {
    return false;
  }
  auto pMachine = std::make_unique<SaveMachine>(*this, m_stIds.GetId());
  if (!pMachine->Begin()) {
    g_pLog->Error("worker %u: a save can not be started: %s", m_stMark.iWorker,
                  pMachine->Error().c_str());
    OnSaved(false, 0, 0);
    return false;
  }
  g_pLog->Info("worker %u: a save starts, %s", m_stMark.iWorker, pReason);
  m_iMachine = pMachine->GetId();
  MachinePool::Instance().AddMachine(pMachine.release());
  return true;
}

int Saver::Turn(int iMost) {
  if (Running()) {
    Resume();
  }
  if (Running()) {
    const int iPause = std::min(iMost, CHILD_PAUSE_MS);
    return m_pFeed == nullptr ? iPause : m_pFeed->Turn(iPause);
  }
  const bool bForJournal = m_stJournal.WantsSave();
  if (m_stSettings.vecSaveRules.empty() && !bForJournal) {
    return iMost;
  }
  const int64_t iPause = m_iRetryAt - Now();  // longer than it should be: the clock was set back
  if (bForJournal && (iPause <= 0 || iPause > RETRY_SECONDS)) {
    Start("since the journal lacks changes");
  } else if (RuleHolds()) {
    Start("by a rule");
  }
  return std::min(iMost, RULES_PAUSE_MS);
}

// What an ended child has written is in its pipe, so it is read between seeing the end and
// finishing the child.
void Saver::Resume() {
  LongActionUtil& stUtil = LongActionUtil::Instance();
  stUtil.IsLongAction(0, 0);
  Drain();
  const std::unique_ptr<long_action_response_t> pResponse(stUtil.PollChild());
  StateMachine* pMachine = MachinePool::Instance().GetMachine(m_iMachine);
  if (pResponse != nullptr && pMachine->DoNext(nullptr, pResponse.get()) != 0) {
    MachinePool::Instance().RemoveMachine(m_iMachine);
    m_iMachine = 0;
    delete pMachine;
  }
}

// Not to the end: a hook may print faster than this reads, and clients wait.
void Saver::Drain() {
  epoll_event astEvents[MAX_EVENTS];
  int iCount = 0;
  for (int iReads = 0; iReads < TURN_READS; iReads += iCount) {
    iCount = epoll_wait(m_iEpoll, astEvents, MAX_EVENTS, 0);
    if (iCount <= 0) {
      break;
    }
    for (int i = 0; i < iCount; ++i) {
      int iWaiting = 0;
      ioctl(astEvents[i].data.fd, FIONREAD, &iWaiting);
      m_iOutput += std::min(iWaiting, READ_SIZE);
      LongActionUtil::Instance().EventCallback(astEvents[i].data.fd);
    }
  }
  if (m_iOutput > MAX_OUTPUT && !m_bChildKilled) {
    g_pLog->Error("worker %u: a save's child prints too much and is killed", m_stMark.iWorker);
    KillChild();
  }
}

void Saver::KillChild() {
  m_bChildKilled = true;
  for (const int iPid : LongActionUtil::Instance().EnumAllChildren()) {
    if (kill(-iPid, SIGKILL) != 0) {  // it has no group of its own yet
      kill(iPid, SIGKILL);
    }
  }
}

// Also when the last save seems to be yet to come: the clock was set back.
bool Saver::RuleHolds() const {
  const uint64_t iChanges = m_stStore.Changes() - m_iSavedChanges;
  const int64_t iSeconds = Now() - m_iLastSave;
  const int64_t iPause = m_iRetryAt - Now();
  return (iPause <= 0 || iPause > RETRY_SECONDS) &&
         std::any_of(m_stSettings.vecSaveRules.begin(), m_stSettings.vecSaveRules.end(),
                     [=](const SaveRule_t& stRule) {
                       return iChanges >= stRule.iChanges &&
                              (iSeconds >= stRule.iSeconds || iSeconds < 0);
                     });
}

void Saver::OnSaved(bool bGood, uint64_t iChanges, uint64_t iGeneration) {
  m_bLastGood = bGood;
  if (!bGood) {
    RemoveUnfinishedDump(m_strPath);
    m_iRetryAt = Now() + RETRY_SECONDS;
    return;
  }
  m_bMirrorBehind = HasMirror();
  m_iSavedChanges = iChanges;
  m_iLastSave = Now();
  m_stJournal.OnSaved(iGeneration);
}

void Saver::Abandon() {
  m_bAbandoning = true;
  while (Running()) {
    KillChild();
    PauseMilliseconds(1);
    Resume();
  }
  m_bAbandoning = false;
}

bool Saver::SaveNow() {
  Abandon();
  DumpStat_t stStat{};
  uint64_t iGeneration = 0;
  std::string strError = m_stJournal.Rotate(iGeneration);
  if (strError.empty()) {
    strError = WriteDump(m_stStore, m_stMark, m_strPath, stStat, iGeneration);
  }
  OnSaved(strError.empty(), m_stStore.Changes(), iGeneration);
  if (strError.empty()) {
    g_pLog->Info("worker %u: saved %llu keys, %llu bytes", m_stMark.iWorker,
                 static_cast<unsigned long long>(stStat.iKeys),
                 static_cast<unsigned long long>(stStat.iBytes));
  } else {
    g_pLog->Error("worker %u: the save has failed: %s", m_stMark.iWorker, strError.c_str());
  }
  return strError.empty();
}

void Saver::DoNotSaveAtEnd() {
  m_iNoSaveBefore = Now() + static_cast<int64_t>(m_stSettings.iStopTimeout) + END_SECONDS;
}

void Saver::Finish() {
  Abandon();
  const bool bUnwanted = Now() < m_iNoSaveBefore;
  const bool bChanged = m_stStore.Changes() != m_iSavedChanges;
  if (!bUnwanted && bChanged && !m_stSettings.vecSaveRules.empty()) {
    SaveNow();
  }
  if (m_bMirrorBehind && !bUnwanted && StartMirror()) {
    while (Running()) {
      PauseMilliseconds(END_PAUSE_MS);
      Resume();
      MachinePool::Instance().ProcessTimeout(0);
    }
  }
  m_stJournal.Finish();
}

bool Saver::StartMirror() {
  auto pMachine = std::make_unique<SaveMachine>(*this, m_stIds.GetId());
  if (!pMachine->BeginMirror()) {
    return false;
  }
  m_iMachine = pMachine->GetId();
  MachinePool::Instance().AddMachine(pMachine.release());
  return true;
}

SaveStat_t Saver::Stat() const {
  return {m_stStore.Changes() - m_iSavedChanges, Running() ? 1u : 0u,
          static_cast<uint64_t>(m_iLastSave), m_bLastGood ? 1u : 0u};
}
