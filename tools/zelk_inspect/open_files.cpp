#include "open_files.h"

#include <dirent.h>

#include <cerrno>
#include <memory>

#include "segment_holders.h"

namespace {

// 1: has it open; 0: not; -1: may not be looked at.
int HasOpen(pid_t iPid, const struct stat& stFile) {
  const std::string strDirectory = "/proc/" + std::to_string(iPid) + "/fd";
  const std::unique_ptr<DIR, int (*)(DIR*)> pDirectory(opendir(strDirectory.c_str()), closedir);
  if (pDirectory == nullptr) {
    return errno == EACCES || errno == EPERM ? -1 : 0;
  }
  while (const dirent* pEntry = readdir(pDirectory.get())) {
    struct stat stOpen {};
    if (stat((strDirectory + "/" + pEntry->d_name).c_str(), &stOpen) == 0 &&
        stOpen.st_dev == stFile.st_dev && stOpen.st_ino == stFile.st_ino) {
      return 1;
    }
  }
  return 0;
}

}  // namespace

OpenFiles_t FindOpen(const struct stat& stFile) {
  OpenFiles_t stOpen;
  for (const pid_t iPid : ListProcesses()) {
    const int iOpen = HasOpen(iPid, stFile);
    if (iOpen == 1) {
      stOpen.vecPids.push_back(iPid);
    }
    stOpen.iDenied += iOpen == -1 ? 1 : 0;
  }
  return stOpen;
}

std::string OpenText(const OpenFiles_t& stOpen) {
  std::string strText;
  for (const pid_t iPid : stOpen.vecPids) {
    strText += (strText.empty() ? "" : ", ") + std::to_string(iPid) + " (" + CommandOf(iPid) + ")";
  }
  return strText.empty() ? "nobody" : strText;
}
