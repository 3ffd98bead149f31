#include "remove.h"

#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "open_files.h"
#include "process_view.h"
#include "ring_check.h"
#include "segment_format.h"
#include "segment_status.h"

namespace {

bool IsAgreed(const Options_t& stOptions, const std::string& strWhat) {
  if (stOptions.bYes) {
    return true;
  }
  printf("remove %s? [y/N] ", strWhat.c_str());
  if (fflush(stdout) != 0) {
    return false;  // nobody has seen the question
  }
  // The whole line: its end is no answer to the next question.
  std::string strAnswer;
  return std::getline(std::cin, strAnswer) && !std::cin.eof() &&
         (strAnswer == "y" || strAnswer == "yes");
}

// What would be lost; bForeign when that is not known to be ours.
std::string Content(const SegmentStatus_t& stStatus, bool& bForeign) {
  std::string strError;
  bForeign = true;
  const auto pView = OpenSegment(stStatus, &strError);
  if (pView == nullptr) {
    return "unknown content";
  }
  const Format_t eFormat = FormatOf(*pView, true);
  bForeign = eFormat == FORMAT_NONE;
  if (eFormat == FORMAT_RING) {
    return "a ring with " + std::to_string(CheckRing(*pView).iMessages) + " pending messages";
  }
  if (eFormat == FORMAT_TABLE) {
    const uint64_t iEntries = pView->Word(HEAP_RESERVED + TABLE_OBJECT_COUNT);
    return "a table with " + std::to_string(iEntries) + " entries";
  }
  if (eFormat == FORMAT_HEAP) {
    return "a heap with " + std::to_string(pView->Word(HEAP_BLOCK_COUNT)) + " blocks in use";
  }
  return "not one of our formats";
}

// Empty when it was removed, else why not. Looks again behind the answer: that may take a while.
std::string RemoveSegment(const Options_t& stOptions, const std::string& strName) {
  SegmentStatus_t stStatus;
  std::string strError = FindSegment(strName, stStatus);
  if (!strError.empty()) {
    return strError;
  }
  bool bForeign = false;
  const std::string strContent = Content(stStatus, bForeign);
  const std::string strWhat = "segment " + std::to_string(stStatus.iId) + " (key " +
                              KeyText(stStatus.iKey) + ", " + std::to_string(stStatus.iSize) +
                              " bytes, " + strContent + ")";
  // A job that removes by number shall not hit a segment that got the number meanwhile.
  if (stOptions.bYes && bForeign && !stOptions.bForeign && stStatus.iAttached == 0) {
    return strName + ": " + strContent + ", kept; --foreign removes it";
  }
  if (stStatus.iAttached == 0 && !IsAgreed(stOptions, strWhat)) {
    return strName + ": kept";
  }
  if (!ReadStatus(stStatus.iId, stStatus)) {
    return strName + ": " + strerror(errno);
  }
  if (stStatus.iAttached != 0) {
    return strName + ": in use by " + HolderText(FindHolders(stStatus.iId), stStatus.iAttached) +
           ", kept";
  }
  return shmctl(stStatus.iId, IPC_RMID, nullptr) == 0 ? "" : strName + ": " + strerror(errno);
}

std::string UsedBy(const struct stat& stFile) {
  const OpenFiles_t stOpen = FindOpen(stFile);
  if (!stOpen.vecPids.empty()) {
    return "in use by " + OpenText(stOpen) + ", kept";
  }
  // A process of another user may have a FIFO that others may open.
  return stOpen.iDenied > 0 && (stFile.st_mode & 0077) != 0
             ? std::to_string(stOpen.iDenied) + " processes may not be looked at, kept"
             : "";
}

std::string RemoveFifo(const Options_t& stOptions, const std::string& strPath,
                       const struct stat& stFile) {
  std::string strUsed = UsedBy(stFile);
  if (strUsed.empty() && !IsAgreed(stOptions, "FIFO " + strPath)) {
    return strPath + ": kept";
  }
  strUsed = UsedBy(stFile);
  if (!strUsed.empty()) {
    return strPath + ": " + strUsed;
  }
  return unlink(strPath.c_str()) == 0 ? "" : strPath + ": " + strerror(errno);
}

std::string RemoveOne(const Options_t& stOptions, const std::string& strName) {
  struct stat stFile {};
  const bool bPath = strName.find('/') != std::string::npos;
  if (bPath && lstat(strName.c_str(), &stFile) == 0) {
    return S_ISFIFO(stFile.st_mode) ? RemoveFifo(stOptions, strName, stFile)
                                    : strName + ": not a FIFO";
  }
  return RemoveSegment(stOptions, strName);
}

}  // namespace

int RunRemove(const Options_t& stOptions) {
  int iResult = EXIT_FINE;
  for (const std::string& strName : stOptions.vecNames) {
    const std::string strError = RemoveOne(stOptions, strName);
    if (!strError.empty()) {
      fprintf(stderr, "zelk-inspect: %s\n", strError.c_str());
      iResult = EXIT_NOT_READABLE;
    }
  }
  return iResult;
}
