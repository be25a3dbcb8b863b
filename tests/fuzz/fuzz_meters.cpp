// Any bytes as a message on both meter streams, parsed as gRPC does. Afterwards the slots hold what
// a plain search of the configuration's lists would store.
#include <google/protobuf/stubs/logging.h>
#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/proto_buffer_reader.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "module/grpc-gateway/AsyncMetersPayload.h"
#include "module/grpc-gateway/GatewaySlots.h"
#include "standin/Host.h"
#include "tests/fuzz/Target.h"

namespace gateway {

// Passes messages to the payload, like the stream's reader.
class AsyncMetersPayloadTest {
 public:
  // Returns false if the bytes are not a message, which would end the stream.
  static bool take(AsyncMetersPayload& payload, std::string_view bytes) {
    // Two slices, as a long message arrives.
    const std::size_t half = bytes.size() / 2;
    const std::array<grpc::Slice, 2> pieces = {
        grpc::Slice(bytes.data(), half), grpc::Slice(bytes.data() + half, bytes.size() - half)};
    grpc::ByteBuffer buffer(pieces.data(), pieces.size());
    using Traits = grpc::SerializationTraits<sonalith::grpc::Meter>;
    if (!Traits::Deserialize(&buffer, &payload.meter).ok()) return false;
    payload.ProcessMeters();
    return true;
  }
};

}  // namespace gateway

namespace {

using fuzz::require;
using gateway::AsyncMetersPayload;
using gateway::ConfigManager;
using gateway::MeterEntry;
using gateway::MeterEntryType;
using sonalith::grpc::AnyValue;
using sonalith::grpc::Meter;

// ---- The configuration --------------------------------------------------------------------------

// Some keys are in one list, some in several, and most differ from the next in one byte.
template <class T>
std::vector<MeterEntry<T>> entriesOf(const std::vector<std::string>& keys, std::size_t numbered) {
  std::vector<MeterEntry<T>> entries;
  for (const std::string& key : keys) entries.emplace_back().key = key;
  for (std::size_t i = 0; i < numbered; ++i) {
    entries.emplace_back().key = "in." + std::to_string(i) + ".level";
  }
  return entries;
}

std::shared_ptr<const ConfigManager> configuration() {
  auto config = std::make_shared<ConfigManager>("/dev/null");
  config->fastMeterStrings = entriesOf<std::string>({"a", "state", "both"}, 0);
  config->fastMeterInts = entriesOf<std::int32_t>({"a", "b", "\xC3\xBC"}, 20);
  config->fastMeterUints = entriesOf<std::uint32_t>({"A", "b", "frames"}, 0);
  config->fastMeterFloats = entriesOf<float>({"a", "level", "both"}, 70);
  config->slowMeterStrings = entriesOf<std::string>({"slow", "both", std::string(300, 'k')}, 0);
  config->slowMeterInts = entriesOf<std::int32_t>({"level"}, 0);
  config->slowMeterUints = entriesOf<std::uint32_t>({"a", "both"}, 40);
  return config;
}

// ---- The naive search ---------------------------------------------------------------------------

// The bytes of a table's values, by group.
struct Values {
  std::vector<std::string> strings;  // of 100 bytes each
  std::vector<std::uint32_t> ints;
  std::vector<std::uint32_t> uints;
  std::vector<std::uint32_t> floats;

  bool operator==(const Values&) const = default;
};

template <class T>
std::uint32_t bitsOf(T value) {
  std::uint32_t bits = 0;
  static_assert(sizeof value == sizeof bits);
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

template <class T, class Value>
void put(const std::vector<MeterEntry<T>>& entries, const std::string& key,
         std::vector<Value>& values, const Value& value) {
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (entries[i].key == key) values[i] = value;
  }
}

std::string slotTextOf(const std::string& text) {
  std::string slot(text.c_str());
  slot.resize(SONALITH_SLOT_TEXT_SIZE - 1);
  slot += '\0';
  return slot;
}

Values expectedOf(const Meter& meter, const ConfigManager& config, bool slow, Values values) {
  for (const auto& item : meter.values()) {
    const AnyValue& value = item.value();
    if (value.has_sstring()) {
      put(slow ? config.slowMeterStrings : config.fastMeterStrings, item.key(), values.strings,
          slotTextOf(value.sstring().data()));
    } else if (value.has_sint()) {
      put(slow ? config.slowMeterInts : config.fastMeterInts, item.key(), values.ints,
          bitsOf(value.sint()));
    } else if (value.has_suint()) {
      put(slow ? config.slowMeterUints : config.fastMeterUints, item.key(), values.uints,
          value.suint());
    } else if (value.has_sfloat()) {
      put(slow ? config.slowMeterFloats : config.fastMeterFloats, item.key(), values.floats,
          bitsOf(value.sfloat()));
    }
  }
  return values;
}

// ---- The streams --------------------------------------------------------------------------------

// One stream's payload and its slots.
class Stream {
 public:
  Stream(const std::shared_ptr<const ConfigManager>& config, MeterEntryType rate)
      : config_(*config),
        isSlow_(rate == MeterEntryType::Slow),
        payload_(nullptr, &table_, config, rate, nullptr) {
    build(config->slowMeterStrings, config->fastMeterStrings);
    build(config->slowMeterInts, config->fastMeterInts);
    build(config->slowMeterUints, config->fastMeterUints);
    build(config->slowMeterFloats, config->fastMeterFloats);
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() {
    gateway::releaseSlots(table_);
    sonalith_free(offsets_);
  }

  // `meter` is the parsed message, or null if the bytes are not a message.
  void take(std::string_view bytes, const Meter* meter) {
    fill();
    const Values before = values();
    const bool taken = gateway::AsyncMetersPayloadTest::take(payload_, bytes);
    require(taken == (meter != nullptr), "the stream reads the message if protobuf does");
    const Values expected = taken ? expectedOf(*meter, config_, isSlow_, before) : before;
    require(values() == expected, "the slots hold what a plain search stores");
  }

 private:
  template <class T>
  void build(const std::vector<MeterEntry<T>>& slow, const std::vector<MeterEntry<T>>& fast) {
    gateway::buildMeterSlots(isSlow_ ? slow : fast, table_, &offsets_);
  }

  // Fills the slots with an unlikely value, so that each write shows.
  void fill() {
    constexpr int pattern = 0xB7;
    const auto set = [](auto* values, std::size_t count) {
      if (count > 0) std::memset(values, pattern, count * sizeof *values);
    };
    set(table_.stringValues, table_.stringCount);
    set(table_.intValues, table_.intCount);
    set(table_.uintValues, table_.uintCount);
    set(table_.floatValues, table_.floatCount);
  }

  Values values() const {
    Values all;
    const auto numbers = [](const auto* values, std::size_t count) {
      std::vector<std::uint32_t> bits;
      for (std::size_t i = 0; i < count; ++i) bits.push_back(bitsOf(values[i]));
      return bits;
    };
    for (std::size_t i = 0; i < table_.stringCount; ++i) {
      all.strings.emplace_back(table_.stringValues[i], SONALITH_SLOT_TEXT_SIZE);
    }
    all.ints = numbers(table_.intValues, table_.intCount);
    all.uints = numbers(table_.uintValues, table_.uintCount);
    all.floats = numbers(table_.floatValues, table_.floatCount);
    return all;
  }

  const ConfigManager& config_;
  const bool isSlow_;
  GatewaySlotTable table_{};
  sonalith_moduleOffsetList* offsets_ = sonalith_createModuleOffset(nullptr);
  AsyncMetersPayload payload_;
};

struct Setting {
  // Silences protobuf, which reports every key that is not UTF-8.
  google::protobuf::LogHandler* former = google::protobuf::SetLogHandler(nullptr);
  standin::Host host{{.keepRecords = false}};
  std::shared_ptr<const ConfigManager> config = configuration();
  Stream fast{config, MeterEntryType::Fast};
  Stream slow{config, MeterEntryType::Slow};
};

}  // namespace

// libFuzzer's own mutation, absent when the corpus is replayed.
extern "C" __attribute__((weak)) std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size,
                                                              std::size_t maxSize);

// A few changed bytes turn nearly every message into garbage. So most mutations are reduced to the
// part that can be parsed.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned seed) {
  const std::size_t mutated = LLVMFuzzerMutate(data, size, maxSize);
  Meter meter;
  if (seed % 4 == 0 || meter.ParseFromArray(data, static_cast<int>(mutated))) return mutated;
  const std::string readable = meter.SerializePartialAsString();
  if (readable.empty() || readable.size() > maxSize) return mutated;
  readable.copy(reinterpret_cast<char*>(data), readable.size());
  return readable.size();
}

fuzz::Result fuzz::tryInput(std::string_view input) {
  static Setting setting;
  Meter meter;
  const bool isMessage = meter.ParseFromArray(input.data(), static_cast<int>(input.size()));
  setting.fast.take(input, isMessage ? &meter : nullptr);
  setting.slow.take(input, isMessage ? &meter : nullptr);
  return isMessage ? Result::Accepted : Result::Refused;
}
