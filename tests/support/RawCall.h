// A gRPC call of any method, with any bytes, one step at a time: what generated stubs hide.
//
// Threads: one thread at a time.
#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/support/channel_arguments.h>

#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

constexpr auto fastPath = "/sonalith.grpc.Meters/GetMetersFast";
constexpr auto slowPath = "/sonalith.grpc.Meters/GetMetersSlow";
constexpr auto setParamsPath = "/sonalith.grpcengine.Engine/SetParams";

// A connection of its own, for messages of any size.
std::shared_ptr<grpc::Channel> connect(const std::string& target,
                                       grpc::ChannelArguments arguments = {});

class RawCall {
 public:
  using Prepare = std::function<void(grpc::ClientContext&)>;

  RawCall(const std::string& target, const std::string& path, const std::string& request = "",
          const Prepare& prepare = nullptr);
  RawCall(const std::shared_ptr<grpc::Channel>& channel, const std::string& path,
          const std::string& request = "", const Prepare& prepare = nullptr);
  ~RawCall();

  // The next message, or nothing at the end of the call. Throws std::runtime_error when patience
  // ends, as all that waits here.
  std::optional<std::string> read();

  grpc::StatusCode finish();

  // Reads to the end.
  std::vector<std::string> readAll();

  void cancel() { context_.TryCancel(); }

 private:
  bool step();

  grpc::GenericStub stub_;
  grpc::CompletionQueue queue_;
  grpc::ClientContext context_;
  std::unique_ptr<grpc::GenericClientAsyncReaderWriter> call_;
};

// What a unary call came to.
struct Reply {
  grpc::StatusCode code;
  std::vector<std::string> messages;

  bool operator==(const Reply&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Reply& reply);

Reply replyTo(RawCall& call);

Reply setParams(const std::string& target, const std::string& request = "");
