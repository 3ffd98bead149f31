#include "info_metrics.h"

#include <cstdlib>
#include <sstream>
#include <utility>

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

const double MICROSECONDS = 1e6;

struct Line_t {
  const char* pLine;
  const char* pMetric;
  MetricType eType;
  const char* pHelp;
};

const Line_t LINES[] = {
    {"uptime_in_seconds", "kv_uptime_seconds", MetricType::Gauge, "Age of the gateway"},
    {"workers", "kv_workers", MetricType::Gauge, "Worker processes"},
    {"connected_clients", "kv_connected_clients", MetricType::Gauge, "Clients, with this one"},
    {"blocked_clients", "kv_blocked_clients", MetricType::Gauge, "Clients whose requests wait"},
    {"total_connections_received", "kv_connections_total", MetricType::Counter,
     "Connections accepted"},
    {"rejected_connections", "kv_rejected_connections_total", MetricType::Counter,
     "Connections over the limit"},
    {"total_net_input_bytes", "kv_input_bytes_total", MetricType::Counter, "Bytes from clients"},
    {"total_net_output_bytes", "kv_output_bytes_total", MetricType::Counter, "Bytes to clients"},
    {"used_memory", "kv_table_used_bytes", MetricType::Gauge, "Bytes of the tables in use"},
    {"maxmemory", "kv_table_bytes", MetricType::Gauge, "Bytes of all tables"},
    {"table_bytes_never_used", "kv_table_never_used_bytes", MetricType::Gauge,
     "Bytes never made into blocks, which serve any size"},
    {"rdb_changes_since_last_save", "kv_unsaved_changes", MetricType::Gauge,
     "Changes since the last save"},
    {"rdb_last_save_time", "kv_last_save_timestamp_seconds", MetricType::Gauge,
     "Time of the last save, in seconds since 1970"},
    {"journal_whole", "kv_journal_whole", MetricType::Gauge,
     "1: save and journal together have all changes"},
};

// What stands behind a name in "keys=3,expires=0".
bool Field(const std::string& strFields, const std::string& strName, double& fValue) {
  std::istringstream stFields(strFields);
  for (std::string strField; std::getline(stFields, strField, ',');) {
    if (strField.rfind(strName + "=", 0) == 0) {
      char* pEnd = nullptr;
      const char* pValue = strField.c_str() + strName.size() + 1;
      fValue = strtod(pValue, &pEnd);
      return pEnd != pValue && *pEnd == '\0';
    }
  }
  return false;
}

ClientMetric Metric(MetricType eType, double fValue) {
  ClientMetric stMetric;
  (eType == MetricType::Counter ? stMetric.counter.value : stMetric.gauge.value) = fValue;
  return stMetric;
}

// All families of a page, while the lines go by.
class Page {
 public:
  void Add(const std::string& strName, const std::string& strValue) {
    if (TakePrefix(strName, "cmdstat_")) {
      AddCalls(strName.substr(8), strValue);
    } else if (TakePrefix(strName, "latency_percentiles_usec_")) {
      AddLatencies(strName.substr(25), strValue);
    } else if (strName == "db0") {
      AddKeys(strValue);
    } else {
      AddLine(strName, strValue);
    }
  }

  std::vector<MetricFamily> Families() {
    for (MetricFamily* pFamily : {&m_stCalls, &m_stLatencies}) {
      if (!pFamily->metric.empty()) {
        m_vecFamilies.push_back(std::move(*pFamily));
      }
    }
    return std::move(m_vecFamilies);
  }

 private:
  static bool TakePrefix(const std::string& strName, const char* pPrefix) {
    return strName.rfind(pPrefix, 0) == 0;
  }

  void AddCalls(const std::string& strCommand, const std::string& strValue) {
    double fCalls = 0;
    if (Field(strValue, "calls", fCalls)) {
      m_stCalls.metric.push_back(Metric(MetricType::Counter, fCalls));
      m_stCalls.metric.back().label = {{"command", strCommand}};
    }
  }

  void AddLatencies(const std::string& strCommand, const std::string& strValue) {
    const std::pair<const char*, const char*> QUANTILES[] = {
        {"p50", "0.5"}, {"p99", "0.99"}, {"p99.9", "0.999"}};
    for (const auto& [pField, pQuantile] : QUANTILES) {
      double fMicroseconds = 0;
      if (Field(strValue, pField, fMicroseconds)) {
        m_stLatencies.metric.push_back(Metric(MetricType::Gauge, fMicroseconds / MICROSECONDS));
        m_stLatencies.metric.back().label = {{"command", strCommand}, {"quantile", pQuantile}};
      }
    }
  }

  void AddKeys(const std::string& strValue) {
    double fValue = 0;
    if (Field(strValue, "keys", fValue)) {
      m_vecFamilies.push_back(Gauge("kv_keys", "Keys", fValue));
    }
    if (Field(strValue, "expires", fValue)) {
      m_vecFamilies.push_back(Gauge("kv_expiring_keys", "Keys with an expiry time", fValue));
    }
  }

  void AddLine(const std::string& strName, const std::string& strValue) {
    for (const Line_t& stLine : LINES) {
      double fValue = 0;
      if (strName == stLine.pLine && Field("=" + strValue, "", fValue)) {
        m_vecFamilies.push_back(
            {stLine.pMetric, stLine.pHelp, stLine.eType, {Metric(stLine.eType, fValue)}});
      }
    }
  }

  std::vector<MetricFamily> m_vecFamilies;
  MetricFamily m_stCalls{"kv_commands_total", "Calls of a command", MetricType::Counter, {}};
  MetricFamily m_stLatencies{
      "kv_command_latency_seconds",
      "Upper bound of the time that this part of the period's calls took in the server",
      MetricType::Gauge,
      {}};
};

}  // namespace

MetricFamily Gauge(const std::string& strName, const std::string& strHelp, double fValue) {
  return {strName, strHelp, MetricType::Gauge, {Metric(MetricType::Gauge, fValue)}};
}

std::vector<MetricFamily> InfoMetrics(const std::string& strText) {
  Page stPage;
  std::istringstream stLines(strText);
  for (std::string strLine; std::getline(stLines, strLine);) {
    const size_t iColon = strLine.find(':');
    if (iColon != std::string::npos && strLine.back() == '\r') {
      stPage.Add(strLine.substr(0, iColon),
                 strLine.substr(iColon + 1, strLine.size() - iColon - 2));
    }
  }
  return stPage.Families();
}
