// Factory, strings, regular expressions, files and the log while memory is lacking.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "class_factory.h"
#include "failing_allocation.h"
#include "filesystem_util.h"
#include "log.h"
#include "memory_track.h"
#include "regex_util.h"
#include "simple_filter.h"
#include "string_util.h"
#include "test_support.h"
#include "time_util.h"

namespace {

typedef std::vector<std::string> Texts_t;

const char LONG_NAME[] = "a name that is longer than what a string holds in itself";

// ---- ClassFactory

class OwnFactory : public ClassFactory {
 public:
  OwnFactory() = default;
};

class Product : public Object {
 public:
  void Dump(int /*iFD*/) override {}
};

Object* Create() { return new Product; }

TEST(ClassFactoryAllocationTest, FailedRegistrationRegistersNothing) {
  const int iFailed =
      ForEachFailingAllocation("ClassFactory::AddObject", [](FailingAllocation& stMemory) {
        OwnFactory stFactory;
        if (!stMemory.Run(false, [&] { return stFactory.AddObject(LONG_NAME, Create); })) {
          EXPECT_TRUE(stFactory.ObjectMap().empty());
          EXPECT_TRUE(stFactory.AddObject(LONG_NAME, Create));
        }
        EXPECT_EQ(1u, stFactory.ObjectMap().count(LONG_NAME));
      });
  EXPECT_GT(iFailed, 1);
}

TEST(ClassFactoryAllocationTest, NumberIsRegisteredOrNot) {
  ForEachFailingAllocation("ClassFactory::AddObject of a number", [](FailingAllocation& stMemory) {
    OwnFactory stFactory;
    const bool bAdded = stMemory.Run(false, [&] { return stFactory.AddObject(7, Create); });
    EXPECT_EQ(bAdded ? 1u : 0u, stFactory.ObjectMap().size());
    EXPECT_EQ(!bAdded, stFactory.AddObject(7, Create));
  });
}

TEST(ClassFactoryAllocationTest, NewObjectIsMadeOrThrown) {
  OwnFactory stFactory;
  stFactory.AddObject(LONG_NAME, Create);
  stFactory.AddObject(7, Create);
  ForEachFailingAllocation("ClassFactory::NewObject", [&](FailingAllocation& stMemory) {
    std::unique_ptr<Object> pByName;
    std::unique_ptr<Object> pByNumber;
    const bool bMade = stMemory.Run([&] {
      pByName.reset(stFactory.NewObject(LONG_NAME));
      pByNumber.reset(stFactory.NewObject(7));
    });
    EXPECT_EQ(bMade, pByNumber != nullptr);
    EXPECT_EQ(!bMade, stMemory.Failed());
  });
}

// ---- Strings and time

TEST(StringUtilAllocationTest, SplittersKeepWholeFieldsOnly) {
  const std::string strField(40, 'x');
  const std::string strText = strField + "," + strField + "," + strField;
  for (const bool bSet : {false, true}) {
    ForEachFailingAllocation(bSet ? "StringSplit" : "Split", [&](FailingAllocation& stMemory) {
      Texts_t vecFields;
      const bool bDone = stMemory.Run(
          [&] { bSet ? StringSplit(strText, ",", vecFields) : Split(strText, ",", vecFields); });
      EXPECT_EQ(bDone, vecFields.size() == 3);
      EXPECT_EQ(Texts_t(vecFields.size(), strField), vecFields);
    });
  }
}

TEST(StringUtilAllocationTest, OthersNeedNoMemory) {
  std::string strText = "  text without blanks at its ends that is long enough  ";
  const int iFailed =
      ForEachFailingAllocation("string and time utilities", [&](FailingAllocation& stMemory) {
        stMemory.Run([&] {
          char szText[64];
          FormatString(szText, sizeof(szText), "%s %d", "text", 7);
          FormatString("%s %d", "text", 7);
          Trim(strText, " ");
          StringToInt(strText);
          StringToBool(strText);
          GenerateTimeString();
          timediff_month(1, 2);
        });
      });
  EXPECT_EQ(0, iFailed);
}

// ---- Regular expressions

TEST(RegexUtilAllocationTest, MatchingFailsOrGivesAllGroups) {
  const std::string strValue(40, 'v');
  const std::string strText = "first=" + strValue + " second=" + strValue;
  ForEachFailingAllocation("RegexUtil::MatchString", [&](FailingAllocation& stMemory) {
    Texts_t vecGroups;
    const int iResult = stMemory.Run(
        -1, [&] { return RegexUtil::MatchString("([a-z]+)=(v+)", strText.c_str(), vecGroups); });
    EXPECT_TRUE(stMemory.Failed() || iResult == 0);
    const Texts_t vecAll{"first", strValue, "second", strValue};
    EXPECT_TRUE(std::equal(vecGroups.begin(), vecGroups.end(), vecAll.begin()));
    EXPECT_EQ(iResult == 0, vecGroups.size() == vecAll.size());
  });
}

TEST(SimpleFilterAllocationTest, PatternThatFailsLetsAllPassOrKeepsTheFormerOne) {
  ForEachFailingAllocation("SimpleFilter::SetRegular", [](FailingAllocation& stMemory) {
    SimpleFilter stFilter;
    stFilter.SetRegular("^former");
    const int iNotSet = 1;
    const int iResult = stMemory.Run(
        iNotSet, [&] { return stFilter.SetRegular("^a pattern that is longer than that[0-9]+$"); });
    EXPECT_TRUE(stMemory.Failed() || iResult == 0);
    if (iResult == iNotSet) {
      EXPECT_TRUE(stFilter.DoFilter("former"));
      EXPECT_FALSE(stFilter.DoFilter("other"));
    } else {
      EXPECT_EQ(iResult == -1, stFilter.DoFilter("former"));
    }
    EXPECT_EQ(0, stFilter.SetRegular("^next$"));
    EXPECT_TRUE(stFilter.DoFilter("next"));
    EXPECT_FALSE(stFilter.DoFilter("former"));
  });
}

TEST(SimpleFilterAllocationTest, MatchingPassesWhatItCanNotDecide) {
  for (const char* pName : {"abcd", "abcx"}) {
    const int iFailed =
        ForEachFailingAllocation("SimpleFilter::DoFilter", [&](FailingAllocation& stMemory) {
          SimpleFilter stFilter;
          ASSERT_EQ(0, stFilter.SetRegular("^(a|ab)(c|bcd)(d*)$"));
          const bool bPasses = std::string(pName) == "abcd";
          const bool bPassed = stMemory.Run(false, [&] { return stFilter.DoFilter(pName); });
          EXPECT_TRUE(bPassed == bPasses || (stMemory.Failed() && bPassed));
          EXPECT_EQ(bPasses, stFilter.DoFilter(pName));
        });
    EXPECT_GT(iFailed, MALLOC_FAILS ? 1 : -1);
  }
}

// ---- Files

TEST(FilesystemAllocationTest, FileIsSavedWholeOrNotReported) {
  const PrivateDirectory stDirectory;
  const std::string strFile = stDirectory.File("file");
  const std::string strContent(10000, 'c');
  ForEachFailingAllocation("SaveFile", [&](FailingAllocation& stMemory) {
    unlink(strFile.c_str());
    const int iResult =
        stMemory.Run(-1, [&] { return SaveFile(strFile.c_str(), strContent.data(), 10000); });
    EXPECT_EQ(stMemory.Failed() ? -1 : 0, iResult);
    EXPECT_EQ(0, SaveFile(strFile.c_str(), strContent.data(), 10000));
    EXPECT_EQ(strContent, ReadFile(strFile));
  });
}

TEST(FilesystemAllocationTest, DirectoriesAreMadeByTheNextCall) {
  const PrivateDirectory stDirectory;
  int iRound = 0;
  ForEachFailingAllocation("MakeDir", [&](FailingAllocation& stMemory) {
    const std::string strPath = stDirectory.File(std::to_string(++iRound)) + "/below/it";
    const int iResult = stMemory.Run(-1, [&] { return MakeDir(strPath.c_str(), 0700); });
    EXPECT_EQ(stMemory.Failed() ? -1 : 0, iResult);
    EXPECT_EQ(0, MakeDir(strPath.c_str(), 0700));
    EXPECT_EQ(0, access(strPath.c_str(), F_OK));
  });
}

TEST(FilesystemAllocationTest, DirectoryThatCanNotBeMadeIsToldWithoutMemoryToo) {
  CaptureOutput(1, [] {
    ForEachFailingAllocation("MakeDir that fails", [](FailingAllocation& stMemory) {
      EXPECT_EQ(-1, stMemory.Run(-1, [] { return MakeDir("/proc/no/such/directory", 0700); }));
      fflush(stdout);
    });
  });
}

TEST(FilesystemAllocationTest, GetPathChangesAllOrNothing) {
  ForEachFailingAllocation("GetPath", [](FailingAllocation& stMemory) {
    std::string strPath = "before";
    const std::string strLong = std::string("/") + LONG_NAME;
    const bool bDone = stMemory.Run([&] { GetPath((strLong + "/name").c_str(), strPath); });
    EXPECT_EQ(bDone ? strLong : "before", strPath);
  });
}

TEST(FilesystemAllocationTest, ListingLeavesNoDirectoryOpen) {
  const PrivateDirectory stDirectory;
  WriteFile(stDirectory.File(LONG_NAME), "");
  ForEachFailingAllocation("Ls", [&](FailingAllocation& stMemory) {
    Texts_t vecNames;
    const int iResult =
        stMemory.Run(-1, [&] { return Ls(stDirectory.Path().c_str(), "name.*string", vecNames); });
    EXPECT_LE(vecNames.size(), 3u);  // without a filter, as when it does not compile, "." and ".."
    EXPECT_TRUE(stMemory.Failed() || (iResult == 0 && vecNames == Texts_t{LONG_NAME}));
    vecNames.clear();
    EXPECT_EQ(0, Ls(stDirectory.Path().c_str(), "name.*string", vecNames));
    EXPECT_EQ(Texts_t{LONG_NAME}, vecNames);
  });
}

// ---- Log

// A log in a directory of its own, and what stands in its file.
class LogAllocationTest : public ::testing::Test {
 protected:
  static std::string Written(const Log& stLog) {
    return ReadFile("/proc/self/fd/" + std::to_string(stLog.FD()));
  }
  static bool EndsWith(const std::string& strText, const std::string& strEnd) {
    return strText.size() >= strEnd.size() &&
           strText.compare(strText.size() - strEnd.size(), strEnd.size(), strEnd) == 0;
  }
  // A directory that no other round has.
  std::string NewPath() { return m_stDirectory.File("log" + std::to_string(++m_iRound)); }

  const PrivateDirectory m_stDirectory;
  int m_iRound = 0;
};

TEST_F(LogAllocationTest, FirstLineIsDroppedWithoutMemoryAndErrnoKept) {
  const int iFailed =
      ForEachFailingAllocation("Log::Info that opens its file", [&](FailingAllocation& stMemory) {
        Log stLog;
        stLog.SetPath(NewPath());
        int iErrno = 0;
        const bool bReturned = stMemory.Run([&] {
          errno = EXFULL;
          stLog.Info("first");
          iErrno = errno;
        });
        EXPECT_TRUE(bReturned);
        EXPECT_EQ(EXFULL, iErrno);
        stLog.Info("second");
        const std::string strWritten = Written(stLog);
        EXPECT_TRUE(EndsWith(strWritten, "] second\n")) << strWritten;
        EXPECT_EQ(!stMemory.Failed(), strWritten.find("] first\n") != std::string::npos);
      });
  EXPECT_GT(iFailed, 1);
}

TEST_F(LogAllocationTest, LineOfADeletedFileIsDroppedAndTheNextOneOpensItAnew) {
  ForEachFailingAllocation("Log::Info after a deletion", [&](FailingAllocation& stMemory) {
    Log stLog;
    stLog.SetPath(NewPath());
    stLog.Info("lost with its file");
    char szFile[512] = "";
    ASSERT_NE(-1, readlink(("/proc/self/fd/" + std::to_string(stLog.FD())).c_str(), szFile, 511));
    ASSERT_EQ(0, unlink(szFile));
    EXPECT_TRUE(stMemory.Run([&] { stLog.Info("first"); }));
    stLog.Info("second");
    EXPECT_TRUE(EndsWith(ReadFile(szFile), "] second\n"));
  });
}

TEST_F(LogAllocationTest, LineThatMovesToTheNextFileIsDroppedOrWritten) {
  ForEachFailingAllocation("Log::Info that is too much for its file",
                           [&](FailingAllocation& stMemory) {
                             Log stLog;
                             stLog.SetPath(NewPath());
                             stLog.SetMaxSize(1);
                             stLog.Info("fills the first file");
                             EXPECT_TRUE(stMemory.Run([&] { stLog.Info("first"); }));
                             stLog.Info("second");
                             EXPECT_TRUE(EndsWith(Written(stLog), "] second\n"));
                           });
}

TEST_F(LogAllocationTest, LineToAnOpenFileNeedsNoMemory) {
  Log stLog;
  stLog.SetPath(NewPath());
  stLog.Info("opens");
  const int iFailed =
      ForEachFailingAllocation("Log, lines to an open file", [&](FailingAllocation& stMemory) {
        stMemory.Run([&] {
          stLog.Debug("%s", "text");
          stLog.Info("%d", 7);
          stLog.Warning("%.3f", 0.5);
          stLog.Error("text");
          stLog.Stat("text");
          stLog.WriteLog(Log::LL_NET, "text");
          stLog.BinaryLog(Log::LL_INFO, LONG_NAME, sizeof(LONG_NAME), "text");
          stLog.SetLevel("DEBUG");
          stLog.SetMaxSize(1 << 20);
        });
      });
  EXPECT_EQ(0, iFailed);
}

TEST_F(LogAllocationTest, MessageThatPrintfLacksMemoryForIsALineAllTheSame) {
  Log stLog;
  stLog.SetPath(NewPath());
  stLog.SetLineBufferSize(8192);
  ForEachFailingAllocation("Log::Info of a very long number", [&](FailingAllocation& stMemory) {
    EXPECT_TRUE(stMemory.Run([&] { stLog.Info("%.3000f", 0.5); }));
    stLog.Info("next");
    EXPECT_TRUE(EndsWith(Written(stLog), "] next\n"));
  });
}

TEST_F(LogAllocationTest, LineBufferOfAnotherSizeIsThereOrTheFormerStays) {
  ForEachFailingAllocation("Log::SetLineBufferSize", [&](FailingAllocation& stMemory) {
    Log stLog;
    stLog.SetPath(NewPath());
    const bool bSet = stMemory.Run([&] { stLog.SetLineBufferSize(200000); });
    stLog.Info("%s", std::string(150000, 'x').c_str());
    EXPECT_EQ(bSet ? 150040u : 1024u, Written(stLog).size());
  });
}

TEST_F(LogAllocationTest, ConstructorLeavesNothing) {
  ForEachFailingAllocation("Log::Log",
                           [](FailingAllocation& stMemory) { stMemory.Run([] { Log stLog; }); });
}

TEST_F(LogAllocationTest, SettersChangeAllOrNothing) {
  typedef void (Log::*Setter_t)(const std::string&);
  typedef const std::string& (Log::*Getter_t)() const;
  const struct {
    const char* pName;
    Setter_t pSet;
    Getter_t pGet;
  } SETTERS[] = {{"Log::SetPath", &Log::SetPath, &Log::GetPath},
                 {"Log::SetPrefix", &Log::SetPrefix, &Log::GetPrefix},
                 {"Log::SetSuffix", &Log::SetSuffix, &Log::GetSuffix}};
  for (const auto& stSetter : SETTERS) {
    for (const std::string strText : {"/data/log/zelk", LONG_NAME}) {
      ForEachFailingAllocation(stSetter.pName, [&](FailingAllocation& stMemory) {
        Log stLog;  // in a directory with one file
        const std::string strBefore = (stLog.*stSetter.pGet)();
        const bool bSet = stMemory.Run([&] { (stLog.*stSetter.pSet)(strText); });
        EXPECT_EQ(bSet ? strText : strBefore, (stLog.*stSetter.pGet)());
        (stLog.*stSetter.pSet)(strText);
        EXPECT_EQ(strText, (stLog.*stSetter.pGet)());
      });
    }
  }
}

// ---- Memory tracking

TEST(MemoryTrackAllocationTest, RecordIsThereOrNot) {
  int iBlock = 0;
  ForEachFailingAllocation("AddTrack", [&](FailingAllocation& stMemory) {
    const bool bAdded = stMemory.Run([&] { AddTrack(&iBlock, 4, LONG_NAME, 7); });
    EXPECT_EQ(bAdded ? 1u : 0u, g_mapMemoryTrack.count(&iBlock));
    AddTrack(&iBlock, 4, LONG_NAME, 7);
    EXPECT_EQ(std::string(LONG_NAME) + ":7 allocate 4 bytes\n", DumpUnfreed());
    RemoveTrack(&iBlock);
  });
}

TEST(MemoryTrackAllocationTest, ReportIsWholeOrThrown) {
  int aBlocks[3] = {};
  for (int& iBlock : aBlocks) {
    AddTrack(&iBlock, 4, LONG_NAME, 7);
  }
  const std::string strReport = DumpUnfreed();
  ForEachFailingAllocation("DumpUnfreed", [&](FailingAllocation& stMemory) {
    const std::string strResult = stMemory.Run(std::string(), [] { return DumpUnfreed(); });
    EXPECT_EQ(stMemory.Failed() ? "" : strReport, strResult);
  });
  for (int& iBlock : aBlocks) {
    RemoveTrack(&iBlock);
  }
}

}  // namespace
