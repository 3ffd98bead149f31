// The log while each of its system calls fails in turn: what it has taken is in a file, once and
// whole, and the next line finds its way.

#include <algorithm>
#include <filesystem>
#include <memory>

#include "failing_call.h"
#include "full_disk.h"
#include "log_test_support.h"

namespace {

const char LINE[] = "the line under test";

// A directory's log of numbered files, which is not there yet.
class Place {
 public:
  Place() { m_stLog.SetPath(m_strPath); }

  Log& TheLog() { return m_stLog; }
  const std::string& Path() const { return m_strPath; }
  // The messages of all files, in the order of their numbers.
  Lines_t Messages() const {
    Lines_t vecAll;
    for (const char* pNumber : {"000", "001", "002"}) {
      for (std::string& strLine : MessagesOf(Numbered(m_strPath, pNumber))) {
        vecAll.push_back(std::move(strLine));
      }
    }
    return vecAll;
  }

 private:
  PrivateDirectory m_stDirectory;
  std::string m_strPath = m_stDirectory.File("a/log");
  Log m_stLog;
};

// Writes one line, which may fail; errno stays as it was, and nothing is printed but by MakeDir().
void WriteOne(Attempt& stAttempt, Log& stLog) {
  CaptureOutput(1, [&] {
    stAttempt.Run([&] {
      errno = EDOM;
      stLog.Info("%s", LINE);
    });
  });
  EXPECT_EQ(EDOM, stAttempt.Errno());
}

// The errors after which a line that write() has refused is lost; EBADF is another case.
bool IsLost(const Attempt& stAttempt) {
  return stAttempt.FailsIn({{"write"}}) && stAttempt.Failure().iErrno != 0 &&
         stAttempt.Failure().iErrno != EINTR;
}

class LogCallTest : public ::testing::Test {
 protected:
  void SetUp() override { SetZoneToNoon(); }
  void TearDown() override { unsetenv("TZ"); }
};

TEST_F(LogCallTest, FirstLineIsWrittenWholeOrDroppedAndTheNextOneIsWritten) {
  FailEachCall([](Attempt& stAttempt) {
    Place stPlace;
    WriteOne(stAttempt, stPlace.TheLog());
    stPlace.TheLog().Info("next");
    const bool bNoFile = stAttempt.FailsIn({{"openat"}, {"mkdir"}}) &&
                         !stAttempt.FailsIn({{"openat", -1, 2}});  // of a zone's file
    const Lines_t vecExpected =
        bNoFile || IsLost(stAttempt) ? Lines_t{"next"} : Lines_t{LINE, "next"};
    EXPECT_EQ(vecExpected, stPlace.Messages());
  });
}

TEST_F(LogCallTest, LaterLineIsWrittenWholeOrDroppedAndTheNextOneIsWritten) {
  FailEachCall([](Attempt& stAttempt) {
    Place stPlace;
    stPlace.TheLog().Info("first");
    WriteOne(stAttempt, stPlace.TheLog());
    stPlace.TheLog().Info("next");
    EXPECT_EQ(IsLost(stAttempt) ? (Lines_t{"first", "next"}) : (Lines_t{"first", LINE, "next"}),
              stPlace.Messages());
  });
}

TEST_F(LogCallTest, LineThatNeedsTheNextFileIsWrittenSomewhereOrDropped) {
  FailEachCall([](Attempt& stAttempt) {
    Place stPlace;
    stPlace.TheLog().SetMaxSize(10);
    stPlace.TheLog().Info("first");
    WriteOne(stAttempt, stPlace.TheLog());
    stPlace.TheLog().Info("next");
    const bool bNoFile = stAttempt.FailsIn({{"openat"}});
    EXPECT_EQ(bNoFile || IsLost(stAttempt) ? (Lines_t{"first", "next"})
                                           : (Lines_t{"first", LINE, "next"}),
              stPlace.Messages());
  });
}

TEST_F(LogCallTest, LineAfterTheFileWasRemovedGoesToANewOneOrIsDropped) {
  FailEachCall([](Attempt& stAttempt) {
    Place stPlace;
    stPlace.TheLog().Info("first");
    std::filesystem::remove(Numbered(stPlace.Path(), "000"));
    WriteOne(stAttempt, stPlace.TheLog());
    stPlace.TheLog().Info("next");
    const Lines_t vecFound = stPlace.Messages();
    // Where the look at the name is refused, the line goes to the file that was open.
    const bool bElsewhere = stAttempt.FailsIn({{"openat"}, {"statx"}}) || IsLost(stAttempt);
    EXPECT_EQ("next", vecFound.empty() ? "" : vecFound.back());
    EXPECT_TRUE(bElsewhere || vecFound == (Lines_t{LINE, "next"}));
  });
}

TEST_F(LogCallTest, DumpLosesAtMostTheLineThatFails) {
  FailEachCall([](Attempt& stAttempt) {
    Place stPlace;
    stPlace.TheLog().Info("first");
    const std::string strData(40, 'x');
    stAttempt.Run(
        [&] { stPlace.TheLog().BinaryLog(Log::LL_INFO, strData.data(), 40, "%s", LINE); });
    stPlace.TheLog().Info("next");
    const Lines_t vecLines = LinesOf(Numbered(stPlace.Path(), "000"));
    ASSERT_EQ(IsLost(stAttempt) ? 6u : 7u, vecLines.size());  // line, header and three rows
    EXPECT_EQ("next", vecLines.back().substr(TIME_SIZE + strlen(INFO_HEAD)));
  });
}

TEST_F(LogCallTest, DumpOfTheMembersLosesAtMostTheLineThatFails) {
  FailEachCall([](Attempt& stAttempt) {
    Log stLog;
    const std::string strText =
        CaptureDescriptor([&](int iFD) { stAttempt.Run([&] { stLog.Dump(iFD); }); });
    const bool bLost = stAttempt.FailsIn({{"write"}}) && stAttempt.Failure().iErrno != 0;
    EXPECT_EQ(bLost ? 5 : 6, std::count(strText.begin(), strText.end(), '\n'));
  });
}

// ---- the file with a fixed name

const char FIXED_FILE[] = "/var/log/zelk/undefined_.log";

// Its directory is a file system of the test's own.
class FixedLogCallTest : public LogCallTest {
 protected:
  void SetUp() override {
    LogCallTest::SetUp();
    if (!SmallDisk::WhyNot().empty()) {
      GTEST_SKIP() << SmallDisk::WhyNot();
    }
    m_pDisk = std::make_unique<SmallDisk>("/var/log", 1 << 20);
  }

  // A log's line fails; what is in the file after the next one.
  static void FailOne(const std::function<void(Log&)>& fnArrange) {
    FailEachCall([&](Attempt& stAttempt) {
      std::filesystem::remove_all("/var/log/zelk");
      Log stLog;
      fnArrange(stLog);
      WriteOne(stAttempt, stLog);
      stLog.Info("next");
      const Lines_t vecFound = MessagesOf(FIXED_FILE);
      EXPECT_EQ("next", vecFound.empty() ? "" : vecFound.back());
      const bool bWritten = std::count(vecFound.begin(), vecFound.end(), LINE) == 1;
      // A name that may not be looked up stands for the file that was open, and maybe is no more.
      const bool bElsewhere = stAttempt.FailsIn({{"openat"}, {"mkdir"}, {"statx"}});
      EXPECT_TRUE(bWritten != IsLost(stAttempt) || bElsewhere);
    });
  }

 private:
  std::unique_ptr<SmallDisk> m_pDisk;
};

TEST_F(FixedLogCallTest, FirstLineIsWrittenOrDropped) {
  FailOne([](Log& /*stLog*/) {});
}

TEST_F(FixedLogCallTest, LaterLineIsWrittenOrDropped) {
  FailOne([](Log& stLog) { stLog.Info("first"); });
}

TEST_F(FixedLogCallTest, LineAfterARotationGoesToTheNewFileOrIsDropped) {
  FailOne([](Log& stLog) {
    stLog.Info("first");
    std::filesystem::rename(FIXED_FILE, std::string(FIXED_FILE) + ".1");
  });
}

}  // namespace
