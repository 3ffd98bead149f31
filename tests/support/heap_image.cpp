#include "heap_image.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstring>
#include <map>
#include <set>
#include <stdexcept>

namespace {

// The formats, written down here a second time on purpose.
const uint64_t CURRENT_OFFSET = 56;
const uint64_t LISTS = 80;
const uint64_t LIST_COUNT = 524288;
const uint64_t RESERVED_BEGIN = 4194384;
const uint64_t BUCKETS = RESERVED_BEGIN + 56;
const uint64_t ENTRY_HEAD = 16;

shmid_ds Status(int iShmID) {
  shmid_ds stStatus{};
  if (shmctl(iShmID, IPC_STAT, &stStatus) != 0) {
    throw std::runtime_error("shmctl");
  }
  return stStatus;
}

uint64_t ReferenceHash(const std::string& strKey) {
  uint64_t iHash = 2166136261u;
  for (const char c : strKey) {
    const int64_t iByte =
        static_cast<unsigned char>(c) < 128 ? c : static_cast<unsigned char>(c) - 256;
    iHash = (iHash ^ static_cast<uint64_t>(iByte)) * 16777619u;
  }
  return iHash;
}

class Walker {
 public:
  explicit Walker(const HeapImage& stSegment) : m_stSegment(stSegment) {}

  SegmentReport_t Heap() {
    WalkBlocks();
    for (uint64_t i = 0; i < LIST_COUNT; ++i) {
      WalkList(i);
    }
    const auto iHandedOut = m_stReport.iBlocks - m_stReport.iFreeBlocks;
    m_stReport.iBlockCountExcess = Excess(m_stSegment.Word(32), iHandedOut);
    m_stReport.iManagedSizeExcess = Excess(m_stSegment.Word(64), m_iFreeBytes);
    return m_stReport;
  }

  SegmentReport_t Table() {
    Heap();
    const uint64_t iCount = m_stSegment.Half(RESERVED_BEGIN);
    for (uint64_t i = 0; i < iCount; ++i) {
      WalkChain(i, iCount);
    }
    m_stReport.iObjectCountExcess =
        Excess(m_stSegment.Word(RESERVED_BEGIN + 8), m_stReport.iEntries);
    m_stReport.iTotalKeySizeExcess = Excess(m_stSegment.Word(RESERVED_BEGIN + 32), m_iKeyBytes);
    m_stReport.iTotalValueSizeExcess = Excess(m_stSegment.Word(RESERVED_BEGIN + 40), m_iValueBytes);
    return m_stReport;
  }

 private:
  static int64_t Excess(uint64_t iCounter, uint64_t iCounted) {
    return static_cast<int64_t>(iCounter - iCounted);
  }

  void Fault(const std::string& strWhat, uint64_t iOffset) {
    m_stReport.vecFaults.push_back(strWhat + " at " + std::to_string(iOffset));
  }

  // Blocks lie one behind the other, each beginning with its size.
  void WalkBlocks() {
    const uint64_t iEnd = m_stSegment.Word(CURRENT_OFFSET);
    uint64_t iOffset = RESERVED_BEGIN + m_stSegment.Word(48);
    if (iEnd > m_stSegment.Word(0)) {
      return Fault("carved beyond the segment", iEnd);
    }
    while (iOffset < iEnd) {
      const uint64_t iSize = m_stSegment.Word(iOffset);
      if (iSize == 0 || iSize % 8 != 0 || iSize > iEnd - iOffset) {
        return Fault("block of impossible size " + std::to_string(iSize), iOffset);
      }
      m_mapBlocks[iOffset] = iSize;
      iOffset += iSize;
    }
    m_stReport.iBlocks = m_mapBlocks.size();
  }

  // A block may be used once: by a list or by an entry.
  bool Use(uint64_t iOffset, const std::string& strBy) {
    if (m_mapBlocks.count(iOffset) == 0) {
      Fault(strBy + " of no block", iOffset);
      return false;
    }
    if (!m_setUsed.insert(iOffset).second) {
      Fault(strBy + " of a block in use", iOffset);
      return false;
    }
    return true;
  }

  void WalkList(uint64_t iIndex) {
    uint64_t iOffset = m_stSegment.Word(LISTS + iIndex * 8);
    while (iOffset != 0 && Use(iOffset, "list")) {
      if (m_mapBlocks[iOffset] != (iIndex + 1) * 8) {
        Fault("block on a list of another size", iOffset);
      }
      m_stReport.iFreeBlocks += 1;
      m_iFreeBytes += m_mapBlocks[iOffset];
      iOffset = m_stSegment.Word(iOffset + 8);
    }
  }

  void WalkChain(uint64_t iBucket, uint64_t iBucketCount) {
    const uint64_t iHead = BUCKETS + iBucket * 16;
    uint64_t iLength = 0;
    uint64_t iOffset = m_stSegment.Word(iHead + 8);
    while (iOffset != 0 && Use(iOffset - 8, "entry")) {
      CheckEntry(iOffset, iBucket, iBucketCount);
      iLength += 1;
      iOffset = m_stSegment.Word(iOffset);
    }
    m_stReport.iEntries += iLength;
    m_stReport.iBucketSizeExcess += Excess(m_stSegment.Half(iHead), iLength);
  }

  void CheckEntry(uint64_t iOffset, uint64_t iBucket, uint64_t iBucketCount) {
    const uint64_t iKeySize = m_stSegment.Half(iOffset + 8);
    const uint64_t iValueSize = m_stSegment.Half(iOffset + 12);
    if (8 + ENTRY_HEAD + iKeySize + iValueSize > m_mapBlocks[iOffset - 8] || iKeySize == 0) {
      return Fault("entry larger than its block", iOffset);
    }
    const std::string strKey(m_stSegment.Base() + iOffset + ENTRY_HEAD, iKeySize);
    if (strKey.find('\0') != iKeySize - 1) {
      return Fault("key and its size differ", iOffset);
    }
    if (ReferenceHash(strKey.c_str()) % iBucketCount != iBucket) {
      Fault("key in a foreign bucket", iOffset);
    }
    m_iKeyBytes += iKeySize;
    m_iValueBytes += iValueSize;
  }

  const HeapImage& m_stSegment;
  SegmentReport_t m_stReport;
  std::map<uint64_t, uint64_t> m_mapBlocks;  // offset to size
  std::set<uint64_t> m_setUsed;
  uint64_t m_iFreeBytes = 0;
  uint64_t m_iKeyBytes = 0;
  uint64_t m_iValueBytes = 0;
};

}  // namespace

HeapImage::HeapImage(key_t iKey, size_t iCreateSize)
    : m_iShmID(shmget(iKey, iCreateSize, iCreateSize == 0 ? 0 : IPC_CREAT | IPC_EXCL | 0600)),
      m_pBase(static_cast<char*>(shmat(m_iShmID, nullptr, 0))) {
  if (m_pBase == reinterpret_cast<char*>(-1)) {
    throw std::runtime_error(std::string("segment: ") + strerror(errno));
  }
}

HeapImage::~HeapImage() { shmdt(m_pBase); }

size_t HeapImage::Size() const { return Status(m_iShmID).shm_segsz; }

mode_t HeapImage::Mode() const { return Status(m_iShmID).shm_perm.mode; }

size_t HeapImage::Attachments() const { return Status(m_iShmID).shm_nattch; }

uint64_t HeapImage::Word(uint64_t iOffset) const {
  uint64_t iValue = 0;
  memcpy(&iValue, m_pBase + iOffset, sizeof(iValue));
  return iValue;
}

uint32_t HeapImage::Half(uint64_t iOffset) const {
  uint32_t iValue = 0;
  memcpy(&iValue, m_pBase + iOffset, sizeof(iValue));
  return iValue;
}

void HeapImage::SetWord(uint64_t iOffset, uint64_t iValue) {
  memcpy(m_pBase + iOffset, &iValue, sizeof(iValue));
}

void HeapImage::SetHalf(uint64_t iOffset, uint32_t iValue) {
  memcpy(m_pBase + iOffset, &iValue, sizeof(iValue));
}

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

SegmentReport_t CheckHeap(const HeapImage& stSegment) { return Walker(stSegment).Heap(); }

SegmentReport_t CheckTable(const HeapImage& stSegment) { return Walker(stSegment).Table(); }
