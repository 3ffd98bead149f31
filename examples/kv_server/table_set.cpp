#include "table_set.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "log.h"
#include "my_uuid.h"
#include "zelk_variable.h"

// DESIGN
//
// A line of the list is a key and its worker's number; "new" behind them says that the table is
// still being made: whatever a killed master has left under the key is removed and made again. A
// table is new when its key has no segment: at the first start, and after the machine was booted.

namespace {

const int MAX_PROJECT = 255;  // ftok() looks at 8 bits
const char NEW_MARK[] = "new";
const uint64_t MOST_GROWTH = 4;  // of a table, for keys that do not fit

bool SegmentExists(key_t iKey) { return shmget(iKey, 0, 0) != -1 || errno != ENOENT; }

void RemoveSegment(key_t iKey) {
  const int iShmID = shmget(iKey, 0, 0);
  if (iShmID != -1) {
    shmctl(iShmID, IPC_RMID, nullptr);
  }
}

// 0 without a segment.
uint64_t SegmentBytes(key_t iKey) {
  shmid_ds stStatus{};
  return shmctl(shmget(iKey, 0, 0), IPC_STAT, &stStatus) == 0 ? stStatus.shm_segsz : 0;
}

// Writes a file in whole or not at all.
bool WriteWhole(const std::string& strPath, const std::string& strText) {
  const std::string strNew = strPath + ".new";
  std::ofstream stFile(strNew);
  stFile << strText;
  stFile.close();
  return stFile.good() && rename(strNew.c_str(), strPath.c_str()) == 0;
}

// A text that is none makes zero bytes.
bool IsUuid(const std::string& strText) {
  const unsigned char szZero[sizeof(uuid_t)] = {};
  return strText.size() == UUID_STR_LEN - 1 &&
         memcmp(MyUuid(strText.c_str(), UUID_STR_LEN - 1).Uuid(), szZero, sizeof(szZero)) != 0;
}

std::string Quote(uint64_t iValue) { return "\"" + std::to_string(iValue) + "\""; }

}  // namespace

std::string TableSet::Describe(const TableName_t& stName) {
  char szKey[16];
  snprintf(szKey, sizeof(szKey), "0x%08x", static_cast<unsigned int>(stName.iKey));
  return "the table of worker " + std::to_string(stName.stMark.iWorker) + " (segment " + szKey +
         ")";
}

std::string TableSet::Prepare(const Settings_t& stSettings) {
  std::string strError = LoadRun(stSettings);
  if (!strError.empty()) {
    return strError;
  }
  const MyUuid stUuid(m_stRun.strUuid.c_str(), UUID_STR_LEN - 1);
  for (size_t i = 0; i < m_stRun.iWorkers; ++i) {
    TableName_t stName{-1, m_stRun.iBuckets, {}};
    memcpy(stName.stMark.szRun, stUuid.Uuid(), sizeof(stName.stMark.szRun));
    stName.stMark.iWorker = static_cast<uint32_t>(i);
    stName.stMark.iWorkers = static_cast<uint32_t>(m_stRun.iWorkers);
    m_vecNames.push_back(stName);
  }
  m_vecNew.assign(m_vecNames.size(), false);
  LoadList();
  strError = ChooseKeys();
  for (size_t i = 0; i < m_vecNames.size() && strError.empty(); ++i) {
    strError = PrepareTable(i);
  }
  return strError;
}

std::string TableSet::LoadRun(const Settings_t& stSettings) {
  std::ifstream stFile(RunFile());
  std::string strName;
  if (!stFile.is_open()) {
    m_stRun = {MyUuid::NewUuid(), stSettings.iWorkers, stSettings.iTableBytes,
               stSettings.iTableBuckets};
    return SaveRun() ? "" : "can not write " + RunFile() + ": " + strerror(errno);
  }
  const bool bRead = stFile >> strName >> m_stRun.strUuid && strName == "id" &&
                     stFile >> strName >> m_stRun.iWorkers && strName == "workers" &&
                     stFile >> strName >> m_stRun.iBytes && strName == "bytes" &&
                     stFile >> strName >> m_stRun.iBuckets && strName == "buckets";
  if (!bRead || !IsUuid(m_stRun.strUuid)) {
    return RunFile() + " is damaged; the keys that belong to it can not be found without it";
  }
  return CheckSettings(stSettings);
}

std::string TableSet::Advice(const std::string& strFault) const {
  return strFault.rfind("is damaged", 0) == 0
             ? "; remove the segment (ipcrm -M) to go on without its keys"
             : "; remove " + ListFile() + " to have another key looked for";
}

bool TableSet::SaveRun() const {
  return WriteWhole(RunFile(), "id " + m_stRun.strUuid + "\nworkers " +
                                   std::to_string(m_stRun.iWorkers) + "\nbytes " +
                                   std::to_string(m_stRun.iBytes) + "\nbuckets " +
                                   std::to_string(m_stRun.iBuckets) + "\n");
}

// A key's worker depends on their number; sizes are those of the tables that are there.
std::string TableSet::CheckSettings(const Settings_t& stSettings) const {
  if (stSettings.iWorkers != m_stRun.iWorkers) {
    const std::string strOld = std::to_string(m_stRun.iWorkers);
    return "server.workers = " + Quote(stSettings.iWorkers) + ": the keys of server.run_dir = \"" +
           m_strDirectory + "\" are spread over " + strOld +
           "; start with server.workers=" + strOld +
           ", and once with --ephemeral too to give the keys up";
  }
  if (stSettings.iTableBytes != m_stRun.iBytes || stSettings.iTableBuckets != m_stRun.iBuckets) {
    g_pLog->Warning(
        "master: table.bytes = %s and table.buckets = %s have no effect: the tables "
        "were made with %s and %s",
        Quote(stSettings.iTableBytes).c_str(), Quote(stSettings.iTableBuckets).c_str(),
        Quote(m_stRun.iBytes).c_str(), Quote(m_stRun.iBuckets).c_str());
  }
  return "";
}

void TableSet::LoadList() {
  std::ifstream stFile(ListFile());
  std::string strLine;
  while (std::getline(stFile, strLine)) {
    int iKey = -1;
    unsigned int iWorker = 0;
    char szNew[4] = "";
    // NOLINTNEXTLINE(cert-err34-c): this server has written the list
    const int iCount = sscanf(strLine.c_str(), "%d %u %3s", &iKey, &iWorker, szNew);
    if (iCount >= 2 && iWorker < m_vecNames.size()) {
      m_vecNames[iWorker].iKey = iKey;
      m_vecNew[iWorker] = strcmp(szNew, NEW_MARK) == 0;
    }
  }
}

bool TableSet::SaveList() const {
  std::string strText;
  for (size_t i = 0; i < m_vecNames.size(); ++i) {
    strText += std::to_string(m_vecNames[i].iKey) + " " + std::to_string(i) +
               (m_vecNew[i] ? std::string(" ") + NEW_MARK : "") + "\n";
  }
  return WriteWhole(ListFile(), strText);
}

// For workers that have none: the first key that is free, or that of their own table when the list
// was lost.
std::string TableSet::ChooseKeys() {
  int iProject = 0;
  bool bChanged = false;
  for (size_t i = 0; i < m_vecNames.size(); ++i) {
    TableName_t& stName = m_vecNames[i];
    while (stName.iKey == -1 && iProject < MAX_PROJECT) {
      const key_t iKey = ftok(RunFile().c_str(), ++iProject);
      const bool bExists = SegmentExists(iKey);
      const TableName_t stFound{iKey, stName.iBuckets, stName.stMark};
      if (!bExists || KeyStore::Inspect(stFound).empty()) {
        stName.iKey = iKey;
        m_vecNew[i] = !bExists;
      } else {
        g_pLog->Warning("master: key 0x%08x has somebody else's segment and is passed over",
                        static_cast<unsigned int>(iKey));
      }
      bChanged = true;
    }
    if (stName.iKey == -1) {
      return "all keys that ftok() derives from " + RunFile() + " have somebody else's segments";
    }
  }
  return !bChanged || SaveList() ? "" : "can not write " + ListFile() + ": " + strerror(errno);
}

std::string TableSet::PrepareTable(size_t iWorker) {
  const TableName_t& stName = m_vecNames[iWorker];
  if (m_vecNew[iWorker]) {
    RemoveSegment(stName.iKey);  // half made
  } else if (!SegmentExists(stName.iKey)) {
    g_pLog->Warning("master: %s is gone, and its keys; it is made anew", Describe(stName).c_str());
    m_vecNew[iWorker] = true;
    SaveList();
  }
  if (!m_vecNew[iWorker]) {
    const std::string strFault = KeyStore::Inspect(stName);
    return strFault.empty() ? "" : Describe(stName) + " " + strFault + Advice(strFault);
  }
  return MakeTable(iWorker, m_stRun.iBytes);
}

std::string TableSet::MakeTable(size_t iWorker, uint64_t iBytes) {
  const TableName_t& stName = m_vecNames[iWorker];
  const std::string strError = KeyStore::Create(stName, iBytes);
  if (!strError.empty()) {
    return Describe(stName) + " " + strError + " (table.bytes)";
  }
  m_vecNew[iWorker] = false;
  return SaveList() ? "" : "can not write " + ListFile() + ": " + strerror(errno);
}

bool TableSet::Enlarge(size_t iWorker) {
  const TableName_t& stName = m_vecNames[iWorker];
  const uint64_t iBytes = SegmentBytes(stName.iKey) * 2;
  if (iBytes == 0 || iBytes > m_stRun.iBytes * MOST_GROWTH) {
    return false;
  }
  m_vecNew[iWorker] = true;
  if (!SaveList()) {
    return false;
  }
  RemoveSegment(stName.iKey);
  const std::string strError = MakeTable(iWorker, iBytes);
  if (!strError.empty()) {
    g_pLog->Error("master: %s", strError.c_str());
    return false;
  }
  g_pLog->Warning("master: %s is made anew with %llu bytes, since its keys did not fit",
                  Describe(stName).c_str(), static_cast<unsigned long long>(iBytes));
  return true;
}

void TableSet::Remove() {
  for (const TableName_t& stName : m_vecNames) {
    if (KeyStore::Inspect(stName).empty()) {
      RemoveSegment(stName.iKey);
    }
  }
  m_vecNames.clear();
  unlink(ListFile().c_str());
  unlink(RunFile().c_str());
}
