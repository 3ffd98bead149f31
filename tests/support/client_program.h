#ifndef ZELK_TESTS_CLIENT_PROGRAM_H
#define ZELK_TESTS_CLIENT_PROGRAM_H

#include <string>
#include <vector>

// What a run of an installed program left.
struct ProgramResult_t {
  int iExit;  // the exit code; 127: there is no such program; 1000 + the signal that ended it
  std::string strOut;
  std::string strError;
};

// Runs a program to its end with this standard input. One that takes longer than a minute is ended
// by SIGALRM.
ProgramResult_t RunProgram(const std::vector<std::string>& vecArguments,
                           const std::string& strInput = "");

#endif
