#include "tools/sim/sim.h"

#include <fmt/format.h>
#include <grpc/grpc.h>

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tools/common/ExitCode.h"
#include "tools/common/Output.h"
#include "tools/common/Terminal.h"
#include "tools/common/Words.h"
#include "tools/sim/CommandLine.h"
#include "tools/sim/Commander.h"
#include "tools/sim/ConfiguredKeys.h"
#include "tools/sim/Control.h"
#include "tools/sim/EngineAnswers.h"
#include "tools/sim/FaultPlan.h"
#include "tools/sim/Journal.h"
#include "tools/sim/Player.h"
#include "tools/sim/Replay.h"
#include "tools/sim/Report.h"
#include "tools/sim/Saboteur.h"
#include "tools/sim/Services.h"
#include "tools/sim/Settings.h"
#include "tools/sim/Simulator.h"

namespace sim {
namespace {

using tools::Arrival;
using tools::Clock;
using tools::ExitCode;
using tools::InputLines;
using tools::SignalDescriptor;

// Takes one line; false if it wants no more.
using LineUser = std::function<bool(std::string_view)>;

// Hands over the lines that have arrived. False if the input has ended or `use` wants no more.
bool handOver(InputLines& input, const LineUser& use) {
  for (const auto& line : input.take()) {
    if (!use(line)) return false;
  }
  return !input.ended();
}

// Waits for a signal, the deadline or the end of standard input, and hands its lines to `use`. If
// `use` is empty, leaves standard input alone.
ExitCode waitForEnd(const SignalDescriptor& signals, Clock::time_point deadline,
                    const LineUser& use) {
  InputLines input;
  while (Clock::now() < deadline) {
    const auto arrival = tools::waitFor(signals, use ? &input : nullptr, deadline);
    if (arrival == Arrival::Signal) return ExitCode::Interrupted;
    if (arrival == Arrival::Input && !handOver(input, use)) break;
  }
  return ExitCode::Done;
}

// Runs a loop on a thread of its own for as long as this lives. A fault that can't be carried out
// throws, which does not end the loop.
class LoopThread {
 public:
  explicit LoopThread(boost::asio::io_context& loop)
      : loop_(loop), thread_([this] {
          const auto work = boost::asio::make_work_guard(loop_);
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
      tools::say("sim", error.what());
    }
  }

  boost::asio::io_context& loop_;
  std::thread thread_;
};

// Makes the fault in `line` happen now. Reports a line that names no fault.
void strike(boost::asio::io_context& loop, Saboteur& saboteur, std::string_view line) {
  if (tools::wordsOf(line).empty()) return;
  try {
    boost::asio::post(loop,
                      [&saboteur, fault = parseImmediateFault(line)] { saboteur.strike(fault); });
  } catch (const std::invalid_argument& error) {
    tools::say("sim", error.what());
  }
}

// Says what is going to play. Returns the plan of a replay.
std::optional<ReplayPlan> announce(const Settings& settings) {
  const auto& [file, speed, from, to, loop] = settings.replay;
  const auto& playing = settings.playing;
  if (!file.empty()) {
    const auto plan = planOf(settings.replay);
    tools::say("sim",
               fmt::format("replaying {}: {} messages in {:.3f} seconds", file, plan.messages,
                           static_cast<double>(plan.to - plan.from) / 1e6 / speed));
    return plan;
  }
  tools::say("sim", fmt::format("playing {} keys with seed {}", playing.keys.size(), playing.seed));
  if (playing.keys.empty() && !settings.addresses.meters.empty() && !settings.control) {
    tools::say("sim", "nothing plays: give --config, --keys, --replay or --control");
  }
  return std::nullopt;
}

ExitCode play(const Settings& settings, const SignalDescriptor& signals,
              Clock::time_point deadline) {
  const auto plan = announce(settings);
  auto playing = settings.playing;
  // The keys of a replay serve its faults alone.
  if (plan) playing.rateFast = playing.rateSlow = 0;
  Journal journal;
  const Report report(settings.json, settings.control ? &journal : nullptr);
  boost::asio::io_context loop;
  EngineAnswers answers(loop, playing.seed);
  Player player(playing, report, answers, loop);
  std::optional<Replayer> replayer;
  if (plan) replayer.emplace(settings.replay, *plan, player, report);
  CallListener& listener = replayer ? static_cast<CallListener&>(*replayer) : player;
  Services services(loop, settings, listener);
  auto& simulator = services.simulator();
  report.listening(services.addresses());
  simulator.start();
  const Ticker fast(playing, player, simulator, Method::Fast);
  const Ticker slow(playing, player, simulator, Method::Slow);
  std::optional<Heartbeat> heartbeat;
  if (settings.heartbeat > 0) heartbeat.emplace(loop, settings.heartbeat, player, simulator);
  Saboteur saboteur(loop, settings.faults,
                    {playing, player, answers, simulator, services.meters(), services.engine()},
                    report);
  const LoopThread running(loop);
  std::optional<Control> control;
  if (settings.control) {
    control.emplace(*settings.control, Controlled{loop, simulator, services.addresses(), saboteur,
                                                  journal, player.delivery()});
    report.listening("control", control->address());
  }
  if (!settings.liveFaults) return waitForEnd(signals, deadline, nullptr);
  return waitForEnd(signals, deadline, [&](std::string_view line) {
    strike(loop, saboteur, line);
    return true;
  });
}

ExitCode obey(const Settings& settings, const SignalDescriptor& signals,
              Clock::time_point deadline) {
  Commander commander;
  Simulator simulator(settings.addresses, commander, settings.pings);
  Report(false).listening(simulator.addresses());
  simulator.start();
  return waitForEnd(signals, deadline,
                    [&](std::string_view line) { return commander.carryOut(simulator, line); });
}

// Adds the keys and faults in files to those on the command line.
void readFiles(Settings& settings) {
  auto& keys = settings.playing.keys;
  if (!settings.config.empty()) {
    for (auto& key : configuredKeys(settings.config)) {
      if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(std::move(key));
    }
  }
  if (settings.faultPlan.empty()) return;
  auto plan = readFaultPlan(settings.faultPlan);
  if (plan.empty()) {
    tools::say("sim", fmt::format("the fault plan {} has no faults", settings.faultPlan));
  }
  std::move(plan.begin(), plan.end(), std::back_inserter(settings.faults));
}

int run(Settings& settings) {
  readFiles(settings);
  // Before any thread starts, because threads inherit which signals are blocked.
  const SignalDescriptor signals;
  // Without grpc_shutdown: that can wait ten seconds for one of gRPC's threads, which the end of
  // the process ends anyway.
  grpc_init();
  const auto deadline = tools::momentIn(settings.limit);
  return (settings.commands ? obey : play)(settings, signals, deadline);
}

}  // namespace
}  // namespace sim

void addSim(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("sim", "Stand in for the meter server and the engine service");
  const auto settings = std::make_shared<sim::Settings>();
  sim::addOptions(*command, *settings);
  command->footer(sim::manual());
  command->callback([settings, &exitCode] {
    if (settings->addresses.meters.empty() && settings->addresses.engine.empty()) {
      throw CLI::ValidationError("nothing to serve: give --meters or --engine an address");
    }
    exitCode = sim::run(*settings);
  });
}
