// A dump that an earlier build of the example server has written (tests/data/golden/README.md).

#include <gtest/gtest.h>

#include <string>

#include "dump_file.h"
#include "golden_image.h"
#include "kv_store_fixture.h"

namespace {

class KvGoldenImageTest : public KvStoreTest {
 protected:
  void SetUp() override {
    WriteFile(m_strPath, ImageBytes(ReadFile(GOLDEN_DIRECTORY "/dump.image")));
  }

  const PrivateDirectory m_stDirectory;
  const std::string m_strPath = m_stDirectory.File("dump-0.kv");
  DumpStat_t m_stStat{};
};

TEST_F(KvGoldenImageTest, TheDumpsKeysAreLoadedAndSavedAgain) {
  ASSERT_EQ("", LoadDump(m_stStore, m_stTable.Name().stMark, m_strPath, m_stStat));
  EXPECT_EQ(7u, m_stStat.iGeneration);
  EXPECT_EQ(5u, m_stStore.Count());
  EXPECT_EQ("red", ValueOf("color"));
  EXPECT_EQ("the empty key", ValueOf(""));
  EXPECT_EQ("", ValueOf("empty"));
  EXPECT_EQ(std::string("\0\r\n\xff", 4), ValueOf("binary"));
  EXPECT_EQ(4102444800000, m_stStore.Get("binary")->iExpireAt);
  EXPECT_EQ(1700000000001, m_stStore.Get("over")->iExpireAt);

  ASSERT_TRUE(m_stStore.Set("color", "green"));
  ASSERT_EQ("", WriteDump(m_stStore, m_stTable.Name().stMark, m_strPath, m_stStat, 8));
  const StoreTable stTable;
  KeyStore stStore;
  ASSERT_EQ("", stStore.Attach(stTable.Name()));
  stStore.SetTime(NOW);
  ASSERT_EQ("", LoadDump(stStore, stTable.Name().stMark, m_strPath, m_stStat));
  EXPECT_EQ(5u, stStore.Count());
  EXPECT_EQ("green", ::ValueOf(stStore, "color"));
}

TEST_F(KvGoldenImageTest, KeysWhoseTimeIsOverAreLeftOut) {
  m_stStore.SetTime(1700000000002);
  ASSERT_EQ("", LoadDump(m_stStore, m_stTable.Name().stMark, m_strPath, m_stStat));
  EXPECT_EQ(4u, m_stStore.Count());
  EXPECT_EQ("(none)", ValueOf("over"));
}

}  // namespace
