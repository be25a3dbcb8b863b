// Messages as bytes, spelled in hexadecimal: "0A 02 68 69".
#ifndef TESTS_PROTO_WIRE_H
#define TESTS_PROTO_WIRE_H

#include <google/protobuf/message_lite.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "engine.pb.h"
#include "meters.pb.h"

namespace google::protobuf {
class Message;  // the base of messages with descriptors
}

namespace wire {

// Whether a message belongs to the lite runtime, without descriptors and reflection.
template <class M>
inline constexpr bool isLite = std::is_base_of_v<google::protobuf::MessageLite, M> &&
                               !std::is_base_of_v<google::protobuf::Message, M> && !requires {
  M::descriptor();
};

// Converts a spelling to bytes, and bytes to their spelling.
std::string bytes(std::string_view spelling);
std::string spelled(std::string_view bytes);

inline std::string written(const google::protobuf::MessageLite& message) {
  return spelled(message.SerializePartialAsString());
}

// Parses bytes and expects that to succeed.
template <class M>
M read(std::string_view spelling) {
  M message;
  EXPECT_TRUE(message.ParseFromString(bytes(spelling))) << spelling;
  return message;
}

template <class M>
bool isReadable(std::string_view spelling) {
  return M().ParseFromString(bytes(spelling));
}

// Parses bytes and serialises the result.
template <class M>
std::string rewritten(std::string_view spelling) {
  return written(read<M>(spelling));
}

// Spells a field of that number and wire type with the value 0 or empty. If the message knows the
// field, rewriting drops it.
std::string emptyField(int number, int wireType);

// Expects that a message knows no field of that number and wire type: rewriting keeps it unchanged.
template <class M>
void expectUnknown(int number, int wireType) {
  const std::string field = emptyField(number, wireType);
  EXPECT_EQ(rewritten<M>(field), field);
}

// The same for all wire types of all numbers from `first` on that have a one-byte tag.
template <class M>
void expectUnknownFrom(int first) {
  for (int number = first; number < 16; ++number) {
    for (const int wireType : {0, 1, 2, 5}) expectUnknown<M>(number, wireType);
  }
}

// ---- Values as text -----------------------------------------------------------------------------

inline std::string shownText(const std::string& text) {
  return '"' + text + '"';
}
inline std::string shownText(const sonalith::grpc::String& text) {
  return "String \"" + text.data() + '"';
}

template <class Array>
std::string shownArray(const Array& array) {
  std::ostringstream out;
  out << '[';
  for (const auto element : array.data()) out << ' ' << element;
  out << " ]";
  return out.str();
}

// Shows the set member of an AnyValue of either package: case number, name and value.
template <class AnyValue>
std::string shown(const AnyValue& value) {
  std::ostringstream out;
  out << value.value_case();
  switch (value.value_case()) {
    case AnyValue::kSstring:
      out << " sstring " << shownText(value.sstring());
      break;
    case AnyValue::kSfloat:
      out << " sfloat " << value.sfloat();
      break;
    case AnyValue::kSint:
      out << " sint " << value.sint();
      break;
    case AnyValue::kSuint:
      out << " suint " << value.suint();
      break;
    case AnyValue::kAfloat:
      out << " afloat " << shownArray(value.afloat());
      break;
    case AnyValue::kAint:
      out << " aint " << shownArray(value.aint());
      break;
    case AnyValue::kAuint:
      out << " auint " << shownArray(value.auint());
      break;
    case AnyValue::kSdouble:
      out << " sdouble " << value.sdouble();
      break;
    case AnyValue::VALUE_NOT_SET:
      break;
  }
  return out.str();
}

template <class KeyValue>
std::string shownPair(const KeyValue& pair) {
  return '"' + pair.key() + "\": " + (pair.has_value() ? shown(pair.value()) : "absent");
}

// ---- Errors -------------------------------------------------------------------------------------

// Captures the protobuf runtime's log during its lifetime. Only one may exist at a time.
class ErrorLog {
 public:
  ErrorLog();
  ~ErrorLog();
  ErrorLog(const ErrorLog&) = delete;
  ErrorLog& operator=(const ErrorLog&) = delete;

  // The full names of the fields that protobuf reported.
  std::vector<std::string> fields() const;

 private:
  google::protobuf::LogHandler* const before_;
};

}  // namespace wire

#endif
