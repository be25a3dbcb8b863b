#include "tests/proof/network/Trial.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/proof/network/Site.h"

namespace network {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Five seconds, less the time by which the readings of the two processes may differ.
constexpr Seconds retryDelay{4.99};
// A fault of a waiting stream lasts until its retry has been tried.
constexpr Seconds beyondTheRetry{6};
constexpr milliseconds shortlyBeforeTheRetry{3500};
// The rest of a retry's five seconds, and an allowance for a busy machine.
constexpr Seconds busyMachine{5};
constexpr Seconds longestStop = Seconds(5) + busyMachine;
// gRPC pings a silent peer after ten seconds and gives it up after ten more.
constexpr Seconds longestStopInSilence = Seconds(20) + busyMachine;

constexpr auto flushEnded = "Completion queue flush ended";

double since(Clock::time_point start) {
  return Seconds(Clock::now() - start).count();
}

class Trial {
 public:
  explicit Trial(const Cell& cell)
      : cell_(cell),
        random_(cell.seed),
        net_(fault_.isOfWire() ? std::make_unique<Net>(cell.seed) : nullptr),
        site_(net_.get()) {}

  Finding run();

 private:
  // ---- The fault ----
  // Begins the fault; the first form returns when it is in effect.
  void strike();
  void strikeAtOnce();
  void lift();
  // Returns when everything that the fault leaves alone has been seen to continue.
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
  void sufferOnce();
  void sufferAndStop();
  void sufferAtStop();

  // ---- What holds ----
  void expectRetry(const std::string& stream, Clock::time_point end);
  void noteRetries(Clock::time_point begin);
  void expectEffect(Clock::time_point begin, Clock::time_point over);
  void expectAttempts();
  void expectOneAtATime(const std::string& stream);
  void expectValuesKept();
  void expectEachChangeOnce();
  void expectCleanEnd();
  void expectEnd(ToolProcess& process, const std::string& name);
  void stop();
  void finishStop(Clock::time_point begin);
  void problem(const std::string& text) { finding_.problems.push_back(text); }

  bool isOfStream() const { return cell_.part != Part::SetParams; }
  const std::string& own() const { return streamNames[cell_.part == Part::Slow ? 1 : 0]; }
  const std::string& other() const { return streamNames[cell_.part == Part::Slow ? 0 : 1]; }
  bool endsBoth() const { return fault_.effect == Effect::EndsConnection; }
  bool mayEndBoth() const { return fault_.effect == Effect::MayEndBoth; }
  // Whether the fault can't reach the other stream.
  bool sparesOther() const {
    return !fault_.isOfWire() && !sim::rowOf(*fault_.kind).isOfConnections();
  }

  const Cell cell_;
  const Fault& fault_ = *cell_.fault;
  std::mt19937_64 random_;
  const std::unique_ptr<Net> net_;
  Site site_;
  std::map<std::string, int> attempts_{{"fast", 1}, {"slow", 1}};  // that the server must have seen
  Finding finding_;
};

// ---- The fault ----------------------------------------------------------------------------------

void Trial::strike() {
  if (fault_.isOfWire()) return strikeAtOnce();
  site_.tellAndAwait(fault_.lineFor(cell_.part));
}

void Trial::strikeAtOnce() {
  if (!fault_.isOfWire()) return site_.tell(fault_.lineFor(cell_.part));
  (isOfStream() ? net_->meters : net_->engine).setConditions(fault_.conditions);
}

void Trial::lift() {
  if (fault_.isOfWire()) {
    (isOfStream() ? net_->meters : net_->engine).setConditions({});
  } else if (fault_.lasts) {
    site_.tellAndAwait(fault_.endLineFor(cell_.part));
  }
}

void Trial::watchOthers() {
  if (!isOfStream()) {
    site_.awaitValues(own());
    site_.awaitValues(other(), 1);
    return;
  }
  if (sparesOther()) site_.awaitValues(other());
  constexpr milliseconds tenthOfASecond(100);
  for (int i = 0; i < 10; ++i) {
    site_.changeAndAwait();
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
  const auto kept = site_.valueOf(own());
  watchOthers();
  const auto later = site_.valueOf(own());
  const bool isBack = count(site_.simulator(), openedEvent(own())) > attempts_[own()];
  if (isSilent && !isBack && kept != later) {
    problem("a slot changed from " + kept + " to " + later + " although nothing arrived");
  }
  watchOthersFor(fault_.held, begin);
  const auto over = Clock::now();
  lift();
  expectEffect(begin, over);
}

void Trial::streamWaiting() {
  const auto end = Clock::now();
  site_.endStream(own(), attempts_[own()]);
  // TCP repeats lost packets at growing intervals, so that a hole should be short.
  const bool isHole = fault_.isOfWire() && (fault_.effect == Effect::None || mayEndBoth());
  if (isHole) std::this_thread::sleep_until(end + shortlyBeforeTheRetry);
  const auto begin = Clock::now();
  strike();
  if (fault_.lasts) watchOthersFor(beyondTheRetry, end);
  lift();
  expectRetry(own(), end);
  if (endsBoth()) expectRetry(other(), begin);
  if (mayEndBoth()) noteRetries(begin);
}

void Trial::callRunning() {
  const bool isAnswer =
      fault_.kind == sim::FaultKind::Delay ||
      (!fault_.isOfWire() && sim::rowOf(*fault_.kind).group == sim::FaultGroup::Answer);
  if (!isAnswer) site_.tellAndAwait("no-reply engine");
  if (isAnswer) strike();
  site_.changeAndAwait();
  const auto begin = Clock::now();
  if (!isAnswer) strike();
  watchOthersFor(fault_.held, begin);
  lift();
  site_.tellAndAwait("normal engine");
}

// A call without a connection is lost.
void Trial::callWaiting() {
  site_.tellAndAwait("refuse engine");
  site_.change();
  strike();
  site_.change();
  watchOthers();
  lift();
  site_.tellAndAwait("normal engine");
}

void Trial::stopWhileStreaming() {
  const bool faultFirst = random_() % 2 == 0;
  const std::chrono::microseconds between(random_() % 5000);
  if (faultFirst) {
    strikeAtOnce();
    std::this_thread::sleep_for(between);
  }
  const auto begin = Clock::now();
  site_.host().writeLine("quit");
  if (!faultFirst) {
    std::this_thread::sleep_for(between);
    strikeAtOnce();
  }
  finishStop(begin);
}

void Trial::stopWhileOtherWaits() {
  site_.endStream(other(), attempts_[other()]);
  const auto begin = Clock::now();
  site_.host().writeLine("quit");
  site_.host().waitError("Starting completion queue flush");
  strike();
  finishStop(begin);
}

// The stop waits for a call in flight, until the fault ends the call or its answer comes.
void Trial::stopWithCall() {
  site_.tellAndAwait("no-reply engine");
  site_.changeAndAwait();
  if (cell_.moment == Moment::Flushing) site_.endStream(own(), attempts_[own()]);
  site_.host().writeLine("quit");
  site_.host().waitError("Starting completion queue flush");
  auto begin = Clock::now();
  // The fault is in effect already; a second one would end the first.
  if (fault_.kind != sim::FaultKind::NoReply) strike();
  if (!fault_.endsCall) {
    constexpr seconds aWhile(1);
    std::this_thread::sleep_for(aWhile);
    if (!mayEndBoth() && site_.host().hasError(flushEnded)) {
      problem("the stop did not wait for a SetParams call");
    }
    lift();
    begin = Clock::now();
    site_.tellAndAwait("normal engine");
  }
  finishStop(begin);
}

// ---- What holds ---------------------------------------------------------------------------------

// The stream is opened again once, and not before five seconds have passed.
void Trial::expectRetry(const std::string& stream, Clock::time_point end) {
  site_.simulator().waitLine(openedEvent(stream, ++attempts_[stream]));
  const auto after = since(end);
  finding_.retries.push_back(after);
  if (after < retryDelay.count()) {
    problem("the " + stream + " stream was opened again after " + std::to_string(after) + " s");
  }
}

// Streams that may have ended have been opened again by the time their values change again.
void Trial::noteRetries(Clock::time_point begin) {
  for (const auto& stream : streamNames) {
    site_.awaitValues(stream);
    if (count(site_.simulator(), openedEvent(stream)) > attempts_[stream]) {
      expectRetry(stream, begin);
    }
  }
}

void Trial::expectEffect(Clock::time_point begin, Clock::time_point over) {
  if (fault_.effect == Effect::None) return;
  if (mayEndBoth()) return noteRetries(begin);
  expectRetry(own(), fault_.effect == Effect::EndsWhenOver ? over : begin);
  if (endsBoth()) expectRetry(other(), begin);
}

void Trial::expectEnd(ToolProcess& process, const std::string& name) {
  const int code = process.waitExit();
  if (code != 0) problem(name + " ended with " + std::to_string(code));
  for (const char* word : {"Sanitizer", "runtime error:"}) {
    if (process.errors().find(word) != std::string::npos) problem(name + ": " + word);
  }
}

void Trial::expectOneAtATime(const std::string& stream) {
  int open = 0;
  for (const auto& line : site_.simulator().lines()) {
    if (line.starts_with(openedEvent(stream)) && ++open > 1) {
      problem("the " + stream + " stream was open twice at the same time");
    }
    if (line.starts_with(closedEvent(stream))) --open;
  }
}

// Each stream was opened as many times as expected, each time after its end.
void Trial::expectAttempts() {
  for (const auto& stream : streamNames) {
    const auto seen = count(site_.simulator(), openedEvent(stream));
    if (seen != attempts_[stream]) {
      problem("the " + stream + " stream was opened " + std::to_string(seen) + " times, not " +
              std::to_string(attempts_[stream]));
    }
    // A server that was cut off for a long time learns of the end too late.
    if (!fault_.isLong()) expectOneAtATime(stream);
  }
}

// Once a slot has had a value from the server, it never has its default again.
void Trial::expectValuesKept() {
  for (const auto& stream : streamNames) {
    bool hasMoved = false;
    for (const auto& line : site_.host().lines()) {
      if (!line.starts_with(slotLine(stream))) continue;
      const bool isDefault = line == untouchedLine(stream);
      if (isDefault && hasMoved) problem("a " + stream + " slot returned to its default");
      hasMoved = hasMoved || !isDefault;
    }
  }
}

void Trial::expectEachChangeOnce() {
  std::vector<std::string> values;
  for (const auto& line : site_.simulator().lines()) {
    if (line.starts_with(paramsEvent)) values.push_back(line.substr(line.rfind(':')));
  }
  std::sort(values.begin(), values.end());
  if (std::adjacent_find(values.begin(), values.end()) != values.end()) {
    problem("a SetParams call arrived twice");
  }
}

void Trial::finishStop(Clock::time_point begin) {
  site_.host().waitError(flushEnded);
  finding_.stop = since(begin);
  // An idle connection notices a fault of the wire only by its pings.
  const bool isIdle = fault_.isLong() || (fault_.isOfWire() && !isOfStream());
  if (finding_.stop > (isIdle ? longestStopInSilence : longestStop).count()) {
    problem("the stop took " + std::to_string(finding_.stop) + " s");
  }
}

void Trial::stop() {
  // A SetParams call that completes just when the stop begins is leaked, so let it complete first.
  for (const auto& stream : streamNames) site_.awaitValues(stream);
  const auto begin = Clock::now();
  site_.host().writeLine("quit");
  finishStop(begin);
}

// The host's exit code is not 0 if the module leaks anything or breaks a rule.
void Trial::expectCleanEnd() {
  expectEnd(site_.host(), "the host");
  site_.simulator().closeInput();
  expectEnd(site_.simulator(), "the simulator");
  expectAttempts();
  expectValuesKept();
  expectEachChangeOnce();
}

void Trial::sufferOnce() {
  if (isOfStream()) {
    cell_.moment == Moment::Running ? streamRunning() : streamWaiting();
  } else {
    cell_.moment == Moment::Running ? callRunning() : callWaiting();
  }
  for (const auto& stream : streamNames) site_.awaitValues(stream);
  site_.changeUntilOneArrives();
}

void Trial::sufferAtStop() {
  if (!isOfStream()) {
    stopWithCall();
  } else if (cell_.moment == Moment::Stopping) {
    stopWhileStreaming();
  } else {
    stopWhileOtherWaits();
  }
}

// In a series, the first fault does not count: libraries keep what they once needed.
void Trial::sufferAndStop() {
  auto before = usageOf(site_.host().pid());
  for (int round = 0; round < cell_.rounds; ++round) {
    if (round == 1) before = usageOf(site_.host().pid());
    sufferOnce();
  }
  const auto after = usageOf(site_.host().pid());
  finding_.moreThreads = after.threads - before.threads;
  finding_.moreMemory = after.memory - before.memory;
  finding_.isMeasured = true;
  stop();
}

Finding Trial::run() {
  const bool isBeforeStop = cell_.moment == Moment::Running || cell_.moment == Moment::Waiting;
  isBeforeStop ? sufferAndStop() : sufferAtStop();
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
