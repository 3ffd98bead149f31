#include "settings.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "key_table.h"
#include "log.h"
#include "string_util.h"
#include "value_record.h"

namespace {

struct NumberSetting_t {
  const char* pKey;
  uint64_t Settings_t::*pMember;
  uint64_t iMin;
  uint64_t iMax;
  const char* pHelp;
};

struct TextSetting_t {
  const char* pKey;
  std::string Settings_t::*pMember;
  const char* pHelp;
};

const char PASSWORD_KEY[] = "mirror.mysql.password";

const TextSetting_t TEXT_SETTINGS[] = {
    {"server.listen", &Settings_t::strListen, "IPv4 address and port"},
    {"server.run_dir", &Settings_t::strRunDir, "directory of lock, FIFOs and keys"},
    {"server.follow", &Settings_t::strFollow,
     "yes or no: whether a single worker stays on the gateway's processor"},
    {"server.ini", &Settings_t::strOperatorFile, "INI file of the operators; none"},
    {"save.path", &Settings_t::strSavePath, "directory of the dumps; the run directory"},
    {"save.hook", &Settings_t::strSaveHook,
     "shell command after a save in the background, with KV_DUMP set; none"},
    {"journal.sync", &Settings_t::strJournalSync,
     "journal: no, second (synced every second), batch (before each reply)"},
    {"log.path", &Settings_t::strLogPath, "directory of the log; \"log\" in the run directory"},
    {"log.level", &Settings_t::strLogLevel, "NET, DEBUG, INFORMATION, WARNING, ERROR or STAT"},
    {"debug.commands", &Settings_t::strDebugCommands, "yes or no: whether DEBUG may be used"},
    {"metrics.listen", &Settings_t::strMetricsListen,
     "address and port of a page for Prometheus; none"},
    {"mirror.mysql.host", &Settings_t::strMirrorHost,
     "database server for a copy of the keys; none"},
    {"mirror.mysql.user", &Settings_t::strMirrorUser, "its user; the one who runs the server"},
    {PASSWORD_KEY, &Settings_t::strMirrorPassword, "the user's, best as $(VARIABLE) in the file"},
    {"mirror.mysql.database", &Settings_t::strMirrorDatabase, "database, which must be there"},
    {"mirror.mysql.table", &Settings_t::strMirrorTable, "table, made when it is not there"},
};

const uint64_t GIB = 1 << 30;
const uint64_t LEAST_TABLE_ROOM = 64 << 10;
const size_t MAX_DIGITS = 10;
const size_t MAX_TABLE_NAME = 64;

const NumberSetting_t NUMBER_SETTINGS[] = {
    {"server.workers", &Settings_t::iWorkers, 1, 64, "worker processes"},
    {"queue.bytes", &Settings_t::iQueueBytes, 1 << 16, GIB, "bytes of each queue"},
    {"table.bytes", &Settings_t::iTableBytes, 1 << 23, 1024 * GIB, "bytes of each worker's table"},
    {"table.buckets", &Settings_t::iTableBuckets, 1, 1 << 28, "about the keys of each table"},
    {"limits.clients", &Settings_t::iMaxClients, 1, 1000000, "clients at a time"},
    {"limits.elements", &Settings_t::iMaxElements, 1, 1 << 24, "elements of a request"},
    {"limits.key", &Settings_t::iMaxKey, 1, 1 << 24, "bytes of a key"},
    {"limits.value", &Settings_t::iMaxValue, 1, GIB / 2, "bytes of a value"},
    {"limits.inline", &Settings_t::iMaxInline, 16, 1 << 24, "bytes of an inline request"},
    {"limits.request", &Settings_t::iMaxRequest, 1024, GIB, "bytes of a request altogether"},
    {"limits.output", &Settings_t::iMaxOutput, 1024, GIB, "bytes waiting for one client"},
    {"limits.unanswered", &Settings_t::iMaxUnanswered, 1, 1 << 20, "commands of one client"},
    {"timeout.gather", &Settings_t::iGatherTimeout, 1, 3600, "seconds for several workers"},
    {"timeout.write", &Settings_t::iWriteTimeout, 1, 86400, "seconds a client may not read"},
    {"save.timeout", &Settings_t::iSaveTimeout, 1, 86400, "seconds for a save, mirror, hook each"},
    {"mirror.mysql.port", &Settings_t::iMirrorPort, 1, 65535, "TCP port of the database server"},
    {"stat.interval", &Settings_t::iStatInterval, 0, 3600, "seconds of latencies a table; 0: none"},
    {"timeout.stop", &Settings_t::iStopTimeout, 0, 3600, "seconds for the last answers"},
};

std::string Wrong(const Settings_t& stSettings, const std::string& strKey,
                  const std::string& strValue, const std::string& strWhat) {
  const auto it = stSettings.mapOrigins.find(strKey);
  const std::string strOrigin = it == stSettings.mapOrigins.end() ? "" : it->second;
  return strOrigin + strKey + " = \"" + ShownValue(strKey, strValue) + "\": " + strWhat;
}

// Digits with at most one of K, M and G behind them: what StringToInt() takes without leaving a
// rest; and not so many that scaling would overflow to a number that looks right.
bool IsSize(const std::string& strText) {
  const size_t iDigits = std::min(strText.find_first_not_of("0123456789"), strText.size());
  const std::string strScale = strText.substr(iDigits);
  return iDigits > 0 && iDigits <= MAX_DIGITS && strScale.size() <= 1 &&
         std::string("kKmMgG").find(strScale) != std::string::npos;
}

std::string SetNumber(Settings_t& stSettings, const NumberSetting_t& stRow,
                      const std::string& strValue) {
  const int64_t iValue = StringToInt(strValue);
  if (!IsSize(strValue) || iValue < 0 || static_cast<uint64_t>(iValue) < stRow.iMin ||
      static_cast<uint64_t>(iValue) > stRow.iMax) {
    return Wrong(stSettings, stRow.pKey, strValue,
                 "must be a number from " + std::to_string(stRow.iMin) + " to " +
                     std::to_string(stRow.iMax));
  }
  stSettings.*stRow.pMember = static_cast<uint64_t>(iValue);
  return "";
}

std::string HostOf(const std::string& strAddress) {
  return strAddress.substr(0, strAddress.rfind(':'));
}

unsigned short PortOf(const std::string& strAddress) {
  const char* pPort = strAddress.c_str() + strAddress.rfind(':') + 1;
  return static_cast<unsigned short>(strtoul(pPort, nullptr, 10));
}

bool IsAddress(const std::string& strText) {
  const size_t iColon = strText.rfind(':');
  in_addr stAddress{};
  return iColon != std::string::npos &&
         inet_pton(AF_INET, HostOf(strText).c_str(), &stAddress) == 1 && PortOf(strText) != 0 &&
         std::to_string(PortOf(strText)) == strText.substr(iColon + 1);
}

std::string CheckAddresses(const Settings_t& stSettings) {
  const std::string strWhat = "must be an IPv4 address, \":\", a port";
  if (!IsAddress(stSettings.strListen)) {
    return Wrong(stSettings, "server.listen", stSettings.strListen, strWhat);
  }
  const std::string& strMetrics = stSettings.strMetricsListen;
  if (!strMetrics.empty() && !IsAddress(strMetrics)) {
    return Wrong(stSettings, "metrics.listen", strMetrics, strWhat);
  }
  return "";
}

// An entry is one block of the heap, and ten blocks are made at a time.
std::string CheckTable(const Settings_t& stSettings) {
  const uint64_t iNeeded = KeyTable::HeadSize(stSettings.iTableBuckets) + LEAST_TABLE_ROOM;
  if (stSettings.iTableBytes < iNeeded) {
    return Wrong(stSettings, "table.bytes", std::to_string(stSettings.iTableBytes),
                 "must be at least " + std::to_string(iNeeded) + " for the present table.buckets");
  }
  if (!FitsBlock(1 + stSettings.iMaxKey, stSettings.iMaxValue)) {
    return Wrong(stSettings, "limits.value", std::to_string(stSettings.iMaxValue),
                 "is too large: key and value together may have " +
                     std::to_string(MAX_BLOCK - BlockSize(1, sizeof(ValueHead_t))) + " bytes");
  }
  return "";
}

// Such a name needs no escapes anywhere.
std::string CheckMirror(const Settings_t& stSettings) {
  const std::string& strTable = stSettings.strMirrorTable;
  const bool bGood = !strTable.empty() && strTable.size() <= MAX_TABLE_NAME &&
                     std::all_of(strTable.begin(), strTable.end(), [](unsigned char c) {
                       return c < 128 && (isalnum(c) != 0 || c == '_');
                     });
  if (!bGood) {
    return Wrong(stSettings, "mirror.mysql.table", strTable,
                 "must be 1 to 64 letters, digits and \"_\"");
  }
  if (!stSettings.strMirrorHost.empty() && stSettings.strMirrorDatabase.empty()) {
    return Wrong(stSettings, "mirror.mysql.database", "", "must not be empty with a mirror");
  }
  return "";
}

}  // namespace

std::string Settings_t::Host() const { return HostOf(strListen); }

unsigned short Settings_t::Port() const { return PortOf(strListen); }

std::string Settings_t::MetricsHost() const { return HostOf(strMetricsListen); }

unsigned short Settings_t::MetricsPort() const { return PortOf(strMetricsListen); }

std::string Settings_t::LogPath() const {
  return strLogPath.empty() ? strRunDir + "/log" : strLogPath;
}

std::string Settings_t::SavePath() const { return strSavePath.empty() ? strRunDir : strSavePath; }

std::string SetSetting(Settings_t& stSettings, const std::string& strKey,
                       const std::string& strValue, const std::string& strOrigin) {
  stSettings.mapOrigins[strKey] = strOrigin;
  for (const TextSetting_t& stRow : TEXT_SETTINGS) {
    if (strKey == stRow.pKey) {
      stSettings.*stRow.pMember = strValue;
      return "";
    }
  }
  for (const NumberSetting_t& stRow : NUMBER_SETTINGS) {
    if (strKey == stRow.pKey) {
      return SetNumber(stSettings, stRow, strValue);
    }
  }
  return Wrong(stSettings, strKey, strValue, "unknown setting");
}

std::string CheckSettings(const Settings_t& stSettings) {
  std::string strError = CheckAddresses(stSettings);
  if (!strError.empty()) {
    return strError;
  }
  if (strcasecmp(stSettings.strLogLevel.c_str(), "NONE") != 0 &&
      Log::LogLevelConvert(stSettings.strLogLevel.c_str()) == Log::LL_NONE) {
    return Wrong(stSettings, "log.level", stSettings.strLogLevel, "is no level name");
  }
  // The largest command must fit into a ring with room to spare for the one before it.
  const uint64_t iNeeded = 2 * (stSettings.iMaxKey + stSettings.iMaxValue) + (64 << 10);
  if (stSettings.iQueueBytes < iNeeded) {
    return Wrong(stSettings, "queue.bytes", std::to_string(stSettings.iQueueBytes),
                 "must be at least " + std::to_string(iNeeded) +
                     " for the present limits.key and limits.value");
  }
  for (const auto& [pKey, pMember] : {std::pair("server.follow", &Settings_t::strFollow),
                                      std::pair("debug.commands", &Settings_t::strDebugCommands)}) {
    const std::string& strValue = stSettings.*pMember;
    if (strValue != "yes" && strValue != "no") {
      return Wrong(stSettings, pKey, strValue, "must be yes or no");
    }
  }
  if (stSettings.strJournalSync != "no" && stSettings.strJournalSync != "second" &&
      stSettings.strJournalSync != "batch") {
    return Wrong(stSettings, "journal.sync", stSettings.strJournalSync,
                 "must be no, second or batch");
  }
  strError = CheckTable(stSettings);
  if (strError.empty()) {
    strError = CheckMirror(stSettings);
  }
  if (!strError.empty()) {
    return strError;
  }
  if (stSettings.strRunDir.empty()) {
    return Wrong(stSettings, "server.run_dir", "", "must not be empty");
  }
  return "";
}

std::string ShownValue(const std::string& strKey, const std::string& strValue) {
  return strKey == PASSWORD_KEY && !strValue.empty() ? "***" : strValue;
}

std::vector<SettingRow_t> ListSettings(const Settings_t& stSettings) {
  std::vector<SettingRow_t> vecRows;
  for (const TextSetting_t& stRow : TEXT_SETTINGS) {
    vecRows.push_back({stRow.pKey, ShownValue(stRow.pKey, stSettings.*stRow.pMember), stRow.pHelp});
  }
  for (const NumberSetting_t& stRow : NUMBER_SETTINGS) {
    vecRows.push_back({stRow.pKey, std::to_string(stSettings.*stRow.pMember), stRow.pHelp});
  }
  return vecRows;
}
