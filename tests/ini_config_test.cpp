// The grammar, line by line, and loading from memory and from files.

#include "ini_config.h"

#include <sys/stat.h>
#include <unistd.h>

#include <type_traits>

#include "ini_fixture.h"

namespace {

TEST(IniConfigGrammarTest, ItemsGoToTheSectionAboveThem) {
  EXPECT_EQ((Texts_t{"|a|1", "s|b|2", "s|b|4"}), LoadedText("a=1\n[s]\nb = 2 3\nb 4\n# c=5"));
}

TEST(IniConfigGrammarTest, CommentsBeginTheirLine) {
  EXPECT_EQ(Texts_t{}, LoadedText("; a=1\n# a=1\n// a=1\n \t;a=1\n\t#[s]\n  //a"));
  EXPECT_EQ((Texts_t{"|/|a", "|a;|1", "|b#//|"}), LoadedText("/ a\na; 1\nb#//"));
}

TEST(IniConfigGrammarTest, WhatFollowsAValueIsNoComment) {
  EXPECT_EQ(Texts_t{"|key|value"}, LoadedText("key = value ; note"));
  EXPECT_EQ(Texts_t{"|key|value;note"}, LoadedText("key = value;note"));
  EXPECT_EQ(Texts_t{"|key|#1"}, LoadedText("key = #1"));
}

TEST(IniConfigGrammarTest, SectionNameIsNeitherTrimmedNorShortened) {
  EXPECT_EQ(Texts_t{" a |k|v"}, LoadedText("[ a ]\nk=v"));
  EXPECT_EQ(Texts_t{"a]x|k|v"}, LoadedText("[a]x]\nk=v"));
  EXPECT_EQ(Texts_t{"a]=[b|k|v"}, LoadedText("[a]=[b]\nk=v"));
  EXPECT_EQ(Texts_t{"]|k|v"}, LoadedText("[]]\nk=v"));
  EXPECT_EQ(Texts_t{"]x|k|v"}, LoadedText("[]x]\nk=v"));
  EXPECT_EQ(Texts_t{"[|k|v"}, LoadedText("[[]\nk=v"));
}

TEST(IniConfigGrammarTest, TextBehindASectionIsIgnored) {
  EXPECT_EQ(Texts_t{"a|k|v"}, LoadedText(" \t[a] \t x = 1\nk=v"));
  EXPECT_EQ(Texts_t{"a|k|v"}, LoadedText("[a]\r\nk=v"));
  EXPECT_EQ(Texts_t{"a|k|v"}, LoadedText("[a];b\nk=v"));
}

TEST(IniConfigGrammarTest, BracketsThatMakeNoSectionMakeAKey) {
  EXPECT_EQ(Texts_t{"|[]|"}, LoadedText("[]"));
  EXPECT_EQ(Texts_t{"|[a|"}, LoadedText("[a"));
  EXPECT_EQ(Texts_t{"|[a|b"}, LoadedText("[a b"));
  EXPECT_EQ(Texts_t{"|x[a]|"}, LoadedText("x[a]"));
}

TEST(IniConfigGrammarTest, KeyAndValueArePartedByAnyRunOfBlanksTabsAndEqualsSigns) {
  for (const char* pLine :
       {"key value", "key=value", "key == value", "key\t= \t=value", " \tkey=value \t"}) {
    EXPECT_EQ(Texts_t{"|key|value"}, LoadedText(pLine)) << pLine;
  }
}

TEST(IniConfigGrammarTest, ValueEndsAtBlankTabEqualsSignAndLineEnd) {
  EXPECT_EQ(Texts_t{"|name|a"}, LoadedText("name = a b"));
  EXPECT_EQ(Texts_t{"|name|a"}, LoadedText("name = a\tb"));
  EXPECT_EQ(Texts_t{"|k|v"}, LoadedText("k=v=w"));
  EXPECT_EQ(Texts_t{"|k|v"}, LoadedText("k=v\r\n"));
  EXPECT_EQ(Texts_t{"|k|v"}, LoadedLine("k=v\nw"));
}

TEST(IniConfigGrammarTest, NothingIsQuotedEscapedOrContinued) {
  EXPECT_EQ(Texts_t{"|k|\"a"}, LoadedText("k = \"a b\""));
  EXPECT_EQ(Texts_t{"|k|a\\tb\\"}, LoadedText("k=a\\tb\\"));
  EXPECT_EQ((Texts_t{"|b|", "|k|a\\"}), LoadedText("k=a\\\nb"));
}

TEST(IniConfigGrammarTest, BackslashAndLetterInALineAreNoTabOrLineEnd) {
  EXPECT_EQ(Texts_t{"|key|trunk"}, LoadedText("key=trunk"));
  EXPECT_EQ(Texts_t{"|trunk\\|nr"}, LoadedText("trunk\\=nr"));
}

TEST(IniConfigGrammarTest, KeyWithoutValueHasAnEmptyOne) {
  for (const char* pLine : {"flag", "flag=", "flag = ", "flag \t", " flag ==\r"}) {
    EXPECT_EQ(Texts_t{"|flag|"}, LoadedText(pLine)) << pLine;
  }
}

TEST(IniConfigGrammarTest, LineThatBeginsWithAnEqualsSignIsIgnored) {
  EXPECT_EQ(Texts_t{}, LoadedText("=\n=a\n = a = b\n\t==="));
}

TEST(IniConfigGrammarTest, LineEndsBelongToAKeyButNotToAValue) {
  EXPECT_EQ(Texts_t{"|flag\n|"}, LoadedLine("flag\n"));
  EXPECT_EQ(Texts_t{"|flag\r\n|"}, LoadedLine("flag\r\n"));
  EXPECT_EQ(Texts_t{"|a\r|1"}, LoadedLine("a\r=1"));
  EXPECT_EQ(Texts_t{"|a\nb|1"}, LoadedLine("a\nb=1"));
  EXPECT_EQ(Texts_t{"|\n|"}, LoadedLine(" \t\n"));
  EXPECT_EQ(Texts_t{"|flag|"}, LoadedLine("flag =\n"));
  EXPECT_EQ(Texts_t{"|flag|"}, LoadedLine("flag =\nx"));
}

TEST(IniConfigGrammarTest, PatternsSeeALineWithLineFeedsAsOneText) {
  EXPECT_EQ(Texts_t{}, LoadedLine("# c\na=1"));
  EXPECT_EQ(Texts_t{"|x\n#|1"}, LoadedLine("x\n#=1"));
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromMemory(Texts_t{"[a\nb]c\n[d]e", "k=v"}));
  EXPECT_EQ(Texts_t{"a\nb]c\n[d|k|v"}, ItemsOf(stConfig));
}

TEST(IniConfigGrammarTest, LineEndsAtItsFirstNul) {
  using std::string_literals::operator""s;
  EXPECT_EQ(Texts_t{"|a|1"}, LoadedText("a=1\0 2"s));
  EXPECT_EQ(Texts_t{"|[a|"}, LoadedLine("[a\0]"s));
  EXPECT_EQ((Texts_t{"|b|2"}), LoadedText("\0a=1\nb=2"s));
}

TEST(IniConfigGrammarTest, SectionExistsFromItsFirstItemOn) {
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromMemory("[a]\n[b]\nk=1\n[c]\n# x=1"));
  EXPECT_EQ(Texts_t{"b"}, stConfig.EnumSections(""));
}

TEST(IniConfigGrammarTest, SectionsMayBeOpenedAgain) {
  EXPECT_EQ((Texts_t{"a|k|1", "a|k|3", "b|k|2"}), LoadedText("[a]\nk=1\n[b]\nk=2\n[a]\nk=3"));
}

TEST(IniConfigGrammarTest, KeysAreInTheOrderOfTheirBytesAndValuesInThatOfTheirLines) {
  EXPECT_EQ((Texts_t{"|B|3", "|a|9", "|a|1", "|a|5", "|\xc3\xa4|4"}),
            LoadedText("\xc3\xa4=4\na=9\nB=3\na=1\na=5"));
}

TEST(IniConfigMemoryTest, LinesEndAtLineFeedsAndKeepCarriageReturns) {
  EXPECT_EQ((Texts_t{"|\r|", "|a|1", "|flag\r|"}), LoadedText("a=1\r\n\r\nflag\r\n\n"));
  EXPECT_EQ(Texts_t{}, LoadedText(""));
  EXPECT_EQ(Texts_t{}, LoadedText("\n\n"));
}

TEST(IniConfigMemoryTest, LongLinesAreNotCut) {
  const std::string strLong(5000, 'x');
  EXPECT_EQ(Texts_t{"|" + strLong + "|" + strLong}, LoadedText(strLong + "=" + strLong));
  EXPECT_EQ(Texts_t{strLong + "|k|v"}, LoadedText("[" + strLong + "]\nk=v"));
}

TEST(IniConfigMemoryTest, LoadingAddsToWhatIsThere) {
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromMemory("[s]\na=1"));
  ASSERT_EQ(0, stConfig.LoadFromMemory("b=2\n[s]\na=0"));
  EXPECT_EQ((Texts_t{"|b|2", "s|a|1", "s|a|0"}), ItemsOf(stConfig));
}

TEST(IniConfigMemoryTest, EveryTextStartsInTheGlobalSection) {
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromMemory("[s]\na=1"));
  ASSERT_EQ(0, stConfig.LoadFromMemory(Texts_t{"a=2"}));
  EXPECT_EQ((Texts_t{"|a|2", "s|a|1"}), ItemsOf(stConfig));
}

class IniConfigFileTest : public IniFiles {};

TEST_F(IniConfigFileTest, LinesKeepTheirLineFeeds) {
  Write("a.ini", "a=1\n\n[s]\nb = 2 3\nflag\nb 4\n\n \n# c=5\ncr\r\nend =\n");
  ASSERT_EQ(0, Load("a.ini"));
  EXPECT_EQ((Texts_t{"|\n|", "|a|1", "s|\n|", "s|\n|", "s|b|2", "s|b|4", "s|cr\r\n|", "s|end|",
                     "s|flag\n|"}),
            Items());
}

TEST_F(IniConfigFileTest, LastLineNeedsNoLineFeed) {
  Write("a.ini", "a=1\nflag");
  ASSERT_EQ(0, Load("a.ini"));
  EXPECT_EQ((Texts_t{"|a|1", "|flag|"}), Items());
}

TEST_F(IniConfigFileTest, EmptyFileIsNoFailure) {
  Write("a.ini", "");
  EXPECT_EQ(0, Load("a.ini"));
  EXPECT_EQ(Texts_t{}, Items());
}

TEST_F(IniConfigFileTest, LineIsCutAfterEach2047Characters) {
  const std::string strFirst = "k=" + std::string(2045, 'v');
  Write("a.ini", strFirst + "w x\n" + "l=" + std::string(2044, 'v') + "\nm=1\n");
  ASSERT_EQ(0, Load("a.ini"));
  EXPECT_EQ(
      (Texts_t{"|k|" + std::string(2045, 'v'), "|l|" + std::string(2044, 'v'), "|m|1", "|w|x"}),
      Items());
}

TEST_F(IniConfigFileTest, LineFeedThatDidNotFitIsALineOfItsOwn) {
  Write("a.ini", "k=" + std::string(2045, 'v') + "\n");
  ASSERT_EQ(0, Load("a.ini"));
  EXPECT_EQ((Texts_t{"|\n|", "|k|" + std::string(2045, 'v')}), Items());
}

TEST_F(IniConfigFileTest, CutMayGoThroughACommentAndAHeader) {
  Write("a.ini", "#" + std::string(2046, 'c') + "a=1\n[" + std::string(2046, 's') + "t]\n");
  ASSERT_EQ(0, Load("a.ini"));
  EXPECT_EQ((Texts_t{"|[" + std::string(2046, 's') + "|", "|a|1", "|t]\n|"}), Items());
}

TEST_F(IniConfigFileTest, NulHidesTheRestOfALine) {
  Write("a.ini", std::string("a=1\0b=2\nflag\0\nc=3\n", 19));
  ASSERT_EQ(0, Load("a.ini"));
  EXPECT_EQ((Texts_t{"|a|1", "|c|3", "|flag|"}), Items());
}

TEST_F(IniConfigFileTest, MissingFileFailsAndChangesNothing) {
  Write("a.ini", "a=1\n");
  ASSERT_EQ(0, Load("a.ini"));
  EXPECT_EQ(-1, Load("missing.ini"));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(Texts_t{"|a|1"}, Items());
  Write("a.ini", "a=2\n");
  EXPECT_EQ(0, m_stConfig.Reload());  // still that of the first load
  EXPECT_EQ(Texts_t{"|a|2"}, Items());
}

TEST_F(IniConfigFileTest, DirectoryCanBeOpenedAndIsEmpty) {
  EXPECT_EQ(0, m_stConfig.LoadFromFile(m_stDirectory.Path().c_str()));
  EXPECT_EQ(Texts_t{}, Items());
}

TEST_F(IniConfigFileTest, PipeIsReadToItsEnd) {
  const std::string strPipe = Path("pipe");
  ASSERT_EQ(0, mkfifo(strPipe.c_str(), 0600));
  ForkedPeer stWriter([&] {
    WriteFile(strPipe, "a=1\n[s]\nb=" + std::string(2000, 'x') + "\n");
    return 0;
  });
  EXPECT_EQ(0, Load("pipe"));
  EXPECT_EQ(0, stWriter.Wait());
  EXPECT_EQ((Texts_t{"|a|1", "s|b|" + std::string(2000, 'x')}), Items());
}

TEST_F(IniConfigFileTest, LoadingLeavesNoDescriptorOpen) {
  Write("a.ini", "include = " + Path("b.ini") + "\n");
  Write("b.ini", "include = " + Path("d*") + "\nb=1\n");
  ASSERT_EQ(0, symlink("nowhere", Path("dangling").c_str()));
  const int iBefore = OpenDescriptors();
  EXPECT_EQ(-1, Load("a.ini"));
  EXPECT_EQ(-1, Load("missing.ini"));
  EXPECT_EQ(iBefore, OpenDescriptors());
}

class IniConfigReloadTest : public IniFiles {};

TEST_F(IniConfigReloadTest, ReplacesTheContents) {
  Write("a.ini", "a=1\n[s]\nb=2\n");
  ASSERT_EQ(0, Load("a.ini"));
  m_stConfig.SetValue("t", "c", "3");
  Write("a.ini", "a=4\n");
  EXPECT_EQ(0, m_stConfig.Reload());
  EXPECT_EQ(Texts_t{"|a|4"}, Items());
}

TEST_F(IniConfigReloadTest, FileThatHasGoneLeavesTheContents) {
  const std::string strPath = Write("a.ini", "a=1\n");
  ASSERT_EQ(0, Load("a.ini"));
  ASSERT_EQ(0, unlink(strPath.c_str()));
  EXPECT_EQ(-1, m_stConfig.Reload());
  EXPECT_EQ(Texts_t{"|a|1"}, Items());
  Write("a.ini", "a=2\n");
  EXPECT_EQ(0, m_stConfig.Reload());
  EXPECT_EQ(Texts_t{"|a|2"}, Items());
}

TEST_F(IniConfigReloadTest, FailingIncludeLeavesTheContents) {
  Write("a.ini", "a=1\n");
  ASSERT_EQ(0, Load("a.ini"));
  ASSERT_EQ(0, symlink("nowhere", Path("dangling").c_str()));
  Write("a.ini", "a=2\ninclude = " + Path("dangling") + "\n");
  EXPECT_EQ(-1, m_stConfig.Reload());
  EXPECT_EQ(Texts_t{"|a|1"}, Items());
}

TEST_F(IniConfigReloadTest, WithoutAFileItChangesNothing) {
  ASSERT_EQ(0, m_stConfig.LoadFromMemory("a=1"));
  EXPECT_EQ(0, m_stConfig.Reload());
  EXPECT_EQ(Texts_t{"|a|1"}, Items());
}

TEST_F(IniConfigReloadTest, ReadsTheFileOfTheLastLoad) {
  Write("a.ini", "a=1\n");
  Write("b.ini", "b=1\n");
  ASSERT_EQ(0, Load("a.ini"));
  ASSERT_EQ(0, Load("b.ini"));
  ASSERT_EQ((Texts_t{"|a|1", "|b|1"}), Items());
  EXPECT_EQ(0, m_stConfig.Reload());
  EXPECT_EQ(Texts_t{"|b|1"}, Items());
  EXPECT_EQ(0, m_stConfig.Reload());
  EXPECT_EQ(Texts_t{"|b|1"}, Items());
}

TEST_F(IniConfigReloadTest, FileNameIsKeptWhenParsingFails) {
  Write("a.ini", "a=1\n");
  ASSERT_EQ(0, Load("a.ini"));
  ASSERT_EQ(0, symlink("later", Path("link").c_str()));
  Write("b.ini", "b=1\ninclude = " + Path("link") + "\n");
  ASSERT_EQ(-1, Load("b.ini"));
  EXPECT_EQ((Texts_t{"|a|1", "|b|1", "|include|" + Path("link")}), Items());
  Write("later", "c=1\n");
  EXPECT_EQ(0, m_stConfig.Reload());
  EXPECT_EQ((Texts_t{"|b|1", "|c|1", "|include|" + Path("link")}), Items());
}

TEST_F(IniConfigReloadTest, LoadWithASetIsNotReloaded) {
  Write("a.ini", "a=1\n");
  const std::string strOther = Write("b.ini", "b=1\n");
  ASSERT_EQ(0, Load("a.ini"));
  std::set<std::string> setIncludes;
  ASSERT_EQ(0, m_stConfig.LoadFromFile(strOther.c_str(), &setIncludes));
  EXPECT_EQ(0, m_stConfig.Reload());
  EXPECT_EQ(Texts_t{"|a|1"}, Items());
}

TEST_F(IniConfigReloadTest, RefreshDoesNothing) {
  Write("a.ini", "a=1\n");
  ASSERT_EQ(0, Load("a.ini"));
  Write("a.ini", "a=2\n");
  m_stConfig.Refresh();
  EXPECT_EQ(Texts_t{"|a|1"}, Items());
}

TEST_F(IniConfigReloadTest, ClearKeepsTheFileName) {
  Write("a.ini", "a=1\n");
  ASSERT_EQ(0, Load("a.ini"));
  m_stConfig.Clear();
  EXPECT_EQ(Texts_t{}, Items());
  EXPECT_TRUE(m_stConfig.AllItems().empty());
  EXPECT_EQ(0, m_stConfig.Reload());
  EXPECT_EQ(Texts_t{"|a|1"}, Items());
}

TEST(IniConfigTest, IsAnObjectWhoseCopiesAreIndependent) {
  EXPECT_TRUE((std::is_base_of_v<Object, IniConfig>));
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromMemory("a=1"));
  IniConfig stCopy(stConfig);
  stCopy.SetValue("", "a", "2");
  EXPECT_EQ(Texts_t{"|a|1"}, ItemsOf(stConfig));
  EXPECT_EQ((Texts_t{"|a|1", "|a|2"}), ItemsOf(stCopy));
  stConfig = stCopy;
  stCopy.Clear();
  EXPECT_EQ((Texts_t{"|a|1", "|a|2"}), ItemsOf(stConfig));
}

TEST_F(IniConfigFileTest, CopyReloadsTheSameFile) {
  Write("a.ini", "a=1\n");
  ASSERT_EQ(0, Load("a.ini"));
  IniConfig stCopy(m_stConfig);
  IniConfig stAssigned;
  stAssigned = m_stConfig;
  Write("a.ini", "a=2\n");
  EXPECT_EQ(0, stCopy.Reload());
  EXPECT_EQ(0, stAssigned.Reload());
  EXPECT_EQ(Texts_t{"|a|2"}, ItemsOf(stCopy));
  EXPECT_EQ(Texts_t{"|a|2"}, ItemsOf(stAssigned));
}

TEST(IniConfigTest, DumpListsItemsInColumns) {
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromMemory("b=$(HOME)%s\na\n[s]\nk=v"));
  const auto fnColumn = [](const std::string& strText) {
    return strText + std::string(30 - strText.size(), ' ');
  };
  const std::string strExpected =
      fnColumn("") + "\t" + fnColumn("a") + "\t" + fnColumn("") + "\n" +           //
      fnColumn("") + "\t" + fnColumn("b") + "\t" + fnColumn("$(HOME)%s") + "\n" +  //
      fnColumn("s") + "\t" + fnColumn("k") + "\t" + fnColumn("v") + "\n";
  EXPECT_EQ(strExpected, CaptureDescriptor([&](int iFD) { stConfig.Dump(iFD); }));
}

TEST(IniConfigTest, DumpOfAnEmptyObjectIsEmpty) {
  EXPECT_EQ("", CaptureDescriptor([](int iFD) { IniConfig().Dump(iFD); }));
}

// Files of a Debian system.
std::string Data(const std::string& strName) { return std::string(TEST_DATA "/ini/") + strName; }

TEST(IniConfigRealFileTest, SystemdTimer) {
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromFile(Data("apt-daily.timer").c_str()));
  EXPECT_EQ((Texts_t{"Install", "Timer", "Unit"}), stConfig.EnumSections(""));
  EXPECT_EQ("timers.target", stConfig.GetValue("Install", "WantedBy"));
  EXPECT_EQ("*-*-*", stConfig.GetValue("Timer", "OnCalendar"));  // values are single words
  EXPECT_EQ(12, stConfig.IntValue("Timer", "RandomizedDelaySec"));
  EXPECT_EQ("Daily", stConfig.GetValueByFullName("Unit.Description"));
}

TEST(IniConfigRealFileTest, SystemdService) {
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromFile(Data("systemd-journald.service").c_str()));
  EXPECT_EQ((Texts_t{"", "Service", "Unit"}), stConfig.EnumSections(""));
  EXPECT_EQ("/lib/systemd/systemd-journald", stConfig.GetValueByFullName("Service.ExecStart"));
  EXPECT_EQ(524288, stConfig.IntValue("Service", "LimitNOFILE"));
  EXPECT_EQ(-250, stConfig.IntValue("Service", "OOMScoreAdjust"));
  EXPECT_EQ("@system-service", stConfig.GetValue("Service", "SystemCallFilter"));
  EXPECT_EQ(1u, stConfig.Count("", "\n"));
}

TEST(IniConfigRealFileTest, MariadbServer) {
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromFile(Data("mariadb-server.cnf").c_str()));
  EXPECT_EQ("/run/mysqld/mysqld.pid", stConfig.GetValue("mysqld", "pid-file"));
  EXPECT_EQ("127.0.0.1", stConfig.GetValueByFullName("mysqld.bind-address"));
  EXPECT_EQ(10, stConfig.IntValue("mysqld", "expire_logs_days"));
  EXPECT_EQ("utf8mb4", stConfig.GetValue("mysqld", "character-set-server"));
  EXPECT_EQ(0u, stConfig.Count("mysqld", "#user"));
}

TEST(IniConfigRealFileTest, PhpStyle) {
  IniConfig stConfig;
  ASSERT_EQ(0, stConfig.LoadFromFile(Data("php.ini").c_str()));
  EXPECT_EQ(int64_t{128} << 20, stConfig.IntValue("PHP", "memory_limit"));
  EXPECT_EQ("", stConfig.GetValue("PHP", "disable_functions"));
  EXPECT_EQ(1u, stConfig.Count("PHP", "disable_functions"));
  EXPECT_EQ("E_ALL", stConfig.GetValue("PHP", "error_reporting"));
  EXPECT_EQ("\"UTF-8\"", stConfig.GetValue("PHP", "default_charset"));
  EXPECT_EQ("mbstring", stConfig.GetValue("PHP", "extension", 1));
  EXPECT_EQ("Europe/Berlin", stConfig.GetValueByFullName("Date.date.timezone"));
  EXPECT_EQ(25, stConfig.IntValue("mail function", "smtp_port"));
}

}  // namespace
