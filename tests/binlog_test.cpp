#include "binlog.h"

#include <gtest/gtest.h>

#include <memory>

#include "test_support.h"

namespace {

class OpenBinlog : public Binlog {
 public:
  explicit OpenBinlog(bool& bDestroyed) : m_bDestroyed(bDestroyed) {}
  ~OpenBinlog() override { m_bDestroyed = true; }
  const std::string& Filename() const { return m_strFilename; }
  uint64_t Size() const { return m_iBinlogSize; }
  bool Preallocates() const { return m_bPreallocate; }
  int FD() const { return m_iFD; }

 private:
  bool& m_bDestroyed;
};

TEST(BinlogTest, OperationsDoNothingAndSucceed) {
  const int iDescriptors = OpenDescriptors();
  Binlog stBinlog;
  EXPECT_EQ(0, stBinlog.Write("data", 4));
  char szContent[] = "unchanged";
  binlog_item_t stItem{9, szContent};
  EXPECT_EQ(0, stBinlog.Read(&stItem, 1));
  EXPECT_EQ(9, stItem.iSize);
  EXPECT_STREQ("unchanged", stItem.pContent);
  EXPECT_EQ(iDescriptors, OpenDescriptors());
}

TEST(BinlogTest, HasNoFileAtFirstAndAVirtualDestructor) {
  bool bDestroyed = false;
  auto pOpen = std::make_unique<OpenBinlog>(bDestroyed);
  EXPECT_EQ("", pOpen->Filename());
  EXPECT_EQ(0u, pOpen->Size());
  EXPECT_FALSE(pOpen->Preallocates());
  EXPECT_EQ(-1, pOpen->FD());
  std::unique_ptr<Binlog>(std::move(pOpen)).reset();
  EXPECT_TRUE(bDestroyed);
}

}  // namespace
