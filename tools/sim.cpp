#include "tools/sim.h"

#include <fmt/format.h>
#include <grpc/grpc.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <stdexcept>
#include <stop_token>
#include <thread>

#include "engine.pb.h"
#include "tools/Signals.h"
#include "tools/Simulator.h"

namespace sim {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

struct Settings {
  Addresses addresses{.meters = "127.0.0.1:50005", .engine = "127.0.0.1:50006"};
  std::vector<KeySpec> keys;
  double rateFast = 10;  // messages per second, 0 for none
  double rateSlow = 1;
  std::uint64_t seed = 1;
  std::optional<double> limit;  // seconds to run
  bool commands = false;

  double rateOf(Method method) const { return method == Method::Fast ? rateFast : rateSlow; }
};

// ---- Texts ----------------------------------------------------------------------------------

// Bytes in events and commands: hexadecimal digits, or - for none.
std::string hexOf(std::string_view bytes) {
  if (bytes.empty()) return "-";
  std::string hex;
  hex.reserve(2 * bytes.size());
  for (const char byte : bytes) {
    fmt::format_to(std::back_inserter(hex), "{:02x}", static_cast<unsigned char>(byte));
  }
  return hex;
}

// A text that stays on its line.
std::string escaped(std::string_view text) {
  std::string line;
  for (const char character : text) {
    const auto code = static_cast<unsigned char>(character);
    if (code < 0x20 || code == 0x7f || character == '\\') {
      fmt::format_to(std::back_inserter(line), "\\x{:02x}", code);
    } else {
      line += character;
    }
  }
  return line;
}

// Type and value of a parameter, such as "float -6.5".
std::string textOf(const sonalith::grpcengine::AnyValue& value) {
  using Value = sonalith::grpcengine::AnyValue;
  switch (value.value_case()) {
    case Value::kSstring:
      return "string " + escaped(value.sstring());
    case Value::kSfloat:
      return fmt::format("float {}", value.sfloat());
    case Value::kSint:
      return fmt::format("int {}", value.sint());
    case Value::kSuint:
      return fmt::format("uint {}", value.suint());
    case Value::kAfloat:
      return fmt::format("floats {}", fmt::join(value.afloat().data(), " "));
    case Value::kAint:
      return fmt::format("ints {}", fmt::join(value.aint().data(), " "));
    case Value::kAuint:
      return fmt::format("uints {}", fmt::join(value.auint().data(), " "));
    case Value::kSdouble:
      return fmt::format("double {}", value.sdouble());
    case Value::VALUE_NOT_SET:
      break;
  }
  return "nothing";
}

std::string linesOf(const Opening& opening) {
  sonalith::grpcengine::RequestSetParams request;
  if (!request.ParseFromString(opening.request)) {
    return fmt::format("SetParams {} unreadable {}\n", opening.number, hexOf(opening.request));
  }
  std::string lines;
  for (const auto& param : request.params()) {
    lines += fmt::format("SetParams {} {} {}\n", opening.number, escaped(param.key()),
                         textOf(param.value()));
  }
  return lines;
}

// ---- Playing --------------------------------------------------------------------------------

// Gives streams their first message at once, and shows and answers SetParams.
class Player final : public CallListener {
 public:
  explicit Player(const Settings& settings)
      : settings_(settings), signals_(settings.keys, settings.seed) {}

  std::string meterNow(Method method) const {
    return signals_.meterAt(method, Seconds(Clock::now() - begin_).count());
  }

  void opened(const std::shared_ptr<Call>& call) override {
    const auto& opening = call->opening();
    if (opening.method == Method::SetParams) {
      fmt::print("{}", linesOf(opening));
      call->send("");
      call->end(grpc::StatusCode::OK);
      return;
    }
    log(*call, "open from " + opening.peer);
    if (settings_.rateOf(opening.method) > 0) call->send(meterNow(opening.method));
  }

  void sent(const Call&, std::uint64_t) override {}

  void closed(const Call& call, bool cancelled) override {
    if (call.opening().method != Method::SetParams) log(call, cancelled ? "cancelled" : "ended");
  }

 private:
  static void log(const Call& call, std::string_view what) {
    const auto& opening = call.opening();
    fmt::print(stderr, "gatewayctl sim: {} {} {}\n", nameOf(opening.method), opening.number, what);
  }

  const Settings& settings_;
  const Signals signals_;
  const Clock::time_point begin_ = Clock::now();
};

// Sends a method's signals to all its open streams, at its rate, as long as the Ticker lives.
class Ticker {
 public:
  // All are borrowed for the Ticker's life.
  Ticker(const Settings& settings, const Player& player, const Simulator& simulator, Method method)
      : player_(player), simulator_(simulator), method_(method) {
    const double rate = settings.rateOf(method);
    if (rate <= 0) return;
    const auto period = std::chrono::duration_cast<Clock::duration>(Seconds(1 / rate));
    thread_ = std::jthread([this, period](const std::stop_token& stop) { run(stop, period); });
  }

 private:
  void run(const std::stop_token& stop, Clock::duration period) {
    std::mutex mutex;
    std::condition_variable_any wakeUp;
    std::unique_lock lock(mutex);
    for (auto next = Clock::now() + period; !stop.stop_requested();
         next = std::max(next + period, Clock::now())) {
      wakeUp.wait_until(lock, stop, next, [] { return false; });
      if (!stop.stop_requested()) tick();
    }
  }

  // A stream that has not taken its last message yet misses this one: values are of the moment.
  void tick() {
    for (const auto& call : simulator_.openCalls(method_)) {
      if (call->isIdle()) call->send(player_.meterNow(method_));
    }
  }

  const Player& player_;
  const Simulator& simulator_;
  const Method method_;
  std::jthread thread_;
};

// ---- Commands -------------------------------------------------------------------------------

// A command that can't be carried out; what() tells why.
struct CommandError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

using Words = std::span<const std::string_view>;

// Tells of calls in a line each, and does what lines of commands say.
class Commander final : public CallListener {
 public:
  // The commands, a line each, for people.
  static std::string manual();

  void opened(const std::shared_ptr<Call>& call) override;
  void sent(const Call& call, std::uint64_t count) override;
  void closed(const Call& call, bool cancelled) override;

  // Carries out one line. False if it was quit.
  bool carryOut(const Simulator& simulator, std::string_view line);

 private:
  struct Command {
    std::string_view name;       // one word, or two
    std::string_view arguments;  // as shown to people: [...] may be left out
    std::string_view effect;
    void (Commander::*carryOut)(const Simulator& simulator, Words arguments);

    bool matches(Words words) const;
    bool takes(Words words) const;
    std::string usage() const { return fmt::format("{} {}", name, arguments); }
  };

  static const std::array<Command, 9> commands;
  static const Command& commandOf(Words words);

  void send(const Simulator& simulator, Words arguments);
  void stop(const Simulator& simulator, Words arguments);
  void end(const Simulator& simulator, Words arguments);
  void engineReply(const Simulator& simulator, Words arguments);
  void engineFail(const Simulator& simulator, Words arguments);
  void engineHold(const Simulator& simulator, Words arguments);
  void engineRelease(const Simulator& simulator, Words arguments);
  void sync(const Simulator& simulator, Words arguments);
  void quit(const Simulator& simulator, Words arguments);

  void answer(Call& call) const;

  bool quit_ = false;  // the command thread's

  std::mutex mutex_;  // of all below, and from the telling of a SetParams call to its treatment
  grpc::StatusCode status_ = grpc::StatusCode::OK;
  std::string reply_;
  bool holding_ = false;
  std::vector<std::shared_ptr<Call>> held_;
};

constexpr std::array<std::pair<std::string_view, grpc::StatusCode>, 17> statusNames{{
    {"OK", grpc::StatusCode::OK},
    {"CANCELLED", grpc::StatusCode::CANCELLED},
    {"UNKNOWN", grpc::StatusCode::UNKNOWN},
    {"INVALID_ARGUMENT", grpc::StatusCode::INVALID_ARGUMENT},
    {"DEADLINE_EXCEEDED", grpc::StatusCode::DEADLINE_EXCEEDED},
    {"NOT_FOUND", grpc::StatusCode::NOT_FOUND},
    {"ALREADY_EXISTS", grpc::StatusCode::ALREADY_EXISTS},
    {"PERMISSION_DENIED", grpc::StatusCode::PERMISSION_DENIED},
    {"RESOURCE_EXHAUSTED", grpc::StatusCode::RESOURCE_EXHAUSTED},
    {"FAILED_PRECONDITION", grpc::StatusCode::FAILED_PRECONDITION},
    {"ABORTED", grpc::StatusCode::ABORTED},
    {"OUT_OF_RANGE", grpc::StatusCode::OUT_OF_RANGE},
    {"UNIMPLEMENTED", grpc::StatusCode::UNIMPLEMENTED},
    {"INTERNAL", grpc::StatusCode::INTERNAL},
    {"UNAVAILABLE", grpc::StatusCode::UNAVAILABLE},
    {"DATA_LOSS", grpc::StatusCode::DATA_LOSS},
    {"UNAUTHENTICATED", grpc::StatusCode::UNAUTHENTICATED},
}};

grpc::StatusCode statusCalled(std::string_view word) {
  std::string names;
  for (const auto& [name, code] : statusNames) {
    if (name == word) return code;
    names += fmt::format(" {}", name);
  }
  throw CommandError(fmt::format("\"{}\" is not a status; one of:{}", word, names));
}

std::string bytesCalled(std::string_view word) {
  if (word == "-") return {};
  std::string bytes(word.size() / 2, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    unsigned value = 0;
    const char* const digits = word.data() + 2 * i;
    if (std::from_chars(digits, digits + 2, value, 16).ptr != digits + 2) break;
    bytes[i] = static_cast<char>(value);
    if (i + 1 == bytes.size() && word.size() % 2 == 0) return bytes;
  }
  throw CommandError(fmt::format(
      "\"{}\" is not hexadecimal: pairs of the digits 0-9 and a-f, or - for no bytes", word));
}

std::uint64_t timesCalled(std::string_view word) {
  std::uint64_t times = 0;
  const auto end = word.data() + word.size();
  const auto [stopped, error] = std::from_chars(word.data(), end, times);
  if (error != std::errc() || stopped != end) {
    throw CommandError(
        fmt::format("\"{}\" is not a number of times: digits, 0 to go on forever", word));
  }
  return times == 0 ? Call::forever : times;
}

std::shared_ptr<Call> newestCall(const Simulator& simulator, std::string_view word) {
  const bool fast = word == nameOf(Method::Fast);
  if (!fast && word != nameOf(Method::Slow)) {
    throw CommandError(fmt::format("\"{}\" is not a stream: fast or slow", word));
  }
  const auto calls = simulator.openCalls(fast ? Method::Fast : Method::Slow);
  if (calls.empty()) throw CommandError(fmt::format("no open {} stream", word));
  return calls.back();
}

std::vector<std::string_view> wordsOf(std::string_view line) {
  constexpr std::string_view blanks = " \t\r";
  std::vector<std::string_view> words;
  for (auto begin = line.find_first_not_of(blanks); begin != line.npos;
       begin = line.find_first_not_of(blanks, begin)) {
    const auto end = std::min(line.find_first_of(blanks, begin), line.size());
    words.push_back(line.substr(begin, end - begin));
    begin = end;
  }
  return words;
}

const std::array<Commander::Command, 9> Commander::commands{{
    {"send", "fast|slow HEX|- [TIMES]",
     "write a message to the newest open call; TIMES 0: until it ends or is stopped",
     &Commander::send},
    {"stop", "fast|slow", "let go of what is still to be sent to it", &Commander::stop},
    {"end", "fast|slow STATUS", "send what is still to be sent, then end it", &Commander::end},
    {"engine reply", "HEX|-", "answer SetParams calls from now on with this message (at first: -)",
     &Commander::engineReply},
    {"engine fail", "STATUS", "answer them from now on with this status", &Commander::engineFail},
    {"engine hold", "", "leave them unanswered from now on, until the next reply or fail",
     &Commander::engineHold},
    {"engine release", "", "answer those that were left, as the last reply or fail said",
     &Commander::engineRelease},
    {"sync", "WORD", "tell \"sync WORD\": all commands before it are carried out",
     &Commander::sync},
    {"quit", "", "end the program, as the end of standard input does", &Commander::quit},
}};

std::string Commander::manual() {
  std::string text;
  for (const auto& command : commands) {
    text += fmt::format("  {:<28} {}\n", command.usage(), command.effect);
  }
  return text;
}

bool Commander::Command::matches(Words words) const {
  const auto nameWords = wordsOf(name);
  return words.size() >= nameWords.size() &&
         std::equal(nameWords.begin(), nameWords.end(), words.begin());
}

bool Commander::Command::takes(Words words) const {
  const auto names = wordsOf(arguments);
  const auto optional = std::count_if(names.begin(), names.end(),
                                      [](std::string_view word) { return word.starts_with('['); });
  return words.size() <= names.size() &&
         words.size() + static_cast<std::size_t>(optional) >= names.size();
}

const Commander::Command& Commander::commandOf(Words words) {
  std::string names;
  for (const auto& command : commands) {
    if (command.matches(words)) return command;
    names += fmt::format("{}{}", names.empty() ? "" : ", ", command.name);
  }
  throw CommandError(
      fmt::format("unknown command \"{}\"; commands are {}", fmt::join(words, " "), names));
}

bool Commander::carryOut(const Simulator& simulator, std::string_view line) {
  const auto words = wordsOf(line);
  if (words.empty()) return true;
  try {
    const auto& command = commandOf(words);
    const auto arguments = Words(words).subspan(wordsOf(command.name).size());
    if (!command.takes(arguments)) throw CommandError("usage: " + command.usage());
    (this->*command.carryOut)(simulator, arguments);
  } catch (const CommandError& error) {
    fmt::print("error {}\n", escaped(error.what()));
  }
  return !quit_;
}

void Commander::opened(const std::shared_ptr<Call>& call) {
  const auto& opening = call->opening();
  const bool engine = opening.method == Method::SetParams;
  const std::lock_guard lock(mutex_);
  fmt::print("{}{} {} {} deadline={} metadata={}\n", engine ? "" : "open ", nameOf(opening.method),
             opening.number, hexOf(opening.request), opening.hasDeadline ? "set" : "none",
             opening.metadata.empty() ? "-" : fmt::to_string(fmt::join(opening.metadata, ",")));
  if (!engine) return;
  if (holding_) {
    held_.push_back(call);
  } else {
    answer(*call);
  }
}

void Commander::sent(const Call& call, std::uint64_t count) {
  const auto& opening = call.opening();
  if (opening.method == Method::SetParams) return;
  fmt::print("sent {} {} {}\n", nameOf(opening.method), opening.number, count);
}

void Commander::closed(const Call& call, bool cancelled) {
  const auto& opening = call.opening();
  const auto ended = opening.method == Method::SetParams ? "replied" : "ended";
  fmt::print("closed {} {} {}\n", nameOf(opening.method), opening.number,
             cancelled ? "cancelled" : ended);
  const std::lock_guard lock(mutex_);
  std::erase_if(held_, [&](const auto& held) { return held.get() == &call; });
}

void Commander::send(const Simulator& simulator, Words arguments) {
  const auto bytes = bytesCalled(arguments[1]);
  const auto times = arguments.size() > 2 ? timesCalled(arguments[2]) : 1;
  const auto call = newestCall(simulator, arguments[0]);
  if (!call->send(bytes, times))
    throw CommandError(fmt::format("the {} stream has just ended", arguments[0]));
}

void Commander::stop(const Simulator& simulator, Words arguments) {
  newestCall(simulator, arguments[0])->stop();
}

void Commander::end(const Simulator& simulator, Words arguments) {
  const auto status = statusCalled(arguments[1]);
  newestCall(simulator, arguments[0])->end(status);
}

void Commander::engineReply(const Simulator&, Words arguments) {
  auto reply = bytesCalled(arguments[0]);
  const std::lock_guard lock(mutex_);
  reply_ = std::move(reply);
  status_ = grpc::StatusCode::OK;
  holding_ = false;
}

void Commander::engineFail(const Simulator&, Words arguments) {
  const auto status = statusCalled(arguments[0]);
  const std::lock_guard lock(mutex_);
  status_ = status;
  holding_ = false;
}

void Commander::engineHold(const Simulator&, Words) {
  const std::lock_guard lock(mutex_);
  holding_ = true;
}

void Commander::engineRelease(const Simulator&, Words) {
  const std::lock_guard lock(mutex_);
  for (const auto& call : held_) answer(*call);
  held_.clear();
}

void Commander::sync(const Simulator&, Words arguments) {
  fmt::print("sync {}\n", arguments[0]);
}

void Commander::quit(const Simulator&, Words) {
  quit_ = true;
}

// The mutex is held.
void Commander::answer(Call& call) const {
  if (status_ == grpc::StatusCode::OK) call.send(reply_);
  call.end(status_);
}

// ---- Running --------------------------------------------------------------------------------

// SIGINT and SIGTERM as something to wait for.
class Interruption {
 public:
  Interruption() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    descriptor_ = signalfd(-1, &set, SFD_CLOEXEC);
    if (descriptor_ < 0) throw std::runtime_error("can't wait for signals");
  }
  ~Interruption() { close(descriptor_); }
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
};

// Standard input, a line at a time.
class InputLines {
 public:
  // Reads once, and hands over the lines that are whole. False when there will be no more: `use`
  // was false for one of them, or the input is at its end, which ends a last line too.
  bool read(const std::function<bool(std::string_view)>& use) {
    std::array<char, 65536> chunk;
    const auto count = ::read(STDIN_FILENO, chunk.data(), chunk.size());
    if (count <= 0) {
      use(pending_);
      return false;
    }
    std::string_view fresh(chunk.data(), static_cast<std::size_t>(count));
    for (auto end = fresh.find('\n'); end != fresh.npos; end = fresh.find('\n')) {
      pending_ += fresh.substr(0, end);
      fresh.remove_prefix(end + 1);
      if (!use(std::exchange(pending_, {}))) return false;
    }
    pending_ += fresh;
    return true;
  }

 private:
  std::string pending_;
};

enum class Ending { Done, Interrupted };

// Milliseconds for poll, rounded up so that it does not return early; -1 for no limit.
int millisecondsUntil(const std::optional<Clock::time_point>& deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

// Waits for a signal or the deadline, and meanwhile hands lines of standard input to `use`, if
// there is such.
Ending waitForEnd(const Interruption& interruption,
                  const std::optional<Clock::time_point>& deadline,
                  const std::function<bool(std::string_view)>& use) {
  InputLines input;
  std::array<pollfd, 2> sources{
      {{interruption.descriptor(), POLLIN, 0}, {use ? STDIN_FILENO : -1, POLLIN, 0}}};
  while (!deadline || Clock::now() < *deadline) {
    if (poll(sources.data(), sources.size(), millisecondsUntil(deadline)) < 0) continue;
    if (sources[0].revents != 0) return Ending::Interrupted;
    if (sources[1].revents != 0 && !input.read(use)) break;
  }
  return Ending::Done;
}

void start(Simulator& simulator) {
  const auto& [meters, engine] = simulator.addresses();
  if (!meters.empty()) fmt::print("meters {}\n", meters);
  if (!engine.empty()) fmt::print("engine {}\n", engine);
  simulator.start();
}

Ending play(const Settings& settings, const Interruption& interruption,
            const std::optional<Clock::time_point>& deadline) {
  fmt::print(stderr, "gatewayctl sim: playing {} keys with seed {}\n", settings.keys.size(),
             settings.seed);
  Player player(settings);
  Simulator simulator(settings.addresses, player);
  start(simulator);
  const Ticker fast(settings, player, simulator, Method::Fast);
  const Ticker slow(settings, player, simulator, Method::Slow);
  return waitForEnd(interruption, deadline, nullptr);
}

Ending obey(const Settings& settings, const Interruption& interruption,
            const std::optional<Clock::time_point>& deadline) {
  Commander commander;
  Simulator simulator(settings.addresses, commander);
  start(simulator);
  return waitForEnd(interruption, deadline,
                    [&](std::string_view line) { return commander.carryOut(simulator, line); });
}

int run(const Settings& settings) {
  constexpr int interruptedCode = 130;
  setvbuf(stdout, nullptr, _IOLBF, 0);
  // First of all: threads inherit which signals are blocked.
  const Interruption interruption;
  // Never taken back: gRPC's own clean-up can wait ten seconds for one of its threads, which the
  // end of the process ends as well.
  grpc_init();
  std::optional<Clock::time_point> deadline;
  if (settings.limit) {
    deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(Seconds(*settings.limit));
  }
  const auto ending = (settings.commands ? obey : play)(settings, interruption, deadline);
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
      settings.keys.push_back(parseKeySpec(text));
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
  auto* fast = sim.add_option("--rate-fast", settings.rateFast,
                              "Messages per second of each fast stream, 0 (silence) to 10000");
  fast->type_name("N")->check(rates, "")->capture_default_str();
  auto* slow = sim.add_option("--rate-slow", settings.rateSlow, "The same of each slow stream");
  slow->type_name("N")->check(rates, "")->capture_default_str();
  auto* seed = sim.add_option("--seed", settings.seed, "Another seed plays other values");
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
