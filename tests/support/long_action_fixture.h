#ifndef ZELK_TESTS_LONG_ACTION_FIXTURE_H
#define ZELK_TESTS_LONG_ACTION_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "long_action_util.h"
#include "test_support.h"

// A long action that is a function. Its child dies with the test program, whatever it waits for.
class Work : public LongActionMethod {
 public:
  explicit Work(std::function<int()> fnWork);
  int Do() override;

 private:
  std::function<int()> m_fnWork;
  pid_t m_iHost;
};

// A runner of the test's own: the process-wide one has one table for all tests.
class OwnUtil : public LongActionUtil {};

typedef std::unique_ptr<long_action_response_t> Response_t;

// A host with an epoll set and a runner. Children that a test leaves are killed and reaped.
class LongActionFixture : public ::testing::Test {
 protected:
  LongActionFixture();
  ~LongActionFixture() override;

  // Starts a child by Perform() or Perform2() and returns its pid.
  pid_t Start(const std::function<int()>& fnWork, unsigned int iMachineID = 0,
              unsigned int iFlowno = 0);
  pid_t Start2(const std::function<int()>& fnWork, int& iStdoutFD, int& iStderrFD);

  // Waits until a child has ended, without reaping it; WaitAndReap() reaps it behind the runner's
  // back.
  static void WaitForEnd(pid_t iPid);
  static void WaitAndReap(pid_t iPid);

  // One turn of the event loop: how many read ends were readable.
  int Turn(int iMilliseconds = 0);
  // Turns until nothing is readable.
  void Drain();
  // What the runner makes of a child that has ended: waits, drains, sweeps and polls. A failure and
  // an empty response with code -1 when that is nothing.
  Response_t Finish(pid_t iPid);
  // Start() and Finish().
  Response_t Run(const std::function<int()>& fnWork);
  Response_t Poll() { return Response_t(m_stUtil.PollChild()); }
  Response_t Exit(pid_t iPid, int iStatus) { return Response_t(m_stUtil.ChildExit(iPid, iStatus)); }

  const int m_iEpollFD;
  OwnUtil m_stUtil;

 private:
  pid_t NewestChild(const std::vector<int>& vecBefore) const;
};

// The exit code; -1 of no response.
int CodeOf(const Response_t& pResponse);

// Work that goes on until the child is killed.
int WorkForEver();

// One write() of the whole text.
void WriteText(int iFD, const std::string& strText);

#endif
