#ifndef KV_SERVER_KEY_OWNER_H
#define KV_SERVER_KEY_OWNER_H

#include <cstddef>
#include <cstdint>
#include <string_view>

// Which of the workers owns a key. Tables outlive the server, so this is part of their format: with
// another hash, or another number of workers, keys would be looked for where they are not. It must
// also have nothing in common with the hash by which a table picks its buckets, or each worker
// would use only some of them.
inline int OwnerOf(std::string_view strKey, size_t iWorkers) {
  const uint64_t iFactor = 131;
  const uint64_t iMixer = 0x9e3779b97f4a7c15;
  uint64_t iHash = 0;
  for (const char c : strKey) {
    iHash = iHash * iFactor + static_cast<unsigned char>(c);
  }
  iHash = (iHash ^ (iHash >> 32)) * iMixer;
  return static_cast<int>((iHash >> 32) % iWorkers);
}

#endif
