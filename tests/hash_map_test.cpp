#include "hash_map.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "heap_image.h"
#include "test_support.h"

namespace {

const uint64_t DEFAULT_RESERVED = 1048576;
const uint64_t HEAD = 4194384;  // where the reserved area and with it the table's head begins
const uint64_t BUCKETS = HEAD + 56;
const uint64_t SIZE = HEAD + DEFAULT_RESERVED + (1 << 20);
const uint32_t READY = 591985369;

// The operations that a derived class may call.
class Map : public HashMap {
 public:
  using HashMap::AddObjectForStat;
  using HashMap::Init;
  using HashMap::m_iBucketCount;
  using HashMap::m_pHead;
  using HashMap::m_sAllocator;
  using HashMap::RemoveObjectForStat;
};

std::string ValueOf(const HashItem_t& stItem) {
  return stItem.pValue == nullptr ? "(none)" : std::string(stItem.pValue, stItem.iValueSize);
}

// One table under a fresh key, and a view of its bytes.
class HashMapTest : public ::testing::Test {
 protected:
  ~HashMapTest() override { RESERVED_SIZE = DEFAULT_RESERVED; }

  void Make(uint64_t iBucketCount, uint64_t iSize = SIZE) {
    if (!m_stMap.Attach(m_stKey.Key(), iSize, iBucketCount, false)) {
      throw std::runtime_error("not attached");  // ends the test, not its caller alone
    }
    m_pRaw = std::make_unique<HeapImage>(m_stKey.Key());
  }
  // A table in which the heap has exactly this much room.
  void MakeWithRoom(uint64_t iBucketCount, uint64_t iRoom) {
    Make(iBucketCount, HEAD + DEFAULT_RESERVED + iRoom);
  }

  std::string Value(const char* pKey) { return ValueOf(m_stMap.Get(pKey)); }
  // The keys as an iteration meets them.
  std::string Keys() {
    std::string strKeys;
    for (HashMap::iterator it = m_stMap.begin(); it != m_stMap.end(); ++it) {
      strKeys += std::string(strKeys.empty() ? "" : " ") + (*it).pKey;
    }
    return strKeys;
  }
  void ExpectSound() {
    const SegmentReport_t stReport = CheckTable(*m_pRaw);
    EXPECT_EQ("", stReport.Faults());
    EXPECT_TRUE(stReport.CountersAgree());
    EXPECT_EQ(0u, stReport.OtherBlocks());
    EXPECT_EQ(m_pRaw->Word(HEAD + 8), stReport.iEntries);
  }

  PrivateKey m_stKey;
  Map m_stMap;
  std::unique_ptr<HeapImage> m_pRaw;
};

// Hashes.

TEST(HashMapHashTest, FnvIsOf64BitsWithConstantsOf32) {
  EXPECT_EQ(2166136261u, HashMap::FNVHash(""));
  EXPECT_EQ(0x811d68e40c292cu, HashMap::FNVHash("a"));
  EXPECT_EQ(0x8dd467a66815c86cu, HashMap::FNVHash("key"));
  EXPECT_EQ(0x1e174632d58b3fa7u, HashMap::FNVHash("hello world"));
}

TEST(HashMapHashTest, BytesFrom0x80OnAreSignExtended) {
  EXPECT_EQ(0x811d68fa0c4bceu, HashMap::FNVHash("\x7f"));
  EXPECT_EQ(0xff7ee29704f3b29fu, HashMap::FNVHash("\x80"));
  EXPECT_EQ(0x34605901ecb704e4u, HashMap::FNVHash("\xe4\xff"));
  EXPECT_EQ(2147483520u, HashMap::BKDRHash("\x80"));
  EXPECT_EQ(2147479979u, HashMap::BKDRHash("\xe4\xff"));
}

TEST(HashMapHashTest, BkdrKeepsThirtyOneBits) {
  EXPECT_EQ(0u, HashMap::BKDRHash(""));
  EXPECT_EQ(97u, HashMap::BKDRHash("a"));
  EXPECT_EQ(1849579u, HashMap::BKDRHash("key"));
  EXPECT_EQ(1310283332u, HashMap::BKDRHash("hello world"));
}

TEST_F(HashMapTest, BucketIsTheExactRemainderForAnyCount) {
  for (const uint64_t iCount :
       {1u, 2u, 3u, 7u, 10u, 255u, 256u, 257u, 1000u, 4093u, 32768u, 65521u, 65531u, 65532u}) {
    const PrivateKey stKey;
    ASSERT_TRUE(m_stMap.Attach(stKey.Key(), SIZE, iCount, false));
    for (int i = 0; i < 500; ++i) {
      const std::string strKey = std::string(static_cast<size_t>(i % 13), 'x') + std::to_string(i);
      ASSERT_TRUE(m_stMap.Set(strKey.c_str(), uint64_t{1}));
    }
    EXPECT_EQ("", CheckTable(HeapImage(stKey.Key())).Faults()) << iCount;
  }
}

TEST_F(HashMapTest, KeyWithHighBytesLandsInItsSignedBucket) {
  Make(7);
  ASSERT_TRUE(m_stMap.Set("\xe4\xff", uint64_t{1}));
  EXPECT_EQ(1u, m_pRaw->Half(BUCKETS + 16 * 2));
  EXPECT_EQ(1u, m_stMap.GetInt("\xe4\xff", 0));
}

// Attach, Init and the reserved size.

TEST_F(HashMapTest, NewTableHasTheHeadByteByByte) {
  Make(1000);
  EXPECT_EQ(DEFAULT_RESERVED, m_pRaw->Word(48));
  EXPECT_EQ(1000u, m_pRaw->Half(HEAD));
  EXPECT_EQ(READY, m_pRaw->Half(HEAD + 16));
  m_pRaw->SetHalf(HEAD, 0);
  m_pRaw->SetHalf(HEAD + 16, 0);
  const char* pHead = m_pRaw->Base() + HEAD;
  EXPECT_EQ(std::string(DEFAULT_RESERVED, '\0'), std::string(pHead, DEFAULT_RESERVED));
}

TEST_F(HashMapTest, LaterAttachAdoptsTheBucketCount) {
  Make(1000);
  Map stSecond;
  ASSERT_TRUE(stSecond.Attach(m_stKey.Key(), 0, 5, false));
  EXPECT_EQ(1000u, stSecond.m_iBucketCount);
  ASSERT_TRUE(m_stMap.Set("key", "value"));
  EXPECT_STREQ("value", stSecond.GetString("key"));
}

TEST_F(HashMapTest, AttachInitialisesATableThatIsNotReady) {
  Make(1000);
  ASSERT_TRUE(m_stMap.Set("key", "value"));
  m_pRaw->SetHalf(HEAD + 16, READY - 1);
  Map stSecond;
  ASSERT_TRUE(stSecond.Attach(m_stKey.Key(), SIZE, 10, false));
  EXPECT_EQ(10u, m_pRaw->Half(HEAD));
  EXPECT_EQ(0u, m_pRaw->Word(HEAD + 8));
  EXPECT_EQ(READY, m_pRaw->Half(HEAD + 16));
  EXPECT_EQ(0u, m_pRaw->Half(HEAD + 20));
  EXPECT_TRUE(stSecond.begin() == stSecond.end());
}

// Two processes may both find a new table not ready, with bucket counts of their own in mind.
TEST_F(HashMapTest, BucketCountOfTheHeadIsUsedAlsoWhenAnotherProcessHasChangedIt) {
  for (const uint64_t iLater : {1u, 10u, 999u, 1001u, 65532u}) {
    const PrivateKey stKey;
    Map stOther;
    ASSERT_TRUE(m_stMap.Attach(stKey.Key(), SIZE, 1000, false));
    HeapImage stRaw(stKey.Key());
    stRaw.SetHalf(HEAD + 16, 0);
    ASSERT_TRUE(stOther.Attach(stKey.Key(), SIZE, iLater, false));
    for (int i = 0; i < 300; ++i) {
      ASSERT_TRUE(m_stMap.Set(std::to_string(i).c_str(), static_cast<uint64_t>(i)));
      ASSERT_EQ(static_cast<uint64_t>(i), stOther.GetInt(std::to_string(i).c_str(), 999));
    }
    EXPECT_EQ("", CheckTable(stRaw).Faults()) << iLater;
  }
}

TEST_F(HashMapTest, InitFailsWhenTheBucketsDoNotFitAndLeavesAZeroHead) {
  Make(1000);
  ASSERT_TRUE(m_stMap.Set("key", "value"));
  const std::string strAfterHead(m_pRaw->Base() + BUCKETS, SIZE - BUCKETS);
  m_stMap.m_iBucketCount = 65533;
  EXPECT_FALSE(m_stMap.Init());
  EXPECT_EQ(std::string(56, '\0'), std::string(m_pRaw->Base() + HEAD, 56));
  EXPECT_EQ(strAfterHead, std::string(m_pRaw->Base() + BUCKETS, SIZE - BUCKETS));
}

TEST_F(HashMapTest, InitMakesAnEmptyTableOfTheObjectsBucketCount) {
  Make(1000);
  ASSERT_TRUE(m_stMap.Set("key", "value"));
  m_stMap.m_iBucketCount = 65532;
  EXPECT_TRUE(m_stMap.Init());
  EXPECT_EQ(65532u, m_pRaw->Half(HEAD));
  EXPECT_EQ("(none)", Value("key"));
  ASSERT_TRUE(m_stMap.Set("other", "value"));
  EXPECT_EQ("", CheckTable(*m_pRaw).Faults());
}

TEST_F(HashMapTest, ThisManyBucketsFitTheDefaultReservedSize) {
  Make(65532);
  EXPECT_EQ(DEFAULT_RESERVED, RESERVED_SIZE);
  EXPECT_EQ(DEFAULT_RESERVED, m_pRaw->Word(48));
}

TEST_F(HashMapTest, OneBucketMoreRaisesTheReservedSizeForTheWholeProcess) {
  Make(65533);
  EXPECT_EQ(1049608u, RESERVED_SIZE);
  EXPECT_EQ(1049608u, m_pRaw->Word(48));
  const PrivateKey stOther;
  Map stSmall;
  ASSERT_TRUE(stSmall.Attach(stOther.Key(), SIZE, 10, false));
  EXPECT_EQ(1049608u, HeapImage(stOther.Key()).Word(48));
}

TEST_F(HashMapTest, TableThatFillsTheReservedSizeExactlyDoesNotRaiseIt) {
  RESERVED_SIZE = 1049608;
  Make(65597);
  EXPECT_EQ(1049608u, RESERVED_SIZE);
  EXPECT_EQ(65597u, m_pRaw->Half(HEAD));
  m_stMap.Detach();
  const PrivateKey stOther;
  ASSERT_TRUE(m_stMap.Attach(stOther.Key(), SIZE, 65598, false));
  EXPECT_EQ(65598u * 16 + 1080, RESERVED_SIZE);
}

TEST_F(HashMapTest, SegmentWithASmallerReservedSizeIsRefusedAndDetached) {
  Make(10);
  Map stSecond;
  EXPECT_FALSE(stSecond.Attach(m_stKey.Key(), SIZE, 65533, false));
  EXPECT_EQ(2u, m_pRaw->Attachments());
  EXPECT_EQ(1049608u, RESERVED_SIZE);
  EXPECT_FALSE(stSecond.Attach(m_stKey.Key(), SIZE, 10, false));  // it stays raised
}

TEST_F(HashMapTest, SegmentWithALargerReservedSizeIsRefusedAndDetached) {
  Make(65533);
  RESERVED_SIZE = DEFAULT_RESERVED;
  Map stSecond;
  EXPECT_FALSE(stSecond.Attach(m_stKey.Key(), SIZE, 10, false));
  EXPECT_EQ(2u, m_pRaw->Attachments());
}

TEST_F(HashMapTest, ReservedSizeIsRaisedBeforeAnAttachThatFails) {
  Make(10);
  Map stSecond;
  EXPECT_EQ("shmget error, Invalid argument\n", CaptureOutput(2, [&] {
              EXPECT_FALSE(stSecond.Attach(m_stKey.Key(), SIZE + 8192, 70000, false));
            }));
  EXPECT_EQ(70000u * 16 + 1080, RESERVED_SIZE);
}

TEST_F(HashMapTest, PathFormUsesTheKeyOfTheFile) {
  const PrivateDirectory stDirectory;
  WriteFile(stDirectory.File("key"), "");
  const PrivateKey stKey(ftok(stDirectory.File("key").c_str(), 7));
  ASSERT_TRUE(m_stMap.Attach(stDirectory.File("key").c_str(), 7, SIZE, 10, false));
  EXPECT_EQ(10u, HeapImage(stKey.Key()).Half(HEAD));
  EXPECT_EQ("", CaptureOutput(2, [&] {
              EXPECT_FALSE(m_stMap.Attach("/nonexistent/file", 7, SIZE, 10, false));
            }));
}

TEST_F(HashMapTest, PathFormFailsWhenTheSegmentIsSmaller) {
  const PrivateDirectory stDirectory;
  const std::string strFile = stDirectory.File("key");
  WriteFile(strFile, "");
  const PrivateKey stKey(ftok(strFile.c_str(), 7));
  ASSERT_TRUE(m_stMap.Attach(strFile.c_str(), 7, SIZE, 10, false));
  EXPECT_EQ("shmget error, Invalid argument\n", CaptureOutput(2, [&] {
              EXPECT_FALSE(m_stMap.Attach(strFile.c_str(), 7, SIZE + 8192, 10, false));
            }));
}

TEST_F(HashMapTest, DetachAndDestructionLeaveTheTable) {
  Make(10);
  ASSERT_TRUE(m_stMap.Set("key", "value"));
  m_stMap.Detach();
  EXPECT_EQ(1u, m_pRaw->Attachments());
  {
    Map stSecond;
    ASSERT_TRUE(stSecond.Attach(m_stKey.Key(), SIZE, 10, false));
    EXPECT_STREQ("value", stSecond.GetString("key"));
  }
  EXPECT_EQ(1u, m_pRaw->Attachments());
}

TEST_F(HashMapTest, ReadOnlyAttachReads) {
  Make(10);
  ASSERT_TRUE(m_stMap.Set("key", "value"));
  Map stReader;
  ASSERT_TRUE(stReader.Attach(m_stKey.Key(), SIZE, 10, true));
  EXPECT_STREQ("value", stReader.GetString("key"));
  EXPECT_EQ(1u, stReader.GetStat().iObjectCount);
  EXPECT_STREQ("key", (*stReader.begin()).pKey);
}

// Set and the getters.

TEST_F(HashMapTest, EntryIsLaidDownByteByByte) {
  MakeWithRoom(1, 10 * 40);
  ASSERT_TRUE(m_stMap.Set("abc", "xy", 2));
  ASSERT_TRUE(m_stMap.Set("d", "", 0));
  const uint64_t iFirst = m_pRaw->Word(48) + HEAD + 9 * 32 + 8;  // strlen + size + 17 + 8: 32
  EXPECT_EQ(2u, m_pRaw->Half(BUCKETS));
  const uint64_t iSecond = m_pRaw->Word(BUCKETS + 8);
  EXPECT_EQ(iFirst, m_pRaw->Word(iSecond));
  EXPECT_EQ(2u, m_pRaw->Half(iSecond + 8));
  EXPECT_EQ(0u, m_pRaw->Half(iSecond + 12));
  EXPECT_EQ(0u, m_pRaw->Word(iFirst));
  EXPECT_EQ(4u, m_pRaw->Half(iFirst + 8));
  EXPECT_EQ(2u, m_pRaw->Half(iFirst + 12));
  EXPECT_EQ(std::string("abc\0xy", 6), std::string(m_pRaw->Base() + iFirst + 16, 6));
}

TEST_F(HashMapTest, ValuesAreByteStringsWithAnyContent) {
  Make(10);
  const std::string strBlob("a\0b\xff", 4);
  ASSERT_TRUE(m_stMap.Set("blob", strBlob.data(), 4));
  ASSERT_TRUE(m_stMap.Set("", "under the empty key"));
  ASSERT_TRUE(m_stMap.Set("empty", nullptr, 0));
  EXPECT_EQ(strBlob, Value("blob"));
  EXPECT_EQ(std::string("under the empty key", 20), Value(""));
  EXPECT_EQ("", Value("empty"));
  EXPECT_STREQ("empty", m_stMap.Get("empty").pKey);
  ExpectSound();
}

TEST_F(HashMapTest, SetTakesAnItemAndCopiesIt) {
  Make(10);
  char szKey[] = "key";
  char szValue[] = "val";
  ASSERT_TRUE(m_stMap.Set(HashItem_t{szKey, szValue, 3}));
  szKey[0] = szValue[0] = '?';
  EXPECT_EQ("val", Value("key"));
  const HashItem_t stItem = m_stMap.Get("key");
  EXPECT_EQ(stItem.pKey + 4, stItem.pValue);
}

TEST_F(HashMapTest, MissingKeyGivesNullAndZero) {
  Make(10);
  ASSERT_TRUE(m_stMap.Set("key", "value"));
  for (const char* pKey : {"", "ke", "keys", "kez"}) {
    const HashItem_t stItem = m_stMap.Get(pKey);
    EXPECT_EQ(nullptr, stItem.pKey) << pKey;
    EXPECT_EQ(nullptr, stItem.pValue);
    EXPECT_EQ(0u, stItem.iValueSize);
  }
}

TEST_F(HashMapTest, KeysOfOneChainAreToldApart) {
  Make(1);
  const std::vector<std::string> vecKeys = {
      "", "a", "b", "ab", "ba", "aa", "abc", std::string(300, 'k'), std::string(300, 'k') + "1"};
  for (const std::string& strKey : vecKeys) {
    ASSERT_TRUE(m_stMap.Set(strKey.c_str(), ("<" + strKey + ">").c_str()));
  }
  for (const std::string& strKey : vecKeys) {
    EXPECT_EQ("<" + strKey + ">", m_stMap.GetString(strKey.c_str()));
  }
  ExpectSound();
}

TEST_F(HashMapTest, IntegersAreTheirEightBytes) {
  Make(10);
  ASSERT_TRUE(m_stMap.Set("n", uint64_t{0x0102030405060708}));
  EXPECT_EQ(std::string("\x08\x07\x06\x05\x04\x03\x02\x01"), Value("n"));
  EXPECT_EQ(0x0102030405060708u, m_stMap.GetInt("n", 5));
  EXPECT_EQ(5u, m_stMap.GetInt("missing", 5));
}

TEST_F(HashMapTest, GetIntTakesAStringOfSevenCharactersOnly) {
  Make(10);
  ASSERT_TRUE(m_stMap.Set("six", "123456"));
  ASSERT_TRUE(m_stMap.Set("seven", "1234567"));
  ASSERT_TRUE(m_stMap.Set("eight", "12345678"));
  ASSERT_TRUE(m_stMap.Set("none", nullptr, 0));
  EXPECT_EQ(99u, m_stMap.GetInt("six", 99));
  EXPECT_EQ(0x0037363534333231u, m_stMap.GetInt("seven", 99));
  EXPECT_EQ(99u, m_stMap.GetInt("eight", 99));
  EXPECT_EQ(99u, m_stMap.GetInt("none", 99));
}

TEST_F(HashMapTest, GetStringIsNullForAbsentAndEmptyValues) {
  Make(10);
  ASSERT_TRUE(m_stMap.Set("text", "hello"));
  ASSERT_TRUE(m_stMap.Set("none", nullptr, 0));
  ASSERT_TRUE(m_stMap.Set("bare", "ab", 2));
  EXPECT_STREQ("hello", m_stMap.GetString("text"));
  EXPECT_EQ(6u, m_stMap.Get("text").iValueSize);
  EXPECT_EQ(nullptr, m_stMap.GetString("none"));
  EXPECT_EQ(nullptr, m_stMap.GetString("missing"));
  EXPECT_EQ(m_stMap.Get("bare").pValue, m_stMap.GetString("bare"));  // not checked for a NUL
}

TEST_F(HashMapTest, SetOfAnExistingKeyReplacesItAndPutsItFirst) {
  Make(1);
  for (const char* pKey : {"a", "b", "c", "d"}) {
    ASSERT_TRUE(m_stMap.Set(pKey, "old"));
  }
  ASSERT_EQ("d c b a", Keys());
  for (const char* pKey : {"a", "c", "c"}) {  // last, middle, first
    ASSERT_TRUE(m_stMap.Set(pKey, "new value"));
    ExpectSound();
  }
  EXPECT_EQ("c a d b", Keys());
  EXPECT_EQ(4u, m_stMap.GetStat().iObjectCount);
  EXPECT_STREQ("new value", m_stMap.GetString("a"));
  EXPECT_STREQ("old", m_stMap.GetString("d"));
}

TEST_F(HashMapTest, ReplacementOfTheSameSizeClassGetsTheSameBlock) {
  Make(10);
  ASSERT_TRUE(m_stMap.Set("key", "12345", 5));
  const char* pOld = m_stMap.Get("key").pKey;
  ASSERT_TRUE(m_stMap.Set("key", "123456789012", 12));
  EXPECT_EQ(pOld, m_stMap.Get("key").pKey);
  EXPECT_EQ("123456789012", Value("key"));
  ASSERT_TRUE(m_stMap.Set("key", "1234567890123", 13));
  EXPECT_NE(pOld, m_stMap.Get("key").pKey);
  ASSERT_TRUE(m_stMap.Set("kez", "12345", 5));  // the block of old was freed
  EXPECT_EQ(pOld, m_stMap.Get("kez").pKey);
  ExpectSound();
}

TEST_F(HashMapTest, ValueMayLieInTheEntryThatIsReplaced) {
  Make(10);
  ASSERT_TRUE(m_stMap.Set("key", "0123456789"));
  ASSERT_TRUE(m_stMap.Set(m_stMap.Get("key")));
  EXPECT_STREQ("0123456789", m_stMap.GetString("key"));
  const HashItem_t stItem = m_stMap.Get("key");
  ASSERT_TRUE(m_stMap.Set(stItem.pKey, stItem.pValue + 2, 9));  // same block, overlapping
  EXPECT_STREQ("23456789", m_stMap.GetString("key"));
  ASSERT_TRUE(m_stMap.Set("key", m_stMap.GetString("key") + 6, 3));  // a smaller one
  EXPECT_STREQ("89", m_stMap.GetString("key"));
}

TEST_F(HashMapTest, FailedReplacementLosesTheOldEntry) {
  MakeWithRoom(10, 32);
  ASSERT_TRUE(m_stMap.Set("key", "1234", 4));
  EXPECT_FALSE(m_stMap.Set("key", "1234567890123456", 16));
  EXPECT_EQ("(none)", Value("key"));
  EXPECT_EQ(0u, m_stMap.GetStat().iObjectCount);
  EXPECT_TRUE(m_stMap.Set("key", "1234", 4));
  ExpectSound();
}

TEST_F(HashMapTest, FullTableRefusesNewKeysAndKeepsTheOthers) {
  MakeWithRoom(10, 64);
  ASSERT_TRUE(m_stMap.Set("k1", "1234", 4));
  ASSERT_TRUE(m_stMap.Set("k2", "1234", 4));
  EXPECT_FALSE(m_stMap.Set("k3", "1234", 4));
  EXPECT_EQ("1234", Value("k1"));
  EXPECT_TRUE(m_stMap.Set("k2", "5678", 4));
  ASSERT_TRUE(m_stMap.Delete("k1"));
  EXPECT_TRUE(m_stMap.Set("k3", "1234", 4));
  ExpectSound();
}

TEST_F(HashMapTest, LargestEntryFillsTheLargestBlock) {
  Make(10, SIZE + (8 << 20));
  const std::string strValue(4194278, 'v');
  EXPECT_FALSE(m_stMap.Set("ab", strValue.data(), 4194278));
  EXPECT_TRUE(m_stMap.Set("a", strValue.data(), 4194278));
  EXPECT_EQ(strValue, Value("a"));
}

TEST_F(HashMapTest, SizesAreAddedIn64Bits) {
  Make(10);
  EXPECT_FALSE(m_stMap.Set("key", "", UINT32_MAX));
  EXPECT_FALSE(m_stMap.Set("key", "", UINT32_MAX - 10));
  ExpectSound();
}

// Delete.

TEST_F(HashMapTest, DeleteTakesAnEntryFromAnyPlaceOfItsChain) {
  Make(1);
  for (const char* pKey : {"a", "b", "c", "d"}) {
    ASSERT_TRUE(m_stMap.Set(pKey, "value"));
  }
  EXPECT_TRUE(m_stMap.Delete("c"));
  EXPECT_EQ("d b a", Keys());
  EXPECT_TRUE(m_stMap.Delete("d"));
  EXPECT_TRUE(m_stMap.Delete("a"));
  EXPECT_EQ("b", Keys());
  EXPECT_TRUE(m_stMap.Delete("b"));
  EXPECT_EQ("", Keys());
  ExpectSound();
  EXPECT_EQ(m_stMap.GetStat().iTotalFreeShmSize, uint64_t{1} << 20);
}

TEST_F(HashMapTest, DeleteOfAMissingKeyIsTrueAndChangesNothing) {
  Make(10);
  ASSERT_TRUE(m_stMap.Set("key", "value"));
  const std::string strBefore(m_pRaw->Base(), SIZE);
  EXPECT_TRUE(m_stMap.Delete("other"));
  EXPECT_EQ(strBefore, std::string(m_pRaw->Base(), SIZE));
}

// Statistics.

TEST_F(HashMapTest, StatisticsOfAnEmptyTableAreZero) {
  Make(10);
  const HashMapStat_t& stStat = m_stMap.GetStat();
  EXPECT_EQ(0u, stStat.iObjectCount);
  EXPECT_EQ(0u, stStat.iMaxKeySize + stStat.iMaxValueSize + stStat.iMaxBucketSize);
  EXPECT_EQ(0u, stStat.iAvgKeySize + stStat.iAvgValueSize + stStat.iAvgBucketSize);
  EXPECT_EQ(uint64_t{1} << 20, stStat.iFreeShmSize);
  EXPECT_EQ(uint64_t{1} << 20, stStat.iTotalFreeShmSize);
}

TEST_F(HashMapTest, StatisticsCountKeysWithTheirNulAndRoundDown) {
  Make(2);
  ASSERT_TRUE(m_stMap.Set("a", "", 0));
  ASSERT_TRUE(m_stMap.Set("bcd", "12345", 5));
  ASSERT_TRUE(m_stMap.Set("ef", "1234567890", 10));
  const HashMapStat_t& stStat = m_stMap.GetStat();
  EXPECT_EQ(3u, stStat.iObjectCount);
  EXPECT_EQ(4u, stStat.iMaxKeySize);
  EXPECT_EQ(3u, stStat.iAvgKeySize);
  EXPECT_EQ(10u, stStat.iMaxValueSize);
  EXPECT_EQ(5u, stStat.iAvgValueSize);
  EXPECT_EQ(1u, stStat.iAvgBucketSize);
  EXPECT_EQ(9u, m_pRaw->Word(HEAD + 32));
  EXPECT_EQ(15u, m_pRaw->Word(HEAD + 40));
}

TEST_F(HashMapTest, MaximaNeverFallButAveragesDo) {
  Make(1);
  ASSERT_TRUE(m_stMap.Set("long key", "1234567890", 10));
  ASSERT_TRUE(m_stMap.Set("b", "1", 1));
  ASSERT_TRUE(m_stMap.Set("long key", "12", 2));
  ASSERT_TRUE(m_stMap.Delete("long key"));
  const HashMapStat_t stStat = m_stMap.GetStat();
  EXPECT_EQ(9u, stStat.iMaxKeySize);
  EXPECT_EQ(10u, stStat.iMaxValueSize);
  EXPECT_EQ(2u, stStat.iMaxBucketSize);
  EXPECT_EQ(2u, stStat.iAvgKeySize);
  EXPECT_EQ(1u, stStat.iAvgValueSize);
  ASSERT_TRUE(m_stMap.Delete("b"));
  EXPECT_EQ(0u, m_stMap.GetStat().iAvgKeySize);
  EXPECT_EQ(9u, m_stMap.GetStat().iMaxKeySize);
}

TEST_F(HashMapTest, LongestChainIsCountedPerBucket) {
  Make(7);
  ASSERT_TRUE(m_stMap.Set("", "x"));          // bucket 2
  ASSERT_TRUE(m_stMap.Set("\xe4\xff", "x"));  // bucket 2
  ASSERT_TRUE(m_stMap.Set("a", "x"));         // bucket 6
  EXPECT_EQ(2u, m_pRaw->Half(BUCKETS + 2 * 16));
  EXPECT_EQ(1u, m_pRaw->Half(BUCKETS + 6 * 16));
  EXPECT_EQ(2u, m_stMap.GetStat().iMaxBucketSize);
  EXPECT_EQ(0u, m_stMap.GetStat().iAvgBucketSize);
}

TEST_F(HashMapTest, StatisticsShowTheHeapsFreeSpace) {
  Make(10);
  ASSERT_TRUE(m_stMap.Set("key", "1234", 4));
  EXPECT_EQ((1u << 20) - 320, m_stMap.GetStat().iFreeShmSize);
  EXPECT_EQ((1u << 20) - 32, m_stMap.GetStat().iTotalFreeShmSize);
}

TEST_F(HashMapTest, RemovingNoEntryFromTheStatisticsIsIgnored) {
  Make(10);
  ASSERT_TRUE(m_stMap.Set("key", "1234", 4));
  m_stMap.RemoveObjectForStat(nullptr, 3);
  ExpectSound();
}

// Iteration.

TEST_F(HashMapTest, EmptyTableBeginsAtItsEnd) {
  Make(10);
  EXPECT_TRUE(m_stMap.begin() == m_stMap.end());
  EXPECT_FALSE(m_stMap.begin() != m_stMap.end());
  EXPECT_TRUE(m_stMap.end() == HashMap::iterator());
}

TEST_F(HashMapTest, IterationGoesByBucketAndNewestFirst) {
  Make(7);
  for (const char* pKey : {"a", "key", "", "\xe4\xff", "hello world"}) {
    ASSERT_TRUE(m_stMap.Set(pKey, uint64_t{HashMap::FNVHash(pKey) % 7}));
  }
  EXPECT_EQ("hello world \xe4\xff  key a", Keys());
  std::vector<uint64_t> vecBuckets;
  for (HashMap::iterator it = m_stMap.begin(); it != m_stMap.end(); ++it) {
    vecBuckets.push_back(static_cast<uint64_t>(it));
  }
  EXPECT_EQ((std::vector<uint64_t>{0, 2, 2, 5, 6}), vecBuckets);
}

TEST_F(HashMapTest, FindGivesAnIteratorThatGoesOn) {
  Make(1);
  for (const char* pKey : {"a", "b", "c"}) {
    ASSERT_TRUE(m_stMap.Set(pKey, pKey));
  }
  HashMap::iterator it = m_stMap.find("b");
  EXPECT_STREQ("b", (*it).pKey);
  EXPECT_STREQ("b", (*it).pValue);
  EXPECT_EQ(2u, (*it).iValueSize);
  EXPECT_STREQ("a", (*++it).pKey);
  EXPECT_TRUE(++it == m_stMap.end());
  EXPECT_TRUE(++it == m_stMap.end());
  EXPECT_EQ(nullptr, (*it).pKey);
  EXPECT_TRUE(m_stMap.find("d") == m_stMap.end());
}

TEST_F(HashMapTest, CurrentEntryMayBeDeletedBeforeIncrement) {
  Make(2);
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(m_stMap.Set(std::to_string(i).c_str(), "value"));
  }
  int iCount = 0;
  for (HashMap::iterator it = m_stMap.begin(); it != m_stMap.end(); ++it) {
    const std::string strKey = (*it).pKey;
    ASSERT_TRUE(m_stMap.Delete(strKey.c_str()));
    ++iCount;
  }
  EXPECT_EQ(20, iCount);
  EXPECT_EQ(0u, m_stMap.GetStat().iObjectCount);
}

TEST_F(HashMapTest, IteratorsCompareMapBucketAndNextButNotTheEntry) {
  Make(1);
  ASSERT_TRUE(m_stMap.Set("a", "value"));
  const HashMap::iterator itOld = m_stMap.begin();
  EXPECT_TRUE(itOld == m_stMap.find("a"));
  EXPECT_TRUE(itOld == itOld);
  EXPECT_FALSE(itOld == m_stMap.end());
  ASSERT_TRUE(m_stMap.Delete("a"));
  ASSERT_TRUE(m_stMap.Set("other, in another block", "value"));
  EXPECT_NE((*itOld).pKey, (*m_stMap.begin()).pKey);
  EXPECT_TRUE(itOld == m_stMap.begin());  // same bucket, nothing behind
  Map stOther;
  ASSERT_TRUE(stOther.Attach(m_stKey.Key(), 0, 1, false));
  EXPECT_FALSE(stOther.begin() == m_stMap.begin());
}

TEST_F(HashMapTest, LastEntriesOfTwoBucketsAreNotEqual) {
  Make(7);
  ASSERT_NE(HashMap::FNVHash("a") % 7, HashMap::FNVHash("key") % 7);
  ASSERT_TRUE(m_stMap.Set("a", "value"));
  ASSERT_TRUE(m_stMap.Set("key", "value"));
  EXPECT_FALSE(m_stMap.find("a") == m_stMap.find("key"));  // nothing comes behind either
}

TEST_F(HashMapTest, EntriesOfOneBucketAreNotEqual) {
  Make(1);
  ASSERT_TRUE(m_stMap.Set("a", "value"));
  ASSERT_TRUE(m_stMap.Set("b", "value"));
  EXPECT_FALSE(m_stMap.find("a") == m_stMap.find("b"));
}

TEST_F(HashMapTest, PrefixIncrementReturnsTheIteratorItself) {
  Make(1);
  ASSERT_TRUE(m_stMap.Set("a", "value"));
  HashMap::iterator it = m_stMap.begin();
  EXPECT_EQ(&it, &++it);
}

TEST_F(HashMapTest, PostfixIncrementReturnsOneCopyForTheWholeProcess) {
  Make(1);
  for (const char* pKey : {"a", "b", "c"}) {
    ASSERT_TRUE(m_stMap.Set(pKey, "value"));
  }
  HashMap::iterator it = m_stMap.begin();
  HashMap::iterator itOther = m_stMap.find("b");
  HashMap::iterator& itBefore = it++;
  EXPECT_STREQ("c", (*itBefore).pKey);
  EXPECT_STREQ("b", (*it).pKey);
  EXPECT_EQ(&itBefore, &(itOther++));
  EXPECT_STREQ("b", (*itBefore).pKey);
}

TEST_F(HashMapTest, IteratorConvertsToItsValue) {
  Make(10);
  const int iFour = -4;
  ASSERT_TRUE(m_stMap.Set("8", uint64_t{1} << 40));
  ASSERT_TRUE(m_stMap.Set("4", &iFour, sizeof(iFour)));
  const HashMap::iterator it8 = m_stMap.find("8");
  const HashMap::iterator it4 = m_stMap.find("4");
  EXPECT_EQ(uint64_t{1} << 40, static_cast<uint64_t>(it8));
  EXPECT_EQ(0, static_cast<int>(it8));
  EXPECT_EQ(-4, static_cast<int>(it4));
  EXPECT_EQ(0u, static_cast<uint64_t>(it4));
  const char* pValue = it8;
  EXPECT_EQ(m_stMap.Get("8").pValue, pValue);
  EXPECT_EQ(pValue, static_cast<char*>(it8));
}

// What a derived iterator may call.
class Iterator : public HashMap::iterator {
 public:
  Iterator(uint64_t iBucket, uint64_t iNext, HashMap* pHashMap, char* pKey, uint32_t iValueSize,
           char* pValue)
      : iterator(iBucket, iNext, pHashMap, pKey, iValueSize, pValue) {}
  using iterator::m_iBucket;
  using iterator::m_iNext;
  using iterator::m_pHashMap;
  using iterator::m_sItem;
  using iterator::make_end;
};

TEST_F(HashMapTest, IteratorIsMadeOfItsFieldsAndGoesOnFromThem) {
  Make(7);
  ASSERT_TRUE(m_stMap.Set("", "in bucket 2"));
  ASSERT_TRUE(m_stMap.Set("a", "in bucket 6"));
  char szKey[] = "key";
  char szValue[] = "value";
  Iterator it(1, 0, &m_stMap, szKey, 5, szValue);
  EXPECT_EQ(szKey, (*it).pKey);
  EXPECT_EQ(szValue, (*it).pValue);
  EXPECT_EQ(5u, (*it).iValueSize);
  EXPECT_STREQ("in bucket 2", (*++it).pValue);
  EXPECT_EQ(2u, it.m_iBucket);
  EXPECT_EQ(0u, it.m_iNext);
  Iterator itNext(4, m_pRaw->Word(BUCKETS + 2 * 16 + 8), &m_stMap, szKey, 5, szValue);
  EXPECT_STREQ("in bucket 2", (*++itNext).pValue);
  EXPECT_EQ(4u, itNext.m_iBucket);  // an entry of the same chain, as it was told
  EXPECT_STREQ("in bucket 6", (*++itNext).pValue);
}

TEST_F(HashMapTest, MakeEndClearsEveryField) {
  char szText[] = "text";
  Iterator it(1, 2, &m_stMap, szText, 3, szText);
  it.make_end();
  EXPECT_EQ(0u, it.m_iBucket);
  EXPECT_EQ(0u, it.m_iNext);
  EXPECT_EQ(nullptr, it.m_pHashMap);
  EXPECT_EQ(nullptr, it.m_sItem.pKey);
  EXPECT_EQ(nullptr, it.m_sItem.pValue);
  EXPECT_EQ(0u, it.m_sItem.iValueSize);
}

TEST_F(HashMapTest, EndIteratorConvertsToNothing) {
  const HashMap::iterator itEnd;
  EXPECT_EQ(0u, static_cast<uint64_t>(itEnd));
  EXPECT_EQ(0, static_cast<int>(itEnd));
  EXPECT_EQ(nullptr, static_cast<char*>(itEnd));
  EXPECT_TRUE(std::has_virtual_destructor<HashMap::iterator>::value);
}

// Dump.

TEST_F(HashMapTest, DumpShowsHeapTableAndEntries) {
  MakeWithRoom(7, 32);
  ASSERT_TRUE(m_stMap.Set("", "abcd"));
  std::string strHeap = CaptureDescriptor([&](int iFD) { m_stMap.m_sAllocator.Dump(iFD); });
  EXPECT_NE(std::string::npos, strHeap.find("m_pHead->iBlockCount=\"1\"\n"));
  EXPECT_EQ("---------- ShmAllocator ----------\n" + strHeap +
                "---------- HashMap ----------\n"
                "m_pHead->iBucketCount=\"7\"\n"
                "m_pHead->iObjectCount=\"1\"\n"
                "---------- HashMap.Bucket ----------\n"
                "bucket:2 key:\"\", value_size:\"5\"\n",
            CaptureDescriptor([&](int iFD) { m_stMap.Dump(iFD); }));
}

TEST_F(HashMapTest, DumpFollowsBucketsAndChains) {
  Make(7);
  for (const char* pKey : {"", "\xe4\xff", "a", "hello world"}) {
    ASSERT_TRUE(m_stMap.Set(pKey, "1234567890", static_cast<uint32_t>(strlen(pKey))));
  }
  const std::string strText = CaptureDescriptor([&](int iFD) { m_stMap.Dump(iFD); });
  EXPECT_EQ(
      "bucket:0 key:\"hello world\", value_size:\"11\"\n"
      "bucket:2 key:\"\xe4\xff\", value_size:\"2\"\n"
      "bucket:2 key:\"\", value_size:\"0\"\n"
      "bucket:6 key:\"a\", value_size:\"1\"\n",
      strText.substr(strText.find("bucket:")));
}

// A format between processes.

TEST_F(HashMapTest, TableLaidDownByHandIsRead) {
  m_pRaw = std::make_unique<HeapImage>(m_stKey.Key(), SIZE);
  const uint64_t iBlock = HEAD + DEFAULT_RESERVED;
  const uint64_t szHeap[] = {SIZE,        8, 4194304, 8, 1, HEAD, DEFAULT_RESERVED,
                             iBlock + 40, 0, 9693823};
  memcpy(m_pRaw->Base(), szHeap, sizeof(szHeap));
  const uint64_t szHead[] = {7, 1, READY | uint64_t{4} << 32, 11, 4, 11, 1};
  memcpy(m_pRaw->Base() + HEAD, szHead, sizeof(szHead));
  m_pRaw->SetHalf(BUCKETS + 5 * 16, 1);
  m_pRaw->SetWord(BUCKETS + 5 * 16 + 8, iBlock + 8);
  m_pRaw->SetWord(iBlock, 40);
  m_pRaw->SetHalf(iBlock + 16, 4);
  m_pRaw->SetHalf(iBlock + 20, 11);
  memcpy(m_pRaw->Base() + iBlock + 24, "key\0laid down\0", 15);
  ASSERT_TRUE(m_stMap.Attach(m_stKey.Key(), 0, 99, false));
  EXPECT_EQ(7u, m_stMap.m_iBucketCount);
  EXPECT_EQ(std::string("laid down\0\0", 11), Value("key"));
  EXPECT_EQ(11u, m_stMap.GetStat().iMaxValueSize);
  ASSERT_TRUE(m_stMap.Set("key", uint64_t{1}));
  ExpectSound();
}

TEST_F(HashMapTest, TableOutlivesTheProcessThatFilledIt) {
  ForkedPeer stWriter([&] {
    HashMap stMap;
    const bool bDone = stMap.Attach(m_stKey.Key(), SIZE, 1000, false) &&
                       stMap.Set("key", "value") && stMap.Set("number", uint64_t{42});
    return bDone ? raise(SIGKILL) : 1;
  });
  ASSERT_EQ(1000 + SIGKILL, stWriter.Wait());
  Make(5);
  EXPECT_EQ("value", std::string(m_stMap.GetString("key")));
  EXPECT_EQ(42u, m_stMap.GetInt("number", 0));
  ExpectSound();
}

// A value that tells its key and its own length.
std::string TellingValue(int i) {
  return std::to_string(i) + ":" + std::string(static_cast<size_t>(i % 50), 'v');
}

TEST_F(HashMapTest, ReaderSeesNewEntriesOnlyWhenTheyAreComplete) {
  Make(64, SIZE + (4 << 20));
  ForkedPeer stWriter([&] {
    HashMap stMap;
    bool bDone = stMap.Attach(m_stKey.Key(), 0, 64, false);
    for (int i = 0; i < 20000 && bDone; ++i) {
      const std::string strValue = TellingValue(i);
      bDone = stMap.Set(std::to_string(i).c_str(), strValue.data(),
                        static_cast<uint32_t>(strValue.size()));
    }
    return bDone ? 0 : 1;
  });
  Map stReader;
  ASSERT_TRUE(stReader.Attach(m_stKey.Key(), 0, 64, true));
  const auto tGiveUp = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  for (int iNext = 0; iNext < 20000;) {
    const HashItem_t stItem = stReader.Get(std::to_string(iNext).c_str());
    if (stItem.pKey != nullptr) {
      ASSERT_EQ(TellingValue(iNext++), ValueOf(stItem));
    } else {
      ASSERT_LT(std::chrono::steady_clock::now(), tGiveUp);
    }
  }
  EXPECT_EQ(0, stWriter.Wait());
  ExpectSound();
}

TEST_F(HashMapTest, ReservedSizeThatMisalignsEverythingWorks) {
  RESERVED_SIZE = DEFAULT_RESERVED + 3;
  Make(7);
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(m_stMap.Set(std::to_string(i % 150).c_str(), static_cast<uint64_t>(i)));
  }
  for (int i = 100; i < 150; ++i) {
    ASSERT_TRUE(m_stMap.Delete(std::to_string(i).c_str()));
  }
  EXPECT_EQ(199u, m_stMap.GetInt("49", 0));
  const std::string strKeys = Keys();
  EXPECT_EQ(99, std::count(strKeys.begin(), strKeys.end(), ' '));
  ExpectSound();
}

// Long runs.

TEST_F(HashMapTest, RandomUseAgreesWithAnOrdinaryMap) {
  Make(97);
  std::mt19937 stRandom(20240229);
  std::map<std::string, std::string> mapExpected;
  for (int i = 0; i < 30000; ++i) {
    const std::string strKey = std::to_string(stRandom() % 500);
    const std::string strValue(stRandom() % 100, static_cast<char>('a' + i % 26));
    if (stRandom() % 3 == 0) {
      ASSERT_TRUE(m_stMap.Delete(strKey.c_str()));
      mapExpected.erase(strKey);
    } else {
      ASSERT_TRUE(
          m_stMap.Set(strKey.c_str(), strValue.data(), static_cast<uint32_t>(strValue.size())));
      mapExpected[strKey] = strValue;
    }
  }
  std::map<std::string, std::string> mapFound;
  for (HashMap::iterator it = m_stMap.begin(); it != m_stMap.end(); ++it) {
    mapFound[(*it).pKey] = ValueOf(*it);
  }
  EXPECT_EQ(mapExpected, mapFound);
  ExpectSound();
}

}  // namespace
