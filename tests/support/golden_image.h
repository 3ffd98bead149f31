#ifndef ZELK_TESTS_GOLDEN_IMAGE_H
#define ZELK_TESTS_GOLDEN_IMAGE_H

#include <sys/types.h>

#include <string>
#include <string_view>

// Bytes as a text that can be kept, read and compared in a repository: comments, a line with the
// size, and a line for each 16 bytes that are not all zero: their offset and they in hexadecimal.
std::string ImageText(std::string_view strBytes, const std::string& strComment);

// The bytes of such a text; an exception when it is none.
std::string ImageBytes(const std::string& strText);

// A fresh segment of that key with the image's bytes. A segment is zero at first, and only what is
// not is written: 4 MiB of empty lists take no memory.
void LoadImage(const std::string& strPath, key_t iKey);

// The segment's bytes.
std::string SegmentBytes(key_t iKey);

#endif
