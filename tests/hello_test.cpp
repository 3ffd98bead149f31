#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "test_support.h"

namespace {

TEST(HelloTest, TheReadmesProgramPassesItsMessageAndLeavesNothing) {
  const PrivateDirectory stDirectory;
  const std::string strCommand = std::string(HELLO_PROGRAM) + " " + stDirectory.Path();
  FILE* pOutput = popen(strCommand.c_str(), "r");
  ASSERT_NE(nullptr, pOutput);
  char szLine[256] = "";
  ASSERT_NE(nullptr, fgets(szLine, sizeof(szLine), pOutput));
  EXPECT_EQ(0, pclose(pOutput));
  EXPECT_STREQ("worker got: hello, worker\n", szLine);
  EXPECT_NE(0, access(stDirectory.File("queue").c_str(), F_OK));
}

}  // namespace
