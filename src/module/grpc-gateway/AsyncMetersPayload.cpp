#include "module/grpc-gateway/AsyncMetersPayload.h"

#include <chrono>
#include <string>
#include <utility>

#include "module/grpc-gateway/HostAccess.h"
#include "module/grpc-gateway/MeterListCopy.h"

namespace gateway {
namespace {

using sonalith::grpc::AnyValue;
using sonalith::grpc::KeyValue;

constexpr std::chrono::nanoseconds retryDelay{5'000'000'000};

// Private copies of the lists of one rate, for one message.
struct MeterLists {
  MeterLists(const ConfigManager& config, MeterEntryType type)
      : strings(isSlow(type) ? config.slowMeterStrings : config.fastMeterStrings),
        ints(isSlow(type) ? config.slowMeterInts : config.fastMeterInts),
        uints(isSlow(type) ? config.slowMeterUints : config.fastMeterUints),
        floats(isSlow(type) ? config.slowMeterFloats : config.fastMeterFloats) {}

  static bool isSlow(MeterEntryType type) { return type == MeterEntryType::Slow; }

  MeterListCopy strings;
  MeterListCopy ints;
  MeterListCopy uints;
  MeterListCopy floats;
};

template <class T>
void store(T* values, std::size_t slot, T value) {
  if (slot != MeterListCopy::npos) values[slot] = value;
}

void store(sonalith_slotText* values, std::size_t slot, const std::string& value) {
  if (slot == MeterListCopy::npos) return;
  sonalith_strncpy(values[slot], value.c_str(), SONALITH_SLOT_TEXT_SIZE);
}

// The type of a value selects the list, and nothing is converted. What the configuration does not
// name is dropped: a server may send more than is wanted.
void writeSlot(const MeterLists& lists, const KeyValue& item, const GatewaySlotTable& table) {
  const std::string& key = item.key();
  const AnyValue& value = item.value();
  switch (value.value_case()) {
    case AnyValue::kSstring:
      store(table.stringValues, lists.strings.find(key, table.stringCount), value.sstring().data());
      break;
    case AnyValue::kSfloat:
      store(table.floatValues, lists.floats.find(key, table.floatCount), value.sfloat());
      break;
    case AnyValue::kSint:
      store(table.intValues, lists.ints.find(key, table.intCount), value.sint());
      break;
    case AnyValue::kSuint:
      store(table.uintValues, lists.uints.find(key, table.uintCount), value.suint());
      break;
    default:
      break;
  }
}

}  // namespace

AsyncMetersPayload::AsyncMetersPayload(grpc::CompletionQueue* queue, GatewaySlotTable* table,
                                       std::shared_ptr<const ConfigManager> config,
                                       MeterEntryType rate, std::function<void()> startNext)
    : completionQueue(queue),
      restart(std::move(startNext)),
      slotTable(table),
      configManager(std::move(config)),
      meterType(rate) {}

AsyncMetersPayload::~AsyncMetersPayload() = default;

void AsyncMetersPayload::Proceed(bool ok) {
  if (finishing) {
    finishing = false;
    armRetryAlarm();
    return;
  }
  if (closing) {
    restart();
    delete this;
    return;
  }
  if (ok) {
    // The start carries no message.
    if (firstEvent) {
      firstEvent = false;
    } else {
      ProcessMeters();
    }
    read();
    return;
  }
  closing = true;
  if (firstEvent) {
    armRetryAlarm();
  } else {
    finish();
  }
}

void AsyncMetersPayload::read() {
  reader->Read(&meter, tag());
}

// A read also fails at a message that can't be parsed, and then the server still holds the call:
// Finish would wait for it without end. To a call that is over, cancelling does nothing.
void AsyncMetersPayload::finish() {
  finishing = true;
  context->TryCancel();
  reader->Finish(&status, tag());
}

void AsyncMetersPayload::armRetryAlarm() {
  retryAlarm = std::make_unique<grpc::Alarm>();
  gpr_timespec deadline;
  grpc::Timepoint2Timespec(std::chrono::system_clock::now() + retryDelay, &deadline);
  retryAlarm->Set(completionQueue, deadline, tag());
}

void AsyncMetersPayload::ProcessMeters() {
  try {
    const MeterLists lists(*configManager, meterType);
    for (const KeyValue& item : meter.values()) writeSlot(lists, item, *slotTable);
  } catch (const std::exception& exception) {
    GATEWAY_LOG(SONALITH_LOG_TRACE, "%s() %s", "ProcessMeters", exception.what());
  }
}

}  // namespace gateway
