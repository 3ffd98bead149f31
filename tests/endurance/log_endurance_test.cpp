// The log under rotation for long: several processes write while another moves, removes, replaces
// and truncates their files and takes the directory away.
//
// A line is accepted when the log has a file after the call. What an outsider does to a file can
// not be undone by its writers, so the tests keep whatever it does away with: a removed file under
// another name, the content of a truncated one in a copy. Between that copy and the truncation
// lines may come that nobody has seen; the writers' counters, read before the one and after the
// other, say which those can be. Every other accepted line must be there, once, whole and in order.

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cinttypes>
#include <fstream>
#include <memory>

#include "endurance.h"
#include "log_test_support.h"

namespace {

namespace fs = std::filesystem;

const unsigned int WRITERS = 4;
const unsigned int QUANTUM = 150;  // lines of each writer from one disturbance to the next
const uint64_t MAX_FILE_SIZE = 100000;
const size_t LINE_BUFFER_SIZE = 1024;
const char DUMP_HEADER[] = "     00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F";
const size_t DUMP_TEXT = 54;  // where a row shows its bytes as characters
const int NO_ROOT = 77;

typedef std::array<uint64_t, WRITERS> Counts_t;

// ---- lines: content, length and whether there is a dump follow from writer and number

std::string Message(unsigned int iWriter, uint64_t iLine) {
  static const char ALPHABET[] = "abcdefghijklmnopqrstuvwxyz0123456789 ABCDEFGHIJKLMNOPQRSTUVWXYZ-";
  static_assert(sizeof(ALPHABET) == 64 + 1, "six bits choose");
  uint64_t iRandom = Scrambled(iLine * WRITERS + iWriter);
  const size_t iSize = iRandom % 8 == 0 ? iRandom / 8 % 1200 : iRandom / 8 % 120;
  std::string strText = std::to_string(iWriter) + " " + std::to_string(iLine) + " ";
  for (size_t i = 0; i < iSize; ++i) {
    strText += ALPHABET[iRandom >> 58];
    iRandom = iRandom * 0x5851f42d4c957f2d + 0x14057b7ef767814f;
  }
  return strText;
}

bool HasDump(uint64_t iLine) { return iLine % 16 == 3; }

std::string DumpedBytes(unsigned int iWriter, uint64_t iLine) {
  char szBytes[32];
  snprintf(szBytes, sizeof(szBytes), "%03u %012" PRIu64, iWriter, iLine);
  return szBytes;
}

// Without the time. The log cuts what is longer than its buffer.
std::string ExpectedLine(unsigned int iWriter, uint64_t iLine) {
  return (INFO_HEAD + Message(iWriter, iLine)).substr(0, LINE_BUFFER_SIZE - 1 - TIME_SIZE);
}

std::string ExpectedRow(unsigned int iWriter, uint64_t iLine) {
  std::string strRow = "0000 ";
  for (const char c : DumpedBytes(iWriter, iLine)) {
    char szHex[8];
    snprintf(szHex, sizeof(szHex), "%02X ", static_cast<unsigned char>(c));
    strRow += szHex;
  }
  return strRow + " " + DumpedBytes(iWriter, iLine);
}

// ---- what the files hold in the end

class Census {
 public:
  explicit Census(uint64_t iLines) {
    for (std::vector<char>& vecSeen : m_szTexts) {
      vecSeen.resize(iLines);
    }
    m_szRows = m_szTexts;
  }

  // A copy may end in the middle of a line that was being written.
  void AddFile(const std::string& strFile, bool bCopy);

  bool HasText(unsigned int iWriter, uint64_t iLine) const { return m_szTexts[iWriter][iLine]; }
  bool HasRow(unsigned int iWriter, uint64_t iLine) const { return m_szRows[iWriter][iLine]; }

 private:
  void AddLine(const std::string& strLine, Counts_t& szNext);
  void AddText(const std::string& strText, Counts_t& szNext);
  void AddRow(const std::string& strRow, Counts_t& szNext);
  void Note(std::vector<char>& vecSeen, unsigned int iWriter, uint64_t iLine, uint64_t iPlace,
            Counts_t& szNext);

  std::array<std::vector<char>, WRITERS> m_szTexts;
  std::array<std::vector<char>, WRITERS> m_szRows;
};

void Census::AddFile(const std::string& strFile, bool bCopy) {
  std::ifstream stFile(strFile, std::ios::binary);
  Counts_t szNext{};  // by writer: no earlier line may follow in this file
  for (std::string strLine; std::getline(stFile, strLine);) {
    if (stFile.eof()) {
      EXPECT_TRUE(bCopy) << strFile << " ends in " << strLine;
      return;
    }
    ASSERT_NO_FATAL_FAILURE(AddLine(strLine, szNext)) << strFile;
  }
}

void Census::AddLine(const std::string& strLine, Counts_t& szNext) {
  if (strLine[0] == '[') {
    ASSERT_EQ(']', strLine[TIME_SIZE - 1]) << strLine;
    AddText(strLine.substr(TIME_SIZE), szNext);
  } else if (strLine.size() > DUMP_TEXT) {
    AddRow(strLine, szNext);
  } else {
    ASSERT_EQ(DUMP_HEADER, strLine);
  }
}

void Census::AddText(const std::string& strText, Counts_t& szNext) {
  unsigned int iWriter = WRITERS;
  uint64_t iLine = 0;
  ASSERT_EQ(2, sscanf(strText.c_str(), "[INFORMATION] %u %" SCNu64, &iWriter, &iLine)) << strText;
  ASSERT_LT(iWriter, WRITERS) << strText;
  ASSERT_EQ(ExpectedLine(iWriter, iLine), strText);
  Note(m_szTexts[iWriter], iWriter, iLine, 2 * iLine, szNext);
}

void Census::AddRow(const std::string& strRow, Counts_t& szNext) {
  unsigned int iWriter = WRITERS;
  uint64_t iLine = 0;
  ASSERT_EQ(2, sscanf(strRow.c_str() + DUMP_TEXT, "%u %" SCNu64, &iWriter, &iLine)) << strRow;
  ASSERT_LT(iWriter, WRITERS) << strRow;
  ASSERT_EQ(ExpectedRow(iWriter, iLine), strRow);
  Note(m_szRows[iWriter], iWriter, iLine, 2 * iLine + 1, szNext);
}

void Census::Note(std::vector<char>& vecSeen, unsigned int iWriter, uint64_t iLine, uint64_t iPlace,
                  Counts_t& szNext) {
  ASSERT_LT(iLine, vecSeen.size());
  ASSERT_FALSE(vecSeen[iLine]) << "writer " << iWriter << " line " << iLine << " is there twice";
  ASSERT_LE(szNext[iWriter], iPlace) << "writer " << iWriter << " line " << iLine << " is late";
  vecSeen[iLine] = 1;
  szNext[iWriter] = iPlace + 1;
}

// ---- writers and the one who disturbs them

class LogEnduranceTest : public ::testing::Test {
 protected:
  static const size_t DROPPED_LIMIT = 1000;
  struct Writer_t {
    std::atomic<uint64_t> iBegun{0};
    std::atomic<uint64_t> iDone{0};
    std::atomic<uint64_t> iDropped{0};
    std::array<uint64_t, DROPPED_LIMIT> szDropped{};  // lines that were not accepted, ascending
  };
  struct Record_t {
    std::atomic<uint64_t> iAllowed{2 * QUANTUM};  // lines of each writer
    std::array<Writer_t, WRITERS> szWriters;
  };
  // Lines of each writer, from the first number up to but not including the second, that a
  // disturbance may have met between its begin and its end.
  struct Gap_t {
    Counts_t szFrom;
    Counts_t szTo;
  };
  typedef std::vector<Gap_t> Gaps_t;

  void SetUp() override {
    fs::create_directory(m_strArchive);
    fs::create_directory(m_strRoot);
  }
  virtual bool PrepareWriter(Log& stLog) = 0;

  int RunWriters(unsigned int iFirst);
  int WriteLines(Log& stLog, unsigned int iWriter, uint64_t iFrom);
  void WriteLine(Log& stLog, unsigned int iWriter, uint64_t iLine);

  void BeginGap(Gaps_t& vecGaps) const;
  void EndGap(Gaps_t& vecGaps) const;
  uint64_t DoneInTotal() const;
  std::string Kept() { return m_strArchive + "/" + std::to_string(m_iKept++); }
  std::string AnyFile(uint64_t iRandom) const;
  void Disturb(uint64_t iRandom);
  void Truncate(const std::string& strFile);
  void TakeDirectory(bool bBriefly);
  void DisturbUntilAllIsWritten();

  Census Count() const;
  static bool IsIn(const Gaps_t& vecGaps, unsigned int iWriter, uint64_t iLine);
  bool IsDropped(unsigned int iWriter, uint64_t iLine) const;
  void CheckWriter(const Census& stCensus, unsigned int iWriter);
  void Run(const std::string& strRegime);

  const PrivateDirectory m_stDirectory;
  const std::string m_strRoot = m_stDirectory.File("root");
  const std::string m_strArchive = m_stDirectory.File("archive");
  std::string m_strPath;  // the log's directory, as the disturber sees it
  const uint64_t m_iLines = Amount("ZELK_LOG_LINES", 50000) / WRITERS;
  const State<Record_t> m_pRecord{m_stDirectory.File("record")};
  Gaps_t m_vecTruncations;
  Gaps_t m_vecTakings;  // of the directory
  uint64_t m_iKept = 0;
  std::array<uint64_t, 5> m_szDone{};  // disturbances by kind
  uint64_t m_iDropped = 0;
  uint64_t m_iCut = 0;
};

// Two writers: a process, and its child with a copy of the object.
int LogEnduranceTest::RunWriters(unsigned int iFirst) {
  Log stLog;
  stLog.SetMaxSize(MAX_FILE_SIZE);
  if (!PrepareWriter(stLog)) {
    return NO_ROOT;
  }
  WriteLine(stLog, iFirst, 0);
  ForkedPeer stChild([&] { return WriteLines(stLog, iFirst + 1, 0); });
  return WriteLines(stLog, iFirst, 1) + stChild.Wait();
}

int LogEnduranceTest::WriteLines(Log& stLog, unsigned int iWriter, uint64_t iFrom) {
  for (uint64_t i = iFrom; i < m_iLines; ++i) {
    while (i >= m_pRecord->iAllowed) {
      sched_yield();
    }
    WriteLine(stLog, iWriter, i);
  }
  return 0;
}

void LogEnduranceTest::WriteLine(Log& stLog, unsigned int iWriter, uint64_t iLine) {
  Writer_t& stWriter = m_pRecord->szWriters[iWriter];
  const std::string strMessage = Message(iWriter, iLine);
  const std::string strBytes = DumpedBytes(iWriter, iLine);
  const size_t iDumped = HasDump(iLine) ? strBytes.size() : 0;
  stWriter.iBegun = iLine + 1;
  stLog.BinaryLog(Log::LL_INFO, strBytes.data(), static_cast<unsigned int>(iDumped), "%s",
                  strMessage.c_str());
  if (stLog.FD() == -1) {
    stWriter.szDropped.at(stWriter.iDropped) = iLine;
    ++stWriter.iDropped;
  }
  stWriter.iDone = iLine + 1;
}

uint64_t LogEnduranceTest::DoneInTotal() const {
  uint64_t iTotal = 0;
  for (const Writer_t& stWriter : m_pRecord->szWriters) {
    iTotal += stWriter.iDone;
  }
  return iTotal;
}

// "" when there is none, or no directory.
std::string LogEnduranceTest::AnyFile(uint64_t iRandom) const {
  std::vector<std::string> vecFiles;
  std::error_code stIgnored;
  for (const auto& stEntry : fs::directory_iterator(m_strPath, stIgnored)) {
    vecFiles.push_back(stEntry.path());
  }
  return vecFiles.empty() ? "" : vecFiles[iRandom % vecFiles.size()];
}

void LogEnduranceTest::BeginGap(Gaps_t& vecGaps) const {
  vecGaps.emplace_back();
  for (unsigned int i = 0; i < WRITERS; ++i) {
    vecGaps.back().szFrom[i] = m_pRecord->szWriters[i].iDone;
  }
}

void LogEnduranceTest::EndGap(Gaps_t& vecGaps) const {
  for (unsigned int i = 0; i < WRITERS; ++i) {
    vecGaps.back().szTo[i] = m_pRecord->szWriters[i].iBegun;
  }
}

void LogEnduranceTest::Truncate(const std::string& strFile) {
  char szBytes[65536];
  const int iFD = open(strFile.c_str(), O_RDWR | O_CLOEXEC);
  std::ofstream stCopy(Kept() + ".copy", std::ios::binary);
  BeginGap(m_vecTruncations);
  for (ssize_t iCount = 0; (iCount = read(iFD, szBytes, sizeof(szBytes))) > 0;) {
    stCopy.write(szBytes, iCount);
  }
  EXPECT_EQ(0, ftruncate(iFD, 0));
  EndGap(m_vecTruncations);
  close(iFD);
}

// Briefly: it comes back with all that was in it, unless the writers have made another by then.
void LogEnduranceTest::TakeDirectory(bool bBriefly) {
  const std::string strKept = Kept();
  BeginGap(m_vecTakings);
  if (rename(m_strPath.c_str(), strKept.c_str()) == 0 && bBriefly) {
    rename(strKept.c_str(), m_strPath.c_str());
  }
  EndGap(m_vecTakings);
}

void LogEnduranceTest::Disturb(uint64_t iRandom) {
  const std::string strFile = AnyFile(iRandom / 16);
  const uint64_t iKind = iRandom % m_szDone.size();
  if (strFile.empty()) {
    return;
  }
  ++m_szDone[iKind];
  if (iKind == 0) {
    EXPECT_EQ(0, rename(strFile.c_str(), Kept().c_str()));
  } else if (iKind == 1) {
    EXPECT_EQ(0, link(strFile.c_str(), Kept().c_str()));
    EXPECT_EQ(0, unlink(strFile.c_str()));
  } else if (iKind == 2) {
    const std::string strNew = Kept();
    EXPECT_EQ(0, link(strFile.c_str(), Kept().c_str()));
    WriteFile(strNew, "");
    EXPECT_EQ(0, rename(strNew.c_str(), strFile.c_str()));
  } else if (iKind == 3) {
    Truncate(strFile);
  } else {
    TakeDirectory(iRandom / 8 % 2 == 0);
  }
}

// The writers never get further ahead than two quanta, so that no machine is too slow for enough
// disturbances.
void LogEnduranceTest::DisturbUntilAllIsWritten() {
  for (uint64_t i = 0; i * QUANTUM < m_iLines; ++i) {
    const uint64_t iRandom = Scrambled(i);
    const uint64_t iAt = WRITERS * (i * QUANTUM + iRandom % QUANTUM);
    const Stopwatch stTime;
    while (DoneInTotal() < std::min(iAt, WRITERS * m_iLines)) {
      ASSERT_LT(stTime.Seconds(), 60) << "a writer stands still";
      sched_yield();
    }
    Disturb(iRandom / QUANTUM);
    m_pRecord->iAllowed = (i + 3) * QUANTUM;
  }
}

Census LogEnduranceTest::Count() const {
  Census stCensus(m_iLines);
  for (const std::string& strDirectory : {m_strArchive, m_strRoot}) {
    for (const auto& stEntry : fs::recursive_directory_iterator(strDirectory)) {
      if (stEntry.is_regular_file()) {
        stCensus.AddFile(stEntry.path(), stEntry.path().extension() == ".copy");
      }
    }
  }
  return stCensus;
}

bool LogEnduranceTest::IsIn(const Gaps_t& vecGaps, unsigned int iWriter, uint64_t iLine) {
  return std::any_of(vecGaps.begin(), vecGaps.end(), [=](const Gap_t& stGap) {
    return stGap.szFrom[iWriter] <= iLine && iLine < stGap.szTo[iWriter];
  });
}

bool LogEnduranceTest::IsDropped(unsigned int iWriter, uint64_t iLine) const {
  const Writer_t& stWriter = m_pRecord->szWriters[iWriter];
  const auto itEnd = stWriter.szDropped.begin() + static_cast<ptrdiff_t>(stWriter.iDropped);
  return std::binary_search(stWriter.szDropped.begin(), itEnd, iLine);
}

void LogEnduranceTest::CheckWriter(const Census& stCensus, unsigned int iWriter) {
  for (uint64_t i = 0; i < m_iLines; ++i) {
    const bool bText = stCensus.HasText(iWriter, i);
    const bool bRow = stCensus.HasRow(iWriter, i);
    if (IsDropped(iWriter, i)) {
      ++m_iDropped;
      ASSERT_FALSE(bText || bRow) << "writer " << iWriter << " line " << i << " was refused";
      ASSERT_TRUE(IsIn(m_vecTakings, iWriter, i)) << "writer " << iWriter << " line " << i;
    } else if (!bText || bRow != HasDump(i)) {
      ++m_iCut;
      ASSERT_TRUE(IsIn(m_vecTruncations, iWriter, i))
          << "writer " << iWriter << " line " << i << " is lost";
    }
  }
}

void LogEnduranceTest::Run(const std::string& strRegime) {
  const Stopwatch stTime;
  ForkedPeer stWriters([this] { return RunWriters(0); });
  ForkedPeer stMoreWriters([this] { return RunWriters(2); });
  ASSERT_NO_FATAL_FAILURE(DisturbUntilAllIsWritten());
  ASSERT_EQ(0, stWriters.Wait());
  ASSERT_EQ(0, stMoreWriters.Wait());
  const Census stCensus = Count();
  for (unsigned int i = 0; i < WRITERS; ++i) {
    CheckWriter(stCensus, i);
  }
  const auto fnDone = [this](size_t iKind) { return std::to_string(m_szDone[iKind]); };
  Report("lines of " + std::to_string(WRITERS) + " processes, " + strRegime + ": " +
             std::to_string(WRITERS * m_iLines),
         stTime,
         "files moved " + fnDone(0) + " times, removed " + fnDone(1) + ", replaced " + fnDone(2) +
             ", truncated " + fnDone(3) + ", directory taken " + fnDone(4) + "; " +
             std::to_string(m_iDropped) + " lines refused meanwhile, " + std::to_string(m_iCut) +
             " cut before anyone could copy them");
}

class LogNumberedEnduranceTest : public LogEnduranceTest {
 protected:
  bool PrepareWriter(Log& stLog) override {
    stLog.SetPath(m_strPath);
    return true;
  }
};

TEST_F(LogNumberedEnduranceTest, EveryAcceptedLineIsThereOnceWholeAndInOrder) {
  m_strPath = m_strRoot + "/log";
  Run("numbered files");
}

// In the private root of the processes that write.
class LogFixedNameEnduranceTest : public LogEnduranceTest {
 protected:
  bool PrepareWriter(Log& /*stLog*/) override { return EnterRoot(m_strRoot); }
};

TEST_F(LogFixedNameEnduranceTest, EveryAcceptedLineIsThereOnceWholeAndInOrder) {
  if (ForkedPeer([this] { return EnterRoot(m_strRoot) ? 0 : NO_ROOT; }).Wait() == NO_ROOT) {
    GTEST_SKIP() << "neither root nor allowed to make a user namespace";
  }
  m_strPath = m_strRoot + "/var/log/zelk";
  Run("fixed name");
}

}  // namespace
