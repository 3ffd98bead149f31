// The connection while the client library fails: this program's own versions of a few of its
// functions stand before the real ones, for the library too; they note calls, and fail when told.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mysql_server_fixture.h"

namespace {

// What mysql_real_connect was called with; "(null)" for a null pointer.
struct ConnectCall_t {
  std::vector<std::string> vecTexts;  // host, user, password, database, socket
  unsigned int iPort;
  unsigned long iFlags;
};

struct Library_t {
  bool bInitFails = false;
  bool bOptionFails = false;
  bool bNoErrorText = false;
  int iStoreFails = 0;     // the call, counted from 1, that fails
  int iRowFails = 0;       // the same
  int iLengthsFail = 0;    // the same
  int iNextResult = 0;     // returned instead when not 0
  uint64_t iMoreRows = 0;  // added to what mysql_num_rows returns

  int iHandles = 0;  // open now
  int iResults = 0;
  int iStores = 0;
  int iRows = 0;
  int iLengths = 0;
  bool bConnecting = false;  // the options that are set meanwhile are the library's own
  std::vector<mysql_option> vecOptions;
  std::vector<char> vecOptionValues;
  std::vector<ConnectCall_t> vecConnects;
};

Library_t g_stLibrary;

std::string TextOf(const char* pText) { return pText == nullptr ? "(null)" : pText; }

}  // namespace

// The library's own function of this name.
#define REAL(function) (*reinterpret_cast<decltype(&(function))>(dlsym(RTLD_NEXT, #function)))

extern "C" {

MYSQL* mysql_init(MYSQL* pMysql) {
  if (g_stLibrary.bInitFails) {
    return nullptr;
  }
  ++g_stLibrary.iHandles;
  return REAL(mysql_init)(pMysql);
}

void mysql_close(MYSQL* pMysql) {
  --g_stLibrary.iHandles;
  REAL(mysql_close)(pMysql);
}

int mysql_options(MYSQL* pMysql, mysql_option eOption, const void* pValue) {
  if (!g_stLibrary.bConnecting) {
    g_stLibrary.vecOptions.push_back(eOption);
    g_stLibrary.vecOptionValues.push_back(*static_cast<const char*>(pValue));
  }
  return g_stLibrary.bOptionFails ? 1 : REAL(mysql_options)(pMysql, eOption, pValue);
}

MYSQL* mysql_real_connect(MYSQL* pMysql, const char* pHost, const char* pUser,
                          const char* pPassword, const char* pDb, unsigned int iPort,
                          const char* pSocket, unsigned long iFlags) {
  g_stLibrary.vecConnects.push_back(
      {{TextOf(pHost), TextOf(pUser), TextOf(pPassword), TextOf(pDb), TextOf(pSocket)},
       iPort,
       iFlags});
  g_stLibrary.bConnecting = true;
  MYSQL* pResult =
      REAL(mysql_real_connect)(pMysql, pHost, pUser, pPassword, pDb, iPort, pSocket, iFlags);
  g_stLibrary.bConnecting = false;
  return pResult;
}

const char* mysql_error(MYSQL* pMysql) {
  return g_stLibrary.bNoErrorText ? nullptr : REAL(mysql_error)(pMysql);
}

MYSQL_RES* mysql_store_result(MYSQL* pMysql) {
  if (++g_stLibrary.iStores == g_stLibrary.iStoreFails) {
    return nullptr;
  }
  ++g_stLibrary.iResults;
  return REAL(mysql_store_result)(pMysql);
}

void mysql_free_result(MYSQL_RES* pResult) {
  --g_stLibrary.iResults;
  REAL(mysql_free_result)(pResult);
}

my_ulonglong mysql_num_rows(MYSQL_RES* pResult) {
  return REAL(mysql_num_rows)(pResult) + g_stLibrary.iMoreRows;
}

MYSQL_ROW mysql_fetch_row(MYSQL_RES* pResult) {
  return ++g_stLibrary.iRows == g_stLibrary.iRowFails ? nullptr : REAL(mysql_fetch_row)(pResult);
}

unsigned long* mysql_fetch_lengths(MYSQL_RES* pResult) {
  return ++g_stLibrary.iLengths == g_stLibrary.iLengthsFail ? nullptr
                                                            : REAL(mysql_fetch_lengths)(pResult);
}

int mysql_next_result(MYSQL* pMysql) {
  return g_stLibrary.iNextResult != 0 ? g_stLibrary.iNextResult : REAL(mysql_next_result)(pMysql);
}

}  // extern "C"

namespace {

class MysqlObjFaultTest : public MysqlTest {
 protected:
  void SetUp() override {
    g_stLibrary = Library_t();
    MysqlTest::SetUp();
    ASSERT_TRUE(ConnectForSeveral(m_stMysql)) << m_stMysql.ErrorMessage();
    ASSERT_EQ(0, g_stLibrary.iResults);
    g_stLibrary = Library_t();
    g_stLibrary.iHandles = 1;
  }

  void TearDown() override {  // whatever failed, nothing is left and nothing freed twice
    m_stMysql.Close();
    EXPECT_EQ(0, g_stLibrary.iHandles);
    EXPECT_EQ(0, g_stLibrary.iResults);
    g_stLibrary = Library_t();
  }

  MysqlObj m_stMysql;
};

const std::vector<std::string> FULL{MysqlServer::HOST, MysqlServer::USER, MysqlServer::PASSWORD,
                                    "test", "(null)"};
const std::vector<std::string> NOTHING(5, "(null)");

TEST_F(MysqlObjFaultTest, ConnectAsksForReconnectingAndForNothingElse) {
  ASSERT_TRUE(Connect(m_stMysql));
  EXPECT_EQ(std::vector<mysql_option>{MYSQL_OPT_RECONNECT}, g_stLibrary.vecOptions);
  EXPECT_EQ(std::vector<char>{1}, g_stLibrary.vecOptionValues);
  ASSERT_EQ(1u, g_stLibrary.vecConnects.size());
  EXPECT_EQ(FULL, g_stLibrary.vecConnects[0].vecTexts);
  EXPECT_EQ(Server().Port(), g_stLibrary.vecConnects[0].iPort);
  EXPECT_EQ(0u, g_stLibrary.vecConnects[0].iFlags);
}

TEST_F(MysqlObjFaultTest, ReconnectAsksForSeveralStatementsAndSetsNoOption) {
  ASSERT_TRUE(m_stMysql.Reconnect());
  EXPECT_TRUE(g_stLibrary.vecOptions.empty());
  ASSERT_EQ(1u, g_stLibrary.vecConnects.size());
  EXPECT_EQ(FULL, g_stLibrary.vecConnects[0].vecTexts);
  EXPECT_EQ(Server().Port(), g_stLibrary.vecConnects[0].iPort);
  EXPECT_EQ(static_cast<unsigned long>(CLIENT_MULTI_STATEMENTS), g_stLibrary.vecConnects[0].iFlags);
}

TEST_F(MysqlObjFaultTest, EmptyTextsAreGivenToTheLibraryAsNullByReconnectAlone) {
  ASSERT_TRUE(m_stMysql.Connect(MysqlServer::HOST, MysqlServer::USER, MysqlServer::PASSWORD, "",
                                Server().Port()));
  ASSERT_TRUE(m_stMysql.Reconnect());
  ASSERT_EQ(2u, g_stLibrary.vecConnects.size());
  EXPECT_EQ("", g_stLibrary.vecConnects[0].vecTexts[3]);
  EXPECT_EQ("(null)", g_stLibrary.vecConnects[1].vecTexts[3]);
}

TEST_F(MysqlObjFaultTest, NullArgumentsAreGivenToTheLibraryAndRememberedAsEmpty) {
  ASSERT_EQ(0, Execute(m_stMysql, "CREATE USER IF NOT EXISTS ''@localhost"));
  ASSERT_TRUE(m_stMysql.Connect(nullptr, nullptr, nullptr, nullptr, 0)) << m_stMysql.ErrorMessage();
  const std::string strUser = Value(m_stMysql, "SELECT USER()");  // the login name
  EXPECT_NE(std::string::npos, strUser.find("@localhost"));
  ASSERT_TRUE(m_stMysql.Reconnect()) << m_stMysql.ErrorMessage();
  EXPECT_EQ(strUser, Value(m_stMysql, "SELECT USER()"));
  for (const ConnectCall_t& stCall : g_stLibrary.vecConnects) {
    EXPECT_EQ(NOTHING, stCall.vecTexts);
    EXPECT_EQ(0u, stCall.iPort);
  }
}

TEST_F(MysqlObjFaultTest, NeverConnectedObjectReconnectsToTheLibrarysDefaults) {
  Server().Stop();
  MysqlObj stMysql;
  EXPECT_FALSE(stMysql.Reconnect());
  EXPECT_EQ(nullptr, stMysql.get());
  ASSERT_EQ(1u, g_stLibrary.vecConnects.size());
  EXPECT_EQ(NOTHING, g_stLibrary.vecConnects[0].vecTexts);
  EXPECT_EQ(0u, g_stLibrary.vecConnects[0].iPort);
}

TEST_F(MysqlObjFaultTest, WithoutMemoryForAHandleConnectingFailsAndTheTextStays) {
  ASSERT_EQ(-1, Execute(m_stMysql, "SELECT nothing"));
  const std::string strText = m_stMysql.ErrorMessage();
  g_stLibrary.bInitFails = true;
  EXPECT_FALSE(Connect(m_stMysql));
  EXPECT_EQ(nullptr, m_stMysql.get());
  EXPECT_FALSE(m_stMysql.Reconnect());
  EXPECT_EQ(nullptr, m_stMysql.get());
  EXPECT_EQ(strText, m_stMysql.ErrorMessage());
  EXPECT_TRUE(g_stLibrary.vecConnects.empty());
}

TEST_F(MysqlObjFaultTest, RefusedOptionFailsBeforeAnyConnection) {
  g_stLibrary.bOptionFails = true;
  EXPECT_FALSE(Connect(m_stMysql));
  EXPECT_EQ(nullptr, m_stMysql.get());
  EXPECT_EQ(0, g_stLibrary.iHandles);
  EXPECT_TRUE(g_stLibrary.vecConnects.empty());
}

TEST_F(MysqlObjFaultTest, FailedConnectFreesTheHandle) {
  EXPECT_FALSE(Connect(m_stMysql, "nowhere"));
  EXPECT_EQ(0, g_stLibrary.iHandles);
}

TEST_F(MysqlObjFaultTest, MissingErrorTextIsAnEmptyOne) {
  ASSERT_EQ(-1, Execute(m_stMysql, "SELECT nothing"));
  ASSERT_STRNE("", m_stMysql.ErrorMessage());
  g_stLibrary.bNoErrorText = true;
  EXPECT_EQ(-1, Execute(m_stMysql, "SELECT nothing"));
  EXPECT_STREQ("", m_stMysql.ErrorMessage());
}

TEST_F(MysqlObjFaultTest, ResultThatCanNotBeStoredFailsAndChangesNothing) {
  ASSERT_EQ(0, Execute(m_stMysql, "SELECT 1 UNION SELECT 2"));
  g_stLibrary.iStoreFails = 2;
  Rows_t vecRows{{"before"}};
  EXPECT_EQ(-1, m_stMysql.ExecuteSql("SELECT 1", 8, vecRows));
  EXPECT_EQ(Rows_t{{"before"}}, vecRows);
  EXPECT_EQ(2u, m_stMysql.AffectedRows());
}

TEST_F(MysqlObjFaultTest, RowThatCanNotBeReadFailsAfterTheRowsBeforeIt) {
  g_stLibrary.iRowFails = 3;
  Rows_t vecRows{{"before"}};
  EXPECT_EQ(-1, m_stMysql.ExecuteSql("SELECT seq FROM seq_1_to_5", 26, vecRows));
  EXPECT_EQ((Rows_t{{"before"}, {"1"}, {"2"}}), vecRows);
  EXPECT_EQ(0, g_stLibrary.iResults);
}

TEST_F(MysqlObjFaultTest, MissingLengthsFailAfterTheRowsBeforeThem) {
  g_stLibrary.iLengthsFail = 2;
  Rows_t vecRows;
  EXPECT_EQ(-1, m_stMysql.ExecuteSql("SELECT seq FROM seq_1_to_5", 26, vecRows));
  EXPECT_EQ(Rows_t{{"1"}}, vecRows);
  EXPECT_EQ(0, g_stLibrary.iResults);
}

TEST_F(MysqlObjFaultTest, RowCountIsKeptTo32Bits) {
  g_stLibrary.iMoreRows = uint64_t{1} << 32;
  EXPECT_EQ((Rows_t{{"1"}, {"2"}}), Query(m_stMysql, "SELECT 1 UNION SELECT 2"));
  EXPECT_EQ(2u, m_stMysql.AffectedRows());
}

TEST_F(MysqlObjFaultTest, LaterResultThatCanNotBeStoredFailsAndKeepsTheFirst) {
  ASSERT_EQ(-1, Execute(m_stMysql, "SELECT nothing"));
  g_stLibrary.iStoreFails = 2;
  Rows_t vecRows;
  const std::string strSql = "SELECT 1 UNION SELECT 2; SELECT 3";
  EXPECT_EQ(-1,
            m_stMysql.ExecuteSql(strSql.data(), static_cast<unsigned int>(strSql.size()), vecRows));
  EXPECT_EQ((Rows_t{{"1"}, {"2"}}), vecRows);
  EXPECT_EQ(2u, m_stMysql.AffectedRows());
  EXPECT_STREQ("", m_stMysql.ErrorMessage());  // the library has no text here, and that is taken
}

TEST_F(MysqlObjFaultTest, LaterResultsAreStoredAndFreedWithoutReadingARow) {
  EXPECT_EQ(0, Execute(m_stMysql, "SELECT 1; SELECT seq FROM seq_1_to_50; DO 1; SELECT 2"));
  EXPECT_EQ(3, g_stLibrary.iStores);
  EXPECT_EQ(1, g_stLibrary.iRows);
  EXPECT_EQ(0, g_stLibrary.iResults);
}

TEST_F(MysqlObjFaultTest, ErrorOnTheWayToALaterResultIsNotReported) {
  ASSERT_EQ(-1, Execute(m_stMysql, "SELECT nothing"));
  const std::string strText = m_stMysql.ErrorMessage();
  g_stLibrary.iNextResult = 1;
  EXPECT_EQ(0, Execute(m_stMysql, "SELECT 1"));
  EXPECT_EQ(strText, m_stMysql.ErrorMessage());
}

}  // namespace
