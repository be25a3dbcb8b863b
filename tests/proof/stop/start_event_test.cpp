// A stream's start event carries no message: nothing is read out of one. A program by itself, since
// it replaces operator new.
#include "tests/proof/stop/StopTest.h"
#include "tests/support/AllocationFault.h"

namespace proof {
namespace {

using standin::SlotSet;

class StartEvent : public StopTest {};

// The first thing that reading a message does is to allocate copies of the lists. So the fault that
// waits from the start event on hits the first message, and not the event. That message is empty,
// since gRPC would allocate its items before.
TEST_F(StartEvent, RunsNoProcessMeters) {
  std::unique_ptr<AllocationFault> fault;
  begin({.method = "GetMetersFast", .step = Step::Start, .moment = Moment::Passing, .within = [&] {
           fault = std::make_unique<AllocationFault>(1);
         }});
  startModule();
  awaitOpenStreams();
  gate->awaitStarted("GetMetersFast", Step::Read, 1);
  host.clearRecords();
  servers->command("send fast -");
  ASSERT_TRUE(host.waitUntil([&] { return !log().empty(); }));
  EXPECT_EQ(log(), (Journal{"log 1 ProcessMeters() std::bad_alloc"}));
  EXPECT_EQ(textOf(SlotSet::Fast), "");
  deliver(SlotSet::Fast, "second");
  const Stop seen = stopModule();
  expectStopped(seen);
  EXPECT_EQ(seen.left, 0);
  report({"Stop in every state", "Starting: its event carries no message", "1 stop",
          "an allocation that fails from the start event on fails with the first message"});
}

}  // namespace
}  // namespace proof
