// A gate between the module and gRPC, for tests that must force a certain moment instead of leaving
// it to chance.
//
// In a program that links the library `grpc_gate`, the module's operations and their events pass
// through this gate. A GrpcGate waits for one event of one call, holds the module's loop there, and
// releases it when the stop has cleared its flag and set the alarm that wakes the loop. After the
// awaited event only this wake-up reaches the loop; all other events wait until the flush. This
// fixes where the loop is when the stop begins and which event ends it, even while messages arrive
// as fast as possible.
//
// Threads: construct and destroy a gate while no module runs; everything else is for any thread.
// There can be only one gate at a time, and one module that uses it.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace proof {

// What an event completes: one of the four operations of a stream's attempt, or a unary call.
enum class Step { Start, Read, Finish, Retry, Unary };

// Where the loop is when the stop begins.
enum class Moment {
  Never,     // anywhere: the gate holds nothing
  Pending,   // waiting: the operation has been started, and its event has not reached the loop
  Taken,     // the loop has taken the event and has not checked yet whether it must stop
  HandedOn,  // the loop has checked, and is about to handle the event
  Raised,    // nowhere: an exception thrown while this event was handled has ended the loop
  Passing,   // anywhere; `within` is called on the loop's thread right before the event is handled
};

struct GatePlan {
  std::string method = {};  // the last part of the name, such as "GetMetersFast"
  Step step = Step::Start;
  Moment moment = Moment::Never;
  int nth = 1;                      // which of the matching events, from 1
  std::optional<bool> ok = {};      // only events with this result match
  std::optional<bool> handAs = {};  // the result that the loop sees instead of gRPC's
  std::function<void()> within = {};
  // Retry alarms fire after this time instead of their own; keepalive times are divided.
  std::optional<std::chrono::milliseconds> retryAfter = {};
  int keepaliveDivisor = 1;
};

// The module's use of gRPC, in the whole process. Each payload has one context.
struct GrpcUse {
  int contexts = 0;             // alive
  int alarms = 0;               // alive
  int cancels = 0;              // calls cancelled so far
  bool waitedForReady = false;  // whether any call has asked to wait for its server
};
GrpcUse grpcUse();

class GrpcGate {
 public:
  explicit GrpcGate(GatePlan plan = {});
  ~GrpcGate();
  GrpcGate(const GrpcGate&) = delete;
  GrpcGate& operator=(const GrpcGate&) = delete;

  // Returns when the loop is where the plan wants it. Throws std::runtime_error after a generous
  // time.
  void awaitReached();

  // Returns when `count` events of that kind have reached the gate. Throws likewise.
  void awaitEvents(const std::string& method, Step step, int count);

  // How many operations of that kind have been started so far; and a function that returns when
  // there are `count`, and throws likewise.
  int startedCount(const std::string& method, Step step) const;
  void awaitStarted(const std::string& method, Step step, int count);

  struct RetryAlarm {
    std::chrono::system_clock::time_point wanted;  // the deadline that the module asked for
    std::chrono::system_clock::time_point set;     // the deadline that gRPC was given
    std::chrono::system_clock::time_point at;      // the time of the request
  };
  std::vector<RetryAlarm> retryAlarms() const;

  struct State;

 private:
  std::unique_ptr<State> state_;
};

// While it exists, std::thread::join waits for the thread, and then throws std::system_error with
// this text. The thread stays joinable.
class JoinFault {
 public:
  JoinFault();
  ~JoinFault();
  JoinFault(const JoinFault&) = delete;
  JoinFault& operator=(const JoinFault&) = delete;

  static constexpr const char* text = "no join";
};

// While it exists, the wall clock that the module and gRPC see can be moved. A wait of gRPC for a
// time on the wall clock then ends when the moved clock shows that time, as it would if the
// system's clock were moved. Make it before the module is started.
class MovedClock {
 public:
  MovedClock();
  ~MovedClock();
  MovedClock(const MovedClock&) = delete;
  MovedClock& operator=(const MovedClock&) = delete;

  void step(std::chrono::seconds forward);
};

}  // namespace proof
