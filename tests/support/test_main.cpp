#include <gtest/gtest.h>

#include "test_janitor.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (GTEST_FLAG_GET(list_tests)) {
    return RUN_ALL_TESTS();
  }
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  StartJanitor();
  return RUN_ALL_TESTS();
}
