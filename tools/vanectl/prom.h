// The counters, the steering hits and the WLAN message statistics in the
// Prometheus text exposition format (version 0.0.4). Each source is
// optional: a file that could not be read leaves its families out and
// raises vane_scrape_errors.
#ifndef VANE_TOOLS_VANECTL_PROM_H
#define VANE_TOOLS_VANECTL_PROM_H

#include <string>

#include "vane/decode.h"

namespace vanectl {

struct MetricsInput {
  const vane_counters* counters = nullptr;
  const vane_ivo_stats* steering = nullptr;
  const vane_wlan_stats* wlan = nullptr;
  unsigned errors = 0;  // sources that could not be read or decoded
};

std::string PrometheusText(const MetricsInput& in);

}  // namespace vanectl

#endif  // VANE_TOOLS_VANECTL_PROM_H
