#include "tools/sim/sim.h"

#include <fmt/format.h>
#include <grpc/grpc.h>

#include <algorithm>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <charconv>
#include <cstdio>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "tools/common/Output.h"
#include "tools/common/Terminal.h"
#include "tools/common/Words.h"
#include "tools/sim/Commander.h"
#include "tools/sim/ConfiguredKeys.h"
#include "tools/sim/EngineAnswers.h"
#include "tools/sim/FaultPlan.h"
#include "tools/sim/Player.h"
#include "tools/sim/Relay.h"
#include "tools/sim/Report.h"
#include "tools/sim/Saboteur.h"
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
  PingPolicy pings;
  PlayerSettings playing;
  std::string config;       // whose keys play, too
  double heartbeat = 0;     // seconds; 0 for none
  FaultPlan faults;         // of the command line
  std::string faultPlan;    // a file with more
  bool liveFaults = false;  // more come on standard input
  bool json = false;
  std::optional<double> limit;  // seconds to run
  bool commands = false;
};

void say(std::string_view text) {
  tools::writeError(fmt::format("gatewayctl sim: {}\n", text));
}

// ---- Running --------------------------------------------------------------------------------

enum class Ending { Done, Interrupted };

// Takes one line; false if no more are wanted.
using LineUser = std::function<bool(std::string_view)>;

// Hands over the lines that have arrived. False when there will be no more: either side is done.
bool handOver(InputLines& input, const LineUser& use) {
  for (const auto& line : input.take()) {
    if (!use(line)) return false;
  }
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

// Runs a loop on a thread of its own, as long as this lives. A fault that can't be carried out does
// not end it.
class LoopThread {
 public:
  explicit LoopThread(asio::io_context& loop)
      : loop_(loop), thread_([this] {
          const auto work = asio::make_work_guard(loop_);
          while (!loop_.stopped()) runLoop();
        }) {}
  ~LoopThread() {
    loop_.stop();
    thread_.join();
  }
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

 private:
  void runLoop() {
    try {
      loop_.run();
    } catch (const std::exception& error) {
      say(error.what());
    }
  }

  asio::io_context& loop_;
  std::thread thread_;
};

// The server with the relays that a plan of faults needs in front of it.
class Services {
 public:
  Services(asio::io_context& loop, const Settings& settings, CallListener& listener)
      : simulator_(behindRelays(settings), listener, settings.pings),
        addresses_(simulator_.addresses()) {
    const auto& wanted = settings.addresses;
    const bool one = wanted.areOne();
    if (needsRelay(settings, Subject::Meters)) {
      putInFront(loop, meters_, wanted.meters, addresses_.meters, "--meters");
    }
    if (one) {
      addresses_.engine = addresses_.meters;
    } else if (needsRelay(settings, Subject::Engine)) {
      putInFront(loop, engine_, wanted.engine, addresses_.engine, "--engine");
    }
  }

  Simulator& simulator() { return simulator_; }
  // Where clients connect to.
  const Addresses& addresses() const { return addresses_; }
  // Null if there is none.
  Relay* meters() { return meters_.get(); }
  Relay* engine() { return addresses_.areOne() ? meters_.get() : engine_.get(); }

 private:
  // What is not served needs none.
  static bool needsRelay(const Settings& settings, Subject subject) {
    const auto& wanted = settings.addresses;
    const bool one = wanted.areOne();
    if ((subject == Subject::Meters ? wanted.meters : wanted.engine).empty()) return false;
    if (settings.liveFaults) return true;
    return std::any_of(settings.faults.begin(), settings.faults.end(), [&](const Fault& fault) {
      return fault.needsRelay(subject) || (one && fault.needsRelay(Subject::Engine));
    });
  }

  static Addresses behindRelays(const Settings& settings) {
    constexpr auto* inside = "127.0.0.1:0";
    auto addresses = settings.addresses;
    addresses.together = addresses.areOne();
    if (needsRelay(settings, Subject::Meters)) addresses.meters = inside;
    if (needsRelay(settings, Subject::Engine)) addresses.engine = inside;
    return addresses;
  }

  // `address` is the server's before, and the relay's afterwards.
  static void putInFront(asio::io_context& loop, std::unique_ptr<Relay>& relay,
                         const std::string& wanted, std::string& address, const char* option) {
    const auto port = std::stoi(address.substr(address.rfind(':') + 1));
    relay = std::make_unique<Relay>(loop, wanted, option, static_cast<unsigned short>(port));
    address = relay->address();
  }

  Simulator simulator_;
  Addresses addresses_;
  std::unique_ptr<Relay> meters_;
  std::unique_ptr<Relay> engine_;
};

// Has the fault of a line happen now. One that is no fault is complained of.
void strike(asio::io_context& loop, Saboteur& saboteur, std::string_view line) {
  if (tools::wordsOf(line).empty()) return;
  try {
    asio::post(loop, [&saboteur, fault = parseFaultOfNow(line)] { saboteur.strike(fault); });
  } catch (const std::invalid_argument& error) {
    say(error.what());
  }
}

Ending play(const Settings& settings, const SignalDescriptor& signals, Clock::time_point deadline) {
  const auto& playing = settings.playing;
  say(fmt::format("playing {} keys with seed {}", playing.keys.size(), playing.seed));
  if (playing.keys.empty() && !settings.addresses.meters.empty()) {
    say("nothing plays: give --config or --keys");
  }
  const Report report(settings.json);
  asio::io_context loop;
  EngineAnswers answers(loop);
  Player player(playing, report, answers);
  Services services(loop, settings, player);
  auto& simulator = services.simulator();
  report.listening(services.addresses());
  simulator.start();
  const Ticker fast(playing, player, simulator, Method::Fast);
  const Ticker slow(playing, player, simulator, Method::Slow);
  std::optional<Heartbeat> heartbeat;
  if (settings.heartbeat > 0) heartbeat.emplace(loop, settings.heartbeat, player, simulator);
  Saboteur saboteur(
      loop, settings.faults,
      {playing, report, player, answers, simulator, services.meters(), services.engine()});
  const LoopThread running(loop);
  if (!settings.liveFaults) return waitForEnd(signals, deadline, nullptr);
  return waitForEnd(signals, deadline, [&](std::string_view line) {
    strike(loop, saboteur, line);
    return true;
  });
}

Ending obey(const Settings& settings, const SignalDescriptor& signals, Clock::time_point deadline) {
  Commander commander;
  Simulator simulator(settings.addresses, commander, settings.pings);
  Report(false).listening(simulator.addresses());
  simulator.start();
  return waitForEnd(signals, deadline,
                    [&](std::string_view line) { return commander.carryOut(simulator, line); });
}

// What the files say is added to what the command line says.
void readFiles(Settings& settings) {
  auto& keys = settings.playing.keys;
  if (!settings.config.empty()) {
    for (auto& key : configuredKeys(settings.config)) {
      if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(std::move(key));
    }
  }
  if (settings.faultPlan.empty()) return;
  auto plan = readFaultPlan(settings.faultPlan);
  if (plan.empty()) say(fmt::format("the fault plan {} has no faults", settings.faultPlan));
  std::move(plan.begin(), plan.end(), std::back_inserter(settings.faults));
}

int run(Settings& settings) {
  constexpr int interruptedCode = 130;
  readFiles(settings);
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
std::string checkNumber(const std::string& text, double least, double most) {
  double number = 0;
  const bool isNumber = CLI::detail::lexical_cast(text, number);
  if (isNumber && number >= least && number <= most) return {};
  return fmt::format("\"{}\" is not a number from {} to {:.0f}", text, least, most);
}

auto numbersFrom(double least, double most) {
  return [=](const std::string& text) { return checkNumber(text, least, most); };
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

void addFaults(Settings& settings, const std::vector<std::string>& texts) {
  for (const auto& text : texts) {
    try {
      settings.faults.push_back(parseFault(text));
    } catch (const std::invalid_argument& error) {
      throw CLI::ValidationError("--fault", fmt::format("in \"{}\": {}", text, error.what()));
    }
  }
}

constexpr char events[] =
    "The first lines on standard output tell where it listens: \"meters ADDRESS:PORT\" and\n"
    "\"engine ADDRESS:PORT\". Then it tells of each parameter that it is sent, and of each fault:\n"
    "  SetParams 3 out.gain float -6.5\n"
    "  fault 3.000 end fast UNAVAILABLE\n"
    "  fault 5.000 freeze meters over\n"
    "With --json these are JSON, an object a line, and so are streams that open and close:\n"
    "  {\"event\":\"listening\",\"service\":\"meters\",\"address\":\"127.0.0.1:50005\"}\n"
    "  {\"event\":\"set_params\",\"call\":3,\"key\":\"out.gain\",\"type\":\"float\","
    "\"value\":-6.5}\n"
    "  {\"event\":\"set_params_unreadable\",\"call\":4,\"bytes\":\"ff\"}\n"
    "  {\"event\":\"opened\",\"stream\":\"fast\",\"call\":1,\"peer\":\"ipv4:127.0.0.1:40000\"}\n"
    "  {\"event\":\"closed\",\"stream\":\"fast\",\"call\":1,\"end\":\"cancelled\"}    or ended\n"
    "  {\"event\":\"fault\",\"at\":3.0,\"fault\":\"end\",\"subject\":\"fast\","
    "\"argument\":\"UNAVAILABLE\"}\n"
    "  {\"event\":\"fault_over\",\"at\":5.0,\"fault\":\"freeze\",\"subject\":\"meters\","
    "\"argument\":\"\"}\n"
    "A value's type is string, float, int, uint, double, floats, ints, uints or nothing.\n";

constexpr char pings[] =
    "A gRPC server sends a client away that pings too often (\"too_many_pings\"). At its defaults\n"
    "a ping is too early within five minutes of the one before, if nothing was sent in between,\n"
    "and two early ones are forgiven. --strict-pings does that; the simulator otherwise takes all\n"
    "pings. With STRIKES so many are forgiven; 1 is the strictest that gRPC has, since it takes 0\n"
    "for no limit.\n";

constexpr char commandEvents[] =
    "With --commands it tells of every call instead, and sends nothing but what commands say:\n"
    "  open fast 1 HEX|- deadline=none|set metadata=KEYS|-\n"
    "  sent fast 1 COUNT            after each send, when it is over\n"
    "  closed fast 1 cancelled|ended\n"
    "  SetParams 1 HEX|- deadline=none|set metadata=KEYS|-\n"
    "  closed SetParams 1 cancelled|replied\n"
    "  error TEXT                   for a command that can't be carried out\n"
    "Commands:\n";

std::string manual() {
  return fmt::format(
      "Example: serve both services and play two signals until Ctrl-C\n"
      "  gatewayctl sim --keys fast:float:out.level \"slow:string:dsp state\"\n"
      "Example: play what a gateway is configured to receive, and let its connection fail\n"
      "  gatewayctl sim --config /etc/sonalith/grpc-gateway.conf.example --fault \"every 20 for 5: "
      "freeze meters\"\n\n"
      "{}\n{}\n{}\n{}{}\nExit codes: 0 done, 1 can't listen or read a file, 2 wrong use, 130 "
      "interrupted.",
      events, faultManual(), pings, commandEvents, Commander::manual());
}

void addServing(CLI::App& sim, Settings& settings) {
  sim.add_option("--meters", settings.addresses.meters,
                 "Where to serve meters; port 0 takes any free port, \"\" serves none")
      ->type_name("ADDRESS:PORT")
      ->check(checkAddress, "")
      ->capture_default_str();
  sim.add_option("--engine", settings.addresses.engine, "Where to serve the engine; likewise")
      ->type_name("ADDRESS:PORT")
      ->check(checkAddress, "")
      ->capture_default_str();
  sim.add_option_function<int>(
         "--strict-pings", [&](int strikes) { settings.pings.strikes = strikes; },
         "Send clients away that ping too often, as gRPC servers do by default; see below")
      ->type_name("[STRIKES]")
      ->expected(0, 1)
      ->default_str("2")
      ->check(numbersFrom(0, 1e6), "");
  sim.add_option("--for", settings.limit, "End by itself after so long")
      ->type_name("SECONDS")
      ->check(numbersFrom(0, 1e9), "");
}

std::vector<CLI::Option*> addSignals(CLI::App& sim, Settings& settings) {
  const auto rates = numbersFrom(0, 10000);
  auto& playing = settings.playing;
  auto* keys = sim.add_option_function<std::vector<std::string>>(
      "--keys", [&](const auto& texts) { addKeys(settings, texts); },
      "What plays, each RATE:TYPE:KEY with RATE fast or slow and TYPE string, int, uint or float");
  keys->type_name("RATE:TYPE:KEY")->expected(1, CLI::detail::expected_max_vector_size);
  auto* config = sim.add_option("--config", settings.config,
                                "A configuration of the gateway: all its meter keys play, too");
  config->type_name("FILE");
  auto* most = sim.add_option("--values-per-message", playing.valuesPerMessage,
                              "The most values in a message; a batch of more is several messages");
  most->type_name("N")->check(numbersFrom(1, 1e9), "");
  auto* fast = sim.add_option("--rate-fast", playing.rateFast,
                              "Messages per second of each fast stream, 0 (silence) to 10000");
  fast->type_name("N")->check(rates, "")->capture_default_str();
  auto* slow = sim.add_option("--rate-slow", playing.rateSlow, "The same of each slow stream");
  slow->type_name("N")->check(rates, "")->capture_default_str();
  auto* seed = sim.add_option("--seed", playing.seed,
                              "Another seed plays other values, and draws other times of faults");
  seed->type_name("N")->capture_default_str();
  auto* heartbeat = sim.add_option("--heartbeat", settings.heartbeat,
                                   "Send an empty message on a stream that was quiet for so long");
  heartbeat->type_name("SECONDS")->check(numbersFrom(0.001, 1e6), "");
  return {keys, config, most, fast, slow, seed, heartbeat};
}

std::vector<CLI::Option*> addTrouble(CLI::App& sim, Settings& settings) {
  auto* fault = sim.add_option_function<std::vector<std::string>>(
      "--fault", [&](const auto& texts) { addFaults(settings, texts); },
      "Something that goes wrong, such as \"at 5: end fast UNAVAILABLE\"; see below");
  fault->type_name("\"WHEN: FAULT\"")->expected(1, CLI::detail::expected_max_vector_size);
  auto* plan = sim.add_option("--fault-plan", settings.faultPlan,
                              "A file of such lines; empty ones and what follows a # don't count");
  plan->type_name("FILE");
  auto* live = sim.add_flag("--live-faults", settings.liveFaults,
                            "Take faults on standard input, too: a line each, without WHEN, for "
                            "now; the end of the input is the end of the run");
  auto* json = sim.add_flag("--json", settings.json, "Tell all in JSON lines; see below");
  return {fault, plan, live, json};
}

void addOptions(CLI::App& sim, Settings& settings) {
  addServing(sim, settings);
  auto playing = addSignals(sim, settings);
  for (auto* option : addTrouble(sim, settings)) playing.push_back(option);
  auto* commands = sim.add_flag("--commands", settings.commands,
                                "Play nothing; take commands on standard input and tell of all "
                                "calls");
  for (auto* option : playing) commands->excludes(option);
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
