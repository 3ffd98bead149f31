#include "simple_filter.h"

#include <cstdio>

#include "internal/checked_regex.h"

SimpleFilter::~SimpleFilter() { Clear(); }

void SimpleFilter::Clear() {
  if (m_bInitFlag) {
    regfree(&m_sRegex);
    m_bInitFlag = false;
  }
}

int SimpleFilter::SetRegular(const char* pPattern) {
  if (pPattern == nullptr) {
    Clear();
    return 0;  // m_strRegular deliberately keeps the earlier text
  }
  m_strRegular = pPattern;  // may throw: then all stays
  Clear();
  m_bInitFlag = CompileRegex(&m_sRegex, pPattern, REG_EXTENDED | REG_NOSUB) == 0;
  return m_bInitFlag ? 0 : -1;
}

bool SimpleFilter::DoFilter(const char* pName) {
  return !m_bInitFlag || SearchRegex(m_sRegex, pName, 0, nullptr, 0) != REG_NOMATCH;
}

void SimpleFilter::Dump(int iFD) {
  dprintf(iFD, "m_strRegular.c_str()=\"%s\"\n", m_strRegular.c_str());
}
