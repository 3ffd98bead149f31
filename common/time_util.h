#ifndef ZELK_COMMON_TIME_UTIL_H
#define ZELK_COMMON_TIME_UTIL_H

#include <ctime>

// The present local time with milliseconds (cut, not rounded), for instance
// "[2024-01-02 15:04:05,678]". Returns a static buffer that the next call overwrites: copy what
// is kept. One thread only.
//
// The time zone is the process's as of its first use or its last tzset(); a changed TZ needs a
// tzset(). Calls within one second reformat nothing but the milliseconds.
const char* GenerateTimeString();

// Always 0, and callers rely on no more: it looks at the first time alone and subtracts that from
// itself. Deliberately left so.
int timediff_month(time_t iFrom, time_t iTo);

#endif
