// The checks of a meter server.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "tools/common/Shown.h"
#include "tools/common/Sightings.h"
#include "tools/common/StreamProblems.h"
#include "tools/probe/Probe.h"
#include "tools/probe/Watch.h"

namespace probe {
namespace {

using tools::SeenKey;
using tools::Sightings;
using tools::UnreadableKind;

double secondsOf(Clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

std::string_view methodOf(SlotSet rate) {
  return rate == SlotSet::Fast ? "GetMetersFast" : "GetMetersSlow";
}

std::string counted(std::uint64_t count, std::string_view noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string endText(SlotSet rate, const Course& course) {
  return fmt::format("the {} stream ended after {} with {}", nameOf(rate),
                     counted(course.messages, "message"), tools::describe(*course.end));
}

// Whether our own limits for hostile servers ended the stream.
bool isEndOfLimit(const Course& course) {
  if (!course.end || course.end->error_code() != grpc::StatusCode::RESOURCE_EXHAUSTED) return false;
  const std::string text = course.end->error_message();
  return text.starts_with("Received message larger than max") || text.starts_with("Buffers full");
}

// Sightings that keep next to nothing, for streams of which only the course matters.
Sightings noKeys() {
  return Sightings({.keys = 1, .keyBytes = 1000});
}

class MeterProbe {
 public:
  MeterProbe(const Site& site, std::string target, std::string peer)
      : site_(site), results_(site.results), target_(std::move(target)), peer_(std::move(peer)) {}

  void run() {
    listen();
    if (!judgeMethods()) return results_.skipRest(false, "a method is missing");
    judgeArrival();
    judgeMessages();
    judgePace();
    if (!results_.hasHeld(CheckId::StaysOpen)) {
      return results_.skipRest(false, "the streams do not stay open");
    }
    probePings(site_, peer_, {.pings = CheckId::Pings, .steadyPings = CheckId::SteadyPings});
    if (!results_.hasHeld(CheckId::Values)) return results_.skipRest(false, "no values come");
    judgeReopening();
    judgeThreeGateways();
    judgeReturn();
  }

 private:
  // ---- Listening ----------------------------------------------------------------------------

  Clock::time_point after(Clock::time_point begin, Limits::Seconds time) const {
    return begin + std::chrono::duration_cast<Clock::duration>(time);
  }

  // When to give up on a stream; nothing if it needs no more time.
  std::optional<Clock::time_point> limitOf(const Watch& watch, const Course& course) const {
    const auto& patience = site_.limits.patience;
    if (course.end) return std::nullopt;
    if (course.messages == 0) return after(watch.opened(), patience);
    if (results_.level() >= 2 && !course.firstValues) return after(watch.opened(), patience);
    if (results_.wants(CheckId::Heartbeat) && course.messages == 1) {
      return after(course.last, patience);
    }
    return std::nullopt;
  }

  void waitForStreams(const Watch& watch) const {
    for (;;) {
      watch.event().clear();
      auto until =
          results_.level() >= 3 ? after(watch.opened(), site_.limits.listening) : watch.opened();
      for (const SlotSet rate : bothRates) {
        until = std::max(until, limitOf(watch, watch.courseOf(rate)).value_or(until));
      }
      if (until <= Clock::now()) return;
      site_.waiter.wait(watch.event().descriptor(), until);
    }
  }

  void listen() {
    Watch watch(target_);
    waitForStreams(watch);
    listened_ = secondsOf(Clock::now() - watch.opened());
    opened_ = watch.opened();
    for (const SlotSet rate : bothRates) courseOf(rate) = watch.courseOf(rate);
    const bool areOpen = !fast_.end && !slow_.end;
    if (areOpen && messages() > 0) judgeCancel(watch);
    sightings_ = watch.finish().sightings;
  }

  // ---- The first connection -----------------------------------------------------------------

  bool judgeMethods() {
    std::vector<std::string_view> missing;
    for (const SlotSet rate : bothRates) {
      const auto& end = courseOf(rate).end;
      if (end && end->error_code() == grpc::StatusCode::UNIMPLEMENTED) {
        missing.push_back(methodOf(rate));
      }
    }
    results_.judge(CheckId::Methods,
                   missing.empty() ? "" : fmt::format("{} is missing", fmt::join(missing, ", ")),
                   "both do");
    return missing.empty();
  }

  void judgeArrival() {
    std::vector<std::string> arrivals;
    std::vector<std::string> complaints;
    std::vector<std::string> ends;
    for (const SlotSet rate : bothRates) {
      const Course& course = courseOf(rate);
      if (course.firstValues) {
        arrivals.push_back(fmt::format("{} after {} with {}", nameOf(rate),
                                       timeText(secondsOf(*course.firstValues - opened_)),
                                       counted(course.snapshotKeys, "key")));
      } else if (!course.end) {
        complaints.push_back(fmt::format("no values came on the {} stream within {}", nameOf(rate),
                                         timeText(site_.limits.patience.count())));
      }
      if (course.end && !isEndOfLimit(course)) ends.push_back(endText(rate, course));
    }
    const auto seen = fmt::format("{}", fmt::join(arrivals, ", "));
    results_.judge(CheckId::Values, arrivals.empty() ? "none came on either stream" : "", seen);
    if (arrivals.empty() && complaints.empty()) {
      results_.add(CheckId::Snapshot, Verdict::Skipped, "the streams ended before");
    }
    results_.judge(CheckId::Snapshot, fmt::format("{}", fmt::join(complaints, ", ")), seen);
    results_.judge(CheckId::StaysOpen, fmt::format("{}", fmt::join(ends, ", ")),
                   fmt::format("both were open for {}", timeText(listened_)));
  }

  // ---- Messages -----------------------------------------------------------------------------

  std::string firstOfKind(UnreadableKind kind) const {
    for (const SlotSet rate : bothRates) {
      const auto& first =
          sightings_.messagesOf(rate).firstOfKind.at(static_cast<std::size_t>(kind));
      if (!first.empty()) return fmt::format("on the {} stream, {}", nameOf(rate), first);
    }
    return "";
  }

  std::string complaintAboutSize() const {
    for (const SlotSet rate : bothRates) {
      if (isEndOfLimit(courseOf(rate))) return endText(rate, courseOf(rate));
    }
    return firstOfKind(UnreadableKind::TooLong);
  }

  // The first of all complaints about keys, and how many more keys have one.
  template <class Complain>
  std::string firstComplaint(const Complain& complain) const {
    std::string first;
    std::size_t count = 0;
    for (const SlotSet rate : bothRates) {
      for (const SeenKey& key : sightings_.keysOf(rate)) {
        const std::string complaint = complain(key);
        if (complaint.empty() || ++count > 1) continue;
        first = fmt::format("on the {} stream, key {}: {}", nameOf(rate), tools::shown(key.key),
                            complaint);
      }
    }
    return count > 1 ? fmt::format("{}, and {}", first, counted(count - 1, "more key")) : first;
  }

  std::string complaintAboutCarrying() const {
    for (const SlotSet rate : bothRates) {
      if (sightings_.messagesOf(rate).ignoredValues == 0) continue;
      return fmt::format("the {} stream has more than the {} that the probe keeps", nameOf(rate),
                         counted(sightings_.keysOf(rate).size(), "key"));
    }
    return firstComplaint([](const SeenKey& key) {
      auto complaint = tools::complaintAboutKey(key.key);
      // Several types are the subject of another check.
      if (!complaint.empty() || key.types.size() > 1) return complaint;
      return tools::complaintAboutTypes(key.types);
    });
  }

  void judgeMessages() {
    if (messages() == 0) {
      for (const CheckId check :
           {CheckId::Readable, CheckId::Utf8, CheckId::Size, CheckId::OneType, CheckId::Carried}) {
        results_.add(check, Verdict::Skipped, "no message came");
      }
      return;
    }
    const auto keys =
        sightings_.keysOf(SlotSet::Fast).size() + sightings_.keysOf(SlotSet::Slow).size();
    const auto seenMessages = counted(messages(), "message");
    results_.judge(CheckId::Readable, firstOfKind(UnreadableKind::NotAMeter), seenMessages);
    results_.judge(CheckId::Utf8, firstOfKind(UnreadableKind::NotUtf8), seenMessages);
    results_.judge(
        CheckId::Size, complaintAboutSize(),
        fmt::format("the longest had {}", counted(std::max(fast_.longest, slow_.longest), "byte")));
    results_.judge(CheckId::OneType, firstComplaint([](const SeenKey& key) -> std::string {
                     if (key.types.size() < 2) return "";
                     return fmt::format("it came as {}",
                                        fmt::join(tools::namesOf(key.types), ", "));
                   }),
                   counted(keys, "key"));
    results_.judge(CheckId::Carried, complaintAboutCarrying(), counted(keys, "key"));
  }

  // ---- Pace ---------------------------------------------------------------------------------

  std::string complaintAboutPause(SlotSet rate) const {
    const Course& course = courseOf(rate);
    const double most = site_.limits.patience.count();
    if (secondsOf(course.longestPause) > most) {
      return fmt::format("a pause on the {} stream lasted {}", nameOf(rate),
                         timeText(secondsOf(course.longestPause)));
    }
    if (course.end || course.messages > 1) return "";
    return fmt::format("nothing {}came on the {} stream within {}",
                       course.messages == 0 ? "" : "more ", nameOf(rate), timeText(most));
  }

  double rateOf(SlotSet rate) const {
    return static_cast<double>(courseOf(rate).messages) / listened_;
  }

  void judgePace() {
    if (!results_.wants(CheckId::Heartbeat)) return;
    std::vector<std::string> pauses;
    std::vector<std::string> rates;
    std::vector<std::string> rush;
    for (const SlotSet rate : bothRates) {
      const auto complaint = complaintAboutPause(rate);
      if (!complaint.empty()) pauses.push_back(complaint);
      const auto pace = fmt::format("{}: {:.1f} messages a second, and {} at most within 10 ms",
                                    nameOf(rate), rateOf(rate), courseOf(rate).burst);
      rates.push_back(pace);
      if (rateOf(rate) > site_.limits.messagesPerSecond) rush.push_back(pace);
    }
    const auto longest = std::max(fast_.longestPause, slow_.longestPause);
    results_.judge(CheckId::Heartbeat, fmt::format("{}", fmt::join(pauses, ", ")),
                   fmt::format("the longest pause was {}", timeText(secondsOf(longest))));
    results_.judge(CheckId::Rate, fmt::format("{}", fmt::join(rush, "; ")),
                   fmt::format("{}", fmt::join(rates, "; ")));
  }

  // ---- Gateways that come and go ------------------------------------------------------------

  // Cancels the quieter stream, so that the other soon shows whether it continues.
  void judgeCancel(Watch& watch) {
    if (!results_.wants(CheckId::Cancel)) return;
    const SlotSet kept = fast_.messages >= slow_.messages ? SlotSet::Fast : SlotSet::Slow;
    const SlotSet cancelled = kept == SlotSet::Fast ? SlotSet::Slow : SlotSet::Fast;
    watch.cancel(cancelled);
    const auto until = after(Clock::now(), site_.limits.patience);
    site_.waiter.waitUntil(watch.event(), until,
                           [&] { return watch.courseOf(cancelled).end.has_value(); });
    const Course before = watch.courseOf(kept);
    const bool continues = site_.waiter.waitUntil(watch.event(), until, [&] {
      const Course now = watch.courseOf(kept);
      return now.end || now.messages > before.messages;
    });
    const Course now = watch.courseOf(kept);
    const bool isQuiet = before.messages == 1;
    cancelComplaint_ = now.end ? endText(kept, now)
                       : continues || isQuiet
                           ? ""
                           : fmt::format("the {} stream brought nothing more", nameOf(kept));
    kept_ = kept;
  }

  // The streams that are known to bring messages.
  bool isActive(SlotSet rate) const { return courseOf(rate).messages > 0; }
  Course& courseOf(SlotSet rate) { return rate == SlotSet::Fast ? fast_ : slow_; }
  const Course& courseOf(SlotSet rate) const { return rate == SlotSet::Fast ? fast_ : slow_; }
  std::uint64_t messages() const { return fast_.messages + slow_.messages; }

  // Waits until each active stream has brought a message. Returns a complaint if that fails.
  std::string complaintAboutOpening(const Watch& watch) const {
    std::string complaint;
    site_.waiter.waitUntil(watch.event(), after(watch.opened(), site_.limits.patience), [&] {
      complaint.clear();
      for (const SlotSet rate : bothRates) {
        const Course course = watch.courseOf(rate);
        if (course.end) {
          complaint = endText(rate, course);
          return true;
        }
        if (isActive(rate) && course.messages == 0) {
          complaint = fmt::format("nothing came on the {} stream within {}", nameOf(rate),
                                  timeText(site_.limits.patience.count()));
        }
      }
      return complaint.empty();
    });
    return complaint;
  }

  void judgeReopening() {
    if (kept_) {
      results_.judge(CheckId::Cancel, cancelComplaint_,
                     fmt::format("the {} stream continued", nameOf(*kept_)));
    }
    if (!results_.wants(CheckId::Reopen)) return;
    for (std::size_t i = 1; i <= site_.limits.reopenings; ++i) {
      const Watch watch(target_, noKeys());
      const auto complaint = complaintAboutOpening(watch);
      if (complaint.empty()) continue;
      return results_.add(CheckId::Reopen, Verdict::Failed,
                          fmt::format("at opening {}, {}", i, complaint));
    }
    results_.add(CheckId::Reopen, Verdict::Held,
                 fmt::format("messages came all {} times", site_.limits.reopenings));
  }

  void judgeThreeGateways() {
    if (!results_.wants(CheckId::ThreeGateways)) return;
    std::vector<std::unique_ptr<Watch>> watches;
    for (std::size_t i = 0; i < site_.limits.gateways; ++i) {
      watches.push_back(std::make_unique<Watch>(target_, noKeys()));
    }
    std::string complaint;
    for (std::size_t i = 0; i < watches.size() && complaint.empty(); ++i) {
      complaint = complaintAboutOpening(*watches[i]);
      if (!complaint.empty()) complaint = fmt::format("at gateway {}, {}", i + 1, complaint);
    }
    results_.judge(CheckId::ThreeGateways, complaint, "messages came to all of them");
  }

  // The keys with which the first connection began, as far as a gateway can have them.
  std::vector<SeenKey> snapshot() const {
    std::vector<SeenKey> keys;
    for (const SlotSet rate : bothRates) {
      const auto& all = sightings_.keysOf(rate);
      for (std::size_t i = 0; i < std::min(courseOf(rate).snapshotKeys, all.size()); ++i) {
        if (tools::typeOf(all[i].types.front()).slotType) keys.push_back(all[i]);
      }
    }
    return keys;
  }

  void judgeReturn() {
    if (!results_.wants(CheckId::Return)) return;
    const auto wanted = snapshot();
    if (wanted.empty()) {
      return results_.add(CheckId::Return, Verdict::Skipped, "the streams begin without keys");
    }
    Sightings sightings({.keys = wanted.size()});
    for (const SeenKey& key : wanted) {
      sightings.expect(key.rate, key.key, *tools::typeOf(key.types.front()).slotType);
    }
    Watch watch(target_, std::move(sightings));
    site_.waiter.waitUntil(watch.event(), after(watch.opened(), site_.limits.patience),
                           [&] { return watch.hasSeenExpected(); });
    const double seconds = secondsOf(Clock::now() - watch.opened());
    // A key that comes with another type does not count: its slot would stay empty.
    const auto missing = watch.finish().sightings.countMissing();
    results_.judge(
        CheckId::Return,
        missing == 0 ? ""
                     : fmt::format("{} of {} did not come again within {}", missing,
                                   counted(wanted.size(), "key"), timeText(seconds)),
        fmt::format("{} came again within {}", counted(wanted.size(), "key"), timeText(seconds)));
  }

  const Site& site_;
  Results& results_;
  const std::string target_;
  const std::string peer_;

  // The first connection.
  Clock::time_point opened_;
  double listened_ = 0;  // in seconds
  Course fast_;
  Course slow_;
  Sightings sightings_;
  std::optional<SlotSet> kept_;  // the stream that was kept when the other was cancelled
  std::string cancelComplaint_;
};

}  // namespace

void probeMeters(const Site& site, const std::string& target) {
  const Contact found = contact(site, target);
  site.results.judge(CheckId::Connects, found.complaint,
                     fmt::format("it answered after {}", timeText(found.seconds)));
  if (!found.complaint.empty()) return site.results.skipRest(false, "the server can't be reached");
  MeterProbe(site, target, found.peer).run();
}

}  // namespace probe
