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

constexpr std::chrono::seconds retryDelay{5};

// Private copies of one rate's lists, made for one message.
struct MeterLists {
  MeterLists(const ConfigManager& config, MeterEntryType type)
      : strings(metersOf<std::string>(config, type)),
        ints(metersOf<std::int32_t>(config, type)),
        uints(metersOf<std::uint32_t>(config, type)),
        floats(metersOf<float>(config, type)) {}

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

// A value's type selects the list; nothing is converted. Values that the configuration doesn't name
// are dropped, since a server may send more than the gateway carries.
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
    case AnyValue::kAfloat:
    case AnyValue::kAint:
    case AnyValue::kAuint:
    case AnyValue::kSdouble:
    case AnyValue::VALUE_NOT_SET:
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
    // The first event reports the start of the call, which carries no message.
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

// A read also fails when a message can't be parsed. The server then still holds the call, and
// Finish would wait forever. Cancelling a call that has ended does nothing.
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
