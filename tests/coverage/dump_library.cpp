#include "dump.h"

void DumpLibraryCounters() { __gcov_dump(); }
