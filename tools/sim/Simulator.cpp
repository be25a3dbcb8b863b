#include "tools/sim/Simulator.h"

#include <fmt/format.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

#include "tools/common/ByteBuffer.h"
#include "tools/common/Output.h"
#include "sanitizers/ReactionOrder.h"

namespace sim {
namespace {

struct MethodNames {
  Method method;
  std::string_view name;
  std::string_view path;
};

constexpr std::array methodNames{
    MethodNames{Method::Fast, "fast", "/sonalith.grpc.Meters/GetMetersFast"},
    MethodNames{Method::Slow, "slow", "/sonalith.grpc.Meters/GetMetersSlow"},
    MethodNames{Method::SetParams, "SetParams", "/sonalith.grpcengine.Engine/SetParams"},
};

std::optional<Method> methodAt(std::string_view path) {
  for (const auto& names : methodNames) {
    if (names.path == path) return names.method;
  }
  return std::nullopt;
}

bool belongsToGrpc(std::string_view key) {
  return key.starts_with(':') || key.starts_with("grpc-") || key == "user-agent" || key == "te" ||
         key == "content-type";
}

std::vector<std::string> customKeys(const grpc::CallbackServerContext& context) {
  std::vector<std::string> keys;
  for (const auto& [name, value] : context.client_metadata()) {
    std::string key(name.data(), name.size());
    if (!belongsToGrpc(key)) keys.push_back(std::move(key));
  }
  // gRPC gives them sorted, once for each value.
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  return keys;
}

class Registry;

// A call as gRPC sees it. It keeps itself alive until gRPC is done with it.
//
// A call is busy from its beginning until its request has been read and told of, and from the start
// of a write until that has been told of. While it is busy only its queue and status change; who
// ends the busy time goes on with them. Thus one write runs at a time, lines come in order, and the
// call is finished once.
class ServedCall final : public Call,
                         public grpc::ServerGenericBidiReactor,
                         public std::enable_shared_from_this<ServedCall> {
 public:
  ServedCall(Registry& registry, Method method, grpc::GenericCallbackServerContext& context)
      : registry_(registry), context_(context) {
    opening_.method = method;
  }

  grpc::ServerGenericBidiReactor* begin();
  void setNumber(unsigned number) { opening_.number = number; }
  // The client sees it cancelled, whatever is queued. Nothing happens to a call that is not open.
  void abort();

  const Opening& opening() const override { return opening_; }
  bool isOpen() const override;
  bool isIdle() const override;
  bool send(std::string message, std::uint64_t times) override;
  bool stop() override;
  bool end(grpc::StatusCode code) override;

  void OnReadDone(bool ok) override;
  void OnWriteDone(bool ok) override;
  void OnCancel() override;
  void OnDone() override;

 private:
  struct Job {
    grpc::ByteBuffer message;
    std::uint64_t times;
    std::uint64_t written = 0;

    bool isDone() const { return written >= times; }
  };

  void fillOpening();
  void settle();
  std::vector<std::uint64_t> takeFinishedJobs();
  void advance();
  void cutJobs();
  void cancel(grpc::Status status);

  Registry& registry_;
  // gRPC's, valid until OnDone, which does not come before finished_ is set.
  grpc::GenericCallbackServerContext& context_;

  // Set before the call is told of, and by gRPC's reactions only.
  Opening opening_;
  grpc::ByteBuffer request_;
  bool announced_ = false;
  std::shared_ptr<ServedCall> self_;

  mutable std::mutex mutex_;  // of all below
  std::deque<Job> jobs_;      // the first is the one being written
  std::optional<grpc::Status> status_;
  bool busy_ = true;
  bool cancelled_ = false;
  bool finished_ = false;
};

// All calls that have been told of and are not over.
class Registry {
 public:
  // Holds back announcements until `start` or `refuseRest`, which the same thread calls.
  explicit Registry(CallListener& listener) : listener_(listener), door_(announcing_) {}

  CallListener& listener() { return listener_; }

  void start() {
    started_ = true;
    door_.unlock();
  }

  // Nothing that has not been told of is told of any more.
  void refuseRest() {
    if (!door_.owns_lock()) door_.lock();
    started_ = false;
    door_.unlock();
  }

  // Numbers the call and tells the listener. False if there is nothing to be told.
  bool announce(ServedCall& call) {
    const std::lock_guard oneAtATime(announcing_);
    if (!started_) return false;
    const auto shared = call.shared_from_this();
    {
      const std::lock_guard lock(mutex_);
      call.setNumber(++counts_[static_cast<std::size_t>(call.opening().method)]);
      calls_.push_back(shared);
    }
    listener_.opened(shared);
    return true;
  }

  void forget(const ServedCall& call) {
    const std::lock_guard lock(mutex_);
    std::erase_if(calls_, [&](const auto& other) { return other.get() == &call; });
    if (calls_.empty()) empty_.notify_all();
  }

  // Returns when all calls are over, or when it has taken too long.
  void waitUntilEmpty(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    empty_.wait_for(lock, limit, [&] { return calls_.empty(); });
  }

  std::vector<std::shared_ptr<ServedCall>> calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  CallListener& listener_;

  std::mutex announcing_;
  std::unique_lock<std::mutex> door_;
  bool started_ = false;  // under announcing_

  std::condition_variable empty_;
  mutable std::mutex mutex_;  // of all below
  std::array<unsigned, methodNames.size()> counts_{};
  std::vector<std::shared_ptr<ServedCall>> calls_;
};

grpc::ServerGenericBidiReactor* ServedCall::begin() {
  {
    const ReactionOrder order(this);
    self_ = shared_from_this();
  }
  StartRead(&request_);
  return this;
}

void ServedCall::abort() {
  const std::lock_guard lock(mutex_);
  if (!status_) context_.TryCancel();
}

bool ServedCall::isOpen() const {
  const std::lock_guard lock(mutex_);
  return !status_;
}

bool ServedCall::isIdle() const {
  const std::lock_guard lock(mutex_);
  return !status_ && jobs_.empty();
}

bool ServedCall::send(std::string message, std::uint64_t times) {
  const grpc::Slice slice(message);
  const std::lock_guard lock(mutex_);
  if (status_) return false;
  jobs_.push_back({grpc::ByteBuffer(&slice, 1), times});
  advance();
  return true;
}

bool ServedCall::stop() {
  const std::lock_guard lock(mutex_);
  if (status_) return false;
  cutJobs();
  return true;
}

bool ServedCall::end(grpc::StatusCode code) {
  const std::lock_guard lock(mutex_);
  if (status_) return false;
  status_ = grpc::Status(code, code == grpc::StatusCode::OK ? "" : "ended by the simulator");
  for (auto& job : jobs_) {
    if (job.times == forever) job.times = job.written;
  }
  advance();
  return true;
}

void ServedCall::OnReadDone(bool ok) {
  const ReactionOrder order(this);
  if (ok) {
    fillOpening();
    announced_ = registry_.announce(*this);
  }
  if (!announced_) {
    const std::lock_guard lock(mutex_);
    cancel({grpc::StatusCode::UNAVAILABLE, "no request, or the simulator is ending"});
  }
  settle();
}

void ServedCall::OnWriteDone(bool ok) {
  const ReactionOrder order(this);
  {
    const std::lock_guard lock(mutex_);
    if (ok) {
      ++jobs_.front().written;
    } else {
      cancel(grpc::Status::CANCELLED);
    }
  }
  settle();
}

void ServedCall::OnCancel() {
  const ReactionOrder order(this);
  const std::lock_guard lock(mutex_);
  if (finished_) return;
  cancel(grpc::Status::CANCELLED);
  advance();
}

void ServedCall::OnDone() {
  std::shared_ptr<ServedCall> self;
  const ReactionOrder order(this);
  self = std::move(self_);
  registry_.forget(*this);
  const ReactionOrder end(&registry_);
  if (announced_) registry_.listener().closed(*this, cancelled_);
}

void ServedCall::fillOpening() {
  opening_.request = tools::bytesOf(request_);
  request_.Clear();
  opening_.hasDeadline = context_.deadline() != std::chrono::system_clock::time_point::max();
  opening_.metadata = customKeys(context_);
  opening_.peer = context_.peer();
}

// Ends a busy time: tells of finished jobs, then goes on. While it tells, more can be finished.
void ServedCall::settle() {
  for (;;) {
    for (const auto count : takeFinishedJobs()) registry_.listener().sent(*this, count);
    const std::lock_guard lock(mutex_);
    if (!jobs_.empty() && jobs_.front().isDone()) continue;
    busy_ = false;
    advance();
    return;
  }
}

std::vector<std::uint64_t> ServedCall::takeFinishedJobs() {
  const std::lock_guard lock(mutex_);
  std::vector<std::uint64_t> counts;
  while (!jobs_.empty() && jobs_.front().isDone()) {
    counts.push_back(jobs_.front().written);
    jobs_.pop_front();
  }
  return counts;
}

// Starts what comes next. The mutex is held.
void ServedCall::advance() {
  if (busy_ || finished_) return;
  if (!jobs_.empty()) {
    busy_ = true;
    StartWrite(&jobs_.front().message);
  } else if (status_) {
    finished_ = true;
    Finish(*status_);
  }
}

// Asks for nothing more to be written. The mutex is held.
void ServedCall::cutJobs() {
  for (auto& job : jobs_) job.times = job.written;
}

// The call is lost, or never was one. The mutex is held.
void ServedCall::cancel(grpc::Status status) {
  cancelled_ = true;
  cutJobs();
  if (!status_) status_ = std::move(status);
}

// One address's answer to calls.
class Service final : public grpc::CallbackGenericService {
 public:
  Service(Registry& registry, bool meters, bool engine)
      : registry_(registry), meters_(meters), engine_(engine) {}

  grpc::ServerGenericBidiReactor* CreateReactor(
      grpc::GenericCallbackServerContext* context) override {
    const auto method = methodAt(context->method());
    if (!method || !serves(*method)) {
      tools::writeError(fmt::format("gatewayctl sim: no method {} here\n", context->method()));
      return CallbackGenericService::CreateReactor(context);
    }
    return std::make_shared<ServedCall>(registry_, *method, *context)->begin();
  }

 private:
  bool serves(Method method) const { return method == Method::SetParams ? engine_ : meters_; }

  Registry& registry_;
  const bool meters_;
  const bool engine_;
};

void setPings(grpc::ServerBuilder& builder, const PingPolicy& pings) {
  if (pings.strikes) {
    builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PING_STRIKES, *pings.strikes);
    return;
  }
  // A server at its defaults takes a client that pings often for an attacker.
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, 0);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
}

std::unique_ptr<grpc::Server> listen(std::string& address, std::string_view option,
                                     Service& service, const PingPolicy& pings) {
  constexpr int unlimited = -1;
  int port = 0;
  grpc::ServerBuilder builder;
  builder.AddListeningPort(address, grpc::InsecureServerCredentials(), &port);
  builder.RegisterCallbackGenericService(&service);
  builder.SetMaxSendMessageSize(unlimited);
  builder.SetMaxReceiveMessageSize(unlimited);
  // Two servers on one port would share the connections between them.
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  setPings(builder, pings);
  auto server = builder.BuildAndStart();
  if (!server || port == 0) {
    throw std::runtime_error(cantListen(address, option));
  }
  address = fmt::format("{}:{}", address.substr(0, address.rfind(':')), port);
  return server;
}

}  // namespace

std::string_view nameOf(Method method) {
  return methodNames[static_cast<std::size_t>(method)].name;
}

std::string cantListen(std::string_view address, std::string_view option) {
  return fmt::format(
      "can't listen on {}: another program has the port, or the address is not one of this "
      "machine. End that program, or choose another address by {} (port 0 takes any free port)",
      address, option);
}

struct Simulator::State {
  State(const Addresses& wanted, CallListener& listener, const PingPolicy& wantedPings)
      : addresses(wanted), pings(wantedPings), registry(listener) {
    try {
      listenOnAll();
    } catch (...) {
      shutDown();
      throw;
    }
  }
  ~State() {
    shutDown();
    const ReactionOrder behindAll(&registry);
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void listenOnAll() {
    const bool shared = addresses.areOne();
    if (!addresses.meters.empty()) {
      servers.push_back(listen(addresses.meters, "--meters", service(true, shared), pings));
    }
    if (shared) {
      addresses.engine = addresses.meters;
    } else if (!addresses.engine.empty()) {
      servers.push_back(listen(addresses.engine, "--engine", service(false, true), pings));
    }
  }

  Service& service(bool meters, bool engine) {
    return services.emplace_back(registry, meters, engine);
  }

  // What is asked to end comes to its end, unless its client does not read. A grace given to the
  // servers instead would be used up: they wait for clients to hang up, too.
  void shutDown() {
    constexpr auto grace = std::chrono::seconds(3);
    registry.refuseRest();
    for (const auto& call : registry.calls()) call->abort();
    registry.waitUntilEmpty(grace);
    for (auto& server : servers) server->Shutdown(std::chrono::system_clock::now());
  }

  Addresses addresses;
  const PingPolicy pings;
  Registry registry;
  std::deque<Service> services;
  std::vector<std::unique_ptr<grpc::Server>> servers;
};

Simulator::Simulator(const Addresses& addresses, CallListener& listener, const PingPolicy& pings)
    : state_(std::make_unique<State>(addresses, listener, pings)) {}

Simulator::~Simulator() = default;

const Addresses& Simulator::addresses() const {
  return state_->addresses;
}

void Simulator::start() {
  state_->registry.start();
}

std::vector<std::shared_ptr<Call>> Simulator::openCalls(Method method) const {
  std::vector<std::shared_ptr<Call>> open;
  for (auto& call : state_->registry.calls()) {
    if (call->opening().method == method && call->isOpen()) open.push_back(std::move(call));
  }
  return open;
}

}  // namespace sim
