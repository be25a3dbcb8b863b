// What a playing simulator tells: as lines of text, with the log apart on standard error, or all of
// it as JSON, an object a line, on standard output. The manual in
// CommandLine.cpp shows every line.
//
// Any thread; each line is written at once.
#pragma once

#include <string>
#include <string_view>

#include "tools/sim/FaultPlan.h"
#include "tools/sim/Simulator.h"

namespace sim {

// What becomes of a fault.
enum class FaultEvent { Begun, Over };

class Report {
 public:
  explicit Report(bool json) : json_(json) {}

  void listening(const Addresses& addresses) const;

  // A SetParams call, each of its parameters.
  void params(const Opening& opening) const;

  // A stream.
  void opened(const Opening& opening) const;
  void closed(const Opening& opening, bool cancelled) const;

  // `seconds`: when it was to happen, from the begin.
  void fault(FaultEvent event, double seconds, const Fault& fault, Subject subject) const;

 private:
  const bool json_;
};

}  // namespace sim
