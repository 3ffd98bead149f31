#ifndef KV_SERVER_SETTINGS_H
#define KV_SERVER_SETTINGS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// Save after so many seconds if so many changes were made.
struct SaveRule_t {
  unsigned int iSeconds;
  unsigned int iChanges;
};

// The server's settings, each with its default. Read once by the master; the children inherit
// them through fork().
struct Settings_t {
  std::string strListen = "127.0.0.1:6399";
  std::string strRunDir = "kv_server.run";
  std::string strOperatorFile;        // empty: none
  std::string strSavePath;            // empty: the run directory
  std::string strSaveHook;            // a shell command; empty: none
  std::string strJournalSync = "no";  // "second", "batch"; "no": no journal
  std::string strLogPath;             // empty: "log" below the run directory
  std::string strLogLevel = "INFORMATION";
  std::string strFollow = "yes";        // "yes": a single worker runs where the gateway runs
  std::string strDebugCommands = "no";  // "yes": DEBUG may be used
  std::string strMetricsListen;         // empty: no page of figures
  std::string strMirrorHost;            // empty: no mirror
  std::string strMirrorUser;
  std::string strMirrorPassword;  // never shown
  std::string strMirrorDatabase = "kv_server";
  std::string strMirrorTable = "kv_keys";
  uint64_t iMirrorPort = 3306;
  uint64_t iWorkers = 1;
  uint64_t iQueueBytes = 8 << 20;
  uint64_t iTableBytes = 256 << 20;    // of each worker's table; memory is taken as it is used
  uint64_t iTableBuckets = 256 << 10;  // about the number of keys in each
  bool bEphemeral = false;             // the tables are removed at a clean end

  uint64_t iMaxClients = 10000;
  uint64_t iMaxElements = 1 << 20;  // in one request
  uint64_t iMaxKey = 16 << 10;      // bytes
  uint64_t iMaxValue = 1 << 20;     // bytes
  uint64_t iMaxInline = 64 << 10;   // bytes of one inline request
  uint64_t iMaxRequest = 64 << 20;  // bytes of one request altogether
  uint64_t iMaxOutput = 64 << 20;   // bytes waiting to be sent to one client
  uint64_t iMaxUnanswered = 1024;   // commands of one client under way
  uint64_t iGatherTimeout = 10;     // seconds for a command over several workers
  uint64_t iWriteTimeout = 60;      // seconds without a byte taken by the client
  uint64_t iStopTimeout = 5;        // seconds for the last answers
  uint64_t iSaveTimeout = 600;      // seconds for a save, its mirror, its hook each
  uint64_t iStatInterval = 60;      // seconds of a period of latencies; 0: they are not measured

  std::vector<SaveRule_t> vecSaveRules;
  // Lower case: a command's own name and the one it goes by; empty: nobody may run it.
  std::map<std::string, std::string> mapCommandNames;

  // Where a value that is no default comes from, by its key, as error texts begin with it.
  std::map<std::string, std::string> mapOrigins;

  // Parts of strListen and strMetricsListen, valid after CheckSettings().
  std::string Host() const;
  unsigned short Port() const;
  std::string MetricsHost() const;
  unsigned short MetricsPort() const;
  std::string LogPath() const;
  std::string SavePath() const;
};

// Sets one value from its dotted key ("server.workers") and text. Sizes may carry K, M or G.
// Returns an empty string, or what is wrong, naming origin ("kv.xml: "), key and value.
std::string SetSetting(Settings_t& stSettings, const std::string& strKey,
                       const std::string& strValue, const std::string& strOrigin = "");

// What the values must fulfil together; empty, or what is wrong.
std::string CheckSettings(const Settings_t& stSettings);

// What a listing or an error text shows of a value: stars for a password.
std::string ShownValue(const std::string& strKey, const std::string& strValue);

// A row of the table of settings, for listings; passwords are not in it.
struct SettingRow_t {
  const char* pKey;
  std::string strValue;
  const char* pHelp;
};
std::vector<SettingRow_t> ListSettings(const Settings_t& stSettings);

#endif
