#ifndef ZELK_COMMON_INTERNAL_MATCHING_FILES_H
#define ZELK_COMMON_INTERNAL_MATCHING_FILES_H

#include <glob.h>

#include <cerrno>

// The files that the pattern of an include directive matches, sorted; none is no error.
class __attribute__((visibility("hidden"))) MatchingFiles {
 public:
  explicit MatchingFiles(const char* pPattern)
      : m_iResult(glob(pPattern, GLOB_TILDE, IsNoMemory, &m_stGlob)) {}
  ~MatchingFiles() { globfree(&m_stGlob); }
  MatchingFiles(const MatchingFiles&) = delete;
  MatchingFiles& operator=(const MatchingFiles&) = delete;

  // False when they could not be found out for lack of memory; what there is then is not all.
  bool IsValid() const { return m_iResult != GLOB_NOSPACE && m_iResult != GLOB_ABORTED; }
  char** begin() const { return m_stGlob.gl_pathv; }
  char** end() const { return m_stGlob.gl_pathv + m_stGlob.gl_pathc; }

 private:
  // Ends the search at a directory that can not be opened for that; others are passed over.
  static int IsNoMemory(const char* /*pPath*/, int iError) { return iError == ENOMEM ? 1 : 0; }

  glob_t m_stGlob{};
  int m_iResult;
};

#endif
