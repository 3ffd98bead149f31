#include <gtest/gtest.h>
#include <hiredis/async.h>
#include <hiredis/hiredis.h>
#include <poll.h>
#include <signal.h>

#include <memory>

#include "kv_server_fixture.h"

// A client library as programs use it: hiredis, synchronous, pipelined and asynchronous.

namespace {

const int LIMIT_SECONDS = 60;      // of anything that should not take any time
const size_t MAX_VALUE = 1048576;  // the default of limits.value

struct FreeReply {
  void operator()(redisReply* pReply) const { freeReplyObject(pReply); }
};
typedef std::unique_ptr<redisReply, FreeReply> Reply_t;

struct FreeContext {
  void operator()(redisContext* pContext) const { redisFree(pContext); }
};
typedef std::unique_ptr<redisContext, FreeContext> Context_t;

// A reply as a text: "status OK", "string x", "integer 1", "nil", "error ERR ...", "[a, b]"; "none"
// when the connection has failed.
std::string TextOf(const redisReply* pReply) {
  if (pReply == nullptr) {
    return "none";
  }
  const std::string strText(pReply->str == nullptr ? "" : pReply->str, pReply->len);
  switch (pReply->type) {
    case REDIS_REPLY_STATUS:
      return "status " + strText;
    case REDIS_REPLY_STRING:
      return "string " + strText;
    case REDIS_REPLY_INTEGER:
      return "integer " + std::to_string(pReply->integer);
    case REDIS_REPLY_NIL:
      return "nil";
    case REDIS_REPLY_ERROR:
      return "error " + strText;
    default:
      break;
  }
  std::string strAll;
  for (size_t i = 0; i < pReply->elements; ++i) {
    strAll += (i == 0 ? "" : ", ") + TextOf(pReply->element[i]);
  }
  return "[" + strAll + "]";
}

class KvServerHiredisTest : public ::testing::Test {
 protected:
  // The library writes to connections that the server has closed.
  KvServerHiredisTest() { m_pBefore = signal(SIGPIPE, SIG_IGN); }
  ~KvServerHiredisTest() override { signal(SIGPIPE, m_pBefore); }

  Context_t Connect() const {
    const timeval stLimit{LIMIT_SECONDS, 0};
    Context_t pContext(redisConnectWithTimeout("127.0.0.1", m_stServer.Port(), stLimit));
    if (pContext->err == 0) {
      redisSetTimeout(pContext.get(), stLimit);
    }
    return pContext;
  }

  ServerProcess m_stServer{{"server.workers=2"}};
  void (*m_pBefore)(int);
};

template <typename... Arguments_T>
std::string Ask(const Context_t& pContext, const char* pFormat, Arguments_T... arguments) {
  return TextOf(
      Reply_t(static_cast<redisReply*>(redisCommand(pContext.get(), pFormat, arguments...))).get());
}

std::string AskWords(const Context_t& pContext, const std::vector<std::string>& vecWords) {
  std::vector<const char*> vecPointers;
  std::vector<size_t> vecSizes;
  for (const std::string& strWord : vecWords) {
    vecPointers.push_back(strWord.data());
    vecSizes.push_back(strWord.size());
  }
  return TextOf(Reply_t(static_cast<redisReply*>(
                            redisCommandArgv(pContext.get(), static_cast<int>(vecWords.size()),
                                             vecPointers.data(), vecSizes.data())))
                    .get());
}

std::string NextReply(const Context_t& pContext) {
  void* pReply = nullptr;
  redisGetReply(pContext.get(), &pReply);
  return TextOf(Reply_t(static_cast<redisReply*>(pReply)).get());
}

TEST_F(KvServerHiredisTest, RepliesOfEveryType) {
  const Context_t pContext = Connect();
  ASSERT_EQ(0, pContext->err) << pContext->errstr;
  EXPECT_EQ("status PONG", Ask(pContext, "PING"));
  EXPECT_EQ("status OK", Ask(pContext, "SET %s %s", "a", "with blanks"));
  EXPECT_EQ("string with blanks", Ask(pContext, "GET a"));
  EXPECT_EQ("integer 11", Ask(pContext, "STRLEN a"));
  EXPECT_EQ("nil", Ask(pContext, "GET nosuch"));
  EXPECT_EQ("integer -5", Ask(pContext, "INCRBY %s %d", "n", -5));
  EXPECT_EQ("[string -5, nil, string with blanks]", Ask(pContext, "MGET n nosuch a"));
  EXPECT_EQ("[]", Ask(pContext, "KEYS nosuch*"));
  EXPECT_EQ("[string 0, []]", Ask(pContext, "SCAN 99999999"));
  EXPECT_EQ("string ", Ask(pContext, "ECHO %s", ""));
}

TEST_F(KvServerHiredisTest, ErrorsAreRepliesAndTheConnectionGoesOn) {
  const Context_t pContext = Connect();
  EXPECT_EQ("error ERR unknown command 'nosuch', with args beginning with: 'a' ",
            Ask(pContext, "nosuch a"));
  EXPECT_EQ("error ERR wrong number of arguments for 'get' command", Ask(pContext, "GET"));
  EXPECT_EQ("status OK", Ask(pContext, "SET a x"));
  EXPECT_EQ("error ERR value is not an integer or out of range", Ask(pContext, "INCR a"));
  EXPECT_EQ("error ERR syntax error", Ask(pContext, "SET a 1 NX XX"));
  EXPECT_EQ("string x", Ask(pContext, "GET a"));
  EXPECT_EQ(0, pContext->err);
}

TEST_F(KvServerHiredisTest, ValuesMayBeAnyBytes) {
  const Context_t pContext = Connect();
  std::string strAll;
  for (int i = 0; i < 512; ++i) {
    strAll += static_cast<char>(i);
  }
  EXPECT_EQ("status OK", Ask(pContext, "SET a %b", strAll.data(), strAll.size()));
  EXPECT_EQ("string " + strAll, Ask(pContext, "GET a"));
  const std::string strZeros("\0\0\0", 3);
  EXPECT_EQ("integer 515", Ask(pContext, "APPEND a %b", strZeros.data(), strZeros.size()));
  EXPECT_EQ("string " + strAll + strZeros, Ask(pContext, "GETSET a %b", "", size_t{0}));
  EXPECT_EQ("string ", Ask(pContext, "GET a"));
  EXPECT_EQ("status OK", AskWords(pContext, {"MSET", "k\r\n 1", strZeros, "k\xff", "*1\r\n"}));
  EXPECT_EQ("[string *1\r\n, string " + strZeros + "]",
            AskWords(pContext, {"MGET", "k\xff", "k\r\n 1"}));
}

TEST_F(KvServerHiredisTest, AKeyWithAZeroByteIsRefused) {
  const Context_t pContext = Connect();
  EXPECT_EQ("error ERR key contains a zero byte", Ask(pContext, "SET %b 1", "a\0b", size_t{3}));
  EXPECT_EQ("integer 0", Ask(pContext, "DBSIZE"));
}

TEST_F(KvServerHiredisTest, ValuesUpToTheLimit) {
  const Context_t pContext = Connect();
  const std::string strLargest(MAX_VALUE, 'x');
  EXPECT_EQ("status OK", AskWords(pContext, {"SET", "a", strLargest}));
  EXPECT_EQ("status OK", AskWords(pContext, {"SET", "b", strLargest}));
  EXPECT_EQ("[string " + strLargest + ", string " + strLargest + "]", Ask(pContext, "MGET a b"));
  EXPECT_EQ("error ERR string exceeds maximum allowed size (limits.value)",
            Ask(pContext, "APPEND a x"));
  EXPECT_EQ("integer " + std::to_string(MAX_VALUE), Ask(pContext, "STRLEN a"));
}

TEST_F(KvServerHiredisTest, AValueAboveTheLimitEndsTheConnection) {
  const Context_t pContext = Connect();
  EXPECT_EQ(
      "error ERR Protocol error: invalid bulk length, more than the limit of 1048576 bytes "
      "(limits.value)",
      AskWords(pContext, {"SET", "a", std::string(MAX_VALUE + 1, 'x')}));
  EXPECT_EQ("none", Ask(pContext, "PING"));
  EXPECT_EQ("status PONG", Ask(Connect(), "PING"));
}

TEST_F(KvServerHiredisTest, PipelinedRepliesComeInOrder) {
  const Context_t pContext = Connect();
  const int iCommands = 5000;
  for (int i = 0; i < iCommands; ++i) {
    redisAppendCommand(pContext.get(), "SET key:%d %d", i, i);
    redisAppendCommand(pContext.get(), "GET key:%d", i);
    redisAppendCommand(pContext.get(), i % 2 == 0 ? "PING %d" : "INCR key:%d", i);
  }
  for (int i = 0; i < iCommands; ++i) {
    const std::string strNumber = std::to_string(i);
    ASSERT_EQ("status OK", NextReply(pContext)) << i;
    ASSERT_EQ("string " + strNumber, NextReply(pContext));
    ASSERT_EQ(i % 2 == 0 ? "string " + strNumber : "integer " + std::to_string(i + 1),
              NextReply(pContext));
  }
  EXPECT_EQ("integer 5000", Ask(pContext, "DBSIZE"));
}

// The library writes all of a pipeline before it reads the first reply.
TEST_F(KvServerHiredisTest, APipelineMayBeWrittenWholeBeforeItsRepliesAreRead) {
  const Context_t pContext = Connect();
  const std::string strValue(2000, 'v');
  const int iCommands = 10000;
  ASSERT_EQ("status OK", AskWords(pContext, {"SET", "a", strValue}));
  for (int i = 0; i < iCommands; ++i) {
    redisAppendCommand(pContext.get(), "GET a");
  }
  int iDone = 0;
  while (iDone == 0 && redisBufferWrite(pContext.get(), &iDone) == REDIS_OK) {
  }
  ASSERT_EQ(1, iDone);
  for (int i = 0; i < iCommands; ++i) {
    ASSERT_EQ("string " + strValue, NextReply(pContext)) << i;
  }
}

TEST_F(KvServerHiredisTest, AClosedConnectionIsMadeAnew) {
  const Context_t pContext = Connect();
  EXPECT_EQ("status OK", Ask(pContext, "SET a 1"));
  const std::string strId = Ask(pContext, "CLIENT ID").substr(std::string("integer ").size());
  EXPECT_EQ("integer 1", Ask(Connect(), "CLIENT KILL ID %s", strId.c_str()));
  EXPECT_EQ("none", Ask(pContext, "GET a"));
  EXPECT_NE(0, pContext->err);
  ASSERT_EQ(REDIS_OK, redisReconnect(pContext.get()));
  EXPECT_EQ("string 1", Ask(pContext, "GET a"));
}

TEST_F(KvServerHiredisTest, QuitIsAnsweredBeforeTheEnd) {
  const Context_t pContext = Connect();
  redisAppendCommand(pContext.get(), "SET a 1");
  redisAppendCommand(pContext.get(), "QUIT");
  EXPECT_EQ("status OK", NextReply(pContext));
  EXPECT_EQ("status OK", NextReply(pContext));
  EXPECT_EQ("none", NextReply(pContext));
  EXPECT_EQ(REDIS_ERR_EOF, pContext->err);
  EXPECT_STREQ("Server closed the connection", pContext->errstr);
}

TEST_F(KvServerHiredisTest, AServerThatWasStartedAgainIsFoundWithItsKeys) {
  const Context_t pContext = Connect();
  EXPECT_EQ("status OK", Ask(pContext, "SET a 1"));
  ASSERT_EQ(0, m_stServer.Stop());
  EXPECT_EQ("none", Ask(pContext, "GET a"));
  EXPECT_EQ(REDIS_ERR, redisReconnect(pContext.get()));
  EXPECT_EQ(REDIS_ERR_IO, pContext->err) << pContext->errstr;
  m_stServer.Start();
  ASSERT_EQ(REDIS_OK, redisReconnect(pContext.get()));
  EXPECT_EQ("string 1", Ask(pContext, "GET a"));
}

TEST_F(KvServerHiredisTest, AStalledWorkerIsATimeoutOfItsOwnKeysOnly) {
  const Context_t pContext = Connect();
  const std::string strStalled = KeyOf(0, 2);
  EXPECT_EQ("status OK", AskWords(pContext, {"SET", strStalled, "1"}));
  redisSetTimeout(pContext.get(), {0, 50000});
  {
    const StoppedProcess stStopped(m_stServer.Worker(0));
    EXPECT_EQ("none", AskWords(pContext, {"GET", strStalled}));
    EXPECT_EQ(REDIS_ERR_IO, pContext->err);
    EXPECT_EQ("nil", AskWords(Connect(), {"GET", KeyOf(1, 2)}));
  }
  redisSetTimeout(pContext.get(), {LIMIT_SECONDS, 0});
  ASSERT_EQ(REDIS_OK, redisReconnect(pContext.get()));
  EXPECT_EQ("string 1", AskWords(pContext, {"GET", strStalled})) << "and no late reply before it";
}

// An asynchronous connection, driven by poll(): what an event loop does for the library.
class AsyncClient {
 public:
  explicit AsyncClient(uint16_t iPort) : m_pContext(redisAsyncConnect("127.0.0.1", iPort)) {
    m_pContext->data = this;
    m_pContext->ev.data = this;
    m_pContext->ev.addRead = [](void* pThis) { static_cast<AsyncClient*>(pThis)->m_bReads = true; };
    m_pContext->ev.delRead = [](void* pThis) {
      static_cast<AsyncClient*>(pThis)->m_bReads = false;
    };
    m_pContext->ev.addWrite = [](void* pThis) {
      static_cast<AsyncClient*>(pThis)->m_bWrites = true;
    };
    m_pContext->ev.delWrite = [](void* pThis) {
      static_cast<AsyncClient*>(pThis)->m_bWrites = false;
    };
    redisAsyncSetConnectCallback(m_pContext, [](const redisAsyncContext* pContext, int iStatus) {
      static_cast<AsyncClient*>(pContext->data)->m_strEvents += Event("connected", iStatus);
    });
    redisAsyncSetDisconnectCallback(m_pContext, [](const redisAsyncContext* pContext, int iStatus) {
      auto* pThis = static_cast<AsyncClient*>(pContext->data);
      pThis->m_strEvents += Event("disconnected", iStatus);
      pThis->m_pContext = nullptr;  // the library frees it
    });
  }
  ~AsyncClient() {
    if (m_pContext != nullptr) {
      redisAsyncFree(m_pContext);
    }
  }
  AsyncClient(const AsyncClient&) = delete;
  AsyncClient& operator=(const AsyncClient&) = delete;

  // The reply, as a text, will be appended to Replies().
  template <typename... Arguments_T>
  void Ask(const char* pFormat, Arguments_T... arguments) {
    const auto fnReply = [](redisAsyncContext*, void* pReply, void* pThis) {
      static_cast<AsyncClient*>(pThis)->m_vecReplies.push_back(
          TextOf(static_cast<const redisReply*>(pReply)));
    };
    if (redisAsyncCommand(m_pContext, fnReply, this, pFormat, arguments...) != REDIS_OK) {
      throw std::runtime_error("the library does not take the command");
    }
  }
  void Disconnect() { redisAsyncDisconnect(m_pContext); }

  // One turn of the loop; false once the connection has ended.
  bool Turn() {
    const short iEvents = static_cast<short>((m_bReads ? POLLIN : 0) | (m_bWrites ? POLLOUT : 0));
    pollfd stPoll{m_pContext->c.fd, iEvents, 0};
    if (poll(&stPoll, 1, LIMIT_SECONDS * 1000) != 1) {
      throw std::runtime_error("nothing comes");
    }
    if ((stPoll.revents & (POLLIN | POLLHUP | POLLERR)) != 0 && m_bReads) {
      redisAsyncHandleRead(m_pContext);
    }
    if (m_pContext != nullptr && (stPoll.revents & POLLOUT) != 0) {
      redisAsyncHandleWrite(m_pContext);
    }
    return m_pContext != nullptr;
  }
  void RunUntil(size_t iReplies) {
    while (m_vecReplies.size() < iReplies && Turn()) {
    }
  }
  void RunToEnd() {
    while (Turn()) {
    }
  }

  const std::vector<std::string>& Replies() const { return m_vecReplies; }
  const std::string& Events() const { return m_strEvents; }

 private:
  static std::string Event(const char* pWhat, int iStatus) {
    return std::string(pWhat) + (iStatus == REDIS_OK ? " well; " : " with an error; ");
  }

  redisAsyncContext* m_pContext;
  bool m_bReads = false;
  bool m_bWrites = false;
  std::vector<std::string> m_vecReplies;
  std::string m_strEvents;
};

TEST_F(KvServerHiredisTest, AsynchronousRepliesComeInOrder) {
  AsyncClient stClient(m_stServer.Port());
  const size_t iCommands = 3000;
  for (size_t i = 0; i < iCommands; ++i) {
    stClient.Ask("SET key:%lu %lu", i, i);
    stClient.Ask("GET key:%lu", i);
  }
  stClient.RunUntil(2 * iCommands);
  ASSERT_EQ(2 * iCommands, stClient.Replies().size());
  for (size_t i = 0; i < iCommands; ++i) {
    ASSERT_EQ("status OK", stClient.Replies()[2 * i]);
    ASSERT_EQ("string " + std::to_string(i), stClient.Replies()[2 * i + 1]);
  }
  EXPECT_EQ("connected well; ", stClient.Events());
}

TEST_F(KvServerHiredisTest, AnAsynchronousDisconnectWaitsForItsReplies) {
  AsyncClient stClient(m_stServer.Port());
  stClient.Ask("INCR a");
  stClient.Ask("INCR a");
  stClient.Disconnect();
  stClient.RunToEnd();
  EXPECT_EQ((std::vector<std::string>{"integer 1", "integer 2"}), stClient.Replies());
  EXPECT_EQ("connected well; disconnected well; ", stClient.Events());
}

TEST_F(KvServerHiredisTest, AnAsynchronousClientHearsOfTheServersClose) {
  AsyncClient stClient(m_stServer.Port());
  stClient.Ask("SET %s 1", KeyOf(0, 2).c_str());
  stClient.RunUntil(1);
  const StoppedProcess stStopped(m_stServer.Worker(0));
  stClient.Ask("GET %s", KeyOf(0, 2).c_str());
  stClient.Ask("PING");
  stClient.Turn();  // writes
  EXPECT_EQ("integer 1", Ask(Connect(), "CLIENT KILL TYPE normal"));
  stClient.RunToEnd();
  EXPECT_EQ((std::vector<std::string>{"status OK", "none", "none"}), stClient.Replies());
  EXPECT_EQ("connected well; disconnected with an error; ", stClient.Events());
}

TEST_F(KvServerHiredisTest, ManyAsynchronousClientsCountTogether) {
  const size_t iClients = 50;
  const size_t iEach = 100;
  std::vector<std::unique_ptr<AsyncClient>> vecClients;
  for (size_t i = 0; i < iClients; ++i) {
    vecClients.push_back(std::make_unique<AsyncClient>(m_stServer.Port()));
    for (size_t iCommand = 0; iCommand < iEach; ++iCommand) {
      vecClients.back()->Ask(iCommand % 2 == 0 ? "INCR %s" : "INCRBY %s 1", "a");
    }
  }
  for (const auto& pClient : vecClients) {
    pClient->RunUntil(iEach);
  }
  EXPECT_EQ("string 5000", Ask(Connect(), "GET a"));
}

}  // namespace
