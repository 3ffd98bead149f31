#include "io_event.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "test_support.h"

namespace {

TEST(IoEventTest, OperationsDoNothingAndSucceed) {
  int aPipe[2];
  ASSERT_EQ(0, pipe(aPipe));
  ASSERT_EQ(1, write(aPipe[1], "x", 1));
  IoEvent stEvent;
  EXPECT_EQ(0, stEvent.AddFd(aPipe[0], 1));
  int aReady[1] = {-5};
  EXPECT_EQ(0, stEvent.Wait(-1, aReady, 1));
  EXPECT_EQ(-5, aReady[0]);
  EXPECT_EQ(0, stEvent.RemoveFd(aPipe[0]));
  EXPECT_EQ(0, stEvent.RemoveFd(-1));
  char cByte = 0;
  EXPECT_EQ(1, read(aPipe[0], &cByte, 1));
  close(aPipe[0]);
  close(aPipe[1]);
}

TEST(IoEventTest, DumpWritesNothing) {
  IoEvent stEvent;
  stEvent.AddFd(0, 1);
  Object& stObject = stEvent;
  EXPECT_EQ("", CaptureDescriptor([&](int iFD) { stObject.Dump(iFD); }));
}

}  // namespace
