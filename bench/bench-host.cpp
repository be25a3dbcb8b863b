// What the host's thread spends in the module, compared with bare gRPC in the same process:
//
//   notify-1/SUBJECT          CPU of a notification of 1 change, with 16 entries configured
//   notify-64/SUBJECT         the same for 64 changes, with 256 entries configured
//   start-present/SUBJECT     time of a startCycle with 192 entries; bare: opening a channel and
//   start-absent/SUBJECT        two streams. Each start has a new address, so that it shares no
//   start-silent/SUBJECT        connection. A silent server accepts connections, but sends nothing
//   stop-quiet/SUBJECT        time of a stopCycle; bare: cancelling the streams, shutting the queue
//   stop-busy/SUBJECT           down, draining it and releasing the channel
//
// SUBJECT is bare or module. For stops it may also be alarm: a bare client whose queue's thread is
// woken by an alarm, as the module's is. Notifications are timed in groups of 8; a group begins
// when all calls of the group before have been answered.
//
// With --long-starts it measures only these:
//
//   start-COUNT               time of a startCycle with COUNT entries. The counter "host" has the
//                               seconds of it that the host's operations took
//
//   bench-host --quiet PORT --busy PORT --board FILE [--long-starts]
//              [OPTIONS OF GOOGLE BENCHMARK]
//
// The ports are those of a bench-server with pace "once" and one with pace "full".
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/BareClient.h"
#include "bench/Board.h"
#include "standin/Host.h"
#include "standin/LoadedModule.h"
#include "standin/MemoryFile.h"

namespace {

using bench::nanoseconds;

std::uint16_t quietPort = 0;
std::uint16_t busyPort = 0;
std::uint16_t silentPort = 0;
std::uint16_t absentPort = 0;
std::string boardPath;
bool longStarts = false;

std::string targetOf(std::uint16_t port) {
  return "127.0.0.1:" + std::to_string(port);
}

// A loopback address that has not been used before, so that no connection is shared.
std::string newTargetOf(std::uint16_t port) {
  static unsigned count = 0;
  ++count;
  return "127.1." + std::to_string(count / 250) + "." + std::to_string(1 + count % 250) + ":" +
         std::to_string(port);
}

// Binds a port at all addresses for the life of the process. If silent, it also listens: the kernel
// then accepts connections, but nothing ever answers. Otherwise connections are refused.
std::uint16_t holdPort(bool silent) {
  const int holder = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  if (bind(holder, any, size) != 0 || getsockname(holder, any, &size) != 0 ||
      (silent && listen(holder, 1024) != 0)) {
    throw std::runtime_error("can't reserve a port");
  }
  return ntohs(address.sin_port);
}

// ---- The module ---------------------------------------------------------------------------------

standin::Choices lean() {
  standin::Choices choices;
  choices.keepRecords = false;
  choices.isLean = true;
  choices.timesOperations = longStarts;
  return choices;
}

// What all instances of the module share. It is never destroyed.
struct Environment {
  standin::Host host{lean()};
  standin::LoadedModule module{GATEWAY_MODULE};
  std::unique_ptr<standin::MemoryFile> configuration;
};

Environment& environment() {
  static auto* const shared = new Environment;
  return *shared;
}

class Gateway {
 public:
  void start(const std::string& path) {
    if (instance_.start(path) != 0) throw std::runtime_error("the module did not start");
  }
  void stop() { instance_.stop(); }
  void notify(standin::KeyValueList& changes) { engine_.notify(&changes); }

  bool everyStreamHasMessages() const {
    return hasMessages(standin::SlotSet::Fast) && hasMessages(standin::SlotSet::Slow);
  }

 private:
  bool hasMessages(standin::SlotSet set) const {
    return instance_.slot(set, "sequence").read() != standin::SlotValue(0.0f);
  }

  standin::Engine engine_;
  standin::ModuleInstance instance_{environment().module, engine_};
};

std::string engineEntries(int count) {
  std::string text = "[EngineFloat]\n";
  for (int i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    text += "Param=Key=channel." + number + ".gain CustomKey=channel_" + number + "_gain\n";
  }
  return text;
}

// The first float of each rate is the sequence number of the stream.
std::string meterLine(const std::string& type, const std::string& rate, int i) {
  const bool isSequence = i == 0 && type == "Float";
  const std::string number = std::to_string(i);
  const std::string key = isSequence ? "sequence" : "channel." + number + "." + rate;
  const std::string name = isSequence ? "sequence" : type + "_" + number;
  return "Meter=Key=" + key + " CustomKey=" + name + " Type=" + rate + "\n";
}

// All twelve lists, with `count` entries in all.
std::string fullConfiguration(const std::string& target, int count = 192) {
  std::string text = "[Meters]\nTarget=" + target + "\n[Engine]\nTarget=" + target + "\n";
  int list = 0;
  const auto addEntries = [&](auto line) {
    const int size = (count + list++) / 12;
    for (int i = 0; i < size; ++i) text += line(i);
  };
  for (const std::string type : {"String", "Int", "Uint", "Float"}) {
    text += "[Meters" + type + "]\n";
    for (const char* rate : {"fast", "slow"}) {
      addEntries([&](int i) { return meterLine(type, rate, i); });
    }
    text += "[Engine" + type + "]\n";
    addEntries([](int i) { return "Param=Key=gain." + std::to_string(i) + "\n"; });
  }
  return text;
}

// The path is valid until the next call.
std::string write(const std::string& configuration) {
  auto& file = environment().configuration;
  file = std::make_unique<standin::MemoryFile>(configuration);
  return file->path();
}

// ---- Notifications ------------------------------------------------------------------------------

constexpr int group = 8;

// Measures groups of calls; `send` starts one call.
template <class Send>
void measureCalls(benchmark::State& state, Send send) {
  static bench::Board& board = bench::openBoard(boardPath);
  for (auto _ : state) {
    const std::uint64_t answered = board.answeredCalls + group;
    const std::uint64_t before = nanoseconds(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i < group; ++i) send();
    const std::uint64_t after = nanoseconds(CLOCK_THREAD_CPUTIME_ID);
    state.SetIterationTime(static_cast<double>(after - before) / 1e9);
    while (board.answeredCalls < answered) {
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  }
}

std::vector<int> changedOf(int changes, int entries) {
  std::vector<int> changed;
  for (int i = 0; i < changes; ++i) changed.push_back((2 * i + 1) * entries / (2 * changes));
  return changed;
}

void notifyBare(benchmark::State& state, int changes, int entries) {
  static auto* const sender = new bench::BareSender(targetOf(quietPort));
  std::vector<std::string> keys;
  for (const int i : changedOf(changes, entries)) {
    keys.push_back("channel." + std::to_string(i) + ".gain");
  }
  measureCalls(state, [&] { sender->send(keys); });
}

Gateway& senderOf(int entries) {
  static std::map<int, std::unique_ptr<Gateway>> senders;
  auto& sender = senders[entries];
  if (!sender) {
    sender = std::make_unique<Gateway>();
    sender->start(
        write("[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n[Engine]\nTarget=" +
              targetOf(quietPort) + "\n" + engineEntries(entries)));
  }
  return *sender;
}

void notifyModule(benchmark::State& state, int changes, int entries) {
  Gateway& sender = senderOf(entries);
  standin::KeyValueList list;
  for (const int i : changedOf(changes, entries)) {
    list.addFloat(("gateway.channel_" + std::to_string(i) + "_gain").c_str(), 1);
  }
  measureCalls(state, [&] { sender.notify(list); });
}

// ---- Start and stop -----------------------------------------------------------------------------

template <class Action>
double secondsOf(Action action) {
  const std::uint64_t before = nanoseconds(CLOCK_MONOTONIC);
  action();
  return static_cast<double>(nanoseconds(CLOCK_MONOTONIC) - before) / 1e9;
}

template <class Subject>
void untilMessages(const Subject& subject) {
  while (!subject.everyStreamHasMessages()) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
}

// With an absent server the module's streams wait for their retry, and a stop would have to wait,
// too: such an instance is left running.
enum class After { Stop, Leave };

void startBare(benchmark::State& state, std::uint16_t port, After after) {
  for (auto _ : state) {
    const std::string target = newTargetOf(port);
    write(fullConfiguration(target));  // leaves the caches in the same state as for the module
    std::unique_ptr<bench::BareReader> reader;
    state.SetIterationTime(
        secondsOf([&] { reader = std::make_unique<bench::BareReader>(target, true); }));
    if (after == After::Leave) static_cast<void>(reader.release());
  }
}

void startModule(benchmark::State& state, std::uint16_t port, After after) {
  for (auto _ : state) {
    const std::string path = write(fullConfiguration(newTargetOf(port)));
    auto gateway = std::make_unique<Gateway>();
    state.SetIterationTime(secondsOf([&] { gateway->start(path); }));
    if (after == After::Stop) {
      gateway->stop();
    } else {
      static_cast<void>(gateway.release());
    }
  }
}

void startLong(benchmark::State& state, int count) {
  standin::Host& host = environment().host;
  for (auto _ : state) {
    const std::string path = write(fullConfiguration(newTargetOf(quietPort), count));
    Gateway gateway;
    const std::chrono::nanoseconds before = host.timeInOperations();
    state.SetIterationTime(secondsOf([&] { gateway.start(path); }));
    const std::chrono::duration<double> inHost = host.timeInOperations() - before;
    state.counters["host"] = inHost.count();
    gateway.stop();
  }
}

using WokenBy = bench::BareReader::WokenBy;

void stopBare(benchmark::State& state, std::uint16_t port, WokenBy wokenBy) {
  for (auto _ : state) {
    auto reader = std::make_unique<bench::BareReader>(newTargetOf(port), true, nullptr, wokenBy);
    untilMessages(*reader);
    state.SetIterationTime(secondsOf([&] { reader.reset(); }));
  }
}

void stopModule(benchmark::State& state, std::uint16_t port) {
  for (auto _ : state) {
    Gateway gateway;
    gateway.start(write(fullConfiguration(newTargetOf(port))));
    untilMessages(gateway);
    state.SetIterationTime(secondsOf([&] { gateway.stop(); }));
  }
}

// ---- All of it ----------------------------------------------------------------------------------

template <class Run>
void add(const char* name, int iterations, Run run) {
  benchmark::RegisterBenchmark(name, run)->Iterations(iterations)->UseManualTime();
}

void registerLongStarts() {
  for (const int count : {200, 2000, 20000}) {
    add(("start-" + std::to_string(count)).c_str(), 1,
        [=](auto& state) { startLong(state, count); });
  }
}

void registerAll(int groups) {
  using State = benchmark::State;
  add("notify-1/bare", groups, [](State& state) { notifyBare(state, 1, 16); });
  add("notify-1/module", groups, [](State& state) { notifyModule(state, 1, 16); });
  add("notify-64/bare", groups, [](State& state) { notifyBare(state, 64, 256); });
  add("notify-64/module", groups, [](State& state) { notifyModule(state, 64, 256); });
  add("start-present/bare", 1, [](State& state) { startBare(state, quietPort, After::Stop); });
  add("start-present/module", 1, [](State& state) { startModule(state, quietPort, After::Stop); });
  add("start-absent/bare", 1, [](State& state) { startBare(state, absentPort, After::Leave); });
  add("start-absent/module", 1, [](State& state) { startModule(state, absentPort, After::Leave); });
  add("start-silent/bare", 1, [](State& state) { startBare(state, silentPort, After::Stop); });
  add("start-silent/module", 1, [](State& state) { startModule(state, silentPort, After::Stop); });
  add("stop-quiet/bare", 1, [](State& state) { stopBare(state, quietPort, WokenBy::Ends); });
  add("stop-quiet/alarm", 1, [](State& state) { stopBare(state, quietPort, WokenBy::Alarm); });
  add("stop-quiet/module", 1, [](State& state) { stopModule(state, quietPort); });
  add("stop-busy/bare", 1, [](State& state) { stopBare(state, busyPort, WokenBy::Ends); });
  add("stop-busy/alarm", 1, [](State& state) { stopBare(state, busyPort, WokenBy::Alarm); });
  add("stop-busy/module", 1, [](State& state) { stopModule(state, busyPort); });
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  CLI::App app("What the host's thread spends in the module.");
  int groups = 20;
  app.add_option("--quiet", quietPort)->required();
  app.add_option("--busy", busyPort)->required();
  app.add_option("--board", boardPath)->required();
  app.add_option("--groups", groups);
  app.add_flag("--long-starts", longStarts);
  CLI11_PARSE(app, argc, argv);
  silentPort = holdPort(true);
  absentPort = holdPort(false);
  longStarts ? registerLongStarts() : registerAll(groups);
  benchmark::RunSpecifiedBenchmarks();
  std::fflush(stdout);
  std::_Exit(0);
}
