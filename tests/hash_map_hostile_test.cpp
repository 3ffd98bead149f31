// Tables in segments whose bytes others have written. A byte read or written outside of a segment
// ends the test: see guarded_segment.h.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "hash_map.h"
#include "heap_image.h"
#include "test_support.h"

namespace {

const uint64_t DEFAULT_RESERVED = 1048576;
const uint64_t RESERVED = 4096;
const uint64_t HEAD = 4194384;
const uint64_t BUCKETS = HEAD + 56;
const uint64_t SIZE = 4194304 + 8 * 4096;  // whole pages: the guards begin right behind
const uint64_t MOST_BUCKETS = (RESERVED - 56) / 16;

uint64_t ListOf(uint64_t iBlockSize) { return 80 + iBlockSize - 8; }

class HashMapHostileTest : public ::testing::Test {
 protected:
  HashMapHostileTest() { RESERVED_SIZE = RESERVED; }
  ~HashMapHostileTest() override { RESERVED_SIZE = DEFAULT_RESERVED; }

  void Make(uint64_t iBuckets) {
    if (!m_stMap.Attach(m_stKey.Key(), SIZE, iBuckets, false)) {
      throw std::runtime_error("not attached");
    }
    m_pRaw = std::make_unique<HeapImage>(m_stKey.Key());
  }
  // A table of one chain: the last key first.
  void MakeChain(const std::vector<std::string>& vecKeys) {
    Make(1);
    for (const std::string& strKey : vecKeys) {
      ASSERT_TRUE(m_stMap.Set(strKey.c_str(), "value"));
    }
  }
  bool AttachOther() { return m_stOther.Attach(m_stKey.Key(), 0, 1, false); }

  uint64_t Bucket(uint64_t i = 0) const { return BUCKETS + 16 * i + 8; }
  // Where the entry of a key is.
  uint64_t Entry(const char* pKey) {
    return static_cast<uint64_t>(m_stMap.Get(pKey).pKey - 16 - MapBase());
  }
  const char* MapBase() {
    static struct Access : HashMap {
      static const char* Base(HashMap& stMap) {
        return static_cast<const char*>((stMap.*(&Access::m_sAllocator)).GetPointer(0));
      }
    } s_stAccess;
    return s_stAccess.Base(m_stMap);
  }
  bool Has(const char* pKey) { return m_stMap.Get(pKey).pKey != nullptr; }
  size_t Visit() {
    size_t iVisits = 0;
    for (HashMap::iterator it = m_stMap.begin(); it != m_stMap.end(); ++it) {
      EXPECT_NE(nullptr, (*it).pKey);
      ++iVisits;
    }
    return iVisits;
  }
  // Everything that a reader does.
  void ReadAll() {
    Visit();
    Has("one");
    Has("absent");
    m_stMap.GetInt("one", 0);
    m_stMap.GetString("two");
    m_stMap.find("one");
    m_stMap.GetStat();
  }
  std::string Dump() {
    const PrivateDirectory stDirectory;
    const int iFD = open(stDirectory.File("dump").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    m_stMap.Dump(iFD);
    close(iFD);
    return ReadFile(stDirectory.File("dump"));
  }

  PrivateKey m_stKey;
  HashMap m_stMap;
  HashMap m_stOther;
  std::unique_ptr<HeapImage> m_pRaw;
};

// The head.

TEST_F(HashMapHostileTest, BucketCountThatCanNotBeIsRefusedAndDetached) {
  Make(10);
  m_pRaw->SetHalf(HEAD, MOST_BUCKETS);
  EXPECT_TRUE(AttachOther());
  m_stOther.Detach();
  const size_t iAttachments = m_pRaw->Attachments();
  for (const uint32_t iBuckets : {uint32_t{MOST_BUCKETS + 1}, UINT32_MAX}) {
    m_pRaw->SetHalf(HEAD, iBuckets);
    EXPECT_FALSE(AttachOther()) << iBuckets;
    EXPECT_EQ(iAttachments, m_pRaw->Attachments());
  }
}

TEST_F(HashMapHostileTest, TableOfNoBucketsIsAttachedAndHasOne) {
  Make(0);
  ASSERT_TRUE(AttachOther());
  EXPECT_TRUE(m_stMap.Set("one", uint64_t{1}));
  EXPECT_TRUE(m_stMap.Set("two", uint64_t{2}));
  EXPECT_EQ(1u, m_stMap.GetInt("one", 0));
  EXPECT_EQ(2u, m_stMap.GetStat().iAvgBucketSize);
  EXPECT_EQ(2u, Visit());
  EXPECT_NE(std::string::npos, Dump().find("bucket:0 key:\"two\""));
  EXPECT_NE(std::string::npos, Dump().find("m_pHead->iBucketCount=\"0\""));
}

TEST_F(HashMapHostileTest, BucketCountThatBecomesImpossibleIsNotFollowed) {
  Make(10);
  ASSERT_TRUE(m_stMap.Set("one", uint64_t{1}));
  for (const uint32_t iBuckets : {uint32_t{0}, uint32_t{MOST_BUCKETS + 1}, UINT32_MAX}) {
    m_pRaw->SetHalf(HEAD, iBuckets);
    EXPECT_EQ(1u, m_stMap.GetInt("one", 0)) << iBuckets;
    EXPECT_EQ(1u, Visit());
    EXPECT_EQ(0u, m_stMap.GetStat().iAvgBucketSize);
    EXPECT_NE(std::string::npos, Dump().find("key:\"one\""));
    EXPECT_TRUE(m_stMap.Set("two", uint64_t{2}));
    EXPECT_TRUE(m_stMap.Delete("two"));
  }
}

TEST_F(HashMapHostileTest, CountersMayBeAnything) {
  Make(10);
  ASSERT_TRUE(m_stMap.Set("one", "value"));
  memset(m_pRaw->Base() + HEAD + 20, 0xff, 36);
  m_pRaw->SetWord(HEAD + 8, UINT64_MAX);
  m_stMap.GetStat();
  EXPECT_TRUE(m_stMap.Set("one", "other value"));
  EXPECT_STREQ("other value", m_stMap.GetString("one"));
}

// Links.

TEST_F(HashMapHostileTest, FirstLinkThatLeadsOutIsAnEmptyChain) {
  Make(1);
  for (const uint64_t iLink :
       {uint64_t{1}, HEAD - 1, SIZE - 15, SIZE, SIZE + 4096, UINT64_MAX, uint64_t{1} << 63}) {
    m_pRaw->SetWord(Bucket(), iLink);
    EXPECT_FALSE(Has("one")) << iLink;
    EXPECT_EQ(0u, Visit());
    EXPECT_EQ(std::string::npos, Dump().find("bucket:0"));
    EXPECT_TRUE(m_stMap.Delete("one"));
    EXPECT_TRUE(m_stMap.Set("one", "value"));
    EXPECT_EQ(1u, Visit());
    EXPECT_TRUE(m_stMap.Delete("one"));
  }
}

TEST_F(HashMapHostileTest, LinkThatLeadsOutEndsItsChain) {
  MakeChain({"one", "two", "three"});
  for (const uint64_t iLink : {uint64_t{7}, SIZE - 8, UINT64_MAX - 15}) {
    m_pRaw->SetWord(Entry("two"), iLink);
    EXPECT_TRUE(Has("three"));
    EXPECT_TRUE(Has("two"));
    EXPECT_FALSE(Has("one"));
    EXPECT_EQ(2u, Visit());
  }
}

TEST_F(HashMapHostileTest, EntryAtTheSegmentsEndIsReadNoFurther) {
  Make(1);
  for (uint64_t iOffset = SIZE - 24; iOffset < SIZE; ++iOffset) {
    memset(m_pRaw->Base() + SIZE - 64, 0, 64);
    if (iOffset + 12 <= SIZE) {
      m_pRaw->SetHalf(iOffset + 8, 4);  // the key "one"
    }
    memcpy(m_pRaw->Base() + iOffset + 16, "one",
           std::min<size_t>(4, SIZE - std::min(SIZE, iOffset + 16)));
    m_pRaw->SetWord(Bucket(), iOffset);
    EXPECT_EQ(iOffset + 20 <= SIZE, Has("one")) << SIZE - iOffset;
    EXPECT_EQ(iOffset + 20 <= SIZE ? 1u : 0u, Visit()) << SIZE - iOffset;
    Dump();
  }
}

TEST_F(HashMapHostileTest, ShortKeyWithoutNulIsAnotherKey) {
  MakeChain({"one", "ab"});
  ASSERT_TRUE(Has("ab"));
  EXPECT_FALSE(Has("ac"));
  m_pRaw->Base()[Entry("ab") + 18] = 'x';
  EXPECT_FALSE(Has("ab"));
  EXPECT_TRUE(Has("one"));
}

// The question whether a chain ends, which is asked now and then, reads keys to their NUL.
TEST_F(HashMapHostileTest, KeyWithoutNulUpToTheSegmentsEndIsReadNoFurther) {
  MakeChain({"one"});
  const uint64_t iLast = SIZE - 32;
  memset(m_pRaw->Base() + iLast, 'x', 32);
  m_pRaw->SetWord(iLast, iLast);
  m_pRaw->SetWord(Entry("one"), iLast);
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(1u, Visit());
  }
}

TEST_F(HashMapHostileTest, LongSoundChainIsIteratedToItsEnd) {
  Make(1);
  for (int i = 0; i < 300; ++i) {
    ASSERT_TRUE(m_stMap.Set(std::to_string(i).c_str(), "value"));
  }
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(300u, Visit());
  }
}

TEST_F(HashMapHostileTest, KeyLongerThanTheSegmentIsAbsentAndCanNotBeSet) {
  MakeChain({"one"});
  const std::string strLong(SIZE, 'k');
  EXPECT_FALSE(Has(strLong.c_str()));
  EXPECT_TRUE(m_stMap.Delete(strLong.c_str()));
  EXPECT_FALSE(m_stMap.Set(strLong.c_str(), "value"));
  EXPECT_EQ(1u, Visit());
}

// Rings.

TEST_F(HashMapHostileTest, LookupInARingEnds) {
  MakeChain({"one", "two", "three"});
  m_pRaw->SetWord(Entry("one"), Entry("three"));
  EXPECT_FALSE(Has("absent"));
  EXPECT_TRUE(Has("one"));
  EXPECT_TRUE(m_stMap.Delete("absent"));
  EXPECT_TRUE(m_stMap.Set("absent", "value"));
  EXPECT_STREQ("value", m_stMap.GetString("absent"));
  m_pRaw->SetWord(Entry("two"), Entry("two"));
  EXPECT_FALSE(Has("another"));
}

TEST_F(HashMapHostileTest, IterationLeavesARingForTheNextBucket) {
  Make(2);
  for (const char* pKey : {"0", "1", "2", "3", "4", "5", "6", "7"}) {
    ASSERT_TRUE(m_stMap.Set(pKey, pKey));
  }
  const uint64_t iFirst = m_pRaw->Word(Bucket(0));
  const uint64_t iSecond = m_pRaw->Word(iFirst);
  m_pRaw->SetWord(iSecond, iFirst);
  const uint32_t iOthers = m_pRaw->Half(Bucket(1) - 8);
  EXPECT_GE(Visit(), 2 + iOthers);
  EXPECT_LE(Visit(), 300u);
  HashMap::iterator it = m_stMap.find(m_pRaw->Base() + iSecond + 16);
  size_t iSteps = 0;
  for (; it != m_stMap.end(); ++it) {
    ASSERT_LE(++iSteps, 300u);
  }
}

TEST_F(HashMapHostileTest, LoopsInLoopsOverARingEnd) {
  MakeChain({"one", "two", "three"});
  m_pRaw->SetWord(Entry("one"), Entry("three"));
  size_t iSteps = 0;
  for (HashMap::iterator it = m_stMap.begin(); it != m_stMap.end(); ++it) {
    for (HashMap::iterator itInner = m_stMap.begin(); itInner != m_stMap.end(); ++itInner) {
      ASSERT_LE(++iSteps, 1000000u);
    }
  }
}

TEST_F(HashMapHostileTest, BucketsThatShareOneLongChainDoNotMultiplyIt) {
  Make(MOST_BUCKETS);
  const uint64_t iBegin = HEAD + RESERVED + 8;
  const size_t iEntries = (SIZE - iBegin) / 32;
  for (size_t i = 0; i < iEntries; ++i) {
    const uint64_t iEntry = iBegin + 32 * i;
    m_pRaw->SetWord(iEntry, i + 1 < iEntries ? iEntry + 32 : 0);
    m_pRaw->SetHalf(iEntry + 8, 2);
    memcpy(m_pRaw->Base() + iEntry + 16, "a", 2);
  }
  for (uint64_t i = 0; i < MOST_BUCKETS; ++i) {
    m_pRaw->SetWord(Bucket(i), iBegin);
  }
  EXPECT_LE(Visit(), 2 * iEntries + 300 * MOST_BUCKETS);
}

TEST_F(HashMapHostileTest, LongSoundChainsAreVisitedWhole) {
  Make(1);
  RESERVED_SIZE = RESERVED;
  for (int i = 0; i < 500; ++i) {
    ASSERT_TRUE(m_stMap.Set(std::to_string(i).c_str(), uint64_t{1}));
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(500u, Visit());
  }
}

TEST_F(HashMapHostileTest, DumpOfARingEnds) {
  MakeChain({"one", "two"});
  m_pRaw->SetWord(Entry("one"), Entry("two"));
  const std::string strDump = Dump();
  EXPECT_LE(std::count(strDump.begin(), strDump.end(), '\n'),
            static_cast<ptrdiff_t>(SIZE / 32 + 100));
  EXPECT_NE(std::string::npos, strDump.find("key:\"one\""));
}

// Sizes.

TEST_F(HashMapHostileTest, ValueThatReachesOutIsNoEntry) {
  MakeChain({"one", "two"});
  const uint64_t iEntry = Entry("one");
  const uint64_t iRest = SIZE - (iEntry + 16 + 4);
  m_pRaw->SetHalf(iEntry + 12, static_cast<uint32_t>(iRest));
  EXPECT_TRUE(Has("one"));
  EXPECT_EQ(2u, Visit());
  for (const uint32_t iSize : {static_cast<uint32_t>(iRest) + 1, UINT32_MAX}) {
    m_pRaw->SetHalf(iEntry + 12, iSize);
    EXPECT_FALSE(Has("one")) << iSize;
    EXPECT_EQ(nullptr, m_stMap.GetString("one"));
    EXPECT_TRUE(m_stMap.find("one") == m_stMap.end());
    EXPECT_EQ(1u, Visit());
  }
  EXPECT_TRUE(m_stMap.Set("one", "a value that is well again"));
  EXPECT_TRUE(Has("one"));
}

TEST_F(HashMapHostileTest, KeyWithoutEndIsSeenByNoIterator) {
  MakeChain({"one", "two"});
  const uint64_t iEntry = Entry("two");
  for (const uint32_t iSize : {uint32_t{0}, uint32_t{3}, uint32_t{SIZE}, UINT32_MAX}) {
    m_pRaw->SetHalf(iEntry + 8, iSize);
    EXPECT_FALSE(Has("two")) << iSize;
    EXPECT_TRUE(Has("one"));
    EXPECT_EQ(0u, Visit());
    EXPECT_NE(std::string::npos, Dump().find("key:\"one\""));
  }
}

TEST_F(HashMapHostileTest, DumpPrintsAKeyWithoutEndNoFurtherThanItsSize) {
  MakeChain({"one"});
  m_pRaw->SetHalf(Entry("one") + 8, 2);
  EXPECT_NE(std::string::npos, Dump().find("key:\"on\", value_size"));
}

TEST_F(HashMapHostileTest, KeysOfAnySizeAreFoundAndTheirLikesAreNot) {
  Make(1);
  for (size_t iSize = 0; iSize < 70; ++iSize) {
    const std::string strKey(iSize, 'k');
    ASSERT_TRUE(m_stMap.Set(strKey.c_str(), static_cast<uint64_t>(iSize)));
    EXPECT_EQ(iSize, m_stMap.GetInt(strKey.c_str(), 999));
    for (size_t i = 0; i < iSize; ++i) {
      std::string strOther = strKey;
      strOther[i] = 'x';
      EXPECT_FALSE(Has(strOther.c_str())) << iSize << " " << i;
    }
  }
}

// Blocks.

TEST_F(HashMapHostileTest, BlockThatLooksLargerThanTheSegmentsRestIsNotWritten) {
  Make(1);
  const uint64_t iEntry = SIZE - 56;
  m_pRaw->SetWord(iEntry - 8, 4096);
  m_pRaw->SetHalf(iEntry + 8, 4);
  memcpy(m_pRaw->Base() + iEntry + 16, "one", 4);
  m_pRaw->SetWord(Bucket(), iEntry);
  const std::string strValue(4096 - 8 - 16 - 4, 'v');
  EXPECT_TRUE(m_stMap.Set("one", strValue.data(), static_cast<uint32_t>(strValue.size())));
  EXPECT_EQ(strValue, std::string(m_stMap.Get("one").pValue, strValue.size()));
  EXPECT_LT(Entry("one"), SIZE - 4096);
}

TEST_F(HashMapHostileTest, FreeListThatLeadsOutIsNotFollowed) {
  Make(1);
  for (const uint64_t iLink : {SIZE - 32, SIZE, UINT64_MAX}) {
    m_pRaw->SetWord(ListOf(40), iLink);
    EXPECT_TRUE(m_stMap.Set("one", "value"));  // 8 + 16 + 4 + 6
    EXPECT_TRUE(Has("one"));
    EXPECT_TRUE(m_stMap.Delete("one"));
  }
}

TEST_F(HashMapHostileTest, EntryInABlockWithoutSizeIsDeletedAndItsBlockLost) {
  for (const uint64_t iBlockSize : {uint64_t{0}, uint64_t{33}, UINT64_MAX}) {
    MakeChain({"one", "two"});
    m_pRaw->SetWord(Entry("one") - 8, iBlockSize);
    EXPECT_TRUE(m_stMap.Delete("one"));
    EXPECT_FALSE(Has("one"));
    EXPECT_TRUE(Has("two"));
  }
}

// Everything at once.

// Overwrites words, for ever: of the head, of the buckets, of the blocks, with numbers and offsets.
int Scribble(key_t iKey, unsigned int iSeed) {
  HeapImage stRaw(iKey);
  std::minstd_rand stRandom(iSeed);
  const uint64_t szPlaces[] = {0, HEAD, BUCKETS, HEAD + RESERVED, ListOf(8), SIZE - 256};
  for (;;) {
    const uint64_t iPlace = szPlaces[stRandom() % 6] + stRandom() % 31 * 8;
    const uint64_t iValues[] = {stRandom() % 4096, HEAD + RESERVED + stRandom() % 100 * 8,
                                SIZE - stRandom() % 64, stRandom() * uint64_t{stRandom()}};
    stRaw.SetWord(iPlace, iValues[stRandom() % 4]);
  }
}

TEST_F(HashMapHostileTest, OwnerGoesOnWhileAnotherScribbles) {
  MakeChain({"one", "two", "three"});
  const ForkedPeer stScribbler([this] { return Scribble(m_stKey.Key(), 1); });
  const auto stEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(700);
  for (int i = 0; std::chrono::steady_clock::now() < stEnd; ++i) {
    ReadAll();
    m_stMap.Set(std::to_string(i % 10).c_str(), "a value");
    m_stMap.Set("one", std::string(static_cast<size_t>(i % 200), 'v').c_str());
    m_stMap.Delete(std::to_string(i % 7).c_str());
    if (i % 1000 == 0) {
      AttachOther();
    }
  }
}

TEST_F(HashMapHostileTest, ReaderEndsOnWhatScribblersHaveLeft) {
  for (unsigned int iSeed = 0; iSeed < 20; ++iSeed) {
    const PrivateKey stKey;
    ASSERT_TRUE(m_stMap.Attach(stKey.Key(), SIZE, 1, false));
    ASSERT_TRUE(m_stMap.Set("one", "value"));
    const HeapImage stRaw(stKey.Key());
    const std::string strBefore(stRaw.Base() + BUCKETS, RESERVED);
    ForkedPeer stScribbler([&] { return Scribble(stKey.Key(), iSeed); });
    EXPECT_TRUE(
        WaitUntil([&] { return strBefore != std::string(stRaw.Base() + BUCKETS, RESERVED); }));
    stScribbler.Kill(SIGKILL);
    stScribbler.Wait();
    ReadAll();
    m_stOther.Attach(stKey.Key(), 0, 1, false);
  }
}

}  // namespace
