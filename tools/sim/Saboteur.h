// Carries out a plan of faults, and others as they are told, and tells of each that is in effect.
//
// Threads: all is done on the thread that runs the loop; constructor and destructor are called
// while it does not run.
// Ownership: all that the constructor is given is borrowed.
#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "tools/sim/FaultPlan.h"
#include "tools/sim/FaultSite.h"
#include "tools/sim/Report.h"

namespace sim {

class Saboteur {
 public:
  // Time counts from now.
  Saboteur(asio::io_context& loop, const FaultPlan& plan, const FaultTargets& targets,
           const Report& report);
  Saboteur(const Saboteur&) = delete;
  Saboteur& operator=(const Saboteur&) = delete;

  // Has a fault happen that is in no plan, at once; its times do not count.
  void strike(const Fault& fault);

 private:
  using Clock = std::chrono::steady_clock;

  // A fault of the plan, waiting for its next moment.
  struct Planned {
    const Fault& fault;
    FaultMoments moments;
    asio::steady_timer timer;
  };

  // A fault that lasts, until its timer ends it, if that is set.
  struct Lasting {
    Fault fault;
    asio::steady_timer timer;
    unsigned number;  // tells it from others at its place, also for a timer that has just fired
  };
  using Place = std::pair<FaultGroup, Subject>;

  // Its next moment, and from there the one after it: also if the fault can't be carried out.
  void schedule(Planned& planned);
  void happen(const Fault& fault, double seconds);
  void begin(const Fault& fault, Subject subject, double seconds);
  void keepUp(const Fault& fault, Subject subject, double seconds);
  // Takes back what lasts there, if there is such.
  void end(const Place& place, double seconds);
  void endAll(Subject subject, double seconds);

  bool isServed(const Fault& fault, Subject subject);
  Clock::time_point momentAt(double seconds) const;

  asio::io_context& loop_;
  FaultTargets targets_;
  const Report& report_;
  const Clock::time_point begin_ = Clock::now();
  std::vector<std::unique_ptr<Planned>> plan_;
  std::map<Place, Lasting> lasting_;
  unsigned lastNumber_ = 0;
};

}  // namespace sim
