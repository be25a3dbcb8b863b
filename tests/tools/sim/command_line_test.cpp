// What the simulator says about wrong use, and its help.
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

TEST(Sim, NamesABusyPortAndTheRemedy) {
  SimProcess first;
  const auto& target = first.engineTarget();
  ToolProcess second({"sim", "--meters", "127.0.0.1:0", "--engine", target});
  EXPECT_EQ(second.waitExit(), 1);
  EXPECT_EQ(second.lines(), Lines{});
  EXPECT_EQ(
      lastLineOf(second.errors()),
      "gatewayctl sim: can't listen on " + target +
          ": another program uses the port, or this machine does not have the address. End "
          "that program, or choose another address with --engine (port 0 takes any free port)");
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
        {"UnknownOption",
         {"sim", "--sed", "3"},
         "unknown option \"--sed\", did you mean \"--seed\"?\n"},
        {"KeyWithoutParts",
         {"sim", "--keys", "fast:float"},
         "--keys: \"fast:float\" is not RATE:TYPE:KEY, such as fast:float:out.level\n"},
        {"KeyWithoutKey",
         {"sim", "--keys", "fast:float:"},
         "--keys: \"fast:float:\" is not RATE:TYPE:KEY, such as fast:float:out.level\n"},
        {"UnknownRate",
         {"sim", "--keys", "fast:float:a", "medium:float:b"},
         "--keys: \"medium\" in \"medium:float:b\" is not a rate. Use fast or slow\n"},
        {"UnknownType",
         {"sim", "--keys", "slow:double:a"},
         "--keys: \"double\" in \"slow:double:a\" is not a type. Use string, int, uint or float\n"},
        {"AddressWithoutPort",
         {"sim", "--meters", "localhost"},
         "--meters: \"localhost\" is not ADDRESS:PORT, such as 127.0.0.1:50005\n"},
        {"PortWithoutAddress",
         {"sim", "--engine", ":50006"},
         "--engine: \":50006\" is not ADDRESS:PORT, such as 127.0.0.1:50005\n"},
        {"PortTooLarge",
         {"sim", "--engine", "localhost:65536"},
         "--engine: \"localhost:65536\" is not ADDRESS:PORT, such as 127.0.0.1:50005\n"},
        {"RateTooLarge",
         {"sim", "--rate-fast", "10001"},
         "--rate-fast: \"10001\" is not a number from 0 to 10000\n"},
        {"RateIsNotANumber",
         {"sim", "--rate-slow", "often"},
         "--rate-slow: \"often\" is not a number from 0 to 10000\n"},
        {"RateNan",
         {"sim", "--rate-slow", "nan"},
         "--rate-slow: \"nan\" is not a number from 0 to 10000\n"},
        {"TimeNegative",
         {"sim", "--for", "-1"},
         "--for: \"-1\" is not a number of seconds from 0 to 1000000000\n"},
        {"NoValuesPerMessage",
         {"sim", "--values-per-message", "0"},
         "--values-per-message: \"0\" is not a whole number from 1 to 1000000000\n"},
        {"NoHeartbeat",
         {"sim", "--heartbeat", "0"},
         "--heartbeat: \"0\" is not a number from 0.001 to 1000000\n"},
        {"StrikesAreNotANumber",
         {"sim", "--strict-pings", "never"},
         "--strict-pings: \"never\" is not a whole number from 0 to 1000000\n"},
        {"CommandsAndFaults",
         {"sim", "--commands", "--fault", "at 1: end"},
         "--fault can't be combined with --commands\n"},
        {"CommandsAndJson",
         {"sim", "--commands", "--json"},
         "--json can't be combined with --commands\n"},
        {"NothingToServe",
         {"sim", "--meters", "", "--engine", ""},
         "nothing to serve: give --meters or --engine an address\n"},
        {"CommandsAndKeys",
         {"sim", "--commands", "--keys", "fast:float:a"},
         "--keys can't be combined with --commands\n"},
    }),
    [](const auto& test) { return test.param.name; });

TEST_P(EachWrongUse, IsExplainedAndExitsWithTwo) {
  ToolProcess tool(GetParam().arguments);
  EXPECT_EQ(tool.waitExit(), 2);
  EXPECT_EQ(tool.errors(), "gatewayctl sim: " + GetParam().error +
                               "Run \"gatewayctl sim --help\" for its manual.\n");
  EXPECT_EQ(tool.lines(), Lines{});
}

// gRPC's threads write the output, and an error there must not end them. The exit code reports it.
TEST(Sim, KeepsServingWhenItsOutputCannotBeWritten) {
  const auto target = unusedTarget();
  const std::string command = GATEWAYCTL_PATH " sim --commands --meters '' --engine " + target;
  FILE* const input = popen((command + " >/dev/full 2>/dev/full").c_str(), "we");
  ASSERT_NE(input, nullptr);
  for (int i = 0; i < 2; ++i) {
    RawCall call(target, setParamsPath, "",
                 [](grpc::ClientContext& context) { context.set_wait_for_ready(true); });
    EXPECT_EQ(replyTo(call), (Reply{grpc::StatusCode::OK, {""}}));
  }
  EXPECT_EQ(WEXITSTATUS(pclose(input)), 1);
}

}  // namespace
