#include "mysql_server_fixture.h"

MysqlServer* MysqlTest::s_pServer = nullptr;

void MysqlTest::SetUpTestSuite() { s_pServer = new MysqlServer; }

void MysqlTest::TearDownTestSuite() {
  delete s_pServer;
  s_pServer = nullptr;
}

void MysqlTest::SetUp() {
  ASSERT_NE(nullptr, s_pServer);
  Server().Start();
  MysqlObj stMysql;
  ASSERT_TRUE(Connect(stMysql, nullptr)) << stMysql.ErrorMessage();
  ASSERT_EQ(0, Execute(stMysql, std::string("CREATE OR REPLACE DATABASE ") + DATABASE));
}

bool MysqlTest::Connect(MysqlObj& stMysql, const char* pDb) {
  return stMysql.Connect(MysqlServer::HOST, MysqlServer::USER, MysqlServer::PASSWORD, pDb,
                         Server().Port());
}

bool MysqlTest::ConnectForSeveral(MysqlObj& stMysql, const char* pDb) {
  return Connect(stMysql, pDb) && stMysql.Reconnect();
}

int MysqlTest::Execute(MysqlObj& stMysql, const std::string& strSql) {
  Rows_t vecRows;
  return stMysql.ExecuteSql(strSql.data(), static_cast<unsigned int>(strSql.size()), vecRows);
}

Rows_t MysqlTest::Query(MysqlObj& stMysql, const std::string& strSql) {
  Rows_t vecRows;
  const auto iLength = static_cast<unsigned int>(strSql.size());
  return stMysql.ExecuteSql(strSql.data(), iLength, vecRows) == 0
             ? vecRows
             : Rows_t{{stMysql.ErrorMessage()}};
}

std::string MysqlTest::Value(MysqlObj& stMysql, const std::string& strSql) {
  const Rows_t vecRows = Query(stMysql, strSql);
  return vecRows.empty() || vecRows[0].empty() ? "(none)" : vecRows[0][0];
}
