#ifndef ZELK_COMMON_REGEX_UTIL_H
#define ZELK_COMMON_REGEX_UTIL_H

#include <string>
#include <vector>

#include "object.h"

// Capture groups of every match of a POSIX extended regular expression. Keeps no state; usable
// from any thread.
class RegexUtil : public Object {
 public:
  // Appends to vecGroups, which is never cleared, the texts of the capture groups of each match in
  // pText, match after match in one flat list: "([a-z]+)=([0-9]+)" over "a=1 b=2" gives
  // "a", "1", "b", "2". The whole match is not among them.
  //
  // Three things to know, all of them deliberate:
  // - A group that took no part in a match ends the list for that match: later groups are not
  //   given even when they matched ("(x)?(y)" over "y" gives nothing).
  // - Each search begins as at the start of a text, so "^" matches again behind every match.
  // - The scan ends after a match that consumed nothing, and after one that filled all the 99
  //   groups that are looked at; the groups of that match are still given.
  //
  // Returns 0 when the scan is complete (also without any match), -1 when the pattern does not
  // compile, even for an empty text, or when matching fails; groups found before stay. An empty
  // text has no matches.
  static int MatchString(const char* pPattern, const char* pText,
                         std::vector<std::string>& vecGroups);

  // Writes nothing.
  void Dump(int iFD) override;
};

#endif
