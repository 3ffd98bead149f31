#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "command_table.h"
#include "kv_server_fixture.h"
#include "subcommands.h"

// The server beside a real one of the protocol: both are asked the same, and both must answer the
// same, except for numbers and names that are each one's own. What we answer otherwise on purpose
// stands in the server's README and not here.

namespace {

// The package of the command-line tools has the whole server too, under the name of a checking
// tool; it becomes the server when it is called so.
const char* const REFERENCE_PATHS[] = {"/usr/bin/redis-server", "/usr/bin/redis-check-rdb"};
const char REFERENCE_VERSION[] = "redis_version:7.0.";

std::string ReferencePath() {
  for (const char* pPath : REFERENCE_PATHS) {
    if (access(pPath, X_OK) == 0) {
      return pPath;
    }
  }
  return "";
}

int RunReference(const std::string& strPath, uint16_t iPort, const std::string& strDirectory) {
  const std::string strPort = std::to_string(iPort);
  const std::string strLog = strDirectory + "/log";
  const int iNull = open("/dev/null", O_RDWR | O_CLOEXEC);
  dup2(iNull, 1);
  execl(strPath.c_str(), "redis-server", "--port", strPort.c_str(), "--bind", "127.0.0.1", "--save",
        "", "--appendonly", "no", "--dir", strDirectory.c_str(), "--logfile", strLog.c_str(),
        static_cast<char*>(nullptr));
  return 127;
}

// A reply as one line, without the lengths of its texts.
std::string Render(const std::string& strReply, size_t& iOffset) {
  const size_t iEnd = strReply.find("\r\n", iOffset);
  if (iEnd == std::string::npos) {
    return "(closed)";
  }
  const std::string strLine = strReply.substr(iOffset, iEnd - iOffset);
  const long iNumber = atol(strLine.c_str() + 1);
  iOffset = iEnd + 2;
  if (strLine[0] == '$' && iNumber >= 0) {
    const std::string strText = strReply.substr(iOffset, static_cast<size_t>(iNumber));
    iOffset += static_cast<size_t>(iNumber) + 2;
    return "\"" + strText + "\"";
  }
  std::string strAll = strLine;
  for (long i = 0; strLine[0] == '*' && i < iNumber; ++i) {
    strAll += " " + Render(strReply, iOffset);
  }
  return strAll;
}

std::string Render(const std::string& strReply) {
  size_t iOffset = 0;
  return Render(strReply, iOffset);
}

std::vector<std::string> Words(const std::string& strText) {
  std::vector<std::string> vecWords;
  std::istringstream stStream(strText);
  for (std::string strWord; std::getline(stStream, strWord, ' ');) {
    vecWords.push_back(strWord);
  }
  return vecWords;
}

const std::set<std::string> OWN_FIELDS = {"id", "addr", "laddr", "fd", "age", "idle", "qbuf"};
const std::set<std::string> THEIR_FIELDS = {"qbuf-free", "argv-mem", "multi-mem", "rbs",
                                            "rbp",       "obl",      "oll",       "tot-mem"};
const std::set<std::string> OWN_VALUES = {"\"server\"", "\"version\"", "\"id\""};

// Takes out what no two servers, or no two runs of one, have in common.
std::string Normalise(const std::string& strText) {
  const std::string strDebug = "-ERR DEBUG command not allowed. ";
  if (strText.compare(0, strDebug.size(), strDebug) == 0) {
    return strDebug;  // then it names the setting
  }
  std::string strBefore;
  std::string strOut;
  for (const std::string& strWord : Words(strText)) {
    const size_t iStart = strWord[0] == '"' ? 1 : 0;
    const std::string strField = strWord.substr(iStart, strWord.find('=') - iStart);
    if (OWN_FIELDS.count(strField) > 0) {
      strOut += strField + "=? ";
    } else if (OWN_VALUES.count(strBefore) > 0) {
      strOut += "? ";
    } else if (THEIR_FIELDS.count(strField) == 0) {
      strOut += strWord + " ";
    }
    strBefore = strWord;
  }
  return strOut;
}

class KvServerComparisonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string strPath = ReferencePath();
    if (strPath.empty()) {
      GTEST_SKIP() << "redis-tools is not installed";
    }
    m_pReference = std::make_unique<ForkedPeer>(
        [&] { return RunReference(strPath, m_iPort, m_stDirectory.Path()); });
    if (!WaitUntil([this] { return Connects(); }) ||
        m_pTheirs->Ask({"INFO", "server"}).find(REFERENCE_VERSION) == std::string::npos) {
      GTEST_SKIP() << strPath << " is no server of version 7.0 that can be started";
    }
    m_pOurs = std::make_unique<Client>(m_stServer);
  }

  bool Connects() {
    try {
      m_pTheirs = std::make_unique<Client>(m_iPort);
    } catch (const std::runtime_error&) {
      return false;
    }
    return m_pTheirs->Ask({"PING"}) == "+PONG\r\n";
  }

  void ExpectSame(const std::vector<std::string>& vecLines) {
    for (const std::string& strLine : vecLines) {
      EXPECT_EQ(Normalise(Render(m_pTheirs->AskInline(strLine))),
                Normalise(Render(m_pOurs->AskInline(strLine))))
          << strLine;
    }
  }

  const PrivateDirectory m_stDirectory;
  const uint16_t m_iPort = FreePort();
  std::unique_ptr<ForkedPeer> m_pReference;
  std::unique_ptr<Client> m_pTheirs;
  ServerProcess m_stServer{{"server.workers=2"}};
  std::unique_ptr<Client> m_pOurs;
};

TEST_F(KvServerComparisonTest, Connection) {
  ExpectSame({"PING",
              "ping hello",
              "PING \"\"",
              "PING a b",
              "ECHO",
              "ECHO hi",
              "echo \"\"",
              "ECHO a b",
              "SELECT",
              "SELECT 0",
              "SELECT 0 0",
              "SELECT x",
              "SELECT \"\"",
              "SELECT 00",
              "SELECT -0",
              "SELECT +0",
              "SELECT \" 0\"",
              "SELECT 0.0",
              "SELECT -1",
              "SELECT 16",
              "SELECT 2147483647",
              "SELECT 2147483648",
              "SELECT -2147483648",
              "SELECT -2147483649",
              "SELECT 9223372036854775807",
              "SELECT 9223372036854775808",
              "SELECT \"\\x00\""});
}

TEST_F(KvServerComparisonTest, UnknownCommands) {
  const std::string strLong(200, 'x');
  ExpectSame({"foo", "FOO a b", "\"\"", "\"fo\\x00o\" a", "foo \"a\\x00b\" c", "foo \"a\\r\\nb\"",
              "\"f\\ro\\no\"", strLong, strLong + " " + strLong + " b", "foo " + strLong,
              "foo " + strLong.substr(0, 124) + " abc def", "get|x", "client|id", "GETT a"});
}

TEST_F(KvServerComparisonTest, ClientNames) {
  ExpectSame({"CLIENT GETNAME",
              "CLIENT SETNAME me",
              "client getname",
              "CLIENT SETNAME \"a b\"",
              "CLIENT SETNAME \"a\\nb\"",
              "CLIENT SETNAME \"\\x7f\"",
              "CLIENT SETNAME \"\\xc3\\xa4\"",
              "CLIENT SETNAME \"a\\x00b\"",
              "CLIENT GETNAME",
              "CLIENT SETNAME !~",
              "CLIENT GETNAME",
              "CLIENT SETNAME \"\"",
              "CLIENT GETNAME",
              "CLIENT SETNAME",
              "CLIENT SETNAME a b",
              "CLIENT GETNAME x",
              "CLIENT ID x",
              "CLIENT INFO x",
              "CLIENT NO-EVICT",
              "CLIENT NO-EVICT on",
              "CLIENT NO-EVICT OFF",
              "CLIENT NO-EVICT x",
              "CLIENT NO-EVICT on off",
              "CLIENT SETINFO LIB-NAME x",
              "CLIENT NO-TOUCH on",
              "CLIENT",
              "CLIENT foo",
              "CLIENT foo a b",
              "CLIENT \"a\\x00b\"",
              "CLIENT HELP x"});
}

TEST_F(KvServerComparisonTest, ClientList) {
  ExpectSame({"CLIENT INFO",
              "CLIENT LIST",
              "client list type NORMAL",
              "CLIENT LIST TYPE master",
              "CLIENT LIST TYPE pubsub",
              "CLIENT LIST TYPE replica",
              "CLIENT LIST TYPE slave",
              "CLIENT LIST TYPE nosuch",
              "CLIENT LIST TYPE \"no\\x00such\"",
              "CLIENT LIST TYPE",
              "CLIENT LIST TYPE normal x",
              "CLIENT LIST TYPE normal ID 1",
              "CLIENT LIST ID",
              "CLIENT LIST ID 0",
              "CLIENT LIST ID -1 99999",
              "CLIENT LIST ID x",
              "CLIENT LIST ID 1 1x",
              "CLIENT LIST ID 99999999999999999999",
              "CLIENT LIST foo",
              "CLIENT LIST foo bar",
              "CLIENT SETNAME n",
              "CLIENT INFO"});
}

TEST_F(KvServerComparisonTest, ClientKill) {
  ExpectSame({"CLIENT KILL",
              "CLIENT KILL x",
              "CLIENT KILL \"\"",
              "CLIENT KILL 1.2.3.4:5",
              "CLIENT KILL ID",
              "CLIENT KILL ID 99999",
              "CLIENT KILL ID x",
              "CLIENT KILL ID 0",
              "CLIENT KILL ID -1",
              "CLIENT KILL ID \" 5\"",
              "CLIENT KILL ID 5.5",
              "CLIENT KILL ID 99999999999999999999",
              "CLIENT KILL ID 99999 SKIPME",
              "CLIENT KILL ID 99999 SKIPME yes",
              "CLIENT KILL SKIPME NO ID 99999",
              "CLIENT KILL ID 99999 SKIPME maybe",
              "CLIENT KILL ADDR 1.2.3.4:5",
              "CLIENT KILL ADDR \"\"",
              "CLIENT KILL LADDR 1.2.3.4:5",
              "CLIENT KILL TYPE foo",
              "CLIENT KILL TYPE pubsub",
              "CLIENT KILL TYPE normal",
              "CLIENT KILL TYPE normal ID 9999",
              "CLIENT KILL USER foo",
              "CLIENT KILL USER default ID 99999",
              "CLIENT KILL foo bar",
              "CLIENT KILL ID 99999 foo",
              "CLIENT KILL SKIPME yes",
              "CLIENT KILL 1 2 3",
              "CLIENT KILL MAXAGE 10"});
}

TEST_F(KvServerComparisonTest, AClientThatKillsItselfGetsTheReply) {
  for (Client* pClient : {m_pTheirs.get(), m_pOurs.get()}) {
    pClient->Send(Request({"CLIENT", "KILL", "TYPE", "normal", "SKIPME", "no"}) +
                  Request({"PING"}));
    EXPECT_EQ(":1\r\n", pClient->ReadToEnd());
  }
}

TEST_F(KvServerComparisonTest, Hello) {
  ExpectSame({"HELLO",
              "HELLO 2",
              "hello 2 setname me",
              "CLIENT GETNAME",
              "HELLO 2 SETNAME \"a b\"",
              "HELLO 2 SETNAME",
              "HELLO 2 SETNAME a SETNAME b",
              "CLIENT GETNAME",
              "HELLO 1",
              "HELLO 4",
              "HELLO -1",
              "HELLO 2.0",
              "HELLO x",
              "HELLO \"\"",
              "HELLO 99999999999999999999",
              "HELLO SETNAME me",
              "HELLO 2 AUTH",
              "HELLO 2 AUTH default",
              "HELLO 2 AUTH default any",
              "HELLO 2 AUTH foo any",
              "HELLO 2 SETNAME c AUTH foo any",
              "CLIENT GETNAME",
              "HELLO 2 AUTH default any SETNAME \"a b\"",
              "HELLO 2 AUTH a b foo",
              "HELLO 2 foo",
              "HELLO 2 \"f\\x00oo\"",
              "HELLO 2 SETNAME x foo",
              "CLIENT GETNAME"});
  // The one answer that differs for this line is a choice: we have no third protocol.
  EXPECT_EQ("-NOPROTO unsupported protocol version\r\n", m_pOurs->Ask({"HELLO", "3"}));
}

TEST_F(KvServerComparisonTest, ConfigAndCommand) {
  ExpectSame({"CONFIG",
              "CONFIG GET",
              "CONFIG GET save",
              "config get save",
              "CONFIG GET s?ve",
              "CONFIG GET [s]ave",
              "CONFIG GET save nosuch s*ve save",
              "CONFIG GET nosuch",
              "CONFIG GET nosuch append*ly",
              "CONFIG GET \"\"",
              "CONFIG SET",
              "CONFIG SET save",
              "CONFIG SET save 5 x",
              "CONFIG RESETSTAT",
              "CONFIG RESETSTAT x",
              "CONFIG foo",
              "CONFIG HELP x",
              "COMMAND foo",
              "COMMAND COUNT x",
              "COMMAND HELP x",
              "COMMAND INFO nosuch",
              "COMMAND INFO nosuch \"\" get|x",
              "COMMAND DOCS nosuch",
              "COMMAND LIST x",
              "INFO nosuch",
              "INFO nosuch x",
              "DEBUG",
              "DEBUG SLEEP 0",
              "DEBUG foo"});
}

TEST_F(KvServerComparisonTest, ValuesAndNumbersOfArguments) {
  ExpectSame({"GET",
              "GET a",
              "GET a b",
              "SET a",
              "SET a 1 foo",
              "SET a 1 NX XX",
              "SET a 5",
              "get a",
              "INCR a",
              "INCR a b",
              "DECR a",
              "INCRBY a",
              "INCRBY a x",
              "INCRBY a 1.5",
              "INCRBY a 10",
              "INCRBY a 9223372036854775807",
              "SET a \" 1\"",
              "INCR a",
              "SET a x",
              "DECR a",
              "DEL",
              "EXISTS",
              "EXISTS a b a",
              "MGET",
              "MGET a b",
              "MSET",
              "MSET a",
              "MSET a 1 b",
              "MSET a 1 b 2",
              "MGET b a c",
              "DBSIZE",
              "DBSIZE x",
              "DEL a b c",
              "FLUSHALL foo",
              "FLUSHALL ASYNC SYNC",
              "FLUSHALL async",
              "FLUSHALL SYNC",
              "DBSIZE"});
}

TEST_F(KvServerComparisonTest, TheEnd) {
  ExpectSame({"SHUTDOWN foo", "SHUTDOWN NOSAVE SAVE", "SHUTDOWN SAVE foo", "SHUTDOWN ABORT",
              "shutdown abort ABORT", "SHUTDOWN ABORT NOW", "SHUTDOWN NOSAVE ABORT",
              "SHUTDOWN NOW x", "QUIT a b", "PING"});
}

TEST_F(KvServerComparisonTest, ShutdownClosesWithoutAReply) {
  for (Client* pClient : {m_pTheirs.get(), m_pOurs.get()}) {
    pClient->Send(Request({"SHUTDOWN", "nosave", "NOW", "FORCE"}));
    EXPECT_EQ("", pClient->ReadToEnd());
  }
  EXPECT_EQ(0, m_pReference->Wait());
  EXPECT_EQ(0, m_stServer.Wait());
}

TEST_F(KvServerComparisonTest, ProtocolErrors) {
  for (const std::string& strBytes :
       {std::string("*x\r\n"), std::string("*1\r\n$x\r\n"), std::string("*1\r\n$-1\r\n"),
        std::string("*1\r\nPING\r\n"), std::string("GET \"a\r\n"), std::string("GET 'a'b\r\n")}) {
    Client stTheirs(m_iPort);
    Client stOurs(m_stServer);
    stTheirs.Send(strBytes);
    stOurs.Send(strBytes);
    EXPECT_EQ(stTheirs.ReadToEnd(), stOurs.ReadToEnd()) << strBytes;
  }
}

// Name, arity, and the positions of the keys; whether it writes. "" when it is not described.
std::string Describe(Client& stClient, const std::string& strName) {
  const size_t iFlags = 5;  // after "*1 *10 name arity *flags"
  const std::vector<std::string> vecWords =
      Words(Render(stClient.Ask({"COMMAND", "INFO", strName})));
  if (vecWords.size() < iFlags) {
    return "";
  }
  std::string strOut = vecWords[2] + " " + vecWords[3];
  const size_t iKeys = iFlags + std::stoul(vecWords[4].substr(1));
  for (size_t i = iFlags; i < std::min(iKeys + 3, vecWords.size()); ++i) {
    strOut += i >= iKeys || vecWords[i] == "+write" ? " " + vecWords[i] : "";
  }
  return strOut;
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
