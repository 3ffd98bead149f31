#include "log.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <type_traits>

#include "log_test_support.h"

namespace {

bool g_bNoZoneFile = false;

}  // namespace

// Stands before the C library's: its first call in a process leaves ENOENT behind when there is no
// file for the time zone.
extern "C" tm* localtime_r(const time_t* pTime, tm* pLocal) noexcept {
  static const auto pNext =
      reinterpret_cast<decltype(&localtime_r)>(dlsym(RTLD_NEXT, "localtime_r"));
  tm* const pResult = pNext(pTime, pLocal);
  errno = g_bNoZoneFile ? ENOENT : errno;
  return pResult;
}

namespace {

namespace fs = std::filesystem;

typedef LogTest LogLevelTest;
typedef LogTest LogLineTest;

// Calls one of the forms that take an argument list.
typedef void (Log::*ListForm_t)(const char*, va_list);
void CallListForm(Log& stLog, ListForm_t pForm, const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  (stLog.*pForm)(pFormat, sAp);
  va_end(sAp);
}

__attribute__((format(printf, 5, 6))) void CallBinaryListForm(Log& stLog, Log::LOG_LEVEL eLevel,
                                                              const char* pData, unsigned int iSize,
                                                              const char* pFormat, ...) {
  va_list sAp;
  va_start(sAp, pFormat);
  stLog.vBinaryLog(eLevel, pData, iSize, pFormat, sAp);
  va_end(sAp);
}

// ---- levels

TEST_F(LogLevelTest, LevelsAndTheirNamesAreInOrder) {
  const char* const apNames[] = {"NET", "DEBUG", "INFORMATION", "WARNING", "ERROR", "STAT", "NONE"};
  for (int i = 0; i < 7; ++i) {
    const auto eLevel = static_cast<Log::LOG_LEVEL>(i);
    EXPECT_EQ(eLevel, Log::LEVEL_NAME_MAPPING[i].eLevel);
    EXPECT_STREQ(apNames[i], Log::LEVEL_NAME_MAPPING[i].pName);
    EXPECT_STREQ(apNames[i], Log::LogLevelConvert(eLevel));
    EXPECT_EQ(eLevel, Log::LogLevelConvert(apNames[i]));
  }
  EXPECT_EQ(2, Log::LL_INFO);
  EXPECT_EQ(6, Log::LL_NONE);
}

TEST_F(LogLevelTest, ValueOutsideTheTableHasNoName) {
  EXPECT_EQ(nullptr, Log::LogLevelConvert(static_cast<Log::LOG_LEVEL>(7)));
  EXPECT_EQ(nullptr, Log::LogLevelConvert(static_cast<Log::LOG_LEVEL>(-1)));
}

TEST_F(LogLevelTest, NameIsTakenInAnyCaseButOnlyWhole) {
  EXPECT_EQ(Log::LL_INFO, Log::LogLevelConvert("information"));
  EXPECT_EQ(Log::LL_WARNING, Log::LogLevelConvert("wArNiNg"));
  for (const char* pName : {"INFO", "", "WARN", "ERRORS", "2"}) {
    EXPECT_EQ(Log::LL_NONE, Log::LogLevelConvert(pName)) << pName;
  }
}

TEST_F(LogLevelTest, LevelIsSetByValueAndByName) {
  EXPECT_EQ(Log::LL_DEBUG, m_stLog.GetLevel());
  m_stLog.SetLevel(Log::LL_STAT);
  EXPECT_EQ(Log::LL_STAT, m_stLog.GetLevel());
  m_stLog.SetLevel("warning");
  EXPECT_EQ(Log::LL_WARNING, m_stLog.GetLevel());
}

TEST_F(LogLevelTest, LineBelowTheLevelDoesNothingAtAll) {
  m_stLog.SetLevel(Log::LL_WARNING);
  m_stLog.Info("lost");
  m_stLog.WriteLog(Log::LL_NET, "lost");
  m_stLog.BinaryLog(Log::LL_DEBUG, "data", 4, "lost");
  EXPECT_FALSE(fs::exists(m_strPath));
  EXPECT_EQ(-1, m_stLog.FD());
}

TEST_F(LogLevelTest, LineAtTheLevelIsWritten) {
  m_stLog.SetLevel(Log::LL_WARNING);
  m_stLog.Warning("kept");
  m_stLog.Error("kept too");
  EXPECT_EQ((Lines_t{"[WARNING] kept", "[ERROR] kept too"}), MessagesOf(File("000")));
}

TEST_F(LogLevelTest, UnknownNameSilencesAllButNone) {
  m_stLog.SetLevel("INFO");
  m_stLog.Stat("lost");
  m_stLog.WriteLog(Log::LL_NONE, "kept");
  EXPECT_EQ((Lines_t{"[NONE] kept"}), MessagesOf(File("000")));
}

// ---- settings

TEST_F(LogTest, IsAnObjectThatCanNotBeCopied) {
  EXPECT_TRUE((std::is_base_of_v<Object, Log>));
  EXPECT_FALSE(std::is_copy_constructible_v<Log>);
  EXPECT_FALSE(std::is_copy_assignable_v<Log>);
}

TEST_F(LogTest, DumpShowsTheDefaults) {
  Log stLog;
  EXPECT_EQ(
      "m_strPath.c_str()=\"/var/log/zelk\"\n"
      "m_strPrefix.c_str()=\"undefined_\"\n"
      "m_strSuffix.c_str()=\".log\"\n"
      "m_iMaxSize=\"104857600\"\n"
      "m_iFD=\"-1\"\n"
      "LogLevelConvert(m_eLevel)=\"DEBUG\"\n",
      CaptureDescriptor([&](int iFD) { stLog.Dump(iFD); }));
}

TEST_F(LogTest, DumpShowsWhatWasSet) {
  m_stLog.SetPrefix("p");
  m_stLog.SetSuffix(".s");
  m_stLog.SetMaxSize(18446744073709551615ULL);
  m_stLog.SetLevel(Log::LL_INFO);
  m_stLog.Info("opens");
  EXPECT_EQ("m_strPath.c_str()=\"" + m_strPath +
                "\"\nm_strPrefix.c_str()=\"p\"\nm_strSuffix.c_str()=\".s\"\n"
                "m_iMaxSize=\"18446744073709551615\"\nm_iFD=\"" +
                std::to_string(m_stLog.FD()) + "\"\nLogLevelConvert(m_eLevel)=\"INFORMATION\"\n",
            CaptureDescriptor([&](int iFD) { m_stLog.Dump(iFD); }));
}

TEST_F(LogTest, AccessorsGiveWhatWasSet) {
  m_stLog.SetPrefix("p");
  m_stLog.SetSuffix("s");
  EXPECT_EQ(m_strPath, m_stLog.GetPath());
  EXPECT_EQ("p", m_stLog.GetPrefix());
  EXPECT_EQ("s", m_stLog.GetSuffix());
}

TEST_F(LogTest, DestructorClosesTheFile) {
  const int iBefore = OpenDescriptors();
  {
    Log stLog;
    stLog.SetPath(m_strPath);
    stLog.Info("x");
    EXPECT_EQ(iBefore + 1, OpenDescriptors());
  }
  EXPECT_EQ(iBefore, OpenDescriptors());
}

// ---- lines

TEST_F(LogLineTest, HasTimeLevelBlankAndMessage) {
  m_stLog.Info("hello %d", 7);
  const Lines_t vecLines = LinesOf(File("000"));
  ASSERT_EQ(1u, vecLines.size());
  int iMilliseconds = -1;
  tm stTime{};
  const char* pRest = strptime(vecLines[0].c_str(), "[%Y-%m-%d %H:%M:%S", &stTime);
  ASSERT_NE(nullptr, pRest) << vecLines[0];
  EXPECT_EQ(1, sscanf(pRest, ",%3d]", &iMilliseconds));
  EXPECT_EQ("][INFORMATION] hello 7", vecLines[0].substr(TIME_SIZE - 1));
  EXPECT_EQ('\n', ReadFile(File("000")).back());
}

TEST_F(LogLineTest, ShorthandsWriteTheirLevels) {
  m_stLog.Debug("%s", "a");
  m_stLog.Info("%s", "b");
  m_stLog.Warning("%s", "c");
  m_stLog.Error("%s", "d");
  m_stLog.Stat("%s", "e");
  EXPECT_EQ((Lines_t{"[DEBUG] a", "b", "[WARNING] c", "[ERROR] d", "[STAT] e"}),
            MessagesOf(File("000")));
}

TEST_F(LogLineTest, ListFormsWriteTheirLevels) {
  const ListForm_t aForms[] = {&Log::vDebug, &Log::vInfo, &Log::vWarning, &Log::vError,
                               &Log::vStat};
  for (const ListForm_t pForm : aForms) {
    CallListForm(m_stLog, pForm, "%d%s", 4, "u");
  }
  EXPECT_EQ((Lines_t{"[DEBUG] 4u", "4u", "[WARNING] 4u", "[ERROR] 4u", "[STAT] 4u"}),
            MessagesOf(File("000")));
}

TEST_F(LogLineTest, WriteLogTakesAnyLevel) {
  m_stLog.SetLevel(Log::LL_NET);
  m_stLog.WriteLog(Log::LL_NET, "%d", 1);
  m_stLog.WriteLog(Log::LL_NONE, "%d", 2);
  EXPECT_EQ((Lines_t{"[NET] 1", "[NONE] 2"}), MessagesOf(File("000")));
}

TEST_F(LogLineTest, LevelWithoutANameIsWrittenWithoutHarm) {
  m_stLog.WriteLog(static_cast<Log::LOG_LEVEL>(7), "%d", 1);
  EXPECT_EQ((Lines_t{"[(null)] 1"}), MessagesOf(File("000")));
}

TEST_F(LogLineTest, EmptyMessageLeavesTheHead) {
  m_stLog.Info("%s", "");
  EXPECT_EQ(TIME_SIZE + strlen(INFO_HEAD) + 1, ReadFile(File("000")).size());
}

TEST_F(LogLineTest, LineIsCutAtItsBuffer) {
  const size_t iHeadSize = TIME_SIZE + strlen(INFO_HEAD);
  const std::string strFits(1023 - iHeadSize, 'x');
  m_stLog.Info("%s", strFits.c_str());
  m_stLog.Info("%sy", strFits.c_str());
  m_stLog.SetLineBufferSize(static_cast<unsigned int>(iHeadSize) + 4);
  m_stLog.Info("abc");
  m_stLog.Info("abcd");
  EXPECT_EQ((Lines_t{strFits, strFits, "abc", "abc"}), MessagesOf(File("000")));
}

TEST_F(LogLineTest, LargerBufferTakesLongerLines) {
  const std::string strLong(100000, 'x');
  m_stLog.SetLineBufferSize(200000);
  m_stLog.Info("%s", strLong.c_str());
  EXPECT_EQ((Lines_t{strLong}), MessagesOf(File("000")));
}

TEST_F(LogLineTest, HeadMayFillTheBuffer) {
  for (unsigned int iSize : {0u, 1u, 2u, 11u, 39u, 40u}) {
    m_stLog.SetLineBufferSize(iSize);
    m_stLog.Info("message");
  }
  const Lines_t vecLines = LinesOf(File("000"));
  ASSERT_EQ(6u, vecLines.size());
  EXPECT_EQ("", vecLines[0]);
  EXPECT_EQ("", vecLines[1]);
  EXPECT_EQ("[", vecLines[2]);
  EXPECT_EQ(10u, vecLines[3].size());
  EXPECT_EQ("[INFORMATION]", vecLines[4].substr(TIME_SIZE));
  EXPECT_EQ("[INFORMATION] ", vecLines[5].substr(TIME_SIZE));
}

TEST_F(LogLineTest, MessageEndsAtItsFirstNul) {
  m_stLog.Info("a%cb", '\0');
  EXPECT_EQ((Lines_t{"a"}), MessagesOf(File("000")));
}

TEST_F(LogLineTest, CallersErrnoIsShownAndKept) {
  for (int i = 0; i < 2; ++i) {  // the first line makes directory and file
    errno = ENOTEMPTY;
    CallListForm(m_stLog, &Log::vInfo, "%m");
    EXPECT_EQ(ENOTEMPTY, errno);
  }
  EXPECT_EQ((Lines_t{"Directory not empty", "Directory not empty"}), MessagesOf(File("000")));
}

TEST_F(LogLineTest, CallersErrnoIsShownAlsoWhereTheZoneHasNoFile) {
  SetZone("AAA0");
  const std::string strFile = File("000");
  m_stLog.Info("opens");
  SetZone("BBB1");  // the next line asks for the local time again
  g_bNoZoneFile = true;
  errno = ENOTEMPTY;
  CallListForm(m_stLog, &Log::vInfo, "%m");
  g_bNoZoneFile = false;
  EXPECT_EQ("Directory not empty", MessagesOf(strFile).back());
}

TEST_F(LogLineTest, TextAndNewlineAreOneWrite) {
  int aiPair[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, aiPair));
  m_stLog.Info("opens");
  ASSERT_NE(-1, dup2(aiPair[0], m_stLog.FD()));
  m_stLog.BinaryLog(Log::LL_INFO, "A", 1, "one");
  char szPacket[256];
  const auto strPacket = [&] {
    const ssize_t iSize = recv(aiPair[1], szPacket, sizeof(szPacket), MSG_DONTWAIT);
    return iSize < 0 ? std::string("none") : std::string(szPacket, static_cast<size_t>(iSize));
  };
  EXPECT_EQ("[INFORMATION] one\n", strPacket().substr(TIME_SIZE));
  EXPECT_EQ("     00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F\n", strPacket());
  EXPECT_EQ("0000 41" + std::string(47, ' ') + "A\n", strPacket());
  EXPECT_EQ("none", strPacket());
  close(aiPair[0]);
  close(aiPair[1]);
}

TEST_F(LogLineTest, FullDiskLosesLinesSilently) {
  fs::create_directories(m_strPath);
  fs::create_symlink("/dev/full", File("000"));
  errno = 0;
  m_stLog.Info("lost");
  EXPECT_EQ(0, errno);
  EXPECT_NE(-1, m_stLog.FD());
}

// ---- dumps

class LogDumpTest : public LogTest {
 protected:
  // What a dump of these bytes puts behind the line itself.
  std::string DumpedAs(const std::string& strData) {
    m_stLog.BinaryLog(Log::LL_INFO, strData.data(), static_cast<unsigned int>(strData.size()), "x");
    const std::string strText = ReadFile(File("000"));
    return strText.substr(strText.find('\n') + 1);
  }
};

TEST_F(LogDumpTest, TwentyBytesAreTwoRows) {
  EXPECT_EQ(
      "     00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F\n"
      "0000 61 62 63 64 65 66 67 68 69 6A 6B 6C 6D 6E 6F 70  abcdefghijklmnop\n"
      "0001 71 72 73 0A                                      qrs.\n",
      DumpedAs("abcdefghijklmnopqrs\n"));
}

TEST_F(LogDumpTest, SixteenBytesHaveNoEmptyRowBehindThem) {
  EXPECT_EQ(
      "     00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F\n"
      "0000 30 31 32 33 34 35 36 37 38 39 41 42 43 44 45 46  0123456789ABCDEF\n",
      DumpedAs("0123456789ABCDEF"));
}

TEST_F(LogDumpTest, SeventeenBytesBeginTheNextRow) {
  const std::string strDump = DumpedAs("0123456789ABCDEFG");
  EXPECT_EQ("0001 47" + std::string(47, ' ') + "G\n", strDump.substr(53 + 71));
}

TEST_F(LogDumpTest, BytesAreUnsignedAndShownWhenPrintable) {
  const std::string strDump = DumpedAs(std::string("\x00\x1F\x20\x7E\x7F\x80\xFF", 7));
  EXPECT_EQ("0000 00 1F 20 7E 7F 80 FF" + std::string(29, ' ') + ".. ~...\n", strDump.substr(53));
}

TEST_F(LogDumpTest, NoBytesOrNoDataGiveNoDump) {
  m_stLog.BinaryLog(Log::LL_INFO, "data", 0, "a");
  m_stLog.BinaryLog(Log::LL_INFO, nullptr, 4, "b");
  EXPECT_EQ((Lines_t{"a", "b"}), MessagesOf(File("000")));
}

TEST_F(LogDumpTest, SmallLineBufferCutsTheLineButNoRow) {
  m_stLog.SetLineBufferSize(1);
  const std::string strDump = DumpedAs("abcdefghijklmnop");
  EXPECT_EQ("0000 61 62 63 64 65 66 67 68 69 6A 6B 6C 6D 6E 6F 70  abcdefghijklmnop\n",
            strDump.substr(53));
}

TEST_F(LogDumpTest, ListFormDumpsToo) {
  CallBinaryListForm(m_stLog, Log::LL_ERROR, "A", 1, "n=%d", 3);
  const Lines_t vecLines = LinesOf(File("000"));
  ASSERT_EQ(3u, vecLines.size());
  EXPECT_EQ("[ERROR] n=3", vecLines[0].substr(TIME_SIZE));
  EXPECT_EQ("0000 41", vecLines[2].substr(0, 7));
}

TEST_F(LogDumpTest, LabelBeyondFourDigitsRunsIntoTheFirstByte) {
  DumpedAs(std::string(0x10001 * 16, 'A'));
  const Lines_t vecLines = LinesOf(File("000"));
  ASSERT_EQ(size_t{2} + 0x10001, vecLines.size());
  EXPECT_EQ("FFFF 41 41", vecLines[2 + 0xFFFF].substr(0, 10));
  EXPECT_EQ("1000041 41", vecLines[2 + 0x10000].substr(0, 10));
}

}  // namespace
