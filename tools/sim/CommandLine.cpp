#include "tools/sim/CommandLine.h"

#include <fmt/format.h>

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "manual.h"
#include "tools/common/ManualText.h"
#include "tools/common/Numbers.h"
#include "tools/common/Terminal.h"
#include "tools/sim/Commander.h"
#include "tools/sim/Control.h"

namespace sim {
namespace {

// A check for CLI11: it returns an error message, or nothing.
std::string checkAddress(const std::string& text) {
  const auto colon = text.rfind(':');
  const bool hasBoth = colon != text.npos && colon > 0;
  const bool isGood =
      hasBoth && tools::numberIn<std::uint16_t>(std::string_view(text).substr(colon + 1));
  if (text.empty() || isGood) return {};
  return fmt::format("\"{}\" is not ADDRESS:PORT, such as 127.0.0.1:50005", text);
}

void addKeys(Settings& settings, const std::vector<std::string>& texts) {
  for (const auto& text : texts) {
    try {
      settings.playing.keys.push_back(parseKeySpec(text));
    } catch (const std::invalid_argument& error) {
      throw CLI::ValidationError("--keys", error.what());
    }
  }
}

void addFaults(Settings& settings, const std::vector<std::string>& texts) {
  for (const auto& text : texts) {
    try {
      settings.faults.push_back(parseFault(text));
    } catch (const std::invalid_argument& error) {
      throw CLI::ValidationError("--fault", fmt::format("in \"{}\": {}", text, error.what()));
    }
  }
}

void setControl(Settings& settings, const std::string& text) {
  try {
    settings.control = parseControlAddress(text);
  } catch (const std::invalid_argument& error) {
    throw CLI::ValidationError("--control", error.what());
  }
}

void addServing(CLI::App& sim, Settings& settings) {
  sim.add_option("--meters", settings.addresses.meters,
                 "Where to serve the meters. Port 0 takes any free port, \"\" serves none.")
      ->type_name("ADDRESS:PORT")
      ->check(checkAddress, "")
      ->capture_default_str();
  sim.add_option("--engine", settings.addresses.engine,
                 "Where to serve the engine service, in the same way.")
      ->type_name("ADDRESS:PORT")
      ->check(checkAddress, "")
      ->capture_default_str();
  sim.add_option_function<int>(
         "--strict-pings", [&](int strikes) { settings.pings.strikes = strikes; },
         "Disconnect clients that ping too often, as gRPC servers do by default. See PINGS.")
      ->type_name("STRIKES")
      ->expected(0, 1)
      ->default_str("2")
      ->check(tools::numbersFrom(0, 1000000), "");
  sim.add_option("--for", settings.limit, "Stop after this time.")
      ->type_name("SECONDS")
      ->check(tools::checkSeconds, "");
}

// The options that say what plays.
struct PlayingOptions {
  std::vector<CLI::Option*> all;
  std::vector<CLI::Option*> ofSignals;  // without a meaning for a replay
};

PlayingOptions addSignals(CLI::App& sim, Settings& settings) {
  const auto rates = tools::numbersFrom(0.0, 10000.0);
  auto& playing = settings.playing;
  auto* keys = sim.add_option_function<std::vector<std::string>>(
      "--keys", [&](const auto& texts) { addKeys(settings, texts); },
      "Play these keys. RATE is fast or slow; TYPE is string, int, uint or float.");
  keys->type_name("RATE:TYPE:KEY")->expected(1, CLI::detail::expected_max_vector_size);
  auto* config = sim.add_option("--config", settings.config,
                                "Play all meter keys of this configuration, too.");
  config->type_name("FILE");
  auto* most = sim.add_option("--values-per-message", playing.valuesPerMessage,
                              "Split batches of more than N values into several messages.");
  most->type_name("N")->check(tools::numbersFrom<std::size_t>(1, 1000000000), "");
  auto* fast = sim.add_option("--rate-fast", playing.rateFast,
                              "Messages per second on each fast stream, 0 (none) to 10000.");
  fast->type_name("N")->check(rates, "")->capture_default_str();
  auto* slow = sim.add_option("--rate-slow", playing.rateSlow,
                              "Messages per second on each slow stream, 0 (none) to 10000.");
  slow->type_name("N")->check(rates, "")->capture_default_str();
  auto* seed = sim.add_option("--seed", playing.seed,
                              "The seed of the values that play, and of random times of faults.");
  seed->type_name("N")->capture_default_str();
  seed->check(tools::numbersFrom<std::uint64_t>(0, std::numeric_limits<std::uint64_t>::max()), "");
  auto* heartbeat = sim.add_option("--heartbeat", settings.heartbeat,
                                   "Send an empty message on a stream that was quiet this long.");
  heartbeat->type_name("SECONDS")->check(tools::numbersFrom(0.001, 1e6), "");
  return {{keys, config, most, fast, slow, seed, heartbeat}, {most, fast, slow, heartbeat}};
}

CLI::Option* addReplay(CLI::App& sim, ReplaySettings& replay) {
  auto* file = sim.add_option("--replay", replay.file,
                              "Replay a recording of gatewayctl record instead of playing signals. "
                              "See REPLAY.");
  file->type_name("FILE");
  auto* speed = sim.add_option("--speed", replay.speed,
                               "Replay N times as fast as it was recorded, 0.001 to 1000.");
  speed->type_name("N")->capture_default_str()->check(tools::numbersFrom(0.001, 1000.0), "");
  auto* from = sim.add_option("--from", replay.from, "Skip the first seconds of the recording.");
  from->type_name("SECONDS")->capture_default_str()->check(tools::checkSeconds, "");
  auto* to = sim.add_option("--to", replay.to,
                            "End the replay at this time of the recording, not at its end.");
  to->type_name("SECONDS")->check(tools::checkSeconds, "");
  auto* loop = sim.add_flag("--loop", replay.loop, "Replay the recording again and again.");
  for (auto* option : {speed, from, to, loop}) option->needs(file);
  return file;
}

std::vector<CLI::Option*> addTrouble(CLI::App& sim, Settings& settings) {
  auto* fault = sim.add_option_function<std::vector<std::string>>(
      "--fault", [&](const auto& texts) { addFaults(settings, texts); },
      "Inject a fault, such as \"at 5: end fast UNAVAILABLE\". See FAULTS.");
  fault->type_name("\"WHEN: FAULT\"")->expected(1, CLI::detail::expected_max_vector_size);
  auto* plan = sim.add_option("--fault-plan", settings.faultPlan,
                              "Inject the faults of a file, one per line. \"#\" starts a comment.");
  plan->type_name("FILE");
  auto* live = sim.add_flag("--live-faults", settings.liveFaults,
                            "Inject faults from standard input, too. Each line is a fault without "
                            "WHEN, which happens at once. The end of the input ends the program.");
  auto* control = sim.add_option_function<std::string>(
      "--control", [&](const auto& text) { setControl(settings, text); },
      "Serve an HTTP interface for tests, which sends messages, ends streams, injects faults and "
      "waits for parameters. See CONTROL.");
  control->type_name("ADDRESS:PORT");
  auto* json = sim.add_flag("--json", settings.json, "Print JSON lines. See OUTPUT.");
  return {fault, plan, live, control, json};
}

}  // namespace

void addOptions(CLI::App& sim, Settings& settings) {
  addServing(sim, settings);
  auto [playing, ofSignals] = addSignals(sim, settings);
  auto* replay = addReplay(sim, settings.replay);
  for (auto* option : ofSignals) replay->excludes(option);
  playing.push_back(replay);
  for (auto* option : addTrouble(sim, settings)) playing.push_back(option);
  auto* commands = sim.add_flag("--commands", settings.commands,
                                "Obey commands on standard input instead of playing, and "
                                "print every event of a call. See COMMANDS.");
  for (auto* option : playing) commands->excludes(option);
}

std::string manual() {
  return tools::manualOf(manual_txt,
                         {{"faults", faultManual()}, {"commands", Commander::manual()}});
}

}  // namespace sim
