// What a monitoring system is told: the text format 0.0.4 of Prometheus. Any thread.
#pragma once

#include <string>

#include "tools/host/LogBook.h"
#include "tools/host/RunningModule.h"

namespace host {

constexpr char metricsType[] = "text/plain; version=0.0.4; charset=utf-8";

// Values of all numeric slots, ages of all slots, counts, and what runs here. Labels hold the bytes
// of names and keys; a byte that is no UTF-8 is told as the text \xff, by its number.
std::string metricsOf(const RunningModule& module, const LogBook& log);

}  // namespace host
