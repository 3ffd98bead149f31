// DESIGN. A document is flattened into a map of its own, which is then merged: so the include
// directives among its items can be told apart while it is small, and a load of many files does
// not walk all items for each.
//
// After each document, nested ones too, the directives of all items loaded so far are followed, in
// the order of the items. So the first nested load follows all that its parent still has before
// it, and the parent finds it done. Only directives with references need more than a mark: all are
// translated before the first is followed, since a nested load may bring in the key that one of
// them refers to, and make another path of it.

#include "config.h"

#include <glob.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sys/stat.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

#include "internal/reference_scanner.h"
#include "simple_filter.h"
#include "string_util.h"

#include "internal/always_assert.h"

namespace {

using Items = std::multimap<std::string, std::string>;

const char BLANKS[] = "\n\t ";
const size_t KEY_SIZE = 256;

// Results of StringValue(). Storage for twice as many is reserved, deliberately; a pointer lives
// for RING_SLOTS later calls.
const size_t RING_STORAGE = 200;
const size_t RING_SLOTS = 100;

ReferenceScanner g_stReferences;

struct FreeDocument {
  void operator()(xmlDocPtr pDocument) const { xmlFreeDoc(pDocument); }
};
using Document = std::unique_ptr<xmlDoc, FreeDocument>;

struct CloseFile {
  void operator()(FILE* pFile) const { fclose(pFile); }
};

struct FreeMemory {
  void operator()(char* pMemory) const { free(pMemory); }
};
using Buffer = std::unique_ptr<char, FreeMemory>;

// The files that a pattern matches, sorted.
class Matches {
 public:
  explicit Matches(const std::string& strPattern) {
    glob(strPattern.c_str(), GLOB_TILDE, nullptr, &m_stGlob);
  }
  ~Matches() { globfree(&m_stGlob); }
  Matches(const Matches&) = delete;
  Matches& operator=(const Matches&) = delete;

  char** begin() const { return m_stGlob.gl_pathv; }
  char** end() const { return m_stGlob.gl_pathv + m_stGlob.gl_pathc; }

 private:
  glob_t m_stGlob{};
};

// The next slot of the ring: never destroyed, so that results live as long as the process.
std::string& NextSlot() {
  static auto* const pRing = new std::string[RING_STORAGE];
  static size_t iNext = 0;
  std::string& strSlot = pRing[iNext];
  iNext = (iNext + 1) % RING_SLOTS;
  return strSlot;
}

// The whole file and its size; null when it is empty or can not be read. A file without size is
// not even opened: that of a FIFO would wait for a writer.
Buffer ReadWhole(const char* pPath, size_t& iSize) {
  struct stat stStat {};
  if (stat(pPath, &stStat) != 0 || stStat.st_size == 0) {
    return nullptr;
  }
  const std::unique_ptr<FILE, CloseFile> pFile(fopen(pPath, "r"));
  if (pFile == nullptr) {
    return nullptr;
  }
  iSize = static_cast<size_t>(stStat.st_size);
  Buffer pBuffer(static_cast<char*>(malloc(iSize)));
  if (pBuffer == nullptr || fread(pBuffer.get(), 1, iSize, pFile.get()) != iSize) {
    return nullptr;
  }
  return pBuffer;
}

// What xmlParseMemory() gives, but whatever the process has set as libxml2's defaults: entities
// are not replaced, and neither they nor a DTD are loaded.
Document Parse(const char* pBuffer, size_t iLength) {
  if (iLength > INT_MAX) {
    return nullptr;
  }
  return Document(xmlReadMemory(pBuffer, static_cast<int>(iLength), nullptr, nullptr,
                                XML_PARSE_NONET | XML_PARSE_COMPACT));
}

const char* Text(const xmlChar* pText) { return reinterpret_cast<const char*>(pText); }

std::string JoinKey(const char* pPrefix, const xmlChar* pName) {
  std::string strKey;
  if (pPrefix != nullptr) {
    strKey.append(pPrefix).append(1, '.');
  }
  return strKey.append(Text(pName));
}

std::string TrimmedText(const xmlNode* pText) {
  std::string strText = Text(pText->content);
  Trim(strText, BLANKS);
  return strText;
}

// Of an attribute, the first text; one that has none (it is empty or begins with an entity) is
// empty, or what stands behind the entity.
std::string AttributeContent(const xmlAttr* pAttribute) {
  const xmlNode* pChild = pAttribute->children;
  while (pChild != nullptr && pChild->type != XML_TEXT_NODE) {
    pChild = pChild->next;
  }
  return pChild != nullptr ? TrimmedText(pChild) : "";
}

bool IsAscii(const std::string& strText) {
  for (const char cByte : strText) {
    if (static_cast<unsigned char>(cByte) >= 0x80) {
      return false;
    }
  }
  return true;
}

// What EnumValues("include") would find. The bytes decide, but where they might be parts of other
// characters.
bool IsDirective(const std::string& strKey) {
  if (strKey.find("include") == std::string::npos) {
    return false;
  }
  if (MB_CUR_MAX == 1 || IsAscii(strKey)) {
    return true;
  }
  SimpleFilter stFilter;
  return stFilter.SetRegular("include") == 0 && stFilter.DoFilter(strKey.c_str());
}

// The key that a format and its arguments give, cut to the buffer.
class FormattedKey {
 public:
  FormattedKey(const char* pFormat, va_list sAp) {
    vFormatString(m_szKey, sizeof(m_szKey), pFormat, sAp);
  }
  const char* Text() const { return m_szKey; }

 private:
  char m_szKey[KEY_SIZE]{};
};

}  // namespace

// One load with all that it includes.
struct Config::Includes {
  struct Directive {
    const std::string* pValue;
    bool bConstant;         // without references: one path for the whole load
    bool bSettled = false;  // constant, and followed
  };

  explicit Includes(std::set<std::string>& setPaths) : setFollowed(setPaths) {}

  // Takes up the directives among new items, behind those of the same key.
  void Note(const Items& mapItems) {
    for (const auto& [strKey, strValue] : mapItems) {
      Reference stIgnored{};
      if (IsDirective(strKey)) {
        mapDirectives.emplace(strKey,
                              Directive{&strValue, !g_stReferences.Find(strValue, stIgnored)});
      }
    }
  }

  std::set<std::string>& setFollowed;
  std::multimap<std::string_view, Directive> mapDirectives;  // in the order of the items
};

int Config::LoadFromFile(const char* pPath, std::set<std::string>* pIncludes) {
  std::set<std::string> setOwn;
  Includes stIncludes(pIncludes != nullptr ? *pIncludes : setOwn);
  stIncludes.Note(m_mapItems);
  return LoadFile(pPath, stIncludes);
}

int Config::LoadFromMemory(const char* pBuffer, size_t iLength, std::set<std::string>* pIncludes) {
  std::set<std::string> setOwn;
  Includes stIncludes(pIncludes != nullptr ? *pIncludes : setOwn);
  stIncludes.Note(m_mapItems);
  return Merge(pBuffer, iLength, stIncludes) ? FollowAll(stIncludes) : -1;
}

// Nested loads set the file name too, and the caller's last.
int Config::LoadFile(const char* pPath, Includes& stIncludes) {
  m_strFilename.clear();
  size_t iSize = 0;
  Buffer pBuffer = ReadWhole(pPath, iSize);
  if (pBuffer == nullptr || !Merge(pBuffer.get(), iSize, stIncludes)) {
    return -1;
  }
  pBuffer.reset();  // nested loads need not hold all files at once
  if (FollowAll(stIncludes) != 0) {
    return -1;
  }
  m_strFilename = pPath;
  return 0;
}

bool Config::Merge(const char* pBuffer, size_t iLength, Includes& stIncludes) {
  const Document pDocument = Parse(pBuffer, iLength);
  xmlNodePtr pRoot = xmlDocGetRootElement(pDocument.get());
  if (pRoot == nullptr) {
    return false;
  }
  Items mapNew;
  EnumElements(pRoot, nullptr, mapNew);
  stIncludes.Note(mapNew);
  if (m_mapItems.empty()) {
    m_mapItems.swap(mapNew);
  } else {
    m_mapItems.merge(mapNew);  // behind those of the same key; items do not move in memory
  }
  return true;
}

int Config::FollowAll(Includes& stIncludes) {
  std::vector<std::pair<const Includes::Directive*, std::string>> vecVariable;
  for (const auto& [strKey, stDirective] : stIncludes.mapDirectives) {
    if (!stDirective.bConstant) {
      vecVariable.emplace_back(&stDirective, TranslateValue(stDirective.pValue->c_str()));
    }
  }
  auto itVariable = vecVariable.begin();
  // Those that nested loads add on the way are done: such a load has followed them itself.
  for (auto& [strKey, stDirective] : stIncludes.mapDirectives) {
    const std::string* pValue = nullptr;
    if (stDirective.bConstant) {
      pValue = std::exchange(stDirective.bSettled, true) ? nullptr : stDirective.pValue;
    } else if (itVariable != vecVariable.end() && itVariable->first == &stDirective) {
      pValue = &(itVariable++)->second;
    }
    if (pValue != nullptr && Follow(PreProcessPath(*pValue), stIncludes) != 0) {
      return -1;
    }
  }
  return 0;
}

int Config::Follow(const std::string& strPath, Includes& stIncludes) {
  if (!stIncludes.setFollowed.insert(strPath).second) {
    return 0;
  }
  for (const char* pMatch : Matches(strPath)) {
    if (LoadFile(pMatch, stIncludes) != 0) {
      return -1;
    }
  }
  return 0;
}

void Config::Refresh() {
  const std::string strPath = m_strFilename;  // a load clears it first
  Clear();
  LoadFromFile(strPath.c_str());
}

void Config::Clear() { m_mapItems.clear(); }

void Config::Dump(int iFD) {
  for (const auto& [strKey, strValue] : m_mapItems) {
    dprintf(iFD, "%s -- \"%s\"\n", strKey.c_str(), strValue.c_str());
  }
}

const char* Config::StringValue(const char* pKey) const {
  const auto itItem = m_mapItems.lower_bound(pKey);
  if (itItem == m_mapItems.end() || itItem->first != pKey) {
    return "";
  }
  std::string strValue = TranslateValue(itItem->second.c_str());  // may take slots before this
  return NextSlot().assign(std::move(strValue)).c_str();
}

int64_t Config::IntValue(const char* pKey) const {
  const char* pValue = StringValue(pKey);
  return *pValue != '\0' ? StringToInt(pValue) : -1;
}

std::vector<std::string> Config::StringValues(const std::string& strKey) const {
  std::vector<std::string> vecValues;
  const auto [itBegin, itEnd] = m_mapItems.equal_range(strKey);
  for (auto itItem = itBegin; itItem != itEnd; ++itItem) {
    vecValues.push_back(TranslateValue(itItem->second.c_str()));
  }
  return vecValues;
}

std::vector<int64_t> Config::IntValues(const std::string& strKey) const {
  std::vector<int64_t> vecNumbers;
  for (const std::string& strValue : StringValues(strKey)) {
    vecNumbers.push_back(StringToInt(strValue));
  }
  return vecNumbers;
}

std::multimap<std::string, std::string> Config::EnumValues(const std::string& strPattern) const {
  Items mapFound;
  SimpleFilter stFilter;
  if (stFilter.SetRegular(strPattern.c_str()) != 0) {
    return mapFound;
  }
  for (const auto& [strKey, strValue] : m_mapItems) {
    if (stFilter.DoFilter(strKey.c_str())) {
      mapFound.emplace_hint(mapFound.end(), strKey, TranslateValue(strValue.c_str()));
    }
  }
  return mapFound;
}

const char* Config::vStringValue(const char* pFormat, ...) const {
  va_list sAp;
  va_start(sAp, pFormat);
  const FormattedKey stKey(pFormat, sAp);
  va_end(sAp);
  return StringValue(stKey.Text());
}

int64_t Config::vIntValue(const char* pFormat, ...) const {
  va_list sAp;
  va_start(sAp, pFormat);
  const FormattedKey stKey(pFormat, sAp);
  va_end(sAp);
  return IntValue(stKey.Text());
}

std::vector<std::string> Config::vStringValues(const char* pFormat, ...) const {
  va_list sAp;
  va_start(sAp, pFormat);
  const FormattedKey stKey(pFormat, sAp);
  va_end(sAp);
  return StringValues(stKey.Text());
}

std::vector<int64_t> Config::vIntValues(const char* pFormat, ...) const {
  va_list sAp;
  va_start(sAp, pFormat);
  const FormattedKey stKey(pFormat, sAp);
  va_end(sAp);
  return IntValues(stKey.Text());
}

std::string Config::TranslateValue(const char* pText) const {
  return g_stReferences.Translate(pText, [this](const std::string& strName) -> std::string {
    const auto itMacro = m_mapMacros.find(strName);
    return itMacro != m_mapMacros.end() ? itMacro->second : StringValue(strName.c_str());
  });
}

void Config::SetMacroVariable(const char* pName, const char* pValue) {
  m_mapMacros[pName] = pValue;
}

void Config::SetMacroVariable(const char* pName, uint64_t iValue) {
  m_mapMacros[pName] = std::to_string(iValue);
}

const char* Config::GetMacroVariable(const char* pName) const {
  const auto itMacro = m_mapMacros.find(pName);
  return itMacro != m_mapMacros.end() ? itMacro->second.c_str() : "";
}

void Config::EnumElements(xmlNode* pNode, const char* pPrefix, Items& mapItems) {
  for (xmlNode* pChild = pNode->children; pChild != nullptr; pChild = pChild->next) {
    if (pChild->type != XML_ELEMENT_NODE) {
      continue;
    }
    const std::string strKey = JoinKey(pPrefix, pChild->name);
    std::string strValue = GetElementContent(pChild);
    if (!strValue.empty()) {
      mapItems.emplace(strKey, std::move(strValue));
    }
    EnumProperties(pChild, strKey.c_str(), mapItems);
    EnumElements(pChild, strKey.c_str(), mapItems);
  }
}

void Config::EnumProperties(xmlNode* pNode, const char* pPrefix, Items& mapItems) {
  for (const xmlAttr* pAttribute = pNode->properties; pAttribute != nullptr;
       pAttribute = pAttribute->next) {
    mapItems.emplace(JoinKey(pPrefix, pAttribute->name), AttributeContent(pAttribute));
  }
}

std::string Config::GetElementContent(xmlNode* pCurrNode) {
  assert(pCurrNode->type == XML_ELEMENT_NODE);
  std::string strContent;
  for (const xmlNode* pChild = pCurrNode->children; pChild != nullptr; pChild = pChild->next) {
    if (pChild->type == XML_TEXT_NODE) {
      strContent += TrimmedText(pChild);
    }
  }
  return strContent;
}

std::string Config::PreProcessPath(const std::string& strPath) {
  std::vector<std::string> vecNames;
  StringSplit(strPath, "/\\", vecNames);
  std::string strResult;
  for (const std::string& strName : vecNames) {
    strResult.append(1, '/').append(strName);
  }
  return strResult;
}
