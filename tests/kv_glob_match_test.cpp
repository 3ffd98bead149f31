#include "glob_match.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(KvGlobMatchTest, PlainTextMatchesItself) {
  EXPECT_TRUE(GlobMatch("", ""));
  EXPECT_TRUE(GlobMatch("abc", "abc"));
  EXPECT_FALSE(GlobMatch("abc", "ab"));
  EXPECT_FALSE(GlobMatch("ab", "abc"));
  EXPECT_FALSE(GlobMatch("", "a"));
  EXPECT_FALSE(GlobMatch("ABC", "abc"));
}

TEST(KvGlobMatchTest, AStarTakesAnything) {
  for (const char* pText : {"", "a", "abc"}) {
    EXPECT_TRUE(GlobMatch("*", pText)) << pText;
    EXPECT_TRUE(GlobMatch("***", pText)) << pText;
  }
  EXPECT_TRUE(GlobMatch("a*c", "ac"));
  EXPECT_TRUE(GlobMatch("a*c", "abcc"));
  EXPECT_TRUE(GlobMatch("*b*d*", "abcde"));
  EXPECT_FALSE(GlobMatch("a*c", "acb"));
  EXPECT_FALSE(GlobMatch("*b*a", "abcd"));
  EXPECT_TRUE(GlobMatch("*aab", "aaaab"));
}

TEST(KvGlobMatchTest, AQuestionMarkTakesOneByte) {
  EXPECT_TRUE(GlobMatch("a?c", "abc"));
  EXPECT_FALSE(GlobMatch("a?c", "ac"));
  EXPECT_FALSE(GlobMatch("?", ""));
  EXPECT_TRUE(GlobMatch("?*", "\xff"));
}

TEST(KvGlobMatchTest, SetsAndRanges) {
  EXPECT_TRUE(GlobMatch("h[ae]llo", "hallo"));
  EXPECT_FALSE(GlobMatch("h[ae]llo", "hillo"));
  EXPECT_TRUE(GlobMatch("[a-c]", "b"));
  EXPECT_FALSE(GlobMatch("[a-c]", "d"));
  EXPECT_TRUE(GlobMatch("[c-a]", "b")) << "either way round";
  EXPECT_TRUE(GlobMatch("[^a]", "b"));
  EXPECT_FALSE(GlobMatch("[^a-c]", "b"));
  EXPECT_TRUE(GlobMatch("[\x80-\xff]", "\x90"));
  EXPECT_FALSE(GlobMatch("[a]", ""));
}

TEST(KvGlobMatchTest, SetsAtTheirEdges) {
  EXPECT_FALSE(GlobMatch("[]", "a")) << "an empty set";
  EXPECT_TRUE(GlobMatch("[^]", "a"));
  EXPECT_TRUE(GlobMatch("[a-]", "^")) << "a range up to the bracket, and an open set";
  EXPECT_FALSE(GlobMatch("[a-]", "-"));
  EXPECT_TRUE(GlobMatch("[-a]", "-"));
  EXPECT_TRUE(GlobMatch("[\\]]", "]"));
  EXPECT_TRUE(GlobMatch("[ab", "b")) << "an open set ends with the pattern";
  EXPECT_FALSE(GlobMatch("[ab", "bc"));
  EXPECT_FALSE(GlobMatch("[", "["));
}

TEST(KvGlobMatchTest, ABackslashTakesTheNextByteAsItStands) {
  EXPECT_TRUE(GlobMatch("\\*", "*"));
  EXPECT_FALSE(GlobMatch("\\*", "a"));
  EXPECT_TRUE(GlobMatch("a\\?b", "a?b"));
  EXPECT_TRUE(GlobMatch("\\a", "a"));
  EXPECT_TRUE(GlobMatch("a\\", "a\\")) << "at the end it stands for itself";
}

TEST(KvGlobMatchTest, ZeroBytesAreBytes) {
  EXPECT_TRUE(GlobMatch(std::string("a\0b", 3), std::string("a\0b", 3)));
  EXPECT_FALSE(GlobMatch("a", std::string("a\0", 2)));
}

// One that backs up to every star would take longer than the universe has been there.
TEST(KvGlobMatchTest, ManyStarsTakeNoTime) {
  std::string strPattern;
  for (int i = 0; i < 50; ++i) {
    strPattern += "a*";
  }
  EXPECT_FALSE(GlobMatch(strPattern + "b", std::string(10000, 'a')));
}

}  // namespace
