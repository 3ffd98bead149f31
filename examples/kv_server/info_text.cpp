#include "info_text.h"

#include <unistd.h>

#include "server_version.h"
#include "subcommands.h"

namespace {

const time_t DAY = 86400;
const uint32_t ALL_SECTIONS = ~0u;
const uint32_t DEFAULT_SECTIONS = ALL_SECTIONS & ~(INFO_COMMANDSTATS | INFO_LATENCYSTATS);

struct SectionWord_t {
  const char* pWord;
  uint32_t iSections;
};
const SectionWord_t SECTION_WORDS[] = {
    {"all", ALL_SECTIONS},
    {"everything", ALL_SECTIONS},
    {"default", DEFAULT_SECTIONS},
    {"server", INFO_SERVER},
    {"clients", INFO_CLIENTS},
    {"stats", INFO_STATS},
    {"keyspace", INFO_KEYSPACE},
    {"commandstats", INFO_COMMANDSTATS},
    {"memory", INFO_MEMORY},
    {"persistence", INFO_PERSISTENCE},
    {"latencystats", INFO_LATENCYSTATS},
};

void StartInfoSection(std::string& strText, const char* pTitle) {
  strText.append(strText.empty() ? "# " : "\r\n# ").append(pTitle).append("\r\n");
}

void AppendInfo(std::string& strText, const char* pName, const std::string& strValue) {
  strText.append(pName).append(":").append(strValue).append("\r\n");
}

void AppendInfo(std::string& strText, const char* pName, uint64_t iValue) {
  AppendInfo(strText, pName, std::to_string(iValue));
}

void AppendServer(std::string& strText, const InfoFacts_t& stFacts) {
  StartInfoSection(strText, "Server");
  AppendInfo(strText, "redis_version", REDIS_VERSION);
  AppendInfo(strText, "server_name", "kv_server");
  AppendInfo(strText, "server_version", SERVER_VERSION);
  AppendInfo(strText, "redis_mode", "standalone");
  AppendInfo(strText, "process_id", static_cast<uint64_t>(getpid()));
  AppendInfo(strText, "master_process_id", static_cast<uint64_t>(stFacts.iMaster));
  AppendInfo(strText, "tcp_port", stFacts.stSettings.Port());
  AppendInfo(strText, "workers", stFacts.stSettings.iWorkers);
  AppendInfo(strText, "uptime_in_seconds", static_cast<uint64_t>(stFacts.iUptime));
  AppendInfo(strText, "uptime_in_days", static_cast<uint64_t>(stFacts.iUptime / DAY));
}

void AppendClients(std::string& strText, const InfoFacts_t& stFacts) {
  StartInfoSection(strText, "Clients");
  AppendInfo(strText, "connected_clients", stFacts.iClients);
  AppendInfo(strText, "maxclients", stFacts.stSettings.iMaxClients);
  AppendInfo(strText, "blocked_clients", stFacts.iPaused);
}

void AppendStats(std::string& strText, const GatewayStatistics& stStatistics) {
  StartInfoSection(strText, "Stats");
  AppendInfo(strText, "total_connections_received", stStatistics.m_iConnections);
  AppendInfo(strText, "total_commands_processed", stStatistics.Commands());
  AppendInfo(strText, "instantaneous_ops_per_sec", stStatistics.Rate());
  AppendInfo(strText, "total_net_input_bytes", stStatistics.m_iInputBytes);
  AppendInfo(strText, "total_net_output_bytes", stStatistics.m_iOutputBytes);
  AppendInfo(strText, "rejected_connections", stStatistics.m_iRejected);
}

void AppendCommandStats(std::string& strText, const GatewayStatistics& stStatistics) {
  StartInfoSection(strText, "Commandstats");
  for (const Command_t& stCommand : AllCommands()) {
    const uint64_t iCalls = stStatistics.Calls(stCommand.eId);
    if (iCalls > 0) {
      const std::string strName = std::string("cmdstat_") + stCommand.pName;
      AppendInfo(strText, strName.c_str(), "calls=" + std::to_string(iCalls));
    }
  }
}

void AppendLatencyStats(std::string& strText, const GatewayStatistics& stStatistics) {
  StartInfoSection(strText, "Latencystats");
  for (const auto& stRow : stStatistics.m_stLatencies.Percentiles()) {
    AppendInfo(strText, ("latency_percentiles_usec_" + stRow.strCommand).c_str(),
               "p50=" + std::to_string(stRow.iHalf) + ",p99=" + std::to_string(stRow.iMost) +
                   ",p99.9=" + std::to_string(stRow.iNearlyAll));
  }
}

void AppendMemory(std::string& strText, const StoreStat_t& stStat) {
  StartInfoSection(strText, "Memory");
  AppendInfo(strText, "used_memory", stStat.iUsedBytes);
  AppendInfo(strText, "maxmemory", stStat.iBytes);
  AppendInfo(strText, "maxmemory_policy", "noeviction");
  AppendInfo(strText, "table_bytes_never_used", stStat.iUncarved);
}

void AppendJournal(std::string& strText, const JournalStat_t& stStat) {
  AppendInfo(strText, "aof_enabled", stStat.iOn);
  AppendInfo(strText, "aof_rewrite_in_progress", uint64_t{0});
  AppendInfo(strText, "aof_last_write_status", stStat.iGood != 0 ? "ok" : "err");
  AppendInfo(strText, "journal_whole", stStat.iWhole);
  if (stStat.iOn != 0) {
    AppendInfo(strText, "aof_current_size", stStat.iBytes);
    AppendInfo(strText, "aof_pending_bio_fsync", stStat.iPending);
    AppendInfo(strText, "journal_syncs", stStat.iSyncs);
  }
}

void AppendPersistence(std::string& strText, const SaveStat_t& stStat) {
  StartInfoSection(strText, "Persistence");
  AppendInfo(strText, "loading", uint64_t{0});
  AppendInfo(strText, "rdb_changes_since_last_save", stStat.iChanges);
  AppendInfo(strText, "rdb_bgsave_in_progress", stStat.iRunning);
  AppendInfo(strText, "rdb_last_save_time", stStat.iLastSave);
  AppendInfo(strText, "rdb_last_bgsave_status", stStat.iLastGood != 0 ? "ok" : "err");
}

void AppendKeyspace(std::string& strText, const StoreStat_t& stStat) {
  StartInfoSection(strText, "Keyspace");
  if (stStat.iKeys > 0) {
    AppendInfo(strText, "db0",
               "keys=" + std::to_string(stStat.iKeys) +
                   ",expires=" + std::to_string(stStat.iExpiring) +
                   ",avg_ttl=" + std::to_string(stStat.iAverageTtl));
  }
}

}  // namespace

uint32_t InfoSections(const Arguments_t& vecArguments) {
  uint32_t iSections = vecArguments.size() == 1 ? DEFAULT_SECTIONS : 0;
  for (size_t i = 1; i < vecArguments.size(); ++i) {
    for (const SectionWord_t& stWord : SECTION_WORDS) {
      iSections |= IsWord(vecArguments[i], stWord.pWord) ? stWord.iSections : 0;
    }
  }
  return iSections;
}

std::string GatewayInfo(uint32_t iSections, const InfoFacts_t& stFacts) {
  std::string strText;
  if ((iSections & INFO_SERVER) != 0) {
    AppendServer(strText, stFacts);
  }
  if ((iSections & INFO_CLIENTS) != 0) {
    AppendClients(strText, stFacts);
  }
  if ((iSections & INFO_STATS) != 0) {
    AppendStats(strText, stFacts.stStatistics);
  }
  if ((iSections & INFO_COMMANDSTATS) != 0) {
    AppendCommandStats(strText, stFacts.stStatistics);
  }
  if ((iSections & INFO_LATENCYSTATS) != 0) {
    AppendLatencyStats(strText, stFacts.stStatistics);
  }
  return strText;
}

void AppendWorkerInfo(std::string& strText, uint32_t iSections, const WorkerStat_t& stWorkers) {
  if ((iSections & INFO_MEMORY) != 0) {
    AppendMemory(strText, stWorkers.stStore);
  }
  if ((iSections & INFO_PERSISTENCE) != 0) {
    AppendPersistence(strText, stWorkers.stSave);
    AppendJournal(strText, stWorkers.stJournal);
  }
  if ((iSections & INFO_KEYSPACE) != 0) {
    AppendKeyspace(strText, stWorkers.stStore);
  }
}
