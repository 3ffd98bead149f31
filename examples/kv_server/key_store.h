#ifndef KV_SERVER_KEY_STORE_H
#define KV_SERVER_KEY_STORE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

// The keys of one worker and their values. What Get() returns is valid until the next change.
class KeyStore {
 public:
  // Null when there is no such key.
  const std::string* Get(std::string_view strKey);
  void Set(std::string_view strKey, std::string_view strValue);
  bool Remove(std::string_view strKey);
  void Clear();
  size_t Count() const { return m_mapValues.size(); }

 private:
  const std::string& Lookup(std::string_view strKey);

  std::unordered_map<std::string, std::string> m_mapValues;
  std::string m_strKey;  // room for the key that is being looked up
};

#endif
