// Many children, and hosts that reap them themselves.

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "long_action_fixture.h"
#include "process_util.h"

namespace {

const size_t SWEPT_CHILDREN = 1000;
const rlim_t DESCRIPTORS = 4 * (SWEPT_CHILDREN + 1) + 100;

class LongActionLoadTest : public LongActionFixture {
 protected:
  // Ends all children that wait in WorkForEver().
  void KillAll() {
    for (const int iPid : m_stUtil.EnumAllChildren()) {
      SendSignal(iPid, SIGKILL);
    }
    for (const int iPid : m_stUtil.EnumAllChildren()) {
      WaitForEnd(iPid);
    }
  }
};

// The soft limit of descriptors raised for a while.
class MoreDescriptors {
 public:
  explicit MoreDescriptors(rlim_t iCount) {
    getrlimit(RLIMIT_NOFILE, &m_stBefore);
    const rlimit stMore{std::max(iCount, m_stBefore.rlim_cur), m_stBefore.rlim_max};
    m_bEnough = setrlimit(RLIMIT_NOFILE, &stMore) == 0;
  }
  ~MoreDescriptors() { setrlimit(RLIMIT_NOFILE, &m_stBefore); }
  MoreDescriptors(const MoreDescriptors&) = delete;
  MoreDescriptors& operator=(const MoreDescriptors&) = delete;

  bool Enough() const { return m_bEnough; }

 private:
  rlimit m_stBefore{};
  bool m_bEnough;
};

TEST_F(LongActionLoadTest, ChildNumber1001RunsUnseenByTheSweep) {
  const MoreDescriptors stMore(DESCRIPTORS);
  if (!stMore.Enough()) {
    GTEST_SKIP() << "the hard limit of descriptors is too low";
  }
  const int iOpen = OpenDescriptors();
  for (size_t i = 0; i < SWEPT_CHILDREN; ++i) {
    Start(WorkForEver);
  }
  EXPECT_FALSE(m_stUtil.IsLongAction(0, 0));  // no slot is free
  const pid_t iLast = Start(WorkForEver);
  EXPECT_EQ(SWEPT_CHILDREN + 1, m_stUtil.EnumAllChildren().size());
  EXPECT_FALSE(m_stUtil.IsLongAction(iLast, 0));

  KillAll();
  m_stUtil.IsLongAction(0, 0);
  size_t iPolled = 0;
  while (Poll() != nullptr) {
    ++iPolled;
  }
  EXPECT_EQ(SWEPT_CHILDREN, iPolled);
  EXPECT_EQ(std::vector<int>{iLast}, m_stUtil.EnumAllChildren());
  WaitAndReap(iLast);  // still ours to reap: nobody else has
  EXPECT_EQ(7, CodeOf(Exit(iLast, 7)));
  EXPECT_EQ(iOpen, OpenDescriptors());
}

TEST_F(LongActionLoadTest, AThousandActionsLeaveNoDescriptorAndNoChild) {
  const int iOpen = OpenDescriptors();
  for (int i = 0; i < 20; ++i) {
    std::vector<pid_t> vecPids;
    for (int j = 0; j < 50; ++j) {
      vecPids.push_back(Start(
          [j]() -> int {
            WriteText(1, std::to_string(j));
            _exit(j);  // sooner over than exit()
          },
          static_cast<unsigned int>(j)));
    }
    for (const pid_t iPid : vecPids) {
      const Response_t pResponse = Finish(iPid);
      EXPECT_EQ(pResponse->iMachineID, pResponse->iRetcode);
      EXPECT_EQ(std::to_string(pResponse->iMachineID), pResponse->strStdOut);
    }
  }
  EXPECT_EQ(iOpen, OpenDescriptors());
  EXPECT_TRUE(m_stUtil.EnumAllChildren().empty());
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
}

TEST_F(LongActionLoadTest, HostThatReapsItselfFinishesMoreChildrenThanThereAreSlots) {
  const int iOpen = OpenDescriptors();
  for (size_t i = 0; i < SWEPT_CHILDREN + 50; i += 50) {
    for (int j = 0; j < 50; ++j) {
      Start([]() -> int { _exit(0); });
    }
    for (const int iPid : m_stUtil.EnumAllChildren()) {
      WaitAndReap(iPid);
      EXPECT_NE(nullptr, Exit(iPid, 0));
    }
  }
  EXPECT_FALSE(m_stUtil.IsLongAction(0, 0));  // every slot stays in use
  EXPECT_EQ(iOpen, OpenDescriptors());
}

// With signal_init() the handler reaps every child and keeps no status: the sweep learns nothing,
// and the host finishes its children through ChildExit().
class HostWithSignalInitTest : public LongActionFixture {
 protected:
  static bool IsGone(pid_t iPid) { return kill(iPid, 0) == -1 && errno == ESRCH; }

  // Runs in a child of the test, whose handlers are its own.
  bool SweepLearnsNothingAndChildExitFinishes() {
    signal_init();
    const int iOpen = OpenDescriptors();
    const pid_t iPid = Start([] {
      WriteText(1, "done");
      return 3;
    });
    if (!WaitUntil([&] { return IsGone(iPid); })) {
      return false;
    }
    const bool bKnown = m_stUtil.IsLongAction(iPid, 0);
    const bool bPolled = Poll() != nullptr;
    Drain();
    const Response_t pResponse = Exit(iPid, 3);
    return bKnown && !bPolled && pResponse != nullptr && pResponse->strStdOut == "done" &&
           pResponse->iRetcode == 3 && OpenDescriptors() == iOpen;
  }
};

TEST_F(HostWithSignalInitTest, SweepLearnsNothingAndChildExitFinishesTheChild) {
  ForkedPeer stPeer([this] { return SweepLearnsNothingAndChildExitFinishes() ? 0 : 1; });
  EXPECT_EQ(0, stPeer.Wait());
}

}  // namespace
