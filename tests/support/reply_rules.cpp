#include "reply_rules.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

namespace {

const std::set<std::string> OWN_FIELDS = {"id",   "addr", "laddr",     "fd",       "age",
                                          "idle", "qbuf", "qbuf-free", "argv-mem", "multi-mem",
                                          "rbs",  "rbp",  "tot-mem"};
const std::set<std::string> THEIR_FIELDS = {"qbuf-free", "argv-mem", "multi-mem", "rbs",
                                            "rbp",       "obl",      "oll",       "tot-mem"};
const std::set<std::string> OWN_GREETINGS = {"$6\r\nserver\r\n", "$7\r\nversion\r\n",
                                             "$2\r\nid\r\n"};

// Where the reply that starts at iOffset ends.
size_t EndOfReply(const std::string& strReply, size_t iOffset) {
  size_t iEnd = strReply.find("\r\n", iOffset) + 2;
  const long iNumber = atol(strReply.c_str() + iOffset + 1);
  if (strReply[iOffset] == '$' && iNumber >= 0) {
    iEnd += static_cast<size_t>(iNumber) + 2;
  }
  for (long i = 0; strReply[iOffset] == '*' && i < iNumber; ++i) {
    iEnd = EndOfReply(strReply, iEnd);
  }
  return iEnd;
}

std::string Sorted(const std::string& strReply) {
  std::vector<std::string> vecElements = ElementsOf(strReply);
  std::sort(vecElements.begin(), vecElements.end());
  std::string strOut = strReply.substr(0, strReply.find("\r\n") + 2);
  for (const std::string& strElement : vecElements) {
    strOut += strElement;
  }
  return strOut;
}

std::string UpTo(const std::string& strLimit, const std::string& strReply) {
  const long long iLimit = atoll(strLimit.c_str());
  const long long iValue = strReply[0] == ':' ? atoll(strReply.c_str() + 1) : 0;
  return iValue <= iLimit && iValue >= iLimit - iLimit / 10 ? "upto " + strLimit : strReply;
}

std::string Digits(const std::string& strReply) {
  std::string strOut;
  for (const char c : strReply) {
    if (isdigit(static_cast<unsigned char>(c)) == 0) {
      strOut += c;
    } else if (strOut.empty() || strOut.back() != '#') {
      strOut += '#';
    }
  }
  return strOut;
}

std::string Names(const std::string& strReply) {
  std::string strOut;
  std::istringstream stText(TextOf(strReply));
  for (std::string strLine; std::getline(stText, strLine);) {
    strOut += strLine.substr(0, strLine.find_first_of(":\r")) + "\n";
  }
  return strOut;
}

// Of lines of "name=value name=value"; a reply of another kind stays.
std::string ClientFields(const std::string& strReply, const std::set<std::string>& setLeftOut) {
  if (strReply[0] != '$') {
    return strReply;
  }
  std::string strOut;
  std::istringstream stText(TextOf(strReply));
  for (std::string strLine; std::getline(stText, strLine); strOut += "\n") {
    std::istringstream stLine(strLine);
    for (std::string strField; stLine >> strField;) {
      const std::string strName = strField.substr(0, strField.find('='));
      const std::string strShown = OWN_FIELDS.count(strName) > 0 ? strName + "=?" : strField;
      strOut += setLeftOut.count(strName) > 0 ? "" : strShown + " ";
    }
  }
  return strOut;
}

std::string Greeting(const std::string& strReply) {
  if (strReply[0] != '*') {
    return strReply;
  }
  std::string strOut;
  bool bOwn = false;
  for (const std::string& strElement : ElementsOf(strReply)) {
    strOut += bOwn ? "?" : strElement;
    bOwn = OWN_GREETINGS.count(strElement) > 0;
  }
  return strOut;
}

}  // namespace

std::vector<std::string> ElementsOf(const std::string& strReply) {
  std::vector<std::string> vecElements;
  const long iCount = strReply[0] == '*' ? atol(strReply.c_str() + 1) : 0;
  size_t iOffset = strReply.find("\r\n") + 2;
  for (long i = 0; i < iCount; ++i) {
    const size_t iEnd = EndOfReply(strReply, iOffset);
    vecElements.push_back(strReply.substr(iOffset, iEnd - iOffset));
    iOffset = iEnd;
  }
  return vecElements;
}

std::string TextOf(const std::string& strReply) {
  const size_t iStart = strReply.find("\r\n") + 2;
  return strReply.substr(iStart, strReply.size() - iStart - 2);
}

std::string ApplyRule(const std::string& strRule, const std::string& strReply) {
  const std::string strName = strRule.substr(0, strRule.find(' '));
  if (strName.empty() || strReply.empty()) {
    return strReply;
  }
  if (strName == "sorted") {
    return Sorted(strReply);
  }
  if (strName == "upto") {
    return UpTo(strRule.substr(strName.size() + 1), strReply);
  }
  if (strName == "digits") {
    return Digits(strReply);
  }
  if (strName == "kind") {
    return strReply.substr(0, 1);
  }
  if (strName == "names") {
    return Names(strReply);
  }
  if (strName == "addresses" || strName == "common") {
    return ClientFields(strReply, strName == "common" ? THEIR_FIELDS : std::set<std::string>());
  }
  if (strName == "greeting") {
    return Greeting(strReply);
  }
  throw std::runtime_error("unknown rule \"" + strRule + "\"");
}
