#ifndef ZELK_TESTS_KV_LOAD_H
#define ZELK_TESTS_KV_LOAD_H

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kv_model.h"

// A load on a server in which nothing is believed: several connections with pipelines of all
// commands on keys, from a seed, each reply checked against a KvModel. One thread, no blocking
// call; it runs only while it is pumped, so that whoever harms the server meanwhile does it in
// plain code:
//
//   KvLoad stLoad(stServer.Port(), {});
//   stLoad.PumpFor(100);
//   SendSignal(stServer.Gateway(), SIGKILL);
//   EXPECT_LT(stLoad.PumpUntilServed(), 2000);
//   stLoad.Verify();
//   EXPECT_EQ("", stLoad.Faults());

// In how many milliseconds a server must answer again, whatever happened to it.
#ifdef __SANITIZE_ADDRESS__
const int QUICK_MS = 10000;  // this is not what is shipped
#else
const int QUICK_MS = 2000;
#endif

struct LoadOptions_t {
  int iClients = 8;
  int iKeys = 60;          // of each client
  int iDepth = 16;         // requests of a pipeline at most
  size_t iLarge = 200000;  // bytes of the longest values, which two keys of each client have
  int iRate = 0;           // requests a second at most; 0: as fast as it goes
  unsigned int iSeed = 1;
  int64_t iClockSlack = 5000;  // see KvModel
};

// Microseconds, each counted with an error below one percent.
class LatencyHistogram {
 public:
  void Add(int64_t iMicroseconds);
  uint64_t Count() const { return m_iCount; }
  // Below which that share of them lies, 0.5 or 0.999.
  int64_t Percentile(double fShare) const;

 private:
  static const size_t STEPS = 128;  // of each doubling
  std::array<uint64_t, STEPS * 40> m_aiCounts{};
  uint64_t m_iCount = 0;
};

// A connection that does not block. A broken one is closed.
class LoadConnection {
 public:
  explicit LoadConnection(uint16_t iPort);
  ~LoadConnection();
  LoadConnection(const LoadConnection&) = delete;
  LoadConnection& operator=(const LoadConnection&) = delete;

  int FD() const { return m_iFD; }
  bool IsOpen() const { return m_bOpen; }
  short Events() const;
  void OnEvents(short iEvents);
  void Send(const std::string& strBytes);
  // The next reply with all its bytes; "" when there is none yet.
  std::string TakeReply();

 private:
  void Flush();
  void Receive();
  size_t EndOfReply(size_t iOffset) const;

  int m_iFD;
  bool m_bOpen = true;
  std::string m_strOut;
  std::string m_strIn;
  size_t m_iTaken = 0;  // bytes of m_strIn
};

struct LoadStat_t {
  uint64_t iRequests = 0;
  uint64_t iAcknowledged = 0;  // requests with an answer that is no error of the server
  std::map<std::string, uint64_t> mapErrors;
  uint64_t iLost = 0;  // faults of the model: the first of them are in Faults()
  LatencyHistogram stAll;
  LatencyHistogram stQuiet;  // of requests that no disturbance touched
};

class RequestMaker;

class KvLoad {
 public:
  KvLoad(uint16_t iPort, const LoadOptions_t& stOptions);
  ~KvLoad();
  KvLoad(const KvLoad&) = delete;
  KvLoad& operator=(const KvLoad&) = delete;

  void PumpFor(int iMilliseconds);
  bool PumpUntil(const std::function<bool()>& fnReady, int iLimitMilliseconds);
  // Until all workers have answered one request; how many milliseconds that took, or the limit.
  int PumpUntilServed(int iLimitMilliseconds = 30000);
  // Asks on a connection of its own, while the load goes on; "" when it was closed.
  std::string Ask(const Request_t& vecRequest);
  std::vector<std::string> AskAll(const std::vector<Request_t>& vecRequests);

  // No more requests, until Resume(); returns when none is under way.
  void Settle();
  void Resume() { m_bSettling = false; }
  // Closes all connections of a settled load; they are made again as they are needed.
  void Disconnect();
  // Settles, reads every key that the model knows, goes through all with SCAN, and resumes.
  void Verify();
  // What comes between is left out of stQuiet.
  void Disturb(bool bOn);

  const LoadStat_t& Stat() const { return m_stStat; }
  const KvModel& Model() const { return m_stModel; }
  // Everything that was wrong, a line each; "" when nothing was.
  std::string Faults() const { return m_strFaults; }

 private:
  struct UnderWay_t {
    Request_t vecRequest;
    int64_t iSent;      // microseconds of the monotonic clock
    int64_t iSentWall;  // milliseconds since 1970
  };
  struct LoadClient_t {
    std::unique_ptr<LoadConnection> pConnection;
    std::deque<UnderWay_t> dqUnderWay;
    int64_t iNext = 0;  // when it may send again
  };

  void Pump(int iMilliseconds);
  void Serve(LoadClient_t& stClient);
  void Fill(LoadClient_t& stClient, int iClient);
  void OnReply(const UnderWay_t& stUnderWay, const std::string& strReply);
  void Check(const Request_t& vecRequest, const std::string& strReply, const Moments_t& stMoments);
  void OnFault(const std::string& strFault);
  void ReadAll();
  std::vector<Request_t> ReadSome(const std::vector<Request_t>& vecRequests);
  void ScanAll();

  const uint16_t m_iPort;
  const LoadOptions_t m_stOptions;
  KvModel m_stModel;
  std::unique_ptr<RequestMaker> m_pMaker;
  std::vector<LoadClient_t> m_vecClients;
  std::unique_ptr<LoadConnection> m_pAsker;
  LoadStat_t m_stStat;
  std::string m_strFaults;
  bool m_bSettling = false;
  bool m_bDisturbed = false;
  int64_t m_iDisturbedUntil = 0;
};

// A request as an array of bulk strings.
std::string WireForm(const Request_t& vecRequest);

#endif
