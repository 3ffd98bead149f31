#include "dump_file.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "kv_store_fixture.h"

namespace {

// A store to save, and an empty one to load into.
class KvDumpFileTest : public KvStoreTest {
 protected:
  KvDumpFileTest() { EXPECT_EQ("", m_stLoaded.Attach(m_stOther.Name())), m_stLoaded.SetTime(NOW); }

  std::string Write() { return WriteDump(m_stStore, m_stTable.Name().stMark, m_strPath, m_stStat); }
  std::string Load() { return LoadDump(m_stLoaded, m_stTable.Name().stMark, m_strPath, m_stStat); }
  std::string Bytes() {
    std::ifstream stFile(m_strPath);
    return {std::istreambuf_iterator<char>(stFile), {}};
  }
  void Put(const std::string& strBytes) { std::ofstream(m_strPath) << strBytes; }

  const PrivateDirectory m_stDirectory;
  const std::string m_strPath = m_stDirectory.Path() + "/dump-0.kv";
  const StoreTable m_stOther;
  KeyStore m_stLoaded;
  DumpStat_t m_stStat{};
};

TEST_F(KvDumpFileTest, EveryKeyComesBack) {
  m_stStore.Set("", "the empty key");
  m_stStore.Set("empty", "");
  m_stStore.Set("binary", std::string("\0\r\n\xff", 4), NOW + 5000);
  m_stStore.Set("long", std::string(500000, 'v'));
  EXPECT_EQ("", Write());
  EXPECT_EQ(4u, m_stStat.iKeys);
  EXPECT_EQ(Bytes().size(), m_stStat.iBytes);
  EXPECT_EQ("", Load());
  EXPECT_EQ(4u, m_stStat.iKeys);
  EXPECT_EQ(4u, m_stLoaded.Count());
  EXPECT_EQ("the empty key", ::ValueOf(m_stLoaded, ""));
  EXPECT_EQ("", ::ValueOf(m_stLoaded, "empty"));
  EXPECT_EQ(std::string("\0\r\n\xff", 4), ::ValueOf(m_stLoaded, "binary"));
  EXPECT_EQ(NOW + 5000, m_stLoaded.Get("binary")->iExpireAt);
  EXPECT_EQ(std::string(500000, 'v'), ::ValueOf(m_stLoaded, "long"));
}

TEST_F(KvDumpFileTest, TheFormatIsFixed) {
  m_stStore.Set("k", "ab", NOW + 1);
  ASSERT_EQ("", WriteDump(m_stStore, m_stTable.Name().stMark, m_strPath, m_stStat, 5));
  EXPECT_EQ(std::string("KVDUMP2\n"
                        "\0\0\0\0\1\0\0\0"            // worker 0 of 1
                        "\x00\x68\xe5\xcf\x8b\1\0\0"  // NOW
                        "\5\0\0\0\0\0\0\0"            // generation of the journal
                        "\1\0\0\0\2\0\0\0"            // sizes
                        "\x01\x68\xe5\xcf\x8b\1\0\0"  // NOW + 1
                        "kab"
                        "\xff\xff\xff\xff",
                        32 + 16 + 3 + 4),
            Bytes().substr(0, 55));
  EXPECT_EQ(std::string("\1\0\0\0\0\0\0\0", 8), Bytes().substr(59));  // entries
}

TEST_F(KvDumpFileTest, TheJournalsGenerationComesBack) {
  const TableMark_t stMark = m_stTable.Name().stMark;
  EXPECT_EQ(0u, DumpGeneration(stMark, m_strPath));
  ASSERT_EQ("", WriteDump(m_stStore, stMark, m_strPath, m_stStat, 1234567890123));
  EXPECT_EQ(1234567890123u, DumpGeneration(stMark, m_strPath));
  EXPECT_EQ("", Load());
  EXPECT_EQ(1234567890123u, m_stStat.iGeneration);
  TableMark_t stOther = stMark;
  stOther.iWorker = 1;
  EXPECT_EQ(0u, DumpGeneration(stOther, m_strPath));
}

TEST_F(KvDumpFileTest, NoFileIsNoKeys) {
  EXPECT_EQ("", Load());
  EXPECT_EQ(0u, m_stStat.iBytes);
  EXPECT_EQ(0u, m_stLoaded.Count());
}

TEST_F(KvDumpFileTest, KeysWhoseTimeIsOverStayAway) {
  m_stStore.Set("a", "1", NOW + 10);
  m_stStore.Set("b", "1", NOW + 11);
  m_stStore.Set("over", "1", NOW + 1);
  m_stStore.SetTime(NOW + 5);
  ASSERT_EQ("", Write());
  EXPECT_EQ(2u, m_stStat.iKeys);
  m_stLoaded.SetTime(NOW + 10);
  EXPECT_EQ("", Load());
  EXPECT_EQ(1u, m_stStat.iKeys);
  EXPECT_EQ("1", ::ValueOf(m_stLoaded, "b"));
}

TEST_F(KvDumpFileTest, AnotherWorkersDumpIsRefused) {
  ASSERT_EQ("", Write());
  TableMark_t stMark = m_stTable.Name().stMark;
  stMark.iWorkers = 2;
  EXPECT_EQ(m_strPath + ": it is no dump of worker 0 of 2",
            LoadDump(m_stLoaded, stMark, m_strPath, m_stStat));
  stMark.iWorker = 1;
  EXPECT_EQ(m_strPath + ": it is no dump of worker 1 of 2",
            LoadDump(m_stLoaded, stMark, m_strPath, m_stStat));
}

TEST_F(KvDumpFileTest, AVisitorSeesEveryEntryUntilItRefusesOne) {
  m_stStore.Set("a", "1", NOW + 10);
  m_stStore.Set("b", "2");
  ASSERT_EQ("", Write());
  const TableMark_t stMark = m_stTable.Name().stMark;
  std::string strSeen;
  uint64_t iEntries = 0;
  const auto Note = [&](std::string_view strKey, const Value_t& stValue) {
    strSeen += std::string(strKey) + "=" + std::string(stValue.strBytes) + "@" +
               std::to_string(stValue.iExpireAt == KeyStore::NEVER ? 0 : stValue.iExpireAt - NOW) +
               " ";
    return std::string();
  };
  EXPECT_EQ("", ReadDump(stMark, m_strPath, Note, iEntries));
  EXPECT_TRUE(strSeen == "a=1@10 b=2@0 " || strSeen == "b=2@0 a=1@10 ") << strSeen;
  EXPECT_EQ(2u, iEntries);
  const auto Refuse = [](std::string_view /*strKey*/, const Value_t& /*stValue*/) { return "no"; };
  EXPECT_EQ(m_strPath + ": no", ReadDump(stMark, m_strPath, Refuse, iEntries));
  EXPECT_EQ(0u, iEntries);
}

TEST_F(KvDumpFileTest, AVisitorHearsOfAMissingOrDamagedFile) {
  const TableMark_t stMark = m_stTable.Name().stMark;
  const auto Take = [](std::string_view /*strKey*/, const Value_t& /*stValue*/) { return ""; };
  uint64_t iEntries = 0;
  EXPECT_EQ(m_strPath + ": No such file or directory", ReadDump(stMark, m_strPath, Take, iEntries));
  m_stStore.Set("a", "1");
  ASSERT_EQ("", Write());
  Put(Bytes() + "x");
  EXPECT_EQ(m_strPath + ": something follows its end", ReadDump(stMark, m_strPath, Take, iEntries));
}

// Each bit matters; without the checksum the flipped bits of a value would pass.
TEST_F(KvDumpFileTest, ADamagedFileIsRefused) {
  m_stStore.Set("key", "value", NOW + 1000);
  m_stStore.Set("other", "thing");
  ASSERT_EQ("", Write());
  const std::string strGood = Bytes();
  for (size_t i = 0; i < strGood.size(); ++i) {
    const bool bTime = i >= 16 && i < 24;  // when it was saved, told to nobody, but summed up
    for (const char cMask : {'\x01', '\x80'}) {
      std::string strBad = strGood;
      strBad[i] = static_cast<char>(strBad[i] ^ cMask);
      Put(strBad);
      EXPECT_NE("", Load()) << "byte " << i << (bTime ? " (time)" : "");
    }
  }
}

TEST_F(KvDumpFileTest, ACutFileIsRefused) {
  m_stStore.Set("key", "value");
  ASSERT_EQ("", Write());
  const std::string strGood = Bytes();
  for (size_t i = 0; i < strGood.size(); ++i) {
    Put(strGood.substr(0, i));
    EXPECT_NE("", Load()) << i << " bytes";
  }
  Put(strGood + "x");
  EXPECT_EQ(m_strPath + ": something follows its end", Load());
}

TEST_F(KvDumpFileTest, ImpossibleSizesTakeNoMemory) {
  m_stStore.Set("key", "value");
  ASSERT_EQ("", Write());
  std::string strBad = Bytes();
  strBad.replace(36, 4, "\xff\xff\xff\x7f");  // the value's size
  Put(strBad);
  EXPECT_EQ(m_strPath + ": an entry has an impossible size", Load());
}

TEST_F(KvDumpFileTest, KeysThatDoNotFitAreSaid) {
  const StoreTable stSmall(1 << 16);
  KeyStore stStore;
  ASSERT_EQ("", stStore.Attach(stSmall.Name()));
  m_stStore.Set("large", std::string(100000, 'v'));
  ASSERT_EQ("", Write());
  EXPECT_EQ(m_strPath + ": its keys do not fit into the table (table.bytes)",
            LoadDump(stStore, m_stTable.Name().stMark, m_strPath, m_stStat));
}

TEST_F(KvDumpFileTest, AFailureKeepsTheEarlierFile) {
  m_stStore.Set("key", "value");
  ASSERT_EQ("", Write());
  const std::string strGood = Bytes();
  m_stStore.Set("large", std::string(500000, 'v'));
  signal(SIGXFSZ, SIG_IGN);
  rlimit stLimit{};
  getrlimit(RLIMIT_FSIZE, &stLimit);
  const rlimit stSmall{100000, stLimit.rlim_max};
  setrlimit(RLIMIT_FSIZE, &stSmall);
  const std::string strError = Write();
  setrlimit(RLIMIT_FSIZE, &stLimit);
  EXPECT_EQ(m_strPath + ": File too large", strError);
  EXPECT_EQ(strGood, Bytes());
  EXPECT_NE(0, access((m_strPath + ".new").c_str(), F_OK));
}

TEST_F(KvDumpFileTest, AMissingDirectoryIsSaid) {
  EXPECT_EQ("/no/such/dump.kv: No such file or directory",
            WriteDump(m_stStore, m_stTable.Name().stMark, "/no/such/dump.kv", m_stStat));
}

}  // namespace
