// Compares configurations with a meter server, as people and scripts do. Each run ends by itself:
// all meters have come, both streams have ended, or a signal comes.
#include <gtest/gtest.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/module/grpc-gateway/flows/FlowTest.h"
#include "tests/support/FileText.h"
#include "tests/support/SilentPeer.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"
#include "tools/recording/Writer.h"

namespace {

using nlohmann::json;

constexpr const char* longTime = "3600";

struct Outcome {
  int code;
  std::string output;
  std::string errors;
};

Outcome outcomeOf(ToolProcess& tool) {
  Outcome outcome{.code = tool.waitExit(), .output = {}, .errors = tool.errors()};
  for (const std::string& line : tool.lines()) outcome.output += line + "\n";
  return outcome;
}

Outcome run(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "check");
  ToolProcess tool(arguments);
  tool.closeInput();
  return outcomeOf(tool);
}

class CheckAgainst : public ::testing::Test {
 protected:
  std::vector<std::string> arguments(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> all{"check", file,    "--against", servers.metersTarget(),
                                 "--for", longTime};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }

  // Compares while the simulator carries out the commands, which should end the run.
  Outcome hear(const std::vector<std::string>& commands,
               const std::vector<std::string>& more = {}) {
    ToolProcess tool(arguments(more));
    ++runs_;
    servers.waitEvent("open fast " + std::to_string(runs_) + " ");
    servers.waitEvent("open slow " + std::to_string(runs_) + " ");
    for (const std::string& command : commands) servers.command(command);
    return outcomeOf(tool);
  }

  std::string whole(const std::string& entries) const {
    return "[Meters]\nTarget=" + servers.metersTarget() + "\n" + entries;
  }

  SimProcess servers;
  const TemporaryFolder files;
  const std::string file = files.write(
      "gateway.conf", whole("[MetersFloat]\nMeter=Key=a\n[MetersInt]\nMeter=Key=b Type=slow\n"));

 private:
  int runs_ = 0;
};

TEST_F(CheckAgainst, EndsOnceEachMeterHasComeWithItsTypeAtItsRate) {
  const Outcome outcome = hear({"send slow " + Batch().addInt("a", 1).addFloat("b", 1).hex(),
                                "send fast " + Batch().addFloat("a", 1).hex(),
                                "send slow " + Batch().addInt("b", 1).hex()});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.output, file + ": accepted\n" + file + ": " + servers.metersTarget() +
                                " sends 2 of the 2 meters\n");
  EXPECT_EQ(outcome.errors, "");
  servers.waitEvent("closed fast 1 cancelled");
}

TEST_F(CheckAgainst, ReportsWhatCameWhenBothStreamsEnd) {
  const std::vector<std::string> commands = {
      "send fast " + Batch().addFloat("A", 1).addInt("c", 1).hex(), "end fast OK",
      "send slow " + Batch().addUint("b", 1).hex(), "end slow OK"};
  const Outcome outcome = hear(commands);
  EXPECT_EQ(outcome.code, 0);
  const auto end = [](const std::string& rate) {
    return "warning: the server ended the " + rate +
           " stream after 1 message; it should keep the stream open and write a message whenever "
           "it has values [bad-stream]\n";
  };
  for (const std::string& said :
       {file + ":2:8: " + end("fast"), file + ":2:8: " + end("slow"),
        file + ":2:8: note: the server also sends 1 key that no meter takes: fast int \"c\"; add a "
               "Meter for each key that you need; gatewayctl discover writes them [unused-keys]\n",
        file + ":4:11: warning: the server never sent the key \"a\", but it sent \"A\", so this "
               "slot keeps its default; did you mean A? [misspelt-key]\n",
        file + ":6:11: warning: the server sends the key \"b\" as a uint, so this int slot keeps "
               "its default; move the line to [MetersUint] [other-type-sent]\n",
        file + ": accepted: 4 warnings, 1 note\n" + file + ": " + servers.metersTarget() +
            " sends 0 of the 2 meters\n"}) {
    EXPECT_NE(outcome.output.find(said), std::string::npos) << said << outcome.output;
  }
  EXPECT_EQ(hear(commands, {"--strict"}).code, 3);
}

TEST_F(CheckAgainst, ReportsWhenInterrupted) {
  for (const int signal : {SIGINT, SIGTERM}) {
    ToolProcess tool(arguments({"--strict"}));
    servers.waitEvent("open fast ");
    servers.waitEvent("open slow ");
    tool.signal(signal);
    const Outcome outcome = outcomeOf(tool);
    EXPECT_EQ(outcome.code, 3);
    EXPECT_NE(outcome.output.find("warning: nothing came on the slow stream within "),
              std::string::npos)
        << outcome.output;
    EXPECT_NE(outcome.output.find(", so this slot keeps its default (line 6); listen or "
                                  "record for longer, or make the server send on this stream "
                                  "[bad-stream]\n"),
              std::string::npos)
        << outcome.output;
  }
}

TEST_F(CheckAgainst, FailsIfTheServerCannotBeReached) {
  const Outcome outcome = run({file, "--against", unusedTarget(), "--for", longTime, "--json"});
  EXPECT_EQ(outcome.code, 2);
  const json document = json::parse(outcome.output);
  EXPECT_EQ(document["exit_code"], 2);
  const json& found = document["files"][0]["diagnostics"];
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0]["rule"], "bad-stream");
  EXPECT_EQ(found[0]["line"], json());
  EXPECT_EQ(found[0]["remedy"], "start it, or correct the target");
}

TEST_F(CheckAgainst, FailsIfTheServerDoesNotAnswer) {
  const SilentPeer peer(SilentPeer::Kind::Mute);
  const Outcome outcome = run({file, "--against", peer.target(), "--for", "0.5"});
  EXPECT_EQ(outcome.code, 2);
  EXPECT_NE(outcome.output.find(file + ": warning: " + peer.target() +
                                " does not answer: there is no connection after 0.5 seconds, so "
                                "these slots keep their defaults (line 4, line 6); check that a "
                                "meter server runs there and that no firewall is in the way "
                                "[bad-stream]\n"),
            std::string::npos)
      << outcome.output;
}

TEST_F(CheckAgainst, ReportsAnotherService) {
  const Outcome outcome =
      run({file, "--against", servers.engineTarget(), "--for", longTime, "--strict"});
  EXPECT_EQ(outcome.code, 3);
  EXPECT_NE(outcome.output.find("warning: the server ended the slow stream after 0 messages: "
                                "UNIMPLEMENTED, so this slot keeps its default (line 6); it has no "
                                "method GetMetersSlow of proto/meters.proto. Is it another "
                                "service, such as the engine's? [bad-stream]\n"),
            std::string::npos)
      << outcome.output;
}

TEST_F(CheckAgainst, RepairsTheFileAfterTheServer) {
  const std::string path = files.write(
      "typo.conf", whole("[MetersFloat]\nMeter=Key=a ; level\nMeter=Type=slow Key=\"b b\"\n"));
  const std::vector<std::string> commands = {
      "send slow " + Batch().addFloat("a", 1).addFloat("b  b", 1).hex(), "end slow OK",
      "send fast " + Batch().addFloat("x", 1).hex(), "end fast OK"};
  ToolProcess tool(
      {"check", path, "--against", servers.metersTarget(), "--for", longTime, "--fix=unsafe"});
  servers.waitEvent("open fast 1 ");
  servers.waitEvent("open slow 1 ");
  for (const std::string& command : commands) servers.command(command);
  EXPECT_EQ(outcomeOf(tool).code, 0);
  EXPECT_EQ(textOf(path), whole("[MetersFloat]\nMeter=Key=a Type=slow ; level\n"
                                "Meter=Type=slow Key=\"b  b\"\n"));
}

std::string meterWith(const std::string& key) {
  sonalith::grpc::Meter meter;
  auto& item = *meter.add_values();
  item.set_key(key);
  item.mutable_value()->set_sfloat(1);
  return meter.SerializeAsString();
}

TEST_F(CheckAgainst, ReadsARecordingInsteadOfListening) {
  std::string bytes;
  recording::Writer writer([&](std::string_view more) { bytes += more; }, 0);
  using recording::Kind;
  using recording::Stream;
  for (const Stream stream : {Stream::Fast, Stream::Slow}) {
    writer.add({Kind::Started, stream, 1, 0, "elsewhere:1"});
    writer.add({Kind::Opened, stream, 1, 0, ""});
  }
  const std::string message = meterWith("a");
  writer.add({Kind::Message, Stream::Fast, 1, 1000000, message});
  writer.close(2000000);
  const std::string path = files.write("session.gwrec", bytes);
  const Outcome outcome = run({file, "--against", path, "--strict"});
  EXPECT_EQ(outcome.code, 3) << outcome.errors;
  EXPECT_TRUE(outcome.output.starts_with(
      file +
      ": warning: nothing came on the slow stream within 2 seconds, so this slot keeps its "
      "default (line 6); "))
      << outcome.output;
  EXPECT_TRUE(outcome.output.ends_with(file + ": accepted: 1 warning\n" + file + ": " + path +
                                       " sends 1 of the 2 meters\n"))
      << outcome.output;

  const std::string damaged = files.write("damaged.gwrec", "no recording");
  const Outcome failed = run({file, "--against", damaged});
  EXPECT_EQ(failed.code, 2);
  EXPECT_TRUE(failed.errors.starts_with("gatewayctl check: can't check " + file + ": " + damaged))
      << failed.errors;
}

// Nothing listens there, so the run would fail otherwise.
TEST_F(CheckAgainst, DoesNotListenForAFileThatTheModuleRefuses) {
  const std::string bad = files.write("bad.conf", "nonsense\n");
  const Outcome outcome = run({bad, "--against", unusedTarget(), "--for", longTime});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.output.find("sends"), std::string::npos) << outcome.output;
}

TEST_F(CheckAgainst, DoesNotListenWithoutMeters) {
  const std::string none = files.write(
      "none.conf", whole("EnableSlowMeters=false\n[MetersInt]\nMeter=Key=a Type=slow\n"));
  const Outcome outcome = run({none, "--against", unusedTarget(), "--for", longTime});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.errors,
            "gatewayctl check: " + none + " has no meters to compare with the server\n");
}

TEST_F(CheckAgainst, ExplainsWrongUse) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{file, "--for", "5"}, "--for requires --against\n"},
      {{file, file, "--against", "a:1"}, "--against takes one FILE\n"},
      {{file, "--against", "http://a:1"},
       "--against: bad target \"http://a:1\": gRPC does not know the scheme \"http\" and takes "
       "the whole target as a host name; write a:1 instead\n"},
      {{file, "--against", ""}, "--against: the target is empty: write HOST:PORT\n"},
      {{file, "--against", "a:1", "--for", "0"},
       "--for: \"0\" is not a number from 0.001 to 86400\n"},
  };
  for (const auto& [arguments, error] : cases) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.code, 2) << error;
    EXPECT_EQ(outcome.errors,
              "gatewayctl check: " + error + "Run \"gatewayctl check --help\" for its manual.\n");
  }
}

}  // namespace
