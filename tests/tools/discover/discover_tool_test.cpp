// What gatewayctl discover writes for a server that works, compared whole.
#include <csignal>
#include <nlohmann/json.hpp>

#include "tests/tools/discover/DiscoverTest.h"

namespace {

class DiscoverTool : public DiscoverTest {};

TEST_F(DiscoverTool, WritesAnEntryForEachKeyUnderTheSectionOfItsType) {
  const auto result =
      hear(sending({Batch().addFloat("out.level", -3).addUint("frames", 7).addFloat("in.level", 0),
                    Batch().addFloat("out.level", -2).addString("name", "")},
                   {Batch().addInt("queue.length", -1).addString("dsp state", "ready")}));
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, remarks(2, 1) + settings() +
                               "\n[MetersFloat]\n"
                               "Meter=Key=out.level Type=fast\n"
                               "Meter=Key=in.level Type=fast\n"
                               "\n[MetersInt]\n"
                               "Meter=Key=queue.length Type=slow\n"
                               "\n[MetersUint]\n"
                               "Meter=Key=frames Type=fast\n"
                               "\n[MetersString]\n"
                               "Meter=Key=name Type=fast\n"
                               "Meter=Key=\"dsp state\" Type=slow\n");
  EXPECT_EQ(result.errors, "gatewayctl discover: warning: " + remarkOfEnd("fast", 2) +
                               "\ngatewayctl discover: warning: " + remarkOfEnd("slow", 1) + "\n");
}

// The only run that lasts until its time is over: long enough for the streams to open.
TEST_F(DiscoverTool, EndsAfterTheGivenTimeWithoutRemarksOnOpenStreams) {
  ToolProcess tool({"discover", servers.metersTarget(), "--for", "10"});
  servers.waitEvent("open fast 1 ");
  servers.waitEvent("open slow 1 ");
  servers.command("send fast " + Batch().addFloat("a", 1).hex());
  servers.command("send slow " + Batch().addFloat("b", 1).hex());
  const auto result = resultOf(tool);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output,
            "; What a meter server sent within 10 seconds, written by gatewayctl discover.\n\n" +
                settings() + "\n[MetersFloat]\nMeter=Key=a Type=fast\nMeter=Key=b Type=slow\n");
  EXPECT_EQ(result.errors, "");
}

TEST_F(DiscoverTool, OpensBothStreamsAsTheModuleDoes) {
  ToolProcess tool({"discover", servers.metersTarget(), "--for", longTime});
  EXPECT_EQ(servers.waitEvent("open fast "), "open fast 1 - deadline=none metadata=-");
  EXPECT_EQ(servers.waitEvent("open slow "), "open slow 1 - deadline=none metadata=-");
  tool.signal(SIGTERM);
  tool.waitExit();
}

TEST_F(DiscoverTool, WritesAKeyOfBothStreamsTwice) {
  const auto result = hear(sending({Batch().addInt("a", 1)}, {Batch().addInt("a", 1)}));
  EXPECT_EQ(result.output, remarks(1, 1) + settings() +
                               "\n[MetersInt]\nMeter=Key=a Type=fast\nMeter=Key=a Type=slow\n");
}

TEST_F(DiscoverTool, EnablesOnlyStreamsWithEntries) {
  const auto addDouble = [](auto& any) { any.set_sdouble(1); };
  const auto result = hear(sending({Batch().add("d", addDouble)}, {Batch().addInt("a", 1)}));
  EXPECT_EQ(result.output, remarks(1, 1) + settings("false", "true") +
                               "\n[MetersInt]\nMeter=Key=a Type=slow\n"
                               "\n; Not carried:\n"
                               "; fast \"d\": the module does not carry values of type double.\n");
}

TEST_F(DiscoverTool, ExplainsInCommentsWhyAKeyHasNoEntry) {
  const auto result =
      hear(sending({Batch()
                        .addFloat("fine", 1)
                        .addFloat("both", 1)
                        .addFloat("now and then", 1)
                        .addFloat("a=b", 1)
                        .addFloat("", 1)
                        .addFloat("two\nlines", 1)
                        .addFloat(std::string("n\0l", 3), 1)
                        .addFloat(std::string(1100, 'x'), 1)
                        .add("spectrum", [](auto& any) { any.mutable_afloat()->add_data(1); })
                        .add("ints", [](auto& any) { any.mutable_aint()->add_data(1); })
                        .add("uints", [](auto& any) { any.mutable_auint(); })
                        .add("precise", [](auto& any) { any.set_sdouble(1); })
                        .add("unset", [](auto&) {})
                        .addWithoutValue("bare"),
                    Batch().addInt("both", 1).addWithoutValue("now and then")},
                   {}));
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(
      result.output,
      remarks(2, 0) + settings("true", "false") +
          "\n[MetersFloat]\nMeter=Key=fine Type=fast\n"
          "\n; Not carried:\n"
          "; fast \"both\": it came with several types (float, int), but an entry has one. "
          "Write it by hand.\n"
          "; fast \"now and then\": it came with several types (float, none), but an entry "
          "has one. Write it by hand.\n"
          "; fast \"a=b\": a configuration can't hold a key that contains \"=\".\n"
          "; fast \"\": an entry can't have an empty key.\n"
          "; fast \"two\\nlines\": a configuration can't hold a key that contains a newline.\n"
          "; fast \"n\\u0000l\": a configuration can't hold a key that contains a NUL byte.\n"
          "; fast \"" +
          std::string(100, 'x') +
          "\"...: its line would have 1120 bytes, but a line can have 1023 at most.\n"
          "; fast \"spectrum\": the module does not carry values of type float array.\n"
          "; fast \"ints\": the module does not carry values of type int array.\n"
          "; fast \"uints\": the module does not carry values of type uint array.\n"
          "; fast \"precise\": the module does not carry values of type double.\n"
          "; fast \"unset\": it came without a value.\n"
          "; fast \"bare\": it came without a value.\n");
}

TEST_F(DiscoverTool, NamesSlotsAfterTheirKeys) {
  const auto result = hear(sending({Batch()
                                        .addFloat("out.level", 1)
                                        .addInt("out level", 1)
                                        .addFloat("gateway_float_3", 1)
                                        .addFloat("=", 1)
                                        .addFloat("\xc3\xa4", 1)},
                                   {Batch().addFloat("out_level", 1)}),
                           {"--custom-keys"});
  EXPECT_EQ(result.output,
            remarks(1, 1) + settings() +
                "\n[MetersFloat]\n"
                "Meter=Key=out.level Type=fast CustomKey=out_level\n"
                "Meter=Key=gateway_float_3 Type=fast CustomKey=meter_gateway_float_3\n"
                "Meter=Key=\xc3\xa4 Type=fast CustomKey=meter\n"
                "Meter=Key=out_level Type=slow CustomKey=out_level\n"
                "\n[MetersInt]\n"
                "Meter=Key=\"out level\" Type=fast CustomKey=out_level_2\n"
                "\n; Not carried:\n"
                "; fast \"=\": a configuration can't hold a key that contains \"=\".\n");
}

TEST_F(DiscoverTool, WritesAJsonDocument) {
  const auto result =
      hear(sending({Batch().addFloat("a", 1), Batch().addFloat("a", 2).addFloat("a", 3),
                    Batch().add("d", [](auto& any) { any.set_sdouble(1); })},
                   {Batch().addInt("b", 1).addString("b", "")}),
           {"--json", "--custom-keys"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, R"({
  "target": ")" + servers.metersTarget() +
                               R"(",
  "seconds": 3600.0,
  "streams": [
    {
      "rate": "fast",
      "messages": 3,
      "unreadable": 0
    },
    {
      "rate": "slow",
      "messages": 1,
      "unreadable": 0
    }
  ],
  "problems": [
    ")" + remarkOfEnd("fast", 3) +
                               R"(",
    ")" + remarkOfEnd("slow", 1) +
                               R"("
  ],
  "excluded": 0,
  "keys": [
    {
      "rate": "fast",
      "key": "a",
      "type": "float",
      "types": [
        "float"
      ],
      "messages": 2,
      "carried": true,
      "customKey": "a"
    },
    {
      "rate": "fast",
      "key": "d",
      "type": "double",
      "types": [
        "double"
      ],
      "messages": 1,
      "carried": false,
      "reason": "the module does not carry values of type double"
    },
    {
      "rate": "slow",
      "key": "b",
      "type": "several",
      "types": [
        "int",
        "string"
      ],
      "messages": 1,
      "carried": false,
      "reason": "it came with several types (int, string), but an entry has one. Write it by hand"
    }
  ]
}
)");
}

TEST_F(DiscoverTool, WritesNothingWhenInterrupted) {
  for (const int signal : {SIGINT, SIGTERM}) {
    ToolProcess tool({"discover", servers.metersTarget(), "--for", longTime});
    servers.waitEvent("open fast ");
    servers.command("send fast " + Batch().addFloat("a", 1).hex());
    servers.waitEvent("sent fast ");
    tool.signal(signal);
    const auto result = resultOf(tool);
    EXPECT_EQ(result.exitCode, 130);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "gatewayctl discover: interrupted; nothing is written\n");
    servers.waitEvent("closed fast ");
  }
}

// ---- Choosing and merging -----------------------------------------------------------------------

TEST_F(DiscoverTool, TakesAndNamesOnlyTheKeysThatAreChosen) {
  const auto commands = sending({Batch()
                                     .addFloat("out.left", 1)
                                     .addFloat("out.right", 1)
                                     .addFloat("out.peak", 1)
                                     .addFloat("in.left", 1)},
                                {});
  const auto result = hear(commands, {"--include", "out.*", "--exclude", "*.peak", "--rename",
                                      "s/^out\\.l/L/", "--rename", "s/^Left$/&most/"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_TRUE(result.output.ends_with(settings("true", "false") +
                                      "\n[MetersFloat]\n"
                                      "Meter=Key=out.left Type=fast CustomKey=Leftmost\n"
                                      "Meter=Key=out.right Type=fast\n"))
      << result.output;
}

TEST_F(DiscoverTool, WritesNothingIfNoKeyIsChosen) {
  const auto result = hear(sending({Batch().addFloat("a", 1)}, {}), {"--include", "b"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_TRUE(result.errors.ends_with(
      "gatewayctl discover: nothing is written, because --include and --exclude leave out all "
      "keys\n"))
      << result.errors;
}

TEST_F(DiscoverTool, RefusesAnExpressionThatIsNoSubstitution) {
  const auto result = run({"--rename", "a/b", servers.metersTarget()});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_NE(result.errors.find("--rename: \"a/b\" is not of the form s/PATTERN/REPLACEMENT/. Use "
                               "one such as 's/^mixer\\.//'"),
            result.errors.npos)
      << result.errors;
}

TEST_F(DiscoverTool, AddsNewKeysToAFileAndSaysWhichDidNotCome) {
  const std::string text = "; of the studio\n" + settings() +
                           "[MetersFloat]\nMeter=Key=out.level ; left\nMeter=Key=gone\n";
  const std::string file = files.write("old.conf", text);
  const auto commands =
      sending({Batch().addFloat("out.level", 1).addFloat("new", 1).addFloat("a=b", 1)}, {});
  const auto result = hear(commands, {"--merge", file});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, text +
                               "\n; Added by gatewayctl discover:\n[MetersFloat]\n"
                               "Meter=Key=new Type=fast\n");
  EXPECT_TRUE(result.errors.ends_with(
      "gatewayctl discover: warning: " + file +
      " has the fast key \"gone\" as float, which did not come.\n"
      "gatewayctl discover: fast \"a=b\": a configuration can't hold a key that contains \"=\".\n"))
      << result.errors;
}

TEST_F(DiscoverTool, TellsProgramsWhatAFileHas) {
  const std::string file = files.write(
      "old.conf", settings() + "[MetersFloat]\nMeter=Key=a CustomKey=mine\nMeter=Key=gone\n");
  const auto result = hear(sending({Batch().addFloat("a", 1).addFloat("b", 1).addInt("c", 1)}, {}),
                           {"--merge", file, "--exclude", "c", "--json"});
  const auto document = nlohmann::json::parse(result.output);
  EXPECT_EQ(document["excluded"], 1);
  ASSERT_EQ(document["keys"].size(), 2u);
  EXPECT_EQ(document["keys"][0]["configured"], true);
  EXPECT_FALSE(document["keys"][1].contains("configured"));
  EXPECT_EQ(document["silent"], nlohmann::json::parse(R"([
    {"rate": "fast", "key": "gone", "type": "float", "name": "gateway_float_1"}])"));
}

TEST_F(DiscoverTool, MergesIntoNoFileThatTheModuleRefuses) {
  const std::string file = files.write("old.conf", "[Metters]\nTarget=x\n");
  const auto result = run({"--merge", file, servers.metersTarget()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_NE(result.errors.find("did you mean"), result.errors.npos);
  EXPECT_TRUE(
      result.errors.ends_with("gatewayctl discover: nothing is written, because the module "
                              "would refuse " +
                              file + ", as explained above\n"))
      << result.errors;
}

}  // namespace
