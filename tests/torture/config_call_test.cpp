// The two configurations while each of the system calls for their files fails in turn.

#include <gtest/gtest.h>

#include "config.h"
#include "failing_call.h"
#include "ini_config.h"
#include "test_support.h"

namespace {

typedef std::vector<std::string> Texts_t;

// A file that includes all files of a pattern, of which there is one; a, b and c are in them.
struct files_t {
  files_t(const std::string& strTop, const std::string& strIncluded) {
    WriteFile(strTopFile, strTop);
    WriteFile(stDirectory.File("sub.1"), strIncluded);
  }

  PrivateDirectory stDirectory;
  std::string strTopFile = stDirectory.File("top");
};

struct xml_files_t : files_t {
  xml_files_t() : files_t("", "<r><c>3</c></r>") {
    WriteFile(strTopFile,
              "<r><a>1</a><b>2</b><include>" + stDirectory.File("sub.*") + "</include></r>");
  }
};

struct ini_files_t : files_t {
  ini_files_t() : files_t("", "c=3\n") {
    WriteFile(strTopFile, "a=1\nb=2\ninclude = " + stDirectory.File("sub.*") + "\n");
  }
};

std::string ValuesOf(const Config& stConfig) {
  return stConfig.StringValue("a") + std::string(stConfig.StringValue("b")) +
         stConfig.StringValue("c");
}

std::string ValuesOf(const IniConfig& stConfig) {
  return stConfig.GetValue("", "a") + stConfig.GetValue("", "b") + stConfig.GetValue("", "c");
}

TEST(ConfigCallTest, LoadHasAllOrFailsAndCanBeRepeated) {
  FailEachCall([](Attempt& stAttempt) {
    const xml_files_t stFiles;
    Config stConfig;
    const int iResult =
        stAttempt.Run([&] { return stConfig.LoadFromFile(stFiles.strTopFile.c_str()); });
    if (iResult == 0) {
      const std::string strFound = ValuesOf(stConfig);
      EXPECT_TRUE(strFound == "123" || (stAttempt.Fails() && strFound == "12")) << strFound;
    } else {
      EXPECT_TRUE(stAttempt.Fails());
      stConfig.Clear();
      EXPECT_EQ(0, stConfig.LoadFromFile(stFiles.strTopFile.c_str()));
      EXPECT_EQ("123", ValuesOf(stConfig));
    }
  });
}

TEST(ConfigCallTest, FileWithoutIncludesIsReadWholeOrFails) {
  FailEachCall([](Attempt& stAttempt) {
    const PrivateDirectory stDirectory;
    const std::string strFile = stDirectory.File("a.xml");
    WriteFile(strFile, "<r><!--" + std::string(10000, 'x') + "--><a>1</a></r>");
    Config stConfig;
    const int iResult = stAttempt.Run([&] { return stConfig.LoadFromFile(strFile.c_str()); });
    const bool bShort = stAttempt.FailsIn({{"read"}}) && stAttempt.Failure().iErrno == 0 &&
                        stAttempt.Failure().iShorter != 0;
    const bool bHurts = stAttempt.Fails() && !bShort && !stAttempt.FailsIn({{"close"}}) &&
                        !stAttempt.FailsIn({{"newfstatat", -1, 2}});  // the stream's buffer size
    EXPECT_EQ(bHurts ? -1 : 0, iResult);
    if (bHurts && stAttempt.Failure().iErrno != 0) {
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
    }
    EXPECT_STREQ(bHurts ? "" : "1", stConfig.StringValue("a"));
  });
}

TEST(ConfigCallTest, RefreshThatFailsLeavesNothingAndALoadBringsItBack) {
  FailEachCall([](Attempt& stAttempt) {
    const xml_files_t stFiles;
    Config stConfig;
    ASSERT_EQ(0, stConfig.LoadFromFile(stFiles.strTopFile.c_str()));
    stAttempt.Run([&] { stConfig.Refresh(); });
    const std::string strFound = ValuesOf(stConfig);
    EXPECT_TRUE(stAttempt.Fails() || strFound == "123") << strFound;
    EXPECT_TRUE(strFound == "" || strFound == "12" || strFound == "123") << strFound;
    stConfig.Clear();
    EXPECT_EQ(0, stConfig.LoadFromFile(stFiles.strTopFile.c_str()));
    EXPECT_EQ("123", ValuesOf(stConfig));
  });
}

TEST(IniConfigCallTest, LoadHasAllOrFailsAndCanBeRepeated) {
  FailEachCall([](Attempt& stAttempt) {
    const ini_files_t stFiles;
    IniConfig stConfig;
    const int iResult =
        stAttempt.Run([&] { return stConfig.LoadFromFile(stFiles.strTopFile.c_str()); });
    const std::string strFound = ValuesOf(stConfig);
    // What can not be read ends a file, which is not an error.
    EXPECT_TRUE(stAttempt.Fails() || (iResult == 0 && strFound == "123")) << strFound;
    EXPECT_EQ(0u, std::string("123").find(strFound)) << strFound;
    if (stAttempt.FailsIn({{"read", EINTR}, {"close"}})) {
      EXPECT_EQ("123", strFound);
      EXPECT_EQ(0, iResult);
    }
    if (stAttempt.FailsIn({{"openat", -1, 1}})) {
      EXPECT_EQ(-1, iResult);
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
    }
    stConfig.Clear();
    EXPECT_EQ(0, stConfig.LoadFromFile(stFiles.strTopFile.c_str()));
    EXPECT_EQ("123", ValuesOf(stConfig));
  });
}

TEST(IniConfigCallTest, ReloadThatFailsChangesNothing) {
  FailEachCall([](Attempt& stAttempt) {
    const ini_files_t stFiles;
    IniConfig stConfig;
    ASSERT_EQ(0, stConfig.LoadFromFile(stFiles.strTopFile.c_str()));
    const int iResult = stAttempt.Run([&] { return stConfig.Reload(); });
    EXPECT_TRUE(iResult == 0 || ValuesOf(stConfig) == "123");
    EXPECT_EQ(0, stConfig.Reload());
    EXPECT_EQ("123", ValuesOf(stConfig));
  });
}

TEST(IniConfigCallTest, WriteFailsOnlyWhenTheFileCanNotBeOpened) {
  FailEachCall([](Attempt& stAttempt) {
    const PrivateDirectory stDirectory;
    const std::string strFile = stDirectory.File("a.ini");
    IniConfig stConfig;
    stConfig.SetValue("", "a", "1");
    stConfig.SetValue("s", "b", "2");
    const int iResult = stAttempt.Run([&] { return stConfig.WriteToFile(strFile.c_str()); });
    EXPECT_EQ(stAttempt.FailsIn({{"openat"}}) ? -1 : 0, iResult);
    if (!stAttempt.FailsIn({{"openat"}, {"write"}}) || stAttempt.Failure().iErrno == 0) {
      EXPECT_EQ("a = 1\n[s]\nb = 2\n", ReadFile(strFile));
    }
    EXPECT_EQ(0, stConfig.WriteToFile(strFile.c_str()));
    EXPECT_EQ("a = 1\n[s]\nb = 2\n", ReadFile(strFile));
  });
}

}  // namespace
