#include "segment_check.h"

#include <algorithm>

#include "segment_format.h"

// DESIGN
//
// Blocks lie one behind the other from the reserved area's end to the first byte never carved; two
// bits for each 8 bytes there tell where a block begins and whether a list or a chain has passed
// it. Sizes of blocks never change, so that walk is true in a live segment too. A list or a chain
// that does not hold together in a live segment is walked again from fresh bytes, since its writer
// may have changed it between two looks; what it had passed is taken back first.

namespace {

const size_t MOST_FAULTS = 1000;
const unsigned int LIVE_ATTEMPTS = 16;
const uint64_t CHUNK = 8192;  // lists that are read at once

uint64_t ReferenceHash(std::string_view strKey) {
  uint64_t iHash = 2166136261u;
  for (const char c : strKey) {
    const int64_t iByte =
        static_cast<unsigned char>(c) < 128 ? c : static_cast<unsigned char>(c) - 256;
    iHash = (iHash ^ static_cast<uint64_t>(iByte)) * 16777619u;
  }
  return iHash;
}

int64_t Excess(uint64_t iCounter, uint64_t iCounted) {
  return static_cast<int64_t>(iCounter - iCounted);
}

class Walker {
 public:
  explicit Walker(const SegmentView& stView) : m_stView(stView) { ReadHead(); }

  void Blocks();
  void Lists(const ListVisitor_t& fnList);
  void Chains(const TableVisitor_t& stVisitor);

  const SegmentReport_t& Report() const { return m_stReport; }

 private:
  struct EntrySizes_t {
    uint64_t iKey;
    uint64_t iValue;
  };

  void ReadHead();
  void ExpectWord(uint64_t iOffset, uint64_t iValue, const char* pName);
  void Fault(const std::string& strWhat, uint64_t iOffset);
  bool IsBlock(uint64_t iOffset) const;
  size_t IndexOf(uint64_t iOffset) const { return (iOffset - m_iBegin) / HEAP_STEP; }
  bool Use(uint64_t iOffset, const char* pBy);
  template <typename Walk>
  void Attempt(const Walk& fnWalk);
  void WalkList(uint64_t iIndex, uint64_t iOffset);
  void CountList(uint64_t iIndex, const ListVisitor_t& fnList);
  void WalkChain(uint64_t iBucket, uint64_t iOffset);
  bool CheckEntry(uint64_t iOffset, uint64_t iBucket);
  void CountChain(uint64_t iBucket, uint64_t iSize, const TableVisitor_t& stVisitor);
  uint64_t ReadBucketCount();

  const SegmentView& m_stView;
  SegmentReport_t m_stReport;
  uint64_t m_iReservedSize = 0;
  uint64_t m_iBegin = 0;  // of the blocks
  uint64_t m_iEnd = 0;    // of those that were carved
  uint64_t m_iBuckets = 0;
  bool m_bBlocksKnown = false;
  std::vector<bool> m_vecBlocks;
  std::vector<bool> m_vecUsed;
  std::vector<uint64_t> m_vecPassed;   // by the list or chain being walked
  std::vector<uint64_t> m_vecEntries;  // of the chain being walked, those that are whole
  uint64_t m_iFreeBytes = 0;
  uint64_t m_iKeyBytes = 0;
  uint64_t m_iValueBytes = 0;
};

void Walker::Fault(const std::string& strWhat, uint64_t iOffset) {
  if (m_stReport.vecFaults.size() < MOST_FAULTS) {
    m_stReport.vecFaults.push_back(strWhat + " at " + std::to_string(iOffset));
  }
}

void Walker::ExpectWord(uint64_t iOffset, uint64_t iValue, const char* pName) {
  const uint64_t iFound = m_stView.Word(iOffset);
  if (iFound != iValue) {
    Fault(std::string(pName) + " is " + std::to_string(iFound) + ", not " + std::to_string(iValue),
          iOffset);
  }
}

// Leaves m_iEnd at m_iBegin when there is nothing that could be walked.
void Walker::ReadHead() {
  const uint64_t iSize = m_stView.Size();
  if (iSize < HEAP_RESERVED) {
    return Fault("segment too small for a heap", iSize);
  }
  ExpectWord(HEAP_MEMORY_SIZE, iSize, "iMemorySize");
  ExpectWord(HEAP_MIN_BYTES, HEAP_STEP, "iMinBytes");
  ExpectWord(HEAP_MAX_BYTES, HEAP_MAX_BLOCK, "iMaxBytes");
  ExpectWord(HEAP_ALIGN_SIZE, HEAP_STEP, "iAlignSize");
  ExpectWord(HEAP_BEGIN, HEAP_RESERVED, "iBeginOffset");
  if (m_stView.Half(HEAP_READY_FIELD) != HEAP_READY) {
    Fault("heap not ready", HEAP_READY_FIELD);
  }
  m_iReservedSize = m_stView.Word(HEAP_RESERVED_SIZE);
  if (m_iReservedSize > iSize - HEAP_RESERVED) {
    m_iReservedSize = 0;
    return Fault("reserved area beyond the segment", HEAP_RESERVED_SIZE);
  }
  const uint64_t iEnd = m_stView.Word(HEAP_CURRENT);
  m_iBegin = HEAP_RESERVED + m_iReservedSize;
  m_iEnd = m_iBegin;
  if (iEnd > iSize) {
    return Fault("carved beyond the segment", iEnd);
  }
  if (iEnd < m_iBegin) {
    return Fault("blocks in the reserved area", iEnd);
  }
  m_iEnd = iEnd;
  m_vecUsed.resize((m_iEnd - m_iBegin) / HEAP_STEP + 1);
}

void Walker::Blocks() {
  m_bBlocksKnown = true;
  m_vecBlocks.resize(m_vecUsed.size());
  for (uint64_t iOffset = m_iBegin; iOffset < m_iEnd;) {
    const uint64_t iSize = m_stView.Word(iOffset);
    if (iSize == 0 || iSize % HEAP_STEP != 0 || iSize > m_iEnd - iOffset) {
      return Fault("block of impossible size " + std::to_string(iSize), iOffset);
    }
    m_vecBlocks[IndexOf(iOffset)] = true;
    m_stReport.iBlocks += 1;
    iOffset += iSize;
  }
}

// Without knowledge of the blocks: whether one could begin there.
bool Walker::IsBlock(uint64_t iOffset) const {
  if (iOffset < m_iBegin || iOffset >= m_iEnd || (iOffset - m_iBegin) % HEAP_STEP != 0) {
    return false;
  }
  if (m_bBlocksKnown) {
    return m_vecBlocks[IndexOf(iOffset)];
  }
  const uint64_t iSize = m_stView.Word(iOffset);
  return iSize != 0 && iSize % HEAP_STEP == 0 && iSize <= m_iEnd - iOffset;
}

// A block may be used once: by a list or by an entry.
bool Walker::Use(uint64_t iOffset, const char* pBy) {
  if (!IsBlock(iOffset)) {
    Fault(std::string(pBy) + " of no block", iOffset);
    return false;
  }
  if (m_vecUsed[IndexOf(iOffset)]) {
    Fault(std::string(pBy) + " of a block in use", iOffset);
    return false;
  }
  m_vecUsed[IndexOf(iOffset)] = true;
  m_vecPassed.push_back(iOffset);
  return true;
}

template <typename Walk>
void Walker::Attempt(const Walk& fnWalk) {
  const size_t iFaults = m_stReport.vecFaults.size();
  for (unsigned int i = 1;; ++i) {
    m_vecPassed.clear();
    m_vecEntries.clear();
    fnWalk();
    if (!m_stView.IsLive() || m_stReport.vecFaults.size() == iFaults || i == LIVE_ATTEMPTS) {
      return;
    }
    for (const uint64_t iOffset : m_vecPassed) {
      m_vecUsed[IndexOf(iOffset)] = false;
    }
    m_stReport.vecFaults.resize(iFaults);
    m_stView.Forget();
  }
}

void Walker::WalkList(uint64_t iIndex, uint64_t iOffset) {
  while (iOffset != 0 && Use(iOffset, "list")) {
    if (m_stView.Word(iOffset) != (iIndex + 1) * HEAP_STEP) {
      return Fault("block on a list of another size", iOffset);
    }
    iOffset = m_stView.Word(iOffset + HEAP_STEP);
  }
}

void Walker::CountList(uint64_t iIndex, const ListVisitor_t& fnList) {
  Attempt([&] { WalkList(iIndex, m_stView.Word(HEAP_LISTS + iIndex * sizeof(uint64_t))); });
  m_stReport.iFreeBlocks += m_vecPassed.size();
  m_iFreeBytes += m_vecPassed.size() * (iIndex + 1) * HEAP_STEP;
  if (fnList && !m_vecPassed.empty()) {
    fnList((iIndex + 1) * HEAP_STEP, m_vecPassed.size());
  }
}

void Walker::Lists(const ListVisitor_t& fnList) {
  m_stView.Forget();
  const std::vector<uint64_t> vecEmpty(CHUNK);
  std::vector<uint64_t> vecHeads(CHUNK);
  for (uint64_t iFirst = 0; iFirst < HEAP_LIST_COUNT; iFirst += CHUNK) {
    if (!m_stView.Read(HEAP_LISTS + iFirst * sizeof(uint64_t), vecHeads.data(),
                       CHUNK * sizeof(uint64_t))) {
      return;
    }
    if (vecHeads == vecEmpty) {
      continue;  // most are
    }
    for (uint64_t i = 0; i < CHUNK; ++i) {
      if (vecHeads[i] != 0) {
        CountList(iFirst + i, fnList);
      }
    }
  }
  m_stView.Forget();
  m_stReport.iManagedSizeExcess = Excess(m_stView.Word(HEAP_MANAGED), m_iFreeBytes);
  if (m_bBlocksKnown) {
    m_stReport.iBlockCountExcess =
        Excess(m_stView.Word(HEAP_BLOCK_COUNT), m_stReport.iBlocks - m_stReport.iFreeBlocks);
  }
}

uint64_t Walker::ReadBucketCount() {
  if (m_iReservedSize < TABLE_HEAD) {
    Fault("no room for a table", HEAP_RESERVED);
    return 0;
  }
  if (m_stView.Half(HEAP_RESERVED + TABLE_READY_FIELD) != TABLE_READY) {
    Fault("table not ready", HEAP_RESERVED + TABLE_READY_FIELD);
    return 0;
  }
  const uint64_t iCount = m_stView.Half(HEAP_RESERVED + TABLE_BUCKET_COUNT);
  if (iCount == 0 || iCount > (m_iReservedSize - TABLE_HEAD) / TABLE_BUCKET) {
    Fault("impossible number of buckets " + std::to_string(iCount), HEAP_RESERVED);
    return 0;
  }
  return iCount;
}

// Keys are checked for their bucket, so that entries which cannot be found are faults.
bool Walker::CheckEntry(uint64_t iOffset, uint64_t iBucket) {
  const uint64_t iKeySize = m_stView.Half(iOffset + 8);
  const uint64_t iValueSize = m_stView.Half(iOffset + 12);
  const uint64_t iBlock = m_stView.Word(iOffset - HEAP_STEP);
  if (HEAP_STEP + TABLE_ENTRY_HEAD + iKeySize + iValueSize > iBlock || iKeySize == 0) {
    Fault("entry larger than its block", iOffset);
    return false;
  }
  const std::string strKey = m_stView.Bytes(iOffset + TABLE_ENTRY_HEAD, iKeySize);
  if (strKey.find('\0') != iKeySize - 1) {
    Fault("key and its size differ", iOffset);
    return false;
  }
  if (ReferenceHash({strKey.data(), strKey.size() - 1}) % m_iBuckets != iBucket) {
    Fault("key in a foreign bucket", iOffset);
  }
  return true;
}

void Walker::WalkChain(uint64_t iBucket, uint64_t iOffset) {
  while (iOffset != 0 && Use(iOffset - HEAP_STEP, "entry")) {
    if (CheckEntry(iOffset, iBucket)) {
      m_vecEntries.push_back(iOffset);
    }
    iOffset = m_stView.Word(iOffset);
  }
}

void Walker::CountChain(uint64_t iBucket, uint64_t iSize, const TableVisitor_t& stVisitor) {
  m_stReport.iEntries += m_vecPassed.size();
  m_stReport.iBucketSizeExcess += Excess(iSize, m_vecPassed.size());
  for (const uint64_t iOffset : m_vecEntries) {
    const uint64_t iKeySize = m_stView.Half(iOffset + 8);
    const uint32_t iValueSize = m_stView.Half(iOffset + 12);
    m_iKeyBytes += iKeySize;
    m_iValueBytes += iValueSize;
    if (stVisitor.fnEntry) {
      const std::string strKey = m_stView.Bytes(iOffset + TABLE_ENTRY_HEAD, iKeySize);
      stVisitor.fnEntry({iBucket,
                         {strKey.data(), strKey.empty() ? 0 : strKey.size() - 1},
                         iOffset + TABLE_ENTRY_HEAD + iKeySize,
                         iValueSize});
    }
  }
  if (stVisitor.fnChain && !m_vecPassed.empty()) {
    stVisitor.fnChain(iBucket, m_vecPassed.size());
  }
}

void Walker::Chains(const TableVisitor_t& stVisitor) {
  m_iBuckets = ReadBucketCount();
  m_stView.Forget();
  for (uint64_t i = 0; i < m_iBuckets; ++i) {
    const uint64_t iHead = HEAP_RESERVED + TABLE_HEAD + i * TABLE_BUCKET;
    Attempt([&] { WalkChain(i, m_stView.Word(iHead + 8)); });
    CountChain(i, m_stView.Half(iHead), stVisitor);
  }
  if (m_iBuckets == 0) {
    return;
  }
  m_stView.Forget();
  m_stReport.iObjectCountExcess =
      Excess(m_stView.Word(HEAP_RESERVED + TABLE_OBJECT_COUNT), m_stReport.iEntries);
  m_stReport.iTotalKeySizeExcess =
      Excess(m_stView.Word(HEAP_RESERVED + TABLE_TOTAL_KEY), m_iKeyBytes);
  m_stReport.iTotalValueSizeExcess =
      Excess(m_stView.Word(HEAP_RESERVED + TABLE_TOTAL_VALUE), m_iValueBytes);
}

}  // namespace

bool SegmentReport_t::CountersAgree() const {
  return iBlockCountExcess == 0 && iManagedSizeExcess == 0 && iObjectCountExcess == 0 &&
         iTotalKeySizeExcess == 0 && iTotalValueSizeExcess == 0 && iBucketSizeExcess == 0;
}

std::string SegmentReport_t::Faults() const {
  std::string strText;
  for (const std::string& strFault : vecFaults) {
    strText += strFault + "\n";
  }
  return strText;
}

SegmentReport_t CheckHeap(const SegmentView& stView) {
  Walker stWalker(stView);
  stWalker.Blocks();
  stWalker.Lists({});
  return stWalker.Report();
}

SegmentReport_t CheckTable(const SegmentView& stView) {
  Walker stWalker(stView);
  stWalker.Blocks();
  stWalker.Lists({});
  stWalker.Chains({});
  return stWalker.Report();
}

SegmentReport_t WalkFreeLists(const SegmentView& stView, const ListVisitor_t& fnList) {
  Walker stWalker(stView);
  stWalker.Lists(fnList);
  return stWalker.Report();
}

SegmentReport_t WalkChains(const SegmentView& stView, const TableVisitor_t& stVisitor) {
  Walker stWalker(stView);
  stWalker.Chains(stVisitor);
  return stWalker.Report();
}
