#include "db_connection_pool.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <memory>

#include "mysql_server_fixture.h"

namespace {

const char* const WRONG_PASSWORD = "wrong";

class DbConnectionPoolTest : public MysqlTest {
 protected:
  // A pool of one's own: the process-wide one can not be replaced between tests.
  class OwnPool : public DbConnectionPool {};

  int Init(DbConnectionPool& stPool, int iCount, const char* pName,
           const char* pPassword = MysqlServer::PASSWORD) {
    return stPool.Init(iCount, pName, MysqlServer::HOST, MysqlServer::USER, pPassword, DATABASE,
                       Server().Port());
  }

  // The user's sessions besides the one that asks.
  std::string Sessions() {
    MysqlObj stMysql;
    return Connect(stMysql) ? Value(stMysql,
                                    "SELECT COUNT(*) - 1 FROM information_schema."
                                    "processlist WHERE user = 'zelk'")
                            : stMysql.ErrorMessage();
  }

  bool WaitForSessions(const std::string& strCount) {
    return WaitUntil([&] { return Sessions() == strCount; });
  }

  void SetUp() override {
    MysqlTest::SetUp();
    ASSERT_TRUE(WaitForSessions("0"));  // those of an earlier case are ending
  }

  using Mysql_t = std::unique_ptr<MysqlObj>;

  OwnPool m_stPool;
};

TEST(DbConnectionPoolEmptyTest, InstanceIsOneObject) {
  EXPECT_EQ(&DbConnectionPool::Instance(), &DbConnectionPool::Instance());
}

TEST(DbConnectionPoolEmptyTest, NewPoolHasNoConnectionAndNoError) {
  EXPECT_EQ(nullptr, DbConnectionPool::Instance().GetFreeMysql("unknown"));
  EXPECT_STREQ("", DbConnectionPool::Instance().LastError());
  DbConnectionPool::Instance().Fini();
}

TEST(DbConnectionPoolEmptyTest, DumpWritesNothing) {
  EXPECT_EQ("", CaptureDescriptor([](int iFD) { DbConnectionPool::Instance().Dump(iFD); }));
}

TEST_F(DbConnectionPoolTest, CountBelow1ConnectsNothing) {
  EXPECT_EQ(0, Init(m_stPool, 0, "a", WRONG_PASSWORD));
  EXPECT_EQ(0, Init(m_stPool, -1, "a", WRONG_PASSWORD));
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql("a"));
  EXPECT_STREQ("", m_stPool.LastError());
  EXPECT_TRUE(WaitForSessions("0"));
}

TEST_F(DbConnectionPoolTest, InitConnectsAsManyAsAskedFor) {
  EXPECT_EQ(3, Init(m_stPool, 3, "a"));
  EXPECT_TRUE(WaitForSessions("3"));
  const Mysql_t pMysql(m_stPool.GetFreeMysql("a"));
  ASSERT_NE(nullptr, pMysql);
  EXPECT_EQ((Rows_t{{"zelk@127.0.0.1", DATABASE}}), Query(*pMysql, "SELECT USER(), DATABASE()"));
}

TEST_F(DbConnectionPoolTest, ConnectionsAreMadeAsByConnect) {
  ASSERT_EQ(1, Init(m_stPool, 1, "a"));
  const Mysql_t pMysql(m_stPool.GetFreeMysql("a"));
  EXPECT_EQ(-1, Execute(*pMysql, "SELECT 1; SELECT 2"));
  Server().Stop();
  Server().Start();
  EXPECT_EQ("1", Value(*pMysql, "SELECT 1"));
}

TEST_F(DbConnectionPoolTest, EachConnectionIsHandedOutOnceAndAgainWhenGivenBack) {
  ASSERT_EQ(2, Init(m_stPool, 2, "a"));
  MysqlObj* pFirst = m_stPool.GetFreeMysql("a");
  const Mysql_t pSecond(m_stPool.GetFreeMysql("a"));
  ASSERT_NE(nullptr, pFirst);
  ASSERT_NE(nullptr, pSecond);
  EXPECT_NE(pFirst, pSecond.get());
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql("a"));
  m_stPool.ReleaseMysql("a", pFirst);
  EXPECT_EQ(pFirst, m_stPool.GetFreeMysql("a"));
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql("a"));
  m_stPool.ReleaseMysql("a", pFirst);
}

TEST_F(DbConnectionPoolTest, TheOneIdleLongestComesFirst) {
  ASSERT_EQ(3, Init(m_stPool, 3, "a"));
  MysqlObj* pFirst = m_stPool.GetFreeMysql("a");
  MysqlObj* pSecond = m_stPool.GetFreeMysql("a");
  m_stPool.ReleaseMysql("a", pSecond);
  m_stPool.ReleaseMysql("a", pFirst);
  const Mysql_t pThird(m_stPool.GetFreeMysql("a"));
  EXPECT_NE(pFirst, pThird.get());
  EXPECT_NE(pSecond, pThird.get());
  EXPECT_EQ(pSecond, m_stPool.GetFreeMysql("a"));
  EXPECT_EQ(pFirst, m_stPool.GetFreeMysql("a"));
  delete pFirst;
  delete pSecond;
}

TEST_F(DbConnectionPoolTest, LaterInitAddsBehindTheIdleOnes) {
  ASSERT_EQ(1, Init(m_stPool, 1, "a"));
  MysqlObj* pOld = m_stPool.GetFreeMysql("a");
  m_stPool.ReleaseMysql("a", pOld);
  EXPECT_EQ(2, Init(m_stPool, 2, "a"));
  const Mysql_t pFirst(m_stPool.GetFreeMysql("a"));
  EXPECT_EQ(pOld, pFirst.get());
  EXPECT_TRUE(WaitForSessions("3"));
}

TEST_F(DbConnectionPoolTest, NamesAreApart) {
  ASSERT_EQ(1, Init(m_stPool, 1, "b"));
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql("a"));
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql("bb"));
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql("c"));
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql(""));
  ASSERT_EQ(1, Init(m_stPool, 1, ""));
  const Mysql_t pNameless(m_stPool.GetFreeMysql(""));
  EXPECT_NE(nullptr, pNameless);
  EXPECT_NE(nullptr, Mysql_t(m_stPool.GetFreeMysql("b")));
}

TEST_F(DbConnectionPoolTest, NameIsCopied) {
  char szName[] = "abc";
  ASSERT_EQ(1, Init(m_stPool, 1, szName));
  szName[0] = 'x';
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql(szName));
  EXPECT_NE(nullptr, Mysql_t(m_stPool.GetFreeMysql("abc")));
}

TEST_F(DbConnectionPoolTest, ConnectionMayBeGivenBackUnderAnotherName) {
  ASSERT_EQ(1, Init(m_stPool, 1, "a"));
  MysqlObj* pMysql = m_stPool.GetFreeMysql("a");
  m_stPool.ReleaseMysql("b", pMysql);
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql("a"));
  EXPECT_EQ(pMysql, m_stPool.GetFreeMysql("b"));
  m_stPool.ReleaseMysql("b", pMysql);
}

TEST_F(DbConnectionPoolTest, NullAndClosedConnectionsAreTakenBackUnchecked) {
  auto* pClosed = new MysqlObj;
  m_stPool.ReleaseMysql("a", nullptr);
  m_stPool.ReleaseMysql("a", pClosed);
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql("a"));
  EXPECT_EQ(pClosed, m_stPool.GetFreeMysql("a"));
  m_stPool.ReleaseMysql("a", pClosed);
  m_stPool.ReleaseMysql("a", nullptr);
  m_stPool.Fini();
}

TEST_F(DbConnectionPoolTest, DuplicateIsHandedOutTwice) {
  MysqlObj stMysql;
  m_stPool.ReleaseMysql("a", &stMysql);
  m_stPool.ReleaseMysql("a", &stMysql);
  EXPECT_EQ(&stMysql, m_stPool.GetFreeMysql("a"));
  EXPECT_EQ(&stMysql, m_stPool.GetFreeMysql("a"));
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql("a"));
}

TEST_F(DbConnectionPoolTest, DeadConnectionIsHandedOutAllTheSame) {
  ASSERT_EQ(1, Init(m_stPool, 1, "a"));
  Server().Stop();
  const Mysql_t pMysql(m_stPool.GetFreeMysql("a"));
  ASSERT_NE(nullptr, pMysql);
  EXPECT_EQ(-1, Execute(*pMysql, "DO 1"));
}

TEST_F(DbConnectionPoolTest, RefusedPasswordIsTold) {
  EXPECT_EQ(-1, Init(m_stPool, 2, "a", WRONG_PASSWORD));
  EXPECT_NE(nullptr, strstr(m_stPool.LastError(), "Access denied for user 'zelk'@"))
      << m_stPool.LastError();
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql("a"));
}

TEST_F(DbConnectionPoolTest, LastErrorOutlivesSuccessesAndTellsTheLastFailure) {
  ASSERT_EQ(-1, Init(m_stPool, 1, "a", WRONG_PASSWORD));
  const std::string strText = m_stPool.LastError();
  EXPECT_EQ(1, Init(m_stPool, 1, "a"));
  EXPECT_EQ(0, Init(m_stPool, 0, "a"));
  m_stPool.Fini();
  EXPECT_EQ(strText, m_stPool.LastError());
  EXPECT_EQ(-1, m_stPool.Init(1, "a", MysqlServer::HOST, MysqlServer::USER, MysqlServer::PASSWORD,
                              "nowhere", Server().Port()));
  EXPECT_STREQ("Unknown database 'nowhere'", m_stPool.LastError());
}

TEST_F(DbConnectionPoolTest, ConnectionsBeforeAFailureStay) {
  MysqlObj stAdmin;
  ASSERT_TRUE(Connect(stAdmin));
  ASSERT_EQ(0, Execute(stAdmin,
                       "CREATE OR REPLACE USER two@'%' IDENTIFIED BY 'secret' "
                       "WITH MAX_USER_CONNECTIONS 2"));
  EXPECT_EQ(-1,
            m_stPool.Init(4, "a", MysqlServer::HOST, "two", "secret", nullptr, Server().Port()));
  EXPECT_NE(nullptr, strstr(m_stPool.LastError(), "max_user_connections")) << m_stPool.LastError();
  const Mysql_t pFirst(m_stPool.GetFreeMysql("a"));
  const Mysql_t pSecond(m_stPool.GetFreeMysql("a"));
  ASSERT_NE(nullptr, pSecond);
  EXPECT_EQ("1", Value(*pSecond, "SELECT 1"));
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql("a"));
}

TEST_F(DbConnectionPoolTest, FiniClosesTheIdleOnesAndLeavesThoseHandedOut) {
  ASSERT_EQ(3, Init(m_stPool, 3, "a"));
  ASSERT_EQ(1, Init(m_stPool, 1, "b"));
  const Mysql_t pMysql(m_stPool.GetFreeMysql("a"));
  m_stPool.Fini();
  EXPECT_TRUE(WaitForSessions("1"));
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql("a"));
  EXPECT_EQ(nullptr, m_stPool.GetFreeMysql("b"));
  EXPECT_EQ("1", Value(*pMysql, "SELECT 1"));
  EXPECT_EQ(1, Init(m_stPool, 1, "a"));
}

TEST_F(DbConnectionPoolTest, DestructionClosesTheIdleOnesAndLeavesThoseHandedOut) {
  auto pPool = std::make_unique<OwnPool>();
  ASSERT_EQ(2, Init(*pPool, 2, "a"));
  const Mysql_t pMysql(pPool->GetFreeMysql("a"));
  pPool.reset();
  EXPECT_TRUE(WaitForSessions("1"));
  EXPECT_EQ("1", Value(*pMysql, "SELECT 1"));
}

// The server counts sessions that end without a word.
TEST_F(DbConnectionPoolTest, TheProcesssPoolTakesLeaveOfTheServerAtExit) {
  MysqlObj stMysql;
  ASSERT_TRUE(Connect(stMysql));
  const std::string strAborted = "SHOW GLOBAL STATUS LIKE 'Aborted_clients'";
  const Rows_t vecBefore = Query(stMysql, strAborted);
  ForkedPeer stPeer([&]() -> int {
    exit(Init(DbConnectionPool::Instance(), 2, "a"));  // with the destruction of what is static
  });
  EXPECT_EQ(2, stPeer.Wait());
  EXPECT_TRUE(WaitForSessions("1"));
  EXPECT_EQ(vecBefore, Query(stMysql, strAborted));
}

}  // namespace
