#include "wake_bytes.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "test_support.h"

namespace {

const int FIFO_BYTES = 65536;
const unsigned int RING_BYTES = 2 << 20;

// A queue whose reader sleeps in an edge-triggered epoll.
class KvWakeBytesTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string strFifo = m_stDirectory.Path() + "/fifo";
    ASSERT_EQ(m_stQueue.AttachWithKey(strFifo.c_str(), m_stKey.Key(), RING_BYTES), 0);
    m_iEpoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event stEvent{};
    stEvent.events = EPOLLIN | EPOLLET;
    ASSERT_EQ(epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, m_stQueue.FifoFD(), &stEvent), 0);
  }

  void TearDown() override { close(m_iEpoll); }

  void Push(int iMessages) {
    char cMessage = 'm';
    const BufferVec_t stMessage{&cMessage, 1};
    for (int i = 0; i < iMessages; ++i) {
      ASSERT_EQ(m_stQueue.Push(&stMessage, 1), 1);
    }
  }

  void PopAll() {
    BufferVec_t astMessages[64];
    for (int iCount = 0; (iCount = m_stQueue.Pop(astMessages, 64)) > 0;) {
      m_stWakeBytes.OnPopped(iCount);
      for (int i = 0; i < iCount; ++i) {
        delete[] astMessages[i].pData;
      }
    }
  }

  bool BytesWait() {
    pollfd stPoll{m_stQueue.FifoFD(), POLLIN, 0};
    return poll(&stPoll, 1, 0) == 1;
  }

  bool Woken() {
    epoll_event stEvent{};
    return epoll_wait(m_iEpoll, &stEvent, 1, 0) == 1;
  }

  PrivateDirectory m_stDirectory;
  PrivateKey m_stKey;
  MessageQueue m_stQueue;
  WakeBytes m_stWakeBytes{m_stQueue};
  int m_iEpoll = -1;
};

TEST_F(KvWakeBytesTest, AMessageThatWaitsKeepsTheReaderAwake) {
  Push(1);
  EXPECT_TRUE(m_stWakeBytes.HasMore());
  PopAll();
  EXPECT_FALSE(m_stWakeBytes.HasMore());
}

TEST_F(KvWakeBytesTest, BytesForAnEarlierReaderAreReadFirst) {
  Push(1);
  PopAll();
  EXPECT_FALSE(m_stWakeBytes.HasMore());
  EXPECT_FALSE(BytesWait());
}

TEST_F(KvWakeBytesTest, AByteThatWasNotReadDoesNotKeepTheNextFromWaking) {
  EXPECT_FALSE(m_stWakeBytes.HasMore());
  for (int i = 0; i < 3; ++i) {
    Push(1);
    EXPECT_TRUE(Woken());
    EXPECT_FALSE(Woken());
    PopAll();
    EXPECT_FALSE(m_stWakeBytes.HasMore());
    EXPECT_TRUE(BytesWait());
  }
}

TEST_F(KvWakeBytesTest, ManyBytesAreRead) {
  EXPECT_FALSE(m_stWakeBytes.HasMore());
  Push(1024);
  PopAll();
  EXPECT_FALSE(m_stWakeBytes.HasMore());
  EXPECT_FALSE(BytesWait());
}

TEST_F(KvWakeBytesTest, AFullFifoIsEmptiedBeforeTheReaderSleeps) {
  EXPECT_FALSE(m_stWakeBytes.HasMore());
  Push(FIFO_BYTES + 1);
  EXPECT_TRUE(Woken());
  PopAll();
  EXPECT_FALSE(m_stWakeBytes.HasMore());
  Push(1);
  EXPECT_TRUE(Woken());
}

}  // namespace
