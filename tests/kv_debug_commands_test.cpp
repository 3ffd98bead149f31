#include "debug_commands.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

// The error, or "" when it goes to a worker.
std::string Check(const Arguments_t& vecArguments, bool bAllowed = true) {
  std::string strOut;
  const bool bGoes = CheckDebug(vecArguments, bAllowed, strOut);
  EXPECT_EQ(bGoes, strOut.empty());
  return strOut;
}

TEST(KvDebugCommandsTest, RefusedUnlessAllowedWhateverIsAsked) {
  const std::string strError =
      "-ERR DEBUG command not allowed. If the debug.commands option is set to \"yes\", you can run "
      "it, otherwise you need to set this option in the configuration file, and then restart the "
      "server.\r\n";
  EXPECT_EQ(strError, Check({"DEBUG", "SLEEP", "0"}, false));
  EXPECT_EQ(strError, Check({"DEBUG", "x"}, false));
  EXPECT_EQ(strError, Check({"DEBUG", "HELP"}, false));
}

TEST(KvDebugCommandsTest, SecondsAreFractionsUpToAnHour) {
  for (const char* pGood : {"0", "1", "0.25", ".5", "3600"}) {
    EXPECT_EQ("", Check({"DEBUG", "sleep", pGood})) << pGood;
  }
  for (const char* pBad : {"", "x", "-1", "-0.1", "1x", " 1", "1e3", "3600.1", "inf", "nan"}) {
    EXPECT_EQ("-ERR value is not a number of seconds from 0 to 3600\r\n",
              Check({"DEBUG", "SLEEP", pBad}))
        << pBad;
  }
}

TEST(KvDebugCommandsTest, OnlySleepIsKnown) {
  EXPECT_EQ("-ERR unknown subcommand 'x'. Try DEBUG HELP.\r\n", Check({"DEBUG", "x"}));
  EXPECT_EQ("-ERR wrong number of arguments for 'debug|sleep' command\r\n",
            Check({"DEBUG", "SLEEP"}));
}

TEST(KvDebugCommandsTest, SleepTakesItsTime) {
  std::string strOut;
  const auto stStart = std::chrono::steady_clock::now();
  RunDebug({"sleep", "0.05"}, strOut);
  const std::chrono::duration<double> stTime = std::chrono::steady_clock::now() - stStart;
  EXPECT_GE(stTime.count(), 0.05);
  EXPECT_EQ("+OK\r\n", strOut);
}

}  // namespace
