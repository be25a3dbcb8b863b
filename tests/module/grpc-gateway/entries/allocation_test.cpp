// The module's own allocations fail: at a start because memory runs out, and in a notification with
// an exception that the module must not catch.
#include <algorithm>
#include <cstring>

#include "tests/module/grpc-gateway/GatewayTest.h"
#include "tests/support/AllocationFault.h"

namespace {

class StartWithoutMemory : public GatewayTest {
 protected:
  // Starts the module while its nth own allocation fails.
  int startFailing(int nth) {
    standin::KeyValueList params;
    params.addString("gatewayConfigPath", files.path("gateway.conf").c_str());
    const AllocationFault fault(nth);
    return instance.start(&params);
  }
};

TEST_F(StartWithoutMemory, AFailureToAllocateThePrivateDataLeavesTheRecordUntouched) {
  const sonalith_module before = instance.record();
  EXPECT_EQ(startFailing(1), -1);
  EXPECT_EQ(log().back(), "log 3 C++ exception in grpc gateway: std::bad_alloc");
  EXPECT_EQ(std::memcmp(&instance.record(), &before, sizeof(before)), 0);
  expectNothingLeft();
}

TEST_F(StartWithoutMemory, AFailureToAllocateTheManagerLeavesThePrivateData) {
  EXPECT_EQ(startFailing(2), -1);
  EXPECT_EQ(log().back(), "log 3 C++ exception in grpc gateway: std::bad_alloc");
  EXPECT_NE(instance.record().privateData, nullptr);
  instance.stop();
  expectNothingLeft();
}

// ---- An exception that is not standard ----------------------------------------------------------

class Notification : public GatewayTest {
 protected:
  void notify() {
    standin::KeyValueList changes;
    changes.addString("gateway.name", "a text that needs memory of its own");
    engine.notify(&changes);
  }

  // The number of the first allocation in addParamToRequest, from the beginning of a notification.
  int firstAllocationInConversion() {
    const AllocationFault counting(AllocationFault::never);
    notify();
    const auto allocations = counting.allocations();
    const auto first =
        std::find_if(allocations.begin(), allocations.end(), [](const auto& allocation) {
          return allocation.throws && allocation.callers.include("addParamToRequest");
        });
    EXPECT_NE(first, allocations.end());
    return static_cast<int>(first - allocations.begin()) + 1;
  }
};

TEST_F(Notification, AConversionExceptionNotDerivedFromStdExceptionReachesTheHost) {
  ASSERT_EQ(start("[Meters]\nEnableFastMeters=false\nEnableSlowMeters=false\n"
                  "[Engine]\nTarget=127.0.0.1:1\n"
                  "[EngineString]\nParam=Key=a.key.that.needs.memory.of.its.own CustomKey=name\n"),
            0);
  const int nth = firstAllocationInConversion();
  {
    const AllocationFault fault(nth, AllocationFault::Lasting::Once,
                                AllocationFault::Covers::ThisThread, AllocationFault::Throws::Int);
    EXPECT_THROW(notify(), int);
    EXPECT_EQ(fault.failureCount(), 1u);
  }
  instance.stop();
}

}  // namespace
