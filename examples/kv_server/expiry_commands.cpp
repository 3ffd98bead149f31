// Commands on expiry times.

#include "command_runner.h"
#include "expiry.h"
#include "reply.h"

namespace {

const int64_t NO_KEY = -2;
const int64_t NO_EXPIRY = -1;

// The words behind the time of EXPIRE.
struct ExpireOptions_t {
  bool bOnlyNew = false;       // nx: only a key that never expires
  bool bOnlyExisting = false;  // xx: only one that does
  bool bOnlyLater = false;     // gt
  bool bOnlyEarlier = false;   // lt
};

// Empty, or what is wrong.
std::string ParseExpireOptions(const Arguments_t& vecArguments, ExpireOptions_t& st) {
  for (size_t i = 2; i < vecArguments.size(); ++i) {
    const std::string_view strWord = vecArguments[i];
    const bool bNew = EqualsIgnoringCase(strWord, "nx");
    const bool bExisting = EqualsIgnoringCase(strWord, "xx");
    const bool bLater = EqualsIgnoringCase(strWord, "gt");
    const bool bEarlier = EqualsIgnoringCase(strWord, "lt");
    if (!bNew && !bExisting && !bLater && !bEarlier) {
      return "ERR Unsupported option " + std::string(ShownText(strWord, strWord.size()));
    }
    st.bOnlyNew |= bNew;
    st.bOnlyExisting |= bExisting;
    st.bOnlyLater |= bLater;
    st.bOnlyEarlier |= bEarlier;
  }
  if (st.bOnlyNew && (st.bOnlyExisting || st.bOnlyLater || st.bOnlyEarlier)) {
    return "ERR NX and XX, GT or LT options at the same time are not compatible";
  }
  if (st.bOnlyLater && st.bOnlyEarlier) {
    return "ERR GT and LT options at the same time are not compatible";
  }
  return "";
}

// Never is later than any time.
bool Allows(const ExpireOptions_t& st, int64_t iOld, int64_t iNew) {
  const bool bNever = iOld == KeyStore::NEVER;
  return (!st.bOnlyNew || bNever) && (!st.bOnlyExisting || !bNever) &&
         (!st.bOnlyLater || (!bNever && iNew > iOld)) &&
         (!st.bOnlyEarlier || bNever || iNew < iOld);
}

}  // namespace

void CommandRunner::Expire(const Arguments_t& vecArguments, std::string& strOut) {
  ExpireIn("expire", SECOND, vecArguments, strOut);
}

void CommandRunner::PExpire(const Arguments_t& vecArguments, std::string& strOut) {
  ExpireIn("pexpire", 1, vecArguments, strOut);
}

// A time that has passed deletes the key at once.
void CommandRunner::ExpireIn(const char* pCommand, int64_t iUnit, const Arguments_t& vecArguments,
                             std::string& strOut) {
  ExpireOptions_t stOptions;
  int64_t iAmount = 0;
  int64_t iExpireAt = 0;
  const std::string strError = ParseExpireOptions(vecArguments, stOptions);
  if (!strError.empty()) {
    return AppendError(strOut, strError);
  }
  if (!ParseInteger(vecArguments[1], iAmount)) {
    return AppendError(strOut, NOT_AN_INTEGER);
  }
  if (!AddTime(m_stStore.Now(), iAmount, iUnit, iExpireAt)) {
    return AppendError(strOut, InvalidExpireTime(pCommand));
  }
  const auto stValue = m_stStore.Get(vecArguments[0]);
  if (!stValue || !Allows(stOptions, stValue->iExpireAt, iExpireAt)) {
    return AppendInteger(strOut, 0);
  }
  if (iExpireAt <= m_stStore.Now()) {
    m_stStore.Remove(vecArguments[0]);
  } else {
    m_stStore.SetExpiry(vecArguments[0], iExpireAt);
  }
  AppendInteger(strOut, 1);
}

int64_t CommandRunner::TimeToLive(std::string_view strKey) {
  const auto stValue = m_stStore.Get(strKey);
  if (!stValue) {
    return NO_KEY;
  }
  return stValue->iExpireAt == KeyStore::NEVER ? NO_EXPIRY : stValue->iExpireAt - m_stStore.Now();
}

void CommandRunner::Ttl(const Arguments_t& vecArguments, std::string& strOut) {
  const int64_t iLeft = TimeToLive(vecArguments[0]);
  AppendInteger(strOut, iLeft < 0 ? iLeft : iLeft / SECOND + (iLeft % SECOND >= SECOND / 2));
}

void CommandRunner::PTtl(const Arguments_t& vecArguments, std::string& strOut) {
  AppendInteger(strOut, TimeToLive(vecArguments[0]));
}

void CommandRunner::Persist(const Arguments_t& vecArguments, std::string& strOut) {
  const bool bExpires = TimeToLive(vecArguments[0]) >= 0;
  if (bExpires) {
    m_stStore.SetExpiry(vecArguments[0], KeyStore::NEVER);
  }
  AppendInteger(strOut, bExpires ? 1 : 0);
}
