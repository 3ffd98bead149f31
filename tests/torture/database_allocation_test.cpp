// The database classes while memory is lacking, with a real server.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <mysql.h>

#include <memory>
#include <string>

#include "db_connection_pool.h"
#include "failing_allocation.h"
#include "mysql_server_fixture.h"

// MariaDB's client library 10.11 crashes when it has no memory for the server's version. So its own
// allocations do not fail; where it may return without a result for that, it does so.

#define REAL(function) (*reinterpret_cast<decltype(&(function))>(dlsym(RTLD_NEXT, #function)))

extern "C" {

MYSQL* mysql_init(MYSQL* pMysql) {
  if (FailsAsAWhole()) {
    return nullptr;
  }
  const NoFailing stNone;
  return REAL(mysql_init)(pMysql);
}

MYSQL* mysql_real_connect(MYSQL* pMysql, const char* pHost, const char* pUser,
                          const char* pPassword, const char* pDb, unsigned int iPort,
                          const char* pSocket, unsigned long iFlags) {
  if (FailsAsAWhole()) {
    return nullptr;
  }
  const NoFailing stNone;
  return REAL(mysql_real_connect)(pMysql, pHost, pUser, pPassword, pDb, iPort, pSocket, iFlags);
}

int mysql_options(MYSQL* pMysql, mysql_option eOption, const void* pValue) {
  const NoFailing stNone;
  return REAL(mysql_options)(pMysql, eOption, pValue);
}

int mysql_real_query(MYSQL* pMysql, const char* pSql, unsigned long iLength) {
  if (FailsAsAWhole()) {
    return 1;
  }
  const NoFailing stNone;
  return REAL(mysql_real_query)(pMysql, pSql, iLength);
}

int mysql_select_db(MYSQL* pMysql, const char* pDb) {
  const NoFailing stNone;
  return REAL(mysql_select_db)(pMysql, pDb);
}

MYSQL_RES* mysql_store_result(MYSQL* pMysql) {
  const NoFailing stNone;
  return REAL(mysql_store_result)(pMysql);
}

int mysql_next_result(MYSQL* pMysql) {
  const NoFailing stNone;
  return REAL(mysql_next_result)(pMysql);
}

}  // extern "C"

namespace {

// Longer than what a string holds in itself.
const char SELECT[] =
    "SELECT REPEAT('a', 50), REPEAT('b', 50) UNION ALL SELECT 'c', REPEAT('d', 50)";
const Rows_t ROWS{{std::string(50, 'a'), std::string(50, 'b')}, {"c", std::string(50, 'd')}};

class DatabaseAllocationTest : public MysqlTest {
 protected:
  static int Select(MysqlObj& stMysql, const std::string& strSql, Rows_t& vecRows) {
    return stMysql.ExecuteSql(strSql.data(), static_cast<unsigned int>(strSql.size()), vecRows);
  }
};

TEST_F(DatabaseAllocationTest, ObjectIsConnectedOrMayBeConnectedAgain) {
  ForEachFailingAllocation("MysqlObj::Connect", [&](FailingAllocation& stMemory) {
    MysqlObj stMysql;
    const bool bConnected = stMemory.Run(false, [&] { return Connect(stMysql); });
    EXPECT_EQ(bConnected, stMysql.get() != nullptr);
    if (!bConnected) {
      EXPECT_TRUE(stMemory.Failed());
      EXPECT_TRUE(Connect(stMysql));
    }
    EXPECT_EQ("1", Value(stMysql, "SELECT 1"));
  });
}

TEST_F(DatabaseAllocationTest, FailedConnectLeavesTheFormerConnectionOrNone) {
  MysqlObj stMysql;
  ASSERT_TRUE(Connect(stMysql));
  const std::string strOther = "another_database_with_a_long_name";
  ASSERT_EQ(0, Execute(stMysql, "CREATE DATABASE IF NOT EXISTS " + strOther));
  ForEachFailingAllocation("MysqlObj::Connect to another", [&](FailingAllocation& stMemory) {
    ASSERT_TRUE(Connect(stMysql));
    const bool bReturned = stMemory.Run([&] { Connect(stMysql, strOther.c_str()); });
    if (stMysql.get() == nullptr) {
      ASSERT_TRUE(bReturned && stMysql.Reconnect());
    }
    EXPECT_EQ(stMemory.Failed() ? DATABASE : strOther, Value(stMysql, "SELECT DATABASE()"));
  });
}

TEST_F(DatabaseAllocationTest, ObjectIsReconnectedOrClosed) {
  MysqlObj stMysql;
  ASSERT_TRUE(Connect(stMysql));
  ForEachFailingAllocation("MysqlObj::Reconnect", [&](FailingAllocation& stMemory) {
    const bool bConnected = stMemory.Run(false, [&] { return stMysql.Reconnect(); });
    EXPECT_EQ(bConnected, stMysql.get() != nullptr);
    EXPECT_TRUE(stMysql.Reconnect());
  });
}

TEST_F(DatabaseAllocationTest, RowsAreAppendedInWholeOrNotAtAll) {
  MysqlObj stMysql;
  ASSERT_TRUE(Connect(stMysql));
  const int iFailed =
      ForEachFailingAllocation("MysqlObj::ExecuteSql", [&](FailingAllocation& stMemory) {
        Rows_t vecRows{{"former"}};
        const int iResult = stMemory.Run(-1, [&] { return Select(stMysql, SELECT, vecRows); });
        EXPECT_EQ(stMemory.Failed() ? -1 : 0, iResult);
        EXPECT_EQ(iResult == 0 ? 3u : 1u, vecRows.size());
        EXPECT_EQ("former", vecRows[0][0]);
        EXPECT_EQ(ROWS, Query(stMysql, SELECT));
      });
  EXPECT_GT(iFailed, 4);
}

TEST_F(DatabaseAllocationTest, ResultsOfLaterStatementsAreDroppedWithoutMemoryToo) {
  MysqlObj stMysql;
  ASSERT_TRUE(ConnectForSeveral(stMysql));
  ForEachFailingAllocation(
      "MysqlObj::ExecuteSql of several statements", [&](FailingAllocation& stMemory) {
        Rows_t vecRows;
        stMemory.Run(
            [&] { Select(stMysql, std::string(SELECT) + "; SELECT 1; SELECT 2", vecRows); });
        EXPECT_EQ(ROWS, Query(stMysql, SELECT));
      });
}

TEST_F(DatabaseAllocationTest, ErrorIsReturnedWithAsMuchTextAsThereIsMemoryFor) {
  MysqlObj stMysql;
  ASSERT_TRUE(Connect(stMysql));
  const std::string strNobody = "nobody_knows_this_database";
  ASSERT_NE(0, stMysql.SelectDb(strNobody.c_str()));
  const std::string strText = stMysql.ErrorMessage();
  ForEachFailingAllocation("MysqlObj::SelectDb", [&](FailingAllocation& stMemory) {
    MysqlObj stOther;
    ASSERT_TRUE(Connect(stOther));
    EXPECT_NE(0, stMemory.Run(0, [&] { return stOther.SelectDb(strNobody.c_str()); }));
    const std::string strCut = stOther.ErrorMessage();
    EXPECT_EQ(strText.substr(0, strCut.size()), strCut);
    EXPECT_EQ(!stMemory.Failed(), strCut == strText);
  });
}

// ---- DbConnectionPool

class OwnPool : public DbConnectionPool {
 public:
  OwnPool() = default;
};

const char POOL[] = "a pool with a name that is long";

int Init(OwnPool& stPool, int iCount, uint16_t iPort) {
  return stPool.Init(iCount, POOL, MysqlServer::HOST, MysqlServer::USER, MysqlServer::PASSWORD,
                     "test", iPort);
}

TEST_F(DatabaseAllocationTest, PoolOwnsEveryConnectionThatItHasMade) {
  const int iFailed =
      ForEachFailingAllocation("DbConnectionPool::Init", [&](FailingAllocation& stMemory) {
        OwnPool stPool;
        const int iResult = stMemory.Run(-1, [&] { return Init(stPool, 2, Server().Port()); });
        EXPECT_EQ(stMemory.Failed() ? -1 : 2, iResult);
        int iConnections = 0;
        while (MysqlObj* pMysql = stPool.GetFreeMysql(POOL)) {
          EXPECT_EQ("1", Value(*pMysql, "SELECT 1"));
          delete pMysql;
          ++iConnections;
        }
        EXPECT_TRUE(iResult == 2 ? iConnections == 2 : iConnections < 2);
        EXPECT_EQ(1, Init(stPool, 1, Server().Port()));
      });
  EXPECT_GT(iFailed, 4);
}

TEST_F(DatabaseAllocationTest, ConnectionIsReleasedOrStillTheCallers) {
  ForEachFailingAllocation("DbConnectionPool::ReleaseMysql", [](FailingAllocation& stMemory) {
    OwnPool stPool;
    auto pMysql = std::make_unique<MysqlObj>();
    MysqlObj* const pReleased = pMysql.get();
    if (stMemory.Run([&] { stPool.ReleaseMysql(POOL, pMysql.get()); })) {
      static_cast<void>(pMysql.release());
    }
    EXPECT_EQ(pMysql == nullptr ? pReleased : nullptr, stPool.GetFreeMysql(POOL));
    pMysql.reset(pReleased == pMysql.get() ? pMysql.release() : pReleased);
  });
}

TEST_F(DatabaseAllocationTest, ConnectionIsTakenOrStaysInThePool) {
  ForEachFailingAllocation("DbConnectionPool::GetFreeMysql", [](FailingAllocation& stMemory) {
    OwnPool stPool;
    stPool.ReleaseMysql(POOL, new MysqlObj);
    std::unique_ptr<MysqlObj> pMysql;
    stMemory.Run([&] { pMysql.reset(stPool.GetFreeMysql(POOL)); });
    if (pMysql == nullptr) {
      pMysql.reset(stPool.GetFreeMysql(POOL));
    }
    EXPECT_NE(nullptr, pMysql);
    stPool.Fini();
  });
}

}  // namespace
