#ifndef ZELK_TESTS_INI_REFERENCE_H
#define ZELK_TESTS_INI_REFERENCE_H

#include <regex.h>

#include <map>
#include <set>
#include <string>
#include <vector>

// The grammar of INI files as the regular expressions say it, with nothing done for speed: what
// IniConfig is compared with. The locale is that of the constructor.
class IniReference {
 public:
  typedef std::map<std::string, std::multimap<std::string, std::string>> Contents_t;

  IniReference();
  ~IniReference();
  IniReference(const IniReference&) = delete;
  IniReference& operator=(const IniReference&) = delete;

  // Adds to the contents, directives included; 0 or -1.
  int LoadFromFile(const std::string& strPath);
  // Adds the lines and follows nothing.
  void Parse(const std::vector<std::string>& vecLines);

  std::string Translate(std::string strText) const;
  // A single step of it; false when there is no reference.
  bool TranslateOnce(std::string& strText) const;

  const Contents_t& Contents() const { return m_mapContents; }
  void Set(const Contents_t& mapContents) { m_mapContents = mapContents; }
  void Clear() { m_mapContents.clear(); }

 private:
  typedef std::set<std::string> Texts_t;

  int Load(const std::string& strPath, Texts_t& setFollowed);
  std::string Directive(size_t iIndex) const;
  std::string Value(const std::string& strName) const;

  Contents_t m_mapContents;
  regex_t m_aLines[4];
  regex_t m_stReference;
};

#endif
