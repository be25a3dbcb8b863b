#include "tools/record/Summary.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <google/protobuf/message_lite.h>

#include <algorithm>
#include <chrono>
#include <cmath>

#include "engine.pb.h"
#include "tools/common/Json.h"
#include "tools/common/Shown.h"
#include "tools/common/StatusName.h"

namespace record {
namespace {

using nlohmann::ordered_json;
using recording::Kind;
using recording::Record;
using recording::Stream;
using tools::ValueCase;

constexpr std::array streams{Stream::Fast, Stream::Slow, Stream::Engine};

// The two services number their members alike.
static_assert(static_cast<int>(sonalith::grpcengine::AnyValue::kSdouble) ==
              static_cast<int>(sonalith::grpc::AnyValue::kSdouble));

template <class Value>
ValueCase caseOf(const Value& value) {
  return static_cast<ValueCase>(value.value_case());
}

const std::string& textOf(const sonalith::grpc::AnyValue& value) {
  return value.sstring().data();
}
const std::string& textOf(const sonalith::grpcengine::AnyValue& value) {
  return value.sstring();
}

ordered_json numberJson(double number) {
  if (std::isfinite(number)) return number;
  return std::isnan(number) ? "nan" : fmt::format("{}", number);
}

template <class Numbers>
ordered_json arrayJson(const Numbers& numbers) {
  auto array = ordered_json::array();
  for (const auto number : numbers) array.emplace_back(tools::jsonOf(standin::SlotValue(number)));
  return array;
}

template <class Value>
ordered_json valueJson(const Value& value) {
  switch (caseOf(value)) {
    case ValueCase::kSstring:
      return textOf(value);
    case ValueCase::kSfloat:
      return tools::jsonOf(standin::SlotValue(value.sfloat()));
    case ValueCase::kSint:
      return value.sint();
    case ValueCase::kSuint:
      return value.suint();
    case ValueCase::kAfloat:
      return arrayJson(value.afloat().data());
    case ValueCase::kAint:
      return arrayJson(value.aint().data());
    case ValueCase::kAuint:
      return arrayJson(value.auint().data());
    case ValueCase::kSdouble:
      return numberJson(value.sdouble());
    case ValueCase::VALUE_NOT_SET:
      break;
  }
  return nullptr;
}

template <class Items>
ordered_json valuesJson(const Items& items) {
  auto values = ordered_json::array();
  for (const auto& item : items) {
    values.push_back({{"key", item.key()},
                      {"type", tools::typeOf(caseOf(item.value())).name},
                      {"value", valueJson(item.value())}});
  }
  return values;
}

// Receivers refuse longer messages. A parsed one could take a hundred times the memory.
bool parse(std::string_view content, google::protobuf::MessageLite& message) {
  return content.size() <= tools::Sightings::messageLimit &&
         message.ParseFromArray(content.data(), static_cast<int>(content.size()));
}

std::string endText(std::int32_t status) {
  return tools::statusText(static_cast<grpc::StatusCode>(status));
}

// Three decimals of milliseconds, which are microseconds.
std::string milliseconds(double microseconds) {
  return fmt::format("{:.3f}", microseconds / 1000);
}

double perSecond(std::uint64_t count, double seconds) {
  return seconds > 0 ? static_cast<double>(count) / seconds : 0;
}

using Row = std::vector<std::string>;

Row timesRow(const std::string& stream, const Gaps& gaps, double seconds, const std::string& last) {
  return {stream,
          std::to_string(gaps.events()),
          fmt::format("{:.2f}", perSecond(gaps.events(), seconds)),
          milliseconds(gaps.mean()),
          milliseconds(gaps.jitter()),
          milliseconds(static_cast<double>(gaps.longest())),
          last};
}

Row sizesRow(const std::string& stream, const StreamSummary& of) {
  Row row{stream};
  for (const std::uint64_t number : {of.started, of.values, of.bytes, of.shortest, of.longest,
                                     of.unreadable, of.lost.messages}) {
    row.push_back(std::to_string(number));
  }
  return row;
}

std::string endsText(const StreamSummary& of) {
  std::vector<std::string> ends;
  for (const auto& [code, count] : of.ends) {
    ends.push_back(fmt::format("{} x {}", count, endText(code)));
  }
  return ends.empty() ? "-" : fmt::to_string(fmt::join(ends, ", "));
}

// Columns separated by two blanks: the first and the last on the left, numbers on the right.
std::string tableOf(const std::vector<Row>& rows) {
  std::vector<std::size_t> widths(rows.front().size());
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::string text;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i + 1 < row.size(); ++i) {
      line += i == 0 ? fmt::format("{:<{}}", row[i], widths[i])
                     : fmt::format("  {:>{}}", row[i], widths[i]);
    }
    const bool isNumber = rows.front().back() == "LOST";
    text += fmt::format("{}  {:>{}}\n", line, row.back(), isNumber ? widths.back() : 0);
  }
  return text;
}

ordered_json gapsJson(const Gaps& gaps) {
  return {{"mean", std::round(gaps.mean()) / 1e6},
          {"jitter", std::round(gaps.jitter()) / 1e6},
          {"longest", static_cast<double>(gaps.longest()) / 1e6}};
}

}  // namespace

void Gaps::add(std::uint64_t time) {
  if (events_++ > 0) {
    const std::uint64_t gap = time - latest_;
    longest_ = std::max(longest_, gap);
    const double distance = static_cast<double>(gap) - mean_;
    mean_ += distance / static_cast<double>(events_ - 1);
    squares_ += distance * (static_cast<double>(gap) - mean_);
  }
  latest_ = time;
}

double Gaps::mean() const {
  return mean_;
}

double Gaps::jitter() const {
  return events_ > 1 ? std::sqrt(squares_ / static_cast<double>(events_ - 1)) : 0;
}

ordered_json Summary::take(const Record& record, bool withValues) {
  latestTime_ = record.time;
  const auto index = static_cast<std::size_t>(record.stream);
  Collected& stream = streams_[index];
  switch (record.kind) {
    case Kind::Started:
      ++stream.summary.started;
      if (targets_[index].empty()) targets_[index] = tools::cutTo(record.content, 300);
      break;
    case Kind::Message:
      return takeMessage(stream, record, withValues);
    case Kind::Ended: {
      constexpr std::size_t codesKept = 100;
      auto& ends = stream.summary.ends;
      const auto code = recording::endIn(record.content).code;
      if (ends.size() < codesKept || ends.contains(code)) ++ends[code];
      break;
    }
    case Kind::Lost: {
      const auto lost = recording::lostIn(record.content);
      stream.summary.lost.messages += lost.messages;
      stream.summary.lost.bytes += lost.bytes;
      break;
    }
    case Kind::Closed:
      isComplete_ = true;
      break;
    case Kind::Opened:
    case Kind::Reply:
      break;
  }
  return nullptr;
}

ordered_json Summary::takeMessage(Collected& stream, const Record& record, bool withValues) {
  auto& of = stream.summary;
  const std::uint64_t size = record.content.size();
  of.shortest = of.gaps.events() == 0 ? size : std::min(of.shortest, size);
  of.longest = std::max(of.longest, size);
  of.bytes += size;
  of.gaps.add(record.time);
  if (record.stream == Stream::Engine) {
    sonalith::grpcengine::RequestSetParams request;
    if (parse(record.content, request)) {
      takeValues(stream, request.params(), record.time);
      return withValues ? valuesJson(request.params()) : nullptr;
    }
  } else {
    sonalith::grpc::Meter meter;
    if (parse(record.content, meter)) {
      takeValues(stream, meter.values(), record.time);
      return withValues ? valuesJson(meter.values()) : nullptr;
    }
  }
  ++of.unreadable;
  return nullptr;
}

template <class Items>
void Summary::takeValues(Collected& stream, const Items& items, std::uint64_t time) {
  const std::uint64_t message = stream.summary.gaps.events();
  for (const auto& item : items) {
    const ValueCase type = caseOf(item.value());
    ++stream.summary.values;
    KeySummary* const key = find(stream, item.key());
    if (key == nullptr) {
      ++stream.summary.ignoredValues;
      continue;
    }
    if (std::find(key->types.begin(), key->types.end(), type) == key->types.end()) {
      key->types.push_back(type);
    }
    if (std::exchange(key->latestMessage, message) != message) key->gaps.add(time);
  }
}

// Adds the key unless that exceeds the limits.
KeySummary* Summary::find(Collected& stream, const std::string& key) {
  constexpr tools::SightingLimits limits;
  auto& keys = stream.summary.keys;
  if (const auto known = stream.places.find(key); known != stream.places.end()) {
    return &keys[known->second];
  }
  if (keys.size() >= limits.keys || stream.keyBytes + key.size() > limits.keyBytes) return nullptr;
  stream.keyBytes += key.size();
  stream.places.emplace(key, keys.size());
  keys.push_back({.key = key, .types = {}, .gaps = {}});
  return &keys.back();
}

std::string Summary::heading() const {
  const auto begin = std::chrono::sys_seconds(std::chrono::seconds(startTime_ / 1000000));
  const std::string& meters = targets_[0].empty() ? targets_[1] : targets_[0];
  const std::string& engine = targets_[2];
  std::string text = fmt::format("{}\n", tools::shown(file_));
  if (!meters.empty()) text += fmt::format("  meters    {}\n", tools::shown(meters));
  if (!engine.empty()) text += fmt::format("  engine    {}\n", tools::shown(engine));
  text += fmt::format("  begin     {:%F %T} UTC\n", fmt::gmtime(begin.time_since_epoch().count()));
  text += fmt::format("  length    {:.3f} s{}\n", seconds(), isComplete_ ? "" : ", incomplete");
  return text;
}

std::string Summary::text() const {
  std::vector<Row> times{
      {"STREAM", "MESSAGES", "PER S", "GAP MS", "JITTER MS", "LONGEST MS", "ENDED BY"}};
  std::vector<Row> sizes{
      {"STREAM", "OPENED", "VALUES", "BYTES", "SHORTEST", "LONGEST", "UNREADABLE", "LOST"}};
  std::vector<Row> keys{
      {"STREAM", "MESSAGES", "PER S", "GAP MS", "JITTER MS", "LONGEST MS", "TYPE AND KEY"}};
  std::string ignored;
  for (const auto stream : streams) {
    const auto& now = of(stream);
    const std::string name(nameOf(stream));
    if (now.started == 0 && now.gaps.events() == 0) continue;
    times.push_back(timesRow(name, now.gaps, seconds(), endsText(now)));
    sizes.push_back(sizesRow(name, now));
    for (const auto& key : now.keys) {
      const auto types = fmt::to_string(fmt::join(tools::namesOf(key.types), ", "));
      keys.push_back(timesRow(name, key.gaps, seconds(), types + " " + tools::shown(key.key)));
    }
    if (now.ignoredValues == 0) continue;
    ignored +=
        fmt::format("{}: {} values of further keys are not listed\n", name, now.ignoredValues);
  }
  return fmt::format("{}\n{}\n{}\n{}{}", heading(), tableOf(times), tableOf(sizes), tableOf(keys),
                     ignored);
}

ordered_json Summary::json() const {
  ordered_json summary{{"event", "summary"},
                       {"file", file_},
                       {"begin", static_cast<double>(startTime_) / 1e6},
                       {"seconds", seconds()},
                       {"complete", isComplete_},
                       {"streams", ordered_json::array()},
                       {"keys", ordered_json::array()}};
  for (const auto stream : streams) {
    const auto& now = of(stream);
    auto ends = ordered_json::object();
    for (const auto& [code, count] : now.ends) ends[endText(code)] = count;
    summary["streams"].push_back({{"stream", nameOf(stream)},
                                  {"target", targets_[static_cast<std::size_t>(stream)]},
                                  {"opened", now.started},
                                  {"messages", now.gaps.events()},
                                  {"values", now.values},
                                  {"bytes", now.bytes},
                                  {"shortest", now.shortest},
                                  {"longest", now.longest},
                                  {"gaps", gapsJson(now.gaps)},
                                  {"unreadable", now.unreadable},
                                  {"lost", now.lost.messages},
                                  {"ignored_values", now.ignoredValues},
                                  {"ends", ends}});
    for (const auto& key : now.keys) {
      summary["keys"].push_back({{"stream", nameOf(stream)},
                                 {"key", key.key},
                                 {"types", tools::namesOf(key.types)},
                                 {"messages", key.gaps.events()},
                                 {"gaps", gapsJson(key.gaps)}});
    }
  }
  return summary;
}

}  // namespace record
