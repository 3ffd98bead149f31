#ifndef ZELK_TESTS_KV_CENSUS_H
#define ZELK_TESTS_KV_CENSUS_H

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <string>

// What a running server has of everything that may leak, by /proc alone.
struct Census_t {
  std::map<std::string, int> mapDescriptors;  // of each process by its title: "gateway", "worker 0"
  std::map<std::string, size_t> mapMemory;    // bytes of its own, without what is shared
  size_t iChildren = 0;                       // of all of them, dead ones too
  size_t iFifos = 0;                          // in the run directory
  size_t iFiles = 0;                          // there, without logs, dumps and journals
  size_t iSegments = 0;                       // that one of these processes has made
  size_t iSegmentBytes = 0;

  int Descriptors() const;
  size_t Memory() const;
  // A line of all counts, without the sizes; two of a server that leaks nothing are equal.
  std::string Counts() const;
};
Census_t TakeCensus(pid_t iMaster, const std::string& strRunDirectory);

// The living children of a master by their titles.
std::map<std::string, pid_t> ChildrenByTitle(pid_t iMaster);

#endif
