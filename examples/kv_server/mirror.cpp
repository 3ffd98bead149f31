#include "mirror.h"

#include <mysql/mysqld_error.h>
#include <openssl/sha.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unordered_map>

#include "db_connection_pool.h"
#include "dump_file.h"
#include "key_owner.h"
#include "value_record.h"
#include "worker.h"

// DESIGN
//
// What has changed is found by comparing: the ids and digests of the worker's rows come as a
// stream, from an index that has nothing else; then the dump is read once, and its entries whose
// digest is not there are written. Ids that the dump has not are deleted. So nothing has to be
// remembered from save to save: what a killed or refused mirroring has left out is made up for by
// the next one, and so is whatever else became of the table.
//
// A key may be longer than what an index takes, so a row's id is the key's hash. "owner" is what
// OwnerOf() divides by the number of workers.
//
// Bytes travel as hexadecimal literals, to which no character set and no mode of the server
// applies.

namespace {

const char POOL_NAME[] = "mirror";
const size_t BATCH_BYTES = 1 << 20;     // of a statement, but for a row that is larger
const size_t PACKET_RESERVE = 1 << 10;  // what is in a packet beside the statement, amply
const size_t DIGEST_SIZE = 16;

using Id_t = std::array<unsigned char, SHA256_DIGEST_LENGTH>;
using Digest_t = std::array<unsigned char, DIGEST_SIZE>;

struct HashOfId {
  size_t operator()(const Id_t& arId) const {
    size_t iHash = 0;
    memcpy(&iHash, arId.data(), sizeof(iHash));
    return iHash;
  }
};

struct FreeResult {
  void operator()(MYSQL_RES* pResult) const { mysql_free_result(pResult); }
};

const unsigned char* Bytes(std::string_view strBytes) {
  return reinterpret_cast<const unsigned char*>(strBytes.data());
}

Id_t IdOf(std::string_view strKey) {
  Id_t arId;
  SHA256(Bytes(strKey), strKey.size(), arId.data());
  return arId;
}

// Of all that a row has beside its key.
Digest_t DigestOf(const Value_t& stValue) {
  std::string strAll(reinterpret_cast<const char*>(&stValue.iExpireAt), sizeof(stValue.iExpireAt));
  strAll += stValue.strBytes;
  const Id_t arHash = IdOf(strAll);
  Digest_t arDigest;
  std::copy_n(arHash.begin(), DIGEST_SIZE, arDigest.begin());
  return arDigest;
}

void AppendHex(std::string& strOut, const unsigned char* pBytes, size_t iSize) {
  static const char DIGITS[] = "0123456789abcdef";
  strOut += "X'";
  for (size_t i = 0; i < iSize; ++i) {
    strOut += DIGITS[pBytes[i] >> 4];
    strOut += DIGITS[pBytes[i] & 15];
  }
  strOut += '\'';
}

std::string Place(const Settings_t& stSettings) {
  return "the mirror " + stSettings.strMirrorDatabase + "." + stSettings.strMirrorTable + " at " +
         stSettings.strMirrorHost + ":" + std::to_string(stSettings.iMirrorPort);
}

// A connection from the pool that does not go back: nothing is left there for a child to inherit.
class Connection {
 public:
  // Lengths and columns of a row; false ends the stream.
  typedef std::function<bool(MYSQL_ROW pRow, const unsigned long* pLengths)> Visitor_t;

  explicit Connection(const Settings_t& stSettings) {
    DbConnectionPool& stPool = DbConnectionPool::Instance();
    if (stPool.Init(1, POOL_NAME, stSettings.strMirrorHost.c_str(),
                    stSettings.strMirrorUser.c_str(), stSettings.strMirrorPassword.c_str(),
                    stSettings.strMirrorDatabase.c_str(),
                    static_cast<unsigned int>(stSettings.iMirrorPort)) != 1) {
      m_strError = stPool.LastError();
      return;
    }
    m_pMysql.reset(stPool.GetFreeMysql(POOL_NAME));
  }

  bool IsOpen() const { return m_pMysql != nullptr; }
  const std::string& Error() const { return m_strError; }
  unsigned int ErrorNumber() const { return mysql_errno(m_pMysql->get()); }

  bool Run(const std::string& strSql) {
    std::vector<std::vector<std::string>> vecRows;
    return Run(strSql, vecRows);
  }

  bool Run(const std::string& strSql, std::vector<std::vector<std::string>>& vecRows) {
    if (m_pMysql->ExecuteSql(strSql.data(), static_cast<unsigned int>(strSql.size()), vecRows) !=
        0) {
      m_strError = m_pMysql->ErrorMessage();
      return false;
    }
    return true;
  }

  // Row by row, as they come over the wire: ExecuteSql() would keep them all.
  bool Stream(const std::string& strSql, const Visitor_t& fnVisit) {
    MYSQL* pMysql = m_pMysql->get();
    std::unique_ptr<MYSQL_RES, FreeResult> pResult;
    if (mysql_real_query(pMysql, strSql.data(), strSql.size()) == 0) {
      pResult.reset(mysql_use_result(pMysql));
    }
    for (MYSQL_ROW pRow = nullptr;
         pResult != nullptr && (pRow = mysql_fetch_row(pResult.get())) != nullptr;) {
      if (!fnVisit(pRow, mysql_fetch_lengths(pResult.get()))) {
        return false;
      }
    }
    m_strError = mysql_error(pMysql);
    return m_strError.empty();
  }

 private:
  std::unique_ptr<MysqlObj> m_pMysql;
  std::string m_strError;
};

// Statements of the form "head row, row, ... tail", as many rows in one as its size allows.
class Batch {
 public:
  Batch(Connection& stConnection, std::string strHead, std::string strTail)
      : m_stConnection(stConnection),
        m_strHead(std::move(strHead)),
        m_strTail(std::move(strTail)) {}

  void SetLimit(size_t iBytes) { m_iLimit = iBytes; }

  bool Add(const std::string& strRow) {
    const size_t iSize = m_strSql.size() + 1 + strRow.size() + m_strTail.size();
    if (!m_strSql.empty() && iSize > m_iLimit && !Flush()) {
      return false;
    }
    m_strSql += (m_strSql.empty() ? m_strHead : ",") + strRow;
    return true;
  }

  bool Flush() {
    const bool bGood = m_strSql.empty() || m_stConnection.Run(m_strSql + m_strTail);
    m_strSql.clear();
    return bGood;
  }

  size_t SizeAlone(const std::string& strRow) const {
    return m_strHead.size() + strRow.size() + m_strTail.size();
  }

 private:
  Connection& m_stConnection;
  const std::string m_strHead;
  const std::string m_strTail;
  size_t m_iLimit = BATCH_BYTES;
  std::string m_strSql;
};

class MirrorWriter {
 public:
  MirrorWriter(Connection& stConnection, const Settings_t& stSettings, const TableMark_t& stMark,
               MirrorStat_t& stStat)
      : m_stConnection(stConnection),
        m_strTable("`" + stSettings.strMirrorTable + "`"),
        m_strMine(" WHERE owner % " + std::to_string(stMark.iWorkers) + " = " +
                  std::to_string(stMark.iWorker)),
        m_stStat(stStat),
        m_stInsert(
            stConnection,
            "INSERT INTO " + m_strTable + " (id, owner, name, value, expire_at, digest) VALUES ",
            " ON DUPLICATE KEY UPDATE value = VALUES(value), expire_at = VALUES(expire_at),"
            " digest = VALUES(digest)"),
        m_stDelete(stConnection, "DELETE FROM " + m_strTable + " WHERE id IN (", ")") {}

  std::string Run(const std::string& strDump, const TableMark_t& stMark) {
    if (!Begin()) {
      return m_stConnection.Error();
    }
    std::string strFault;  // not the dump's
    const auto Add = [&](std::string_view strKey, const Value_t& stValue) {
      return AddEntry(strKey, stValue) ? "" : strFault = Fault();
    };
    const std::string strError = ReadDump(stMark, strDump, Add, m_stStat.iKeys);
    if (!strError.empty()) {
      return strFault.empty() ? strError : strFault;  // the transaction goes with the connection
    }
    const bool bGood = m_stInsert.Flush() && DeleteRest() && m_stConnection.Run("COMMIT");
    return bGood ? "" : m_stConnection.Error();
  }

 private:
  std::string Fault() const { return m_strFault.empty() ? m_stConnection.Error() : m_strFault; }

  // Workers write at the same time; what one of them reads must not keep the others off.
  bool Begin() {
    return m_stConnection.Run("SET SESSION sql_mode = 'STRICT_ALL_TABLES'") &&
           m_stConnection.Run("SET SESSION TRANSACTION ISOLATION LEVEL READ COMMITTED") &&
           ReadPacketSize() && EnsureTable() && m_stConnection.Run("START TRANSACTION") &&
           ReadRows();
  }

  bool ReadPacketSize() {
    std::vector<std::vector<std::string>> vecRows;
    if (!m_stConnection.Run("SELECT @@max_allowed_packet", vecRows)) {
      return false;
    }
    m_iPacket = strtoull(vecRows[0][0].c_str(), nullptr, 10) - PACKET_RESERVE;
    m_stInsert.SetLimit(std::min(BATCH_BYTES, m_iPacket));
    m_stDelete.SetLimit(std::min(BATCH_BYTES, m_iPacket));
    return true;
  }

  // Looked for first: who may write to a table need not be one who may make it.
  bool EnsureTable() {
    if (m_stConnection.Run("SELECT id FROM " + m_strTable + " LIMIT 0")) {
      return true;
    }
    return m_stConnection.ErrorNumber() == ER_NO_SUCH_TABLE &&
           m_stConnection.Run("CREATE TABLE IF NOT EXISTS " + m_strTable +
                              " (id BINARY(32) PRIMARY KEY COMMENT 'SHA-256 of the name',"
                              " owner INT UNSIGNED NOT NULL, name MEDIUMBLOB NOT NULL,"
                              " value LONGBLOB NOT NULL,"
                              " expire_at BIGINT NOT NULL COMMENT 'ms since 1970, 0: never',"
                              " digest BINARY(16) NOT NULL, KEY comparison (owner, digest))"
                              " ENGINE = InnoDB");
  }

  bool ReadRows() {
    return m_stConnection.Stream("SELECT id, digest FROM " + m_strTable + m_strMine,
                                 [this](MYSQL_ROW pRow, const unsigned long* /*pLengths*/) {
                                   Id_t arId;
                                   Digest_t arDigest;
                                   memcpy(arId.data(), pRow[0], arId.size());
                                   memcpy(arDigest.data(), pRow[1], arDigest.size());
                                   m_mapRows.emplace(arId, arDigest);
                                   return true;
                                 });
  }

  bool AddEntry(std::string_view strKey, const Value_t& stValue) {
    const Id_t arId = IdOf(strKey);
    const Digest_t arDigest = DigestOf(stValue);
    const auto it = m_mapRows.find(arId);
    const bool bSame = it != m_mapRows.end() && it->second == arDigest;
    if (it != m_mapRows.end()) {
      m_mapRows.erase(it);
    }
    return bSame || AddRow(arId, strKey, stValue, arDigest);
  }

  bool AddRow(const Id_t& arId, std::string_view strKey, const Value_t& stValue,
              const Digest_t& arDigest) {
    std::string strRow = "(";
    AppendHex(strRow, arId.data(), arId.size());
    strRow += "," + std::to_string(OwnerHash(strKey)) + ",";
    AppendHex(strRow, Bytes(strKey), strKey.size());
    strRow += ',';
    AppendHex(strRow, Bytes(stValue.strBytes), stValue.strBytes.size());
    strRow += "," + std::to_string(stValue.iExpireAt) + ",";
    AppendHex(strRow, arDigest.data(), arDigest.size());
    strRow += ')';
    if (m_stInsert.SizeAlone(strRow) > m_iPacket) {
      m_strFault = "a key needs a max_allowed_packet of " +
                   std::to_string(m_stInsert.SizeAlone(strRow) + PACKET_RESERVE) + " at least";
      return false;
    }
    ++m_stStat.iWritten;
    return m_stInsert.Add(strRow);
  }

  bool DeleteRest() {
    for (const auto& stRow : m_mapRows) {
      std::string strId;
      AppendHex(strId, stRow.first.data(), stRow.first.size());
      if (!m_stDelete.Add(strId)) {
        return false;
      }
    }
    m_stStat.iDeleted = m_mapRows.size();
    return m_stDelete.Flush();
  }

  Connection& m_stConnection;
  const std::string m_strTable;
  const std::string m_strMine;
  MirrorStat_t& m_stStat;
  Batch m_stInsert;
  Batch m_stDelete;
  size_t m_iPacket = BATCH_BYTES;
  std::string m_strFault;                                  // found here, not by the database
  std::unordered_map<Id_t, Digest_t, HashOfId> m_mapRows;  // that the dump has not had yet
};

// The end of a process that waits for a silent database: better no server than one that says
// nothing and serves nobody.
class SilenceLimit {
 public:
  explicit SilenceLimit(uint64_t iSeconds) : m_iSeconds(static_cast<unsigned int>(iSeconds)) {
    signal(SIGALRM, OnSilence);
    Renew();
  }
  ~SilenceLimit() {
    alarm(0);
    signal(SIGALRM, SIG_DFL);
  }
  SilenceLimit(const SilenceLimit&) = delete;
  SilenceLimit& operator=(const SilenceLimit&) = delete;

  void Renew() const { alarm(m_iSeconds); }

 private:
  static void OnSilence(int /*iSignal*/) {
    static const char TEXT[] =
        "kv_server: the mirror's database is silent for longer than save.timeout\n";
    const ssize_t iIgnored = write(STDERR_FILENO, TEXT, sizeof(TEXT) - 1);
    static_cast<void>(iIgnored);
    _exit(EXIT_TABLE);
  }

  const unsigned int m_iSeconds;
};

// A row as the server has written it; else why it is not.
std::string TakeRow(KeyStore& stStore, MYSQL_ROW pRow, const unsigned long* pLengths,
                    uint64_t& iKeys) {
  const std::string_view strKey(pRow[0], pLengths[0]);
  const std::string_view strValue(pRow[1], pLengths[1]);
  const int64_t iExpireAt = strtoll(pRow[2], nullptr, 10);
  if (strKey.find('\0') != std::string_view::npos ||
      !FitsBlock(1 + strKey.size(), strValue.size())) {
    return "a row has an impossible key or size";
  }
  if (iExpireAt != KeyStore::NEVER && iExpireAt <= stStore.Now()) {
    return "";
  }
  ++iKeys;
  return stStore.Set(strKey, strValue, iExpireAt)
             ? ""
             : "its keys do not fit into the table (table.bytes)";
}

}  // namespace

std::string WriteMirror(const Settings_t& stSettings, const TableMark_t& stMark,
                        const std::string& strDump, MirrorStat_t& stStat) {
  stStat = {};
  Connection stConnection(stSettings);
  const std::string strError =
      stConnection.IsOpen()
          ? MirrorWriter(stConnection, stSettings, stMark, stStat).Run(strDump, stMark)
          : stConnection.Error();
  return strError.empty() ? "" : Place(stSettings) + ": " + strError;
}

std::string LoadMirror(const Settings_t& stSettings, const TableMark_t& stMark, KeyStore& stStore,
                       uint64_t& iKeys) {
  iKeys = 0;
  const SilenceLimit stLimit(stSettings.iSaveTimeout);
  Connection stConnection(stSettings);
  std::string strFault;
  const bool bGood =
      stConnection.IsOpen() &&
      stConnection.Stream("SELECT name, value, expire_at FROM `" + stSettings.strMirrorTable +
                              "` WHERE owner % " + std::to_string(stMark.iWorkers) + " = " +
                              std::to_string(stMark.iWorker),
                          [&](MYSQL_ROW pRow, const unsigned long* pLengths) {
                            stLimit.Renew();
                            strFault = TakeRow(stStore, pRow, pLengths, iKeys);
                            return strFault.empty();
                          });
  if (bGood || (strFault.empty() && stConnection.IsOpen() &&
                stConnection.ErrorNumber() == ER_NO_SUCH_TABLE)) {
    return "";
  }
  return Place(stSettings) + ": " + (strFault.empty() ? stConnection.Error() : strFault);
}
