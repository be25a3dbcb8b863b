// A stream's start event carries no message, and the module reads none from it. This is a program
// of its own, since it replaces operator new.
#include "tests/proof/stop/StopTest.h"
#include "tests/support/AllocationFault.h"

namespace proof {
namespace {

using standin::SlotSet;

class StartEvent : public StopTest {};

// Reading a message begins by allocating copies of the lists. So if allocations fail from the start
// event on, the first one to fail must be that of the first message. That message is empty, since
// gRPC would otherwise allocate its items before.
TEST_F(StartEvent, IsNotReadAsAMessage) {
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
  report({part,
          "the start event of a stream",
          "",
          {{"stops", 1}},
          "the module does not read it as a message"});
}

}  // namespace
}  // namespace proof
