// A host that uses gRPC itself, with a queue of its own, and with odd settings of gRPC in its
// environment.
#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>
#include <sys/wait.h>

#include "tests/proof/hosts/HostTest.h"
#include "tests/support/RawCall.h"

namespace proof {
namespace {

using Variables = std::vector<std::pair<const char*, const char*>>;

struct Setting {
  const char* name;  // of the test
  Variables variables;
};

const std::vector<Setting> settings = {
    {"None", {}},
    {"AllTraces", {{"GRPC_VERBOSITY", "debug"}, {"GRPC_TRACE", "all"}}},
    {"Nonsense",
     {{"GRPC_VERBOSITY", "loud"},
      {"GRPC_TRACE", ",,-none,no such tracer"},
      {"GRPC_DNS_RESOLVER", "no such resolver"},
      {"GRPC_EXPERIMENTS", "no such experiment"},
      {"GRPC_CLIENT_CHANNEL_BACKUP_POLL_INTERVAL_MS", "-x"},
      {"GRPC_STACKTRACE_MINLOGLEVEL", "?"}}},
    {"PollInsteadOfEpoll", {{"GRPC_POLL_STRATEGY", "poll"}}},
    {"ForkSupport", {{"GRPC_ENABLE_FORK_SUPPORT", "1"}}},
    {"NoBackupPoller", {{"GRPC_CLIENT_CHANNEL_BACKUP_POLL_INTERVAL_MS", "0"}}},
    {"NativeResolver", {{"GRPC_DNS_RESOLVER", "native"}}},
    {"AbortOnLeaks", {{"GRPC_ABORT_ON_LEAKS", "true"}}},
};

class HostThatUsesGrpc : public HostTest, public ::testing::WithParamInterface<Setting> {
 protected:
  // With the module's arguments, so that gRPC uses one connection for both.
  static std::shared_ptr<grpc::Channel> channelLikeTheModules(const std::string& target) {
    grpc::ChannelArguments arguments;
    arguments.SetInt("grpc.keepalive_time_ms", 10000);
    arguments.SetInt("grpc.keepalive_timeout_ms", 10000);
    arguments.SetInt("grpc.keepalive_permit_without_calls", 1);
    return grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments);
  }

  // A message that the host receives on a stream of its own.
  static void expectMessage(SimProcess& server, RawCall& stream, const std::string& text) {
    server.command("send fast " + toHex(text));
    EXPECT_EQ(stream.read(), text);
  }

  // The host's own calls work before, during and after the module's run, and the module's beside
  // them.
  void useSideBySide(std::uint64_t rounds) {
    SimProcess own;
    RawCall stream(own.metersTarget(), fastPath);
    own.waitEvent("open fast 1 ");
    const auto shared = channelLikeTheModules(servers.engineTarget());
    for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
      startFlowing(entries);
      expectFlow();
      expectMessage(own, stream, "during");
      expectOwnCall(shared);
      {
        RawCall brief(own.metersTarget(), slowPath);
        own.waitEvent("open slow ");
      }
      expectFlow();
      stopFlowing();
      expectMessage(own, stream, "after");
      expectOwnCall(shared);
      servers.forgetEvents();
    }
    own.command("end fast OK");
    EXPECT_EQ(stream.read(), std::nullopt);
    EXPECT_EQ(stream.finish(), grpc::StatusCode::OK);
  }

 private:
  void expectOwnCall(const std::shared_ptr<grpc::Channel>& channel) {
    const std::string request = "\x0a\x06\x0a\x04ours";
    RawCall call(channel, setParamsPath, request);
    EXPECT_EQ(replyTo(call).code, grpc::StatusCode::OK);
    EXPECT_EQ(received(), toHex(request));
  }
};

TEST_P(HostThatUsesGrpc, KeepsItsOwnCallsBesideTheModules) {
  const std::uint64_t rounds = scaled(2, 50);
  expectOwnProcess([&] {
    // The servers already run, without these variables.
    for (const auto& [name, value] : GetParam().variables) setenv(name, value, 1);
    useSideBySide(rounds);
  });
  std::string variables;
  for (const auto& [name, value] : GetParam().variables) {
    variables += std::string(variables.empty() ? "" : ", ") + name + "=" + value;
  }
  report({hostsPart,
          "one that uses gRPC itself, with a queue of its own",
          variables.empty() ? "a usual environment" : variables,
          {{"starts, flows and stops", rounds}},
          "its stream and its calls, also over the module's connection, continue at each stop; the "
          "module's continue when its own end"});
}

INSTANTIATE_TEST_SUITE_P(, HostThatUsesGrpc, ::testing::ValuesIn(settings),
                         [](const auto& setting) { return std::string(setting.param.name); });

}  // namespace
}  // namespace proof
