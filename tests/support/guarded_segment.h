#ifndef ZELK_TESTS_GUARDED_SEGMENT_H
#define ZELK_TESTS_GUARDED_SEGMENT_H

#include <cstddef>

// A program that links guarded_segment.cpp has its own shmat() and shmdt(), which the library calls
// too: each segment lies between two stretches of memory that nobody may touch, so that reading or
// writing one byte outside of it, which no sanitizer sees, ends the process. The segment's size
// should be a multiple of a page.

// Of the guards on either side of a segment, in bytes.
extern const size_t SEGMENT_GUARD;

#endif
