#ifndef ZELK_COMMON_MYSQL_OBJ_H
#define ZELK_COMMON_MYSQL_OBJ_H

#include <mysql/mysql.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "object.h"

// One connection to a MySQL or MariaDB server.
//
// Every call blocks until the server has answered. One thread at a time. Not across fork(): in a
// child, the destructor or Close() of a connection made before would end it for the parent too; a
// child makes its own. No command that the host runs keeps the session open: the connection is
// close-on-exec, but for one that the client library has made by itself (see below). A process that
// dies leaves nothing: the server rolls back what was open.
//
// Two ways to connect, which differ deliberately:
// - Connect(): one statement per text; the client library connects again by itself when it finds,
//   on sending a query, that the connection is gone. That is a new session: transaction, locks,
//   temporary tables and session variables of the old one are lost without an error. Newer MySQL
//   client libraries (8.0.34 and later) print a line to standard error that this option is
//   deprecated; MariaDB's does not.
// - Reconnect(): several statements per text, separated by semicolons; once the connection is lost
//   every query fails, until the next Reconnect() or Connect().
class MysqlObj : public Object {
 public:
  // Closed, with nothing remembered.
  MysqlObj() = default;
  ~MysqlObj() override;
  MysqlObj(const MysqlObj&) = delete;
  MysqlObj& operator=(const MysqlObj&) = delete;

  // Closes what is open, and connects. Null arguments and port 0 mean the client library's
  // defaults: local server by its Unix socket, the login name, no password, no database, 3306. All
  // texts are copied. Returns false with the object closed and ErrorMessage() set (unless memory
  // ran out); Reconnect() then still uses the arguments of the last Connect() that succeeded.
  bool Connect(const char* pHost, const char* pUser, const char* pPassword, const char* pDb,
               unsigned int iPort);

  // Closes what is open, and connects with the arguments of the last successful Connect(), empty
  // texts being null; the database of a SelectDb() since then is not among them. Fails as
  // Connect() does.
  bool Reconnect();

  // Ends the session; on a closed object nothing.
  void Close();

  // Makes pDb the session's database. 0, or the client library's result after a failure, with
  // ErrorMessage() set. The object must be open; otherwise the process ends by an assertion.
  int SelectDb(const char* pDb);

  // Runs the iLength bytes at pSql, which may contain zero bytes and need no terminator, and
  // appends the rows of the first result to vecRows: one string per column, whole whatever its
  // bytes, NULL as an empty string. vecRows is not cleared first.
  //
  // Of several statements, and of a procedure's several results, the others are received and
  // dropped. The server stops at the first statement that fails; deliberately that is reported
  // only of the first one.
  //
  // 0, or -1 with ErrorMessage() set: the query was refused or the connection lost (counters and
  // vecRows are as before), or a later result could not be received (counters and rows of the
  // first stay). Never tried again here. The object must be open; otherwise the process ends by
  // an assertion.
  int ExecuteSql(const char* pSql, unsigned int iLength,
                 std::vector<std::vector<std::string>>& vecRows);

  // The client library's text of the last failure, "" before the first; a success does not clear
  // it. Valid until the next failure.
  const char* ErrorMessage() const { return m_strErrorMessage.c_str(); }

  // Of the last successful ExecuteSql()'s first statement: rows changed, or rows returned (modulo
  // 2^32); and the key that an AUTO_INCREMENT column was given, 0 when there was none.
  uint64_t AffectedRows() const { return m_iAffectedRows; }
  uint64_t InsertId() const { return m_iInsertId; }

  // The client library's handle, for what is missing here; stays the object's. Null when closed.
  MYSQL* get() { return m_pMysql; }

  // The handle's address.
  void Dump(int iFD) override;

 protected:
  // Copies the handle's error text, "" when there is none, to ErrorMessage() and returns it.
  const char* _ErrorMessage();  // NOLINT(bugprone-reserved-identifier): what hosts call

 private:
  int AppendRows(std::vector<std::vector<std::string>>& vecRows);
  int DropResults();
  int Failed();

  std::string m_strErrorMessage;
  MYSQL* m_pMysql = nullptr;
  std::string m_strHost;
  std::string m_strUser;
  std::string m_strPassword;
  std::string m_strDb;
  unsigned int m_iPort = 0;
  std::string m_strError;  // not used
  uint64_t m_iAffectedRows = 0;
  uint64_t m_iInsertId = 0;
};

#endif
