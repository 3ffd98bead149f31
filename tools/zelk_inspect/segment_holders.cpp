#include "segment_holders.h"

#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "document.h"

namespace {

std::string ProcFile(pid_t iPid, const char* pName) {
  return "/proc/" + std::to_string(iPid) + "/" + pName;
}

// Ids are counted anew in each IPC namespace.
bool SharesOurSegments(pid_t iPid) {
  struct stat stOurs {};
  struct stat stTheirs {};
  return stat("/proc/self/ns/ipc", &stOurs) == 0 &&
         stat(ProcFile(iPid, "ns/ipc").c_str(), &stTheirs) == 0 && stOurs.st_ino == stTheirs.st_ino;
}

}  // namespace

int ParseMapping(const std::string& strLine, Mapping_t& stMapping) {
  uint64_t iBegin = 0;
  uint64_t iEnd = 0;
  uint64_t iOffset = 0;
  uint64_t iInode = 0;
  int iName = -1;
  if (strLine.find("/SYSV") == std::string::npos) {
    return -1;  // most lines
  }
  // NOLINTNEXTLINE(cert-err33-c,cert-err34-c): the kernel's numbers; iName tells of all
  sscanf(strLine.c_str(), "%" SCNx64 "-%" SCNx64 " %*4s %" SCNx64 " %*x:%*x %" SCNu64 " %n",
         &iBegin, &iEnd, &iOffset, &iInode, &iName);
  if (iName == -1 || iInode > INT32_MAX || iEnd <= iBegin ||
      strLine.compare(static_cast<size_t>(iName), 5, "/SYSV") != 0) {
    return -1;
  }
  stMapping = {iBegin, iEnd - iBegin, iOffset};
  return static_cast<int>(iInode);
}

namespace {

typedef std::map<int, std::vector<Mapping_t>> Mappings_t;  // by segment

Mappings_t ReadMappings(pid_t iPid, bool* pDenied) {
  Mappings_t mapMappings;
  std::ifstream stFile(ProcFile(iPid, "maps"));
  std::string strLine;
  Mapping_t stMapping{};
  if (!stFile.is_open() && (errno == EACCES || errno == EPERM)) {
    *pDenied = true;
  }
  while (std::getline(stFile, strLine)) {
    const int iSegment = ParseMapping(strLine, stMapping);
    if (iSegment != -1) {
      mapMappings[iSegment].push_back(stMapping);
    }
  }
  return mapMappings.empty() || SharesOurSegments(iPid) ? mapMappings : Mappings_t();
}

}  // namespace

std::vector<Mapping_t> FindMappings(pid_t iPid, int iSegment) {
  bool bDenied = false;
  return ReadMappings(iPid, &bDenied)[iSegment];
}

std::vector<pid_t> ListProcesses() {
  std::vector<pid_t> vecPids;
  std::error_code stError;
  for (const auto& stEntry : std::filesystem::directory_iterator("/proc", stError)) {
    const std::string strName = stEntry.path().filename();
    pid_t iPid = 0;
    const char* pEnd = strName.data() + strName.size();
    if (std::from_chars(strName.data(), pEnd, iPid).ptr == pEnd && iPid > 0) {
      vecPids.push_back(iPid);
    }
  }
  return vecPids;
}

std::string CommandOf(pid_t iPid) {
  std::ifstream stFile(ProcFile(iPid, "comm"));
  std::string strName;
  std::getline(stFile, strName);
  return Printable(strName);
}

std::map<int, Holders_t> FindAllHolders() {
  std::map<int, Holders_t> mapHolders;
  uint64_t iDenied = 0;
  for (const pid_t iPid : ListProcesses()) {
    bool bDenied = false;
    for (auto& stMappings : ReadMappings(iPid, &bDenied)) {
      mapHolders[stMappings.first].vecHolders.push_back(
          {iPid, CommandOf(iPid), std::move(stMappings.second)});
    }
    iDenied += bDenied ? 1 : 0;
  }
  mapHolders[-1];  // those that nobody is seen to hold
  for (auto& stHolders : mapHolders) {
    stHolders.second.iDenied = iDenied;
  }
  return mapHolders;
}

Holders_t FindHolders(int iSegment) {
  const std::map<int, Holders_t> mapHolders = FindAllHolders();
  const auto it = mapHolders.find(iSegment);
  return it == mapHolders.end() ? mapHolders.at(-1) : it->second;
}

std::string HolderText(const Holders_t& stHolders, uint64_t iAttached) {
  std::string strText;
  for (const Holder_t& stHolder : stHolders.vecHolders) {
    strText += (strText.empty() ? "" : ", ") + std::to_string(stHolder.iPid) + " (" +
               stHolder.strCommand + ")";
  }
  if (!strText.empty()) {
    return strText;
  }
  return iAttached == 0 ? "nobody" : "processes that cannot be seen";
}
