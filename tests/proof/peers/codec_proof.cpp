// Compares our encoding with two others: protobufjs, and protobuf for Python in its pure Python
// implementation. Both exchange values with this program as JSON; codec.js describes how.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <random>

#include "common.pb.h"
#include "tests/proof/Proof.h"
#include "tests/proof/peers/Peers.h"
#include "tests/proto/meter_reading.h"
#include "tests/proto/wire.h"

namespace {

using nlohmann::json;
namespace grpc_package = sonalith::grpc;
namespace engine_package = sonalith::grpcengine;

// ---- Values as JSON -----------------------------------------------------------------------------

template <class Bits>
json hexBits(Bits bits) {
  std::string digits;
  for (int shift = 8 * sizeof(Bits) - 4; shift >= 0; shift -= 4) {
    digits += "0123456789abcdef"[(bits >> shift) & 0xF];
  }
  return digits;
}
json plain(float value) {
  return hexBits(std::bit_cast<std::uint32_t>(value));
}
json plain(double value) {
  return hexBits(std::bit_cast<std::uint64_t>(value));
}
template <class Integer>
json plain(Integer value) requires std::is_integral_v<Integer> {
  return value;
}
json plain(const std::string& text) {
  return text;
}
json plain(const sonalith::common::Empty&) {
  return json::object();
}
json plain(const grpc_package::String& text) {
  return {{"data", text.data()}};
}

template <class Array>
json plain(const Array& array) requires requires {
  array.data().size(), array.data(0);
}
{
  json elements = json::array();
  for (const auto element : array.data()) elements.push_back(plain(element));
  return {{"data", elements}};
}

template <class AnyValue>
json plain(const AnyValue& value) requires requires {
  value.value_case();
}
{
  switch (value.value_case()) {
    case AnyValue::kSstring:
      return {{"sstring", plain(value.sstring())}};
    case AnyValue::kSfloat:
      return {{"sfloat", plain(value.sfloat())}};
    case AnyValue::kSint:
      return {{"sint", plain(value.sint())}};
    case AnyValue::kSuint:
      return {{"suint", plain(value.suint())}};
    case AnyValue::kAfloat:
      return {{"afloat", plain(value.afloat())}};
    case AnyValue::kAint:
      return {{"aint", plain(value.aint())}};
    case AnyValue::kAuint:
      return {{"auint", plain(value.auint())}};
    case AnyValue::kSdouble:
      return {{"sdouble", plain(value.sdouble())}};
    case AnyValue::VALUE_NOT_SET:
      break;
  }
  return json::object();
}

template <class KeyValue>
json plain(const KeyValue& pair) requires requires {
  pair.has_value();
}
{
  json value = {{"key", pair.key()}};
  if (pair.has_value()) value["value"] = plain(pair.value());
  return value;
}

template <class Pairs>
json plainPairs(const Pairs& pairs) {
  json values = json::array();
  for (const auto& pair : pairs) values.push_back(plain(pair));
  return values;
}
json plain(const grpc_package::Meter& meter) {
  return {{"values", plainPairs(meter.values())}};
}
template <class Message>
json plain(const Message& message) requires requires {
  message.params();
}
{ return {{"params", plainPairs(message.params())}}; }

std::string hexOf(const std::string& bytes) {
  return bytes.empty() ? "" : toHex(bytes);
}

// ---- The other implementations ------------------------------------------------------------------

class Codec {
 public:
  explicit Codec(const std::string& program) : process_({}, program) {}

  json read(const std::string& type, const json& items) { return ask("read", type, items); }
  json write(const std::string& type, const json& items) { return ask("write", type, items); }

 private:
  json ask(const char* operation, const std::string& type, const json& items) {
    process_.writeLine(json{operation, type, items}.dump());
    return json::parse(process_.waitLine("["));
  }

  ToolProcess process_;
};

struct Implementation {
  std::string name;
  std::string program;
  std::string library;
};
// For GoogleTest's messages.
void PrintTo(const Implementation& implementation, std::ostream* out) {
  *out << implementation.library;
}
const Implementation protobufjs{"protobufjs", PEERS_FOLDER "/codec.js", "protobufjs"};
const Implementation python{"python", PEERS_FOLDER "/codec.py", "protobuf for Python, pure Python"};

class Encoding : public ::testing::TestWithParam<Implementation> {
 protected:
  static void report(const std::string& group, const proof::Counts& tried, const std::string& held,
                     const proof::Counts& counted = {}) {
    proof::report({peers::heading, group, GetParam().library, tried, held, counted});
  }

  Codec codec{GetParam().program};
};

INSTANTIATE_TEST_SUITE_P(By, Encoding, ::testing::Values(protobufjs, python),
                         [](const auto& instantiation) { return instantiation.param.name; });

// ---- Known bytes --------------------------------------------------------------------------------

constexpr char meters[] = "sonalith.grpc.";
constexpr char engine[] = "sonalith.grpcengine.";
using Packages = std::vector<const char*>;
const Packages both{meters, engine};

struct Example {
  Packages packages;
  const char* message;
  const char* bytes;
  const char* value;
  // The bytes that writing the value gives; null if they are the same.
  const char* rewritten = nullptr;
  // Whether it needs a rule of protobuf that protobufjs does not follow.
  bool beyondProtobufjs = false;
};

const std::vector<Example> examples = {
    {{"sonalith.common."}, "Empty", "", "{}"},
    {{meters},
     "Meter",
     "0A 0D 0A 04 67 61 69 6E 12 05 15 00 00 00 3F",
     R"({"values": [{"key": "gain", "value": {"sfloat": "3f000000"}}]})"},
    {{meters}, "Meter", "", R"({"values": []})"},
    {{meters}, "String", "0A 02 68 69", R"({"data": "hi"})"},
    {{meters}, "AnyValue", "0A 04 0A 02 68 69", R"({"sstring": {"data": "hi"}})"},
    {{meters}, "AnyValue", "0A 00", R"({"sstring": {"data": ""}})"},
    {{meters},
     "KeyValue",
     "0A 01 61 12 06 0A 04 0A 02 68 69",
     R"({"key": "a", "value": {"sstring": {"data": "hi"}}})"},
    {both, "AnyValue", "18 FF FF FF FF FF FF FF FF FF 01", R"({"sint": -1})"},
    {both, "AnyValue", "20 FF FF FF FF 0F", R"({"suint": 4294967295})"},
    {both, "AnyValue", "18 AC 02", R"({"sint": 300})"},
    {both, "AnyValue", "18 00", R"({"sint": 0})"},
    {both, "AnyValue", "15 00 00 00 00", R"({"sfloat": "00000000"})"},
    {both, "AnyValue", "41 00 00 00 00 00 00 F8 3F", R"({"sdouble": "3ff8000000000000"})"},
    {both, "AnyValue", "", "{}"},
    {both, "FloatArray", "0A 08 00 00 80 3F 00 00 00 40", R"({"data": ["3f800000", "40000000"]})"},
    {both, "AnyValue", "2A 0A 0A 08 00 00 80 3F 00 00 00 40",
     R"({"afloat": {"data": ["3f800000", "40000000"]}})"},
    {both, "IntArray", "0A 08 FF FF FF FF 02 00 00 00", R"({"data": [-1, 2]})"},
    {both, "UintArray", "", R"({"data": []})"},
    {both, "AnyValue", "3A 0A 0A 08 01 00 00 00 02 00 00 00", R"({"auint": {"data": [1, 2]}})"},
    {both, "KeyValue", "12 02 18 05", R"({"key": "", "value": {"sint": 5}})"},
    {both, "KeyValue", "0A 01 61", R"({"key": "a"})"},
    {both, "FloatArray", "0D 00 00 80 3F 0D 00 00 00 40", R"({"data": ["3f800000", "40000000"]})",
     "0A 08 00 00 80 3F 00 00 00 40"},
    // Of two members the last one wins.
    {both, "AnyValue", "15 00 00 80 3F 18 05", R"({"sint": 5})", "18 05"},
    // A message-typed member that comes twice is merged. protobufjs keeps the last one.
    {both, "AnyValue", "2A 06 0A 04 00 00 80 3F 2A 06 0A 04 00 00 00 40",
     R"({"afloat": {"data": ["3f800000", "40000000"]}})", "2A 0A 0A 08 00 00 80 3F 00 00 00 40",
     true},
    // A known number with another wire type is an unknown field. protobufjs reads it as the known
    // one.
    {both, "AnyValue", "18 05 08 05", R"({"sint": 5})", nullptr, true},
    {{engine}, "AnyValue", "0A 02 68 69", R"({"sstring": "hi"})"},
    {{engine}, "AnyValue", "0A 00", R"({"sstring": ""})"},
    {{engine},
     "RequestSetParams",
     "0A 0D 0A 04 67 61 69 6E 12 05 15 00 00 00 3F",
     R"({"params": [{"key": "gain", "value": {"sfloat": "3f000000"}}]})"},
    {{engine},
     "RequestSetParams",
     "0A 09 0A 01 61 12 04 0A 02 68 69",
     R"({"params": [{"key": "a", "value": {"sstring": "hi"}}]})"},
    {{engine}, "RequestSetParams", "", R"({"params": []})"},
    {{engine},
     "ResponseSetParams",
     "0A 09 0A 01 61 12 04 0A 02 68 69",
     R"({"params": [{"key": "a", "value": {"sstring": "hi"}}]})"},
};

// The value that our classes read from bytes, and the bytes that they write for it.
struct Reading {
  json value;
  std::string rewritten;
};
template <class Message>
Reading readingBy(const std::string& bytes) {
  Message message;
  EXPECT_TRUE(message.ParseFromString(bytes)) << toHex(bytes);
  return {plain(message), message.SerializeAsString()};
}

// As in a call: in slices, and into the buffer that held the message before.
template <>
Reading readingBy<grpc_package::Meter>(const std::string& bytes) {
  constexpr std::size_t sliceSize = 100;
  static grpc_package::Meter meter;
  bool isMessage = false;
  EXPECT_TRUE(wire::readsAsGenerated(bytes, sliceSize, meter, isMessage)) << toHex(bytes);
  EXPECT_TRUE(isMessage) << toHex(bytes);
  return {plain(meter), meter.SerializeAsString()};
}

Reading ourReading(const std::string& type, const std::string& bytes) {
  static const std::map<std::string, Reading (*)(const std::string&)> readers = {
      {"sonalith.common.Empty", readingBy<sonalith::common::Empty>},
      {"sonalith.grpc.FloatArray", readingBy<grpc_package::FloatArray>},
      {"sonalith.grpc.IntArray", readingBy<grpc_package::IntArray>},
      {"sonalith.grpc.UintArray", readingBy<grpc_package::UintArray>},
      {"sonalith.grpc.String", readingBy<grpc_package::String>},
      {"sonalith.grpc.AnyValue", readingBy<grpc_package::AnyValue>},
      {"sonalith.grpc.KeyValue", readingBy<grpc_package::KeyValue>},
      {"sonalith.grpc.Meter", readingBy<grpc_package::Meter>},
      {"sonalith.grpcengine.FloatArray", readingBy<engine_package::FloatArray>},
      {"sonalith.grpcengine.IntArray", readingBy<engine_package::IntArray>},
      {"sonalith.grpcengine.UintArray", readingBy<engine_package::UintArray>},
      {"sonalith.grpcengine.AnyValue", readingBy<engine_package::AnyValue>},
      {"sonalith.grpcengine.KeyValue", readingBy<engine_package::KeyValue>},
      {"sonalith.grpcengine.RequestSetParams", readingBy<engine_package::RequestSetParams>},
      {"sonalith.grpcengine.ResponseSetParams", readingBy<engine_package::ResponseSetParams>},
  };
  return readers.at(type)(bytes);
}

TEST_P(Encoding, OfKnownBytesIsTheSame) {
  std::uint64_t tried = 0;
  std::uint64_t left = 0;
  for (const Example& example : examples) {
    for (const char* package : example.packages) {
      const std::string type = std::string(package) + example.message;
      SCOPED_TRACE(type + " " + example.bytes);
      const json value = json::parse(example.value);
      const std::string bytes = wire::bytes(example.bytes);
      const std::string rewritten =
          example.rewritten == nullptr ? bytes : wire::bytes(example.rewritten);
      const Reading ours = ourReading(type, bytes);
      EXPECT_EQ(ours.value, value);
      EXPECT_EQ(wire::spelled(ours.rewritten), wire::spelled(rewritten));
      if (example.beyondProtobufjs && GetParam().name == protobufjs.name) {
        ++left;
        continue;
      }
      EXPECT_EQ(codec.read(type, json::array({hexOf(bytes)})), json::array({value}));
      ++tried;
      // A value has no unknown fields, so writing it can't give these bytes.
      if (rewritten == bytes && example.beyondProtobufjs) continue;
      EXPECT_EQ(codec.write(type, json::array({value})), json::array({hexOf(rewritten)}));
    }
  }
  proof::Counts leftOut;
  if (left > 0) {
    leftOut = {
        {"encodings left out, since protobufjs neither merges messages nor checks wire types",
         left}};
  }
  report("known bytes, read and written", {{"encodings", tried}},
         "values and bytes are the same as ours", leftOut);
}

// ---- Random messages ----------------------------------------------------------------------------

using peers::Random;

template <class Array, class Make>
void fillArray(Random& random, Array& array, Make make) {
  for (auto count = random() % 20; count > 0; --count) array.add_data(make());
}

double randomDouble(Random& random) {
  const auto number = std::bit_cast<double>(random());
  return std::isnan(number) ? std::numeric_limits<double>::quiet_NaN() : number;
}

// The length of a varint depends on the size of the number, so all sizes are equally likely.
std::uint32_t randomNatural(Random& random) {
  return static_cast<std::uint32_t>(random()) >> (random() % 32);
}

void setText(grpc_package::AnyValue& value, const std::string& text) {
  value.mutable_sstring()->set_data(text);
}
void setText(engine_package::AnyValue& value, const std::string& text) {
  value.set_sstring(text);
}

template <class AnyValue>
void fillValue(Random& random, AnyValue& value) {
  const auto natural = [&] { return randomNatural(random); };
  const auto integer = [&] {
    const auto magnitude = static_cast<std::int32_t>(randomNatural(random));
    return random() % 2 == 0 ? magnitude : ~magnitude;
  };
  const auto number = [&] { return peers::randomFloat(random); };
  constexpr std::size_t longText = 300;  // needs two bytes for its length
  switch (static_cast<typename AnyValue::ValueCase>(random() % 9)) {
    case AnyValue::kSstring:
      return setText(value, peers::randomText(random, longText));
    case AnyValue::kSfloat:
      return value.set_sfloat(number());
    case AnyValue::kSint:
      return value.set_sint(integer());
    case AnyValue::kSuint:
      return value.set_suint(natural());
    case AnyValue::kAfloat:
      return fillArray(random, *value.mutable_afloat(), number);
    case AnyValue::kAint:
      return fillArray(random, *value.mutable_aint(), integer);
    case AnyValue::kAuint:
      return fillArray(random, *value.mutable_auint(), natural);
    case AnyValue::kSdouble:
      return value.set_sdouble(randomDouble(random));
    case AnyValue::VALUE_NOT_SET:
      return;
  }
}

template <class Pairs>
void fillPairs(Random& random, Pairs& pairs) {
  for (auto count = random() % 12; count > 0; --count) {
    auto& pair = *pairs.Add();
    pair.set_key(peers::randomText(random, 40));
    if (random() % 16 != 0) fillValue(random, *pair.mutable_value());
  }
}

bool isPlain(const grpc_package::KeyValue& pair) {
  const grpc_package::AnyValue& value = pair.value();
  const bool isArray = value.has_afloat() || value.has_aint() || value.has_auint();
  return !pair.key().empty() && value.value_case() != value.VALUE_NOT_SET && !isArray;
}

// Half of the messages are in the form that is read without the generated parser.
void fill(Random& random, grpc_package::Meter& meter) {
  auto& pairs = *meter.mutable_values();
  fillPairs(random, pairs);
  if (random() % 2 == 0) return;
  pairs.erase(std::remove_if(pairs.begin(), pairs.end(), std::not_fn(isPlain)), pairs.end());
}
void fill(Random& random, engine_package::RequestSetParams& request) {
  fillPairs(random, *request.mutable_params());
}

// The values of many messages, and their bytes.
struct Block {
  json values = json::array();
  std::vector<std::string> bytes;
  json hex = json::array();
};

template <class Message>
Block randomBlock(Random& random, std::uint64_t size) {
  Block block;
  for (std::uint64_t i = 0; i < size; ++i) {
    Message message;
    fill(random, message);
    block.values.push_back(plain(message));
    block.bytes.push_back(message.SerializeAsString());
    block.hex.push_back(hexOf(block.bytes.back()));
  }
  return block;
}

template <class Message>
void compare(Codec& codec, Random& random, std::uint64_t count) {
  constexpr std::uint64_t blockSize = 100;
  const std::string type = Message().GetTypeName();
  for (std::uint64_t done = 0; done < count; done += blockSize) {
    const Block block = randomBlock<Message>(random, std::min(blockSize, count - done));
    const json theirValues = codec.read(type, block.hex);
    const json theirBytes = codec.write(type, block.values);
    for (std::size_t i = 0; i < block.bytes.size(); ++i) {
      ASSERT_EQ(theirValues[i], block.values[i]) << type << ' ' << block.hex[i];
      ASSERT_EQ(theirBytes[i], block.hex[i]) << type << ' ' << block.values[i];
      // The bytes are theirs as well, so this also reads what they have written.
      ASSERT_EQ(readingBy<Message>(block.bytes[i]).value, block.values[i]) << type;
    }
  }
}

TEST_P(Encoding, OfRandomMessagesIsTheSame) {
  Random random(proof::seed());
  const auto half = proof::scaled(200, 5000);
  compare<grpc_package::Meter>(codec, random, half);
  compare<engine_package::RequestSetParams>(codec, random, half);
  report("random messages, read and written", {{"messages", 2 * half}},
         "equal values give equal bytes, and equal bytes give equal values");
}

}  // namespace
