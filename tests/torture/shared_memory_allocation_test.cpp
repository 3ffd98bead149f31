// Heap, table, queue and the numbers while memory is lacking.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "failing_allocation.h"
#include "hash_map.h"
#include "heap_image.h"
#include "id_generator.h"
#include "mq_pool.h"
#include "my_uuid.h"
#include "queue_fixture.h"
#include "segment_check.h"
#include "shm_allocator.h"

namespace {

// What an operation writes while memory is lacking. dprintf() has a buffer while there is memory,
// and goes without.
void ExpectWholeDump(const char* pName, Object& stObject) {
  const std::string strWhole = CaptureDescriptor([&](int iFD) { stObject.Dump(iFD); });
  EXPECT_NE("", strWhole);
  ForEachFailingAllocation(pName, [&](FailingAllocation& stMemory) {
    EXPECT_EQ(strWhole,
              CaptureDescriptor([&](int iFD) { stMemory.Run([&] { stObject.Dump(iFD); }); }));
  });
}

// ---- MessageQueue

class QueueAllocationTest : public QueueFixture {
 protected:
  // That messages still go through.
  void ExpectTransfer() {
    EXPECT_EQ(2, PushTexts(m_stWriter, {"one", "two"}));
    EXPECT_EQ((Texts_t{"one", "two"}), PopTexts(m_stReader, 5));
  }
};

TEST_F(QueueAllocationTest, FailedAttachLeavesNeitherSegmentNorDescriptor) {
  const PrivateDirectory stDirectory;
  int iRound = 0;
  const int iFailed =
      ForEachFailingAllocation("MessageQueue::AttachWithKey", [&](FailingAllocation& stMemory) {
        const PrivateKey stKey;
        const std::string strFifo = stDirectory.File(std::to_string(++iRound)) + "/directory/fifo";
        MessageQueue stQueue;
        const auto fnAttach = [&] {
          return stQueue.AttachWithKey(strFifo.c_str(), stKey.Key(), m_iSegment);
        };
        if (stMemory.Run(-1, fnAttach) != 0) {
          EXPECT_FALSE(stQueue.Ready());
          EXPECT_EQ(-1, stQueue.FifoFD());
          EXPECT_EQ(-1, Attachments(stKey.Key()));
          EXPECT_EQ(0, fnAttach());
        }
        EXPECT_EQ(1, PushText(stQueue, "text"));
        EXPECT_EQ("text", PopText(stQueue));
      });
  EXPECT_GT(iFailed, 1);
}

TEST_F(QueueAllocationTest, FailedAttachByPathLeavesTheQueueDetached) {
  const PrivateDirectory stDirectory;
  const std::string strFifo = stDirectory.File("a directory with a long name") + "/fifo";
  ForEachFailingAllocation("MessageQueue::Attach", [&](FailingAllocation& stMemory) {
    MessageQueue stQueue;
    const auto fnAttach = [&] { return stQueue.Attach(strFifo.c_str(), 1, m_iSegment); };
    const bool bAttached = stMemory.Run(-1, fnAttach) == 0;
    EXPECT_EQ(bAttached, stQueue.Ready());
    EXPECT_EQ(bAttached, stQueue.FifoFD() != -1);
    EXPECT_EQ(0, fnAttach());
    const PrivateKey stCleaner(ftok(strFifo.c_str(), 1));
    EXPECT_EQ(1, PushText(stQueue, "text"));
    EXPECT_EQ("text", PopText(stQueue));
  });
}

TEST_F(QueueAllocationTest, PopLeavesInTheRingWhatItHasNoMemoryFor) {
  const Texts_t vecTexts{"one", "two", "", "four", "five"};
  const int iFailed =
      ForEachFailingAllocation("MessageQueue::Pop", [&](FailingAllocation& stMemory) {
        ASSERT_EQ(5, PushTexts(m_stWriter, vecTexts));
        BufferVec_t aMessages[8];
        int iPopped = -1;
        EXPECT_TRUE(stMemory.Run([&] { iPopped = m_stReader.Pop(aMessages, 8); }));
        EXPECT_EQ(stMemory.Failed(), iPopped != 5);
        Texts_t vecPopped;
        for (int i = 0; i < iPopped; ++i) {
          vecPopped.emplace_back(aMessages[i].pData, aMessages[i].iSize);
          delete[] aMessages[i].pData;
        }
        for (const std::string& strText : PopTexts(m_stReader, 8)) {
          vecPopped.push_back(strText);
        }
        EXPECT_EQ(vecTexts, vecPopped);
        ExpectTransfer();
      });
  EXPECT_EQ(5, iFailed);
}

TEST_F(QueueAllocationTest, WriterAndOnlookerNeedNoMemory) {
  char szText[] = "text";
  const BufferVec_t aMessages[]{{szText, 4}, {szText, 0}};
  const int iFailed =
      ForEachFailingAllocation("MessageQueue::Push", [&](FailingAllocation& stMemory) {
        stMemory.Run([&] {
          EXPECT_EQ(2, m_stWriter.Push(aMessages, 2));
          EXPECT_EQ(0, m_stWriter.Push(aMessages, 0));
          EXPECT_EQ(12u, m_stReader.CanReadSize());
          m_stReader.CanWriteSize();
          m_stReader.ClearFifo();
        });
        EXPECT_EQ((Texts_t{"text", ""}), PopTexts(m_stReader, 8));
      });
  EXPECT_EQ(0, iFailed);
}

TEST_F(QueueAllocationTest, DumpIsWhole) { ExpectWholeDump("MessageQueue::Dump", m_stWriter); }

TEST_F(QueueAllocationTest, DetachAndDeleteNeedNoMemory) {
  const int iFailed =
      ForEachFailingAllocation("MessageQueue::Detach", [&](FailingAllocation& stMemory) {
        const PrivateKey stKey;
        const std::string strFifo = m_stDirectory.File("other");
        MessageQueue stQueue;
        ASSERT_EQ(0, stQueue.AttachWithKey(strFifo.c_str(), stKey.Key(), m_iSegment));
        stMemory.Run([&] {
          stQueue.Detach();
          stQueue.Delete();
        });
        EXPECT_EQ(-1, Attachments(stKey.Key()));
      });
  EXPECT_EQ(0, iFailed);
}

// ---- MQPool

class OwnPool : public MQPool {
 public:
  OwnPool() = default;
};

TEST_F(QueueAllocationTest, WorkerIsRegisteredInWholeOrNotAtAll) {
  const int iFailed = ForEachFailingAllocation("MQPool::AddMQ", [&](FailingAllocation& stMemory) {
    OwnPool stPool;
    if (!stMemory.Run(false, [&] { return stPool.AddMQ(3, &m_stReader, &m_stWriter); })) {
      EXPECT_EQ(nullptr, stPool.GetMQ(3, 0));
      EXPECT_EQ(nullptr, stPool.GetMQByFD(m_stReader.FifoFD()));
      EXPECT_EQ(-1, stPool.GetWorkerIndexByFD(m_stReader.FifoFD()));
      EXPECT_TRUE(stPool.AddMQ(3, &m_stReader, &m_stWriter));
    }
    EXPECT_EQ(&m_stReader, stPool.GetMQ(3, 0));
    EXPECT_EQ(&m_stReader, stPool.GetMQByFD(m_stReader.FifoFD()));
    EXPECT_EQ(&m_stWriter, stPool.GetMQByFD(m_stWriter.FifoFD()));
  });
  EXPECT_EQ(3, iFailed);
}

TEST_F(QueueAllocationTest, WorkerThatCouldNotBeAddedLeavesKnownDescriptorsAlone) {
  ForEachFailingAllocation("MQPool::AddMQ of known descriptors", [&](FailingAllocation& stMemory) {
    OwnPool stPool;
    stPool.AddMQ(3, &m_stReader, &m_stWriter);
    MessageQueue stOther;
    ASSERT_EQ(0, Attach(stOther));
    const bool bAdded = stMemory.Run(false, [&] { return stPool.AddMQ(4, &m_stWriter, &stOther); });
    EXPECT_EQ(bAdded ? &stOther : nullptr, stPool.GetMQByFD(stOther.FifoFD()));
    EXPECT_EQ(&m_stReader, stPool.GetMQByFD(m_stReader.FifoFD()));
    EXPECT_EQ(&m_stWriter, stPool.GetMQByFD(m_stWriter.FifoFD()));
  });
}

TEST_F(QueueAllocationTest, LookupAndRemovalInThePoolNeedNoMemory) {
  const int iFailed =
      ForEachFailingAllocation("MQPool::RemoveMQ", [&](FailingAllocation& stMemory) {
        OwnPool stPool;
        stPool.AddMQ(3, &m_stReader, &m_stWriter);
        stPool.AddMQ(4, &m_stWriter, &m_stReader);
        stMemory.Run([&] {
          stPool.GetMQ(3, 1);
          stPool.RemoveMQ(3);
          stPool.RemoveAndDeleteMQ(5);
          stPool.RemoveAll();
          stPool.RemoveAndDeleteAll();
        });
        EXPECT_EQ(nullptr, stPool.GetMQ(4, 0));
      });
  EXPECT_EQ(0, iFailed);
}

// ---- ShmAllocator and HashMap

const uint64_t SEGMENT_SIZE = 16 << 20;

TEST(ShmAllocatorAllocationTest, HeapNeedsNoMemoryOfTheProcess) {
  const PrivateKey stKey;
  ShmAllocator stHeap;
  const int iFailed = ForEachFailingAllocation("ShmAllocator", [&](FailingAllocation& stMemory) {
    stMemory.Run([&] {
      EXPECT_TRUE(stHeap.Attach(stKey.Key(), SEGMENT_SIZE, 64, false));
      void* pFirst = stHeap.Allocate(100);
      void* pSecond = stHeap.Allocate(3000);
      stHeap.Deallocate(pFirst);
      stHeap.Deallocate(pSecond);
      EXPECT_EQ(nullptr, stHeap.Allocate(uint64_t{1} << 40));
      stHeap.GetStat();
      stHeap.Detach();
    });
    const HeapImage stImage(stKey.Key());
    EXPECT_EQ("", CheckHeap(stImage).Faults());
  });
  EXPECT_EQ(0, iFailed);
  ASSERT_TRUE(stHeap.Attach(stKey.Key(), SEGMENT_SIZE, 64, false));
  ExpectWholeDump("ShmAllocator::Dump", stHeap);
}

TEST(HashMapAllocationTest, TableNeedsNoMemoryOfTheProcess) {
  const PrivateKey stKey;
  const std::string strValue(5000, 'v');
  HashMap stMap;
  const int iFailed = ForEachFailingAllocation("HashMap", [&](FailingAllocation& stMemory) {
    stMemory.Run([&] {
      EXPECT_TRUE(stMap.Attach(stKey.Key(), SEGMENT_SIZE, 100, false));
      EXPECT_TRUE(stMap.Set("key", strValue.c_str()));
      EXPECT_TRUE(stMap.Set("key", uint64_t{7}));
      EXPECT_TRUE(stMap.Set("other", "text"));
      EXPECT_EQ(7u, stMap.GetInt("key", 0));
      EXPECT_STREQ("text", stMap.GetString("other"));
      for (auto it = stMap.begin(); it != stMap.end(); it++) {
        stMap.find((*it).pKey);
      }
      EXPECT_TRUE(stMap.Delete("other"));
      stMap.GetStat();
      stMap.Detach();
    });
    const HeapImage stImage(stKey.Key());
    const SegmentReport_t stReport = CheckTable(stImage);
    EXPECT_EQ("", stReport.Faults());
    EXPECT_TRUE(stReport.CountersAgree());
  });
  EXPECT_EQ(0, iFailed);
}

TEST(HashMapAllocationTest, DumpIsWhole) {
  const PrivateKey stKey;
  HashMap stMap;
  ASSERT_TRUE(stMap.Attach(stKey.Key(), SEGMENT_SIZE, 10, false));
  ASSERT_TRUE(stMap.Set("key", "value"));
  ExpectWholeDump("HashMap::Dump", stMap);
}

TEST(HashMapAllocationTest, RefusedSegmentIsReportedWithoutMemory) {
  const PrivateKey stKey;
  HashMap stMap;
  ASSERT_TRUE(stMap.Attach(stKey.Key(), SEGMENT_SIZE, 100, false));
  ForEachFailingAllocation("HashMap::Attach that fails", [&](FailingAllocation& stMemory) {
    const std::string strMessage = CaptureOutput(2, [&] {
      HashMap stOther;
      EXPECT_FALSE(stMemory.Run(
          true, [&] { return stOther.Attach(stKey.Key(), SEGMENT_SIZE * 2, 100, false); }));
    });
    EXPECT_EQ("shmget error, Invalid argument\n", strMessage);
  });
}

// ---- IdGenerator and MyUuid

TEST(IdGeneratorAllocationTest, NumbersAreHandedOutInOrderWithoutAGap) {
  const int iFailed =
      ForEachFailingAllocation("IdGenerator::GetId", [](FailingAllocation& stMemory) {
        IdGenerator stGenerator;
        stGenerator.SetRange(5, 5000);
        unsigned int iNext = 5;
        const bool bDone = stMemory.Run([&] { iNext += stGenerator.GetId() == iNext ? 1 : 0; });
        EXPECT_EQ(bDone ? 6u : 5u, iNext);
        while (iNext < 5000) {
          ASSERT_EQ(iNext, stGenerator.GetId());
          ++iNext;
        }
        EXPECT_EQ(0xFFFFFFFF, stGenerator.GetId());
      });
  EXPECT_GT(iFailed, 30);
}

TEST(IdGeneratorAllocationTest, NumberIsTakenBackOrNot) {
  ForEachFailingAllocation("IdGenerator::FreeId", [](FailingAllocation& stMemory) {
    IdGenerator stGenerator;
    stGenerator.SetRange(0, 0);
    int iFreed = 0;
    stMemory.Run([&] {
      for (; iFreed < 1000; ++iFreed) {
        stGenerator.FreeId(7);
      }
    });
    for (int i = 0; i < iFreed; ++i) {
      ASSERT_EQ(7u, stGenerator.GetId());
    }
    EXPECT_EQ(0xFFFFFFFF, stGenerator.GetId());
  });
  ForEachFailingAllocation("IdGenerator::IdGenerator", [](FailingAllocation& stMemory) {
    stMemory.Run([] { IdGenerator stGenerator; });
  });
}

TEST(MyUuidAllocationTest, TextIsWholeOrThrown) {
  ForEachFailingAllocation("MyUuid", [](FailingAllocation& stMemory) {
    std::string strText;
    const bool bDone = stMemory.Run([&] {
      MyUuid stNew;
      const MyUuid stText(stNew.UuidString(), 36);
      EXPECT_FALSE(stNew < stText);
      strText = MyUuid::NewUuid();
    });
    EXPECT_EQ(bDone ? 36u : 0u, strText.size());
  });
}

}  // namespace
