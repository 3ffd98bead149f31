#include "queue_set.h"

#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <set>

#include "message_queue.h"
#include "test_support.h"

namespace {

const unsigned int QUEUE_SIZE = 65536;

bool SegmentExists(key_t iKey) { return shmget(iKey, 0, 0) != -1; }
bool Exists(const std::string& strPath) { return access(strPath.c_str(), F_OK) == 0; }

class KvQueueSetTest : public ::testing::Test {
 protected:
  void TearDown() override { QueueSet(m_stDirectory.Path()).Remove(); }

  const PrivateDirectory m_stDirectory;
};

TEST_F(KvQueueSetTest, EachWorkerHasTwoEmptyQueues) {
  QueueSet stSet(m_stDirectory.Path());
  ASSERT_TRUE(stSet.Create(3, QUEUE_SIZE));
  ASSERT_EQ(3u, stSet.Names().size());
  std::set<key_t> setKeys;
  std::set<std::string> setFifos;
  for (const QueueNames_t& stNames : stSet.Names()) {
    for (const QueueName_t& stName : {stNames.stIn, stNames.stOut}) {
      MessageQueue stQueue;
      ASSERT_EQ(0, stQueue.AttachWithKey(stName.strFifo.c_str(), stName.iKey, QUEUE_SIZE));
      EXPECT_EQ(0u, stQueue.CanReadSize());
      setKeys.insert(stName.iKey);
      setFifos.insert(stName.strFifo);
    }
  }
  EXPECT_EQ(6u, setKeys.size());
  EXPECT_EQ(6u, setFifos.size());
}

TEST_F(KvQueueSetTest, ASetHasOneMarkAndTheNextAnother) {
  QueueSet stFirst(m_stDirectory.Path());
  QueueSet stSecond(m_stDirectory.Path());
  ASSERT_TRUE(stFirst.Create(2, QUEUE_SIZE));
  ASSERT_TRUE(stSecond.Create(2, QUEUE_SIZE));
  EXPECT_EQ(stFirst.Names()[0].iMark, stFirst.Names()[1].iMark);
  EXPECT_NE(stFirst.Names()[0].iMark, stSecond.Names()[0].iMark);
}

TEST_F(KvQueueSetTest, RemoveLeavesNeitherSegmentNorFifoNorList) {
  QueueSet stSet(m_stDirectory.Path());
  ASSERT_TRUE(stSet.Create(1, QUEUE_SIZE));
  const QueueNames_t stNames = stSet.Names()[0];
  ASSERT_TRUE(SegmentExists(stNames.stIn.iKey) && Exists(stNames.stOut.strFifo));
  stSet.Remove();
  EXPECT_FALSE(SegmentExists(stNames.stIn.iKey) || SegmentExists(stNames.stOut.iKey));
  EXPECT_FALSE(Exists(stNames.stIn.strFifo) || Exists(stNames.stOut.strFifo));
  EXPECT_FALSE(Exists(m_stDirectory.File("queues")));
  EXPECT_TRUE(stSet.Names().empty());
}

TEST_F(KvQueueSetTest, WhatAKilledMasterLeftIsRemoved) {
  QueueSet stKilled(m_stDirectory.Path());
  ASSERT_TRUE(stKilled.Create(3, QUEUE_SIZE));
  const QueueNames_t stLast = stKilled.Names()[2];
  QueueSet stSet(m_stDirectory.Path());
  ASSERT_TRUE(stSet.Create(1, QUEUE_SIZE));
  EXPECT_FALSE(SegmentExists(stLast.stIn.iKey) || SegmentExists(stLast.stOut.iKey));
  EXPECT_FALSE(Exists(stLast.stIn.strFifo));
  EXPECT_TRUE(SegmentExists(stSet.Names()[0].stIn.iKey));
}

TEST_F(KvQueueSetTest, OnlyWhatIsListedIsRemoved) {
  const PrivateKey stKey;
  ASSERT_NE(-1, shmget(stKey.Key(), 64, IPC_CREAT | 0600));
  WriteFile(m_stDirectory.File("queues"), "damaged " + std::to_string(stKey.Key()) + "\n");
  QueueSet(m_stDirectory.Path()).Remove();
  EXPECT_TRUE(SegmentExists(stKey.Key()));
}

TEST_F(KvQueueSetTest, NothingStaysOfASetThatCanNotBeMade) {
  QueueSet stSet(m_stDirectory.Path());
  EXPECT_FALSE(QueueSet(m_stDirectory.File("nowhere")).Create(1, QUEUE_SIZE));
  ASSERT_EQ(0, mkdir(m_stDirectory.File("worker.1.out").c_str(), 0700));  // in the way
  EXPECT_FALSE(stSet.Create(2, QUEUE_SIZE));
  EXPECT_EQ(EISDIR, errno);
  EXPECT_FALSE(Exists(m_stDirectory.File("worker.0.in")));
  EXPECT_TRUE(stSet.Names().empty());
  EXPECT_FALSE(Exists(m_stDirectory.File("queues")));
}

TEST_F(KvQueueSetTest, PathsMayHaveBlanks) {
  const std::string strPath = m_stDirectory.File("a directory");
  ASSERT_EQ(0, mkdir(strPath.c_str(), 0700));
  QueueSet stSet(strPath);
  ASSERT_TRUE(stSet.Create(1, QUEUE_SIZE));
  const QueueNames_t stNames = stSet.Names()[0];
  QueueSet(strPath).Remove();
  EXPECT_FALSE(SegmentExists(stNames.stIn.iKey));
  EXPECT_FALSE(Exists(stNames.stIn.strFifo));
}

}  // namespace
