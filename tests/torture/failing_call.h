#ifndef ZELK_TESTS_FAILING_CALL_H
#define ZELK_TESTS_FAILING_CALL_H

#include <sys/types.h>

#include <cerrno>
#include <functional>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

// System calls that fail when told, one at a time: the first of a kind in an operation, the second
// and so on, with each error that the system documents for it and that can happen.
//
// It is done to the system calls themselves, by a process that traces the test program: so those
// that the C library makes on behalf of another (fopen(), popen(), dprintf(), gethostbyname()) are
// among them, and those of a forked child until it runs another program. Needs ptrace().

// What becomes of one system call.
struct failure_t {
  std::string strCall;   // the system's name, "openat" for instance
  int iProcess = 0;      // 0 the test program itself, 1 the first child that the operation forks
  int iNumber = 0;       // 1 the first call of that name
  int iErrno = 0;        // 0: it does not fail, but moves fewer bytes
  ssize_t iShorter = 0;  // so many in place of those that were asked for; 0: the end of the file
};

std::ostream& operator<<(std::ostream& stOut, const failure_t& stFailure);

// Some of the failures of a call.
struct kind_t {
  const char* pCall;
  int iErrno = -1;  // any
  int iNumber = 0;  // any
};

bool operator==(const failure_t& stFailure, const kind_t& stKind);

// One life of the operation. FailEachCall() makes them, the test's function runs in it.
class Attempt {
 public:
  explicit Attempt(const failure_t* pFailure) : m_pFailure(pFailure) {}
  Attempt(const Attempt&) = delete;
  Attempt& operator=(const Attempt&) = delete;

  // Runs the operation with the failure ahead of it, and returns its result. Once an attempt.
  template <class Operation_t>
  auto Run(const Operation_t& fnOperation) {
    const Armed stArmed(*this);
    return fnOperation();
  }

  // errno as the operation has left it; it was 0 before.
  int Errno() const { return m_iErrno; }

  // Whether a call has failed: in the first attempt none does, nor when there was no such call.
  bool Fails() const { return m_bReached; }
  // Whether one of these fails in the test program itself.
  bool FailsIn(std::initializer_list<kind_t> listKinds) const;
  const failure_t& Failure() const { return *m_pFailure; }
  bool InChild() const { return Fails() && m_pFailure->iProcess != 0; }

 private:
  friend class Sweep;

  // Hands the failure to the tracer for as long as it lives.
  class Armed {
   public:
    explicit Armed(Attempt& stAttempt);
    ~Armed();
    Armed(const Armed&) = delete;
    Armed& operator=(const Armed&) = delete;

   private:
    Attempt& m_stAttempt;
  };

  const failure_t* m_pFailure;
  int m_iErrno = 0;
  bool m_bReached = false;
};

// Calls fnAttempt without a failure first, to see which system calls its operation makes, and then
// once for each failure of each of these. fnAttempt arranges, runs the operation by Attempt::Run()
// and checks what has become of it; all that it makes must be gone when it returns.
//
// After each attempt there must be no descriptor, no mapped segment, no segment, no child and no
// heap memory more than before. A hanging one ends the program. Returns the number of failures, of
// which there must be some; the program prints the sum of all at its end.
//
// When the number of calls depends on how another process comes along, the last ones are tried as
// far as they come again.
//
// iNumbers: an operation that does the same again and again, for as many things as the system
// happens to have, fails in so many of the calls of a name. vecImpossible: failures that are not
// tried, since the system has none on what the calls are about, a pipe for instance.
int FailEachCall(const std::function<void(Attempt&)>& fnAttempt, int iNumbers = 1000,
                 const std::vector<kind_t>& vecImpossible = {});

#endif
