#include "ini_config.h"

#include <glob.h>
#include <regex.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>

#include "internal/always_assert.h"
#include "simple_filter.h"

// DESIGN
//
// The grammar is given by four regular expressions, tried in order; the first that is found in a
// line decides what it is.
//
// Includes. Every load, also that of an included file, follows all directives of the object from
// the first one on; those whose text is in the set are passed over. Done as it stands, that is
// quadratic in their number, so one run of nested loads shares what it knows: a directive that was
// reached once is reached by none of the others again, unless it holds references, because its
// text can change when an included file brings the key that was missing.

namespace {

const int LINE_SIZE = 2048;  // of a piece that a file is read in, with its final NUL
const char DIRECTIVE[] = "include";
const char SIGILS[] = "$@";

typedef std::unique_ptr<FILE, int (*)(FILE*)> File_t;

struct line_t {
  enum Kind { IGNORED, SECTION, ITEM };
  Kind eKind = IGNORED;
  std::string_view strName;  // of the section, or the key
  std::string_view strValue;
};

// The four expressions, compiled once per process and never freed.
class LinePatterns {
 public:
  // False when there is no memory for them; then the next call tries again.
  bool Compile();
  line_t Parse(const char* pLine) const;

 private:
  static const int COUNT = 4;
  static const int SLOT_COUNT = 64;
  enum { COMMENT, SECTION, KEY_VALUE, KEY };

  bool Find(int iPattern, const char* pLine, regmatch_t (&matchs)[SLOT_COUNT]) const {
    return regexec(&m_aPatterns[iPattern], pLine, SLOT_COUNT, matchs, 0) == 0;
  }

  regex_t m_aPatterns[COUNT];
  bool m_bCompiled = false;
};

bool LinePatterns::Compile() {
  static const struct {
    const char* pText;
    int iFlags;
  } TEXTS[COUNT] = {
      {"(^[ \t]*([;#]|//))", REG_EXTENDED | REG_NOSUB},
      {"^[ \t]*[[](.+)[]][ \t]*", REG_EXTENDED},
      {"^[ \t]*([^ \t=]+)[ \t=]+([^ \t=\r\n]+)", REG_EXTENDED},
      {"^[ \t]*([^ \t=]+)", REG_EXTENDED},
  };
  for (int i = 0; i < COUNT && !m_bCompiled; ++i) {
    if (regcomp(&m_aPatterns[i], TEXTS[i].pText, TEXTS[i].iFlags) != 0) {
      while (i-- > 0) {
        regfree(&m_aPatterns[i]);
      }
      return false;
    }
  }
  m_bCompiled = true;
  return true;
}

std::string_view Group(const char* pLine, const regmatch_t& stMatch) {
  return {pLine + stMatch.rm_so, static_cast<size_t>(stMatch.rm_eo - stMatch.rm_so)};
}

line_t LinePatterns::Parse(const char* pLine) const {
  regmatch_t matchs[SLOT_COUNT];
  if (Find(COMMENT, pLine, matchs)) {
    return {};
  }
  if (Find(SECTION, pLine, matchs)) {
    assert(matchs[1].rm_so != -1 && matchs[1].rm_eo != -1);
    return {line_t::SECTION, Group(pLine, matchs[1]), {}};
  }
  if (Find(KEY_VALUE, pLine, matchs)) {
    assert(matchs[1].rm_so != -1 && matchs[1].rm_eo != -1);
    assert(matchs[2].rm_so != -1 && matchs[2].rm_eo != -1);
    return {line_t::ITEM, Group(pLine, matchs[1]), Group(pLine, matchs[2])};
  }
  if (Find(KEY, pLine, matchs)) {
    assert(matchs[1].rm_so != -1 && matchs[1].rm_eo != -1);
    return {line_t::ITEM, Group(pLine, matchs[1]), {}};
  }
  return {};
}

LinePatterns g_stLinePatterns;

// Puts the lines of one text into their sections. Lines are given as C strings.
class LineSorter {
 public:
  explicit LineSorter(IniConfig::Contents_t& mapContents) : m_mapContents(mapContents) {}

  void Take(const char* pLine) {
    const line_t stLine = g_stLinePatterns.Parse(pLine);
    if (stLine.eKind == line_t::SECTION) {
      m_strSection = stLine.strName;
      m_pItems = nullptr;
    } else if (stLine.eKind == line_t::ITEM) {
      Items().emplace_hint(Items().end(), stLine.strName, stLine.strValue);
    }
  }

 private:
  IniConfig::Items_t& Items() {
    if (m_pItems == nullptr) {
      m_pItems = &m_mapContents[m_strSection];
    }
    return *m_pItems;
  }

  IniConfig::Contents_t& m_mapContents;
  std::string m_strSection;
  IniConfig::Items_t* m_pItems = nullptr;  // of the section, once a line needs them
};

File_t OpenFile(const char* pPath, const char* pMode) { return {fopen(pPath, pMode), fclose}; }

// Not in line: the buffer shall not be on the stack once for every level of includes.
[[gnu::noinline]] void TakeFile(FILE* pFile, LineSorter& stSorter) {
  char szLine[LINE_SIZE];
  while (fgets(szLine, LINE_SIZE, pFile) != nullptr) {
    stSorter.Take(szLine);
  }
}

void TakeText(const std::string& strText, LineSorter& stSorter) {
  size_t iBegin = 0;
  for (size_t iEnd = 0; iEnd != std::string::npos; iBegin = iEnd + 1) {
    iEnd = strText.find('\n', iBegin);
    stSorter.Take(strText.substr(iBegin, iEnd - iBegin).c_str());
  }
}

// The paths that a pattern stands for, sorted; none after a failure.
class PathList {
 public:
  explicit PathList(const char* pPattern) { glob(pPattern, GLOB_TILDE, nullptr, &m_stGlob); }
  ~PathList() { globfree(&m_stGlob); }
  PathList(const PathList&) = delete;
  PathList& operator=(const PathList&) = delete;

  char** begin() const { return m_stGlob.gl_pathv; }
  char** end() const { return m_stGlob.gl_pathv + m_stGlob.gl_pathc; }

 private:
  glob_t m_stGlob{};
};

struct reference_t {
  size_t iBegin;
  size_t iSize;
  char cSigil;
  std::string strName;
};

// Finds the leftmost reference; false also when there is no memory for the expression.
bool FindReference(const std::string& strText, reference_t& stReference) {
  static const int SLOT_COUNT = 20;
  static regex_t s_stPattern;  // compiled once per process and never freed
  static bool s_bCompiled = false;
  if (!s_bCompiled &&
      regcomp(&s_stPattern, "([$@])[{(]([^)}]*)[})]", REG_EXTENDED | REG_ICASE) != 0) {
    return false;
  }
  s_bCompiled = true;
  regmatch_t aSlots[SLOT_COUNT];
  const char* const pText = strText.c_str();
  if (regexec(&s_stPattern, pText, SLOT_COUNT, aSlots, 0) != 0) {
    return false;
  }
  stReference.iBegin = static_cast<size_t>(aSlots[0].rm_so);
  stReference.iSize = static_cast<size_t>(aSlots[0].rm_eo - aSlots[0].rm_so);
  stReference.cSigil = pText[aSlots[1].rm_so];
  stReference.strName = Group(pText, aSlots[2]);
  return true;
}

bool IsHexadecimal(const std::string& strText) {
  return strText.size() >= 3 && strText[0] == '0' && (strText[1] == 'x' || strText[1] == 'X');
}

unsigned int ScaleBits(char cSuffix) {
  switch (cSuffix) {
    case 'K':
    case 'k':
      return 10;
    case 'M':
    case 'm':
      return 20;
    case 'G':
    case 'g':
      return 30;
    case 'T':
    case 't':
      return 40;
    default:
      return 0;
  }
}

}  // namespace

// What the nested loads of one call share.
struct IniConfig::IncludeRun_t {
  std::set<std::string>& setFollowed;
  size_t iReached = 0;               // directives that some load of the run has looked at
  Items_t::const_iterator itLast{};  // the last of them
  std::vector<const std::string*> vecVariable{};  // those of them that hold references

  const std::string* Reach(const Contents_t& mapContents);
  const std::string* Next(const Contents_t& mapContents, size_t& iVariable);
};

// The first directive that no load of the run has looked at, null when there is none.
const std::string* IniConfig::IncludeRun_t::Reach(const Contents_t& mapContents) {
  const auto itGlobal = mapContents.find("");
  if (itGlobal == mapContents.end()) {
    return nullptr;
  }
  const Items_t& mapItems = itGlobal->second;
  const auto itNext = iReached == 0 ? mapItems.lower_bound(DIRECTIVE) : std::next(itLast);
  if (itNext == mapItems.end() || itNext->first != DIRECTIVE) {
    return nullptr;
  }
  itLast = itNext;
  ++iReached;
  return &itNext->second;
}

// The directive that one load has to look at next, null at the end. iVariable is how many of
// vecVariable that load has behind it.
const std::string* IniConfig::IncludeRun_t::Next(const Contents_t& mapContents, size_t& iVariable) {
  if (iVariable < vecVariable.size()) {
    return vecVariable[iVariable++];
  }
  const std::string* const pDirective = Reach(mapContents);
  if (pDirective != nullptr && pDirective->find_first_of(SIGILS) != std::string::npos) {
    vecVariable.push_back(pDirective);
    ++iVariable;
  }
  return pDirective;
}

int IniConfig::LoadFromFile(const char* pPath, std::set<std::string>* pIncludes) {
  File_t pFile = OpenFile(pPath, "re");
  if (pFile == nullptr) {
    return -1;
  }
  if (pIncludes == nullptr) {
    m_strConfigFile = pPath;
  }
  std::set<std::string> setOwn;
  IncludeRun_t stRun{pIncludes == nullptr ? setOwn : *pIncludes};
  return LoadOpenFile(pFile.release(), stRun);
}

int IniConfig::LoadOpenFile(FILE* pStream, IncludeRun_t& stRun) {
  File_t pFile(pStream, fclose);
  if (pFile == nullptr || !g_stLinePatterns.Compile()) {
    return -1;
  }
  LineSorter stSorter(m_mapContents);
  TakeFile(pFile.get(), stSorter);
  pFile.reset();
  return FollowIncludes(stRun);
}

int IniConfig::LoadFromMemory(const std::string& strText, std::set<std::string>* pIncludes) {
  if (!g_stLinePatterns.Compile()) {
    return -1;
  }
  LineSorter stSorter(m_mapContents);
  TakeText(strText, stSorter);
  std::set<std::string> setOwn;
  IncludeRun_t stRun{pIncludes == nullptr ? setOwn : *pIncludes};
  return FollowIncludes(stRun);
}

int IniConfig::LoadFromMemory(const std::vector<std::string>& vecLines,
                              std::set<std::string>* pIncludes) {
  if (!g_stLinePatterns.Compile()) {
    return -1;
  }
  LineSorter stSorter(m_mapContents);
  for (const std::string& strLine : vecLines) {
    stSorter.Take(strLine.c_str());
  }
  std::set<std::string> setOwn;
  IncludeRun_t stRun{pIncludes == nullptr ? setOwn : *pIncludes};
  return FollowIncludes(stRun);
}

int IniConfig::FollowIncludes(IncludeRun_t& stRun) {
  size_t iVariable = 0;
  while (const std::string* const pDirective = stRun.Next(m_mapContents, iVariable)) {
    const auto [itText, bNew] = stRun.setFollowed.insert(TranslateValue(*pDirective));
    if (!bNew) {
      continue;
    }
    for (const char* pPath : PathList(itText->c_str())) {
      if (LoadOpenFile(OpenFile(pPath, "re").release(), stRun) != 0) {
        return -1;
      }
    }
  }
  return 0;
}

int IniConfig::Reload() {
  if (m_strConfigFile.empty()) {
    return 0;
  }
  IniConfig stFresh;
  if (stFresh.LoadFromFile(m_strConfigFile.c_str()) != 0) {
    return -1;
  }
  *this = std::move(stFresh);
  return 0;
}

void IniConfig::Refresh() {}

void IniConfig::Clear() { m_mapContents.clear(); }

// Null when there is no such value.
const std::string* IniConfig::FindValue(const std::string& strSection, const std::string& strKey,
                                        int iIndex) const {
  const auto itSection = m_mapContents.find(strSection);
  if (itSection == m_mapContents.end() || iIndex < 0) {
    return nullptr;
  }
  const Items_t& mapItems = itSection->second;
  auto it = mapItems.lower_bound(strKey);
  for (; it != mapItems.end() && it->first == strKey; ++it) {
    if (iIndex-- == 0) {
      return &it->second;
    }
  }
  return nullptr;
}

const std::string IniConfig::GetValue(const std::string& strSection, const std::string& strKey,
                                      int iIndex) const {
  const std::string* const pValue = FindValue(strSection, strKey, iIndex);
  return pValue == nullptr ? std::string() : TranslateValue(*pValue);
}

const std::string IniConfig::GetValueByFullName(const std::string& strName, int iIndex) const {
  const size_t iDot = strName.find('.');
  if (iDot == std::string::npos) {
    return GetValue("", strName, iIndex);
  }
  return GetValue(strName.substr(0, iDot), strName.substr(iDot + 1), iIndex);
}

uint32_t IniConfig::Count(const std::string& strSection, const std::string& strKey) const {
  const auto it = m_mapContents.find(strSection);
  return it == m_mapContents.end() ? 0 : static_cast<uint32_t>(it->second.count(strKey));
}

int64_t IniConfig::IntValue(const std::string& strSection, const std::string& strKey,
                            int iIndex) const {
  const std::string strValue = GetValue(strSection, strKey, iIndex);
  const char* const pText = strValue.c_str();
  char* pEnd = nullptr;
  const int64_t iValue =
      IsHexadecimal(strValue) ? strtoll(pText + 2, &pEnd, 16) : strtoll(pText, &pEnd, 10);
  const char* const pSuffix = pEnd + strspn(pEnd, " \t");
  // Unsigned, since the sign may be shifted out.
  return static_cast<int64_t>(static_cast<uint64_t>(iValue) << ScaleBits(*pSuffix));
}

std::vector<std::string> IniConfig::EnumSections(const std::string& strFilter) const {
  std::vector<std::string> vecNames;
  SimpleFilter stFilter;
  if (stFilter.SetRegular(strFilter.c_str()) != 0) {
    return vecNames;
  }
  for (const auto& [strSection, mapItems] : m_mapContents) {
    if (stFilter.DoFilter(strSection.c_str())) {
      vecNames.push_back(strSection);
    }
  }
  return vecNames;
}

std::vector<std::string> IniConfig::EnumKeys(const std::string& strSection,
                                             const std::string& strFilter) const {
  std::vector<std::string> vecNames;
  SimpleFilter stFilter;
  const auto itSection = m_mapContents.find(strSection);
  if (itSection == m_mapContents.end() || stFilter.SetRegular(strFilter.c_str()) != 0) {
    return vecNames;
  }
  for (const auto& [strKey, strValue] : itSection->second) {
    if (stFilter.DoFilter(strKey.c_str())) {
      vecNames.push_back(strKey);
    }
  }
  return vecNames;
}

const std::string IniConfig::TranslateValue(const std::string& strText) const {
  std::string strResult = strText;
  reference_t stReference;
  while (FindReference(strResult, stReference)) {
    strResult.replace(stReference.iBegin, stReference.iSize,
                      ResolveReference(stReference.cSigil, stReference.strName));
  }
  return strResult;
}

std::string IniConfig::ResolveReference(char cSigil, const std::string& strName) const {
  if (cSigil == '$') {
    const char* const pValue = getenv(strName.c_str());
    return pValue == nullptr ? "" : pValue;
  }
  const auto it = m_mapMacros.find(strName);
  return it == m_mapMacros.end() ? GetValueByFullName(strName) : it->second;
}

void IniConfig::InsertItem(const std::string& strSection, const std::string& strKey,
                           const std::string& strValue) {
  m_mapContents[strSection].emplace(strKey, strValue);
}

void IniConfig::SetValue(const std::string& strSection, const std::string& strKey,
                         const std::string& strValue) {
  InsertItem(strSection, strKey, strValue);
}

void IniConfig::SetValue(const std::string& strSection, const std::string& strKey,
                         const int64_t& iValue) {
  InsertItem(strSection, strKey, std::to_string(iValue));
}

int IniConfig::WriteToFile(const char* pPath) {
  const File_t pFile = OpenFile(pPath, "we");
  if (pFile == nullptr) {
    return -1;
  }
  for (const auto& [strSection, mapItems] : m_mapContents) {
    if (!strSection.empty()) {
      fprintf(pFile.get(), "[%s]\n", strSection.c_str());
    }
    for (const auto& [strKey, strValue] : mapItems) {
      const char* const pSeparator = strValue.empty() ? "" : " = ";
      fprintf(pFile.get(), "%s%s%s\n", strKey.c_str(), pSeparator, strValue.c_str());
    }
    fflush(pFile.get());
  }
  return 0;
}

void IniConfig::Dump(int iFD) {
  for (const auto& [strSection, mapItems] : m_mapContents) {
    for (const auto& [strKey, strValue] : mapItems) {
      dprintf(iFD, "%-30s\t%-30s\t%-30s\n", strSection.c_str(), strKey.c_str(), strValue.c_str());
    }
  }
}
