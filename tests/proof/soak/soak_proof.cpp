// The module runs for as long as asked, while meters arrive, changes go out and every kind of fault
// strikes at random: nothing is lost that was sent on a living stream, and nothing grows.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <ratio>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "standin/Host.h"
#include "standin/LoadedModule.h"
#include "tests/proof/Proof.h"
#include "tests/proof/Trend.h"
#include "tests/proof/soak/ChangeWatch.h"
#include "tests/proof/soak/Course.h"
#include "tests/proof/soak/StreamWatch.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"
#include "tools/sim/FaultKinds.h"

namespace soak {
namespace {

using proof::isFull;
using standin::SlotSet;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;

// ---- What is sent ---------------------------------------------------------------------------

// The streams are silent for less than the five seconds until the module opens them again, so that
// it is in time to miss nothing. No outage may be as long as half the recording.
Course course(const std::string& stream, milliseconds interval, Number ring, seconds firstEnd) {
  const auto numbers = [&](milliseconds time) { return time / interval; };
  return {.stream = stream,
          .interval = interval,
          .ring = ring,
          .recorded = numbers(minutes(4)),
          .firstEnd = numbers(firstEnd),
          .endEvery = numbers(minutes(1)),
          .pause = numbers(milliseconds(4500))};
}

// A short run among other tests may have little of a processor, so it sends less.
Course fastCourse() {
  return course("fast", milliseconds(isFull() ? 1 : 4), 4000, seconds(3));
}

Course slowCourse() {
  return course("slow", milliseconds(100), 40, seconds(33));
}

constexpr milliseconds changeEvery{100};

// ---- What goes wrong ------------------------------------------------------------------------

std::string argumentOf(const sim::FaultKindRow& row) {
  switch (row.argument) {
    case sim::FaultArgument::Status:
      return " UNAVAILABLE";
    case sim::FaultArgument::Bytes:
      return row.group == sim::FaultGroup::Slicing ? " 100" : " 20kB";
    case sim::FaultArgument::Time:
      return " 50ms+-30ms";
    case sim::FaultArgument::None:
    case sim::FaultArgument::Number:
    case sim::FaultArgument::Count:
      break;
  }
  return "";
}

// Every kind of fault on everything that it can act on, except `loss`: that one drops messages on
// purpose, on streams that stay open.
std::string faultPlan() {
  const std::string when = isFull() ? "every 60..300" : "every 4..100";
  std::string plan;
  for (const auto& row : sim::faultKinds()) {
    if (row.kind == sim::FaultKind::Loss) continue;
    for (const auto subject : row.subjects()) {
      plan += fmt::format("{}{}: {} {}{}\n", when, row.lasts() ? " for 2" : "", row.name,
                          nameOf(subject), argumentOf(row));
    }
  }
  // So long that the gateway gives up the connection.
  if (isFull()) {
    plan += "every 600..1800 for 30: freeze meters\nevery 600..1800 for 30: freeze engine\n";
  }
  return plan;
}

const sim::FaultKindRow& rowCalled(const std::string& name) {
  const auto kinds = sim::faultKinds();
  const auto found =
      std::find_if(kinds.begin(), kinds.end(), [&](const auto& row) { return row.name == name; });
  if (found == kinds.end()) throw std::runtime_error("the simulator reports the fault " + name);
  return *found;
}

// ---- The run --------------------------------------------------------------------------------

// The faults `types`, `arrays` and `flood` send values under this key, which belongs to no ring.
constexpr auto otherKey = "other";

std::string metersOf(const Course& course) {
  std::string lines;
  for (Number slot = 0; slot < course.ring; ++slot) {
    const auto key = Course::key(slot);
    lines += fmt::format("Meter=Key={0} Type={1} CustomKey={0}\n", key, course.stream);
  }
  return lines + fmt::format("Meter=Key={0} Type={1} CustomKey={0}\n", otherKey, course.stream);
}

class Soak : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::vector<Course> courses{fastCourse(), slowCourse()};
    writeRecording(files_.path("soak.gwrec"), courses);
    startSimulator();
    startModule(courses);
    for (const Course& each : courses) watch(each);
    begin_ = nextChange_ = nextSample_ = Clock::now();
  }

  void startSimulator() {
    const std::vector<std::string> arguments{"sim",
                                             "--json",
                                             "--meters",
                                             SimProcess::anyPort,
                                             "--engine",
                                             SimProcess::anyPort,
                                             "--replay",
                                             files_.path("soak.gwrec"),
                                             "--loop",
                                             "--fault-plan",
                                             files_.write("faults", faultPlan()),
                                             "--seed",
                                             std::to_string(proof::seed()),
                                             "--keys",
                                             fmt::format("fast:int:{}", otherKey),
                                             fmt::format("slow:int:{}", otherKey)};
    simulator_ = std::make_unique<ToolProcess>(arguments);
  }

  std::string addressOf(const std::string& service) {
    const auto prefix = fmt::format(R"({{"event":"listening","service":"{}",)", service);
    return Json::parse(simulator_->waitLine(prefix)).at("address");
  }

  void startModule(const std::vector<Course>& courses) {
    std::string text = fmt::format("[Meters]\nTarget={}\n[Engine]\nTarget={}\n[MetersInt]\n",
                                   addressOf("meters"), addressOf("engine"));
    for (const Course& each : courses) text += metersOf(each);
    text += "[EngineInt]\nParam=Key=change CustomKey=change\n";
    ASSERT_EQ(instance_.start(files_.write("gateway.conf", text)), 0);
    host_.setLogSink([this](const standin::LogLine&) { ++logLines_; });
  }

  void watch(const Course& course) {
    auto slots = instance_.slots(course.stream == "fast" ? SlotSet::Fast : SlotSet::Slow);
    ASSERT_EQ(slots.front().name(), Course::key(0));
    const auto read = [slots = std::move(slots)](Number slot) {
      return std::get<std::int32_t>(slots[static_cast<std::size_t>(slot)].read());
    };
    streams_.emplace(course.stream, StreamWatch(course, read));
  }

  // Looks at the slots and sends changes until `isOver` holds or something is wrong.
  void runUntil(const std::function<bool()>& isOver) {
    constexpr milliseconds pace(50);
    for (auto next = Clock::now(); !isOver() && problems().empty();
         next = std::max(next + pace, Clock::now())) {
      std::this_thread::sleep_until(next);
      takeEvents();
      for (auto& [name, stream] : streams_) stream.look();
      sendChanges();
      changes_.judge();
      sampleIfDue();
    }
  }

  void sendChanges() {
    for (; isSending_ && nextChange_ <= Clock::now(); nextChange_ += changeEvery) {
      standin::KeyValueList list;
      list.addInt("gateway.change", changes_.send());
      engine_.notify(&list);
    }
  }

  // ---- Events of the simulator ----

  void takeEvents() {
    for (const auto& line : simulator_->takeLines()) take(Json::parse(line));
    for (const auto& [fault, subject] : lasting_) {
      for (auto* stream : streamsOf(subject)) stream->disturbed();
    }
  }

  void take(const Json& event) {
    const std::string kind = event.at("event");
    if (kind == "set_params") {
      changes_.arrived(event.at("value"));
    } else if (kind == "opened") {
      streams_.at(event.at("stream")).breaks();
      ++opened_;
    } else if (kind == "fault" || kind == "fault_over") {
      takeFault(rowCalled(event.at("fault")), event.at("subject"), kind == "fault");
    }
  }

  void takeFault(const sim::FaultKindRow& row, const std::string& subject, bool begins) {
    for (auto* stream : streamsOf(subject)) {
      stream->disturbed();
      // What was due meanwhile is not sent.
      if (row.group == sim::FaultGroup::Stream && !begins) stream->breaks();
    }
    const std::pair key(std::string(row.name), subject);
    if (!begins) {
      lasting_.erase(key);
      return;
    }
    ++faults_;
    if (row.lasts()) lasting_.insert(key);
    if (row.group == sim::FaultGroup::Connection && subject == "engine") changes_.disconnected();
  }

  std::vector<StreamWatch*> streamsOf(const std::string& subject) {
    std::vector<StreamWatch*> chosen;
    for (auto& [name, stream] : streams_) {
      if (name == subject || subject == "meters") chosen.push_back(&stream);
    }
    return chosen;
  }

  // ---- Growth ----

  bool bothCarryValuesSince(Clock::time_point time) const {
    return std::all_of(streams_.begin(), streams_.end(),
                       [&](const auto& each) { return each.second.latest() > time; });
  }

  // Messages that wait take memory, some megabytes after a flood.
  bool nothingWaits() const {
    return std::all_of(streams_.begin(), streams_.end(), [&](const auto& each) {
      return each.second.latest() > begin_ && each.second.lateness() < milliseconds(500);
    });
  }

  void sampleIfDue() {
    const auto now = Clock::now();
    if (now < nextSample_ || !nothingWaits()) return;
    trend_.sample();
    nextSample_ = now + samplePeriod_;
  }

  // These limit the growth over the whole run, so a longer run finds a smaller leak.
  proof::TrendLimits limits() const {
    const auto samples = static_cast<double>(std::max<std::uint64_t>(trend_.samples(), 1));
    constexpr double mebibyte = 1 << 20;
    proof::TrendLimits all{.heap = (isFull() ? 2 : 20) * mebibyte / samples,
                           .resident = {},
                           .threads = (isFull() ? 4 : 20) / samples,
                           .descriptors = (isFull() ? 4 : 20) / samples};
    if (isFull()) all.resident = 8 * mebibyte / samples;
    return all;
  }

  // ---- The verdict ----

  std::vector<std::string> problems() const {
    auto all = changes_.problems();
    for (const auto& [name, stream] : streams_) {
      all.insert(all.end(), stream.problems().begin(), stream.problems().end());
    }
    const auto now = Clock::now();
    if (now > begin_ + mostSilence && !bothCarryValuesSince(now - mostSilence)) {
      all.push_back("a stream has carried no value for minutes");
    }
    if (logLines_ > 0) all.push_back("the module has logged something");
    return all;
  }

  std::uint64_t sum(std::uint64_t (StreamWatch::*count)() const) const {
    std::uint64_t all = 0;
    for (const auto& [name, stream] : streams_) all += (stream.*count)();
    return all;
  }

  void reportAll() const {
    const std::chrono::duration<double, std::ratio<60>> time(Clock::now() - begin_);
    auto figures = trend_.figures(limits());
    figures.insert(figures.begin(), proof::measured("length", time.count(), ".1f", "minutes"));
    proof::report({"Soak",
                   "messages and changes, while faults of every kind strike at random",
                   "",
                   {{"messages", sum(&StreamWatch::sent)},
                    {"changes", static_cast<std::uint64_t>(changes_.sent())},
                    {"faults", faults_},
                    {"streams opened", opened_}},
                   "every value sent on a living stream reaches its slot, also right before the "
                   "server ends the stream; every change reaches a connected service, and none "
                   "twice; nothing is logged, and nothing grows",
                   {{"values seen", sum(&StreamWatch::seen)},
                    {"values of closed or stalled streams", sum(&StreamWatch::inGaps)},
                    {"values looked at too late", sum(&StreamWatch::unknown)},
                    {"ends without a missing value", sum(&StreamWatch::endsWithoutLoss)},
                    {"changes arrived", changes_.arrived()},
                    {"changes lost with the connection", changes_.lost()}},
                   figures});
  }

  static constexpr minutes mostSilence{3};

  standin::Host host_{{.listsAlwaysMove = false, .keepRecords = false}};
  standin::Engine engine_;
  standin::LoadedModule module_{GATEWAY_MODULE};
  standin::ModuleInstance instance_{module_, engine_};
  TemporaryFolder files_;
  std::unique_ptr<ToolProcess> simulator_;

  std::map<std::string, StreamWatch> streams_;
  ChangeWatch changes_;
  std::set<std::pair<std::string, std::string>> lasting_;  // faults, with their subjects
  std::uint64_t faults_ = 0;
  std::uint64_t opened_ = 0;
  std::atomic<int> logLines_{0};

  const Clock::duration length_ =
      std::max<Clock::duration>(seconds(proof::scaled(12, 120)), proof::soak());
  Clock::time_point begin_;
  Clock::time_point nextChange_;
  bool isSending_ = true;
  const Clock::duration samplePeriod_ =
      std::clamp<Clock::duration>(length_ / 100, seconds(1), seconds(30));
  Clock::time_point nextSample_;
  proof::Trend trend_{static_cast<std::uint64_t>(length_ / samplePeriod_ / 5), "sample"};
};

TEST_F(Soak, LosesNothingThatWasSentOnALivingStreamAndDoesNotGrow) {
  const auto end = begin_ + length_;
  runUntil([&] { return Clock::now() >= end; });

  // After all faults so far, everything still works.
  const auto changesAtEnd = changes_.sent();
  runUntil([&] { return bothCarryValuesSince(end) && changes_.latest() > changesAtEnd; });

  // The last changes may be under way. Some may be lost.
  isSending_ = false;
  const auto giveUp = Clock::now() + seconds(10);
  runUntil([&] { return changes_.haveArrivedAfter(changesAtEnd) || Clock::now() > giveUp; });
  if (problems().empty()) {
    for (auto& [name, stream] : streams_) stream.judgeAll();
    changes_.judgeAll();
  }
  EXPECT_EQ(problems(), std::vector<std::string>{});
  EXPECT_LE(sum(&StreamWatch::unknown) * 100, sum(&StreamWatch::sent));

  host_.setLogSink({});
  instance_.stop();
  EXPECT_TRUE(instance_.hostBytesIntact());
  EXPECT_EQ(host_.outstanding(), standin::Outstanding{});
  EXPECT_EQ(host_.violations(), std::vector<std::string>{});
  reportAll();
}

}  // namespace
}  // namespace soak
