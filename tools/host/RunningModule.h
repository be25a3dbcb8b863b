// A module that runs in the stand-in host, with all that a person can see of it and ask of it.
//
// Threads: made, sampled and destroyed by one thread; all else is for any thread.
// Ownership: owns the host, the engine, the module and the one instance. There can be one at a
// time, since a process has one host.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "standin/Engine.h"
#include "standin/Host.h"
#include "standin/LoadedModule.h"
#include "tools/host/SlotBoard.h"

namespace host {

// The module does not take the configuration; its own log lines tell why.
struct Refused : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// What was started, and from what.
struct Setup {
  std::string config;  // path of the configuration file
  std::string module;  // path of the module's file
  std::string name;    // of the instance, at most 31 bytes
};

// A parameter change as people write it. A value is read by the type of its slot.
struct Change {
  std::string name;  // of an engine slot
  std::string value;

  bool operator==(const Change&) const = default;
};

// Changes that were told to the module together.
struct Notification {
  unsigned number = 0;  // rises from 1
  std::chrono::system_clock::time_point time;
  std::vector<Change> changes;  // values as they were stored
};

// What a module has done wrong towards its host by the time it is stopped.
struct Leftovers {
  standin::Outstanding notReturned;
  std::vector<std::string> violations;  // of the boundary's rules, a sentence each

  bool isClean() const { return notReturned == standin::Outstanding{} && violations.empty(); }
};

class RunningModule {
 public:
  static constexpr std::size_t notificationsKept = 100;

  // Loads and starts the module; `logSink` hears its lines, on the threads that log, one at a time.
  // Throws Refused, std::runtime_error if the file can't be loaded, std::invalid_argument for a
  // name that is too long.
  RunningModule(const Setup& setup, std::function<void(const standin::LogLine&)> logSink);
  // Stops the module, if that was not done before.
  ~RunningModule();
  RunningModule(const RunningModule&) = delete;
  RunningModule& operator=(const RunningModule&) = delete;

  // Stops the module and tells what it leaves behind. Nothing but the destructor may be called
  // afterwards.
  Leftovers stop();

  const Setup& setup() const { return setup_; }
  // gRPC targets of the configuration; empty for a side that is switched off.
  const std::string& metersTarget() const { return metersTarget_; }
  const std::string& engineTarget() const { return engineTarget_; }
  std::chrono::system_clock::time_point startTime() const { return startTime_; }

  const SlotBoard& board() const { return *board_; }
  // Looks at all slots. By the thread that made this.
  void sample();

  // Stores the values in engine slots of these names and tells the module of all of them in one
  // notification, on this thread. Of several slots with one name the first is meant. Throws
  // std::invalid_argument, with what would be right, and then nothing is changed.
  Notification set(const std::vector<Change>& changes);

  // Those with a number above `number`, oldest first, as far as they are kept.
  std::vector<Notification> notificationsAfter(unsigned number) const;
  unsigned notificationCount() const;

 private:
  // Stops an instance instead of deleting it.
  struct Stop {
    void operator()(standin::ModuleInstance* instance) const { instance->stop(); }
  };

  std::pair<standin::Slot, standin::SlotValue> resolve(const Change& change) const;

  const Setup setup_;
  standin::Host host_;
  standin::Engine engine_;
  standin::LoadedModule module_;
  standin::ModuleInstance instance_;
  std::unique_ptr<standin::ModuleInstance, Stop> running_;
  std::string metersTarget_;
  std::string engineTarget_;
  std::chrono::system_clock::time_point startTime_;
  std::vector<standin::Slot> engineSlots_;
  std::optional<SlotBoard> board_;

  mutable std::mutex mutex_;  // of all below, and of the memory of engine texts
  unsigned notificationCount_ = 0;
  std::deque<Notification> notifications_;
};

}  // namespace host
