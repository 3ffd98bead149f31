#include "command_table_file.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>

namespace {

const std::map<char, char> ESCAPES = {
    {'n', '\n'}, {'r', '\r'}, {'t', '\t'}, {'"', '"'}, {'\\', '\\'}};

char EscapeLetter(char c) {
  for (const auto& stPair : ESCAPES) {
    if (stPair.second == c) {
      return stPair.first;
    }
  }
  return '\0';
}

// The character that the escape sequence behind the backslash at iAt means; iAt goes behind it.
char ReadEscape(const std::string& strText, size_t& iAt) {
  const char c = iAt + 1 < strText.size() ? strText[iAt + 1] : '\0';
  const auto it = ESCAPES.find(c);
  if (it != ESCAPES.end()) {
    iAt += 2;
    return it->second;
  }
  if (c != 'x' || iAt + 4 > strText.size()) {
    throw std::runtime_error("unknown escape sequence");
  }
  iAt += 4;
  return static_cast<char>(std::stoi(strText.substr(iAt - 2, 2), nullptr, 16));
}

// iAt goes from the opening quote behind the closing one.
std::string ReadQuoted(const std::string& strText, size_t& iAt) {
  std::string strWord;
  for (++iAt; iAt < strText.size() && strText[iAt] != '"';) {
    if (strText[iAt] == '\\') {
      strWord += ReadEscape(strText, iAt);
    } else {
      strWord += strText[iAt++];
    }
  }
  if (iAt++ >= strText.size()) {
    throw std::runtime_error("no closing quote");
  }
  return strWord;
}

// The number behind a "*" at iAt, else 1.
size_t ReadTimes(const std::string& strText, size_t& iAt) {
  if (iAt >= strText.size() || strText[iAt] != '*') {
    return 1;
  }
  char* pEnd = nullptr;
  const size_t iTimes = strtoul(strText.c_str() + iAt + 1, &pEnd, 10);
  iAt = static_cast<size_t>(pEnd - strText.c_str());
  return iTimes;
}

std::string Repeated(const std::string& strText, size_t iTimes) {
  std::string strAll;
  for (size_t i = 0; i < iTimes; ++i) {
    strAll += strText;
  }
  return strAll;
}

std::string Joined(const std::vector<std::string>& vecWords) {
  std::string strAll;
  for (const std::string& strWord : vecWords) {
    strAll += strWord;
  }
  return strAll;
}

void ReadRemark(const std::string& strText, TableLine_t& stLine) {
  const size_t iColon = strText.find(": ");
  const std::string strName = strText.substr(0, iColon);
  const std::string strValue = iColon == std::string::npos ? "" : strText.substr(iColon + 2);
  if (strValue.empty()) {
    throw std::runtime_error("a remark without a value");
  }
  if (strName == "rule") {
    stLine.strRule = strValue;
  } else if (strName == "differs") {
    stLine.strDiffers = strValue;
  } else if (strName == "theirs") {
    stLine.strTheirs = Joined(QuotedWords(strValue));
  } else if (strName == "ours") {
    stLine.strOurs = Joined(QuotedWords(strValue));
  } else {
    throw std::runtime_error("unknown remark \"" + strName + "\"");
  }
}

TableLine_t ReadRequest(const std::string& strText) {
  TableLine_t stLine;
  stLine.bBytes = strText[0] == '>';
  stLine.vecWords = QuotedWords(strText.substr(stLine.bBytes ? 1 : 0));
  if (stLine.bBytes) {
    stLine.vecWords = {Joined(stLine.vecWords)};
  }
  return stLine;
}

void ReadLine(const std::string& strText, std::vector<TableLine_t>& vecLines) {
  const size_t iFirst = strText.find_first_not_of(' ');
  if (iFirst == std::string::npos || strText[iFirst] == '#') {
    return;
  }
  if (iFirst == 0) {
    vecLines.push_back(ReadRequest(strText));
  } else if (!vecLines.empty()) {
    ReadRemark(strText.substr(iFirst), vecLines.back());
  } else {
    throw std::runtime_error("a remark without a request");
  }
}

void CheckDifference(const TableLine_t& stLine) {
  const bool bDiffers = !stLine.strDiffers.empty();
  if (bDiffers == (stLine.strTheirs == stLine.strOurs)) {
    throw std::runtime_error(stLine.strPlace + ": a difference is a row, theirs and ours");
  }
}

}  // namespace

std::vector<std::string> QuotedWords(const std::string& strText) {
  std::vector<std::string> vecWords;
  for (size_t iAt = strText.find_first_not_of(' '); iAt < strText.size();
       iAt = strText.find_first_not_of(' ', iAt)) {
    if (strText[iAt] == '"') {
      const std::string strWord = ReadQuoted(strText, iAt);
      vecWords.push_back(Repeated(strWord, ReadTimes(strText, iAt)));
    } else {
      const size_t iEnd = std::min(strText.find(' ', iAt), strText.size());
      vecWords.push_back(strText.substr(iAt, iEnd - iAt));
      iAt = iEnd;
    }
  }
  return vecWords;
}

std::string Quoted(const std::string& strBytes) {
  const char szDigits[] = "0123456789abcdef";
  std::string strOut = "\"";
  for (const char c : strBytes) {
    const auto iByte = static_cast<unsigned char>(c);
    const char cLetter = EscapeLetter(c);
    if (cLetter != '\0') {
      strOut += std::string("\\") + cLetter;
    } else if (isprint(iByte) != 0) {
      strOut += c;
    } else {
      strOut += std::string("\\x") + szDigits[iByte / 16] + szDigits[iByte % 16];
    }
  }
  return strOut + "\"";
}

std::vector<TableLine_t> ReadCommandTable(const std::string& strPath) {
  std::vector<TableLine_t> vecLines;
  std::ifstream stFile(strPath);
  if (!stFile) {
    throw std::runtime_error("can not read " + strPath);
  }
  int iLine = 0;
  for (std::string strText; std::getline(stFile, strText);) {
    const std::string strPlace =
        strPath.substr(strPath.rfind('/') + 1) + ":" + std::to_string(++iLine) + ": " + strText;
    const size_t iBefore = vecLines.size();
    try {
      ReadLine(strText, vecLines);
    } catch (const std::exception& stError) {
      throw std::runtime_error(strPlace + ": " + stError.what());
    }
    if (vecLines.size() > iBefore) {
      vecLines.back().strPlace = strPlace;
    }
  }
  for (const TableLine_t& stLine : vecLines) {
    CheckDifference(stLine);
  }
  return vecLines;
}
