#ifndef KV_SERVER_REQUEST_PARSER_H
#define KV_SERVER_REQUEST_PARSER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

// Cuts one client's bytes into requests: arrays of bulk strings
// ("*2\r\n$4\r\nECHO\r\n$2\r\nhi\r\n") or inline lines of words ("ECHO hi\r\n").
//
// The bytes stay in the caller's buffer, which may grow and move between two calls. What was looked
// at once is not looked at again, so a long request in small pieces costs no more than at once.
// No length is believed before its bytes are there; nothing is allocated for announced bytes.
class RequestParser {
 public:
  struct Limits_t {
    uint64_t iElements;  // of one request
    uint64_t iBulk;      // bytes of one element
    uint64_t iInline;    // bytes of one line
    uint64_t iRequest;   // bytes of one request altogether
  };

  enum Result_t {
    NEED_MORE,  // the request is not complete yet
    COMPLETE,   // Arguments() and Size() describe it; it may have no arguments (an empty line)
    MALFORMED,  // Error() says why; the stream can not be read any further
  };

  explicit RequestParser(const Limits_t& stLimits) : m_stLimits(stLimits) {}

  // Looks at the request that starts at pData; of an incomplete one the next call must start with
  // the same bytes.
  Result_t Parse(const char* pData, size_t iSize);

  // Valid after COMPLETE and as long as the caller's buffer stays in place; those of an inline
  // request until Forget(). Both outlive Reset() and the requests that follow.
  const std::vector<std::string_view>& Arguments() const { return m_vecArguments; }
  size_t Size() const { return m_iOffset; }

  // What follows "-ERR Protocol error: ".
  const std::string& Error() const { return m_strError; }

  // Goes to the next request, or starts the same one again.
  void Reset();

  // Frees the texts of all inline requests so far.
  void Forget() { m_dqWords.clear(); }

 private:
  struct Piece_t {
    size_t iOffset;
    size_t iSize;
  };

  bool ParseWhole(const char* pData, size_t iSize);
  Result_t ParseArray(const char* pData, size_t iSize);
  Result_t ParseArrayHead(const char* pData, size_t iSize);
  Result_t ParseElement(const char* pData, size_t iSize);
  Result_t ParseInline(const char* pData, size_t iSize);
  bool SplitInline(const char* pData, const char* pEnd);
  Result_t ParseLength(const char* pData, size_t iSize, const char* pWhat, int64_t& iLength);
  Result_t Fail(const std::string& strError);

  Limits_t m_stLimits;
  size_t m_iOffset = 0;      // everything before it is done with
  size_t m_iScanned = 0;     // no line end before it
  int64_t m_iElements = -1;  // still to come; -1: the head of the array is not read yet
  int64_t m_iBulk = -1;      // length of the element under way; -1: not read yet
  std::vector<Piece_t> m_vecPieces;
  std::deque<std::string> m_dqWords;  // of inline requests, quotes taken out; they stay in place
  std::vector<std::string_view> m_vecArguments;
  std::string m_strError;
};

#endif
