#ifndef ZELK_TESTS_KV_FAULT_FIXTURE_H
#define ZELK_TESTS_KV_FAULT_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <string>

#include "kv_census.h"
#include "kv_load.h"
#include "kv_server_fixture.h"

// A server under load that is going to be harmed. At the end of each test nothing that was
// acknowledged may be lost.
class KvFaultFixture : public testing::Test {
 protected:
  static constexpr int WORKERS = 3;

  // More rounds of everything that is done at random moments, for who has the time.
  static int Rounds(int iUsual) {
    const char* pTimes = getenv("ZELK_KV_FAULT_TIMES");
    return iUsual * (pTimes == nullptr ? 1 : atoi(pTimes));
  }

  ~KvFaultFixture() override { EXPECT_EQ("", m_pLoad ? m_pLoad->Faults() : ""); }

  // A server under load, and what it has while it is idle.
  void Start(ServerProcess::Settings_t vecSettings = {}, LoadOptions_t stOptions = {}) {
    vecSettings.insert(vecSettings.begin(), "server.workers=3");
    m_pServer = std::make_unique<ServerProcess>(vecSettings);
    m_pLoad = std::make_unique<KvLoad>(m_pServer->Port(), stOptions);
    m_stRandom.seed(stOptions.iSeed);
    m_pLoad->PumpFor(200);
    m_strBefore = IdleCounts();
    m_pLoad->Resume();
    m_pLoad->PumpFor(100);
  }

  // Descriptors, children, segments and FIFOs when the only client is the one that asks.
  std::string IdleCounts() {
    m_pLoad->Settle();
    m_pLoad->Disconnect();
    const bool bIdle = m_pLoad->PumpUntil(
        [this] {
          const std::string strInfo = m_pLoad->Ask({"INFO"});
          return strInfo.find("connected_clients:1\r") != std::string::npos &&
                 strInfo.find("rdb_bgsave_in_progress:0") != std::string::npos;
        },
        20000);
    EXPECT_TRUE(bIdle) << "clients or saves do not end";
    return TakeCensus(m_pServer->Master(), m_pServer->Directory()).Counts();
  }

  // Who dies for the fourth time within ten seconds is started again later and later.
  void LetLive(int iRound, int iMany) {
    if (iRound > 0 && iRound % iMany == 0) {
      m_pLoad->PumpFor(11000);
    }
  }

  void ExpectServedSoon(const std::string& strAfter) {
    EXPECT_LT(m_pLoad->PumpUntilServed(), QUICK_MS) << strAfter;
  }

  // No acknowledged write is lost and nothing leaks, not even at the end.
  void ExpectAllIsThere(bool bStop = true) {
    const uint64_t iEnough = m_pLoad->Stat().iAcknowledged + 300;
    const auto Goes = [&] { return m_pLoad->Stat().iAcknowledged > iEnough; };
    EXPECT_TRUE(m_pLoad->PumpUntil(Goes, 20000)) << "the load does not go on";
    m_pLoad->Verify();
    EXPECT_EQ(m_strBefore, IdleCounts());
    if (bStop) {
      EXPECT_EQ(0, m_pServer->Stop());
      EXPECT_EQ("", m_pServer->Remains());
    }
  }

  pid_t Child(const std::string& strTitle) {
    pid_t iPid = -1;
    const bool bThere = m_pLoad->PumpUntil(
        [&] {
          const auto mapChildren = ChildrenByTitle(m_pServer->Master());
          const auto it = mapChildren.find(strTitle);
          iPid = it == mapChildren.end() ? -1 : it->second;
          return iPid != -1;
        },
        10000);
    EXPECT_TRUE(bThere) << strTitle;
    return iPid;
  }
  pid_t AnyWorker() { return Child("worker " + std::to_string(Below(WORKERS))); }

  int Below(int iLimit) {
    return static_cast<int>(m_stRandom() % static_cast<unsigned int>(iLimit));
  }

  // Requests that were answered so, up to the first comma.
  uint64_t Errors(const std::string& strStart) const {
    uint64_t iCount = 0;
    for (const auto& stItem : m_pLoad->Stat().mapErrors) {
      iCount += stItem.first.rfind(strStart, 0) == 0 ? stItem.second : 0;
    }
    return iCount;
  }

  std::unique_ptr<ServerProcess> m_pServer;
  std::unique_ptr<KvLoad> m_pLoad;
  std::string m_strBefore;
  std::minstd_rand m_stRandom;
};

#endif
