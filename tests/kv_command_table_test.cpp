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
  EXPECT_EQ(static_cast<size_t>(CMD_COUNT), setIds.size());
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

TEST(KvCommandTableTest, NamesMayBeSwappedAndGivenBack) {
  RenameCommands({{"get", "set"}, {"set", "get"}, {"incr", "count-one-up"}});
  EXPECT_EQ(CMD_SET, FindCommand("GET")->eId);
  EXPECT_EQ(CMD_GET, FindCommand("set")->eId);
  EXPECT_EQ(CMD_INCR, FindCommand("Count-One-Up")->eId);
  EXPECT_STREQ("count-one-up", FindCommand("count-one-up")->pName);
  EXPECT_EQ(nullptr, FindCommand("incr"));
  RenameCommands({{"get", "set"}, {"set", "get"}, {"count-one-up", "incr"}});
  EXPECT_EQ(CMD_GET, FindCommand("get")->eId);
  EXPECT_EQ(CMD_INCR, FindCommand("incr")->eId);
}

TEST(KvCommandTableTest, WhatWasFoundLatestIsNotRememberedOverANewName) {
  EXPECT_EQ(CMD_INCR, FindCommand("incr")->eId);
  RenameCommands({{"incr", "count"}});
  EXPECT_EQ(nullptr, FindCommand("incr"));
  RenameCommands({{"count", "incr"}});
  EXPECT_EQ(CMD_INCR, FindCommand("incr")->eId);
}

TEST(KvCommandTableTest, NewNamesAreUniqueAndForKnownCommands) {
  EXPECT_EQ("", CheckCommandNames({{"get", "set"}, {"set", "get"}}));
  EXPECT_EQ("", CheckCommandNames({{"get", ""}, {"set", ""}, {"incr", std::string(64, 'i')}}));
  EXPECT_EQ("command \"gut\": there is no such command", CheckCommandNames({{"gut", ""}}));
  EXPECT_EQ("command \"get\" as \"set\": the new name is another command's",
            CheckCommandNames({{"get", "set"}}));
  EXPECT_EQ("command \"set\" as \"x\": the new name is another command's",
            CheckCommandNames({{"get", "x"}, {"set", "x"}}));
  EXPECT_EQ("command \"get\" as \"" + std::string(65, 'g') +
                "\": the new name is longer than 64 characters",
            CheckCommandNames({{"get", std::string(65, 'g')}}));
}

}  // namespace
