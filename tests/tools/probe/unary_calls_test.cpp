// What the calls of the probe keep of their answers.
#include "tools/probe/UnaryCalls.h"

#include <gtest/gtest.h>

#include <chrono>

#include "tests/support/SimProcess.h"

namespace probe {
namespace {

constexpr std::size_t mebibyte = std::size_t{1} << 20;
constexpr std::size_t answerSize = 600 * 1024;

TEST(UnaryCalls, KeepNoMoreBytesThanTheirLimitUntilTheyAreTaken) {
  SimProcess server;
  server.command("engine reply " + toHex(std::string(answerSize, 'a')));
  const tools::SignalDescriptor signals;
  const Waiter waiter(signals);
  UnaryCalls calls(server.engineTarget(), std::chrono::minutes(1), mebibyte);
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 3; ++i) calls.start("/sonalith.grpcengine.Engine/SetParams", "");
    const auto answers = calls.take(waiter);
    ASSERT_EQ(answers.size(), 3U);
    EXPECT_EQ(answers[0].status.error_message(), "");
    EXPECT_EQ(answers[0].bytes.size(), answerSize);
    for (std::size_t i = 1; i < 3; ++i) {
      EXPECT_EQ(answers[i].status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
      EXPECT_EQ(answers[i].status.error_message(), "the answers have more than 1 MiB together");
      EXPECT_EQ(answers[i].bytes, "");
    }
  }
}

}  // namespace
}  // namespace probe
