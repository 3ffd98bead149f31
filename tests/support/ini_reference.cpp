#include "ini_reference.h"

#include <glob.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace {

const size_t SLOT_COUNT = 3;

bool Find(const regex_t& stRegex, const char* pText, regmatch_t (&aSlots)[SLOT_COUNT]) {
  return regexec(&stRegex, pText, SLOT_COUNT, aSlots, 0) == 0;
}

std::string Group(const char* pText, const regmatch_t& stSlot) {
  return std::string(pText + stSlot.rm_so, pText + stSlot.rm_eo);
}

void Compile(regex_t& stRegex, const char* pPattern, int iFlags) {
  if (regcomp(&stRegex, pPattern, iFlags) != 0) {
    abort();
  }
}

// As fgets() gives them, each up to its first NUL.
std::vector<std::string> ReadLines(FILE* pFile) {
  std::vector<std::string> vecLines;
  char szLine[2048];
  while (fgets(szLine, sizeof(szLine), pFile) != nullptr) {
    vecLines.emplace_back(szLine);
  }
  return vecLines;
}

}  // namespace

IniReference::IniReference() {
  Compile(m_aLines[0], "(^[ \t]*([;#]|//))", REG_EXTENDED | REG_NOSUB);
  Compile(m_aLines[1], "^[ \t]*[[](.+)[]][ \t]*", REG_EXTENDED);
  Compile(m_aLines[2], "^[ \t]*([^ \t=]+)[ \t=]+([^ \t=\r\n]+)", REG_EXTENDED);
  Compile(m_aLines[3], "^[ \t]*([^ \t=]+)", REG_EXTENDED);
  Compile(m_stReference, "([$@])[{(]([^)}]*)[})]", REG_EXTENDED | REG_ICASE);
}

IniReference::~IniReference() {
  for (regex_t& stRegex : m_aLines) {
    regfree(&stRegex);
  }
  regfree(&m_stReference);
}

void IniReference::Parse(const std::vector<std::string>& vecLines) {
  std::string strSection;
  for (const std::string& strLine : vecLines) {
    const char* const pLine = strLine.c_str();
    regmatch_t aSlots[SLOT_COUNT];
    if (Find(m_aLines[0], pLine, aSlots)) {
      continue;
    }
    if (Find(m_aLines[1], pLine, aSlots)) {
      strSection = Group(pLine, aSlots[1]);
    } else if (Find(m_aLines[2], pLine, aSlots)) {
      m_mapContents[strSection].emplace(Group(pLine, aSlots[1]), Group(pLine, aSlots[2]));
    } else if (Find(m_aLines[3], pLine, aSlots)) {
      m_mapContents[strSection].emplace(Group(pLine, aSlots[1]), "");
    }
  }
}

int IniReference::LoadFromFile(const std::string& strPath) {
  Texts_t setFollowed;
  return Load(strPath, setFollowed);
}

int IniReference::Load(const std::string& strPath, Texts_t& setFollowed) {
  FILE* const pFile = fopen(strPath.c_str(), "r");
  if (pFile == nullptr) {
    return -1;
  }
  Parse(ReadLines(pFile));
  fclose(pFile);
  for (size_t i = 0; i < m_mapContents[""].count("include"); ++i) {
    const std::string strText = Directive(i);
    if (!setFollowed.insert(strText).second) {
      continue;
    }
    glob_t stGlob{};
    int iResult = 0;
    if (glob(strText.c_str(), GLOB_TILDE, nullptr, &stGlob) == 0) {
      for (size_t iPath = 0; iPath < stGlob.gl_pathc && iResult == 0; ++iPath) {
        iResult = Load(stGlob.gl_pathv[iPath], setFollowed);
      }
    }
    globfree(&stGlob);
    if (iResult != 0) {
      return -1;
    }
  }
  return 0;
}

std::string IniReference::Directive(size_t iIndex) const {
  const auto it = m_mapContents.at("").lower_bound("include");
  return Translate(std::next(it, static_cast<std::ptrdiff_t>(iIndex))->second);
}

// The expanded first value of "section.key" or "key".
std::string IniReference::Value(const std::string& strName) const {
  const size_t iDot = strName.find('.');
  const bool bGlobal = iDot == std::string::npos;
  const auto itSection = m_mapContents.find(bGlobal ? "" : strName.substr(0, iDot));
  if (itSection == m_mapContents.end()) {
    return "";
  }
  const std::string strKey = bGlobal ? strName : strName.substr(iDot + 1);
  const auto it = itSection->second.lower_bound(strKey);
  return it == itSection->second.end() || it->first != strKey ? "" : Translate(it->second);
}

bool IniReference::TranslateOnce(std::string& strText) const {
  regmatch_t aSlots[SLOT_COUNT];
  const char* const pText = strText.c_str();
  if (!Find(m_stReference, pText, aSlots)) {
    return false;
  }
  const std::string strName = Group(pText, aSlots[2]);
  std::string strReplacement;
  if (pText[aSlots[1].rm_so] == '@') {
    strReplacement = Value(strName);
  } else if (const char* const pValue = getenv(strName.c_str())) {
    strReplacement = pValue;
  }
  strText.replace(static_cast<size_t>(aSlots[0].rm_so),
                  static_cast<size_t>(aSlots[0].rm_eo - aSlots[0].rm_so), strReplacement);
  return true;
}

std::string IniReference::Translate(std::string strText) const {
  while (TranslateOnce(strText)) {
  }
  return strText;
}
