#include "process_view.h"

#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

namespace {

const uint64_t PAGE = 4096;

// Copies of pages of another process, made when they are first asked for.
class ProcessView : public SegmentView {
 public:
  ProcessView(const SegmentStatus_t& stStatus, const Holder_t& stHolder);
  ~ProcessView() override;

  bool IsLive() const override { return true; }
  void Forget() const override;
  uint32_t FreshHalf(uint64_t iOffset) const override;
  std::string Finish() const override;

 protected:
  bool Fetch(uint64_t iOffset, uint64_t iSize) const override;

 private:
  bool FetchPages(uint64_t iPage, uint64_t iCount) const;
  bool Copy(uint64_t iOffset, void* pTo, uint64_t iSize) const;
  bool CopyPart(uint64_t& iOffset, char*& pTo, uint64_t& iSize) const;

  const int m_iId;
  const Holder_t m_stHolder;
  char* m_pCopy = nullptr;
  mutable std::vector<bool> m_vecThere;    // by page
  mutable std::vector<uint64_t> m_vecGot;  // those pages
  mutable int m_iErrno = 0;                // of the first read that failed
};

ProcessView::ProcessView(const SegmentStatus_t& stStatus, const Holder_t& stHolder)
    : m_iId(stStatus.iId), m_stHolder(stHolder) {
  void* pCopy = mmap(nullptr, stStatus.iSize, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (pCopy == MAP_FAILED) {
    m_iErrno = errno;
    return;  // a view of no bytes
  }
  m_pCopy = static_cast<char*>(pCopy);
  m_pBase = m_pCopy;
  m_iSize = stStatus.iSize;
  m_vecThere.resize(m_iSize / PAGE + 1);
}

ProcessView::~ProcessView() {
  if (m_pCopy != nullptr) {
    munmap(m_pCopy, m_iSize);
  }
}

void ProcessView::Forget() const {
  for (const uint64_t iPage : m_vecGot) {
    m_vecThere[iPage] = false;
  }
  m_vecGot.clear();
}

// What one mapping has of it, or nothing.
bool ProcessView::CopyPart(uint64_t& iOffset, char*& pTo, uint64_t& iSize) const {
  for (const Mapping_t& stMapping : m_stHolder.vecMappings) {
    if (iOffset < stMapping.iOffset || iOffset - stMapping.iOffset >= stMapping.iSize) {
      continue;
    }
    const uint64_t iWithin = iOffset - stMapping.iOffset;
    const uint64_t iPart = std::min(iSize, stMapping.iSize - iWithin);
    const iovec stOurs{pTo, iPart};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an address of the other process
    const iovec stTheirs{reinterpret_cast<void*>(stMapping.iAddress + iWithin), iPart};
    if (process_vm_readv(m_stHolder.iPid, &stOurs, 1, &stTheirs, 1, 0) !=
        static_cast<ssize_t>(iPart)) {
      m_iErrno = m_iErrno == 0 ? errno : m_iErrno;
      return false;
    }
    iOffset += iPart;
    pTo += iPart;
    iSize -= iPart;
    return true;
  }
  m_iErrno = m_iErrno == 0 ? EFAULT : m_iErrno;
  return false;
}

bool ProcessView::Copy(uint64_t iOffset, void* pTo, uint64_t iSize) const {
  char* pPart = static_cast<char*>(pTo);
  while (iSize > 0 && CopyPart(iOffset, pPart, iSize)) {
  }
  return iSize == 0;
}

bool ProcessView::Fetch(uint64_t iOffset, uint64_t iSize) const {
  if (iSize == 0) {
    return true;
  }
  const uint64_t iEnd = (iOffset + iSize - 1) / PAGE + 1;
  for (uint64_t iPage = iOffset / PAGE; iPage < iEnd;) {
    uint64_t iMissing = 0;  // pages in a row
    while (iPage + iMissing < iEnd && !m_vecThere[iPage + iMissing]) {
      iMissing += 1;
    }
    if (!FetchPages(iPage, iMissing)) {
      return false;
    }
    iPage += iMissing + 1;
  }
  return true;
}

bool ProcessView::FetchPages(uint64_t iPage, uint64_t iCount) const {
  const uint64_t iBegin = iPage * PAGE;
  if (iCount == 0) {
    return true;
  }
  if (!Copy(iBegin, m_pCopy + iBegin, std::min(iCount * PAGE, m_iSize - iBegin))) {
    return false;
  }
  for (uint64_t i = iPage; i < iPage + iCount; ++i) {
    m_vecThere[i] = true;
    m_vecGot.push_back(i);
  }
  return true;
}

uint32_t ProcessView::FreshHalf(uint64_t iOffset) const {
  uint32_t iValue = 0;
  if (m_iSize >= sizeof(iValue) && iOffset <= m_iSize - sizeof(iValue)) {
    Copy(iOffset, &iValue, sizeof(iValue));
  }
  return iValue;
}

// Why a holder's memory may not be read, for an operator.
std::string DeniedText(pid_t iPid) {
  std::string strScope;
  std::ifstream("/proc/sys/kernel/yama/ptrace_scope") >> strScope;
  return "process " + std::to_string(iPid) +
         " holds it and may not be read: run as root, or with CAP_SYS_PTRACE" +
         (strScope.empty() || strScope == "0" ? ""
                                              : " (kernel.yama.ptrace_scope is " + strScope + ")");
}

// Bytes that came from elsewhere because the process has left the segment meanwhile are noticed
// here.
std::string ProcessView::Finish() const {
  const std::string strPid = std::to_string(m_stHolder.iPid);
  if (m_iErrno == EPERM) {
    return DeniedText(m_stHolder.iPid);
  }
  if (m_iErrno != 0) {
    return "reading process " + strPid + ": " + strerror(m_iErrno);
  }
  const std::vector<Mapping_t> vecNow = FindMappings(m_stHolder.iPid, m_iId);
  for (const Mapping_t& stMapping : m_stHolder.vecMappings) {
    const auto fnSame = [&](const Mapping_t& stNow) {
      return stNow.iAddress == stMapping.iAddress && stNow.iSize == stMapping.iSize;
    };
    if (std::none_of(vecNow.begin(), vecNow.end(), fnSame)) {
      return "process " + strPid + " has left the segment meanwhile";
    }
  }
  return {};
}

class AttachedView : public SegmentView {
 public:
  AttachedView(const void* pAddress, uint64_t iSize) {
    m_pBase = static_cast<const char*>(pAddress);
    m_iSize = iSize;
  }
  ~AttachedView() override { shmdt(m_pBase); }
};

std::unique_ptr<SegmentView> Attach(const SegmentStatus_t& stStatus, std::string* pError) {
  const void* pAddress = shmat(stStatus.iId, nullptr, SHM_RDONLY);
  if (reinterpret_cast<intptr_t>(pAddress) == -1) {
    *pError = std::string("attaching it: ") + strerror(errno);
    return nullptr;
  }
  return std::make_unique<AttachedView>(pAddress, stStatus.iSize);
}

// The first holder that may be read.
std::unique_ptr<SegmentView> OpenLive(const SegmentStatus_t& stStatus, std::string* pError,
                                      const Holders_t* pKnown) {
  const Holders_t stHolders = pKnown != nullptr ? *pKnown : FindHolders(stStatus.iId);
  for (const Holder_t& stHolder : stHolders.vecHolders) {
    auto pView = std::make_unique<ProcessView>(stStatus, stHolder);
    pView->Half(0);
    *pError = pView->Finish();
    if (pError->empty()) {
      return pView;
    }
  }
  if (stHolders.vecHolders.empty()) {
    *pError = "held by " + std::to_string(stStatus.iAttached) +
              " that cannot be seen: of another user, or of another PID namespace (" +
              std::to_string(stHolders.iDenied) + " processes may not be looked at)";
  }
  return nullptr;
}

}  // namespace

std::unique_ptr<SegmentView> OpenSegment(const SegmentStatus_t& stStatus, std::string* pError,
                                         const Holders_t* pKnown) {
  SegmentStatus_t stNow = stStatus;
  pError->clear();
  if (!ReadStatus(stStatus.iId, stNow)) {
    *pError = errno == EINVAL || errno == EIDRM ? "no such segment" : strerror(errno);
    return nullptr;
  }
  if (stNow.iAttached != 0) {
    return OpenLive(stNow, pError, pKnown);
  }
  auto pView = Attach(stNow, pError);
  // Who came at the same moment is to have all of the places.
  if (pView != nullptr && ReadStatus(stNow.iId, stNow) && stNow.iAttached > 1) {
    pView.reset();
    return OpenLive(stNow, pError, nullptr);
  }
  return pView;
}
