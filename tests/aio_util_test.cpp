#include "aio_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <libaio.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include "test_support.h"

namespace {

// What the library asks of libaio, and how that shall fail.
struct Kernel_t {
  int iInitResult = 0;    // negative: no context
  int iEventsResult = 1;  // not positive: what io_getevents() returns from the second call on
  std::vector<int> vecInits;
  std::vector<long> vecMaxima;
  std::vector<iocb> vecSubmitted;
} g_stKernel;

const unsigned int FLAG_RESFD = 1;

}  // namespace

// These take the place of libaio's own.
extern "C" {

int io_queue_init(int iMax, io_context_t* pContext) {
  g_stKernel.vecInits.push_back(iMax);
  *pContext = nullptr;
  if (g_stKernel.iInitResult < 0) {
    return g_stKernel.iInitResult;
  }
  return syscall(SYS_io_setup, iMax, pContext) == 0 ? 0 : -errno;
}

int io_submit(io_context_t pContext, long iCount, iocb** apBlocks) {
  EXPECT_EQ(1, iCount);
  g_stKernel.vecSubmitted.push_back(*apBlocks[0]);
  const long iResult = syscall(SYS_io_submit, pContext, iCount, apBlocks);
  return iResult >= 0 ? static_cast<int>(iResult) : -errno;
}

int io_getevents(io_context_t pContext, long iMin, long iMax, io_event* pEvents, timespec* pTime) {
  EXPECT_EQ(0, iMin);
  EXPECT_TRUE(pTime != nullptr && pTime->tv_sec == 0 && pTime->tv_nsec == 0);
  g_stKernel.vecMaxima.push_back(iMax);
  if (g_stKernel.iEventsResult <= 0 && g_stKernel.vecMaxima.size() > 1) {
    return g_stKernel.iEventsResult;
  }
  const long iResult = syscall(SYS_io_getevents, pContext, iMin, iMax, pEvents, pTime);
  return iResult >= 0 ? static_cast<int>(iResult) : -errno;
}

}  // extern "C"

namespace {

class OwnAIOUtil : public AIOUtil {};

typedef std::vector<aio_param_t> Done;

// A file with its own context.
class AIOUtilTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_stKernel = Kernel_t();
    m_iFD = open(m_stDirectory.File("file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_NE(-1, m_iFD);
    m_pAIO = std::make_unique<OwnAIOUtil>();
  }
  void TearDown() override {
    m_pAIO.reset();
    close(m_iFD);
  }
  // Collects until so many requests are done, as an event loop does.
  Done Collect(size_t iWanted) {
    Done vecAll;
    while (vecAll.size() < iWanted) {
      pollfd stPoll{m_pAIO->GetEventFD(), POLLIN, 0};
      if (poll(&stPoll, 1, 10000) != 1) {
        ADD_FAILURE() << "only " << vecAll.size() << " requests are done";
        break;
      }
      Done vecDone;
      const int iCount = m_pAIO->SomethingDone(vecDone);
      EXPECT_EQ(static_cast<size_t>(iCount), vecDone.size());
      vecAll.insert(vecAll.end(), vecDone.begin(), vecDone.end());
    }
    return vecAll;
  }
  bool IsReadable() const {
    pollfd stPoll{m_pAIO->GetEventFD(), POLLIN, 0};
    return poll(&stPoll, 1, 0) == 1;
  }
  std::string Content() const { return ReadFile(m_stDirectory.File("file")); }

  PrivateDirectory m_stDirectory;
  int m_iFD = -1;
  std::unique_ptr<OwnAIOUtil> m_pAIO;
  char m_szText[8] = "content";
};

TEST(AIOUtilInstanceTest, InstanceIsOneObject) {
  EXPECT_EQ(&AIOUtil::Instance(), &AIOUtil::Instance());
  EXPECT_NE(-1, fcntl(AIOUtil::Instance().GetEventFD(), F_GETFD));
}

TEST(AIOUtilInstanceTest, EventDescriptorIsClosedByExec) {
  EXPECT_EQ(FD_CLOEXEC, fcntl(AIOUtil::Instance().GetEventFD(), F_GETFD));
}

TEST_F(AIOUtilTest, WrittenBytesAreInTheFileAndReported) {
  ASSERT_EQ(0, m_pAIO->SubmitWriteRequest(m_iFD, m_szText, 3, 7, 4711));
  const Done vecDone = Collect(1);
  ASSERT_EQ(1u, vecDone.size());
  EXPECT_EQ(m_iFD, vecDone[0].iFD);
  EXPECT_EQ(m_szText, vecDone[0].pBuffer);
  EXPECT_EQ(3u, vecDone[0].iOffset);
  EXPECT_EQ(7u, vecDone[0].iSize);
  EXPECT_EQ(4711u, vecDone[0].iReqID);
  EXPECT_EQ(7, vecDone[0].iRetcode);
  EXPECT_EQ(1, vecDone[0].iOpType);
  EXPECT_EQ(std::string(3, '\0') + "content", Content());
}

TEST_F(AIOUtilTest, ReadFillsItsBufferAndReportsWhatWasAskedFor) {
  WriteFile(m_stDirectory.File("file"), "0123456789");
  char szBuffer[32] = "";
  ASSERT_EQ(0, m_pAIO->SubmitReadRequest(m_iFD, szBuffer, 4, sizeof(szBuffer), 1));
  const Done vecDone = Collect(1);
  ASSERT_EQ(1u, vecDone.size());
  EXPECT_STREQ("456789", szBuffer);
  EXPECT_EQ(6, vecDone[0].iRetcode);
  EXPECT_EQ(sizeof(szBuffer), vecDone[0].iSize);
  EXPECT_EQ(4u, vecDone[0].iOffset);
  EXPECT_EQ(szBuffer, vecDone[0].pBuffer);
  EXPECT_EQ(0, vecDone[0].iOpType);
}

TEST_F(AIOUtilTest, SyncIsOperation3WithNothingElse) {
  ASSERT_EQ(0, m_pAIO->SubmitSyncRequest(m_iFD, 99));
  const Done vecDone = Collect(1);
  ASSERT_EQ(1u, vecDone.size());
  EXPECT_EQ(3, vecDone[0].iOpType);
  EXPECT_EQ(0, vecDone[0].iRetcode);
  EXPECT_EQ(99u, vecDone[0].iReqID);
  EXPECT_EQ(m_iFD, vecDone[0].iFD);
  EXPECT_EQ(nullptr, vecDone[0].pBuffer);
  EXPECT_EQ(0u, vecDone[0].iOffset);
  EXPECT_EQ(0u, vecDone[0].iSize);
}

TEST_F(AIOUtilTest, LargestRequestIdentifierComesBack) {
  ASSERT_EQ(0, m_pAIO->SubmitWriteRequest(m_iFD, m_szText, 0, 1, ~0ul));
  EXPECT_EQ(~0ul, Collect(1).at(0).iReqID);
}

TEST_F(AIOUtilTest, OffsetHas64Bits) {
  const uint64_t iOffset = uint64_t{5} << 32;
  ASSERT_EQ(0, m_pAIO->SubmitWriteRequest(m_iFD, m_szText, iOffset, 7, 1));
  const Done vecDone = Collect(1);
  EXPECT_EQ(iOffset, vecDone.at(0).iOffset);
  struct stat stStat {};
  ASSERT_EQ(0, fstat(m_iFD, &stStat));
  EXPECT_EQ(static_cast<off_t>(iOffset) + 7, stStat.st_size);
}

TEST_F(AIOUtilTest, ControlBlockIsClearedAndAsksForTheEvent) {
  iocb* pUsed = m_pAIO->NewIOCB();
  memset(pUsed, 0xA5, sizeof(*pUsed));
  m_pAIO->FreeIOCB(pUsed);
  ASSERT_EQ(0, m_pAIO->SubmitSyncRequest(m_iFD, 7));
  iocb stExpected;
  memset(&stExpected, 0, sizeof(stExpected));
  stExpected.data = reinterpret_cast<void*>(7);
  stExpected.aio_lio_opcode = 3;
  stExpected.aio_fildes = m_iFD;
  stExpected.u.c.flags = FLAG_RESFD;
  stExpected.u.c.resfd = static_cast<unsigned int>(m_pAIO->GetEventFD());
  ASSERT_EQ(1u, g_stKernel.vecSubmitted.size());
  EXPECT_EQ(0, memcmp(&stExpected, &g_stKernel.vecSubmitted[0], sizeof(stExpected)));
  Collect(1);
}

TEST_F(AIOUtilTest, FailedRequestReportsItsNegativeErrorNumber) {
  WriteFile(m_stDirectory.File("file"), "0123456789");
  char* pNoMemory = nullptr;
  ASSERT_EQ(0, m_pAIO->SubmitReadRequest(m_iFD, pNoMemory, 0, 10, 2));
  const Done vecDone = Collect(1);
  EXPECT_EQ(-EFAULT, vecDone.at(0).iRetcode);
  EXPECT_EQ(10u, vecDone.at(0).iSize);
}

TEST_F(AIOUtilTest, ReadBehindTheEndReportsZero) {
  ASSERT_EQ(0, m_pAIO->SubmitReadRequest(m_iFD, m_szText, 100, 7, 2));
  EXPECT_EQ(0, Collect(1).at(0).iRetcode);
  EXPECT_STREQ("content", m_szText);
}

TEST_F(AIOUtilTest, NothingDoneReturnsAtOnceAndEmptiesTheResult) {
  Done vecDone(3);
  EXPECT_EQ(0, m_pAIO->SomethingDone(vecDone));
  EXPECT_TRUE(vecDone.empty());
  ASSERT_EQ(0, m_pAIO->SubmitSyncRequest(m_iFD, 1));
  Collect(1);
  vecDone.resize(3);
  EXPECT_EQ(0, m_pAIO->SomethingDone(vecDone));
  EXPECT_TRUE(vecDone.empty());
  EXPECT_FALSE(IsReadable());
}

TEST_F(AIOUtilTest, EventDescriptorIsReadableUntilCollected) {
  EXPECT_FALSE(IsReadable());
  ASSERT_EQ(0, m_pAIO->SubmitWriteRequest(m_iFD, m_szText, 0, 7, 1));
  EXPECT_TRUE(WaitUntil([this] { return IsReadable(); }));
  Collect(1);
  EXPECT_FALSE(IsReadable());
}

TEST_F(AIOUtilTest, ManyRequestsComeBackOnceEach) {
  std::vector<std::string> vecTexts;
  for (unsigned int i = 0; i < 500; ++i) {
    vecTexts.push_back(std::to_string(1000 + i));
  }
  for (unsigned int i = 0; i < 500; ++i) {
    ASSERT_EQ(0, m_pAIO->SubmitWriteRequest(m_iFD, vecTexts[i].data(), i * 4, 4, i));
  }
  std::map<unsigned long, int> mapSeen;
  for (const aio_param_t& stDone : Collect(500)) {
    ++mapSeen[stDone.iReqID];
    EXPECT_EQ(stDone.iReqID * 4, stDone.iOffset);
  }
  EXPECT_EQ(500u, mapSeen.size());
  std::string strExpected;
  for (const std::string& strText : vecTexts) {
    strExpected += strText;
  }
  EXPECT_EQ(strExpected, Content());
}

// Waits without collecting until all that was submitted has finished.
class ManyDoneTest : public AIOUtilTest {
 protected:
  static constexpr unsigned int MANY = 1500;

  void SubmitMany() {
    for (unsigned int i = 0; i < MANY; ++i) {
      ASSERT_EQ(0, m_pAIO->SubmitWriteRequest(m_iFD, m_szText, i * 7ul, 7, i));
    }
    ASSERT_TRUE(WaitUntil([this] { return Pending() == MANY; }));
  }
  // Frees the control blocks of the requests that were left uncollected.
  void CollectRest() {
    g_stKernel.iEventsResult = 1;
    const uint64_t iRest = MANY - 1024;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(iRest)),
              write(m_pAIO->GetEventFD(), &iRest, sizeof(iRest)));
    EXPECT_EQ(iRest, Collect(iRest).size());
  }
  // Looks at the counter through /proc, where a look changes nothing.
  unsigned long Pending() const {
    const std::string strInfo =
        ReadFile("/proc/self/fdinfo/" + std::to_string(m_pAIO->GetEventFD()));
    const size_t iAt = strInfo.find("eventfd-count:");
    return std::stoul(strInfo.substr(iAt + strlen("eventfd-count:")), nullptr, 16);
  }
};

TEST_F(ManyDoneTest, MoreThan1024AreCollectedInOneCall) {
  SubmitMany();
  Done vecDone;
  EXPECT_EQ(static_cast<int>(MANY), m_pAIO->SomethingDone(vecDone));
  EXPECT_EQ(MANY, vecDone.size());
  EXPECT_EQ((std::vector<long>{1024, MANY - 1024}), g_stKernel.vecMaxima);
}

TEST_F(ManyDoneTest, ErrorWhileCollectingEndsIt) {
  SubmitMany();
  g_stKernel.iEventsResult = -EINVAL;
  Done vecDone;
  EXPECT_EQ(1024, m_pAIO->SomethingDone(vecDone));
  EXPECT_EQ(1024u, vecDone.size());
  EXPECT_EQ(2u, g_stKernel.vecMaxima.size());
  CollectRest();
}

TEST_F(ManyDoneTest, InterruptionWhileCollectingLeavesTheRestToTheNextCall) {
  SubmitMany();
  g_stKernel.iEventsResult = -EINTR;
  Done vecDone;
  EXPECT_EQ(1024, m_pAIO->SomethingDone(vecDone));
  EXPECT_EQ(2u, g_stKernel.vecMaxima.size());
  g_stKernel.iEventsResult = 1;
  EXPECT_EQ(static_cast<int>(MANY) - 1024, m_pAIO->SomethingDone(vecDone));
}

TEST_F(ManyDoneTest, NoMoreEventsThanCountedEndIt) {
  SubmitMany();
  g_stKernel.iEventsResult = 0;
  Done vecDone;
  EXPECT_EQ(1024, m_pAIO->SomethingDone(vecDone));
  EXPECT_EQ(2u, g_stKernel.vecMaxima.size());
  CollectRest();
}

TEST_F(AIOUtilTest, InvalidDescriptorIsTheNegativeResultOfTheSubmission) {
  EXPECT_EQ(-EBADF, m_pAIO->SubmitWriteRequest(-1, m_szText, 0, 7, 1));
  EXPECT_EQ(-EBADF, m_pAIO->SubmitReadRequest(-1, m_szText, 0, 7, 1));
  EXPECT_EQ(-EBADF, m_pAIO->SubmitSyncRequest(-1, 1));
  EXPECT_FALSE(IsReadable());
}

TEST_F(AIOUtilTest, FailedSubmissionGivesItsControlBlockBack) {
  iocb* pBlock = m_pAIO->NewIOCB();
  m_pAIO->FreeIOCB(pBlock);
  ASSERT_EQ(-EBADF, m_pAIO->SubmitSyncRequest(-1, 1));
  void* pOther = malloc(sizeof(iocb));  // would get the memory of a block that was freed
  EXPECT_EQ(pBlock, m_pAIO->NewIOCB());
  m_pAIO->FreeIOCB(pBlock);
  free(pOther);
}

TEST_F(AIOUtilTest, FinishedRequestGivesItsControlBlockBack) {
  iocb* pBlock = m_pAIO->NewIOCB();
  m_pAIO->FreeIOCB(pBlock);
  ASSERT_EQ(0, m_pAIO->SubmitSyncRequest(m_iFD, 1));
  Collect(1);
  std::vector<void*> vecOthers(16);  // would get the memory of a block that was freed
  for (void*& pOther : vecOthers) {
    pOther = malloc(sizeof(iocb));
  }
  EXPECT_EQ(pBlock, m_pAIO->NewIOCB());
  m_pAIO->FreeIOCB(pBlock);
  for (void* pOther : vecOthers) {
    free(pOther);
  }
}

TEST_F(AIOUtilTest, ControlBlocksAreUsedAgainInTheOrderGivenBack) {
  iocb* pFirst = m_pAIO->NewIOCB();
  iocb* pSecond = m_pAIO->NewIOCB();
  EXPECT_NE(pFirst, pSecond);
  m_pAIO->FreeIOCB(pSecond);
  m_pAIO->FreeIOCB(pFirst);
  ASSERT_EQ(-EBADF, m_pAIO->SubmitSyncRequest(-1, 1));  // takes the second, and puts it last
  EXPECT_EQ(pFirst, m_pAIO->NewIOCB());
  EXPECT_EQ(pSecond, m_pAIO->NewIOCB());
  m_pAIO->FreeIOCB(pFirst);
  m_pAIO->FreeIOCB(pSecond);
}

TEST_F(AIOUtilTest, ContextIsMadeOnceByTheFirstSubmission) {
  EXPECT_TRUE(g_stKernel.vecInits.empty());
  ASSERT_EQ(0, m_pAIO->SubmitSyncRequest(m_iFD, 1));
  ASSERT_EQ(0, m_pAIO->SubmitSyncRequest(m_iFD, 2));
  EXPECT_EQ(0, m_pAIO->CheckContext());
  EXPECT_EQ(std::vector<int>{1024}, g_stKernel.vecInits);
  Collect(2);
}

TEST_F(AIOUtilTest, WithoutContextNoControlBlockIsTakenAndItIsTriedAgain) {
  g_stKernel.iInitResult = -EAGAIN;
  iocb* pFirst = m_pAIO->NewIOCB();
  iocb* pSecond = m_pAIO->NewIOCB();
  m_pAIO->FreeIOCB(pFirst);
  m_pAIO->FreeIOCB(pSecond);
  EXPECT_EQ(-1, m_pAIO->CheckContext());
  EXPECT_EQ(-1, m_pAIO->SubmitSyncRequest(m_iFD, 1));
  EXPECT_EQ(-1, m_pAIO->SubmitReadRequest(m_iFD, m_szText, 0, 1, 1));
  EXPECT_EQ(-1, m_pAIO->SubmitWriteRequest(m_iFD, m_szText, 0, 1, 1));
  EXPECT_TRUE(g_stKernel.vecSubmitted.empty());
  EXPECT_EQ(pFirst, m_pAIO->NewIOCB());  // still in its place
  m_pAIO->FreeIOCB(pFirst);
  g_stKernel.iInitResult = 0;
  EXPECT_EQ(0, m_pAIO->SubmitSyncRequest(m_iFD, 1));
  EXPECT_EQ(5u, g_stKernel.vecInits.size());
  Collect(1);
}

TEST_F(AIOUtilTest, FullQueueRefusesAndGoesOnAfterCollecting) {
  int iResult = 0;
  size_t iSubmitted = 0;
  while (iSubmitted < 100000 && (iResult = m_pAIO->SubmitSyncRequest(m_iFD, iSubmitted)) == 0) {
    ++iSubmitted;
  }
  EXPECT_EQ(-EAGAIN, iResult);
  EXPECT_GE(iSubmitted, 1024u);
  EXPECT_EQ(iSubmitted, Collect(iSubmitted).size());
  EXPECT_EQ(0, m_pAIO->SubmitSyncRequest(m_iFD, 1));
  Collect(1);
}

TEST_F(AIOUtilTest, DestructionClosesTheEventDescriptor) {
  ASSERT_EQ(0, m_pAIO->SubmitSyncRequest(m_iFD, 1));
  Collect(1);
  const int iDescriptors = OpenDescriptors();
  m_pAIO.reset();
  EXPECT_EQ(iDescriptors - 1, OpenDescriptors());
}

// As when a long action's child exits.
TEST_F(AIOUtilTest, DestructionInAForkedChildLeavesTheParentsRequestsAlone) {
  ASSERT_EQ(0, m_pAIO->SubmitWriteRequest(m_iFD, m_szText, 0, 7, 1));
  ForkedPeer stChild([this] {
    m_pAIO.reset();
    return 0;
  });
  EXPECT_EQ(0, stChild.Wait());
  EXPECT_EQ(1u, Collect(1).at(0).iReqID);
  ASSERT_EQ(0, m_pAIO->SubmitWriteRequest(m_iFD, m_szText, 0, 7, 2));
  EXPECT_EQ(2u, Collect(1).at(0).iReqID);
}

TEST_F(AIOUtilTest, DestructionGivesTheContextBack) {
  const auto fnContexts = [] {  // each is a mapping
    const std::string strMaps = ReadFile("/proc/self/maps");
    size_t iCount = 0;
    for (size_t i = strMaps.find("[aio]"); i != std::string::npos;
         i = strMaps.find("[aio]", i + 1)) {
      ++iCount;
    }
    return iCount;
  };
  const size_t iBefore = fnContexts();
  ASSERT_EQ(0, m_pAIO->CheckContext());
  EXPECT_EQ(iBefore + 1, fnContexts());
  m_pAIO.reset();
  EXPECT_EQ(iBefore, fnContexts());
}

}  // namespace
