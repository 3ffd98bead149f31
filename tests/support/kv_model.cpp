#include "kv_model.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace {

const size_t SHOWN = 60;  // bytes of a reply in the text of a fault
const char NOT_AN_INTEGER[] = "-ERR value is not an integer or out of range\r\n";

// What a server that runs a request in a certain state would reply, and leave.
struct Outcome_t {
  std::string strReply;  // unless it is one of the numbers from iLeast to iMost
  KeyState_t stAfter;
  int64_t iLeast = 0;
  int64_t iMost = -1;
};

struct Run_t {
  const Request_t& vecRequest;
  const KeyState_t& stState;
  Moments_t stMoments;  // the server's clock was not before and not after

  const std::string& Argument(size_t i) const { return vecRequest[i]; }
  bool Exists() const { return stState.pValue != nullptr; }
};

bool StartsWith(const std::string& strText, const char* pStart) {
  return strText.rfind(pStart, 0) == 0;
}

std::string BulkReply(const std::string& strValue) {
  return "$" + std::to_string(strValue.size()) + "\r\n" + strValue + "\r\n";
}

std::string NumberReply(int64_t iNumber) { return ":" + std::to_string(iNumber) + "\r\n"; }

std::string ValueReply(const Run_t& stRun) {
  return stRun.Exists() ? BulkReply(*stRun.stState.pValue) : "$-1\r\n";
}

KeyState_t Holding(const std::string& strValue) {
  return {std::make_shared<const std::string>(strValue)};
}

void ExpireIn(const Run_t& stRun, int64_t iMilliseconds, KeyState_t& stState) {
  stState.iExpiresFrom = stRun.stMoments.iSent + iMilliseconds;
  stState.iExpiresBy = stRun.stMoments.iDone + iMilliseconds;
}

Outcome_t Get(const Run_t& stRun) { return {ValueReply(stRun), stRun.stState}; }

Outcome_t Set(const Run_t& stRun) {
  KeyState_t stAfter = Holding(stRun.Argument(2));
  bool bSet = true;
  bool bOld = false;
  for (size_t i = 3; i < stRun.vecRequest.size(); ++i) {
    const std::string& strOption = stRun.Argument(i);
    if (strOption == "NX" || strOption == "XX") {
      bSet = stRun.Exists() == (strOption == "XX");
    } else if (strOption == "GET") {
      bOld = true;
    } else if (strOption == "KEEPTTL") {
      stAfter.iExpiresFrom = stRun.stState.iExpiresFrom;
      stAfter.iExpiresBy = stRun.stState.iExpiresBy;
    } else if (strOption == "EX" || strOption == "PX") {
      ExpireIn(stRun, atoll(stRun.Argument(++i).c_str()) * (strOption == "EX" ? 1000 : 1), stAfter);
    } else {
      throw std::logic_error("the model does not know the option " + strOption);
    }
  }
  const std::string strReply = bOld ? ValueReply(stRun) : bSet ? "+OK\r\n" : "$-1\r\n";
  return {strReply, bSet ? stAfter : stRun.stState};
}

Outcome_t SetNx(const Run_t& stRun) {
  return stRun.Exists() ? Outcome_t{":0\r\n", stRun.stState}
                        : Outcome_t{":1\r\n", Holding(stRun.Argument(2))};
}

Outcome_t SetEx(const Run_t& stRun) {
  KeyState_t stAfter = Holding(stRun.Argument(3));
  ExpireIn(stRun, atoll(stRun.Argument(2).c_str()) * 1000, stAfter);
  return {"+OK\r\n", stAfter};
}

Outcome_t GetSet(const Run_t& stRun) { return {ValueReply(stRun), Holding(stRun.Argument(2))}; }

Outcome_t GetDel(const Run_t& stRun) { return {ValueReply(stRun), {}}; }

Outcome_t Append(const Run_t& stRun) {
  const std::string strOld = stRun.Exists() ? *stRun.stState.pValue : "";
  KeyState_t stAfter = stRun.stState;
  stAfter.pValue = std::make_shared<const std::string>(strOld + stRun.Argument(2));
  return {NumberReply(static_cast<int64_t>(stAfter.pValue->size())), stAfter};
}

Outcome_t StrLen(const Run_t& stRun) {
  const size_t iSize = stRun.Exists() ? stRun.stState.pValue->size() : 0;
  return {NumberReply(static_cast<int64_t>(iSize)), stRun.stState};
}

bool ParseNumber(const std::string& strText, int64_t& iNumber) {
  const char* pEnd = strText.data() + strText.size();
  const auto stResult = std::from_chars(strText.data(), pEnd, iNumber);
  return stResult.ec == std::errc() && stResult.ptr == pEnd && std::to_string(iNumber) == strText;
}

Outcome_t Add(const Run_t& stRun) {
  int64_t iValue = 0;
  int64_t iDelta = 1;
  if (stRun.vecRequest.size() == 3 && !ParseNumber(stRun.Argument(2), iDelta)) {
    return {NOT_AN_INTEGER, stRun.stState};
  }
  if (stRun.Exists() && !ParseNumber(*stRun.stState.pValue, iValue)) {
    return {NOT_AN_INTEGER, stRun.stState};
  }
  iValue += StartsWith(stRun.Argument(0), "DECR") ? -iDelta : iDelta;
  KeyState_t stAfter = stRun.stState;
  stAfter.pValue = std::make_shared<const std::string>(std::to_string(iValue));
  return {NumberReply(iValue), stAfter};
}

Outcome_t Exists(const Run_t& stRun) { return {NumberReply(stRun.Exists()), stRun.stState}; }

Outcome_t Del(const Run_t& stRun) { return {NumberReply(stRun.Exists()), {}}; }

Outcome_t Type(const Run_t& stRun) {
  return {stRun.Exists() ? "+string\r\n" : "+none\r\n", stRun.stState};
}

Outcome_t Expire(const Run_t& stRun) {
  KeyState_t stAfter = stRun.stState;
  if (stRun.Exists()) {
    ExpireIn(stRun, atoll(stRun.Argument(2).c_str()) * (stRun.Argument(0) == "EXPIRE" ? 1000 : 1),
             stAfter);
  }
  return {NumberReply(stRun.Exists()), stAfter};
}

Outcome_t Persist(const Run_t& stRun) {
  const bool bHad = stRun.Exists() && stRun.stState.iExpiresFrom != KeyState_t::NEVER;
  KeyState_t stAfter = stRun.stState;
  stAfter.iExpiresFrom = stAfter.iExpiresBy = KeyState_t::NEVER;
  return {NumberReply(bHad), stAfter};
}

Outcome_t Ttl(const Run_t& stRun) {
  const KeyState_t& stState = stRun.stState;
  if (!stRun.Exists() || stState.iExpiresFrom == KeyState_t::NEVER) {
    return {stRun.Exists() ? ":-1\r\n" : ":-2\r\n", stState};
  }
  const int64_t iUnit = stRun.Argument(0) == "TTL" ? 1000 : 1;
  const int64_t iLeast = std::max<int64_t>(stState.iExpiresFrom - stRun.stMoments.iDone, 0);
  const int64_t iMost = std::max<int64_t>(stState.iExpiresBy - stRun.stMoments.iSent, 0);
  return {"", stState, iLeast / iUnit, iMost / iUnit + 1};  // seconds are rounded
}

typedef Outcome_t (*Command_t)(const Run_t&);

Command_t CommandOf(const std::string& strName) {
  static const std::map<std::string, Command_t> mapCommands{
      {"GET", Get},         {"SET", Set},        {"SETNX", SetNx},   {"SETEX", SetEx},
      {"GETSET", GetSet},   {"GETDEL", GetDel},  {"APPEND", Append}, {"STRLEN", StrLen},
      {"INCR", Add},        {"DECR", Add},       {"INCRBY", Add},    {"DECRBY", Add},
      {"EXISTS", Exists},   {"DEL", Del},        {"UNLINK", Del},    {"TYPE", Type},
      {"EXPIRE", Expire},   {"PEXPIRE", Expire}, {"TTL", Ttl},       {"PTTL", Ttl},
      {"PERSIST", Persist},
  };
  const auto it = mapCommands.find(strName);
  return it != mapCommands.end() ? it->second
                                 : throw std::logic_error("the model does not know " + strName);
}

bool Explains(const Outcome_t& stOutcome, const std::string& strReply) {
  if (stOutcome.iMost < stOutcome.iLeast) {
    return stOutcome.strReply == strReply;
  }
  const int64_t iNumber = strReply[0] == ':' ? atoll(strReply.c_str() + 1) : -1;
  return iNumber >= stOutcome.iLeast && iNumber <= stOutcome.iMost;
}

bool IsSame(const KeyState_t& stLeft, const KeyState_t& stRight) {
  const bool bBoth = stLeft.pValue != nullptr && stRight.pValue != nullptr;
  return stLeft.iExpiresFrom == stRight.iExpiresFrom && stLeft.iExpiresBy == stRight.iExpiresBy &&
         (stLeft.pValue == stRight.pValue || (bBoth && *stLeft.pValue == *stRight.pValue));
}

void AddState(const KeyState_t& stState, std::vector<KeyState_t>& vecStates) {
  const bool bNew = std::none_of(vecStates.begin(), vecStates.end(),
                                 [&](const KeyState_t& st) { return IsSame(st, stState); });
  if (bNew) {
    vecStates.push_back(stState);
  }
}

std::string Shown(const std::string& strReply) {
  std::string strShown = strReply.substr(0, SHOWN);
  std::replace(strShown.begin(), strShown.end(), '\r', ' ');
  std::replace(strShown.begin(), strShown.end(), '\n', ' ');
  return "\"" + strShown + (strReply.size() > SHOWN ? "...\"" : "\"") + " (" +
         std::to_string(strReply.size()) + " bytes)";
}

std::string Describe(const KeyState_t& stState) {
  const bool bExpires = stState.iExpiresFrom != KeyState_t::NEVER;
  return stState.pValue == nullptr
             ? "no key"
             : Shown(*stState.pValue) + (bExpires
                                             ? " from " + std::to_string(stState.iExpiresFrom) +
                                                   " to " + std::to_string(stState.iExpiresBy)
                                             : "");
}

// The elements of an array of bulk strings, each with all its bytes.
std::vector<std::string> Elements(const std::string& strReply) {
  std::vector<std::string> vecElements;
  for (size_t iAt = strReply.find("\r\n") + 2; iAt < strReply.size();) {
    const int64_t iSize = atoll(strReply.c_str() + iAt + 1);
    const size_t iLine = strReply.find("\r\n", iAt) + 2 - iAt;
    const size_t iAll = iLine + (iSize < 0 ? 0 : static_cast<size_t>(iSize) + 2);
    vecElements.push_back(strReply.substr(iAt, iAll));
    iAt += iAll;
  }
  return vecElements;
}

// A command over several keys as one for each of them.
std::vector<Request_t> PartsOf(const Request_t& vecRequest) {
  std::vector<Request_t> vecParts;
  const bool bMSet = vecRequest[0] == "MSET";
  for (size_t i = 1; i < vecRequest.size(); i += bMSet ? 2 : 1) {
    bMSet ? vecParts.push_back({"SET", vecRequest[i], vecRequest[i + 1]})
          : vecParts.push_back({vecRequest[0] == "MGET" ? "GET" : vecRequest[0], vecRequest[i]});
  }
  return vecParts;
}

bool IsOverKeys(const Request_t& vecRequest) {
  const std::string& strName = vecRequest[0];
  return strName == "MGET" || strName == "MSET" || strName == "DEL" || strName == "UNLINK" ||
         strName == "EXISTS";
}

}  // namespace

ReplyKind_t KindOf(const std::string& strReply) {
  if (strReply.empty() || StartsWith(strReply, "-ERR worker restarted,") ||
      StartsWith(strReply, "-ERR workers did not answer in time")) {
    return REPLY_OPEN;
  }
  return StartsWith(strReply, "-OOM ") || StartsWith(strReply, "-MISCONF ") ? REPLY_REFUSED
                                                                            : REPLY_ANSWER;
}

std::string KvModel::Take(const Request_t& vecRequest, const std::string& strReply,
                          const Moments_t& stMoments) {
  const std::vector<Request_t> vecParts =
      IsOverKeys(vecRequest) ? PartsOf(vecRequest) : std::vector<Request_t>{vecRequest};
  const ReplyKind_t eKind = KindOf(strReply);
  if (eKind == REPLY_OPEN || (eKind == REPLY_REFUSED && vecParts.size() > 1)) {
    for (const Request_t& vecPart : vecParts) {
      TakeUnanswered(vecPart, stMoments);
    }
    return "";
  }
  if (eKind == REPLY_REFUSED) {
    return "";
  }
  if (vecRequest[0] == "MGET" && strReply[0] == '*') {
    return TakeParts(vecParts, Elements(strReply), stMoments);
  }
  if (vecRequest[0] == "MSET") {
    return TakeParts(vecParts, std::vector<std::string>(vecParts.size(), strReply), stMoments);
  }
  return vecParts.size() > 1 ? TakeCount(vecRequest, strReply, stMoments)
                             : TakeOne(vecParts[0], strReply, stMoments);
}

std::string KvModel::TakeOne(const Request_t& vecRequest, const std::string& strReply,
                             const Moments_t& stMoments) {
  const std::string& strKey = vecRequest[1];
  if (StatesOf(strKey).empty()) {
    return "";  // after a fault nothing is believed
  }
  States_t vecAfter = Runs(vecRequest, &strReply, stMoments);
  if (!vecAfter.empty()) {
    m_mapStates[strKey] = std::move(vecAfter);
    return "";
  }
  std::string strFault = vecRequest[0] + " " + strKey + " was answered with " + Shown(strReply) +
                         ", sent at " + std::to_string(stMoments.iSent) + ", but there may be";
  for (const KeyState_t& stState : StatesOf(strKey)) {
    strFault += " [" + Describe(stState) + "]";
  }
  m_mapStates[strKey].clear();
  return strFault;
}

std::string KvModel::TakeParts(const std::vector<Request_t>& vecParts,
                               const std::vector<std::string>& vecReplies,
                               const Moments_t& stMoments) {
  if (vecParts.size() != vecReplies.size()) {
    return "a reply with " + std::to_string(vecReplies.size()) + " instead of " +
           std::to_string(vecParts.size()) + " elements";
  }
  std::string strFaults;
  for (size_t i = 0; i < vecParts.size(); ++i) {
    const std::string strFault = TakeOne(vecParts[i], vecReplies[i], stMoments);
    strFaults += strFaults.empty() || strFault.empty() ? strFault : "; " + strFault;
  }
  return strFaults;
}

// DEL and EXISTS of several keys tell only a sum. It must be possible; what it says of the single
// keys is not concluded.
std::string KvModel::TakeCount(const Request_t& vecRequest, const std::string& strReply,
                               const Moments_t& stMoments) {
  int64_t iLeast = 0;
  int64_t iMost = 0;
  for (const Request_t& vecPart : PartsOf(vecRequest)) {
    const std::string strNo = NumberReply(0);
    const std::string strYes = NumberReply(1);
    const bool bUnknown = StatesOf(vecPart[1]).empty();
    iLeast += bUnknown || !Runs(vecPart, &strNo, stMoments).empty() ? 0 : 1;
    iMost += bUnknown || !Runs(vecPart, &strYes, stMoments).empty() ? 1 : 0;
    if (!bUnknown) {
      m_mapStates[vecPart[1]] = Runs(vecPart, nullptr, stMoments);
    }
  }
  const int64_t iCount = strReply[0] == ':' ? atoll(strReply.c_str() + 1) : -1;
  if (iCount >= iLeast && iCount <= iMost) {
    return "";
  }
  return vecRequest[0] + " " + vecRequest[1] + " ... was answered with " + Shown(strReply) +
         ", not a number from " + std::to_string(iLeast) + " to " + std::to_string(iMost);
}

void KvModel::TakeUnanswered(const Request_t& vecRequest, const Moments_t& stMoments) {
  // Where it waited it may still be run, for as long as a stopped process sleeps.
  const Moments_t stLate{stMoments.iSent, stMoments.iDone + m_iSlack};
  States_t vecStates = StatesOf(vecRequest[1]);
  for (const KeyState_t& stState : Runs(vecRequest, nullptr, stLate)) {
    AddState(stState, vecStates);
  }
  m_mapStates[vecRequest[1]] = std::move(vecStates);
}

// The states after a run of the request from all possible ones, as far as they explain the reply.
KvModel::States_t KvModel::Runs(const Request_t& vecRequest, const std::string* pReply,
                                const Moments_t& stMoments) const {
  const Command_t fnCommand = CommandOf(vecRequest[0]);
  const Moments_t stClock{stMoments.iSent - m_iSlack, stMoments.iDone};
  const KeyState_t stNone;
  States_t vecAfter;
  const auto Try = [&](const KeyState_t& stState) {
    const Outcome_t stOutcome = fnCommand({vecRequest, stState, stClock});
    if (pReply == nullptr || Explains(stOutcome, *pReply)) {
      AddState(stOutcome.stAfter, vecAfter);
    }
  };
  for (const KeyState_t& stState : StatesOf(vecRequest[1])) {
    if (stState.iExpiresBy > stClock.iSent) {
      Try(stState);
    }
    if (stState.iExpiresFrom <= stClock.iDone) {
      Try(stNone);
    }
  }
  return vecAfter;
}

KvModel::States_t KvModel::StatesOf(const std::string& strKey) const {
  const auto it = m_mapStates.find(strKey);
  return it == m_mapStates.end() ? States_t(1) : it->second;
}

std::vector<std::string> KvModel::Keys() const {
  std::vector<std::string> vecKeys;
  for (const auto& stItem : m_mapStates) {
    vecKeys.push_back(stItem.first);
  }
  return vecKeys;
}

size_t KvModel::Possible(const std::string& strKey) const { return StatesOf(strKey).size(); }

size_t KvModel::LongestValue(const std::string& strKey) const {
  size_t iLongest = 0;
  for (const KeyState_t& stState : StatesOf(strKey)) {
    iLongest = std::max(iLongest, stState.pValue == nullptr ? 0 : stState.pValue->size());
  }
  return iLongest;
}

bool KvModel::MustExist(const std::string& strKey, int64_t iNow) const {
  const States_t vecStates = StatesOf(strKey);
  return !vecStates.empty() &&
         std::all_of(vecStates.begin(), vecStates.end(), [&](const KeyState_t& st) {
           return st.pValue != nullptr && st.iExpiresFrom > iNow;
         });
}

bool KvModel::MayExist(const std::string& strKey, int64_t iNow) const {
  const States_t vecStates = StatesOf(strKey);
  return vecStates.empty() ||
         std::any_of(vecStates.begin(), vecStates.end(), [&](const KeyState_t& st) {
           return st.pValue != nullptr && st.iExpiresBy > iNow - m_iSlack;
         });
}
