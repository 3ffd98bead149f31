#include "my_uuid.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>
#include <utility>

#include "test_support.h"

namespace {

const char TEXT[] = "f81d4fae-7dec-11d0-a765-00a0c91e6bf6";
unsigned char g_szBytes[16] = {0xf8, 0x1d, 0x4f, 0xae, 0x7d, 0xec, 0x11, 0xd0,
                               0xa7, 0x65, 0x00, 0xa0, 0xc9, 0x1e, 0x6b, 0xf6};

std::string Bytes(const MyUuid& stUuid) {
  return std::string(reinterpret_cast<const char*>(stUuid.Uuid()), 16);
}

const std::string EXPECTED_BYTES(reinterpret_cast<const char*>(g_szBytes), 16);

// xxxxxxxx-xxxx-4xxx-[89ab]xxx-xxxxxxxxxxxx in lower case.
bool LooksRandom(const std::string& strText) {
  std::string strShape = strText;
  for (char& c : strShape) {
    c = strchr("0123456789abcdef", c) != nullptr ? 'x' : c;
  }
  return strShape == "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" && strText[14] == '4' &&
         strchr("89ab", strText[19]) != nullptr;
}

TEST(MyUuidTest, NewUuidIsRandomAndItsTextSaysTheSame) {
  const MyUuid stUuid;
  EXPECT_TRUE(LooksRandom(stUuid.UuidString())) << stUuid.UuidString();
  EXPECT_EQ(Bytes(stUuid), Bytes(MyUuid(stUuid.UuidString(), 36)));
  EXPECT_STRNE(stUuid.UuidString(), MyUuid().UuidString());
}

TEST(MyUuidTest, NewUuidWithoutAnObject) {
  const std::string strFirst = MyUuid::NewUuid();
  EXPECT_TRUE(LooksRandom(strFirst)) << strFirst;
  EXPECT_NE(strFirst, MyUuid::NewUuid());
}

TEST(MyUuidTest, BytesGiveTheTextInLowerCase) {
  unsigned char szBytes[16];
  memcpy(szBytes, g_szBytes, 16);
  const MyUuid stUuid(szBytes);
  szBytes[0] = 0;  // the object has its own
  EXPECT_STREQ(TEXT, stUuid.UuidString());
  EXPECT_EQ(EXPECTED_BYTES, Bytes(stUuid));
}

TEST(MyUuidTest, TextGivesTheBytes) {
  const MyUuid stUuid(TEXT, 36);
  EXPECT_STREQ(TEXT, stUuid.UuidString());
  EXPECT_EQ(EXPECTED_BYTES, Bytes(stUuid));
}

TEST(MyUuidTest, UpperCaseTextIsKept) {
  const char szUpper[] = "F81D4FAE-7DEC-11D0-A765-00A0C91E6BF6";
  const MyUuid stUuid(szUpper, 36);
  EXPECT_STREQ(szUpper, stUuid.UuidString());
  EXPECT_EQ(EXPECTED_BYTES, Bytes(stUuid));
}

TEST(MyUuidTest, TextMayGoOnAfter36Characters) {
  const std::string strLong = std::string(TEXT) + "-and more";
  const MyUuid stUuid(strLong.c_str(), 36);
  EXPECT_STREQ(TEXT, stUuid.UuidString());
  EXPECT_EQ(EXPECTED_BYTES, Bytes(stUuid));
}

TEST(MyUuidTest, TextNeedNotEndWithNul) {
  char szText[36];
  memcpy(szText, TEXT, 36);
  EXPECT_STREQ(TEXT, MyUuid(szText, 36).UuidString());
}

TEST(MyUuidTest, UnparsableTextIsKeptAndNotReported) {
  const char szWrong[] = "not a uuid, but 36 characters long..";
  const MyUuid stUuid(szWrong, 36);
  EXPECT_STREQ(szWrong, stUuid.UuidString());
  EXPECT_EQ(std::string(16, '\0'), Bytes(stUuid));
}

TEST(MyUuidDeathTest, AnySizeBut36EndsTheProcess) {
  EXPECT_EXIT(MyUuid(TEXT, 35), ::testing::KilledBySignal(SIGABRT), "iSize == 36");
  EXPECT_EXIT(MyUuid(TEXT, 37), ::testing::KilledBySignal(SIGABRT), "iSize == 36");
}

TEST(MyUuidTest, CopiesCarryBothForms) {
  const MyUuid stUpper("F81D4FAE-7DEC-11D0-A765-00A0C91E6BF6", 36);
  const MyUuid stCopy(stUpper);
  MyUuid stAssigned;
  stAssigned = stUpper;
  for (const MyUuid* pUuid : {&stCopy, static_cast<const MyUuid*>(&stAssigned)}) {
    EXPECT_STREQ(stUpper.UuidString(), pUuid->UuidString());
    EXPECT_EQ(EXPECTED_BYTES, Bytes(*pUuid));
  }
}

TEST(MyUuidTest, SelfAssignmentChangesNothing) {
  MyUuid stUuid("F81D4FAE-7DEC-11D0-A765-00A0C91E6BF6", 36);
  MyUuid& stSelf = stUuid;
  EXPECT_EQ(&stUuid, &(stUuid = stSelf));
  EXPECT_STREQ("F81D4FAE-7DEC-11D0-A765-00A0C91E6BF6", stUuid.UuidString());
  EXPECT_EQ(EXPECTED_BYTES, Bytes(stUuid));
}

TEST(MyUuidTest, BytesCanBeAssigned) {
  MyUuid stUuid;
  EXPECT_EQ(&stUuid, &(stUuid = g_szBytes));
  EXPECT_STREQ(TEXT, stUuid.UuidString());
  EXPECT_EQ(EXPECTED_BYTES, Bytes(stUuid));
}

TEST(MyUuidTest, LessMeansDifferentInBothDirections) {
  const MyUuid stFirst("00000000-0000-4000-8000-000000000001", 36);
  const MyUuid stSecond("00000000-0000-4000-8000-000000000002", 36);
  EXPECT_TRUE(stFirst < stSecond);
  EXPECT_TRUE(stSecond < stFirst);
  EXPECT_FALSE(stFirst < stFirst);
}

TEST(MyUuidTest, LessComparesBytesAndNotText) {
  const MyUuid stLower(TEXT, 36);
  const MyUuid stUpper("F81D4FAE-7DEC-11D0-A765-00A0C91E6BF6", 36);
  EXPECT_FALSE(stLower < stUpper);
  EXPECT_FALSE(stUpper < stLower);
}

TEST(MyUuidTest, ForkedProcessesMakeDifferentOnes) {
  const PrivateDirectory stDirectory;
  MyUuid::NewUuid();  // whatever state the library keeps is inherited from here on
  std::set<std::string> setTexts = {MyUuid::NewUuid()};
  for (const char* pName : {"1", "2", "3"}) {
    const std::string strFile = stDirectory.File(pName);
    ForkedPeer stChild([&] {
      WriteFile(strFile, MyUuid().UuidString());
      return 0;
    });
    ASSERT_EQ(0, stChild.Wait());
    EXPECT_TRUE(LooksRandom(ReadFile(strFile)));
    setTexts.insert(ReadFile(strFile));
  }
  EXPECT_EQ(4u, setTexts.size());
}

TEST(MyUuidTest, DumpShowsTheText) {
  MyUuid stUuid(TEXT, 36);
  EXPECT_EQ("m_szUuidStr=\"" + std::string(TEXT) + "\"\n",
            CaptureDescriptor([&](int iFD) { stUuid.Dump(iFD); }));
}

}  // namespace
