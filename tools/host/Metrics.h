// Metrics for monitoring systems, in version 0.0.4 of Prometheus's text format. Any thread.
#pragma once

#include <string>

#include "tools/host/LogBook.h"
#include "tools/host/RunningModule.h"

namespace host {

constexpr char metricsType[] = "text/plain; version=0.0.4; charset=utf-8";

// Values of all numeric slots, ages of all slots, states and counts of the links, further counts,
// and what runs here. Counts of a link that is off or unknown are absent. Labels hold names and
// keys; a byte that is not UTF-8 appears as the text \xff, with its own number.
std::string metricsOf(const RunningModule& module, const LogBook& log);

}  // namespace host
