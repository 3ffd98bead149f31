#ifndef KV_SERVER_INFO_TEXT_H
#define KV_SERVER_INFO_TEXT_H

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>

#include "batch.h"
#include "gateway_statistics.h"
#include "saver.h"
#include "settings.h"

// Sections of INFO, as bits.
enum InfoSection_t : uint32_t {
  INFO_SERVER = 1,
  INFO_CLIENTS = 2,
  INFO_STATS = 4,
  INFO_COMMANDSTATS = 8,
  INFO_KEYSPACE = 16,
  INFO_MEMORY = 32,
  INFO_PERSISTENCE = 64,
  INFO_LATENCYSTATS = 128,
};

// Those that need the workers' answers.
const uint32_t INFO_OF_WORKERS = INFO_KEYSPACE | INFO_MEMORY | INFO_PERSISTENCE;

// What the request asks for; words that are unknown ask for nothing.
uint32_t InfoSections(const Arguments_t& vecArguments);

struct InfoFacts_t {
  const Settings_t& stSettings;
  const GatewayStatistics& stStatistics;
  pid_t iMaster;
  time_t iUptime;
  size_t iClients;
  size_t iPaused;  // of them, whose requests wait
};

// The gateway's own sections.
std::string GatewayInfo(uint32_t iSections, const InfoFacts_t& stFacts);

// Those of the workers, from what they have told.
void AppendWorkerInfo(std::string& strText, uint32_t iSections, const WorkerStat_t& stWorkers);

#endif
