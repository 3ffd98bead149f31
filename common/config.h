#ifndef ZELK_COMMON_CONFIG_H
#define ZELK_COMMON_CONFIG_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "object.h"

struct _xmlNode;  // NOLINT(bugprone-reserved-identifier): libxml2's xmlNode

// The XML configuration of a process: a document flattened to dotted keys with text values.
//
// Each element below the root gives the key of the names from the root's child down to it, joined
// with ".", each of its attributes that key, "." and its name. The root gives nothing: not its
// name, its attributes or its text. Namespace prefixes are no part of a name.
// - An element's value is the text that stands directly in it, its pieces trimmed of blanks, tabs
//   and line feeds and joined with nothing. CDATA sections and entities that the document declares
//   are left out. An element with an empty value is no item; an attribute always is one.
// - A key may have several values. They keep the order of the document: an element, its
//   attributes, its children; what is loaded later comes later.
//
// Values may hold references, "$(NAME)" to the environment, "@(name)" to a macro or another key,
// each with round or curly brackets. They are replaced when a value is asked for. A reference must
// not lead back to itself.
//
// Every key that contains "include" is an include directive: its values are patterns for glob(),
// taken from the root directory ("conf/*.xml" is "/conf/*.xml", "~" is not special) whatever file
// they stand in. Each pattern is followed once in a load.
//
// Entities and DTDs of a document never make a load read a file or the network.
//
// Copies are independent of each other. For one thread: lookups of all objects share their results'
// storage. Object's Dump() writes a line 'key -- "raw value"' for each item.
class Config : public Object {
 public:
  // Loads a file with all that it includes, in addition to the items already there; Refresh() is
  // the load that clears first. pIncludes is the set of patterns that count as followed, and gets
  // those of this load; null is an empty set of its own.
  //
  // 0, or -1 when the file or one that it includes is missing, unreadable, empty or no XML with a
  // root, or when memory is lacking (which may also be told by std::bad_alloc). Items merged until
  // then stay.
  int LoadFromFile(const char* pPath, std::set<std::string>* pIncludes = nullptr);

  // The same from a whole document in memory, which need not end with a NUL.
  int LoadFromMemory(const char* pBuffer, size_t iLength,
                     std::set<std::string>* pIncludes = nullptr);

  // Clears the items and loads again the file last loaded. When it no longer loads, the object is
  // empty, but for what was merged before the failure, and has no file any more.
  void Refresh();

  // Removes the items and keeps the macros.
  void Clear();

  void Dump(int iFD) override;

  // All items, the values as they stand in the document.
  const std::multimap<std::string, std::string>& AllItems() const { return m_mapItems; }

  // The first value of a key, its references replaced; "" when the key is missing.
  //
  // The text stays valid until 100 later calls, of whatever object, have found their key; a
  // reference from one value to another key counts as a call.
  const char* StringValue(const char* pKey) const;
  // The same as a number (see StringToInt()); -1 when the key is missing or its value is empty.
  int64_t IntValue(const char* pKey) const;

  // All values of a key, none when it is missing. As numbers, an empty value is 0.
  std::vector<std::string> StringValues(const char* pKey) const;
  std::vector<int64_t> IntValues(const char* pKey) const;

  // The items whose key a POSIX extended expression finds something in, anywhere, their references
  // replaced. None when the expression does not compile.
  std::multimap<std::string, std::string> EnumValues(const char* pPattern) const;

  // The lookups with a key that is printed, and cut at 255 characters.
  const char* vStringValue(const char* pFormat, ...) const __attribute__((format(printf, 2, 3)));
  int64_t vIntValue(const char* pFormat, ...) const __attribute__((format(printf, 2, 3)));
  std::vector<std::string> vStringValues(const char* pFormat, ...) const
      __attribute__((format(printf, 2, 3)));
  std::vector<int64_t> vIntValues(const char* pFormat, ...) const
      __attribute__((format(printf, 2, 3)));

  // The text with its references replaced, the leftmost first, and what comes in searched again.
  // An environment variable that is not set and a key that is missing are replaced by nothing.
  std::string TranslateValue(const char* pText) const;

  // Macros stand before items of the same name, also when they are empty. A number is kept as its
  // decimal text; a macro that is missing reads as "".
  void SetMacroVariable(const char* pName, const char* pValue);
  void SetMacroVariable(const char* pName, uint64_t iValue);
  const char* GetMacroVariable(const char* pName) const;

 protected:
  // Append the items of the elements below a node, and of a node's attributes. The prefix is the
  // key of the node; null for the root.
  static void EnumElements(_xmlNode* pNode, const char* pPrefix,
                           std::multimap<std::string, std::string>& mapItems);
  static void EnumProperties(_xmlNode* pNode, const char* pPrefix,
                             std::multimap<std::string, std::string>& mapItems);

  // The value of an element; another kind of node ends the process.
  static std::string GetElementContent(_xmlNode* pCurrNode);

  // An include path as it is followed: cut at slashes and backslashes, each name after one "/".
  static std::string PreProcessPath(const std::string& strPath);

 private:
  struct Includes;

  // A hash table of the first item of each key. It refers to the items of one object, so a copy
  // begins empty, and what an object is moved from keeps nothing.
  class Index {
   public:
    typedef std::pair<const std::string, std::string> Item_t;

    Index() = default;
    Index(const Index& /*stOther*/) {}
    Index(Index&& stOther) noexcept { stOther.Clear(); }
    Index& operator=(const Index& /*stOther*/);
    Index& operator=(Index&& stOther) noexcept;
    ~Index() = default;

    // Forgets what it has and takes up these.
    void Make(const std::multimap<std::string, std::string>& mapItems);
    void Clear() noexcept;
    // How many items were taken up.
    size_t Items() const { return m_iItems; }
    const Item_t* Find(std::string_view svKey) const;

   private:
    struct Slot {
      size_t iHash;
      const Item_t* pItem;  // null: the slot is free
    };
    size_t Place(std::string_view svKey, size_t iHash) const;

    std::vector<Slot> m_vecSlots;  // a power of two, at least twice the items
    size_t m_iItems = 0;
  };

  int LoadFile(const char* pPath, Includes& stIncludes);
  bool Merge(const char* pBuffer, size_t iLength, Includes& stIncludes);
  int FollowAll(Includes& stIncludes);
  int Follow(const std::string& strPath, Includes& stIncludes);
  const std::string* FirstValue(const char* pKey) const;
  const char* MacroOrValue(const std::string& strName) const;

  std::string m_strFilename;  // last loaded by LoadFromFile(), "" after a failure
  std::multimap<std::string, std::string> m_mapItems;
  std::map<std::string, std::string> m_mapMacros;
  mutable Index m_stIndex;         // made when enough lookups have come
  mutable size_t m_iSearches = 0;  // in the map, meanwhile
};

#endif
