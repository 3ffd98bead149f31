#ifndef KV_SERVER_TABLE_CHECK_H
#define KV_SERVER_TABLE_CHECK_H

#include <cstdint>
#include <string>
#include <vector>

#include "key_table.h"

// Looks whether a table that somebody else has written is sound, before anybody walks its chains.
//
// Each block must be on the free list of its size, or on the chain of its key's bucket, and no
// block twice: so the walk ends, whatever the bytes are. Blocks that are on neither are no fault:
// that is what a killed writer leaves, and Reclaim() gives them back.
//
// Takes two bits of memory for each 8 bytes of the segment, and one look at each entry.
class TableCheck {
 public:
  explicit TableCheck(KeyTable& stTable);

  // Empty, or the first thing that is wrong and where. Changes nothing.
  std::string Run();

  // Blocks that belong to nobody, after Run().
  uint64_t LostBlocks() const { return m_vecLost.size(); }

  // Gives lost blocks back and sets all counters to what Run(), which has found nothing wrong, has
  // counted. The table must be attached for writing, and by nobody else.
  void Reclaim();

 private:
  std::string CheckHead() const;
  std::string WalkBlocks();
  std::string WalkLists();
  std::string WalkChains();
  std::string WalkChain(uint64_t iBucket);
  std::string CheckEntry(uint64_t iOffset, uint64_t iBucket);
  bool Use(uint64_t iOffset);
  void CollectLost();
  uint64_t SizeOf(uint64_t iOffset) const;
  const char* At(uint64_t iOffset) const { return m_pBase + iOffset; }

  KeyTable& m_stTable;
  const char* const m_pBase;
  uint64_t m_iBegin = 0;             // of the blocks
  uint64_t m_iEnd = 0;               // of those that were carved
  std::vector<bool> m_vecBlocks;     // by offset / 8: a block starts here
  std::vector<bool> m_vecUsed;       // and is on a list or a chain
  std::vector<uint64_t> m_vecLost;   // offsets
  std::vector<uint32_t> m_vecChain;  // entries per bucket
  uint64_t m_iFreeBytes = 0;
  uint64_t m_iEntries = 0;
  uint64_t m_iKeyBytes = 0;
  uint64_t m_iValueBytes = 0;
};

#endif
