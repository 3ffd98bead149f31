// A database connection while each system call of the client library fails in turn.

#include <gtest/gtest.h>

#include <string>

#include "db_connection_pool.h"
#include "failing_call.h"
#include "mysql_server_fixture.h"

namespace {

class MysqlCallTest : public MysqlTest {
 protected:
  class OwnPool : public DbConnectionPool {};

  // An error leaves a text; Reconnect() makes the connection good again, whatever it has met.
  static void ExpectUsableAfter(bool bFailed, MysqlObj& stMysql) {
    if (bFailed) {
      EXPECT_STRNE("", stMysql.ErrorMessage());
      ASSERT_TRUE(stMysql.Reconnect()) << stMysql.ErrorMessage();
    }
    EXPECT_EQ("7", Value(stMysql, "SELECT 7"));
  }
};

TEST_F(MysqlCallTest, ConnectTellsWhyItFailedAndCanBeRepeated) {
  FailEachCall([](Attempt& stAttempt) {
    MysqlObj stMysql;
    const bool bConnected = stAttempt.Run([&] { return Connect(stMysql); });
    EXPECT_TRUE(bConnected || stAttempt.Fails());
    if (!bConnected) {
      EXPECT_STRNE("", stMysql.ErrorMessage());
      ASSERT_TRUE(Connect(stMysql)) << stMysql.ErrorMessage();
    }
    EXPECT_EQ("7", Value(stMysql, "SELECT 7"));
  });
}

TEST_F(MysqlCallTest, ReconnectTellsWhyItFailedAndCanBeRepeated) {
  FailEachCall([](Attempt& stAttempt) {
    MysqlObj stMysql;
    ASSERT_TRUE(Connect(stMysql));
    const bool bConnected = stAttempt.Run([&] { return stMysql.Reconnect(); });
    EXPECT_TRUE(bConnected || stAttempt.Fails());
    ExpectUsableAfter(!bConnected, stMysql);
  });
}

TEST_F(MysqlCallTest, QueryGivesItsRowsOrFailsAndReconnectHelps) {
  FailEachCall([](Attempt& stAttempt) {
    MysqlObj stMysql;
    ASSERT_TRUE(ConnectForSeveral(stMysql));
    Rows_t vecRows;
    const std::string strSql = "SELECT REPEAT('x', 100000); SELECT 2";
    const int iResult = stAttempt.Run([&] {
      return stMysql.ExecuteSql(strSql.data(), static_cast<unsigned int>(strSql.size()), vecRows);
    });
    EXPECT_TRUE(iResult == 0 || stAttempt.Fails());
    if (iResult == 0) {
      EXPECT_EQ((Rows_t{{std::string(100000, 'x')}}), vecRows);
    }
    // Where it is the second statement that fails, that is not told until the next query.
    const bool bLost = stAttempt.Fails() && iResult == 0 && Value(stMysql, "SELECT 7") != "7";
    ExpectUsableAfter(iResult != 0 || bLost, stMysql);
  });
}

TEST_F(MysqlCallTest, SelectedDatabaseIsChangedOrTheErrorTold) {
  FailEachCall([](Attempt& stAttempt) {
    MysqlObj stMysql;
    ASSERT_TRUE(ConnectForSeveral(stMysql, nullptr));
    const int iResult = stAttempt.Run([&] { return stMysql.SelectDb(DATABASE); });
    EXPECT_TRUE(iResult == 0 || stAttempt.Fails());
    ExpectUsableAfter(iResult != 0, stMysql);
  });
}

TEST_F(MysqlCallTest, CloseLeavesNothing) {
  FailEachCall([](Attempt& stAttempt) {
    MysqlObj stMysql;
    ASSERT_TRUE(Connect(stMysql));
    stAttempt.Run([&] { stMysql.Close(); });
  });
}

TEST_F(MysqlCallTest, PoolThatCanNotBeFilledTellsWhyAndKeepsWhatItHas) {
  FailEachCall([](Attempt& stAttempt) {
    OwnPool stPool;
    const auto fnInit = [&] {
      return stPool.Init(1, "name", MysqlServer::HOST, MysqlServer::USER, MysqlServer::PASSWORD,
                         DATABASE, Server().Port());
    };
    const int iResult = stAttempt.Run(fnInit);
    EXPECT_TRUE(iResult == 1 || (stAttempt.Fails() && iResult == -1));
    if (iResult == -1) {
      EXPECT_EQ(nullptr, stPool.GetFreeMysql("name"));
      EXPECT_EQ(1, fnInit());
    }
    MysqlObj* pMysql = stPool.GetFreeMysql("name");
    ASSERT_NE(nullptr, pMysql);
    EXPECT_EQ("7", Value(*pMysql, "SELECT 7"));
    stPool.ReleaseMysql("name", pMysql);
  });
}

}  // namespace
