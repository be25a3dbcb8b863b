// The example servers, run as their users run them, with the example configuration.
#include <cstring>
#include <fstream>
#include <iterator>

#include "tests/module/grpc-gateway/flows/FlowTest.h"
#include "tests/proof/Proof.h"
#include "tests/proof/peers/Peers.h"

namespace {

using standin::SlotSet;
using standin::SlotValue;

struct Example {
  const char* name;
  const char* library;
  const char* program;
};

class ExampleServer : public GatewayTest, public ::testing::WithParamInterface<Example> {
 protected:
  static std::string replaced(std::string text, const std::string& what, const std::string& by) {
    const auto at = text.find(what);
    if (at == text.npos) throw std::runtime_error("the example configuration has no " + what);
    return text.replace(at, what.size(), by);
  }

  // The example configuration with the addresses at which the server listens.
  static std::string configuration(ToolProcess& server) {
    std::ifstream file(EXAMPLES_FOLDER "/grpc-gateway.conf");
    std::string text{std::istreambuf_iterator<char>(file), {}};
    for (const auto& [service, target] :
         {std::pair("meters ", "localhost:50005"), std::pair("engine ", "localhost:50006")}) {
      text = replaced(text, target, server.waitLine(service).substr(std::strlen(service)));
    }
    return text;
  }
};

INSTANTIATE_TEST_SUITE_P(
    Of, ExampleServer,
    ::testing::Values(Example{"Cpp", "grpc++", EXAMPLE_SERVER},
                      Example{"Node", "grpc-js", EXAMPLES_FOLDER "/servers/node/server.js"},
                      Example{"Python", "grpcio", EXAMPLES_FOLDER "/servers/python/server.py"}),
    [](const auto& instantiation) { return instantiation.param.name; });

TEST_P(ExampleServer, MovesAllSlotsAndPrintsTheParameters) {
  ToolProcess server({"--meters", SimProcess::anyPort, "--engine", SimProcess::anyPort},
                     GetParam().program);
  ASSERT_EQ(start(configuration(server)), 0);

  // The host only sees that texts are written: each slow message makes it check again.
  const auto read = [&](SlotSet set, const char* name) { return instance.slot(set, name).read(); };
  EXPECT_TRUE(host.waitUntil([&] {
    return read(SlotSet::Slow, "dsp_state") == SlotValue("running") &&
           read(SlotSet::Slow, "queue_length") != SlotValue(0) &&
           read(SlotSet::Fast, "out_level") != SlotValue(-60.5f) &&
           read(SlotSet::Fast, "gateway_float_1") != SlotValue(0.0f) &&
           read(SlotSet::Fast, "frames") != SlotValue(0u);
  }));
  const SlotValue frames = read(SlotSet::Fast, "frames");
  EXPECT_TRUE(host.waitUntil([&] { return read(SlotSet::Fast, "frames") != frames; }));

  instance.set({{instance.slot(SlotSet::Engine, "out_gain"), -6.5f},
                {instance.slot(SlotSet::Engine, "preset"), std::string("gro\u00dfer Saal")}});
  EXPECT_EQ(server.waitLine("SetParams "), "SetParams out.gain sfloat -6.5");
  EXPECT_EQ(server.waitLine("SetParams "), "SetParams preset sstring gro\u00dfer Saal");
  instance.stop();
  expectNothingLeft();
  proof::report({peers::heading,
                 "the example servers",
                 GetParam().library,
                 {{"runs of the example configuration", 1}},
                 "all slots move, and both parameters are printed"});
}

// Recommended checks, too: authors of servers begin with a copy.
TEST_P(ExampleServer, PassesEveryCheckOfTheProbe) {
  ToolProcess server({"--meters", SimProcess::anyPort, "--engine", SimProcess::anyPort},
                     GetParam().program);
  const std::string metersTarget = server.waitLine("meters ").substr(7);
  const std::string engineTarget = server.waitLine("engine ").substr(7);
  ToolProcess probe({"probe", metersTarget, "--engine", engineTarget});
  EXPECT_EQ(probe.waitExit(), 0);
  for (const std::string& line : probe.lines()) {
    EXPECT_FALSE(line.starts_with("failed ") || line.starts_with("skipped ")) << line;
  }
  EXPECT_TRUE(probe.lines().back().find("Level 5 of 5 is reached") != std::string::npos)
      << probe.lines().back();
}

}  // namespace
