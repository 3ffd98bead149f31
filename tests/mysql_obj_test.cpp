#include "mysql_obj.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "cut_connection.h"
#include "mysql_server_fixture.h"

namespace {

const char* const NOWHERE = "nowhere";

// The protected error text.
class OpenMysqlObj : public MysqlObj {
 public:
  using MysqlObj::_ErrorMessage;
};

class MysqlObjTest : public MysqlTest {
 protected:
  // A connected object, m_stMysql, and the table t with an auto-increment key.
  void SetUp() override {
    MysqlTest::SetUp();
    ASSERT_TRUE(Connect(m_stMysql)) << m_stMysql.ErrorMessage();
    ASSERT_EQ(0, Execute(m_stMysql, "CREATE TABLE t (id INT AUTO_INCREMENT PRIMARY KEY, v INT)"));
  }

  // Whether the server still knows the session with this number.
  bool IsAlive(const std::string& strSession) {
    MysqlObj stOther;
    return Connect(stOther) &&
           Value(stOther, "SELECT COUNT(*) FROM information_schema.processlist WHERE id = " +
                              strSession) == "1";
  }

  // Over a road that breaks after iBytes bytes of the server's answers.
  std::unique_ptr<CutConnection> ConnectThroughCut(size_t iBytes) {
    auto pCut = std::make_unique<CutConnection>(Server().Port(), iBytes);
    EXPECT_TRUE(m_stMysql.Connect(MysqlServer::HOST, MysqlServer::USER, MysqlServer::PASSWORD,
                                  DATABASE, pCut->Port()))
        << m_stMysql.ErrorMessage();
    return pCut;
  }

  static std::string Session(MysqlObj& stMysql) { return Value(stMysql, "SELECT CONNECTION_ID()"); }

  MysqlObj m_stMysql;
};

// No server needed.
TEST(MysqlObjClosedTest, NewObjectIsClosedAndEmpty) {
  MysqlObj stMysql;
  EXPECT_EQ(nullptr, stMysql.get());
  EXPECT_STREQ("", stMysql.ErrorMessage());
  EXPECT_EQ(0u, stMysql.AffectedRows());
  EXPECT_EQ(0u, stMysql.InsertId());
  stMysql.Close();
  EXPECT_EQ(nullptr, stMysql.get());
}

TEST(MysqlObjClosedTest, DumpShowsNoHandle) {
  MysqlObj stMysql;
  EXPECT_EQ("m_pMysql=\"(nil)\"\n", CaptureDescriptor([&](int iFD) { stMysql.Dump(iFD); }));
}

TEST(MysqlObjClosedTest, WithoutHandleTheErrorTextBecomesEmpty) {
  OpenMysqlObj stMysql;
  ASSERT_FALSE(stMysql.Connect(MysqlServer::HOST, "u", "p", "d", FreePort()));
  ASSERT_STRNE("", stMysql.ErrorMessage());
  EXPECT_STREQ("", stMysql._ErrorMessage());
  EXPECT_STREQ("", stMysql.ErrorMessage());
}

TEST(MysqlObjClosedTest, NobodyListeningFailsWithATextAndLeavesItClosed) {
  MysqlObj stMysql;
  EXPECT_FALSE(stMysql.Connect(MysqlServer::HOST, "u", "p", "d", FreePort()));
  EXPECT_NE(nullptr, strstr(stMysql.ErrorMessage(), "Can't connect")) << stMysql.ErrorMessage();
  EXPECT_EQ(nullptr, stMysql.get());
}

TEST(MysqlObjDeathTest, QueryOnAClosedObjectEndsTheProcess) {
  MysqlObj stMysql;
  Rows_t vecRows;
  EXPECT_DEATH(stMysql.ExecuteSql("SELECT 1", 8, vecRows), "Assertion `m_pMysql' failed");
}

TEST(MysqlObjDeathTest, SelectDbOnAClosedObjectEndsTheProcess) {
  MysqlObj stMysql;
  EXPECT_DEATH(stMysql.SelectDb("d"), "Assertion `m_pMysql' failed");
}

TEST_F(MysqlObjTest, ConnectOpensASessionOfTheUserOnTheDatabase) {
  EXPECT_NE(nullptr, m_stMysql.get());
  EXPECT_EQ((Rows_t{{"zelk@127.0.0.1", DATABASE}}), Query(m_stMysql, "SELECT USER(), DATABASE()"));
  EXPECT_STREQ("", m_stMysql.ErrorMessage());
}

TEST_F(MysqlObjTest, DumpShowsTheHandlesAddress) {
  char szExpected[64];
  snprintf(szExpected, sizeof(szExpected), "m_pMysql=\"%p\"\n",
           static_cast<void*>(m_stMysql.get()));
  EXPECT_EQ(szExpected, CaptureDescriptor([&](int iFD) { m_stMysql.Dump(iFD); }));
}

TEST_F(MysqlObjTest, RefusedPasswordLeavesItClosedWithTheServersText) {
  MysqlObj stMysql;
  EXPECT_FALSE(
      stMysql.Connect(MysqlServer::HOST, MysqlServer::USER, "wrong", DATABASE, Server().Port()));
  EXPECT_NE(nullptr, strstr(stMysql.ErrorMessage(), "Access denied for user 'zelk'@"))
      << stMysql.ErrorMessage();
  EXPECT_EQ(nullptr, stMysql.get());
}

TEST_F(MysqlObjTest, UnknownDatabaseIsRefusedAtConnecting) {
  MysqlObj stMysql;
  EXPECT_FALSE(Connect(stMysql, NOWHERE));
  EXPECT_STREQ("Unknown database 'nowhere'", stMysql.ErrorMessage());
}

TEST_F(MysqlObjTest, SuccessKeepsTheTextOfTheLastFailure) {
  ASSERT_EQ(-1, Execute(m_stMysql, "SELECT nothing"));
  const std::string strText = m_stMysql.ErrorMessage();
  ASSERT_EQ("Unknown column 'nothing' in 'SELECT'", strText);
  EXPECT_EQ(0, Execute(m_stMysql, "SELECT 1"));
  EXPECT_EQ(0, m_stMysql.SelectDb(DATABASE));
  EXPECT_TRUE(Connect(m_stMysql));
  EXPECT_TRUE(m_stMysql.Reconnect());
  m_stMysql.Close();
  EXPECT_EQ(strText, m_stMysql.ErrorMessage());
}

TEST_F(MysqlObjTest, ConnectOnAnOpenObjectEndsTheOldSession) {
  const std::string strOld = Session(m_stMysql);
  const int iDescriptors = OpenDescriptors();
  ASSERT_TRUE(Connect(m_stMysql));
  EXPECT_NE(strOld, Session(m_stMysql));
  EXPECT_EQ(iDescriptors, OpenDescriptors());
  EXPECT_TRUE(WaitUntil([&] { return !IsAlive(strOld); }));
}

// Else a command that outlives its host keeps the session's locks.
TEST_F(MysqlObjTest, ConnectionIsClosedByExec) {
  EXPECT_EQ(FD_CLOEXEC, fcntl(mysql_get_socket(m_stMysql.get()), F_GETFD));
  ASSERT_TRUE(m_stMysql.Reconnect());
  EXPECT_EQ(FD_CLOEXEC, fcntl(mysql_get_socket(m_stMysql.get()), F_GETFD));
}

TEST_F(MysqlObjTest, ReconnectOnAnOpenObjectEndsTheOldSession) {
  const std::string strOld = Session(m_stMysql);
  ASSERT_TRUE(m_stMysql.Reconnect());
  EXPECT_NE(strOld, Session(m_stMysql));
  EXPECT_TRUE(WaitUntil([&] { return !IsAlive(strOld); }));
}

TEST_F(MysqlObjTest, CloseEndsTheSessionOnce) {
  const std::string strOld = Session(m_stMysql);
  m_stMysql.Close();
  EXPECT_EQ(nullptr, m_stMysql.get());
  EXPECT_TRUE(WaitUntil([&] { return !IsAlive(strOld); }));
  m_stMysql.Close();
  EXPECT_TRUE(m_stMysql.Reconnect());
}

TEST_F(MysqlObjTest, DestructionEndsTheSession) {
  auto pMysql = std::make_unique<MysqlObj>();
  ASSERT_TRUE(Connect(*pMysql));
  const std::string strSession = Session(*pMysql);
  ASSERT_TRUE(IsAlive(strSession));
  pMysql.reset();
  EXPECT_TRUE(WaitUntil([&] { return !IsAlive(strSession); }));
}

TEST_F(MysqlObjTest, FailedConnectClosesAndKeepsWhatWasRemembered) {
  EXPECT_FALSE(m_stMysql.Connect("127.0.0.2", "nobody", "wrong", NOWHERE, Server().Port()));
  EXPECT_EQ(nullptr, m_stMysql.get());
  ASSERT_TRUE(m_stMysql.Reconnect()) << m_stMysql.ErrorMessage();
  EXPECT_EQ((Rows_t{{"zelk@127.0.0.1", DATABASE}}), Query(m_stMysql, "SELECT USER(), DATABASE()"));
}

TEST_F(MysqlObjTest, FailedReconnectClosesAndKeepsWhatWasRemembered) {
  Server().Stop();
  EXPECT_FALSE(m_stMysql.Reconnect());
  EXPECT_EQ(nullptr, m_stMysql.get());
  EXPECT_NE(nullptr, strstr(m_stMysql.ErrorMessage(), "Can't connect"));
  Server().Start();
  EXPECT_TRUE(m_stMysql.Reconnect());
  EXPECT_EQ(DATABASE, Value(m_stMysql, "SELECT DATABASE()"));
}

TEST_F(MysqlObjTest, ArgumentsAreCopied) {
  char szHost[] = "127.0.0.1";
  char szUser[] = "zelk";
  char szPassword[] = "secret";
  char szDb[] = "test";
  ASSERT_TRUE(m_stMysql.Connect(szHost, szUser, szPassword, szDb, Server().Port()));
  szHost[0] = szUser[0] = szPassword[0] = szDb[0] = 'x';
  EXPECT_TRUE(m_stMysql.Reconnect()) << m_stMysql.ErrorMessage();
}

TEST_F(MysqlObjTest, NullDatabaseIsRememberedAsNone) {
  ASSERT_TRUE(Connect(m_stMysql, nullptr));
  EXPECT_EQ("1", Value(m_stMysql, "SELECT DATABASE() IS NULL"));
  ASSERT_TRUE(m_stMysql.Reconnect());
  EXPECT_EQ("1", Value(m_stMysql, "SELECT DATABASE() IS NULL"));
}

TEST_F(MysqlObjTest, SelectDbChangesTheSessionButNotWhatIsRemembered) {
  ASSERT_EQ(0, m_stMysql.SelectDb("information_schema"));
  EXPECT_EQ("information_schema", Value(m_stMysql, "SELECT DATABASE()"));
  ASSERT_TRUE(m_stMysql.Reconnect());
  EXPECT_EQ(DATABASE, Value(m_stMysql, "SELECT DATABASE()"));
}

TEST_F(MysqlObjTest, SelectDbOfAnUnknownDatabaseFailsWithTheServersText) {
  EXPECT_NE(0, m_stMysql.SelectDb(NOWHERE));
  EXPECT_STREQ("Unknown database 'nowhere'", m_stMysql.ErrorMessage());
  EXPECT_EQ(DATABASE, Value(m_stMysql, "SELECT DATABASE()"));
}

TEST_F(MysqlObjTest, RowsAndColumnsComeInTheirOrder) {
  EXPECT_EQ((Rows_t{{"1", "b", "2.50"}, {"2", "a", "0.00"}}),
            Query(m_stMysql, "SELECT 1 AS i, 'b', 2.50 UNION SELECT 2, 'a', 0.00 ORDER BY i"));
  EXPECT_EQ(2u, m_stMysql.AffectedRows());
}

TEST_F(MysqlObjTest, SelectThatMatchesNothingAppendsNothingAndClearsTheCounters) {
  ASSERT_EQ(0, Execute(m_stMysql, "INSERT INTO t (v) VALUES (1)"));
  ASSERT_EQ(1u, m_stMysql.AffectedRows());
  ASSERT_EQ(1u, m_stMysql.InsertId());
  EXPECT_EQ(Rows_t{}, Query(m_stMysql, "SELECT * FROM t WHERE v = 2"));
  EXPECT_EQ(0u, m_stMysql.AffectedRows());
  EXPECT_EQ(0u, m_stMysql.InsertId());
}

TEST_F(MysqlObjTest, InsertSetsTheNewKey) {
  EXPECT_EQ(0, Execute(m_stMysql, "INSERT INTO t (v) VALUES (10)"));
  EXPECT_EQ(1u, m_stMysql.InsertId());
  EXPECT_EQ(0, Execute(m_stMysql, "INSERT INTO t (id, v) VALUES (4294967, 20)"));
  EXPECT_EQ(0, Execute(m_stMysql, "INSERT INTO t (v) VALUES (30), (40)"));
  EXPECT_EQ(4294968u, m_stMysql.InsertId());
  EXPECT_EQ(2u, m_stMysql.AffectedRows());
}

TEST_F(MysqlObjTest, KeyWiderThan32BitsIsWhole) {
  ASSERT_EQ(0, Execute(m_stMysql,
                       "CREATE TABLE w (id BIGINT UNSIGNED AUTO_INCREMENT PRIMARY KEY) "
                       "AUTO_INCREMENT = 18446744073709551000"));
  ASSERT_EQ(0, Execute(m_stMysql, "INSERT INTO w VALUES (NULL)"));
  EXPECT_EQ(18446744073709551000u, m_stMysql.InsertId());
}

TEST_F(MysqlObjTest, StatementWithoutColumnsCountsTheRowsItChanged) {
  ASSERT_EQ(0, Execute(m_stMysql, "INSERT INTO t (v) VALUES (1), (2), (3)"));
  Rows_t vecRows;
  EXPECT_EQ(0, m_stMysql.ExecuteSql("UPDATE t SET v = 2", 18, vecRows));
  EXPECT_EQ(2u, m_stMysql.AffectedRows());  // the third was 2 before
  EXPECT_EQ(0u, m_stMysql.InsertId());
  EXPECT_EQ(0, m_stMysql.ExecuteSql("DELETE FROM t", 13, vecRows));
  EXPECT_EQ(3u, m_stMysql.AffectedRows());
  EXPECT_TRUE(vecRows.empty());
}

TEST_F(MysqlObjTest, SecondQueryAppendsToTheSameRows) {
  Rows_t vecRows{{"before"}};
  EXPECT_EQ(0, m_stMysql.ExecuteSql("SELECT 1", 8, vecRows));
  EXPECT_EQ(0, m_stMysql.ExecuteSql("SELECT 2, 3", 11, vecRows));
  EXPECT_EQ((Rows_t{{"before"}, {"1"}, {"2", "3"}}), vecRows);
  EXPECT_EQ(1u, m_stMysql.AffectedRows());
}

TEST_F(MysqlObjTest, RoomIsMadeForAllRowsAtOnceAndDoublesForLaterOnes) {
  const std::string strSql = "SELECT seq FROM seq_1_to_1000";
  Rows_t vecRows;
  ASSERT_EQ(0,
            m_stMysql.ExecuteSql(strSql.data(), static_cast<unsigned int>(strSql.size()), vecRows));
  EXPECT_EQ(1000u, vecRows.capacity());
  ASSERT_EQ(0, m_stMysql.ExecuteSql("SELECT 1", 8, vecRows));
  EXPECT_EQ(2000u, vecRows.capacity());
}

TEST_F(MysqlObjTest, ValueWithZeroBytesIsWhole) {
  ASSERT_EQ(0, Execute(m_stMysql, "CREATE TABLE b (c VARBINARY(8), d BLOB)"));
  ASSERT_EQ(0, Execute(m_stMysql, "INSERT INTO b VALUES (X'00410042FF00', X'00')"));
  EXPECT_EQ((Rows_t{{std::string("\0A\0B\xff\0", 6), std::string(1, '\0')}}),
            Query(m_stMysql, "SELECT c, d FROM b"));
}

TEST_F(MysqlObjTest, NullAndEmptyValueAreBothEmptyText) {
  EXPECT_EQ((Rows_t{{"", "", "x", ""}}), Query(m_stMysql, "SELECT NULL, '', 'x', NULL"));
}

TEST_F(MysqlObjTest, SqlIsTakenByItsLength) {
  Rows_t vecRows;
  EXPECT_EQ(0, m_stMysql.ExecuteSql("SELECT 'a\0b' and this is not looked at", 12, vecRows));
  EXPECT_EQ((Rows_t{{std::string("a\0b", 3)}}), vecRows);
}

TEST_F(MysqlObjTest, LongValueIsWhole) {
  const std::string strValue = Value(m_stMysql, "SELECT REPEAT('0123456789', 500000)");
  ASSERT_EQ(5000000u, strValue.size());
  EXPECT_EQ("0123456789", strValue.substr(4999990));
}

TEST_F(MysqlObjTest, HundredThousandRowsAreAllThere) {
  const Rows_t vecRows = Query(m_stMysql, "SELECT seq, seq * 2, NULL FROM seq_1_to_100000");
  ASSERT_EQ(100000u, vecRows.size());
  EXPECT_EQ(100000u, m_stMysql.AffectedRows());
  for (size_t i = 0; i < vecRows.size(); ++i) {
    ASSERT_EQ((std::vector<std::string>{std::to_string(i + 1), std::to_string(2 * i + 2), ""}),
              vecRows[i]);
  }
}

TEST_F(MysqlObjTest, FailedQueryLeavesCountersAndRowsAlone) {
  ASSERT_EQ(0, Execute(m_stMysql, "INSERT INTO t (id, v) VALUES (7, 1), (NULL, 2)"));
  ASSERT_EQ(8u, m_stMysql.InsertId());
  Rows_t vecRows{{"before"}};
  EXPECT_EQ(-1, m_stMysql.ExecuteSql("SELECT * FROM nothing", 21, vecRows));
  EXPECT_STREQ("Table 'test.nothing' doesn't exist", m_stMysql.ErrorMessage());
  EXPECT_EQ(Rows_t{{"before"}}, vecRows);
  EXPECT_EQ(2u, m_stMysql.AffectedRows());
  EXPECT_EQ(8u, m_stMysql.InsertId());
}

TEST_F(MysqlObjTest, SeveralStatementsAreRefusedAfterConnect) {
  EXPECT_EQ(-1, Execute(m_stMysql, "INSERT INTO t (v) VALUES (1); INSERT INTO t (v) VALUES (2)"));
  EXPECT_NE(nullptr, strstr(m_stMysql.ErrorMessage(), "You have an error in your SQL syntax"));
  EXPECT_EQ("0", Value(m_stMysql, "SELECT COUNT(*) FROM t"));
}

TEST_F(MysqlObjTest, AfterReconnectSeveralStatementsRunAndTheFirstOnesRowsAreGiven) {
  ASSERT_TRUE(m_stMysql.Reconnect());
  EXPECT_EQ((Rows_t{{"1"}, {"2"}}),
            Query(m_stMysql,
                  "SELECT 1 UNION SELECT 2; SELECT 3; INSERT INTO t (v) VALUES (4); "
                  "SELECT seq FROM seq_1_to_1000"));
  EXPECT_EQ(2u, m_stMysql.AffectedRows());
  EXPECT_EQ(0u, m_stMysql.InsertId());
  EXPECT_EQ("4", Value(m_stMysql, "SELECT v FROM t"));  // all was received: the next query works
}

TEST_F(MysqlObjTest, FirstStatementsCountersAreKept) {
  ASSERT_TRUE(m_stMysql.Reconnect());
  EXPECT_EQ(Rows_t{}, Query(m_stMysql,
                            "INSERT INTO t (v) VALUES (1), (2); SELECT 'dropped'; "
                            "INSERT INTO t (v) VALUES (3)"));
  EXPECT_EQ(2u, m_stMysql.AffectedRows());
  EXPECT_EQ(1u, m_stMysql.InsertId());
}

TEST_F(MysqlObjTest, ErrorInALaterStatementEndsTheTextAndIsNotReported) {
  ASSERT_TRUE(m_stMysql.Reconnect());
  EXPECT_EQ(Rows_t{{"1"}},
            Query(m_stMysql, "SELECT 1; SELECT nothing; INSERT INTO t (v) VALUES (3)"));
  EXPECT_STREQ("", m_stMysql.ErrorMessage());
  EXPECT_EQ("0", Value(m_stMysql, "SELECT COUNT(*) FROM t"));
}

TEST_F(MysqlObjTest, ErrorInTheFirstStatementIsReportedAndTheOthersDoNotRun) {
  ASSERT_TRUE(m_stMysql.Reconnect());
  EXPECT_EQ(-1, Execute(m_stMysql, "SELECT nothing; INSERT INTO t (v) VALUES (3)"));
  EXPECT_STREQ("Unknown column 'nothing' in 'SELECT'", m_stMysql.ErrorMessage());
  EXPECT_EQ("0", Value(m_stMysql, "SELECT COUNT(*) FROM t"));
}

TEST_F(MysqlObjTest, ProceduresLaterResultsAreDroppedAfterConnectToo) {
  ASSERT_EQ(0, Execute(m_stMysql,
                       "CREATE PROCEDURE p() BEGIN SELECT 'first'; SELECT 'second', 2; "
                       "INSERT INTO t (v) VALUES (3); END"));
  EXPECT_EQ(Rows_t{{"first"}}, Query(m_stMysql, "CALL p()"));
  EXPECT_EQ(1u, m_stMysql.AffectedRows());
  EXPECT_EQ("3", Value(m_stMysql, "SELECT v FROM t"));
}

TEST_F(MysqlObjTest, ResultThatBreaksHalfWayGivesNothingAndNoCounters) {
  const auto pCut = ConnectThroughCut(500000);
  ASSERT_EQ(0, Execute(m_stMysql, "INSERT INTO t (v) VALUES (1), (2)"));
  Rows_t vecRows{{"before"}};
  EXPECT_EQ(-1, m_stMysql.ExecuteSql("SELECT seq FROM seq_1_to_100000", 31, vecRows));
  EXPECT_NE(nullptr, strstr(m_stMysql.ErrorMessage(), "Lost connection"))
      << m_stMysql.ErrorMessage();
  EXPECT_EQ(Rows_t{{"before"}}, vecRows);
  EXPECT_EQ(2u, m_stMysql.AffectedRows());
  EXPECT_EQ(1u, m_stMysql.InsertId());
}

TEST_F(MysqlObjTest, LaterResultThatBreaksHalfWayFailsAndKeepsTheFirst) {
  ASSERT_EQ(0, Execute(m_stMysql,
                       "CREATE PROCEDURE p() BEGIN SELECT 'first'; "
                       "SELECT seq FROM seq_1_to_100000; END"));
  const auto pCut = ConnectThroughCut(500000);
  Rows_t vecRows;
  EXPECT_EQ(-1, m_stMysql.ExecuteSql("CALL p()", 8, vecRows));
  EXPECT_NE(nullptr, strstr(m_stMysql.ErrorMessage(), "Lost connection"))
      << m_stMysql.ErrorMessage();
  EXPECT_EQ(Rows_t{{"first"}}, vecRows);
  EXPECT_EQ(1u, m_stMysql.AffectedRows());
}

TEST_F(MysqlObjTest, AfterConnectTheServersRestartIsSurvivedInANewSession) {
  ASSERT_EQ(0, Execute(m_stMysql, "SET @noted = 1"));
  Server().Stop();
  Server().Start();
  EXPECT_EQ(0, Execute(m_stMysql, "DO 1")) << m_stMysql.ErrorMessage();
  EXPECT_EQ("1", Value(m_stMysql, "SELECT @noted IS NULL"));
  EXPECT_EQ(DATABASE, Value(m_stMysql, "SELECT DATABASE()"));
}

TEST_F(MysqlObjTest, AfterReconnectTheServersRestartNeedsAnother) {
  ASSERT_TRUE(m_stMysql.Reconnect());
  Server().Stop();
  Server().Start();
  EXPECT_EQ(-1, Execute(m_stMysql, "DO 1"));
  EXPECT_STRNE("", m_stMysql.ErrorMessage());
  EXPECT_EQ(-1, Execute(m_stMysql, "DO 1"));
  EXPECT_NE(nullptr, m_stMysql.get());
  EXPECT_TRUE(m_stMysql.Reconnect());
  EXPECT_EQ("1", Value(m_stMysql, "SELECT 1"));
}

TEST_F(MysqlObjTest, ConnectionsAndFailuresLeaveNoDescriptorOpen) {
  m_stMysql.Close();
  const int iDescriptors = OpenDescriptors();
  for (int i = 0; i < 20; ++i) {
    MysqlObj stMysql;
    EXPECT_TRUE(Connect(stMysql));
    EXPECT_EQ(-1, Execute(stMysql, "SELECT nothing"));
    EXPECT_FALSE(Connect(stMysql, NOWHERE));
    EXPECT_TRUE(stMysql.Reconnect());
  }
  EXPECT_EQ(iDescriptors, OpenDescriptors());
}

}  // namespace
