// Any bytes as messages of a meter stream, in slices of any size, one after another into the same
// buffer. Reading gives the verdict and the values of the generated parser.
#include <google/protobuf/stubs/logging.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

#include "tests/fuzz/Target.h"
#include "tests/proto/meter_reading.h"

namespace {

// ---- Messages, most of them plain but for a detail ----------------------------------------------

std::string varint(std::uint64_t number, std::size_t shortest = 1) {
  std::string bytes;
  do {
    bytes += static_cast<char>((number & 0x7f) | 0x80);
    number >>= 7;
  } while (number != 0 || bytes.size() < shortest);
  bytes.back() = static_cast<char>(bytes.back() & 0x7f);
  return bytes;
}

class Messages {
 public:
  explicit Messages(unsigned seed) : random_(seed), oddities_(upTo(3) == 0 ? 0 : 12) {}

  std::string next() {
    std::string bytes;
    for (std::size_t i = upTo(6); i > 0; --i) bytes += field(1, item());
    if (isOdd()) bytes += unknown();
    if (isOdd()) bytes.resize(upTo(bytes.size()));
    return bytes;
  }

  std::size_t upTo(std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit)(random_);
  }

 private:
  bool isOdd() { return oddities_ != 0 && upTo(oddities_) == 0; }

  // With a length that is now and then too long or wrong.
  std::string field(unsigned number, const std::string& content) {
    const std::size_t size = content.size() + (isOdd() ? upTo(3) : 0);
    return varint(number * 8 + 2, isOdd() ? 2 : 1) + varint(size, isOdd() ? upTo(11) : 1) + content;
  }

  std::string text() {
    static const std::string pieces[] = {
        "a", "out.level.",       "\xC3\xBC",           "\xE2\x82\xAC",
        "",  "\xF0\x9F\x8E\x9A", std::string("\0", 1), "0123456789abcdef"};
    static const std::string broken[] = {"\xFF",     "\xC3",         "\xE2\x82",
                                         "\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80"};
    std::string text;
    for (std::size_t i = upTo(4); i > 0; --i) text += pieces[upTo(std::size(pieces) - 1)];
    if (isOdd()) text += broken[upTo(std::size(broken) - 1)];
    return text;
  }

  std::uint64_t number() {
    const std::uint64_t numbers[] = {
        0, 1, 127, 128, 0x7fffffff, 0xffffffff, 0x100000000, ~std::uint64_t{0}, random_()};
    return numbers[upTo(std::size(numbers) - 1)];
  }

  std::string fixed(std::size_t size) {
    std::string bytes;
    for (std::size_t i = isOdd() ? upTo(size) : size; i > 0; --i)
      bytes += static_cast<char>(random_());
    return bytes;
  }

  std::string unknown() {
    switch (upTo(6)) {
      case 0:
        return "\x08" + varint(number(), upTo(11));
      case 1:
        return "\x15" + fixed(4);
      case 2:
        return "\x11" + fixed(8);
      case 3:
        return field(9, text());
      case 4:
        return "\x4B" + (isOdd() ? "" : unknown()) + "\x4C";  // a group
      case 5:
        return "\x0C";  // the end of a group
      default:
        return varint(number()) + text();
    }
  }

  std::string member() {
    switch (upTo(9)) {
      case 0:
      case 1:
        return field(1, upTo(5) == 0 ? "" : field(1, text()) + (isOdd() ? unknown() : ""));
      case 2:
      case 3:
        return "\x15" + fixed(4);
      case 4:
      case 5:
        return "\x18" + varint(number(), isOdd() ? upTo(11) : 1);
      case 6:
      case 7:
        return "\x20" + varint(number(), isOdd() ? upTo(11) : 1);
      case 8:
        return "\x41" + fixed(8);
      default:
        return field(5 + static_cast<unsigned>(upTo(2)), fixed(8));
    }
  }

  std::string value() {
    std::string bytes = isOdd() ? "" : member();
    if (isOdd()) bytes += member();
    if (isOdd()) bytes += unknown();
    return bytes;
  }

  std::string item() {
    std::string parts[] = {isOdd() ? "" : field(1, text()), isOdd() ? "" : field(2, value()),
                           isOdd() ? unknown() : "", isOdd() ? field(1, text()) : "",
                           isOdd() ? field(2, value()) : ""};
    if (isOdd()) std::shuffle(std::begin(parts), std::end(parts), random_);
    std::string bytes;
    for (const std::string& part : parts) bytes += part;
    return bytes;
  }

  std::mt19937 random_;
  std::size_t oddities_;  // one in so many details is odd; 0 for none
};

std::string inputOf(unsigned seed) {
  Messages messages(seed);
  const std::string first = messages.next();
  std::string input{static_cast<char>(messages.upTo(40)), static_cast<char>(first.size())};
  return input + first + messages.next();
}

struct Setting {
  // Silences protobuf, which reports every text that is not UTF-8.
  google::protobuf::LogHandler* former = google::protobuf::SetLogHandler(nullptr);
};

}  // namespace

// libFuzzer's own mutation, absent when the corpus is replayed.
extern "C" __attribute__((weak)) std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size,
                                                              std::size_t maxSize);

// A few changed bytes turn nearly every message into garbage. So every other input is made anew,
// and half of those are mutated.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned seed) {
  if (seed % 2 == 0) return LLVMFuzzerMutate(data, size, maxSize);
  const std::string input = inputOf(seed).substr(0, maxSize);
  std::copy(input.begin(), input.end(), data);
  return seed % 4 == 1 ? input.size() : LLVMFuzzerMutate(data, input.size(), maxSize);
}

// The size of the slices, the length of the first message, both messages.
fuzz::Result fuzz::tryInput(std::string_view input) {
  static const Setting setting;
  if (input.size() < 2) return Result::Skipped;
  const auto sliceSize = static_cast<unsigned char>(input[0]);
  const auto firstSize = static_cast<unsigned char>(input[1]);
  input.remove_prefix(2);
  const std::string_view first = input.substr(0, firstSize);
  const std::string_view second = input.substr(first.size());

  sonalith::grpc::Meter meter;
  bool isMessage = false;
  for (const std::string_view message : {first, second, first, second}) {
    require(wire::readsAsGenerated(message, sliceSize, meter, isMessage),
            "a message is read as the generated parser reads it");
  }
  return isMessage ? Result::Accepted : Result::Refused;
}
