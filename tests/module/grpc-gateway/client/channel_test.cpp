// The arguments with which the module creates its channels.
#include <dlfcn.h>
#include <grpcpp/create_channel.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "module/grpc-gateway/gRPCGatewayClient.h"
#include "standin/Host.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace {

// Each channel that was created: its target, and its arguments in order.
std::vector<std::string>& created() {
  static std::vector<std::string> channels;
  return channels;
}

std::string describe(const std::string& target, const grpc::ChannelArguments& arguments) {
  std::string text = target;
  const grpc_channel_args list = arguments.c_channel_args();
  for (std::size_t i = 0; i < list.num_args; ++i) {
    const grpc_arg& argument = list.args[i];
    // gRPC++ adds its own name.
    if (std::string(argument.key) == GRPC_ARG_PRIMARY_USER_AGENT_STRING) continue;
    text.append(" ").append(argument.key).append("=");
    text += argument.type == GRPC_ARG_INTEGER ? std::to_string(argument.value.integer) : "?";
  }
  return text;
}

}  // namespace

// Calls in this program reach this function instead of gRPC's. It records the channel and passes
// the call on.
namespace grpc {

std::shared_ptr<Channel> CreateCustomChannel(const std::string& target,
                                             const std::shared_ptr<ChannelCredentials>& credentials,
                                             const ChannelArguments& arguments) {
  using Create = std::shared_ptr<Channel>(
      const std::string&, const std::shared_ptr<ChannelCredentials>&, const ChannelArguments&);
  constexpr char symbol[] =
      "_ZN4grpc19CreateCustomChannelERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERKSt10"
      "shared_ptrINS_18ChannelCredentialsEERKNS_16ChannelArgumentsE";
  created().push_back(describe(target, arguments));
  return reinterpret_cast<Create*>(dlsym(RTLD_NEXT, symbol))(target, credentials, arguments);
}

}  // namespace grpc

namespace {

TEST(Channels, BothPingEveryTenSecondsEvenWithoutACall) {
  standin::Host host;
  TemporaryFolder files;
  SimProcess servers;
  const std::string path =
      files.write("gateway.conf", "[Meters]\nTarget=" + servers.metersTarget() +
                                      "\n[Engine]\nTarget=" + servers.engineTarget() + "\n");
  { const gateway::gRPCGatewayClient client(std::make_shared<const gateway::ConfigManager>(path)); }
  const std::string arguments =
      " grpc.keepalive_time_ms=10000 grpc.keepalive_timeout_ms=10000"
      " grpc.keepalive_permit_without_calls=1";
  EXPECT_EQ(created(), (std::vector<std::string>{servers.metersTarget() + arguments,
                                                 servers.engineTarget() + arguments}));
}

}  // namespace
