// Changing a configuration in memory and writing it out.

#include <sys/stat.h>
#include <unistd.h>

#include "ini_config.h"
#include "ini_fixture.h"

namespace {

class IniConfigEditTest : public IniFiles {
 protected:
  // What WriteToFile() leaves in a file; "(failed)" when it does not return 0.
  std::string Written() {
    const std::string strPath = Path("written.ini");
    return m_stConfig.WriteToFile(strPath.c_str()) == 0 ? ReadFile(strPath) : "(failed)";
  }
};

TEST_F(IniConfigEditTest, SetValueAddsAndNeverReplaces) {
  m_stConfig.SetValue("s", "k", "1");
  m_stConfig.SetValue("s", "k", "2");
  EXPECT_EQ((Texts_t{"s|k|1", "s|k|2"}), Items());
  EXPECT_EQ("1", m_stConfig.GetValue("s", "k"));
  EXPECT_EQ("2", m_stConfig.GetValue("s", "k", 1));
  EXPECT_EQ(2u, m_stConfig.Count("s", "k"));
  EXPECT_EQ("[s]\nk = 1\nk = 2\n", Written());
}

TEST_F(IniConfigEditTest, SetValueAddsBehindLoadedValues) {
  ASSERT_EQ(0, m_stConfig.LoadFromMemory("[s]\nk=9\nk=5\nl=1"));
  m_stConfig.SetValue("s", "k", "7");
  ASSERT_EQ(0, m_stConfig.LoadFromMemory("[s]\nk=3"));
  EXPECT_EQ((Texts_t{"s|k|9", "s|k|5", "s|k|7", "s|k|3", "s|l|1"}), Items());
}

TEST_F(IniConfigEditTest, NumbersAreStoredAsDecimalText) {
  m_stConfig.SetValue("s", "k", -5);
  m_stConfig.SetValue("s", "k", 0);
  m_stConfig.SetValue("s", "k", INT64_MIN);
  m_stConfig.SetValue("s", "k", INT64_MAX);
  EXPECT_EQ((Texts_t{"s|k|-5", "s|k|0", "s|k|-9223372036854775808", "s|k|9223372036854775807"}),
            Items());
}

TEST_F(IniConfigEditTest, SetValueMayTakeAValueOfTheObjectItself) {
  m_stConfig.SetValue("s", "k", "a value too long to be stored in place");
  const std::string& strValue = m_stConfig.AllItems().at("s").find("k")->second;
  m_stConfig.SetValue("s", strValue, strValue);
  EXPECT_EQ(1u, m_stConfig.Count("s", "a value too long to be stored in place"));
}

// Opens the protected operation.
class OpenConfig : public IniConfig {
 public:
  using IniConfig::InsertItem;
};

TEST_F(IniConfigEditTest, InsertItemAppendsToTheKey) {
  OpenConfig stConfig;
  stConfig.InsertItem("s", "k", "2");
  stConfig.InsertItem("s", "k", "1");
  stConfig.InsertItem("", "k", "");
  EXPECT_EQ((Texts_t{"|k|", "s|k|2", "s|k|1"}), ItemsOf(stConfig));
}

TEST_F(IniConfigEditTest, SettingIncludeFollowsNothing) {
  Write("a.ini", "a=1\n");
  m_stConfig.SetValue("", "include", Path("a.ini"));
  EXPECT_EQ(0u, m_stConfig.Count("", "a"));
  ASSERT_EQ(0, m_stConfig.LoadFromMemory(""));  // the next load does
  EXPECT_EQ("1", m_stConfig.GetValue("", "a"));
}

TEST_F(IniConfigEditTest, EmptyValueIsWrittenAsItsKeyAlone) {
  m_stConfig.SetValue("s", "flag", "");
  EXPECT_EQ("[s]\nflag\n", Written());
}

TEST_F(IniConfigEditTest, SectionsAndKeysAreWrittenInTheOrderOfTheirBytes) {
  ASSERT_EQ(0, m_stConfig.LoadFromMemory("[t]\nz=1\n# note\n\ny=2\n[S]\nx   =   3\n[t]\nx=4"));
  m_stConfig.SetValue("", "g", "5");
  EXPECT_EQ("g = 5\n[S]\nx = 3\n[t]\nx = 4\ny = 2\nz = 1\n", Written());
}

TEST_F(IniConfigEditTest, GlobalItemsHaveNoHeader) {
  m_stConfig.SetValue("", "b", "2");
  m_stConfig.SetValue("", "a", "1");
  EXPECT_EQ("a = 1\nb = 2\n", Written());
}

TEST_F(IniConfigEditTest, EmptyObjectGivesAnEmptyFile) {
  EXPECT_EQ("", Written());
  EXPECT_EQ(0, access(Path("written.ini").c_str(), F_OK));
}

TEST_F(IniConfigEditTest, ClearedObjectGivesAnEmptyFile) {
  m_stConfig.SetValue("s", "k", "1");
  ASSERT_NE("", Written());
  m_stConfig.Clear();
  EXPECT_EQ("", Written());
}

TEST_F(IniConfigEditTest, ValuesAreWrittenRawAndAreNoFormat) {
  m_stConfig.SetValue("%s%n", "%d", "%s%n%5$s");
  m_stConfig.SetValue("s", "home", "$(HOME)@(s.home)");
  m_stConfig.SetValue("s", "key", "two words = a value");
  EXPECT_EQ("[%s%n]\n%d = %s%n%5$s\n[s]\nhome = $(HOME)@(s.home)\nkey = two words = a value\n",
            Written());
}

TEST_F(IniConfigEditTest, FileIsOverwrittenInPlace) {
  const std::string strPath = Write("target.ini", std::string(10000, 'x'));
  ASSERT_EQ(0, symlink(strPath.c_str(), Path("written.ini").c_str()));
  m_stConfig.SetValue("s", "k", "1");
  EXPECT_EQ("[s]\nk = 1\n", Written());
  EXPECT_EQ("[s]\nk = 1\n", ReadFile(strPath));
  struct stat stStat {};
  ASSERT_EQ(0, lstat(Path("written.ini").c_str(), &stStat));
  EXPECT_TRUE(S_ISLNK(stStat.st_mode));
}

TEST_F(IniConfigEditTest, FileThatCanNotBeOpenedFails) {
  EXPECT_EQ(-1, m_stConfig.WriteToFile(Path("missing/a.ini").c_str()));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, m_stConfig.WriteToFile(m_stDirectory.Path().c_str()));
  EXPECT_EQ(EISDIR, errno);
}

TEST_F(IniConfigEditTest, FailuresAfterTheOpenAreNotReported) {
  m_stConfig.SetValue("s", "k", std::string(100000, 'x'));
  EXPECT_EQ(0, m_stConfig.WriteToFile("/dev/full"));
}

TEST_F(IniConfigEditTest, FileIsCompleteAndClosedOnReturn) {
  const int iBefore = OpenDescriptors();
  for (int i = 0; i < 5000; ++i) {
    m_stConfig.SetValue("s", "k", i);
  }
  const std::string strText = Written();
  EXPECT_EQ("k = 4999\n", strText.substr(strText.size() - 9));
  EXPECT_EQ(iBefore, OpenDescriptors());
}

TEST_F(IniConfigEditTest, WritingDoesNotChangeWhatReloadReads) {
  Write("a.ini", "a=1\n");
  ASSERT_EQ(0, Load("a.ini"));
  m_stConfig.SetValue("", "a", "2");
  ASSERT_EQ("a = 1\na = 2\n", Written());
  EXPECT_EQ(0, m_stConfig.Reload());
  EXPECT_EQ(Texts_t{"|a|1"}, Items());
}

TEST_F(IniConfigEditTest, SettingWritesNothingToTheLoadedFile) {
  Write("a.ini", "a=1\n");
  ASSERT_EQ(0, Load("a.ini"));
  m_stConfig.SetValue("", "a", "2");
  EXPECT_EQ("a=1\n", ReadFile(Path("a.ini")));
}

TEST_F(IniConfigEditTest, WrittenFileReadsBackItemForItem) {
  ASSERT_EQ(0, m_stConfig.LoadFromMemory(
                   "g=1\ng=0\n$k=@(s.b)\n[ s ]\nb=#x\nb=2\n[a]x]\nk.l=\xc3\xa4\xff\n"
                   "[[]\n]=[\n/=/"));
  const Texts_t vecItems = Items();
  ASSERT_EQ(8u, vecItems.size());
  ASSERT_NE("(failed)", Written());
  IniConfig stBack;
  ASSERT_EQ(0, stBack.LoadFromFile(Path("written.ini").c_str()));
  EXPECT_EQ(vecItems, ItemsOf(stBack));
}

TEST_F(IniConfigEditTest, KeyWithALineFeedIsFollowedByAnother) {
  Write("a.ini", "flag\na=1\n");
  ASSERT_EQ(0, Load("a.ini"));
  ASSERT_EQ((Texts_t{"|a|1", "|flag\n|"}), Items());
  EXPECT_EQ("a = 1\nflag\n\n", Written());
  ASSERT_EQ(0, Load("written.ini"));
  EXPECT_EQ(1u, m_stConfig.Count("", "\n"));  // each writing adds one of these
}

}  // namespace
