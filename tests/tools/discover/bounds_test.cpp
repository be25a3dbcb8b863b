// What gatewayctl discover keeps of a server that sends without end.
#include <grpc/grpc.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "sanitizers/ReactionOrder.h"
#include "tests/support/SimProcess.h"

#if defined(__SANITIZE_ADDRESS__)
#define GATEWAY_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define GATEWAY_ADDRESS_SANITIZER 1
#endif
#endif

namespace {

constexpr std::size_t sliceSize = 1 << 20;

// Answers each call with one message of zeros. However long it is, it takes only 1 MiB of memory.
class LongMessageServer final : public grpc::CallbackGenericService {
 public:
  explicit LongMessageServer(std::size_t mebibytes)
      : slices_(mebibytes, grpc::Slice(std::string(sliceSize, '\0'))),
        message_(slices_.data(), slices_.size()) {
    // Without grpc_shutdown, which can wait ten seconds for one of gRPC's threads.
    grpc_init();
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port_);
    builder.RegisterCallbackGenericService(this);
    server_ = builder.BuildAndStart();
  }
  ~LongMessageServer() override { server_->Shutdown(std::chrono::system_clock::now()); }
  LongMessageServer(const LongMessageServer&) = delete;
  LongMessageServer& operator=(const LongMessageServer&) = delete;

  std::string target() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  class Reaction final : public grpc::ServerGenericBidiReactor {
   public:
    explicit Reaction(const grpc::ByteBuffer& message) { StartWrite(&message); }
    void OnWriteDone(bool) override {
      const ReactionOrder order(this);
      Finish(grpc::Status::OK);
    }
    void OnDone() override { delete this; }
  };

  grpc::ServerGenericBidiReactor* CreateReactor(grpc::GenericCallbackServerContext*) override {
    return new Reaction(message_);
  }

  const std::vector<grpc::Slice> slices_;
  const grpc::ByteBuffer message_;
  int port_ = 0;
  std::unique_ptr<grpc::Server> server_;
};

struct Outcome {
  int code;
  std::string errors;
};

Outcome discover(const std::string& target) {
  ToolProcess tool({"discover", target, "--for", "3600"});
  const int code = tool.waitExit();
  return {code, tool.errors()};
}

TEST(DiscoverBounds, AHugeMessageEndsTheStreams) {
  const LongMessageServer server(600);
  const Outcome outcome = discover(server.target());
  EXPECT_EQ(outcome.code, 1);
  for (const char* const rate : {"fast", "slow"}) {
    const std::string said =
        "gatewayctl discover: the server sent more than the 67108864 bytes that this tool receives "
        "at once, which ended the " +
        std::string(rate) +
        " stream after 0 messages: RESOURCE_EXHAUSTED \"Buffers full\". gRPC clients accept "
        "messages of 4194304 bytes at most. Make the server send shorter messages.\n";
    EXPECT_NE(outcome.errors.find(said), std::string::npos) << outcome.errors;
  }
// The sanitizers' own memory would count, too.
#if !defined(GATEWAY_ADDRESS_SANITIZER) && !defined(GATEWAY_THREAD_SANITIZER)
  rusage used{};
  ASSERT_EQ(getrusage(RUSAGE_CHILDREN, &used), 0);
  EXPECT_LT(used.ru_maxrss, 250 * 1024);
#endif
}

TEST(DiscoverBounds, ALongMessageIsReportedWithItsSize) {
  const LongMessageServer server(9);
  const Outcome outcome = discover(server.target());
  EXPECT_EQ(outcome.code, 1);
  const std::string said =
      "gatewayctl discover: a message that was too long ended the fast stream after 0 messages: "
      "RESOURCE_EXHAUSTED \"Received message larger than max (9437184 vs. 8388608)\". gRPC clients "
      "accept 4194304 bytes at most, and this tool receives no more than 8388608. Make the server "
      "send shorter messages.\n";
  EXPECT_NE(outcome.errors.find(said), std::string::npos) << outcome.errors;
}

}  // namespace
