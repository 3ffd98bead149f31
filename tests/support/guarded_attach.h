#ifndef ZELK_TESTS_GUARDED_ATTACH_H
#define ZELK_TESTS_GUARDED_ATTACH_H

#include <cstddef>

// A program with guarded_attach.cpp among its sources has every segment that is attached in it, by
// the library too, between addresses that nothing may touch, as far as a 32-bit offset reaches. The
// rest of a segment's last page belongs to the mapping as well: AddressSanitizer guards it where it
// is compiled in, and bytes written there can be looked for.

const size_t GUARDED_PAGE = 4096;

// The bytes that a segment of that size takes up: whole pages.
inline size_t MappedSize(size_t iSegment) {
  return (iSegment + GUARDED_PAGE - 1) / GUARDED_PAGE * GUARDED_PAGE;
}

#endif
