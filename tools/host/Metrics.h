// What a monitoring system is told: the text format 0.0.4 of Prometheus. Any thread.
#pragma once

#include <string>

#include "tools/host/LogBook.h"
#include "tools/host/RunningModule.h"

namespace host {

constexpr char metricsType[] = "text/plain; version=0.0.4; charset=utf-8";

// Values of all numeric slots, ages of all slots, counts, and what runs here. Labels hold the bytes
// of names and keys with what is not UTF-8 replaced.
std::string metricsOf(const RunningModule& module, const LogBook& log);

}  // namespace host
