#ifndef ZELK_COMMON_MY_UUID_H
#define ZELK_COMMON_MY_UUID_H

#include <uuid/uuid.h>

#include <string>

#include "object.h"

// A UUID of 16 bytes together with its text of 36 characters, such as
// "f81d4fae-7dec-11d0-a765-00a0c91e6bf6". A value: copy it freely. New ones come from the kernel's
// random source, so that processes, forked ones too, do not make the same.
class MyUuid : public Object {
 public:
  // A new random one.
  MyUuid();

  // From 16 bytes, which are copied. The text is in lower case.
  MyUuid(unsigned char* pBytes);  // NOLINT(google-explicit-constructor): bytes are a UUID

  // From the first 36 characters at pText, which need not end there. iSize must be 36: anything
  // else ends the process. The text is kept as it is, in upper case for instance, also when it is
  // not a UUID: then the bytes are zero, and nothing tells.
  MyUuid(const char* pText, unsigned int iSize);

  MyUuid(const MyUuid& stOther) = default;
  MyUuid& operator=(const MyUuid& stOther) = default;
  // Takes over 16 bytes, with their text in lower case.
  MyUuid& operator=(const unsigned char (&szBytes)[16]);

  // True when the bytes differ, in either direction: a < b and b < a are true together.
  // Deliberate. It is no order; do not sort or key a container with it.
  bool operator<(const MyUuid& stOther) const;

  // 16 bytes, and 36 characters with a NUL; both live as long as the object.
  const unsigned char* Uuid() const { return m_szUuid; }
  const char* UuidString() const { return m_szUuidStr; }

  // The text of a new random one.
  static std::string NewUuid();

  void Dump(int iFD) override;

 protected:
  uuid_t m_szUuid;
  char m_szUuidStr[UUID_STR_LEN];
};

#endif
