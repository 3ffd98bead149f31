#include "reply.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace {

// A type character, a number and the line end.
void AppendNumberLine(std::string& strOut, char cType, int64_t iNumber) {
  char szLine[32];
  szLine[0] = cType;
  char* pEnd = std::to_chars(szLine + 1, szLine + sizeof(szLine), iNumber).ptr;
  *pEnd++ = '\r';
  *pEnd++ = '\n';
  strOut.append(szLine, static_cast<size_t>(pEnd - szLine));
}

// The number behind the type character of the line at iOffset; iOffset goes behind the line.
int64_t ReadNumberLine(std::string_view strReply, size_t& iOffset) {
  int64_t iNumber = 0;
  const char* pEnd = strReply.data() + strReply.size();
  const auto stResult = std::from_chars(strReply.data() + iOffset + 1, pEnd, iNumber);
  iOffset = static_cast<size_t>(stResult.ptr - strReply.data()) + 2;
  return iNumber;
}

}  // namespace

void AppendStatus(std::string& strOut, std::string_view strStatus) {
  strOut.append("+").append(strStatus).append("\r\n");
}

void AppendError(std::string& strOut, std::string_view strError) {
  strOut += '-';
  for (const char c : strError) {
    strOut += c == '\r' || c == '\n' ? ' ' : c;
  }
  strOut += "\r\n";
}

void AppendInteger(std::string& strOut, int64_t iValue) { AppendNumberLine(strOut, ':', iValue); }

void AppendBulk(std::string& strOut, std::string_view strValue) {
  AppendNumberLine(strOut, '$', static_cast<int64_t>(strValue.size()));
  strOut.append(strValue).append("\r\n", 2);
}

void AppendNull(std::string& strOut) { strOut.append("$-1\r\n", 5); }

void AppendArrayHead(std::string& strOut, size_t iCount) {
  AppendNumberLine(strOut, '*', static_cast<int64_t>(iCount));
}

std::string_view ShownText(std::string_view strText, size_t iLimit) {
  return strText.substr(0, std::min(strText.find('\0'), iLimit));
}

void AppendReplyTooLong(std::string& strOut, uint64_t iLimit) {
  AppendError(strOut, "ERR reply longer than the limit of " + std::to_string(iLimit) +
                          " bytes (limits.output)");
}

bool IsErrorReply(std::string_view strReply) { return !strReply.empty() && strReply[0] == '-'; }

int64_t IntegerOfReply(std::string_view strReply) {
  size_t iOffset = 0;
  return ReadNumberLine(strReply, iOffset);
}

std::vector<std::string_view> ElementsOfReply(std::string_view strReply) {
  std::vector<std::string_view> vecElements;
  size_t iOffset = 0;
  for (int64_t iCount = ReadNumberLine(strReply, iOffset); iCount > 0; --iCount) {
    const size_t iStart = iOffset;
    const int64_t iSize = ReadNumberLine(strReply, iOffset);
    iOffset += iSize < 0 ? 0 : static_cast<size_t>(iSize) + 2;
    vecElements.push_back(strReply.substr(iStart, iOffset - iStart));
  }
  return vecElements;
}

std::string_view BulkOfReply(std::string_view strReply) {
  size_t iOffset = 0;
  const auto iSize = static_cast<size_t>(ReadNumberLine(strReply, iOffset));
  return strReply.substr(iOffset, iSize);
}
