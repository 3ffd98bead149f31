// The writer of the example server's keys, killed after each single instruction of an operation:
// every value that was acknowledged is there for the next writer, no block is lost, and the one
// operation under way has happened or not.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <string>

#include "heap_image.h"
#include "kv_store_fixture.h"
#include "sweep.h"

namespace {

const int64_t NOW = 1700000000000;
const char KEY[] = "the key";
const std::string OLD_VALUE = "old value of 24 bytes ..";
const std::string SAME_CLASS = "new value of 25 bytes ...";
const std::string OTHER_CLASS(120, 'n');
const std::string OTHERS[] = {"first other", "second other", "third other"};

// Value and expiry time, as the test compares them.
std::string Show(KeyStore& stStore, std::string_view strKey) {
  const auto stValue = stStore.Get(strKey);
  return stValue ? std::string(stValue->strBytes) + "/" + std::to_string(stValue->iExpireAt)
                 : "(none)";
}

class KeyStoreCrashTest : public ::testing::Test {
 protected:
  // What is under the key before, with its expiry time; and how much room the table has.
  std::string m_strBefore = OLD_VALUE;
  int64_t m_iExpireBefore = NOW + 5000;
  uint64_t m_iRoom = 64 << 10;

  void Fill(const TableName_t& stName) {
    KeyStore stStore;
    ASSERT_EQ("", stStore.Attach(stName));
    stStore.SetTime(NOW);
    for (const std::string& strOther : OTHERS) {
      ASSERT_TRUE(stStore.Set(strOther, OLD_VALUE));
    }
    if (!m_strBefore.empty()) {
      ASSERT_TRUE(stStore.Set(KEY, m_strBefore, m_iExpireBefore));
    }
    if (m_iRoom == 0) {
      for (int i = 0; stStore.Set("fill" + std::to_string(i), std::string(10, 'f')); ++i) {
      }
    }
  }

  // The child's first calls bind symbols, which is not what is stepped through here.
  static void Prepare(KeyStore& stStore, const TableName_t& stName) {
    stStore.Attach(stName);
    stStore.SetTime(NOW);
    uint64_t iSize = 0;
    stStore.Set("warm", "1");
    stStore.Set("warm", "2", NOW + 1000);
    stStore.Append("warm", std::string(70, 'w'), iSize);
    stStore.SetExpiry("warm", KeyStore::NEVER);
    stStore.Remove("warm");
  }

  // setAllowed: what may be under the key once the operation was begun; strComplete: and after it.
  void Sweep(const std::set<std::string>& setAllowed, const std::string& strComplete,
             const std::function<void(KeyStore&)>& fnOperation) {
    std::unique_ptr<StoreTable> pTable;
    KeyStore stStore;  // the child's
    SweepInstructions({[&] {
                         pTable = std::make_unique<StoreTable>(m_iRoom == 0 ? SMALL_ROOM : m_iRoom);
                         Fill(pTable->Name());
                       },
                       [&] { Prepare(stStore, pTable->Name()); }, [&] { fnOperation(stStore); },
                       [&](bool bComplete) {
                         Check(*pTable,
                               bComplete ? std::set<std::string>{strComplete} : setAllowed);
                       }});
  }

  void Check(const StoreTable& stTable, const std::set<std::string>& setAllowed) {
    EXPECT_EQ("", KeyStore::Inspect(stTable.Name()));
    KeyStore stStore;
    ASSERT_EQ("", stStore.Attach(stTable.Name()));
    stStore.SetTime(NOW);
    const SegmentReport_t stReport = CheckTable(HeapImage(stTable.Key()));
    EXPECT_EQ("", stReport.Faults());
    EXPECT_TRUE(stReport.CountersAgree());
    EXPECT_EQ(0u, stReport.OtherBlocks()) << "blocks are lost";
    EXPECT_EQ(1u, setAllowed.count(Show(stStore, KEY))) << Show(stStore, KEY);
    for (const std::string& strOther : OTHERS) {
      EXPECT_EQ(OLD_VALUE + "/0", Show(stStore, strOther));
    }
    EXPECT_EQ(stReport.iEntries - 1, stStore.Count()) << "all but the mark";
  }

  static constexpr uint64_t SMALL_ROOM = 4096;
};

std::string With(const std::string& strValue, int64_t iExpireAt) {
  return strValue + "/" + std::to_string(iExpireAt);
}

const std::string BEFORE = With(OLD_VALUE, NOW + 5000);

TEST_F(KeyStoreCrashTest, SetOfANewKey) {
  m_strBefore.clear();
  Sweep({"(none)", With(SAME_CLASS, 0)}, With(SAME_CLASS, 0),
        [](KeyStore& stStore) { stStore.Set(KEY, SAME_CLASS); });
}

TEST_F(KeyStoreCrashTest, ReplaceInPlace) {
  Sweep({BEFORE, With(SAME_CLASS, 0)}, With(SAME_CLASS, 0),
        [](KeyStore& stStore) { stStore.Set(KEY, SAME_CLASS); });
}

TEST_F(KeyStoreCrashTest, ReplaceByAnotherSizeWithCarving) {
  Sweep({BEFORE, With(OTHER_CLASS, NOW + 1)}, With(OTHER_CLASS, NOW + 1),
        [](KeyStore& stStore) { stStore.Set(KEY, OTHER_CLASS, NOW + 1); });
}

// The block for the new value is the last of its size: the one of an entry deleted before.
TEST_F(KeyStoreCrashTest, ReplaceByAnotherSizeInAFullTable) {
  m_iRoom = 0;
  m_strBefore = OTHER_CLASS;
  Sweep({With(OTHER_CLASS, NOW + 5000), With("x", 0)}, With("x", 0), [](KeyStore& stStore) {
    stStore.Remove("fill1");
    stStore.Set(KEY, "x");
  });
}

TEST_F(KeyStoreCrashTest, ReplaceInPlaceInAFullTable) {
  m_iRoom = 0;
  Sweep({BEFORE, With(SAME_CLASS, 0)}, With(SAME_CLASS, 0),
        [](KeyStore& stStore) { stStore.Set(KEY, SAME_CLASS); });
}

TEST_F(KeyStoreCrashTest, ReplaceWithoutRoomKeepsTheOld) {
  m_iRoom = 0;
  Sweep({BEFORE}, BEFORE, [](KeyStore& stStore) { stStore.Set(KEY, OTHER_CLASS); });
}

TEST_F(KeyStoreCrashTest, Append) {
  const std::string strAfter = With(OLD_VALUE + OTHER_CLASS, NOW + 5000);
  Sweep({BEFORE, strAfter}, strAfter, [](KeyStore& stStore) {
    uint64_t iSize = 0;
    stStore.Append(KEY, OTHER_CLASS, iSize);
  });
}

TEST_F(KeyStoreCrashTest, ExpiryTimes) {
  Sweep({BEFORE, With(OLD_VALUE, NOW + 1)}, With(OLD_VALUE, NOW + 1),
        [](KeyStore& stStore) { stStore.SetExpiry(KEY, NOW + 1); });
}

TEST_F(KeyStoreCrashTest, Remove) {
  Sweep({BEFORE, "(none)"}, "(none)", [](KeyStore& stStore) { stStore.Remove(KEY); });
}

// A key whose time has come is deleted when it is met, and the new value set.
TEST_F(KeyStoreCrashTest, SetOverAnExpiredKey) {
  Sweep({BEFORE, "(none)", With(OTHER_CLASS, 0)}, With(OTHER_CLASS, 0), [](KeyStore& stStore) {
    stStore.SetTime(NOW + 6000);
    stStore.Set(KEY, OTHER_CLASS);
  });
}

TEST_F(KeyStoreCrashTest, SweepOfAnExpiredKey) {
  Sweep({BEFORE, "(none)"}, "(none)", [](KeyStore& stStore) {
    stStore.SetTime(NOW + 6000);
    stStore.Sweep(1000);
  });
}

}  // namespace
