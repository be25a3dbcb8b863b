#include "tests/proof/soak/Course.h"

#include <fstream>
#include <stdexcept>
#include <string_view>

#include "meters.pb.h"
#include "tools/recording/Format.h"
#include "tools/recording/Writer.h"

namespace soak {
namespace {

using recording::Kind;
using std::chrono::microseconds;

std::string messageOf(const Course& course, Number place) {
  sonalith::grpc::Meter meter;
  auto& entry = *meter.add_values();
  entry.set_key(Course::key(place % course.ring));
  entry.mutable_value()->set_sint(static_cast<std::int32_t>(place));
  return meter.SerializeAsString();
}

// The records of one stream at the time of one number.
void addRecords(recording::Writer& writer, const Course& course, Number place) {
  const auto stream = course.stream == "fast" ? recording::Stream::Fast : recording::Stream::Slow;
  const auto time = static_cast<std::uint64_t>(microseconds(place * course.interval).count());
  const auto add = [&](Kind kind, const std::string& content) {
    writer.add({kind, stream, 1, time, content});
  };
  if (course.isFirstAfterEnd(place)) add(Kind::Started, "");
  if (course.isSent(place)) add(Kind::Message, messageOf(course, place));
  if (course.isLastBeforeEnd(place)) add(Kind::Ended, contentOf(recording::EndContent{}));
}

}  // namespace

Number Course::sinceEnd(Number number) const {
  const Number since = placeOf(number) - firstEnd;
  return since < 0 ? since : since % endEvery;
}

bool Course::isSent(Number number) const {
  const Number since = sinceEnd(number);
  return since <= 0 || since >= pause;
}

void writeRecording(const std::string& path, const std::vector<Course>& courses) {
  std::ofstream file(path, std::ios::binary);
  recording::Writer writer([&](std::string_view bytes) { file << bytes; }, 0);
  const auto end = courses.front().recorded * courses.front().interval;
  for (std::chrono::milliseconds now(1); now <= end; ++now) {
    for (const Course& course : courses) {
      if (now % course.interval == now.zero()) addRecords(writer, course, now / course.interval);
    }
  }
  writer.close(static_cast<std::uint64_t>(microseconds(end).count()));
  if (!file.flush()) throw std::runtime_error("can't write " + path);
}

}  // namespace soak
