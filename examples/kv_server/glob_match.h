#ifndef KV_SERVER_GLOB_MATCH_H
#define KV_SERVER_GLOB_MATCH_H

#include <string_view>

// Whether a whole text fits a pattern of KEYS and SCAN: * any bytes, ? one byte, [abc] [a-z] [^a]
// one byte of a set, \ the next byte as it stands. An open [ ends with the pattern. Takes at most
// the product of both lengths, whatever the pattern.
bool GlobMatch(std::string_view strPattern, std::string_view strText);

#endif
