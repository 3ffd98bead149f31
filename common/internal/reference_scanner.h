#ifndef ZELK_COMMON_INTERNAL_REFERENCE_SCANNER_H
#define ZELK_COMMON_INTERNAL_REFERENCE_SCANNER_H

#include <regex.h>

#include <cstddef>
#include <cstdlib>
#include <string>

// Where a reference stands in a text: sigil, opening bracket, name, closing bracket.
struct Reference {
  size_t iBegin;  // of the sigil
  size_t iEnd;    // behind the closing bracket

  bool IsEnvironment(const std::string& strText) const { return strText[iBegin] == '$'; }
  std::string Name(const std::string& strText) const {
    return strText.substr(iBegin + 2, iEnd - iBegin - 3);
  }
};

// Finds references in configuration values, XML and INI alike: what the POSIX extended expression
// "([$@])[{(]([^)}]*)[})]" matches, on every byte string and in every locale, at the cost of two
// memchr() for a text that has none.
//
// The expression itself is compiled at the first search, with the locale of that moment, and asked
// where bytes from 0x80 on may be characters of several bytes; a question that there is no memory
// for throws std::bad_alloc. It is never freed: a scanner is meant to be static. Not locked.
class __attribute__((visibility("hidden"))) ReferenceScanner {
 public:
  // The leftmost reference of the text; as for regexec(), the text ends at its first NUL. False
  // when there is none, or when the expression does not compile (the next call tries again).
  bool Find(const std::string& strText, Reference& stReference);

  // Replaces the reference found in a text and searches the whole new text again, until none is
  // left: "$" by the environment variable of the name, nothing when it is not set, "@" by
  // fnMacro(name), a string of whatever type. A reference that leads to itself never ends.
  template <typename Macro>
  void Replace(std::string& strText, Reference stFound, const Macro& fnMacro) {
    do {
      const std::string strName = stFound.Name(strText);
      const size_t iLength = stFound.iEnd - stFound.iBegin;
      if (stFound.IsEnvironment(strText)) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): an environment that others change is the host's
        const char* pValue = getenv(strName.c_str());
        strText.replace(stFound.iBegin, iLength, pValue != nullptr ? pValue : "");
      } else {
        strText.replace(stFound.iBegin, iLength, fnMacro(strName));
      }
    } while (Find(strText, stFound));
  }

  // The text with all its references replaced.
  template <typename Macro>
  std::string Translate(std::string strText, const Macro& fnMacro) {
    Reference stFound{};
    if (Find(strText, stFound)) {
      Replace(strText, stFound, fnMacro);
    }
    return strText;
  }

 private:
  bool Compile();
  bool Ask(const std::string& strText, Reference& stReference);

  regex_t m_sRegex{};
  bool m_bInitFlag = false;   // the expression is compiled
  bool m_bMultibyte = false;  // in a locale with characters of several bytes
};

#endif
