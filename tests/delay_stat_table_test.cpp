#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iomanip>
#include <random>
#include <sstream>
#include <vector>

#include "delay_stat.h"
#include "test_support.h"

namespace {

// The same table in the plain form: a stream with field widths.
class PlainTable : public DelayStat {
 public:
  std::string Stream() const {
    std::ostringstream stTable;
    if (m_mapData.empty()) {
      return "";
    }
    const int iTagWidth = static_cast<int>(m_iTagMaxSize) + 5;
    stTable << std::setw(iTagWidth) << "tag" << std::setw(10) << "count" << std::setw(10) << "min"
            << std::setw(10) << "avg" << std::setw(10) << "max";
    for (unsigned int k = 0; k <= m_iMaxKey; ++k) {
      char szLabel[64];
      snprintf(szLabel, sizeof(szLabel), "%u-%u", k * m_iInterval, (k + 1) * m_iInterval);
      stTable << std::setw(10) << szLabel;
    }
    stTable << "\n";
    for (const auto& [strTag, stItem] : m_mapData) {
      stTable << std::setw(iTagWidth) << strTag << std::setw(10) << stItem.iCount << std::setw(10)
              << stItem.iMin << std::setw(10) << stItem.iTotal / stItem.iCount << std::setw(10)
              << stItem.iMax;
      for (unsigned int k = 0; k <= m_iMaxKey; ++k) {
        const auto itBucket = stItem.mapInterval.find(k);
        stTable << std::setw(10) << (itBucket != stItem.mapInterval.end() ? itBucket->second : 0);
      }
      stTable << "\n";
    }
    return stTable.str();
  }
  StatItem_t& Item(const std::string& strTag) { return m_mapData[strTag]; }
};

std::vector<std::string> LinesOf(const std::string& strTable) {
  std::vector<std::string> vecLines;
  std::istringstream stTable(strTable);
  for (std::string strLine; std::getline(stTable, strLine);) {
    vecLines.push_back(strLine);
  }
  return vecLines;
}

TEST(DelayStatTableTest, IsTheHeadingAndOneLinePerTag) {
  DelayStat stStat;
  stStat.PushData("db", 10);
  stStat.PushData("db", 120);
  EXPECT_EQ(
      "    tag     count       min       avg       max      0-50    50-100   100-150\n"
      "     db         2        10        65       120         1         0         1\n",
      stStat.GenerateStatTable());
}

TEST(DelayStatTableTest, IsEmptyWithoutSamples) {
  DelayStat stStat;
  EXPECT_EQ("", stStat.GenerateStatTable());
  stStat.PushData("db", 10);
  stStat.Clear();
  EXPECT_EQ("", stStat.GenerateStatTable());
}

TEST(DelayStatTableTest, GeneratingChangesNothing) {
  DelayStat stStat;
  stStat.PushData("db", 10);
  const std::string strFirst = stStat.GenerateStatTable();
  EXPECT_EQ(strFirst, stStat.GenerateStatTable());
}

TEST(DelayStatTableTest, TagsAreInByteOrder) {
  DelayStat stStat;
  for (const char* pTag : {"b", "a", "\xc3\xa4", "B", "ab"}) {
    stStat.PushData(pTag, 1);
  }
  const std::vector<std::string> vecLines = LinesOf(stStat.GenerateStatTable());
  ASSERT_EQ(6u, vecLines.size());
  EXPECT_EQ("      B", vecLines[1].substr(0, 7));
  EXPECT_EQ("      a", vecLines[2].substr(0, 7));
  EXPECT_EQ("     ab", vecLines[3].substr(0, 7));
  EXPECT_EQ("      b", vecLines[4].substr(0, 7));
  EXPECT_EQ("     \xc3\xa4", vecLines[5].substr(0, 7));
}

TEST(DelayStatTableTest, LongestTagWidensTheFirstColumnOfEveryLine) {
  DelayStat stStat;
  stStat.PushData("short", 1);
  stStat.PushData("a rather long tag", 1);
  const std::vector<std::string> vecLines = LinesOf(stStat.GenerateStatTable());
  ASSERT_EQ(3u, vecLines.size());
  const std::string strMargin(5, ' ');
  EXPECT_EQ(strMargin + "              tag     count", vecLines[0].substr(0, 32));
  EXPECT_EQ(strMargin + "a rather long tag         1", vecLines[1].substr(0, 32));
  EXPECT_EQ(strMargin + "            short         1", vecLines[2].substr(0, 32));
}

TEST(DelayStatTableTest, LargeValueAddsColumnsForEveryTag) {
  DelayStat stStat;
  stStat.PushData("fast", 10);
  stStat.PushData("slow", 100000);
  const std::vector<std::string> vecLines = LinesOf(stStat.GenerateStatTable());
  ASSERT_EQ(3u, vecLines.size());
  EXPECT_EQ(" 1950-2000 2000-2050", vecLines[0].substr(vecLines[0].size() - 20));
  const size_t iBuckets = 4 + 5 + 4 * 10;  // where they begin
  std::string strZeros;
  for (int i = 0; i < 40; ++i) {
    strZeros += "         0";
  }
  EXPECT_EQ("         1" + strZeros, vecLines[1].substr(iBuckets));
  EXPECT_EQ(strZeros + "         1", vecLines[2].substr(iBuckets));
}

TEST(DelayStatTableTest, AverageIsCutIn64Bits) {
  DelayStat stStat;
  stStat.PushData("cut", 1);
  stStat.PushData("cut", 2);
  for (int i = 0; i < 3; ++i) {
    stStat.PushData("large", 4294967295u);
  }
  const std::vector<std::string> vecLines = LinesOf(stStat.GenerateStatTable());
  ASSERT_EQ(3u, vecLines.size());
  EXPECT_EQ("         2         1         1         2", vecLines[1].substr(10, 40));
  EXPECT_EQ("         3      500042949672954294967295", vecLines[2].substr(10, 40));
}

TEST(DelayStatTableTest, LabelWiderThanItsFieldShiftsTheLaterColumns) {
  DelayStat stStat;
  stStat.SetInterval(1000000, 100000, 0);
  stStat.PushData("t", 250000);
  EXPECT_EQ(
      "   tag     count       min       avg       max  0-100000100000-200000200000-300000\n"
      "     t         1      5000    250000    250000         0         0         1\n",
      stStat.GenerateStatTable());
}

TEST(DelayStatTableTest, LabelsWrapAt32Bits) {
  PlainTable stStat;
  stStat.SetInterval(4294967295u, 2000000000u, 0);
  stStat.PushData("t", 4294967295u);
  EXPECT_NE(std::string::npos, stStat.GenerateStatTable().find("4000000000-1705032704\n"));
  EXPECT_EQ(stStat.Stream(), stStat.GenerateStatTable());
}

TEST(DelayStatTableTest, ChangedIntervalRenamesTheBucketsThatAreThere) {
  DelayStat stStat;
  stStat.PushData("t", 60);
  stStat.SetInterval(100, 10, 0);
  EXPECT_EQ(
      "   tag     count       min       avg       max      0-10     10-20\n"
      "     t         1        60        60        60         0         1\n",
      stStat.GenerateStatTable());
}

TEST(DelayStatTableTest, CountThatStartedAnewDividesNothing) {
  PlainTable stStat;
  stStat.PushData("t", 7);
  stStat.Item("t").iCount = 0;
  EXPECT_EQ("     t         0         7         0         7         1",
            LinesOf(stStat.GenerateStatTable()).at(1));
}

TEST(DelayStatTableTest, LargestAverageIsWhole) {
  PlainTable stStat;
  stStat.PushData("t", 7);
  stStat.Item("t").iTotal = 18446744073709551615u;
  EXPECT_EQ("     t         1         718446744073709551615         7         1",
            LinesOf(stStat.GenerateStatTable()).at(1));
}

// A number of 1 to 32 bits, so that all lengths of text come up.
unsigned int AnyNumber(std::mt19937& stRandom) {
  const auto iNumber = static_cast<unsigned int>(stRandom());
  return iNumber >> (stRandom() % 32);
}

TEST(DelayStatTableTest, BytesAreThoseOfAStreamForRandomSamples) {
  std::mt19937 stRandom(4711);
  for (int iRound = 0; iRound < 300; ++iRound) {
    PlainTable stStat;
    const unsigned int iMax = AnyNumber(stRandom);
    stStat.SetInterval(iMax, iMax / (AnyNumber(stRandom) % 200 + 1) + 1, 0);
    for (int i = 0; i < 200; ++i) {
      const std::string strTag(stRandom() % 30, static_cast<char>('a' + stRandom() % 5));
      stStat.PushData(strTag.c_str(), AnyNumber(stRandom));
    }
    ASSERT_EQ(stStat.Stream(), stStat.GenerateStatTable()) << iRound;
  }
}

TEST(DelayStatTableTest, DumpToFDWritesTheTableAndKeepsTheSamples) {
  DelayStat stStat;
  stStat.PushData("db", 10);
  const std::string strTable = stStat.GenerateStatTable();
  EXPECT_EQ(strTable, CaptureDescriptor([&](int iFD) { stStat.DumpToFD(iFD); }));
  EXPECT_EQ(strTable, stStat.GenerateStatTable());
}

// A socket that keeps the boundaries of writes.
TEST(DelayStatTableTest, DumpToFDIsOneWrite) {
  DelayStat stStat;
  for (const char* pTag : {"a", "b", "c"}) {
    stStat.PushData(pTag, 100000);
  }
  int aSocket[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, aSocket));
  stStat.DumpToFD(aSocket[0]);
  close(aSocket[0]);
  char szPacket[8192];
  const ssize_t iSize = read(aSocket[1], szPacket, sizeof(szPacket));
  EXPECT_EQ(static_cast<ssize_t>(stStat.GenerateStatTable().size()), iSize);
  EXPECT_EQ(0, read(aSocket[1], szPacket, sizeof(szPacket)));
  close(aSocket[1]);
}

TEST(DelayStatTableTest, DumpToFDWritesNothingWithoutSamplesNotEvenAnEmptyPacket) {
  DelayStat stStat;
  int aSocket[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, aSocket));
  stStat.DumpToFD(aSocket[0]);
  char cByte = 0;
  EXPECT_EQ(-1, read(aSocket[1], &cByte, 1));
  EXPECT_EQ(EAGAIN, errno);
  close(aSocket[0]);
  close(aSocket[1]);
}

TEST(DelayStatTableTest, DumpToFDOfNoDescriptorDoesNotWrite) {
  DelayStat stStat;
  stStat.PushData("db", 10);
  errno = 0;
  stStat.DumpToFD(-1);
  EXPECT_EQ(0, errno);
}

TEST(DelayStatTableTest, DumpToFDSurvivesAWriteThatFails) {
  DelayStat stStat;
  stStat.PushData("db", 10);
  const int iFull = open("/dev/full", O_WRONLY | O_CLOEXEC);
  stStat.DumpToFD(iFull);
  close(iFull);
  EXPECT_NE("", stStat.GenerateStatTable());
}

TEST(DelayStatTableTest, DumpOfTheObjectWritesNothing) {
  DelayStat stStat;
  stStat.PushData("db", 10);
  Object& stObject = stStat;
  EXPECT_EQ("", CaptureDescriptor([&](int iFD) { stObject.Dump(iFD); }));
}

}  // namespace
