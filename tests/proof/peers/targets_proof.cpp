// Both flows work with targets in every form that gRPC accepts.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "tests/module/grpc-gateway/flows/FlowTest.h"
#include "tests/proof/Proof.h"
#include "tests/proof/peers/Peers.h"

// The leak sanitizer calls this. Each time c-ares 1.18 looks up the name "localhost" it leaks its
// copy of the name, ten bytes, also without gRPC.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libcares";
}

namespace {

using standin::SlotValue;

bool hasIpv6() {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  const int socket = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  const bool bound = socket >= 0 && bind(socket, generic, sizeof(address)) == 0;
  if (socket >= 0) close(socket);
  return bound;
}

class Targets : public GatewayTest {
 protected:
  // One server that offers the services at separate addresses.
  struct Server {
    Server(const std::string& meters, const std::string& engine)
        : process(meters, engine, peers::python().program) {}
    SimProcess process;
    int opened = 0;
  };

  static std::string portOf(const std::string& target) {
    return target.substr(target.rfind(':') + 1);
  }

  // Starts the module with these targets, and expects a value to arrive and a change to be sent.
  void expectFlows(Server& server, const std::string& metersTarget,
                   const std::string& engineTarget) {
    SCOPED_TRACE(metersTarget);
    ASSERT_EQ(
        start("[Meters]\nTarget=" + metersTarget + "\nEnableSlowMeters=false\n[MetersString]" +
              "\nMeter=Key=s CustomKey=s\n[Engine]\nTarget=" + engineTarget +
              "\n[EngineInt]\nParam=Key=i CustomKey=i\n"),
        0);
    server.process.waitEvent("open fast " + std::to_string(++server.opened) + " ");
    server.process.command("send fast " + Batch().addString("s", metersTarget).hex());
    EXPECT_TRUE(host.waitUntil([&] {
      return instance.slot(standin::SlotSet::Fast, "s").read() == SlotValue(metersTarget);
    }));
    standin::KeyValueList changes;
    changes.addInt("gateway.i", server.opened);
    engine.notify(&changes);
    const std::string number = std::to_string(server.opened);
    EXPECT_EQ(server.process.waitEvent("SetParams " + number + " "),
              "SetParams " + number + " " + Request().addInt("i", server.opened).hex() +
                  " deadline=none");
    server.process.waitEvent("closed SetParams " + number + " ");
    instance.stop();
    expectNothingLeft();
    tried_.push_back(shown(metersTarget));
  }

  std::string relativeFolder() const {
    return std::filesystem::relative(files.path("")).string() + "/";
  }

  void report(const std::string& what) {
    std::string forms = what + ":";
    for (const std::string& form : tried_) forms += " " + form;
    report(forms, tried_.size(), "meters arrive, and parameters are sent");
  }
  static void report(const std::string& what, std::uint64_t forms, const std::string& held) {
    proof::report({peers::heading, "targets", what, {{"forms", forms}}, held});
  }

 private:
  // The target without the parts that differ between runs.
  std::string shown(std::string target) const {
    for (const std::string& place : {files.path(""), relativeFolder()}) {
      const auto at = target.find(place);
      if (at != target.npos) target.replace(at, place.size(), place.front() == '/' ? "/" : "");
    }
    if (target.starts_with("unix-abstract:")) return "unix-abstract:NAME";
    if (target.starts_with("unix:")) return target;
    return std::regex_replace(target, std::regex(":[0-9]+(,|$)"), ":PORT$1");
  }

  std::vector<std::string> tried_;
};

TEST_F(Targets, MayBeNamesAndIpv4Addresses) {
  Server server(SimProcess::anyPort, SimProcess::anyPort);
  const std::string metersPort = portOf(server.process.metersTarget());
  const std::string enginePort = portOf(server.process.engineTarget());
  for (const char* before : {"127.0.0.1:", "localhost:", "dns:localhost:", "dns:///localhost:",
                             "dns:127.0.0.1:", "dns:///127.0.0.1:", "ipv4:127.0.0.1:"}) {
    expectFlows(server, before + metersPort, before + enginePort);
  }
  // Of several addresses, the first to answer is used.
  const std::string unused = unusedTarget() + ",127.0.0.1:";
  expectFlows(server, "ipv4:" + unused + metersPort, "ipv4:" + unused + enginePort);
  report("name and IPv4");
}

TEST_F(Targets, MayBeIpv6Addresses) {
  if (!hasIpv6()) {
    report("IPv6", 0, "not tried, since this machine has no IPv6");
    return;
  }
  Server server("[::1]:0", "[::1]:0");
  const std::string metersPort = portOf(server.process.metersTarget());
  const std::string enginePort = portOf(server.process.engineTarget());
  for (const char* before :
       {"[::1]:", "dns:[::1]:", "dns:///[::1]:", "ipv6:[::1]:", "ipv6:%5B::1%5D:"}) {
    expectFlows(server, before + metersPort, before + enginePort);
  }
  report("IPv6");
}

TEST_F(Targets, MayBeSocketsInTheFileSystem) {
  const std::string metersPath = files.path("meters.socket");
  const std::string enginePath = files.path("engine.socket");
  Server server("unix:" + metersPath, "unix:" + enginePath);
  for (const char* before : {"unix:", "unix://"})
    expectFlows(server, before + metersPath, before + enginePath);
  expectFlows(server, "unix:" + relativeFolder() + "meters.socket",
              "unix:" + relativeFolder() + "engine.socket");
  report("path");
}

TEST_F(Targets, MayBeAbstractSockets) {
  const std::string name = "unix-abstract:gateway-" + std::to_string(getpid());
  Server server(name + "-meters", name + "-engine");
  expectFlows(server, name + "-meters", name + "-engine");
  report("abstract name");
}

}  // namespace
