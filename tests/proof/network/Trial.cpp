#include "tests/proof/network/Trial.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace network {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Five seconds less what clocks that are read at different ends may differ by.
constexpr Seconds retryDelay{4.99};
// What is tried while a stream waits is still so when its retry comes.
constexpr Seconds beyondTheRetry{6};
// The rest of a retry's five seconds, and what a busy machine takes for all else.
constexpr Seconds longestStop{5 + 5};
// Messages a second on each stream, and what is about a second's.
constexpr auto rate = "20";
constexpr int aSecondsWorth = 20;
// No value that plays.
constexpr auto untouched = "-77";

constexpr auto paramsEvent = R"({"event":"set_params",)";

const std::array<std::string, 2> streamNames{"fast", "slow"};

double since(Clock::time_point start) {
  return Seconds(Clock::now() - start).count();
}

std::string openedEvent(const std::string& stream) {
  return R"({"event":"opened","stream":")" + stream + "\",";
}

std::string callOf(const std::string& stream, int call) {
  return "\"stream\":\"" + stream + "\",\"call\":" + std::to_string(call) + ",";
}

std::string slotLine(const std::string& stream) {
  return stream + " level ";
}

std::ptrdiff_t count(const ToolProcess& process, const std::string& prefix) {
  const auto lines = process.lines();
  return std::count_if(lines.begin(), lines.end(),
                       [&](const auto& line) { return line.starts_with(prefix); });
}

std::string configuration(const std::string& meters, const std::string& engine) {
  std::string text = "[Meters]\nTarget=" + meters + "\n[Engine]\nTarget=" + engine +
                     "\n[EngineInt]\nParam=Key=delay CustomKey=delay\n[MetersFloat]\n";
  for (const auto& stream : streamNames) {
    text += "Meter=Key=level CustomKey=level DefaultValue=" + std::string(untouched) +
            " Type=" + stream + "\n";
  }
  return text + "[MetersString]\nMeter=Key=state\nMeter=Key=state Type=slow\n";
}

// What a process holds of the machine.
struct Usage {
  int threads = 0;
  double memory = 0;  // MiB
};

Usage usageOf(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  Usage usage;
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("Threads:")) usage.threads = std::stoi(line.substr(8));
    if (line.starts_with("VmRSS:")) usage.memory = std::stod(line.substr(6)) / 1024;
  }
  return usage;
}

// Where gateway and servers are when there is a wire between them, or one for each server.
struct Net {
  explicit Net(std::uint64_t seed)
      : meters({gateway, "10.77.1.1"}, {servers, "10.77.1.2"}, seed),
        engine({gateway, "10.77.2.1"}, {servers, "10.77.2.2"}, seed + 1) {}

  Namespace gateway;
  Namespace servers;
  Wire meters;
  Wire engine;
};

class Trial {
 public:
  explicit Trial(const Cell& cell) : cell_(cell), fault_(*cell.fault), random_(cell.seed) {
    if (fault_.isOfWire()) net_ = std::make_unique<Net>(cell.seed);
  }

  Finding run();

 private:
  // ---- What goes on ----
  void startServers();
  void startGateway();
  void change();
  void changeUntilOneArrives();
  void awaitValues(const std::string& stream, int count = aSecondsWorth) {
    host_->waitMore(slotLine(stream), count);
  }
  std::string valueOf(const std::string& stream);

  // ---- What goes wrong ----
  void strike();
  void lift();
  void tellSimulator(const std::string& line) { sim_->writeLine(line); }
  void endStream(const std::string& stream);
  // What the fault leaves alone goes on.
  void watchOthers();
  void watchOthersFor(Seconds time, Clock::time_point from);

  // ---- The moments ----
  void streamRunning();
  void streamWaiting();
  void callRunning();
  void callWaiting();
  void stopWhileStreaming();
  void stopWhileOtherWaits();
  void stopWithCall();
  void befall();
  void goThrough();
  void stopAmidst();

  // ---- What holds ----
  void expectRetry(const std::string& stream, Clock::time_point end);
  void expectEffect(Clock::time_point begin, Clock::time_point over);
  void expectAttempts();
  void expectValuesKept();
  void expectEachChangeOnce();
  void expectCleanEnd();
  void stop();
  void finishStop(Clock::time_point begin);
  void problem(const std::string& text) { finding_.problems.push_back(text); }

  bool isOfStream() const { return cell_.part != Part::SetParams; }
  const std::string& own() const { return streamNames[cell_.part == Part::Slow ? 1 : 0]; }
  const std::string& other() const { return streamNames[cell_.part == Part::Slow ? 0 : 1]; }
  bool endsBoth() const { return fault_.effect == Effect::EndsConnection; }
  // Whether the other stream is out of its reach.
  bool sparesOther() const {
    return !fault_.isOfWire() && sim::rowOf(*fault_.kind).group != sim::FaultGroup::Connection;
  }

  const Cell cell_;
  const Fault& fault_;
  std::mt19937_64 random_;
  Finding finding_;
  TemporaryFolder files_;
  std::unique_ptr<Net> net_;
  std::unique_ptr<ToolProcess> sim_;
  std::unique_ptr<ToolProcess> host_;
  std::map<std::string, int> attempts_;  // that the servers should have seen
  int changes_ = 0;
};

// ---- What goes on -------------------------------------------------------------------------------

void Trial::startServers() {
  const auto keys = files_.write("keys.conf", configuration("any:1", "any:2"));
  const auto start = [&] {
    sim_ = std::make_unique<ToolProcess>(std::vector<std::string>{
        "sim", "--json", "--live-faults", "--config", keys, "--meters",
        net_ ? "10.77.1.2:0" : SimProcess::anyPort, "--engine",
        net_ ? "10.77.2.2:0" : SimProcess::anyPort, "--rate-fast", rate, "--rate-slow", rate});
  };
  if (net_) {
    net_->servers.inside(start);
  } else {
    start();
  }
}

void Trial::startGateway() {
  const auto addressOf = [&](const std::string& service) {
    const auto before = R"({"event":"listening","service":")" + service + R"(","address":")";
    const auto line = sim_->waitLine(before);
    return line.substr(before.size(), line.find('"', before.size()) - before.size());
  };
  const auto path =
      files_.write("gateway.conf", configuration(addressOf("meters"), addressOf("engine")));
  const auto start = [&] {
    host_ = std::make_unique<ToolProcess>(
        std::vector<std::string>{"host", path, "--no-page", "--watch"});
  };
  if (net_) {
    net_->gateway.inside(start);
  } else {
    start();
  }
  for (const auto& stream : streamNames) {
    sim_->waitLine(openedEvent(stream));
    attempts_[stream] = 1;
    awaitValues(stream, 2);
  }
  change();
}

void Trial::change() {
  const auto value = std::to_string(++changes_);
  host_->writeLine("set delay " + value);
  while (!sim_->waitLine(paramsEvent).ends_with("\"value\":" + value + "}")) continue;
}

// Calls may be lost until the connection is back.
void Trial::changeUntilOneArrives() {
  constexpr milliseconds lookAgain(20);
  constexpr int looks = 25;
  const auto before = count(*sim_, paramsEvent);
  const auto begin = Clock::now();
  while (count(*sim_, paramsEvent) == before) {
    if (Clock::now() - begin > patience) throw std::runtime_error("no SetParams call arrives");
    host_->writeLine("set delay " + std::to_string(++changes_));
    for (int i = 0; i < looks && count(*sim_, paramsEvent) == before; ++i) {
      std::this_thread::sleep_for(lookAgain);
    }
  }
}

// As a row of the table that "get" prints: set, type, name, value.
std::string Trial::valueOf(const std::string& stream) {
  host_->writeLine("get level");
  std::istringstream words(host_->waitLine(stream + "  float"));
  std::string word;
  for (int i = 0; i < 4; ++i) words >> word;
  return word;
}

// ---- What goes wrong ----------------------------------------------------------------------------

void Trial::strike() {
  if (!fault_.isOfWire()) return tellSimulator(fault_.lineFor(cell_.part));
  (isOfStream() ? net_->meters : net_->engine).setWeather(fault_.weather);
}

void Trial::lift() {
  if (fault_.isOfWire()) {
    (isOfStream() ? net_->meters : net_->engine).setWeather({});
  } else if (fault_.lasts) {
    tellSimulator("normal");
  }
}

void Trial::endStream(const std::string& stream) {
  tellSimulator("end " + stream + " UNAVAILABLE");
  sim_->waitLine(R"({"event":"closed",)" + callOf(stream, attempts_[stream]));
}

void Trial::watchOthers() {
  if (!isOfStream()) {
    awaitValues(own());
    awaitValues(other(), 1);
    return;
  }
  if (sparesOther()) awaitValues(other());
  constexpr milliseconds tenthOfASecond(100);
  for (int i = 0; i < 10; ++i) {
    change();
    if (!sparesOther()) std::this_thread::sleep_for(tenthOfASecond);
  }
}

void Trial::watchOthersFor(Seconds time, Clock::time_point from) {
  while (since(from) < time.count()) watchOthers();
}

// ---- The moments --------------------------------------------------------------------------------

void Trial::streamRunning() {
  const auto begin = Clock::now();
  strike();
  watchOthers();
  const bool isSilent = fault_.silences || fault_.effect != Effect::None;
  const auto kept = valueOf(own());
  watchOthers();
  const auto later = valueOf(own());
  const bool isBack = count(*sim_, openedEvent(own())) > attempts_[own()];
  if (isSilent && !isBack && kept != later) {
    problem("a slot went from " + kept + " to " + later + " while nothing came");
  }
  watchOthersFor(fault_.held, begin);
  const auto over = Clock::now();
  lift();
  expectEffect(begin, over);
}

void Trial::streamWaiting() {
  const auto end = Clock::now();
  endStream(own());
  const auto begin = Clock::now();
  strike();
  if (fault_.lasts) watchOthersFor(beyondTheRetry, end);
  lift();
  expectRetry(own(), end);
  if (endsBoth()) expectRetry(other(), begin);
}

void Trial::callRunning() {
  const bool isAnswer =
      !fault_.isOfWire() && sim::rowOf(*fault_.kind).group == sim::FaultGroup::Answer;
  if (!isAnswer) tellSimulator("no-reply engine");
  if (isAnswer) strike();
  change();
  const auto begin = Clock::now();
  if (!isAnswer) strike();
  watchOthersFor(fault_.held, begin);
  lift();
  tellSimulator("normal engine");
}

// One that finds nobody is lost.
void Trial::callWaiting() {
  tellSimulator("refuse engine");
  host_->writeLine("set delay " + std::to_string(++changes_));
  strike();
  host_->writeLine("set delay " + std::to_string(++changes_));
  watchOthers();
  lift();
  tellSimulator("normal engine");
}

void Trial::stopWhileStreaming() {
  const bool faultFirst = random_() % 2 == 0;
  const std::chrono::microseconds between(random_() % 5000);
  if (faultFirst) {
    strike();
    std::this_thread::sleep_for(between);
  }
  const auto begin = Clock::now();
  host_->writeLine("quit");
  if (!faultFirst) {
    std::this_thread::sleep_for(between);
    strike();
  }
  finishStop(begin);
}

void Trial::stopWhileOtherWaits() {
  endStream(other());
  const auto begin = Clock::now();
  host_->writeLine("quit");
  host_->waitError("Starting completion queue flush");
  strike();
  finishStop(begin);
}

// The call is over when the fault ends it, or else when the answer comes.
void Trial::stopWithCall() {
  tellSimulator("no-reply engine");
  change();
  auto begin = Clock::now();
  host_->writeLine("quit");
  host_->waitError("Starting completion queue flush");
  if (cell_.moment == Moment::Flushing) std::this_thread::sleep_for(seconds(1));
  begin = fault_.endsCall ? Clock::now() : begin;
  strike();
  if (!fault_.endsCall) {
    lift();
    begin = Clock::now();
    tellSimulator("normal engine");
  }
  finishStop(begin);
}

// ---- What holds ---------------------------------------------------------------------------------

// Not before the five seconds are over, and once.
void Trial::expectRetry(const std::string& stream, Clock::time_point end) {
  const auto call = ++attempts_[stream];
  sim_->waitLine(R"({"event":"opened",)" + callOf(stream, call));
  const auto after = since(end);
  finding_.retries.push_back(after);
  if (after < retryDelay.count()) {
    problem("the " + stream + " stream came back after " + std::to_string(after) + " s");
  }
}

void Trial::expectEffect(Clock::time_point begin, Clock::time_point over) {
  if (fault_.effect == Effect::None) return;
  expectRetry(own(), fault_.effect == Effect::EndsWhenOver ? over : begin);
  if (endsBoth()) expectRetry(other(), begin);
}

// As many as there should be, and each after the end of the one before.
void Trial::expectAttempts() {
  for (const auto& stream : streamNames) {
    const auto seen = count(*sim_, openedEvent(stream));
    if (seen != attempts_[stream]) {
      problem("the " + stream + " stream was opened " + std::to_string(seen) + " times, not " +
              std::to_string(attempts_[stream]));
    }
    // A server that was cut off for long learns of the end afterwards.
    if (fault_.isLong()) continue;
    int open = 0;
    for (const auto& line : sim_->lines()) {
      if (line.starts_with(openedEvent(stream)) && ++open > 1) {
        problem("two attempts of the " + stream + " stream at a time");
      }
      if (line.starts_with(R"({"event":"closed","stream":")" + stream)) --open;
    }
  }
}

// Once a slot has had a value from the server, it does not fall back.
void Trial::expectValuesKept() {
  for (const auto& stream : streamNames) {
    bool hasMoved = false;
    for (const auto& line : host_->lines()) {
      if (!line.starts_with(slotLine(stream))) continue;
      const bool isDefault = line == slotLine(stream) + untouched;
      if (isDefault && hasMoved) problem("a " + stream + " slot fell back to its default");
      hasMoved = hasMoved || !isDefault;
    }
  }
}

void Trial::expectEachChangeOnce() {
  std::vector<std::string> values;
  for (const auto& line : sim_->lines()) {
    if (line.starts_with(paramsEvent)) values.push_back(line.substr(line.rfind(':')));
  }
  std::sort(values.begin(), values.end());
  if (std::adjacent_find(values.begin(), values.end()) != values.end()) {
    problem("a SetParams call came twice");
  }
}

void Trial::finishStop(Clock::time_point begin) {
  host_->waitError("Completion queue flush ended");
  finding_.stop = since(begin);
  if (finding_.stop > longestStop.count()) {
    problem("the stop took " + std::to_string(finding_.stop) + " s");
  }
}

void Trial::stop() {
  // A SetParams call whose end is just being told when the stop begins is lost: let it be told.
  for (const auto& stream : streamNames) awaitValues(stream);
  const auto begin = Clock::now();
  host_->writeLine("quit");
  finishStop(begin);
}

// Nothing of the host's is left, no sanitizer has complained, and no stream comes back.
void Trial::expectCleanEnd() {
  if (const int code = host_->waitExit(); code != 0) {
    problem("the host ended with " + std::to_string(code));
  }
  sim_->closeInput();
  if (const int code = sim_->waitExit(); code != 0) {
    problem("the simulator ended with " + std::to_string(code));
  }
  for (const auto* process : {host_.get(), sim_.get()}) {
    for (const char* word : {"Sanitizer", "runtime error:"}) {
      if (process->errors().find(word) != std::string::npos) problem("a sanitizer's report");
    }
  }
  expectAttempts();
  expectValuesKept();
  expectEachChangeOnce();
}

void Trial::befall() {
  if (isOfStream()) {
    cell_.moment == Moment::Running ? streamRunning() : streamWaiting();
  } else {
    cell_.moment == Moment::Running ? callRunning() : callWaiting();
  }
  for (const auto& stream : streamNames) awaitValues(stream);
  changeUntilOneArrives();
}

void Trial::stopAmidst() {
  if (!isOfStream()) {
    stopWithCall();
  } else if (cell_.moment == Moment::Stopping) {
    stopWhileStreaming();
  } else {
    stopWhileOtherWaits();
  }
}

// What the first fault of a series takes is its own: libraries keep what they have once needed.
void Trial::goThrough() {
  auto before = usageOf(host_->pid());
  for (int round = 0; round < cell_.rounds; ++round) {
    if (round == 1) before = usageOf(host_->pid());
    befall();
  }
  const auto after = usageOf(host_->pid());
  finding_.moreThreads = after.threads - before.threads;
  finding_.moreMemory = after.memory - before.memory;
  finding_.isMeasured = true;
  stop();
}

Finding Trial::run() {
  startServers();
  startGateway();
  for (const auto& stream : streamNames) awaitValues(stream);
  const bool goesThrough = cell_.moment == Moment::Running || cell_.moment == Moment::Waiting;
  goesThrough ? goThrough() : stopAmidst();
  expectCleanEnd();
  return finding_;
}

}  // namespace

Finding tryOut(const Cell& cell) {
  try {
    return Trial(cell).run();
  } catch (const std::exception& error) {
    Finding finding;
    finding.problems.emplace_back(error.what());
    return finding;
  }
}

}  // namespace network
