// The states of one stream attempt that need no server: what it does at each event.
#include <gtest/gtest.h>

#include "module/grpc-gateway/AsyncMetersPayload.h"

namespace gateway {
namespace {

// Stands for the client: a queue, and a count of the attempts that were started.
class Attempt : public ::testing::Test {
 protected:
  ~Attempt() override {
    queue.Shutdown();
    void* tag;
    bool ok;
    while (queue.Next(&tag, &ok)) {
    }
  }

  AsyncMetersPayload* create() {
    return new AsyncMetersPayload(&queue, nullptr, nullptr, MeterEntryType::Fast,
                                  [this] { ++restarts; });
  }

  grpc::CompletionQueue queue;
  int restarts = 0;
};

// It never got going, so there is nothing to finish: no call exists that Finish could be asked of.
TEST_F(Attempt, ThatDoesNotStartWaitsAndStartsTheNextAtTheAlarm) {
  AsyncMetersPayload* const payload = create();
  payload->Proceed(false);
  EXPECT_EQ(restarts, 0);
  payload->Proceed(true);  // the alarm; it deletes the payload, as the leak sanitizer confirms
  EXPECT_EQ(restarts, 1);
}

TEST_F(Attempt, TakesACancelledAlarmLikeOneThatCameDue) {
  AsyncMetersPayload* const payload = create();
  payload->Proceed(false);
  payload->Proceed(false);
  EXPECT_EQ(restarts, 1);
}

// Told by the order of three alarms, which no slow machine changes.
TEST_F(Attempt, SetsItsAlarmFiveSecondsAhead) {
  AsyncMetersPayload* const payload = create();
  const auto now = std::chrono::system_clock::now();
  int earlier = 0;
  int later = 0;
  grpc::Alarm earlierAlarm;
  grpc::Alarm laterAlarm;
  earlierAlarm.Set(&queue, now + std::chrono::milliseconds(4800), &earlier);
  laterAlarm.Set(&queue, now + std::chrono::milliseconds(5400), &later);
  payload->Proceed(false);

  const std::vector<void*> expected = {&earlier, payload->tag(), &later};
  std::vector<void*> order(expected.size());
  for (void*& tag : order) {
    bool ok = false;
    ASSERT_TRUE(queue.Next(&tag, &ok));
    EXPECT_TRUE(ok);
  }
  EXPECT_EQ(order, expected);
  payload->Proceed(true);
  EXPECT_EQ(restarts, 1);
}

TEST_F(Attempt, WithoutARestartRaisesAsAnEmptyFunctionDoes) {
  const auto payload =
      std::make_unique<AsyncMetersPayload>(&queue, nullptr, nullptr, MeterEntryType::Slow, nullptr);
  payload->Proceed(false);
  EXPECT_THROW(payload->Proceed(true), std::bad_function_call);
}

TEST_F(Attempt, HasAContextOfItsOwnWithoutADeadline) {
  const std::unique_ptr<AsyncMetersPayload> first(create());
  const std::unique_ptr<AsyncMetersPayload> second(create());
  EXPECT_NE(first->context, nullptr);
  EXPECT_NE(first->context, second->context);
  EXPECT_EQ(first->context->deadline(), std::chrono::system_clock::time_point::max());
}

}  // namespace
}  // namespace gateway
