// The queue while the system refuses: this program's own versions of a few calls stand before the
// real ones, for the library too, and fail when told.

#undef _FORTIFY_SOURCE  // its header defines read() inline

#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "queue_fixture.h"

namespace {

struct Faults_t {
  int iShmgetErrno = 0;  // of the next call alone
  int iShmctlErrno = 0;
  int iShmatErrno = 0;
  bool bSpoilErrno = false;  // close and shmdt succeed and change errno, as they may
  bool bNoMemory = false;
  int iReads = 0;
  int iShmdts = 0;
};

Faults_t g_stFaults;

long Spoiled(long iResult) {
  if (g_stFaults.bSpoilErrno) {
    errno = EXFULL;
  }
  return iResult;
}

}  // namespace

extern "C" {

int shmget(key_t iKey, size_t iSize, int iFlags) noexcept {
  if (g_stFaults.iShmgetErrno != 0) {
    errno = std::exchange(g_stFaults.iShmgetErrno, 0);
    return -1;
  }
  return static_cast<int>(syscall(SYS_shmget, iKey, iSize, iFlags));
}

int shmctl(int iShmID, int iCommand, shmid_ds* pStatus) noexcept {
  if (g_stFaults.iShmctlErrno != 0) {
    errno = g_stFaults.iShmctlErrno;
    return -1;
  }
  return static_cast<int>(syscall(SYS_shmctl, iShmID, iCommand, pStatus));
}

void* shmat(int iShmID, const void* pAddress, int iFlags) noexcept {
  if (g_stFaults.iShmatErrno != 0) {
    errno = g_stFaults.iShmatErrno;
    return reinterpret_cast<void*>(-1);
  }
  return reinterpret_cast<void*>(syscall(SYS_shmat, iShmID, pAddress, iFlags));
}

int shmdt(const void* pAddress) noexcept {
  ++g_stFaults.iShmdts;
  return static_cast<int>(Spoiled(syscall(SYS_shmdt, pAddress)));
}

int close(int iFD) { return static_cast<int>(Spoiled(syscall(SYS_close, iFD))); }

ssize_t read(int iFD, void* pData, size_t iSize) {
  ++g_stFaults.iReads;
  return syscall(SYS_read, iFD, pData, iSize);
}

}  // extern "C"

void* operator new[](size_t iSize, const std::nothrow_t& /*tag*/) noexcept {
  return g_stFaults.bNoMemory ? nullptr : ::operator new[](iSize);
}

namespace {

class MessageQueueFaultTest : public QueueFixture {
 protected:
  void SetUp() override {
    QueueFixture::SetUp();
    g_stFaults = Faults_t();
  }
  void TearDown() override { g_stFaults = Faults_t(); }

  MessageQueue m_stThird;
};

TEST_F(MessageQueueFaultTest, OnlyAnExistingSegmentIsAskedForAgain) {
  g_stFaults.iShmgetErrno = ENOSPC;
  EXPECT_EQ(-1, Attach(m_stThird));
  EXPECT_EQ(ENOSPC, errno);
  EXPECT_NE(-1, m_stThird.FifoFD());
}

TEST_F(MessageQueueFaultTest, SecondDetachUnmapsNothing) {
  m_stReader.Detach();
  EXPECT_EQ(1, g_stFaults.iShmdts);
  m_stReader.Detach();
  EXPECT_EQ(1, g_stFaults.iShmdts);
}

TEST_F(MessageQueueFaultTest, StatusThatCannotBeReadClosesTheFifoAndKeepsErrno) {
  const int iOpen = OpenDescriptors();
  g_stFaults.iShmctlErrno = EIDRM;
  g_stFaults.bSpoilErrno = true;
  EXPECT_EQ(-1, Attach(m_stThird));
  EXPECT_EQ(EIDRM, errno);
  EXPECT_EQ(-1, m_stThird.FifoFD());
  EXPECT_FALSE(m_stThird.Ready());
  EXPECT_EQ(iOpen, OpenDescriptors());
}

TEST_F(MessageQueueFaultTest, FourthAttachmentKeepsErrnoOverTheFifosClose) {
  MessageQueue stFourth;
  ASSERT_EQ(0, Attach(m_stThird));
  g_stFaults.bSpoilErrno = true;
  EXPECT_EQ(-1, Attach(stFourth));
  EXPECT_EQ(EBUSY, errno);
  EXPECT_EQ(-1, stFourth.FifoFD());
}

TEST_F(MessageQueueFaultTest, SegmentThatCannotBeMappedIsNoAttachment) {
  g_stFaults.iShmatErrno = ENOMEM;
  EXPECT_EQ(-1, Attach(m_stThird));
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_FALSE(m_stThird.Ready());
  g_stFaults.iShmatErrno = 0;
  EXPECT_EQ(0, Attach(m_stThird));
  EXPECT_EQ(3, Attachments(m_stKey.Key()));
}

TEST_F(MessageQueueFaultTest, DetachKeepsErrno) {
  g_stFaults.bSpoilErrno = true;
  errno = EDOM;
  EXPECT_EQ(0, m_stReader.Detach());
  EXPECT_EQ(EDOM, errno);
}

TEST_F(MessageQueueFaultTest, DeleteReturnsZeroAlsoWhenRefused) {
  g_stFaults.iShmctlErrno = EPERM;
  EXPECT_EQ(0, m_stReader.Delete());
  g_stFaults.iShmctlErrno = 0;
  EXPECT_EQ(0, m_stReader.Delete());  // it has let go of the segment
  EXPECT_EQ(2, Attachments(m_stKey.Key()));
}

TEST_F(MessageQueueFaultTest, MessagesStayInTheRingWhileMemoryIsOut) {
  ASSERT_EQ(2, PushTexts(m_stWriter, {"abc", "defg"}));
  g_stFaults.bNoMemory = true;
  BufferVec_t astMessages[2] = {{nullptr, 99}, {nullptr, 99}};
  EXPECT_EQ(0, m_stReader.Pop(astMessages, 2));
  EXPECT_EQ(99u, astMessages[0].iSize);
  EXPECT_EQ(15u, m_stReader.CanReadSize());
  g_stFaults.bNoMemory = false;
  EXPECT_EQ((Texts_t{"abc", "defg"}), PopTexts(m_stReader, 2));
}

TEST_F(MessageQueueFaultTest, ClearFifoReadsAgainOnlyAfterAFullBuffer) {
  const std::pair<size_t, int> aExpected[] = {{0, 1},    {1, 1},    {1023, 1},
                                              {1024, 2}, {2047, 2}, {2048, 3}};
  for (const auto& stExpected : aExpected) {
    const std::string strBytes(stExpected.first, FIFO_DATA);
    ASSERT_EQ(static_cast<ssize_t>(strBytes.size()),
              write(m_stWriter.FifoFD(), strBytes.data(), strBytes.size()));
    g_stFaults.iReads = 0;
    m_stReader.ClearFifo();
    EXPECT_EQ(stExpected.second, g_stFaults.iReads) << stExpected.first << " bytes";
  }
}

}  // namespace
