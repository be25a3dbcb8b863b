#include "tools/record/record.h"

#include <fmt/format.h>
#include <grpc/grpc.h>

#include <csignal>
#include <memory>
#include <optional>
#include <string>

#include "manual.h"
#include "tools/common/ExitCode.h"
#include "tools/common/ManualText.h"
#include "tools/common/Output.h"
#include "tools/common/Terminal.h"
#include "tools/record/Show.h"
#include "tools/recording/MeterRecorder.h"
#include "tools/recording/Recorder.h"

namespace record {
namespace {

using recording::Stream;
using tools::Arrival;
using tools::ExitCode;

struct Options {
  std::string target;
  std::string output;
  std::optional<double> seconds;
  std::string shown;  // the file to show; empty to record
  bool json = false;
};

void say(const std::string& text) {
  tools::say("record", text);
}

// Until a signal, the deadline, or a failure to write.
ExitCode waitForEnd(const tools::SignalDescriptor& signals, const recording::Recorder& recorder,
                    tools::Clock::time_point deadline) {
  while (tools::Clock::now() < deadline) {
    const auto arrival = tools::waitFor(signals, recorder.failureDescriptor(), deadline);
    if (arrival == Arrival::Signal) return ExitCode::Interrupted;
    if (arrival == Arrival::Input) return ExitCode::Failed;
  }
  return ExitCode::Done;
}

// Says what has been recorded. Returns whether messages came and none was lost.
bool reportTotals(const Options& options, const recording::Recorder& recorder) {
  std::uint64_t messages = 0;
  bool isWhole = true;
  for (const auto stream : {Stream::Fast, Stream::Slow}) {
    const auto totals = recorder.totalsOf(stream);
    messages += totals.messages;
    say(fmt::format("{}: {} messages, {} bytes", nameOf(stream), totals.messages, totals.bytes));
    const auto loss = recorder.lossOf(stream);
    if (loss.empty()) continue;
    isWhole = false;
    say(loss);
  }
  if (messages == 0) {
    say(
        fmt::format("no message came from {}. Check that a meter server runs there, or record "
                    "longer with --for",
                    options.target));
  }
  return messages > 0 && isWhole;
}

int recordStreams(const Options& options) {
  // A reader that has gone is reported like a full disk.
  std::signal(SIGPIPE, SIG_IGN);
  // Before any thread starts, because threads inherit which signals are blocked.
  const tools::SignalDescriptor signals;
  // Without grpc_shutdown: that can wait ten seconds for one of gRPC's threads, which the end of
  // the process ends anyway.
  grpc_init();
  const recording::OutputFile file(options.output);
  recording::Recorder recorder(file);
  const auto deadline = tools::momentIn(options.seconds);
  ExitCode code = ExitCode::Done;
  {
    const recording::MeterRecorder streams(options.target, recorder, say);
    code = waitForEnd(signals, recorder, deadline);
  }
  recorder.close();
  const bool isGood = reportTotals(options, recorder);
  return code == ExitCode::Done && !isGood ? ExitCode::Failed : code;
}

int run(const Options& options) {
  if (!options.shown.empty()) return show(options.shown, options.json);
  if (options.target.empty()) {
    throw CLI::ValidationError("TARGET is missing: name a meter server, or use --show");
  }
  if (options.output.empty()) {
    throw CLI::ValidationError("--output is missing: name the file to write");
  }
  return recordStreams(options);
}

}  // namespace
}  // namespace record

void addRecord(CLI::App& app, int& exitCode) {
  auto* command =
      app.add_subcommand("record", "Record what a meter server sends, and show recordings");
  const auto options = std::make_shared<record::Options>();
  command->footer(tools::manualOf(record::manual_txt));
  auto* target =
      command->add_option("TARGET", options->target, "The meter server, such as 127.0.0.1:50005.");
  auto* output = command->add_option("-o,--output", options->output,
                                     "The file to write; - is standard output. An existing file "
                                     "is replaced.");
  output->type_name("FILE");
  auto* seconds = command->add_option("--for", options->seconds,
                                      "Stop after this time. Without it, record until Ctrl-C.");
  seconds->type_name("SECONDS")->check(tools::checkSeconds, "");
  auto* show = command->add_option("--show", options->shown,
                                   "Show a recording instead of making one; - is standard input.");
  show->type_name("FILE")->excludes(target)->excludes(output)->excludes(seconds);
  command->add_flag("--json", options->json, "With --show, print JSON lines.")->needs(show);
  command->callback([options, &exitCode] { exitCode = record::run(*options); });
}
