#ifndef ZELK_COMMON_DELAY_STAT_H
#define ZELK_COMMON_DELAY_STAT_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "object.h"

// The figures of one tag.
struct StatItem_t {
  unsigned int iMin = 5000;  // deliberately the largest minimum that is ever reported
  unsigned int iCount = 0;
  unsigned int iMax = 0;
  uint64_t iTotal = 0;
  std::map<unsigned int, unsigned int> mapInterval;  // bucket to its samples; none: no entry
};

// A measurement that BeginData() has opened.
struct TempData_t {
  std::string strTag;
  timeval tvBegin{};
};

// Latencies of a server by tag (the name of an operation): count, minimum, average, maximum and a
// histogram, printed as a text table at the end of each period and then cleared.
//
// A sample is pushed as a number, measured between two calls that share an identifier, or between
// the numbered steps of a session. Values are milliseconds; wherever a timeval is asked for, null
// is the time of the call. An end before its begin is deliberately not mended: -1 ms counts as
// 4294967295.
//
// Tags, identifiers and sessions are C strings, copied where they are kept. What is unknown is
// ignored. A measurement or session that is never ended stays as long as the object. Not locked:
// one thread. Not copyable. Dump() writes nothing.
class DelayStat : public Object {
 public:
  DelayStat() = default;
  DelayStat(const DelayStat&) = delete;
  DelayStat& operator=(const DelayStat&) = delete;

  // Bucket k holds [k * iInterval, (k + 1) * iInterval); values from iMax on share bucket
  // iMax / iInterval. At first 2000 and 50. iInterval must not be 0; the third number is unused.
  // For an object without samples: those it has stay in their buckets, under other labels.
  void SetInterval(unsigned int iMax, unsigned int iInterval, unsigned int iUnused);

  // Add one sample. pTag must not be null.
  void PushData(const char* pTag, unsigned int iValue);
  void PushData(const char* pTag, timeval& tvBegin, timeval& tvEnd);

  // Measure from a begin to the end with the same identifier. Beginning an open one restarts it
  // under the new tag. A null identifier is a failed assertion, a null tag not allowed.
  void BeginData(const char* pTag, const char* pIdentifier, timeval* pTime);
  void EndData(const char* pIdentifier, timeval* pTime);

  // Opens a session, whose step 0 is now; an open one is left alone.
  void BeginSession(const char* pSession, timeval* pTime);

  // Notes that step iTo of an open session is reached, the first time only. With a tag, and when
  // step iFrom was reached, the time between the two is a sample of it.
  void SubStat(const char* pSession, const char* pTag, uint32_t iFrom, uint32_t iTo,
               timeval* pTime);

  // Ends an open session; with a tag, the time since step 0 is a sample of it.
  void EndSession(const char* pSession, timeval* pTime, const char* pTag);

  // The table: a line of headings and one per tag, in byte order. All lines have the buckets up to
  // the highest that any tag has used. Columns are at least 10 characters wide, the first is that
  // of the longest tag and 5, and longer texts shift the rest of their line. The last label looks
  // like the others although its bucket may hold all larger values. Without samples: "".
  std::string GenerateStatTable();

  // Writes the table with one write(), whose failure is not reported; nothing is cleared. Without
  // samples, or with iFD -1, nothing is written.
  void DumpToFD(int iFD);

  // Forgets the samples. Open measurements and sessions stay, and count in the next period when
  // they end; so do the settings.
  void Clear();

  // Milliseconds between two times, seconds and microseconds taken apart: from 1.000999 to 2.0 it
  // is 1000, from 1.999999 to 2.0 it is 1.
  static int DiffTimeValue(const timeval& tvBegin, const timeval& tvEnd);

  void Dump(int iFD) override;

 protected:
  // An item with the addresses of the counts in its mapInterval, so that a sample need not search
  // there; null or out of range: not known. Nothing may be erased from mapInterval alone.
  struct IndexedItem_t : StatItem_t {
    IndexedItem_t() = default;
    IndexedItem_t(const IndexedItem_t&) = delete;
    IndexedItem_t& operator=(const IndexedItem_t&) = delete;

    std::vector<unsigned int*> vecIndex;
  };

  typedef std::pair<const std::string, IndexedItem_t> Tag_t;

  unsigned int m_iMax = 2000;
  unsigned int m_iInterval = 50;
  unsigned int m_iTagMaxSize = 0;  // since the last Clear(), as is m_iMaxKey
  unsigned int m_iMaxKey = 0;      // the highest bucket in use
  // A derived class may add tags; it removes them by Clear() only, all at once.
  std::map<std::string, IndexedItem_t, std::less<>> m_mapData;
  // std::less<> finds an identifier or session without making a string of it.
  std::map<std::string, TempData_t, std::less<>> m_mapTempData;  // by identifier
  // By session, the time of each step.
  std::map<std::string, std::map<unsigned int, timeval>, std::less<>> m_mapSessionData;

 private:
  Tag_t& Find(const char* pTag, size_t iLength);
  size_t Place(const char* pTag, size_t iLength) const;
  void MakeIndex();

  std::vector<Tag_t*> m_vecPlaces;  // hash table of all tags, a power of two, half of it free
  size_t m_iTags = ~size_t{0};      // in the index; it is made anew when the map has another number
};

#endif
