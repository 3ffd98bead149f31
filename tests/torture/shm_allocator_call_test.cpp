// The heap and the table while each of their system calls fails in turn.

#include <gtest/gtest.h>
#include <sys/ipc.h>

#include <algorithm>
#include <cstring>

#include "failing_call.h"
#include "hash_map.h"
#include "shm_allocator.h"
#include "test_support.h"

namespace {

const uint64_t HEAP_SIZE = 4194384 + 65536;
const uint64_t TABLE_SIZE = HEAP_SIZE + 65536;
const uint64_t BUCKETS = 16;

class Heap : public ShmAllocator {
 public:
  using ShmAllocator::m_pAddress;
};

// Whether an attach fails by it; shmget() has no EEXIST unless it was asked for a new segment.
bool Hurts(const Attempt& stAttempt, bool bExists) {
  return stAttempt.Fails() && !stAttempt.FailsIn({{"close"}, {"newfstatat"}, {"write"}}) &&
         !(bExists && stAttempt.FailsIn({{"shmget", EEXIST, 1}}));
}

std::string MessageOf(const Attempt& stAttempt) {
  if (!stAttempt.FailsIn({{"shmget"}})) {
    return "";
  }
  return std::string("shmget error, ") + strerror(stAttempt.Failure().iErrno) + "\n";
}

TEST(ShmAllocatorCallTest, AttachThatCreatesLeavesErrnoAndOneMessage) {
  FailEachCall([](Attempt& stAttempt) {
    const PrivateKey stKey;
    Heap stHeap;
    bool bAttached = false;
    const auto fnAttach = [&] { return stHeap.Attach(stKey.Key(), HEAP_SIZE, 0, false); };
    const std::string strText = CaptureOutput(2, [&] { bAttached = stAttempt.Run(fnAttach); });
    EXPECT_EQ(!stAttempt.Fails(), bAttached);
    if (stAttempt.FailsIn({{"shmget", EEXIST}})) {
      EXPECT_EQ("", strText);  // the second call made it: the same as one without its header
    } else {
      EXPECT_EQ(MessageOf(stAttempt), strText);
    }
    // A segment that was made but not mapped has no header, is nobody's and stays refused.
    const bool bWithoutHeader = stAttempt.FailsIn({{"shmat"}, {"shmget", EEXIST}});
    if (!bAttached && !bWithoutHeader) {
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
    }
    EXPECT_EQ(!bWithoutHeader, fnAttach());
    EXPECT_TRUE(bWithoutHeader || stHeap.Allocate(8) != nullptr);
  });
}

TEST(ShmAllocatorCallTest, AttachThatJoinsFailsAndCanBeRepeated) {
  FailEachCall([](Attempt& stAttempt) {
    const PrivateKey stKey;
    Heap stCreator;
    Heap stHeap;
    ASSERT_TRUE(stCreator.Attach(stKey.Key(), HEAP_SIZE, 0, false));
    bool bAttached = false;
    const auto fnAttach = [&] { return stHeap.Attach(stKey.Key(), 0, 0, false); };
    CaptureOutput(2, [&] { bAttached = stAttempt.Run(fnAttach); });
    EXPECT_EQ(!Hurts(stAttempt, true), bAttached);
    // One whose size the kernel does not tell is refused like one without its header, and stays.
    EXPECT_EQ(bAttached || stAttempt.FailsIn({{"shmctl"}}), stHeap.m_pAddress != nullptr);
    if (!bAttached) {
      EXPECT_EQ(stAttempt.Failure().iErrno, stAttempt.Errno());
      EXPECT_TRUE(fnAttach());
    }
    EXPECT_NE(nullptr, stHeap.Allocate(8));
  });
}

TEST(ShmAllocatorCallTest, AttachByPathWithoutAKeyLeavesAllAsItWas) {
  FailEachCall([](Attempt& stAttempt) {
    const PrivateDirectory stDirectory;
    const PrivateKey stKey(ftok(stDirectory.Path().c_str(), 1));
    Heap stHeap;
    ASSERT_TRUE(stHeap.Attach(stKey.Key(), HEAP_SIZE, 0, false));
    const auto fnAttach = [&] {
      return stHeap.Attach(stDirectory.Path().c_str(), 1, HEAP_SIZE, 0, false);
    };
    bool bAttached = false;
    CaptureOutput(2, [&] { bAttached = stAttempt.Run(fnAttach); });
    const bool bStays = stAttempt.FailsIn({{"newfstatat", -1, 1}, {"shmctl"}});
    EXPECT_EQ(bAttached || bStays, stHeap.m_pAddress != nullptr);
    EXPECT_TRUE(fnAttach());
    EXPECT_NE(nullptr, stHeap.Allocate(8));
  });
}

TEST(ShmAllocatorCallTest, DetachForgetsTheSegment) {
  FailEachCall([](Attempt& stAttempt) {
    const PrivateKey stKey;
    Heap stHeap;
    ASSERT_TRUE(stHeap.Attach(stKey.Key(), HEAP_SIZE, 0, false));
    stAttempt.Run([&] { stHeap.Detach(); });
    EXPECT_EQ(nullptr, stHeap.m_pAddress);
    EXPECT_TRUE(stHeap.Attach(stKey.Key(), HEAP_SIZE, 0, false));
  });
}

TEST(HashMapCallTest, AttachThatCreatesIsAHeapsAndATableIsMadeOnce) {
  FailEachCall([](Attempt& stAttempt) {
    const PrivateKey stKey;
    HashMap stTable;
    bool bAttached = false;
    const auto fnAttach = [&] {
      return stTable.Attach(stKey.Key(), TABLE_SIZE + RESERVED_SIZE, BUCKETS, false);
    };
    CaptureOutput(2, [&] { bAttached = stAttempt.Run(fnAttach); });
    EXPECT_EQ(!stAttempt.Fails(), bAttached);
    if (!stAttempt.FailsIn({{"shmat"}, {"shmget", EEXIST}})) {
      EXPECT_TRUE(bAttached || fnAttach());
      EXPECT_TRUE(stTable.Set("key", "value"));
      EXPECT_STREQ("value", stTable.GetString("key"));
    }
  });
}

TEST(HashMapCallTest, AttachThatJoinsFailsAndCanBeRepeated) {
  FailEachCall([](Attempt& stAttempt) {
    const PrivateKey stKey;
    const uint64_t iSize = TABLE_SIZE + RESERVED_SIZE;
    HashMap stCreator;
    HashMap stTable;
    ASSERT_TRUE(stCreator.Attach(stKey.Key(), iSize, BUCKETS, false));
    ASSERT_TRUE(stCreator.Set("key", "value"));
    bool bAttached = false;
    const auto fnAttach = [&] { return stTable.Attach(stKey.Key(), iSize, BUCKETS, false); };
    CaptureOutput(2, [&] { bAttached = stAttempt.Run(fnAttach); });
    EXPECT_EQ(!Hurts(stAttempt, true), bAttached);
    EXPECT_TRUE(bAttached || fnAttach());
    EXPECT_STREQ("value", stTable.GetString("key"));
  });
}

TEST(HashMapCallTest, DumpLosesAtMostTheLineThatFails) {
  const PrivateKey stKey;
  HashMap stTable;
  ASSERT_TRUE(stTable.Attach(stKey.Key(), TABLE_SIZE + RESERVED_SIZE, 1, false));
  ASSERT_TRUE(stTable.Set("key", "value"));
  const std::string strAll = CaptureDescriptor([&](int iFD) { stTable.Dump(iFD); });
  const auto iLines = std::count(strAll.begin(), strAll.end(), '\n');
  const auto fnAttempt = [&](Attempt& stAttempt) {
    const std::string strText =
        CaptureDescriptor([&](int iFD) { stAttempt.Run([&] { stTable.Dump(iFD); }); });
    const bool bLost = stAttempt.FailsIn({{"write"}}) && stAttempt.Failure().iErrno != 0;
    EXPECT_EQ(iLines - bLost, std::count(strText.begin(), strText.end(), '\n'));
  };
  FailEachCall(fnAttempt, 3);
}

}  // namespace
