#ifndef ZELK_INSPECT_LIST_H
#define ZELK_INSPECT_LIST_H

#include "options.h"

// The segments of this IPC namespace. The exit code.
int RunList(const Options_t& stOptions);

#endif
