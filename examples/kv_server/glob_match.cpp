#include "glob_match.h"

#include <algorithm>

namespace {

// Whether a byte is in the set that starts behind "[" at iAt; iAt goes behind its "]".
bool MatchSet(std::string_view strPattern, size_t& iAt, char cByte) {
  const auto iByte = static_cast<unsigned char>(cByte);
  const size_t iEnd = strPattern.size();
  const bool bNegated = iAt < iEnd && strPattern[iAt] == '^';
  bool bFound = false;
  for (iAt += bNegated ? 1 : 0; iAt < iEnd && strPattern[iAt] != ']'; ++iAt) {
    if (strPattern[iAt] == '\\' && iAt + 1 < iEnd) {
      bFound |= strPattern[++iAt] == cByte;
    } else if (iAt + 2 < iEnd && strPattern[iAt + 1] == '-') {
      const auto iFirst = static_cast<unsigned char>(strPattern[iAt]);
      const auto iLast = static_cast<unsigned char>(strPattern[iAt + 2]);
      bFound |= std::min(iFirst, iLast) <= iByte && iByte <= std::max(iFirst, iLast);
      iAt += 2;
    } else {
      bFound |= strPattern[iAt] == cByte;
    }
  }
  iAt += iAt < iEnd ? 1 : 0;
  return bFound != bNegated;
}

// Whether a byte fits the element at iAt, which is no "*"; iAt goes behind it.
bool MatchOne(std::string_view strPattern, size_t& iAt, char cByte) {
  const char cElement = strPattern[iAt++];
  switch (cElement) {
    case '?':
      return true;
    case '[':
      return MatchSet(strPattern, iAt, cByte);
    case '\\':
      return (iAt < strPattern.size() ? strPattern[iAt++] : cElement) == cByte;
    default:
      return cElement == cByte;
  }
}

}  // namespace

// Where it fails, only the latest "*" has to take one byte more: an earlier one could only do what
// the latest can do too.
bool GlobMatch(std::string_view strPattern, std::string_view strText) {
  const size_t iNone = std::string_view::npos;
  size_t iPattern = 0;
  size_t iText = 0;
  size_t iBehindStar = iNone;
  size_t iStarText = 0;
  while (iText < strText.size()) {
    if (iPattern < strPattern.size() && strPattern[iPattern] == '*') {
      iBehindStar = ++iPattern;
      iStarText = iText;
    } else if (iPattern < strPattern.size() && MatchOne(strPattern, iPattern, strText[iText])) {
      ++iText;
    } else if (iBehindStar != iNone) {
      iPattern = iBehindStar;
      iText = ++iStarText;
    } else {
      return false;
    }
  }
  return strPattern.find_first_not_of('*', iPattern) == iNone;
}
