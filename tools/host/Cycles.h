// `gatewayctl host --cycles`: starts and stops the module repeatedly, and reports what it leaves
// behind.
//
// Each cycle loads the module's file, starts it, lets it run, stops it and unloads it. The host's
// memory is counted exactly. Threads and file descriptors are those of the whole process right
// after a stop: gRPC keeps some of its own from the first start on and ends others a little later,
// so what matters is whether they grow from the first cycle to the last.
//
// Threads: the calling one.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/common/ProcessUse.h"
#include "tools/host/RunningModule.h"

namespace host {

struct CyclesReport {
  unsigned cycles = 0;  // completed
  tools::ProcessUse before, afterFirst, afterLast;
  Leftovers leftovers;  // of all cycles together
};

// Runs up to `count` cycles. Calls `live` while the module runs; when that returns false, it is the
// last cycle. Throws what RunningModule throws.
CyclesReport runCycles(const Setup& setup, unsigned count,
                       const std::function<void(const standin::LogLine&)>& logSink,
                       const std::function<bool()>& live);

// For people, several lines; and {"cycles","not_returned":{"blocks","bytes","key_value_lists",
// "callbacks"},"violations":[...],"threads":{"before","after_first","after_last"},
// "descriptors":{the same}}.
std::string textOf(const CyclesReport& report);
nlohmann::json jsonOf(const CyclesReport& report);

}  // namespace host
