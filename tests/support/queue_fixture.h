#ifndef ZELK_TESTS_QUEUE_FIXTURE_H
#define ZELK_TESTS_QUEUE_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "message_queue.h"
#include "test_support.h"

const uint32_t HEAD_SIZE = 13;
const uint32_t LENGTH_SIZE = 4;
const uint32_t RING_SIZE = 64;  // small enough that one message fills it and the next wraps

typedef std::vector<std::string> Texts_t;

// A message's text; "(none)" when the queue gave none.
inline const char NO_MESSAGE[] = "(none)";

inline int PushTexts(MessageQueue& stQueue, const Texts_t& vecTexts) {
  std::vector<BufferVec_t> vecMessages;
  for (const std::string& strText : vecTexts) {
    vecMessages.push_back(
        {const_cast<char*>(strText.data()), static_cast<uint32_t>(strText.size())});
  }
  return stQueue.Push(vecMessages.data(), static_cast<unsigned int>(vecMessages.size()));
}

inline int PushText(MessageQueue& stQueue, const std::string& strText) {
  return PushTexts(stQueue, {strText});
}

inline Texts_t PopTexts(MessageQueue& stQueue, unsigned int iCount) {
  std::vector<BufferVec_t> vecMessages(iCount);
  const int iPopped = stQueue.Pop(vecMessages.data(), iCount);
  Texts_t vecTexts;
  for (int i = 0; i < iPopped; ++i) {
    const BufferVec_t& stMessage = vecMessages[static_cast<size_t>(i)];
    vecTexts.emplace_back(stMessage.pData, stMessage.iSize);
    delete[] stMessage.pData;
  }
  return vecTexts;
}

inline std::string PopText(MessageQueue& stQueue) {
  const Texts_t vecTexts = PopTexts(stQueue, 1);
  return vecTexts.empty() ? NO_MESSAGE : vecTexts[0];
}

// The segment under a key as any tool would see it; one attachment while it lives.
class RawSegment {
 public:
  explicit RawSegment(key_t iKey);
  ~RawSegment();
  RawSegment(const RawSegment&) = delete;
  RawSegment& operator=(const RawSegment&) = delete;

  // Packed: what takes a reference, as EXPECT_EQ() does, is given +Head()->iSize.
  MessageQueue::ShmHead* Head() const;
  std::string Bytes(uint32_t iFrom, uint32_t iCount) const;  // counted from the segment's start

 private:
  char* m_pStart;
};

// How many attachments the segment under a key has; -1 when there is none.
int Attachments(key_t iKey);

// A writer and a reader attached to one fresh queue.
class QueueFixture : public ::testing::Test {
 protected:
  explicit QueueFixture(uint32_t iRing = RING_SIZE) : m_iSegment(HEAD_SIZE + iRing) {}
  void SetUp() override;

  int Attach(MessageQueue& stQueue) {
    return stQueue.AttachWithKey(m_strFifo.c_str(), m_stKey.Key(), m_iSegment);
  }
  // Moves both offsets of the empty queue to iOffset.
  void StartAt(uint32_t iOffset);
  // What one read of the FIFO returns, at most 100 bytes; empty when nothing is there.
  std::string TakeWakeBytes();

  const uint32_t m_iSegment;
  const PrivateDirectory m_stDirectory;
  const PrivateKey m_stKey;
  const std::string m_strFifo = m_stDirectory.File("fifo");
  MessageQueue m_stWriter;
  MessageQueue m_stReader;
};

#endif
