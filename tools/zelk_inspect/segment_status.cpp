#include "segment_status.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

SegmentStatus_t Status(int iId, const shmid_ds& stFrom) {
  SegmentStatus_t stStatus;
  stStatus.iId = iId;
  stStatus.iKey = stFrom.shm_perm.__key;
  stStatus.iSize = stFrom.shm_segsz;
  stStatus.iAttached = stFrom.shm_nattch;
  stStatus.iOwner = stFrom.shm_perm.uid;
  stStatus.iMode = stFrom.shm_perm.mode & 0777;
  stStatus.bRemoved = (stFrom.shm_perm.mode & SHM_DEST) != 0;
  return stStatus;
}

// Of the whole text, in that base (0: by prefix).
bool ParseNumber(const std::string& strText, int iBase, int64_t& iNumber) {
  char* pEnd = nullptr;
  errno = 0;
  iNumber = strtoll(strText.c_str(), &pEnd, iBase);
  return errno == 0 && !strText.empty() && *pEnd == '\0';
}

std::string FindByKey(key_t iKey, const std::string& strName, int& iId) {
  // A private segment has the key 0, and shmget() would make a new one.
  iId = iKey == IPC_PRIVATE ? -1 : shmget(iKey, 0, 0);
  return iId == -1 ? strName + ": no segment has the key " + KeyText(iKey) : "";
}

std::string FindByPath(const std::string& strName, size_t iColon, int& iId) {
  int64_t iProject = 0;
  const std::string strPath = strName.substr(0, iColon);
  if (!ParseNumber(strName.substr(iColon + 1), 0, iProject)) {
    return strName + ": no project number behind the colon";
  }
  const key_t iKey = ftok(strPath.c_str(), static_cast<int>(iProject));
  return iKey == -1 ? strPath + ": " + strerror(errno) : FindByKey(iKey, strName, iId);
}

}  // namespace

std::string KeyText(key_t iKey) {
  char szText[16];
  snprintf(szText, sizeof(szText), "0x%08x", static_cast<unsigned int>(iKey));
  return szText;
}

bool ReadStatus(int iId, SegmentStatus_t& stStatus) {
  shmid_ds stFrom{};
  if (shmctl(iId, IPC_STAT, &stFrom) != 0) {
    return false;
  }
  stStatus = Status(iId, stFrom);
  return true;
}

std::string FindSegment(const std::string& strName, SegmentStatus_t& stStatus) {
  const size_t iColon = strName.rfind(':');
  int64_t iNumber = 0;
  int iId = -1;
  std::string strError;
  if (iColon != std::string::npos) {
    strError = FindByPath(strName, iColon, iId);
  } else if (strName.compare(0, 2, "0x") == 0) {
    strError = !ParseNumber(strName, 16, iNumber) || iNumber > UINT32_MAX
                   ? strName + ": not a key"
                   : FindByKey(static_cast<key_t>(iNumber), strName, iId);
  } else if (ParseNumber(strName, 10, iNumber) && iNumber >= 0 && iNumber <= INT32_MAX) {
    iId = static_cast<int>(iNumber);
  } else {
    strError = strName + ": a segment is named by id, by key (0x...) or by PATH:NUMBER";
  }
  if (!strError.empty()) {
    return strError;
  }
  if (ReadStatus(iId, stStatus)) {
    return {};
  }
  return strName + ": " + (errno == EINVAL || errno == EIDRM ? "no such segment" : strerror(errno));
}

std::vector<SegmentStatus_t> ListSegments() {
  std::vector<SegmentStatus_t> vecList;
  shm_info stInfo{};
  shmid_ds stFrom{};
  const int iLast = shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&stInfo));
  for (int i = 0; i <= iLast; ++i) {
    const int iId = shmctl(i, SHM_STAT_ANY, &stFrom);
    if (iId != -1) {
      vecList.push_back(Status(iId, stFrom));
    }
  }
  return vecList;
}
