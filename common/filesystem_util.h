#ifndef ZELK_COMMON_FILESYSTEM_UTIL_H
#define ZELK_COMMON_FILESYSTEM_UTIL_H

#include <string>
#include <vector>

// Helpers for files and directories: synchronous, without state, usable from any thread. Paths
// are C strings and not null. Failure is -1 with errno left as the failing call set it.

// Replaces the content of a file, which is made with the default permissions when missing: 0 when
// all iLength bytes were written, else -1. Not atomic: a reader can see part of it, and a
// failure leaves what was written so far.
int SaveFile(const char* pPath, const char* pBuffer, unsigned int iLength);

// The directory of a path: all before its last "/". Two results are deliberate: "/name" gives "",
// and a path without "/" gives "/", the root and not the working directory. Always 0.
int GetPath(const char* pPath, std::string& strDirectory);

// Makes every missing directory along a path, like mkdir -p; iMode (less the umask) goes to each
// that is made. Backslashes separate like slashes, but only a leading "/" makes the path absolute.
//
// What exists is accepted whatever it is, so a plain file on the way fails one level below it. At
// the first directory that can not be made it prints "mkdir <path>/ err, <reason>" to standard
// output and returns -1; those made before stay. 0 otherwise, also for a path without names.
// Several processes may make the same path at the same time.
int MakeDir(const char* pPath, unsigned int iMode);

// Appends to vecNames the names in a directory that pass the filter, in the system's order: files
// of every kind, "." and ".." among them. The filter is a POSIX extended regular expression (see
// SimpleFilter); null, or one that does not compile, lets all pass. 0, or -1 with vecNames
// untouched when the directory can not be opened.
int Ls(const char* pDirectory, const char* pFilter, std::vector<std::string>& vecNames);

#endif
