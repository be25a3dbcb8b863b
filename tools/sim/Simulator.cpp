#include "tools/sim/Simulator.h"

#include <fmt/format.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/health_check_service_interface.h>
#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <chrono>
#include <deque>
#include <stdexcept>
#include <utility>

#include "sanitizers/ReactionOrder.h"
#include "tools/common/Output.h"
#include "tools/sim/Reflection.h"
#include "tools/sim/ServedCall.h"

namespace sim {
namespace {

// The services at one address.
class Service final : public grpc::CallbackGenericService {
 public:
  Service(CallRegistry& registry, bool meters, bool engine)
      : registry_(registry), meters_(meters), engine_(engine), reflection_(names()) {}

  // The services by which clients know them.
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    if (meters_) names.emplace_back("sonalith.grpc.Meters");
    if (engine_) names.emplace_back("sonalith.grpcengine.Engine");
    return names;
  }

  grpc::ServerGenericBidiReactor* CreateReactor(
      grpc::GenericCallbackServerContext* context) override {
    if (Reflection::serves(context->method())) return reflection_.begin();
    const auto method = methodAt(context->method());
    if (!method || !serves(*method)) {
      tools::say("sim", fmt::format("this address does not serve {}", context->method()));
      return CallbackGenericService::CreateReactor(context);
    }
    return std::make_shared<ServedCall>(registry_, *method, *context)->begin();
  }

 private:
  bool serves(Method method) const { return method == Method::SetParams ? engine_ : meters_; }

  CallRegistry& registry_;
  const bool meters_;
  const bool engine_;
  const Reflection reflection_;
};

void setPings(grpc::ServerBuilder& builder, const PingPolicy& pings) {
  if (pings.strikes) {
    builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PING_STRIKES, *pings.strikes);
    return;
  }
  // By default a server treats frequent pings as an attack.
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
  // Otherwise a second server could listen on the same port and take some of the connections.
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  setPings(builder, pings);
  auto server = builder.BuildAndStart();
  if (!server || port == 0) {
    throw std::runtime_error(cantListen(address, option));
  }
  address = fmt::format("{}:{}", address.substr(0, address.rfind(':')), port);
  for (const auto& name : service.names()) {
    server->GetHealthCheckService()->SetServingStatus(name, true);
  }
  return server;
}

}  // namespace

std::string cantListen(std::string_view address, std::string_view option) {
  return fmt::format(
      "can't listen on {}: another program uses the port, or this machine does not have the "
      "address. End that program, or choose another address with {} (port 0 takes any free port)",
      address, option);
}

struct Simulator::State {
  State(const Addresses& wanted, CallListener& listener, const PingPolicy& wantedPings)
      : addresses(wanted), pings(wantedPings), registry(listener) {
    // Applies to all servers that the process makes from here on; only the simulator makes any.
    grpc::EnableDefaultHealthCheckService(true);
    try {
      listenOnAll();
    } catch (...) {
      shutDown();
      throw;
    }
  }
  ~State() {
    shutDown();
    const ReactionOrder afterAll(&registry);
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

  // Waits for ending calls here, because a server's own grace period would always be used up: a
  // server also waits until its clients disconnect.
  void shutDown() {
    constexpr auto grace = std::chrono::seconds(3);
    registry.refuseRest();
    for (const auto& call : registry.calls()) call->abort();
    registry.waitUntilEmpty(grace);
    for (auto& server : servers) server->Shutdown(std::chrono::system_clock::now());
  }

  Addresses addresses;
  const PingPolicy pings;
  CallRegistry registry;
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
