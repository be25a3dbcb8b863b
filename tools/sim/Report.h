// What a playing simulator reports: events as lines of text on standard output and a log on
// standard error, or everything as JSON on standard output, one object per line. The manual
// shows every line.
//
// Any thread; each line is written whole and at once.
#pragma once

#include <string>
#include <string_view>

#include "tools/sim/FaultPlan.h"
#include "tools/sim/Simulator.h"

namespace sim {

// What happens to a fault.
enum class FaultEvent { Begun, Over };

// What happens to a replay. With --loop, it begins again and again.
enum class ReplayEvent { Begun, Over };

class Report {
 public:
  explicit Report(bool json) : json_(json) {}

  void listening(const Addresses& addresses) const;

  // The parameters of a SetParams call, one line each.
  void params(const Opening& opening) const;

  // A stream has opened or closed.
  void opened(const Opening& opening) const;
  void closed(const Opening& opening, bool cancelled) const;

  // A replay begins, or it has reached its end.
  void replay(ReplayEvent event) const;

  // `seconds`: the planned moment, since the start.
  void fault(FaultEvent event, double seconds, const Fault& fault, Subject subject) const;

 private:
  const bool json_;
};

}  // namespace sim
