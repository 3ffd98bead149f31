#include "journal_file.h"

#include <unistd.h>

#include "kv_store_fixture.h"

namespace {

const uint64_t GENERATION = 7;

// A file written record by record, and a store to do it again in.
class KvJournalFileTest : public KvStoreTest {
 protected:
  KvJournalFileTest() { m_strFile.assign(reinterpret_cast<const char*>(&m_stHead), 24); }

  void Set(const std::string& strKey, const std::string& strValue, int64_t iExpireAt = 0) {
    m_stEncoder.Set(m_strFile, strKey, strValue, iExpireAt);
  }
  void Other(uint32_t iWhat, const std::string& strKey, int64_t iExpireAt = 0) {
    m_stEncoder.Other(m_strFile, iWhat, strKey, iExpireAt);
  }
  std::string Replay(const std::string& strBytes) {
    m_stStore.Clear();
    WriteFile(m_strPath, strBytes);
    return ReplayJournal(m_stStore, Mark(), GENERATION, m_strPath, m_stReplay);
  }
  std::string Replay() { return Replay(m_strFile); }
  const TableMark_t& Mark() const { return m_stTable.Name().stMark; }

  const PrivateDirectory m_stDirectory;
  const std::string m_strPath = m_stDirectory.File("journal-0.7.kv");
  const JournalHead_t m_stHead = JournalHead(Mark(), GENERATION);
  const JournalEncoder m_stEncoder{m_stHead};
  std::string m_strFile;
  JournalReplay_t m_stReplay{};
};

TEST_F(KvJournalFileTest, TheLastRecordOfAKeyHolds) {
  Set("a", "1");
  Set("b", "binary\0\r\n\xff");
  Set("a", std::string(500000, 'v'));
  Set("", "");
  EXPECT_EQ("", Replay());
  EXPECT_EQ(4u, m_stReplay.iRecords);
  EXPECT_EQ(m_strFile.size(), m_stReplay.iBytes);
  EXPECT_EQ(0u, m_stReplay.iCut);
  EXPECT_EQ(std::string(500000, 'v'), ValueOf("a"));
  EXPECT_EQ("binary\0\r\n\xff", ValueOf("b"));
  EXPECT_EQ("", ValueOf(""));
}

TEST_F(KvJournalFileTest, KeysGoAndComeBack) {
  Set("a", "1");
  Set("b", "2");
  Other(JOURNAL_REMOVED, "a");
  Other(JOURNAL_REMOVED, "never there");
  EXPECT_EQ("", Replay());
  EXPECT_EQ("(none)", ValueOf("a"));
  EXPECT_EQ("2", ValueOf("b"));
  Other(JOURNAL_CLEARED, "");
  Set("c", "3");
  EXPECT_EQ("", Replay());
  EXPECT_EQ(1u, m_stStore.Count());
  EXPECT_EQ("3", ValueOf("c"));
}

TEST_F(KvJournalFileTest, ExpiryTimesComeBackAndTakeEffect) {
  Set("mortal", "v", NOW + 5000);
  Set("over", "v", NOW);
  Set("shortened", "v");
  Other(JOURNAL_EXPIRES, "shortened", NOW - 1);
  Set("prolonged", "v", NOW + 1);
  Other(JOURNAL_EXPIRES, "prolonged", NOW + 7000);
  Set("eternal", "v", NOW + 1);
  Other(JOURNAL_EXPIRES, "eternal", 0);
  EXPECT_EQ("", Replay());
  EXPECT_EQ(3u, m_stStore.Count());
  EXPECT_EQ(NOW + 5000, m_stStore.Get("mortal")->iExpireAt);
  EXPECT_EQ(NOW + 7000, m_stStore.Get("prolonged")->iExpireAt);
  EXPECT_EQ(0, m_stStore.Get("eternal")->iExpireAt);
}

// An earlier value must not stay because the later one is over.
TEST_F(KvJournalFileTest, AValueThatIsOverTakesTheEarlierOneAway) {
  Set("a", "eternal");
  Set("a", "over", NOW - 1);
  EXPECT_EQ("", Replay());
  EXPECT_EQ("(none)", ValueOf("a"));
}

TEST_F(KvJournalFileTest, TheFormatIsFixed) {
  Set("k", "ab", NOW + 1);
  EXPECT_EQ(std::string("KVJRNL1\n"
                        "\0\0\0\0\1\0\0\0"   // worker 0 of 1
                        "\7\0\0\0\0\0\0\0"   // generation
                        "\x7f\x61\xa5\x1b",  // CRC-32 of the head and the next 20 bytes
                        28),
            m_strFile.substr(0, 28));
  EXPECT_EQ(std::string("\x41\xa7\x99\x64"            // CRC-32 of "kab"
                        "\x01\x68\xe5\xcf\x8b\1\0\0"  // NOW + 1
                        "\1\0\0\0\2\0\0\0"            // sizes
                        "kab",
                        23),
            m_strFile.substr(28));
  m_strFile.resize(24);
  Other(JOURNAL_REMOVED, "k");
  EXPECT_EQ("\xff\xff\xff\xffk", m_strFile.substr(44));
}

// The first records are never harmed: a flipped byte is refused, or takes the last record with it.
TEST_F(KvJournalFileTest, NoFlippedByteIsTakenForAChange) {
  Set("key", "value", NOW + 1000);
  Other(JOURNAL_REMOVED, "other");
  const size_t iLast = m_strFile.size();
  Set("last", "thing");
  for (size_t i = 0; i < m_strFile.size(); ++i) {
    for (const char cMask : {'\x01', '\x80'}) {
      std::string strBad = m_strFile;
      strBad[i] = static_cast<char>(strBad[i] ^ cMask);
      const bool bLastBody = i >= iLast + sizeof(JournalRecord_t);
      EXPECT_EQ(bLastBody, Replay(strBad).empty()) << "byte " << i;
      EXPECT_EQ("(none)", ValueOf("last")) << "byte " << i;
      EXPECT_EQ(bLastBody ? m_strFile.size() - iLast : 0, bLastBody ? m_stReplay.iCut : 0);
    }
  }
}

TEST_F(KvJournalFileTest, ATornLastRecordIsCutOffTheFile) {
  Set("key", "value", NOW + 1000);
  const size_t iLast = m_strFile.size();
  Set("last", "thing");
  for (size_t i = sizeof(JournalHead_t); i < m_strFile.size(); ++i) {
    const size_t iWhole = i < iLast ? sizeof(JournalHead_t) : iLast;
    EXPECT_EQ("", Replay(m_strFile.substr(0, i))) << i << " bytes";
    EXPECT_EQ(i - iWhole, m_stReplay.iCut);
    EXPECT_EQ(m_strFile.substr(0, iWhole), ReadFile(m_strPath));
    EXPECT_EQ(i < iLast ? "(none)" : "value", ValueOf("key"));
    EXPECT_EQ("(none)", ValueOf("last"));
  }
}

TEST_F(KvJournalFileTest, ACutHeadIsNoJournal) {
  for (size_t i = 0; i < sizeof(JournalHead_t); ++i) {
    EXPECT_EQ(m_strPath + ": it is no journal of worker 0 of 1, generation 7",
              Replay(m_strFile.substr(0, i)));
  }
}

// The machine may die when the file's size is on the disk and its bytes are not.
TEST_F(KvJournalFileTest, ZerosBehindTheLastRecordAreCutOff) {
  Set("key", "value");
  EXPECT_EQ("", Replay(m_strFile + std::string(5000, '\0')));
  EXPECT_EQ(5000u, m_stReplay.iCut);
  EXPECT_EQ(m_strFile, ReadFile(m_strPath));
  EXPECT_NE("", Replay(m_strFile + std::string(5000, '\0') + "x"));
}

TEST_F(KvJournalFileTest, ADamagedRecordWithOthersBehindItIsRefused) {
  const size_t iFirst = m_strFile.size();
  Set("first", "value");
  Set("second", "value");
  std::string strBad = m_strFile;
  strBad[iFirst + sizeof(JournalRecord_t)] = 'F';
  EXPECT_EQ(m_strPath + ": a record is damaged, at byte 24", Replay(strBad));
  EXPECT_EQ(strBad, ReadFile(m_strPath));
}

// Else a damaged size of an early record would look like a torn one, and all behind it be cut off.
TEST_F(KvJournalFileTest, ADamagedSizeIsNotTakenForATornRecord) {
  Set("first", "value");
  Set("second", "value");
  std::string strBad = m_strFile;
  strBad[24 + offsetof(JournalRecord_t, iValueSize) + 1] = '\x7f';
  EXPECT_EQ(m_strPath + ": a record is damaged, at byte 24", Replay(strBad));
}

TEST_F(KvJournalFileTest, AnotherJournalIsRefused) {
  Set("key", "value");
  ASSERT_EQ("", Replay());
  const auto As = [this](uint32_t iWorker, uint32_t iWorkers, uint64_t iGeneration) {
    TableMark_t stMark = Mark();
    stMark.iWorker = iWorker;
    stMark.iWorkers = iWorkers;
    return ReplayJournal(m_stStore, stMark, iGeneration, m_strPath, m_stReplay);
  };
  const std::string strNot = m_strPath + ": it is no journal of worker ";
  EXPECT_EQ("", As(0, 1, GENERATION));
  EXPECT_EQ(strNot + "0 of 2, generation 7", As(0, 2, GENERATION));
  EXPECT_EQ(strNot + "1 of 1, generation 7", As(1, 1, GENERATION));
  EXPECT_EQ(strNot + "0 of 1, generation 8", As(0, 1, GENERATION + 1));
}

// What an earlier file left on the same blocks of the disk.
TEST_F(KvJournalFileTest, RecordsOfAnotherGenerationAreNotTaken) {
  Set("key", "value");
  JournalEncoder(JournalHead(Mark(), GENERATION - 1)).Set(m_strFile, "old", "value", 0);
  EXPECT_EQ(m_strPath + ": a record is damaged, at byte " + std::to_string(24 + 24 + 8), Replay());
}

TEST_F(KvJournalFileTest, ImpossibleSizesAreRefused) {
  m_stEncoder.Set(m_strFile, std::string(5 << 20, 'k'), "value", 0);
  EXPECT_EQ(m_strPath + ": a record has an impossible size, at byte 24", Replay());
}

TEST_F(KvJournalFileTest, KeysThatDoNotFitAreSaid) {
  for (int i = 0; i < 4; ++i) {
    Set("large" + std::to_string(i), std::string(400000, 'v'));
  }
  EXPECT_EQ(0u, Replay().find(m_strPath + ": its keys do not fit into the table (table.bytes)"));
}

TEST_F(KvJournalFileTest, AMissingFileIsSaid) {
  EXPECT_EQ("/no/such/file: No such file or directory",
            ReplayJournal(m_stStore, Mark(), GENERATION, "/no/such/file", m_stReplay));
}

TEST_F(KvJournalFileTest, FilesAreFoundByWorkerAndGeneration) {
  const std::string& strPath = m_stDirectory.Path();
  EXPECT_EQ(strPath + "/journal-3.12.kv", JournalPath(strPath, 3, 12));
  for (const char* pName :
       {"journal-3.12.kv", "journal-3.9.kv", "journal-3.100.kv", "journal-33.1.kv",
        "journal-3.5.kv.new", "journal-3.05.kv", "journal-3.x.kv", "journal-3..kv",
        "journal-3.0.kv", "dump-3.kv", "journal-3.99999999999999999999.kv"}) {
    WriteFile(m_stDirectory.File(pName), "");
  }
  EXPECT_EQ((std::vector<uint64_t>{9, 12, 100}), JournalGenerations(strPath, 3));
  EXPECT_EQ((std::vector<uint64_t>{1}), JournalGenerations(strPath, 33));
  EXPECT_TRUE(JournalGenerations("/no/such/directory", 3).empty());
}

}  // namespace
