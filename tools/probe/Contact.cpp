// What the probes of both services have in common.
#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "tools/common/Shown.h"
#include "tools/common/StreamProblems.h"
#include "tools/probe/PingConnection.h"
#include "tools/probe/Probe.h"
#include "tools/probe/UnaryCalls.h"

namespace probe {
namespace {

// A method that any server answers: one that lacks it says so.
constexpr char healthMethod[] = "/grpc.health.v1.Health/Check";

Clock::time_point momentIn(Limits::Seconds time) {
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(time);
}

std::string complaintAbout(PingAnswer answer, int number, const PingConnection& connection) {
  switch (answer) {
    case PingAnswer::Answered:
      return "";
    case PingAnswer::GoAway:
      return fmt::format("ping {} ended the connection with GOAWAY {}", number,
                         tools::shown(connection.reason()));
    case PingAnswer::Closed:
      return fmt::format("ping {} ended the connection", number);
    case PingAnswer::Nothing:
      break;
  }
  return fmt::format("ping {} was not answered", number);
}

// Sends pings from the given number to another until one is not answered, and complains about that
// one.
class Pinger {
 public:
  Pinger(const Site& site, const std::string& peer)
      : site_(site), connection_(site.waiter, peer, momentIn(site.limits.patience)) {}

  std::string ping(int count, Limits::Seconds interval) {
    for (int i = 0; i < count; ++i) {
      if (sent_ > 0) pause(interval);
      const auto answer = connection_.ping(momentIn(site_.limits.patience));
      auto complaint = complaintAbout(answer, ++sent_, connection_);
      if (!complaint.empty()) return complaint;
    }
    return "";
  }

 private:
  void pause(Limits::Seconds time) const {
    const auto until = momentIn(time);
    while (Clock::now() < until) site_.waiter.wait(-1, until);
  }

  const Site& site_;
  PingConnection connection_;
  int sent_ = 0;
};

// Servers that police pings forgive a few, and some that they have just written something for.
constexpr int manyPings = 30;
constexpr int steadyPings = 8;
constexpr Limits::Seconds atOnce{0};

// A server that tolerates many pings at once tolerates them every ten seconds. Only another one has
// to be watched for longer.
void probeSteadyPings(const Site& site, const std::string& peer, CheckId check) {
  if (Pinger(site, peer).ping(manyPings, atOnce).empty()) {
    site.results.add(check, Verdict::Held,
                     fmt::format("{} pings at once were answered", manyPings));
    return;
  }
  const auto interval = site.limits.pingInterval;
  site.results.judge(
      check, Pinger(site, peer).ping(steadyPings, interval),
      fmt::format("{} pings, {} apart, were answered", steadyPings, timeText(interval.count())));
}

}  // namespace

std::string timeText(double seconds) {
  constexpr double milliseconds = 1000;
  return seconds < 1 ? fmt::format("{:.0f} ms", seconds * milliseconds)
                     : fmt::format("{:.1f} s", seconds);
}

Contact contact(const Site& site, const std::string& target) {
  // A connection may be lost by chance.
  constexpr int attempts = 3;
  UnaryCalls calls(target, site.limits.patience);
  for (int attempt = 1;; ++attempt) {
    const Answer answer = calls.call(site.waiter, healthMethod, "");
    if (answer.hasCome() || calls.isConnected()) {
      return {.peer = answer.peer, .complaint = "", .seconds = answer.seconds.count()};
    }
    if (attempt == attempts || answer.status.error_code() != grpc::StatusCode::UNAVAILABLE) {
      return {.peer = "",
              .complaint =
                  fmt::format("nothing answers at {}: {}", target, tools::describe(answer.status))};
    }
  }
}

void probePings(const Site& site, const std::string& peer, const PingChecks& checks) {
  constexpr int few = 2;
  if (!site.results.wants(checks.pings)) return;
  try {
    site.results.judge(checks.pings, Pinger(site, peer).ping(few, atOnce), "both were answered");
    if (!site.results.wants(checks.steadyPings)) return;
    probeSteadyPings(site, peer, checks.steadyPings);
  } catch (const NoAddress& error) {
    site.results.add(checks.pings, Verdict::Skipped, error.what());
    site.results.add(checks.steadyPings, Verdict::Skipped, error.what());
  } catch (const std::runtime_error& error) {
    site.results.add(checks.pings, Verdict::Failed, error.what());
    site.results.add(checks.steadyPings, Verdict::Skipped, error.what());
  }
}

}  // namespace probe
