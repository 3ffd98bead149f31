#ifndef ZELK_TESTS_KV_MODEL_H
#define ZELK_TESTS_KV_MODEL_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

typedef std::vector<std::string> Request_t;

// When a request was under way, in milliseconds since 1970.
struct Moments_t {
  int64_t iSent;
  int64_t iDone;  // its reply came, or it was known that none would come
};

// What a key may be: a value and when it expires, as far as that is known.
struct KeyState_t {
  static const int64_t NEVER = INT64_MAX;

  std::shared_ptr<const std::string> pValue;  // null: there is no such key
  int64_t iExpiresFrom = NEVER;               // not before,
  int64_t iExpiresBy = NEVER;                 // and gone after that
};

// What a server must have, by nothing but the requests that clients sent and the replies they got:
// written from the protocol's description, without a line of the server.
//
// Of every key the model knows the states that are possible. A reply excludes those in which the
// server would have replied otherwise; a reply that no possible state explains is a fault: a write
// that was acknowledged is lost, or one came back that was undone. A request without an answer, or
// one of the answers that leave open whether it has run, leaves the states without it and with it.
//
// A key's requests must all come from one client, in the order in which they were sent. The model
// knows GET, SET, SETNX, SETEX, GETSET, GETDEL, APPEND, STRLEN, INCR, DECR, INCRBY, DECRBY, EXISTS,
// DEL, UNLINK, TYPE, EXPIRE, PEXPIRE, TTL, PTTL, PERSIST, MGET and MSET; any other is an exception.
class KvModel {
 public:
  // How far the server's clock may be behind when it runs a request: it looks at it once a turn,
  // and may be stopped in a turn.
  explicit KvModel(int64_t iClockSlack = 5000) : m_iSlack(iClockSlack) {}

  // Takes a request's whole reply, "" if there was none. Empty, or what is wrong; the model then
  // believes nothing of the keys any more, so that one fault is told once.
  std::string Take(const Request_t& vecRequest, const std::string& strReply,
                   const Moments_t& stMoments);

  // Nothing is left of any key, as after FLUSHALL.
  void Clear() { m_mapStates.clear(); }

  std::vector<std::string> Keys() const;
  // How many states are possible; 1 when the key is exactly known.
  size_t Possible(const std::string& strKey) const;
  // The longest of the possible values.
  size_t LongestValue(const std::string& strKey) const;
  // Whether the key must, or may, be there at that time.
  bool MustExist(const std::string& strKey, int64_t iNow) const;
  bool MayExist(const std::string& strKey, int64_t iNow) const;

 private:
  typedef std::vector<KeyState_t> States_t;

  States_t StatesOf(const std::string& strKey) const;
  std::string TakeOne(const Request_t& vecRequest, const std::string& strReply,
                      const Moments_t& stMoments);
  std::string TakeParts(const std::vector<Request_t>& vecParts,
                        const std::vector<std::string>& vecReplies, const Moments_t& stMoments);
  std::string TakeCount(const Request_t& vecRequest, const std::string& strReply,
                        const Moments_t& stMoments);
  void TakeUnanswered(const Request_t& vecRequest, const Moments_t& stMoments);
  States_t Runs(const Request_t& vecRequest, const std::string* pReply,
                const Moments_t& stMoments) const;

  int64_t m_iSlack;
  std::map<std::string, States_t> m_mapStates;  // keys that were never named are not there
};

// What a reply says of its request.
enum ReplyKind_t {
  REPLY_ANSWER,   // it has run
  REPLY_OPEN,     // it may have run, wholly or in part
  REPLY_REFUSED,  // it has not run, and nothing has changed
};
ReplyKind_t KindOf(const std::string& strReply);

#endif
