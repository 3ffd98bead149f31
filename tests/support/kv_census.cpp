#include "kv_census.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <vector>

#include "test_support.h"

namespace {

const char TITLE[] = "kv_server: ";

std::string Proc(pid_t iPid, const std::string& strName) {
  return "/proc/" + std::to_string(iPid) + "/" + strName;
}

std::vector<pid_t> ChildrenOf(pid_t iPid) {
  std::istringstream stText(ReadFile(Proc(iPid, "task/" + std::to_string(iPid) + "/children")));
  std::vector<pid_t> vecChildren;
  for (pid_t iChild = 0; stText >> iChild;) {
    vecChildren.push_back(iChild);
  }
  return vecChildren;
}

// "worker 0", "gateway"; "" before it has its title.
std::string TitleOf(pid_t iPid) {
  const std::string strLine = ReadFile(Proc(iPid, "cmdline")).c_str();
  if (strLine.rfind(TITLE, 0) != 0) {
    return "";
  }
  const std::string strTitle = strLine.substr(sizeof(TITLE) - 1);
  return strTitle.rfind("gateway", 0) == 0 ? "gateway" : strTitle;
}

int DescriptorsOf(pid_t iPid) {
  std::error_code stError;
  const std::filesystem::directory_iterator stBegin(Proc(iPid, "fd"), stError);
  return stError ? 0 : static_cast<int>(std::distance(begin(stBegin), end(stBegin)));
}

size_t OwnMemoryOf(pid_t iPid) {
  const std::string strStatus = ReadFile(Proc(iPid, "status"));
  const size_t iLine = strStatus.find("RssAnon:");
  return iLine == std::string::npos
             ? 0
             : strtoull(strStatus.c_str() + iLine + 8, nullptr, 10) * size_t{1024};
}

void CountFiles(const std::string& strDirectory, Census_t& stCensus) {
  std::error_code stIgnored;
  for (const auto& stEntry : std::filesystem::directory_iterator(strDirectory, stIgnored)) {
    const std::string strName = stEntry.path().filename();
    const bool bFifo = stEntry.is_fifo(stIgnored);
    const bool bFile = stEntry.is_regular_file(stIgnored) && stEntry.path().extension() != ".kv" &&
                       strName.find(".kv.new") == std::string::npos;
    stCensus.iFifos += bFifo ? 1 : 0;
    stCensus.iFiles += bFile ? 1 : 0;
  }
}

// Of the lists, and whatever else one of the processes has made.
void CountSegments(const std::string& strDirectory, const std::set<pid_t>& setPids,
                   Census_t& stCensus) {
  std::set<int64_t> setKeys;
  for (const char* pList : {"/queues", "/tables"}) {
    std::ifstream stFile(strDirectory + pList);
    std::string strRest;
    for (int64_t iKey = 0; stFile >> iKey && std::getline(stFile, strRest);) {
      setKeys.insert(iKey);
    }
  }
  std::istringstream stTable(ReadFile("/proc/sysvipc/shm"));
  std::string strLine;
  std::getline(stTable, strLine);  // the names of the columns
  while (std::getline(stTable, strLine)) {
    int64_t iKey = 0;
    int64_t iId = 0;
    std::string strMode;
    size_t iBytes = 0;
    pid_t iMaker = 0;
    std::istringstream(strLine) >> iKey >> iId >> strMode >> iBytes >> iMaker;
    if (setKeys.count(iKey) != 0 || setPids.count(iMaker) != 0) {
      ++stCensus.iSegments;
      stCensus.iSegmentBytes += iBytes;
    }
  }
}

}  // namespace

int Census_t::Descriptors() const {
  int iSum = 0;
  for (const auto& stItem : mapDescriptors) {
    iSum += stItem.second;
  }
  return iSum;
}

size_t Census_t::Memory() const {
  size_t iSum = 0;
  for (const auto& stItem : mapMemory) {
    iSum += stItem.second;
  }
  return iSum;
}

std::string Census_t::Counts() const {
  std::string strText;
  for (const auto& stItem : mapDescriptors) {
    strText += stItem.first + " " + std::to_string(stItem.second) + " descriptors, ";
  }
  return strText + std::to_string(iChildren) + " children, " + std::to_string(iFifos) + " FIFOs, " +
         std::to_string(iFiles) + " files, " + std::to_string(iSegments) + " segments";
}

std::map<std::string, pid_t> ChildrenByTitle(pid_t iMaster) {
  std::map<std::string, pid_t> mapChildren;
  for (const pid_t iChild : ChildrenOf(iMaster)) {
    const std::string strTitle = TitleOf(iChild);
    if (!strTitle.empty() && strTitle != "master") {
      mapChildren[strTitle] = iChild;
    }
  }
  return mapChildren;
}

Census_t TakeCensus(pid_t iMaster, const std::string& strRunDirectory) {
  Census_t stCensus;
  std::map<std::string, pid_t> mapAll = ChildrenByTitle(iMaster);
  mapAll["master"] = iMaster;
  std::set<pid_t> setPids;
  for (const auto& stItem : mapAll) {
    setPids.insert(stItem.second);
    stCensus.mapDescriptors[stItem.first] = DescriptorsOf(stItem.second);
    stCensus.mapMemory[stItem.first] = OwnMemoryOf(stItem.second);
    stCensus.iChildren += ChildrenOf(stItem.second).size();
  }
  CountFiles(strRunDirectory, stCensus);
  CountSegments(strRunDirectory, setPids, stCensus);
  return stCensus;
}
