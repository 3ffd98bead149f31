#include "config_generator.h"

#include <memory>
#include <vector>

#include "internal/xml_memory_watch.h"
#include "string_util.h"

namespace {

struct FreeAttribute {
  void operator()(xmlAttrPtr pAttribute) const { xmlFreeProp(pAttribute); }
};

struct FreeResult {
  void operator()(xmlXPathObjectPtr pResult) const { xmlXPathFreeObject(pResult); }
};
using Result = std::unique_ptr<xmlXPathObject, FreeResult>;

struct FreeText {
  void operator()(xmlChar* pText) const { xmlFree(pText); }
};

const xmlChar* Text(const std::string& strText) {
  return reinterpret_cast<const xmlChar*>(strText.c_str());
}

// The document's text; its length counts, since some encodings hold NULs.
std::string Serialise(xmlDocPtr pDoc, const std::string& strEncoding) {
  xmlChar* pText = nullptr;
  int iLength = 0;
  xmlDocDumpFormatMemoryEnc(pDoc, &pText, &iLength, strEncoding.c_str(), 1);
  const std::unique_ptr<xmlChar, FreeText> pOwner(pText);
  if (pText == nullptr) {
    return "";
  }
  return std::string(reinterpret_cast<const char*>(pText), static_cast<size_t>(iLength));
}

}  // namespace

ConfigGenerator::~ConfigGenerator() { ContextClear(); }

void ConfigGenerator::SetVersion(const std::string& strVersion) { m_strVersion = strVersion; }

void ConfigGenerator::SetVersion(const char* pVersion) { m_strVersion = pVersion; }

void ConfigGenerator::SetEncoding(const std::string& strEncoding) { m_strEncoding = strEncoding; }

void ConfigGenerator::SetEncoding(const char* pEncoding) { m_strEncoding = pEncoding; }

void ConfigGenerator::SetRootName(const std::string& strRootName) { m_strRootName = strRootName; }

void ConfigGenerator::SetRootName(const char* pRootName) { m_strRootName = pRootName; }

void ConfigGenerator::SetKeyValue(const std::string& strKey, const std::string& strValue) {
  m_mapKeyValue.emplace(strKey, strValue);
}

void ConfigGenerator::SetKeyValue(const char* pKey, const char* pValue) {
  m_mapKeyValue.emplace(pKey, pValue);
}

// The property tells the document's encoding to nobody: it is no part of the tree.
bool ConfigGenerator::NewDocument() {
  ContextClear();
  m_pDoc = xmlNewDoc(Text(m_strVersion));
  if (m_pDoc == nullptr) {
    return false;
  }
  m_pContext = xmlXPathNewContext(m_pDoc);
  if (m_pContext == nullptr) {
    return false;
  }
  const std::unique_ptr<xmlAttr, FreeAttribute> pEncoding(
      xmlNewDocProp(m_pDoc, reinterpret_cast<const xmlChar*>("encoding"), Text(m_strEncoding)));
  if (pEncoding == nullptr) {
    return false;
  }
  xmlNodePtr pRoot = xmlNewNode(nullptr, Text(m_strRootName));
  if (pRoot == nullptr) {
    return false;
  }
  xmlDocSetRootElement(m_pDoc, pRoot);
  return !XmlMemoryWatch::WasLacking();
}

std::string ConfigGenerator::GenerateContent() {
  const XmlMemoryWatch stMemory;
  if (!NewDocument()) {
    return "";
  }
  for (const auto& [strKey, strValue] : m_mapKeyValue) {
    if (SetNodeContent(strKey, strValue) != 0) {
      return "";
    }
  }
  std::string strText = Serialise(m_pDoc, m_strEncoding);
  if (XmlMemoryWatch::WasLacking()) {
    return "";
  }
  return strText;
}

int ConfigGenerator::SetNodeContent(const std::string& strPath, const std::string& strContent) {
  const XmlMemoryWatch stMemory;
  std::vector<std::string> vecNames;
  StringSplit(strPath, "/.", vecNames);
  xmlNodePtr pNode = xmlDocGetRootElement(m_pDoc);
  for (const std::string& strName : vecNames) {
    pNode = pNode != nullptr ? FindOrAdd(pNode, strName) : nullptr;
  }
  if (pNode == nullptr) {
    return -1;
  }
  xmlNodeSetContent(pNode, Text(strContent));
  return XmlMemoryWatch::WasLacking() ? -1 : 0;
}

// The first child that the name, as an XPath expression, selects; a new last child without one.
xmlNodePtr ConfigGenerator::FindOrAdd(xmlNodePtr pParent, const std::string& strName) {
  const Result pFound(GetNodeSet("./" + strName, pParent));
  if (pFound != nullptr) {
    xmlNodePtr pNode = pFound->nodesetval->nodeTab[0];
    return pNode->type != XML_NAMESPACE_DECL ? pNode : nullptr;  // that one is the result's own
  }
  if (XmlMemoryWatch::WasLacking()) {
    return nullptr;
  }
  xmlNodePtr pNew = xmlNewNode(nullptr, Text(strName));
  return pNew != nullptr ? xmlAddChild(pParent, pNew) : nullptr;  // which takes every element
}

xmlXPathObjectPtr ConfigGenerator::GetNodeSet(const std::string& strExpression, xmlNodePtr pNode) {
  if (m_pContext == nullptr) {
    return nullptr;
  }
  m_pContext->node = pNode;
  Result pResult(xmlXPathEvalExpression(Text(strExpression), m_pContext));
  // A number, a text or a truth value has no set.
  if (pResult == nullptr || xmlXPathNodeSetGetLength(pResult->nodesetval) == 0) {
    return nullptr;
  }
  return pResult.release();
}

void ConfigGenerator::ContextClear() {
  xmlXPathFreeContext(m_pContext);
  m_pContext = nullptr;
  xmlFreeDoc(m_pDoc);
  m_pDoc = nullptr;
}

void ConfigGenerator::Clear() { m_mapKeyValue.clear(); }

void ConfigGenerator::Dump(int /*iFD*/) {}
