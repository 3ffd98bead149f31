#ifndef ZELK_COMMON_CONFIG_GENERATOR_H
#define ZELK_COMMON_CONFIG_GENERATOR_H

#include <libxml/tree.h>
#include <libxml/xpath.h>

#include <map>
#include <string>

#include "object.h"

// Writes XML configuration in the shape that Config reads: pairs of a key and a value become a tree
// of elements, and Config gives the values back under the same keys.
//
// A key is a path of element names, separated by "." or "/". Pairs whose keys begin alike share
// elements; sibling elements of one name can not be made. Values are XML character data: "<" and
// ">" are written as entities, but "&" must begin a reference, so write "&amp;" for it.
//
// Owns the libxml2 document of the last generation, so it can not be copied. Not locked. Object's
// Dump() writes nothing.
class ConfigGenerator : public Object {
 public:
  ConfigGenerator() = default;
  ~ConfigGenerator() override;
  ConfigGenerator(const ConfigGenerator&) = delete;
  ConfigGenerator& operator=(const ConfigGenerator&) = delete;

  // What the document begins with: "1.0", "utf8" and "framework" unless set. The encoding is that
  // of the text generated, under this very name.
  void SetVersion(const std::string& strVersion);
  void SetVersion(const char* pVersion);
  void SetEncoding(const std::string& strEncoding);
  void SetEncoding(const char* pEncoding);
  void SetRootName(const std::string& strRootName);
  void SetRootName(const char* pRootName);

  // Adds a pair. Generation applies the pairs in the order of their keys, and those of one key as
  // they were added, so the value added last is the one that stays. An element's text replaces the
  // children that it has by then: give the element "a" as "a", which comes before "a.b".
  void SetKeyValue(const std::string& strKey, const std::string& strValue);
  void SetKeyValue(const char* pKey, const char* pValue);

  // Builds the document anew from all pairs and returns its text, indented. "" when it can not be
  // built, also for lack of memory, or for an encoding that libxml2 does not know. The text of an
  // encoding such as UTF-16 holds NULs. Each name of a key costs a search through the children of
  // one element.
  std::string GenerateContent();

  // Finds or makes the element at a path below the root of the document last generated, and
  // replaces all it holds by a text. A path without names is the root itself. 0, or -1 without a
  // document or when an element can not be made.
  int SetNodeContent(const std::string& strPath, const std::string& strContent);

  // What an XPath expression selects, starting at a node of the document; null for anything but a
  // set of at least one node. The caller frees it with xmlXPathFreeObject().
  xmlXPathObjectPtr GetNodeSet(const std::string& strExpression, xmlNodePtr pNode);

  // Frees the document and its context; the pairs stay.
  void ContextClear();
  // Removes the pairs; the document stays.
  void Clear();

  void Dump(int iFD) override;

 private:
  bool NewDocument();
  xmlNodePtr FindOrAdd(xmlNodePtr pParent, const std::string& strName);

  std::string m_strVersion = "1.0";
  std::string m_strRootName = "framework";
  std::string m_strEncoding = "utf8";
  std::multimap<std::string, std::string> m_mapKeyValue;
  xmlDocPtr m_pDoc = nullptr;               // of the last generation
  xmlXPathContextPtr m_pContext = nullptr;  // bound to m_pDoc
};

#endif
