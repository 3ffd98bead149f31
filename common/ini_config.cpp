#include "ini_config.h"

#include <fcntl.h>
#include <regex.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <string_view>

#include "internal/checked_regex.h"
#include "internal/matching_files.h"
#include "internal/reference_scanner.h"
#include "internal/scaled_number.h"
#include "simple_filter.h"

#include "internal/always_assert.h"

// DESIGN
//
// The grammar is given by four regular expressions, tried in order; the first that is found in a
// line decides what it is. All are bound to the start of the line, their classes know only ASCII,
// and no run of characters in them can give back what it took, but for the name of a section, which
// ends at the last bracket. So one look from left to right decides, byte by byte.
//
// In a locale with characters of several bytes the classes match valid characters only. There the
// expressions themselves judge each line that holds more than ASCII.
//
// Includes. Every load, also that of an included file, follows all directives of the object from
// the first one on; those whose text is in the set are passed over. Done as it stands, that is
// quadratic in their number, so one run of nested loads shares what it knows: a directive that was
// reached once is reached by none of the others again, unless it holds references, because its
// text can change when an included file brings the key that was missing.
//
// Lookups. A search in two large maps is one cache miss after the other. Once the lookups since the
// last change are a quarter of the items, a hash table of the keys has paid for itself and is
// built; every change drops it.

namespace {

const size_t LINE_SIZE = 2047;    // longer lines of a file are cut
const size_t BLOCK_SIZE = 16384;  // what is read at once
const size_t MIN_SEARCHES = 64;   // before an index is thought of
const size_t INDEX_SHARE = 4;     // items for each search, at most, when it is built
const char DIRECTIVE[] = "include";
const char SIGILS[] = "$@";

struct line_t {
  enum Kind { IGNORED, SECTION, ITEM };
  Kind eKind = IGNORED;
  std::string_view strName;  // of the section, or the key
  std::string_view strValue;
};

// What a character can be; a NUL ends every run.
enum : unsigned char { BLANK = 1, EQUALS = 2, LINE_END = 4, NUL = 8 };

constexpr std::array<unsigned char, 256> MakeClasses() {
  std::array<unsigned char, 256> aClasses{};
  aClasses[' '] = aClasses['\t'] = BLANK;
  aClasses['='] = EQUALS;
  aClasses['\r'] = aClasses['\n'] = LINE_END;
  aClasses['\0'] = NUL;
  return aClasses;
}

constexpr std::array<unsigned char, 256> CLASSES = MakeClasses();

bool Is(char c, int iClasses) { return (CLASSES[static_cast<unsigned char>(c)] & iClasses) != 0; }

// The end of the characters from pText on that are of the classes, or of those that are not.
const char* SkipAll(const char* pText, const char* pEnd, int iClasses) {
  while (pText < pEnd && Is(*pText, iClasses)) {
    ++pText;
  }
  return pText;
}

const char* SkipOthers(const char* pText, const char* pEnd, int iClasses) {
  while (pText < pEnd && !Is(*pText, iClasses)) {
    ++pText;
  }
  return pText;
}

std::string_view View(const char* pBegin, const char* pEnd) {
  return {pBegin, static_cast<size_t>(pEnd - pBegin)};
}

bool IsComment(std::string_view strText) {
  return !strText.empty() && (strText[0] == ';' || strText[0] == '#' ||
                              (strText[0] == '/' && strText.size() > 1 && strText[1] == '/'));
}

// The name of a section from a text that begins with "["; empty when it makes none.
std::string_view SectionName(std::string_view strText) {
  const std::string_view strVisible = strText.substr(0, strText.find('\0'));
  const size_t iClosing = strVisible.rfind(']');
  return iClosing == std::string_view::npos ? "" : strVisible.substr(1, iClosing - 1);
}

// What the expressions say about a line, where every byte is a character. It ends at its first NUL.
line_t ScanLine(std::string_view strLine) {
  const char* const pEnd = strLine.data() + strLine.size();
  const char* const pKey = SkipAll(strLine.data(), pEnd, BLANK);
  const std::string_view strRest = View(pKey, pEnd);
  if (IsComment(strRest)) {
    return {};
  }
  if (!strRest.empty() && strRest[0] == '[') {
    const std::string_view strName = SectionName(strRest);
    if (!strName.empty()) {
      return {line_t::SECTION, strName, {}};
    }
  }
  const char* const pKeyEnd = SkipOthers(pKey, pEnd, BLANK | EQUALS | NUL);
  if (pKeyEnd == pKey) {
    return {};
  }
  const char* const pValue = SkipAll(pKeyEnd, pEnd, BLANK | EQUALS);
  const char* const pValueEnd = SkipOthers(pValue, pEnd, BLANK | EQUALS | LINE_END | NUL);
  return {line_t::ITEM, View(pKey, pKeyEnd), View(pValue, pValueEnd)};
}

bool IsAscii(std::string_view strText) {
  unsigned char cBits = 0;
  for (const char c : strText) {
    cBits |= static_cast<unsigned char>(c);
  }
  return cBits < 0x80;
}

// The four expressions, compiled once per process and never freed. What they find is held against
// the groups that are read from it, which always take part.
class LinePatterns {
 public:
  // False when there is no memory for them; then the next call tries again.
  bool Compile();
  line_t Parse(std::string_view strLine);

 private:
  static const int COUNT = 4;
  static const int SLOT_COUNT = 64;
  enum { COMMENT, SECTION, KEY_VALUE, KEY };

  typedef regmatch_t Matches_t[SLOT_COUNT];

  line_t Ask(std::string_view strLine);
  void Free(int iCount);
  // The first slot tells where the line ends, which need not be at a NUL.
  bool Find(int iPattern, std::string_view strLine, Matches_t& matchs) {
    matchs[0] = {0, static_cast<regoff_t>(strLine.size())};
    const int iResult =
        SearchRegex(m_aPatterns[iPattern], strLine.data(), SLOT_COUNT, matchs, REG_STARTEND);
    if (iResult == REG_ESPACE) {
      Free(COUNT);             // the next load compiles them anew
      throw std::bad_alloc();  // the line would be taken for another kind
    }
    return iResult == 0;
  }

  regex_t m_aPatterns[COUNT]{};
  bool m_bCompiled = false;
  bool m_bMultibyte = false;  // in a locale with characters of several bytes
};

bool LinePatterns::Compile() {
  if (m_bCompiled) {
    return true;
  }
  static const struct {
    const char* pText;
    int iFlags;
  } TEXTS[COUNT] = {
      {"(^[ \t]*([;#]|//))", REG_EXTENDED | REG_NOSUB},
      {"^[ \t]*[[](.+)[]][ \t]*", REG_EXTENDED},
      {"^[ \t]*([^ \t=]+)[ \t=]+([^ \t=\r\n]+)", REG_EXTENDED},
      {"^[ \t]*([^ \t=]+)", REG_EXTENDED},
  };
  for (int i = 0; i < COUNT; ++i) {
    if (CompileRegex(&m_aPatterns[i], TEXTS[i].pText, TEXTS[i].iFlags) != 0) {
      Free(i);
      return false;
    }
  }
  m_bMultibyte = MB_CUR_MAX > 1;
  m_bCompiled = true;
  return true;
}

void LinePatterns::Free(int iCount) {
  for (int i = 0; i < iCount; ++i) {
    regfree(&m_aPatterns[i]);
  }
  m_bCompiled = false;
}

std::string_view Group(std::string_view strLine, const regmatch_t& stMatch) {
  return strLine.substr(static_cast<size_t>(stMatch.rm_so),
                        static_cast<size_t>(stMatch.rm_eo - stMatch.rm_so));
}

line_t LinePatterns::Ask(std::string_view strLine) {
  Matches_t matchs;
  if (Find(COMMENT, strLine, matchs)) {
    return {};
  }
  if (Find(SECTION, strLine, matchs)) {
    assert(matchs[1].rm_so != -1 && matchs[1].rm_eo != -1);
    return {line_t::SECTION, Group(strLine, matchs[1]), {}};
  }
  if (Find(KEY_VALUE, strLine, matchs)) {
    assert(matchs[1].rm_so != -1 && matchs[1].rm_eo != -1);
    assert(matchs[2].rm_so != -1 && matchs[2].rm_eo != -1);
    return {line_t::ITEM, Group(strLine, matchs[1]), Group(strLine, matchs[2])};
  }
  if (Find(KEY, strLine, matchs)) {
    assert(matchs[1].rm_so != -1 && matchs[1].rm_eo != -1);
    return {line_t::ITEM, Group(strLine, matchs[1]), {}};
  }
  return {};
}

line_t LinePatterns::Parse(std::string_view strLine) {
  if (!m_bMultibyte || IsAscii(strLine)) {
    return ScanLine(strLine);
  }
  return Ask(strLine.substr(0, strLine.find('\0')));
}

LinePatterns g_stLinePatterns;

// Adds a value behind those that the key has and returns the section's items. A section that is new
// comes with its first item: without memory there is none that is empty.
template <typename Text>
IniConfig::Items_t& AddItem(IniConfig::Contents_t& mapContents, const std::string& strSection,
                            const Text& strKey, const Text& strValue) {
  const auto itSection = mapContents.lower_bound(strSection);
  if (itSection != mapContents.end() && itSection->first == strSection) {
    itSection->second.emplace(strKey, strValue);
    return itSection->second;
  }
  IniConfig::Items_t mapItems;
  mapItems.emplace(strKey, strValue);
  return mapContents.emplace_hint(itSection, strSection, std::move(mapItems))->second;
}

// Puts the lines of one text into their sections.
class LineSorter {
 public:
  explicit LineSorter(IniConfig::Contents_t& mapContents) : m_mapContents(mapContents) {}

  void Take(std::string_view strLine) {
    const line_t stLine = g_stLinePatterns.Parse(strLine);
    if (stLine.eKind == line_t::SECTION) {
      m_strSection = stLine.strName;
      m_pItems = nullptr;
    } else if (stLine.eKind == line_t::ITEM && m_pItems != nullptr) {
      m_pItems->emplace_hint(m_pItems->end(), stLine.strName, stLine.strValue);
    } else if (stLine.eKind == line_t::ITEM) {
      m_pItems = &AddItem(m_mapContents, m_strSection, stLine.strName, stLine.strValue);
    }
  }

 private:
  IniConfig::Contents_t& m_mapContents;
  std::string m_strSection;
  IniConfig::Items_t* m_pItems = nullptr;  // of the section, once a line has put one there
};

class Descriptor {
 public:
  explicit Descriptor(const char* pPath) : m_iFD(open(pPath, O_RDONLY | O_CLOEXEC)) {}
  ~Descriptor() { Close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int FD() const { return m_iFD; }
  void Close() {
    if (m_iFD != -1) {
      close(m_iFD);
      m_iFD = -1;
    }
  }

 private:
  int m_iFD;
};

ssize_t ReadSome(int iFD, char* pBuffer, size_t iSize) {
  ssize_t iRead = 0;
  do {
    iRead = read(iFD, pBuffer, iSize);
  } while (iRead == -1 && errno == EINTR);
  return iRead;
}

// Gives the whole lines at the start of a block and returns where the rest of it begins. A line
// that is too long is whole as soon as it has LINE_SIZE characters.
const char* TakeBlock(const char* pBlock, const char* pEnd, LineSorter& stSorter) {
  for (;;) {
    const size_t iSize = std::min(static_cast<size_t>(pEnd - pBlock), LINE_SIZE);
    const auto* pLineEnd = static_cast<const char*>(memchr(pBlock, '\n', iSize));
    if (pLineEnd != nullptr) {
      ++pLineEnd;
    } else if (iSize == LINE_SIZE) {
      pLineEnd = pBlock + LINE_SIZE;
    } else {
      return pBlock;
    }
    stSorter.Take(View(pBlock, pLineEnd));
    pBlock = pLineEnd;
  }
}

// Gives the lines of a file up to its end, or to a failure, which hides a line that has begun. Not
// in line, so that the buffer is not on the stack once for each level of includes.
[[gnu::noinline]] void TakeFile(int iFD, LineSorter& stSorter) {
  char szBlock[BLOCK_SIZE];
  char* pEnd = szBlock;
  ssize_t iRead = 0;
  while ((iRead = ReadSome(iFD, pEnd, BLOCK_SIZE - static_cast<size_t>(pEnd - szBlock))) > 0) {
    pEnd += iRead;
    const char* const pRest = TakeBlock(szBlock, pEnd, stSorter);
    pEnd = std::copy(pRest, static_cast<const char*>(pEnd), szBlock);
  }
  if (iRead == 0) {
    stSorter.Take(View(szBlock, pEnd));
  }
}

void TakeText(std::string_view strText, LineSorter& stSorter) {
  // The line feed goes; behind the last line, npos + 1 is 0.
  for (size_t iEnd = 0; iEnd != std::string_view::npos; strText.remove_prefix(iEnd + 1)) {
    iEnd = strText.find('\n');
    stSorter.Take(strText.substr(0, iEnd));
  }
}

size_t Hash(std::string_view strSection, std::string_view strKey) {
  const std::hash<std::string_view> fnHash;
  return fnHash(strSection) * 31 + fnHash(strKey);
}

// The value number iIndex from the one at it on, null when the key has no such value.
const std::string* ValueAt(const IniConfig::Items_t& mapItems,
                           IniConfig::Items_t::const_iterator it, const std::string& strKey,
                           int iIndex) {
  for (; it != mapItems.end() && it->first == strKey; ++it) {
    if (iIndex-- == 0) {
      return &it->second;
    }
  }
  return nullptr;
}

// A letter more than StringToInt() knows.
unsigned int IniScaleBits(char cSuffix) {
  return cSuffix == 'T' || cSuffix == 't' ? 40 : ScaleBits(cSuffix);
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
  Items_t::const_iterator itNext = itLast;
  if (iReached == 0) {
    itNext = mapItems.lower_bound(DIRECTIVE);
  } else {
    ++itNext;
  }
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
  std::set<std::string> setOwn;
  IncludeRun_t stRun{pIncludes == nullptr ? setOwn : *pIncludes};
  return LoadFile(pPath, stRun, pIncludes == nullptr);
}

int IniConfig::LoadFile(const char* pPath, IncludeRun_t& stRun, bool bTop) {
  Descriptor stFile(pPath);
  if (stFile.FD() == -1) {
    return -1;
  }
  if (bTop) {
    m_strConfigFile = pPath;
  }
  if (!g_stLinePatterns.Compile()) {
    return -1;
  }
  LineSorter stSorter(Change());
  TakeFile(stFile.FD(), stSorter);
  stFile.Close();
  return FollowIncludes(stRun);
}

int IniConfig::LoadFromMemory(const std::string& strText, std::set<std::string>* pIncludes) {
  if (!g_stLinePatterns.Compile()) {
    return -1;
  }
  LineSorter stSorter(Change());
  TakeText(strText, stSorter);
  return FollowIncludes(pIncludes);
}

int IniConfig::LoadFromMemory(const std::vector<std::string>& vecLines,
                              std::set<std::string>* pIncludes) {
  if (!g_stLinePatterns.Compile()) {
    return -1;
  }
  LineSorter stSorter(Change());
  for (const std::string& strLine : vecLines) {
    stSorter.Take(strLine);
  }
  return FollowIncludes(pIncludes);
}

int IniConfig::FollowIncludes(std::set<std::string>* pIncludes) {
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
    const MatchingFiles stFiles(itText->c_str());
    if (!stFiles.IsValid()) {
      return -1;
    }
    for (const char* pPath : stFiles) {
      if (LoadFile(pPath, stRun, false) != 0) {
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

void IniConfig::Clear() { Change().clear(); }

IniConfig::Contents_t& IniConfig::Change() {
  m_stIndex.Clear();
  return m_mapContents;
}

IniConfig::Index_t& IniConfig::Index_t::operator=(const Index_t& /*stOther*/) {
  Clear();
  return *this;
}

IniConfig::Index_t& IniConfig::Index_t::operator=(Index_t&& stOther) noexcept {
  Clear();
  stOther.Clear();
  return *this;
}

void IniConfig::Index_t::Clear() noexcept {
  vecSlots.clear();
  iSearches = 0;
}

void IniConfig::Index_t::Build(const Contents_t& mapContents, size_t iItems) {
  size_t iSlots = 1;
  while (iSlots < iItems * 2) {
    iSlots *= 2;
  }
  vecSlots.assign(iSlots, {});
  for (const auto& stSection : mapContents) {
    const Items_t& mapItems = stSection.second;
    for (auto it = mapItems.begin(); it != mapItems.end(); it = mapItems.upper_bound(it->first)) {
      const size_t iHash = Hash(stSection.first, it->first);
      size_t iSlot = iHash & (iSlots - 1);
      while (vecSlots[iSlot].pSection != nullptr) {
        iSlot = (iSlot + 1) & (iSlots - 1);
      }
      vecSlots[iSlot] = {iHash, &stSection, it};
    }
  }
}

// Null when there is no such key.
const IniConfig::Index_t::Slot_t* IniConfig::Index_t::Find(const std::string& strSection,
                                                           const std::string& strKey) const {
  const size_t iHash = Hash(strSection, strKey);
  const size_t iMask = vecSlots.size() - 1;
  for (size_t i = iHash & iMask; vecSlots[i].pSection != nullptr; i = (i + 1) & iMask) {
    const Slot_t& stSlot = vecSlots[i];
    if (stSlot.iHash == iHash && stSlot.pSection->first == strSection &&
        stSlot.itFirst->first == strKey) {
      return &stSlot;
    }
  }
  return nullptr;
}

// Whether the index can be used; builds it when it is time to.
bool IniConfig::IsIndexed() const {
  if (!m_stIndex.vecSlots.empty()) {
    return true;
  }
  const size_t iSearches = ++m_stIndex.iSearches;
  const bool bPowerOfTwo = (iSearches & (iSearches - 1)) == 0;  // counting takes time, too
  if (iSearches < MIN_SEARCHES || !bPowerOfTwo || iSearches * INDEX_SHARE < m_mapContents.size()) {
    return false;
  }
  size_t iItems = 0;
  for (const auto& stSection : m_mapContents) {
    iItems += stSection.second.size();
  }
  if (iItems == 0 || iSearches * INDEX_SHARE < iItems) {
    return false;
  }
  m_stIndex.Build(m_mapContents, iItems);
  return true;
}

// Null when there is no such value.
const std::string* IniConfig::FindValue(const std::string& strSection, const std::string& strKey,
                                        int iIndex) const {
  if (iIndex < 0) {
    return nullptr;
  }
  if (IsIndexed()) {
    const Index_t::Slot_t* const pSlot = m_stIndex.Find(strSection, strKey);
    return pSlot == nullptr ? nullptr
                            : ValueAt(pSlot->pSection->second, pSlot->itFirst, strKey, iIndex);
  }
  const auto it = m_mapContents.find(strSection);
  return it == m_mapContents.end()
             ? nullptr
             : ValueAt(it->second, it->second.lower_bound(strKey), strKey, iIndex);
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
  return static_cast<int64_t>(static_cast<uint64_t>(iValue) << IniScaleBits(*pSuffix));
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
  static ReferenceScanner s_stScanner;  // shared by all objects
  return s_stScanner.Translate(strText, [this](const std::string& strName) {
    const auto it = m_mapMacros.find(strName);
    return it == m_mapMacros.end() ? GetValueByFullName(strName) : it->second;
  });
}

void IniConfig::InsertItem(const std::string& strSection, const std::string& strKey,
                           const std::string& strValue) {
  AddItem(Change(), strSection, strKey, strValue);
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
  const std::unique_ptr<FILE, int (*)(FILE*)> pFile(fopen(pPath, "we"), fclose);
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
