// DESIGN. A match begins at the first sigil that a bracket follows, and ends at the first closing
// bracket behind: should that one be missing, it is missing for every later beginning too. So one
// look from left to right decides, byte by byte.
//
// In a locale with characters of several bytes a name may hold only valid characters, so that a
// match is one of the bytes, too, but not always the first. Without a match of the bytes there is
// none, and up to the end of an ASCII match both are the same; what is left is rare, and asked.

#include "reference_scanner.h"

#include <cstring>
#include <new>

#include "checked_regex.h"

namespace {

// Where the first sigil is, null without one.
const char* FirstSigil(const char* pText, size_t iLength) {
  const auto* pDollar = static_cast<const char*>(memchr(pText, '$', iLength));
  const size_t iRest = pDollar != nullptr ? static_cast<size_t>(pDollar - pText) : iLength;
  const auto* pAt = static_cast<const char*>(memchr(pText, '@', iRest));
  return pAt != nullptr ? pAt : pDollar;
}

bool IsOpening(const char* pText) {
  return (pText[0] == '$' || pText[0] == '@') && (pText[1] == '(' || pText[1] == '{');
}

// The reference that the bytes show, up to the first NUL behind the first sigil.
bool FindBytes(const char* pText, const char* pSigil, Reference& stReference) {
  while (!IsOpening(pSigil)) {
    if (*pSigil == '\0') {
      return false;
    }
    ++pSigil;
  }
  const char* pClosing = strpbrk(pSigil + 2, ")}");
  if (pClosing == nullptr) {
    return false;
  }
  stReference.iBegin = static_cast<size_t>(pSigil - pText);
  stReference.iEnd = static_cast<size_t>(pClosing + 1 - pText);
  return true;
}

bool IsAscii(const char* pText, size_t iLength) {
  unsigned char cBits = 0;
  for (size_t i = 0; i < iLength; ++i) {
    cBits |= static_cast<unsigned char>(pText[i]);
  }
  return cBits < 0x80;
}

}  // namespace

bool ReferenceScanner::Compile() {
  m_bMultibyte = MB_CUR_MAX > 1;
  m_bInitFlag = CompileRegex(&m_sRegex, "([$@])[{(]([^)}]*)[})]", REG_EXTENDED | REG_ICASE) == 0;
  return m_bInitFlag;
}

bool ReferenceScanner::Ask(const std::string& strText, Reference& stReference) {
  regmatch_t stMatch{};
  const int iResult = SearchRegex(m_sRegex, strText.c_str(), 1, &stMatch, 0);
  if (iResult == REG_ESPACE) {
    regfree(&m_sRegex);  // the next search compiles it anew
    m_bInitFlag = false;
    throw std::bad_alloc();  // a text that was not looked at is none without references
  }
  if (iResult != 0) {
    return false;
  }
  stReference.iBegin = static_cast<size_t>(stMatch.rm_so);
  stReference.iEnd = static_cast<size_t>(stMatch.rm_eo);
  return true;
}

bool ReferenceScanner::Find(const std::string& strText, Reference& stReference) {
  if (!m_bInitFlag && !Compile()) {
    return false;
  }
  const char* pText = strText.c_str();
  const char* pSigil = FirstSigil(pText, strText.size());
  if (pSigil == nullptr || memchr(pText, '\0', static_cast<size_t>(pSigil - pText)) != nullptr ||
      !FindBytes(pText, pSigil, stReference)) {
    return false;
  }
  return !m_bMultibyte || IsAscii(pText, stReference.iEnd) || Ask(strText, stReference);
}
