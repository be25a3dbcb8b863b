#include "tools/sim/HalfMessage.h"

namespace sim {
namespace {

// A frame's header: three bytes for the length, one for the type, one for flags, four for the
// number of the stream.
constexpr std::size_t headSize = 9;
constexpr char dataType = 0;

std::uint32_t numberAt(std::string_view bytes, std::size_t begin, std::size_t size) {
  std::uint32_t number = 0;
  for (const char byte : bytes.substr(begin, size)) {
    number = number << 8 | static_cast<unsigned char>(byte);
  }
  return number;
}

std::string headOf(std::size_t length, std::string_view head) {
  std::string changed(head);
  for (std::size_t i = 0; i < 3; ++i) changed[i] = static_cast<char>(length >> (16 - 8 * i));
  return changed;
}

}  // namespace

std::string HalfMessage::pass(std::string_view bytes) {
  unfinished_ += bytes;
  std::string passed;
  std::string_view rest = unfinished_;
  while (rest.size() >= headSize) {
    const std::size_t size = headSize + numberAt(rest, 0, 3);
    if (rest.size() < size) break;
    passFrame(rest.substr(0, size), passed);
    rest.remove_prefix(size);
  }
  unfinished_ = std::string(rest);
  return passed;
}

void HalfMessage::passFrame(std::string_view frame, std::string& passed) {
  const auto stream = numberAt(frame, 5, 4);
  const bool data = frame[3] == dataType;
  if (data && cut_.contains(stream)) return;
  if (!data || frame.find(mark) == frame.npos) {
    passed += frame;
    return;
  }
  cut_.insert(stream);
  const auto half = frame.substr(headSize, (frame.size() - headSize) / 2);
  passed += headOf(half.size(), frame.substr(0, headSize));
  passed += half;
}

}  // namespace sim
