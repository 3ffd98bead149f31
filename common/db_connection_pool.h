#ifndef ZELK_COMMON_DB_CONNECTION_POOL_H
#define ZELK_COMMON_DB_CONNECTION_POOL_H

#include <functional>
#include <map>
#include <string>

#include "mysql_obj.h"
#include "object.h"

// The process's idle database connections, under names that the host chooses.
//
// It owns the idle ones and knows nothing of those handed out: they are the caller's until given
// back, or deleted by the caller. One instance per process; what is idle when the process exits
// is closed. Not locked. After fork() the child leaves the parent's connections alone and ends
// with _exit(), see MysqlObj.
class DbConnectionPool : public Object {
 public:
  static DbConnectionPool& Instance();

  DbConnectionPool(const DbConnectionPool&) = delete;
  DbConnectionPool& operator=(const DbConnectionPool&) = delete;

  // Makes iCount connections by MysqlObj::Connect() and puts them under pName, behind those that
  // are there. Returns iCount; 0 when that is below 1; -1 at the first failure, which LastError()
  // then tells: the connections made before it stay in the pool.
  int Init(int iCount, const char* pName, const char* pHost, const char* pUser,
           const char* pPassword, const char* pDb, unsigned int iPort);

  // Hands out the connection that has been idle longest under the name, null when there is none.
  // Whether it still works is not checked.
  MysqlObj* GetFreeMysql(const char* pName);

  // Takes over a connection from new, and puts it behind the idle ones under the name. Not
  // checked: null, one that is in the pool already (it would be destroyed twice), another name than
  // it came from.
  void ReleaseMysql(const char* pName, MysqlObj* pMysql);

  // Destroys all idle connections. The pool can be used again.
  void Fini();

  // The client library's text of the last failure in Init(), "" before the first; a later success
  // does not clear it. Valid until the next failure.
  const char* LastError() const { return m_strLastError.c_str(); }

  // Writes nothing.
  void Dump(int iFD) override;

 protected:
  DbConnectionPool() = default;
  ~DbConnectionPool() override;

 private:
  std::string m_strLastError;
  std::multimap<std::string, MysqlObj*, std::less<>> m_mapFreeMysql;  // equal names: oldest first
};

#endif
