// What the simulator says to wrong use, and its manual.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/tools/sim/SimTest.h"

namespace {

std::string lastLineOf(const std::string& text) {
  const auto end = text.find_last_not_of('\n');
  return text.substr(text.rfind('\n', end) + 1, end - text.rfind('\n', end));
}

TEST(Sim, tellsOfABusyPort) {
  SimProcess first;
  const auto& target = first.engineTarget();
  ToolProcess second({"sim", "--meters", "127.0.0.1:0", "--engine", target});
  EXPECT_EQ(second.waitExit(), 1);
  EXPECT_EQ(second.lines(), Lines{});
  EXPECT_EQ(lastLineOf(second.errors()),
            "gatewayctl: can't listen on " + target +
                ": another program has the port, or the address is not one of this machine. End "
                "that program, or choose another address by --engine (port 0 takes any free port)");
}

struct WrongUse {
  std::string name;
  std::vector<std::string> arguments;
  std::string error;
};

class EachWrongUse : public testing::TestWithParam<WrongUse> {};

INSTANTIATE_TEST_SUITE_P(
    , EachWrongUse,
    testing::ValuesIn(std::vector<WrongUse>{
        {"noSubCommand", {}, "A subcommand is required\n"},
        {"unknownOption",
         {"sim", "--speed", "3"},
         "The following arguments were not expected: 3 --speed\n"},
        {"keyWithoutParts",
         {"sim", "--keys", "fast:float"},
         "--keys: \"fast:float\" is not RATE:TYPE:KEY, such as fast:float:out.level\n"},
        {"keyWithoutKey",
         {"sim", "--keys", "fast:float:"},
         "--keys: \"fast:float:\" is not RATE:TYPE:KEY, such as fast:float:out.level\n"},
        {"unknownRate",
         {"sim", "--keys", "fast:float:a", "medium:float:b"},
         "--keys: \"medium\" in \"medium:float:b\" is not a rate: fast or slow\n"},
        {"unknownType",
         {"sim", "--keys", "slow:double:a"},
         "--keys: \"double\" in \"slow:double:a\" is not a type: string, int, uint or float\n"},
        {"addressWithoutPort",
         {"sim", "--meters", "localhost"},
         "--meters: \"localhost\" is not ADDRESS:PORT, such as 127.0.0.1:50005\n"},
        {"portWithoutAddress",
         {"sim", "--engine", ":50006"},
         "--engine: \":50006\" is not ADDRESS:PORT, such as 127.0.0.1:50005\n"},
        {"portTooLarge",
         {"sim", "--engine", "localhost:65536"},
         "--engine: \"localhost:65536\" is not ADDRESS:PORT, such as 127.0.0.1:50005\n"},
        {"rateTooLarge",
         {"sim", "--rate-fast", "10001"},
         "--rate-fast: \"10001\" is not a number from 0 to 10000\n"},
        {"rateNoNumber",
         {"sim", "--rate-slow", "often"},
         "--rate-slow: \"often\" is not a number from 0 to 10000\n"},
        {"rateNan",
         {"sim", "--rate-slow", "nan"},
         "--rate-slow: \"nan\" is not a number from 0 to 10000\n"},
        {"timeNegative",
         {"sim", "--for", "-1"},
         "--for: \"-1\" is not a number from 0 to 1000000000\n"},
        {"noValuesPerMessage",
         {"sim", "--values-per-message", "0"},
         "--values-per-message: \"0\" is not a number from 1 to 1000000000\n"},
        {"noHeartbeat",
         {"sim", "--heartbeat", "0"},
         "--heartbeat: \"0\" is not a number from 0.001 to 1000000\n"},
        {"strikesNoNumber",
         {"sim", "--strict-pings", "never"},
         "--strict-pings: \"never\" is not a number from 0 to 1000000\n"},
        {"commandsAndFaults",
         {"sim", "--commands", "--fault", "at 1: end"},
         "--fault excludes --commands\n"},
        {"commandsAndJson", {"sim", "--commands", "--json"}, "--json excludes --commands\n"},
        {"nothingToServe",
         {"sim", "--meters", "", "--engine", ""},
         "sim: nothing to serve: give --meters or --engine an address\n"},
        {"commandsAndKeys",
         {"sim", "--commands", "--keys", "fast:float:a"},
         "--keys excludes --commands\n"},
    }),
    [](const auto& test) { return test.param.name; });

TEST_P(EachWrongUse, isToldOfAndGivesTwo) {
  ToolProcess tool(GetParam().arguments);
  EXPECT_EQ(tool.waitExit(), 2);
  EXPECT_EQ(tool.errors(), GetParam().error + "Run with --help for more information.\n");
  EXPECT_EQ(tool.lines(), Lines{});
}

TEST(Sim, helpHasAnExampleToPaste) {
  ToolProcess help({"sim", "--help"});
  EXPECT_EQ(help.waitExit(), 0);
  EXPECT_TRUE(
      help.hasLine("  gatewayctl sim --keys fast:float:out.level \"slow:string:dsp state\""));
}

// The calls are told of on gRPC's threads.
TEST(Sim, servesOnWhenNothingCanBeWritten) {
  const auto target = unusedTarget();
  const std::string command = GATEWAYCTL_PATH " sim --commands --meters '' --engine " + target;
  FILE* const input = popen((command + " >/dev/full 2>/dev/full").c_str(), "we");
  ASSERT_NE(input, nullptr);
  for (int i = 0; i < 2; ++i) {
    RawCall call(target, setParamsPath, "",
                 [](grpc::ClientContext& context) { context.set_wait_for_ready(true); });
    EXPECT_EQ(replyTo(call), (Reply{grpc::StatusCode::OK, {""}}));
  }
  EXPECT_EQ(pclose(input), 0);
}

}  // namespace
