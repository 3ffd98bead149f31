#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>

#include "command_table.h"
#include "command_table_file.h"
#include "kv_server_fixture.h"
#include "reference_server.h"
#include "reply_rules.h"
#include "subcommands.h"

// The server beside a real one of the protocol: both are asked the same, and both must answer the
// same, byte by byte. What they are asked stands in the tables of tests/data/kv_comparison, with
// what we answer otherwise on purpose; why stands in the server's README.
//
// Two rules of the tables are ways of asking: "scan" follows a SCAN's cursors to the end and shows
// its keys in order, "until REPLY" asks again until that reply comes.

namespace {

const char* const TABLES[] = {"clients",     "configuration", "connection", "counting",
                              "differences", "expiry",        "inline",     "keys",
                              "protocol",    "scan",          "strings",    "unknown"};

std::string TablePath(const std::string& strTable) {
  return std::string(TEST_DATA) + "/kv_comparison/" + strTable + ".txt";
}

// One server and a connection to it, which is made anew when the server has closed it.
class Side {
 public:
  explicit Side(uint16_t iPort) : m_iPort(iPort), m_pClient(std::make_unique<Client>(iPort)) {}

  std::string Ask(const std::vector<std::string>& vecWords) {
    const std::string strReply = m_pClient->Ask(vecWords);
    if (strReply.empty()) {
      m_pClient = std::make_unique<Client>(m_iPort);
    }
    return strReply;
  }

  std::string AskLine(const TableLine_t& stLine) {
    if (stLine.bBytes) {
      return AskBytes(stLine.vecWords[0]);
    }
    const std::string strName = stLine.strRule.substr(0, stLine.strRule.find(' '));
    if (strName == "scan") {
      return Scan(stLine.vecWords);
    }
    if (strName == "until") {
      return AskUntil(stLine.vecWords, QuotedWords(stLine.strRule)[1]);
    }
    return ApplyRule(stLine.strRule, Ask(stLine.vecWords));
  }

 private:
  std::string AskBytes(const std::string& strBytes) const {
    Client stClient(m_iPort);
    stClient.Send(strBytes);
    stClient.CloseSending();
    return stClient.ReadToEnd();
  }

  // The keys of all cursors that follow the first, in order; the reply when it is an error.
  std::string Scan(std::vector<std::string> vecWords) {
    std::set<std::string> setKeys;
    do {
      const std::string strReply = Ask(vecWords);
      const std::vector<std::string> vecParts = ElementsOf(strReply);
      if (vecParts.size() != 2) {
        return strReply;
      }
      for (const std::string& strKey : ElementsOf(vecParts[1])) {
        setKeys.insert(TextOf(strKey));
      }
      vecWords[1] = TextOf(vecParts[0]);
    } while (vecWords[1] != "0");
    std::string strKeys;
    for (const std::string& strKey : setKeys) {
      strKeys += strKey + " ";
    }
    return strKeys;
  }

  // What comes with time, or the reply that does not.
  std::string AskUntil(const std::vector<std::string>& vecWords, const std::string& strWanted) {
    std::string strReply;
    WaitUntil([&] { return (strReply = Ask(vecWords)) == strWanted; });
    return strReply;
  }

  uint16_t m_iPort;
  std::unique_ptr<Client> m_pClient;
};

class KvServerComparisonTest : public ::testing::Test {
 protected:
  explicit KvServerComparisonTest(int iWorkers = 2)
      : m_stServer({"server.workers=" + std::to_string(iWorkers)}) {}

  static void SetUpTestSuite() { s_bInstalled = ReferenceServer::IsInstalled(); }

  void SetUp() override {
    if (!s_bInstalled) {
      GTEST_SKIP() << "redis-tools is not installed, or its server is not of version 7.0";
    }
    m_pReference = std::make_unique<ReferenceServer>();
    m_pTheirs = std::make_unique<Client>(m_pReference->Port());
    m_pOurs = std::make_unique<Client>(m_stServer);
  }

  static bool s_bInstalled;
  std::unique_ptr<ReferenceServer> m_pReference;
  ServerProcess m_stServer;
  std::unique_ptr<Client> m_pTheirs;
  std::unique_ptr<Client> m_pOurs;
};

bool KvServerComparisonTest::s_bInstalled = false;

// A table, asked of a server with so many workers.
class KvServerTableTest : public KvServerComparisonTest,
                          public ::testing::WithParamInterface<std::tuple<const char*, int>> {
 protected:
  KvServerTableTest() : KvServerComparisonTest(std::get<1>(GetParam())) {}
};

TEST_P(KvServerTableTest, RepliesAreTheSame) {
  Side stTheirs(m_pReference->Port());
  Side stOurs(m_stServer.Port());
  for (const TableLine_t& stLine : ReadCommandTable(TablePath(std::get<0>(GetParam())))) {
    const std::string strTheirs = stTheirs.AskLine(stLine);
    const std::string strOurs = stOurs.AskLine(stLine);
    const bool bExpected = stLine.strDiffers.empty()
                               ? strTheirs == strOurs
                               : strTheirs == stLine.strTheirs && strOurs == stLine.strOurs;
    EXPECT_TRUE(bExpected) << stLine.strPlace << "\n    theirs: " << Quoted(strTheirs)
                           << "\n    ours: " << Quoted(strOurs);
  }
}

INSTANTIATE_TEST_SUITE_P(, KvServerTableTest,
                         ::testing::Combine(::testing::ValuesIn(TABLES), ::testing::Values(1, 3)),
                         [](const auto& stInfo) {
                           return std::string(std::get<0>(stInfo.param)) + "With" +
                                  std::to_string(std::get<1>(stInfo.param)) + "Workers";
                         });

// The first cells of the README's table of differences.
std::set<std::string> ReadmeRows() {
  std::set<std::string> setRows;
  std::istringstream stText(ReadFile(std::string(KV_SERVER_SOURCE) + "/README.md"));
  std::string strLine;
  while (std::getline(stText, strLine) && strLine != "| what | here, and why |") {
  }
  std::getline(stText, strLine);  // the rule below the heads
  while (std::getline(stText, strLine) && strLine.rfind("| ", 0) == 0) {
    setRows.insert(strLine.substr(2, strLine.find(" | ") - 2));
  }
  return setRows;
}

TEST(KvServerDifferencesTest, TheReadmeTellsOfEachAndOfNoOther) {
  std::set<std::string> setRows;
  for (const char* pTable : TABLES) {
    for (const TableLine_t& stLine : ReadCommandTable(TablePath(pTable))) {
      setRows.insert(stLine.strDiffers);
    }
  }
  setRows.erase("");
  EXPECT_FALSE(setRows.empty());
  EXPECT_EQ(ReadmeRows(), setRows);
}

TEST(KvServerDifferencesTest, EveryTableIsAsked) {
  std::set<std::string> setFiles;
  for (const auto& stEntry :
       std::filesystem::directory_iterator(std::string(TEST_DATA) + "/kv_comparison")) {
    setFiles.insert(stEntry.path().stem());
  }
  EXPECT_EQ(std::set<std::string>(std::begin(TABLES), std::end(TABLES)), setFiles);
}

TEST_F(KvServerComparisonTest, AClientThatKillsItselfGetsTheReply) {
  for (Client* pClient : {m_pTheirs.get(), m_pOurs.get()}) {
    pClient->Send(Request({"CLIENT", "KILL", "TYPE", "normal", "SKIPME", "no"}) +
                  Request({"PING"}));
    EXPECT_EQ(":1\r\n", pClient->ReadToEnd());
  }
}

TEST_F(KvServerComparisonTest, ShutdownClosesWithoutAReply) {
  for (Client* pClient : {m_pTheirs.get(), m_pOurs.get()}) {
    pClient->Send(Request({"SHUTDOWN", "nosave", "NOW", "FORCE"}));
    EXPECT_EQ("", pClient->ReadToEnd());
  }
  EXPECT_EQ(0, m_pReference->Wait());
  EXPECT_EQ(0, m_stServer.Wait());
}

// Name, arity, and the positions of the keys; whether it writes. "" when it is not described.
std::string Describe(Client& stClient, const std::string& strName) {
  const std::string strReply = ElementsOf(stClient.Ask({"COMMAND", "INFO", strName}))[0];
  const std::vector<std::string> vecParts = ElementsOf(strReply);
  if (vecParts.size() < 6) {
    return "";
  }
  const bool bWrites = vecParts[2].find("+write\r\n") != std::string::npos;
  return vecParts[0] + vecParts[1] + (bWrites ? "writes\r\n" : "") + vecParts[3] + vecParts[4] +
         vecParts[5];
}

TEST_F(KvServerComparisonTest, EveryCommandHasItsArityAndKeys) {
  for (const Command_t& stCommand : AllCommands()) {
    const std::string strTheirs = Describe(*m_pTheirs, stCommand.pName);
    EXPECT_NE("", strTheirs) << stCommand.pName;
    EXPECT_EQ(strTheirs, Describe(*m_pOurs, stCommand.pName));
    for (const Subcommand_t& stRow : SubcommandsOf(stCommand.eId)) {
      if (stCommand.eId != CMD_DEBUG) {  // whose subcommands nobody describes
        EXPECT_EQ(Describe(*m_pTheirs, stRow.stFull.pName), Describe(*m_pOurs, stRow.stFull.pName));
      }
    }
  }
}

}  // namespace
