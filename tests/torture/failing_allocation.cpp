#include "failing_allocation.h"

#include <dlfcn.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <link.h>
#include <pthread.h>
#include <regex.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <fstream>
#include <string>
#include <vector>

#include "test_support.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FAIL_OPERATOR_NEW
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define FAIL_OPERATOR_NEW
#endif

namespace {

// What Run() has set up in its thread.
struct State_t {
  int iCountdown = 0;      // 1: the next allocation fails; 0: none
  bool bAllLater = false;  // and those after it, too
  bool bFailed = false;
  bool bForLibrary = false;  // what is allocated is that of the library with an exception
};
thread_local State_t t_stState;

std::atomic<long> g_iLive{0};  // allocations that were not freed

// The library with an exception.
struct Rule_t {
  uintptr_t iBegin = 0;
  uintptr_t iEnd = 0;
  LibraryRule::Kind_t eKind = LibraryRule::SOUND;

  bool Concerns(const void* pCaller, LibraryRule::Kind_t eAsked) const {
    const auto iCaller = reinterpret_cast<uintptr_t>(pCaller);
    return iCaller >= iBegin && iCaller < iEnd && eKind == eAsked;
  }
};
Rule_t g_stRule;

// What a leaky library has allocated, which is not counted; the latest is mostly freed first.
const int MAX_UNCOUNTED = 16384;
void* g_aUncounted[MAX_UNCOUNTED];
int g_iUncounted = 0;

bool TakeUncounted(const void* pMemory) {
  for (int i = g_iUncounted - 1; i >= 0; --i) {
    if (g_aUncounted[i] == pMemory) {
      g_aUncounted[i] = g_aUncounted[--g_iUncounted];
      return true;
    }
  }
  return false;
}

// Whether the allocation asked for from pCaller is to fail.
bool Fails(const void* pCaller) {
  State_t& stState = t_stState;
  if (stState.iCountdown == 0 || g_stRule.Concerns(pCaller, LibraryRule::SOUND)) {
    return false;
  }
  if (stState.iCountdown > 1) {
    --stState.iCountdown;
    return false;
  }
  stState.iCountdown = stState.bAllLater ? 1 : 0;
  stState.bFailed = true;
  errno = ENOMEM;
  return true;
}

void* Counted(void* pMemory, const void* pCaller) {
  if (pMemory == nullptr) {
    return nullptr;
  }
  const void* const pFor =
      t_stState.bForLibrary ? reinterpret_cast<const void*>(g_stRule.iBegin) : pCaller;
  if (!g_stRule.Concerns(pFor, LibraryRule::LEAKY)) {
    g_iLive.fetch_add(1, std::memory_order_relaxed);
  } else if (g_iUncounted < MAX_UNCOUNTED) {
    g_aUncounted[g_iUncounted++] = pMemory;
  } else {
    abort();
  }
  return pMemory;
}

void Uncount(const void* pMemory) {
  if (pMemory != nullptr && !TakeUncounted(pMemory)) {
    g_iLive.fetch_sub(1, std::memory_order_relaxed);
  }
}

}  // namespace

#define CALLER __builtin_return_address(0)

#ifdef FAIL_OPERATOR_NEW

namespace {

void* NewOrNull(size_t iSize, const void* pCaller) {
  return Fails(pCaller) ? nullptr : Counted(malloc(iSize > 0 ? iSize : 1), pCaller);
}

void* New(size_t iSize, const void* pCaller) {
  void* pMemory = NewOrNull(iSize, pCaller);
  if (pMemory == nullptr) {
    throw std::bad_alloc();
  }
  return pMemory;
}

void Delete(void* pMemory) noexcept {
  Uncount(pMemory);
  free(pMemory);
}

}  // namespace

// Not in line: a compiler that sees half of a pair warns that the halves do not fit.
[[gnu::noinline]] void* operator new(size_t iSize) { return New(iSize, CALLER); }
[[gnu::noinline]] void* operator new[](size_t iSize) { return New(iSize, CALLER); }
[[gnu::noinline]] void* operator new(size_t iSize, const std::nothrow_t&) noexcept {
  return NewOrNull(iSize, CALLER);
}
[[gnu::noinline]] void* operator new[](size_t iSize, const std::nothrow_t&) noexcept {
  return NewOrNull(iSize, CALLER);
}
[[gnu::noinline]] void operator delete(void* pMemory) noexcept { Delete(pMemory); }
[[gnu::noinline]] void operator delete[](void* pMemory) noexcept { Delete(pMemory); }
[[gnu::noinline]] void operator delete(void* pMemory, size_t) noexcept { Delete(pMemory); }
[[gnu::noinline]] void operator delete[](void* pMemory, size_t) noexcept { Delete(pMemory); }
[[gnu::noinline]] void operator delete(void* pMemory, const std::nothrow_t&) noexcept {
  Delete(pMemory);
}
[[gnu::noinline]] void operator delete[](void* pMemory, const std::nothrow_t&) noexcept {
  Delete(pMemory);
}

#else

// The C library's own, under the names that it has for this purpose.
extern "C" {

void* __libc_malloc(size_t iSize);
void* __libc_calloc(size_t iCount, size_t iSize);
void* __libc_realloc(void* pMemory, size_t iSize);
void* __libc_memalign(size_t iAlignment, size_t iSize);
void __libc_free(void* pMemory);

void* malloc(size_t iSize) noexcept {
  return Fails(CALLER) ? nullptr : Counted(__libc_malloc(iSize), CALLER);
}

void* calloc(size_t iCount, size_t iSize) noexcept {
  return Fails(CALLER) ? nullptr : Counted(__libc_calloc(iCount, iSize), CALLER);
}

void* realloc(void* pMemory, size_t iSize) noexcept {
  if (pMemory != nullptr && iSize == 0) {
    Uncount(pMemory);
    return __libc_realloc(pMemory, 0);  // frees it
  }
  if (Fails(CALLER)) {
    return nullptr;
  }
  void* pNew = __libc_realloc(pMemory, iSize);
  if (pNew != nullptr) {
    Uncount(pMemory);
  }
  return Counted(pNew, CALLER);
}

void* memalign(size_t iAlignment, size_t iSize) noexcept {
  return Fails(CALLER) ? nullptr : Counted(__libc_memalign(iAlignment, iSize), CALLER);
}

void* aligned_alloc(size_t iAlignment, size_t iSize) noexcept {
  return Fails(CALLER) ? nullptr : Counted(__libc_memalign(iAlignment, iSize), CALLER);
}

int posix_memalign(void** ppMemory, size_t iAlignment, size_t iSize) noexcept {
  void* pMemory = Fails(CALLER) ? nullptr : Counted(__libc_memalign(iAlignment, iSize), CALLER);
  if (pMemory == nullptr) {
    return ENOMEM;
  }
  *ppMemory = pMemory;
  return 0;
}

void free(void* pMemory) noexcept {
  Uncount(pMemory);
  __libc_free(pMemory);
}

}  // extern "C"

// See the header.
extern "C" int regcomp(regex_t* pRegex, const char* pPattern, int iFlags) {
  static const auto fnReal = reinterpret_cast<decltype(&regcomp)>(dlsym(RTLD_NEXT, "regcomp"));
  if (MB_CUR_MAX > 1) {
    if (FailsAsAWhole()) {
      return REG_ESPACE;
    }
    const NoFailing stNone;
    return fnReal(pRegex, pPattern, iFlags);
  }
  const long iLive = g_iLive;
  const int iResult = fnReal(pRegex, pPattern, iFlags);
  if (iResult == REG_ESPACE) {
    g_iLive = iLive;
  }
  return iResult;
}

// Answers twice like glob() without memory: at the start, and at a directory.
extern "C" int glob(const char* pPattern, int iFlags, int (*fnError)(const char*, int),
                    glob_t* pGlob) noexcept {
  static const auto fnReal =
      reinterpret_cast<decltype(&glob)>(dlvsym(RTLD_NEXT, "glob", "GLIBC_2.27"));
  if (FailsAsAWhole()) {
    return GLOB_NOSPACE;
  }
  if (FailsAsAWhole()) {
    return fnError != nullptr && fnError(pPattern, ENOMEM) != 0 ? GLOB_ABORTED : GLOB_NOMATCH;
  }
  const NoFailing stNone;
  return fnReal(pPattern, iFlags, fnError, pGlob);
}

#endif

namespace {

// A child of the library's goes its own way.
void DisarmChild() { t_stState = State_t(); }
[[maybe_unused]] const int REGISTERED = pthread_atfork(nullptr, nullptr, DisarmChild);

struct Search_t {
  const char* pName;
  Rule_t stFound;
};

int NoteCode(dl_phdr_info* pInfo, size_t /*iSize*/, void* pSearch) {
  auto* const pFor = static_cast<Search_t*>(pSearch);
  if (strstr(pInfo->dlpi_name, pFor->pName) == nullptr) {
    return 0;
  }
  for (int i = 0; i < pInfo->dlpi_phnum; ++i) {
    const auto& stHeader = pInfo->dlpi_phdr[i];
    if (stHeader.p_type == PT_LOAD && (stHeader.p_flags & PF_X) != 0) {
      pFor->stFound.iBegin = pInfo->dlpi_addr + stHeader.p_vaddr;
      pFor->stFound.iEnd = pFor->stFound.iBegin + stHeader.p_memsz;
    }
  }
  return 1;
}

int AttachedSegments() {
  int iSegments = 0;
  std::ifstream stMaps("/proc/self/maps");
  for (std::string strLine; std::getline(stMaps, strLine);) {
    iSegments += strLine.find("/SYSV") != std::string::npos ? 1 : 0;
  }
  return iSegments;
}

int Children() {
  std::ifstream stFile("/proc/self/task/" + std::to_string(getpid()) + "/children");
  int iChildren = 0;
  for (int iPid = 0; stFile >> iPid;) {
    ++iChildren;
  }
  return iChildren;
}

struct Sum_t {
  int iOperations = 0;
  int iAllocations = 0;
  int iFailures = 0;
};
Sum_t g_stSum;

class PrintSum : public ::testing::Environment {
 public:
  void TearDown() override {
    printf("[ memory   ] sum: %d operations, %d allocations, %d failures\n", g_stSum.iOperations,
           g_stSum.iAllocations, g_stSum.iFailures);
  }
};
[[maybe_unused]] const ::testing::Environment* const ENVIRONMENT =
    ::testing::AddGlobalTestEnvironment(new PrintSum);

void Print(const char* pOperation, int iAllocations, int iFailures) {
  ++g_stSum.iOperations;
  g_stSum.iAllocations += iAllocations;
  g_stSum.iFailures += iFailures;
  printf("[ memory   ] %s: %d allocations, %d failures\n", pOperation, iAllocations, iFailures);
}

}  // namespace

void UseMultibyteLocale() {
  ASSERT_NE(nullptr, setlocale(LC_ALL, "C.UTF-8"));
  ASSERT_EQ(2, mblen("\xc3\xa9", 2));
  ASSERT_EQ(WEOF, btowc(0x80));
}

#ifdef FAIL_OPERATOR_NEW
const bool MALLOC_FAILS = false;
#else
const bool MALLOC_FAILS = true;
#endif

bool FailsAsAWhole() { return Fails(nullptr); }

NoFailing::NoFailing() : m_iCountdown(t_stState.iCountdown) {
  t_stState.iCountdown = 0;
  t_stState.bForLibrary = true;
}

NoFailing::~NoFailing() {
  t_stState.iCountdown = m_iCountdown;
  t_stState.bForLibrary = false;
}

LibraryRule::LibraryRule(const std::string& strName, Kind_t eKind) {
  Search_t stSearch{strName.c_str(), {}};
  dl_iterate_phdr(NoteCode, &stSearch);
  EXPECT_NE(0u, stSearch.stFound.iBegin) << strName;
  g_stRule = stSearch.stFound;
  g_stRule.eKind = eKind;
}

LibraryRule::~LibraryRule() {
  g_stRule = Rule_t();
  g_iLive += g_iUncounted;  // what is freed later was counted
  g_iUncounted = 0;
}

void FailingAllocation::Arm() const { t_stState = {m_iNumber, m_bAllLater, false, false}; }

void FailingAllocation::Disarm() {
  m_bFailed = t_stState.bFailed;
  t_stState = State_t();
}

class AllocationRounds {
 public:
  AllocationRounds(const char* pOperation, const AllocationRound_t& fnRound)
      : m_pOperation(pOperation), m_fnRound(fnRound) {}

  int InThisProcess() {
    const int iSegments = AttachedSegments();
    const int iChildren = Children();
    return Go([&](int iNumber, bool bAllLater) { return RoundWithoutTrace(iNumber, bAllLater); },
              [&] {
                EXPECT_EQ(iSegments, AttachedSegments()) << m_pOperation;
                EXPECT_EQ(iChildren, Children()) << m_pOperation;
              });
  }

  int InChildren() {
    return Go([&](int iNumber, bool bAllLater) { return RoundInChild(iNumber, bAllLater); }, [] {});
  }

 private:
  enum { THROUGH = 0, FAILED = 1, WRONG = 2 };

  template <typename Round, typename AtEnd>
  int Go(const Round& fnRound, const AtEnd& fnAtEnd) {
    int iAllocations = 0;
    int iFailures = 0;
    EXPECT_EQ(THROUGH, fnRound(0, false)) << m_pOperation;
    for (const bool bAllLater : {false, true}) {
      int iNumber = 1;
      while (!::testing::Test::HasFailure() && fnRound(iNumber, bAllLater) != THROUGH) {
        ++iNumber;
      }
      iAllocations = bAllLater ? iAllocations : iNumber - 1;
      iFailures += iNumber - 1;
    }
    fnAtEnd();
    Print(m_pOperation, iAllocations, iFailures);
    return iAllocations;
  }

  int Round(int iNumber, bool bAllLater) {
    FailingAllocation stMemory(iNumber, bAllLater);
    m_fnRound(stMemory);
    return stMemory.Failed() ? FAILED : THROUGH;
  }

  // What is left behind again and again is lost; once may be a cache that is filled late.
  int RoundWithoutTrace(int iNumber, bool bAllLater) {
    SCOPED_TRACE(Name(iNumber, bAllLater));
    int iResult = THROUGH;
    long iLeft = 0;
    int iOpened = 0;
    for (int i = 0; i < ATTEMPTS; ++i) {
      const int iOpen = OpenDescriptors();
      const long iLive = g_iLive;
      iResult = Round(iNumber, bAllLater);
      iLeft = g_iLive - iLive;
      iOpened = OpenDescriptors() - iOpen;
      if ((iLeft == 0 && iOpened == 0) || iNumber == 0 || ::testing::Test::HasFailure()) {
        return iResult;
      }
    }
    EXPECT_EQ(0, iLeft) << "allocations not freed";
    EXPECT_EQ(0, iOpened) << "descriptors not closed";
    return iResult;
  }

  int RoundInChild(int iNumber, bool bAllLater) {
    SCOPED_TRACE(Name(iNumber, bAllLater));
    ForkedPeer stChild([&] {
      const int iResult = Round(iNumber, bAllLater);
      return ::testing::Test::HasFailure() ? WRONG : iResult;
    });
    const int iResult = stChild.Wait();
    EXPECT_TRUE(iResult == THROUGH || iResult == FAILED) << iResult;
    return iResult;
  }

  std::string Name(int iNumber, bool bAllLater) const {
    return std::string(m_pOperation) + ", failing allocation " + std::to_string(iNumber) +
           (bAllLater ? " and all later" : "");
  }

  static const int ATTEMPTS = 3;

  const char* const m_pOperation;
  const AllocationRound_t& m_fnRound;
};

int ForEachFailingAllocation(const char* pOperation, const AllocationRound_t& fnRound) {
  return AllocationRounds(pOperation, fnRound).InThisProcess();
}

int ForEachFirstAllocation(const char* pOperation, const AllocationRound_t& fnRound) {
  return AllocationRounds(pOperation, fnRound).InChildren();
}
