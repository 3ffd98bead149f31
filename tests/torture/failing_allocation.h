#ifndef ZELK_TESTS_FAILING_ALLOCATION_H
#define ZELK_TESTS_FAILING_ALLOCATION_H

#include <functional>
#include <new>
#include <string>

// Memory that runs out at every point of an operation in turn.
//
// A program that links this has its own malloc family in front of the C library's, for all that is
// loaded into it: operator new, libxml2 and the C library itself included. Built with
// AddressSanitizer, whose allocator must stay, it has its own operator new instead, and what comes
// from malloc() itself does not fail.
//
// Two functions of glibc do not survive a lack of memory as they should: what regcomp() leaks is
// not counted, and glob(), which crashes, fails as a whole.

// Whether malloc() and its family fail, too.
extern const bool MALLOC_FAILS;

// One round of ForEachFailingAllocation().
class FailingAllocation {
 public:
  // Runs the operation; false when it ended by bad_alloc. Other exceptions pass.
  template <typename Operation>
  bool Run(const Operation& fnOperation) {
    bool bReturned = false;
    Arm();
    try {
      fnOperation();
      bReturned = true;
    } catch (const std::bad_alloc&) {
    } catch (...) {
      Disarm();
      throw;
    }
    Disarm();
    return bReturned;
  }

  // The result of the operation, or what it is to be when it ended by bad_alloc.
  template <typename Result, typename Operation>
  Result Run(const Result& tOtherwise, const Operation& fnOperation) {
    Result tResult = tOtherwise;
    Run([&] { tResult = fnOperation(); });
    return tResult;
  }

  // Whether Run() has come to the allocation that fails.
  bool Failed() const { return m_bFailed; }

 private:
  friend class AllocationRounds;
  FailingAllocation(int iNumber, bool bAllLater) : m_iNumber(iNumber), m_bAllLater(bAllLater) {}
  void Arm() const;
  void Disarm();

  const int m_iNumber;  // counted from 1; 0 for none
  const bool m_bAllLater;
  bool m_bFailed = false;
};

typedef std::function<void(FailingAllocation&)> AllocationRound_t;

// Calls fnRound, which makes its subject, calls Run() once and checks what is left, with the first
// allocation inside Run() failing, then with the second, up to the one that Run() no longer comes
// to; first each alone, then each with all later ones. After every round no memory and no
// descriptor may be left that was not there before, at the end no attached segment and no child.
//
// A round comes first in which nothing fails: it makes what is made once in a process. Returns how
// many allocations the operation has, and prints it; the program prints the sum at its end.
int ForEachFailingAllocation(const char* pOperation, const AllocationRound_t& fnRound);

// The same for what is made once in a process: every round runs in a fresh child, the first one
// too, so there is no round before and no search for what is left.
int ForEachFirstAllocation(const char* pOperation, const AllocationRound_t& fnRound);

// Sets a locale whose characters have several bytes. glibc makes its conversions at their first
// use, which this is: without memory then, it would take the characters for single bytes ever
// after.
void UseMultibyteLocale();

// For a function of a test program that stands before one of a library which does not survive the
// lack of memory: whether this call is to fail as a whole, as if it were one allocation.
bool FailsAsAWhole();

// While it lives, nothing fails, and allocations count as those of the library with an exception.
class NoFailing {
 public:
  NoFailing();
  ~NoFailing();
  NoFailing(const NoFailing&) = delete;
  NoFailing& operator=(const NoFailing&) = delete;

 private:
  const int m_iCountdown;
};

// An exception for the allocations of one library itself, while the object lives; strName is a part
// of its file's name. One at a time.
class LibraryRule {
 public:
  enum Kind_t {
    SOUND,  // they do not fail: for libraries that do not survive it, and to see what is not freed
    LEAKY   // they fail, and are not counted: for libraries that lose memory then
  };
  LibraryRule(const std::string& strName, Kind_t eKind);
  ~LibraryRule();
  LibraryRule(const LibraryRule&) = delete;
  LibraryRule& operator=(const LibraryRule&) = delete;
};

#endif
