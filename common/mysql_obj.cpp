#include "mysql_obj.h"

#include <fcntl.h>
#include <stdio.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "internal/always_assert.h"

namespace {

struct FreeResult_t {
  void operator()(MYSQL_RES* pResult) const { mysql_free_result(pResult); }
};
using ResultPtr_t = std::unique_ptr<MYSQL_RES, FreeResult_t>;

const char* TextOf(const char* pText) { return pText == nullptr ? "" : pText; }

const char* NullIfEmpty(const std::string& strText) {
  return strText.empty() ? nullptr : strText.c_str();
}

// A command that the host runs, and that outlives it, shall not keep the session with its
// transactions and locks. The client library does not see to it.
void CloseByExec(const MYSQL* pMysql) { fcntl(pMysql->net.fd, F_SETFD, FD_CLOEXEC); }

// Doubles at least, so that results which are appended one by one stay cheap.
void MakeRoom(size_t iRows, std::vector<std::vector<std::string>>& vecRows) {
  const size_t iWanted = vecRows.size() + iRows;
  if (iWanted > vecRows.capacity()) {
    vecRows.reserve(std::max(iWanted, vecRows.capacity() * 2));
  }
}

void AppendRow(MYSQL_ROW pRow, const unsigned long* pLengths, unsigned int iColumns,
               std::vector<std::vector<std::string>>& vecRows) {
  std::vector<std::string>& vecRow = vecRows.emplace_back();
  vecRow.reserve(iColumns);
  for (unsigned int i = 0; i < iColumns; ++i) {
    if (pRow[i] == nullptr) {
      vecRow.emplace_back();
    } else {
      vecRow.emplace_back(pRow[i], pLengths[i]);
    }
  }
}

}  // namespace

MysqlObj::~MysqlObj() { Close(); }

bool MysqlObj::Connect(const char* pHost, const char* pUser, const char* pPassword, const char* pDb,
                       unsigned int iPort) {
  // All that may throw comes first: what is remembered is of one connection.
  std::string strHost = TextOf(pHost);
  std::string strUser = TextOf(pUser);
  std::string strPassword = TextOf(pPassword);
  std::string strDb = TextOf(pDb);
  Close();
  m_pMysql = mysql_init(nullptr);
  if (m_pMysql == nullptr) {
    return false;
  }
  const bool bReconnect = true;
  static_assert(sizeof(bReconnect) == 1, "the client library reads one byte");
  if (mysql_options(m_pMysql, MYSQL_OPT_RECONNECT, &bReconnect) != 0 ||
      mysql_real_connect(m_pMysql, pHost, pUser, pPassword, pDb, iPort, nullptr, 0) == nullptr) {
    _ErrorMessage();
    Close();
    return false;
  }
  CloseByExec(m_pMysql);
  m_strHost.swap(strHost);
  m_strUser.swap(strUser);
  m_strPassword.swap(strPassword);
  m_strDb.swap(strDb);
  m_iPort = iPort;
  return true;
}

// Deliberately without MYSQL_OPT_RECONNECT, and with several statements per text.
bool MysqlObj::Reconnect() {
  Close();
  m_pMysql = mysql_init(nullptr);
  if (m_pMysql == nullptr) {
    return false;
  }
  if (mysql_real_connect(m_pMysql, NullIfEmpty(m_strHost), NullIfEmpty(m_strUser),
                         NullIfEmpty(m_strPassword), NullIfEmpty(m_strDb), m_iPort, nullptr,
                         CLIENT_MULTI_STATEMENTS) == nullptr) {
    _ErrorMessage();
    Close();
    return false;
  }
  CloseByExec(m_pMysql);
  return true;
}

void MysqlObj::Close() {
  if (m_pMysql != nullptr) {
    mysql_close(m_pMysql);
    m_pMysql = nullptr;
  }
}

int MysqlObj::SelectDb(const char* pDb) {
  assert(m_pMysql);
  const int iResult = mysql_select_db(m_pMysql, pDb);
  if (iResult != 0) {
    _ErrorMessage();
  }
  return iResult;
}

int MysqlObj::ExecuteSql(const char* pSql, unsigned int iLength,
                         std::vector<std::vector<std::string>>& vecRows) {
  assert(m_pMysql);
  if (mysql_real_query(m_pMysql, pSql, iLength) != 0) {
    return Failed();
  }
  if (mysql_field_count(m_pMysql) > 0) {
    const size_t iBefore = vecRows.size();
    try {
      if (AppendRows(vecRows) != 0) {
        return -1;
      }
    } catch (...) {  // no memory for the rows; the connection is good for the next query
      vecRows.erase(vecRows.begin() + static_cast<ptrdiff_t>(iBefore), vecRows.end());
      DropResults();
      throw;
    }
  } else {
    m_iAffectedRows = mysql_affected_rows(m_pMysql);
    m_iInsertId = mysql_insert_id(m_pMysql);
  }
  return DropResults();
}

int MysqlObj::AppendRows(std::vector<std::vector<std::string>>& vecRows) {
  const ResultPtr_t pResult(mysql_store_result(m_pMysql));
  if (pResult == nullptr) {
    return Failed();
  }
  const auto iRows = static_cast<uint32_t>(mysql_num_rows(pResult.get()));
  const unsigned int iColumns = mysql_field_count(m_pMysql);
  m_iAffectedRows = iRows;
  m_iInsertId = 0;
  MakeRoom(iRows, vecRows);
  for (uint32_t i = 0; i < iRows; ++i) {
    MYSQL_ROW pRow = mysql_fetch_row(pResult.get());
    const unsigned long* pLengths = pRow == nullptr ? nullptr : mysql_fetch_lengths(pResult.get());
    if (pLengths == nullptr) {
      return Failed();
    }
    AppendRow(pRow, pLengths, iColumns, vecRows);
  }
  return 0;
}

// Until all results of a text are received the connection takes no other query. A later statement's
// own error ends the loop and is, deliberately, not reported.
int MysqlObj::DropResults() {
  while (mysql_next_result(m_pMysql) == 0) {
    if (mysql_field_count(m_pMysql) == 0) {
      continue;
    }
    if (ResultPtr_t(mysql_store_result(m_pMysql)) == nullptr) {
      return Failed();
    }
  }
  return 0;
}

int MysqlObj::Failed() {
  _ErrorMessage();
  return -1;
}

const char* MysqlObj::_ErrorMessage() {
  const char* const pText = m_pMysql == nullptr ? "" : TextOf(mysql_error(m_pMysql));
  try {
    m_strErrorMessage = pText;
  } catch (const std::bad_alloc&) {  // a cut text, so that the error itself is returned
    m_strErrorMessage.assign(pText, std::min(strlen(pText), m_strErrorMessage.capacity()));
  }
  return m_strErrorMessage.c_str();
}

void MysqlObj::Dump(int iFD) { dprintf(iFD, "m_pMysql=\"%p\"\n", static_cast<void*>(m_pMysql)); }
