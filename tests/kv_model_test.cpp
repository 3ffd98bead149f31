// The checker that the fault tests and the soak believe: it must see what is lost.

#include "kv_model.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

const char LOST[] = "-ERR worker restarted, the command may or may not have run\r\n";
const char OOM[] = "-OOM command not allowed when used memory > 'maxmemory'.\r\n";

class KvModelTest : public testing::Test {
 protected:
  // Takes a request of that moment.
  std::string Take(const Request_t& vecRequest, const std::string& strReply) {
    return m_stModel.Take(vecRequest, strReply, {m_iNow, m_iNow + 10});
  }
  void Right(const Request_t& vecRequest, const std::string& strReply) {
    EXPECT_EQ("", Take(vecRequest, strReply)) << vecRequest[0];
  }
  void Wrong(const Request_t& vecRequest, const std::string& strReply) {
    KvModel stCopy = m_stModel;
    EXPECT_NE("", stCopy.Take(vecRequest, strReply, {m_iNow, m_iNow + 10})) << vecRequest[0];
  }
  static std::string Bulk(const std::string& strValue) {
    return "$" + std::to_string(strValue.size()) + "\r\n" + strValue + "\r\n";
  }

  int64_t m_iNow = 1000000;
  KvModel m_stModel{100};
};

TEST_F(KvModelTest, AnAcknowledgedValueMustBeThere) {
  Right({"SET", "a", "1"}, "+OK\r\n");
  Wrong({"GET", "a"}, "$-1\r\n");
  Wrong({"GET", "a"}, Bulk("0"));
  Right({"GET", "a"}, Bulk("1"));
  Wrong({"EXISTS", "a"}, ":0\r\n");
  Wrong({"MGET", "b", "a"}, "*2\r\n$-1\r\n$-1\r\n");
  Right({"MGET", "b", "a"}, "*2\r\n$-1\r\n" + Bulk("1"));
}

TEST_F(KvModelTest, AnUnansweredWriteMayHaveRunOrNot) {
  for (const std::string strReply : {"", LOST}) {
    Right({"SET", "a", "1"}, "+OK\r\n");
    Right({"SET", "a", "2"}, strReply);
    EXPECT_EQ(2u, m_stModel.Possible("a"));
    Wrong({"GET", "a"}, "$-1\r\n");
    Right({"GET", "a"}, Bulk("2"));
    Wrong({"GET", "a"}, Bulk("1"));  // who has read it relies on it
  }
}

TEST_F(KvModelTest, OfSeveralUnansweredOnesAnyMayHaveRunInTheirOrder) {
  Right({"SET", "a", "0"}, "+OK\r\n");
  Right({"INCRBY", "a", "10"}, "");
  Right({"APPEND", "a", "5"}, "");
  EXPECT_EQ(4u, m_stModel.Possible("a"));
  Wrong({"GET", "a"}, Bulk("15"));
  Right({"INCR", "a"}, ":106\r\n");
  EXPECT_EQ(1u, m_stModel.Possible("a"));
}

TEST_F(KvModelTest, ARefusedWriteHasNotRun) {
  Right({"SET", "a", "1"}, OOM);
  Wrong({"GET", "a"}, Bulk("1"));
  Right({"SET", "a", "1"}, "-MISCONF Errors writing\r\n");
  Right({"GET", "a"}, "$-1\r\n");
  Right({"MSET", "a", "1", "b", "2"}, OOM);
  Right({"GET", "a"}, Bulk("1"));
  Right({"GET", "b"}, "$-1\r\n");
}

TEST_F(KvModelTest, ADeletedKeyMustNotComeBack) {
  Right({"MSET", "a", "1", "b", "2", "c", "3"}, "+OK\r\n");
  Wrong({"DEL", "a", "b"}, ":1\r\n");
  Right({"DEL", "a", "b"}, ":2\r\n");
  Wrong({"GET", "a"}, Bulk("1"));
  Right({"GETDEL", "c"}, Bulk("3"));
  Wrong({"EXISTS", "a", "b", "c"}, ":1\r\n");
  Right({"UNLINK", "c"}, ":0\r\n");
}

TEST_F(KvModelTest, AKeyExpiresInItsTimeAndNotBefore) {
  Right({"SET", "a", "1", "PX", "1000"}, "+OK\r\n");
  m_iNow += 850;
  Wrong({"GET", "a"}, "$-1\r\n");
  EXPECT_TRUE(m_stModel.MustExist("a", m_iNow));
  m_iNow += 100;  // the server's clock may be behind
  EXPECT_FALSE(m_stModel.MustExist("a", m_iNow));
  EXPECT_TRUE(m_stModel.MayExist("a", m_iNow));
  KvModel stCopy = m_stModel;
  EXPECT_EQ("", stCopy.Take({"GET", "a"}, Bulk("1"), {m_iNow, m_iNow}));
  Right({"GET", "a"}, "$-1\r\n");
  Wrong({"GET", "a"}, Bulk("1"));
}

TEST_F(KvModelTest, AKeyWhoseTimeIsOverIsGone) {
  Right({"SETEX", "a", "1", "v"}, "+OK\r\n");
  m_iNow += 1500;
  Wrong({"GET", "a"}, Bulk("v"));
  EXPECT_FALSE(m_stModel.MayExist("a", m_iNow));
  Right({"APPEND", "a", "w"}, ":1\r\n");
}

TEST_F(KvModelTest, TimesToLive) {
  Right({"SET", "a", "1", "EX", "100"}, "+OK\r\n");
  m_iNow += 10000;
  Right({"TTL", "a"}, ":90\r\n");
  Wrong({"TTL", "a"}, ":80\r\n");
  Wrong({"PTTL", "a"}, ":100000\r\n");
  Wrong({"TTL", "a"}, ":-1\r\n");
  Right({"SET", "a", "2", "KEEPTTL"}, "+OK\r\n");
  Right({"PERSIST", "a"}, ":1\r\n");
  Wrong({"PERSIST", "a"}, ":1\r\n");
  Right({"TTL", "a"}, ":-1\r\n");
  Right({"PEXPIRE", "a", "5000"}, ":1\r\n");
  Right({"SET", "a", "3"}, "+OK\r\n");
  Right({"PTTL", "a"}, ":-1\r\n");
  Right({"TTL", "b"}, ":-2\r\n");
  Wrong({"EXPIRE", "b", "1"}, ":1\r\n");
}

TEST_F(KvModelTest, OptionsOfSet) {
  Right({"SET", "a", "1", "XX"}, "$-1\r\n");
  Right({"SET", "a", "1", "NX"}, "+OK\r\n");
  Wrong({"SET", "a", "2", "NX"}, "+OK\r\n");
  Right({"SET", "a", "2", "GET"}, Bulk("1"));
  Right({"GETSET", "a", "3"}, Bulk("2"));
  Right({"SETNX", "a", "4"}, ":0\r\n");
  Right({"STRLEN", "a"}, ":1\r\n");
  Right({"TYPE", "a"}, "+string\r\n");
  Right({"GET", "a"}, Bulk("3"));
}

TEST_F(KvModelTest, Numbers) {
  Right({"INCR", "a"}, ":1\r\n");
  Right({"DECRBY", "a", "11"}, ":-10\r\n");
  Right({"DECR", "a"}, ":-11\r\n");
  Wrong({"INCRBY", "a", "1"}, ":-11\r\n");
  Right({"SET", "a", "text"}, "+OK\r\n");
  Right({"INCR", "a"}, "-ERR value is not an integer or out of range\r\n");
  Wrong({"INCR", "a"}, ":1\r\n");
}

TEST_F(KvModelTest, AFaultIsToldOnce) {
  Right({"SET", "a", "1"}, "+OK\r\n");
  const std::string strFault = Take({"GET", "a"}, "$-1\r\n");
  EXPECT_NE(std::string::npos, strFault.find("GET a was answered with \"$-1  \" (5 bytes)"))
      << strFault;
  EXPECT_NE(std::string::npos, strFault.find("[\"1\" (1 bytes)]")) << strFault;
  Right({"GET", "a"}, "$-1\r\n");
  Right({"EXISTS", "a", "b"}, ":1\r\n");
  Right({"SET", "a", "2"}, "");
  Right({"GET", "a"}, Bulk("9"));
}

TEST_F(KvModelTest, AnUnknownCommandIsNotGuessed) {
  EXPECT_THROW(Take({"LPUSH", "a", "1"}, ":1\r\n"), std::logic_error);
  EXPECT_THROW(Take({"SET", "a", "1", "IFEQ"}, "+OK\r\n"), std::logic_error);
}

}  // namespace
