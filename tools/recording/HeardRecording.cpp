#include "tools/recording/HeardRecording.h"

#include <fmt/format.h>
#include <google/protobuf/stubs/logging.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "tools/recording/Reader.h"

namespace recording {
namespace {

using standin::SlotSet;

// Follows the events of both streams.
class Hearing {
 public:
  explicit Hearing(HeardRecording& result) : result_(result) {}

  void take(const Record& record) {
    result_.seconds = static_cast<double>(record.time) / 1e6;
    if (record.stream == Stream::Engine || record.kind == Kind::Closed) return;
    const bool isFast = record.stream == Stream::Fast;
    takeEvent(record, isFast ? SlotSet::Fast : SlotSet::Slow, isOpen_[isFast ? 0 : 1],
              isFast ? result_.heard.fastEnd : result_.heard.slowEnd);
  }

  // Also while an attempt waits for its server: no recording tells whether it is only silent.
  bool isConnected() const {
    return isOpen_[0] || isOpen_[1] || isWaiting(SlotSet::Fast) || isWaiting(SlotSet::Slow);
  }

  std::uint64_t lost() const { return lost_; }

 private:
  bool isWaiting(SlotSet rate) const {
    return isStarted_[rate == SlotSet::Fast ? 0 : 1] && !result_.heard.endOf(rate);
  }

  void takeEvent(const Record& record, SlotSet rate, bool& isOpen,
                 std::optional<tools::StreamEnd>& end) {
    switch (record.kind) {
      case Kind::Started:
        if (result_.target.empty()) result_.target = record.content;
        isStarted_[rate == SlotSet::Fast ? 0 : 1] = true;
        break;
      case Kind::Message:
        result_.heard.sightings.take(rate, record.content);
        [[fallthrough]];
      case Kind::Opened:
        isOpen = true;
        end.reset();
        break;
      case Kind::Ended: {
        const auto [code, text] = endIn(record.content);
        end = tools::StreamEnd{{static_cast<grpc::StatusCode>(code), std::string(text)}, isOpen};
        isOpen = false;
        break;
      }
      case Kind::Lost:
        lost_ += lostIn(record.content).messages;
        break;
      case Kind::Reply:
      case Kind::Closed:
        break;
    }
  }

  HeardRecording& result_;
  std::array<bool, 2> isOpen_{false, false};
  std::array<bool, 2> isStarted_{false, false};  // once or more
  std::uint64_t lost_ = 0;                       // messages
};

}  // namespace

HeardRecording heardIn(const std::string& path, tools::Sightings sightings) {
  HeardRecording result{.target = {}, .warning = {}, .heard = {.sightings = std::move(sightings)}};
  // Keeps protobuf from logging texts that are not UTF-8: Sightings explains them better.
  google::protobuf::SetLogHandler(nullptr);
  Hearing hearing(result);
  try {
    Reader reader(fileSource(path));
    while (const auto record = reader.next()) hearing.take(*record);
  } catch (const Cut& cut) {
    result.warning = fmt::format("{}: {}", path, cut.what());
  } catch (const Damaged& damaged) {
    throw std::runtime_error(fmt::format("{}: {}", path, damaged.what()));
  }
  if (hearing.lost() > 0) {
    result.warning += fmt::format("{}{}: {} messages are missing, which the recorder lost",
                                  result.warning.empty() ? "" : ". ", path, hearing.lost());
  }
  result.heard.connected = hearing.isConnected();
  return result;
}

}  // namespace recording
