#include "worker_link.h"

#include <optional>

#include "kv_queue_fixture.h"

namespace {

const uint16_t COMMAND = 5;

// The link under test; the worker's side of both queues is the test's.
class KvWorkerLinkTest : public KvQueueTest {
 protected:
  void SetUp() override {
    NewLink(LIFE);
    Attach(m_stRequests, Names().stIn);
    Attach(m_stAnswers, Names().stOut);
  }

  // As a gateway process of that life has it.
  void NewLink(uint64_t iLife) {
    m_stLink.emplace(3, iLife, QUEUE_BYTES);
    ASSERT_TRUE(m_stLink->Attach(Names()));
  }

  void AddRun(const ReplyTarget_t& stTarget, const std::vector<Arguments_t>& vecCommands) {
    m_stLink->StartRun(stTarget);
    for (const Arguments_t& vecArguments : vecCommands) {
      m_stLink->Add(COMMAND, vecArguments, 0);
    }
  }

  // A published batch with one command for each of the targets.
  void Ask(const std::vector<ReplyTarget_t>& vecTargets) {
    for (const ReplyTarget_t& stTarget : vecTargets) {
      AddRun(stTarget, {{"key"}});
    }
    m_stLink->Publish();
  }

  std::string Answer(uint64_t iNumber, const std::vector<WrittenPiece_t>& vecPieces,
                     uint64_t iLife = LIFE) {
    return AnswerRecord(MakeAnswer(iLife, iNumber, vecPieces));
  }

  std::string AnswerRecord(const std::string& strRecord) {
    EXPECT_TRUE(Push(m_stAnswers, strRecord));
    m_stLink->Drain(*this);
    return Told();
  }

  RequestHead_t NextHead() {
    const std::string strRecord = Pop(m_stRequests);
    EXPECT_GE(strRecord.size(), sizeof(RequestHead_t)) << strRecord;
    return RecordReader(strRecord).Take<RequestHead_t>();
  }

  // Fills the worker's queue until the link has to keep something; how many commands that took.
  int Fill() {
    const std::string strValue(3000, 'v');
    int iCommands = 0;
    for (; !m_stLink->Blocked(); ++iCommands) {
      AddRun({1, static_cast<uint32_t>(iCommands)}, {{"key", strValue}});
      m_stLink->Publish();
    }
    return iCommands;
  }

  std::optional<WorkerLink> m_stLink;
  MessageQueue m_stRequests;
  MessageQueue m_stAnswers;
};

TEST_F(KvWorkerLinkTest, ATurnIsOneRecord) {
  AddRun({1, 0}, {{"a"}, {"b"}});
  AddRun({2, 0}, {{"c"}});
  EXPECT_EQ(0u, m_stRequests.CanReadSize()) << "before it is published";
  m_stLink->Publish();
  const std::string strRecord = Pop(m_stRequests);
  RecordReader stReader(strRecord);
  const auto stHead = stReader.Take<RequestHead_t>();
  EXPECT_EQ(Names().iMark, stHead.iMark);
  EXPECT_EQ(LIFE, stHead.iLife);
  EXPECT_EQ(1u, stHead.iNumber);
  EXPECT_EQ(2u, stHead.iRuns);
  EXPECT_EQ(0u, stHead.iValues);
  EXPECT_EQ(2u, stReader.Take<RunHead_t>().iCommands);
  EXPECT_EQ(COMMAND, stReader.Take<CommandHead_t>().iCommand);
  EXPECT_EQ("(none)", Pop(m_stRequests));
}

TEST_F(KvWorkerLinkTest, NothingToSayIsNotSaid) {
  m_stLink->Publish();
  EXPECT_EQ("(none)", Pop(m_stRequests));
}

TEST_F(KvWorkerLinkTest, LargeValuesFollowTheirBatchInTheOrderOfTheCommands) {
  const std::string strFirst(LARGE_VALUE, '1');
  const std::string strSecond(LARGE_VALUE + 1, '2');
  AddRun({1, 0}, {{"a", strFirst}, {"b", "small"}, {"c", strSecond}});
  m_stLink->Publish();
  EXPECT_EQ(2u, NextHead().iValues);
  EXPECT_EQ(strFirst, Pop(m_stRequests));
  EXPECT_EQ(strSecond, Pop(m_stRequests));
  EXPECT_EQ("(none)", Pop(m_stRequests));
}

TEST_F(KvWorkerLinkTest, BatchesAreNumberedFromOne) {
  Ask({{1, 0}});
  Ask({{1, 0}});
  EXPECT_EQ(1u, NextHead().iNumber);
  EXPECT_EQ(2u, NextHead().iNumber);
}

TEST_F(KvWorkerLinkTest, OnlyTheLatestRunOfAnOpenBatchIsOpen) {
  EXPECT_FALSE(m_stLink->IsOpenRun({1, 0}));
  AddRun({1, 0}, {{"a"}});
  EXPECT_TRUE(m_stLink->IsOpenRun({1, 0}));
  EXPECT_FALSE(m_stLink->IsOpenRun({1, 1}));
  EXPECT_FALSE(m_stLink->IsOpenRun({2, 0}));
  AddRun({2, 0}, {{"a"}});
  EXPECT_FALSE(m_stLink->IsOpenRun({1, 0}));
  m_stLink->Publish();
  EXPECT_FALSE(m_stLink->IsOpenRun({2, 0}));
}

TEST_F(KvWorkerLinkTest, AFullBatchIsClosedAndTheLinkIsNotBlocked) {
  const std::string strValue(3000, 'v');
  while (m_stLink->IsOpenRun({1, 0}) || m_stRequests.CanReadSize() == 0) {
    AddRun({1, 0}, {{"key", strValue}});
    EXPECT_FALSE(m_stLink->Blocked());
    if (!m_stLink->IsOpenRun({1, 0})) {
      AddRun({1, 1}, {{"key", strValue}});
      m_stLink->Publish();
    }
  }
  EXPECT_FALSE(m_stLink->Blocked());
  EXPECT_EQ(1u, NextHead().iNumber);
  EXPECT_EQ(2u, NextHead().iNumber);
}

// The size of the largest record or gather that a worker's ring gets at once.
TEST_F(KvWorkerLinkTest, EveryUnitFitsIntoTheRingWhereverItsLargeArgumentsStand) {
  const std::string strLarge(20000, 'v');
  for (uint32_t i = 0; i < 20; ++i) {
    if (!m_stLink->IsOpenRun({1, i / 2})) {
      m_stLink->StartRun({1, i / 2});
    }
    m_stLink->Add(
        COMMAND, i % 3 == 0 ? Arguments_t{"key", strLarge} : Arguments_t{"key", strLarge, "NX"}, 0);
  }
  int iRecords = 0;
  for (m_stLink->Publish(); iRecords < 100 && m_stLink->Blocked(); m_stLink->Publish()) {
    iRecords += Pop(m_stRequests) != "(none)" ? 1 : 100;
  }
  EXPECT_LT(iRecords, 100) << "something never fits";
}

TEST_F(KvWorkerLinkTest, ManySmallCommandsFillABatchToo) {
  m_stLink->StartRun({1, 0});
  int iCommands = 0;
  for (; m_stLink->IsOpenRun({1, 0}); ++iCommands) {
    m_stLink->Add(COMMAND, {""}, 0);
  }
  const size_t iEach = sizeof(CommandHead_t) + sizeof(uint32_t);
  EXPECT_NEAR(static_cast<double>(RecordLimit(QUEUE_BYTES) / iEach), iCommands, 10);
}

TEST_F(KvWorkerLinkTest, WhatFindsNoRoomIsKeptInOrder) {
  const int iCommands = Fill();
  EXPECT_TRUE(m_stLink->Blocked());
  for (int i = 1; i <= iCommands; ++i) {
    EXPECT_EQ(static_cast<uint64_t>(i), NextHead().iNumber);
    m_stLink->Publish();
  }
  EXPECT_FALSE(m_stLink->Blocked());
  EXPECT_EQ("(none)", Pop(m_stRequests));
}

TEST_F(KvWorkerLinkTest, KeptValuesDoNotNeedTheirMemoryAnyMore) {
  Fill();
  std::string strValue(LARGE_VALUE, 'v');
  AddRun({9, 0}, {{"key", strValue}});
  m_stLink->Publish();
  strValue.assign(LARGE_VALUE, 'x');
  std::string strLatest;
  for (std::string strRecord; (strRecord = Pop(m_stRequests)) != "(none)"; m_stLink->Publish()) {
    strLatest = strRecord;
  }
  EXPECT_EQ(std::string(LARGE_VALUE, 'v'), strLatest);
  EXPECT_FALSE(m_stLink->Blocked());
}

TEST_F(KvWorkerLinkTest, AnswersGoToTheirTargetsInOrder) {
  Ask({{1, 0}, {2, 5}, {1, 1}});
  EXPECT_EQ("1.0=a/1\n2.5=b/1\n1.1=c/1\n", Answer(1, {{"a"}, {"b"}, {"c"}}));
}

TEST_F(KvWorkerLinkTest, ARunMayGoOnOverSeveralRecords) {
  Ask({{1, 0}, {2, 0}});
  EXPECT_EQ("1.0=a/2 goes on\n", Answer(1, {{"a", 2, PIECE_GOES_ON}}));
  EXPECT_EQ("1.0=b/0 goes on torn\n", Answer(1, {{"b", 0, PIECE_GOES_ON | PIECE_TORN}}));
  EXPECT_EQ("1.0=c/3\n2.0=d/1\n", Answer(1, {{"c", 3}, {"d"}}));
  EXPECT_EQ("", Answer(1, {{"e"}})) << "the batch is done with";
}

TEST_F(KvWorkerLinkTest, ALaterAnswerMeansThatEarlierRunsAreLost) {
  Ask({{1, 0}, {2, 0}});
  Ask({{3, 0}});
  Ask({{4, 0}, {5, 0}});
  EXPECT_EQ("1.0=a/1 goes on\n", Answer(1, {{"a", 1, PIECE_GOES_ON}}));
  EXPECT_EQ("1.0 lost\n2.0 lost\n3.0 lost\n4.0=x/1\n5.0=y/1\n", Answer(3, {{"x"}, {"y"}}));
}

TEST_F(KvWorkerLinkTest, AFreshWorkerIsAskedWhatItKnows) {
  Ask({{1, 0}});
  Pop(m_stRequests);  // its predecessor died with it
  std::string strHello;
  AppendRecord(strHello, ReplyHead_t{0, 0, REPLY_HELLO, 0});
  EXPECT_EQ("worker 3\n", AnswerRecord(strHello));
  m_stLink->Probe();
  m_stLink->Publish();
  const RequestHead_t stProbe = NextHead();
  EXPECT_EQ(2u, stProbe.iNumber);
  EXPECT_EQ(0u, stProbe.iRuns);
  EXPECT_EQ("1.0 lost\n", Answer(2, {}));
  Ask({{1, 1}});
  EXPECT_EQ("1.1=a/1\n", Answer(3, {{"a"}}));
}

TEST_F(KvWorkerLinkTest, AnswersToAnEarlierGatewayAreDropped) {
  Ask({{1, 0}});
  EXPECT_EQ("", Answer(1, {{"stale"}}, LIFE - 1));
  EXPECT_EQ("", Answer(9, {{"stale"}}, LIFE + 1));
  EXPECT_EQ("1.0=fresh/1\n", Answer(1, {{"fresh"}}));
}

TEST_F(KvWorkerLinkTest, AnswersToNothingAskedAreDropped) {
  EXPECT_EQ("", Answer(1, {{"a"}}));
  Ask({{1, 0}});
  EXPECT_EQ("1.0=a/1\n", Answer(1, {{"a"}, {"more than was asked"}}));
}

TEST_F(KvWorkerLinkTest, ADamagedAnswerLosesItsRunsAndShiftsNone) {
  const std::string strGood = MakeAnswer(LIFE, 1, {{"a"}, {"b"}});
  for (size_t iSize = sizeof(ReplyHead_t); iSize < strGood.size(); ++iSize) {
    NewLink(LIFE);
    Ask({{1, 0}, {2, 0}});
    Ask({{3, 0}});
    const bool bFirst = iSize >= sizeof(ReplyHead_t) + sizeof(PieceHead_t) + 1;
    EXPECT_EQ(bFirst ? "1.0=a/1\n2.0 lost\n" : "1.0 lost\n2.0 lost\n",
              AnswerRecord(strGood.substr(0, iSize)));
    EXPECT_EQ("3.0=c/1\n", Answer(2, {{"c"}}));
  }
}

TEST_F(KvWorkerLinkTest, ARecordWithoutAHeadIsDropped) {
  Ask({{1, 0}});
  EXPECT_EQ("", AnswerRecord(""));
  EXPECT_EQ("", AnswerRecord(std::string(sizeof(ReplyHead_t) - 1, '\xff')));
  EXPECT_EQ("1.0=a/1\n", Answer(1, {{"a"}}));
}

TEST_F(KvWorkerLinkTest, AnInventedNumberOfPiecesCostsNothing) {
  Ask({{1, 0}});
  std::string strRecord;
  AppendRecord(strRecord, ReplyHead_t{LIFE, 1, REPLY_ANSWERS, 0xffffffff});
  EXPECT_EQ("1.0 lost\n", AnswerRecord(strRecord));
}

}  // namespace
