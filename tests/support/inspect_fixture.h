#ifndef ZELK_TESTS_INSPECT_FIXTURE_H
#define ZELK_TESTS_INSPECT_FIXTURE_H

#include <sys/shm.h>
#include <sys/types.h>

#include <string>
#include <vector>

// A run of the built zelk-inspect to its end.
struct ToolRun_t {
  int iExit;  // or 1000 + the signal
  std::string strOut;
  std::string strError;
};
ToolRun_t RunTool(const std::vector<std::string>& vecArguments, const std::string& strInput = "");
// With a standard output that takes nothing.
ToolRun_t RunToolOnFullDisk(const std::vector<std::string>& vecArguments,
                            const std::string& strInput = "");

// A function run by an ordinary user (by this one, if it is one already); what it returned.
ToolRun_t RunAsNobody(int (*fnRun)(key_t), key_t iKey);

// Whether the system lets this user's processes read each other.
bool MayReadSiblings();

// The text behind a name in the tool's output for people, "" when it has no such line.
std::string Field(const std::string& strOutput, const std::string& strName);

std::string KeyName(key_t iKey);  // as the tool takes it

// What attaching and detaching changes, as one text.
std::string AttachmentTrace(key_t iKey);

#endif
