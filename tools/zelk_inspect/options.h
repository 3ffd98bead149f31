#ifndef ZELK_INSPECT_OPTIONS_H
#define ZELK_INSPECT_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum ExitCode_t {
  EXIT_FINE = 0,
  EXIT_NOT_SOUND = 1,
  EXIT_USAGE = 2,
  EXIT_NOT_READABLE = 3,  // or, for remove, not removed
  EXIT_NOT_WRITTEN = 4,   // to standard output
};

// The command line.
struct Options_t {
  std::string strCommand;
  std::vector<std::string> vecNames;

  bool bJson = false;
  std::optional<double> fWatch;  // seconds between two looks
  uint64_t iCount = 0;           // looks; 0: without end
  double fRate = 0;              // seconds to measure rates; 0: none
  uint64_t iLimit = 10;          // rows of a list
  uint64_t iMessages = 0;
  uint64_t iBytes = 64;  // shown of a message or value
  std::optional<std::string> strKeys;
  bool bValues = false;
  bool bAll = false;
  bool bYes = false;
  bool bForeign = false;
  bool bHelp = false;
  bool bVersion = false;

  std::string strError;  // empty: the rest is right
};

Options_t ParseOptions(const std::vector<std::string>& vecArguments);

extern const char HELP_TEXT[];

#endif
