#include "command_table.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

TEST(KvCommandTableTest, NamesAreFoundInAnyCase) {
  ASSERT_NE(nullptr, FindCommand("get"));
  EXPECT_EQ(CMD_GET, FindCommand("get")->eId);
  EXPECT_EQ(FindCommand("get"), FindCommand("GET"));
  EXPECT_EQ(FindCommand("get"), FindCommand("gEt"));
}

TEST(KvCommandTableTest, WholeNamesOnly) {
  for (const std::string strName : {"", "g", "gett", "get ", "nosuch", "flushallflushall"}) {
    EXPECT_EQ(nullptr, FindCommand(strName)) << strName;
  }
  EXPECT_EQ(nullptr, FindCommand(std::string("get\0", 4)));
  EXPECT_EQ(nullptr, FindCommand(std::string(1 << 20, 'g')));
  EXPECT_EQ(nullptr, FindCommand("\xff\xfe"));
}

TEST(KvCommandTableTest, EveryCommandIsFoundUnderItsNameAndHasItsOwnNumber) {
  std::set<int> setIds;
  for (const Command_t& stCommand : AllCommands()) {
    EXPECT_EQ(&stCommand, FindCommand(stCommand.pName)) << stCommand.pName;
    EXPECT_TRUE(setIds.insert(stCommand.eId).second) << stCommand.pName;
  }
  EXPECT_EQ(static_cast<size_t>(CMD_INFO) + 1, setIds.size());
}

TEST(KvCommandTableTest, ArityIsExactOrAtLeast) {
  const Command_t& stGet = *FindCommand("get");  // 2
  EXPECT_FALSE(ArityMatches(stGet, 1));
  EXPECT_TRUE(ArityMatches(stGet, 2));
  EXPECT_FALSE(ArityMatches(stGet, 3));
  const Command_t& stDel = *FindCommand("del");  // -2
  EXPECT_FALSE(ArityMatches(stDel, 1));
  EXPECT_TRUE(ArityMatches(stDel, 2));
  EXPECT_TRUE(ArityMatches(stDel, 1000));
}

TEST(KvCommandTableTest, CommandsOfTheWorkersHaveTheKeysThatTheirRouteReads) {
  for (const Command_t& stCommand : AllCommands()) {
    const int iLeast = stCommand.iArity < 0 ? -stCommand.iArity : stCommand.iArity;
    const bool bKeys = stCommand.eRoute == ROUTE_ONE_KEY || stCommand.eRoute == ROUTE_KEYS;
    EXPECT_GE(iLeast, bKeys ? 2 : 1) << stCommand.pName;
    EXPECT_GE(iLeast, stCommand.eRoute == ROUTE_PAIRS ? 3 : 1) << stCommand.pName;
  }
}

}  // namespace
