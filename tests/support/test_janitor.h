#ifndef ZELK_TESTS_TEST_JANITOR_H
#define ZELK_TESTS_TEST_JANITOR_H

#include <sys/types.h>

#include <string>

// The janitor outlives the test program, however that ends, and then removes the program's
// directory and the segments under the keys that were noted in it.
void StartJanitor();

// The test program's own directory; all private directories lie below it.
const std::string& JanitorDirectory();

// Has the segment under this key removed when the test program ends.
void JanitorNoteKey(key_t iKey);

#endif
