// One attempt of a meter stream without a server: what it does at each event and with a message.
#include <dlfcn.h>
#include <grpcpp/support/time.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstring>

#include "module/grpc-gateway/AsyncMetersPayload.h"
#include "standin/Host.h"

using std::chrono::system_clock;
using namespace std::chrono_literals;

namespace {

system_clock::time_point& lastDeadline() {
  static system_clock::time_point deadline;
  return deadline;
}

}  // namespace

// This program's calls reach this function instead of gRPC's. It records the time and passes it on.
namespace grpc {

void Timepoint2Timespec(const system_clock::time_point& from, gpr_timespec* to) {
  using Convert = void(const system_clock::time_point&, gpr_timespec*);
  constexpr char symbol[] =
      "_ZN4grpc18Timepoint2TimespecERKNSt6chrono10time_pointINS0_3_V212system_clockENS0_8durationI"
      "lSt5ratioILl1ELl1000000000EEEEEEP12gpr_timespec";
  lastDeadline() = from;
  reinterpret_cast<Convert*>(dlsym(RTLD_NEXT, symbol))(from, to);
}

}  // namespace grpc

namespace gateway {

using sonalith::grpc::Meter;

// Stands in for the client: owns a queue and counts the attempts that are started.
class AsyncMetersPayloadTest : public ::testing::Test {
 protected:
  ~AsyncMetersPayloadTest() override {
    queue.Shutdown();
    void* tag = nullptr;
    bool ok = false;
    while (queue.Next(&tag, &ok)) continue;
  }

  AsyncMetersPayload* create(MeterEntryType rate = MeterEntryType::Fast) {
    return new AsyncMetersPayload(&queue, nullptr, nullptr, rate, [this] { ++restarts; });
  }

  // Friendship does not extend to the tests themselves.
  static void process(AsyncMetersPayload& payload, const Meter& message) {
    payload.meter = message;
    payload.ProcessMeters();
  }

  grpc::CompletionQueue queue;
  int restarts = 0;
};

// ---- Events -------------------------------------------------------------------------------------

// Such a call can't be finished, so the alarm is set at once.
TEST_F(AsyncMetersPayloadTest, AfterACallThatFailsToStartTheAlarmStartsTheNextAttempt) {
  AsyncMetersPayload* const payload = create();
  payload->Proceed(false);
  EXPECT_EQ(restarts, 0);
  // The alarm. The payload then deletes itself, or the leak sanitizer reports it.
  payload->Proceed(true);
  EXPECT_EQ(restarts, 1);
}

TEST_F(AsyncMetersPayloadTest, ACancelledAlarmAlsoStartsTheNextAttempt) {
  AsyncMetersPayload* const payload = create();
  payload->Proceed(false);
  payload->Proceed(false);
  EXPECT_EQ(restarts, 1);
}

TEST_F(AsyncMetersPayloadTest, TheRetryAlarmOfBothRatesIsDueFiveSecondsAfterTheFailure) {
  for (const MeterEntryType rate : {MeterEntryType::Fast, MeterEntryType::Slow}) {
    AsyncMetersPayload* const payload = create(rate);
    const auto before = system_clock::now();
    payload->Proceed(false);
    const auto after = system_clock::now();
    EXPECT_GE(lastDeadline(), before + 5s);
    EXPECT_LE(lastDeadline(), after + 5s);
    payload->Proceed(true);
  }
}

TEST_F(AsyncMetersPayloadTest, AnEmptyRestartFunctionThrowsBadFunctionCall) {
  const auto payload =
      std::make_unique<AsyncMetersPayload>(&queue, nullptr, nullptr, MeterEntryType::Slow, nullptr);
  payload->Proceed(false);
  EXPECT_THROW(payload->Proceed(true), std::bad_function_call);
}

TEST_F(AsyncMetersPayloadTest, EachAttemptHasAContextOfItsOwnWithoutDeadlineOrCompression) {
  const std::unique_ptr<AsyncMetersPayload> first(create());
  const std::unique_ptr<AsyncMetersPayload> second(create());
  ASSERT_NE(first->context, nullptr);
  EXPECT_NE(first->context, second->context);
  EXPECT_EQ(first->context->deadline(), system_clock::time_point::max());
  EXPECT_EQ(first->context->compression_algorithm(), GRPC_COMPRESS_NONE);
}

// ---- Messages -----------------------------------------------------------------------------------

// A payload with one slot of each type, whose values differ from the defaults.
class MeterMessage : public AsyncMetersPayloadTest {
 protected:
  struct Values {
    sonalith_slotText text = "before";
    std::int32_t number = -1;
    std::uint32_t count = 1;
    float level = -60.5F;
  };

  std::unique_ptr<AsyncMetersPayload> reading(MeterEntryType rate) {
    auto config = std::make_shared<ConfigManager>("/dev/null");
    config->fastMeterStrings = config->slowMeterStrings = {{"text", "", rate, ""}};
    config->fastMeterInts = config->slowMeterInts = {{"number", "", rate, 0}};
    config->fastMeterUints = config->slowMeterUints = {{"count", "", rate, 0}};
    config->fastMeterFloats = config->slowMeterFloats = {{"level", "", rate, 0}};
    table.stringCount = table.intCount = table.uintCount = table.floatCount = 1;
    table.stringValues = &values.text;
    table.intValues = &values.number;
    table.uintValues = &values.count;
    table.floatValues = &values.level;
    return std::make_unique<AsyncMetersPayload>(&queue, &table, config, rate, nullptr);
  }

  standin::Host host;
  Values values;
  GatewaySlotTable table{};
};

TEST_F(MeterMessage, WithoutItemsChangesNoSlot) {
  for (const MeterEntryType rate : {MeterEntryType::Fast, MeterEntryType::Slow}) {
    const auto payload = reading(rate);
    const Values before = values;
    process(*payload, Meter());
    EXPECT_EQ(std::memcmp(&values, &before, sizeof(values)), 0);
  }
}

// Only exceptions derived from std::exception are caught.
TEST_F(MeterMessage, PassesOnAnExceptionNotDerivedFromStdException) {
  const auto payload = reading(MeterEntryType::Fast);
  host.setHook(standin::Operation::Strncpy, [] { throw 42; });
  Meter message;
  auto& item = *message.add_values();
  item.set_key("text");
  item.mutable_value()->mutable_sstring()->set_data("x");
  EXPECT_THROW(process(*payload, message), int);
}

}  // namespace gateway
