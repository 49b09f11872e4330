// The status as metrics, made anew at each scrape.
#ifndef QMLOGCACHE_HOST_STATUS_METRICS_H_
#define QMLOGCACHE_HOST_STATUS_METRICS_H_

#include <prometheus/metric_family.h>

#include <string>
#include <vector>

#include "host/status/status_snapshot.h"

// A family has at least one sample: what is not known has no family.
std::vector<prometheus::MetricFamily> StatusMetrics(const StatusSnapshot& snapshot);

// In the text format of Prometheus, version 0.0.4.
std::string MetricsText(const StatusSnapshot& snapshot);

#endif  // QMLOGCACHE_HOST_STATUS_METRICS_H_
