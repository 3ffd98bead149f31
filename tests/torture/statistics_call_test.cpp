// Statistics, identifiers, the time and the dumps of all classes while each of their system calls
// fails in turn.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "config.h"
#include "delay_stat.h"
#include "failing_call.h"
#include "id_generator.h"
#include "ini_config.h"
#include "message_queue.h"
#include "mq_pool.h"
#include "my_uuid.h"
#include "simple_filter.h"
#include "tcp_socket.h"
#include "test_support.h"
#include "time_util.h"

namespace {

const size_t UUID_SIZE = 36;
const size_t TIME_SIZE = 25;  // "[2024-01-02 15:04:05,678]"

TEST(DelayStatCallTest, TableIsWrittenOnceAndStays) {
  FailEachCall([](Attempt& stAttempt) {
    DelayStat stStat;
    stStat.PushData("tag", 5);
    const std::string strTable = stStat.GenerateStatTable();
    const std::string strText =
        CaptureDescriptor([&](int iFD) { stAttempt.Run([&] { stStat.DumpToFD(iFD); }); });
    const size_t iWritten = !stAttempt.Fails() ? strTable.size()
                            : stAttempt.Failure().iErrno != 0
                                ? 0
                                : static_cast<size_t>(stAttempt.Failure().iShorter);
    EXPECT_EQ(strTable.substr(0, iWritten), strText);
    EXPECT_EQ(strTable, stStat.GenerateStatTable());
  });
}

// libuuid opens the kernel's generator, or does without it.
TEST(MyUuidCallTest, IdentifierIsOneOfAKindWhateverFails) {
  FailEachCall([](Attempt& stAttempt) {
    const std::string strOther = MyUuid::NewUuid();
    const std::string strUuid = stAttempt.Run([] { return MyUuid::NewUuid(); });
    EXPECT_EQ(UUID_SIZE, strUuid.size());
    EXPECT_NE(strOther, strUuid);
  });
}

TEST(TimeUtilCallTest, TimeIsWholeWithoutAZonesFile) {
  FailEachCall([](Attempt& stAttempt) {
    static int iZone = 0;  // one that was not read before
    setenv("TZ", iZone++ % 2 == 0 ? ":/usr/share/zoneinfo/Etc/GMT-1" : "UTC", 1);
    const std::string strText = stAttempt.Run([] {
      tzset();
      return std::string(GenerateTimeString());
    });
    EXPECT_EQ(TIME_SIZE, strText.size()) << strText;
    unsetenv("TZ");
    tzset();
  });
}

TEST(MQPoolCallTest, QueuesAreForgottenAndLetGoOf) {
  FailEachCall([](Attempt& stAttempt) {
    class OwnPool : public MQPool {};
    const PrivateDirectory stDirectory;
    const PrivateKey stIn;
    const PrivateKey stOut;
    auto pIn = std::make_unique<MessageQueue>();
    auto pOut = std::make_unique<MessageQueue>();
    ASSERT_EQ(0, pIn->AttachWithKey(stDirectory.File("in").c_str(), stIn.Key(), 100));
    ASSERT_EQ(0, pOut->AttachWithKey(stDirectory.File("out").c_str(), stOut.Key(), 100));
    OwnPool stPool;
    ASSERT_TRUE(stPool.AddMQ(1, pIn.release(), pOut.release()));
    stAttempt.Run([&] { stPool.RemoveAndDeleteMQ(1); });
    EXPECT_EQ(nullptr, stPool.GetMQ(1, 0));
  });
}

struct dump_t {
  const char* pName;
  std::shared_ptr<Object> pObject;
};

void PrintTo(const dump_t& stDump, std::ostream* pOut) { *pOut << stDump.pName; }

template <class Config_t>
dump_t Loaded(const char* pName, const std::string& strText) {
  const auto pConfig = std::make_shared<Config_t>();
  if constexpr (std::is_same_v<Config_t, Config>) {
    pConfig->LoadFromMemory(strText.data(), strText.size());
  } else {
    pConfig->LoadFromMemory(strText);
  }
  return {pName, pConfig};
}

dump_t Filter() {
  const auto pFilter = std::make_shared<SimpleFilter>();
  pFilter->SetRegular("a*");
  return {"SimpleFilter", pFilter};
}

class DumpCallTest : public ::testing::TestWithParam<dump_t> {};

TEST_P(DumpCallTest, LinesAreLostOnlyByTheirOwnFailure) {
  Object& stObject = *GetParam().pObject;
  const std::string strAll = CaptureDescriptor([&](int iFD) { stObject.Dump(iFD); });
  const auto iLines = std::count(strAll.begin(), strAll.end(), '\n');
  ASSERT_LT(0, iLines);
  FailEachCall([&](Attempt& stAttempt) {
    const std::string strText =
        CaptureDescriptor([&](int iFD) { stAttempt.Run([&] { stObject.Dump(iFD); }); });
    const bool bLost = stAttempt.FailsIn({{"write"}}) && stAttempt.Failure().iErrno != 0;
    EXPECT_EQ(iLines - bLost, std::count(strText.begin(), strText.end(), '\n'));
  });
}

INSTANTIATE_TEST_SUITE_P(EachClass, DumpCallTest,
                         ::testing::Values(Loaded<Config>("Config", "<r><a>1</a><b>2</b></r>"),
                                           Loaded<IniConfig>("IniConfig", "a=1\nb=2\n"), Filter(),
                                           dump_t{"MyUuid", std::make_shared<MyUuid>()},
                                           dump_t{"TcpSocket", std::make_shared<TcpSocket>()}),
                         [](const auto& stInfo) { return std::string(stInfo.param.pName); });

}  // namespace
