#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <memory>
#include <random>
#include <string>

#include "long_action_util.h"
#include "test_support.h"

using namespace std::string_literals;

namespace {

struct FreeChain {
  void operator()(BIO* pChain) const { BIO_free_all(pChain); }
};
typedef std::unique_ptr<BIO, FreeChain> Chain_t;

// The reference: the text that the filter of libcrypto writes, less its last newline.
std::string EncodeByChain(const std::string& strBytes) {
  const Chain_t pChain(BIO_push(BIO_new(BIO_f_base64()), BIO_new(BIO_s_mem())));
  BIO_write(pChain.get(), strBytes.data(), static_cast<int>(strBytes.size()));
  BIO_flush(pChain.get());
  BUF_MEM* pMemory = nullptr;
  BIO_get_mem_ptr(pChain.get(), &pMemory);
  return std::string(pMemory->data, pMemory->length - 1);
}

std::string DecodeByChain(const std::string& strText) {
  const std::string strLines = strText + "\n";
  const Chain_t pChain(
      BIO_push(BIO_new(BIO_f_base64()),
               BIO_new_mem_buf(strLines.data(), static_cast<int>(strLines.size()))));
  std::string strBytes(strText.size() + 2, '\0');
  const int iCount = BIO_read(pChain.get(), strBytes.data(), static_cast<int>(strBytes.size()));
  return strBytes.substr(0, iCount < 0 ? 0 : static_cast<size_t>(iCount));
}

std::string RandomBytes(std::mt19937& stRandom, size_t iSize) {
  std::string strBytes(iSize, '\0');
  for (char& cByte : strBytes) {
    cByte = static_cast<char>(stRandom());
  }
  return strBytes;
}

TEST(LongActionEncodeTest, NothingIsNothing) {
  EXPECT_EQ("", LongActionMethod::Encode(""));
  EXPECT_EQ("", LongActionMethod::Decode(""));
}

TEST(LongActionEncodeTest, ShortTextsArePadded) {
  EXPECT_EQ("Zg==", LongActionMethod::Encode("f"));
  EXPECT_EQ("Zm8=", LongActionMethod::Encode("fo"));
  EXPECT_EQ("Zm9v", LongActionMethod::Encode("foo"));
  EXPECT_EQ("+/8A", LongActionMethod::Encode("\xfb\xff\0"s));
}

TEST(LongActionEncodeTest, FortyEightBytesAreOneLine) {
  const std::string strText = LongActionMethod::Encode(std::string(48, '\0'));
  EXPECT_EQ(std::string(64, 'A'), strText);
  EXPECT_EQ(std::string(48, '\0'), LongActionMethod::Decode(strText));
}

TEST(LongActionEncodeTest, FortyNineBytesAreTwoLines) {
  const std::string strText = LongActionMethod::Encode(std::string(49, '\0'));
  EXPECT_EQ(std::string(64, 'A') + "\nAA==", strText);
  EXPECT_EQ(std::string(49, '\0'), LongActionMethod::Decode(strText));
}

TEST(LongActionEncodeTest, WholeLinesEndWithoutNewline) {
  const std::string strLine(64, '/');
  EXPECT_EQ(strLine + "\n" + strLine + "\n" + strLine,
            LongActionMethod::Encode(std::string(144, '\xff')));
}

// What makes it right to do without the chain: a million random inputs either way, a quarter of
// them for each seed.
class FilterTest : public ::testing::TestWithParam<unsigned int> {
 protected:
  static const int INPUTS = 250000;
};

INSTANTIATE_TEST_SUITE_P(Seed, FilterTest, ::testing::Range(1u, 5u));

TEST_P(FilterTest, RandomInputsGiveItsText) {
  std::mt19937 stRandom(GetParam());
  for (int i = 0; i < INPUTS; ++i) {
    const std::string strBytes = RandomBytes(stRandom, 1 + stRandom() % 100);
    ASSERT_EQ(EncodeByChain(strBytes), LongActionMethod::Encode(strBytes)) << i;
  }
}

TEST(LongActionEncodeTest, LongInputsGiveTheTextOfTheFilter) {
  std::mt19937 stRandom(1);
  for (const size_t iSize : {1023u, 1024u, 1025u, 65535u, 65536u, 65537u, 3000001u}) {
    const std::string strBytes = RandomBytes(stRandom, iSize);
    EXPECT_TRUE(EncodeByChain(strBytes) == LongActionMethod::Encode(strBytes)) << iSize;
  }
}

TEST(LongActionDecodeTest, EveryLengthComesBack) {
  std::mt19937 stRandom(2);
  for (size_t iSize = 0; iSize < 2000; ++iSize) {
    const std::string strBytes = RandomBytes(stRandom, iSize);
    ASSERT_EQ(strBytes, LongActionMethod::Decode(LongActionMethod::Encode(strBytes))) << iSize;
  }
}

TEST(LongActionDecodeTest, LongTextComesBackWhole) {
  std::mt19937 stRandom(3);
  const std::string strBytes = RandomBytes(stRandom, 5000000);
  EXPECT_TRUE(strBytes == LongActionMethod::Decode(LongActionMethod::Encode(strBytes)));
}

TEST(LongActionDecodeTest, FinalNewlineDoesNotMatter) {
  EXPECT_EQ("foo", LongActionMethod::Decode("Zm9v\n"));
}

TEST(LongActionDecodeTest, WhatIsNoTextGivesNothingAndLeavesNoErrorBehind) {
  ERR_clear_error();
  for (const auto& strText : {"\n"s, "="s, "===="s, "!!!!"s, "\0\0\0\0"s, std::string(5000, '*'),
                              "no base64 in here\n"s}) {
    EXPECT_EQ("", LongActionMethod::Decode(strText)) << strText;
  }
  EXPECT_EQ(0u, ERR_peek_error());
}

TEST(LongActionDecodeTest, TextThatIsTooLongForTheFilterGivesNothing) {
  const size_t iSize = INT_MAX;
  if (static_cast<size_t>(sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGESIZE)) < 3 * iSize) {
    GTEST_SKIP() << "too little memory";
  }
  std::string strText(iSize, 'A');
  strText[0] = '=';  // not as Encode() writes it
  EXPECT_EQ("", LongActionMethod::Decode(strText));
}

// A character of the alphabet, of the lines' frame, or any.
char RandomCharacter(std::mt19937& stRandom) {
  const std::string strFrame = "A/+9==\n\n -\r\t";
  const size_t iChoice = stRandom() % (2 * strFrame.size());
  return iChoice < strFrame.size() ? strFrame[iChoice] : static_cast<char>(stRandom());
}

// Damages a text in up to three places, by changing, removing or doubling.
void Damage(std::mt19937& stRandom, std::string& strText) {
  for (size_t iFlaws = stRandom() % 4; iFlaws > 0 && !strText.empty(); --iFlaws) {
    const size_t iPlace = stRandom() % 2 == 0 ? strText.size() - 1 - stRandom() % strText.size() % 4
                                              : stRandom() % strText.size();
    switch (stRandom() % 3) {
      case 0:
        strText[iPlace] = RandomCharacter(stRandom);
        break;
      case 1:
        strText.erase(iPlace, 1 + stRandom() % 4);
        break;
      default:
        strText.insert(iPlace, 1 + stRandom() % 4, RandomCharacter(stRandom));
    }
  }
}

TEST_P(FilterTest, WholeAndDamagedTextsGiveItsBytes) {
  std::mt19937 stRandom(GetParam());
  for (int i = 0; i < INPUTS; ++i) {
    std::string strText = EncodeByChain(RandomBytes(stRandom, 1 + stRandom() % 120));
    Damage(stRandom, strText);
    ASSERT_EQ(DecodeByChain(strText), LongActionMethod::Decode(strText)) << i << ": " << strText;
  }
}

// The filter reads 1024 characters at a time; these texts are cut there up to nine times.
TEST_P(FilterTest, LongTextsWholeAndDamagedGiveItsBytes) {
  std::mt19937 stRandom(GetParam());
  for (int i = 0; i < 5000; ++i) {
    std::string strText = EncodeByChain(RandomBytes(stRandom, 1 + stRandom() % 7000));
    ASSERT_EQ(DecodeByChain(strText), LongActionMethod::Decode(strText)) << i;
    Damage(stRandom, strText);
    ASSERT_EQ(DecodeByChain(strText), LongActionMethod::Decode(strText)) << i;
  }
}

TEST(LongActionDecodeTest, TextsOfTwoLinesDamagedAnywhereGiveTheBytesOfTheFilter) {
  const std::string strWhole = EncodeByChain(std::string(50, 'x'));
  for (size_t iPlace = 0; iPlace < strWhole.size(); ++iPlace) {
    for (int iByte = 0; iByte < 256; ++iByte) {
      std::string strText = strWhole;
      strText[iPlace] = static_cast<char>(iByte);
      ASSERT_EQ(DecodeByChain(strText), LongActionMethod::Decode(strText)) << strText;
    }
  }
}

// ---- Writing

typedef int (*EncodeTo_t)(const std::string&);
typedef std::pair<int, EncodeTo_t> Target_t;

const size_t LONG_BYTES = 10000;
const int LONG_TEXT = 13544;  // 3334 groups of 4 characters, 208 newlines

class EncodeToTest : public ::testing::TestWithParam<Target_t> {
 protected:
  int FD() const { return GetParam().first; }
  int Encode(const std::string& strBytes) const { return GetParam().second(strBytes); }

  // Encodes LONG_BYTES while the descriptor is iTarget.
  int EncodeLong(int iTarget) const {
    const int iSaved = dup(FD());
    dup2(iTarget, FD());
    const int iResult = Encode(std::string(LONG_BYTES, '\0'));
    dup2(iSaved, FD());
    close(iSaved);
    return iResult;
  }
};

TEST_P(EncodeToTest, WritesTheTextAloneAndReturnsItsLength) {
  int iResult = 0;
  EXPECT_EQ(std::string(64, 'A') + "\nAA==",
            CaptureOutput(FD(), [&] { iResult = Encode(std::string(49, '\0')); }));
  EXPECT_EQ(69, iResult);
}

// A datagram socket keeps the bounds of each write.
TEST_P(EncodeToTest, WritesOnce) {
  int arrSockets[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, arrSockets));
  EXPECT_EQ(LONG_TEXT, EncodeLong(arrSockets[0]));
  std::string strText(20000, '\0');
  EXPECT_EQ(LONG_TEXT, recv(arrSockets[1], strText.data(), strText.size(), MSG_DONTWAIT));
  EXPECT_EQ(-1, recv(arrSockets[1], strText.data(), strText.size(), MSG_DONTWAIT));
  close(arrSockets[0]);
  close(arrSockets[1]);
}

TEST_P(EncodeToTest, ShortWriteIsNotTold) {
  int arrPipe[2];
  ASSERT_EQ(0, pipe2(arrPipe, O_NONBLOCK | O_CLOEXEC));
  const int iRoom = fcntl(arrPipe[1], F_SETPIPE_SZ, 4096);
  EXPECT_EQ(LONG_TEXT, EncodeLong(arrPipe[1]));
  std::string strText(20000, '\0');
  EXPECT_EQ(iRoom, read(arrPipe[0], strText.data(), strText.size()));
  EXPECT_EQ(-1, read(arrPipe[0], strText.data(), strText.size()));
  close(arrPipe[0]);
  close(arrPipe[1]);
}

TEST_P(EncodeToTest, ClosedDescriptorIsNotTold) {
  ForkedPeer stPeer([this] {
    close(FD());
    return Encode("foo");
  });
  EXPECT_EQ(4, stPeer.Wait());
}

INSTANTIATE_TEST_SUITE_P(Descriptors, EncodeToTest,
                         ::testing::Values(Target_t(1, LongActionMethod::EncodeToStdout),
                                           Target_t(2, LongActionMethod::EncodeToStderr)),
                         [](const auto& stInfo) {
                           return stInfo.param.first == 1 ? "Stdout" : "Stderr";
                         });

}  // namespace
