// What happens to SetParams calls that stay unanswered.
#include "tools/sim/EngineAnswers.h"

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <memory>

#include "tests/support/RawCall.h"
#include "tests/support/SimProcess.h"
#include "tools/sim/Player.h"

namespace {

// Passes every event on to a Player, and watches the last call.
class Watcher final : public sim::CallListener {
 public:
  explicit Watcher(sim::Player& player) : player_(player) {}

  bool isGone() const { return last_.expired(); }

  void opened(const std::shared_ptr<sim::Call>& call) override {
    last_ = call;
    player_.opened(call);
  }
  void sent(const sim::Call& call, std::uint64_t count) override { player_.sent(call, count); }
  void closed(const sim::Call& call, bool cancelled) override { player_.closed(call, cancelled); }

 private:
  sim::Player& player_;
  std::weak_ptr<sim::Call> last_;
};

TEST(EngineAnswers, DropACallThatHasEnded) {
  boost::asio::io_context loop;
  sim::EngineAnswers answers(loop, 1);
  answers.change({.replies = false});
  const sim::PlayerSettings settings;
  const sim::Report report(false);
  sim::Player player(settings, report, answers, loop);
  Watcher watcher(player);
  {
    sim::Simulator simulator({.meters = "", .engine = SimProcess::anyPort}, watcher, {});
    simulator.start();
    RawCall call(simulator.addresses().engine, setParamsPath, "", [](grpc::ClientContext& context) {
      context.set_deadline(std::chrono::system_clock::now() + std::chrono::milliseconds(300));
    });
    EXPECT_EQ(replyTo(call).code, grpc::StatusCode::DEADLINE_EXCEEDED);
  }
  EXPECT_TRUE(watcher.isGone());
}

}  // namespace
