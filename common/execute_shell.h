#ifndef ZELK_COMMON_EXECUTE_SHELL_H
#define ZELK_COMMON_EXECUTE_SHELL_H

#include <string>

#include "long_action_util.h"

// A long action that runs a command line by the shell; for LongActionUtil::Perform(). ClassFactory
// does not know it: see ExecuteShell2 for one that a request can name.
//
// The command gets this process's environment and, apart from those marked close-on-exec, as this
// library's sockets and files are, all its descriptors; in a child of LongActionUtil its output is
// what the host reads.
class ExecuteShell : public LongActionMethod {
 public:
  // The command line, up to its first NUL.
  void Command(const std::string& strCommand) { m_strCommand = strCommand; }
  const std::string& Command() const { return m_strCommand; }

  // Runs the command and waits for its end: the exit code. 127 also when no shell could be started;
  // deliberately 0 when a signal ended it, and 255 when system() fails, for instance because the
  // process ignores SIGCHLD.
  int Do() override;

 protected:
  std::string m_strCommand;
};

#endif
