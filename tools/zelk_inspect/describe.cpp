#include "describe.h"

#include <fnmatch.h>

#include <algorithm>
#include <functional>
#include <set>
#include <utility>
#include <vector>

#include "ring_check.h"
#include "segment_check.h"
#include "segment_format.h"

namespace {

typedef std::vector<Document::Row_t> Rows_t;

// The largest so many of pairs, by the first; of equal ones, those with the lower second.
class Largest {
 public:
  explicit Largest(uint64_t iLimit) : m_iLimit(iLimit) {}

  void Offer(uint64_t iRank, uint64_t iWhat) {
    m_setKept.emplace(UINT64_MAX - iRank, iWhat);
    if (m_setKept.size() > m_iLimit) {
      m_setKept.erase(std::prev(m_setKept.end()));
    }
  }
  void Visit(const std::function<void(uint64_t iRank, uint64_t iWhat)>& fnVisit) const {
    for (const auto& stKept : m_setKept) {
      fnVisit(UINT64_MAX - stKept.first, stKept.second);
    }
  }

 private:
  uint64_t m_iLimit;
  std::set<std::pair<uint64_t, uint64_t>> m_setKept;
};

void AddFaults(const std::vector<std::string>& vecFaults, const Options_t& stOptions,
               Document& stDocument) {
  Rows_t vecRows;
  for (size_t i = 0; i < vecFaults.size() && i < stOptions.iLimit; ++i) {
    vecRows.push_back({vecFaults[i]});
  }
  stDocument.Add("faults", uint64_t{vecFaults.size()});
  stDocument.AddList("first_faults", {"fault"}, std::move(vecRows));
}

// Keys as the pattern asks for, up to the limit.
class KeyList {
 public:
  KeyList(const SegmentView& stView, const Options_t& stOptions)
      : m_stView(stView), m_stOptions(stOptions) {}

  void Offer(const Entry_t& stEntry);
  void AddTo(Document& stDocument);

 private:
  const SegmentView& m_stView;
  const Options_t& m_stOptions;
  Rows_t m_vecRows;
  uint64_t m_iMatching = 0;
};

void KeyList::Offer(const Entry_t& stEntry) {
  const std::string strKey(stEntry.strKey);
  if (!m_stOptions.strKeys || fnmatch(m_stOptions.strKeys->c_str(), strKey.c_str(), 0) != 0) {
    return;
  }
  m_iMatching += 1;
  if (m_vecRows.size() >= m_stOptions.iLimit) {
    return;
  }
  Document::Row_t vecRow = {Printable(strKey), stEntry.iBucket, uint64_t{stEntry.iValueSize}};
  if (m_stOptions.bValues) {
    const uint64_t iShown = std::min<uint64_t>(stEntry.iValueSize, m_stOptions.iBytes);
    const std::string strValue = m_stView.Bytes(stEntry.iValueOffset, iShown);
    vecRow.emplace_back(Printable(strValue) + (iShown < stEntry.iValueSize ? "..." : ""));
  }
  m_vecRows.push_back(std::move(vecRow));
}

void KeyList::AddTo(Document& stDocument) {
  if (!m_stOptions.strKeys) {
    return;
  }
  std::vector<std::string> vecColumns = {"key", "bucket", "value_size"};
  if (m_stOptions.bValues) {
    vecColumns.emplace_back("value");
  }
  stDocument.Add("matching_keys", m_iMatching);
  stDocument.AddList("keys", std::move(vecColumns), std::move(m_vecRows));
}

uint64_t Average(uint64_t iTotal, uint64_t iCount) { return iCount == 0 ? 0 : iTotal / iCount; }

void DescribeTableHead(const SegmentView& stView, Document& stDocument, Figures_t& mapFigures) {
  const auto fnWord = [&](uint64_t iOffset) { return stView.Word(HEAP_RESERVED + iOffset); };
  const auto fnHalf = [&](uint64_t iOffset) -> uint64_t {
    return stView.Half(HEAP_RESERVED + iOffset);
  };
  stView.Forget();
  const uint64_t iEntries = fnWord(TABLE_OBJECT_COUNT);
  stDocument.Add("buckets", fnHalf(TABLE_BUCKET_COUNT));
  stDocument.Add("entries", iEntries);
  stDocument.Add("key_bytes", fnWord(TABLE_TOTAL_KEY));
  stDocument.Add("value_bytes", fnWord(TABLE_TOTAL_VALUE));
  stDocument.Add("average_key", Average(fnWord(TABLE_TOTAL_KEY), iEntries));
  stDocument.Add("average_value", Average(fnWord(TABLE_TOTAL_VALUE), iEntries));
  stDocument.Add("longest_key_ever", fnHalf(TABLE_MAX_KEY));
  stDocument.Add("longest_value_ever", fnHalf(TABLE_MAX_VALUE));
  stDocument.Add("longest_chain_ever", fnHalf(TABLE_MAX_BUCKET));
  mapFigures["entries"] = iEntries;
}

void DescribeHeapHead(const SegmentView& stView, Document& stDocument, Figures_t& mapFigures) {
  stView.Forget();
  const uint64_t iSize = stView.Word(HEAP_MEMORY_SIZE);
  const uint64_t iCurrent = stView.Word(HEAP_CURRENT);
  const uint64_t iFree = stView.Word(HEAP_MANAGED);
  stDocument.Add("memory_size", iSize);
  stDocument.Add("reserved_size", stView.Word(HEAP_RESERVED_SIZE));
  stDocument.Add("never_carved", iSize - iCurrent);
  stDocument.Add("free_in_blocks", iFree);
  stDocument.Add("blocks_in_use", stView.Word(HEAP_BLOCK_COUNT));
  mapFigures["carved_bytes"] = iCurrent;
  mapFigures["blocks_in_use"] = stView.Word(HEAP_BLOCK_COUNT);
}

std::string PerSecond(double fDifference, double fSeconds) {
  char szText[64];
  snprintf(szText, sizeof(szText), "%.1f", fDifference / fSeconds);
  return szText;
}

void AddRate(const std::string& strName, double fDifference, double fSeconds,
             Document& stDocument) {
  Document::Value_t stValue(PerSecond(fDifference, fSeconds));
  stValue.bString = false;
  stDocument.Add(strName + "_per_second", stValue);
}

}  // namespace

void DescribeQueue(const SegmentView& stView, const Options_t& stOptions, Document& stDocument) {
  // One byte more than is shown tells whether there are more.
  const uint64_t iKeepBytes = std::min<uint64_t>(stOptions.iBytes, UINT32_MAX) + 1;
  const RingReport_t stRing = CheckRing(stView, stOptions.iMessages, iKeepBytes);
  stDocument.Add("ring_size", stRing.iSize);
  stDocument.Add("read_offset", stRing.iRead);
  stDocument.Add("write_offset", stRing.iWrite);
  stDocument.Add("pending_bytes", stRing.iUsed);
  stDocument.Add("free_bytes", stRing.iSize == 0 ? 0 : stRing.iSize - 1 - stRing.iUsed);
  stDocument.Add("pending_messages", stRing.iMessages);
  stDocument.Add("largest_pending", stRing.iLargest);
  stDocument.Add("stable", stRing.bStable);
  AddFaults(stRing.vecFaults, stOptions, stDocument);
  Rows_t vecRows;
  for (const std::string& strMessage : stRing.vecMessages) {
    vecRows.push_back({Printable(strMessage, stOptions.iBytes)});
  }
  if (stOptions.iMessages > 0) {
    stDocument.AddList("messages", {"message"}, std::move(vecRows));
  }
}

void DescribeHeap(const SegmentView& stView, const Options_t& stOptions, Document& stDocument,
                  Figures_t& mapFigures) {
  DescribeHeapHead(stView, stDocument, mapFigures);
  Largest stLargest(stOptions.iLimit);
  std::map<uint64_t, uint64_t> mapBlocks;
  const SegmentReport_t stReport =
      WalkFreeLists(stView, [&](uint64_t iBlockSize, uint64_t iBlocks) {
        stLargest.Offer(iBlockSize * iBlocks, iBlockSize);
        mapBlocks[iBlockSize] = iBlocks;
      });
  stDocument.Add("free_blocks", stReport.iFreeBlocks);
  stDocument.Add("classes_with_free_blocks", uint64_t{mapBlocks.size()});
  AddFaults(stReport.vecFaults, stOptions, stDocument);
  Rows_t vecRows;
  stLargest.Visit([&](uint64_t iBytes, uint64_t iBlockSize) {
    vecRows.push_back({iBlockSize, mapBlocks[iBlockSize], iBytes});
  });
  stDocument.AddList("free_space_by_class", {"block_size", "blocks", "bytes"}, std::move(vecRows));
}

void DescribeTable(const SegmentView& stView, const Options_t& stOptions, Document& stDocument,
                   Figures_t& mapFigures) {
  DescribeTableHead(stView, stDocument, mapFigures);
  DescribeHeapHead(stView, stDocument, mapFigures);
  Largest stLongest(stOptions.iLimit);
  std::map<uint64_t, uint64_t> mapLengths;
  KeyList stKeys(stView, stOptions);
  TableVisitor_t stVisitor;
  stVisitor.fnChain = [&](uint64_t iBucket, uint64_t iEntries) {
    stLongest.Offer(iEntries, iBucket);
    mapLengths[iEntries] += 1;
  };
  if (stOptions.strKeys) {
    stVisitor.fnEntry = [&](const Entry_t& stEntry) { stKeys.Offer(stEntry); };
  }
  const SegmentReport_t stReport = WalkChains(stView, stVisitor);
  stDocument.Add("entries_found", stReport.iEntries);
  AddFaults(stReport.vecFaults, stOptions, stDocument);
  Rows_t vecLongest;
  stLongest.Visit([&](uint64_t iEntries, uint64_t iBucket) {
    vecLongest.push_back({iBucket, iEntries});
  });
  stDocument.AddList("longest_chains", {"bucket", "entries"}, std::move(vecLongest));
  Rows_t vecLengths;
  for (const auto& stLength : mapLengths) {
    vecLengths.push_back({stLength.first, stLength.second});
  }
  stDocument.AddList("chain_lengths", {"entries", "buckets"}, std::move(vecLengths));
  stKeys.AddTo(stDocument);
}

void RingRate::Look(const SegmentView& stView) {
  const RingOffsets_t stNow = ReadOffsets(stView);
  const uint64_t iSize = stView.Size() - std::min(stView.Size(), RING_HEAD);
  if (iSize == 0 || std::max(stNow.iRead, stNow.iWrite) >= iSize) {
    return;
  }
  if (!m_bFirst) {
    m_iTaken += (stNow.iRead + iSize - m_iRead) % iSize;
    m_iWritten += (stNow.iWrite + iSize - m_iWrite) % iSize;
  }
  m_bFirst = false;
  m_iRead = stNow.iRead;
  m_iWrite = stNow.iWrite;
}

void RingRate::AddTo(Document& stDocument, double fSeconds) const {
  AddRate("bytes_written", static_cast<double>(m_iWritten), fSeconds, stDocument);
  AddRate("bytes_taken", static_cast<double>(m_iTaken), fSeconds, stDocument);
}

void AddRates(const Figures_t& mapBefore, const Figures_t& mapAfter, double fSeconds,
              Document& stDocument) {
  for (const auto& stAfter : mapAfter) {
    const auto it = mapBefore.find(stAfter.first);
    if (it != mapBefore.end()) {
      AddRate(stAfter.first, static_cast<double>(stAfter.second) - static_cast<double>(it->second),
              fSeconds, stDocument);
    }
  }
}
