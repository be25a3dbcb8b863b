// Runs gatewayctl check as a person or a script does.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/FileText.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using nlohmann::json;

constexpr const char* sound =
    "[MetersFloat]\nMeter=Key=in DefaultValue=-1.5\n[Meters]\nTarget=localhost:50005\n";

class CheckTool : public ::testing::Test {
 protected:
  struct Outcome {
    int code;
    std::string output;
    std::string errors;
  };

  static Outcome run(std::vector<std::string> arguments, const std::string& input = "") {
    arguments.insert(arguments.begin(), "check");
    ToolProcess tool(arguments);
    if (!input.empty()) tool.write(input);
    tool.closeInput();
    const int code = tool.waitExit();
    std::string output;
    for (const std::string& line : tool.lines()) output += line + "\n";
    return {code, output, tool.errors()};
  }

  const TemporaryFolder files;
  const std::string good = files.write("good.conf", sound);
  const std::string bad = files.write("bad.conf", "nonsense\n");
  const std::string doubtful = files.write("doubtful.conf", std::string(sound) + "[Levels]\n");
};

TEST_F(CheckTool, ReportsTheVerdictAsItsExitCode) {
  EXPECT_EQ(run({good}).code, 0);
  EXPECT_EQ(run({good}).output, good + ": accepted\n");
  EXPECT_EQ(run({bad}).code, 1);
  EXPECT_EQ(run({doubtful}).code, 0);
  EXPECT_EQ(run({"--strict", doubtful}).code, 3);
  EXPECT_EQ(run({"--strict", good}).code, 0);
  EXPECT_EQ(run({"--strict", bad}).code, 1);
  EXPECT_EQ(run({files.path("missing")}).code, 2);
  EXPECT_EQ(run({}).code, 2);
}

TEST_F(CheckTool, ExitsWithTheWorstCodeOfSeveralFiles) {
  EXPECT_EQ(run({"--strict", good, doubtful}).code, 3);
  EXPECT_EQ(run({"--strict", doubtful, bad, good}).code, 1);
  EXPECT_EQ(run({bad, files.path("missing"), good}).code, 2);
}

TEST_F(CheckTool, ReadsStandardInput) {
  EXPECT_EQ(run({"-"}, sound).output, "<stdin>: accepted\n");
  const Outcome refused = run({"-"}, "nonsense\n");
  EXPECT_EQ(refused.code, 1);
  EXPECT_TRUE(refused.output.starts_with("<stdin>:1:1: error: ")) << refused.output;
}

TEST_F(CheckTool, SaysWhyAFileCannotBeRead) {
  EXPECT_EQ(
      run({files.path("missing")}).errors,
      "gatewayctl check: can't check " + files.path("missing") + ": No such file or directory\n");
  EXPECT_EQ(run({files.path("")}).errors,
            "gatewayctl check: can't check " + files.path("") + ": it is a folder\n");
  const std::string pipe = files.path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const Outcome outcome = run({pipe});
  EXPECT_EQ(outcome.code, 2);
  EXPECT_EQ(outcome.errors, "gatewayctl check: can't check " + pipe +
                                ": it is a pipe or a device: name a regular file, or - for "
                                "standard input\n");
}

TEST_F(CheckTool, DoesNotWaitForADedicatedPipe) {
  const std::string pipe = files.path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const Outcome outcome =
      run({"-"}, std::string(sound) + "[ParseIfExist:" + pipe + "]\nFile=" + pipe + "\n");
  EXPECT_EQ(outcome.code, 1);
  EXPECT_NE(outcome.output.find("[endless-file]"), std::string::npos) << outcome.output;
}

// Files of the kernel look like regular, empty files. This one never ends.
TEST_F(CheckTool, DoesNotReadAFileThatNeverEnds) {
  const std::string endless = "/proc/self/pagemap";
  const Outcome named =
      run({"-"}, std::string(sound) + "[ParseIfExist:" + endless + "]\nFile=" + endless + "\n");
  EXPECT_EQ(named.code, 1);
  EXPECT_NE(named.output.find(" may never end, so the engine might wait for its end forever"),
            std::string::npos)
      << named.output;
  const Outcome main = run({endless});
  EXPECT_EQ(main.code, 2);
  EXPECT_EQ(main.errors, "gatewayctl check: can't check " + endless +
                             ": it may never end: name a regular file, or - for standard input\n");
}

// The kernel's log waits for its next line. Only root may read it; for others it is unreadable.
TEST_F(CheckTool, DoesNotWaitForAFileThatLooksRegular) {
  EXPECT_EQ(run({"/proc/kmsg"}).code, 2);
}

TEST_F(CheckTool, AllowsWarningsOfARule) {
  const Outcome outcome = run({"--strict", "--allow", "unused-section", doubtful});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.output, doubtful + ": accepted\n");
}

TEST_F(CheckTool, RefusesToAllowUnknownRulesAndErrors) {
  const Outcome unknown = run({"--allow", "unused-secton", doubtful});
  EXPECT_EQ(unknown.code, 2);
  EXPECT_NE(unknown.errors.find("there is no rule \"unused-secton\", did you mean "
                                "\"unused-section\"?"),
            std::string::npos)
      << unknown.errors;
  const Outcome error = run({"--allow", "duplicate-key", doubtful});
  EXPECT_EQ(error.code, 2);
  EXPECT_NE(error.errors.find("duplicate-key is not a warning"), std::string::npos) << error.errors;
}

TEST_F(CheckTool, ListsAndExplainsRules) {
  const Outcome list = run({"--list-rules"});
  EXPECT_EQ(list.code, 0);
  EXPECT_NE(list.output.find("\nduplicate-key            "), std::string::npos) << list.output;
  const Outcome explanation = run({"--explain", "duplicate-key"});
  EXPECT_EQ(explanation.code, 0);
  EXPECT_TRUE(explanation.output.starts_with(
      "duplicate-key (error): two entries of one list with the same Key\n\nA list holds"))
      << explanation.output;
  EXPECT_EQ(run({"--explain", "duplicate"}).code, 2);
}

TEST_F(CheckTool, PrintsTheSlotsOfTheHost) {
  const Outcome outcome =
      run({"--slots", "-"}, std::string(sound) +
                                "[MetersFloat]\nMeter=Key=out CustomKey=level Type=slow\n"
                                "[Engine]\nTarget=x:1\n[EngineString]\nParam=Key=preset\n");
  EXPECT_EQ(outcome.output,
            "<stdin>: accepted\n"
            "SET     POSITION  TYPE    NAME              GENERATED  DEFAULT  KEY\n"
            "fast    0         float   gateway_float_0   yes        -1.5     in\n"
            "slow    0         float   level             no         0        out\n"
            "engine  0         string  gateway_string_0  yes        -        preset\n");
}

// The width of wide and combining characters differs from their number of bytes.
TEST_F(CheckTool, AlignsTheSlotsOfAnyScript) {
  const Outcome outcome = run({"--slots", "-"}, std::string(sound) +
                                                    "[MetersInt]\n"
                                                    "Meter=Key=a CustomKey=Pegel_für\n"
                                                    "Meter=Key=b CustomKey=e\u0301te\u0301\n"
                                                    "Meter=Key=c CustomKey=\u97F3\u91CF\n");
  EXPECT_EQ(outcome.output,
            "<stdin>: accepted\n"
            "SET   POSITION  TYPE   NAME             GENERATED  DEFAULT  KEY\n"
            "fast  0         int    Pegel_für        no         0        a\n"
            "fast  1         int    e\u0301te\u0301              no         0        b\n"
            "fast  2         int    \u97F3\u91CF             no         0        c\n"
            "fast  0         float  gateway_float_0  yes        -1.5     in\n");
}

TEST_F(CheckTool, KeepsDiagnosticsOfEachRuleAndCountsTheOthers) {
  std::string text = std::string(sound) + "[MetersInt]\n";
  for (int i = 0; i < 103; ++i) text += "Meter=Key=a Type=medium\n";
  for (int i = 0; i < 101; ++i) text += "Meter=Key=a Size=1\n";
  const Outcome outcome = run({"-"}, text);
  EXPECT_NE(outcome.output.find("<stdin>: not shown: 1 more of unknown-word, 3 more of "
                                "unknown-type\n<stdin>: refused: 204 errors\n"),
            std::string::npos)
      << outcome.output;
  const json file = json::parse(run({"--json", "-"}, text).output)["files"][0];
  EXPECT_EQ(file["diagnostics"].size(), 200u);
  EXPECT_EQ(file["errors"], 204);
  EXPECT_EQ(file["omitted"], 4);
  EXPECT_EQ(file["omitted_by_rule"], (json{{"unknown-word", 1}, {"unknown-type", 3}}));
}

TEST_F(CheckTool, ReportsWhatFollowsFromAMistakeAsItsNotes) {
  const Outcome outcome = run({"--json", "-"}, std::string(sound) + "[MetersInt]\nMeter=Key= a\n");
  const json file = json::parse(outcome.output)["files"][0];
  EXPECT_EQ(file["errors"], 1);
  ASSERT_EQ(file["diagnostics"].size(), 1u);
  EXPECT_EQ(file["diagnostics"][0]["rule"], "word-ends-in-equals");
  EXPECT_EQ(file["diagnostics"][0]["notes"], json::parse(R"([{"rule": "empty-key", "text":
                "this entry has no Key, so the module refuses the configuration",
                "file": "<stdin>", "line": 6}])"));
}

TEST_F(CheckTool, WritesOneJsonDocument) {
  const std::string path = files.write(
      "main.conf",
      "[Meters]\nTarget=localhost:50005\n[MetersFloat]\nMeter=Key=\"T\xFCr\" DefaultValue=0.1\n");
  const Outcome outcome = run({"--json", "--strict", path, bad, files.path("missing")});
  EXPECT_EQ(outcome.code, 2);
  const json document = json::parse(outcome.output);
  EXPECT_EQ(document["version"], 1);
  EXPECT_EQ(document["exit_code"], 2);
  const json& accepted = document["files"][0];
  EXPECT_EQ(accepted["verdict"], "accepted");
  EXPECT_EQ(accepted["reason"], json());
  EXPECT_EQ(accepted["slots"], json::parse(R"([{"set": "fast", "position": 0, "type": "float",
                                  "name": "gateway_float_0", "generated": true,
                                  "key": "T\ufffdr", "default": 0.1}])"));
  EXPECT_EQ(accepted["diagnostics"].size(), 1u);
  const json& refused = document["files"][1];
  EXPECT_EQ(refused["verdict"], "refused");
  EXPECT_EQ(refused["errors"], 2);
  EXPECT_EQ(refused["diagnostics"][0],
            (json{{"rule", "bad-line"},
                  {"severity", "error"},
                  {"file", bad},
                  {"line", 1},
                  {"column", 1},
                  {"length", 8},
                  {"text",
                   "this line is not a pair, because it has no \"=\", so the module refuses "
                   "the file"},
                  {"remedy", "write NAME=VALUE, or begin a comment with \";\""},
                  {"edit", json()},
                  {"notes", json::array()},
                  {"section", json()},
                  {"read_at", json()},
                  {"source", "nonsense"}}));
  EXPECT_EQ(refused["diagnostics"][1]["line"], json());
  EXPECT_EQ(refused["module_log"][0]["level"], 3);
  EXPECT_EQ(document["files"][2]["verdict"], "unreadable");
}

TEST_F(CheckTool, WritesCommandsForGitHub) {
  const std::string odd = files.write("50%:1,\n.conf", std::string(sound) + "Target=50%:1\n");
  const std::string name = files.path("50%25%3A1%2C%0A.conf");
  EXPECT_EQ(run({"--format", "github", odd, doubtful, files.path("missing")}).output,
            "::warning file=" + name +
                ",line=5,endLine=5,col=8,endColumn=13,title=repeated-setting::Target is already "
                "set in line 4, and this line overrides it; remove the line that you do not want\n"
                "::warning file=" +
                name +
                ",line=5,endLine=5,col=8,endColumn=13,title=bad-target::bad target \"50%25:1\": "
                "\"50%25\" can't be a host name; write HOST:PORT, such as localhost:50005\n"
                "::warning file=" +
                doubtful +
                ",line=5,endLine=5,col=1,endColumn=9,title=unused-section::there is no section "
                "\"Levels\", but the module ignores a header without pairs; remove the header, or "
                "put \";\" in front of it\n"
                "::error file=" +
                files.path("missing") + "::can't be checked: No such file or directory\n");
}

TEST_F(CheckTool, RefusesFormatsThatContradictOtherOptions) {
  EXPECT_EQ(run({"--format", "sarif", good}).code, 0);
  EXPECT_EQ(run({"--format", "xml", good}).code, 2);
  EXPECT_EQ(run({"--format", "sarif", "--json", good}).code, 2);
  EXPECT_EQ(run({"--format", "sarif", "--slots", good}).code, 2);
  EXPECT_EQ(run({"--format", "json", "--diff", good}).code, 2);
}

TEST_F(CheckTool, RepairsAFileAndReportsTheResult) {
  const std::string path = files.write("typo.conf", std::string(sound) + "EnableFastMeters=off\n" +
                                                        "[MetersInt]\nMeter=key=a\n[Meters]]\n");
  const Outcome fixed = run({"--fix", path});
  EXPECT_EQ(fixed.code, 0) << fixed.output << fixed.errors;
  EXPECT_TRUE(fixed.output.ends_with(path + ": accepted: 1 warning\n")) << fixed.output;
  EXPECT_EQ(textOf(path), std::string(sound) + "EnableFastMeters=false\n" +
                              "[MetersInt]\nMeter=Key=a\n[Meters]\n");
}

TEST_F(CheckTool, MakesLikelyRepairsOnlyOnRequest) {
  const std::string text = "[MetersInt]\nMeter=Key=a\n[Meters]\nTarget=http://localhost:1\n";
  const std::string path = files.write("likely.conf", text);
  run({"--fix", path});
  EXPECT_EQ(textOf(path), text);
  EXPECT_EQ(run({"--fix=unsafe", path}).output, path + ": accepted\n");
  EXPECT_EQ(textOf(path), "[MetersInt]\nMeter=Key=a\n[Meters]\nTarget=localhost:1\n");
}

TEST_F(CheckTool, ShowsRepairsAsADiffAndChangesNothing) {
  const std::string text = std::string(sound) + "[MetersInt]\nMeter=key=a\n";
  const std::string path = files.write("typo.conf", text);
  const std::string diff =
      "@@ -3,4 +3,4 @@\n [Meters]\n Target=localhost:50005\n [MetersInt]\n"
      "-Meter=key=a\n+Meter=Key=a\n";
  EXPECT_EQ(run({"--diff", path}).output, "--- " + path + "\n+++ " + path + "\n" + diff);
  EXPECT_EQ(run({"--diff", "-"}, text).output, "--- <stdin>\n+++ <stdin>\n" + diff);
  EXPECT_EQ(textOf(path), text);
}

// What a pseudo-terminal shows of a command.
std::string onTerminal(const std::string& command, const std::string& record) {
  EXPECT_EQ(std::system(("script -qec '" + command + "' " + record + " > /dev/null").c_str()), 0);
  return textOf(record);
}

TEST_F(CheckTool, ShowsADiffThatCannotControlTheTerminal) {
  const std::string text =
      std::string(sound) + "[MetersInt]\nMeter=key=a\x1b]0;title\x07\xC2\x9B\t\xFC\u00FC\r\n";
  const std::string path = files.write("escape.conf", text);
  const std::string command = std::string(GATEWAYCTL_PATH) + " check --diff " + path;
  const std::string shown = onTerminal(command, files.path("record"));
  EXPECT_NE(shown.find("-Meter=key=a\\x1b]0;title\\x07\\xc2\\x9b\t\\xfc\u00FC\r"),
            std::string::npos)
      << shown;
  EXPECT_EQ(shown.find_first_of("\x1b\x07\xFC"), std::string::npos) << shown;
  // In a pipe it is an exact patch.
  const std::string patch = run({"--diff", path}).output;
  EXPECT_NE(patch.find("-Meter=key=a\x1b]0;title\x07\xC2\x9B\t\xFC\u00FC\r\n"), std::string::npos);
}

TEST_F(CheckTool, ShowsNoControlCharactersOfAFile) {
  const Outcome outcome = run({"-"}, "[MetersInt]\nMeter: Key=\x1b]0;title\x07\n");
  EXPECT_NE(outcome.output.find("write Meter=Key=\\x1b]0;title\\x07 [early"), std::string::npos);
  EXPECT_EQ(outcome.output.find_first_of("\x1b\x07"), std::string::npos) << outcome.output;
}

TEST_F(CheckTool, SaysInItsHelpWhichRepairsItMakes) {
  EXPECT_NE(run({"--help"}).output.find("\n  --fix[=safe|unsafe] "), std::string::npos);
}

TEST_F(CheckTool, RefusesToRepairStandardInput) {
  EXPECT_EQ(run({"--fix", "-"}, sound).code, 2);
  EXPECT_EQ(run({"--fix=all", good}).code, 2);
}

// ---- Comparing --------------------------------------------------------------------------------

TEST_F(CheckTool, ComparesTwoFilesAsTheHostSeesThem) {
  const std::string more =
      files.write("more.conf", "[MetersFloat]\nMeter=Key=first\n" + std::string(sound).substr(14));
  const Outcome inserted = run({"--compare", good, more});
  EXPECT_EQ(inserted.code, 1) << inserted.errors;
  EXPECT_EQ(inserted.output,
            "renamed (1)\n"
            "  fast float \"in\": name gateway_float_0 -> gateway_float_1, position 0 -> 1\n"
            "new (1)\n"
            "  fast float \"first\": name gateway_float_0, position 0\n" +
                good + " -> " + more +
                ": 1 renamed, 1 new, a host that uses the old slots has to be adapted\n");
  const std::string appended =
      files.write("appended.conf", std::string(sound) + "[MetersInt]\nMeter=Key=last\n");
  EXPECT_EQ(run({"--compare", good, appended}).code, 0);
  EXPECT_EQ(run({"--compare", "-", good}, sound).output,
            "<stdin> -> " + good + ": no difference\n");
}

TEST_F(CheckTool, ComparesAsAJsonDocument) {
  const Outcome outcome = run({"--json", "--compare", good, "-"},
                              "[MetersFloat]\nMeter=Key=in\n[Meters]\nTarget=other:1\n");
  EXPECT_EQ(outcome.code, 0);
  const json slot = {
      {"set", "fast"},     {"position", 0}, {"type", "float"}, {"name", "gateway_float_0"},
      {"generated", true}, {"key", "in"},   {"default", -1.5}};
  json changed = slot;
  changed["default"] = 0.0;
  EXPECT_EQ(
      json::parse(outcome.output),
      (json{
          {"version", 1},
          {"exit_code", 0},
          {"old", good},
          {"new", "<stdin>"},
          {"affects_host", false},
          {"settings",
           {{{"setting", "[Meters] Target"}, {"before", "localhost:50005"}, {"after", "other:1"}}}},
          {"slots", {{{"changes", {"other default"}}, {"before", slot}, {"after", changed}}}}}))
      << outcome.output;
}

TEST_F(CheckTool, ComparesOnlyAcceptedFiles) {
  for (const auto& [old, now] : {std::pair(bad, good), std::pair(good, bad)}) {
    const Outcome refused = run({"--compare", old, now});
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(refused.output, "");
    EXPECT_EQ(refused.errors,
              "gatewayctl check: can't compare " + bad +
                  ", because the module refuses it; see why with: gatewayctl check " + bad + "\n");
  }
  const Outcome missing = run({"--compare", files.path("missing"), good});
  EXPECT_EQ(missing.code, 2);
  EXPECT_EQ(missing.errors, "gatewayctl check: can't check " + files.path("missing") +
                                ": No such file or directory\n");
}

TEST_F(CheckTool, ExplainsWrongUseOfComparing) {
  for (const auto& arguments :
       std::vector<std::vector<std::string>>{{"--compare", good},
                                             {"--compare", good, good, good},
                                             {"--compare", "-", "-"},
                                             {"--compare", good, good, "--fix"}}) {
    EXPECT_EQ(run(arguments).code, 2);
  }
}

TEST_F(CheckTool, FailsIfItCannotWriteItsReport) {
  for (const char* option : {"", "--json ", "--format sarif "}) {
    const std::string command = std::string(GATEWAYCTL_PATH) + " check " + option + good +
                                " > /dev/full 2> " + files.path("errors");
    EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 2) << option;
  }
}

TEST_F(CheckTool, UsesNoColoursInAPipe) {
  EXPECT_EQ(run({bad}).output.find('\033'), std::string::npos);
}

// ---- Bad input --------------------------------------------------------------------------------

class HugeFile : public CheckTool {
 protected:
  // A file of 100 MB of repeated text.
  std::string huge(const std::string& text) const {
    constexpr std::size_t size = 100 << 20;
    const std::string path = files.path("huge");
    std::string block;
    while (block.size() < (1 << 20)) block += text;
    std::ofstream file(path, std::ios::binary);
    for (std::size_t written = 0; written < size; written += block.size()) file << block;
    return path;
  }

  // The exit code under a limit on memory. The shell's limit applies to its children, too.
  static int codeWithin(std::size_t kilobytes, const std::string& path) {
    const std::string command = "ulimit -v " + std::to_string(kilobytes) + "; " + GATEWAYCTL_PATH +
                                " check " + path + " > /dev/null 2>&1";
    return WEXITSTATUS(std::system(command.c_str()));
  }

  static constexpr std::size_t memory = 1000000;
};

// A hole takes no room on the disk, but reading it would take an hour.
TEST_F(HugeFile, BeyondTheLimitIsNotRead) {
  const std::string path = files.write("hole", sound);
  std::filesystem::resize_file(path, std::uintmax_t{5} << 40);
  const Outcome outcome = run({path});
  EXPECT_EQ(outcome.code, 2);
  EXPECT_EQ(outcome.errors,
            "gatewayctl check: can't check " + path + ": it has more than 4294967296 bytes\n");
}

// The sanitizers reserve more address space than any such limit.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(HugeFile, WithBadLinesIsRefused) {
  EXPECT_EQ(codeWithin(memory, huge("nonsense\n")), 1);
}

TEST_F(HugeFile, WithOneLineIsRefused) {
  EXPECT_EQ(codeWithin(memory, huge("endless ")), 1);
}

TEST_F(HugeFile, WithRandomBytesIsRefused) {
  std::string bytes;
  for (unsigned i = 0; i < 100000; ++i) bytes += static_cast<char>(i * 2654435761u >> 24);
  EXPECT_EQ(codeWithin(memory, huge(bytes)), 1);
}

TEST_F(HugeFile, WithTooManyEntriesCannotBeChecked) {
  EXPECT_EQ(codeWithin(memory, huge("[MetersFloat]\nMeter=Key=level Type=slow\n")), 2);
}

TEST_F(HugeFile, WithUnknownSectionsIsRefused) {
  EXPECT_EQ(codeWithin(memory, huge("[x]\na=b\n")), 1);
}
#endif

}  // namespace
