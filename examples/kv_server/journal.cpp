#include "journal.h"

#include <fcntl.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "aio_util.h"
#include "dump_file.h"
#include "log.h"
#include "zelk_variable.h"

// DESIGN
//
// Why a replay is right, whoever was killed and whenever.
//
// A dump of generation g has all changes of the files below g and none of file g: when a save
// copies the keys, everything changed so far is written into the present file and synced, and the
// next file is there (written aside, synced, renamed, the directory synced) before the copy is
// saved. So these hold at every instruction:
//   - The dump takes the place of the former one by one rename. Before it, the former dump and the
//     files from its generation on are all there; after it, the new dump and the files from its
//     generation on. Only then are the older files removed, which nobody reads by that time.
//   - A save that fails or is killed leaves one more file in the row, and nothing else.
//   - A record tells what a key has become, so doing changes again in their order ends in the same
//     keys from wherever one starts. A replay that is killed starts again from the dump.
//   - No file is written by two processes. A new worker starts a file of its own; so a torn record
//     is the last of its file, and of changes that nobody was told to be done.
//
// Tables outlive their worker, so one may die after a change and before its record was written;
// the table is then ahead of the journal. The table's mark knows: it is the generation of the file
// that the table is in step with, and is taken away by the store before each change. A worker that
// finds none has a save made, which brings dump and journal to the table's state. A mark that is
// FAILED also says that writes have been refused, and are until that save has succeeded.

namespace {

const uint64_t FAILED = UINT64_MAX;
const size_t MUCH = 1 << 20;  // bytes that are written before the turn's end
const int SYNC_MS = 1000;

int64_t MonotonicMilliseconds() {
  timespec stNow{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &stNow);
  return stNow.tv_sec * 1000 + stNow.tv_nsec / 1000000;
}

// Whether the generations from iFirst on have files without a gap, if there are any.
bool IsRow(const std::vector<uint64_t>& vecGenerations) {
  return vecGenerations.empty() ||
         vecGenerations.back() - vecGenerations.front() + 1 == vecGenerations.size();
}

std::vector<uint64_t> From(uint64_t iFirst, std::vector<uint64_t> vecGenerations) {
  vecGenerations.erase(vecGenerations.begin(),
                       std::lower_bound(vecGenerations.begin(), vecGenerations.end(), iFirst));
  return vecGenerations;
}

// What a dump goes on with; without a dump it is the first of all.
uint64_t FirstAfter(uint64_t iDump) { return std::max<uint64_t>(iDump, 1); }

}  // namespace

Journal::Journal(const Settings_t& stSettings, KeyStore& stStore, const TableMark_t& stMark)
    : m_bOn(stSettings.strJournalSync != "no"),
      m_bSyncBatches(stSettings.strJournalSync == "batch"),
      m_stStore(stStore),
      m_stMark(stMark),
      m_strDirectory(stSettings.SavePath()),
      m_stEncoder(JournalHead(stMark, 0)) {}

Journal::~Journal() {
  m_stStore.SetListener(nullptr);
  CloseFile();
}

std::string Journal::Path(uint64_t iGeneration) const {
  return JournalPath(m_strDirectory, m_stMark.iWorker, iGeneration);
}

std::string Journal::Replay(uint64_t iDump) {
  uint64_t iExpected = FirstAfter(iDump);
  for (const uint64_t iGeneration :
       From(iExpected, JournalGenerations(m_strDirectory, m_stMark.iWorker))) {
    const std::string strPath = Path(iGeneration);
    if (iGeneration != iExpected++) {
      return strPath + ": what goes before it is missing";
    }
    JournalReplay_t stReplay{};
    std::string strError = ReplayJournal(m_stStore, m_stMark, iGeneration, strPath, stReplay);
    if (stReplay.iCut > 0 && strError.empty()) {
      g_pLog->Warning("worker %u: %s: a torn last record of %llu bytes is cut off",
                      m_stMark.iWorker, strPath.c_str(),
                      static_cast<unsigned long long>(stReplay.iCut));
    }
    if (!strError.empty()) {
      return strError;
    }
    g_pLog->Info("worker %u: %llu changes come from %s", m_stMark.iWorker,
                 static_cast<unsigned long long>(stReplay.iRecords), strPath.c_str());
  }
  return "";
}

void Journal::Begin(uint64_t iDump, bool bWhole) {
  const uint64_t iFirst = FirstAfter(iDump);
  const auto vecFiles = From(iFirst, JournalGenerations(m_strDirectory, m_stMark.iWorker));
  m_iGeneration = vecFiles.empty() ? iFirst - 1 : vecFiles.back();
  const uint64_t iMark = m_stStore.Mark();
  if (!m_bOn) {
    if (iMark != 0) {
      m_stStore.SetMark(0);  // changes will be made that no file tells
    }
    return;
  }
  const bool bInStep = !vecFiles.empty() && vecFiles.front() == iFirst && IsRow(vecFiles) &&
                       iMark == vecFiles.back();
  m_bWhole = bWhole || bInStep;
  if (!m_bWhole && iMark == FAILED) {
    return Fail("an earlier worker could not write it");
  }
  const std::string strError = OpenNext();
  if (!strError.empty()) {
    return Fail(strError);
  }
  m_stStore.SetMark(0);
  m_stStore.SetListener(this);
  MarkWhole();
}

// The file has its name only when it has its head.
std::string Journal::OpenNext() {
  const std::string strPath = Path(m_iGeneration + 1);
  const std::string strNew = strPath + ".new";
  const JournalHead_t stHead = JournalHead(m_stMark, m_iGeneration + 1);
  const int iFD = open(strNew.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
  errno = iFD == -1 ? errno : ENOSPC;  // a short write says nothing
  const bool bMade = iFD != -1 && write(iFD, &stHead, sizeof(stHead)) == sizeof(stHead) &&
                     fsync(iFD) == 0 && rename(strNew.c_str(), strPath.c_str()) == 0 &&
                     SyncDirectoryOf(strPath);
  if (!bMade) {
    std::string strError = strPath + ": " + strerror(errno);
    if (iFD != -1) {
      close(iFD);
      unlink(strNew.c_str());
    }
    return strError;
  }
  CloseFile();
  ++m_iGeneration;
  m_iFD = iFD;
  m_iSize = sizeof(stHead);
  m_bUnsynced = false;
  m_stEncoder = JournalEncoder(stHead);
  return "";
}

void Journal::CloseFile() {
  Await(SYNC);  // or its end would be taken for the next file's
  if (m_iFD != -1) {
    close(m_iFD);
    m_iFD = -1;
  }
}

void Journal::OnSet(std::string_view strKey, std::string_view strValue, int64_t iExpireAt) {
  m_stEncoder.Set(m_strBuffer, strKey, strValue, iExpireAt);
  FlushMuch();
}

void Journal::OnExpiry(std::string_view strKey, int64_t iExpireAt) {
  m_stEncoder.Other(m_strBuffer, JOURNAL_EXPIRES, strKey, iExpireAt);
  FlushMuch();
}

void Journal::OnRemove(std::string_view strKey) {
  m_stEncoder.Other(m_strBuffer, JOURNAL_REMOVED, strKey, KeyStore::NEVER);
  FlushMuch();
}

void Journal::OnClear() { m_stEncoder.Other(m_strBuffer, JOURNAL_CLEARED, {}, KeyStore::NEVER); }

// A turn of large values shall not take their memory twice.
void Journal::FlushMuch() {
  if (m_strBuffer.size() >= MUCH) {
    Flush();
  }
}

void Journal::Flush() {
  size_t iDone = 0;
  while (iDone < m_strBuffer.size()) {
    m_aiResult[WRITE] = AIOUtil::Instance().SubmitWriteRequest(
        m_iFD, m_strBuffer.data() + iDone, m_iSize, m_strBuffer.size() - iDone, WRITE);
    m_abBusy[WRITE] = m_aiResult[WRITE] == 0;
    Await(WRITE);
    if (m_iFD == -1) {  // a sync that has failed meanwhile has given the journal up
      m_bLost = true;
      return;
    }
    if (m_aiResult[WRITE] <= 0) {
      m_bLost = true;
      const auto iError = static_cast<int>(m_aiResult[WRITE] == 0 ? ENOSPC : -m_aiResult[WRITE]);
      return Fail(Path(m_iGeneration) + ": " + strerror(iError));
    }
    iDone += static_cast<size_t>(m_aiResult[WRITE]);
    m_iSize += static_cast<uint64_t>(m_aiResult[WRITE]);
    m_bUnsynced = true;
  }
  m_strBuffer.clear();
}

// On the disk when this returns, if nothing fails.
void Journal::SyncNow() {
  Await(SYNC);
  if (m_iFD == -1 || !m_bUnsynced) {
    return;
  }
  if (StartSync()) {
    Await(SYNC);
  }
  m_bLost = m_bLost || (m_bSyncBatches && m_iFD == -1);
}

bool Journal::StartSync() {
  m_bUnsynced = false;
  m_iSyncAt = MonotonicMilliseconds();
  const int iResult = AIOUtil::Instance().SubmitSyncRequest(m_iFD, SYNC);
  m_abBusy[SYNC] = iResult == 0;
  if (iResult != 0) {
    Fail(Path(m_iGeneration) + ": " + strerror(-iResult));
  }
  return iResult == 0;
}

void Journal::Collect() {
  std::vector<aio_param_t> vecDone;
  AIOUtil::Instance().SomethingDone(vecDone);
  for (const aio_param_t& stDone : vecDone) {
    m_abBusy[stDone.iReqID] = false;
    m_aiResult[stDone.iReqID] = stDone.iRetcode;
    if (stDone.iReqID != SYNC) {
      continue;
    }
    if (stDone.iRetcode == 0) {
      ++m_iSyncs;
    } else {
      Fail(Path(m_iGeneration) + ": " + strerror(static_cast<int>(-stDone.iRetcode)));
    }
  }
}

void Journal::Await(Request_t eRequest) {
  while (m_abBusy[eRequest]) {
    Collect();
    if (m_abBusy[eRequest]) {
      pollfd stPoll{AIOUtil::Instance().GetEventFD(), POLLIN, 0};
      poll(&stPoll, 1, -1);
    }
  }
}

// Whatever is in the file stays there: the row goes on behind it after a save.
void Journal::Fail(const std::string& strWhat) {
  if (m_strError.empty()) {
    g_pLog->Error(
        "worker %u: the journal can not be written: %s; writes are refused until a save "
        "has succeeded",
        m_stMark.iWorker, strWhat.c_str());
  }
  m_strError = strWhat;
  m_bWhole = false;
  m_bUnsynced = false;
  m_strBuffer.clear();
  m_stStore.SetListener(nullptr);
  m_stStore.SetMark(FAILED);
  if (m_iFD != -1) {
    close(m_iFD);
    m_iFD = -1;
  }
}

void Journal::MarkWhole() {
  if (m_bWhole && m_strBuffer.empty()) {
    m_stStore.SetMark(m_iGeneration);
  }
}

bool Journal::Commit() {
  if (m_strBuffer.empty() && !(m_bSyncBatches && m_bUnsynced)) {
    return !m_bLost;
  }
  Flush();
  if (m_bSyncBatches) {
    SyncNow();
  }
  MarkWhole();
  return !m_bLost;
}

int Journal::Turn(int iMost) {
  if (!m_bOn) {
    return iMost;
  }
  Commit();
  m_bLost = false;
  if (m_abBusy[SYNC]) {
    Collect();
  }
  if (!m_bUnsynced || m_abBusy[SYNC]) {
    return iMost;
  }
  const int64_t iWait = m_iSyncAt + SYNC_MS - MonotonicMilliseconds();
  if (iWait > 0) {
    return static_cast<int>(std::min<int64_t>(iWait, iMost));
  }
  StartSync();
  return iMost;
}

int Journal::WaitFD() const { return m_abBusy[SYNC] ? AIOUtil::Instance().GetEventFD() : -1; }

void Journal::Finish() {
  if (m_bOn) {
    Flush();
    SyncNow();
    MarkWhole();
  }
}

std::string Journal::Rotate(uint64_t& iGeneration) {
  std::string strError;
  Flush();
  SyncNow();
  const bool bUsed = m_iFD == -1 || m_iSize > sizeof(JournalHead_t);
  if (m_bOn && bUsed) {
    strError = OpenNext();
  }
  iGeneration = m_bOn ? m_iGeneration : m_iGeneration + 1;
  return strError;
}

void Journal::OnSaved(uint64_t iGeneration) {
  for (const uint64_t iOld : JournalGenerations(m_strDirectory, m_stMark.iWorker)) {
    if (iOld < iGeneration) {
      unlink(Path(iOld).c_str());
    }
  }
  if (m_iFD == -1) {
    return;
  }
  if (!m_strError.empty()) {
    g_pLog->Info("worker %u: the journal goes on, writes are served again", m_stMark.iWorker);
    m_strError.clear();
    m_stStore.SetListener(this);
  }
  m_bWhole = true;
  MarkWhole();
}

JournalStat_t Journal::Stat() const {
  return {m_bOn ? 1u : 0u,
          m_strError.empty() ? 1u : 0u,
          m_bWhole || !m_bOn ? 1u : 0u,
          m_bOn ? m_iSize : 0,
          m_bUnsynced || m_abBusy[SYNC] ? 1u : 0u,
          m_iSyncs};
}
