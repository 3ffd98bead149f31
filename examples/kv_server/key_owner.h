#ifndef KV_SERVER_KEY_OWNER_H
#define KV_SERVER_KEY_OWNER_H

#include <cstddef>
#include <cstdint>
#include <string_view>

// What decides who owns a key, for any number of workers. Tables and mirrors outlive the server, so
// this is part of their format: with another hash, keys would be looked for where they are not. It
// must also have nothing in common with the hash by which a table picks its buckets, or each worker
// would use only some of them.
inline uint32_t OwnerHash(std::string_view strKey) {
  const uint64_t iFactor = 131;
  const uint64_t iMixer = 0x9e3779b97f4a7c15;
  uint64_t iHash = 0;
  for (const char c : strKey) {
    iHash = iHash * iFactor + static_cast<unsigned char>(c);
  }
  iHash = (iHash ^ (iHash >> 32)) * iMixer;
  return static_cast<uint32_t>(iHash >> 32);
}

// Which of the workers owns a key.
inline int OwnerOf(std::string_view strKey, size_t iWorkers) {
  return static_cast<int>(OwnerHash(strKey) % iWorkers);
}

#endif
