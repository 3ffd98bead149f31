#include "cpu_follower.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

namespace {

std::vector<uint64_t> AllowedCpus() {
  cpu_set_t stAllowed;
  CPU_ZERO(&stAllowed);
  EXPECT_EQ(sched_getaffinity(0, sizeof(stAllowed), &stAllowed), 0);
  std::vector<uint64_t> vecCpus;
  for (uint64_t iCpu = 0; iCpu < CPU_SETSIZE; ++iCpu) {
    if (CPU_ISSET(iCpu, &stAllowed)) {
      vecCpus.push_back(iCpu);
    }
  }
  return vecCpus;
}

const uint64_t NO_SUCH_CPU = CPU_SETSIZE + 5;

class KvCpuFollowerTest : public testing::Test {
 protected:
  const std::vector<uint64_t> m_vecAllowed = AllowedCpus();
  CpuFollower m_stFollower;
};

TEST_F(KvCpuFollowerTest, RunsAnywhereUntilItFollows) { EXPECT_EQ(AllowedCpus(), m_vecAllowed); }

TEST_F(KvCpuFollowerTest, GoesWhereItIsTold) {
  for (const uint64_t iCpu : m_vecAllowed) {
    m_stFollower.Follow(iCpu);
    EXPECT_EQ(AllowedCpus(), std::vector<uint64_t>{iCpu});
    EXPECT_EQ(CpuFollower::Here(), iCpu);
  }
}

TEST_F(KvCpuFollowerTest, AProcessorThatIsNotAllowedIsNotFollowed) {
  m_stFollower.Follow(NO_SUCH_CPU);
  EXPECT_EQ(AllowedCpus(), m_vecAllowed);
  m_stFollower.Follow(m_vecAllowed.back());
  m_stFollower.Follow(NO_SUCH_CPU);
  EXPECT_EQ(AllowedCpus(), std::vector<uint64_t>{m_vecAllowed.back()});
}

TEST_F(KvCpuFollowerTest, ReleasedItRunsAnywhereAndMayFollowAgain) {
  m_stFollower.Follow(m_vecAllowed.back());
  m_stFollower.Release();
  EXPECT_EQ(AllowedCpus(), m_vecAllowed);
  m_stFollower.Follow(m_vecAllowed.back());
  EXPECT_EQ(AllowedCpus(), std::vector<uint64_t>{m_vecAllowed.back()});
}

TEST_F(KvCpuFollowerTest, AChildRunsAnywhere) {
  m_stFollower.Follow(m_vecAllowed.back());
  const pid_t iChild = fork();
  ASSERT_NE(iChild, -1);
  if (iChild == 0) {
    _exit(AllowedCpus() == m_vecAllowed ? 0 : 1);
  }
  int iStatus = -1;
  ASSERT_EQ(waitpid(iChild, &iStatus, 0), iChild);
  EXPECT_EQ(iStatus, 0);
  EXPECT_EQ(AllowedCpus(), std::vector<uint64_t>{m_vecAllowed.back()});
}

TEST(KvCpuFollowerEndTest, WhenItIsGoneTheProcessRunsAnywhere) {
  const std::vector<uint64_t> vecAllowed = AllowedCpus();
  {
    CpuFollower stFollower;
    stFollower.Follow(vecAllowed.back());
  }
  EXPECT_EQ(AllowedCpus(), vecAllowed);
}

}  // namespace
