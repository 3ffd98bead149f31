#ifndef ZELK_INSPECT_LOOK_H
#define ZELK_INSPECT_LOOK_H

#include "options.h"

// queue, heap, table, log: one look, or one after the other. The exit code.
int RunLook(const Options_t& stOptions);

#endif
