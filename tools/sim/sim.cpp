#include "tools/sim/sim.h"

#include <fmt/format.h>
#include <grpc/grpc.h>

#include <charconv>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "tools/Terminal.h"
#include "tools/sim/Commander.h"
#include "tools/sim/Player.h"
#include "tools/sim/Signals.h"
#include "tools/sim/Simulator.h"

namespace sim {
namespace {

using tools::Arrival;
using tools::Clock;
using tools::InputLines;
using tools::SignalDescriptor;

struct Settings {
  Addresses addresses{.meters = "127.0.0.1:50005", .engine = "127.0.0.1:50006"};
  PlayerSettings playing;
  std::optional<double> limit;  // seconds to run
  bool commands = false;
};

// ---- Running --------------------------------------------------------------------------------

enum class Ending { Done, Interrupted };

// Takes one line; false if no more are wanted.
using LineUser = std::function<bool(std::string_view)>;

// Hands over the lines that have arrived; the end of the input ends a last line too. False when
// there will be no more: either side is done.
bool handOver(InputLines& input, const LineUser& use) {
  for (const auto& line : input.take()) {
    if (!use(line)) return false;
  }
  if (input.ended()) use(input.unfinished());
  return !input.ended();
}

// Waits for a signal or the deadline, and meanwhile hands lines of standard input to `use`, if
// there is such.
Ending waitForEnd(const SignalDescriptor& signals, Clock::time_point deadline,
                  const LineUser& use) {
  InputLines input;
  while (Clock::now() < deadline) {
    const auto arrival = tools::waitFor(signals, use ? &input : nullptr, deadline);
    if (arrival == Arrival::Signal) return Ending::Interrupted;
    if (arrival == Arrival::Input && !handOver(input, use)) break;
  }
  return Ending::Done;
}

void start(Simulator& simulator) {
  const auto& [meters, engine] = simulator.addresses();
  if (!meters.empty()) fmt::print("meters {}\n", meters);
  if (!engine.empty()) fmt::print("engine {}\n", engine);
  simulator.start();
}

Ending play(const Settings& settings, const SignalDescriptor& signals, Clock::time_point deadline) {
  const auto& playing = settings.playing;
  fmt::print(stderr, "gatewayctl sim: playing {} keys with seed {}\n", playing.keys.size(),
             playing.seed);
  Player player(playing);
  Simulator simulator(settings.addresses, player);
  start(simulator);
  const Ticker fast(playing, player, simulator, Method::Fast);
  const Ticker slow(playing, player, simulator, Method::Slow);
  return waitForEnd(signals, deadline, nullptr);
}

Ending obey(const Settings& settings, const SignalDescriptor& signals, Clock::time_point deadline) {
  Commander commander;
  Simulator simulator(settings.addresses, commander);
  start(simulator);
  return waitForEnd(signals, deadline,
                    [&](std::string_view line) { return commander.carryOut(simulator, line); });
}

int run(const Settings& settings) {
  constexpr int interruptedCode = 130;
  setvbuf(stdout, nullptr, _IOLBF, 0);
  // First of all: threads inherit which signals are blocked.
  const SignalDescriptor signals;
  // Never taken back: gRPC's own clean-up can wait ten seconds for one of its threads, which the
  // end of the process ends as well.
  grpc_init();
  const auto deadline = tools::momentIn(settings.limit);
  const auto ending = (settings.commands ? obey : play)(settings, signals, deadline);
  return ending == Ending::Interrupted ? interruptedCode : 0;
}

// ---- Command line ---------------------------------------------------------------------------

// Checks as CLI11 wants them: they return the error, or nothing.
std::string checkNumber(const std::string& text, double limit) {
  double number = 0;
  const bool isNumber = CLI::detail::lexical_cast(text, number);
  if (isNumber && number >= 0 && number <= limit) return {};
  return fmt::format("\"{}\" is not a number from 0 to {:.0f}", text, limit);
}

std::string checkAddress(const std::string& text) {
  if (text.empty()) return {};
  const auto colon = text.rfind(':');
  unsigned port = 0;
  const auto end = text.data() + text.size();
  const auto begin = colon == text.npos ? end : text.data() + colon + 1;
  const auto [stopped, error] = std::from_chars(begin, end, port);
  if (begin == text.data() + 1 || error != std::errc() || stopped != end || port > 65535) {
    return fmt::format("\"{}\" is not ADDRESS:PORT, such as 127.0.0.1:50005", text);
  }
  return {};
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

std::string manual() {
  return "Example: serve both services and play two signals until Ctrl-C\n"
         "  gatewayctl sim --keys fast:float:out.level \"slow:string:dsp state\"\n\n"
         "The first lines on standard output tell where it listens: \"meters ADDRESS:PORT\" and\n"
         "\"engine ADDRESS:PORT\". Then it tells of each parameter that it is sent:\n"
         "  SetParams 3 out.gain float -6.5\n"
         "With --commands it tells of every call instead, and sends nothing but what commands "
         "say:\n"
         "  open fast 1 HEX|- deadline=none|set metadata=KEYS|-\n"
         "  sent fast 1 COUNT            after each send, when it is over\n"
         "  closed fast 1 cancelled|ended\n"
         "  SetParams 1 HEX|- deadline=none|set metadata=KEYS|-\n"
         "  closed SetParams 1 cancelled|replied\n"
         "  error TEXT                   for a command that can't be carried out\n"
         "Commands:\n" +
         Commander::manual() +
         "\nExit codes: 0 done, 1 can't listen, 2 wrong use, 130 interrupted.";
}

void addOptions(CLI::App& sim, Settings& settings) {
  const auto rates = [](const std::string& text) { return checkNumber(text, 10000); };
  sim.add_option("--meters", settings.addresses.meters,
                 "Where to serve meters; port 0 takes any free port, \"\" serves none")
      ->type_name("ADDRESS:PORT")
      ->check(checkAddress, "")
      ->capture_default_str();
  sim.add_option("--engine", settings.addresses.engine, "Where to serve the engine; likewise")
      ->type_name("ADDRESS:PORT")
      ->check(checkAddress, "")
      ->capture_default_str();
  auto* keys = sim.add_option_function<std::vector<std::string>>(
      "--keys", [&](const auto& texts) { addKeys(settings, texts); },
      "What plays, each RATE:TYPE:KEY with RATE fast or slow and TYPE string, int, uint or float");
  keys->type_name("SPEC")->expected(1, CLI::detail::expected_max_vector_size);
  auto* fast = sim.add_option("--rate-fast", settings.playing.rateFast,
                              "Messages per second of each fast stream, 0 (silence) to 10000");
  fast->type_name("N")->check(rates, "")->capture_default_str();
  auto* slow =
      sim.add_option("--rate-slow", settings.playing.rateSlow, "The same of each slow stream");
  slow->type_name("N")->check(rates, "")->capture_default_str();
  auto* seed = sim.add_option("--seed", settings.playing.seed, "Another seed plays other values");
  seed->type_name("N")->capture_default_str();
  sim.add_option("--for", settings.limit, "End by itself after so long")
      ->type_name("SECONDS")
      ->check([](const std::string& text) { return checkNumber(text, 1e9); }, "");
  sim.add_flag("--commands", settings.commands,
               "Play nothing; take commands on standard input and tell of all calls")
      ->excludes(keys)
      ->excludes(fast)
      ->excludes(slow)
      ->excludes(seed);
}

}  // namespace
}  // namespace sim

void addSim(CLI::App& app, int& exitCode) {
  auto* command =
      app.add_subcommand("sim", "Stands in for the meter server and the engine service");
  const auto settings = std::make_shared<sim::Settings>();
  sim::addOptions(*command, *settings);
  command->footer(sim::manual());
  command->callback([settings, &exitCode] {
    if (settings->addresses.meters.empty() && settings->addresses.engine.empty()) {
      throw CLI::ValidationError("sim", "nothing to serve: give --meters or --engine an address");
    }
    exitCode = sim::run(*settings);
  });
}
