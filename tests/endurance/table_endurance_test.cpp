// A table whose writer is killed again and again under load. A record on file says which operation
// was begun and which was through; after each death the table must be sound and hold what a model
// of the operations holds, but for the one in flight.

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "endurance.h"
#include "hash_map.h"
#include "heap_image.h"
#include "test_support.h"

namespace {

const uint64_t KEYS = 300;
const uint64_t BUCKETS = 64;  // so that chains are long
const uint64_t RESERVED = 4096;
const uint64_t SIZE = 64 << 20;
const uint64_t BATCH = 10;  // blocks that are carved at once
const uint64_t LARGEST_BLOCK = 1152;
const uint64_t WORKS = 40;  // operations between two kills, at most, that are waited for

// ---- what the operation of a number is

std::string KeyOf(uint64_t iOperation) {
  const uint64_t iKey = Scrambled(iOperation) % KEYS;
  return std::string(iKey % 23, 'k') + std::to_string(iKey);
}

bool IsDelete(uint64_t iOperation) { return Scrambled(~iOperation) % 4 == 0; }

std::string ValueOf(uint64_t iOperation) {
  uint64_t iRandom = Scrambled(Scrambled(iOperation));
  std::string strValue(iRandom % 4 == 0 ? iRandom / 4 % 1000 : iRandom / 4 % 40, '\0');
  for (char& c : strValue) {
    c = static_cast<char>(iRandom >> 56);
    iRandom = iRandom * 0x5851f42d4c957f2d + 0x14057b7ef767814f;
  }
  return strValue;
}

typedef std::map<std::string, std::string> Content_t;

void Apply(Content_t& mapContent, uint64_t iOperation) {
  if (IsDelete(iOperation)) {
    mapContent.erase(KeyOf(iOperation));
  } else {
    mapContent[KeyOf(iOperation)] = ValueOf(iOperation);
  }
}

class TableKillTest : public ::testing::Test {
 protected:
  TableKillTest() { RESERVED_SIZE = RESERVED; }
  ~TableKillTest() override { RESERVED_SIZE = m_iOldReserved; }

  struct Record_t {
    std::atomic<uint64_t> iBegun{0};  // operations
    std::atomic<uint64_t> iDone{0};
    std::atomic<bool> bFailed{false};
  };

  int Write();
  static Content_t ContentOf(HashMap& stMap);
  void Settle(const Content_t& mapFound);
  void CheckBounds(const SegmentReport_t& stReport, uint64_t iKills) const;
  void Kill(ForkedPeer& stWriter, uint64_t iKills);

  const uint64_t m_iOldReserved = RESERVED_SIZE;
  const PrivateDirectory m_stDirectory;
  const PrivateKey m_stKey;
  const State<Record_t> m_pRecord{m_stDirectory.File("record")};
  Content_t m_mapModel;
  uint64_t m_iApplied = 0;  // operations that the model has seen
  uint64_t m_iInFlight = 0;
  uint64_t m_iThrough = 0;
  uint64_t m_iEntryGone = 0;
};

int TableKillTest::Write() {
  HashMap stMap;
  if (!stMap.Attach(m_stKey.Key(), SIZE, BUCKETS, false)) {
    return 1;
  }
  for (uint64_t i = m_pRecord->iDone;; ++i) {
    const std::string strKey = KeyOf(i);
    const std::string strValue = ValueOf(i);
    m_pRecord->iBegun = i + 1;
    const bool bDone = IsDelete(i) ? stMap.Delete(strKey.c_str())
                                   : stMap.Set(strKey.c_str(), strValue.data(),
                                               static_cast<uint32_t>(strValue.size()));
    if (!bDone) {
      m_pRecord->bFailed = true;
      return 1;
    }
    m_pRecord->iDone = i + 1;
  }
}

Content_t TableKillTest::ContentOf(HashMap& stMap) {
  Content_t mapContent;
  for (auto it = stMap.begin(); it != stMap.end(); ++it) {
    const HashItem_t& stItem = *it;
    EXPECT_TRUE(
        mapContent.emplace(stItem.pKey, std::string(stItem.pValue, stItem.iValueSize)).second)
        << stItem.pKey << " is there twice";
  }
  return mapContent;
}

// The model takes over what became of the operation in flight: nothing, all, or, of a Set that
// replaces, the first half.
void TableKillTest::Settle(const Content_t& mapFound) {
  for (; m_iApplied < m_pRecord->iDone; ++m_iApplied) {
    Apply(m_mapModel, m_iApplied);
  }
  if (m_pRecord->iBegun == m_pRecord->iDone) {
    ASSERT_TRUE(mapFound == m_mapModel) << "after operation " << m_iApplied;
    return;
  }
  Content_t mapThrough = m_mapModel;
  Content_t mapGone = m_mapModel;
  Apply(mapThrough, m_iApplied);
  mapGone.erase(KeyOf(m_iApplied));
  ++m_iInFlight;
  m_iThrough += mapFound == mapThrough ? 1 : 0;
  m_iEntryGone += mapFound != mapThrough && mapFound == mapGone && mapFound != m_mapModel ? 1 : 0;
  ASSERT_TRUE(mapFound == m_mapModel || mapFound == mapThrough || mapFound == mapGone)
      << "in operation " << m_iApplied;
  m_mapModel = mapFound;
  m_pRecord->iDone = ++m_iApplied;
}

// Each death may cost a block, or the batch being carved; counters may stand too high by it.
void TableKillTest::CheckBounds(const SegmentReport_t& stReport, uint64_t iKills) const {
  EXPECT_EQ("", stReport.Faults());
  EXPECT_LE(stReport.OtherBlocks(), iKills * BATCH);
  const auto iLimit = static_cast<int64_t>(iKills);
  for (const int64_t iExcess : {stReport.iObjectCountExcess, stReport.iBucketSizeExcess}) {
    EXPECT_TRUE(0 <= iExcess && iExcess <= iLimit) << iExcess;
  }
  EXPECT_GE(stReport.iTotalKeySizeExcess, 0);
  EXPECT_GE(stReport.iTotalValueSizeExcess, 0);
  EXPECT_GE(stReport.iManagedSizeExcess, 0);
  EXPECT_LE(stReport.iManagedSizeExcess, iLimit * static_cast<int64_t>(BATCH * LARGEST_BLOCK));
}

void TableKillTest::Kill(ForkedPeer& stWriter, uint64_t iKills) {
  stWriter.Kill(SIGKILL);
  ASSERT_EQ(1000 + SIGKILL, stWriter.Wait());
  const HeapImage stImage(m_stKey.Key());
  CheckBounds(CheckTable(stImage), iKills);
  HashMap stMap;
  ASSERT_TRUE(stMap.Attach(m_stKey.Key(), 0, BUCKETS, true));
  ASSERT_NO_FATAL_FAILURE(Settle(ContentOf(stMap)));
  for (const auto& stEntry : m_mapModel) {
    const HashItem_t stItem = stMap.Get(stEntry.first.c_str());
    ASSERT_EQ(stEntry.second, std::string(stItem.pValue, stItem.iValueSize)) << stEntry.first;
  }
}

TEST_F(TableKillTest, OnlyTheOperationInFlightIsInDoubt) {
  const Stopwatch stTime;
  const uint64_t iKills = Amount("ZELK_TABLE_KILLS", 40);
  for (uint64_t i = 1; i <= iKills; ++i) {
    const uint64_t iLimit = m_pRecord->iDone + 1 + Scrambled(i) % WORKS;
    ForkedPeer stWriter([this] { return Write(); });
    ASSERT_TRUE(WaitUntil([&] { return m_pRecord->iDone >= iLimit || m_pRecord->bFailed; }, 20000));
    ASSERT_FALSE(m_pRecord->bFailed) << "operation " << m_pRecord->iDone;
    ASSERT_NO_FATAL_FAILURE(Kill(stWriter, i)) << "kill " << i;
  }
  const HeapImage stImage(m_stKey.Key());
  Report("kills of a table's writer: " + std::to_string(iKills), stTime,
         std::to_string(m_iApplied) + " operations; killed inside one " +
             std::to_string(m_iInFlight) + " times (" + std::to_string(m_iThrough) +
             " times it was through, " + std::to_string(m_iEntryGone) +
             " times the old entry was gone and no new one there); " +
             std::to_string(CheckTable(stImage).OtherBlocks()) + " blocks lost");
}

}  // namespace
