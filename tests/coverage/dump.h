#ifndef ZELK_TESTS_COVERAGE_DUMP_H
#define ZELK_TESTS_COVERAGE_DUMP_H

// Adds the counters of the shared object that calls it to their files; each has its own copy.
extern "C" void __gcov_dump();

// __gcov_dump() within the library.
void DumpLibraryCounters();

#endif
