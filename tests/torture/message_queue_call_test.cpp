// The queue while each of its system calls fails in turn.

#include <unistd.h>

#include <algorithm>

#include "failing_call.h"
#include "queue_fixture.h"

namespace {

const uint32_t SEGMENT_SIZE = HEAD_SIZE + RING_SIZE;

int AttachWithKey(MessageQueue& stQueue, const std::string& strFifo, key_t iKey) {
  return stQueue.AttachWithKey(strFifo.c_str(), iKey, SEGMENT_SIZE);
}

// One message goes through, which an attach that failed before has not spoilt.
void ExpectUsable(MessageQueue& stQueue) {
  ASSERT_TRUE(stQueue.Ready());
  ASSERT_EQ(RING_SIZE - 1, stQueue.CanWriteSize());
  EXPECT_EQ(1, PushText(stQueue, "text"));
  EXPECT_EQ("text", PopText(stQueue));
  stQueue.ClearFifo();
}

// A FIFO that is there need not be looked for nor made, and letting go can not fail.
bool IsHarmless(const Attempt& stAttempt) {
  return stAttempt.FailsIn({{"access"}, {"close"}, {"shmdt"}});
}

// A queue's own FIFO and key in a directory that is not there yet.
struct place_t {
  PrivateDirectory stDirectory;
  PrivateKey stKey;
  std::string strFifo = stDirectory.File("a/fifo");
};

TEST(MessageQueueCallTest, AttachThatCreatesFailsAndCanBeRepeated) {
  FailEachCall([](Attempt& stAttempt) {
    const place_t stPlace;
    MessageQueue stQueue;
    int iResult = 0;
    CaptureOutput(1, [&] {
      iResult = stAttempt.Run(
          [&] { return AttachWithKey(stQueue, stPlace.strFifo, stPlace.stKey.Key()); });
    });
    if (stAttempt.FailsIn({{"shmget", EEXIST}})) {
      // Somebody else's that was removed between the two calls: the second makes it anew, and
      // takes it for one whose creator is not through with Init yet.
      EXPECT_EQ(0, iResult);
      EXPECT_EQ(0u, +RawSegment(stPlace.stKey.Key()).Head()->iSize);
      return;
    }
    const bool bFailed = stAttempt.Fails() && !IsHarmless(stAttempt);
    ASSERT_EQ(bFailed ? -1 : 0, iResult);
    EXPECT_EQ(!bFailed, stQueue.Ready());
    if (bFailed) {
      const bool bNoFifo = stAttempt.FailsIn({{"mknodat", EEXIST}});  // so open() does not find it
      EXPECT_EQ(bNoFifo ? ENOENT : stAttempt.Failure().iErrno, stAttempt.Errno());
      ASSERT_EQ(0, AttachWithKey(stQueue, stPlace.strFifo, stPlace.stKey.Key()));
    }
    ExpectUsable(stQueue);
  });
}

TEST(MessageQueueCallTest, AttachThatJoinsFailsAndCanBeRepeated) {
  FailEachCall([](Attempt& stAttempt) {
    const place_t stPlace;
    MessageQueue stCreator;
    MessageQueue stQueue;
    ASSERT_EQ(0, AttachWithKey(stCreator, stPlace.strFifo, stPlace.stKey.Key()));
    int iResult = 0;
    CaptureOutput(1, [&] {
      iResult = stAttempt.Run(
          [&] { return AttachWithKey(stQueue, stPlace.strFifo, stPlace.stKey.Key()); });
    });
    // The second shmctl() asks whether the segment is larger than it need be.
    const bool bHarmless =
        IsHarmless(stAttempt) ||
        stAttempt.FailsIn({{"mknodat", EEXIST}, {"shmget", EEXIST, 1}, {"shmctl", -1, 2}});
    const bool bFailed = stAttempt.Fails() && !bHarmless;
    ASSERT_EQ(bFailed ? -1 : 0, iResult);
    if (bFailed) {
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
      ASSERT_EQ(0, AttachWithKey(stQueue, stPlace.strFifo, stPlace.stKey.Key()));
    }
    ASSERT_EQ(1, PushText(stCreator, "text"));
    EXPECT_EQ("text", PopText(stQueue));
  });
}

TEST(MessageQueueCallTest, AttachByPathFailsAndCanBeRepeated) {
  FailEachCall([](Attempt& stAttempt) {
    const PrivateDirectory stDirectory;
    const std::string strFifo = stDirectory.File("fifo");
    MessageQueue stQueue;
    const auto fnAttach = [&] { return stQueue.Attach(strFifo.c_str(), 1, SEGMENT_SIZE); };
    int iResult = 0;
    CaptureOutput(1, [&] { iResult = stAttempt.Run(fnAttach); });
    if (iResult != 0) {
      EXPECT_TRUE(stAttempt.Fails() && !IsHarmless(stAttempt));
      EXPECT_EQ(0, fnAttach());
    }
    if (!stAttempt.FailsIn({{"shmget", EEXIST}})) {
      ExpectUsable(stQueue);
    }
    stQueue.Delete();
  });
}

TEST(MessageQueueCallTest, FailedWakeLosesNoMessage) {
  FailEachCall([](Attempt& stAttempt) {
    const place_t stPlace;
    MessageQueue stQueue;
    ASSERT_EQ(0, AttachWithKey(stQueue, stPlace.strFifo, stPlace.stKey.Key()));
    EXPECT_EQ(2, stAttempt.Run([&] { return PushTexts(stQueue, {"one", "two"}); }));
    EXPECT_EQ((Texts_t{"one", "two"}), PopTexts(stQueue, 3));
    stQueue.ClearFifo();
    ExpectUsable(stQueue);
  });
}

TEST(MessageQueueCallTest, FailedDrainLeavesTheMessagesAndAWakeForThem) {
  FailEachCall([](Attempt& stAttempt) {
    const place_t stPlace;
    MessageQueue stQueue;
    ASSERT_EQ(0, AttachWithKey(stQueue, stPlace.strFifo, stPlace.stKey.Key()));
    ASSERT_EQ(1, PushText(stQueue, "text"));
    stAttempt.Run([&] { stQueue.ClearFifo(); });
    char cByte = 0;
    EXPECT_EQ(stAttempt.Fails() && stAttempt.Failure().iShorter == 0 ? 1 : -1,
              read(stQueue.FifoFD(), &cByte, 1));
    EXPECT_EQ("text", PopText(stQueue));
  });
}

TEST(MessageQueueCallTest, DetachLetsGoOfAllAndKeepsErrno) {
  FailEachCall([](Attempt& stAttempt) {
    const place_t stPlace;
    MessageQueue stQueue;
    ASSERT_EQ(0, AttachWithKey(stQueue, stPlace.strFifo, stPlace.stKey.Key()));
    EXPECT_EQ(0, stAttempt.Run([&] { return stQueue.Detach(); }));
    EXPECT_EQ(0, stAttempt.Errno());
    EXPECT_EQ(-1, stQueue.FifoFD());
    EXPECT_EQ(0, Attachments(stPlace.stKey.Key()));
  });
}

TEST(MessageQueueCallTest, DeleteReturnsZero) {
  FailEachCall([](Attempt& stAttempt) {
    const place_t stPlace;
    MessageQueue stQueue;
    ASSERT_EQ(0, AttachWithKey(stQueue, stPlace.strFifo, stPlace.stKey.Key()));
    EXPECT_EQ(0, stAttempt.Run([&] { return stQueue.Delete(); }));
    EXPECT_EQ(1, PushText(stQueue, "text"));  // it is attached all the same
    EXPECT_EQ(stAttempt.Fails() ? 1 : -1, Attachments(stPlace.stKey.Key()));
  });
}

TEST(MessageQueueCallTest, DumpWritesTheOtherLinesWhenOneFails) {
  FailEachCall([](Attempt& stAttempt) {
    const place_t stPlace;
    MessageQueue stQueue;
    ASSERT_EQ(0, AttachWithKey(stQueue, stPlace.strFifo, stPlace.stKey.Key()));
    const std::string strText =
        CaptureDescriptor([&](int iFD) { stAttempt.Run([&] { stQueue.Dump(iFD); }); });
    const bool bLost = stAttempt.FailsIn({{"write"}}) && stAttempt.Failure().iErrno != 0;
    EXPECT_EQ(bLost ? 8 : 9, std::count(strText.begin(), strText.end(), '\n'));
    ExpectUsable(stQueue);
  });
}

}  // namespace
