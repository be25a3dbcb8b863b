#include "tools/Terminal.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace tools {
namespace {

// For poll: rounded up, so that it does not return early; -1 for no limit.
int millisecondsUntil(Clock::time_point moment) {
  if (moment == Clock::time_point::max()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(moment - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

}  // namespace

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
  descriptor_ = signalfd(-1, &set, SFD_CLOEXEC);
  if (descriptor_ < 0) throw std::runtime_error("can't wait for signals: signalfd failed");
}

SignalDescriptor::~SignalDescriptor() {
  close(descriptor_);
}

std::vector<std::string> InputLines::take() {
  std::array<char, 65536> chunk;
  const auto count = read(STDIN_FILENO, chunk.data(), chunk.size());
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
  std::array<pollfd, 2> sources{
      {{signals.descriptor(), POLLIN, 0}, {reads ? STDIN_FILENO : -1, POLLIN, 0}}};
  if (poll(sources.data(), sources.size(), millisecondsUntil(until)) <= 0) return Arrival::Nothing;
  return sources[0].revents != 0 ? Arrival::Signal : Arrival::Input;
}

}  // namespace tools
