#include "class_factory.h"

ClassFactory& ClassFactory::Instance() {
  static ClassFactory stFactory;
  return stFactory;
}

bool ClassFactory::AddObject(const char* pId, ObjectCreate_t pCreate) {
  return m_mapFactory.emplace(pId, pCreate).second;
}

bool ClassFactory::AddObject(int iId, ObjectCreate_t pCreate) {
  return AddObject(std::to_string(iId).c_str(), pCreate);
}

Object* ClassFactory::NewObject(const char* pId) {
  const auto it = m_mapFactory.find(pId);
  return it == m_mapFactory.end() ? nullptr : it->second();
}

Object* ClassFactory::NewObject(int iId) { return NewObject(std::to_string(iId).c_str()); }

const std::map<std::string, ObjectCreate_t>& ClassFactory::ObjectMap() const {
  return m_mapFactory;
}

void ClassFactory::Dump(int /*iFD*/) {}
