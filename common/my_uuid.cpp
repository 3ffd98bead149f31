#include "my_uuid.h"

#include <stdio.h>

#include <cstring>

#include "internal/always_assert.h"

namespace {

const unsigned int TEXT_SIZE = 36;
static_assert(UUID_STR_LEN == TEXT_SIZE + 1 && sizeof(uuid_t) == 16, "text with its NUL, bytes");

}  // namespace

MyUuid::MyUuid() : m_szUuid(), m_szUuidStr() {
  uuid_generate(m_szUuid);
  uuid_unparse(m_szUuid, m_szUuidStr);
}

MyUuid::MyUuid(unsigned char* pBytes) : m_szUuid(), m_szUuidStr() {
  uuid_copy(m_szUuid, pBytes);
  uuid_unparse(m_szUuid, m_szUuidStr);
}

MyUuid::MyUuid(const char* pText, unsigned int iSize) : m_szUuid(), m_szUuidStr() {
  assert(iSize == 36);
  memcpy(m_szUuidStr, pText, TEXT_SIZE);
  uuid_parse(m_szUuidStr, m_szUuid);  // leaves the zeros when it can not
}

MyUuid& MyUuid::operator=(const unsigned char (&szBytes)[16]) {
  uuid_copy(m_szUuid, szBytes);
  uuid_unparse(m_szUuid, m_szUuidStr);
  return *this;
}

bool MyUuid::operator<(const MyUuid& stOther) const {
  return uuid_compare(m_szUuid, stOther.m_szUuid) != 0;
}

std::string MyUuid::NewUuid() {
  uuid_t szUuid;
  char szText[UUID_STR_LEN];
  uuid_generate(szUuid);
  uuid_unparse(szUuid, szText);
  return szText;
}

void MyUuid::Dump(int iFD) { dprintf(iFD, "m_szUuidStr=\"%s\"\n", m_szUuidStr); }
