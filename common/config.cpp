// DESIGN. A document is flattened into a map of its own, which is then merged: so the include
// directives among its items are found while it is small, and a load of many files does not walk
// all items for each.
//
// After each document, nested ones too, the directives of all items loaded so far are followed, in
// the order of the items. So the first nested load follows all that its parent still has before
// it, and a directive without references leaves the list for good when it is followed. Those with
// references are all translated before the first directive is followed: a nested load may bring in
// the key that one of them refers to, and make another path of it.

#include "config.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sys/stat.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string_view>
#include <utility>

#include "internal/matching_files.h"
#include "internal/reference_scanner.h"
#include "internal/xml_memory_watch.h"
#include "simple_filter.h"
#include "string_util.h"

#include "internal/always_assert.h"

namespace {

typedef std::multimap<std::string, std::string> Items_t;

const char BLANKS[] = "\n\t ";
const size_t KEY_SIZE = 256;
const size_t MIN_SLOTS = 64;
const size_t INDEX_SHARE = 4;  // items for each search in the map, at most, when an index is made

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
  const std::unique_ptr<FILE, CloseFile> pFile(fopen(pPath, "re"));
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
  const XmlMemoryWatch stMemory;
  Document pDocument(xmlReadMemory(pBuffer, static_cast<int>(iLength), nullptr, nullptr,
                                   XML_PARSE_NONET | XML_PARSE_COMPACT));
  return XmlMemoryWatch::WasLacking() ? nullptr : std::move(pDocument);  // there may be half of it
}

const char* Text(const xmlChar* pText) { return reinterpret_cast<const char*>(pText); }

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
  if (pChild == nullptr) {
    return "";
  }
  return TrimmedText(pChild);
}

std::string ElementContent(const xmlNode* pElement) {
  std::string strContent;
  for (const xmlNode* pChild = pElement->children; pChild != nullptr; pChild = pChild->next) {
    if (pChild->type == XML_TEXT_NODE) {
      strContent += TrimmedText(pChild);
    }
  }
  return strContent;
}

// Appends what stands in a tree to a map.
class Flattener {
 public:
  Flattener(Items_t& mapItems, const char* pPrefix) : m_mapItems(mapItems) {
    if (pPrefix != nullptr) {
      m_strKey = pPrefix;
    }
  }

  void Elements(const xmlNode* pNode) {
    const size_t iLength = m_strKey.size();
    for (const xmlNode* pChild = pNode->children; pChild != nullptr; pChild = pChild->next) {
      if (pChild->type == XML_ELEMENT_NODE) {
        Append(pChild->name);
        std::string strContent = ElementContent(pChild);
        if (!strContent.empty()) {
          Insert(std::move(strContent));
        }
        Properties(pChild);
        Elements(pChild);
        m_strKey.resize(iLength);
      }
    }
  }

  void Properties(const xmlNode* pNode) {
    const size_t iLength = m_strKey.size();
    for (const xmlAttr* pAttribute = pNode->properties; pAttribute != nullptr;
         pAttribute = pAttribute->next) {
      Append(pAttribute->name);
      Insert(AttributeContent(pAttribute));
      m_strKey.resize(iLength);
    }
  }

 private:
  void Append(const xmlChar* pName) {
    if (!m_strKey.empty()) {
      m_strKey += '.';
    }
    m_strKey += Text(pName);
  }

  // Behind all of the same key. Documents are mostly sorted in places, so that the place is often
  // right behind the last. A hint behind all of the same key never leads to another place.
  void Insert(std::string strValue) {
    const auto itNext = m_itLast != m_mapItems.end() ? std::next(m_itLast) : m_itLast;
    const bool bBefore = itNext == m_mapItems.end() || m_strKey < itNext->first;
    m_itLast = bBefore ? m_mapItems.emplace_hint(itNext, m_strKey, std::move(strValue))
                       : m_mapItems.emplace(m_strKey, std::move(strValue));
  }

  Items_t& m_mapItems;
  Items_t::iterator m_itLast = m_mapItems.end();
  std::string m_strKey;  // of the node at hand
};

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
  // The value of a directive, and whether it has references.
  using Directives = std::multimap<std::string_view, std::pair<const std::string*, bool>>;

  explicit Includes(std::set<std::string>& setPaths) : setFollowed(setPaths) {}

  // Takes up the directives among new items, behind those of the same key.
  void Note(const Items_t& mapItems) {
    for (const auto& [strKey, strValue] : mapItems) {
      if (IsDirective(strKey)) {
        Reference stIgnored{};
        const bool bVariable = g_stReferences.Find(strValue, stIgnored);
        bAnyVariable |= bVariable;
        mapDirectives.emplace(strKey, std::make_pair(&strValue, bVariable));
      }
    }
  }

  std::set<std::string>& setFollowed;
  // In the order of the items; those without references leave when they are followed.
  Directives mapDirectives;
  bool bAnyVariable = false;
};

Config::Index& Config::Index::operator=(const Index& /*stOther*/) {
  Clear();
  return *this;
}

Config::Index& Config::Index::operator=(Index&& stOther) noexcept {
  Clear();
  stOther.Clear();
  return *this;
}

void Config::Index::Clear() noexcept {
  m_vecSlots.clear();
  m_iItems = 0;
}

// The slot of a key, or the free one where it would stand.
size_t Config::Index::Place(std::string_view svKey, size_t iHash) const {
  const size_t iMask = m_vecSlots.size() - 1;
  size_t iSlot = iHash & iMask;
  while (m_vecSlots[iSlot].pItem != nullptr &&
         (m_vecSlots[iSlot].iHash != iHash || m_vecSlots[iSlot].pItem->first != svKey)) {
    iSlot = (iSlot + 1) & iMask;
  }
  return iSlot;
}

void Config::Index::Make(const Items_t& mapItems) {
  Clear();
  size_t iSlots = MIN_SLOTS;
  while (iSlots < mapItems.size() * 2) {
    iSlots *= 2;
  }
  m_vecSlots.resize(iSlots);
  m_iItems = mapItems.size();  // only now: memory may have lacked
  for (const Item_t& stItem : mapItems) {
    const size_t iHash = std::hash<std::string_view>()(stItem.first);
    Slot& stSlot = m_vecSlots[Place(stItem.first, iHash)];
    if (stSlot.pItem == nullptr) {
      stSlot = {iHash, &stItem};
    }
  }
}

const Config::Index::Item_t* Config::Index::Find(std::string_view svKey) const {
  if (m_vecSlots.empty()) {
    return nullptr;
  }
  return m_vecSlots[Place(svKey, std::hash<std::string_view>()(svKey))].pItem;
}

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
  Items_t mapNew;
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
  std::vector<std::pair<const std::string*, std::string>> vecVariable;
  if (stIncludes.bAnyVariable) {
    for (const auto& [svKey, stDirective] : stIncludes.mapDirectives) {
      if (stDirective.second) {
        vecVariable.emplace_back(stDirective.first, TranslateValue(stDirective.first->c_str()));
      }
    }
  }
  auto itVariable = vecVariable.begin();
  for (auto it = stIncludes.mapDirectives.begin(); it != stIncludes.mapDirectives.end();) {
    const auto [pValue, bVariable] = it->second;
    const std::string* pPath = pValue;
    if (bVariable) {
      // One that a nested load has brought in was followed there.
      const bool bKnown = itVariable != vecVariable.end() && itVariable->first == pValue;
      pPath = bKnown ? &(itVariable++)->second : nullptr;
    } else {
      stIncludes.mapDirectives.erase(it);
    }
    if (pPath != nullptr && Follow(PreProcessPath(*pPath), stIncludes) != 0) {
      return -1;
    }
    // A nested load may have taken the next ones, but never one with references.
    it = bVariable ? std::next(it) : stIncludes.mapDirectives.begin();
  }
  return 0;
}

int Config::Follow(const std::string& strPath, Includes& stIncludes) {
  if (!stIncludes.setFollowed.insert(strPath).second) {
    return 0;
  }
  const MatchingFiles stFiles(strPath.c_str());
  if (!stFiles.IsValid()) {
    return -1;
  }
  for (const char* pMatch : stFiles) {
    if (LoadFile(pMatch, stIncludes) != 0) {
      return -1;
    }
  }
  return 0;
}

void Config::Refresh() {
  std::string strPath = m_strFilename;  // a load clears it first
  Clear();
  try {
    LoadFromFile(strPath.c_str());
  } catch (...) {
    m_strFilename.swap(strPath);  // memory is lacking, which says nothing about the file
    throw;
  }
}

void Config::Clear() {
  m_stIndex.Clear();
  m_mapItems.clear();
}

void Config::Dump(int iFD) {
  for (const auto& [strKey, strValue] : m_mapItems) {
    dprintf(iFD, "%s -- \"%s\"\n", strKey.c_str(), strValue.c_str());
  }
}

const std::string* Config::FirstValue(const char* pKey) const {
  if (m_stIndex.Items() != m_mapItems.size()) {  // this object is a copy, or has loaded more
    if (++m_iSearches * INDEX_SHARE < m_mapItems.size()) {
      const auto itItem = m_mapItems.lower_bound(pKey);
      return itItem != m_mapItems.end() && itItem->first == pKey ? &itItem->second : nullptr;
    }
    m_iSearches = 0;
    m_stIndex.Make(m_mapItems);
  }
  const Index::Item_t* pItem = m_stIndex.Find(pKey);
  return pItem != nullptr ? &pItem->second : nullptr;
}

const char* Config::StringValue(const char* pKey) const {
  const std::string* pRaw = FirstValue(pKey);
  if (pRaw == nullptr) {
    return "";
  }
  Reference stFound{};
  if (!g_stReferences.Find(*pRaw, stFound)) {
    return NextSlot().assign(*pRaw).c_str();  // in the memory of an earlier result
  }
  std::string strValue = *pRaw;
  g_stReferences.Replace(strValue, stFound,
                         [this](const std::string& strName) { return MacroOrValue(strName); });
  return NextSlot().assign(std::move(strValue)).c_str();  // references took their slots before
}

int64_t Config::IntValue(const char* pKey) const {
  const char* pValue = StringValue(pKey);
  if (*pValue == '\0') {
    return -1;
  }
  return StringToInt(pValue);
}

std::vector<std::string> Config::StringValues(const char* pKey) const {
  std::vector<std::string> vecValues;
  const auto [itBegin, itEnd] = m_mapItems.equal_range(pKey);
  for (auto itItem = itBegin; itItem != itEnd; ++itItem) {
    vecValues.push_back(TranslateValue(itItem->second.c_str()));
  }
  return vecValues;
}

std::vector<int64_t> Config::IntValues(const char* pKey) const {
  std::vector<int64_t> vecNumbers;
  for (const std::string& strValue : StringValues(pKey)) {
    vecNumbers.push_back(StringToInt(strValue));
  }
  return vecNumbers;
}

std::multimap<std::string, std::string> Config::EnumValues(const char* pPattern) const {
  Items_t mapFound;
  SimpleFilter stFilter;
  if (stFilter.SetRegular(pPattern) != 0) {
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
  return g_stReferences.Translate(
      pText, [this](const std::string& strName) { return MacroOrValue(strName); });
}

const char* Config::MacroOrValue(const std::string& strName) const {
  const auto itMacro = m_mapMacros.find(strName);
  return itMacro != m_mapMacros.end() ? itMacro->second.c_str() : StringValue(strName.c_str());
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

void Config::EnumElements(xmlNode* pNode, const char* pPrefix, Items_t& mapItems) {
  Flattener(mapItems, pPrefix).Elements(pNode);
}

void Config::EnumProperties(xmlNode* pNode, const char* pPrefix, Items_t& mapItems) {
  Flattener(mapItems, pPrefix).Properties(pNode);
}

std::string Config::GetElementContent(xmlNode* pCurrNode) {
  assert(pCurrNode->type == XML_ELEMENT_NODE);
  return ElementContent(pCurrNode);
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
