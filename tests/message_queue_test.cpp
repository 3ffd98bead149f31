#include "message_queue.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <random>

#include "queue_fixture.h"

namespace {

// A queue's path and key, with nothing there yet.
class MessageQueueAttachTest : public ::testing::Test {
 protected:
  int Attach(MessageQueue& stQueue, uint32_t iSegment = HEAD_SIZE + RING_SIZE) {
    return stQueue.AttachWithKey(m_strFifo.c_str(), m_stKey.Key(), iSegment);
  }
  int MakeSegment(uint32_t iSize) { return shmget(m_stKey.Key(), iSize, IPC_CREAT | 0600); }

  const PrivateDirectory m_stDirectory;
  const PrivateKey m_stKey;
  const std::string m_strFifo = m_stDirectory.File("fifo");
  MessageQueue m_stQueue;
};

mode_t ModeOf(const std::string& strPath) {
  struct stat stStatus {};
  return stat(strPath.c_str(), &stStatus) == 0 ? stStatus.st_mode : 0;
}

bool IsReadable(int iFD) {
  pollfd stPoll{iFD, POLLIN, 0};
  return poll(&stPoll, 1, 0) == 1;
}

TEST_F(MessageQueueAttachTest, NewQueueIsDetached) {
  EXPECT_FALSE(m_stQueue.Ready());
  EXPECT_EQ(-1, m_stQueue.FifoFD());
  EXPECT_EQ(0, m_stQueue.Detach());
  EXPECT_EQ(0, m_stQueue.Delete());
}

TEST_F(MessageQueueAttachTest, AttachMakesDirectoriesAndFifoForTheOwnerAlone) {
  const std::string strFifo = m_stDirectory.File("a/b/fifo");
  ASSERT_EQ(0, m_stQueue.AttachWithKey(strFifo.c_str(), m_stKey.Key(), 100));
  EXPECT_EQ(mode_t{S_IFDIR | 0700}, ModeOf(m_stDirectory.File("a")));
  EXPECT_EQ(mode_t{S_IFDIR | 0700}, ModeOf(m_stDirectory.File("a/b")));
  EXPECT_EQ(mode_t{S_IFIFO | 0700}, ModeOf(strFifo));
}

TEST_F(MessageQueueAttachTest, AttachDerivesTheKeyFromPathAndProject) {
  const std::string strFifo = m_stDirectory.File("a/b/fifo");
  ASSERT_EQ(0, m_stQueue.Attach(strFifo.c_str(), 11, 100));
  const PrivateKey stKey(ftok(strFifo.c_str(), 11));
  EXPECT_TRUE(m_stQueue.Ready());
  EXPECT_EQ(1, Attachments(stKey.Key()));
  EXPECT_EQ(mode_t{S_IFIFO | 0700}, ModeOf(strFifo));
}

TEST_F(MessageQueueAttachTest, ProjectsOfOnePathAreQueuesOfTheirOwn) {
  MessageQueue stOther;
  ASSERT_EQ(0, m_stQueue.Attach(m_strFifo.c_str(), 12, 100));
  const PrivateKey stKey(ftok(m_strFifo.c_str(), 12));
  ASSERT_EQ(0, stOther.Attach(m_strFifo.c_str(), 13, 100));
  const PrivateKey stOtherKey(ftok(m_strFifo.c_str(), 13));
  ASSERT_EQ(1, PushText(m_stQueue, "one"));
  EXPECT_EQ(0u, stOther.CanReadSize());
}

TEST_F(MessageQueueAttachTest, PathWithoutSlashIsInTheWorkingDirectory) {
  ForkedPeer stPeer([this] {
    return chdir(m_stDirectory.Path().c_str()) == 0 &&
                   m_stQueue.AttachWithKey("plain", m_stKey.Key(), 100) == 0
               ? 0
               : 1;
  });
  EXPECT_EQ(0, stPeer.Wait());
  EXPECT_EQ(mode_t{S_IFIFO | 0700}, ModeOf(m_stDirectory.File("plain")));
}

TEST_F(MessageQueueAttachTest, FifoIsOpenForBothDirectionsAndNeverBlocks) {
  ASSERT_EQ(0, Attach(m_stQueue));
  EXPECT_EQ(O_RDWR | O_NONBLOCK,
            fcntl(m_stQueue.FifoFD(), F_GETFL) & (O_ACCMODE | O_NONBLOCK | O_APPEND));
  EXPECT_FALSE(IsReadable(m_stQueue.FifoFD()));
}

TEST_F(MessageQueueAttachTest, SegmentHasTheSizeAskedForAndIsTheOwnersAlone) {
  ASSERT_EQ(0, Attach(m_stQueue, 5000));
  shmid_ds stStatus;
  ASSERT_EQ(0, shmctl(shmget(m_stKey.Key(), 0, 0), IPC_STAT, &stStatus));
  EXPECT_EQ(5000u, stStatus.shm_segsz);
  EXPECT_EQ(0600, stStatus.shm_perm.mode & 0777);
}

TEST_F(MessageQueueAttachTest, CreatorWritesTheHeaderOfAnEmptyRing) {
  ASSERT_EQ(0, Attach(m_stQueue, HEAD_SIZE + 0x0102));
  const RawSegment stSegment(m_stKey.Key());
  EXPECT_EQ(std::string("\x08\x02\x01\0\0\0\0\0\0\0\0\0\0", 13), stSegment.Bytes(0, HEAD_SIZE));
  EXPECT_EQ(0u, m_stQueue.CanReadSize());
  EXPECT_EQ(0x0101u, m_stQueue.CanWriteSize());
}

TEST_F(MessageQueueAttachTest, ExistingSegmentIsTakenWithItsMessages) {
  ASSERT_EQ(0, Attach(m_stQueue));
  ASSERT_EQ(1, PushText(m_stQueue, "from an earlier run"));
  ASSERT_EQ(0, m_stQueue.Detach());
  ASSERT_EQ(0, Attach(m_stQueue));
  EXPECT_EQ("from an earlier run", PopText(m_stQueue));
}

// The example of docs/formats.md. If this fails, processes of two builds no longer understand each
// other.
TEST_F(MessageQueueAttachTest, ImageOfAnEarlierBuildIsReadAndContinued) {
  const std::string strImage(
      "\x08\x10\0\0\0\x0a\0\0\0\x03\0\0\0"
      "llo.......\x05\0\0\0he",
      HEAD_SIZE + 16);
  ASSERT_NE(-1, MakeSegment(HEAD_SIZE + 16));
  const RawSegment stSegment(m_stKey.Key());
  memcpy(stSegment.Head(), strImage.data(), strImage.size());
  ASSERT_EQ(0, Attach(m_stQueue, HEAD_SIZE + 16));
  EXPECT_EQ(6u, m_stQueue.CanWriteSize());
  EXPECT_EQ("hello", PopText(m_stQueue));
  EXPECT_EQ(1, PushText(m_stQueue, "bye"));
  EXPECT_EQ(std::string("llo\x03\0\0\0bye", 10), stSegment.Bytes(HEAD_SIZE, 10));
}

TEST_F(MessageQueueAttachTest, ExistingSegmentIsNeitherCheckedNorRepaired) {
  ASSERT_NE(-1, MakeSegment(HEAD_SIZE + RING_SIZE));
  const RawSegment stSegment(m_stKey.Key());
  stSegment.Head()->cReadyFlag = 77;
  EXPECT_EQ(0, Attach(m_stQueue));
  EXPECT_TRUE(m_stQueue.Ready());
  EXPECT_EQ(std::string("\x4d\0\0\0\0\0\0\0\0\0\0\0\0", 13), stSegment.Bytes(0, HEAD_SIZE));
}

TEST_F(MessageQueueAttachTest, RingSizeComesFromTheSegmentNotFromTheCaller) {
  MessageQueue stSecond;
  ASSERT_EQ(0, Attach(m_stQueue));
  ASSERT_EQ(0, Attach(stSecond, HEAD_SIZE + 10));
  EXPECT_EQ(RING_SIZE - 1, stSecond.CanWriteSize());
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(1, PushText(stSecond, std::string(50, 'x')));
    ASSERT_EQ(std::string(50, 'x'), PopText(m_stQueue));
    ASSERT_EQ(1, PushText(m_stQueue, std::string(40, 'y')));
    ASSERT_EQ(std::string(40, 'y'), PopText(stSecond));
  }
}

TEST_F(MessageQueueAttachTest, SegmentSmallerThanAskedForLeavesTheFifoOpen) {
  ASSERT_NE(-1, MakeSegment(50));
  EXPECT_EQ(-1, Attach(m_stQueue, 51));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_FALSE(m_stQueue.Ready());
  EXPECT_NE(-1, fcntl(m_stQueue.FifoFD(), F_GETFD));
  m_stQueue.Detach();
  EXPECT_EQ(-1, m_stQueue.FifoFD());
}

TEST_F(MessageQueueAttachTest, SegmentThatCannotBeMadeLeavesTheFifoOpen) {
  EXPECT_EQ(-1, Attach(m_stQueue, 0));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_FALSE(m_stQueue.Ready());
  EXPECT_NE(-1, fcntl(m_stQueue.FifoFD(), F_GETFD));
  EXPECT_EQ(-1, Attachments(m_stKey.Key()));
}

TEST_F(MessageQueueAttachTest, FailedAttachmentsDoNotPileUpDescriptors) {
  ASSERT_NE(-1, MakeSegment(50));
  ASSERT_EQ(-1, Attach(m_stQueue, 51));
  const int iOpen = OpenDescriptors();
  ASSERT_EQ(-1, Attach(m_stQueue, 51));
  ASSERT_EQ(0, Attach(m_stQueue, 50));
  EXPECT_EQ(iOpen, OpenDescriptors());
}

TEST_F(MessageQueueAttachTest, AttachingAgainDetachesFirst) {
  const PrivateKey stOther;
  ASSERT_EQ(0, Attach(m_stQueue));
  const int iOpen = OpenDescriptors();
  ASSERT_EQ(0, m_stQueue.AttachWithKey(m_strFifo.c_str(), stOther.Key(), 100));
  EXPECT_EQ(0, Attachments(m_stKey.Key()));
  EXPECT_EQ(1, Attachments(stOther.Key()));
  EXPECT_EQ(iOpen, OpenDescriptors());
}

TEST_F(MessageQueueAttachTest, FailedAttachmentLeavesTheQueueDetached) {
  ASSERT_EQ(0, Attach(m_stQueue));
  EXPECT_EQ(-1, m_stQueue.Attach(m_stDirectory.File(std::string(300, 'x')).c_str(), 1, 100));
  EXPECT_FALSE(m_stQueue.Ready());
  EXPECT_EQ(0, Attachments(m_stKey.Key()));
}

TEST_F(MessageQueueAttachTest, DirectoryThatCannotBeMadeFails) {
  WriteFile(m_stDirectory.File("plain"), "");
  const std::string strFifo = m_stDirectory.File("plain/below/fifo");
  EXPECT_EQ("mkdir " + m_stDirectory.File("plain/below/") + " err, Not a directory\n",
            CaptureOutput(1, [&] {
              EXPECT_EQ(-1, m_stQueue.AttachWithKey(strFifo.c_str(), m_stKey.Key(), 100));
            }));
  CaptureOutput(1, [&] { EXPECT_EQ(-1, m_stQueue.Attach(strFifo.c_str(), 1, 100)); });
  EXPECT_EQ(-1, m_stQueue.FifoFD());
  EXPECT_EQ(-1, Attachments(m_stKey.Key()));
}

TEST_F(MessageQueueAttachTest, FifoThatCannotBeMadeFails) {
  const std::string strFifo = m_stDirectory.File(std::string(300, 'x'));
  EXPECT_EQ(-1, m_stQueue.AttachWithKey(strFifo.c_str(), m_stKey.Key(), 100));
  EXPECT_EQ(ENAMETOOLONG, errno);
  EXPECT_EQ(-1, m_stQueue.Attach(strFifo.c_str(), 1, 100));
  EXPECT_EQ(ENAMETOOLONG, errno);
  EXPECT_EQ(-1, Attachments(m_stKey.Key()));
}

TEST_F(MessageQueueAttachTest, PathThatCannotBeOpenedFails) {
  EXPECT_EQ(-1, m_stQueue.AttachWithKey(m_stDirectory.Path().c_str(), m_stKey.Key(), 100));
  EXPECT_EQ(EISDIR, errno);
  EXPECT_EQ(-1, m_stQueue.FifoFD());
  EXPECT_EQ(-1, Attachments(m_stKey.Key()));
}

TEST_F(MessageQueueAttachTest, PathWithoutKeyFails) {
  ASSERT_EQ(0, symlink("nowhere", m_strFifo.c_str()));
  EXPECT_EQ(-1, m_stQueue.Attach(m_strFifo.c_str(), 1, 100));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_FALSE(m_stQueue.Ready());
}

TEST_F(MessageQueueAttachTest, DestructorDetachesAndRemovesNothing) {
  const int iOpen = OpenDescriptors();
  {
    MessageQueue stQueue;
    ASSERT_EQ(0, Attach(stQueue));
    ASSERT_EQ(1, Attachments(m_stKey.Key()));
  }
  EXPECT_EQ(0, Attachments(m_stKey.Key()));
  EXPECT_EQ(iOpen, OpenDescriptors());
  EXPECT_EQ(mode_t{S_IFIFO | 0700}, ModeOf(m_strFifo));
}

TEST_F(MessageQueueAttachTest, DetachKeepsTheSegmentForDelete) {
  ASSERT_EQ(0, Attach(m_stQueue));
  EXPECT_EQ(0, m_stQueue.Detach());
  EXPECT_FALSE(m_stQueue.Ready());
  EXPECT_EQ(-1, m_stQueue.FifoFD());
  EXPECT_EQ(0, Attachments(m_stKey.Key()));
  EXPECT_EQ(0, m_stQueue.Delete());
  EXPECT_EQ(-1, Attachments(m_stKey.Key()));
  EXPECT_EQ(mode_t{S_IFIFO | 0700}, ModeOf(m_strFifo));
}

TEST_F(MessageQueueAttachTest, DeleteDoesNotDetach) {
  ASSERT_EQ(0, Attach(m_stQueue));
  EXPECT_EQ(0, m_stQueue.Delete());
  EXPECT_TRUE(m_stQueue.Ready());
  EXPECT_NE(-1, m_stQueue.FifoFD());
  EXPECT_EQ(1, PushText(m_stQueue, "still here"));
  EXPECT_EQ("still here", PopText(m_stQueue));
}

TEST_F(MessageQueueAttachTest, DeleteAfterARefusalRemovesTheSegmentThatIsFull) {
  MessageQueue astQueues[4];
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(0, Attach(astQueues[i]));
  }
  ASSERT_EQ(-1, Attach(astQueues[3]));
  ASSERT_EQ(3, Attachments(m_stKey.Key()));
  EXPECT_EQ(0, astQueues[3].Delete());
  EXPECT_EQ(-1, Attachments(m_stKey.Key())) << "deliberately: a refusal forgets no segment";
  EXPECT_EQ(1, PushText(astQueues[0], "still here"));
}

TEST_F(MessageQueueAttachTest, SecondDeleteLeavesASuccessorAlone) {
  ASSERT_EQ(0, Attach(m_stQueue));
  ASSERT_EQ(0, m_stQueue.Delete());
  MessageQueue stSuccessor;
  ASSERT_EQ(0, Attach(stSuccessor));
  errno = 0;
  EXPECT_EQ(0, m_stQueue.Delete());
  EXPECT_EQ(0, errno) << "nothing was asked of the system";
  EXPECT_EQ(1, Attachments(m_stKey.Key()));
}

TEST_F(MessageQueueAttachTest, DeleteOfAVanishedSegmentIsNoFailure) {
  ASSERT_EQ(0, Attach(m_stQueue));
  ASSERT_EQ(0, m_stQueue.Detach());
  ASSERT_EQ(0, shmctl(shmget(m_stKey.Key(), 0, 0), IPC_RMID, nullptr));
  EXPECT_EQ(0, m_stQueue.Delete());
}

class MessageQueueTest : public QueueFixture {};

TEST_F(MessageQueueTest, RecordIsItsLengthAndItsBytes) {
  ASSERT_EQ(2, PushTexts(m_stWriter, {"abc", std::string("\0\xff", 2)}));
  const RawSegment stSegment(m_stKey.Key());
  EXPECT_EQ(std::string("\3\0\0\0abc\2\0\0\0\0\xff", 13), stSegment.Bytes(HEAD_SIZE, 13));
  EXPECT_EQ(13u, +stSegment.Head()->iWriteOffset);
  EXPECT_EQ(0u, +stSegment.Head()->iReadOffset);
}

TEST_F(MessageQueueTest, PopMovesOnlyTheReadOffset) {
  ASSERT_EQ(2, PushTexts(m_stWriter, {"abc", "de"}));
  ASSERT_EQ("abc", PopText(m_stReader));
  const RawSegment stSegment(m_stKey.Key());
  EXPECT_EQ(7u, +stSegment.Head()->iReadOffset);
  EXPECT_EQ(13u, +stSegment.Head()->iWriteOffset);
}

TEST_F(MessageQueueTest, PushFillsTheRingToItsLastUsableByte) {
  const std::string strLargest(RING_SIZE - 1 - LENGTH_SIZE, 'x');
  ASSERT_EQ(strLargest.size() + LENGTH_SIZE, m_stWriter.CanWriteSize());
  EXPECT_EQ(1, PushText(m_stWriter, strLargest));
  EXPECT_EQ(0u, m_stWriter.CanWriteSize());
  EXPECT_EQ(RING_SIZE - 1, m_stReader.CanReadSize());
  EXPECT_EQ(strLargest, PopText(m_stReader));
}

TEST_F(MessageQueueTest, PushOneByteTooLongChangesNothingAndWakesNobody) {
  const RawSegment stSegment(m_stKey.Key());
  const std::string strBefore = stSegment.Bytes(0, m_iSegment);
  EXPECT_EQ(0, PushText(m_stWriter, std::string(RING_SIZE - LENGTH_SIZE, 'x')));
  EXPECT_EQ(strBefore, stSegment.Bytes(0, m_iSegment));
  EXPECT_EQ("", TakeWakeBytes());
}

TEST_F(MessageQueueTest, BatchThatDoesNotFitIsRefusedAsAWhole) {
  ASSERT_EQ(1, PushText(m_stWriter, std::string(20, 'x')));
  ASSERT_EQ("1", TakeWakeBytes());
  EXPECT_EQ(0, PushTexts(m_stWriter, {"small", std::string(31, 'y')}));
  EXPECT_EQ(24u, m_stReader.CanReadSize());
  EXPECT_EQ("", TakeWakeBytes());
  EXPECT_EQ(2, PushTexts(m_stWriter, {"small", std::string(26, 'y')}));
}

TEST_F(MessageQueueTest, BatchIsWokenOnceAndKeepsItsOrder) {
  EXPECT_EQ(4, PushTexts(m_stWriter, {"one", "", "three", "four"}));
  EXPECT_EQ("1", TakeWakeBytes());
  EXPECT_EQ((Texts_t{"one", "", "three", "four"}), PopTexts(m_stReader, 10));
}

TEST_F(MessageQueueTest, EachPushWakesByOneByte) {
  PushText(m_stWriter, "a");
  PushText(m_stWriter, "b");
  EXPECT_EQ((std::string{FIFO_DATA, FIFO_DATA}), TakeWakeBytes());
}

TEST_F(MessageQueueTest, EmptyPushReturnsNothingAndWakes) {
  EXPECT_EQ(0, m_stWriter.Push(nullptr, 0));
  EXPECT_EQ("1", TakeWakeBytes());
  EXPECT_EQ(0u, m_stReader.CanReadSize());
}

TEST_F(MessageQueueTest, EmptyPushBringsAStrayWriteOffsetBackIntoTheRing) {
  const RawSegment stSegment(m_stKey.Key());
  for (const uint32_t iOffset : {0u, 5u, RING_SIZE - 1}) {
    stSegment.Head()->iWriteOffset = RING_SIZE + iOffset;
    m_stWriter.Push(nullptr, 0);
    EXPECT_EQ(iOffset, +stSegment.Head()->iWriteOffset);
    m_stWriter.Push(nullptr, 0);
    EXPECT_EQ(iOffset, +stSegment.Head()->iWriteOffset);
  }
}

TEST_F(MessageQueueTest, FullFifoChangesNothing) {
  const std::string strBytes(4096, 'x');
  while (write(m_stReader.FifoFD(), strBytes.data(), strBytes.size()) > 0) {
  }
  EXPECT_EQ(1, PushText(m_stWriter, "message"));
  EXPECT_EQ(0, m_stWriter.Push(nullptr, 0));
  EXPECT_EQ("message", PopText(m_stReader));
}

TEST_F(MessageQueueTest, EmptyMessageIsFourBytesAndPopsAsAnArray) {
  const BufferVec_t stEmpty{nullptr, 0};
  EXPECT_EQ(1, m_stWriter.Push(&stEmpty, 1));
  EXPECT_EQ(LENGTH_SIZE, m_stReader.CanReadSize());
  BufferVec_t stMessage{nullptr, 99};
  ASSERT_EQ(1, m_stReader.Pop(&stMessage, 1));
  EXPECT_EQ(0u, stMessage.iSize);
  EXPECT_NE(nullptr, stMessage.pData);
  delete[] stMessage.pData;
}

TEST_F(MessageQueueTest, PopOfNothingLeavesTheOffsetsAlone) {
  ASSERT_EQ(1, PushText(m_stWriter, "waits"));
  EXPECT_EQ(0, m_stReader.Pop(nullptr, 0));
  EXPECT_EQ(9u, m_stReader.CanReadSize());
  EXPECT_EQ("waits", PopText(m_stReader));
}

TEST_F(MessageQueueTest, PopOfNothingBringsAStrayReadOffsetBackIntoTheRing) {
  StartAt(RING_SIZE + 5);
  EXPECT_EQ(0, m_stReader.Pop(nullptr, 0));
  EXPECT_EQ(5u, +RawSegment(m_stKey.Key()).Head()->iReadOffset);
}

TEST_F(MessageQueueTest, PopOfAnEmptyQueueTouchesNoElement) {
  BufferVec_t stMessage{nullptr, 99};
  EXPECT_EQ(0, m_stReader.Pop(&stMessage, 1));
  EXPECT_EQ(nullptr, stMessage.pData);
  EXPECT_EQ(99u, stMessage.iSize);
}

TEST_F(MessageQueueTest, PopTakesAtMostItsCount) {
  ASSERT_EQ(3, PushTexts(m_stWriter, {"a", "b", "c"}));
  EXPECT_EQ((Texts_t{"a", "b"}), PopTexts(m_stReader, 2));
  EXPECT_EQ((Texts_t{"c"}), PopTexts(m_stReader, 2));
}

TEST_F(MessageQueueTest, PopDoesNotReadTheFifo) {
  ASSERT_EQ(1, PushText(m_stWriter, "a"));
  ASSERT_EQ("a", PopText(m_stReader));
  EXPECT_TRUE(IsReadable(m_stReader.FifoFD()));
}

TEST_F(MessageQueueTest, RecordEndingExactlyAtTheEndLeavesTheWriteOffsetAtZero) {
  ASSERT_EQ(1, PushText(m_stWriter, std::string(20, 'x')));
  ASSERT_EQ(std::string(20, 'x'), PopText(m_stReader));
  ASSERT_EQ(1, PushText(m_stWriter, std::string(RING_SIZE - 24 - LENGTH_SIZE, 'y')));
  const RawSegment stSegment(m_stKey.Key());
  EXPECT_EQ(0u, +stSegment.Head()->iWriteOffset);
  EXPECT_EQ(std::string(RING_SIZE - 24 - LENGTH_SIZE, 'y'), PopText(m_stReader));
  EXPECT_EQ(0u, +stSegment.Head()->iReadOffset);
  EXPECT_EQ(1, PushText(m_stWriter, "z"));
  EXPECT_EQ(std::string("\1\0\0\0z", 5), stSegment.Bytes(HEAD_SIZE, 5));
}

TEST_F(MessageQueueTest, LengthEndingExactlyAtTheEndHasItsBytesAtTheStart) {
  StartAt(RING_SIZE - LENGTH_SIZE);
  ASSERT_EQ(2, PushTexts(m_stWriter, {"abc", ""}));
  const RawSegment stSegment(m_stKey.Key());
  EXPECT_EQ("abc", stSegment.Bytes(HEAD_SIZE, 3));
  EXPECT_EQ((Texts_t{"abc", ""}), PopTexts(m_stReader, 3));
}

TEST_F(MessageQueueTest, SizesCountAroundTheEnd) {
  StartAt(RING_SIZE - 10);
  ASSERT_EQ(1, PushText(m_stWriter, std::string(26, 'x')));
  EXPECT_EQ(30u, m_stReader.CanReadSize());
  EXPECT_EQ(RING_SIZE - 30 - 1, m_stWriter.CanWriteSize());
  EXPECT_EQ(1, PushText(m_stWriter, std::string(RING_SIZE - 30 - 1 - LENGTH_SIZE, 'y')));
  EXPECT_EQ(0u, m_stWriter.CanWriteSize());
}

// A record that starts so many bytes before the ring's end.
class MessageQueueSplitTest : public QueueFixture, public ::testing::WithParamInterface<uint32_t> {
 protected:
  void SetUp() override {
    QueueFixture::SetUp();
    StartAt(RING_SIZE - GetParam());
  }
};

TEST_P(MessageQueueSplitTest, RecordIsSplitByteWiseAndReadBack) {
  const std::string strText = "0123456789";
  const std::string strRecord = std::string("\x0a\0\0\0", 4) + strText;
  ASSERT_EQ(1, PushText(m_stWriter, strText));
  const RawSegment stSegment(m_stKey.Key());
  EXPECT_EQ(strRecord.substr(0, GetParam()),
            stSegment.Bytes(HEAD_SIZE + RING_SIZE - GetParam(), GetParam()));
  EXPECT_EQ(strRecord.substr(GetParam()), stSegment.Bytes(HEAD_SIZE, 14 - GetParam()));
  EXPECT_EQ(strText, PopText(m_stReader));
  EXPECT_EQ(14 - GetParam(), +stSegment.Head()->iReadOffset);
}

TEST_P(MessageQueueSplitTest, LongLengthIsPutTogetherInOrder) {
  const std::string strText(RING_SIZE - 1 - LENGTH_SIZE, 'q');
  ASSERT_EQ(1, PushText(m_stWriter, strText));
  EXPECT_EQ(strText, PopText(m_stReader));
}

INSTANTIATE_TEST_SUITE_P(BytesBeforeTheEnd, MessageQueueSplitTest, ::testing::Range(1u, 14u));

// A ring whose lengths need all four bytes of the length word but one.
class MessageQueueLargeTest : public QueueFixture {
 protected:
  static constexpr uint32_t LARGE_RING = 1 << 18;
  MessageQueueLargeTest() : QueueFixture(LARGE_RING) {}
};

// Differs at bytes that are a page, or a power of two below it, apart.
std::string LongText(size_t iSize) {
  std::string strText(iSize, ' ');
  for (size_t i = 0; i < iSize; ++i) {
    strText[i] = static_cast<char>(i * 7 + i / 256);
  }
  return strText;
}

TEST_F(MessageQueueLargeTest, EverySplitOfALengthOfThreeBytesIsReadBack) {
  const std::string strText = LongText(0x012345);
  for (uint32_t iTail = 1; iTail <= 5; ++iTail) {
    StartAt(LARGE_RING - iTail);
    ASSERT_EQ(1, PushText(m_stWriter, strText));
    ASSERT_EQ(strText, PopText(m_stReader)) << iTail << " bytes before the end";
  }
}

TEST_F(MessageQueueLargeTest, EverySizeArrivesWhole) {
  for (uint32_t iSize = 0; iSize < 600; ++iSize) {
    std::string strText(iSize, ' ');
    for (uint32_t i = 0; i < iSize; ++i) {
      strText[i] = static_cast<char>(i + iSize);
    }
    ASSERT_EQ(2, PushTexts(m_stWriter, {strText, "next"})) << iSize;
    ASSERT_EQ((Texts_t{strText, "next"}), PopTexts(m_stReader, 2)) << iSize;
  }
}

TEST_F(MessageQueueLargeTest, LongMessagesArriveWholeFromAnyPlace) {
  for (const uint32_t iSize : {2047u, 2048u, 2049u, 4095u, 4096u, 4097u, 65536u}) {
    for (const uint32_t iTail : {LARGE_RING, 70001u, 4096u, 2052u, 2051u, 100u}) {
      StartAt(LARGE_RING - iTail);
      ASSERT_EQ(2, PushTexts(m_stWriter, {LongText(iSize), "next"}));
      ASSERT_EQ((Texts_t{LongText(iSize), "next"}), PopTexts(m_stReader, 2)) << iSize;
    }
  }
}

TEST_F(MessageQueueLargeTest, CopiesOfEverySizeTouchNothingBeside) {
  const RawSegment stSegment(m_stKey.Key());
  char* const pRing = reinterpret_cast<char*>(stSegment.Head()) + HEAD_SIZE;
  for (uint32_t iSize = 0; iSize < 100; ++iSize) {
    StartAt(0);
    memset(pRing, '.', 200);
    std::string strText = "#" + std::string(iSize, 'x') + "#";  // a copy off by one takes a '#'
    const BufferVec_t stMessage{strText.data() + 1, iSize};
    ASSERT_EQ(1, m_stWriter.Push(&stMessage, 1));
    ASSERT_EQ(std::string(1, static_cast<char>(iSize)) + std::string(3, '\0') +
                  std::string(iSize, 'x') + std::string(100 - iSize, '.'),
              stSegment.Bytes(HEAD_SIZE, 104));
    ASSERT_EQ(std::string(iSize, 'x'), PopText(m_stReader));
  }
}

// Almost 4 GiB, of which a few pages are used.
class MessageQueueHugeTest : public QueueFixture {
 protected:
  static constexpr uint32_t HUGE_RING = 0xffffff00 - HEAD_SIZE;
  MessageQueueHugeTest() : QueueFixture(HUGE_RING) {}
  void SetUp() override {
    if (Attach(m_stWriter) != 0) {
      GTEST_SKIP() << "this machine has no room for a segment of 4 GiB";
    }
    ASSERT_EQ(0, Attach(m_stReader));
  }
};

TEST_F(MessageQueueHugeTest, OffsetsWrapThoughTheirSumsNeed33Bits) {
  StartAt(HUGE_RING - 10);
  ASSERT_EQ(2, PushTexts(m_stWriter, {std::string(1000, 'x'), "next"}));
  EXPECT_EQ(1012u, m_stReader.CanReadSize());
  EXPECT_EQ(HUGE_RING - 1012 - 1, m_stWriter.CanWriteSize());
  EXPECT_EQ((Texts_t{std::string(1000, 'x'), "next"}), PopTexts(m_stReader, 2));
  EXPECT_EQ(0u, m_stReader.CanReadSize());
}

// What no sound writer publishes.
TEST_F(MessageQueueTest, PopLeavesLessThanALengthAlone) {
  const RawSegment stSegment(m_stKey.Key());
  stSegment.Head()->iWriteOffset = LENGTH_SIZE - 1;
  EXPECT_EQ(NO_MESSAGE, PopText(m_stReader));
  EXPECT_EQ(0u, +stSegment.Head()->iReadOffset);
}

TEST_F(MessageQueueTest, PopLeavesAnIncompleteRecordAlone) {
  ASSERT_EQ(2, PushTexts(m_stWriter, {"abc", "defg"}));
  const RawSegment stSegment(m_stKey.Key());
  stSegment.Head()->iWriteOffset -= 1;
  EXPECT_EQ((Texts_t{"abc"}), PopTexts(m_stReader, 5));
  EXPECT_EQ(7u, +stSegment.Head()->iReadOffset);
  stSegment.Head()->iWriteOffset += 1;
  EXPECT_EQ((Texts_t{"defg"}), PopTexts(m_stReader, 5));
}

TEST_F(MessageQueueTest, PopIsNotFooledByALengthNearFourGigabytes) {
  const RawSegment stSegment(m_stKey.Key());
  char* const pRing = reinterpret_cast<char*>(stSegment.Head()) + HEAD_SIZE;
  for (const uint32_t iLength : {0xffffffffu, 0xfffffffdu, 0xfffffffcu, 0x80000000u, 61u}) {
    memcpy(pRing, &iLength, sizeof(iLength));
    stSegment.Head()->iWriteOffset = RING_SIZE - 1;
    EXPECT_EQ(NO_MESSAGE, PopText(m_stReader)) << iLength;
    EXPECT_EQ(0u, +stSegment.Head()->iReadOffset);
  }
}

TEST_F(MessageQueueTest, BatchWhoseSumOverflowsEndsTheWriterBeforeItsBytesSpill) {
  std::string strText = "never read that far";
  const BufferVec_t stHuge{strText.data(), 0xfffffffc};  // with its length word 0 modulo 2^32
  EXPECT_DEATH(m_stWriter.Push(&stHuge, 1), "pEnd > pBegin");
  EXPECT_EQ(0u, m_stReader.CanReadSize());
}

TEST_F(MessageQueueAttachTest, RingThatItsCreatorNeverInitialisedStaysEmpty) {
  ASSERT_NE(-1, MakeSegment(HEAD_SIZE + RING_SIZE));
  ASSERT_EQ(0, Attach(m_stQueue));
  EXPECT_EQ(0u, m_stQueue.CanReadSize());
  EXPECT_EQ(NO_MESSAGE, PopText(m_stQueue));
  EXPECT_DEATH(PushText(m_stQueue, "x"), "pEnd > pBegin");
}

TEST_F(MessageQueueTest, InitEmptiesTheRing) {
  ASSERT_EQ(1, PushText(m_stWriter, "gone"));
  ASSERT_EQ("gone", PopText(m_stReader));
  ASSERT_EQ(1, PushText(m_stWriter, "gone too"));
  EXPECT_EQ(0, m_stWriter.Init());
  const RawSegment stSegment(m_stKey.Key());
  EXPECT_EQ(std::string("\x08\x40\0\0\0\0\0\0\0\0\0\0\0", 13), stSegment.Bytes(0, HEAD_SIZE));
  EXPECT_EQ(NO_MESSAGE, PopText(m_stReader));
}

TEST_F(MessageQueueTest, ClearFifoDrainsAnyNumberOfWakeBytes) {
  for (const size_t iBytes : {0u, 1u, 1023u, 1024u, 1025u, 2048u, 5000u}) {
    const std::string strBytes(iBytes, FIFO_DATA);
    ASSERT_EQ(static_cast<ssize_t>(iBytes),
              write(m_stWriter.FifoFD(), strBytes.data(), strBytes.size()));
    m_stReader.ClearFifo();
    EXPECT_FALSE(IsReadable(m_stReader.FifoFD())) << iBytes;
  }
}

TEST_F(MessageQueueTest, DumpWritesMembersAndHeaderInOrder) {
  ASSERT_EQ(2, PushTexts(m_stWriter, {"abc", "de"}));
  ASSERT_EQ("abc", PopText(m_stReader));
  const std::string strDump = CaptureDescriptor([this](int iFD) { m_stReader.Dump(iFD); });
  int iShmID = 0;
  void *pAddress = nullptr, *pHead = nullptr, *pBegin = nullptr;
  ASSERT_EQ(4, sscanf(strDump.c_str(),
                      "m_iSize=\"77\"\nm_iShmID=\"%d\"\nm_pAddress=\"%p\"\n"
                      "m_pShmHead=\"%p\"\nm_pBegin=\"%p\"\n",
                      &iShmID, &pAddress, &pHead, &pBegin));
  EXPECT_EQ(shmget(m_stKey.Key(), 0, 0), iShmID);
  EXPECT_EQ(pAddress, pHead);
  EXPECT_EQ(static_cast<char*>(pAddress) + HEAD_SIZE, pBegin);
  const size_t iHeader = strDump.find("m_pShmHead->");
  EXPECT_EQ(
      "m_pShmHead->cReadyFlag=\"8\"\nm_pShmHead->iSize=\"64\"\n"
      "m_pShmHead->iWriteOffset=\"13\"\nm_pShmHead->iReadOffset=\"7\"\n",
      strDump.substr(iHeader));
}

TEST_F(MessageQueueTest, DumpWritesNumbersAsSigned) {
  const RawSegment stSegment(m_stKey.Key());
  stSegment.Head()->iSize = 0xffffffff;
  stSegment.Head()->cReadyFlag = -3;
  const std::string strDump = CaptureDescriptor([this](int iFD) { m_stReader.Dump(iFD); });
  EXPECT_NE(std::string::npos, strDump.find("m_pShmHead->cReadyFlag=\"-3\"\n"));
  EXPECT_NE(std::string::npos, strDump.find("m_pShmHead->iSize=\"-1\"\n"));
}

// The queue beside a plain list that is asked to do the same.
class MessageQueueModelTest : public QueueFixture, public ::testing::WithParamInterface<uint32_t> {
 protected:
  MessageQueueModelTest() : QueueFixture(GetParam()) {}

  unsigned int Random(unsigned int iBelow) {
    return std::uniform_int_distribution<unsigned int>(0, iBelow - 1)(m_stRandom);
  }
  std::string RandomText() {
    const unsigned int iSize = Random(Random(2) == 0 ? 8 : m_stWriter.CanWriteSize() + 2);
    return std::string(iSize, static_cast<char>(m_stRandom()));
  }
  void PushSome();
  void PopSome();

  std::mt19937 m_stRandom{20240229};  // the same run every time
  std::deque<std::string> m_dqExpected;
  uint32_t m_iBytes = 0;
};

void MessageQueueModelTest::PushSome() {
  Texts_t vecTexts(1 + Random(4));
  uint32_t iBytes = 0;
  for (std::string& strText : vecTexts) {
    strText = RandomText();
    iBytes += LENGTH_SIZE + static_cast<uint32_t>(strText.size());
  }
  const bool bFits = m_iBytes + iBytes <= GetParam() - 1;
  ASSERT_EQ(bFits ? static_cast<int>(vecTexts.size()) : 0, PushTexts(m_stWriter, vecTexts));
  if (bFits) {
    m_dqExpected.insert(m_dqExpected.end(), vecTexts.begin(), vecTexts.end());
    m_iBytes += iBytes;
  }
}

void MessageQueueModelTest::PopSome() {
  const unsigned int iCount = Random(5);
  const Texts_t vecTexts = PopTexts(m_stReader, iCount);
  ASSERT_EQ(std::min<size_t>(iCount, m_dqExpected.size()), vecTexts.size());
  for (const std::string& strText : vecTexts) {
    ASSERT_EQ(m_dqExpected.front(), strText);
    m_dqExpected.pop_front();
    m_iBytes -= LENGTH_SIZE + static_cast<uint32_t>(strText.size());
  }
}

TEST_P(MessageQueueModelTest, BehavesAsAListWithALimit) {
  for (int i = 0; i < 60000; ++i) {
    ASSERT_NO_FATAL_FAILURE(Random(2) == 0 ? PushSome() : PopSome());
    ASSERT_EQ(m_iBytes, m_stReader.CanReadSize());
    ASSERT_EQ(GetParam() - m_iBytes - 1, m_stWriter.CanWriteSize());
    if (i % 1000 == 0) {
      m_stReader.ClearFifo();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(RingSizes, MessageQueueModelTest,
                         ::testing::Values(5, 6, 9, 16, 61, 64, 257, 4096));

}  // namespace
