// What gatewayctl discover says about servers that don't work, and about wrong use.
#include "tests/support/SilentPeer.h"
#include "tests/tools/discover/DiscoverTest.h"

namespace {

constexpr int mebibyte = 1 << 20;

class DiscoverErrors : public DiscoverTest {
 protected:
  // One unreadable message on the fast stream, with or without a good one after it.
  Result hearUnreadable(const std::string& hex, bool withGood) {
    std::vector<std::string> commands{"send fast " + hex};
    if (withGood) commands.push_back("send fast " + Batch().addInt("a", 1).hex());
    commands.emplace_back("end fast OK");
    commands.emplace_back("end slow OK");
    return hear(commands);
  }

  void expectUnreadable(const std::string& hex, const std::string& reason) {
    const auto end = [](int number) { return remarkOfEnd("fast", number) + "\n"; };
    const std::string said = " on the fast stream can't be read: message 1 " + reason +
                             ". Each such message costs the module the stream for five "
                             "seconds. Correct the server.\n";
    const auto bad = hearUnreadable(hex, false);
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_EQ(bad.output, "");
    EXPECT_EQ(bad.errors, "gatewayctl discover: " + end(1) + "gatewayctl discover: 1 of 1 message" +
                              said + "gatewayctl discover: " + remarkOfEnd("slow", 0) + "\n");

    const auto mixed = hearUnreadable(hex, true);
    EXPECT_EQ(mixed.exitCode, 0);
    EXPECT_EQ(
        mixed.output,
        "; What a meter server sent within 3600 seconds, written by gatewayctl discover.\n; " +
            end(2) + "; 1 of 2 messages" + said + "; " + remarkOfEnd("slow", 0) + "\n\n" +
            settings("true", "false") + "\n[MetersInt]\nMeter=Key=a Type=fast\n");
  }
};

TEST_F(DiscoverErrors, ReportsAMissingServerOnce) {
  const std::string target = unusedTarget();
  const auto result = run({target, "--for", longTime});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors,
            "gatewayctl discover: no meter server can be reached at " + target +
                ": UNAVAILABLE \"failed to connect to all addresses; last error: UNKNOWN: ipv4:" +
                target +
                ": Failed to connect to remote host: Connection refused\". Start it, or correct "
                "the target.\n");
}

TEST_F(DiscoverErrors, ReportsAServerThatDoesNotAnswer) {
  const SilentPeer peer(SilentPeer::Kind::Mute);
  const auto result = run({peer.target(), "--for", "0.5"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors,
            "gatewayctl discover: " + peer.target() +
                " does not answer: there is no connection after 0.5 seconds. Check that a meter "
                "server runs there and that no firewall is in the way.\n");
}

TEST_F(DiscoverErrors, WritesTheProblemsAsJsonWhenNoKeysCame) {
  const std::string target = unusedTarget();
  const auto result = run({target, "--for", longTime, "--json"});
  EXPECT_EQ(result.exitCode, 1);
  const std::string begin = "{\n  \"target\": \"" + target + "\",";
  EXPECT_TRUE(result.output.starts_with(begin)) << result.output;
  const std::string problem = "\"problems\": [\n    \"no meter server can be reached at " + target;
  EXPECT_NE(result.output.find(problem), result.output.npos) << result.output;
  EXPECT_TRUE(result.output.ends_with("\"keys\": []\n}\n")) << result.output;
}

// The time must be long enough to connect.
TEST_F(DiscoverErrors, ReportsAServerThatSendsNothing) {
  const auto result = run({servers.metersTarget(), "--for", "10"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors,
            "gatewayctl discover: nothing came on the fast stream within 10 seconds. Listen or "
            "record for longer, or make the server send on this stream.\n"
            "gatewayctl discover: nothing came on the slow stream within 10 seconds. Listen or "
            "record for longer, or make the server send on this stream.\n");
}

TEST_F(DiscoverErrors, ReportsAnotherService) {
  const auto result = run({servers.engineTarget(), "--for", longTime});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors,
            "gatewayctl discover: the server ended the fast stream after 0 messages: "
            "UNIMPLEMENTED. It has no method GetMetersFast of proto/meters.proto. Is it another "
            "service, such as the engine's?\n"
            "gatewayctl discover: the server ended the slow stream after 0 messages: "
            "UNIMPLEMENTED. It has no method GetMetersSlow of proto/meters.proto. Is it another "
            "service, such as the engine's?\n");
}

TEST_F(DiscoverErrors, ReportsAFailedStreamInAWarningAndAComment) {
  const auto result = hear({"send fast " + Batch().addInt("a", 1).hex(),
                            "end slow PERMISSION_DENIED", "end fast INTERNAL"});
  const std::string fast =
      "the server ended the fast stream after 1 message: INTERNAL \"ended by the simulator\". The "
      "server's log should say why.\n";
  const std::string slow =
      "the server ended the slow stream after 0 messages: PERMISSION_DENIED \"ended by the "
      "simulator\". The gateway connects without credentials, and the server has to accept that.\n";
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output,
            "; What a meter server sent within 3600 seconds, written by gatewayctl discover.\n; " +
                fast + "; " + slow + "\n" + settings("true", "false") +
                "\n[MetersInt]\nMeter=Key=a Type=fast\n");
  EXPECT_EQ(result.errors,
            "gatewayctl discover: warning: " + fast + "gatewayctl discover: warning: " + slow);
}

TEST_F(DiscoverErrors, ReportsALostConnectionAndUsesWhatCame) {
  ToolProcess tool({"discover", servers.metersTarget(), "--for", longTime, "--json"});
  servers.waitEvent("open fast ");
  servers.waitEvent("open slow ");
  servers.command("send fast " + Batch().addInt("a", 1).hex());
  // Far more than gRPC sends before the receiver asks for more, which it does once it has read the
  // message before. What has only been sent may be lost with the server.
  servers.command("send fast " + Batch().addString("b", std::string(1 << 20, 'x')).hex());
  servers.waitEvent("sent fast ");
  servers.waitEvent("sent fast ");
  servers.kill();
  const auto result = resultOf(tool);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_NE(result.output.find("\"key\": \"a\""), result.output.npos);
  const std::string said =
      "gatewayctl discover: warning: the server or the connection failed, which ended the fast "
      "stream after ";
  EXPECT_NE(result.errors.find(said), result.errors.npos) << result.errors;
  EXPECT_NE(result.errors.find(": UNAVAILABLE \""), result.errors.npos) << result.errors;
}

TEST_F(DiscoverErrors, ReportsAKeyThatIsNotUtf8) {
  // One value, whose key is "a", FF, "b".
  expectUnreadable("0a090a0361ff6212021801",
                   "has a key that is not UTF-8, \"a\xef\xbf\xbd"
                   "b\"");
}

TEST_F(DiscoverErrors, ReportsATextThatIsNotUtf8) {
  // One value, whose key is "a" and whose text is FF.
  expectUnreadable("0a0a0a016112050a030a01ff", "has a text that is not UTF-8, \"\xef\xbf\xbd\"");
}

TEST_F(DiscoverErrors, ReportsBytesThatAreNoMessage) {
  expectUnreadable("ff", "can't be parsed as a Meter of proto/meters.proto");
}

TEST_F(DiscoverErrors, ReportsAMessageAboveTheLimitOfClients) {
  // A field that is not in the schema, long enough for one byte more than the limit.
  const std::string filling(static_cast<std::size_t>(4 * mebibyte + 1 - 5), '\0');
  expectUnreadable("7afcffff01" + toHex(filling),
                   "has 4194305 bytes, and gRPC clients accept 4194304 at most");
}

TEST_F(DiscoverErrors, ReportsEmptyMessages) {
  const auto result = hear({"send fast - 3", "end fast OK", "end slow OK"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.errors, "gatewayctl discover: " + remarkOfEnd("fast", 3) +
                               "\ngatewayctl discover: 3 messages came on the fast stream, but no "
                               "values. Listen or record for longer, or make the server send "
                               "values.\ngatewayctl discover: " +
                               remarkOfEnd("slow", 0) + "\n");
}

TEST_F(DiscoverErrors, ReportsKeysThatItDoesNotKeep) {
  Batch batch;
  for (int i = 0; i < 200002; ++i) batch.addFloat(std::to_string(i), 1);
  const auto result = hear({"send fast " + batch.hex(), "end fast OK", "end slow OK"}, {"--json"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_NE(result.errors.find("warning: the fast stream has more keys than this tool keeps: "
                               "200000, or 33554432 bytes of keys. 2 values under further keys "
                               "were ignored. Does the server make up keys?\n"),
            result.errors.npos)
      << result.errors;
}

TEST_F(DiscoverErrors, ReportsThatNoKeyCanBeCarried) {
  const auto commands =
      sending({Batch().add("d", [](auto& any) { any.set_sdouble(1); })}, {Batch().addInt("=", 1)});
  const auto result = hear(commands);
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(
      result.errors,
      "gatewayctl discover: warning: " + remarkOfEnd("fast", 1) +
          "\ngatewayctl discover: warning: " + remarkOfEnd("slow", 1) +
          "\ngatewayctl discover: nothing is written, because the module can carry none of "
          "the keys that came:\n"
          "gatewayctl discover: fast \"d\": the module does not carry values of type double.\n"
          "gatewayctl discover: slow \"=\": a configuration can't hold a key that contains "
          "\"=\".\n");
  EXPECT_EQ(hear(commands, {"--json"}).exitCode, 0);
}

TEST_F(DiscoverErrors, ReportsThatItCannotWrite) {
  ToolProcess tool({"-c", "exec " GATEWAYCTL_PATH " discover " + servers.metersTarget() +
                              " --for 3600 > /dev/full"},
                   "/bin/sh");
  servers.waitEvent("open fast ");
  servers.waitEvent("open slow ");
  servers.command("send fast " + Batch().addInt("a", 1).hex());
  servers.command("end fast OK");
  servers.command("end slow OK");
  const auto result = resultOf(tool);
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_TRUE(result.errors.ends_with("\ngatewayctl discover: can't write to standard output\n"))
      << result.errors;
}

TEST_F(DiscoverErrors, ExplainsWrongUse) {
  const auto complaint = [](const std::string& target, const std::string& reason) {
    return "TARGET: a configuration can't hold the target " + target + ": " + reason +
           ". Use one such as 127.0.0.1:50005\n";
  };
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "TARGET is missing: name a meter server, or use --from\n"},
      {{""}, complaint("\"\"", "it is empty")},
      {{"unix:a ;b"}, complaint("\"unix:a ;b\"", "a \";\" after white space begins a comment")},
      {{"unix:a\nb"}, complaint("\"unix:a\\nb\"", "it contains a newline")},
      {{"a:1 "}, complaint("\"a:1 \"", "it begins or ends with white space")},
      {{"a:1", "--for", "0"}, "--for: \"0\" is not a number from 0.001 to 86400\n"},
      {{"a:1", "--for", "soon"}, "--for: \"soon\" is not a number from 0.001 to 86400\n"},
      {{"a:1", "b:2"}, "\"b:2\" is one argument too many\n"},
  };
  for (const auto& [arguments, error] : cases) {
    const auto result = run(arguments);
    EXPECT_EQ(result.exitCode, 2) << error;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "gatewayctl discover: " + error +
                                 "Run \"gatewayctl discover --help\" for its manual.\n");
  }
}

}  // namespace
