// The heap while the system refuses: this program's own versions of two calls stand before the real
// ones, for the library too, and fail when told.

#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "shm_allocator.h"
#include "test_support.h"

namespace {

struct Faults_t {
  std::vector<int> vecShmgetErrnos;  // of the next calls, one after the other
  int iShmatErrno = 0;
  int iShmgets = 0;
};

Faults_t g_stFaults;

}  // namespace

extern "C" {

int shmget(key_t iKey, size_t iSize, int iFlags) noexcept {
  g_stFaults.iShmgets += 1;
  if (!g_stFaults.vecShmgetErrnos.empty()) {
    errno = g_stFaults.vecShmgetErrnos.front();
    g_stFaults.vecShmgetErrnos.erase(g_stFaults.vecShmgetErrnos.begin());
    return -1;
  }
  return static_cast<int>(syscall(SYS_shmget, iKey, iSize, iFlags));
}

void* shmat(int iShmID, const void* pAddress, int iFlags) noexcept {
  if (g_stFaults.iShmatErrno != 0) {
    errno = g_stFaults.iShmatErrno;
    return reinterpret_cast<void*>(-1);
  }
  return reinterpret_cast<void*>(syscall(SYS_shmat, iShmID, pAddress, iFlags));
}

}  // extern "C"

namespace {

const uint64_t SIZE = 4194384 + 65536;

class Heap : public ShmAllocator {
 public:
  using ShmAllocator::m_iShmID;
  using ShmAllocator::m_pAddress;
};

class ShmAllocatorFaultTest : public ::testing::Test {
 protected:
  ~ShmAllocatorFaultTest() override { g_stFaults = Faults_t(); }

  // What an attach under these faults writes to standard error; its errno goes to m_iErrno.
  std::string FailingAttach(const Faults_t& stFaults) {
    return CaptureOutput(2, [&] {
      g_stFaults = stFaults;
      EXPECT_FALSE(m_stHeap.Attach(m_stKey.Key(), SIZE, 0, false));
      m_iErrno = errno;
    });
  }

  const PrivateKey m_stKey;
  Heap m_stHeap;
  int m_iErrno = 0;
};

TEST_F(ShmAllocatorFaultTest, OnlyAnExistingSegmentIsAskedForAgain) {
  EXPECT_EQ("shmget error, No space left on device\n", FailingAttach({{ENOSPC}, 0, 0}));
  EXPECT_EQ(1, g_stFaults.iShmgets);
  EXPECT_EQ(ENOSPC, m_iErrno);
  EXPECT_EQ(-1, m_stHeap.m_iShmID);
}

TEST_F(ShmAllocatorFaultTest, SegmentRemovedBetweenTheCallsFailsWithTheSecondError) {
  EXPECT_EQ("shmget error, No such file or directory\n", FailingAttach({{EEXIST, ENOENT}, 0, 0}));
  EXPECT_EQ(2, g_stFaults.iShmgets);
  EXPECT_EQ(ENOENT, m_iErrno);
  EXPECT_EQ(nullptr, m_stHeap.m_pAddress);
}

TEST_F(ShmAllocatorFaultTest, SegmentThatCanNotBeMappedKeepsItsIdAndSaysNothing) {
  EXPECT_EQ("", FailingAttach({{}, ENOMEM, 0}));
  EXPECT_EQ(ENOMEM, m_iErrno);
  EXPECT_NE(-1, m_stHeap.m_iShmID);
  EXPECT_EQ(nullptr, m_stHeap.m_pAddress);
}

}  // namespace
