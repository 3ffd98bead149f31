#include "key_store.h"

const std::string& KeyStore::Lookup(std::string_view strKey) {
  m_strKey.assign(strKey);
  return m_strKey;
}

const std::string* KeyStore::Get(std::string_view strKey) {
  const auto it = m_mapValues.find(Lookup(strKey));
  return it == m_mapValues.end() ? nullptr : &it->second;
}

void KeyStore::Set(std::string_view strKey, std::string_view strValue) {
  m_mapValues.try_emplace(Lookup(strKey)).first->second.assign(strValue);
}

bool KeyStore::Remove(std::string_view strKey) { return m_mapValues.erase(Lookup(strKey)) > 0; }

void KeyStore::Clear() { m_mapValues.clear(); }
