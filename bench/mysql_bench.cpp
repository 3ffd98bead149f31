// Queries whose rows become strings: with MysqlObj, with the client library's calls written out by
// hand, and with POCO's Data library. All talk to one private server over a loopback connection of
// their own. Most of the time is the server's; the figures that end in _cpu are the processor time
// of this process alone.
//
// select_1row, select_1000rows: three columns of text, in the order of the key; POCO fills one
// vector per column, the others one vector per row. "bare" pushes them as they come,
// "bare_reserved" makes room for all first, as ours does. Like ours both reconnect by themselves,
// for which the client library looks at the socket before each query.
// checkout: taking an idle connection out of the pool and giving it back.

#include <Poco/Data/MySQL/Connector.h>
#include <Poco/Data/Session.h>
#include <Poco/Data/SessionPool.h>
#include <benchmark/benchmark.h>
#include <limits.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <string>
#include <vector>

#include "db_connection_pool.h"
#include "mysql_obj.h"
#include "mysql_server.h"
#include "ratio_reporter.h"
#include "test_janitor.h"

namespace {

using Rows_t = std::vector<std::vector<std::string>>;

const char* const DATABASE = "bench";

[[noreturn]] void Fail(const std::string& strWhat) {
  fprintf(stderr, "mysql_bench: %s\n", strWhat.c_str());
  exit(1);
}

// From here to the end of the scope: the processor time of an iteration becomes the figure.
class CpuFigure {
 public:
  explicit CpuFigure(benchmark::State& stState) : m_stState(stState), m_dBegin(Now()) {}
  ~CpuFigure() {
    m_stState.counters["ns"] = (Now() - m_dBegin) / static_cast<double>(m_stState.iterations());
  }
  CpuFigure(const CpuFigure&) = delete;
  CpuFigure& operator=(const CpuFigure&) = delete;

 private:
  static double Now() {
    timespec stTime{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &stTime);
    return static_cast<double>(stTime.tv_sec) * 1e9 + static_cast<double>(stTime.tv_nsec);
  }

  benchmark::State& m_stState;
  const double m_dBegin;
};

std::string SelectOf(int iRows) {
  return "SELECT k, a, b FROM t WHERE id <= " + std::to_string(iRows) + " ORDER BY id";
}

bool Connect(MysqlObj& stMysql, const MysqlServer& stServer, const char* pDb) {
  return stMysql.Connect(MysqlServer::HOST, MysqlServer::USER, MysqlServer::PASSWORD, pDb,
                         stServer.Port());
}

void MakeTable(const MysqlServer& stServer) {
  MysqlObj stMysql;
  Rows_t vecRows;
  if (!Connect(stMysql, stServer, nullptr)) {
    Fail(stMysql.ErrorMessage());
  }
  for (const std::string strSql :
       {"CREATE DATABASE bench", "USE bench",
        "CREATE TABLE t (id INT PRIMARY KEY, k VARCHAR(16), a VARCHAR(64), b VARCHAR(64))",
        "INSERT INTO t SELECT seq, CONCAT('key', seq), MD5(seq), IF(seq % 2, 'short', SHA1(seq)) "
        "FROM seq_1_to_1000"}) {
    if (stMysql.ExecuteSql(strSql.data(), static_cast<unsigned int>(strSql.size()), vecRows) != 0) {
      Fail(stMysql.ErrorMessage());
    }
  }
}

// A reader is connected when it is made; Read() is false when it fails or the count is wrong.
class ZelkReader {
 public:
  explicit ZelkReader(const MysqlServer& stServer) {
    if (!Connect(m_stMysql, stServer, DATABASE)) {
      Fail(m_stMysql.ErrorMessage());
    }
  }
  bool Read(const std::string& strSql, size_t iRows) {
    Rows_t vecRows;
    const auto iLength = static_cast<unsigned int>(strSql.size());
    return m_stMysql.ExecuteSql(strSql.data(), iLength, vecRows) == 0 && vecRows.size() == iRows;
  }

 private:
  MysqlObj m_stMysql;
};

// The rows as they come, or with the room for all made before and each row moved in.
template <bool RESERVE>
void BareRows(MYSQL_RES* pResult, Rows_t& vecRows) {
  const unsigned int iColumns = mysql_num_fields(pResult);
  if (RESERVE) {
    vecRows.reserve(mysql_num_rows(pResult));
  }
  while (MYSQL_ROW pRow = mysql_fetch_row(pResult)) {
    const unsigned long* pLengths = mysql_fetch_lengths(pResult);
    std::vector<std::string> vecRow;
    if (RESERVE) {
      vecRow.reserve(iColumns);
    }
    for (unsigned int i = 0; i < iColumns; ++i) {
      vecRow.push_back(pRow[i] == nullptr ? std::string() : std::string(pRow[i], pLengths[i]));
    }
    vecRows.push_back(std::move(vecRow));
  }
}

template <bool RESERVE>
class BareReader {
 public:
  explicit BareReader(const MysqlServer& stServer) : m_pMysql(mysql_init(nullptr)) {
    const bool bReconnect = true;
    mysql_options(m_pMysql, MYSQL_OPT_RECONNECT, &bReconnect);
    if (mysql_real_connect(m_pMysql, MysqlServer::HOST, MysqlServer::USER, MysqlServer::PASSWORD,
                           DATABASE, stServer.Port(), nullptr, 0) == nullptr) {
      Fail(mysql_error(m_pMysql));
    }
  }
  ~BareReader() { mysql_close(m_pMysql); }
  BareReader(const BareReader&) = delete;
  BareReader& operator=(const BareReader&) = delete;
  bool Read(const std::string& strSql, size_t iRows) {
    Rows_t vecRows;
    if (mysql_real_query(m_pMysql, strSql.data(), strSql.size()) != 0) {
      return false;
    }
    MYSQL_RES* pResult = mysql_store_result(m_pMysql);
    if (pResult == nullptr) {
      return false;
    }
    BareRows<RESERVE>(pResult, vecRows);
    mysql_free_result(pResult);
    return vecRows.size() == iRows;
  }

 private:
  MYSQL* m_pMysql;
};

std::string PocoAddress(const MysqlServer& stServer) {
  return std::string("host=") + MysqlServer::HOST + ";port=" + std::to_string(stServer.Port()) +
         ";user=" + MysqlServer::USER + ";password=" + MysqlServer::PASSWORD + ";db=" + DATABASE;
}

class PocoReader {
 public:
  explicit PocoReader(const MysqlServer& stServer) : m_stSession("MySQL", PocoAddress(stServer)) {}
  bool Read(const std::string& strSql, size_t iRows) {
    using Poco::Data::Keywords::into;
    using Poco::Data::Keywords::now;
    std::vector<std::string> vecColumns[3];
    m_stSession << strSql, into(vecColumns[0]), into(vecColumns[1]), into(vecColumns[2]), now;
    return vecColumns[0].size() == iRows;
  }

 private:
  Poco::Data::Session m_stSession;
};

template <typename Reader>
void Read(benchmark::State& stState, Reader& stReader, int iRows) {
  const std::string strSql = SelectOf(iRows);
  for (auto _ : stState) {
    if (!stReader.Read(strSql, static_cast<size_t>(iRows))) {
      Fail("select");
    }
  }
}

template <typename Reader>
void Select(benchmark::State& stState, const MysqlServer& stServer, int iRows) {
  Reader stReader(stServer);
  Read(stState, stReader, iRows);
}

template <typename Reader>
void SelectCpu(benchmark::State& stState, const MysqlServer& stServer, int iRows) {
  Reader stReader(stServer);
  const CpuFigure stFigure(stState);
  Read(stState, stReader, iRows);
}

void CheckoutZelk(benchmark::State& stState, const MysqlServer& stServer, int iConnections) {
  DbConnectionPool& stPool = DbConnectionPool::Instance();
  stPool.Fini();
  if (stPool.Init(iConnections, DATABASE, MysqlServer::HOST, MysqlServer::USER,
                  MysqlServer::PASSWORD, DATABASE, stServer.Port()) != iConnections) {
    Fail(stPool.LastError());
  }
  for (auto _ : stState) {
    MysqlObj* pMysql = stPool.GetFreeMysql(DATABASE);
    benchmark::DoNotOptimize(pMysql);
    stPool.ReleaseMysql(DATABASE, pMysql);
  }
}

void CheckoutPoco(benchmark::State& stState, const MysqlServer& stServer, int iConnections) {
  Poco::Data::SessionPool stPool("MySQL", PocoAddress(stServer), iConnections, iConnections);
  for (auto _ : stState) {
    Poco::Data::Session stSession(stPool.get());
    benchmark::DoNotOptimize(stSession);
  }
}

typedef void Run_t(benchmark::State& stState, const MysqlServer& stServer, int iArgument);

benchmark::internal::Benchmark* Register(const std::string& strName, Run_t* pRun,
                                         const MysqlServer& stServer, int iArgument) {
  return benchmark::RegisterBenchmark(strName.c_str(),
                                      [pRun, &stServer, iArgument](benchmark::State& stState) {
                                        pRun(stState, stServer, iArgument);
                                      })
      ->UseRealTime();
}

template <typename Reader>
void RegisterReader(const std::string& strOperation, const std::string& strContestant,
                    const MysqlServer& stServer, int iRows) {
  Register(strOperation + "/" + strContestant, Select<Reader>, stServer, iRows);
  Register(strOperation + "_cpu/" + strContestant, SelectCpu<Reader>, stServer, iRows);
}

}  // namespace

int main(int argc, char** argv) {
  // Freed memory stays in the process: giving it back and getting it again is not what is measured.
  mallopt(M_TRIM_THRESHOLD, INT_MAX);
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  StartJanitor();
  const MysqlServer stServer;
  MakeTable(stServer);
  Poco::Data::MySQL::Connector::registerConnector();
  for (const int iRows : {1, 1000}) {
    const std::string strName = "select_" + std::to_string(iRows) + (iRows == 1 ? "row" : "rows");
    RegisterReader<ZelkReader>(strName, "zelk", stServer, iRows);
    RegisterReader<BareReader<false>>(strName, "bare", stServer, iRows);
    RegisterReader<BareReader<true>>(strName, "bare_reserved", stServer, iRows);
    RegisterReader<PocoReader>(strName, "poco", stServer, iRows);
  }
  Register("checkout/zelk", CheckoutZelk, stServer, 8);
  Register("checkout/poco", CheckoutPoco, stServer, 8);
  return RunWithRatios(argc, argv);
}
