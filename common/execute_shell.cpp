#include "execute_shell.h"

#include <stdlib.h>

int ExecuteShell::Do() {
  // The second-lowest byte as it stands, also of -1 and of a death by signal; deliberate.
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe): what this class is for
  return (system(m_strCommand.c_str()) >> 8) & 255;
}
