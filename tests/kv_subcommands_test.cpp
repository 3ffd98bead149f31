#include "subcommands.h"

#include <gtest/gtest.h>

#include <set>

#include "reply.h"

namespace {

// The number of the chosen row, or the reply.
std::string Choose(CommandId_t eId, const Arguments_t& vecArguments) {
  std::string strOut;
  const Subcommand_t* pRow = ChooseSubcommand(eId, vecArguments, strOut);
  return pRow == nullptr ? strOut : pRow->stFull.pName;
}

TEST(KvSubcommandsTest, WordsAreChosenInAnyCase) {
  EXPECT_EQ("client|getname", Choose(CMD_CLIENT, {"CLIENT", "GetName"}));
  EXPECT_EQ("client|list", Choose(CMD_CLIENT, {"CLIENT", "list", "ID", "1", "2"}));
  EXPECT_EQ("config|get", Choose(CMD_CONFIG, {"CONFIG", "GET", "a", "b"}));
  EXPECT_EQ("command|info", Choose(CMD_COMMAND, {"COMMAND", "INFO"}));
  EXPECT_EQ("debug|sleep", Choose(CMD_DEBUG, {"DEBUG", "SLEEP", "1"}));
}

TEST(KvSubcommandsTest, NumbersOfArgumentsCountBothWords) {
  EXPECT_EQ("-ERR wrong number of arguments for 'client|id' command\r\n",
            Choose(CMD_CLIENT, {"CLIENT", "ID", "x"}));
  EXPECT_EQ("-ERR wrong number of arguments for 'client|kill' command\r\n",
            Choose(CMD_CLIENT, {"CLIENT", "KILL"}));
  EXPECT_EQ("-ERR wrong number of arguments for 'config|get' command\r\n",
            Choose(CMD_CONFIG, {"CONFIG", "GET"}));
}

TEST(KvSubcommandsTest, UnknownWordsNameTheCommandAsItWasAsked) {
  EXPECT_EQ("-ERR unknown subcommand 'foo'. Try CLIENT HELP.\r\n",
            Choose(CMD_CLIENT, {"client", "foo", "x"}));
  EXPECT_EQ("-ERR unknown subcommand 'ge'. Try SETTINGS HELP.\r\n",
            Choose(CMD_CONFIG, {"settings", "ge", "x"}));
  EXPECT_EQ("-ERR unknown subcommand '" + std::string(SHOWN_TEXT, 'x') + "'. Try CLIENT HELP.\r\n",
            Choose(CMD_CLIENT, {"client", std::string(SHOWN_TEXT + 1, 'x')}));
  EXPECT_EQ("-ERR unknown subcommand 'i'. Try CLIENT HELP.\r\n",
            Choose(CMD_CLIENT, {"client", std::string_view("i\0d", 3)}));
}

TEST(KvSubcommandsTest, HelpHasTwoLinesForEach) {
  const std::string strHelp = Choose(CMD_DEBUG, {"debug", "Help"});
  EXPECT_EQ(
      "*5\r\n+DEBUG <subcommand> [<arg> [value] [opt] ...]. Subcommands are:\r\n"
      "+SLEEP <seconds>\r\n+    Stall worker 0 for that time, fractions allowed.\r\n"
      "+HELP\r\n+    Prints this help.\r\n",
      strHelp);
  EXPECT_EQ("-ERR wrong number of arguments for 'client|help' command\r\n",
            Choose(CMD_CLIENT, {"CLIENT", "HELP", "x"}));
}

TEST(KvSubcommandsTest, ArgumentsAreLimited) {
  Arguments_t vecArguments{"CONFIG", "GET"};
  vecArguments.resize(MAX_SUBCOMMAND_ARGUMENTS, "x");
  EXPECT_EQ("config|get", Choose(CMD_CONFIG, vecArguments));
  vecArguments.push_back("x");
  EXPECT_EQ("-ERR more than 1024 arguments for a command with subcommands\r\n",
            Choose(CMD_CONFIG, vecArguments));
}

TEST(KvSubcommandsTest, FullNamesAreFound) {
  ASSERT_NE(nullptr, FindSubcommand("Client|List"));
  EXPECT_EQ(CLIENT_LIST, FindSubcommand("Client|List")->iId);
  for (const char* pName : {"", "|", "client", "client|", "client|x", "x|list", "get|x", "|list"}) {
    EXPECT_EQ(nullptr, FindSubcommand(pName)) << pName;
  }
}

TEST(KvSubcommandsTest, RowsBelongToTheirCommand) {
  for (const Command_t& stCommand : AllCommands()) {
    std::set<int> setIds;
    for (const Subcommand_t& stRow : SubcommandsOf(stCommand.eId)) {
      EXPECT_EQ(stCommand.eId, stRow.stFull.eId);
      EXPECT_TRUE(setIds.insert(stRow.iId).second);
      EXPECT_EQ(&stRow, FindSubcommand(stRow.stFull.pName)) << stRow.stFull.pName;
      EXPECT_STRNE("", stRow.pHelp);
    }
  }
  EXPECT_TRUE(SubcommandsOf(CMD_GET).empty());
}

}  // namespace
