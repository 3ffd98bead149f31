// Connections that wait to be used: guide_database HOST PORT USER PASSWORD DATABASE.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "db_connection_pool.h"

using Rows_t = std::vector<std::vector<std::string>>;

Rows_t Run(MysqlObj* pMysql, const std::string& strSql) {
  Rows_t vecRows;
  if (pMysql->ExecuteSql(strSql.data(), static_cast<unsigned int>(strSql.size()), vecRows) != 0) {
    printf("failed: %s\n", pMysql->ErrorMessage());
  }
  return vecRows;
}

int main(int argc, char** argv) {
  DbConnectionPool& stPool = DbConnectionPool::Instance();
  const auto iPort = static_cast<unsigned int>(argc == 6 ? atoi(argv[2]) : 0);
  if (argc != 6 || stPool.Init(2, "shop", argv[1], argv[3], argv[4], argv[5], iPort) != 2) {
    printf("no connection: %s\n", stPool.LastError());
    return 1;
  }
  MysqlObj* pMysql = stPool.GetFreeMysql("shop");
  Run(pMysql, "CREATE TABLE fruit (id INT AUTO_INCREMENT PRIMARY KEY, name TEXT)");
  Run(pMysql, "INSERT INTO fruit (name) VALUES ('apple'), (NULL), ('pear')");
  printf("%lu rows, first id %lu\n", pMysql->AffectedRows(), pMysql->InsertId());
  for (const std::vector<std::string>& vecRow : Run(pMysql, "SELECT id, name FROM fruit")) {
    printf("%s: \"%s\"\n", vecRow[0].c_str(), vecRow[1].c_str());
  }
  Run(pMysql, "SELECT * FROM pear");
  stPool.ReleaseMysql("shop", pMysql);  // behind the other idle one
  stPool.Fini();
}
