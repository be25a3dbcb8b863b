#include "tools/common/Terminal.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "tools/common/ExitCode.h"
#include "tools/common/Numbers.h"
#include "tools/common/Output.h"

namespace tools {
namespace {

constexpr Clock::time_point never = Clock::time_point::max();

// For poll: rounded up, so that it does not return early; -1 for no limit.
int millisecondsUntil(Clock::time_point moment) {
  if (moment == Clock::time_point::max()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(moment - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

}  // namespace

std::string checkSeconds(const std::string& text) {
  const auto seconds = numberIn<double>(text);
  if (seconds && *seconds >= 0 && *seconds <= 1e9) return {};
  return "\"" + text + "\" is not a number of seconds from 0 to 1000000000";
}

Clock::time_point momentIn(std::optional<double> seconds) {
  if (!seconds) return Clock::time_point::max();
  return Clock::now() +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(*seconds));
}

SignalDescriptor::SignalDescriptor() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signals_ = signalfd(-1, &set, SFD_CLOEXEC);
  arrived_ = eventfd(0, EFD_CLOEXEC);
  end_ = eventfd(0, EFD_CLOEXEC);
  if (signals_ < 0 || arrived_ < 0 || end_ < 0) {
    throw std::runtime_error("can't wait for signals: no file descriptor is left");
  }
  watcher_ = std::thread([this] { watch(); });
}

SignalDescriptor::~SignalDescriptor() {
  eventfd_write(end_, 1);
  watcher_.join();
  for (const int descriptor : {signals_, arrived_, end_}) close(descriptor);
}

void SignalDescriptor::watch() const {
  constexpr std::chrono::seconds sameWish(1);
  std::optional<Clock::time_point> first;
  bool hasHinted = false;
  for (;;) {
    std::array<pollfd, 2> sources{{{signals_, POLLIN, 0}, {end_, POLLIN, 0}}};
    const bool mayHint = first && !hasHinted;
    poll(sources.data(), sources.size(),
         mayHint ? millisecondsUntil(*first + sameWish) : millisecondsUntil(never));
    if (sources[1].revents != 0) return;
    const bool isLater = first && Clock::now() - *first >= sameWish;
    if (isLater && !hasHinted) {
      say({}, "stopping takes a while; another signal ends it at once");
      hasHinted = true;
    }
    signalfd_siginfo signal;
    if (sources[0].revents == 0 || read(signals_, &signal, sizeof signal) < 0) continue;
    if (isLater) _exit(Interrupted);
    if (!first) first = Clock::now();
    eventfd_write(arrived_, 1);
  }
}

std::vector<std::string> InputLines::take() {
  std::array<char, 65536> chunk;
  const auto count = read(descriptor_, chunk.data(), chunk.size());
  if (count <= 0) {
    ended_ = true;
    if (unfinished_.empty()) return {};
    return {std::exchange(unfinished_, {})};
  }
  std::vector<std::string> lines;
  std::string_view fresh(chunk.data(), static_cast<std::size_t>(count));
  for (auto end = fresh.find('\n'); end != fresh.npos; end = fresh.find('\n')) {
    unfinished_ += fresh.substr(0, end);
    fresh.remove_prefix(end + 1);
    lines.push_back(std::exchange(unfinished_, {}));
  }
  unfinished_ += fresh;
  return lines;
}

Arrival waitFor(const SignalDescriptor& signals, const InputLines* input, Clock::time_point until) {
  const bool reads = input != nullptr && !input->ended();
  return waitFor(signals, reads ? input->descriptor() : -1, until);
}

Arrival waitFor(const SignalDescriptor& signals, int descriptor, Clock::time_point until) {
  std::array<pollfd, 2> sources{{{signals.descriptor(), POLLIN, 0}, {descriptor, POLLIN, 0}}};
  if (poll(sources.data(), sources.size(), millisecondsUntil(until)) <= 0) return Arrival::Nothing;
  return sources[0].revents != 0 ? Arrival::Signal : Arrival::Input;
}

}  // namespace tools
