#include "client_list.h"

#include <gtest/gtest.h>

namespace {

const time_t NOW = 1000;

ClientRecord_t Record(uint64_t iNumber) {
  ClientRecord_t stRecord;
  stRecord.iNumber = iNumber;
  stRecord.iConnected = NOW - 60;
  stRecord.iActive = NOW - 5;
  return stRecord;
}

ClientState_t State(const ClientRecord_t& stRecord) {
  return {&stRecord, "1.2.3.4:50", "127.0.0.1:6399", 7, 11, 13, false, false, true, false};
}

// Whether CLIENT LIST with these arguments shows client 5.
bool Lists(const Arguments_t& vecArguments) {
  ClientFilter_t stFilter;
  Arguments_t vecAll{"CLIENT", "LIST"};
  vecAll.insert(vecAll.end(), vecArguments.begin(), vecArguments.end());
  EXPECT_EQ("", ParseListFilter(vecAll, stFilter));
  const ClientRecord_t stRecord = Record(5);
  return stFilter.Matches(State(stRecord));
}

ClientFilter_t KillFilter(const Arguments_t& vecArguments) {
  ClientFilter_t stFilter;
  Arguments_t vecAll{"CLIENT", "KILL"};
  vecAll.insert(vecAll.end(), vecArguments.begin(), vecArguments.end());
  EXPECT_EQ("", ParseKillFilter(vecAll, stFilter));
  return stFilter;
}

// Whether CLIENT KILL with these arguments means client 5.
bool Kills(const Arguments_t& vecArguments) {
  const ClientRecord_t stRecord = Record(5);
  return KillFilter(vecArguments).Matches(State(stRecord));
}

std::string ListError(const Arguments_t& vecArguments) {
  ClientFilter_t stFilter;
  return ParseListFilter(vecArguments, stFilter);
}

std::string KillError(const Arguments_t& vecArguments) {
  ClientFilter_t stFilter;
  return ParseKillFilter(vecArguments, stFilter);
}

TEST(KvClientListTest, LineShowsNamesAndTimes) {
  ClientRecord_t stRecord = Record(3);
  EXPECT_EQ(
      "id=3 addr=1.2.3.4:50 laddr=127.0.0.1:6399 fd=7 name= age=60 idle=5 flags=N db=0 sub=0 "
      "psub=0 ssub=0 multi=-1 qbuf=11 omem=13 events=r cmd=NULL user=default redir=-1 resp=2\n",
      ClientLine(State(stRecord), NOW));
  stRecord.strName = "me";
  stRecord.pCommand = "client|list";
  const std::string strLine = ClientLine(State(stRecord), NOW);
  EXPECT_NE(std::string::npos, strLine.find(" name=me age="));
  EXPECT_NE(std::string::npos, strLine.find(" cmd=client|list user="));
}

TEST(KvClientListTest, LineShowsWhatAClientWaitsFor) {
  const ClientRecord_t stRecord = Record(3);
  ClientState_t stState = State(stRecord);
  stState.bPaused = true;
  stState.bReads = false;
  EXPECT_NE(std::string::npos, ClientLine(stState, NOW).find(" flags=b db="));
  EXPECT_NE(std::string::npos, ClientLine(stState, NOW).find(" events= cmd="));
  stState.bClosing = true;
  stState.bWrites = true;
  stState.bReads = true;
  EXPECT_NE(std::string::npos, ClientLine(stState, NOW).find(" flags=bc db="));
  EXPECT_NE(std::string::npos, ClientLine(stState, NOW).find(" events=rw cmd="));
}

TEST(KvClientListTest, NamesAreVisibleCharacters) {
  EXPECT_TRUE(IsClientName(""));
  EXPECT_TRUE(IsClientName("!a~"));
  for (const std::string_view strName :
       {std::string_view(" "), std::string_view("a b"), std::string_view("a\n"),
        std::string_view("\x7f"), std::string_view("\xc3\xa4"), std::string_view("a\0", 2)}) {
    EXPECT_FALSE(IsClientName(strName)) << strName;
  }
}

TEST(KvClientListTest, ListTakesATypeOrNumbers) {
  EXPECT_TRUE(Lists({}));
  EXPECT_TRUE(Lists({"type", "NORMAL"}));
  for (const char* pType : {"master", "replica", "SLAVE", "pubsub"}) {
    EXPECT_FALSE(Lists({"TYPE", pType}));
  }
  EXPECT_TRUE(Lists({"ID", "9", "5", "1"}));
  EXPECT_FALSE(Lists({"ID", "9", "4", "1"}));
  EXPECT_FALSE(Lists({"id", "-5"}));
}

TEST(KvClientListTest, ListRefusesWhatItDoesNotKnow) {
  EXPECT_EQ("ERR Unknown client type 'x'", ListError({"CLIENT", "LIST", "TYPE", "x"}));
  EXPECT_EQ("ERR Invalid client ID", ListError({"CLIENT", "LIST", "ID", "1", "x"}));
  for (const Arguments_t& vecBad : {Arguments_t{"CLIENT", "LIST", "ID"},
                                    {"CLIENT", "LIST", "TYPE"},
                                    {"CLIENT", "LIST", "x"},
                                    {"CLIENT", "LIST", "x", "y"},
                                    {"CLIENT", "LIST", "TYPE", "normal", "x"}}) {
    EXPECT_EQ("ERR syntax error", ListError(vecBad));
  }
}

TEST(KvClientListTest, KillInItsOldFormMeansOneAddressAndOneself) {
  const ClientFilter_t stFilter = KillFilter({"1.2.3.4:50"});
  EXPECT_TRUE(stFilter.bOldForm);
  EXPECT_FALSE(stFilter.bSkipMe);
  EXPECT_TRUE(Kills({"1.2.3.4:50"}));
  EXPECT_FALSE(Kills({"1.2.3.4:5"}));
  EXPECT_FALSE(Kills({""}));  // an empty text is no wildcard
  EXPECT_FALSE(Kills({"ID"}));
}

TEST(KvClientListTest, KillFiltersMustAllMatch) {
  EXPECT_TRUE(Kills({"ID", "5"}));
  EXPECT_FALSE(Kills({"ID", "6"}));
  EXPECT_TRUE(Kills({"addr", "1.2.3.4:50", "LADDR", "127.0.0.1:6399", "id", "5", "user", "default",
                     "TYPE", "normal"}));
  EXPECT_FALSE(Kills({"ADDR", "1.2.3.4:51", "ID", "5"}));
  EXPECT_FALSE(Kills({"ADDR", ""}));
  EXPECT_FALSE(Kills({"LADDR", "127.0.0.1:639", "ID", "5"}));
  EXPECT_FALSE(Kills({"LADDR", ""}));
  EXPECT_FALSE(Kills({"TYPE", "pubsub", "ID", "5"}));
  EXPECT_FALSE(Kills({"ID", "5", "ID", "6"}));  // the last one counts
}

TEST(KvClientListTest, KillSparesTheAskerUnlessTold) {
  EXPECT_TRUE(KillFilter({"ID", "5"}).bSkipMe);
  EXPECT_TRUE(KillFilter({"SKIPME", "YES"}).bSkipMe);
  EXPECT_FALSE(KillFilter({"skipme", "no", "ID", "5"}).bSkipMe);
  EXPECT_FALSE(KillFilter({"ID", "5"}).bOldForm);
}

TEST(KvClientListTest, KillRefusesWhatItDoesNotKnow) {
  for (const char* pId : {"0", "-1", "x", "", " 5", "5.5", "99999999999999999999"}) {
    EXPECT_EQ("ERR client-id should be greater than 0", KillError({"CLIENT", "KILL", "ID", pId}));
  }
  EXPECT_EQ("ERR Unknown client type 'x'", KillError({"CLIENT", "KILL", "TYPE", "x"}));
  EXPECT_EQ("ERR No such user 'x'", KillError({"CLIENT", "KILL", "USER", "x"}));
  for (const Arguments_t& vecBad : {Arguments_t{"CLIENT", "KILL", "SKIPME", "x"},
                                    {"CLIENT", "KILL", "x", "y"},
                                    {"CLIENT", "KILL", "ID", "5", "ADDR"},
                                    {"CLIENT", "KILL", "MAXAGE", "5"}}) {
    EXPECT_EQ("ERR syntax error", KillError(vecBad));
  }
}

}  // namespace
