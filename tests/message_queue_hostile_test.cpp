// Segments whose bytes were written by a damaged or hostile process, also in the middle of a call.
// All that lies around a segment is inaccessible in this program: a step outside ends it.

#include <fcntl.h>
#include <sys/shm.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <random>
#include <utility>

#include "guarded_attach.h"
#include "queue_fixture.h"

namespace {

std::function<void()> g_fnOnAllocation;  // run by the next allocation of a message

const uint32_t PAGE_RING = GUARDED_PAGE - HEAD_SIZE;  // ends where the inaccessible begins
const uint32_t LARGEST = std::numeric_limits<uint32_t>::max();

}  // namespace

void* operator new[](size_t iSize, const std::nothrow_t& /*tag*/) noexcept {
  if (g_fnOnAllocation) {
    std::exchange(g_fnOnAllocation, nullptr)();
  }
  return ::operator new[](iSize);
}

namespace {

// One message is in the ring; the tests damage the header around it.
class MessageQueueHostileTest : public QueueFixture {
 protected:
  MessageQueueHostileTest() : QueueFixture(PAGE_RING) {}
  void SetUp() override {
    QueueFixture::SetUp();
    ASSERT_EQ(1, PushText(m_stWriter, "sound"));
    ASSERT_EQ("1", TakeWakeBytes());
  }
  void TearDown() override { g_fnOnAllocation = nullptr; }

  std::string Segment() { return RawSegment(m_stKey.Key()).Bytes(0, m_iSegment); }
  std::string Header() { return RawSegment(m_stKey.Key()).Bytes(0, HEAD_SIZE); }
  void Set(uint32_t iSize, uint32_t iRead, uint32_t iWrite) {
    const RawSegment stSegment(m_stKey.Key());
    stSegment.Head()->iSize = iSize;
    stSegment.Head()->iReadOffset = iRead;
    stSegment.Head()->iWriteOffset = iWrite;
  }
  // With a header that makes no sense.
  void ExpectNothingTakenAndNothingWritten();
  void ExpectSoundAgain() {
    Set(PAGE_RING, 0, LENGTH_SIZE + 5);
    EXPECT_EQ((Texts_t{"sound"}), PopTexts(m_stReader, 3));
    EXPECT_EQ(1, PushText(m_stWriter, "again"));
    EXPECT_EQ("again", PopText(m_stReader));
  }
};

void MessageQueueHostileTest::ExpectNothingTakenAndNothingWritten() {
  const std::string strBefore = Segment();
  for (const size_t iSize : {size_t{0}, size_t{1}, size_t{64}, GUARDED_PAGE, GUARDED_PAGE * 3}) {
    EXPECT_EQ(0, PushText(m_stWriter, std::string(iSize, 'x'))) << iSize;
  }
  EXPECT_EQ(strBefore, Segment());
  EXPECT_EQ("", TakeWakeBytes());
  EXPECT_EQ(Texts_t{}, PopTexts(m_stReader, 5));
  EXPECT_EQ(strBefore.substr(HEAD_SIZE), Segment().substr(HEAD_SIZE));
}

TEST_F(MessageQueueHostileTest, RingBeyondTheSegmentsEndIsLeftAlone) {
  for (const uint32_t iSize : {PAGE_RING + 1, 2 * PAGE_RING, 1u << 31, LARGEST - 12, LARGEST}) {
    for (const uint32_t iOffset : {0u, PAGE_RING - 2, PAGE_RING, iSize - 1}) {
      Set(iSize, iOffset, (iOffset + LENGTH_SIZE + 5) % iSize);
      ExpectNothingTakenAndNothingWritten();
      EXPECT_EQ(iOffset, +RawSegment(m_stKey.Key()).Head()->iReadOffset);
    }
  }
  ExpectSoundAgain();
}

TEST_F(MessageQueueHostileTest, WriteOffsetBeyondTheRingIsLeftAlone) {
  for (const uint32_t iWrite : {PAGE_RING, PAGE_RING + 1, 2 * PAGE_RING, 1u << 31, LARGEST}) {
    Set(PAGE_RING, 0, iWrite);
    ExpectNothingTakenAndNothingWritten();
    EXPECT_EQ(iWrite, +RawSegment(m_stKey.Key()).Head()->iWriteOffset);
  }
  ExpectSoundAgain();
}

TEST_F(MessageQueueHostileTest, ReadOffsetBeyondTheRingComesBackByOneRingAPop) {
  for (const uint32_t iRead : {PAGE_RING, PAGE_RING + 3, 2 * PAGE_RING, 1u << 31, LARGEST}) {
    Set(PAGE_RING, iRead, 9);
    ExpectNothingTakenAndNothingWritten();
    EXPECT_EQ(iRead - PAGE_RING, +RawSegment(m_stKey.Key()).Head()->iReadOffset);
  }
  ExpectSoundAgain();
}

TEST_F(MessageQueueHostileTest, BothOffsetsBeyondTheRingAreLeftAlone) {
  for (const uint32_t iOffset : {PAGE_RING, PAGE_RING + 7, LARGEST - 9}) {
    Set(PAGE_RING, iOffset, iOffset + 9);
    ExpectNothingTakenAndNothingWritten();
    Set(PAGE_RING, iOffset + 9, iOffset);
    ExpectNothingTakenAndNothingWritten();
  }
  ExpectSoundAgain();
}

TEST_F(MessageQueueHostileTest, HeaderOfEqualBytesIsLeftAlone) {
  for (const int iByte : {0x01, 0x7f, 0x80, 0xff}) {
    {
      const RawSegment stSegment(m_stKey.Key());
      memset(stSegment.Head(), iByte, HEAD_SIZE);
    }
    ExpectNothingTakenAndNothingWritten();
  }
  ExpectSoundAgain();
}

TEST_F(MessageQueueHostileTest, SmallerRingIsKeptTo) {
  Set(RING_SIZE, 0, LENGTH_SIZE + 5);
  EXPECT_EQ("sound", PopText(m_stReader));
  EXPECT_EQ(0, PushText(m_stWriter, std::string(RING_SIZE - LENGTH_SIZE, 'x')));
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(1, PushText(m_stWriter, std::string(50, 'x')));
    ASSERT_EQ(std::string(50, 'x'), PopText(m_stReader));
  }
  EXPECT_EQ(std::string(PAGE_RING - RING_SIZE, '\0'), Segment().substr(HEAD_SIZE + RING_SIZE));
}

TEST_F(MessageQueueHostileTest, WriterIntoARingOfSizeZeroIsEndedByAnAssertion) {
  for (const uint32_t iWrite : {0u, 5u, PAGE_RING}) {
    Set(0, 0, iWrite);
    EXPECT_EQ(NO_MESSAGE, PopText(m_stReader));
    EXPECT_DEATH(PushText(m_stWriter, "x"), "pEnd > pBegin");
  }
}

TEST_F(MessageQueueHostileTest, LengthsThatReachOverTheWriteOffsetAreNoMessages) {
  for (const uint32_t iLength : {6u, PAGE_RING, 1u << 31, LARGEST - 3, LARGEST}) {
    for (const uint32_t iStart : {0u, PAGE_RING - 2, PAGE_RING - LENGTH_SIZE}) {
      StartAt(iStart);
      ASSERT_EQ(2, PushTexts(m_stWriter, {"", "five5"}));
      const RawSegment stSegment(m_stKey.Key());
      char* const pRing = reinterpret_cast<char*>(stSegment.Head()) + HEAD_SIZE;
      for (uint32_t i = 0; i < LENGTH_SIZE; ++i) {
        pRing[(iStart + LENGTH_SIZE + i) % PAGE_RING] = static_cast<char>(iLength >> (8 * i));
      }
      EXPECT_EQ((Texts_t{""}), PopTexts(m_stReader, 5)) << iLength;
      EXPECT_EQ((iStart + LENGTH_SIZE) % PAGE_RING, +stSegment.Head()->iReadOffset);
    }
  }
}

TEST_F(MessageQueueHostileTest, SizesAndDumpTellWhatTheHeaderSays) {
  Set(LARGEST, LARGEST - 1, 3);
  EXPECT_EQ(4u, m_stReader.CanReadSize());
  EXPECT_EQ(LARGEST - 4 - 1, m_stReader.CanWriteSize());
  const std::string strDump = CaptureDescriptor([this](int iFD) { m_stReader.Dump(iFD); });
  EXPECT_NE(std::string::npos, strDump.find("m_pShmHead->iSize=\"-1\"\n"
                                            "m_pShmHead->iWriteOffset=\"3\"\n"
                                            "m_pShmHead->iReadOffset=\"-2\"\n"));
}

// The segment while a call looks at it.

TEST_F(MessageQueueHostileTest, LengthThatGrowsInTheMiddleOfAPopIsNotReadAgain) {
  StartAt(PAGE_RING - LENGTH_SIZE - 5 - 1);
  ASSERT_EQ(1, PushText(m_stWriter, "sound"));
  const RawSegment stSegment(m_stKey.Key());
  g_fnOnAllocation = [&] {
    memset(reinterpret_cast<char*>(stSegment.Head()) + HEAD_SIZE, 0xff, PAGE_RING);
  };
  EXPECT_EQ(std::string(5, '\xff'), PopText(m_stReader));
  EXPECT_EQ(PAGE_RING - 1, +stSegment.Head()->iReadOffset);
}

TEST_F(MessageQueueHostileTest, HeaderThatChangesInTheMiddleOfAPopIsNotReadAgain) {
  ASSERT_EQ(1, PushText(m_stWriter, "second"));
  const std::string strBefore = Header();
  g_fnOnAllocation = [this] { Set(LARGEST, LARGEST, LARGEST); };
  EXPECT_EQ((Texts_t{"sound", "second"}), PopTexts(m_stReader, 5));
  EXPECT_EQ(19u, +RawSegment(m_stKey.Key()).Head()->iReadOffset);
  m_stReader.ClearFifo();
  ExpectNothingTakenAndNothingWritten();
}

// Attaching.

TEST_F(MessageQueueHostileTest, RingBeyondTheEndOfALargerSegmentIsLeftAlone) {
  MessageQueue stSmall;  // was told less than the segment has
  ASSERT_EQ(0, stSmall.AttachWithKey(m_strFifo.c_str(), m_stKey.Key(), HEAD_SIZE + 1));
  for (const uint32_t iSize : {PAGE_RING + 1, LARGEST}) {
    Set(iSize, PAGE_RING - 3, PAGE_RING);
    EXPECT_EQ(0, PushText(stSmall, "x"));
    EXPECT_EQ(NO_MESSAGE, PopText(stSmall));
  }
  Set(PAGE_RING, 0, LENGTH_SIZE + 5);
  stSmall.Delete();
  EXPECT_EQ("sound", PopText(stSmall));
  EXPECT_EQ(1, PushText(stSmall, std::string(PAGE_RING - 1 - LENGTH_SIZE, 'x')));
}

TEST_F(MessageQueueHostileTest, SizeOfASegmentThatWasLeftIsForgotten) {
  const PrivateKey stOther;
  ASSERT_NE(-1, shmget(stOther.Key(), HEAD_SIZE + RING_SIZE, IPC_CREAT | 0600));
  MessageQueue stSmall;
  ASSERT_EQ(0, stSmall.AttachWithKey(m_strFifo.c_str(), m_stKey.Key(), 1));
  ASSERT_EQ("sound", PopText(stSmall));
  for (const uint32_t iTold : {1u, HEAD_SIZE + RING_SIZE}) {
    ASSERT_EQ(0, stSmall.AttachWithKey(m_strFifo.c_str(), stOther.Key(), iTold));
    const RawSegment stSegment(stOther.Key());
    stSegment.Head()->iSize = PAGE_RING;  // of the segment that most likely had the same address
    stSegment.Head()->iWriteOffset = RING_SIZE + 5;
    EXPECT_EQ(NO_MESSAGE, PopText(stSmall));
    EXPECT_EQ(0, PushText(stSmall, "x"));
  }
}

TEST_F(MessageQueueHostileTest, SegmentWithoutRoomForARingIsAttachedAndHoldsNothing) {
  for (uint32_t iSegment = 1; iSegment <= HEAD_SIZE + LENGTH_SIZE; ++iSegment) {
    const PrivateKey stKey;
    const int iShmID = shmget(stKey.Key(), iSegment, IPC_CREAT | 0600);
    MessageQueue stQueue;
    ASSERT_EQ(0, stQueue.AttachWithKey(m_strFifo.c_str(), stKey.Key(), iSegment));
    const RawSegment stSegment(stKey.Key());
    stSegment.Head()->iSize = LENGTH_SIZE + 1;  // one more than the largest here has
    stSegment.Head()->iWriteOffset = LENGTH_SIZE;
    EXPECT_EQ(NO_MESSAGE, PopText(stQueue)) << iSegment;
    stSegment.Head()->iWriteOffset = 0;
    EXPECT_EQ(0, PushText(stQueue, "")) << iSegment;
    shmctl(iShmID, IPC_RMID, nullptr);
  }
}

TEST_F(MessageQueueHostileTest, SegmentCreatedSmallerThanItsHeaderHoldsNothing) {
  for (uint32_t iSegment = 1; iSegment < HEAD_SIZE; ++iSegment) {
    const PrivateKey stKey;
    MessageQueue stQueue;
    ASSERT_EQ(0, stQueue.AttachWithKey(m_strFifo.c_str(), stKey.Key(), iSegment));
    EXPECT_EQ(0, PushText(stQueue, "x"));
    EXPECT_EQ(NO_MESSAGE, PopText(stQueue));
  }
}

// A process that writes whatever it likes into the header, without end. Never the size 0, which
// would end the writer.
int Scribble(const RawSegment& stSegment, uint32_t iSeed) {
  std::mt19937 stRandom(iSeed);
  volatile MessageQueue::ShmHead* const pHead = stSegment.Head();
  for (;;) {
    const auto iRandom = static_cast<uint32_t>(stRandom());
    const uint32_t iValue = iRandom % 3 == 0 ? iRandom | 1 : iRandom / 3 % PAGE_RING + 1;
    switch (iRandom % 5) {
      case 0:
        pHead->iSize = iValue;
        break;
      case 1:
        pHead->iReadOffset = iValue;
        break;
      case 2:
        pHead->iWriteOffset = iValue;
        break;
      case 3:
        reinterpret_cast<volatile char*>(pHead)[HEAD_SIZE + iValue % PAGE_RING] =
            static_cast<char>(iRandom % 7);
        break;
      default:
        pHead->iSize = PAGE_RING;
    }
  }
}

// ZELK_SCRIBBLE_SECONDS=N for longer. Now and then the header is set right, so that there is
// something to push and to pop also while a busy machine runs one of the two processes at a time.
TEST_F(MessageQueueHostileTest, WriterAndReaderStandAProcessThatScribblesAllTheTime) {
  const char* const pSeconds = getenv("ZELK_SCRIBBLE_SECONDS");
  const std::chrono::milliseconds stLength(pSeconds != nullptr ? atoi(pSeconds) * 1000 : 500);
  const RawSegment stSegment(m_stKey.Key());
  const ForkedPeer stPeer([&] { return Scribble(stSegment, std::random_device()()); });
  const int iNull = open("/dev/null", O_WRONLY);
  uint64_t iPushed = 0;
  uint64_t iPopped = 0;
  const auto stEnd = std::chrono::steady_clock::now() + stLength;
  for (uint32_t i = 0; i == 0 || std::chrono::steady_clock::now() < stEnd; ++i) {
    if (i % 256 == 0) {
      Set(PAGE_RING, i % PAGE_RING, i % PAGE_RING);
      m_stReader.Dump(iNull);
      m_stReader.ClearFifo();
    }
    const std::string strText(i % PAGE_RING, 'x');
    iPushed += static_cast<uint64_t>(PushTexts(m_stWriter, {"", strText}));
    for (const std::string& strPopped : PopTexts(m_stReader, i % 8)) {
      ASSERT_LT(strPopped.size(), PAGE_RING);
      ++iPopped;
    }
    m_stReader.CanReadSize();
    m_stWriter.CanWriteSize();
  }
  close(iNull);
  EXPECT_GT(iPushed, 0u);
  EXPECT_GT(iPopped, 0u);
}

}  // namespace
