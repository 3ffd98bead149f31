#ifndef ZELK_COMMON_INI_CONFIG_H
#define ZELK_COMMON_INI_CONFIG_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "object.h"

// An INI configuration: sections of keys, a key with one or more values, read from files or memory,
// changed in memory and written back.
//
// A line is one of these, tried in this order; other lines are ignored:
//   ; # or //     a comment, only at the start of a line
//   [section]     from the first "[" to the last "]", not trimmed; what follows is ignored
//   key = value   separated by any run of blanks, tabs and "="; so is "key value". A value is one
//                 word without "=", what follows it is ignored: "a = b c" gives "b"
//   key           an empty value
// Lines before the first header belong to the global section, named "". Nothing is quoted, escaped
// or continued. A line from a file keeps its line feed, and a key alone takes it up: "flag" gives
// the key "flag\n", an empty line the key "\n". Write "flag =" where that matters. Lines end at
// their first NUL, those of a file also after 2047 characters: the rest is a line of its own.
//
// Values may refer to others, and are expanded when they are looked up:
//   $(NAME)  the environment variable; nothing when it is not set
//   @(NAME)  the macro of that name, else GetValueByFullName(NAME)
// Curly brackets do as well. An expansion is searched for references again; one that leads back to
// itself never ends and must not be written.
//
// The key "include" of the global section names further files by a glob pattern (with "~"), which
// may hold references. Relative paths start at the working directory. Included items are merged as
// if they were loaded after the including text, each starting in the global section.
//
// Copies are independent of each other. Not locked: one thread at a time, in a process that loads
// or looks up in any IniConfig, since the compiled patterns are shared by all and lookups build an
// index. A lookup costs two searches in a map, or one in the index when many have come.
class IniConfig : public Object {
 public:
  typedef std::multimap<std::string, std::string> Items_t;  // equal keys in the order of insertion
  typedef std::map<std::string, Items_t> Contents_t;        // by section

  // Loading adds to what is there. Returns 0, or -1 when the file can not be opened, an included
  // file fails, or memory for the patterns is lacking; what was read until then stays.
  //
  // pIncludes collects the include texts (expanded, as written: "x" and "./x" are two) that were
  // followed and names those not to be followed; each load has its own when it is null. Each text
  // is followed once, so files may include each other.

  // Without pIncludes the path becomes that of Reload(), once the file is open. A directory can be
  // opened and is empty.
  int LoadFromFile(const char* pPath, std::set<std::string>* pIncludes = nullptr);
  // Lines end at a line feed and lose it; a carriage return stays.
  int LoadFromMemory(const std::string& strText, std::set<std::string>* pIncludes = nullptr);
  // A line may hold line feeds; they are characters like others.
  int LoadFromMemory(const std::vector<std::string>& vecLines,
                     std::set<std::string>* pIncludes = nullptr);

  // Replaces contents and macros by what the file of the last LoadFromFile() gives now; macros are
  // empty then. Returns 0, also when there was no such file, or -1 and nothing has changed.
  int Reload();
  // Deliberately does nothing: reloading is Reload().
  void Refresh();
  // Removes all sections; macros and the file name stay.
  void Clear();

  // The expanded value number iIndex (from 0) of a key, "" when there is none.
  const std::string GetValue(const std::string& strSection, const std::string& strKey,
                             int iIndex = 0) const;
  // The same for "section.key", split at the first dot; without a dot it is a key of the global
  // section.
  const std::string GetValueByFullName(const std::string& strName, int iIndex = 0) const;
  // How many values a key has.
  uint32_t Count(const std::string& strSection, const std::string& strKey) const;
  // The number at the start of a value: decimal, or hexadecimal after 0x. K, M, G or T behind it,
  // after blanks or tabs and in either case, scales by 2^10, 2^20, 2^30 or 2^40; any other text
  // is ignored. 0 for what is missing or no number; bits that the scale shifts out are lost.
  int64_t IntValue(const std::string& strSection, const std::string& strKey, int iIndex = 0) const;

  // The names in which a POSIX extended regular expression (see SimpleFilter) is found, in the
  // order of their bytes; none when it does not compile. A key is listed once for each value.
  std::vector<std::string> EnumSections(const std::string& strFilter) const;
  std::vector<std::string> EnumKeys(const std::string& strSection,
                                    const std::string& strFilter) const;

  // The text with all references expanded.
  const std::string TranslateValue(const std::string& strText) const;

  // Everything, values unexpanded. Valid until the object is changed.
  const Contents_t& AllItems() const { return m_mapContents; }

  // Adds a value behind those that the key has. Deliberately never replaces one: the first value
  // is still the one that GetValue() gives without an index.
  void SetValue(const std::string& strSection, const std::string& strKey,
                const std::string& strValue);
  void SetValue(const std::string& strSection, const std::string& strKey, const int64_t& iValue);

  // Writes all items, unexpanded, sections and keys in the order of their bytes; comments and
  // spacing of loaded files are lost. The file is overwritten in place. What fits the grammar
  // above is read back as it was, but for keys without a value. Returns 0, or -1 when the file
  // can not be opened; failures after that are deliberately not reported.
  int WriteToFile(const char* pPath);

  // Lists all items, a line each: section, key and unexpanded value in columns.
  void Dump(int iFD) override;

 protected:
  // Adds a value behind those that the key has; makes the section when it is new.
  void InsertItem(const std::string& strSection, const std::string& strKey,
                  const std::string& strValue);

  // For a derived class to fill.
  std::map<std::string, std::string>& Macros() { return m_mapMacros; }

 private:
  // Where the first value of every key is. It points into the contents, so a copy starts empty, and
  // what an object is moved from keeps nothing.
  struct Index_t {
    struct Slot_t {
      size_t iHash;
      const Contents_t::value_type* pSection;  // null when free
      Items_t::const_iterator itFirst;
    };
    Index_t() = default;
    Index_t(const Index_t& /*stOther*/) {}
    Index_t(Index_t&& stOther) noexcept { stOther.Clear(); }
    Index_t& operator=(const Index_t& /*stOther*/);
    Index_t& operator=(Index_t&& stOther) noexcept;
    ~Index_t() = default;
    void Clear() noexcept;
    void Build(const Contents_t& mapContents, size_t iItems);
    const Slot_t* Find(const std::string& strSection, const std::string& strKey) const;

    std::vector<Slot_t> vecSlots{};  // a power of two of them, or none: then it is not built
    size_t iSearches = 0;            // in the maps, since the last change
  };
  struct IncludeRun_t;

  Contents_t& Change();
  bool IsIndexed() const;
  const std::string* FindValue(const std::string& strSection, const std::string& strKey,
                               int iIndex) const;
  int LoadFile(const char* pPath, IncludeRun_t& stRun, bool bTop);
  int FollowIncludes(IncludeRun_t& stRun);
  int FollowIncludes(std::set<std::string>* pIncludes);

  Contents_t m_mapContents;  // changed by way of Change() only
  std::map<std::string, std::string> m_mapMacros;
  std::string m_strConfigFile;  // of the last LoadFromFile() without a set
  mutable Index_t m_stIndex;
};

#endif
