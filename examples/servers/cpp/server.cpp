// A meter server and an engine service for the gateway: plays the meters of
// examples/grpc-gateway.conf until it is stopped, and prints the parameters that it receives.
//
//   build/example/server --meters 127.0.0.1:50005 --engine 127.0.0.1:50006
#include <getopt.h>
#include <grpcpp/grpcpp.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include "engine.grpc.pb.h"
#include "meters.grpc.pb.h"

namespace {

using sonalith::common::Empty;
using sonalith::grpc::Meter;
using Seconds = std::chrono::duration<double>;

// ---- Meters -------------------------------------------------------------------------------------

auto& added(Meter& meter, const char* key) {
  auto& value = *meter.add_values();
  value.set_key(key);
  return *value.mutable_value();
}

Meter fastValues(double seconds) {
  Meter meter;
  added(meter, "out.level").set_sfloat(static_cast<float>(-30 + 30 * std::sin(seconds)));
  added(meter, "in.level").set_sfloat(static_cast<float>(-30 + 30 * std::sin(2 * seconds)));
  const auto frames = static_cast<std::uint64_t>(seconds * 48000);
  added(meter, "frames").set_suint(static_cast<std::uint32_t>(frames));
  return meter;
}

Meter slowValues(double seconds) {
  Meter meter;
  added(meter, "queue.length").set_sint(static_cast<int>(seconds) % 10);
  added(meter, "dsp state").mutable_sstring()->set_data("running");
  return meter;
}

// Writes all values at once and then every `period`. Write fails when the client has gone, and that
// ends the stream. Each stream occupies one of the server's threads.
grpc::Status play(Seconds period, Meter (*valuesAt)(double), grpc::ServerWriter<Meter>& stream) {
  const auto now = [] { return Seconds(std::chrono::steady_clock::now().time_since_epoch()); };
  while (stream.Write(valuesAt(now().count()))) std::this_thread::sleep_for(period);
  return grpc::Status::OK;
}

class Meters final : public sonalith::grpc::Meters::Service {
  grpc::Status GetMetersFast(grpc::ServerContext*, const Empty*,
                             grpc::ServerWriter<Meter>* stream) override {
    return play(Seconds(0.05), fastValues, *stream);
  }

  grpc::Status GetMetersSlow(grpc::ServerContext*, const Empty*,
                             grpc::ServerWriter<Meter>* stream) override {
    return play(Seconds(1), slowValues, *stream);
  }
};

// ---- Parameters ---------------------------------------------------------------------------------

using sonalith::grpcengine::AnyValue;
using sonalith::grpcengine::RequestSetParams;
using sonalith::grpcengine::ResponseSetParams;

std::ostream& operator<<(std::ostream& out, const AnyValue& value) {
  switch (value.value_case()) {
    case AnyValue::kSfloat:
      return out << "sfloat " << value.sfloat();
    case AnyValue::kSint:
      return out << "sint " << value.sint();
    case AnyValue::kSuint:
      return out << "suint " << value.suint();
    case AnyValue::kSstring:
      return out << "sstring " << value.sstring();
    default:
      return out << "of another type";
  }
}

class Engine final : public sonalith::grpcengine::Engine::Service {
  grpc::Status SetParams(grpc::ServerContext*, const RequestSetParams* request,
                         ResponseSetParams*) override {
    for (const auto& param : request->params()) {
      std::cout << "SetParams " << param.key() << ' ' << param.value() << std::endl;
    }
    return grpc::Status::OK;
  }
};

// ---- Addresses ----------------------------------------------------------------------------------

struct Addresses {
  std::string meters = "127.0.0.1:50005";
  std::string engine = "127.0.0.1:50006";
};

Addresses addressesOf(int argc, char** argv) {
  const option options[] = {
      {"meters", required_argument, nullptr, 'm'}, {"engine", required_argument, nullptr, 'e'}, {}};
  Addresses addresses;
  for (int name; (name = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
    if (name == '?') std::exit(2);
    (name == 'm' ? addresses.meters : addresses.engine) = optarg;
  }
  return addresses;
}

// The address with the actual port: port 0 requests any free one.
std::string taken(const std::string& address, int port) {
  return address.substr(0, address.rfind(':') + 1) + std::to_string(port);
}

}  // namespace

int main(int argc, char** argv) {
  const Addresses addresses = addressesOf(argc, argv);
  Meters meters;
  Engine engine;
  int metersPort = 0;
  int enginePort = 0;
  grpc::ServerBuilder builder;
  // Without this, a second server could silently share the port with a first one.
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  // By default, gRPC disconnects clients that ping a quiet connection again and again.
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, 0);
  builder.AddListeningPort(addresses.meters, grpc::InsecureServerCredentials(), &metersPort);
  builder.AddListeningPort(addresses.engine, grpc::InsecureServerCredentials(), &enginePort);
  builder.RegisterService(&meters);
  builder.RegisterService(&engine);
  const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  if (!server) {
    std::cerr << "can't listen on " << addresses.meters << " and " << addresses.engine << '\n';
    return 1;
  }
  std::cout << "meters " << taken(addresses.meters, metersPort) << "\nengine "
            << taken(addresses.engine, enginePort) << std::endl;
  server->Wait();
}
