// Values with references, expanded by Config and by a plain program that runs the expression.
//
// The input's first lines are the texts of macros, named by their numbers, the rest is the text
// that is translated. A macro refers only to macros of a lower number, and is taken only if nothing
// is left of sigils and brackets when it is expanded, which could make a reference together with
// its neighbours: so none leads back to itself.

#include <regex.h>

#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

#include "config.h"

namespace {

const size_t MAX_LENGTH = 200;
const int MACROS = 5;

typedef std::map<std::string, std::string> Macros_t;

// As the expression says, one replacement after the other.
std::string Expected(std::string strText, const Macros_t& mapMacros) {
  static regex_t stRegex;
  static const bool bCompiled =
      regcomp(&stRegex, "([$@])[{(]([^)}]*)[})]", REG_EXTENDED | REG_ICASE) == 0;
  regmatch_t stMatch[3];
  while (bCompiled && regexec(&stRegex, strText.c_str(), 3, stMatch, 0) == 0) {
    const auto iBegin = static_cast<size_t>(stMatch[0].rm_so);
    const auto iNameBegin = static_cast<size_t>(stMatch[2].rm_so);
    const auto iNameEnd = static_cast<size_t>(stMatch[2].rm_eo);
    const auto itMacro = mapMacros.find(strText.substr(iNameBegin, iNameEnd - iNameBegin));
    const bool bMacro = strText[iBegin] == '@' && itMacro != mapMacros.end();
    strText = strText.substr(0, iBegin) + (bMacro ? itMacro->second : "") +
              strText.substr(static_cast<size_t>(stMatch[0].rm_eo));
  }
  return strText;
}

// Without the digits that would name this macro or a later one.
std::string BelowOnly(const std::string& strText, int iNumber) {
  std::string strResult;
  for (const char cByte : strText) {
    const bool bDigit = cByte >= '0' && cByte <= '9';
    strResult += bDigit && cByte - '0' >= iNumber ? 'x' : cByte;
  }
  return strResult;
}

bool IsClosed(const std::string& strText, const Macros_t& mapMacros) {
  const std::string strExpanded = Expected(strText, mapMacros);
  return strExpanded.find_first_of("$@(){}") == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize) {
  static const bool bPrepared = clearenv() == 0 && setlocale(LC_ALL, "C.UTF-8") != nullptr;
  if (!bPrepared || iSize > MAX_LENGTH) {
    return 0;
  }
  std::string strRest(reinterpret_cast<const char*>(pData), iSize);
  strRest = strRest.substr(0, strRest.find('\0'));
  Config stConfig;
  Macros_t mapMacros;
  for (int i = 0; i < MACROS; ++i) {
    const size_t iLine = strRest.find('\n');
    if (iLine == std::string::npos) {
      break;
    }
    const std::string strMacro = BelowOnly(strRest.substr(0, iLine), i);
    strRest = strRest.substr(iLine + 1);
    if (IsClosed(strMacro, mapMacros)) {
      mapMacros[std::to_string(i)] = strMacro;
      stConfig.SetMacroVariable(std::to_string(i).c_str(), strMacro.c_str());
    }
  }
  if (stConfig.TranslateValue(strRest.c_str()) != Expected(strRest, mapMacros)) {
    abort();
  }
  return 0;
}
