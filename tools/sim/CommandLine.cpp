#include "tools/sim/CommandLine.h"

#include <fmt/format.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/Numbers.h"
#include "tools/common/Terminal.h"
#include "tools/sim/Commander.h"

namespace sim {
namespace {

// Checks for CLI11: they return an error message, or nothing.
auto numbersFrom(double least, double most) {
  return [=](const std::string& text) { return tools::checkNumber(text, least, most); };
}

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
      ->check(tools::checkSeconds, "");
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

}  // namespace

void addOptions(CLI::App& sim, Settings& settings) {
  addServing(sim, settings);
  auto playing = addSignals(sim, settings);
  for (auto* option : addTrouble(sim, settings)) playing.push_back(option);
  auto* commands = sim.add_flag("--commands", settings.commands,
                                "Play nothing; take commands on standard input and tell of all "
                                "calls");
  for (auto* option : playing) commands->excludes(option);
}

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

}  // namespace sim
