#ifndef KV_SERVER_METRICS_PROCESS_H
#define KV_SERVER_METRICS_PROCESS_H

#include <string>

#include "settings.h"

// The program that serves the figures for Prometheus, a client of this server that its master
// starts.

// Empty when it can be started; else what is missing.
std::string CheckMetrics(const Settings_t& stSettings);

// To be called in a child: becomes that program. Returns an exit code when it can not.
int RunMetrics(const Settings_t& stSettings);

#endif
