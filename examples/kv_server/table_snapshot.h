#ifndef KV_SERVER_TABLE_SNAPSHOT_H
#define KV_SERVER_TABLE_SNAPSHOT_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

class KeyStore;

// The keys of a store as they are at one moment, copied little by little while the store goes on.
//
// fork() does not copy shared memory: what a child reads there changes under it. So the writer of
// the table copies it itself, some buckets in each of its turns. Before the store changes anything
// in a bucket that was not copied yet, it has that bucket kept, so each one is copied once and as
// it was at the beginning. What the copies take is what waits to be taken away: little, unless the
// reader is slow and clients change much meanwhile; at most all keys.
class TableSnapshot {
 public:
  // Begins now, at the store's time. One at a time for a store, which must outlive it.
  explicit TableSnapshot(KeyStore& stStore);
  ~TableSnapshot();
  TableSnapshot(const TableSnapshot&) = delete;
  TableSnapshot& operator=(const TableSnapshot&) = delete;

  // By the store, before it changes a bucket.
  void Keep(uint64_t iBucket);

  // Copies whole buckets until about iBytes more wait, or there are no more.
  void Advance(size_t iBytes);
  // Nothing is left to copy: from now on changes of the store cost nothing.
  bool Whole() const { return m_bWhole; }
  // Nobody wants it any more: nothing is kept or waits from now on.
  void Abandon();

  // What waits to be taken away: DumpEntry_t, key and value of each key, and at the end an entry of
  // DUMP_END with the number of keys as its time. Front() is the first part of it, empty when there
  // is none; Take() takes bytes from its start.
  size_t WaitingBytes() const { return m_iWaiting; }
  std::string_view Front() const;
  void Take(size_t iBytes);

 private:
  std::string& Back();
  void AppendEnd();

  KeyStore& m_stStore;
  const int64_t m_iTime;        // keys whose time was over then are left out
  std::vector<bool> m_vecKept;  // by bucket: it was copied
  uint64_t m_iNext = 0;         // all buckets before it were
  bool m_bWhole = false;
  int64_t m_iKeys = 0;  // copied so far
  std::deque<std::string> m_dqPieces;
  size_t m_iTaken = 0;  // of the first piece
  size_t m_iWaiting = 0;
};

#endif
