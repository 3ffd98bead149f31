#include "regex_util.h"

#include <regex.h>

#include <cstring>

#include "internal/checked_regex.h"

namespace {

const int SLOT_COUNT = 100;  // the whole match and 99 groups

class CompiledPattern {
 public:
  explicit CompiledPattern(const char* pPattern)
      : m_bValid(CompileRegex(&m_sRegex, pPattern, REG_EXTENDED) == 0) {}
  ~CompiledPattern() {
    if (m_bValid) {
      regfree(&m_sRegex);
    }
  }
  CompiledPattern(const CompiledPattern&) = delete;
  CompiledPattern& operator=(const CompiledPattern&) = delete;

  bool IsValid() const { return m_bValid; }

  // Without REG_NOTBOL: a caret shall match at pText wherever that lies in the whole text. The end
  // is told by the first slot, so that not every search measures the rest of a long text again.
  int Search(const char* pText, const char* pEnd, regmatch_t (&aSlots)[SLOT_COUNT]) const {
    aSlots[0] = {0, static_cast<regoff_t>(pEnd - pText)};
    return SearchRegex(m_sRegex, pText, SLOT_COUNT, aSlots, REG_STARTEND);
  }

 private:
  regex_t m_sRegex{};
  bool m_bValid;
};

// Appends the groups up to the first that took no part; false when there was none such.
bool AppendGroups(const char* pText, const regmatch_t (&aSlots)[SLOT_COUNT],
                  std::vector<std::string>& vecGroups) {
  for (int i = 1; i < SLOT_COUNT; ++i) {
    const regmatch_t& stSlot = aSlots[i];
    if (stSlot.rm_so == -1) {
      return true;
    }
    vecGroups.emplace_back(pText + stSlot.rm_so, pText + stSlot.rm_eo);
  }
  return false;
}

}  // namespace

int RegexUtil::MatchString(const char* pPattern, const char* pText,
                           std::vector<std::string>& vecGroups) {
  const CompiledPattern stPattern(pPattern);
  if (!stPattern.IsValid()) {
    return -1;
  }
  const char* const pEnd = pText + strlen(pText);
  while (pText < pEnd) {
    regmatch_t aSlots[SLOT_COUNT];
    const int iResult = stPattern.Search(pText, pEnd, aSlots);
    if (iResult != 0) {
      return iResult == REG_NOMATCH ? 0 : -1;
    }
    if (!AppendGroups(pText, aSlots, vecGroups) || aSlots[0].rm_eo == 0) {
      return 0;  // the search would find the same match again without end
    }
    pText += aSlots[0].rm_eo;
  }
  return 0;
}

void RegexUtil::Dump(int /*iFD*/) {}
