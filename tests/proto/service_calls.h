// Records what a stub asks of its channel, and what arrives at a server.
#ifndef TESTS_PROTO_SERVICE_CALLS_H
#define TESTS_PROTO_SERVICE_CALLS_H

#include <grpcpp/channel.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/server.h>
#include <grpcpp/support/stub_options.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

// A channel without a connection. It records the paths that a stub registers. Every call throws a
// CreatedCall before it sends anything.
class RecordingChannel final : public grpc::ChannelInterface {
 public:
  struct CreatedCall {
    std::string method;  // path, kind, and the suffix for statistics, if any
  };

  const std::vector<std::string>& registered() const { return registered_; }

  grpc_connectivity_state GetState(bool tryToConnect) override;

 private:
  grpc::internal::Call CreateCall(const grpc::internal::RpcMethod& method,
                                  grpc::ClientContext* context, grpc::CompletionQueue* cq) override;
  void PerformOpsOnCall(grpc::internal::CallOpSetInterface* ops,
                        grpc::internal::Call* call) override;
  void* RegisterMethod(const char* method) override;
  void NotifyOnStateChangeImpl(grpc_connectivity_state lastObserved, gpr_timespec deadline,
                               grpc::CompletionQueue* cq, void* tag) override;
  bool WaitForStateChangeImpl(grpc_connectivity_state lastObserved, gpr_timespec deadline) override;

  std::vector<std::string> registered_;
};

// Makes a call through a RecordingChannel and returns its method, as in CreatedCall.
template <class Call>
std::string methodOf(Call call) {
  try {
    call();
  } catch (const RecordingChannel::CreatedCall& created) {
    return created.method;
  }
  return "no call";
}

// A server on a free local port that accepts any call. It reads and records one message, and ends
// the call with OK and no answer.
class RecordingServer {
 public:
  RecordingServer();
  ~RecordingServer();
  RecordingServer(const RecordingServer&) = delete;
  RecordingServer& operator=(const RecordingServer&) = delete;

  std::shared_ptr<grpc::Channel> channel() const;

  // The path and message of each call so far, as "/service/Method: 0A 00".
  std::vector<std::string> calls() const;

 private:
  class Service final : public grpc::CallbackGenericService {
   public:
    explicit Service(RecordingServer& server) : server_(server) {}
    grpc::ServerGenericBidiReactor* CreateReactor(
        grpc::GenericCallbackServerContext* context) override;

   private:
    RecordingServer& server_;
  };
  class Reactor;

  void keep(std::string call);

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
  Service service_{*this};
  int port_ = 0;
  std::unique_ptr<grpc::Server> server_;
};

#endif
