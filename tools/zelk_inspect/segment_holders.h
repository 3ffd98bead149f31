#ifndef ZELK_INSPECT_SEGMENT_HOLDERS_H
#define ZELK_INSPECT_SEGMENT_HOLDERS_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// Where a process has a part of a segment mapped.
struct Mapping_t {
  uint64_t iAddress;
  uint64_t iSize;
  uint64_t iOffset;  // in the segment
};

struct Holder_t {
  pid_t iPid;
  std::string strCommand;
  std::vector<Mapping_t> vecMappings;
};

// The mappings of a segment in one process, by /proc/<pid>/maps: the inode is the segment's id.
// Empty when there are none, or when the process may not be looked at.
std::vector<Mapping_t> FindMappings(pid_t iPid, int iSegment);

// The segment that a line of that file is a mapping of, and which part; -1 when it is of none.
int ParseMapping(const std::string& strLine, Mapping_t& stMapping);

struct Holders_t {
  std::vector<Holder_t> vecHolders;
  uint64_t iDenied = 0;  // processes that may not be looked at
};
Holders_t FindHolders(int iSegment);
// Of all segments that somebody holds, by id; under -1 what holds for the others.
std::map<int, Holders_t> FindAllHolders();

// "812 (kv_server), 813 (kv_server)"; "nobody".
std::string HolderText(const Holders_t& stHolders, uint64_t iAttached);

// All of /proc that are processes.
std::vector<pid_t> ListProcesses();
// Printable: a process may give itself any name, escape sequences of terminals among them.
std::string CommandOf(pid_t iPid);

#endif
