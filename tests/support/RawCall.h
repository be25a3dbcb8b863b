// A gRPC call of any method with any bytes, one step at a time, which generated stubs don't offer.
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

// A channel with a connection of its own, for messages of any size.
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

  // The next message, or nothing at the end of the call. Like all members that wait, it throws
  // std::runtime_error when patience runs out.
  std::optional<std::string> read();

  grpc::StatusCode finish();

  // All messages up to the end of the call.
  std::vector<std::string> readAll();

  void cancel() { context_.TryCancel(); }

 private:
  bool step();

  grpc::GenericStub stub_;
  grpc::CompletionQueue queue_;
  grpc::ClientContext context_;
  std::unique_ptr<grpc::GenericClientAsyncReaderWriter> call_;
};

// How a call ended, and what it brought.
struct Reply {
  grpc::StatusCode code;
  std::vector<std::string> messages;

  bool operator==(const Reply&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Reply& reply);

Reply replyTo(RawCall& call);

Reply setParams(const std::string& target, const std::string& request = "");
