#ifndef ZELK_INSPECT_REMOVE_H
#define ZELK_INSPECT_REMOVE_H

#include "options.h"

// Removes segments, and FIFOs named by their paths, that no process uses, each after a question
// that is answered on standard input. The exit code.
int RunRemove(const Options_t& stOptions);

#endif
