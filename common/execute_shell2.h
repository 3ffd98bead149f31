#ifndef ZELK_COMMON_EXECUTE_SHELL2_H
#define ZELK_COMMON_EXECUTE_SHELL2_H

#include <string>

#include "long_action_util.h"

// A long action that runs the command line in the parameter "command" by the shell. It is
// registered with ClassFactory as "ExecuteShell2", so whoever can have a request executed can run
// any command: take requests from trusted senders only.
//
// The parameter is read as every parameter is, from the root of the chain of parents.
class ExecuteShell2 : public LongActionMethod {
 public:
  // Makes this the one parameter "command" of this object.
  void Command(const std::string& strCommand);
  // What Do() will run.
  const std::string& Command() const { return Param("command", 0); }

  // Runs the first "command", an empty one when there is none: as ExecuteShell::Do().
  int Do() override;
};

#endif
