#ifndef METRICS_EXPORTER_INFO_METRICS_H
#define METRICS_EXPORTER_INFO_METRICS_H

#include <prometheus/metric_family.h>

#include <string>
#include <vector>

// A family of one gauge.
prometheus::MetricFamily Gauge(const std::string& strName, const std::string& strHelp,
                               double fValue);

// The figures in a text of INFO, in base units: seconds and bytes. Lines that are unknown or no
// numbers are left out, and so are families without a line.
std::vector<prometheus::MetricFamily> InfoMetrics(const std::string& strText);

#endif
