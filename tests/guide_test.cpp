#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/stat.h>

#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "mysql_server_fixture.h"
#include "test_support.h"

// The pages of docs/guide: what they show of a program is its source, and what they show of its
// output is what it prints.

namespace {

struct Guide_t {
  const char* pPage;
  const char* pProgram;
};

// For the names in the list of tests.
void PrintTo(const Guide_t& stGuide, std::ostream* pStream) { *pStream << stGuide.pPage; }

// The block in a page that a fence of this kind begins, the first behind the program's name.
std::string Block(const Guide_t& stGuide, const std::string& strKind) {
  const std::string strPage = ReadFile(std::string(GUIDE_PAGES) + "/" + stGuide.pPage + ".md");
  const std::string strFence = "\n```" + strKind + "\n";
  size_t iBegin = strPage.find("guide/" + std::string(stGuide.pProgram) + ".cpp");
  iBegin = strPage.find(strFence, iBegin);
  if (iBegin == std::string::npos) {
    return "there is no such block";
  }
  iBegin += strFence.size();
  return strPage.substr(iBegin, strPage.find("\n```", iBegin) + 1 - iBegin);
}

std::string Output(const Guide_t& stGuide, const std::string& strArguments) {
  const std::string strCommand =
      std::string(GUIDE_PROGRAMS) + "/guide_" + stGuide.pProgram + " " + strArguments;
  FILE* pOutput = popen(strCommand.c_str(), "r");
  std::string strText;
  for (char szLine[256]; fgets(szLine, sizeof(szLine), pOutput) != nullptr;) {
    strText += szLine;
  }
  EXPECT_EQ(0, pclose(pOutput));
  return strText;
}

void ExpectSource(const Guide_t& stGuide) {
  EXPECT_EQ(ReadFile(std::string(GUIDE_SOURCES) + "/" + stGuide.pProgram + ".cpp"),
            Block(stGuide, "cpp"));
}

class GuideTest : public ::testing::TestWithParam<Guide_t> {};

TEST_P(GuideTest, ThePageShowsTheProgramAndWhatItPrints) {
  const PrivateDirectory stDirectory;
  const std::string strProgram = GetParam().pProgram;
  const std::string strPath = strProgram == "files" ? stDirectory.File("file") : stDirectory.Path();
  // So that the segments of a program that fails halfway are removed.
  for (const char* pName : {"requests", "answers"}) {
    mkfifo(stDirectory.File(pName).c_str(), 0600);
  }
  const PrivateKey stTable(ftok(stDirectory.Path().c_str(), 1));
  const PrivateKey stRequests(ftok(stDirectory.File("requests").c_str(), 1));
  const PrivateKey stAnswers(ftok(stDirectory.File("answers").c_str(), 1));
  ExpectSource(GetParam());
  EXPECT_EQ(Block(GetParam(), "text"), Output(GetParam(), strPath));
}

INSTANTIATE_TEST_SUITE_P(
    Pages, GuideTest,
    ::testing::Values(Guide_t{"foundation", "log"}, Guide_t{"state_machines", "conversation"},
                      Guide_t{"shared_memory", "queue"}, Guide_t{"shared_memory", "table"},
                      Guide_t{"configuration", "settings"}, Guide_t{"long_actions", "child"},
                      Guide_t{"network_and_files", "sockets"},
                      Guide_t{"network_and_files", "files"}, Guide_t{"statistics", "latencies"}),
    [](const auto& stInfo) { return std::string(stInfo.param.pProgram); });

class DatabaseGuideTest : public MysqlTest {};

TEST_F(DatabaseGuideTest, ThePageShowsTheProgramAndWhatItPrints) {
  const Guide_t stGuide{"database", "database"};
  ExpectSource(stGuide);
  EXPECT_EQ(
      Block(stGuide, "text"),
      Output(stGuide, std::string(MysqlServer::HOST) + " " + std::to_string(Server().Port()) + " " +
                          MysqlServer::USER + " " + MysqlServer::PASSWORD + " " + DATABASE));
}

}  // namespace
