#ifndef ZELK_TESTS_MYSQL_SERVER_FIXTURE_H
#define ZELK_TESTS_MYSQL_SERVER_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mysql_obj.h"
#include "mysql_server.h"
#include "test_support.h"

using Rows_t = std::vector<std::vector<std::string>>;

// A case with a server, shared by the suite's cases that one program runs, and an empty database.
class MysqlTest : public ::testing::Test {
 protected:
  static constexpr const char* DATABASE = "test";

  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void SetUp() override;

  static MysqlServer& Server() { return *s_pServer; }
  static bool Connect(MysqlObj& stMysql, const char* pDb = DATABASE);
  // Connected by Reconnect(): several statements per text, no automatic reconnect.
  static bool ConnectForSeveral(MysqlObj& stMysql, const char* pDb = DATABASE);
  // The result of ExecuteSql(), rows dropped.
  static int Execute(MysqlObj& stMysql, const std::string& strSql);
  // The rows, or one row with one error text.
  static Rows_t Query(MysqlObj& stMysql, const std::string& strSql);
  // The first column of the first row, or the error text.
  static std::string Value(MysqlObj& stMysql, const std::string& strSql);

 private:
  static MysqlServer* s_pServer;
};

#endif
