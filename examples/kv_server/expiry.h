#ifndef KV_SERVER_EXPIRY_H
#define KV_SERVER_EXPIRY_H

#include <cstdint>
#include <string>

const int64_t SECOND = 1000;  // milliseconds

// The time iAmount units of iUnit milliseconds after iBase, all in milliseconds; false when it is
// beyond 64 bits.
inline bool AddTime(int64_t iBase, int64_t iAmount, int64_t iUnit, int64_t& iTime) {
  return !__builtin_mul_overflow(iAmount, iUnit, &iTime) &&
         !__builtin_add_overflow(iTime, iBase, &iTime);
}

inline std::string InvalidExpireTime(const char* pCommand) {
  return std::string("ERR invalid expire time in '") + pCommand + "' command";
}

#endif
