#ifndef ZELK_COMMON_SIMPLE_FILTER_H
#define ZELK_COMMON_SIMPLE_FILTER_H

#include <regex.h>

#include <string>

#include "object.h"

// A filter for names: one POSIX extended regular expression, case-sensitive, searched for
// anywhere in the name (write the anchors when the whole name is meant).
//
// When in doubt a name passes: a new filter, one that was given no pattern, and one whose pattern
// did not compile let every name through.
//
// Owns the compiled pattern, so it can not be copied. Not locked; Object's Dump() shows the
// pattern text.
class SimpleFilter : public Object {
 public:
  SimpleFilter() = default;
  ~SimpleFilter() override;
  SimpleFilter(const SimpleFilter&) = delete;
  SimpleFilter& operator=(const SimpleFilter&) = delete;

  // Replaces the pattern; null empties the filter. Returns 0, or -1 when the pattern does not
  // compile: the filter is empty then, the former pattern is gone.
  int SetRegular(const char* pPattern);

  // True when the name passes. An error while matching (out of memory) counts as a pass.
  bool DoFilter(const char* pName);

  // Writes m_strRegular: the text last given, also when it did not compile, and not null.
  void Dump(int iFD) override;

 private:
  void Clear();

  std::string m_strRegular;
  regex_t m_sRegex{};        // to be freed while m_bInitFlag is set
  bool m_bInitFlag = false;  // a pattern is compiled
};

#endif
