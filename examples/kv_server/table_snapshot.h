#ifndef KV_SERVER_TABLE_SNAPSHOT_H
#define KV_SERVER_TABLE_SNAPSHOT_H

#include <cstddef>

class KeyTable;

// A table as it is at one moment, for a forked child to read at leisure.
//
// fork() does not copy shared memory: what a child reads there changes under it. So the parent
// copies the used part of the segment into memory of its own, and the child, which has inherited
// the copy, moves it to where the segment is attached. Its own objects then work on the copy.
class TableSnapshot {
 public:
  // Copies what a reader looks at, about as fast as memory can; not the free lists.
  explicit TableSnapshot(KeyTable& stTable);
  ~TableSnapshot();
  TableSnapshot(const TableSnapshot&) = delete;
  TableSnapshot& operator=(const TableSnapshot&) = delete;

  // False when there was no memory; errno says so.
  bool Good() const { return m_pCopy != nullptr; }

  // In the child: from now on the table is the copy, private to this process.
  bool TakePlace();

 private:
  char* const m_pSegment;
  size_t m_iSize;
  char* m_pCopy = nullptr;
};

#endif
