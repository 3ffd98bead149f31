#ifndef ZELK_INSPECT_OPEN_FILES_H
#define ZELK_INSPECT_OPEN_FILES_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

struct OpenFiles_t {
  std::vector<pid_t> vecPids;
  uint64_t iDenied = 0;  // processes that may not be looked at
};

// Who has that file, pipe or log open.
OpenFiles_t FindOpen(const struct stat& stFile);

std::string OpenText(const OpenFiles_t& stOpen);

#endif
