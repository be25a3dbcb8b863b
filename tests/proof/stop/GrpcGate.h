// A gate between the module and gRPC, for tests that need a certain moment and not a lucky one.
//
// A program that links the library `grpc_gate` has it in front of gRPC: the module's operations and
// their events pass through it. A GrpcGate waits for one event of one call, keeps the module's loop
// right there, and lets it go on when the stop has cleared its flag and set the alarm that wakes
// the loop. From that event on no other reaches the loop but this wake-up; what comes meanwhile
// waits, and comes out of the flush. So it is certain where the loop stands when the stop begins,
// and by what event it ends, while messages arrive as fast as they can.
//
// Threads: the constructor and the destructor run while no module does; everything else is for any
// thread. There can be one gate at a time, and one module behind it.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace proof {

// What an event completes: the four operations of a stream's attempt, or a whole unary call.
enum class Step { Start, Read, Finish, Retry, Unary };

// Where the loop is when the stop begins.
enum class Moment {
  Never,     // anywhere: nothing is kept
  Pending,   // waiting: the operation has been started and its event has not come to the loop
  Taken,     // the loop has its event in hand, and has not yet looked whether it shall stop
  HandedOn,  // the loop has looked; the event's work is about to begin
  Raised,    // nowhere: an exception out of this event has ended it
  Passing,   // anywhere; `within` is called right before the event's work, on the loop's thread
};

struct GatePlan {
  std::string method = {};  // the last part of its name, such as "GetMetersFast"
  Step step = Step::Start;
  Moment moment = Moment::Never;
  int nth = 1;                      // which of the events that fit, from 1
  std::optional<bool> ok = {};      // fits only such
  std::optional<bool> handAs = {};  // what the loop gets told, whatever gRPC says
  std::function<void()> within = {};
  // Retry alarms come after this time instead of their own; keepalive comes so many times sooner.
  std::optional<std::chrono::milliseconds> retryAfter = {};
  int keepaliveDivisor = 1;
};

// What the module holds of gRPC, and what it has asked for, in the whole process. A payload is one
// context.
struct GrpcUse {
  int contexts = 0;             // alive
  int alarms = 0;               // alive
  int cancels = 0;              // calls that were told to end, so far
  bool waitedForReady = false;  // whether a call was ever told to wait for its server
};
GrpcUse grpcUse();

class GrpcGate {
 public:
  explicit GrpcGate(GatePlan plan = {});
  ~GrpcGate();
  GrpcGate(const GrpcGate&) = delete;
  GrpcGate& operator=(const GrpcGate&) = delete;

  // Returns when the loop is where the plan wants it. Throws std::runtime_error when `patience`
  // ends, which is generous by intent.
  void awaitReached();

  // Returns when so many events of that kind have come to the gate. Throws likewise.
  void awaitEvents(const std::string& method, Step step, int count);

  // How many operations of that kind have been started so far; the other returns when it is so
  // many.
  int startedCount(const std::string& method, Step step) const;
  void awaitStarted(const std::string& method, Step step, int count);

  // A retry alarm that was set: when the module wanted it to come, and when it was told to.
  struct RetryAlarm {
    std::chrono::system_clock::time_point wanted;
    std::chrono::system_clock::time_point set;
    std::chrono::system_clock::time_point at;  // when that was
  };
  std::vector<RetryAlarm> retryAlarms() const;

  struct State;

 private:
  std::unique_ptr<State> state_;
};

// While it lives, std::thread::join raises std::system_error with this text.
class JoinFault {
 public:
  JoinFault();
  ~JoinFault();
  JoinFault(const JoinFault&) = delete;
  JoinFault& operator=(const JoinFault&) = delete;

  static constexpr const char* text = "no join";
};

// While it lives, the wall clock can be moved, as the module and gRPC see it. What waits in gRPC
// for a time on the wall clock goes on when the moved clock shows it, as where the system's clock
// was moved. Made before the module is started.
class MovedClock {
 public:
  MovedClock();
  ~MovedClock();
  MovedClock(const MovedClock&) = delete;
  MovedClock& operator=(const MovedClock&) = delete;

  void step(std::chrono::seconds forward);
};

}  // namespace proof
