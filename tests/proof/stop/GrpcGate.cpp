#include "tests/proof/stop/GrpcGate.h"

#include <dlfcn.h>
#include <grpc/grpc.h>
#include <grpcpp/alarm.h>
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/support/channel_arguments.h>
#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "module/grpc-gateway/AsyncEventPayload.h"
#include "sanitizers/ReactionOrder.h"

namespace proof {
namespace {

using std::chrono::nanoseconds;
using std::chrono::system_clock;
using Status = grpc::CompletionQueue::NextStatus;

// Keeps a broken run from hanging.
constexpr std::chrono::seconds patience{60};

std::atomic<int> contexts{0};
std::atomic<int> alarms{0};
std::atomic<int> cancels{0};
std::atomic<bool> waitedForReady{false};
std::atomic<bool> joinFails{false};
std::atomic<bool> clockMoves{false};
std::atomic<std::int64_t> wallClockStep{0};  // nanoseconds
std::atomic<GrpcGate::State*> current{nullptr};

// Whether this thread sees the system's wall clock instead of the moved one.
thread_local bool seesSystemClock = false;

// The core's tag of the last event that this thread has taken.
thread_local const void* lastCoreTag = nullptr;

// A step of a method, as in GatePlan.
struct Operation {
  std::string method;
  Step step;
  auto operator<=>(const Operation&) const = default;
};

struct Event {
  Operation operation;
  void* tag;
  bool ok;

  bool isWakeUp() const { return tag == nullptr; }
};

// A stream starts, reads and finishes in separate batches; a unary call is one batch.
Step stepOf(const grpc_op* ops, std::size_t count) {
  std::set<grpc_op_type> types;
  for (std::size_t i = 0; i < count; ++i) types.insert(ops[i].op);
  const bool starts = types.contains(GRPC_OP_SEND_INITIAL_METADATA);
  if (types.contains(GRPC_OP_RECV_STATUS_ON_CLIENT)) return starts ? Step::Unary : Step::Finish;
  return starts ? Step::Start : Step::Read;
}

nanoseconds sinceEpoch(gpr_timespec time) {
  return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

system_clock::time_point timePoint(gpr_timespec time) {
  return system_clock::time_point(
      std::chrono::duration_cast<system_clock::duration>(sinceEpoch(time)));
}

}  // namespace

struct GrpcGate::State {
  explicit State(GatePlan wanted) : plan(std::move(wanted)) {}

  const GatePlan plan;

  std::mutex mutex;  // of everything below
  std::condition_variable changed;
  std::map<const void*, std::string> methodOfHandle;
  std::map<const void*, std::string> methodOfCall;
  std::map<const void*, std::string> methodOfTag;
  std::map<const void*, Operation> started;  // by the core's tag
  std::map<Operation, int> startedCount;
  std::map<Operation, int> comeCount;
  int fitting = 0;       // events that have matched the plan so far
  bool shut = false;     // from now on only its wake-up reaches the loop
  bool atGate = false;   // the loop is waiting for an event
  bool reached = false;  // not used for Pending, for which the loop must return to the gate
  bool wakeUpSet = false;
  std::thread::id stopper;  // the thread that has set the wake-up, and flushes
  std::deque<Event> waiting;
  std::vector<RetryAlarm> retryAlarms;

  bool isReached() const { return plan.moment == Moment::Pending ? shut && atGate : reached; }

  template <class Condition>
  void await(std::unique_lock<std::mutex>& lock, const char* what, Condition condition) {
    if (changed.wait_for(lock, patience, condition)) return;
    throw std::runtime_error(std::string("the gate has waited too long for ") + what);
  }

  void awaitWakeUp() {
    std::unique_lock lock(mutex);
    reached = true;
    changed.notify_all();
    await(lock, "the stop", [this] { return wakeUpSet; });
  }

  // Call this with the lock, before the operation starts, so that its event can't slip through.
  void begins(const Operation& operation) {
    const int nth = ++startedCount[operation];
    const bool fits = operation == Operation{plan.method, plan.step} && nth == plan.nth;
    if (plan.moment == Moment::Pending && fits) shut = true;
    changed.notify_all();
  }

  // Call this with the lock.
  Event eventOf(void* tag, bool ok) {
    if (tag == nullptr) return {{}, tag, ok};
    const auto batch = started.extract(lastCoreTag);
    if (batch.empty()) return {{methodOfTag[tag], Step::Retry}, tag, ok};
    methodOfTag[tag] = batch.mapped().method;
    return {batch.mapped(), tag, ok};
  }

  // Whether this is the event that the plan waits for. Call this with the lock.
  bool fits(const Event& event) {
    const bool such = event.operation == Operation{plan.method, plan.step} &&
                      plan.ok.value_or(event.ok) == event.ok;
    return such && ++fitting == plan.nth;
  }

  Event handOn(Event event);
  bool pass(Event& event);
  Status next(grpc::CompletionQueue* queue, void** tag, bool* ok, gpr_timespec deadline);
};

namespace {

// Takes the place of a payload in the loop, so that the gate gets control after the loop has
// checked its flag.
class Intermediary final : public gateway::AsyncEventPayload {
 public:
  Intermediary(GrpcGate::State& gate, void* tag) : gate_(gate), tag_(tag) { context.reset(); }

  void Proceed(bool ok) override {
    const std::unique_ptr<Intermediary> self(this);
    hold();
    const ReactionOrder order(tag_);
    static_cast<gateway::AsyncEventPayload*>(tag_)->Proceed(ok);
  }

 private:
  void hold() {
    if (gate_.plan.moment == Moment::HandedOn) return gate_.awaitWakeUp();
    if (gate_.plan.within) gate_.plan.within();
    const std::lock_guard lock(gate_.mutex);
    gate_.reached = true;
    gate_.changed.notify_all();
    if (gate_.plan.moment == Moment::Raised) throw std::runtime_error("no more");
  }

  GrpcGate::State& gate_;
  void* tag_;
};

// The function that this library replaces.
template <class Function>
Function* theirs(const char* symbol) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}

}  // namespace

// Turns the event that the plan waits for into the one that the loop gets.
Event GrpcGate::State::handOn(Event event) {
  event.ok = plan.handAs.value_or(event.ok);
  if (plan.moment == Moment::Taken) {
    awaitWakeUp();
  } else {
    event.tag = (new Intermediary(*this, event.tag))->tag();
  }
  return event;
}

// Whether the loop gets this event now.
bool GrpcGate::State::pass(Event& event) {
  std::unique_lock lock(mutex);
  event = eventOf(event.tag, event.ok);
  ++comeCount[event.operation];
  changed.notify_all();
  if (event.isWakeUp()) return true;
  if (shut) {
    waiting.push_back(event);
    return false;
  }
  const bool kept = plan.moment != Moment::Never && plan.moment != Moment::Pending;
  if (!kept || !fits(event)) return true;
  shut = plan.moment != Moment::Passing;
  lock.unlock();
  event = handOn(event);
  return true;
}

// Aligned like member functions, because the lowest bit of a pointer to a member function says
// whether it is virtual.
#define REPLACES(symbol) __asm__(symbol) __attribute__((visibility("default"), aligned(16)))
#define TAKE_EVENT "_ZN4grpc15CompletionQueue17AsyncNextInternalEPPvPb12gpr_timespec"
#define SET_ALARM "_ZN4grpc5Alarm11SetInternalEPNS_15CompletionQueueE12gpr_timespecPv"
#define MAKE_ALARM "_ZN4grpc5AlarmC1Ev"
#define DESTROY_ALARM "_ZN4grpc5AlarmD1Ev"
#define MAKE_CONTEXT "_ZN4grpc13ClientContextC1Ev"
#define DESTROY_CONTEXT "_ZN4grpc13ClientContextD1Ev"
#define TRY_CANCEL "_ZN4grpc13ClientContext9TryCancelEv"
#define SET_INT                                                                      \
  "_ZN4grpc16ChannelArguments6SetIntERKNSt7__cxx1112basic_stringIcSt11char_traitsIc" \
  "ESaIcEEEi"
#define JOIN "_ZNSt6thread4joinEv"
#define WALL_CLOCK "_ZNSt6chrono3_V212system_clock3nowEv"

extern "C" {
Status takeEvent(grpc::CompletionQueue* queue, void** tag, bool* ok, gpr_timespec deadline)
    REPLACES(TAKE_EVENT);
void setAlarm(grpc::Alarm* alarm, grpc::CompletionQueue* queue, gpr_timespec deadline, void* tag)
    REPLACES(SET_ALARM);
void makeAlarm(grpc::Alarm* alarm) REPLACES(MAKE_ALARM);
void destroyAlarm(grpc::Alarm* alarm) REPLACES(DESTROY_ALARM);
void makeContext(grpc::ClientContext* context) REPLACES(MAKE_CONTEXT);
void destroyContext(grpc::ClientContext* context) REPLACES(DESTROY_CONTEXT);
void tryCancel(grpc::ClientContext* context) REPLACES(TRY_CANCEL);
void setInt(grpc::ChannelArguments* arguments, const std::string& key, int value) REPLACES(SET_INT);
void join(std::thread* thread) REPLACES(JOIN);
system_clock::time_point wallClock() REPLACES(WALL_CLOCK);

grpc_event takeCoreEvent(grpc_completion_queue* queue, gpr_timespec deadline, void* reserved)
    REPLACES("grpc_completion_queue_next");
grpc_call_error startBatch(grpc_call* call, const grpc_op* ops, size_t count, void* tag,
                           void* reserved) REPLACES("grpc_call_start_batch");
void* registerCall(grpc_channel* channel, const char* method, const char* host, void* reserved)
    REPLACES("grpc_channel_register_call");
grpc_call* createCall(grpc_channel* channel, grpc_call* parent, uint32_t mask,
                      grpc_completion_queue* queue, void* handle, gpr_timespec deadline,
                      void* reserved) REPLACES("grpc_channel_create_registered_call");
gpr_timespec grpcNow(gpr_clock_type clock) REPLACES("gpr_now");
int waitInGrpc(gpr_cv* condition, gpr_mu* mutex, gpr_timespec deadline) REPLACES("gpr_cv_wait");
}

// ---- Events -------------------------------------------------------------------------------------

Status takeEvent(grpc::CompletionQueue* queue, void** tag, bool* ok, gpr_timespec deadline) {
  static auto* const real = theirs<decltype(takeEvent)>(TAKE_EVENT);
  GrpcGate::State* const gate = current;
  return gate == nullptr ? real(queue, tag, ok, deadline) : gate->next(queue, tag, ok, deadline);
}

Status GrpcGate::State::next(grpc::CompletionQueue* queue, void** tag, bool* ok,
                             gpr_timespec deadline) {
  static auto* const real = theirs<decltype(takeEvent)>(TAKE_EVENT);
  for (;;) {
    {
      const std::lock_guard lock(mutex);
      const bool flushes = std::this_thread::get_id() == stopper;
      if (flushes && !waiting.empty()) {
        std::tie(*tag, *ok) = std::pair(waiting.front().tag, waiting.front().ok);
        waiting.pop_front();
        return Status::GOT_EVENT;
      }
      if (flushes) break;
      atGate = true;
      changed.notify_all();
    }
    Status status = real(queue, tag, ok, deadline);
    if (status != Status::GOT_EVENT) return status;
    Event event{{}, *tag, *ok};
    if (!pass(event)) continue;
    std::tie(*tag, *ok) = std::pair(event.tag, event.ok);
    const std::lock_guard lock(mutex);
    atGate = false;
    return status;
  }
  return real(queue, tag, ok, deadline);
}

grpc_event takeCoreEvent(grpc_completion_queue* queue, gpr_timespec deadline, void* reserved) {
  static auto* const real = theirs<decltype(takeCoreEvent)>("grpc_completion_queue_next");
  const grpc_event event = real(queue, deadline, reserved);
  lastCoreTag = event.tag;
  return event;
}

// ---- Operations ---------------------------------------------------------------------------------

void* registerCall(grpc_channel* channel, const char* method, const char* host, void* reserved) {
  static auto* const real = theirs<decltype(registerCall)>("grpc_channel_register_call");
  void* const handle = real(channel, method, host, reserved);
  const std::string_view path = method;
  if (GrpcGate::State* const gate = current; gate != nullptr) {
    const std::lock_guard lock(gate->mutex);
    gate->methodOfHandle[handle] = path.substr(path.rfind('/') + 1);
  }
  return handle;
}

grpc_call* createCall(grpc_channel* channel, grpc_call* parent, uint32_t mask,
                      grpc_completion_queue* queue, void* handle, gpr_timespec deadline,
                      void* reserved) {
  static auto* const real = theirs<decltype(createCall)>("grpc_channel_create_registered_call");
  grpc_call* const call = real(channel, parent, mask, queue, handle, deadline, reserved);
  if (GrpcGate::State* const gate = current; gate != nullptr) {
    const std::lock_guard lock(gate->mutex);
    gate->methodOfCall[call] = gate->methodOfHandle[handle];
  }
  return call;
}

grpc_call_error startBatch(grpc_call* call, const grpc_op* ops, size_t count, void* tag,
                           void* reserved) {
  static auto* const real = theirs<decltype(startBatch)>("grpc_call_start_batch");
  for (size_t i = 0; i < count; ++i) {
    const bool opens = ops[i].op == GRPC_OP_SEND_INITIAL_METADATA;
    if (opens && (ops[i].flags & GRPC_INITIAL_METADATA_WAIT_FOR_READY) != 0) waitedForReady = true;
  }
  if (GrpcGate::State* const gate = current; gate != nullptr) {
    const std::lock_guard lock(gate->mutex);
    const Operation operation{gate->methodOfCall[call], stepOf(ops, count)};
    gate->started[tag] = operation;
    gate->begins(operation);
  }
  return real(call, ops, count, tag, reserved);
}

// The stop clears its flag before it sets the wake-up, so the loop sees the flag from then on.
void setAlarm(grpc::Alarm* alarm, grpc::CompletionQueue* queue, gpr_timespec deadline, void* tag) {
  static auto* const real = theirs<decltype(setAlarm)>(SET_ALARM);
  GrpcGate::State* const gate = current;
  if (gate == nullptr) return real(alarm, queue, deadline, tag);
  if (tag != nullptr) {
    const std::lock_guard lock(gate->mutex);
    const auto now = system_clock::now();
    const auto wanted = timePoint(deadline);
    if (const auto after = gate->plan.retryAfter; after) {
      grpc::Timepoint2Timespec(now + *after, &deadline);
    }
    gate->retryAlarms.push_back({wanted, timePoint(deadline), now});
    gate->begins({gate->methodOfTag[tag], Step::Retry});
  }
  real(alarm, queue, deadline, tag);
  if (tag != nullptr) return;
  const std::lock_guard lock(gate->mutex);
  gate->wakeUpSet = true;
  gate->stopper = std::this_thread::get_id();
  gate->changed.notify_all();
}

void tryCancel(grpc::ClientContext* context) {
  static auto* const real = theirs<decltype(tryCancel)>(TRY_CANCEL);
  ++cancels;
  real(context);
}

void setInt(grpc::ChannelArguments* arguments, const std::string& key, int value) {
  static auto* const real = theirs<decltype(setInt)>(SET_INT);
  GrpcGate::State* const gate = current;
  const bool isTime = key == "grpc.keepalive_time_ms" || key == "grpc.keepalive_timeout_ms";
  real(arguments, key, gate != nullptr && isTime ? value / gate->plan.keepaliveDivisor : value);
}

// ---- Objects in use -----------------------------------------------------------------------------

void makeAlarm(grpc::Alarm* alarm) {
  static auto* const real = theirs<decltype(makeAlarm)>(MAKE_ALARM);
  ++alarms;
  real(alarm);
}

void destroyAlarm(grpc::Alarm* alarm) {
  static auto* const real = theirs<decltype(destroyAlarm)>(DESTROY_ALARM);
  --alarms;
  real(alarm);
}

void makeContext(grpc::ClientContext* context) {
  static auto* const real = theirs<decltype(makeContext)>(MAKE_CONTEXT);
  ++contexts;
  real(context);
}

void destroyContext(grpc::ClientContext* context) {
  static auto* const real = theirs<decltype(destroyContext)>(DESTROY_CONTEXT);
  --contexts;
  real(context);
}

GrpcUse grpcUse() {
  return {contexts, alarms, cancels, waitedForReady};
}

// ---- Threads and clocks -------------------------------------------------------------------------

void join(std::thread* thread) {
  static auto* const real = theirs<decltype(join)>(JOIN);
  if (joinFails) {
    // The thread has ended, but counts as joinable. If it still ran, it could find the queue
    // destroyed, and end the process in another way than the one that is tested.
    pthread_join(thread->native_handle(), nullptr);
    throw std::system_error(std::make_error_code(std::errc::invalid_argument), JoinFault::text);
  }
  real(thread);
}

system_clock::time_point wallClock() {
  static auto* const real = theirs<decltype(wallClock)>(WALL_CLOCK);
  return real() + std::chrono::duration_cast<system_clock::duration>(nanoseconds(wallClockStep));
}

gpr_timespec grpcNow(gpr_clock_type clock) {
  static auto* const real = theirs<decltype(grpcNow)>("gpr_now");
  const gpr_timespec now = real(clock);
  if (clock != GPR_CLOCK_REALTIME || seesSystemClock) return now;
  return gpr_time_add(now, gpr_time_from_nanos(wallClockStep, GPR_TIMESPAN));
}

// Waits until the wall clock shows the deadline. It does so in small pieces of the system's time,
// to notice a clock that is moved meanwhile.
int waitInGrpc(gpr_cv* condition, gpr_mu* mutex, gpr_timespec deadline) {
  static auto* const real = theirs<decltype(waitInGrpc)>("gpr_cv_wait");
  const gpr_timespec never = gpr_inf_future(deadline.clock_type);
  if (!clockMoves || gpr_time_cmp(deadline, never) == 0) return real(condition, mutex, deadline);
  const gpr_timespec end = gpr_convert_clock_type(deadline, GPR_CLOCK_REALTIME);
  while (gpr_time_cmp(grpcNow(GPR_CLOCK_REALTIME), end) < 0) {
    const gpr_timespec piece = gpr_time_from_millis(10, GPR_TIMESPAN);
    seesSystemClock = true;
    const int late = real(condition, mutex, gpr_time_add(grpcNow(GPR_CLOCK_MONOTONIC), piece));
    seesSystemClock = false;
    if (late == 0) return 0;
  }
  return 1;
}

MovedClock::MovedClock() {
  clockMoves = true;
}

MovedClock::~MovedClock() {
  wallClockStep = 0;
  clockMoves = false;
}

void MovedClock::step(std::chrono::seconds forward) {
  wallClockStep += nanoseconds(forward).count();
}

JoinFault::JoinFault() {
  joinFails = true;
}

JoinFault::~JoinFault() {
  joinFails = false;
}

// ---- The gate -----------------------------------------------------------------------------------

GrpcGate::GrpcGate(GatePlan plan) : state_(std::make_unique<State>(std::move(plan))) {
  State* none = nullptr;
  if (!current.compare_exchange_strong(none, state_.get())) {
    throw std::logic_error("there can be only one gate");
  }
}

GrpcGate::~GrpcGate() {
  current = nullptr;
}

void GrpcGate::awaitReached() {
  std::unique_lock lock(state_->mutex);
  state_->await(lock, "the moment of the plan", [this] { return state_->isReached(); });
}

void GrpcGate::awaitEvents(const std::string& method, Step step, int count) {
  std::unique_lock lock(state_->mutex);
  state_->await(lock, "events", [&] { return state_->comeCount[{method, step}] >= count; });
}

void GrpcGate::awaitStarted(const std::string& method, Step step, int count) {
  std::unique_lock lock(state_->mutex);
  state_->await(lock, "operations", [&] { return state_->startedCount[{method, step}] >= count; });
}

int GrpcGate::startedCount(const std::string& method, Step step) const {
  const std::lock_guard lock(state_->mutex);
  return state_->startedCount[{method, step}];
}

std::vector<GrpcGate::RetryAlarm> GrpcGate::retryAlarms() const {
  const std::lock_guard lock(state_->mutex);
  return state_->retryAlarms;
}

}  // namespace proof
