#include "save_feed.h"

#include <signal.h>
#include <sys/resource.h>

#include <cerrno>

#include "dump_file.h"
#include "kv_store_fixture.h"

namespace {

class KvSaveFeedTest : public KvStoreTest {
 protected:
  KvSaveFeedTest() : KvStoreTest(8 << 20) {}

  void Fill(int iKeys, const std::string& strValue) {
    for (int i = 0; i < iKeys; ++i) {
      EXPECT_TRUE(m_stStore.Set("key" + std::to_string(i), strValue));
    }
  }
  // 0: all have come, each with this value.
  static int Receive(SaveFeed& stFeed, size_t iKeys, const std::string& strValue) {
    size_t iGood = 0;
    const bool bAll = stFeed.Receive([&](std::string_view, const Value_t& stValue) {
      iGood += stValue.strBytes == strValue ? 1 : 0;
    });
    return bAll ? (iGood == iKeys ? 0 : 1) : errno;
  }
  static bool AllSent(SaveFeed& stFeed) {
    return WaitUntil([&] { return stFeed.Turn(100) == 100; });
  }
};

const size_t MANY = 4000;  // with their values more than a socket takes
const char BEFORE[] = "the value of all keys at the beginning";

TEST_F(KvSaveFeedTest, AChildGetsTheKeysAsTheyWere) {
  const std::string strValue(1000, 'v');
  Fill(MANY, strValue);
  SaveFeed stFeed(m_stStore);
  ASSERT_TRUE(stFeed.Good());
  ForkedPeer stChild([&] { return Receive(stFeed, MANY, strValue); });
  stFeed.StartSending();
  for (size_t i = 0; stFeed.Turn(100) != 100; i = (i + 7) % MANY) {
    m_stStore.Set("key" + std::to_string(i), "changed");
  }
  EXPECT_EQ(0, stChild.Wait());
}

TEST_F(KvSaveFeedTest, NobodyWaitsForASlowChild) {
  const std::string strValue(1000, 'v');
  Fill(MANY, strValue);
  int arPipe[2];
  ASSERT_EQ(0, pipe(arPipe));
  SaveFeed stFeed(m_stStore);
  ForkedPeer stChild([&] {
    char cByte = 0;
    return read(arPipe[0], &cByte, 1) == 1 ? Receive(stFeed, MANY, strValue) : 99;
  });
  stFeed.StartSending();
  for (int i = 0; i < 1000; ++i) {
    stFeed.Turn(100);
  }
  EXPECT_EQ(1, stFeed.Turn(100));  // what waits for the child is not more than some slices
  m_stStore.Clear();
  EXPECT_EQ(1, stFeed.Turn(100));
  EXPECT_EQ(1, write(arPipe[1], "x", 1));
  EXPECT_TRUE(AllSent(stFeed));
  EXPECT_EQ(0, stChild.Wait());
  close(arPipe[0]);
  close(arPipe[1]);
}

TEST_F(KvSaveFeedTest, AnEmptyStoreHasAnEnd) {
  SaveFeed stFeed(m_stStore);
  ForkedPeer stChild([&] { return Receive(stFeed, 0, ""); });
  stFeed.StartSending();
  EXPECT_EQ(100, stFeed.Turn(100));
  EXPECT_EQ(0, stChild.Wait());
}

// Not what has become of errno while the rest came.
TEST_F(KvSaveFeedTest, WhyTheFileCouldNotBeWrittenIsSaid) {
  const PrivateDirectory stDirectory;
  const std::string strValue(1000, 'v');
  Fill(MANY, strValue);
  SaveFeed stFeed(m_stStore);
  ForkedPeer stChild([&] {
    const rlimit stLittle{MANY * 500, MANY * 500};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &stLittle);
    DumpStat_t stStat{};
    const std::string strError =
        WriteDump([&](const KeyStore::Visitor_t& fnVisit) { return stFeed.Receive(fnVisit); },
                  {m_stTable.Name().stMark, NOW, 1}, stDirectory.Path() + "/dump", stStat);
    return strError.find(strerror(EFBIG)) == std::string::npos ? 1 : 0;
  });
  stFeed.StartSending();
  EXPECT_TRUE(AllSent(stFeed));
  EXPECT_EQ(0, stChild.Wait());
}

// As when the worker is killed.
TEST_F(KvSaveFeedTest, AStreamThatIsCutIsNoWholeOne) {
  Fill(MANY, BEFORE);
  auto pFeed = std::make_unique<SaveFeed>(m_stStore);
  ForkedPeer stChild([&] { return Receive(*pFeed, MANY, BEFORE); });
  pFeed->StartSending();
  pFeed->Turn(100);
  pFeed.reset();
  EXPECT_EQ(ECONNRESET, stChild.Wait());
}

// No signal, and no copies for nobody.
TEST_F(KvSaveFeedTest, AChildThatHasGoneIsNoReasonToGoOn) {
  Fill(MANY, BEFORE);
  SaveFeed stFeed(m_stStore);
  stFeed.StartSending();
  EXPECT_EQ(100, stFeed.Turn(100));
  m_stStore.Clear();
  EXPECT_EQ(100, stFeed.Turn(100));
  EXPECT_EQ(0u, m_stStore.Count());
}

}  // namespace
