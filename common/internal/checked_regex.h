#ifndef ZELK_COMMON_INTERNAL_CHECKED_REGEX_H
#define ZELK_COMMON_INTERNAL_CHECKED_REGEX_H

#include <regex.h>

#include <cerrno>
#include <cstddef>

// regcomp() and regexec() for a process that lacks memory: there, glibc's may compile an expression
// that finds something else, call every error of a search REG_NOMATCH, and spoil an expression that
// is used on. Only errno tells. It is kept here.

// regcomp(), but REG_ESPACE whenever memory was lacking; pRegex is to be freed only after a 0.
// Where only errno says so it is done once more, for malloc() may set it on its way to success.
inline int CompileRegex(regex_t* pRegex, const char* pPattern, int iFlags) {
  const int iError = errno;
  int iResult = REG_ESPACE;
  for (int i = 0; i < 2; ++i) {
    errno = 0;
    iResult = regcomp(pRegex, pPattern, iFlags);
    if (iResult != 0 || errno != ENOMEM) {
      break;
    }
    regfree(pRegex);
    iResult = REG_ESPACE;
  }
  errno = iResult == REG_ESPACE ? ENOMEM : iError;
  return iResult;
}

// regexec(), but REG_ESPACE when memory was lacking. An expression compiled for sub-matches is to
// be compiled anew then.
inline int SearchRegex(const regex_t& sRegex, const char* pText, size_t iSlots, regmatch_t* pSlots,
                       int iFlags) {
  const int iError = errno;
  errno = 0;
  const int iResult = regexec(&sRegex, pText, iSlots, pSlots, iFlags);
  const bool bLacking = iResult != 0 && errno == ENOMEM;
  errno = bLacking ? ENOMEM : iError;
  return bLacking ? REG_ESPACE : iResult;
}

#endif
