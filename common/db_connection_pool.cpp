#include "db_connection_pool.h"

#include <memory>

DbConnectionPool& DbConnectionPool::Instance() {
  static DbConnectionPool stPool;
  return stPool;
}

DbConnectionPool::~DbConnectionPool() { Fini(); }

int DbConnectionPool::Init(int iCount, const char* pName, const char* pHost, const char* pUser,
                           const char* pPassword, const char* pDb, unsigned int iPort) {
  if (iCount < 1) {
    return 0;
  }
  for (int i = 0; i < iCount; ++i) {
    auto pMysql = std::make_unique<MysqlObj>();
    if (!pMysql->Connect(pHost, pUser, pPassword, pDb, iPort)) {
      m_strLastError = pMysql->ErrorMessage();
      return -1;
    }
    ReleaseMysql(pName, pMysql.get());
    static_cast<void>(pMysql.release());  // the pool's only now: that may have thrown
  }
  return iCount;
}

MysqlObj* DbConnectionPool::GetFreeMysql(const char* pName) {
  const auto it = m_mapFreeMysql.lower_bound(pName);
  if (it == m_mapFreeMysql.end() || it->first != pName) {
    return nullptr;
  }
  MysqlObj* pMysql = it->second;
  m_mapFreeMysql.erase(it);
  return pMysql;
}

void DbConnectionPool::ReleaseMysql(const char* pName, MysqlObj* pMysql) {
  m_mapFreeMysql.emplace(pName, pMysql);
}

void DbConnectionPool::Fini() {
  for (const auto& stEntry : m_mapFreeMysql) {
    delete stEntry.second;
  }
  m_mapFreeMysql.clear();
}

void DbConnectionPool::Dump(int /*iFD*/) {}
