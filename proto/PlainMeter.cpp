#include "PlainMeter.h"

#include <grpcpp/support/proto_buffer_reader.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace gateway {
namespace {

using sonalith::grpc::AnyValue;
using sonalith::grpc::KeyValue;

// A message with a longer item is left to the generated parser. Items keep the memory of their
// texts, so this also bounds what a stream of longer and longer texts can make them keep.
constexpr std::size_t longestItem = 1024;

// Tag bytes: the number of a field times 8, plus its wire type.
constexpr unsigned char itemTag = 0x0a;   // of Meter
constexpr unsigned char keyTag = 0x0a;    // of KeyValue
constexpr unsigned char valueTag = 0x12;  // of KeyValue
constexpr unsigned char textTag = 0x0a;   // of AnyValue, as are those of numbers
constexpr unsigned char floatTag = 0x15;
constexpr unsigned char intTag = 0x18;
constexpr unsigned char uintTag = 0x20;
constexpr unsigned char doubleTag = 0x41;
constexpr unsigned char dataTag = 0x0a;  // of String

// Bytes yet to be read. What reads them returns false if they are not in the plain form.
class Bytes {
 public:
  Bytes() = default;
  Bytes(const char* begin, std::size_t size) : at_(begin), end_(begin + size) {}

  const char* data() const { return at_; }
  std::size_t size() const { return static_cast<std::size_t>(end_ - at_); }
  bool isEmpty() const { return at_ == end_; }
  std::string_view view() const { return {at_, size()}; }

  bool readTag(unsigned char tag) {
    if (isEmpty() || static_cast<unsigned char>(*at_) != tag) return false;
    ++at_;
    return true;
  }

  bool readVarint(std::uint64_t& number) {
    constexpr unsigned bitsPerByte = 7;
    number = 0;
    for (unsigned shift = 0; shift < 64 && !isEmpty(); shift += bitsPerByte) {
      const unsigned char byte = nextByte();
      number |= std::uint64_t{byte & 0x7fu} << shift;
      if (byte < 0x80) return true;
    }
    return false;
  }

  // A longer length is not plain, since no part is longer than its item.
  bool readLength(std::size_t& length) {
    if (isEmpty()) return false;
    length = nextByte();
    if (length < 0x80) return true;
    if (isEmpty()) return false;
    const std::size_t high = nextByte();
    length = (length & 0x7f) | high << 7;
    return high < 0x80;
  }

  // A length, and as many bytes after it.
  bool readPart(Bytes& part) {
    std::size_t length = 0;
    if (!readLength(length) || length > size()) return false;
    part = {at_, length};
    at_ += length;
    return true;
  }

  // As many bytes as the number has, the lowest first.
  template <class Number>
  bool readFixed(Number& number) {
    if (size() < sizeof number) return false;
    number = 0;
    for (std::size_t i = 0; i < sizeof number; ++i) {
      number |= Number{static_cast<unsigned char>(at_[i])} << 8 * i;
    }
    at_ += sizeof number;
    return true;
  }

 private:
  unsigned char nextByte() { return static_cast<unsigned char>(*at_++); }

  const char* at_ = nullptr;
  const char* end_ = nullptr;
};

// The items of a message, whose bytes gRPC holds in slices of any size.
class Items {
 public:
  explicit Items(grpc::ByteBuffer& message) : slices_(&message) {}

  bool isValid() const { return slices_.status().ok(); }

  bool isAtEnd() {
    while (slice_.isEmpty()) {
      const void* data = nullptr;
      int size = 0;
      if (!slices_.Next(&data, &size)) return true;
      slice_ = {static_cast<const char*>(data), static_cast<std::size_t>(size)};
    }
    return false;
  }

  // Not at the end. The item's bytes are valid until the next call.
  bool read(Bytes& item) {
    Bytes ahead = slice_;
    if (!ahead.readTag(itemTag) || !ahead.readPart(item)) return readSplit(item);
    slice_ = ahead;
    return item.size() <= longestItem;
  }

 private:
  bool take(char* to, std::size_t size) {
    while (size > 0) {
      if (isAtEnd()) return false;
      const std::size_t some = std::min(size, slice_.size());
      std::memcpy(to, slice_.data(), some);
      slice_ = {slice_.data() + some, slice_.size() - some};
      to += some;
      size -= some;
    }
    return true;
  }

  // An item that continues in the next slice, or is not plain.
  bool readSplit(Bytes& item) {
    char* const begin = joined_.data();
    if (!take(begin, 2)) return false;
    const bool isLong = static_cast<unsigned char>(begin[1]) > 0x7f;
    if (isLong && !take(begin + 2, 1)) return false;
    Bytes head(begin, isLong ? 3 : 2);
    std::size_t length = 0;
    if (!head.readTag(itemTag) || !head.readLength(length) || length > longestItem) return false;
    item = {begin, length};
    return take(begin, length);
  }

  grpc::ProtoBufferReader slices_;
  Bytes slice_;  // the rest of the current slice
  std::array<char, longestItem> joined_;
};

// Unknown fields of an earlier message would stay with a message that is filled again. Only a
// derived class can ask a message of the lite runtime whether it has any.
void clearIfUnknownFields(google::protobuf::MessageLite& message) {
  struct Metadata : google::protobuf::MessageLite {
    using MessageLite::_internal_metadata_;
  };
  const auto& metadata = message.*(&Metadata::_internal_metadata_);
  if (metadata.have_unknown_fields()) message.Clear();
}

// Checks eight bytes at a time; the last eight may overlap those before them.
bool isAscii(std::string_view text) {
  constexpr std::uint64_t highBits = 0x8080808080808080u;
  std::uint64_t all = 0;
  const auto add = [&](std::size_t at, std::size_t count) {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, text.data() + at, count);
    all |= bytes;
  };
  std::size_t at = 0;
  for (; at + sizeof all <= text.size(); at += sizeof all) add(at, sizeof all);
  if (text.size() >= sizeof all) {
    add(text.size() - sizeof all, sizeof all);
  } else {
    for (; at < text.size(); ++at) add(at, 1);
  }
  return (all & highBits) == 0;
}

// The size of the character that `text` begins with; 0 if there is none that is well formed. These
// are the byte sequences that Unicode allows: no longer form than needed, no surrogate, and nothing
// above U+10FFFF. The generated parser allows the same.
std::size_t characterSize(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead < 0xc2 || lead > 0xf4) return 0;
  const std::size_t size = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  const unsigned char lowest = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
  const unsigned char highest = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
  if (text.size() < size || byte(1) < lowest || byte(1) > highest) return 0;
  for (std::size_t i = 2; i < size; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  return size;
}

bool isUtf8(std::string_view text) {
  if (isAscii(text)) return true;
  while (!text.empty()) {
    const std::size_t size = characterSize(text);
    if (size == 0) return false;
    text.remove_prefix(size);
  }
  return true;
}

bool readText(Bytes& bytes, std::string& text) {
  Bytes part;
  if (!bytes.readPart(part) || !isUtf8(part.view())) return false;
  text.assign(part.data(), part.size());
  return true;
}

// An empty text is not written.
bool fillText(sonalith::grpc::String& text, Bytes bytes) {
  clearIfUnknownFields(text);
  if (bytes.isEmpty()) {
    text.clear_data();
    return true;
  }
  return bytes.readTag(dataTag) && readText(bytes, *text.mutable_data()) && bytes.isEmpty();
}

bool fillValue(AnyValue& value, Bytes bytes) {
  clearIfUnknownFields(value);
  std::uint32_t fixed = 0;
  std::uint64_t number = 0;
  Bytes part;
  if (bytes.readTag(floatTag)) {
    if (!bytes.readFixed(fixed)) return false;
    value.set_sfloat(std::bit_cast<float>(fixed));
  } else if (bytes.readTag(intTag)) {
    if (!bytes.readVarint(number)) return false;
    value.set_sint(static_cast<std::int32_t>(number));
  } else if (bytes.readTag(uintTag)) {
    if (!bytes.readVarint(number)) return false;
    value.set_suint(static_cast<std::uint32_t>(number));
  } else if (bytes.readTag(textTag)) {
    if (!bytes.readPart(part) || !fillText(*value.mutable_sstring(), part)) return false;
  } else if (bytes.readTag(doubleTag)) {
    if (!bytes.readFixed(number)) return false;
    value.set_sdouble(std::bit_cast<double>(number));
  } else {
    return false;
  }
  return bytes.isEmpty();
}

bool fillItem(KeyValue& item, Bytes bytes) {
  clearIfUnknownFields(item);
  Bytes value;
  return bytes.readTag(keyTag) && readText(bytes, *item.mutable_key()) && bytes.readTag(valueTag) &&
         bytes.readPart(value) && bytes.isEmpty() && fillValue(*item.mutable_value(), value);
}

}  // namespace

bool readPlainMeter(grpc::ByteBuffer& message, sonalith::grpc::Meter& meter) {
  Items items(message);
  if (!items.isValid()) return false;
  clearIfUnknownFields(meter);
  auto& filled = *meter.mutable_values();
  int count = 0;
  for (Bytes item; !items.isAtEnd(); ++count) {
    if (!items.read(item)) return false;
    if (!fillItem(count < filled.size() ? filled[count] : *filled.Add(), item)) return false;
  }
  while (filled.size() > count) filled.RemoveLast();
  return true;
}

}  // namespace gateway

namespace grpc {

Status SerializationTraits<sonalith::grpc::Meter>::Deserialize(ByteBuffer* message,
                                                               sonalith::grpc::Meter* meter) {
  if (message == nullptr || !gateway::readPlainMeter(*message, *meter)) {
    return GenericDeserialize<ProtoBufferReader, sonalith::grpc::Meter>(message, meter);
  }
  message->Clear();
  return Status::OK;
}

}  // namespace grpc
