// A client to be measured, in a process of its own: bare gRPC, or the module in a host.
//
//   bench-client bare|module stream|rest|latency --target HOST:PORT --config FILE --board FILE
//                --stored COUNT --warmup SECONDS --seconds SECONDS
//
// stream    the messages that it reads from the fast stream, and the CPU of the whole process
// rest      CPU, context switches and resident memory while both streams are quiet. The context
//           switches of its own threads, which unlike gRPC's have the program's name, are also
//           counted separately
// latency   the time from the server's write until the client stores the last value of the message,
//           a string: the host sees that moment in its sonalith_strncpy
//
// Measuring begins once each stream has had a message, and the module has stored COUNT values of
// each: a key that it failed to find would make the figures too good.
//
// Prints one line of JSON, and ends without destroying anything.
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <variant>
#include <vector>

#include "bench/BareClient.h"
#include "bench/Board.h"
#include "standin/Host.h"
#include "standin/LoadedModule.h"

namespace {

using bench::Board;

struct Options {
  std::string subject;
  std::string measure;
  std::string target;
  std::string config;
  std::string board;
  std::ptrdiff_t stored = 1;
  double warmup = 0.2;
  double seconds = 0.5;

  bool isLatency() const { return measure == "latency"; }
  bool hasSlow() const { return measure == "rest"; }
};

void sleepFor(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// The client to be measured.
class Subject {
 public:
  Subject() = default;
  virtual ~Subject() = default;
  Subject(const Subject&) = delete;
  Subject& operator=(const Subject&) = delete;

  // The messages so far on the fast stream.
  virtual std::uint64_t messages() const = 0;
  virtual bool isReady() const = 0;
};

// Latencies in nanoseconds. One thread notes them; another reads them once that has stopped.
class Latencies {
 public:
  explicit Latencies(const std::string& board) : board_(bench::openBoard(board)) {
    values_.reserve(1 << 20);
  }

  void note(std::uint64_t sequence) {
    const std::uint64_t now = bench::nanoseconds(CLOCK_MONOTONIC);
    if (wanted_ && values_.size() < values_.capacity()) {
      values_.push_back(now - board_.timeOf(sequence));
      count_ = values_.size();
    }
  }
  void want(bool wanted) { wanted_ = wanted; }
  std::size_t count() const { return count_; }

  // The latency that this share of all latencies does not exceed.
  std::uint64_t quantile(double share) {
    std::sort(values_.begin(), values_.end());
    return values_[static_cast<std::size_t>(share * static_cast<double>(values_.size() - 1))];
  }

 private:
  Board& board_;
  std::vector<std::uint64_t> values_;
  std::atomic<std::size_t> count_ = 0;
  std::atomic<bool> wanted_ = false;
};

// Stores the values of a message by their position, as a client that ignores the keys would.
class Array {
 public:
  explicit Array(Latencies& latencies) : latencies_(latencies) {}

  void store(const sonalith::grpc::Meter& meter) {
    std::size_t position = 0;
    for (const auto& item : meter.values()) store(position++ % size, item.value());
  }

 private:
  using AnyValue = sonalith::grpc::AnyValue;
  static constexpr std::size_t size = 4096;

  void store(std::size_t position, const AnyValue& value) {
    if (value.value_case() == AnyValue::kSstring) {
      latencies_.note(static_cast<std::uint64_t>(numbers_[0]));
      std::strncpy(texts_[position].data(), value.sstring().data().c_str(), textSize);
    } else if (value.value_case() == AnyValue::kSfloat) {
      numbers_[position] = value.sfloat();
    }
  }

  static constexpr std::size_t textSize = SONALITH_SLOT_TEXT_SIZE;
  Latencies& latencies_;
  std::vector<float> numbers_ = std::vector<float>(size);
  std::vector<std::array<char, textSize + 1>> texts_{size};
};

class Bare : public Subject {
 public:
  Bare(const Options& options, Latencies* latencies)
      : array_(latencies == nullptr ? nullptr : std::make_unique<Array>(*latencies)),
        reader_(options.target, options.hasSlow(), handler()) {}

  std::uint64_t messages() const override { return reader_.messages(); }
  bool isReady() const override { return reader_.everyStreamHasMessages(); }

 private:
  bench::BareReader::Handler handler() {
    if (!array_) return nullptr;
    return [this](const sonalith::grpc::Meter& meter) { array_->store(meter); };
  }

  std::unique_ptr<Array> array_;
  bench::BareReader reader_;
};

// The host does as little as possible; only for the latency it also reads the clock.
standin::Choices choicesFor(const Options& options) {
  standin::Choices choices;
  choices.keepRecords = false;
  choices.isLean = !options.isLatency();
  return choices;
}

class Module : public Subject {
 public:
  Module(const Options& options, Latencies* latencies)
      : stored_(options.stored), host_(choicesFor(options)) {
    if (instance_.start(options.config) != 0) throw std::runtime_error("the module did not start");
    if (options.hasSlow()) streams_.push_back(instance_.slots(standin::SlotSet::Slow));
    streams_.push_back(instance_.slots(standin::SlotSet::Fast));
    sequence_ = static_cast<const float*>(
        instance_.slot(standin::SlotSet::Fast, "sequence").description.value);
    if (latencies == nullptr) return;
    host_.setHook(standin::Operation::Strncpy, [=, this] { latencies->note(messages()); });
  }

  // The sequence number of the last message, which is an ordinary float slot.
  std::uint64_t messages() const override {
    float sequence;
    __atomic_load(sequence_, &sequence, __ATOMIC_RELAXED);
    return static_cast<std::uint64_t>(sequence);
  }
  bool isReady() const override {
    return std::all_of(streams_.begin(), streams_.end(), [this](const Slots& slots) {
      return std::count_if(slots.begin(), slots.end(), holdsValue) >= stored_;
    });
  }

 private:
  using Slots = std::vector<standin::Slot>;

  // No message has a value of zero or an empty text, which is what a slot holds until then.
  static bool holdsValue(const standin::Slot& slot) {
    const auto isSet = [](const auto& value) { return value != std::decay_t<decltype(value)>{}; };
    return std::visit(isSet, slot.read());
  }

  const std::ptrdiff_t stored_;
  standin::Host host_;
  standin::Engine engine_;
  standin::LoadedModule module_{GATEWAY_MODULE};
  standin::ModuleInstance instance_{module_, engine_};
  std::vector<Slots> streams_;
  const float* sequence_ = nullptr;
};

// What the process has used so far.
struct Usage {
  std::uint64_t wall = bench::nanoseconds(CLOCK_MONOTONIC);
  std::uint64_t cpu = bench::nanoseconds(CLOCK_PROCESS_CPUTIME_ID);
  long switches = 0;

  Usage() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    switches = usage.ru_nvcsw + usage.ru_nivcsw;
  }
};

long residentKilobytes() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    long kilobytes = 0;
    if (word == "VmRSS:" && status >> kilobytes) return kilobytes;
  }
  throw std::runtime_error("the kernel does not report VmRSS");
}

long ownSwitches() {
  long switches = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream status(task.path() / "status");
    bool isOwn = false;
    for (std::string word; status >> word;) {
      long count = 0;
      if (word == "Name:" && status >> word) isOwn = word == "bench-client";
      if (word.ends_with("ctxt_switches:") && status >> count && isOwn) switches += count;
    }
  }
  return switches;
}

void measureStream(const Subject& subject, const Options& options) {
  const std::uint64_t messages = subject.messages();
  const Usage before;
  do {
    sleepFor(options.seconds);
  } while (subject.messages() == messages);
  const std::uint64_t count = subject.messages() - messages;
  const Usage after;
  std::printf("{\"messages\": %lu, \"cpu\": %lu, \"wall\": %lu}\n", count, after.cpu - before.cpu,
              after.wall - before.wall);
}

void measureRest(const Options& options) {
  const long ownBefore = ownSwitches();
  const Usage before;
  sleepFor(options.seconds);
  const Usage after;
  std::printf("{\"switches\": %ld, \"own\": %ld, \"cpu\": %lu, \"resident\": %ld}\n",
              after.switches - before.switches, ownSwitches() - ownBefore, after.cpu - before.cpu,
              residentKilobytes());
}

void measureLatency(Latencies& latencies, const Options& options) {
  latencies.want(true);
  do {
    sleepFor(options.seconds);
  } while (latencies.count() == 0);
  latencies.want(false);
  sleepFor(0.01);  // a latency that is being noted is complete by then
  std::printf("{\"messages\": %zu, \"p50\": %lu, \"p99\": %lu}\n", latencies.count(),
              latencies.quantile(0.5), latencies.quantile(0.99));
}

void run(const Options& options) {
  std::unique_ptr<Latencies> latencies;
  if (options.isLatency()) latencies = std::make_unique<Latencies>(options.board);
  std::unique_ptr<Subject> subject;
  if (options.subject == "bare") {
    subject = std::make_unique<Bare>(options, latencies.get());
  } else {
    subject = std::make_unique<Module>(options, latencies.get());
  }
  // No event announces a slot's change, so poll for it.
  while (!subject->isReady()) sleepFor(0.001);
  sleepFor(options.warmup);
  if (options.isLatency()) {
    measureLatency(*latencies, options);
  } else if (options.measure == "rest") {
    measureRest(options);
  } else {
    measureStream(*subject, options);
  }
  std::fflush(stdout);
  std::_Exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("A client to be measured.");
  Options options;
  app.add_option("subject", options.subject)->required()->check(CLI::IsMember({"bare", "module"}));
  app.add_option("measure", options.measure)
      ->required()
      ->check(CLI::IsMember({"stream", "rest", "latency"}));
  app.add_option("--target", options.target)->required();
  app.add_option("--config", options.config)->required();
  app.add_option("--board", options.board)->required();
  app.add_option("--stored", options.stored);
  app.add_option("--warmup", options.warmup);
  app.add_option("--seconds", options.seconds);
  CLI11_PARSE(app, argc, argv);
  try {
    run(options);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "bench-client: %s\n", exception.what());
    return 1;
  }
}
