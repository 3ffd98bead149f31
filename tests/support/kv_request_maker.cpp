#include "kv_request_maker.h"

#include <algorithm>

namespace {

const size_t LONG_ENOUGH = 4000;  // of a value to which something is appended
const size_t OPEN_STATES = 4;     // of a key that is better read before it is changed again
const int LONG_TIME = 100000;     // seconds: longer than any load lasts

}  // namespace

RequestMaker::RequestMaker(const LoadOptions_t& stOptions, const KvModel& stModel)
    : m_stOptions(stOptions), m_stModel(stModel), m_stRandom(stOptions.iSeed) {}

int RequestMaker::Below(int iLimit) {
  return static_cast<int>(m_stRandom() % static_cast<unsigned int>(iLimit));
}

std::string RequestMaker::Key(int iClient, int iNumber) {
  return "load" + std::to_string(iClient) + ":" + std::to_string(iNumber);
}

bool RequestMaker::IsKey(const std::string& strKey) { return strKey.rfind("load", 0) == 0; }

Request_t RequestMaker::Draw(int iClient) {
  m_iClient = iClient;
  m_iNumber = Below(m_stOptions.iKeys);
  if (IsLarge() && Below(4) != 0) {
    m_iNumber = 2 + Below(m_stOptions.iKeys - 2);
  }
  if (m_stModel.Possible(OwnKey()) >= OPEN_STATES) {
    return {"GET", OwnKey()};
  }
  const int iKind = Below(100);
  return iKind < 30   ? DrawRead()
         : iKind < 75 ? DrawWrite()
         : iKind < 88 ? DrawExpiry()
         : iKind < 98 ? DrawSeveral()
                      : DrawOther();
}

// Each value is another one, so that an older one is never taken for it.
std::string RequestMaker::Value() {
  const std::string strNumber = std::to_string(++m_iValues);
  if (IsNumber()) {
    return strNumber;
  }
  const int iLarge = static_cast<int>(m_stOptions.iLarge);
  const int iLongest = IsLarge() ? iLarge : Below(50) == 0 ? 5000 : 200;
  const auto iSize = static_cast<size_t>(Below(std::max(iLongest, 1)));
  return strNumber + ":" + std::string(iSize, static_cast<char>('a' + m_iValues % 26));
}

Request_t RequestMaker::DrawRead() {
  static const char* const COMMANDS[] = {"STRLEN", "EXISTS", "TYPE", "TTL", "PTTL"};
  const int iKind = Below(20);
  return {iKind < 5 ? COMMANDS[iKind] : "GET", OwnKey()};
}

Request_t RequestMaker::DrawWrite() {
  const std::string strKey = OwnKey();
  const int iKind = Below(40);
  if (iKind >= 30 || IsNumber()) {
    const std::string strDelta = std::to_string(Below(2001) - 1000);
    switch (IsNumber() ? iKind % 5 : 4) {
      case 0:
        return {"INCR", strKey};
      case 1:
        return {"DECR", strKey};
      case 2:
        return {"INCRBY", strKey, strDelta};
      case 3:
        return {"DECRBY", strKey, strDelta};
      default:
        break;
    }
  }
  switch (iKind) {
    case 0:
      return {"SETNX", strKey, Value()};
    case 1:
      return {"GETSET", strKey, Value()};
    case 2:
      return {"GETDEL", strKey};
    case 3:
      return {"SET", strKey, Value(), "NX"};
    case 4:
      return {"SET", strKey, Value(), "XX"};
    case 5:
      return {"SET", strKey, Value(), "GET"};
    case 6:
      return {"SET", strKey, Value(), "KEEPTTL"};
    case 7:
      return {"DEL", strKey};
    case 8:
      return {"UNLINK", strKey};
    case 9:
      return {"INCR", strKey};  // mostly of what is no number
    default:
      break;
  }
  if (iKind < 15 && m_stModel.LongestValue(strKey) < LONG_ENOUGH) {
    return {"APPEND", strKey, "+" + Value()};
  }
  return {"SET", strKey, Value()};
}

// Short enough to be seen to expire, or never in our time.
std::string RequestMaker::Time(bool bSeconds) {
  const int iTime = Below(2) == 0 ? LONG_TIME + Below(1000) : 1 + Below(2);
  return std::to_string(bSeconds ? iTime : iTime > 2 ? iTime * 1000 : 1 + Below(1000));
}

Request_t RequestMaker::DrawExpiry() {
  const std::string strKey = OwnKey();
  switch (Below(7)) {
    case 0:
      return {"SET", strKey, Value(), "EX", Time(true)};
    case 1:
      return {"SET", strKey, Value(), "PX", Time(false)};
    case 2:
      return {"SETEX", strKey, Time(true), Value()};
    case 3:
      return {"EXPIRE", strKey, Time(true)};
    case 4:
      return {"PEXPIRE", strKey, Time(false)};
    default:
      return {"PERSIST", strKey};
  }
}

// Over keys that follow each other, which belong to any workers.
Request_t RequestMaker::DrawSeveral() {
  static const char* const COMMANDS[] = {"MGET", "MGET", "MGET",   "MSET",   "MSET",
                                         "MSET", "DEL",  "EXISTS", "EXISTS", "UNLINK"};
  Request_t vecRequest{COMMANDS[Below(10)]};
  const bool bSet = vecRequest[0] == "MSET";
  const int iCount = std::min(2 + Below(4), m_stOptions.iKeys);
  for (int i = 0; i < iCount; ++i) {
    m_iNumber = (m_iNumber + 1) % m_stOptions.iKeys;
    vecRequest.push_back(OwnKey());
    if (bSet) {
      vecRequest.push_back(Value());
    }
  }
  return vecRequest;
}

Request_t RequestMaker::DrawOther() {
  switch (Below(9)) {
    case 0:
      return {"PING"};
    case 1:
      return {"ECHO", "echo"};
    case 2:
      return {"DBSIZE"};
    case 3:
      return {"RANDOMKEY"};
    case 4:
      return {"SCAN", "0", "COUNT", "10"};
    case 5:
      return {"KEYS", OwnKey() + "*"};
    case 6:
      return {"INFO"};
    case 7:
      return {"CLIENT", "LIST"};
    default:
      return {"COMMAND", "COUNT"};
  }
}
