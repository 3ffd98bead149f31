// Segments as a damaged or hostile owner would leave them: nothing outside of them is read, and
// every walk ends.
//
// The first byte says what is done with the rest, which is a whole ring or changes to a sound
// table: 4 bytes tell where, 8 bytes what stands there then.

#include <stddef.h>
#include <stdint.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "describe.h"
#include "ring_check.h"
#include "segment_format.h"
#include "verify.h"

namespace {

const uint64_t BEGIN = HEAP_RESERVED + 1048576;  // of the table's blocks
const uint64_t LIVE = 0x80;
const size_t CHANGE = 12;

void Require(bool bHolds) {
  if (!bHolds) {
    abort();
  }
}

// As if others wrote meanwhile.
class LiveView : public MemoryView {
 public:
  using MemoryView::MemoryView;
  bool IsLive() const override { return true; }
};

// tests/data/golden/table.image
std::vector<char> LoadTable() {
  std::ifstream stFile(GOLDEN_TABLE);
  std::string strLine;
  std::vector<char> vecBytes;
  while (std::getline(stFile, strLine)) {
    std::istringstream stRow(strLine);
    size_t iOffset = 0;
    unsigned int iByte = 0;
    if (strLine.compare(0, 5, "size ") == 0) {
      vecBytes.resize(std::stoul(strLine.substr(5)));
    } else if (stRow >> iOffset >> std::hex) {
      for (; stRow >> iByte; ++iOffset) {
        vecBytes.at(iOffset) = static_cast<char>(iByte);
      }
    }
  }
  Require(vecBytes.size() > BEGIN);
  return vecBytes;
}

// Where a change is worth something.
uint64_t Place(uint32_t iSelector, uint64_t iSize) {
  const uint64_t iWhere = iSelector / 4;
  switch (iSelector % 4) {
    case 0:
      return iWhere % 128;  // head and first lists
    case 1:
      return HEAP_RESERVED + iWhere % 128;  // the table's head and its buckets
    case 2:
      return BEGIN + iWhere % 2048;  // blocks
    default:
      return iWhere % (iSize - 8);
  }
}

void Describe(const SegmentView& stView, uint8_t iMode) {
  Options_t stOptions;
  stOptions.iMessages = 100;
  stOptions.strKeys = "*";
  stOptions.bValues = true;
  Document stDocument;
  Figures_t mapFigures;
  if (iMode == 0) {
    DescribeQueue(stView, stOptions, stDocument);
  } else if (iMode == 1) {
    DescribeHeap(stView, stOptions, stDocument, mapFigures);
  } else {
    DescribeTable(stView, stOptions, stDocument, mapFigures);
  }
  Require(!stDocument.AsText().empty());
  const std::string strJson = stDocument.AsJson();
  Require(strJson.find('\n') == strJson.size() - 1);
}

void LookAtRing(const SegmentView& stView) {
  const RingReport_t stReport = CheckRing(stView, 1000, 1000);
  Require(!stReport.bStable || (stReport.vecFaults.empty() && stReport.iUsed < stReport.iSize));
  Require(stReport.iMessages * RING_LENGTH <= stView.Size());
  Verify(stView);
  Describe(stView, 0);
}

void LookAtTable(const SegmentView& stView, uint8_t iMode) {
  if (iMode == 0) {
    const Verification_t stResult = Verify(stView);
    Require((stResult.eVerdict == VERDICT_SOUND) ==
            (stResult.vecFaults.empty() && stResult.eFormat != FORMAT_NONE));
  } else {
    Describe(stView, iMode);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t iSize) {
  static const std::vector<char> s_vecSound = LoadTable();
  static std::vector<char> s_vecTable = s_vecSound;
  if (iSize == 0) {
    return 0;
  }
  const uint8_t iMode = pData[0] % 4;
  const bool bLive = (pData[0] & LIVE) != 0;
  if (iMode == 3) {
    const std::vector<char> vecRing(pData + 1, pData + iSize);
    bLive ? LookAtRing(LiveView(vecRing.data(), vecRing.size()))
          : LookAtRing(MemoryView(vecRing.data(), vecRing.size()));
    return 0;
  }
  std::vector<uint64_t> vecChanged;
  for (size_t i = 1; i + CHANGE <= iSize; i += CHANGE) {
    uint32_t iSelector = 0;
    memcpy(&iSelector, pData + i, sizeof(iSelector));
    vecChanged.push_back(Place(iSelector, s_vecTable.size()));
    memcpy(&s_vecTable[vecChanged.back()], pData + i + sizeof(iSelector), sizeof(uint64_t));
  }
  bLive ? LookAtTable(LiveView(s_vecTable.data(), s_vecTable.size()), iMode)
        : LookAtTable(MemoryView(s_vecTable.data(), s_vecTable.size()), iMode);
  for (const uint64_t iOffset : vecChanged) {
    memcpy(&s_vecTable[iOffset], &s_vecSound[iOffset], sizeof(uint64_t));
  }
  return 0;
}
