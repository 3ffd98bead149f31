#include "mq_pool.h"

#include <gtest/gtest.h>

#include <memory>

#include "test_support.h"

namespace {

// Queues of several workers, each with a FIFO and a segment of its own.
class MQPoolTest : public ::testing::Test {
 protected:
  // A pool of one's own: the process-wide one can not be replaced between tests.
  class OwnPool : public MQPool {};

  std::unique_ptr<MessageQueue> NewQueue() {
    m_vecKeys.push_back(std::make_unique<PrivateKey>());
    const std::string strFifo = m_stDirectory.File(std::to_string(m_vecKeys.size()));
    auto pQueue = std::make_unique<MessageQueue>();
    EXPECT_EQ(0, pQueue->AttachWithKey(strFifo.c_str(), m_vecKeys.back()->Key(), 100));
    return pQueue;
  }

  const PrivateDirectory m_stDirectory;
  std::vector<std::unique_ptr<PrivateKey>> m_vecKeys;
  const std::unique_ptr<MessageQueue> m_pIn = NewQueue();
  const std::unique_ptr<MessageQueue> m_pOut = NewQueue();
  const std::unique_ptr<MessageQueue> m_pIn2 = NewQueue();
  const std::unique_ptr<MessageQueue> m_pOut2 = NewQueue();
  OwnPool m_stPool;
};

TEST_F(MQPoolTest, InstanceIsOneObject) { EXPECT_EQ(&MQPool::Instance(), &MQPool::Instance()); }

TEST_F(MQPoolTest, AddedQueuesAreFoundByIndexAndDirection) {
  EXPECT_TRUE(m_stPool.AddMQ(3, m_pIn.get(), m_pOut.get()));
  EXPECT_EQ(m_pIn.get(), m_stPool.GetMQ(3, 0));
  EXPECT_EQ(m_pOut.get(), m_stPool.GetMQ(3, 1));
}

TEST_F(MQPoolTest, OtherDirectionsAndIndexesGiveNull) {
  m_stPool.AddMQ(3, m_pIn.get(), m_pOut.get());
  EXPECT_EQ(nullptr, m_stPool.GetMQ(3, 2));
  EXPECT_EQ(nullptr, m_stPool.GetMQ(3, -1));
  EXPECT_EQ(nullptr, m_stPool.GetMQ(4, 0));
  EXPECT_FALSE(m_stPool.AddMQ(3, m_pIn2.get(), m_pOut2.get()));  // the key is still 3's alone
  EXPECT_TRUE(m_stPool.AddMQ(4, m_pIn2.get(), m_pOut2.get()));   // asking registered nothing
}

TEST_F(MQPoolTest, AddedQueuesAreFoundByDescriptor) {
  m_stPool.AddMQ(3, m_pIn.get(), m_pOut.get());
  EXPECT_EQ(m_pIn.get(), m_stPool.GetMQByFD(m_pIn->FifoFD()));
  EXPECT_EQ(m_pOut.get(), m_stPool.GetMQByFD(m_pOut->FifoFD()));
  EXPECT_EQ(nullptr, m_stPool.GetMQByFD(m_pIn2->FifoFD()));
  EXPECT_EQ(nullptr, m_stPool.GetMQByFD(-1));
}

TEST_F(MQPoolTest, SecondAddOfAnIndexChangesNothing) {
  ASSERT_TRUE(m_stPool.AddMQ(3, m_pIn.get(), m_pOut.get()));
  EXPECT_FALSE(m_stPool.AddMQ(3, m_pIn2.get(), m_pOut2.get()));
  EXPECT_EQ(m_pIn.get(), m_stPool.GetMQ(3, 0));
  EXPECT_EQ(m_pOut.get(), m_stPool.GetMQ(3, 1));
  EXPECT_EQ(nullptr, m_stPool.GetMQByFD(m_pIn2->FifoFD()));
  EXPECT_EQ(nullptr, m_stPool.GetMQByFD(m_pOut2->FifoFD()));
}

TEST_F(MQPoolTest, RefusedAddDoesNotLookAtItsQueues) {
  ASSERT_TRUE(m_stPool.AddMQ(3, m_pIn.get(), m_pOut.get()));
  EXPECT_FALSE(m_stPool.AddMQ(3, nullptr, nullptr));
}

TEST_F(MQPoolTest, LaterAddTakesOverADescriptor) {
  ASSERT_TRUE(m_stPool.AddMQ(1, m_pIn.get(), m_pOut.get()));
  const int iFD = m_pOut->FifoFD();
  m_pOut->Detach();
  const auto pReuser = NewQueue();  // the system hands out the lowest free number
  ASSERT_EQ(iFD, pReuser->FifoFD());
  ASSERT_TRUE(m_stPool.AddMQ(2, m_pIn2.get(), pReuser.get()));
  EXPECT_EQ(pReuser.get(), m_stPool.GetMQByFD(iFD));
  EXPECT_EQ(m_pOut.get(), m_stPool.GetMQ(1, 1));
}

TEST_F(MQPoolTest, WorkerIsFoundByEitherOfItsDescriptors) {
  m_stPool.AddMQ(3, m_pIn.get(), m_pOut.get());
  m_stPool.AddMQ(-7, m_pIn2.get(), m_pOut2.get());
  EXPECT_EQ(3, m_stPool.GetWorkerIndexByFD(m_pIn->FifoFD()));
  EXPECT_EQ(3, m_stPool.GetWorkerIndexByFD(m_pOut->FifoFD()));
  EXPECT_EQ(-7, m_stPool.GetWorkerIndexByFD(m_pIn2->FifoFD()));
  EXPECT_EQ(-7, m_stPool.GetWorkerIndexByFD(m_pOut2->FifoFD()));
  EXPECT_EQ(-1, m_stPool.GetWorkerIndexByFD(9999));
}

TEST_F(MQPoolTest, LowestIndexAnswersForASharedQueue) {
  m_stPool.AddMQ(5, m_pIn.get(), m_pOut.get());
  m_stPool.AddMQ(-2, m_pIn2.get(), m_pOut.get());
  m_stPool.AddMQ(0, m_pIn.get(), m_pOut2.get());
  EXPECT_EQ(-2, m_stPool.GetWorkerIndexByFD(m_pOut->FifoFD()));
  EXPECT_EQ(0, m_stPool.GetWorkerIndexByFD(m_pIn->FifoFD()));
}

TEST_F(MQPoolTest, WorkerIsFoundByThePresentDescriptorAndQueueByTheRegisteredOne) {
  m_stPool.AddMQ(3, m_pIn.get(), m_pOut.get());
  const int iRegistered = m_pIn->FifoFD();
  m_pIn->Detach();
  EXPECT_EQ(-1, m_stPool.GetWorkerIndexByFD(iRegistered));
  EXPECT_EQ(m_pIn.get(), m_stPool.GetMQByFD(iRegistered));
  EXPECT_EQ(3, m_stPool.GetWorkerIndexByFD(-1));
}

TEST_F(MQPoolTest, RemoveForgetsTheWorkerAndItsDescriptorsAlone) {
  m_stPool.AddMQ(3, m_pIn.get(), m_pOut.get());
  m_stPool.AddMQ(4, m_pIn2.get(), m_pOut2.get());
  m_stPool.RemoveMQ(3);
  EXPECT_EQ(nullptr, m_stPool.GetMQ(3, 0));
  EXPECT_EQ(nullptr, m_stPool.GetMQByFD(m_pIn->FifoFD()));
  EXPECT_EQ(nullptr, m_stPool.GetMQByFD(m_pOut->FifoFD()));
  EXPECT_EQ(m_pIn2.get(), m_stPool.GetMQByFD(m_pIn2->FifoFD()));
  EXPECT_EQ(m_pOut2.get(), m_stPool.GetMQ(4, 1));
  EXPECT_TRUE(m_pIn->Ready());
}

TEST_F(MQPoolTest, RemoveErasesByThePresentDescriptors) {
  m_stPool.AddMQ(3, m_pIn.get(), m_pOut.get());
  const int iRegistered = m_pIn->FifoFD();
  m_pIn->Detach();
  m_stPool.RemoveMQ(3);
  EXPECT_EQ(m_pIn.get(), m_stPool.GetMQByFD(iRegistered));
  EXPECT_EQ(nullptr, m_stPool.GetMQByFD(m_pOut->FifoFD()));
}

TEST_F(MQPoolTest, RemoveOfAnUnknownIndexDoesNothing) {
  m_stPool.AddMQ(3, m_pIn.get(), m_pOut.get());
  m_stPool.RemoveMQ(4);
  m_stPool.RemoveAndDeleteMQ(4);
  EXPECT_EQ(m_pIn.get(), m_stPool.GetMQ(3, 0));
  EXPECT_EQ(m_pIn.get(), m_stPool.GetMQByFD(m_pIn->FifoFD()));
}

TEST_F(MQPoolTest, RemoveAndDeleteDetachesBothQueues) {
  const int iOpen = OpenDescriptors();
  MessageQueue* const pIn = NewQueue().release();
  MessageQueue* const pOut = NewQueue().release();
  const int iIn = pIn->FifoFD();
  const int iOut = pOut->FifoFD();
  ASSERT_TRUE(m_stPool.AddMQ(3, pIn, pOut));
  m_stPool.RemoveAndDeleteMQ(3);
  EXPECT_EQ(iOpen, OpenDescriptors());
  EXPECT_EQ(nullptr, m_stPool.GetMQByFD(iIn));
  EXPECT_EQ(nullptr, m_stPool.GetMQByFD(iOut));
  EXPECT_EQ(nullptr, m_stPool.GetMQ(3, 0));
}

TEST_F(MQPoolTest, RemoveAllKeepsTheDescriptors) {
  m_stPool.AddMQ(3, m_pIn.get(), m_pOut.get());
  m_stPool.RemoveAll();
  EXPECT_EQ(nullptr, m_stPool.GetMQ(3, 0));
  EXPECT_EQ(m_pIn.get(), m_stPool.GetMQByFD(m_pIn->FifoFD()));
  EXPECT_EQ(m_pOut.get(), m_stPool.GetMQByFD(m_pOut->FifoFD()));
  EXPECT_EQ(-1, m_stPool.GetWorkerIndexByFD(m_pIn->FifoFD()));
  EXPECT_TRUE(m_stPool.AddMQ(3, m_pIn2.get(), m_pOut2.get()));
}

TEST_F(MQPoolTest, RemoveAndDeleteAllDestroysEveryQueueAndForgetsAll) {
  const int iOpen = OpenDescriptors();
  m_stPool.AddMQ(1, NewQueue().release(), NewQueue().release());
  m_stPool.AddMQ(2, NewQueue().release(), NewQueue().release());
  const int iFD = m_stPool.GetMQ(2, 1)->FifoFD();
  m_stPool.RemoveAndDeleteAll();
  EXPECT_EQ(iOpen, OpenDescriptors());
  EXPECT_EQ(nullptr, m_stPool.GetMQ(1, 0));
  EXPECT_EQ(nullptr, m_stPool.GetMQByFD(iFD));
}

TEST_F(MQPoolTest, PoolOwnsNothing) {
  {
    OwnPool stPool;
    stPool.AddMQ(1, m_pIn.get(), m_pOut.get());
  }
  EXPECT_TRUE(m_pIn->Ready());
  EXPECT_TRUE(m_pOut->Ready());
}

TEST_F(MQPoolTest, DumpWritesNothing) {
  m_stPool.AddMQ(1, m_pIn.get(), m_pOut.get());
  EXPECT_EQ("", CaptureDescriptor([this](int iFD) { m_stPool.Dump(iFD); }));
}

}  // namespace
