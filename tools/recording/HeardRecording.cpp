#include "tools/recording/HeardRecording.h"

#include <fmt/format.h>
#include <google/protobuf/stubs/logging.h>

#include <array>
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

  bool isConnected() const { return isOpen_[0] || isOpen_[1]; }

 private:
  void takeEvent(const Record& record, SlotSet rate, bool& isOpen,
                 std::optional<tools::StreamEnd>& end) {
    switch (record.kind) {
      case Kind::Started:
        if (result_.target.empty()) result_.target = record.content;
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
      case Kind::Reply:
      case Kind::Lost:
      case Kind::Closed:
        break;
    }
  }

  HeardRecording& result_;
  std::array<bool, 2> isOpen_{false, false};
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
  result.heard.connected = hearing.isConnected();
  return result;
}

}  // namespace recording
