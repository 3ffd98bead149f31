// Asynchronous input and output while each of its system calls fails in turn.

#include "aio_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "failing_call.h"
#include "test_support.h"

namespace {

class OwnAIOUtil : public AIOUtil {};

typedef std::vector<aio_param_t> Done_t;

const unsigned long REQUEST = 4711;

// A file with a text in it.
struct file_t {
  file_t() {
    WriteFile(stDirectory.File("file"), "content");
    iFD = open(stDirectory.File("file").c_str(), O_RDWR | O_CLOEXEC);
  }
  ~file_t() { close(iFD); }
  file_t(const file_t&) = delete;
  file_t& operator=(const file_t&) = delete;

  PrivateDirectory stDirectory;
  int iFD = -1;
};

Done_t Collect(AIOUtil& stAIO) {
  Done_t vecDone;
  pollfd stPoll{stAIO.GetEventFD(), POLLIN, 0};
  EXPECT_EQ(1, poll(&stPoll, 1, 10000));
  stAIO.SomethingDone(vecDone);
  return vecDone;
}

// Submits three kinds of requests; fnSubmit gets an object that has no context yet.
template <class Submit_t>
void ExpectSubmission(const Submit_t& fnSubmit) {
  FailEachCall([&](Attempt& stAttempt) {
    const file_t stFile;
    OwnAIOUtil stAIO;
    const int iResult = stAttempt.Run([&] { return fnSubmit(stAIO, stFile.iFD); });
    if (stAttempt.FailsIn({{"io_setup"}})) {
      EXPECT_EQ(-1, iResult);
    } else {
      EXPECT_EQ(stAttempt.Fails() ? -stAttempt.Failure().iErrno : 0, iResult);
    }
    if (iResult != 0) {
      EXPECT_EQ(0, fnSubmit(stAIO, stFile.iFD));
    }
    const Done_t vecDone = Collect(stAIO);
    ASSERT_EQ(1u, vecDone.size());
    EXPECT_EQ(REQUEST, vecDone[0].iReqID);
    EXPECT_LE(0, vecDone[0].iRetcode);
  });
}

TEST(AIOUtilCallTest, SubmittedReadIsReportedOnceAlsoWhenItTookTwoTries) {
  ExpectSubmission([](AIOUtil& stAIO, int iFD) {
    static char szBuffer[4];
    return stAIO.SubmitReadRequest(iFD, szBuffer, 0, sizeof(szBuffer), REQUEST);
  });
}

TEST(AIOUtilCallTest, SubmittedWriteIsReportedOnceAlsoWhenItTookTwoTries) {
  ExpectSubmission([](AIOUtil& stAIO, int iFD) {
    static char szText[] = "text";
    return stAIO.SubmitWriteRequest(iFD, szText, 0, 4, REQUEST);
  });
}

TEST(AIOUtilCallTest, SubmittedSyncIsReportedOnceAlsoWhenItTookTwoTries) {
  ExpectSubmission([](AIOUtil& stAIO, int iFD) { return stAIO.SubmitSyncRequest(iFD, REQUEST); });
}

TEST(AIOUtilCallTest, CollectionThatFailsReportsTheRequestTheNextTime) {
  FailEachCall([](Attempt& stAttempt) {
    const file_t stFile;
    OwnAIOUtil stAIO;
    char szBuffer[4];
    ASSERT_EQ(0, stAIO.SubmitReadRequest(stFile.iFD, szBuffer, 0, sizeof(szBuffer), REQUEST));
    pollfd stPoll{stAIO.GetEventFD(), POLLIN, 0};
    ASSERT_EQ(1, poll(&stPoll, 1, 10000));
    Done_t vecDone;
    const int iDone = stAttempt.Run([&] { return stAIO.SomethingDone(vecDone); });
    ASSERT_EQ(static_cast<size_t>(iDone), vecDone.size());
    if (iDone == 0) {
      EXPECT_TRUE(stAttempt.Fails());
      EXPECT_EQ(1, poll(&stPoll, 1, 0)) << "nobody would look for it";
      EXPECT_EQ(1, stAIO.SomethingDone(vecDone));
    }
    ASSERT_EQ(1u, vecDone.size());
    EXPECT_EQ(4, vecDone[0].iRetcode);
  });
}

TEST(AIOUtilCallTest, ObjectWithoutItsEventDescriptorRefusesRequests) {
  FailEachCall([](Attempt& stAttempt) {
    const file_t stFile;
    const auto pAIO = stAttempt.Run([] { return std::make_unique<OwnAIOUtil>(); });
    EXPECT_EQ(stAttempt.Fails() ? -EBADF : 0, pAIO->SubmitSyncRequest(stFile.iFD, REQUEST));
    if (!stAttempt.Fails()) {
      EXPECT_EQ(1u, Collect(*pAIO).size());
    }
  });
}

TEST(AIOUtilCallTest, DestructorGivesAllBack) {
  FailEachCall([](Attempt& stAttempt) {
    auto pAIO = std::make_unique<OwnAIOUtil>();
    ASSERT_EQ(0, pAIO->CheckContext());
    stAttempt.Run([&] { pAIO.reset(); });
  });
}

}  // namespace
