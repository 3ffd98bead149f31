#include "request_parser.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace {

// More digits than this are no length, whatever follows.
const int MAX_DIGITS = 18;

// Ends a word that does not stand in quotes. Between words more is blank than in them,
// deliberately: clients of this protocol may have words with a form feed.
bool EndsWord(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// A client keeps room for this many elements between two requests.
const size_t KEPT_ELEMENTS = 1024;

int HexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  const int iLower = tolower(static_cast<unsigned char>(c));
  return iLower >= 'a' && iLower <= 'f' ? iLower - 'a' + 10 : -1;
}

// Reads one escape sequence behind a backslash inside double quotes; p stands on the backslash and
// is left on the sequence's last character.
char ReadEscape(const char*& p, const char* pEnd) {
  if (pEnd - p > 3 && p[1] == 'x' && HexValue(p[2]) >= 0 && HexValue(p[3]) >= 0) {
    const int iValue = HexValue(p[2]) * 16 + HexValue(p[3]);
    p += 3;
    return static_cast<char>(iValue);
  }
  ++p;
  switch (*p) {
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    case 'b':
      return '\b';
    case 'a':
      return '\a';
    default:
      return *p;
  }
}

// Reads a quoted word; p stands on the opening quote and is left behind the closing one. False when
// it never closes or something clings to its end.
bool ReadQuoted(const char*& p, const char* pEnd, std::string& strWord) {
  const char cQuote = *p++;
  for (; p < pEnd && *p != cQuote; ++p) {
    if (*p != '\\' || pEnd - p < 2) {
      strWord += *p;
    } else if (cQuote == '"') {
      strWord += ReadEscape(p, pEnd);
    } else {
      p += p[1] == '\'' ? 1 : 0;
      strWord += *p;
    }
  }
  if (p >= pEnd) {
    return false;
  }
  ++p;
  return p == pEnd || isspace(static_cast<unsigned char>(*p)) != 0;
}

// Reads "<number>\r\n" of one to four digits, no zero before others, and goes behind it. Null when
// it is anything else.
const char* ReadShortNumber(const char* p, const char* pEnd, size_t& iNumber) {
  const char* const pLimit = pEnd - p > 4 ? p + 4 : pEnd;
  const char* const pBegin = p;
  for (iNumber = 0; p < pLimit && *p >= '0' && *p <= '9'; ++p) {
    iNumber = iNumber * 10 + static_cast<size_t>(*p - '0');
  }
  if (p == pBegin || (*pBegin == '0' && p - pBegin > 1)) {
    return nullptr;
  }
  return pEnd - p >= 2 && p[0] == '\r' && p[1] == '\n' ? p + 2 : nullptr;
}

}  // namespace

void RequestParser::Reset() {
  m_iOffset = 0;
  m_iScanned = 0;
  m_iElements = -1;
  m_iBulk = -1;
  m_vecPieces.clear();
  // One giant request shall not cost for ever.
  if (m_vecPieces.capacity() > KEPT_ELEMENTS || m_vecArguments.capacity() > KEPT_ELEMENTS) {
    std::vector<Piece_t>().swap(m_vecPieces);
    std::vector<std::string_view>().swap(m_vecArguments);
  }
}

RequestParser::Result_t RequestParser::Fail(const std::string& strError) {
  m_strError = strError;
  return MALFORMED;
}

RequestParser::Result_t RequestParser::Parse(const char* pData, size_t iSize) {
  if (iSize == 0) {
    return NEED_MORE;
  }
  return *pData == '*' ? ParseArray(pData, iSize) : ParseInline(pData, iSize);
}

// The usual request: all there, short numbers, nothing wrong. False for any other, with nothing
// changed but Arguments(): that is for ParseArray().
bool RequestParser::ParseWhole(const char* pData, size_t iSize) {
  const char* const pEnd = pData + iSize;
  size_t iElements = 0;
  const char* p = ReadShortNumber(pData + 1, pEnd, iElements);
  if (p == nullptr || iElements > m_stLimits.iElements) {
    return false;
  }
  m_vecArguments.clear();
  for (; iElements > 0; --iElements) {
    size_t iLength = 0;
    if (p == pEnd || *p != '$' || (p = ReadShortNumber(p + 1, pEnd, iLength)) == nullptr ||
        iLength > m_stLimits.iBulk || static_cast<size_t>(pEnd - p) < iLength + 2 ||
        p[iLength] != '\r' || p[iLength + 1] != '\n') {
      return false;
    }
    m_vecArguments.emplace_back(p, iLength);
    p += iLength + 2;
  }
  if (static_cast<size_t>(p - pData) > m_stLimits.iRequest) {
    return false;
  }
  m_iOffset = static_cast<size_t>(p - pData);
  return true;
}

RequestParser::Result_t RequestParser::ParseArray(const char* pData, size_t iSize) {
  if (m_iOffset == 0 && ParseWhole(pData, iSize)) {
    return COMPLETE;
  }
  if (m_iElements < 0) {
    const Result_t eHead = ParseArrayHead(pData, iSize);
    if (eHead != COMPLETE) {
      return eHead;
    }
  }
  while (m_iElements > 0) {
    const Result_t eElement = ParseElement(pData, iSize);
    if (eElement != COMPLETE) {
      return eElement;
    }
    --m_iElements;
  }
  m_vecArguments.clear();
  for (const Piece_t& stPiece : m_vecPieces) {
    m_vecArguments.emplace_back(pData + stPiece.iOffset, stPiece.iSize);
  }
  return COMPLETE;
}

// "*<count>\r\n"; a count of 0 or below is a request without arguments.
RequestParser::Result_t RequestParser::ParseArrayHead(const char* pData, size_t iSize) {
  int64_t iCount = 0;
  const Result_t eResult = ParseLength(pData, iSize, "invalid multibulk length", iCount);
  if (eResult != COMPLETE) {
    return eResult;
  }
  if (iCount > static_cast<int64_t>(m_stLimits.iElements)) {
    return Fail("invalid multibulk length, more than the limit of " +
                std::to_string(m_stLimits.iElements) + " elements (limits.elements)");
  }
  m_iElements = std::max<int64_t>(iCount, 0);
  return COMPLETE;
}

// "$<length>\r\n<bytes>\r\n"
RequestParser::Result_t RequestParser::ParseElement(const char* pData, size_t iSize) {
  if (m_iBulk < 0) {
    if (m_iOffset == iSize) {
      return NEED_MORE;
    }
    if (pData[m_iOffset] != '$') {
      return Fail(std::string("expected '$', got '") + pData[m_iOffset] + "'");
    }
    int64_t iLength = 0;
    const Result_t eResult = ParseLength(pData, iSize, "invalid bulk length", iLength);
    if (eResult != COMPLETE) {
      return eResult;
    }
    if (iLength < 0) {
      return Fail("invalid bulk length");
    }
    if (iLength > static_cast<int64_t>(m_stLimits.iBulk)) {
      return Fail("invalid bulk length, more than the limit of " +
                  std::to_string(m_stLimits.iBulk) + " bytes (limits.value)");
    }
    m_iBulk = iLength;
    if (m_iOffset + static_cast<size_t>(m_iBulk) > m_stLimits.iRequest) {
      return Fail("request longer than the limit of " + std::to_string(m_stLimits.iRequest) +
                  " bytes (limits.request)");
    }
  }
  const auto iLength = static_cast<size_t>(m_iBulk);
  if (iSize - m_iOffset < iLength + 2) {
    return NEED_MORE;
  }
  if (memcmp(pData + m_iOffset + iLength, "\r\n", 2) != 0) {
    return Fail("bulk string does not end with a line end");
  }
  m_vecPieces.push_back({m_iOffset, iLength});
  m_iOffset += iLength + 2;
  m_iBulk = -1;
  return COMPLETE;
}

// The number between the type character at m_iOffset and the line end; goes behind it.
RequestParser::Result_t RequestParser::ParseLength(const char* pData, size_t iSize,
                                                   const char* pWhat, int64_t& iLength) {
  const char* p = pData + m_iOffset + 1;
  const char* const pEnd = pData + iSize;
  const bool bNegative = p < pEnd && *p == '-';
  p += bNegative ? 1 : 0;
  const char* const pDigits = p;
  int64_t iValue = 0;
  for (; p < pEnd && *p >= '0' && *p <= '9' && p - pDigits < MAX_DIGITS; ++p) {
    iValue = iValue * 10 + (*p - '0');
  }
  if (p == pEnd || (p + 1 == pEnd && *p == '\r' && p > pDigits)) {
    return NEED_MORE;
  }
  const bool bZeroFirst = *pDigits == '0' && (bNegative || p - pDigits > 1);
  if (p == pDigits || bZeroFirst || p[0] != '\r' || p[1] != '\n') {
    return Fail(pWhat);
  }
  iLength = bNegative ? -iValue : iValue;
  m_iOffset = static_cast<size_t>(p - pData) + 2;
  return COMPLETE;
}

RequestParser::Result_t RequestParser::ParseInline(const char* pData, size_t iSize) {
  const auto* pNewline =
      static_cast<const char*>(memchr(pData + m_iScanned, '\n', iSize - m_iScanned));
  const size_t iLine = pNewline == nullptr ? iSize : static_cast<size_t>(pNewline - pData);
  if (iLine > m_stLimits.iInline) {
    return Fail("too big inline request, more than the limit of " +
                std::to_string(m_stLimits.iInline) + " bytes (limits.inline)");
  }
  if (pNewline == nullptr) {
    m_iScanned = iSize;
    return NEED_MORE;
  }
  const bool bReturn = pNewline > pData && pNewline[-1] == '\r';
  if (!SplitInline(pData, pNewline - (bReturn ? 1 : 0))) {
    return Fail("unbalanced quotes in request");
  }
  m_iOffset = iLine + 1;
  return COMPLETE;
}

// Words between blanks; "..." with escapes and '...' hold blanks together.
bool RequestParser::SplitInline(const char* pData, const char* pEnd) {
  m_vecArguments.clear();
  const char* p = pData;
  for (;;) {
    while (p < pEnd && isspace(static_cast<unsigned char>(*p)) != 0) {
      ++p;
    }
    if (p == pEnd) {
      return true;
    }
    std::string& strWord = m_dqWords.emplace_back();
    while (p < pEnd && !EndsWord(*p)) {
      if (*p == '"' || *p == '\'') {
        if (!ReadQuoted(p, pEnd, strWord)) {
          return false;
        }
        break;  // a closing quote ends the word
      }
      strWord += *p++;
    }
    m_vecArguments.emplace_back(strWord);
  }
}
